#include "tools/post/post_report.h"

#include <cstdio>
#include <unistd.h>

#include "tools/common/result_text.h"
#include "tools/common/whole_file.h"
#include "tools/post/latency.h"

namespace
{

const std::chrono::milliseconds s_tTerminalInterval(200);
const std::chrono::milliseconds s_tPlainInterval(2000);

std::string StatusLine(const TPostCounts &tCounts, double dRate)
{
    char achLine[80];
    snprintf(achLine, sizeof(achLine), "%u of %u done, %.0f/s, %u failed, %u in flight", EndedOf(tCounts),
             tCounts.dwTotal, dRate, tCounts.dwFailed + tCounts.dwLost, tCounts.dwStarted - EndedOf(tCounts));
    return achLine;
}

const char *ResultText(const TPostReport &tReport, ESendByCurlRet eRet)
{
    switch (tReport.eMode) {
    case POST_MODE_CLIENT:
        return ClientSendText(eRet);
    case POST_MODE_DIRECT:
        return DirectSendText(eRet);
    default:
        return EngineSendText(eRet);
    }
}

/* What the library's log says of transfers that failed, in one text. */
std::string Reasons(const TPostReport &tReport)
{
    std::string strAll;
    for (const auto &tReason : tReport.ptLog->tReasons) {
        strAll += (strAll.empty() ? "" : "; ") + tReason.first;
    }
    return strAll;
}

/* Results of the client behind which more than one thing may be. */
bool NeedsReasons(ESendByCurlRet eRet)
{
    return eRet == SENDBYCURL_TRANSFER_FAILED || eRet == SENDBYCURL_CONNECT_FAILED || eRet == SENDBYCURL_TLS_FAILED;
}

/* Why the only post failed. The client knows status and time-outs; what libcurl says is in the log alone. */
std::string FailureText(const TPostReport &tReport, const TPostTally &tTally)
{
    const std::string strResult = ResultText(tReport, tTally.eFirstFailure);
    const std::string strReasons = Reasons(tReport);
    if (!tTally.tStatuses.empty()) {
        return "HTTP status " + std::to_string(tTally.tStatuses.begin()->first);
    }
    if (tReport.eMode != POST_MODE_CLIENT) {
        return strReasons.empty() ? strResult : strReasons;
    }
    return NeedsReasons(tTally.eFirstFailure) && !strReasons.empty() ? strResult + ": " + strReasons : strResult;
}

void ShowSuccess(const TPostReport &tReport, const TPostTally &tTally, CPostClock::duration tTook)
{
    const std::string strReasons = Reasons(tReport);
    fprintf(stderr, "succeeded in %.1f ms", Millis(tTook));
    if (!tTally.tStatuses.empty()) {
        fprintf(stderr, ", HTTP status %d", tTally.tStatuses.begin()->first);
    }
    fprintf(stderr, "%s%s\n", strReasons.empty() ? "" : ", although: ", strReasons.c_str());
}

void ShowOne(const TPostReport &tReport, const TPostTally &tTally, CPostClock::duration tTook)
{
    if (tTally.tCounts.dwLost != 0) {
        fprintf(stderr, "nvrhttp post: result 7: no notification came within the time-out and 2 s more\n");
    } else if (tTally.eFirstFailure != SENDBYCURL_OK) {
        fprintf(stderr, "nvrhttp post: result %u: %s\n", tTally.eFirstFailure, FailureText(tReport, tTally).c_str());
    } else {
        ShowSuccess(tReport, tTally, tTook);
    }
}

void ShowTimes(const TPostTally &tTally)
{
    if (!tTally.adMillis.empty()) {
        const TLatencySummary tTimes = SummarizeLatency(tTally.adMillis);
        fprintf(stderr, "time of the succeeded: p50 %s, p95 %s, p99 %s, longest %s\n", MillisText(tTimes.dP50).c_str(),
                MillisText(tTimes.dP95).c_str(), MillisText(tTimes.dP99).c_str(), MillisText(tTimes.dMax).c_str());
    }
}

void ShowStatuses(const TPostTally &tTally)
{
    for (const auto &[nStatus, dwTimes] : tTally.tStatuses) {
        fprintf(stderr, "  %u answered with HTTP status %d\n", dwTimes, nStatus);
    }
}

void ShowFailures(const TPostReport &tReport, const TPostTally &tTally)
{
    for (uint32_t eRet = 0; eRet < tTally.adwFailures.size(); eRet++) {
        if (tTally.adwFailures[eRet] != 0) {
            fprintf(stderr, "  %u failed with result %u: %s\n", tTally.adwFailures[eRet], eRet,
                    ResultText(tReport, eRet));
        }
    }
}

void ShowReasons(const TPostReport &tReport)
{
    for (const auto &[strReason, dwTimes] : tReport.ptLog->tReasons) {
        fprintf(stderr, "    %u: %s\n", dwTimes, strReason.c_str());
    }
}

/* Of a whole run. */
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

/* Of one that was cut short. */
void ShowAbandoned(const TPostCounts &tCounts)
{
    fprintf(stderr, "  %u in flight and no longer awaited, %u not sent\n", tCounts.dwStarted - EndedOf(tCounts),
            tCounts.dwTotal - tCounts.dwStarted);
}

void ShowSummary(const TPostReport &tReport, const TPostTally &tTally, CPostClock::duration tTook)
{
    const TPostCounts &tCounts = tTally.tCounts;
    fprintf(stderr, "%u posts in %.2f s (%.0f/s): %u succeeded, %u failed, %u lost\n", EndedOf(tCounts), Seconds(tTook),
            EndedOf(tCounts) / Seconds(tTook), tCounts.dwOk, tCounts.dwFailed, tCounts.dwLost);
    ShowTimes(tTally);
    ShowStatuses(tTally);
    ShowFailures(tReport, tTally);
    ShowReasons(tReport);
}

} // namespace

void ReportBegin(TPostReport &tReport, const TPostJob &tJob, int nAnswerFd, TSendLog &tLog)
{
    tReport.ptLog = &tLog;
    tReport.nAnswerFd = nAnswerFd;
    tReport.bMany = tJob.dwCount > 1;
    tReport.bAnswersOnTerminal = isatty(nAnswerFd) != 0;
    tReport.eMode = tJob.eMode;
    tReport.tStatus.ptFile = stderr;
    tReport.tStatus.bTerminal = isatty(STDERR_FILENO) != 0;
    tReport.tStatus.tInterval = tReport.tStatus.bTerminal ? s_tTerminalInterval : s_tPlainInterval;
    tReport.tStatus.pfLine = StatusLine;
}

bool ReportAnswer(TPostReport &tReport, const TPostEnd &tEnd)
{
    if (tEnd.eRet != SENDBYCURL_OK) {
        return true;
    }
    const bool bLine = tReport.bMany || tReport.bAnswersOnTerminal;
    const bool bEndLine = bLine && (tEnd.uAnswerLen == 0 || tEnd.pchAnswer[tEnd.uAnswerLen - 1] != '\n');
    const std::lock_guard<std::mutex> tGuard(tReport.tStatus.tLock);
    if (tReport.bAnswersOnTerminal) {
        EraseStatus(tReport.tStatus);
    }
    return WriteAll(tReport.nAnswerFd, tEnd.pchAnswer, tEnd.uAnswerLen) &&
           (!bEndLine || WriteAll(tReport.nAnswerFd, "\n", 1));
}

void ReportOutcome(TPostReport &tReport, const TPostTally &tTally)
{
    const CPostClock::duration tTook = CPostClock::now() - tTally.tBegin;
    if (!tReport.bMany) {
        ShowOne(tReport, tTally, tTook);
        return;
    }
    const std::lock_guard<std::mutex> tGuard(tReport.tStatus.tLock);
    EraseStatus(tReport.tStatus);
    ShowSummary(tReport, tTally, tTook);
    ShowUnfinished(tTally.tCounts);
}

void ReportCutShort(TPostReport &tReport, TPostTally &tTally, const std::string &strWhy, int nStatus)
{
    /* Never given back: nothing is written after the summary. */
    tReport.tStatus.tLock.lock();
    tTally.tLock.lock();
    tReport.ptLog->tLock.lock();
    EraseStatus(tReport.tStatus);
    fprintf(stderr, "nvrhttp post: %s\n", strWhy.c_str());
    if (tReport.bMany) {
        ShowSummary(tReport, tTally, CPostClock::now() - tTally.tBegin);
    }
    if (EndedOf(tTally.tCounts) != tTally.tCounts.dwTotal) {
        ShowAbandoned(tTally.tCounts);
    }
    _exit(nStatus);
}
