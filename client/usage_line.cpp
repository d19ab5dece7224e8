#include "client/usage_line.h"

#include "core/address_text.h"
#include "core/number_text.h"

#include <cstring>

namespace {

// A signed decimal value as strtoll reads it, refusing a negative one: a counter below 0
// would be taken as a huge unsigned count.
bool parse_value(const char* text, uint64_t* value, const char** end)
{
    bool out_of_range = false;
    const int64_t v = read_decimal_as_strtoll(text, end, &out_of_range);
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
    if (!parse_value(colon + 1, &out->first, &end))
        return false;
    if (*end == '/' && end[1] != '\0')
        return parse_value(end + 1, &out->second, &end);
    if (*end != '\0')
        return parse_value(end, &out->second, &end);
    return true;
}
