#include "history/monthly.h"

#include "core/atomic_file.h"
#include "core/local_time.h"
#include "core/own_files.h"
#include "core/log.h"
#include "core/read_file.h"
#include "history/period_line.h"
#include "history/record_path.h"
#include "history/ring_history.h"
#include "platform/platform.h"

#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr const char* SCRATCH = "/tmp/ruvo.tmp";
constexpr const char* HISTORY_WAN = "/var/run/korel/wan%d/usage_history.monthly";
constexpr const char* HISTORY_SIM = "/var/run/korel/wan%d/sim%d_usage_history.monthly";
constexpr const char* EXPORT_WAN = "/var/run/korel/wan%d/link_usage_monthly.csv";
constexpr const char* EXPORT_SIM = "/var/run/korel/wan%d/sim%d_usage_monthly.csv";
constexpr const char* TOTAL = "/var/run/korel/link_usage_monthly_total.csv";
constexpr const char* CLIENT_DIR = "/var/run/korel/client_usage_monthly";
// Lines of up to 255 characters; a longer line is split by the reader.
constexpr int LINE_SIZE = 256;
// The history keeps the month just closed and at most 60 before it.
constexpr int HISTORY_KEPT = 60;
// The export and the total show the running month and at most 59 closed ones.
constexpr int SHOWN = 59;

void history_path(char (&path)[RECORD_PATH_SIZE], const wan_usage& r)
{
    record_path(path, r, HISTORY_WAN, HISTORY_SIM);
}

void write_total_row(FILE* out, const usage_month_row& row)
{
    write_period_line(out, row.start, row.end, to_mib(row.bytes[0]), to_mib(row.bytes[1]));
}

// The first of tm's month at 00:00:00, normalised.
struct tm first_of_month(const struct tm& tm)
{
    struct tm first = tm;
    first.tm_mday = 1;
    first.tm_hour = 0;
    first.tm_min = 0;
    first.tm_sec = 0;
    normalise_local(&first);
    return first;
}

// Closes the month that starts at start into the history file: the closed month's line,
// then at most 60 lines of the old history.
void close_month(wan_usage& r, const struct tm& start)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    write_period_line(out.stream(), start, last_day_of_month(start), to_mib(r.month_bytes[0]),
                      to_mib(r.month_bytes[1]));
    char path[RECORD_PATH_SIZE];
    history_path(path, r);
    if (file_ptr old = open_for_reading(path))
        rewrite_period_lines(out.stream(), old.get(), HISTORY_KEPT, std::numeric_limits<time_t>::max());
    commit_own_file(out, path);
}

// After the clock went back: drops the history lines of the month of now and later.
void repair_history(wan_usage& r)
{
    time_t month_of_now = local_time_of(first_of_month(r.sample_tm));
    char path[RECORD_PATH_SIZE];
    history_path(path, r);
    file_ptr old = open_for_reading(path);
    if (!old)
        return;
    char line[LINE_SIZE];
    if (!fgets(line, sizeof line, old.get()))
        return;
    struct tm first, last;
    uint64_t mib1, mib2;
    if (read_period_line(line, &first, &last, &mib1, &mib2) && local_time_of(first) < month_of_now)
        return; // the newest line is older than the month of now: nothing to repair
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    rewind(old.get());
    rewrite_period_lines(out.stream(), old.get(), ALL_LINES, month_of_now);
    commit_own_file(out, path);
}

} // namespace

void wu_monthly_rollover(wan_usage& r)
{
    time_t now = local_time_of(r.sample_tm);
    struct tm start = local_tm(r.month_start);
    if (start.tm_mday != 1) {
        // month_start is printed as a 64-bit number, so that the line shows the same digits on
        // 32-bit and 64-bit builds, also after 2038.
        log_notice("wu_monthly_rollover(): start_tm.tm_day not at month start month %d mday %d, "
                   "wu->month_start %lld. fixing...\n",
                   start.tm_mon, start.tm_mday, static_cast<long long>(r.month_start));
        start = first_of_month(start);
    }
    // From here on the corrected start stands for month_start; only the check for a first
    // run looks at the stored value.
    if (local_time_of(last_day_of_month(start)) < now) {
        // The month is over. Its traffic is lost from the history when it cannot be written
        // (first run, scratch file not opened); that is accepted.
        if (r.month_start != 0)
            close_month(r, start);
        r.history_flags |= HISTORY_MONTHLY_CHANGED;
    } else if (now < local_time_of(start)) {
        log_notice("wu_monthly_rollover(): > update_monthly_history start_tm:year %d mon %d day %d, "
                   "_time:year %d mon %d day %d\n",
                   start.tm_year, start.tm_mon, start.tm_mday, r.sample_tm.tm_year, r.sample_tm.tm_mon,
                   r.sample_tm.tm_mday);
        repair_history(r);
        r.history_flags |= HISTORY_MONTHLY_CHANGED;
    }
    r.month_start = local_time_of(first_of_month(r.sample_tm));
}

void export_monthly_csv(const wan_usage& r)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    // While month_start is 0 this line is dropped as dated before 2009.
    write_period_line(out.stream(), local_tm(r.month_start), r.sample_tm, to_mib(r.month_bytes[0]),
                      to_mib(r.month_bytes[1]));
    char path[RECORD_PATH_SIZE];
    history_path(path, r);
    // The history is the daemon's own file, kept in memory while it does not change.
    if (const std::string* history = own_file_text(path))
        copy_lines(out.text(), *history, SHOWN);
    record_path(path, r, EXPORT_WAN, EXPORT_SIM);
    out.commit(path);
}

namespace {

// The rows of a monthly history as the total reads them: every line that parses, at most
// TOTAL_MONTHLY_ROWS - 1.
struct monthly_rows {
    // The version of the history's kept text they were parsed from (core/own_files.h).
    uint64_t version = 0;
    std::vector<usage_month_row> rows;
};

// The monthly histories' rows, kept between ticks by the file's path. Every tick adds each
// WAN record's monthly history into the router's monthly total, and the history changes
// once a month: parsing its lines again each tick was a fifth of an idle tick. The history
// is the daemon's own file, whose text is kept while the file is unchanged; the rows are
// used while they are those of the very text that reading the file gives now.
std::map<std::string, monthly_rows> monthly_rows_cache;

// The rows of a history's text, its lines taken as fgets through a LINE_SIZE buffer takes
// them.
void parse_monthly_rows(const std::string& text, std::vector<usage_month_row>* rows)
{
    rows->clear();
    char line[LINE_SIZE];
    size_t at = 0;
    // A history may hold 61 lines but the table 60 rows: the rest are dropped.
    while (static_cast<int>(rows->size()) < TOTAL_MONTHLY_ROWS - 1 && at < text.size()) {
        const size_t end = end_of_first_piece(text, sizeof line, at);
        memcpy(line, text.data() + at, end - at);
        line[end - at] = '\0';
        at = end;
        usage_month_row row = {};
        uint64_t mib1, mib2;
        if (!read_period_line(line, &row.start, &row.end, &mib1, &mib2))
            continue;
        row.bytes[0] = mib1 << 20;
        row.bytes[1] = mib2 << 20;
        rows->push_back(row);
    }
}

// The rows of the monthly history at path, parsed again only when its text changed; null
// when there is no readable file.
const std::vector<usage_month_row>* monthly_history_rows(const char* path)
{
    uint64_t version = 0;
    const std::string* text = own_file_text(path, &version);
    if (!text) {
        monthly_rows_cache.erase(path);
        return nullptr;
    }
    if (version == 0) {
        // A text that is not kept (not a regular file) is parsed every time.
        monthly_rows_cache.erase(path);
        static std::vector<usage_month_row> uncached;
        parse_monthly_rows(*text, &uncached);
        return &uncached;
    }
    monthly_rows& cached = monthly_rows_cache[path];
    if (cached.version != version) {
        parse_monthly_rows(*text, &cached.rows);
        cached.version = version;
    }
    return &cached.rows;
}

} // namespace

void aggregate_monthly_total(usage_totals& totals, wan_usage& r)
{
    usage_month_row& current = totals.monthly[0];
    current.start = local_tm(r.month_start);
    current.end = last_day_of_month(current.start);
    current.bytes[0] += r.month_bytes[0];
    current.bytes[1] += r.month_bytes[1];
    int rows = 1;
    char path[RECORD_PATH_SIZE];
    history_path(path, r);
    if (const std::vector<usage_month_row>* history = monthly_history_rows(path)) {
        // Rows are matched by position; the last record to reach a row decides its dates.
        for (const usage_month_row& line : *history) {
            usage_month_row& row = totals.monthly[rows];
            row.start = line.start;
            row.end = line.end;
            row.bytes[0] += line.bytes[0];
            row.bytes[1] += line.bytes[1];
            ++rows;
        }
    }
    if (rows > totals.monthly_count)
        totals.monthly_count = rows;
    if (r.history_flags & HISTORY_MONTHLY_CHANGED) {
        totals.flags |= TOTALS_MONTHLY_CHANGED;
        r.history_flags &= ~HISTORY_MONTHLY_CHANGED;
    }
}

void rebuild_monthly_total(const usage_totals& totals)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    int count = totals.monthly_count;
    for (int k = 0; k < count; ++k)
        write_total_row(out.stream(), totals.monthly[k]);
    if (count >= 1 && count < TOTAL_MONTHLY_ROWS) {
        // Older months from the client monthly files, which count in KiB.
        dir_ptr dir = open_directory(CLIENT_DIR);
        struct tm step = totals.monthly[count - 1].start;
        for (int k = 0; dir && k < TOTAL_MONTHLY_ROWS - count; ++k) {
            step = local_tm(local_time_of(first_of_month(step)) - 1);
            char name[128];
            if (strftime(name, sizeof name, "%Y-%m-01.csv", &step) == 0)
                continue;
            if (!directory_has(dir.get(), name))
                continue;
            char file[256];
            snprintf(file, sizeof file, "/var/run/korel/client_usage_monthly/%s", name);
            uint64_t sum1 = 0;
            uint64_t sum2 = 0;
            sum_client_usage_file(file, &sum1, &sum2);
            struct tm first = first_of_month(step);
            write_period_line(out.stream(), first, last_day_of_month(first),
                              static_cast<uint32_t>(sum1 >> 10), static_cast<uint32_t>(sum2 >> 10));
        }
    }
    commit_own_file(out, TOTAL);
}

void update_monthly_total(const usage_totals& totals)
{
    atomic_file out(SCRATCH);
    if (!out.is_open())
        return;
    if (totals.monthly_count > 0)
        write_total_row(out.stream(), totals.monthly[0]);
    // The old first line is the previous tick's running month. The total is the daemon's
    // own file, kept in memory as it was written.
    if (const std::string* old = own_file_text(TOTAL))
        if (const size_t first = end_of_first_piece(*old, LINE_SIZE))
            copy_lines(out.text(), *old, SHOWN, first);
    commit_own_file(out, TOTAL);
}
