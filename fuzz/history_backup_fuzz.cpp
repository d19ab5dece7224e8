// The live monthly and billing histories ("/var/run/korel/wan1/usage_history.monthly" and
// ".billing") read back by backup_usage, which turns their MiB into the bytes of the backups.
#include "fuzz_root.h"

#include "core/local_time.h"
#include "core/wan_usage.h"
#include "history/backup.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = false;
    if (!ready) {
        fuzz::world();
        fuzz::make_dir("/tmp/ruvo_backup/wan1");
        ready = true;
    }
    fuzz::world();
    static wan_usage record;
    memset(&record, 0, sizeof record);
    record.sim_slot_index = -1;
    record.sample_time = fuzz::FIXED_CLOCK;
    record.sample_tm = local_tm(fuzz::FIXED_CLOCK);
    record.hour_bucket_time = start_of_hour(fuzz::FIXED_CLOCK);
    record.day_bucket_time = start_of_day(fuzz::FIXED_CLOCK);
    record.month_start = start_of_month(fuzz::FIXED_CLOCK);
    record.billing_start = start_of_day(fuzz::FIXED_CLOCK - 86400 * 20);
    record.month_bytes[0] = 5ull << 20;
    record.billing_bytes[1] = 7ull << 20;
    fuzz::put_file("/var/run/korel/wan1/usage_history.monthly", data, size);
    fuzz::put_file("/var/run/korel/wan1/usage_history.billing", data, size);
    backup_usage(&record, 1);
    return 0;
}
