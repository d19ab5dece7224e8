// What the usage report shows: the daemon's files as read, with one-line messages for
// everything that could not be read. The text and HTML writers only lay this out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace report {

// One line of a link or router usage file: a period and its two counters (MiB).
struct UsageRow {
    std::string period;  // "2024-03-20 14:00", "2024-03-20" or "2024-03-01 .. 2024-03-31"
    uint64_t first = 0;
    uint64_t second = 0;
    size_t line = 0;  // 1-based line of the file; line 1 is the running period
    uint64_t total() const { return first + second; }
    bool running() const { return line == 1; }
};

// One usage file of a link or of the router. When problem is set the file could not be
// used at all and the message stands in place of the table; notes name skipped lines.
struct UsageTable {
    std::string title;          // "hourly", "daily", "monthly", "billing cycle"
    std::string period_header;  // "hour", "day", "month", "cycle"
    std::string path;           // the path on the router
    std::string problem;
    std::vector<std::string> notes;
    std::vector<UsageRow> rows;  // newest first
};

// One line an allowance sets: the 75 % and 95 % warning lines and the suspension line,
// which the daemon draws at 99.5 % of the allowance.
struct Crossing {
    std::string name;          // "75 %", "95 %", "99.5 %"
    std::string key;           // "75", "95", "suspension": the JSON name
    uint64_t line_bytes = 0;   // the line, in bytes (rounded up: usage at or above it has crossed)
    enum class When { crossed, in_cycle, not_in_cycle } when = When::not_in_cycle;
    time_t at = 0;             // in_cycle: the second the usage reaches the line at the rate so far
    std::string date;          // in_cycle: the local date of at, "2024-03-27"
};

// Where the running cycle is heading at its rate so far: the cycle's bytes at its end and
// the days the allowance's lines will be crossed. The rate is the cycle's traffic so far over
// the time from the cycle's start to now, where now is the end of the link's running hour
// (its hourly file's first line), or the end of the running cycle's last day when that hour
// is not on that day. The files are written every 30 s, so now is at most an hour late and
// the rate at most an hour's share of the elapsed time low.
struct Projection {
    bool known = false;
    std::string why_not;           // when not known: "no billing cycle configured", ...
    time_t cycle_start = 0;        // local midnight of the cycle's first day
    time_t cycle_end = 0;          // the cycle's last second
    time_t now = 0;
    std::string start_date;        // "2024-03-15"
    std::string end_date;          // "2024-04-14"
    uint64_t used_bytes = 0;       // the running cycle's two counters, in bytes
    uint64_t projected_bytes = 0;  // the usage at the cycle's end at the rate so far
    // A suspended link carries no traffic until the cycle ends: its projection is what it has.
    bool held = false;
    std::vector<Crossing> crossings;  // 75 %, 95 %, suspension; empty without an allowance
};

// Where a link stands against its allowance in the running billing cycle.
struct Allowance {
    bool cycle_known = false;  // the billing file's first line (the running cycle) was read
    std::string cycle;         // "2024-03-15 .. 2024-03-20"
    uint64_t first = 0;        // MiB
    uint64_t second = 0;       // MiB
    enum class Quota { unknown, none, invalid, set } quota = Quota::unknown;
    uint64_t quota_mib = 0;
    std::string action;     // "email, disconnect", "none" or "unknown"
    bool suspended = false;  // the suspension marker exists
    bool start_day_set = false;  // the start-day key is in the configuration
    int start_day = 0;           // its value as the daemon reads it (0: the month's last day)
    Projection projection;
    uint64_t used() const { return first + second; }
    uint64_t quota_bytes() const;  // quota_mib in bytes, saturating
    // Tenths of a percent of the allowance used, rounded half up; false when unknown.
    bool used_tenths(uint64_t* tenths) const;
};

// One figure of a summary block: a row of a link's or the router's file, when it is there.
struct PeriodFigure {
    bool known = false;
    std::string period;  // the row's period as the tables show it
    uint64_t first = 0;  // MiB
    uint64_t second = 0;
    uint64_t total() const { return first + second; }
};

// The summary of a link or of the router: the running day, the day before it, the running
// month and (links only) the running billing cycle.
struct Summary {
    PeriodFigure today, yesterday, month, cycle;
};

// A WAN link (sim 0) or one SIM card of a dual-SIM link (sim 1 or 2).
struct Link {
    int wan = 0;  // 1-based
    int sim = 0;
    std::string id;    // "wan1", "wan3 sim1"
    std::string name;  // WAN<n>_NAME, may be empty
    std::vector<UsageTable> tables;  // hourly, daily, monthly, billing cycle
    Allowance allowance;
    std::vector<std::string> allowance_notes;
    Summary summary;

    std::string label() const { return name.empty() ? id : id + " \"" + name + "\""; }
};

// One client of a client usage file: the sum over the lines of one address (or MAC).
struct ClientRow {
    std::string key;    // address, MAC, or "*address" for a MAC file's client without MAC
    std::string types;  // the type names of its lines, in the order first seen
    uint64_t first = 0;  // KiB
    uint64_t second = 0;
    uint64_t total() const;
};

// The newest file of one client directory, summed per client, largest first.
struct ClientTable {
    std::string title;       // "by IP address, hour"
    std::string key_header;  // "address" or "MAC"
    std::string directory;   // the directory on the router
    std::string file;        // the chosen file on the router, empty when none
    std::string period;      // "2024-03-20 14:00", "2024-03-20", "2024-03"
    std::string problem;
    std::vector<std::string> notes;
    std::vector<ClientRow> rows;  // every client, in report order
    size_t shown = 0;             // how many of them the report shows
};

struct Report {
    int wan_count = 2;
    std::string wan_count_note;  // where the count came from
    std::vector<int> dual_sim;   // WAN numbers of dual-SIM links
    std::string dual_sim_note;
    std::vector<std::string> config_notes;
    std::vector<Link> links;
    std::vector<UsageTable> totals;     // router hourly, daily, monthly
    Summary totals_summary;             // the router's today, yesterday and month
    std::vector<ClientTable> clients;   // IP hour, day, month; MAC hour
    bool usage_read = false;  // at least one usage file (link, router or client) was read
};

// The number of clients each client table shows.
constexpr size_t TOP_CLIENTS = 10;

} // namespace report
