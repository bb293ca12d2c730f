// SPDX-License-Identifier: GPL-2.0-or-later
// The Channels dock.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

QWidget *TessivaneController::buildChannelsDock()
{
    QWidget *root = makeRoot();
    QVBoxLayout *layout = rootLayout(root, 10, 8);
    auto *header = new QHBoxLayout;
    header->addWidget(heading(QStringLiteral("Your Channels"), root));
    header->addStretch(1);
    layout->addLayout(header);
    layout->addStretch(1);
    return root;
}

void TessivaneController::renderChannels(const QJsonArray &channels)
{
    Q_UNUSED(channels)
}

QString TessivaneController::channelSummary() const
{
    int selected = 0;
    for (const QJsonValue &channel : channels_)
        selected += channel.toObject().value(QStringLiteral("selected")).toBool() ? 1 : 0;
    return QStringLiteral("%1 selected").arg(selected);
}
