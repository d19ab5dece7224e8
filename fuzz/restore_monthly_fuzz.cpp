// The monthly backup ("/tmp/ruvo_backup/wan1/ruvo.monthly.csv") restored into WAN record 1:
// the running month, and the live monthly history rewritten from the further lines.
#include "fuzz_root.h"
#include "restore_target.h"

#include "history/backup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::restore_one("/tmp/ruvo_backup/wan1/ruvo.monthly.csv", data, size, restore_monthly);
}
