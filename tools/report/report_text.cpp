#include "tools/report/report_text.h"

#include "tools/report/bars.h"

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

std::string amount(uint64_t value, const char* unit) { return std::to_string(value) + " " + unit; }

void heading(std::ostream& out, const std::string& text, char underline)
{
    out << '\n' << text << '\n' << std::string(text.size(), underline) << '\n';
}

void write_messages(std::ostream& out, const std::vector<std::string>& messages)
{
    for (const std::string& m : messages)
        out << "  " << m << '\n';
}

void write_usage_table(std::ostream& out, const UsageTable& t, int bar_width)
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
        rows.push_back({(row.running() ? "* " : "  ") + row.period, amount(row.first, "MiB"), amount(row.second, "MiB"),
                        amount(row.total(), "MiB")});
        bars.push_back(bar_text(row.first, row.second, largest, bar_width));
    }
    write_table(out,
                {{"  " + t.period_header, false}, {"counter 1", true}, {"counter 2", true}, {"total", true}},
                rows, bar_width > 0 ? &bars : nullptr, bar_width);
}

void write_allowances(std::ostream& out, const Report& r)
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
            row.push_back(amount(a.first, "MiB"));
            row.push_back(amount(a.second, "MiB"));
            row.push_back(amount(a.used(), "MiB"));
        } else {
            row.insert(row.end(), {"-", "-", "-", "-"});
        }
        switch (a.quota) {
        case Allowance::Quota::unknown: row.push_back("unknown"); break;
        case Allowance::Quota::none: row.push_back("none"); break;
        case Allowance::Quota::invalid: row.push_back("invalid"); break;
        case Allowance::Quota::set: row.push_back(amount(a.quota_mib, "MiB")); break;
        }
        uint64_t tenths;
        row.push_back(a.used_tenths(&tenths) ? std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " %"
                                             : "-");
        row.push_back(a.action);
        row.push_back(a.suspended ? "suspended" : "not suspended");
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
                 {"state", false}},
                rows, nullptr, 0);
    if (!notes.empty()) {
        out << '\n';
        write_messages(out, notes);
    }
}

void write_client_table(std::ostream& out, const ClientTable& t, int bar_width)
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
        rows.push_back({std::to_string(i + 1), row.key, row.types, amount(row.first, "KiB"),
                        amount(row.second, "KiB"), amount(row.total(), "KiB")});
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

void write_text_report(std::ostream& out, const Report& r, int bar_width)
{
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
    out << "Link and router figures are in MiB, client figures in KiB, as the daemon's files hold them.\n"
        << "Counter 1 and counter 2 are the two counters of the kernel's lines, in that order.\n"
        << "Rows are newest first; * marks the running period (the first line of a file).\n";
    if (bar_width > 0)
        out << "Bars: # counter 1, = counter 2, " << bar_width
            << " characters for the largest total of each table.\n";

    write_allowances(out, r);

    for (const Link& link : r.links) {
        heading(out, link.label(), '-');
        for (const UsageTable& t : link.tables)
            write_usage_table(out, t, bar_width);
    }

    heading(out, "Router totals (all WAN links)", '-');
    for (const UsageTable& t : r.totals)
        write_usage_table(out, t, bar_width);

    heading(out, "Top clients", '-');
    for (const ClientTable& t : r.clients)
        write_client_table(out, t, bar_width);
}

} // namespace report
