#include "core/own_files.h"

#include "core/read_file.h"
#include "platform/platform.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

struct kept_file {
    // The file's identity when its text was read or written, for the check by stat; an
    // inode of 0 where it is not known (the text is then read again when checked).
    file_identity identity;
    // The watch on the file's inode while its text holds, -1 when the file is not watched.
    int watch = -1;
    uint64_t version = 0;
    // The tick (ticks_started) in which the daemon last replaced the file, 0 for none.
    uint64_t committed_in = 0;
    std::string text;
};

// By the path the platform maps the daemon's path to (so a test's or simulator's root is
// part of the key): a few dozen files at most (four histories per record, three totals).
std::map<std::string, kept_file> kept;

// The watches that hold a kept text, by watch descriptor: the mapped path of the file.
std::map<int, std::string> watched;

int watches_fd = -1;
// Once check_own_files has run, with the watches' descriptor open.
bool watching = false;
// inotify could not be set up: the files are checked by stat from then on.
bool watches_unavailable = false;

uint64_t last_version = 0;

// Ticks started (calls of check_own_files). A file that the daemon replaces tick after tick
// (the totals) is checked by stat rather than watched: a rename over a watched inode makes
// the kernel tear down its watch (and queue its events), which costs more than the stat
// at the commit and the one when the text is next asked for. A file replaced once in a
// while (a history) is watched, and asked for every tick without a call.
uint64_t ticks_started = 0;

// Whether the daemon replaced the file in this tick or the one before.
bool replaced_lately(const kept_file& file)
{
    return file.committed_in != 0 && file.committed_in + 1 >= ticks_started;
}

// Everything that changes a file's content or tells that the path may now name another
// file: a write or truncation, a change of times, mode or link count (a rename over it, an
// unlink), the file moved away or removed.
constexpr uint32_t WATCHED_EVENTS = IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;

// The text no longer counts as checked by its watch. The kernel's watch itself is left:
// it goes with its inode (the daemon's replacements free the inode at once), and an event
// of it that still comes finds no file here.
void unwatch(kept_file& file)
{
    if (file.watch >= 0) {
        watched.erase(file.watch);
        file.watch = -1;
    }
}

void forget(const std::string& mapped)
{
    auto it = kept.find(mapped);
    if (it == kept.end())
        return;
    unwatch(it->second);
    kept.erase(it);
}

// Watches the file's inode for the text kept of it. A watch that already holds another
// path's text (two of the daemon's names for one inode, which only another program could
// make) is not shared: the file is then checked by stat.
bool watch(kept_file& file, const std::string& mapped, int wd)
{
    auto it = watched.find(wd);
    if (it != watched.end() && it->second != mapped)
        return false;
    unwatch(file);
    watched[wd] = mapped;
    file.watch = wd;
    return true;
}

void drop_all_watches()
{
    for (auto& entry : watched) {
        auto it = kept.find(entry.second);
        if (it != kept.end())
            it->second.watch = -1;
    }
    watched.clear();
}

void stop_watching()
{
    drop_all_watches();
    if (watches_fd >= 0)
        close(watches_fd);
    watches_fd = -1;
    watching = false;
}

// Reads every event queued since the last call and drops the watches (and with them the
// texts' standing) of the files they concern. A read that leaves room for the largest
// event has emptied the queue, so one read does when a handful of events wait.
void take_in_events()
{
    alignas(struct inotify_event) char buffer[4096];
    constexpr size_t LARGEST_EVENT = sizeof(struct inotify_event) + NAME_MAX + 1;
    for (;;) {
        const ssize_t n = read(watches_fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n < 0 && errno != EAGAIN) {
                // The queue can't be read: what the watches saw is unknown.
                stop_watching();
                watches_unavailable = true;
            }
            return;
        }
        for (size_t at = 0; at + sizeof(struct inotify_event) <= static_cast<size_t>(n);) {
            struct inotify_event event;
            memcpy(&event, buffer + at, sizeof event);
            at += sizeof event + event.len;
            if (event.mask & IN_Q_OVERFLOW) {
                // Events were lost: no watched text is known to hold.
                drop_all_watches();
                continue;
            }
            auto it = watched.find(event.wd);
            if (it == watched.end())
                continue;
            auto file = kept.find(it->second);
            if (file != kept.end())
                file->second.watch = -1;
            watched.erase(it);
        }
        if (static_cast<size_t>(n) + LARGEST_EVENT <= sizeof buffer)
            return;
    }
}

// Reads the whole file into text; false when it cannot be opened.
bool read_whole(const char* absolute_path, std::string* text)
{
    file_ptr f = open_for_reading(absolute_path);
    if (!f)
        return false;
    text->clear();
    char block[4096];
    size_t n;
    while ((n = fread(block, 1, sizeof block, f.get())) > 0)
        text->append(block, n);
    return true;
}

// The file's text by the check with stat: the kept one while the identity is the same,
// else read. *entry is the kept file, null for a text that is not kept.
const std::string* checked_text(const char* absolute_path, const std::string& mapped, kept_file** entry)
{
    *entry = nullptr;
    struct stat st;
    if (stat(mapped.c_str(), &st) != 0) {
        forget(mapped);
        return nullptr;
    }
    if (!S_ISREG(st.st_mode)) {
        // Read every time, never kept.
        forget(mapped);
        static std::string uncached;
        return read_whole(absolute_path, &uncached) ? &uncached : nullptr;
    }
    const file_identity id = identity_of(st);
    kept_file& file = kept[mapped];
    if (id.inode == 0 || !same_identity(file.identity, id)) {
        // The identity is that of the file before the read: a file replaced in between
        // is seen as changed at the next check.
        if (!read_whole(absolute_path, &file.text)) {
            forget(mapped);
            return nullptr;
        }
        file.text.shrink_to_fit();
        file.identity = id;
        file.version = ++last_version;
    }
    *entry = &file;
    return &file.text;
}

} // namespace

file_identity identity_of(const struct stat& st)
{
    file_identity id;
    id.device = st.st_dev;
    id.inode = st.st_ino;
    id.size = st.st_size;
    id.modified = st.st_mtim;
    id.changed = st.st_ctim;
    return id;
}

bool same_identity(const file_identity& a, const file_identity& b)
{
    return a.device == b.device && a.inode == b.inode && a.size == b.size &&
           a.modified.tv_sec == b.modified.tv_sec && a.modified.tv_nsec == b.modified.tv_nsec &&
           a.changed.tv_sec == b.changed.tv_sec && a.changed.tv_nsec == b.changed.tv_nsec;
}

void check_own_files()
{
    ++ticks_started;
    if (watching) {
        take_in_events();
        return;
    }
    if (watches_unavailable)
        return;
    watches_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (watches_fd < 0) {
        watches_unavailable = true;
        return;
    }
    // Nothing is watched yet: each kept text is checked once more by stat as it is asked
    // for, and watched from then on.
    watching = true;
}

const std::string* own_file_text(const char* absolute_path, uint64_t* version)
{
    if (version)
        *version = 0;
    const std::string mapped = sys_path(absolute_path);
    kept_file* entry = nullptr;
    const std::string* text = nullptr;
    if (watching) {
        auto it = kept.find(mapped);
        if (it != kept.end() && it->second.watch >= 0) {
            if (version)
                *version = it->second.version;
            return &it->second.text;
        }
        if (it != kept.end() && replaced_lately(it->second)) {
            // Checked, not watched: the daemon is likely to replace it again.
            text = checked_text(absolute_path, mapped, &entry);
            if (version && entry)
                *version = entry->version;
            return text;
        }
        // Watched before it is looked at, so that whatever changes the file from here on
        // is news at the next check.
        const int wd = inotify_add_watch(watches_fd, mapped.c_str(), WATCHED_EVENTS);
        if (wd < 0 && (errno == ENOENT || errno == ENOTDIR)) {
            // No file: the failed watch tells as much as a failed stat.
            forget(mapped);
            return nullptr;
        }
        text = checked_text(absolute_path, mapped, &entry);
        if (entry && wd >= 0)
            watch(*entry, mapped, wd);
    } else {
        text = checked_text(absolute_path, mapped, &entry);
    }
    if (version && entry)
        *version = entry->version;
    return text;
}

bool commit_own_file(atomic_file& out, const char* absolute_path)
{
    const std::string mapped = sys_path(absolute_path);
    std::string text;
    if (!out.commit(absolute_path, &text)) {
        // Left as it was: a kept text of it is still right, and is checked as always.
        return false;
    }
    // The file just renamed into place is the one written (a file another program put
    // there in the moment between would be taken for it; nothing else writes these files).
    // commit has dropped what was kept of the file before.
    kept_file& file = kept[mapped];
    bool known = false;
    const bool replaced_before = replaced_lately(file);
    file.committed_in = ticks_started;
    if (watching && !replaced_before) {
        const int wd = inotify_add_watch(watches_fd, mapped.c_str(), WATCHED_EVENTS);
        if (wd >= 0 && watch(file, mapped, wd)) {
            file.identity = file_identity();
            known = true;
        }
    }
    if (!known) {
        struct stat st;
        if (stat(mapped.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            forget(mapped);
            return true;
        }
        file.identity = identity_of(st);
    }
    // Kept at its own size: the writer's buffer was made with room to spare.
    text.shrink_to_fit();
    file.text.swap(text);
    file.version = ++last_version;
    return true;
}

void own_file_replaced(const std::string& mapped_path)
{
    auto it = kept.find(mapped_path);
    if (it == kept.end())
        return;
    unwatch(it->second);
    it->second.identity = file_identity();
}

bool own_file_watched(const std::string& mapped_path)
{
    auto it = kept.find(mapped_path);
    return watching && it != kept.end() && it->second.watch >= 0;
}

void forget_own_files()
{
    kept.clear();
    stop_watching();
    watches_unavailable = false;
}
