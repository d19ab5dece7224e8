// ruvo-sim: runs the daemon's own code in this process on a simulated router, 30 s of
// simulated time per tick and as fast as the machine allows, and leaves the daemon's output
// tree, its syslog, the commands it ran, the e-mails it sent and the generator's own totals
// for inspection. See README.md next to this file.
#include "expected.h"
#include "faults.h"
#include "scenario.h"
#include "sim_platform.h"
#include "tree_check.h"

#include "client_mac/mac_usage.h"
#include "core/own_files.h"
#include "daemon/daemon.h"
#include "daemon/signals.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <memory>
#include <string>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

struct sim_options {
    scenario_options scenario;
    std::string root;
    bool quiet = false;
    bool faults = false;
    bool check = false;
    std::string report_command;
};

constexpr int MAX_DAYS = 3660;

const char* const USAGE =
    "usage: ruvo-sim [--days N] [--links N] [--clients N] [--seed N] [--root DIR] [--quiet]\n"
    "                [--faults] [--check] [--report-command CMD]\n"
    "\n"
    "Runs the ruvo daemon's code on a simulated router, 30 s of simulated time per tick, from\n"
    "2024-02-28 00:00:00 UTC (across the end of February and WAN 1's billing day, the 29th).\n"
    "\n"
    "  --days N       simulated days, 1..3660 (default 3)\n"
    "  --links N      WAN links, at least 2; the last one is the dual-SIM link (default 3)\n"
    "  --clients N    LAN clients, 0..16384 (default 200)\n"
    "  --seed N       seed of the generator (default 1); a seed always gives the same run\n"
    "  --root DIR     the router's root directory, created when missing, empty when given\n"
    "                 (default: a new directory under $TMPDIR or /var/tmp); it is kept\n"
    "  --quiet        no progress lines and no report output, only the summary\n"
    "  --faults       also a full /tmp, kills of the daemon, clock jumps and damaged input\n"
    "                 files at times drawn from the seed (the traffic stays the same), with\n"
    "                 the tree checked after every pass and start-up; a broken rule makes\n"
    "                 the exit status 1 (the faults and checks: sim/faults.log, summary)\n"
    "  --check        the checks of --faults without the faults\n"
    "  --report-command CMD\n"
    "                 run \"CMD --root DIR\" at the end instead of the ruvo-report that\n"
    "                 lies next to ruvo-sim (<build>/tools/report/ruvo-report)\n";

bool parse_number(const char* text, long long low, long long high, long long* out)
{
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < low || value > high)
        return false;
    *out = value;
    return true;
}

// Returns 0 when the options are fine, 2 on a usage error, 1 for --help.
int parse_options(int argc, char** argv, sim_options* options)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            fputs(USAGE, stdout);
            return 1;
        }
        if (arg == "--quiet") {
            options->quiet = true;
            continue;
        }
        if (arg == "--faults" || arg == "--check") {
            (arg == "--faults" ? options->faults : options->check) = true;
            continue;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "ruvo-sim: unknown option or missing value: %s\n%s", arg.c_str(), USAGE);
            return 2;
        }
        const char* value = argv[++i];
        long long n = 0;
        bool ok = true;
        if (arg == "--days") {
            ok = parse_number(value, 1, MAX_DAYS, &n);
            options->scenario.days = static_cast<int>(n);
        } else if (arg == "--links") {
            ok = parse_number(value, 2, 16, &n);
            options->scenario.links = static_cast<int>(n);
        } else if (arg == "--clients") {
            ok = parse_number(value, 0, 16384, &n);
            options->scenario.clients = static_cast<int>(n);
        } else if (arg == "--seed") {
            char* end = nullptr;
            errno = 0;
            options->scenario.seed = strtoull(value, &end, 10);
            ok = errno == 0 && end != value && *end == '\0' && value[0] != '-';
        } else if (arg == "--root") {
            options->root = value;
            ok = !options->root.empty();
        } else if (arg == "--report-command") {
            options->report_command = value;
        } else {
            fprintf(stderr, "ruvo-sim: unknown option: %s\n%s", arg.c_str(), USAGE);
            return 2;
        }
        if (!ok) {
            fprintf(stderr, "ruvo-sim: bad value for %s: %s\n", arg.c_str(), value);
            return 2;
        }
    }
    return 0;
}

bool directory_is_empty(const std::string& path)
{
    std::error_code error;
    return fs::is_empty(path, error) && !error;
}

// The root directory: the given one (created, and required to be empty so that no earlier
// run's backups are restored), or a new one.
std::string make_root(const std::string& wanted)
{
    if (!wanted.empty()) {
        std::error_code error;
        fs::create_directories(wanted, error);
        if (!fs::is_directory(wanted) || !directory_is_empty(wanted)) {
            fprintf(stderr, "ruvo-sim: --root %s must be an empty or new directory\n", wanted.c_str());
            return "";
        }
        return fs::absolute(wanted).lexically_normal().string();
    }
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/var/tmp") + "/ruvo-sim-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) {
        fprintf(stderr, "ruvo-sim: cannot create %s: %s\n", pattern.c_str(), strerror(errno));
        return "";
    }
    return fs::absolute(buffer.data()).string();
}

std::string day_name(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char text[16];
    strftime(text, sizeof text, "%Y-%m-%d", &tm);
    return text;
}

std::string show_time(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char text[40];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &tm);
    return text;
}

// The start-up installs the daemon's own handlers: SIGINT and SIGTERM would end the simulator
// with status 0. The simulator is not the daemon; it ends as any program does.
void default_termination()
{
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
}

// Copies the live history files of every WAN and SIM record to <root>/sim/restart/<which>.
void copy_histories(const std::string& root, const char* which, int links, int dual_sim_wan)
{
    static const char* const kinds[] = {"hourly", "daily", "monthly", "billing"};
    for (int wan = 1; wan <= links; ++wan) {
        std::string from = root + "/var/run/korel/wan" + std::to_string(wan);
        std::string to = root + "/sim/restart/" + which + "/wan" + std::to_string(wan);
        std::error_code error;
        fs::create_directories(to, error);
        std::vector<std::string> names;
        for (const char* kind : kinds) {
            names.push_back(std::string("usage_history.") + kind);
            if (wan == dual_sim_wan)
                for (int sim = 1; sim <= 2; ++sim)
                    names.push_back("sim" + std::to_string(sim) + "_usage_history." + kind);
        }
        for (const std::string& name : names) {
            error.clear();
            fs::copy_file(from + "/" + name, to + "/" + name, fs::copy_options::overwrite_existing, error);
        }
    }
}

std::string quoted(const std::string& text)
{
    std::string q = "'";
    for (char c : text)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

std::string own_directory()
{
    std::error_code error;
    fs::path exe = fs::read_symlink("/proc/self/exe", error);
    return error ? std::string(".") : exe.parent_path().string();
}

// The report of the other tool, when there is one: the given command, or ruvo-report from the
// build directory next to this one.
void run_report(const sim_options& options, const std::string& root)
{
    fflush(stdout);
    fflush(stderr);
    if (!options.report_command.empty()) {
        std::string command = options.report_command + " --root " + quoted(root);
        printf("\n$ %s\n", command.c_str());
        fflush(stdout);
        int status = system(command.c_str());
        if (status != 0)
            printf("(the report command ended with status %d)\n", WIFEXITED(status) ? WEXITSTATUS(status) : status);
        return;
    }
    std::string report = (fs::path(own_directory()) / ".." / "report" / "ruvo-report").lexically_normal().string();
    if (access(report.c_str(), X_OK) != 0) {
        printf("\nNo report: %s does not exist (yet); read the tree directly.\n", report.c_str());
        return;
    }
    printf("\n$ %s --root %s\n", report.c_str(), root.c_str());
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        execl(report.c_str(), report.c_str(), "--root", root.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        printf("(could not run the report)\n");
    else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        printf("(the report ended with status %d)\n", WIFEXITED(status) ? WEXITSTATUS(status) : status);
}

bool on_tmpfs(const std::string& path)
{
    struct statfs fs_info;
    return statfs(path.c_str(), &fs_info) == 0 && fs_info.f_type == TMPFS_MAGIC;
}

void reset_signal_flags()
{
    tick_pending = 0;
    ticks_since_backup = 0;
    backup_requested = 0;
}

// Drops the daemon's state, as the end of its process does, and starts it again at time
// `at` on the same tree. Returns false when the start-up fails.
bool restart_daemon(std::unique_ptr<daemon_state>& state, sim_platform& plat, time_t at, int links)
{
    state.reset();
    free_mac_tables();
    forget_own_files(); // the files kept in memory go with the process
    reset_signal_flags();
    plat.clock = at;
    state = std::make_unique<daemon_state>();
    if (daemon_start(*state, links) != 0)
        return false;
    default_termination();
    return true;
}

// Runs one pass of the loop in a child process that is killed with SIGKILL at its
// kill_point-th write of file data or shell command (or, when the pass has fewer, ends
// right after it), as a kill or a power cut ends the daemon. The files it wrote stay; its
// memory is gone with it, and the caller's state, from before the pass, is dropped too.
// Returns what happened.
std::string kill_during_pass(daemon_state& state, sim_platform& plat, long kill_point)
{
    fflush(stdout);
    fflush(stderr);
    pid_t child = fork();
    if (child < 0)
        return std::string("the pass could not be started: ") + strerror(errno);
    if (child == 0) {
        plat.kill_countdown = kill_point;
        loop_pass(state);
        _exit(0);
    }
    int status = 0;
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child)
            break;
        if (done < 0 && errno != EINTR)
            return "the pass's process was lost";
        if (std::chrono::steady_clock::now() - start > std::chrono::seconds(300)) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return "the pass hung for 300 s";
        }
        struct timespec wait = {0, 1000000};
        nanosleep(&wait, nullptr);
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        return "killed at write or command " + std::to_string(kill_point) + " of the pass";
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return "killed right after the pass (it made fewer than " + std::to_string(kill_point) +
               " writes and commands)";
    if (WIFSIGNALED(status))
        return std::string("the pass crashed: ") + strsignal(WTERMSIG(status));
    return "the pass ended with status " + std::to_string(WEXITSTATUS(status));
}

check_moment moment(int tick, time_t clock, bool clock_back, const sim_platform& plat, bool config_damaged,
                    bool copies_made, bool copies_worked, const std::string& damaged_inputs = std::string())
{
    check_moment m;
    m.damaged_inputs = damaged_inputs;
    m.tick = tick;
    m.clock = clock;
    m.clock_back = clock_back;
    m.tmp_full = plat.tmp_full;
    m.config_damaged = config_damaged;
    m.copies_made = copies_made;
    m.copies_worked = copies_worked;
    m.left_empty = &plat.left_empty();
    return m;
}

// The tick's traffic as the hourly sums of the clients need it: the router's own traffic
// on all links, what the daemon counts short of what the links carried (a wrap: one byte),
// and whether a link's counter restarted (a drop the daemon counts as a wrap, far more than
// the link carried).
check_moment with_traffic(check_moment m, const std::vector<link_tick>& traffic)
{
    for (const link_tick& l : traffic)
        for (int c = 0; c < 2; ++c) {
            m.own[c] += l.own[c];
            if (l.counted[c] < l.fed[c])
                m.uncounted[c] += l.fed[c] - l.counted[c];
            else if (l.counted[c] > l.fed[c])
                m.link_restarted = true;
        }
    return m;
}

// The wall time of the passes: the slowest one shows that none hung.
struct run_stats {
    double slowest = 0;
    int slowest_tick = 0;
    std::vector<std::string> crashes;
    long passes = 0;
    long restarts = 0;
    long kills_mid_pass = 0;
    long kills_after_pass = 0;
    long kills_at_backup = 0;

    void pass(std::chrono::steady_clock::duration d, int tick)
    {
        ++passes;
        double seconds = std::chrono::duration<double>(d).count();
        if (seconds > slowest) {
            slowest = seconds;
            slowest_tick = tick;
        }
    }
};

// The process's peak resident memory in KiB (VmHWM), or -1.
long peak_memory_kib()
{
    FILE* f = fopen("/proc/self/status", "r");
    if (!f)
        return -1;
    char line[256];
    long kib = -1;
    while (fgets(line, sizeof line, f))
        if (strncmp(line, "VmHWM:", 6) == 0)
            kib = strtol(line + 6, nullptr, 10);
    fclose(f);
    return kib;
}

// E-mails in the outbox and suspension commands in commands.log: with faults, killed
// passes ran in processes of their own, whose lists this process does not have.
void count_logged(const std::string& root, long* emails, long* suspensions)
{
    *emails = 0;
    *suspensions = 0;
    std::error_code error;
    for (fs::directory_iterator it(root + "/sim/outbox", error), end; !error && it != end; it.increment(error))
        ++*emails;
    FILE* f = fopen((root + "/sim/commands.log").c_str(), "r");
    if (!f)
        return;
    char line[4096];
    while (fgets(line, sizeof line, f)) {
        const char* command = line;
        for (int tab = 0; tab < 2 && command; ++tab) {
            command = strchr(command, '\t');
            if (command)
                ++command;
        }
        if (command && strncmp(command, "/usr/local/korel/bin/wan_usage_suspend ", 39) == 0)
            ++*suspensions;
    }
    fclose(f);
}

} // namespace

int main(int argc, char** argv)
{
    sim_options options;
    if (int parsed = parse_options(argc, argv, &options))
        return parsed == 1 ? 0 : 2;

    // Every date of the run is a UTC date.
    setenv("TZ", "UTC", 1);
    tzset();

    const std::string root = make_root(options.root);
    if (root.empty())
        return 1;
    for (const char* dir : {"/sim", "/sim/outbox", "/sim/restart"})
        mkdir((root + dir).c_str(), 0755);

    const auto wall_start = std::chrono::steady_clock::now();
    auto wall_seconds = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
    };

    scenario world(options.scenario, root);
    const timeline& tl = world.events();
    const int links = options.scenario.links;
    if (!world.write_static_files()) {
        fprintf(stderr, "ruvo-sim: cannot write the router's files under %s\n", root.c_str());
        return 1;
    }
    sim_platform plat(root);
    if (!plat.ok()) {
        fprintf(stderr, "ruvo-sim: cannot open the logs under %s/sim\n", root.c_str());
        return 1;
    }
    platform_install(&plat);
    expectation expected(world);

    if (!options.quiet)
        fprintf(stderr, "ruvo-sim: %d day(s), %d WAN links (WAN %d dual-SIM), %d clients, seed %llu, root %s\n",
                options.scenario.days, links, world.dual_sim_wan(), options.scenario.clients,
                static_cast<unsigned long long>(options.scenario.seed), root.c_str());

    const bool checking = options.faults || options.check;
    fault_session faults(options.faults ? plan_faults(world.fault_seed(), options.scenario.days, tl.ticks)
                                        : std::vector<planned_fault>(),
                         root, options.faults ? root + "/sim/faults.log" : std::string());
    tree_checker checker(root, links, world.dual_sim_wan());
    run_stats stats;

    plat.clock = SIM_START;
    world.write_kernel_files(SIM_START, 0);
    reset_signal_flags();
    auto state = std::make_unique<daemon_state>();
    if (daemon_start(*state, links) != 0) {
        fprintf(stderr, "ruvo-sim: the daemon's start-up failed\n");
        return 1;
    }
    default_termination();

    time_t previous = SIM_START;
    time_t previous_clock = SIM_START;
    int day_number = 1;
    for (int tick = 1; tick <= tl.ticks; ++tick) {
        const time_t t = tl.time_of(tick);
        if (t > previous && day_name(t) != day_name(previous)) {
            if (!options.quiet)
                fprintf(stderr, "  day %d/%d (%s) done: %d ticks, %zu e-mails, %zu suspension commands, %.1f s\n",
                        day_number, options.scenario.days, day_name(previous).c_str(), tick - 1,
                        plat.emails().size(), plat.suspensions().size(), wall_seconds());
            ++day_number;
        }
        // The faults of the tick: the daemon's clock is the true time plus the clock's jumps;
        // the traffic follows the true time, so it is the same with and without faults.
        const time_t clock = faults.begin_tick(tick, t);
        plat.tmp_full = faults.tmp_full(tick);
        std::vector<link_tick> traffic = world.advance(tick, t, expected.wan1_suspended());
        expected.tick(t, traffic, world.active_sim(tick));
        if (!world.write_kernel_files(clock, tick)) {
            fprintf(stderr, "ruvo-sim: cannot write the kernel files under %s\n", root.c_str());
            return 1;
        }
        const bool config_damaged = faults.damage_inputs(clock);
        plat.clock = clock;
        tick_pending = 1;
        // A kill never falls on the scenario's own restart: that pass is the SIGHUP-like one.
        planned_fault kill;
        const bool killed = tick != tl.restart_tick &&
                            faults.kill_due(ticks_since_backup >= PERIODIC_BACKUP_TICKS, &kill);
        if (tick == tl.restart_tick)
            ticks_since_backup = PERIODIC_BACKUP_TICKS; // as SIGHUP: the tick, then a full backup
        bool copies_before = false;
        plat.take_copy_state(&copies_before); // only this pass's copies count
        const auto pass_start = std::chrono::steady_clock::now();
        if (killed) {
            std::string outcome = kill_during_pass(*state, plat, kill.kill_point);
            faults.repair_inputs(clock);
            if (!restart_daemon(state, plat, clock + 10, links)) {
                fprintf(stderr, "ruvo-sim: the daemon's start-up failed after a kill\n");
                return 1;
            }
            faults.note(clock, fault_kind::kill,
                        outcome + (kill.at_backup ? " (a pass with the periodic backup)" : "") +
                            "; started again at " + iso_time(clock + 10) + (plat.tmp_full ? ", /tmp full" : ""));
            if (outcome.compare(0, 7, "killed ") != 0)
                stats.crashes.push_back("tick " + std::to_string(tick) + ": " + outcome);
            else if (outcome.compare(0, 13, "killed right ") == 0)
                ++stats.kills_after_pass;
            else
                ++stats.kills_mid_pass;
            stats.kills_at_backup += kill.at_backup;
            ++stats.restarts;
            check_moment m = with_traffic(
                moment(tick, clock + 10, false, plat, config_damaged, false, false, faults.damaged_inputs()), traffic);
            checker.after_restart(m, *state);
        } else {
            loop_pass(*state);
            faults.repair_inputs(clock);
            stats.pass(std::chrono::steady_clock::now() - pass_start, tick);
            if (checking) {
                bool copies_made = false;
                bool copies_worked = plat.take_copy_state(&copies_made);
                checker.after_pass(with_traffic(moment(tick, clock, clock < previous_clock, plat, config_damaged,
                                                       copies_made, copies_worked, faults.damaged_inputs()),
                                                traffic),
                                   *state);
            }
        }

        if (tick == tl.restart_tick) {
            // The daemon stops and starts again 10 s later on the same tree; the counters
            // have not moved in between. Its histories must come back from the backups.
            copy_histories(root, "before", links, world.dual_sim_wan());
            if (!restart_daemon(state, plat, clock + 10, links)) {
                fprintf(stderr, "ruvo-sim: the daemon's start-up failed at the restart\n");
                return 1;
            }
            copy_histories(root, "after", links, world.dual_sim_wan());
            expected.restart();
            ++stats.restarts;
            if (checking)
                checker.after_restart(moment(tick, clock + 10, false, plat, false, false, false), *state);
            if (!options.quiet)
                fprintf(stderr, "  restarted the daemon at %s\n", show_time(clock + 10).c_str());
        }
        previous = t;
        previous_clock = clock;
    }
    // As SIGUSR1 at the end: the backups show the final state.
    backup_requested = 1;
    bool copies_before = false;
    plat.take_copy_state(&copies_before);
    loop_pass(*state);
    if (checking) {
        bool copies_made = false;
        bool copies_worked = plat.take_copy_state(&copies_made);
        checker.after_pass(moment(tl.ticks, previous_clock, false, plat, false, copies_made, copies_worked), *state);
    }
    if (!options.quiet)
        fprintf(stderr, "  day %d/%d (%s) ended: %d ticks, %.1f s\n", day_number, options.scenario.days,
                day_name(previous).c_str(), tl.ticks, wall_seconds());

    const std::string expected_path = root + "/sim/expected.txt";
    if (!expected.write(expected_path, world, previous, tl.ticks)) {
        fprintf(stderr, "ruvo-sim: cannot write %s\n", expected_path.c_str());
        return 1;
    }
    state.reset();
    free_mac_tables();
    platform_install(nullptr);

    const double wall = wall_seconds();
    std::string summary;
    char line[512];
    auto add = [&](const char* format, auto... args) {
        snprintf(line, sizeof line, format, args...);
        summary += line;
    };
    add("ruvo-sim summary (seed %llu)\n", static_cast<unsigned long long>(options.scenario.seed));
    add("  ticks:               %d (30 s each; the clock stepped back 2 h once)\n", tl.ticks);
    add("  simulated span:      %s .. %s (%d days)\n", show_time(SIM_START).c_str(), show_time(previous).c_str(),
        options.scenario.days);
    add("  wall time:           %.1f s (%.0f ticks/s)\n", wall, wall > 0 ? tl.ticks / wall : 0.0);
    add("  WAN links, clients:  %d (WAN %d dual-SIM), %d\n", links, world.dual_sim_wan(), options.scenario.clients);
    if (!options.faults) {
        add("  e-mails sent:        %zu (expected %d)\n", plat.emails().size(), expected.count("email"));
        for (const sim_email& e : plat.emails())
            add("    %s  %s  %s\n", show_time(e.when).c_str(), e.file.c_str(), e.subject.c_str());
        add("  suspension commands: %zu (expected %d)\n", plat.suspensions().size(), expected.count("command"));
        for (const sim_command& c : plat.suspensions())
            add("    %s  %s\n", show_time(c.when).c_str(), c.line.c_str());
    } else {
        long emails = 0, suspensions = 0;
        count_logged(root, &emails, &suspensions);
        add("  e-mails sent:        %ld (sim/outbox; without faults %d)\n", emails, expected.count("email"));
        add("  suspension commands: %ld (sim/commands.log; without faults %d)\n", suspensions,
            expected.count("command"));
    }
    add("  shell commands:      %d (sim/commands.log)\n", plat.command_count());
    add("  syslog lines:        %d (sim/syslog.log)\n", plat.syslog_count());
    add("  expected totals:     %s\n", expected_path.c_str());
    add("  tree:                %s\n", root.c_str());
    if (!on_tmpfs(root))
        add("%s", "  (the daemon renames ~25 files per tick: a --root on a tmpfs such as /dev/shm runs "
                  "several times faster)\n");
    if (options.faults) {
        add("  faults:              %ld in all (sim/faults.log)\n",
            faults.count(fault_kind::tmp_full) + faults.count(fault_kind::kill) +
                faults.count(fault_kind::clock_forward) + faults.count(fault_kind::clock_back) +
                faults.count(fault_kind::input));
        add("    /tmp full:         %ld spans, %ld ticks in all; %ld writes refused (ENOSPC), %ld files that "
            "copies left empty\n",
            faults.count(fault_kind::tmp_full), faults.full_ticks(), plat.failed_writes(), plat.failed_copies());
        add("    daemon killed:     %ld (%ld at a write or command of the pass, %ld right after it; %ld in a "
            "pass with the periodic backup)\n",
            faults.count(fault_kind::kill), stats.kills_mid_pass, stats.kills_after_pass, stats.kills_at_backup);
        add("    clock jumps:       %ld forward, %ld back; at the end the clock is %s%s the true time\n",
            faults.count(fault_kind::clock_forward), faults.count(fault_kind::clock_back),
            show_span(std::llabs(faults.clock_offset())).c_str(), faults.clock_offset() < 0 ? " behind" : " ahead of");
        add("    inputs damaged:    %ld for one tick each (missing/empty/garbled):\n", faults.count(fault_kind::input));
        for (int f = 0; f < INPUT_FILES; ++f)
            add("      %-34s %ld/%ld/%ld\n", input_file_path(static_cast<input_file>(f)),
                faults.input_count(static_cast<input_file>(f), input_damage::missing),
                faults.input_count(static_cast<input_file>(f), input_damage::empty),
                faults.input_count(static_cast<input_file>(f), input_damage::garbled));
        const std::vector<std::string>& events = faults.lines();
        const size_t listed = std::min<size_t>(events.size(), 100);
        add("    the %s%zu events (epoch, daemon's clock, kind, what):\n", listed < events.size() ? "first " : "",
            listed);
        for (size_t i = 0; i < listed; ++i)
            add("      %s\n", events[i].c_str());
    }
    if (checking) {
        add("  checks:              %ld after %ld passes and %ld start-ups: %ld failed\n", checker.checks(),
            stats.passes, stats.restarts, checker.failure_count());
        add("    %ld history lines restored at the start-ups, each as the last backup holds it; %ld passes "
            "found a link at or above its line, and suspended\n",
            checker.restored_lines(), checker.suspended_passes());
        long excepted = 0;
        for (const auto& [why, n] : checker.hours_excepted())
            excepted += n;
        add("    %ld hours ended with their clients' hourly file adding up to the router's hour total less its "
            "own traffic (within the files' cuts); %ld hours excepted:\n",
            checker.hours_checked(), excepted);
        for (const auto& [why, n] : checker.hours_excepted())
            add("      %ld: %s\n", n, why.c_str());
        for (const auto& [kind, n] : checker.failure_kinds())
            add("    failed %ld times: %s\n", n, kind.c_str());
        for (const std::string& f : checker.failures())
            add("    FAIL %s\n", f.c_str());
        for (const std::string& c : stats.crashes)
            add("    FAIL %s\n", c.c_str());
        for (const auto& [what, n] : checker.observations())
            add("    seen %ld times: %s\n", n, what.c_str());
        add("  slowest pass:        %.1f ms (tick %d)\n", stats.slowest * 1000, stats.slowest_tick);
        // VmHWM rather than getrusage's ru_maxrss, which also holds the peak of the program
        // that ran this one before its exec (a Python test's, for instance).
        add("  peak memory:         %ld KiB (VmHWM of this process)\n", peak_memory_kib());
    }
    fputs(summary.c_str(), stdout);
    if (FILE* f = fopen((root + "/sim/summary.txt").c_str(), "w")) {
        fputs(summary.c_str(), f);
        fclose(f);
    }
    const int status = checking && (checker.failure_count() > 0 || !stats.crashes.empty()) ? 1 : 0;
    if (options.quiet && options.report_command.empty())
        return status;
    run_report(options, root);
    return status;
}
