// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QHash>
#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponse>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QElapsedTimer>
#include <QObject>
#include <QRandomGenerator>
#include <QString>

#include <functional>

class QTcpServer;

// A stand-in for the Tessivane service on the loopback interface: the same HTTPS JSON
// interface, one seeded demo account, sessions kept in memory for the life of the process.
class DevService : public QObject {
    Q_OBJECT

public:
    explicit DevService(QObject *parent = nullptr);

    // Port 0 picks a free port; port() tells which one was taken. Call one of the two, once.
    bool listen(quint16 port, const QString &certPath, const QString &keyPath, QString *error);
    bool listenPlain(quint16 port, QString *error);
    quint16 port() const;
    QString origin() const;
    // Keeps the newest `count` chat messages from now on and fills the feed up to that many at
    // once, to try the Chat dock under the load of a busy stream.
    void keepChatMessages(int count);
    static constexpr int busyChatMessages = 500;

    // A JSON object {"error": message}.
    static QHttpServerResponse errorResponse(QHttpServerResponse::StatusCode status,
                                             const QString &message);
    // Empty when the body is a JSON object, which lands in `object`; otherwise the text of a 400.
    static QString readObjectBody(const QHttpServerRequest &request, QJsonObject *object);

private:
    struct Account {
        QString id;
        QString email;
        QString password;
        QString name;
        QString plan;
        QString streamKey;
    };
    // A connected channel of the demo account, as the channel list hands it out.
    struct Channel {
        QJsonValue id; // a number or a text
        QString provider;
        QString providerName;
        QString name;
        QString status;
        bool selected = false;
    };

    using Method = QHttpServerRequest::Method;
    using Handler = std::function<QHttpServerResponse(const QHttpServerRequest &)>;
    using AccountHandler = std::function<QHttpServerResponse(const Account &, const QString &)>;
    using AccountRequestHandler =
        std::function<QHttpServerResponse(const Account &, const QHttpServerRequest &)>;

    // One routing function per area of the interface, each in a file of its own but the first
    // two.
    void routeAuth();
    void routeAccount();
    void routeChannels();
    void routeStreamEngine();
    void routeStreamProfile();
    void routeChat();
    void routePlugin();

    bool bindServer(QTcpServer *server, quint16 port, QString *error);
    void handle(const QString &path, Method method, Handler handler);
    void handleSignedIn(const QString &path, Method method, AccountHandler handler);
    // For the endpoints that read the request's body.
    void handleSignedIn(const QString &path, Method method, AccountRequestHandler handler);

    QHttpServerResponse login(const QHttpServerRequest &request);
    QHttpServerResponse sendChat(const Account &account, const QHttpServerRequest &request);
    void backfillChat(int count);
    void advanceChat();
    void addViewerMessage(qint64 atMs);
    void addChatMessage(const Channel &channel, const QString &author, const QString &text,
                        qint64 atMs);
    QString newSessionToken() const;
    const Account *findAccount(const QString &email) const;

    static QJsonObject userRecord(const Account &account);

    QList<Account> accounts_;
    QList<Channel> channels_;
    QHash<QString, QString> sessions_; // token -> account id
    // The merged chat, oldest first; viewers speak at irregular times, made up when asked.
    QList<QJsonObject> chat_;
    int chatCapacity_ = 200;
    quint64 chatSerial_ = 0;
    qint64 nextViewerMessageMs_ = 0;
    QElapsedTimer chatClock_;
    QRandomGenerator chatRandom_{20261114};
    QHttpServer http_;
    QTcpServer *server_ = nullptr;
    bool plain_ = false;
};
