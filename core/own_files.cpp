#include "core/own_files.h"

#include "core/read_file.h"
#include "platform/platform.h"

#include <cstdio>
#include <map>

namespace {

struct kept_file {
    file_identity identity;
    std::string text;
};

// By the path the platform maps the daemon's path to (so a test's or simulator's root is
// part of the key): a few dozen histories at most (four per record).
std::map<std::string, kept_file> kept;

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

const std::string* own_file_text(const char* absolute_path)
{
    const std::string mapped = sys_path(absolute_path);
    struct stat st;
    if (stat(mapped.c_str(), &st) != 0) {
        kept.erase(mapped);
        return nullptr;
    }
    if (!S_ISREG(st.st_mode)) {
        // Read every time, never kept.
        kept.erase(mapped);
        static std::string uncached;
        return read_whole(absolute_path, &uncached) ? &uncached : nullptr;
    }
    const file_identity id = identity_of(st);
    kept_file& file = kept[mapped];
    if (same_identity(file.identity, id) && id.inode != 0)
        return &file.text;
    // The identity is that of the file before the read: a file replaced in between is
    // seen as changed at the next call.
    if (!read_whole(absolute_path, &file.text)) {
        kept.erase(mapped);
        return nullptr;
    }
    file.text.shrink_to_fit();
    file.identity = id;
    return &file.text;
}

bool commit_own_file(atomic_file& out, const char* absolute_path)
{
    const std::string mapped = sys_path(absolute_path);
    std::string text;
    if (!out.commit(absolute_path, &text)) {
        // Left as it was: a kept text of it is still right, and is checked as always.
        return false;
    }
    // The identity of the file just renamed into place (a file another program put there
    // in the moment between would be taken for this one; nothing else writes these files).
    struct stat st;
    if (stat(mapped.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        kept.erase(mapped);
        return true;
    }
    kept_file& file = kept[mapped];
    file.identity = identity_of(st);
    // Kept at its own size: the writer's buffer was made with room to spare.
    text.shrink_to_fit();
    file.text.swap(text);
    return true;
}

void forget_own_files() { kept.clear(); }
