// The client history files: the CSV lines of save_client_usage in hash-chain order and the
// names of the hourly, daily and monthly files, the retention of a directory of dated
// files (future files, hidden names, names cut at their first dot), the loader with and
// without the baseline flag, the backup and clean-up commands, the start-up that restores
// and loads the current periods' files, and a restart whose restored files keep counting.
#include "sandbox.h"
#include "daemon_commands.h"

#include "client/client_history.h"
#include "client/client_table.h"
#include "client/client_usage.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr const char* HOURLY_DIR = "/var/run/korel/client_usage_hourly";
constexpr const char* DAILY_DIR = "/var/run/korel/client_usage_daily";
constexpr const char* MONTHLY_DIR = "/var/run/korel/client_usage_monthly";
constexpr const char* HOURLY_BACKUP = "/tmp/ruvo_client_hourly";
constexpr const char* DAILY_BACKUP = "/tmp/ruvo_client_daily";
constexpr const char* MONTHLY_BACKUP = "/tmp/ruvo_client_monthly";
constexpr const char* SCRATCH = "/tmp/ruvo_client.tmp";
constexpr const char* TIME_INITIALIZED = "/var/run/korel/time_initialized";
constexpr const char* KERNEL_FILE = "/proc/korel/config/client_usage";

constexpr uint64_t KiB = 1024;

using counters = std::array<uint64_t, CLIENT_TYPES>;

uint32_t address_of(const char* text)
{
    struct in_addr a;
    if (!inet_aton(text, &a))
        ADD_FAILURE() << "bad address " << text;
    return a.s_addr;
}

// Tables allocated the way the daemon allocates them, zeroed, with their period kinds.
client_tables_ptr new_tables()
{
    client_tables_ptr tables(static_cast<client_usage_tables*>(calloc(1, sizeof(client_usage_tables))));
    for (int k = PERIOD_HOURLY; k <= PERIOD_MONTHLY; ++k)
        tables->table[k].kind = k;
    return tables;
}

// A counted client of the given type: present, baseline taken, type counters in bytes.
client_record* put_client(client_table& table, const char* text, int type, uint64_t first, uint64_t second)
{
    client_record* r = add_client(table, address_of(text), text);
    if (!r) {
        ADD_FAILURE() << "no record for " << text;
        return nullptr;
    }
    r->baseline_pending = 0;
    r->type = static_cast<uint32_t>(type);
    r->first[type] = first;
    r->second[type] = second;
    return r;
}

std::string join(const counters& values)
{
    std::string text;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i)
            text += ",";
        text += std::to_string(static_cast<unsigned long long>(values[i]));
    }
    return text;
}

// The whole state of a record as one comparable text.
std::string state(uint32_t present, uint32_t pending, uint32_t type, const std::string& text,
                  const counters& first, const counters& second)
{
    return "present=" + std::to_string(present) + " pending=" + std::to_string(pending) +
           " type=" + std::to_string(type) + " address=" + text + " first=[" + join(first) +
           "] second=[" + join(second) + "]";
}

std::string state_of(const client_record* r)
{
    if (!r)
        return "<no record>";
    counters first, second;
    for (int i = 0; i < CLIENT_TYPES; ++i) {
        first[i] = r->first[i];
        second[i] = r->second[i];
    }
    return state(r->present, r->baseline_pending, r->type, r->address_text, first, second);
}

// The state of the record of an address in a table, found through its chain.
std::string client_state(client_table& table, const char* text)
{
    client_record* r = find_client(table, address_of(text));
    if (r && r->address != address_of(text))
        return "<wrong address>";
    return state_of(r);
}

size_t client_count(const client_table& table)
{
    size_t n = 0;
    for (const client_record* head : table.chains)
        for (const client_record* r = head; r; r = r->next)
            ++n;
    return n;
}

std::string hour_name(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d-%H", &tm);
    return text;
}

std::string day_name(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d", &tm);
    return text;
}

class ClientHistoryBase : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        make_dir("/tmp");
        make_dir("/var/run/korel");
    }

    // Creates a directory at a daemon path with its parents.
    void make_dir(const std::string& absolute)
    {
        std::string path = real(absolute);
        for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
            mkdir(path.substr(0, slash).c_str(), 0755);
        mkdir(path.c_str(), 0755);
    }

    void make_live_dirs()
    {
        make_dir(HOURLY_DIR);
        make_dir(DAILY_DIR);
        make_dir(MONTHLY_DIR);
    }

    void mark_clock_set() { write_file(TIME_INITIALIZED, "1\n"); }

    // The sorted names in a directory, "." and ".." left out; {"<no directory>"} when it
    // cannot be opened.
    std::vector<std::string> names_in(const std::string& absolute)
    {
        DIR* dir = opendir(real(absolute).c_str());
        if (!dir)
            return {"<no directory>"};
        std::vector<std::string> names;
        while (const dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        closedir(dir);
        std::sort(names.begin(), names.end());
        return names;
    }

    // Creates an empty-ish file for each name in a directory.
    void fill_dir(const std::string& dir, const std::vector<std::string>& names)
    {
        for (const std::string& name : names)
            write_file(dir + "/" + name, "10.0.0.1,lan,1,1\n");
    }
};

using ClientHistorySave = ClientHistoryBase;
using ClientHistoryDirLimit = ClientHistoryBase;
using ClientHistoryCommands = ClientHistoryBase;
using ClientHistoryInit = ClientHistoryBase;
using ClientHistoryRestart = ClientHistoryBase;

// ---------------------------------------------------------------------------------------
// save_client_usage

TEST_F(ClientHistorySave, WritesPresentClientsInChainOrderWithOneLinePerTypeInKiB)
{
    make_live_dirs();
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 14, 30, 0);
    // An older content of the current hour's file is replaced whole.
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv", "1.2.3.4,lan,99,99\n");

    client_tables_ptr tables = new_tables();
    client_table& hourly = tables->table[PERIOD_HOURLY];
    hourly.time = local(2024, 3, 10, 14, 25, 0);
    // Chains: 10.0.0.1 and 10.0.32.0 share chain 4099 (10.0.32.0 added later, so at the
    // head), 192.168.1.10 is in chain 1658, 172.16.0.5 in chain 176, 10.9.9.9 in chain 6483.
    client_record* a = put_client(hourly, "10.0.0.1", TYPE_LAN, 5ull << 40, 123456789);
    a->first[TYPE_RAW] = 777777;
    a->second[TYPE_RAW] = 888888;
    client_record* b = put_client(hourly, "192.168.1.10", TYPE_SROUTE, 1048576, 3 * KiB);
    b->first[TYPE_PPTP] = 10 * KiB;
    b->second[TYPE_PPTP] = 20 * KiB;
    put_client(hourly, "10.0.32.0", TYPE_VPN, 7 * KiB, 8 * KiB);
    client_record* c = put_client(hourly, "172.16.0.5", TYPE_LAN, 5 * KiB, 6 * KiB + 1023);
    c->second[TYPE_L2TP] = 2048;
    put_client(hourly, "10.9.9.9", TYPE_LAN, 100, 0);
    client_record* gone = put_client(hourly, "10.1.1.1", TYPE_LAN, 50 * KiB, 60 * KiB);
    gone->present = 0;
    put_client(hourly, "10.1.1.2", TYPE_PPTP, 0, 0);

    client_table& daily = tables->table[PERIOD_DAILY];
    daily.time = local(2024, 3, 9, 23, 59, 59);
    put_client(daily, "192.168.1.10", TYPE_L2TP, 2 * KiB, 3 * KiB);

    client_table& monthly = tables->table[PERIOD_MONTHLY];
    monthly.time = local(2024, 2, 29, 12, 0, 0);
    put_client(monthly, "192.168.1.10", TYPE_PPTP, 4 * KiB, 5 * KiB);

    save_client_usage(tables.get());

    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv"),
              "172.16.0.5,lan,5,6\n"
              "172.16.0.5,l2tp,0,2\n"
              "192.168.1.10,sroute,1024,3\n"
              "192.168.1.10,pptp,10,20\n"
              "10.0.32.0,vpn,7,8\n"
              "10.0.0.1,lan,5368709120,120563\n"
              "10.9.9.9,lan,0,0\n");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "/2024-03-09.csv"), "192.168.1.10,l2tp,2,3\n");
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "/2024-02-01.csv"), "192.168.1.10,pptp,4,5\n");
    EXPECT_EQ(names_in(HOURLY_DIR), std::vector<std::string>{"2024-03-10-14.csv"});
    EXPECT_EQ(names_in(DAILY_DIR), std::vector<std::string>{"2024-03-09.csv"});
    EXPECT_EQ(names_in(MONTHLY_DIR), std::vector<std::string>{"2024-02-01.csv"});
    EXPECT_FALSE(exists(SCRATCH));
    EXPECT_TRUE(plat.commands.empty());
}

TEST_F(ClientHistorySave, FileNamesFollowTheLocalPeriodOfEachTable)
{
    set_tz("Asia/Tokyo");
    make_live_dirs();
    plat.clock = local(2024, 3, 1, 5, 40, 0);
    client_tables_ptr tables = new_tables();
    // 2024-03-01 05:40 in Tokyo is 2024-02-29 20:40 UTC: the names are local.
    for (client_table& table : tables->table) {
        table.time = local(2024, 3, 1, 5, 40, 0);
        put_client(table, "192.168.1.10", TYPE_LAN, KiB, 2 * KiB);
    }

    save_client_usage(tables.get());

    EXPECT_EQ(names_in(HOURLY_DIR), std::vector<std::string>{"2024-03-01-05.csv"});
    EXPECT_EQ(names_in(DAILY_DIR), std::vector<std::string>{"2024-03-01.csv"});
    EXPECT_EQ(names_in(MONTHLY_DIR), std::vector<std::string>{"2024-03-01.csv"});
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "/2024-03-01-05.csv"), "192.168.1.10,lan,1,2\n");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "/2024-03-01.csv"), "192.168.1.10,lan,1,2\n");
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "/2024-03-01.csv"), "192.168.1.10,lan,1,2\n");
}

TEST_F(ClientHistorySave, PeriodWithoutTrafficLeavesNoFileAndKeepsAnOlderFileOfThatName)
{
    make_live_dirs();
    plat.clock = local(2024, 3, 10, 14, 30, 0);
    const std::string older = std::string(HOURLY_DIR) + "/2024-03-10-14.csv";
    write_file(older, "192.168.1.10,lan,7,8\n");

    client_tables_ptr tables = new_tables();
    client_table& hourly = tables->table[PERIOD_HOURLY];
    hourly.time = local(2024, 3, 10, 14, 20, 0);
    // Present but without counters (its raw values are never written), and counters of a
    // client that is not present.
    client_record* quiet = put_client(hourly, "192.168.1.10", TYPE_LAN, 0, 0);
    quiet->first[TYPE_RAW] = 5000;
    quiet->second[TYPE_RAW] = 6000;
    client_record* absent = put_client(hourly, "192.168.1.11", TYPE_LAN, 4 * KiB, 4 * KiB);
    absent->present = 0;
    tables->table[PERIOD_DAILY].time = local(2024, 3, 10, 14, 20, 0);
    tables->table[PERIOD_MONTHLY].time = local(2024, 3, 10, 14, 20, 0);

    save_client_usage(tables.get());

    EXPECT_EQ(read_file(older), "192.168.1.10,lan,7,8\n");
    EXPECT_EQ(names_in(HOURLY_DIR), std::vector<std::string>{"2024-03-10-14.csv"});
    EXPECT_EQ(names_in(DAILY_DIR), std::vector<std::string>{});
    EXPECT_EQ(names_in(MONTHLY_DIR), std::vector<std::string>{});
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(ClientHistorySave, LimitsTheDirectoriesBeforeSaving)
{
    make_live_dirs();
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 14, 30, 0);
    // 25 hours 2024-03-09-13 .. 2024-03-10-13, 33 days 2024-02-06 .. 2024-03-09, 61 months
    // 2019-02-01 .. 2024-02-01.
    std::vector<std::string> hours, days, months;
    for (int h = 0; h < 25; ++h)
        hours.push_back(hour_name(local(2024, 3, 9, 13) + h * 3600) + ".csv");
    for (int d = 0; d < 33; ++d)
        days.push_back(day_name(local(2024, 2, 6 + d)) + ".csv");
    for (int m = 0; m < 61; ++m) {
        char name[32];
        snprintf(name, sizeof name, "%04d-%02d-01.csv", 2019 + (1 + m) / 12, (1 + m) % 12 + 1);
        months.push_back(name);
    }
    ASSERT_EQ(hours.front(), "2024-03-09-13.csv");
    ASSERT_EQ(hours.back(), "2024-03-10-13.csv");
    ASSERT_EQ(days.front(), "2024-02-06.csv");
    ASSERT_EQ(days.back(), "2024-03-09.csv");
    ASSERT_EQ(months.front(), "2019-02-01.csv");
    ASSERT_EQ(months.back(), "2024-02-01.csv");
    fill_dir(HOURLY_DIR, hours);
    fill_dir(DAILY_DIR, days);
    fill_dir(MONTHLY_DIR, months);

    client_tables_ptr tables = new_tables();
    for (client_table& table : tables->table) {
        table.time = local(2024, 3, 10, 14, 20, 0);
        put_client(table, "10.0.0.2", TYPE_LAN, 3 * KiB, 4 * KiB);
    }

    save_client_usage(tables.get());

    // The oldest of each directory goes; then the current period's file is added.
    std::vector<std::string> want_hours(hours.begin() + 1, hours.end());
    want_hours.push_back("2024-03-10-14.csv");
    std::vector<std::string> want_days(days.begin() + 1, days.end());
    want_days.push_back("2024-03-10.csv");
    std::vector<std::string> want_months(months.begin() + 1, months.end());
    want_months.push_back("2024-03-01.csv");
    EXPECT_EQ(names_in(HOURLY_DIR), want_hours);
    EXPECT_EQ(names_in(DAILY_DIR), want_days);
    EXPECT_EQ(names_in(MONTHLY_DIR), want_months);
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv"), "10.0.0.2,lan,3,4\n");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "/2024-03-10.csv"), "10.0.0.2,lan,3,4\n");
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "/2024-03-01.csv"), "10.0.0.2,lan,3,4\n");
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(ClientHistorySave, ThirtyHourlyFilesLoseTheSixOldestByName)
{
    make_live_dirs();
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    std::vector<std::string> hours;
    for (int h = 0; h < 30; ++h)
        hours.push_back(hour_name(local(2024, 3, 9, 0) + h * 3600) + ".csv");
    ASSERT_EQ(hours.back(), "2024-03-10-05.csv");
    // Created newest first, so that directory order and creation order are not name order.
    std::vector<std::string> reversed(hours.rbegin(), hours.rend());
    fill_dir(HOURLY_DIR, reversed);

    client_tables_ptr tables = new_tables();
    save_client_usage(tables.get());

    EXPECT_EQ(names_in(HOURLY_DIR), std::vector<std::string>(hours.begin() + 6, hours.end()));
    EXPECT_EQ(names_in(HOURLY_DIR).front(), "2024-03-09-06.csv");
}

TEST_F(ClientHistorySave, WithoutTheScratchFileNothingIsSavedButTheLimitsStillApply)
{
    make_live_dirs();
    ASSERT_EQ(system(("rm -rf '" + real("/tmp") + "'").c_str()), 0);
    plat.clock = local(2024, 3, 10, 14, 30, 0);
    std::vector<std::string> hours;
    for (int h = 0; h < 25; ++h)
        hours.push_back(hour_name(local(2024, 3, 9, 13) + h * 3600) + ".csv");
    fill_dir(HOURLY_DIR, hours);

    client_tables_ptr tables = new_tables();
    for (client_table& table : tables->table) {
        table.time = local(2024, 3, 10, 14, 20, 0);
        put_client(table, "10.0.0.2", TYPE_LAN, 3 * KiB, 4 * KiB);
    }
    save_client_usage(tables.get());

    EXPECT_EQ(names_in(HOURLY_DIR), std::vector<std::string>(hours.begin() + 1, hours.end()));
    EXPECT_EQ(names_in(DAILY_DIR), std::vector<std::string>{});
    EXPECT_EQ(names_in(MONTHLY_DIR), std::vector<std::string>{});
}

TEST_F(ClientHistorySave, SavedKiBReloadAsWholeKiB)
{
    make_live_dirs();
    plat.clock = local(2024, 3, 10, 14, 30, 0);
    client_tables_ptr tables = new_tables();
    client_table& hourly = tables->table[PERIOD_HOURLY];
    hourly.time = local(2024, 3, 10, 14, 10, 0);
    put_client(hourly, "192.168.1.10", TYPE_LAN, 1535, 3070);

    save_client_usage(tables.get());
    ASSERT_EQ(read_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv"), "192.168.1.10,lan,1,2\n");

    client_tables_ptr reloaded = new_tables();
    struct tm moment = {};
    time_t t = local(2024, 3, 10, 14, 50, 0);
    localtime_r(&t, &moment);
    load_client_period_file(moment, reloaded->table[PERIOD_HOURLY], PERIOD_HOURLY, true);

    EXPECT_EQ(client_state(reloaded->table[PERIOD_HOURLY], "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {1024, 1024, 0, 0, 0, 0}, {2048, 2048, 0, 0, 0, 0}));
}

// ---------------------------------------------------------------------------------------
// client_usage_dir_limit

TEST_F(ClientHistoryDirLimit, KeepsTheNewestNamesAndDeletesTheRest)
{
    const std::string dir = "/var/run/korel/some_history";
    make_dir(dir);
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    std::vector<std::string> hours;
    for (int h = 0; h < 30; ++h)
        hours.push_back(hour_name(local(2024, 3, 9, 0) + h * 3600) + ".csv");
    fill_dir(dir, std::vector<std::string>(hours.rbegin(), hours.rend()));

    client_usage_dir_limit(dir.c_str(), PERIOD_HOURLY, 24);
    EXPECT_EQ(names_in(dir), std::vector<std::string>(hours.begin() + 6, hours.end()));

    client_usage_dir_limit(dir.c_str(), PERIOD_HOURLY, 3);
    EXPECT_EQ(names_in(dir), (std::vector<std::string>{"2024-03-10-03.csv", "2024-03-10-04.csv",
                                                       "2024-03-10-05.csv"}));

    client_usage_dir_limit(dir.c_str(), PERIOD_HOURLY, 0);
    EXPECT_EQ(names_in(dir), std::vector<std::string>{});
}

TEST_F(ClientHistoryDirLimit, FutureFilesGoOnlyOnceTheClockIsMarkedSet)
{
    make_dir(HOURLY_DIR);
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    const std::vector<std::string> all = {"2024-03-10-04.csv", "2024-03-10-05.csv", "2024-03-10-06.csv",
                                          "2024-03-11-00.csv"};
    fill_dir(HOURLY_DIR, all);

    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 24);
    EXPECT_EQ(names_in(HOURLY_DIR), all);

    mark_clock_set();
    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 24);
    EXPECT_EQ(names_in(HOURLY_DIR), (std::vector<std::string>{"2024-03-10-04.csv", "2024-03-10-05.csv"}));
}

TEST_F(ClientHistoryDirLimit, FutureFilesCountAsNewestWhileTheClockIsNotMarkedSet)
{
    make_dir(HOURLY_DIR);
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    fill_dir(HOURLY_DIR, {"2024-03-10-03.csv", "2024-03-10-04.csv", "2024-03-10-05.csv", "2024-03-10-06.csv",
                          "2024-03-11-00.csv"});

    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 3);
    EXPECT_EQ(names_in(HOURLY_DIR),
              (std::vector<std::string>{"2024-03-10-05.csv", "2024-03-10-06.csv", "2024-03-11-00.csv"}));
}

TEST_F(ClientHistoryDirLimit, FutureFilesGoBeforeTheCountIsTaken)
{
    make_dir(HOURLY_DIR);
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    fill_dir(HOURLY_DIR, {"2024-03-10-03.csv", "2024-03-10-04.csv", "2024-03-10-05.csv", "2024-03-10-06.csv",
                          "2024-03-11-00.csv"});

    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 3);
    EXPECT_EQ(names_in(HOURLY_DIR),
              (std::vector<std::string>{"2024-03-10-03.csv", "2024-03-10-04.csv", "2024-03-10-05.csv"}));
}

TEST_F(ClientHistoryDirLimit, NamesStartingWithADotAreIgnored)
{
    make_dir(HOURLY_DIR);
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    fill_dir(HOURLY_DIR, {".csv", ".2024-03-10-09.csv", "2024-03-10-01.csv", "2024-03-10-02.csv",
                          "2024-03-10-03.csv"});

    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 3);
    EXPECT_EQ(names_in(HOURLY_DIR), (std::vector<std::string>{".2024-03-10-09.csv", ".csv", "2024-03-10-01.csv",
                                                              "2024-03-10-02.csv", "2024-03-10-03.csv"}));

    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 2);
    EXPECT_EQ(names_in(HOURLY_DIR), (std::vector<std::string>{".2024-03-10-09.csv", ".csv", "2024-03-10-02.csv",
                                                              "2024-03-10-03.csv"}));
}

TEST_F(ClientHistoryDirLimit, NamesAreCutAtTheirFirstDot)
{
    make_dir(HOURLY_DIR);
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    // "2024-03-10-04.txt" counts as "2024-03-10-04" and "2024-03-10-03.csv.old" as
    // "2024-03-10-03"; deleting a name removes "<name>.csv", so the older ".csv.old" file
    // and the name without any dot stay though they are over the limit.
    fill_dir(HOURLY_DIR, {"2024-03-09-23", "2024-03-10-00.csv.old", "2024-03-10-01.csv", "2024-03-10-02.csv",
                          "2024-03-10-03.csv.old", "2024-03-10-04.txt"});

    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 2);
    EXPECT_EQ(names_in(HOURLY_DIR), (std::vector<std::string>{"2024-03-09-23", "2024-03-10-00.csv.old",
                                                              "2024-03-10-03.csv.old", "2024-03-10-04.txt"}));
}

TEST_F(ClientHistoryDirLimit, CutNameDeletesTheCsvFileOfAFutureName)
{
    make_dir(HOURLY_DIR);
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    fill_dir(HOURLY_DIR, {"2024-03-10-05.csv", "2024-03-10-07.csv.old", "2024-03-10-08.csv"});

    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 24);
    EXPECT_EQ(names_in(HOURLY_DIR), (std::vector<std::string>{"2024-03-10-05.csv", "2024-03-10-07.csv.old"}));
}

TEST_F(ClientHistoryDirLimit, MonthlyKindComparesAgainstTheDayName)
{
    make_dir(MONTHLY_DIR);
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 12, 0, 0);
    fill_dir(MONTHLY_DIR, {"2024-02-01.csv", "2024-03-01.csv", "2024-03-10.csv", "2024-03-11.csv", "2024-04-01.csv"});

    client_usage_dir_limit(MONTHLY_DIR, PERIOD_MONTHLY, 60);
    EXPECT_EQ(names_in(MONTHLY_DIR),
              (std::vector<std::string>{"2024-02-01.csv", "2024-03-01.csv", "2024-03-10.csv"}));
}

TEST_F(ClientHistoryDirLimit, DailyKindComparesAgainstTheDayName)
{
    make_dir(DAILY_DIR);
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 23, 59, 59);
    fill_dir(DAILY_DIR, {"2024-03-09.csv", "2024-03-10.csv", "2024-03-11.csv"});

    client_usage_dir_limit(DAILY_DIR, PERIOD_DAILY, 32);
    EXPECT_EQ(names_in(DAILY_DIR), (std::vector<std::string>{"2024-03-09.csv", "2024-03-10.csv"}));
}

TEST_F(ClientHistoryDirLimit, OtherKindsDeleteNoFutureFileButStillKeepTheNewest)
{
    const std::string dir = "/var/run/korel/mac_hourly";
    make_dir(dir);
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    fill_dir(dir, {"2024-03-10-04.csv", "2024-03-10-05.csv", "2030-01-01-00.csv"});

    client_usage_dir_limit(dir.c_str(), 3, 24);
    EXPECT_EQ(names_in(dir), (std::vector<std::string>{"2024-03-10-04.csv", "2024-03-10-05.csv", "2030-01-01-00.csv"}));

    client_usage_dir_limit(dir.c_str(), -1, 24);
    EXPECT_EQ(names_in(dir), (std::vector<std::string>{"2024-03-10-04.csv", "2024-03-10-05.csv", "2030-01-01-00.csv"}));

    client_usage_dir_limit(dir.c_str(), 3, 2);
    EXPECT_EQ(names_in(dir), (std::vector<std::string>{"2024-03-10-05.csv", "2030-01-01-00.csv"}));
}

TEST_F(ClientHistoryDirLimit, MissingDirectoryIsSkipped)
{
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 5, 30, 0);
    client_usage_dir_limit(HOURLY_DIR, PERIOD_HOURLY, 24);
    EXPECT_EQ(names_in(HOURLY_DIR), std::vector<std::string>{"<no directory>"});
    EXPECT_TRUE(plat.commands.empty());
}

// ---------------------------------------------------------------------------------------
// The period file loader

class ClientHistoryLoader : public ClientHistoryBase {
protected:
    // Loads the file of the period that holds t into a fresh table of the kind.
    void load_at(time_t t, int kind, bool baseline)
    {
        struct tm moment;
        localtime_r(&t, &moment);
        load_client_period_file(moment, tables->table[kind], kind, baseline);
    }

    client_tables_ptr tables = new_tables();
};

TEST_F(ClientHistoryLoader, WithoutBaselineOnlyTheLinesAfterEachAddressesFirstOneCount)
{
    make_live_dirs();
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv",
               "192.168.1.10,lan,100,200\n"
               "192.168.1.10,pptp,300,400\n"
               "192.168.1.20,vpn,5,6\n"
               "192.168.1.10,vpn,7,8\n");
    client_table& hourly = tables->table[PERIOD_HOURLY];
    hourly.time = 1234;

    load_at(local(2024, 3, 10, 14, 40, 0), PERIOD_HOURLY, false);

    EXPECT_EQ(hourly.prev_time, 1234);
    EXPECT_EQ(hourly.time, local(2024, 3, 10, 14, 0, 0));
    EXPECT_EQ(client_count(hourly), 2u);
    EXPECT_EQ(client_state(hourly, "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {0, 0, 0, 300 * KiB, 7 * KiB, 0}, {0, 0, 0, 400 * KiB, 8 * KiB, 0}));
    EXPECT_EQ(client_state(hourly, "192.168.1.20"),
              state(1, 1, 0, "192.168.1.20", {0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0}));
}

TEST_F(ClientHistoryLoader, WithBaselineASecondLineKeepsTheFirstCountersAndBecomesTheRawValues)
{
    make_live_dirs();
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv",
               "192.168.1.10,lan,100,200\n"
               "192.168.1.10,pptp,300,400\n"
               "192.168.1.20,vpn,5,6\n");
    client_table& hourly = tables->table[PERIOD_HOURLY];

    load_at(local(2024, 3, 10, 14, 40, 0), PERIOD_HOURLY, true);

    EXPECT_EQ(hourly.prev_time, 0);
    EXPECT_EQ(hourly.time, local(2024, 3, 10, 14, 0, 0));
    EXPECT_EQ(client_count(hourly), 2u);
    EXPECT_EQ(client_state(hourly, "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {300 * KiB, 100 * KiB, 0, 0, 0, 0}, {400 * KiB, 200 * KiB, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(hourly, "192.168.1.20"),
              state(1, 1, 0, "192.168.1.20", {5 * KiB, 0, 0, 0, 5 * KiB, 0}, {6 * KiB, 0, 0, 0, 6 * KiB, 0}));
}

TEST_F(ClientHistoryLoader, WithBaselineASecondLineOfTheSameTypeZeroesThatType)
{
    make_live_dirs();
    write_file(std::string(DAILY_DIR) + "/2024-03-10.csv",
               "192.168.1.10,lan,100,200\n"
               "192.168.1.10,lan,300,400\n");
    client_table& daily = tables->table[PERIOD_DAILY];

    load_at(local(2024, 3, 10, 14, 40, 0), PERIOD_DAILY, true);

    EXPECT_EQ(daily.time, local(2024, 3, 10, 0, 0, 0));
    EXPECT_EQ(client_state(daily, "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {300 * KiB, 0, 0, 0, 0, 0}, {400 * KiB, 0, 0, 0, 0, 0}));
}

TEST_F(ClientHistoryLoader, TypeNamesMapToTheirSlotsAndUnknownNamesToLan)
{
    make_live_dirs();
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv",
               "10.0.0.1,lan,1,2\n"
               "10.0.0.2,sroute,3,4\n"
               "10.0.0.3,pptp,5,6\n"
               "10.0.0.4,vpn,7,8\n"
               "10.0.0.5,l2tp,9,10\n"
               "10.0.0.6,wifi,11,12\n"
               "10.0.0.7,Total,13,14\n");
    client_table& hourly = tables->table[PERIOD_HOURLY];

    load_at(local(2024, 3, 10, 14, 0, 0), PERIOD_HOURLY, true);

    EXPECT_EQ(client_count(hourly), 7u);
    EXPECT_EQ(client_state(hourly, "10.0.0.1"), state(1, 1, 0, "10.0.0.1", {1 * KiB, 1 * KiB, 0, 0, 0, 0}, {2 * KiB, 2 * KiB, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(hourly, "10.0.0.2"), state(1, 1, 0, "10.0.0.2", {3 * KiB, 0, 3 * KiB, 0, 0, 0}, {4 * KiB, 0, 4 * KiB, 0, 0, 0}));
    EXPECT_EQ(client_state(hourly, "10.0.0.3"), state(1, 1, 0, "10.0.0.3", {5 * KiB, 0, 0, 5 * KiB, 0, 0}, {6 * KiB, 0, 0, 6 * KiB, 0, 0}));
    EXPECT_EQ(client_state(hourly, "10.0.0.4"), state(1, 1, 0, "10.0.0.4", {7 * KiB, 0, 0, 0, 7 * KiB, 0}, {8 * KiB, 0, 0, 0, 8 * KiB, 0}));
    EXPECT_EQ(client_state(hourly, "10.0.0.5"), state(1, 1, 0, "10.0.0.5", {9 * KiB, 0, 0, 0, 0, 9 * KiB}, {10 * KiB, 0, 0, 0, 0, 10 * KiB}));
    EXPECT_EQ(client_state(hourly, "10.0.0.6"), state(1, 1, 0, "10.0.0.6", {11 * KiB, 11 * KiB, 0, 0, 0, 0}, {12 * KiB, 12 * KiB, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(hourly, "10.0.0.7"), state(1, 1, 0, "10.0.0.7", {13 * KiB, 13 * KiB, 0, 0, 0, 0}, {14 * KiB, 14 * KiB, 0, 0, 0, 0}));
}

TEST_F(ClientHistoryLoader, LinesThatDoNotParseOrWhoseAddressDoesNotConvertAreSkipped)
{
    make_live_dirs();
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv",
               "garbage\n"
               "\n"
               "10.0.0.1,lan,abc,2\n"
               "10.0.0.2,lan,1\n"
               "10.0.0.3:1,lan,1,2\n"
               "router,lan,1,2\n"
               "10.0.0.4,lan,3,4\n");
    client_table& hourly = tables->table[PERIOD_HOURLY];

    load_at(local(2024, 3, 10, 14, 0, 0), PERIOD_HOURLY, true);

    EXPECT_EQ(hourly.time, local(2024, 3, 10, 14, 0, 0));
    EXPECT_EQ(client_count(hourly), 1u);
    EXPECT_EQ(client_state(hourly, "10.0.0.4"), state(1, 1, 0, "10.0.0.4", {3 * KiB, 3 * KiB, 0, 0, 0, 0}, {4 * KiB, 4 * KiB, 0, 0, 0, 0}));
}

TEST_F(ClientHistoryLoader, MonthlyFileIsTheOneOfTheMonthsFirstDay)
{
    make_live_dirs();
    write_file(std::string(MONTHLY_DIR) + "/2024-03-01.csv", "10.0.0.1,vpn,1,2\n");
    write_file(std::string(MONTHLY_DIR) + "/2024-03-10.csv", "10.0.0.9,vpn,1,2\n");
    client_table& monthly = tables->table[PERIOD_MONTHLY];

    load_at(local(2024, 3, 10, 14, 40, 0), PERIOD_MONTHLY, true);

    EXPECT_EQ(monthly.time, local(2024, 3, 1, 0, 0, 0));
    EXPECT_EQ(client_count(monthly), 1u);
    EXPECT_EQ(client_state(monthly, "10.0.0.1"), state(1, 1, 0, "10.0.0.1", {KiB, 0, 0, 0, KiB, 0}, {2 * KiB, 0, 0, 0, 2 * KiB, 0}));
}

TEST_F(ClientHistoryLoader, MissingFileChangesNothing)
{
    make_live_dirs();
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-13.csv", "10.0.0.1,lan,1,2\n");
    write_file(std::string(HOURLY_DIR) + "/.2024-03-10-14.csv", "10.0.0.2,lan,1,2\n");
    client_table& hourly = tables->table[PERIOD_HOURLY];
    hourly.time = 1234;
    hourly.prev_time = 99;

    load_at(local(2024, 3, 10, 14, 0, 0), PERIOD_HOURLY, true);

    EXPECT_EQ(hourly.time, 1234);
    EXPECT_EQ(hourly.prev_time, 99);
    EXPECT_EQ(client_count(hourly), 0u);
}

TEST_F(ClientHistoryLoader, NewPeriodLoadsItsFileWithoutBaselineWhileTheClockIsNotMarkedSet)
{
    make_live_dirs();
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv",
               "192.168.1.10,lan,100,200\n"
               "192.168.1.10,pptp,300,400\n");
    client_table& hourly = tables->table[PERIOD_HOURLY];
    hourly.time = local(2024, 3, 10, 13, 20, 0);
    client_record* old = put_client(hourly, "192.168.1.50", TYPE_LAN, 5000, 6000);
    old->first[TYPE_RAW] = 7000;
    old->second[TYPE_RAW] = 8000;

    check_client_period(hourly, local(2024, 3, 10, 14, 0, 0));

    EXPECT_EQ(hourly.time, local(2024, 3, 10, 14, 0, 0));
    EXPECT_EQ(hourly.prev_time, local(2024, 3, 10, 13, 20, 0));
    EXPECT_EQ(client_state(hourly, "192.168.1.50"),
              state(0, 0, 1, "192.168.1.50", {7000, 0, 0, 0, 0, 0}, {8000, 0, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(hourly, "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {0, 0, 0, 300 * KiB, 0, 0}, {0, 0, 0, 400 * KiB, 0, 0}));
}

TEST_F(ClientHistoryLoader, NewPeriodLoadsItsFileWithBaselineOnceTheClockIsMarkedSet)
{
    make_live_dirs();
    mark_clock_set();
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv",
               "192.168.1.10,lan,100,200\n"
               "192.168.1.10,pptp,300,400\n");
    client_table& hourly = tables->table[PERIOD_HOURLY];
    hourly.time = local(2024, 3, 10, 13, 20, 0);

    check_client_period(hourly, local(2024, 3, 10, 14, 0, 0));

    EXPECT_EQ(hourly.time, local(2024, 3, 10, 14, 0, 0));
    EXPECT_EQ(client_state(hourly, "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {300 * KiB, 100 * KiB, 0, 0, 0, 0}, {400 * KiB, 200 * KiB, 0, 0, 0, 0}));
}

// ---------------------------------------------------------------------------------------
// Backups, clean-up and start-up

TEST_F(ClientHistoryCommands, BackupCopiesTheLiveDirectoriesToTheirBackupPlaces)
{
    client_tables_ptr tables = new_tables();
    create_backup_client_usage(tables.get());
    EXPECT_EQ(plat.commands, client_backup_commands());
    EXPECT_EQ(plat.commands, (std::vector<std::string>{
                                 "rm -rf /tmp/ruvo_client_hourly",
                                 "rm -rf /tmp/ruvo_client_daily",
                                 "rm -rf /tmp/ruvo_client_monthly",
                                 "cp -rf /var/run/korel/client_usage_hourly /tmp/ruvo_client_hourly",
                                 "cp -rf /var/run/korel/client_usage_daily /tmp/ruvo_client_daily",
                                 "cp -rf /var/run/korel/client_usage_monthly /tmp/ruvo_client_monthly",
                                 "rm -rf /tmp/ruvo_client_mac_hourly;cp -rf /var/run/korel/client_usage_mac_hourly "
                                 "/tmp/ruvo_client_mac_hourly"}));

    plat.commands.clear();
    create_backup_client_usage(nullptr);
    EXPECT_EQ(plat.commands, client_backup_commands());
}

TEST_F(ClientHistoryCommands, CleanupRemovesTheLiveDirectories)
{
    client_usage_cleanup_history_files();
    EXPECT_EQ(plat.commands, (std::vector<std::string>{"rm -rf /var/run/korel/client_usage_hourly",
                                                       "rm -rf /var/run/korel/client_usage_daily",
                                                       "rm -rf /var/run/korel/client_usage_monthly",
                                                       "rm -rf /var/run/korel/client_usage_mac_hourly"}));
}

TEST_F(ClientHistoryCommands, DirectoriesOfEachKind)
{
    EXPECT_STREQ(client_live_dir(PERIOD_HOURLY), HOURLY_DIR);
    EXPECT_STREQ(client_live_dir(PERIOD_DAILY), DAILY_DIR);
    EXPECT_STREQ(client_live_dir(PERIOD_MONTHLY), MONTHLY_DIR);
    EXPECT_STREQ(client_backup_dir(PERIOD_HOURLY), HOURLY_BACKUP);
    EXPECT_STREQ(client_backup_dir(PERIOD_DAILY), DAILY_BACKUP);
    EXPECT_STREQ(client_backup_dir(PERIOD_MONTHLY), MONTHLY_BACKUP);
}

TEST_F(ClientHistoryInit, CreatesTheDirectoriesAndRestoresThemFromTheBackups)
{
    plat.clock = local(2024, 3, 10, 14, 40, 0);
    mode_t old_mask = umask(022);
    client_usage_cleanup_history_files();
    client_tables_ptr tables(client_usage_init());
    umask(old_mask);
    ASSERT_NE(tables, nullptr);

    EXPECT_EQ(plat.commands, start_up_commands());
    EXPECT_EQ(std::vector<std::string>(plat.commands.begin() + 4, plat.commands.end()),
              (std::vector<std::string>{"cp -r /tmp/ruvo_client_hourly/* /var/run/korel/client_usage_hourly/",
                                        "cp -r /tmp/ruvo_client_daily/* /var/run/korel/client_usage_daily/",
                                        "cp -r /tmp/ruvo_client_monthly/* /var/run/korel/client_usage_monthly/",
                                        "cp -f /tmp/ruvo_client_mac_hourly/* /var/run/korel/client_usage_mac_hourly/"}));
    for (const char* dir : {HOURLY_DIR, DAILY_DIR, MONTHLY_DIR, HOURLY_BACKUP, DAILY_BACKUP, MONTHLY_BACKUP}) {
        struct stat st;
        ASSERT_EQ(stat(real(dir).c_str(), &st), 0) << dir;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
        EXPECT_EQ(st.st_mode & 07777, 0755u) << dir;
    }
    for (int k = PERIOD_HOURLY; k <= PERIOD_MONTHLY; ++k) {
        EXPECT_EQ(tables->table[k].kind, k);
        EXPECT_EQ(tables->table[k].time, 0);
        EXPECT_EQ(tables->table[k].prev_time, 0);
        EXPECT_EQ(client_count(tables->table[k]), 0u);
    }
}

TEST_F(ClientHistoryInit, LoadsTheCurrentPeriodsFilesWithTheBaselineFlag)
{
    // The clock is not marked set: at start the baseline flag is set all the same.
    plat.clock = local(2024, 3, 10, 14, 40, 0);
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-13.csv", "192.168.1.99,lan,1,1\n");
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv",
               "192.168.1.10,lan,10,20\n"
               "192.168.1.11,pptp,30,40\n");
    write_file(std::string(DAILY_DIR) + "/2024-03-09.csv", "192.168.1.99,lan,1,1\n");
    write_file(std::string(DAILY_DIR) + "/2024-03-10.csv", "192.168.1.10,lan,100,200\n");
    write_file(std::string(MONTHLY_DIR) + "/2024-02-01.csv", "192.168.1.99,lan,1,1\n");
    write_file(std::string(MONTHLY_DIR) + "/2024-03-10.csv", "192.168.1.98,lan,1,1\n");
    write_file(std::string(MONTHLY_DIR) + "/2024-03-01.csv",
               "192.168.1.10,lan,1000,2000\n"
               "192.168.1.10,vpn,5,6\n");

    client_tables_ptr tables(client_usage_init());
    ASSERT_NE(tables, nullptr);

    client_table& hourly = tables->table[PERIOD_HOURLY];
    client_table& daily = tables->table[PERIOD_DAILY];
    client_table& monthly = tables->table[PERIOD_MONTHLY];
    EXPECT_EQ(hourly.time, local(2024, 3, 10, 14, 0, 0));
    EXPECT_EQ(daily.time, local(2024, 3, 10, 0, 0, 0));
    EXPECT_EQ(monthly.time, local(2024, 3, 1, 0, 0, 0));
    EXPECT_EQ(client_count(hourly), 2u);
    EXPECT_EQ(client_count(daily), 1u);
    EXPECT_EQ(client_count(monthly), 1u);
    EXPECT_EQ(client_state(hourly, "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {10 * KiB, 10 * KiB, 0, 0, 0, 0}, {20 * KiB, 20 * KiB, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(hourly, "192.168.1.11"),
              state(1, 1, 0, "192.168.1.11", {30 * KiB, 0, 0, 30 * KiB, 0, 0}, {40 * KiB, 0, 0, 40 * KiB, 0, 0}));
    EXPECT_EQ(client_state(daily, "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {100 * KiB, 100 * KiB, 0, 0, 0, 0}, {200 * KiB, 200 * KiB, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(monthly, "192.168.1.10"),
              state(1, 1, 0, "192.168.1.10", {5 * KiB, 1000 * KiB, 0, 0, 0, 0}, {6 * KiB, 2000 * KiB, 0, 0, 0, 0}));
    EXPECT_EQ(plat.commands,
              (std::vector<std::string>{"cp -r /tmp/ruvo_client_hourly/* /var/run/korel/client_usage_hourly/",
                                        "cp -r /tmp/ruvo_client_daily/* /var/run/korel/client_usage_daily/",
                                        "cp -r /tmp/ruvo_client_monthly/* /var/run/korel/client_usage_monthly/",
                                        "cp -f /tmp/ruvo_client_mac_hourly/* /var/run/korel/client_usage_mac_hourly/"}));
}

TEST_F(ClientHistoryInit, CurrentPeriodsAreTakenInLocalTime)
{
    set_tz("Asia/Tokyo");
    // 2024-03-01 05:40 in Tokyo is 2024-02-29 20:40 UTC.
    plat.clock = local(2024, 3, 1, 5, 40, 0);
    write_file(std::string(HOURLY_DIR) + "/2024-02-29-20.csv", "10.0.0.9,lan,1,1\n");
    write_file(std::string(HOURLY_DIR) + "/2024-03-01-05.csv", "10.0.0.1,lan,1,2\n");
    write_file(std::string(DAILY_DIR) + "/2024-02-29.csv", "10.0.0.9,lan,1,1\n");
    write_file(std::string(DAILY_DIR) + "/2024-03-01.csv", "10.0.0.1,lan,3,4\n");
    write_file(std::string(MONTHLY_DIR) + "/2024-02-01.csv", "10.0.0.9,lan,1,1\n");
    write_file(std::string(MONTHLY_DIR) + "/2024-03-01.csv", "10.0.0.1,lan,5,6\n");

    client_tables_ptr tables(client_usage_init());
    ASSERT_NE(tables, nullptr);

    EXPECT_EQ(tables->table[PERIOD_HOURLY].time, local(2024, 3, 1, 5, 0, 0));
    EXPECT_EQ(tables->table[PERIOD_DAILY].time, local(2024, 3, 1, 0, 0, 0));
    EXPECT_EQ(tables->table[PERIOD_MONTHLY].time, local(2024, 3, 1, 0, 0, 0));
    EXPECT_EQ(client_state(tables->table[PERIOD_HOURLY], "10.0.0.1"),
              state(1, 1, 0, "10.0.0.1", {KiB, KiB, 0, 0, 0, 0}, {2 * KiB, 2 * KiB, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(tables->table[PERIOD_DAILY], "10.0.0.1"),
              state(1, 1, 0, "10.0.0.1", {3 * KiB, 3 * KiB, 0, 0, 0, 0}, {4 * KiB, 4 * KiB, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(tables->table[PERIOD_MONTHLY], "10.0.0.1"),
              state(1, 1, 0, "10.0.0.1", {5 * KiB, 5 * KiB, 0, 0, 0, 0}, {6 * KiB, 6 * KiB, 0, 0, 0, 0}));
    for (int k = PERIOD_HOURLY; k <= PERIOD_MONTHLY; ++k)
        EXPECT_EQ(client_count(tables->table[k]), 1u);
}

// ---------------------------------------------------------------------------------------
// A restart through the backups

TEST_F(ClientHistoryRestart, RestoredFilesAreLoadedAndTheNextReadingsCountOnFromThem)
{
    mark_clock_set();
    plat.clock = local(2024, 3, 10, 14, 40, 0);

    client_usage_cleanup_history_files();
    // The restore copies the backups into the live directories; the copies run through the
    // shell, so the files are placed here as the copies leave them.
    write_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv", "192.168.1.10,lan,10,20\n");
    write_file(std::string(DAILY_DIR) + "/2024-03-10.csv", "192.168.1.10,lan,100,200\n");
    write_file(std::string(MONTHLY_DIR) + "/2024-03-01.csv", "192.168.1.10,lan,1000,2000\n");
    client_tables_ptr tables(client_usage_init());
    ASSERT_NE(tables, nullptr);
    EXPECT_EQ(plat.commands, start_up_commands());

    // First reading after the restart: the kernel counters started again from 0.
    plat.clock = local(2024, 3, 10, 14, 41, 0);
    write_file(KERNEL_FILE, "time:" + std::to_string(static_cast<long long>(local(2024, 3, 10, 14, 41, 0))) +
                                "\n192.168.1.10:5000/7000\n192.168.1.20:300/400\n");
    read_client_usage(tables.get());

    EXPECT_EQ(client_state(tables->table[PERIOD_HOURLY], "192.168.1.10"),
              state(1, 0, 1, "192.168.1.10", {5000, 15240, 0, 0, 0, 0}, {7000, 27480, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(tables->table[PERIOD_DAILY], "192.168.1.10"),
              state(1, 0, 1, "192.168.1.10", {5000, 107400, 0, 0, 0, 0}, {7000, 211800, 0, 0, 0, 0}));
    EXPECT_EQ(client_state(tables->table[PERIOD_MONTHLY], "192.168.1.10"),
              state(1, 0, 1, "192.168.1.10", {5000, 1029000, 0, 0, 0, 0}, {7000, 2055000, 0, 0, 0, 0}));

    // Second reading: the differences are added.
    plat.clock = local(2024, 3, 10, 14, 42, 0);
    write_file(KERNEL_FILE, "time:" + std::to_string(static_cast<long long>(local(2024, 3, 10, 14, 42, 0))) +
                                "\n192.168.1.10:6000/9000\n192.168.1.20:2048/3072\n");
    read_client_usage(tables.get());
    for (const client_table& table : tables->table)
        EXPECT_EQ(table.time, local(2024, 3, 10, 14, 42, 0));

    save_client_usage(tables.get());

    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "/2024-03-10-14.csv"),
              "192.168.1.10,lan,15,28\n"
              "192.168.1.20,lan,2,3\n");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "/2024-03-10.csv"),
              "192.168.1.10,lan,105,208\n"
              "192.168.1.20,lan,2,3\n");
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "/2024-03-01.csv"),
              "192.168.1.10,lan,1005,2008\n"
              "192.168.1.20,lan,2,3\n");
    EXPECT_EQ(names_in(HOURLY_DIR), std::vector<std::string>{"2024-03-10-14.csv"});
    EXPECT_EQ(names_in(DAILY_DIR), std::vector<std::string>{"2024-03-10.csv"});
    EXPECT_EQ(names_in(MONTHLY_DIR), std::vector<std::string>{"2024-03-01.csv"});
    EXPECT_FALSE(exists(SCRATCH));

    // The next backup copies what was saved.
    plat.commands.clear();
    create_backup_client_usage(tables.get());
    EXPECT_EQ(plat.commands, client_backup_commands());
}

} // namespace
