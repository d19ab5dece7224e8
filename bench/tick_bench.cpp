// Speed and memory of the daemon's whole tick and of its start-up, on a router with four
// WAN links and one dual-SIM cellular link (N = 5, WAN 5 dual-SIM: 7 usage records).
//
// A tick here is what the daemon's loop does after a SIGALRM: loop_pass with tick_pending
// set, so process_tick runs in full (period clock, configuration check, link counters,
// the rollovers, exports and sums of every record, the router totals, the allowance check
// and alerts, the client reading and save with the MAC work), followed by the pass's
// backup check and the re-installation of the tick handlers.
//
// Each benchmark builds a router tree under a fresh temporary directory (TMPDIR, else
// /tmp) and points the platform seam at it, as the unit tests' sandbox and the client
// benchmark do. The tree holds:
//   - "/etc/VELTO_wanno" 5, "/etc/gobi_dual_sim_support" "5" (one dual-SIM link, two SIM
//     records) and "/etc/gpio_map/cell0_slot" 1 (SIM 1 in use);
//   - "/var/run/korel/time_initialized" (the clock is set, so every history moves);
//   - a configuration with a name, a billing start day, an allowance and an action for
//     every WAN and for both SIMs, all allowances above what a cycle uses, so no line is
//     crossed and no e-mail or suspension happens;
//   - "/proc/korel/config/link_usage" with the five links' counters growing at fixed rates
//     (300, 120, 50, 20 and 8 KB/s on counter 1, a fifth of that on counter 2);
//   - the client side of the client benchmark: C clients 10.1.0.0 + i with growing
//     counters in "/proc/korel/config/client_usage", one complete "br0" entry per client
//     in "/proc/net/arp", "/etc/event_pipe" as a regular file and the deleted-ARP answer
//     (one client in 64) written before every tick, so the daemon never waits for it;
//   - with full backups: "/tmp/ruvo_backup/wan%d" holding, for every record, the running
//     period plus 31 hours, 63 days, 60 months and 60 billing cycles (the rings full, the
//     monthly and billing histories at 60 closed periods), and the client backup
//     directories full: 24 hourly, 32 daily and 60 monthly files of C lines each, and 3 MAC
//     hourly files of min(C, 8192) lines.
// The time zone is Europe/Berlin, so that a simulated year crosses both daylight-saving
// changes. Start-up is at 2024-03-05 14:20:00 local time.
//
// The platform's run() really executes the daemon's "cp" and "rm" commands through the
// shell, as system(3) does, with every absolute path moved under the root: start-up's
// "rm -rf" of the live client directories and "cp -r" of the backups into them, and the
// copies of the periodic backups. The firmware's tools (configuration saver, suspension
// tool, mail sender, "wan_action") do not exist here and are only counted. The children's
// CPU time is not the process's: Google Benchmark's CPU column leaves it out, the wall
// time includes it.
//
// Benchmarks (clients C, full backups B = 1 or empty tree B = 0):
//   BM_Tick/C/B                      one tick at the 30 s pace, from a tree with or without
//                                    full backups, two ticks after start-up
//   BM_OneTick/C/B                   exactly one such tick (callgrind, strace, peak memory)
//   BM_TickWithPeriodicBackup/C      the pass of every 61st tick: tick plus all backups
//   BM_Startup/C                     daemon_start on the tree with full backups
//   BM_OneStartup/C                  exactly one start-up (callgrind, peak memory)
//   BM_TickAfterHourlyTicks/C/H      240 ticks at the 30 s pace (two hours) after H ticks
//                                    one hour apart: H = 0 (early) and 8,760 (one year)
//   BM_OneTickAfterHourlyTicks/C/H   exactly one tick after H hourly ticks (callgrind)
//   BM_IoFloor/C                     the I/O floor of a tick (io_floor.h): only the file
//                                    operations one real tick made, every byte prepared
//   BM_OneIoFloor/C                  exactly one floor pass (strace)
//   BM_TickAndFloor/C                a tick and a floor pass in turn, each timed on its own,
//                                    with the medians and their ratio as counters
// The measured ticks start with ticks_since_backup at 0, so that no periodic backup falls
// into them; BM_TickWithPeriodicBackup measures that pass on its own. The single measured
// tick of the BM_One… cases runs inside measured_tick() and the single start-up inside
// measured_start(), which switch callgrind's instrumentation and collection on around it
// (see the client benchmark and run.sh).
#include "io_floor.h"

#include "client/client_sources.h"
#include "client_mac/mac_usage.h"
#include "core/own_files.h"
#include "daemon/daemon.h"
#include "daemon/signals.h"
#include "platform/platform.h"

#include <benchmark/benchmark.h>
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define RUVO_TICK_BENCH_CALLGRIND 1
#endif

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ftw.h>
#include <malloc.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int WAN_LINKS = 5;     // WAN 5 is the dual-SIM link
constexpr time_t TICK = 30;      // the daemon's alarm
constexpr time_t HOUR = 3600;
constexpr int DELETED_EVERY = 64;
constexpr int MAC_LINES_MAX = 8192; // what the daemon's MAC hourly file holds at most
constexpr int MEASURED_LATE_TICKS = 240;
constexpr int YEAR_OF_HOURS = 8760;

// Counter 1 rates of the five links in bytes per second; counter 2 is a fifth of it.
constexpr uint64_t LINK_RATE[WAN_LINKS] = {300000, 120000, 50000, 20000, 8000};

// Start days and allowances (MB) of the configuration; records: WAN 1..5, then SIM 1 and
// SIM 2 of WAN 5.
constexpr int RECORDS = WAN_LINKS + 2;
constexpr int START_DAY[RECORDS] = {1, 8, 15, 22, 28, 5, 20};
constexpr int QUOTA_MB[RECORDS] = {2000000, 1000000, 500000, 300000, 200000, 100000, 100000};
constexpr const char* ACTION[RECORDS] = {"email,disconnect", "email", "disconnect", "email,disconnect",
                                         "email", "email,disconnect", "email"};
constexpr const char* LINK_NAME[WAN_LINKS] = {"Fibre", "Cable", "DSL", "Satellite", "LTE"};

// The daemon's absolute paths under a root; a clock the benchmark sets; syslog and alarms
// go nowhere; "cp" and "rm" commands are run under the root.
struct tick_platform final : platform {
    std::string root;
    time_t clock = 0;
    long commands_run = 0;
    long commands_not_run = 0;

    // While set, every mapped path is also appended here (the I/O floor's record of a tick).
    std::vector<std::string>* mapped = nullptr;

    std::string path(const char* absolute) const override
    {
        std::string p = root + absolute;
        if (mapped)
            mapped->push_back(p);
        return p;
    }
    time_t now() override { return clock; }
    void log(const char*, int, int, const char*) override {}
    void arm_alarm(unsigned) override {}

    // A command of one or more ";"-separated "cp" or "rm" commands is run through the shell
    // with its absolute paths under the root (globs keep working, the root holds no special
    // characters); anything else is a firmware tool and only counted.
    int run(const char* command) override
    {
        std::string mapped;
        std::string text(command);
        size_t from = 0;
        while (from <= text.size()) {
            size_t end = text.find(';', from);
            if (end == std::string::npos)
                end = text.size();
            std::vector<std::string> words;
            size_t i = from;
            while (i < end) {
                while (i < end && text[i] == ' ')
                    ++i;
                size_t j = i;
                while (j < end && text[j] != ' ')
                    ++j;
                if (j > i)
                    words.push_back(text.substr(i, j - i));
                i = j;
            }
            if (words.empty()) {
                from = end + 1;
                continue;
            }
            if (words[0] != "cp" && words[0] != "rm") {
                ++commands_not_run;
                return 0;
            }
            for (std::string& w : words) {
                if (w.find("..") != std::string::npos) {
                    ++commands_not_run;
                    return 0;
                }
                if (w[0] == '/')
                    w = root + w;
                mapped += w + ' ';
            }
            mapped += "2>/dev/null;";
            from = end + 1;
        }
        ++commands_run;
        return system(mapped.c_str());
    }
};

int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

size_t heap_in_use()
{
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// A field of "/proc/self/status" in KiB (VmRSS, VmHWM).
long status_kib(const char* field)
{
    FILE* f = fopen("/proc/self/status", "r");
    if (!f)
        return -1;
    char line[256];
    long value = -1;
    size_t n = strlen(field);
    while (fgets(line, sizeof line, f))
        if (strncmp(line, field, n) == 0 && line[n] == ':') {
            value = strtol(line + n + 1, nullptr, 10);
            break;
        }
    fclose(f);
    return value;
}

// The process's user and system CPU time over the measured passes only (getrusage around
// each pass; the kernel splits its time between the two by sampling, so the split is
// statistical over many passes).
class cpu_split {
public:
    void begin() { getrusage(RUSAGE_SELF, &before_); }
    void end()
    {
        struct rusage after;
        getrusage(RUSAGE_SELF, &after);
        user_ += seconds(after.ru_utime) - seconds(before_.ru_utime);
        system_ += seconds(after.ru_stime) - seconds(before_.ru_stime);
    }
    void report(benchmark::State& s, long passes, const std::string& prefix = "") const
    {
        const double n = static_cast<double>(passes > 0 ? passes : 1);
        s.counters[prefix + "user_ms"] = user_ * 1e3 / n;
        s.counters[prefix + "sys_ms"] = system_ * 1e3 / n;
    }

private:
    static double seconds(const struct timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec * 1e-6; }
    struct rusage before_ {};
    double user_ = 0;
    double system_ = 0;
};

// A system call that names its place, so that an strace of the process can be cut at the
// measured work (see run.sh); it does nothing else.
void strace_marker(const char* name)
{
    access(name, F_OK);
}

// Local calendar arithmetic for the tree's dated files (mktime normalises).
time_t local_time(int year, int month, int day, int hour, int minute, int second)
{
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    return mktime(&tm);
}

struct tm local_of(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    return tm;
}

std::string format_time(time_t t, const char* format)
{
    struct tm tm = local_of(t);
    char text[64];
    strftime(text, sizeof text, format, &tm);
    return text;
}

// tm's calendar day moved by days (noon, so that a daylight-saving change cannot move it).
time_t day_moved(const struct tm& tm, int days)
{
    return local_time(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday + days, 12, 0, 0);
}

// Day `day` of tm's month moved by months (day 0: the last day of the month before).
time_t month_day(const struct tm& tm, int months, int day)
{
    return local_time(tm.tm_year + 1900, tm.tm_mon + 1 + months, day, 12, 0, 0);
}

// A deterministic spread of values around 1 (0.6 .. 1.4).
double spread(uint64_t k)
{
    k ^= k >> 33;
    k *= 0xff51afd7ed558ccdull;
    k ^= k >> 33;
    return 0.6 + 0.8 * static_cast<double>(k % 1000) / 1000.0;
}

uint32_t client_address(int i) { return 0x0a010000u + static_cast<uint32_t>(i); }

std::string dotted(uint32_t a)
{
    char text[16];
    snprintf(text, sizeof text, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255u, (a >> 8) & 255u, a & 255u);
    return text;
}

std::string client_mac(uint32_t a, bool upper)
{
    char text[18];
    snprintf(text, sizeof text, upper ? "02:00:%02X:%02X:%02X:%02X" : "02:00:%02x:%02x:%02x:%02x", a >> 24,
             (a >> 16) & 255u, (a >> 8) & 255u, a & 255u);
    return text;
}

class file_writer {
public:
    explicit file_writer(const std::string& path) : f_(fopen(path.c_str(), "w")), path_(path)
    {
        if (!f_)
            throw std::runtime_error("cannot write " + path_ + ": " + strerror(errno));
    }
    ~file_writer()
    {
        if (f_)
            fclose(f_);
    }
    file_writer(const file_writer&) = delete;
    file_writer& operator=(const file_writer&) = delete;
    FILE* get() { return f_; }
    void close()
    {
        FILE* f = f_;
        f_ = nullptr;
        if (ferror(f) || fclose(f) != 0)
            throw std::runtime_error("cannot write " + path_);
    }

private:
    FILE* f_;
    std::string path_;
};

// The router tree, the daemon's state on it, and the kernel files of every tick.
class tick_router {
public:
    tick_router(int clients, bool full_backups) : clients_(clients)
    {
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
        start_ = local_time(2024, 3, 5, 14, 20, 0);
        boot_ = start_ - 86400; // the kernel's counters started a day before

        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/tickbench-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (!mkdtemp(buffer.data()))
            throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
        plat_.root = buffer.data();
        if (plat_.root.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-") !=
            std::string::npos)
            throw std::runtime_error("the temporary directory's name must not need quoting: " + plat_.root);
        plat_.clock = start_;
        previous_ = platform_install(&plat_);
        // Tables another benchmark of this process left behind are not this daemon's.
        free_mac_tables();
        free_client_sources();
        forget_own_files();

        for (const char* dir :
             {"/tmp", "/etc", "/etc/gpio_map", "/var", "/var/log", "/var/run", "/var/run/korel",
              "/var/run/korel/wanip", "/proc", "/proc/korel", "/proc/korel/config", "/proc/net", "/usr",
              "/usr/local", "/usr/local/velto", "/usr/local/velto/conf"})
            make_dir(dir);
        for (int n = 1; n <= WAN_LINKS; ++n)
            make_dir("/var/run/korel/wan" + std::to_string(n));

        write("/etc/VELTO_wanno", "5\n");
        write("/etc/gobi_dual_sim_support", "5\n");
        write("/etc/gpio_map/cell0_slot", "1\n");
        write("/var/run/korel/time_initialized", "");
        write("/var/run/korel/lifetime_usage.init", "1609459200\n912345678901\n123456789012\n");
        write("/var/run/korel/lan", "LAN_IPADDR=10.0.0.1\n");
        for (int n = 1; n <= WAN_LINKS; ++n)
            write("/var/run/korel/wanip/wan" + std::to_string(n), "203.0.113." + std::to_string(n) + "\n");
        write("/var/log/pptpd_user", "\"alice\" 10.1.0.10 ppp0\n\"bob\" 10.1.0.11 ppp1\n");
        write("/var/log/l2tps_user", "\"carol\" 10.1.0.20 ppp2\n");
        write("/proc/korel/config/vpnlinks", "1 net 10.1.0.128 255.255.255.128\n");
        write_configuration();
        write_arp_and_deleted_list();
        write("/etc/event_pipe", "");
        if (full_backups) {
            write_wan_backups();
            write_client_backups();
        }
        write_kernel_files();
    }

    ~tick_router()
    {
        stop();
        for (int signo : {SIGALRM, SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGPIPE})
            signal(signo, SIG_DFL);
        platform_install(previous_);
        nftw(plat_.root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }

    tick_router(const tick_router&) = delete;
    tick_router& operator=(const tick_router&) = delete;

    // Start-up as the daemon runs it, and the loop's pass straight after it (no tick yet).
    void start()
    {
        heap_before_start_ = heap_in_use();
        if (daemon_start(state, WAN_LINKS) != 0)
            throw std::runtime_error("daemon_start failed");
        tick_pending = 0;
        ticks_since_backup = 0;
        backup_requested = 0;
        loop_pass(state);
    }

    // The daemon's state and the process-wide tables freed, as if the process had ended.
    void stop()
    {
        state = daemon_state{};
        free_mac_tables();
        free_client_sources();
        forget_own_files();
    }

    // Moves the clock by step and writes the kernel files and the deleted-ARP answer of
    // the coming tick; the next pass will process a tick.
    void prepare_tick(time_t step)
    {
        plat_.clock += step;
        write_kernel_files();
        tick_pending = 1;
    }

    // prepare_tick and the pass, with the loop's own count towards the periodic backup.
    void tick(time_t step)
    {
        prepare_tick(step);
        loop_pass(state);
    }

    void ticks(long n, time_t step)
    {
        for (long i = 0; i < n; ++i)
            tick(step);
    }

    daemon_state state;

    tick_platform& plat() { return plat_; }
    double heap_kib() const { return static_cast<double>(heap_in_use() - heap_before_start_) / 1024.0; }

    // Throws unless the deleted-ARP answer was taken by the last tick.
    void check_deleted_list_taken() const
    {
        struct stat st;
        if (stat((plat_.root + "/var/run/korel/deleted_arp.wlan").c_str(), &st) == 0)
            throw std::runtime_error("the deleted-ARP list was not taken");
    }

    // How full the histories of WAN 1 and of SIM 2 are: ring entries and history lines.
    void history_counters(benchmark::State& s) const
    {
        const wan_usage& w = state.wan[0];
        s.counters["wan1_hours"] = (w.hourly_head - w.hourly_tail) % HOURLY_RING_SIZE;
        s.counters["wan1_days"] = (w.daily_head - w.daily_tail) % DAILY_RING_SIZE;
        s.counters["wan1_months"] = lines_of("/var/run/korel/wan1/usage_history.monthly");
        s.counters["wan1_cycles"] = lines_of("/var/run/korel/wan1/usage_history.billing");
        s.counters["sim2_months"] = lines_of("/var/run/korel/wan5/sim2_usage_history.monthly");
        s.counters["sim2_cycles"] = lines_of("/var/run/korel/wan5/sim2_usage_history.billing");
    }

    double lines_of(const std::string& absolute) const
    {
        FILE* f = fopen((plat_.root + absolute).c_str(), "r");
        if (!f)
            return -1;
        int c, lines = 0;
        while ((c = fgetc(f)) != EOF)
            lines += c == '\n';
        fclose(f);
        return lines;
    }

private:
    void make_dir(const std::string& absolute) { mkdir((plat_.root + absolute).c_str(), 0755); }

    void write(const std::string& absolute, const std::string& content)
    {
        file_writer f(plat_.root + absolute);
        fputs(content.c_str(), f.get());
        f.close();
    }

    void write_configuration()
    {
        std::string c = "SNMP_NAME=branch-7\n";
        for (int n = 1; n <= WAN_LINKS; ++n) {
            const std::string k = "WAN" + std::to_string(n);
            c += k + "_NAME=" + LINK_NAME[n - 1] + "\n";
            c += k + "_USAGE_START_DAY=" + std::to_string(START_DAY[n - 1]) + "\n";
            c += k + "_USAGE_QUOTA=" + std::to_string(QUOTA_MB[n - 1]) + "\n";
            c += k + "_USAGE_ACTION=" + ACTION[n - 1] + "\n";
        }
        for (int sim = 1; sim <= 2; ++sim) {
            const std::string suffix = sim == 1 ? "" : "_2";
            c += "PIF5_GOBI_USAGE_START_DAY" + suffix + "=" + std::to_string(START_DAY[WAN_LINKS + sim - 1]) + "\n";
            c += "PIF5_GOBI_USAGE_QUOTA" + suffix + "=" + std::to_string(QUOTA_MB[WAN_LINKS + sim - 1]) + "\n";
            c += "PIF5_GOBI_USAGE_ACTION" + suffix + "=" + ACTION[WAN_LINKS + sim - 1] + "\n";
        }
        c += "LAN_STROUTE_ORDER=1,2\nLAN_STROUTE1=10.1.0.0/24:10.0.0.254\nLAN_STROUTE2=10.1.1.0/24:10.0.0.254\n";
        write("/usr/local/velto/conf/config", c);
    }

    // The ARP table as Linux prints it, every client complete on br0, written line by line
    // so that its text does not add to the process's memory; the deleted-ARP answer is kept.
    void write_arp_and_deleted_list()
    {
        file_writer f(plat_.root + "/proc/net/arp");
        fputs("IP address       HW type     Flags       HW address            Mask     Device\n", f.get());
        for (int i = 0; i < clients_; ++i) {
            const uint32_t a = client_address(i);
            fprintf(f.get(), "%-16s 0x%-10x0x%-10x%-17s     *        %s\n", dotted(a).c_str(), 1, 2,
                    client_mac(a, false).c_str(), "br0");
            if (i % DELETED_EVERY == 0)
                deleted_ += dotted(a) + " " + client_mac(a, false) + "\n";
        }
        f.close();
    }

    // "/proc/korel/config/link_usage" and "/proc/korel/config/client_usage" at the clock,
    // and the wireless side's answer to the coming tick's request.
    void write_kernel_files()
    {
        const uint64_t up = static_cast<uint64_t>(plat_.clock - boot_);
        {
            file_writer f(plat_.root + "/proc/korel/config/link_usage");
            fprintf(f.get(), "timestamp:%" PRId64 "\n", static_cast<int64_t>(plat_.clock));
            for (int n = 1; n <= WAN_LINKS; ++n)
                fprintf(f.get(), "CON:%d\nOVERALL:%" PRIu64 " %" PRIu64 "\n", n,
                        uint64_t{1000000007} * n + LINK_RATE[n - 1] * up, uint64_t{300000007} * n + LINK_RATE[n - 1] / 5 * up);
            f.close();
        }
        {
            file_writer f(plat_.root + "/proc/korel/config/client_usage");
            fprintf(f.get(), "timestamp:%" PRId64 "\n", static_cast<int64_t>(plat_.clock));
            for (int i = 0; i < clients_; ++i) {
                const uint32_t a = client_address(i);
                const uint64_t n = static_cast<uint64_t>(i);
                fprintf(f.get(), "%u.%u.%u.%u:%" PRIu64 "/%" PRIu64 "\n", a >> 24, (a >> 16) & 255u,
                        (a >> 8) & 255u, a & 255u, 4096 * (n + 1) + up * (50 + n % 101),
                        1024 * (n + 1) + up * (20 + n % 53));
            }
            f.close();
        }
        write("/var/run/korel/deleted_arp.wlan", deleted_);
    }

    // Bytes of record r (0..6) over `seconds`, counter 1 or 2, spread by key.
    static uint64_t traffic(int r, int counter, double seconds, uint64_t key)
    {
        const uint64_t rate = LINK_RATE[r < WAN_LINKS ? r : WAN_LINKS - 1] / (counter == 1 ? 1 : 5);
        return static_cast<uint64_t>(static_cast<double>(rate) * seconds * spread(key * 7 + r * 131 + counter));
    }

    // The four backup files of every record, in the backup line formats.
    void write_wan_backups()
    {
        make_dir("/tmp/ruvo_backup");
        const struct tm now = local_of(start_);
        const time_t hour = start_ - start_ % HOUR; // whole-hour zones only (Europe/Berlin)
        for (int r = 0; r < RECORDS; ++r) {
            const int n = r < WAN_LINKS ? r + 1 : WAN_LINKS;
            const std::string dir = "/tmp/ruvo_backup/wan" + std::to_string(n);
            make_dir(dir);
            const std::string stem = r < WAN_LINKS ? dir + "/ruvo." : dir + "/ruvo.sim" + std::to_string(r - WAN_LINKS + 1) + ".";
            {
                // The running hour (20 minutes so far), then 31 finished hours.
                file_writer f(plat_.root + stem + "hourly.csv");
                for (int k = 0; k <= 31; ++k) {
                    const double seconds = k == 0 ? 1200 : 3600;
                    fprintf(f.get(), "%s,%" PRIu64 ",%" PRIu64 "\n", format_time(hour - k * HOUR, "%Y-%m-%d-%H").c_str(),
                            traffic(r, 1, seconds, k), traffic(r, 2, seconds, k));
                }
                f.close();
            }
            {
                // Today so far, then 63 finished days.
                file_writer f(plat_.root + stem + "daily.csv");
                for (int k = 0; k <= 63; ++k) {
                    const double seconds = k == 0 ? 14 * 3600 + 1200 : 86400;
                    fprintf(f.get(), "%s,%" PRIu64 ",%" PRIu64 "\n", format_time(day_moved(now, -k), "%Y-%m-%d").c_str(),
                            traffic(r, 1, seconds, 1000 + k), traffic(r, 2, seconds, 1000 + k));
                }
                f.close();
            }
            {
                // This month up to today, then 60 closed months.
                file_writer f(plat_.root + stem + "monthly.csv");
                for (int k = 0; k <= 60; ++k) {
                    const time_t first = month_day(now, -k, 1);
                    const time_t last = k == 0 ? start_ : month_day(now, -k + 1, 0);
                    const double days = k == 0 ? 4.6 : local_of(last).tm_mday;
                    fprintf(f.get(), "%s,%s,%" PRIu64 ",%" PRIu64 "\n", format_time(first, "%Y-%m-%d").c_str(),
                            format_time(last, "%Y-%m-%d").c_str(), traffic(r, 1, days * 86400, 2000 + k),
                            traffic(r, 2, days * 86400, 2000 + k));
                }
                f.close();
            }
            {
                // The running cycle up to today, then 60 closed cycles, each from its start
                // day to the day before the next start.
                const int d = START_DAY[r];
                const int back = now.tm_mday >= d ? 0 : 1;
                file_writer f(plat_.root + stem + "billing.csv");
                for (int k = 0; k <= 60; ++k) {
                    const time_t first = month_day(now, -back - k, d);
                    const time_t last = k == 0 ? start_ : month_day(now, -back - k + 1, d - 1);
                    const double days = static_cast<double>(last - first) / 86400 + 1;
                    fprintf(f.get(), "%s,%s,%" PRIu64 ",%" PRIu64 "\n", format_time(first, "%Y-%m-%d").c_str(),
                            format_time(last, "%Y-%m-%d").c_str(), traffic(r, 1, days * 86400, 3000 + k),
                            traffic(r, 2, days * 86400, 3000 + k));
                }
                f.close();
            }
        }
    }

    // One client history file: every client with its KiB in the client files' line format.
    void write_client_file(const std::string& absolute, uint64_t scale)
    {
        file_writer f(plat_.root + absolute);
        for (int i = 0; i < clients_; ++i) {
            const uint64_t n = static_cast<uint64_t>(i);
            fprintf(f.get(), "%s,lan,%" PRIu64 ",%" PRIu64 "\n", dotted(client_address(i)).c_str(),
                    scale * (4 + n % 101), scale * (1 + n % 53));
        }
        f.close();
    }

    // Full client backup directories: 24 hours, 32 days, 60 months (the numbers the daemon
    // keeps), and 3 MAC hourly files of the largest min(C, 8192) users, largest first.
    void write_client_backups()
    {
        const struct tm now = local_of(start_);
        const time_t hour = start_ - start_ % HOUR;
        make_dir("/tmp/ruvo_client_hourly");
        make_dir("/tmp/ruvo_client_daily");
        make_dir("/tmp/ruvo_client_monthly");
        make_dir("/tmp/ruvo_client_mac_hourly");
        for (int k = 0; k < 24; ++k)
            write_client_file("/tmp/ruvo_client_hourly/" + format_time(hour - k * HOUR, "%Y-%m-%d-%H") + ".csv", 40);
        for (int k = 0; k < 32; ++k)
            write_client_file("/tmp/ruvo_client_daily/" + format_time(day_moved(now, -k), "%Y-%m-%d") + ".csv", 900);
        for (int k = 0; k < 60; ++k)
            write_client_file("/tmp/ruvo_client_monthly/" + format_time(month_day(now, -k, 1), "%Y-%m-%d") + ".csv",
                              27000);
        const int lines = clients_ < MAC_LINES_MAX ? clients_ : MAC_LINES_MAX;
        for (int k = 0; k < 3; ++k) {
            file_writer f(plat_.root + "/tmp/ruvo_client_mac_hourly/" +
                          format_time(hour - k * HOUR, "%Y-%m-%d-%H") + ".csv");
            for (int i = 0; i < lines; ++i)
                fprintf(f.get(), "%s,lan,%d,%d\n", client_mac(client_address(i), true).c_str(),
                        4 * (lines - i) + 100, lines - i + 20);
            f.close();
        }
    }

    int clients_;
    time_t start_ = 0;
    time_t boot_ = 0;
    std::string deleted_;
    size_t heap_before_start_ = 0;
    tick_platform plat_;
    platform* previous_ = nullptr;
};

// The router started from its tree, then two ticks at the 30 s pace, so that the first
// tick's work (configuration load, total files built) is behind.
void start_and_warm_up(tick_router& router)
{
    router.start();
    router.ticks(2, TICK);
}

void tick_counters(benchmark::State& s, tick_router& router, int clients, long commands_before,
                   long not_run_before, long ticks)
{
    router.check_deleted_list_taken();
    s.counters["clients"] = clients;
    s.counters["heap_KiB"] = router.heap_kib();
    s.counters["commands_per_tick"] =
        static_cast<double>(router.plat().commands_run + router.plat().commands_not_run - commands_before -
                            not_run_before) /
        static_cast<double>(ticks > 0 ? ticks : 1);
    router.history_counters(s);
}

} // namespace

// The one tick that callgrind counts.
extern "C" __attribute__((noinline)) void measured_tick(daemon_state* state)
{
    strace_marker("/ruvo-bench-measured-begin");
#ifdef RUVO_TICK_BENCH_CALLGRIND
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_TOGGLE_COLLECT;
#endif
    loop_pass(*state);
#ifdef RUVO_TICK_BENCH_CALLGRIND
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_STOP_INSTRUMENTATION;
#endif
    strace_marker("/ruvo-bench-measured-end");
    benchmark::ClobberMemory();
}

// The one start-up that callgrind counts.
extern "C" __attribute__((noinline)) int measured_start(daemon_state* state)
{
    strace_marker("/ruvo-bench-measured-begin");
#ifdef RUVO_TICK_BENCH_CALLGRIND
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_TOGGLE_COLLECT;
#endif
    int result = daemon_start(*state, WAN_LINKS);
#ifdef RUVO_TICK_BENCH_CALLGRIND
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_STOP_INSTRUMENTATION;
#endif
    strace_marker("/ruvo-bench-measured-end");
    benchmark::ClobberMemory();
    return result;
}

// One tick at the 30 s pace with C clients, with full backups restored at start-up (B = 1)
// or from an empty tree (B = 0), two ticks after start-up.
static void BM_Tick(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    tick_router router(clients, state.range(1) != 0);
    start_and_warm_up(router);
    const long run_before = router.plat().commands_run, not_run_before = router.plat().commands_not_run;
    cpu_split cpu;
    for (auto _ : state) {
        state.PauseTiming();
        router.prepare_tick(TICK);
        ticks_since_backup = 0;
        cpu.begin();
        state.ResumeTiming();
        loop_pass(router.state);
        state.PauseTiming();
        cpu.end();
        state.ResumeTiming();
    }
    cpu.report(state, static_cast<long>(state.iterations()));
    tick_counters(state, router, clients, run_before, not_run_before, static_cast<long>(state.iterations()));
}
BENCHMARK(BM_Tick)
    ->ArgNames({"clients", "full_backups"})
    ->Args({0, 1})
    ->Args({1000, 1})
    ->Args({16384, 1})
    ->Args({0, 0})
    ->Args({1000, 0})
    ->Unit(benchmark::kMillisecond);

// Exactly one tick at the 30 s pace (mid-hour, no rollover), two ticks after start-up
// (callgrind, strace, peak memory).
static void BM_OneTick(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    tick_router router(clients, state.range(1) != 0);
    state.counters["rss_KiB_before_start"] = static_cast<double>(status_kib("VmRSS"));
    router.start();
    state.counters["rss_peak_KiB_after_start"] = static_cast<double>(status_kib("VmHWM"));
    router.ticks(2, TICK);
    router.prepare_tick(TICK);
    ticks_since_backup = 0;
    const long run_before = router.plat().commands_run, not_run_before = router.plat().commands_not_run;
    for (auto _ : state)
        measured_tick(&router.state);
    tick_counters(state, router, clients, run_before, not_run_before, 1);
    state.counters["rss_peak_KiB"] = static_cast<double>(status_kib("VmHWM"));
}
BENCHMARK(BM_OneTick)
    ->ArgNames({"clients", "full_backups"})
    ->Args({0, 1})
    ->Args({1000, 1})
    ->Args({16384, 1})
    ->Args({0, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// The pass of every 61st tick: the tick, then backup_usage of both record arrays, the
// client and MAC directory copies (cp and rm run for real) and the configuration saver.
static void BM_TickWithPeriodicBackup(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    tick_router router(clients, true);
    start_and_warm_up(router);
    const long run_before = router.plat().commands_run;
    for (auto _ : state) {
        state.PauseTiming();
        router.prepare_tick(TICK);
        ticks_since_backup = PERIODIC_BACKUP_TICKS;
        state.ResumeTiming();
        loop_pass(router.state);
    }
    state.counters["clients"] = clients;
    state.counters["shell_commands_per_pass"] =
        static_cast<double>(router.plat().commands_run - run_before) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_TickWithPeriodicBackup)
    ->ArgName("clients")
    ->Arg(0)
    ->Arg(1000)
    ->Arg(16384)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// daemon_start on the tree with full backups: live history files removed, backup
// directories made, live client directories removed (rm -rf), 7 records restored from 28
// backup files, client directories restored (cp -r) and the current hour's, day's and
// month's client files and the MAC hour file loaded. Each iteration starts from freed state.
static void BM_Startup(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    tick_router router(clients, true);
    size_t heap_before = 0;
    for (auto _ : state) {
        state.PauseTiming();
        router.stop();
        heap_before = heap_in_use();
        state.ResumeTiming();
        if (daemon_start(router.state, WAN_LINKS) != 0) {
            state.SkipWithError("daemon_start failed");
            break;
        }
    }
    state.counters["clients"] = clients;
    state.counters["heap_KiB"] = static_cast<double>(heap_in_use() - heap_before) / 1024.0;
    router.history_counters(state);
}
BENCHMARK(BM_Startup)->ArgName("clients")->Arg(0)->Arg(1000)->Arg(16384)->UseRealTime()->Unit(benchmark::kMillisecond);

// Exactly one start-up with full backups (callgrind; peak memory in its own process).
static void BM_OneStartup(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    tick_router router(clients, true);
    const double rss_before = static_cast<double>(status_kib("VmHWM"));
    const size_t heap_before = heap_in_use();
    for (auto _ : state)
        if (measured_start(&router.state) != 0)
            state.SkipWithError("daemon_start failed");
    state.counters["clients"] = clients;
    state.counters["heap_KiB"] = static_cast<double>(heap_in_use() - heap_before) / 1024.0;
    state.counters["rss_peak_KiB_before_start"] = rss_before;
    state.counters["rss_peak_KiB"] = static_cast<double>(status_kib("VmHWM"));
    router.history_counters(state);
}
BENCHMARK(BM_OneStartup)->ArgName("clients")->Arg(0)->Arg(1000)->Arg(16384)->Iterations(1)->Unit(benchmark::kMillisecond);

// Ticks at the 30 s pace after H ticks one hour apart from the start-up with full backups:
// H = 0 is early, H = 8,760 is one year later (every ring, the monthly and billing
// histories and the client directories rolled over and over). Both measure the same 240
// ticks (two hours: two hourly rollovers each), from the same time of day.
static void BM_TickAfterHourlyTicks(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    const long hours = static_cast<long>(state.range(1));
    tick_router router(clients, true);
    router.start();
    state.counters["heap_KiB_after_start"] = router.heap_kib();
    router.ticks(hours, HOUR);
    router.ticks(2, TICK);
    const double heap_before = router.heap_kib();
    const long run_before = router.plat().commands_run, not_run_before = router.plat().commands_not_run;
    cpu_split cpu;
    for (auto _ : state) {
        state.PauseTiming();
        router.prepare_tick(TICK);
        ticks_since_backup = 0;
        cpu.begin();
        state.ResumeTiming();
        loop_pass(router.state);
        state.PauseTiming();
        cpu.end();
        state.ResumeTiming();
    }
    cpu.report(state, static_cast<long>(state.iterations()));
    tick_counters(state, router, clients, run_before, not_run_before, static_cast<long>(state.iterations()));
    state.counters["hourly_ticks"] = static_cast<double>(hours);
    state.counters["heap_growth_measured_KiB"] = router.heap_kib() - heap_before;
}
BENCHMARK(BM_TickAfterHourlyTicks)
    ->ArgNames({"clients", "hourly_ticks"})
    ->Args({0, 0})
    ->Args({0, YEAR_OF_HOURS})
    ->Args({1000, 0})
    ->Args({1000, YEAR_OF_HOURS})
    ->Iterations(MEASURED_LATE_TICKS)
    ->Unit(benchmark::kMillisecond);

// Exactly one tick at the 30 s pace (mid-hour) after H hourly ticks (callgrind).
static void BM_OneTickAfterHourlyTicks(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    const long hours = static_cast<long>(state.range(1));
    tick_router router(clients, true);
    router.start();
    router.ticks(hours, HOUR);
    router.ticks(2, TICK);
    router.prepare_tick(TICK);
    ticks_since_backup = 0;
    const long run_before = router.plat().commands_run, not_run_before = router.plat().commands_not_run;
    for (auto _ : state)
        measured_tick(&router.state);
    tick_counters(state, router, clients, run_before, not_run_before, 1);
    state.counters["hourly_ticks"] = static_cast<double>(hours);
}
BENCHMARK(BM_OneTickAfterHourlyTicks)
    ->ArgNames({"clients", "hourly_ticks"})
    ->Args({0, 0})
    ->Args({0, YEAR_OF_HOURS})
    ->Args({1000, 0})
    ->Args({1000, YEAR_OF_HOURS})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// ---- The I/O floor ---------------------------------------------------------------------------

namespace {

// The process's CPU time (user + system) in milliseconds, to the nanosecond.
double process_cpu_ms()
{
    struct timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) * 1e-6;
}

double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

// Watches one real tick at the 30 s pace (mid-hour, no backup) and works out its floor; the
// floor's replaced files go under "<root>/floor".
void record_floor(tick_router& router, io_floor& floor)
{
    std::vector<std::string> mapped;
    router.prepare_tick(TICK);
    ticks_since_backup = 0;
    floor.record_begin(router.plat().root);
    router.plat().mapped = &mapped;
    loop_pass(router.state);
    router.plat().mapped = nullptr;
    // The daemon's kept files that are watched are asked for without a call (their paths
    // are mapped all the same): they are no looks of the tick's.
    mapped.erase(std::remove_if(mapped.begin(), mapped.end(), own_file_watched), mapped.end());
    floor.record_end(mapped, router.plat().root + "/floor");
    router.check_deleted_list_taken();
}

// The kernel files and the deleted-ARP answer written again, as before a tick, without a
// tick pending: what a floor pass reads and takes. step moves the clock as prepare_tick does.
void refill_for_floor(tick_router& router, time_t step)
{
    router.prepare_tick(step);
    tick_pending = 0;
}

void floor_counters(benchmark::State& s, const io_floor& floor, int clients)
{
    s.counters["clients"] = clients;
    s.counters["files_read"] = static_cast<double>(floor.files_read() + floor.files_taken());
    s.counters["files_written"] = static_cast<double>(floor.files_written());
    s.counters["dirs_listed"] = static_cast<double>(floor.dirs_listed());
    s.counters["paths_checked"] = static_cast<double>(floor.paths_checked());
    s.counters["KiB_read"] = static_cast<double>(floor.bytes_read()) / 1024.0;
    s.counters["KiB_written"] = static_cast<double>(floor.bytes_written()) / 1024.0;
}

} // namespace

// The one floor pass that strace cuts out (the same markers as measured_tick).
extern "C" __attribute__((noinline)) bool measured_floor(io_floor* floor, std::string* error)
{
    strace_marker("/ruvo-bench-measured-begin");
    const bool ok = floor->pass(*error);
    strace_marker("/ruvo-bench-measured-end");
    benchmark::ClobberMemory();
    return ok;
}

// The I/O floor of a tick with C clients and full backups: the files one real tick read,
// listed, took and wrote, with the bytes it wrote, replayed with no formatting or parsing
// (io_floor.h). Before every pass, outside the timing, the kernel files and the deleted-ARP
// answer are written again as before a tick.
static void BM_IoFloor(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    tick_router router(clients, true);
    start_and_warm_up(router);
    io_floor floor;
    record_floor(router, floor);
    std::string error;
    refill_for_floor(router, TICK);
    if (!floor.pass(error)) { // every replaced file now exists in the mirror, as in the tree
        state.SkipWithError(error.c_str());
        return;
    }
    cpu_split cpu;
    for (auto _ : state) {
        state.PauseTiming();
        refill_for_floor(router, TICK);
        cpu.begin();
        state.ResumeTiming();
        const bool ok = floor.pass(error);
        state.PauseTiming();
        cpu.end();
        state.ResumeTiming();
        if (!ok) {
            state.SkipWithError(error.c_str());
            break;
        }
    }
    cpu.report(state, static_cast<long>(state.iterations()));
    floor_counters(state, floor, clients);
}
BENCHMARK(BM_IoFloor)
    ->ArgName("clients")
    ->Arg(0)
    ->Arg(1000)
    ->Arg(16384)
    ->Iterations(200)
    ->Unit(benchmark::kMillisecond);

// Exactly one floor pass (strace; RUVO_BENCH_FLOOR_LIST=1 prints the pass's operations to
// standard error).
static void BM_OneIoFloor(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    tick_router router(clients, true);
    start_and_warm_up(router);
    io_floor floor;
    record_floor(router, floor);
    std::string error;
    refill_for_floor(router, TICK);
    bool ok = floor.pass(error);
    refill_for_floor(router, TICK);
    for (auto _ : state)
        ok = ok && measured_floor(&floor, &error);
    if (!ok)
        state.SkipWithError(error.c_str());
    floor_counters(state, floor, clients);
    const char* list = getenv("RUVO_BENCH_FLOOR_LIST");
    if (list && *list)
        fputs(floor.describe().c_str(), stderr);
}
BENCHMARK(BM_OneIoFloor)->ArgName("clients")->Arg(0)->Arg(1000)->Arg(16384)->Iterations(1)->Unit(benchmark::kMillisecond);

// The tick and its floor side by side: every iteration is one tick at the 30 s pace (as
// BM_Tick) and then one floor pass on the same tree, each timed on its own with the
// process's CPU clock. Counters: the medians over the iterations of the tick's and the
// floor's CPU time, their ratio, and the mean user and system time of each (getrusage).
// The Time and CPU columns are the two together.
static void BM_TickAndFloor(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    tick_router router(clients, true);
    start_and_warm_up(router);
    io_floor floor;
    record_floor(router, floor);
    std::string error;
    refill_for_floor(router, TICK);
    if (!floor.pass(error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    std::vector<double> tick_ms, floor_ms;
    tick_ms.reserve(static_cast<size_t>(state.max_iterations));
    floor_ms.reserve(static_cast<size_t>(state.max_iterations));
    cpu_split tick_cpu, floor_cpu;
    bool ok = true;
    for (auto _ : state) {
        state.PauseTiming();
        router.prepare_tick(TICK);
        ticks_since_backup = 0;
        tick_cpu.begin();
        state.ResumeTiming();
        const double t0 = process_cpu_ms();
        loop_pass(router.state);
        const double t1 = process_cpu_ms();
        state.PauseTiming();
        tick_cpu.end();
        refill_for_floor(router, 0);
        floor_cpu.begin();
        state.ResumeTiming();
        const double t2 = process_cpu_ms();
        ok = floor.pass(error);
        const double t3 = process_cpu_ms();
        state.PauseTiming();
        floor_cpu.end();
        state.ResumeTiming();
        if (!ok) {
            state.SkipWithError(error.c_str());
            break;
        }
        tick_ms.push_back(t1 - t0);
        floor_ms.push_back(t3 - t2);
    }
    const long n = static_cast<long>(tick_ms.size());
    const double tick = median(tick_ms), floor_cpu_median = median(floor_ms);
    state.counters["tick_cpu_ms"] = tick;
    state.counters["floor_cpu_ms"] = floor_cpu_median;
    state.counters["tick_over_floor"] = floor_cpu_median > 0 ? tick / floor_cpu_median : 0;
    tick_cpu.report(state, n, "tick_");
    floor_cpu.report(state, n, "floor_");
    floor_counters(state, floor, clients);
}
BENCHMARK(BM_TickAndFloor)
    ->ArgName("clients")
    ->Arg(0)
    ->Arg(16384)
    ->Iterations(100)
    ->Unit(benchmark::kMillisecond);
