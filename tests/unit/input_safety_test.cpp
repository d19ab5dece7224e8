// Inputs that are not what they should be: a FIFO without a writer, or a file far larger
// than any real one, planted at the name of a file the daemon reads.
//
// Every such name gets its own run of the daemon's real code: the start-up as main runs it
// (WAN count, daemon_start), then ticks across an hour boundary, the last one followed by a
// full backup. Each run leaves a trace (after the start-up and after every tick: every file
// of the router tree with its content, the WAN and SIM records, the router totals, the
// client and MAC tables, syslog lines, shell commands and alarms). Each test then checks:
// - the run completes (a stalled read would hang the test until CTest's timeout);
// - with a FIFO, the trace is exactly the one of the same run with an empty file there;
// - with a 1 GiB + 1 byte file, the trace is exactly the one with no file there, and the
//   file was never read (inotify sees no access);
// - the planted name is one the run opens, and the normal content there changes the trace,
//   so the comparison is not vacuous.
#include "sandbox.h"

#include "client/client_sources.h"
#include "client/client_table.h"
#include "client/client_usage.h"
#include "client_mac/mac_usage.h"
#include "core/link_usage.h"
#include "core/read_file.h"
#include "core/wan_count.h"
#include "daemon/daemon.h"
#include "daemon/signals.h"
#include "platform/strutils.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr long long MiB = 1LL << 20;
constexpr long long GiB = 1LL << 30;
// What a planted oversized file holds: one byte more than a GiB, as a sparse file.
constexpr long long OVERSIZED = GiB + 1;

// The daemon's input names.
constexpr const char* VELTO_WANNO = "/etc/VELTO_wanno";
constexpr const char* DUAL_SIM = "/etc/gobi_dual_sim_support";
constexpr const char* CELL_SLOT = "/etc/gpio_map/cell0_slot";
constexpr const char* LINK_USAGE = "/proc/korel/config/link_usage";
constexpr const char* CONFIG = "/usr/local/velto/conf/config";
constexpr const char* LAN = "/var/run/korel/lan";
constexpr const char* PPTP_USERS = "/var/log/pptpd_user";
constexpr const char* L2TP_USERS = "/var/log/l2tps_user";
constexpr const char* VPN_LINKS = "/proc/korel/config/vpnlinks";
constexpr const char* WANIP_TIMESTAMP = "/var/run/korel/wanip/timestamp";
constexpr const char* WANIP_WAN1 = "/var/run/korel/wanip/wan1";
constexpr const char* CLIENT_USAGE = "/proc/korel/config/client_usage";
constexpr const char* PROC_NET_ARP = "/proc/net/arp";
constexpr const char* DELETED_ARP = "/var/run/korel/deleted_arp.wlan";
constexpr const char* LIFETIME_INIT = "/var/run/korel/lifetime_usage.init";
constexpr const char* BACKUP_HOURLY = "/tmp/ruvo_backup/wan1/ruvo.hourly.csv";
constexpr const char* BACKUP_DAILY = "/tmp/ruvo_backup/wan1/ruvo.daily.csv";
constexpr const char* BACKUP_MONTHLY = "/tmp/ruvo_backup/wan1/ruvo.monthly.csv";
constexpr const char* BACKUP_BILLING = "/tmp/ruvo_backup/wan1/ruvo.billing.csv";
constexpr const char* SIM_BACKUP_HOURLY = "/tmp/ruvo_backup/wan2/ruvo.sim1.hourly.csv";
constexpr const char* SIM_BACKUP_DAILY = "/tmp/ruvo_backup/wan2/ruvo.sim1.daily.csv";
constexpr const char* SIM_BACKUP_MONTHLY = "/tmp/ruvo_backup/wan2/ruvo.sim1.monthly.csv";
constexpr const char* SIM_BACKUP_BILLING = "/tmp/ruvo_backup/wan2/ruvo.sim1.billing.csv";
constexpr const char* CLIENT_HOUR_FILE = "/var/run/korel/client_usage_hourly/2024-03-05-13.csv";
constexpr const char* CLIENT_DAY_FILE = "/var/run/korel/client_usage_daily/2024-03-05.csv";
constexpr const char* CLIENT_MONTH_FILE = "/var/run/korel/client_usage_monthly/2024-03-01.csv";
constexpr const char* CLIENT_NEXT_HOUR_FILE = "/var/run/korel/client_usage_hourly/2024-03-05-14.csv";
constexpr const char* MAC_HOUR_FILE = "/var/run/korel/client_usage_mac_hourly/2024-03-05-13.csv";
constexpr const char* MAC_NEXT_HOUR_FILE = "/var/run/korel/client_usage_mac_hourly/2024-03-05-14.csv";

// Not under test: they only make the run reach the others.
constexpr const char* TIME_INITIALIZED = "/var/run/korel/time_initialized";
constexpr const char* EVENT_PIPE = "/etc/event_pipe";

// Every file the run writes gets this modification time, so that two runs see the same
// times (the configuration loader and the WAN address reload compare them).
constexpr time_t PLANTED_MTIME = 1709640000; // 2024-03-05 12:00:00 UTC

constexpr const char* ROUTER_CONFIG = "WAN1_NAME=Fibre\n"
                                      "WAN2_NAME=LTE\n"
                                      "WAN3_NAME=DSL\n"
                                      "SNMP_NAME=edge-router\n"
                                      "WAN1_USAGE_START_DAY=1\n"
                                      "WAN1_USAGE_QUOTA=1000000\n"
                                      "WAN1_USAGE_ACTION=email\n"
                                      "PIF2_GOBI_USAGE_START_DAY=15\n"
                                      "PIF2_GOBI_USAGE_QUOTA=2000000\n"
                                      "LAN_STROUTE_ORDER=1\n"
                                      "LAN_STROUTE1=192.168.50.0/24:br0\n";

// The kernel's clients: the router's LAN address, a plain LAN client with an ARP entry, a
// client only the deleted list knows, a PPTP and an L2TP user, a VPN network, a static
// route's network and the router's WAN 1 address.
const char* const CLIENTS[] = {"192.168.1.1", "192.168.1.20", "192.168.1.30", "192.168.1.50",
                               "192.168.1.60", "10.8.0.0",    "192.168.50.0", "203.0.113.5"};

// A time of day in UTC, the zone of every test here.
time_t utc(int year, int month, int day, int hour, int min, int sec)
{
    struct tm tm = {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    return timegm(&tm);
}

// One line of the kernel's ARP table, laid out the way Linux prints it.
std::string arp_line(const char* address, const char* mac)
{
    char line[160];
    snprintf(line, sizeof line, "%-16s %-11s %-11s %-17s     %-8s %s\n", address, "0x1", "0x2", mac, "*", "br0");
    return line;
}

std::string tm_text(const struct tm& tm)
{
    char text[64];
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec);
    return text;
}

std::string pair_text(const uint64_t v[2]) { return std::to_string(v[0]) + "/" + std::to_string(v[1]); }

std::string ring_text(const usage_entry* ring, uint32_t size, uint32_t tail, uint32_t head)
{
    std::string s = std::to_string(tail) + ".." + std::to_string(head) + ":";
    for (uint32_t i = tail; i % size != head % size; ++i)
        s += " " + tm_text(ring[i % size].when) + "=" + pair_text(ring[i % size].bytes);
    return s;
}

std::string record_text(const wan_usage& r)
{
    std::ostringstream o;
    o << "  wan " << r.wan_index << " slot " << r.sim_slot_index << " sim " << r.sim_number << " init "
      << r.periods_initialised << " sync " << r.timesync_privilege << " alert " << r.alert_state << " flags "
      << r.history_flags << "\n"
      << "    samples " << r.prev_sample_time << " " << r.sample_time << " " << tm_text(r.sample_tm) << " last "
      << pair_text(r.last_counter) << " delta " << pair_text(r.delta) << "\n"
      << "    hour " << r.hour_bucket_time << " " << pair_text(r.hour_bytes) << " day " << r.day_bucket_time << " "
      << pair_text(r.day_bytes) << " month " << r.month_start << " " << pair_text(r.month_bytes) << "\n"
      << "    billing " << r.billing_start << ".." << r.billing_end << " " << pair_text(r.billing_bytes)
      << " snapshot " << pair_text(r.quota_snapshot) << " applied " << r.billing_day_applied << "\n"
      << "    config start " << r.start_day << " action " << r.usage_action << " quota " << r.quota_bytes
      << " name '" << r.wan_name << "' snmp '" << r.snmp_name << "'\n"
      << "    hourly " << ring_text(r.hourly, HOURLY_RING_SIZE, r.hourly_tail, r.hourly_head) << "\n"
      << "    daily " << ring_text(r.daily, DAILY_RING_SIZE, r.daily_tail, r.daily_head) << "\n";
    return o.str();
}

std::string totals_text(const usage_totals& t)
{
    std::ostringstream o;
    o << "totals flags " << t.flags << " counts " << t.hourly_count << "/" << t.daily_count << "/"
      << t.monthly_count << "\n";
    for (int i = 0; i < t.hourly_count && i < TOTAL_HOURLY_ROWS; ++i)
        o << "  hour " << tm_text(t.hourly[i].when) << " " << pair_text(t.hourly[i].bytes) << "\n";
    for (int i = 0; i < t.daily_count && i < TOTAL_DAILY_ROWS; ++i)
        o << "  day " << tm_text(t.daily[i].when) << " " << pair_text(t.daily[i].bytes) << "\n";
    for (int i = 0; i < t.monthly_count && i < TOTAL_MONTHLY_ROWS; ++i)
        o << "  month " << tm_text(t.monthly[i].start) << ".." << tm_text(t.monthly[i].end) << " "
          << pair_text(t.monthly[i].bytes) << "\n";
    return o.str();
}

std::string clients_text(client_usage_tables* tables)
{
    if (!tables)
        return "clients none\n";
    std::ostringstream o;
    for (const client_table& table : tables->table) {
        o << "clients kind " << table.kind << " time " << table.time << " prev " << table.prev_time << "\n";
        for (const client_record* head : table.chains)
            for (const client_record* r = head; r; r = r->next) {
                o << "  " << r->address_text << " present " << r->present << " baseline " << r->baseline_pending
                  << " type " << r->type;
                for (int type = 0; type < CLIENT_TYPES; ++type)
                    o << " " << r->first[type] << "/" << r->second[type];
                o << "\n";
            }
    }
    return o.str();
}

std::string mac_table_text()
{
    std::multiset<std::string> entries;
    for (const mac_usage_entry* head : mac_usage_table)
        for (const mac_usage_entry* e = head; e; e = e->next) {
            struct in_addr a;
            a.s_addr = e->address;
            char text[160];
            snprintf(text, sizeof text, "  %012llX %s %d %llu %llu\n", static_cast<unsigned long long>(e->mac),
                     inet_ntoa(a), static_cast<int>(e->type), static_cast<unsigned long long>(e->first),
                     static_cast<unsigned long long>(e->second));
            entries.insert(text);
        }
    std::string s = "mac hour " + std::to_string(mac_usage_hour) + " count " + std::to_string(mac_usage_count) + "\n";
    for (const std::string& e : entries)
        s += e;
    return s;
}

// A file planted at an input's name, or nothing there.
enum class planted { normal, absent, empty, small, fifo, oversized };

// What tells one file from another that may later get its inode number (a planted file
// has the planted modification time, a file the daemon wrote the time it was written).
struct file_identity {
    dev_t dev = 0;
    ino_t ino = 0;
    mode_t mode = 0;
    off_t size = 0;
    time_t mtime = 0;
    long mtime_ns = 0;

    explicit file_identity(const struct stat& st)
        : dev(st.st_dev), ino(st.st_ino), mode(st.st_mode), size(st.st_size), mtime(st.st_mtim.tv_sec),
          mtime_ns(st.st_mtim.tv_nsec)
    {
    }
    file_identity() = default;
    bool operator==(const file_identity& o) const
    {
        return dev == o.dev && ino == o.ino && mode == o.mode && size == o.size && mtime == o.mtime &&
               mtime_ns == o.mtime_ns;
    }
};

// Counts the opens and the reads of planted files, whoever does them (inotify).
class access_watch {
public:
    access_watch() : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) { EXPECT_GE(fd_, 0) << strerror(errno); }
    ~access_watch()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    access_watch(const access_watch&) = delete;
    access_watch& operator=(const access_watch&) = delete;

    void add(const std::string& real_path)
    {
        EXPECT_GE(inotify_add_watch(fd_, real_path.c_str(), IN_OPEN | IN_ACCESS), 0)
            << real_path << ": " << strerror(errno);
    }
    // Takes the events that arrived.
    void take()
    {
        alignas(inotify_event) char buffer[4096];
        for (;;) {
            ssize_t got = read(fd_, buffer, sizeof buffer);
            if (got <= 0)
                return;
            for (ssize_t at = 0; at < got;) {
                const inotify_event* e = reinterpret_cast<const inotify_event*>(buffer + at);
                if (e->mask & IN_OPEN)
                    ++opens;
                if (e->mask & IN_ACCESS)
                    ++reads;
                at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            }
        }
    }
    int opens = 0;
    int reads = 0;

private:
    int fd_;
};

// One run of the daemon over a router tree in its own directory.
class scenario {
public:
    scenario(test_platform& plat, const std::string& root, const std::string& under_test, planted mode)
        : plat_(plat), under_test_(under_test), mode_(mode)
    {
        plat_.root = root;
        plat_.logs.clear();
        plat_.commands.clear();
        plat_.alarms.clear();
        EXPECT_EQ(mkdir(root.c_str(), 0755), 0) << root;
    }

    // Start-up at 13:58, then ticks at 13:59, 14:00:30 (a new hour) and 14:01, the last
    // followed by a full backup. Returns the trace.
    std::string run()
    {
        reset_process_state();
        for (const char* dir : {"/var/run/korel/wan1/", "/var/run/korel/wan2/", "/var/run/korel/wan3/"})
            make_parents(plat_.root + dir); // made by the firmware on a router
        put(TIME_INITIALIZED, "");
        put(EVENT_PIPE, "");
        put(VELTO_WANNO, "3\n");
        put(DUAL_SIM, "2\n");
        put(CELL_SLOT, "2\n");
        put(CONFIG, ROUTER_CONFIG);
        put(LAN, "LAN_IPADDR=192.168.1.1\n");
        put(PPTP_USERS, "\"alice\" 192.168.1.50 ppp0\n");
        put(L2TP_USERS, "\"bob\" 192.168.1.60 ppp1\n");
        put(VPN_LINKS, "1 net 10.8.0.0 255.255.255.0\n");
        put(WANIP_TIMESTAMP, std::nullopt); // missing: the WAN addresses are read at every reading
        put(WANIP_WAN1, "203.0.113.5\n");
        put(PROC_NET_ARP, "IP address       HW type     Flags       HW address            Mask     Device\n" +
                              arp_line("192.168.1.20", "02:00:00:00:00:20") +
                              arp_line("192.168.1.50", "02:00:00:00:00:50") +
                              arp_line("192.168.1.60", "02:00:00:00:00:60"));
        put(LIFETIME_INIT, "1700000000\n1000\n2000\n");
        put(BACKUP_HOURLY, "2024-03-05-13,1048576,2097152\n2024-03-05-12,3145728,4194304\n"
                           "2024-03-05-11,5242880,6291456\n");
        put(BACKUP_DAILY, "2024-03-05,10485760,20971520\n2024-03-04,31457280,41943040\n");
        put(BACKUP_MONTHLY, "2024-03-01,2024-03-05,104857600,209715200\n2024-02-01,2024-02-29,314572800,419430400\n");
        put(BACKUP_BILLING, "2024-03-01,2024-03-05,104857600,209715200\n2024-02-01,2024-02-29,314572800,419430400\n");
        put(SIM_BACKUP_HOURLY, "2024-03-05-13,2097152,1048576\n2024-03-05-10,4194304,3145728\n");
        put(SIM_BACKUP_DAILY, "2024-03-05,20971520,10485760\n2024-03-03,41943040,31457280\n");
        put(SIM_BACKUP_MONTHLY, "2024-03-01,2024-03-05,209715200,104857600\n2024-01-01,2024-01-31,419430400,314572800\n");
        put(SIM_BACKUP_BILLING, "2024-02-15,2024-03-05,209715200,104857600\n2024-01-15,2024-02-14,419430400,314572800\n");
        put(CLIENT_HOUR_FILE, "192.168.1.20,lan,10,20\n192.168.1.77,lan,3,4\n");
        put(CLIENT_DAY_FILE, "192.168.1.20,lan,100,200\n192.168.1.77,pptp,30,40\n");
        put(CLIENT_MONTH_FILE, "192.168.1.20,lan,1000,2000\n192.168.1.78,lan,300,400\n");
        put(MAC_HOUR_FILE, "02:00:00:00:00:20,lan,7,8\n*192.168.1.99,lan,1,1\n");
        kernel_files(0, utc(2024, 3, 5, 13, 58, 0));

        std::string trace;
        plat_.clock = utc(2024, 3, 5, 13, 58, 0);
        daemon_state state;
        // As main does: the WAN count, then the start-up.
        int wan_count = read_wan_count();
        trace += "wan count " + std::to_string(wan_count) + "\n";
        if (daemon_start(state, wan_count) != 0) {
            ADD_FAILURE() << "the start-up failed";
            return trace;
        }
        loop_pass(state); // the pass straight after start-up: no tick yet
        trace += snapshot("start-up", state);

        tick(state, 1, utc(2024, 3, 5, 13, 59, 0), false);
        trace += snapshot("tick 1", state);
        // Files of the next hour appear only now: the retention would remove a file dated
        // after the current hour.
        put(CLIENT_NEXT_HOUR_FILE, "192.168.1.20,lan,5,6\n192.168.1.88,lan,1,2\n");
        put(MAC_NEXT_HOUR_FILE, "02:00:00:00:00:20,lan,3,4\n*192.168.1.98,pptp,2,2\n");
        tick(state, 2, utc(2024, 3, 5, 14, 0, 30), false);
        trace += snapshot("tick 2, a new hour", state);
        tick(state, 3, utc(2024, 3, 5, 14, 1, 0), true);
        trace += snapshot("tick 3 and a full backup", state);

        state = daemon_state{};
        reset_process_state();
        return trace;
    }

    // Whether the file planted at the name under test was opened, and read.
    access_watch& watch() { return watch_; }

private:
    static void reset_process_state()
    {
        free_client_sources();
        free_mac_tables();
        link_usage_raw_sum[0] = 0;
        link_usage_raw_sum[1] = 0;
        tick_pending = 0;
        ticks_since_backup = 0;
        backup_requested = 0;
        for (int signo : {SIGALRM, SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGPIPE})
            signal(signo, SIG_DFL);
    }

    void kernel_files(int k, time_t t)
    {
        std::string link = "timestamp:" + std::to_string(static_cast<long long>(t)) + "\n";
        for (int n = 1; n <= 3; ++n)
            link += "CON:" + std::to_string(n) + "\nOVERALL:" + std::to_string((100 * n + 3 * k) * MiB) + " " +
                    std::to_string((10 * n + k) * MiB) + "\n";
        put(LINK_USAGE, link);
        std::string clients = "timestamp:" + std::to_string(static_cast<long long>(t)) + "\n";
        long long i = 1;
        for (const char* address : CLIENTS) {
            clients += std::string(address) + ":" + std::to_string(4096 * (k + 1) * i) + "/" +
                       std::to_string(1024 * (k + 1) * i) + "\n";
            ++i;
        }
        put(CLIENT_USAGE, clients);
        // The wireless side's answer to this reading's request.
        put(DELETED_ARP, "192.168.1.30 02:00:00:00:00:30\n");
    }

    void tick(daemon_state& state, int k, time_t t, bool full_backup)
    {
        kernel_files(k, t);
        plat_.clock = t;
        tick_pending = 1;
        if (full_backup)
            ticks_since_backup = 61; // as SIGHUP does
        loop_pass(state);
    }

    void make_parents(const std::string& path)
    {
        for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
            mkdir(path.substr(0, slash).c_str(), 0755);
    }

    void write_whole(const std::string& path, const std::string& content)
    {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
        ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        ASSERT_EQ(close(fd), 0);
    }

    // Writes the normal content of an input (none: no file), or plants the test's file at the
    // name under test. A planted file that is still in place is left as it is.
    void put(const char* absolute, const std::optional<std::string>& content)
    {
        std::string path = plat_.root + absolute;
        make_parents(path);
        planted mode = absolute == under_test_ ? mode_ : planted::normal;
        if (mode == planted::normal) {
            unlink(path.c_str());
            if (content)
                write_whole(path, *content);
            else
                return;
        } else {
            struct stat st;
            if (planted_ && lstat(path.c_str(), &st) == 0 && file_identity(st) == *planted_)
                return;
            unlink(path.c_str());
            switch (mode) {
            case planted::absent:
                return;
            case planted::empty:
                write_whole(path, "");
                break;
            case planted::small:
                write_whole(path, "1\n");
                break;
            case planted::fifo:
                ASSERT_EQ(mkfifo(path.c_str(), 0644), 0) << path << ": " << strerror(errno);
                break;
            case planted::oversized: {
                int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
                ASSERT_GE(fd, 0) << path;
                ASSERT_EQ(ftruncate(fd, OVERSIZED), 0) << strerror(errno);
                ASSERT_EQ(close(fd), 0);
                break;
            }
            case planted::normal:
                break;
            }
        }
        struct timeval times[2] = {{PLANTED_MTIME, 0}, {PLANTED_MTIME, 0}};
        ASSERT_EQ(utimes(path.c_str(), times), 0) << path;
        if (mode != planted::normal) {
            struct stat st;
            ASSERT_EQ(lstat(path.c_str(), &st), 0);
            planted_ = file_identity(st);
            watch_.add(path);
        }
    }

    // Every entry below the root, in name order, with the content of the regular files; the
    // test's own planted file, while it is still in place, is left out.
    void list_tree(const std::string& dir, const std::string& shown, std::string& out)
    {
        std::vector<std::string> names;
        if (DIR* d = opendir(dir.c_str())) {
            while (const dirent* e = readdir(d))
                if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                    names.emplace_back(e->d_name);
            closedir(d);
        }
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            std::string path = dir + "/" + name;
            std::string absolute = shown + "/" + name;
            struct stat st;
            if (lstat(path.c_str(), &st) != 0)
                continue;
            if (absolute == under_test_ && planted_ && file_identity(st) == *planted_)
                continue;
            if (S_ISDIR(st.st_mode)) {
                out += absolute + "/\n";
                list_tree(path, absolute, out);
            } else if (S_ISREG(st.st_mode) && st.st_size <= MiB) {
                std::string content;
                if (FILE* f = fopen(path.c_str(), "rb")) {
                    char buffer[4096];
                    size_t got;
                    while ((got = fread(buffer, 1, sizeof buffer, f)) > 0)
                        content.append(buffer, got);
                    fclose(f);
                }
                out += absolute + " [" + std::to_string(st.st_mode & 07777) + "]:\n" + content + "<end>\n";
            } else {
                out += absolute + " mode " + std::to_string(st.st_mode) + " size " + std::to_string(st.st_size) +
                       "\n";
            }
        }
    }

    std::string snapshot(const char* moment, const daemon_state& state)
    {
        std::string s = "=== " + std::string(moment) + "\n";
        list_tree(plat_.root, "", s);
        for (int i = 0; i < state.wan_count; ++i)
            s += record_text(state.wan[i]);
        for (int i = 0; i < state.sim_count; ++i)
            s += "  (sim)\n" + record_text(state.sim[i]);
        s += "config times " + std::to_string(state.config_mtime_wan) + " " + std::to_string(state.config_mtime_sim) +
             "\n";
        s += totals_text(state.totals);
        s += clients_text(state.clients.get());
        s += mac_table_text();
        s += "raw sums " + pair_text(link_usage_raw_sum) + "\n";
        for (const captured_log& l : plat_.logs)
            s += "log " + l.ident + " " + std::to_string(l.facility) + " " + std::to_string(l.priority) + " " +
                 l.text + "\n";
        for (const std::string& c : plat_.commands)
            s += "command " + c + "\n";
        for (unsigned a : plat_.alarms)
            s += "alarm " + std::to_string(a) + "\n";
        plat_.logs.clear();
        plat_.commands.clear();
        plat_.alarms.clear();
        return s;
    }

    test_platform& plat_;
    std::string under_test_;
    planted mode_;
    std::optional<file_identity> planted_;
    access_watch watch_;
};

// An input of the daemon and how it is used.
struct input_case {
    const char* name;  // the test's name for it
    const char* path;
    bool stat_only;    // only its modification time is looked at, the file is never opened
};

std::ostream& operator<<(std::ostream& o, const input_case& c) { return o << c.path; }

const input_case INPUTS[] = {
    {"VeltoWanno", VELTO_WANNO, false},
    {"DualSimList", DUAL_SIM, false},
    {"CellSlot", CELL_SLOT, false},
    {"LinkUsage", LINK_USAGE, false},
    {"Config", CONFIG, false},
    {"LanFile", LAN, false},
    {"PptpUsers", PPTP_USERS, false},
    {"L2tpUsers", L2TP_USERS, false},
    {"VpnLinks", VPN_LINKS, false},
    {"WanIpTimestamp", WANIP_TIMESTAMP, true},
    {"WanIpAddress", WANIP_WAN1, false},
    {"ClientUsage", CLIENT_USAGE, false},
    {"ProcNetArp", PROC_NET_ARP, false},
    {"DeletedArp", DELETED_ARP, false},
    {"LifetimeInit", LIFETIME_INIT, false},
    {"BackupHourly", BACKUP_HOURLY, false},
    {"BackupDaily", BACKUP_DAILY, false},
    {"BackupMonthly", BACKUP_MONTHLY, false},
    {"BackupBilling", BACKUP_BILLING, false},
    {"SimBackupHourly", SIM_BACKUP_HOURLY, false},
    {"SimBackupDaily", SIM_BACKUP_DAILY, false},
    {"SimBackupMonthly", SIM_BACKUP_MONTHLY, false},
    {"SimBackupBilling", SIM_BACKUP_BILLING, false},
    {"ClientHourFile", CLIENT_HOUR_FILE, false},
    {"ClientDayFile", CLIENT_DAY_FILE, false},
    {"ClientMonthFile", CLIENT_MONTH_FILE, false},
    {"ClientNextHourFile", CLIENT_NEXT_HOUR_FILE, false},
    {"MacHourFile", MAC_HOUR_FILE, false},
    {"MacNextHourFile", MAC_NEXT_HOUR_FILE, false},
};

// The first line where two traces differ, with the lines around it.
std::string first_difference(const std::string& expected, const std::string& actual)
{
    std::vector<std::string> a, b;
    std::string line;
    for (std::istringstream in(expected); std::getline(in, line);)
        a.push_back(line);
    for (std::istringstream in(actual); std::getline(in, line);)
        b.push_back(line);
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i])
        ++i;
    std::ostringstream o;
    o << "first difference at line " << i + 1 << "\n";
    for (size_t j = i >= 3 ? i - 3 : 0; j < i; ++j)
        o << "  " << a[j] << "\n";
    o << "- " << (i < a.size() ? a[i] : "<end>") << "\n+ " << (i < b.size() ? b[i] : "<end>") << "\n";
    return o.str();
}

class PlantedInput : public Sandbox, public ::testing::WithParamInterface<input_case> {
protected:
    void TearDown() override
    {
        plat.root = base_;
        Sandbox::TearDown();
    }
    void SetUp() override
    {
        Sandbox::SetUp();
        base_ = plat.root;
    }

    struct result {
        std::string trace;
        int opens = 0;
        int reads = 0;
    };
    result run(const char* name, planted mode)
    {
        scenario s(plat, base_ + "/" + name, GetParam().path, mode);
        result r;
        r.trace = s.run();
        s.watch().take();
        r.opens = s.watch().opens;
        r.reads = s.watch().reads;
        plat.root = base_;
        return r;
    }

    std::string base_;
};

TEST_P(PlantedInput, FifoWithoutWriterReadsAsAnEmptyFile)
{
    const input_case& input = GetParam();
    result with_fifo = run("fifo", planted::fifo);
    result with_empty_file = run("empty", planted::empty);
    result normal = run("normal", planted::normal);

    EXPECT_TRUE(with_fifo.trace == with_empty_file.trace) << first_difference(with_empty_file.trace, with_fifo.trace);
    if (input.stat_only)
        EXPECT_EQ(with_fifo.opens, 0) << "only its modification time is looked at";
    else
        EXPECT_GT(with_fifo.opens, 0) << "the run never opened the FIFO";
    EXPECT_FALSE(normal.trace == with_empty_file.trace) << "the normal content changes nothing: the run does not test "
                                                        << input.path;
}

TEST_P(PlantedInput, FileOverTheLimitIsNeverReadAndCountsAsMissing)
{
    const input_case& input = GetParam();
    result oversized = run("oversized", planted::oversized);
    // A file whose content is never read is compared with a small file of the same time.
    result reference = run("reference", input.stat_only ? planted::small : planted::absent);
    result normal = run("normal", planted::normal);

    EXPECT_TRUE(oversized.trace == reference.trace) << first_difference(reference.trace, oversized.trace);
    EXPECT_EQ(oversized.reads, 0) << "the oversized file was read";
    if (input.stat_only)
        EXPECT_EQ(oversized.opens, 0) << "only its modification time is looked at";
    else
        EXPECT_GT(oversized.opens, 0) << "the run never opened the oversized file";
    EXPECT_FALSE(normal.trace == reference.trace) << "the normal content changes nothing: the run does not test "
                                                  << input.path;
}

INSTANTIATE_TEST_SUITE_P(EveryInput, PlantedInput, ::testing::ValuesIn(INPUTS),
                         [](const ::testing::TestParamInfo<input_case>& info) { return info.param.name; });

// ---- The daemon's own reader -------------------------------------------------------------

class InputReader : public Sandbox {
protected:
    // A sparse file of the given size at a daemon path.
    void sized_file(const char* absolute, long long size)
    {
        write_file(absolute, "");
        int fd = open(real(absolute).c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, size), 0) << strerror(errno);
        ASSERT_EQ(close(fd), 0);
    }
    void fifo(const char* absolute)
    {
        write_file(absolute, "");
        ASSERT_EQ(unlink(real(absolute).c_str()), 0);
        ASSERT_EQ(mkfifo(real(absolute).c_str(), 0644), 0) << strerror(errno);
    }
};

TEST_F(InputReader, FileOf64MiBIsReadAndOneByteMoreIsUnreadable)
{
    sized_file("/var/run/korel/limit", 64 * MiB);
    sized_file("/var/run/korel/above", 64 * MiB + 1);
    sized_file("/var/run/korel/huge", OVERSIZED);
    file_ptr at_limit = open_for_reading("/var/run/korel/limit");
    ASSERT_NE(at_limit, nullptr);
    EXPECT_EQ(fgetc(at_limit.get()), 0); // a sparse file reads as zero bytes
    EXPECT_EQ(open_for_reading("/var/run/korel/above"), nullptr);
    EXPECT_EQ(open_for_reading("/var/run/korel/huge"), nullptr);
}

TEST_F(InputReader, FileThatGrowsBeyondTheLimitIsJudgedWhenOpened)
{
    sized_file("/var/run/korel/limit", 64 * MiB);
    EXPECT_NE(open_for_reading("/var/run/korel/limit"), nullptr);
    int fd = open(real("/var/run/korel/limit").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "x", 1), 1);
    close(fd);
    EXPECT_EQ(open_for_reading("/var/run/korel/limit"), nullptr); // retried at the next tick: still too large
}

TEST_F(InputReader, ProcFileThatReportsNoSizeIsRead)
{
    // A real /proc file: its size is 0, its content is not.
    write_file("/proc/korel/config/.keep", "");
    ASSERT_EQ(symlink("/proc/self/status", real("/proc/korel/config/link_usage").c_str()), 0);
    struct stat st;
    ASSERT_EQ(stat(real("/proc/korel/config/link_usage").c_str(), &st), 0);
    ASSERT_EQ(st.st_size, 0);
    file_ptr f = open_for_reading("/proc/korel/config/link_usage");
    ASSERT_NE(f, nullptr);
    char line[256];
    ASSERT_NE(fgets(line, sizeof line, f.get()), nullptr);
    EXPECT_EQ(std::string(line).rfind("Name:", 0), 0u) << line;
}

TEST_F(InputReader, LargeFileIsReadWholeThroughItsOwnBufferAndSeeksBack)
{
    // Over 8 KiB: the stream reads through a 64 KiB buffer of its own, which a rewind
    // starts filling again from the first byte.
    std::string content;
    for (int i = 0; content.size() < 300000; ++i)
        content += "10.1." + std::to_string(i / 256 % 256) + "." + std::to_string(i % 256) + ":" +
                   std::to_string(i * 7919) + "/" + std::to_string(i) + "\n";
    write_file("/proc/korel/config/client_usage", content);
    file_ptr f = open_for_reading("/proc/korel/config/client_usage");
    ASSERT_NE(f, nullptr);
    for (int pass = 0; pass < 2; ++pass) {
        std::string read_back;
        char line[256];
        line_reader lines(f.get());
        while (lines.next(line, sizeof line))
            read_back += line;
        EXPECT_EQ(read_back, content) << "pass " << pass;
        rewind(f.get());
    }
}

TEST_F(InputReader, FifoWithoutWriterOpensAtOnceAndReadsAsEmpty)
{
    fifo("/var/run/korel/lan");
    file_ptr f = open_for_reading("/var/run/korel/lan");
    ASSERT_NE(f, nullptr);
    char line[64];
    EXPECT_EQ(fgets(line, sizeof line, f.get()), nullptr);
}

TEST_F(InputReader, DeviceLinkedAtAnInputsNameIsUnreadable)
{
    // /dev/zero never ends: a line reader on it would loop for ever.
    write_file("/proc/korel/config/.keep", "");
    ASSERT_EQ(symlink("/dev/zero", real("/proc/korel/config/link_usage").c_str()), 0);
    EXPECT_EQ(open_for_reading("/proc/korel/config/link_usage"), nullptr);
}

TEST_F(InputReader, MarkerFileOfAnySizeIsStillReadable)
{
    // Only opened, never read: a marker counts by being there.
    sized_file(TIME_INITIALIZED, OVERSIZED);
    EXPECT_TRUE(is_readable(TIME_INITIALIZED));
    EXPECT_FALSE(is_readable("/var/run/korel/missing"));
}

TEST_F(InputReader, WanCountInAnOversizedFileIsNotReadAndGivesTwoWans)
{
    // The count itself stands at the start of the file, so a reader without the limit
    // would find 7.
    write_file(VELTO_WANNO, "7\n");
    int fd = open(real(VELTO_WANNO).c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, OVERSIZED), 0);
    close(fd);
    EXPECT_EQ(read_wan_count(), 2);
    write_file(VELTO_WANNO, "7\n");
    EXPECT_EQ(read_wan_count(), 7);
}

// ---- The stand-in of the firmware's readfile and load_taglist_ex ---------------------------

struct free_text {
    void operator()(char* p) const { free(p); }
};
using text_ptr = std::unique_ptr<char, free_text>;
struct free_tags {
    void operator()(taglist* l) const { free_taglist(l); }
};
using tags_ptr = std::unique_ptr<taglist, free_tags>;

class StandInReader : public InputReader {
protected:
    double seconds_since(std::chrono::steady_clock::time_point start)
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
};

TEST_F(StandInReader, ReadfileOfFifoWithoutWriterGivesEmptyTextAtOnce)
{
    fifo(WANIP_WAN1);
    auto start = std::chrono::steady_clock::now();
    text_ptr text(readfile(real(WANIP_WAN1).c_str(), 10));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text.get(), "");
    EXPECT_LT(seconds_since(start), 5.0);
}

TEST_F(StandInReader, ReadfileOfFifoWithAWriterGivesWhatThePipeHolds)
{
    fifo(WANIP_WAN1);
    // Held open for reading and writing: a writer that has written one line and waits.
    int holder = open(real(WANIP_WAN1).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    text_ptr idle(readfile(real(WANIP_WAN1).c_str(), 10));
    ASSERT_NE(idle, nullptr);
    EXPECT_STREQ(idle.get(), "");
    ASSERT_EQ(write(holder, "203.0.113.9\n", 12), 12);
    text_ptr text(readfile(real(WANIP_WAN1).c_str(), 10));
    close(holder);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text.get(), "203.0.113.9\n");
}

TEST_F(StandInReader, LoadTaglistOfFifoGivesAnEmptyList)
{
    fifo(CONFIG);
    tags_ptr tags(load_taglist_ex(real(CONFIG).c_str(), 1, 0));
    ASSERT_NE(tags, nullptr);
    EXPECT_EQ(get_taglist_default_ex(tags.get(), nullptr, "WAN1_NAME"), nullptr);
    EXPECT_STREQ(get_taglist_default_ex(tags.get(), "none", "LAN_IPADDR"), "none");
}

TEST_F(StandInReader, ReadfileTakesAFileOfExactly16MiB)
{
    // "203.0.113.5\n", then zero bytes up to 16 MiB in all: the text ends at the first zero
    // byte, and the last byte is a zero byte that was read too.
    write_file(WANIP_WAN1, "203.0.113.5\n");
    int fd = open(real(WANIP_WAN1).c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 16 * MiB), 0);
    close(fd);
    text_ptr text(readfile(real(WANIP_WAN1).c_str(), 10));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text.get(), "203.0.113.5\n");
}

TEST_F(StandInReader, FileAbove16MiBCannotBeReadAndIsNeverRead)
{
    write_file(CONFIG, "WAN1_NAME=Fibre\n");
    int fd = open(real(CONFIG).c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 16 * MiB + 1), 0);
    close(fd);
    sized_file(WANIP_WAN1, OVERSIZED);
    access_watch watch;
    watch.add(real(CONFIG));
    watch.add(real(WANIP_WAN1));

    // Events are taken after every call: inotify merges two equal events in a row.
    EXPECT_EQ(readfile(real(CONFIG).c_str(), 10), nullptr);
    watch.take();
    EXPECT_EQ(load_taglist_ex(real(CONFIG).c_str(), 1, 0), nullptr);
    watch.take();
    EXPECT_EQ(readfile(real(WANIP_WAN1).c_str(), 10), nullptr);
    watch.take();
    EXPECT_EQ(load_taglist_ex(real(WANIP_WAN1).c_str(), 1, 0), nullptr);
    watch.take();
    EXPECT_EQ(watch.opens, 4);
    EXPECT_EQ(watch.reads, 0);
}

TEST_F(StandInReader, EndlessDeviceStopsAtTheLimitAndCannotBeRead)
{
    // /dev/zero reports no size and never ends: the reader stops one byte beyond 16 MiB.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(readfile("/dev/zero", 10), nullptr);
    EXPECT_EQ(load_taglist_ex("/dev/zero", 1, 0), nullptr);
    EXPECT_LT(seconds_since(start), 30.0);
}

} // namespace
