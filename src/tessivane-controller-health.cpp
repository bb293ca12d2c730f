// SPDX-License-Identifier: GPL-2.0-or-later
// The Stream Health dock: OBS's streaming output sampled every two seconds, the platforms that
// are live, and the one button that starts and stops the stream.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QFormLayout>
#include <QFrame>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include <obs-frontend-api.h>

namespace {

// OBS counts frames in an int; a negative count from a broken output reads as none.
quint64 frameCount(int frames)
{
    return frames > 0 ? quint64(frames) : 0;
}

QString verdict(bool streaming, double dropPercent)
{
    if (!streaming)
        return QStringLiteral("Ready");
    if (dropPercent < 0.5)
        return QStringLiteral("Excellent");
    if (dropPercent < 2.0)
        return QStringLiteral("Good");
    return QStringLiteral("Needs attention");
}

} // namespace

QWidget *TessivaneController::buildHealthDock()
{
    QWidget *root = makeRoot();
    QVBoxLayout *layout = scrollingRootLayout(root, 12, 8);
    layout->addWidget(heading(QStringLiteral("Stream Health"), root));

    QFrame *panel = makePanel(root);
    auto *form = new QFormLayout(panel);
    const auto addRow = [&](const char *label, const char *text) {
        QLabel *value = makeValueLabel(QString::fromLatin1(text), panel);
        form->addRow(QString::fromLatin1(label), value);
        return value;
    };
    streamStateLabel_ = addRow("Connection Health", "Ready");
    uploadLabel_ = addRow("Upload", "0 Mbps");
    droppedFramesLabel_ = addRow("Dropped Frames", "0");
    optimizationLabel_ = addRow("Optimization", "Automatic routing (source quality)");
    platformsLabel_ = addRow("Platforms", "0 selected");
    layout->addWidget(panel);

    startStopButton_ = new QPushButton(QStringLiteral("Start Streaming"), root);
    layout->addWidget(startStopButton_);
    layout->addStretch(1);

    connect(startStopButton_, &QPushButton::clicked, this, [this]() {
        if (obs_frontend_streaming_active()) {
            obs_frontend_streaming_stop();
            return;
        }
        if (ingestConfigured_) {
            obs_frontend_streaming_start();
            return;
        }
        // No start is kept pending: the user presses again once the ingest has arrived.
        const QString preparing =
            QStringLiteral("Preparing this account's unique stream key. Try again in a moment.");
        if (accountStatusLabel_)
            accountStatusLabel_->setText(preparing);
        // That line stands on the sign-in page, out of sight while signed in; the streamer still
        // hears it, and as a refusal when there is no account to ask with.
        const bool signedIn = !api_.sessionToken().isEmpty();
        announce(startStopButton_, preparing, !signedIn);
        if (signedIn)
            api_.fetchIngest();
    });
    // The Account dock is built first, and its update button is wired here.
    connect(checkUpdatesButton_, &QPushButton::clicked, this, [this]() { checkForUpdates(true); });
    return root;
}

void TessivaneController::refreshHealth()
{
    const bool streaming = obs_frontend_streaming_active();
    if (startStopButton_)
        startStopButton_->setText(streaming ? QStringLiteral("Stop Streaming")
                                            : QStringLiteral("Start Streaming"));

    quint64 totalBytes = 0;
    quint64 totalFrames = 0;
    quint64 droppedFrames = 0;
    if (obs_frontend_get_main_window() && streaming) {
        if (obs_output_t *output = obs_frontend_get_streaming_output()) {
            totalBytes = obs_output_get_total_bytes(output);
            totalFrames = frameCount(obs_output_get_total_frames(output));
            droppedFrames = frameCount(obs_output_get_frames_dropped(output));
            obs_output_release(output);
        }
    }

    // The true interval since the last sample of any cause, not the timer's nominal one.
    const qint64 elapsedMs = healthClock_.isValid() ? healthClock_.restart() : 0;
    if (!healthClock_.isValid())
        healthClock_.start();
    const quint64 previousBytes = lastTotalBytes_;
    lastTotalBytes_ = totalBytes;

    const double dropPercent = totalFrames == 0 ? 0.0 : droppedFrames * 100.0 / totalFrames;
    if (uploadLabel_) {
        // A counter that went back (a new output, or none) gives no rate for that sample.
        const quint64 deltaBytes = totalBytes >= previousBytes ? totalBytes - previousBytes : 0;
        const qint64 interval = elapsedMs >= 2 ? elapsedMs : 1;
        const double mbps = deltaBytes * 8.0 / interval / 1000.0;
        uploadLabel_->setText(QStringLiteral("%1 Mbps").arg(mbps, 0, 'f', 2));
    }
    if (droppedFramesLabel_)
        droppedFramesLabel_->setText(
            QStringLiteral("%1 (%2%)").arg(droppedFrames).arg(dropPercent, 0, 'f', 2));
    if (streamStateLabel_)
        streamStateLabel_->setText(verdict(streaming, dropPercent));
}

void TessivaneController::showLiveStats(const QJsonArray &stats)
{
    int live = 0;
    // One record per channel.
    for (const QJsonValue &stat : partOf(stats, mostChannels)) {
        const QString status = stat.toObject().value(QStringLiteral("status")).toString().toLower();
        if (status == QLatin1String("live") || status == QLatin1String("connected"))
            ++live;
    }
    if (!platformsLabel_ || stats.isEmpty())
        return;
    platformsLabel_->setText(
        QStringLiteral("%1 live / %2").arg(QString::number(live), channelSummary()));
}
