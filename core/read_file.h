// Reading the daemon's input files through the platform's root.
#pragma once

#include <cstdio>
#include <dirent.h>
#include <memory>
#include <string>

struct file_closer {
    void operator()(FILE* f) const { fclose(f); }
};
// An open stream that is closed when it goes out of scope.
using file_ptr = std::unique_ptr<FILE, file_closer>;

// The largest regular file that open_for_reading opens: 64 MiB. The readers read through
// fixed line buffers, so the limit bounds the time a tick can spend in one file; it also
// bounds the one line read whole, the first line of "/etc/gobi_dual_sim_support" (getline).
// The largest inputs, with their longest lines:
// - "/proc/korel/config/client_usage": one "address:first/second" line of at most 58 bytes
//   per client; 65,536 clients (a whole /16 LAN) make 3.6 MiB;
// - "/proc/net/arp": lines of under 100 bytes; 65,536 entries make 6.3 MiB;
// - the client history files: one line of at most 65 bytes per client and type; 65,536
//   clients with all five types make 20.3 MiB;
// - "/var/log/pptpd_user" and "/var/log/l2tps_user": 16,384 users on lines of the full
//   1,024-byte read buffer make 16 MiB;
// - the MAC hour files: at most 8,192 lines of at most 67 bytes, 0.5 MiB; the backups,
//   the WAN history files, "/proc/korel/config/link_usage" and
//   "/proc/korel/config/vpnlinks" (1,024 links on 1,024-byte lines at most) hold 1 MiB
//   or less.
// 64 MiB is three times the largest of these.
constexpr long long MAX_INPUT_FILE_SIZE = 64LL << 20;

// Opens one of the daemon's absolute paths for reading; null when that fails. It never
// blocks: a FIFO without a writer reads as an empty file. A regular file larger than
// MAX_INPUT_FILE_SIZE counts as unreadable (null), like every file error skipped silently
// and tried again at the next tick; so does a character or block device (no input is one,
// and /dev/zero would never end). Files that report no size (those under /proc) and FIFOs
// are opened whatever they hold. The stream is a stdio stream of its own kind over the
// descriptor (fopencookie): fileno gives -1; it reads and seeks as a stream of fdopen does.
// A regular file of more than 8 KiB and a /proc file are read through a 64 KiB buffer of
// the stream's own, held while it is open: 64 KiB read calls instead of 8 KiB ones.
file_ptr open_for_reading(const char* absolute_path);

// Whether the file at one of the daemon's absolute paths could be opened for reading (its
// permissions, for the effective ids). A marker file is never read, so its size does not
// matter here.
bool is_readable(const char* absolute_path);

// Appends at most max_lines lines of in to out, as copying them with fgets through a
// 256-byte buffer and fputs would (a longer line is copied in pieces, and each piece counts
// as a line; a piece ends at a NUL byte it holds). Lines are read whole, so the stream may
// be left further on than after the last piece copied: copy_lines is the last read of in.
void copy_lines(std::string& out, FILE* in, int max_lines);
// The same for a file's content held in memory, from byte from of it on.
void copy_lines(std::string& out, const std::string& in, int max_lines, size_t from = 0);

// Where the first fgets(line, buffer_size, ...) on a file of this content would stop: after
// the first '\n' if it comes within buffer_size - 1 bytes, else after buffer_size - 1
// bytes (or at the end of a shorter content); 0 for an empty content, where fgets reads
// nothing. With from, the same for the piece that starts at byte from (where the next
// fgets would start): its end, counted from the start of text.
size_t end_of_first_piece(const std::string& text, size_t buffer_size, size_t from = 0);

// Reads a stream's lines as fgets(line, size, in) reads them, a block at a time: each call
// gives the next piece of at most size - 1 bytes, ending after a '\n' or where the room
// or the file ends, NUL-terminated (a NUL byte in the file is copied like any other, so
// the C string ends there, as with fgets). It returns false at the end of the file, and,
// as fgets, when a read fails (other than with EAGAIN) with a piece half gathered: the
// pieces before it are given, and nothing after it is read. A read that fails with EAGAIN
// (a FIFO with a writer but no data) ends the piece, and the next call reads again. The hot
// readers use it instead of fgets, which takes several times the instructions per line.
// The reader owns the bytes it has read ahead: once it is used, the stream is read only
// through it. size must be at least 2.
class line_reader {
public:
    // The most a refill takes from the stream at once: stdio's own buffer size (a large
    // input's stream has a buffer of 64 KiB, from which the blocks are copied).
    static constexpr size_t BLOCK = 8192;

    explicit line_reader(FILE* in) : in_(in) { block_[0] = '\0'; }
    line_reader(const line_reader&) = delete;
    line_reader& operator=(const line_reader&) = delete;

    bool next(char* line, size_t size);

    // The same piece as next(spare, size) gives, without copying it where it can: a piece
    // that lies whole within the block read ahead is NUL-terminated there (the byte after
    // it is put back at the next call) and given in place; any other piece is gathered into
    // spare. Returns the piece and sets *length to its bytes, or returns null where next
    // returns false. The piece stays valid until the next call.
    const char* next_in_place(char* spare, size_t size, size_t* length);

    // For a reader that finds a line's end itself as it reads the line (the hot readers, so
    // that the line is not searched for its '\n' first): the bytes read ahead from the
    // reader's place on, *available of them (0 when the reader must read on: then
    // next_in_place does), with a NUL after them. Valid until the next call.
    const char* peek(size_t* available);
    // Takes the first count bytes of what peek gave as the next piece, as next_in_place
    // would have given them. The caller has seen that they end with the first '\n' among
    // them, and that count is at most size - 1 of the next_in_place this stands for.
    void take(size_t count) { begin_ += count; }

    // The next line for such a reader: read_in_place(text, available, room) is tried on the
    // bytes ahead, as peek gives them (room is size - 1). It returns the length of the line
    // it read there, its '\n' included, and *piece is then null; or 0 (a line of another
    // form, or not whole at hand), and then *piece and *length are the next piece as
    // next_in_place gives it, for the caller to read the general way. Returns false at the
    // end of the file, where next_in_place returns null.
    template <typename ReadInPlace>
    bool next_line(char* spare, size_t size, ReadInPlace read_in_place, const char** piece, size_t* length)
    {
        size_t available = 0;
        const char* ahead = peek(&available);
        if (const size_t count = read_in_place(ahead, available, size - 1)) {
            take(count);
            *piece = nullptr;
            return true;
        }
        *piece = next_in_place(spare, size, length);
        return *piece != nullptr;
    }

private:
    // Reads the next block; false when nothing more could be read.
    bool refill();
    // next's piece gathered into line; its length, 0 where next returns false.
    size_t gather(char* line, size_t size);

    FILE* in_;
    size_t begin_ = 0;
    size_t end_ = 0;
    bool ended_ = false;  // end of file seen: nothing more is read
    bool failed_ = false; // a read failed other than with EAGAIN
    bool restore_ = false; // a piece given in place holds a NUL at begin_ in the block
    char saved_ = '\0';   // the byte that NUL stands in for
    char block_[BLOCK + 1]; // the data, and room for the NUL after a piece that ends it
};

struct dir_closer {
    void operator()(DIR* dir) const;
};
// An open directory that is closed when it goes out of scope.
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

// Opens the directory at one of the daemon's absolute paths; null when that fails.
dir_ptr open_directory(const char* absolute_path);

// Whether the directory has an entry of that name ("." and ".." are passed over).
bool directory_has(DIR* dir, const char* name);

// Whether anything exists at one of the daemon's absolute paths.
bool path_exists(const char* absolute_path);
