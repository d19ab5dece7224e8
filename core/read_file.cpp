#include "core/read_file.h"

#include "platform/platform.h"

#include <fcntl.h>
#include <unistd.h>

file_ptr open_for_reading(const char* absolute_path)
{
    // Opened without blocking, so that a FIFO planted at an input's name cannot stall the
    // tick; the descriptor is then made blocking again for ordinary reads.
    int fd = open(sys_path(absolute_path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    FILE* f = fdopen(fd, "r");
    if (!f)
        close(fd);
    return file_ptr(f);
}

bool is_readable(const char* absolute_path)
{
    return open_for_reading(absolute_path) != nullptr;
}
