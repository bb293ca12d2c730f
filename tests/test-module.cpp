// SPDX-License-Identifier: GPL-2.0-or-later
// The module's entry points driven as OBS drives them, against the host double.
#include "obs-host-double.h"

#include <QDockWidget>
#include <QPointer>
#include <QStandardPaths>
#include <QtTest>

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/base.h>
#include <util/text-lookup.h>

extern "C" {
void obs_module_set_pointer(obs_module_t *module);
uint32_t obs_module_ver(void);
extern lookup_t *obs_module_lookup;
}

namespace {

const QStringList dockOrder = {
    QStringLiteral("tessivane.account"),
    QStringLiteral("tessivane.channels"),
    QStringLiteral("tessivane.stream-information"),
    QStringLiteral("tessivane.stream-health"),
    QStringLiteral("tessivane.chat"),
};

const QString loadedLine =
    QStringLiteral("[Tessivane] Native plugin loaded; waiting for the frontend");
const QString unloadedLine = QStringLiteral("[Tessivane] Native plugin unloaded");
const QString failedLine = QStringLiteral("[Tessivane] Native dock initialization failed");

// Long enough for the deferred start to have fired had it been scheduled.
constexpr int pastDeferredStartMs = 750;

QStringList callsStartingWith(const QString &prefix)
{
    return hostDouble::calls().filter(QRegularExpression(QLatin1Char('^') + prefix));
}

bool logged(int level, const QString &text)
{
    for (const hostDouble::LogLine &line : hostDouble::logLines()) {
        if (line.level == level && line.text == text)
            return true;
    }
    return false;
}

} // namespace

class ModuleTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

    void cleanup()
    {
        obs_module_unload();
        hostDouble::reset();
    }

    void loadRegistersTheCallbackAndWaitsForTheFrontend()
    {
        QVERIFY(obs_module_load());
        QCOMPARE(hostDouble::calls(),
                 QStringList({QStringLiteral("add_event_callback"), QStringLiteral("blog info")}));
        QCOMPARE(hostDouble::logLines().size(), 1);
        QVERIFY(logged(LOG_INFO, loadedLine));
        QCOMPARE(hostDouble::eventCallbackCount(), 1);

        // Nothing starts before the frontend says it has finished loading.
        QTest::qWait(pastDeferredStartMs);
        QVERIFY(hostDouble::dockIds().isEmpty());
    }

    void finishedLoadingStartsTheControllerOnceAfterADelay()
    {
        obs_module_load();
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        // A repeat and a streaming event in the gap: neither schedules nor reaches anything.
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_STREAMING_STARTED);
        QVERIFY(hostDouble::dockIds().isEmpty());

        QTRY_COMPARE_WITH_TIMEOUT(hostDouble::dockIds(), dockOrder, 10000);
        QCOMPARE(hostDouble::dock(QStringLiteral("tessivane.chat"))->windowTitle(),
                 QStringLiteral("Tessivane Chat"));

        hostDouble::sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        QTest::qWait(pastDeferredStartMs);
        QCOMPARE(callsStartingWith(QStringLiteral("add_dock ")).size(), dockOrder.size());
        QCOMPARE(hostDouble::dockIds(), dockOrder);
        QCOMPARE(hostDouble::logLines().size(), 1);
    }

    void unloadInsideTheDelayCreatesNothing()
    {
        obs_module_load();
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        obs_module_unload();
        QCOMPARE(hostDouble::eventCallbackCount(), 0);

        QTest::qWait(pastDeferredStartMs);
        QVERIFY(callsStartingWith(QStringLiteral("add_dock ")).isEmpty());
        QVERIFY(hostDouble::dockIds().isEmpty());
        QVERIFY(logged(LOG_INFO, unloadedLine));
    }

    void refusedDockFailsTheStartForGood()
    {
        hostDouble::refuseDock(QStringLiteral("tessivane.stream-information"));
        obs_module_load();
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        QTRY_VERIFY_WITH_TIMEOUT(logged(LOG_ERROR, failedLine), 10000);

        // The docks registered before the refusal are taken back, the later ones never built.
        QVERIFY(hostDouble::dockIds().isEmpty());
        QCOMPARE(callsStartingWith(QStringLiteral("add_dock ")),
                 QStringList({QStringLiteral("add_dock tessivane.account"),
                              QStringLiteral("add_dock tessivane.channels"),
                              QStringLiteral("add_dock tessivane.stream-information")}));
        QStringList removed = callsStartingWith(QStringLiteral("remove_dock "));
        removed.sort();
        QCOMPARE(removed, QStringList({QStringLiteral("remove_dock tessivane.account"),
                                       QStringLiteral("remove_dock tessivane.channels")}));
        QCOMPARE(hostDouble::calls().constLast(), QStringLiteral("blog error"));

        // No retry, neither by itself nor on a repeated event.
        hostDouble::clearCalls();
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        QTest::qWait(pastDeferredStartMs);
        QVERIFY(hostDouble::calls().isEmpty());

        // With no controller, unloading only drops the callback and says so.
        obs_module_unload();
        QCOMPARE(hostDouble::calls(), QStringList({QStringLiteral("remove_event_callback"),
                                                   QStringLiteral("blog info")}));
    }

    void unloadTakesEverythingBackAndALaterLoadStartsAfresh()
    {
        obs_module_load();
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        QTRY_COMPARE_WITH_TIMEOUT(hostDouble::dockIds(), dockOrder, 10000);
        const QPointer<QWidget> panel =
            hostDouble::dock(QStringLiteral("tessivane.account"))->widget();
        QVERIFY(panel);

        hostDouble::clearCalls();
        obs_module_unload();
        const QStringList calls = hostDouble::calls();
        QCOMPARE(calls.size(), 2 + dockOrder.size());
        QCOMPARE(calls.constFirst(), QStringLiteral("remove_event_callback"));
        QStringList removed = calls.mid(1, dockOrder.size());
        removed.sort();
        QStringList expected;
        for (const QString &id : dockOrder)
            expected.append(QStringLiteral("remove_dock ") + id);
        expected.sort();
        QCOMPARE(removed, expected);
        QCOMPARE(calls.constLast(), QStringLiteral("blog info"));
        QCOMPARE(hostDouble::logLines().constLast().text, unloadedLine);
        QCOMPARE(hostDouble::logLines().constLast().level, int(LOG_INFO));
        QVERIFY(hostDouble::dockIds().isEmpty());
        QVERIFY(!panel);
        QCOMPARE(hostDouble::eventCallbackCount(), 0);

        // Unloading forgets the earlier start, so a new load starts once more.
        obs_module_load();
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        QTRY_COMPARE_WITH_TIMEOUT(hostDouble::dockIds(), dockOrder, 10000);
    }

    void localeLookupIsReplacedAndFreed()
    {
        int handle = 0;
        obs_module_set_pointer(reinterpret_cast<obs_module_t *>(&handle));
        QCOMPARE(obs_module_ver(), uint32_t(LIBOBS_API_VER));
        QCOMPARE(QString::fromUtf8(obs_module_description()),
                 QStringLiteral("Tessivane native account, channels, stream information, "
                                "health, and chat docks"));

        obs_module_set_locale("de-DE");
        QVERIFY(obs_module_lookup);
        obs_module_set_locale("fr-FR");
        const char *text = nullptr;
        QVERIFY(!obs_module_get_string("Title", &text));
        obs_module_free_locale();
        QVERIFY(!obs_module_lookup);
        QCOMPARE(hostDouble::calls(), QStringList({
                                          QStringLiteral("load_locale en-US de-DE"),
                                          QStringLiteral("lookup_destroy 1"),
                                          QStringLiteral("load_locale en-US fr-FR"),
                                          QStringLiteral("lookup_getstr 2 Title"),
                                          QStringLiteral("lookup_destroy 2"),
                                      }));
        QCOMPARE(hostDouble::liveLookups(), 0);
    }
};

QTEST_MAIN(ModuleTest)
#include "test-module.moc"
