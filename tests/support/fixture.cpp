// SPDX-License-Identifier: GPL-2.0-or-later
#include "fixture.h"

#include <QFile>
#include <QMetaEnum>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslServer>

namespace {
QByteArray readFile(const char *name)
{
    QFile file(QStringLiteral(TESSIVANE_DEV_CERT_DIR "/") + QLatin1String(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
} // namespace

ScriptedService::ScriptedService(QObject *parent) : QObject(parent)
{
    // Once per process, the clients of the test trust the development CA.
    static const bool trusted = [] {
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.addCaCertificates(QSslCertificate::fromData(readFile("dev-ca.pem")));
        QSslConfiguration::setDefaultConfiguration(config);
        return true;
    }();
    Q_UNUSED(trusted)
    http_.setMissingHandler(this, [this](const QHttpServerRequest &request,
                                         QHttpServerResponder &responder) {
        const QByteArray target =
            request.url().toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority);
        const char *method =
            QMetaEnum::fromType<QHttpServerRequest::Method>().valueToKey(int(request.method()));
        requests.append({QByteArray(method).toUpper(), target, request.headers(), request.body()});
        const Reply reply = replies.value(target, fallback);
        if (reply.status == hold)
            return held_.push_back(std::move(responder));
        QHttpHeaders headers;
        headers.append(QHttpHeaders::WellKnownHeader::ContentType, "application/json");
        if (!locations.value(target).isEmpty())
            headers.append(QHttpHeaders::WellKnownHeader::Location, locations.value(target));
        responder.write(reply.body, headers, QHttpServerResponder::StatusCode(reply.status));
    });
}

QSslConfiguration ScriptedService::tls()
{
    QSslConfiguration config;
    config.setLocalCertificateChain(QSslCertificate::fromData(readFile("server.pem")));
    config.setPrivateKey(QSslKey(readFile("server-key.pem"), QSsl::Ec));
    return config;
}

bool ScriptedService::listen(quint16 port)
{
    auto *server = new QSslServer(this);
    server->setSslConfiguration(tls());
    if (!server->listen(QHostAddress::LocalHost, port)) {
        qWarning("Cannot listen on 127.0.0.1:%d: %s", port, qPrintable(server->errorString()));
        return false;
    }
    return http_.bind(server);
}

QUrl ScriptedService::baseUrl() const
{
    return QUrl(QStringLiteral("https://127.0.0.1:%1").arg(http_.serverPorts().value(0)));
}
