// SPDX-License-Identifier: GPL-2.0-or-later
// The service client against a local TLS service: what reaches the wire, and how replies turn
// into signals.
#include "fixture.h"

#include <QJsonDocument>
#include <QSet>
#include <QSignalSpy>
#include <QSslCertificate>
#include <QSslConfiguration>

namespace {
// A signal's argument as compact JSON, or as text.
QString describe(const QVariant &value)
{
    const QJsonValue json = QJsonValue::fromVariant(value);
    if (json.isObject() || json.isArray())
        return QJsonDocument(QJsonArray{json}).toJson(QJsonDocument::Compact).mid(1).chopped(1);
    return value.toString();
}

// Every endpoint: its call, label and wire, and the signals and session after every target answers
// `reply` (a status other than 200 may lead it; %1 stands for the service's address).
struct Endpoint {
    const char *tag;
    std::function<void(TessivaneApi &)> call;
    const char *label, *wire, *reply; // the wire as "METHOD target body"
    QStringList emits;
};
const std::vector<Endpoint> &endpoints()
{
    using A = TessivaneApi;
    const char *fetch = "GET /api/stream-engine/ingest ", *failed = "requestFailed Configure OBS ";
    // clang-format off
    static const std::vector<Endpoint> table = {
        {"login", [](A &api) { api.login(" \tuser@x  ", "  pa ss  "); }, "Sign in",
         R"(POST /api/auth/login {"email":"user@x","password":"  pa ss  "})",
         R"({"sessionToken":" t ","user":{"id":1}})", {R"(signedIn {"id":1}  t )", "token t"}},
        {"sign-in with a blank token", [](A &api) { api.login("a", "b"); }, "Sign in",
         R"(POST /api/auth/login {"email":"a","password":"b"})",
         R"({"sessionToken":"  "})", {"signedIn {}   ", "token "}},
        {"sign-in without a token", [](A &api) { api.login("a", "b"); }, "Sign in",
         R"(POST /api/auth/login {"email":"a","password":"b"})", R"({"user":{"id":1}})",
         {"requestFailed Sign in The account response did not include a session."}},
        {"logout", &A::logout, "Sign out", "POST /api/auth/logout {}",
         R"({"ok":false,"error":"ignored"})", {"signedOut", "token "}},
        {"account", &A::fetchAccount, "Load account", "GET /api/me ",
         R"({"user":{"id":1}})", {R"(accountLoaded {"id":1})"}},
        {"ingest", &A::fetchIngest, "Configure OBS", fetch, R"({"server":"s","extra":[1]})",
         {R"(ingestLoaded {"extra":[1],"server":"s"})"}},
        {"error trimmed, first", &A::fetchIngest, "Configure OBS", fetch,
         R"(400 {"error":" Bad address \n","message":"x"})", {failed + QString("Bad address")}},
        {"blank error", &A::fetchIngest, "Configure OBS", fetch,
         R"(401 {"error":"   ","message":"Session expired"})", {failed + QString("Session expired")}},
        {"blank error, no message", &A::fetchIngest, "Configure OBS", fetch, R"(500 {"error":"  "})",
         {failed + QString("Error transferring %1/api/stream-engine/ingest - server replied: "
                           "Internal Server Error")}},
        {"HTML error", &A::fetchIngest, "Configure OBS", fetch, "404 <html>gone</html>",
         {failed + QString("Error transferring %1/api/stream-engine/ingest - server replied: "
                           "Not Found")}},
        {"error key on success", &A::fetchIngest, "Configure OBS", fetch, R"({"error":"no"})",
         {R"(ingestLoaded {"error":"no"})"}},
        {"empty body", &A::fetchIngest, "Configure OBS", fetch, "", {"ingestLoaded {}"}},
        {"blank body", &A::fetchIngest, "Configure OBS", fetch, " \r\n\t ", {"ingestLoaded {}"}},
        {"not JSON", &A::fetchIngest, "Configure OBS", fetch, "{user:",
         {failed + QString("Tessivane returned an invalid response.")}},
        {"release", &A::fetchLatestPluginRelease, "Check for updates",
         "GET /api/plugin/releases/latest/macos ", R"({"version":"1"})",
         {R"(pluginReleaseLoaded {"version":"1"})"}},
        {"channels", &A::fetchChannels, "Load channels", "GET /api/channels ",
         R"({"channels":[1],"user":{"id":1}})", {R"(channelsLoaded [1] {"id":1})"}},
        {"selection", [](A &api) { api.setChannelSelected("yt 7", true); }, "Update channel",
         R"(POST /api/channels/yt%25207/selection {"selected":true})", "{}",
         {"channelsLoaded [] {}"}},
        {"connect", [](A &api) { api.startProviderConnection(" Twitch"); }, "Connect  Twitch",
         "POST /api/connections/%2520Twitch/start {}", R"({"url":"https://x/a?b=c d"})",
         {"providerAuthorizationReady  Twitch https://x/a?b=c d"}},
        {"connect without url", [](A &api) { api.startProviderConnection("kick"); }, "Connect kick",
         "POST /api/connections/kick/start {}", R"({"url":7})",
         {"requestFailed Connect kick No authorization URL was returned."}},
        {"connect to an insecure page", [](A &api) { api.startProviderConnection("kick"); },
         "Connect kick", "POST /api/connections/kick/start {}", R"({"url":"file:///x/a"})",
         {"requestFailed Connect kick The authorization address is not secure; it was not opened."}},
        {"remove", [](A &api) { api.removeChannel("a%b"); }, "Remove channel",
         "POST /api/channels/a%2525b/remove {}", "{}", {"channelsLoaded [] {}"}},
        {"manual", [](A &api) { api.addManualLiveDestination(" Face Book ", " P ", " s ", " k "); },
         "Add  Face Book  Live", R"(POST /api/connections/manual )"
         R"({"displayName":"P","provider":"face book","serverUrl":"s","streamKey":"k"})",
         "{}", {"channelsLoaded [] {}"}},
        {"profile", &A::fetchStreamProfile, "Load stream information",
         "GET /api/stream-profile ", R"({"profile":{"title":"T"}})",
         {R"(streamProfileLoaded {"title":"T"})"}},
        {"save profile",
         [](A &api) { api.saveStreamProfile({{"title", "T"}, {"tags", QJsonArray{"a"}}}); },
         "Save stream information", R"(POST /api/stream-profile {"tags":["a"],"title":"T"})",
         R"({"profile":{"title":"T"},"syncResults":[{"ok":true}]})",
         {R"(streamProfileSaved {"title":"T"} [{"ok":true}])"}},
        {"categories", [](A &api) { api.fetchCategories(" Twitch ", " just chatting "); },
         "Search  Twitch  categories", "GET /api/categories%3Fprovider=twitch&q=just%2520chatting ",
         R"({"categories":[1]})", {"categoriesLoaded  twitch  [1]"}},
        {"live stats", &A::fetchLiveStats, "Load platform status",
         "GET /api/live/stats ", R"({"stats":[1],"platforms":[1,2]})", {"liveStatsLoaded [1]"}},
        {"live platforms", &A::fetchLiveStats, "Load platform status",
         "GET /api/live/stats ", R"({"stats":[],"platforms":[2]})", {"liveStatsLoaded [2]"}},
        {"stream stopped", [](A &api) { api.setStreamActive(false); }, "Stop stream session",
         R"(POST /api/stream/state {"active":false})", "{}",
         {"channelsLoaded [] {}", "liveStatsLoaded []"}},
        {"chat", &A::fetchChatMessages, "Load chat", "GET /api/chat/messages ",
         R"({"messages":[1],"adapters":[2]})", {"chatLoaded [1] [2]"}},
        {"send to a channel", [](A &api) { api.sendChatMessage(" hi ", " 42 ", " Twitch "); },
         "Send chat", R"(POST /api/chat/send {"channelId":"42","provider":"Twitch","text":"hi"})",
         "{}", {"chatMessageSent"}},
    };
    // clang-format on
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
    void initTestCase()
    {
        QVERIFY(service_.listen());
        // After its first request the client holds every authority of the trust store once, the
        // development one among them.
        api_.setBaseUrl(service_.baseUrl());
        api_.fetchAccount();
        TessivaneTestAccess::settle(api_);
        const QList<QSslCertificate> held =
            QSslConfiguration::defaultConfiguration().caCertificates();
        QCOMPARE(QSet<QSslCertificate>(held.begin(), held.end()).size(), held.size());
    }
    void init()
    {
        api_.setBaseUrl(service_.baseUrl());
        api_.setSessionToken("tok");
        service_.reset();
        failed_.clear();
    }
    // A request a test left in flight holds one of Qt's six connections from the next test.
    void cleanup() { api_.abortAll(); }

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
        QStringList sent;
        for (const ScriptedService::Request &request : std::as_const(service_.requests))
            sent << request.target + (request.headers.contains("Authorization")
                                          ? " " + request.header("Authorization")
                                          : "");
        QCOMPARE(sent, QStringList({"/api/me", "/api/me Bearer tok-1", "/api/me"}));
        // Without a session, sign-out signals inside the call and sends nothing.
        QSignalSpy signedOut(&api_, &TessivaneApi::signedOut);
        api_.logout();
        QCOMPARE(signedOut.count(), 1);
        QCOMPARE(settledRequests().size(), 3);
    }

    // The session and the password reach the origin alone, a reply is bounded in size with or
    // without its length ahead, and a silent one is given up, whatever the Qt.
    void theSessionStaysWithTheServiceAndRepliesAreBounded()
    {
        ScriptedService elsewhere;
        QVERIFY(elsewhere.listen());
        const QByteArray origin = service_.baseUrl().toEncoded();
        const QByteArray largest = QByteArray("{}").leftJustified(4 << 20, ' ');
        QSignalSpy account(&api_, &TessivaneApi::accountLoaded);
        QSignalSpy chat(&api_, &TessivaneApi::chatLoaded);
        service_.replies["/api/me"] = {307, "{}", origin + "/api/me2"};
        service_.replies["/api/me2"] = {200, R"({"user":{"id":2}})"};
        service_.replies["/api/chat/messages"] = {200, largest, {}, true};
        api_.fetchAccount();
        api_.fetchChatMessages();
        QTRY_COMPARE(account.count() + chat.count(), 2);
        QCOMPARE(account.at(0).at(0).toJsonObject().value("id").toInt(), 2);

        service_.replies["/api/auth/login"] = {307, "{}", elsewhere.baseUrl().toEncoded() + "/x"};
        service_.replies["/api/live/stats"] = {307, "{}", "http" + origin.mid(5) + "/x"};
        service_.replies["/api/stream-engine/ingest"] = {200, largest + ' '};
        service_.replies["/api/chat/messages"] = {200, largest + ' ', {}, true};
        api_.login("a@x", "secret");
        api_.fetchLiveStats();
        api_.fetchIngest();
        api_.fetchChatMessages();
        QTRY_COMPARE(failed_.count(), 4);
        QCOMPARE(TessivaneTestAccess::silence(api_), 30000);
        const auto restore = qScopeGuard([this] { TessivaneTestAccess::silence(api_) = 30000; });
        TessivaneTestAccess::silence(api_) = 200;
        service_.replies["/api/channels"].status = ScriptedService::hold;
        api_.fetchChannels();
        QTRY_COMPARE(failed_.count(), 5);
        QStringList failures;
        for (int i = 0; i < failed_.count(); ++i)
            failures << failure(i).join(": ");
        failures.sort();
        const QString elsewhereText = "Tessivane sent the request elsewhere; it was stopped.";
        QCOMPARE(
            failures,
            QStringList({"Configure OBS: Tessivane's reply was too large to read.",
                         "Load channels: Tessivane did not answer. Try again in a moment.",
                         "Load chat: Tessivane's reply was too large to read.",
                         "Load platform status: " + elsewhereText, "Sign in: " + elsewhereText}));
        QVERIFY(elsewhere.requests.isEmpty());
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

    void everyEndpoint_data()
    {
        QTest::addColumn<int>("row");
        for (int i = 0; i < int(endpoints().size()); ++i)
            QTest::newRow(endpoints()[i].tag) << i;
    }

    // Each endpoint's signals for a reply, then its one request and its label for a failure.
    void everyEndpoint()
    {
        QFETCH(int, row);
        const Endpoint &endpoint = endpoints()[row];
        const QByteArray reply = endpoint.reply;
        const int status = reply.indexOf(' ') == 3 ? reply.left(3).toInt() : 0;
        service_.fallback = {status ? status : 200, status ? reply.mid(4) : reply};
        QList<QSignalSpy *> spies;
        const QMetaObject *meta = api_.metaObject();
        for (int i = meta->methodOffset(); i < meta->methodCount(); ++i)
            if (meta->method(i).methodType() == QMetaMethod::Signal)
                spies << new QSignalSpy(&api_, meta->method(i));
        endpoint.call(api_);
        TessivaneTestAccess::settle(api_);
        QStringList emitted;
        for (QSignalSpy *spy : std::as_const(spies))
            for (const QList<QVariant> &arguments : std::as_const(*spy)) {
                QString text = QString::fromLatin1(spy->signal()).section('(', 0, 0);
                for (const QVariant &argument : arguments)
                    text += ' ' + describe(argument);
                emitted << text.replace(service_.baseUrl().toString(), "%1");
            }
        qDeleteAll(spies);
        if (api_.sessionToken() != "tok")
            emitted << "token " + api_.sessionToken();
        emitted.sort();
        QCOMPARE(emitted, endpoint.emits);
        QTRY_VERIFY(TessivaneTestAccess::manager(api_)->findChildren<QNetworkReply *>().isEmpty());

        // A failure: the one request, and the session left alone.
        api_.setSessionToken("tok");
        service_.requests.clear();
        failed_.clear();
        service_.fallback = {503, R"({"message":"Try later"})"};
        endpoint.call(api_);
        QTRY_COMPARE(failed_.count(), 1);
        QCOMPARE(failure(), QStringList({endpoint.label, "Try later"}));
        QCOMPARE(api_.sessionToken(), "tok");
        QCOMPARE(settledRequests().size(), 1);
        const ScriptedService::Request &request = service_.requests[0];
        QCOMPARE(request.method + ' ' + request.target + ' ' + request.body, endpoint.wire);
        QCOMPARE(request.header("Authorization") + '|' + request.header("Content-Type") + '|' +
                     request.header("Accept") + '|' + request.header("User-Agent"),
                 "Bearer tok|application/json|application/json|Tessivane-OBS-Plugin/0.3.0");
    }
};

QTEST_MAIN(ApiTest)
#include "test-api.moc"
