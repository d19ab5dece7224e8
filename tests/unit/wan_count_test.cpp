#include "sandbox.h"

#include "core/wan_count.h"

namespace {

class WanCount : public Sandbox {
protected:
    int count_for(const std::string& content)
    {
        write_file("/etc/VELTO_wanno", content);
        return read_wan_count();
    }
};

TEST_F(WanCount, MissingFileGives2) { EXPECT_EQ(read_wan_count(), 2); }
TEST_F(WanCount, OneGives2) { EXPECT_EQ(count_for("1\n"), 2); }
TEST_F(WanCount, ZeroGives2) { EXPECT_EQ(count_for("0\n"), 2); }
TEST_F(WanCount, TextGives2) { EXPECT_EQ(count_for("four\n"), 2); }
TEST_F(WanCount, NothingGives2) { EXPECT_EQ(count_for(""), 2); }
TEST_F(WanCount, FourGives4) { EXPECT_EQ(count_for("4\n"), 4); }
TEST_F(WanCount, NegativeGives2) { EXPECT_EQ(count_for("-3\n"), 2); }
TEST_F(WanCount, LeadingBlankLinesAndTrailingTextAreSkippedAsByPercentD)
{
    EXPECT_EQ(count_for("\n  \t5 wans\n"), 5);
    EXPECT_EQ(count_for("+3"), 3);
}
TEST_F(WanCount, NumberBeyondIntRangeIsHeldAtIntMax)
{
    EXPECT_EQ(count_for("99999999999999999999999\n"), 2147483647);
    EXPECT_EQ(count_for("-99999999999999999999999\n"), 2);
}

} // namespace
