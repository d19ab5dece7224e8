#include "core/text_format.h"

#include <cstdio>
#include <vector>

std::string format_text_v(const char* format, va_list args)
{
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length <= 0)
        return std::string();
    std::vector<char> buffer(static_cast<size_t>(length) + 1);
    vsnprintf(buffer.data(), buffer.size(), format, args);
    return std::string(buffer.data(), static_cast<size_t>(length));
}

void append_format(std::string& text, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    text += format_text_v(format, args);
    va_end(args);
}
