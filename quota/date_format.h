// Date texts of the alert e-mail. Each formats a time as local time (at most 60
// characters) into a static buffer of its own and returns it; the next call of the same
// formatter overwrites it. An unconvertible time gives an empty text.
#pragma once

#include <ctime>

// "%b %d, %Y": the footer's date.
const char* date_longform(time_t t);
// "%Y/%M/%d %T %z". "%M" is the minutes where a month would be expected; kept as it stands.
const char* datetime_numeric(time_t t);
// "%b %d %T".
const char* datetime_shortform(time_t t);
// "%a %b %d %T %Z %Y": the date line of the message.
const char* datetime_longform(time_t t);
