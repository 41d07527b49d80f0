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

std::vector<std::string> LinesOf(const fs::path &tFile)
{
    std::vector<std::string> astrLines;
    std::ifstream tStream(tFile);
    for (std::string strLine; std::getline(tStream, strLine);) {
        astrLines.push_back(strLine);
    }
    return astrLines;
}

/* The text with every digit made a 9. */
std::string Shape(std::string strText)
{
    for (char &rch : strText) {
        rch = rch >= '0' && rch <= '9' ? '9' : rch;
    }
    return strText;
}

/* All of what the module's file says, without the times. */
std::string TextsOf(const fs::path &tFile)
{
    const std::string strTime = "9999-99-99 99:99:99.999 ";
    std::string strAll;
    for (std::string strLine : LinesOf(tFile)) {
        const size_t uTime = Shape(strLine).find(strTime);
        if (uTime != std::string::npos) {
            strLine.erase(uTime, strTime.size());
        }
        strAll += strLine + "\n";
    }
    return strAll;
}

/* Sets the log's folder to a new one of its own. */
class HostDebugLog : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string strTemplate = (fs::temp_directory_path() / "host_debuglog_XXXXXX").string();
        ASSERT_NE(mkdtemp(strTemplate.data()), nullptr);
        tFolder = strTemplate;
        setenv("NVRHTTPCURL_LOG_DIR", tFolder.c_str(), 1);
    }

    void TearDown() override
    {
        std::error_code tError;
        fs::remove_all(tFolder, tError);
    }

    fs::path File(const char *szName = "Mod.log") const
    {
        return tFolder / szName;
    }

    size_t FilesInFolder() const
    {
        return static_cast<size_t>(std::distance(fs::directory_iterator(tFolder), fs::directory_iterator()));
    }

    fs::path tFolder;
};

void SetLevels(uint32_t dwSwitch, uint32_t dwStdio, uint32_t dwFile, uint32_t dwModule = MODULE)
{
    EXPECT_NE(DebugLogMoudlePrintLevelOn(dwModule, dwSwitch, 1), 0U);
    EXPECT_NE(DebugLogSetToStdioPrintf(dwModule, dwStdio), 0U);
    EXPECT_NE(DebugLogSetToFileLevel(dwModule, dwFile), 0U);
}

void RegisterFor(uint32_t dwStdio, uint32_t dwFile)
{
    ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", "Mod"), 0U);
    SetLevels(ALL_LEVELS, dwStdio, dwFile);
}

/* Which of the levels 0 to 6 come out on the console. */
std::string LevelsOnConsole()
{
    CaptureStdout();
    for (uint32_t dwLevel = 0; dwLevel <= 6; dwLevel++) {
        DebugLogPrint(MODULE, dwLevel, "%u\n", dwLevel);
    }
    std::string strLevels;
    for (const char ch : GetCapturedStdout()) {
        strLevels += ch >= '0' && ch <= '9' ? std::string(1, ch) : std::string();
    }
    return strLevels;
}

/* --- registration ------------------------------------------------------------------------ */

TEST_F(HostDebugLog, PrefixOpensLinesAndNameNamesTheFile)
{
    RegisterFor(2, 2);
    CaptureStdout();
    DebugLogPrint(MODULE, 2, "%s[L:%d] text %u\n", "Func", 12, 7U);
    EXPECT_EQ(GetCapturedStdout(), "[Mod] Func[L:12] text 7\n");
    const std::vector<std::string> astrLines = LinesOf(File());
    ASSERT_EQ(astrLines.size(), 1U);
    EXPECT_EQ(Shape(astrLines[0]), "[Mod] 9999-99-99 99:99:99.999 Func[L:99] text 9");
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
    std::string strPrefix = "[Mod]";
    std::string strName = "Mod";
    ASSERT_NE(DebugLogRegist(MODULE, strPrefix.c_str(), strName.c_str()), 0U);
    strPrefix = "xxxxx";
    strName = "xxx";
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

int nFormatted = 0;

/* A conversion of our own, "%Y", which counts how often a line is really formatted. */
int CountConversion(FILE *ptStream, const printf_info *, const void *const *)
{
    nFormatted++;
    return fputs("counted", ptStream) < 0 ? -1 : 7;
}

int NoArguments(const printf_info *, size_t, int *, int *)
{
    return 0;
}

TEST_F(HostDebugLog, UnwantedLinesAreNotFormatted)
{
    ASSERT_EQ(register_printf_specifier('Y', CountConversion, NoArguments), 0);
    const std::string strFormat = "%Y\n";
    const auto Print = [&strFormat](uint32_t dwLevel) { DebugLogPrint(MODULE, dwLevel, strFormat.c_str(), 0); };

    CaptureStdout();
    Print(0); /* never mentioned */
    SetLevels(2, 2, 2);
    Print(2); /* not registered */
    ASSERT_NE(DebugLogRegist(MODULE, "", "Mod"), 0U);
    Print(3); /* switched off */
    SetLevels(ALL_LEVELS, 1, 2);
    Print(3); /* neither sink */
    DebugLogPrint(256, 0, strFormat.c_str(), 0);
    EXPECT_EQ(nFormatted, 0);

    Print(2); /* the file */
    EXPECT_EQ(nFormatted, 1);
    Print(1); /* both sinks */
    EXPECT_EQ(nFormatted, 2);
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
    const std::string strEmpty;
    DebugLogPrint(MODULE, 2, "%s", strEmpty.c_str());
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
    const std::string strWanted =
        "[Mod] " + std::string(4094, 'a') + "\n[Mod] " + std::string(4095, 'b') + "\n[Mod] next\n";
    EXPECT_EQ(GetCapturedStdout(), strWanted);
    EXPECT_EQ(TextsOf(File()), strWanted);
}

TEST_F(HostDebugLog, NullFormatIsNoLine)
{
    RegisterFor(2, 0);
    const char *szFormat = nullptr;
    CaptureStdout();
    DebugLogPrint(MODULE, 2, szFormat, 0);
    EXPECT_EQ(GetCapturedStdout(), "");
}

/* Also by a line whose file cannot be opened, which is an error inside. */
TEST_F(HostDebugLog, ErrnoIsLeftAsItWas)
{
    std::ofstream(tFolder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (tFolder / "plain").c_str(), 1);
    RegisterFor(2, 2);
    CaptureStdout();
    CaptureStderr();
    errno = EXDEV;
    DebugLogPrint(MODULE, 2, "text\n");
    const int nAfter = errno;
    GetCapturedStdout();
    EXPECT_NE(GetCapturedStderr(), "");
    EXPECT_EQ(nAfter, EXDEV);
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
    const unsigned nLen = 1000;
    RegisterFor(0, 2);
    ASSERT_NE(DebugLogSetLogFileLen(MODULE, nLen), 0U);
    for (unsigned nI = 1000; nI < 1100; nI++) {
        DebugLogPrint(MODULE, 2, "line %u %s\n", nI, std::string(50, '.').c_str());
        EXPECT_LE(fs::file_size(File()), nLen);
    }
    EXPECT_EQ(FilesInFolder(), 2U);
    EXPECT_LE(fs::file_size(File("Mod.1.log")), nLen);
    EXPECT_GT(fs::file_size(File("Mod.1.log")), nLen - 100);

    /* The two together hold the newest lines without a gap. */
    std::vector<std::string> astrLines = LinesOf(File("Mod.1.log"));
    for (const std::string &strLine : LinesOf(File())) {
        astrLines.push_back(strLine);
    }
    for (size_t uI = 0; uI < astrLines.size(); uI++) {
        const std::string strWanted = "line " + std::to_string(1100 - astrLines.size() + uI) + " ";
        EXPECT_NE(astrLines[uI].find(strWanted), std::string::npos) << astrLines[uI];
    }
}

TEST_F(HostDebugLog, LengthMayBeChangedLater)
{
    RegisterFor(0, 2);
    const std::string strText(500, '.');
    for (int nI = 0; nI < 4; nI++) {
        DebugLogPrint(MODULE, 2, "%s\n", strText.c_str());
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
    setenv("NVRHTTPCURL_LOG_DIR", (tFolder / "a" / "b").c_str(), 1);
    RegisterFor(0, 2);
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(tFolder / "a" / "b" / "Mod.log"), "[Mod] text\n");
}

TEST_F(HostDebugLog, DefaultFolderIsTheTemporaryOne)
{
    for (const char *szUnset : {"", static_cast<const char *>(nullptr)}) {
        szUnset != nullptr ? setenv("NVRHTTPCURL_LOG_DIR", szUnset, 1) : unsetenv("NVRHTTPCURL_LOG_DIR");
        setenv("TMPDIR", tFolder.c_str(), 1);
        RegisterFor(0, 2);
        DebugLogSetLogFileLen(MODULE, 5000); /* looks for the folder again */
        DebugLogPrint(MODULE, 2, "text\n");
    }
    EXPECT_EQ(TextsOf(File()), "[Mod] text\n[Mod] text\n");
}

TEST_F(HostDebugLog, LastResortIsTmp)
{
    for (const char *szTmpDir : {"", static_cast<const char *>(nullptr)}) {
        unsetenv("NVRHTTPCURL_LOG_DIR");
        szTmpDir != nullptr ? setenv("TMPDIR", szTmpDir, 1) : unsetenv("TMPDIR");
        const std::string strName = tFolder.filename().string() + (szTmpDir != nullptr ? "_empty" : "_unset");
        ASSERT_NE(DebugLogRegist(MODULE, "[Mod]", strName.c_str()), 0U);
        SetLevels(2, 0, 2);
        DebugLogPrint(MODULE, 2, "text\n");
        const fs::path tFile = "/tmp/" + strName + ".log";
        EXPECT_EQ(TextsOf(tFile), "[Mod] text\n");
        fs::remove(tFile);
    }
}

/* --- a file that cannot be written: root may write anywhere, so the folder is below a file ------ */

TEST_F(HostDebugLog, UnwritableFolderCostsTheFileOnlyAndIsToldOnce)
{
    std::ofstream(tFolder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (tFolder / "plain" / "sub").c_str(), 1);
    RegisterFor(2, 4);
    CaptureStdout();
    CaptureStderr();
    for (uint32_t dwLevel = 1; dwLevel <= 4; dwLevel++) {
        DebugLogPrint(MODULE, dwLevel, "level %u\n", dwLevel);
    }
    DebugLogSetToFileLevel(MODULE, 4);
    DebugLogPrint(MODULE, 4, "again\n");
    const std::string strErrors = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout(), "[Mod] level 1\n[Mod] level 2\n");
    EXPECT_EQ(strErrors.find("debug log: no file for Mod: "), 0U) << strErrors;
    EXPECT_EQ(std::count(strErrors.begin(), strErrors.end(), '\n'), 1) << strErrors;
}

TEST_F(HostDebugLog, FileIsTriedAgainWhenItIsSetUpAgain)
{
    std::ofstream(tFolder / "plain") << "no folder";
    setenv("NVRHTTPCURL_LOG_DIR", (tFolder / "plain" / "sub").c_str(), 1);
    RegisterFor(0, 2);
    CaptureStderr();
    DebugLogPrint(MODULE, 2, "lost\n");
    GetCapturedStderr();
    setenv("NVRHTTPCURL_LOG_DIR", tFolder.c_str(), 1);
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
    const std::string strErrors = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout(), "[Mod] one\n[Mod] two\n");
    EXPECT_EQ(std::count(strErrors.begin(), strErrors.end(), '\n'), 1) << strErrors;
}

/* --- threads --------------------------------------------------------------------------------------- */

TEST_F(HostDebugLog, LinesOfManyThreadsStayWhole)
{
    RegisterFor(0, 2);
    DebugLogSetLogFileLen(MODULE, 1 << 20);
    std::vector<std::thread> atThreads;
    for (int nI = 0; nI < 4; nI++) {
        atThreads.emplace_back([nI] {
            for (int nRound = 0; nRound < 200; nRound++) {
                DebugLogPrint(MODULE, 2, "thread %d round %d end\n", nI, nRound);
                DebugLogPrint(MODULE, 3, "unwanted\n");
            }
        });
    }
    for (std::thread &rThread : atThreads) {
        rThread.join();
    }
    std::set<std::string> astrLines;
    std::istringstream tTexts(TextsOf(File()));
    for (std::string strLine; std::getline(tTexts, strLine);) {
        EXPECT_TRUE(astrLines.insert(strLine).second) << strLine;
    }
    std::set<std::string> astrWanted;
    for (int nI = 0; nI < 4; nI++) {
        for (int nRound = 0; nRound < 200; nRound++) {
            astrWanted.insert("[Mod] thread " + std::to_string(nI) + " round " + std::to_string(nRound) + " end");
        }
    }
    EXPECT_EQ(astrLines, astrWanted);
}

TEST_F(HostDebugLog, SettingsMayChangeWhileOthersLog)
{
    RegisterFor(0, 2);
    std::thread tLogger([] {
        for (int nRound = 0; nRound < 500; nRound++) {
            DebugLogPrint(MODULE, 2, "round %d\n", nRound);
        }
    });
    for (uint32_t dwRound = 0; dwRound < 100; dwRound++) {
        EXPECT_NE(DebugLogRegist(MODULE, "[Mod]", dwRound % 2 == 0 ? "Even" : "Odd"), 0U);
        EXPECT_NE(DebugLogSetLogFileLen(MODULE, 10000 + dwRound), 0U);
        EXPECT_NE(DebugLogSetToFileLevel(MODULE, dwRound % 3), 0U);
        EXPECT_NE(DebugLogMoudlePrintLevelOn(MODULE, 3, dwRound % 2), 0U);
    }
    tLogger.join();
}

} // namespace
