/* The host's debug log, against platform/debuglog.h. */
#include <gtest/gtest.h>
#include <printf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/debuglog.h"

namespace
{

namespace fs = std::filesystem;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

enum { MODULE = 123, ALL_LEVELS = 100 };

std::vector<std::string> LinesOf(const fs::path &file)
{
    std::vector<std::string> lines;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/* The text with every digit made a 9. */
std::string Shape(std::string text)
{
    for (char &rch : text) {
        rch = rch >= '0' && rch <= '9' ? '9' : rch;
    }
    return text;
}

/* All of what the module's file says, without the times. */
std::string TextsOf(const fs::path &file)
{
    const std::string time = "9999-99-99 99:99:99.999 ";
    std::string all;
    for (std::string line : LinesOf(file)) {
        const size_t place = Shape(line).find(time);
        if (place != std::string::npos) {
            line.erase(place, time.size());
        }
        all += line + "\n";
    }
    return all;
}

/* Sets the log's folder to a new one of its own. */
class HostDebugLog : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string path = (fs::temp_directory_path() / "host_debuglog_XXXXXX").string();
        ASSERT_NE(mkdtemp(path.data()), nullptr);
        folder = path;
        setenv("NVRHTTPCURL_LOG_DIR", folder.c_str(), 1);
    }

    void TearDown() override
    {
        std::error_code error;
        fs::remove_all(folder, error);
    }

    fs::path File(const char *name = "Mod.log") const
    {
        return folder / name;
    }

    size_t FilesInFolder() const
    {
        return static_cast<size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
    }

    fs::path folder;
};

void SetLevels(uint32_t on, uint32_t stdio, uint32_t file, uint32_t module = MODULE)
{
    EXPECT_NE(DebugLogMoudlePrintLevelOn(module, on, 1), 0U);
    EXPECT_NE(DebugLogSetToStdioPrintf(module, stdio), 0U);
    EXPECT_NE(DebugLogSetToFileLevel(module, file), 0U);
}

void RegisterFor(uint32_t stdio, uint32_t file)
{
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "Mod"), 0U);
    SetLevels(ALL_LEVELS, stdio, file);
}

/* Which of the levels 0 to 6 come out on the console. */
std::string LevelsOnConsole()
{
    CaptureStdout();
    for (uint32_t level = 0; level <= 6; level++) {
        DebugLogPrint(MODULE, level, "%u\n", level);
    }
    std::string levels;
    for (const char ch : GetCapturedStdout()) {
        levels += ch >= '0' && ch <= '9' ? std::string(1, ch) : std::string();
    }
    return levels;
}

/* --- registration ------------------------------------------------------------------------ */

TEST_F(HostDebugLog, PrefixOpensLinesAndNameNamesTheFile)
{
    RegisterFor(2, 2);
    CaptureStdout();
    DebugLogPrint(MODULE, 2, "%s[L:%d] text %u\n", "Func", 12, 7U);
    EXPECT_EQ(GetCapturedStdout(), "[Mod] Func[L:12] text 7\n");
    const std::vector<std::string> lines = LinesOf(File());
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(Shape(lines[0]), "[Mod] 9999-99-99 99:99:99.999 Func[L:99] text 9");
}

TEST_F(HostDebugLog, EmptyPrefixLeavesTheLineAsItIs)
{
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    SetLevels(2, 2, 0);
    CaptureStdout();
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(GetCapturedStdout(), "text\n");
}

TEST_F(HostDebugLog, PrefixAndNameAreCopied)
{
    std::string prefix = "[Mod]";
    std::string name = "Mod";
    ASSERT_NE(DebugLogRegist(MODULE, prefix.c_str(), name.c_str()), 0U);
    prefix = "xxxxx";
    name = "xxx";
    SetLevels(2, 2, 2);
    CaptureStdout();
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(GetCapturedStdout(), "[Mod] text\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] text\n");
}

TEST_F(HostDebugLog, RepeatedRegistrationChangesPrefixAndName)
{
    RegisterFor(0, 2);
    DebugLogPrint(MODULE, 2, "first\n");
    EXPECT_NE(DebugLogRegist(MODULE, "[New]", "New"), 0U);
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
    CaptureStdout();
    DebugLogPrint(MODULE, 2, "dropped\n");
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "Mod"), 0U);
    DebugLogPrint(MODULE, 2, "kept\n");
    EXPECT_EQ(GetCapturedStdout(), "[Mod] kept\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] kept\n");
}

TEST_F(HostDebugLog, NeverMentionedModuleSaysNothing)
{
    CaptureStdout();
    DebugLogPrint(1, 0, "text\n");
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(FilesInFolder(), 0U);
}

TEST_F(HostDebugLog, RegisteredModuleSaysNothingUntilItIsSwitchedOn)
{
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "Mod"), 0U);
    EXPECT_EQ(LevelsOnConsole(), "");
    DebugLogSetToStdioPrintf(MODULE, 6);
    EXPECT_EQ(LevelsOnConsole(), "");
    DebugLogMoudlePrintLevelOn(MODULE, 6, 1);
    EXPECT_EQ(LevelsOnConsole(), "0123456");
}

TEST_F(HostDebugLog, ModulesAreIndependent)
{
    RegisterFor(6, 0);
    ASSERT_NE(DebugLogRegist(7, "[Other]", "Other"), 0U);
    SetLevels(1, 1, 1, 7);
    CaptureStdout();
    DebugLogPrint(7, 2, "too low\n");
    DebugLogPrint(7, 1, "other\n");
    DebugLogPrint(MODULE, 2, "mod\n");
    EXPECT_EQ(GetCapturedStdout(), "[Other] other\n[Mod] mod\n");
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
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    SetLevels(ALL_LEVELS, ALL_LEVELS, 0);
    DebugLogMoudlePrintLevelOn(MODULE, 3, 0);
    EXPECT_EQ(LevelsOnConsole(), "012");
    DebugLogMoudlePrintLevelOn(MODULE, 5, 0);
    EXPECT_EQ(LevelsOnConsole(), "012") << "more severe ones stay as they are";
    DebugLogMoudlePrintLevelOn(MODULE, 0, 0);
    EXPECT_EQ(LevelsOnConsole(), "");
}

TEST_F(HostDebugLog, SwitchStandsBeforeEverySink)
{
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "Mod"), 0U);
    SetLevels(2, 4, 4);
    EXPECT_EQ(LevelsOnConsole(), "012");
    EXPECT_EQ(TextsOf(File()), "[Mod] 0\n[Mod] 1\n[Mod] 2\n");
}

TEST_F(HostDebugLog, ConsoleTakesItsLevelAndBelow)
{
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    SetLevels(ALL_LEVELS, 3, 0);
    EXPECT_EQ(LevelsOnConsole(), "0123");
    DebugLogSetToStdioPrintf(MODULE, 1);
    EXPECT_EQ(LevelsOnConsole(), "01");
    DebugLogSetToStdioPrintf(MODULE, 0);
    EXPECT_EQ(LevelsOnConsole(), "");
    EXPECT_EQ(FilesInFolder(), 0U);
}

TEST_F(HostDebugLog, FileTakesItsLevelAndBelow)
{
    RegisterFor(0, 1);
    EXPECT_EQ(LevelsOnConsole(), "");
    EXPECT_EQ(TextsOf(File()), "[Mod] 0\n[Mod] 1\n");
    DebugLogSetToFileLevel(MODULE, 0);
    LevelsOnConsole();
    EXPECT_EQ(LinesOf(File()).size(), 2U);
}

TEST_F(HostDebugLog, SinksHaveLevelsOfTheirOwn)
{
    RegisterFor(1, 3);
    EXPECT_EQ(LevelsOnConsole(), "01");
    EXPECT_EQ(LinesOf(File()).size(), 4U);
    SetLevels(ALL_LEVELS, 4, 2);
    EXPECT_EQ(LevelsOnConsole(), "01234");
    EXPECT_EQ(LinesOf(File()).size(), 7U);
}

TEST_F(HostDebugLog, TheGreatestLevelIsALevelToo)
{
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    SetLevels(0xFFFFFFFEU, 0xFFFFFFFFU, 0);
    CaptureStdout();
    DebugLogPrint(MODULE, 0xFFFFFFFFU, "off\n");
    DebugLogMoudlePrintLevelOn(MODULE, 0xFFFFFFFFU, 1);
    DebugLogPrint(MODULE, 0xFFFFFFFFU, "on\n");
    EXPECT_EQ(GetCapturedStdout(), "on\n");
}

/* --- what a line costs ------------------------------------------------------------------- */

int formatted = 0;

/* A conversion of our own, "%Y", which counts how often a line is really formatted. */
int CountConversion(FILE *out, const printf_info *, const void *const *)
{
    formatted++;
    return fputs("counted", out) < 0 ? -1 : 7;
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

    CaptureStdout();
    Print(0); /* never mentioned */
    SetLevels(2, 2, 2);
    Print(2); /* not registered */
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    Print(3); /* switched off */
    SetLevels(ALL_LEVELS, 1, 2);
    Print(3); /* neither sink */
    DebugLogPrint(256, 0, format.c_str(), 0);
    EXPECT_EQ(formatted, 0);

    Print(2); /* the file */
    EXPECT_EQ(formatted, 1);
    Print(1); /* both sinks */
    EXPECT_EQ(formatted, 2);
    EXPECT_EQ(GetCapturedStdout(), "counted\n");
    EXPECT_EQ(LinesOf(File()).size(), 2U);
}

/* --- lines ----------------------------------------------------------------------------------- */

TEST_F(HostDebugLog, OneNewlineOfALineIsItsEnd)
{
    RegisterFor(2, 0);
    CaptureStdout();
    DebugLogPrint(MODULE, 2, "one\n");
    DebugLogPrint(MODULE, 2, "two\n\n");
    DebugLogPrint(MODULE, 2, "none");
    DebugLogPrint(MODULE, 2, "\n");
    const std::string empty;
    DebugLogPrint(MODULE, 2, "%s", empty.c_str());
    EXPECT_EQ(GetCapturedStdout(), "[Mod] one\n[Mod] two\n\n[Mod] none\n[Mod] \n[Mod] \n");
}

TEST_F(HostDebugLog, TextIsNotReadAsAPatternOrAFormat)
{
    RegisterFor(2, 2);
    CaptureStdout();
    DebugLogPrint(MODULE, 2, "%s\n", "{} %v %n %s 100%");
    EXPECT_EQ(GetCapturedStdout(), "[Mod] {} %v %n %s 100%\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] {} %v %n %s 100%\n");
}

TEST_F(HostDebugLog, LongLineIsCut)
{
    RegisterFor(2, 2);
    CaptureStdout();
    DebugLogPrint(MODULE, 2, "%s\n", std::string(4094, 'a').c_str());
    DebugLogPrint(MODULE, 2, "%s\n", std::string(100000, 'b').c_str());
    DebugLogPrint(MODULE, 2, "next\n");
    const std::string wanted =
        "[Mod] " + std::string(4094, 'a') + "\n[Mod] " + std::string(4095, 'b') + "\n[Mod] next\n";
    EXPECT_EQ(GetCapturedStdout(), wanted);
    EXPECT_EQ(TextsOf(File()), wanted);
}

TEST_F(HostDebugLog, NullFormatIsNoLine)
{
    RegisterFor(2, 0);
    const char *format = nullptr;
    CaptureStdout();
    DebugLogPrint(MODULE, 2, format, 0);
    EXPECT_EQ(GetCapturedStdout(), "");
}

/* Also by a line whose file cannot be opened, which is an error inside. */
TEST_F(HostDebugLog, ErrnoIsLeftAsItWas)
{
    std::ofstream(folder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "plain").c_str(), 1);
    RegisterFor(2, 2);
    CaptureStdout();
    CaptureStderr();
    errno = EXDEV;
    DebugLogPrint(MODULE, 2, "text\n");
    const int after = errno;
    GetCapturedStdout();
    EXPECT_NE(GetCapturedStderr(), "");
    EXPECT_EQ(after, EXDEV);
}

/* --- the file ---------------------------------------------------------------------------------- */

TEST_F(HostDebugLog, FileIsMadeByTheFirstLineForIt)
{
    RegisterFor(6, 2);
    DebugLogSetLogFileLen(MODULE, 1000);
    CaptureStdout();
    DebugLogPrint(MODULE, 3, "console only\n");
    EXPECT_EQ(FilesInFolder(), 0U);
    DebugLogPrint(MODULE, 2, "both\n");
    GetCapturedStdout();
    EXPECT_EQ(TextsOf(File()), "[Mod] both\n");
}

TEST_F(HostDebugLog, FileIsAppendedTo)
{
    std::ofstream(File()) << "from before\n";
    RegisterFor(0, 2);
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(File()), "from before\n[Mod] text\n");
}

TEST_F(HostDebugLog, FullFileIsStartedAfreshAndOneOlderKept)
{
    const unsigned size = 1000;
    RegisterFor(0, 2);
    ASSERT_NE(DebugLogSetLogFileLen(MODULE, size), 0U);
    for (unsigned i = 1000; i < 1100; i++) {
        DebugLogPrint(MODULE, 2, "line %u %s\n", i, std::string(50, '.').c_str());
        EXPECT_LE(fs::file_size(File()), size);
    }
    EXPECT_EQ(FilesInFolder(), 2U);
    EXPECT_LE(fs::file_size(File("Mod.1.log")), size);
    EXPECT_GT(fs::file_size(File("Mod.1.log")), size - 100);

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

TEST_F(HostDebugLog, LengthMayBeChangedLater)
{
    RegisterFor(0, 2);
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

TEST_F(HostDebugLog, FileOfNoLengthIsRefused)
{
    RegisterFor(0, 2);
    EXPECT_EQ(DebugLogSetLogFileLen(MODULE, 0), 0U);
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] text\n");
}

TEST_F(HostDebugLog, NameLeadsOutOfNoFolder)
{
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "../Mod"), 0U);
    SetLevels(2, 0, 2);
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(File(".._Mod.log")), "[Mod] text\n");
}

TEST_F(HostDebugLog, MissingFolderIsMade)
{
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "a" / "b").c_str(), 1);
    RegisterFor(0, 2);
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(folder / "a" / "b" / "Mod.log"), "[Mod] text\n");
}

TEST_F(HostDebugLog, DefaultFolderIsTheTemporaryOne)
{
    for (const char *unset : {"", static_cast<const char *>(nullptr)}) {
        unset != nullptr ? setenv("NVRHTTPCURL_LOG_DIR", unset, 1) : unsetenv("NVRHTTPCURL_LOG_DIR");
        setenv("TMPDIR", folder.c_str(), 1);
        RegisterFor(0, 2);
        DebugLogSetLogFileLen(MODULE, 5000); /* looks for the folder again */
        DebugLogPrint(MODULE, 2, "text\n");
    }
    EXPECT_EQ(TextsOf(File()), "[Mod] text\n[Mod] text\n");
}

TEST_F(HostDebugLog, LastResortIsTmp)
{
    for (const char *tmpDir : {"", static_cast<const char *>(nullptr)}) {
        unsetenv("NVRHTTPCURL_LOG_DIR");
        tmpDir != nullptr ? setenv("TMPDIR", tmpDir, 1) : unsetenv("TMPDIR");
        const std::string name = folder.filename().string() + (tmpDir != nullptr ? "_empty" : "_unset");
        ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", name.c_str()), 0U);
        SetLevels(2, 0, 2);
        DebugLogPrint(MODULE, 2, "text\n");
        const fs::path file = "/tmp/" + name + ".log";
        EXPECT_EQ(TextsOf(file), "[Mod] text\n");
        fs::remove(file);
    }
}

/* --- a file that cannot be written: root may write anywhere, so the folder is below a file ------ */

TEST_F(HostDebugLog, UnwritableFolderCostsTheFileOnlyAndIsToldOnce)
{
    std::ofstream(folder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "plain" / "sub").c_str(), 1);
    RegisterFor(2, 4);
    CaptureStdout();
    CaptureStderr();
    for (uint32_t level = 1; level <= 4; level++) {
        DebugLogPrint(MODULE, level, "level %u\n", level);
    }
    DebugLogSetToFileLevel(MODULE, 4);
    DebugLogPrint(MODULE, 4, "again\n");
    const std::string errors = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout(), "[Mod] level 1\n[Mod] level 2\n");
    EXPECT_EQ(errors.find("debug log: no file for Mod: "), 0U) << errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
}

TEST_F(HostDebugLog, FileIsTriedAgainWhenItIsSetUpAgain)
{
    std::ofstream(folder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "plain" / "sub").c_str(), 1);
    RegisterFor(0, 2);
    CaptureStderr();
    DebugLogPrint(MODULE, 2, "lost\n");
    GetCapturedStderr();
    setenv("NVRHTTPCURL_LOG_DIR", folder.c_str(), 1);
    DebugLogPrint(MODULE, 2, "lost too\n");
    DebugLogSetToFileLevel(MODULE, 2);
    DebugLogPrint(MODULE, 2, "kept\n");
    EXPECT_EQ(TextsOf(File()), "[Mod] kept\n");
}

TEST_F(HostDebugLog, FullDiskCostsTheFileOnly)
{
    if (access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "no /dev/full here";
    }
    fs::create_symlink("/dev/full", File());
    RegisterFor(2, 2);
    CaptureStdout();
    CaptureStderr();
    DebugLogPrint(MODULE, 2, "one\n");
    DebugLogPrint(MODULE, 2, "two\n");
    const std::string errors = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout(), "[Mod] one\n[Mod] two\n");
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
}

/* --- threads --------------------------------------------------------------------------------------- */

TEST_F(HostDebugLog, LinesOfManyThreadsStayWhole)
{
    RegisterFor(0, 2);
    DebugLogSetLogFileLen(MODULE, 1 << 20);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([i] {
            for (int round = 0; round < 200; round++) {
                DebugLogPrint(MODULE, 2, "thread %d round %d end\n", i, round);
                DebugLogPrint(MODULE, 3, "unwanted\n");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::set<std::string> lines;
    std::istringstream all(TextsOf(File()));
    for (std::string line; std::getline(all, line);) {
        EXPECT_TRUE(lines.insert(line).second) << line;
    }
    std::set<std::string> wanted;
    for (int i = 0; i < 4; i++) {
        for (int round = 0; round < 200; round++) {
            wanted.insert("[Mod] thread " + std::to_string(i) + " round " + std::to_string(round) + " end");
        }
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

} // namespace
