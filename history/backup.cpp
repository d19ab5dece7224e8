#include "history/backup.h"

#include "core/atomic_file.h"
#include "core/link_usage.h"
#include "core/local_time.h"
#include "core/read_file.h"
#include "history/period_line.h"
#include "history/record_path.h"
#include "history/ring_history.h"
#include "platform/platform.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char* SCRATCH = "/tmp/ruvo.tmp";
constexpr const char* TIMESTAMP = "/tmp/ruvo_backup/timestamp";
constexpr const char* LIFETIME = "/tmp/ruvo_backup/lifetime_usage";
constexpr const char* LIFETIME_INIT = "/var/run/korel/lifetime_usage.init";
// Lines of up to 255 characters; a longer one is split by the reader.
constexpr int LINE_SIZE = 256;

struct backup_names {
    const char* wan;
    const char* sim;
};
constexpr backup_names HOURLY = {"/tmp/ruvo_backup/wan%d/ruvo.hourly.csv",
                                 "/tmp/ruvo_backup/wan%d/ruvo.sim%d.hourly.csv"};
constexpr backup_names DAILY = {"/tmp/ruvo_backup/wan%d/ruvo.daily.csv",
                                "/tmp/ruvo_backup/wan%d/ruvo.sim%d.daily.csv"};
constexpr backup_names MONTHLY = {"/tmp/ruvo_backup/wan%d/ruvo.monthly.csv",
                                  "/tmp/ruvo_backup/wan%d/ruvo.sim%d.monthly.csv"};
constexpr backup_names BILLING = {"/tmp/ruvo_backup/wan%d/ruvo.billing.csv",
                                  "/tmp/ruvo_backup/wan%d/ruvo.sim%d.billing.csv"};
constexpr backup_names MONTHLY_HISTORY = {"/var/run/korel/wan%d/usage_history.monthly",
                                          "/var/run/korel/wan%d/sim%d_usage_history.monthly"};
constexpr backup_names BILLING_HISTORY = {"/var/run/korel/wan%d/usage_history.billing",
                                          "/var/run/korel/wan%d/sim%d_usage_history.billing"};

void path_of(char (&path)[RECORD_PATH_SIZE], const wan_usage& r, const backup_names& names)
{
    record_path(path, r, names.wan, names.sim);
}

// The hourly or daily state: the running period, then the ring from the newest entry back
// to the tail, the tail included.
void backup_ring(wan_usage& r, const ring_period& p, const backup_names& names,
                 void (*write)(FILE*, const struct tm&, uint64_t, uint64_t))
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    const uint64_t* current = r.*p.current;
    write(out.stream(), local_tm(r.*p.bucket_time), current[0], current[1]);
    const usage_entry* ring = p.ring(r);
    const uint32_t head = r.*p.head;
    const uint32_t tail = r.*p.tail;
    if (!ring_empty(head, tail, p.ring_size)) {
        for (uint32_t i = head - 1;; --i) {
            const usage_entry& e = ring[i % p.ring_size];
            write(out.stream(), e.when, e.bytes[0], e.bytes[1]);
            if (i % p.ring_size == tail % p.ring_size)
                break;
        }
    }
    char path[RECORD_PATH_SIZE];
    path_of(path, r, names);
    out.commit(path);
}

// The monthly or billing state: the running period's line, then every line of the live
// history, its MiB turned back into bytes.
void backup_history(const wan_usage& r, time_t start, const uint64_t bytes[2],
                    const backup_names& history, const backup_names& names)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    write_period_backup_line(out.stream(), local_tm(start), r.sample_tm, bytes[0], bytes[1]);
    char path[RECORD_PATH_SIZE];
    path_of(path, r, history);
    if (file_ptr live = open_for_reading(path)) {
        char line[LINE_SIZE];
        while (fgets(line, sizeof line, live.get())) {
            struct tm first, last;
            uint64_t mib1, mib2;
            if (read_period_line(line, &first, &last, &mib1, &mib2))
                write_period_backup_line(out.stream(), first, last, mib1 << 20, mib2 << 20);
        }
    }
    path_of(path, r, names);
    out.commit(path);
}

// Replaces the time-stamp file by an empty one: its modification time is the time of the
// last backup.
void touch_timestamp()
{
    std::string path = sys_path(TIMESTAMP);
    unlink(path.c_str());
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd >= 0)
        close(fd);
}

// One decimal number per line, as "%lu" or "%lld" read them; 0 when the line holds none.
// A value beyond 64 bits is held at the end of the range rather than left undefined.
unsigned long long read_number_line(FILE* f, bool is_signed)
{
    char line[64];
    if (!fgets(line, sizeof line, f))
        return 0;
    if (is_signed)
        return static_cast<unsigned long long>(strtoll(line, nullptr, 10));
    return strtoull(line, nullptr, 10);
}

// Lifetime totals: the counts before this boot plus the counters of the latest sample.
void backup_lifetime()
{
    unsigned long long start = 0, stored1 = 0, stored2 = 0;
    if (file_ptr init = open_for_reading(LIFETIME_INIT)) {
        start = read_number_line(init.get(), false);
        stored1 = read_number_line(init.get(), true);
        stored2 = read_number_line(init.get(), true);
    }
    if (start == 0)
        return; // no lifetime count is kept
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    // The sums are taken in unsigned arithmetic (a signed overflow would be undefined) and
    // printed as the signed numbers the file has always held. The start time, "%lu" in the
    // file's layout, is printed as the 64-bit number it was read as, so that 32-bit and
    // 64-bit builds write the same digits, also for a time after 2106.
    fprintf(out.stream(), "%llu\n%lld\n%lld\n", start,
            static_cast<long long>(stored1 + link_usage_raw_sum[0]),
            static_cast<long long>(stored2 + link_usage_raw_sum[1]));
    out.commit(LIFETIME);
}

// Restores an hourly or daily backup into the record's running period and ring: the ring
// is filled from its end backwards, oldest line last, and a line of the same period as the
// one before it is skipped.
void restore_ring(wan_usage& r, const ring_period& p, const backup_names& names,
                  bool (*read)(const char*, struct tm*, uint64_t*, uint64_t*), bool hourly)
{
    char path[RECORD_PATH_SIZE];
    path_of(path, r, names);
    file_ptr in = open_for_reading(path);
    if (!in)
        return;
    char line[LINE_SIZE];
    struct tm accepted{};
    bool have_accepted = false;
    uint64_t* current = r.*p.current;
    if (fgets(line, sizeof line, in.get())) {
        struct tm when;
        uint64_t v1, v2;
        if (read(line, &when, &v1, &v2)) {
            current[0] = v1;
            current[1] = v2;
            r.*p.bucket_time = local_time_of(when);
            accepted = when;
            have_accepted = true;
        }
    }
    uint32_t& head = r.*p.head;
    uint32_t& tail = r.*p.tail;
    usage_entry* ring = p.ring(r);
    head = 0;
    tail = 0;
    while (fgets(line, sizeof line, in.get())) {
        struct tm when;
        uint64_t v1, v2;
        if (!read(line, &when, &v1, &v2))
            continue; // a malformed line is skipped
        if (have_accepted && when.tm_year == accepted.tm_year && when.tm_mon == accepted.tm_mon &&
            when.tm_mday == accepted.tm_mday && (!hourly || when.tm_hour == accepted.tm_hour))
            continue;
        tail -= 1;
        if (tail % p.ring_size == head % p.ring_size) {
            tail += 1; // the ring is full
            break;
        }
        usage_entry& e = ring[tail % p.ring_size];
        e = usage_entry{};
        e.when = when;
        e.when.tm_isdst = -1;
        e.bytes[0] = v1;
        e.bytes[1] = v2;
        accepted = when;
        have_accepted = true;
    }
    in.reset();
    write_ring_history(r, p);
}

// Restores a monthly or billing backup: the first line is the running period, the rest is
// written to the live history in MiB, a line of the same month as the one before skipped.
// Returns false when the backup is missing.
bool restore_history(wan_usage& r, const backup_names& names, const backup_names& history,
                     struct tm* first_start, struct tm* first_end, uint64_t first_bytes[2],
                     bool* have_first)
{
    char path[RECORD_PATH_SIZE];
    path_of(path, r, names);
    file_ptr in = open_for_reading(path);
    if (!in)
        return false;
    *have_first = false;
    char line[LINE_SIZE];
    struct tm accepted{};
    bool have_accepted = false;
    if (fgets(line, sizeof line, in.get())) {
        uint64_t v1, v2;
        if (read_period_line(line, first_start, first_end, &v1, &v2)) {
            first_bytes[0] = v1;
            first_bytes[1] = v2;
            accepted = *first_start;
            have_accepted = true;
            *have_first = true;
        }
    }
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return true;
    while (fgets(line, sizeof line, in.get())) {
        struct tm first, last;
        uint64_t v1, v2;
        if (!read_period_line(line, &first, &last, &v1, &v2))
            continue;
        if (have_accepted && first.tm_year == accepted.tm_year && first.tm_mon == accepted.tm_mon)
            continue;
        write_period_line(out.stream(), first, last, to_mib(v1), to_mib(v2));
        accepted = first;
        have_accepted = true;
    }
    path_of(path, r, history);
    out.commit(path);
    return true;
}

// Local midnight of the day of tm.
time_t midnight_of(struct tm tm)
{
    tm.tm_hour = 0;
    tm.tm_min = 0;
    tm.tm_sec = 0;
    return normalise_local(&tm);
}

} // namespace

void backup_usage(wan_usage* records, int count)
{
    for (int i = 0; i < count; ++i)
        backup_ring(records[i], hourly_period, HOURLY, write_hourly_backup_line);
    for (int i = 0; i < count; ++i)
        backup_ring(records[i], daily_period, DAILY, write_daily_backup_line);
    for (int i = 0; i < count; ++i)
        backup_history(records[i], records[i].month_start, records[i].month_bytes, MONTHLY_HISTORY,
                       MONTHLY);
    // Also for records without a billing cycle: their running line is dropped by the 2009
    // rule while billing_start is 0.
    for (int i = 0; i < count; ++i)
        backup_history(records[i], records[i].billing_start, records[i].billing_bytes,
                       BILLING_HISTORY, BILLING);
    touch_timestamp();
    backup_lifetime();
}

void restore_hourly(wan_usage& r) { restore_ring(r, hourly_period, HOURLY, read_hourly_backup_line, true); }
void restore_daily(wan_usage& r) { restore_ring(r, daily_period, DAILY, read_daily_backup_line, false); }

void restore_monthly(wan_usage& r)
{
    struct tm start, end;
    uint64_t bytes[2];
    bool have_first = false;
    if (restore_history(r, MONTHLY, MONTHLY_HISTORY, &start, &end, bytes, &have_first) && have_first) {
        r.month_start = midnight_of(start);
        r.month_bytes[0] = bytes[0];
        r.month_bytes[1] = bytes[1];
    }
}

void restore_billing(wan_usage& r)
{
    struct tm start, end;
    uint64_t bytes[2];
    bool have_first = false;
    if (restore_history(r, BILLING, BILLING_HISTORY, &start, &end, bytes, &have_first) && have_first) {
        // The configuration loader works billing_end out again on the first tick.
        r.billing_start = midnight_of(start);
        r.billing_end = midnight_of(end);
        r.billing_bytes[0] = bytes[0];
        r.billing_bytes[1] = bytes[1];
    }
}

void restore_usage(wan_usage* records, int count)
{
    for (int i = 0; i < count; ++i) {
        restore_hourly(records[i]);
        restore_daily(records[i]);
        restore_monthly(records[i]);
        restore_billing(records[i]);
    }
}
