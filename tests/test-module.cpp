// SPDX-License-Identifier: GPL-2.0-or-later
// The module's entry points driven as OBS drives them, against the host double.
#include "obs-host-double.h"

#include <QDockWidget>
#include <QPointer>
#include <QtTest>

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/text-lookup.h>

extern "C" {
void obs_module_set_pointer(obs_module_t *module);
extern lookup_t *obs_module_lookup;
}

using namespace hostDouble;

namespace {
// Sorted, as the host double lists them.
const QStringList allDocks = {"tessivane.account", "tessivane.channels", "tessivane.chat",
                              "tessivane.stream-health", "tessivane.stream-information"};
const QString loaded = "blog info [Tessivane] Native plugin loaded; waiting for the frontend";
const QString unloaded = "blog info [Tessivane] Native plugin unloaded";

void loadAndFinishLoading()
{
    obs_module_load();
    sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
}
} // namespace

class ModuleTest : public QObject {
    Q_OBJECT

    // Longer than the deferred start, so that a start scheduled before has run by then.
    static void pastDeferredStart() { QTest::qWait(300); }

private Q_SLOTS:
    void cleanup() { obs_module_unload(), reset(); }

    void loadWaitsForTheFrontendThenStartsOnce()
    {
        QVERIFY(obs_module_load());
        QCOMPARE(calls(), QStringList({"add_event_callback", loaded}));
        // Repeats and a streaming event in the gap neither schedule more nor reach anything.
        sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        sendEvent(OBS_FRONTEND_EVENT_STREAMING_STARTED);
        QCOMPARE(calls().size(), 2);
        QTRY_COMPARE(dockIds(), allDocks);
        sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        pastDeferredStart();
        QCOMPARE(calls().filter("add_dock ").size(), allDocks.size());
        // From now on the controller hears OBS's events: a started stream is sampled at once.
        calls().clear();
        sendEvent(OBS_FRONTEND_EVENT_STREAMING_STARTED);
        QVERIFY(calls().contains("streaming_active"));
    }

    void unloadInsideTheDelayCreatesNothing()
    {
        loadAndFinishLoading();
        obs_module_unload();
        pastDeferredStart();
        QCOMPARE(calls().mid(2), QStringList({"remove_event_callback", unloaded}));
    }

    void failedStartIsFinalUntilTheNextLoad()
    {
        refuseDock("tessivane.stream-information");
        loadAndFinishLoading();
        QTRY_COMPARE(calls().constLast(),
                     "blog error [Tessivane] Native dock initialization failed");
        QVERIFY(dockIds().isEmpty());
        calls().clear();
        sendEvent(OBS_FRONTEND_EVENT_FINISHED_LOADING);
        pastDeferredStart();
        QVERIFY2(calls().isEmpty(), qPrintable(calls().join(" | ")));
        // The failed controller is gone, so a new load starts afresh once OBS takes the docks.
        reset();
        loadAndFinishLoading();
        QTRY_COMPARE(dockIds(), allDocks);
    }

    void unloadTakesEverythingBack()
    {
        loadAndFinishLoading();
        QTRY_COMPARE(dockIds(), allDocks);
        const QPointer<QWidget> panel = dock(allDocks.at(0))->widget();
        calls().clear();
        obs_module_unload();
        // The callback goes first, so no event reaches a controller being torn down.
        QCOMPARE(calls().size(), 2 + allDocks.size());
        QCOMPARE(calls().constFirst(), "remove_event_callback");
        QCOMPARE(calls().filter("remove_dock ").size(), allDocks.size());
        QCOMPARE(calls().constLast(), unloaded);
        QVERIFY(dockIds().isEmpty() && !panel);
    }

    void localeLookupIsReplacedAndFreed()
    {
        int handle = 0;
        obs_module_set_pointer(reinterpret_cast<obs_module_t *>(&handle));
        obs_module_set_locale("de-DE");
        obs_module_set_locale("fr-FR");
        const char *text = nullptr;
        QVERIFY(!obs_module_get_string("Title", &text));
        obs_module_free_locale();
        QVERIFY(!obs_module_lookup);
        QCOMPARE(calls(),
                 QStringList({"load_locale en-US de-DE", "lookup_destroy",
                              "load_locale en-US fr-FR", "lookup_getstr Title", "lookup_destroy"}));
    }
};

QTEST_MAIN(ModuleTest)
#include "test-module.moc"
