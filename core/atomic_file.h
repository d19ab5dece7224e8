// Whole-file replacement: a file is written to a temporary name and moved over its target
// with rename, so that readers see either the old file or the new one, never a part.
//
// The file's content is gathered in memory and written with as few write calls as the
// system allows (one, unless it writes short) when the file is committed. That write goes
// through the platform's write (sys_write), so that a test or tool can make it fail as a
// full file system does.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

// How much a writer of a large file gathers before it writes it out (write_gathered): few
// calls for the file, and a piece small enough to be taken from and given back to the
// heap's free memory rather than grow it.
constexpr size_t FILE_PIECE = 64 * 1024;

class atomic_file {
public:
    // Creates the temporary file at temp_path (one of the daemon's absolute paths) for
    // writing. Whatever stands at that name is unlinked first and the file is created
    // exclusively without following links, so a file or symlink planted there is never
    // written through. is_open() tells whether that worked.
    explicit atomic_file(const char* temp_path);
    // Removes the temporary file unless it was committed.
    ~atomic_file();
    atomic_file(const atomic_file&) = delete;
    atomic_file& operator=(const atomic_file&) = delete;

    bool is_open() const { return fd_ >= 0; }

    // The content so far, to append text to directly (the hot writers format into it with
    // the helpers of core/number_text.h). Text given to stream() is moved here first.
    std::string& text();
    // Appends size bytes of data.
    void append(const char* data, size_t size) { text().append(data, size); }

    // Writes the content gathered so far to the temporary file and empties it (its room
    // is kept), so that the writer of a large file holds one piece of it at a time rather
    // than the whole. A write that fails makes commit fail, as a failed write at commit
    // does. Not for a file committed with a kept text, which would hold the last piece only.
    void write_gathered();

    // A stdio stream that appends to the content, for writers that use fprintf; null when
    // the file could not be created. It is a stdio stream of its own kind (fopencookie):
    // it has no file descriptor (fileno gives -1) and cannot seek.
    FILE* stream() const { return stream_; }

    // Writes the content to the temporary file, closes it and renames it over
    // target_path. Returns true when the target was replaced. On any failure the
    // temporary file is removed and the target is left as it was.
    bool commit(const char* target_path);
    // The same, moving the content into *kept (when the target was replaced) rather than
    // freeing it, for a writer that keeps what it wrote (core/own_files.h).
    bool commit(const char* target_path, std::string* kept);

private:
    std::string temp_;
    int fd_ = -1;
    std::string content_;
    FILE* stream_ = nullptr;
    bool stream_failed_ = false;
};
