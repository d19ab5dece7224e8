#include "daemon/dual_sim.h"

#include "core/read_file.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct free_deleter {
    void operator()(char* p) const { free(p); }
};

// A WAN number token: digits (after optional blanks and sign, as strtoll reads them)
// followed by nothing but blanks or the line end.
bool parse_wan_number(const char* token, long long* out)
{
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(token, &end, 10);
    if (end == token || errno == ERANGE)
        return false;
    while (*end && isspace(static_cast<unsigned char>(*end)))
        ++end;
    if (*end)
        return false;
    *out = value;
    return true;
}

} // namespace

int read_dual_sim_links(wan_usage* records, int count)
{
    file_ptr f = open_for_reading("/etc/gobi_dual_sim_support");
    if (!f)
        return 0;
    char* raw = nullptr;
    size_t capacity = 0;
    ssize_t length = getline(&raw, &capacity, f.get());
    std::unique_ptr<char, free_deleter> line(raw);
    if (length <= 0)
        return 0;
    int links = 0;
    char* rest = line.get();
    for (char* token = strtok_r(line.get(), " ", &rest); token;
         token = strtok_r(nullptr, " ", &rest)) {
        long long n = 0;
        if (!parse_wan_number(token, &n) || n < 1 || n > count)
            continue;
        wan_usage& r = records[n - 1];
        if (r.sim_slot_index >= 0)
            continue;
        r.sim_slot_index = links++;
    }
    return links;
}

void assign_sim_pairs(const wan_usage* records, int count, wan_usage* sim_records, int sim_count)
{
    int next = 0;
    for (int i = 0; i < count && next + 1 < sim_count; ++i) {
        const wan_usage& wan = records[i];
        if (wan.sim_slot_index < 0)
            continue;
        for (int sim = 1; sim <= 2; ++sim) {
            wan_usage& r = sim_records[next++];
            r.sim_number = sim;
            r.wan_index = wan.wan_index;
            r.sim_slot_index = wan.sim_slot_index;
            r.periods_initialised = 0;
            r.timesync_privilege = 0;
        }
    }
}
