/*
 * What becomes of the posts of one run: counts, results and times. All calls may be made from
 * any thread.
 */
#ifndef TOOLS_POST_POST_TALLY_H
#define TOOLS_POST_POST_TALLY_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "nvrhttpcurl/sendbycurl.h"

using CPostClock = std::chrono::steady_clock;

struct TPostCounts {
    uint32_t dwTotal = 0;
    uint32_t dwStarted = 0;
    uint32_t dwOk = 0;
    uint32_t dwFailed = 0;
    uint32_t dwRefused = 0; /* of the failed: the module did not accept the submission */
    uint32_t dwLost = 0;    /* started, and not reported by the end of the run */
};

struct TPostTally {
    std::mutex tLock; /* guards all below but tBegin */
    std::condition_variable tChanged;
    TPostCounts tCounts;
    std::array<uint32_t, 16> adwFailures = {}; /* by result */
    std::map<int, uint32_t> tStatuses;         /* answers by HTTP status, where the mode knows it */
    ESendByCurlRet eFirstFailure = SENDBYCURL_OK;
    std::vector<double> adMillis;    /* of those that succeeded */
    uint32_t dwAwaited = UINT32_MAX; /* ends that TallyAwait waits for */
    bool bOver = false;

    CPostClock::time_point tBegin;
};

double Seconds(CPostClock::duration tSpan);
double Millis(CPostClock::duration tSpan);

/* Those that are not outstanding any more, whatever became of them. */
uint32_t EndedOf(const TPostCounts &tCounts);

/* Begins a run of dwTotal posts. */
void TallyBegin(TPostTally &tTally, uint32_t dwTotal);

/* The number of the next post to start, counted as started; false if all have been. */
bool TallyStart(TPostTally &tTally, uint32_t &dwPost);

/* One that was started found all places taken and is not to be tried again. */
void TallyUnstart(TPostTally &tTally);

/* One has ended; nStatus is its HTTP status, 0 if there is none. */
void TallyEnd(TPostTally &tTally, ESendByCurlRet eRet, CPostClock::duration tTook, int nStatus);

/* One was refused with a result other than success. */
void TallyRefuse(TPostTally &tTally, ESendByCurlRet eRet);

/* All that have been started and have not ended count as lost. */
void TallyLoseRest(TPostTally &tTally);

TPostCounts TallyCounts(TPostTally &tTally);

/* The run is over: TallyAwait waits no longer. */
void TallyOver(TPostTally &tTally);

/*
 * Waits until dwEnded posts have ended, the run is over or tLongest has passed. False if the run
 * is over. For one thread at a time.
 */
bool TallyAwait(TPostTally &tTally, uint32_t dwEnded, CPostClock::duration tLongest);

#endif
