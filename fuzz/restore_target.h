// What the four restore targets share: a fresh WAN record 1, the backup file written from
// the input, and the restore, which also rewrites the record's live history.
#pragma once

#include "fuzz_root.h"

#include "core/wan_usage.h"

#include <cstring>

namespace fuzz {

// Restores WAN record 1 from the backup file holding the input; then, when given, runs
// after(record) on the restored record.
inline int restore_one(const char* backup, const uint8_t* data, size_t size, void (*restore)(wan_usage&),
                       void (*after)(wan_usage&) = nullptr)
{
    static bool ready = false;
    if (!ready) {
        world();
        make_dir("/tmp/ruvo_backup/wan1");
        make_dir("/var/run/korel/wan1");
        ready = true;
    }
    world();
    static wan_usage record;
    memset(&record, 0, sizeof record);
    record.sim_slot_index = -1;
    record.sample_time = FIXED_CLOCK;
    put_file(backup, data, size);
    restore(record);
    if (after)
        after(record);
    return 0;
}

} // namespace fuzz
