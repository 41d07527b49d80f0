/*
 * A platform for unit tests: it implements the headers of platform/, records what the
 * library asks of it, fails on order, and notes every wrong use.
 *
 * Each test case runs in a process of its own, so nothing needs resetting between cases.
 * "nth" always counts from 1, from the call of the Fail function on; with bLasting every
 * later call fails too; nth 0 takes a pending failure back. All functions are thread-safe.
 */
#ifndef TESTS_SUPPORT_FAKE_PLATFORM_H
#define TESTS_SUPPORT_FAKE_PLATFORM_H

#include <cstdint>
#include <string>
#include <vector>

#include "nvrhttpcurl/memcb.h"
#include "platform/osp.h"

namespace fake
{

/* --- debug log: every DebugLogPrint is recorded, whatever its level ------------------- */

struct LogLine {
    uint32_t dwModule;
    uint32_t dwLevel;
    std::string strFormat; /* as the library passed it */
    std::string strText;   /* formatted */
    std::string strFunc;   /* the text before "[L:", empty if there is none */
};

std::vector<LogLine> Lines();
void ClearLines();
/* Lines whose format is exactly this. */
std::vector<LogLine> LinesOf(const std::string &strFormat);
size_t CountOf(const std::string &strFormat);
/* Lines whose text contains this. */
size_t CountTexts(const std::string &strPart);
/* All lines joined, for failure messages. */
std::string Transcript();

/*
 * "DebugLogSetToFileLevel(123,2)" and so on, in order, DebugLogPrint left out. Texts stand
 * as they are, without quotes; calls that failed are there too.
 */
std::vector<std::string> DebugLogCalls();
void FailDebugLogRegist(bool bFail);

/* --- semaphores: real binary semaphores ------------------------------------------------ */

void FailSemCreate(unsigned nth, bool bLasting = false);
/* Successful creations. */
size_t SemsCreated();
size_t SemsAlive();
bool SemIsTaken(HOspSem hSem);
/* Threads that wait in OspSemTake at this moment. */
size_t SemWaiters(HOspSem hSem);
/* Takes made on a zero handle; they return 0 and are no violation. */
size_t NullTakes();
/* Takes of semaphores by the calling thread that it has not given back or deleted. */
size_t HeldByThisThread();

/* --- tasks ------------------------------------------------------------------------------- */

struct TaskInfo {
    std::string strName;
    uint8_t byPriority;
    uint32_t dwStackSize;
    uint16_t wFlags;
    PFOspTaskEntry pfEntry;
    void *pvArg;
    HOspTask hTask;
    bool bWaited; /* OspTaskWaitEnd was called; it may still be waiting */
};

/* false: OspTaskCreate starts no thread, OspTaskWaitEnd returns at once. Default true. */
void RunTasks(bool bRun);
void FailTaskCreate(unsigned nth, bool bLasting = false);
/* OspTaskWaitEnd returns 0 (but joins all the same). */
void FailTaskWait(bool bFail);
std::vector<TaskInfo> Tasks();

/* --- console commands, in order of registration; repeated ones stand repeatedly -------- */

struct CommandInfo {
    std::string strName;
    std::string strHelp;
    PFOspCommand pfCommand;
};
std::vector<CommandInfo> Commands();

/* --- base helpers ---------------------------------------------------------------------- */

/* Arguments of AppDelay so far, 0 included. It really sleeps. */
std::vector<uint32_t> Delays();
/* Result of AppConvertStrtoNet from now on; 0 converts. */
void SetStrtoNetResult(uint32_t dwResult);

/* --- memory callbacks over malloc, counting ---------------------------------------------- */

TNvrHttpCurlCltMemCB MemCB();
void FailMalloc(unsigned nth, bool bLasting = false);
void FailRealloc(unsigned nth, bool bLasting = false);
/* Calls, failed ones included. */
size_t Mallocs();
size_t Reallocs();
size_t Frees();
/* Lost blocks count as alive until they are freed. */
size_t BlocksAlive();
/* Blocks that a failed realloc left behind are the caller's loss; this releases them. */
void FreeLostBlocks();

/* --- wrong use ----------------------------------------------------------------------------- */

/*
 * A semaphore used after its deletion, deleted twice, deleted while waited for or created
 * over one still in place; a task waited for twice; a foreign or null block freed or
 * reallocated; a request for no bytes. The wrong call itself does nothing and fails, except
 * that the creation, the deletion and the malloc take place. A case that expects none says
 * EXPECT_TRUE(fake::Violations().empty()).
 */
std::vector<std::string> Violations();

} // namespace fake

#endif
