// The number of WAN links of the router.
#pragma once

// Reads the WAN count from "/etc/VELTO_wanno": one integer. A missing file, no number, or a
// value below 2 gives 2, the smallest router this daemon serves.
int read_wan_count();

// Reads the integer of "/etc/VELTO_wanno" as it stands (no minimum). Returns false when the
// file cannot be opened; a file without a number gives 0.
bool read_wan_number(int* count);
