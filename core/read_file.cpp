#include "core/read_file.h"

#include "platform/platform.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Opened without blocking, so that a FIFO planted at an input's name cannot stall the
// tick, neither at the open nor at a read (which then ends like the end of the file).
// For the regular files and /proc files the daemon reads, the flag changes nothing.
int open_descriptor(const char* absolute_path)
{
    return open(sys_path(absolute_path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

// A regular file above the limit, judged on the open descriptor, so that the file that is
// measured is the one that would be read. /proc files report size 0 and pass. A device (a
// link to /dev/zero planted at an input's name, say) would never end: no input of the
// daemon is one, so a device counts as unreadable too.
bool refused(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return true;
    if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))
        return true;
    return S_ISREG(st.st_mode) && st.st_size > MAX_INPUT_FILE_SIZE;
}

} // namespace

file_ptr open_for_reading(const char* absolute_path)
{
    int fd = open_descriptor(absolute_path);
    if (fd < 0)
        return nullptr;
    if (refused(fd)) {
        close(fd);
        return nullptr;
    }
    FILE* f = fdopen(fd, "r");
    if (!f)
        close(fd);
    return file_ptr(f);
}

bool is_readable(const char* absolute_path)
{
    int fd = open_descriptor(absolute_path);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

void copy_lines(FILE* out, FILE* in, int max_lines)
{
    char line[256];
    for (int copied = 0; copied < max_lines && fgets(line, sizeof line, in); ++copied)
        fputs(line, out);
}

void dir_closer::operator()(DIR* dir) const { closedir(dir); }

dir_ptr open_directory(const char* absolute_path)
{
    return dir_ptr(opendir(sys_path(absolute_path).c_str()));
}

bool directory_has(DIR* dir, const char* name)
{
    rewinddir(dir);
    while (const dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
            continue;
        if (strcmp(entry->d_name, name) == 0)
            return true;
    }
    return false;
}

bool path_exists(const char* absolute_path)
{
    return access(sys_path(absolute_path).c_str(), F_OK) == 0;
}
