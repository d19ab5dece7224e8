// The report as plain text for a terminal.
#pragma once

#include "tools/report/report_model.h"

#include <ostream>

namespace report {

struct TextOptions {
    int bar_width = 40;         // bars are this many characters at most (0: no bars)
    bool raw = false;           // figures in the files' own units (MiB, KiB), not scaled
    bool summary_only = false;  // the summary blocks and nothing else
};

void write_text_report(std::ostream& out, const Report& r, const TextOptions& options);

} // namespace report
