// SPDX-License-Identifier: GPL-2.0-or-later
// A stand-in for libobs and obs-frontend-api: the C functions the plug-in calls are defined by
// obs-host-double.cpp, so the plug-in's objects link against it instead of OBS. Tests steer and
// inspect it through this namespace.
#pragma once

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

class QDockWidget;
class QMainWindow;

namespace hostDouble {

struct LogLine {
    int level;
    QString text;
};

// What a created service was given; the settings are copied at creation.
struct ServiceRecord {
    QString type;
    QString name;
    QMap<QString, QString> strings;
    QMap<QString, bool> bools;
};

// Back to the state of a fresh host: docks and main window deleted, callbacks, records and
// options cleared.
void reset();

// Every host call in order, as short texts ("add_dock tessivane.account"). Values of settings
// and log texts are left out, so no secret ends up here.
QStringList calls();
void clearCalls();
QList<LogLine> logLines();

QMainWindow *mainWindow();
// Refuses a later obs_frontend_add_dock_by_id for this id, as OBS does for an id it already has.
void refuseDock(const QString &id);
// Ids of the docks the host holds, in the order they were added.
QStringList dockIds();
QDockWidget *dock(const QString &id);

int eventCallbackCount();
// Delivers an obs_frontend_event to every registered callback. An int, so this header needs no
// OBS header: those must come after Qt's, whose SIMD headers clash with OBS's simde otherwise.
void sendEvent(int event);

void setStreamingActive(bool active);
// Lets streaming start and stop report STARTING/STARTED and STOPPING/STOPPED at once.
void setDeliverStreamingEvents(bool deliver);
void setStreamingOutput(bool present);
void setOutputCounters(quint64 totalBytes, int framesDropped, int totalFrames);
// References handed out by obs_frontend_get_streaming_output and given back by
// obs_output_release.
int outputsAcquired();
int outputsReleased();

int dataCreated();
int dataReleased();
void setServiceCreationFails(bool fails);
int servicesCreated();
int servicesReleased();
// An empty type means no such service.
ServiceRecord lastCreatedService();
ServiceRecord streamingService();
int streamingServiceSaves();

// Locale lookups loaded and not yet destroyed.
int liveLookups();

} // namespace hostDouble
