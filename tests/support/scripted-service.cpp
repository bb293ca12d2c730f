// SPDX-License-Identifier: GPL-2.0-or-later
#include "scripted-service.h"

#include <QFile>
#include <QHostAddress>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QTcpSocket>
#include <QTimer>

#include <utility>

namespace {

QString certPath(const char *name)
{
    return QStringLiteral(TESSIVANE_TEST_CERTS_DIR "/") + QLatin1String(name);
}

void writeReply(QTcpSocket *socket, const ScriptedService::Reply &reply)
{
    // Qt puts the reason phrase into its error texts, which tests look for.
    static const QHash<int, QByteArray> reasons = {{200, "OK"},
                                                   {401, "Unauthorized"},
                                                   {404, "Not Found"},
                                                   {500, "Internal Server Error"},
                                                   {503, "Service Unavailable"}};
    QByteArray out = "HTTP/1.1 " + QByteArray::number(reply.status) + ' ' +
                     reasons.value(reply.status, "Status") + "\r\n";
    if (!reply.contentType.isEmpty())
        out += "Content-Type: " + reply.contentType + "\r\n";
    out += "Content-Length: " + QByteArray::number(reply.body.size()) + "\r\n\r\n" + reply.body;
    socket->write(out);
}

} // namespace

const QByteArray *ScriptedService::Request::find(const QByteArray &name) const
{
    for (const auto &header : headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            return &header.second;
    }
    return nullptr;
}

ScriptedService::ScriptedService(Transport transport, QObject *parent)
    : QObject(parent), transport_(transport)
{
    if (transport_ == Transport::Tls) {
        trustTestCa();
        auto *server = new QSslServer(this);
        QSslConfiguration config;
        config.setLocalCertificateChain(QSslCertificate::fromPath(certPath("server.pem")));
        QFile key(certPath("server.key"));
        if (key.open(QIODevice::ReadOnly))
            config.setPrivateKey(QSslKey(&key, QSsl::Ec));
        server->setSslConfiguration(config);
        server_ = server;
    } else {
        server_ = new QTcpServer(this);
    }
    // Both kinds report here; a TLS connection only once its handshake is done.
    connect(server_, &QTcpServer::pendingConnectionAvailable, this, [this]() {
        while (QTcpSocket *socket = server_->nextPendingConnection()) {
            connections_.insert(socket, Connection());
            connect(socket, &QTcpSocket::readyRead, this,
                    [this, socket]() { readRequests(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket]() {
                connections_.remove(socket);
                socket->deleteLater();
            });
            // Data may have come with the handshake already.
            if (socket->bytesAvailable() > 0)
                readRequests(socket);
        }
    });
}

bool ScriptedService::listen(quint16 port)
{
    return server_->listen(QHostAddress::LocalHost, port);
}

QUrl ScriptedService::baseUrl() const
{
    return QUrl(QStringLiteral("%1://127.0.0.1:%2")
                    .arg(transport_ == Transport::Tls ? "https" : "http")
                    .arg(server_->serverPort()));
}

QList<QByteArray> ScriptedService::targets() const
{
    QList<QByteArray> result;
    for (const Request &request : requests_)
        result.append(request.target);
    return result;
}

void ScriptedService::trustTestCa()
{
    static bool trusted = false;
    if (std::exchange(trusted, true))
        return;
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.addCaCertificates(QSslCertificate::fromPath(certPath("ca.pem")));
    QSslConfiguration::setDefaultConfiguration(config);
}

void ScriptedService::readRequests(QTcpSocket *socket)
{
    const auto it = connections_.find(socket);
    if (it == connections_.end())
        return;
    QByteArray &buffer = it->buffer;
    buffer += socket->readAll();
    qsizetype headEnd;
    while ((headEnd = buffer.indexOf("\r\n\r\n")) >= 0) {
        const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        Request request{requestLine.value(0), requestLine.value(1), {}, {}};
        for (const QByteArray &line : lines.mid(1)) {
            const qsizetype colon = line.indexOf(':');
            if (colon > 0)
                request.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
        }
        // A body may come in several reads: wait until Content-Length bytes are there.
        const qsizetype length = request.header("Content-Length").toLongLong();
        if (buffer.size() < headEnd + 4 + length)
            break;
        request.body = buffer.mid(headEnd + 4, length);
        buffer.remove(0, headEnd + 4 + length);
        requests_.append(request);
        if (pathReplies_.contains(request.target))
            it->pending.append(pathReplies_.value(request.target));
        else
            it->pending.append(queue_.isEmpty() ? defaultReply_ : queue_.takeFirst());
    }
    answerNext(socket);
}

void ScriptedService::answerNext(QTcpSocket *socket)
{
    // Answers go out in request order on a connection, whatever delay each one has.
    for (auto it = connections_.find(socket);
         it != connections_.end() && !it->busy && !it->pending.isEmpty();) {
        const Reply reply = it->pending.takeFirst();
        if (reply.action == Reply::Action::Drop) {
            socket->abort();
            return;
        }
        if (reply.action == Reply::Action::Answer && reply.delayMs == 0) {
            writeReply(socket, reply);
            continue;
        }
        it->busy = true;
        if (reply.action == Reply::Action::Answer) {
            QTimer::singleShot(reply.delayMs, socket, [this, socket, reply]() {
                if (!connections_.contains(socket))
                    return;
                writeReply(socket, reply);
                connections_[socket].busy = false;
                answerNext(socket);
            });
        }
        return;
    }
}
