// One line of the kernel's ARP table ("/proc/net/arp"), read field by field.
#pragma once

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
