/*
 * What becomes of the posts of one run: counts, times, answers written out, the live status
 * line and the summary. All calls may be made from any thread.
 */
#ifndef TOOLS_POST_POST_TALLY_H
#define TOOLS_POST_POST_TALLY_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "nvrhttpcurl/sendbycurl.h"

using TPostClock = std::chrono::steady_clock;

struct TPostCounts {
    uint32_t dwTotal = 0;
    uint32_t dwStarted = 0;
    uint32_t dwOk = 0;
    uint32_t dwFailed = 0;
    uint32_t dwLost = 0; /* started, and no word of them within the wait */
};

struct TPostTally {
    std::mutex mtxCounts; /* guards everything down to bOver */
    std::condition_variable cvOver;
    TPostCounts tCounts;
    std::array<uint32_t, 16> adwFailures = {}; /* by result */
    ESendByCurlRet eFirstFailure = SENDBYCURL_OK;
    std::vector<double> adMillis; /* of those that succeeded */
    bool bOver = false;

    std::mutex mtxOutput; /* answers and status lines do not mix; guards what follows */
    int nAnswerFd = -1;
    bool bAnswersOnTerminal = false;
    bool bStatusOnTerminal = false;
    bool bStatusShown = false; /* a status line stands on the terminal */
    bool bWriteFailed = false;

    const char *(*pfResultText)(ESendByCurlRet) = nullptr;
    TPostClock::time_point tBegin;
};

/* The next post to start, counted as started; false if all have been. */
bool TallyStart(TPostTally &tTally);

/* One that was started was refused for want of a place and is not to be tried again. */
void TallyUnstart(TPostTally &tTally, ESendByCurlRet eRet);

/* One has ended. The answer is written out after a success; null writes none. */
void TallyEnd(TPostTally &tTally, ESendByCurlRet eRet, TPostClock::duration tTook, const char *pchAnswer,
              size_t qwAnswerLen);

/* All that have been started and have not ended count as lost. */
void TallyLoseRest(TPostTally &tTally);

TPostCounts TallyCounts(TPostTally &tTally);

/* Shows the status line again and again until TallyOver; runs on a thread of its own. */
void TallyShowStatus(TPostTally &tTally);
void TallyOver(TPostTally &tTally);

/* The summary of a run, to standard error. */
void TallyShowSummary(TPostTally &tTally);

/* 0 only if every post succeeded and every answer could be written. */
int TallyExitStatus(TPostTally &tTally);

#endif
