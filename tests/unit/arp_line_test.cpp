// The ARP table's lines are read field by field exactly as the sscanf format they replace
// reads them, and the MAC texts as strtoll reads their six fields.
#include "client_mac/arp_line.h"
#include "tests/reference/mac_by_strtoll.h"
#include "client_mac/mac_usage.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

namespace {

constexpr const char* FORMAT = "%15[0-9.] %*[0-9A-Fa-fx] %19[0-9A-Fa-fx] %17[0-9A-Fa-f:] %*s %19s";

struct scanned {
    bool taken = false;
    std::string ip, flags, mac, device;
};

scanned by_sscanf(const char* line)
{
    char ip[16], flags[20], mac[18], device[20];
    scanned s;
    s.taken = sscanf(line, FORMAT, ip, flags, mac, device) == 4;
    if (s.taken) {
        s.ip = ip;
        s.flags = flags;
        s.mac = mac;
        s.device = device;
    }
    return s;
}

scanned by_scanner(const char* line)
{
    arp_line f;
    scanned s;
    s.taken = scan_arp_line(line, &f);
    if (s.taken) {
        s.ip = f.ip;
        s.flags = f.flags;
        s.mac = f.mac;
        s.device = f.device;
    }
    return s;
}

void expect_same(const std::string& line)
{
    const scanned a = by_sscanf(line.c_str());
    const scanned b = by_scanner(line.c_str());
    ASSERT_EQ(a.taken, b.taken) << '"' << line << '"';
    ASSERT_EQ(a.ip, b.ip) << line;
    ASSERT_EQ(a.flags, b.flags) << line;
    ASSERT_EQ(a.mac, b.mac) << line;
    ASSERT_EQ(a.device, b.device) << line;
}

// Calls check on every prefix of base, and on base with each byte value from first_byte to
// 255 put in every place of it and after its end; stops at the first fatal failure.
template <typename Check>
void for_every_byte_in_every_place(const std::string& base, int first_byte, Check check)
{
    for (size_t at = 0; at <= base.size(); ++at) {
        check(base.substr(0, at));
        for (int c = first_byte; c < 256; ++c) {
            std::string replaced = base;
            if (at < base.size())
                replaced[at] = static_cast<char>(c);
            else
                replaced += static_cast<char>(c);
            check(replaced);
            if (::testing::Test::HasFatalFailure())
                return;
        }
    }
}

} // namespace

TEST(ArpLine, ACompleteLinuxLine_GivesItsFourFields)
{
    arp_line f;
    ASSERT_TRUE(scan_arp_line("192.168.1.20     0x1         0x2         02:00:c0:a8:01:14     *        br0\n", &f));
    EXPECT_STREQ(f.ip, "192.168.1.20");
    EXPECT_STREQ(f.flags, "0x2");
    EXPECT_STREQ(f.mac, "02:00:c0:a8:01:14");
    EXPECT_STREQ(f.device, "br0");
}

TEST(ArpLine, TheHeaderAndShortLinesAreNotTaken)
{
    arp_line f;
    EXPECT_FALSE(scan_arp_line("IP address       HW type     Flags       HW address            Mask     Device\n", &f));
    EXPECT_FALSE(scan_arp_line("192.168.1.20     0x1         0x2         02:00:c0:a8:01:14     *\n", &f));
    EXPECT_FALSE(scan_arp_line("192.168.1.20", &f));
    EXPECT_FALSE(scan_arp_line("", &f));
}

TEST(ArpLine, OverlongFieldsAreCutAndTheirRestReadNext)
{
    // 16 digits: the address takes 15, the 16th is read as the hardware type.
    expect_same("1234567890123456 0x2 02:00:00:00:00:01 * br0\n");
    expect_same("1.2.3.4 0x1 0x12345678901234567890 02:00:00:00:00:01 * br0\n");
    expect_same("1.2.3.4 0x1 0x2 02:00:00:00:00:01:02:03 * br0\n");
    expect_same("1.2.3.4 0x1 0x2 02:00:00:00:00:01 * br0123456789012345678901234\n");
    expect_same("1.2.3.4\t0x1\v0x2\f02:00:00:00:00:01\r*\tbr0");
}

TEST(ArpLine, SameAsSscanfForGeneratedLines)
{
    std::mt19937 random(2026);
    const std::string real_lines[] = {
        "192.168.1.20     0x1         0x2         02:00:c0:a8:01:14     *        br0\n",
        "10.1.0.7         0x1         0x6         02:00:0a:01:00:07     *        br-lan\n",
        "172.16.0.1       0x1         0x0         00:00:00:00:00:00     *        eth0\n",
    };
    const char alphabet[] = "0123456789.:abcdefABCDEFxX \t\n\v\f\r*-brlan";
    for (int i = 0; i < 300000; ++i) {
        std::string line = real_lines[random() % 3];
        const int edits = static_cast<int>(random() % 6);
        for (int k = 0; k < edits && !line.empty(); ++k) {
            const size_t at = random() % line.size();
            switch (random() % 4) {
            case 0: line.erase(at, 1 + random() % 8); break;
            case 1: line.insert(at, 1, alphabet[random() % (sizeof alphabet - 1)]); break;
            case 2: line[at] = alphabet[random() % (sizeof alphabet - 1)]; break;
            default: line.insert(at, std::string(1 + random() % 24, alphabet[random() % (sizeof alphabet - 1)])); break;
            }
        }
        expect_same(line);
        if (HasFatalFailure())
            return;
    }
}

TEST(ArpLine, SameAsSscanfForLinesOfBlankRunsOfEveryLength)
{
    // The columns are padded with runs of ' ' that the scanner passes four at a time: runs
    // of every length from 0 to 40 in every gap, other white space within and after a run,
    // and lines that end inside a run.
    std::mt19937 random(77);
    const char* const fields[] = {"192.168.1.20", "0x1", "0x2", "02:00:c0:a8:01:14", "*", "br0"};
    const char others[] = "\t\n\v\f\r";
    for (int i = 0; i < 200000; ++i) {
        std::string line;
        const int cut = static_cast<int>(random() % 8); // 6 and 7: the whole line
        for (int k = 0; k < 6; ++k) {
            if (k > 0 || random() % 4 == 0) {
                line.append(random() % 41, ' ');
                if (random() % 5 == 0)
                    line.insert(line.size() - random() % 4 % (line.size() + 1),
                                1, others[random() % (sizeof others - 1)]);
                if (random() % 5 == 0)
                    line.append(random() % 9, ' ');
            }
            if (k == cut)
                break;
            line += fields[k];
        }
        if (random() % 2 == 0)
            line += '\n';
        expect_same(line);
        if (HasFatalFailure())
            return;
    }
    for (size_t blanks = 0; blanks <= 40; ++blanks) {
        expect_same("1.2.3.4" + std::string(blanks, ' ') + "0x1 0x2 02:00:00:00:00:01 * br0");
        expect_same("1.2.3.4 0x1 0x2 02:00:00:00:00:01 * br0" + std::string(blanks, ' '));
        expect_same("1.2.3.4 0x1 0x2 02:00:00:00:00:01 *" + std::string(blanks, ' '));
        expect_same("1.2.3.4 0x1 0x2 02:00:00:00:00:01 *" + std::string(blanks, ' ') + "\tbr0");
        expect_same(std::string(blanks, ' ') + "1.2.3.4 0x1 0x2 02:00:00:00:00:01 * br0");
    }
}

TEST(ArpLine, FlagsLowByteAsStrtoull)
{
    const char* const texts[] = {"0x2",  "0x6", "2", "0x", "x2", "0x102", "ff", "0x12345678902",
                                 "0x1234567890123456", "0x12345678901234567", "0xx2", "", "00000000000000000006"};
    for (const char* text : texts)
        EXPECT_EQ(arp_flags_low_byte(text), static_cast<unsigned>(strtoull(text, nullptr, 16) & 0xff)) << text;
}

TEST(ArpLine, MacTextAsItsSixStrtollFields)
{
    const char* const texts[] = {"02:00:c0:a8:01:14", "FF:ff:00:11:22:33", "2:0:c0:a8:1:14", "02:00:c0:a8:01:140",
                                 "02:00:c0:a8:01",    "",                  "0x:00:00:00:00:01", "02-00-c0-a8-01-14",
                                 "02:00:c0:a8:01:1g", "aa:bb:cc:dd:ee:ff:00"};
    for (const char* text : texts)
        EXPECT_EQ(parse_mac_text(text), mac_by_strtoll(text)) << text;
    std::mt19937 random(5);
    const char alphabet[] = "0123456789abcdefABCDEF::x- ";
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        const int length = 12 + static_cast<int>(random() % 8);
        for (int k = 0; k < length; ++k)
            text.push_back(k % 3 == 2 && random() % 4 != 0 ? ':' : alphabet[random() % (sizeof alphabet - 1)]);
        ASSERT_EQ(parse_mac_text(text.c_str()), mac_by_strtoll(text.c_str())) << text;
    }
}

TEST(ArpLine, SameAsSscanfForEveryFieldLengthUpToPastItsWidth)
{
    // Each field from empty to three characters past its width: the copies of every length
    // and the cut at the width.
    const std::string fields[] = {"192.168.1.20", "0x1", "0x2", "02:00:c0:a8:01:14", "*", "br0"};
    const char fill[] = {'1', 'a', 'B', 'c', '*', 'd'};
    for (int field = 0; field < 6; ++field)
        for (size_t length = 0; length <= 22; ++length) {
            std::string parts[6] = {fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]};
            parts[field] = std::string(length, fill[field]);
            for (size_t k = 0; k < length; k += 3)
                parts[field][k] = field == 0 ? '.' : field == 3 ? ':' : parts[field][k];
            std::string line;
            for (int k = 0; k < 6; ++k)
                line += (k ? "   " : "") + parts[k];
            expect_same(line);
            expect_same(line + "\n");
            if (HasFatalFailure())
                return;
        }
}

TEST(ArpLine, SameAsSscanfForEveryByteInEveryPlaceOfALine)
{
    const std::string base = "10.1.0.7         0x1         0x2         02:00:0a:01:00:07     *        br0\n";
    for_every_byte_in_every_place(base, 1, expect_same);
}

TEST(ArpLine, SameAsSscanfForRandomBytes)
{
    std::mt19937 random(808);
    const char alphabet[] = "0123456789.:abcdefABCDEFxX      \t\n\v\f\r*-brlan";
    for (int i = 0; i < 200000; ++i) {
        std::string line(random() % 90, ' ');
        const bool any_byte = random() % 4 == 0;
        for (char& c : line)
            c = any_byte ? static_cast<char>(1 + random() % 255) : alphabet[random() % (sizeof alphabet - 1)];
        expect_same(line);
        if (HasFatalFailure())
            return;
    }
}

TEST(ArpLine, FlagsLowByteAsStrtoullForGeneratedFlags)
{
    // Texts of the flags' characters (those the scanner gives) of every length 0 to 20.
    std::mt19937 random(606);
    const char alphabet[] = "0123456789abcdefABCDEFxX00";
    for (size_t length = 0; length <= 20; ++length)
        for (int i = 0; i < 10000; ++i) {
            std::string text(length, '0');
            for (char& c : text)
                c = alphabet[random() % (sizeof alphabet - 1)];
            if (length >= 2 && random() % 2 == 0) {
                text[0] = '0';
                text[1] = random() % 2 ? 'x' : 'X';
            }
            ASSERT_EQ(arp_flags_low_byte(text.c_str()), static_cast<unsigned>(strtoull(text.c_str(), nullptr, 16) & 0xff))
                << text;
        }
}

namespace {

// What the MAC accounting took from a line before read_arp_line: the sscanf format, then
// inet_aton for the address (0 when refused), strtoull for the flags, the six strtoll
// fields for the MAC and strncmp for the device's "br".
struct values_reference {
    bool taken = false;
    arp_line_values values{};
};

values_reference values_by_sscanf(const char* line)
{
    char ip[16], flags[20], mac[18], device[20];
    values_reference r;
    r.taken = sscanf(line, FORMAT, ip, flags, mac, device) == 4;
    if (r.taken) {
        struct in_addr a;
        r.values.address = inet_aton(ip, &a) ? a.s_addr : 0;
        r.values.flags_low_byte = static_cast<unsigned>(strtoull(flags, nullptr, 16) & 0xff);
        r.values.mac = mac_by_strtoll(mac);
        r.values.bridge = strncmp(device, "br", 2) == 0;
    }
    return r;
}

// read_arp_line on the bytes of line (a NUL among them ends the C string, not the length
// given, as in the reader's pieces) against the reference.
void expect_values_as_reference(const std::string& line)
{
    const values_reference expected = values_by_sscanf(line.c_str());
    arp_line_values got{};
    const bool taken = read_arp_line(line.c_str(), line.size(), &got);
    ASSERT_EQ(taken, expected.taken) << '"' << line << '"';
    if (!taken)
        return;
    ASSERT_EQ(got.address, expected.values.address) << line;
    ASSERT_EQ(got.flags_low_byte, expected.values.flags_low_byte) << line;
    ASSERT_EQ(got.mac, expected.values.mac) << line;
    ASSERT_EQ(got.bridge, expected.values.bridge) << line;
}

const char* const KERNEL_LINES[] = {
    "10.1.0.7         0x1         0x2         02:00:0a:01:00:07     *        br0\n",
    "192.168.100.200  0x1         0x6         AA:bb:CC:dd:EE:ff     *        br-lan\n",
    "255.255.255.255  0x1         0x0         00:00:00:00:00:00     *        eth0\n",
    "0.0.0.0          0xffffffff  0x1234abcd  01:23:45:67:89:ab     *        b\n",
    "1.2.3.4          0x1         0x2         02:00:0a:01:00:07     *        brabcdefghijklmnopqrstuvwxyz\n",
};

} // namespace

TEST(ArpLineValues, KernelLineGivesItsAddressFlagsMacAndDevice)
{
    arp_line_values v{};
    const std::string line = KERNEL_LINES[0];
    ASSERT_TRUE(read_arp_line(line.c_str(), line.size(), &v));
    struct in_addr a;
    ASSERT_TRUE(inet_aton("10.1.0.7", &a));
    EXPECT_EQ(v.address, a.s_addr);
    EXPECT_EQ(v.flags_low_byte, 2u);
    EXPECT_EQ(v.mac, 0x02000a010007ull);
    EXPECT_TRUE(v.bridge);
}

TEST(ArpLineValues, OtherLayoutsAreReadAsTheFormatReadsThem)
{
    // Tabs for blanks, an octal address, an uppercase "0X", fields out of their columns.
    for (const char* line : {"10.1.0.7\t0x1\t0x2\t02:00:0a:01:00:07\t*\tbr0\n",
                             "010.1.0.7        0x1         0x2         02:00:0a:01:00:07     *        br0\n",
                             "10.1.0.7         0X1         0X6         02:00:0a:01:00:07     *        br0\n",
                             "10.1.0.7 0x1 0x2 2:0:a:1:0:7 * br0\n",
                             "IP address       HW type     Flags       HW address            Mask     Device\n"}) {
        SCOPED_TRACE(line);
        expect_values_as_reference(line);
    }
    arp_line_values v{};
    const std::string tabs = "10.1.0.7\t0x1\t0x2\t02:00:0a:01:00:07\t*\tbr0\n";
    ASSERT_TRUE(read_arp_line(tabs.c_str(), tabs.size(), &v));
    EXPECT_EQ(v.mac, 0x02000a010007ull);
    EXPECT_TRUE(v.bridge);
}

TEST(ArpLineValues, SameAsTheReferenceForEveryByteInEveryPlaceOfKernelLines)
{
    for (const char* kernel_line : KERNEL_LINES) {
        for_every_byte_in_every_place(kernel_line, 0, expect_values_as_reference);
        if (HasFatalFailure())
            return;
    }
}

TEST(ArpLineValues, SameAsTheReferenceForGeneratedKernelLines)
{
    std::mt19937 random(1125);
    const char hex[] = "0123456789abcdefABCDEF";
    for (int i = 0; i < 100000; ++i) {
        char address[32];
        const unsigned parts[4] = {static_cast<unsigned>(random() % 300), static_cast<unsigned>(random() % 256),
                                   static_cast<unsigned>(random() % 256), static_cast<unsigned>(random() % 260)};
        snprintf(address, sizeof address, random() % 16 ? "%u.%u.%u.%u" : "%u.%u.%u.0%u", parts[0], parts[1], parts[2],
                 parts[3]);
        std::string mac;
        for (int pair = 0; pair < 6; ++pair) {
            if (pair > 0)
                mac += ':';
            mac += hex[random() % (sizeof hex - 1)];
            mac += hex[random() % (sizeof hex - 1)];
        }
        char line[160];
        snprintf(line, sizeof line, "%-16s 0x%-10x0x%-10x%-17s     *        %s\n", address,
                 static_cast<unsigned>(random() >> (random() % 32)), static_cast<unsigned>(random() >> (random() % 32)),
                 mac.c_str(), random() % 2 ? "br0" : (random() % 2 ? "eth1" : "b"));
        std::string text = line;
        if (random() % 4 == 0)
            text[random() % text.size()] = static_cast<char>(random() % 256);
        expect_values_as_reference(text);
        if (HasFatalFailure())
            return;
    }
}
