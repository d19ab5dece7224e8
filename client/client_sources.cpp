#include "client/client_sources.h"

#include "core/quota_config.h"
#include "core/read_file.h"
#include "core/wan_count.h"
#include "platform/platform.h"
#include "platform/strutils.h"

#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr const char* WANIP_TIMESTAMP = "/var/run/korel/wanip/timestamp";
constexpr const char* PPTP_USERS = "/var/log/pptpd_user";
constexpr const char* L2TP_USERS = "/var/log/l2tps_user";
constexpr const char* VPN_LINKS = "/proc/korel/config/vpnlinks";
constexpr int LINE_SIZE = 1024;

// The LAN static routes (network and netmask in network byte order).
struct static_routes {
    std::vector<uint32_t> network;
    std::vector<uint32_t> netmask;
    time_t mtime = -1;
} routes;

// The router's WAN addresses as text.
struct wan_addresses {
    iplist* set = nullptr;
    // The length of each text of the set, so that each client line is compared only with
    // the addresses of its own length (a tick compares every client line).
    std::vector<size_t> lengths;
    // Which lengths (bit 63 for 63 and more) and first characters the texts of the set
    // have: a client line whose address matches none of them is passed over at once,
    // which is nearly every line (a LAN client's private address against the public WAN
    // addresses).
    uint64_t length_bits = 0;
    uint64_t first_char_bits[4] = {0, 0, 0, 0};
    time_t mtime = 0;
    int wan_count = 0;
} wan;

// "network/prefix:rest" of a route value: network is the text before the first '/',
// prefix the text after it up to a ':' (or the end). Returns false when the value has no
// prefix length.
bool parse_route(const char* value, std::string* network, std::string* prefix)
{
    const char* slash = strchr(value, '/');
    if (!slash || slash == value)
        return false;
    size_t length = strcspn(slash + 1, ":");
    if (length == 0)
        return false;
    *network = std::string(value, slash);
    *prefix = std::string(slash + 1, length);
    return true;
}

// The netmask of a prefix length, in host byte order: the negation of 1 shifted left by
// (32 - prefix) modulo 32, so a prefix of 0 gives all ones, deliberately. Taken in unsigned
// arithmetic, so that any prefix number gives a defined result.
uint32_t netmask_of(long long prefix)
{
    unsigned shift = static_cast<unsigned>(32u - static_cast<unsigned long long>(prefix)) & 31u;
    return 0u - (1u << shift);
}

uint32_t address_of(const char* text)
{
    struct in_addr a;
    return inet_aton(text, &a) ? a.s_addr : 0;
}

bool is_blank_line(const char* line)
{
    return line[0] == '\0' || line[0] == '\r' || line[0] == '\n';
}

// `"user" address ...`: the user name in double quotes, then the address. Returns false
// unless both are non-empty.
bool parse_user_line(const char* line, std::string* address)
{
    if (line[0] != '"')
        return false;
    const char* end = strchr(line + 1, '"');
    if (!end || end == line + 1)
        return false;
    const char* p = end + 1;
    while (isspace(static_cast<unsigned char>(*p)))
        ++p;
    size_t length = strspn(p, "0123456789.");
    if (length == 0)
        return false;
    *address = std::string(p, length);
    return true;
}

// "<n> net<...> <network> <netmask>": a VPN link with its network. Returns false for a
// line that is not one.
bool parse_vpn_line(const char* line, std::string* network, std::string* netmask)
{
    char* end = nullptr;
    errno = 0;
    long long n = strtoll(line, &end, 10);
    if (end == line || errno == ERANGE || n < 1 || n > 1024)
        return false;
    const char* p = end;
    while (isspace(static_cast<unsigned char>(*p)))
        ++p;
    if (strncmp(p, "net", 3) != 0)
        return false;
    p += 3;
    while (isspace(static_cast<unsigned char>(*p)))
        ++p;
    size_t length = strspn(p, "0123456789.");
    if (length == 0 || length > 63)
        return false;
    *network = std::string(p, length);
    p += length;
    while (isspace(static_cast<unsigned char>(*p)))
        ++p;
    length = strspn(p, "0123456789.");
    if (length == 0 || length > 63)
        return false;
    *netmask = std::string(p, length);
    return true;
}

void apply_user_file(client_table& table, const char* path, uint32_t type)
{
    file_ptr f = open_for_reading(path);
    if (!f)
        return;
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, f.get())) {
        std::string address;
        if (is_blank_line(line) || !parse_user_line(line, &address))
            continue;
        struct in_addr a;
        if (!inet_aton(address.c_str(), &a))
            continue;
        if (client_record* r = find_client(table, a.s_addr))
            r->type = type;
    }
}

void apply_vpn_links(client_table& table)
{
    file_ptr f = open_for_reading(VPN_LINKS);
    if (!f)
        return;
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, f.get())) {
        std::string network, netmask;
        if (is_blank_line(line) || !parse_vpn_line(line, &network, &netmask))
            continue;
        struct in_addr net, mask;
        if (!inet_aton(network.c_str(), &net) || !inet_aton(netmask.c_str(), &mask))
            continue;
        if (client_record* r = find_client(table, net.s_addr & mask.s_addr))
            r->type = TYPE_VPN;
    }
}

} // namespace

void reload_static_routes()
{
    time_t mtime = get_config_time(CONFIG_PATH);
    if (mtime == routes.mtime)
        return;
    routes.mtime = mtime;
    routes.network.clear();
    routes.netmask.clear();
    taglist* tags = load_taglist_ex(sys_path(CONFIG_PATH).c_str(), 1, 0);
    if (!tags)
        return;
    numlist* order = create_numlist(get_taglist_default_ex(tags, "", "LAN_STROUTE_ORDER"));
    if (order && order->count > 0) {
        // Positions whose value has no prefix length stay network 0, netmask 0.
        routes.network.assign(static_cast<size_t>(order->count), 0);
        routes.netmask.assign(static_cast<size_t>(order->count), 0);
        for (int i = 0; i < order->count; ++i) {
            char key[128];
            snprintf(key, sizeof key, "LAN_STROUTE%d", order->nums[i]);
            const char* value = get_taglist_default_ex(tags, "", key);
            std::string network, prefix;
            if (!value || !parse_route(value, &network, &prefix))
                continue;
            routes.netmask[i] = htonl(netmask_of(strtoll(prefix.c_str(), nullptr, 10)));
            routes.network[i] = address_of(network.c_str());
        }
    }
    free_numlist(order);
    free_taglist(tags);
}

void reload_wan_addresses()
{
    time_t mtime = get_config_time(WANIP_TIMESTAMP);
    if (mtime != wan.mtime)
        return;
    iplist* fresh = init_iplist();
    if (!fresh)
        return;
    wan.mtime = mtime;
    if (wan.wan_count == 0 && !read_wan_number(&wan.wan_count)) {
        free_iplist(fresh);
        return;
    }
    for (int n = 1; n <= wan.wan_count; ++n) {
        char path[128];
        snprintf(path, sizeof path, "/var/run/korel/wanip/wan%d", n);
        char* text = readfile(sys_path(path).c_str(), 10);
        if (!text)
            continue;
        iplist* found = create_iplist(text, 10);
        free(text);
        if (!found)
            continue;
        for (int k = 0; k < found->count; ++k)
            append_iplist(fresh, found->items[k]);
        free_iplist(found);
    }
    free_iplist(wan.set);
    wan.set = fresh;
    wan.lengths.clear();
    wan.length_bits = 0;
    for (uint64_t& bits : wan.first_char_bits)
        bits = 0;
    for (int k = 0; k < fresh->count; ++k) {
        const size_t length = strlen(fresh->items[k]);
        wan.lengths.push_back(length);
        wan.length_bits |= uint64_t{1} << (length < 63 ? length : 63);
        const unsigned char first = static_cast<unsigned char>(fresh->items[k][0]);
        wan.first_char_bits[first >> 6] |= uint64_t{1} << (first & 63u);
    }
}

bool is_wan_address(const char* text) { return is_wan_address(text, strlen(text)); }

namespace {

// The comparison with each text of the set, for a text that passed the set's lengths and
// first characters; kept out of is_wan_address so that the common answer needs no stack
// frame.
__attribute__((noinline)) bool wan_set_has(const char* text, size_t length)
{
    for (int k = 0; k < wan.set->count; ++k)
        if (wan.lengths[static_cast<size_t>(k)] == length && wan.set->items[k][0] == text[0] &&
            memcmp(wan.set->items[k], text, length) == 0)
            return true;
    return false;
}

} // namespace

bool is_wan_address(const char* text, size_t length)
{
    if (!wan.set)
        return false;
    const unsigned char first = static_cast<unsigned char>(text[0]);
    if (!((wan.length_bits >> (length < 63 ? length : 63)) & 1u) ||
        !((wan.first_char_bits[first >> 6] >> (first & 63u)) & 1u))
        return false;
    return wan_set_has(text, length);
}

void classify_clients(client_table& table)
{
    // Nothing to classify: the lists would only be read for nothing.
    if (table.records == 0)
        return;
    // Every record of the table is in the store: walked in memory order, not chain order.
    for_each_entry(table.store, [](client_record& r) { r.type = TYPE_LAN; });
    for (size_t i = 0; i < routes.network.size(); ++i)
        if (client_record* r = find_client(table, routes.network[i] & routes.netmask[i]))
            r->type = TYPE_SROUTE;
    apply_user_file(table, PPTP_USERS, TYPE_PPTP);
    apply_user_file(table, L2TP_USERS, TYPE_L2TP);
    apply_vpn_links(table);
}

void free_client_sources()
{
    routes = static_routes{};
    free_iplist(wan.set);
    wan = wan_addresses{};
}
