#include "core/wan_count.h"

#include "core/read_file.h"

#include <cctype>
#include <climits>

namespace {

constexpr int MIN_WAN_COUNT = 2;

// Reads one integer the way "%d" does (blanks and line ends skipped, an optional sign,
// then digits), but holds a value beyond the range of an int at that range's end instead
// of leaving it undefined.
bool read_int(FILE* f, int* out)
{
    int c;
    do {
        c = fgetc(f);
    } while (c != EOF && isspace(c));
    bool negative = c == '-';
    if (c == '+' || c == '-')
        c = fgetc(f);
    bool digits = false;
    long long value = 0;
    while (c != EOF && isdigit(c)) {
        digits = true;
        if (value <= INT_MAX)
            value = value * 10 + (c - '0');
        c = fgetc(f);
    }
    if (!digits)
        return false;
    if (negative)
        value = -value;
    *out = value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
    return true;
}

} // namespace

bool read_wan_number(int* count)
{
    file_ptr f = open_for_reading("/etc/VELTO_wanno");
    if (!f)
        return false;
    *count = 0;
    read_int(f.get(), count);
    return true;
}

int read_wan_count()
{
    int count = 0;
    if (!read_wan_number(&count))
        return MIN_WAN_COUNT;
    return count < MIN_WAN_COUNT ? MIN_WAN_COUNT : count;
}
