#include "tools/report/report_json.h"

#include "tools/report/units.h"

#include <algorithm>
#include <string>
#include <vector>

namespace report {

namespace {

// One UTF-8 sequence at text[i] of n bytes (1 to 4), or 0 when the bytes there are not
// well-formed UTF-8 (overlong forms, surrogates and code points above U+10FFFF included).
size_t utf8_length(const std::string& text, size_t i)
{
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char c = byte(i);
    if (c < 0x80)
        return 1;
    size_t n;
    unsigned char low = 0x80, high = 0xBF;  // range of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0)
            low = 0xA0;
        if (c == 0xED)
            high = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0)
            low = 0x90;
        if (c == 0xF4)
            high = 0x8F;
    } else {
        return 0;
    }
    if (i + n > text.size() || byte(i + 1) < low || byte(i + 1) > high)
        return 0;
    for (size_t k = 2; k < n; ++k)
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF)
            return 0;
    return n;
}

// text as a JSON string. Names come from the configuration as they stand, so a byte that
// is not part of well-formed UTF-8 becomes U+FFFD and the document stays valid.
std::string quoted(const std::string& text)
{
    static const char HEX[] = "0123456789abcdef";
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
        } else if (c < 0x20 || c == 0x7F) {
            out += "\\u00";
            out += HEX[c >> 4];
            out += HEX[c & 15];
            ++i;
        } else if (size_t n = utf8_length(text, i)) {
            out.append(text, i, n);
            i += n;
        } else {
            out += "\\ufffd";
            ++i;
        }
    }
    return out + "\"";
}

std::string number(uint64_t value) { return std::to_string(value); }

// A small writer of indented JSON: objects and arrays are opened and closed explicitly,
// and the writer puts the commas.
class Json {
public:
    explicit Json(std::ostream& out) : out_(out) {}

    void open_object(const char* key = nullptr) { open(key, '{'); }
    void open_array(const char* key = nullptr) { open(key, '['); }
    void close_object() { close('}'); }
    void close_array() { close(']'); }

    // A member (inside an object, with key) or an element (inside an array, key null) whose
    // value is already JSON text.
    void raw(const char* key, const std::string& json)
    {
        item(key);
        out_ << json;
    }
    void string(const char* key, const std::string& text) { raw(key, quoted(text)); }
    void count(const char* key, uint64_t value) { raw(key, number(value)); }
    void boolean(const char* key, bool value) { raw(key, value ? "true" : "false"); }
    void null(const char* key) { raw(key, "null"); }
    void strings(const char* key, const std::vector<std::string>& texts)
    {
        open_array(key);
        for (const std::string& t : texts)
            string(nullptr, t);
        close_array();
    }

private:
    void item(const char* key)
    {
        if (!first_.empty()) {
            out_ << (first_.back() ? "\n" : ",\n");
            first_.back() = false;
        }
        out_ << std::string(2 * first_.size(), ' ');
        if (key)
            out_ << quoted(key) << ": ";
    }
    void open(const char* key, char bracket)
    {
        item(key);
        out_ << bracket;
        first_.push_back(true);
    }
    void close(char bracket)
    {
        const bool empty = first_.back();
        first_.pop_back();
        if (!empty)
            out_ << '\n' << std::string(2 * first_.size(), ' ');
        out_ << bracket;
        if (first_.empty())
            out_ << '\n';
    }

    std::ostream& out_;
    std::vector<bool> first_;  // per open object or array: nothing written in it yet
};

// The first and last moments of a row's period: the day or the range's dates as they
// stand, and for an hour its first and last minute.
void period_bounds(const UsageRow& row, std::string* start, std::string* end)
{
    const std::string& p = row.period;
    if (p.size() == 24) {  // "2024-03-01 .. 2024-03-20"
        *start = p.substr(0, 10);
        *end = p.substr(14, 10);
    } else if (p.size() == 16) {  // "2024-03-20 14:00"
        *start = p;
        *end = p.substr(0, 14) + "59";
    } else {  // "2024-03-20"
        *start = *end = p;
    }
}

void write_table(Json& j, const char* key, const UsageTable& t, std::vector<std::string>* problems)
{
    j.open_object(key);
    j.string("path", t.path);
    j.boolean("read", t.problem.empty());
    j.open_array("rows");
    for (const UsageRow& row : t.rows) {
        std::string start, end;
        period_bounds(row, &start, &end);
        j.open_object();
        j.string("start", start);
        j.string("end", end);
        j.count("counter1_bytes", mib_to_bytes(row.first));
        j.count("counter2_bytes", mib_to_bytes(row.second));
        j.boolean("running", row.running());
        j.close_object();
    }
    j.close_array();
    j.close_object();
    problems->insert(problems->end(), t.notes.begin(), t.notes.end());
    if (!t.problem.empty())
        problems->push_back(t.problem);
}

void write_figure(Json& j, const char* key, const PeriodFigure& f)
{
    if (!f.known) {
        j.null(key);
        return;
    }
    UsageRow row;
    row.period = f.period;
    std::string start, end;
    period_bounds(row, &start, &end);
    j.open_object(key);
    j.string("start", start);
    j.string("end", end);
    j.count("counter1_bytes", mib_to_bytes(f.first));
    j.count("counter2_bytes", mib_to_bytes(f.second));
    j.close_object();
}

void write_summary(Json& j, const Summary& s, bool with_cycle)
{
    j.open_object("summary");
    write_figure(j, "today", s.today);
    write_figure(j, "yesterday", s.yesterday);
    write_figure(j, "month", s.month);
    if (with_cycle)
        write_figure(j, "cycle", s.cycle);
    j.close_object();
}

const char* when_name(Crossing::When when)
{
    switch (when) {
    case Crossing::When::crossed: return "crossed";
    case Crossing::When::in_cycle: return "expected";
    case Crossing::When::not_in_cycle: break;
    }
    return "not_in_cycle";
}

void write_allowance(Json& j, const Link& link, std::vector<std::string>* problems)
{
    const Allowance& a = link.allowance;
    const Projection& p = a.projection;
    j.open_object("allowance");
    if (a.cycle_known)
        j.count("used_bytes", mib_to_bytes(a.used()));
    else
        j.null("used_bytes");
    if (a.quota == Allowance::Quota::set)
        j.count("allowance_bytes", a.quota_bytes());
    else
        j.null("allowance_bytes");
    uint64_t tenths;
    if (a.used_tenths(&tenths))
        j.raw("percent", number(tenths / 10) + "." + number(tenths % 10));
    else
        j.null("percent");
    if (a.quota == Allowance::Quota::unknown) {
        j.null("actions");
    } else {
        std::vector<std::string> actions;
        if (a.action.find("email") != std::string::npos)
            actions.push_back("email");
        if (a.action.find("disconnect") != std::string::npos)
            actions.push_back("disconnect");
        j.strings("actions", actions);
    }
    j.boolean("suspended", a.suspended);
    if (p.known) {
        j.string("cycle_start", p.start_date);
        j.string("cycle_end", p.end_date);
        j.count("projected_cycle_bytes", p.projected_bytes);
        j.open_array("projected_crossings");
        for (const Crossing& c : p.crossings) {
            j.open_object();
            j.string("line", c.key);
            j.raw("percent", c.key == "suspension" ? "99.5" : c.key);
            j.count("line_bytes", c.line_bytes);
            j.string("state", when_name(c.when));
            if (c.when == Crossing::When::in_cycle)
                j.string("date", c.date);
            else
                j.null("date");
            j.close_object();
        }
        j.close_array();
        j.null("projection_unavailable");
    } else {
        j.null("cycle_start");
        j.null("cycle_end");
        j.null("projected_cycle_bytes");
        j.open_array("projected_crossings");
        j.close_array();
        j.string("projection_unavailable", p.why_not);
    }
    j.close_object();
    problems->insert(problems->end(), link.allowance_notes.begin(), link.allowance_notes.end());
}

// "wan3 sim1" as the JSON id "wan3.sim1".
std::string link_id(const Link& link)
{
    std::string id = link.id;
    for (char& c : id)
        if (c == ' ')
            c = '.';
    return id;
}

void write_clients(Json& j, const char* key, const ClientTable& t, std::vector<std::string>* problems)
{
    j.open_object(key);
    j.string("directory", t.directory);
    if (t.file.empty())
        j.null("file");
    else
        j.string("file", t.file);
    if (t.period.empty())
        j.null("period");
    else
        j.string("period", t.period);
    j.boolean("read", t.problem.empty());
    j.open_array("clients");
    for (const ClientRow& row : t.rows) {
        j.open_object();
        j.string(t.key_header == "MAC" ? "mac" : "address", row.key);
        std::vector<std::string> types;
        size_t from = 0;
        while (from <= row.types.size()) {
            size_t plus = row.types.find('+', from);
            if (plus == std::string::npos)
                plus = row.types.size();
            types.push_back(row.types.substr(from, plus - from));
            from = plus + 1;
        }
        j.strings("types", types);
        j.count("counter1_bytes", kib_to_bytes(row.first));
        j.count("counter2_bytes", kib_to_bytes(row.second));
        j.close_object();
    }
    j.close_array();
    j.close_object();
    problems->insert(problems->end(), t.notes.begin(), t.notes.end());
    if (!t.problem.empty())
        problems->push_back(t.problem);
}

} // namespace

void write_json_report(std::ostream& out, const Report& r)
{
    Json j(out);
    std::vector<std::string> problems = r.config_notes;
    j.open_object();
    j.count("format", 1);
    j.count("wan_count", static_cast<uint64_t>(r.wan_count));
    j.open_array("dual_sim");
    for (int wan : r.dual_sim)
        j.string(nullptr, "wan" + std::to_string(wan));
    j.close_array();

    j.open_array("links");
    static const char* const TABLE_KEYS[] = {"hourly", "daily", "monthly", "billing"};
    for (const Link& link : r.links) {
        j.open_object();
        j.string("id", link_id(link));
        j.count("wan", static_cast<uint64_t>(link.wan));
        j.count("sim", static_cast<uint64_t>(link.sim));
        j.string("name", link.name);
        for (size_t i = 0; i < link.tables.size() && i < 4; ++i)
            write_table(j, TABLE_KEYS[i], link.tables[i], &problems);
        write_allowance(j, link, &problems);
        write_summary(j, link.summary, true);
        j.close_object();
    }
    j.close_array();

    j.open_object("totals");
    for (size_t i = 0; i < r.totals.size() && i < 3; ++i)
        write_table(j, TABLE_KEYS[i], r.totals[i], &problems);
    write_summary(j, r.totals_summary, false);
    j.close_object();

    j.open_object("clients");
    j.open_object("by_ip");
    static const char* const CLIENT_KEYS[] = {"hourly", "daily", "monthly"};
    for (size_t i = 0; i < r.clients.size() && i < 3; ++i)
        write_clients(j, CLIENT_KEYS[i], r.clients[i], &problems);
    j.close_object();
    j.open_object("by_mac");
    if (r.clients.size() > 3)
        write_clients(j, "hourly", r.clients[3], &problems);
    j.close_object();
    j.close_object();

    // A message can come twice (a billing file's message is also the allowance's); once is
    // enough.
    std::vector<std::string> unique;
    for (const std::string& p : problems)
        if (std::find(unique.begin(), unique.end(), p) == unique.end())
            unique.push_back(p);
    j.strings("problems", unique);
    j.close_object();
}

} // namespace report
