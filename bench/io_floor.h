// The I/O floor of a tick: the file operations that one tick of the daemon cannot do
// without, replayed with everything prepared in advance, so that the CPU time of a real
// tick can be set against the least that its I/O alone costs.
//
// The floor learns what a tick touches by watching one real tick of the daemon (see
// tick_bench.cpp): every directory of the router tree is watched with inotify, and the
// platform seam hands over every absolute path the daemon mapped. From that tick it keeps
//   - the files the tick read (opened and closed without writing), each once;
//   - the directories it listed;
//   - the paths it only looked at (mapped but neither opened nor changed: existence
//     checks, stat, opens that failed);
//   - the files it took (renamed away, read and removed, as the deleted-ARP list);
//   - the files it wrote in place (written and closed, never renamed nor removed, as the
//     request to the event pipe), with their contents after the tick;
//   - the files it replaced (renamed over), with their contents after the tick and the
//     scratch name each came from.
//
// A pass then does, with no formatting and no parsing: a stat of each looked-at path; an
// open, reads to the end of file into one buffer and a close of each read file; a listing
// of each directory; a rename, read and unlink of each taken file; an open, one write and
// a close of each file written in place; and for each replaced file an open of its scratch
// name (O_WRONLY | O_CREAT | O_TRUNC), one write of the prepared bytes, a close and a rename
// over the target. The reads, listings, takes and in-place writes act on the router tree
// itself; the replaced files go to a mirror of it under another root, so that the tick,
// which reads some of its own outputs back (the total files), never sees the floor's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class io_floor {
public:
    io_floor() = default;
    ~io_floor();
    io_floor(const io_floor&) = delete;
    io_floor& operator=(const io_floor&) = delete;

    // Watches every directory under root (the router tree) from now on.
    void record_begin(const std::string& root);

    // Ends the watch and works out the floor of what happened since record_begin. mapped
    // holds the absolute paths (already under root) that the daemon mapped meanwhile; the
    // replaced files will go under mirror_root, whose directories are made here. Throws
    // when the watch lost events.
    void record_end(const std::vector<std::string>& mapped, const std::string& mirror_root);

    // One pass of the floor. Returns false with what failed in error.
    bool pass(std::string& error);

    size_t files_read() const { return reads_.size(); }
    size_t files_written() const { return outputs_.size() + in_place_.size(); }
    size_t files_replaced() const { return outputs_.size(); }
    size_t dirs_listed() const { return dirs_.size(); }
    size_t paths_checked() const { return checks_.size(); }
    size_t files_taken() const { return takes_.size(); }
    // Bytes that the last pass read (files and taken files) and that every pass writes.
    uint64_t bytes_read() const { return bytes_read_; }
    uint64_t bytes_written() const;

    // One line per operation of a pass, paths relative to the router tree (for a look by hand).
    std::string describe() const;

private:
    struct file_bytes {
        std::string path;    // where the pass writes it
        std::string scratch; // the scratch name it is written under first (replaced files)
        std::string bytes;
    };
    struct take {
        std::string from;
        std::string to;
    };

    std::string relative(const std::string& path) const;
    void watch_tree(const std::string& dir);
    std::string contents(const std::string& path) const;

    std::string root_;
    int inotify_fd_ = -1;
    std::vector<std::string> watched_; // by watch descriptor

    std::vector<std::string> checks_;
    std::vector<std::string> reads_;
    std::vector<std::string> dirs_;
    std::vector<take> takes_;
    std::vector<file_bytes> in_place_;
    std::vector<file_bytes> outputs_;
    std::vector<char> buffer_;
    uint64_t bytes_read_ = 0;
};
