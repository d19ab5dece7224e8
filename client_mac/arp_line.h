// One line of the kernel's ARP table ("/proc/net/arp"), read field by field.
#pragma once

#include <cstddef>
#include <cstdint>

// The fields the MAC accounting takes from a line: the address, the flags, the MAC text and
// the device, each NUL-terminated.
struct arp_line {
    char ip[16];
    char flags[20];
    char mac[18];
    char device[20];
};

// Reads a line exactly as
//   sscanf(line, "%15[0-9.] %*[0-9A-Fa-fx] %19[0-9A-Fa-fx] %17[0-9A-Fa-f:] %*s %19s",
//          ip, flags, mac, device) == 4
// does: the same lines are taken and the same texts given, including a field longer than
// its width, which is cut there and the rest left to the next field. sscanf was the
// largest single cost of a tick with thousands of clients. Returns false for a line that
// sscanf would not read whole.
bool scan_arp_line(const char* line, arp_line* fields);

// The low byte of the flags text read as a hexadecimal number (an optional "0x" or "0X"
// before the digits), as strtoull(text, nullptr, 16) & 0xff gives it: 0 without digits,
// 0xff for a number beyond 64 bits. The same on every CPU, whatever the width of long.
unsigned arp_flags_low_byte(const char* text);

// What the MAC accounting takes from a line, as scan_arp_line and the conversions after it
// give it: the address as address_from_text reads the address text (0 where it refuses the
// text), the low byte of the flags (arp_flags_low_byte), the MAC as parse_mac_text reads the
// MAC text, and whether the device's name starts with "br".
struct arp_line_values {
    uint32_t address;
    unsigned flags_low_byte;
    uint64_t mac;
    bool bridge;
};

// Reads a line of length bytes, NUL-terminated at length, into those values; false where
// scan_arp_line is false. A line as the kernel lays it out, "%-16s 0x%-10x0x%-10x%-17s
// *        %s\n" with an address of the common form and a MAC of six pairs, is read at its
// fixed columns in one pass; any other line goes through scan_arp_line and the
// conversions.
bool read_arp_line(const char* line, size_t length, arp_line_values* out);

// A line in the kernel's layout, as read_arp_line reads it at its columns, at the start of
// text, whose '\n' comes within the first min(available, room) bytes (a NUL follows the
// available ones). Returns the line's length with its '\n' and sets *out as read_arp_line
// sets it for that line; returns 0 for any other text, which the caller then reads the
// general way. room is the most a piece of the caller's line reader holds (its size - 1).
// The columns before the device's hold no '\n' when they are read as the layout's, so the
// '\n' is only looked for in the device's name.
size_t read_kernel_arp_line(const char* text, size_t available, size_t room, arp_line_values* out);
