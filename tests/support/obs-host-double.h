// SPDX-License-Identifier: GPL-2.0-or-later
// A stand-in for the libobs and obs-frontend-api calls of the plug-in, which tests steer and read.
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
    int totalFrames = 0, droppedFrames = 0;
    bool refuseService = false; // obs_service_create gives null
    // The streaming service's settings as last saved, and before that, in OBS's backup.
    QVariantMap saved, backup;
};
Streaming &streaming();
// [BasicWindow] DockState in OBS 30's global configuration, or with `user` in OBS 31's.
QByteArray &dockState(bool user);
// Delivers an obs_frontend_event (an int: this header needs no OBS header) to every callback.
void sendEvent(int event);

} // namespace hostDouble
