// SPDX-License-Identifier: GPL-2.0-or-later
// A stand-in for the parts of libobs and obs-frontend-api that the plug-in calls. The system's
// objects link against obs-host-double.cpp instead of OBS; tests steer and read it here.
#pragma once

#include <QStringList>

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
// Delivers an obs_frontend_event (an int, so that this header needs no OBS header) to every
// registered callback.
void sendEvent(int event);

} // namespace hostDouble
