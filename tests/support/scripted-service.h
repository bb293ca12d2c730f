// SPDX-License-Identifier: GPL-2.0-or-later
// A local HTTP/1.1 server for tests, over TLS (with a test CA the process trusts) or plain TCP.
// It records each request as it arrived on the wire and answers as the test scripts it.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPair>
#include <QUrl>

class QTcpServer;
class QTcpSocket;

class ScriptedService : public QObject {
    Q_OBJECT

public:
    enum class Transport { Tls, Plain };

    struct Request {
        QByteArray method;
        QByteArray target; // as sent, not decoded
        QList<QPair<QByteArray, QByteArray>> headers;
        QByteArray body;

        bool hasHeader(const QByteArray &name) const { return find(name) != nullptr; }
        // The first header of that name, compared without regard to case.
        QByteArray header(const QByteArray &name) const
        {
            const QByteArray *value = find(name);
            return value ? *value : QByteArray();
        }
        const QByteArray *find(const QByteArray &name) const;
    };

    struct Reply {
        // Hold keeps the connection open and never answers; Drop closes it without a response.
        enum class Action { Answer, Hold, Drop };

        int status = 200;
        QByteArray body = "{}";
        QByteArray contentType = "application/json";
        int delayMs = 0;
        Action action = Action::Answer;

        static Reply json(int status, const QByteArray &body) { return {status, body}; }
        static Reply hold() { return {200, {}, {}, 0, Action::Hold}; }
        static Reply drop() { return {200, {}, {}, 0, Action::Drop}; }
    };

    explicit ScriptedService(Transport transport = Transport::Tls, QObject *parent = nullptr);

    // Port 0 picks a free one.
    bool listen(quint16 port = 0);
    // Scheme and authority, e.g. "https://127.0.0.1:40123".
    QUrl baseUrl() const;

    // A reply for every request whose target equals `target`; comes before the queue.
    void setReply(const QByteArray &target, const Reply &reply) { pathReplies_[target] = reply; }
    // Replies consumed one per request, in arrival order.
    void enqueue(const Reply &reply) { queue_.append(reply); }
    // Used when nothing else is scripted: 200 "{}" unless set.
    void setDefaultReply(const Reply &reply) { defaultReply_ = reply; }

    QList<Request> requests() const { return requests_; }
    QList<QByteArray> targets() const;
    void clearRequests() { requests_.clear(); }

    // Adds the test CA to the process's default TLS configuration; done once per process.
    static void trustTestCa();

private:
    struct Connection {
        QByteArray buffer;
        QList<Reply> pending;
        bool busy = false;
    };

    void readRequests(QTcpSocket *socket);
    void answerNext(QTcpSocket *socket);

    Transport transport_;
    QTcpServer *server_;
    QHash<QTcpSocket *, Connection> connections_;
    QHash<QByteArray, Reply> pathReplies_;
    QList<Reply> queue_;
    Reply defaultReply_;
    QList<Request> requests_;
};
