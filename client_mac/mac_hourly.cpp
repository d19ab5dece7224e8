// The MAC usage table's hourly files: one per hour, newest 3 kept, written after every
// reading and read back at start-up and when the hour changes.
#include "client_mac/mac_usage.h"
#include "core/atomic_file.h"
#include "core/client_kinds.h"
#include "core/dated_files.h"
#include "core/local_time.h"
#include "core/number_text.h"
#include "core/read_file.h"
#include "platform/platform.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char* LIVE_DIR = "/var/run/korel/client_usage_mac_hourly";
constexpr const char* TEMPORARY = "/var/run/korel/client_usage_mac_hourly/hour.tmp";
constexpr int FILES_KEPT = 3;
constexpr int LINES_MAX = 8192;
constexpr int ARRAY_STEP = 100;
constexpr int LINE_SIZE = 1024;

// "%Y-%m-%d-%H" of the hour's local time; empty when the time cannot be converted, and
// then no file is written or read for that hour.
std::string mac_hour_name(time_t hour)
{
    struct tm tm;
    char name[32];
    if (!localtime_r(&hour, &tm) || strftime(name, sizeof name, "%Y-%m-%d-%H", &tm) == 0)
        return std::string();
    return name;
}

uint64_t total(const mac_usage_entry& e) { return e.first + e.second; }

// Appends the six bytes of a MAC (the low 48 bits, first byte highest) as
// "%02X:%02X:%02X:%02X:%02X:%02X" prints them.
void append_mac_text(std::string& text, uint64_t mac)
{
    static const char HEX[] = "0123456789ABCDEF";
    char digits[17];
    for (int i = 0; i < 6; ++i) {
        const unsigned byte = static_cast<unsigned>((mac >> (40 - 8 * i)) & 0xff);
        digits[3 * i] = HEX[byte >> 4];
        digits[3 * i + 1] = HEX[byte & 0xf];
        if (i < 5)
            digits[3 * i + 2] = ':';
    }
    text.append(digits, sizeof digits);
}

// Appends an IPv4 address held in network byte order as inet_ntoa prints it: its four
// bytes in memory order, in decimal, with dots between.
void append_address_text(std::string& text, uint32_t address)
{
    unsigned char bytes[4];
    memcpy(bytes, &address, sizeof bytes);
    for (int i = 0; i < 4; ++i) {
        if (i > 0)
            text.push_back('.');
        append_unsigned(text, bytes[i]);
    }
}

// Larger totals first.
int compare_mac_usage(const void* a, const void* b)
{
    uint64_t ta = total(*static_cast<const mac_usage_entry*>(a));
    uint64_t tb = total(*static_cast<const mac_usage_entry*>(b));
    return ta < tb ? 1 : ta > tb ? -1 : 0;
}

int type_index(const char* name)
{
    for (int type = 0; type < CLIENT_TYPES; ++type)
        if (strcmp(name, client_usage_type_name[type]) == 0)
            return type;
    return TYPE_LAN; // "unkn" and any other name read back as "lan"
}

} // namespace

void ruvo_client_mac_usage_save()
{
    mac_usage_entry* entries = nullptr;
    int count = 0;
    int capacity = 0;
    for (const mac_usage_entry* head : mac_usage_table)
        for (const mac_usage_entry* e = head; e; e = e->next) {
            if (count == capacity) {
                void* grown = realloc(entries, sizeof(mac_usage_entry) * static_cast<size_t>(capacity + ARRAY_STEP));
                if (!grown) {
                    free(entries);
                    return;
                }
                entries = static_cast<mac_usage_entry*>(grown);
                capacity += ARRAY_STEP;
            }
            entries[count++] = *e;
        }
    if (count > 1)
        qsort(entries, static_cast<size_t>(count), sizeof(mac_usage_entry), compare_mac_usage);
    std::string name = mac_hour_name(mac_usage_hour);
    atomic_file out(TEMPORARY);
    if (!name.empty() && out.is_open()) {
        // The largest users of the hour.
        std::string& text = out.text();
        for (int i = 0; i < count && i < LINES_MAX; ++i) {
            const mac_usage_entry& e = entries[i];
            // "%s,%s,%llu,%llu\n": the MAC as "%02X:%02X:%02X:%02X:%02X:%02X", or "*" and the
            // dotted address (as inet_ntoa gives it) for an address without a MAC; the
            // source type; the two counts in KiB.
            if (e.mac != 0)
                append_mac_text(text, e.mac);
            else {
                text.push_back('*');
                append_address_text(text, e.address);
            }
            text.push_back(',');
            text.append(static_cast<uint32_t>(e.type) < CLIENT_TYPES ? client_usage_type_name[e.type] : "unkn");
            text.push_back(',');
            append_unsigned(text, e.first >> 10);
            text.push_back(',');
            append_unsigned(text, e.second >> 10);
            text.push_back('\n');
        }
        out.commit(dated_file_path(LIVE_DIR, name).c_str());
    }
    free(entries);
}

int load_mac_hour_file(time_t hour)
{
    std::string name = mac_hour_name(hour);
    if (name.empty())
        return 0;
    file_ptr f = open_for_reading(dated_file_path(LIVE_DIR, name).c_str());
    if (!f)
        return 0;
    empty_mac_usage_table();
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, f.get())) {
        char key[20], type_name[20];
        int consumed = 0;
        uint64_t mac = 0;
        uint32_t address = 0;
        if (line[0] == '*') {
            if (sscanf(line + 1, "%15[0-9.],%19[^,],%n", key, type_name, &consumed) != 2 || consumed == 0)
                continue;
            struct in_addr a;
            if (!inet_aton(key, &a) || a.s_addr == 0)
                continue;
            address = a.s_addr;
            consumed += 1;
        } else {
            if (sscanf(line, "%17[0-9A-Fa-f:],%19[^,],%n", key, type_name, &consumed) != 2 || consumed == 0)
                continue;
            mac = parse_mac_text(key);
            if (mac == 0)
                continue;
        }
        // The counts are unsigned KiB: a sign or a value beyond 64 bits makes the line skipped.
        uint64_t first = 0, second = 0;
        if (!parse_two_counts(line + consumed, &first, &second))
            continue;
        // Lines are not merged: a client named twice gives two entries.
        insert_mac_usage(mac, address, type_index(type_name), second << 10, first << 10);
    }
    return fclose(f.release());
}

int ruvo_client_mac_usage_history_limit()
{
    client_usage_dir_limit(LIVE_DIR, PERIOD_HOURLY, FILES_KEPT);
    return 0;
}

int ruvo_client_mac_usage_history_backup()
{
    return sys_system("rm -rf /tmp/ruvo_client_mac_hourly;cp -rf /var/run/korel/client_usage_mac_hourly "
                      "/tmp/ruvo_client_mac_hourly");
}

int ruvo_client_mac_usage_history_clear()
{
    return sys_system("rm -rf /var/run/korel/client_usage_mac_hourly");
}
