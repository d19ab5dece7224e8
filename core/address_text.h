// Reading IPv4 addresses from the kernel's and the firmware's text files.
#pragma once

#include <cstdint>

// The address of text as inet_aton reads it, in network byte order: true and *address
// set when inet_aton accepts the text, false when it refuses it. The common form, four
// decimal numbers of at most 255 without leading zeros and nothing after them, is read
// here; every other form (octal, hexadecimal, fewer parts, a blank and more text after
// the address) is left to inet_aton itself.
bool address_from_text(const char* text, uint32_t* address);
