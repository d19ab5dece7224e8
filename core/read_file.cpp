#include "core/read_file.h"

#include "platform/platform.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

file_ptr open_for_reading(const char* absolute_path)
{
    // Opened without blocking, so that a FIFO planted at an input's name cannot stall the
    // tick, neither at the open nor at a read (which then ends like the end of the file).
    // For the regular files and /proc files the daemon reads, the flag changes nothing.
    int fd = open(sys_path(absolute_path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    FILE* f = fdopen(fd, "r");
    if (!f)
        close(fd);
    return file_ptr(f);
}

bool is_readable(const char* absolute_path)
{
    return open_for_reading(absolute_path) != nullptr;
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
