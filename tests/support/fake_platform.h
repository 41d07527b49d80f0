/*
 * A platform for unit tests: it implements the headers of platform/, records what the
 * library asks of it, fails on order, and notes every wrong use.
 *
 * Each test case runs in a process of its own, so nothing needs resetting between cases.
 * "nth" and "lasting" are those of FailNth. All functions are thread-safe.
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

/* --- debug log (fake_log.cpp): every DebugLogPrint is recorded, whatever its level ------ */

struct LogLine {
    uint32_t module;
    uint32_t level;
    std::string format; /* as the library passed it */
    std::string text;   /* formatted */
    std::string func;   /* the text before "[L:", empty if there is none */
};

std::vector<LogLine> Lines();
void ClearLines();
/* Lines whose text contains this. */
size_t CountTexts(const std::string &part);
/* All lines joined, for failure messages. */
std::string Transcript();

/*
 * "DebugLogSetToFileLevel(123,2)" and so on, in order, DebugLogPrint left out. Texts are
 * without quotes; calls that failed are there too.
 */
std::vector<std::string> DebugLogCalls();
void FailDebugLogRegist(bool fail);

/* --- semaphores (fake_sem.cpp): real binary semaphores ------------------------------------ */

void FailSemCreate(unsigned nth, bool lasting = false);
/* The failed take returns 0 at once; takes of a zero handle do not count. */
void FailSemTake(unsigned nth, bool lasting = false);
/* Successful creations. */
size_t SemsCreated();
size_t SemsAlive();
bool SemIsTaken(HOspSem sem);
/* Threads that wait in OspSemTake at this moment. */
size_t SemWaiters(HOspSem sem);
/* Takes made on a zero handle; they return 0 and are no violation. */
size_t NullTakes();
/* Takes of semaphores by the calling thread that it has not given back or deleted. */
size_t HeldByThisThread();

/* --- tasks (fake_task.cpp) ------------------------------------------------------------------ */

struct TaskInfo {
    std::string name;
    uint8_t priority;
    uint32_t stackSize;
    uint16_t flags;
    PFOspTaskEntry entry;
    void *arg;
    HOspTask task;
    bool waited; /* OspTaskWaitEnd was called; it may still be waiting */
};

/* false: OspTaskCreate starts no thread, OspTaskWaitEnd returns at once. Default true. */
void RunTasks(bool run);
void FailTaskCreate(unsigned nth, bool lasting = false);
/* OspTaskWaitEnd returns 0 (but joins all the same). */
void FailTaskWait(bool fail);
std::vector<TaskInfo> Tasks();
/* Those of them that were waited for. */
size_t TasksWaited();

/* --- console commands (fake_base.cpp), in order of registration, repeated ones too -------- */

struct CommandInfo {
    std::string name;
    std::string help;
    PFOspCommand command;
};
std::vector<CommandInfo> Commands();

/* --- base helpers (fake_base.cpp) ---------------------------------------------------------- */

/* Arguments of AppDelay so far, 0 included. It really sleeps. */
std::vector<uint32_t> Delays();
/* Result of AppConvertStrtoNet from now on; 0 converts. */
void SetStrtoNetResult(uint32_t result);

/* --- memory callbacks over malloc, counting (fake_memory.cpp) ------------------------------ */

TNvrHttpCurlCltMemCB MemCB();
void FailMalloc(unsigned nth, bool lasting = false);
void FailRealloc(unsigned nth, bool lasting = false);
/* Calls, failed ones included. */
size_t Mallocs();
size_t Reallocs();
size_t Frees();
/* Lost blocks count as alive until they are freed. */
size_t BlocksAlive();
/* Blocks that a failed realloc left behind are the caller's loss; this releases them. */
void FreeLostBlocks();

/* --- wrong use (fake_base.cpp) --------------------------------------------------------------- */

/*
 * A semaphore used after its deletion, deleted twice, deleted while waited for or created
 * over one still in place; a task waited for twice; a foreign or null block freed or
 * reallocated; a request for no bytes. The wrong call itself does nothing and fails, except
 * that the creation, the deletion and the malloc take place.
 */
std::vector<std::string> Violations();

} // namespace fake

#endif
