// SPDX-License-Identifier: GPL-2.0-or-later
#include "scripted-service.h"

#include <QFile>
#include <QHostAddress>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace {

QString certPath(const char *name)
{
    return QStringLiteral(TESSIVANE_TEST_CERTS_DIR "/") + QLatin1String(name);
}

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 422:
        return "Unprocessable Entity";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    }
    return "Status";
}

void writeReply(QTcpSocket *socket, const ScriptedService::Reply &reply)
{
    QByteArray out =
        "HTTP/1.1 " + QByteArray::number(reply.status) + ' ' + reasonPhrase(reply.status) + "\r\n";
    if (!reply.contentType.isEmpty())
        out += "Content-Type: " + reply.contentType + "\r\n";
    out += "Content-Length: " + QByteArray::number(reply.body.size()) + "\r\n";
    out += "Connection: keep-alive\r\n\r\n";
    out += reply.body;
    socket->write(out);
}

} // namespace

bool ScriptedService::Request::hasHeader(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

QByteArray ScriptedService::Request::header(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first.compare(name, Qt::CaseInsensitive) == 0)
            return h.second;
    }
    return QByteArray();
}

ScriptedService::Reply ScriptedService::Reply::json(int status, const QByteArray &body)
{
    Reply reply;
    reply.status = status;
    reply.body = body;
    return reply;
}

ScriptedService::Reply ScriptedService::Reply::hold()
{
    Reply reply;
    reply.action = Action::Hold;
    return reply;
}

ScriptedService::Reply ScriptedService::Reply::drop()
{
    Reply reply;
    reply.action = Action::Drop;
    return reply;
}

ScriptedService::ScriptedService(Transport transport, QObject *parent)
    : QObject(parent), transport_(transport)
{
    if (transport_ == Transport::Tls) {
        trustTestCa();
        auto *server = new QSslServer(this);
        QSslConfiguration config;
        config.setLocalCertificateChain(QSslCertificate::fromPath(certPath("server.pem")));
        QFile keyFile(certPath("server.key"));
        if (keyFile.open(QIODevice::ReadOnly))
            config.setPrivateKey(QSslKey(&keyFile, QSsl::Ec));
        config.setPeerVerifyMode(QSslSocket::VerifyNone);
        server->setSslConfiguration(config);
        server_ = server;
    } else {
        server_ = new QTcpServer(this);
    }
    // Both kinds report here; a TLS connection only once its handshake is done.
    connect(server_, &QTcpServer::pendingConnectionAvailable, this,
            &ScriptedService::acceptConnections);
}

ScriptedService::~ScriptedService()
{
    // The sockets are children of the server; cut them loose before they go with it.
    for (auto it = connections_.keyBegin(); it != connections_.keyEnd(); ++it)
        (*it)->disconnect(this);
    delete server_;
}

bool ScriptedService::listen(quint16 port)
{
    return server_->listen(QHostAddress::LocalHost, port);
}

quint16 ScriptedService::port() const
{
    return server_->serverPort();
}

QUrl ScriptedService::baseUrl() const
{
    const QString scheme =
        transport_ == Transport::Tls ? QStringLiteral("https") : QStringLiteral("http");
    return QUrl(QStringLiteral("%1://127.0.0.1:%2").arg(scheme).arg(port()));
}

void ScriptedService::setReply(const QByteArray &target, const Reply &reply)
{
    pathReplies_.insert(target, reply);
}

void ScriptedService::enqueue(const Reply &reply)
{
    queue_.append(reply);
}

void ScriptedService::setDefaultReply(const Reply &reply)
{
    defaultReply_ = reply;
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
    if (trusted)
        return;
    trusted = true;
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.addCaCertificates(QSslCertificate::fromPath(certPath("ca.pem")));
    QSslConfiguration::setDefaultConfiguration(config);
}

void ScriptedService::acceptConnections()
{
    while (QTcpSocket *socket = server_->nextPendingConnection()) {
        connections_.insert(socket, Connection());
        connect(socket, &QTcpSocket::readyRead, this, [this, socket]() { readRequests(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket]() {
            connections_.remove(socket);
            socket->deleteLater();
        });
        // Data may have come with the handshake already.
        if (socket->bytesAvailable() > 0)
            readRequests(socket);
    }
}

void ScriptedService::readRequests(QTcpSocket *socket)
{
    auto it = connections_.find(socket);
    if (it == connections_.end())
        return;
    it->buffer += socket->readAll();

    int received = 0;
    for (;;) {
        QByteArray &buffer = it->buffer;
        const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            break;
        const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        Request request;
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines.at(i).chopped(lines.at(i).endsWith('\r') ? 1 : 0);
            const qsizetype colon = line.indexOf(':');
            if (colon > 0)
                request.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
        }
        // Bodies may come in several reads: wait until Content-Length bytes are there.
        const qsizetype length = request.header("Content-Length").toLongLong();
        if (buffer.size() < headEnd + 4 + length)
            break;
        request.body = buffer.mid(headEnd + 4, length);
        buffer.remove(0, headEnd + 4 + length);
        requests_.append(request);
        it->pending.append(replyFor(request));
        ++received;
    }
    answerNext(socket);
    for (int i = 0; i < received; ++i)
        Q_EMIT requestReceived();
}

void ScriptedService::answerNext(QTcpSocket *socket)
{
    // Answers go out in request order on a connection, whatever delay each one has.
    auto it = connections_.find(socket);
    while (it != connections_.end() && !it->busy && !it->pending.isEmpty()) {
        const Reply reply = it->pending.takeFirst();
        switch (reply.action) {
        case Reply::Action::Hold:
            it->busy = true;
            return;
        case Reply::Action::Drop:
            connections_.erase(it);
            socket->disconnect(this);
            socket->abort();
            socket->deleteLater();
            return;
        case Reply::Action::Answer:
            break;
        }
        if (reply.delayMs > 0) {
            it->busy = true;
            QTimer::singleShot(reply.delayMs, socket, [this, socket, reply]() {
                const auto found = connections_.find(socket);
                if (found == connections_.end())
                    return;
                writeReply(socket, reply);
                found->busy = false;
                answerNext(socket);
            });
            return;
        }
        writeReply(socket, reply);
    }
}

ScriptedService::Reply ScriptedService::replyFor(const Request &request)
{
    const auto scripted = pathReplies_.constFind(request.target);
    if (scripted != pathReplies_.constEnd())
        return *scripted;
    if (!queue_.isEmpty())
        return queue_.takeFirst();
    return defaultReply_;
}
