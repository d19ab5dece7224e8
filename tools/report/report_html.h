// The report as one self-contained HTML page: inline SVG bar charts, no script and no
// external resource.
#pragma once

#include "tools/report/report_model.h"

#include <ostream>

namespace report {

void write_html_report(std::ostream& out, const Report& r);

} // namespace report
