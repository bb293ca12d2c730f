// SPDX-License-Identifier: GPL-2.0-or-later
// The account's ingest, the state of its stream and the platforms' live statistics.
#include "dev-service.h"

#include <QJsonArray>

void DevService::setIngestPort(quint16 port)
{
    ingestPort_ = port;
}

void DevService::routeStreamEngine()
{
    handleSignedIn(QStringLiteral("/api/stream-engine/ingest"), Method::Get,
                   [this](const Account &account, const QString &) {
                       return QHttpServerResponse(QJsonObject{
                           {QStringLiteral("server"),
                            QStringLiteral("rtmp://127.0.0.1:%1/live").arg(ingestPort_)},
                           {QStringLiteral("streamKey"), account.streamKey},
                       });
                   });

    // The plug-in says when OBS's stream starts and stops; nothing here watches the RTMP server.
    handleSignedInWithBody(
        QStringLiteral("/api/stream/state"), Method::Post,
        [this](const Account &account, const QJsonObject &body) {
            const QJsonValue active = body.value(QStringLiteral("active"));
            if (!active.isBool())
                return errorResponse(QHttpServerResponse::StatusCode::BadRequest,
                                     QStringLiteral("\"active\" must be true or false."));
            if (active.toBool())
                streaming_.insert(account.id);
            else
                streaming_.remove(account.id);
            return QHttpServerResponse(QJsonObject{{QStringLiteral("active"), active}});
        });

    // While the account streams, its selected channels that are connected are live.
    handleSignedIn(QStringLiteral("/api/live/stats"), Method::Get,
                   [this](const Account &account, const QString &) {
                       const bool streaming = streaming_.contains(account.id);
                       QJsonArray stats;
                       for (const Channel &channel : std::as_const(channels_)) {
                           const bool live = streaming && channel.selected &&
                                             channel.status == QLatin1String("Connected");
                           stats.append(QJsonObject{
                               {QStringLiteral("channelId"), channel.id},
                               {QStringLiteral("provider"), channel.provider},
                               {QStringLiteral("status"),
                                live ? QStringLiteral("live") : QStringLiteral("offline")},
                           });
                       }
                       return QHttpServerResponse(QJsonObject{{QStringLiteral("stats"), stats}});
                   });
}
