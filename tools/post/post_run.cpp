#include "tools/post/post_run.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tools/common/result_text.h"
#include "tools/post/answer_slab.h"
#include "tools/post/post_tally.h"

namespace
{

/* How long after its time-out an asynchronous send may still be reported. */
constexpr std::chrono::milliseconds kGrace{2000};
/* A place in the module's table becomes free a moment after its notification. */
constexpr std::chrono::milliseconds kPlacePause{2};

constexpr char kOverrunMessage[] =
    "\nnvrhttp post: an answer is longer than --max-answer (result 11); the asynchronous copy has no bound, so the "
    "program ends here\n";

TSendByCurlParam MakeParam(const TPostJob &tJob, char *pchRecvBuf)
{
    TSendByCurlParam tParam = {};
    tParam.pchURL = tJob.strUrl.c_str();
    tParam.eHeadType = tJob.eHeadType;
    tParam.pchSendBuf = tJob.strBody.c_str();
    tParam.dwSendLen = static_cast<uint32_t>(tJob.strBody.size());
    tParam.dwConnTimeOutMS = tJob.dwConnTimeOutMS;
    tParam.dwTimeoutMS = tJob.dwTimeoutMS;
    tParam.dwMaxRecvLen = tJob.dwMaxAnswer;
    tParam.bSSLserver = tJob.bVerify ? 1 : 0;
    tParam.pchRecvBuf = pchRecvBuf;
    if (!tJob.strUserAndPassWd.empty()) {
        tParam.bCurlAuth = 1;
        memcpy(tParam.achUserAndPassWd, tJob.strUserAndPassWd.c_str(), tJob.strUserAndPassWd.size() + 1);
    }
    return tParam;
}

/* One thread of the modes that block: posts until none is left. */
void PostBlocking(const TPostJob &tJob, TPostTally &tTally, char *pchRecvBuf)
{
    while (TallyStart(tTally)) {
        TSendByCurlParam tParam = MakeParam(tJob, pchRecvBuf);
        const TPostClock::time_point tStart = TPostClock::now();
        const ESendByCurlRet eRet = tJob.eMode == EPostMode::Direct
                                        ? Qelvo_SyncSendStrByHttp_Ext(&tParam)
                                        : Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_SYNC);
        TallyEnd(tTally, eRet, TPostClock::now() - tStart, tJob.bQuiet ? nullptr : pchRecvBuf, tParam.dwRecvLen);
    }
}

void RunBlocking(const TPostJob &tJob, TPostTally &tTally, const TAnswerSlab &tSlab)
{
    std::vector<std::thread> atThreads;
    try {
        while (atThreads.size() + 1 < tSlab.dwCount) {
            char *pchRecvBuf = AnswerSlabText(tSlab, static_cast<uint32_t>(atThreads.size()));
            atThreads.emplace_back([&tJob, &tTally, pchRecvBuf] { PostBlocking(tJob, tTally, pchRecvBuf); });
        }
    } catch (const std::system_error &) {
        fprintf(stderr, "nvrhttp post: only %zu threads could be started\n", atThreads.size());
    }
    PostBlocking(tJob, tTally, AnswerSlabText(tSlab, static_cast<uint32_t>(atThreads.size())));
    for (std::thread &tThread : atThreads) {
        tThread.join();
    }
}

struct TAsyncEnd {
    uint32_t dwIndex;
    ESendByCurlRet eRet;
    TPostClock::time_point tWhen;
};

struct TAsyncRun {
    TAnswerSlab tSlab = {};
    std::mutex mtxEnds;
    std::condition_variable cvEnds;
    std::vector<TAsyncEnd> atEnds; /* notified and not looked at yet */

    /* The submitting thread's alone. */
    std::vector<uint32_t> adwFree;
    std::vector<TPostClock::time_point> atStart; /* by buffer */
    TPostClock::time_point tLastEvent;           /* a submission or a notification */
};

/* A notification is told nothing but its buffer. Never released once a send was lost. */
TAsyncRun *g_ptAsyncRun;

uint32_t OnAsyncEnd(ESendByCurlRet eErrCode, void *pvContext)
{
    const TPostClock::time_point tNow = TPostClock::now();
    TAsyncRun &tRun = *g_ptAsyncRun;
    std::lock_guard<std::mutex> tLock(tRun.mtxEnds);
    tRun.atEnds.push_back({AnswerSlabIndex(tRun.tSlab, static_cast<char *>(pvContext)), eErrCode, tNow});
    tRun.cvEnds.notify_one();
    return 0;
}

/* When whatever is outstanding has to have been reported. */
TPostClock::time_point Deadline(const TPostJob &tJob, const TAsyncRun &tRun)
{
    return tRun.tLastEvent + std::chrono::milliseconds(tJob.dwTimeoutMS) + kGrace;
}

/* Hands one post to the module; one that is refused has ended. False if no place came free. */
bool SubmitOne(const TPostJob &tJob, TPostTally &tTally, TAsyncRun &tRun)
{
    const uint32_t dwIndex = tRun.adwFree.back();
    TSendByCurlParam tParam = MakeParam(tJob, AnswerSlabText(tRun.tSlab, dwIndex));
    tParam.pfNtf = OnAsyncEnd;
    ESendByCurlRet eRet = SENDBYCURL_OK;
    do {
        tRun.atStart[dwIndex] = TPostClock::now();
        eRet = Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_ASYNC);
        if (eRet == SENDBYCURL_NO_SLOT) {
            std::this_thread::sleep_for(kPlacePause);
        }
    } while (eRet == SENDBYCURL_NO_SLOT && TPostClock::now() < Deadline(tJob, tRun));
    if (eRet == SENDBYCURL_NO_SLOT) {
        TallyUnstart(tTally, eRet);
        return false;
    }
    tRun.tLastEvent = TPostClock::now();
    if (eRet == SENDBYCURL_OK) {
        tRun.adwFree.pop_back();
    } else {
        TallyEnd(tTally, eRet, tRun.tLastEvent - tRun.atStart[dwIndex], nullptr, 0);
    }
    return true;
}

void TakeEnd(const TPostJob &tJob, TPostTally &tTally, TAsyncRun &tRun, const TAsyncEnd &tEnd)
{
    const char *pchText = AnswerSlabText(tRun.tSlab, tEnd.dwIndex);
    const size_t qwRoom = size_t{tJob.dwMaxAnswer} + 1;
    const size_t qwLen = strnlen(pchText, qwRoom);
    const bool bTooLong = tEnd.eRet == SENDBYCURL_OK && qwLen == qwRoom;
    TallyEnd(tTally, bTooLong ? ESendByCurlRet{SENDBYCURL_BUFFER_TOO_SMALL} : tEnd.eRet,
             tEnd.tWhen - tRun.atStart[tEnd.dwIndex], tJob.bQuiet ? nullptr : pchText, qwLen);
    AnswerSlabClear(tRun.tSlab, tEnd.dwIndex);
    tRun.adwFree.push_back(tEnd.dwIndex);
    tRun.tLastEvent = std::max(tRun.tLastEvent, tEnd.tWhen);
}

/* Waits for notifications and takes what came; false if the wait ended without any. */
bool TakeEnds(const TPostJob &tJob, TPostTally &tTally, TAsyncRun &tRun)
{
    std::vector<TAsyncEnd> atEnds;
    {
        std::unique_lock<std::mutex> tLock(tRun.mtxEnds);
        tRun.cvEnds.wait_until(tLock, Deadline(tJob, tRun), [&tRun] { return !tRun.atEnds.empty(); });
        atEnds.swap(tRun.atEnds);
    }
    for (const TAsyncEnd &tEnd : atEnds) {
        TakeEnd(tJob, tTally, tRun, tEnd);
    }
    return !atEnds.empty();
}

/* True if nothing is outstanding any more. */
bool DriveAsync(const TPostJob &tJob, TPostTally &tTally, TAsyncRun &tRun)
{
    for (;;) {
        bool bRefused = false;
        while (!bRefused && !tRun.adwFree.empty() && TallyStart(tTally)) {
            bRefused = !SubmitOne(tJob, tTally, tRun);
        }
        if (tRun.adwFree.size() == tRun.tSlab.dwCount) {
            return true;
        }
        if (!TakeEnds(tJob, tTally, tRun)) {
            TallyLoseRest(tTally);
            return false;
        }
    }
}

void RunAsync(const TPostJob &tJob, TPostTally &tTally, TAnswerSlab &tSlab)
{
    auto ptRun = std::make_unique<TAsyncRun>();
    ptRun->tSlab = tSlab;
    ptRun->atStart.resize(tSlab.dwCount);
    for (uint32_t dwIndex = tSlab.dwCount; dwIndex > 0; --dwIndex) {
        ptRun->adwFree.push_back(dwIndex - 1);
    }
    ptRun->tLastEvent = TPostClock::now();
    g_ptAsyncRun = ptRun.get();
    AnswerSlabReportOverrun(tSlab, kOverrunMessage, SENDBYCURL_BUFFER_TOO_SMALL);
    if (!DriveAsync(tJob, tTally, *ptRun)) {
        (void)ptRun.release();
        tSlab.pchMap = nullptr;
    }
}

void ShowOne(TPostTally &tTally, TPostClock::duration tTook)
{
    const TPostCounts tCounts = TallyCounts(tTally);
    if (tCounts.dwLost != 0) {
        fprintf(stderr, "nvrhttp post: result 7: no notification came within the time-out and 2 s more\n");
    } else if (tCounts.dwFailed != 0) {
        fprintf(stderr, "nvrhttp post: result %u: %s\n", tTally.eFirstFailure,
                tTally.pfResultText(tTally.eFirstFailure));
    } else {
        const double dMillis = std::chrono::duration<double, std::milli>(tTook).count();
        fprintf(stderr, "succeeded in %.1f ms\n", dMillis);
    }
}

} // namespace

int RunPosts(const TPostJob &tJob, int nAnswerFd)
{
    TAnswerSlab tSlab;
    if (!AnswerSlabCreate(tSlab, std::min(tJob.dwCount, tJob.dwParallel), tJob.dwMaxAnswer)) {
        fprintf(stderr, "nvrhttp post: no memory for the answers; ask for less with --max-answer or --parallel\n");
        return SENDBYCURL_NO_MEMORY;
    }
    TPostTally tTally;
    tTally.tCounts.dwTotal = tJob.dwCount;
    tTally.adMillis.reserve(tJob.dwCount);
    tTally.nAnswerFd = nAnswerFd;
    tTally.bAnswersOnTerminal = isatty(nAnswerFd) != 0;
    tTally.bStatusOnTerminal = isatty(STDERR_FILENO) != 0;
    tTally.pfResultText = tJob.eMode == EPostMode::Direct ? DirectSendText : EngineSendText;
    tTally.tBegin = TPostClock::now();

    std::thread tStatus;
    if (tJob.dwCount > 1) {
        tStatus = std::thread([&tTally] { TallyShowStatus(tTally); });
    }
    if (tJob.eMode == EPostMode::Async) {
        RunAsync(tJob, tTally, tSlab);
    } else {
        RunBlocking(tJob, tTally, tSlab);
    }
    TallyOver(tTally);
    if (tStatus.joinable()) {
        tStatus.join();
        TallyShowSummary(tTally);
    } else {
        ShowOne(tTally, TPostClock::now() - tTally.tBegin);
    }
    AnswerSlabDestroy(tSlab);
    return TallyExitStatus(tTally);
}
