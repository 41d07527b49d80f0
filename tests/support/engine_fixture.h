/*
 * What the engine's unit tests share: starting instances and requests over the fake platform,
 * and stating which log lines an operation wrote.
 */
#ifndef TESTS_SUPPORT_ENGINE_FIXTURE_H
#define TESTS_SUPPORT_ENGINE_FIXTURE_H

#include <dirent.h>
#include <fcntl.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "engine/httpcurlclient_inner.h"
#include "tests/support/fake_platform.h"
#include "tests/support/hooks.h"

namespace engine
{

enum { LEVEL_TRACE = 1, LEVEL_ERROR = 2, LEVEL_SHOW = 3, LEVEL_INFO = 4 };

/* What opens the format of every line. */
constexpr const char *PREFIX = "%s[L:%d]";

/* --- text -------------------------------------------------------------------------------- */

__attribute__((format(printf, 1, 2))) inline std::string Text(const char *format, ...)
{
    char buffer[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return buffer;
}

template <typename T> const void *Ptr(T *any)
{
    return reinterpret_cast<const void *>(any);
}

/* A line's text behind "function[L:number]". */
inline std::string Tail(const fake::LogLine &line)
{
    const size_t open = line.strText.find("[L:");
    const size_t close = open == std::string::npos ? open : line.strText.find(']', open);
    return close == std::string::npos ? std::string() : line.strText.substr(close + 1);
}

/* The source line number that a line gives; 0 if it gives none. */
inline long SourceLine(const fake::LogLine &line)
{
    const size_t open = line.strText.find("[L:");
    return open == std::string::npos ? 0 : strtol(line.strText.c_str() + open + 3, nullptr, 10);
}

/* --- expected lines ------------------------------------------------------------------------ */

struct Line {
    std::string func;
    uint32_t level;
    std::string format; /* behind the prefix */
    std::string tail;   /* the same, filled in */
};

inline testing::AssertionResult Matches(const fake::LogLine &got, const Line &want)
{
    if (got.dwModule == 123 && got.dwLevel == want.level && got.strFunc == want.func &&
        got.strFormat == PREFIX + want.format && Tail(got) == want.tail && SourceLine(got) > 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "got  module " << got.dwModule << ", level " << got.dwLevel << ", func "
                                       << got.strFunc << ", format " << got.strFormat << "     text " << got.strText
                                       << "want level " << want.level << ", func " << want.func << ", tail "
                                       << want.tail;
}

/* Everything that has been logged is exactly this. */
inline void ExpectLines(const std::vector<Line> &want)
{
    const std::vector<fake::LogLine> got = fake::Lines();
    ASSERT_EQ(got.size(), want.size()) << fake::Transcript();
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_TRUE(Matches(got[i], want[i])) << "line " << i;
    }
}

/* Exactly one line with this format, among whatever others, and it reads like this. */
inline void ExpectLine(const Line &want)
{
    const std::vector<fake::LogLine> got = fake::LinesOf(PREFIX + want.format);
    ASSERT_EQ(got.size(), 1U) << want.format << fake::Transcript();
    EXPECT_TRUE(Matches(got[0], want));
}

/* The lines of one level, in order. */
inline std::vector<fake::LogLine> LinesOfLevel(uint32_t level)
{
    std::vector<fake::LogLine> found;
    for (const fake::LogLine &line : fake::Lines()) {
        if (line.dwLevel == level) {
            found.push_back(line);
        }
    }
    return found;
}

/* What holds for every line: module, prefix, and the error tag on level 2 and nowhere else. */
inline void ExpectConventions()
{
    for (const fake::LogLine &line : fake::Lines()) {
        EXPECT_EQ(line.dwModule, 123U) << line.strText;
        EXPECT_EQ(line.strFormat.rfind(PREFIX, 0), 0U) << line.strFormat;
        const bool tagged = line.strFormat.rfind(std::string(PREFIX) + "[Error] ", 0) == 0;
        EXPECT_EQ(tagged, line.dwLevel == LEVEL_ERROR) << line.strText;
        EXPECT_EQ(line.strFormat.back(), '\n') << line.strFormat;
        EXPECT_FALSE(line.strFunc.empty()) << line.strText;
        EXPECT_GT(SourceLine(line), 0) << line.strText;
    }
}

/* --- instances and requests ---------------------------------------------------------------- */

inline TNvrHttpCurlCltInst *Slot(unsigned index)
{
    return &g_tNvrHttpCurlCltCont[index];
}

inline ENvrHttpCurlCltRet Start(uint32_t tasks, HNvrHttpCurlCltInst *result, uint32_t maxAsync = 8)
{
    const TNvrHttpCurlCltInitParam param = {tasks, maxAsync};
    const TNvrHttpCurlCltMemCB memory = fake::MemCB();
    return NvrHttpCurlCltInit(&param, &memory, result);
}

inline HNvrHttpCurlCltInst MustStart(uint32_t tasks, uint32_t maxAsync = 8)
{
    HNvrHttpCurlCltInst instance = nullptr;
    EXPECT_EQ(Start(tasks, &instance, maxAsync), 0U) << fake::Transcript();
    return instance;
}

/* Nothing of an instance is left in the slot. */
inline testing::AssertionResult IsFree(const TNvrHttpCurlCltInst *slot)
{
    if (slot->bInited == 0 && slot->tMemCB.pfMalloc == nullptr && slot->tMemCB.pfRealloc == nullptr &&
        slot->tMemCB.pfFree == nullptr && slot->atTasks == nullptr && slot->dwTaskNum == 0 &&
        slot->hAsyncReqNumLock == nullptr && slot->dwAsyncReqNum == 0 && slot->dwAsyncReqMaxNum == 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "bInited " << slot->bInited << ", atTasks " << slot->atTasks << ", dwTaskNum "
                                       << slot->dwTaskNum << ", hAsyncReqNumLock " << slot->hAsyncReqNumLock
                                       << ", dwAsyncReqNum " << slot->dwAsyncReqNum << ", dwAsyncReqMaxNum "
                                       << slot->dwAsyncReqMaxNum << ", callbacks " << Ptr(slot->tMemCB.pfMalloc)
                                       << Ptr(slot->tMemCB.pfRealloc) << Ptr(slot->tMemCB.pfFree);
}

/* A request with everything set that an asynchronous send sets. */
inline HNvrHttpCurlCltReq MustPrepare(HNvrHttpCurlCltInst instance)
{
    HNvrHttpCurlCltReq request = nullptr;
    EXPECT_EQ(NvrHttpCurlCltReqCreat(instance, &request), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetReqUri(request, "http://127.0.0.1:9/x"), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(request, "Content-Type", "application/json"), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetReqMethod(request, "POST"), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(request, "{}", 2), 0U);
    return request;
}

/* A prepared request in the run list of one of the instance's tasks. */
inline HNvrHttpCurlCltReq MustQueue(HNvrHttpCurlCltInst instance, PFNvrHttpCurlCltNtf notify, void *context = nullptr)
{
    HNvrHttpCurlCltReq request = MustPrepare(instance);
    EXPECT_EQ(NvrHttpCurlCltProcessReq(request, 1000, 1000, NVRHTTPCURLCLT_MODE_ASYNC, notify, context), 0U)
        << fake::Transcript();
    return request;
}

/* Moves the node at the head of the run list to the finish list, as a worker does at the end. */
inline void FinishHead(TNvrHttpCurlCltTask *task)
{
    void *node = nullptr;
    ASSERT_EQ(NVRHCCListRemove(&task->tRunList, task->tRunList.ptHead, &node), 0U);
    ASSERT_EQ(NVRHCCListInsertAfter(&task->tFinList, nullptr, node, nullptr), 0U);
}

/* --- the process --------------------------------------------------------------------------- */

inline std::set<int> OpenDescriptors()
{
    std::set<int> open;
    DIR *dir = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(dir)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(dir)) {
            open.insert(fd);
        }
    }
    closedir(dir);
    return open;
}

inline bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

/* Looks again and again until the condition holds; false if it does not within 30 seconds. */
inline bool Eventually(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/* --- the fixture ----------------------------------------------------------------------------- */

/* Tasks start no thread unless a case says so; whatever was logged keeps to the conventions. */
class EngineTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        fake::RunTasks(false);
    }

    void TearDown() override
    {
        ExpectConventions();
        for (const std::string &violation : fake::Violations()) {
            ADD_FAILURE() << violation;
        }
    }
};

} // namespace engine

#endif
