#include "sandbox.h"

#include "core/atomic_file.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A limit on the size of the files the process writes, so that writes fail the way they
// fail on a full file system (with SIGXFSZ ignored), until lift() or the end of its scope.
class file_size_limit {
public:
    explicit file_size_limit(rlim_t bytes)
    {
        handler_ = signal(SIGXFSZ, SIG_IGN);
        set_ = getrlimit(RLIMIT_FSIZE, &old_) == 0;
        const struct rlimit small = {bytes, old_.rlim_max};
        set_ = set_ && setrlimit(RLIMIT_FSIZE, &small) == 0;
    }
    ~file_size_limit()
    {
        lift();
        signal(SIGXFSZ, handler_);
    }
    file_size_limit(const file_size_limit&) = delete;
    file_size_limit& operator=(const file_size_limit&) = delete;

    bool set() const { return set_; }
    void lift()
    {
        if (set_)
            setrlimit(RLIMIT_FSIZE, &old_);
        set_ = false;
    }

private:
    struct rlimit old_ = {};
    void (*handler_)(int) = SIG_DFL;
    bool set_ = false;
};

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
    bool committed;
    {
        file_size_limit limit(16);
        ASSERT_TRUE(limit.set());
        atomic_file f("/tmp/ruvo.tmp");
        ASSERT_TRUE(f.is_open());
        for (int i = 0; i < 2000; ++i)
            fputs("2024-03-05-14,812,96\n", f.stream());
        committed = f.commit("/var/run/korel/out.csv");
    }
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
    bool committed;
    {
        file_size_limit limit(16);
        ASSERT_TRUE(limit.set());
        atomic_file f("/tmp/ruvo.tmp");
        ASSERT_TRUE(f.is_open());
        f.text() += "2024-03-05-14,812,96\n"; // over the limit of 16 bytes
        f.write_gathered();
        limit.lift();
        // The rest would fit now; the file is still incomplete.
        f.text() += "2024-03-05-13,1,1\n";
        committed = f.commit("/var/run/korel/out.csv");
    }
    EXPECT_FALSE(committed);
    EXPECT_EQ(read_file("/var/run/korel/out.csv"), "old\n");
    EXPECT_FALSE(exists("/tmp/ruvo.tmp"));
}
