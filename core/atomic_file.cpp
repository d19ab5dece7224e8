#include "core/atomic_file.h"

#include "platform/platform.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The stream's cookie is the file descriptor itself.
int descriptor_of(void* cookie) { return static_cast<int>(reinterpret_cast<intptr_t>(cookie)); }

// The stream's writes go to the platform's write, so that a test or tool can make them fail
// as a full file system does. Like a stream on the descriptor itself, a short write is
// continued with the rest, and a failed one fails the whole flush (-1, errno kept); the
// stream then reports the error, which commit checks.
ssize_t write_through_platform(void* cookie, const char* data, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t n = sys_write(descriptor_of(cookie), data + done, size - done);
        if (n < 0)
            return -1;
        if (n == 0) {
            // Nothing written and no error given: stop rather than ask again forever.
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(size);
}

// fclose closes the descriptor here; its result is fclose's.
int close_descriptor(void* cookie) { return close(descriptor_of(cookie)); }

} // namespace

atomic_file::atomic_file(const char* temp_path) : temp_(sys_path(temp_path))
{
    unlink(temp_.c_str());
    // O_EXCL also refuses a symlink that reappears between the unlink and the open.
    int fd = open(temp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    cookie_io_functions_t functions = {};
    functions.write = write_through_platform;
    functions.close = close_descriptor;
    stream_ = fopencookie(reinterpret_cast<void*>(static_cast<intptr_t>(fd)), "w", functions);
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
