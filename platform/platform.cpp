#include "platform/platform.h"

#include <cstdlib>
#include <syslog.h>
#include <unistd.h>

namespace {

// The real system: paths as they stand, the system clock, syslog(3), system(3) and write(2).
struct production_platform final : platform {
    std::string path(const char* absolute) const override { return absolute; }
    time_t now() override { return time(nullptr); }
    void log(const char* ident, int facility, int priority, const char* text) override
    {
        // The log is opened and closed around every message, and the text is passed as an
        // argument of a constant format so that no '%' in it is ever interpreted.
        openlog(ident, 0, facility);
        syslog(priority, "%s", text);
        closelog();
    }
    int run(const char* command) override { return system(command); }
    void arm_alarm(unsigned seconds) override { alarm(seconds); }
    ssize_t write(int fd, const void* data, size_t size) override { return ::write(fd, data, size); }
};

production_platform production;
platform* current = &production;

} // namespace

// The plain system call, for the production platform and every platform that keeps it.
ssize_t platform::write(int fd, const void* data, size_t size) { return ::write(fd, data, size); }

platform* platform_install(platform* p)
{
    platform* previous = current;
    current = p ? p : &production;
    return previous;
}

std::string sys_path(const char* absolute) { return current->path(absolute); }
time_t sys_time() { return current->now(); }
void sys_log(const char* ident, int facility, int priority, const char* text)
{
    current->log(ident, facility, priority, text);
}
int sys_system(const char* command) { return current->run(command); }
void sys_alarm(unsigned seconds) { current->arm_alarm(seconds); }
ssize_t sys_write(int fd, const void* data, size_t size) { return current->write(fd, data, size); }
