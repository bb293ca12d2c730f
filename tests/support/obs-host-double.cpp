// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs-host-double.h"

#include <QDockWidget>
#include <QMainWindow>
#include <QPointer>

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/base.h>
#include <util/text-lookup.h>

#include <cstdarg>
#include <cstdio>
#include <list>

struct obs_data {
    QMap<QString, QString> strings;
    QMap<QString, bool> bools;
};

struct obs_service : hostDouble::ServiceRecord {};

struct obs_output {};

struct text_lookup {
    int id;
};

namespace {

struct Host {
    hostDouble::State state;
    QPointer<QMainWindow> window;
    // In the order they were added; a dock deleted behind the host's back drops out.
    QList<QPointer<QDockWidget>> docks;
    QList<QPair<obs_frontend_event_cb, void *>> callbacks;
    obs_output output;
    // Kept until reset: the frontend goes on using the service it was given.
    std::list<obs_service> services;
    int lookupsLoaded = 0;
};

Host &host()
{
    static Host instance;
    return instance;
}

void record(const QString &call)
{
    host().state.calls.append(call);
}

QString text(const char *s)
{
    return QString::fromUtf8(s);
}

// Starting and stopping as OBS reports them, when the test asks for the events.
void switchStreaming(const char *call, bool active, obs_frontend_event first,
                     obs_frontend_event then)
{
    record(text(call));
    hostDouble::State &state = host().state;
    if (state.streamingActive == active)
        return;
    state.streamingActive = active;
    if (state.deliverStreamingEvents) {
        hostDouble::sendEvent(first);
        hostDouble::sendEvent(then);
    }
}

} // namespace

namespace hostDouble {

State &state()
{
    return host().state;
}

void reset()
{
    delete host().window.data();
    host() = Host();
}

QMainWindow *mainWindow()
{
    if (!host().window)
        host().window = new QMainWindow;
    return host().window;
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
    for (const QPointer<QDockWidget> &dock : std::as_const(host().docks)) {
        if (dock && dock->objectName() == id)
            return dock;
    }
    return nullptr;
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

} // namespace hostDouble

extern "C" {

void blog(int log_level, const char *format, ...)
{
    // OBS formats into a fixed buffer as well.
    char buffer[8192];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    const char *level = log_level == LOG_ERROR     ? "error"
                        : log_level == LOG_WARNING ? "warning"
                        : log_level == LOG_INFO    ? "info"
                                                   : "debug";
    record(QStringLiteral("blog ") + text(level));
    host().state.logLines.append({log_level, text(buffer)});
}

lookup_t *obs_module_load_locale(obs_module_t *, const char *default_locale, const char *locale)
{
    record(QStringLiteral("load_locale %1 %2").arg(text(default_locale), text(locale)));
    host().state.liveLookups++;
    return new text_lookup{++host().lookupsLoaded};
}

void text_lookup_destroy(lookup_t *lookup)
{
    record(QStringLiteral("lookup_destroy ") +
           (lookup ? QString::number(lookup->id) : QStringLiteral("null")));
    if (lookup)
        host().state.liveLookups--;
    delete lookup;
}

bool text_lookup_getstr(lookup_t *lookup, const char *lookup_val, const char **)
{
    record(
        QStringLiteral("lookup_getstr %1 %2")
            .arg(lookup ? QString::number(lookup->id) : QStringLiteral("null"), text(lookup_val)));
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
    record(QStringLiteral("add_dock ") + text(id));
    if (host().state.refusedDocks.contains(text(id)) || hostDouble::dock(text(id)))
        return false;
    // As OBS does: its own QDockWidget around the widget, added hidden and floating.
    auto *dock = new QDockWidget(hostDouble::mainWindow());
    dock->setObjectName(text(id));
    dock->setWindowTitle(text(title));
    dock->setWidget(static_cast<QWidget *>(widget));
    hostDouble::mainWindow()->addDockWidget(Qt::RightDockWidgetArea, dock);
    dock->setVisible(false);
    dock->setFloating(true);
    host().docks.append(dock);
    return true;
}

void obs_frontend_remove_dock(const char *id)
{
    record(QStringLiteral("remove_dock ") + text(id));
    delete hostDouble::dock(text(id));
}

void *obs_frontend_get_main_window(void)
{
    record(QStringLiteral("get_main_window"));
    return hostDouble::mainWindow();
}

void obs_frontend_streaming_start(void)
{
    switchStreaming("streaming_start", true, OBS_FRONTEND_EVENT_STREAMING_STARTING,
                    OBS_FRONTEND_EVENT_STREAMING_STARTED);
}

void obs_frontend_streaming_stop(void)
{
    switchStreaming("streaming_stop", false, OBS_FRONTEND_EVENT_STREAMING_STOPPING,
                    OBS_FRONTEND_EVENT_STREAMING_STOPPED);
}

bool obs_frontend_streaming_active(void)
{
    record(QStringLiteral("streaming_active"));
    return host().state.streamingActive;
}

obs_output_t *obs_frontend_get_streaming_output(void)
{
    record(QStringLiteral("get_streaming_output"));
    if (!host().state.outputPresent)
        return nullptr;
    host().state.outputsAcquired++;
    return &host().output;
}

// Like OBS, the output getters and release take null.
uint64_t obs_output_get_total_bytes(const obs_output_t *output)
{
    record(QStringLiteral("output_total_bytes"));
    return output ? host().state.totalBytes : 0;
}

int obs_output_get_frames_dropped(const obs_output_t *output)
{
    record(QStringLiteral("output_frames_dropped"));
    return output ? host().state.framesDropped : 0;
}

int obs_output_get_total_frames(const obs_output_t *output)
{
    record(QStringLiteral("output_total_frames"));
    return output ? host().state.totalFrames : 0;
}

void obs_output_release(obs_output_t *output)
{
    record(QStringLiteral("output_release"));
    if (output)
        host().state.outputsReleased++;
}

obs_data_t *obs_data_create()
{
    record(QStringLiteral("data_create"));
    host().state.dataCreated++;
    return new obs_data;
}

void obs_data_set_string(obs_data_t *data, const char *name, const char *val)
{
    record(QStringLiteral("data_set_string ") + text(name));
    data->strings.insert(text(name), text(val));
}

void obs_data_set_bool(obs_data_t *data, const char *name, bool val)
{
    record(QStringLiteral("data_set_bool %1 %2").arg(text(name), val ? "true" : "false"));
    data->bools.insert(text(name), val);
}

void obs_data_release(obs_data_t *data)
{
    record(QStringLiteral("data_release"));
    if (data)
        host().state.dataReleased++;
    delete data;
}

obs_service_t *obs_service_create(const char *id, const char *name, obs_data_t *settings,
                                  obs_data_t *)
{
    record(QStringLiteral("service_create %1 %2").arg(text(id), text(name)));
    if (host().state.serviceCreationFails)
        return nullptr;
    hostDouble::ServiceRecord service{text(id), text(name), {}, {}};
    if (settings) {
        service.strings = settings->strings;
        service.bools = settings->bools;
    }
    host().state.createdServices.append(service);
    return &host().services.emplace_back(obs_service{service});
}

void obs_service_release(obs_service_t *service)
{
    record(QStringLiteral("service_release"));
    if (service)
        host().state.servicesReleased++;
}

void obs_frontend_set_streaming_service(obs_service_t *service)
{
    record(QStringLiteral("set_streaming_service"));
    host().state.streamingService = service ? *service : hostDouble::ServiceRecord();
}

void obs_frontend_save_streaming_service(void)
{
    record(QStringLiteral("save_streaming_service"));
    host().state.streamingServiceSaves++;
}

} // extern "C"
