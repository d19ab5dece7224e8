// The SIM slot file of a dual-SIM link ("/etc/gpio_map/cell%d_slot"), read by the link
// counter reader to credit the SIM card in use.
#include "fuzz_root.h"

#include "core/link_usage.h"
#include "core/wan_usage.h"

#include <cstring>

namespace {

wan_usage wan[2];
wan_usage sim[2];

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = false;
    if (!ready) {
        fuzz::world();
        fuzz::put_text("/proc/korel/config/link_usage",
                       "timestamp:1709647200\nCON:1\nOVERALL:1000 2000\nCON:2\nOVERALL:5 7\n");
        ready = true;
    }
    fuzz::world();
    memset(wan, 0, sizeof wan);
    memset(sim, 0, sizeof sim);
    wan[0].sim_slot_index = 0;
    wan[1].wan_index = 1;
    wan[1].sim_slot_index = -1;
    sim[0].sim_number = 1;
    sim[1].sim_number = 2;
    fuzz::put_file("/etc/gpio_map/cell0_slot", data, size);
    read_link_usage(wan, 2, sim);
    return 0;
}
