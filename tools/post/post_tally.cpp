#include "tools/post/post_tally.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "tools/post/latency.h"

namespace
{

constexpr std::chrono::milliseconds kTerminalInterval{200};
constexpr std::chrono::milliseconds kPlainInterval{2000};
constexpr size_t kStatusWidth = 79;

double Seconds(TPostClock::duration tSpan)
{
    return std::chrono::duration<double>(tSpan).count();
}

bool WriteAll(int nFd, const char *pchData, size_t qwLen)
{
    while (qwLen > 0) {
        const ssize_t nWritten = write(nFd, pchData, qwLen);
        if (nWritten < 0 && errno != EINTR) {
            return false;
        }
        if (nWritten > 0) {
            pchData += nWritten;
            qwLen -= static_cast<size_t>(nWritten);
        }
    }
    return true;
}

/* Called with mtxOutput held. */
void EraseStatus(TPostTally &tTally)
{
    if (tTally.bStatusShown) {
        fputs("\r\033[K", stderr);
        fflush(stderr);
        tTally.bStatusShown = false;
    }
}

/* One answer is passed on byte for byte; of many, each ends its line. */
void WriteAnswer(TPostTally &tTally, bool bMany, const char *pchAnswer, size_t qwLen)
{
    std::lock_guard<std::mutex> tLock(tTally.mtxOutput);
    if (tTally.bAnswersOnTerminal) {
        EraseStatus(tTally);
    }
    const bool bEndLine = (bMany || tTally.bAnswersOnTerminal) && (qwLen == 0 || pchAnswer[qwLen - 1] != '\n');
    const bool bWritten =
        WriteAll(tTally.nAnswerFd, pchAnswer, qwLen) && (!bEndLine || WriteAll(tTally.nAnswerFd, "\n", 1));
    if (!bWritten && !tTally.bWriteFailed) {
        perror("nvrhttp post: an answer could not be written");
        tTally.bWriteFailed = true;
    }
}

/* Called with mtxCounts held. The first one becomes the exit status. */
void NoteFailure(TPostTally &tTally, ESendByCurlRet eRet)
{
    if (tTally.eFirstFailure == SENDBYCURL_OK) {
        tTally.eFirstFailure = eRet;
    }
}

uint32_t EndedOf(const TPostCounts &tCounts)
{
    return tCounts.dwOk + tCounts.dwFailed + tCounts.dwLost;
}

void ShowStatusLine(TPostTally &tTally, const TPostCounts &tCounts, double dRate)
{
    char achLine[kStatusWidth + 1];
    snprintf(achLine, sizeof(achLine), "%u of %u done, %.0f/s, %u failed, %u in flight", EndedOf(tCounts),
             tCounts.dwTotal, dRate, tCounts.dwFailed + tCounts.dwLost, tCounts.dwStarted - EndedOf(tCounts));
    std::lock_guard<std::mutex> tLock(tTally.mtxOutput);
    fprintf(stderr, tTally.bStatusOnTerminal ? "\r\033[K%s" : "%s\n", achLine);
    fflush(stderr);
    tTally.bStatusShown = tTally.bStatusOnTerminal;
}

void ShowFailures(const TPostTally &tTally)
{
    for (size_t qwRet = 0; qwRet < tTally.adwFailures.size(); ++qwRet) {
        if (tTally.adwFailures[qwRet] != 0) {
            fprintf(stderr, "  %u failed with result %zu: %s\n", tTally.adwFailures[qwRet], qwRet,
                    tTally.pfResultText(static_cast<ESendByCurlRet>(qwRet)));
        }
    }
}

void ShowUnfinished(const TPostCounts &tCounts)
{
    if (tCounts.dwLost != 0) {
        fprintf(stderr,
                "  %u lost: no notification within the time-out and 2 s more (a server that falls silent is noticed "
                "only with its worker's next activity)\n",
                tCounts.dwLost);
    }
    if (tCounts.dwStarted != tCounts.dwTotal) {
        fprintf(stderr, "  %u not sent, since no place came free\n", tCounts.dwTotal - tCounts.dwStarted);
    }
}

} // namespace

bool TallyStart(TPostTally &tTally)
{
    std::lock_guard<std::mutex> tLock(tTally.mtxCounts);
    if (tTally.tCounts.dwStarted == tTally.tCounts.dwTotal) {
        return false;
    }
    ++tTally.tCounts.dwStarted;
    return true;
}

void TallyUnstart(TPostTally &tTally, ESendByCurlRet eRet)
{
    std::lock_guard<std::mutex> tLock(tTally.mtxCounts);
    --tTally.tCounts.dwStarted;
    NoteFailure(tTally, eRet);
}

void TallyEnd(TPostTally &tTally, ESendByCurlRet eRet, TPostClock::duration tTook, const char *pchAnswer,
              size_t qwAnswerLen)
{
    bool bMany = false;
    {
        std::lock_guard<std::mutex> tLock(tTally.mtxCounts);
        bMany = tTally.tCounts.dwTotal > 1;
        if (eRet == SENDBYCURL_OK) {
            ++tTally.tCounts.dwOk;
            tTally.adMillis.push_back(Seconds(tTook) * 1000.0);
        } else {
            ++tTally.tCounts.dwFailed;
            ++tTally.adwFailures[eRet % tTally.adwFailures.size()];
            NoteFailure(tTally, eRet);
        }
    }
    if (eRet == SENDBYCURL_OK && pchAnswer != nullptr) {
        WriteAnswer(tTally, bMany, pchAnswer, qwAnswerLen);
    }
}

void TallyLoseRest(TPostTally &tTally)
{
    std::lock_guard<std::mutex> tLock(tTally.mtxCounts);
    TPostCounts &tCounts = tTally.tCounts;
    tCounts.dwLost += tCounts.dwStarted - EndedOf(tCounts);
    NoteFailure(tTally, SENDBYCURL_TIMED_OUT);
}

TPostCounts TallyCounts(TPostTally &tTally)
{
    std::lock_guard<std::mutex> tLock(tTally.mtxCounts);
    return tTally.tCounts;
}

void TallyShowStatus(TPostTally &tTally)
{
    const auto tInterval = tTally.bStatusOnTerminal ? kTerminalInterval : kPlainInterval;
    TPostClock::time_point tBefore = tTally.tBegin;
    uint32_t dwEndedBefore = 0;
    std::unique_lock<std::mutex> tLock(tTally.mtxCounts);
    while (!tTally.cvOver.wait_for(tLock, tInterval, [&tTally] { return tTally.bOver; })) {
        const TPostCounts tCounts = tTally.tCounts;
        tLock.unlock();
        const TPostClock::time_point tNow = TPostClock::now();
        const uint32_t dwEnded = EndedOf(tCounts);
        ShowStatusLine(tTally, tCounts, (dwEnded - dwEndedBefore) / Seconds(tNow - tBefore));
        tBefore = tNow;
        dwEndedBefore = dwEnded;
        tLock.lock();
    }
}

void TallyOver(TPostTally &tTally)
{
    std::lock_guard<std::mutex> tLock(tTally.mtxCounts);
    tTally.bOver = true;
    tTally.cvOver.notify_all();
}

void TallyShowSummary(TPostTally &tTally)
{
    const double dTook = Seconds(TPostClock::now() - tTally.tBegin);
    std::scoped_lock tLock(tTally.mtxCounts, tTally.mtxOutput);
    EraseStatus(tTally);
    const TPostCounts &tCounts = tTally.tCounts;
    fprintf(stderr, "%u posts in %.2f s (%.0f/s): %u succeeded, %u failed, %u lost\n", tCounts.dwTotal, dTook,
            EndedOf(tCounts) / dTook, tCounts.dwOk, tCounts.dwFailed, tCounts.dwLost);
    if (!tTally.adMillis.empty()) {
        const TLatencySummary tTimes = SummarizeLatency(tTally.adMillis);
        fprintf(stderr, "time of the succeeded: p50 %s, p95 %s, p99 %s, longest %s\n", MillisText(tTimes.dP50).c_str(),
                MillisText(tTimes.dP95).c_str(), MillisText(tTimes.dP99).c_str(), MillisText(tTimes.dMax).c_str());
    }
    ShowFailures(tTally);
    ShowUnfinished(tCounts);
}

int TallyExitStatus(TPostTally &tTally)
{
    std::scoped_lock tLock(tTally.mtxCounts, tTally.mtxOutput);
    if (tTally.eFirstFailure != SENDBYCURL_OK) {
        return static_cast<int>(tTally.eFirstFailure);
    }
    return tTally.bWriteFailed ? EXIT_FAILURE : EXIT_SUCCESS;
}
