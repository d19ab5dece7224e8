// The lifetime count before this boot ("/var/run/korel/lifetime_usage.init"), read by the
// lifetime part of backup_usage and added to the counters of the latest sample.
#include "fuzz_root.h"

#include "core/link_usage.h"
#include "core/wan_usage.h"
#include "history/backup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = false;
    if (!ready) {
        fuzz::world();
        fuzz::make_dir("/tmp/ruvo_backup");
        ready = true;
    }
    fuzz::world();
    // Large raw sums, so that the stored totals plus the sums go past 2^63 too.
    link_usage_raw_sum[0] = 0x7ffffffffffff000ull;
    link_usage_raw_sum[1] = 12345;
    fuzz::put_file("/var/run/korel/lifetime_usage.init", data, size);
    wan_usage none[1] = {};
    backup_usage(none, 0); // no records: only the time stamp and the lifetime totals
    return 0;
}
