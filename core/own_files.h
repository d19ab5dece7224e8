// The daemon's own files kept in memory between ticks: its history files, which every
// tick copies into the exports and which change at most once an hour (the hourly history)
// and otherwise once a day or month. Only files that the daemon alone writes are kept
// here, and a kept text is used only while the file is the very one it was read from (the
// same device, inode, size, and modification and change times to the nanosecond: one stat
// instead of an open, its checks, the reads and a close), so it is what reading the file
// again would give. The daemon replaces these files by rename, which gives a new inode
// every time; a file edited in place by hand changes its times. (Content rewritten in
// place with the same size within one step of the file system's clock would not be seen;
// nothing but the daemon writes these files, and it always writes a new file.)
#pragma once

#include "core/atomic_file.h"

#include <ctime>
#include <string>
#include <sys/stat.h>

// What tells one file from another at one of the daemon's paths.
struct file_identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    struct timespec modified = {0, 0};
    struct timespec changed = {0, 0};
};

file_identity identity_of(const struct stat& st);
bool same_identity(const file_identity& a, const file_identity& b);

// The content of the file at one of the daemon's absolute paths, read whole (up to the
// limit of open_for_reading); null when there is no file or it cannot be read. A regular
// file's text is kept and given again while the file stays the same; anything else is read
// every time. The text stays valid until the next call for the same path.
const std::string* own_file_text(const char* absolute_path);

// Commits out over the file at one of the daemon's absolute paths (atomic_file::commit)
// and keeps what was written as that file's text, with the identity of the file now there,
// so that the next read is a stat. Returns what commit returns.
bool commit_own_file(atomic_file& out, const char* absolute_path);

// Forgets every kept text (for tests, and a clean shutdown).
void forget_own_files();
