// One line of the kernel's client counters ("/proc/korel/config/client_usage"):
// "address:first/second", or "address:first second".
#pragma once

#include <cstddef>
#include <cstdint>

struct usage_line {
    const char* address;   // the text before the first ':', or the line up to its end of
                           // line when it has no ':' (not NUL-terminated)
    size_t address_length;
    bool address_read;     // the address was read on the way (its common form, then ':')
    uint32_t address_value; // that address in network byte order, when address_read
    uint64_t first;        // the two values in bytes; 0 and 0 for a line without ':'
    uint64_t second;
};

// Reads a NUL-terminated line. The values are read as strtoll reads them, the second after
// a '/' that has more after it or straight after the first; false for a value that is
// negative or beyond 64 bits, or a second that is missing where one is looked for. The
// address of the common form ("192.168.1.10:...", as address_text.h says) is read in the
// same pass; any other address text is left to the caller, as text.
bool parse_client_usage_line(const char* line, usage_line* out);

// A line of the common form at the start of text, "a.b.c.d:first/second\n": an address as
// read_common_address reads it, ':', a value that starts with a digit, '/', another such
// value and the '\n', which comes within the first min(available, room) bytes (a NUL
// follows the available ones). Returns the line's length with its '\n' and sets *out as
// parse_client_usage_line sets it for that line; returns 0 for any other text, which the
// caller then reads the general way. room is the most a piece of the caller's line reader
// holds (its size - 1): a longer line is read in pieces, so it is not taken here.
size_t read_common_usage_line(const char* text, size_t available, size_t room, usage_line* out);
