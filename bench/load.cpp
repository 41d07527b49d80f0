#include "bench/load.h"

#include <condition_variable>
#include <ctime>
#include <deque>
#include <mutex>
#include <thread>

#include "tools/post/latency.h"

struct TLoop {
    const TWay &tWay;
    CBenchClock::time_point tDeadline;
    std::mutex tLock;
    std::condition_variable tOver;
    uint32_t dwRunning; /* chains that go on; with dwFailed under the lock */
    uint32_t dwFailed = 0;
};

namespace
{

/* Whether the chain goes on. After its end the loop may be gone. */
bool NoteEnd(TChain &tChain, bool bSucceeded)
{
    TLoop &tLoop = *tChain.ptLoop;
    const CBenchClock::time_point tNow = CBenchClock::now();
    if (bSucceeded) {
        tChain.adMillis.push_back(std::chrono::duration<double, std::milli>(tNow - tChain.tStart).count());
    }
    if (bSucceeded && tNow < tLoop.tDeadline) {
        return true;
    }
    const std::lock_guard<std::mutex> tGuard(tLoop.tLock);
    tLoop.dwFailed += bSucceeded ? 0 : 1;
    tLoop.dwRunning--;
    tLoop.tOver.notify_one();
    return false;
}

bool Send(TChain &tChain)
{
    tChain.tStart = CBenchClock::now();
    return tChain.ptLoop->tWay.pfSend(tChain);
}

void RunBlocking(std::deque<TChain> &atChains)
{
    std::vector<std::thread> atThreads;
    atThreads.reserve(atChains.size());
    for (TChain &tChain : atChains) {
        atThreads.emplace_back([&tChain] {
            while (NoteEnd(tChain, Send(tChain))) {
            }
        });
    }
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

TLoadResult ResultOf(const std::deque<TChain> &atChains, CBenchClock::duration tTook, std::chrono::nanoseconds tCpu)
{
    std::vector<double> adMillis;
    for (const TChain &tChain : atChains) {
        adMillis.insert(adMillis.end(), tChain.adMillis.begin(), tChain.adMillis.end());
    }
    const double dPosts = static_cast<double>(adMillis.size());
    const TLatencySummary tTimes = SummarizeLatency(std::move(adMillis));
    TLoadResult tResult;
    tResult.dPerSecond = dPosts / std::chrono::duration<double>(tTook).count();
    tResult.dP50Millis = tTimes.dP50;
    tResult.dP99Millis = tTimes.dP99;
    tResult.dCpuMicros = std::chrono::duration<double, std::micro>(tCpu).count() / dPosts;
    return tResult;
}

} // namespace

void ChainEnded(TChain &tChain, bool bSucceeded)
{
    if (NoteEnd(tChain, bSucceeded) && !Send(tChain)) {
        NoteEnd(tChain, false);
    }
}

TLoadResult RunLoad(const TWay &tWay, uint32_t dwOutstanding, std::chrono::milliseconds tSpan)
{
    const CBenchClock::time_point tBegin = CBenchClock::now();
    const std::chrono::nanoseconds tCpuBefore = CpuTime();
    TLoop tLoop{tWay, tBegin + tSpan, {}, {}, dwOutstanding};
    std::deque<TChain> atChains(dwOutstanding);
    for (uint32_t dwIndex = 0; dwIndex < dwOutstanding; dwIndex++) {
        atChains[dwIndex].dwIndex = dwIndex;
        atChains[dwIndex].ptLoop = &tLoop;
    }
    if (tWay.bBlocks) {
        RunBlocking(atChains);
    } else {
        RunWithCallbacks(tLoop, atChains);
    }
    TLoadResult tResult = ResultOf(atChains, CBenchClock::now() - tBegin, CpuTime() - tCpuBefore);
    tResult.dwFailed = tLoop.dwFailed;
    return tResult;
}

std::chrono::nanoseconds CpuTime()
{
    timespec tTime = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &tTime);
    return std::chrono::seconds(tTime.tv_sec) + std::chrono::nanoseconds(tTime.tv_nsec);
}
