#include "client/client_usage.h"

#include "client/client_sources.h"
#include "client/usage_line.h"
#include "client_mac/mac_usage.h"
#include "core/address_text.h"
#include "core/local_time.h"
#include "core/read_file.h"
#include "platform/platform.h"
#include "platform/strutils.h"

#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace {

constexpr const char* CLIENT_USAGE = "/proc/korel/config/client_usage";
constexpr const char* LAN_CONFIG = "/var/run/korel/lan";
constexpr const char* TIME_INITIALIZED = "/var/run/korel/time_initialized";
constexpr int LINE_SIZE = 256;

// The two /12 ranges that are never clients: 5.192.0.0/12 and 5.208.0.0/12.
bool never_a_client(uint32_t address)
{
    uint32_t masked = ntohl(address) & 0xfff00000u;
    return masked == 0x05c00000u || masked == 0x05d00000u;
}

// Counts one kernel line into one table.
void count_client(client_table& table, const client_usage_tables& tables, uint32_t address, const char* text,
                  uint64_t first, uint64_t second, time_t reading_time)
{
    client_record* r = find_client(table, address);
    if (!r) {
        add_client(table, address, text); // counted from its second reading on
    } else if (r->second[TYPE_RAW] != second || r->first[TYPE_RAW] != first) {
        const uint32_t type = r->type;
        if (r->baseline_pending) {
            // The period's totals are set, not added to.
            r->second[type] = r->second[TYPE_RAW] + second;
            r->first[type] = r->first[TYPE_RAW] + first;
            r->baseline_pending = 0;
            ruvo_client_mac_usage_add(address, static_cast<int32_t>(type), r->second[type], r->first[type],
                                      table.kind, 0);
        } else if (second >= r->second[TYPE_RAW] && first >= r->first[TYPE_RAW] &&
                   (r->second[TYPE_RAW] != 0 || r->first[TYPE_RAW] != 0)) {
            uint64_t delta2 = second - r->second[TYPE_RAW];
            uint64_t delta1 = first - r->first[TYPE_RAW];
            r->second[type] += delta2;
            r->first[type] += delta1;
            ruvo_client_mac_usage_add(address, static_cast<int32_t>(type), delta2, delta1, table.kind, 1);
        }
        // A counter that went backwards (a reset) counts nothing and becomes the new raw value.
        r->second[TYPE_RAW] = second;
        r->first[TYPE_RAW] = first;
        r->present = 1;
    }
    // The daily and monthly tables take the hourly table's time, already this reading's:
    // their previous time becomes the new time, deliberately.
    table.prev_time = tables.table[PERIOD_HOURLY].time;
    table.time = reading_time;
}

} // namespace

void check_client_period(client_table& table, time_t start)
{
    time_t current = 0;
    if (!client_period_start(table.kind, table.time, &current) || current == start)
        return;
    // Every record of the table is in the store: walked in memory order, not chain order.
    for_each_entry(table.store, [](client_record& r) {
        for (int type = TYPE_LAN; type < CLIENT_TYPES; ++type) {
            r.first[type] = 0;
            r.second[type] = 0;
        }
        r.present = 0;
    });
    load_client_period_file(local_tm(start), table, table.kind, is_readable(TIME_INITIALIZED));
}

client_usage_tables* client_usage_init()
{
    client_usage_tables* tables = static_cast<client_usage_tables*>(calloc(1, sizeof(client_usage_tables)));
    if (!tables)
        return nullptr;
    for (int kind = PERIOD_HOURLY; kind <= PERIOD_MONTHLY; ++kind) {
        tables->table[kind].kind = kind;
        mkdir(sys_path(client_backup_dir(kind)).c_str(), 0755);
        mkdir(sys_path(client_live_dir(kind)).c_str(), 0755);
        // Restores a backup taken before a restart.
        std::string command = std::string("cp -r ") + client_backup_dir(kind) + "/* " + client_live_dir(kind) + "/";
        sys_system(command.c_str());
    }
    struct tm now = local_tm(sys_time());
    load_client_period_file(now, tables->table[PERIOD_HOURLY], PERIOD_HOURLY, true);
    load_client_period_file(now, tables->table[PERIOD_DAILY], PERIOD_DAILY, true);
    now.tm_mday = 1;
    load_client_period_file(now, tables->table[PERIOD_MONTHLY], PERIOD_MONTHLY, true);
    ruvo_client_mac_usage_init();
    return tables;
}

void read_client_usage(client_usage_tables* tables)
{
    if (!tables)
        return;
    const time_t now = sys_time();
    for (client_table& table : tables->table) {
        time_t start = 0;
        if (client_period_start(table.kind, now, &start))
            check_client_period(table, start);
    }
    ruvo_client_mac_usage_fixup(now);

    reload_static_routes();
    reload_wan_addresses();
    for (client_table& table : tables->table)
        classify_clients(table);

    file_ptr f = open_for_reading(CLIENT_USAGE);
    if (!f)
        return;
    ruvo_client_mac_usage_prepare();
    time_t reading_time = 0;
    taglist* lan = load_taglist_ex(sys_path(LAN_CONFIG).c_str(), 1, 0);
    const char* lan_address = lan ? get_taglist_default_ex(lan, "", "LAN_IPADDR") : nullptr;
    const size_t lan_length = lan_address ? strlen(lan_address) : 0;

    char line[LINE_SIZE];
    line_reader lines(f.get());
    // The header's number after its first ':' is the time of the reading; a header without
    // one leaves it 0, deliberately: the clock is not used for the tables.
    if (lines.next(line, sizeof line)) {
        const char* colon = strchr(line, ':');
        if (colon && colon != line && isdigit(static_cast<unsigned char>(colon[1 + strspn(colon + 1, " \t")])))
            reading_time = static_cast<time_t>(strtoull(colon + 1, nullptr, 10));
        // A line of the common form is read where it lies, and its end found on the way;
        // any other piece is read the general way.
        usage_line u;
        const auto common_line = [&u](const char* text, size_t available, size_t room) {
            return read_common_usage_line(text, available, room, &u);
        };
        const char* piece = nullptr;
        size_t length = 0;
        while (lines.next_line(line, sizeof line, common_line, &piece, &length)) {
            if (piece && !parse_client_usage_line(piece, &u))
                continue;
            if (u.address_length == 0 ||
                (lan_address && u.address_length == lan_length && memcmp(u.address, lan_address, lan_length) == 0) ||
                is_wan_address(u.address, u.address_length))
                continue;
            if (u.address_length >= sizeof(client_record::address_text))
                continue;
            char text[sizeof(client_record::address_text)];
            memcpy(text, u.address, u.address_length);
            text[u.address_length] = '\0';
            uint32_t a = 0;
            if (u.address_read)
                a = u.address_value;
            else if (!address_from_text(text, &a))
                continue;
            if (never_a_client(a))
                continue;
            // The first record of the address's chain in each table is asked for before any
            // table is counted, so that the three tables' records are fetched side by side
            // rather than one table after the other. A hint only: nothing depends on it.
            const uint32_t chain = client_chain(a);
            for (const client_table& table : tables->table)
                __builtin_prefetch(table.chains[chain]);
            for (client_table& table : tables->table)
                count_client(table, *tables, a, text, u.first, u.second, reading_time);
        }
    }
    free_taglist(lan);
    ruvo_client_mac_usage_finalize();
}

void client_usage_free(client_usage_tables* tables)
{
    if (!tables)
        return;
    for (client_table& table : tables->table)
        free_client_records(table);
    free(tables);
    free_client_sources();
    free_mac_tables();
}
