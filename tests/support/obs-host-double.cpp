// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs-host-double.h"

#include <QDockWidget>
#include <QMainWindow>
#include <QPointer>
#include <QSet>

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/base.h>
#include <util/text-lookup.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <vector>

struct obs_data {
    QMap<QString, QString> strings;
    QMap<QString, bool> bools;
};

struct obs_service {
    hostDouble::ServiceRecord record;
};

struct obs_output {
    quint64 totalBytes = 0;
    int framesDropped = 0;
    int totalFrames = 0;
};

struct text_lookup {
    int id;
};

namespace {

struct Host {
    QStringList calls;
    QList<hostDouble::LogLine> logLines;
    QPointer<QMainWindow> mainWindow;
    QList<QPointer<QDockWidget>> docks;
    QSet<QString> refusedDocks;
    QList<QPair<obs_frontend_event_cb, void *>> callbacks;
    bool streamingActive = false;
    bool deliverStreamingEvents = false;
    bool outputPresent = false;
    obs_output output;
    int outputsAcquired = 0;
    int outputsReleased = 0;
    int dataCreated = 0;
    int dataReleased = 0;
    bool serviceCreationFails = false;
    // Services stay allocated until reset: the frontend keeps using the one it was given.
    std::vector<std::unique_ptr<obs_service>> services;
    int servicesReleased = 0;
    obs_service *streamingService = nullptr;
    int streamingServiceSaves = 0;
    int lookupsLoaded = 0;
    int lookupsDestroyed = 0;
};

Host &host()
{
    static Host instance;
    return instance;
}

void record(const QString &call)
{
    host().calls.append(call);
}

QPointer<QDockWidget> *findDock(const QString &id)
{
    for (QPointer<QDockWidget> &dock : host().docks) {
        if (dock && dock->objectName() == id)
            return &dock;
    }
    return nullptr;
}

QString levelName(int level)
{
    switch (level) {
    case LOG_ERROR:
        return QStringLiteral("error");
    case LOG_WARNING:
        return QStringLiteral("warning");
    case LOG_INFO:
        return QStringLiteral("info");
    case LOG_DEBUG:
        return QStringLiteral("debug");
    }
    return QString::number(level);
}

} // namespace

namespace hostDouble {

void reset()
{
    Host &h = host();
    delete h.mainWindow.data();
    h = Host();
}

QStringList calls()
{
    return host().calls;
}

void clearCalls()
{
    host().calls.clear();
}

QList<LogLine> logLines()
{
    return host().logLines;
}

QMainWindow *mainWindow()
{
    if (!host().mainWindow)
        host().mainWindow = new QMainWindow;
    return host().mainWindow;
}

void refuseDock(const QString &id)
{
    host().refusedDocks.insert(id);
}

QStringList dockIds()
{
    QStringList ids;
    for (const QPointer<QDockWidget> &dock : std::as_const(host().docks)) {
        if (dock)
            ids.append(dock->objectName());
    }
    return ids;
}

QDockWidget *dock(const QString &id)
{
    QPointer<QDockWidget> *found = findDock(id);
    return found ? found->data() : nullptr;
}

int eventCallbackCount()
{
    return int(host().callbacks.size());
}

void sendEvent(int event)
{
    // A copy, since a callback may remove itself.
    const auto callbacks = host().callbacks;
    for (const auto &callback : callbacks)
        callback.first(obs_frontend_event(event), callback.second);
}

void setStreamingActive(bool active)
{
    host().streamingActive = active;
}

void setDeliverStreamingEvents(bool deliver)
{
    host().deliverStreamingEvents = deliver;
}

void setStreamingOutput(bool present)
{
    host().outputPresent = present;
}

void setOutputCounters(quint64 totalBytes, int framesDropped, int totalFrames)
{
    host().output.totalBytes = totalBytes;
    host().output.framesDropped = framesDropped;
    host().output.totalFrames = totalFrames;
}

int outputsAcquired()
{
    return host().outputsAcquired;
}

int outputsReleased()
{
    return host().outputsReleased;
}

int dataCreated()
{
    return host().dataCreated;
}

int dataReleased()
{
    return host().dataReleased;
}

void setServiceCreationFails(bool fails)
{
    host().serviceCreationFails = fails;
}

int servicesCreated()
{
    return int(host().services.size());
}

int servicesReleased()
{
    return host().servicesReleased;
}

ServiceRecord lastCreatedService()
{
    return host().services.empty() ? ServiceRecord() : host().services.back()->record;
}

ServiceRecord streamingService()
{
    return host().streamingService ? host().streamingService->record : ServiceRecord();
}

int streamingServiceSaves()
{
    return host().streamingServiceSaves;
}

int liveLookups()
{
    return host().lookupsLoaded - host().lookupsDestroyed;
}

} // namespace hostDouble

extern "C" {

void blog(int log_level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    va_list sizing;
    va_copy(sizing, args);
    const int length = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    QByteArray text(qMax(length, 0), '\0');
    std::vsnprintf(text.data(), size_t(text.size()) + 1, format, args);
    va_end(args);
    record(QStringLiteral("blog ") + levelName(log_level));
    host().logLines.append({log_level, QString::fromUtf8(text)});
}

lookup_t *obs_module_load_locale(obs_module_t *, const char *default_locale, const char *locale)
{
    Host &h = host();
    record(QStringLiteral("load_locale %1 %2")
               .arg(QString::fromUtf8(default_locale), QString::fromUtf8(locale)));
    return new text_lookup{++h.lookupsLoaded};
}

void text_lookup_destroy(lookup_t *lookup)
{
    if (!lookup) {
        record(QStringLiteral("lookup_destroy null"));
        return;
    }
    record(QStringLiteral("lookup_destroy %1").arg(lookup->id));
    host().lookupsDestroyed++;
    delete lookup;
}

bool text_lookup_getstr(lookup_t *lookup, const char *lookup_val, const char **)
{
    record(QStringLiteral("lookup_getstr %1 %2")
               .arg(lookup ? QString::number(lookup->id) : QStringLiteral("null"),
                    QString::fromUtf8(lookup_val)));
    return false;
}

void obs_frontend_add_event_callback(obs_frontend_event_cb callback, void *private_data)
{
    record(QStringLiteral("add_event_callback"));
    host().callbacks.append({callback, private_data});
}

void obs_frontend_remove_event_callback(obs_frontend_event_cb callback, void *private_data)
{
    record(QStringLiteral("remove_event_callback"));
    host().callbacks.removeOne(qMakePair(callback, private_data));
}

bool obs_frontend_add_dock_by_id(const char *id, const char *title, void *widget)
{
    const QString name = QString::fromUtf8(id);
    record(QStringLiteral("add_dock ") + name);
    if (host().refusedDocks.contains(name) || findDock(name))
        return false;
    // As OBS does: the host's own QDockWidget around the widget, added hidden and floating.
    auto *dock = new QDockWidget(hostDouble::mainWindow());
    dock->setObjectName(name);
    dock->setWindowTitle(QString::fromUtf8(title));
    dock->setWidget(static_cast<QWidget *>(widget));
    hostDouble::mainWindow()->addDockWidget(Qt::RightDockWidgetArea, dock);
    dock->setVisible(false);
    dock->setFloating(true);
    host().docks.append(dock);
    return true;
}

void obs_frontend_remove_dock(const char *id)
{
    const QString name = QString::fromUtf8(id);
    record(QStringLiteral("remove_dock ") + name);
    if (QPointer<QDockWidget> *found = findDock(name)) {
        const QPointer<QDockWidget> dock = *found;
        host().docks.removeOne(dock);
        delete dock.data();
    }
}

void *obs_frontend_get_main_window(void)
{
    record(QStringLiteral("get_main_window"));
    return hostDouble::mainWindow();
}

void obs_frontend_streaming_start(void)
{
    record(QStringLiteral("streaming_start"));
    if (host().streamingActive)
        return;
    host().streamingActive = true;
    if (host().deliverStreamingEvents) {
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_STREAMING_STARTING);
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_STREAMING_STARTED);
    }
}

void obs_frontend_streaming_stop(void)
{
    record(QStringLiteral("streaming_stop"));
    if (!host().streamingActive)
        return;
    host().streamingActive = false;
    if (host().deliverStreamingEvents) {
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_STREAMING_STOPPING);
        hostDouble::sendEvent(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
    }
}

bool obs_frontend_streaming_active(void)
{
    record(QStringLiteral("streaming_active"));
    return host().streamingActive;
}

obs_output_t *obs_frontend_get_streaming_output(void)
{
    record(QStringLiteral("get_streaming_output"));
    if (!host().outputPresent)
        return nullptr;
    host().outputsAcquired++;
    return &host().output;
}

uint64_t obs_output_get_total_bytes(const obs_output_t *output)
{
    record(QStringLiteral("output_total_bytes"));
    return output ? output->totalBytes : 0;
}

int obs_output_get_frames_dropped(const obs_output_t *output)
{
    record(QStringLiteral("output_frames_dropped"));
    return output ? output->framesDropped : 0;
}

int obs_output_get_total_frames(const obs_output_t *output)
{
    record(QStringLiteral("output_total_frames"));
    return output ? output->totalFrames : 0;
}

void obs_output_release(obs_output_t *output)
{
    record(QStringLiteral("output_release"));
    if (output)
        host().outputsReleased++;
}

obs_data_t *obs_data_create()
{
    record(QStringLiteral("data_create"));
    host().dataCreated++;
    return new obs_data;
}

void obs_data_set_string(obs_data_t *data, const char *name, const char *val)
{
    const QString key = QString::fromUtf8(name);
    record(QStringLiteral("data_set_string ") + key);
    data->strings.insert(key, QString::fromUtf8(val));
}

void obs_data_set_bool(obs_data_t *data, const char *name, bool val)
{
    const QString key = QString::fromUtf8(name);
    record(QStringLiteral("data_set_bool %1 %2")
               .arg(key, val ? QStringLiteral("true") : QStringLiteral("false")));
    data->bools.insert(key, val);
}

void obs_data_release(obs_data_t *data)
{
    record(QStringLiteral("data_release"));
    if (!data)
        return;
    host().dataReleased++;
    delete data;
}

obs_service_t *obs_service_create(const char *id, const char *name, obs_data_t *settings,
                                  obs_data_t *)
{
    record(
        QStringLiteral("service_create %1 %2").arg(QString::fromUtf8(id), QString::fromUtf8(name)));
    if (host().serviceCreationFails)
        return nullptr;
    auto service = std::make_unique<obs_service>();
    service->record.type = QString::fromUtf8(id);
    service->record.name = QString::fromUtf8(name);
    if (settings) {
        service->record.strings = settings->strings;
        service->record.bools = settings->bools;
    }
    host().services.push_back(std::move(service));
    return host().services.back().get();
}

void obs_service_release(obs_service_t *service)
{
    record(QStringLiteral("service_release"));
    if (service)
        host().servicesReleased++;
}

void obs_frontend_set_streaming_service(obs_service_t *service)
{
    record(QStringLiteral("set_streaming_service"));
    host().streamingService = service;
}

void obs_frontend_save_streaming_service(void)
{
    record(QStringLiteral("save_streaming_service"));
    host().streamingServiceSaves++;
}

} // extern "C"
