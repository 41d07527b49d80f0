#include "bench/works.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <stdexcept>
#include <thread>

#include "bench/heap.h"

namespace
{

using std::chrono::milliseconds;

enum { LIMIT_MS = 60000, SETTLE_MS = 300, REST_MS = 1000, SLOW_MS = 2 };

TRun RunPosts(const TWork &tWork, const TWay &tWay, uint32_t dwPosts)
{
    if (dwPosts == 0) {
        return {};
    }
    const TLoadResult tLoad = RunLoad(tWay, tWork.dwOutstanding, dwPosts, milliseconds(LIMIT_MS));
    const auto tSlow = std::count_if(tLoad.adMillis.begin(), tLoad.adMillis.end(),
                                     [](double dMillis) { return dMillis >= double{SLOW_MS}; });
    TRun tRun;
    tRun.dPosts = tLoad.dPosts;
    tRun.dSeconds = tLoad.dSeconds;
    tRun.tUsage = tLoad.tUsage;
    tRun.dSlow = static_cast<double>(tSlow);
    tRun.dFailed = tLoad.dwFailed;
    return tRun;
}

/* Nobody answers, and nobody waits for the ends. */
TRun Rest(const TWork &tWork, const TWay &tWay)
{
    static std::deque<TChain> s_atChains(tWork.dwOutstanding);
    TRun tRun;
    const int64_t llHeapBefore = HeapBytes();
    for (TChain &tChain : s_atChains) {
        tChain.dwIndex = static_cast<uint32_t>(tRun.dPosts++);
        tRun.dFailed += tWay.pfSend(tChain) ? 0 : 1;
    }
    std::this_thread::sleep_for(milliseconds(SETTLE_MS));
    tRun.dHeapBytes = static_cast<double>(HeapBytes() - llHeapBefore);
    const CBenchClock::time_point tBegin = CBenchClock::now();
    const TUsage tBefore = Usage();
    std::this_thread::sleep_for(milliseconds(REST_MS));
    tRun.tUsage = Usage() - tBefore;
    tRun.dSeconds = std::chrono::duration<double>(CBenchClock::now() - tBegin).count();
    return tRun;
}

} // namespace

/* In the order of the tables. */
const std::vector<TWork> g_atWorks = {
    {"new", "POSTs one after the other, each on a new connection", ANSWER_SHORT, 1, 500, 300, 600, WAYS_BLOCKING},
    {"new-8", "the same on 8 threads", ANSWER_SHORT, 8, 2000, 0, 0, WAYS_BLOCKING},
    {"large", "answers of 1 MB, copied out", ANSWER_1_MB, 1, 100, 0, 0, WAYS_BLOCKING},
    {"new-tls", "POSTs over TLS, each on a new connection", ANSWER_SHORT_TLS, 1, 100, 0, 0, WAYS_BLOCKING | WAYS_TLS},
    {"200", "1,000 POSTs, 200 outstanding", ANSWER_SHORT, 200, 1000, 0, 1000, WAYS_ASYNCHRONOUS},
    {"200-tls", "the same over TLS", ANSWER_SHORT_TLS, 200, 1000, 0, 0, WAYS_ASYNCHRONOUS | WAYS_TLS},
    {"1024", "1,024 outstanding at once", ANSWER_SHORT, 1024, 1024, 0, 0, WAYS_ASYNCHRONOUS},
    {"256", "10,000 POSTs, 256 outstanding", ANSWER_SHORT, 256, 10000, 0, 0, WAYS_ASYNCHRONOUS},
    {"16", "1,000 POSTs, 16 outstanding", ANSWER_SHORT, 16, 1000, 0, 0, WAYS_ASYNCHRONOUS},
    {"1", "one POST outstanding", ANSWER_SHORT, 1, 100, 0, 0, WAYS_ASYNCHRONOUS},
    {"idle", "idle, 8 tasks", ANSWER_NEVER, 0, 0, 0, 0, WAYS_WORKERS},
    {"silent", "one request that nobody answers", ANSWER_NEVER, 1, 1, 0, 0, WAYS_WORKERS},
    {"heap", "1,000 requests that nobody answers", ANSWER_NEVER, 1000, 1000, 0, 1000, WAYS_WORKERS},
};

std::vector<const char *> WaysOf(const TWork &tWork)
{
    std::vector<const char *> aszWays;
    for (const TNamedWay &tWay : g_atWays) {
        if ((tWay.dwKinds & tWork.dwWays) == tWork.dwWays) {
            aszWays.push_back(tWay.szName);
        }
    }
    return aszWays;
}

void PrintRun(const TRun &tRun)
{
    printf("%.0f posts, %.0f slow, %.0f failed, %f s, %f s of processor, %.0f switches, %.0f faults, "
           "%.0f allocations, %.0f bytes\n",
           tRun.dPosts, tRun.dSlow, tRun.dFailed, tRun.dSeconds, tRun.tUsage.dCpuSeconds, tRun.tUsage.dSwitches,
           tRun.tUsage.dFaults, tRun.tUsage.dAllocations, tRun.dHeapBytes);
}

TRun ParseRun(const std::string &strLine)
{
    TRun tRun;
    const int nFound =
        sscanf(strLine.c_str(),
               "%lf posts, %lf slow, %lf failed, %lf s, %lf s of processor, %lf switches, %lf faults, "
               "%lf allocations, %lf bytes",
               &tRun.dPosts, &tRun.dSlow, &tRun.dFailed, &tRun.dSeconds, &tRun.tUsage.dCpuSeconds,
               &tRun.tUsage.dSwitches, &tRun.tUsage.dFaults, &tRun.tUsage.dAllocations, &tRun.dHeapBytes);
    return nFound == 9 ? tRun : TRun{};
}

TRun RunWork(const TWork &tWork, const TNamedWay &tWay, uint32_t dwPosts, const std::string &strUrl)
{
    const size_t uAnswer = tWork.eAnswer == ANSWER_1_MB ? BENCH_LARGE_BYTES : BENCH_SHORT_BYTES;
    static const TWay tMade = tWay.pfMake(MakeTarget(strUrl, uAnswer)); /* its threads never end */
    return tWork.eAnswer == ANSWER_NEVER ? Rest(tWork, tMade) : RunPosts(tWork, tMade, dwPosts);
}
