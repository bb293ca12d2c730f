// SPDX-License-Identifier: GPL-2.0-or-later
#include "tessivane-api.h"
#include "tessivane-replies.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QList>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSet>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QUrlQuery>

namespace {
// The client's own number, kept apart from the plug-in's version on purpose.
constexpr char userAgent[] = "Tessivane-OBS-Plugin/0.3.0";
// No reply of the service's comes near this; a larger one is not held in OBS's memory.
constexpr qint64 largestReply = 4 * 1024 * 1024;

bool sameOrigin(const QUrl &a, const QUrl &b)
{
    return a.scheme() == b.scheme() && a.host() == b.host() &&
           a.port(a.scheme() == QLatin1String("https") ? 443 : 80) ==
               b.port(b.scheme() == QLatin1String("https") ? 443 : 80);
}

// A failed reply in the client's own words where it knows better than Qt, else in the service's
// ("error" first, then "message"), else in Qt's.
QString failureText(const QNetworkReply *reply, const QJsonObject &object)
{
    if (earlyEnd(reply) == EarlyEnd::TooLarge)
        return QStringLiteral("Tessivane's reply was too large to read.");
    if (replyFellSilent(reply))
        return QStringLiteral("Tessivane did not answer. Try again in a moment.");
    if (reply->error() == QNetworkReply::InsecureRedirectError)
        return QStringLiteral("Tessivane sent the request elsewhere; it was stopped.");
    for (const char *key : {"error", "message"}) {
        const QJsonValue text = object.value(QLatin1String(key));
        if (text.isString() && !text.toString().trimmed().isEmpty())
            return text.toString().trimmed();
    }
    return reply->errorString();
}

// Qt takes Debian's trust store, whose folder of hash names holds links only, for one it cannot
// look authorities up in, and reads all of them at the first request: from the bundle and from
// each one's own file, so that OBS holds every authority twice, over a megabyte. Once is enough;
// the authorities trusted stay the same.
void holdAuthoritiesOnce()
{
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    const QList<QSslCertificate> all = tls.caCertificates();
    QList<QSslCertificate> once;
    QSet<QSslCertificate> seen;
    for (const QSslCertificate &authority : all) {
        if (!seen.contains(authority)) {
            seen.insert(authority);
            once.append(authority);
        }
    }
    if (once.size() == all.size())
        return;
    tls.setCaCertificates(once);
    QSslConfiguration::setDefaultConfiguration(tls);
#if QT_CONFIG(dtls)
    // It holds the same list; the copies go only once neither does.
    QSslConfiguration datagrams = QSslConfiguration::defaultDtlsConfiguration();
    datagrams.setCaCertificates(once);
    QSslConfiguration::setDefaultDtlsConfiguration(datagrams);
#endif
}

// An id or provider word in a path, escaped here and once more by the request frame, which takes
// the path as decoded text: a blank reaches the service as "%2520". The service expects that.
QString pathWord(const QString &value)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(value));
}
} // namespace

TessivaneApi::TessivaneApi(QObject *parent)
    : QObject(parent), baseUrl_(QUrl(QStringLiteral(TESSIVANE_SERVICE_ORIGIN)))
{
}

void TessivaneApi::setBaseUrl(const QUrl &url)
{
    if (url.isValid() && !url.host().isEmpty())
        baseUrl_ = url;
}

void TessivaneApi::setSessionToken(const QString &token)
{
    sessionToken_ = token.trimmed();
}

QString TessivaneApi::sessionToken() const
{
    return sessionToken_;
}

void TessivaneApi::abortAll()
{
    const QList<QNetworkReply *> replies = manager_.findChildren<QNetworkReply *>();
    for (QNetworkReply *reply : replies)
        endEarly(reply, EarlyEnd::Aborted, Qt::DirectConnection);
}

QNetworkRequest TessivaneApi::requestFor(const QString &path) const
{
    // At the first request, when Qt reads the trust store anyway, not at OBS's start.
    static const bool once = (holdAuthoritiesOnce(), true);
    Q_UNUSED(once);
    QUrl url = baseUrl_;
    // The path is decoded text: "?" and "%" in it travel escaped, never as a query.
    url.setPath(path.startsWith(QLatin1Char('/')) ? path : QLatin1Char('/') + path,
                QUrl::DecodedMode);
    url.setQuery(QString());

    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setRawHeader("Accept", "application/json");
    request.setRawHeader("User-Agent", userAgent);
    if (!sessionToken_.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + sessionToken_.toUtf8());
    // The session and the password go nowhere but to the service: a redirect is followed only
    // within its origin, scheme and port included.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         int(QNetworkRequest::SameOriginRedirectPolicy));
    request.setTransferTimeout(silenceMs_);
    return request;
}

void TessivaneApi::get(const QString &path, const QString &operation, Callback callback)
{
    QNetworkReply *reply = manager_.get(requestFor(path));
    handleReply(reply, operation, std::move(callback));
}

void TessivaneApi::post(const QString &path, const QJsonObject &body, const QString &operation,
                        Callback callback)
{
    const QByteArray bytes = QJsonDocument(body).toJson(QJsonDocument::Compact);
    QNetworkReply *reply = manager_.post(requestFor(path), bytes);
    handleReply(reply, operation, std::move(callback));
}

void TessivaneApi::handleReply(QNetworkReply *reply, const QString &operation, Callback callback)
{
    boundReplySize(reply, largestReply);
    connect(
        reply, &QNetworkReply::finished, this,
        [this, reply, operation, callback = std::move(callback)]() {
            // An aborted reply is already closed; reading it would only warn.
            const QByteArray body = reply->isOpen() ? reply->readAll() : QByteArray();
            QJsonParseError parseError;
            const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
            const QJsonObject object = document.isObject() ? document.object() : QJsonObject();

            if (reply->error() != QNetworkReply::NoError || earlyEnd(reply) == EarlyEnd::TooLarge) {
                Q_EMIT requestFailed(operation, failureText(reply, object));
            } else if (parseError.error != QJsonParseError::NoError && !body.trimmed().isEmpty()) {
                Q_EMIT requestFailed(operation,
                                     QStringLiteral("Tessivane returned an invalid response."));
            } else {
                callback(object);
            }
            reply->deleteLater();
        });
}

void TessivaneApi::login(const QString &email, const QString &password)
{
    const QJsonObject body{{QStringLiteral("email"), email.trimmed()},
                           {QStringLiteral("password"), password}};
    post(QStringLiteral("/api/auth/login"), body, QStringLiteral("Sign in"),
         [this](const QJsonObject &reply) {
             const QString token = reply.value(QStringLiteral("sessionToken")).toString();
             if (token.isEmpty()) {
                 Q_EMIT requestFailed(
                     QStringLiteral("Sign in"),
                     QStringLiteral("The account response did not include a session."));
                 return;
             }
             sessionToken_ = token.trimmed();
             Q_EMIT signedIn(reply.value(QStringLiteral("user")).toObject(), token);
         });
}

void TessivaneApi::logout()
{
    if (sessionToken_.isEmpty()) {
        Q_EMIT signedOut();
        return;
    }
    post(QStringLiteral("/api/auth/logout"), QJsonObject(), QStringLiteral("Sign out"),
         [this](const QJsonObject &) {
             sessionToken_.clear();
             Q_EMIT signedOut();
         });
}

void TessivaneApi::fetchAccount()
{
    get(QStringLiteral("/api/me"), QStringLiteral("Load account"),
        [this](const QJsonObject &reply) {
            Q_EMIT accountLoaded(reply.value(QStringLiteral("user")).toObject());
        });
}

void TessivaneApi::fetchIngest()
{
    get(QStringLiteral("/api/stream-engine/ingest"), QStringLiteral("Configure OBS"),
        [this](const QJsonObject &reply) { Q_EMIT ingestLoaded(reply); });
}

void TessivaneApi::fetchLatestPluginRelease()
{
    // Released for macOS only; the segment stays "macos" on every platform.
    get(QStringLiteral("/api/plugin/releases/latest/macos"), QStringLiteral("Check for updates"),
        [this](const QJsonObject &reply) { Q_EMIT pluginReleaseLoaded(reply); });
}

void TessivaneApi::fetchChannels()
{
    get(QStringLiteral("/api/channels"), QStringLiteral("Load channels"),
        [this](const QJsonObject &reply) {
            Q_EMIT channelsLoaded(reply.value(QStringLiteral("channels")).toArray(),
                                  reply.value(QStringLiteral("user")).toObject());
        });
}

void TessivaneApi::setChannelSelected(const QString &channelId, bool selected)
{
    post(QStringLiteral("/api/channels/%1/selection").arg(pathWord(channelId)),
         {{QStringLiteral("selected"), selected}}, QStringLiteral("Update channel"),
         [this](const QJsonObject &) { fetchChannels(); });
}

void TessivaneApi::startProviderConnection(const QString &provider)
{
    const QString operation = QStringLiteral("Connect %1").arg(provider);
    post(QStringLiteral("/api/connections/%1/start").arg(pathWord(provider)), QJsonObject(),
         operation, [this, provider, operation](const QJsonObject &reply) {
             const QUrl url(reply.value(QStringLiteral("url")).toString(), QUrl::TolerantMode);
             if (!url.isValid() || url.isEmpty())
                 Q_EMIT requestFailed(operation,
                                      QStringLiteral("No authorization URL was returned."));
             // Only a secure page goes to the browser, or one of the service's own.
             else if (url.scheme() != QLatin1String("https") && !sameOrigin(url, baseUrl_))
                 Q_EMIT requestFailed(operation, QStringLiteral("The authorization address is "
                                                                "not secure; it was not opened."));
             else
                 Q_EMIT providerAuthorizationReady(provider, url);
         });
}

void TessivaneApi::removeChannel(const QString &channelId)
{
    post(QStringLiteral("/api/channels/%1/remove").arg(pathWord(channelId)), QJsonObject(),
         QStringLiteral("Remove channel"), [this](const QJsonObject &) { fetchChannels(); });
}

void TessivaneApi::addManualLiveDestination(const QString &provider, const QString &displayName,
                                            const QString &serverUrl, const QString &streamKey)
{
    const QJsonObject body{{QStringLiteral("provider"), provider.trimmed().toLower()},
                           {QStringLiteral("displayName"), displayName.trimmed()},
                           {QStringLiteral("serverUrl"), serverUrl.trimmed()},
                           {QStringLiteral("streamKey"), streamKey.trimmed()}};
    post(QStringLiteral("/api/connections/manual"), body,
         QStringLiteral("Add %1 Live").arg(provider),
         [this](const QJsonObject &) { fetchChannels(); });
}

void TessivaneApi::fetchStreamProfile()
{
    get(QStringLiteral("/api/stream-profile"), QStringLiteral("Load stream information"),
        [this](const QJsonObject &reply) {
            Q_EMIT streamProfileLoaded(reply.value(QStringLiteral("profile")).toObject());
        });
}

void TessivaneApi::saveStreamProfile(const QJsonObject &profile)
{
    post(QStringLiteral("/api/stream-profile"), profile, QStringLiteral("Save stream information"),
         [this](const QJsonObject &reply) {
             Q_EMIT streamProfileSaved(reply.value(QStringLiteral("profile")).toObject(),
                                       reply.value(QStringLiteral("syncResults")).toArray());
         });
}

void TessivaneApi::fetchCategories(const QString &provider, const QString &query)
{
    QUrlQuery items;
    items.addQueryItem(QStringLiteral("provider"), provider.trimmed().toLower());
    items.addQueryItem(QStringLiteral("q"), query.trimmed());
    // The query is part of the decoded path, so "?" and "%" are escaped once more on the wire;
    // the service reads it back from there.
    get(QStringLiteral("/api/categories?%1").arg(items.query(QUrl::FullyEncoded)),
        QStringLiteral("Search %1 categories").arg(provider),
        [this, provider](const QJsonObject &reply) {
            Q_EMIT categoriesLoaded(provider.toLower(),
                                    reply.value(QStringLiteral("categories")).toArray());
        });
}

void TessivaneApi::fetchLiveStats()
{
    get(QStringLiteral("/api/live/stats"), QStringLiteral("Load platform status"),
        [this](const QJsonObject &reply) {
            QJsonArray stats = reply.value(QStringLiteral("stats")).toArray();
            if (stats.isEmpty())
                stats = reply.value(QStringLiteral("platforms")).toArray();
            Q_EMIT liveStatsLoaded(stats);
        });
}

void TessivaneApi::setStreamActive(bool active)
{
    post(QStringLiteral("/api/stream/state"), {{QStringLiteral("active"), active}},
         active ? QStringLiteral("Start stream session") : QStringLiteral("Stop stream session"),
         [this](const QJsonObject &) {
             fetchChannels();
             fetchLiveStats();
         });
}

void TessivaneApi::fetchChatMessages()
{
    get(QStringLiteral("/api/chat/messages"), QStringLiteral("Load chat"),
        [this](const QJsonObject &reply) {
            Q_EMIT chatLoaded(reply.value(QStringLiteral("messages")).toArray(),
                              reply.value(QStringLiteral("adapters")).toArray());
        });
}

void TessivaneApi::sendChatMessage(const QString &text, const QString &channelId,
                                   const QString &provider)
{
    QJsonObject body{{QStringLiteral("text"), text.trimmed()}};
    if (!channelId.trimmed().isEmpty())
        body.insert(QStringLiteral("channelId"), channelId.trimmed());
    if (!provider.trimmed().isEmpty())
        body.insert(QStringLiteral("provider"), provider.trimmed());
    post(QStringLiteral("/api/chat/send"), body, QStringLiteral("Send chat"),
         [this](const QJsonObject &) { Q_EMIT chatMessageSent(); });
}
