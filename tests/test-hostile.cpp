// SPDX-License-Identifier: GPL-2.0-or-later
// Hostile replies: every endpoint answered, round after round, by a seeded mix of mistyped,
// missing, huge, deep, broken, truncated, redirected, failed and stalled replies from a raw TLS
// peer, while the controller and its five docks react to each. Nothing may crash or hang, and
// every failure must reach the status lines as "label: message".
#include "fixture.h"
#include "tessivane-widgets.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QDesktopServices>
#include <QJsonDocument>
#include <QMessageBox>
#include <QRandomGenerator>
#include <QSslServer>
#include <QTemporaryDir>

#include <memory>

namespace {
using Bytes = QByteArray;
const QString invalid = "Tessivane returned an invalid response.";

Bytes http(int status, const Bytes &body, const Bytes &head = "Content-Type: text/html\r\n")
{
    return "HTTP/1.1 " + Bytes::number(status) + " X\r\n" + head +
           "Content-Length: " + Bytes::number(body.size()) + "\r\n\r\n" + body;
}
Bytes text(const QJsonValue &value)
{
    return QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact).mid(1).chopped(1);
}

// The reply with the value at one of its keys (nested ones and first array elements included,
// taken in turn by `pick`) replaced by raw JSON text made from the old value's, or removed.
Bytes atKey(const Bytes &sample, quint32 pick, const std::function<Bytes(const Bytes &)> &raw)
{
    const QJsonValue root = QJsonDocument::fromJson(sample).object();
    QList<QStringList> paths;
    const std::function<void(const QJsonValue &, QStringList)> walk = [&](const QJsonValue &value,
                                                                          QStringList path) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            walk(*it, paths.emplaceBack(path + QStringList(it.key())));
        if (value.isArray() && !value.toArray().isEmpty())
            walk(value[0], paths.emplaceBack(path + QStringList("0")));
    };
    walk(root, {});
    const QStringList path = paths[pick % paths.size()];
    const std::function<QJsonValue(const QJsonValue &, int)> swap = [&](const QJsonValue &value,
                                                                        int depth) {
        if (depth == path.size())
            return raw ? QJsonValue("\u0001") : QJsonValue(QJsonValue::Undefined);
        const QString &key = path[depth];
        if (value.isArray()) {
            QJsonArray array = value.toArray();
            const QJsonValue inner = swap(array[key.toInt()], depth + 1);
            inner.isUndefined() ? array.removeAt(key.toInt()) : void(array[key.toInt()] = inner);
            return QJsonValue(array);
        }
        QJsonObject object = value.toObject();
        const QJsonValue inner = swap(object[key], depth + 1);
        inner.isUndefined() ? void(object.remove(key)) : void(object[key] = inner);
        return QJsonValue(object);
    };
    QJsonValue old = root;
    for (const QString &key : path)
        old = old.isArray() ? old[key.toInt()] : old[key];
    return text(swap(root, 0)).replace(R"("\u0001")", raw ? raw(text(old)) : Bytes());
}

enum Outcome { Handled, Invalid, Failed, Said, Cancelled };
using Answer = std::function<Bytes(const Bytes &sample, QRandomGenerator &rng)>;
struct Mutation {
    const char *name;
    Outcome outcome;
    Answer answer;
};
template <typename T> T any(QRandomGenerator &rng, const QList<T> &list)
{
    return list[rng.bounded(int(list.size()))];
}
// One of these statuses with one of these bodies, whatever the sample.
Answer fixed(const QList<int> &statuses, const QList<Bytes> &bodies)
{
    return [=](const Bytes &, QRandomGenerator &rng) {
        return http(any(rng, statuses), any(rng, bodies));
    };
}
// The sample with the value at one of its keys replaced by JSON text made from the old one,
// or removed (no `raw`).
Answer valueAt(const std::function<Bytes(const Bytes &old, QRandomGenerator &rng)> &raw)
{
    return [=](const Bytes &sample, QRandomGenerator &rng) {
        return http(200, atKey(sample, rng(), raw ? [&](const Bytes &old) { return raw(old, rng); }
                                                  : std::function<Bytes(const Bytes &)>()));
    };
}
Bytes nested(int depth, const Bytes &inner)
{
    return Bytes(depth, '[') + inner + Bytes(depth, ']');
}
QJsonValue::Type typeOf(const Bytes &json)
{
    return QJsonDocument::fromJson("[" + json + "]").array()[0].type();
}
const Bytes html = "<html><body><h1>Bad Gateway</h1>{\"error\":\"no\"}</body></html>";

const Mutation mutations[] = {
    {"intact", Handled,
     [](const Bytes &s, QRandomGenerator &) {
         return http(200, s);
     }},
    {"wrong type", Handled, valueAt([](const Bytes &old, QRandomGenerator &rng) {
         Bytes other;
         do
             other =
                 any<Bytes>(rng, {"null", "true", "-0.5", "1e308", "\"7\"", "[]", "{}", "[{}]"});
         while (typeOf(other) == typeOf(old));
         return other;
     })},
    {"missing key", Handled, valueAt({})},
    {"huge numbers", Handled,
     [](const Bytes &s, QRandomGenerator &rng) {
         static const QRegularExpression number("(?<=:)-?[0-9][0-9.]*");
         const QString huge = any<QString>(rng, {"1e308", "-1e300", "9.3e18"});
         return http(200, QString(s).replace(number, huge).toUtf8());
     }},
    {"odd text", Handled, valueAt([](const Bytes &, QRandomGenerator &) -> Bytes {
         return R"(" %1 %2 \u0000\r\n<b>\u202e\ud83d\ude00 ")";
     })},
    {"huge text", Handled,
     valueAt([](const Bytes &, QRandomGenerator &) { return '"' + Bytes(1 << 16, 'x') + '"'; })},
    {"huge array", Handled, valueAt([](const Bytes &old, QRandomGenerator &) {
         const QJsonValue value = QJsonDocument::fromJson("[" + old + "]").array()[0];
         const Bytes item = text(value.isArray() ? value[0] : value);
         return '[' + (item + ',').repeated(299) + item + ']';
     })},
    {"deep", Handled,
     valueAt([](const Bytes &old, QRandomGenerator &) { return nested(500, old); })},
    {"too deep", Invalid,
     valueAt([](const Bytes &old, QRandomGenerator &) { return nested(5000, old); })},
    {"bad UTF-8", Invalid,
     valueAt([](const Bytes &, QRandomGenerator &) -> Bytes { return "\"a\xff\xfe\xc3(\""; })},
    {"cut JSON", Invalid,
     [](const Bytes &s, QRandomGenerator &) {
         return http(200, s.left(s.size() / 2));
     }},
    {"scalar", Invalid, fixed({200}, {"42", "\"x\"", "null", "true"})},
    {"empty", Handled, fixed({200}, {"", " \r\n"})},
    {"array", Handled, fixed({200}, {"[]", R"([{"error":"x"}])", "[[[]]]"})},
    {"redirect", Failed,
     [](const Bytes &, QRandomGenerator &rng) {
         return http(
             any<int>(rng, {301, 302, 303, 307, 308}), html,
             any<Bytes>(rng, {"Location: /moved\r\n", "Location: http://127.0.0.1:9/\r\n"}));
     }},
    {"HTML 4xx", Failed, fixed({400, 401, 403, 404, 429}, {html})},
    {"HTML 5xx", Failed, fixed({500, 502, 503, 504}, {html})},
    {"service error", Said,
     fixed({400, 401, 404, 500, 503}, {R"({"error":"  Nope \n","message":"m"})"})},
    {"cut off", Failed,
     [](const Bytes &s, QRandomGenerator &) {
         const Bytes whole = http(200, s, "Connection: close\r\n");
         return whole.left(whole.size() - s.size() / 2 - 1);
     }},
    {"stall", Cancelled,
     [](const Bytes &, QRandomGenerator &) {
         return Bytes();
     }},
};

const char installer[] = R"({"installer":"Tessivane.pkg"})";

// One row per request the plug-in makes: the request line, its label (none for the installer,
// which is not the client's), a well-formed reply, and the one failure such a reply may still
// end in when its key goes wrong.
struct Endpoint {
    const char *key, *label, *sample, *semantic = nullptr;
};
const Endpoint endpoints[] = {
    {"POST /api/auth/login", "Sign in",
     R"({"sessionToken":"tok","user":{"name":"Ann","email":"a@b.c","plan":{"name":"Pro"}}})",
     "The account response did not include a session."},
    {"POST /api/auth/logout", "Sign out", R"({"ok":true})"},
    {"GET /api/me", "Load account", R"({"user":{"name":"Ann","email":"a@b.c","plan":"Pro"}})"},
    {"GET /api/stream-engine/ingest", "Configure OBS",
     R"({"server":"rtmp:127.0.0.1/live","ingestUrl":"rtmp:127.0.0.1/x","streamKey":"k"})"},
    {"GET /api/plugin/releases/latest/macos", "Check for updates",
     R"({"available":true,"version":"v0.4.0-rc.1","url":"ORIGIN/installer","sha256":"SHA",)"
     R"("name":"Tessivane.pkg"})"},
    {"GET /installer", nullptr, installer},
    {"GET /api/channels", "Load channels",
     R"({"channels":[{"id":7.9,"name":"Ann","providerName":"Twitch","provider":"twitch",)"
     R"("status":"live","selected":true},{"id":"yt 1","provider":"youtube"}],"user":{"name":"A"}})"},
    {"POST /api/channels/c1/selection", "Update channel", R"({"ok":true})"},
    {"POST /api/connections/twitch/start", "Connect twitch", "{\"url\":\"https:/127.0.0.1/a\"}",
     "No authorization URL was returned."},
    {"POST /api/channels/c1/remove", "Remove channel", R"({"ok":true})"},
    {"POST /api/connections/manual", "Add facebook Live", R"({"ok":true})"},
    {"GET /api/stream-profile", "Load stream information",
     R"({"profile":{"title":"T","description":"D","notification":"N","twitchCategory":"IRL",)"
     R"("kickCategory":"Slots","tags":["a","b"]}})"},
    {"POST /api/stream-profile", "Save stream information",
     R"({"profile":{"title":"T"},"syncResults":[{"ok":true},{"ok":false,"channel":"B","error":"E"}]})"},
    {"GET /api/categories%3Fprovider=twitch&q=ju", "Search twitch categories",
     R"({"categories":[{"id":"509658","name":"Just Chatting"},{"id":2,"name":"IRL"}]})"},
    {"GET /api/categories%3Fprovider=kick&q=ju", "Search kick categories",
     R"({"categories":[{"id":"15","name":"Just Chatting"}]})"},
    {"GET /api/live/stats", "Load platform status",
     R"({"stats":[{"status":"LIVE"},{"status":"offline"}],"platforms":[{"status":"connected"}]})"},
    {"POST /api/stream/state", "Start stream session", R"({"ok":true})"},
    {"GET /api/chat/messages", "Load chat",
     R"({"messages":[{"provider":"YouTube","channel":"Ann","author":"Bo","text":"hi %1"}],)"
     R"("adapters":[{"connected":true,"provider":"Twitch","channel":"Ann","channelId":12345.9},)"
     R"({"connected":false,"channel":"Bo","detail":"Token expired"}]})"},
    {"POST /api/chat/send", "Send chat", R"({"ok":true})"},
};

// A TLS peer that answers each request line with the bytes planned for it, as they are: an
// answer that announces "Connection: close" is cut off there, and an empty one never comes.
class RawService : public QSslServer {
public:
    QHash<Bytes, Bytes> planned;
    QHash<Bytes, int> seen;
    int held = 0;

    RawService()
    {
        setSslConfiguration(ScriptedService::tls());
        listen(QHostAddress::LocalHost);
        connect(this, &QSslServer::pendingConnectionAvailable, this, [this]() {
            while (QTcpSocket *socket = nextPendingConnection()) {
                auto in = std::make_shared<Bytes>();
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QTcpSocket::readyRead, this,
                        [this, socket, in]() { serve(socket, *in += socket->readAll()); });
            }
        });
    }

private:
    void serve(QTcpSocket *socket, Bytes &in)
    {
        static const QRegularExpression length("\r\ncontent-length: *(\\d+)",
                                               QRegularExpression::CaseInsensitiveOption);
        for (qsizetype end; (end = in.indexOf("\r\n\r\n")) >= 0;) {
            const qsizetype size =
                end + 4 + length.match(QString::fromLatin1(in.left(end))).captured(1).toInt();
            if (in.size() < size)
                return;
            const Bytes key = in.left(in.indexOf(" HTTP/"));
            in.remove(0, size);
            const Bytes answer = planned.value(key, http(404, {}));
            seen[key] += planned.contains(key);
            held += answer.isEmpty();
            socket->write(answer);
            if (answer.contains("Connection: close"))
                return socket->disconnectFromHost();
        }
    }
};
} // namespace

class TestHostile : public ControllerTest {
    Q_OBJECT
    RawService raw_;
    QTemporaryDir tmp_;
    int boxes_ = 0;
    QHash<QString, QStringList> failures_; // per label, this round
    QStringList wrong_;

public:
    TestHostile()
    {
        qputenv("TMPDIR", tmp_.path().toUtf8());
        for (const char *scheme : {"", "http", "https", "file"})
            QDesktopServices::setUrlHandler(scheme, this, "openUrl");
        qApp->installEventFilter(this);
    }
    Q_SLOT void openUrl(const QUrl &) {}

    // Every box is answered as soon as it shows: Yes to the update, so that the download runs.
    bool eventFilter(QObject *object, QEvent *event) override
    {
        if (event->type() == QEvent::Show && qobject_cast<QMessageBox *>(object)) {
            ++boxes_;
            QTimer::singleShot(0, this, []() {
                if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
                    QAbstractButton *yes = box->button(QMessageBox::Yes);
                    (yes ? yes : box->buttons().constFirst())->click();
                }
            });
        }
        return false;
    }

private:
    // Every request of the round has its answer, but for those the peer holds.
    bool settle()
    {
        const QDeadlineTimer deadline(20000);
        while (TessivaneTestAccess::running(TessivaneTestAccess::manager(api())) +
                   TessivaneTestAccess::running(controller_) !=
               raw_.held) {
            if (deadline.hasExpired())
                return false;
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        }
        return true;
    }
    void request(int round)
    {
        TessivaneApi &api = this->api();
        api.setSessionToken("tok");
        api.login("a@b.c", "pw");
        api.logout();
        controller_->refreshAll();
        controller_->checkForUpdates(round % 2);
        api.setChannelSelected("c1", round % 2);
        api.startProviderConnection("twitch");
        api.removeChannel("c1");
        api.addManualLiveDestination("facebook", "Page", "rtmps://127.0.0.1/x", "key");
        api.saveStreamProfile({{"title", "T"}});
        panel("tessivane.stream-information")->findChildren<QComboBox *>()[round % 2]->setFocus();
        api.fetchCategories("twitch", "ju");
        api.fetchCategories("kick", "ju");
        api.setStreamActive(true);
        api.sendChatMessage("hi", "42", "twitch");
    }
    void noteFailure(const QString &label, const QString &message)
    {
        failures_[label] << message;
        // The general line takes every failure; the stream line only those of streams and
        // categories; the update line says that a check failed.
        // As the labels show it, cut and broken where a word is long.
        const QString line = shownText(label + ": " + message);
        const QStringList lines = TessivaneTestAccess::statusLines(*controller_);
        const bool stream = label.contains("stream", Qt::CaseInsensitive) ||
                            label.contains("categor", Qt::CaseInsensitive);
        if (lines[0] != line || (lines[1] == line) != stream ||
            (label == "Check for updates" && lines[2] != "Update check failed. Try again later."))
            wrong_ << line.left(120);
    }
    // A connection cut off mid-reply also fails the requests that were waiting for a connection,
    // before they reach the peer: with the words "Connection closed", which the status lines show.
    QString check(const Endpoint &endpoint, Outcome outcome, bool cut)
    {
        QStringList got = failures_.take(endpoint.label);
        const int strays = cut ? int(got.removeAll("Connection closed")) : 0;
        const int count = raw_.seen.value(endpoint.key);
        const auto all = [&](const std::function<bool(const QString &)> &is) {
            return std::all_of(got.begin(), got.end(), is);
        };
        bool right = all([&](const QString &m) {
            switch (outcome) {
            case Handled:
                return m == endpoint.semantic;
            case Invalid:
                return m == invalid;
            case Said:
                return m == "Nope";
            case Cancelled:
                return m == "Operation canceled";
            default:
                return !m.isEmpty() && m != invalid && !m.contains('<');
            }
        });
        // The network layer may send a request again on a fresh connection, but each reply
        // ends in one outcome: a failure at most once per request served, and at least one.
        right = right && got.size() <= count &&
                (outcome == Handled || count == 0 || got.size() + strays > 0);
        return right ? QString()
                     : QString("%1 x%2: %3").arg(endpoint.key).arg(count).arg(got.join(" | "));
    }

private Q_SLOTS:
    void everyEndpointSurvivesHostileReplies()
    {
        const quint32 seed = qEnvironmentVariableIsSet("TESSIVANE_FUZZ_SEED")
                                 ? qEnvironmentVariableIntValue("TESSIVANE_FUZZ_SEED")
                                 : 13;
        QRandomGenerator rng(seed);
        QVERIFY(raw_.isListening() && start());
        // Category replies reach the status line only while their box has the focus.
        hostDouble::mainWindow()->show();
        QVERIFY(QTest::qWaitForWindowActive(hostDouble::mainWindow()));
        const Bytes origin = "https://127.0.0.1:" + Bytes::number(raw_.serverPort());
        api().setBaseUrl(QUrl(origin));
        connect(&api(), &TessivaneApi::requestFailed, this, &TestHostile::noteFailure);
        const Bytes digest =
            QCryptographicHash::hash(installer, QCryptographicHash::Sha256).toHex();

        int replies = 0, rounds = 0;
        for (; replies < 10000; ++rounds) {
            QList<int> drawn;
            for (const Endpoint &endpoint : endpoints) {
                // One stalled target at a time, never the channel list: its follow-ups would
                // take every connection, and what queues behind a stall waits with it.
                int kind;
                do
                    kind = rng.bounded(int(std::size(mutations)));
                while (mutations[kind].outcome == Cancelled &&
                       (drawn.contains(kind) || endpoint.label == QLatin1String("Load channels")));
                drawn << kind;
                raw_.planned[endpoint.key] = mutations[kind].answer(
                    Bytes(endpoint.sample).replace("ORIGIN", origin).replace("SHA", digest), rng);
            }
            const bool cut = std::any_of(drawn.begin(), drawn.end(), [](int kind) {
                return mutations[kind].name == QLatin1String("cut off");
            });
            raw_.seen.clear();
            request(rounds);
            QVERIFY2(settle(),
                     qPrintable(QString("Round %1 hangs (seed %2)").arg(rounds).arg(seed)));
            api().abortAll();
            for (QNetworkReply *download : controller_->findChildren<QNetworkReply *>())
                download->isRunning() ? download->abort() : void();
            raw_.held = 0;
            for (int i = 0; i < int(std::size(endpoints)); ++i) {
                if (const QString wrong =
                        endpoints[i].label ? check(endpoints[i], mutations[drawn[i]].outcome, cut)
                                           : QString();
                    !wrong.isEmpty()) {
                    QFAIL(qPrintable(QString("Round %1, seed %2, %3 %4")
                                         .arg(rounds)
                                         .arg(seed)
                                         .arg(mutations[drawn[i]].name, wrong)));
                }
                replies += drawn[i] ? raw_.seen.value(endpoints[i].key) : 0;
            }
            QVERIFY2(failures_.isEmpty() && wrong_.isEmpty(),
                     qPrintable((failures_.keys() + wrong_).join('\n')));
        }
        qInfo("%d hostile replies in %d rounds, seed %u (TESSIVANE_FUZZ_SEED picks another), %d "
              "boxes answered",
              replies, rounds, seed, boxes_);
    }
};

QTEST_MAIN(TestHostile)
#include "test-hostile.moc"
