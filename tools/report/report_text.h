// The report as plain text for a terminal.
#pragma once

#include "tools/report/report_model.h"

#include <ostream>

namespace report {

// Writes the report; bars are bar_width characters at most (0: no bars).
void write_text_report(std::ostream& out, const Report& r, int bar_width);

} // namespace report
