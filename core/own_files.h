// The daemon's own files kept in memory between ticks: its history files, which every
// tick copies into the exports and which change at most once an hour (the hourly history)
// and otherwise once a day or month, and the three total files. Only files that the
// daemon alone writes are kept here, and a kept text is used only while nothing has
// changed the file it was read from (or written to), so it is what reading the file again
// would give.
//
// How a kept file is known to be unchanged:
// - Watched (once check_own_files has run, where the kernel has inotify): the file's inode
//   is watched for writes, truncation, changes of its times, mode or links, and for being
//   moved, removed or replaced. check_own_files, at the start of every tick, reads all
//   that the watches saw since the last tick in one call and drops the texts of the files
//   concerned, which are read again when next asked for. A kept text is then given
//   without a single call. The daemon's own replacements during a tick keep their texts
//   (commit_own_file) and watch the new file, except a file that it replaced in the tick
//   before as well (the totals, replaced every tick): that one is checked as below until
//   a tick passes without its replacement, because a rename over a watched file makes the
//   kernel tear the watch down, which costs more than the two stats that take its place
//   (one after the replacement, one when the text is next asked for).
// - Checked (before the first tick, and where there is no inotify): a text is given while
//   the file has the identity it had when read (the same device, inode, size, and
//   modification and change times to the nanosecond: one stat instead of an open, its
//   checks, the reads and a close). The daemon replaces these files by rename, which gives
//   a new inode every time; a file edited in place by hand changes its times. (Content
//   rewritten in place with the same size within one step of the file system's clock
//   would not be seen; nothing but the daemon writes these files, and it always writes a
//   new file.)
#pragma once

#include "core/atomic_file.h"

#include <cstdint>
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

// Marks the start of a tick: takes in what the watches saw since the last call (one read
// of the watches' queue) and from the first call on watches the kept files instead of
// checking each one every time it is asked for. A change made to a kept file by another
// program during a tick is seen at the next tick's call.
void check_own_files();

// The content of the file at one of the daemon's absolute paths, read whole (up to the
// limit of open_for_reading); null when there is no file or it cannot be read. A regular
// file's text is kept and given again while the file stays the same; anything else is read
// every time. The text stays valid until the next call for the same path. When version
// is given, it receives a number that changes whenever the text given may differ from the
// last one (a text read again or written), so that what a caller derives from a text can
// be kept with it; 0 for a text that is not kept (derived data can't be kept either).
const std::string* own_file_text(const char* absolute_path, uint64_t* version = nullptr);

// Commits out over the file at one of the daemon's absolute paths (atomic_file::commit)
// and keeps what was written as that file's text, watching or checking the file now
// there, so that the next read of it costs no read. Returns what commit returns.
bool commit_own_file(atomic_file& out, const char* absolute_path);

// Drops the kept text of the file at a path the platform maps to (mapped_path), if there
// is one: atomic_file::commit calls it for every file it replaces, so that a kept file
// replaced by any other writer of the daemon is read again at once.
void own_file_replaced(const std::string& mapped_path);

// Whether the file at a path the platform maps to is kept and watched, so that asking for
// its text makes no system call (for the benchmarks' account of a tick's I/O).
bool own_file_watched(const std::string& mapped_path);

// Forgets every kept text and stops watching (for tests, the simulator's restarts, and a
// clean shutdown); the next check_own_files starts again.
void forget_own_files();
