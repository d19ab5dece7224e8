#include "sandbox.h"

#include "client/client_history.h"
#include "client/client_sources.h"
#include "client/client_table.h"
#include "client/client_usage.h"

#include <arpa/inet.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* CLIENT_USAGE = "/proc/korel/config/client_usage";
constexpr const char* LAN = "/var/run/korel/lan";
constexpr const char* TIME_INITIALIZED = "/var/run/korel/time_initialized";
constexpr const char* PPTP_USERS = "/var/log/pptpd_user";
constexpr const char* HOURLY_DIR = "/var/run/korel/client_usage_hourly/";
constexpr const char* DAILY_DIR = "/var/run/korel/client_usage_daily/";
constexpr const char* MONTHLY_DIR = "/var/run/korel/client_usage_monthly/";

uint32_t ip(const char* text)
{
    struct in_addr a;
    EXPECT_NE(inet_aton(text, &a), 0) << text;
    return a.s_addr;
}

// A record as one line: its flags, type, raw values and every type slot that is not 0/0
// (first counter / second counter).
std::string state(const client_record* r)
{
    if (!r)
        return "<none>";
    std::string s = "present=" + std::to_string(r->present) + " baseline=" + std::to_string(r->baseline_pending) +
                    " type=" + std::to_string(r->type) + " raw=" + std::to_string(r->first[TYPE_RAW]) + "/" +
                    std::to_string(r->second[TYPE_RAW]);
    for (int type = TYPE_LAN; type < CLIENT_TYPES; ++type)
        if (r->first[type] != 0 || r->second[type] != 0)
            s += std::string(" ") + client_usage_type_name[type] + "=" + std::to_string(r->first[type]) + "/" +
                 std::to_string(r->second[type]);
    return s;
}

class ClientUsage : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        free_client_sources();
        for (const char* dir : {"/tmp", "/var", "/var/run", "/var/run/korel"})
            mkdir(real(dir).c_str(), 0755);
    }
    void TearDown() override
    {
        tables.reset();
        free_client_sources();
        Sandbox::TearDown();
    }

    // Starts the accounting at the given clock time.
    void start(time_t now)
    {
        plat.clock = now;
        tables.reset(client_usage_init());
        ASSERT_NE(tables, nullptr);
    }

    // One reading at clock time t of a kernel file stamped t.
    void reading(time_t t, const std::string& lines)
    {
        write_file(CLIENT_USAGE, "timestamp:" + std::to_string(static_cast<long long>(t)) + "\n" + lines);
        plat.clock = t;
        read_client_usage(tables.get());
    }

    // One reading at clock time t of a kernel file with its own header.
    void raw_reading(time_t t, const std::string& content)
    {
        write_file(CLIENT_USAGE, content);
        plat.clock = t;
        read_client_usage(tables.get());
    }

    client_table& table(int kind) { return tables->table[kind]; }
    client_record* rec(int kind, const char* address) { return find_client(table(kind), ip(address)); }
    std::string at(int kind, const char* address) { return state(rec(kind, address)); }

    int records(int kind)
    {
        int n = 0;
        for (client_record* head : table(kind).chains)
            for (client_record* r = head; r; r = r->next)
                ++n;
        return n;
    }

    // A record put into a table by hand.
    client_record* put(int kind, const char* address)
    {
        client_record* r = add_client(table(kind), ip(address), address);
        EXPECT_NE(r, nullptr);
        return r;
    }

    client_tables_ptr tables;
};

constexpr int HOURLY = PERIOD_HOURLY;
constexpr int DAILY = PERIOD_DAILY;
constexpr int MONTHLY = PERIOD_MONTHLY;

// ---- Start ----

TEST_F(ClientUsage, InitCreatesTheDirectoriesAndRestoresEachFromItsBackup)
{
    const mode_t mask = umask(022);
    umask(mask);
    start(local(2024, 3, 5, 14, 10));
    EXPECT_EQ(plat.commands, (std::vector<std::string>{
                                 "cp -r /tmp/ruvo_client_hourly/* /var/run/korel/client_usage_hourly/",
                                 "cp -r /tmp/ruvo_client_daily/* /var/run/korel/client_usage_daily/",
                                 "cp -r /tmp/ruvo_client_monthly/* /var/run/korel/client_usage_monthly/",
                                 "cp -f /tmp/ruvo_client_mac_hourly/* /var/run/korel/client_usage_mac_hourly/",
                             }));
    for (const char* dir : {"/tmp/ruvo_client_hourly", "/tmp/ruvo_client_daily", "/tmp/ruvo_client_monthly",
                            "/var/run/korel/client_usage_hourly", "/var/run/korel/client_usage_daily",
                            "/var/run/korel/client_usage_monthly"}) {
        struct stat st;
        ASSERT_EQ(stat(real(dir).c_str(), &st), 0) << dir;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
        EXPECT_EQ(st.st_mode & 0777, 0755u & ~mask) << dir;
    }
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(table(kind).kind, kind);
        EXPECT_EQ(table(kind).time, 0);
        EXPECT_EQ(table(kind).prev_time, 0);
        EXPECT_EQ(records(kind), 0);
    }
}

TEST_F(ClientUsage, InitLoadsTheCurrentHourDayAndMonthAsBaselines)
{
    write_file(std::string(HOURLY_DIR) + "2024-03-05-13.csv", "192.168.1.12,lan,9,9\n");
    write_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv", "192.168.1.10,lan,10,20\n192.168.1.11,sroute,1,2\n");
    write_file(std::string(DAILY_DIR) + "2024-03-05.csv", "192.168.1.10,lan,100,200\n");
    write_file(std::string(MONTHLY_DIR) + "2024-03-01.csv", "192.168.1.10,lan,1000,2000\n");
    start(local(2024, 3, 5, 14, 10));

    EXPECT_EQ(table(HOURLY).time, local(2024, 3, 5, 14));
    EXPECT_EQ(table(HOURLY).prev_time, 0);
    EXPECT_EQ(records(HOURLY), 2);
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=1 type=0 raw=10240/20480 lan=10240/20480");
    EXPECT_EQ(at(HOURLY, "192.168.1.11"), "present=1 baseline=1 type=0 raw=1024/2048 sroute=1024/2048");

    EXPECT_EQ(table(DAILY).time, local(2024, 3, 5));
    EXPECT_EQ(records(DAILY), 1);
    EXPECT_EQ(at(DAILY, "192.168.1.10"), "present=1 baseline=1 type=0 raw=102400/204800 lan=102400/204800");

    EXPECT_EQ(table(MONTHLY).time, local(2024, 3, 1));
    EXPECT_EQ(records(MONTHLY), 1);
    EXPECT_EQ(at(MONTHLY, "192.168.1.10"), "present=1 baseline=1 type=0 raw=1024000/2048000 lan=1024000/2048000");
}

TEST_F(ClientUsage, FirstReadingAfterStartAddsTheKernelCountersToTheLoadedValues)
{
    write_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv", "192.168.1.10,lan,10,20\n192.168.1.11,sroute,1,2\n");
    start(local(2024, 3, 5, 14, 10));
    reading(local(2024, 3, 5, 14, 20), "192.168.1.10:51200/61440\n192.168.1.11:1024/2048\n");

    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=51200/61440 lan=61440/81920");
    // Same values as the loaded raw ones: nothing changes; the file's type column does not
    // make the client a static-route client.
    EXPECT_EQ(at(HOURLY, "192.168.1.11"), "present=1 baseline=1 type=1 raw=1024/2048 sroute=1024/2048");
    EXPECT_EQ(at(DAILY, "192.168.1.10"), "present=1 baseline=1 type=0 raw=0/0");

    save_client_usage(tables.get());
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv"),
              "192.168.1.10,lan,60,80\n192.168.1.11,sroute,1,2\n");
}

// ---- Counting ----

TEST_F(ClientUsage, NewClientIsCountedFromItsSecondReadingWithItsWholeCounters)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.20:1000/2000\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind)
        EXPECT_EQ(at(kind, "192.168.1.20"), "present=1 baseline=1 type=0 raw=0/0") << kind;
    save_client_usage(tables.get());
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv"), "<missing>");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-03-05.csv"), "<missing>");
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "2024-03-01.csv"), "<missing>");

    reading(t + 30, "192.168.1.20:1500/2600\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind)
        EXPECT_EQ(at(kind, "192.168.1.20"), "present=1 baseline=0 type=1 raw=1500/2600 lan=1500/2600") << kind;

    reading(t + 60, "192.168.1.20:1700/2700\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind)
        EXPECT_EQ(at(kind, "192.168.1.20"), "present=1 baseline=0 type=1 raw=1700/2700 lan=1700/2700") << kind;
}

TEST_F(ClientUsage, KnownClientAddsTheDifferencesToTheCountersOfItsType)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.10:100/100\n");
    reading(t + 30, "192.168.1.10:500/700\n");
    ASSERT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=500/700 lan=500/700");

    write_file(PPTP_USERS, "\"alice\" 192.168.1.10 ppp0\n");
    reading(t + 60, "192.168.1.10:1000/2000\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind)
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=1 baseline=0 type=3 raw=1000/2000 lan=500/700 pptp=500/1300")
            << kind;

    save_client_usage(tables.get());
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv"),
              "192.168.1.10,lan,0,0\n192.168.1.10,pptp,0,1\n");
}

TEST_F(ClientUsage, DroppedCounterCountsNothingAndBecomesTheNewRawValue)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.10:10240/20480\n");
    reading(t + 30, "192.168.1.10:30720/51200\n");

    reading(t + 60, "192.168.1.10:10240/61440\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=10240/61440 lan=30720/51200");

    reading(t + 90, "192.168.1.10:12288/62464\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=12288/62464 lan=32768/52224");

    reading(t + 120, "192.168.1.10:13312/1024\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind)
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=1 baseline=0 type=1 raw=13312/1024 lan=32768/52224") << kind;
}

TEST_F(ClientUsage, RawValuesOfZeroCountNothingAtTheNextReading)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.10:10240/20480\n");
    reading(t + 30, "192.168.1.10:30720/51200\n");
    reading(t + 60, "192.168.1.10:0/0\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=0/0 lan=30720/51200");
    reading(t + 90, "192.168.1.10:4096/5120\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=4096/5120 lan=30720/51200");
    reading(t + 120, "192.168.1.10:6144/9216\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=6144/9216 lan=32768/55296");
}

TEST_F(ClientUsage, ClientMissingFromAReadingKeepsItsCounters)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.10:1024/1024\n192.168.1.11:1024/1024\n");
    reading(t + 30, "192.168.1.10:3072/4096\n192.168.1.11:2048/2048\n");
    reading(t + 60, "192.168.1.11:4096/4096\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=3072/4096 lan=3072/4096");
    EXPECT_EQ(at(HOURLY, "192.168.1.11"), "present=1 baseline=0 type=1 raw=4096/4096 lan=4096/4096");
}

TEST_F(ClientUsage, SavedLinesFollowTheChainsNotTheAddresses)
{
    // Chains: 192.168.26.143 -> 0; 192.168.26.153 and 192.168.58.152 -> 10 (the later one at
    // the head); 192.168.1.10 -> 1658.
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.10:1/1\n192.168.26.153:1/1\n192.168.58.152:1/1\n192.168.26.143:1/1\n");
    reading(t + 30, "192.168.1.10:1024/2048\n192.168.26.153:3072/4096\n192.168.58.152:5120/6144\n"
                    "192.168.26.143:7168/8192\n");
    save_client_usage(tables.get());
    const std::string expected = "192.168.26.143,lan,7,8\n"
                                 "192.168.58.152,lan,5,6\n"
                                 "192.168.26.153,lan,3,4\n"
                                 "192.168.1.10,lan,1,2\n";
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv"), expected);
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-03-05.csv"), expected);
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "2024-03-01.csv"), expected);
}

// ---- Addresses that are never clients ----

TEST_F(ClientUsage, AddressesIn5_192And5_208SlashTwelveAreNeverRecorded)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    const std::string lines = "5.200.1.1:1024/2048\n"
                              "5.192.0.0:1024/2048\n"
                              "5.207.255.255:1024/2048\n"
                              "5.208.0.1:1024/2048\n"
                              "5.223.255.255:1024/2048\n"
                              "5.191.255.255:1024/2048\n"
                              "5.224.0.1:1024/2048\n"
                              "192.168.1.10:1024/2048\n";
    reading(t, lines);
    reading(t + 30, lines);
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(records(kind), 3) << kind;
        EXPECT_EQ(at(kind, "5.200.1.1"), "<none>");
        EXPECT_EQ(at(kind, "5.192.0.0"), "<none>");
        EXPECT_EQ(at(kind, "5.207.255.255"), "<none>");
        EXPECT_EQ(at(kind, "5.208.0.1"), "<none>");
        EXPECT_EQ(at(kind, "5.223.255.255"), "<none>");
        EXPECT_EQ(at(kind, "5.191.255.255"), "present=1 baseline=0 type=1 raw=1024/2048 lan=1024/2048");
        EXPECT_EQ(at(kind, "5.224.0.1"), "present=1 baseline=0 type=1 raw=1024/2048 lan=1024/2048");
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=1 baseline=0 type=1 raw=1024/2048 lan=1024/2048");
    }
}

TEST_F(ClientUsage, RouterLanAddressIsNeverRecorded)
{
    write_file(LAN, "LAN_IPADDR=192.168.1.1\n");
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.1:1024/2048\n192.168.1.10:1024/2048\n");
    reading(t + 30, "192.168.1.1:4096/8192\n192.168.1.10:1024/2048\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(records(kind), 1) << kind;
        EXPECT_EQ(at(kind, "192.168.1.1"), "<none>");
    }
}

TEST_F(ClientUsage, WithoutTheLanFileTheRouterAddressIsAClient)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.1:1024/2048\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.1"), "present=1 baseline=1 type=0 raw=0/0");
}

TEST_F(ClientUsage, WanAddressesAreNeverRecorded)
{
    write_file("/etc/VELTO_wanno", "2\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    write_file("/var/run/korel/wanip/wan2", "gateway 100.64.0.9\n");
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "10.0.0.2:1024/2048\n100.64.0.9:1024/2048\n192.168.1.10:1024/2048\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(records(kind), 1) << kind;
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=1 baseline=1 type=0 raw=0/0");
    }

    // Once the timestamp file has another time the set stays as it was built.
    write_file("/var/run/korel/wanip/timestamp", "");
    set_mtime("/var/run/korel/wanip/timestamp", 5000);
    write_file("/var/run/korel/wanip/wan1", "10.0.0.3\n");
    reading(t + 30, "10.0.0.2:1024/2048\n10.0.0.3:1024/2048\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(records(kind), 2) << kind;
        EXPECT_EQ(at(kind, "10.0.0.2"), "<none>");
        EXPECT_EQ(at(kind, "10.0.0.3"), "present=1 baseline=1 type=0 raw=0/0");
    }
}

// ---- Kernel lines ----

TEST_F(ClientUsage, SecondValueFollowsASlashOrAnyOtherCharacter)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.65:1/1\n192.168.1.66:1/1\n192.168.1.67:1/1\n192.168.1.68:1/1\n"
               "192.168.1.69:1/1\n192.168.1.71:1/1\n");
    reading(t + 30, "192.168.1.65:3072 4096\n"
                    "192.168.1.66:5120\n"
                    "192.168.1.67:7168/\n"
                    "192.168.1.68:abc/def\n"
                    "192.168.1.69:12abc\n"
                    "192.168.1.71:2048/4096\r\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.65"), "present=1 baseline=0 type=1 raw=3072/4096 lan=3072/4096");
    EXPECT_EQ(at(HOURLY, "192.168.1.66"), "present=1 baseline=0 type=1 raw=5120/0 lan=5120/0");
    EXPECT_EQ(at(HOURLY, "192.168.1.67"), "present=1 baseline=0 type=1 raw=7168/0 lan=7168/0");
    // Text gives 0 and 0: the same as the raw values of a new client, so nothing changes.
    EXPECT_EQ(at(HOURLY, "192.168.1.68"), "present=1 baseline=1 type=1 raw=0/0");
    EXPECT_EQ(at(HOURLY, "192.168.1.69"), "present=1 baseline=0 type=1 raw=12/0 lan=12/0");
    EXPECT_EQ(at(HOURLY, "192.168.1.71"), "present=1 baseline=0 type=1 raw=2048/4096 lan=2048/4096");
}

TEST_F(ClientUsage, LineWithoutColonIsAClientWithZeroValues)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.70\n");
    client_record* r = rec(HOURLY, "192.168.1.70");
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->address_text, "192.168.1.70");
    EXPECT_EQ(state(r), "present=1 baseline=1 type=0 raw=0/0");
    reading(t + 30, "192.168.1.70\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.70"), "present=1 baseline=1 type=1 raw=0/0");
    reading(t + 60, "192.168.1.70:1024/2048\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.70"), "present=1 baseline=0 type=1 raw=1024/2048 lan=1024/2048");
}

TEST_F(ClientUsage, LineWithANegativeValueIsSkipped)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.62:-5/10\n192.168.1.63:5/-10\n192.168.1.64:5 -10\n192.168.1.10:1/1\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind)
        EXPECT_EQ(records(kind), 1) << kind;
    reading(t + 30, "192.168.1.10:-1024/2048\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=1 type=1 raw=0/0");
    reading(t + 60, "192.168.1.10:1024/2048\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=1024/2048 lan=1024/2048");
}

TEST_F(ClientUsage, AddressThatDoesNotConvertIsSkipped)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.256:5/6\n"
               "router:5/6\n"
               ":5/6\n"
               "\n"
               "\r\n"
               "192.168.1.10:1/2\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(records(kind), 1) << kind;
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=1 baseline=1 type=0 raw=0/0");
    }
}

TEST_F(ClientUsage, AddressTextOf16CharactersOrMoreIsSkipped)
{
    // Both texts convert to 192.168.1.8 (octal parts); only the 15-character one is taken.
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.001.0010:5/6\n192.168.001.010:5/6\n");
    EXPECT_EQ(records(HOURLY), 1);
    client_record* r = rec(HOURLY, "192.168.1.8");
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->address_text, "192.168.001.010");
}

TEST_F(ClientUsage, LineOver255BytesIsReadInPieces)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    // The first 255 bytes end inside the padding; the rest is read as a line of its own.
    const std::string long_line = "192.168.1.40:1000/2000" + std::string(233, 'x') + "192.168.1.41:7/8\n";
    reading(t, long_line);
    EXPECT_EQ(records(HOURLY), 2);
    EXPECT_EQ(at(HOURLY, "192.168.1.40"), "present=1 baseline=1 type=0 raw=0/0");
    EXPECT_EQ(at(HOURLY, "192.168.1.41"), "present=1 baseline=1 type=0 raw=0/0");
    reading(t + 30, long_line);
    EXPECT_EQ(at(HOURLY, "192.168.1.40"), "present=1 baseline=0 type=1 raw=1000/2000 lan=1000/2000");
    EXPECT_EQ(at(HOURLY, "192.168.1.41"), "present=1 baseline=0 type=1 raw=7/8 lan=7/8");
}

TEST_F(ClientUsage, OverlongPaddingIsNoClient)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    reading(t, "192.168.1.40:1024/2048" + std::string(400, ' ') + "\n192.168.1.41:1/1\n");
    EXPECT_EQ(records(HOURLY), 2);
    EXPECT_NE(rec(HOURLY, "192.168.1.40"), nullptr);
    EXPECT_NE(rec(HOURLY, "192.168.1.41"), nullptr);
}

// ---- The header ----

TEST_F(ClientUsage, FirstLineIsAlwaysTheHeader)
{
    start(local(2024, 3, 5, 14, 10));
    raw_reading(local(2024, 3, 5, 14, 20), "192.168.1.10:1709648400/2000\n192.168.1.11:5/6\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "<none>");
    EXPECT_EQ(at(HOURLY, "192.168.1.11"), "present=1 baseline=1 type=0 raw=0/0");
    EXPECT_EQ(table(HOURLY).time, 1709648400);
    EXPECT_EQ(table(DAILY).time, 1709648400);
    EXPECT_EQ(table(MONTHLY).time, 1709648400);
}

TEST_F(ClientUsage, HeaderNumberMayFollowBlanksAndTextMayFollowIt)
{
    start(local(2024, 3, 5, 14, 10));
    raw_reading(local(2024, 3, 5, 14, 20), "timestamp: 1709648400 seconds\n192.168.1.10:5/6\n");
    EXPECT_EQ(table(HOURLY).time, 1709648400);
    raw_reading(local(2024, 3, 5, 14, 21), "a:b:1709648460\n192.168.1.10:5/6\n");
    EXPECT_EQ(table(HOURLY).time, 0);
}

TEST_F(ClientUsage, HeaderWithoutANumberAfterItsFirstColonGivesTimeZero)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    start(t);
    const std::vector<std::string> headers = {"timestamp\n", "timestamp:\n", "timestamp:abc\n", ":1709647900\n",
                                              "1709647900\n", "\n"};
    time_t clock = t;
    for (const std::string& header : headers) {
        reading(clock, "192.168.1.10:1/1\n");
        ASSERT_EQ(table(HOURLY).time, clock) << header;
        clock += 30;
        raw_reading(clock, header + "192.168.1.10:1/1\n");
        EXPECT_EQ(table(HOURLY).time, 0) << header;
        EXPECT_EQ(table(HOURLY).prev_time, clock - 30) << header;
        EXPECT_EQ(table(DAILY).time, 0) << header;
        EXPECT_EQ(table(DAILY).prev_time, 0) << header;
        EXPECT_EQ(table(MONTHLY).time, 0) << header;
        EXPECT_EQ(table(MONTHLY).prev_time, 0) << header;
        clock += 30;
    }
}

TEST_F(ClientUsage, ReadingTimesAfter2038AndAfter2106AreKeptWhole)
{
    // One second past a signed 32-bit time, then past an unsigned 32-bit number: the
    // header's time reads whole on every build.
    const time_t t0 = static_cast<time_t>(2147483648LL);
    start(t0);
    reading(t0, "192.168.1.10:1/1\n");
    EXPECT_EQ(table(HOURLY).time, t0);
    const time_t t1 = static_cast<time_t>(4294967296LL);
    reading(t1, "192.168.1.10:2/2\n");
    EXPECT_EQ(table(HOURLY).time, t1);
    EXPECT_EQ(table(HOURLY).prev_time, t0);
}

TEST_F(ClientUsage, HeaderWithoutNumberStampsTimeZeroAndTheNextReadingZeroesTheCounters)
{
    const time_t t0 = local(2024, 3, 5, 14, 10);
    start(t0);
    reading(t0, "192.168.1.10:10240/20480\n");
    reading(t0 + 600, "192.168.1.10:20480/30720\n");
    raw_reading(t0 + 1200, "timestamp\n192.168.1.10:30720/40960\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=1 baseline=0 type=1 raw=30720/40960 lan=30720/40960") << kind;
        EXPECT_EQ(table(kind).time, 0) << kind;
    }
    EXPECT_EQ(table(HOURLY).prev_time, t0 + 600);
    EXPECT_EQ(table(DAILY).prev_time, 0);
    EXPECT_EQ(table(MONTHLY).prev_time, 0);

    reading(t0 + 1800, "192.168.1.10:40960/51200\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=1 baseline=0 type=1 raw=40960/51200 lan=10240/10240") << kind;
        EXPECT_EQ(table(kind).time, t0 + 1800) << kind;
    }
}

TEST_F(ClientUsage, ReadingWithoutCountedLinesLeavesTheTableTimes)
{
    write_file(LAN, "LAN_IPADDR=192.168.1.1\n");
    const time_t t0 = local(2024, 3, 5, 14, 10);
    start(t0);
    reading(t0, "192.168.1.10:1/1\n");
    reading(t0 + 30, "");
    raw_reading(t0 + 60, "timestamp\n192.168.1.1:5/6\n5.200.1.1:5/6\nbad:5/6\n");
    EXPECT_EQ(table(HOURLY).time, t0);
    EXPECT_EQ(table(HOURLY).prev_time, 0);
    EXPECT_EQ(table(DAILY).time, t0);
    EXPECT_EQ(table(DAILY).prev_time, t0);
    EXPECT_EQ(table(MONTHLY).time, t0);
    EXPECT_EQ(table(MONTHLY).prev_time, t0);
}

TEST_F(ClientUsage, MissingKernelFileLeavesOnlyThePeriodChecksAndClassification)
{
    const time_t t0 = local(2024, 3, 5, 14, 10);
    start(t0);
    reading(t0, "192.168.1.10:1024/1024\n");
    reading(t0 + 30, "192.168.1.10:3072/4096\n");
    ASSERT_EQ(unlink(real(CLIENT_USAGE).c_str()), 0);
    write_file(PPTP_USERS, "\"alice\" 192.168.1.10 ppp0\n");
    plat.clock = local(2024, 3, 5, 15, 5);
    read_client_usage(tables.get());
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=0 baseline=0 type=3 raw=3072/4096");
    EXPECT_EQ(at(DAILY, "192.168.1.10"), "present=1 baseline=0 type=3 raw=3072/4096 lan=3072/4096");
    EXPECT_EQ(table(HOURLY).time, t0 + 30);
    EXPECT_EQ(table(DAILY).time, t0 + 30);
}

// ---- Table times ----

using ClientTableTimes = ClientUsage;

TEST_F(ClientTableTimes, DailyAndMonthlyPreviousTimeBecomesTheNewTime)
{
    const time_t t0 = local(2024, 3, 5, 14, 10);
    const time_t t1 = local(2024, 3, 5, 14, 10, 30);
    start(t0);
    reading(t0, "192.168.1.10:1/1\n");
    EXPECT_EQ(table(HOURLY).prev_time, 0);
    EXPECT_EQ(table(HOURLY).time, t0);
    EXPECT_EQ(table(DAILY).prev_time, t0);
    EXPECT_EQ(table(DAILY).time, t0);
    EXPECT_EQ(table(MONTHLY).prev_time, t0);
    EXPECT_EQ(table(MONTHLY).time, t0);

    reading(t1, "192.168.1.10:2/2\n");
    EXPECT_EQ(table(HOURLY).prev_time, t0);
    EXPECT_EQ(table(HOURLY).time, t1);
    EXPECT_EQ(table(DAILY).prev_time, t1);
    EXPECT_EQ(table(DAILY).time, t1);
    EXPECT_EQ(table(MONTHLY).prev_time, t1);
    EXPECT_EQ(table(MONTHLY).time, t1);
}

TEST_F(ClientTableTimes, TwoClientLinesMakeTheHourlyPreviousTimeTheNewTimeToo)
{
    const time_t t0 = local(2024, 3, 5, 14, 10);
    const time_t t1 = local(2024, 3, 5, 14, 10, 30);
    start(t0);
    reading(t0, "192.168.1.10:1/1\n");
    reading(t1, "192.168.1.10:2/2\n192.168.1.11:2/2\n");
    EXPECT_EQ(table(HOURLY).prev_time, t1);
    EXPECT_EQ(table(HOURLY).time, t1);
    EXPECT_EQ(table(DAILY).prev_time, t1);
    EXPECT_EQ(table(MONTHLY).prev_time, t1);
}

TEST_F(ClientTableTimes, UnchangedClientLineStillStampsTheTables)
{
    const time_t t0 = local(2024, 3, 5, 14, 10);
    start(t0);
    reading(t0, "192.168.1.10:1/1\n");
    reading(t0 + 30, "192.168.1.10:1/1\n");
    EXPECT_EQ(table(HOURLY).prev_time, t0);
    EXPECT_EQ(table(HOURLY).time, t0 + 30);
    EXPECT_EQ(table(DAILY).prev_time, t0 + 30);
}

TEST_F(ClientTableTimes, LoadedPeriodStartBecomesTheHourlyPreviousTime)
{
    write_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv", "192.168.1.10,lan,10,20\n");
    start(local(2024, 3, 5, 14, 10));
    reading(local(2024, 3, 5, 14, 20), "192.168.1.10:1/1\n");
    EXPECT_EQ(table(HOURLY).prev_time, local(2024, 3, 5, 14));
    EXPECT_EQ(table(HOURLY).time, local(2024, 3, 5, 14, 20));
}

// ---- Period changes ----

using ClientPeriod = ClientUsage;

TEST_F(ClientPeriod, NewPeriodZeroesTypes1To5AndClearsPresentKeepingRawBaselineAndType)
{
    start(local(2024, 3, 5, 14, 10));
    table(HOURLY).time = local(2024, 3, 5, 14, 20);
    client_record* a = put(HOURLY, "192.168.1.10");
    client_record* b = put(HOURLY, "192.168.1.11");
    for (int type = 0; type < CLIENT_TYPES; ++type) {
        a->first[type] = 1 + type;
        a->second[type] = 11 + type;
        b->first[type] = 21 + type;
        b->second[type] = 31 + type;
    }
    a->type = TYPE_PPTP;
    b->type = TYPE_VPN;
    b->baseline_pending = 0;

    check_client_period(table(HOURLY), local(2024, 3, 5, 15));
    EXPECT_EQ(state(a), "present=0 baseline=1 type=3 raw=1/11");
    EXPECT_EQ(state(b), "present=0 baseline=0 type=4 raw=21/31");
    EXPECT_EQ(table(HOURLY).time, local(2024, 3, 5, 14, 20));
    EXPECT_EQ(table(HOURLY).prev_time, 0);
}

TEST_F(ClientPeriod, SamePeriodChangesNothing)
{
    write_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv", "192.168.1.20,lan,1,1\n");
    write_file(std::string(MONTHLY_DIR) + "2024-03-01.csv", "192.168.1.20,lan,1,1\n");
    start(local(2024, 2, 29, 23, 59));
    table(HOURLY).time = local(2024, 3, 5, 14, 59, 59);
    table(MONTHLY).time = local(2024, 3, 31, 23, 59, 59);
    client_record* a = put(HOURLY, "192.168.1.10");
    a->first[TYPE_LAN] = 5;
    client_record* m = put(MONTHLY, "192.168.1.10");
    m->second[TYPE_LAN] = 7;

    check_client_period(table(HOURLY), local(2024, 3, 5, 14));
    check_client_period(table(MONTHLY), local(2024, 3, 1));
    EXPECT_EQ(state(a), "present=1 baseline=1 type=0 raw=0/0 lan=5/0");
    EXPECT_EQ(state(m), "present=1 baseline=1 type=0 raw=0/0 lan=0/7");
    EXPECT_EQ(at(HOURLY, "192.168.1.20"), "<none>");
    EXPECT_EQ(at(MONTHLY, "192.168.1.20"), "<none>");
    EXPECT_EQ(table(HOURLY).time, local(2024, 3, 5, 14, 59, 59));
    EXPECT_EQ(table(MONTHLY).time, local(2024, 3, 31, 23, 59, 59));
}

TEST_F(ClientPeriod, UnknownPeriodKindChangesNothing)
{
    start(local(2024, 3, 5, 14, 10));
    table(HOURLY).kind = 3;
    table(HOURLY).time = local(2024, 3, 5, 14, 20);
    client_record* a = put(HOURLY, "192.168.1.10");
    a->first[TYPE_LAN] = 5;
    check_client_period(table(HOURLY), local(2024, 3, 5, 15));
    EXPECT_EQ(state(a), "present=1 baseline=1 type=0 raw=0/0 lan=5/0");
    table(HOURLY).kind = HOURLY;
}

TEST_F(ClientPeriod, ClientsComeAndGoAcrossHourDayAndMonth)
{
    start(local(2024, 3, 5, 14, 10));
    const std::string a = "192.168.1.10";
    const std::string b = "192.168.1.11";
    const std::string c = "192.168.1.12";

    reading(local(2024, 3, 5, 14, 10), a + ":10240/20480\n" + b + ":1024/1024\n");
    reading(local(2024, 3, 5, 14, 20), a + ":30720/51200\n" + b + ":3072/4096\n");
    save_client_usage(tables.get());
    const std::string first_hour = "192.168.1.10,lan,30,50\n192.168.1.11,lan,3,4\n";
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv"), first_hour);
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-03-05.csv"), first_hour);
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "2024-03-01.csv"), first_hour);

    // Next hour: b unchanged, c new.
    reading(local(2024, 3, 5, 15, 5), a + ":40960/51200\n" + b + ":3072/4096\n" + c + ":5120/6144\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=40960/51200 lan=10240/0");
    EXPECT_EQ(at(HOURLY, "192.168.1.11"), "present=0 baseline=0 type=1 raw=3072/4096");
    EXPECT_EQ(at(HOURLY, "192.168.1.12"), "present=1 baseline=1 type=0 raw=0/0");
    EXPECT_EQ(at(DAILY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=40960/51200 lan=40960/51200");
    EXPECT_EQ(at(DAILY, "192.168.1.11"), "present=1 baseline=0 type=1 raw=3072/4096 lan=3072/4096");
    save_client_usage(tables.get());
    const std::string first_day = "192.168.1.10,lan,40,50\n192.168.1.11,lan,3,4\n";
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-05-14.csv"), first_hour);
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-05-15.csv"), "192.168.1.10,lan,10,0\n");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-03-05.csv"), first_day);
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "2024-03-01.csv"), first_day);

    // Next day: a gone, b counting again, c counted for the first time.
    reading(local(2024, 3, 6, 0, 5), b + ":5120/8192\n" + c + ":7168/9216\n");
    for (int kind : {HOURLY, DAILY}) {
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=0 baseline=0 type=1 raw=40960/51200") << kind;
        EXPECT_EQ(at(kind, "192.168.1.11"), "present=1 baseline=0 type=1 raw=5120/8192 lan=2048/4096") << kind;
        EXPECT_EQ(at(kind, "192.168.1.12"), "present=1 baseline=0 type=1 raw=7168/9216 lan=7168/9216") << kind;
    }
    EXPECT_EQ(at(MONTHLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=40960/51200 lan=40960/51200");
    EXPECT_EQ(at(MONTHLY, "192.168.1.11"), "present=1 baseline=0 type=1 raw=5120/8192 lan=5120/8192");
    EXPECT_EQ(at(MONTHLY, "192.168.1.12"), "present=1 baseline=0 type=1 raw=7168/9216 lan=7168/9216");
    save_client_usage(tables.get());
    const std::string second_day = "192.168.1.11,lan,2,4\n192.168.1.12,lan,7,9\n";
    const std::string march = "192.168.1.10,lan,40,50\n192.168.1.11,lan,5,8\n192.168.1.12,lan,7,9\n";
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-06-00.csv"), second_day);
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-03-05.csv"), first_day);
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-03-06.csv"), second_day);
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "2024-03-01.csv"), march);

    // Next month: a back, b unchanged, c gone.
    reading(local(2024, 4, 1, 0, 5), a + ":41984/51200\n" + b + ":5120/8192\n");
    for (int kind = HOURLY; kind <= MONTHLY; ++kind) {
        EXPECT_EQ(at(kind, "192.168.1.10"), "present=1 baseline=0 type=1 raw=41984/51200 lan=1024/0") << kind;
        EXPECT_EQ(at(kind, "192.168.1.11"), "present=0 baseline=0 type=1 raw=5120/8192") << kind;
        EXPECT_EQ(at(kind, "192.168.1.12"), "present=0 baseline=0 type=1 raw=7168/9216") << kind;
        EXPECT_EQ(table(kind).time, local(2024, 4, 1, 0, 5)) << kind;
    }
    save_client_usage(tables.get());
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-04-01-00.csv"), "192.168.1.10,lan,1,0\n");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-04-01.csv"), "192.168.1.10,lan,1,0\n");
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "2024-04-01.csv"), "192.168.1.10,lan,1,0\n");
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "2024-03-01.csv"), march);
}

TEST_F(ClientPeriod, CountersOfEveryTypeAreZeroedAtTheNextHour)
{
    start(local(2024, 3, 5, 14, 10));
    reading(local(2024, 3, 5, 14, 10), "192.168.1.10:1024/1024\n");
    reading(local(2024, 3, 5, 14, 20), "192.168.1.10:3072/4096\n");
    write_file(PPTP_USERS, "\"alice\" 192.168.1.10 ppp0\n");
    reading(local(2024, 3, 5, 14, 30), "192.168.1.10:5120/5120\n");
    ASSERT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=3 raw=5120/5120 lan=3072/4096 pptp=2048/1024");

    write_file(PPTP_USERS, "");
    reading(local(2024, 3, 5, 15, 0), "192.168.1.10:6144/5120\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=6144/5120 lan=1024/0");
    EXPECT_EQ(at(DAILY, "192.168.1.10"),
              "present=1 baseline=0 type=1 raw=6144/5120 lan=4096/4096 pptp=2048/1024");
}

TEST_F(ClientPeriod, NewHourFileIsLoadedAsBaselineWhenTheClockIsInitialized)
{
    start(local(2024, 3, 5, 14, 10));
    reading(local(2024, 3, 5, 14, 10), "192.168.1.10:10240/20480\n");
    reading(local(2024, 3, 5, 14, 20), "192.168.1.10:30720/51200\n");
    write_file(std::string(HOURLY_DIR) + "2024-03-05-15.csv", "192.168.1.10,lan,7,8\n192.168.1.20,pptp,5,6\n");
    write_file(TIME_INITIALIZED, "");
    ASSERT_EQ(unlink(real(CLIENT_USAGE).c_str()), 0);

    plat.clock = local(2024, 3, 5, 15, 5);
    read_client_usage(tables.get());
    EXPECT_EQ(table(HOURLY).time, local(2024, 3, 5, 15));
    EXPECT_EQ(table(HOURLY).prev_time, local(2024, 3, 5, 14, 20));
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=0 baseline=1 type=1 raw=7168/8192");
    EXPECT_EQ(at(HOURLY, "192.168.1.20"), "present=1 baseline=1 type=1 raw=5120/6144 pptp=5120/6144");
    EXPECT_EQ(table(DAILY).time, local(2024, 3, 5, 14, 20));
    EXPECT_EQ(at(DAILY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=30720/51200 lan=30720/51200");
    EXPECT_EQ(at(DAILY, "192.168.1.20"), "<none>");

    reading(local(2024, 3, 5, 15, 10), "192.168.1.10:40960/51200\n192.168.1.20:1024/2048\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=40960/51200 lan=48128/59392");
    EXPECT_EQ(at(HOURLY, "192.168.1.20"),
              "present=1 baseline=0 type=1 raw=1024/2048 lan=6144/8192 pptp=5120/6144");
    EXPECT_EQ(at(DAILY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=40960/51200 lan=40960/51200");
}

TEST_F(ClientPeriod, NewHourFileIsLoadedWithoutBaselineWhenTheClockIsNotInitialized)
{
    start(local(2024, 3, 5, 14, 10));
    reading(local(2024, 3, 5, 14, 10), "192.168.1.10:10240/20480\n");
    reading(local(2024, 3, 5, 14, 20), "192.168.1.10:30720/51200\n");
    write_file(std::string(HOURLY_DIR) + "2024-03-05-15.csv", "192.168.1.10,lan,7,8\n192.168.1.20,pptp,5,6\n");
    ASSERT_EQ(unlink(real(CLIENT_USAGE).c_str()), 0);

    plat.clock = local(2024, 3, 5, 15, 5);
    read_client_usage(tables.get());
    EXPECT_EQ(table(HOURLY).time, local(2024, 3, 5, 15));
    EXPECT_EQ(table(HOURLY).prev_time, local(2024, 3, 5, 14, 20));
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=0 baseline=0 type=1 raw=30720/51200 lan=7168/8192");
    EXPECT_EQ(at(HOURLY, "192.168.1.20"), "present=1 baseline=1 type=1 raw=0/0");

    reading(local(2024, 3, 5, 15, 10), "192.168.1.10:40960/51200\n192.168.1.20:1024/2048\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=40960/51200 lan=17408/8192");
    EXPECT_EQ(at(HOURLY, "192.168.1.20"), "present=1 baseline=0 type=1 raw=1024/2048 lan=1024/2048");
}

TEST_F(ClientPeriod, NewMonthFileWithTwoLinesForOneClientAsBaseline)
{
    write_file(std::string(MONTHLY_DIR) + "2024-04-01.csv",
               "192.168.1.10,lan,3,4\n192.168.1.20,pptp,5,6\n192.168.1.20,vpn,9,10\n");
    write_file(TIME_INITIALIZED, "");
    start(local(2024, 3, 31, 23, 50));
    table(MONTHLY).time = local(2024, 3, 31, 23, 50);
    client_record* a = put(MONTHLY, "192.168.1.10");
    a->first[TYPE_RAW] = 30720;
    a->second[TYPE_RAW] = 51200;
    a->first[TYPE_LAN] = 30720;
    a->second[TYPE_LAN] = 51200;
    a->baseline_pending = 0;
    a->type = TYPE_LAN;

    check_client_period(table(MONTHLY), local(2024, 4, 1));
    EXPECT_EQ(table(MONTHLY).time, local(2024, 4, 1));
    EXPECT_EQ(table(MONTHLY).prev_time, local(2024, 3, 31, 23, 50));
    EXPECT_EQ(state(a), "present=0 baseline=1 type=1 raw=3072/4096");
    EXPECT_EQ(at(MONTHLY, "192.168.1.20"), "present=1 baseline=1 type=0 raw=9216/10240 pptp=5120/6144");
}

TEST_F(ClientPeriod, NewMonthFileWithTwoLinesForOneClientWithoutBaseline)
{
    write_file(std::string(MONTHLY_DIR) + "2024-04-01.csv",
               "192.168.1.10,lan,3,4\n192.168.1.20,pptp,5,6\n192.168.1.20,vpn,9,10\n");
    start(local(2024, 3, 31, 23, 50));
    table(MONTHLY).time = local(2024, 3, 31, 23, 50);
    client_record* a = put(MONTHLY, "192.168.1.10");
    a->first[TYPE_RAW] = 30720;
    a->second[TYPE_RAW] = 51200;
    a->first[TYPE_LAN] = 30720;
    a->second[TYPE_LAN] = 51200;
    a->baseline_pending = 0;
    a->type = TYPE_LAN;

    check_client_period(table(MONTHLY), local(2024, 4, 1));
    EXPECT_EQ(table(MONTHLY).time, local(2024, 4, 1));
    EXPECT_EQ(table(MONTHLY).prev_time, local(2024, 3, 31, 23, 50));
    EXPECT_EQ(state(a), "present=0 baseline=0 type=1 raw=30720/51200 lan=3072/4096");
    EXPECT_EQ(at(MONTHLY, "192.168.1.20"), "present=1 baseline=1 type=0 raw=0/0 vpn=9216/10240");
}

TEST_F(ClientPeriod, NewDayWithoutItsFileLoadsNothing)
{
    write_file(std::string(DAILY_DIR) + "2024-03-05.csv", "192.168.1.20,lan,5,6\n");
    write_file(TIME_INITIALIZED, "");
    start(local(2024, 3, 6, 0, 5));
    EXPECT_EQ(records(DAILY), 0);
    table(DAILY).time = local(2024, 3, 6, 0, 5);
    check_client_period(table(DAILY), local(2024, 3, 7));
    EXPECT_EQ(records(DAILY), 0);
    EXPECT_EQ(table(DAILY).time, local(2024, 3, 6, 0, 5));
    EXPECT_EQ(table(DAILY).prev_time, 0);
}

TEST_F(ClientPeriod, DayChangesAtLocalMidnight)
{
    set_tz("Asia/Kolkata");
    start(local(2024, 3, 5, 23, 40));
    reading(local(2024, 3, 5, 23, 40), "192.168.1.10:1024/1024\n");
    reading(local(2024, 3, 5, 23, 50), "192.168.1.10:3072/4096\n");
    reading(local(2024, 3, 6, 0, 5), "192.168.1.10:5120/8192\n");
    EXPECT_EQ(at(HOURLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=5120/8192 lan=2048/4096");
    EXPECT_EQ(at(DAILY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=5120/8192 lan=2048/4096");
    EXPECT_EQ(at(MONTHLY, "192.168.1.10"), "present=1 baseline=0 type=1 raw=5120/8192 lan=5120/8192");
    save_client_usage(tables.get());
    EXPECT_EQ(read_file(std::string(HOURLY_DIR) + "2024-03-06-00.csv"), "192.168.1.10,lan,2,4\n");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-03-06.csv"), "192.168.1.10,lan,2,4\n");
    EXPECT_EQ(read_file(std::string(DAILY_DIR) + "2024-03-05.csv"), "<missing>");
    EXPECT_EQ(read_file(std::string(MONTHLY_DIR) + "2024-03-01.csv"), "192.168.1.10,lan,5,8\n");
}

} // namespace
