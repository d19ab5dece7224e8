#include "sandbox.h"

#include "core/log.h"

#include <syslog.h>

namespace {

class LogNotice : public Sandbox {};

TEST_F(LogNotice, WritesOneLineWithIdentRuvoDaemonFacilityNoticePriority)
{
    log_notice("value %d of %s", 7, "x");
    ASSERT_EQ(plat.logs.size(), 1u);
    EXPECT_EQ(plat.logs[0].ident, "ruvo");
    EXPECT_EQ(plat.logs[0].facility, LOG_DAEMON);
    EXPECT_EQ(plat.logs[0].priority, LOG_NOTICE);
    EXPECT_EQ(plat.logs[0].text, "value 7 of x");
}

TEST_F(LogNotice, TextFromInputIsNeverInterpretedAsFormat)
{
    log_notice("name %s", "%s%n%x%%");
    ASSERT_EQ(plat.logs.size(), 1u);
    EXPECT_EQ(plat.logs[0].text, "name %s%n%x%%");
}

TEST_F(LogNotice, NullFormatWritesNothing)
{
    log_notice(nullptr);
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(LogNotice, LongMessageIsWrittenWhole)
{
    std::string long_text(1000, 'a');
    log_notice("%s", long_text.c_str());
    ASSERT_EQ(plat.logs.size(), 1u);
    EXPECT_EQ(plat.logs[0].text, long_text);
}

} // namespace
