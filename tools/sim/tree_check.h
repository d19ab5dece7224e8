// The checks of a run with faults: after every pass of the daemon's loop and after every
// start-up, the simulator looks at the whole tree the daemon writes and at the daemon's
// allowance state, and records every rule that does not hold. The rules are those that
// faults must never break:
//
//   - no file is half-written: every line of every history, CSV, total, backup, client
//     and MAC file parses in its format, and a file that is not empty ends with a line
//     break;
//   - no file is emptied: a file that had lines keeps lines, unless the daemon's own rules
//     empty or remove it (a clock that went back trims the hourly, daily and monthly
//     histories; start-up rewrites the live histories and the client and MAC directories;
//     the client and MAC directories keep their newest files; a copy made while "/tmp" was
//     full is left empty, and a backup copy of such an empty file is empty; a configuration
//     without a link's start day drops the running line of its billing backup; the daemon
//     takes the link counter file's time stamp as its "now", so a damaged time stamp that
//     goes back counts as a clock that went back, and one before 2009 leaves the running
//     lines unwritten);
//   - no file or table grows past its limit: hourly history 23 lines, its CSV and the
//     hourly total 24; daily 59, 60 and 60; monthly and billing histories 61, their CSVs
//     and the monthly total 60; backups 32, 64, 62 and 62 lines; the client directories
//     24, 32 and 60 files and the MAC directory 3, each plus the one file the save after
//     the limit may add; MAC files 8,192 lines; the MAC table 16,384 entries; the hourly
//     and daily rings 31 and 63 entries;
//   - no temporary file is left after a pass, unless a kill left it and the daemon has
//     not used that name since;
//   - after a copy of the client and MAC directories that worked, each backup directory
//     equals its live directory;
//   - a closed month or billing cycle stays in its history, unless it is the oldest of more
//     than the history keeps or a clock that went back repaired the monthly history;
//   - no record's month or billing cycle starts after every time the clock has shown;
//   - after a kill, the restored histories are what the last backup holds (the history
//     lost is at most what came after it): every record's hourly, daily, monthly and
//     billing history equals the one the backup files give (on a full "/tmp" start-up
//     cannot write again the live files it deleted: a missing monthly or billing history
//     is then counted as what the fault cost);
//   - the allowance is enforced: after every pass whose configuration was intact, a
//     record's suspension marker exists exactly when its action has "disconnect" and its
//     billing-cycle usage, as the daemon counts it, is at or above 99.5 % of its
//     allowance; also on the first pass after a restart;
//   - the clients add up to the links: when an hour of the daemon's clock ends, the lines
//     of its hourly client file add up to the router's hourly total of that hour less the
//     router's own traffic, within what the files' cuts lose. Each counter's client lines
//     show KiB cut from bytes (each line loses 0 to 1,023 bytes) and the total shows MiB cut
//     from the bytes' sum (it loses 0 to 2^20 - 1), so with n lines
//         -1023 n <= 1024 * sum(KiB) + own - 2^20 * MiB <= 2^20 - 1   (bytes).
//     A wrap of a link's counter, which the daemon counts one byte short, is taken off the
//     own traffic. An hour is excepted, for the reason counted in hours_excepted(), when
//     the daemon counts it otherwise: it started again in the hour (after a kill or a
//     restart it loads the hour's client file as a baseline and counts the clients' whole
//     kernel counters on top); the clock stepped back into it (the WAN history resumes the
//     hour, the client table loads its file as a baseline) or out of it; a link's counter
//     restarted in it (counted as a delta near 2^64); "/tmp" was full in its last pass or
//     in the pass that ended it (its files may hold an earlier state); a kernel counter
//     file was damaged in it; or the pass before it, whose readings its counts start from,
//     was a start-up or read a damaged counter file.
//
// A failure is counted by the kind of rule, marked when the pass read a damaged input file
// (a damaged file is an input the daemon takes as it is; what it then breaks is the daemon's
// to fix). It also notes what the faults cost without breaking a rule (observations()).
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

struct daemon_state;

// What happened since the previous check, as the simulator knows it.
struct check_moment {
    int tick = 0;                 // the tick just processed
    time_t clock = 0;             // the daemon's clock
    bool clock_back = false;      // the clock went back for this tick
    bool sample_before_2009 = false; // a record's sample time lies before 2009 (set by the checker)
    time_t repair_clock = 0;      // the earliest sample time that went back, or 0 (set by the checker)
    bool tmp_full = false;        // "/tmp" was full during the pass or the start-up
    bool config_damaged = false;  // the configuration file was damaged for this pass
    std::string damaged_inputs;   // the input files damaged for this pass, or ""
    bool copies_made = false;     // the pass copied the client and MAC directories
    bool copies_worked = false;   // ... and every copy worked
    const std::set<std::string>* left_empty = nullptr; // real paths that copies left empty
    // The tick's traffic, for the hourly sums of the clients (0 for a pass without a tick):
    uint64_t own[2] = {0, 0};     // the router's own traffic on all links, per counter
    uint64_t uncounted[2] = {0, 0}; // traffic the daemon counts short (a wrap: one byte)
    bool link_restarted = false;  // a link's counter restarted: the daemon counts it as a wrap
};

class tree_checker {
public:
    tree_checker(std::string root, int links, int dual_sim_wan);

    // After a pass of the loop: a tick, its backups, the count of wake-ups.
    void after_pass(const check_moment& m, const daemon_state& state);
    // Right after a start-up that followed a kill or a restart of the scenario.
    void after_restart(const check_moment& m, const daemon_state& state);

    long checks() const { return checks_; }
    long failure_count() const { return failure_count_; }
    // The first failures, each "tick N (time): what", and the count of each kind of rule.
    const std::vector<std::string>& failures() const { return failures_; }
    const std::map<std::string, long>& failure_kinds() const { return failure_kinds_; }
    // What the faults cost without breaking a rule: name -> count.
    const std::map<std::string, long>& observations() const { return observations_; }
    // How much the two rules of substance had to hold: lines of restored histories that
    // matched the backups, and passes that found a link at or above its line suspended.
    long restored_lines() const { return restored_lines_; }
    long suspended_passes() const { return suspended_passes_; }
    // The hours whose client files added up to the router's total (the others are
    // failures), and the hours excepted from the sum by reason.
    long hours_checked() const { return hours_checked_; }
    const std::map<std::string, long>& hours_excepted() const { return hours_excepted_; }

private:
    // A file of fixed name: its line shape, most lines, and when it may lose its lines.
    struct file_rule {
        std::string absolute;
        int shape;
        int max_lines;
        int emptiable;
    };
    // A directory of dated files: 0 hourly names, 1 daily, 2 monthly; the files its limit
    // keeps (the save after the limit may add one).
    struct dated_dir {
        std::string absolute;
        int kind;
        int keep;
        bool live;
        bool mac;
    };
    struct entry {
        uint64_t inode = 0; // 0: no such entry
        bool regular = false;
    };
    struct listing {
        bool ok = false;
        std::map<std::string, entry> entries;
    };
    struct seen_file {
        bool exists = false;
        uint64_t inode = 0, size = 0;
        int64_t mtime_ns = 0, ctime_ns = 0;
        long lines = 0;
        std::vector<std::string> periods; // a monthly or billing history: each line's first date
    };

    void check_all(const check_moment& m, const daemon_state& state, bool restart);
    void check_file(const check_moment& m, const file_rule& rule, bool restart);
    void check_dated_dir(const check_moment& m, const dated_dir& dir, bool restart);
    void check_temporaries(const check_moment& m, bool restart);
    void check_backup_copies(const check_moment& m);
    void check_tables(const check_moment& m, const daemon_state& state);
    void check_allowances(const check_moment& m, const daemon_state& state);
    void check_restored_histories(const check_moment& m);
    void check_closed_periods(const check_moment& m, const std::string& absolute,
                              const std::vector<std::string>& before, const std::vector<std::string>& now);
    void note_lost_lines(const check_moment& m, const daemon_state& state, bool restart);
    void follow_hours(const check_moment& m, bool restart);
    void check_hour_sums(const check_moment& m, const std::string& hour);
    // A directory's entries, listed once per check; null when it cannot be opened.
    const listing* list(const std::string& absolute_dir);
    // The entry of one of the daemon's absolute paths in its directory's listing.
    entry entry_of(const std::string& absolute);
    // Reads and checks a file when it changed since it was last seen; returns its state.
    seen_file look(const check_moment& m, const std::string& absolute, int shape, int max_lines, bool force);
    void fail(const check_moment& m, const std::string& what);
    void expect(const check_moment& m, bool condition, const std::string& what);
    std::string real(const std::string& absolute) const { return root_ + absolute; }
    // The live directory of a client or MAC backup directory.
    std::string live_of(const std::string& backup_dir) const;

    std::string root_;
    bool precise_ = false; // not on a tmpfs: compare sizes and times as well as inodes
    std::map<std::string, listing> listings_;
    uint64_t backup_stamp_ = 0;
    bool backups_changed_ = false;
    std::string buffer_;
    std::vector<file_rule> files_;
    std::vector<dated_dir> dirs_;
    struct record_name {
        int wan;
        int sim;
    };
    std::vector<record_name> records_;
    std::map<std::string, seen_file> seen_;
    std::map<std::string, std::set<std::string>> dir_names_; // dated directory -> names seen
    std::set<std::string> leftover_allowed_;                  // temporaries a kill left
    std::vector<time_t> month_start_, billing_start_;
    std::vector<bool> marker_before_restart_;
    std::vector<time_t> billing_start_before_restart_;
    bool after_restart_pending_ = false;
    // The hour of the daemon's clock that the passes are in ("" before the first pass), why
    // it cannot be checked ("" when it can), and the router's own traffic in it so far.
    std::string open_hour_;
    std::string open_hour_exception_;
    uint64_t open_hour_own_[2] = {0, 0};       // the router's own traffic less what wraps left uncounted
    // Why the hour after the last pass cannot be checked when that pass was its last before
    // it ("" when it can).
    std::string carried_exception_;
    bool last_pass_tmp_full_ = false; // "/tmp" was full in the last pass
    long hours_checked_ = 0;
    std::map<std::string, long> hours_excepted_;
    time_t latest_clock_ = 0;
    long checks_ = 0;
    long restored_lines_ = 0;
    long suspended_passes_ = 0;
    long failure_count_ = 0;
    std::vector<std::string> failures_;
    std::map<std::string, long> failure_kinds_;
    std::map<std::string, long> observations_;
};
