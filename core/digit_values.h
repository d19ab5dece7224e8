// The value of each byte as a digit, one table look-up: the hand-written readers of
// addresses, counts and MAC texts tell a digit and its value apart this way.
#pragma once

#include <cstdint>

// The value given for a byte that is not a digit of the base: above 15, so that a single
// comparison (> 9, > 15) refuses it.
constexpr unsigned char NOT_A_DIGIT = 0xff;

struct digit_table {
    unsigned char of[256];
};

constexpr digit_table make_digit_table(bool hexadecimal)
{
    digit_table t{};
    for (int i = 0; i < 256; ++i)
        t.of[i] = static_cast<unsigned char>(i >= '0' && i <= '9'                  ? i - '0'
                                             : hexadecimal && i >= 'a' && i <= 'f' ? i - 'a' + 10
                                             : hexadecimal && i >= 'A' && i <= 'F' ? i - 'A' + 10
                                                                                   : NOT_A_DIGIT);
    return t;
}

inline constexpr digit_table DECIMAL_DIGITS = make_digit_table(false);
inline constexpr digit_table HEX_DIGITS = make_digit_table(true);

// 0 to 9 for a decimal digit, NOT_A_DIGIT for any other byte.
inline unsigned decimal_digit(char c) { return DECIMAL_DIGITS.of[static_cast<unsigned char>(c)]; }

// 0 to 15 for a hexadecimal digit of either case, NOT_A_DIGIT for any other byte.
inline unsigned hex_digit(char c) { return HEX_DIGITS.of[static_cast<unsigned char>(c)]; }
