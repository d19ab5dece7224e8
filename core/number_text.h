// Reading and writing the decimal numbers of the daemon's input, history and CSV files.
// The writers are the daemon's hot path at thousands of clients: they format two digits at
// a time straight into the file's content, which gives exactly the digits of printf's
// "%llu" and "%lld" without parsing a format string for every number.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

// An unsigned decimal number at text, as strtoull reads it (leading blanks skipped), but
// refusing a sign, a missing number and a value beyond 64 bits: strtoull would turn "-5"
// into 2^64 - 5 and an overlong number into 2^64 - 1. Returns the text after the number,
// or null.
const char* parse_count(const char* text, uint64_t* value);

// Two counts separated by one ',' ("first,second"). Returns false unless both are there.
bool parse_two_counts(const char* text, uint64_t* first, uint64_t* second);

// The writers' digits, inline in the client and MAC file writers that call them for every
// line. Below 2^32 they use 32-bit arithmetic only, which a 32-bit router's CPU does in
// hardware; the daemon's counts in KiB stay below 2^32 for the first 4 TiB.
namespace number_digits {

// "00" to "99": two digits per division.
inline constexpr char PAIRS[] = "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
                                "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
                                "8081828384858687888990919293949596979899";

inline char* write_pair(char* out, unsigned v)
{
    memcpy(out, PAIRS + 2 * v, 2);
    return out + 2;
}

// The 1 to 4 digits of v below 10,000.
inline char* write_up_to_4(char* out, unsigned v)
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
inline char* write_4(char* out, unsigned v)
{
    out = write_pair(out, v / 100);
    return write_pair(out, v % 100);
}

// Exactly 8 digits of v below 100,000,000, with its leading zeros.
inline char* write_8(char* out, uint32_t v)
{
    out = write_4(out, v / 10000);
    return write_4(out, v % 10000);
}

// The digits of a value below 2^32, in groups of four: only divisions by constants, which
// compile to multiplications, and no loop.
inline char* write_u32(char* out, uint32_t v)
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

} // namespace number_digits

// The digits of a value of 2^32 or more (write_unsigned's other half).
char* write_unsigned_wide(char* out, uint64_t value);

// Writes value's decimal digits at out, as "%llu" prints them, and returns the end; out
// must have room for UNSIGNED_DIGITS_MAX characters.
constexpr int UNSIGNED_DIGITS_MAX = 20;
inline char* write_unsigned(char* out, uint64_t value)
{
    if (value <= UINT32_MAX)
        return number_digits::write_u32(out, static_cast<uint32_t>(value));
    return write_unsigned_wide(out, value);
}
// The same for "%lld", the sign included; room for SIGNED_DIGITS_MAX characters.
constexpr int SIGNED_DIGITS_MAX = 20;
char* write_signed(char* out, int64_t value);

// Appends value's decimal digits, as "%llu" prints them.
void append_unsigned(std::string& text, uint64_t value);
// Appends value's decimal digits with a '-' when it is negative, as "%lld" prints them.
void append_signed(std::string& text, int64_t value);

// A base-10 number read as strtoll(text, &end, 10) reads it: the same value (clamped at
// the 64-bit limits), the same end (text itself when there are no digits) and the same
// range error (*out_of_range). Plain digits, the common case, are read here; anything
// else (blanks, a sign) is left to strtoll.
int64_t read_decimal_as_strtoll(const char* text, const char** end, bool* out_of_range);
