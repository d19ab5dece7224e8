#include "history/ring_history.h"

#include "core/atomic_file.h"
#include "core/local_time.h"
#include "core/own_files.h"
#include "core/read_file.h"
#include "history/period_line.h"
#include "history/record_path.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* SCRATCH = "/tmp/ruvo.tmp";
constexpr int CLIENT_LINE_SIZE = 128;
constexpr int CLIENT_PATH_SIZE = 256;

usage_entry* hourly_ring(wan_usage& r) { return r.hourly; }
usage_entry* daily_ring(wan_usage& r) { return r.daily; }

void hour_start(struct tm* tm)
{
    tm->tm_min = 0;
    tm->tm_sec = 0;
}

void hour_end(struct tm* tm)
{
    tm->tm_min = 59;
    tm->tm_sec = 59;
}

void day_start(struct tm* tm)
{
    tm->tm_hour = 0;
    tm->tm_min = 0;
    tm->tm_sec = 0;
}

void day_end(struct tm* tm)
{
    tm->tm_hour = 23;
    tm->tm_min = 59;
    tm->tm_sec = 59;
}

} // namespace

const ring_period hourly_period = {
    "/var/run/korel/wan%d/usage_history.hourly",
    "/var/run/korel/wan%d/sim%d_usage_history.hourly",
    "/var/run/korel/wan%d/link_usage_hourly.csv",
    "/var/run/korel/wan%d/sim%d_usage_hourly.csv",
    "/var/run/korel/link_usage_hourly_total.csv",
    "/var/run/korel/client_usage_hourly",
    "/var/run/korel/client_usage_hourly/%s",
    HOURLY_RING_SIZE,
    23,
    TOTAL_HOURLY_ROWS,
    HISTORY_HOURLY_CHANGED,
    &wan_usage::hour_bucket_time,
    &wan_usage::hour_bytes,
    &wan_usage::hourly_head,
    &wan_usage::hourly_tail,
    hourly_ring,
    &period_clock::hour_start,
    &period_clock::hour_end,
    hour_start,
    hour_end,
    write_hourly_line,
};

const ring_period daily_period = {
    "/var/run/korel/wan%d/usage_history.daily",
    "/var/run/korel/wan%d/sim%d_usage_history.daily",
    "/var/run/korel/wan%d/link_usage_daily.csv",
    "/var/run/korel/wan%d/sim%d_usage_daily.csv",
    "/var/run/korel/link_usage_daily_total.csv",
    "/var/run/korel/client_usage_daily",
    "/var/run/korel/client_usage_daily/%s",
    DAILY_RING_SIZE,
    59,
    TOTAL_DAILY_ROWS,
    HISTORY_DAILY_CHANGED,
    &wan_usage::day_bucket_time,
    &wan_usage::day_bytes,
    &wan_usage::daily_head,
    &wan_usage::daily_tail,
    daily_ring,
    &period_clock::day_start,
    &period_clock::day_end,
    day_start,
    day_end,
    write_daily_line,
};

void ring_rollover(wan_usage& r, const ring_period& p)
{
    const period_clock& clock = current_period_clock();
    time_t t = r.*p.bucket_time;
    uint64_t* current = r.*p.current;
    usage_entry* ring = p.ring(r);
    uint32_t& head = r.*p.head;
    uint32_t& tail = r.*p.tail;
    const uint32_t size = p.ring_size;

    if (t >= EARLIEST_ROLLOVER_TIME && t < clock.*p.clock_start) {
        // The period ended: it enters the ring with everything counted up to its last sample.
        usage_entry finished{};
        finished.when = local_tm(t);
        p.to_start(&finished.when);
        finished.when.tm_isdst = -1;
        finished.bytes[0] = current[0];
        finished.bytes[1] = current[1];
        ring_push(ring, size, &head, &tail, finished);
        current[0] = 0;
        current[1] = 0;
        write_ring_history(r, p);
        r.history_flags |= p.changed_flag;
    } else if (t > clock.*p.clock_end) {
        // The clock went back: the periods that start at or after the new time are removed.
        current[0] = 0;
        current[1] = 0;
        if (!ring_empty(head, tail, size)) {
            uint32_t i = head - 1;
            if (i % size == tail % size) {
                head = i; // a single entry is dropped
            } else {
                const usage_entry* examined = nullptr;
                time_t examined_end = 0;
                for (;;) {
                    examined = &ring[i % size];
                    struct tm end_tm = examined->when;
                    p.to_end(&end_tm);
                    time_t start = local_time_of(examined->when);
                    examined_end = normalise_local(&end_tm);
                    if (start < r.sample_time)
                        break;
                    i -= 1;
                    if (i % size == tail % size)
                        break;
                }
                head = i;
                // The walk stopped in the period the new time falls in: its traffic becomes
                // the current period's again.
                if (r.sample_time < examined_end) {
                    current[0] = examined->bytes[0];
                    current[1] = examined->bytes[1];
                }
            }
            write_ring_history(r, p);
            r.history_flags |= p.changed_flag;
        }
    }
    // The whole delta of a sample goes to the period in which the sample was taken, even
    // when the interval spanned the boundary.
    current[0] += r.delta[0];
    current[1] += r.delta[1];
    r.*p.bucket_time = r.sample_time;
}

void write_ring_history(wan_usage& r, const ring_period& p)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    const usage_entry* ring = p.ring(r);
    const uint32_t head = r.*p.head;
    const uint32_t tail = r.*p.tail;
    if (!ring_empty(head, tail, p.ring_size)) {
        uint32_t i = head - 1;
        for (int lines = 0; lines < p.history_lines; ++lines, --i) {
            const usage_entry& e = ring[i % p.ring_size];
            p.write_line(out.stream(), e.when, to_mib(e.bytes[0]), to_mib(e.bytes[1]));
            if (i % p.ring_size == tail % p.ring_size)
                break;
        }
    }
    char path[RECORD_PATH_SIZE];
    record_path(path, r, p.history_wan, p.history_sim);
    commit_own_file(out, path);
}

void export_ring_csv(const wan_usage& r, const ring_period& p)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    const uint64_t* current = r.*p.current;
    p.write_line(out.stream(), local_tm(r.*p.bucket_time), to_mib(current[0]), to_mib(current[1]));
    char path[RECORD_PATH_SIZE];
    record_path(path, r, p.history_wan, p.history_sim);
    // The history is the daemon's own file, kept in memory while it does not change.
    if (const std::string* history = own_file_text(path))
        copy_lines(out.text(), *history, p.history_lines);
    record_path(path, r, p.export_wan, p.export_sim);
    out.commit(path);
}

void rebuild_ring_total(const usage_row* rows, int count, const ring_period& p)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    for (int k = 0; k < count; ++k)
        p.write_line(out.stream(), rows[k].when, to_mib(rows[k].bytes[0]), to_mib(rows[k].bytes[1]));
    if (count >= 1 && count < p.total_rows)
        fill_ring_total_from_clients(out.stream(), rows[count - 1].when, p.total_rows - count, p);
    commit_own_file(out, p.total);
}

void update_ring_total(const usage_row* rows, int count, const ring_period& p)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    if (count > 0)
        p.write_line(out.stream(), rows[0].when, to_mib(rows[0].bytes[0]), to_mib(rows[0].bytes[1]));
    // The old first line is the previous tick's current period. The total is the daemon's
    // own file, kept in memory as it was written.
    if (const std::string* old = own_file_text(p.total))
        if (const size_t first = end_of_first_piece(*old, 256))
            copy_lines(out.text(), *old, p.total_rows - 1, first);
    commit_own_file(out, p.total);
}

void fill_ring_total_from_clients(FILE* stream, const struct tm& tm, int count, const ring_period& p)
{
    dir_ptr dir = open_directory(p.client_dir);
    if (!dir || count < 1)
        return;
    struct tm step = tm;
    for (int k = 0; k < count; ++k) {
        // The last second of the period before the one step stands in.
        p.to_start(&step);
        step = local_tm(normalise_local(&step) - 1);
        // Looked up by the date-only name, for hours as for days; kept so because the
        // files a router already holds are named this way.
        char name[128];
        if (strftime(name, sizeof name, "%F.csv", &step) == 0 || !directory_has(dir.get(), name))
            continue;
        char path[CLIENT_PATH_SIZE];
        snprintf(path, sizeof path, p.client_path, name);
        uint64_t sum1 = 0;
        uint64_t sum2 = 0;
        sum_client_usage_file(path, &sum1, &sum2);
        p.write_line(stream, step, static_cast<uint32_t>(sum1 >> 10), static_cast<uint32_t>(sum2 >> 10));
    }
}

void sum_client_usage_file(const char* path, uint64_t* sum1, uint64_t* sum2)
{
    if (!sum1 || !sum2)
        return;
    *sum1 = 0;
    *sum2 = 0;
    file_ptr f = open_for_reading(path);
    if (!f)
        return;
    char line[CLIENT_LINE_SIZE];
    while (fgets(line, sizeof line, f.get())) {
        const char* first = strchr(line, ',');
        const char* second = first ? strchr(first + 1, ',') : nullptr;
        if (!second)
            continue;
        char* end = nullptr;
        *sum1 += strtoull(second + 1, &end, 10);
        if (*end == '\0')
            continue;
        *sum2 += strtoull(end + 1, nullptr, 10);
    }
}
