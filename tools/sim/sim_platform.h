// The simulated router around the daemon's code: every absolute path lies under one root
// directory, the clock is the simulator's, syslog lines are collected, and the firmware
// tools that the daemon starts through the shell are played by the simulator.
//
// Files under <root>/sim:
//   syslog.log     one line per syslog message: epoch, ISO time, ident, facility.priority,
//                  text (tab-separated; a line break inside a text is shown as "\n")
//   commands.log   one line per shell command: epoch, ISO time, the command as the daemon
//                  gave it, what the simulator did with it (tab-separated)
//   outbox/NNN.eml the alert e-mails handed to the mail sender, numbered from 001
//
// With faults (ruvo-sim --faults) the simulator also sets two things here: tmp_full, while
// which "/tmp" and "/var/run" (one tmpfs on the router) have no space left, so that every
// write of file data fails with ENOSPC and the copies of the shell commands leave empty
// files; and kill_countdown, which ends the process with SIGKILL at a chosen write of file
// data or shell command, as a kill or a power cut would.
#pragma once

#include "platform/platform.h"

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

struct sim_email {
    time_t when;
    std::string subject; // the message's first line without "Subject: "
    std::string file;    // under <root>/sim/outbox
};

struct sim_command {
    time_t when;
    std::string line;
};

class sim_platform final : public platform {
public:
    // Opens the two log files under <root>/sim (which must exist). ok() tells whether that
    // worked.
    explicit sim_platform(std::string root);
    ~sim_platform() override;
    sim_platform(const sim_platform&) = delete;
    sim_platform& operator=(const sim_platform&) = delete;

    bool ok() const { return syslog_ && commands_; }

    std::string path(const char* absolute) const override { return root_ + absolute; }
    time_t now() override { return clock; }
    void log(const char* ident, int facility, int priority, const char* text) override;
    int run(const char* command) override;
    // The simulator drives the ticks itself; the daemon's alarms are not needed.
    void arm_alarm(unsigned) override {}
    // write(2), failing with ENOSPC while tmp_full is set.
    ssize_t write(int fd, const void* data, size_t size) override;

    // The simulated time: what time(2) returns to the daemon.
    time_t clock = 0;
    // "/tmp" and "/var/run" are full: writes of file data fail with ENOSPC, and a copy
    // creates its directories and files but no data (a non-empty file is left empty).
    bool tmp_full = false;
    // When above 0, counts the writes of file data and the shell commands down; the one
    // that brings it to 0 ends the process with SIGKILL (a write after writing half of its
    // data, a command before it runs).
    long kill_countdown = 0;

    // Writes refused with ENOSPC, and files that copies left empty, since the start.
    long failed_writes() const { return failed_writes_; }
    long failed_copies() const { return failed_copies_; }
    // The real paths of the files that copies left empty while tmp_full was set; a later
    // copy or removal of such a file takes it out again.
    const std::set<std::string>& left_empty() const { return left_empty_; }
    // Whether every copy of the shell commands since the last call worked, and whether there
    // was one; resets both.
    bool take_copy_state(bool* any_copy);

    const std::string& root() const { return root_; }
    const std::vector<sim_email>& emails() const { return emails_; }
    // The suspension tool's command lines, in the order the daemon ran them.
    const std::vector<sim_command>& suspensions() const { return suspensions_; }
    int command_count() const { return command_count_; }
    int syslog_count() const { return syslog_count_; }

private:
    std::string suspend(const std::string& command);
    std::string send_email(const std::string& command);
    std::string file_commands(const std::string& command);
    bool copy_one(const std::filesystem::path& source, const std::filesystem::path& to, bool recursive);
    void countdown_to_kill(const void* data, size_t size, int fd);
    // The real path of one of the daemon's paths, or "" for a path outside "/tmp" and
    // "/var/run", which the simulator never touches.
    std::string mapped(const std::string& absolute) const;

    std::string root_;
    FILE* syslog_ = nullptr;
    FILE* commands_ = nullptr;
    std::vector<sim_email> emails_;
    std::vector<sim_command> suspensions_;
    int command_count_ = 0;
    int syslog_count_ = 0;
    long failed_writes_ = 0;
    long failed_copies_ = 0;
    std::set<std::string> left_empty_;
    bool copies_ok_ = true;
    bool any_copy_ = false;
};

// "2024-02-28T16:03:30Z" for t in UTC.
std::string iso_time(time_t t);
