// The line shapes of the history files, and the rule that no line is dated before 2009.
//
// Hourly and daily lines: "%s,%lu,%lu\n" (the period's start as "%Y-%m-%d-%H" or
// "%Y-%m-%d", then counter 1 and counter 2 in MiB). Monthly and billing-cycle lines:
// "%s,%s,%lu,%lu\n" (first and last day as "%Y-%m-%d", then the two MiB values).
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>

// 2009-01-01 00:00:00 UTC: lines dated before it come from an unset clock and are never
// written.
constexpr time_t EARLIEST_LINE_TIME = 1230768000;

// Bytes to whole MiB, cut to 32 bits as the files have always shown them, on 32- and
// 64-bit builds alike.
inline uint32_t to_mib(uint64_t bytes) { return static_cast<uint32_t>(bytes >> 20); }

// Whether a line dated tm may be written (mktime of a copy with tm_isdst = -1).
bool dated_since_2009(const struct tm& tm);

// One hourly line for the hour of tm; nothing when it is dated before 2009.
void write_hourly_line(FILE* stream, const struct tm& tm, uint32_t mib1, uint32_t mib2);
// One daily line for the day of tm; nothing when it is dated before 2009.
void write_daily_line(FILE* stream, const struct tm& tm, uint32_t mib1, uint32_t mib2);
// One monthly or billing-cycle line; nothing when either date lies before 2009.
void write_period_line(FILE* stream, const struct tm& first, const struct tm& last, uint32_t mib1,
                       uint32_t mib2);

// The backup files hold the same shapes with byte counts: "%s,%llu,%llu\n" for hours and
// days, "%s,%s,%llu,%llu\n" for months and billing cycles; the 2009 rule applies alike.
void write_hourly_backup_line(FILE* stream, const struct tm& tm, uint64_t bytes1, uint64_t bytes2);
void write_daily_backup_line(FILE* stream, const struct tm& tm, uint64_t bytes1, uint64_t bytes2);
void write_period_backup_line(FILE* stream, const struct tm& first, const struct tm& last,
                              uint64_t bytes1, uint64_t bytes2);

// Parses an hourly ("%Y-%m-%d-%H") or daily ("%Y-%m-%d") backup line: the date, one
// character, a decimal number, one character, a decimal number. Returns false for a line
// that does not have that shape.
bool read_hourly_backup_line(const char* line, struct tm* tm, uint64_t* value1, uint64_t* value2);
bool read_daily_backup_line(const char* line, struct tm* tm, uint64_t* value1, uint64_t* value2);

// Parses a monthly or billing-cycle line: a date, one character, a date, one character, a
// decimal number, one character, a decimal number. Returns false for a line that does not
// have that shape; such a line is skipped by every reader.
bool read_period_line(const char* line, struct tm* first, struct tm* last, uint64_t* value1,
                      uint64_t* value2);

// Copies at most max_lines lines of a monthly or billing history through the reader and
// the writer: lines that do not parse are skipped, lines dated before 2009 are dropped,
// and so are lines whose first date is not before keep_before.
void rewrite_period_lines(FILE* out, FILE* in, int max_lines, time_t keep_before);
// No limit for rewrite_period_lines.
constexpr int ALL_LINES = 0x7fffffff;
