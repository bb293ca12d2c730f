// SPDX-License-Identifier: GPL-2.0-or-later
// The Stream Information dock.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QLabel>
#include <QVBoxLayout>

QWidget *TessivaneController::buildStreamInfoDock()
{
    QWidget *root = makeRoot();
    QVBoxLayout *layout = rootLayout(root, 12, 8);
    layout->addWidget(heading(QStringLiteral("Stream Information"), root));
    layout->addWidget(muted(QStringLiteral("Updates apply to selected channels. Twitch and Kick "
                                           "categories open as searchable dropdowns."),
                            root));
    streamInfoStatusLabel_ = muted(QString(), root);
    layout->addWidget(streamInfoStatusLabel_);
    layout->addStretch(1);
    return root;
}

void TessivaneController::showStreamProfile(const QJsonObject &profile)
{
    Q_UNUSED(profile)
}

void TessivaneController::showSyncResults(const QJsonArray &syncResults)
{
    Q_UNUSED(syncResults)
}

void TessivaneController::fillCategories(const QString &provider, const QJsonArray &categories)
{
    Q_UNUSED(provider)
    Q_UNUSED(categories)
}
