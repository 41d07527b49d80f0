/*
 * A closed loop of posts: so many are outstanding at any time, and each end starts the next one.
 */
#ifndef BENCH_LOAD_H
#define BENCH_LOAD_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

using CBenchClock = std::chrono::steady_clock;

struct TLoop;

/* Posts that follow each other. Only one thread at a time has to do with it. */
struct TChain {
    uint32_t dwIndex = 0; /* from 0 on */
    TLoop *ptLoop = nullptr;
    CBenchClock::time_point tStart;
    std::vector<double> adMillis; /* of its posts that succeeded */
};

/* A way of sending. */
struct TWay {
    const char *szName;
    /* Of a blocking way, whether the post succeeded; of another one, whether ChainEnded will be called. */
    std::function<bool(TChain &tChain)> pfSend;
    bool bBlocks = false;
};

struct TLoadResult {
    double dPerSecond = 0;
    double dP50Millis = 0;
    double dP99Millis = 0;
    double dCpuMicros = 0; /* of this process, for each post */
    uint32_t dwFailed = 0;
};

/* Runs the loop for this long, and until what is outstanding has ended. A chain ends with its first failure. */
TLoadResult RunLoad(const TWay &tWay, uint32_t dwOutstanding, std::chrono::milliseconds tSpan);

/* The post of a way that does not block has ended, on whatever thread. */
void ChainEnded(TChain &tChain, bool bSucceeded);

/* Processor time of the process up to now. */
std::chrono::nanoseconds CpuTime();

#endif
