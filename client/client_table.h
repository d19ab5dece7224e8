// The client usage tables: per client IPv4 address and source type, the traffic of the
// current hour, day and month.
#pragma once

#include "core/client_kinds.h"
#include "core/entry_blocks.h"

#include <cstdint>
#include <ctime>
#include <memory>

// Chains per table: an address is found in chain (address, first octet most significant)
// modulo 8191, so that a reading stays linear in the number of clients.
constexpr uint32_t CLIENT_CHAINS = 8191;

// A client of a table. The fields are ordered for the walks of every reading and take
// 128 bytes on a 64-bit build, without padding: what a step along a chain compares (the
// address beside the link), the flags the classification sets and the second counters fill
// the first 64 bytes, so that a record passed over on a chain costs one cache line, not
// two. address_text is NUL-padded to its end, so that it can be copied whole into a line
// and the line continued after address_length characters.
struct client_record {
    client_record* next;
    uint32_t address;          // network byte order
    uint8_t present;           // created or changed in the current period: written to the files
    uint8_t baseline_pending;  // set at creation, cleared by the first counted reading
    uint8_t type;              // 1..5, 0 until classified
    uint8_t address_length;    // characters of address_text before its NUL
    uint64_t second[CLIENT_TYPES];
    uint64_t first[CLIENT_TYPES];
    char address_text[16];
};

// Records are taken from blocks of 64 owned by their table (8 KiB on a 64-bit build), so
// that a record costs no allocator header (49,152 records at 16,384 clients) and the
// table frees them all at once.
constexpr size_t CLIENT_RECORD_BLOCK = 64;

struct client_table {
    time_t time;       // time of the latest reading, or the start of a loaded file's period
    time_t prev_time;
    int kind;
    // Records in the chains. Records are only added (add_client) until the tables are
    // freed, so a table without any is passed over at once by the walks of every tick
    // rather than through its 8,191 empty chains.
    uint32_t records;
    entry_blocks<client_record, CLIENT_RECORD_BLOCK> store; // the records
    client_record* chains[CLIENT_CHAINS];
};

struct client_usage_tables {
    client_table table[3]; // hourly, daily, monthly
};

// The chain of an address given in network byte order.
uint32_t client_chain(uint32_t address);

// Frees every record of the table and empties its chains.
void free_client_records(client_table& table);

// The record of an address in a table, or null.
client_record* find_client(client_table& table, uint32_t address);

// A new zeroed record at the head of its chain, present and baseline pending; null when
// memory runs out (the line is then not counted in that table).
client_record* add_client(client_table& table, uint32_t address, const char* address_text);

// The source type of a type name of the history files: 1 ("lan") for a name it does not know.
int client_type_of(const char* name);

// Start of the period of the given kind that holds t (local time): the hour, the day, or the
// month. Returns false for a kind other than 0 to 2.
bool client_period_start(int kind, time_t t, time_t* start);
