// SPDX-License-Identifier: GPL-2.0-or-later
// The Stream Health dock.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

QWidget *TessivaneController::buildHealthDock()
{
    QWidget *root = makeRoot();
    QVBoxLayout *layout = rootLayout(root, 12, 8);
    layout->addWidget(heading(QStringLiteral("Stream Health"), root));
    layout->addStretch(1);
    connect(checkUpdatesButton_, &QPushButton::clicked, this, [this]() { checkForUpdates(true); });
    return root;
}

void TessivaneController::refreshHealth() {}

void TessivaneController::showLiveStats(const QJsonArray &stats)
{
    Q_UNUSED(stats)
}
