// The hot readers read a line of the common form where it lies in the line reader's block
// and find its end on the way (peek and take), and every other piece the general way
// (next_in_place). Read so, a file gives exactly the lines that the general way alone gives:
// the same lines taken, in the same order, with the same values, wherever the blocks end.
#include "client/usage_line.h"
#include "client_mac/arp_line.h"
#include "core/read_file.h"
#include "tests/reference/lines_both_ways.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace lines_both_ways;

std::string number(std::mt19937& random, int digits_most)
{
    const int digits = 1 + static_cast<int>(random() % static_cast<unsigned>(digits_most));
    std::string n;
    for (int i = 0; i < digits; ++i)
        n += static_cast<char>('0' + random() % 10);
    return n;
}

std::string address(std::mt19937& random)
{
    return std::to_string(random() % 256) + "." + std::to_string(random() % 256) + "." + std::to_string(random() % 256) +
           "." + std::to_string(random() % 256);
}

// A client counter line: mostly of the common form, else one of the forms read the general
// way or refused; some damaged at a byte.
std::string usage_line_text(std::mt19937& random)
{
    const std::string a = address(random);
    std::string line;
    switch (random() % 16) {
    case 0: line = a + ":" + std::string(200 + random() % 60, '0') + number(random, 5) + "/7\n"; break; // near a piece's room
    case 1: line = a + ":" + number(random, 12) + " " + number(random, 12) + "\n"; break;
    case 2: line = a + ":" + number(random, 12) + "/\n"; break;
    case 3: line = a + ":" + number(random, 25) + "/" + number(random, 25) + "\n"; break; // beyond 64 bits
    case 4: line = a + ": " + number(random, 5) + "/-" + number(random, 5) + "\n"; break;
    case 5: line = "0" + a + ":" + number(random, 5) + "/" + number(random, 5) + "\r\n"; break;
    case 6: line = std::string(300 + random() % 900, 'x') + "\n"; break;
    case 7: line = a + ":" + number(random, 12) + "/" + number(random, 12); break; // no end of line yet
    default: line = a + ":" + number(random, 14) + "/" + number(random, 14) + "\n"; break;
    }
    if (random() % 12 == 0)
        line[random() % line.size()] = static_cast<char>(random() % 256); // a NUL or '\n' too
    return line;
}

// An ARP line in the kernel's layout, a device of any length, some damaged at a byte.
std::string arp_line_text(std::mt19937& random)
{
    static const char* const DEVICES[] = {"br0", "br-lan", "eth0", "b", "br", "wlan0"};
    char mac[18];
    snprintf(mac, sizeof mac, "%02X:%02X:%02X:%02X:%02X:%02X", static_cast<unsigned>(random() % 256),
             static_cast<unsigned>(random() % 256), static_cast<unsigned>(random() % 256),
             static_cast<unsigned>(random() % 256), static_cast<unsigned>(random() % 256),
             static_cast<unsigned>(random() % 256));
    std::string device = DEVICES[random() % 6];
    if (random() % 20 == 0)
        device += std::string(900 + random() % 200, 'z'); // the line longer than a piece
    char line[2048];
    snprintf(line, sizeof line, "%-16s 0x%-10x0x%-10x%-17s     *        %s\n", address(random).c_str(),
             static_cast<unsigned>(random() % 3), static_cast<unsigned>(random() % 8), mac, device.c_str());
    std::string text = line;
    if (random() % 8 == 0)
        text[random() % text.size()] = static_cast<char>(random() % 256);
    return text;
}

} // namespace

TEST(LinesInPlace, PeekGivesTheBytesAfterTheLastPieceAndTakeTakesThem)
{
    memory_stream s("first\nsecond\nthird\n");
    line_reader lines(s.in);
    size_t available = 99;
    const char* ahead = lines.peek(&available);
    EXPECT_EQ(available, 0u); // nothing read yet
    EXPECT_EQ(ahead[0], '\0');
    char spare[64];
    size_t length = 0;
    ASSERT_STREQ(lines.next_in_place(spare, sizeof spare, &length), "first\n");
    // The NUL that ended the piece in place is gone: the rest is whole, a NUL after it.
    ahead = lines.peek(&available);
    ASSERT_EQ(available, 13u);
    EXPECT_EQ(std::string(ahead, available), "second\nthird\n");
    EXPECT_EQ(ahead[available], '\0');
    lines.take(7);
    ASSERT_STREQ(lines.next_in_place(spare, sizeof spare, &length), "third\n");
    EXPECT_EQ(lines.next_in_place(spare, sizeof spare, &length), nullptr);
}

TEST(LinesInPlace, CommonClientLineIsReadWhereItLies)
{
    const char text[] = "192.168.1.10:123456/7890\n10.0.0.1:1/2\n";
    usage_line u{};
    ASSERT_EQ(read_common_usage_line(text, sizeof text - 1, 255, &u), 25u);
    EXPECT_EQ(std::string(u.address, u.address_length), "192.168.1.10");
    EXPECT_TRUE(u.address_read);
    EXPECT_EQ(u.first, 123456u);
    EXPECT_EQ(u.second, 7890u);
    // Not within the bytes at hand or a piece's room, or of another form: left to the
    // general way.
    EXPECT_EQ(read_common_usage_line(text, 24, 255, &u), 0u);
    EXPECT_EQ(read_common_usage_line(text, sizeof text - 1, 24, &u), 0u);
    EXPECT_EQ(read_common_usage_line("192.168.1.10:5 6\n", 17, 255, &u), 0u);
    EXPECT_EQ(read_common_usage_line("192.168.1.10:5/6\r\n", 18, 255, &u), 0u);
}

TEST(LinesInPlace, KernelArpLineIsReadWhereItLies)
{
    const char text[] = "192.168.1.10     0x1         0x2         00:11:22:33:44:AA     *        br0\nnext";
    arp_line_values v{};
    const size_t line_length = strchr(text, '\n') - text + 1;
    ASSERT_EQ(read_kernel_arp_line(text, sizeof text - 1, 1023, &v), line_length);
    EXPECT_EQ(v.flags_low_byte, 2u);
    EXPECT_EQ(v.mac, 0x0011223344AAu);
    EXPECT_TRUE(v.bridge);
    EXPECT_EQ(read_kernel_arp_line(text, line_length - 1, 1023, &v), 0u);
    EXPECT_EQ(read_kernel_arp_line(text, sizeof text - 1, line_length - 1, &v), 0u);
}

TEST(LinesInPlace, ClientCounterFileGivesTheLinesOfTheGeneralWay)
{
    std::mt19937 random(20261125);
    size_t in_place = 0, lines = 0;
    for (int file = 0; file < 40; ++file) {
        // Several blocks, so that lines of every kind meet a block's end.
        std::string content = "timestamp:1700000000\n";
        while (content.size() < 3 * line_reader::BLOCK + random() % line_reader::BLOCK)
            content += usage_line_text(random);
        const std::vector<std::string> expected = usage_lines_general(content);
        ASSERT_EQ(usage_lines_in_place(content, &in_place), expected) << "file " << file;
        lines += expected.size();
    }
    // Both ways were taken: nearly half the lines are of the common form (ten kinds of
    // line in sixteen, some damaged), the others were read the general way.
    EXPECT_GT(in_place, lines / 3);
    EXPECT_LT(in_place, lines);
}

TEST(LinesInPlace, ArpTableGivesTheLinesOfTheGeneralWay)
{
    std::mt19937 random(25112026);
    size_t in_place = 0, lines = 0;
    for (int file = 0; file < 40; ++file) {
        std::string content = "IP address       HW type     Flags       HW address            Mask     Device\n";
        while (content.size() < 3 * line_reader::BLOCK + random() % line_reader::BLOCK)
            content += arp_line_text(random);
        const std::vector<std::string> expected = arp_lines_general(content);
        ASSERT_EQ(arp_lines_in_place(content, &in_place), expected) << "file " << file;
        lines += expected.size();
    }
    EXPECT_GT(in_place, lines / 2);
    EXPECT_LT(in_place, lines);
}
