// SPDX-License-Identifier: GPL-2.0-or-later
// The symbols OBS looks up in the module, and the deferred start of the controller.
#include "tessivane-controller.h"

#include <obs-frontend-api.h>
#include <obs-module.h>
#include <util/base.h>
#include <util/text-lookup.h>

#include <QTimer>

#include <memory>

namespace {
obs_module_t *obs_module_pointer = nullptr;
std::unique_ptr<TessivaneController> controller;
bool unloading = false;
bool initializationScheduled = false;

// OBS's frontend is not ready for docks when the module loads; start a moment after it says so.
constexpr int deferredStartMs = 250;

void frontendEvent(obs_frontend_event event, void *)
{
    if (event == OBS_FRONTEND_EVENT_FINISHED_LOADING) {
        if (initializationScheduled)
            return;
        initializationScheduled = true;
        QTimer::singleShot(deferredStartMs, Qt::PreciseTimer, []() {
            if (unloading || controller)
                return;
            controller.reset(new TessivaneController(nullptr));
            if (!controller->initialize()) {
                blog(LOG_ERROR, "[Tessivane] Native dock initialization failed");
                delete controller.release();
            }
        });
        return;
    }
    if (controller)
        controller->handleFrontendEvent(static_cast<int>(event));
}
} // namespace

extern "C" {

EXPORT lookup_t *obs_module_lookup = nullptr;

MODULE_EXPORT void obs_module_set_pointer(obs_module_t *module)
{
    obs_module_pointer = module;
}

MODULE_EXPORT uint32_t obs_module_ver(void)
{
    return LIBOBS_API_VER;
}

MODULE_EXPORT void obs_module_set_locale(const char *locale)
{
    if (obs_module_lookup)
        text_lookup_destroy(obs_module_lookup);
    obs_module_lookup = obs_module_load_locale(obs_module_pointer, "en-US", locale);
}

MODULE_EXPORT void obs_module_free_locale(void)
{
    text_lookup_destroy(obs_module_lookup);
    obs_module_lookup = nullptr;
}

MODULE_EXPORT bool obs_module_get_string(const char *key, const char **out)
{
    return text_lookup_getstr(obs_module_lookup, key, out);
}

MODULE_EXPORT const char *obs_module_description(void)
{
    return "Tessivane native account, channels, stream information, health, and chat docks";
}

MODULE_EXPORT bool obs_module_load(void)
{
    unloading = false;
    initializationScheduled = false;
    obs_frontend_add_event_callback(frontendEvent, nullptr);
    blog(LOG_INFO, "[Tessivane] Native plugin loaded; waiting for the frontend");
    return true;
}

MODULE_EXPORT void obs_module_unload(void)
{
    unloading = true;
    obs_frontend_remove_event_callback(frontendEvent, nullptr);
    if (controller) {
        controller->shutdown();
        delete controller.release();
    }
    initializationScheduled = false;
    blog(LOG_INFO, "[Tessivane] Native plugin unloaded");
}
}
