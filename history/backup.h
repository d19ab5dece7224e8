// Backup of the records' histories under "/tmp/ruvo_backup" and their restore at start-up.
#pragma once

#include "core/wan_usage.h"

void backup_usage(wan_usage* records, int count);
void restore_usage(wan_usage* records, int count);
