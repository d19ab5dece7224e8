#include "core/save_backup.h"

#include "platform/platform.h"

#include <cstdio>

volatile sig_atomic_t ticks_since_backup = 0;

int save_backup()
{
    char command[256];
    snprintf(command, sizeof command, "%s usage &", "/usr/local/korel/bin/saveconfig");
    sys_system(command);
    ticks_since_backup = 0;
    return 0;
}
