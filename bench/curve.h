/*
 * Curves: what something costs as a number grows, in interleaved rounds.
 */
#ifndef BENCH_CURVE_H
#define BENCH_CURVE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/* The measured columns at one place of a curve. */
using CRow = std::vector<double>;

struct TCurve {
    std::string strName;
    std::function<CRow(uint32_t dwX)> pfMeasure;
};

/*
 * Measures in a process of its own: ways live as long as theirs, and what one leaves behind must not change the next
 * one. No thread may run yet. Throws std::runtime_error if that process fails.
 */
CRow InChild(const std::function<CRow()> &pfMeasure);

/* dwFirst, twice as much and so on up to dwMost. */
std::vector<uint32_t> Doubled(uint32_t dwMost, uint32_t dwFirst = 1);

/*
 * Measures each curve at each number in dwRounds rounds and writes them to standard output as gnuplot reads them: a
 * block for each curve, its name first, and in each line the medians of all columns, then their least and then their
 * greatest values.
 */
void WriteCurves(const std::vector<TCurve> &atCurves, const std::vector<uint32_t> &adwNumbers, uint32_t dwRounds);

#endif
