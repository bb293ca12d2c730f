// SPDX-License-Identifier: GPL-2.0-or-later
// Finding a newer release of the plug-in, and its verified download.
#include "tessivane-controller.h"

void TessivaneController::checkForUpdates(bool manual)
{
    Q_UNUSED(manual)
}

void TessivaneController::handlePluginRelease(const QJsonObject &release)
{
    Q_UNUSED(release)
}

void TessivaneController::downloadAndInstallUpdate(const QJsonObject &release)
{
    Q_UNUSED(release)
}
