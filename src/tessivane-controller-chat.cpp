// SPDX-License-Identifier: GPL-2.0-or-later
// The Chat dock.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QVBoxLayout>

QWidget *TessivaneController::buildChatDock()
{
    QWidget *root = makeRoot();
    rootLayout(root, 10, 8);
    return root;
}

void TessivaneController::showChat(const QJsonArray &messages, const QJsonArray &adapters)
{
    Q_UNUSED(messages)
    Q_UNUSED(adapters)
}
