#include "tools/report/report_html.h"

#include "tools/report/bars.h"

#include <algorithm>
#include <string>
#include <vector>

namespace report {

namespace {

// Width in pixels of the longest bar of a chart and of the allowance gauges.
constexpr uint64_t CHART_BAR_PX = 360;
constexpr uint64_t GAUGE_PX = 120;
// Geometry of the charts: one row of text per bar, monospace 12px text, whose glyphs are
// at most 8px wide.
constexpr int ROW_PX = 20;
constexpr int BAR_HEIGHT_PX = 14;
constexpr int CHAR_PX = 8;
constexpr int GAP_PX = 10;

std::string escape(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string amount(uint64_t value, const char* unit) { return std::to_string(value) + " " + unit; }

const char* STYLE =
    "body{font-family:sans-serif;margin:1.5em;color:#222;background:#fff}"
    "h1{font-size:1.5em}h2{font-size:1.25em;border-bottom:1px solid #ccc;margin-top:1.6em}"
    "h3{font-size:1em;margin-bottom:.2em}"
    ".path{font-family:monospace;color:#555;margin:.2em 0}"
    ".note{font-family:monospace;color:#a40000;margin:.2em 0}"
    "table{border-collapse:collapse}th,td{padding:.2em .6em;border-bottom:1px solid #ddd;text-align:left;white-space:nowrap}"
    "td.num,th.num{text-align:right}"
    "svg text{font-family:monospace;font-size:12px;fill:#222;white-space:pre}"
    ".c1{fill:#3465a4}.c2{fill:#f57900}.gauge{fill:#e6e6e6}.ok{fill:#4e9a06}.over{fill:#cc0000}"
    ".legend svg{vertical-align:middle}";

// A horizontal bar chart: one labelled row per entry with a two-part bar and its figures.
struct ChartRow {
    std::string label;
    uint64_t first;
    uint64_t second;
};

void write_chart(std::ostream& out, const std::string& title, const std::string& label_header,
                 const std::vector<ChartRow>& rows, const char* unit)
{
    uint64_t largest = 0;
    size_t label_chars = label_header.size();
    std::vector<std::string> figures;
    std::string figures_header = std::string("counter 1 + counter 2 = total (") + unit + ")";
    size_t figure_chars = figures_header.size();
    for (const ChartRow& row : rows) {
        uint64_t total = row.first + row.second;
        if (total < row.first)
            total = UINT64_MAX;
        largest = std::max(largest, total);
        label_chars = std::max(label_chars, row.label.size());
        figures.push_back(std::to_string(row.first) + " + " + std::to_string(row.second) + " = " +
                          amount(total, unit));
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
                << "\" height=\"" << BAR_HEIGHT_PX << "\"><title>counter 1: " << amount(row.first, unit)
                << "</title></rect>";
        if (parts.second > 0)
            out << "<rect class=\"c2\" x=\"" << label_px + static_cast<int>(parts.first) << "\" y=\"" << y + 3
                << "\" width=\"" << parts.second << "\" height=\"" << BAR_HEIGHT_PX
                << "\"><title>counter 2: " << amount(row.second, unit) << "</title></rect>";
        out << "<text x=\"" << figures_x << "\" y=\"" << y + 14 << "\">" << escape(figures[i]) << "</text>";
        out << "</g>\n";
    }
    out << "</svg>\n";
}

void write_notes(std::ostream& out, const std::vector<std::string>& notes)
{
    for (const std::string& n : notes)
        out << "<p class=\"note\">" << escape(n) << "</p>\n";
}

void write_usage_table(std::ostream& out, const std::string& owner, const UsageTable& t)
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
    write_chart(out, owner + " " + t.title, "  " + t.period_header, rows, "MiB");
}

void write_gauge(std::ostream& out, uint64_t tenths, bool suspended)
{
    uint64_t filled = scale_to(std::min<uint64_t>(tenths, 1000), 1000, GAUGE_PX);
    out << "<svg width=\"" << GAUGE_PX << "\" height=\"12\" viewBox=\"0 0 " << GAUGE_PX << " 12\" role=\"img\""
        << " aria-label=\"" << tenths / 10 << '.' << tenths % 10 << " % used\">"
        << "<rect class=\"gauge\" x=\"0\" y=\"0\" width=\"" << GAUGE_PX << "\" height=\"12\"></rect>"
        << "<rect class=\"" << (suspended || tenths >= 995 ? "over" : "ok") << "\" x=\"0\" y=\"0\" width=\""
        << filled << "\" height=\"12\"></rect></svg>";
}

void write_allowances(std::ostream& out, const Report& r)
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
            out << "<td>" << escape(a.cycle) << "</td><td class=\"num\">" << amount(a.first, "MiB")
                << "</td><td class=\"num\">" << amount(a.second, "MiB") << "</td><td class=\"num\">"
                << amount(a.used(), "MiB") << "</td>";
        else
            out << "<td>-</td><td class=\"num\">-</td><td class=\"num\">-</td><td class=\"num\">-</td>";
        out << "<td class=\"num\">";
        switch (a.quota) {
        case Allowance::Quota::unknown: out << "unknown"; break;
        case Allowance::Quota::none: out << "none"; break;
        case Allowance::Quota::invalid: out << "invalid"; break;
        case Allowance::Quota::set: out << amount(a.quota_mib, "MiB"); break;
        }
        out << "</td><td>";
        uint64_t tenths;
        if (a.used_tenths(&tenths)) {
            write_gauge(out, tenths, a.suspended);
            out << ' ' << tenths / 10 << '.' << tenths % 10 << " %";
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

void write_client_table(std::ostream& out, const ClientTable& t)
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
    write_chart(out, "clients " + t.title + " " + t.period, t.key_header, rows, "KiB");
}

} // namespace

void write_html_report(std::ostream& out, const Report& r)
{
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
    out << "<p class=\"legend\">Link and router figures are in MiB, client figures in KiB, as the daemon's files "
           "hold them. Bars: "
        << "<svg width=\"12\" height=\"12\" viewBox=\"0 0 12 12\" aria-hidden=\"true\">"
           "<rect class=\"c1\" x=\"0\" y=\"0\" width=\"12\" height=\"12\"></rect></svg> counter 1, "
        << "<svg width=\"12\" height=\"12\" viewBox=\"0 0 12 12\" aria-hidden=\"true\">"
           "<rect class=\"c2\" x=\"0\" y=\"0\" width=\"12\" height=\"12\"></rect></svg> counter 2 "
        << "(the two counters of the kernel's lines, in that order). Rows are newest first; * marks the "
           "running period.</p>\n";

    write_allowances(out, r);

    for (const Link& link : r.links) {
        out << "<section>\n<h2>" << escape(link.label()) << "</h2>\n";
        for (const UsageTable& t : link.tables)
            write_usage_table(out, link.id, t);
        out << "</section>\n";
    }

    out << "<section>\n<h2>Router totals (all WAN links)</h2>\n";
    for (const UsageTable& t : r.totals)
        write_usage_table(out, "router", t);
    out << "</section>\n";

    out << "<section>\n<h2>Top clients</h2>\n";
    for (const ClientTable& t : r.clients)
        write_client_table(out, t);
    out << "</section>\n</body>\n</html>\n";
}

} // namespace report
