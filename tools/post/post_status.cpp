#include "tools/post/post_status.h"

namespace
{

/* Whether lines come by steps, not by time. */
bool GoesByStep(const TPostStatus &tStatus)
{
    return tStatus.dwStep != 0 && !tStatus.bTerminal;
}

/* The number of ended posts that the next line waits for. */
uint32_t NextStep(const TPostStatus &tStatus, uint32_t dwEnded)
{
    return GoesByStep(tStatus) ? (dwEnded / tStatus.dwStep + 1) * tStatus.dwStep : UINT32_MAX;
}

bool IsDue(const TPostStatus &tStatus, uint32_t dwAwaited, uint32_t dwEnded, bool bGoesOn)
{
    if (GoesByStep(tStatus)) {
        return dwEnded >= dwAwaited;
    }
    return bGoesOn || tStatus.dwStep != 0;
}

void ShowLine(TPostStatus &tStatus, const std::string &strLine)
{
    const std::lock_guard<std::mutex> tGuard(tStatus.tLock);
    fprintf(tStatus.ptFile, tStatus.bTerminal ? "\r\033[K%s" : "%s\n", strLine.c_str());
    fflush(tStatus.ptFile);
    tStatus.bShown = tStatus.bTerminal;
}

} // namespace

void ShowStatus(TPostStatus &tStatus, TPostTally &tTally)
{
    CPostClock::time_point tBefore = tTally.tBegin;
    uint32_t dwEndedBefore = 0;
    bool bGoesOn = true;
    while (bGoesOn) {
        const uint32_t dwAwaited = NextStep(tStatus, dwEndedBefore);
        bGoesOn = TallyAwait(tTally, dwAwaited, tStatus.tInterval);
        const TPostCounts tCounts = TallyCounts(tTally);
        const uint32_t dwEnded = EndedOf(tCounts);
        if (IsDue(tStatus, dwAwaited, dwEnded, bGoesOn)) {
            const CPostClock::time_point tNow = CPostClock::now();
            ShowLine(tStatus, tStatus.pfLine(tCounts, (dwEnded - dwEndedBefore) / Seconds(tNow - tBefore)));
            tBefore = tNow;
            dwEndedBefore = dwEnded;
        }
    }
}

void EraseStatus(TPostStatus &tStatus)
{
    if (tStatus.bShown) {
        fputs("\r\033[K", tStatus.ptFile);
        fflush(tStatus.ptFile);
        tStatus.bShown = false;
    }
}
