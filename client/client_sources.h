// Where the LAN-side clients come from: static routes, the PPTP and L2TP user files and
// the VPN links give a client its source type; the router's own WAN addresses are not
// clients at all.
#pragma once

#include <cstddef>

#include "client/client_table.h"

#include <string>

// Reloads the LAN static routes when the configuration file's modification time changed.
void reload_static_routes();

// Rebuilds the set of the router's WAN addresses. It is rebuilt only while the time of
// "/var/run/korel/wanip/timestamp" EQUALS the remembered one (so at every reading while the
// file is missing); kept exactly so, as the router's other components expect.
void reload_wan_addresses();

// Whether text is one of the router's WAN addresses.
bool is_wan_address(const char* text);
// The same for a text of length characters (its NUL after them).
bool is_wan_address(const char* text, size_t length);

// Gives every client of the table its source type: "lan", then static routes, then the
// PPTP and L2TP user files, then the VPN links; a later source overrides an earlier one.
void classify_clients(client_table& table);

// Forgets the routes and the WAN address set (a clean shutdown of tools and tests).
void free_client_sources();
