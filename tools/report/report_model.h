// What the usage report shows: the daemon's files as read, with one-line messages for
// everything that could not be read. The text and HTML writers only lay this out.
#pragma once

#include <cstddef>
#include <cstdint>
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
    uint64_t used() const { return first + second; }
    // Tenths of a percent of the allowance used, rounded half up; false when unknown.
    bool used_tenths(uint64_t* tenths) const;
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
    std::vector<ClientTable> clients;   // IP hour, day, month; MAC hour
    bool usage_read = false;  // at least one usage file (link, router or client) was read
};

// The number of clients each client table shows.
constexpr size_t TOP_CLIENTS = 10;

} // namespace report
