#include "client_mac/arp_line.h"

#include "client_mac/mac_usage.h"
#include "core/address_text.h"
#include "core/digit_values.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// The character classes of the format, one bit each in a table of the 256 byte values:
// a line is ~80 bytes, mostly the blanks that pad the columns, so the scan costs a table
// look-up per byte.
enum : unsigned char {
    SPACE = 1,      // isspace in the C locale, as scanf's white-space directive and %s use it
    ADDRESS = 2,    // [0-9.]
    FLAGS = 4,      // [0-9A-Fa-fx]
    MAC = 8,        // [0-9A-Fa-f:]
    NOT_SPACE = 16, // %s: anything but white space and the end of the text
    HEX = 32        // a hexadecimal digit, for the flags' value
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
        if (hex)
            bits |= HEX;
        t.of[i] = static_cast<unsigned char>(bits);
    }
    return t;
}

constexpr char_classes CLASSES = make_char_classes();

inline bool in_class(char c, unsigned cls) { return (CLASSES.of[static_cast<unsigned char>(c)] & cls) != 0; }

// The run of ' ' that pads a column, eight bytes a step. Each byte is looked at only after
// the one before it was found to be a blank, so nothing past the end of the text is read.
inline const char* skip_blanks(const char* p)
{
    for (;; p += 8) {
        if (p[0] != ' ')
            return p;
        if (p[1] != ' ')
            return p + 1;
        if (p[2] != ' ')
            return p + 2;
        if (p[3] != ' ')
            return p + 3;
        if (p[4] != ' ')
            return p + 4;
        if (p[5] != ' ')
            return p + 5;
        if (p[6] != ' ')
            return p + 6;
        if (p[7] != ' ')
            return p + 7;
    }
}

// scanf's white-space directive before a field of the class: the blanks, then any other
// white space (rare: the kernel pads with ' ' only) one by one.
template <unsigned Class>
inline const char* field_start(const char* p)
{
    p = skip_blanks(p);
    if (!in_class(*p, Class))
        while (in_class(*p, SPACE))
            ++p;
    return p;
}

// How many of the first Width characters from p, at most, are of the class: the test of
// each character written out (index N onwards), so a character costs a look-up and a
// branch. A character is looked at only after the one before it was found in the class,
// which the end of the text is not.
template <unsigned Class, size_t Width, size_t N = 0>
inline size_t run_length(const char* p)
{
    if constexpr (N == Width) {
        return Width;
    } else {
        if (!in_class(p[N], Class))
            return N;
        return run_length<Class, Width, N + 1>(p);
    }
}

// Copies n characters, 1 <= n <= Width <= 32, already known to be in the text, by two
// copies of a fixed size that overlap when n is not that size.
template <size_t Width>
inline void copy_short(char* out, const char* p, size_t n)
{
    if (Width >= 16 && n >= 16) {
        memcpy(out, p, 16);
        memcpy(out + n - 16, p + n - 16, 16);
    } else if (Width >= 8 && n >= 8) {
        memcpy(out, p, 8);
        memcpy(out + n - 8, p + n - 8, 8);
    } else if (Width >= 4 && n >= 4) {
        memcpy(out, p, 4);
        memcpy(out + n - 4, p + n - 4, 4);
    } else {
        out[0] = p[0];
        out[n / 2] = p[n / 2];
        out[n - 1] = p[n - 1];
    }
}

// A conversion of at most Width characters of the class into out, NUL-terminated. Returns
// the text after it, or null when no character matched.
template <unsigned Class, size_t Width>
inline const char* take(const char* p, char* out)
{
    static_assert(Width >= 1 && Width <= 32, "copy_short copies up to 32 characters");
    const size_t n = run_length<Class, Width>(p);
    if (n == 0)
        return nullptr;
    copy_short<Width>(out, p, n);
    out[n] = '\0';
    return p + n;
}

// A conversion without width that is not stored (%*[...], %*s): passes the characters of
// the class. Returns the text after them, or null when there was none.
template <unsigned Class>
inline const char* pass(const char* p)
{
    if (!in_class(*p, Class))
        return nullptr;
    do
        ++p;
    while (in_class(*p, Class));
    return p;
}

} // namespace

bool scan_arp_line(const char* line, arp_line* f)
{
    const char* p = take<ADDRESS, sizeof(arp_line::ip) - 1>(line, f->ip);
    if (!p)
        return false;
    p = pass<FLAGS>(field_start<FLAGS>(p)); // the hardware type
    if (!p)
        return false;
    p = take<FLAGS, sizeof(arp_line::flags) - 1>(field_start<FLAGS>(p), f->flags);
    if (!p)
        return false;
    p = take<MAC, sizeof(arp_line::mac) - 1>(field_start<MAC>(p), f->mac);
    if (!p)
        return false;
    p = pass<NOT_SPACE>(field_start<NOT_SPACE>(p)); // the mask
    if (!p)
        return false;
    return take<NOT_SPACE, sizeof(arp_line::device) - 1>(field_start<NOT_SPACE>(p), f->device) != nullptr;
}

unsigned arp_flags_low_byte(const char* text)
{
    const char* p = text;
    if (p[0] == '0' && (p[1] | 0x20) == 'x' && in_class(p[2], HEX))
        p += 2;
    // The common flags, "0x2" or "0x6" and the like: one or two digits.
    if (in_class(p[0], HEX)) {
        if (!in_class(p[1], HEX))
            return hex_digit(p[0]);
        if (!in_class(p[2], HEX))
            return (hex_digit(p[0]) << 4 | hex_digit(p[1])) & 0xff;
    }
    uint64_t value = 0;
    for (; in_class(*p, HEX); ++p) {
        if (value > (UINT64_MAX >> 4))
            return 0xff; // beyond 64 bits: strtoull gives its largest value
        value = (value << 4) | hex_digit(*p);
    }
    return static_cast<unsigned>(value & 0xff);
}

namespace {

// The columns of the kernel's layout: the address padded to 16 and a blank, then the
// hardware type and the flags, each "0x" and up to 8 digits padded to 12, the MAC of 17
// characters, the mask column, and the device.
constexpr size_t TYPE_COLUMN = 17;
constexpr size_t FLAGS_COLUMN = 29;
constexpr size_t MAC_COLUMN = 41;
constexpr size_t MASK_COLUMN = 58;
constexpr char MASK_TEXT[] = "     *        ";
constexpr size_t DEVICE_COLUMN = MASK_COLUMN + sizeof MASK_TEXT - 1;

// Whether the n bytes at p, 16 at most, are all ' ': in words of 8 or 4 bytes where there
// are as many (the two words overlap when n is not their size), which is the same test on
// every byte order since all the bytes compared are alike.
inline bool blanks(const char* p, size_t n)
{
    constexpr uint64_t BLANKS_8 = 0x2020202020202020u;
    constexpr uint32_t BLANKS_4 = 0x20202020u;
    if (n >= 8) {
        uint64_t head, tail;
        memcpy(&head, p, 8);
        memcpy(&tail, p + n - 8, 8);
        return head == BLANKS_8 && tail == BLANKS_8;
    }
    if (n >= 4) {
        uint32_t head, tail;
        memcpy(&head, p, 4);
        memcpy(&tail, p + n - 4, 4);
        return head == BLANKS_4 && tail == BLANKS_4;
    }
    for (size_t i = 0; i < n; ++i)
        if (p[i] != ' ')
            return false;
    return true;
}

// A column of "0x%-10x" at p: "0x", one to eight hexadecimal digits, blanks to its 12th
// character. Its number in *value; false for anything else.
inline bool hex_column(const char* p, uint32_t* value)
{
    if (p[0] != '0' || p[1] != 'x')
        return false;
    uint32_t v = hex_digit(p[2]);
    if (v > 15)
        return false;
    size_t i = 3;
    for (unsigned d; i < 10 && (d = hex_digit(p[i])) <= 15; ++i)
        v = v << 4 | d;
    *value = v;
    return blanks(p + i, 12 - i);
}

// Three pairs of hexadecimal digits with a byte between at p, as 24 bits; any byte that is
// no digit shows in *bad as a value above 15.
inline uint32_t three_pairs(const char* p, unsigned* bad)
{
    uint32_t v = 0;
#pragma GCC unroll 3
    for (int pair = 0; pair < 3; ++pair, p += 3) {
        const unsigned high = hex_digit(p[0]), low = hex_digit(p[1]);
        *bad |= high | low;
        v = v << 8 | high << 4 | low;
    }
    return v;
}

// The six pairs of a MAC with ':' between at p, as one number; false for anything else.
// The pairs are put together in two halves of 24 bits, which 32-bit CPUs hold in single
// registers.
inline bool mac_column(const char* p, uint64_t* mac)
{
    if (p[2] != ':' || p[5] != ':' || p[8] != ':' || p[11] != ':' || p[14] != ':')
        return false;
    unsigned bad = 0;
    const uint32_t high = three_pairs(p, &bad), low = three_pairs(p + 9, &bad);
    if (bad > 15)
        return false;
    *mac = static_cast<uint64_t>(high) << 24 | low;
    return true;
}

// The kernel's layout read at its columns; false for a line of any other layout (which is
// not refused by that: it is read the general way). On such a line the format's
// conversions take exactly the columns: the address up to its blank (at most 15
// characters), the hardware type and the flags up to theirs, the 17 characters of the MAC
// (with a blank after them), the '*', and the device from its column on, which is not a
// blank. The conversions after them then give the values read here: the address of the
// common form, the flags' number (8 digits at most, so without overflow), the six pairs,
// and the device's first two characters (a blank, a NUL or the end of the line after the
// first is not 'r').
bool read_kernel_layout(const char* line, size_t length, arp_line_values* out)
{
    if (length <= DEVICE_COLUMN)
        return false;
    const char* after_address = read_common_address(line, ' ', &out->address);
    if (!after_address || !blanks(after_address, TYPE_COLUMN - static_cast<size_t>(after_address - line)))
        return false;
    uint32_t type = 0, flags = 0;
    if (!hex_column(line + TYPE_COLUMN, &type) || !hex_column(line + FLAGS_COLUMN, &flags) ||
        !mac_column(line + MAC_COLUMN, &out->mac) || memcmp(line + MASK_COLUMN, MASK_TEXT, sizeof MASK_TEXT - 1) != 0 ||
        !in_class(line[DEVICE_COLUMN], NOT_SPACE))
        return false;
    out->flags_low_byte = flags & 0xff;
    out->bridge = line[DEVICE_COLUMN] == 'b' && line[DEVICE_COLUMN + 1] == 'r';
    return true;
}

} // namespace

bool read_arp_line(const char* line, size_t length, arp_line_values* out)
{
    if (read_kernel_layout(line, length, out))
        return true;
    arp_line fields;
    if (!scan_arp_line(line, &fields))
        return false;
    if (!address_from_text(fields.ip, &out->address))
        out->address = 0;
    out->flags_low_byte = arp_flags_low_byte(fields.flags);
    out->mac = parse_mac_text(fields.mac);
    out->bridge = strncmp(fields.device, "br", 2) == 0;
    return true;
}

size_t read_kernel_arp_line(const char* text, size_t available, size_t room, arp_line_values* out)
{
    const size_t limit = available < room ? available : room;
    if (limit <= DEVICE_COLUMN + 1 || !read_kernel_layout(text, limit, out))
        return 0;
    for (size_t i = DEVICE_COLUMN + 1; i < limit; ++i)
        if (text[i] == '\n')
            return i + 1;
    return 0;
}
