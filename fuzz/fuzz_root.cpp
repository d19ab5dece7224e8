#include "fuzz_root.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fuzz {

namespace {

fuzz_platform* the_world = nullptr;

[[noreturn]] void fail(const char* what, const std::string& path)
{
    fprintf(stderr, "fuzz: %s %s: %s\n", what, path.c_str(), strerror(errno));
    abort();
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    remove(path);
    return 0;
}

void remove_root()
{
    if (the_world && !the_world->root.empty())
        nftw(the_world->root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void make_parents(const std::string& path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0755);
}

} // namespace

fuzz_platform& world()
{
    if (!the_world) {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/ruvo-fuzz-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (!mkdtemp(buffer.data()))
            fail("cannot create", pattern);
        the_world = new fuzz_platform;
        the_world->root = buffer.data();
        platform_install(the_world);
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
        atexit(remove_root);
    }
    the_world->clock = FIXED_CLOCK;
    return *the_world;
}

std::string real(const char* absolute) { return world().root + absolute; }

void put_file(const char* absolute, const uint8_t* data, size_t size)
{
    std::string path = real(absolute);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 && errno == ENOENT) {
        make_parents(path);
        fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
    if (fd < 0)
        fail("cannot create", path);
    while (size > 0) {
        ssize_t written = write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            fail("cannot write", path);
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    if (close(fd) != 0)
        fail("cannot close", path);
}

void put_text(const char* absolute, const std::string& text)
{
    put_file(absolute, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

void remove_file(const char* absolute) { unlink(real(absolute).c_str()); }

void make_dir(const char* absolute)
{
    std::string path = real(absolute);
    make_parents(path + "/");
}

std::string as_text(const uint8_t* data, size_t size)
{
    return std::string(reinterpret_cast<const char*>(data), size);
}

} // namespace fuzz
