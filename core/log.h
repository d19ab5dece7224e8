// The daemon's own syslog lines: ident "ruvo", facility LOG_DAEMON, priority LOG_NOTICE.
#pragma once

// Formats the message and writes it as one syslog line, opening and closing the log around
// it. The format is always a literal of this program; texts from files and configuration
// are only ever passed as arguments. A null format writes nothing.
void log_notice(const char* format, ...) __attribute__((format(printf, 1, 2)));
