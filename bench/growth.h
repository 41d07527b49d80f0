/*
 * The curves of answers by their size: they need requests of their own.
 */
#ifndef BENCH_GROWTH_H
#define BENCH_GROWTH_H

#include "bench/curve.h"
#include "tests/integration/nginx_server.h"

enum { GROWTH_LEAST_ANSWER = 1024, GROWTH_LARGEST_ANSWER = 16 * 1024 * 1024 };

/*
 * Of an answer of so many bytes: ms of time, ms of processor time, reallocations, how many of them moved the block,
 * MB that they had to keep.
 */
std::vector<TCurve> AnswerCurves(const test::NginxServer &tServer);

#endif
