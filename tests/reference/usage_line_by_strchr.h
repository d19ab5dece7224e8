// A line of the kernel's client counters read the way the daemon read it before the address
// was taken in the same pass: the address text up to the first ':' (found by strchr), the
// values by strtoll, the address by inet_aton. The unit tests and the client_usage fuzz
// target hold parse_client_usage_line to it.
#pragma once

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

struct usage_line_reference {
    bool taken;         // the values were read (the line is not skipped for them)
    std::string address;
    uint64_t first;
    uint64_t second;
    bool address_valid; // inet_aton accepts the address text
    uint32_t address_value;
};

inline bool usage_value_by_strtoll(const char* text, uint64_t* value, const char** end)
{
    char* stop = nullptr;
    errno = 0;
    const long long v = strtoll(text, &stop, 10);
    *end = stop;
    if (errno == ERANGE || v < 0)
        return false;
    *value = static_cast<uint64_t>(v);
    return true;
}

inline usage_line_reference usage_line_by_strchr(const char* line)
{
    usage_line_reference r{};
    const char* colon = strchr(line, ':');
    r.address = std::string(line, colon ? static_cast<size_t>(colon - line) : strcspn(line, "\r\n"));
    struct in_addr a;
    r.address_valid = inet_aton(r.address.c_str(), &a) != 0;
    r.address_value = r.address_valid ? a.s_addr : 0;
    r.taken = true;
    if (!colon)
        return r;
    const char* end = nullptr;
    if (!usage_value_by_strtoll(colon + 1, &r.first, &end))
        r.taken = false;
    else if (*end == '/' && end[1] != '\0')
        r.taken = usage_value_by_strtoll(end + 1, &r.second, &end);
    else if (*end != '\0')
        r.taken = usage_value_by_strtoll(end, &r.second, &end);
    return r;
}
