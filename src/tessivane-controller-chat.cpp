// SPDX-License-Identifier: GPL-2.0-or-later
// The Chat dock.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QVBoxLayout>

QWidget *TessivaneController::buildChatDock()
{
    QWidget *root = makeRoot();
    auto *layout = new QVBoxLayout(root);
    layout->setContentsMargins(10, 10, 10, 10);
    layout->setSpacing(8);
    return root;
}
