#include "sandbox.h"

#include "client/client_sources.h"
#include "client/client_table.h"
#include "client/client_usage.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr const char* CONFIG = "/usr/local/velto/conf/config";
constexpr const char* PPTP_USERS = "/var/log/pptpd_user";
constexpr const char* L2TP_USERS = "/var/log/l2tps_user";
constexpr const char* VPN_LINKS = "/proc/korel/config/vpnlinks";
constexpr const char* WANIP_TIMESTAMP = "/var/run/korel/wanip/timestamp";
constexpr const char* WAN_NUMBER = "/etc/VELTO_wanno";

uint32_t ip(const char* text)
{
    struct in_addr a;
    EXPECT_NE(inet_aton(text, &a), 0) << text;
    return a.s_addr;
}

class ClientSources : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        free_client_sources();
        tables.reset(static_cast<client_usage_tables*>(calloc(1, sizeof(client_usage_tables))));
        ASSERT_NE(tables, nullptr);
        for (int kind = PERIOD_HOURLY; kind <= PERIOD_MONTHLY; ++kind)
            tables->table[kind].kind = kind;
    }
    void TearDown() override
    {
        tables.reset();
        free_client_sources();
        Sandbox::TearDown();
    }

    client_table& hourly() { return tables->table[PERIOD_HOURLY]; }

    // Adds clients to every table.
    void add(std::initializer_list<const char*> addresses)
    {
        for (client_table& table : tables->table)
            for (const char* text : addresses)
                ASSERT_NE(add_client(table, ip(text), text), nullptr);
    }

    // The source type of a client of a table; -1 when there is no such client.
    int type_of(const char* text, int kind = PERIOD_HOURLY)
    {
        client_record* r = find_client(tables->table[kind], ip(text));
        return r ? static_cast<int>(r->type) : -1;
    }

    void write_config(const std::string& content, time_t mtime)
    {
        write_file(CONFIG, content);
        set_mtime(CONFIG, mtime);
    }

    // Reloads the routes and classifies the hourly table.
    void reload_and_classify()
    {
        reload_static_routes();
        classify_clients(hourly());
    }

    client_tables_ptr tables;
};

// ---- Source type names and the table helpers ----

TEST_F(ClientSources, TypeNamesInTypeOrder)
{
    EXPECT_STREQ(client_usage_type_name[0], "Total");
    EXPECT_STREQ(client_usage_type_name[1], "lan");
    EXPECT_STREQ(client_usage_type_name[2], "sroute");
    EXPECT_STREQ(client_usage_type_name[3], "pptp");
    EXPECT_STREQ(client_usage_type_name[4], "vpn");
    EXPECT_STREQ(client_usage_type_name[5], "l2tp");
}

TEST_F(ClientSources, TypeNameLengthsAreThoseOfTheNames)
{
    for (int type = 0; type < CLIENT_TYPES; ++type) {
        EXPECT_EQ(client_usage_type_name_length[type], strlen(client_usage_type_name[type])) << type;
        EXPECT_LE(client_usage_type_name_length[type], CLIENT_TYPE_NAME_MAX) << type;
        // The padded copy holds the same name and NUL bytes after it.
        EXPECT_STREQ(client_usage_type_name_padded[type], client_usage_type_name[type]) << type;
        EXPECT_LT(CLIENT_TYPE_NAME_MAX, CLIENT_TYPE_NAME_PADDED);
    }
}

TEST_F(ClientSources, RecordKeepsItsAddressTextNulPaddedWithItsLength)
{
    client_table* table = static_cast<client_table*>(calloc(1, sizeof(client_table)));
    ASSERT_NE(table, nullptr);
    client_record* r = add_client(*table, 1, "10.1.2.3");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->address_length, 8);
    EXPECT_EQ(std::string(r->address_text, sizeof r->address_text), std::string("10.1.2.3") + std::string(8, '\0'));
    // A text of 16 characters or more is cut to 15, as the fixed array holds.
    client_record* longer = add_client(*table, 2, "192.168.100.1000");
    ASSERT_NE(longer, nullptr);
    EXPECT_EQ(longer->address_length, 15);
    EXPECT_STREQ(longer->address_text, "192.168.100.100");
    free_client_records(*table);
    free(table);
}

TEST_F(ClientSources, TypeOfAHistoryNameIsLanForAnyUnknownName)
{
    EXPECT_EQ(client_type_of("lan"), 1);
    EXPECT_EQ(client_type_of("sroute"), 2);
    EXPECT_EQ(client_type_of("pptp"), 3);
    EXPECT_EQ(client_type_of("vpn"), 4);
    EXPECT_EQ(client_type_of("l2tp"), 5);
    EXPECT_EQ(client_type_of("Total"), 1);
    EXPECT_EQ(client_type_of("LAN"), 1);
    EXPECT_EQ(client_type_of(""), 1);
}

TEST_F(ClientSources, NewClientIsPresentWithBaselinePendingAndUnclassified)
{
    client_record* r = add_client(hourly(), ip("192.168.1.10"), "192.168.1.10");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->present, 1u);
    EXPECT_EQ(r->baseline_pending, 1u);
    EXPECT_EQ(r->type, 0u);
    EXPECT_STREQ(r->address_text, "192.168.1.10");
    EXPECT_EQ(r->address, ip("192.168.1.10"));
    for (int type = 0; type < CLIENT_TYPES; ++type) {
        EXPECT_EQ(r->first[type], 0u) << type;
        EXPECT_EQ(r->second[type], 0u) << type;
    }
    EXPECT_EQ(find_client(hourly(), ip("192.168.1.10")), r);
    EXPECT_EQ(find_client(hourly(), ip("192.168.1.11")), nullptr);
    EXPECT_EQ(find_client(tables->table[PERIOD_DAILY], ip("192.168.1.10")), nullptr);
}

TEST_F(ClientSources, ChainIsTheAddressModulo8191FirstOctetMostSignificant)
{
    EXPECT_EQ(client_chain(ip("0.0.0.5")), 5u);
    EXPECT_EQ(client_chain(ip("0.0.31.255")), 0u); // 8191
    EXPECT_EQ(client_chain(ip("0.0.32.0")), 1u);   // 8192
    EXPECT_EQ(client_chain(ip("192.168.1.10")), 1658u);
    EXPECT_EQ(client_chain(ip("192.168.26.143")), 0u);
}

TEST_F(ClientSources, NewClientGoesToTheHeadOfItsChain)
{
    // 192.168.26.153 and 192.168.58.152 are 8191 apart: both in chain 10.
    client_record* older = add_client(hourly(), ip("192.168.26.153"), "192.168.26.153");
    client_record* newer = add_client(hourly(), ip("192.168.58.152"), "192.168.58.152");
    ASSERT_NE(older, nullptr);
    ASSERT_NE(newer, nullptr);
    EXPECT_EQ(hourly().chains[10], newer);
    EXPECT_EQ(newer->next, older);
    EXPECT_EQ(older->next, nullptr);
    EXPECT_EQ(find_client(hourly(), ip("192.168.26.153")), older);
    EXPECT_EQ(find_client(hourly(), ip("192.168.58.152")), newer);
}

TEST_F(ClientSources, PeriodStartOfEachKindInLocalTime)
{
    set_tz("Asia/Kolkata");
    time_t start = 0;
    ASSERT_TRUE(client_period_start(PERIOD_HOURLY, local(2024, 3, 5, 14, 10, 33), &start));
    EXPECT_EQ(show(start), "2024-03-05 14:00:00 IST");
    ASSERT_TRUE(client_period_start(PERIOD_DAILY, local(2024, 3, 5, 14, 10, 33), &start));
    EXPECT_EQ(show(start), "2024-03-05 00:00:00 IST");
    ASSERT_TRUE(client_period_start(PERIOD_MONTHLY, local(2024, 3, 5, 14, 10, 33), &start));
    EXPECT_EQ(show(start), "2024-03-01 00:00:00 IST");
    start = 77;
    EXPECT_FALSE(client_period_start(3, local(2024, 3, 5, 14, 10, 33), &start));
    EXPECT_FALSE(client_period_start(-1, local(2024, 3, 5, 14, 10, 33), &start));
    EXPECT_EQ(start, 77);
}

// ---- Static routes ----

TEST_F(ClientSources, StaticRouteMarksOnlyTheClientAtItsNetworkAddress)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.50.0/24:192.168.1.254:1\n", 1000);
    add({"192.168.50.0", "192.168.50.7", "192.168.1.20"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_SROUTE);
    EXPECT_EQ(type_of("192.168.50.7"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.1.20"), TYPE_LAN);
}

TEST_F(ClientSources, StaticRouteKeyIsTheNetworkAndedWithTheNetmask)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.50.77/24:192.168.1.254:1\n", 1000);
    add({"192.168.50.0", "192.168.50.77"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_SROUTE);
    EXPECT_EQ(type_of("192.168.50.77"), TYPE_LAN);
}

TEST_F(ClientSources, PrefixLengthEightGivesNetmask255000)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=10.1.2.3/8:192.168.1.254:1\n", 1000);
    add({"10.0.0.0", "10.1.0.0", "10.1.2.0", "10.1.2.3"});
    reload_and_classify();
    EXPECT_EQ(type_of("10.0.0.0"), TYPE_SROUTE);
    EXPECT_EQ(type_of("10.1.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.1.2.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.1.2.3"), TYPE_LAN);
}

TEST_F(ClientSources, PrefixLengthZeroGivesTheAllOnesNetmask)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=10.1.2.3/0:192.168.1.254:1\n", 1000);
    add({"10.1.2.3", "10.0.0.0", "0.0.0.0"});
    reload_and_classify();
    // 255.255.255.255: the key is the network text itself; a zero mask would give 0.0.0.0.
    EXPECT_EQ(type_of("10.1.2.3"), TYPE_SROUTE);
    EXPECT_EQ(type_of("10.0.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("0.0.0.0"), TYPE_LAN);
}

TEST_F(ClientSources, PrefixLength32KeepsTheWholeAddress)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=172.16.5.9/32:192.168.1.254:1\n", 1000);
    add({"172.16.5.9", "172.16.5.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("172.16.5.9"), TYPE_SROUTE);
    EXPECT_EQ(type_of("172.16.5.0"), TYPE_LAN);
}

TEST_F(ClientSources, RouteValueWithoutColonStillCounts)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.70.0/24\n", 1000);
    add({"192.168.70.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.70.0"), TYPE_SROUTE);
}

TEST_F(ClientSources, OnlyTheRoutesNamedInTheOrderAreRead)
{
    write_config("LAN_STROUTE_ORDER=3 1\n"
                 "LAN_STROUTE1=192.168.50.0/24:192.168.1.254:1\n"
                 "LAN_STROUTE2=192.168.60.0/24:192.168.1.254:1\n"
                 "LAN_STROUTE3=192.168.70.0/24:192.168.1.254:1\n",
                 1000);
    add({"192.168.50.0", "192.168.60.0", "192.168.70.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_SROUTE);
    EXPECT_EQ(type_of("192.168.60.0"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.70.0"), TYPE_SROUTE);
}

TEST_F(ClientSources, NoRouteOrderMeansNoRoutes)
{
    write_config("LAN_STROUTE1=192.168.50.0/24:192.168.1.254:1\n", 1000);
    add({"192.168.50.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_LAN);
}

TEST_F(ClientSources, RouteValueWithoutPrefixLengthIsNetworkZeroNetmaskZero)
{
    write_config("LAN_STROUTE_ORDER=1 2 3 4\n"
                 "LAN_STROUTE1=192.168.60.0:192.168.1.254:1\n"
                 "LAN_STROUTE2=192.168.61.0/:192.168.1.254:1\n"
                 "LAN_STROUTE4=192.168.50.0/24:192.168.1.254:1\n",
                 1000);
    add({"192.168.60.0", "192.168.60.7", "192.168.61.0", "192.168.50.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.60.0"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.60.7"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.61.0"), TYPE_LAN);
    // The routes after them still count.
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_SROUTE);
}

TEST_F(ClientSources, RouteWithoutPrefixLengthSelectsAClientAtAddressZero)
{
    // Network 0 AND netmask 0 is the key 0.0.0.0.
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.60.0\n", 1000);
    add({"0.0.0.0", "192.168.60.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("0.0.0.0"), TYPE_SROUTE);
    EXPECT_EQ(type_of("192.168.60.0"), TYPE_LAN);
}

TEST_F(ClientSources, MissingConfigurationMeansNoRoutes)
{
    add({"192.168.50.0", "0.0.0.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_LAN);
    EXPECT_EQ(type_of("0.0.0.0"), TYPE_LAN);
}

TEST_F(ClientSources, UnchangedConfigurationTimeKeepsTheRoutes)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.50.0/24:x\n", 1000);
    add({"192.168.50.0", "192.168.60.0"});
    reload_and_classify();
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.60.0/24:x\n", 1000);
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_SROUTE);
    EXPECT_EQ(type_of("192.168.60.0"), TYPE_LAN);
}

TEST_F(ClientSources, ChangedConfigurationTimeReloadsTheRoutes)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.50.0/24:x\n", 1000);
    add({"192.168.50.0", "192.168.60.0"});
    reload_and_classify();
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.60.0/24:x\n", 999);
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.60.0"), TYPE_SROUTE);
}

TEST_F(ClientSources, RemovedConfigurationDropsTheRoutes)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.50.0/24:x\n", 1000);
    add({"192.168.50.0"});
    reload_and_classify();
    ASSERT_EQ(type_of("192.168.50.0"), TYPE_SROUTE);
    ASSERT_EQ(unlink(real(CONFIG).c_str()), 0);
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_LAN);
}

TEST_F(ClientSources, NextReadingReloadsRoutesOnlyWhenTheConfigurationTimeChanged)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.50.0/24:x\n", 1000);
    add({"192.168.50.0", "192.168.60.0"});
    plat.clock = local(2024, 3, 5, 14, 10);
    read_client_usage(tables.get());
    for (int kind = PERIOD_HOURLY; kind <= PERIOD_MONTHLY; ++kind) {
        EXPECT_EQ(type_of("192.168.50.0", kind), TYPE_SROUTE) << kind;
        EXPECT_EQ(type_of("192.168.60.0", kind), TYPE_LAN) << kind;
    }

    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.60.0/24:x\n", 1000);
    plat.clock = local(2024, 3, 5, 14, 10, 30);
    read_client_usage(tables.get());
    for (int kind = PERIOD_HOURLY; kind <= PERIOD_MONTHLY; ++kind) {
        EXPECT_EQ(type_of("192.168.50.0", kind), TYPE_SROUTE) << kind;
        EXPECT_EQ(type_of("192.168.60.0", kind), TYPE_LAN) << kind;
    }

    set_mtime(CONFIG, 2000);
    plat.clock = local(2024, 3, 5, 14, 11);
    read_client_usage(tables.get());
    for (int kind = PERIOD_HOURLY; kind <= PERIOD_MONTHLY; ++kind) {
        EXPECT_EQ(type_of("192.168.50.0", kind), TYPE_LAN) << kind;
        EXPECT_EQ(type_of("192.168.60.0", kind), TYPE_SROUTE) << kind;
    }
}

// ---- User files ----

TEST_F(ClientSources, PptpUsersSkipBlankAndUnquotedLinesAndKeepTheRest)
{
    write_file(PPTP_USERS, "\n"
                           "\r\n"
                           "carol 192.168.1.30 ppp0\n"
                           "\"alice\" 192.168.1.31 ppp1\n"
                           "\"\" 192.168.1.32 ppp2\n"
                           " \"dave\" 192.168.1.34 ppp4\n"
                           "\"erin\"\n"
                           "\"bob\" 192.168.1.33 ppp3\n"
                           "\"frank\" 192.168.1.35\n");
    add({"192.168.1.30", "192.168.1.31", "192.168.1.32", "192.168.1.33", "192.168.1.34", "192.168.1.35"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.1.30"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.1.31"), TYPE_PPTP);
    EXPECT_EQ(type_of("192.168.1.32"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.1.33"), TYPE_PPTP);
    EXPECT_EQ(type_of("192.168.1.34"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.1.35"), TYPE_PPTP);
}

TEST_F(ClientSources, UserFileAddressThatDoesNotConvertIsSkipped)
{
    write_file(PPTP_USERS, "\"alice\" 192.168.1.300 ppp0\n"
                           "\"bob\" ... ppp1\n"
                           "\"carol\" 192.168.1.33 ppp2\n");
    add({"192.168.1.30", "192.168.1.33"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.1.30"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.1.33"), TYPE_PPTP);
}

TEST_F(ClientSources, UserOfNoKnownClientChangesNothing)
{
    write_file(PPTP_USERS, "\"alice\" 192.168.1.99 ppp0\n");
    add({"192.168.1.31"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.1.31"), TYPE_LAN);
    EXPECT_EQ(find_client(hourly(), ip("192.168.1.99")), nullptr);
}

TEST_F(ClientSources, L2tpUsersAreL2tpAndOverridePptp)
{
    write_file(PPTP_USERS, "\"alice\" 192.168.1.31 ppp0\n\"bob\" 192.168.1.32 ppp1\n");
    write_file(L2TP_USERS, "\n\"bob\" 192.168.1.32 ppp2\nnobody 192.168.1.33\n\"carol\" 192.168.1.34 ppp3\n");
    add({"192.168.1.31", "192.168.1.32", "192.168.1.33", "192.168.1.34"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.1.31"), TYPE_PPTP);
    EXPECT_EQ(type_of("192.168.1.32"), TYPE_L2TP);
    EXPECT_EQ(type_of("192.168.1.33"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.1.34"), TYPE_L2TP);
}

TEST_F(ClientSources, UserFilesOverrideStaticRoutes)
{
    write_config("LAN_STROUTE_ORDER=1 2\nLAN_STROUTE1=192.168.50.0/24:x\nLAN_STROUTE2=192.168.60.0/24:x\n", 1000);
    write_file(PPTP_USERS, "\"alice\" 192.168.50.0 ppp0\n");
    write_file(L2TP_USERS, "\"bob\" 192.168.60.0 ppp1\n");
    add({"192.168.50.0", "192.168.60.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_PPTP);
    EXPECT_EQ(type_of("192.168.60.0"), TYPE_L2TP);
}

// ---- VPN links ----

TEST_F(ClientSources, VpnLinkMarksTheClientAtItsNetwork)
{
    write_file(VPN_LINKS, "1 net 10.8.0.0 255.255.255.0\n"
                          "4 net 10.12.3.4 255.255.0.0\n");
    add({"10.8.0.0", "10.8.0.5", "10.12.0.0", "10.12.3.4"});
    reload_and_classify();
    EXPECT_EQ(type_of("10.8.0.0"), TYPE_VPN);
    EXPECT_EQ(type_of("10.8.0.5"), TYPE_LAN);
    EXPECT_EQ(type_of("10.12.0.0"), TYPE_VPN);
    EXPECT_EQ(type_of("10.12.3.4"), TYPE_LAN);
}

TEST_F(ClientSources, PptpUserUnderAVpnLinkIsVpn)
{
    write_file(PPTP_USERS, "\"alice\" 10.8.0.0 ppp0\n\"bob\" 192.168.1.31 ppp1\n");
    write_file(VPN_LINKS, "7 net 10.8.0.0 255.255.255.0\n");
    add({"10.8.0.0", "192.168.1.31"});
    reload_and_classify();
    EXPECT_EQ(type_of("10.8.0.0"), TYPE_VPN);
    EXPECT_EQ(type_of("192.168.1.31"), TYPE_PPTP);
}

TEST_F(ClientSources, VpnLinkIsTheLastSourceOverEveryOther)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=10.8.0.0/24:x\n", 1000);
    write_file(PPTP_USERS, "\"alice\" 10.8.0.0 ppp0\n");
    write_file(L2TP_USERS, "\"bob\" 10.8.0.0 ppp1\n");
    write_file(VPN_LINKS, "1 net 10.8.0.0 255.255.255.0\n");
    add({"10.8.0.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("10.8.0.0"), TYPE_VPN);
}

TEST_F(ClientSources, VpnLinkNumberMustBeFrom1To1024)
{
    write_file(VPN_LINKS, "0 net 10.1.0.0 255.255.0.0\n"
                          "1025 net 10.2.0.0 255.255.0.0\n"
                          "-3 net 10.3.0.0 255.255.0.0\n"
                          "x net 10.4.0.0 255.255.0.0\n"
                          "1 net 10.5.0.0 255.255.0.0\n"
                          "1024 net 10.6.0.0 255.255.0.0\n");
    add({"10.1.0.0", "10.2.0.0", "10.3.0.0", "10.4.0.0", "10.5.0.0", "10.6.0.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("10.1.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.2.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.3.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.4.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.5.0.0"), TYPE_VPN);
    EXPECT_EQ(type_of("10.6.0.0"), TYPE_VPN);
}

TEST_F(ClientSources, VpnLineOtherThanNetIsSkipped)
{
    write_file(VPN_LINKS, "\n"
                          "\r\n"
                          "2 host 10.1.0.0 255.255.0.0\n"
                          "3 network 10.2.0.0 255.255.0.0\n"
                          "4 NET 10.3.0.0 255.255.0.0\n"
                          "5\n"
                          "6 net 10.4.0.0\n"
                          "7 net\n"
                          "8 net 10.5.0.0 255.255.0.0\n");
    add({"10.1.0.0", "10.2.0.0", "10.3.0.0", "10.4.0.0", "0.0.0.0", "10.5.0.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("10.1.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.2.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.3.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.4.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("0.0.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.5.0.0"), TYPE_VPN);
}

TEST_F(ClientSources, VpnAddressThatDoesNotConvertIsSkipped)
{
    write_file(VPN_LINKS, "1 net 10.1.0.0 255.255.256.0\n"
                          "2 net 10.2.0.300 255.255.0.0\n"
                          "3 net 10.3.0.0 255.255.0.0\n");
    add({"10.1.0.0", "10.2.0.0", "0.0.0.0", "10.3.0.0"});
    reload_and_classify();
    EXPECT_EQ(type_of("10.1.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.2.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("0.0.0.0"), TYPE_LAN);
    EXPECT_EQ(type_of("10.3.0.0"), TYPE_VPN);
}

// ---- Classification ----

TEST_F(ClientSources, ClassificationStartsEveryClientAsLan)
{
    add({"192.168.1.10", "192.168.1.11"});
    find_client(hourly(), ip("192.168.1.10"))->type = TYPE_VPN;
    find_client(hourly(), ip("192.168.1.11"))->type = TYPE_SROUTE;
    classify_clients(hourly());
    EXPECT_EQ(type_of("192.168.1.10"), TYPE_LAN);
    EXPECT_EQ(type_of("192.168.1.11"), TYPE_LAN);
}

TEST_F(ClientSources, ClientLeavingItsSourceBecomesLanAgain)
{
    write_file(PPTP_USERS, "\"alice\" 192.168.1.31 ppp0\n");
    add({"192.168.1.31"});
    reload_and_classify();
    ASSERT_EQ(type_of("192.168.1.31"), TYPE_PPTP);
    write_file(PPTP_USERS, "\"bob\" 192.168.1.32 ppp0\n");
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.1.31"), TYPE_LAN);
}

TEST_F(ClientSources, EachTableIsClassifiedOnItsOwn)
{
    write_file(PPTP_USERS, "\"alice\" 192.168.1.31 ppp0\n");
    add({"192.168.1.31"});
    classify_clients(tables->table[PERIOD_DAILY]);
    EXPECT_EQ(type_of("192.168.1.31", PERIOD_HOURLY), 0);
    EXPECT_EQ(type_of("192.168.1.31", PERIOD_DAILY), TYPE_PPTP);
    EXPECT_EQ(type_of("192.168.1.31", PERIOD_MONTHLY), 0);
}

// ---- WAN addresses ----

TEST_F(ClientSources, WanAddressesComeFromEveryWanFile)
{
    write_file(WAN_NUMBER, "2\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    write_file("/var/run/korel/wanip/wan2", "gateway 100.64.0.9 dns 8.8.8.8\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
    EXPECT_TRUE(is_wan_address("100.64.0.9"));
    EXPECT_TRUE(is_wan_address("8.8.8.8"));
    EXPECT_FALSE(is_wan_address("10.0.0.3"));
    EXPECT_FALSE(is_wan_address("192.168.1.1"));
}

TEST_F(ClientSources, WanAddressIsATextComparison)
{
    write_file(WAN_NUMBER, "1\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
    EXPECT_FALSE(is_wan_address("10.0.0.02"));
    EXPECT_FALSE(is_wan_address("10.0.0.2 "));
}

TEST_F(ClientSources, WanAddressesAreFoundWhateverTheOtherAddressesLengthsAndFirstDigits)
{
    // The set's lengths and first characters pass a line over before any comparison;
    // only a text that matches both is compared whole.
    write_file(WAN_NUMBER, "1\n");
    write_file("/var/run/korel/wanip/wan1", "7.7.7.7 203.0.113.77 1.2.3.4\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("7.7.7.7"));
    EXPECT_TRUE(is_wan_address("203.0.113.77"));
    EXPECT_TRUE(is_wan_address("1.2.3.4"));
    // A WAN address's first digit, another length.
    EXPECT_FALSE(is_wan_address("7.7.7.77"));
    EXPECT_FALSE(is_wan_address("203.0.113.7"));
    // A WAN address's length, another first digit.
    EXPECT_FALSE(is_wan_address("8.7.7.7"));
    EXPECT_FALSE(is_wan_address("103.0.113.77"));
    // Both, and still another address.
    EXPECT_FALSE(is_wan_address("1.2.3.5"));
    EXPECT_FALSE(is_wan_address("203.0.113.78"));
    EXPECT_FALSE(is_wan_address(""));
}

TEST_F(ClientSources, MissingWanFileIsPassedOver)
{
    write_file(WAN_NUMBER, "3\n");
    write_file("/var/run/korel/wanip/wan2", "10.0.0.2\n");
    write_file("/var/run/korel/wanip/wan3", "10.0.0.3\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
    EXPECT_TRUE(is_wan_address("10.0.0.3"));
}

TEST_F(ClientSources, NoWanAddressesBeforeAnyRebuild)
{
    EXPECT_FALSE(is_wan_address("10.0.0.2"));
    EXPECT_FALSE(is_wan_address(""));
}

TEST_F(ClientSources, WanSetIsRebuiltAtEveryReadingWhileTheTimestampIsMissing)
{
    write_file(WAN_NUMBER, "1\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    reload_wan_addresses();
    ASSERT_TRUE(is_wan_address("10.0.0.2"));
    write_file("/var/run/korel/wanip/wan1", "10.0.0.3\n");
    reload_wan_addresses();
    EXPECT_FALSE(is_wan_address("10.0.0.2"));
    EXPECT_TRUE(is_wan_address("10.0.0.3"));
    write_file("/var/run/korel/wanip/wan1", "10.0.0.4\n");
    reload_wan_addresses();
    EXPECT_FALSE(is_wan_address("10.0.0.3"));
    EXPECT_TRUE(is_wan_address("10.0.0.4"));
}

TEST_F(ClientSources, WanSetIsNoLongerRebuiltOnceTheTimestampHasAnotherTime)
{
    write_file(WAN_NUMBER, "1\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    reload_wan_addresses();
    ASSERT_TRUE(is_wan_address("10.0.0.2"));

    write_file(WANIP_TIMESTAMP, "1709647200\n");
    set_mtime(WANIP_TIMESTAMP, 5000);
    write_file("/var/run/korel/wanip/wan1", "10.0.0.3\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
    EXPECT_FALSE(is_wan_address("10.0.0.3"));

    // Nor when the timestamp changes again: the remembered time is still that of the
    // last rebuild.
    set_mtime(WANIP_TIMESTAMP, 6000);
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
    EXPECT_FALSE(is_wan_address("10.0.0.3"));
}

TEST_F(ClientSources, WanSetIsRebuiltWhenTheTimestampEqualsTheRememberedTime)
{
    write_file(WAN_NUMBER, "1\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    write_file(WANIP_TIMESTAMP, "");
    set_mtime(WANIP_TIMESTAMP, 5000);
    reload_wan_addresses();
    EXPECT_FALSE(is_wan_address("10.0.0.2"));

    // The remembered time starts at 0: a timestamp file dated 0 matches it.
    set_mtime(WANIP_TIMESTAMP, 0);
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
    write_file("/var/run/korel/wanip/wan1", "10.0.0.3\n");
    set_mtime(WANIP_TIMESTAMP, 0);
    reload_wan_addresses();
    EXPECT_FALSE(is_wan_address("10.0.0.2"));
    EXPECT_TRUE(is_wan_address("10.0.0.3"));
}

TEST_F(ClientSources, WanCountIsReadOnce)
{
    write_file(WAN_NUMBER, "1\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    write_file("/var/run/korel/wanip/wan2", "10.0.0.3\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
    EXPECT_FALSE(is_wan_address("10.0.0.3"));
    write_file(WAN_NUMBER, "2\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
    EXPECT_FALSE(is_wan_address("10.0.0.3"));
}

TEST_F(ClientSources, WithoutWanCountFileNothingIsRebuiltUntilItAppears)
{
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    reload_wan_addresses();
    EXPECT_FALSE(is_wan_address("10.0.0.2"));
    write_file(WAN_NUMBER, "1\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
}

TEST_F(ClientSources, WanCountFileWithoutNumberReadsNoWanFile)
{
    write_file(WAN_NUMBER, "none\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    reload_wan_addresses();
    EXPECT_FALSE(is_wan_address("10.0.0.2"));
    // A count still 0 is read again at the next rebuild.
    write_file(WAN_NUMBER, "1\n");
    reload_wan_addresses();
    EXPECT_TRUE(is_wan_address("10.0.0.2"));
}

TEST_F(ClientSources, FreeingTheSourcesForgetsRoutesAndWanAddresses)
{
    write_config("LAN_STROUTE_ORDER=1\nLAN_STROUTE1=192.168.50.0/24:x\n", 1000);
    write_file(WAN_NUMBER, "1\n");
    write_file("/var/run/korel/wanip/wan1", "10.0.0.2\n");
    add({"192.168.50.0"});
    reload_static_routes();
    reload_wan_addresses();
    ASSERT_TRUE(is_wan_address("10.0.0.2"));
    free_client_sources();
    EXPECT_FALSE(is_wan_address("10.0.0.2"));
    classify_clients(hourly());
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_LAN);
    // The configuration is read again afterwards even though its time did not change.
    reload_and_classify();
    EXPECT_EQ(type_of("192.168.50.0"), TYPE_SROUTE);
}

} // namespace
