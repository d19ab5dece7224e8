// Reads the daemon's files under a root directory into a Report.
#pragma once

#include "tools/report/report_model.h"

#include <string>

namespace report {

// Reads everything the report shows. root is prefixed to every router path ("" reads the
// paths as they stand); messages always name the router paths.
Report read_report(const std::string& root);

} // namespace report
