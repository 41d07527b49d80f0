/*
 * Percentiles of measured times.
 */
#ifndef TOOLS_POST_LATENCY_H
#define TOOLS_POST_LATENCY_H

#include <string>
#include <vector>

struct TLatencySummary {
    double dP50;
    double dP95;
    double dP99;
    double dMax;
};

/* The smallest values that 50, 95 and 99 in a hundred do not exceed; all 0 for no values. */
TLatencySummary SummarizeLatency(std::vector<double> adMillis);

/* "812 us", "12.3 ms", "1.234 s". */
std::string MillisText(double dMillis);

#endif
