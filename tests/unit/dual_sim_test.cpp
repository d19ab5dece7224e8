#include "sandbox.h"

#include "core/link_usage.h"
#include "daemon/dual_sim.h"

#include <vector>

namespace {

class DualSim : public Sandbox {
protected:
    void make_wans(int n)
    {
        wan.assign(n, wan_usage{});
        for (int i = 0; i < n; ++i) {
            wan[i].wan_index = i;
            wan[i].sim_slot_index = -1;
        }
    }
    int read_list(const std::string& content)
    {
        write_file("/etc/gobi_dual_sim_support", content);
        return read_dual_sim_links(wan.data(), static_cast<int>(wan.size()));
    }
    std::vector<wan_usage> pairs(int links)
    {
        std::vector<wan_usage> sims(2 * links, wan_usage{});
        assign_sim_pairs(wan.data(), static_cast<int>(wan.size()), sims.data(), 2 * links);
        return sims;
    }
    std::vector<wan_usage> wan;
};

TEST_F(DualSim, TwoThreeWithFourWansGivesSlotsAndFourSimRecordsInWanOrder)
{
    make_wans(4);
    int k = read_list("2 3\n");
    EXPECT_EQ(k, 2);
    EXPECT_EQ(wan[0].sim_slot_index, -1);
    EXPECT_EQ(wan[1].sim_slot_index, 0);
    EXPECT_EQ(wan[2].sim_slot_index, 1);
    EXPECT_EQ(wan[3].sim_slot_index, -1);
    std::vector<wan_usage> sims = pairs(k);
    const int expected[4][3] = {{1, 1, 0}, {1, 2, 0}, {2, 1, 1}, {2, 2, 1}}; // wan_index, sim, slot
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(sims[i].wan_index, expected[i][0]);
        EXPECT_EQ(sims[i].sim_number, expected[i][1]);
        EXPECT_EQ(sims[i].sim_slot_index, expected[i][2]);
        EXPECT_EQ(sims[i].periods_initialised, 0);
        EXPECT_EQ(sims[i].timesync_privilege, 0);
    }
}

TEST_F(DualSim, ThreeTwoGivesPairsInWanOrderSoWan3CountersLandInWan2Pair)
{
    make_wans(4);
    int k = read_list("3 2\n");
    EXPECT_EQ(k, 2);
    EXPECT_EQ(wan[2].sim_slot_index, 0);
    EXPECT_EQ(wan[1].sim_slot_index, 1);
    std::vector<wan_usage> sims = pairs(k);
    EXPECT_EQ(sims[0].wan_index, 1); // WAN 2's pair is given out first
    EXPECT_EQ(sims[0].sim_slot_index, 1);
    EXPECT_EQ(sims[2].wan_index, 2);
    EXPECT_EQ(sims[2].sim_slot_index, 0);

    // The reader finds a pair by slot index: WAN 3 (slot 0) credits the first pair.
    write_file("/etc/gpio_map/cell0_slot", "1\n");
    write_file("/proc/korel/config/link_usage", "CON:3\nOVERALL:300 400\n");
    read_link_usage(wan.data(), 4, sims.data());
    EXPECT_EQ(sims[0].last_counter[0], 300u);
    EXPECT_EQ(sims[0].last_counter[1], 400u);
    EXPECT_EQ(sims[2].last_counter[0], 0u);
}

TEST_F(DualSim, MissingFileGivesNoDualSimLinks)
{
    make_wans(2);
    EXPECT_EQ(read_dual_sim_links(wan.data(), 2), 0);
    EXPECT_EQ(wan[0].sim_slot_index, -1);
    EXPECT_EQ(wan[1].sim_slot_index, -1);
}

TEST_F(DualSim, EmptyFileGivesNoDualSimLinks)
{
    make_wans(2);
    EXPECT_EQ(read_list(""), 0);
    EXPECT_EQ(read_list("\n"), 0);
}

TEST_F(DualSim, NumbersOutsideOneToNAndTextAreIgnored)
{
    make_wans(3);
    EXPECT_EQ(read_list("0 5 -1 x 2 3abc 3\n"), 2);
    EXPECT_EQ(wan[0].sim_slot_index, -1);
    EXPECT_EQ(wan[1].sim_slot_index, 0);
    EXPECT_EQ(wan[2].sim_slot_index, 1);
}

TEST_F(DualSim, WanListedTwiceKeepsItsFirstSlotAndCountsOnce)
{
    // Counting it twice would leave a pair of SIM records that no WAN owns.
    make_wans(3);
    EXPECT_EQ(read_list("2 2 3\n"), 2);
    EXPECT_EQ(wan[1].sim_slot_index, 0);
    EXPECT_EQ(wan[2].sim_slot_index, 1);
}

TEST_F(DualSim, OnlyTheFirstLineIsRead)
{
    make_wans(4);
    EXPECT_EQ(read_list("2  \n3 4\n"), 1);
    EXPECT_EQ(wan[1].sim_slot_index, 0);
    EXPECT_EQ(wan[2].sim_slot_index, -1);
}

TEST_F(DualSim, NoPairIsGivenOutBeyondTheSimArray)
{
    make_wans(4);
    wan[0].sim_slot_index = 0;
    wan[1].sim_slot_index = 1;
    wan[2].sim_slot_index = 2;
    std::vector<wan_usage> sims(4, wan_usage{});
    assign_sim_pairs(wan.data(), 4, sims.data(), 4);
    EXPECT_EQ(sims[3].wan_index, 1);
    EXPECT_EQ(sims[3].sim_number, 2);
}

} // namespace
