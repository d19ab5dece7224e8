// Speed and memory of the per-client accounting: one kernel reading of
// "/proc/korel/config/client_usage" followed by the save of the hourly, daily and monthly
// files, as every tick of the daemon runs them. The usage by MAC address runs inside them:
// the reading takes the ARP snapshot of "/proc/net/arp" and the deleted-ARP list, and
// resolves every hourly change to a MAC; the save sorts the MAC table and writes its
// hourly file.
//
// Each benchmark builds a router tree under a fresh temporary directory (TMPDIR, else
// /tmp) and points the platform seam at it, the way the unit tests' sandbox does: the
// daemon's absolute paths land under that root, the clock is the benchmark's, and syslog
// lines, shell commands and alarms go nowhere. The clock moves 30 seconds per reading, as
// the daemon's alarm does, so long runs cross hours and days like a router would.
//
// Every client has a complete entry on "br0" in "/proc/net/arp", so every client has its
// own MAC entry. "/etc/event_pipe" is a regular file there: the daemon's request to the
// wireless side is written into it, and the answer, "/var/run/korel/deleted_arp.wlan"
// naming one client in 64, is written before every reading, so the daemon finds it at its
// first look and never sleeps waiting for it. The measured work is the daemon's whole MAC
// path: request, ARP snapshot, taking, reading and removing the deleted list, resolution,
// sort and hourly file.
//
// Benchmarks:
//   BM_ReadingAndSave/C             one reading + save with C clients, counters growing
//   BM_ReadingAfterPriorReadings/P  the same with 1,000 clients after P earlier readings
//   BM_OneReadingAndSave/C          exactly one reading + save (for callgrind, see run.sh)
//   BM_OneReadingAfterPriorReadings/P
//                                   exactly one, after P earlier readings (callgrind)
// The single measured reading of the last two runs inside measured_reading_and_save(),
// which switches callgrind's instrumentation and collection on around it, so that
// `valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no` counts the
// instructions of that one reading and nothing else, and runs the set-up (up to thousands
// of earlier readings) uninstrumented. Outside valgrind the switches do nothing. Without
// valgrind's headers, use --toggle-collect='*measured_reading_and_save*' instead (slower:
// the set-up is then instrumented too).
#include "client/client_history.h"
#include "client/client_sources.h"
#include "client/client_usage.h"
#include "client_mac/mac_usage.h"
#include "platform/platform.h"

#include <benchmark/benchmark.h>
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define RUVO_BENCH_CALLGRIND 1
#endif

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ftw.h>
#include <malloc.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

// 2024-03-05 14:00:00 UTC.
constexpr time_t START = 1709647200;
constexpr time_t TICK = 30;

// The daemon's absolute paths under a root, a clock the benchmark sets, nothing captured.
struct bench_platform final : platform {
    std::string root;
    time_t clock = 0;

    std::string path(const char* absolute) const override { return root + absolute; }
    time_t now() override { return clock; }
    void log(const char*, int, int, const char*) override {}
    int run(const char*) override { return 0; } // start-up's "cp -r" restore: no backup here
    void arm_alarm(unsigned) override {}
};

int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// Bytes the allocator hands out right now.
size_t heap_in_use()
{
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Client i: address 10.1.0.0 + i, MAC 02:00 followed by the address's four octets.
uint32_t client_address(int i) { return 0x0a010000u + static_cast<uint32_t>(i); }

std::string dotted(uint32_t a)
{
    char text[16];
    snprintf(text, sizeof text, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255u, (a >> 8) & 255u, a & 255u);
    return text;
}

std::string client_mac(uint32_t a)
{
    char text[18];
    snprintf(text, sizeof text, "02:00:%02x:%02x:%02x:%02x", a >> 24, (a >> 16) & 255u, (a >> 8) & 255u,
             a & 255u);
    return text;
}

// One client in DELETED_EVERY is named in the deleted-ARP list of every reading.
constexpr int DELETED_EVERY = 64;

// A router tree with C clients on the LAN and the client tables of the daemon.
class bench_router {
public:
    explicit bench_router(int clients) : clients_(clients)
    {
        setenv("TZ", "UTC", 1);
        tzset();
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/clientbench-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (!mkdtemp(buffer.data()))
            throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
        plat_.root = buffer.data();
        plat_.clock = START;
        previous_ = platform_install(&plat_);

        for (const char* dir : {"/tmp", "/etc", "/var", "/var/log", "/var/run", "/var/run/korel",
                                "/var/run/korel/wanip", "/proc", "/proc/korel", "/proc/korel/config",
                                "/proc/net", "/usr", "/usr/local", "/usr/local/velto",
                                "/usr/local/velto/conf"})
            mkdir((plat_.root + dir).c_str(), 0755);
        // What a router has: the clock marked as set, its LAN and WAN addresses, two static
        // routes, PPTP and L2TP users and a VPN link, some of them among the clients.
        write("/var/run/korel/time_initialized", "");
        write("/var/run/korel/lan", "LAN_IPADDR=10.0.0.1\n");
        write("/etc/VELTO_wanno", "2\n");
        write("/var/run/korel/wanip/wan1", "203.0.113.7\n");
        write("/var/run/korel/wanip/wan2", "198.51.100.20\n");
        write("/usr/local/velto/conf/config", "WAN1_NAME=Fibre\nWAN2_NAME=LTE\n"
                                              "LAN_STROUTE_ORDER=1,2\n"
                                              "LAN_STROUTE1=10.1.0.0/24:10.0.0.254\n"
                                              "LAN_STROUTE2=10.1.1.0/24:10.0.0.254\n");
        write("/var/log/pptpd_user", "\"alice\" 10.1.0.10 ppp0\n\"bob\" 10.1.0.11 ppp1\n");
        write("/var/log/l2tps_user", "\"carol\" 10.1.0.20 ppp2\n");
        write("/proc/korel/config/vpnlinks", "1 net 10.1.0.128 255.255.255.128\n");
        write_arp_and_deleted_list();

        kernel_.reserve(static_cast<size_t>(clients_) * 48 + 64);
        heap_before_ = heap_in_use();
        tables_ = client_usage_init();
        if (!tables_)
            throw std::runtime_error("client_usage_init failed");
    }

    ~bench_router()
    {
        client_usage_free(tables_);
        free_client_sources();
        platform_install(previous_);
        nftw(plat_.root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }

    bench_router(const bench_router&) = delete;
    bench_router& operator=(const bench_router&) = delete;

    // Writes the kernel file of the next reading and moves the clock to it: client i
    // (10.1.0.0 + i) has grown by a few KiB since the previous reading.
    void next_kernel_file()
    {
        ++reading_;
        plat_.clock = START + reading_ * TICK;
        kernel_.clear();
        char line[96];
        snprintf(line, sizeof line, "timestamp:%" PRId64 "\n", static_cast<int64_t>(plat_.clock));
        kernel_ += line;
        const uint64_t k = static_cast<uint64_t>(reading_);
        for (int i = 0; i < clients_; ++i) {
            const uint32_t a = client_address(i);
            const uint64_t n = static_cast<uint64_t>(i);
            snprintf(line, sizeof line, "%u.%u.%u.%u:%" PRIu64 "/%" PRIu64 "\n", a >> 24, (a >> 16) & 255u,
                     (a >> 8) & 255u, a & 255u, 4096 * (n + 1) + k * (1500 + 37 * (n % 101)),
                     1024 * (n + 1) + k * (600 + 11 * (n % 53)));
            kernel_ += line;
        }
        FILE* f = fopen((plat_.root + "/proc/korel/config/client_usage").c_str(), "w");
        if (!f || fwrite(kernel_.data(), 1, kernel_.size(), f) != kernel_.size() || fclose(f) != 0)
            throw std::runtime_error("cannot write the kernel file");
        // The wireless side's answer to the request of the coming reading, already there.
        write("/var/run/korel/deleted_arp.wlan", deleted_.c_str());
    }

    // What the daemon's tick does for the clients.
    void reading_and_save()
    {
        read_client_usage(tables_);
        save_client_usage(tables_);
    }

    // n readings and saves, each with its own kernel file.
    void run_readings(long n)
    {
        for (long r = 0; r < n; ++r) {
            next_kernel_file();
            reading_and_save();
        }
    }

    client_usage_tables* tables() { return tables_; }

    // Sanity of the MAC path after a reading: the entries of the MAC table and how many of
    // them are keyed by a MAC (all of them when every client resolved); throws when the
    // deleted-ARP answer was not taken.
    void mac_counters(benchmark::State& state) const
    {
        struct stat st;
        if (stat((plat_.root + "/var/run/korel/deleted_arp.wlan").c_str(), &st) == 0)
            throw std::runtime_error("the deleted-ARP list was not taken");
        long by_mac = 0;
        for (const mac_usage_entry* head : mac_usage_table)
            for (const mac_usage_entry* e = head; e; e = e->next)
                by_mac += e->mac != 0;
        state.counters["mac_entries"] = mac_usage_count;
        state.counters["mac_keyed"] = static_cast<double>(by_mac);
    }

    // Heap the tables and their clients hold beyond what was in use before they existed.
    double heap_kib() const { return static_cast<double>(heap_in_use() - heap_before_) / 1024.0; }

private:
    // "/proc/net/arp" with every client complete on br0, "/etc/event_pipe" as a regular
    // file, and the deleted-ARP answer kept for next_kernel_file(). The ARP table is
    // written line by line, so that its text does not add to the process's peak memory.
    void write_arp_and_deleted_list()
    {
        // The ARP table as Linux prints it (net/ipv4/arp.c): every client complete on br0.
        FILE* f = fopen((plat_.root + "/proc/net/arp").c_str(), "w");
        if (!f || fputs("IP address       HW type     Flags       HW address            Mask     Device\n", f) < 0)
            throw std::runtime_error("cannot write /proc/net/arp");
        for (int i = 0; i < clients_; ++i) {
            const uint32_t a = client_address(i);
            if (fprintf(f, "%-16s 0x%-10x0x%-10x%-17s     *        %s\n", dotted(a).c_str(), 1, 2,
                        client_mac(a).c_str(), "br0") < 0)
                throw std::runtime_error("cannot write /proc/net/arp");
            if (i % DELETED_EVERY == 0)
                deleted_ += dotted(a) + " " + client_mac(a) + "\n";
        }
        if (fclose(f) != 0)
            throw std::runtime_error("cannot write /proc/net/arp");
        // A regular file stands for the FIFO: the request is written into it.
        write("/etc/event_pipe", "");
    }

    void write(const char* absolute, const char* content)
    {
        FILE* f = fopen((plat_.root + absolute).c_str(), "w");
        if (!f || fputs(content, f) < 0 || fclose(f) != 0)
            throw std::runtime_error(std::string("cannot write ") + absolute);
    }

    int clients_;
    long reading_ = 0;
    std::string kernel_;
    std::string deleted_;
    size_t heap_before_ = 0;
    bench_platform plat_;
    platform* previous_ = nullptr;
    client_usage_tables* tables_ = nullptr;
};

} // namespace

// The one reading that callgrind counts (--toggle-collect='*measured_reading_and_save*').
extern "C" __attribute__((noinline)) void measured_reading_and_save(client_usage_tables* tables)
{
#ifdef RUVO_BENCH_CALLGRIND
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_TOGGLE_COLLECT;
#endif
    read_client_usage(tables);
    save_client_usage(tables);
#ifdef RUVO_BENCH_CALLGRIND
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_STOP_INSTRUMENTATION;
#endif
    benchmark::ClobberMemory();
}

// One reading + save with C clients, after the two readings that create the clients and
// count them for the first time, so that every measured reading adds growth.
static void BM_ReadingAndSave(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    bench_router router(clients);
    router.run_readings(2);
    for (auto _ : state) {
        state.PauseTiming();
        router.next_kernel_file();
        state.ResumeTiming();
        router.reading_and_save();
    }
    state.SetItemsProcessed(state.iterations() * clients);
    state.counters["clients"] = clients;
    state.counters["heap_KiB"] = router.heap_kib();
    router.mac_counters(state);
    state.counters["ns_per_client"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * clients,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ReadingAndSave)->Arg(1000)->Arg(16384)->Unit(benchmark::kMillisecond);

// One reading + save with 1,000 clients after P earlier readings (30 s apart, so 1,000
// readings are over 8 hours and 10,000 almost 3.5 days). The cost must not depend on P.
static void BM_ReadingAfterPriorReadings(benchmark::State& state)
{
    const long prior = static_cast<long>(state.range(0));
    bench_router router(1000);
    router.run_readings(prior);
    const double heap_after_prior = router.heap_kib();
    for (auto _ : state) {
        state.PauseTiming();
        router.next_kernel_file();
        state.ResumeTiming();
        router.reading_and_save();
    }
    state.counters["prior_readings"] = static_cast<double>(prior);
    state.counters["heap_KiB"] = router.heap_kib();
    state.counters["heap_growth_KiB"] = router.heap_kib() - heap_after_prior;
}
BENCHMARK(BM_ReadingAfterPriorReadings)
    ->Arg(2)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Iterations(200)
    ->Unit(benchmark::kMillisecond);

// Exactly one reading + save with C clients, for an instruction count under callgrind.
static void BM_OneReadingAndSave(benchmark::State& state)
{
    const int clients = static_cast<int>(state.range(0));
    bench_router router(clients);
    router.run_readings(2);
    router.next_kernel_file();
    for (auto _ : state)
        measured_reading_and_save(router.tables());
    state.counters["clients"] = clients;
    state.counters["heap_KiB"] = router.heap_kib();
    router.mac_counters(state);
}
BENCHMARK(BM_OneReadingAndSave)->Arg(1000)->Arg(16384)->Iterations(1)->Unit(benchmark::kMillisecond);

// Exactly one reading + save with 1,000 clients after P earlier readings (callgrind).
static void BM_OneReadingAfterPriorReadings(benchmark::State& state)
{
    const long prior = static_cast<long>(state.range(0));
    bench_router router(1000);
    router.run_readings(prior);
    router.next_kernel_file();
    for (auto _ : state)
        measured_reading_and_save(router.tables());
    state.counters["prior_readings"] = static_cast<double>(prior);
}
BENCHMARK(BM_OneReadingAfterPriorReadings)->Arg(2)->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond);
