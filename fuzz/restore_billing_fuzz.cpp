// The billing backup ("/tmp/ruvo_backup/wan1/ruvo.billing.csv") restored into WAN record 1:
// the running billing cycle, and the live billing history rewritten from the further lines.
// As on the first tick after start-up, the configuration loader then works the end of the
// restored cycle out again (start day 31), and so does billing_end_for for the last day of
// the month (start day 0).
#include "fuzz_root.h"
#include "restore_target.h"

#include "core/quota_config.h"
#include "history/backup.h"

namespace {

void work_out_cycle_end(wan_usage& record)
{
    static bool ready = false;
    if (!ready) {
        fuzz::put_text("/usr/local/velto/conf/config", "WAN1_USAGE_START_DAY=31\n");
        ready = true;
    }
    time_t mtime = -1;
    load_wan_quota_config(&record, 1, &mtime);
    billing_end_for(record.billing_start, 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::restore_one("/tmp/ruvo_backup/wan1/ruvo.billing.csv", data, size, restore_billing,
                             work_out_cycle_end);
}
