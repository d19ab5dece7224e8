// Tests of the host stand-in of libstrutils.so (platform/strutils_host.cpp).
#include "platform/strutils.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

struct TaglistDeleter {
    void operator()(taglist* l) const { free_taglist(l); }
};
struct NumlistDeleter {
    void operator()(numlist* l) const { free_numlist(l); }
};
struct IplistDeleter {
    void operator()(iplist* l) const { free_iplist(l); }
};
struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};
using TaglistPtr = std::unique_ptr<taglist, TaglistDeleter>;
using NumlistPtr = std::unique_ptr<numlist, NumlistDeleter>;
using IplistPtr = std::unique_ptr<iplist, IplistDeleter>;
using TextPtr = std::unique_ptr<char, FreeDeleter>;

std::vector<int> nums_of(const numlist* l) { return std::vector<int>(l->nums, l->nums + l->count); }

std::vector<std::string> items_of(const iplist* l) {
    std::vector<std::string> out;
    for (int i = 0; i < l->count; ++i) out.emplace_back(l->items[i]);
    return out;
}

// Every test works in a private temporary directory that is removed afterwards.
class StrutilsHost : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
        pattern += "/strutils_host_test.XXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        ASSERT_NE(mkdtemp(buf.data()), nullptr) << "mkdtemp " << pattern;
        dir_ = buf.data();
    }

    void TearDown() override {
        if (!dir_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
    }

    // Writes content (taken byte for byte, NULs included) to name in the directory.
    std::string write_file(const std::string& name, const std::string& content) {
        const std::string path = dir_ + "/" + name;
        std::FILE* f = std::fopen(path.c_str(), "wb");
        EXPECT_NE(f, nullptr) << path;
        if (f == nullptr) return path;
        EXPECT_EQ(std::fwrite(content.data(), 1, content.size(), f), content.size());
        EXPECT_EQ(std::fclose(f), 0);
        return path;
    }

    TaglistPtr load(const std::string& content) {
        const std::string path = write_file("tags.conf", content);
        return TaglistPtr(load_taglist_ex(path.c_str(), 0, 0));
    }

    std::string dir_;
};

// ---- tag list -------------------------------------------------------------------------

TEST_F(StrutilsHost, Taglist_ReadsKeyValueLines) {
    TaglistPtr l = load("ALPHA=1\nBETA=two words\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "ALPHA"), "1");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "BETA"), "two words");
}

TEST_F(StrutilsHost, Taglist_BlanksAroundKeyAndValueAreTrimmed) {
    TaglistPtr l = load("  \tNAME \t=  \t value with  inner  blanks \t \nEMPTY=   \n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "NAME"), "value with  inner  blanks");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "EMPTY"), "");
}

TEST_F(StrutilsHost, Taglist_CrLfLineEndsAreTrimmedFromValue) {
    TaglistPtr l = load("A=1\r\nB=\"x\"\r\nC=y \r\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "A"), "1");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "B"), "x");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "C"), "y");
}

TEST_F(StrutilsHost, Taglist_QuotesAroundValueAreRemoved) {
    TaglistPtr l = load("Q=\"quoted value\"\nSPACED = \" a b \" \nEMPTYQ=\"\"\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "Q"), "quoted value");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "SPACED"), " a b ");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "EMPTYQ"), "");
}

TEST_F(StrutilsHost, Taglist_OnlyOuterPairOfQuotesIsRemoved) {
    TaglistPtr l = load("A=\"\"inner\"\"\nB=\"say \"hi\"\"\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "A"), "\"inner\"");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "B"), "say \"hi\"");
}

TEST_F(StrutilsHost, Taglist_UnpairedQuoteIsKept) {
    TaglistPtr l = load("OPEN=\"abc\nCLOSE=abc\"\nLONE=\"\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "OPEN"), "\"abc");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "CLOSE"), "abc\"");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "LONE"), "\"");
}

TEST_F(StrutilsHost, Taglist_CommentAndBlankLinesAreIgnored) {
    TaglistPtr l = load("# HIDDEN=1\n\n   \n\t# INDENTED=2\n  \t\nKEPT=3\nAFTER=4#not a comment\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "HIDDEN"), "def");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "# HIDDEN"), "def");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "INDENTED"), "def");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "KEPT"), "3");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "AFTER"), "4#not a comment");
}

TEST_F(StrutilsHost, Taglist_LinesWithoutEqualsAreIgnored) {
    TaglistPtr l = load("JUSTAWORD\nA=1\nanother line of text\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "JUSTAWORD"), "def");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "another line of text"), "def");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "A"), "1");
}

TEST_F(StrutilsHost, Taglist_LineWithEmptyKeyIsIgnored) {
    TaglistPtr l = load("=orphan\n  =also\nA=1\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", ""), "def");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "A"), "1");
}

TEST_F(StrutilsHost, Taglist_LastOccurrenceOfKeyWins) {
    TaglistPtr l = load("K=first\nOTHER=x\nK=second\n  K  = \"third\"\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "K"), "third");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "OTHER"), "x");
}

TEST_F(StrutilsHost, Taglist_ValueContainingEqualsIsKeptWhole) {
    TaglistPtr l = load("URL=http://host/?a=1&b=2\nEQ==\nQ=\"x=y\"\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "URL"), "http://host/?a=1&b=2");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "EQ"), "=");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "Q"), "x=y");
}

TEST_F(StrutilsHost, Taglist_KeysAreCaseSensitive) {
    TaglistPtr l = load("Name=upper\nname=lower\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "Name"), "upper");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "name"), "lower");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "NAME"), "def");
}

TEST_F(StrutilsHost, Taglist_MissingKeyGivesDefault) {
    TaglistPtr l = load("A=1\n");
    ASSERT_NE(l, nullptr);
    const char* def = "fallback";
    EXPECT_EQ(get_taglist_default_ex(l.get(), def, "B"), def);
    EXPECT_EQ(get_taglist_default_ex(l.get(), def, "a"), def);
}

TEST_F(StrutilsHost, Taglist_MissingKeyWithNullDefaultGivesNull) {
    TaglistPtr l = load("A=1\n");
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(get_taglist_default_ex(l.get(), nullptr, "B"), nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), nullptr, "A"), "1");
}

TEST_F(StrutilsHost, Taglist_NullListOrNullKeyGivesDefault) {
    const char* def = "d";
    EXPECT_EQ(get_taglist_default_ex(nullptr, def, "A"), def);
    EXPECT_EQ(get_taglist_default_ex(nullptr, nullptr, "A"), nullptr);
    TaglistPtr l = load("A=1\n");
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(get_taglist_default_ex(l.get(), def, nullptr), def);
    free_taglist(nullptr);  // accepted
}

TEST_F(StrutilsHost, Taglist_ValueTextStaysValidAcrossLookups) {
    TaglistPtr l = load("A=1\nB=2\n");
    ASSERT_NE(l, nullptr);
    const char* a = get_taglist_default_ex(l.get(), nullptr, "A");
    const char* b = get_taglist_default_ex(l.get(), nullptr, "B");
    EXPECT_EQ(get_taglist_default_ex(l.get(), nullptr, "A"), a);
    EXPECT_STREQ(a, "1");
    EXPECT_STREQ(b, "2");
}

TEST_F(StrutilsHost, Taglist_MissingFileGivesNull) {
    const std::string path = dir_ + "/does_not_exist.conf";
    EXPECT_EQ(load_taglist_ex(path.c_str(), 0, 0), nullptr);
    EXPECT_EQ(load_taglist_ex(path.c_str(), 1, 1), nullptr);
}

TEST_F(StrutilsHost, Taglist_UnreadablePathGivesNull) {
    // A directory opens but cannot be read as a file.
    EXPECT_EQ(load_taglist_ex(dir_.c_str(), 0, 0), nullptr);
    EXPECT_EQ(load_taglist_ex(nullptr, 0, 0), nullptr);
}

TEST_F(StrutilsHost, Taglist_EmptyFileGivesEmptyList) {
    TaglistPtr l = load("");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "A"), "def");
}

TEST_F(StrutilsHost, Taglist_LastLineWithoutNewlineIsRead) {
    TaglistPtr l = load("A=1\nB=\"last\"");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "A"), "1");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "B"), "last");
}

TEST_F(StrutilsHost, Taglist_VeryLongLineIsReadWhole) {
    const std::string long_value(200000, 'v');
    const std::string long_key(70000, 'k');
    TaglistPtr l = load("A=1\nLONG=" + long_value + "\n" + long_key + "=x\nB=2\n");
    ASSERT_NE(l, nullptr);
    const char* got = get_taglist_default_ex(l.get(), nullptr, "LONG");
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(std::string(got), long_value);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), nullptr, long_key.c_str()), "x");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), nullptr, "A"), "1");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), nullptr, "B"), "2");
}

TEST_F(StrutilsHost, Taglist_TextAfterNulByteIsIgnored) {
    TaglistPtr l = load(std::string("A=1\nB=2", 7) + std::string(1, '\0') + "3\nC=4\n");
    ASSERT_NE(l, nullptr);
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "A"), "1");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "B"), "2");
    EXPECT_STREQ(get_taglist_default_ex(l.get(), "def", "C"), "def");
}

// ---- number list ----------------------------------------------------------------------

TEST_F(StrutilsHost, Numlist_CommasSpacesTabsAndLineEndsSeparate) {
    NumlistPtr l(create_numlist("1,2 3\t4\r\n5,,  ,6\n"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->count, 6);
    EXPECT_EQ(nums_of(l.get()), (std::vector<int>{1, 2, 3, 4, 5, 6}));
}

TEST_F(StrutilsHost, Numlist_GarbageTokensAreSkipped) {
    NumlistPtr l(create_numlist("7 abc 12x x12 1.5 - + 0x10 8, ,9 --1 +-2 1e3"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(nums_of(l.get()), (std::vector<int>{7, 8, 9}));
}

TEST_F(StrutilsHost, Numlist_SignsAndLeadingZerosAreAccepted) {
    NumlistPtr l(create_numlist("-5 +6 007 -0 0"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(nums_of(l.get()), (std::vector<int>{-5, 6, 7, 0, 0}));
}

TEST_F(StrutilsHost, Numlist_IntLimitsFitAndOverflowIsSkipped) {
    NumlistPtr l(create_numlist(
        "2147483647 -2147483648 2147483648 -2147483649 99999999999999999999 +2147483647 1"));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(nums_of(l.get()), (std::vector<int>{INT_MAX, INT_MIN, INT_MAX, 1}));
}

TEST_F(StrutilsHost, Numlist_EmptyTextGivesNull) {
    EXPECT_EQ(create_numlist(""), nullptr);
    EXPECT_EQ(create_numlist(" ,\t\r\n,, "), nullptr);
    EXPECT_EQ(create_numlist(nullptr), nullptr);
    free_numlist(nullptr);  // accepted
}

TEST_F(StrutilsHost, Numlist_OnlyGarbageGivesNull) {
    EXPECT_EQ(create_numlist("abc, x1, 1x, 99999999999"), nullptr);
}

TEST_F(StrutilsHost, Numlist_LongTextKeepsEveryNumberInOrder) {
    std::string text;
    std::vector<int> expected;
    for (int i = 0; i < 20000; ++i) {
        text += std::to_string(i - 10000);
        text += (i % 3 == 0) ? "," : (i % 3 == 1) ? " " : "\n";
        expected.push_back(i - 10000);
    }
    NumlistPtr l(create_numlist(text.c_str()));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(nums_of(l.get()), expected);
}

// ---- address list ---------------------------------------------------------------------

TEST_F(StrutilsHost, Iplist_CreateFindsAddressesInOrder) {
    IplistPtr l(create_iplist("dns 8.8.8.8, 192.168.1.1;10.0.0.254\nserver=(1.2.3.4) 8.8.8.8", 0));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->count, 5);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"8.8.8.8", "192.168.1.1", "10.0.0.254",
                                                           "1.2.3.4", "8.8.8.8"}));
}

TEST_F(StrutilsHost, Iplist_CreateAcceptsBoundaryValues) {
    IplistPtr l(create_iplist("0.0.0.0 255.255.255.255 000.01.1.099", 1));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(items_of(l.get()),
              (std::vector<std::string>{"0.0.0.0", "255.255.255.255", "000.01.1.099"}));
}

TEST_F(StrutilsHost, Iplist_CreateRejectsPartAbove255) {
    IplistPtr l(create_iplist("256.1.1.1 1.256.1.1 1.1.1.999 1.1.1.1", 0));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"1.1.1.1"}));
}

TEST_F(StrutilsHost, Iplist_CreateRejectsFiveParts) {
    IplistPtr l(create_iplist("1.2.3.4.5 5.6.7.8", 0));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"5.6.7.8"}));
}

TEST_F(StrutilsHost, Iplist_CreateRejectsAddressTouchingDigitOrDot) {
    IplistPtr l(create_iplist(
        "1.2.3.4. .1.2.3.4 1.2.3 1.2.3.1234 0001.2.3.4 1..2.3 1.2..3.4 1.2.3.4x a9.9.9.9 9.9.9.9", 0));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"1.2.3.4", "9.9.9.9", "9.9.9.9"}));
}

TEST_F(StrutilsHost, Iplist_CreateWithoutAddressesGivesEmptyList) {
    IplistPtr l(create_iplist("no addresses here, 1.2.3 or 300.1.1.1", 0));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->count, 0);
    IplistPtr e(create_iplist("", 0));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->count, 0);
}

TEST_F(StrutilsHost, Iplist_CreateWithNullTextGivesNull) {
    EXPECT_EQ(create_iplist(nullptr, 0), nullptr);
    free_iplist(nullptr);  // accepted
}

TEST_F(StrutilsHost, Iplist_InitGivesEmptyList) {
    IplistPtr l(init_iplist());
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->count, 0);
}

TEST_F(StrutilsHost, Iplist_AppendAddsCopyAtEnd) {
    IplistPtr l(init_iplist());
    ASSERT_NE(l, nullptr);
    char buf[] = "10.0.0.1";
    EXPECT_EQ(append_iplist(l.get(), buf), 0);
    EXPECT_EQ(append_iplist(l.get(), "wan0"), 0);
    EXPECT_EQ(append_iplist(l.get(), ""), 0);
    buf[0] = 'X';
    EXPECT_EQ(l->count, 3);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"10.0.0.1", "wan0", ""}));
    EXPECT_NE(l->items[0], buf);
}

TEST_F(StrutilsHost, Iplist_AppendToCreatedListAddsAtEnd) {
    IplistPtr l(create_iplist("1.1.1.1 2.2.2.2", 0));
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(append_iplist(l.get(), "3.3.3.3"), 0);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"1.1.1.1", "2.2.2.2", "3.3.3.3"}));
}

TEST_F(StrutilsHost, Iplist_InsertAddsCopyAtEnd) {
    IplistPtr l(init_iplist());
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(insert_iplist(l.get(), "a"), 0);
    EXPECT_EQ(insert_iplist(l.get(), "b"), 0);
    EXPECT_EQ(append_iplist(l.get(), "c"), 0);
    EXPECT_EQ(insert_iplist(l.get(), "d"), 0);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST_F(StrutilsHost, Iplist_RemoveDeletesFirstEqualItemOnly) {
    IplistPtr l(init_iplist());
    ASSERT_NE(l, nullptr);
    for (const char* s : {"a", "b", "a", "c"}) ASSERT_EQ(append_iplist(l.get(), s), 0);
    EXPECT_EQ(remove_iplist(l.get(), "a"), 0);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(remove_iplist(l.get(), "c"), 0);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(remove_iplist(l.get(), "b"), 0);
    EXPECT_EQ(remove_iplist(l.get(), "a"), 0);
    EXPECT_EQ(l->count, 0);
    EXPECT_EQ(append_iplist(l.get(), "e"), 0);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"e"}));
}

TEST_F(StrutilsHost, Iplist_RemoveOfAbsentItemGivesMinusOneAndKeepsList) {
    IplistPtr l(init_iplist());
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(remove_iplist(l.get(), "a"), -1);
    ASSERT_EQ(append_iplist(l.get(), "1.2.3.4"), 0);
    EXPECT_EQ(remove_iplist(l.get(), "1.2.3"), -1);
    EXPECT_EQ(remove_iplist(l.get(), "1.2.3.44"), -1);
    EXPECT_EQ(remove_iplist(l.get(), ""), -1);
    EXPECT_EQ(items_of(l.get()), (std::vector<std::string>{"1.2.3.4"}));
}

TEST_F(StrutilsHost, Iplist_NullArgumentsGiveMinusOne) {
    IplistPtr l(init_iplist());
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(append_iplist(nullptr, "a"), -1);
    EXPECT_EQ(insert_iplist(nullptr, "a"), -1);
    EXPECT_EQ(remove_iplist(nullptr, "a"), -1);
    EXPECT_EQ(append_iplist(l.get(), nullptr), -1);
    EXPECT_EQ(insert_iplist(l.get(), nullptr), -1);
    EXPECT_EQ(remove_iplist(l.get(), nullptr), -1);
    EXPECT_EQ(l->count, 0);
}

TEST_F(StrutilsHost, Iplist_ManyAppendsKeepOrder) {
    IplistPtr l(init_iplist());
    ASSERT_NE(l, nullptr);
    std::vector<std::string> expected;
    for (int i = 0; i < 5000; ++i) {
        expected.push_back("item" + std::to_string(i));
        ASSERT_EQ(append_iplist(l.get(), expected.back().c_str()), 0);
    }
    EXPECT_EQ(items_of(l.get()), expected);
}

// ---- readfile -------------------------------------------------------------------------

TEST_F(StrutilsHost, Readfile_MissingFileGivesNull) {
    const std::string path = dir_ + "/missing";
    EXPECT_EQ(readfile(path.c_str(), 0), nullptr);
    EXPECT_EQ(readfile(nullptr, 0), nullptr);
}

TEST_F(StrutilsHost, Readfile_DirectoryGivesNull) {
    EXPECT_EQ(readfile(dir_.c_str(), 0), nullptr);
}

TEST_F(StrutilsHost, Readfile_ExistingFileGivesWholeContent) {
    const std::string content = "first line\nsecond line without newline";
    const std::string path = write_file("small", content);
    TextPtr text(readfile(path.c_str(), 1));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text.get()), content);
}

TEST_F(StrutilsHost, Readfile_EmptyFileGivesEmptyText) {
    const std::string path = write_file("empty", "");
    TextPtr text(readfile(path.c_str(), 0));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text.get(), "");
}

TEST_F(StrutilsHost, Readfile_FilesAroundBufferSizesAreReadWhole) {
    for (std::size_t size : {std::size_t{4094}, std::size_t{4095}, std::size_t{4096},
                             std::size_t{4097}, std::size_t{8191}, std::size_t{1000003}}) {
        std::string content(size, 'a');
        for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>('a' + i % 26);
        const std::string path = write_file("sized", content);
        TextPtr text(readfile(path.c_str(), 0));
        ASSERT_NE(text, nullptr) << size;
        EXPECT_EQ(std::strlen(text.get()), size);
        EXPECT_EQ(std::string(text.get()), content) << size;
    }
}

TEST_F(StrutilsHost, Readfile_TextEndsAtNulByte) {
    const std::string path = write_file("nul", std::string("ab\0cd", 5));
    TextPtr text(readfile(path.c_str(), 0));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text.get(), "ab");
}

} // namespace
