// The number helpers of the hot writers and readers against the C library: every 8 bytes
// of the input as an unsigned and as a signed 64-bit value, written by append_unsigned and
// append_signed and compared with "%llu" and "%lld"; the input as text read by parse_count
// and compared with strtoull where both accept it, read by read_decimal_as_strtoll (byte by
// byte, and eight digits at a time) and compared with strtoll, and read by
// address_from_text and compared with inet_aton. Any difference aborts.
#include "fuzz_root.h"

#include "core/address_text.h"
#include "core/number_text.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    for (size_t at = 0; at + 8 <= size; at += 8) {
        uint64_t u = 0;
        memcpy(&u, data + at, 8);
        char expected[32];
        std::string text = "x";
        append_unsigned(text, u);
        snprintf(expected, sizeof expected, "x%llu", static_cast<unsigned long long>(u));
        if (text != expected)
            abort();
        const int64_t s = static_cast<int64_t>(u);
        text = "y";
        append_signed(text, s);
        snprintf(expected, sizeof expected, "y%lld", static_cast<long long>(s));
        if (text != expected)
            abort();
    }
    const std::string text = fuzz::as_text(data, size);
    uint64_t value = 0;
    const char* end = parse_count(text.c_str(), &value);
    if (end) {
        // Accepted: strtoull reads the same number and stops at the same place.
        char* stop = nullptr;
        errno = 0;
        const unsigned long long v = strtoull(text.c_str(), &stop, 10);
        if (errno != 0 || v != value || stop != end)
            abort();
    }
    // read_decimal_as_strtoll gives strtoll's value, end and range error.
    const char* stop_here = nullptr;
    bool out_of_range = false;
    const int64_t decimal = read_decimal_as_strtoll(text.c_str(), &stop_here, &out_of_range);
    char* stop = nullptr;
    errno = 0;
    const long long expected_decimal = strtoll(text.c_str(), &stop, 10);
    const bool range_error = errno == ERANGE;
    if (decimal != expected_decimal || stop_here != stop || out_of_range != range_error)
        abort();
    // So does its reading eight digits at a time, with the text and its NUL readable.
    stop_here = nullptr;
    out_of_range = false;
    if (read_decimal_as_strtoll(text.c_str(), text.size() + 1, &stop_here, &out_of_range) != expected_decimal ||
        stop_here != stop || out_of_range != range_error)
        abort();
    // address_from_text accepts what inet_aton accepts, with the same address.
    uint32_t address = 0;
    struct in_addr a;
    const bool accepted = inet_aton(text.c_str(), &a) != 0;
    if (address_from_text(text.c_str(), &address) != accepted || (accepted && address != a.s_addr))
        abort();
    return 0;
}
