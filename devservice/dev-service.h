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
#include <QSet>
#include <QRandomGenerator>
#include <QString>

#include <functional>
#include <vector>

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
    // The port of the RTMP server on 127.0.0.1 that the accounts' ingest points at.
    void setIngestPort(quint16 port);

    // What the release endpoint offers, for trying each outcome of an update by hand: the
    // plug-in's own version, or a newer release whose installer is served as it is, with a digest
    // of other bytes, at an http address, through a redirect to http, or not at all.
    enum class Release { Current, Newer, WrongDigest, Http, RedirectToHttp, Missing };
    void setRelease(Release release) { release_ = release; }
    // Keeps a session of an earlier run of the service valid for the demo account, so that a
    // signed-in OBS stays signed in across a restart.
    void resumeSession(const QString &token);
    // Puts every request under /api/ in trouble, to try a client against a failing service:
    // "stall" holds them unanswered, "garbage" answers them with a body that is no JSON, "none"
    // ends it (README). False, and nothing changed, for any other name.
    bool setFault(const QString &name);

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
    using BodyHandler = std::function<QHttpServerResponse(const Account &, const QJsonObject &)>;
    using PostHandler = std::function<QHttpServerResponse(const QString &arg, const QJsonObject &)>;

    // One routing function per area of the interface, each in a file of its own but the first
    // two.
    // Why a request is turned away before any route, or nothing.
    QString refusal(const QHttpServerRequest &request) const;
    void routeFaults();
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
    // As handleSignedIn, for requests whose body must be a JSON object (a 400 otherwise).
    void handleSignedInWithBody(const QString &path, Method method, BodyHandler handler);
    // The handler's answer for the request's account, or a 401.
    QHttpServerResponse answerSignedIn(const QHttpServerRequest &request,
                                       const AccountHandler &handler) const;
    void routeSignedInPost(const QString &pattern, PostHandler handler);

    // One line of the request log: method, path and what became of the request.
    static void logRequest(const QHttpServerRequest &request, const QByteArray &outcome);
    QHttpServerResponse login(const QHttpServerRequest &request);
    QHttpServerResponse sendChat(const Account &account, const QJsonObject &body);
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
    QHash<QString, QString> pendingConnections_; // state of a started connection -> provider
    int nextChannelId_ = 100;
    // Each account's last saved stream profile, by account id.
    QHash<QString, QJsonObject> streamProfiles_;
    QHash<QString, QString> sessions_; // token -> account id
    QByteArray installer_;             // built at start, offered by the newer releases
    Release release_ = Release::Current;
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
    quint16 ingestPort_ = 1935;
    QSet<QString> streaming_; // ids of the accounts whose stream is on, as the plug-in said
    enum class Fault { None, Stall, Garbage, Redirect };
    Fault fault_ = Fault::None;
    QString redirectTo_; // the origin that the fault "redirect" sends requests to
    // The requests held by a stall; they go before the server that reads them.
    std::vector<QHttpServerResponder> held_;
};
