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

/* Of each post, but for FIGURE_CPU of a work that waits. */
enum EFigure {
    FIGURE_TIME,         /* microseconds */
    FIGURE_CPU,          /* microseconds of processor time; milliseconds in 10 s of waiting */
    FIGURE_SWITCHES,     /* of threads that had to wait */
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

class CServers; /* what the works send to */

/* Ways of the work that the build has. */
std::vector<const char *> WaysOf(const TWork &tWork);

/* Each way once, one after the other, in each round. Throws std::runtime_error if a post fails. */
void MeasureTimes(CResults &tResults, const CServers &tServers, uint32_t dwRounds);

/* The figures that repeat, of one way. What needs a program that is missing stays empty. */
void MeasureFigures(CCell &tCell, const CServers &tServers, const TWork &tWork, const std::string &strWay);

#endif
