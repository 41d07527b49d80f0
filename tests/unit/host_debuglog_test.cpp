/* The host's debug log, against platform/debuglog.h: modules, levels and lines. */
#include <fcntl.h>
#include <printf.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <sstream>
#include <thread>

#include "host_debuglog_fixture.h"
#include "platform/host/debuglog_host.h"
#include "tests/support/race.h"
#include "tests/support/wait.h"

namespace
{

using namespace test;

/* Which of the levels 0 to 6 come out on the console. */
std::string LevelsOnConsole()
{
    CaptureStderr();
    for (uint32_t level = 0; level <= 6; level++) {
        DebugLogPrint(MODULE, level, "%u\n", level);
    }
    std::string levels;
    for (const char ch : GetCapturedStderr()) {
        levels += ch >= '0' && ch <= '9' ? std::string(1, ch) : std::string();
    }
    return levels;
}

/* --- registration ------------------------------------------------------------------------ */

TEST_F(HostDebugLog, PrefixOpensLinesAndNameNamesTheFile)
{
    RegisterFor(2, 2);
    CaptureStderr();
    DebugLogPrint(MODULE, 2, "%s[L:%d] text %u\n", "Func", 12, 7U);
    EXPECT_EQ(GetCapturedStderr(), "[Mod] Func[L:12] text 7\n");
    const std::vector<std::string> lines = LinesOf(File());
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(Shape(lines[0]), "[Mod] 9999-99-99 99:99:99.999 Func[L:99] text 9");
}

TEST_F(HostDebugLog, EmptyPrefixLeavesTheLineAsItIs)
{
    RegisterFor(2, 0, "");
    EXPECT_EQ(Printed(2, "text\n"), "text\n");
}

TEST_F(HostDebugLog, RepeatedRegistrationChangesPrefixAndNameWhichAreCopied)
{
    RegisterFor(0, 2);
    DebugLogPrint(MODULE, 2, "first\n");
    std::string prefix = "[New]";
    std::string name = "New";
    EXPECT_NE(DebugLogRegist(MODULE, prefix.c_str(), name.c_str()), 0U);
    prefix = "xxxxx";
    name = "xxx";
    DebugLogPrint(MODULE, 2, "second\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] first\n");
    EXPECT_EQ(TextsOf(File("New.log")), "[New] second\n");
}

TEST_F(HostDebugLog, RegistrationFailsOnBadArguments)
{
    EXPECT_EQ(DebugLogRegist(MODULE, nullptr, "Mod"), 0U);
    EXPECT_EQ(DebugLogRegist(MODULE, "[Mod]", nullptr), 0U);
    EXPECT_EQ(DebugLogRegist(MODULE, "[Mod]", ""), 0U);
    EXPECT_EQ(DebugLogRegist(256, "[Mod]", "Mod"), 0U);
    EXPECT_EQ(DebugLogRegist(0xFFFFFFFFU, "[Mod]", "Mod"), 0U);
    EXPECT_NE(DebugLogRegist(0, "[Mod]", "Mod"), 0U);
    EXPECT_NE(DebugLogRegist(255, "[Mod]", "Mod"), 0U);
}

TEST_F(HostDebugLog, NoSuchModuleForAnyCall)
{
    EXPECT_EQ(DebugLogMoudlePrintLevelOn(256, 2, 1), 0U);
    EXPECT_EQ(DebugLogSetToStdioPrintf(256, 2), 0U);
    EXPECT_EQ(DebugLogSetLogFileLen(256, 1000), 0U);
    EXPECT_EQ(DebugLogSetToFileLevel(256, 2), 0U);
    DebugLogPrint(256, 0, "text\n");
    DebugLogPrint(0xFFFFFFFFU, 0, "text\n");
    EXPECT_EQ(FilesInFolder(), 0U);
}

TEST_F(HostDebugLog, LinesOfAnUnnamedModuleAreDroppedAndItsSettingsKept)
{
    SetLevels(2, 2, 2);
    CaptureStderr();
    DebugLogPrint(MODULE, 2, "dropped\n");
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "Mod"), 0U);
    DebugLogPrint(MODULE, 2, "kept\n");
    EXPECT_EQ(GetCapturedStderr(), "[Mod] kept\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] kept\n");
}

TEST_F(HostDebugLog, ModuleSaysNothingUntilItIsRegisteredAndSwitchedOn)
{
    EXPECT_EQ(LevelsOnConsole(), "");
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "Mod"), 0U);
    EXPECT_EQ(LevelsOnConsole(), "");
    DebugLogSetToStdioPrintf(MODULE, 6);
    EXPECT_EQ(LevelsOnConsole(), "");
    DebugLogMoudlePrintLevelOn(MODULE, 6, 1);
    EXPECT_EQ(LevelsOnConsole(), "0123456");
    EXPECT_EQ(FilesInFolder(), 0U);
}

TEST_F(HostDebugLog, ModulesAreIndependent)
{
    RegisterFor(6, 0);
    ASSERT_NE(DebugLogRegist(7, "[Other]", "Other"), 0U);
    SetLevels(1, 1, 1, 7);
    CaptureStderr();
    DebugLogPrint(7, 2, "too low\n");
    DebugLogPrint(7, 1, "other\n");
    DebugLogPrint(MODULE, 2, "mod\n");
    EXPECT_EQ(GetCapturedStderr(), "[Other] other\n[Mod] mod\n");
    EXPECT_EQ(TextsOf(File("Other.log")), "[Other] other\n");
    EXPECT_EQ(FilesInFolder(), 1U);
}

/* --- levels -------------------------------------------------------------------------------- */

TEST_F(HostDebugLog, SwitchTurnsOnALevelAndAllMoreSevereOnes)
{
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    DebugLogSetToStdioPrintf(MODULE, ALL_LEVELS);
    DebugLogMoudlePrintLevelOn(MODULE, 2, 1);
    EXPECT_EQ(LevelsOnConsole(), "012");
    DebugLogMoudlePrintLevelOn(MODULE, 4, 7);
    EXPECT_EQ(LevelsOnConsole(), "01234");
    DebugLogMoudlePrintLevelOn(MODULE, 2, 1);
    EXPECT_EQ(LevelsOnConsole(), "01234") << "less severe ones stay as they are";
}

TEST_F(HostDebugLog, SwitchTurnsOffALevelAndAllLessSevereOnes)
{
    RegisterFor(ALL_LEVELS, 0, "");
    DebugLogMoudlePrintLevelOn(MODULE, 3, 0);
    EXPECT_EQ(LevelsOnConsole(), "012");
    DebugLogMoudlePrintLevelOn(MODULE, 5, 0);
    EXPECT_EQ(LevelsOnConsole(), "012") << "more severe ones stay as they are";
    DebugLogMoudlePrintLevelOn(MODULE, 0, 0);
    EXPECT_EQ(LevelsOnConsole(), "");
}

TEST_F(HostDebugLog, SwitchComesBeforeEverySink)
{
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "Mod"), 0U);
    SetLevels(2, 4, 4);
    EXPECT_EQ(LevelsOnConsole(), "012");
    EXPECT_EQ(TextsOf(File()), "[Mod] 0\n[Mod] 1\n[Mod] 2\n");
}

TEST_F(HostDebugLog, EachSinkTakesItsOwnLevelAndBelow)
{
    RegisterFor(3, 0);
    EXPECT_EQ(LevelsOnConsole(), "0123");
    SetLevels(ALL_LEVELS, 0, 0);
    EXPECT_EQ(LevelsOnConsole(), "");
    EXPECT_EQ(FilesInFolder(), 0U);
    SetLevels(ALL_LEVELS, 0, 1);
    EXPECT_EQ(LevelsOnConsole(), "");
    EXPECT_EQ(TextsOf(File()), "[Mod] 0\n[Mod] 1\n");
    SetLevels(ALL_LEVELS, 1, 3);
    EXPECT_EQ(LevelsOnConsole(), "01");
    EXPECT_EQ(LinesOf(File()).size(), 6U);
    SetLevels(ALL_LEVELS, 4, 0);
    EXPECT_EQ(LevelsOnConsole(), "01234");
    EXPECT_EQ(LinesOf(File()).size(), 6U);
}

TEST_F(HostDebugLog, TheGreatestLevelIsALevelToo)
{
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    SetLevels(0xFFFFFFFEU, 0xFFFFFFFFU, 0);
    CaptureStderr();
    DebugLogPrint(MODULE, 0xFFFFFFFFU, "off\n");
    DebugLogMoudlePrintLevelOn(MODULE, 0xFFFFFFFFU, 1);
    DebugLogPrint(MODULE, 0xFFFFFFFFU, "on\n");
    EXPECT_EQ(GetCapturedStderr(), "on\n");
}

/* --- what a line costs ------------------------------------------------------------------- */

int formattedLines = 0;

/* A conversion of our own, "%Y", which counts how often a line is really formatted. */
int CountConversion(FILE *stream, const printf_info *, const void *const *)
{
    formattedLines++;
    return fputs("counted", stream) < 0 ? -1 : 7;
}

int NoArguments(const printf_info *, size_t, int *, int *)
{
    return 0;
}

TEST_F(HostDebugLog, UnwantedLinesAreNotFormatted)
{
    ASSERT_EQ(register_printf_specifier('Y', CountConversion, NoArguments), 0);
    const std::string format = "%Y\n";
    const auto Print = [&format](uint32_t level) { DebugLogPrint(MODULE, level, format.c_str(), 0); };
    CaptureStderr();
    Print(0); /* never mentioned */
    SetLevels(2, 2, 2);
    Print(2); /* not registered */
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    Print(3); /* switched off */
    SetLevels(ALL_LEVELS, 1, 2);
    Print(3); /* neither sink */
    DebugLogPrint(256, 0, format.c_str(), 0);
    EXPECT_EQ(formattedLines, 0);
    Print(2); /* the file */
    EXPECT_EQ(formattedLines, 1);
    Print(1); /* both sinks */
    EXPECT_EQ(formattedLines, 2);
    GetCapturedStderr(); /* a sanitizer says here that it does not know %Y */
    EXPECT_EQ(TextsOf(File()), "counted\ncounted\n");
}

/* --- lines ----------------------------------------------------------------------------------- */

TEST_F(HostDebugLog, OneNewlineOfALineIsItsEnd)
{
    RegisterFor(2, 0);
    CaptureStderr();
    DebugLogPrint(MODULE, 2, "one\n");
    DebugLogPrint(MODULE, 2, "two\n\n");
    DebugLogPrint(MODULE, 2, "none");
    DebugLogPrint(MODULE, 2, "\n");
    const std::string empty;
    DebugLogPrint(MODULE, 2, "%s", empty.c_str());
    const char *format = nullptr; /* no line */
    DebugLogPrint(MODULE, 2, format, 0);
    EXPECT_EQ(GetCapturedStderr(), "[Mod] one\n[Mod] two\n\n[Mod] none\n[Mod] \n[Mod] \n");
}

TEST_F(HostDebugLog, TextIsNotReadAsAPatternOrAFormat)
{
    RegisterFor(2, 2);
    EXPECT_EQ(Printed(2, "{} %v %n %s 100%\n"), "[Mod] {} %v %n %s 100%\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] {} %v %n %s 100%\n");
}

TEST_F(HostDebugLog, LongLineIsCut)
{
    RegisterFor(2, 2);
    CaptureStderr();
    DebugLogPrint(MODULE, 2, "%s\n", std::string(4094, 'a').c_str());
    DebugLogPrint(MODULE, 2, "%s\n", std::string(100000, 'b').c_str());
    DebugLogPrint(MODULE, 2, "next\n");
    const std::string wanted =
        "[Mod] " + std::string(4094, 'a') + "\n[Mod] " + std::string(4095, 'b') + "\n[Mod] next\n";
    EXPECT_EQ(GetCapturedStderr(), wanted);
    EXPECT_EQ(TextsOf(File()), wanted);
}

/* Also by a line whose file cannot be opened, which is an error inside. */
TEST_F(HostDebugLog, ErrnoIsLeftAsItWas)
{
    std::ofstream(folder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "plain").c_str(), 1);
    RegisterFor(0, 2);
    CaptureStderr();
    errno = EXDEV;
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(errno, EXDEV);
    ExpectOneReport(GetCapturedStderr(), "Not a directory");
}

TEST_F(HostDebugLog, StandardOutputStaysTheProgramsOwn)
{
    RegisterFor(2, 2);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Printed(2, "text\n"), "[Mod] text\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

/* --- threads --------------------------------------------------------------------------------------- */

TEST_F(HostDebugLog, LinesOfManyThreadsStayWhole)
{
    RegisterFor(0, 2);
    DebugLogSetLogFileLen(MODULE, 1 << 20);
    std::set<std::string> wanted;
    for (unsigned line = 0; line < 800; line++) {
        wanted.insert("[Mod] thread " + std::to_string(line / 200) + " round " + std::to_string(line % 200) + " end");
    }
    Race(4, [](unsigned index) {
        for (unsigned round = 0; round < 200; round++) {
            DebugLogPrint(MODULE, 2, "thread %u round %u end\n", index, round);
            DebugLogPrint(MODULE, 3, "unwanted\n");
        }
    });
    std::set<std::string> lines;
    std::istringstream texts(TextsOf(File()));
    for (std::string line; std::getline(texts, line);) {
        EXPECT_TRUE(lines.insert(line).second) << line;
    }
    EXPECT_EQ(lines, wanted);
}

TEST_F(HostDebugLog, SettingsMayChangeWhileOthersLog)
{
    RegisterFor(0, 2);
    std::thread logger([] {
        for (int round = 0; round < 500; round++) {
            DebugLogPrint(MODULE, 2, "round %d\n", round);
        }
    });
    for (uint32_t round = 0; round < 100; round++) {
        EXPECT_NE(DebugLogRegist(MODULE, "[Mod]", round % 2 == 0 ? "Even" : "Odd"), 0U);
        EXPECT_NE(DebugLogSetLogFileLen(MODULE, 10000 + round), 0U);
        EXPECT_NE(DebugLogSetToFileLevel(MODULE, round % 3), 0U);
        EXPECT_NE(DebugLogMoudlePrintLevelOn(MODULE, 3, round % 2), 0U);
    }
    logger.join();
}

/* Standard error is a pipe that nobody reads: who writes to it waits, the others go on. */
TEST_F(HostDebugLog, ConsoleThatBlocksHoldsUpNoOtherThread)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string filler(static_cast<size_t>(fcntl(ends[1], F_GETPIPE_SZ)), '.');
    ASSERT_EQ(write(ends[1], filler.data(), filler.size()), static_cast<ssize_t>(filler.size()));
    RegisterFor(1, 2);
    const int before = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    std::thread blocked([] { DebugLogPrint(MODULE, 1, "both\n"); });
    const bool begun = WaitUntil([this] { return LinesOf(File()).size() == 1; });
    std::thread other([] { DebugLogPrint(MODULE, 2, "file\n"); });
    const bool written = WaitUntil([this] { return LinesOf(File()).size() == 2; }, std::chrono::seconds(5));
    std::string drained(filler.size(), ' ');
    EXPECT_EQ(read(ends[0], drained.data(), drained.size()), static_cast<ssize_t>(drained.size()));
    blocked.join();
    other.join();
    dup2(before, STDERR_FILENO);
    EXPECT_TRUE(begun && written);
}

TEST_F(HostDebugLog, ConsoleMayBeAnotherDescriptor)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    RegisterFor(1, 0);
    HostDebugLogSetConsole(ends[1]);
    CaptureStderr();
    DebugLogPrint(MODULE, 1, "elsewhere\n");
    HostDebugLogSetConsole(STDERR_FILENO);
    DebugLogPrint(MODULE, 1, "back\n");
    EXPECT_EQ(GetCapturedStderr(), "[Mod] back\n");
    std::string text(100, '\0');
    close(ends[1]);
    text.resize(static_cast<size_t>(read(ends[0], text.data(), text.size())));
    EXPECT_EQ(text, "[Mod] elsewhere\n");
    close(ends[0]);
}

} // namespace
