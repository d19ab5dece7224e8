#include "history/period_line.h"

#include "core/local_time.h"
#include "core/number_text.h"

#include <cstring>

namespace {

// One line "date,value,value": the live files show MiB (32-bit values, "%lu"), the backups
// bytes ("%llu"); both print the same digits for the same number, so one writer serves.
void write_dated(FILE* stream, const struct tm& tm, const char* date_format, uint64_t value1,
                 uint64_t value2)
{
    if (!dated_since_2009(tm))
        return;
    char date[16];
    if (strftime(date, sizeof date, date_format, &tm) == 0)
        return;
    fprintf(stream, "%s,%llu,%llu\n", date, static_cast<unsigned long long>(value1),
            static_cast<unsigned long long>(value2));
}

// One line "first day,last day,value,value".
void write_two_dates(FILE* stream, const struct tm& first, const struct tm& last, uint64_t value1,
                     uint64_t value2)
{
    if (!dated_since_2009(first) || !dated_since_2009(last))
        return;
    char from[16];
    char to[16];
    if (strftime(from, sizeof from, "%Y-%m-%d", &first) == 0 ||
        strftime(to, sizeof to, "%Y-%m-%d", &last) == 0)
        return;
    fprintf(stream, "%s,%s,%llu,%llu\n", from, to, static_cast<unsigned long long>(value1),
            static_cast<unsigned long long>(value2));
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
    write_dated(stream, tm, "%Y-%m-%d-%H", mib1, mib2);
}

void write_daily_line(FILE* stream, const struct tm& tm, uint32_t mib1, uint32_t mib2)
{
    write_dated(stream, tm, "%Y-%m-%d", mib1, mib2);
}

void write_period_line(FILE* stream, const struct tm& first, const struct tm& last, uint32_t mib1,
                       uint32_t mib2)
{
    write_two_dates(stream, first, last, mib1, mib2);
}

void write_hourly_backup_line(FILE* stream, const struct tm& tm, uint64_t bytes1, uint64_t bytes2)
{
    write_dated(stream, tm, "%Y-%m-%d-%H", bytes1, bytes2);
}

void write_daily_backup_line(FILE* stream, const struct tm& tm, uint64_t bytes1, uint64_t bytes2)
{
    write_dated(stream, tm, "%Y-%m-%d", bytes1, bytes2);
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
