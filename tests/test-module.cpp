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

using namespace hostDouble;

namespace {

const QStringList dockOrder = {
    QStringLiteral("tessivane.account"), QStringLiteral("tessivane.channels"),
    QStringLiteral("tessivane.stream-information"), QStringLiteral("tessivane.stream-health"),
    QStringLiteral("tessivane.chat")};
const QString loadedLine =
    QStringLiteral("[Tessivane] Native plugin loaded; waiting for the frontend");
const QString unloadedLine = QStringLiteral("[Tessivane] Native plugin unloaded");

// Long enough for the deferred start to have fired had it been scheduled.
constexpr int pastDeferredStartMs = 750;

QStringList logTexts()
{
    QStringList texts;
    for (const LogLine &line : std::as_const(state().logLines))
        texts.append(line.text);
    return texts;
}

void loadAndFinishLoading()
{
    obs_module_load();
    sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
}

} // namespace

class ModuleTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

    void cleanup()
    {
        obs_module_unload();
        reset();
    }

    void loadWaitsForTheFrontendThenStartsOnce()
    {
        QVERIFY(obs_module_load());
        QCOMPARE(calls(), QStringList({"add_event_callback", "blog info"}));
        QCOMPARE(logTexts(), QStringList({loadedLine}));
        QTest::qWait(pastDeferredStartMs);
        QVERIFY(dockIds().isEmpty());

        // A repeat and a streaming event in the gap neither schedule nor reach anything.
        sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        sendEvent(OBS_FRONTEND_EVENT_STREAMING_STARTED);
        QVERIFY(dockIds().isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(dockIds(), dockOrder, 10000);

        sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        QTest::qWait(pastDeferredStartMs);
        QCOMPARE(calls().filter("add_dock ").size(), dockOrder.size());
        QCOMPARE(logTexts().size(), 1);
    }

    void unloadInsideTheDelayCreatesNothing()
    {
        loadAndFinishLoading();
        obs_module_unload();
        QCOMPARE(eventCallbackCount(), 0);
        QTest::qWait(pastDeferredStartMs);
        QVERIFY(calls().filter("add_dock ").isEmpty());
        QCOMPARE(logTexts().constLast(), unloadedLine);
    }

    void refusedDockFailsTheStartForGood()
    {
        refuseDock(QStringLiteral("tessivane.stream-information"));
        loadAndFinishLoading();
        QTRY_COMPARE_WITH_TIMEOUT(calls().constLast(), QStringLiteral("blog error"), 10000);
        QCOMPARE(logTexts().constLast(),
                 QStringLiteral("[Tessivane] Native dock initialization failed"));
        QVERIFY(dockIds().isEmpty());

        // No retry, neither by itself nor on a repeated event.
        clearCalls();
        sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        QTest::qWait(pastDeferredStartMs);
        QVERIFY(calls().isEmpty());

        // With no controller, unloading only drops the callback and says so.
        obs_module_unload();
        QCOMPARE(calls(), QStringList({"remove_event_callback", "blog info"}));
    }

    void unloadTakesEverythingBackAndALaterLoadStartsAfresh()
    {
        loadAndFinishLoading();
        QTRY_COMPARE_WITH_TIMEOUT(dockIds(), dockOrder, 10000);
        const QPointer<QWidget> panel = dock(QStringLiteral("tessivane.account"))->widget();

        clearCalls();
        obs_module_unload();
        // The callback goes first, so no event reaches a controller being torn down.
        QCOMPARE(calls().size(), 2 + dockOrder.size());
        QCOMPARE(calls().constFirst(), QStringLiteral("remove_event_callback"));
        QCOMPARE(calls().filter("remove_dock ").size(), dockOrder.size());
        QCOMPARE(calls().constLast(), QStringLiteral("blog info"));
        QCOMPARE(logTexts().constLast(), unloadedLine);
        QVERIFY(dockIds().isEmpty());
        QVERIFY(!panel);
        QCOMPARE(eventCallbackCount(), 0);

        loadAndFinishLoading();
        QTRY_COMPARE_WITH_TIMEOUT(dockIds(), dockOrder, 10000);
    }

    void localeLookupIsReplacedAndFreed()
    {
        int handle = 0;
        obs_module_set_pointer(reinterpret_cast<obs_module_t *>(&handle));
        QCOMPARE(obs_module_ver(), uint32_t(LIBOBS_API_VER));
        QCOMPARE(obs_module_description(), "Tessivane native account, channels, stream "
                                           "information, health, and chat docks");

        obs_module_set_locale("de-DE");
        QVERIFY(obs_module_lookup);
        obs_module_set_locale("fr-FR");
        const char *text = nullptr;
        QVERIFY(!obs_module_get_string("Title", &text));
        obs_module_free_locale();
        QVERIFY(!obs_module_lookup);
        QCOMPARE(calls(), QStringList({"load_locale en-US de-DE", "lookup_destroy 1",
                                       "load_locale en-US fr-FR", "lookup_getstr 2 Title",
                                       "lookup_destroy 2"}));
        QCOMPARE(state().liveLookups, 0);
    }
};

QTEST_MAIN(ModuleTest)
#include "test-module.moc"
