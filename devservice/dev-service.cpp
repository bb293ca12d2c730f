// SPDX-License-Identifier: GPL-2.0-or-later
#include "dev-service.h"

#include <QFile>
#include <QHttpHeaders>
#include <QHttpServerResponder>
#include <QHttpServerRouterRule>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLoggingCategory>
#include <QMetaEnum>
#include <QRandomGenerator>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>

#include <array>

Q_LOGGING_CATEGORY(lcRequests, "tessivane.devservice.requests")

namespace {

using StatusCode = QHttpServerResponse::StatusCode;

// Bodies on this interface are a few hundred bytes; anything far beyond is refused unparsed.
constexpr qsizetype maxBodyBytes = 64 * 1024;

// Stands before every route and takes what no client of this interface sends: another host
// name, as from a web page that points a name of its own at 127.0.0.1, a body beyond any of
// ours, or a body that is not JSON.
class GuardRule : public QHttpServerRouterRule {
public:
    using QHttpServerRouterRule::QHttpServerRouterRule;
    std::function<QString(const QHttpServerRequest &)> refusal;

protected:
    bool matches(const QHttpServerRequest &request, QRegularExpressionMatch *) const override
    {
        return !refusal(request).isEmpty();
    }
};

QHttpServerResponse unauthorized(const QString &message)
{
    QHttpServerResponse response = DevService::errorResponse(StatusCode::Unauthorized, message);
    QHttpHeaders headers = response.headers();
    headers.append(QHttpHeaders::WellKnownHeader::WWWAuthenticate, "Bearer");
    response.setHeaders(std::move(headers));
    return response;
}

QByteArray methodName(QHttpServerRequest::Method method)
{
    const char *key =
        QMetaEnum::fromType<QHttpServerRequest::Method>().valueToKey(static_cast<int>(method));
    return key ? QByteArray(key).toUpper() : QByteArray("UNKNOWN");
}

QString bearerToken(const QHttpServerRequest &request)
{
    const QByteArray value = request.value("Authorization").trimmed();
    const QByteArray scheme = "bearer ";
    if (value.size() <= scheme.size() || value.left(scheme.size()).toLower() != scheme)
        return {};
    return QString::fromUtf8(value.mid(scheme.size()).trimmed());
}

QLatin1StringView pageTemplate()
{
    return QLatin1StringView(R"(<!DOCTYPE html>
<html lang="en">
<head><meta charset="utf-8"><title>Tessivane account</title></head>
<body>
<h1>Tessivane development service</h1>
<p>This is the local development stand-in for the Tessivane account page.
It has one demo account, and sessions last until the service stops.</p>
<dl>
<dt>E-mail address</dt><dd>%1</dd>
<dt>Password</dt><dd>%2</dd>
<dt>Name</dt><dd>%3</dd>
<dt>Plan</dt><dd>%4</dd>
</dl>
</body>
</html>
)");
}

} // namespace

QHttpServerResponse DevService::errorResponse(StatusCode status, const QString &message)
{
    return QHttpServerResponse(QJsonObject{{QStringLiteral("error"), message}}, status);
}

// Empty on success; otherwise the text to answer with, always a 400.
QString DevService::readObjectBody(const QHttpServerRequest &request, QJsonObject *object)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(request.body(), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return QStringLiteral("The request body must be a JSON object.");
    *object = document.object();
    return {};
}

QString DevService::refusal(const QHttpServerRequest &request) const
{
    const QByteArray host = request.value("Host");
    const QByteArray port = ':' + QByteArray::number(this->port());
    if (host != "127.0.0.1" + port && host != "localhost" + port)
        return QStringLiteral("This service answers only to 127.0.0.1%1.").arg(port);
    if (request.body().size() > maxBodyBytes)
        return QStringLiteral("The request body is too large.");
    if (!request.body().isEmpty() &&
        !request.value("Content-Type").toLower().startsWith("application/json"))
        return QStringLiteral("The request body must be JSON.");
    return {};
}

DevService::DevService(QObject *parent) : QObject(parent)
{
    GuardRule *guard = http_.route<GuardRule>(
        QStringLiteral("/"), Method::AnyKnown, this,
        [this](const QHttpServerRequest &request, QHttpServerResponder &responder) {
            logRequest(request, "refused");
            responder.sendResponse(errorResponse(StatusCode::BadRequest, refusal(request)));
        });
    guard->refusal = [this](const QHttpServerRequest &request) {
        return refusal(request);
    };
    // Then the faults, so that a stall stands before every other route.
    routeFaults();

    accounts_.append({QStringLiteral("usr_demo"), QStringLiteral("demo@tessivane.dev"),
                      QStringLiteral("tessivane-demo"), QStringLiteral("Demo Streamer"),
                      QStringLiteral("Creator"), QStringLiteral("tsv_live_demo_7c41e2b95d08a3f6")});

    // The demo account's channels: every platform, some selected, one offline, ids of several
    // shapes.
    channels_ = {
        {42, QStringLiteral("twitch"), QStringLiteral("Twitch"), QStringLiteral("DemoStreamer"),
         QStringLiteral("Connected"), true},
        {QStringLiteral("yt 7"), QStringLiteral("youtube"), QStringLiteral("YouTube"),
         QStringLiteral("Demo Streamer Gaming"), QStringLiteral("Connected"), true},
        {QStringLiteral("kick-demo"), QStringLiteral("kick"), QStringLiteral("Kick"),
         QStringLiteral("demostreamer"), QStringLiteral("Connected"), false},
        {QStringLiteral("fb page"), QStringLiteral("facebook"), QStringLiteral("Facebook"),
         QStringLiteral("Demo Streamer Page"), QStringLiteral("Offline"), false},
        {QStringLiteral("ig_1"), QStringLiteral("instagram"), QStringLiteral("Instagram"),
         QStringLiteral("@demostreamer"), QStringLiteral("Connected"), true},
    };

    routeAuth();
    routeAccount();
    routeChannels();
    routeStreamEngine();
    routeStreamProfile();
    routeChat();
    routePlugin();

    http_.setMissingHandler(this, [](const QHttpServerRequest &request,
                                     QHttpServerResponder &responder) {
        logRequest(request, "404");
        responder.sendResponse(
            errorResponse(StatusCode::NotFound,
                          QStringLiteral("Nothing is served at %1.").arg(request.url().path())));
    });
    http_.addAfterRequestHandler(
        this, [](const QHttpServerRequest &request, QHttpServerResponse &response) {
            logRequest(request, QByteArray::number(static_cast<int>(response.statusCode())));
        });
}

void DevService::logRequest(const QHttpServerRequest &request, const QByteArray &outcome)
{
    qCInfo(lcRequests).noquote() << methodName(request.method()) << request.url().path() << outcome;
}

bool DevService::listen(quint16 port, const QString &certPath, const QString &keyPath,
                        QString *error)
{
    QFile certFile(certPath);
    if (!certFile.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read the certificate %1: %2")
                     .arg(certPath, certFile.errorString());
        return false;
    }
    const QList<QSslCertificate> chain = QSslCertificate::fromData(certFile.readAll());
    if (chain.isEmpty()) {
        *error = QStringLiteral("no PEM certificate in %1").arg(certPath);
        return false;
    }

    QFile keyFile(keyPath);
    if (!keyFile.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read the private key %1: %2")
                     .arg(keyPath, keyFile.errorString());
        return false;
    }
    const QByteArray keyPem = keyFile.readAll();
    QSslKey key(keyPem, QSsl::Ec);
    if (key.isNull())
        key = QSslKey(keyPem, QSsl::Rsa);
    if (key.isNull()) {
        *error = QStringLiteral("no unencrypted EC or RSA private key in %1").arg(keyPath);
        return false;
    }

    QSslConfiguration tlsConfig = QSslConfiguration::defaultConfiguration();
    tlsConfig.setLocalCertificateChain(chain);
    tlsConfig.setPrivateKey(key);
    tlsConfig.setPeerVerifyMode(QSslSocket::VerifyNone);

    auto *tls = new QSslServer(this);
    tls->setSslConfiguration(tlsConfig);
    return bindServer(tls, port, error);
}

bool DevService::listenPlain(quint16 port, QString *error)
{
    plain_ = true;
    return bindServer(new QTcpServer(this), port, error);
}

bool DevService::bindServer(QTcpServer *server, quint16 port, QString *error)
{
    if (!server->listen(QHostAddress::LocalHost, port)) {
        *error = QStringLiteral("cannot listen on 127.0.0.1:%1: %2")
                     .arg(port)
                     .arg(server->errorString());
        delete server;
        return false;
    }
    if (!http_.bind(server)) {
        *error = QStringLiteral("cannot serve HTTP on 127.0.0.1:%1").arg(server->serverPort());
        delete server;
        return false;
    }
    server_ = server;
    return true;
}

quint16 DevService::port() const
{
    return server_ ? server_->serverPort() : 0;
}

QString DevService::origin() const
{
    return QStringLiteral("%1://127.0.0.1:%2")
        .arg(plain_ ? QStringLiteral("http") : QStringLiteral("https"))
        .arg(port());
}

void DevService::routeAuth()
{
    handle(QStringLiteral("/api/auth/login"), Method::Post,
           [this](const QHttpServerRequest &request) { return login(request); });

    handleSignedIn(QStringLiteral("/api/auth/logout"), Method::Post,
                   [this](const Account &, const QString &token) {
                       sessions_.remove(token);
                       return QHttpServerResponse(QJsonObject{{QStringLiteral("ok"), true}});
                   });
}

void DevService::routeAccount()
{
    handleSignedIn(
        QStringLiteral("/api/me"), Method::Get, [](const Account &account, const QString &) {
            return QHttpServerResponse(QJsonObject{{QStringLiteral("user"), userRecord(account)}});
        });

    const Account &demo = accounts_.constFirst();
    const QByteArray page = QString(pageTemplate())
                                .arg(demo.email.toHtmlEscaped(), demo.password.toHtmlEscaped(),
                                     demo.name.toHtmlEscaped(), demo.plan.toHtmlEscaped())
                                .toUtf8();
    const Handler accountPage = [page](const QHttpServerRequest &) {
        return QHttpServerResponse("text/html; charset=utf-8", page);
    };
    handle(QStringLiteral("/account"), Method::Get, accountPage);
    handle(QStringLiteral("/account/"), Method::Get, accountPage);
}

void DevService::handle(const QString &path, Method method, Handler handler)
{
    // Every method reaches the handler so that a known path with the wrong one is a 405.
    http_.route(path, QHttpServerRequest::Method::AnyKnown, this,
                [path, method, handler](const QHttpServerRequest &request) {
                    if (request.method() != method) {
                        QHttpServerResponse response =
                            errorResponse(StatusCode::MethodNotAllowed,
                                          QStringLiteral("%1 accepts only %2 requests.")
                                              .arg(path, QString::fromLatin1(methodName(method))));
                        QHttpHeaders headers = response.headers();
                        headers.append(QHttpHeaders::WellKnownHeader::Allow, methodName(method));
                        response.setHeaders(std::move(headers));
                        return response;
                    }
                    return handler(request);
                });
}

void DevService::handleSignedIn(const QString &path, Method method, AccountHandler handler)
{
    handle(path, method, [this, handler](const QHttpServerRequest &request) {
        return answerSignedIn(request, handler);
    });
}

QHttpServerResponse DevService::answerSignedIn(const QHttpServerRequest &request,
                                               const AccountHandler &handler) const
{
    const QString token = bearerToken(request);
    if (token.isEmpty())
        return unauthorized(QStringLiteral("Sign in to continue."));
    const QString accountId = sessions_.value(token);
    for (const Account &account : accounts_) {
        if (account.id == accountId)
            return handler(account, token);
    }
    return unauthorized(QStringLiteral("Your session has ended. Sign in again."));
}

void DevService::handleSignedInWithBody(const QString &path, Method method, BodyHandler handler)
{
    handle(path, method, [this, handler](const QHttpServerRequest &request) {
        QJsonObject body;
        const QString bodyError = readObjectBody(request, &body);
        // The session is checked first, so that a client without one learns that before all.
        const AccountHandler withBody = [&](const Account &account, const QString &) {
            return bodyError.isEmpty() ? handler(account, body)
                                       : errorResponse(StatusCode::BadRequest, bodyError);
        };
        return answerSignedIn(request, withBody);
    });
}

QHttpServerResponse DevService::login(const QHttpServerRequest &request)
{
    QJsonObject body;
    const QString bodyError = readObjectBody(request, &body);
    if (!bodyError.isEmpty())
        return errorResponse(StatusCode::BadRequest, bodyError);

    const QJsonValue email = body.value(QStringLiteral("email"));
    const QJsonValue password = body.value(QStringLiteral("password"));
    if (!email.isString() || !password.isString() || email.toString().trimmed().isEmpty() ||
        password.toString().isEmpty())
        return errorResponse(StatusCode::BadRequest,
                             QStringLiteral("Enter your e-mail address and password."));

    const Account *account = findAccount(email.toString());
    if (!account || account->password != password.toString())
        return errorResponse(StatusCode::Unauthorized,
                             QStringLiteral("Incorrect e-mail address or password."));

    const QString token = newSessionToken();
    sessions_.insert(token, account->id);
    return QHttpServerResponse(QJsonObject{
        {QStringLiteral("sessionToken"), token},
        {QStringLiteral("user"), userRecord(*account)},
    });
}

QString DevService::newSessionToken() const
{
    std::array<quint32, 8> words;
    QRandomGenerator::system()->fillRange(words.data(), words.size());
    const QByteArray bytes(reinterpret_cast<const char *>(words.data()),
                           qsizetype(words.size() * sizeof(quint32)));
    return QString::fromLatin1(
        bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

void DevService::resumeSession(const QString &token)
{
    sessions_.insert(token, accounts_.constFirst().id);
}

const DevService::Account *DevService::findAccount(const QString &email) const
{
    const QString wanted = email.trimmed();
    for (const Account &account : accounts_) {
        if (account.email.compare(wanted, Qt::CaseInsensitive) == 0)
            return &account;
    }
    return nullptr;
}

QJsonObject DevService::userRecord(const Account &account)
{
    return QJsonObject{
        {QStringLiteral("id"), account.id},
        {QStringLiteral("email"), account.email},
        {QStringLiteral("name"), account.name},
        {QStringLiteral("plan"), QJsonObject{{QStringLiteral("name"), account.plan}}},
    };
}
