// The wireless side's list of deleted ARP entries ("/var/run/korel/deleted_arp.wlan"),
// asked for on "/etc/event_pipe", taken under its ".ruvo" name, loaded and removed.
#include "fuzz_root.h"

#include "client_mac/mac_usage.h"
#include "core/client_kinds.h"

#include <arpa/inet.h>
#include <cstdlib>

namespace {

const char* const CLIENTS[] = {"192.168.1.10", "192.168.1.11", "192.168.1.70", "10.0.0.1"};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = false;
    if (!ready) {
        fuzz::world();
        fuzz::put_text("/proc/net/arp",
                       "IP address       HW type     Flags       HW address            Mask     Device\n"
                       "192.168.1.10     0x1         0x2         00:11:22:33:44:10     *        br0\n");
        ready = true;
    }
    fuzz::world();
    mac_usage_hour = fuzz::FIXED_CLOCK - fuzz::FIXED_CLOCK % 3600;
    // A plain file stands for the pipe: the request is written into it, emptied every run.
    fuzz::put_text("/etc/event_pipe", "");
    fuzz::put_file("/var/run/korel/deleted_arp.wlan", data, size);
    if (ruvo_client_mac_usage_prepare() != 0)
        abort(); // the list is there at once, and its taken copy is removed
    for (const char* text : CLIENTS) {
        struct in_addr a;
        inet_aton(text, &a);
        ruvo_client_mac_usage_add(a.s_addr, TYPE_PPTP, 4096, 1024, PERIOD_HOURLY, 1);
    }
    ruvo_client_mac_usage_finalize();
    free_mac_tables();
    return 0;
}
