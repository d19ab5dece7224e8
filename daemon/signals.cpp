#include "daemon/signals.h"

#include <climits>
#include <cstring>
#include <initializer_list>
#include <unistd.h>

volatile sig_atomic_t tick_pending = 0;
volatile sig_atomic_t backup_requested = 0;

namespace {

// The pid file's path, kept in a fixed buffer so that the termination handler only calls
// async-signal-safe functions.
char pid_file_path[PATH_MAX];

void on_alarm(int) { tick_pending = 1; }

void on_hangup(int)
{
    tick_pending = 1;
    ticks_since_backup = PERIODIC_BACKUP_TICKS;
}

void on_backup_request(int)
{
    backup_requested = 1;
    ticks_since_backup = 0;
}

// _exit rather than exit: exit is not safe in a handler. The pid file is removed here,
// which is all the exit handler would do; no backup is written on the way out.
void on_terminate(int)
{
    remove_pid_file();
    _exit(0);
}

void on_pipe(int) {}

void install(int signo, void (*handler)(int))
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

} // namespace

void set_pid_file_path(const char* path)
{
    size_t length = strlen(path);
    if (length >= sizeof pid_file_path)
        length = 0;
    memcpy(pid_file_path, path, length);
    pid_file_path[length] = '\0';
}

void remove_pid_file()
{
    if (pid_file_path[0])
        unlink(pid_file_path);
}

void install_termination_handlers()
{
    install(SIGINT, on_terminate);
    install(SIGTERM, on_terminate);
    install(SIGPIPE, on_pipe);
}

void unblock_daemon_signals()
{
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    for (int signo : {SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGALRM, SIGPIPE})
        sigdelset(&mask, signo);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
}

void install_tick_handlers()
{
    install(SIGALRM, on_alarm);
    install(SIGHUP, on_hangup);
    install(SIGUSR1, on_backup_request);
}
