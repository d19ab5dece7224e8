#include "core/log.h"

#include "platform/platform.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <syslog.h>

void log_notice(const char* format, ...)
{
    if (!format)
        return;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<size_t>(length) + 1);
        vsnprintf(&text[0], text.size(), format, again);
        text.resize(static_cast<size_t>(length));
    }
    va_end(again);
    sys_log("ruvo", LOG_DAEMON, LOG_NOTICE, text.c_str());
}
