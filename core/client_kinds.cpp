#include "core/client_kinds.h"

const char* const client_usage_type_name[CLIENT_TYPES] = {"Total", "lan", "sroute", "pptp", "vpn", "l2tp"};
