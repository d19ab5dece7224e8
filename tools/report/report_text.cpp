#include "tools/report/report_text.h"

#include "tools/report/bars.h"
#include "tools/report/projection.h"
#include "tools/report/units.h"

#include <algorithm>
#include <string>
#include <vector>

namespace report {

namespace {

struct Column {
    std::string header;
    bool right;  // right-aligned
};

using Cells = std::vector<std::string>;

std::string pad(const std::string& text, size_t width, bool right)
{
    if (text.size() >= width)
        return text;
    std::string fill(width - text.size(), ' ');
    return right ? fill + text : text + fill;
}

void write_line(std::ostream& out, std::string line)
{
    while (!line.empty() && line.back() == ' ')
        line.pop_back();
    out << line << '\n';
}

// A table in the monitor style: header, rule, rows, columns parted by " | ". When bars is
// given, every row ends with its bar after a last " | ".
void write_table(std::ostream& out, const std::vector<Column>& columns, const std::vector<Cells>& rows,
                 const std::vector<std::string>* bars, int bar_width)
{
    std::vector<size_t> widths;
    for (const Column& c : columns)
        widths.push_back(c.header.size());
    for (const Cells& row : rows)
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());

    auto line = [&](const Cells& cells, const std::string& bar) {
        std::string text = "  ";
        for (size_t i = 0; i < columns.size(); ++i) {
            if (i > 0)
                text += " | ";
            text += pad(i < cells.size() ? cells[i] : "", widths[i], columns[i].right);
        }
        if (bars)
            text += " | " + bar;
        write_line(out, text);
    };

    Cells header;
    for (const Column& c : columns)
        header.push_back(c.header);
    line(header, "");
    std::string rule = "  ";
    for (size_t i = 0; i < columns.size(); ++i) {
        if (i > 0)
            rule += "-+-";
        rule += std::string(widths[i], '-');
    }
    if (bars)
        rule += "-+-" + std::string(static_cast<size_t>(bar_width), '-');
    write_line(out, rule);
    for (size_t i = 0; i < rows.size(); ++i)
        line(rows[i], bars ? (*bars)[i] : "");
}

std::string bar_text(uint64_t first, uint64_t second, uint64_t largest, int width)
{
    BarParts parts = bar_parts(first, second, largest, static_cast<uint64_t>(width));
    return std::string(parts.first, '#') + std::string(parts.second, '=');
}


void heading(std::ostream& out, const std::string& text, char underline)
{
    out << '\n' << text << '\n' << std::string(text.size(), underline) << '\n';
}

void write_messages(std::ostream& out, const std::vector<std::string>& messages)
{
    for (const std::string& m : messages)
        out << "  " << m << '\n';
}

void write_usage_table(std::ostream& out, const UsageTable& t, int bar_width, bool raw)
{
    out << '\n';
    if (!t.problem.empty()) {
        write_messages(out, t.notes);
        out << "  " << t.problem << '\n';
        return;
    }
    out << "  " << t.title << ": " << t.path << '\n';
    write_messages(out, t.notes);
    out << '\n';

    uint64_t largest = 0;
    for (const UsageRow& row : t.rows)
        largest = std::max(largest, row.total());
    std::vector<Cells> rows;
    std::vector<std::string> bars;
    for (size_t i = 0; i < t.rows.size(); ++i) {
        const UsageRow& row = t.rows[i];
        rows.push_back({(row.running() ? "* " : "  ") + row.period, show_mib(row.first, raw),
                        show_mib(row.second, raw), show_mib(row.total(), raw)});
        bars.push_back(bar_text(row.first, row.second, largest, bar_width));
    }
    write_table(out,
                {{"  " + t.period_header, false}, {"counter 1", true}, {"counter 2", true}, {"total", true}},
                rows, bar_width > 0 ? &bars : nullptr, bar_width);
}

// What the projection says in a table cell: the bytes at the cycle's end, or why there
// is no projection.

void write_allowances(std::ostream& out, const Report& r, bool raw)
{
    heading(out, "Allowances (running billing cycle)", '-');
    out << '\n';
    std::vector<Cells> rows;
    std::vector<std::string> notes;
    for (const Link& link : r.links) {
        const Allowance& a = link.allowance;
        Cells row{link.label()};
        if (a.cycle_known) {
            row.push_back(a.cycle);
            row.push_back(show_mib(a.first, raw));
            row.push_back(show_mib(a.second, raw));
            row.push_back(show_mib(a.used(), raw));
        } else {
            row.insert(row.end(), {"-", "-", "-", "-"});
        }
        switch (a.quota) {
        case Allowance::Quota::unknown: row.push_back("unknown"); break;
        case Allowance::Quota::none: row.push_back("none"); break;
        case Allowance::Quota::invalid: row.push_back("invalid"); break;
        case Allowance::Quota::set: row.push_back(show_mib(a.quota_mib, raw)); break;
        }
        uint64_t tenths;
        row.push_back(a.used_tenths(&tenths) ? percent_text(tenths) : "-");
        row.push_back(a.action);
        row.push_back(a.suspended ? "suspended" : "not suspended");
        row.push_back(a.projection.known ? show_link_bytes(a.projection.projected_bytes, raw) : "-");
        rows.push_back(row);
        notes.insert(notes.end(), link.allowance_notes.begin(), link.allowance_notes.end());
    }
    write_table(out,
                {{"link", false},
                 {"cycle", false},
                 {"counter 1", true},
                 {"counter 2", true},
                 {"used", true},
                 {"allowance", true},
                 {"used %", true},
                 {"action", false},
                 {"state", false},
                 {"projected", true}},
                rows, nullptr, 0);
    if (!notes.empty()) {
        out << '\n';
        write_messages(out, notes);
    }
}

// A line of a summary block: what it is, an amount (may be empty) and its period or words.
struct SummaryLine {
    std::string what;
    std::string amount;
    std::string text;
};

SummaryLine figure_line(const char* what, const PeriodFigure& f, bool raw)
{
    if (!f.known)
        return {what, "-", ""};
    return {what, show_mib(f.total(), raw), f.period};
}

// The lines of a link's summary block after its figures: the allowance, the projection and
// when the allowance's three lines are crossed.
void allowance_lines(const Link& link, bool raw, std::vector<SummaryLine>* lines)
{
    const Allowance& a = link.allowance;
    SummaryLine line{"allowance", "", ""};
    switch (a.quota) {
    case Allowance::Quota::unknown: line.text = "unknown (configuration not read)"; break;
    case Allowance::Quota::none: line.text = "none"; break;
    case Allowance::Quota::invalid: line.text = "invalid"; break;
    case Allowance::Quota::set: {
        line.amount = show_mib(a.quota_mib, raw);
        uint64_t tenths;
        if (a.used_tenths(&tenths))
            line.text = percent_text(tenths) + " used, ";
        line.text += "action " + a.action;
        break;
    }
    }
    if (a.suspended)
        line.text += (line.text.empty() ? "" : ", ") + std::string("suspended");
    lines->push_back(line);

    const Projection& p = a.projection;
    if (!p.known) {
        lines->push_back({"projected", "-", p.why_not});
        return;
    }
    lines->push_back({"projected", show_link_bytes(p.projected_bytes, raw),
                      "at the cycle's end, " + p.end_date +
                          (p.held ? ": suspended, no more traffic this cycle" : ", at the rate so far")});
    for (const Crossing& c : p.crossings)
        lines->push_back({c.name + " line", "", crossing_words(c)});
}

// The summary: one short block per link and one for the router.
void write_summary(std::ostream& out, const Report& r, bool raw)
{
    heading(out, "Summary", '-');
    auto block = [&](const std::string& title, const Summary& s, const Link* link) {
        out << '\n' << "  " << title << '\n';
        std::vector<SummaryLine> lines{figure_line("today", s.today, raw), figure_line("yesterday", s.yesterday, raw),
                                       figure_line("this month", s.month, raw)};
        if (link) {
            lines.push_back(figure_line("this cycle", s.cycle, raw));
            allowance_lines(*link, raw, &lines);
        }
        size_t what = 0, amount = 0;
        for (const SummaryLine& line : lines) {
            what = std::max(what, line.what.size());
            amount = std::max(amount, line.amount.size());
        }
        for (const SummaryLine& line : lines)
            write_line(out, "    " + pad(line.what, what, false) + "  " + pad(line.amount, amount, true) + "  " +
                                line.text);
    };
    for (const Link& link : r.links)
        block(link.label(), link.summary, &link);
    block("router (all WAN links)", r.totals_summary, nullptr);
}

void write_client_table(std::ostream& out, const ClientTable& t, int bar_width, bool raw)
{
    out << '\n';
    if (!t.problem.empty()) {
        write_messages(out, t.notes);
        out << "  " << t.problem << '\n';
        return;
    }
    out << "  " << t.title << " " << t.period << ": " << t.file << '\n';
    write_messages(out, t.notes);
    size_t count = t.rows.size();
    out << "  " << count << (count == 1 ? " client" : " clients");
    if (t.shown < count)
        out << ", the " << t.shown << " largest shown";
    out << '\n';
    if (t.key_header == "MAC")
        out << "  *address: a client whose MAC is not known\n";
    out << '\n';

    uint64_t largest = 0;
    for (size_t i = 0; i < t.shown; ++i)
        largest = std::max(largest, t.rows[i].total());
    std::vector<Cells> rows;
    std::vector<std::string> bars;
    for (size_t i = 0; i < t.shown; ++i) {
        const ClientRow& row = t.rows[i];
        rows.push_back({std::to_string(i + 1), row.key, row.types, show_kib(row.first, raw),
                        show_kib(row.second, raw), show_kib(row.total(), raw)});
        bars.push_back(bar_text(row.first, row.second, largest, bar_width));
    }
    write_table(out,
                {{"#", true},
                 {t.key_header, false},
                 {"type", false},
                 {"counter 1", true},
                 {"counter 2", true},
                 {"total", true}},
                rows, bar_width > 0 ? &bars : nullptr, bar_width);
}

} // namespace

void write_text_report(std::ostream& out, const Report& r, const TextOptions& options)
{
    const int bar_width = options.bar_width;
    const bool raw = options.raw;
    out << "ruvo usage report\n"
        << "=================\n\n";
    out << "WAN links: " << r.wan_count << " (" << r.wan_count_note << ")\n";
    out << "Dual-SIM links: ";
    if (r.dual_sim.empty())
        out << "none";
    for (size_t i = 0; i < r.dual_sim.size(); ++i)
        out << (i ? ", " : "") << "wan" << r.dual_sim[i];
    out << " (" << r.dual_sim_note << ")\n";
    for (const std::string& note : r.config_notes)
        out << note << '\n';
    if (raw)
        out << "Link and router figures are in MiB, client figures in KiB, as the daemon's files hold them.\n";
    else
        out << "Figures are in B, KiB, MiB, GiB and TiB (1 KiB = 1024 B); the daemon's files hold MiB for\n"
            << "links and the router and KiB for clients, rounded down (--raw shows those).\n";
    if (options.summary_only) {
        write_summary(out, r, raw);
        return;
    }
    out << "Counter 1 and counter 2 are the two counters of the kernel's lines, in that order.\n"
        << "Rows are newest first; * marks the running period (the first line of a file).\n"
        << "Projections run the billing cycle's traffic so far on to the cycle's end at the same rate;\n"
        << "the lines of an allowance are 75 %, 95 % and 99.5 % (where the link is suspended).\n";
    if (bar_width > 0)
        out << "Bars: # counter 1, = counter 2, " << bar_width
            << " characters for the largest total of each table.\n";

    write_summary(out, r, raw);
    write_allowances(out, r, raw);

    for (const Link& link : r.links) {
        heading(out, link.label(), '-');
        for (const UsageTable& t : link.tables)
            write_usage_table(out, t, bar_width, raw);
    }

    heading(out, "Router totals (all WAN links)", '-');
    for (const UsageTable& t : r.totals)
        write_usage_table(out, t, bar_width, raw);

    heading(out, "Top clients", '-');
    for (const ClientTable& t : r.clients)
        write_client_table(out, t, bar_width, raw);
}

} // namespace report
