#include "sim_platform.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <syslog.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char* SUSPEND_TOOL = "/usr/local/korel/bin/wan_usage_suspend ";
constexpr const char* MAIL_PREFIX = "(/usr/local/korel/bin/sendemail -v -f ";
constexpr const char* SAVECONFIG = "/usr/local/korel/bin/saveconfig ";
constexpr const char* WAN_ACTION = "wan_action ";

bool starts_with(const std::string& text, const char* prefix)
{
    return text.compare(0, strlen(prefix), prefix) == 0;
}

std::vector<std::string> words(const std::string& text)
{
    std::istringstream in(text);
    std::vector<std::string> result;
    for (std::string word; in >> word;)
        result.push_back(word);
    return result;
}

const char* facility_name(int facility)
{
    switch (facility) {
    case LOG_DAEMON: return "daemon";
    case LOG_LOCAL0: return "local0";
    case LOG_USER: return "user";
    default: return nullptr;
    }
}

const char* priority_name(int priority)
{
    static const char* const names[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
    return priority >= 0 && priority < 8 ? names[priority] : nullptr;
}

// One line of a log file: a line break inside a field is shown as "\n", a tab as a space.
std::string one_line(const char* text)
{
    std::string line;
    for (const char* p = text; *p; ++p) {
        if (*p == '\n')
            line += p[1] ? "\\n" : "";
        else if (*p == '\t')
            line += ' ';
        else
            line += *p;
    }
    return line;
}

// The paths a shell would give for one word: "dir/*" becomes the directory's entries that
// do not begin with "." (sorted, as a shell sorts them), or stays as it is when there are
// none; any other word is taken literally.
std::vector<fs::path> expand(const fs::path& word)
{
    if (word.filename() != "*")
        return {word};
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator it(word.parent_path(), error), end; !error && it != end; it.increment(error))
        if (it->path().filename().string()[0] != '.')
            entries.push_back(it->path());
    if (entries.empty())
        return {word};
    std::sort(entries.begin(), entries.end());
    return entries;
}

// Takes a path and everything under it out of the set of files that copies left empty.
void forget_left_empty(std::set<std::string>& left_empty, const std::string& path)
{
    auto it = left_empty.lower_bound(path);
    while (it != left_empty.end() && it->compare(0, path.size(), path) == 0 &&
           (it->size() == path.size() || (*it)[path.size()] == '/'))
        it = left_empty.erase(it);
}

} // namespace

std::string iso_time(time_t t)
{
    struct tm tm;
    char text[32];
    if (!gmtime_r(&t, &tm) || strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
        return "?";
    return text;
}

sim_platform::sim_platform(std::string root) : root_(std::move(root))
{
    syslog_ = fopen((root_ + "/sim/syslog.log").c_str(), "w");
    commands_ = fopen((root_ + "/sim/commands.log").c_str(), "w");
}

sim_platform::~sim_platform()
{
    if (syslog_)
        fclose(syslog_);
    if (commands_)
        fclose(commands_);
}

void sim_platform::log(const char* ident, int facility, int priority, const char* text)
{
    ++syslog_count_;
    if (!syslog_)
        return;
    const char* f = facility_name(facility);
    const char* p = priority_name(priority);
    std::string where = (f ? std::string(f) : std::to_string(facility)) + "." +
                        (p ? std::string(p) : std::to_string(priority));
    fprintf(syslog_, "%lld\t%s\t%s\t%s\t%s\n", static_cast<long long>(clock), iso_time(clock).c_str(),
            ident ? ident : "", where.c_str(), one_line(text ? text : "").c_str());
    fflush(syslog_);
}

ssize_t sim_platform::write(int fd, const void* data, size_t size)
{
    countdown_to_kill(data, size, fd);
    if (tmp_full) {
        ++failed_writes_;
        errno = ENOSPC;
        return -1;
    }
    return ::write(fd, data, size);
}

// The write (with its data) or command (without) at which the countdown reaches 0 is the
// last thing the process does.
void sim_platform::countdown_to_kill(const void* data, size_t size, int fd)
{
    if (kill_countdown <= 0 || --kill_countdown > 0)
        return;
    if (data && !tmp_full && ::write(fd, data, size / 2) < 0) {
        // The half that would have been written is lost with the process anyway.
    }
    if (syslog_)
        fflush(syslog_);
    if (commands_)
        fflush(commands_);
    kill(getpid(), SIGKILL);
}

bool sim_platform::take_copy_state(bool* any_copy)
{
    bool ok = copies_ok_;
    *any_copy = any_copy_;
    copies_ok_ = true;
    any_copy_ = false;
    return ok;
}

int sim_platform::run(const char* command)
{
    countdown_to_kill(nullptr, 0, -1);
    ++command_count_;
    std::string line = command ? command : "";
    std::string effect;
    if (starts_with(line, SUSPEND_TOOL))
        effect = suspend(line);
    else if (starts_with(line, MAIL_PREFIX))
        effect = send_email(line);
    else if (starts_with(line, SAVECONFIG) || starts_with(line, WAN_ACTION))
        effect = "logged";
    else
        effect = file_commands(line);
    if (commands_) {
        fprintf(commands_, "%lld\t%s\t%s\t%s\n", static_cast<long long>(clock), iso_time(clock).c_str(),
                one_line(line.c_str()).c_str(), effect.c_str());
        fflush(commands_);
    }
    return 0;
}

// "wan_usage_suspend N on|off [S] &": like the firmware's tool, creates or removes the
// link's suspension marker (".simS" for one SIM of a dual-SIM link).
std::string sim_platform::suspend(const std::string& command)
{
    std::vector<std::string> w = words(command);
    if (w.size() < 4 || w.size() > 5 || w.back() != "&")
        return "not understood";
    int wan = atoi(w[1].c_str());
    int sim = w.size() == 5 ? atoi(w[3].c_str()) : 0;
    if (wan < 1 || (w.size() == 5 && sim < 1) || (w[2] != "on" && w[2] != "off"))
        return "not understood";
    suspensions_.push_back({clock, command});
    std::string marker = "/var/run/korel/wan" + std::to_string(wan) + "/usage_suspend";
    if (sim)
        marker += ".sim" + std::to_string(sim);
    if (w[2] == "on") {
        int fd = open(path(marker.c_str()).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0)
            return "could not create " + marker;
        close(fd);
        return "created " + marker;
    }
    if (unlink(path(marker.c_str()).c_str()) != 0)
        return "no marker " + marker;
    return "removed " + marker;
}

// "(sendemail -v -f F; /bin/rm F) &": the message file goes to the outbox instead of a mail
// server; the removal is what the subshell would have done with it.
std::string sim_platform::send_email(const std::string& command)
{
    std::string rest = command.substr(strlen(MAIL_PREFIX));
    std::string file = rest.substr(0, rest.find(';'));
    std::string real = mapped(file);
    if (real.empty())
        return "refused " + file;
    std::string subject;
    if (FILE* in = fopen(real.c_str(), "r")) {
        char first[512] = "";
        if (fgets(first, sizeof first, in)) {
            subject = first;
            while (!subject.empty() && (subject.back() == '\n' || subject.back() == '\r'))
                subject.pop_back();
            if (starts_with(subject, "Subject: "))
                subject.erase(0, strlen("Subject: "));
        }
        fclose(in);
    }
    // The next free number: a process of the simulator that was killed may have taken
    // numbers that this one's list does not know.
    char name[32];
    std::string outbox;
    for (size_t n = emails_.size() + 1;; ++n) {
        snprintf(name, sizeof name, "%03zu.eml", n);
        outbox = root_ + "/sim/outbox/" + name;
        if (access(outbox.c_str(), F_OK) != 0)
            break;
    }
    if (rename(real.c_str(), outbox.c_str()) != 0)
        return "no message file " + file;
    emails_.push_back({clock, subject, name});
    std::string effect = std::string("sent as sim/outbox/") + name;
    if (tmp_full)
        effect += " (composed while /tmp was full: the daemon writes this file outside the platform, "
                  "on the router it would be empty or cut short)";
    return effect;
}

std::string sim_platform::mapped(const std::string& absolute) const
{
    for (const char* top : {"/tmp", "/var/run"}) {
        size_t n = strlen(top);
        if (absolute.compare(0, n, top) == 0 && (absolute.size() == n || absolute[n] == '/'))
            return root_ + absolute;
    }
    return "";
}

// The client directories' "rm -rf", "cp -r", "cp -rf" and "cp -f", as the shell would run
// them (commands separated by ";", "dir/*" expanded), on paths under the root.
std::string sim_platform::file_commands(const std::string& command)
{
    std::string effects;
    std::istringstream parts(command);
    for (std::string part; std::getline(parts, part, ';');) {
        std::vector<std::string> w = words(part);
        if (w.empty())
            continue;
        std::string effect;
        bool recursive = false;
        std::vector<std::string> operands;
        for (size_t i = 1; i < w.size(); ++i) {
            if (w[i][0] == '-')
                recursive = recursive || w[i].find_first_of("rR") != std::string::npos;
            else
                operands.push_back(w[i]);
        }
        std::vector<fs::path> paths;
        bool refused = operands.empty() || (w[0] != "rm" && w[0] != "cp");
        for (const std::string& operand : operands) {
            std::string real = mapped(operand);
            if (real.empty())
                refused = true;
            paths.push_back(real);
        }
        std::error_code error;
        if (refused) {
            effect = "not interpreted";
        } else if (w[0] == "rm") {
            uintmax_t removed = 0;
            for (const fs::path& p : paths)
                for (const fs::path& entry : expand(p)) {
                    uintmax_t n = recursive ? fs::remove_all(entry, error) : fs::remove(entry, error);
                    if (!error && n != static_cast<uintmax_t>(-1))
                        removed += n;
                    forget_left_empty(left_empty_, entry.string());
                }
            effect = "removed " + std::to_string(removed);
        } else if (paths.size() < 2) {
            effect = "cp: missing destination";
        } else {
            fs::path target = paths.back();
            paths.pop_back();
            std::vector<fs::path> sources;
            for (const fs::path& p : paths)
                for (const fs::path& entry : expand(p))
                    sources.push_back(entry);
            bool into = sources.size() > 1 || fs::is_directory(target, error);
            int copied = 0, failed = 0;
            for (const fs::path& source : sources) {
                fs::path to = into ? target / source.filename() : target;
                error.clear();
                any_copy_ = true;
                if (tmp_full) {
                    if (copy_one(source, to, recursive))
                        ++copied;
                    else
                        ++failed;
                    continue;
                }
                forget_left_empty(left_empty_, to.string());
                if (fs::is_directory(source, error)) {
                    if (!recursive) {
                        ++failed; // cp without -r omits directories
                        continue;
                    }
                    fs::copy(source, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
                } else {
                    fs::copy_file(source, to, fs::copy_options::overwrite_existing, error);
                }
                if (error)
                    ++failed;
                else
                    ++copied;
            }
            effect = "copied " + std::to_string(copied);
            if (failed) {
                effect += ", failed " + std::to_string(failed);
                copies_ok_ = false;
            }
            if (tmp_full)
                effect += " (no space left)";
        }
        if (!effects.empty())
            effects += "; ";
        effects += effect;
    }
    return effects.empty() ? "not interpreted" : effects;
}

// A copy on a file system without space, as cp does it there: directories and files are
// created (they take no data blocks), a file with data is left empty and counts as failed.
// Returns whether everything was copied.
bool sim_platform::copy_one(const fs::path& source, const fs::path& to, bool recursive)
{
    std::error_code error;
    if (fs::is_directory(source, error)) {
        if (!recursive)
            return false; // cp without -r omits directories
        fs::create_directories(to, error);
        bool ok = true;
        for (fs::directory_iterator it(source, error), end; !error && it != end; it.increment(error))
            ok = copy_one(it->path(), to / it->path().filename(), recursive) && ok;
        return ok && !error;
    }
    if (!fs::is_regular_file(source, error))
        return false;
    int fd = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    close(fd);
    if (fs::file_size(source, error) == 0 && !error)
        return true;
    ++failed_copies_;
    left_empty_.insert(to.string());
    return false;
}
