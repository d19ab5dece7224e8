#include "quota/balance_log.h"

#include "platform/platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <syslog.h>

namespace {

// The one result buffer of escape_percent.
std::string escaped_text;

bool is_replaced(char c)
{
    return c == '"' || c == '&' || c == '\'' || c == '<' || c == '>';
}

// Where "one or more characters other than '%', then '%'" matches at text: the count of
// characters up to and including that percent sign, or 0 when it does not match (no
// further percent sign, or text starts with one).
size_t span_to_percent(const char* text)
{
    size_t before = strcspn(text, "%");
    if (before == 0 || text[before] != '%')
        return 0;
    return before + 1;
}

} // namespace

const char* escape_percent(const char* text)
{
    if (text[0] != '%' && span_to_percent(text) == 0)
        return text;
    escaped_text.clear();
    escaped_text.reserve(6 * strlen(text) + 1);
    const char* cursor = text;
    for (;;) {
        if (is_replaced(*cursor)) {
            escaped_text += "%%";
            ++cursor;
            continue;
        }
        size_t span = span_to_percent(cursor);
        if (span == 0) {
            escaped_text += cursor;
            return escaped_text.c_str();
        }
        escaped_text.append(cursor, span - 1);
        escaped_text += "%%";
        cursor += span;
    }
}

std::string render_escaped(const char* escaped)
{
    std::string shown;
    for (const char* p = escaped; *p; ++p) {
        shown += *p;
        if (p[0] == '%' && p[1] == '%')
            ++p;
    }
    return shown;
}

void log_balance(const char* format, ...)
{
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    sys_log("balance", LOG_LOCAL0, LOG_NOTICE, render_escaped(escape_percent(text)).c_str());
}
