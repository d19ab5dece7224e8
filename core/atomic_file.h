// Whole-file replacement: a file is written to a temporary name and moved over its target
// with rename, so that readers see either the old file or the new one, never a part. The
// file's data goes through the platform's write (sys_write), so that a test or tool can
// make it fail as a full file system does.
#pragma once

#include <cstdio>
#include <string>

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

    bool is_open() const { return stream_ != nullptr; }
    // The stream to write to; null when the file could not be created. It is a stdio
    // stream of its own kind (fopencookie): it has no file descriptor (fileno gives -1)
    // and cannot seek.
    FILE* stream() const { return stream_; }

    // Checks every write, flushes and closes the file, then renames it over target_path.
    // Returns true when the target was replaced. On any failure the temporary file is
    // removed and the target is left as it was.
    bool commit(const char* target_path);

private:
    std::string temp_;
    FILE* stream_ = nullptr;
};
