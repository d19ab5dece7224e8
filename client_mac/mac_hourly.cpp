// The MAC usage table's hourly files: one per hour, newest 3 kept, written after every
// reading and read back at start-up and when the hour changes.
#include "client_mac/mac_usage.h"
#include "core/atomic_file.h"
#include "core/client_kinds.h"
#include "core/dated_files.h"
#include "core/line_block.h"
#include "core/local_time.h"
#include "core/number_text.h"
#include "core/read_file.h"
#include "platform/platform.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char* LIVE_DIR = "/var/run/korel/client_usage_mac_hourly";
constexpr const char* TEMPORARY = "/var/run/korel/client_usage_mac_hourly/hour.tmp";
constexpr int FILES_KEPT = 3;
constexpr int LINES_MAX = 8192;
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

// "00" to "FF": the two upper-case hexadecimal digits of every byte value.
struct hex_pair_table {
    char digits[2 * 256];
    constexpr hex_pair_table() : digits()
    {
        constexpr char HEX[] = "0123456789ABCDEF";
        for (int byte = 0; byte < 256; ++byte) {
            digits[2 * byte] = HEX[byte >> 4];
            digits[2 * byte + 1] = HEX[byte & 0xf];
        }
    }
};
constexpr hex_pair_table HEX_PAIRS;

// Writes the six bytes of a MAC (the low 48 bits, first byte highest) as
// "%02X:%02X:%02X:%02X:%02X:%02X" prints them; returns the end.
char* write_mac_text(char* out, uint64_t mac)
{
    for (int i = 0; i < 6; ++i) {
        const unsigned byte = static_cast<unsigned>((mac >> (40 - 8 * i)) & 0xff);
        memcpy(out + 3 * i, HEX_PAIRS.digits + 2 * byte, 2);
        if (i < 5)
            out[3 * i + 2] = ':';
    }
    return out + 17;
}

// Writes an IPv4 address held in network byte order as inet_ntoa prints it: its four
// bytes in memory order, in decimal, with dots between; returns the end.
char* write_address_text(char* out, uint32_t address)
{
    unsigned char bytes[4];
    memcpy(bytes, &address, sizeof bytes);
    for (int i = 0; i < 4; ++i) {
        if (i > 0)
            *out++ = '.';
        out = write_unsigned(out, bytes[i]);
    }
    return out;
}

// The longest line: a MAC (17 characters, more than '*' and an address), a type name, two
// counts, three commas and the newline.
constexpr size_t LINE_MAX_TEXT = 17 + CLIENT_TYPE_NAME_MAX + 2 * UNSIGNED_DIGITS_MAX + 3 + 1;

// Writes an entry's line: "%s,%s,%llu,%llu\n": the MAC as "%02X:%02X:%02X:%02X:%02X:%02X",
// or "*" and the dotted address (as inet_ntoa gives it) for an address without a MAC; the
// source type; the two counts in KiB. Returns the end.
char* write_entry_line(char* out, const mac_usage_entry& e)
{
    if (e.mac != 0)
        out = write_mac_text(out, e.mac);
    else {
        *out++ = '*';
        out = write_address_text(out, e.address);
    }
    *out++ = ',';
    if (static_cast<uint32_t>(e.type) < CLIENT_TYPES) {
        memcpy(out, client_usage_type_name[e.type], client_usage_type_name_length[e.type]);
        out += client_usage_type_name_length[e.type];
    } else {
        memcpy(out, "unkn", 4);
        out += 4;
    }
    *out++ = ',';
    out = write_unsigned(out, e.first >> 10);
    *out++ = ',';
    out = write_unsigned(out, e.second >> 10);
    *out++ = '\n';
    return out;
}

// An entry to be written and its total: the sort key.
struct save_key {
    uint64_t total;
    const mac_usage_entry* entry;
};

// Sorts the keys by total, larger first, and entries with equal totals in the order they
// are given: a stable radix sort, least significant byte first, on the complemented totals.
// Only the places up to the highest byte of the largest total (largest_bits, the OR of all
// totals) are looked at: above it every key's byte is 0xff. One pass over the keys counts
// the bytes of those places at once (tallies that do not wait on one another, where a tally
// per pass waits on its own last increment whenever keys share a byte); a place whose byte
// is the same in every key is then passed over, so a table whose totals stay below 2^40 (an
// hour's nearly always do) is counted in 5 places and scattered 5 times at most. Returns
// where the sorted keys are: keys or scratch, of the same size; count is below 2^32 (the
// table holds at most MAC_USAGE_MAX entries). A radix sort rather than a comparison sort:
// the order is the same, but 16,384 entries cost some 230,000 comparisons, of which every
// other one is a branch the CPU cannot predict.
save_key* sort_by_total(save_key* keys, save_key* scratch, size_t count, uint64_t largest_bits)
{
    if (count == 0)
        return keys;
    unsigned places = 1;
    while (places < 8 && (largest_bits >> (8 * places)) != 0)
        ++places;
    uint32_t tally[8][256] = {};
    for (size_t i = 0; i < count; ++i) {
        const uint64_t key = ~keys[i].total;
        for (unsigned place = 0; place < places; ++place)
            ++tally[place][(key >> (8 * place)) & 0xff];
    }
    for (unsigned place = 0; place < places; ++place) {
        const unsigned shift = 8 * place;
        uint32_t* const start = tally[place];
        if (start[(~keys[0].total >> shift) & 0xff] == count)
            continue; // the same byte in every key
        uint32_t at = 0;
        for (unsigned byte = 0; byte < 256; ++byte) {
            const uint32_t n = start[byte];
            start[byte] = at;
            at += n;
        }
        for (size_t i = 0; i < count; ++i)
            scratch[start[(~keys[i].total >> shift) & 0xff]++] = keys[i];
        std::swap(keys, scratch);
    }
    return keys;
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
    // One array for all entries (the table counts them) and one for the sort, gathered
    // bucket by bucket, each chain from its head.
    const size_t capacity = mac_usage_count > 0 ? static_cast<size_t>(mac_usage_count) : 0;
    save_key* keys = nullptr;
    if (capacity > 0) {
        if (capacity > SIZE_MAX / (2 * sizeof(save_key)))
            return;
        keys = static_cast<save_key*>(malloc(2 * capacity * sizeof(save_key)));
        if (!keys)
            return;
    }
    size_t count = 0;
    uint64_t largest_bits = 0;
    for (const mac_usage_entry* head : mac_usage_table)
        for (const mac_usage_entry* e = head; e && count < capacity; e = e->next) {
            const uint64_t t = total(*e);
            keys[count++] = save_key{t, e};
            largest_bits |= t;
        }
    // Larger totals first, and entries with equal totals in the order in which they were
    // gathered: the order the files have always had (the C library's stable merge sort gave
    // it before), so that the same table always gives the same file and which entries make
    // the 8192-line cut does not change.
    const save_key* sorted = count > 1 ? sort_by_total(keys, keys + capacity, count, largest_bits) : keys;
    const size_t lines = count < static_cast<size_t>(LINES_MAX) ? count : static_cast<size_t>(LINES_MAX);
    std::string name = mac_hour_name(mac_usage_hour);
    atomic_file out(TEMPORARY);
    if (!name.empty() && out.is_open()) {
        // The largest users of the hour (8,192 lines are over 300 KiB).
        line_block block(out, LINE_MAX_TEXT, lines * 40);
        for (size_t i = 0; i < lines; ++i) {
            // The entries are met in the order of their totals, all over the table's memory:
            // the one some lines ahead is asked for now, so that it is there when its line
            // is written. A hint only: nothing depends on it.
            constexpr size_t AHEAD = 8;
            if (i + AHEAD < lines)
                __builtin_prefetch(sorted[i + AHEAD].entry);
            block.written(write_entry_line(block.room(), *sorted[i].entry));
        }
        block.finish();
        out.commit(dated_file_path(LIVE_DIR, name).c_str());
    }
    free(keys);
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
    line_reader lines(f.get());
    while (lines.next(line, sizeof line)) {
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
