#include "tools/report/bars.h"

#include <algorithm>

namespace report {

uint64_t scale_to(uint64_t value, uint64_t largest, uint64_t width)
{
    if (largest == 0 || width == 0)
        return 0;
    // Halve both sides until value * 2 * width + largest fits in 64 bits; only counts
    // beyond 2^50 lose their lowest bits this way.
    while (largest > (UINT64_MAX - largest) / (2 * width)) {
        value >>= 1;
        largest >>= 1;
    }
    if (largest == 0)
        return 0;
    return (value * 2 * width + largest) / (2 * largest);
}

BarParts bar_parts(uint64_t first, uint64_t second, uint64_t largest_total, uint64_t width)
{
    uint64_t total = first > UINT64_MAX - second ? UINT64_MAX : first + second;
    BarParts parts;
    uint64_t length = scale_to(total, largest_total, width);
    if (length == 0 && total > 0 && width > 0)
        length = 1;
    parts.first = std::min(length, scale_to(first, largest_total, width));
    // A counter of 0 gets no character, also where a small total was given one.
    if (second == 0)
        parts.first = length;
    parts.second = length - parts.first;
    return parts;
}

} // namespace report
