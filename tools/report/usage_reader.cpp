#include "tools/report/usage_reader.h"

#include "platform/strutils.h"
#include "tools/report/projection.h"
#include "tools/report/units.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <map>
#include <memory>
#include <string_view>
#include <sys/stat.h>

namespace report {

namespace {

constexpr const char* KOREL_DIR = "/var/run/korel";
constexpr const char* CONFIG_PATH = "/usr/local/velto/conf/config";
constexpr const char* WAN_COUNT_PATH = "/etc/VELTO_wanno";
constexpr const char* DUAL_SIM_PATH = "/etc/gobi_dual_sim_support";

// The daemon serves at least two WAN links; a count beyond this is taken as a broken file.
constexpr int MIN_WANS = 2;
constexpr int MAX_WANS = 32;

// At most this many "line N malformed" messages per file; the rest are counted.
constexpr int MAX_LINE_NOTES = 10;

// The link and router files hold MiB cut to 32 bits.
constexpr uint64_t MAX_MIB = 4294967295u;

std::string format(const char* fmt, int a)
{
    char buf[128];
    snprintf(buf, sizeof buf, fmt, a);
    return buf;
}

std::string format(const char* fmt, int a, int b)
{
    char buf[128];
    snprintf(buf, sizeof buf, fmt, a, b);
    return buf;
}

struct file_closer {
    void operator()(FILE* f) const { fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct dir_closer {
    void operator()(DIR* d) const { closedir(d); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

// Why a path cannot be used as a file: "missing", "is a directory" or the system's reason.
std::string open_failure(int error)
{
    if (error == ENOENT || error == ENOTDIR)
        return "missing";
    if (error == EISDIR)
        return "is a directory";
    return std::string("cannot be read (") + strerror(error) + ")";
}

// Opens root + path for reading. On failure sets why and returns null.
file_ptr open_file(const std::string& root, const std::string& path, std::string* why)
{
    std::string full = root + path;
    struct stat st;
    if (stat(full.c_str(), &st) != 0) {
        *why = open_failure(errno);
        return nullptr;
    }
    if (S_ISDIR(st.st_mode)) {
        *why = open_failure(EISDIR);
        return nullptr;
    }
    FILE* f = fopen(full.c_str(), "r");
    if (!f) {
        *why = open_failure(errno);
        return nullptr;
    }
    return file_ptr(f);
}

// Reads every line of f (without its '\n'). False when a read error cuts the file short.
bool read_lines(FILE* f, std::vector<std::string>* lines)
{
    char* buf = nullptr;
    size_t cap = 0;
    ssize_t n;
    while ((n = getline(&buf, &cap, f)) >= 0) {
        std::string line(buf, static_cast<size_t>(n));
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        lines->push_back(std::move(line));
    }
    free(buf);
    return !ferror(f);
}

std::vector<std::string_view> split(std::string_view text, char sep)
{
    std::vector<std::string_view> parts;
    size_t start = 0;
    for (;;) {
        size_t at = text.find(sep, start);
        if (at == std::string_view::npos) {
            parts.push_back(text.substr(start));
            return parts;
        }
        parts.push_back(text.substr(start, at - start));
        start = at + 1;
    }
}

bool all_digits(std::string_view s)
{
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A plain unsigned decimal (digits only) of at most max.
bool parse_count(std::string_view s, uint64_t max, uint64_t* out)
{
    if (!all_digits(s) || s.size() > 20)
        return false;
    uint64_t value = 0;
    for (char c : s) {
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (max - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    *out = value;
    return true;
}

int two_digits(std::string_view s) { return (s[0] - '0') * 10 + (s[1] - '0'); }

bool is_leap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// "YYYY-MM-DD", a day that exists.
bool valid_date(std::string_view s)
{
    if (s.size() != 10 || s[4] != '-' || s[7] != '-')
        return false;
    if (!all_digits(s.substr(0, 4)) || !all_digits(s.substr(5, 2)) || !all_digits(s.substr(8, 2)))
        return false;
    int year = std::atoi(std::string(s.substr(0, 4)).c_str());
    int month = two_digits(s.substr(5, 2));
    int day = two_digits(s.substr(8, 2));
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1)
        return false;
    int last = days[month - 1] + (month == 2 && is_leap(year) ? 1 : 0);
    return day <= last;
}

// "YYYY-MM-DD-HH", hour 00 to 23.
bool valid_hour(std::string_view s)
{
    return s.size() == 13 && valid_date(s.substr(0, 10)) && s[10] == '-' &&
           all_digits(s.substr(11, 2)) && two_digits(s.substr(11, 2)) < 24;
}

// The hour "YYYY-MM-DD-HH" as shown: "YYYY-MM-DD HH:00".
std::string hour_label(std::string_view s)
{
    return std::string(s.substr(0, 10)) + " " + std::string(s.substr(11, 2)) + ":00";
}

// Dotted IPv4 address: four numbers of 0 to 255 with one to three digits.
bool valid_ipv4(std::string_view s)
{
    std::vector<std::string_view> parts = split(s, '.');
    if (parts.size() != 4)
        return false;
    for (std::string_view p : parts) {
        uint64_t v;
        if (p.size() > 3 || !parse_count(p, 255, &v))
            return false;
    }
    return true;
}

// "AA:BB:CC:DD:EE:FF" in either case.
bool valid_mac(std::string_view s)
{
    if (s.size() != 17)
        return false;
    for (size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (i % 3 == 2) {
            if (c != ':')
                return false;
        } else if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) {
            return false;
        }
    }
    return true;
}

// A type name of a client line: letters and digits.
bool valid_type(std::string_view s)
{
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    });
}

bool ends_with(const std::string& text, std::string_view tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

uint64_t add_saturating(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

// Collects the "line N malformed, skipped" messages of one file.
class LineNotes {
public:
    LineNotes(std::string prefix, std::vector<std::string>* out) : prefix_(std::move(prefix)), out_(out) {}
    void malformed(size_t line_number)
    {
        if (++count_ <= MAX_LINE_NOTES)
            out_->push_back(prefix_ + "line " + std::to_string(line_number) + " malformed, skipped");
    }
    ~LineNotes()
    {
        if (count_ > MAX_LINE_NOTES)
            out_->push_back(prefix_ + std::to_string(count_ - MAX_LINE_NOTES) +
                            " more malformed lines skipped");
    }

private:
    std::string prefix_;
    std::vector<std::string>* out_;
    int count_ = 0;
};

enum class LineShape { hourly, daily, range };

// One line of a link or router usage file; false when it is malformed.
bool parse_usage_line(std::string_view line, LineShape shape, UsageRow* row)
{
    std::vector<std::string_view> f = split(line, ',');
    size_t counters = shape == LineShape::range ? 2 : 1;
    if (f.size() != counters + 2)
        return false;
    switch (shape) {
    case LineShape::hourly:
        if (!valid_hour(f[0]))
            return false;
        row->period = hour_label(f[0]);
        break;
    case LineShape::daily:
        if (!valid_date(f[0]))
            return false;
        row->period = std::string(f[0]);
        break;
    case LineShape::range:
        if (!valid_date(f[0]) || !valid_date(f[1]) || f[1] < f[0])
            return false;
        row->period = std::string(f[0]) + " .. " + std::string(f[1]);
        break;
    }
    return parse_count(f[counters], MAX_MIB, &row->first) &&
           parse_count(f[counters + 1], MAX_MIB, &row->second);
}

struct TableKind {
    const char* title;
    const char* period_header;
    LineShape shape;
};

const TableKind HOURLY{"hourly", "hour", LineShape::hourly};
const TableKind DAILY{"daily", "day", LineShape::daily};
const TableKind MONTHLY{"monthly", "month", LineShape::range};
const TableKind BILLING{"billing", "cycle", LineShape::range};

// Reads one link or router usage file. owner names it in messages ("wan1", "router").
UsageTable read_usage_table(const std::string& root, const std::string& owner, const TableKind& kind,
                            const std::string& path, bool* read)
{
    UsageTable table;
    table.title = kind.title;
    table.period_header = kind.period_header;
    table.path = path;
    std::string prefix = owner + " " + kind.title + ": " + path + ": ";
    std::string why;
    file_ptr f = open_file(root, path, &why);
    if (!f) {
        table.problem = prefix + why;
        return table;
    }
    std::vector<std::string> lines;
    if (!read_lines(f.get(), &lines)) {
        table.problem = prefix + "read error";
        return table;
    }
    *read = true;
    if (lines.empty()) {
        table.problem = prefix + "empty";
        return table;
    }
    {
        LineNotes notes(prefix, &table.notes);
        for (size_t i = 0; i < lines.size(); ++i) {
            UsageRow row;
            row.line = i + 1;
            if (parse_usage_line(lines[i], kind.shape, &row))
                table.rows.push_back(std::move(row));
            else
                notes.malformed(i + 1);
        }
    }
    if (table.rows.empty())
        table.problem = prefix + "no usable line";
    return table;
}

// The configuration, read through the firmware's key/value store.
class Config {
public:
    Config(const std::string& root, std::vector<std::string>* notes)
    {
        std::string why;
        file_ptr f = open_file(root, CONFIG_PATH, &why);
        if (!f) {
            notes->push_back(std::string("configuration: ") + CONFIG_PATH + ": " + why +
                             "; link names and allowances unknown");
            return;
        }
        f.reset();
        std::string full = root + CONFIG_PATH;
        tags_ = load_taglist_ex(full.c_str(), 1, 0);
        if (!tags_)
            notes->push_back(std::string("configuration: ") + CONFIG_PATH +
                             ": cannot be read; link names and allowances unknown");
    }
    ~Config() { free_taglist(tags_); }
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    bool loaded() const { return tags_ != nullptr; }

    // The value of key, or null when it is absent (or the file was not read).
    const char* get(const std::string& key) const
    {
        return tags_ ? get_taglist_default_ex(tags_, nullptr, key.c_str()) : nullptr;
    }

private:
    taglist* tags_ = nullptr;
};

// The configuration key of one setting of a link: "WAN%d_<setting>" for the link itself,
// "PIF%d_GOBI_<setting>" for SIM 1 and "PIF%d_GOBI_<setting>_2" for SIM 2.
std::string setting_key(int wan, int sim, const char* setting)
{
    if (sim == 0)
        return format("WAN%d_", wan) + setting;
    return format("PIF%d_GOBI_", wan) + setting + (sim == 2 ? "_2" : "");
}

std::string trim(const char* text)
{
    std::string_view s(text);
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return std::string(s);
}

bool can_read(const std::string& root, const std::string& path)
{
    std::string why;
    return open_file(root, path, &why) != nullptr;
}

Link read_link(const std::string& root, const Config& config, int wan, int sim, bool* read)
{
    Link link;
    link.wan = wan;
    link.sim = sim;
    link.id = sim == 0 ? format("wan%d", wan) : format("wan%d sim%d", wan, sim);
    std::string dir = format("/var/run/korel/wan%d/", wan);
    std::string stem = sim == 0 ? "link_usage_" : format("sim%d_usage_", sim);

    if (const char* name = config.get(format("WAN%d_NAME", wan)))
        link.name = name;

    for (const TableKind* kind : {&HOURLY, &DAILY, &MONTHLY, &BILLING}) {
        std::string file = dir + stem + (kind == &BILLING ? "billing" : kind->title) + ".csv";
        link.tables.push_back(read_usage_table(root, link.id, *kind, file, read));
    }

    // A link without a start day keeps no billing cycle: say so rather than "missing".
    std::string start_key = setting_key(wan, sim, "USAGE_START_DAY");
    UsageTable& billing = link.tables.back();
    if (config.loaded() && !config.get(start_key) && ends_with(billing.problem, ": missing"))
        billing.problem = link.id + " billing: no billing cycle configured (" + start_key + " not set)";

    Allowance& a = link.allowance;
    if (!billing.rows.empty() && billing.rows[0].running()) {
        a.cycle_known = true;
        a.cycle = billing.rows[0].period;
        a.first = billing.rows[0].first;
        a.second = billing.rows[0].second;
    } else if (!billing.problem.empty()) {
        link.allowance_notes.push_back(billing.problem);
    } else {
        link.allowance_notes.push_back(link.id + " billing: " + billing.path +
                                       ": line 1 (the running cycle) malformed");
    }

    if (config.loaded()) {
        std::string quota_key = setting_key(wan, sim, "USAGE_QUOTA");
        const char* quota = config.get(quota_key);
        std::string value = quota ? trim(quota) : "";
        if (value.empty()) {
            a.quota = Allowance::Quota::none;
        } else if (parse_count(value, UINT64_MAX >> 20, &a.quota_mib)) {
            a.quota = Allowance::Quota::set;
        } else {
            a.quota = Allowance::Quota::invalid;
            link.allowance_notes.push_back(link.id + " allowance: " + quota_key + " \"" + value +
                                           "\" is not a number of MB");
        }
        // The start day as the daemon converts it: strtol, base 10 (an empty value is 0,
        // the month's last day; a negative one keeps no cycle). Days beyond any month are
        // cut to a bound that still fits an int; the projection gives up on them anyway.
        if (const char* day = config.get(start_key)) {
            long value = std::strtol(day, nullptr, 10);
            if (value >= 0) {
                a.start_day_set = true;
                a.start_day = value > 1000000 ? 1000000 : static_cast<int>(value);
            }
        }
        const char* action = config.get(setting_key(wan, sim, "USAGE_ACTION"));
        std::string text = action ? action : "";
        bool email = text.find("email") != std::string::npos;
        bool disconnect = text.find("disconnect") != std::string::npos;
        a.action = email && disconnect ? "email, disconnect" : email ? "email" : disconnect ? "disconnect" : "none";
    } else {
        a.action = "unknown";
    }

    std::string marker = sim == 0 ? dir + "usage_suspend" : dir + format("usage_suspend.sim%d", sim);
    a.suspended = can_read(root, marker);
    project_allowance(&link);
    link.summary = summarize(link.tables);
    return link;
}

// The WAN count as the daemon takes it from "/etc/VELTO_wanno".
void read_wan_count(const std::string& root, Report* r)
{
    std::string why;
    file_ptr f = open_file(root, WAN_COUNT_PATH, &why);
    std::string path = WAN_COUNT_PATH;
    if (!f) {
        r->wan_count = MIN_WANS;
        r->wan_count_note = "default: " + path + ": " + why;
        return;
    }
    long long value = 0;
    int n = fscanf(f.get(), "%lld", &value);
    if (n != 1) {
        r->wan_count = MIN_WANS;
        r->wan_count_note = "default: " + path + " holds no number";
    } else if (value < MIN_WANS) {
        r->wan_count = MIN_WANS;
        r->wan_count_note = path + " says " + std::to_string(value) + "; the daemon keeps at least 2";
    } else if (value > MAX_WANS) {
        r->wan_count = MAX_WANS;
        r->wan_count_note = path + " says " + std::to_string(value) + "; the report stops at 32";
    } else {
        r->wan_count = static_cast<int>(value);
        r->wan_count_note = path;
    }
}

// The dual-SIM links: the WAN numbers on the first line of "/etc/gobi_dual_sim_support".
void read_dual_sim(const std::string& root, Report* r)
{
    std::string why;
    file_ptr f = open_file(root, DUAL_SIM_PATH, &why);
    std::string path = DUAL_SIM_PATH;
    if (!f) {
        r->dual_sim_note = why == "missing" ? "no " + path : path + ": " + why;
        return;
    }
    std::vector<std::string> lines;
    read_lines(f.get(), &lines);
    std::vector<std::string> ignored;
    if (!lines.empty()) {
        for (std::string_view token : split(lines[0], ' ')) {
            if (token.empty())
                continue;
            uint64_t n;
            if (parse_count(token, MAX_WANS, &n) && n >= 1 && static_cast<int>(n) <= r->wan_count) {
                if (std::find(r->dual_sim.begin(), r->dual_sim.end(), static_cast<int>(n)) == r->dual_sim.end())
                    r->dual_sim.push_back(static_cast<int>(n));
            } else {
                ignored.emplace_back(token);
            }
        }
    }
    std::sort(r->dual_sim.begin(), r->dual_sim.end());
    r->dual_sim_note = path;
    if (!ignored.empty()) {
        r->dual_sim_note += "; ignored, no such WAN:";
        for (const std::string& t : ignored)
            r->dual_sim_note += " " + t;
    }
}

struct ClientKind {
    const char* title;
    const char* key_header;
    const char* directory;
    bool hourly_names;  // "YYYY-MM-DD-HH.csv", else "YYYY-MM-DD.csv"
    bool monthly;       // the period shown is the month
    bool mac;           // MAC file lines
};

// The period named by a client file name ("YYYY-MM-DD-HH.csv" or "YYYY-MM-DD.csv"), or
// empty when the name is not one of the directory's.
std::string client_file_period(const std::string& name, const ClientKind& kind)
{
    std::string_view s(name);
    size_t stem = kind.hourly_names ? 13 : 10;
    if (s.size() != stem + 4 || s.substr(stem) != ".csv")
        return "";
    s = s.substr(0, stem);
    if (kind.hourly_names)
        return valid_hour(s) ? hour_label(s) : "";
    if (!valid_date(s))
        return "";
    return kind.monthly ? std::string(s.substr(0, 7)) : std::string(s);
}

// One client line: key, type and the two KiB counters; false when malformed.
bool parse_client_line(std::string_view line, bool mac, std::string_view* key, std::string_view* type,
                       uint64_t* first, uint64_t* second)
{
    std::vector<std::string_view> f = split(line, ',');
    if (f.size() != 4 || !valid_type(f[1]))
        return false;
    bool key_ok = mac ? valid_mac(f[0]) || (f[0].size() > 1 && f[0][0] == '*' && valid_ipv4(f[0].substr(1)))
                      : valid_ipv4(f[0]);
    if (!key_ok)
        return false;
    *key = f[0];
    *type = f[1];
    return parse_count(f[2], UINT64_MAX, first) && parse_count(f[3], UINT64_MAX, second);
}

ClientTable read_client_table(const std::string& root, const ClientKind& kind, bool* read)
{
    ClientTable table;
    table.title = kind.title;
    table.key_header = kind.key_header;
    table.directory = kind.directory;
    std::string prefix = std::string("clients ") + kind.title + ": ";

    std::string full_dir = root + kind.directory;
    dir_ptr dir(opendir(full_dir.c_str()));
    if (!dir) {
        table.problem = prefix + kind.directory + ": " + open_failure(errno);
        return table;
    }
    std::string newest;
    while (dirent* e = readdir(dir.get())) {
        std::string name = e->d_name;
        if (!client_file_period(name, kind).empty() && name > newest)
            newest = name;
    }
    dir.reset();
    if (newest.empty()) {
        table.problem = prefix + kind.directory + ": no " + (kind.hourly_names ? "hour" : kind.monthly ? "month" : "day") +
                        " files";
        return table;
    }
    table.file = std::string(kind.directory) + "/" + newest;
    table.period = client_file_period(newest, kind);
    prefix += table.file + ": ";

    std::string why;
    file_ptr f = open_file(root, table.file, &why);
    if (!f) {
        table.problem = prefix + why;
        return table;
    }
    std::vector<std::string> lines;
    if (!read_lines(f.get(), &lines)) {
        table.problem = prefix + "read error";
        return table;
    }
    *read = true;
    if (lines.empty()) {
        table.problem = prefix + "empty";
        return table;
    }
    std::map<std::string, size_t> index;
    {
        LineNotes notes(prefix, &table.notes);
        for (size_t i = 0; i < lines.size(); ++i) {
            std::string_view key, type;
            uint64_t first, second;
            if (!parse_client_line(lines[i], kind.mac, &key, &type, &first, &second)) {
                notes.malformed(i + 1);
                continue;
            }
            auto [it, added] = index.emplace(std::string(key), table.rows.size());
            if (added) {
                ClientRow row;
                row.key = std::string(key);
                table.rows.push_back(row);
            }
            ClientRow& row = table.rows[it->second];
            row.first = add_saturating(row.first, first);
            row.second = add_saturating(row.second, second);
            std::string t(type);
            bool seen = false;
            for (std::string_view have : split(row.types, '+'))
                seen = seen || have == t;
            if (!seen)
                row.types += (row.types.empty() ? "" : "+") + t;
        }
    }
    if (table.rows.empty()) {
        table.problem = prefix + "no usable line";
        return table;
    }
    // Largest total first; equal totals keep the order of the file.
    std::stable_sort(table.rows.begin(), table.rows.end(),
                     [](const ClientRow& a, const ClientRow& b) { return a.total() > b.total(); });
    table.shown = std::min(table.rows.size(), TOP_CLIENTS);
    return table;
}

} // namespace

uint64_t ClientRow::total() const { return add_saturating(first, second); }

bool Allowance::used_tenths(uint64_t* tenths) const
{
    if (!cycle_known || quota != Quota::set || quota_mib == 0)
        return false;
    // used and quota_mib are below 2^33 and 2^44: no overflow in 64 bits.
    *tenths = (used() * 2000 + quota_mib) / (2 * quota_mib);
    return true;
}

Report read_report(const std::string& root)
{
    Report r;
    read_wan_count(root, &r);
    read_dual_sim(root, &r);
    Config config(root, &r.config_notes);

    bool read = false;
    for (int wan = 1; wan <= r.wan_count; ++wan) {
        r.links.push_back(read_link(root, config, wan, 0, &read));
        if (std::find(r.dual_sim.begin(), r.dual_sim.end(), wan) != r.dual_sim.end()) {
            r.links.push_back(read_link(root, config, wan, 1, &read));
            r.links.push_back(read_link(root, config, wan, 2, &read));
        }
    }

    std::string korel = KOREL_DIR;
    r.totals.push_back(read_usage_table(root, "router", HOURLY, korel + "/link_usage_hourly_total.csv", &read));
    r.totals.push_back(read_usage_table(root, "router", DAILY, korel + "/link_usage_daily_total.csv", &read));
    r.totals.push_back(read_usage_table(root, "router", MONTHLY, korel + "/link_usage_monthly_total.csv", &read));
    r.totals_summary = summarize(r.totals);

    static const ClientKind kinds[] = {
        {"by IP address, hour", "address", "/var/run/korel/client_usage_hourly", true, false, false},
        {"by IP address, day", "address", "/var/run/korel/client_usage_daily", false, false, false},
        {"by IP address, month", "address", "/var/run/korel/client_usage_monthly", false, true, false},
        {"by MAC address, hour", "MAC", "/var/run/korel/client_usage_mac_hourly", true, false, true},
    };
    for (const ClientKind& kind : kinds)
        r.clients.push_back(read_client_table(root, kind, &read));

    r.usage_read = read;
    return r;
}

} // namespace report
