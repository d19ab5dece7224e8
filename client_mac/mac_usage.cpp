#include "client_mac/mac_usage.h"

#include "client_mac/arp_line.h"
#include "core/digit_values.h"
#include "core/entry_blocks.h"
#include "core/read_file.h"
#include "platform/platform.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

mac_usage_entry* mac_usage_table[MAC_BUCKETS];
int mac_usage_count;
time_t mac_usage_hour;

namespace {

constexpr const char* PROC_NET_ARP = "/proc/net/arp";
constexpr const char* EVENT_PIPE = "/etc/event_pipe";
constexpr const char* DELETED_ARP = "/var/run/korel/deleted_arp.wlan";
constexpr const char* DELETED_ARP_TAKEN = "/var/run/korel/deleted_arp.wlan.ruvo";
constexpr const char* DUMP_REQUEST = "[DUMP DELETED ARP]\n";
constexpr int LINE_SIZE = 1024;
// The deleted-entry file is looked for three times, 50 ms apart: about 100 ms in all.
constexpr int DELETED_ARP_TESTS = 3;
constexpr long DELETED_ARP_WAIT_NS = 50L * 1000 * 1000;

// An ARP entry: 16 bytes on every CPU. The entries of a chain are linked by their place in
// their table's store rather than by pointer, which on a 64-bit CPU would make an entry 24
// bytes (two snapshots of 16,384 clients: 256 KiB more).
struct arp_entry {
    uint64_t mac;
    uint32_t address;
    uint32_t next; // the next entry of the chain: its place in the store + 1, 0 at the end
};
// 256 entries a block.
constexpr size_t ARP_BLOCK = 256;
// Up to this many entries, emptying clears the heads of their buckets one by one; above,
// the whole array at once.
constexpr size_t FEW_ENTRIES = 256;

// A hash table of ARP entries: each bucket a chain from its newest entry to its oldest.
struct arp_table {
    uint32_t heads[MAC_BUCKETS]; // each chain's newest entry: its place + 1, 0 for none
    entry_blocks<arp_entry, ARP_BLOCK> entries;
};

arp_table arp_tables[2];
unsigned arp_generation;
arp_table deleted_arp_table;

// 256 usage entries a block.
constexpr size_t USAGE_BLOCK = 256;
entry_blocks<mac_usage_entry, USAGE_BLOCK> usage_entries;

// Where add_hourly_mac_usage looks first: the place in usage_entries after the entry it
// found last. The readings of an hour list the clients in the same order, and the entries
// that the hour's first reading made are in the store in that order, so the entry after the
// last one found is nearly always the one sought, and it is found without a walk along its
// bucket's chain (at 16,384 clients, four entries anywhere in 640 KiB). A key is only taken
// from the guess while every key is in the table once (unique_keys): then the entry with the
// key is the one the chain walk finds. insert_mac_usage does not merge (the lines of a
// loaded hour file each make an entry): when it makes a second entry of a key, the walk
// finds the newer one, and from then on the table is always walked, until it is emptied.
size_t next_guess;
bool unique_keys = true;

// The last address resolve_mac looked up and its MAC: the client accounting adds the
// changes of one client's source types one after another, and all resolve alike. Any change
// of the ARP tables forgets it.
bool resolved_known;
uint32_t resolved_address;
uint64_t resolved_mac;

unsigned arp_bucket(uint32_t address) { return ntohl(address) & 0xfffu; }

unsigned usage_bucket(uint64_t mac, uint32_t address)
{
    return mac ? static_cast<unsigned>(mac & 0xfffu) : arp_bucket(address);
}

inline bool add_arp(arp_table& table, uint32_t address, uint64_t mac)
{
    resolved_known = false;
    // Places are counted in 32 bits (a snapshot has one entry per line of /proc/net/arp).
    const size_t place = table.entries.used;
    if (place >= UINT32_MAX)
        return false;
    arp_entry* e = take_entry(table.entries);
    if (!e)
        return false;
    e->address = address;
    e->mac = mac;
    uint32_t& head = table.heads[arp_bucket(address)];
    e->next = head;
    head = static_cast<uint32_t>(place + 1);
    return true;
}

// The entry of a key that its bucket's chain meets first (the newest), or null.
mac_usage_entry* find_usage(uint64_t mac, uint32_t address, int32_t type)
{
    for (mac_usage_entry* e = mac_usage_table[usage_bucket(mac, address)]; e; e = e->next)
        if (e->mac == mac && e->address == address && e->type == type)
            return e;
    return nullptr;
}

// Sets next_guess after e, when e is in the block of the guess or the next one (a client
// or a few gone since the hour's first reading, or two addresses of one MAC); any other
// place leaves the guess where it is, for the clients after it.
void guess_after(const mac_usage_entry* e)
{
    const size_t block = next_guess / USAGE_BLOCK;
    for (size_t b = block; b < block + 2 && b < usage_entries.block_count; ++b) {
        const uintptr_t start = reinterpret_cast<uintptr_t>(usage_entries.blocks[b]);
        const uintptr_t at = reinterpret_cast<uintptr_t>(e);
        if (at >= start && at < start + USAGE_BLOCK * sizeof *e) {
            next_guess = b * USAGE_BLOCK + (at - start) / sizeof *e + 1;
            return;
        }
    }
}

// A new entry at the head of its bucket, unless the table is full or memory runs out.
mac_usage_entry* insert_entry(uint64_t mac, uint32_t address, int32_t type, uint64_t second, uint64_t first)
{
    if (mac_usage_count >= MAC_USAGE_MAX)
        return nullptr;
    mac_usage_entry* e = take_entry(usage_entries);
    if (!e)
        return nullptr;
    e->mac = mac;
    e->address = address;
    e->type = type;
    e->second = second;
    e->first = first;
    mac_usage_entry*& head = mac_usage_table[usage_bucket(mac, address)];
    e->next = head;
    head = e;
    ++mac_usage_count;
    return e;
}

void empty_arp(arp_table& table)
{
    resolved_known = false;
    const size_t used = table.entries.used;
    if (used <= FEW_ENTRIES) {
        for (size_t i = 0; i < used; ++i)
            table.heads[arp_bucket(entry_at(table.entries, i).address)] = 0;
    } else
        std::fill(std::begin(table.heads), std::end(table.heads), 0u);
    empty_entries(table.entries);
}

void free_arp(arp_table& table)
{
    empty_arp(table);
    free_entries(table.entries);
}

// The first entry of the address's bucket with that address (the one added last), or null.
const arp_entry* find_arp(const arp_table& table, uint32_t address)
{
    for (uint32_t at = table.heads[arp_bucket(address)]; at != 0;) {
        const arp_entry& e = entry_at(table.entries, at - 1);
        if (e.address == address)
            return &e;
        at = e.next;
    }
    return nullptr;
}

// Loads the ARP table: complete entries (flags 2 or 6) on LAN bridge interfaces ("br...").
int load_proc_net_arp(arp_table& table)
{
    file_ptr f = open_for_reading(PROC_NET_ARP);
    if (!f)
        return -1;
    char spare[LINE_SIZE];
    line_reader lines(f.get());
    // A line in the kernel's layout is read where it lies, and its end found on the way; any
    // other piece is read the general way.
    arp_line_values values;
    const auto kernel_line = [&values](const char* text, size_t available, size_t room) {
        return read_kernel_arp_line(text, available, room, &values);
    };
    const char* piece = nullptr;
    size_t length = 0;
    while (lines.next_line(spare, sizeof spare, kernel_line, &piece, &length)) {
        if (piece && !read_arp_line(piece, length, &values))
            continue;
        if (!values.bridge)
            continue;
        if (values.flags_low_byte != 2 && values.flags_low_byte != 6)
            continue;
        if (!add_arp(table, values.address, values.mac))
            break;
    }
    return 0;
}

// Loads the wireless side's list of deleted ARP entries; the first MAC listed for an
// address wins.
int load_deleted_arp(const char* path)
{
    file_ptr f = open_for_reading(path);
    if (!f)
        return -1;
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, f.get())) {
        char ip[16], mac[18];
        if (sscanf(line, "%15[0-9.] %17[0-9A-Fa-f:]", ip, mac) != 2)
            continue;
        struct in_addr a;
        if (!inet_aton(ip, &a) || a.s_addr == 0)
            continue;
        const arp_entry* known = find_arp(deleted_arp_table, a.s_addr);
        if (known && known->mac != 0)
            continue;
        if (!add_arp(deleted_arp_table, a.s_addr, parse_mac_text(mac)))
            break;
    }
    return 0;
}

// Asks the wireless side for its deleted entries. The pipe is opened without blocking: with
// nobody reading it the request is skipped for this reading, and the tick goes on.
bool request_deleted_arp_dump()
{
    // The open is the test of whether the pipe exists: a missing pipe fails it as it
    // fails an access(F_OK) first, in one call less.
    int fd = open(sys_path(EVENT_PIPE).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    ssize_t written = write(fd, DUMP_REQUEST, strlen(DUMP_REQUEST));
    (void)written; // a full pipe only loses this reading's list
    close(fd);
    return true;
}

bool wait_for_deleted_arp()
{
    for (int test = 1;; ++test) {
        if (path_exists(DELETED_ARP))
            return true;
        if (test == DELETED_ARP_TESTS)
            return false;
        struct timespec pause = {0, DELETED_ARP_WAIT_NS};
        nanosleep(&pause, nullptr);
    }
}


} // namespace

uint64_t parse_mac_text(const char* text)
{
    // Any text as the six strtoll fields read it. Not inlined, so that the common form
    // below needs no stack frame of its own.
    const auto by_strtoll = [](const char* p) __attribute__((noinline)) -> uint64_t {
        uint64_t mac = 0;
        for (int field = 0; field < 6; ++field) {
            char* end = nullptr;
            long long value = strtoll(p, &end, 16);
            if (end == p)
                return 0; // a field without digits: no MAC
            mac = (mac << 8) + static_cast<uint64_t>(value);
            p = end;
            if (field < 5 && *p != '\0')
                ++p; // the separator, whatever it is
        }
        return mac;
    };
    // A pair of hexadecimal digits as a number, 256 when either byte is no digit; the
    // second byte is looked at only after the first was found to be a digit.
    const auto hex_pair = [](const unsigned char* t) -> unsigned {
        const unsigned high = hex_digit(static_cast<char>(t[0]));
        if (high > 15)
            return 256;
        const unsigned low = hex_digit(static_cast<char>(t[1]));
        if (low > 15)
            return 256;
        return high << 4 | low;
    };
    // The common form, six pairs with ':' between and no digit after, read here: strtoll
    // reads each pair as the same number. Each pair is read only after the ':' before it,
    // so nothing past the end of the text is read. The first three pairs and the last three
    // are put together in 32 bits each, which 32-bit CPUs do in single registers.
    const unsigned char* t = reinterpret_cast<const unsigned char*>(text);
    uint32_t high = 0, low = 0;
#pragma GCC unroll 3
    for (int pair = 0; pair < 3; ++pair, t += 3) {
        const unsigned b = hex_pair(t);
        if (b > 255 || t[2] != ':')
            return by_strtoll(text);
        high = high << 8 | b;
    }
#pragma GCC unroll 3
    for (int pair = 3; pair < 6; ++pair, t += 3) {
        const unsigned b = hex_pair(t);
        if (b > 255 || (pair < 5 ? t[2] != ':' : hex_digit(static_cast<char>(t[2])) <= 15))
            return by_strtoll(text);
        low = low << 8 | b;
    }
    return static_cast<uint64_t>(high) << 24 | low;
}

mac_usage_entry* insert_mac_usage(uint64_t mac, uint32_t address, int32_t type, uint64_t second, uint64_t first)
{
    if (find_usage(mac, address, type))
        unique_keys = false; // the key will be in the table twice
    return insert_entry(mac, address, type, second, first);
}

void empty_mac_usage_table()
{
    // Every entry of the table is in usage_entries: a small table clears the heads of its
    // entries' buckets, a large one the whole array.
    const size_t used = usage_entries.used;
    if (used <= FEW_ENTRIES) {
        for (size_t i = 0; i < used; ++i) {
            const mac_usage_entry& e = entry_at(usage_entries, i);
            mac_usage_table[usage_bucket(e.mac, e.address)] = nullptr;
        }
    } else
        std::fill(std::begin(mac_usage_table), std::end(mac_usage_table), nullptr);
    empty_entries(usage_entries);
    mac_usage_count = 0;
    next_guess = 0;
    unique_keys = true;
}

uint64_t resolve_mac(uint32_t address)
{
    if (resolved_known && resolved_address == address)
        return resolved_mac;
    // The current snapshot, the previous one (the other table of the two: arp_generation
    // - 1 and arp_generation differ in their lowest bit, also when the count wraps), then the
    // deleted list. An entry without a MAC lets the next table answer.
    const unsigned current = arp_generation & 1u;
    const arp_entry* e = find_arp(arp_tables[current], address);
    if (!e || e->mac == 0)
        e = find_arp(arp_tables[current ^ 1u], address);
    if (!e || e->mac == 0)
        e = find_arp(deleted_arp_table, address);
    resolved_mac = e ? e->mac : 0;
    resolved_address = address;
    resolved_known = true;
    return resolved_mac;
}

int ruvo_client_mac_usage_init()
{
    time_t now = sys_time();
    mac_usage_hour = now - now % 3600;
    mkdir(sys_path("/var/run/korel/client_usage_mac_hourly").c_str(), 0755);
    mkdir(sys_path("/tmp/ruvo_client_mac_hourly").c_str(), 0755);
    // Restores the backup of the hourly files after a restart.
    sys_system("cp -f /tmp/ruvo_client_mac_hourly/* /var/run/korel/client_usage_mac_hourly/");
    return load_mac_hour_file(mac_usage_hour);
}

void ruvo_client_mac_usage_fixup(time_t now)
{
    time_t hour = now - now % 3600;
    if (hour == mac_usage_hour)
        return;
    // A new hour starts a fresh table; a return to an hour already saved continues from its
    // file.
    empty_mac_usage_table();
    mac_usage_hour = hour;
    load_mac_hour_file(hour);
}

int ruvo_client_mac_usage_prepare()
{
    bool requested = request_deleted_arp_dump();
    if (load_proc_net_arp(arp_tables[arp_generation % 2]) != 0)
        return -1;
    if (!requested)
        return 0;
    if (!wait_for_deleted_arp())
        return -1;
    // Taken under another name, so that the wireless side can write a new list meanwhile.
    std::string taken = sys_path(DELETED_ARP_TAKEN);
    rename(sys_path(DELETED_ARP).c_str(), taken.c_str());
    load_deleted_arp(DELETED_ARP_TAKEN);
    return unlink(taken.c_str());
}

void add_hourly_mac_usage(uint32_t address, int32_t type, uint64_t second, uint64_t first)
{
    uint64_t mac = resolve_mac(address);
    uint32_t key_address = mac ? 0 : address;
    int32_t key_type = mac ? 1 : type;
    if (unique_keys && next_guess < usage_entries.used) {
        mac_usage_entry& e = entry_at(usage_entries, next_guess);
        if (e.mac == mac && e.address == key_address && e.type == key_type) {
            e.first += first;
            e.second += second;
            ++next_guess;
            return;
        }
    }
    if (mac_usage_entry* e = find_usage(mac, key_address, key_type)) {
        e->first += first;
        e->second += second;
        guess_after(e);
        return;
    }
    // A client new in the hour: its entry goes to the end of the store, and the guess stays
    // with the clients after it. Dropped when the table is full.
    insert_entry(mac, key_address, key_type, second, first);
}

void ruvo_client_mac_usage_finalize()
{
    next_guess = 0; // the next reading lists the clients from the first again
    resolved_known = false; // the current snapshot becomes the previous one
    ++arp_generation;
    // The table of the snapshot before the previous one becomes the current table, empty.
    empty_arp(arp_tables[arp_generation % 2]);
    empty_arp(deleted_arp_table);
}

void free_mac_tables()
{
    empty_mac_usage_table();
    free_entries(usage_entries);
    free_arp(arp_tables[0]);
    free_arp(arp_tables[1]);
    free_arp(deleted_arp_table);
}
