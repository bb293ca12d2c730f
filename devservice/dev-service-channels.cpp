// SPDX-License-Identifier: GPL-2.0-or-later
// The channel list, selection, removal and connecting a platform.
#include "dev-service.h"

void DevService::routeChannels() {}
