// SPDX-License-Identifier: GPL-2.0-or-later
// The service client against a local TLS service: what reaches the wire, and how replies turn
// into signals.
#include "fixture.h"

#include <QJsonDocument>
#include <QSignalSpy>

namespace {
QJsonObject object(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

// Every endpoint: how it is called, and what reaches the wire.
struct Endpoint {
    const char *tag;
    std::function<void(TessivaneApi &)> call;
    const char *method, *target, *body, *label;
};
const std::vector<Endpoint> &endpoints()
{
    static const std::vector<Endpoint> table = {
        {"login", [](TessivaneApi &api) { api.login(" \tuser@x  ", "  pa ss  "); }, "POST",
         "/api/auth/login", R"({"email":"user@x","password":"  pa ss  "})", "Sign in"},
        {"logout", [](TessivaneApi &api) { api.logout(); }, "POST", "/api/auth/logout", "{}",
         "Sign out"},
        {"account", [](TessivaneApi &api) { api.fetchAccount(); }, "GET", "/api/me", "",
         "Load account"},
        {"ingest", [](TessivaneApi &api) { api.fetchIngest(); }, "GET", "/api/stream-engine/ingest",
         "", "Configure OBS"},
        {"release", [](TessivaneApi &api) { api.fetchLatestPluginRelease(); }, "GET",
         "/api/plugin/releases/latest/macos", "", "Check for updates"},
    };
    return table;
}
} // namespace

class ApiTest : public QObject {
    Q_OBJECT

    ScriptedService service_;
    TessivaneApi api_;
    QSignalSpy failed_{&api_, &TessivaneApi::requestFailed};

    QStringList failure(int n = 0) const
    {
        return {failed_.at(n).at(0).toString(), failed_.at(n).at(1).toString()};
    }
    QList<ScriptedService::Request> settledRequests()
    {
        TessivaneTestAccess::settle(api_);
        return service_.requests;
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(service_.listen()); }
    void init()
    {
        api_.setBaseUrl(service_.baseUrl());
        api_.setSessionToken("tok");
        service_.requests.clear();
        service_.fallback = {};
        failed_.clear();
    }

    void requestFrameFollowsTheToken()
    {
        // A base URL's own path and query are replaced; one without a host is ignored.
        QUrl withPath = service_.baseUrl();
        withPath.setPath("/x/y");
        withPath.setQuery("a=1");
        api_.setBaseUrl(withPath);
        api_.setBaseUrl(QUrl("/relative/only"));
        for (const char *token : {"", "  tok-1\t", "   "}) {
            api_.setSessionToken(token);
            api_.fetchAccount();
            TessivaneTestAccess::settle(api_);
        }
        const QList<ScriptedService::Request> requests = service_.requests;
        QVERIFY(!requests.at(0).headers.contains("Authorization"));
        QCOMPARE(requests.at(1).header("Authorization"), "Bearer tok-1");
        QVERIFY(!requests.at(2).headers.contains("Authorization"));
    }

    void replyOutcomes_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("outcome"); // the record as emitted, or "!" and the failure

        const struct {
            const char *tag;
            int status;
            const char *body, *outcome;
        } rows[] = {
            {"error trimmed, first", 400, R"({"error":" Bad address \n","message":"x"})",
             "!Bad address"},
            {"number error", 422, R"({"error":5,"message":" Use a longer title "})",
             "!Use a longer title"},
            {"blank error", 401, R"({"error":"   ","message":"Session expired"})",
             "!Session expired"},
            {"blank error, no message", 500, R"({"error":"  "})",
             "!*replied: Internal Server Error"},
            {"HTML error", 404, "<html>gone</html>", "!*replied: Not Found"},
            {"array error", 503, R"([{"error":"x"}])", "!*replied: Service Unavailable"},
            {"object", 200, R"({"server":"rtmp:x","extra":[1]})",
             R"({"server":"rtmp:x","extra":[1]})"},
            {"error key on success", 200, R"({"error":"no"})", R"({"error":"no"})"},
            {"empty body", 200, "", "{}"},
            {"blank body", 200, " \r\n\t ", "{}"},
            {"array", 200, R"([{"server":"x"}])", "{}"},
            {"not JSON", 200, "{user:", "!Tessivane returned an invalid response."},
        };
        for (const auto &row : rows)
            QTest::newRow(row.tag) << row.status << QByteArray(row.body) << row.outcome;
    }

    void replyOutcomes()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, outcome);
        service_.fallback = {status, body};
        QSignalSpy loaded(&api_, &TessivaneApi::ingestLoaded);

        api_.fetchIngest();
        QTRY_COMPARE(failed_.count() + loaded.count(), 1);
        if (!outcome.startsWith(QLatin1Char('!')))
            QCOMPARE(loaded.at(0).at(0).toJsonObject(), object(outcome.toUtf8()));
        else if (outcome.startsWith(QLatin1String("!*")))
            QVERIFY2(failure().at(1).contains(outcome.mid(2)), qPrintable(failure().at(1)));
        else
            QCOMPARE(failure(), QStringList({"Configure OBS", outcome.mid(1)}));
        // A failure, 401 included, leaves the session alone; the reply is released either way.
        QCOMPARE(api_.sessionToken(), QStringLiteral("tok"));
        QTRY_COMPARE(TessivaneTestAccess::liveReplies(api_), 0);
    }

    void abortAllFailsEveryRequestInFlight()
    {
        service_.fallback.status = ScriptedService::hold;
        QSignalSpy loaded(&api_, &TessivaneApi::accountLoaded);
        for (int i = 0; i < 10; ++i)
            api_.fetchAccount();
        // Qt opens at most six connections to a host; the rest wait inside the manager.
        QTRY_COMPARE(service_.requests.size(), 6);
        api_.abortAll();
        QCOMPARE(failed_.count(), 10);
        for (int i = 0; i < 10; ++i)
            QCOMPARE(failure(i), QStringList({"Load account", "Operation canceled"}));
        QVERIFY(TessivaneTestAccess::settle(api_));
        QCOMPARE(loaded.count(), 0);
    }

    void endpointsOnTheWire_data()
    {
        QTest::addColumn<int>("row");
        for (int i = 0; i < int(endpoints().size()); ++i)
            QTest::newRow(endpoints()[i].tag) << i;
    }

    void endpointsOnTheWire()
    {
        QFETCH(int, row);
        const Endpoint &endpoint = endpoints()[row];
        service_.fallback = {503, R"({"message":"Try later"})"};
        endpoint.call(api_);
        QTRY_COMPARE(failed_.count(), 1);
        QCOMPARE(failure(), QStringList({endpoint.label, "Try later"}));
        const QList<ScriptedService::Request> requests = settledRequests();
        QCOMPARE(requests.size(), 1);
        QCOMPARE(requests.at(0).method, QByteArray(endpoint.method));
        QCOMPARE(requests.at(0).target, QByteArray(endpoint.target));
        QCOMPARE(requests.at(0).body, QByteArray(endpoint.body));
        QCOMPARE(requests.at(0).header("Authorization"), "Bearer tok");
        QCOMPARE(requests.at(0).header("Content-Type"), "application/json");
        QCOMPARE(requests.at(0).header("Accept"), "application/json");
        QCOMPARE(requests.at(0).header("User-Agent"), "Tessivane-OBS-Plugin/0.3.0");
    }

    void signInReplies_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("storedToken"); // "old" stays after a refusal
        QTest::addColumn<QString>("signalToken");
        QTest::addColumn<QByteArray>("user");
        const struct {
            const char *body, *stored, *signalled, *user;
        } rows[] = {
            {R"({"sessionToken":" tok-9 ","user":{"id":"u1"}})", "tok-9", " tok-9 ",
             R"({"id":"u1"})"},
            {R"({"sessionToken":"new"})", "new", "new", "{}"},
            {R"({"sessionToken":"  "})", "", "  ", "{}"},
            {"", "old", nullptr, ""},
            {R"({"user":{"id":"u"}})", "old", nullptr, ""},
            {R"({"sessionToken":""})", "old", nullptr, ""},
            {R"({"sessionToken":42})", "old", nullptr, ""},
        };
        for (const auto &row : rows)
            QTest::newRow(row.body) << QByteArray(row.body) << row.stored << QString(row.signalled)
                                    << QByteArray(row.user);
    }

    void signInReplies()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, storedToken);
        QFETCH(QString, signalToken);
        QFETCH(QByteArray, user);
        service_.fallback = {200, body};
        api_.setSessionToken(QStringLiteral("old"));
        QSignalSpy signedIn(&api_, &TessivaneApi::signedIn);

        api_.login(QStringLiteral("a@example.com"), QStringLiteral("pw"));
        QTRY_COMPARE(signedIn.count() + failed_.count(), 1);
        QCOMPARE(api_.sessionToken(), storedToken);
        if (signalToken.isNull()) {
            QCOMPARE(failure(),
                     QStringList({"Sign in", "The account response did not include a session."}));
        } else {
            QCOMPARE(signedIn.at(0).at(0).toJsonObject(), object(user));
            QCOMPARE(signedIn.at(0).at(1).toString(), signalToken);
        }
    }

    void logoutClearsTheTokenOnlyWhenTheServiceAgrees()
    {
        QStringList tokensWhenSignedOut;
        connect(&api_, &TessivaneApi::signedOut, this,
                [&]() { tokensWhenSignedOut << api_.sessionToken(); });
        service_.fallback = {500, "{}"};
        api_.logout();
        QTRY_COMPARE(failed_.count(), 1);
        QCOMPARE(api_.sessionToken(), "tok");
        service_.fallback = {200, R"({"ok":false,"error":"ignored"})"};
        api_.logout();
        QTRY_COMPARE(tokensWhenSignedOut, QStringList{""});
        // Without a session it signals inside the call and sends nothing.
        api_.logout();
        QCOMPARE(tokensWhenSignedOut.size(), 2);
        QCOMPARE(settledRequests().size(), 2);
    }
};

QTEST_MAIN(ApiTest)
#include "test-api.moc"
