// SPDX-License-Identifier: GPL-2.0-or-later
#include "tessivane-api.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QList>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace {
// The client's own number, kept apart from the plug-in's version on purpose.
constexpr char userAgent[] = "Tessivane-OBS-Plugin/0.3.0";
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
        reply->abort();
}

QNetworkRequest TessivaneApi::requestFor(const QString &path) const
{
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
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, operation, callback = std::move(callback)]() {
                // An aborted reply is already closed; reading it would only warn.
                const QByteArray body = reply->isOpen() ? reply->readAll() : QByteArray();
                QJsonParseError parseError;
                const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
                const QJsonObject object = document.isObject() ? document.object() : QJsonObject();

                if (reply->error() != QNetworkReply::NoError) {
                    QString message = reply->errorString();
                    const QJsonValue error = object.value(QStringLiteral("error"));
                    const QJsonValue text = object.value(QStringLiteral("message"));
                    if (error.isString() && !error.toString().trimmed().isEmpty())
                        message = error.toString().trimmed();
                    else if (text.isString() && !text.toString().trimmed().isEmpty())
                        message = text.toString().trimmed();
                    Q_EMIT requestFailed(operation, message);
                } else if (parseError.error != QJsonParseError::NoError &&
                           !body.trimmed().isEmpty()) {
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
