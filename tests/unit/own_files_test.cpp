// The daemon's own files kept in memory: the kept text is always what reading the file
// again gives.
#include "core/own_files.h"

#include "sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* HISTORY = "/var/run/korel/wan1/usage_history.daily";

class OwnFiles : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        forget_own_files();
    }
    void TearDown() override
    {
        forget_own_files();
        Sandbox::TearDown();
    }

    std::string text_of(const char* path)
    {
        const std::string* text = own_file_text(path);
        return text ? *text : "<none>";
    }

    // "syscr" of /proc/self/io: the read system calls the process has made (read with one
    // open, read and close, the same calls every time).
    static long long read_calls()
    {
        char text[1024] = {};
        const int fd = open("/proc/self/io", O_RDONLY);
        if (fd < 0)
            return -1;
        const ssize_t n = read(fd, text, sizeof text - 1);
        close(fd);
        if (n <= 0)
            return -1;
        const char* at = strstr(text, "syscr: ");
        return at ? atoll(at + 7) : -1;
    }

    // Replaces the file by rename, as the daemon does.
    void replace(const std::string& absolute, const std::string& content)
    {
        write_file(absolute + ".new", content);
        ASSERT_EQ(rename(real(absolute + ".new").c_str(), real(absolute).c_str()), 0);
    }
};

} // namespace

TEST_F(OwnFiles, MissingFileGivesNothing) { EXPECT_EQ(text_of(HISTORY), "<none>"); }

TEST_F(OwnFiles, TheWholeFileIsGiven)
{
    std::string content;
    for (int day = 0; day < 400; ++day)
        content += "2024-01-" + std::to_string(day) + ",12345,678\n";
    write_file(HISTORY, content);
    EXPECT_EQ(text_of(HISTORY), content);
}

TEST_F(OwnFiles, AnUnchangedFileIsGivenFromMemory)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    ASSERT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    // The process's count of read system calls: a kept text is given without reading.
    const long long before_kept = read_calls();
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    const long long kept_reads = read_calls() - before_kept;
    forget_own_files();
    const long long before_read = read_calls();
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    const long long fresh_reads = read_calls() - before_read;
    // Each count includes the reads of /proc/self/io itself, the same both times.
    EXPECT_LT(kept_reads, fresh_reads);
}

TEST_F(OwnFiles, AFileReplacedByRenameIsReadAgain)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    // The same size: only the new inode tells.
    replace(HISTORY, "2024-03-05,11,3\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,11,3\n");
}

TEST_F(OwnFiles, AFileEditedInPlaceIsReadAgain)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    // Appended to in place: the size and the times change.
    FILE* f = fopen(real(HISTORY).c_str(), "a");
    ASSERT_NE(f, nullptr);
    fputs("2024-03-03,9,1\n", f);
    fclose(f);
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,10,2\n2024-03-03,9,1\n");
}

TEST_F(OwnFiles, AFileThatDisappearsIsForgotten)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    ASSERT_EQ(unlink(real(HISTORY).c_str()), 0);
    EXPECT_EQ(text_of(HISTORY), "<none>");
    write_file(HISTORY, "2024-03-05,1,1\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,1,1\n");
}

TEST_F(OwnFiles, AFifoIsReadEveryTimeWithoutBlocking)
{
    ASSERT_EQ(system(("mkdir -p " + real("/var/run/korel/wan1")).c_str()), 0);
    ASSERT_EQ(mkfifo(real(HISTORY).c_str(), 0644), 0);
    // No writer: reads as an empty file, and is not kept.
    EXPECT_EQ(text_of(HISTORY), "");
    EXPECT_EQ(text_of(HISTORY), "");
}

TEST_F(OwnFiles, TheSamePathUnderAnotherRootIsAnotherFile)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    const std::string first_root = plat.root;
    plat.root = first_root + "/other";
    write_file(HISTORY, "2024-03-04,99,9\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,99,9\n");
    plat.root = first_root;
}

namespace {

// From the first tick on, the kept files are watched: a text is given without a look at
// the file, and what changed it is taken in at the next tick's check.
class WatchedOwnFiles : public OwnFiles {
protected:
    void SetUp() override
    {
        OwnFiles::SetUp();
        check_own_files();
    }

    // Rewrites the file in place with content of the same size and gives it back its
    // modification time, which a check by stat alone could take for the old file.
    void rewrite_in_place(const char* absolute, const std::string& content)
    {
        struct stat before;
        ASSERT_EQ(stat(real(absolute).c_str(), &before), 0);
        const int fd = open(real(absolute).c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
        const struct timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(futimens(fd, times), 0);
        close(fd);
    }

    // Writes content over path as the daemon writes a file of its own.
    void commit(const char* absolute, const std::string& content)
    {
        atomic_file out("/tmp/ruvo.tmp");
        ASSERT_TRUE(out.is_open());
        out.text() += content;
        ASSERT_TRUE(commit_own_file(out, absolute));
    }
};

} // namespace

TEST_F(WatchedOwnFiles, AWatchedFileIsGivenWithoutALookUntilTheNextCheck)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    ASSERT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    rewrite_in_place(HISTORY, "2024-03-04,99,9\n");
    // Within the tick the kept text stands: the file is not looked at again.
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    check_own_files();
    // Same size, same modification time: only the watch saw the write.
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,99,9\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,99,9\n");
}

TEST_F(WatchedOwnFiles, AFileReplacedByRenameIsReadAgainAfterTheCheck)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    ASSERT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    replace(HISTORY, "2024-03-05,11,3\n");
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,11,3\n");
}

TEST_F(WatchedOwnFiles, AFileRemovedIsGoneAfterTheCheck)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    ASSERT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    ASSERT_EQ(unlink(real(HISTORY).c_str()), 0);
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "<none>");
}

TEST_F(WatchedOwnFiles, AFileCommittedIsKeptAndAnEditOfItIsSeenAfterTheCheck)
{
    write_file("/tmp/.keep", "");
    write_file(HISTORY, "2024-03-04,10,2\n");
    ASSERT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    commit(HISTORY, "2024-03-05,1,1\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,1,1\n");
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,1,1\n");
    rewrite_in_place(HISTORY, "2024-03-05,7,7\n");
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,7,7\n");
}

TEST_F(WatchedOwnFiles, AFileReplacedByAnotherWriterOfTheDaemonIsReadAgainAtOnce)
{
    write_file("/tmp/.keep", "");
    write_file(HISTORY, "2024-03-04,10,2\n");
    ASSERT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    // A plain commit, not commit_own_file (as the restore from backups writes a history).
    atomic_file out("/tmp/ruvo.tmp");
    ASSERT_TRUE(out.is_open());
    out.text() += "2024-03-06,2,2\n";
    ASSERT_TRUE(out.commit(HISTORY));
    EXPECT_EQ(text_of(HISTORY), "2024-03-06,2,2\n");
}

TEST_F(WatchedOwnFiles, AFileCommittedTickAfterTickIsLookedAtEachTimeItIsAskedFor)
{
    // Committed in two ticks in a row, the file is checked by stat and not watched: an edit
    // is seen at the next ask, within the tick.
    write_file("/tmp/.keep", "");
    write_file(HISTORY, "2024-03-04,10,2\n");
    commit(HISTORY, "2024-03-05,1,1\n");
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,1,1\n");
    commit(HISTORY, "2024-03-05,2,2\n");
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,2,2\n");
    rewrite_in_place(HISTORY, "2024-03-05,8,8\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,8,8\n");
    replace(HISTORY, "2024-03-06,9,9\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-06,9,9\n");
}

TEST_F(WatchedOwnFiles, AFileNotCommittedForATickIsWatchedAgain)
{
    // A tick without a commit, and the file is watched again when next asked for: given
    // without a look until the next check, which then sees the edit.
    write_file("/tmp/.keep", "");
    write_file(HISTORY, "2024-03-04,10,2\n");
    commit(HISTORY, "2024-03-05,1,1\n");
    check_own_files();
    commit(HISTORY, "2024-03-05,2,2\n");
    check_own_files();
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,2,2\n");
    rewrite_in_place(HISTORY, "2024-03-05,8,8\n");
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,2,2\n");
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "2024-03-05,8,8\n");
}

TEST_F(WatchedOwnFiles, TwoNamesOfOneFileBothSeeAnEdit)
{
    constexpr const char* OTHER = "/var/run/korel/wan1/usage_history.monthly";
    write_file(HISTORY, "2024-03-04,10,2\n");
    ASSERT_EQ(link(real(HISTORY).c_str(), real(OTHER).c_str()), 0);
    ASSERT_EQ(text_of(HISTORY), "2024-03-04,10,2\n");
    ASSERT_EQ(text_of(OTHER), "2024-03-04,10,2\n");
    rewrite_in_place(HISTORY, "2024-03-04,55,5\n");
    check_own_files();
    EXPECT_EQ(text_of(HISTORY), "2024-03-04,55,5\n");
    EXPECT_EQ(text_of(OTHER), "2024-03-04,55,5\n");
}

TEST_F(WatchedOwnFiles, VersionChangesOnlyWithTheText)
{
    write_file(HISTORY, "2024-03-04,10,2\n");
    uint64_t first = 0, again = 0, edited = 0;
    ASSERT_NE(own_file_text(HISTORY, &first), nullptr);
    ASSERT_NE(own_file_text(HISTORY, &again), nullptr);
    EXPECT_NE(first, 0u);
    EXPECT_EQ(first, again);
    replace(HISTORY, "2024-03-05,11,3\n");
    check_own_files();
    ASSERT_NE(own_file_text(HISTORY, &edited), nullptr);
    EXPECT_NE(edited, first);
}

TEST_F(WatchedOwnFiles, AFifoIsReadEveryTimeAndHasNoVersion)
{
    ASSERT_EQ(system(("mkdir -p " + real("/var/run/korel/wan1")).c_str()), 0);
    ASSERT_EQ(mkfifo(real(HISTORY).c_str(), 0644), 0);
    uint64_t version = 1;
    const std::string* text = own_file_text(HISTORY, &version);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(*text, "");
    EXPECT_EQ(version, 0u);
}
