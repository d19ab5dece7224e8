// Billing-cycle history of a WAN usage record: cycle bounds, closed cycles and the export.
#pragma once

#include "core/wan_usage.h"

void billing_rollover(wan_usage& record);
void export_billing_csv(const wan_usage& record);
