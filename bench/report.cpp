#include "bench/report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace
{

const char *const s_aszFigures[FIGURE_COUNT] = {"time",        "processor time", "switches",
                                                "page faults", "2 ms and more",  "instructions",
                                                "allocations", "system calls",   "heap bytes"};

const char *const s_szEasy = "libcurl";
const char *const s_szMulti = "libcurl, multi handles";
const char *const s_szLoop = "loop model";
const char *const s_szSync = "send module, synchronous";
const char *const s_szDirect = "send module, direct";
const char *const s_szAsync = "send module, asynchronous";

/* Why goals are missed; docs/performance.md has the measurements. */
const char *const s_szHeap = "the library takes 1 %; malloc for its six blocks more or less, as the heap is";
const char *const s_szBlocks = "six beyond libcurl's, each a fixed call of the caller's memory callbacks";
const char *const s_szRecords = "a request's nine records and list elements are fixed";
const char *const s_szMore = "a request has fixed records, texts and locks beyond the steps of the loop model";
const char *const s_szCopy = "the copy at the end is fixed";
const char *const s_szKernel = "kernel and server alone take more: see sockets, epoll";
const char *const s_szPass = "the loop model's pass is fixed and cannot be undercut";
const char *const s_szBeat = "its heartbeat every 20 ms is fixed";

double Median(std::vector<double> adValues)
{
    std::sort(adValues.begin(), adValues.end());
    return (adValues[(adValues.size() - 1) / 2] + adValues[adValues.size() / 2]) / 2;
}

struct TInterval {
    double dLow;
    double dHigh;
};

/* An interval that holds the median with at least 92 % confidence, or all of less than eight values. */
TInterval IntervalOfMedian(std::vector<double> adValues)
{
    std::sort(adValues.begin(), adValues.end());
    const double dCount = static_cast<double>(adValues.size());
    const size_t uBelow = static_cast<size_t>(std::max(0.0, (dCount - 1.96 * std::sqrt(dCount)) / 2));
    return {adValues[uBelow], adValues[adValues.size() - 1 - uBelow]};
}

std::string Text(double dValue)
{
    char szText[32];
    snprintf(szText, sizeof(szText), "%.*f", dValue < 10 ? 3 : dValue < 1000 ? 1 : 0, dValue);
    return szText;
}

std::string MedianText(const std::vector<double> &adValues)
{
    return adValues.empty() ? "-" : Text(Median(adValues));
}

/* The median, and in brackets its interval. */
std::string SpreadText(const std::vector<double> &adValues)
{
    std::string strText = MedianText(adValues);
    if (adValues.size() > 1) {
        const TInterval tInterval = IntervalOfMedian(adValues);
        strText += " (" + Text(tInterval.dLow) + " to " + Text(tInterval.dHigh) + ")";
    }
    return strText;
}

/* Of the rounds in which both were measured. */
std::vector<double> Compared(const std::vector<double> &adValues, const std::vector<double> &adBasis, bool bRatio)
{
    std::vector<double> adCompared;
    for (size_t uRound = 0; uRound < std::min(adValues.size(), adBasis.size()); uRound++) {
        adCompared.push_back(bRatio ? adValues[uRound] / adBasis[uRound] : adValues[uRound] - adBasis[uRound]);
    }
    return adCompared;
}

std::string Verdict(const std::vector<double> &adMeasured, const TGoal &tGoal)
{
    if (adMeasured.empty()) {
        return "not measured";
    }
    const TInterval tInterval = IntervalOfMedian(adMeasured);
    if (tInterval.dLow > tGoal.dAtMost) {
        return std::string("missed: ") + tGoal.szReason;
    }
    return tInterval.dHigh <= tGoal.dAtMost ? "met" : "open: rounds differ too much to tell";
}

} // namespace

const std::vector<TGoal> g_atGoals = {
    {"new", FIGURE_INSTRUCTIONS, s_szSync, s_szEasy, TGoal::RATIO, 1.03, s_szHeap},
    {"new", FIGURE_INSTRUCTIONS, s_szDirect, s_szEasy, TGoal::RATIO, 1.015},
    {"new", FIGURE_SYSTEM_CALLS, s_szDirect, "libcurl, options of direct", TGoal::DIFFERENCE, 1},
    {"new", FIGURE_ALLOCATIONS, s_szSync, s_szEasy, TGoal::VALUE, 76, s_szBlocks},
    {"new", FIGURE_TIME, s_szSync, s_szEasy, TGoal::RATIO, 1.03},
    {"new-8", FIGURE_TIME, s_szSync, s_szEasy, TGoal::RATIO, 1.03},
    {"large", FIGURE_TIME, s_szSync, s_szEasy, TGoal::RATIO, 1.08, s_szCopy},
    {"200", FIGURE_INSTRUCTIONS, s_szAsync, s_szMulti, TGoal::RATIO, 1.04, s_szMore},
    {"200", FIGURE_ALLOCATIONS, s_szAsync, s_szMulti, TGoal::VALUE, 58, s_szRecords},
    {"200", FIGURE_SYSTEM_CALLS, s_szAsync, s_szLoop, TGoal::RATIO, 1.0, s_szMore},
    {"200", FIGURE_TIME, s_szAsync, s_szLoop, TGoal::RATIO, 1.0, s_szMore},
    {"200", FIGURE_CPU, s_szAsync, s_szLoop, TGoal::RATIO, 1.0, s_szMore},
    {"200-tls", FIGURE_TIME, s_szAsync, s_szLoop, TGoal::RATIO, 1.0, s_szMore},
    {"1024", FIGURE_TIME, s_szAsync, s_szMulti, TGoal::RATIO, 0.75, s_szKernel},
    {"256", FIGURE_TIME, s_szAsync, s_szLoop, TGoal::RATIO, 1.0, s_szMore},
    {"256", FIGURE_CPU, s_szAsync, s_szLoop, TGoal::RATIO, 1.0, s_szMore},
    {"256", FIGURE_TIME, "C++ client", "engine", TGoal::RATIO, 1.1},
    {"1", FIGURE_TIME, s_szAsync, s_szLoop, TGoal::VALUE, 2100}, /* the rest of 2 ms and a post */
    {"idle", FIGURE_CPU, s_szAsync, s_szLoop, TGoal::RATIO, 0.9, s_szPass},
    {"idle", FIGURE_CPU, "C++ client", "engine", TGoal::RATIO, 1.0},
    {"silent", FIGURE_CPU, "C++ client", "engine", TGoal::VALUE, 100, s_szBeat},
    {"heap", FIGURE_HEAP, s_szAsync, s_szMulti, TGoal::DIFFERENCE, 1024},
};

bool IsGoal(const TWork &tWork, const char *szWay)
{
    const std::string strWay = szWay;
    return std::any_of(g_atGoals.begin(), g_atGoals.end(), [&](const TGoal &tGoal) {
        return std::string(tWork.szName) == tGoal.szWork && (strWay == tGoal.szWay || strWay == tGoal.szBasis);
    });
}

void PrintGoals(CResults &tResults)
{
    printf("| work | figure | way | beside | its figure | measured | goal, at most | "
           "|\n|---|---|---|---|---|---|---|---|\n");
    for (const TGoal &tGoal : g_atGoals) {
        const std::vector<double> &adValues = tResults[{tGoal.szWork, tGoal.szWay}][tGoal.eFigure];
        const std::vector<double> &adBasis = tResults[{tGoal.szWork, tGoal.szBasis}][tGoal.eFigure];
        const std::vector<double> adMeasured =
            tGoal.eKind == TGoal::VALUE ? adValues : Compared(adValues, adBasis, tGoal.eKind == TGoal::RATIO);
        const char *szMark = tGoal.eKind == TGoal::VALUE ? "" : tGoal.eKind == TGoal::RATIO ? " times" : " more";
        printf("| %s | %s | %s | %s | %s | %s%s | %s%s | %s |\n", Named(g_atWorks, tGoal.szWork).szTitle,
               s_aszFigures[tGoal.eFigure], tGoal.szWay, tGoal.szBasis, MedianText(adBasis).c_str(),
               SpreadText(adMeasured).c_str(), szMark, Text(tGoal.dAtMost).c_str(), szMark,
               Verdict(adMeasured, tGoal).c_str());
    }
}

void PrintTimes(CResults &tResults)
{
    for (const TWork &tWork : g_atWorks) {
        const std::vector<const char *> aszWays = WaysOf(tWork);
        const CCell &tFirst = tResults[{tWork.szName, aszWays[0]}];
        if (tFirst[FIGURE_CPU].empty()) {
            continue;
        }
        const bool bWaits = tWork.eAnswer == ANSWER_NEVER;
        printf("\n%s:\n\n| way | time | beside the first | processor time | beside the first | switches | "
               "page faults | 2 ms and more |\n|---|---|---|---|---|---|---|---|\n",
               tWork.szTitle);
        for (const char *szWay : aszWays) {
            const CCell &tCell = tResults[{tWork.szName, szWay}];
            printf("| %s | %s%s | %s | %s%s | %s | %s | %s | %s |\n", szWay, MedianText(tCell[FIGURE_TIME]).c_str(),
                   bWaits ? "" : " us", SpreadText(Compared(tCell[FIGURE_TIME], tFirst[FIGURE_TIME], true)).c_str(),
                   MedianText(tCell[FIGURE_CPU]).c_str(), bWaits ? " ms in 10 s" : " us",
                   SpreadText(Compared(tCell[FIGURE_CPU], tFirst[FIGURE_CPU], true)).c_str(),
                   MedianText(tCell[FIGURE_SWITCHES]).c_str(), MedianText(tCell[FIGURE_FAULTS]).c_str(),
                   MedianText(tCell[FIGURE_SLOW]).c_str());
        }
    }
}

void PrintFigures(CResults &tResults)
{
    printf("\n| work | way | instructions | beside the first | allocations | system calls | heap bytes |\n"
           "|---|---|---|---|---|---|---|\n");
    for (const TWork &tWork : g_atWorks) {
        for (const char *szWay : tWork.dwFigureTo != 0 ? WaysOf(tWork) : std::vector<const char *>()) {
            const CCell &tCell = tResults[{tWork.szName, szWay}];
            const CCell &tFirst = tResults[{tWork.szName, WaysOf(tWork)[0]}];
            printf("| %s | %s | %s | %s | %s | %s | %s |\n", tWork.szTitle, szWay,
                   MedianText(tCell[FIGURE_INSTRUCTIONS]).c_str(),
                   MedianText(Compared(tCell[FIGURE_INSTRUCTIONS], tFirst[FIGURE_INSTRUCTIONS], true)).c_str(),
                   MedianText(tCell[FIGURE_ALLOCATIONS]).c_str(), MedianText(tCell[FIGURE_SYSTEM_CALLS]).c_str(),
                   MedianText(tCell[FIGURE_HEAP]).c_str());
        }
    }
}
