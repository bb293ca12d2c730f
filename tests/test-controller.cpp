// SPDX-License-Identifier: GPL-2.0-or-later
// The controller's start and stop, dock hosting, and where failures are shown.
#include "fixture.h"

#include <obs-config.h>

#include <QPushButton>
#include <QSignalSpy>
#include <QTimer>

namespace {
const QStringList docks = {"tessivane.account", "tessivane.channels",
                           "tessivane.stream-information", "tessivane.stream-health",
                           "tessivane.chat"};
const QStringList titles = {"Tessivane Account", "Tessivane Channels",
                            "Tessivane Stream Information", "Tessivane Stream Health",
                            "Tessivane Chat"};

// A build against OBS 31 or later reads the user configuration whatever the host double exports.
#ifndef HOST_OBS31
#define HOST_OBS31 (LIBOBS_API_MAJOR_VER >= 31)
#endif

QList<int> activeTimers(const QObject &owner)
{
    QList<int> intervals;
    const QList<QTimer *> timers = owner.findChildren<QTimer *>();
    for (const QTimer *timer : timers)
        intervals << (timer->isActive() ? timer->interval() : -1);
    std::sort(intervals.begin(), intervals.end());
    return intervals;
}
} // namespace

class TestController : public ControllerTest {
    Q_OBJECT

private Q_SLOTS:
    void startRegistersFiveStyledDocksInOrder()
    {
        QVERIFY(start());
        QCOMPARE(activeTimers(*controller_), QList<int>({2000, 10000, 21600000}));
        const QString sheet = panel("tessivane.account")->styleSheet();
        // The switch's pill and the glow behind every panel.
        QVERIFY(sheet.contains("QCheckBox::indicator {\n    width: 28px;"));
        QVERIFY(sheet.contains("QWidget#TessivaneRoot {\n    background: qradialgradient("));
        for (int i = 0; i < docks.size(); ++i) {
            QCOMPARE(hostDouble::calls().at(i), "add_dock " + docks[i]);
            QDockWidget *dock = hostDouble::dock(docks[i]);
            QCOMPARE(dock->windowTitle(), titles[i]);
            QCOMPARE(dock->allowedAreas(), Qt::AllDockWidgetAreas);
            QCOMPARE(dock->features(), QDockWidget::DockWidgetClosable |
                                           QDockWidget::DockWidgetMovable |
                                           QDockWidget::DockWidgetFloatable);
            QVERIFY(!dock->isFloating());
            QCOMPARE(dock->widget()->objectName(), "TessivaneRoot");
            QCOMPARE(dock->widget()->styleSheet(), sheet);
        }
        // Shown at once, since nobody is signed in.
        QVERIFY(docksShown());
        hostDouble::calls().clear();
        QVERIFY(controller_->initialize());
        QVERIFY(hostDouble::calls().isEmpty());
    }

    void shutdownCutsTheClientBeforeAbortingAndTakesTheDocksAway()
    {
        store().setValue("sessionToken", "tok");
        service_.fallback.status = ScriptedService::hold;
        QVERIFY(start());
        // Seven requests: six on the wire, one waiting in Qt for a connection.
        QTRY_COMPARE(service_.requests.size(), 6);
        // The panel outlives its dock here, so that a late write to it would show.
        QWidget *account = panel("tessivane.account");
        account->setParent(nullptr);
        QSignalSpy failed(&api(), &TessivaneApi::requestFailed);

        hostDouble::calls().clear();
        controller_->shutdown();
        QCOMPARE(failed.count(), 7);
        const QList<QLabel *> labels = account->findChildren<QLabel *>();
        QVERIFY(std::none_of(labels.begin(), labels.end(), [](QLabel *label) {
            return label->text().endsWith("Operation canceled");
        }));
        QStringList calls = hostDouble::calls();
        calls.sort();
        QCOMPARE(calls,
                 QStringList({"remove_dock tessivane.account", "remove_dock tessivane.channels",
                              "remove_dock tessivane.chat", "remove_dock tessivane.stream-health",
                              "remove_dock tessivane.stream-information"}));
        // Only the six-hourly release check outlives shutdown, until the object goes.
        QCOMPARE(activeTimers(*controller_), QList<int>({21600000}));
        delete account;

        // Stopped, nothing touches the widgets that went with the docks.
        hostDouble::calls().clear();
        controller_->setSignedInUi(true);
        controller_->shutdown();
        QVERIFY(hostDouble::calls().isEmpty());
    }

    void refusedAndDestroyedPanels()
    {
        QVERIFY(start());
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

    // The layout that OBS saved at exit, in its global configuration up to OBS 30 and in the
    // user's from OBS 31 on (the global one then holds an older layout), is applied once more.
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
        QVERIFY(start());
        QMainWindow *window = hostDouble::mainWindow();
        for (const QString &id : docks) {
            QDockWidget *dock = hostDouble::dock(id);
            QCOMPARE(dock->isVisibleTo(window), saved && id != "tessivane.chat");
            QCOMPARE(window->dockWidgetArea(dock),
                     saved ? Qt::LeftDockWidgetArea : Qt::RightDockWidgetArea);
            QVERIFY(!dock->isFloating());
        }
    }

    void failuresReachTheirStatusLines_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<bool>("streamInfo");
        QTest::addColumn<bool>("update");
        QTest::newRow("account only") << "Load chat" << false << false;
        QTest::newRow("stream, any case") << "Save STREAM information" << true << false;
        QTest::newRow("category, any case") << "Search kick CATEGORIES" << true << false;
        QTest::newRow("update check") << "Check for updates" << false << true;
        QTest::newRow("update check, in other case") << "Check for Updates" << false << false;
    }

    void failuresReachTheirStatusLines()
    {
        QFETCH(QString, operation);
        QFETCH(bool, streamInfo);
        QFETCH(bool, update);
        QVERIFY(start());
        QWidget *account = panel("tessivane.account");
        QPushButton *check = withText<QPushButton>(account, "Check for Updates");
        check->setEnabled(false);

        Q_EMIT api().requestFailed(operation, "Service down");
        const QString text = operation + ": Service down";
        QVERIFY(withText<QLabel>(account, text));
        QCOMPARE(bool(withText<QLabel>(panel("tessivane.stream-information"), text)), streamInfo);
        QCOMPARE(check->isEnabled(), update);
        QCOMPARE(bool(withText<QLabel>(account, "Update check failed. Try again later.")), update);
    }
};

QTEST_MAIN(TestController)
#include "test-controller.moc"
