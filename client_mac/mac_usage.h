// Per-client usage of the current hour keyed by MAC address.
//
// On every reading the module snapshots the ARP table (LAN bridge interfaces only), asks
// the wireless side for its recently deleted ARP entries, and resolves every counted change
// of the client accounting to a MAC through the current snapshot, then the previous one,
// then the deleted list. Traffic whose MAC cannot be found is kept under its IP address.
#pragma once

#include <cstdint>
#include <ctime>

// A usage entry: keyed by (mac, address, type); mac 0 means kept by address.
struct mac_usage_entry {
    uint64_t mac;      // 48-bit MAC, first octet most significant; 0 when unknown
    uint32_t address;  // IPv4 address (network byte order) when mac is 0, else 0
    int32_t type;      // source type index
    uint64_t second;   // bytes
    uint64_t first;    // bytes
    mac_usage_entry* next;
};

constexpr int MAC_BUCKETS = 4096;
constexpr int MAC_USAGE_MAX = 16384;

// Reads a MAC address text: six hexadecimal numbers (as strtoll with base 16 reads them),
// each separated by exactly one character of any kind, shifted in eight bits at a time.
// A field without digits gives 0 (no MAC). A field is not limited to two digits.
uint64_t parse_mac_text(const char* text);

// Sets the table's hour from the current time, creates the live and backup directories,
// restores the backup and loads the current hour's file. Returns the loader's result.
int ruvo_client_mac_usage_init();
// A reading at another hour than the table's empties the table and loads that hour's file.
void ruvo_client_mac_usage_fixup(time_t now);
// Takes the ARP snapshot and the deleted-entry list. Returns -1 when "/proc/net/arp" cannot
// be opened or the deleted-entry file does not appear, else 0 or the removal's result.
int ruvo_client_mac_usage_prepare();
// Adds one counted change of the hourly table to the client's MAC entry, or to its address
// entry when no MAC is known.
void add_hourly_mac_usage(uint32_t address, int32_t type, uint64_t second, uint64_t first);
// Adds one counted change of the hourly table (other kinds are ignored) to the client's MAC
// entry, or to its address entry when no MAC is known. The values are always added,
// deliberately, also when they are the totals of a fresh period. The accounting calls it
// for each of its three tables; the other kinds are passed over here, without a call.
inline void ruvo_client_mac_usage_add(uint32_t address, int32_t type, uint64_t second, uint64_t first,
                                      int32_t kind, int32_t /*is_delta*/)
{
    if (kind == 0)
        add_hourly_mac_usage(address, type, second, first);
}
// Ends a reading: the snapshot just taken becomes the previous one.
void ruvo_client_mac_usage_finalize();
// Empties the usage table and the ARP tables and frees all their memory (a clean shutdown;
// the daemon does not).
void free_mac_tables();

// The state of the module, for the hourly files and for tests.
extern mac_usage_entry* mac_usage_table[MAC_BUCKETS];
extern int mac_usage_count;
extern time_t mac_usage_hour;

// Inserts a new entry at the head of its bucket, also when its key is there already, unless
// the table is full or memory runs out; returns it or null.
mac_usage_entry* insert_mac_usage(uint64_t mac, uint32_t address, int32_t type, uint64_t second,
                                  uint64_t first);
// Removes every usage entry (their storage is kept for the next filling, see
// core/entry_blocks.h).
void empty_mac_usage_table();
// The MAC an address resolves to through the current snapshot, the previous one and the
// deleted list; 0 when none knows it.
uint64_t resolve_mac(uint32_t address);

// The hourly files (written after every reading, one per hour, the 3 newest kept).
void ruvo_client_mac_usage_save();
int load_mac_hour_file(time_t hour);
int ruvo_client_mac_usage_history_limit();
int ruvo_client_mac_usage_history_backup();
int ruvo_client_mac_usage_history_clear();
