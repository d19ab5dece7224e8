#include "daemon/daemon.h"

#include "core/atomic_file.h"
#include "core/link_usage.h"
#include "core/local_time.h"
#include "core/log.h"
#include "core/own_files.h"
#include "core/period_clock.h"
#include "core/quota_config.h"
#include "core/read_file.h"
#include "daemon/dual_sim.h"
#include "daemon/signals.h"
#include "history/backup.h"
#include "history/billing.h"
#include "history/daily.h"
#include "history/hourly.h"
#include "history/monthly.h"
#include "platform/platform.h"
#include "quota/quota_check.h"

#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* PID_FILE = "/var/run/ruvo.pid";
constexpr const char* TIME_INITIALIZED = "/var/run/korel/time_initialized";
constexpr int PATH_SIZE = 128;

void unlink_path(const char* absolute)
{
    unlink(sys_path(absolute).c_str());
}

void remove_pid_file_at_exit() { remove_pid_file(); }

// The pid file is replaced whole like every other file, so that a file or link planted
// at its name is never written through.
void write_pid_file()
{
    set_pid_file_path(sys_path(PID_FILE).c_str());
    atomic_file f("/var/run/ruvo.pid.tmp");
    if (!f.is_open())
        return;
    fprintf(f.stream(), "%d\n", static_cast<int>(getpid()));
    f.commit(PID_FILE);
}

void log_start()
{
    time_t now = sys_time();
    struct tm tm = local_tm(now);
    char when[256];
    if (strftime(when, sizeof when, "%c %Z(%z)", &tm) == 0)
        when[0] = '\0';
    log_notice("starting Ardenta Usage Monitor (ruvo). %s", when);
}

// The live history files only live as long as the daemon: their content is regenerated
// from the records.
void remove_history_files(int wan_count)
{
    static const char* const formats[] = {
        "/var/run/korel/wan%d/usage_history.hourly",
        "/var/run/korel/wan%d/usage_history.daily",
        "/var/run/korel/wan%d/usage_history.monthly",
        "/var/run/korel/wan%d/usage_history.billing",
    };
    char path[PATH_SIZE];
    for (int n = 1; n <= wan_count; ++n)
        for (const char* format : formats) {
            snprintf(path, sizeof path, format, n);
            unlink_path(path);
        }
}

void remove_sim_history_files(const wan_usage& wan)
{
    static const char* const formats[] = {
        "/var/run/korel/wan%d/sim%d_usage_history.hourly",
        "/var/run/korel/wan%d/sim%d_usage_history.daily",
        "/var/run/korel/wan%d/sim%d_usage_history.monthly",
        "/var/run/korel/wan%d/sim%d_usage_history.billing",
    };
    char path[PATH_SIZE];
    for (int sim = 1; sim <= 2; ++sim)
        for (const char* format : formats) {
            snprintf(path, sizeof path, format, wan.wan_index + 1, sim);
            unlink_path(path);
        }
}

void make_backup_directories(int wan_count)
{
    mkdir(sys_path("/tmp/ruvo_backup").c_str(), 0755);
    char path[PATH_SIZE];
    for (int n = 1; n <= wan_count; ++n) {
        snprintf(path, sizeof path, "/tmp/ruvo_backup/wan%d", n);
        mkdir(sys_path(path).c_str(), 0755);
    }
}

record_array allocate_records(int count)
{
    return record_array(static_cast<wan_usage*>(calloc(static_cast<size_t>(count), sizeof(wan_usage))));
}

// Dual-SIM links get two records each, sampled and restored like the WAN records.
int set_up_sim_records(daemon_state& state)
{
    int links = read_dual_sim_links(state.wan.get(), state.wan_count);
    if (links == 0)
        return 0;
    for (int i = 0; i < state.wan_count; ++i)
        if (state.wan[i].sim_slot_index >= 0)
            remove_sim_history_files(state.wan[i]);
    state.sim = allocate_records(2 * links);
    if (!state.sim)
        return 1;
    state.sim_count = 2 * links;
    assign_sim_pairs(state.wan.get(), state.wan_count, state.sim.get(), state.sim_count);
    read_link_usage(state.wan.get(), state.wan_count, state.sim.get());
    restore_usage(state.sim.get(), state.sim_count);
    return 0;
}

// The rollovers of one record, run only while the system clock is known to be set.
void roll_histories(wan_usage& r)
{
    billing_rollover(r);
    wu_monthly_rollover(r);
    hourly_rollover(r);
    daily_rollover(r);
    sum_month_usage(r);
    sum_billing_usage(r);
    init_period_buckets(r);
}

void export_histories(const wan_usage& r)
{
    export_hourly_csv(r);
    export_daily_csv(r);
    export_monthly_csv(r);
    export_billing_csv(r);
}

// The three router-wide total files: built whole on the first tick since start, and after
// that rebuilt only when a history changed, otherwise updated in their first line.
void write_total_files(usage_totals& totals)
{
    if (!(totals.flags & TOTALS_BUILT)) {
        rebuild_hourly_total(totals);
        rebuild_daily_total(totals);
        rebuild_monthly_total(totals);
        totals.flags |= TOTALS_BUILT;
        return;
    }
    if (totals.flags & TOTALS_HOURLY_CHANGED)
        rebuild_hourly_total(totals);
    else
        update_hourly_total(totals);
    if (totals.flags & TOTALS_DAILY_CHANGED)
        rebuild_daily_total(totals);
    else
        update_daily_total(totals);
    if (totals.flags & TOTALS_MONTHLY_CHANGED)
        rebuild_monthly_total(totals);
    else
        update_monthly_total(totals);
    totals.flags &= ~(TOTALS_HOURLY_CHANGED | TOTALS_DAILY_CHANGED | TOTALS_MONTHLY_CHANGED);
}

void write_backups(daemon_state& state)
{
    backup_usage(state.wan.get(), state.wan_count);
    if (state.sim)
        backup_usage(state.sim.get(), state.sim_count);
    create_backup_client_usage(state.clients.get());
}

} // namespace

int daemon_start(daemon_state& state, int wan_count)
{
    write_pid_file();
    static bool pid_file_removal_registered = false;
    if (!pid_file_removal_registered)
        pid_file_removal_registered = atexit(remove_pid_file_at_exit) == 0;
    log_start();
    remove_history_files(wan_count);
    make_backup_directories(wan_count);
    client_usage_cleanup_history_files();
    install_termination_handlers();
    unblock_daemon_signals();

    state.wan = allocate_records(wan_count);
    if (!state.wan)
        return 1;
    state.wan_count = wan_count;
    for (int i = 0; i < wan_count; ++i) {
        state.wan[i].wan_index = i;
        state.wan[i].sim_slot_index = -1;
    }
    // The baseline: traffic before start-up is not a delta that any bucket adds.
    read_link_usage(state.wan.get(), state.wan_count, nullptr);
    restore_usage(state.wan.get(), state.wan_count);

    state.clients.reset(client_usage_init());
    if (!state.clients)
        return 1;
    if (set_up_sim_records(state) != 0)
        return 1;

    install_tick_handlers();
    sys_alarm(TICK_SECONDS);
    return 0;
}

void process_tick(daemon_state& state)
{
    sys_alarm(0);
    update_period_clock();
    // What changed the daemon's kept files since the last tick (core/own_files.h).
    check_own_files();

    wan_usage* wan = state.wan.get();
    wan_usage* sim = state.sim.get();
    load_wan_quota_config(wan, state.wan_count, &state.config_mtime_wan);
    if (sim)
        load_wan_quota_config(sim, state.sim_count, &state.config_mtime_sim);
    read_link_usage(wan, state.wan_count, sim);

    clear_usage_totals(state.totals);
    // While the clock has not been set no history moves and no bucket is initialised. The
    // marker is looked at once per tick and holds for every record of the tick.
    bool clock_set = is_readable(TIME_INITIALIZED);
    for (int i = 0; i < state.wan_count; ++i) {
        if (clock_set)
            roll_histories(wan[i]);
        export_histories(wan[i]);
        aggregate_hourly_daily(state.totals, wan[i]);
        aggregate_monthly_total(state.totals, wan[i]);
    }
    // SIM records never enter the router totals: their traffic is part of their WAN's.
    for (int i = 0; i < state.sim_count; ++i) {
        if (clock_set)
            roll_histories(sim[i]);
        export_histories(sim[i]);
    }
    write_total_files(state.totals);

    check_wan_usage(wan, state.wan_count);
    if (sim)
        check_wan_usage(sim, state.sim_count);
    wan_usage_alert(wan, state.wan_count, sim, state.sim_count);

    read_client_usage(state.clients.get());
    save_client_usage(state.clients.get());
    tick_pending = 0;
    // The next tick is 30 s after this one's work, not 30 s after its start.
    sys_alarm(TICK_SECONDS);
}

void loop_pass(daemon_state& state)
{
    if (tick_pending)
        process_tick(state);
    if (ticks_since_backup >= PERIODIC_BACKUP_TICKS) {
        write_backups(state);
        save_backup();
        ticks_since_backup = 0;
    }
    // A requested backup after a periodic one in the same pass writes the files twice;
    // that is accepted.
    if (backup_requested) {
        write_backups(state);
        backup_requested = 0;
    }
    ticks_since_backup = ticks_since_backup + 1;
    install_tick_handlers();
}

int run_daemon(int wan_count)
{
    daemon_state state;
    if (daemon_start(state, wan_count) != 0)
        return 1;
    for (;;) {
        loop_pass(state);
        pause();
    }
}
