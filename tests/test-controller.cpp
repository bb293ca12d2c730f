// SPDX-License-Identifier: GPL-2.0-or-later
// The controller's start and stop, dock hosting, and where failures are shown.
#include "fixture.h"

#include <obs-config.h>

#include <QComboBox>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSignalSpy>
#include <QTimer>

namespace {
const QStringList docks = {"tessivane.account", "tessivane.channels",
                           "tessivane.stream-information", "tessivane.stream-health",
                           "tessivane.chat"};
const QStringList titles = {"Account", "Channels", "Stream Information", "Stream Health", "Chat"};

// OBS 31 and later read the user configuration whatever the host double exports.
#ifndef HOST_OBS31
#define HOST_OBS31 (LIBOBS_API_MAJOR_VER >= 31)
#endif

QList<int> activeTimers(const QObject &owner)
{
    QList<int> intervals;
    for (const QTimer *timer : owner.findChildren<QTimer *>())
        intervals << (timer->isActive() ? timer->interval() : -1);
    std::sort(intervals.begin(), intervals.end());
    return intervals;
}
} // namespace

class TestController : public ControllerTest {
    Q_OBJECT

private Q_SLOTS:
    void startRegistersFiveDocksInOrder()
    {
        QCOMPARE(activeTimers(*controller_), QList<int>({2000, 10000, 10000, 21600000}));
        // Closable, movable and floatable, shown at once, since nobody is signed in.
        for (int i = 0; i < docks.size(); ++i) {
            QCOMPARE(hostDouble::calls().at(i), "add_dock " + docks[i]);
            QCOMPARE(hostDouble::dock(docks[i])->windowTitle(), "Tessivane " + titles[i]);
            QCOMPARE(int(hostDouble::dock(docks[i])->features()), 7);
        }
        QVERIFY(docksShown());
        hostDouble::calls().clear();
        QVERIFY(controller_->initialize());
        QVERIFY(hostDouble::calls().isEmpty());

        hostDouble::refuseDock("tessivane.y");
        QPointer<QWidget> refused = new QWidget;
        QVERIFY(!controller_->registerDock("tessivane.y", "Y", refused));
        QVERIFY(refused.isNull());
        // A panel destroyed behind the controller's back is still asked back from the host.
        delete panel("tessivane.chat");
        controller_->showDocks();
        hostDouble::calls().clear();
        controller_->removeDocks();
        QCOMPARE(hostDouble::calls().size(), 5);
        QVERIFY(hostDouble::calls().contains("remove_dock tessivane.chat"));
    }

    // The poll asks for the channels, the platforms and the chat, and only with a session.
    void pollAsksOnlyWithASession()
    {
        const QList<QTimer *> timers = controller_->findChildren<QTimer *>();
        QTimer *poll = *std::find_if(timers.begin(), timers.end(),
                                     [](QTimer *timer) { return timer->interval() == 10000; });
        int ticks = 0;
        connect(poll, &QTimer::timeout, this, [&ticks]() { ++ticks; });
        poll->start(1);
        QTRY_VERIFY(ticks > 2);
        QCOMPARE(settledTargets(), QList<QByteArray>());
        api().setSessionToken("tok");
        ticks = 0;
        QTRY_VERIFY(ticks > 0);
        poll->stop();
        QList<QByteArray> each;
        for (const char *target : {"/api/channels", "/api/chat/messages", "/api/live/stats"})
            each += QList<QByteArray>(ticks, target);
        QCOMPARE(settledTargets(), each);
        // A poll's replies are nothing the streamer asked for: a screen reader hears nothing.
        QCOMPARE(announced(), QStringList());
    }

    void shutdownCutsTheClientBeforeAbortingAndTakesTheDocksAway()
    {
        store().setValue("sessionToken", "tok");
        service_.fallback.status = ScriptedService::hold;
        QVERIFY(restart());
        // Seven requests: six on the wire, one waiting in Qt for a connection.
        QTRY_COMPARE(service_.requests.size(), 6);
        // The panel outlives its dock here, so that a late write to it would show.
        QWidget *account = panel("tessivane.account");
        account->setParent(nullptr);
        QSignalSpy failed(&api(), &TessivaneApi::requestFailed);

        hostDouble::calls().clear();
        controller_->shutdown();
        QCOMPARE(failed.count(), 7);
        QVERIFY(!texts(account).join('\n').contains("Operation canceled"));
        QStringList removed = hostDouble::calls().replaceInStrings("remove_dock ", ""), ids = docks;
        removed.sort();
        ids.sort();
        QCOMPARE(removed, ids);
        // Only the release checks outlive shutdown, until the object goes.
        QCOMPARE(activeTimers(*controller_), QList<int>({10000, 21600000}));
        delete account;

        // Stopped, nothing touches the widgets that went with the docks.
        hostDouble::calls().clear();
        controller_->setSignedInUi(true);
        controller_->shutdown();
        QVERIFY(hostDouble::calls().isEmpty());
    }

    // OBS deletes the docks before unloading us: every reaction copes, the other docks update.
    void everyReactionCopesWithADockGone_data()
    {
        QTest::addColumn<QString>("gone");
        for (const QString &id : docks)
            QTest::newRow(qPrintable(id)) << id;
    }

    void everyReactionCopesWithADockGone()
    {
        QFETCH(QString, gone);
        delete hostDouble::dock(gone);
        const QJsonObject user{{"name", "Ann"}};
        const QJsonArray channels{QJsonObject{{"selected", true}, {"status", "live"}}};
        const QJsonArray found{QJsonObject{{"name", "Celeste"}}};
        TessivaneApi &client = api();
        Q_EMIT client.signedIn(user, "tok");
        Q_EMIT client.accountLoaded(user);
        Q_EMIT client.channelsLoaded(channels, user);
        Q_EMIT client.liveStatsLoaded(channels);
        Q_EMIT client.ingestLoaded({{"server", "rtmp://127.0.0.1/live"}, {"streamKey", "key"}});
        Q_EMIT client.streamProfileLoaded({{"title", "T"}});
        Q_EMIT client.streamProfileSaved({}, {});
        Q_EMIT client.categoriesLoaded("twitch", found);
        Q_EMIT client.categoriesLoaded("kick", found);
        Q_EMIT client.chatLoaded({QJsonObject{{"channel", "C"}, {"author", "A"}, {"text", "hi"}}},
                                 {QJsonObject{{"connected", true}}});
        Q_EMIT client.chatMessageSent();
        Q_EMIT client.pluginReleaseLoaded({});
        Q_EMIT client.signedOut();
        Q_EMIT client.requestFailed("Save stream information", "down");
        controller_->refreshHealth();

        // What each dock shows after all of them, when it still stands.
        const QStringList shown[] = {{"Ann", "Save stream information: down"},
                                     {"0 of 0 selected"},
                                     {"T", "Save stream information: down"},
                                     {"1 live / 1 selected", "0.00 Mbps"},
                                     {"C • A: hi"}};
        for (int i = 0; i < docks.size(); ++i)
            for (const QString &text : shown[i])
                QVERIFY2(docks[i] == gone || texts(panel(qPrintable(docks[i]))).contains(text),
                         qPrintable(text));
    }

    // No service or viewer text breaks or turns its line, anywhere; the account's two lines aside.
    void serviceTextsStandOnOneLine()
    {
        const QString forged = QString::fromUtf8("a\nb\u2028c\u2029d\u202ee\u2066f");
        const QJsonObject user{{"name", forged}, {"email", forged}, {"plan", forged}};
        const QJsonObject said{{"channel", forged},  {"author", forged},       {"text", forged},
                               {"provider", forged}, {"detail", forged},       {"error", forged},
                               {"name", forged},     {"providerName", forged}, {"status", forged}};
        QJsonObject adapter = said;
        adapter.insert("connected", true);
        TessivaneApi &client = api();
        QStringList shown;
        const auto look = [&]() {
            shown += modals_;
            for (const QString &id : docks) {
                shown += texts(panel(qPrintable(id)));
                for (QComboBox *box : panel(qPrintable(id))->findChildren<QComboBox *>())
                    for (int i = 0; i < box->count(); ++i)
                        shown << box->itemText(i);
            }
        };
        Q_EMIT client.accountLoaded(user);
        Q_EMIT client.channelsLoaded({said}, {});
        Q_EMIT client.streamProfileSaved({}, {said});
        Q_EMIT client.categoriesLoaded("twitch", {said});
        Q_EMIT client.chatLoaded({said}, {adapter, said});
        Q_EMIT client.pluginReleaseLoaded({{"available", true}, {"version", "9." + forged}});
        Q_EMIT client.requestFailed("Load chat", forged);
        look();
        // With no chat connected, the feed says why, a line for each channel.
        Q_EMIT client.chatLoaded({}, {said, said});
        look();
        for (const QString &text : std::as_const(shown))
            QVERIFY2(!text.contains(QRegularExpression("[\\r\\x{2028}\\x{2029}\\x{202a}-\\x{202e}"
                                                       "\\x{2066}-\\x{2069}]")) &&
                         text.count('\n') <=
                             text.count(" plan\n") + 2 * text.count(".\n\n") + text.count("f\na"),
                     qPrintable(text));
    }

    // The layout saved at exit (OBS 30: global configuration; 31 on: the user's) is applied again.
    void restoredSessionTakesTheSavedLayout_data()
    {
        QTest::addColumn<bool>("saved");
        QTest::newRow("nothing saved") << false;
        QTest::newRow("docks on the left, the chat closed") << true;
    }

    void restoredSessionTakesTheSavedLayout()
    {
        QFETCH(bool, saved);
        QMainWindow last;
        hostDouble::dockState(!HOST_OBS31) = last.saveState().toBase64();
        for (const QString &id : docks) {
            auto *dock = new QDockWidget(&last);
            dock->setObjectName(id);
            last.addDockWidget(Qt::LeftDockWidgetArea, dock);
            dock->setVisible(id != "tessivane.chat");
        }
        hostDouble::dockState(HOST_OBS31) = saved ? last.saveState().toBase64() : "";
        store().setValue("sessionToken", "tok");
        QVERIFY(restart());
        QMainWindow *window = hostDouble::mainWindow();
        for (const QString &id : docks) {
            QDockWidget *dock = hostDouble::dock(id);
            QCOMPARE(dock->isVisibleTo(window), saved && id != "tessivane.chat");
            QCOMPARE(window->dockWidgetArea(dock),
                     saved ? Qt::LeftDockWidgetArea : Qt::RightDockWidgetArea);
            QVERIFY(!dock->isFloating());
        }
    }

    // Where each failure shows (s: the stream's line too, u: the update line) and whether a
    // screen reader is told at once (!): only of what the streamer asked for.
    void failuresReachTheirStatusLines_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QString>("marks");
        const QString rows =
            "Load chat;Save STREAM information|s;Search kick CATEGORIES|s;"
            "Check for updates|u;Check for Updates;Save stream information|s!;"
            "Start stream session|s;Search twitch categories|s;Sign in|!;"
            "Sign out|!;Send chat|!;Update channel|!;Remove channel|!;"
            "Connect kick|!;Add facebook Live|!;Load channels;Load platform status;"
            "Configure OBS;Load account;Add facebook;Connect";
        for (const QString &row : rows.split(';'))
            QTest::newRow(qPrintable(row)) << row.section('|', 0, 0) << row.section('|', 1);
    }

    void failuresReachTheirStatusLines()
    {
        QFETCH(QString, operation);
        QFETCH(QString, marks);
        const bool update = marks.contains('u');
        QWidget *account = panel("tessivane.account");
        QPushButton *check = withText<QPushButton>(account, "Check for Updates");
        check->setEnabled(false);

        Q_EMIT api().requestFailed(operation, "Service down");
        const QString text = operation + ": Service down";
        QVERIFY(texts(account).contains(text));
        QCOMPARE(texts(panel("tessivane.stream-information")).contains(text), marks.contains('s'));
        QCOMPARE(check->isEnabled(), update);
        QCOMPARE(texts(account).contains("Update check failed. Try again later."), update);
        QCOMPARE(announced(), marks.contains('!') ? QStringList{"!" + text} : QStringList());
        // The docks recover with the next poll.
        QCOMPARE(activeTimers(*controller_), QList<int>({2000, 10000, 10000, 21600000}));
    }
};

QTEST_MAIN(TestController)
#include "test-controller.moc"
