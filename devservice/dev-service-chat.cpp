// SPDX-License-Identifier: GPL-2.0-or-later
// The merged live chat of the demo channels.
#include "dev-service.h"

void DevService::routeChat() {}
