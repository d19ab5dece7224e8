#include "core/number_text.h"

#include <cctype>
#include <cstring>
#include <cerrno>
#include <cstdlib>
#include <limits>

const char* parse_count(const char* text, uint64_t* value)
{
    if (!text)
        return nullptr;
    const char* p = text;
    while (isspace(static_cast<unsigned char>(*p)))
        ++p;
    if (!isdigit(static_cast<unsigned char>(*p)))
        return nullptr;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(p, &end, 10);
    if (errno == ERANGE)
        return nullptr;
    *value = v;
    return end;
}

bool parse_two_counts(const char* text, uint64_t* first, uint64_t* second)
{
    const char* p = parse_count(text, first);
    return p && *p == ',' && parse_count(p + 1, second);
}

namespace {

// "00" to "99": two digits per division.
constexpr char DIGIT_PAIRS[] = "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
                               "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
                               "8081828384858687888990919293949596979899";

char* write_pair(char* out, unsigned v)
{
    memcpy(out, DIGIT_PAIRS + 2 * v, 2);
    return out + 2;
}

// The 1 to 4 digits of v below 10,000.
char* write_up_to_4(char* out, unsigned v)
{
    if (v < 100) {
        if (v < 10) {
            *out = static_cast<char>('0' + v);
            return out + 1;
        }
        return write_pair(out, v);
    }
    const unsigned high = v / 100;
    if (high < 10)
        *out++ = static_cast<char>('0' + high);
    else
        out = write_pair(out, high);
    return write_pair(out, v % 100);
}

// Exactly 4 digits of v below 10,000, with its leading zeros.
char* write_4(char* out, unsigned v)
{
    out = write_pair(out, v / 100);
    return write_pair(out, v % 100);
}

// Exactly 8 digits of v below 100,000,000, with its leading zeros.
char* write_8(char* out, uint32_t v)
{
    out = write_4(out, v / 10000);
    return write_4(out, v % 10000);
}

// The digits of a value below 2^32, in groups of four: only divisions by constants, which
// compile to multiplications, and no loop.
char* write_u32(char* out, uint32_t v)
{
    if (v < 10000)
        return write_up_to_4(out, v);
    if (v < 100000000) {
        out = write_up_to_4(out, v / 10000);
        return write_4(out, v % 10000);
    }
    out = write_up_to_4(out, v / 100000000); // at most 42
    return write_8(out, v % 100000000);
}

} // namespace

char* write_unsigned(char* out, uint64_t value)
{
    // Below 2^32 with 32-bit arithmetic only, which a 32-bit router's CPU does in hardware
    // (a 64-bit division is a library call there); the daemon's counts in KiB stay below
    // 2^32 for the first 4 TiB. Larger values first write the digits above their low nine.
    if (value <= UINT32_MAX)
        return write_u32(out, static_cast<uint32_t>(value));
    constexpr uint64_t BILLION = 1000000000;
    out = write_unsigned(out, value / BILLION);
    const uint32_t low = static_cast<uint32_t>(value % BILLION);
    *out++ = static_cast<char>('0' + low / 100000000);
    return write_8(out, low % 100000000);
}

char* write_signed(char* out, int64_t value)
{
    if (value >= 0)
        return write_unsigned(out, static_cast<uint64_t>(value));
    *out++ = '-';
    // The magnitude in unsigned arithmetic, so that the most negative value has one too.
    return write_unsigned(out, 0 - static_cast<uint64_t>(value));
}

void append_unsigned(std::string& text, uint64_t value)
{
    char digits[UNSIGNED_DIGITS_MAX];
    text.append(digits, static_cast<size_t>(write_unsigned(digits, value) - digits));
}

void append_signed(std::string& text, int64_t value)
{
    char digits[SIGNED_DIGITS_MAX];
    text.append(digits, static_cast<size_t>(write_signed(digits, value) - digits));
}

int64_t read_decimal_as_strtoll(const char* text, const char** end, bool* out_of_range)
{
    *out_of_range = false;
    if (static_cast<unsigned>(*text - '0') > 9) {
        char* stop = nullptr;
        errno = 0;
        const long long v = strtoll(text, &stop, 10);
        *out_of_range = errno == ERANGE;
        *end = stop;
        return v;
    }
    constexpr uint64_t LIMIT = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    const char* p = text;
    uint64_t v = 0;
    // Up to 18 digits cannot pass the limit (19 digits can): they are read without a check.
    for (int digits = 0; digits < 18 && static_cast<unsigned>(*p - '0') <= 9; ++digits, ++p)
        v = v * 10 + static_cast<unsigned>(*p - '0');
    for (; static_cast<unsigned>(*p - '0') <= 9; ++p) {
        const unsigned digit = static_cast<unsigned>(*p - '0');
        if (v > (LIMIT - digit) / 10) {
            // Beyond the range: strtoll reads the remaining digits and gives the limit.
            while (static_cast<unsigned>(*p - '0') <= 9)
                ++p;
            *out_of_range = true;
            *end = p;
            return std::numeric_limits<int64_t>::max();
        }
        v = v * 10 + digit;
    }
    *end = p;
    return static_cast<int64_t>(v);
}
