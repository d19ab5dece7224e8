// The I/O floor of a tick (see io_floor.h).
#include "io_floor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <set>
#include <stdexcept>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint32_t WATCHED = IN_OPEN | IN_CLOSE_WRITE | IN_CLOSE_NOWRITE | IN_MOVED_FROM | IN_MOVED_TO |
                             IN_CREATE | IN_DELETE;

std::string parent_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

// mkdir -p of an absolute path.
void make_dirs(const std::string& path)
{
    size_t slash = 0;
    do {
        slash = path.find('/', slash + 1);
        const std::string part = path.substr(0, slash);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            throw std::runtime_error("mkdir " + part + ": " + strerror(errno));
    } while (slash != std::string::npos);
}

// Keeps the order in which paths were first seen, each once.
class ordered_set {
public:
    void add(const std::string& s)
    {
        if (seen_.insert(s).second)
            order_.push_back(s);
    }
    bool has(const std::string& s) const { return seen_.count(s) != 0; }
    const std::vector<std::string>& items() const { return order_; }

private:
    std::set<std::string> seen_;
    std::vector<std::string> order_;
};

bool fail(std::string& error, const char* what, const std::string& path)
{
    error = std::string(what) + " " + path + ": " + strerror(errno);
    return false;
}

} // namespace

io_floor::~io_floor()
{
    if (inotify_fd_ >= 0)
        close(inotify_fd_);
}

void io_floor::watch_tree(const std::string& dir)
{
    const int wd = inotify_add_watch(inotify_fd_, dir.c_str(), WATCHED | IN_ONLYDIR);
    if (wd < 0)
        throw std::runtime_error("inotify_add_watch " + dir + ": " + strerror(errno));
    if (static_cast<size_t>(wd) >= watched_.size())
        watched_.resize(static_cast<size_t>(wd) + 1);
    watched_[static_cast<size_t>(wd)] = dir;

    DIR* d = opendir(dir.c_str());
    if (!d)
        throw std::runtime_error("opendir " + dir + ": " + strerror(errno));
    std::vector<std::string> subdirs;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        const std::string path = dir + "/" + e->d_name;
        bool is_dir = e->d_type == DT_DIR;
        if (e->d_type == DT_UNKNOWN) {
            struct stat st;
            is_dir = lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        }
        if (is_dir)
            subdirs.push_back(path);
    }
    closedir(d);
    for (const std::string& s : subdirs)
        watch_tree(s);
}

void io_floor::record_begin(const std::string& root)
{
    root_ = root;
    inotify_fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_fd_ < 0)
        throw std::runtime_error(std::string("inotify_init1: ") + strerror(errno));
    watch_tree(root_);
    // Drop what the walk itself caused.
    char drain[65536];
    while (read(inotify_fd_, drain, sizeof drain) > 0) {
    }
}

std::string io_floor::relative(const std::string& path) const
{
    return path.compare(0, root_.size(), root_) == 0 ? path.substr(root_.size()) : path;
}

std::string io_floor::contents(const std::string& path) const
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw std::runtime_error("open " + path + ": " + strerror(errno));
    std::string bytes;
    char chunk[65536];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0)
        bytes.append(chunk, static_cast<size_t>(n));
    close(fd);
    if (n < 0)
        throw std::runtime_error("read " + path + ": " + strerror(errno));
    return bytes;
}

void io_floor::record_end(const std::vector<std::string>& mapped, const std::string& mirror_root)
{
    ordered_set touched;        // every path any event named
    ordered_set closed_read;    // closed without writing
    ordered_set closed_written; // closed after writing
    ordered_set moved_away;
    ordered_set removed;
    ordered_set listed;         // directories opened (to be read)
    std::map<uint32_t, std::string> moving; // rename cookie -> source
    std::vector<std::pair<std::string, std::string>> renames;

    std::vector<char> events(1 << 20);
    for (;;) {
        const ssize_t n = read(inotify_fd_, events.data(), events.size());
        if (n < 0 && errno == EAGAIN)
            break;
        if (n <= 0)
            throw std::runtime_error(std::string("read inotify: ") + strerror(errno));
        for (ssize_t at = 0; at < n;) {
            const auto* e = reinterpret_cast<const struct inotify_event*>(events.data() + at);
            at += static_cast<ssize_t>(sizeof(struct inotify_event) + e->len);
            if (e->mask & IN_Q_OVERFLOW)
                throw std::runtime_error("the watch of the tick lost events (inotify queue overflow)");
            if (e->wd < 0 || static_cast<size_t>(e->wd) >= watched_.size())
                continue;
            const std::string& dir = watched_[static_cast<size_t>(e->wd)];
            if (e->len == 0 || e->name[0] == '\0') {
                // The watched directory itself: opened means listed.
                if (e->mask & IN_OPEN)
                    listed.add(dir);
                continue;
            }
            const std::string path = dir + "/" + e->name;
            touched.add(path);
            if (e->mask & IN_ISDIR)
                continue; // reported again by the directory's own watch
            if (e->mask & IN_CLOSE_NOWRITE)
                closed_read.add(path);
            if (e->mask & IN_CLOSE_WRITE)
                closed_written.add(path);
            if (e->mask & IN_MOVED_FROM) {
                moving[e->cookie] = path;
                moved_away.add(path);
            }
            if (e->mask & IN_MOVED_TO) {
                auto from = moving.find(e->cookie);
                if (from != moving.end()) {
                    renames.emplace_back(from->second, path);
                    moving.erase(from);
                }
            }
            if (e->mask & IN_DELETE)
                removed.add(path);
        }
    }
    close(inotify_fd_);
    inotify_fd_ = -1;
    watched_.clear();

    // Renamed and then removed: taken (read by the tick under its new name). Renamed and
    // still there: replaced, from the scratch name of its last rename.
    ordered_set taken;
    std::map<std::string, std::string> scratch_of;
    ordered_set replaced;
    for (const auto& r : renames) {
        if (removed.has(r.second)) {
            if (!taken.has(r.second))
                takes_.push_back({r.first, r.second});
            taken.add(r.second);
        } else {
            replaced.add(r.second);
            scratch_of[r.second] = r.first;
        }
    }
    for (const std::string& p : closed_read.items())
        if (!taken.has(p) && !removed.has(p))
            reads_.push_back(p);
    for (const std::string& p : listed.items())
        dirs_.push_back(p);
    for (const std::string& p : closed_written.items())
        if (!moved_away.has(p) && !removed.has(p) && !replaced.has(p))
            in_place_.push_back({p, std::string(), contents(p)});
    for (const std::string& p : replaced.items())
        outputs_.push_back({mirror_root + relative(p), mirror_root + relative(scratch_of[p]), contents(p)});
    ordered_set checked;
    for (const std::string& p : mapped)
        if (!touched.has(p) && !listed.has(p))
            checked.add(p);
    checks_ = checked.items();

    for (const file_bytes& f : outputs_) {
        make_dirs(parent_of(f.path));
        make_dirs(parent_of(f.scratch));
    }
    // One buffer for every read, twice the largest file now (the kernel files grow a little
    // from tick to tick; a larger file is still read to its end, in pieces).
    size_t largest = 0;
    for (const std::string& p : reads_) {
        struct stat st;
        if (stat(p.c_str(), &st) == 0)
            largest = std::max(largest, static_cast<size_t>(st.st_size));
    }
    buffer_.assign(2 * largest + 65536, 0);
}

bool io_floor::pass(std::string& error)
{
    uint64_t n_read = 0;
    char* const buffer = buffer_.data();
    const size_t room = buffer_.size();
    auto read_all = [&](const std::string& path) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return fail(error, "open", path);
        ssize_t n;
        while ((n = read(fd, buffer, room)) > 0)
            n_read += static_cast<uint64_t>(n);
        close(fd);
        return n == 0 || fail(error, "read", path);
    };

    for (const std::string& p : checks_) {
        struct stat st;
        if (stat(p.c_str(), &st) != 0 && errno != ENOENT)
            return fail(error, "stat", p);
    }
    for (const std::string& p : reads_)
        if (!read_all(p))
            return false;
    for (const std::string& p : dirs_) {
        DIR* d = opendir(p.c_str());
        if (!d)
            return fail(error, "opendir", p);
        while (readdir(d)) {
        }
        closedir(d);
    }
    for (const take& t : takes_) {
        if (rename(t.from.c_str(), t.to.c_str()) != 0)
            return fail(error, "rename", t.from);
        if (!read_all(t.to))
            return false;
        if (unlink(t.to.c_str()) != 0)
            return fail(error, "unlink", t.to);
    }
    for (const file_bytes& f : in_place_) {
        const int fd = open(f.path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return fail(error, "open", f.path);
        const ssize_t n = write(fd, f.bytes.data(), f.bytes.size());
        close(fd);
        if (n != static_cast<ssize_t>(f.bytes.size()))
            return fail(error, "write", f.path);
    }
    for (const file_bytes& f : outputs_) {
        const int fd = open(f.scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0)
            return fail(error, "open", f.scratch);
        const ssize_t n = f.bytes.empty() ? 0 : write(fd, f.bytes.data(), f.bytes.size());
        if (n != static_cast<ssize_t>(f.bytes.size())) {
            close(fd);
            return fail(error, "write", f.scratch);
        }
        if (close(fd) != 0)
            return fail(error, "close", f.scratch);
        if (rename(f.scratch.c_str(), f.path.c_str()) != 0)
            return fail(error, "rename", f.scratch);
    }
    bytes_read_ = n_read;
    return true;
}

uint64_t io_floor::bytes_written() const
{
    uint64_t n = 0;
    for (const file_bytes& f : in_place_)
        n += f.bytes.size();
    for (const file_bytes& f : outputs_)
        n += f.bytes.size();
    return n;
}

std::string io_floor::describe() const
{
    std::string text;
    for (const std::string& p : checks_)
        text += "stat     " + relative(p) + "\n";
    for (const std::string& p : reads_)
        text += "read     " + relative(p) + "\n";
    for (const std::string& p : dirs_)
        text += "list     " + relative(p) + "\n";
    for (const take& t : takes_)
        text += "take     " + relative(t.from) + " -> " + relative(t.to) + "\n";
    for (const file_bytes& f : in_place_)
        text += "write    " + relative(f.path) + " (" + std::to_string(f.bytes.size()) + " bytes, in place)\n";
    for (const file_bytes& f : outputs_)
        text += "replace  " + relative(f.path) + " (" + std::to_string(f.bytes.size()) + " bytes, through " +
                relative(f.scratch) + ")\n";
    return text;
}
