// The kernel's ARP table ("/proc/net/arp") loaded as the snapshot of a reading, then used to
// resolve the MACs of counted changes, kept as the previous snapshot for one more reading.
#include "fuzz_root.h"

#include "client_mac/mac_usage.h"
#include "core/client_kinds.h"

#include <arpa/inet.h>
#include <cstdlib>

namespace {

const char* const CLIENTS[] = {"192.168.1.10", "192.168.1.11", "192.168.1.20", "10.0.0.1", "0.0.0.0"};

void count_clients()
{
    for (const char* text : CLIENTS) {
        struct in_addr a;
        inet_aton(text, &a);
        resolve_mac(a.s_addr);
        ruvo_client_mac_usage_add(a.s_addr, TYPE_LAN, 2048, 1024, PERIOD_HOURLY, 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    mac_usage_hour = fuzz::FIXED_CLOCK - fuzz::FIXED_CLOCK % 3600;
    fuzz::put_file("/proc/net/arp", data, size);
    if (ruvo_client_mac_usage_prepare() != 0)
        abort(); // no wireless side asked: only the ARP table is read, and it is there
    count_clients();
    ruvo_client_mac_usage_finalize();
    // The next reading without the table resolves through the snapshot just taken.
    fuzz::remove_file("/proc/net/arp");
    ruvo_client_mac_usage_prepare();
    count_clients();
    ruvo_client_mac_usage_finalize();
    if (mac_usage_count > MAC_USAGE_MAX)
        abort();
    free_mac_tables();
    return 0;
}
