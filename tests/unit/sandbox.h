// A fresh temporary root per test, with the platform seam pointed at it: the daemon's
// absolute paths land under the root, the clock is the test's, and syslog lines, shell
// commands and alarms are captured instead of acting on the machine.
#pragma once

#include "platform/platform.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

struct captured_log {
    std::string ident;
    int facility;
    int priority;
    std::string text;
};

struct test_platform final : platform {
    std::string root;
    time_t clock = 0;
    std::vector<captured_log> logs;
    std::vector<std::string> commands;
    std::vector<unsigned> alarms;

    std::string path(const char* absolute) const override { return root + absolute; }
    time_t now() override { return clock; }
    void log(const char* ident, int facility, int priority, const char* text) override
    {
        logs.push_back({ident, facility, priority, text});
    }
    int run(const char* command) override
    {
        commands.emplace_back(command);
        return 0;
    }
    void arm_alarm(unsigned seconds) override { alarms.push_back(seconds); }
};

class Sandbox : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Writes a whole file at one of the daemon's absolute paths, creating its directories.
    void write_file(const std::string& absolute, const std::string& content);
    // The whole content of a file at a daemon path; "<missing>" when it cannot be read.
    std::string read_file(const std::string& absolute);
    bool exists(const std::string& absolute);
    // Sets a file's modification time.
    void set_mtime(const std::string& absolute, time_t mtime);
    // The real path under the root.
    std::string real(const std::string& absolute) const { return plat.root + absolute; }

    // Selects the time zone for the C library's local-time functions.
    static void set_tz(const char* zone);
    // mktime of a local date and time in the current zone (daylight saving decided by the
    // library).
    static time_t local(int year, int month, int day, int hour = 0, int min = 0, int sec = 0);
    // "YYYY-MM-DD HH:MM:SS ZONE" of t in the current zone.
    static std::string show(time_t t);

    test_platform plat;
    platform* previous_ = nullptr;
};
