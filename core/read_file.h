// Reading the daemon's input files through the platform's root.
#pragma once

#include <cstdio>
#include <dirent.h>
#include <memory>

struct file_closer {
    void operator()(FILE* f) const { fclose(f); }
};
// An open stream that is closed when it goes out of scope.
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Opens one of the daemon's absolute paths for reading; null when that fails.
file_ptr open_for_reading(const char* absolute_path);

// Whether the file at one of the daemon's absolute paths can be opened for reading.
bool is_readable(const char* absolute_path);

// Copies at most max_lines lines of in to out, reading through a 256-byte buffer (a longer
// line is copied in pieces, and each piece counts as a line).
void copy_lines(FILE* out, FILE* in, int max_lines);

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
