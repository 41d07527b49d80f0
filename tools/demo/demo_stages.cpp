#include "tools/demo/demo_stages.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <new>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/host/osp_console.h"
#include "support/hcc_numbers.h"
#include "tools/common/module_start.h"
#include "tools/common/result_text.h"
#include "tools/post/post_client.h"
#include "tools/post/post_run.h"

namespace
{

/*
 * Client and server are one process and share its open files, of which 1,024 are usual; a post
 * takes two.
 */
enum { MOST_IN_FLIGHT = 200, SLOW_POSTS = 4 };
enum { CONNECT_MS = 5000, TOTAL_MS = 10000, ONE_DEADLINE_S = 20 };
/* An asynchronous answer is copied without a bound; memory that no answer reaches costs nothing. */
enum { OWN_ANSWER = 4096, SYNC_ANSWER = 1 << 20, FOREIGN_ANSWER = 256 << 20 };
enum { SHOWN_ANSWER = 2000, PLAIN_LINES = 4 };

const std::chrono::milliseconds s_tProgressPeriod(100);
const std::chrono::milliseconds s_tSettle(200);

/* What became of one post. */
struct TOutcome {
    bool bEnded = false;
    EPostMode eMode = POST_MODE_SYNC;
    ESendByCurlRet eRet = SENDBYCURL_OK;
    int nStatus = 0; /* of HTTP; 0 where the mode does not report it */
    double dMillis = 0;
    std::string strAnswer;
};

/* What became of many. */
struct TBatch {
    std::vector<bool> abEnded; /* by post */
    uint32_t dwEchoed = 0;     /* answered with what was sent */
    uint32_t dwFirstFailed = UINT32_MAX;
    std::string strFirstFailure; /* how */
    TPostCounts tCounts;
};

void Heading(const std::string &strText)
{
    printf("\n== %s\n", strText.c_str());
    fflush(stdout);
}

/* What a way of sending is good for. */
void Why(const char *szText)
{
    printf("   %s\n", szText);
    fflush(stdout);
}

const char *ResultText(EPostMode eMode, ESendByCurlRet eRet)
{
    if (eRet == SENDBYCURL_BUFFER_TOO_SMALL) {
        return "the answer is longer than 1 MiB";
    }
    return eMode == POST_MODE_CLIENT ? ClientSendText(eRet) : EngineSendText(eRet);
}

std::string StatusText(const TOutcome &tOutcome)
{
    return tOutcome.nStatus == 0 ? "" : ", HTTP status " + std::to_string(tOutcome.nStatus);
}

TPostJob MakeJob(const std::string &strUrl, EPostMode eMode, uint32_t dwMaxAnswer)
{
    TPostJob tJob;
    tJob.strUrl = strUrl;
    tJob.eMode = eMode;
    tJob.dwConnTimeOutMS = CONNECT_MS;
    tJob.dwTimeoutMS = TOTAL_MS;
    tJob.dwDeadlineS = ONE_DEADLINE_S;
    tJob.dwMaxAnswer = dwMaxAnswer;
    return tJob;
}

TPostCounts Run(const TPostJob &tJob, TPostStatus *ptStatus)
{
    TPostTally tTally;
    if (!RunPosts(tJob, tTally, ptStatus)) {
        throw std::bad_alloc();
    }
    return TallyCounts(tTally);
}

/* The answer as a text; empty after a failure. */
std::string AnswerOf(const TPostEnd &tEnd)
{
    return tEnd.eRet == SENDBYCURL_OK ? std::string(tEnd.pchAnswer, strnlen(tEnd.pchAnswer, tEnd.uAnswerLen)) : "";
}

TOutcome PostOne(TPostJob tJob, const std::string &strJson)
{
    TOutcome tOutcome;
    tJob.strBody = strJson;
    tJob.pfAccepted = [] {
        printf("   accepted, waiting for the notification\n");
        fflush(stdout);
    };
    tJob.pfEnded = [&](const TPostEnd &tEnd) {
        tOutcome = {true, tJob.eMode, tEnd.eRet, tEnd.nStatus, Millis(tEnd.tTook), AnswerOf(tEnd)};
    };
    Run(tJob, nullptr);
    return tOutcome;
}

void PrintText(const char *szName, const std::string &strText)
{
    const size_t uShown = std::min<size_t>(strText.size(), SHOWN_ANSWER);
    printf("   %-7s %.*s%s\n", szName, static_cast<int>(uShown), strText.c_str(),
           uShown < strText.size() ? " ..." : "");
}

/* False unless the post succeeded. An own server must have echoed it. */
bool PrintOutcome(const TOutcome &tOutcome, const std::string &strSent, bool bOwnServer)
{
    PrintText("sent", strSent);
    if (!tOutcome.bEnded) {
        printf("   LOST    no notification within %d s\n", ONE_DEADLINE_S);
        return false;
    }
    if (tOutcome.eRet != SENDBYCURL_OK) {
        printf("   FAILED  result %u: %s%s\n", tOutcome.eRet, ResultText(tOutcome.eMode, tOutcome.eRet),
               StatusText(tOutcome).c_str());
        return false;
    }
    PrintText("answer", tOutcome.strAnswer);
    const bool bWrong = bOwnServer && tOutcome.strAnswer != strSent;
    printf("   result  0 after %.1f ms%s, %zu bytes%s\n", tOutcome.dMillis, StatusText(tOutcome).c_str(),
           tOutcome.strAnswer.size(), bWrong ? ", NOT what was sent" : (bOwnServer ? ", the same as sent" : ""));
    return !bWrong;
}

std::string BatchText(uint32_t dwPost)
{
    return R"({"TaskId":)" + std::to_string(dwPost) + R"(,"Device":"NVR-01","Event":"motion","Channel":)" +
           std::to_string(dwPost % 16) + "}";
}

void NoteEnd(TBatch &tBatch, const TPostEnd &tEnd)
{
    const std::string strSent = BatchText(tEnd.dwPost);
    const std::string strAnswer = AnswerOf(tEnd);
    tBatch.abEnded[tEnd.dwPost] = true;
    if (strAnswer == strSent) {
        tBatch.dwEchoed++;
    } else if (tEnd.dwPost < tBatch.dwFirstFailed) {
        tBatch.dwFirstFailed = tEnd.dwPost;
        tBatch.strFirstFailure = tEnd.eRet == SENDBYCURL_OK ? "sent " + strSent + ", answered " + strAnswer
                                                            : "result " + std::to_string(tEnd.eRet) + ", " +
                                                                  ResultText(POST_MODE_ASYNC, tEnd.eRet);
    }
}

TBatch RunBatch(const std::string &strUrl, uint32_t dwCount, uint32_t dwDeadlineS, TPostStatus *ptStatus)
{
    TBatch tBatch;
    tBatch.abEnded.resize(dwCount);
    TPostJob tJob = MakeJob(strUrl, POST_MODE_ASYNC, OWN_ANSWER);
    tJob.pfBody = BatchText;
    tJob.dwCount = dwCount;
    tJob.dwParallel = MOST_IN_FLIGHT;
    tJob.dwDeadlineS = dwDeadlineS;
    tJob.pfEnded = [&tBatch](const TPostEnd &tEnd) { NoteEnd(tBatch, tEnd); };
    tBatch.tCounts = Run(tJob, ptStatus);
    return tBatch;
}

uint32_t SentOf(const TPostCounts &tCounts)
{
    return tCounts.dwStarted - tCounts.dwRefused;
}

uint32_t NotifiedOf(const TPostCounts &tCounts)
{
    return tCounts.dwOk + tCounts.dwFailed - tCounts.dwRefused;
}

uint32_t FailedOf(const TBatch &tBatch)
{
    return tBatch.tCounts.dwTotal - tBatch.dwEchoed;
}

std::string ProgressLine(const TPostCounts &tCounts, double)
{
    char achLine[80];
    snprintf(achLine, sizeof(achLine), "   sent %u/%u, notified %u, in flight %u", SentOf(tCounts), tCounts.dwTotal,
             NotifiedOf(tCounts), SentOf(tCounts) - NotifiedOf(tCounts));
    return achLine;
}

void PrintFirstFailure(const TBatch &tBatch)
{
    const auto itMissing = std::find(tBatch.abEnded.begin(), tBatch.abEnded.end(), false);
    if (itMissing != tBatch.abEnded.end() && itMissing - tBatch.abEnded.begin() < tBatch.dwFirstFailed) {
        printf("   the first that failed: never notified, or not sent in time\n");
    } else if (tBatch.dwFirstFailed != UINT32_MAX) {
        printf("   the first that failed: %s\n", tBatch.strFirstFailure.c_str());
    }
}

void RunCommand(const char *szLine)
{
    printf("> %s\n", szLine);
    OspConsoleRun(szLine);
    fflush(stdout);
}

} // namespace

bool ShowClient(const TDemoServer &tServer, const std::string &strJson)
{
    Heading("One JSON text, through the C++ client");
    Why("Why: status and length come with the answer, time-outs are kept, certificates are checked. For C++ services.");
    TPostJob tJob = MakeJob(tServer.strUrl, POST_MODE_CLIENT, SYNC_ANSWER);
    tJob.bVerify = true;
    StartLog(0);
    const auto ptClient = MakePostClient(tJob);
    StartLog(HCC_LEVEL_ERROR);
    tJob.ptClient = ptClient.get();
    return PrintOutcome(PostOne(tJob, strJson), strJson, tServer.bOwn);
}

bool ShowSync(const TDemoServer &tServer, const std::string &strJson, bool &bTooLong)
{
    Heading("One JSON text, synchronously");
    Why("Why: one call of C, which returns with the answer in the caller's buffer.");
    const TOutcome tOutcome = PostOne(MakeJob(tServer.strUrl, POST_MODE_SYNC, SYNC_ANSWER), strJson);
    bTooLong = tOutcome.eRet == SENDBYCURL_BUFFER_TOO_SMALL;
    return PrintOutcome(tOutcome, strJson, tServer.bOwn);
}

bool ShowAsync(const TDemoServer &tServer, const std::string &strJson)
{
    Heading("One JSON text, asynchronously");
    Why("Why: the call returns at once, a worker notifies. The buffer has to hold any answer that may come.");
    const uint32_t dwOwnAnswer = OWN_ANSWER + static_cast<uint32_t>(strJson.size());
    const uint32_t dwMaxAnswer = tServer.bOwn ? dwOwnAnswer : uint32_t{FOREIGN_ANSWER};
    const TOutcome tOutcome = PostOne(MakeJob(tServer.strUrl, POST_MODE_ASYNC, dwMaxAnswer), strJson);
    return PrintOutcome(tOutcome, strJson, tServer.bOwn);
}

bool ShowBatch(const TDemoServer &tServer, uint32_t dwCount, uint32_t dwDeadlineS)
{
    Heading(std::to_string(dwCount) + " posts, asynchronously, up to " + std::to_string(MOST_IN_FLIGHT) + " at once");
    TPostStatus tStatus;
    tStatus.ptFile = stdout;
    tStatus.bTerminal = isatty(STDOUT_FILENO) != 0;
    tStatus.tInterval = s_tProgressPeriod;
    tStatus.dwStep = std::max<uint32_t>(dwCount / PLAIN_LINES, 1);
    tStatus.pfLine = ProgressLine;

    const CPostClock::time_point tStart = CPostClock::now();
    const TBatch tBatch = RunBatch(tServer.strUrl, dwCount, dwDeadlineS, &tStatus);
    const double dSeconds = Seconds(CPostClock::now() - tStart);
    const uint32_t dwNotified = NotifiedOf(tBatch.tCounts);
    printf("%s   sent %u, notified %u, failed %u, in %.2f s (%.0f posts/s)\n", tStatus.bTerminal ? "\n" : "",
           SentOf(tBatch.tCounts), dwNotified, FailedOf(tBatch), dSeconds, dwNotified / dSeconds);
    PrintFirstFailure(tBatch);
    return FailedOf(tBatch) == 0;
}

bool ShowListings(const TDemoServer &tServer)
{
    Heading("The console's listings, while the server holds back a few answers");
    std::future<TBatch> tRun = std::async(std::launch::async, [&tServer] {
        return RunBatch(tServer.strUrl + "delay/1000", SLOW_POSTS, ONE_DEADLINE_S, nullptr);
    });
    /* The workers' lines on the new posts come first, so that they do not mix with the listings. */
    std::this_thread::sleep_for(s_tSettle);
    RunCommand("sendbycurlsetlog 2");
    RunCommand("sendbycurlshow");
    RunCommand("NvrHttpCurlCltshow");
    RunCommand("sendbycurlsetlog 1");
    const TBatch tBatch = tRun.get();
    printf("   of these %u posts notified %u, failed %u\n", tBatch.tCounts.dwTotal, NotifiedOf(tBatch.tCounts),
           FailedOf(tBatch));
    PrintFirstFailure(tBatch);
    return FailedOf(tBatch) == 0;
}
