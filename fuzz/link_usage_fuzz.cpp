// The kernel's link counters ("/proc/korel/config/link_usage") read into four WAN records,
// two of them dual-SIM links whose SIM records are credited through their slot files.
#include "fuzz_root.h"

#include "core/link_usage.h"
#include "core/wan_usage.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int WANS = 4;

wan_usage wan[WANS];
wan_usage sim[4];

void reset_records()
{
    memset(wan, 0, sizeof wan);
    memset(sim, 0, sizeof sim);
    for (int i = 0; i < WANS; ++i) {
        wan[i].wan_index = i;
        wan[i].sim_slot_index = -1;
        // Earlier counters, so that counters going down (wraps) are read too.
        wan[i].last_counter[0] = 1000u * static_cast<unsigned>(i + 1);
        wan[i].last_counter[1] = 2000u * static_cast<unsigned>(i + 1);
    }
    // WAN 2 and WAN 4 are dual-SIM links with slot indices 0 and 1.
    wan[1].sim_slot_index = 0;
    wan[3].sim_slot_index = 1;
    for (int s = 0; s < 4; ++s) {
        sim[s].wan_index = s < 2 ? 1 : 3;
        sim[s].sim_slot_index = s / 2;
        sim[s].sim_number = s % 2 + 1;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = false;
    if (!ready) {
        fuzz::world();
        fuzz::put_text("/etc/gpio_map/cell0_slot", "2\n");
        fuzz::put_text("/etc/gpio_map/cell1_slot", "1\n");
        ready = true;
    }
    fuzz::world();
    reset_records();
    fuzz::put_file("/proc/korel/config/link_usage", data, size);
    read_link_usage(wan, WANS, sim);
    read_link_usage(wan, WANS, nullptr);
    return 0;
}
