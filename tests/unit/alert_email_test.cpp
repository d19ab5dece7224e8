#include "sandbox.h"

#include "platform/qelinfo.h"
#include "quota/alert_email.h"
#include "quota/date_format.h"
#include "quota/quota_check.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

// The device-information library as this test binary sees it: the host stand-in's values,
// with a company and a router name that a test may replace. Weak, so that a binary which
// brings its own definitions keeps them.
namespace device_info {
const char* company = nullptr;
const char* router = nullptr;
} // namespace device_info

extern "C" {
__attribute__((weak)) const char* qelinfo_company_name(void)
{
    return device_info::company ? device_info::company : "Ardenta";
}
__attribute__((weak)) const char* qelinfo_product_name(void) { return "RV-2000"; }
__attribute__((weak)) const char* qelinfo_router_name(void)
{
    return device_info::router ? device_info::router : "ruvo-host";
}
__attribute__((weak)) const char* qelinfo_serial(void) { return "HOST0000001"; }
} // extern "C"

namespace {

constexpr uint64_t MiB = 1ull << 20;
constexpr const char* MESSAGE_PREFIX = "usage_alert_msg.";

wan_usage plain_record(int wan_index, const char* name)
{
    wan_usage r{};
    r.wan_index = wan_index;
    r.sim_slot_index = -1;
    r.start_day = -1;
    snprintf(r.wan_name, sizeof r.wan_name, "%s", name);
    return r;
}

wan_usage sim_record(int wan_index, int sim_number, const char* name)
{
    wan_usage r = plain_record(wan_index, name);
    r.sim_slot_index = 0;
    r.sim_number = sim_number;
    return r;
}

struct sent_message {
    std::string name;
    std::string content;
};

class AlertTest : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        device_info::company = nullptr;
        device_info::router = nullptr;
        mkdir(real("/tmp").c_str(), 0755);
        plat.clock = local(2024, 3, 5, 14, 7, 9); // Tue Mar 05 14:07:09 UTC 2024
    }
    void TearDown() override
    {
        device_info::company = nullptr;
        device_info::router = nullptr;
        Sandbox::TearDown();
    }

    std::vector<sent_message> messages()
    {
        std::vector<sent_message> found;
        DIR* dir = opendir(real("/tmp").c_str());
        if (!dir)
            return found;
        while (dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name.compare(0, strlen(MESSAGE_PREFIX), MESSAGE_PREFIX) == 0)
                found.push_back({name, read_file("/tmp/" + name)});
        }
        closedir(dir);
        return found;
    }

    // The one message handed to the mail sender, checked against the command that was run.
    std::string the_message()
    {
        std::vector<sent_message> sent = messages();
        if (sent.size() != 1) {
            ADD_FAILURE() << sent.size() << " message files";
            return "";
        }
        EXPECT_EQ(sent[0].name.size(), strlen(MESSAGE_PREFIX) + 6);
        EXPECT_EQ(plat.commands, std::vector<std::string>({"(/usr/local/korel/bin/sendemail -v -f /tmp/" +
                                                           sent[0].name + "; /bin/rm /tmp/" + sent[0].name +
                                                           ") &"}));
        return sent[0].content;
    }

    void expect_one_balance_line(const std::string& text)
    {
        ASSERT_EQ(plat.logs.size(), 1u);
        EXPECT_EQ(plat.logs[0].ident, "balance");
        EXPECT_EQ(plat.logs[0].facility, LOG_LOCAL0);
        EXPECT_EQ(plat.logs[0].priority, LOG_NOTICE);
        EXPECT_EQ(plat.logs[0].text, text);
    }

    void expect_nothing_done()
    {
        EXPECT_TRUE(plat.logs.empty());
        EXPECT_TRUE(plat.commands.empty());
        EXPECT_TRUE(messages().empty());
    }

    // Fibre with a billing cycle at 79 %, an unnamed WAN, and LTE without a start day.
    static std::vector<wan_usage> three_wans()
    {
        std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, ""), plain_record(2, "LTE")};
        wan[0].start_day = 1;
        wan[0].quota_bytes = 1000 * MiB;
        wan[0].billing_bytes[0] = 600 * MiB + 500000;
        wan[0].billing_bytes[1] = 190 * MiB;
        wan[0].usage_action = USAGE_ACTION_EMAIL;
        wan[1].start_day = 1;
        wan[1].quota_bytes = 1000 * MiB;
        wan[1].billing_bytes[0] = 900 * MiB;
        wan[2].month_bytes[0] = 300 * MiB;
        wan[2].month_bytes[1] = 12 * MiB + 999999;
        return wan;
    }

    // Fibre, and Cell whose two SIMs are the SIM records: SIM A with a billing cycle, SIM B
    // without a start day.
    static void dual_sim(std::vector<wan_usage>& wan, std::vector<wan_usage>& sim)
    {
        wan = {plain_record(0, "Fibre"), plain_record(1, "Cell")};
        wan[0].start_day = 1;
        wan[0].quota_bytes = 2000 * MiB;
        wan[0].billing_bytes[0] = 500 * MiB;
        wan[0].usage_action = USAGE_ACTION_EMAIL;
        wan[1].sim_slot_index = 0;
        wan[1].month_bytes[0] = 1000 * MiB;
        wan[1].month_bytes[1] = 200 * MiB;
        sim = {sim_record(1, 1, "Cell"), sim_record(1, 2, "Cell")};
        sim[0].start_day = 10;
        sim[0].quota_bytes = 1000 * MiB;
        sim[0].billing_bytes[0] = 700 * MiB;
        sim[0].billing_bytes[1] = 60 * MiB + 1;
        sim[0].usage_action = USAGE_ACTION_EMAIL;
        sim[1].month_bytes[1] = 5 * MiB + 7;
    }
};

class AlertEmail : public AlertTest {};
class AlertTable : public AlertTest {};
class AlertFooter : public AlertTest {};
class AlertSend : public AlertTest {};
class DateFormat : public AlertTest {};

// ---------------------------------------------------------------------------------------
// compose_usage_alert

TEST_F(AlertEmail, PlainRecordAtSeventyFivePercentWholeMessage)
{
    std::vector<wan_usage> wan = three_wans();
    wan[0].alert_state = ALERT_BELOW_LINE | ALERT_75;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 3, nullptr, -1, 0), 1);
    expect_one_balance_line("Bandwidth usage for Fibre hits 75% of the 1000MB allowance.");
    EXPECT_EQ(the_message(), "Subject: [ruvo-host] Fibre Bandwidth Usage Hits 75%\r\n"
                             "\r\n"
                             "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                             "\r\n"
                             "Tue Mar 05 14:07:09 UTC 2024\r\n"
                             "Bandwidth usage for Fibre hits 75% of the 1000MB allowance. \r\n"
                             "Current Usage for All WAN:\r\n"
                             "\r\n"
                             "Fibre : 790MB / 1000MB (79%) used in this billing cycle\r\n"
                             "LTE : 312MB used in this calendar month\r\n"
                             "\r\n"
                             "Ardenta | www.ardenta.com\r\n"
                             "Mar 05, 2024\r\n"
                             "\r\n"
                             "\r\n");
}

TEST_F(AlertEmail, PlainRecordAtNinetyFivePercentWithSimTablesWholeMessage)
{
    std::vector<wan_usage> wan, sim;
    dual_sim(wan, sim);
    wan[0].billing_bytes[0] = 1950 * MiB;
    wan[0].alert_state = ALERT_BELOW_LINE | ALERT_95;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 2, sim.data(), -1, 2), 1);
    expect_one_balance_line("Bandwidth usage for Fibre hits 95% of the 2000MB allowance.");
    EXPECT_EQ(the_message(), "Subject: [ruvo-host] Fibre Bandwidth Usage Hits 95%\r\n"
                             "\r\n"
                             "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                             "\r\n"
                             "Tue Mar 05 14:07:09 UTC 2024\r\n"
                             "Bandwidth usage for Fibre hits 95% of the 2000MB allowance. "
                             "No further notification email will be sent.\r\n"
                             "\r\n"
                             "Current Usage for All WAN:\r\n"
                             "\r\n"
                             "Fibre : 1950MB / 2000MB (97%) used in this billing cycle\r\n"
                             "Cell : 1200MB used in this calendar month\r\n"
                             "\r\n"
                             "Current Usage for All Celluar WAN:\r\n"
                             "\r\n"
                             "Cell SIM A : 760MB / 1000MB (76%) used in this billing cycle\r\n"
                             "Cell SIM B : 5MB used in this calendar month\r\n"
                             "\r\n"
                             "Ardenta | www.ardenta.com\r\n"
                             "Mar 05, 2024\r\n"
                             "\r\n"
                             "\r\n");
}

TEST_F(AlertEmail, SimRecordAtSeventyFivePercentWholeMessage)
{
    std::vector<wan_usage> wan, sim;
    dual_sim(wan, sim);
    sim[0].alert_state = ALERT_BELOW_LINE | ALERT_75;
    EXPECT_EQ(compose_usage_alert(wan.data(), -1, 2, sim.data(), 0, 2), 1);
    expect_one_balance_line("Bandwidth usage for Cell SIM A hits 75% of the 1000MB allowance.");
    EXPECT_EQ(the_message(), "Subject: [ruvo-host] Cell SIM A Bandwidth Usage Hits 75%\r\n"
                             "\r\n"
                             "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                             "\r\n"
                             "Tue Mar 05 14:07:09 UTC 2024\r\n"
                             "Bandwidth usage for Cell SIM A hits 75% of the 1000MB allowance. \r\n"
                             "Current Usage for All WAN:\r\n"
                             "\r\n"
                             "Fibre : 500MB / 2000MB (25%) used in this billing cycle\r\n"
                             "Cell : 1200MB used in this calendar month\r\n"
                             "\r\n"
                             "Current Usage for All Celluar WAN:\r\n"
                             "\r\n"
                             "Cell SIM A : 760MB / 1000MB (76%) used in this billing cycle\r\n"
                             "Cell SIM B : 5MB used in this calendar month\r\n"
                             "\r\n"
                             "Ardenta | www.ardenta.com\r\n"
                             "Mar 05, 2024\r\n"
                             "\r\n"
                             "\r\n");
}

TEST_F(AlertEmail, SimBRecordAtNinetyFivePercentNamesSimB)
{
    std::vector<wan_usage> wan, sim;
    dual_sim(wan, sim);
    sim[1].quota_bytes = 300 * MiB;
    sim[1].alert_state = ALERT_BELOW_LINE | ALERT_95;
    EXPECT_EQ(compose_usage_alert(wan.data(), -1, 2, sim.data(), 1, 2), 1);
    expect_one_balance_line("Bandwidth usage for Cell SIM B hits 95% of the 300MB allowance.");
    std::string message = the_message();
    EXPECT_EQ(message.substr(0, message.find("\r\n") + 2),
              "Subject: [ruvo-host] Cell SIM B Bandwidth Usage Hits 95%\r\n");
    EXPECT_NE(message.find("\r\nBandwidth usage for Cell SIM B hits 95% of the 300MB allowance. "
                           "No further notification email will be sent.\r\n\r\n"),
              std::string::npos);
}

TEST_F(AlertEmail, BothCrossingBitsAreReportedAsNinetyFivePercent)
{
    std::vector<wan_usage> wan = three_wans();
    wan[0].alert_state = ALERT_BELOW_LINE | ALERT_75 | ALERT_95;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 3, nullptr, -1, 0), 1);
    expect_one_balance_line("Bandwidth usage for Fibre hits 95% of the 1000MB allowance.");
    EXPECT_EQ(the_message(), "Subject: [ruvo-host] Fibre Bandwidth Usage Hits 95%\r\n"
                             "\r\n"
                             "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                             "\r\n"
                             "Tue Mar 05 14:07:09 UTC 2024\r\n"
                             "Bandwidth usage for Fibre hits 95% of the 1000MB allowance. "
                             "No further notification email will be sent.\r\n"
                             "\r\n"
                             "Current Usage for All WAN:\r\n"
                             "\r\n"
                             "Fibre : 790MB / 1000MB (79%) used in this billing cycle\r\n"
                             "LTE : 312MB used in this calendar month\r\n"
                             "\r\n"
                             "Ardenta | www.ardenta.com\r\n"
                             "Mar 05, 2024\r\n"
                             "\r\n"
                             "\r\n");
}

TEST_F(AlertEmail, AtSeventyFivePercentNoClosingSentenceAndTrailingSpaceBeforeLineEnd)
{
    std::vector<wan_usage> wan = three_wans();
    wan[0].alert_state = ALERT_75;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 3, nullptr, -1, 0), 1);
    std::string message = the_message();
    EXPECT_EQ(message.find("No further notification"), std::string::npos);
    EXPECT_NE(message.find("\r\nBandwidth usage for Fibre hits 75% of the 1000MB allowance. \r\n"
                           "Current Usage for All WAN:\r\n"),
              std::string::npos);
}

TEST_F(AlertEmail, NoSimRecordsLeavesCellularSectionOut)
{
    std::vector<wan_usage> wan = three_wans();
    std::vector<wan_usage> sim = {sim_record(2, 1, "LTE"), sim_record(2, 2, "LTE")};
    wan[0].alert_state = ALERT_95;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 3, sim.data(), -1, 0), 1);
    std::string message = the_message();
    EXPECT_EQ(message.find("Celluar"), std::string::npos);
    EXPECT_EQ(message.find("SIM"), std::string::npos);
    EXPECT_NE(message.find("LTE : 312MB used in this calendar month\r\n"
                           "\r\n"
                           "Ardenta | www.ardenta.com\r\n"),
              std::string::npos);
}

TEST_F(AlertEmail, NoCrossingBitReturnsZeroAndDoesNothing)
{
    std::vector<wan_usage> wan = three_wans();
    for (uint32_t state : {0u, ALERT_BELOW_LINE, ALERT_AT_LINE, ALERT_AT_LINE | ALERT_REACHED,
                           ALERT_BELOW_LINE | ALERT_RESUME}) {
        wan[0].alert_state = state;
        EXPECT_EQ(compose_usage_alert(wan.data(), 0, 3, nullptr, -1, 0), 0) << state;
    }
    expect_nothing_done();
}

TEST_F(AlertEmail, InconsistentIndicesReturnOneAndDoNothing)
{
    std::vector<wan_usage> wan, sim;
    dual_sim(wan, sim);
    wan[0].alert_state = ALERT_95;
    sim[0].alert_state = ALERT_95;
    EXPECT_EQ(compose_usage_alert(wan.data(), -1, 2, sim.data(), -1, 2), 1);
    EXPECT_EQ(compose_usage_alert(wan.data(), -1, 2, sim.data(), 0, 0), 1);
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 2, sim.data(), 0, 2), 1);
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 2, sim.data(), 1, 2), 1);
    expect_nothing_done();
}

TEST_F(AlertEmail, LinkNameCannotAddHeaderLine)
{
    std::vector<wan_usage> wan = {plain_record(0, "\r\nBcc: x@y")};
    wan[0].start_day = 1;
    wan[0].quota_bytes = 1000 * MiB;
    wan[0].billing_bytes[0] = 800 * MiB;
    wan[0].alert_state = ALERT_75;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 1, nullptr, -1, 0), 1);
    expect_one_balance_line("Bandwidth usage for \r\nBcc: x@y hits 75% of the 1000MB allowance.");
    std::string message = the_message();
    EXPECT_EQ(message, "Subject: [ruvo-host]   Bcc: x@y Bandwidth Usage Hits 75%\r\n"
                       "\r\n"
                       "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                       "\r\n"
                       "Tue Mar 05 14:07:09 UTC 2024\r\n"
                       "Bandwidth usage for \r\nBcc: x@y hits 75% of the 1000MB allowance. \r\n"
                       "Current Usage for All WAN:\r\n"
                       "\r\n"
                       "\r\nBcc: x@y : 800MB / 1000MB (80%) used in this billing cycle\r\n"
                       "\r\n"
                       "Ardenta | www.ardenta.com\r\n"
                       "Mar 05, 2024\r\n"
                       "\r\n"
                       "\r\n");
    // The header is the Subject line alone: it ends at the first empty line.
    EXPECT_EQ(message.find("\r\n\r\n"), message.find("\r\n"));
}

TEST_F(AlertEmail, RouterNameCannotAddHeaderLine)
{
    device_info::router = "edge\r\nBcc: x@y";
    std::vector<wan_usage> wan = three_wans();
    wan[0].alert_state = ALERT_75;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 3, nullptr, -1, 0), 1);
    std::string message = the_message();
    EXPECT_EQ(message.substr(0, message.find("\r\n\r\n") + 4),
              "Subject: [edge  Bcc: x@y] Fibre Bandwidth Usage Hits 75%\r\n\r\n");
    EXPECT_NE(message.find("\r\n\r\nThis is an automated message generated from edge\r\nBcc: x@y "
                           "(RV-2000:HOST0000001).\r\n\r\n"),
              std::string::npos);
}

TEST_F(AlertEmail, FormatDirectivesInLinkNameAreKeptAsText)
{
    std::vector<wan_usage> wan = {plain_record(0, "%s%n")};
    wan[0].quota_bytes = 1000 * MiB;
    wan[0].month_bytes[0] = 10 * MiB;
    wan[0].alert_state = ALERT_75;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 1, nullptr, -1, 0), 1);
    expect_one_balance_line("Bandwidth usage for %s%n hits 75% of the 1000MB allowance.");
    EXPECT_EQ(the_message(), "Subject: [ruvo-host] %s%n Bandwidth Usage Hits 75%\r\n"
                             "\r\n"
                             "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                             "\r\n"
                             "Tue Mar 05 14:07:09 UTC 2024\r\n"
                             "Bandwidth usage for %s%n hits 75% of the 1000MB allowance. \r\n"
                             "Current Usage for All WAN:\r\n"
                             "\r\n"
                             "%s%n : 10MB used in this calendar month\r\n"
                             "\r\n"
                             "Ardenta | www.ardenta.com\r\n"
                             "Mar 05, 2024\r\n"
                             "\r\n"
                             "\r\n");
}

TEST_F(AlertEmail, AdjacentPercentSignsInLinkNameReachSyslogEscaped)
{
    std::vector<wan_usage> wan = {plain_record(0, "a%%%x")};
    wan[0].quota_bytes = 1000 * MiB;
    wan[0].alert_state = ALERT_95;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 1, nullptr, -1, 0), 1);
    expect_one_balance_line("Bandwidth usage for a%%x hits 95% of the 1000MB allowance.");
    std::string message = the_message();
    EXPECT_EQ(message.substr(0, message.find("\r\n") + 2), "Subject: [ruvo-host] a%%%x Bandwidth Usage Hits 95%\r\n");
}

TEST_F(AlertEmail, LongMessageIsNotCut)
{
    std::vector<wan_usage> wan;
    std::string table;
    for (int i = 0; i < 30; ++i) {
        char name[NAME_SIZE];
        snprintf(name, sizeof name, "Link %02d %s", i + 1, std::string(90, 'x').c_str());
        wan.push_back(plain_record(i, name));
        wan.back().month_bytes[0] = static_cast<uint64_t>(i + 1) * MiB;
        table += std::string(name) + " : " + std::to_string(i + 1) + "MB used in this calendar month\r\n";
    }
    wan[0].quota_bytes = 1000 * MiB;
    wan[0].alert_state = ALERT_75;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 30, nullptr, -1, 0), 1);
    std::string first = wan[0].wan_name;
    std::string expected = "Subject: [ruvo-host] " + first + " Bandwidth Usage Hits 75%\r\n"
                           "\r\n"
                           "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                           "\r\n"
                           "Tue Mar 05 14:07:09 UTC 2024\r\n"
                           "Bandwidth usage for " + first + " hits 75% of the 1000MB allowance. \r\n"
                           "Current Usage for All WAN:\r\n"
                           "\r\n" +
                           table +
                           "\r\n"
                           "Ardenta | www.ardenta.com\r\n"
                           "Mar 05, 2024\r\n"
                           "\r\n"
                           "\r\n";
    ASSERT_GT(expected.size(), 2048u);
    EXPECT_EQ(the_message(), expected);
}

// ---------------------------------------------------------------------------------------
// build_usage_table

TEST_F(AlertTable, EmptyNameIsLeftOutAndNoStartDayShowsCalendarMonth)
{
    std::vector<wan_usage> wan = three_wans();
    EXPECT_EQ(build_usage_table(wan.data(), 3), "Fibre : 790MB / 1000MB (79%) used in this billing cycle\r\n"
                                                "LTE : 312MB used in this calendar month\r\n");
}

TEST_F(AlertTable, StartDayZeroIsShownWithCalendarMonth)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre")};
    wan[0].start_day = 0;
    wan[0].quota_bytes = 1000 * MiB;
    wan[0].billing_bytes[0] = 500 * MiB;
    wan[0].month_bytes[0] = 7 * MiB;
    wan[0].month_bytes[1] = MiB - 1;
    EXPECT_EQ(build_usage_table(wan.data(), 1), "Fibre : 7MB used in this calendar month\r\n");
}

TEST_F(AlertTable, SimLinesCarryTheSimLetter)
{
    std::vector<wan_usage> wan, sim;
    dual_sim(wan, sim);
    EXPECT_EQ(build_usage_table(sim.data(), 2), "Cell SIM A : 760MB / 1000MB (76%) used in this billing cycle\r\n"
                                                "Cell SIM B : 5MB used in this calendar month\r\n");
}

TEST_F(AlertTable, PercentageIsTruncated)
{
    std::vector<wan_usage> wan = {plain_record(0, "A"), plain_record(1, "B"), plain_record(2, "C")};
    for (wan_usage& r : wan) {
        r.start_day = 15;
        r.quota_bytes = 1000 * MiB;
    }
    wan[0].billing_bytes[0] = 1000 * MiB - 1;  // 99.9999999 %
    wan[1].billing_bytes[0] = 1100 * MiB;      // 110 %
    wan[2].billing_bytes[1] = 1;               // almost nothing
    EXPECT_EQ(build_usage_table(wan.data(), 3), "A : 999MB / 1000MB (99%) used in this billing cycle\r\n"
                                                "B : 1100MB / 1000MB (110%) used in this billing cycle\r\n"
                                                "C : 0MB / 1000MB (0%) used in this billing cycle\r\n");
}

TEST_F(AlertTable, ZeroUsageIsZeroPercentAndZeroAllowanceIsHundred)
{
    std::vector<wan_usage> wan = {plain_record(0, "Idle"), plain_record(1, "Open"), plain_record(2, "None")};
    for (wan_usage& r : wan)
        r.start_day = 1;
    wan[0].quota_bytes = 1000 * MiB;
    wan[1].billing_bytes[0] = 3 * MiB;
    EXPECT_EQ(build_usage_table(wan.data(), 3), "Idle : 0MB / 1000MB (0%) used in this billing cycle\r\n"
                                                "Open : 3MB / 0MB (100%) used in this billing cycle\r\n"
                                                "None : 0MB / 0MB (0%) used in this billing cycle\r\n");
}

TEST_F(AlertTable, NoNamedRecordGivesEmptyTable)
{
    std::vector<wan_usage> wan = {plain_record(0, ""), plain_record(1, "")};
    wan[0].month_bytes[0] = 5 * MiB;
    EXPECT_EQ(build_usage_table(wan.data(), 2), "");
    EXPECT_EQ(build_usage_table(wan.data(), 0), "");
}

TEST_F(AlertTable, TableLongerThan1024BytesIsWhole)
{
    std::vector<wan_usage> wan;
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        std::string name = "Uplink " + std::to_string(i + 1) + " " + std::string(60, 'y');
        wan.push_back(plain_record(i, name.c_str()));
        wan.back().start_day = 1;
        wan.back().quota_bytes = 100 * MiB;
        wan.back().billing_bytes[0] = static_cast<uint64_t>(i + 1) * MiB;
        expected += name + " : " + std::to_string(i + 1) + "MB / 100MB (" + std::to_string(i + 1) +
                    "%) used in this billing cycle\r\n";
    }
    ASSERT_GT(expected.size(), 1024u);
    EXPECT_EQ(build_usage_table(wan.data(), 20), expected);
}

// ---------------------------------------------------------------------------------------
// build_alert_footer

TEST_F(AlertFooter, ArdentaGetsItsWebAddress)
{
    EXPECT_EQ(build_alert_footer(), "Ardenta | www.ardenta.com\r\nMar 05, 2024\r\n");
}

TEST_F(AlertFooter, BelvireGetsItsWebAddress)
{
    device_info::company = "Belvire";
    EXPECT_EQ(build_alert_footer(), "Belvire | www.belvire.com\r\nMar 05, 2024\r\n");
}

TEST_F(AlertFooter, UnknownCompanyIsFollowedByASpace)
{
    device_info::company = "Korel Networks";
    EXPECT_EQ(build_alert_footer(), "Korel Networks \r\nMar 05, 2024\r\n");
}

TEST_F(AlertFooter, CompanyComparisonIsExact)
{
    device_info::company = "ardenta";
    EXPECT_EQ(build_alert_footer(), "ardenta \r\nMar 05, 2024\r\n");
    device_info::company = "Belvire ";
    EXPECT_EQ(build_alert_footer(), "Belvire  \r\nMar 05, 2024\r\n");
}

TEST_F(AlertFooter, DateIsTheCurrentLocalDate)
{
    set_tz("Asia/Tokyo");
    plat.clock = 1735677045; // 2024-12-31 20:30:45 UTC, 2025-01-01 05:30:45 in Tokyo
    EXPECT_EQ(build_alert_footer(), "Ardenta | www.ardenta.com\r\nJan 01, 2025\r\n");
}

TEST_F(AlertFooter, WebAddressIsMadeFromTheBrandWord)
{
    EXPECT_EQ(brand_web_address("ardenta"), "www.ardenta.com");
    EXPECT_EQ(brand_web_address("belvire"), "www.belvire.com");
}

TEST_F(AlertEmail, UnknownCompanyFooterInMessage)
{
    device_info::company = "Korel Networks";
    std::vector<wan_usage> wan = three_wans();
    wan[0].alert_state = ALERT_75;
    EXPECT_EQ(compose_usage_alert(wan.data(), 0, 3, nullptr, -1, 0), 1);
    std::string message = the_message();
    const std::string ending = "LTE : 312MB used in this calendar month\r\n"
                               "\r\n"
                               "Korel Networks \r\n"
                               "Mar 05, 2024\r\n"
                               "\r\n"
                               "\r\n";
    ASSERT_GE(message.size(), ending.size());
    EXPECT_EQ(message.substr(message.size() - ending.size()), ending);
}

// ---------------------------------------------------------------------------------------
// send_alert_email

TEST_F(AlertSend, WritesMessageWithLineEndAndRunsMailSenderInBackground)
{
    EXPECT_EQ(send_alert_email("Subject: test\r\n\r\nbody"), 0);
    EXPECT_EQ(the_message(), "Subject: test\r\n\r\nbody\r\n");
}

TEST_F(AlertSend, EachMessageGetsItsOwnFile)
{
    EXPECT_EQ(send_alert_email("one"), 0);
    EXPECT_EQ(send_alert_email("two"), 0);
    std::vector<sent_message> sent = messages();
    ASSERT_EQ(sent.size(), 2u);
    ASSERT_EQ(plat.commands.size(), 2u);
    std::vector<std::string> contents = {sent[0].content, sent[1].content};
    std::sort(contents.begin(), contents.end());
    EXPECT_EQ(contents, std::vector<std::string>({"one\r\n", "two\r\n"}));
    EXPECT_NE(sent[0].name, sent[1].name);
}

TEST_F(AlertSend, NoTemporaryFileReturnsMinusOne)
{
    rmdir(real("/tmp").c_str());
    EXPECT_EQ(send_alert_email("lost"), -1);
    EXPECT_TRUE(plat.commands.empty());
}

// ---------------------------------------------------------------------------------------
// Date formatters

TEST_F(DateFormat, LongDate)
{
    const time_t summer = 1720098303; // 2024-07-04 13:05:03 UTC
    const time_t new_year = 1735677045; // 2024-12-31 20:30:45 UTC
    EXPECT_STREQ(date_longform(summer), "Jul 04, 2024");
    EXPECT_STREQ(date_longform(new_year), "Dec 31, 2024");
    set_tz("Asia/Tokyo");
    EXPECT_STREQ(date_longform(summer), "Jul 04, 2024");
    EXPECT_STREQ(date_longform(new_year), "Jan 01, 2025");
    set_tz("America/New_York");
    EXPECT_STREQ(date_longform(summer), "Jul 04, 2024");
    EXPECT_STREQ(date_longform(new_year), "Dec 31, 2024");
}

TEST_F(DateFormat, LongDateTime)
{
    const time_t summer = 1720098303;
    const time_t new_year = 1735677045;
    EXPECT_STREQ(datetime_longform(summer), "Thu Jul 04 13:05:03 UTC 2024");
    EXPECT_STREQ(datetime_longform(new_year), "Tue Dec 31 20:30:45 UTC 2024");
    set_tz("Asia/Tokyo");
    EXPECT_STREQ(datetime_longform(summer), "Thu Jul 04 22:05:03 JST 2024");
    EXPECT_STREQ(datetime_longform(new_year), "Wed Jan 01 05:30:45 JST 2025");
    set_tz("America/New_York");
    EXPECT_STREQ(datetime_longform(summer), "Thu Jul 04 09:05:03 EDT 2024");
    EXPECT_STREQ(datetime_longform(new_year), "Tue Dec 31 15:30:45 EST 2024");
}

TEST_F(DateFormat, ShortDateTime)
{
    const time_t summer = 1720098303;
    const time_t new_year = 1735677045;
    EXPECT_STREQ(datetime_shortform(summer), "Jul 04 13:05:03");
    EXPECT_STREQ(datetime_shortform(new_year), "Dec 31 20:30:45");
    set_tz("Asia/Tokyo");
    EXPECT_STREQ(datetime_shortform(summer), "Jul 04 22:05:03");
    EXPECT_STREQ(datetime_shortform(new_year), "Jan 01 05:30:45");
    set_tz("America/New_York");
    EXPECT_STREQ(datetime_shortform(summer), "Jul 04 09:05:03");
    EXPECT_STREQ(datetime_shortform(new_year), "Dec 31 15:30:45");
}

TEST_F(DateFormat, NumericDateTime)
{
    const time_t summer = 1720098303;
    const time_t new_year = 1735677045;
    EXPECT_STREQ(datetime_numeric(summer), "2024/05/04 13:05:03 +0000");
    EXPECT_STREQ(datetime_numeric(new_year), "2024/30/31 20:30:45 +0000");
    set_tz("Asia/Tokyo");
    EXPECT_STREQ(datetime_numeric(summer), "2024/05/04 22:05:03 +0900");
    EXPECT_STREQ(datetime_numeric(new_year), "2025/30/01 05:30:45 +0900");
    set_tz("America/New_York");
    EXPECT_STREQ(datetime_numeric(summer), "2024/05/04 09:05:03 -0400");
    EXPECT_STREQ(datetime_numeric(new_year), "2024/30/31 15:30:45 -0500");
}

TEST_F(DateFormat, NumericDateTimeShowsMinutesWhereTheMonthWouldBe)
{
    // 5 March, 14:07:09: the field after the year is the minute, 07, not the month, 03.
    EXPECT_STREQ(datetime_numeric(plat.clock), "2024/07/05 14:07:09 +0000");
}

TEST_F(DateFormat, EachFormatterOverwritesOnlyItsOwnBuffer)
{
    const time_t summer = 1720098303;
    const time_t new_year = 1735677045;
    const char* date = date_longform(summer);
    const char* when = datetime_longform(summer);
    const char* again = date_longform(new_year);
    EXPECT_EQ(again, date);
    EXPECT_STREQ(date, "Dec 31, 2024");
    EXPECT_STREQ(when, "Thu Jul 04 13:05:03 UTC 2024");
}

} // namespace
