#include "core/atomic_file.h"

#include "core/own_files.h"

#include "platform/platform.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The stream's cookie is the content the stream appends to.
ssize_t append_to_content(void* cookie, const char* data, size_t size)
{
    static_cast<std::string*>(cookie)->append(data, size);
    return static_cast<ssize_t>(size);
}

// Writes all of data to fd through the platform's write. A short write is continued with
// the rest; a failed one fails the whole file (errno kept), and so does a write that
// writes nothing without an error, rather than asking again forever.
bool write_all(int fd, const char* data, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t n = sys_write(fd, data + done, size - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (n == 0) {
            errno = EIO;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace

atomic_file::atomic_file(const char* temp_path) : temp_(sys_path(temp_path))
{
    // Created exclusively without following links: a file or symlink planted at the name
    // is never written through. Whatever stands there (a temporary file a kill left, or a
    // planted one) is unlinked and the creation tried once more; O_EXCL also refuses a
    // symlink that reappears between the unlink and the open. The name is usually free,
    // so the unlink is only made when it is needed.
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    fd_ = open(temp_.c_str(), FLAGS, 0666);
    if (fd_ < 0 && errno == EEXIST) {
        unlink(temp_.c_str());
        fd_ = open(temp_.c_str(), FLAGS, 0666);
    }
    if (fd_ < 0)
        return;
    // Room for the history files and exports without growing on the way.
    content_.reserve(4096);
    // Made now, so that stream() is never null on an open file.
    cookie_io_functions_t functions = {};
    functions.write = append_to_content;
    stream_ = fopencookie(&content_, "w", functions);
    if (!stream_) {
        close(fd_);
        fd_ = -1;
        unlink(temp_.c_str());
    }
}

atomic_file::~atomic_file()
{
    if (stream_)
        fclose(stream_);
    if (fd_ >= 0) {
        close(fd_);
        unlink(temp_.c_str());
    }
}

std::string& atomic_file::text()
{
    // What a writer gave to the stream comes before what it appends now.
    if (stream_ && fflush(stream_) != 0)
        stream_failed_ = true;
    return content_;
}

void atomic_file::write_gathered()
{
    std::string& gathered = text();
    if (fd_ < 0 || gathered.empty())
        return;
    if (!stream_failed_ && !write_all(fd_, gathered.data(), gathered.size()))
        stream_failed_ = true; // the file is incomplete: commit fails
    gathered.clear();
}

bool atomic_file::commit(const char* target_path) { return commit(target_path, nullptr); }

bool atomic_file::commit(const char* target_path, std::string* kept)
{
    if (fd_ < 0)
        return false;
    bool ok = !stream_failed_;
    if (stream_) {
        ok = fflush(stream_) == 0 && !ferror(stream_) && ok;
        ok = fclose(stream_) == 0 && ok;
        stream_ = nullptr;
    }
    ok = ok && write_all(fd_, content_.data(), content_.size());
    ok = close(fd_) == 0 && ok;
    fd_ = -1;
    std::string content;
    // The content is not needed again unless kept; its memory goes back now rather than
    // with the file.
    content.swap(content_);
    const std::string target = sys_path(target_path);
    if (ok && rename(temp_.c_str(), target.c_str()) == 0) {
        // Whatever was kept of the file replaced is not its text any more.
        own_file_replaced(target);
        if (kept)
            kept->swap(content);
        return true;
    }
    unlink(temp_.c_str());
    return false;
}
