#include "sandbox.h"

#include <ctime>
#include <sys/types.h>

namespace {

TEST(Platform, TimeTIsEightBytesOnEveryBuild)
{
    // 32-bit builds use glibc's 64-bit time_t, so that the daemon keeps counting after
    // 2038-01-19 03:14:07 UTC; 64-bit builds have it anyway.
    EXPECT_EQ(sizeof(time_t), 8u);
    EXPECT_EQ(sizeof(off_t), 8u);
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
