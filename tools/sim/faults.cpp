#include "faults.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr long long HOUR = 3600;
constexpr long long DAY = 86400;

// Faults per simulated day of each kind (at least one of each in any run):
//   "/tmp" full        0.5, each for 2 to 200 ticks (1 minute to 100 minutes; a span of
//                      61 ticks or more always holds a periodic backup)
//   daemon killed      0.5, a third of them during a pass with the periodic backup
//   clock forward      0.3, by 1 to 12 hours (three in four) or 1 to 3 days
//   clock back         0.3, by 1 minute to 1 day
//   input file damaged 3
constexpr double PER_DAY[FAULT_KINDS] = {0.5, 0.5, 0.3, 0.3, 3.0};

// The last write or command of a killed pass is one of the first KILL_POINTS of the pass:
// with 3 links an ordinary pass makes about 23 writes of file data (one per file), a pass
// with the periodic backup about 20 more and 7 shell commands; a pass with fewer ends
// before its kill point, and the process is killed right after it.
constexpr long KILL_POINTS = 40;

int count_of(fault_kind kind, int days)
{
    double n = std::floor(PER_DAY[static_cast<int>(kind)] * days + 0.5);
    return std::max(1, static_cast<int>(n));
}

char junk_byte(splitmix64& random, bool printable)
{
    if (!printable)
        return static_cast<char>(random.below(256));
    static const char alphabet[] = "0123456789:,./- abcdefOVERALCNtimesp\n\t%*";
    return alphabet[random.below(sizeof alphabet - 1)];
}

} // namespace

const char* fault_kind_name(fault_kind kind)
{
    switch (kind) {
    case fault_kind::tmp_full: return "tmp_full";
    case fault_kind::kill: return "kill";
    case fault_kind::clock_forward: return "clock_forward";
    case fault_kind::clock_back: return "clock_back";
    case fault_kind::input: return "input";
    }
    return "?";
}

const char* input_file_path(input_file file)
{
    switch (file) {
    case input_file::link_usage: return "/proc/korel/config/link_usage";
    case input_file::client_usage: return "/proc/korel/config/client_usage";
    case input_file::arp: return "/proc/net/arp";
    case input_file::deleted_arp: return "/var/run/korel/deleted_arp.wlan";
    case input_file::config: return "/usr/local/velto/conf/config";
    }
    return "?";
}

const char* input_damage_name(input_damage damage)
{
    switch (damage) {
    case input_damage::missing: return "missing";
    case input_damage::empty: return "empty";
    case input_damage::garbled: return "garbled";
    }
    return "?";
}

std::vector<planned_fault> plan_faults(uint64_t seed, int days, int ticks)
{
    splitmix64 random(seed);
    std::vector<planned_fault> plan;
    auto any_tick = [&] { return static_cast<int>(random.between(2, static_cast<uint64_t>(std::max(ticks, 2)))); };
    for (int k = 0; k < FAULT_KINDS; ++k) {
        const fault_kind kind = static_cast<fault_kind>(k);
        const int n = count_of(kind, days);
        for (int i = 0; i < n; ++i) {
            planned_fault f{kind};
            f.tick = any_tick();
            switch (kind) {
            case fault_kind::tmp_full:
                f.ticks = static_cast<int>(random.between(2, 200));
                break;
            case fault_kind::kill:
                f.kill_point = static_cast<long>(random.between(1, KILL_POINTS));
                f.at_backup = random.chance(333);
                break;
            case fault_kind::clock_forward:
                f.seconds = random.chance(750) ? static_cast<long long>(random.between(HOUR, 12 * HOUR))
                                               : static_cast<long long>(random.between(DAY, 3 * DAY));
                break;
            case fault_kind::clock_back:
                f.seconds = static_cast<long long>(random.between(60, DAY));
                break;
            case fault_kind::input:
                f.file = static_cast<input_file>(random.below(INPUT_FILES));
                f.damage = static_cast<input_damage>(random.below(INPUT_DAMAGES));
                f.garble_seed = random.next();
                break;
            }
            plan.push_back(f);
        }
    }
    std::stable_sort(plan.begin(), plan.end(),
                     [](const planned_fault& a, const planned_fault& b) { return a.tick < b.tick; });
    return plan;
}

std::string garble(const std::string& content, uint64_t seed)
{
    splitmix64 random(seed);
    const uint64_t mode = content.empty() ? 3 : random.below(4);
    std::string out = content;
    if (mode == 0) {
        // Cut short, mostly in the middle of a line.
        out.resize(random.below(content.size()));
    } else if (mode == 1) {
        // A span of random bytes.
        size_t at = random.below(content.size());
        size_t length = static_cast<size_t>(random.between(1, 24));
        for (size_t i = at; i < at + length && i < out.size(); ++i)
            out[i] = junk_byte(random, false);
    } else if (mode == 2) {
        // A line of junk between two lines.
        std::vector<size_t> starts{0};
        for (size_t i = 0; i + 1 < content.size(); ++i)
            if (content[i] == '\n')
                starts.push_back(i + 1);
        std::string line;
        for (uint64_t i = random.between(1, 80); i > 0; --i)
            line += junk_byte(random, true);
        out.insert(starts[random.below(starts.size())], line + "\n");
    } else {
        // Junk instead of the content.
        out.clear();
        for (uint64_t i = random.between(1, 300); i > 0; --i)
            out += junk_byte(random, random.chance(900));
    }
    return out;
}

std::string show_span(long long seconds)
{
    long long d = seconds / DAY, h = seconds % DAY / HOUR, m = seconds % HOUR / 60, s = seconds % 60;
    std::string text;
    auto part = [&](long long value, const char* unit) {
        if (value == 0)
            return;
        if (!text.empty())
            text += ' ';
        text += std::to_string(value) + ' ' + unit;
    };
    part(d, "d");
    part(h, "h");
    part(m, "min");
    part(s, "s");
    return text.empty() ? "0 s" : text;
}

namespace {

std::string iso(time_t t)
{
    struct tm tm;
    char text[32];
    if (!gmtime_r(&t, &tm) || strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
        return "?";
    return text;
}

bool read_file(const std::string& path, std::string* content)
{
    FILE* f = fopen(path.c_str(), "rb");
    if (!f)
        return false;
    content->clear();
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, f)) > 0;)
        content->append(buffer, n);
    bool ok = !ferror(f);
    fclose(f);
    return ok;
}

bool replace_content(const std::string& path, const std::string& content)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok = content.empty() || write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    return close(fd) == 0 && ok;
}

void set_mtime(const std::string& path, time_t t)
{
    struct timespec times[2] = {{t, 0}, {t, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
}

} // namespace

fault_session::fault_session(std::vector<planned_fault> plan, std::string root, const std::string& log_path)
    : plan_(std::move(plan)), root_(std::move(root))
{
    if (!log_path.empty())
        log_ = fopen(log_path.c_str(), "w");
}

fault_session::~fault_session()
{
    if (log_)
        fclose(log_);
}

void fault_session::note(time_t clock, fault_kind kind, const std::string& text, bool counted)
{
    if (counted)
        ++counts_[static_cast<int>(kind)];
    std::string line = std::to_string(static_cast<long long>(clock)) + "\t" + iso(clock) + "\t" +
                       fault_kind_name(kind) + "\t" + text;
    if (log_) {
        fprintf(log_, "%s\n", line.c_str());
        fflush(log_);
    }
    lines_.push_back(line);
}

time_t fault_session::begin_tick(int tick, time_t t)
{
    inputs_now_.clear();
    std::vector<planned_fault> due;
    while (next_ < plan_.size() && plan_[next_].tick <= tick)
        due.push_back(plan_[next_++]);
    // The clock first, so that the other faults of the tick are logged at the new time.
    for (const planned_fault& f : due) {
        if (f.kind == fault_kind::clock_forward)
            offset_ += f.seconds;
        else if (f.kind == fault_kind::clock_back)
            offset_ -= f.seconds;
        else
            continue;
        note(t + offset_, f.kind,
             std::string(f.kind == fault_kind::clock_forward ? "forward" : "back") + " by " + show_span(f.seconds) +
                 " (true time " + iso(t) + ", clock " + (offset_ < 0 ? "-" : "+") +
                 show_span(offset_ < 0 ? -offset_ : offset_) + ")");
    }
    const time_t clock = t + offset_;
    if (tick == full_until_)
        note(clock, fault_kind::tmp_full, "space again", false);
    for (const planned_fault& f : due) {
        if (f.kind == fault_kind::tmp_full) {
            const bool was_full = tmp_full(tick);
            full_until_ = std::max(full_until_, tick + f.ticks);
            note(clock, f.kind, std::string(was_full ? "still full, now" : "full") + " for " + std::to_string(f.ticks) +
                                    " ticks, until tick " + std::to_string(full_until_));
        } else if (f.kind == fault_kind::kill) {
            waiting_kills_.push_back(f);
        } else if (f.kind == fault_kind::input) {
            inputs_now_.push_back(f);
        }
    }
    if (tmp_full(tick))
        ++full_ticks_;
    return clock;
}

bool fault_session::damage_inputs(time_t clock)
{
    for (const planned_fault& f : inputs_now_) {
        const std::string path = root_ + input_file_path(f.file);
        const bool config = f.file == input_file::config;
        if (config && !config_damaged_ && !read_file(path, &config_))
            config_.clear();
        std::string before;
        read_file(path, &before);
        std::string text = std::string(input_file_path(f.file)) + " " + input_damage_name(f.damage);
        if (f.damage == input_damage::missing) {
            unlink(path.c_str());
        } else if (f.damage == input_damage::empty) {
            replace_content(path, "");
        } else {
            std::string after = garble(before, f.garble_seed);
            replace_content(path, after);
            text += " (" + std::to_string(after.size()) + " bytes instead of " + std::to_string(before.size()) + ")";
        }
        if (config) {
            config_damaged_ = true;
            // A modification time of its own, so that the daemon loads the damaged file.
            config_mtime_ = clock == config_mtime_ ? clock + 1 : clock;
            if (f.damage != input_damage::missing)
                set_mtime(path, config_mtime_);
        }
        ++input_counts_[static_cast<int>(f.file)][static_cast<int>(f.damage)];
        note(clock, fault_kind::input, text + " for one tick");
    }
    return config_damaged_;
}

std::string fault_session::damaged_inputs() const
{
    std::string text;
    for (const planned_fault& f : inputs_now_)
        text += (text.empty() ? "" : " and ") + std::string(input_file_path(f.file));
    return text;
}

void fault_session::repair_inputs(time_t clock)
{
    if (!config_damaged_)
        return;
    const std::string path = root_ + input_file_path(input_file::config);
    replace_content(path, config_);
    time_t mtime = clock + 1 == config_mtime_ ? clock + 2 : clock + 1;
    set_mtime(path, mtime);
    config_damaged_ = false;
}

bool fault_session::kill_due(bool periodic_backup, planned_fault* kill)
{
    for (auto it = waiting_kills_.begin(); it != waiting_kills_.end(); ++it)
        if (!it->at_backup || periodic_backup) {
            *kill = *it;
            waiting_kills_.erase(it);
            return true;
        }
    return false;
}
