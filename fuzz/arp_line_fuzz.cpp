// The ARP table's field scanner against the sscanf format it replaces, the MAC text reader
// against the six strtoll fields and the address reader against inet_aton: the input as one
// line, and the address field the scanner gives; read_arp_line, on the input's bytes,
// against the format and those references; and the input as a table, read as the daemon
// reads it (a line in the kernel's layout where it lies), against the general way; any
// difference aborts.
#include "fuzz_root.h"

#include "client_mac/arp_line.h"
#include "client_mac/mac_usage.h"
#include "core/address_text.h"
#include "tests/reference/lines_both_ways.h"
#include "tests/reference/mac_by_strtoll.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// address_from_text gives what inet_aton gives, and leaves the address alone when refused.
bool same_address(const char* text)
{
    struct in_addr a;
    const bool accepted = inet_aton(text, &a) != 0;
    uint32_t address = 0x5a5a5a5a;
    if (address_from_text(text, &address) != accepted)
        return false;
    return accepted ? address == a.s_addr : address == 0x5a5a5a5au;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string line = fuzz::as_text(data, size);
    char ip[16], flags[20], mac[18], device[20];
    const bool taken = sscanf(line.c_str(), "%15[0-9.] %*[0-9A-Fa-fx] %19[0-9A-Fa-fx] %17[0-9A-Fa-f:] %*s %19s", ip,
                              flags, mac, device) == 4;
    arp_line f;
    if (scan_arp_line(line.c_str(), &f) != taken)
        abort();
    if (taken && (strcmp(ip, f.ip) != 0 || strcmp(flags, f.flags) != 0 || strcmp(mac, f.mac) != 0 ||
                  strcmp(device, f.device) != 0))
        abort();
    if (taken && arp_flags_low_byte(f.flags) != static_cast<unsigned>(strtoull(f.flags, nullptr, 16) & 0xff))
        abort();
    if (parse_mac_text(line.c_str()) != mac_by_strtoll(line.c_str()))
        abort();
    if (!same_address(line.c_str()) || (taken && !same_address(f.ip)))
        abort();
    // read_arp_line on the bytes with their length, as the reader gives its pieces (a NUL
    // among them ends the C string only).
    arp_line_values v{};
    if (read_arp_line(line.c_str(), line.size(), &v) != taken)
        abort();
    if (taken) {
        struct in_addr a;
        const uint32_t address = inet_aton(ip, &a) ? a.s_addr : 0;
        if (v.address != address || v.flags_low_byte != static_cast<unsigned>(strtoull(flags, nullptr, 16) & 0xff) ||
            v.mac != mac_by_strtoll(mac) || v.bridge != (strncmp(device, "br", 2) == 0))
            abort();
    }
    const std::string table(reinterpret_cast<const char*>(data), size);
    size_t in_place = 0;
    if (lines_both_ways::arp_lines_in_place(table, &in_place) != lines_both_ways::arp_lines_general(table))
        abort();
    return 0;
}
