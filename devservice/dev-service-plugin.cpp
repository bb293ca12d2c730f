// SPDX-License-Identifier: GPL-2.0-or-later
// The latest release of the plug-in.
#include "dev-service.h"

namespace {
const QString currentPluginVersion = QStringLiteral("0.3.3");
} // namespace

void DevService::routePlugin()
{
    // The current version, so that a plug-in of this version is told it is up to date.
    handle(QStringLiteral("/api/plugin/releases/latest/macos"), Method::Get,
           [](const QHttpServerRequest &) {
               return QHttpServerResponse(QJsonObject{
                   {QStringLiteral("available"), true},
                   {QStringLiteral("version"), currentPluginVersion},
               });
           });
}
