#include "tools/post/post_tally.h"

namespace
{

/* With the tally locked. */
void NoteFailure(TPostTally &tTally, ESendByCurlRet eRet)
{
    if (tTally.eFirstFailure == SENDBYCURL_OK) {
        tTally.eFirstFailure = eRet;
    }
}

/* With the tally locked. */
void CountFailure(TPostTally &tTally, ESendByCurlRet eRet)
{
    tTally.tCounts.dwFailed++;
    tTally.adwFailures[eRet % tTally.adwFailures.size()]++;
    NoteFailure(tTally, eRet);
}

bool IsReached(const TPostTally &tTally)
{
    return tTally.bOver || EndedOf(tTally.tCounts) >= tTally.dwAwaited;
}

/* With the tally locked. */
void WakeWaiter(TPostTally &tTally)
{
    if (IsReached(tTally)) {
        tTally.tChanged.notify_all();
    }
}

} // namespace

double Seconds(CPostClock::duration tSpan)
{
    return std::chrono::duration<double>(tSpan).count();
}

double Millis(CPostClock::duration tSpan)
{
    return std::chrono::duration<double, std::milli>(tSpan).count();
}

uint32_t EndedOf(const TPostCounts &tCounts)
{
    return tCounts.dwOk + tCounts.dwFailed + tCounts.dwLost;
}

void TallyBegin(TPostTally &tTally, uint32_t dwTotal)
{
    const std::lock_guard<std::mutex> tGuard(tTally.tLock);
    tTally.tCounts.dwTotal = dwTotal;
    tTally.adMillis.reserve(dwTotal);
    tTally.tBegin = CPostClock::now();
}

bool TallyStart(TPostTally &tTally, uint32_t &dwPost)
{
    const std::lock_guard<std::mutex> tGuard(tTally.tLock);
    if (tTally.tCounts.dwStarted == tTally.tCounts.dwTotal) {
        return false;
    }
    dwPost = tTally.tCounts.dwStarted++;
    return true;
}

void TallyUnstart(TPostTally &tTally)
{
    const std::lock_guard<std::mutex> tGuard(tTally.tLock);
    tTally.tCounts.dwStarted--;
    NoteFailure(tTally, SENDBYCURL_NO_SLOT);
}

void TallyEnd(TPostTally &tTally, ESendByCurlRet eRet, CPostClock::duration tTook, int nStatus)
{
    const std::lock_guard<std::mutex> tGuard(tTally.tLock);
    if (nStatus != 0) {
        tTally.tStatuses[nStatus]++;
    }
    if (eRet == SENDBYCURL_OK) {
        tTally.tCounts.dwOk++;
        tTally.adMillis.push_back(Millis(tTook));
    } else {
        CountFailure(tTally, eRet);
    }
    WakeWaiter(tTally);
}

void TallyRefuse(TPostTally &tTally, ESendByCurlRet eRet)
{
    const std::lock_guard<std::mutex> tGuard(tTally.tLock);
    tTally.tCounts.dwRefused++;
    CountFailure(tTally, eRet);
    WakeWaiter(tTally);
}

void TallyLoseRest(TPostTally &tTally)
{
    const std::lock_guard<std::mutex> tGuard(tTally.tLock);
    TPostCounts &tCounts = tTally.tCounts;
    tCounts.dwLost += tCounts.dwStarted - EndedOf(tCounts);
    NoteFailure(tTally, SENDBYCURL_TIMED_OUT);
}

TPostCounts TallyCounts(TPostTally &tTally)
{
    const std::lock_guard<std::mutex> tGuard(tTally.tLock);
    return tTally.tCounts;
}

void TallyOver(TPostTally &tTally)
{
    const std::lock_guard<std::mutex> tGuard(tTally.tLock);
    tTally.bOver = true;
    WakeWaiter(tTally);
}

bool TallyAwait(TPostTally &tTally, uint32_t dwEnded, CPostClock::duration tLongest)
{
    std::unique_lock<std::mutex> tGuard(tTally.tLock);
    tTally.dwAwaited = dwEnded;
    tTally.tChanged.wait_for(tGuard, tLongest, [&tTally] { return IsReached(tTally); });
    return !tTally.bOver;
}
