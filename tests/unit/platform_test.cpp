#include "sandbox.h"

#include <ctime>

namespace {

TEST(Platform, TimeTIsAsWideAsTheTargetsFor32BitBuilds)
{
    // The router runs a 32-bit program with a 32-bit time_t; the 32-bit test build must be
    // one too, and the host build keeps the host's 64-bit time_t.
    EXPECT_EQ(sizeof(time_t), sizeof(void*) == 4 ? 4u : 8u);
}

class PlatformSeam : public Sandbox {};

TEST_F(PlatformSeam, PathsLandUnderTheRootAndClockIsTheTests)
{
    plat.clock = 1234;
    EXPECT_EQ(sys_path("/var/run/ruvo.pid"), plat.root + "/var/run/ruvo.pid");
    EXPECT_EQ(sys_time(), 1234);
    sys_system("echo hi");
    sys_alarm(30);
    EXPECT_EQ(plat.commands, std::vector<std::string>{"echo hi"});
    EXPECT_EQ(plat.alarms, std::vector<unsigned>{30});
}

TEST(PlatformProduction, PathsAreTheDaemonsOwn)
{
    EXPECT_EQ(sys_path("/var/run/korel/wan1/usage_history.hourly"),
              "/var/run/korel/wan1/usage_history.hourly");
}

} // namespace
