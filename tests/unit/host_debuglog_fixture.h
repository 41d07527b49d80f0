/*
 * What the tests of the host's debug log have in common: a folder of their own, a module that
 * takes lines, and looks at what came out.
 */
#ifndef TESTS_UNIT_HOST_DEBUGLOG_FIXTURE_H
#define TESTS_UNIT_HOST_DEBUGLOG_FIXTURE_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/debuglog.h"

namespace test
{

namespace fs = std::filesystem;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

enum { MODULE = 123, ALL_LEVELS = 100 };

inline std::vector<std::string> LinesOf(const fs::path &file)
{
    std::vector<std::string> lines;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/* The text with every digit made a 9. */
inline std::string Shape(std::string text)
{
    for (char &character : text) {
        character = character >= '0' && character <= '9' ? '9' : character;
    }
    return text;
}

/* All of what a file says, without the times. */
inline std::string TextsOf(const fs::path &file)
{
    const std::string time = "9999-99-99 99:99:99.999 ";
    std::string all;
    for (std::string line : LinesOf(file)) {
        const size_t at = Shape(line).find(time);
        if (at != std::string::npos) {
            line.erase(at, time.size());
        }
        all += line + "\n";
    }
    return all;
}

inline void SetLevels(uint32_t switchedOn, uint32_t console, uint32_t file, uint32_t module = MODULE)
{
    EXPECT_NE(DebugLogMoudlePrintLevelOn(module, switchedOn, 1), 0U);
    EXPECT_NE(DebugLogSetToStdioPrintf(module, console), 0U);
    EXPECT_NE(DebugLogSetToFileLevel(module, file), 0U);
}

inline void RegisterFor(uint32_t console, uint32_t file, const char *prefix = "[Mod]")
{
    ASSERT_NE(DebugLogRegist(MODULE, prefix, "Mod"), 0U);
    SetLevels(ALL_LEVELS, console, file);
}

/* Logs a line; returns what comes out on the console. */
inline std::string Printed(uint32_t level, const char *text)
{
    CaptureStderr();
    DebugLogPrint(MODULE, level, "%s", text);
    return GetCapturedStderr();
}

/* Sets the log's folder to a new one of its own. */
class HostDebugLog : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "host_debuglog_XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
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

/* Whose module logs to its file. */
class HostDebugLogToFile : public HostDebugLog
{
  protected:
    void SetUp() override
    {
        HostDebugLog::SetUp();
        RegisterFor(0, 2);
    }
};

/* The descriptors that are open at the path: "Mod.log (deleted)" is one of a removed file. */
inline std::vector<int> DescriptorsOf(const fs::path &file)
{
    std::vector<int> descriptors;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry.path(), error) == file) {
            descriptors.push_back(std::stoi(entry.path().filename().string()));
        }
    }
    return descriptors;
}

/* The one line on standard error that says why there is no file. */
inline void ExpectOneReport(const std::string &errors, const std::string &reason)
{
    EXPECT_EQ(errors.find("debug log: no file for Mod: "), 0U) << errors;
    EXPECT_NE(errors.find(": " + reason + "\n"), std::string::npos) << errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
}

} // namespace test

#endif
