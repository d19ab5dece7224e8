#include "client/usage_line.h"

#include "core/address_text.h"
#include "core/digit_values.h"
#include "core/number_text.h"

#include <cstring>

namespace {

// A signed decimal value as strtoll reads it, refusing a negative one: a counter below 0
// would be taken as a huge unsigned count. readable is how many bytes from text on may be
// read (0 when only the NUL-terminated text is known: it is then read a byte at a time).
// Always inlined, as the reader under it: the kernel file's reader then reads its values
// eight digits at a time without a call or a test of the count per value.
__attribute__((always_inline)) inline bool parse_value(const char* text, size_t readable, uint64_t* value,
                                                       const char** end)
{
    bool out_of_range = false;
    const int64_t v = read_decimal_as_strtoll(text, readable, end, &out_of_range);
    if (out_of_range || v < 0)
        return false;
    *value = static_cast<uint64_t>(v);
    return true;
}

} // namespace

bool parse_client_usage_line(const char* line, usage_line* out)
{
    // Nearly every line starts with an address of the common form and its ':'; that address
    // contains no ':', so the ':' after it is the line's first.
    const char* colon = read_common_address(line, ':', &out->address_value);
    out->address_read = colon != nullptr;
    if (!colon)
        colon = strchr(line, ':');
    out->address = line;
    out->address_length = colon ? static_cast<size_t>(colon - line) : strcspn(line, "\r\n");
    out->first = 0;
    out->second = 0;
    if (!colon)
        return true;
    const char* end = nullptr;
    if (!parse_value(colon + 1, 0, &out->first, &end))
        return false;
    if (*end == '/' && end[1] != '\0')
        return parse_value(end + 1, 0, &out->second, &end);
    if (*end != '\0')
        return parse_value(end, 0, &out->second, &end);
    return true;
}

size_t read_common_usage_line(const char* text, size_t available, size_t room, usage_line* out)
{
    uint32_t address = 0;
    const char* colon = read_common_address(text, ':', &address);
    if (!colon || decimal_digit(colon[1]) > 9)
        return 0;
    // The values as parse_client_usage_line reads them: from a digit, strtoll's way. The
    // available bytes and the NUL after them may be read.
    const char* const limit = text + available + 1;
    uint64_t first = 0, second = 0;
    const char* end = nullptr;
    if (!parse_value(colon + 1, static_cast<size_t>(limit - (colon + 1)), &first, &end) || *end != '/' ||
        decimal_digit(end[1]) > 9 || !parse_value(end + 1, static_cast<size_t>(limit - (end + 1)), &second, &end) ||
        *end != '\n')
        return 0;
    const size_t length = static_cast<size_t>(end - text) + 1;
    // The NUL after the available bytes ends every scan above before it, so the line is
    // within them; a line longer than a piece is not one piece.
    if (length > available || length > room)
        return 0;
    out->address = text;
    out->address_length = static_cast<size_t>(colon - text);
    out->address_read = true;
    out->address_value = address;
    out->first = first;
    out->second = second;
    return length;
}
