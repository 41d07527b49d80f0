/*
 * A closed loop of posts: so many are outstanding at any time, and each end starts the next one.
 */
#ifndef BENCH_LOAD_H
#define BENCH_LOAD_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using CBenchClock = std::chrono::steady_clock;

enum { CHAIN_ANSWER_BYTES = 4096 };

struct TLoop;

/* Posts that follow each other. Only one thread at a time has to do with it. */
struct TChain {
    /* First, for callbacks that get nothing but the address of their buffer: see ChainOf. */
    char achAnswer[CHAIN_ANSWER_BYTES];
    std::string strAnswer; /* for answers of any length */
    uint32_t dwIndex = 0;  /* from 0 on */
    TLoop *ptLoop = nullptr;
    CBenchClock::time_point tStart;
    std::vector<double> adMillis; /* of its posts that succeeded */
};

/* The chain whose achAnswer this is. */
TChain &ChainOf(void *pvAnswer);

/* A way of sending. */
struct TWay {
    /* Of a blocking way, whether the post succeeded; of another one, whether ChainEnded will be called. */
    std::function<bool(TChain &tChain)> pfSend;
    bool bBlocks = false;
};

/* What this process has used. */
struct TUsage {
    double dCpuSeconds = 0;
    double dSwitches = 0;    /* of threads that had to wait */
    double dFaults = 0;      /* pages that the kernel had to provide */
    double dAllocations = 0; /* only where the heap is counted */
};

struct TLoadResult {
    double dPosts = 0; /* that succeeded */
    double dSeconds = 0;
    TUsage tUsage;
    std::vector<double> adMillis; /* of each post */
    uint32_t dwFailed = 0;
};

/*
 * Runs the loop for so many posts or for this long, whichever is first, and until what is outstanding has
 * ended. A chain ends with its first failure. A blocking way has a thread for each chain; the first one is the
 * caller's.
 */
TLoadResult RunLoad(const TWay &tWay, uint32_t dwOutstanding, uint32_t dwPosts, std::chrono::milliseconds tSpan);

/* The post of a way that does not block has ended, on whatever thread. */
void ChainEnded(TChain &tChain, bool bSucceeded);

/* Up to now. */
TUsage Usage();
TUsage operator-(const TUsage &tAfter, const TUsage &tBefore);

#endif
