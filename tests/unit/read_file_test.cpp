// copy_lines reads in blocks but copies exactly what fgets through a 256-byte buffer and
// fputs of every piece would.
#include "core/read_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

namespace {

// The reference: the line copy as fgets and fputs make it.
std::string copied_by_fgets(const std::string& content, int max_lines)
{
    FILE* in = fmemopen(const_cast<char*>(content.data()), content.size(), "r");
    std::string out;
    if (!in)
        return "(fmemopen failed)";
    char line[256];
    for (int copied = 0; copied < max_lines && fgets(line, sizeof line, in); ++copied)
        out += line; // up to the first NUL byte, as fputs
    fclose(in);
    return out;
}

std::string copied_by_copy_lines(const std::string& content, int max_lines)
{
    FILE* in = fmemopen(const_cast<char*>(content.data()), content.size(), "r");
    std::string out;
    if (!in)
        return "(fmemopen failed)";
    copy_lines(out, in, max_lines);
    fclose(in);
    return out;
}

} // namespace

TEST(CopyLines, CopiesAtMostTheLinesAsked)
{
    const std::string history = "2024-04-01,2024-04-30,41,4\n2024-03-01,2024-03-31,31,3\n2024-02-01,2024-02-29,21,2\n";
    EXPECT_EQ(copied_by_copy_lines(history, 2), "2024-04-01,2024-04-30,41,4\n2024-03-01,2024-03-31,31,3\n");
    EXPECT_EQ(copied_by_copy_lines(history, 59), history);
    EXPECT_EQ(copied_by_copy_lines(history, 0), "");
    EXPECT_EQ(copied_by_copy_lines("", 5), "");
    EXPECT_EQ(copied_by_copy_lines("no line break", 5), "no line break");
}

TEST(CopyLines, ALongLineCountsAsPiecesOf255Bytes)
{
    const std::string line(600, 'x');
    // 600 bytes and the line break: pieces of 255, 255 and 91 bytes (the last with "\n").
    EXPECT_EQ(copied_by_copy_lines(line + "\nnext\n", 1), std::string(255, 'x'));
    EXPECT_EQ(copied_by_copy_lines(line + "\nnext\n", 3), line + "\n");
    EXPECT_EQ(copied_by_copy_lines(line + "\nnext\n", 4), line + "\nnext\n");
}

TEST(CopyLines, APieceEndsAtANulByte)
{
    const std::string content = std::string("ab\0cd\nef\n", 9);
    EXPECT_EQ(copied_by_copy_lines(content, 1), "ab");
    EXPECT_EQ(copied_by_copy_lines(content, 2), "abef\n");
}

TEST(CopyLines, SameAsFgetsAndFputsForRandomContent)
{
    std::mt19937 random(11);
    const char alphabet[] = {'a', '1', ',', '-', '\n', '\n', '\0', ' '};
    for (int round = 0; round < 3000; ++round) {
        std::string content;
        const int length = static_cast<int>(random() % 9000);
        // Some long runs without a line break, so that lines cross 255 bytes and blocks.
        const unsigned breaks = 1 + random() % 300;
        for (int k = 0; k < length; ++k)
            content.push_back(random() % breaks == 0 ? '\n' : alphabet[random() % sizeof alphabet]);
        const int max_lines = static_cast<int>(random() % 80);
        ASSERT_EQ(copied_by_copy_lines(content, max_lines), copied_by_fgets(content, max_lines))
            << "round " << round << ", " << max_lines << " lines";
    }
}
