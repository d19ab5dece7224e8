// The HTML report's pictures as inline SVG: the column chart of a link's last 24 hours and
// the allowance gauge. Free functions over plain figures in bytes; how an amount is written
// is passed in, so that the page's one formatter (units.h) writes every figure.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace report {

// Writes an amount of bytes as the page shows it ("17.4 MiB", or "17 MiB" for raw figures).
using AmountText = std::function<std::string(uint64_t bytes)>;

// Text escaped for HTML and SVG: & < > " '.
std::string escape_html(const std::string& text);

// value * 1000 / whole rounded half up: tenths of a percent (0 when whole is 0).
uint64_t permille_of(uint64_t value, uint64_t whole);

// The gridlines of a y-axis that starts at 0: at step, 2 * step, ... steps * step, the
// axis' top, which is the smallest such top at or above the largest figure.
struct Axis {
    uint64_t step = 0;
    uint64_t steps = 0;
    uint64_t top() const { return step * steps; }
};

// A round axis for figures up to largest bytes, at most five steps. Every step is a whole
// number of unit bytes (the files' unit: a smaller step would fall between possible
// figures) and, in that unit's place, 1, 2 or 5 times a power of ten of a binary unit (B,
// KiB, MiB, GiB, TiB). With one_unit every label is written in unit, so any such multiple
// of it will do ("1500 MiB"); otherwise labels are scaled and a step's multiples stay at or
// below 1000 of its unit, where the scaled label is exact ("500 KiB", "1000 KiB", not
// "1500 KiB", which would be written as an approximate "1.5 MiB"). With nothing to show
// (largest 0) the axis is one step of unit.
Axis round_axis(uint64_t largest, uint64_t unit, bool one_unit);

// One column of a column chart: a period and its two counters, stacked.
struct Column {
    std::string label;  // under the column: "14" for the hour 14:00
    std::string mark;   // a second line under the label, from this column on: "2024-03-20"
    std::string name;   // the period in full, for the column's tooltip: "2024-03-20 14:00"
    bool known = false; // figures of this period were recorded; else an empty column
    uint64_t first = 0; // bytes
    uint64_t second = 0;
};

// A column chart: columns oldest first, left to right, counter 1 (class c1) at the foot of
// each column and counter 2 (class c2) on top of it, against a y-axis of gridlines with
// their amounts. The svg has role="img", title as its <title> and aria-label, and a <desc>
// that lists every column's figures.
std::string column_chart_svg(const std::string& title, const std::vector<Column>& columns, const Axis& axis,
                             const AmountText& amount);

// A line on the allowance gauge: one of the lines the allowance sets.
struct GaugeTick {
    std::string label;  // "75 %"
    uint64_t bytes = 0;
};

// The allowance gauge: a track for the allowance, the bytes used so far filled in, the bytes
// projected at the cycle's end as a lighter extension of the used part, and a tick mark for
// each line. When the projection goes beyond the allowance the gauge reaches to it, but at
// most to twice the allowance: a projection beyond that ends in an arrow at the gauge's end.
struct Gauge {
    uint64_t allowance = 0;  // bytes, not 0
    uint64_t used = 0;
    bool projected_known = false;
    uint64_t projected = 0;
    bool over = false;  // at or past the suspension line, or suspended: drawn in the alarm colour
    std::vector<GaugeTick> ticks;
    std::string title;  // the svg's <title> and aria-label: the figures in words
};
std::string gauge_svg(const Gauge& gauge);

} // namespace report
