// The LAN static routes ("LAN_STROUTE_ORDER" and "LAN_STROUTE%d" of the configuration file)
// reloaded through the key/value stand-in and the number list, then used to classify.
#include "fuzz_root.h"
#include "client_fixture.h"

#include "client/client_sources.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    client_table& table = fuzz::client_table_with_known_clients(PERIOD_DAILY);
    fuzz::put_file("/usr/local/velto/conf/config", data, size);
    free_client_sources(); // forgets the remembered file time, so that every run reloads
    reload_static_routes();
    classify_clients(table);
    free_client_sources();
    fuzz::clear_client_table(table);
    return 0;
}
