#include "core/address_text.h"

#include "core/digit_values.h"

#include <arpa/inet.h>
#include <cstring>

namespace {

inline unsigned part_char(const char* p) { return decimal_digit(*p); }

// One part of the common form at p: a lone 0 or one to three decimal digits without a
// leading zero, of at most 255, followed by the character after. Gives the text after that
// character, or null for anything else. A character is looked at only after the one before
// it was found to be a digit, so nothing past the end of the text is read.
inline const char* read_part(const char* p, char after, unsigned char* byte)
{
    const unsigned d0 = part_char(p);
    if (d0 > 9)
        return nullptr;
    if (p[1] == after) {
        *byte = static_cast<unsigned char>(d0);
        return p + 2;
    }
    const unsigned d1 = part_char(p + 1);
    // A leading zero makes inet_aton read the part as octal (or hexadecimal after "0x"):
    // only a lone 0 is taken here.
    if (d1 > 9 || d0 == 0)
        return nullptr;
    if (p[2] == after) {
        *byte = static_cast<unsigned char>(d0 * 10 + d1);
        return p + 3;
    }
    const unsigned d2 = part_char(p + 2);
    if (d2 > 9)
        return nullptr;
    const unsigned value = d0 * 100 + d1 * 10 + d2;
    if (value > 255 || p[3] != after)
        return nullptr;
    *byte = static_cast<unsigned char>(value);
    return p + 4;
}

// Every other form, as inet_aton reads it; kept out of the common path so that it needs no
// stack frame of its own.
__attribute__((noinline)) bool address_by_inet_aton(const char* text, uint32_t* address)
{
    struct in_addr a;
    if (!inet_aton(text, &a))
        return false;
    *address = a.s_addr;
    return true;
}

} // namespace

const char* read_common_address(const char* text, char after, uint32_t* address)
{
    unsigned char bytes[4];
    const char* p = text;
    if ((p = read_part(p, '.', &bytes[0])) && (p = read_part(p, '.', &bytes[1])) &&
        (p = read_part(p, '.', &bytes[2])) && (p = read_part(p, after, &bytes[3]))) {
        memcpy(address, bytes, sizeof bytes);
        return p - 1;
    }
    return nullptr;
}

bool address_from_text(const char* text, uint32_t* address)
{
    // The common form, read here: every part followed by its '.', the last by the end of
    // the text. Any other text is left to inet_aton.
    if (read_common_address(text, '\0', address))
        return true;
    return address_by_inet_aton(text, address);
}
