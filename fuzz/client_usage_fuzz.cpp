// The kernel's client counters ("/proc/korel/config/client_usage"): each line held to the
// reference reader, the input read as the daemon reads it held to the general way, then the whole input read into the client usage tables that
// client_usage_init creates: a first reading of known clients, the fuzzed reading, and a
// reading an hour later that checks the periods the fuzzed header left. The router's LAN
// address, a WAN address, a PPTP user and an ARP table are in place, so that every
// classification and MAC resolution path is reachable.
#include "fuzz_root.h"

#include "client_fixture.h"

#include "client/client_sources.h"
#include "client/client_usage.h"
#include "client/usage_line.h"
#include "client_mac/mac_usage.h"
#include "tests/reference/lines_both_ways.h"
#include "tests/reference/usage_line_by_strchr.h"

#include <cstdlib>
#include <string>

namespace {

constexpr const char* CLIENT_USAGE = "/proc/korel/config/client_usage";

// Known clients as the kernel lists them, under the header with the reading's time.
constexpr const char* FIRST_READING = "timestamp:1709644170\n"
                                      "192.168.1.10:1024/2048\n"
                                      "192.168.1.11:4096/8192\n"
                                      "192.168.1.12:0/0\n";
constexpr const char* LATER_READING = "timestamp:1709647830\n"
                                      "192.168.1.10:9999/9999\n";

// The tables live as long as the process, as in the daemon: client_usage_init creates them
// on the first run. After every run they are brought back to the state it leaves them in,
// so that no run sees another's clients and every run frees what it allocated.
client_usage_tables* tables()
{
    static client_usage_tables* created = client_usage_init();
    if (!created)
        abort();
    return created;
}

void reset(client_usage_tables* t)
{
    for (int kind = PERIOD_HOURLY; kind <= PERIOD_MONTHLY; ++kind) {
        fuzz::clear_client_table(t->table[kind]);
        t->table[kind].kind = kind;
    }
    free_client_sources();
    free_mac_tables();
    fuzz::world(); // the fixed clock again, for the hour of the MAC table
    ruvo_client_mac_usage_init();
}

// Every line of the input (up to its '\n' or its first NUL, as the reader's pieces end) read
// by parse_client_usage_line as the reference reads it: any difference aborts.
void check_lines_against_reference(const uint8_t* data, size_t size)
{
    size_t at = 0;
    while (at < size) {
        size_t end = at;
        while (end < size && data[end] != '\n')
            ++end;
        const std::string line(reinterpret_cast<const char*>(data) + at, end - at);
        const char* text = line.c_str(); // a NUL inside ends the C string, as in the reader
        const usage_line_reference expected = usage_line_by_strchr(text);
        usage_line got{};
        const bool taken = parse_client_usage_line(text, &got);
        if (taken != expected.taken || std::string(got.address, got.address_length) != expected.address ||
            (taken && (got.first != expected.first || got.second != expected.second)) ||
            (got.address_read && (!expected.address_valid || got.address_value != expected.address_value)))
            abort();
        at = end + 1;
    }
}

// The input read as the daemon reads it (the lines of the common form where they lie) gives
// the lines the general way gives: any difference aborts.
void check_lines_read_both_ways(const uint8_t* data, size_t size)
{
    const std::string content(reinterpret_cast<const char*>(data), size);
    size_t in_place = 0;
    if (lines_both_ways::usage_lines_in_place(content, &in_place) != lines_both_ways::usage_lines_general(content))
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool ready = false;
    if (!ready) {
        fuzz::world();
        fuzz::put_text("/var/run/korel/lan", "LAN_IPADDR=192.168.1.1\n");
        fuzz::put_text("/etc/VELTO_wanno", "2\n");
        fuzz::put_text("/var/run/korel/wanip/wan1", "10.0.0.2\n");
        fuzz::put_text("/var/log/pptpd_user", "\"alice\" 192.168.1.11 ppp0\n");
        fuzz::put_text("/proc/net/arp",
                       "IP address       HW type     Flags       HW address            Mask     Device\n"
                       "192.168.1.10     0x1         0x2         00:11:22:33:44:10     *        br0\n"
                       "192.168.1.12     0x1         0x2         00:11:22:33:44:12     *        br0\n");
        ready = true;
    }
    check_lines_against_reference(data, size);
    check_lines_read_both_ways(data, size);
    fuzz::fuzz_platform& root = fuzz::world();
    client_usage_tables* t = tables();
    fuzz::put_text(CLIENT_USAGE, FIRST_READING);
    read_client_usage(t);
    root.clock += 30;
    fuzz::put_file(CLIENT_USAGE, data, size);
    read_client_usage(t);
    root.clock += 3600;
    fuzz::put_text(CLIENT_USAGE, LATER_READING);
    read_client_usage(t);
    reset(t);
    return 0;
}
