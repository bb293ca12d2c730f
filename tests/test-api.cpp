// SPDX-License-Identifier: GPL-2.0-or-later
// The service client against a local TLS service: what reaches the wire, and how replies turn
// into signals.
#include "scripted-service.h"
#include "tessivane-api.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QtTest>

using Reply = ScriptedService::Reply;

namespace {

constexpr int replyTimeoutMs = 15000;

QJsonObject parseObject(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

// Sends the named endpoint's request; the names are those of the data rows below.
void callEndpoint(TessivaneApi &api, const QString &endpoint)
{
    if (endpoint == QLatin1String("login"))
        api.login(QStringLiteral("a@example.com"), QStringLiteral("pw"));
    else if (endpoint == QLatin1String("logout"))
        api.logout();
    else if (endpoint == QLatin1String("account"))
        api.fetchAccount();
    else if (endpoint == QLatin1String("ingest"))
        api.fetchIngest();
    else if (endpoint == QLatin1String("release"))
        api.fetchLatestPluginRelease();
    else
        QFAIL("unknown endpoint");
}

} // namespace

class ApiTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

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
        QTRY_COMPARE_WITH_TIMEOUT(loaded.count(), 1, replyTimeoutMs);
        QCOMPARE(service.targets(), QList<QByteArray>({"/api/me"}));
    }

    void headersFollowTheSessionToken()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QSignalSpy loaded(&api, &TessivaneApi::accountLoaded);

        api.fetchAccount();
        QTRY_COMPARE_WITH_TIMEOUT(loaded.count(), 1, replyTimeoutMs);
        api.setSessionToken(QStringLiteral("  tok-1\t"));
        QCOMPARE(api.sessionToken(), QStringLiteral("tok-1"));
        api.fetchAccount();
        QTRY_COMPARE_WITH_TIMEOUT(loaded.count(), 2, replyTimeoutMs);
        api.setSessionToken(QStringLiteral("   "));
        api.fetchAccount();
        QTRY_COMPARE_WITH_TIMEOUT(loaded.count(), 3, replyTimeoutMs);

        const QList<ScriptedService::Request> requests = service.requests();
        QCOMPARE(requests.size(), 3);
        for (const ScriptedService::Request &request : requests) {
            QCOMPARE(request.method, QByteArray("GET"));
            // Content-Type goes out on a GET as well.
            QCOMPARE(request.header("Content-Type"), QByteArray("application/json"));
            QCOMPARE(request.header("Accept"), QByteArray("application/json"));
            int userAgents = 0;
            for (const auto &header : request.headers)
                userAgents += header.first.compare("User-Agent", Qt::CaseInsensitive) == 0;
            QCOMPARE(userAgents, 1);
            QCOMPARE(request.header("User-Agent"), QByteArray("Tessivane-OBS-Plugin/0.3.0"));
        }
        QVERIFY(!requests.at(0).hasHeader("Authorization"));
        QCOMPARE(requests.at(1).header("Authorization"), QByteArray("Bearer tok-1"));
        QVERIFY(!requests.at(2).hasHeader("Authorization"));
    }

    void baseUrlGivesOnlySchemeAndAuthority()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        TessivaneApi api;
        QUrl withPath = service.baseUrl();
        withPath.setPath(QStringLiteral("/x/y"));
        withPath.setQuery(QStringLiteral("a=1&b=2"));
        api.setBaseUrl(withPath);
        // Unusable URLs are ignored and the last good one stays.
        api.setBaseUrl(QUrl(QStringLiteral("/relative/only")));
        api.setBaseUrl(QUrl());
        QSignalSpy loaded(&api, &TessivaneApi::ingestLoaded);

        api.fetchIngest();
        QTRY_COMPARE_WITH_TIMEOUT(loaded.count(), 1, replyTimeoutMs);
        QCOMPARE(service.targets(), QList<QByteArray>({"/api/stream-engine/ingest"}));
    }

    void failureMessageComesFromTheReply_data()
    {
        QTest::addColumn<int>("status");
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
    }

    void failureMessageComesFromTheReply()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, message);
        QFETCH(QString, networkText);

        ScriptedService service;
        QVERIFY(service.listen());
        service.setDefaultReply(Reply::json(status, body));
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        api.setSessionToken(QStringLiteral("tok"));
        QSignalSpy failed(&api, &TessivaneApi::requestFailed);
        QSignalSpy loaded(&api, &TessivaneApi::accountLoaded);

        api.fetchAccount();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, replyTimeoutMs);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("Load account"));
        const QString reported = failed.at(0).at(1).toString();
        if (networkText.isEmpty())
            QCOMPARE(reported, message);
        else
            QVERIFY2(reported.contains(networkText), qPrintable(reported));
        QCOMPARE(loaded.count(), 0);
        // A failure, 401 included, leaves the session alone.
        QCOMPARE(api.sessionToken(), QStringLiteral("tok"));
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

        ScriptedService service;
        QVERIFY(service.listen());
        service.setDefaultReply(Reply::json(200, body));
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QSignalSpy failed(&api, &TessivaneApi::requestFailed);
        QSignalSpy loaded(&api, &TessivaneApi::accountLoaded);

        api.fetchAccount();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count() + loaded.count(), 1, replyTimeoutMs);
        if (loads) {
            QCOMPARE(loaded.count(), 1);
            const QJsonObject user = loaded.at(0).at(0).toJsonObject();
            QCOMPARE(user.value(QStringLiteral("id")).toString(), userId);
            if (userId.isEmpty())
                QVERIFY(user.isEmpty());
        } else {
            QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("Load account"));
            QCOMPARE(failed.at(0).at(1).toString(),
                     QStringLiteral("Tessivane returned an invalid response."));
        }
    }

    void abortAllFailsEveryRequestInFlight()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        service.setDefaultReply(Reply::hold());
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QSignalSpy failed(&api, &TessivaneApi::requestFailed);
        QSignalSpy loaded(&api, &TessivaneApi::accountLoaded);
        QSignalSpy ingest(&api, &TessivaneApi::ingestLoaded);

        for (int i = 0; i < 5; ++i) {
            api.fetchAccount();
            api.fetchIngest();
        }
        // Qt opens at most six connections to a host; the rest wait inside the manager.
        QTRY_COMPARE_WITH_TIMEOUT(service.requests().size(), 6, replyTimeoutMs);
        QTest::qWait(100);
        QCOMPARE(failed.count(), 0);

        api.abortAll();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 10, replyTimeoutMs);
        QStringList labels;
        for (const QList<QVariant> &emission : std::as_const(failed)) {
            labels.append(emission.at(0).toString());
            QCOMPARE(emission.at(1).toString(), QStringLiteral("Operation canceled"));
        }
        QCOMPARE(labels.count(QStringLiteral("Configure OBS")), 5);
        QCOMPARE(labels.count(QStringLiteral("Load account")), 5);
        QTest::qWait(200);
        QCOMPARE(failed.count(), 10);
        QCOMPARE(loaded.count() + ingest.count(), 0);
    }

    void repliesAreHandledAsTheyComplete()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        Reply slow = Reply::json(200, R"({"user":{"id":"u1"}})");
        slow.delayMs = 300;
        service.setReply("/api/me", slow);
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QStringList order;
        connect(&api, &TessivaneApi::accountLoaded, this,
                [&order]() { order.append(QStringLiteral("account")); });
        connect(&api, &TessivaneApi::ingestLoaded, this,
                [&order]() { order.append(QStringLiteral("ingest")); });

        api.fetchAccount();
        api.fetchIngest();
        QTRY_COMPARE_WITH_TIMEOUT(order.size(), 2, replyTimeoutMs);
        QCOMPARE(order, QStringList({QStringLiteral("ingest"), QStringLiteral("account")}));
    }

    void droppedConnectionFails()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        service.setReply("/api/me", Reply::drop());
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QSignalSpy failed(&api, &TessivaneApi::requestFailed);
        QSignalSpy loaded(&api, &TessivaneApi::accountLoaded);

        api.fetchAccount();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, replyTimeoutMs);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("Load account"));
        QVERIFY(!failed.at(0).at(1).toString().isEmpty());
        QCOMPARE(loaded.count(), 0);
    }

    void unansweredRequestStaysOpenUntilAborted()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        service.setReply("/api/plugin/releases/latest/macos", Reply::hold());
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QSignalSpy failed(&api, &TessivaneApi::requestFailed);
        QSignalSpy release(&api, &TessivaneApi::pluginReleaseLoaded);

        api.fetchLatestPluginRelease();
        QTRY_COMPARE_WITH_TIMEOUT(service.requests().size(), 1, replyTimeoutMs);
        // The client sets no time-out of its own.
        QTest::qWait(500);
        QCOMPARE(failed.count(), 0);

        api.abortAll();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, replyTimeoutMs);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("Check for updates"));
        QCOMPARE(release.count(), 0);
    }

    void loginSendsTheFormAndKeepsTheSession()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        service.setReply("/api/auth/login",
                         Reply::json(200, R"({"sessionToken":" tok-9 ","user":{"id":"u1"}})"));
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QSignalSpy signedIn(&api, &TessivaneApi::signedIn);

        api.login(QStringLiteral(" \tuser@example.com  "), QStringLiteral("  pa ss  "));
        QTRY_COMPARE_WITH_TIMEOUT(signedIn.count(), 1, replyTimeoutMs);
        QCOMPARE(signedIn.at(0).at(0).toJsonObject(), parseObject(R"({"id":"u1"})"));
        // The signal carries the token as received; the client keeps it trimmed.
        QCOMPARE(signedIn.at(0).at(1).toString(), QStringLiteral(" tok-9 "));
        QCOMPARE(api.sessionToken(), QStringLiteral("tok-9"));

        // A second sign-in goes out with the session already held.
        api.login(QStringLiteral("b@example.com"), QString());
        QTRY_COMPARE_WITH_TIMEOUT(signedIn.count(), 2, replyTimeoutMs);

        // A body far larger than one read still arrives whole.
        const QString longPassword(100000, QLatin1Char('p'));
        api.login(QStringLiteral("c@example.com"), longPassword);
        QTRY_COMPARE_WITH_TIMEOUT(signedIn.count(), 3, replyTimeoutMs);

        const QList<ScriptedService::Request> requests = service.requests();
        QCOMPARE(requests.size(), 3);
        QCOMPARE(requests.at(0).method, QByteArray("POST"));
        QCOMPARE(requests.at(0).target, QByteArray("/api/auth/login"));
        QCOMPARE(requests.at(0).header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(requests.at(0).body,
                 QByteArray(R"({"email":"user@example.com","password":"  pa ss  "})"));
        QVERIFY(!requests.at(0).hasHeader("Authorization"));
        QCOMPARE(requests.at(1).body, QByteArray(R"({"email":"b@example.com","password":""})"));
        QCOMPARE(requests.at(1).header("Authorization"), QByteArray("Bearer tok-9"));
        QCOMPARE(requests.at(2).body,
                 R"({"email":"c@example.com","password":")" + longPassword.toUtf8() + R"("})");
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

        ScriptedService service;
        QVERIFY(service.listen());
        service.setDefaultReply(Reply::json(200, body));
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        api.setSessionToken(QStringLiteral("old"));
        QSignalSpy signedIn(&api, &TessivaneApi::signedIn);
        QSignalSpy failed(&api, &TessivaneApi::requestFailed);

        api.login(QStringLiteral("a@example.com"), QStringLiteral("pw"));
        QTRY_COMPARE_WITH_TIMEOUT(signedIn.count() + failed.count(), 1, replyTimeoutMs);
        QCOMPARE(api.sessionToken(), storedToken);
        if (signsIn) {
            QCOMPARE(signedIn.count(), 1);
            QCOMPARE(signedIn.at(0).at(0).toJsonObject(), QJsonObject());
        } else {
            QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("Sign in"));
            QCOMPARE(failed.at(0).at(1).toString(),
                     QStringLiteral("The account response did not include a session."));
        }
    }

    void logoutWithoutSessionIsImmediateAndSendsNothing()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QSignalSpy signedOut(&api, &TessivaneApi::signedOut);
        QSignalSpy loaded(&api, &TessivaneApi::accountLoaded);

        api.logout();
        QCOMPARE(signedOut.count(), 1);

        // A request behind it shows that the wire carried nothing else.
        api.fetchAccount();
        QTRY_COMPARE_WITH_TIMEOUT(loaded.count(), 1, replyTimeoutMs);
        QTest::qWait(200);
        QCOMPARE(service.targets(), QList<QByteArray>({"/api/me"}));
        QCOMPARE(signedOut.count(), 1);
    }

    void logoutClearsTheSessionOnlyOnSuccess()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        service.enqueue(Reply::json(500, R"({"error":"Service down"})"));
        service.enqueue(Reply::json(200, R"({"ok":false,"error":"ignored"})"));
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        api.setSessionToken(QStringLiteral("tok"));
        QSignalSpy failed(&api, &TessivaneApi::requestFailed);
        QString tokenWhenSignedOut = QStringLiteral("unset");
        int signedOut = 0;
        connect(&api, &TessivaneApi::signedOut, this, [&]() {
            ++signedOut;
            tokenWhenSignedOut = api.sessionToken();
        });

        api.logout();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, replyTimeoutMs);
        QCOMPARE(failed.at(0).at(0).toString(), QStringLiteral("Sign out"));
        QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Service down"));
        QCOMPARE(signedOut, 0);
        QCOMPARE(api.sessionToken(), QStringLiteral("tok"));

        api.logout();
        QTRY_COMPARE_WITH_TIMEOUT(signedOut, 1, replyTimeoutMs);
        QCOMPARE(tokenWhenSignedOut, QString());
        QCOMPARE(failed.count(), 1);

        for (const ScriptedService::Request &request : service.requests()) {
            QCOMPARE(request.method, QByteArray("POST"));
            QCOMPARE(request.target, QByteArray("/api/auth/logout"));
            QCOMPARE(request.body, QByteArray("{}"));
            QCOMPARE(request.header("Authorization"), QByteArray("Bearer tok"));
        }
        QCOMPARE(service.requests().size(), 2);
    }

    void endpointRequestsAndFailureLabels_data()
    {
        QTest::addColumn<QString>("endpoint");
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QString>("label");

        QTest::newRow("login") << "login" << QByteArray("POST") << QByteArray("/api/auth/login")
                               << "Sign in";
        QTest::newRow("logout") << "logout" << QByteArray("POST") << QByteArray("/api/auth/logout")
                                << "Sign out";
        QTest::newRow("account") << "account" << QByteArray("GET") << QByteArray("/api/me")
                                 << "Load account";
        QTest::newRow("ingest") << "ingest" << QByteArray("GET")
                                << QByteArray("/api/stream-engine/ingest") << "Configure OBS";
        QTest::newRow("release") << "release" << QByteArray("GET")
                                 << QByteArray("/api/plugin/releases/latest/macos")
                                 << "Check for updates";
    }

    void endpointRequestsAndFailureLabels()
    {
        QFETCH(QString, endpoint);
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, target);
        QFETCH(QString, label);

        ScriptedService service;
        QVERIFY(service.listen());
        service.setDefaultReply(Reply::json(503, R"({"message":"Try later"})"));
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        api.setSessionToken(QStringLiteral("tok"));
        QSignalSpy failed(&api, &TessivaneApi::requestFailed);

        callEndpoint(api, endpoint);
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, replyTimeoutMs);
        QCOMPARE(failed.at(0).at(0).toString(), label);
        QCOMPARE(failed.at(0).at(1).toString(), QStringLiteral("Try later"));
        QCOMPARE(service.requests().size(), 1);
        QCOMPARE(service.requests().at(0).method, method);
        QCOMPARE(service.requests().at(0).target, target);
        QCOMPARE(service.requests().at(0).header("Authorization"), QByteArray("Bearer tok"));
        if (method == "GET")
            QVERIFY(service.requests().at(0).body.isEmpty());
    }

    void endpointSignalsCarryTheReply()
    {
        ScriptedService service;
        QVERIFY(service.listen());
        const QByteArray ingestJson =
            R"({"server":"rtmp://ingest.example/live","key":"sk_1","extra":{"a":[1]}})";
        const QByteArray releaseJson =
            R"({"version":"0.4.0","url":"https://x/y.pkg","sha256":"ab"})";
        service.setReply("/api/me", Reply::json(200, R"({"id":"top","user":{"id":"u7"}})"));
        service.setReply("/api/stream-engine/ingest", Reply::json(200, ingestJson));
        service.setReply("/api/plugin/releases/latest/macos", Reply::json(200, releaseJson));
        TessivaneApi api;
        api.setBaseUrl(service.baseUrl());
        QSignalSpy account(&api, &TessivaneApi::accountLoaded);
        QSignalSpy ingest(&api, &TessivaneApi::ingestLoaded);
        QSignalSpy release(&api, &TessivaneApi::pluginReleaseLoaded);

        api.fetchAccount();
        api.fetchIngest();
        api.fetchLatestPluginRelease();
        QTRY_COMPARE_WITH_TIMEOUT(account.count() + ingest.count() + release.count(), 3,
                                  replyTimeoutMs);
        QCOMPARE(account.at(0).at(0).toJsonObject(), parseObject(R"({"id":"u7"})"));
        QCOMPARE(ingest.at(0).at(0).toJsonObject(), parseObject(ingestJson));
        QCOMPARE(release.at(0).at(0).toJsonObject(), parseObject(releaseJson));

        // Empty replies still signal, with empty objects.
        service.setReply("/api/me", Reply::json(200, QByteArray()));
        service.setReply("/api/stream-engine/ingest", Reply::json(200, QByteArray()));
        api.fetchAccount();
        api.fetchIngest();
        QTRY_COMPARE_WITH_TIMEOUT(account.count() + ingest.count(), 4, replyTimeoutMs);
        QCOMPARE(account.at(1).at(0).toJsonObject(), QJsonObject());
        QCOMPARE(ingest.at(1).at(0).toJsonObject(), QJsonObject());
    }
};

QTEST_MAIN(ApiTest)
#include "test-api.moc"
