#include "core/address_text.h"

#include <arpa/inet.h>
#include <cstring>

bool address_from_text(const char* text, uint32_t* address)
{
    unsigned char bytes[4];
    const char* p = text;
    for (int part = 0; part < 4; ++part) {
        if (static_cast<unsigned>(*p - '0') > 9)
            break;
        // A leading zero makes inet_aton read the part as octal (or hexadecimal after
        // "0x"): only a lone 0 is taken here.
        unsigned value = static_cast<unsigned>(*p++ - '0');
        int digits = 1;
        if (value != 0)
            for (; digits < 3 && static_cast<unsigned>(*p - '0') <= 9; ++digits)
                value = value * 10 + static_cast<unsigned>(*p++ - '0');
        if (value > 255 || static_cast<unsigned>(*p - '0') <= 9)
            break;
        bytes[part] = static_cast<unsigned char>(value);
        if (part < 3) {
            if (*p != '.')
                break;
            ++p;
        } else if (*p == '\0') {
            memcpy(address, bytes, sizeof bytes);
            return true;
        }
    }
    struct in_addr a;
    if (!inet_aton(text, &a))
        return false;
    *address = a.s_addr;
    return true;
}
