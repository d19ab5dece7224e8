#include "history/billing.h"

#include "core/atomic_file.h"
#include "core/billing_cycle.h"
#include "core/local_time.h"
#include "core/own_files.h"
#include "core/read_file.h"
#include "history/period_line.h"
#include "history/record_path.h"

#include <limits>

namespace {

constexpr const char* SCRATCH = "/tmp/ruvo.tmp";
constexpr const char* HISTORY_WAN = "/var/run/korel/wan%d/usage_history.billing";
constexpr const char* HISTORY_SIM = "/var/run/korel/wan%d/sim%d_usage_history.billing";
constexpr const char* EXPORT_WAN = "/var/run/korel/wan%d/link_usage_billing.csv";
constexpr const char* EXPORT_SIM = "/var/run/korel/wan%d/sim%d_usage_billing.csv";
// The history keeps the cycle just closed and at most 60 before it.
constexpr int HISTORY_KEPT = 60;
// The export shows the running cycle and at most 59 closed ones.
constexpr int SHOWN = 59;

void set_bounds(wan_usage& r, time_t now)
{
    r.billing_start = billing_cycle_start(now, r.start_day);
    r.billing_end = billing_cycle_end(r.billing_start, r.start_day);
}

} // namespace

void billing_close(wan_usage& r, time_t start, time_t end)
{
    if (start == 0)
        return; // the first run: no cycle to close
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    write_period_line(out.stream(), local_tm(start), local_tm(end), to_mib(r.billing_bytes[0]),
                      to_mib(r.billing_bytes[1]));
    char path[RECORD_PATH_SIZE];
    record_path(path, r, HISTORY_WAN, HISTORY_SIM);
    if (file_ptr old = open_for_reading(path))
        rewrite_period_lines(out.stream(), old.get(), HISTORY_KEPT, std::numeric_limits<time_t>::max());
    commit_own_file(out, path);
}

void billing_rollover(wan_usage& r)
{
    if (r.start_day < 0)
        return;
    time_t now = r.sample_time;
    if (r.billing_day_applied == 0) {
        // 0 also means "no day applied yet", so a change away from start day 0 is not seen
        // as a change: the old bounds run to their end. Kept so.
        r.billing_day_applied = r.start_day;
    } else if (r.billing_day_applied != r.start_day) {
        // The start day was changed: the running cycle closes today.
        billing_close(r, r.billing_start, now);
        set_bounds(r, now);
        r.billing_day_applied = r.start_day;
        return;
    }
    if (r.billing_end < now) {
        billing_close(r, r.billing_start, r.billing_end);
        set_bounds(r, now);
    }
}

void export_billing_csv(const wan_usage& r)
{
    if (r.start_day < 0)
        return;
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    write_period_line(out.stream(), local_tm(r.billing_start), r.sample_tm,
                      to_mib(r.billing_bytes[0]), to_mib(r.billing_bytes[1]));
    char path[RECORD_PATH_SIZE];
    record_path(path, r, HISTORY_WAN, HISTORY_SIM);
    // The history is the daemon's own file, kept in memory while it does not change.
    if (const std::string* history = own_file_text(path))
        copy_lines(out.text(), *history, SHOWN);
    record_path(path, r, EXPORT_WAN, EXPORT_SIM);
    out.commit(path);
}
