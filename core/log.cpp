#include "core/log.h"

#include "core/text_format.h"
#include "platform/platform.h"

#include <cstdarg>
#include <syslog.h>

void log_notice(const char* format, ...)
{
    if (!format)
        return;
    va_list args;
    va_start(args, format);
    std::string text = format_text_v(format, args);
    va_end(args);
    sys_log("ruvo", LOG_DAEMON, LOG_NOTICE, text.c_str());
}
