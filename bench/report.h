/*
 * The tables, in Markdown.
 */
#ifndef BENCH_REPORT_H
#define BENCH_REPORT_H

#include "bench/results.h"

/* What has to be reached, and how that is measured. */
struct TGoal {
    const char *szWork;
    EFigure eFigure;
    const char *szWay;
    const char *szBasis; /* a way of the same work */
    enum { RATIO, DIFFERENCE, VALUE } eKind;
    double dAtMost;
    const char *szReason = "not looked into"; /* why it is missed, where it is */
};

extern const std::vector<TGoal> g_atGoals;

/* Whether a goal needs the figures that repeat of this way. */
bool IsGoal(const TWork &tWork, const char *szWay);

void PrintGoals(CResults &tResults);
void PrintTimes(CResults &tResults);
void PrintFigures(CResults &tResults);

#endif
