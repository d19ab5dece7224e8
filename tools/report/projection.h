// The report's look ahead and back: where each link's billing cycle is heading, and the
// summary figures of each link and of the router. Both are worked out once, in the model,
// so that the text, HTML and JSON reports show the same numbers.
#pragma once

#include "tools/report/report_model.h"

namespace report {

// Fills link->allowance.projection from the link's running cycle, its start day, its
// allowance, its suspension marker and its running hour.
void project_allowance(Link* link);

// The summary of a link (tables: hourly, daily, monthly, billing) or of the router
// (hourly, daily, monthly).
Summary summarize(const std::vector<UsageTable>& tables);

// Where a line stands, in the report's words: "crossed", "expected on 2024-03-21" or "not
// within this cycle".
std::string crossing_words(const Crossing& c);

// floor(a * b / c) without overflow for b and c below 2^32, saturating at UINT64_MAX.
uint64_t mul_div(uint64_t a, uint64_t b, uint64_t c);

} // namespace report
