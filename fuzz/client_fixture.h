// A client table for the targets that read the files which classify clients or load them:
// a few known clients whose addresses the seed files name, emptied after every run.
#pragma once

#include "client/client_table.h"

namespace fuzz {

// The process's table of the given period kind, empty.
client_table& empty_client_table(int kind);

// The same table holding the known clients (LAN hosts, a static-route network, a VPN
// network), all of type "lan".
client_table& client_table_with_known_clients(int kind);

// Frees every record of the table and zeroes it.
void clear_client_table(client_table& table);

} // namespace fuzz
