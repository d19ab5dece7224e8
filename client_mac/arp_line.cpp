#include "client_mac/arp_line.h"

#include <cstddef>
#include <cstdint>

namespace {

// isspace in the C locale, as scanf's white-space directive and %s use it.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// The sets of the conversions.
bool in_address_set(char c) { return is_digit(c) || c == '.'; }
bool in_flags_set(char c) { return is_hex(c) || c == 'x'; }
bool in_mac_set(char c) { return is_hex(c) || c == ':'; }
bool not_space(char c) { return c != '\0' && !is_space(c); }

const char* skip_spaces(const char* p)
{
    while (is_space(*p))
        ++p;
    return p;
}

// A conversion of at most width characters of the set (no limit when width is 0) into out
// (null: not stored). Returns the text after it, or null when no character matched.
template <typename Set>
const char* take(const char* p, Set in_set, size_t width, char* out)
{
    size_t n = 0;
    while ((width == 0 || n < width) && p[n] != '\0' && in_set(p[n])) {
        if (out)
            out[n] = p[n];
        ++n;
    }
    if (n == 0)
        return nullptr;
    if (out)
        out[n] = '\0';
    return p + n;
}

} // namespace

bool scan_arp_line(const char* line, arp_line* f)
{
    const char* p = take(line, in_address_set, sizeof f->ip - 1, f->ip);
    if (!p)
        return false;
    p = take(skip_spaces(p), in_flags_set, 0, nullptr); // the hardware type
    if (!p)
        return false;
    p = take(skip_spaces(p), in_flags_set, sizeof f->flags - 1, f->flags);
    if (!p)
        return false;
    p = take(skip_spaces(p), in_mac_set, sizeof f->mac - 1, f->mac);
    if (!p)
        return false;
    p = take(skip_spaces(p), not_space, 0, nullptr); // the mask
    if (!p)
        return false;
    return take(skip_spaces(p), not_space, sizeof f->device - 1, f->device) != nullptr;
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
