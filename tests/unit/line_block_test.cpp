#include "sandbox.h"

#include "core/atomic_file.h"
#include "core/line_block.h"

#include <cstring>
#include <string>
#include <sys/stat.h>

namespace {

class LineBlock : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/var/run/korel/out.csv", "old\n");
    }
};

// Line n of the test files: "n,<n times 'x'>\n" cut to at most `longest` bytes.
std::string test_line(int n, size_t longest)
{
    std::string line = std::to_string(n) + "," + std::string(static_cast<size_t>(n % 97), 'x') + "\n";
    if (line.size() > longest)
        line = line.substr(0, longest - 1) + "\n";
    return line;
}

// Writes each line at room() as a writer does: a whole copy of `longest` bytes (the bytes
// past the line are written over by the next one), then the line's end.
void write_lines(line_block& block, size_t longest, std::string* expected, int count)
{
    for (int n = 0; n < count; ++n) {
        const std::string line = test_line(n, longest);
        char* at = block.room();
        memset(at, '#', longest);
        memcpy(at, line.data(), line.size());
        block.written(at + line.size());
        *expected += line;
    }
}

TEST_F(LineBlock, ManyLinesAreWrittenOutInPiecesAndCommittedWholeAndInOrder)
{
    constexpr size_t LONGEST = 120;
    std::string expected;
    atomic_file f("/tmp/ruvo.tmp");
    ASSERT_TRUE(f.is_open());
    line_block block(f, LONGEST, 0);
    // Over 200 KiB: many blocks of 8 KiB and three pieces of 64 KiB.
    write_lines(block, LONGEST, &expected, 4000);
    ASSERT_GT(expected.size(), 3 * FILE_PIECE);
    // What the temporary file holds is the start of the content, at least one piece of it,
    // and what is still gathered is no more than a piece and a block.
    const std::string written = read_file("/tmp/ruvo.tmp");
    EXPECT_GE(written.size(), FILE_PIECE);
    EXPECT_EQ(written, expected.substr(0, written.size()));
    EXPECT_LE(expected.size() - written.size(), FILE_PIECE + 8192);
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n");
    block.finish();
    ASSERT_TRUE(f.commit("/var/run/korel/out.csv"));
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), expected);
}

TEST_F(LineBlock, LinesOfTheLongestLengthAreNeverCutAtTheBlocksEnd)
{
    // 8192 is no multiple of 100: lines of exactly the longest length meet the block's end
    // at every place.
    constexpr size_t LONGEST = 100;
    std::string expected;
    atomic_file f("/tmp/ruvo.tmp");
    ASSERT_TRUE(f.is_open());
    line_block block(f, LONGEST, 0);
    for (int n = 0; n < 500; ++n) {
        std::string line = std::to_string(n);
        line += std::string(LONGEST - 1 - line.size(), 'y') + "\n";
        char* at = block.room();
        memcpy(at, line.data(), LONGEST);
        block.written(at + LONGEST);
        expected += line;
    }
    block.finish();
    ASSERT_TRUE(f.commit("/var/run/korel/out.csv"));
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), expected);
}

TEST_F(LineBlock, NoLinesLeaveAnEmptyContent)
{
    atomic_file f("/tmp/ruvo.tmp");
    ASSERT_TRUE(f.is_open());
    line_block block(f, 64, 1000);
    block.finish();
    EXPECT_EQ(f.text(), "");
    ASSERT_TRUE(f.commit("/var/run/korel/out.csv"));
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "");
}

} // namespace
