// The generator's own account of the run: what the daemon must have counted per hour and per
// day for every WAN usage record, and which alert e-mails, allowance lines and suspension
// commands its allowance check must have produced. It is kept from the traffic the scenario
// feeds and from the documented rules of the daemon, never from the daemon's state.
#pragma once

#include "scenario.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

struct byte_pair {
    uint64_t bytes[2] = {0, 0};
};

// One record's hourly or daily history as the daemon must show it: the traffic of every
// period by its local start time, the current period included. Every sample's whole delta
// goes to the period of its sample time. When the clock goes back to an earlier period, the
// current period's traffic is dropped, the periods that start at or after the new time are
// removed, and the period that holds the new time continues with its traffic (the ring walk
// of the history, including its edge cases, is followed exactly).
class period_account {
public:
    period_account(bool daily, unsigned ring_size) : daily_(daily), ring_size_(ring_size) {}

    void add(time_t sample, const uint64_t delta[2]);

    const std::map<time_t, byte_pair>& periods() const { return periods_; }
    bool has_current() const { return has_current_; }
    time_t current() const { return current_; }

    // The local start of the period that holds t, and the period's last second.
    time_t start_of(time_t t) const;
    time_t end_of(time_t start) const;

private:
    void step_back(time_t sample);

    bool daily_;
    unsigned ring_size_;
    std::map<time_t, byte_pair> periods_;
    bool has_current_ = false;
    time_t current_ = 0;
};

struct record_account {
    std::string name;  // "wan1", or "wan3.sim2" for SIM 2 of WAN 3
    int wan;           // 1-based
    int sim;           // 0 for a WAN record
    period_account hours{false, 32};
    period_account days{true, 64};
    uint64_t total[2] = {0, 0};

    void add(time_t t, const uint64_t delta[2]);
};

struct expected_event {
    time_t when;
    std::string kind; // "email", "syslog" (ident "balance") or "command"
    std::string text;
};

// The allowance check of one record with an allowance, as the documented rules have it:
// the billing cycle's usage against 75 %, 95 % and the 100 % line (99.5 %), judged against
// the usage of the previous check (unknown while 0, and after a restart), with the
// suspension marker that the suspension tool keeps.
class quota_account {
public:
    quota_account(int wan, std::string link_name, int start_day, uint64_t quota_mb, bool email, bool disconnect,
                  std::string router_name);

    // The check of the tick at time t, after the record's days hold the tick's traffic.
    void check(time_t t, const period_account& days, std::vector<expected_event>& events);
    // A restarted daemon has forgotten the usage of the previous check.
    void restart() { snapshot_ = 0; }
    // Whether the suspension marker is set (the link carries no traffic).
    bool suspended() const { return marker_; }

private:
    uint64_t cycle_usage(const period_account& days) const;

    int wan_;
    std::string link_name_;
    int start_day_;
    uint64_t quota_bytes_;
    bool email_;
    bool disconnect_;
    std::string router_name_;
    time_t billing_start_ = 0;
    time_t billing_end_ = 0;
    uint64_t snapshot_ = 0;
    bool marker_ = false;
};

class expectation {
public:
    explicit expectation(const scenario& s);

    // One tick at time t: the links' counted deltas into the WAN records and the active
    // SIM's record, the router's own traffic into its hours, then the allowance checks.
    void tick(time_t t, const std::vector<link_tick>& links, int active_sim);
    void restart();
    bool wan1_suspended() const { return quota_.suspended(); }

    const std::vector<record_account>& records() const { return records_; }
    const std::vector<expected_event>& events() const { return events_; }
    int count(const char* kind) const;

    // Writes expected.txt (the format is described at the top of the file itself).
    bool write(const std::string& path, const scenario& s, time_t last_tick_time, int ticks) const;

private:
    std::vector<record_account> records_;
    // The router's own traffic on all links, by the hours as the hourly history shows them
    // (the same repair when the clock steps back).
    period_account own_hours_{false, 32};
    int dual_sim_wan_;
    quota_account quota_;
    std::vector<expected_event> events_;
};

// The start of the billing cycle with start day d (1..31) that holds now: the day d of
// now's month (normalised when the month lacks it), or of an earlier month.
time_t billing_cycle_start(int d, time_t now);
// The last second of the cycle that starts at start.
time_t billing_cycle_end(int d, time_t start);
