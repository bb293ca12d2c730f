// SPDX-License-Identifier: GPL-2.0-or-later
// The service client against a local TLS service: what reaches the wire, and how replies turn
// into signals.
#include "scripted-service.h"
#include "tessivane-api.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QtTest>

#include <memory>

using Reply = ScriptedService::Reply;
using Request = ScriptedService::Request;

class ApiTest : public QObject {
    Q_OBJECT

    std::unique_ptr<ScriptedService> service_;
    std::unique_ptr<TessivaneApi> api_;
    std::unique_ptr<QSignalSpy> failed_;

    // Label and message of the n-th requestFailed.
    QStringList failure(int n = 0) const
    {
        return {failed_->at(n).at(0).toString(), failed_->at(n).at(1).toString()};
    }
    static QJsonObject object(const QByteArray &json)
    {
        return QJsonDocument::fromJson(json).object();
    }

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

    // Each test gets a fresh service and client; the previous ones go here.
    void init()
    {
        service_ = std::make_unique<ScriptedService>();
        QVERIFY(service_->listen());
        api_ = std::make_unique<TessivaneApi>();
        api_->setBaseUrl(service_->baseUrl());
        failed_ = std::make_unique<QSignalSpy>(api_.get(), &TessivaneApi::requestFailed);
    }

    void builtInOriginIsTheDefaultBaseUrl()
    {
        const QUrl origin(QStringLiteral(TESSIVANE_SERVICE_ORIGIN));
        if (origin.host() != QLatin1String("127.0.0.1") || origin.port() <= 0)
            QSKIP("The build's service origin is not a local port");
        ScriptedService service;
        QVERIFY2(service.listen(quint16(origin.port())),
                 "The origin's port is taken, perhaps by a running development service");
        TessivaneApi api;
        QSignalSpy loaded(&api, &TessivaneApi::accountLoaded);
        api.fetchAccount();
        QTRY_COMPARE(loaded.count(), 1);
        QCOMPARE(service.targets(), QList<QByteArray>({"/api/me"}));
    }

    void headersFollowTheSessionToken()
    {
        // Waiting for each request keeps their order on the wire.
        api_->fetchAccount();
        QTRY_COMPARE(service_->requests().size(), 1);
        api_->setSessionToken(QStringLiteral("  tok-1\t"));
        QCOMPARE(api_->sessionToken(), QStringLiteral("tok-1"));
        api_->fetchAccount();
        QTRY_COMPARE(service_->requests().size(), 2);
        api_->setSessionToken(QStringLiteral("   "));
        api_->fetchAccount();
        QTRY_COMPARE(service_->requests().size(), 3);

        const QList<Request> requests = service_->requests();
        for (const Request &request : requests) {
            QCOMPARE(request.method, QByteArray("GET"));
            // Content-Type goes out on a GET as well.
            QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
            QCOMPARE(request.header("Accept"), QByteArray("application/json"));
            QCOMPARE(request.header("User-Agent"), QByteArray("Tessivane-OBS-Plugin/0.3.0"));
        }
        QVERIFY(!requests.at(0).hasHeader("Authorization"));
        QCOMPARE(requests.at(1).header("Authorization"), QByteArray("Bearer tok-1"));
        QVERIFY(!requests.at(2).hasHeader("Authorization"));
    }

    void baseUrlGivesOnlySchemeAndAuthority()
    {
        QUrl withPath = service_->baseUrl();
        withPath.setPath(QStringLiteral("/x/y"));
        withPath.setQuery(QStringLiteral("a=1&b=2"));
        api_->setBaseUrl(withPath);
        // Unusable URLs are ignored and the last good one stays.
        api_->setBaseUrl(QUrl(QStringLiteral("/relative/only")));
        api_->setBaseUrl(QUrl());
        api_->fetchIngest();
        QTRY_COMPARE(service_->requests().size(), 1);
        QCOMPARE(service_->targets(), QList<QByteArray>({"/api/stream-engine/ingest"}));
    }

    void failureMessageComesFromTheReply_data()
    {
        QTest::addColumn<int>("status"); // 0: the connection is dropped without a response
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("networkText");

        QTest::newRow("error trimmed, before message")
            << 400 << QByteArray(R"({"error":"  Bad address \n","message":"other"})")
            << "Bad address" << QString();
        QTest::newRow("number error, message used")
            << 422 << QByteArray(R"({"error":5,"message":" Use a longer title "})")
            << "Use a longer title" << QString();
        QTest::newRow("blank error, message used")
            << 401 << QByteArray(R"({"error":"   ","message":"Session expired"})")
            << "Session expired" << QString();
        QTest::newRow("blank error, no message")
            << 500 << QByteArray(R"({"error":"  "})") << QString() << "Internal Server Error";
        QTest::newRow("body not JSON")
            << 404 << QByteArray("<html>gone</html>") << QString() << "Not Found";
        QTest::newRow("array body")
            << 503 << QByteArray(R"([{"error":"x"}])") << QString() << "Service Unavailable";
        QTest::newRow("dropped") << 0 << QByteArray() << QString() << "closed";
    }

    void failureMessageComesFromTheReply()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, message);
        QFETCH(QString, networkText);
        service_->setDefaultReply(status ? Reply::json(status, body) : Reply::drop());
        api_->setSessionToken(QStringLiteral("tok"));
        QSignalSpy loaded(api_.get(), &TessivaneApi::accountLoaded);

        api_->fetchAccount();
        QTRY_COMPARE(failed_->count(), 1);
        QCOMPARE(failure().at(0), QStringLiteral("Load account"));
        if (networkText.isEmpty())
            QCOMPARE(failure().at(1), message);
        else
            QVERIFY2(failure().at(1).contains(networkText), qPrintable(failure().at(1)));
        QCOMPARE(loaded.count(), 0);
        // A failure, 401 included, leaves the session alone.
        QCOMPARE(api_->sessionToken(), QStringLiteral("tok"));
    }

    void successfulReplyShapes_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("loads");
        QTest::addColumn<QString>("userId");

        QTest::newRow("object") << QByteArray(R"({"user":{"id":"u1"}})") << true << "u1";
        QTest::newRow("error key on success")
            << QByteArray(R"({"error":"ignored","user":{"id":"u2"}})") << true << "u2";
        QTest::newRow("empty body") << QByteArray() << true << QString();
        QTest::newRow("blank body") << QByteArray(" \r\n\t ") << true << QString();
        QTest::newRow("array") << QByteArray(R"([{"user":{"id":"u3"}}])") << true << QString();
        QTest::newRow("not JSON") << QByteArray("{user:") << false << QString();
    }

    void successfulReplyShapes()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, loads);
        QFETCH(QString, userId);
        service_->setDefaultReply(Reply::json(200, body));
        QSignalSpy loaded(api_.get(), &TessivaneApi::accountLoaded);

        api_->fetchAccount();
        QTRY_COMPARE(failed_->count() + loaded.count(), 1);
        if (loads) {
            const QJsonObject expected{{QStringLiteral("id"), userId}};
            QCOMPARE(loaded.at(0).at(0).toJsonObject(),
                     userId.isEmpty() ? QJsonObject() : expected);
        } else {
            QCOMPARE(failure(),
                     QStringList({"Load account", "Tessivane returned an invalid response."}));
        }
    }

    void abortAllFailsEveryRequestInFlight()
    {
        service_->setDefaultReply(Reply::hold());
        QSignalSpy loaded(api_.get(), &TessivaneApi::accountLoaded);
        QSignalSpy ingest(api_.get(), &TessivaneApi::ingestLoaded);
        for (int i = 0; i < 5; ++i) {
            api_->fetchAccount();
            api_->fetchIngest();
        }
        // Qt opens at most six connections to a host; the rest wait inside the manager.
        QTRY_COMPARE(service_->requests().size(), 6);
        // The client sets no time-out of its own.
        QTest::qWait(200);
        QCOMPARE(failed_->count(), 0);

        api_->abortAll();
        QTRY_COMPARE(failed_->count(), 10);
        QStringList labels;
        for (int i = 0; i < 10; ++i) {
            labels.append(failure(i).at(0));
            QCOMPARE(failure(i).at(1), QStringLiteral("Operation canceled"));
        }
        QCOMPARE(labels.count(QStringLiteral("Configure OBS")), 5);
        QCOMPARE(labels.count(QStringLiteral("Load account")), 5);
        QTest::qWait(200);
        QCOMPARE(failed_->count(), 10);
        QCOMPARE(loaded.count() + ingest.count(), 0);
    }

    void endpointSignalsCarryTheReplyAsItCompletes()
    {
        const QByteArray ingestJson =
            R"({"server":"rtmp://ingest.example/live","key":"sk_1","extra":{"a":[1]}})";
        const QByteArray releaseJson =
            R"({"version":"0.4.0","url":"https://x/y.pkg","sha256":"ab"})";
        Reply slow = Reply::json(200, R"({"id":"top","user":{"id":"u7"}})");
        slow.delayMs = 500;
        service_->setReply("/api/me", slow);
        service_->setReply("/api/stream-engine/ingest", Reply::json(200, ingestJson));
        service_->setReply("/api/plugin/releases/latest/macos", Reply::json(200, releaseJson));
        QSignalSpy account(api_.get(), &TessivaneApi::accountLoaded);
        QSignalSpy ingest(api_.get(), &TessivaneApi::ingestLoaded);
        QSignalSpy release(api_.get(), &TessivaneApi::pluginReleaseLoaded);

        api_->fetchAccount();
        api_->fetchIngest();
        api_->fetchLatestPluginRelease();
        // No queue: the later requests are not held up by the slow first one.
        QTRY_COMPARE(ingest.count() + release.count(), 2);
        QCOMPARE(account.count(), 0);
        QTRY_COMPARE(account.count(), 1);
        QCOMPARE(account.at(0).at(0).toJsonObject(), object(R"({"id":"u7"})"));
        QCOMPARE(ingest.at(0).at(0).toJsonObject(), object(ingestJson));
        QCOMPARE(release.at(0).at(0).toJsonObject(), object(releaseJson));
    }

    void endpointRequestsAndFailureLabels_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QString>("label");

        QTest::newRow("login") << QByteArray("POST") << QByteArray("/api/auth/login") << "Sign in";
        QTest::newRow("logout") << QByteArray("POST") << QByteArray("/api/auth/logout")
                                << "Sign out";
        QTest::newRow("account") << QByteArray("GET") << QByteArray("/api/me") << "Load account";
        QTest::newRow("ingest") << QByteArray("GET") << QByteArray("/api/stream-engine/ingest")
                                << "Configure OBS";
        QTest::newRow("release") << QByteArray("GET")
                                 << QByteArray("/api/plugin/releases/latest/macos")
                                 << "Check for updates";
    }

    void endpointRequestsAndFailureLabels()
    {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, target);
        QFETCH(QString, label);
        service_->setDefaultReply(Reply::json(503, R"({"message":"Try later"})"));
        api_->setSessionToken(QStringLiteral("tok"));

        const QByteArray endpoint = QTest::currentDataTag();
        if (endpoint == "login")
            api_->login(QStringLiteral("a@example.com"), QStringLiteral("pw"));
        else if (endpoint == "logout")
            api_->logout();
        else if (endpoint == "account")
            api_->fetchAccount();
        else if (endpoint == "ingest")
            api_->fetchIngest();
        else
            api_->fetchLatestPluginRelease();
        QTRY_COMPARE(failed_->count(), 1);
        QCOMPARE(failure(), QStringList({label, "Try later"}));
        QCOMPARE(service_->requests().size(), 1);
        const Request request = service_->requests().constFirst();
        QCOMPARE(request.method, method);
        QCOMPARE(request.target, target);
        QCOMPARE(request.header("Authorization"), QByteArray("Bearer tok"));
    }

    void loginSendsTheFormAndKeepsTheSession()
    {
        service_->setReply("/api/auth/login",
                           Reply::json(200, R"({"sessionToken":" tok-9 ","user":{"id":"u1"}})"));
        QSignalSpy signedIn(api_.get(), &TessivaneApi::signedIn);

        api_->login(QStringLiteral(" \tuser@example.com  "), QStringLiteral("  pa ss  "));
        QTRY_COMPARE(signedIn.count(), 1);
        QCOMPARE(signedIn.at(0).at(0).toJsonObject(), object(R"({"id":"u1"})"));
        // The signal carries the token as received; the client keeps it trimmed.
        QCOMPARE(signedIn.at(0).at(1).toString(), QStringLiteral(" tok-9 "));
        QCOMPARE(api_->sessionToken(), QStringLiteral("tok-9"));

        // A second sign-in goes out with the session already held, and a body far larger than
        // one read still arrives whole.
        const QString longPassword(100000, QLatin1Char('p'));
        api_->login(QStringLiteral("b@example.com"), longPassword);
        QTRY_COMPARE(signedIn.count(), 2);

        const QList<Request> requests = service_->requests();
        QCOMPARE(requests.at(0).method, QByteArray("POST"));
        QCOMPARE(requests.at(0).target, QByteArray("/api/auth/login"));
        QCOMPARE(requests.at(0).header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(requests.at(0).body,
                 QByteArray(R"({"email":"user@example.com","password":"  pa ss  "})"));
        QVERIFY(!requests.at(0).hasHeader("Authorization"));
        QCOMPARE(requests.at(1).body,
                 R"({"email":"b@example.com","password":")" + longPassword.toUtf8() + R"("})");
        QCOMPARE(requests.at(1).header("Authorization"), QByteArray("Bearer tok-9"));
    }

    void loginReplyWithoutUsableSession_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("signsIn");
        QTest::addColumn<QString>("storedToken");

        QTest::newRow("empty body") << QByteArray() << false << "old";
        QTest::newRow("no token") << QByteArray(R"({"user":{"id":"u"}})") << false << "old";
        QTest::newRow("empty token") << QByteArray(R"({"sessionToken":""})") << false << "old";
        QTest::newRow("number token") << QByteArray(R"({"sessionToken":42})") << false << "old";
        QTest::newRow("token without user")
            << QByteArray(R"({"sessionToken":"new"})") << true << "new";
        QTest::newRow("blank token") << QByteArray(R"({"sessionToken":"  "})") << true << QString();
    }

    void loginReplyWithoutUsableSession()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, signsIn);
        QFETCH(QString, storedToken);
        service_->setDefaultReply(Reply::json(200, body));
        api_->setSessionToken(QStringLiteral("old"));
        QSignalSpy signedIn(api_.get(), &TessivaneApi::signedIn);

        api_->login(QStringLiteral("a@example.com"), QStringLiteral("pw"));
        QTRY_COMPARE(signedIn.count() + failed_->count(), 1);
        QCOMPARE(api_->sessionToken(), storedToken);
        if (signsIn)
            QCOMPARE(signedIn.at(0).at(0).toJsonObject(), QJsonObject());
        else
            QCOMPARE(failure(),
                     QStringList({"Sign in", "The account response did not include a session."}));
    }

    void logoutSendsOnlyWithASessionAndClearsItOnSuccess()
    {
        service_->enqueue(Reply::json(500, R"({"error":"Service down"})"));
        service_->enqueue(Reply::json(200, R"({"ok":false,"error":"ignored"})"));
        api_->setSessionToken(QStringLiteral("tok"));
        QString tokenWhenSignedOut = QStringLiteral("unset");
        int signedOut = 0;
        connect(api_.get(), &TessivaneApi::signedOut, this, [&]() {
            ++signedOut;
            tokenWhenSignedOut = api_->sessionToken();
        });

        api_->logout();
        QTRY_COMPARE(failed_->count(), 1);
        QCOMPARE(failure(), QStringList({"Sign out", "Service down"}));
        QCOMPARE(signedOut, 0);
        QCOMPARE(api_->sessionToken(), QStringLiteral("tok"));

        api_->logout();
        QTRY_COMPARE(signedOut, 1);
        QCOMPARE(tokenWhenSignedOut, QString());
        QCOMPARE(failed_->count(), 1);
        QCOMPARE(service_->requests().size(), 2);
        for (const Request &request : service_->requests()) {
            QCOMPARE(request.method, QByteArray("POST"));
            QCOMPARE(request.target, QByteArray("/api/auth/logout"));
            QCOMPARE(request.body, QByteArray("{}"));
            QCOMPARE(request.header("Authorization"), QByteArray("Bearer tok"));
        }

        // Without a session it signals inside the call; a request behind it shows that nothing
        // else went out.
        api_->logout();
        QCOMPARE(signedOut, 2);
        api_->fetchAccount();
        QTRY_COMPARE(service_->requests().size(), 3);
        QTest::qWait(200);
        QCOMPARE(service_->targets().mid(2), QList<QByteArray>({"/api/me"}));
    }
};

QTEST_MAIN(ApiTest)
#include "test-api.moc"
