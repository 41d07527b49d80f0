/* The host's debug log: where its files are. */
#include <sys/stat.h>
#include <unistd.h>

#include "host_debuglog_fixture.h"
#include "platform/host/debuglog_host.h"

namespace
{

using namespace test;

/* Without the variable that names the folder, with a home and a temporary folder of the test's own. */
class HostDebugLogPlace : public HostDebugLog
{
  protected:
    void SetUp() override
    {
        HostDebugLog::SetUp();
        umask(0);
        unsetenv("NVRHTTPCURL_LOG_DIR");
        unsetenv("XDG_STATE_HOME");
        home = folder / "home";
        temporary = folder / "temporary";
        own = temporary / ("nvrhttpcurl-" + std::to_string(geteuid()));
        fs::create_directory(home);
        fs::create_directory(temporary);
        setenv("HOME", home.c_str(), 1);
        setenv("TMPDIR", temporary.c_str(), 1);
    }

    fs::path home;
    fs::path temporary;
    fs::path own; /* the user's folder in the temporary one */
};

mode_t ModeOf(const fs::path &path)
{
    struct stat found = {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0) << path;
    return found.st_mode & 07777U;
}

std::string PathOf(const char *name)
{
    char path[1000] = "";
    EXPECT_NE(HostDebugLogPath(name, path, sizeof(path)), 0U);
    return path;
}

/* A line goes to this file, which is the one that the program is given; file and folder are the user's alone. */
void ExpectFile(const fs::path &file)
{
    EXPECT_EQ(PathOf("Mod"), file.string());
    RegisterFor(0, 2);
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(file), "[Mod] text\n");
    EXPECT_EQ(ModeOf(file), 0600U);
    EXPECT_EQ(ModeOf(file.parent_path()), 0700U);
}

void ExpectFolderRefused()
{
    RegisterFor(0, 2);
    ExpectOneReport(Printed(2, "text\n"), "the folder is refused: a link, another user's or writable by others");
}

TEST_F(HostDebugLogPlace, FolderThatIsNamedIsCreated)
{
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "a" / "b").c_str(), 1);
    ExpectFile(folder / "a" / "b" / "Mod.log");
    EXPECT_EQ(ModeOf(folder / "a"), 0700U);
}

TEST_F(HostDebugLogPlace, FolderThatIsNamedMayBeAnybodys)
{
    fs::create_directory(folder / "shared");
    ASSERT_EQ(chmod((folder / "shared").c_str(), 01777), 0);
    fs::create_directory_symlink(folder / "shared", folder / "link");
    setenv("NVRHTTPCURL_LOG_DIR", (folder / "link").c_str(), 1);
    RegisterFor(0, 2);
    DebugLogPrint(MODULE, 2, "text\n");
    EXPECT_EQ(TextsOf(folder / "shared" / "Mod.log"), "[Mod] text\n");
}

TEST_F(HostDebugLogPlace, RelativeFolderDoesNotMoveWithTheWorkingFolder)
{
    ASSERT_EQ(chdir(folder.c_str()), 0);
    setenv("NVRHTTPCURL_LOG_DIR", "logs", 1);
    ExpectFile(folder / "logs" / "Mod.log");
    ASSERT_EQ(chdir("/"), 0);
    DebugLogPrint(MODULE, 2, "next\n");
    EXPECT_EQ(TextsOf(folder / "logs" / "Mod.log"), "[Mod] text\n[Mod] next\n");
}

TEST_F(HostDebugLogPlace, StateFolderComesNext)
{
    setenv("NVRHTTPCURL_LOG_DIR", "", 1);
    setenv("XDG_STATE_HOME", (folder / "state").c_str(), 1);
    ExpectFile(folder / "state" / "nvrhttpcurl" / "Mod.log");
}

TEST_F(HostDebugLogPlace, HomeHasTheUsualStateFolder)
{
    setenv("XDG_STATE_HOME", "relative", 1);
    ExpectFile(home / ".local" / "state" / "nvrhttpcurl" / "Mod.log");
    EXPECT_EQ(ModeOf(home / ".local"), 0700U);
    EXPECT_EQ(ModeOf(home / ".local" / "state"), 0700U);
}

TEST_F(HostDebugLogPlace, WithoutAHomeItIsAFolderInTheTemporaryOne)
{
    unsetenv("HOME");
    ExpectFile(own / "Mod.log");
}

TEST_F(HostDebugLogPlace, WhatIsNoHomeIsNotUsed)
{
    std::ofstream(folder / "plain") << "no folder";
    ASSERT_EQ(chdir(folder.c_str()), 0);
    for (const std::string &wrong :
         {std::string(), std::string("home"), (folder / "none").string(), (folder / "plain").string()}) {
        setenv("HOME", wrong.c_str(), 1);
        EXPECT_EQ(PathOf("Mod"), (own / "Mod.log").string()) << wrong;
    }
}

TEST_F(HostDebugLogPlace, HomeOfAnotherUserIsNotUsed)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    ASSERT_EQ(chown(home.c_str(), 1, 1), 0);
    ExpectFile(own / "Mod.log");
    EXPECT_TRUE(fs::is_empty(home));
}

TEST_F(HostDebugLogPlace, LastResortIsTmp)
{
    unsetenv("HOME");
    for (const char *unset : {"", static_cast<const char *>(nullptr)}) {
        unset != nullptr ? setenv("TMPDIR", unset, 1) : unsetenv("TMPDIR");
        EXPECT_EQ(PathOf("Mod"), "/tmp/nvrhttpcurl-" + std::to_string(geteuid()) + "/Mod.log");
    }
}

TEST_F(HostDebugLogPlace, PlantedLinkToAFolderIsRefused)
{
    unsetenv("HOME");
    fs::create_directory(folder / "victim");
    ASSERT_EQ(chmod((folder / "victim").c_str(), 0700), 0);
    fs::create_directory_symlink(folder / "victim", own);
    ExpectFolderRefused();
    EXPECT_TRUE(fs::is_empty(folder / "victim"));
}

TEST_F(HostDebugLogPlace, FolderThatOthersMayWriteIsRefused)
{
    unsetenv("HOME");
    fs::create_directory(own);
    for (const mode_t mode : {0720U, 0702U}) {
        ASSERT_EQ(chmod(own.c_str(), mode), 0);
        RegisterFor(0, 2);
        Printed(2, "text\n");
        EXPECT_TRUE(fs::is_empty(own)) << mode;
    }
}

TEST_F(HostDebugLogPlace, FolderOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    unsetenv("HOME");
    fs::create_directory(own);
    ASSERT_EQ(chmod(own.c_str(), 0700), 0);
    ASSERT_EQ(chown(own.c_str(), 1, 1), 0);
    ExpectFolderRefused();
    EXPECT_TRUE(fs::is_empty(own));
}

TEST_F(HostDebugLogPlace, PathHasToFitWithItsEnd)
{
    const std::string path = PathOf("Mod");
    std::string buffer(path.size() + 1, 'x');
    EXPECT_EQ(HostDebugLogPath("Mod", buffer.data(), static_cast<uint32_t>(path.size())), 0U);
    EXPECT_EQ(buffer, std::string(path.size() + 1, 'x'));
    EXPECT_NE(HostDebugLogPath("Mod", buffer.data(), static_cast<uint32_t>(path.size() + 1)), 0U);
    EXPECT_EQ(buffer, path + '\0');
    EXPECT_EQ(HostDebugLogPath(nullptr, buffer.data(), 1000), 0U);
    EXPECT_EQ(HostDebugLogPath("Mod", nullptr, 1000), 0U);
    EXPECT_TRUE(fs::is_empty(home)) << "asking creates nothing";
}

} // namespace
