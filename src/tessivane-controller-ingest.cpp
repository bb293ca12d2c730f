// SPDX-License-Identifier: GPL-2.0-or-later
// OBS's streaming service set to the account's ingest, and the host's streaming events.
#include "tessivane-controller.h"

#include <QLabel>

#include <obs-frontend-api.h>

namespace {

QString trimmedText(const QJsonObject &record, const char *key)
{
    return record.value(QLatin1String(key)).toString().trimmed();
}

// Whether OBS's backup of the service that is replaced is overwritten too: OBS keeps the old
// service there when a new one is saved, and a second save puts the new one there as well.
enum class Backup { Kept, Overwritten };

// Makes a custom RTMP service with these settings OBS's streaming service and saves it, so that
// the saved copy never lags behind. The module keeps no reference. False if OBS made no service.
bool replaceStreamingService(const QString &server, const QString &key, Backup backup)
{
    obs_data_t *settings = obs_data_create();
    obs_data_set_string(settings, "server", server.toUtf8().constData());
    obs_data_set_string(settings, "key", key.toUtf8().constData());
    obs_data_set_bool(settings, "use_auth", false);
    obs_service_t *service = obs_service_create("rtmp_custom", "Tessivane", settings, nullptr);
    obs_data_release(settings);
    if (!service)
        return false;
    obs_frontend_set_streaming_service(service);
    obs_frontend_save_streaming_service();
    if (backup == Backup::Overwritten)
        obs_frontend_save_streaming_service();
    obs_service_release(service);
    return true;
}

} // namespace

void TessivaneController::configureObsIngest(const QJsonObject &ingest)
{
    // A reply that arrives after sign-out must not bring the key back.
    if (api_.sessionToken().isEmpty())
        return;
    QString server = trimmedText(ingest, "server");
    if (server.isEmpty())
        server = trimmedText(ingest, "ingestUrl");
    const QString key = trimmedText(ingest, "streamKey");
    // An incomplete record leaves OBS's service as it is; Start Streaming asks again.
    ingestConfigured_ =
        !server.isEmpty() && !key.isEmpty() && replaceStreamingService(server, key, Backup::Kept);
    if (ingestConfigured_ && accountStatusLabel_)
        accountStatusLabel_->setText(
            QStringLiteral("OBS is ready with this account's unique stream key."));
}

void TessivaneController::clearObsIngest()
{
    ingestConfigured_ = false;
    // Empty rather than the user's earlier service, and in the backup too: what matters is that
    // no trace of this account's key stays in OBS.
    replaceStreamingService(QString(), QString(), Backup::Overwritten);
}

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
