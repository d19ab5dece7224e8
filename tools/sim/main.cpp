// ruvo-sim: runs the daemon's own code in this process on a simulated router, 30 s of
// simulated time per tick and as fast as the machine allows, and leaves the daemon's output
// tree, its syslog, the commands it ran, the e-mails it sent and the generator's own totals
// for inspection. See README.md next to this file.
#include "expected.h"
#include "scenario.h"
#include "sim_platform.h"

#include "client_mac/mac_usage.h"
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
    std::string report_command;
};

const char* const USAGE =
    "usage: ruvo-sim [--days N] [--links N] [--clients N] [--seed N] [--root DIR] [--quiet]\n"
    "                [--report-command CMD]\n"
    "\n"
    "Runs the ruvo daemon's code on a simulated router, 30 s of simulated time per tick, from\n"
    "2024-02-28 00:00:00 UTC (across the end of February and WAN 1's billing day, the 29th).\n"
    "\n"
    "  --days N       simulated days (default 3)\n"
    "  --links N      WAN links, at least 2; the last one is the dual-SIM link (default 3)\n"
    "  --clients N    LAN clients, 0..16384 (default 200)\n"
    "  --seed N       seed of the generator (default 1); a seed always gives the same run\n"
    "  --root DIR     the router's root directory, created when missing, empty when given\n"
    "                 (default: a new directory under $TMPDIR or /var/tmp); it is kept\n"
    "  --quiet        no progress lines and no report output, only the summary\n"
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
        if (i + 1 >= argc) {
            fprintf(stderr, "ruvo-sim: unknown option or missing value: %s\n%s", arg.c_str(), USAGE);
            return 2;
        }
        const char* value = argv[++i];
        long long n = 0;
        bool ok = true;
        if (arg == "--days") {
            ok = parse_number(value, 1, 60, &n);
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
        std::vector<link_tick> traffic = world.advance(tick, t, expected.wan1_suspended());
        expected.tick(t, traffic, world.active_sim(tick));
        if (!world.write_kernel_files(t, tick)) {
            fprintf(stderr, "ruvo-sim: cannot write the kernel files under %s\n", root.c_str());
            return 1;
        }
        plat.clock = t;
        tick_pending = 1;
        if (tick == tl.restart_tick)
            ticks_since_backup = PERIODIC_BACKUP_TICKS; // as SIGHUP: the tick, then a full backup
        loop_pass(*state);

        if (tick == tl.restart_tick) {
            // The daemon stops and starts again 10 s later on the same tree; the counters
            // have not moved in between. Its histories must come back from the backups.
            copy_histories(root, "before", links, world.dual_sim_wan());
            state.reset();
            free_mac_tables();
            reset_signal_flags();
            plat.clock = t + 10;
            state = std::make_unique<daemon_state>();
            if (daemon_start(*state, links) != 0) {
                fprintf(stderr, "ruvo-sim: the daemon's start-up failed at the restart\n");
                return 1;
            }
            default_termination();
            copy_histories(root, "after", links, world.dual_sim_wan());
            expected.restart();
            if (!options.quiet)
                fprintf(stderr, "  restarted the daemon at %s\n", show_time(t + 10).c_str());
        }
        previous = t;
    }
    // As SIGUSR1 at the end: the backups show the final state.
    backup_requested = 1;
    loop_pass(*state);
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
    add("  e-mails sent:        %zu (expected %d)\n", plat.emails().size(), expected.count("email"));
    for (const sim_email& e : plat.emails())
        add("    %s  %s  %s\n", show_time(e.when).c_str(), e.file.c_str(), e.subject.c_str());
    add("  suspension commands: %zu (expected %d)\n", plat.suspensions().size(), expected.count("command"));
    for (const sim_command& c : plat.suspensions())
        add("    %s  %s\n", show_time(c.when).c_str(), c.line.c_str());
    add("  shell commands:      %d (sim/commands.log)\n", plat.command_count());
    add("  syslog lines:        %d (sim/syslog.log)\n", plat.syslog_count());
    add("  expected totals:     %s\n", expected_path.c_str());
    add("  tree:                %s\n", root.c_str());
    if (!on_tmpfs(root))
        add("%s", "  (the daemon renames ~25 files per tick: a --root on a tmpfs such as /dev/shm runs "
                  "several times faster)\n");
    fputs(summary.c_str(), stdout);
    if (FILE* f = fopen((root + "/sim/summary.txt").c_str(), "w")) {
        fputs(summary.c_str(), f);
        fclose(f);
    }
    if (options.quiet && options.report_command.empty())
        return 0;
    run_report(options, root);
    return 0;
}
