#include "tools/report/projection.h"

#include "core/billing_cycle.h"
#include "core/local_time.h"
#include "tools/report/units.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace report {

namespace {

constexpr time_t HOUR = 3600;
// The longest cycle projected: two months and a day (a start day of 31 makes the cycle that
// starts on 1 April run to 30 May); it keeps the arithmetic far below 2^32 s.
constexpr time_t MAX_CYCLE = 63 * 24 * HOUR;

// A date "YYYY-MM-DD" (already checked by the reader) as a broken-down local time at h:00.
struct tm date_tm(const std::string& date, int hour)
{
    struct tm tm {};
    tm.tm_year = std::atoi(date.substr(0, 4).c_str()) - 1900;
    tm.tm_mon = std::atoi(date.substr(5, 2).c_str()) - 1;
    tm.tm_mday = std::atoi(date.substr(8, 2).c_str());
    tm.tm_hour = hour;
    return tm;
}

std::string date_text(const struct tm& tm)
{
    char text[32];
    snprintf(text, sizeof text, "%04d-%02d-%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
    return text;
}

// The date of the day before date, by the calendar.
std::string day_before(const std::string& date)
{
    struct tm tm = date_tm(date, 12);
    tm.tm_mday -= 1;
    normalise_local(&tm);
    return date_text(tm);
}

// The first and last dates of a range row's period, "2024-03-15 .. 2024-03-20".
bool range_dates(const std::string& period, std::string* first, std::string* last)
{
    if (period.size() != 24 || period.compare(10, 4, " .. ") != 0)
        return false;
    *first = period.substr(0, 10);
    *last = period.substr(14, 10);
    return true;
}

const UsageRow* running_row(const UsageTable& table)
{
    return !table.rows.empty() && table.rows[0].running() ? &table.rows[0] : nullptr;
}

PeriodFigure figure_of(const UsageRow* row)
{
    PeriodFigure f;
    if (row) {
        f.known = true;
        f.period = row->period;
        f.first = row->first;
        f.second = row->second;
    }
    return f;
}

// The lines an allowance sets, in thousandths of it.
struct Line {
    const char* name;
    const char* key;
    uint64_t permille;
};
const Line LINES[] = {{"75 %", "75", 750}, {"95 %", "95", 950}, {"99.5 %", "suspension", 995}};

// ceil(bytes * permille / 1000) without overflow.
uint64_t line_of(uint64_t bytes, uint64_t permille)
{
    const uint64_t whole = mul_div(bytes, permille, 1000);
    // bytes * permille is a whole number of thousands exactly when this is.
    const bool exact = (bytes % 1000) * permille % 1000 == 0;
    return whole == UINT64_MAX || exact ? whole : whole + 1;
}

} // namespace

uint64_t Allowance::quota_bytes() const { return mib_to_bytes(quota_mib); }

uint64_t mul_div(uint64_t a, uint64_t b, uint64_t c)
{
    const uint64_t quotient = a / c;
    const uint64_t remainder = a % c;
    if (b != 0 && quotient > UINT64_MAX / b)
        return UINT64_MAX;
    const uint64_t high = quotient * b;
    const uint64_t low = remainder * b / c;  // remainder < c < 2^32 and b < 2^32
    return high > UINT64_MAX - low ? UINT64_MAX : high + low;
}

void project_allowance(Link* link)
{
    const Allowance& a = link->allowance;
    Projection& p = link->allowance.projection;
    p = Projection();
    if (a.quota == Allowance::Quota::unknown) {
        p.why_not = "configuration unknown";
        return;
    }
    if (!a.start_day_set) {
        p.why_not = "no billing cycle configured";
        return;
    }
    std::string first, last;
    if (!a.cycle_known || !range_dates(a.cycle, &first, &last)) {
        p.why_not = "running cycle unknown";
        return;
    }

    struct tm start_tm = date_tm(first, 0);
    p.cycle_start = normalise_local(&start_tm);
    // The cycle's end as the daemon works it out from the link's own start day. (After the
    // configuration is loaded the daemon takes the end from the first link's start day until
    // that cycle closes; the report does not follow that.)
    p.cycle_end = billing_cycle_end(p.cycle_start, a.start_day);
    // A start day far beyond any month (the daemon does not refuse one) can put the end
    // years away; such a cycle is not projected.
    if (p.cycle_end < p.cycle_start || p.cycle_end - p.cycle_start > MAX_CYCLE) {
        p.why_not = "cycle end unknown";
        return;
    }
    p.start_date = first;
    p.end_date = date_text(local_tm(p.cycle_end));

    struct tm day_end = date_tm(last, 0);
    day_end.tm_mday += 1;
    p.now = normalise_local(&day_end);
    if (const UsageRow* hour = running_row(link->tables[0])) {
        if (hour->period.compare(0, 10, last) == 0) {
            struct tm hour_tm = date_tm(hour->period, std::atoi(hour->period.substr(11, 2).c_str()));
            p.now = normalise_local(&hour_tm) + HOUR;
        }
    }
    const time_t length = p.cycle_end + 1 - p.cycle_start;
    if (p.now > p.cycle_end + 1)
        p.now = p.cycle_end + 1;
    if (p.now <= p.cycle_start)
        p.now = p.cycle_start + 1;
    const uint64_t elapsed = static_cast<uint64_t>(p.now - p.cycle_start);

    p.known = true;
    p.used_bytes = mib_to_bytes(a.used());
    p.held = a.suspended;
    p.projected_bytes = p.held ? p.used_bytes : mul_div(p.used_bytes, static_cast<uint64_t>(length), elapsed);

    if (a.quota != Allowance::Quota::set)
        return;
    for (const Line& line : LINES) {
        Crossing c;
        c.name = line.name;
        c.key = line.key;
        c.line_bytes = line_of(a.quota_bytes(), line.permille);
        if (p.used_bytes >= c.line_bytes) {
            c.when = Crossing::When::crossed;
        } else if (p.projected_bytes < c.line_bytes) {
            c.when = Crossing::When::not_in_cycle;
        } else {
            // The first second at which the usage at the rate so far reaches the line: the
            // usage at s seconds into the cycle is used * s / elapsed, below the line at
            // elapsed and at or above it at the cycle's length.
            uint64_t below = elapsed, reached = static_cast<uint64_t>(length);
            while (reached - below > 1) {
                uint64_t mid = below + (reached - below) / 2;
                if (mul_div(p.used_bytes, mid, elapsed) >= c.line_bytes)
                    reached = mid;
                else
                    below = mid;
            }
            c.when = Crossing::When::in_cycle;
            c.at = p.cycle_start + static_cast<time_t>(reached);
            c.date = date_text(local_tm(c.at));
        }
        p.crossings.push_back(c);
    }
}

std::string crossing_words(const Crossing& c)
{
    switch (c.when) {
    case Crossing::When::crossed: return "crossed";
    case Crossing::When::in_cycle: return "expected on " + c.date;
    case Crossing::When::not_in_cycle: break;
    }
    return "not within this cycle";
}

Summary summarize(const std::vector<UsageTable>& tables)
{
    Summary s;
    if (tables.size() > 1) {
        const UsageTable& daily = tables[1];
        s.today = figure_of(running_row(daily));
        if (s.today.known) {
            const std::string before = day_before(s.today.period);
            for (const UsageRow& row : daily.rows)
                if (row.period == before) {
                    s.yesterday = figure_of(&row);
                    break;
                }
        }
    }
    if (tables.size() > 2)
        s.month = figure_of(running_row(tables[2]));
    if (tables.size() > 3)
        s.cycle = figure_of(running_row(tables[3]));
    return s;
}

} // namespace report
