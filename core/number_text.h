// Reading and writing the decimal numbers of the daemon's input, history and CSV files.
// The writers are the daemon's hot path at thousands of clients: they format two digits at
// a time straight into the file's content, which gives exactly the digits of printf's
// "%llu" and "%lld" without parsing a format string for every number.
#pragma once

#include <cstdint>
#include <string>

// An unsigned decimal number at text, as strtoull reads it (leading blanks skipped), but
// refusing a sign, a missing number and a value beyond 64 bits: strtoull would turn "-5"
// into 2^64 - 5 and an overlong number into 2^64 - 1. Returns the text after the number,
// or null.
const char* parse_count(const char* text, uint64_t* value);

// Two counts separated by one ',' ("first,second"). Returns false unless both are there.
bool parse_two_counts(const char* text, uint64_t* first, uint64_t* second);

// Writes value's decimal digits at out, as "%llu" prints them, and returns the end; out
// must have room for UNSIGNED_DIGITS_MAX characters.
constexpr int UNSIGNED_DIGITS_MAX = 20;
char* write_unsigned(char* out, uint64_t value);
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
