// The allowance lines of syslog: ident "balance", facility LOG_LOCAL0, priority LOG_NOTICE.
#pragma once

#include <string>

// Doubles the percent signs of text so that it could serve as a format string, in exactly
// the way readers of these lines have always seen it escaped:
//  - a text without a percent sign is returned as it is (the very same pointer);
//  - '"', '&', '\'', '<' and '>' become "%%" (the character itself is dropped), but only at
//    the start of the text or right after a percent sign;
//  - a percent sign that opens the text or follows another one ends the escaping, and the
//    rest is copied as it stands.
// The result lives in one buffer for the whole program, valid until the next call that
// needs it.
const char* escape_percent(const char* text);

// The text as a format string would print it without arguments: "%%" shows as "%". Any
// other percent sign is kept as it is; the text is never used as a format.
std::string render_escaped(const char* escaped);

// Formats the message into 256 bytes (a longer one is cut), escapes it and writes the
// rendered text as one syslog line, opening and closing the log around it. The format is
// always a literal of this program; names from the configuration are only arguments.
void log_balance(const char* format, ...) __attribute__((format(printf, 1, 2)));
