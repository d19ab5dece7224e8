// The faults of a run with --faults: when "/tmp" is full, when the daemon is killed, when
// the clock jumps, and which input file is missing, empty or garbled on which tick. They
// are drawn from the seed with a generator of their own, so the traffic of a run is the
// same with and without faults.
#pragma once

#include "prng.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

enum class fault_kind {
    tmp_full,      // "/tmp" (and "/var/run", the same tmpfs) full for a span of ticks
    kill,          // the daemon killed without warning and started again on the same tree
    clock_forward, // the clock jumps forward before a tick
    clock_back,    // the clock jumps back before a tick
    input,         // one input file missing, empty or garbled for one tick
};
constexpr int FAULT_KINDS = 5;
const char* fault_kind_name(fault_kind kind);

// The input files that a fault can damage.
enum class input_file { link_usage, client_usage, arp, deleted_arp, config };
constexpr int INPUT_FILES = 5;
const char* input_file_path(input_file file); // the daemon's absolute path

enum class input_damage { missing, empty, garbled };
constexpr int INPUT_DAMAGES = 3;
const char* input_damage_name(input_damage damage);

struct planned_fault {
    fault_kind kind;
    int tick = 0;           // the tick it happens at (before the tick's pass; a kill during it)
    int ticks = 0;          // tmp_full: how many ticks the file system stays full
    long long seconds = 0;  // clock jumps: by how much
    long kill_point = 0;    // kill: the write of file data or shell command of the pass that
                            // is the last (a pass with fewer ends, then the process is killed)
    bool at_backup = false; // kill: during the next pass with the periodic backup from tick on
    input_file file = input_file::link_usage;
    input_damage damage = input_damage::missing;
    uint64_t garble_seed = 0;
};

// The faults of a run of `ticks` ticks over `days` days, sorted by tick. Every kind happens
// at least once; see faults.cpp for the rates.
std::vector<planned_fault> plan_faults(uint64_t seed, int days, int ticks);

// The content of a garbled input file: the file's proper content cut short, overwritten in
// a span with random bytes, given an inserted line of junk, or replaced by junk.
std::string garble(const std::string& content, uint64_t seed);

// "2 h 5 min", "3 d 4 h" for a number of seconds.
std::string show_span(long long seconds);

// The faults of one run as they happen: the plan, the clock's offset from the true time,
// the span of a full "/tmp", the kills still waiting for their pass, the damaged inputs, and
// the log of everything done (sim/faults.log: epoch, ISO time of the daemon's clock, kind,
// what was done; tab-separated).
class fault_session {
public:
    // log_path: the log to write (empty: none); root: the router's root.
    fault_session(std::vector<planned_fault> plan, std::string root, const std::string& log_path);
    ~fault_session();
    fault_session(const fault_session&) = delete;
    fault_session& operator=(const fault_session&) = delete;

    // Takes in the faults of tick k whose true time is t: clock jumps, the start of a full
    // "/tmp", kills and input damage due. Returns the daemon's clock for the tick.
    time_t begin_tick(int tick, time_t t);
    // Whether "/tmp" is full during tick k's pass.
    bool tmp_full(int tick) const { return tick < full_until_; }
    // Damages the input files due at this tick, after the simulator has written them;
    // clock: the daemon's clock. Returns whether the configuration file is damaged.
    bool damage_inputs(time_t clock);
    // The input files damaged for this tick ("" when none), for the checks' messages.
    std::string damaged_inputs() const;
    // After the pass: the configuration file as it was, with a modification time the daemon
    // has not seen, so that it loads it again.
    void repair_inputs(time_t clock);
    // The kill due in this pass, when there is one: a kill waiting for a pass with the
    // periodic backup takes the first such pass. periodic_backup: this pass makes one.
    bool kill_due(bool periodic_backup, planned_fault* kill);

    // Writes a line to the log; counted: it is one more fault of the kind.
    void note(time_t clock, fault_kind kind, const std::string& text, bool counted = true);
    long count(fault_kind kind) const { return counts_[static_cast<int>(kind)]; }
    long input_count(input_file file, input_damage damage) const
    {
        return input_counts_[static_cast<int>(file)][static_cast<int>(damage)];
    }
    long full_ticks() const { return full_ticks_; }
    long long clock_offset() const { return offset_; }
    // The log lines, for the summary.
    const std::vector<std::string>& lines() const { return lines_; }

private:
    std::vector<planned_fault> plan_;
    size_t next_ = 0;
    std::string root_;
    FILE* log_ = nullptr;
    long long offset_ = 0;
    int full_until_ = 0;
    long full_ticks_ = 0;
    std::vector<planned_fault> waiting_kills_;
    std::vector<planned_fault> inputs_now_;
    std::string config_;       // the configuration file's content while it is damaged
    bool config_damaged_ = false;
    time_t config_mtime_ = 0;  // the modification time given to the damaged file
    long counts_[FAULT_KINDS] = {};
    long input_counts_[INPUT_FILES][INPUT_DAMAGES] = {};
    std::vector<std::string> lines_;
};
