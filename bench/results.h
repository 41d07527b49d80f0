/*
 * Runs works in processes of their own and collects their figures.
 */
#ifndef BENCH_RESULTS_H
#define BENCH_RESULTS_H

#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench/works.h"

/* Of each post, but for works that wait. */
enum EFigure {
    FIGURE_TIME,         /* microseconds */
    FIGURE_CPU,          /* microseconds of processor time; milliseconds in 10 s of waiting */
    FIGURE_SWITCHES,     /* of threads that had to wait */
    FIGURE_FAULTS,       /* pages that the kernel had to provide */
    FIGURE_SLOW,         /* the share of posts that take 2 ms and more */
    FIGURE_INSTRUCTIONS, /* this and the following ones repeat from run to run */
    FIGURE_ALLOCATIONS,
    FIGURE_SYSTEM_CALLS,
    FIGURE_HEAP, /* bytes while the post is outstanding */
    FIGURE_COUNT
};

/* By round; empty for what has not been measured. */
using CCell = std::array<std::vector<double>, FIGURE_COUNT>;

/* By names of work and way. */
using CResults = std::map<std::pair<std::string, std::string>, CCell>;

/*
 * Runs each way once, one after the other, in each round; then measures the figures that repeat, of those ways for
 * which the function is true. What needs a program that is missing stays empty. Throws std::runtime_error if a post
 * fails.
 */
CResults Measure(uint32_t dwRounds, bool (*pfWithFigures)(const TWork &tWork, const char *szWay));

#endif
