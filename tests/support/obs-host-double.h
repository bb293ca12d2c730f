// SPDX-License-Identifier: GPL-2.0-or-later
// A stand-in for libobs and obs-frontend-api: obs-host-double.cpp defines the C functions the
// plug-in calls, so its objects link against it instead of OBS. Tests steer and read it here.
#pragma once

#include <QList>
#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>

class QDockWidget;
class QMainWindow;

namespace hostDouble {

struct LogLine {
    int level;
    QString text;
};

// What a service was created with; the settings are copied at creation.
struct ServiceRecord {
    QString type;
    QString name;
    QMap<QString, QString> strings;
    QMap<QString, bool> bools;
};

// Knobs the tests set and records they read; reset() restores these defaults.
struct State {
    // Every host call in order ("add_dock tessivane.account"). Setting values and log texts stay
    // out, so no secret lands here.
    QStringList calls;
    QList<LogLine> logLines;
    // obs_frontend_add_dock_by_id refuses these ids, as OBS does for an id it already has.
    QSet<QString> refusedDocks;
    bool streamingActive = false;
    // Streaming start and stop report STARTING/STARTED and STOPPING/STOPPED at once.
    bool deliverStreamingEvents = false;
    bool outputPresent = false;
    quint64 totalBytes = 0;
    int framesDropped = 0;
    int totalFrames = 0;
    // By obs_frontend_get_streaming_output and obs_output_release.
    int outputsAcquired = 0;
    int outputsReleased = 0;
    int dataCreated = 0;
    int dataReleased = 0;
    bool serviceCreationFails = false;
    QList<ServiceRecord> createdServices;
    int servicesReleased = 0;
    // Empty type while none was set.
    ServiceRecord streamingService;
    int streamingServiceSaves = 0;
    // Locale lookups loaded and not yet destroyed.
    int liveLookups = 0;
};

State &state();
// A fresh host: main window and docks deleted, callbacks dropped, state back to defaults.
void reset();
QMainWindow *mainWindow();
// Ids of the docks the host holds, in the order they were added.
QStringList dockIds();
QDockWidget *dock(const QString &id);
int eventCallbackCount();
// Delivers an obs_frontend_event to every registered callback. An int, so this header needs no
// OBS header: those must come after Qt's, whose SIMD headers clash with OBS's simde otherwise.
void sendEvent(int event);

inline QStringList calls()
{
    return state().calls;
}
inline void clearCalls()
{
    state().calls.clear();
}
inline void refuseDock(const QString &id)
{
    state().refusedDocks.insert(id);
}

} // namespace hostDouble
