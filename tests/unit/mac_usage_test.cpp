#include "sandbox.h"

#include "client/client_history.h"
#include "client/client_sources.h"
#include "client/client_table.h"
#include "client/client_usage.h"
#include "client_mac/mac_usage.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* ARP = "/proc/net/arp";
constexpr const char* EVENT_PIPE = "/etc/event_pipe";
constexpr const char* DELETED = "/var/run/korel/deleted_arp.wlan";
constexpr const char* DELETED_TAKEN = "/var/run/korel/deleted_arp.wlan.ruvo";
constexpr const char* MAC_DIR = "/var/run/korel/client_usage_mac_hourly";
constexpr const char* MAC_BACKUP = "/tmp/ruvo_client_mac_hourly";
constexpr const char* DUMP_REQUEST = "[DUMP DELETED ARP]\n";

constexpr const char* ARP_HEADER = "IP address       HW type     Flags       HW address            Mask     Device\n";

constexpr int HOURLY = PERIOD_HOURLY;
constexpr int DAILY = PERIOD_DAILY;
constexpr int MONTHLY = PERIOD_MONTHLY;

uint32_t ip(const char* text)
{
    struct in_addr a;
    EXPECT_NE(inet_aton(text, &a), 0) << text;
    return a.s_addr;
}

// One line of the kernel's ARP table, laid out the way Linux prints it.
std::string arp(const char* address, const char* flags, const char* mac, const char* device)
{
    char line[160];
    snprintf(line, sizeof line, "%-16s %-11s %-11s %-17s     %-8s %s\n", address, "0x1", flags, mac, "*", device);
    return line;
}

std::string mac_dir_file(const std::string& name) { return std::string(MAC_DIR) + "/" + name; }

// An entry as "MAC address type first second": the MAC as twelve upper-case hexadecimal
// digits, the address dotted, the counters in bytes.
std::string show_entry(const mac_usage_entry& e)
{
    struct in_addr a;
    a.s_addr = e.address;
    char text[160];
    snprintf(text, sizeof text, "%012llX %s %d %llu %llu", static_cast<unsigned long long>(e.mac), inet_ntoa(a),
             static_cast<int>(e.type), static_cast<unsigned long long>(e.first),
             static_cast<unsigned long long>(e.second));
    return text;
}

using Entries = std::multiset<std::string>;

// Every entry of the MAC usage table.
Entries table_entries()
{
    Entries all;
    for (const mac_usage_entry* head : mac_usage_table)
        for (const mac_usage_entry* e = head; e; e = e->next)
            all.insert(show_entry(*e));
    return all;
}

// The entry of an address kept without a MAC, or null.
const mac_usage_entry* find_address_entry(uint32_t address, int32_t type)
{
    for (const mac_usage_entry* head : mac_usage_table)
        for (const mac_usage_entry* e = head; e; e = e->next)
            if (e->mac == 0 && e->address == address && e->type == type)
                return e;
    return nullptr;
}

int entries_with_mac(uint64_t mac)
{
    int n = 0;
    for (const mac_usage_entry* head : mac_usage_table)
        for (const mac_usage_entry* e = head; e; e = e->next)
            if (e->mac == mac)
                ++n;
    return n;
}

// 10.a.b.c for a number below 2^24.
uint32_t ten_net(uint32_t n) { return htonl(0x0A000000u | n); }

std::string ten_net_text(uint32_t n)
{
    return "10." + std::to_string((n >> 16) & 255) + "." + std::to_string((n >> 8) & 255) + "." +
           std::to_string(n & 255);
}

// An entry of the MAC usage table as a test expects it in the hour file: its total, its
// bucket, when it was inserted (a larger number later) and its line.
struct expected_entry {
    uint64_t total;
    unsigned bucket;
    uint64_t inserted;
    std::string line;
};

// The hour file of these entries: each has its own place (larger totals first, then lower
// buckets, then the one inserted later), and the first 8,192 of them are written.
std::string hour_file_of(std::vector<expected_entry> entries)
{
    std::sort(entries.begin(), entries.end(), [](const expected_entry& a, const expected_entry& b) {
        if (a.total != b.total)
            return a.total > b.total;
        if (a.bucket != b.bucket)
            return a.bucket < b.bucket;
        return a.inserted > b.inserted;
    });
    std::string file;
    for (size_t i = 0; i < entries.size() && i < 8192; ++i)
        file += entries[i].line;
    return file;
}

class MacUsage : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        free_mac_tables();
        mac_usage_hour = 0;
        for (const char* dir : {"/etc", "/tmp", "/var", "/var/run", "/var/run/korel", "/proc", "/proc/net"})
            mkdir(real(dir).c_str(), 0755);
    }
    void TearDown() override
    {
        free_mac_tables();
        mac_usage_hour = 0;
        Sandbox::TearDown();
    }

    void set_arp(const std::string& lines) { write_file(ARP, ARP_HEADER + lines); }
    void make_mac_dir() { mkdir(real(MAC_DIR).c_str(), 0755); }

    // A counted change of the hourly table (arguments in the order of the module's call).
    static void add(const char* address, int32_t type, uint64_t second, uint64_t first, int32_t kind = HOURLY,
                    int32_t is_delta = 1)
    {
        ruvo_client_mac_usage_add(ip(address), type, second, first, kind, is_delta);
    }

    // The names in a directory under the root, sorted.
    std::vector<std::string> names_in(const std::string& dir)
    {
        std::vector<std::string> names;
        DIR* d = opendir(real(dir).c_str());
        if (!d)
            return {"<no directory>"};
        while (const dirent* entry = readdir(d))
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                names.emplace_back(entry->d_name);
        closedir(d);
        std::sort(names.begin(), names.end());
        return names;
    }
};

using MacUsageArp = MacUsage;
using MacUsageDeletedArp = MacUsage;
using MacHourly = MacUsage;

// ---- Reading MAC texts ----

TEST(MacUsageParseMacText, SixColonSeparatedOctets)
{
    EXPECT_EQ(parse_mac_text("00:11:22:33:44:55"), 0x001122334455ull);
    EXPECT_EQ(parse_mac_text("02:00:00:00:00:01"), 0x020000000001ull);
}

TEST(MacUsageParseMacText, UpperLowerAndMixedCaseAreTheSame)
{
    EXPECT_EQ(parse_mac_text("AA:BB:CC:DD:EE:FF"), 0xAABBCCDDEEFFull);
    EXPECT_EQ(parse_mac_text("aa:bb:cc:dd:ee:ff"), 0xAABBCCDDEEFFull);
    EXPECT_EQ(parse_mac_text("aA:Bb:cC:Dd:eE:Ff"), 0xAABBCCDDEEFFull);
}

TEST(MacUsageParseMacText, AnySingleCharacterSeparatesTheFields)
{
    EXPECT_EQ(parse_mac_text("00-11-22-33-44-55"), 0x001122334455ull);
    EXPECT_EQ(parse_mac_text("00.11.22.33.44.55"), 0x001122334455ull);
    EXPECT_EQ(parse_mac_text("00 11 22 33 44 55"), 0x001122334455ull);
    EXPECT_EQ(parse_mac_text("00:11-22.33 44/55"), 0x001122334455ull);
}

TEST(MacUsageParseMacText, FieldsOfOneDigit)
{
    EXPECT_EQ(parse_mac_text("0:1:2:3:4:5"), 0x000102030405ull);
    EXPECT_EQ(parse_mac_text("a:b:c:d:e:f"), 0x0A0B0C0D0E0Full);
}

TEST(MacUsageParseMacText, FieldOfMoreThanTwoDigitsIsAddedBeforeTheShiftsThatFollow)
{
    // 0x1FF, then five shifts of 8 bits with 0, 0, 0, 0, 1 added.
    EXPECT_EQ(parse_mac_text("1FF:00:00:00:00:01"), 0x1FF0000000001ull);
    // 0x11 << 8 plus 0x1FF carries into the octet before it.
    EXPECT_EQ(parse_mac_text("11:1FF:22:33:44:55"), 0x12FF22334455ull);
    EXPECT_EQ(parse_mac_text("00:00:00:00:00:100"), 0x100ull);
}

TEST(MacUsageParseMacText, FieldWithoutDigitsGivesNoMac)
{
    EXPECT_EQ(parse_mac_text("00:11:22:xx:44:55"), 0u);
    EXPECT_EQ(parse_mac_text("00:11:22::44:55"), 0u);
    EXPECT_EQ(parse_mac_text(":11:22:33:44:55"), 0u);
    EXPECT_EQ(parse_mac_text("00:11:22:33:44:"), 0u);
    EXPECT_EQ(parse_mac_text("00:11:22:33:44"), 0u);
    EXPECT_EQ(parse_mac_text(""), 0u);
}

TEST(MacUsageParseMacText, TextAfterTheSixthFieldIsNotRead)
{
    EXPECT_EQ(parse_mac_text("00:11:22:33:44:55:66"), 0x001122334455ull);
    EXPECT_EQ(parse_mac_text("00:11:22:33:44:55,lan,1,2"), 0x001122334455ull);
}

TEST(MacUsageParseMacText, AllZeroMacIsZero)
{
    EXPECT_EQ(parse_mac_text("00:00:00:00:00:00"), 0u);
}

// ---- The ARP snapshot ----

TEST_F(MacUsageArp, OnlyCompleteEntriesOnBridgeInterfacesAreUsed)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0") +
            arp("192.168.1.11", "0x6", "AA:BB:CC:DD:EE:01", "br-lan") +
            arp("192.168.1.12", "0x0", "00:00:00:00:00:00", "br0") +
            arp("192.168.1.13", "0x0", "aa:bb:cc:dd:ee:03", "br0") +
            arp("192.168.1.14", "0x4", "aa:bb:cc:dd:ee:04", "br0") +
            arp("192.168.1.15", "0x2", "aa:bb:cc:dd:ee:05", "eth0") +
            arp("192.168.1.16", "0x2", "aa:bb:cc:dd:ee:06", "wlan0") +
            arp("10.64.12.1", "0x2", "aa:bb:cc:dd:ee:07", "wwan0") +
            arp("192.168.1.18", "0x6", "aa:bb:cc:dd:ee:08", "eth1") +
            arp("192.168.1.19", "0x2", "aA:Bb:cC:dD:Ee:09", "br1") +
            arp("192.168.1.20", "0x102", "aa:bb:cc:dd:ee:0a", "br0") +
            arp("192.168.1.21", "0x8", "aa:bb:cc:dd:ee:0b", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);

    EXPECT_EQ(resolve_mac(ip("192.168.1.10")), 0x001122334455ull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.11")), 0xAABBCCDDEE01ull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.12")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.13")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.14")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.15")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.16")), 0u);
    EXPECT_EQ(resolve_mac(ip("10.64.12.1")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.18")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.19")), 0xAABBCCDDEE09ull);
    // Flags cut to 8 bits: 0x102 is 0x02.
    EXPECT_EQ(resolve_mac(ip("192.168.1.20")), 0xAABBCCDDEE0Aull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.21")), 0u);

    // Changes of every client: those with a usable entry go to their MAC, the others stay
    // under their address and type.
    for (const char* address : {"192.168.1.10", "192.168.1.11", "192.168.1.12", "192.168.1.13", "192.168.1.14",
                                "192.168.1.15", "192.168.1.16", "10.64.12.1", "192.168.1.18", "192.168.1.19",
                                "192.168.1.20", "192.168.1.21"})
        add(address, TYPE_SROUTE, 2048, 1024);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(table_entries(), (Entries{
                                   "001122334455 0.0.0.0 1 1024 2048",
                                   "AABBCCDDEE01 0.0.0.0 1 1024 2048",
                                   "AABBCCDDEE09 0.0.0.0 1 1024 2048",
                                   "AABBCCDDEE0A 0.0.0.0 1 1024 2048",
                                   "000000000000 192.168.1.12 2 1024 2048",
                                   "000000000000 192.168.1.13 2 1024 2048",
                                   "000000000000 192.168.1.14 2 1024 2048",
                                   "000000000000 192.168.1.15 2 1024 2048",
                                   "000000000000 192.168.1.16 2 1024 2048",
                                   "000000000000 10.64.12.1 2 1024 2048",
                                   "000000000000 192.168.1.18 2 1024 2048",
                                   "000000000000 192.168.1.21 2 1024 2048",
                               }));
    EXPECT_EQ(mac_usage_count, 12);
}

TEST_F(MacUsageArp, HeaderAndMalformedLinesAreSkipped)
{
    write_file(ARP, std::string(ARP_HEADER) + "\n" + "garbage\n" + "192.168.1.30 0x1 0x2\n" +
                        arp("192.168.1.31", "0x2", "00:11:22:33:44:31", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    EXPECT_EQ(resolve_mac(ip("192.168.1.30")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.31")), 0x001122334431ull);
}

TEST_F(MacUsageArp, AddressesSharingABucketAreToldApart)
{
    // 192.168.1.10, 192.168.17.10 and 10.0.1.10 share the low 12 bits 0x10A.
    set_arp(arp("192.168.1.10", "0x2", "02:00:00:00:01:0a", "br0") +
            arp("192.168.17.10", "0x2", "02:00:00:00:11:0a", "br0") +
            arp("10.0.1.10", "0x2", "02:00:00:00:a1:0a", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    EXPECT_EQ(resolve_mac(ip("192.168.1.10")), 0x02000000010Aull);
    EXPECT_EQ(resolve_mac(ip("192.168.17.10")), 0x02000000110Aull);
    EXPECT_EQ(resolve_mac(ip("10.0.1.10")), 0x02000000A10Aull);
    EXPECT_EQ(resolve_mac(ip("192.168.33.10")), 0u);
}

TEST_F(MacUsageArp, LaterLineOfTheSameAddressIsTheOneConsulted)
{
    set_arp(arp("192.168.1.30", "0x2", "00:00:00:00:00:30", "br0") +
            arp("192.168.1.30", "0x2", "00:00:00:00:00:31", "br1"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    EXPECT_EQ(resolve_mac(ip("192.168.1.30")), 0x31u);
}

TEST_F(MacUsageArp, ZeroMacInTheCurrentSnapshotFallsThroughToThePreviousOne)
{
    set_arp(arp("192.168.1.40", "0x2", "00:11:22:33:44:40", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    ruvo_client_mac_usage_finalize();

    // An earlier line with a MAC does not help: the first entry of the address counts.
    set_arp(arp("192.168.1.41", "0x2", "00:11:22:33:44:41", "br0") +
            arp("192.168.1.41", "0x2", "00:00:00:00:00:00", "br0") +
            arp("192.168.1.40", "0x2", "00:00:00:00:00:00", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    EXPECT_EQ(resolve_mac(ip("192.168.1.40")), 0x001122334440ull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.41")), 0u);
    add("192.168.1.40", TYPE_LAN, 100, 200);
    add("192.168.1.41", TYPE_LAN, 300, 400);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(table_entries(), (Entries{
                                   "001122334440 0.0.0.0 1 200 100",
                                   "000000000000 192.168.1.41 1 400 300",
                               }));
}

// ---- Resolution across readings ----

TEST_F(MacUsage, ClientWhoseArpEntryDisappearedIsCountedThroughThePreviousSnapshotThenByAddress)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0") +
            arp("192.168.1.11", "0x2", "00:11:22:33:44:66", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 2000, 1000);
    ruvo_client_mac_usage_finalize();

    set_arp(arp("192.168.1.11", "0x2", "00:11:22:33:44:66", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 20, 10);
    ruvo_client_mac_usage_finalize();
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 1010 2020"}));

    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 4, 3);
    ruvo_client_mac_usage_finalize();
    EXPECT_EQ(table_entries(), (Entries{
                                   "001122334455 0.0.0.0 1 1010 2020",
                                   "000000000000 192.168.1.10 1 3 4",
                               }));
    EXPECT_EQ(mac_usage_count, 2);
}

TEST_F(MacUsage, TwoReadingsAfterTheDisappearanceTheDeletedListStillNamesTheMac)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 2000, 1000);
    ruvo_client_mac_usage_finalize();

    set_arp("");
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 20, 10);
    ruvo_client_mac_usage_finalize();

    write_file(EVENT_PIPE, "");
    write_file(DELETED, "192.168.1.10 00:11:22:33:44:55\n");
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 4, 3);
    ruvo_client_mac_usage_finalize();
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 1013 2024"}));
    EXPECT_EQ(mac_usage_count, 1);
}

TEST_F(MacUsage, CurrentSnapshotComesBeforeThePreviousOneAndThePreviousBeforeTheDeletedList)
{
    set_arp(arp("192.168.1.10", "0x2", "02:00:00:00:00:0a", "br0") +
            arp("192.168.1.11", "0x2", "02:00:00:00:00:0b", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    ruvo_client_mac_usage_finalize();

    // .10 has a new MAC now; .11 is gone from the table but named in the deleted list with
    // another MAC; .12 is only in the deleted list.
    set_arp(arp("192.168.1.10", "0x2", "02:00:00:00:01:0a", "br0"));
    write_file(EVENT_PIPE, "");
    write_file(DELETED, "192.168.1.11 02:00:00:00:02:0b\n192.168.1.12 02:00:00:00:02:0c\n");
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    EXPECT_EQ(resolve_mac(ip("192.168.1.10")), 0x02000000010Aull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.11")), 0x02000000000Bull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.12")), 0x02000000020Cull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.13")), 0u);
    add("192.168.1.10", TYPE_LAN, 1, 2);
    add("192.168.1.11", TYPE_LAN, 3, 4);
    add("192.168.1.12", TYPE_LAN, 5, 6);
    add("192.168.1.13", TYPE_LAN, 7, 8);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(table_entries(), (Entries{
                                   "02000000010A 0.0.0.0 1 2 1",
                                   "02000000000B 0.0.0.0 1 4 3",
                                   "02000000020C 0.0.0.0 1 6 5",
                                   "000000000000 192.168.1.13 1 8 7",
                               }));
}

TEST_F(MacUsage, DeletedListLastsOneReading)
{
    set_arp("");
    write_file(EVENT_PIPE, "");
    write_file(DELETED, "192.168.1.70 02:00:00:00:00:70\n");
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.70", TYPE_LAN, 1024, 2048);
    ruvo_client_mac_usage_finalize();

    ASSERT_EQ(unlink(real(EVENT_PIPE).c_str()), 0);
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    EXPECT_EQ(resolve_mac(ip("192.168.1.70")), 0u);
    add("192.168.1.70", TYPE_LAN, 1, 1);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(table_entries(), (Entries{
                                   "020000000070 0.0.0.0 1 2048 1024",
                                   "000000000000 192.168.1.70 1 1 1",
                               }));
}

TEST_F(MacUsage, SnapshotTakenWhenArpTableIsMissingLeavesOnlyThePreviousOne)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    ruvo_client_mac_usage_finalize();

    ASSERT_EQ(unlink(real(ARP).c_str()), 0);
    EXPECT_EQ(ruvo_client_mac_usage_prepare(), -1);
    add("192.168.1.10", TYPE_LAN, 20, 10);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(ruvo_client_mac_usage_prepare(), -1);
    add("192.168.1.10", TYPE_LAN, 2, 1);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(table_entries(), (Entries{
                                   "001122334455 0.0.0.0 1 10 20",
                                   "000000000000 192.168.1.10 1 1 2",
                               }));
}

// ---- Keys ----

TEST_F(MacUsage, KnownMacKeepsOneEntryOfTypeLanWhateverTheSourceType)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 100, 200);
    add("192.168.1.10", TYPE_PPTP, 1000, 2000);
    add("192.168.1.10", TYPE_VPN, 5, 7);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 2207 1105"}));
    EXPECT_EQ(mac_usage_count, 1);
}

TEST_F(MacUsage, UnknownMacKeepsOneEntryPerAddressAndType)
{
    set_arp("");
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 100, 200);
    add("192.168.1.10", TYPE_PPTP, 1000, 2000);
    add("192.168.1.10", TYPE_LAN, 1, 2);
    add("192.168.1.11", TYPE_PPTP, 3, 4);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(table_entries(), (Entries{
                                   "000000000000 192.168.1.10 1 202 101",
                                   "000000000000 192.168.1.10 3 2000 1000",
                                   "000000000000 192.168.1.11 3 4 3",
                               }));
    EXPECT_EQ(mac_usage_count, 3);
}

TEST_F(MacUsage, EntriesGoToTheBucketOfTheirMacOrOfTheirAddress)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 1, 2);
    add("192.168.1.20", TYPE_SROUTE, 3, 4);
    ruvo_client_mac_usage_finalize();

    // The MAC's low 12 bits; the address's, first octet most significant (1.20 -> 0x114).
    ASSERT_NE(mac_usage_table[0x455], nullptr);
    EXPECT_EQ(show_entry(*mac_usage_table[0x455]), "001122334455 0.0.0.0 1 2 1");
    EXPECT_EQ(mac_usage_table[0x455]->next, nullptr);
    ASSERT_NE(mac_usage_table[0x114], nullptr);
    EXPECT_EQ(show_entry(*mac_usage_table[0x114]), "000000000000 192.168.1.20 2 4 3");
    EXPECT_EQ(mac_usage_table[0x114]->next, nullptr);
    EXPECT_EQ(mac_usage_count, 2);
}

TEST_F(MacUsage, DailyAndMonthlyChangesLeaveTheTableUnchanged)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 100, 200, DAILY, 1);
    add("192.168.1.11", TYPE_LAN, 100, 200, MONTHLY, 0);
    EXPECT_EQ(table_entries(), Entries{});
    EXPECT_EQ(mac_usage_count, 0);

    add("192.168.1.10", TYPE_LAN, 1, 2, HOURLY, 1);
    add("192.168.1.11", TYPE_LAN, 3, 4, HOURLY, 1);
    add("192.168.1.10", TYPE_LAN, 100, 200, DAILY, 1);
    add("192.168.1.11", TYPE_LAN, 100, 200, MONTHLY, 1);
    add("192.168.1.10", TYPE_LAN, 100, 200, 3, 1);
    ruvo_client_mac_usage_finalize();
    EXPECT_EQ(table_entries(), (Entries{
                                   "001122334455 0.0.0.0 1 2 1",
                                   "000000000000 192.168.1.11 1 4 3",
                               }));
}

TEST_F(MacUsage, TotalsOfAFreshPeriodAreAddedLikeDifferences)
{
    set_arp("");
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 1000, 2000, HOURLY, 0);
    add("192.168.1.10", TYPE_LAN, 1000, 2000, HOURLY, 0);
    add("192.168.1.10", TYPE_LAN, 10, 20, HOURLY, 1);
    ruvo_client_mac_usage_finalize();
    EXPECT_EQ(table_entries(), (Entries{"000000000000 192.168.1.10 1 4020 2010"}));
}

TEST_F(MacUsage, CountersWrapAtSixtyFourBits)
{
    set_arp("");
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 0xFFFFFFFFFFFFFFFFull, 0xFFFFFFFFFFFFFFF0ull);
    add("192.168.1.10", TYPE_LAN, 2, 0x20);
    ruvo_client_mac_usage_finalize();
    EXPECT_EQ(table_entries(), (Entries{"000000000000 192.168.1.10 1 16 1"}));
}

TEST_F(MacUsage, TheClientBeyondSixteenThousandThreeHundredEightyFourIsNotCounted)
{
    set_arp(arp("192.168.5.5", "0x2", "02:00:00:00:05:05", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    for (uint32_t n = 1; n <= 16384; ++n)
        ruvo_client_mac_usage_add(ten_net(n), TYPE_LAN, 2048, 1024, HOURLY, 1);
    ASSERT_EQ(mac_usage_count, 16384);

    ruvo_client_mac_usage_add(ten_net(16385), TYPE_LAN, 2048, 1024, HOURLY, 1);
    add("192.168.5.5", TYPE_LAN, 2048, 1024);
    // A known client still counts.
    ruvo_client_mac_usage_add(ten_net(16384), TYPE_LAN, 1, 1, HOURLY, 1);
    ruvo_client_mac_usage_add(ten_net(1), TYPE_LAN, 2, 3, HOURLY, 1);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(mac_usage_count, 16384);
    EXPECT_EQ(find_address_entry(ten_net(16385), TYPE_LAN), nullptr);
    EXPECT_EQ(entries_with_mac(0x020000000505ull), 0);
    ASSERT_NE(find_address_entry(ten_net(16384), TYPE_LAN), nullptr);
    EXPECT_EQ(show_entry(*find_address_entry(ten_net(16384), TYPE_LAN)), "000000000000 10.0.64.0 1 1025 2049");
    ASSERT_NE(find_address_entry(ten_net(1), TYPE_LAN), nullptr);
    EXPECT_EQ(show_entry(*find_address_entry(ten_net(1), TYPE_LAN)), "000000000000 10.0.0.1 1 1027 2050");
    int listed = 0;
    uint64_t first_sum = 0;
    for (const mac_usage_entry* head : mac_usage_table)
        for (const mac_usage_entry* e = head; e; e = e->next) {
            ++listed;
            first_sum += e->first;
        }
    EXPECT_EQ(listed, 16384);
    EXPECT_EQ(first_sum, 16384ull * 1024 + 1 + 3);
}

// ---- The deleted-ARP handshake ----

TEST_F(MacUsageDeletedArp, RequestIsWrittenToTheEventPipeAndTheListIsTakenLoadedAndRemoved)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    write_file(EVENT_PIPE, "");
    write_file(DELETED, "192.168.1.61 aa:bb:cc:dd:ee:61\n");
    // A list left over under the taken name is replaced by the new one.
    write_file(DELETED_TAKEN, "192.168.1.60 aa:bb:cc:dd:ee:60\n");

    EXPECT_EQ(ruvo_client_mac_usage_prepare(), 0);

    EXPECT_EQ(read_file(EVENT_PIPE), "[DUMP DELETED ARP]\n");
    EXPECT_EQ(read_file(EVENT_PIPE).size(), 19u);
    EXPECT_FALSE(exists(DELETED));
    EXPECT_FALSE(exists(DELETED_TAKEN));
    EXPECT_EQ(resolve_mac(ip("192.168.1.10")), 0x001122334455ull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.61")), 0xAABBCCDDEE61ull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.60")), 0u);
}

TEST_F(MacUsageDeletedArp, FifoWithAReaderReceivesTheRequest)
{
    set_arp("");
    ASSERT_EQ(mkfifo(real(EVENT_PIPE).c_str(), 0600), 0);
    const int reader = open(real(EVENT_PIPE).c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0) << strerror(errno);
    write_file(DELETED, "192.168.1.62 AA:BB:CC:DD:EE:62\n");

    EXPECT_EQ(ruvo_client_mac_usage_prepare(), 0);

    char buffer[64];
    const ssize_t got = read(reader, buffer, sizeof buffer);
    close(reader);
    ASSERT_EQ(got, 19);
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(got)), DUMP_REQUEST);
    EXPECT_FALSE(exists(DELETED));
    EXPECT_FALSE(exists(DELETED_TAKEN));
    EXPECT_EQ(resolve_mac(ip("192.168.1.62")), 0xAABBCCDDEE62ull);
}

TEST_F(MacUsageDeletedArp, FifoWithoutAReaderSkipsTheRequestAndTheList)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    ASSERT_EQ(mkfifo(real(EVENT_PIPE).c_str(), 0600), 0);
    write_file(DELETED, "192.168.1.63 aa:bb:cc:dd:ee:63\n");

    EXPECT_EQ(ruvo_client_mac_usage_prepare(), 0);

    EXPECT_EQ(read_file(DELETED), "192.168.1.63 aa:bb:cc:dd:ee:63\n");
    EXPECT_FALSE(exists(DELETED_TAKEN));
    EXPECT_EQ(resolve_mac(ip("192.168.1.10")), 0x001122334455ull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.63")), 0u);
}

TEST_F(MacUsageDeletedArp, WithoutTheEventPipeNoListIsRead)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    write_file(DELETED, "192.168.1.64 aa:bb:cc:dd:ee:64\n");

    EXPECT_EQ(ruvo_client_mac_usage_prepare(), 0);

    EXPECT_FALSE(exists(EVENT_PIPE));
    EXPECT_EQ(read_file(DELETED), "192.168.1.64 aa:bb:cc:dd:ee:64\n");
    EXPECT_FALSE(exists(DELETED_TAKEN));
    EXPECT_EQ(resolve_mac(ip("192.168.1.64")), 0u);
}

TEST_F(MacUsageDeletedArp, ListThatDoesNotAppearGivesMinusOneButKeepsTheSnapshot)
{
    set_arp(arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0"));
    write_file(EVENT_PIPE, "");

    EXPECT_EQ(ruvo_client_mac_usage_prepare(), -1);

    EXPECT_EQ(read_file(EVENT_PIPE), DUMP_REQUEST);
    EXPECT_FALSE(exists(DELETED_TAKEN));
    EXPECT_EQ(resolve_mac(ip("192.168.1.10")), 0x001122334455ull);
    add("192.168.1.10", TYPE_LAN, 1, 2);
    ruvo_client_mac_usage_finalize();
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 2 1"}));
}

TEST_F(MacUsageDeletedArp, MissingArpTableGivesMinusOneAndLeavesTheListInPlace)
{
    write_file(EVENT_PIPE, "");
    write_file(DELETED, "192.168.1.65 aa:bb:cc:dd:ee:65\n");

    EXPECT_EQ(ruvo_client_mac_usage_prepare(), -1);

    EXPECT_EQ(read_file(EVENT_PIPE), DUMP_REQUEST);
    EXPECT_EQ(read_file(DELETED), "192.168.1.65 aa:bb:cc:dd:ee:65\n");
    EXPECT_FALSE(exists(DELETED_TAKEN));
    EXPECT_EQ(resolve_mac(ip("192.168.1.65")), 0u);
}

TEST_F(MacUsageDeletedArp, FirstMacListedForAnAddressWins)
{
    set_arp("");
    write_file(EVENT_PIPE, "");
    write_file(DELETED, "192.168.1.50 00:00:00:00:00:00\n"
                        "192.168.1.50 aa:aa:aa:aa:aa:01\n"
                        "192.168.1.50 aa:aa:aa:aa:aa:02\n"
                        "192.168.1.51 BB:BB:BB:BB:BB:01\n"
                        "192.168.1.51 bb:bb:bb:bb:bb:02\n"
                        "192.168.17.51 bb:bb:bb:bb:bb:03\n");
    EXPECT_EQ(ruvo_client_mac_usage_prepare(), 0);
    EXPECT_EQ(resolve_mac(ip("192.168.1.50")), 0xAAAAAAAAAA01ull);
    EXPECT_EQ(resolve_mac(ip("192.168.1.51")), 0xBBBBBBBBBB01ull);
    EXPECT_EQ(resolve_mac(ip("192.168.17.51")), 0xBBBBBBBBBB03ull);
}

TEST_F(MacUsageDeletedArp, LinesWithoutBothFieldsOrWithoutAnAddressAreSkipped)
{
    set_arp("");
    write_file(EVENT_PIPE, "");
    write_file(DELETED, "0.0.0.0 aa:aa:aa:aa:aa:00\n"
                        "192.168.1.52\n"
                        "garbage aa:aa:aa:aa:aa:53\n"
                        "192.168.1.256 aa:aa:aa:aa:aa:54\n"
                        "\n"
                        "192.168.1.55 AA:AA:AA:AA:AA:55\n");
    EXPECT_EQ(ruvo_client_mac_usage_prepare(), 0);
    EXPECT_EQ(resolve_mac(ip("0.0.0.0")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.52")), 0u);
    EXPECT_EQ(resolve_mac(ip("192.168.1.55")), 0xAAAAAAAAAA55ull);
    EXPECT_FALSE(exists(DELETED));
    EXPECT_FALSE(exists(DELETED_TAKEN));
}

// ---- Hour changes ----

TEST_F(MacUsage, FixupInTheSameHourKeepsTheTableAndAnHourLaterEmptiesIt)
{
    const time_t hour = local(2024, 3, 5, 14);
    ruvo_client_mac_usage_fixup(hour + 100);
    EXPECT_EQ(mac_usage_hour, hour);
    add("192.168.1.20", TYPE_SROUTE, 1023, 5000);

    ruvo_client_mac_usage_fixup(hour + 3599);
    EXPECT_EQ(mac_usage_hour, hour);
    EXPECT_EQ(table_entries(), (Entries{"000000000000 192.168.1.20 2 5000 1023"}));
    ruvo_client_mac_usage_fixup(hour);
    EXPECT_EQ(table_entries(), (Entries{"000000000000 192.168.1.20 2 5000 1023"}));

    ruvo_client_mac_usage_fixup(hour + 3600 + 5);
    EXPECT_EQ(mac_usage_hour, hour + 3600);
    EXPECT_EQ(table_entries(), Entries{});
    EXPECT_EQ(mac_usage_count, 0);
}

TEST_F(MacUsage, FixupLoadsTheNewHourFileAndAReturnToASavedHourContinuesFromIt)
{
    make_mac_dir();
    write_file(mac_dir_file("2024-03-05-15.csv"), "00:11:22:33:44:55,lan,7,8\n");
    const time_t hour = local(2024, 3, 5, 14);
    ruvo_client_mac_usage_fixup(hour + 10);
    add("192.168.1.20", TYPE_SROUTE, 1023, 5000);
    ruvo_client_mac_usage_save();

    ruvo_client_mac_usage_fixup(hour + 3600 + 10);
    EXPECT_EQ(mac_usage_hour, hour + 3600);
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 7168 8192"}));

    ruvo_client_mac_usage_fixup(hour + 20);
    EXPECT_EQ(mac_usage_hour, hour);
    EXPECT_EQ(table_entries(), (Entries{"000000000000 192.168.1.20 2 4096 0"}));
    EXPECT_EQ(mac_usage_count, 1);
}

// ---- Start ----

TEST_F(MacUsage, InitCreatesTheDirectoriesRestoresTheBackupAndSetsTheHour)
{
    const mode_t mask = umask(022);
    umask(mask);
    plat.clock = local(2024, 3, 5, 14, 25, 7);

    EXPECT_EQ(ruvo_client_mac_usage_init(), 0);

    EXPECT_EQ(mac_usage_hour, local(2024, 3, 5, 14));
    EXPECT_EQ(plat.commands,
              (std::vector<std::string>{"cp -f /tmp/ruvo_client_mac_hourly/* /var/run/korel/client_usage_mac_hourly/"}));
    for (const char* dir : {MAC_DIR, MAC_BACKUP}) {
        struct stat st;
        ASSERT_EQ(stat(real(dir).c_str(), &st), 0) << dir;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
        EXPECT_EQ(st.st_mode & 07777, 0755u & ~mask) << dir;
    }
    EXPECT_EQ(table_entries(), Entries{});
}

TEST_F(MacUsage, InitLoadsTheCurrentHourFile)
{
    make_mac_dir();
    mkdir(real(MAC_BACKUP).c_str(), 0755);
    write_file(mac_dir_file("2024-03-05-13.csv"), "02:00:00:00:00:13,lan,1,1\n");
    write_file(mac_dir_file("2024-03-05-14.csv"), "00:11:22:33:44:55,lan,3,4\n*192.168.1.20,vpn,1,0\n");
    insert_mac_usage(0x020000000099ull, 0, TYPE_LAN, 1, 1);
    plat.clock = local(2024, 3, 5, 14, 59, 59);

    EXPECT_EQ(ruvo_client_mac_usage_init(), 0);

    EXPECT_EQ(mac_usage_hour, local(2024, 3, 5, 14));
    EXPECT_EQ(plat.commands,
              (std::vector<std::string>{"cp -f /tmp/ruvo_client_mac_hourly/* /var/run/korel/client_usage_mac_hourly/"}));
    EXPECT_EQ(table_entries(), (Entries{
                                   "001122334455 0.0.0.0 1 3072 4096",
                                   "000000000000 192.168.1.20 4 1024 0",
                               }));
    EXPECT_EQ(mac_usage_count, 2);
}

// ---- A device that changes its address ----

class MacUsageClients : public MacUsage {
protected:
    void SetUp() override
    {
        MacUsage::SetUp();
        free_client_sources();
    }
    void TearDown() override
    {
        tables.reset();
        free_client_sources();
        MacUsage::TearDown();
    }

    void reading(time_t t, const std::string& arp_lines, const std::string& client_lines)
    {
        set_arp(arp_lines);
        write_file("/proc/korel/config/client_usage",
                   "timestamp:" + std::to_string(static_cast<long long>(t)) + "\n" + client_lines);
        plat.clock = t;
        read_client_usage(tables.get());
    }

    client_tables_ptr tables;
};

TEST_F(MacUsageClients, ClientThatComesBackWithANewAddressKeepsOneMacAccount)
{
    const time_t t = local(2024, 3, 5, 14, 10);
    plat.clock = t;
    tables.reset(client_usage_init());
    ASSERT_NE(tables, nullptr);
    ASSERT_EQ(mac_usage_hour, local(2024, 3, 5, 14));

    const std::string before = arp("192.168.1.10", "0x2", "00:11:22:33:44:55", "br0");
    // A new client is counted from its second reading, with its whole counters.
    reading(t, before, "192.168.1.10:1000/2000\n");
    EXPECT_EQ(table_entries(), Entries{});
    reading(t + 30, before, "192.168.1.10:1024/2048\n");
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 1024 2048"}));
    reading(t + 60, before, "192.168.1.10:3072/4096\n");
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 3072 4096"}));

    // Gone from .10, back as .77 with the same MAC.
    const std::string after = arp("192.168.1.77", "0x2", "00:11:22:33:44:55", "br0");
    reading(t + 90, after, "192.168.1.10:3072/4096\n192.168.1.77:5000/6000\n");
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 3072 4096"}));
    reading(t + 120, after, "192.168.1.10:3072/4096\n192.168.1.77:7048/8144\n");
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 10120 12240"}));
    reading(t + 150, after, "192.168.1.10:3072/4096\n192.168.1.77:8072/9168\n");
    EXPECT_EQ(table_entries(), (Entries{"001122334455 0.0.0.0 1 11144 13264"}));
    EXPECT_EQ(mac_usage_count, 1);

    save_client_usage(tables.get());
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "00:11:22:33:44:55,lan,10,12\n");
}

// ---- The hourly file ----

TEST_F(MacHourly, EntryWithoutAMacIsWrittenWithAStarAndItsAddressInKib)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    add("192.168.1.20", TYPE_SROUTE, 1023, 5000);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "*192.168.1.20,sroute,4,0\n");
}

TEST_F(MacHourly, EntryWithAMacIsAlwaysWrittenAsLan)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    set_arp(arp("192.168.1.10", "0x2", "aa:bb:cc:0d:0e:0f", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_VPN, 4096, 2048);
    add("192.168.1.10", TYPE_L2TP, 1024, 1024);
    ruvo_client_mac_usage_finalize();
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "AA:BB:CC:0D:0E:0F,lan,3,5\n");
}

TEST_F(MacHourly, LinesGoFromTheLargestTotalToTheSmallest)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    insert_mac_usage(0x001122334455ull, 0, TYPE_LAN, 0, 10240);
    insert_mac_usage(0, ip("192.168.1.20"), TYPE_SROUTE, 1023, 5000);
    insert_mac_usage(0xAABBCC0D0E0Full, 0, TYPE_LAN, 20480, 1024);
    insert_mac_usage(0, ip("172.16.0.1"), TYPE_L2TP, 512, 0);
    insert_mac_usage(0, ip("10.0.0.7"), TYPE_PPTP, 30000, 1535);

    ruvo_client_mac_usage_save();

    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "*10.0.0.7,pptp,1,29\n"
                                                            "AA:BB:CC:0D:0E:0F,lan,1,20\n"
                                                            "00:11:22:33:44:55,lan,10,0\n"
                                                            "*192.168.1.20,sroute,4,0\n"
                                                            "*172.16.0.1,l2tp,0,0\n");
    EXPECT_EQ(names_in(MAC_DIR), (std::vector<std::string>{"2024-03-05-14.csv"}));
    EXPECT_EQ(mac_usage_count, 5);
}

TEST_F(MacHourly, TotalIsTheSixtyFourBitSumOfBothCounters)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    // 0xFFFFFFFFFFFFFC00 + 2048 wraps to a total of 1024.
    insert_mac_usage(0x020000000001ull, 0, TYPE_LAN, 2048, 0xFFFFFFFFFFFFFC00ull);
    insert_mac_usage(0x020000000002ull, 0, TYPE_LAN, 0, 5120);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "02:00:00:00:00:02,lan,5,0\n"
                                                            "02:00:00:00:00:01,lan,18014398509481983,2\n");
}

TEST_F(MacHourly, TotalsThatDifferInAnyOfTheirBytesAreOrderedAsNumbers)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    // Totals that differ in their lowest, middle and highest bytes, and two equal totals
    // in buckets 1 and 4: larger first, the equal ones in the order of their buckets.
    insert_mac_usage(0x020000000001ull, 0, TYPE_LAN, 0, uint64_t{1} << 60);
    insert_mac_usage(0x020000000002ull, 0, TYPE_LAN, 0, uint64_t{1} << 40);
    insert_mac_usage(0x020000000003ull, 0, TYPE_LAN, 0, (uint64_t{1} << 40) + 1024);
    insert_mac_usage(0x020000000004ull, 0, TYPE_LAN, 0, uint64_t{1} << 60);
    insert_mac_usage(0x020000000005ull, 0, TYPE_LAN, 0, 3072);
    insert_mac_usage(0x020000000006ull, 0, TYPE_LAN, 0, 1024);
    insert_mac_usage(0x020000000007ull, 0, TYPE_LAN, 0, (uint64_t{1} << 60) + (uint64_t{1} << 20));
    insert_mac_usage(0x020000000008ull, 0, TYPE_LAN, 0, uint64_t{255} << 10);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "02:00:00:00:00:07,lan,1125899906843648,0\n"
                                                            "02:00:00:00:00:01,lan,1125899906842624,0\n"
                                                            "02:00:00:00:00:04,lan,1125899906842624,0\n"
                                                            "02:00:00:00:00:03,lan,1073741825,0\n"
                                                            "02:00:00:00:00:02,lan,1073741824,0\n"
                                                            "02:00:00:00:00:08,lan,255,0\n"
                                                            "02:00:00:00:00:05,lan,3,0\n"
                                                            "02:00:00:00:00:06,lan,1,0\n");
}

TEST_F(MacHourly, ATotalThatFirstReachesAByteAboveTheOthersIsOrderedByIt)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    // The largest total, 2^24, is the only one with its fourth byte set; below it, totals
    // whose lower three bytes are larger than its own (all 0).
    insert_mac_usage(0x020000000001ull, 0, TYPE_LAN, 0, uint64_t{1} << 16);
    insert_mac_usage(0x020000000002ull, 0, TYPE_LAN, 0, (uint64_t{1} << 24) - 1024);
    insert_mac_usage(0x020000000003ull, 0, TYPE_LAN, 0, uint64_t{1} << 24);
    insert_mac_usage(0x020000000004ull, 0, TYPE_LAN, 0, 3072);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "02:00:00:00:00:03,lan,16384,0\n"
                                                            "02:00:00:00:00:02,lan,16383,0\n"
                                                            "02:00:00:00:00:01,lan,64,0\n"
                                                            "02:00:00:00:00:04,lan,3,0\n");
}

TEST_F(MacHourly, OnlyThe8192LargestEntriesAreWritten)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    // Totals 2k KiB for k = 1 .. 9000, inserted in a scattered order.
    for (uint32_t i = 0; i < 9000; ++i) {
        const uint32_t k = (i * 7919u) % 9000u + 1;
        ASSERT_NE(insert_mac_usage(0, ten_net(k), TYPE_LAN, (uint64_t{k} << 10) + 1023, uint64_t{k} << 10),
                  nullptr);
    }
    ASSERT_EQ(mac_usage_count, 9000);

    ruvo_client_mac_usage_save();

    std::string expected;
    for (uint32_t k = 9000; k >= 809; --k)
        expected += "*" + ten_net_text(k) + ",lan," + std::to_string(k) + "," + std::to_string(k) + "\n";
    const std::string written = read_file(mac_dir_file("2024-03-05-14.csv"));
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 8192);
    EXPECT_EQ(written, expected);
    EXPECT_EQ(mac_usage_count, 9000);
}

TEST_F(MacHourly, TypeBeyondTheNamesIsWrittenAsUnknAndReadBackAsLan)
{
    make_mac_dir();
    const time_t hour = local(2024, 3, 5, 14);
    mac_usage_hour = hour;
    insert_mac_usage(0, ip("192.168.1.30"), 6, 2048, 1024);
    insert_mac_usage(0xA10000000001ull, 0, 9, 4096, 4096);
    insert_mac_usage(0, ip("192.168.1.31"), -1, 0, 1024);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "A1:00:00:00:00:01,unkn,4,4\n"
                                                            "*192.168.1.30,unkn,1,2\n"
                                                            "*192.168.1.31,unkn,1,0\n");

    empty_mac_usage_table();
    EXPECT_EQ(load_mac_hour_file(hour), 0);
    EXPECT_EQ(table_entries(), (Entries{
                                   "A10000000001 0.0.0.0 1 4096 4096",
                                   "000000000000 192.168.1.30 1 1024 2048",
                                   "000000000000 192.168.1.31 1 1024 0",
                               }));
}

TEST_F(MacHourly, SaveAndLoadKeepWholeKib)
{
    make_mac_dir();
    const time_t hour = local(2024, 3, 5, 14);
    mac_usage_hour = hour;
    insert_mac_usage(0x001122334455ull, 0, TYPE_LAN, 1535, 10000);
    insert_mac_usage(0, ip("192.168.1.20"), TYPE_SROUTE, 1023, 5000);
    insert_mac_usage(0, ip("192.168.1.21"), TYPE_RAW, 2048, 3072);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "00:11:22:33:44:55,lan,9,1\n"
                                                            "*192.168.1.20,sroute,4,0\n"
                                                            "*192.168.1.21,Total,3,2\n");

    empty_mac_usage_table();
    EXPECT_EQ(load_mac_hour_file(hour), 0);
    EXPECT_EQ(table_entries(), (Entries{
                                   "001122334455 0.0.0.0 1 9216 1024",
                                   "000000000000 192.168.1.20 2 4096 0",
                                   "000000000000 192.168.1.21 0 3072 2048",
                               }));
    EXPECT_EQ(mac_usage_count, 3);
}

TEST_F(MacHourly, FileIsNamedAfterTheLocalTimeOfTheHour)
{
    make_mac_dir();
    set_tz("XYZ-5:30");
    // 2024-03-05 14:00 UTC is 19:30 at UTC+5:30.
    mac_usage_hour = 1709647200;
    insert_mac_usage(0, ip("192.168.1.20"), TYPE_LAN, 0, 1024);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(names_in(MAC_DIR), (std::vector<std::string>{"2024-03-05-19.csv"}));

    set_tz("ABC+10");
    // 2024-03-05 00:00 UTC is 2024-03-04 14:00 at UTC-10.
    mac_usage_hour = 1709596800;
    ruvo_client_mac_usage_save();
    EXPECT_EQ(names_in(MAC_DIR), (std::vector<std::string>{"2024-03-04-14.csv", "2024-03-05-19.csv"}));
    EXPECT_EQ(read_file(mac_dir_file("2024-03-04-14.csv")), "*192.168.1.20,lan,1,0\n");

    empty_mac_usage_table();
    EXPECT_EQ(load_mac_hour_file(1709596800), 0);
    EXPECT_EQ(table_entries(), (Entries{"000000000000 192.168.1.20 1 1024 0"}));
}

TEST_F(MacHourly, SaveReplacesTheHourFileAndLeavesNoTemporaryFile)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    write_file(mac_dir_file("2024-03-05-14.csv"), "02:00:00:00:00:01,lan,100,100\n");
    write_file(mac_dir_file("2024-03-05-13.csv"), "02:00:00:00:00:02,lan,1,1\n");
    insert_mac_usage(0, ip("192.168.1.20"), TYPE_LAN, 2048, 1024);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "*192.168.1.20,lan,1,2\n");
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-13.csv")), "02:00:00:00:00:02,lan,1,1\n");
    EXPECT_FALSE(exists(mac_dir_file("hour.tmp")));
    EXPECT_EQ(names_in(MAC_DIR), (std::vector<std::string>{"2024-03-05-13.csv", "2024-03-05-14.csv"}));
}

TEST_F(MacHourly, EmptyTableGivesAnEmptyFile)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    write_file(mac_dir_file("2024-03-05-14.csv"), "02:00:00:00:00:01,lan,100,100\n");
    ruvo_client_mac_usage_save();
    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "");
    EXPECT_EQ(names_in(MAC_DIR), (std::vector<std::string>{"2024-03-05-14.csv"}));
}

TEST_F(MacHourly, WithoutTheDirectoryNothingIsWritten)
{
    mac_usage_hour = local(2024, 3, 5, 14);
    insert_mac_usage(0, ip("192.168.1.20"), TYPE_LAN, 2048, 1024);
    ruvo_client_mac_usage_save();
    EXPECT_FALSE(exists(MAC_DIR));
    EXPECT_EQ(names_in("/var/run/korel"), std::vector<std::string>{});
    EXPECT_EQ(mac_usage_count, 1);
}

TEST_F(MacHourly, HourWithoutALocalTimeIsNeitherWrittenNorRead)
{
    time_t hour = std::numeric_limits<time_t>::max();
    hour -= hour % 3600;
    struct tm tm;
    if (localtime_r(&hour, &tm) != nullptr)
        GTEST_SKIP() << "every time_t of this build has a local time";
    make_mac_dir();
    insert_mac_usage(0, ip("192.168.1.20"), TYPE_LAN, 2048, 1024);

    ruvo_client_mac_usage_fixup(hour);
    EXPECT_EQ(mac_usage_hour, hour);
    EXPECT_EQ(mac_usage_count, 0);
    insert_mac_usage(0, ip("192.168.1.21"), TYPE_LAN, 2048, 1024);
    ruvo_client_mac_usage_save();
    EXPECT_EQ(names_in(MAC_DIR), std::vector<std::string>{});

    EXPECT_EQ(load_mac_hour_file(hour), 0);
    EXPECT_EQ(table_entries(), (Entries{"000000000000 192.168.1.21 1 1024 2048"}));
}

TEST_F(MacHourly, LoadReadsEveryValidLineAsANewEntry)
{
    make_mac_dir();
    const time_t hour = local(2024, 3, 5, 14);
    write_file(mac_dir_file("2024-03-05-14.csv"), "00:11:22:33:44:55,lan,10,20\n"
                                                  "*192.168.1.20,sroute,4,0\n"
                                                  "00:00:00:00:00:00,lan,5,5\n"
                                                  "*0.0.0.0,lan,6,6\n"
                                                  "AA:BB:CC:DD:EE:FF,Total,1,1\n"
                                                  "aa:bb:cc:dd:ee:01,l2tp,2,3\n"
                                                  "00:11:22:33:44:55,lan,1,1\n"
                                                  "*192.168.1.21,unkn,7,8\n"
                                                  "*192.168.1.22,LAN,9,9\n"
                                                  "*192.168.1.23,vpn,1\n"
                                                  "*192.168.1.300,lan,1,1\n"
                                                  "no line at all\n"
                                                  "\n"
                                                  "*192.168.1.24,pptp,18446744073709551616,1\n"
                                                  "02:00:00:00:00:24,pptp,1,18446744073709551616\n"
                                                  "00:11:22:33:44:66,pptp,18446744073709551615,0\n"
                                                  "*192.168.1.25,vpn,3,4\n");
    insert_mac_usage(0x020000000099ull, 0, TYPE_LAN, 1, 1);

    EXPECT_EQ(load_mac_hour_file(hour), 0);

    EXPECT_EQ(table_entries(), (Entries{
                                   "001122334455 0.0.0.0 1 10240 20480",
                                   "000000000000 192.168.1.20 2 4096 0",
                                   "AABBCCDDEEFF 0.0.0.0 0 1024 1024",
                                   "AABBCCDDEE01 0.0.0.0 5 2048 3072",
                                   "001122334455 0.0.0.0 1 1024 1024",
                                   "000000000000 192.168.1.21 1 7168 8192",
                                   "000000000000 192.168.1.22 1 9216 9216",
                                   "001122334466 0.0.0.0 3 18446744073709550592 0",
                                   "000000000000 192.168.1.25 4 3072 4096",
                               }));
    EXPECT_EQ(mac_usage_count, 9);
}

TEST_F(MacHourly, LoadSkipsLinesWhoseCountersCarryASign)
{
    // The file holds unsigned KiB; a signed count is not one: "-1" would otherwise come
    // back as the largest 64-bit value. Such lines are skipped, the others kept.
    make_mac_dir();
    write_file(mac_dir_file("2024-03-05-14.csv"), "*192.168.1.26,lan,+3,4\n"
                                                  "*192.168.1.27,vpn,-1,0\n"
                                                  "*192.168.1.28,vpn,5,6\n");
    EXPECT_EQ(load_mac_hour_file(local(2024, 3, 5, 14)), 0);
    EXPECT_EQ(table_entries(), (Entries{"000000000000 192.168.1.28 4 5120 6144"}));
}

TEST_F(MacHourly, LoadOfAMissingFileLeavesTheTable)
{
    make_mac_dir();
    write_file(mac_dir_file("2024-03-05-13.csv"), "02:00:00:00:00:13,lan,1,1\n");
    insert_mac_usage(0x020000000099ull, 0, TYPE_LAN, 1, 1);
    EXPECT_EQ(load_mac_hour_file(local(2024, 3, 5, 14)), 0);
    EXPECT_EQ(table_entries(), (Entries{"020000000099 0.0.0.0 1 1 1"}));
    EXPECT_EQ(mac_usage_count, 1);
}

TEST_F(MacHourly, LoadStopsAddingAtSixteenThousandThreeHundredEightyFourEntries)
{
    make_mac_dir();
    std::string content;
    for (uint32_t n = 1; n <= 16390; ++n)
        content += "*" + ten_net_text(n) + ",lan,1,2\n";
    write_file(mac_dir_file("2024-03-05-14.csv"), content);

    EXPECT_EQ(load_mac_hour_file(local(2024, 3, 5, 14)), 0);

    EXPECT_EQ(mac_usage_count, 16384);
    ASSERT_NE(find_address_entry(ten_net(16384), TYPE_LAN), nullptr);
    EXPECT_EQ(show_entry(*find_address_entry(ten_net(16384), TYPE_LAN)), "000000000000 10.0.64.0 1 1024 2048");
    for (uint32_t n = 16385; n <= 16390; ++n)
        EXPECT_EQ(find_address_entry(ten_net(n), TYPE_LAN), nullptr) << n;
}

// ---- The directory ----

TEST_F(MacHourly, HistoryLimitKeepsTheThreeNewestHours)
{
    make_mac_dir();
    for (const char* name : {"2024-03-05-10.csv", "2024-03-05-11.csv", "2024-03-05-12.csv", "2024-03-05-13.csv",
                             "2024-03-05-14.csv"})
        write_file(mac_dir_file(name), "*192.168.1.20,lan,1,1\n");
    plat.clock = local(2024, 3, 5, 14, 30);

    ruvo_client_mac_usage_history_limit();

    EXPECT_EQ(names_in(MAC_DIR),
              (std::vector<std::string>{"2024-03-05-12.csv", "2024-03-05-13.csv", "2024-03-05-14.csv"}));
}

TEST_F(MacHourly, BackupAndClearRunTheirCommands)
{
    EXPECT_EQ(ruvo_client_mac_usage_history_backup(), 0);
    EXPECT_EQ(ruvo_client_mac_usage_history_clear(), 0);
    EXPECT_EQ(plat.commands, (std::vector<std::string>{
                                 "rm -rf /tmp/ruvo_client_mac_hourly;cp -rf /var/run/korel/client_usage_mac_hourly "
                                 "/tmp/ruvo_client_mac_hourly",
                                 "rm -rf /var/run/korel/client_usage_mac_hourly",
                             }));
}

} // namespace

// ---- Tie order of the hourly file and reuse of the tables' storage ----

TEST_F(MacHourly, EqualTotalsKeepTheOrderOfTheBucketsAndOfEachBucketFromItsNewestEntry)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    // All but the last have a total of 2 KiB. Buckets: 0x003 for the first two, 0x001 for
    // the next two (10.0.0.1 by its address).
    insert_mac_usage(0x000000000003ull, 0, TYPE_LAN, 1024, 1024);
    insert_mac_usage(0x000000001003ull, 0, TYPE_LAN, 1024, 1024);
    insert_mac_usage(0, ip("10.0.0.1"), TYPE_PPTP, 1024, 1024);
    insert_mac_usage(0x000000000001ull, 0, TYPE_LAN, 1024, 1024);
    insert_mac_usage(0x000000000fffull, 0, TYPE_LAN, 1024, 1024);
    insert_mac_usage(0x000000000002ull, 0, TYPE_LAN, 0, 4096);

    ruvo_client_mac_usage_save();

    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), "00:00:00:00:00:02,lan,4,0\n"
                                                            "00:00:00:00:00:01,lan,1,1\n"
                                                            "*10.0.0.1,pptp,1,1\n"
                                                            "00:00:00:00:10:03,lan,1,1\n"
                                                            "00:00:00:00:00:03,lan,1,1\n"
                                                            "00:00:00:00:0F:FF,lan,1,1\n");
}

TEST_F(MacHourly, ManyEqualTotalsAreWrittenInTheOrderTheTableGivesThem)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    // 12,000 entries with only five totals, several to a bucket, MACs and addresses mixed:
    // the order of the file, and which tied entries make the 8,192-line cut, is the order
    // of the buckets and, within one, from the entry inserted last.
    std::vector<expected_entry> entries;
    uint32_t seed = 12345;
    for (int i = 0; i < 12000; ++i) {
        seed = seed * 1103515245u + 12345u;
        const uint64_t kib = (seed >> 16) % 5 + 1;
        const uint64_t first = kib << 10, second = 0;
        if (i % 3 == 0) {
            const uint32_t n = static_cast<uint32_t>(i) + 1;
            ASSERT_NE(insert_mac_usage(0, ten_net(n), TYPE_SROUTE, second, first), nullptr);
            entries.push_back({first + second, n & 0xfffu, static_cast<uint64_t>(i),
                               "*" + ten_net_text(n) + ",sroute," + std::to_string(kib) + ",0\n"});
        } else {
            const uint64_t mac = 0x020000000000ull | (static_cast<uint64_t>(i) * 977u % 40000u);
            ASSERT_NE(insert_mac_usage(mac, 0, TYPE_LAN, second, first), nullptr);
            char text[32];
            snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", static_cast<unsigned>(mac >> 40) & 255,
                     static_cast<unsigned>(mac >> 32) & 255, static_cast<unsigned>(mac >> 24) & 255,
                     static_cast<unsigned>(mac >> 16) & 255, static_cast<unsigned>(mac >> 8) & 255,
                     static_cast<unsigned>(mac) & 255);
            entries.push_back({first + second, static_cast<unsigned>(mac & 0xfffu), static_cast<uint64_t>(i),
                               std::string(text) + ",lan," + std::to_string(kib) + ",0\n"});
        }
    }
    const std::string expected = hour_file_of(entries);

    ruvo_client_mac_usage_save();

    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), expected);
}

TEST_F(MacHourly, TotalsThatDifferOnlyInTheirLowestByteMakeTheCutInTheTablesOrder)
{
    make_mac_dir();
    mac_usage_hour = local(2024, 3, 5, 14);
    // 9,000 address entries whose totals share every byte but the lowest (the byte that
    // decides which entries can make the 8,192-line cut), 200 values among them: the file
    // holds the larger totals first, equal ones by bucket and then from the newest.
    std::vector<expected_entry> entries;
    for (uint32_t n = 1; n <= 9000; ++n) {
        const uint64_t first = (uint64_t{5} << 40) + (n * 37u) % 200u;
        ASSERT_NE(insert_mac_usage(0, ten_net(n), TYPE_LAN, 0, first), nullptr);
        entries.push_back({first, n & 0xfffu, n, "*" + ten_net_text(n) + ",lan," + std::to_string(first >> 10) + ",0\n"});
    }
    const std::string expected = hour_file_of(entries);

    ruvo_client_mac_usage_save();

    EXPECT_EQ(read_file(mac_dir_file("2024-03-05-14.csv")), expected);
}

TEST_F(MacUsage, EmptiedTableIsEmptyAndFillsAgainSmallOrLarge)
{
    for (const uint32_t size : {5000u, 100u, 3u, 16384u, 0u, 700u}) {
        empty_mac_usage_table();
        EXPECT_EQ(mac_usage_count, 0);
        for (const mac_usage_entry* head : mac_usage_table)
            ASSERT_EQ(head, nullptr);
        Entries expected;
        for (uint32_t n = 1; n <= size; ++n) {
            const uint64_t mac = n % 2 ? 0x020000000000ull | (n * 31u) : 0;
            const uint32_t address = mac ? 0 : ten_net(n * 7u);
            ASSERT_NE(insert_mac_usage(mac, address, TYPE_LAN, n, size), nullptr);
            expected.insert(show_entry(mac_usage_entry{mac, address, TYPE_LAN, n, size, nullptr}));
        }
        EXPECT_EQ(mac_usage_count, static_cast<int>(size));
        EXPECT_EQ(table_entries(), expected) << size;
    }
}

TEST_F(MacUsageArp, LargeAndSmallSnapshotsFollowEachOtherWithoutLeftovers)
{
    // Readings of 3,000, 5, 2 and again 3,000 entries: each snapshot knows only its own
    // lines, the one before it stays the previous snapshot for one reading.
    auto snapshot = [this](uint32_t clients, uint32_t tag) {
        std::string lines;
        for (uint32_t n = 1; n <= clients; ++n) {
            char mac[32];
            snprintf(mac, sizeof mac, "%02x:00:00:00:%02x:%02x", tag, (n >> 8) & 255, n & 255);
            lines += arp(ten_net_text(n).c_str(), "0x2", mac, "br0");
        }
        set_arp(lines);
        ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    };
    auto mac = [](uint32_t tag, uint32_t n) { return (uint64_t{tag} << 40) | ((n >> 8) & 255) << 8 | (n & 255); };

    snapshot(3000, 0x11);
    EXPECT_EQ(resolve_mac(ten_net(1)), mac(0x11, 1));
    EXPECT_EQ(resolve_mac(ten_net(3000)), mac(0x11, 3000));
    EXPECT_EQ(resolve_mac(ten_net(3001)), 0u);
    ruvo_client_mac_usage_finalize();

    snapshot(5, 0x22);
    EXPECT_EQ(resolve_mac(ten_net(5)), mac(0x22, 5));
    EXPECT_EQ(resolve_mac(ten_net(6)), mac(0x11, 6));
    EXPECT_EQ(resolve_mac(ten_net(3000)), mac(0x11, 3000));
    ruvo_client_mac_usage_finalize();

    snapshot(2, 0x33);
    EXPECT_EQ(resolve_mac(ten_net(2)), mac(0x33, 2));
    EXPECT_EQ(resolve_mac(ten_net(3)), mac(0x22, 3));
    EXPECT_EQ(resolve_mac(ten_net(5)), mac(0x22, 5));
    for (uint32_t n = 6; n <= 3000; ++n)
        ASSERT_EQ(resolve_mac(ten_net(n)), 0u) << n;
    ruvo_client_mac_usage_finalize();

    snapshot(3000, 0x44);
    for (uint32_t n = 1; n <= 3000; ++n)
        ASSERT_EQ(resolve_mac(ten_net(n)), mac(0x44, n)) << n;
    ruvo_client_mac_usage_finalize();

    snapshot(0, 0x55);
    EXPECT_EQ(resolve_mac(ten_net(1)), mac(0x44, 1));
    ruvo_client_mac_usage_finalize();
    snapshot(0, 0x66);
    for (uint32_t n = 1; n <= 3000; ++n)
        ASSERT_EQ(resolve_mac(ten_net(n)), 0u) << n;
}

// ---- Finding a client's entry ----

TEST_F(MacUsage, ChangesInAnotherOrderThanTheEntriesWereMadeEachReachTheirOwnEntry)
{
    // 700 clients with a MAC each, and three entries without one. The second reading leaves
    // out the first 300, lists clients 650 to 699, then 649 down to 300, with a second
    // address of client 650's MAC among them, then the entries without a MAC backwards, and
    // ten new clients.
    auto mac_text = [](uint32_t n) {
        char mac[32];
        snprintf(mac, sizeof mac, "02:00:00:00:%02x:%02x", (n >> 8) & 255, n & 255);
        return std::string(mac);
    };
    std::string lines;
    for (uint32_t n = 0; n < 710; ++n)
        lines += arp(ten_net_text(n).c_str(), "0x2", mac_text(n).c_str(), "br0");
    lines += arp("192.168.9.1", "0x2", mac_text(650).c_str(), "br0");
    set_arp(lines);
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    for (uint32_t n = 0; n < 700; ++n)
        add(ten_net_text(n).c_str(), TYPE_LAN, 2 * (n + 1), n + 1);
    add("192.168.9.9", TYPE_PPTP, 10, 20);
    add("192.168.9.8", TYPE_PPTP, 30, 40);
    add("192.168.9.9", TYPE_VPN, 50, 60);
    ruvo_client_mac_usage_finalize();

    set_arp(lines);
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    std::vector<uint32_t> order;
    for (uint32_t n = 650; n < 700; ++n)
        order.push_back(n);
    for (uint32_t n = 649; n >= 300; --n)
        order.push_back(n);
    for (const uint32_t n : order) {
        add(ten_net_text(n).c_str(), TYPE_LAN, 1, 1);
        if (n == 655)
            add("192.168.9.1", TYPE_LAN, 1000, 1000); // the MAC of client 650
    }
    add("192.168.9.9", TYPE_VPN, 1, 1);
    add("192.168.9.8", TYPE_PPTP, 2, 2);
    add("192.168.9.9", TYPE_PPTP, 3, 3);
    for (uint32_t n = 700; n < 710; ++n)
        add(ten_net_text(n).c_str(), TYPE_LAN, 5, 5);
    ruvo_client_mac_usage_finalize();

    Entries expected;
    for (uint32_t n = 0; n < 710; ++n) {
        const uint64_t mac = 0x020000000000ull | n;
        const uint64_t first = n < 300 ? n + 1 : n < 700 ? n + 2 + (n == 650 ? 1000 : 0) : 5;
        const uint64_t second = n < 300 ? 2 * (n + 1) : n < 700 ? 2 * (n + 1) + 1 + (n == 650 ? 1000 : 0) : 5;
        expected.insert(show_entry(mac_usage_entry{mac, 0, TYPE_LAN, second, first, nullptr}));
    }
    expected.insert("000000000000 192.168.9.9 3 23 13");
    expected.insert("000000000000 192.168.9.8 3 42 32");
    expected.insert("000000000000 192.168.9.9 4 61 51");
    EXPECT_EQ(table_entries(), expected);
    EXPECT_EQ(mac_usage_count, 713);
}

TEST_F(MacUsage, ChangeOfAKeyLoadedTwiceGoesToItsNewerEntry)
{
    // The hour file's lines are not merged: the change goes where the bucket's chain meets
    // the key first, the entry of the later line.
    make_mac_dir();
    const time_t hour = local(2024, 3, 5, 14);
    write_file(mac_dir_file("2024-03-05-14.csv"), "02:00:00:00:00:01,lan,1,1\n"
                                                  "02:00:00:00:00:02,lan,5,5\n"
                                                  "02:00:00:00:00:01,lan,2,2\n");
    ASSERT_EQ(load_mac_hour_file(hour), 0);
    set_arp(arp("192.168.1.10", "0x2", "02:00:00:00:00:01", "br0") +
            arp("192.168.1.11", "0x2", "02:00:00:00:00:02", "br0"));
    ASSERT_EQ(ruvo_client_mac_usage_prepare(), 0);
    add("192.168.1.10", TYPE_LAN, 1024, 1024);
    add("192.168.1.11", TYPE_LAN, 1024, 1024);
    ruvo_client_mac_usage_finalize();

    EXPECT_EQ(table_entries(), (Entries{
                                   "020000000001 0.0.0.0 1 1024 1024",
                                   "020000000002 0.0.0.0 1 6144 6144",
                                   "020000000001 0.0.0.0 1 3072 3072",
                               }));
}
