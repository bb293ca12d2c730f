// SPDX-License-Identifier: GPL-2.0-or-later
// The account's ingest, the state of its stream and the platforms' live statistics.
#include "dev-service.h"

namespace {
const QString ingestServer = QStringLiteral("rtmp://127.0.0.1:1935/live");
} // namespace

void DevService::routeStreamEngine()
{
    handleSignedIn(QStringLiteral("/api/stream-engine/ingest"), Method::Get,
                   [](const Account &account, const QString &) {
                       return QHttpServerResponse(QJsonObject{
                           {QStringLiteral("server"), ingestServer},
                           {QStringLiteral("streamKey"), account.streamKey},
                       });
                   });
}
