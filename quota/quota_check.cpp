#include "quota/quota_check.h"

#include "core/read_file.h"
#include "core/save_backup.h"
#include "history/backup.h"
#include "platform/platform.h"
#include "quota/alert_email.h"
#include "quota/balance_log.h"

#include <cstdio>

namespace {

constexpr const char* SUSPEND_TOOL = "/usr/local/korel/bin/wan_usage_suspend";

uint64_t total(const uint64_t pair[2]) { return pair[0] + pair[1]; }

// Runs the suspension tool in the background: "on" suspends, "off" resumes.
void run_suspend_tool(const wan_usage& r, const char* on_off)
{
    char command[256];
    if (r.sim_number == 0)
        snprintf(command, sizeof command, "%s %d %s &", SUSPEND_TOOL, r.wan_index + 1, on_off);
    else
        snprintf(command, sizeof command, "%s %d %s %d &", SUSPEND_TOOL, r.wan_index + 1, on_off,
                 r.sim_number);
    sys_system(command);
}

// Whether the record belongs to a dual-SIM pair that the SIM array holds.
bool has_sim_pair(const wan_usage& r, int sim_count)
{
    return sim_count > 0 && r.sim_slot_index >= 0 && 2 * r.sim_slot_index + 1 < sim_count;
}

} // namespace

int check_wan_usage(wan_usage* records, int count)
{
    for (int i = 0; i < count; ++i) {
        wan_usage& r = records[i];
        const uint64_t usage = total(r.billing_bytes);
        const uint64_t previous = total(r.quota_snapshot);
        const bool known = previous != 0;
        // The 100 % line is 99.5 % on purpose: the link is cut just before the allowance is
        // used up.
        const double quota = static_cast<double>(r.quota_bytes);
        const double line = quota * 0.995, line95 = quota * 0.95, line75 = quota * 0.75;
        const double now = static_cast<double>(usage), before = static_cast<double>(previous);
        auto snapshot = [&r] {
            r.quota_snapshot[0] = r.billing_bytes[0];
            r.quota_snapshot[1] = r.billing_bytes[1];
        };
        r.alert_state = 0;
        if (r.usage_action & USAGE_ACTION_DISCONNECT) {
            if (now >= line) {
                r.alert_state = ALERT_AT_LINE;
                if (known && before < line) {
                    // Reached on this tick: no e-mail then or later in this cycle.
                    r.alert_state = ALERT_AT_LINE | ALERT_REACHED;
                    snapshot();
                    continue;
                }
            } else {
                r.alert_state = ALERT_BELOW_LINE;
                if (known && before >= line) {
                    r.alert_state = ALERT_BELOW_LINE | ALERT_RESUME;
                    snapshot();
                    continue;
                }
            }
        } else {
            r.alert_state = ALERT_BELOW_LINE;
        }
        if ((r.usage_action & USAGE_ACTION_EMAIL) && known) {
            if (now >= line95 && before < line95) {
                r.alert_state |= ALERT_95;
                snapshot();
                continue;
            }
            if (now >= line75 && before < line75) {
                r.alert_state |= ALERT_75;
                snapshot();
                continue;
            }
        }
        snapshot();
    }
    return 0;
}

int usage_suspended(int wan_number, int sim_number)
{
    char path[128];
    if (sim_number == 0)
        snprintf(path, sizeof path, "/var/run/korel/wan%d/usage_suspend", wan_number);
    else
        snprintf(path, sizeof path, "/var/run/korel/wan%d/usage_suspend.sim%d", wan_number, sim_number);
    return is_readable(path) ? 1 : 0;
}

int update_usage_suspension(wan_usage& r)
{
    const int n = r.wan_index + 1;
    char marker[128];
    snprintf(marker, sizeof marker, "/var/run/korel/wan%d/timesync_privilege_mode", n);
    bool stop_due = false;
    if (path_exists(marker)) {
        r.timesync_privilege = 1;
    } else if (r.timesync_privilege == 1) {
        r.timesync_privilege = 0;
        stop_due = r.sim_number == 0; // plain WAN records only
    }

    int logged = 0;
    if (r.alert_state & ALERT_BELOW_LINE) {
        if (usage_suspended(n, r.sim_number)) {
            run_suspend_tool(r, "off");
            r.alert_state |= ALERT_RESUME;
        }
        if (r.alert_state & ALERT_RESUME) {
            log_balance("Bandwidth allowance monitor: %s has entered a new billing cycle, the "
                        "connection will resume",
                        r.wan_name);
            logged = 1;
        }
    } else if (r.alert_state & ALERT_AT_LINE) {
        if (r.alert_state & ALERT_REACHED) {
            log_balance("Bandwidth usage for %s hits 100%% of the %lluMB allowance.", r.wan_name,
                        static_cast<unsigned long long>(r.quota_bytes >> 20));
            logged = 1;
        }
        // Asked again on every tick until the tool has created the marker.
        if (!usage_suspended(n, r.sim_number))
            run_suspend_tool(r, "on");
    }
    if (stop_due) {
        char command[256];
        snprintf(command, sizeof command, "wan_action %d stop", n);
        sys_system(command);
    }
    return logged;
}

int wan_usage_alert(wan_usage* records, int count, wan_usage* sim_records, int sim_count)
{
    if (count < 1)
        return 0;
    for (int i = 0; i < count; ++i) {
        wan_usage& r = records[i];
        int happened = update_usage_suspension(r);
        const bool pair = sim_records && has_sim_pair(r, sim_count);
        const int a = 2 * r.sim_slot_index;
        const int b = a + 1;
        if (pair) {
            happened |= update_usage_suspension(sim_records[a]);
            happened |= update_usage_suspension(sim_records[b]);
        }
        if (r.usage_action & USAGE_ACTION_EMAIL)
            happened |= compose_usage_alert(records, i, count, sim_records, -1, sim_count) > 0;
        if (pair) {
            if (sim_records[a].usage_action & USAGE_ACTION_EMAIL)
                happened |= compose_usage_alert(records, -1, count, sim_records, a, sim_count) > 0;
            if (sim_records[b].usage_action & USAGE_ACTION_EMAIL)
                happened |= compose_usage_alert(records, -1, count, sim_records, b, sim_count) > 0;
        }
        // Once for every WAN whose own or whose SIMs' results count: events on two WANs in
        // one tick save twice.
        if (happened) {
            backup_usage(records, count);
            if (sim_count > 0 && sim_records)
                backup_usage(sim_records, sim_count);
            save_backup();
        }
    }
    return 0;
}
