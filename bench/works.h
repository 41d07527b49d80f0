/*
 * What is measured.
 */
#ifndef BENCH_WORKS_H
#define BENCH_WORKS_H

#include <stdexcept>
#include <string>
#include <vector>

#include "bench/ways.h"

enum EAnswer {
    ANSWER_SHORT,
    ANSWER_SHORT_TLS,
    ANSWER_1_MB,
    ANSWER_NEVER /* the work is to wait: processor time and heap meanwhile */
};

enum { BENCH_SHORT_BYTES = 5, BENCH_LARGE_BYTES = 1 << 20 };

struct TWork {
    const char *szName;
    const char *szTitle;
    EAnswer eAnswer;
    uint32_t dwOutstanding;
    uint32_t dwPosts;
    uint32_t dwFigureFrom; /* of the posts from here to there the figures that repeat are taken; 0, 0: of none */
    uint32_t dwFigureTo;
    uint32_t dwWays; /* the kinds that a way must have */
};

extern const std::vector<TWork> g_atWorks;

/* The ways that do it, of those that the build has; the first one is the measure of the others. */
std::vector<const char *> WaysOf(const TWork &tWork);

/* The work or way of a name. Throws std::invalid_argument. */
template <typename T> const T &Named(const std::vector<T> &atAll, const std::string &strName)
{
    for (const T &tOne : atAll) {
        if (strName == tOne.szName) {
            return tOne;
        }
    }
    throw std::invalid_argument("there is no " + strName);
}

/* What one run of a work yields: totals of the process. */
struct TRun {
    double dPosts = 0;
    double dSeconds = 0;
    double dSlow = 0; /* posts of 2 ms and more, which is the rest of a worker */
    double dFailed = 0;
    TUsage tUsage;
    double dHeapBytes = 0; /* only where the heap is counted */
};

/* A line of text, for the process that started this one. */
void PrintRun(const TRun &tRun);
/* All 0 for any other text. */
TRun ParseRun(const std::string &strLine);

/* In a process of its own: threads of ways never end. */
TRun RunWork(const TWork &tWork, const TNamedWay &tWay, uint32_t dwPosts, const std::string &strUrl);

#endif
