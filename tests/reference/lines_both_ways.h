// A file's client counter lines and ARP lines read two ways: the general way only (each
// piece from next_in_place, then parse_client_usage_line or read_arp_line), and as the
// daemon reads them (a line of the common form where it lies, with peek, read_common_usage_line
// or read_kernel_arp_line and take; any other piece the general way). Each gives the lines
// taken, described as text, for the unit tests and the fuzz targets to compare.
#pragma once

#include "client/usage_line.h"
#include "client_mac/arp_line.h"
#include "core/read_file.h"

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace lines_both_ways {

constexpr size_t USAGE_SPARE = 256; // the client counter reader's line
constexpr size_t ARP_SPARE = 1024;  // the ARP table reader's line

// A stream over the bytes of content (NUL bytes included).
struct memory_stream {
    explicit memory_stream(std::string content) : text(std::move(content))
    {
        in = fmemopen(text.empty() ? nullptr : &text[0], text.size(), "r");
    }
    ~memory_stream()
    {
        if (in)
            fclose(in);
    }
    memory_stream(const memory_stream&) = delete;
    memory_stream& operator=(const memory_stream&) = delete;
    std::string text;
    FILE* in = nullptr;
};

inline std::string describe(const usage_line& u)
{
    return std::string(u.address, u.address_length) + "|" + (u.address_read ? std::to_string(u.address_value) : "-") +
           "|" + std::to_string(u.first) + "|" + std::to_string(u.second);
}

inline std::string describe(const arp_line_values& v)
{
    return std::to_string(v.address) + "|" + std::to_string(v.flags_low_byte) + "|" + std::to_string(v.mac) + "|" +
           (v.bridge ? "br" : "-");
}

// The lines of content that read_general takes from the pieces of a reader with a line of
// spare_size bytes, read the general way only, each described as text.
template <typename Values, typename ReadGeneral>
std::vector<std::string> lines_general(const std::string& content, size_t spare_size, ReadGeneral read_general)
{
    memory_stream s(content);
    line_reader lines(s.in);
    std::vector<char> spare(spare_size);
    std::vector<std::string> taken;
    size_t length = 0;
    while (const char* piece = lines.next_in_place(spare.data(), spare.size(), &length)) {
        Values v{};
        if (read_general(piece, length, &v))
            taken.push_back(describe(v));
    }
    return taken;
}

// The same lines read as the daemon reads them: read_in_place where it can, read_general
// else; *in_place counts the lines read where they lie.
template <typename Values, typename ReadInPlace, typename ReadGeneral>
std::vector<std::string> lines_in_place(const std::string& content, size_t spare_size, ReadInPlace read_in_place,
                                        ReadGeneral read_general, size_t* in_place)
{
    memory_stream s(content);
    line_reader lines(s.in);
    std::vector<char> spare(spare_size);
    std::vector<std::string> taken;
    Values v{};
    const auto in_place_line = [&](const char* text, size_t available, size_t room) {
        return read_in_place(text, available, room, &v);
    };
    const char* piece = nullptr;
    size_t length = 0;
    while (lines.next_line(spare.data(), spare.size(), in_place_line, &piece, &length)) {
        if (piece) {
            v = Values{};
            if (!read_general(piece, length, &v))
                continue;
        } else {
            ++*in_place;
        }
        taken.push_back(describe(v));
    }
    return taken;
}

inline bool usage_line_general(const char* piece, size_t, usage_line* u) { return parse_client_usage_line(piece, u); }

// The client counter lines taken, read the general way only.
inline std::vector<std::string> usage_lines_general(const std::string& content)
{
    return lines_general<usage_line>(content, USAGE_SPARE, usage_line_general);
}

// The client counter lines taken, read as the daemon reads them.
inline std::vector<std::string> usage_lines_in_place(const std::string& content, size_t* in_place)
{
    return lines_in_place<usage_line>(content, USAGE_SPARE, read_common_usage_line, usage_line_general, in_place);
}

// The ARP lines taken, read the general way only.
inline std::vector<std::string> arp_lines_general(const std::string& content)
{
    return lines_general<arp_line_values>(content, ARP_SPARE, read_arp_line);
}

// The ARP lines taken, read as the daemon reads them.
inline std::vector<std::string> arp_lines_in_place(const std::string& content, size_t* in_place)
{
    return lines_in_place<arp_line_values>(content, ARP_SPARE, read_kernel_arp_line, read_arp_line, in_place);
}

} // namespace lines_both_ways
