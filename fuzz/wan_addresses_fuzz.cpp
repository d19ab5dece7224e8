// The router's WAN address files ("/var/run/korel/wanip/wan%d") read with the stand-in
// readfile and create_iplist into the set of addresses that are never clients.
#include "fuzz_root.h"

#include "client/client_sources.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = false;
    if (!ready) {
        fuzz::world();
        fuzz::put_text("/etc/VELTO_wanno", "3\n");
        fuzz::put_text("/var/run/korel/wanip/wan2", "100.64.0.9\n");
        ready = true;
    }
    fuzz::world();
    fuzz::put_file("/var/run/korel/wanip/wan1", data, size);
    fuzz::put_file("/var/run/korel/wanip/wan3", data, size / 2);
    free_client_sources(); // forgets the remembered time and WAN count: every run rebuilds
    reload_wan_addresses();
    is_wan_address("10.0.0.2");
    is_wan_address("100.64.0.9");
    is_wan_address(fuzz::as_text(data, size).c_str());
    free_client_sources();
    return 0;
}
