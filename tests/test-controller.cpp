// SPDX-License-Identifier: GPL-2.0-or-later
// The controller's start, stop and undo, dock hosting, and where failures are shown.
#include "controller-fixture.h"
#include "tessivane-controller.h"

#include <QDockWidget>
#include <QFrame>
#include <QMainWindow>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

using namespace fixture;

namespace {
const QStringList dockIds = {
    QStringLiteral("tessivane.account"), QStringLiteral("tessivane.channels"),
    QStringLiteral("tessivane.stream-information"), QStringLiteral("tessivane.stream-health"),
    QStringLiteral("tessivane.chat")};
const QStringList dockTitles = {
    QStringLiteral("Tessivane Account"), QStringLiteral("Tessivane Channels"),
    QStringLiteral("Tessivane Stream Information"), QStringLiteral("Tessivane Stream Health"),
    QStringLiteral("Tessivane Chat")};
} // namespace

class TestController : public QObject {
    Q_OBJECT

private:
    QTemporaryDir config_;
    ScriptedService *service_ = nullptr;

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("XDG_CONFIG_HOME", config_.path().toUtf8());
        ScriptedService::trustTestCa();
    }

    void init()
    {
        hostDouble::reset();
        store().clear();
        service_ = new ScriptedService(ScriptedService::Transport::Tls, this);
        QVERIFY(service_->listen(originPort()));
    }

    void cleanup()
    {
        delete service_;
        service_ = nullptr;
    }

    void initializeRegistersFiveStyledDocksInOrder()
    {
        TessivaneController controller;
        QVERIFY(controller.initialize());
        QCOMPARE(hostDouble::dockIds(), dockIds);
        QStringList expectedCalls;
        for (const QString &id : dockIds)
            expectedCalls << QStringLiteral("add_dock ") + id;
        QCOMPARE(hostDouble::calls().mid(0, 5), expectedCalls);

        const QString sheet = dockWidget("tessivane.account")->styleSheet();
        QVERIFY(sheet.contains(QLatin1String("QWidget#TessivaneRoot")));
        QVERIFY(sheet.contains(QLatin1String("width: 28px")));
        for (int i = 0; i < dockIds.size(); ++i) {
            QDockWidget *dock = hostDouble::dock(dockIds[i]);
            QCOMPARE(dock->windowTitle(), dockTitles[i]);
            QCOMPARE(dock->allowedAreas(), Qt::AllDockWidgetAreas);
            QCOMPARE(dock->features(), QDockWidget::DockWidgetClosable |
                                           QDockWidget::DockWidgetMovable |
                                           QDockWidget::DockWidgetFloatable);
            QVERIFY(!dock->isFloating());
            QCOMPARE(dock->widget()->objectName(), QStringLiteral("TessivaneRoot"));
            QCOMPARE(dock->widget()->styleSheet(), sheet);
            // Shown at once, since nobody is signed in yet.
            QVERIFY(dock->isVisibleTo(hostDouble::mainWindow()));
        }
        for (const char *id : {"tessivane.account", "tessivane.channels",
                               "tessivane.stream-information", "tessivane.stream-health"}) {
            const QList<QLabel *> headings =
                dockWidget(id)->findChildren<QLabel *>(QStringLiteral("TessivaneHeading"));
            QCOMPARE(headings.size(), 1);
        }
        QCOMPARE(withText<QLabel>(dockWidget("tessivane.account"), QStringLiteral("TESSIVANE"))
                     ->objectName(),
                 QStringLiteral("TessivaneBrand"));

        // A second call changes nothing.
        hostDouble::clearCalls();
        QVERIFY(controller.initialize());
        QVERIFY(hostDouble::calls().isEmpty());
    }

    void refusedThirdDockUndoesTheStart()
    {
        hostDouble::refuseDock(QStringLiteral("tessivane.stream-information"));
        TessivaneController controller;
        QVERIFY(!controller.initialize());

        const QStringList calls = hostDouble::calls();
        QCOMPARE(calls.mid(0, 3),
                 (QStringList{QStringLiteral("add_dock tessivane.account"),
                              QStringLiteral("add_dock tessivane.channels"),
                              QStringLiteral("add_dock tessivane.stream-information")}));
        QStringList removed = calls.mid(3);
        removed.sort();
        QCOMPARE(removed, (QStringList{QStringLiteral("remove_dock tessivane.account"),
                                       QStringLiteral("remove_dock tessivane.channels")}));
        QVERIFY(hostDouble::dockIds().isEmpty());
        QVERIFY(controller.findChildren<QTimer *>().isEmpty());
        // The refused panel is gone, and no later panel was ever built.
        QCOMPARE(hostDouble::mainWindow()
                     ->findChildren<QWidget *>(QStringLiteral("TessivaneRoot"))
                     .size(),
                 0);
        QTest::qWait(50);
        QVERIFY(service_->requests().isEmpty());

        // Nothing of the first attempt is left to undo.
        hostDouble::clearCalls();
        controller.shutdown();
        QVERIFY(hostDouble::calls().isEmpty());
    }

    void shutdownStopsTimersAndTakesTheDocksAway()
    {
        TessivaneController controller;
        QVERIFY(controller.initialize());
        const QList<QTimer *> timers = controller.findChildren<QTimer *>();
        QList<int> intervals;
        for (QTimer *timer : timers) {
            QVERIFY(timer->isActive());
            intervals << timer->interval();
        }
        std::sort(intervals.begin(), intervals.end());
        QVERIFY(intervals.contains(2000));
        QVERIFY(intervals.contains(10000));
        QVERIFY(intervals.contains(21600000));

        hostDouble::clearCalls();
        controller.shutdown();
        QStringList calls = hostDouble::calls();
        calls.sort();
        QStringList expected;
        for (const QString &id : dockIds)
            expected << QStringLiteral("remove_dock ") + id;
        expected.sort();
        QCOMPARE(calls, expected);
        // Only the six-hourly release check outlives shutdown, until the object goes.
        QList<int> left;
        for (QTimer *timer : controller.findChildren<QTimer *>())
            left << timer->interval();
        QVERIFY(!left.contains(2000));
        QVERIFY(!left.contains(10000));

        hostDouble::clearCalls();
        controller.shutdown();
        QVERIFY(hostDouble::calls().isEmpty());
    }

    void showDocksBringsBackClosedDocksAndSkipsDestroyedOnes()
    {
        TessivaneController controller;
        QVERIFY(controller.initialize());
        QDockWidget *health = hostDouble::dock(QStringLiteral("tessivane.stream-health"));
        health->close();
        QVERIFY(!health->isVisibleTo(hostDouble::mainWindow()));
        delete dockWidget("tessivane.chat");

        controller.showDocks();
        QVERIFY(health->isVisibleTo(hostDouble::mainWindow()));

        // The host is still asked to remove the dock whose panel died behind our back.
        hostDouble::clearCalls();
        controller.removeDocks();
        QVERIFY(hostDouble::calls().contains(QStringLiteral("remove_dock tessivane.chat")));
        hostDouble::clearCalls();
        controller.removeDocks();
        QVERIFY(hostDouble::calls().isEmpty());
    }

    void registerDockHandlesNullAndForeignParents()
    {
        TessivaneController controller;
        QVERIFY(!controller.registerDock("tessivane.x", "X", nullptr));
        QVERIFY(hostDouble::calls().isEmpty());

        // A refused widget is deleted at once.
        hostDouble::refuseDock(QStringLiteral("tessivane.y"));
        QPointer<QWidget> refused = new QWidget;
        QVERIFY(!controller.registerDock("tessivane.y", "Y", refused));
        QVERIFY(refused.isNull());

        // A panel without a parent after registration is still shown as a plain widget.
        auto *plain = new QWidget;
        QVERIFY(controller.registerDock("tessivane.z", "Z", plain));
        plain->setParent(nullptr);
        controller.showDocks();
        QVERIFY(plain->isVisible());
        controller.removeDocks();
        delete plain;
    }

    void failuresReachTheAccountStatusLine()
    {
        store().setValue(QStringLiteral("sessionToken"), QStringLiteral("stale"));
        service_->setReply("/api/me", ScriptedService::Reply::json(
                                          401, R"({"error":"  Sign in to continue.  "})"));
        service_->setReply("/api/stream-engine/ingest",
                           ScriptedService::Reply::json(503, R"({"message":"Ingest is busy."})"));
        TessivaneController controller;
        QVERIFY(controller.initialize());
        QLabel *status = dockWidget("tessivane.account")
                             ->findChild<QStackedWidget *>()
                             ->widget(0)
                             ->findChildren<QLabel *>()
                             .last();
        QVERIFY(QTest::qWaitFor([&]() { return service_->requests().size() >= 3; }));
        const QStringList expected = {QStringLiteral("Load account: Sign in to continue."),
                                      QStringLiteral("Configure OBS: Ingest is busy.")};
        QTRY_VERIFY(expected.contains(status->text()));

        // Neither label mentions a stream, so the stream information line stays empty.
        QWidget *info = dockWidget("tessivane.stream-information");
        const QList<QLabel *> muted =
            info->findChildren<QLabel *>(QStringLiteral("TessivaneMuted"));
        QCOMPARE(muted.last()->text(), QString());
        // An expired session is only text: the token stays stored and the sign-in page stays up.
        QCOMPARE(store().value(QStringLiteral("sessionToken")).toString(), QStringLiteral("stale"));
        QCOMPARE(dockWidget("tessivane.account")->findChild<QStackedWidget *>()->currentIndex(), 0);
    }
};

QTEST_MAIN(TestController)
#include "test-controller.moc"
