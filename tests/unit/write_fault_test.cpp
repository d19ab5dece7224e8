// Writes of file data through the platform: a platform whose write fails as a full file
// system does (ENOSPC), or writes less than it is given, and the whole-file replacement
// (core/atomic_file) that must then keep the old target whole and leave no temporary file;
// a whole backup written while "/tmp" is full; and the production platform, whose write is
// the plain system call.
#include "sandbox.h"

#include "core/atomic_file.h"
#include "core/wan_usage.h"
#include "history/backup.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// The sandbox's platform with a write of its own: it fails with ENOSPC after `room` bytes
// (as a file system that fills up), and writes at most `piece` bytes per call (0: all).
// Everything else is the sandbox's.
struct faulty_platform final : platform {
    test_platform* inner = nullptr;
    long long room = -1; // bytes that still fit; -1: no limit
    size_t piece = 0;
    bool zero_writes = false; // every write writes nothing and reports no error
    int calls = 0;
    int failed = 0;

    std::string path(const char* absolute) const override { return inner->path(absolute); }
    time_t now() override { return inner->now(); }
    void log(const char* ident, int facility, int priority, const char* text) override
    {
        inner->log(ident, facility, priority, text);
    }
    int run(const char* command) override { return inner->run(command); }
    void arm_alarm(unsigned seconds) override { inner->arm_alarm(seconds); }
    ssize_t write(int fd, const void* data, size_t size) override
    {
        ++calls;
        if (zero_writes)
            return 0;
        if (piece > 0 && size > piece)
            size = piece;
        if (room >= 0 && static_cast<long long>(size) > room)
            size = static_cast<size_t>(room);
        if (size == 0) {
            ++failed;
            errno = ENOSPC;
            return -1;
        }
        ssize_t n = ::write(fd, data, size);
        if (n > 0 && room >= 0)
            room -= n;
        return n;
    }
};

constexpr const char* TARGET = "/var/run/korel/out.csv";
constexpr const char* TEMPORARY = "/tmp/ruvo.tmp";
// The old target: bytes that a rewrite would change anywhere.
const std::string OLD_CONTENT = "2024-03-05-13,812,96\n2024-03-05-12,800,95\n";

// Many lines, so that the stream's buffer is written out more than once.
std::string long_content()
{
    std::string text;
    for (int i = 0; i < 3000; ++i)
        text += "2024-03-05-" + std::to_string(10 + i % 10) + "," + std::to_string(i) + ",96\n";
    return text;
}

class WriteFault : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file(TARGET, OLD_CONTENT);
        faulty.inner = &plat;
        platform_install(&faulty);
    }

    // Writes text through an atomic_file and commits it over TARGET.
    bool replace_target(const std::string& text)
    {
        atomic_file f(TEMPORARY);
        if (!f.is_open())
            return false;
        fputs(text.c_str(), f.stream());
        return f.commit(TARGET);
    }

    faulty_platform faulty;
};

TEST_F(WriteFault, NoSpaceForAnyByte_CommitFailsTargetKeptTemporaryRemoved)
{
    faulty.room = 0;
    EXPECT_FALSE(replace_target("2024-03-05-14,900,97\n"));
    EXPECT_EQ(read_file(TARGET), OLD_CONTENT);
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_GE(faulty.failed, 1);
}

TEST_F(WriteFault, SpaceRunsOutInTheMiddle_CommitFailsTargetKeptTemporaryRemoved)
{
    const std::string text = long_content();
    faulty.room = 10000; // part of the file reaches the temporary file, then the space is gone
    EXPECT_FALSE(replace_target(text));
    EXPECT_EQ(read_file(TARGET), OLD_CONTENT);
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_EQ(faulty.room, 0);
}

TEST_F(WriteFault, NoSpace_UncommittedFileIsRemovedAndTargetKept)
{
    faulty.room = 0;
    {
        atomic_file f(TEMPORARY);
        ASSERT_TRUE(f.is_open());
        fputs(long_content().c_str(), f.stream());
    }
    EXPECT_EQ(read_file(TARGET), OLD_CONTENT);
    EXPECT_FALSE(exists(TEMPORARY));
}

TEST_F(WriteFault, ShortWritesAreContinuedUntilTheWholeFileIsWritten)
{
    const std::string text = long_content();
    faulty.piece = 7;
    EXPECT_TRUE(replace_target(text));
    EXPECT_EQ(read_file(TARGET), text);
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_GT(faulty.calls, static_cast<int>(text.size() / 7) - 1);
}

TEST_F(WriteFault, ShortWriteThenNoSpace_CommitFailsCleanly)
{
    faulty.piece = 5;
    faulty.room = 12; // two pieces of 5 and one of 2, then ENOSPC
    EXPECT_FALSE(replace_target("2024-03-05-14,900,97\n"));
    EXPECT_EQ(read_file(TARGET), OLD_CONTENT);
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_EQ(faulty.calls, 4);
}

TEST_F(WriteFault, WriteThatWritesNothing_FailsInsteadOfAskingForever)
{
    faulty.zero_writes = true;
    EXPECT_FALSE(replace_target("2024-03-05-14,900,97\n"));
    EXPECT_EQ(read_file(TARGET), OLD_CONTENT);
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_EQ(faulty.calls, 1);
}

TEST_F(WriteFault, SpaceAgain_NextReplacementWorks)
{
    faulty.room = 0;
    EXPECT_FALSE(replace_target("2024-03-05-14,900,97\n"));
    faulty.room = -1;
    EXPECT_TRUE(replace_target("2024-03-05-14,900,97\n"));
    EXPECT_EQ(read_file(TARGET), "2024-03-05-14,900,97\n");
}

TEST_F(WriteFault, BackupWhileTmpIsFull_KeepsEveryOldBackupFileByteForByte)
{
    const std::vector<std::string> files = {
        "/tmp/ruvo_backup/wan1/ruvo.hourly.csv", "/tmp/ruvo_backup/wan1/ruvo.daily.csv",
        "/tmp/ruvo_backup/wan1/ruvo.monthly.csv", "/tmp/ruvo_backup/wan1/ruvo.billing.csv",
        "/tmp/ruvo_backup/lifetime_usage"};
    const std::vector<std::string> old = {"2024-03-05-13,1048576,2097152\n2024-03-05-12,1048576,0\n",
                                          "2024-03-05,3145728,0\n2024-03-04,1048576,1048576\n",
                                          "2024-03-01,2024-03-05,3145728,0\n2024-02-01,2024-02-29,1048576,0\n",
                                          "2024-02-29,2024-03-05,3145728,0\n",
                                          "1709078400\n1234567890123\n98765432101\n"};
    for (size_t i = 0; i < files.size(); ++i)
        write_file(files[i], old[i]);
    write_file("/var/run/korel/wan1/usage_history.monthly", "2024-02-01,2024-02-29,1,0\n");
    write_file("/var/run/korel/lifetime_usage.init", "1709078400\n1234567890123\n98765432101\n");
    plat.clock = local(2024, 3, 5, 14, 20);

    wan_usage record{};
    record.wan_index = 0;
    record.sim_slot_index = -1;
    record.hour_bucket_time = local(2024, 3, 5, 14);
    record.hour_bytes[0] = 5 * (1ull << 20);
    record.day_bucket_time = local(2024, 3, 5);
    record.month_start = local(2024, 3, 1);
    record.billing_start = local(2024, 2, 29);
    record.sample_time = plat.clock;
    localtime_r(&record.sample_time, &record.sample_tm);

    faulty.room = 0;
    backup_usage(&record, 1);
    for (size_t i = 0; i < files.size(); ++i)
        EXPECT_EQ(read_file(files[i]), old[i]) << files[i];
    EXPECT_FALSE(exists(TEMPORARY));
    EXPECT_GE(faulty.failed, 5);

    // With space again the same backup replaces them.
    faulty.room = -1;
    backup_usage(&record, 1);
    EXPECT_NE(read_file(files[0]), old[0]);
    EXPECT_EQ(read_file(files[0]).substr(0, 14), "2024-03-05-14,");
}

TEST_F(WriteFault, PlatformThatKeepsTheDefaultWrite_WritesThroughTheSystemCall)
{
    // The sandbox's own platform does not replace write: the plain system call.
    platform_install(&plat);
    const std::string text = long_content();
    EXPECT_TRUE(replace_target(text));
    EXPECT_EQ(read_file(TARGET), text);
}

class ProductionWrite : public Sandbox {};

TEST_F(ProductionWrite, SysWriteIsTheSystemCall_BytesAndErrorsAsWrite2)
{
    platform_install(nullptr); // the production platform
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    EXPECT_EQ(sys_write(pipe_ends[1], "abc\n", 4), 4);
    char got[8] = {};
    EXPECT_EQ(read(pipe_ends[0], got, sizeof got), 4);
    EXPECT_STREQ(got, "abc\n");
    close(pipe_ends[0]);
    close(pipe_ends[1]);

    errno = 0;
    EXPECT_EQ(sys_write(pipe_ends[1], "x", 1), -1); // closed: EBADF, as write(2) says
    EXPECT_EQ(errno, EBADF);
}

TEST_F(ProductionWrite, AtomicFileOnTheProductionPlatform_ReplacesTheTargetWhole)
{
    // The production platform takes paths as they stand: the sandbox's real paths.
    write_file("/tmp/.keep", "");
    write_file(TARGET, OLD_CONTENT);
    platform_install(nullptr);
    const std::string text = long_content();
    {
        atomic_file f(real(TEMPORARY).c_str());
        ASSERT_TRUE(f.is_open());
        fputs(text.c_str(), f.stream());
        EXPECT_TRUE(f.commit(real(TARGET).c_str()));
    }
    EXPECT_EQ(read_file(TARGET), text);
    EXPECT_FALSE(exists(TEMPORARY));
}

} // namespace
