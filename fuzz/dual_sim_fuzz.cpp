// The dual-SIM list ("/etc/gobi_dual_sim_support") read into eight WAN records, and the SIM
// record pairs handed out for it.
#include "fuzz_root.h"

#include "core/wan_usage.h"
#include "daemon/dual_sim.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int WANS = 8;
wan_usage wan[WANS];
wan_usage sim[2 * WANS];

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    memset(wan, 0, sizeof wan);
    memset(sim, 0, sizeof sim);
    for (int i = 0; i < WANS; ++i) {
        wan[i].wan_index = i;
        wan[i].sim_slot_index = -1;
    }
    fuzz::put_file("/etc/gobi_dual_sim_support", data, size);
    int links = read_dual_sim_links(wan, WANS);
    if (links < 0 || links > WANS)
        abort(); // every slot index belongs to exactly one WAN record
    for (int i = 0; i < WANS; ++i)
        if (wan[i].sim_slot_index >= links)
            abort();
    assign_sim_pairs(wan, WANS, sim, 2 * links);
    return 0;
}
