#include "tools/report/units.h"

namespace report {

namespace {

const char* const UNITS[] = {"B", "KiB", "MiB", "GiB", "TiB"};
constexpr int LARGEST_UNIT = 4;

// value / 2^(10 * unit), rounded half up, times scale (1 or 10). Exact in 64 bits: the
// quotient is below 2^54 / 2^10 for unit >= 1 and the remainder below 2^40.
uint64_t rounded(uint64_t value, int unit, uint64_t scale)
{
    const int shift = 10 * unit;
    const uint64_t quotient = value >> shift;
    const uint64_t remainder = value & ((uint64_t{1} << shift) - 1);
    return quotient * scale + ((remainder * scale + (uint64_t{1} << (shift - 1))) >> shift);
}

} // namespace

std::string scaled_bytes(uint64_t bytes)
{
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    int unit = 1;
    while (unit < LARGEST_UNIT && (bytes >> (10 * (unit + 1))) != 0)
        ++unit;
    for (;;) {
        const uint64_t tenths = rounded(bytes, unit, 10);
        if (tenths < 1000)
            return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " " + UNITS[unit];
        const uint64_t whole = rounded(bytes, unit, 1);
        if (whole < 1024 || unit == LARGEST_UNIT)
            return std::to_string(whole) + " " + UNITS[unit];
        ++unit;
    }
}

uint64_t mib_to_bytes(uint64_t mib) { return mib > (UINT64_MAX >> 20) ? UINT64_MAX : mib << 20; }

uint64_t kib_to_bytes(uint64_t kib) { return kib > (UINT64_MAX >> 10) ? UINT64_MAX : kib << 10; }

std::string show_mib(uint64_t mib, bool raw)
{
    return raw ? std::to_string(mib) + " MiB" : scaled_bytes(mib_to_bytes(mib));
}

std::string show_kib(uint64_t kib, bool raw)
{
    return raw ? std::to_string(kib) + " KiB" : scaled_bytes(kib_to_bytes(kib));
}

std::string show_link_bytes(uint64_t bytes, bool raw)
{
    return raw ? std::to_string(bytes >> 20) + " MiB" : scaled_bytes(bytes);
}

std::string percent_text(uint64_t tenths)
{
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " %";
}

} // namespace report
