// The VPN link file ("/proc/korel/config/vpnlinks") that marks the clients recorded under a
// VPN network during classification.
#include "fuzz_root.h"
#include "client_fixture.h"

#include "client/client_sources.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    client_table& table = fuzz::client_table_with_known_clients(PERIOD_HOURLY);
    fuzz::put_file("/proc/korel/config/vpnlinks", data, size);
    classify_clients(table);
    fuzz::clear_client_table(table);
    return 0;
}
