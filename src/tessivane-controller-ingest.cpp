// SPDX-License-Identifier: GPL-2.0-or-later
// OBS's streaming service set to the account's ingest, and the host's streaming events.
#include "tessivane-controller.h"

#include <obs-frontend-api.h>

void TessivaneController::configureObsIngest(const QJsonObject &ingest)
{
    Q_UNUSED(ingest)
}

void TessivaneController::clearObsIngest() {}

void TessivaneController::handleFrontendEvent(int event)
{
    const bool signedIn = !api_.sessionToken().isEmpty();
    switch (event) {
    case OBS_FRONTEND_EVENT_STREAMING_STARTING:
        if (signedIn)
            api_.fetchChannels();
        break;
    case OBS_FRONTEND_EVENT_STREAMING_STARTED:
    case OBS_FRONTEND_EVENT_STREAMING_STOPPED:
        refreshHealth();
        if (signedIn)
            api_.setStreamActive(event == OBS_FRONTEND_EVENT_STREAMING_STARTED);
        break;
    default:
        break;
    }
}
