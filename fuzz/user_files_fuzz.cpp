// The PPTP and L2TP user files ("/var/log/pptpd_user", "/var/log/l2tps_user") that give
// known clients their source type during classification.
#include "fuzz_root.h"
#include "client_fixture.h"

#include "client/client_sources.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    client_table& table = fuzz::client_table_with_known_clients(PERIOD_HOURLY);
    fuzz::put_file("/var/log/pptpd_user", data, size);
    fuzz::put_file("/var/log/l2tps_user", data, size);
    classify_clients(table);
    fuzz::clear_client_table(table);
    return 0;
}
