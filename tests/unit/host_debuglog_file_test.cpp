/* The host's debug log: one process and its file. */
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "host_debuglog_fixture.h"
#include "tests/support/wait.h"

namespace
{

using namespace test;
using Clock = std::chrono::steady_clock;

using HostDebugLogFile = HostDebugLogToFile;

TEST_F(HostDebugLogFile, FileIsMadeByTheFirstLineForIt)
{
    RegisterFor(6, 2);
    DebugLogSetLogFileLen(MODULE, 1000);
    EXPECT_NE(Printed(3, "console only\n"), "");
    EXPECT_EQ(FilesInFolder(), 0U);
    EXPECT_NE(Printed(2, "both\n"), "");
    EXPECT_EQ(TextsOf(File()), "[Mod] both\n");
}

TEST_F(HostDebugLogFile, FileIsAppendedTo)
{
    std::ofstream(File()) << "from before\n";
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(File()), "from before\n[Mod] text\n");
}

TEST_F(HostDebugLogFile, FullFileIsBegunAnewAndOneOlderKept)
{
    const unsigned length = 1000;
    ASSERT_NE(DebugLogSetLogFileLen(MODULE, length), 0U);
    for (unsigned i = 1000; i < 1100; i++) {
        DebugLogPrint(MODULE, 2, "line %u %s\n", i, std::string(50, '.').c_str());
        EXPECT_LE(fs::file_size(File()), length);
    }
    EXPECT_EQ(FilesInFolder(), 2U);
    EXPECT_LE(fs::file_size(File("Mod.1.log")), length);
    EXPECT_GT(fs::file_size(File("Mod.1.log")), length - 100);

    /* The two together hold the newest lines without a gap. */
    std::vector<std::string> lines = LinesOf(File("Mod.1.log"));
    for (const std::string &line : LinesOf(File())) {
        lines.push_back(line);
    }
    for (size_t i = 0; i < lines.size(); i++) {
        const std::string wanted = "line " + std::to_string(1100 - lines.size() + i) + " ";
        EXPECT_NE(lines[i].find(wanted), std::string::npos) << lines[i];
    }
}

TEST_F(HostDebugLogFile, LengthMayBeChangedLater)
{
    const std::string text(500, '.');
    for (int i = 0; i < 4; i++) {
        DebugLogPrint(MODULE, 2, "%s\n", text.c_str());
    }
    EXPECT_EQ(FilesInFolder(), 1U);
    EXPECT_GT(fs::file_size(File()), 2000U);
    ASSERT_NE(DebugLogSetLogFileLen(MODULE, 1000), 0U);
    DebugLogPrint(MODULE, 2, "fresh\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] fresh\n");
    EXPECT_EQ(LinesOf(File("Mod.1.log")).size(), 4U);
}

TEST_F(HostDebugLogFile, LineLongerThanAFileHasOneOfItsOwn)
{
    ASSERT_NE(DebugLogSetLogFileLen(MODULE, 1), 0U);
    EXPECT_EQ(DebugLogSetLogFileLen(MODULE, 0), 0U) << "no length, and no change";
    DebugLogPrint(MODULE, 2, "one\n");
    DebugLogPrint(MODULE, 2, "two\n");
    EXPECT_EQ(TextsOf(File("Mod.1.log")), "[Mod] one\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] two\n");
}

TEST_F(HostDebugLogFile, NameLeadsOutOfNoFolder)
{
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "../Mod"), 0U);
    SetLevels(2, 0, 2);
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(File(".._Mod.log")), "[Mod] text\n");
}

/* --- files that are not taken ----------------------------------------------------------------- */

/* A line finds no file, says so once, and leaves what is there as it was. */
void ExpectRefused(const std::string &reason)
{
    alarm(30); /* a line that blocks ends the test */
    CaptureStderr();
    DebugLogPrint(MODULE, 2, "one\n");
    DebugLogSetToFileLevel(MODULE, 2); /* tries at once */
    DebugLogPrint(MODULE, 2, "two\n");
    ExpectOneReport(GetCapturedStderr(), reason);
    alarm(0);
}

TEST_F(HostDebugLogFile, SymbolicLinkIsRefusedAndNothingIsCreatedThroughIt)
{
    fs::create_symlink(File("victim"), File());
    ExpectRefused("a symbolic link is refused");
    EXPECT_FALSE(fs::exists(File("victim")));
    std::ofstream(File("victim")) << "as it was\n";
    DebugLogSetLogFileLen(MODULE, 1); /* a file that is taken would be full */
    DebugLogSetToFileLevel(MODULE, 2);
    DebugLogPrint(MODULE, 2, "three\n");
    EXPECT_EQ(TextsOf(File("victim")), "as it was\n");
    EXPECT_EQ(FilesInFolder(), 2U);
}

TEST_F(HostDebugLogFile, HardLinkIsRefused)
{
    std::ofstream(File("victim")) << "as it was\n";
    fs::create_hard_link(File("victim"), File());
    ExpectRefused("a file with a second name (hard link) is refused");
    EXPECT_EQ(TextsOf(File("victim")), "as it was\n");
}

TEST_F(HostDebugLogFile, FifoIsRefusedAndDoesNotBlock)
{
    ASSERT_EQ(mkfifo(File().c_str(), 0600), 0);
    ExpectRefused("not a regular file");
}

TEST_F(HostDebugLogFile, FifoWithAReaderIsRefused)
{
    ASSERT_EQ(mkfifo(File().c_str(), 0600), 0);
    const int reader = open(File().c_str(), O_RDONLY | O_NONBLOCK);
    ExpectRefused("not a regular file");
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0);
    close(reader);
}

TEST_F(HostDebugLogFile, FolderIsRefused)
{
    fs::create_directory(File());
    ExpectRefused("Is a directory");
}

TEST_F(HostDebugLogFile, FileOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    std::ofstream(File()) << "as it was\n";
    ASSERT_EQ(chown(File().c_str(), 1, 1), 0);
    ExpectRefused("another user's file is refused");
    EXPECT_EQ(TextsOf(File()), "as it was\n");
}

TEST_F(HostDebugLogFile, FullFileThatCannotBeRenamedIsLeftAsItIs)
{
    std::ofstream(File()) << "as it was\n";
    fs::create_directories(File("Mod.1.log"));
    DebugLogSetLogFileLen(MODULE, 10);
    ExpectRefused("Is a directory");
    EXPECT_EQ(TextsOf(File()), "as it was\n");
}

/* --- files that cannot be written for a while ---------------------------------------------------- */

/* Logs until the file has a line more; how long that took. */
Clock::duration LogUntilWritten(const fs::path &file)
{
    const size_t before = LinesOf(file).size();
    const Clock::time_point begin = Clock::now();
    EXPECT_TRUE(WaitUntil([&file, before] {
        DebugLogPrint(MODULE, 2, "again\n");
        return LinesOf(file).size() > before;
    }));
    return Clock::now() - begin;
}

TEST_F(HostDebugLogFile, UnwritableFolderCostsTheFileOnlyAndIsReportedOnce)
{
    std::ofstream(folder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "plain" / "sub").c_str(), 1);
    RegisterFor(2, 4);
    CaptureStderr();
    for (uint32_t level = 1; level <= 4; level++) {
        DebugLogPrint(MODULE, level, "level %u\n", level);
    }
    const std::string output = GetCapturedStderr();
    const std::string report =
        "debug log: no file for Mod: " + (folder / "plain" / "sub" / "Mod.log").string() + ": Not a directory\n";
    EXPECT_EQ(output, "[Mod] level 1\n" + report + "[Mod] level 2\n");
}

TEST_F(HostDebugLogFile, FailedFileIsTriedAtMostOnceASecond)
{
    std::ofstream(folder / "sub") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "sub").c_str(), 1);
    ExpectOneReport(Printed(2, "lost\n"), "Not a directory");
    fs::remove(folder / "sub");
    EXPECT_GE(LogUntilWritten(folder / "sub" / "Mod.log"), std::chrono::milliseconds(900));
}

TEST_F(HostDebugLogFile, FileIsTriedAtOnceWhenItIsSetUpAgain)
{
    std::ofstream(folder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "plain" / "sub").c_str(), 1);
    Printed(2, "lost\n");
    setenv("NVRHTTPCURL_LOG_DIR", folder.c_str(), 1);
    DebugLogSetToFileLevel(MODULE, 2);
    DebugLogPrint(MODULE, 2, "kept\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] kept\n");
}

TEST_F(HostDebugLogFile, EachFailureIsReportedOnce)
{
    CaptureStderr();
    for (int round = 0; round < 2; round++) {
        fs::remove(File());
        fs::create_directory(File());
        DebugLogPrint(MODULE, 2, "lost\n");
        fs::remove(File());
        LogUntilWritten(File());
    }
    const std::string errors = GetCapturedStderr();
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 2) << errors;
}

TEST_F(HostDebugLogFile, ShortageOfDescriptorsEndsNothing)
{
    CaptureStderr();
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    DebugLogPrint(MODULE, 2, "lost\n");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    LogUntilWritten(File());
    EXPECT_EQ(TextsOf(File()), "[Mod] again\n");
    ExpectOneReport(GetCapturedStderr(), "Too many open files");
}

/* A limit of the file's size fails like a full disk: a part of the line is written, the rest is not. */
TEST_F(HostDebugLogFile, FullDiskEndsNothingAndLeavesWholeLines)
{
    signal(SIGXFSZ, SIG_IGN);
    CaptureStderr();
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small = {1000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string text(600, '.');
    DebugLogPrint(MODULE, 2, "%s\n", text.c_str());
    DebugLogPrint(MODULE, 2, "lost %s\n", text.c_str());
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    LogUntilWritten(File());
    EXPECT_EQ(TextsOf(File()), "[Mod] " + text + "\n[Mod] again\n");
    ExpectOneReport(GetCapturedStderr(), "File too large");
}

/* --- files that others move away ------------------------------------------------------------------ */

TEST_F(HostDebugLogFile, RemovedFileOrFolderIsCreatedAgain)
{
    DebugLogPrint(MODULE, 2, "one\n");
    fs::remove(File());
    DebugLogPrint(MODULE, 2, "two\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] two\n");
    fs::remove_all(folder);
    DebugLogPrint(MODULE, 2, "three\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] three\n");
}

TEST_F(HostDebugLogFile, RenamedFileGetsNoMoreLines)
{
    DebugLogPrint(MODULE, 2, "one\n");
    fs::rename(File(), File("kept.log"));
    DebugLogPrint(MODULE, 2, "two\n");
    EXPECT_EQ(TextsOf(File("kept.log")), "[Mod] one\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] two\n");
}

TEST_F(HostDebugLogFile, FileThatIsReplacedByALinkIsRefused)
{
    DebugLogPrint(MODULE, 2, "one\n");
    fs::rename(File(), File("kept.log"));
    fs::create_symlink(File("kept.log"), File());
    ExpectOneReport(Printed(2, "two\n"), "a symbolic link is refused");
    EXPECT_EQ(TextsOf(File("kept.log")), "[Mod] one\n");
}

/* --- its descriptor -------------------------------------------------------------------------------- */

TEST_F(HostDebugLogFile, DescriptorDoesNotSurviveExec)
{
    DebugLogPrint(MODULE, 2, "text\n");
    const std::vector<int> descriptors = DescriptorsOf(File());
    ASSERT_EQ(descriptors.size(), 1U);
    EXPECT_EQ(fcntl(descriptors[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(HostDebugLogFile, FileThatWasLeftIsClosed)
{
    DebugLogPrint(MODULE, 2, "text\n");
    fs::remove(File());
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_TRUE(DescriptorsOf(File("Mod.log (deleted)")).empty());
    DebugLogSetToFileLevel(MODULE, 2);
    EXPECT_TRUE(DescriptorsOf(File()).empty());
}

/* Closes the log's descriptor behind its back and opens another file, which gets its number. */
int StealDescriptor(const fs::path &log, const fs::path &other)
{
    const std::vector<int> descriptors = DescriptorsOf(log);
    EXPECT_EQ(descriptors.size(), 1U);
    close(descriptors.at(0));
    EXPECT_EQ(open(other.c_str(), O_WRONLY | O_CREAT, 0600), descriptors.at(0));
    return descriptors.at(0);
}

TEST_F(HostDebugLogFile, DescriptorThatAnotherFileGotIsLeftAlone)
{
    DebugLogPrint(MODULE, 2, "one\n");
    const int first = StealDescriptor(File(), File("first"));
    DebugLogPrint(MODULE, 2, "two\n");
    EXPECT_EQ(write(first, "mine\n", 5), 5);
    EXPECT_EQ(TextsOf(File("first")), "mine\n");
    const int second = StealDescriptor(File(), File("second"));
    DebugLogSetToFileLevel(MODULE, 2);
    DebugLogPrint(MODULE, 2, "three\n");
    EXPECT_EQ(write(second, "mine\n", 5), 5);
    EXPECT_EQ(TextsOf(File("second")), "mine\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] one\n[Mod] two\n[Mod] three\n");
}

} // namespace
