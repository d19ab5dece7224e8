// The MAC hourly file of the current hour
// ("/var/run/korel/client_usage_mac_hourly/2024-03-05-14.csv") loaded into the MAC usage
// table, then written back by the hourly writer.
#include "fuzz_root.h"

#include "client_mac/mac_usage.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    const time_t hour = fuzz::FIXED_CLOCK - fuzz::FIXED_CLOCK % 3600; // 14:00 in Berlin
    fuzz::put_file("/var/run/korel/client_usage_mac_hourly/2024-03-05-14.csv", data, size);
    if (load_mac_hour_file(hour) != 0)
        abort(); // the file is there: the result is the one of closing it
    if (mac_usage_count < 0 || mac_usage_count > MAC_USAGE_MAX)
        abort();
    mac_usage_hour = hour;
    ruvo_client_mac_usage_save();
    empty_mac_usage_table();
    return 0;
}
