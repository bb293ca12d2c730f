// SPDX-License-Identifier: GPL-2.0-or-later
// The channel list, selection, removal and connecting a platform.
#include "dev-service.h"

#include <QJsonArray>
#include <QUrlQuery>

namespace {

using StatusCode = QHttpServerResponse::StatusCode;

struct Platform {
    QString provider;
    QString name;
    bool authorizes; // has an authorization page; Instagram is added by hand only
};

const Platform platforms[] = {
    {QStringLiteral("twitch"), QStringLiteral("Twitch"), true},
    {QStringLiteral("youtube"), QStringLiteral("YouTube"), true},
    {QStringLiteral("kick"), QStringLiteral("Kick"), true},
    {QStringLiteral("facebook"), QStringLiteral("Facebook"), true},
    {QStringLiteral("instagram"), QStringLiteral("Instagram"), false},
};

const Platform *findPlatform(const QString &provider)
{
    for (const Platform &platform : platforms) {
        if (platform.provider == provider)
            return &platform;
    }
    return nullptr;
}

// The plug-in escapes an id for its path and its HTTP layer escapes the result once more, so the
// segment as sent is decoded twice: "yt%25207" is the channel "yt 7".
QString pathSegment(const QHttpServerRequest &request, int index)
{
    const QByteArray segment =
        request.url().path(QUrl::FullyEncoded).toUtf8().split('/').value(index);
    return QUrl::fromPercentEncoding(QUrl::fromPercentEncoding(segment).toUtf8());
}

QLatin1StringView connectedPage()
{
    return QLatin1StringView(R"(<!DOCTYPE html>
<html lang="en">
<head><meta charset="utf-8"><title>%1 connected</title></head>
<body>
<h1>%1 is connected to Tessivane</h1>
<p>You can close this page and return to OBS. The new channel shows in the Tessivane Channels
dock at its next refresh.</p>
</body>
</html>
)");
}

} // namespace

void DevService::routeChannels()
{
    handleSignedIn(QStringLiteral("/api/channels"), Method::Get,
                   [this](const Account &account, const QString &) {
                       QJsonArray list;
                       for (const Channel &channel : std::as_const(channels_))
                           list.append(QJsonObject{
                               {QStringLiteral("id"), channel.id},
                               {QStringLiteral("provider"), channel.provider},
                               {QStringLiteral("providerName"), channel.providerName},
                               {QStringLiteral("name"), channel.name},
                               {QStringLiteral("status"), channel.status},
                               {QStringLiteral("selected"), channel.selected},
                           });
                       return QHttpServerResponse(QJsonObject{
                           {QStringLiteral("channels"), list},
                           {QStringLiteral("user"), userRecord(account)},
                       });
                   });

    const auto findChannel = [this](const QString &id) -> Channel * {
        for (Channel &channel : channels_) {
            const QString text = channel.id.isDouble() ? QString::number(channel.id.toInteger())
                                                       : channel.id.toString();
            if (text == id)
                return &channel;
        }
        return nullptr;
    };
    const auto unknownChannel = [](const QString &id) {
        return errorResponse(StatusCode::NotFound,
                             QStringLiteral("There is no channel \"%1\" on this account.").arg(id));
    };

    routeSignedInPost(
        QStringLiteral("/api/channels/<arg>/selection"),
        [this, findChannel, unknownChannel](const QString &id, const QJsonObject &body) {
            Channel *channel = findChannel(id);
            if (!channel)
                return unknownChannel(id);
            const QJsonValue selected = body.value(QStringLiteral("selected"));
            if (!selected.isBool())
                return errorResponse(StatusCode::BadRequest,
                                     QStringLiteral("selected must be true or false."));
            channel->selected = selected.toBool();
            return QHttpServerResponse(QJsonObject{{QStringLiteral("ok"), true}});
        });

    routeSignedInPost(QStringLiteral("/api/channels/<arg>/remove"),
                      [this, findChannel, unknownChannel](const QString &id, const QJsonObject &) {
                          Channel *channel = findChannel(id);
                          if (!channel)
                              return unknownChannel(id);
                          channels_.removeAt(channel - channels_.data());
                          return QHttpServerResponse(QJsonObject{{QStringLiteral("ok"), true}});
                      });

    routeSignedInPost(QStringLiteral("/api/connections/<arg>/start"), [this](
                                                                          const QString &provider,
                                                                          const QJsonObject &) {
        const Platform *platform = findPlatform(provider);
        if (!platform)
            return errorResponse(StatusCode::NotFound,
                                 QStringLiteral("Tessivane can't connect \"%1\".").arg(provider));
        if (!platform->authorizes)
            return errorResponse(
                StatusCode::BadRequest,
                QStringLiteral("%1 has no sign-in page: add it with its Live Producer's server "
                               "URL and stream key.")
                    .arg(platform->name));
        const QString state = newSessionToken();
        pendingConnections_.insert(state, platform->provider);
        return QHttpServerResponse(QJsonObject{
            {QStringLiteral("url"),
             QStringLiteral("%1/connect/%2?state=%3").arg(origin(), platform->provider, state)},
        });
    });

    // What the browser opens: the platform's consent is taken as given, and the account gains
    // a channel there.
    http_.route(QStringLiteral("/connect/<arg>"), Method::Get, this,
                [this](const QString &, const QHttpServerRequest &request) {
                    const QString provider = pathSegment(request, 2);
                    const QString state =
                        QUrlQuery(request.url()).queryItemValue(QStringLiteral("state"));
                    const Platform *platform = findPlatform(provider);
                    if (!platform || pendingConnections_.value(state) != provider)
                        return errorResponse(
                            StatusCode::NotFound,
                            QStringLiteral("This link has expired: start again from OBS."));
                    pendingConnections_.remove(state);
                    channels_.append({nextChannelId_++, platform->provider, platform->name,
                                      QStringLiteral("Demo Streamer on %1").arg(platform->name),
                                      QStringLiteral("Connected"), false});
                    return QHttpServerResponse(
                        "text/html; charset=utf-8",
                        QString(connectedPage()).arg(platform->name.toHtmlEscaped()).toUtf8());
                });

    routeSignedInPost(QStringLiteral("/api/connections/manual"), [this](const QString &,
                                                                        const QJsonObject &body) {
        QStringList fields;
        for (const char *key : {"provider", "displayName", "serverUrl", "streamKey"})
            fields << body.value(QLatin1String(key)).toString().trimmed();
        const Platform *platform = findPlatform(fields[0]);
        if (!platform || (platform->provider != QLatin1String("facebook") &&
                          platform->provider != QLatin1String("instagram")))
            return errorResponse(StatusCode::BadRequest,
                                 QStringLiteral("Only Facebook and Instagram are added by hand."));
        if (fields.contains(QString()))
            return errorResponse(
                StatusCode::BadRequest,
                QStringLiteral("Enter a name, the server URL and the stream key."));
        if (!fields[2].startsWith(QLatin1String("rtmp://")) &&
            !fields[2].startsWith(QLatin1String("rtmps://")))
            return errorResponse(StatusCode::BadRequest,
                                 QStringLiteral("The server URL starts with rtmps:// or rtmp://."));
        // The key is taken and dropped: nothing here streams to it.
        channels_.append({nextChannelId_++, platform->provider, platform->name, fields[1],
                          QStringLiteral("Ready"), false});
        return QHttpServerResponse(QJsonObject{{QStringLiteral("ok"), true}});
    });
}

// A POST for a signed-in client whose path may carry one argument, a channel id or a platform
// word; the handler gets it decoded and the body as an object.
void DevService::routeSignedInPost(const QString &pattern, PostHandler handler)
{
    const auto serve = [this, handler](const QString &arg, const QHttpServerRequest &request) {
        QJsonObject body;
        const QString bodyError = readObjectBody(request, &body);
        return answerSignedIn(request, [&](const Account &, const QString &) {
            return bodyError.isEmpty() ? handler(arg, body)
                                       : errorResponse(StatusCode::BadRequest, bodyError);
        });
    };
    if (pattern.contains(QLatin1String("<arg>")))
        http_.route(pattern, Method::Post, this,
                    [serve](const QString &, const QHttpServerRequest &request) {
                        return serve(pathSegment(request, 3), request);
                    });
    else
        handle(pattern, Method::Post,
               [serve](const QHttpServerRequest &request) { return serve(QString(), request); });
}
