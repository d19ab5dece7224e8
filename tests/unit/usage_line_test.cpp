#include "client/usage_line.h"

#include "core/address_text.h"
#include "tests/reference/usage_line_by_strchr.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

// parse_client_usage_line against the reference: the same lines taken, the same address
// text and values; an address read on the way is the one inet_aton gives for that text.
void expect_as_reference(const std::string& line)
{
    SCOPED_TRACE("line \"" + line + "\"");
    const usage_line_reference expected = usage_line_by_strchr(line.c_str());
    usage_line got{};
    const bool taken = parse_client_usage_line(line.c_str(), &got);
    ASSERT_EQ(taken, expected.taken);
    EXPECT_EQ(std::string(got.address, got.address_length), expected.address);
    if (taken) {
        EXPECT_EQ(got.first, expected.first);
        EXPECT_EQ(got.second, expected.second);
    }
    if (got.address_read) {
        EXPECT_TRUE(expected.address_valid);
        EXPECT_EQ(got.address_value, expected.address_value);
    }
}

} // namespace

TEST(UsageLine, CommonLineGivesItsAddressTextAndValues)
{
    usage_line u{};
    ASSERT_TRUE(parse_client_usage_line("192.168.1.10:123456/7890\n", &u));
    EXPECT_EQ(std::string(u.address, u.address_length), "192.168.1.10");
    EXPECT_TRUE(u.address_read);
    uint32_t expected = 0;
    ASSERT_TRUE(address_from_text("192.168.1.10", &expected));
    EXPECT_EQ(u.address_value, expected);
    EXPECT_EQ(u.first, 123456u);
    EXPECT_EQ(u.second, 7890u);
}

TEST(UsageLine, OtherAddressFormsAreLeftAsText)
{
    usage_line u{};
    // A leading zero (octal to inet_aton), three parts, a blank before the ':'.
    for (const char* line : {"010.0.0.1:5/6", "10.0.1:5/6", "10.0.0.1 :5/6", "10.0.0.256:5/6"}) {
        SCOPED_TRACE(line);
        ASSERT_TRUE(parse_client_usage_line(line, &u));
        EXPECT_FALSE(u.address_read);
        EXPECT_EQ(u.first, 5u);
        EXPECT_EQ(u.second, 6u);
    }
    ASSERT_TRUE(parse_client_usage_line("10.0.0.1\r\n", &u));
    EXPECT_EQ(std::string(u.address, u.address_length), "10.0.0.1");
    EXPECT_FALSE(u.address_read);
    EXPECT_EQ(u.first, 0u);
    EXPECT_EQ(u.second, 0u);
}

TEST(UsageLine, NegativeOrOversizedValuesRefuseTheLine)
{
    usage_line u{};
    EXPECT_FALSE(parse_client_usage_line("10.0.0.1:-5/6", &u));
    EXPECT_FALSE(parse_client_usage_line("10.0.0.1:5/-6", &u));
    EXPECT_FALSE(parse_client_usage_line("10.0.0.1:9223372036854775808/6", &u));
    ASSERT_TRUE(parse_client_usage_line("10.0.0.1:9223372036854775807 6", &u));
    EXPECT_EQ(u.first, 9223372036854775807u);
    EXPECT_EQ(u.second, 6u);
}

TEST(UsageLine, SameAsTheReferenceForEdgeLines)
{
    for (const char* line :
         {"", ":", ":/", "::", "1.2.3.4:", "1.2.3.4:/", "1.2.3.4:5/", "1.2.3.4:5/\n", "1.2.3.4:5 ", "1.2.3.4:5x7",
          "1.2.3.4:+5/+6", "1.2.3.4: 5/ 6", "1.2.3.4:5//6", "0.0.0.0:0/0", "255.255.255.255:1/2", "1.2.3.4.5:1/2",
          "1.2.3.:1/2", ".1.2.3:1/2", "1..2.3:1/2", "1.2.3.4:1:2", "1.2.3.4:0x10/0x20", "00.1.2.3:1/2", "1.2.3.04:1/2",
          "999.1.1.1:1/2", "1.2.3.4:18446744073709551615/1", "1.2.3.4:1/18446744073709551616",
          "192.168.100.200:1234567890123456789/1", "1.2.3.4\t:1/2", "abc:1/2", "1.2.3.4:1/2/3", "1.2.3.4:1 2 3"})
        expect_as_reference(line);
}

TEST(UsageLine, SameAsTheReferenceForGeneratedLines)
{
    // Lines built from the pieces the readers tell apart: parts of addresses with and
    // without leading zeros and beyond 255, separators, signs, blanks and long numbers.
    const std::vector<std::string> pieces = {"0", "1", "9", "10", "01", "255", "256", "999", "1000", ".", ".", ".",
                                             ":", ":", "/", " ", "\t", "-", "+", "x", "\r", "\n",
                                             "18446744073709551615", "9223372036854775807", "12345678901234567890"};
    std::mt19937 random(20261125);
    for (int round = 0; round < 200000; ++round) {
        std::string line;
        const int count = 1 + static_cast<int>(random() % 12);
        for (int i = 0; i < count; ++i)
            line += pieces[random() % pieces.size()];
        expect_as_reference(line);
        if (::testing::Test::HasFailure())
            return;
    }
}

TEST(UsageLine, SameAsTheReferenceForLinesOfTheCommonShape)
{
    std::mt19937 random(1125);
    for (int round = 0; round < 100000; ++round) {
        std::string line;
        for (int part = 0; part < 4; ++part) {
            if (part > 0)
                line += '.';
            const unsigned value = random() % 300;
            line += (random() % 16 == 0 ? "0" : "") + std::to_string(value);
        }
        line += random() % 32 == 0 ? " :" : ":";
        line += std::to_string(static_cast<uint64_t>(random()) * random());
        line += random() % 8 == 0 ? " " : "/";
        line += std::to_string(random());
        line += "\n";
        expect_as_reference(line);
        if (::testing::Test::HasFailure())
            return;
    }
}
