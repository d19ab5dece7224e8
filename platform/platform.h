// The seam between the daemon and the world outside the process.
//
// Every absolute path, every reading of the clock, every syslog line, every shell command
// and every write of file data of the daemon goes through the functions below. In
// production they act on the real system; tests and tools install their own platform (a
// temporary root directory, a clock they set, captured syslog lines and commands, writes
// that fail as on a full file system). The seam holds no logic of the daemon: no file
// format, no path literal and no decision lives here.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <sys/types.h>

// What a platform provides. The production platform is installed by default.
struct platform {
    virtual ~platform() = default;
    // Maps one of the daemon's absolute paths to the path that is really opened.
    virtual std::string path(const char* absolute) const = 0;
    // The current time in seconds since the epoch (what time(2) returns).
    virtual time_t now() = 0;
    // Writes one finished syslog line: the text is the message itself, never a format.
    virtual void log(const char* ident, int facility, int priority, const char* text) = 0;
    // Runs a command line through the shell and returns what system(3) returns.
    virtual int run(const char* command) = 0;
    // Arms the process's alarm timer (alarm(2)); 0 cancels it.
    virtual void arm_alarm(unsigned seconds) = 0;
    // Writes at most size bytes of data to the open file descriptor fd, as write(2) does:
    // returns the number of bytes written, which may be fewer than size, or -1 with errno
    // set. Every platform gets the plain system call unless it replaces it (a test or tool
    // may fail it with ENOSPC, as a full file system does, or shorten it).
    virtual ssize_t write(int fd, const void* data, size_t size);
};

// Installs p as the platform of the process and returns the one it replaces; nullptr
// restores the production platform. The caller keeps p alive while it is installed.
platform* platform_install(platform* p);

// The daemon's calls into the platform.
std::string sys_path(const char* absolute);
time_t sys_time();
void sys_log(const char* ident, int facility, int priority, const char* text);
int sys_system(const char* command);
void sys_alarm(unsigned seconds);
// The file data of the daemon's whole-file replacement (core/atomic_file) is written here.
ssize_t sys_write(int fd, const void* data, size_t size);
