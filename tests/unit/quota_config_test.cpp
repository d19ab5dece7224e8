#include "sandbox.h"

#include "core/quota_config.h"

#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr const char* CONFIG = "/usr/local/velto/conf/config";

class QuotaConfig : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        wan.assign(2, wan_usage{});
        for (int i = 0; i < 2; ++i) {
            wan[i].wan_index = i;
            wan[i].sim_slot_index = -1;
        }
    }
    void load() { load_wan_quota_config(wan.data(), static_cast<int>(wan.size()), &mtime); }
    std::vector<wan_usage> wan;
    time_t mtime = -1;
};

TEST_F(QuotaConfig, KeysAreCopiedIntoWanRecords)
{
    write_file(CONFIG, "WAN1_NAME=Fibre\nWAN1_USAGE_QUOTA=500\nWAN1_USAGE_ACTION=email,disconnect\n"
                       "WAN2_NAME=\"LTE backup\"\nWAN2_USAGE_ACTION=disconnect\nSNMP_NAME=Office\n");
    set_mtime(CONFIG, 1000);
    load();
    EXPECT_STREQ(wan[0].wan_name, "Fibre");
    EXPECT_EQ(wan[0].quota_bytes, 524288000u);
    EXPECT_EQ(wan[0].usage_action, 3u);
    EXPECT_STREQ(wan[0].snmp_name, "Office");
    EXPECT_STREQ(wan[1].wan_name, "LTE backup");
    EXPECT_EQ(wan[1].quota_bytes, 0u);
    EXPECT_EQ(wan[1].usage_action, 2u);
    EXPECT_STREQ(wan[1].snmp_name, "Office");
    EXPECT_EQ(mtime, 1000);
}

TEST_F(QuotaConfig, QuotaOf1024MegabytesIs1073741824Bytes)
{
    write_file(CONFIG, "WAN1_USAGE_QUOTA=1024\n");
    load();
    EXPECT_EQ(wan[0].quota_bytes, 1073741824u);
}

TEST_F(QuotaConfig, ActionWithCapitalEmailSetsNoBit)
{
    write_file(CONFIG, "WAN1_USAGE_ACTION=Email\nWAN2_USAGE_ACTION=Disconnect,email\n");
    load();
    EXPECT_EQ(wan[0].usage_action, 0u);
    EXPECT_EQ(wan[1].usage_action, 1u);
}

TEST_F(QuotaConfig, MissingKeysGiveTheDefaults)
{
    wan[0].start_day = 9;
    wan[0].billing_day_applied = 9;
    wan[0].billing_start = 12345;
    wan[0].billing_end = 67890;
    wan[0].quota_bytes = 5;
    wan[0].usage_action = 3;
    snprintf(wan[0].wan_name, sizeof wan[0].wan_name, "old");
    write_file(CONFIG, "# nothing about WAN 1\nOTHER=1\n");
    load();
    EXPECT_EQ(wan[0].start_day, -1);
    EXPECT_EQ(wan[0].billing_day_applied, 0);
    EXPECT_EQ(wan[0].billing_start, 0);
    EXPECT_EQ(wan[0].billing_end, 0);
    EXPECT_EQ(wan[0].quota_bytes, 0u);
    EXPECT_EQ(wan[0].usage_action, 0u);
    EXPECT_STREQ(wan[0].wan_name, "");
    EXPECT_STREQ(wan[0].snmp_name, "");
}

TEST_F(QuotaConfig, NonNumericValuesConvertAsStrtolDoes)
{
    // Values are not range-checked: text converts to 0 (a start day of 0 is the last day of
    // the month; an allowance of 0 is no allowance), a number followed by text keeps the
    // number, and a negative allowance wraps in unsigned arithmetic.
    write_file(CONFIG, "WAN1_USAGE_START_DAY=abc\nWAN1_USAGE_QUOTA=lots\n"
                       "WAN2_USAGE_START_DAY=12th\nWAN2_USAGE_QUOTA=-1\n");
    load();
    EXPECT_EQ(wan[0].start_day, 0);
    EXPECT_EQ(wan[0].quota_bytes, 0u);
    EXPECT_EQ(wan[1].start_day, 12);
    EXPECT_EQ(wan[1].quota_bytes, 18446744073708503040ull); // 2^64 - 2^20
}

TEST_F(QuotaConfig, HugeStartDayIsHeldAtIntRangeAndDoesNotHang)
{
    write_file(CONFIG, "WAN1_USAGE_START_DAY=99999999999999999999\nWAN2_USAGE_START_DAY=-99999999999\n");
    load();
    EXPECT_EQ(wan[0].start_day, 2147483647);
    EXPECT_EQ(wan[1].start_day, -2147483647 - 1);
}

TEST_F(QuotaConfig, NamesLongerThan127BytesAreCutTo127)
{
    std::string name(300, 'n');
    std::string router(200, 'r');
    write_file(CONFIG, "WAN1_NAME=" + name + "\nSNMP_NAME=" + router + "\n");
    load();
    EXPECT_EQ(std::string(wan[0].wan_name), std::string(127, 'n'));
    EXPECT_EQ(std::string(wan[0].snmp_name), std::string(127, 'r'));
}

TEST_F(QuotaConfig, MissingFileChangesNothingAndIsRetried)
{
    wan[0].quota_bytes = 77;
    load();
    EXPECT_EQ(wan[0].quota_bytes, 77u);
    EXPECT_EQ(mtime, -1);
    write_file(CONFIG, "WAN1_USAGE_QUOTA=1\n");
    set_mtime(CONFIG, 2000);
    load();
    EXPECT_EQ(wan[0].quota_bytes, 1048576u);
    EXPECT_EQ(mtime, 2000);
}

TEST_F(QuotaConfig, UnreadableFileChangesNothingAndIsRetried)
{
    // A directory at the file's name can be stat'ed but not read as a file.
    ASSERT_EQ(mkdir(real("/usr").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(real("/usr/local").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(real("/usr/local/velto").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(real("/usr/local/velto/conf").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(real(CONFIG).c_str(), 0755), 0);
    wan[0].quota_bytes = 77;
    load();
    EXPECT_EQ(wan[0].quota_bytes, 77u);
    EXPECT_EQ(mtime, -1);
}

TEST_F(QuotaConfig, UnchangedModificationTimeDoesNotReload)
{
    write_file(CONFIG, "WAN1_USAGE_QUOTA=1\n");
    set_mtime(CONFIG, 3000);
    load();
    wan[0].quota_bytes = 99;
    load();
    EXPECT_EQ(wan[0].quota_bytes, 99u);
}

TEST_F(QuotaConfig, TouchingFileWithoutChangeReloadsEveryRecordOnce)
{
    write_file(CONFIG, "WAN1_USAGE_QUOTA=1\nWAN2_USAGE_QUOTA=2\n");
    set_mtime(CONFIG, 3000);
    load();
    wan[0].quota_bytes = 99;
    wan[1].quota_bytes = 98;
    set_mtime(CONFIG, 3001); // touched, content unchanged
    load();
    EXPECT_EQ(wan[0].quota_bytes, 1048576u);
    EXPECT_EQ(wan[1].quota_bytes, 2097152u);
    wan[0].quota_bytes = 99;
    load(); // once only
    EXPECT_EQ(wan[0].quota_bytes, 99u);
}

TEST_F(QuotaConfig, EveryRecordUsesTheFirstRecordsStartDay)
{
    write_file(CONFIG, "WAN1_USAGE_START_DAY=15\nWAN2_USAGE_START_DAY=1\n");
    wan[0].billing_start = local(2024, 3, 15);
    wan[1].billing_start = local(2024, 3, 15);
    load();
    EXPECT_EQ(wan[0].start_day, 15);
    EXPECT_EQ(wan[1].start_day, 1);
    EXPECT_EQ(show(wan[0].billing_end), "2024-04-14 23:59:59 UTC");
    EXPECT_EQ(show(wan[1].billing_end), "2024-04-14 23:59:59 UTC");
}

TEST_F(QuotaConfig, StartDay15FromMarch15EndsApril14AtLastSecond)
{
    write_file(CONFIG, "WAN1_USAGE_START_DAY=15\n");
    wan[0].billing_start = local(2024, 3, 15);
    load();
    EXPECT_EQ(show(wan[0].billing_end), "2024-04-14 23:59:59 UTC");
    EXPECT_EQ(wan[0].billing_start, local(2024, 3, 15)); // only moved by the rollover
}

TEST_F(QuotaConfig, StartDay0FromJanuary31EndsFebruary27InCommonYear)
{
    write_file(CONFIG, "WAN1_USAGE_START_DAY=0\n");
    wan[0].billing_start = local(2023, 1, 31);
    load();
    EXPECT_EQ(wan[0].start_day, 0);
    EXPECT_EQ(show(wan[0].billing_end), "2023-02-27 23:59:59 UTC");
}

TEST_F(QuotaConfig, StartDay0FromJanuary31EndsFebruary28InLeapYear)
{
    write_file(CONFIG, "WAN1_USAGE_START_DAY=0\n");
    wan[0].billing_start = local(2024, 1, 31);
    load();
    EXPECT_EQ(show(wan[0].billing_end), "2024-02-28 23:59:59 UTC");
}

TEST_F(QuotaConfig, SimRecordsUseTheCellularKeys)
{
    std::vector<wan_usage> sims(2, wan_usage{});
    for (int s = 0; s < 2; ++s) {
        sims[s].wan_index = 2;
        sims[s].sim_slot_index = 0;
        sims[s].sim_number = s + 1;
    }
    write_file(CONFIG, "WAN3_NAME=Cell\nPIF3_GOBI_USAGE_QUOTA=10\nPIF3_GOBI_USAGE_ACTION=email\n"
                       "PIF3_GOBI_USAGE_QUOTA_2=20\nPIF3_GOBI_USAGE_ACTION_2=disconnect\n"
                       "PIF3_GOBI_USAGE_START_DAY=5\nPIF3_GOBI_USAGE_START_DAY_2=9\n"
                       "WAN3_USAGE_QUOTA=999\n");
    time_t sim_mtime = -1;
    load_wan_quota_config(sims.data(), 2, &sim_mtime);
    EXPECT_STREQ(sims[0].wan_name, "Cell");
    EXPECT_STREQ(sims[1].wan_name, "Cell");
    EXPECT_EQ(sims[0].quota_bytes, 10u << 20);
    EXPECT_EQ(sims[1].quota_bytes, 20u << 20);
    EXPECT_EQ(sims[0].usage_action, 1u);
    EXPECT_EQ(sims[1].usage_action, 2u);
    EXPECT_EQ(sims[0].start_day, 5);
    EXPECT_EQ(sims[1].start_day, 9);
    // Both ends are worked out with the first record's day, 5, from billing_start 0.
    EXPECT_EQ(show(sims[1].billing_end), "1970-01-04 23:59:59 UTC");
}

TEST_F(QuotaConfig, GetConfigTimeIsZeroForMissingFile)
{
    EXPECT_EQ(get_config_time(CONFIG), 0);
    write_file(CONFIG, "");
    set_mtime(CONFIG, 4242);
    EXPECT_EQ(get_config_time(CONFIG), 4242);
}

// The end of the cycle after a start, for start days and calendars where mktime's
// normalisation decides.
struct billing_case {
    const char* zone;
    int d;
    int year, month, day; // billing_start, local midnight
    const char* end;
};

TEST_F(QuotaConfig, BillingEndFollowsTheCalendarInEveryZone)
{
    const billing_case cases[] = {
        {"UTC", 15, 2024, 3, 15, "2024-04-14 23:59:59 UTC"},
        {"UTC", 1, 2024, 12, 1, "2024-12-31 23:59:59 UTC"},        // month 12 carries into January
        {"UTC", 31, 2024, 4, 1, "2024-05-30 23:59:59 UTC"},        // the next cycle starts 31 May
        {"UTC", 31, 2024, 1, 31, "2024-03-01 23:59:59 UTC"},       // 31 February is 2 March
        {"UTC", 0, 2024, 2, 29, "2024-03-30 23:59:59 UTC"},
        {"UTC", 0, 2024, 1, 15, "2024-01-30 23:59:59 UTC"},        // steps back to 31 December
        {"UTC", 29, 2023, 1, 29, "2023-02-28 23:59:59 UTC"},       // 29 February 2023 is 1 March
        {"Europe/Berlin", 31, 2024, 3, 1, "2024-03-30 23:59:59 CET"},   // spring forward on 31 March
        {"Europe/Berlin", 27, 2024, 9, 27, "2024-10-26 23:59:59 CEST"}, // fall back on 27 October
        {"America/New_York", 10, 2024, 2, 10, "2024-03-09 23:59:59 EST"},
        {"America/New_York", 3, 2024, 10, 3, "2024-11-02 23:59:59 EDT"},
        {"Australia/Lord_Howe", 7, 2024, 3, 7, "2024-04-06 23:59:59 +11"},
        {"Australia/Lord_Howe", 6, 2024, 9, 6, "2024-10-05 23:59:59 +1030"},
    };
    for (const billing_case& c : cases) {
        SCOPED_TRACE(std::string(c.zone) + " day " + std::to_string(c.d));
        set_tz(c.zone);
        struct tm start = {};
        start.tm_year = c.year - 1900;
        start.tm_mon = c.month - 1;
        start.tm_mday = c.day;
        start.tm_isdst = -1;
        time_t t = billing_end_for(mktime(&start), c.d);
        struct tm end;
        ASSERT_NE(localtime_r(&t, &end), nullptr);
        char text[64];
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &end);
        EXPECT_STREQ(text, c.end);
    }
}

} // namespace
