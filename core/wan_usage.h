// The WAN usage record: the one accounting structure of the daemon.
//
// There is one record per WAN link and, for each dual-SIM cellular link, one more per SIM
// card. Traffic is always a pair of unsigned 64-bit byte counts, counter 1 then counter 2
// in the order of the kernel's link usage line; the pair is never swapped.
#pragma once

#include <cstdint>
#include <ctime>

// A finished hour or day of a record's ring: the period's start and its traffic.
struct usage_entry {
    struct tm when; // period start, tm_isdst = -1 so that mktime decides
    uint64_t bytes[2];
};

constexpr unsigned HOURLY_RING_SIZE = 32;
constexpr unsigned DAILY_RING_SIZE = 64;
constexpr unsigned NAME_SIZE = 128;

// history_flags bits: the history file of that period was rewritten on this tick.
constexpr uint32_t HISTORY_HOURLY_CHANGED = 1u << 31;
constexpr uint32_t HISTORY_DAILY_CHANGED = 1u << 30;
constexpr uint32_t HISTORY_MONTHLY_CHANGED = 1u << 29;

// usage_action bits.
constexpr uint32_t USAGE_ACTION_EMAIL = 1u << 0;
constexpr uint32_t USAGE_ACTION_DISCONNECT = 1u << 1;

struct wan_usage {
    int32_t wan_index;         // 0-based; file names use wan_index + 1
    time_t prev_sample_time;   // time of the sample before the last one
    time_t sample_time;        // time of the last kernel sample: "now" for every rollover
    struct tm sample_tm;       // local time of sample_time
    int32_t sim_slot_index;    // position in the dual-SIM list, -1 for a single-SIM link
    int32_t sim_number;        // 0 for a WAN record, 1 or 2 for the record of SIM 1 or SIM 2
    int32_t periods_initialised;
    int32_t timesync_privilege;
    uint32_t alert_state;
    uint64_t last_counter[2];  // WAN: raw kernel counters; SIM: running sum of credited deltas
    uint64_t delta[2];         // traffic of the last sample interval
    time_t hour_bucket_time;
    uint64_t hour_bytes[2];
    time_t day_bucket_time;
    uint64_t day_bytes[2];
    time_t billing_start;
    time_t billing_end;
    uint64_t billing_bytes[2];
    uint64_t quota_snapshot[2];
    time_t month_start;
    uint64_t month_bytes[2];
    int32_t billing_day_applied;
    int32_t start_day;         // 1..31 a day, 0 the last day of the month, -1 none configured
    uint32_t usage_action;
    uint64_t quota_bytes;
    char wan_name[NAME_SIZE];
    char snmp_name[NAME_SIZE];
    uint32_t daily_tail;       // ring indices only grow; always used modulo the ring size
    uint32_t daily_head;
    usage_entry daily[DAILY_RING_SIZE];
    uint32_t hourly_tail;
    uint32_t hourly_head;
    usage_entry hourly[HOURLY_RING_SIZE];
    uint32_t history_flags;
};

// Whether a ring with these indices holds no entry.
inline bool ring_empty(uint32_t head, uint32_t tail, uint32_t size)
{
    return head % size == tail % size;
}

// Stores one finished period at the head of a ring of `size` entries. When the ring is
// full the oldest entry is dropped, so a ring holds at most size - 1 entries.
void ring_push(usage_entry* ring, uint32_t size, uint32_t* head, uint32_t* tail,
               const usage_entry& entry);
