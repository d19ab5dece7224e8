#include "core/link_usage.h"

#include "core/local_time.h"
#include "core/number_text.h"
#include "core/read_file.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

uint64_t link_usage_raw_sum[2];

namespace {

constexpr const char* LINK_USAGE_PATH = "/proc/korel/config/link_usage";

// A line of the file, read in pieces of at most 127 bytes: a longer line is read in several
// pieces and each piece is matched like a line.
constexpr int LINE_SIZE = 128;
// The slot file holds a short number; it is read into a buffer of this size.
constexpr int SLOT_SIZE = 26;

// The text after the first ':' of a line, or null when the line has none.
const char* value_of(const char* line)
{
    const char* colon = strchr(line, ':');
    return colon ? colon + 1 : nullptr;
}

// A decimal number as strtoll reads it (leading blanks, optional sign), when at least one
// digit was read and it fits 64 bits. 64 bits on every build, so that a time stamp after
// 2038 reads the same on a 32-bit router as on a 64-bit host.
bool parse_number(const char* text, long long* out)
{
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(text, &end, 10);
    if (end == text || errno == ERANGE)
        return false;
    *out = value;
    return true;
}

// The two counters of an "OVERALL" value: a number, exactly one separating character, and
// a second number. A line without both numbers is not a sample.
bool parse_overall(const char* text, uint64_t values[2])
{
    const char* end = parse_count(text, &values[0]);
    if (!end || *end == '\0' || *end == '\n')
        return false;
    return parse_count(end + 1, &values[1]) != nullptr;
}

void set_sample_time(wan_usage& record, time_t sample_time)
{
    record.prev_sample_time = record.sample_time;
    record.sample_time = sample_time;
    record.sample_tm = local_tm(sample_time);
}

// The SIM slot in use on the dual-SIM link at the given slot index: 1 or 2, or 0 when the
// slot file is missing or names no usable slot.
int active_sim_slot(int slot_index)
{
    char path[SLOT_SIZE];
    // A slot index too long for the buffer would name another link's file: no crediting.
    int length = snprintf(path, sizeof path, "/etc/gpio_map/cell%d_slot", slot_index);
    if (length < 0 || length >= static_cast<int>(sizeof path))
        return 0;
    file_ptr f = open_for_reading(path);
    if (!f)
        return 0;
    char text[SLOT_SIZE];
    if (!fgets(text, sizeof text, f.get()))
        return 0;
    long long slot = strtoll(text, nullptr, 10);
    // Values above 2 would address a neighbouring link's pair: they are ignored.
    return slot == 1 || slot == 2 ? static_cast<int>(slot) : 0;
}

void credit_sim(const wan_usage& link, wan_usage* sim_records, time_t sample_time)
{
    int s = link.sim_slot_index;
    int slot = active_sim_slot(s);
    if (slot == 0)
        return;
    wan_usage& active = sim_records[2 * s + slot - 1];
    wan_usage& other = sim_records[2 * s + 2 - slot];
    set_sample_time(active, sample_time);
    for (int c = 0; c < 2; ++c) {
        active.last_counter[c] += link.delta[c];
        active.delta[c] = link.delta[c];
    }
    set_sample_time(other, sample_time);
    other.delta[0] = 0;
    other.delta[1] = 0;
}

} // namespace

uint64_t counter_delta(uint64_t old_value, uint64_t new_value)
{
    if (new_value >= old_value)
        return new_value - old_value;
    return new_value + (UINT64_MAX - old_value);
}

void read_link_usage(wan_usage* records, int count, wan_usage* sim_records)
{
    file_ptr f = open_for_reading(LINK_USAGE_PATH);
    if (!f)
        return;
    link_usage_raw_sum[0] = 0;
    link_usage_raw_sum[1] = 0;
    // The current link: 0 until a "CON" line names one, -1 after a "CON" line that names
    // no link (0, negative or not a number), so that its counters are not given to another.
    long long index = 0;
    time_t sample_time = 0;
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, f.get())) {
        const char* value = value_of(line);
        if (!value)
            continue; // a line without ':' carries nothing
        if (strncmp(line, "timestamp", 9) == 0) {
            long long t = 0;
            if (parse_number(value, &t))
                sample_time = static_cast<time_t>(t);
            else
                sample_time = 0;
        } else if (strncmp(line, "CON", 3) == 0) {
            long long n = 0;
            index = parse_number(value, &n) && n >= 1 && n <= INT_MAX ? n - 1 : -1;
        } else if (strncmp(line, "OVERALL", 7) == 0) {
            uint64_t counters[2];
            if (index < 0 || index >= count || !parse_overall(value, counters))
                continue;
            wan_usage& r = records[index];
            set_sample_time(r, sample_time);
            for (int c = 0; c < 2; ++c) {
                r.delta[c] = counter_delta(r.last_counter[c], counters[c]);
                r.last_counter[c] = counters[c];
                link_usage_raw_sum[c] += counters[c];
            }
            if (sim_records && r.sim_slot_index >= 0)
                credit_sim(r, sim_records, sample_time);
        }
    }
}
