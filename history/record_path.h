// File names of one record: the plain name for a WAN record, the "sim%d_" name for the
// record of one SIM card.
#pragma once

#include "core/wan_usage.h"

#include <cstdio>

constexpr int RECORD_PATH_SIZE = 128;

// Formats the record's path: wan_format takes the WAN number, sim_format the WAN number
// and the SIM number. Both formats are literals of this program.
inline void record_path(char (&path)[RECORD_PATH_SIZE], const wan_usage& record,
                        const char* wan_format, const char* sim_format)
{
    if (record.sim_number == 0)
        snprintf(path, sizeof path, wan_format, record.wan_index + 1);
    else
        snprintf(path, sizeof path, sim_format, record.wan_index + 1, record.sim_number);
}
