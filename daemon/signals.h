// The daemon's signals. Handlers only store to the two flag words below and to the count
// of wake-ups towards the next periodic backup; all work happens in the loop.
#pragma once

#include "core/save_backup.h"

#include <csignal>

// Set by SIGALRM and SIGHUP: the loop processes a tick only when it is set.
extern volatile sig_atomic_t tick_pending;
// Set by SIGUSR1: the loop writes the backups without running the configuration saver.
extern volatile sig_atomic_t backup_requested;

// SIGINT and SIGTERM remove the pid file and end the process with status 0; SIGPIPE gets an
// empty handler so that a failing write only fails.
void install_termination_handlers();
// Removes SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGALRM and SIGPIPE from the inherited signal
// mask, so that they are delivered whatever the parent blocked; other blocks stay.
void unblock_daemon_signals();
// SIGALRM and SIGHUP request a tick (SIGHUP also a full backup), SIGUSR1 a backup.
void install_tick_handlers();

// Unlinks the pid file; safe to call from a signal handler and at exit.
void remove_pid_file();
// Sets the real path of the pid file that remove_pid_file unlinks.
void set_pid_file_path(const char* path);
