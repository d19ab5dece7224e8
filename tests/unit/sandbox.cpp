#include "sandbox.h"

#include "core/own_files.h"
#include "daemon/signals.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

void make_parents(const std::string& path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
}

void remove_tree(const std::string& path)
{
    std::string command = "rm -rf '" + path + "'";
    if (system(command.c_str()) != 0)
        ADD_FAILURE() << "could not remove " << path;
}

} // namespace

void Sandbox::SetUp()
{
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/ruvo-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    ASSERT_NE(mkdtemp(buffer.data()), nullptr) << "mkdtemp: " << strerror(errno);
    plat.root = buffer.data();
    previous_ = platform_install(&plat);
    set_tz("UTC");
    // Each test starts with nothing kept of the daemon's files and nothing watched.
    forget_own_files();
    tick_pending = 0;
    ticks_since_backup = 0;
    backup_requested = 0;
}

void Sandbox::TearDown()
{
    platform_install(previous_);
    tick_pending = 0;
    ticks_since_backup = 0;
    backup_requested = 0;
    set_pid_file_path("");
    forget_own_files();
    if (!plat.root.empty())
        remove_tree(plat.root);
}

void Sandbox::write_file(const std::string& absolute, const std::string& content)
{
    std::string path = real(absolute);
    make_parents(path);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}

std::string Sandbox::read_file(const std::string& absolute)
{
    std::ifstream in(real(absolute), std::ios::binary);
    if (!in)
        return "<missing>";
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool Sandbox::exists(const std::string& absolute)
{
    struct stat st;
    return lstat(real(absolute).c_str(), &st) == 0;
}

void Sandbox::set_mtime(const std::string& absolute, time_t mtime)
{
    struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(utimes(real(absolute).c_str(), times), 0);
}

void Sandbox::set_tz(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

time_t Sandbox::local(int year, int month, int day, int hour, int min, int sec)
{
    struct tm tm = {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    tm.tm_isdst = -1;
    return mktime(&tm);
}

std::string Sandbox::show(time_t t)
{
    struct tm tm;
    if (!localtime_r(&t, &tm))
        return "<invalid>";
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &tm);
    return text;
}
