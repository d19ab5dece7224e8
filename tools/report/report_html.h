// The report as one self-contained HTML page: an overview of every link and of the router
// with allowance gauges, column charts of the last 24 hours, and the tables as bar charts,
// all inline SVG, with no script and no external resource.
#pragma once

#include "tools/report/report_model.h"

#include <ostream>

namespace report {

// raw: figures in the files' own units (MiB, KiB) instead of scaled ones.
void write_html_report(std::ostream& out, const Report& r, bool raw);

} // namespace report
