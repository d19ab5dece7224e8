// Reading the daemon's input files through the platform's root.
#pragma once

#include <cstdio>
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
