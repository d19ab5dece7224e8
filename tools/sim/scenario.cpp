#include "scenario.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t MIB = 1ULL << 20;
constexpr uint64_t GIB = 1ULL << 30;
constexpr int TICKS_PER_DAY = 86400 / SIM_TICK_SECONDS;

// How busy an hour of the day is, in thousandths of the day's mean (the 24 values add up to
// 24000): quiet at night, busiest in the evening.
constexpr unsigned DIURNAL[24] = {600,  450,  350,  300,  280,  320,  450,  700,
                                  950,  1100, 1200, 1250, 1300, 1300, 1300, 1350,
                                  1400, 1350, 1500, 1600, 1550, 1350, 1200, 850};

// The clients' traffic through WAN 1 in a day until its first suspension, and less afterwards
// (its users learnt their lesson), so that the new billing cycle does not reach 75 % within
// 3 days.
constexpr uint64_t WAN1_DAY_BYTES = 3 * GIB;
constexpr uint64_t WAN1_DAY_BYTES_AFTER = 600 * MIB;
// WAN 1's counter 1 starts 700 MiB below 2^64, so it wraps on the first day.
constexpr uint64_t WAN1_COUNTER1_START = UINT64_MAX - 700 * MIB + 1;
// WAN 2's link came up just before the run (small counters); at the reset its counters
// start again from these values.
constexpr uint64_t WAN2_START[2] = {51234, 7890};
constexpr uint64_t WAN2_RESET[2] = {1536, 256};

int hour_of(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    return tm.tm_hour;
}

// Writes a whole file in place. The file is cut to its new length after the write rather
// than emptied before it: on ext4 a file emptied and rewritten is flushed to the disk at
// its close, which would make the run wait for the disk on every tick.
bool write_whole(const std::string& path, const std::string& content)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
              ftruncate(fd, static_cast<off_t>(content.size())) == 0;
    return close(fd) == 0 && ok;
}

bool make_dirs(const std::string& path)
{
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string part = path.substr(0, slash);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
        if (slash == std::string::npos)
            return true;
    }
}

std::string number(uint64_t value)
{
    char text[24];
    snprintf(text, sizeof text, "%" PRIu64, value);
    return text;
}

// Splits one interval's traffic into the two counters: counter 2 gets 6 to 18 % of it.
void split(splitmix64& random, uint64_t total, uint64_t out[2])
{
    uint64_t share = random.between(60, 180);
    out[1] = total * share / 1000;
    out[0] = total - out[1];
}

// The weight of an active client of size_bytes (2 MiB to 2 GiB) on a tick with noise in
// thousandths: its size in MiB times the noise (at most 2^11 × 1800, below 2^22), so that a
// link's volume of a tick (below 2^23 bytes: 5 GiB a day at the busiest hour and the
// highest noise) times the weights of up to 16,384 clients stays below 2^59.
uint64_t client_weight(uint64_t size_bytes, uint64_t noise) { return (size_bytes >> 20) * noise; }

} // namespace

uint64_t counted_delta(uint64_t old_value, uint64_t new_value)
{
    if (new_value >= old_value)
        return new_value - old_value;
    return new_value + (UINT64_MAX - old_value);
}

std::string lan_address(uint32_t index)
{
    char text[32];
    snprintf(text, sizeof text, "192.168.%u.%u", static_cast<unsigned>(index / 250),
             static_cast<unsigned>(index % 250 + 2));
    return text;
}

std::string mac_text(uint64_t mac)
{
    char text[32];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>(mac >> 40 & 0xff),
             static_cast<unsigned>(mac >> 32 & 0xff), static_cast<unsigned>(mac >> 24 & 0xff),
             static_cast<unsigned>(mac >> 16 & 0xff), static_cast<unsigned>(mac >> 8 & 0xff),
             static_cast<unsigned>(mac & 0xff));
    return text;
}

time_t timeline::time_of(int tick) const
{
    time_t t = SIM_START + static_cast<time_t>(tick) * SIM_TICK_SECONDS;
    return tick >= clock_back_tick ? t - CLOCK_STEP_BACK : t;
}

timeline make_timeline(int days)
{
    // Offsets in seconds from the start on the forward clock (before the step back).
    const long long span = days * 86400LL;
    auto tick_at = [](long long offset) { return static_cast<int>(offset / SIM_TICK_SECONDS); };
    timeline tl;
    tl.reset_tick = tick_at(span / 4 + 23 * 60);
    tl.sim_switch_tick = tick_at(span / 2 - 3 * 3600 + 7 * 60);
    tl.restart_tick = tick_at(span / 2 + 17 * 60);
    // The clock steps back at the first hh:10:00 from three quarters of the run on, with hh
    // at least 2, so that the new time lies in the same day and not on an hour boundary.
    long long at = 3 * span / 4;
    long long day = at / 86400 * 86400;
    long long hour = (at - day) / 3600;
    if (at - day > hour * 3600 + 600)
        hour += 1;
    if (hour < 2)
        hour = 2;
    if (hour > 23) {
        day += 86400;
        hour = 2;
    }
    tl.clock_back_tick = tick_at(day + hour * 3600 + 600) + 1;
    // The last tick is the last one before the end of the last day (23:59:30), counted on
    // the clock that went back 2 h.
    tl.ticks = tick_at(span + CLOCK_STEP_BACK) - 1;
    return tl;
}

scenario::scenario(const scenario_options& options, const std::string& root)
    : options_(options), root_(root), timeline_(make_timeline(options.days)), link_random_(0),
      client_random_(0)
{
    splitmix64 seeds(options.seed);
    link_random_ = seeds.fork();
    client_random_ = seeds.fork();
    splitmix64 setup = seeds.fork();
    fault_seed_ = seeds.next();

    const int n = options.links;
    for (int wan = 1; wan <= n; ++wan) {
        wan_link link{};
        if (wan == n) {
            link.name = "LTE";
            link.day_bytes = 1200 * MIB;
            link.counter[0] = 37 * GIB + setup.below(GIB);
            link.counter[1] = 4 * GIB + setup.below(GIB);
            link.dual_sim = true;
        } else if (wan == 1) {
            link.name = "Fiber";
            link.day_bytes = WAN1_DAY_BYTES;
            link.counter[0] = WAN1_COUNTER1_START;
            link.counter[1] = 918273645012ULL;
        } else if (wan == 2) {
            link.name = "Cable";
            link.day_bytes = 5 * GIB;
        } else {
            link.name = "DSL" + (wan > 3 ? " " + std::to_string(wan - 2) : std::string());
            link.day_bytes = 800 * MIB;
            link.counter[0] = setup.below(1ULL << 40);
            link.counter[1] = setup.below(1ULL << 38);
        }
        if (wan == 2) {
            link.counter[0] = WAN2_START[0];
            link.counter[1] = WAN2_START[1];
        }
        links_.push_back(link);
    }

    const int ticks = timeline_.ticks;
    uint32_t next_address = static_cast<uint32_t>(options.clients);
    for (int i = 0; i < options.clients; ++i) {
        lan_client c{};
        c.mac = 0x020000000000ULL | (setup.next() & 0xffffffffffULL);
        c.address_index = static_cast<uint32_t>(i);
        c.link = static_cast<uint32_t>(i % n);
        c.size_bytes = ((2 * MIB) << setup.below(10)) * setup.between(1000, 2000) / 1000;
        // The kernel's client counters start at 0 with the run: what they hold is what the
        // clients sent and received through the links from the first tick on.
        c.wireless = setup.chance(600);
        uint64_t kind = setup.below(100);
        auto tick_between = [&](int low_permille, int high_permille) {
            return static_cast<int>(setup.between(static_cast<uint64_t>(ticks) * low_permille / 1000,
                                                  static_cast<uint64_t>(ticks) * high_permille / 1000)) +
                   1;
        };
        if (kind < 5) {
            c.change_tick = tick_between(100, 900);
            c.new_address_index = next_address++;
        } else if (kind < 13) {
            c.leave_tick = tick_between(200, 950);
        } else if (kind < 23) {
            c.join_tick = tick_between(50, 800);
        }
        clients_.push_back(c);
    }
    weights_.resize(clients_.size());
}

bool scenario::write_static_files() const
{
    const int n = options_.links;
    bool ok = true;
    for (const char* dir : {"/etc/gpio_map", "/usr/local/velto/conf", "/proc/korel/config", "/proc/net",
                            "/var/run/korel/wanip", "/var/log", "/tmp"})
        ok = make_dirs(real(dir)) && ok;
    for (int wan = 1; wan <= n; ++wan)
        ok = make_dirs(root_ + "/var/run/korel/wan" + std::to_string(wan)) && ok;

    ok = write_whole(real("/etc/VELTO_wanno"), std::to_string(n) + "\n") && ok;
    ok = write_whole(real("/etc/gobi_dual_sim_support"), std::to_string(dual_sim_wan()) + "\n") && ok;
    // A regular file where the wireless side's pipe would be: the daemon's request goes into
    // it, and the simulator has the answer ("/var/run/korel/deleted_arp.wlan") ready before
    // every tick.
    ok = write_whole(real("/etc/event_pipe"), "") && ok;

    std::string config = "# The router's configuration, as ruvo-sim set it up.\n";
    config += std::string("SNMP_NAME=\"") + ROUTER_SNMP_NAME + "\"\n";
    config += std::string("LAN_IPADDR=") + LAN_ADDRESS + "\n";
    for (int wan = 1; wan <= n; ++wan) {
        std::string key = "WAN" + std::to_string(wan);
        config += key + "_NAME=\"" + links_[static_cast<size_t>(wan - 1)].name + "\"\n";
        if (wan == QUOTA_WAN) {
            config += key + "_USAGE_START_DAY=" + std::to_string(QUOTA_START_DAY) + "\n";
            config += key + "_USAGE_QUOTA=" + number(QUOTA_MB) + "\n";
            config += key + "_USAGE_ACTION=\"" + QUOTA_ACTION + "\"\n";
        }
    }
    ok = write_whole(real("/usr/local/velto/conf/config"), config) && ok;
    ok = write_whole(real("/var/run/korel/lan"), std::string("LAN_IPADDR=") + LAN_ADDRESS + "\n") && ok;
    ok = write_whole(real("/var/run/korel/time_initialized"), "") && ok;
    for (int wan = 1; wan <= n; ++wan)
        ok = write_whole(root_ + "/var/run/korel/wanip/wan" + std::to_string(wan),
                         "100.64." + std::to_string(wan) + ".2\n") &&
             ok;
    // The lifetime count kept since a boot two days before the run.
    ok = write_whole(real("/var/run/korel/lifetime_usage.init"),
                     std::to_string(static_cast<long long>(SIM_START - 2 * 86400)) + "\n1234567890123\n98765432101\n") &&
         ok;
    return ok;
}

std::vector<link_tick> scenario::advance(int tick, time_t t, bool wan1_suspended)
{
    const unsigned busy = DIURNAL[hour_of(t)];
    const size_t n = links_.size();
    // The links first: each one's volume for its clients on this tick, both counters, and
    // whether it carries traffic at all: not WAN 1 while it is suspended, not the dual-SIM
    // link on the tick of its SIM switch (the modem changes SIM; no SIM carries that
    // interval's traffic).
    std::vector<link_tick> result(n);
    std::vector<uint64_t> volume(2 * n);
    std::vector<bool> carries(n);
    for (size_t i = 0; i < n; ++i) {
        wan_link& link = links_[i];
        if (i == 0 && wan1_suspended && link.day_bytes != WAN1_DAY_BYTES_AFTER) {
            link.day_bytes = WAN1_DAY_BYTES_AFTER;
            notes_.push_back({t, "cut-back", "WAN 1 suspended: its traffic stops, and is "
                                             "600 MiB a day once the link is back"});
        }
        // Every link draws its numbers, whether or not it carries traffic, so that one
        // link's state does not shift the others' numbers.
        uint64_t noise = link_random_.between(500, 1500);
        uint64_t total = link.day_bytes / TICKS_PER_DAY * busy / 1000 * noise / 1000;
        split(link_random_, total, &volume[2 * i]);
        carries[i] = !(i == 0 && wan1_suspended) && !(link.dual_sim && tick == timeline_.sim_switch_tick);
    }

    // The clients: each one draws whether it is active and its noise, whether or not it is
    // there; an active client that can send on this tick, on a link that carries traffic,
    // takes a share of its link's volume by its weight.
    std::vector<uint64_t> link_weight(n);
    for (size_t k = 0; k < clients_.size(); ++k) {
        const lan_client& c = clients_[k];
        bool active = client_random_.chance(busy / 2);
        uint64_t noise = client_random_.between(200, 1800);
        weights_[k] = active && carries[c.link] && client_can_send(c, tick) ? client_weight(c.size_bytes, noise) : 0;
        link_weight[c.link] += weights_[k];
    }

    struct tm day;
    localtime_r(&t, &day);
    char day_name[16];
    strftime(day_name, sizeof day_name, "%Y-%m-%d", &day);
    std::pair<uint64_t, uint64_t>& fed_today = client_days_[day_name];
    // Each counter of a link's volume is cut at the running sums of its clients' weights,
    // so that the shares add up to the volume exactly.
    std::vector<uint64_t> running(n);
    for (size_t k = 0; k < clients_.size(); ++k) {
        lan_client& c = clients_[k];
        if (tick == c.change_tick) {
            // A new address is a new kernel entry: its counters start again.
            c.counter[0] = 0;
            c.counter[1] = 0;
        }
        if (weights_[k] == 0)
            continue;
        const uint64_t before = running[c.link];
        const uint64_t after = before + weights_[k];
        running[c.link] = after;
        const uint64_t whole = link_weight[c.link];
        const uint64_t* v = &volume[2 * c.link];
        uint64_t part[2];
        for (int j = 0; j < 2; ++j)
            part[j] = v[j] * after / whole - v[j] * before / whole;
        c.counter[0] += part[0];
        c.counter[1] += part[1];
        fed_today.first += part[0];
        fed_today.second += part[1];
    }

    for (size_t i = 0; i < n; ++i) {
        wan_link& link = links_[i];
        link_tick& out = result[i];
        // A link none of whose clients is active carries no clients' traffic: the volume
        // drawn for them is not sent.
        const bool clients = link_weight[i] != 0;
        for (int c = 0; c < 2; ++c) {
            out.own[c] = carries[i] ? ROUTER_OWN_BYTES[c] : 0;
            out.fed[c] = (clients ? volume[2 * i + c] : 0) + out.own[c];
            link.own_total[c] += out.own[c];
        }
        uint64_t next[2];
        for (int c = 0; c < 2; ++c)
            next[c] = link.counter[c] + out.fed[c];
        if (i == 1 && tick == timeline_.reset_tick) {
            next[0] = WAN2_RESET[0] + out.fed[0];
            next[1] = WAN2_RESET[1] + out.fed[1];
            notes_.push_back({t, "reset",
                              "WAN 2 counters " + number(link.counter[0]) + " " + number(link.counter[1]) +
                                  " -> " + number(next[0]) + " " + number(next[1]) + ", counted " +
                                  number(counted_delta(link.counter[0], next[0])) + " " +
                                  number(counted_delta(link.counter[1], next[1]))});
        } else {
            for (int c = 0; c < 2; ++c)
                if (next[c] < link.counter[c])
                    notes_.push_back({t, "wrap",
                                      "WAN " + std::to_string(i + 1) + " counter " + std::to_string(c + 1) +
                                          " " + number(link.counter[c]) + " -> " + number(next[c]) +
                                          ", fed " + number(out.fed[c]) + ", counted " +
                                          number(counted_delta(link.counter[c], next[c]))});
        }
        for (int c = 0; c < 2; ++c) {
            out.counted[c] = counted_delta(link.counter[c], next[c]);
            link.counter[c] = next[c];
        }
    }
    return result;
}

bool scenario::client_listed(const lan_client& c, int tick) const
{
    // The kernel keeps a leaving client's counters one tick longer than the ARP entry.
    return tick >= c.join_tick && (c.leave_tick == 0 || tick <= c.leave_tick + 1);
}

bool scenario::client_in_arp(const lan_client& c, int tick) const
{
    return tick >= c.join_tick && (c.leave_tick == 0 || tick < c.leave_tick);
}

bool scenario::client_can_send(const lan_client& c, int tick) const
{
    // A client sends and receives while it is in the ARP table, except on the tick its
    // kernel entry is new (it joined, or its address changed): the kernel lists a new entry
    // first with 0/0.
    return client_in_arp(c, tick) && !(c.join_tick != 0 && tick == c.join_tick) && tick != c.change_tick;
}

uint32_t scenario::client_address(const lan_client& c, int tick) const
{
    return c.change_tick != 0 && tick >= c.change_tick ? c.new_address_index : c.address_index;
}

bool scenario::write_kernel_files(time_t t, int tick) const
{
    const std::string stamp = std::to_string(static_cast<long long>(t));
    std::string links = "timestamp:" + stamp + "\n";
    for (size_t i = 0; i < links_.size(); ++i) {
        links += "CON:" + std::to_string(i + 1) + "\n";
        links += "OVERALL:" + number(links_[i].counter[0]) + " " + number(links_[i].counter[1]) + "\n";
    }
    bool ok = write_whole(real("/proc/korel/config/link_usage"), links);
    // The dual-SIM link is the only one in the list, so its slot file is cell0_slot.
    ok = write_whole(real("/etc/gpio_map/cell0_slot"), std::to_string(active_sim(tick)) + "\n") && ok;

    // The kernel also counts the router's own LAN and WAN 1 addresses (the latter: the
    // router's own traffic on WAN 1); the daemon skips them.
    std::string usage = "timestamp:" + stamp + "\n";
    usage += std::string(LAN_ADDRESS) + ":" + number(7340032 + 1024 * static_cast<uint64_t>(tick)) + "/" +
             number(1048576 + 512 * static_cast<uint64_t>(tick)) + "\n";
    usage += "100.64.1.2:" + number(links_[0].own_total[0]) + "/" + number(links_[0].own_total[1]) + "\n";
    std::string arp = "IP address       HW type     Flags       HW address            Mask     Device\n";
    char line[160];
    auto arp_line = [&](const std::string& address, unsigned flags, const std::string& mac, const char* device) {
        snprintf(line, sizeof line, "%-16s 0x%-10x0x%-10x%-17s     *        %s\n", address.c_str(), 1u, flags,
                 mac.c_str(), device);
        arp += line;
    };
    std::string deleted;
    for (const lan_client& c : clients_) {
        std::string address = lan_address(client_address(c, tick));
        if (client_listed(c, tick))
            usage += address + ":" + number(c.counter[0]) + "/" + number(c.counter[1]) + "\n";
        if (client_in_arp(c, tick))
            arp_line(address, 0x2, mac_text(c.mac), "br0");
        if (c.wireless && tick == c.leave_tick)
            deleted += address + " " + mac_text(c.mac) + "\n";
    }
    // The WAN side's gateway (not a LAN bridge) and an unanswered request (incomplete): the
    // daemon uses neither.
    arp_line("100.64.1.1", 0x2, "00:1d:aa:10:20:30", "eth1");
    arp_line("192.168.249.250", 0x0, "00:00:00:00:00:00", "br0");
    ok = write_whole(real("/proc/korel/config/client_usage"), usage) && ok;
    ok = write_whole(real("/proc/net/arp"), arp) && ok;
    ok = write_whole(real("/var/run/korel/deleted_arp.wlan"), deleted) && ok;
    return ok;
}
