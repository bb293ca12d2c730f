// SPDX-License-Identifier: GPL-2.0-or-later
// The stream profile pushed to the selected channels, and category search.
#include "dev-service.h"

void DevService::routeStreamProfile() {}
