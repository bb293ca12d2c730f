// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs-host-double.h"

#include <QDockWidget>
#include <QMainWindow>
#include <QPointer>

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/base.h>
#include <util/config-file.h>
#include <util/text-lookup.h>

#include <cstdarg>
#include <cstdio>
#include <utility>

struct text_lookup {};
struct obs_data {
    QVariantMap values;
};
struct obs_service {
    QVariantMap settings;
};
struct obs_output {};
struct config_data {
    QByteArray dockState;
};

namespace {

struct Host {
    QStringList calls;
    QStringList refused;
    QPointer<QMainWindow> window;
    QList<QPair<obs_frontend_event_cb, void *>> callbacks;
    hostDouble::Streaming streaming;
    QVariantMap current; // the streaming service's settings, saved or not
    obs_output output;
    config_data global;
    config_data user;
};

Host host;
} // namespace

namespace hostDouble {

QStringList &calls()
{
    return host.calls;
}

void refuseDock(const QString &id)
{
    host.refused.append(id);
}

void reset()
{
    delete host.window.data();
    host = Host();
}

QMainWindow *mainWindow()
{
    if (!host.window)
        host.window = new QMainWindow;
    return host.window;
}

QStringList dockIds()
{
    QStringList ids;
    for (const QDockWidget *dock : mainWindow()->findChildren<QDockWidget *>())
        ids.append(dock->objectName());
    ids.sort();
    return ids;
}

QDockWidget *dock(const QString &id)
{
    return mainWindow()->findChild<QDockWidget *>(id);
}

Streaming &streaming()
{
    return host.streaming;
}

QByteArray &dockState(bool user)
{
    return (user ? host.user : host.global).dockState;
}

void sendEvent(int event)
{
    // A copy, since a callback may remove itself.
    const auto callbacks = host.callbacks;
    for (const auto &callback : callbacks)
        callback.first(obs_frontend_event(event), callback.second);
}

} // namespace hostDouble

extern "C" {

void blog(int log_level, const char *format, ...)
{
    char buffer[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    const char *level = log_level == LOG_ERROR ? "error" : log_level == LOG_INFO ? "info" : "other";
    host.calls << QString("blog ") + level + ' ' + QString::fromUtf8(buffer);
}

bool obs_frontend_add_dock_by_id(const char *id, const char *title, void *widget)
{
    const QString name = QString::fromUtf8(id);
    host.calls.append(QStringLiteral("add_dock ") + name);
    if (host.refused.contains(name) || hostDouble::dock(name))
        return false;
    // As OBS does: a QDockWidget of its own around the widget, added hidden and floating.
    auto *dock = new QDockWidget(QString::fromUtf8(title), hostDouble::mainWindow());
    dock->setObjectName(name);
    dock->setWidget(static_cast<QWidget *>(widget));
    hostDouble::mainWindow()->addDockWidget(Qt::RightDockWidgetArea, dock);
    dock->setVisible(false);
    dock->setFloating(true);
    return true;
}

// OBS 31's: the plug-in finds it only in a test executable that exports it.
Q_DECL_EXPORT config_t *obs_frontend_get_user_config(void);

// Each host function records its call, then does what the host would and answers from the knobs.
#define HOST_CALL(type, function, params, call, answer)                                            \
    type function params                                                                           \
    {                                                                                              \
        host.calls.append(call);                                                                   \
        return answer;                                                                             \
    }
using Q = QString;
HOST_CALL(lookup_t *, obs_module_load_locale,
          (obs_module_t *, const char *default_locale, const char *locale),
          Q("load_locale %1 %2").arg(default_locale, locale), new text_lookup)
HOST_CALL(void, text_lookup_destroy, (lookup_t * lookup),
          lookup ? "lookup_destroy" : "lookup_destroy null", delete lookup)
HOST_CALL(bool, text_lookup_getstr, (lookup_t *, const char *lookup_val, const char **),
          "lookup_getstr " + Q(lookup_val), false)
HOST_CALL(void, obs_frontend_add_event_callback, (obs_frontend_event_cb callback, void *data),
          "add_event_callback", host.callbacks.append({callback, data}))
HOST_CALL(void, obs_frontend_remove_event_callback, (obs_frontend_event_cb callback, void *data),
          "remove_event_callback", void(host.callbacks.removeOne(qMakePair(callback, data))))
HOST_CALL(void *, obs_frontend_get_main_window, (void), "get_main_window", hostDouble::mainWindow())
HOST_CALL(void, obs_frontend_remove_dock, (const char *id), "remove_dock " + Q(id),
          delete hostDouble::dock(id))
HOST_CALL(obs_data_t *, obs_data_create, (void), "data_create", new obs_data)
HOST_CALL(void, obs_data_set_string, (obs_data_t * data, const char *name, const char *val),
          "data_set_string " + Q(name), void(data->values[name] = Q(val)))
HOST_CALL(void, obs_data_set_bool, (obs_data_t * data, const char *name, bool val),
          Q("data_set_bool %1 %2").arg(name, val ? "true" : "false"),
          void(data->values[name] = val))
HOST_CALL(obs_service_t *, obs_service_create,
          (const char *id, const char *name, obs_data_t *settings, obs_data_t *hotkey_data),
          Q("service_create %1 %2%3").arg(id, name, hotkey_data ? " hotkeys" : ""),
          host.streaming.refuseService ? nullptr : new obs_service{settings->values})
HOST_CALL(void, obs_frontend_set_streaming_service, (obs_service_t * service),
          "set_streaming_service", void(host.current = service->settings))
HOST_CALL(const char *, config_get_string,
          (config_t * config, const char *section, const char *name),
          Q("config_get_string %1 %2").arg(section, name),
          !qstrcmp(section, "BasicWindow") && !qstrcmp(name, "DockState") &&
                  !config->dockState.isEmpty()
              ? config->dockState.constData()
              : nullptr)
HOST_CALL(void, obs_data_release, (obs_data_t * data), "data_release", delete data)
HOST_CALL(void, obs_service_release, (obs_service_t * service), "service_release", delete service)
HOST_CALL(void, obs_frontend_save_streaming_service, (void), "save_streaming_service",
          void(host.streaming.backup = std::exchange(host.streaming.saved, host.current)))
HOST_CALL(bool, obs_frontend_streaming_active, (void), "streaming_active", host.streaming.active)
HOST_CALL(void, obs_frontend_streaming_start, (void), "streaming_start", void())
HOST_CALL(void, obs_frontend_streaming_stop, (void), "streaming_stop", void())
HOST_CALL(obs_output_t *, obs_frontend_get_streaming_output, (void), "get_streaming_output",
          host.streaming.hasOutput ? &host.output : nullptr)
HOST_CALL(uint64_t, obs_output_get_total_bytes, (const obs_output_t *), "output_get_total_bytes",
          host.streaming.totalBytes)
HOST_CALL(int, obs_output_get_total_frames, (const obs_output_t *), "output_get_total_frames",
          host.streaming.totalFrames)
HOST_CALL(int, obs_output_get_frames_dropped, (const obs_output_t *), "output_get_frames_dropped",
          host.streaming.droppedFrames)
HOST_CALL(config_t *, obs_frontend_get_global_config, (void), "get_global_config", &host.global)
HOST_CALL(config_t *, obs_frontend_get_user_config, (void), "get_user_config", &host.user)
HOST_CALL(void, obs_output_release, (obs_output_t *), "output_release", void())

} // extern "C"
