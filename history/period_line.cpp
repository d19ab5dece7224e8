#include "history/period_line.h"

#include "core/local_time.h"
#include "core/number_text.h"

#include <cstring>

namespace {

// Writes tm's date as strftime's "%Y-%m-%d" (and "-%H" when with_hour) writes it, for the
// fields of a real date: a year of 1,000 to 9,999, a month, a day of 1 to 31 and an hour.
// Returns the end, or null for other fields, which are left to strftime.
char* write_date(char* out, const struct tm& tm, bool with_hour)
{
    const long long year = static_cast<long long>(tm.tm_year) + 1900;
    if (year < 1000 || year > 9999 || tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 ||
        (with_hour && (tm.tm_hour < 0 || tm.tm_hour > 23)))
        return nullptr;
    out = write_unsigned(out, static_cast<uint64_t>(year));
    const int fields[3] = {tm.tm_mon + 1, tm.tm_mday, tm.tm_hour};
    for (int k = 0; k < (with_hour ? 3 : 2); ++k) {
        *out++ = '-';
        *out++ = static_cast<char>('0' + fields[k] / 10);
        *out++ = static_cast<char>('0' + fields[k] % 10);
    }
    return out;
}

// The date by hand, or by strftime with the format for any other fields; null when
// strftime writes nothing. out has room for 16 characters.
char* write_date_or_strftime(char* out, const struct tm& tm, bool with_hour)
{
    if (char* end = write_date(out, tm, with_hour))
        return end;
    const size_t n = strftime(out, 16, with_hour ? "%Y-%m-%d-%H" : "%Y-%m-%d", &tm);
    return n == 0 ? nullptr : out + n;
}

// Appends ",value,value\n" (the values in decimal, as "%llu") and writes the line.
void finish_line(FILE* stream, char* line, char* at, uint64_t value1, uint64_t value2)
{
    *at++ = ',';
    at = write_unsigned(at, value1);
    *at++ = ',';
    at = write_unsigned(at, value2);
    *at++ = '\n';
    fwrite(line, 1, static_cast<size_t>(at - line), stream);
}

// One line "date,value,value": the live files show MiB (32-bit values, "%lu"), the backups
// bytes ("%llu"); both print the same digits for the same number, so one writer serves.
// The line is formatted by hand into one buffer, as strftime and fprintf would write it.
void write_dated(FILE* stream, const struct tm& tm, bool with_hour, uint64_t value1, uint64_t value2)
{
    if (!dated_since_2009(tm))
        return;
    char line[16 + 2 * UNSIGNED_DIGITS_MAX + 3];
    char* at = write_date_or_strftime(line, tm, with_hour);
    if (!at)
        return;
    finish_line(stream, line, at, value1, value2);
}

// One line "first day,last day,value,value".
void write_two_dates(FILE* stream, const struct tm& first, const struct tm& last, uint64_t value1,
                     uint64_t value2)
{
    if (!dated_since_2009(first) || !dated_since_2009(last))
        return;
    char line[2 * 16 + 1 + 2 * UNSIGNED_DIGITS_MAX + 3];
    char* at = write_date_or_strftime(line, first, false);
    if (!at)
        return;
    *at++ = ',';
    at = write_date_or_strftime(at, last, false);
    if (!at)
        return;
    finish_line(stream, line, at, value1, value2);
}

// A date in the given format at text; returns the text after it, or null.
const char* read_date(const char* text, const char* format, struct tm* tm)
{
    memset(tm, 0, sizeof *tm);
    return text ? strptime(text, format, tm) : nullptr;
}

// Steps over the one character between two fields; null at the end of the text.
const char* skip_one(const char* text)
{
    return text && *text && *text != '\n' ? text + 1 : nullptr;
}

bool read_dated(const char* line, const char* date_format, struct tm* tm, uint64_t* value1,
                uint64_t* value2)
{
    const char* p = parse_count(skip_one(read_date(line, date_format, tm)), value1);
    p = parse_count(skip_one(p), value2);
    tm->tm_isdst = -1;
    return p != nullptr;
}

} // namespace

bool dated_since_2009(const struct tm& tm)
{
    return local_time_of(tm) >= EARLIEST_LINE_TIME;
}

void write_hourly_line(FILE* stream, const struct tm& tm, uint32_t mib1, uint32_t mib2)
{
    write_dated(stream, tm, true, mib1, mib2);
}

void write_daily_line(FILE* stream, const struct tm& tm, uint32_t mib1, uint32_t mib2)
{
    write_dated(stream, tm, false, mib1, mib2);
}

void write_period_line(FILE* stream, const struct tm& first, const struct tm& last, uint32_t mib1,
                       uint32_t mib2)
{
    write_two_dates(stream, first, last, mib1, mib2);
}

void write_hourly_backup_line(FILE* stream, const struct tm& tm, uint64_t bytes1, uint64_t bytes2)
{
    write_dated(stream, tm, true, bytes1, bytes2);
}

void write_daily_backup_line(FILE* stream, const struct tm& tm, uint64_t bytes1, uint64_t bytes2)
{
    write_dated(stream, tm, false, bytes1, bytes2);
}

void write_period_backup_line(FILE* stream, const struct tm& first, const struct tm& last,
                              uint64_t bytes1, uint64_t bytes2)
{
    write_two_dates(stream, first, last, bytes1, bytes2);
}

bool read_hourly_backup_line(const char* line, struct tm* tm, uint64_t* value1, uint64_t* value2)
{
    return read_dated(line, "%Y-%m-%d-%H", tm, value1, value2);
}

bool read_daily_backup_line(const char* line, struct tm* tm, uint64_t* value1, uint64_t* value2)
{
    return read_dated(line, "%Y-%m-%d", tm, value1, value2);
}

bool read_period_line(const char* line, struct tm* first, struct tm* last, uint64_t* value1,
                      uint64_t* value2)
{
    const char* p = read_date(skip_one(read_date(line, "%Y-%m-%d", first)), "%Y-%m-%d", last);
    p = parse_count(skip_one(p), value1);
    p = parse_count(skip_one(p), value2);
    first->tm_isdst = -1;
    last->tm_isdst = -1;
    return p != nullptr;
}

void rewrite_period_lines(FILE* out, FILE* in, int max_lines, time_t keep_before)
{
    char line[256]; // lines of up to 255 characters; a longer one is split
    for (int read = 0; read < max_lines && fgets(line, sizeof line, in); ++read) {
        struct tm first, last;
        uint64_t mib1, mib2;
        if (!read_period_line(line, &first, &last, &mib1, &mib2) || local_time_of(first) >= keep_before)
            continue;
        write_period_line(out, first, last, static_cast<uint32_t>(mib1), static_cast<uint32_t>(mib2));
    }
}
