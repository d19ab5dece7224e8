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

char* write_unsigned_wide(char* out, uint64_t value)
{
    // The digits above the low nine first (64-bit divisions, a library call on a 32-bit
    // router's CPU, but only for values of 4 TiB of KiB and more), then the low nine.
    constexpr uint64_t BILLION = 1000000000;
    out = write_unsigned(out, value / BILLION);
    const uint32_t low = static_cast<uint32_t>(value % BILLION);
    *out++ = static_cast<char>('0' + low / 100000000);
    return number_digits::write_8(out, low % 100000000);
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

namespace {

// What strtoll gives for a text that does not start with a digit (a sign, white space or
// no number at all); kept out of the common path so that it needs no stack frame.
__attribute__((noinline)) int64_t decimal_by_strtoll(const char* text, const char** end, bool* out_of_range)
{
    char* stop = nullptr;
    errno = 0;
    const long long v = strtoll(text, &stop, 10);
    *out_of_range = errno == ERANGE;
    *end = stop;
    return v;
}

// The digits from p on after the 18 read unchecked, with the range checked at each.
__attribute__((noinline)) int64_t decimal_beyond_18_digits(const char* p, uint64_t v, const char** end,
                                                           bool* out_of_range)
{
    constexpr uint64_t LIMIT = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
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

} // namespace

int64_t read_decimal_as_strtoll(const char* text, const char** end, bool* out_of_range)
{
    *out_of_range = false;
    if (static_cast<unsigned>(*text - '0') > 9)
        return decimal_by_strtoll(text, end, out_of_range);
    const char* p = text;
    uint64_t v = 0;
    // Up to 18 digits cannot pass the limit (19 digits can): they are read without a check,
    // two at a time. A digit is looked at only after the one before it was found to be a
    // digit, so nothing past the end of the text is read.
    for (int digits = 0; digits < 18; digits += 2) {
        const unsigned d0 = static_cast<unsigned>(p[0] - '0');
        if (d0 > 9) {
            *end = p;
            return static_cast<int64_t>(v);
        }
        const unsigned d1 = static_cast<unsigned>(p[1] - '0');
        if (d1 > 9) {
            *end = p + 1;
            return static_cast<int64_t>(v * 10 + d0);
        }
        v = v * 100 + d0 * 10 + d1;
        p += 2;
    }
    return decimal_beyond_18_digits(p, v, end, out_of_range);
}
