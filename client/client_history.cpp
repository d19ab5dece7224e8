#include "client/client_history.h"

#include "client_mac/mac_usage.h"
#include "core/atomic_file.h"
#include "core/dated_files.h"
#include "core/line_block.h"
#include "core/local_time.h"
#include "core/number_text.h"
#include "core/read_file.h"
#include "platform/platform.h"
#include "platform/strutils.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr const char* SCRATCH = "/tmp/ruvo_client.tmp";
constexpr const char* LIVE_DIRS[3] = {"/var/run/korel/client_usage_hourly",
                                      "/var/run/korel/client_usage_daily",
                                      "/var/run/korel/client_usage_monthly"};
constexpr const char* BACKUP_DIRS[3] = {"/tmp/ruvo_client_hourly", "/tmp/ruvo_client_daily",
                                        "/tmp/ruvo_client_monthly"};
constexpr int FILES_KEPT[3] = {24, 32, 60};
constexpr int LINE_SIZE = 256;

// "address,type,first,second": two texts without ':' or ',' and two unsigned decimal
// numbers. Returns false for a line of another shape.
bool parse_client_line(const char* line, std::string* address, std::string* type, uint64_t* first,
                       uint64_t* second)
{
    size_t length = strcspn(line, ":,");
    if (length == 0 || line[length] != ',')
        return false;
    *address = std::string(line, length);
    const char* p = line + length + 1;
    length = strcspn(p, ":,");
    if (length == 0 || p[length] != ',')
        return false;
    *type = std::string(p, length);
    return parse_two_counts(p + length + 1, first, second);
}

void run(const char* command)
{
    sys_system(command);
}

// How far ahead the client file's writer asks for records (see append_client_lines).
constexpr uint32_t CHAINS_AHEAD = 8;

// Asks for both cache lines of a record, if there is one, without waiting for them.
inline void prefetch_record(const client_record* r)
{
    if (r) {
        __builtin_prefetch(r);
        __builtin_prefetch(reinterpret_cast<const char*>(r) + sizeof *r - 1);
    }
}

// Writes a "%s,%s,%lld,%lld\n" line (the address, the source type and the two counts in
// KiB) for every type with traffic of every present record of the table into out; returns
// how many. The lines go through a line block (core/line_block.h): at 16,384 clients a file
// is over half a MiB, which is written out a piece at a time rather than held whole until
// the commit.
int append_client_lines(atomic_file& out, const client_table& table)
{
    // Longest line: a 15-character address, the longest type name, two counts and the
    // three separators and the line break.
    constexpr size_t LINE_MAX = sizeof(client_record::address_text) + CLIENT_TYPE_NAME_PADDED + 2 * SIGNED_DIGITS_MAX + 4;
    // Most records have one type with traffic, on a line of about 30 bytes.
    line_block block(out, LINE_MAX, static_cast<size_t>(table.records) * 32);
    int lines = 0;
    // The lines follow the chains, whose records lie anywhere in the table's store, and in a
    // large table a record waited for costs more than its line. So the records of a large
    // table are asked for ahead, in two stages: the first record of the chain
    // 2 * CHAINS_AHEAD on, and the second record of the chain CHAINS_AHEAD on, whose first
    // record was asked for then and has arrived since. (Most chains hold one or two records
    // at 16,384 clients.) A table of fewer records than chains asks for nothing: there the
    // look-ahead's ten or so instructions a chain would be paid for less than a record a
    // chain, and its records (1 MiB at most) mostly stay in the cache between walks. Hints
    // only: nothing depends on them.
    const bool large = table.records >= CLIENT_CHAINS;
    for (uint32_t chain = 0; chain < CLIENT_CHAINS; ++chain) {
        if (large && chain + 2 * CHAINS_AHEAD < CLIENT_CHAINS)
            prefetch_record(table.chains[chain + 2 * CHAINS_AHEAD]);
        if (large && chain + CHAINS_AHEAD < CLIENT_CHAINS)
            if (const client_record* ahead = table.chains[chain + CHAINS_AHEAD])
                prefetch_record(ahead->next);
        for (const client_record* r = table.chains[chain]; r; r = r->next) {
            if (!r->present)
                continue;
            const size_t address_length = r->address_length;
            for (int type = TYPE_LAN; type < CLIENT_TYPES; ++type) {
                if (r->first[type] == 0 && r->second[type] == 0)
                    continue;
                char* at = block.room();
                // Whole fixed-size copies, cheaper than copies of the exact length: the
                // bytes after the text are written over by what follows.
                memcpy(at, r->address_text, sizeof r->address_text);
                at += address_length;
                *at++ = ',';
                memcpy(at, client_usage_type_name_padded[type], CLIENT_TYPE_NAME_PADDED);
                at += client_usage_type_name_length[type];
                *at++ = ',';
                // A count in KiB (the bytes shifted right by 10) is never negative, so "%lld"
                // prints the digits "%llu" prints.
                at = write_unsigned(at, r->first[type] >> 10);
                *at++ = ',';
                at = write_unsigned(at, r->second[type] >> 10);
                *at++ = '\n';
                block.written(at);
                ++lines;
            }
        }
    }
    block.finish();
    return lines;
}

} // namespace

const char* client_live_dir(int kind) { return LIVE_DIRS[kind]; }
const char* client_backup_dir(int kind) { return BACKUP_DIRS[kind]; }

void save_client_usage(client_usage_tables* tables)
{
    for (int kind = PERIOD_HOURLY; kind <= PERIOD_MONTHLY; ++kind)
        client_usage_dir_limit(LIVE_DIRS[kind], kind, FILES_KEPT[kind]);
    ruvo_client_mac_usage_history_limit();
    ruvo_client_mac_usage_save();
    if (!tables)
        return;
    for (const client_table& table : tables->table) {
        time_t start = 0;
        if (!client_period_start(table.kind, table.time, &start))
            continue;
        // A table without clients writes no line and so leaves no file (below): the scratch
        // file is not even made.
        if (table.records == 0)
            continue;
        atomic_file out(SCRATCH);
        if (!out.is_open())
            return;
        const int lines = append_client_lines(out, table);
        // A period without traffic leaves no file, and an older file of its name alone.
        if (lines > 0)
            out.commit(dated_file_path(LIVE_DIRS[table.kind], dated_file_stem(table.kind, start)).c_str());
    }
}

void load_client_period_file(const struct tm& tm, client_table& table, int kind, bool baseline)
{
    struct tm moment = tm;
    time_t start = 0;
    if (!client_period_start(kind, normalise_local(&moment), &start))
        return;
    std::string name = dated_file_stem(kind, start);
    dir_ptr d = open_directory(LIVE_DIRS[kind]);
    if (!d || !directory_has(d.get(), (name + ".csv").c_str()))
        return;
    file_ptr f = open_for_reading(dated_file_path(LIVE_DIRS[kind], name).c_str());
    if (!f)
        return;
    table.prev_time = table.time;
    table.time = start;
    char line[LINE_SIZE];
    line_reader lines(f.get());
    while (lines.next(line, sizeof line)) {
        std::string address, type_name;
        uint64_t first = 0, second = 0;
        if (!parse_client_line(line, &address, &type_name, &first, &second))
            continue;
        struct in_addr a;
        if (address.size() >= sizeof(client_record::address_text) || !inet_aton(address.c_str(), &a))
            continue;
        const int type = client_type_of(type_name.c_str());
        first *= 1024;
        second *= 1024;
        client_record* r = find_client(table, a.s_addr);
        if (!r) {
            r = add_client(table, a.s_addr, address.c_str());
            if (r && baseline) {
                r->first[TYPE_RAW] = r->first[type] = first;
                r->second[TYPE_RAW] = r->second[type] = second;
            }
            // Without the baseline flag the first line only creates the client: its values
            // are dropped, deliberately.
        } else if (baseline) {
            // A further line of a known client becomes its raw values, and its type's
            // counters start again from 0, deliberately.
            r->first[TYPE_RAW] = first;
            r->second[TYPE_RAW] = second;
            r->baseline_pending = 1;
            r->first[type] = 0;
            r->second[type] = 0;
        } else {
            r->first[type] = first;
            r->second[type] = second;
        }
    }
}

void create_backup_client_usage(client_usage_tables*)
{
    run("rm -rf /tmp/ruvo_client_hourly");
    run("rm -rf /tmp/ruvo_client_daily");
    run("rm -rf /tmp/ruvo_client_monthly");
    run("cp -rf /var/run/korel/client_usage_hourly /tmp/ruvo_client_hourly");
    run("cp -rf /var/run/korel/client_usage_daily /tmp/ruvo_client_daily");
    run("cp -rf /var/run/korel/client_usage_monthly /tmp/ruvo_client_monthly");
    ruvo_client_mac_usage_history_backup();
}

void client_usage_cleanup_history_files()
{
    run("rm -rf /var/run/korel/client_usage_hourly");
    run("rm -rf /var/run/korel/client_usage_daily");
    run("rm -rf /var/run/korel/client_usage_monthly");
    ruvo_client_mac_usage_history_clear();
}
