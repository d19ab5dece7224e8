// Handing the backup directory to the firmware's configuration saver, and the count of
// wake-ups towards the next periodic backup that doing so restarts.
#pragma once

#include <csignal>

// Wake-ups since the last periodic backup; the loop runs the periodic backup at 61 or more.
// A flag word because the SIGHUP and SIGUSR1 handlers set it too.
extern volatile sig_atomic_t ticks_since_backup;

constexpr int PERIODIC_BACKUP_TICKS = 61;

// Asks the firmware's configuration saver, in the background, to store the backup
// directory away, and restarts the count towards the next periodic backup. Returns 0.
int save_backup();
