#include "bench/results.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/integration/nginx_server.h"
#include "tests/support/loopback.h"

namespace
{

using CCommand = std::vector<std::string>;

/* What the works send to, on loopback. */
class CServers
{
  public:
    CServers()
    {
        if (!m_tNginx.Problem().empty()) {
            throw std::runtime_error(m_tNginx.Problem());
        }
        m_tNginx.MakeFile("large", BENCH_LARGE_BYTES);
    }

    ~CServers()
    {
        close(m_nSilent);
    }

    CServers(const CServers &) = delete;
    CServers &operator=(const CServers &) = delete;

    std::string Url(EAnswer eAnswer)
    {
        return eAnswer == ANSWER_NEVER       ? SilentUrl()
               : eAnswer == ANSWER_SHORT_TLS ? m_tNginx.Https("/ready")
                                             : m_tNginx.Http(eAnswer == ANSWER_1_MB ? "/files/large" : "/ready");
    }

  private:
    /* A new port each time: connections to the old one stay with it. */
    std::string SilentUrl()
    {
        uint16_t wPort = 0;
        close(m_nSilent);
        m_nSilent = test::BindLoopback(&wPort);
        if (m_nSilent < 0 || listen(m_nSilent, BENCH_MOST_OUTSTANDING) != 0) {
            throw std::runtime_error("no free loopback port");
        }
        return test::LoopbackUrl(wPort);
    }

    const test::NginxServer m_tNginx;
    int m_nSilent = -1; /* the kernel takes connections and requests */
};

enum { STATUS_NOT_FOUND = 127, REST_SECONDS = 10, FIGURE_ROUNDS = 5, MOST_MORE = 3 };

CCommand operator+(CCommand astrFirst, const CCommand &astrSecond)
{
    astrFirst.insert(astrFirst.end(), astrSecond.begin(), astrSecond.end());
    return astrFirst;
}

/* Runs this program for one work, below the tool where one is named. */
test::Finished RunOne(CServers &tServers, const TWork &tWork, const std::string &strWay, uint32_t dwPosts,
                      const CCommand &astrTool, const CCommand &astrFlags)
{
    const CCommand astrOne = {std::filesystem::read_symlink("/proc/self/exe"),
                              "one",
                              tWork.szName,
                              strWay,
                              std::to_string(dwPosts),
                              tServers.Url(tWork.eAnswer)};
    test::Finished tEnded = test::RunProgram({CCommand{"/usr/bin/env"} + astrTool + astrOne + astrFlags});
    if (tEnded.status != 0 && tEnded.status != STATUS_NOT_FOUND) {
        throw std::runtime_error(std::string(tWork.szName) + ", " + strWay + ": " + tEnded.output + tEnded.errors);
    }
    return tEnded;
}

/* Once is enough, and its processor time is that of the tasks and of 1,000 timers. */
bool IsOfHeap(const TWork &tWork)
{
    return tWork.eAnswer == ANSWER_NEVER && tWork.dwFigureTo != 0;
}

void AddRun(CCell &tCell, const TWork &tWork, const TRun &tRun)
{
    if (tWork.eAnswer == ANSWER_NEVER) {
        tCell[FIGURE_CPU].push_back(tRun.tUsage.dCpuSeconds / tRun.dSeconds * 1e3 * int{REST_SECONDS});
        tCell[FIGURE_SWITCHES].push_back(tRun.tUsage.dSwitches / tRun.dSeconds * int{REST_SECONDS});
        return;
    }
    tCell[FIGURE_TIME].push_back(tRun.dSeconds / tRun.dPosts * 1e6);
    tCell[FIGURE_CPU].push_back(tRun.tUsage.dCpuSeconds / tRun.dPosts * 1e6);
    tCell[FIGURE_SWITCHES].push_back(tRun.tUsage.dSwitches / tRun.dPosts);
    tCell[FIGURE_FAULTS].push_back(tRun.tUsage.dFaults / tRun.dPosts);
    tCell[FIGURE_SLOW].push_back(tRun.dSlow / tRun.dPosts);
}

/* The number that the format finds at the last place of the mark in a tool's report. */
std::optional<double> Reported(const std::string &strReport, const char *szMark, const char *szFormat)
{
    double dValue = 0;
    const size_t uMark = strReport.rfind(szMark);
    if (uMark == std::string::npos || sscanf(strReport.c_str() + uMark, szFormat, &dValue) != 1) {
        return std::nullopt;
    }
    return dValue;
}

/* Two runs: what start and end of the process take cancels out. */
template <typename TTotal> void AddDifference(std::vector<double> &adFigure, const TWork &tWork, const TTotal &tTotal)
{
    const std::optional<double> tFrom = tTotal(tWork.dwFigureFrom);
    const std::optional<double> tTo = tFrom ? tTotal(tWork.dwFigureTo) : tFrom;
    if (tTo) {
        adFigure.push_back((*tTo - *tFrom) / (tWork.dwFigureTo - tWork.dwFigureFrom));
    }
}

void MeasureTimes(CResults &tResults, uint32_t dwRounds)
{
    CServers tServers;
    for (const TWork &tWork : g_atWorks) {
        if (IsOfHeap(tWork)) {
            continue;
        }
        std::vector<const char *> aszWays = WaysOf(tWork);
        for (uint32_t dwRound = 0; dwRound < dwRounds; dwRound++) {
            std::rotate(aszWays.begin(), aszWays.begin() + 1, aszWays.end()); /* none is always the first */
            for (const char *szWay : aszWays) {
                const test::Finished tEnded = RunOne(tServers, tWork, szWay, tWork.dwPosts, {}, {});
                AddRun(tResults[{tWork.szName, szWay}], tWork, ParseRun(tEnded.output));
            }
        }
        fprintf(stderr, "%s: measured\n", tWork.szTitle);
    }
}

/*
 * From now on client and server, which inherit it, run on one processor, and none interrupts the other: whether an
 * answer has come already when libcurl looks for it no longer depends on luck.
 */
void TakeTurns()
{
    const sched_param tParam = {};
    cpu_set_t tOne;
    CPU_ZERO(&tOne);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &tOne);
    sched_setaffinity(0, sizeof(tOne), &tOne);
    sched_setscheduler(0, SCHED_BATCH, &tParam);
}

void MeasureFigures(CCell &tCell, CServers &tServers, const TWork &tWork, const std::string &strWay)
{
    const auto tHeap = [&](uint32_t dwPosts) {
        return ParseRun(RunOne(tServers, tWork, strWay, dwPosts, {}, {"--heap"}).output);
    };
    if (IsOfHeap(tWork)) {
        tCell[FIGURE_HEAP].push_back(tHeap(tWork.dwPosts).dHeapBytes / tWork.dwPosts);
        return;
    }
    /* Of a blocking way only the sends count, and not what idle workers do meanwhile. */
    const bool bBlocks = (tWork.dwWays & WAYS_BLOCKING) != 0;
    const CCommand astrCallgrind = CCommand{"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"} +
                                   (bBlocks ? CCommand{"--toggle-collect=*::Send(TChain&)"} : CCommand{});
    /* Tracing makes threads wait for each other's locks far longer: those calls would be strace's own. */
    const CCommand astrStrace =
        CCommand{"strace", "-c"} + (bBlocks ? CCommand{} : CCommand{"-f", "--seccomp-bpf", "-e", "trace=!futex"});
    AddDifference(tCell[FIGURE_INSTRUCTIONS], tWork, [&](uint32_t dwPosts) {
        const test::Finished tEnded = RunOne(tServers, tWork, strWay, dwPosts, astrCallgrind, {});
        return Reported(tEnded.errors, "Collected :", "Collected : %lf");
    });
    AddDifference(tCell[FIGURE_SYSTEM_CALLS], tWork, [&](uint32_t dwPosts) {
        const test::Finished tEnded = RunOne(tServers, tWork, strWay, dwPosts, astrStrace, {});
        return Reported(tEnded.errors, "100.00 ", "%*f %*f %*f %lf");
    });
    AddDifference(tCell[FIGURE_ALLOCATIONS], tWork,
                  [&](uint32_t dwPosts) { return std::optional<double>(tHeap(dwPosts).tUsage.dAllocations); });
}

} // namespace

CResults Measure(uint32_t dwRounds, bool (*pfWithFigures)(const TWork &tWork, const char *szWay))
{
    CResults tResults;
    MeasureTimes(tResults, dwRounds);
    TakeTurns();
    CServers tServers;
    for (const TWork &tWork : g_atWorks) {
        for (const char *szWay : WaysOf(tWork)) {
            const bool bWanted = tWork.dwFigureTo != 0 && pfWithFigures(tWork, szWay);
            /* Those of workers depend a little on how many passes they take. */
            const uint32_t dwMore = std::min<uint32_t>(dwRounds / FIGURE_ROUNDS, MOST_MORE);
            const uint32_t dwRuns = !bWanted ? 0 : (tWork.dwWays & WAYS_BLOCKING) != 0 ? 1 : 1 + dwMore;
            for (uint32_t dwRun = 0; dwRun < dwRuns; dwRun++) {
                MeasureFigures(tResults[{tWork.szName, szWay}], tServers, tWork, szWay);
            }
        }
    }
    return tResults;
}
