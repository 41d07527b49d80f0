#include "bench/load.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <mutex>
#include <sys/resource.h>
#include <thread>
#include <type_traits>

#include "bench/heap.h"

struct TLoop {
    const TWay &tWay;
    CBenchClock::time_point tDeadline;
    std::atomic<int64_t> llLeft; /* posts that may still be started */
    std::mutex tLock;
    std::condition_variable tOver;
    uint32_t dwRunning; /* chains that go on; with dwFailed under the lock */
    uint32_t dwFailed = 0;
};

namespace
{

/* More times than this of one chain move to a new place: their growth must not count as the way's. */
enum { RESERVED_TIMES = 16384 };

/* Whether the chain goes on. After its end the loop may be gone. */
bool NoteEnd(TChain &tChain, bool bSucceeded)
{
    TLoop &tLoop = *tChain.ptLoop;
    const CBenchClock::time_point tNow = CBenchClock::now();
    if (bSucceeded) {
        tChain.adMillis.push_back(std::chrono::duration<double, std::milli>(tNow - tChain.tStart).count());
    }
    if (bSucceeded && tNow < tLoop.tDeadline && tLoop.llLeft-- > 0) {
        return true;
    }
    const std::lock_guard<std::mutex> tGuard(tLoop.tLock);
    tLoop.dwFailed += bSucceeded ? 0 : 1;
    tLoop.dwRunning--;
    tLoop.tOver.notify_one();
    return false;
}

/* Never inlined: instructions below it are counted by its name. */
[[gnu::noinline]] bool Send(TChain &tChain)
{
    tChain.tStart = CBenchClock::now();
    return tChain.ptLoop->tWay.pfSend(tChain);
}

void RunChain(TChain &tChain)
{
    while (NoteEnd(tChain, Send(tChain))) {
    }
}

void RunBlocking(std::deque<TChain> &atChains)
{
    std::vector<std::thread> atThreads;
    atThreads.reserve(atChains.size());
    for (size_t uChain = 1; uChain < atChains.size(); uChain++) {
        atThreads.emplace_back(RunChain, std::ref(atChains[uChain]));
    }
    RunChain(atChains[0]);
    for (std::thread &tThread : atThreads) {
        tThread.join();
    }
}

void RunWithCallbacks(TLoop &tLoop, std::deque<TChain> &atChains)
{
    for (TChain &tChain : atChains) {
        if (!Send(tChain)) {
            NoteEnd(tChain, false);
        }
    }
    std::unique_lock<std::mutex> tGuard(tLoop.tLock);
    tLoop.tOver.wait(tGuard, [&tLoop] { return tLoop.dwRunning == 0; });
}

} // namespace

TChain &ChainOf(void *pvAnswer)
{
    static_assert(std::is_standard_layout_v<TChain>, "its first member has its address");
    return *static_cast<TChain *>(pvAnswer);
}

void ChainEnded(TChain &tChain, bool bSucceeded)
{
    if (NoteEnd(tChain, bSucceeded) && !Send(tChain)) {
        NoteEnd(tChain, false);
    }
}

TLoadResult RunLoad(const TWay &tWay, uint32_t dwOutstanding, uint32_t dwPosts, std::chrono::milliseconds tSpan)
{
    std::deque<TChain> atChains(dwOutstanding);
    TLoop tLoop{tWay, {}, int64_t{dwPosts} - dwOutstanding, {}, {}, dwOutstanding};
    for (uint32_t dwIndex = 0; dwIndex < dwOutstanding; dwIndex++) {
        atChains[dwIndex].dwIndex = dwIndex;
        atChains[dwIndex].ptLoop = &tLoop;
        atChains[dwIndex].adMillis.reserve(std::min<uint32_t>(dwPosts, RESERVED_TIMES));
    }
    const CBenchClock::time_point tBegin = CBenchClock::now();
    const TUsage tBefore = Usage();
    tLoop.tDeadline = tBegin + tSpan;
    if (tWay.bBlocks) {
        RunBlocking(atChains);
    } else {
        RunWithCallbacks(tLoop, atChains);
    }
    TLoadResult tResult;
    tResult.dSeconds = std::chrono::duration<double>(CBenchClock::now() - tBegin).count();
    tResult.tUsage = Usage() - tBefore;
    tResult.dwFailed = tLoop.dwFailed;
    for (const TChain &tChain : atChains) {
        tResult.adMillis.insert(tResult.adMillis.end(), tChain.adMillis.begin(), tChain.adMillis.end());
    }
    tResult.dPosts = static_cast<double>(tResult.adMillis.size());
    return tResult;
}

TUsage Usage()
{
    timespec tTime = {};
    rusage tUsage = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &tTime);
    getrusage(RUSAGE_SELF, &tUsage);
    return {static_cast<double>(tTime.tv_sec) + 1e-9 * static_cast<double>(tTime.tv_nsec),
            static_cast<double>(tUsage.ru_nvcsw), static_cast<double>(tUsage.ru_minflt),
            static_cast<double>(HeapAllocations())};
}

TUsage operator-(const TUsage &tAfter, const TUsage &tBefore)
{
    return {tAfter.dCpuSeconds - tBefore.dCpuSeconds, tAfter.dSwitches - tBefore.dSwitches,
            tAfter.dFaults - tBefore.dFaults, tAfter.dAllocations - tBefore.dAllocations};
}
