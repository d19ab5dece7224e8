// The client history file of the current hour
// ("/var/run/korel/client_usage_hourly/2024-03-05-14.csv"), loaded without the baseline flag
// into a table that already knows a few clients, as at a new period before the clock is set: the
// first line of a client only creates it.
#include "fuzz_root.h"
#include "client_fixture.h"

#include "client/client_history.h"
#include "core/local_time.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    client_table& table = fuzz::client_table_with_known_clients(PERIOD_HOURLY);
    fuzz::put_file("/var/run/korel/client_usage_hourly/2024-03-05-14.csv", data, size);
    load_client_period_file(local_tm(fuzz::FIXED_CLOCK), table, PERIOD_HOURLY, false);
    fuzz::clear_client_table(table);
    return 0;
}
