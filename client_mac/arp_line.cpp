#include "client_mac/arp_line.h"

#include <cstddef>
#include <cstdint>

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// The character classes of the format, one bit each in a table of the 256 byte values:
// a line is ~80 bytes, mostly the blanks that pad the columns, so the scan costs a table
// look-up per byte.
enum : unsigned char {
    SPACE = 1,     // isspace in the C locale, as scanf's white-space directive and %s use it
    ADDRESS = 2,   // [0-9.]
    FLAGS = 4,     // [0-9A-Fa-fx]
    MAC = 8,       // [0-9A-Fa-f:]
    NOT_SPACE = 16 // %s: anything but white space and the end of the text
};

struct char_classes {
    unsigned char of[256];
};

constexpr char_classes make_char_classes()
{
    char_classes t{};
    for (int i = 0; i < 256; ++i) {
        const char c = static_cast<char>(i);
        const bool space = c == ' ' || (c >= '\t' && c <= '\r');
        const bool digit = c >= '0' && c <= '9';
        const bool hex = digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
        unsigned bits = 0;
        if (space)
            bits |= SPACE;
        if (digit || c == '.')
            bits |= ADDRESS;
        if (hex || c == 'x')
            bits |= FLAGS;
        if (hex || c == ':')
            bits |= MAC;
        if (!space && i != 0)
            bits |= NOT_SPACE;
        t.of[i] = static_cast<unsigned char>(bits);
    }
    return t;
}

constexpr char_classes CLASSES = make_char_classes();

inline bool in_class(char c, unsigned cls) { return (CLASSES.of[static_cast<unsigned char>(c)] & cls) != 0; }

// White space: the runs of ' ' that pad the columns four bytes a step, then any white
// space one by one. Each byte is looked at only after the one before it was found to be a
// blank, so nothing past the end of the text is read.
inline const char* skip_spaces(const char* p)
{
    while (p[0] == ' ' && p[1] == ' ' && p[2] == ' ' && p[3] == ' ')
        p += 4;
    while (in_class(*p, SPACE))
        ++p;
    return p;
}

// A conversion of at most Width characters of the class into out, NUL-terminated. Returns
// the text after it, or null when no character matched.
template <unsigned Class, size_t Width>
inline const char* take(const char* p, char* out)
{
    size_t n = 0;
    while (n < Width && in_class(p[n], Class)) {
        out[n] = p[n];
        ++n;
    }
    if (n == 0)
        return nullptr;
    out[n] = '\0';
    return p + n;
}

// A conversion without width that is not stored (%*[...], %*s): passes the characters of
// the class. Returns the text after them, or null when there was none.
template <unsigned Class>
inline const char* pass(const char* p)
{
    const char* start = p;
    while (in_class(*p, Class))
        ++p;
    return p == start ? nullptr : p;
}

} // namespace

bool scan_arp_line(const char* line, arp_line* f)
{
    const char* p = take<ADDRESS, sizeof(arp_line::ip) - 1>(line, f->ip);
    if (!p)
        return false;
    p = pass<FLAGS>(skip_spaces(p)); // the hardware type
    if (!p)
        return false;
    p = take<FLAGS, sizeof(arp_line::flags) - 1>(skip_spaces(p), f->flags);
    if (!p)
        return false;
    p = take<MAC, sizeof(arp_line::mac) - 1>(skip_spaces(p), f->mac);
    if (!p)
        return false;
    p = pass<NOT_SPACE>(skip_spaces(p)); // the mask
    if (!p)
        return false;
    return take<NOT_SPACE, sizeof(arp_line::device) - 1>(skip_spaces(p), f->device) != nullptr;
}

unsigned arp_flags_low_byte(const char* text)
{
    const char* p = text;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && is_hex(p[2]))
        p += 2;
    uint64_t value = 0;
    for (; is_hex(*p); ++p) {
        const unsigned digit = is_digit(*p) ? static_cast<unsigned>(*p - '0')
                                            : static_cast<unsigned>((*p | 0x20) - 'a' + 10);
        if (value > (UINT64_MAX >> 4))
            return 0xff; // beyond 64 bits: strtoull gives its largest value
        value = (value << 4) | digit;
    }
    return static_cast<unsigned>(value & 0xff);
}
