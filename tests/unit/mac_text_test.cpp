// MAC texts are read as their six strtoll fields read them, for every text: the common
// form of six pairs by hand, every other by strtoll.
#include "client_mac/mac_usage.h"
#include "tests/reference/mac_by_strtoll.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace {

void expect_as_strtoll(const std::string& text)
{
    ASSERT_EQ(parse_mac_text(text.c_str()), mac_by_strtoll(text.c_str())) << '"' << text << '"';
}

} // namespace

TEST(MacTextFastPath, EdgeFormsAsStrtoll)
{
    const char* const texts[] = {"00:00:00:00:00:00", "ff:ff:ff:ff:ff:ff", "FF:FF:FF:FF:FF:FF", "02:00:0a:01:3f:ff",
                                 "02:00:0a:01:3f:ff:", "02:00:0a:01:3f:ff ", "02:00:0a:01:3f:ffx",
                                 "02:00:0a:01:3f:fff", "02:00:0a:01:3f:f", "02:00:0a:01:3f:", "02:00:0a:01:3f",
                                 "02:00:0a:01:3f:0x1", "0x:00:0a:01:3f:ff", "02:00:0a:01:3f:-1",
                                 "02:00:0a:01:3f:+1", "02:00:0a:01:3f: 1", " 02:00:0a:01:3f:ff",
                                 "02 00 0a 01 3f ff", "02::00:0a:01:3f", "g2:00:0a:01:3f:ff", "0g:00:0a:01:3f:ff",
                                 "02:00:0a:01:3f:fg", "02:00:0a:01:3f:ff\n", "7fffffffffffffff:0:0:0:0:0",
                                 "ffffffffffffffffff:0:0:0:0:0", "-ffffffffffffffffff:0:0:0:0:0", "", ":", "0"};
    for (const char* text : texts) {
        expect_as_strtoll(text);
        if (HasFatalFailure())
            return;
    }
}

TEST(MacTextFastPath, GeneratedMacsWithOneFlawAsStrtoll)
{
    // Well-formed MACs with one byte replaced, inserted or removed, and cut at every length.
    std::mt19937 random(2718);
    for (int i = 0; i < 200000; ++i) {
        char text[32];
        snprintf(text, sizeof text, random() % 2 ? "%02x:%02x:%02x:%02x:%02x:%02x" : "%02X:%02X:%02X:%02X:%02X:%02X",
                 static_cast<unsigned>(random() % 256), static_cast<unsigned>(random() % 256),
                 static_cast<unsigned>(random() % 256), static_cast<unsigned>(random() % 256),
                 static_cast<unsigned>(random() % 256), static_cast<unsigned>(random() % 256));
        std::string mac = text;
        expect_as_strtoll(mac);
        const size_t at = random() % (mac.size() + 1);
        const char c = static_cast<char>(1 + random() % 255);
        switch (random() % 4) {
        case 0: if (at < mac.size()) mac[at] = c; break;
        case 1: mac.insert(at, 1, c); break;
        case 2: if (at < mac.size()) mac.erase(at, 1); break;
        default: mac.resize(at); break;
        }
        expect_as_strtoll(mac);
        if (HasFatalFailure())
            return;
    }
}

TEST(MacTextFastPath, RandomTextsOfEveryLengthAsStrtoll)
{
    std::mt19937 random(1618);
    const char alphabet[] = "0123456789abcdefABCDEF::::::xX -+\t\n.g";
    for (size_t length = 0; length <= 20; ++length)
        for (int i = 0; i < 20000; ++i) {
            std::string text(length, ' ');
            for (size_t k = 0; k < length; ++k)
                text[k] = k % 3 == 2 && random() % 3 != 0 ? ':' : alphabet[random() % (sizeof alphabet - 1)];
            expect_as_strtoll(text);
            if (HasFatalFailure())
                return;
        }
}

TEST(MacTextFastPath, RandomBytesAsStrtoll)
{
    std::mt19937 random(141);
    for (int i = 0; i < 100000; ++i) {
        std::string text(random() % 21, ' ');
        for (char& c : text)
            c = static_cast<char>(1 + random() % 255);
        expect_as_strtoll(text);
        if (HasFatalFailure())
            return;
    }
}

TEST(MacTextFastPath, EveryByteInEveryPlaceOfACommonMac)
{
    const std::string base = "a0:1B:c2:3D:e4:5F";
    for (size_t at = 0; at <= base.size(); ++at)
        for (int c = 1; c < 256; ++c) {
            std::string replaced = base;
            if (at < base.size())
                replaced[at] = static_cast<char>(c);
            else
                replaced += static_cast<char>(c);
            expect_as_strtoll(replaced);
            expect_as_strtoll(base.substr(0, at));
            if (HasFatalFailure())
                return;
        }
}
