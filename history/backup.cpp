#include "history/backup.h"

// Backups are not written yet, and a start-up restores nothing.
void backup_usage(wan_usage*, int) {}
void restore_usage(wan_usage*, int) {}
