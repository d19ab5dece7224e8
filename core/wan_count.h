// The number of WAN links of the router.
#pragma once

// Reads the WAN count from "/etc/VELTO_wanno": one integer. A missing file, no number, or a
// value below 2 gives 2, the smallest router this daemon serves.
int read_wan_count();
