#include "core/atomic_file.h"

#include "platform/platform.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

atomic_file::atomic_file(const char* temp_path) : temp_(sys_path(temp_path))
{
    unlink(temp_.c_str());
    // O_EXCL also refuses a symlink that reappears between the unlink and the open.
    int fd = open(temp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    stream_ = fdopen(fd, "w");
    if (!stream_) {
        close(fd);
        unlink(temp_.c_str());
    }
}

atomic_file::~atomic_file()
{
    if (stream_) {
        fclose(stream_);
        unlink(temp_.c_str());
    }
}

bool atomic_file::commit(const char* target_path)
{
    if (!stream_)
        return false;
    bool written = fflush(stream_) == 0 && !ferror(stream_);
    bool closed = fclose(stream_) == 0;
    stream_ = nullptr;
    if (written && closed && rename(temp_.c_str(), sys_path(target_path).c_str()) == 0)
        return true;
    unlink(temp_.c_str());
    return false;
}
