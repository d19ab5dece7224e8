// The report as one JSON document, every amount in bytes (schema: README.md).
#pragma once

#include "tools/report/report_model.h"

#include <ostream>

namespace report {

void write_json_report(std::ostream& out, const Report& r);

} // namespace report
