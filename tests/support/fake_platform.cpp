#include "tests/support/fake_platform.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/appbase.h"
#include "platform/debuglog.h"

/* Deleted semaphores stay in place, so that their use is noticed and not fatal. */
struct TOspSem {
    std::mutex tLock;
    std::condition_variable tGiven;
    bool bTaken = false;
    bool bDeleted = false;
    unsigned dwWaiting = 0;
};

struct TOspTask {
    fake::TaskInfo tInfo;
    std::thread tThread;
};

namespace
{

/* Fails the dwLeft-th call from now, 0 none. */
struct FailPlan {
    unsigned dwLeft = 0;
    bool bLasting = false;

    bool Hit()
    {
        if (dwLeft == 0) {
            return false;
        }
        if (dwLeft > 1) {
            --dwLeft;
            return false;
        }
        dwLeft = bLasting ? 1 : 0;
        return true;
    }
};

struct Records {
    std::mutex tLock;

    std::vector<fake::LogLine> atLines;
    std::vector<std::string> astrDebugLogCalls;
    bool bFailRegist = false;

    std::deque<std::unique_ptr<TOspSem>> aptSems;
    FailPlan tSemCreate;
    size_t uSemsAlive = 0;

    std::deque<std::unique_ptr<TOspTask>> aptTasks;
    FailPlan tTaskCreate;
    bool bRunTasks = true;
    bool bFailTaskWait = false;

    std::vector<fake::CommandInfo> atCommands;
    std::vector<uint32_t> adwDelays;
    uint32_t dwStrtoNetResult = 0;

    std::map<void *, bool> tBlocks; /* true: a realloc of the block failed */
    FailPlan tMalloc;
    FailPlan tRealloc;
    size_t uMallocs = 0;
    size_t uReallocs = 0;
    size_t uFrees = 0;

    std::vector<std::string> astrViolations;
};

/* Never destroyed: the library's threads may outlive main. */
Records &Rec()
{
    static Records *ptRecords = new Records;
    return *ptRecords;
}

using Guard = std::lock_guard<std::mutex>;

/*
 * Semaphores keep away from the records' lock in take and give: it would order threads that
 * the library itself does not order, and so hide races from the thread sanitizer.
 */
std::atomic<size_t> g_uNullTakes{0};

thread_local std::vector<HOspSem> t_ahHeld;
thread_local HOspTask t_hSelf = nullptr;

void Violation(const std::string &strText)
{
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    tRec.astrViolations.push_back(strText);
}

} // namespace

/* --- debug log ---------------------------------------------------------------------------- */

namespace
{

std::string FormatText(const char *szFormat, va_list tArgs)
{
    va_list tCopy;
    va_copy(tCopy, tArgs);
    const int nLength = vsnprintf(nullptr, 0, szFormat, tCopy);
    va_end(tCopy);
    if (nLength <= 0) {
        return {};
    }
    std::string strText(static_cast<size_t>(nLength), '\0');
    vsnprintf(strText.data(), strText.size() + 1, szFormat, tArgs);
    return strText;
}

uint32_t NoteDebugLogCall(const std::string &strCall)
{
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    tRec.astrDebugLogCalls.push_back(strCall);
    return 1;
}

std::string CallText(const char *szName, uint32_t dwFirst, uint32_t dwSecond)
{
    return std::string(szName) + "(" + std::to_string(dwFirst) + "," + std::to_string(dwSecond) + ")";
}

std::string OrEmpty(const char *szText)
{
    return szText == nullptr ? std::string() : std::string(szText);
}

template <typename TPred> size_t CountLines(TPred pfMatches)
{
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    return static_cast<size_t>(std::count_if(tRec.atLines.begin(), tRec.atLines.end(), pfMatches));
}

} // namespace

extern "C" {

uint32_t DebugLogRegist(uint32_t dwModule, const char *szPrefix, const char *szName)
{
    NoteDebugLogCall("DebugLogRegist(" + std::to_string(dwModule) + "," + OrEmpty(szPrefix) + "," + OrEmpty(szName) +
                     ")");
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    return !tRec.bFailRegist && szPrefix != nullptr && szName != nullptr && *szName != '\0';
}

uint32_t DebugLogMoudlePrintLevelOn(uint32_t dwModule, uint32_t dwLevel, uint32_t bOn)
{
    return NoteDebugLogCall("DebugLogMoudlePrintLevelOn(" + std::to_string(dwModule) + "," + std::to_string(dwLevel) +
                            "," + std::to_string(bOn) + ")");
}

uint32_t DebugLogSetToStdioPrintf(uint32_t dwModule, uint32_t dwLevel)
{
    return NoteDebugLogCall(CallText("DebugLogSetToStdioPrintf", dwModule, dwLevel));
}

uint32_t DebugLogSetLogFileLen(uint32_t dwModule, uint32_t dwBytes)
{
    return NoteDebugLogCall(CallText("DebugLogSetLogFileLen", dwModule, dwBytes));
}

uint32_t DebugLogSetToFileLevel(uint32_t dwModule, uint32_t dwLevel)
{
    return NoteDebugLogCall(CallText("DebugLogSetToFileLevel", dwModule, dwLevel));
}

void DebugLogPrint(uint32_t dwModule, uint32_t dwLevel, const char *szFormat, ...)
{
    va_list tArgs;
    va_start(tArgs, szFormat);
    std::string strText = FormatText(szFormat, tArgs);
    va_end(tArgs);

    const size_t uFuncEnd = strText.find("[L:");
    std::string strFunc = uFuncEnd == std::string::npos ? std::string() : strText.substr(0, uFuncEnd);
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    tRec.atLines.push_back({dwModule, dwLevel, szFormat, std::move(strText), std::move(strFunc)});
}
}

namespace fake
{

std::vector<LogLine> Lines()
{
    const Guard tGuard(Rec().tLock);
    return Rec().atLines;
}

void ClearLines()
{
    const Guard tGuard(Rec().tLock);
    Rec().atLines.clear();
}

std::vector<LogLine> LinesOf(const std::string &strFormat)
{
    std::vector<LogLine> atFound;
    for (LogLine &tLine : Lines()) {
        if (tLine.strFormat == strFormat) {
            atFound.push_back(std::move(tLine));
        }
    }
    return atFound;
}

size_t CountOf(const std::string &strFormat)
{
    return CountLines([&strFormat](const LogLine &tLine) { return tLine.strFormat == strFormat; });
}

size_t CountTexts(const std::string &strPart)
{
    return CountLines([&strPart](const LogLine &tLine) { return tLine.strText.find(strPart) != std::string::npos; });
}

std::string Transcript()
{
    std::string strAll;
    for (const LogLine &tLine : Lines()) {
        strAll += std::to_string(tLine.dwModule) + "/" + std::to_string(tLine.dwLevel) + " " + tLine.strText;
        if (strAll.back() != '\n') {
            strAll += '\n';
        }
    }
    return strAll;
}

std::vector<std::string> DebugLogCalls()
{
    const Guard tGuard(Rec().tLock);
    return Rec().astrDebugLogCalls;
}

void FailDebugLogRegist(bool bFail)
{
    const Guard tGuard(Rec().tLock);
    Rec().bFailRegist = bFail;
}

} // namespace fake

/* --- semaphores --------------------------------------------------------------------------- */

namespace
{

/* Under the records' lock. Only compares: the handle may be any bit pattern. */
bool SemStandsAt(const Records &tRec, HOspSem hSem)
{
    return std::any_of(tRec.aptSems.begin(), tRec.aptSems.end(), [hSem](const std::unique_ptr<TOspSem> &ptSem) {
        if (ptSem.get() != hSem) {
            return false;
        }
        const Guard tGuard(ptSem->tLock);
        return !ptSem->bDeleted;
    });
}

void ForgetHeld(HOspSem hSem)
{
    const auto tPlace = std::find(t_ahHeld.begin(), t_ahHeld.end(), hSem);
    if (tPlace != t_ahHeld.end()) {
        t_ahHeld.erase(tPlace);
    }
}

/* False if the semaphore is deleted, or was while waiting. */
bool WaitAndTake(HOspSem hSem)
{
    std::unique_lock<std::mutex> tLocked(hSem->tLock);
    ++hSem->dwWaiting;
    hSem->tGiven.wait(tLocked, [hSem] { return hSem->bDeleted || !hSem->bTaken; });
    --hSem->dwWaiting;
    if (hSem->bDeleted) {
        return false;
    }
    hSem->bTaken = true;
    return true;
}

} // namespace

extern "C" {

uint32_t OspSemBCreate(HOspSem *phSem)
{
    if (phSem == nullptr) {
        return 0;
    }
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    if (tRec.tSemCreate.Hit()) {
        return 0;
    }
    if (*phSem != nullptr && SemStandsAt(tRec, *phSem)) {
        tRec.astrViolations.emplace_back("OspSemBCreate over a semaphore still in place");
    }
    tRec.aptSems.push_back(std::make_unique<TOspSem>());
    ++tRec.uSemsAlive;
    *phSem = tRec.aptSems.back().get();
    return 1;
}

uint32_t OspSemTake(HOspSem hSem)
{
    if (hSem == nullptr) {
        g_uNullTakes.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    if (!WaitAndTake(hSem)) {
        Violation("OspSemTake of a deleted semaphore");
        return 0;
    }
    t_ahHeld.push_back(hSem);
    return 1;
}

uint32_t OspSemGive(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    ForgetHeld(hSem);
    {
        const Guard tGuard(hSem->tLock);
        if (!hSem->bDeleted) {
            hSem->bTaken = false;
            hSem->tGiven.notify_one();
            return 1;
        }
    }
    Violation("OspSemGive of a deleted semaphore");
    return 0;
}

uint32_t OspSemDelete(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    ForgetHeld(hSem);
    bool bDeletedBefore;
    bool bWaitedFor;
    {
        const Guard tGuard(hSem->tLock);
        bDeletedBefore = std::exchange(hSem->bDeleted, true);
        bWaitedFor = hSem->dwWaiting != 0;
        hSem->tGiven.notify_all();
    }
    if (bDeletedBefore) {
        Violation("OspSemDelete of a deleted semaphore");
        return 0;
    }
    if (bWaitedFor) {
        Violation("OspSemDelete of a semaphore that is waited for");
    }
    const Guard tGuard(Rec().tLock);
    --Rec().uSemsAlive;
    return 1;
}
}

namespace fake
{

void FailSemCreate(unsigned nth, bool bLasting)
{
    const Guard tGuard(Rec().tLock);
    Rec().tSemCreate = {nth, bLasting};
}

size_t SemsCreated()
{
    const Guard tGuard(Rec().tLock);
    return Rec().aptSems.size();
}

size_t SemsAlive()
{
    const Guard tGuard(Rec().tLock);
    return Rec().uSemsAlive;
}

bool SemIsTaken(HOspSem hSem)
{
    if (hSem == nullptr) {
        return false;
    }
    const Guard tGuard(hSem->tLock);
    return hSem->bTaken && !hSem->bDeleted;
}

size_t SemWaiters(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    const Guard tGuard(hSem->tLock);
    return hSem->dwWaiting;
}

size_t NullTakes()
{
    return g_uNullTakes.load(std::memory_order_relaxed);
}

size_t HeldByThisThread()
{
    return t_ahHeld.size();
}

} // namespace fake

/* --- tasks --------------------------------------------------------------------------------- */

namespace
{

/* The new task's record, null if the call is to fail. bRun: whether it gets a thread. */
TOspTask *NewTask(fake::TaskInfo tInfo, bool &bRun)
{
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    if (tRec.tTaskCreate.Hit()) {
        return nullptr;
    }
    tRec.aptTasks.push_back(std::make_unique<TOspTask>());
    TOspTask *ptTask = tRec.aptTasks.back().get();
    ptTask->tInfo = std::move(tInfo);
    ptTask->tInfo.hTask = ptTask;
    bRun = tRec.bRunTasks;
    return ptTask;
}

void DropTask(const TOspTask *ptTask)
{
    auto &aptTasks = Rec().aptTasks;
    const Guard tGuard(Rec().tLock);
    aptTasks.erase(std::find_if(aptTasks.begin(), aptTasks.end(),
                                [ptTask](const std::unique_ptr<TOspTask> &ptOne) { return ptOne.get() == ptTask; }));
}

/* Whether the caller is the one to wait for the task. */
bool ClaimWait(const TOspTask *ptTask)
{
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    for (const std::unique_ptr<TOspTask> &ptOne : tRec.aptTasks) {
        if (ptOne.get() == ptTask) {
            if (!std::exchange(ptOne->tInfo.bWaited, true)) {
                return true;
            }
            tRec.astrViolations.emplace_back("OspTaskWaitEnd of a task waited for before");
            return false;
        }
    }
    tRec.astrViolations.emplace_back("OspTaskWaitEnd of an unknown task");
    return false;
}

} // namespace

extern "C" {

HOspTask OspTaskCreate(PFOspTaskEntry pfEntry, const char *szName, uint8_t byPriority, uint32_t dwStackSize,
                       void *pvArg, uint16_t wFlags, uint64_t *pqwTaskID)
{
    static std::atomic<uint64_t> s_qwLastID{0};
    bool bRun = false;
    TOspTask *ptTask =
        NewTask({OrEmpty(szName), byPriority, dwStackSize, wFlags, pfEntry, pvArg, nullptr, false}, bRun);
    if (ptTask == nullptr) {
        return nullptr;
    }
    if (pqwTaskID != nullptr) {
        *pqwTaskID = s_qwLastID.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    if (bRun) {
        try {
            ptTask->tThread = std::thread([pfEntry, pvArg, ptTask] {
                t_hSelf = ptTask;
                pfEntry(pvArg);
            });
        } catch (const std::system_error &) {
            DropTask(ptTask);
            return nullptr;
        }
    }
    return ptTask;
}

uint32_t OspTaskWaitEnd(HOspTask hTask)
{
    if (hTask == nullptr || hTask == t_hSelf || !ClaimWait(hTask)) {
        return 0;
    }
    if (hTask->tThread.joinable()) {
        hTask->tThread.join();
    }
    const Guard tGuard(Rec().tLock);
    return Rec().bFailTaskWait ? 0 : 1;
}
}

namespace fake
{

void RunTasks(bool bRun)
{
    const Guard tGuard(Rec().tLock);
    Rec().bRunTasks = bRun;
}

void FailTaskCreate(unsigned nth, bool bLasting)
{
    const Guard tGuard(Rec().tLock);
    Rec().tTaskCreate = {nth, bLasting};
}

void FailTaskWait(bool bFail)
{
    const Guard tGuard(Rec().tLock);
    Rec().bFailTaskWait = bFail;
}

std::vector<TaskInfo> Tasks()
{
    std::vector<TaskInfo> atTasks;
    const Guard tGuard(Rec().tLock);
    for (const std::unique_ptr<TOspTask> &ptTask : Rec().aptTasks) {
        atTasks.push_back(ptTask->tInfo);
    }
    return atTasks;
}

} // namespace fake

/* --- console commands ------------------------------------------------------------------- */

extern "C" uint32_t OspRegCommand(const char *szName, PFOspCommand pfCommand, const char *szHelp)
{
    if (szName == nullptr || *szName == '\0' || pfCommand == nullptr) {
        return 0;
    }
    const Guard tGuard(Rec().tLock);
    Rec().atCommands.push_back({szName, OrEmpty(szHelp), pfCommand});
    return 1;
}

std::vector<fake::CommandInfo> fake::Commands()
{
    const Guard tGuard(Rec().tLock);
    return Rec().atCommands;
}

/* --- base helpers ------------------------------------------------------------------------- */

extern "C" {

char *AppStrstr(const char *szText, const char *szPart)
{
    if (szText == nullptr || szPart == nullptr) {
        return nullptr;
    }
    return const_cast<char *>(strstr(szText, szPart));
}

uint32_t AppStrlen(const char *szText)
{
    return szText == nullptr ? 0 : static_cast<uint32_t>(strlen(szText));
}

void AppDelay(uint32_t dwMS)
{
    {
        const Guard tGuard(Rec().tLock);
        Rec().adwDelays.push_back(dwMS);
    }
    if (dwMS != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(dwMS));
    }
}

uint16_t AppConvertHtons(uint16_t wHost)
{
    return htons(wHost);
}

uint32_t AppConvertStrtoNet(const char *szAddr, TAppNetAddr *ptAddr)
{
    {
        const Guard tGuard(Rec().tLock);
        if (Rec().dwStrtoNetResult != 0) {
            return Rec().dwStrtoNetResult;
        }
    }
    in_addr tAddr;
    if (szAddr == nullptr || ptAddr == nullptr || inet_pton(AF_INET, szAddr, &tAddr) != 1) {
        return 1;
    }
    ptAddr->dwFamily = AF_INET;
    ptAddr->dwIPv4 = tAddr.s_addr;
    return 0;
}
}

namespace fake
{

std::vector<uint32_t> Delays()
{
    const Guard tGuard(Rec().tLock);
    return Rec().adwDelays;
}

void SetStrtoNetResult(uint32_t dwResult)
{
    const Guard tGuard(Rec().tLock);
    Rec().dwStrtoNetResult = dwResult;
}

} // namespace fake

/* --- memory callbacks --------------------------------------------------------------------- */

namespace
{

/*
 * The allocator is called under the records' lock: another thread must not be given the
 * address of a released block before the record of that block is gone.
 */
extern "C" void *CountingMalloc(size_t uBytes)
{
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    ++tRec.uMallocs;
    if (uBytes == 0) {
        tRec.astrViolations.emplace_back("malloc of no bytes");
    }
    if (tRec.tMalloc.Hit()) {
        return nullptr;
    }
    void *pvBlock = malloc(uBytes);
    if (pvBlock != nullptr) {
        tRec.tBlocks[pvBlock] = false;
    }
    return pvBlock;
}

extern "C" void *CountingRealloc(void *pvBlock, size_t uBytes)
{
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    ++tRec.uReallocs;
    const auto tPlace = tRec.tBlocks.find(pvBlock);
    if (tPlace == tRec.tBlocks.end() || uBytes == 0) {
        tRec.astrViolations.emplace_back(uBytes == 0 ? "realloc to no bytes" : "realloc of a foreign or null block");
        return nullptr;
    }
    void *pvNew = tRec.tRealloc.Hit() ? nullptr : realloc(pvBlock, uBytes);
    if (pvNew == nullptr) {
        tPlace->second = true;
        return nullptr;
    }
    tRec.tBlocks.erase(tPlace);
    tRec.tBlocks[pvNew] = false;
    return pvNew;
}

extern "C" void CountingFree(void *pvBlock)
{
    Records &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    ++tRec.uFrees;
    if (tRec.tBlocks.erase(pvBlock) == 0) {
        tRec.astrViolations.emplace_back("free of a foreign or null block");
        return;
    }
    free(pvBlock);
}

} // namespace

namespace fake
{

TNvrHttpCurlCltMemCB MemCB()
{
    return {CountingMalloc, CountingRealloc, CountingFree};
}

void FailMalloc(unsigned nth, bool bLasting)
{
    const Guard tGuard(Rec().tLock);
    Rec().tMalloc = {nth, bLasting};
}

void FailRealloc(unsigned nth, bool bLasting)
{
    const Guard tGuard(Rec().tLock);
    Rec().tRealloc = {nth, bLasting};
}

size_t Mallocs()
{
    const Guard tGuard(Rec().tLock);
    return Rec().uMallocs;
}

size_t Reallocs()
{
    const Guard tGuard(Rec().tLock);
    return Rec().uReallocs;
}

size_t Frees()
{
    const Guard tGuard(Rec().tLock);
    return Rec().uFrees;
}

size_t BlocksAlive()
{
    const Guard tGuard(Rec().tLock);
    return Rec().tBlocks.size();
}

void FreeLostBlocks()
{
    auto &tBlocks = Rec().tBlocks;
    const Guard tGuard(Rec().tLock);
    for (auto tPlace = tBlocks.begin(); tPlace != tBlocks.end();) {
        if (tPlace->second) {
            free(tPlace->first);
            tPlace = tBlocks.erase(tPlace);
        } else {
            ++tPlace;
        }
    }
}

/* --- wrong use ----------------------------------------------------------------------------- */

std::vector<std::string> Violations()
{
    const Guard tGuard(Rec().tLock);
    return Rec().astrViolations;
}

} // namespace fake
