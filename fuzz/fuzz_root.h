// The world every fuzz target runs in: one temporary root directory per process with the
// platform seam pointed at it, so that the daemon's absolute paths land under the root, the
// clock stands still, and syslog lines, shell commands and alarms only count.
//
// A target writes the fuzz input as a whole file at the path the daemon reads it from and
// then calls the daemon's real reader; nothing of the daemon is copied or imitated here.
#pragma once

#include "platform/platform.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace fuzz {

// 2024-03-05 14:10:00 in Europe/Berlin (13:10:00 UTC): the clock of every run.
constexpr time_t FIXED_CLOCK = 1709644200;

struct fuzz_platform final : platform {
    std::string root;
    time_t clock = FIXED_CLOCK;
    unsigned long logs = 0;
    unsigned long commands = 0;
    unsigned long alarms = 0;

    std::string path(const char* absolute) const override { return root + absolute; }
    time_t now() override { return clock; }
    void log(const char*, int, int, const char*) override { ++logs; }
    // Commands are counted, never run: the targets must not start processes.
    int run(const char*) override
    {
        ++commands;
        return 0;
    }
    void arm_alarm(unsigned) override { ++alarms; }
};

// The process's world, created on first use: a fresh root under $TMPDIR (or /tmp), the
// platform installed, TZ set to Europe/Berlin (a zone with daylight saving) and the root
// removed again when the process exits normally. The clock is reset to FIXED_CLOCK on
// every call, so that no run sees another run's time.
fuzz_platform& world();

// The real path under the root of one of the daemon's absolute paths.
std::string real(const char* absolute);

// Writes size bytes as the whole file at one of the daemon's absolute paths, creating its
// directories. Aborts when the file cannot be written: a target that cannot set up its
// input would only fuzz nothing.
void put_file(const char* absolute, const uint8_t* data, size_t size);
void put_text(const char* absolute, const std::string& text);

// Removes the file at one of the daemon's absolute paths, if there is one.
void remove_file(const char* absolute);

// Creates a directory and its parents at one of the daemon's absolute paths.
void make_dir(const char* absolute);

// The input as a NUL-terminated text (bytes after an embedded NUL are kept but unseen by
// C string functions).
std::string as_text(const uint8_t* data, size_t size);

} // namespace fuzz
