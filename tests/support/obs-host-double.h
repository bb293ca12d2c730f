// SPDX-License-Identifier: GPL-2.0-or-later
// A stand-in for the parts of libobs and obs-frontend-api that the plug-in calls. The system's
// objects link against obs-host-double.cpp instead of OBS; tests steer and read it here.
#pragma once

#include <QStringList>
#include <QVariantMap>

class QDockWidget;
class QMainWindow;

namespace hostDouble {

// Every host call in order, such as "add_dock tessivane.account" or "blog info <text>".
QStringList &calls();
// obs_frontend_add_dock_by_id refuses this id, as OBS does for an id it already has.
void refuseDock(const QString &id);
// A fresh host: main window and docks deleted, callbacks dropped, calls and refusals cleared.
void reset();
QMainWindow *mainWindow();
// Ids of the docks the host holds, sorted.
QStringList dockIds();
QDockWidget *dock(const QString &id);
// The streaming side of the host: what a test sets, and what the plug-in left in it.
struct Streaming {
    bool active = false;   // obs_frontend_streaming_active
    bool hasOutput = true; // obs_frontend_get_streaming_output gives an output
    quint64 totalBytes = 0;
    int totalFrames = 0;
    int droppedFrames = 0;
    bool refuseService = false; // obs_service_create gives null
    // The settings of the streaming service as last saved, with their values, and before that,
    // as OBS keeps them in its backup; the calls name only the settings, never a key.
    QVariantMap saved, backup;
};
Streaming &streaming();
// [BasicWindow] DockState in OBS 30's global configuration, or with `user` in OBS 31's.
QByteArray &dockState(bool user);
// Delivers an obs_frontend_event (an int, so that this header needs no OBS header) to every
// registered callback.
void sendEvent(int event);

} // namespace hostDouble
