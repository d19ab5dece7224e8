// A client daily file ("/var/run/korel/client_usage_daily/2024-03-04.csv") summed up by the
// router-wide daily total, which back-fills the days before the daemon's own history.
#include "fuzz_root.h"

#include "history/ring_history.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    fuzz::put_file("/var/run/korel/client_usage_daily/2024-03-04.csv", data, size);
    uint64_t sum1 = 0, sum2 = 0;
    sum_client_usage_file("/var/run/korel/client_usage_daily/2024-03-04.csv", &sum1, &sum2);
    return 0;
}
