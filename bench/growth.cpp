/*
 * What the library costs as numbers grow: outstanding requests, tasks, instances, sizes of answers.
 *
 * Writes the curves of one family as gnuplot reads them; scripts/bench-plots makes the plots.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "bench/growth.h"
#include "bench/heap.h"
#include "bench/works.h"
#include "nvrhttpcurl/httpcurlclient.h"
#include "tests/support/loopback.h"
#include "tests/support/process_state.h"
#include "tools/common/open_files.h"
#include "tools/post/latency.h"

namespace
{

using std::chrono::milliseconds;

/* A slot of the send module is free after its notification, in which the loop sends again. */
enum { MOST_IN_LOOP = BENCH_MOST_OUTSTANDING - BENCH_WORKERS };

enum { ANY_POSTS = 1000000, SPREAD_OUTSTANDING = 64, MOST_IDLE = 64, SETTLE_MS = 300 };
enum { WAIT_MS = 50, REST_MS = 2, IDLE_MS = 10 * (WAIT_MS + REST_MS) };

struct TGrowth {
    const test::NginxServer &tServer;
    uint32_t dwRounds = 3;
    uint32_t dwLoadMS = 150; /* for each way, number and round */
    std::vector<std::string> astrWays = {"libcurl, multi handles",
                                         "libcurl, a thread each",
                                         "loop model",
                                         "engine",
                                         "send module, asynchronous",
                                         "C++ client"};
    std::vector<uint32_t> adwOutstanding = {1, 2, 4, 8, 16, 32, 64, 128, 256, 512, MOST_IN_LOOP};
};

/*
 * The rows below are measured in a process of their own. Ways, and chains that have not ended, are static: their
 * threads still run when the row is complete.
 */

/* posts/s, p50 and p99 in ms, us of processor time a post, switches of threads that wait a post */
CRow LoadRow(const std::function<TWay()> &pfMake, uint32_t dwOutstanding, milliseconds tSpan)
{
    static const TWay tWay = pfMake();
    RunLoad(tWay, dwOutstanding, 2 * dwOutstanding, std::chrono::minutes(1)); /* opens the connections */
    const TLoadResult tResult = RunLoad(tWay, dwOutstanding, ANY_POSTS, tSpan);
    if (tResult.dwFailed != 0) {
        throw std::runtime_error(std::to_string(tResult.dwFailed) + " posts failed");
    }
    const TLatencySummary tTimes = SummarizeLatency(tResult.adMillis);
    return {tResult.dPosts / tResult.dSeconds, tTimes.dP50, tTimes.dP99,
            1e6 * tResult.tUsage.dCpuSeconds / tResult.dPosts, tResult.tUsage.dSwitches / tResult.dPosts};
}

TTarget ReadyTarget(const TGrowth &tGrowth)
{
    return MakeTarget(tGrowth.tServer.Http("/ready"), BENCH_SHORT_BYTES);
}

/* By the number of outstanding posts. */
void WriteLoad(const TGrowth &tGrowth)
{
    const TTarget tTarget = ReadyTarget(tGrowth);
    const milliseconds tSpan(tGrowth.dwLoadMS);
    std::vector<TCurve> atCurves;
    for (const std::string &strWay : tGrowth.astrWays) {
        const auto pfMake = [&tTarget, pfWay = Named(g_atWays, strWay).pfMake] { return pfWay(tTarget); };
        atCurves.push_back(
            {strWay, [=](uint32_t dwX) { return InChild([&] { return LoadRow(pfMake, dwX, tSpan); }); }});
    }
    WriteCurves(atCurves, tGrowth.adwOutstanding, tGrowth.dwRounds);
}

/* By the number of tasks of one instance, and of instances of one task each. */
void WriteSpread(const TGrowth &tGrowth)
{
    const TTarget tTarget = ReadyTarget(tGrowth);
    const auto pfRow = [&](uint32_t dwInstances, uint32_t dwTasks) {
        const auto pfMake = [&] { return EngineWayOver(tTarget, dwInstances, dwTasks); };
        return InChild([&] { return LoadRow(pfMake, SPREAD_OUTSTANDING, milliseconds(tGrowth.dwLoadMS)); });
    };
    WriteCurves({{"tasks of one instance", [&](uint32_t dwX) { return pfRow(1, dwX); }},
                 {"instances with one task", [&](uint32_t dwX) { return pfRow(dwX, 1); }}},
                Doubled(NVRHTTPCURLCLT_MAX_TASKS), tGrowth.dwRounds);
}

/* ms of processor time and switches of threads that wait, in a second. */
CRow IdleRow()
{
    std::this_thread::sleep_for(milliseconds(SETTLE_MS));
    const TUsage tBefore = Usage();
    std::this_thread::sleep_for(milliseconds(IDLE_MS));
    const TUsage tUsage = Usage() - tBefore;
    const double dSeconds = double{IDLE_MS} / 1000;
    return {1e3 * tUsage.dCpuSeconds / dSeconds, tUsage.dSwitches / dSeconds};
}

CRow IdleTasks(const TTarget &tTarget, uint32_t dwTasks)
{
    const uint32_t dwEach = std::min(dwTasks, uint32_t{NVRHTTPCURLCLT_MAX_TASKS});
    static const TWay tWay = EngineWayOver(tTarget, dwTasks / dwEach, dwEach);
    return IdleRow();
}

/* The rhythm of idle tasks and nothing else. */
CRow IdleThreads(uint32_t dwThreads)
{
    for (uint32_t dwIndex = 0; dwIndex < dwThreads; dwIndex++) {
        std::thread([] {
            for (;;) {
                poll(nullptr, 0, WAIT_MS);
                std::this_thread::sleep_for(milliseconds(REST_MS));
            }
        }).detach();
    }
    return IdleRow();
}

/* By the number of tasks with nothing to do. */
void WriteIdle(const TGrowth &tGrowth)
{
    const TTarget tTarget = ReadyTarget(tGrowth);
    WriteCurves({{"idle tasks", [&](uint32_t dwX) { return InChild([&] { return IdleTasks(tTarget, dwX); }); }},
                 {"threads that wait as long", [](uint32_t dwX) { return InChild([&] { return IdleThreads(dwX); }); }}},
                Doubled(MOST_IDLE), tGrowth.dwRounds);
}

/* The requests of these chains, which nobody answers. */
void SendSilent(const TWay &tWay, std::deque<TChain> &atChains, uint32_t dwFirst, uint32_t dwRequests)
{
    for (uint32_t dwIndex = dwFirst; dwIndex < dwFirst + dwRequests; dwIndex++) {
        atChains[dwIndex].dwIndex = dwIndex;
        if (!tWay.pfSend(atChains[dwIndex])) {
            throw std::runtime_error("a request could not be sent");
        }
    }
    std::this_thread::sleep_for(milliseconds(SETTLE_MS));
}

/* The kernel takes connections and requests, for which there is a place for each, and nobody answers. */
std::string SilentUrl()
{
    uint16_t wPort = 0;
    const int nSocket = test::BindLoopback(&wPort);
    if (nSocket < 0 || listen(nSocket, BENCH_MOST_OUTSTANDING) != 0) {
        throw std::runtime_error("no free loopback port");
    }
    return test::LoopbackUrl(wPort);
}

/* Bytes of heap for each of so many requests, beyond a first one of each worker. */
CRow HeapRow(CWayMaker pfMake, uint32_t dwRequests)
{
    CountHeap();
    static std::deque<TChain> s_atChains(BENCH_MOST_OUTSTANDING);
    static const TWay tWay = pfMake(MakeTarget(SilentUrl(), BENCH_SHORT_BYTES));
    SendSilent(tWay, s_atChains, 0, BENCH_WORKERS);
    const int64_t llBefore = HeapBytes();
    SendSilent(tWay, s_atChains, BENCH_WORKERS, dwRequests);
    return {static_cast<double>(HeapBytes() - llBefore) / dwRequests};
}

/* Bytes of heap for each outstanding request, and how many more than bare multi handles take. */
void WriteMemory(const TGrowth &tGrowth)
{
    double dBare = 0; /* at the same number: the curve of bare handles is measured first */
    std::vector<TCurve> atCurves;
    for (const char *szWay : {"libcurl, multi handles", "engine", "send module, asynchronous", "C++ client"}) {
        const bool bBare = atCurves.empty();
        atCurves.push_back({szWay, [&dBare, bBare, pfMake = Named(g_atWays, szWay).pfMake](uint32_t dwX) {
                                const double dBytes = InChild([&] { return HeapRow(pfMake, dwX); }).front();
                                dBare = bBare ? dBytes : dBare;
                                return CRow{dBytes, dBytes - dBare};
                            }});
    }
    WriteCurves(atCurves, tGrowth.adwOutstanding, tGrowth.dwRounds);
}

void WriteAnswers(const TGrowth &tGrowth)
{
    WriteCurves(AnswerCurves(tGrowth.tServer), Doubled(GROWTH_LARGEST_ANSWER, GROWTH_LEAST_ANSWER), tGrowth.dwRounds);
}

const std::map<std::string, void (*)(const TGrowth &)> s_tFamilies = {{"answers", WriteAnswers},
                                                                      {"idle", WriteIdle},
                                                                      {"load", WriteLoad},
                                                                      {"memory", WriteMemory},
                                                                      {"spread", WriteSpread}};

int ParseAndRun(int nArgc, char **ppchArgv)
{
    test::ClearProxies();
    RaiseOpenFiles();
    const test::NginxServer tServer;
    if (!tServer.Problem().empty()) {
        throw std::runtime_error(tServer.Problem());
    }
    CLI::App tApp{"Measures what the library costs as numbers grow"};
    std::string strFamily;
    TGrowth tGrowth{tServer};
    tApp.add_option("family", strFamily)->required()->check(CLI::IsMember(&s_tFamilies));
    tApp.add_option("--rounds", tGrowth.dwRounds)->check(CLI::Range(1U, 100U))->capture_default_str();
    tApp.add_option("--millis", tGrowth.dwLoadMS, "For each way, number and round of a load")
        ->check(CLI::Range(10U, 10000U))
        ->capture_default_str();
    tApp.add_option("--way", tGrowth.astrWays, "For a load: these ways only");
    tApp.add_option("--outstanding", tGrowth.adwOutstanding, "For loads and memory: these numbers only")
        ->check(CLI::Range(1U, uint32_t{MOST_IN_LOOP}));
    CLI11_PARSE(tApp, nArgc, ppchArgv);
    s_tFamilies.at(strFamily)(tGrowth);
    return EXIT_SUCCESS;
}

} // namespace

int main(int nArgc, char **ppchArgv)
{
    try {
        return ParseAndRun(nArgc, ppchArgv);
    } catch (const std::exception &tError) {
        fprintf(stderr, "growth: %s\n", tError.what());
        return EXIT_FAILURE;
    }
}
