// Sizing of the report's bars.
#pragma once

#include <cstdint>

namespace report {

// value * width / largest, rounded half up, without overflow (value <= largest).
uint64_t scale_to(uint64_t value, uint64_t largest, uint64_t width);

// The two parts of a row's bar: the row's total scaled to width against the table's
// largest total (at least 1 for a non-zero total), of which the first counter's share,
// scaled the same way, comes first and the rest belongs to the second counter (all of it
// goes to the first counter when the second is 0).
struct BarParts {
    uint64_t first = 0;
    uint64_t second = 0;
};
BarParts bar_parts(uint64_t first, uint64_t second, uint64_t largest_total, uint64_t width);

} // namespace report
