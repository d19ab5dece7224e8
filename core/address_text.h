// Reading IPv4 addresses from the kernel's and the firmware's text files.
#pragma once

#include <cstdint>

// The address of text as inet_aton reads it, in network byte order: true and *address
// set when inet_aton accepts the text, false when it refuses it. The common form, four
// decimal numbers of at most 255 without leading zeros and nothing after them, is read
// here; every other form (octal, hexadecimal, fewer parts, a blank and more text after
// the address) is left to inet_aton itself.
bool address_from_text(const char* text, uint32_t* address);

// The common form above at the start of text, followed by the character after (which is
// not a digit or '.'): *address set and the place of that character given; null, and
// *address left alone, for any other text. address_from_text is this with after '\0',
// and the readers of lines take the address this way where a separator follows it.
const char* read_common_address(const char* text, char after, uint32_t* address);
