// The number helpers of the hot writers and readers: exactly the digits of "%llu" and
// "%lld", and counts read as strtoull reads them but without its wrap-arounds.
#include "core/address_text.h"
#include "core/number_text.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <cstdio>
#include <limits>
#include <memory>
#include <random>
#include <vector>
#include <string>

namespace {

std::string printed_unsigned(uint64_t v)
{
    char text[32];
    snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(v));
    return text;
}

std::string printed_signed(int64_t v)
{
    char text[32];
    snprintf(text, sizeof text, "%lld", static_cast<long long>(v));
    return text;
}

std::string unsigned_text(uint64_t v)
{
    std::string text;
    append_unsigned(text, v);
    return text;
}

std::string signed_text(int64_t v)
{
    std::string text;
    append_signed(text, v);
    return text;
}

} // namespace

TEST(NumberText, AppendUnsigned_Limits)
{
    EXPECT_EQ(unsigned_text(0), "0");
    EXPECT_EQ(unsigned_text(9), "9");
    EXPECT_EQ(unsigned_text(10), "10");
    EXPECT_EQ(unsigned_text(4294967295u), "4294967295");
    EXPECT_EQ(unsigned_text(4294967296u), "4294967296");
    EXPECT_EQ(unsigned_text(std::numeric_limits<uint64_t>::max()), "18446744073709551615");
}

TEST(NumberText, AppendSigned_Limits)
{
    EXPECT_EQ(signed_text(0), "0");
    EXPECT_EQ(signed_text(-1), "-1");
    EXPECT_EQ(signed_text(17592186044415), "17592186044415"); // the largest count >> 10
    EXPECT_EQ(signed_text(std::numeric_limits<int64_t>::max()), "9223372036854775807");
    EXPECT_EQ(signed_text(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
}

TEST(NumberText, AppendKeepsTheTextBefore)
{
    std::string text = "10.1.0.7,lan,";
    append_signed(text, 12);
    text.push_back(',');
    append_unsigned(text, 34);
    EXPECT_EQ(text, "10.1.0.7,lan,12,34");
}

TEST(NumberText, AppendIsPrintfForEveryPowerOfTenAndItsNeighbours)
{
    uint64_t p = 1;
    for (int digits = 1; digits <= 20; ++digits) {
        for (uint64_t v : {p - 1, p, p + 1}) {
            EXPECT_EQ(unsigned_text(v), printed_unsigned(v)) << v;
            EXPECT_EQ(signed_text(static_cast<int64_t>(v)), printed_signed(static_cast<int64_t>(v))) << v;
            EXPECT_EQ(signed_text(-static_cast<int64_t>(v & 0x7fffffffffffffffu)),
                      printed_signed(-static_cast<int64_t>(v & 0x7fffffffffffffffu)));
        }
        if (digits < 20)
            p *= 10;
    }
}

TEST(NumberText, AppendIsPrintfForAMillionRandomValues)
{
    std::mt19937_64 random(20261124);
    for (int i = 0; i < 1000000; ++i) {
        // Values of every length: a random number shifted right by a random amount.
        const uint64_t v = random() >> (random() % 64);
        ASSERT_EQ(unsigned_text(v), printed_unsigned(v));
        ASSERT_EQ(signed_text(static_cast<int64_t>(v)), printed_signed(static_cast<int64_t>(v)));
    }
}

TEST(NumberText, WriteUnsignedIsPrintfUpToAHundredMillionAndKeepsToItsRoom)
{
    // Every value below 200,000 and every 331st up to past 100,000,000: the digits printf
    // gives, and nothing written before the place or beyond the room of UNSIGNED_DIGITS_MAX
    // that the writer is given.
    char buffer[4 + UNSIGNED_DIGITS_MAX + 24];
    for (uint64_t v = 0; v < 100001000; v += v < 200000 ? 1 : 331) {
        memset(buffer, 'x', sizeof buffer);
        char* const end = write_unsigned(buffer + 4, v);
        ASSERT_EQ(std::string(buffer + 4, static_cast<size_t>(end - (buffer + 4))), printed_unsigned(v));
        ASSERT_EQ(std::string(buffer, 4), "xxxx") << v;
        ASSERT_EQ(std::string(buffer + 4 + UNSIGNED_DIGITS_MAX, 24), std::string(24, 'x')) << v;
    }
}

TEST(NumberText, ParseCount_ReadsAsStrtoullAndRefusesWhatItWouldWrap)
{
    uint64_t v = 0;
    const char* text = "  123,456";
    const char* end = parse_count(text, &v);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(v, 123u);
    EXPECT_EQ(end, text + 5);
    EXPECT_EQ(parse_count("18446744073709551615", &v) != nullptr, true);
    EXPECT_EQ(v, std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(parse_count("18446744073709551616", &v), nullptr);
    EXPECT_EQ(parse_count("-5", &v), nullptr);
    EXPECT_EQ(parse_count("+5", &v), nullptr);
    EXPECT_EQ(parse_count("", &v), nullptr);
    EXPECT_EQ(parse_count(nullptr, &v), nullptr);
}

TEST(NumberText, ReadDecimalAsStrtoll_SameValueEndAndRangeError)
{
    const char* const texts[] = {"0",     "123/456", "9223372036854775807", "9223372036854775808x",
                                 "99999999999999999999999", "-5", " 7", "+8", "", "abc", "00012,",
                                 "-9223372036854775809"};
    for (const char* text : texts) {
        const char* end = nullptr;
        bool out_of_range = true;
        const int64_t v = read_decimal_as_strtoll(text, &end, &out_of_range);
        char* stop = nullptr;
        errno = 0;
        const long long expected = strtoll(text, &stop, 10);
        EXPECT_EQ(v, expected) << text;
        EXPECT_EQ(end, stop) << text;
        EXPECT_EQ(out_of_range, errno == ERANGE) << text;
    }
}

TEST(NumberText, ReadDecimalAsStrtoll_AroundTheLimitAndWithLeadingZeros)
{
    // The first 18 digits are read without a range check; from the 19th on every digit is
    // checked. Every length around that point, and zeros in front that push it further.
    std::vector<std::string> texts = {"999999999999999999",    "1000000000000000000",
                                      "9223372036854775806",   "9223372036854775807",
                                      "9223372036854775808",   "9999999999999999999",
                                      "10000000000000000000",  "0000000000000000000009223372036854775807",
                                      "0000000000000000000009223372036854775808,1"};
    std::mt19937_64 random(20261125);
    for (int i = 0; i < 20000; ++i) {
        std::string text(random() % 4, '0');
        const int digits = 1 + static_cast<int>(random() % 22);
        for (int d = 0; d < digits; ++d)
            text.push_back(static_cast<char>('0' + random() % 10));
        text += "/7";
        texts.push_back(text);
    }
    for (const std::string& text : texts) {
        const char* end = nullptr;
        bool out_of_range = false;
        const int64_t v = read_decimal_as_strtoll(text.c_str(), &end, &out_of_range);
        char* stop = nullptr;
        errno = 0;
        const long long expected = strtoll(text.c_str(), &stop, 10);
        ASSERT_EQ(v, expected) << text;
        ASSERT_EQ(end, stop) << text;
        ASSERT_EQ(out_of_range, errno == ERANGE) << text;
    }
}

TEST(NumberText, ReadDecimalWithinReadableBytes_SameAsStrtollAndNoByteBeyond)
{
    // Numbers of 1 to 20 digits (zeros in front of some), ended in every way, in a buffer of
    // exactly the readable bytes (so that the address sanitizer sees a byte read beyond
    // them), whose bytes after the text's NUL are digits that must not be taken.
    const std::string ends[] = {"/12", "\n", "x", " 5", "", "-1", ":"};
    std::mt19937_64 random(20261125);
    size_t read_eight_at_a_time = 0;
    for (int zeros = 0; zeros <= 2; ++zeros)
        for (int digits = 1; digits <= 20; ++digits)
            for (const std::string& after : ends) {
                std::string text(static_cast<size_t>(zeros), '0');
                text.push_back(static_cast<char>('1' + random() % 9));
                while (static_cast<int>(text.size()) < zeros + digits)
                    text.push_back(static_cast<char>('0' + random() % 10));
                text += after;
                char* stop = nullptr;
                errno = 0;
                const long long expected = strtoll(text.c_str(), &stop, 10);
                const bool expected_range_error = errno == ERANGE;
                const size_t expected_length = static_cast<size_t>(stop - text.c_str());
                for (size_t readable = text.size() + 1; readable <= text.size() + 20; ++readable) {
                    std::unique_ptr<char[]> buffer(new char[readable]);
                    memset(buffer.get(), '7', readable);
                    memcpy(buffer.get(), text.c_str(), text.size() + 1);
                    const char* end = nullptr;
                    bool out_of_range = !expected_range_error;
                    const int64_t v = read_decimal_as_strtoll(buffer.get(), readable, &end, &out_of_range);
                    ASSERT_EQ(v, expected) << text << " readable " << readable;
                    ASSERT_EQ(static_cast<size_t>(end - buffer.get()), expected_length) << text << " readable " << readable;
                    ASSERT_EQ(out_of_range, expected_range_error) << text << " readable " << readable;
                    read_eight_at_a_time += zeros + digits <= 15 && readable >= 16;
                }
            }
    EXPECT_GT(read_eight_at_a_time, 0u);
    // Texts that do not start with a digit, read by strtoll itself.
    for (const char* text : {" 7", "+8", "-5", "", "x1", "\t12345678901234567", "+123456789012345678"}) {
        char buffer[40];
        memset(buffer, '7', sizeof buffer);
        memcpy(buffer, text, strlen(text) + 1);
        char* stop = nullptr;
        const long long expected = strtoll(buffer, &stop, 10);
        const char* end = nullptr;
        bool out_of_range = true;
        EXPECT_EQ(read_decimal_as_strtoll(buffer, sizeof buffer, &end, &out_of_range), expected) << text;
        EXPECT_EQ(end, stop) << text;
        EXPECT_FALSE(out_of_range) << text;
    }
}

TEST(NumberText, ReadDecimalWithinReadableBytes_LeadingDigitsOfEveryByte)
{
    // Every byte value after one to eight digits: only '0' to '9' continue the number.
    for (int digits = 1; digits <= 8; ++digits)
        for (int byte = 1; byte < 256; ++byte) {
            char text[24];
            memset(text, '3', sizeof text);
            memcpy(text, "98765432", static_cast<size_t>(digits));
            text[digits] = static_cast<char>(byte);
            text[digits + 1] = '\0';
            char* stop = nullptr;
            const long long expected = strtoll(text, &stop, 10);
            const char* end = nullptr;
            bool out_of_range = true;
            ASSERT_EQ(read_decimal_as_strtoll(text, sizeof text, &end, &out_of_range), expected) << digits << " " << byte;
            ASSERT_EQ(end, stop) << digits << " " << byte;
            ASSERT_FALSE(out_of_range);
        }
}

TEST(AddressText, CommonFormReadHere_OtherFormsAsInetAton)
{
    const char* const texts[] = {"10.1.0.7", "0.0.0.0", "255.255.255.255", "256.1.1.1", "1.2.3.256", "010.1.1.1",
                                 "0x0a.1.1.1", "10.1.1", "10", "1.2.3.4 junk", "1.2.3.4\n", "1.2.3.4x",
                                 "1.2.3.4.5", "", ".1.2.3", "1..2.3", "1.2.3.0004", "4294967295", "1.2.3.-4"};
    for (const char* text : texts) {
        uint32_t got = 0xdeadbeef;
        struct in_addr a;
        const bool expected = inet_aton(text, &a) != 0;
        ASSERT_EQ(address_from_text(text, &got), expected) << text;
        if (expected) {
            EXPECT_EQ(got, a.s_addr) << text;
        }
    }
    uint32_t got = 0;
    ASSERT_TRUE(address_from_text("192.168.1.20", &got));
    const unsigned char want[4] = {192, 168, 1, 20};
    EXPECT_EQ(memcmp(&got, want, 4), 0);
}

TEST(AddressText, EveryDottedQuadOfSmallPartsAsInetAton)
{
    std::mt19937 random(7);
    const char alphabet[] = "0123456789.x \n";
    for (int i = 0; i < 200000; ++i) {
        std::string text;
        const int length = static_cast<int>(random() % 16);
        for (int k = 0; k < length; ++k)
            text.push_back(alphabet[random() % (sizeof alphabet - 1)]);
        uint32_t got = 0;
        struct in_addr a;
        const bool expected = inet_aton(text.c_str(), &a) != 0;
        ASSERT_EQ(address_from_text(text.c_str(), &got), expected) << text;
        if (expected) {
            ASSERT_EQ(got, a.s_addr) << text;
        }
    }
}
