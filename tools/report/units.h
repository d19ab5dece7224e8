// How the report writes amounts: scaled for people (B, KiB, MiB, GiB, TiB), or in the
// files' own units (MiB for links and the router, KiB for clients) when asked for raw
// figures. Every text and HTML figure goes through here.
#pragma once

#include <cstdint>
#include <string>

namespace report {

// bytes in the largest binary unit in which it is at least 1: "0 B", "1023 B", "1.0 KiB",
// "17.4 MiB", "123 GiB". Below 100 of its unit it has one decimal, from 100 on none; the
// figure is rounded half up, and a figure that rounds to 1024 of its unit is written in
// the next one ("1.0 GiB", not "1024 MiB"). TiB is the largest unit.
std::string scaled_bytes(uint64_t bytes);

// The files' units in bytes, saturating at UINT64_MAX (a client's KiB sum may be that
// large; a link's MiB never are).
uint64_t mib_to_bytes(uint64_t mib);
uint64_t kib_to_bytes(uint64_t kib);

// A figure of a link or router file (MiB) or of a client file (KiB), as the report shows
// it: "1832 MiB" raw, else scaled.
std::string show_mib(uint64_t mib, bool raw);
std::string show_kib(uint64_t kib, bool raw);
// A link's amount worked out in bytes (a projection): raw, in whole MiB rounded down, as
// the files cut theirs.
std::string show_link_bytes(uint64_t bytes, bool raw);

// "76.5 %" for 765 tenths of a percent.
std::string percent_text(uint64_t tenths);

} // namespace report
