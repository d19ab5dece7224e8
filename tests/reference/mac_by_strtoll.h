// A MAC text read the way the daemon always read it before it had a reader of its own: six
// fields, each as strtoll reads it in base 16, each but the last followed by one separator
// byte of any kind; 0 when a field has no digits. The unit tests and the fuzz targets hold
// parse_mac_text and the ARP line scanner to it.
#pragma once

#include <cstdint>
#include <cstdlib>

inline uint64_t mac_by_strtoll(const char* text)
{
    uint64_t mac = 0;
    const char* p = text;
    for (int field = 0; field < 6; ++field) {
        char* end = nullptr;
        const long long value = strtoll(p, &end, 16);
        if (end == p)
            return 0;
        mac = (mac << 8) + static_cast<uint64_t>(value);
        p = end;
        if (field < 5 && *p != '\0')
            ++p;
    }
    return mac;
}
