// Host stand-in of libstrutils.so: the tag list reader, the number and address lists and
// readfile, written to the behaviour documented in strutils.h.
//
// Nothing here throws across the C boundary: every allocation failure is turned into the
// documented nullptr / -1 result.
#include "platform/strutils.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

// The parsed key/value pairs. The value texts handed out by get_taglist_default_ex point
// into these strings; the list is never changed after loading, so they stay valid until
// free_taglist.
struct taglist {
    std::map<std::string, std::string, std::less<>> values;
};

namespace {

// The most a file may hold to be read (see strutils.h): 16 MiB.
constexpr std::size_t READ_LIMIT = std::size_t{16} << 20;

// Opens a file for reading the way the daemon's own readers do: without blocking, so that a
// FIFO at the name cannot stall the caller at the open nor at a read, and closed on exec.
// For regular files the flag changes nothing. Returns -1 when the file cannot be opened.
int open_nonblocking(const char* path) { return open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC); }

// Reads what fd gives until the end of the file, or, for a FIFO or a device, until it has
// nothing more at this moment. Returns the text with a NUL after it, or nullptr on a read
// error, when memory runs out or when there is more than READ_LIMIT bytes.
char* read_at_most_limit(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return nullptr;
    // A regular file above the limit is refused by its size, before a byte is read.
    if (S_ISREG(st.st_mode) && static_cast<unsigned long long>(st.st_size) > READ_LIMIT) {
        return nullptr;
    }
    // Room for READ_LIMIT + 1 bytes and the NUL: one byte beyond the limit tells that a FIFO
    // or a device (which report no size) holds more than the limit.
    constexpr std::size_t MAX_CAPACITY = READ_LIMIT + 2;
    std::size_t cap = 4096;
    std::size_t len = 0;
    char* buf = static_cast<char*>(std::malloc(cap));
    if (buf == nullptr) return nullptr;
    for (;;) {
        if (len + 1 == cap) {
            if (cap == MAX_CAPACITY) break;  // len is past the limit then: refused below
            const std::size_t grown_cap = cap > MAX_CAPACITY / 2 ? MAX_CAPACITY : cap * 2;
            char* grown = static_cast<char*>(std::realloc(buf, grown_cap));
            if (grown == nullptr) {
                std::free(buf);
                return nullptr;
            }
            buf = grown;
            cap = grown_cap;
        }
        const ssize_t got = read(fd, buf + len, cap - len - 1);
        if (got > 0) {
            len += static_cast<std::size_t>(got);
            if (len > READ_LIMIT) break;
            continue;
        }
        if (got == 0) break;  // the end of the file; a FIFO without a writer ends here at once
        if (errno == EINTR) continue;
        // A FIFO or device with nothing more to give at this moment: the end, as for the
        // daemon's own readers.
        if (errno == EAGAIN || errno == EWOULDBLOCK) break;
        std::free(buf);  // a read error (a directory gives EISDIR)
        return nullptr;
    }
    if (len > READ_LIMIT) {
        std::free(buf);
        return nullptr;
    }
    buf[len] = '\0';
    return buf;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_line_end(char c) { return c == '\r' || c == '\n'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_num_separator(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ','; }

std::string_view trim_blanks(std::string_view s) {
    while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_blank(s.back())) s.remove_suffix(1);
    return s;
}

// Leading blanks; trailing blanks, CR and LF.
std::string_view trim_value(std::string_view s) {
    while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
    while (!s.empty() && (is_blank(s.back()) || is_line_end(s.back()))) s.remove_suffix(1);
    return s;
}

// One line of a tag file, without its '\n'. Throws std::bad_alloc only.
void parse_tag_line(taglist& list, std::string_view line) {
    std::string_view rest = line;
    while (!rest.empty() && is_blank(rest.front())) rest.remove_prefix(1);
    if (rest.empty() || rest.front() == '#') return;

    const std::size_t eq = line.find('=');
    if (eq == std::string_view::npos) return;

    const std::string_view key = trim_blanks(line.substr(0, eq));
    if (key.empty()) return;  // "=value" names nothing that could be looked up

    std::string_view value = trim_value(line.substr(eq + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
    }

    auto it = list.values.find(key);
    if (it != list.values.end()) {
        it->second.assign(value.data(), value.size());
    } else {
        list.values.emplace(std::string(key), std::string(value));
    }
}

// Parses one numlist token; false when it is not a whole decimal integer fitting an int.
bool parse_int_token(const char* begin, const char* end, int* out) {
    const char* p = begin;
    bool negative = false;
    if (p < end && (*p == '+' || *p == '-')) {
        negative = (*p == '-');
        ++p;
    }
    if (p == end) return false;

    // Accumulate as a non-positive number so that INT_MIN fits.
    int value = 0;
    for (; p < end; ++p) {
        if (!is_digit(*p)) return false;
        const int digit = *p - '0';
        if (value < (INT_MIN + digit) / 10) return false;
        value = value * 10 - digit;
    }
    if (!negative) {
        if (value == INT_MIN) return false;
        value = -value;
    }
    *out = value;
    return true;
}

// Calls f(begin, end) for every token of text between numlist separators.
template <typename F>
void for_each_num_token(const char* text, F f) {
    const char* p = text;
    while (*p != '\0') {
        while (*p != '\0' && is_num_separator(*p)) ++p;
        const char* begin = p;
        while (*p != '\0' && !is_num_separator(*p)) ++p;
        if (p != begin) f(begin, p);
    }
}

// Whether [begin, end) is exactly one address "a.b.c.d" with 1-3 digits and a value of
// 0..255 in each part.
bool is_ipv4_run(const char* begin, const char* end) {
    const char* p = begin;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (p == end || *p != '.') return false;
            ++p;
        }
        int value = 0;
        int digits = 0;
        while (p < end && is_digit(*p)) {
            if (++digits > 3) return false;
            value = value * 10 + (*p - '0');
            ++p;
        }
        if (digits == 0 || value > 255) return false;
    }
    return p == end;
}

// Calls f(begin, end) for every address of text: since an address may not touch another
// digit or dot, it must be a whole maximal run of digits and dots.
template <typename F>
void for_each_ipv4(const char* text, F f) {
    const char* p = text;
    while (*p != '\0') {
        if (!is_digit(*p) && *p != '.') {
            ++p;
            continue;
        }
        const char* begin = p;
        while (is_digit(*p) || *p == '.') ++p;
        if (is_ipv4_run(begin, p)) f(begin, p);
    }
}

char* copy_text(const char* begin, std::size_t len) {
    char* copy = static_cast<char*>(std::malloc(len + 1));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, begin, len);
    copy[len] = '\0';
    return copy;
}

// Appends an already allocated text; on failure the text is left to the caller.
int append_owned(iplist* list, char* text) {
    if (list->count < 0 || list->count == INT_MAX) return -1;
    const std::size_t count = static_cast<std::size_t>(list->count);
    if (count + 1 > SIZE_MAX / sizeof(char*)) return -1;
    void* grown = std::realloc(list->items, (count + 1) * sizeof(char*));
    if (grown == nullptr) return -1;
    list->items = static_cast<char**>(grown);
    list->items[count] = text;
    ++list->count;
    return 0;
}

} // namespace

extern "C" {

taglist* load_taglist_ex(const char* path, int flag1, int flag2) {
    (void)flag1;
    (void)flag2;
    char* content = readfile(path, 0);
    if (content == nullptr) return nullptr;

    taglist* list = new (std::nothrow) taglist;
    if (list == nullptr) {
        std::free(content);
        return nullptr;
    }
    try {
        // The text ends at its first NUL byte.
        std::string_view rest(content);
        while (!rest.empty()) {
            const std::size_t nl = rest.find('\n');
            const std::size_t len = (nl == std::string_view::npos) ? rest.size() : nl;
            parse_tag_line(*list, rest.substr(0, len));
            rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
        }
    } catch (...) {
        delete list;
        std::free(content);
        return nullptr;
    }
    std::free(content);
    return list;
}

const char* get_taglist_default_ex(taglist* list, const char* def, const char* key) {
    if (list == nullptr || key == nullptr) return def;
    auto it = list->values.find(std::string_view(key));
    if (it == list->values.end()) return def;
    return it->second.c_str();
}

void free_taglist(taglist* list) { delete list; }

numlist* create_numlist(const char* text) {
    if (text == nullptr) return nullptr;

    std::size_t count = 0;
    for_each_num_token(text, [&count](const char* begin, const char* end) {
        int value;
        if (parse_int_token(begin, end, &value)) ++count;
    });
    if (count == 0 || count > static_cast<std::size_t>(INT_MAX) ||
        count > SIZE_MAX / sizeof(int)) {
        return nullptr;
    }

    numlist* list = static_cast<numlist*>(std::malloc(sizeof(numlist)));
    if (list == nullptr) return nullptr;
    list->nums = static_cast<int*>(std::malloc(count * sizeof(int)));
    if (list->nums == nullptr) {
        std::free(list);
        return nullptr;
    }
    list->count = 0;
    for_each_num_token(text, [list](const char* begin, const char* end) {
        int value;
        if (parse_int_token(begin, end, &value)) list->nums[list->count++] = value;
    });
    return list;
}

void free_numlist(numlist* list) {
    if (list == nullptr) return;
    std::free(list->nums);
    std::free(list);
}

iplist* init_iplist(void) {
    iplist* list = static_cast<iplist*>(std::malloc(sizeof(iplist)));
    if (list == nullptr) return nullptr;
    list->count = 0;
    list->items = nullptr;
    return list;
}

iplist* create_iplist(const char* text, int flag) {
    (void)flag;
    if (text == nullptr) return nullptr;

    std::size_t count = 0;
    for_each_ipv4(text, [&count](const char*, const char*) { ++count; });
    if (count > static_cast<std::size_t>(INT_MAX) || count > SIZE_MAX / sizeof(char*)) {
        return nullptr;
    }

    iplist* list = init_iplist();
    if (list == nullptr) return nullptr;
    if (count == 0) return list;

    list->items = static_cast<char**>(std::malloc(count * sizeof(char*)));
    if (list->items == nullptr) {
        std::free(list);
        return nullptr;
    }
    bool failed = false;
    for_each_ipv4(text, [list, &failed](const char* begin, const char* end) {
        if (failed) return;
        char* item = copy_text(begin, static_cast<std::size_t>(end - begin));
        if (item == nullptr) {
            failed = true;
            return;
        }
        list->items[list->count++] = item;
    });
    if (failed) {
        free_iplist(list);
        return nullptr;
    }
    return list;
}

int append_iplist(iplist* list, const char* item) {
    if (list == nullptr || item == nullptr) return -1;
    char* copy = copy_text(item, std::strlen(item));
    if (copy == nullptr) return -1;
    if (append_owned(list, copy) != 0) {
        std::free(copy);
        return -1;
    }
    return 0;
}

int insert_iplist(iplist* list, const char* item) { return append_iplist(list, item); }

int remove_iplist(iplist* list, const char* text) {
    if (list == nullptr || text == nullptr || list->items == nullptr) return -1;
    for (int i = 0; i < list->count; ++i) {
        if (list->items[i] != nullptr && std::strcmp(list->items[i], text) == 0) {
            std::free(list->items[i]);
            std::memmove(&list->items[i], &list->items[i + 1],
                         static_cast<std::size_t>(list->count - i - 1) * sizeof(char*));
            --list->count;
            return 0;
        }
    }
    return -1;
}

void free_iplist(iplist* list) {
    if (list == nullptr) return;
    if (list->items != nullptr) {
        for (int i = 0; i < list->count; ++i) std::free(list->items[i]);
        std::free(list->items);
    }
    std::free(list);
}

char* readfile(const char* path, int flag) {
    (void)flag;
    if (path == nullptr) return nullptr;
    const int fd = open_nonblocking(path);
    if (fd < 0) return nullptr;
    char* text = read_at_most_limit(fd);
    close(fd);
    return text;
}

} // extern "C"
