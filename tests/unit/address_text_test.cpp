// Addresses are read as inet_aton reads them, for every text: the common dotted form by
// hand, every other form by inet_aton itself.
#include "core/address_text.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

namespace {

void expect_as_inet_aton(const std::string& text)
{
    uint32_t got = 0x5a5a5a5a;
    struct in_addr a;
    const bool expected = inet_aton(text.c_str(), &a) != 0;
    const bool taken = address_from_text(text.c_str(), &got);
    ASSERT_EQ(taken, expected) << '"' << text << '"';
    if (expected)
        ASSERT_EQ(got, a.s_addr) << '"' << text << '"';
    else
        ASSERT_EQ(got, 0x5a5a5a5au) << '"' << text << '"';
}

// A part as the generator writes it: decimal (with or without leading zeros), octal,
// hexadecimal, too large, empty or junk.
std::string random_part(std::mt19937& random)
{
    switch (random() % 10) {
    case 0: return std::to_string(random() % 10);
    case 1: return std::to_string(random() % 100);
    case 2: return std::to_string(random() % 256);
    case 3: return std::to_string(random() % 1000);
    case 4: return std::string(1 + random() % 3, '0') + std::to_string(random() % 400);
    case 5: {
        char text[16];
        snprintf(text, sizeof text, random() % 2 ? "0x%x" : "0X%X", static_cast<unsigned>(random() % 0x1ff));
        return text;
    }
    case 6: return "0" + std::to_string(random() % 8) + std::to_string(random() % 10);
    case 7: return std::to_string(random() % 100000000);
    case 8: return "";
    default: {
        const char junk[] = "0123456789.xX -+abfg\t\n";
        std::string s(1 + random() % 3, ' ');
        for (char& c : s)
            c = junk[random() % (sizeof junk - 1)];
        return s;
    }
    }
}

} // namespace

TEST(AddressTextFastPath, TheCommonFormGivesItsFourBytesInOrder)
{
    uint32_t got = 0;
    ASSERT_TRUE(address_from_text("10.1.63.255", &got));
    const unsigned char want[4] = {10, 1, 63, 255};
    EXPECT_EQ(memcmp(&got, want, 4), 0);
    ASSERT_TRUE(address_from_text("0.0.0.0", &got));
    EXPECT_EQ(got, 0u);
}

TEST(AddressTextFastPath, EdgeFormsAsInetAton)
{
    const char* const texts[] = {
        "0.0.0.0", "255.255.255.255", "255.255.255.256", "256.0.0.0", "1.2.3.4", "01.2.3.4", "1.02.3.4",
        "1.2.03.4", "1.2.3.04", "0.0.0.00", "00.0.0.0", "0x1.2.3.4", "1.2.3.0x4", "1.2.3.0X", "1.2.3.0x",
        "08.1.1.1", "1.1.1.08", "1.1.1.0777", "1.2.3", "1.2", "1", "0", "0x", "4294967295", "4294967296",
        "1.16777215", "1.16777216", "1.2.65535", "1.2.65536", "1.2.3.4.", "1.2.3.4.5", "1.2.3.4 ",
        "1.2.3.4 x", "1.2.3.4\t", "1.2.3.4\n", "1.2.3.4x", " 1.2.3.4", "1 .2.3.4", "1. 2.3.4", "1.2.3.",
        ".1.2.3.4", "1..2.3", "1.2..3", "1.2.3..4", "", ".", "..", "...", "....", "199.199.199.199",
        "200.250.255.249", "249.1.1.1", "250.1.1.1", "1.2.3.1000", "1.2.3.-1", "+1.2.3.4", "1.2.3.+4",
        "12a.1.1.1", "1.2.3.4a", "127.1", "10.0.0.1\0ignored"};
    for (const char* text : texts) {
        expect_as_inet_aton(text);
        if (HasFatalFailure())
            return;
    }
}

TEST(AddressTextFastPath, GeneratedTextsOfFourPartsAsInetAton)
{
    std::mt19937 random(31337);
    const char separators[] = "...............  x\t,";
    for (int i = 0; i < 300000; ++i) {
        std::string text;
        const int parts = 1 + static_cast<int>(random() % 5);
        for (int k = 0; k < parts; ++k) {
            if (k > 0)
                text += separators[random() % (sizeof separators - 1)];
            text += random_part(random);
        }
        switch (random() % 8) {
        case 0: text += ' '; text += random_part(random); break;
        case 1: text.resize(random() % (text.size() + 1)); break;
        case 2: text += '.'; break;
        default: break;
        }
        expect_as_inet_aton(text);
        if (HasFatalFailure())
            return;
    }
}

TEST(AddressTextFastPath, RandomTextsOfEveryLengthAsInetAton)
{
    std::mt19937 random(4242);
    const char alphabet[] = "0123456789012345678901234567890123456789....xX \t\nafAF-+";
    for (size_t length = 0; length <= 20; ++length)
        for (int i = 0; i < 20000; ++i) {
            std::string text(length, ' ');
            for (char& c : text)
                c = alphabet[random() % (sizeof alphabet - 1)];
            expect_as_inet_aton(text);
            if (HasFatalFailure())
                return;
        }
}

TEST(AddressTextFastPath, RandomBytesAsInetAton)
{
    std::mt19937 random(99);
    for (int i = 0; i < 100000; ++i) {
        std::string text(random() % 21, ' ');
        for (char& c : text)
            c = static_cast<char>(1 + random() % 255);
        expect_as_inet_aton(text);
        if (HasFatalFailure())
            return;
    }
}

TEST(AddressTextFastPath, EveryByteAfterEachPartAsInetAton)
{
    // Each part of "1.22.133.244" followed by every byte value, and every byte in place of
    // each of its characters.
    const std::string base = "1.22.133.244";
    for (size_t at = 0; at <= base.size(); ++at)
        for (int c = 1; c < 256; ++c) {
            std::string inserted = base;
            inserted.insert(at, 1, static_cast<char>(c));
            expect_as_inet_aton(inserted);
            if (at < base.size()) {
                std::string replaced = base;
                replaced[at] = static_cast<char>(c);
                expect_as_inet_aton(replaced);
            }
            expect_as_inet_aton(base.substr(0, at));
            if (HasFatalFailure())
                return;
        }
}

TEST(AddressTextFastPath, EveryPartValueFrom0To1000InEachPlace)
{
    for (int place = 0; place < 4; ++place)
        for (int value = 0; value <= 1000; ++value) {
            std::string parts[4] = {"10", "1", "2", "3"};
            parts[place] = std::to_string(value);
            expect_as_inet_aton(parts[0] + "." + parts[1] + "." + parts[2] + "." + parts[3]);
            parts[place] = "0" + std::to_string(value);
            expect_as_inet_aton(parts[0] + "." + parts[1] + "." + parts[2] + "." + parts[3]);
            if (HasFatalFailure())
                return;
        }
}
