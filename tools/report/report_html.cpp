#include "tools/report/report_html.h"

#include "tools/report/bars.h"
#include "tools/report/charts.h"
#include "tools/report/projection.h"
#include "tools/report/units.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace report {

namespace {

// Width in pixels of the longest bar of a chart and of the allowance table's gauges.
constexpr uint64_t CHART_BAR_PX = 360;
constexpr uint64_t GAUGE_PX = 120;
// Geometry of the charts: one row of text per bar, monospace 12px text, whose glyphs are
// at most 8px wide.
constexpr int ROW_PX = 20;
constexpr int BAR_HEIGHT_PX = 14;
constexpr int CHAR_PX = 8;
constexpr int GAP_PX = 10;
// The hours of the column charts.
constexpr int CHART_HOURS = 24;
constexpr uint64_t MIB = uint64_t{1} << 20;

std::string escape(const std::string& text) { return escape_html(text); }

// How the page writes amounts: scaled, or in the files' own units.
struct Units {
    bool raw;
    std::string mib(uint64_t mib) const { return show_mib(mib, raw); }
    std::string kib(uint64_t kib) const { return show_kib(kib, raw); }
    // An amount of bytes of a link or the router (a projection, an allowance's line), as the
    // text report writes it.
    std::string bytes(uint64_t bytes) const { return show_link_bytes(bytes, raw); }
};

// Colours: the text, the counters' bars and the gauge's parts are at least 3:1 against the
// white page (text 4.5:1); the projected part of a gauge is a lighter shade with an outline
// in the colour of the used part.
const char* STYLE =
    "body{font-family:sans-serif;margin:1.5em;color:#222;background:#fff}"
    "h1{font-size:1.5em}h2{font-size:1.25em;border-bottom:1px solid #ccc;margin-top:1.6em}"
    "h3{font-size:1em;margin-bottom:.2em}"
    ".path{font-family:monospace;color:#555;margin:.2em 0}"
    ".note{font-family:monospace;color:#a40000;margin:.2em 0}"
    "table{border-collapse:collapse}th,td{padding:.2em .6em;border-bottom:1px solid #ddd;text-align:left;white-space:nowrap}"
    "td.num,th.num{text-align:right}"
    "svg text{font-family:monospace;font-size:12px;fill:#222;white-space:pre}"
    ".c1{fill:#3465a4}.c2{fill:#ce5c00}.gauge{fill:#e6e6e6}.ok{fill:#4e9a06}.over{fill:#cc0000}"
    ".track{fill:#f2f2f2;stroke:#6e6e6e}.beyond{fill:#fbe3e3;stroke:#6e6e6e}"
    ".proj{fill:#b4dc8c;stroke:#4e9a06;stroke-dasharray:4 2}"
    ".proj-over{fill:#f4b6b6;stroke:#cc0000;stroke-dasharray:4 2}"
    ".tick{stroke:#222;stroke-width:1.5}.grid{stroke:#d6d6d6}.axis{stroke:#222}"
    ".blocks{display:flex;flex-wrap:wrap;gap:1em 2.5em}"
    ".block{flex:0 1 auto}.block p,.block ul{margin:.3em 0}"
    ".legend svg{vertical-align:middle}";

// A horizontal bar chart: one labelled row per entry with a two-part bar and its figures.
struct ChartRow {
    std::string label;
    uint64_t first;
    uint64_t second;
};

uint64_t saturating_sum(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

void write_chart(std::ostream& out, const std::string& title, const std::string& label_header,
                 const std::vector<ChartRow>& rows, const std::string& figures_header,
                 std::string (Units::*show)(uint64_t) const, const Units& units)
{
    uint64_t largest = 0;
    size_t label_chars = label_header.size();
    std::vector<std::string> figures;
    size_t figure_chars = figures_header.size();
    for (const ChartRow& row : rows) {
        uint64_t total = saturating_sum(row.first, row.second);
        largest = std::max(largest, total);
        label_chars = std::max(label_chars, row.label.size());
        figures.push_back((units.*show)(row.first) + " + " + (units.*show)(row.second) + " = " +
                          (units.*show)(total));
        figure_chars = std::max(figure_chars, figures.back().size());
    }
    int label_px = static_cast<int>(label_chars) * CHAR_PX + GAP_PX;
    int figures_x = label_px + static_cast<int>(CHART_BAR_PX) + GAP_PX;
    int width = figures_x + static_cast<int>(figure_chars) * CHAR_PX + GAP_PX;
    int height = ROW_PX * (static_cast<int>(rows.size()) + 1) + 4;

    out << "<svg role=\"img\" aria-label=\"" << escape(title) << "\" width=\"" << width << "\" height=\"" << height
        << "\" viewBox=\"0 0 " << width << ' ' << height << "\">\n";
    out << "<title>" << escape(title) << "</title>\n";
    out << "<text x=\"0\" y=\"14\">" << escape(label_header) << "</text>"
        << "<text x=\"" << figures_x << "\" y=\"14\">" << escape(figures_header) << "</text>\n";
    for (size_t i = 0; i < rows.size(); ++i) {
        const ChartRow& row = rows[i];
        int y = ROW_PX * static_cast<int>(i + 1);
        BarParts parts = bar_parts(row.first, row.second, largest, CHART_BAR_PX);
        out << "<g>";
        out << "<text x=\"0\" y=\"" << y + 14 << "\">" << escape(row.label) << "</text>";
        if (parts.first > 0)
            out << "<rect class=\"c1\" x=\"" << label_px << "\" y=\"" << y + 3 << "\" width=\"" << parts.first
                << "\" height=\"" << BAR_HEIGHT_PX << "\"><title>counter 1: " << escape((units.*show)(row.first))
                << "</title></rect>";
        if (parts.second > 0)
            out << "<rect class=\"c2\" x=\"" << label_px + static_cast<int>(parts.first) << "\" y=\"" << y + 3
                << "\" width=\"" << parts.second << "\" height=\"" << BAR_HEIGHT_PX
                << "\"><title>counter 2: " << escape((units.*show)(row.second)) << "</title></rect>";
        out << "<text x=\"" << figures_x << "\" y=\"" << y + 14 << "\">" << escape(figures[i]) << "</text>";
        out << "</g>\n";
    }
    out << "</svg>\n";
}

std::string figures_header(const Units& units, const char* unit)
{
    return std::string("counter 1 + counter 2 = total") + (units.raw ? std::string(" (") + unit + ")" : "");
}

void write_notes(std::ostream& out, const std::vector<std::string>& notes)
{
    for (const std::string& n : notes)
        out << "<p class=\"note\">" << escape(n) << "</p>\n";
}

void write_usage_table(std::ostream& out, const std::string& owner, const UsageTable& t, const Units& units)
{
    out << "<h3>" << escape(t.title) << "</h3>\n";
    write_notes(out, t.notes);
    if (!t.problem.empty()) {
        write_notes(out, {t.problem});
        return;
    }
    out << "<p class=\"path\">" << escape(t.path) << "</p>\n";
    std::vector<ChartRow> rows;
    for (size_t i = 0; i < t.rows.size(); ++i)
        rows.push_back({(t.rows[i].running() ? "* " : "  ") + t.rows[i].period, t.rows[i].first, t.rows[i].second});
    write_chart(out, owner + " " + t.title, "  " + t.period_header, rows, figures_header(units, "MiB"), &Units::mib,
                units);
}

// ---- The overview: a block per link and one for the router. ----

void write_figure_row(std::ostream& out, const char* name, const PeriodFigure& f, const Units& units)
{
    out << "<tr><th scope=\"row\">" << name << "</th>";
    if (f.known)
        out << "<td>" << escape(f.period) << "</td><td class=\"num\">" << escape(units.mib(f.first))
            << "</td><td class=\"num\">" << escape(units.mib(f.second)) << "</td><td class=\"num\">"
            << escape(units.mib(saturating_sum(f.first, f.second))) << "</td>";
    else
        out << "<td colspan=\"4\">not recorded</td>";
    out << "</tr>\n";
}

void write_summary_table(std::ostream& out, const Summary& s, bool with_cycle, const Units& units)
{
    out << "<table class=\"summary\">\n<thead><tr><td></td><th scope=\"col\">period</th>"
        << "<th scope=\"col\" class=\"num\">counter 1</th><th scope=\"col\" class=\"num\">counter 2</th>"
        << "<th scope=\"col\" class=\"num\">total</th></tr></thead>\n<tbody>\n";
    write_figure_row(out, "today", s.today, units);
    write_figure_row(out, "yesterday", s.yesterday, units);
    write_figure_row(out, "this month", s.month, units);
    if (with_cycle)
        write_figure_row(out, "this cycle", s.cycle, units);
    out << "</tbody>\n</table>\n";
}

// "95 % line: expected on 2024-03-21", "99.5 % line (suspension): crossed".
std::string crossing_text(const Crossing& c)
{
    return c.name + " line" + (c.key == "suspension" ? " (suspension)" : "") + ": " + crossing_words(c);
}

// The allowance of a link, where its running cycle is heading, and its gauge.
void write_allowance_summary(std::ostream& out, const Allowance& a, const Units& units)
{
    const Projection& p = a.projection;
    const bool quota = a.quota == Allowance::Quota::set && a.quota_mib > 0;
    const uint64_t allowance = a.quota_bytes();

    std::string line;
    switch (a.quota) {
    case Allowance::Quota::unknown: line = "allowance unknown"; break;
    case Allowance::Quota::none: line = "no allowance"; break;
    case Allowance::Quota::invalid: line = "allowance invalid"; break;
    case Allowance::Quota::set: line = "allowance " + units.mib(a.quota_mib); break;
    }
    uint64_t tenths = 0;
    const bool used_known = a.used_tenths(&tenths);
    if (used_known)
        line += ", used " + units.mib(a.used()) + " (" + percent_text(tenths) + ")";
    else if (a.cycle_known)
        line += ", used " + units.mib(a.used());
    out << "<p class=\"allowance\">" << escape(line) << "</p>\n";

    if (p.known) {
        std::string projected = "projected " + units.bytes(p.projected_bytes);
        if (quota)
            projected += " (" + percent_text(permille_of(p.projected_bytes, allowance)) + ")";
        projected += " at the cycle's end, " + p.end_date;
        out << "<p class=\"projection\">" << escape(projected) << "</p>\n";
    } else {
        out << "<p class=\"projection\">no projection: " << escape(p.why_not) << "</p>\n";
    }
    if (p.known && p.held)
        out << "<p class=\"held\">suspended: no more traffic this cycle</p>\n";
    else if (a.suspended)
        out << "<p class=\"held\">suspended</p>\n";

    if (quota && a.cycle_known) {
        Gauge g;
        g.allowance = allowance;
        g.used = mib_to_bytes(a.used());
        g.projected_known = p.known;
        g.projected = p.projected_bytes;
        g.over = a.suspended;
        std::string title = "allowance " + units.mib(a.quota_mib) + "; used " + units.mib(a.used()) + " (" +
                            percent_text(tenths) + ")";
        if (p.known)
            title += "; projected " + units.bytes(p.projected_bytes) + " (" +
                     percent_text(permille_of(p.projected_bytes, allowance)) + ") at the cycle's end";
        std::string lines;
        for (const Crossing& c : p.crossings) {
            g.ticks.push_back({c.name, c.line_bytes});
            lines += (lines.empty() ? "; lines: " : ", ") + c.name + " at " + units.bytes(c.line_bytes);
            if (g.used >= c.line_bytes && c.key == "suspension")
                g.over = true;
        }
        g.title = title + lines;
        out << gauge_svg(g);
    }
    if (!p.crossings.empty()) {
        out << "<ul class=\"crossings\">";
        for (const Crossing& c : p.crossings)
            out << "<li>" << escape(crossing_text(c)) << "</li>";
        out << "</ul>\n";
    }
}

void write_overview(std::ostream& out, const Report& r, const Units& units)
{
    out << "<section class=\"overview\">\n<h2>Overview</h2>\n<div class=\"blocks\">\n";
    for (const Link& link : r.links) {
        out << "<section class=\"block link\">\n<h3>" << escape(link.label()) << "</h3>\n";
        write_summary_table(out, link.summary, true, units);
        write_allowance_summary(out, link.allowance, units);
        out << "</section>\n";
    }
    out << "<section class=\"block router\">\n<h3>router (all WAN links)</h3>\n";
    write_summary_table(out, r.totals_summary, false, units);
    out << "</section>\n</div>\n</section>\n";
}

// ---- The last 24 hours: a column chart per link and one for the router. ----

struct Hour {
    int year, month, day, hour;
};

bool leap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int days_in_month(int year, int month)
{
    static const int DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leap(year) ? 29 : DAYS[month - 1];
}

// The hour before h by the calendar (the files name local hours; a repeated or skipped hour
// of a clock change is not looked at).
Hour hour_before(Hour h)
{
    if (--h.hour >= 0)
        return h;
    h.hour = 23;
    if (--h.day >= 1)
        return h;
    if (--h.month < 1) {
        h.month = 12;
        --h.year;
    }
    h.day = days_in_month(h.year, h.month);
    return h;
}

// A period as the hourly table shows it: "2024-03-20 14:00".
bool parse_hour(const std::string& period, Hour* h)
{
    return period.size() == 16 &&
           std::sscanf(period.c_str(), "%4d-%2d-%2d %2d:00", &h->year, &h->month, &h->day, &h->hour) == 4 &&
           h->month >= 1 && h->month <= 12 && h->day >= 1 && h->day <= days_in_month(h->year, h->month) &&
           h->hour >= 0 && h->hour <= 23;
}

std::string date_text(const Hour& h)
{
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", h.year, h.month, h.day);
    return text;
}

std::string hour_text(const Hour& h)
{
    char text[8];
    std::snprintf(text, sizeof text, "%02d", h.hour);
    return text;
}

// The hourly chart of a link or of the router: the 24 hours that end at the newest row of
// its hourly file (the running hour), oldest first; hours without a row are empty columns.
void write_hours_chart(std::ostream& out, const std::string& owner, const UsageTable& hourly, const Units& units)
{
    out << "<section class=\"block\">\n<h3>" << escape(owner) << "</h3>\n";
    Hour last{};
    if (!hourly.problem.empty() || hourly.rows.empty() || !parse_hour(hourly.rows[0].period, &last)) {
        out << "<p class=\"note\">no hourly figures</p>\n</section>\n";
        return;
    }
    std::map<std::string, const UsageRow*> by_period;
    for (const UsageRow& row : hourly.rows)
        by_period.emplace(row.period, &row);  // the first row of a period counts

    std::vector<Hour> hours{last};
    while (hours.size() < CHART_HOURS)
        hours.push_back(hour_before(hours.back()));
    std::reverse(hours.begin(), hours.end());

    std::vector<Column> columns;
    uint64_t largest = 0;
    for (size_t i = 0; i < hours.size(); ++i) {
        Column c;
        c.label = hour_text(hours[i]);
        c.name = date_text(hours[i]) + " " + c.label + ":00";
        if (i == 0 || hours[i].hour == 0)
            c.mark = date_text(hours[i]);
        auto found = by_period.find(c.name);
        if (found != by_period.end()) {
            c.known = true;
            c.first = mib_to_bytes(found->second->first);
            c.second = mib_to_bytes(found->second->second);
            largest = std::max(largest, saturating_sum(c.first, c.second));
        }
        columns.push_back(c);
    }
    const Axis axis = round_axis(largest, MIB, units.raw);
    const std::string title = owner + ", the 24 hours to " + hourly.rows[0].period +
                              " (counter 1 and counter 2 per hour, stacked)";
    out << column_chart_svg(title, columns, axis, [&units](uint64_t bytes) { return units.bytes(bytes); })
        << "</section>\n";
}

void write_hours(std::ostream& out, const Report& r, const Units& units)
{
    out << "<section class=\"hours\">\n<h2>The last 24 hours</h2>\n<div class=\"blocks\">\n";
    for (const Link& link : r.links)
        if (!link.tables.empty())
            write_hours_chart(out, link.label(), link.tables[0], units);
    if (!r.totals.empty())
        write_hours_chart(out, "router (all WAN links)", r.totals[0], units);
    out << "</div>\n</section>\n";
}

// ---- The allowance table and the client tables. ----

void write_gauge(std::ostream& out, uint64_t tenths, bool suspended)
{
    uint64_t filled = scale_to(std::min<uint64_t>(tenths, 1000), 1000, GAUGE_PX);
    out << "<svg width=\"" << GAUGE_PX << "\" height=\"12\" viewBox=\"0 0 " << GAUGE_PX << " 12\" role=\"img\""
        << " aria-label=\"" << percent_text(tenths) << " used\"><title>" << percent_text(tenths) << " used</title>"
        << "<rect class=\"gauge\" x=\"0\" y=\"0\" width=\"" << GAUGE_PX << "\" height=\"12\"></rect>"
        << "<rect class=\"" << (suspended || tenths >= 995 ? "over" : "ok") << "\" x=\"0\" y=\"0\" width=\""
        << filled << "\" height=\"12\"></rect></svg>";
}

void write_allowances(std::ostream& out, const Report& r, const Units& units)
{
    out << "<h2>Allowances (running billing cycle)</h2>\n<table>\n<thead><tr>"
        << "<th>link</th><th>cycle</th><th class=\"num\">counter 1</th><th class=\"num\">counter 2</th>"
        << "<th class=\"num\">used</th><th class=\"num\">allowance</th><th>used %</th><th>action</th>"
        << "<th>state</th></tr></thead>\n<tbody>\n";
    std::vector<std::string> notes;
    for (const Link& link : r.links) {
        const Allowance& a = link.allowance;
        out << "<tr><td>" << escape(link.label()) << "</td>";
        if (a.cycle_known)
            out << "<td>" << escape(a.cycle) << "</td><td class=\"num\">" << escape(units.mib(a.first))
                << "</td><td class=\"num\">" << escape(units.mib(a.second)) << "</td><td class=\"num\">"
                << escape(units.mib(a.used())) << "</td>";
        else
            out << "<td>-</td><td class=\"num\">-</td><td class=\"num\">-</td><td class=\"num\">-</td>";
        out << "<td class=\"num\">";
        switch (a.quota) {
        case Allowance::Quota::unknown: out << "unknown"; break;
        case Allowance::Quota::none: out << "none"; break;
        case Allowance::Quota::invalid: out << "invalid"; break;
        case Allowance::Quota::set: out << escape(units.mib(a.quota_mib)); break;
        }
        out << "</td><td>";
        uint64_t tenths;
        if (a.used_tenths(&tenths)) {
            write_gauge(out, tenths, a.suspended);
            out << ' ' << percent_text(tenths);
        } else {
            out << '-';
        }
        out << "</td><td>" << escape(a.action) << "</td><td>" << (a.suspended ? "suspended" : "not suspended")
            << "</td></tr>\n";
        notes.insert(notes.end(), link.allowance_notes.begin(), link.allowance_notes.end());
    }
    out << "</tbody>\n</table>\n";
    write_notes(out, notes);
}

void write_client_table(std::ostream& out, const ClientTable& t, const Units& units)
{
    out << "<h3>" << escape(t.title);
    if (!t.period.empty())
        out << ' ' << escape(t.period);
    out << "</h3>\n";
    write_notes(out, t.notes);
    if (!t.problem.empty()) {
        write_notes(out, {t.problem});
        return;
    }
    size_t count = t.rows.size();
    out << "<p class=\"path\">" << escape(t.file) << " (" << count << (count == 1 ? " client" : " clients");
    if (t.shown < count)
        out << ", the " << t.shown << " largest shown";
    out << ")</p>\n";
    if (t.key_header == "MAC")
        out << "<p>*address: a client whose MAC is not known</p>\n";
    std::vector<ChartRow> rows;
    for (size_t i = 0; i < t.shown; ++i) {
        const ClientRow& row = t.rows[i];
        rows.push_back({std::to_string(i + 1) + ". " + row.key + " (" + row.types + ")", row.first, row.second});
    }
    write_chart(out, "clients " + t.title + " " + t.period, t.key_header, rows, figures_header(units, "KiB"),
                &Units::kib, units);
}

const char* SWATCH_C1 = "<svg width=\"12\" height=\"12\" viewBox=\"0 0 12 12\" aria-hidden=\"true\">"
                        "<rect class=\"c1\" x=\"0\" y=\"0\" width=\"12\" height=\"12\"></rect></svg>";
const char* SWATCH_C2 = "<svg width=\"12\" height=\"12\" viewBox=\"0 0 12 12\" aria-hidden=\"true\">"
                        "<rect class=\"c2\" x=\"0\" y=\"0\" width=\"12\" height=\"12\"></rect></svg>";

} // namespace

void write_html_report(std::ostream& out, const Report& r, bool raw)
{
    const Units units{raw};
    out << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        << "<title>ruvo usage report</title>\n<style>" << STYLE << "</style>\n</head>\n<body>\n";
    out << "<h1>ruvo usage report</h1>\n<p>WAN links: " << r.wan_count << " (" << escape(r.wan_count_note)
        << ")<br>\nDual-SIM links: ";
    if (r.dual_sim.empty())
        out << "none";
    for (size_t i = 0; i < r.dual_sim.size(); ++i)
        out << (i ? ", " : "") << "wan" << r.dual_sim[i];
    out << " (" << escape(r.dual_sim_note) << ")</p>\n";
    write_notes(out, r.config_notes);
    out << "<p class=\"legend\">"
        << (raw ? "Link and router figures are in MiB, client figures in KiB, as the daemon's files hold them."
                : "Figures are scaled to B, KiB, MiB, GiB and TiB (1 KiB = 1024 B); the daemon's files hold MiB "
                  "for links and the router and KiB for clients, rounded down.")
        << " Bars: " << SWATCH_C1 << " counter 1, " << SWATCH_C2 << " counter 2 "
        << "(the two counters of the kernel's lines, in that order). Rows are newest first; * marks the "
           "running period. Projections run the billing cycle's traffic so far on to the cycle's end at the "
           "same rate; the lines of an allowance are 75 %, 95 % and 99.5 % (where the link is suspended).</p>\n";

    write_overview(out, r, units);
    write_hours(out, r, units);
    write_allowances(out, r, units);

    for (const Link& link : r.links) {
        out << "<section>\n<h2>" << escape(link.label()) << "</h2>\n";
        for (const UsageTable& t : link.tables)
            write_usage_table(out, link.id, t, units);
        out << "</section>\n";
    }

    out << "<section>\n<h2>Router totals (all WAN links)</h2>\n";
    for (const UsageTable& t : r.totals)
        write_usage_table(out, "router", t, units);
    out << "</section>\n";

    out << "<section>\n<h2>Top clients</h2>\n";
    for (const ClientTable& t : r.clients)
        write_client_table(out, t, units);
    out << "</section>\n</body>\n</html>\n";
}

} // namespace report
