// The hourly backup ("/tmp/ruvo_backup/wan1/ruvo.hourly.csv") restored into WAN record 1:
// the running hour, the ring filled from its end, and the live hourly history rewritten.
#include "fuzz_root.h"
#include "restore_target.h"

#include "history/backup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::restore_one("/tmp/ruvo_backup/wan1/ruvo.hourly.csv", data, size, restore_hourly);
}
