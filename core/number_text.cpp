#include "core/number_text.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

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
