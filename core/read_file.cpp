#include "core/read_file.h"

#include "platform/platform.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
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

// The buffer of a stream over an input that may be large: 64 KiB instead of stdio's
// 8 KiB, so that "/proc/net/arp" and the client counters (1.7 MiB together at 16,384
// clients) are read in 64 KiB calls, some 190 system calls fewer a tick. It is held only
// while the stream is open.
constexpr size_t LARGE_INPUT_BUFFER = 65536;

// The checks of an open descriptor: whether the file may be read, and whether it takes the
// large buffer. A regular file above the limit is refused, judged on the open descriptor,
// so that the file that is measured is the one that would be read. /proc files report
// size 0 and pass. A device (a link to /dev/zero planted at an input's name, say) would
// never end: no input of the daemon is one, so a device counts as unreadable too. The large
// buffer goes to a regular file of more than stdio's 8 KiB and to one that reports no size
// (a /proc file, which may be of any length).
struct descriptor_check {
    bool refused;
    bool large;
};

descriptor_check check_descriptor(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return {true, false};
    if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode))
        return {true, false};
    if (!S_ISREG(st.st_mode))
        return {false, false};
    if (st.st_size > MAX_INPUT_FILE_SIZE)
        return {true, false};
    return {false, st.st_size == 0 || st.st_size > 8192};
}

// A stream's cookie: its descriptor and the buffer given to the stream (malloc'd; null
// when stdio keeps its own).
struct stream_cookie {
    int fd;
    char* buffer;
};

int descriptor_of(void* cookie) { return static_cast<stream_cookie*>(cookie)->fd; }

// read(2), continued after a signal; a read that fails ends the stream as an error does.
ssize_t read_descriptor(void* cookie, char* buffer, size_t size)
{
    for (;;) {
        ssize_t n = read(descriptor_of(cookie), buffer, size);
        if (n >= 0 || errno != EINTR)
            return n;
    }
}

// lseek(2), for rewind: the monthly repair reads its file twice.
int seek_descriptor(void* cookie, off64_t* position, int whence)
{
    const off64_t at = lseek64(descriptor_of(cookie), *position, whence);
    if (at < 0)
        return -1;
    *position = at;
    return 0;
}

// The last call fclose makes on the stream: stdio touches a buffer it was given no more
// after it, so the buffer goes with the cookie.
int close_descriptor(void* cookie)
{
    stream_cookie* c = static_cast<stream_cookie*>(cookie);
    const int result = close(c->fd);
    free(c->buffer);
    free(c);
    return result;
}

} // namespace

file_ptr open_for_reading(const char* absolute_path)
{
    int fd = open_descriptor(absolute_path);
    if (fd < 0)
        return nullptr;
    const descriptor_check check = check_descriptor(fd);
    if (check.refused) {
        close(fd);
        return nullptr;
    }
    stream_cookie* cookie = static_cast<stream_cookie*>(malloc(sizeof(stream_cookie)));
    if (!cookie) {
        close(fd);
        return nullptr;
    }
    // Without memory for the large buffer the stream reads through stdio's own.
    *cookie = stream_cookie{fd, check.large ? static_cast<char*>(malloc(LARGE_INPUT_BUFFER)) : nullptr};
    // A stream of its own over the descriptor: fdopen would ask the descriptor's flags
    // (two fcntl calls) and stdio its size again (fstat) for every file, and the daemon
    // reads dozens of files a tick.
    cookie_io_functions_t functions = {};
    functions.read = read_descriptor;
    functions.seek = seek_descriptor;
    functions.close = close_descriptor;
    FILE* f = fopencookie(cookie, "r", functions);
    if (!f) {
        close(fd);
        free(cookie->buffer);
        free(cookie);
        return nullptr;
    }
    if (cookie->buffer && setvbuf(f, cookie->buffer, _IOFBF, LARGE_INPUT_BUFFER) != 0) {
        // Not taken: stdio keeps its own, and this one is not needed.
        free(cookie->buffer);
        cookie->buffer = nullptr;
    }
    return file_ptr(f);
}

bool is_readable(const char* absolute_path)
{
    // The permission check of an open for reading, with the process's effective ids, in
    // one call: nothing is opened (an open and a close for each look at a marker), so a
    // device or socket at the name is not touched and a process out of descriptors still
    // sees its markers.
    return faccessat(AT_FDCWD, sys_path(absolute_path).c_str(), R_OK, AT_EACCESS) == 0;
}

void copy_lines(std::string& out, FILE* in, int max_lines)
{
    // What fgets with a 256-byte buffer and fputs of each piece give, a whole line at a
    // time: a piece ends after a '\n' or after 255 bytes, and only its bytes before a NUL
    // byte are written. getline asks the file for more only while a line is unfinished, as
    // fgets does, so a file is not read once more at its end when the lines asked for are
    // all there.
    constexpr size_t PIECE_MAX = 255;
    char* line = nullptr;
    size_t capacity = 0;
    int copied = 0;
    ssize_t length;
    while (copied < max_lines && (length = getline(&line, &capacity, in)) > 0) {
        for (size_t at = 0; at < static_cast<size_t>(length) && copied < max_lines; ++copied) {
            const size_t piece = std::min(PIECE_MAX, static_cast<size_t>(length) - at);
            const char* nul = static_cast<const char*>(memchr(line + at, '\0', piece));
            out.append(line + at, nul ? static_cast<size_t>(nul - (line + at)) : piece);
            at += piece;
        }
    }
    free(line);
}

size_t end_of_first_piece(const std::string& text, size_t buffer_size, size_t from)
{
    from = std::min(from, text.size());
    const size_t room = std::min(text.size() - from, buffer_size - 1);
    const char* start = text.data() + from;
    const char* newline = static_cast<const char*>(memchr(start, '\n', room));
    return from + (newline ? static_cast<size_t>(newline - start) + 1 : room);
}

void copy_lines(std::string& out, const std::string& in, int max_lines, size_t from)
{
    // As above: lines through their '\n' (the last one may have none), each copied in
    // pieces of at most 255 bytes, each piece up to a NUL byte it holds.
    constexpr size_t PIECE_MAX = 255;
    const char* const end = in.data() + in.size();
    const char* at = in.data() + std::min(from, in.size());
    int copied = 0;
    // The daemon's own files, the usual content, have short lines and no NUL byte: every
    // line is one piece, so the lines asked for are copied in one append. Found by counting
    // the line breaks; a line too long for one piece, or a NUL byte, takes the way below.
    const char* scan = at;
    bool simple = true;
    while (simple && copied < max_lines && scan < end) {
        const char* newline = static_cast<const char*>(memchr(scan, '\n', static_cast<size_t>(end - scan)));
        const char* const line_end = newline ? newline + 1 : end;
        simple = static_cast<size_t>(line_end - scan) <= PIECE_MAX;
        if (simple) {
            scan = line_end;
            ++copied;
        }
    }
    if (simple && !memchr(at, '\0', static_cast<size_t>(scan - at))) {
        out.append(at, static_cast<size_t>(scan - at));
        return;
    }
    copied = 0;
    while (copied < max_lines && at < end) {
        const char* newline = static_cast<const char*>(memchr(at, '\n', static_cast<size_t>(end - at)));
        const char* const line_end = newline ? newline + 1 : end;
        for (; at < line_end && copied < max_lines; ++copied) {
            const size_t piece = std::min(PIECE_MAX, static_cast<size_t>(line_end - at));
            const char* nul = static_cast<const char*>(memchr(at, '\0', piece));
            out.append(at, nul ? static_cast<size_t>(nul - at) : piece);
            at += piece;
        }
        at = line_end;
    }
}

bool line_reader::refill()
{
    begin_ = end_ = 0;
    if (ended_)
        return false;
    end_ = fread(block_, 1, BLOCK, in_);
    block_[end_] = '\0'; // defined, for the byte a piece given in place stands NUL in
    if (end_ < BLOCK) {
        if (ferror(in_) && errno == EAGAIN) {
            // No data yet from a writer that is still there: this piece ends here, and the
            // next call asks again, as fgets does.
            clearerr(in_);
        } else {
            failed_ = ferror(in_) != 0;
            ended_ = true;
        }
    }
    return end_ > 0;
}

bool line_reader::next(char* line, size_t size) { return gather(line, size) > 0; }

size_t line_reader::gather(char* line, size_t size)
{
    if (restore_) {
        block_[begin_] = saved_;
        restore_ = false;
    }
    if (size < 2)
        return 0;
    const size_t room = size - 1;
    size_t count = 0;
    while (count < room) {
        if (begin_ == end_ && !refill()) {
            // fgets drops the piece whose read failed; the lines before it were given.
            if (failed_)
                return 0;
            break;
        }
        const size_t wanted = std::min(end_ - begin_, room - count);
        const char* from = block_ + begin_;
        const char* newline = static_cast<const char*>(memchr(from, '\n', wanted));
        const size_t taken = newline ? static_cast<size_t>(newline - from) + 1 : wanted;
        memcpy(line + count, from, taken);
        count += taken;
        begin_ += taken;
        if (newline)
            break;
    }
    // fgets gives nothing when it read nothing.
    if (count == 0)
        return 0;
    line[count] = '\0';
    return count;
}

const char* line_reader::next_in_place(char* spare, size_t size, size_t* length)
{
    if (restore_) {
        block_[begin_] = saved_;
        restore_ = false;
    }
    if (size >= 2 && begin_ < end_) {
        // The piece is whole in the block when it ends with a '\n' there, or when the block
        // holds the full room of a piece.
        const size_t room = size - 1;
        const size_t wanted = std::min(end_ - begin_, room);
        const char* from = block_ + begin_;
        const char* newline = static_cast<const char*>(memchr(from, '\n', wanted));
        if (newline || wanted == room) {
            const size_t taken = newline ? static_cast<size_t>(newline - from) + 1 : wanted;
            const size_t start = begin_;
            begin_ += taken;
            saved_ = block_[begin_]; // block_[end_] is the spare byte when the piece ends the data
            block_[begin_] = '\0';
            restore_ = true;
            *length = taken;
            return block_ + start;
        }
    }
    const size_t count = gather(spare, size);
    if (count == 0)
        return nullptr;
    *length = count;
    return spare;
}

const char* line_reader::peek(size_t* available)
{
    if (restore_) {
        block_[begin_] = saved_;
        restore_ = false;
    }
    *available = end_ - begin_;
    return block_ + begin_;
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
