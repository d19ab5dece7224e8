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

// Eight digits at a time: the bytes of a text read as one 64-bit number each, whatever the
// CPU's byte order, for the readers of the kernel's long files.
namespace eight_digits {

// The eight bytes at p as one number with p[0] as its lowest byte.
inline uint64_t load(const char* p)
{
    uint64_t bytes;
    memcpy(&bytes, p, sizeof bytes);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    bytes = __builtin_bswap64(bytes);
#endif
    return bytes;
}

// How many of the eight bytes, from the first (the lowest), are decimal digits: 0 to 8.
inline unsigned leading_digits(uint64_t bytes)
{
    // A digit's byte becomes its value (0 to 9) and any other byte something else. Adding
    // 0x76 to the low seven bits of a byte sets its top bit from 10 on (no carry leaves the
    // byte), and a byte with its top bit set is no digit either.
    const uint64_t values = bytes ^ 0x3030303030303030u;
    const uint64_t not_digits =
        (((values & 0x7f7f7f7f7f7f7f7fu) + 0x7676767676767676u) | values) & 0x8080808080808080u;
    return not_digits ? static_cast<unsigned>(__builtin_ctzll(not_digits)) / 8 : 8;
}

// The value of the first count (1 to 8) bytes, all digits: they are moved to the top, the
// bytes after them dropped and zeros put before them, and the eight digits are then put
// together in three steps of multiplications, pairs, then fours, then the eight.
inline uint32_t value(uint64_t bytes, unsigned count)
{
    uint64_t v = (bytes & 0x0f0f0f0f0f0f0f0fu) << (8 * (8 - count));
    v = (v * 10 + (v >> 8)) & 0x00ff00ff00ff00ffu;
    v = (v * 100 + (v >> 16)) & 0x0000ffff0000ffffu;
    return static_cast<uint32_t>((v * 10000 + (v >> 32)) & 0xffffffffu);
}

inline constexpr uint32_t POWERS_OF_TEN[8] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000};

} // namespace eight_digits

// The same, for a text of which the first `readable` bytes may be read: a number of up to
// 7 digits where 8 bytes may be read, or of up to 15 where 16 may be, is read eight digits
// at a time, without a byte looked at on its own; any other as above. Always inlined, so
// that a caller's known count of readable bytes (0 for a text known only to its NUL) picks
// the path at compile time: as one shared copy it cost a call and a test of the count for
// every value of the kernel's client counter file (2 % of a tick at 16,384 clients).
__attribute__((always_inline)) inline int64_t read_decimal_as_strtoll(const char* text, size_t readable,
                                                                  const char** end, bool* out_of_range)
{
    if (readable >= 8) {
        const uint64_t first = eight_digits::load(text);
        const unsigned count = eight_digits::leading_digits(first);
        if (count - 1 < 7) {
            *out_of_range = false;
            *end = text + count;
            return eight_digits::value(first, count);
        }
        if (count == 8 && readable >= 16) {
            const uint64_t second = eight_digits::load(text + 8);
            const unsigned more = eight_digits::leading_digits(second);
            if (more < 8) {
                uint64_t v = eight_digits::value(first, 8);
                if (more > 0)
                    v = v * eight_digits::POWERS_OF_TEN[more] + eight_digits::value(second, more);
                *out_of_range = false;
                *end = text + 8 + more;
                return static_cast<int64_t>(v);
            }
        }
    }
    return read_decimal_as_strtoll(text, end, out_of_range);
}
