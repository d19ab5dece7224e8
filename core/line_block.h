// The lines of a large file (the client and MAC usage files: thousands of lines every tick)
// formatted straight into a block on the stack. The block is appended to the file's content
// whenever it could not hold one more line, and the content is written out a piece
// (FILE_PIECE) at a time, so that a line costs no call and the writer holds one piece of the
// file rather than the whole.
#pragma once

#include "core/atomic_file.h"

#include <algorithm>
#include <cstddef>
#include <string>

class line_block {
public:
    // longest: the most bytes a line can take; expected: about how many bytes the file
    // will have, for the room taken for its content at once.
    line_block(atomic_file& out, size_t longest, size_t expected)
        : out_(out), last_start_(block_ + sizeof block_ - longest)
    {
        out.text().reserve(std::min(expected, FILE_PIECE) + sizeof block_);
    }
    line_block(const line_block&) = delete;
    line_block& operator=(const line_block&) = delete;

    // Where the next line is to be written: room for the longest line.
    char* room()
    {
        if (at_ > last_start_)
            pass_on();
        return at_;
    }
    // The line written at room() ends at end.
    void written(char* end) { at_ = end; }
    // Appends what the block holds to the file's content; call it before the commit.
    void finish()
    {
        out_.text().append(block_, static_cast<size_t>(at_ - block_));
        at_ = block_;
    }

private:
    void pass_on()
    {
        finish();
        if (out_.text().size() >= FILE_PIECE)
            out_.write_gathered();
    }

    atomic_file& out_;
    char block_[8192];
    char* at_ = block_;
    char* const last_start_;
};
