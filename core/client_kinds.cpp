#include "core/client_kinds.h"

const char* const client_usage_type_name[CLIENT_TYPES] = {"Total", "lan", "sroute", "pptp", "vpn", "l2tp"};
const unsigned char client_usage_type_name_length[CLIENT_TYPES] = {5, 3, 6, 4, 3, 4};
const char client_usage_type_name_padded[CLIENT_TYPES][CLIENT_TYPE_NAME_PADDED] = {"Total", "lan", "sroute", "pptp",
                                                                                 "vpn",   "l2tp"};
