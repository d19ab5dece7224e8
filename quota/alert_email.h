// The warning e-mail at 75 % and 95 % of an allowance: a syslog line, and the whole message
// handed to the firmware's mail sender, which takes the recipients and the server from its
// own settings.
#pragma once

#include "core/wan_usage.h"

#include <string>

// The brand's web address in the footer, made from the lower-case brand word.
std::string brand_web_address(const char* brand_word);

// Reports on records[index] (a WAN record) or, when index is -1, on sim_records[sim_index].
// Returns 0 when the record's alert_state asks for no e-mail (neither 75 % nor 95 %), 1
// when an e-mail was handed to the mailer, and 1 without doing anything when the indices
// are inconsistent or out of range.
int compose_usage_alert(wan_usage* records, int index, int count, wan_usage* sim_records,
                        int sim_index, int sim_count);

// One line per named record: the billing-cycle usage against the allowance, or the
// calendar-month usage of a record without a start day.
std::string build_usage_table(const wan_usage* records, int count);

// The brand line and the date.
std::string build_alert_footer();

// Writes the message to a new file from mkstemp and runs the mail sender on it in the
// background, the file removed afterwards. Returns -1 when no file could be made, 1 when it
// could not be opened as a stream, else the status system returned.
int send_alert_email(const std::string& message);
