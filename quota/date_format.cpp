#include "quota/date_format.h"

namespace {

constexpr size_t DATE_SIZE = 64;
constexpr size_t DATE_MAX = 60;

const char* format_into(char (&buffer)[DATE_SIZE], const char* format, time_t t)
{
    struct tm tm;
    buffer[0] = '\0';
    if (localtime_r(&t, &tm) && strftime(buffer, DATE_MAX + 1, format, &tm) == 0)
        buffer[0] = '\0';
    return buffer;
}

} // namespace

const char* date_longform(time_t t)
{
    static char buffer[DATE_SIZE];
    return format_into(buffer, "%b %d, %Y", t);
}

const char* datetime_numeric(time_t t)
{
    static char buffer[DATE_SIZE];
    return format_into(buffer, "%Y/%M/%d %T %z", t);
}

const char* datetime_shortform(time_t t)
{
    static char buffer[DATE_SIZE];
    return format_into(buffer, "%b %d %T", t);
}

const char* datetime_longform(time_t t)
{
    static char buffer[DATE_SIZE];
    return format_into(buffer, "%a %b %d %T %Z %Y", t);
}
