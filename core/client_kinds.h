// The kinds that client usage is kept by: the period kinds of the client and MAC tables and
// files, and the source types of a client with the names the files show.
#pragma once

// Period kinds.
constexpr int PERIOD_HOURLY = 0;
constexpr int PERIOD_DAILY = 1;
constexpr int PERIOD_MONTHLY = 2;

// Source types: the index into client_usage_type_name and into a client record's counters.
// Slot 0 ("Total") holds the last raw kernel reading.
constexpr int CLIENT_TYPES = 6;
constexpr int TYPE_RAW = 0;
constexpr int TYPE_LAN = 1;
constexpr int TYPE_SROUTE = 2;
constexpr int TYPE_PPTP = 3;
constexpr int TYPE_VPN = 4;
constexpr int TYPE_L2TP = 5;
extern const char* const client_usage_type_name[CLIENT_TYPES];
// The length of each name, and the longest ("sroute"), for writers that build a line in a
// buffer of their own.
constexpr int CLIENT_TYPE_NAME_MAX = 6;
extern const unsigned char client_usage_type_name_length[CLIENT_TYPES];
// The names NUL-padded to a fixed size, for writers that copy a whole name at once.
constexpr int CLIENT_TYPE_NAME_PADDED = 8;
extern const char client_usage_type_name_padded[CLIENT_TYPES][CLIENT_TYPE_NAME_PADDED];
