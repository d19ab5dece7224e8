// printf-style formatting into a std::string, for texts of any length.
#pragma once

#include <cstdarg>
#include <string>

// The text the format and its arguments give. The format is always a literal of this
// program; texts from files and configuration are only ever arguments.
std::string format_text_v(const char* format, va_list args);

// Appends the formatted text to text.
void append_format(std::string& text, const char* format, ...) __attribute__((format(printf, 2, 3)));
