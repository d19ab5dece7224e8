// copy_lines reads in blocks but copies exactly what fgets through a 256-byte buffer and
// fputs of every piece would.
#include "core/read_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

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
        std::string from_text;
        copy_lines(from_text, content, max_lines);
        ASSERT_EQ(from_text, copied_by_fgets(content, max_lines)) << "round " << round << ", from the text";
    }
}

namespace {

// A stream over content whose reads hand out at most chunk bytes each and, once failing_at
// bytes have been read, fail with error (0: never).
struct scripted_source {
    std::string content;
    size_t chunk;
    size_t failing_at;
    int error;
    size_t at = 0;
};

ssize_t scripted_read(void* cookie, char* buffer, size_t size)
{
    scripted_source& s = *static_cast<scripted_source*>(cookie);
    if (s.error != 0 && s.at >= s.failing_at) {
        errno = s.error;
        return -1;
    }
    size_t n = std::min({size, s.chunk, s.content.size() - s.at});
    if (s.error != 0)
        n = std::min(n, s.failing_at - s.at);
    memcpy(buffer, s.content.data() + s.at, n);
    s.at += n;
    return static_cast<ssize_t>(n);
}

FILE* scripted_stream(scripted_source& source)
{
    cookie_io_functions_t functions = {};
    functions.read = scripted_read;
    return fopencookie(&source, "r", functions);
}

// Every piece a reader gives, as the whole line buffer after the call (filled with 0x5a
// before it), so that the bytes after a NUL byte and the terminator's place compare too.
template <typename Next>
std::vector<std::string> pieces(Next next, size_t size)
{
    std::vector<std::string> out;
    std::string buffer(size, '\x5a');
    while (next(&buffer[0], size)) {
        out.push_back(buffer);
        buffer.assign(size, '\x5a');
        if (out.size() > 100000)
            break;
    }
    return out;
}

std::vector<std::string> pieces_by_fgets(scripted_source source, size_t size)
{
    FILE* in = scripted_stream(source);
    auto out = pieces([in](char* line, size_t n) { return fgets(line, static_cast<int>(n), in) != nullptr; }, size);
    fclose(in);
    return out;
}

std::vector<std::string> pieces_by_line_reader(scripted_source source, size_t size)
{
    FILE* in = scripted_stream(source);
    auto reader = std::make_unique<line_reader>(in);
    auto out = pieces([&reader](char* line, size_t n) { return reader->next(line, n); }, size);
    fclose(in);
    return out;
}

std::string random_content(std::mt19937& random, size_t length)
{
    // Mostly short lines, some long ones, NUL bytes and lines without an end.
    static const char alphabet[] = "0123456789.:/, abcdef\n\n\n";
    std::string content;
    while (content.size() < length) {
        const unsigned pick = random() % 100;
        if (pick < 2)
            content.push_back('\0');
        else if (pick < 4)
            content.append(300 + random() % 3000, 'x');
        else
            content.push_back(alphabet[random() % (sizeof alphabet - 1)]);
    }
    return content;
}

} // namespace

TEST(LineReader, SameLinesAsFgetsForRandomContentAndEveryBufferSize)
{
    std::mt19937 random(20261124);
    for (int round = 0; round < 40; ++round) {
        // Up to several blocks of the reader, read by the stream in chunks of any size.
        scripted_source source{random_content(random, 1 + random() % 40000), 1 + random() % 20000, 0, 0};
        for (size_t size : {2u, 3u, 17u, 256u, 1024u}) {
            ASSERT_EQ(pieces_by_line_reader(source, size), pieces_by_fgets(source, size))
                << "round " << round << ", size " << size;
        }
    }
}

TEST(LineReader, LinesOfClientCountersAsFgets)
{
    std::string content = "timestamp:1700000000\n";
    for (int i = 0; i < 5000; ++i)
        content += "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ":" +
                   std::to_string(1000003LL * i) + "/" + std::to_string(7LL * i) + "\n";
    scripted_source source{content, 4096, 0, 0};
    const auto lines = pieces_by_line_reader(source, 256);
    ASSERT_EQ(lines.size(), 5001u);
    EXPECT_EQ(std::string(lines[2].c_str()), "10.1.0.1:1000003/7\n");
    EXPECT_EQ(lines, pieces_by_fgets(source, 256));
}

TEST(LineReader, AFailedReadDropsThePieceItCutsAsFgets)
{
    // The read fails in the middle of the third line: the first two are given, the third
    // is not, and nothing after it.
    scripted_source source{"first\nsecond\nthird line\nfourth\n", 64, 17, EIO};
    const auto lines = pieces_by_line_reader(source, 256);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_STREQ(lines[0].c_str(), "first\n");
    EXPECT_STREQ(lines[1].c_str(), "second\n");
    EXPECT_EQ(lines, pieces_by_fgets(source, 256));
    // A failure right at the end of a line loses nothing before it.
    scripted_source at_line_end{"first\nsecond\n", 64, 13, EIO};
    EXPECT_EQ(pieces_by_line_reader(at_line_end, 256).size(), 2u);
}

TEST(LineReader, EmptyFileGivesNothing)
{
    scripted_source source{"", 64, 0, 0};
    EXPECT_TRUE(pieces_by_line_reader(source, 256).empty());
}

TEST(LineReader, ABufferTooSmallForAnyTextGivesNothing)
{
    scripted_source source{"abc\n", 64, 0, 0};
    FILE* in = scripted_stream(source);
    line_reader reader(in);
    char line[1];
    EXPECT_FALSE(reader.next(line, sizeof line));
    fclose(in);
}

TEST(CopyLines, FromTextWithoutNulBytesAndLinesAroundOnePiece)
{
    // Content such as the daemon's own files, with lines of 1 to 300 bytes: lines of up to
    // 255 bytes are copied whole, longer ones in pieces.
    std::mt19937 random(12);
    for (int round = 0; round < 2000; ++round) {
        std::string content;
        const int lines = static_cast<int>(random() % 70);
        const unsigned longest = round % 2 ? 255 : 300;
        for (int k = 0; k < lines; ++k) {
            content.append(random() % longest, 'a' + static_cast<char>(k % 26));
            content.push_back('\n');
        }
        if (random() % 3 == 0)
            content.append(1 + random() % 300, 'z'); // a last line without a break
        const int max_lines = static_cast<int>(random() % 80);
        std::string from_text;
        copy_lines(from_text, content, max_lines);
        ASSERT_EQ(from_text, copied_by_fgets(content, max_lines)) << "round " << round;
    }
}

namespace {

// Pieces given in place, as (bytes, terminated) pairs compared with fgets's: each piece's
// bytes must be those fgets wrote, followed by its NUL.
void expect_in_place_as_fgets(const scripted_source& source, size_t size, bool mixed)
{
    const std::vector<std::string> expected = pieces_by_fgets(source, size);
    scripted_source copy = source;
    FILE* in = scripted_stream(copy);
    auto reader = std::make_unique<line_reader>(in);
    std::vector<char> spare(size, '\x5a');
    size_t k = 0;
    for (;; ++k) {
        size_t length = 0;
        const char* piece = nullptr;
        std::string copied(size, '\x5a');
        if (mixed && k % 3 == 1) {
            // Calls of next between them: the byte a piece in place stood NUL in is back.
            if (!reader->next(&copied[0], size))
                break;
            ASSERT_LT(k, expected.size());
            ASSERT_EQ(copied, expected[k]) << "piece " << k;
            continue;
        }
        piece = reader->next_in_place(spare.data(), size, &length);
        if (!piece)
            break;
        ASSERT_LT(k, expected.size()) << "more pieces than fgets gives";
        ASSERT_LT(length, size);
        ASSERT_EQ(std::string(piece, length), expected[k].substr(0, length)) << "piece " << k;
        ASSERT_EQ(piece[length], '\0');
        ASSERT_EQ(expected[k][length], '\0') << "piece " << k << " has another length";
    }
    EXPECT_EQ(k, expected.size());
    fclose(in);
}

} // namespace

TEST(LineReader, InPlaceSameLinesAsFgetsForRandomContentAndEveryBufferSize)
{
    std::mt19937 random(20261126);
    for (int round = 0; round < 40; ++round) {
        scripted_source source{random_content(random, 1 + random() % 40000), 1 + random() % 20000, 0, 0};
        for (size_t size : {2u, 3u, 17u, 256u, 1024u}) {
            SCOPED_TRACE("round " + std::to_string(round) + ", size " + std::to_string(size));
            expect_in_place_as_fgets(source, size, round % 2 == 1);
        }
    }
}

TEST(LineReader, InPlaceAFailedReadDropsThePieceItCutsAsFgets)
{
    expect_in_place_as_fgets(scripted_source{"first\nsecond\nthird line\nfourth\n", 64, 17, EIO}, 256, false);
    expect_in_place_as_fgets(scripted_source{"first\nsecond\n", 64, 13, EIO}, 256, false);
    // A file of exactly one block and one of a line ending right at a block's end.
    expect_in_place_as_fgets(scripted_source{std::string(8191, 'a') + "\n", 8192, 0, 0}, 9000, false);
    expect_in_place_as_fgets(scripted_source{std::string(8191, 'a') + "\nb\n", 8192, 0, 0}, 9000, true);
    expect_in_place_as_fgets(scripted_source{std::string(20000, 'a'), 8192, 0, 0}, 1024, false);
    // The same at the reader's own block size.
    constexpr size_t block = line_reader::BLOCK;
    expect_in_place_as_fgets(scripted_source{std::string(block - 1, 'a') + "\n", block, 0, 0}, block + 100, false);
    expect_in_place_as_fgets(scripted_source{std::string(block - 1, 'a') + "\nb\n", block, 0, 0}, block + 100, true);
    expect_in_place_as_fgets(scripted_source{std::string(block - 1, 'a') + "\nb\n", block, 0, 0}, 256, true);
    expect_in_place_as_fgets(scripted_source{std::string(3 * block, 'a'), block, 0, 0}, 1024, false);
}

TEST(LineReader, InPlaceSameLinesAsFgetsOverSeveralBlocks)
{
    std::mt19937 random(20261125);
    for (int round = 0; round < 6; ++round) {
        scripted_source source{random_content(random, 2 * line_reader::BLOCK + random() % 100000),
                               1 + random() % 20000, 0, 0};
        for (size_t size : {17u, 256u, 1024u}) {
            SCOPED_TRACE("round " + std::to_string(round) + ", size " + std::to_string(size));
            expect_in_place_as_fgets(source, size, round % 2 == 1);
        }
    }
}
