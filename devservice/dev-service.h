// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QHash>
#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponse>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QObject>
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
    // The handler's answer for the request's account, or a 401.
    QHttpServerResponse answerSignedIn(const QHttpServerRequest &request,
                                       const AccountHandler &handler) const;

    QHttpServerResponse login(const QHttpServerRequest &request);
    QString newSessionToken() const;
    const Account *findAccount(const QString &email) const;

    static QJsonObject userRecord(const Account &account);

    QList<Account> accounts_;
    QList<Channel> channels_;
    // Each account's last saved stream profile, by account id.
    QHash<QString, QJsonObject> streamProfiles_;
    QHash<QString, QString> sessions_; // token -> account id
    QHttpServer http_;
    QTcpServer *server_ = nullptr;
    bool plain_ = false;
};
