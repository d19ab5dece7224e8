#include "sandbox.h"

#include "quota/balance_log.h"
#include "quota/quota_check.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <vector>

namespace {

constexpr uint64_t MiB = 1ull << 20;
constexpr uint64_t QUOTA = 1000 * MiB;          // 1048576000 bytes
constexpr uint64_t LINE_100 = 1043333120;       // 99.5 % of QUOTA
constexpr uint64_t LINE_95 = 996147200;         // 95 % of QUOTA
constexpr uint64_t LINE_75 = 786432000;         // 75 % of QUOTA

constexpr const char* SAVECONFIG = "/usr/local/korel/bin/saveconfig usage &";
constexpr const char* SUSPEND_1_ON = "/usr/local/korel/bin/wan_usage_suspend 1 on &";
constexpr const char* SUSPEND_1_OFF = "/usr/local/korel/bin/wan_usage_suspend 1 off &";
constexpr const char* MARKER_1 = "/var/run/korel/wan1/usage_suspend";
constexpr const char* TIMESYNC_1 = "/var/run/korel/wan1/timesync_privilege_mode";
constexpr const char* MESSAGE_PREFIX = "usage_alert_msg.";

// Bytes for a whole percentage of QUOTA.
constexpr uint64_t percent(uint64_t p) { return QUOTA * p / 100; }

wan_usage plain_record(int wan_index, const char* name)
{
    wan_usage r{};
    r.wan_index = wan_index;
    r.sim_slot_index = -1;
    r.sim_number = 0;
    r.start_day = -1;
    snprintf(r.wan_name, sizeof r.wan_name, "%s", name);
    return r;
}

wan_usage sim_record(int wan_index, int slot, int sim_number, const char* name)
{
    wan_usage r = plain_record(wan_index, name);
    r.sim_slot_index = slot;
    r.sim_number = sim_number;
    return r;
}

// Usage split over both counters, so that the check has to add them.
void set_usage(wan_usage& r, uint64_t bytes)
{
    r.billing_bytes[0] = bytes - bytes / 4;
    r.billing_bytes[1] = bytes / 4;
}

void set_snapshot(wan_usage& r, uint64_t bytes)
{
    r.quota_snapshot[0] = bytes / 2;
    r.quota_snapshot[1] = bytes - bytes / 2;
}

struct sent_message {
    std::string name;    // file name under /tmp
    std::string content; // what the mail sender would read
};

class QuotaTest : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        for (const char* dir : {"/tmp", "/tmp/ruvo_backup", "/tmp/ruvo_backup/wan1", "/tmp/ruvo_backup/wan2",
                                "/var", "/var/run", "/var/run/korel", "/var/run/korel/wan1",
                                "/var/run/korel/wan2"})
            mkdir(real(dir).c_str(), 0755);
        plat.clock = local(2024, 3, 5, 14, 7, 9); // Tue Mar 05 14:07:09 UTC 2024
    }

    // One tick of the loop's allowance work: the check on both arrays, then the alerts.
    void tick(std::vector<wan_usage>& wan, std::vector<wan_usage>* sim = nullptr)
    {
        plat.logs.clear();
        plat.commands.clear();
        check_wan_usage(wan.data(), static_cast<int>(wan.size()));
        if (sim)
            check_wan_usage(sim->data(), static_cast<int>(sim->size()));
        wan_usage_alert(wan.data(), static_cast<int>(wan.size()), sim ? sim->data() : nullptr,
                        sim ? static_cast<int>(sim->size()) : 0);
    }

    // The allowance lines logged since the last clear, each checked for ident "balance",
    // LOG_LOCAL0 and LOG_NOTICE.
    std::vector<std::string> balance_lines()
    {
        std::vector<std::string> texts;
        for (const captured_log& line : plat.logs) {
            EXPECT_EQ(line.ident, "balance");
            EXPECT_EQ(line.facility, LOG_LOCAL0);
            EXPECT_EQ(line.priority, LOG_NOTICE);
            texts.push_back(line.text);
        }
        return texts;
    }

    // The message files handed to the mail sender; each is removed once read, as the
    // sender's shell would.
    std::vector<sent_message> take_messages()
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
        for (const sent_message& m : found)
            unlink(real("/tmp/" + m.name).c_str());
        return found;
    }

    static std::string mail_command(const std::string& name)
    {
        return "(/usr/local/korel/bin/sendemail -v -f /tmp/" + name + "; /bin/rm /tmp/" + name + ") &";
    }

    // The Subject line and the line that reports the usage (row 6, up to its CR LF).
    static std::string line_of(const std::string& message, size_t index)
    {
        size_t start = 0;
        for (size_t i = 0; i < index; ++i) {
            size_t end = message.find("\r\n", start);
            if (end == std::string::npos)
                return "<none>";
            start = end + 2;
        }
        size_t end = message.find("\r\n", start);
        return end == std::string::npos ? "<none>" : message.substr(start, end - start + 2);
    }

    void remove_file(const std::string& absolute) { unlink(real(absolute).c_str()); }

    void expect_backup_written(const char* wan_dir = "/tmp/ruvo_backup/wan1")
    {
        EXPECT_TRUE(exists("/tmp/ruvo_backup/timestamp"));
        EXPECT_TRUE(exists(std::string(wan_dir) + "/ruvo.hourly.csv"));
    }
};

class QuotaCheck : public QuotaTest {};
class QuotaSuspension : public QuotaTest {};
class QuotaAlert : public QuotaTest {};
class QuotaScenario : public QuotaTest {};
class UsageSuspended : public QuotaTest {};
class EscapePercent : public QuotaTest {};
class BalanceLog : public QuotaTest {};

// ---------------------------------------------------------------------------------------
// check_wan_usage

TEST_F(QuotaCheck, RecordWithoutEmailOrDisconnectIsAlwaysBelowLine)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].quota_bytes = QUOTA;
    const uint64_t cases[][2] = {{0, 0}, {percent(70), percent(80)}, {percent(90), percent(200)},
                                 {percent(200), 1}, {LINE_75 - 1, LINE_100}};
    for (const auto& c : cases) {
        set_snapshot(wan[0], c[0]);
        set_usage(wan[0], c[1]);
        EXPECT_EQ(check_wan_usage(wan.data(), 1), 0);
        EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE) << c[0] << " -> " << c[1];
        EXPECT_EQ(wan[0].quota_snapshot[0], wan[0].billing_bytes[0]);
        EXPECT_EQ(wan[0].quota_snapshot[1], wan[0].billing_bytes[1]);
    }
}

TEST_F(QuotaCheck, DisconnectWithZeroAllowanceIsAtLineOnFirstTick)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = 0;
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_AT_LINE);
}

TEST_F(QuotaCheck, UsageExactlyAtNinetyNinePointFivePercentReachesTheLine)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], LINE_100 - 1);
    set_usage(wan[0], LINE_100);
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_AT_LINE | ALERT_REACHED);
    EXPECT_EQ(wan[0].alert_state, 40u);
}

TEST_F(QuotaCheck, UsageOneByteBelowNinetyNinePointFivePercentStaysBelowLine)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], LINE_100 - 2);
    set_usage(wan[0], LINE_100 - 1);
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE);
}

TEST_F(QuotaCheck, UsageExactlyAtNinetyFivePercentCrossesIt)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], LINE_95 - 1);
    set_usage(wan[0], LINE_95);
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_95);

    set_snapshot(wan[0], LINE_95 - 2);
    set_usage(wan[0], LINE_95 - 1);
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE);
}

TEST_F(QuotaCheck, UsageExactlyAtSeventyFivePercentCrossesIt)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], LINE_75 - 1);
    set_usage(wan[0], LINE_75);
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_75);

    set_snapshot(wan[0], LINE_75 - 2);
    set_usage(wan[0], LINE_75 - 1);
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE);
}

TEST_F(QuotaCheck, PreviousUsageAlreadyAtALineIsNoCrossing)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], LINE_75);
    set_usage(wan[0], percent(80));
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE);

    set_snapshot(wan[0], LINE_95);
    set_usage(wan[0], percent(99));
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE);
}

TEST_F(QuotaCheck, BothCountersAreAddedForTheComparison)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL;
    wan[0].quota_bytes = QUOTA;
    wan[0].quota_snapshot[0] = 0;
    wan[0].quota_snapshot[1] = LINE_75 - 1;
    wan[0].billing_bytes[0] = LINE_75 - 100;
    wan[0].billing_bytes[1] = 100;
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_75);
    EXPECT_EQ(wan[0].quota_snapshot[0], LINE_75 - 100);
    EXPECT_EQ(wan[0].quota_snapshot[1], 100u);
}

TEST_F(QuotaCheck, FirstCheckAfterStartDueNoEmail)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL;
    wan[0].quota_bytes = QUOTA;
    set_usage(wan[0], percent(97));
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE);
    EXPECT_EQ(wan[0].quota_snapshot[0] + wan[0].quota_snapshot[1], percent(97));
}

TEST_F(QuotaCheck, FirstCheckOverTheLineIsAtLineWithoutReached)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_usage(wan[0], percent(120));
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_AT_LINE);
}

TEST_F(QuotaCheck, JumpFromSeventyToNinetySixPercentIsOnlyTheNinetyFiveCrossing)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], percent(70));
    set_usage(wan[0], percent(96));
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_95);
}

TEST_F(QuotaCheck, ReachingTheLineWithDisconnectSkipsTheEmailCrossings)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], percent(70));
    set_usage(wan[0], percent(100));
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_AT_LINE | ALERT_REACHED);
    EXPECT_EQ(wan[0].quota_snapshot[0] + wan[0].quota_snapshot[1], percent(100));
}

TEST_F(QuotaCheck, NinetyFiveCrossingBelowTheLineWithDisconnectIsDue)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], percent(94));
    set_usage(wan[0], percent(99));
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_95);
}

TEST_F(QuotaCheck, StayingOverTheLineIsAtLineOnly)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], percent(100));
    set_usage(wan[0], percent(101));
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_AT_LINE);
}

TEST_F(QuotaCheck, FallingBelowTheLineIsResume)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_snapshot(wan[0], LINE_100);
    set_usage(wan[0], 5 * MiB);
    check_wan_usage(wan.data(), 1);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_RESUME);
    EXPECT_EQ(wan[0].alert_state, 20u);
    EXPECT_EQ(wan[0].quota_snapshot[0] + wan[0].quota_snapshot[1], 5 * MiB);
}

TEST_F(QuotaCheck, EveryRecordOfTheArrayIsChecked)
{
    std::vector<wan_usage> wan = {plain_record(0, "WAN1"), plain_record(1, "WAN2"), plain_record(2, "WAN3")};
    for (wan_usage& r : wan) {
        r.quota_bytes = QUOTA;
        r.usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
        set_snapshot(r, percent(50));
    }
    set_usage(wan[0], percent(76));
    set_usage(wan[1], percent(96));
    set_usage(wan[2], percent(100));
    check_wan_usage(wan.data(), 3);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_75);
    EXPECT_EQ(wan[1].alert_state, ALERT_BELOW_LINE | ALERT_95);
    EXPECT_EQ(wan[2].alert_state, ALERT_AT_LINE | ALERT_REACHED);
}

// ---------------------------------------------------------------------------------------
// usage_suspended

TEST_F(UsageSuspended, PlainMarkerSuspendsTheWan)
{
    EXPECT_EQ(usage_suspended(1, 0), 0);
    write_file(MARKER_1, "");
    EXPECT_EQ(usage_suspended(1, 0), 1);
    EXPECT_EQ(usage_suspended(2, 0), 0);
    EXPECT_EQ(usage_suspended(1, 1), 0);
}

TEST_F(UsageSuspended, SimMarkerSuspendsOnlyThatSim)
{
    write_file("/var/run/korel/wan2/usage_suspend.sim2", "");
    EXPECT_EQ(usage_suspended(2, 2), 1);
    EXPECT_EQ(usage_suspended(2, 1), 0);
    EXPECT_EQ(usage_suspended(2, 0), 0);
}

TEST_F(UsageSuspended, MissingMarkerDirectoryIsNotSuspended)
{
    EXPECT_EQ(usage_suspended(7, 0), 0);
    EXPECT_EQ(usage_suspended(7, 1), 0);
}

// ---------------------------------------------------------------------------------------
// update_usage_suspension

TEST_F(QuotaSuspension, AtLineWithoutMarkerAsksForSuspension)
{
    wan_usage r = plain_record(0, "WAN1");
    r.alert_state = ALERT_AT_LINE;
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON}));
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(QuotaSuspension, AtLineWithMarkerDoesNothing)
{
    write_file(MARKER_1, "");
    wan_usage r = plain_record(0, "WAN1");
    r.alert_state = ALERT_AT_LINE;
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(QuotaSuspension, ReachingTheLineLogsTheHundredPercentLineAndSuspends)
{
    wan_usage r = plain_record(0, "Fibre");
    r.quota_bytes = 500 * MiB + MiB - 1; // whole megabytes, rounded down
    r.alert_state = ALERT_AT_LINE | ALERT_REACHED;
    EXPECT_EQ(update_usage_suspension(r), 1);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Fibre hits 100% of the 500MB allowance."}));
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON}));
}

TEST_F(QuotaSuspension, ReachingTheLineWithMarkerOnlyLogs)
{
    write_file(MARKER_1, "");
    wan_usage r = plain_record(0, "Fibre");
    r.quota_bytes = QUOTA;
    r.alert_state = ALERT_AT_LINE | ALERT_REACHED;
    EXPECT_EQ(update_usage_suspension(r), 1);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Fibre hits 100% of the 1000MB allowance."}));
    EXPECT_TRUE(plat.commands.empty());
}

TEST_F(QuotaSuspension, BelowLineWithMarkerResumesAndLogsNewBillingCycle)
{
    write_file(MARKER_1, "");
    wan_usage r = plain_record(0, "Fibre");
    r.alert_state = ALERT_BELOW_LINE;
    EXPECT_EQ(update_usage_suspension(r), 1);
    EXPECT_EQ(r.alert_state, ALERT_BELOW_LINE | ALERT_RESUME);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_OFF}));
    EXPECT_EQ(balance_lines(), std::vector<std::string>({"Bandwidth allowance monitor: Fibre has entered a new "
                                                         "billing cycle, the connection will resume"}));
}

TEST_F(QuotaSuspension, ResumeBitWithoutMarkerLogsWithoutCommand)
{
    wan_usage r = plain_record(0, "Fibre");
    r.alert_state = ALERT_BELOW_LINE | ALERT_RESUME;
    EXPECT_EQ(update_usage_suspension(r), 1);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_EQ(balance_lines(), std::vector<std::string>({"Bandwidth allowance monitor: Fibre has entered a new "
                                                         "billing cycle, the connection will resume"}));
}

TEST_F(QuotaSuspension, BelowLineWithoutMarkerDoesNothing)
{
    wan_usage r = plain_record(0, "Fibre");
    r.alert_state = ALERT_BELOW_LINE | ALERT_75;
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(QuotaSuspension, SimRecordUsesTheSimCommandAndMarker)
{
    wan_usage r = sim_record(1, 0, 2, "Cell");
    r.alert_state = ALERT_AT_LINE;
    write_file("/var/run/korel/wan2/usage_suspend", ""); // the plain WAN's marker is not the SIM's
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_EQ(plat.commands, std::vector<std::string>({"/usr/local/korel/bin/wan_usage_suspend 2 on 2 &"}));

    plat.commands.clear();
    write_file("/var/run/korel/wan2/usage_suspend.sim2", "");
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_TRUE(plat.commands.empty());

    r.alert_state = ALERT_BELOW_LINE;
    EXPECT_EQ(update_usage_suspension(r), 1);
    EXPECT_EQ(plat.commands, std::vector<std::string>({"/usr/local/korel/bin/wan_usage_suspend 2 off 2 &"}));
    EXPECT_EQ(balance_lines(), std::vector<std::string>({"Bandwidth allowance monitor: Cell has entered a new "
                                                         "billing cycle, the connection will resume"}));
}

TEST_F(QuotaSuspension, RemovedTimeSyncMarkerStopsPlainWanOnce)
{
    wan_usage r = plain_record(0, "Fibre");
    r.alert_state = ALERT_BELOW_LINE;
    write_file(TIMESYNC_1, "");
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_EQ(r.timesync_privilege, 1);
    EXPECT_TRUE(plat.commands.empty());

    remove_file(TIMESYNC_1);
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_EQ(r.timesync_privilege, 0);
    EXPECT_EQ(plat.commands, std::vector<std::string>({"wan_action 1 stop"}));
    EXPECT_TRUE(plat.logs.empty());

    plat.commands.clear();
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_TRUE(plat.commands.empty());
}

TEST_F(QuotaSuspension, StopRunsAfterTheSuspensionCommand)
{
    wan_usage r = plain_record(0, "Fibre");
    r.timesync_privilege = 1;
    r.alert_state = ALERT_AT_LINE;
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON, "wan_action 1 stop"}));
}

TEST_F(QuotaSuspension, RemovedTimeSyncMarkerNeverStopsForSimRecord)
{
    wan_usage r = sim_record(0, 0, 1, "Cell");
    r.alert_state = ALERT_BELOW_LINE;
    write_file(TIMESYNC_1, "");
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_EQ(r.timesync_privilege, 1);
    remove_file(TIMESYNC_1);
    EXPECT_EQ(update_usage_suspension(r), 0);
    EXPECT_EQ(r.timesync_privilege, 0);
    EXPECT_TRUE(plat.commands.empty());
}

// ---------------------------------------------------------------------------------------
// wan_usage_alert

TEST_F(QuotaAlert, RecordWithoutActionsIsResumedWhenMarkerExists)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].quota_bytes = QUOTA;
    set_usage(wan[0], percent(150));
    write_file(MARKER_1, "");
    tick(wan);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_RESUME);
    EXPECT_EQ(wan[1].alert_state, ALERT_BELOW_LINE);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_OFF, SAVECONFIG}));
    EXPECT_EQ(balance_lines(), std::vector<std::string>({"Bandwidth allowance monitor: Fibre has entered a new "
                                                         "billing cycle, the connection will resume"}));
    expect_backup_written();
    EXPECT_TRUE(take_messages().empty());
}

TEST_F(QuotaAlert, DisconnectWithZeroAllowanceSuspendsOnFirstTick)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].usage_action = USAGE_ACTION_DISCONNECT;
    tick(wan);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON}));
    EXPECT_TRUE(plat.logs.empty());
    EXPECT_FALSE(exists("/tmp/ruvo_backup/timestamp"));
}

TEST_F(QuotaAlert, FirstTickNeverMailsNorLogsButSuspendsLinkOverItsLine)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_usage(wan[0], percent(120));
    wan[1].usage_action = USAGE_ACTION_EMAIL;
    wan[1].quota_bytes = QUOTA;
    set_usage(wan[1], percent(97));
    tick(wan);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON}));
    EXPECT_TRUE(plat.logs.empty());
    EXPECT_TRUE(take_messages().empty());
    EXPECT_FALSE(exists("/tmp/ruvo_backup/timestamp"));
}

TEST_F(QuotaAlert, FirstTickOverItsLineWithMarkerDoesNothing)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_usage(wan[0], percent(120));
    write_file(MARKER_1, "");
    tick(wan);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(QuotaAlert, JumpFromSeventyToNinetySixPercentSendsOneEmailAtNinetyFive)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].usage_action = USAGE_ACTION_EMAIL;
    wan[0].quota_bytes = QUOTA;
    wan[0].start_day = 1;
    set_usage(wan[0], percent(70));
    tick(wan);
    EXPECT_TRUE(plat.commands.empty());

    set_usage(wan[0], percent(96));
    tick(wan);
    std::vector<sent_message> sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Fibre hits 95% of the 1000MB allowance."}));
    EXPECT_EQ(plat.commands, std::vector<std::string>({mail_command(sent[0].name), SAVECONFIG}));
    EXPECT_EQ(line_of(sent[0].content, 0), "Subject: [ruvo-host] Fibre Bandwidth Usage Hits 95%\r\n");
    EXPECT_EQ(line_of(sent[0].content, 5), "Bandwidth usage for Fibre hits 95% of the 1000MB allowance. "
                                           "No further notification email will be sent.\r\n");
    expect_backup_written();
}

TEST_F(QuotaAlert, FromNinetySixToHundredPercentWithDisconnectLogsSuspendsAndSendsNoEmail)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_usage(wan[0], percent(96));
    tick(wan);
    ASSERT_TRUE(plat.commands.empty());

    set_usage(wan[0], percent(100));
    tick(wan);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Fibre hits 100% of the 1000MB allowance."}));
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON, SAVECONFIG}));
    EXPECT_TRUE(take_messages().empty());
    expect_backup_written();
}

TEST_F(QuotaAlert, RemovedTimeSyncMarkerStopsPlainWanOnceAndNeverItsSims)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Cell")};
    wan[1].sim_slot_index = 0;
    std::vector<wan_usage> sim = {sim_record(1, 0, 1, "Cell"), sim_record(1, 0, 2, "Cell")};
    const char* marker = "/var/run/korel/wan2/timesync_privilege_mode";
    write_file(marker, "");
    tick(wan, &sim);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_EQ(wan[1].timesync_privilege, 1);
    EXPECT_EQ(sim[0].timesync_privilege, 1);
    EXPECT_EQ(sim[1].timesync_privilege, 1);

    remove_file(marker);
    tick(wan, &sim);
    EXPECT_EQ(plat.commands, std::vector<std::string>({"wan_action 2 stop"}));
    EXPECT_TRUE(plat.logs.empty());
    EXPECT_FALSE(exists("/tmp/ruvo_backup/timestamp"));

    tick(wan, &sim);
    EXPECT_TRUE(plat.commands.empty());
}

TEST_F(QuotaAlert, NoRecordsDoesNothing)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre")};
    wan[0].alert_state = ALERT_AT_LINE | ALERT_REACHED;
    wan[0].usage_action = USAGE_ACTION_DISCONNECT;
    EXPECT_EQ(wan_usage_alert(wan.data(), 0, nullptr, 0), 0);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(QuotaAlert, SimRecordsOfAWanWithoutSlotAreNeverActedOn)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Cell")};
    std::vector<wan_usage> sim = {sim_record(1, 0, 1, "Cell"), sim_record(1, 0, 2, "Cell")};
    for (wan_usage& s : sim) {
        s.usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
        s.quota_bytes = QUOTA;
        set_snapshot(s, percent(50));
        set_usage(s, percent(100));
    }
    tick(wan, &sim);
    EXPECT_EQ(sim[0].alert_state, ALERT_AT_LINE | ALERT_REACHED);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(QuotaAlert, EventsOnTwoWansInOneTickSaveTwice)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Cable")};
    for (wan_usage& r : wan) {
        r.usage_action = USAGE_ACTION_DISCONNECT;
        r.quota_bytes = QUOTA;
        set_usage(r, percent(90));
    }
    tick(wan);
    ASSERT_TRUE(plat.commands.empty());

    set_usage(wan[0], percent(100));
    set_usage(wan[1], percent(100));
    tick(wan);
    EXPECT_EQ(plat.commands,
              std::vector<std::string>({SUSPEND_1_ON, SAVECONFIG, "/usr/local/korel/bin/wan_usage_suspend 2 on &",
                                        SAVECONFIG}));
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Fibre hits 100% of the 1000MB allowance.",
                                        "Bandwidth usage for Cable hits 100% of the 1000MB allowance."}));
    expect_backup_written("/tmp/ruvo_backup/wan1");
    expect_backup_written("/tmp/ruvo_backup/wan2");
}

// ---------------------------------------------------------------------------------------
// Several ticks

TEST_F(QuotaScenario, EmailsAtSeventyFiveAndNinetyFiveThenSuspensionAndNewBillingCycle)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    wan[0].start_day = 1;
    wan[1].month_bytes[0] = 40 * MiB;
    wan[1].month_bytes[1] = 2 * MiB;

    // 70 %: the first tick only remembers the usage.
    set_usage(wan[0], percent(70));
    tick(wan);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());

    // 76 %: one e-mail at 75 %.
    set_usage(wan[0], percent(76));
    tick(wan);
    std::vector<sent_message> sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Fibre hits 75% of the 1000MB allowance."}));
    EXPECT_EQ(plat.commands, std::vector<std::string>({mail_command(sent[0].name), SAVECONFIG}));
    EXPECT_EQ(sent[0].content, "Subject: [ruvo-host] Fibre Bandwidth Usage Hits 75%\r\n"
                               "\r\n"
                               "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                               "\r\n"
                               "Tue Mar 05 14:07:09 UTC 2024\r\n"
                               "Bandwidth usage for Fibre hits 75% of the 1000MB allowance. \r\n"
                               "Current Usage for All WAN:\r\n"
                               "\r\n"
                               "Fibre : 760MB / 1000MB (76%) used in this billing cycle\r\n"
                               "Backup : 42MB used in this calendar month\r\n"
                               "\r\n"
                               "Ardenta | www.ardenta.com\r\n"
                               "Mar 05, 2024\r\n"
                               "\r\n"
                               "\r\n");
    expect_backup_written();

    // 80 %: nothing new.
    set_usage(wan[0], percent(80));
    tick(wan);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());

    // 96 %: one e-mail at 95 %, with the closing sentence.
    set_usage(wan[0], percent(96));
    tick(wan);
    sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Fibre hits 95% of the 1000MB allowance."}));
    EXPECT_EQ(plat.commands, std::vector<std::string>({mail_command(sent[0].name), SAVECONFIG}));
    EXPECT_EQ(line_of(sent[0].content, 0), "Subject: [ruvo-host] Fibre Bandwidth Usage Hits 95%\r\n");
    EXPECT_EQ(line_of(sent[0].content, 5), "Bandwidth usage for Fibre hits 95% of the 1000MB allowance. "
                                           "No further notification email will be sent.\r\n");
    EXPECT_EQ(line_of(sent[0].content, 9), "Fibre : 960MB / 1000MB (96%) used in this billing cycle\r\n");

    // 100 %: the 100 % line and the suspension, no e-mail.
    set_usage(wan[0], percent(100));
    tick(wan);
    EXPECT_TRUE(take_messages().empty());
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Fibre hits 100% of the 1000MB allowance."}));
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON, SAVECONFIG}));

    // The tool has not created the marker yet: asked again on every tick, without a log line
    // or a backup.
    for (int i = 0; i < 3; ++i) {
        set_usage(wan[0], percent(100) + static_cast<uint64_t>(i + 1) * MiB);
        tick(wan);
        EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON}));
        EXPECT_TRUE(plat.logs.empty());
        EXPECT_TRUE(take_messages().empty());
    }

    // The marker exists: nothing more.
    write_file(MARKER_1, "");
    tick(wan);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());

    // A new billing cycle: usage falls, the link is resumed.
    remove_file("/tmp/ruvo_backup/timestamp");
    set_usage(wan[0], 3 * MiB);
    tick(wan);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_OFF, SAVECONFIG}));
    EXPECT_EQ(balance_lines(), std::vector<std::string>({"Bandwidth allowance monitor: Fibre has entered a new "
                                                         "billing cycle, the connection will resume"}));
    EXPECT_TRUE(take_messages().empty());
    expect_backup_written();

    // The tool has removed the marker: quiet again.
    remove_file(MARKER_1);
    set_usage(wan[0], 4 * MiB);
    tick(wan);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(QuotaScenario, ResumeIsAskedForWhileTheMarkerStays)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].usage_action = USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_usage(wan[0], percent(100));
    write_file(MARKER_1, "");
    tick(wan);
    EXPECT_TRUE(plat.commands.empty());

    set_usage(wan[0], 0);
    tick(wan);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_OFF, SAVECONFIG}));

    set_usage(wan[0], MiB);
    tick(wan);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_OFF, SAVECONFIG}));
    EXPECT_EQ(balance_lines(), std::vector<std::string>({"Bandwidth allowance monitor: Fibre has entered a new "
                                                         "billing cycle, the connection will resume"}));
}

TEST_F(QuotaScenario, WithdrawnDisconnectResumesSuspendedLink)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Backup")};
    wan[0].usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
    wan[0].quota_bytes = QUOTA;
    set_usage(wan[0], percent(90));
    tick(wan);
    set_usage(wan[0], percent(100));
    tick(wan);
    ASSERT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_ON, SAVECONFIG}));
    write_file(MARKER_1, "");
    set_usage(wan[0], percent(101));
    tick(wan);
    ASSERT_TRUE(plat.commands.empty());

    // The configuration loses "disconnect".
    wan[0].usage_action = USAGE_ACTION_EMAIL;
    set_usage(wan[0], percent(102));
    tick(wan);
    EXPECT_EQ(wan[0].alert_state, ALERT_BELOW_LINE | ALERT_RESUME);
    EXPECT_EQ(plat.commands, std::vector<std::string>({SUSPEND_1_OFF, SAVECONFIG}));
    EXPECT_EQ(balance_lines(), std::vector<std::string>({"Bandwidth allowance monitor: Fibre has entered a new "
                                                         "billing cycle, the connection will resume"}));
    EXPECT_TRUE(take_messages().empty());

    remove_file(MARKER_1);
    set_usage(wan[0], percent(103));
    tick(wan);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(QuotaScenario, OnlySimBOfADualSimLinkCrossesItsLines)
{
    std::vector<wan_usage> wan = {plain_record(0, "Fibre"), plain_record(1, "Cell")};
    wan[0].month_bytes[0] = 100 * MiB;
    wan[1].sim_slot_index = 0;
    wan[1].month_bytes[0] = 700 * MiB;
    std::vector<wan_usage> sim = {sim_record(1, 0, 1, "Cell"), sim_record(1, 0, 2, "Cell")};
    for (wan_usage& s : sim) {
        s.usage_action = USAGE_ACTION_EMAIL | USAGE_ACTION_DISCONNECT;
        s.quota_bytes = QUOTA;
        s.start_day = 10;
    }
    set_usage(sim[0], percent(20));
    set_usage(sim[1], percent(90));
    tick(wan, &sim);
    EXPECT_TRUE(plat.commands.empty());

    // SIM B crosses 95 %.
    set_usage(sim[0], percent(21));
    set_usage(sim[1], percent(96));
    tick(wan, &sim);
    std::vector<sent_message> sent = take_messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Cell SIM B hits 95% of the 1000MB allowance."}));
    EXPECT_EQ(plat.commands, std::vector<std::string>({mail_command(sent[0].name), SAVECONFIG}));
    EXPECT_EQ(sent[0].content, "Subject: [ruvo-host] Cell SIM B Bandwidth Usage Hits 95%\r\n"
                               "\r\n"
                               "This is an automated message generated from ruvo-host (RV-2000:HOST0000001).\r\n"
                               "\r\n"
                               "Tue Mar 05 14:07:09 UTC 2024\r\n"
                               "Bandwidth usage for Cell SIM B hits 95% of the 1000MB allowance. "
                               "No further notification email will be sent.\r\n"
                               "\r\n"
                               "Current Usage for All WAN:\r\n"
                               "\r\n"
                               "Fibre : 100MB used in this calendar month\r\n"
                               "Cell : 700MB used in this calendar month\r\n"
                               "\r\n"
                               "Current Usage for All Celluar WAN:\r\n"
                               "\r\n"
                               "Cell SIM A : 210MB / 1000MB (21%) used in this billing cycle\r\n"
                               "Cell SIM B : 960MB / 1000MB (96%) used in this billing cycle\r\n"
                               "\r\n"
                               "Ardenta | www.ardenta.com\r\n"
                               "Mar 05, 2024\r\n"
                               "\r\n"
                               "\r\n");
    expect_backup_written("/tmp/ruvo_backup/wan1");
    EXPECT_TRUE(exists("/tmp/ruvo_backup/wan2/ruvo.sim2.hourly.csv"));

    // SIM B reaches its line: the SIM form of the suspension command.
    set_usage(sim[1], percent(100));
    tick(wan, &sim);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for Cell hits 100% of the 1000MB allowance."}));
    EXPECT_EQ(plat.commands,
              std::vector<std::string>({"/usr/local/korel/bin/wan_usage_suspend 2 on 2 &", SAVECONFIG}));
    EXPECT_TRUE(take_messages().empty());

    // Until its marker exists.
    tick(wan, &sim);
    EXPECT_EQ(plat.commands, std::vector<std::string>({"/usr/local/korel/bin/wan_usage_suspend 2 on 2 &"}));
    write_file("/var/run/korel/wan2/usage_suspend.sim2", "");
    tick(wan, &sim);
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_TRUE(plat.logs.empty());

    // A new billing cycle of SIM B.
    set_usage(sim[1], 0);
    tick(wan, &sim);
    EXPECT_EQ(plat.commands,
              std::vector<std::string>({"/usr/local/korel/bin/wan_usage_suspend 2 off 2 &", SAVECONFIG}));
    EXPECT_EQ(balance_lines(), std::vector<std::string>({"Bandwidth allowance monitor: Cell has entered a new "
                                                         "billing cycle, the connection will resume"}));
}

// ---------------------------------------------------------------------------------------
// escape_percent and the allowance lines

TEST_F(EscapePercent, SinglePercentInTheMiddleIsDoubled)
{
    EXPECT_STREQ(escape_percent("load 50% now"), "load 50%% now");
}

TEST_F(EscapePercent, TextWithoutPercentIsReturnedAsTheSameBuffer)
{
    const char* text = "no percent <here> & \"there\"";
    EXPECT_EQ(escape_percent(text), text);
    const char* empty = "";
    EXPECT_EQ(escape_percent(empty), empty);
}

TEST_F(EscapePercent, TwoAdjacentPercentSignsBetweenLettersBecomeThree)
{
    EXPECT_STREQ(escape_percent("a%%b"), "a%%%b");
}

TEST_F(EscapePercent, TextOpeningWithPercentIsCopiedAsItStands)
{
    const char* text = "%d items";
    const char* escaped = escape_percent(text);
    EXPECT_NE(escaped, text);
    EXPECT_STREQ(escaped, "%d items");
}

TEST_F(EscapePercent, MarkupCharactersAtStartOrAfterPercentBecomeDoublePercent)
{
    EXPECT_STREQ(escape_percent("\"quoted\" 5%"), "%%quoted\" 5%%");
    EXPECT_STREQ(escape_percent("5%<b>"), "5%%%%b>");
    EXPECT_STREQ(escape_percent("x%&y%'z%>"), "x%%%%y%%%%z%%%%");
}

TEST_F(EscapePercent, ResultStaysValidAcrossCallsThatNeedNoBuffer)
{
    const char* first = escape_percent("5% left");
    const char* plain = "plain";
    EXPECT_EQ(escape_percent(plain), plain);
    EXPECT_STREQ(first, "5%% left");
}

TEST_F(BalanceLog, RenderShowsEachDoublePercentAsOne)
{
    EXPECT_EQ(render_escaped("100%% sure"), "100% sure");
    EXPECT_EQ(render_escaped("a%%%%x hits 75% of"), "a%%x hits 75% of");
    EXPECT_EQ(render_escaped("%%%"), "%%");
    EXPECT_EQ(render_escaped("%"), "%");
    EXPECT_EQ(render_escaped("plain"), "plain");
}

TEST_F(BalanceLog, LineGoesToBalanceLocal0Notice)
{
    log_balance("Bandwidth usage for %s hits %d%% of the %lluMB allowance.", "Fibre", 75, 1000ull);
    ASSERT_EQ(plat.logs.size(), 1u);
    EXPECT_EQ(plat.logs[0].ident, "balance");
    EXPECT_EQ(plat.logs[0].facility, LOG_LOCAL0);
    EXPECT_EQ(plat.logs[0].priority, LOG_NOTICE);
    EXPECT_EQ(plat.logs[0].text, "Bandwidth usage for Fibre hits 75% of the 1000MB allowance.");
}

TEST_F(BalanceLog, LongLineIsCutAt255Characters)
{
    std::string name(300, 'n');
    log_balance("Bandwidth usage for %s hits 100%% of the %lluMB allowance.", name.c_str(), 1000ull);
    ASSERT_EQ(plat.logs.size(), 1u);
    EXPECT_EQ(plat.logs[0].text, ("Bandwidth usage for " + name).substr(0, 255));
}

TEST_F(BalanceLog, FormatDirectivesInLinkNameReachSyslogAsPlainText)
{
    wan_usage r = plain_record(0, "%s%n");
    r.quota_bytes = QUOTA;
    r.alert_state = ALERT_AT_LINE | ALERT_REACHED;
    write_file(MARKER_1, "");
    update_usage_suspension(r);
    r.alert_state = ALERT_BELOW_LINE;
    update_usage_suspension(r);
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for %s%n hits 100% of the 1000MB allowance.",
                                        "Bandwidth allowance monitor: %s%n has entered a new billing cycle, "
                                        "the connection will resume"}));
}

TEST_F(BalanceLog, AdjacentPercentSignsInLinkNameReachSyslogAsEscaped)
{
    // The escaping stops at the name's second percent sign and copies the rest as it
    // stands; the rendered text shows each doubled sign once.
    wan_usage r = plain_record(0, "a%%%x");
    r.quota_bytes = QUOTA;
    r.alert_state = ALERT_AT_LINE | ALERT_REACHED;
    write_file(MARKER_1, "");
    update_usage_suspension(r);
    EXPECT_STREQ(escape_percent("Bandwidth usage for a%%%x hits 100% of the 1000MB allowance."),
                 "Bandwidth usage for a%%%%x hits 100% of the 1000MB allowance.");
    EXPECT_EQ(balance_lines(),
              std::vector<std::string>({"Bandwidth usage for a%%x hits 100% of the 1000MB allowance."}));
}

} // namespace
