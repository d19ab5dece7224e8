// Reading the unsigned decimal counts of the daemon's input and history files.
#pragma once

#include <cstdint>

// An unsigned decimal number at text, as strtoull reads it (leading blanks skipped), but
// refusing a sign, a missing number and a value beyond 64 bits: strtoull would turn "-5"
// into 2^64 - 5 and an overlong number into 2^64 - 1. Returns the text after the number,
// or null.
const char* parse_count(const char* text, uint64_t* value);

// Two counts separated by one ',' ("first,second"). Returns false unless both are there.
bool parse_two_counts(const char* text, uint64_t* first, uint64_t* second);
