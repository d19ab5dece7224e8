// The quota configuration ("/usr/local/velto/conf/config") through the key/value stand-in,
// loaded into four WAN records and into the two SIM records of a dual-SIM link, with a
// running billing cycle so that every start day is worked into a cycle end.
#include "fuzz_root.h"

#include "core/quota_config.h"
#include "core/wan_usage.h"

#include <cstring>

namespace {

constexpr int WANS = 4;
wan_usage wan[WANS];
wan_usage sim[2];

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    memset(wan, 0, sizeof wan);
    memset(sim, 0, sizeof sim);
    for (int i = 0; i < WANS; ++i) {
        wan[i].wan_index = i;
        wan[i].sim_slot_index = -1;
        wan[i].billing_start = fuzz::FIXED_CLOCK - 86400 * 10 * i; // 2024-03-05 and earlier
    }
    for (int s = 0; s < 2; ++s) {
        sim[s].wan_index = 1;
        sim[s].sim_slot_index = 0;
        sim[s].sim_number = s + 1;
        sim[s].billing_start = fuzz::FIXED_CLOCK;
    }
    fuzz::put_file("/usr/local/velto/conf/config", data, size);
    time_t wan_mtime = -1;
    time_t sim_mtime = -1;
    load_wan_quota_config(wan, WANS, &wan_mtime);
    load_wan_quota_config(sim, 2, &sim_mtime);
    return 0;
}
