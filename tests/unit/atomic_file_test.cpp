#include "sandbox.h"

#include "core/atomic_file.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class AtomicFile : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/var/run/korel/out.csv", "old\n");
    }
};

TEST_F(AtomicFile, CommitReplacesTargetWholeAndRemovesTemporaryName)
{
    atomic_file f("/tmp/ruvo.tmp");
    ASSERT_TRUE(f.is_open());
    fputs("new line\n", f.stream());
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n"); // not yet
    EXPECT_TRUE(f.commit("/var/run/korel/out.csv"));
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "new line\n");
    EXPECT_FALSE(exists("/tmp/ruvo.tmp"));
}

TEST_F(AtomicFile, UncommittedFileIsRemovedAndTargetKept)
{
    {
        atomic_file f("/tmp/ruvo.tmp");
        ASSERT_TRUE(f.is_open());
        fputs("half", f.stream());
    }
    EXPECT_FALSE(exists("/tmp/ruvo.tmp"));
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n");
}

TEST_F(AtomicFile, SymlinkPlantedAtTemporaryNameIsNeverFollowed)
{
    write_file("/etc/victim", "precious\n");
    ASSERT_EQ(symlink(real("/etc/victim").c_str(), real("/tmp/ruvo.tmp").c_str()), 0);
    atomic_file f("/tmp/ruvo.tmp");
    ASSERT_TRUE(f.is_open());
    fputs("new\n", f.stream());
    EXPECT_TRUE(f.commit("/var/run/korel/out.csv"));
    EXPECT_EQ(read_file("/etc/victim"), "precious\n");
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "new\n");
}

TEST_F(AtomicFile, FilePlantedAtTemporaryNameIsReplacedNotAppendedTo)
{
    write_file("/tmp/ruvo.tmp", "planted content\n");
    atomic_file f("/tmp/ruvo.tmp");
    ASSERT_TRUE(f.is_open());
    fputs("new\n", f.stream());
    EXPECT_TRUE(f.commit("/var/run/korel/out.csv"));
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "new\n");
}

TEST_F(AtomicFile, DirectoryAtTemporaryNameMeansNothingIsWritten)
{
    ASSERT_EQ(mkdir(real("/tmp/ruvo.tmp").c_str(), 0755), 0);
    write_file("/tmp/ruvo.tmp/inside", "x");
    atomic_file f("/tmp/ruvo.tmp");
    EXPECT_FALSE(f.is_open());
    EXPECT_FALSE(f.commit("/var/run/korel/out.csv"));
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n");
}

TEST_F(AtomicFile, MissingTemporaryDirectoryMeansNothingIsWritten)
{
    atomic_file f("/nowhere/ruvo.tmp");
    EXPECT_FALSE(f.is_open());
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n");
}

TEST_F(AtomicFile, FailedWriteLeavesTargetUntouchedAndRemovesTemporaryFile)
{
    // A file size limit makes the writes fail the way a full file system does.
    struct rlimit old_limit;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
    void (*old_handler)(int) = signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = {16, old_limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    bool committed;
    {
        atomic_file f("/tmp/ruvo.tmp");
        ASSERT_TRUE(f.is_open());
        for (int i = 0; i < 2000; ++i)
            fputs("2024-03-05-14,812,96\n", f.stream());
        committed = f.commit("/var/run/korel/out.csv");
    }
    setrlimit(RLIMIT_FSIZE, &old_limit);
    signal(SIGXFSZ, old_handler);
    EXPECT_FALSE(committed);
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n");
    EXPECT_FALSE(exists("/tmp/ruvo.tmp"));
}

TEST_F(AtomicFile, FailedRenameRemovesTemporaryFile)
{
    atomic_file f("/tmp/ruvo.tmp");
    ASSERT_TRUE(f.is_open());
    fputs("new\n", f.stream());
    EXPECT_FALSE(f.commit("/no/such/dir/out.csv"));
    EXPECT_FALSE(exists("/tmp/ruvo.tmp"));
}

} // namespace

TEST_F(AtomicFile, FileWrittenOutInPiecesIsWholeAtCommitAndNotBefore)
{
    atomic_file f("/tmp/ruvo.tmp");
    ASSERT_TRUE(f.is_open());
    f.text() += "2024-03-05-14,1,2\n";
    f.write_gathered();
    EXPECT_EQ(f.text(), "");
    fputs("2024-03-05-13,3,4\n", f.stream());
    f.write_gathered();
    f.write_gathered(); // nothing gathered: nothing written
    f.text() += "2024-03-05-12,5,6\n";
    // The pieces went to the temporary file; the target is the old one until the commit.
    EXPECT_EQ(read_file("/tmp/ruvo.tmp"), "2024-03-05-14,1,2\n2024-03-05-13,3,4\n");
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n");
    ASSERT_TRUE(f.commit("/var/run/korel/out.csv"));
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "2024-03-05-14,1,2\n2024-03-05-13,3,4\n2024-03-05-12,5,6\n");
    EXPECT_FALSE(exists("/tmp/ruvo.tmp"));
}

TEST_F(AtomicFile, PieceThatCannotBeWrittenFailsTheCommitAndLeavesTheTarget)
{
    struct rlimit old_limit;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
    void (*old_handler)(int) = signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = {16, old_limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    bool committed;
    {
        atomic_file f("/tmp/ruvo.tmp");
        ASSERT_TRUE(f.is_open());
        f.text() += "2024-03-05-14,812,96\n"; // over the limit of 16 bytes
        f.write_gathered();
        setrlimit(RLIMIT_FSIZE, &old_limit);
        // The rest would fit now; the file is still incomplete.
        f.text() += "2024-03-05-13,1,1\n";
        committed = f.commit("/var/run/korel/out.csv");
    }
    setrlimit(RLIMIT_FSIZE, &old_limit);
    signal(SIGXFSZ, old_handler);
    EXPECT_FALSE(committed);
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n");
    EXPECT_FALSE(exists("/tmp/ruvo.tmp"));
}
