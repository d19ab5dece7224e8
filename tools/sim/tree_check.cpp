#include "tree_check.h"

#include "sim_platform.h"

#include "client_mac/mac_usage.h"
#include "daemon/daemon.h"
#include "history/period_line.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace {

// The shapes of the lines of the daemon's files.
enum shape : int {
    HOURLY_MIB,   // "%Y-%m-%d-%H,N,N", N below 2^32 (MiB cut to 32 bits)
    DAILY_MIB,    // "%Y-%m-%d,N,N"
    PERIOD_MIB,   // "%Y-%m-%d,%Y-%m-%d,N,N"
    HOURLY_BYTES, // the backups: the same with 64-bit byte counts
    DAILY_BYTES,
    PERIOD_BYTES,
    CLIENT,       // "a.b.c.d,type,N,N" with type lan, sroute, pptp, vpn or l2tp
    MAC,          // "XX:XX:XX:XX:XX:XX,type,N,N" or "*a.b.c.d,type,N,N"
    LIFETIME,     // three lines: "%lu", "%lld", "%lld"
    PID,          // one line: "%d"
    EMPTY,        // no content at all
};

// When a file that had lines may have none (or be gone).
enum emptiable { NEVER, CLOCK_BACK_OR_RESTART, RESTART };

constexpr uint64_t U32_MAX = 0xffffffffULL;
constexpr uint64_t U64_MAX = ~0ULL;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

using text = std::string_view;

// An unsigned decimal number of 1 to 20 digits, at most max.
bool number(text t, uint64_t max, uint64_t* value = nullptr)
{
    if (t.empty() || t.size() > 20)
        return false;
    uint64_t v = 0;
    for (char c : t) {
        if (!is_digit(c))
            return false;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (v > (U64_MAX - digit) / 10)
            return false; // beyond 64 bits
        v = v * 10 + digit;
    }
    if (v > max)
        return false;
    if (value)
        *value = v;
    return true;
}

bool signed_number(text t)
{
    if (!t.empty() && t[0] == '-')
        t.remove_prefix(1);
    return number(t, static_cast<uint64_t>(INT64_MAX) + 1);
}

int two_digits(text t, size_t at)
{
    return is_digit(t[at]) && is_digit(t[at + 1]) ? (t[at] - '0') * 10 + (t[at + 1] - '0') : -1;
}

// "%Y-%m-%d" of a date from the year first on: 2009 for lines, which the daemon never
// dates earlier.
bool date(text t, uint64_t first = 2009)
{
    if (t.size() != 10 || t[4] != '-' || t[7] != '-')
        return false;
    uint64_t year = 0;
    if (!number(t.substr(0, 4), 9999, &year))
        return false;
    int month = two_digits(t, 5), day = two_digits(t, 8);
    return year >= first && month >= 1 && month <= 12 && day >= 1 && day <= 31;
}

bool hour(text t, uint64_t first = 2009)
{
    if (t.size() != 13 || t[10] != '-' || !date(t.substr(0, 10), first))
        return false;
    int h = two_digits(t, 11);
    return h >= 0 && h <= 23;
}

bool dotted_quad(text t)
{
    int parts = 0;
    for (;;) {
        size_t dot = t.find('.');
        text part = t.substr(0, dot);
        if (part.size() > 3 || !number(part, 255))
            return false;
        ++parts;
        if (dot == text::npos)
            break;
        t.remove_prefix(dot + 1);
    }
    return parts == 4;
}

bool mac_key(text t)
{
    if (!t.empty() && t[0] == '*')
        return dotted_quad(t.substr(1));
    if (t.size() != 17)
        return false;
    for (size_t i = 0; i < 17; ++i) {
        char c = t[i];
        if (i % 3 == 2 ? c != ':' : !(is_digit(c) || (c >= 'A' && c <= 'F')))
            return false;
    }
    return true;
}

// Splits a line at its commas into at most n fields; returns the number of fields, n + 1
// when there are more.
size_t split_fields(text line, text* out, size_t n)
{
    size_t count = 0;
    for (;;) {
        size_t comma = line.find(',');
        if (count == n)
            return n + 1;
        out[count++] = line.substr(0, comma);
        if (comma == text::npos)
            return count;
        line.remove_prefix(comma + 1);
    }
}

bool one_of(text t, std::initializer_list<const char*> names)
{
    for (const char* name : names)
        if (t == name)
            return true;
    return false;
}

// Whether one line (without its line break) has the shape; index is its 0-based number.
bool line_ok(int s, text line, long index)
{
    text f[4];
    const uint64_t mib = U32_MAX;
    switch (s) {
    case HOURLY_MIB:
    case HOURLY_BYTES:
        return split_fields(line, f, 3) == 3 && hour(f[0]) && number(f[1], s == HOURLY_MIB ? mib : U64_MAX) &&
               number(f[2], s == HOURLY_MIB ? mib : U64_MAX);
    case DAILY_MIB:
    case DAILY_BYTES:
        return split_fields(line, f, 3) == 3 && date(f[0]) && number(f[1], s == DAILY_MIB ? mib : U64_MAX) &&
               number(f[2], s == DAILY_MIB ? mib : U64_MAX);
    case PERIOD_MIB:
    case PERIOD_BYTES:
        return split_fields(line, f, 4) == 4 && date(f[0]) && date(f[1]) &&
               number(f[2], s == PERIOD_MIB ? mib : U64_MAX) && number(f[3], s == PERIOD_MIB ? mib : U64_MAX);
    case CLIENT:
        return split_fields(line, f, 4) == 4 && dotted_quad(f[0]) && one_of(f[1], {"lan", "sroute", "pptp", "vpn", "l2tp"}) &&
               number(f[2], INT64_MAX) && number(f[3], INT64_MAX);
    case MAC:
        return split_fields(line, f, 4) == 4 && mac_key(f[0]) &&
               one_of(f[1], {"Total", "lan", "sroute", "pptp", "vpn", "l2tp", "unkn"}) && number(f[2], U64_MAX) &&
               number(f[3], U64_MAX);
    case LIFETIME:
        return index == 0 ? number(line, U64_MAX) : signed_number(line);
    case PID:
        return number(line, INT32_MAX);
    default:
        return false;
    }
}

std::vector<std::string> fields(const std::string& line)
{
    std::vector<std::string> out;
    size_t from = 0;
    for (;;) {
        size_t comma = line.find(',', from);
        out.push_back(line.substr(from, comma == std::string::npos ? std::string::npos : comma - from));
        if (comma == std::string::npos)
            return out;
        from = comma + 1;
    }
}

// The whole content of a regular file; a read that returns less than asked for is its end.
bool read_whole(const std::string& path, std::string* content)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    content->clear();
    char buffer[65536];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n > 0)
            content->append(buffer, static_cast<size_t>(n));
        if (n < static_cast<ssize_t>(sizeof buffer)) {
            close(fd);
            return n >= 0;
        }
    }
}

std::vector<std::string> split_lines(const std::string& content)
{
    std::vector<std::string> lines;
    size_t from = 0;
    while (from < content.size()) {
        size_t end = content.find('\n', from);
        if (end == std::string::npos)
            end = content.size();
        lines.push_back(content.substr(from, end - from));
        from = end + 1;
    }
    return lines;
}

std::vector<std::string> file_lines(const std::string& path)
{
    std::string content;
    return read_whole(path, &content) ? split_lines(content) : std::vector<std::string>();
}

std::string show_time(time_t t)
{
    struct tm tm;
    char text[32];
    gmtime_r(&t, &tm);
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

std::string excerpt(const std::string& line)
{
    std::string out;
    for (char c : line.substr(0, 60))
        out += (c >= 32 && c < 127) ? c : '?';
    return line.size() > 60 ? out + "..." : out;
}

// The history the start-up restores from a backup file's lines, as the history file shows
// it: the running period's line is skipped, a line of the same period as the last one
// taken is skipped, at most ring lines are taken and the file shows the newest shown of
// them; counts go from bytes to MiB cut to 32 bits. period: the lines have two dates.
std::vector<std::string> restored_view(const std::vector<std::string>& backup, bool period, size_t ring, size_t shown)
{
    std::vector<std::string> view;
    if (backup.empty())
        return view;
    // The key of a line: its period (hour or day), or its first date's year and month.
    auto key = [&](const std::string& line) { return period ? line.substr(0, 7) : fields(line)[0]; };
    std::string last = key(backup[0]);
    size_t taken = 0;
    for (size_t i = 1; i < backup.size(); ++i) {
        std::vector<std::string> f = fields(backup[i]);
        if (f.size() != (period ? 4u : 3u))
            continue;
        if (key(backup[i]) == last)
            continue;
        if (taken == ring)
            break;
        ++taken;
        last = key(backup[i]);
        uint64_t b1 = 0, b2 = 0;
        number(f[period ? 2 : 1], U64_MAX, &b1);
        number(f[period ? 3 : 2], U64_MAX, &b2);
        std::string line = f[0] + "," + (period ? f[1] + "," : std::string()) + std::to_string((b1 >> 20) & U32_MAX) +
                           "," + std::to_string((b2 >> 20) & U32_MAX);
        if (view.size() < shown)
            view.push_back(line);
    }
    return view;
}

// Why the clients of an hour cannot be summed against the router's total of the hour: the
// daemon counts that hour otherwise, or the files may hold an earlier state.
const char* const EXCEPT_START =
    "the daemon started again in the hour (it loads the hour's client file as a baseline and counts the clients' "
    "whole kernel counters on top of it; its WAN records' hour is what the last backup held)";
const char* const EXCEPT_START_BEFORE =
    "the daemon started again in the pass before the hour, whose readings the hour's counts start from (the "
    "clients that its first reading creates are counted with their whole kernel counters at their second)";
const char* const EXCEPT_START_AT_END =
    "the daemon was killed in the pass that ended the hour, or started again right after it (the hour's files "
    "may not have been written)";
const char* const EXCEPT_CLOCK_BACK =
    "the clock stepped back into the hour (the WAN hourly history resumes the hour with its earlier traffic, "
    "while the client table loads the hour's file as a baseline and counts the clients' whole kernel counters "
    "on top of it)";
const char* const EXCEPT_LEFT_BACK =
    "the clock stepped back out of the hour before it ended (the WAN hourly history gives up its traffic; the "
    "hour comes again)";
const char* const EXCEPT_LINK_RESTART =
    "a link's counter restarted in the hour (the daemon counts the drop as a wrap, a delta near 2^64)";
const char* const EXCEPT_TMP_FULL =
    "/tmp was full in the hour's last pass or in the pass that ended it (the hour's client file or the total "
    "may hold an earlier state)";
const char* const EXCEPT_DAMAGED =
    "a kernel counter file was damaged in the hour (without the link file the daemon adds the previous deltas "
    "again; a damaged number or time stamp counts wrongly in that reading and the next)";
const char* const EXCEPT_DAMAGED_BEFORE =
    "the pass before the hour read a damaged kernel counter file (the hour's first readings count from a missing "
    "or wrong one)";

constexpr uint64_t KIB_BYTES = 1ULL << 10;
constexpr uint64_t MIB_BYTES = 1ULL << 20;

// The start of the period named by a client or MAC file's name, as text to compare names
// with: "%Y-%m-%d-%H" for hourly directories, "%Y-%m-%d" for the others.
std::string period_name(time_t t, bool hourly)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char text[32];
    strftime(text, sizeof text, hourly ? "%Y-%m-%d-%H" : "%Y-%m-%d", &tm);
    return text;
}

} // namespace

tree_checker::tree_checker(std::string root, int links, int dual_sim_wan) : root_(std::move(root))
{
    struct statfs fs;
    precise_ = !(statfs(root_.c_str(), &fs) == 0 && fs.f_type == TMPFS_MAGIC);
    for (int wan = 1; wan <= links; ++wan) {
        records_.push_back({wan, 0});
        if (wan == dual_sim_wan) {
            records_.push_back({wan, 1});
            records_.push_back({wan, 2});
        }
    }
    for (const record_name& r : records_) {
        const std::string dir = "/var/run/korel/wan" + std::to_string(r.wan) + "/";
        const std::string history = r.sim ? "sim" + std::to_string(r.sim) + "_usage_history." : "usage_history.";
        const std::string csv = r.sim ? "sim" + std::to_string(r.sim) + "_usage_" : "link_usage_";
        const std::string backup = "/tmp/ruvo_backup/wan" + std::to_string(r.wan) + "/ruvo." +
                                   (r.sim ? "sim" + std::to_string(r.sim) + "." : std::string());
        files_.push_back({dir + history + "hourly", HOURLY_MIB, 23, CLOCK_BACK_OR_RESTART});
        files_.push_back({dir + history + "daily", DAILY_MIB, 59, CLOCK_BACK_OR_RESTART});
        files_.push_back({dir + history + "monthly", PERIOD_MIB, 61, CLOCK_BACK_OR_RESTART});
        files_.push_back({dir + history + "billing", PERIOD_MIB, 61, RESTART});
        files_.push_back({dir + csv + "hourly.csv", HOURLY_MIB, 24, NEVER});
        files_.push_back({dir + csv + "daily.csv", DAILY_MIB, 60, NEVER});
        files_.push_back({dir + csv + "monthly.csv", PERIOD_MIB, 60, NEVER});
        files_.push_back({dir + csv + "billing.csv", PERIOD_MIB, 60, NEVER});
        files_.push_back({backup + "hourly.csv", HOURLY_BYTES, 32, NEVER});
        files_.push_back({backup + "daily.csv", DAILY_BYTES, 64, NEVER});
        files_.push_back({backup + "monthly.csv", PERIOD_BYTES, 62, NEVER});
        files_.push_back({backup + "billing.csv", PERIOD_BYTES, 62, NEVER});
    }
    files_.push_back({"/var/run/korel/link_usage_hourly_total.csv", HOURLY_MIB, 24, NEVER});
    files_.push_back({"/var/run/korel/link_usage_daily_total.csv", DAILY_MIB, 60, NEVER});
    files_.push_back({"/var/run/korel/link_usage_monthly_total.csv", PERIOD_MIB, 60, NEVER});
    files_.push_back({"/tmp/ruvo_backup/lifetime_usage", LIFETIME, 3, NEVER});
    files_.push_back({"/tmp/ruvo_backup/timestamp", EMPTY, 0, NEVER});
    files_.push_back({"/var/run/ruvo.pid", PID, 1, NEVER});

    dirs_.push_back({"/var/run/korel/client_usage_hourly", 0, 24, true, false});
    dirs_.push_back({"/var/run/korel/client_usage_daily", 1, 32, true, false});
    dirs_.push_back({"/var/run/korel/client_usage_monthly", 2, 60, true, false});
    dirs_.push_back({"/var/run/korel/client_usage_mac_hourly", 0, 3, true, true});
    dirs_.push_back({"/tmp/ruvo_client_hourly", 0, 24, false, false});
    dirs_.push_back({"/tmp/ruvo_client_daily", 1, 32, false, false});
    dirs_.push_back({"/tmp/ruvo_client_monthly", 2, 60, false, false});
    dirs_.push_back({"/tmp/ruvo_client_mac_hourly", 0, 3, false, true});
}

void tree_checker::fail(const check_moment& m, const std::string& what)
{
    static const char* const kinds[][2] = {
        {"do not add up to the router's total", "the clients of an hour do not add up to the router's total"},
        {"half-written", "half-written file"},
        {"does not parse", "line that does not parse"},
        {"(it had ", "file emptied or removed"},
        {"removed, though", "dated file removed out of turn"},
        {"more than", "over its limit"},
        {"lines instead of", "over its limit"},
        {"left after the pass", "temporary file left"},
        {"backup copy", "backup copy differs from the live files"},
        {"after the restart", "restored history differs from the last backup"},
        {"lost its closed period", "closed month or billing cycle lost"},
        {"suspension marker", "allowance not enforced"},
        {"after every time the clock has shown", "month or billing cycle in the future"},
    };
    std::string kind = "other";
    for (const auto& k : kinds)
        if (what.find(k[0]) != std::string::npos) {
            kind = k[1];
            break;
        }
    if (!m.damaged_inputs.empty())
        kind += ", in a pass that read a damaged " + m.damaged_inputs;
    ++failure_kinds_[kind];
    ++failure_count_;
    if (failures_.size() < 200)
        failures_.push_back("tick " + std::to_string(m.tick) + " (" + show_time(m.clock) + "): " + what);
}

void tree_checker::expect(const check_moment& m, bool condition, const std::string& what)
{
    ++checks_;
    if (!condition)
        fail(m, what);
}

const tree_checker::listing* tree_checker::list(const std::string& absolute_dir)
{
    auto cached = listings_.find(absolute_dir);
    if (cached != listings_.end())
        return cached->second.ok ? &cached->second : nullptr;
    listing& l = listings_[absolute_dir];
    if (DIR* d = opendir(real(absolute_dir).c_str())) {
        l.ok = true;
        while (const dirent* e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                l.entries[e->d_name] = {static_cast<uint64_t>(e->d_ino), e->d_type == DT_REG};
        closedir(d);
    }
    return l.ok ? &l : nullptr;
}

tree_checker::entry tree_checker::entry_of(const std::string& absolute)
{
    size_t slash = absolute.rfind('/');
    const listing* l = list(absolute.substr(0, slash));
    if (!l)
        return {};
    auto it = l->entries.find(absolute.substr(slash + 1));
    return it == l->entries.end() ? entry{} : it->second;
}

// A file changed when its directory shows another inode (the daemon replaces files by
// rename; the copies of the shell commands happen in passes that look at everything). Off a
// tmpfs, where inode numbers are soon used again, its size and times are compared too.
tree_checker::seen_file tree_checker::look(const check_moment& m, const std::string& absolute, int s, int max_lines,
                                          bool force)
{
    seen_file now;
    const entry e = entry_of(absolute);
    if (e.inode == 0)
        return now;
    now.exists = true;
    now.inode = e.inode;
    const std::string real_path = real(absolute);
    if (precise_) {
        struct stat st;
        if (lstat(real_path.c_str(), &st) == 0) {
            now.size = static_cast<uint64_t>(st.st_size);
            now.mtime_ns = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
            now.ctime_ns = static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
        }
    }
    auto it = seen_.find(absolute);
    if (!force && it != seen_.end() && it->second.exists && it->second.inode == now.inode &&
        it->second.size == now.size && it->second.mtime_ns == now.mtime_ns && it->second.ctime_ns == now.ctime_ns) {
        now.lines = it->second.lines;
        now.periods = it->second.periods;
        return now;
    }
    ++checks_;
    if (!e.regular) {
        fail(m, absolute + ": not a regular file");
        return now;
    }
    if (!read_whole(real_path, &buffer_)) {
        fail(m, absolute + ": cannot be read");
        return now;
    }
    const std::string& content = buffer_;
    if (s == EMPTY) {
        if (!content.empty())
            fail(m, absolute + ": should be empty, holds " + std::to_string(content.size()) + " bytes");
        return now;
    }
    if (!content.empty() && content.back() != '\n') {
        size_t last = content.rfind('\n');
        fail(m, absolute + ": half-written, its last line has no line break: \"" +
                    excerpt(content.substr(last == std::string::npos ? 0 : last + 1)) + "\"");
    }
    long lines = 0;
    bool parsed = true;
    // A monthly or billing history holds one line per closed period, newest first.
    const bool history = absolute.size() > 8 && (absolute.compare(absolute.size() - 8, 8, ".monthly") == 0 ||
                                                 absolute.compare(absolute.size() - 8, 8, ".billing") == 0);
    text previous_start;
    for (size_t from = 0; from < content.size();) {
        size_t end = content.find('\n', from);
        if (end == std::string::npos)
            end = content.size();
        text line(content.data() + from, end - from);
        if (parsed && !line_ok(s, line, lines)) {
            fail(m, absolute + ": line " + std::to_string(lines + 1) + " does not parse: \"" +
                        excerpt(std::string(line)) + "\"");
            parsed = false;
        }
        if (parsed && history) {
            now.periods.emplace_back(line.substr(0, 10));
            const text start = line.substr(0, absolute.back() == 'y' ? 7 : 10);
            if (!previous_start.empty() && start >= previous_start)
                ++observations_["monthly or billing history with a period twice or out of order (a repair or "
                                "close that failed while /tmp was full, or a damaged sample time)"];
            previous_start = start;
        }
        if (parsed && (s == PERIOD_MIB || s == PERIOD_BYTES) && line.substr(0, 10) > line.substr(11, 10))
            ++observations_["a written period line whose first date is after its last (a billing cycle keeps its "
                            "start when the clock goes back before it)"];
        ++lines;
        from = end + 1;
    }
    now.lines = lines;
    if (max_lines >= 0 && now.lines > max_lines)
        fail(m, absolute + ": " + std::to_string(now.lines) + " lines, more than its limit of " +
                    std::to_string(max_lines));
    if (s == LIFETIME && now.lines != 3)
        fail(m, absolute + ": " + std::to_string(now.lines) + " lines instead of 3");
    return now;
}

void tree_checker::check_file(const check_moment& m, const file_rule& rule, bool restart)
{
    seen_file& before = seen_[rule.absolute];
    // The backups change only when the daemon backs up, which renews the time-stamp file.
    if (!restart && !backups_changed_ && rule.absolute.compare(0, 17, "/tmp/ruvo_backup/") == 0 &&
        rule.absolute != "/tmp/ruvo_backup/timestamp")
        return;
    const seen_file now = look(m, rule.absolute, rule.shape, rule.max_lines, restart);
    bool allowed = rule.emptiable == NEVER                   ? false
                   : rule.emptiable == CLOCK_BACK_OR_RESTART ? m.clock_back || restart
                                                             : restart;
    // A configuration without the record's start day drops its billing cycle: the backup
    // of the running cycle then has no line (the alert's backup writes it at once).
    if (before.lines > 0 && now.lines == 0 && !allowed && m.config_damaged &&
        rule.absolute.size() > 12 && rule.absolute.compare(rule.absolute.size() - 12, 12, ".billing.csv") == 0) {
        allowed = true;
        ++observations_["billing backup emptied while a damaged configuration file had no start day for the link "
                        "(its running cycle is dropped until the file is whole again)"];
    }
    // A sample time before 2009 (a damaged time stamp) leaves every line of the running
    // periods unwritten, and the repair of a clock that went back removes every closed month.
    if (before.lines > 0 && now.lines == 0 && !allowed && m.sample_before_2009 &&
        rule.absolute.compare(0, 15, "/var/run/korel/") == 0) {
        allowed = true;
        ++observations_["history, export or total emptied in a pass whose sample time lay before 2009 (a damaged "
                        "link counter file's time stamp; lines dated before 2009 are never written)"];
    }
    if (before.lines > 0 && now.lines == 0 && !allowed)
        fail(m, rule.absolute + (now.exists ? ": emptied" : ": removed") + " (it had " + std::to_string(before.lines) +
                    " lines)");
    else if (!restart && now.exists)
        check_closed_periods(m, rule.absolute, before.periods, now.periods);
    ++checks_;
    before = now;
}

void tree_checker::check_dated_dir(const check_moment& m, const dated_dir& dir, bool restart)
{
    // A backup directory changes only through the copies of a backup.
    if (!dir.live && !m.copies_made && !restart)
        return;
    std::set<std::string> names;
    if (const listing* l = list(dir.absolute))
        for (const auto& [name, e] : l->entries)
            if (name[0] != '.' && !(dir.mac && dir.live && name == "hour.tmp"))
                names.insert(name);
    std::set<std::string>& before = dir_names_[dir.absolute];
    expect(m, static_cast<int>(names.size()) <= dir.keep + 1,
           dir.absolute + ": " + std::to_string(names.size()) + " files, more than " + std::to_string(dir.keep) +
               " and the one the save may add");
    const std::string current = period_name(m.clock, dir.kind == 0);
    for (const std::string& name : names) {
        const text stem = name.size() > 4 ? text(name).substr(0, name.size() - 4) : text();
        const std::string file = dir.absolute + "/" + name;
        seen_file& old = seen_[file];
        const bool csv = name.size() > 4 && name.compare(name.size() - 4, 4, ".csv") == 0;
        const bool well_named = csv && (dir.kind == 0 ? hour(stem, 1970) : date(stem, 1970)) &&
                                (dir.kind != 2 || stem.substr(8, 2) == "01");
        if (well_named && stem.substr(0, 4) < "2009" && !old.exists)
            ++observations_["client or MAC file named for a period before 2009 (a damaged time stamp in the "
                            "kernel's client usage file; the directory's limit removes it only once it holds "
                            "enough newer files)"];
        expect(m, well_named, dir.absolute + "/" + name + ": not a file name of this directory");
        const seen_file now = look(m, file, dir.mac ? MAC : CLIENT, dir.mac ? 8192 : -1, restart || !dir.live);
        const bool left_empty = m.left_empty && m.left_empty->count(real(file));
        if (old.lines > 0 && now.lines == 0) {
            // A backup copy copies what is live: an empty live file (one that the start-up's
            // copy on a full "/tmp" left empty) gives an empty backup.
            const std::string live = dir.live ? std::string() : live_of(dir.absolute) + "/" + name;
            const auto live_seen = live.empty() ? seen_.end() : seen_.find(live);
            const bool copied_empty =
                m.copies_made && live_seen != seen_.end() && live_seen->second.exists && live_seen->second.lines == 0;
            if (left_empty && dir.live)
                ++observations_["client or MAC file left empty by the start-up's copy from the backup while /tmp "
                                "was full (its period's counts start again from 0)"];
            else if (left_empty)
                ++observations_["client or MAC backup file left empty by the backup's copy while /tmp was full"];
            else if (copied_empty)
                ++observations_["client or MAC backup file emptied by the backup's copy of a live file that a "
                                "start-up on a full /tmp had left empty (that period's history is gone)"];
            else if (!(dir.live && restart))
                fail(m, file + ": emptied (it had " + std::to_string(old.lines) + " lines)");
        }
        ++checks_;
        old = now;
    }
    for (const std::string& name : before) {
        if (names.count(name))
            continue;
        const std::string stem = name.size() > 4 ? name.substr(0, name.size() - 4) : name;
        // The limit removes names beyond the newest it keeps and names after the current
        // period; start-up replaces the live directories; a backup copy replaces a backup.
        const bool allowed = dir.live ? restart || static_cast<int>(names.size()) >= dir.keep || stem > current
                                      : m.copies_made || restart;
        expect(m, allowed, dir.absolute + "/" + name + ": removed, though the directory keeps " +
                               std::to_string(names.size()) + " files and it is not after " + current);
        seen_.erase(dir.absolute + "/" + name);
    }
    before = names;
}

// A closed month or billing cycle stays in its history: it leaves only as the oldest of
// more than the history keeps, or, in the monthly history, when the clock went back to a
// month before it (the repair removes the months from the month of now on).
void tree_checker::check_closed_periods(const check_moment& m, const std::string& absolute,
                                        const std::vector<std::string>& before, const std::vector<std::string>& now)
{
    if (before.empty())
        return;
    const bool monthly = absolute.back() == 'y';
    // The month of the daemon's "now": its sample time when that went back further than the
    // clock (a damaged time stamp).
    const std::string month_of_now =
        period_name(m.repair_clock != 0 ? std::min(m.clock, m.repair_clock) : m.clock, false).substr(0, 7);
    const std::string oldest = now.empty() ? std::string() : *std::min_element(now.begin(), now.end());
    for (const std::string& period : before) {
        if (std::find(now.begin(), now.end(), period) != now.end())
            continue;
        const bool capped = now.size() >= 61 && period < oldest;
        const bool repaired = monthly && m.clock_back && period.substr(0, 7) >= month_of_now;
        ++checks_;
        if (!capped && !repaired)
            fail(m, absolute + ": lost its closed period from " + period + " (it had " +
                        std::to_string(before.size()) + " lines, now " + std::to_string(now.size()) + ")");
    }
}

std::string tree_checker::live_of(const std::string& backup_dir) const
{
    static const char* const pairs[][2] = {
        {"/tmp/ruvo_client_hourly", "/var/run/korel/client_usage_hourly"},
        {"/tmp/ruvo_client_daily", "/var/run/korel/client_usage_daily"},
        {"/tmp/ruvo_client_monthly", "/var/run/korel/client_usage_monthly"},
        {"/tmp/ruvo_client_mac_hourly", "/var/run/korel/client_usage_mac_hourly"},
    };
    for (const auto& pair : pairs)
        if (backup_dir == pair[0])
            return pair[1];
    return std::string();
}

void tree_checker::check_temporaries(const check_moment& m, bool restart)
{
    static const char* const temporaries[] = {"/tmp/ruvo.tmp", "/tmp/ruvo_client.tmp",
                                              "/var/run/korel/client_usage_mac_hourly/hour.tmp", "/var/run/ruvo.pid.tmp"};
    for (const char* t : temporaries) {
        if (entry_of(t).inode == 0) {
            leftover_allowed_.erase(t);
            continue;
        }
        if (restart) {
            leftover_allowed_.insert(t); // a kill may leave one behind
            continue;
        }
        expect(m, leftover_allowed_.count(t) > 0, std::string(t) + ": left after the pass");
    }
}

void tree_checker::check_backup_copies(const check_moment& m)
{
    if (!m.copies_made || !m.copies_worked)
        return;
    static const char* const pairs[][2] = {
        {"/var/run/korel/client_usage_hourly", "/tmp/ruvo_client_hourly"},
        {"/var/run/korel/client_usage_daily", "/tmp/ruvo_client_daily"},
        {"/var/run/korel/client_usage_monthly", "/tmp/ruvo_client_monthly"},
        {"/var/run/korel/client_usage_mac_hourly", "/tmp/ruvo_client_mac_hourly"},
    };
    for (const auto& pair : pairs) {
        const std::set<std::string>& live = dir_names_[pair[0]];
        const std::set<std::string>& backup = dir_names_[pair[1]];
        expect(m, live == backup, std::string(pair[1]) + ": after the backup copy its " + std::to_string(backup.size()) +
                                      " files are not the " + std::to_string(live.size()) + " of " + pair[0]);
        for (const std::string& name : live) {
            if (!backup.count(name))
                continue;
            std::string a, b;
            read_whole(real(std::string(pair[0]) + "/" + name), &a);
            read_whole(real(std::string(pair[1]) + "/" + name), &b);
            expect(m, a == b, std::string(pair[1]) + "/" + name + ": differs from the live file after the backup copy");
        }
    }
}

void tree_checker::check_tables(const check_moment& m, const daemon_state& state)
{
    expect(m, mac_usage_count >= 0 && mac_usage_count <= MAC_USAGE_MAX,
           "the MAC table holds " + std::to_string(mac_usage_count) + " entries");
    auto rings = [&](const wan_usage& r) {
        uint32_t hours = (r.hourly_head - r.hourly_tail) % HOURLY_RING_SIZE;
        uint32_t days = (r.daily_head - r.daily_tail) % DAILY_RING_SIZE;
        expect(m, hours <= HOURLY_RING_SIZE - 1 && days <= DAILY_RING_SIZE - 1,
               "WAN " + std::to_string(r.wan_index + 1) + " record's rings hold " + std::to_string(hours) + " hours and " +
                   std::to_string(days) + " days");
    };
    // A month or billing cycle starts at a midnight the clock has passed: one that starts
    // after every time the clock has shown was taken from a sample time the clock never had.
    latest_clock_ = std::max(latest_clock_, m.clock);
    auto starts = [&](const wan_usage& r) {
        expect(m, r.month_start <= latest_clock_ && r.billing_start <= latest_clock_,
               "WAN " + std::to_string(r.wan_index + 1) + (r.sim_number ? " SIM " + std::to_string(r.sim_number) : "") +
                   ": its month starts " + show_time(r.month_start) + " and its billing cycle " +
                   show_time(r.billing_start) + ", after every time the clock has shown (" + show_time(latest_clock_) +
                   ")");
    };
    for (int i = 0; i < state.wan_count; ++i) {
        rings(state.wan[i]);
        starts(state.wan[i]);
    }
    for (int i = 0; i < state.sim_count; ++i) {
        rings(state.sim[i]);
        starts(state.sim[i]);
    }
}

namespace {

std::string marker_path(const wan_usage& r)
{
    std::string path = "/var/run/korel/wan" + std::to_string(r.wan_index + 1) + "/usage_suspend";
    if (r.sim_number != 0)
        path += ".sim" + std::to_string(r.sim_number);
    return path;
}

std::string record_text(const wan_usage& r)
{
    return "WAN " + std::to_string(r.wan_index + 1) + (r.sim_number ? " SIM " + std::to_string(r.sim_number) : "");
}

// Whether the record's billing-cycle usage, as the daemon counts it, is at or above the
// 100 % line (99.5 % of the allowance), compared in double precision as the check does.
bool over_line(const wan_usage& r)
{
    uint64_t usage = r.billing_bytes[0] + r.billing_bytes[1];
    return static_cast<double>(usage) >= static_cast<double>(r.quota_bytes) * 0.995;
}

} // namespace

void tree_checker::check_allowances(const check_moment& m, const daemon_state& state)
{
    auto one = [&](const wan_usage& r, size_t index) {
        const bool marker = entry_of(marker_path(r)).inode != 0;
        const bool disconnect = (r.usage_action & USAGE_ACTION_DISCONNECT) != 0;
        const bool wanted = disconnect && over_line(r);
        if (!m.config_damaged && wanted && marker)
            ++suspended_passes_;
        if (!m.config_damaged)
            expect(m, marker == wanted,
                   record_text(r) + ": suspension marker " + (marker ? "set" : "absent") + ", but the usage of " +
                       std::to_string((r.billing_bytes[0] + r.billing_bytes[1]) >> 20) + " MiB is " +
                       (over_line(r) ? "at or above" : "below") + " the line of " +
                       std::to_string(r.quota_bytes >> 20) + " MB" + (disconnect ? "" : " (no disconnect action)"));
        if (after_restart_pending_ && index < marker_before_restart_.size() && marker_before_restart_[index] &&
            !marker && r.billing_start == billing_start_before_restart_[index])
            ++observations_["suspension lifted after a kill (the usage that crossed the line came after the "
                            "last backup that worked)"];
    };
    size_t index = 0;
    for (int i = 0; i < state.wan_count; ++i)
        one(state.wan[i], index++);
    for (int i = 0; i < state.sim_count; ++i)
        one(state.sim[i], index++);
}

void tree_checker::check_restored_histories(const check_moment& m)
{
    static const char* const kinds[] = {"hourly", "daily", "monthly", "billing"};
    static const size_t rings[] = {31, 63, SIZE_MAX, SIZE_MAX};
    static const size_t shown[] = {23, 59, SIZE_MAX, SIZE_MAX};
    for (const record_name& r : records_) {
        const std::string wan = std::to_string(r.wan);
        for (int k = 0; k < 4; ++k) {
            const std::string history = "/var/run/korel/wan" + wan + "/" +
                                        (r.sim ? "sim" + std::to_string(r.sim) + "_usage_history." : "usage_history.") +
                                        kinds[k];
            const std::string backup = "/tmp/ruvo_backup/wan" + wan + "/ruvo." +
                                       (r.sim ? "sim" + std::to_string(r.sim) + "." : std::string()) + kinds[k] + ".csv";
            const std::vector<std::string> want = restored_view(file_lines(real(backup)), k >= 2, rings[k], shown[k]);
            struct stat st;
            const bool exists = stat(real(history).c_str(), &st) == 0;
            // With "/tmp" full the start-up's rewrite of the live file fails, after start-up
            // removed it: an hourly or daily file is missing until the next rewrite from the
            // ring, which is whole; a monthly or billing history lives only in its file, and
            // its closed periods are gone (the next close starts it anew).
            if (!exists && m.tmp_full && k < 2) {
                ++checks_;
                continue;
            }
            // A monthly or billing history lives only in its file, and start-up deletes the
            // live files before the restore writes them again: on a full "/tmp" that write
            // fails and the closed periods are gone from the live tree. The backup still
            // holds them until the next backup that can be written reads the live file.
            // This is the daemon's start-up order at work, not a fault of the restore, and
            // is counted as what the fault cost.
            if (!exists && m.tmp_full) {
                ++checks_;
                if (!want.empty())
                    ++observations_["closed months or billing cycles lost: start-up on a full /tmp deleted the "
                                    "live history and could not write it again from the backup"];
                continue;
            }
            const std::vector<std::string> got = file_lines(real(history));
            if (got == want)
                restored_lines_ += static_cast<long>(got.size());
            expect(m, got == want,
                   history + ": after the restart it holds " + std::to_string(got.size()) + " lines" +
                       (got.empty() ? "" : " from " + got.front()) + ", the last backup gives " +
                       std::to_string(want.size()) + (want.empty() ? "" : " from " + want.front()) +
                       (!exists && m.tmp_full ? " (start-up removed the file and could not write it again on "
                                                "the full /tmp; its closed periods live nowhere else)"
                                              : ""));
        }
    }
}

void tree_checker::note_lost_lines(const check_moment& m, const daemon_state& state, bool restart)
{
    std::vector<time_t> months, cycles;
    for (int i = 0; i < state.wan_count; ++i) {
        months.push_back(state.wan[i].month_start);
        cycles.push_back(state.wan[i].billing_start);
    }
    for (int i = 0; i < state.sim_count; ++i) {
        months.push_back(state.sim[i].month_start);
        cycles.push_back(state.sim[i].billing_start);
    }
    if (!restart && m.tmp_full && months.size() == month_start_.size()) {
        for (size_t i = 0; i < months.size(); ++i) {
            if (month_start_[i] != 0 && months[i] > month_start_[i])
                ++observations_["monthly history line lost: a month closed while /tmp was full"];
            if (billing_start_[i] != 0 && cycles[i] > billing_start_[i])
                ++observations_["billing history line lost: a cycle closed while /tmp was full"];
        }
    }
    month_start_ = months;
    billing_start_ = cycles;
}

// Follows the hours of the daemon's clock from pass to pass: when a pass ends an hour, the
// hour's client file is summed against the router's total, unless something in the hour,
// in the pass that ended it or in the pass before it makes the daemon count it otherwise.
void tree_checker::follow_hours(const check_moment& m, bool restart)
{
    const std::string hour = period_name(m.clock, true);
    const bool damaged = m.damaged_inputs.find("/proc/korel/config/link_usage") != std::string::npos ||
                         m.damaged_inputs.find("/proc/korel/config/client_usage") != std::string::npos;
    // What the pass does to the hour it is in, to the hour it ends (only the writing of the
    // files matters there: the hour's last readings were taken before), and to the next
    // hour when it is the last pass before it. A full "/tmp" matters only when it keeps
    // the hour's last files from being written: the counts are in memory, and every pass
    // writes the hour's client file whole, and the pass that ends the hour the total.
    const char* here = restart ? EXCEPT_START : damaged ? EXCEPT_DAMAGED : m.link_restarted ? EXCEPT_LINK_RESTART : "";
    const char* ending = restart ? EXCEPT_START_AT_END : m.tmp_full || last_pass_tmp_full_ ? EXCEPT_TMP_FULL : "";
    const char* carried = restart ? EXCEPT_START_BEFORE : damaged ? EXCEPT_DAMAGED_BEFORE : "";
    if (open_hour_.empty() || hour > open_hour_) {
        if (!open_hour_.empty()) {
            const std::string why = !open_hour_exception_.empty() ? open_hour_exception_ : std::string(ending);
            if (why.empty())
                check_hour_sums(m, open_hour_);
            else
                ++hours_excepted_[why];
        }
        open_hour_ = hour;
        open_hour_exception_ = *here ? std::string(here) : carried_exception_;
        open_hour_own_[0] = open_hour_own_[1] = 0;
    } else if (hour < open_hour_) {
        ++hours_excepted_[EXCEPT_LEFT_BACK];
        open_hour_ = hour;
        open_hour_exception_ = EXCEPT_CLOCK_BACK;
        open_hour_own_[0] = open_hour_own_[1] = 0;
    } else if (open_hour_exception_.empty()) {
        open_hour_exception_ = here;
    }
    // A wrap counted one byte short is one byte of the clients' or the router's traffic
    // that the total lacks: it is taken off the router's own (which is far larger).
    for (int c = 0; c < 2; ++c)
        open_hour_own_[c] += m.own[c] - m.uncounted[c];
    carried_exception_ = carried;
    last_pass_tmp_full_ = m.tmp_full;
}

// The lines of the hour's client file against the hour's line of the router's total, less
// the router's own traffic. Each client line shows KiB cut from bytes (0 to 1,023 bytes
// lost per line and counter) and the total MiB cut from the bytes' sum (0 to 2^20 - 1
// lost), so with n lines, per counter, in bytes:
//     -1023 n <= 1024 * sum(KiB) + own - 2^20 * MiB <= 2^20 - 1.
// An hour without a client file is an hour without client traffic (n = 0).
void tree_checker::check_hour_sums(const check_moment& m, const std::string& hour)
{
    const std::string clients_path = "/var/run/korel/client_usage_hourly/" + hour + ".csv";
    const std::string total_path = "/var/run/korel/link_usage_hourly_total.csv";
    uint64_t kib[2] = {0, 0};
    uint64_t lines = 0;
    if (entry_of(clients_path).inode != 0) {
        std::string content;
        if (!read_whole(real(clients_path), &content)) {
            fail(m, clients_path + ": cannot be read");
            return;
        }
        for (const std::string& line : split_lines(content)) {
            const std::vector<std::string> f = fields(line);
            uint64_t first = 0, second = 0;
            if (f.size() != 4 || !number(f[2], U64_MAX, &first) || !number(f[3], U64_MAX, &second))
                return; // the format's own check reports it
            kib[0] += first;
            kib[1] += second;
            ++lines;
        }
    }
    uint64_t mib[2] = {0, 0};
    bool found = false;
    for (const std::string& line : file_lines(real(total_path))) {
        const std::vector<std::string> f = fields(line);
        if (f.size() == 3 && f[0] == hour && number(f[1], U64_MAX, &mib[0]) && number(f[2], U64_MAX, &mib[1])) {
            found = true;
            break;
        }
    }
    ++checks_;
    if (!found) {
        fail(m, total_path + ": no line for the hour " + hour + " that just ended, so its " +
                    std::to_string(lines) + " client lines do not add up to the router's total");
        return;
    }
    bool held = true;
    for (int c = 0; c < 2; ++c) {
        const uint64_t clients = kib[c] * KIB_BYTES, total = mib[c] * MIB_BYTES, own = open_hour_own_[c];
        const bool ok = clients + own + 1023 * lines >= total && clients + own <= total + MIB_BYTES - 1;
        held = held && ok;
        ++checks_;
        if (!ok)
            fail(m, clients_path + ": the clients of " + hour + " do not add up to the router's total: counter " +
                        std::to_string(c + 1) + ", " + std::to_string(lines) + " lines of " + std::to_string(kib[c]) +
                        " KiB in all, and the router's own " + std::to_string(own) + " bytes, against " +
                        std::to_string(mib[c]) + " MiB: " +
                        std::to_string(static_cast<long long>(clients + own) - static_cast<long long>(total)) +
                        " bytes apart, not within [-1023 x " + std::to_string(lines) + ", 2^20 - 1]");
    }
    hours_checked_ += held;
}

void tree_checker::check_all(const check_moment& m, const daemon_state& state, bool restart)
{
    listings_.clear();
    const uint64_t stamp = entry_of("/tmp/ruvo_backup/timestamp").inode;
    backups_changed_ = stamp != backup_stamp_;
    backup_stamp_ = stamp;
    for (const file_rule& rule : files_)
        check_file(m, rule, restart);
    for (const dated_dir& dir : dirs_)
        check_dated_dir(m, dir, restart);
    check_temporaries(m, restart);
    check_tables(m, state);
}

void tree_checker::after_pass(const check_moment& given, const daemon_state& state)
{
    // The daemon's "now" is the time stamp of the kernel's link counters, not the clock: a
    // damaged file can take it back, to 1970 even. To the daemon that is a clock that went
    // back (the monthly history is repaired), and lines dated before 2009 are not written.
    check_moment m = given;
    bool went_back = false;
    time_t earliest = m.clock;
    auto look_at = [&](const wan_usage& r) {
        if (r.sample_time < r.prev_sample_time) {
            went_back = true;
            earliest = std::min(earliest, r.sample_time);
        }
        // 0 too: a time stamp missing from the file, or one that is not a number, gives 0.
        if (r.sample_time < EARLIEST_LINE_TIME)
            m.sample_before_2009 = true;
    };
    for (int i = 0; i < state.wan_count; ++i)
        look_at(state.wan[i]);
    for (int i = 0; i < state.sim_count; ++i)
        look_at(state.sim[i]);
    if (went_back) {
        if (!m.clock_back && !m.damaged_inputs.empty())
            ++observations_["the daemon's sample time went back with a damaged link counter file's time stamp "
                            "(its rules for a clock that went back applied)"];
        m.clock_back = true;
        m.repair_clock = earliest;
    }
    check_all(m, state, false);
    check_backup_copies(m);
    check_allowances(m, state);
    note_lost_lines(m, state, false);
    follow_hours(m, false);
    after_restart_pending_ = false;
}

void tree_checker::after_restart(const check_moment& m, const daemon_state& state)
{
    check_all(m, state, true);
    check_restored_histories(m);
    // The markers as the kill left them, for the first pass after the restart.
    marker_before_restart_.clear();
    billing_start_before_restart_.clear();
    auto remember = [&](const wan_usage& r, size_t index) {
        marker_before_restart_.push_back(entry_of(marker_path(r)).inode != 0);
        billing_start_before_restart_.push_back(index < billing_start_.size() ? billing_start_[index] : 0);
    };
    size_t index = 0;
    for (int i = 0; i < state.wan_count; ++i)
        remember(state.wan[i], index++);
    for (int i = 0; i < state.sim_count; ++i)
        remember(state.sim[i], index++);
    after_restart_pending_ = true;
    note_lost_lines(m, state, true);
    follow_hours(m, true);
}
