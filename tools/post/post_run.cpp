#include "tools/post/post_run.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <thread>
#include <vector>

#include "tools/post/answer_slab.h"
#include "tools/post/post_board.h"
#include "tools/post/post_client.h"

namespace
{

/* How long after its time-out an asynchronous send may still be reported. */
const std::chrono::milliseconds s_tGrace(2000);
/* A place in the module's table becomes free a moment after its notification. */
const std::chrono::milliseconds s_tPlacePause(2);

/* The body of a post; strOwn holds it if it is the post's own. */
const std::string &BodyOf(const TPostJob &tJob, uint32_t dwPost, std::string &strOwn)
{
    if (tJob.pfBody == nullptr) {
        return tJob.strBody;
    }
    strOwn = tJob.pfBody(dwPost);
    return strOwn;
}

/* All of a send's record but its receive buffer. */
TSendByCurlParam MakeParam(const TPostJob &tJob, const std::string &strBody)
{
    TSendByCurlParam tParam = {};
    tParam.pchURL = tJob.strUrl.c_str();
    tParam.eHeadType = tJob.eHeadType;
    tParam.pchSendBuf = strBody.c_str();
    tParam.dwSendLen = static_cast<uint32_t>(strBody.size());
    tParam.dwConnTimeOutMS = tJob.dwConnTimeOutMS;
    tParam.dwTimeoutMS = tJob.dwTimeoutMS;
    tParam.dwMaxRecvLen = tJob.dwMaxAnswer;
    tParam.bSSLserver = tJob.bVerify ? 1 : 0;
    if (!tJob.strUserAndPassWd.empty()) {
        tParam.bCurlAuth = 1;
        memcpy(tParam.achUserAndPassWd, tJob.strUserAndPassWd.c_str(), tJob.strUserAndPassWd.size() + 1);
    }
    return tParam;
}

void Report(const TPostJob &tJob, const TPostEnd &tEnd)
{
    if (tJob.pfEnded) {
        tJob.pfEnded(tEnd);
    }
}

/* One thread of the client's mode: posts until none is left. */
void PostThroughClient(const TPostJob &tJob, TPostTally &tTally)
{
    uint32_t dwPost = 0;
    while (TallyStart(tTally, dwPost)) {
        std::string strOwn;
        const CPostClock::time_point tStart = CPostClock::now();
        const nvrhttpcurl::Response tAnswer = PostByClient(tJob, BodyOf(tJob, dwPost, strOwn));
        const CPostClock::duration tTook = CPostClock::now() - tStart;
        const ESendByCurlRet eRet = ResultOfClient(tAnswer);
        const int nStatus = tAnswer.error == nvrhttpcurl::Error::none ? tAnswer.status : 0;
        TallyEnd(tTally, eRet, tTook, nStatus);
        Report(tJob, {dwPost, eRet, tTook, tAnswer.body.data(), tAnswer.body.size(), nStatus});
    }
}

/* One thread of the synchronous and the direct mode: likewise. */
void PostBlocking(const TPostJob &tJob, TPostTally &tTally, char *pchRecvBuf)
{
    uint32_t dwPost = 0;
    while (TallyStart(tTally, dwPost)) {
        std::string strOwn;
        TSendByCurlParam tParam = MakeParam(tJob, BodyOf(tJob, dwPost, strOwn));
        tParam.pchRecvBuf = pchRecvBuf;
        const CPostClock::time_point tStart = CPostClock::now();
        const ESendByCurlRet eRet = tJob.eMode == POST_MODE_DIRECT ? Qelvo_SyncSendStrByHttp_Ext(&tParam)
                                                                   : Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_SYNC);
        const CPostClock::duration tTook = CPostClock::now() - tStart;
        TallyEnd(tTally, eRet, tTook, 0);
        Report(tJob, {dwPost, eRet, tTook, pchRecvBuf, tParam.dwRecvLen, 0});
    }
}

/* Runs pfThread on so many threads, this one among them, with their numbers from 0 on; fewer if the system refuses. */
void RunThreads(uint32_t dwThreads, const std::function<void(uint32_t)> &pfThread)
{
    std::vector<std::thread> atThreads;
    try {
        while (atThreads.size() + 1 < dwThreads) {
            atThreads.emplace_back(pfThread, static_cast<uint32_t>(atThreads.size()));
        }
    } catch (const std::system_error &) {
        fprintf(stderr, "nvrhttp post: only %zu threads could be started\n", atThreads.size());
    }
    pfThread(static_cast<uint32_t>(atThreads.size()));
    for (std::thread &tThread : atThreads) {
        tThread.join();
    }
}

bool RunBlocking(const TPostJob &tJob, TPostTally &tTally, uint32_t dwThreads)
{
    TAnswerSlab tSlab;
    if (!AnswerSlabCreate(tSlab, dwThreads, tJob.dwMaxAnswer)) {
        return false;
    }
    RunThreads(dwThreads, [&](uint32_t dwThread) { PostBlocking(tJob, tTally, AnswerSlabText(tSlab, dwThread)); });
    AnswerSlabDestroy(tSlab);
    return true;
}

/* What the functions of an asynchronous run share. */
struct TAsyncRun {
    const TPostJob &tJob;
    TPostTally &tTally;
    TPostBoard &tBoard;
    CPostClock::time_point tLastEvent; /* a submission or a notification */
};

/* When whatever is outstanding has to have been reported. */
CPostClock::time_point Deadline(const TAsyncRun &tRun)
{
    return tRun.tJob.dwDeadlineS != 0 ? tRun.tTally.tBegin + std::chrono::seconds(tRun.tJob.dwDeadlineS)
                                      : tRun.tLastEvent + std::chrono::milliseconds(tRun.tJob.dwTimeoutMS) + s_tGrace;
}

/* Hands a post to the module, for as long as that has no place for it. */
ESendByCurlRet Submit(TAsyncRun &tRun, uint32_t dwPost)
{
    std::string strOwn;
    const TSendByCurlParam tParam = MakeParam(tRun.tJob, BodyOf(tRun.tJob, dwPost, strOwn));
    ESendByCurlRet eRet = BoardSubmit(tRun.tBoard, dwPost, tParam);
    while (eRet == SENDBYCURL_NO_SLOT && CPostClock::now() < Deadline(tRun)) {
        std::this_thread::sleep_for(s_tPlacePause);
        eRet = BoardSubmit(tRun.tBoard, dwPost, tParam);
    }
    return eRet;
}

/* Starts one post; one that is refused has ended. False if no place came free. */
bool StartOne(TAsyncRun &tRun, uint32_t dwPost)
{
    const ESendByCurlRet eRet = Submit(tRun, dwPost);
    if (eRet == SENDBYCURL_NO_SLOT) {
        TallyUnstart(tRun.tTally);
        return false;
    }
    tRun.tLastEvent = CPostClock::now();
    if (eRet != SENDBYCURL_OK) {
        TallyRefuse(tRun.tTally, eRet);
        Report(tRun.tJob, {dwPost, eRet, {}, nullptr, 0, 0});
    } else if (tRun.tJob.pfAccepted) {
        tRun.tJob.pfAccepted();
    }
    return true;
}

void StartPosts(TAsyncRun &tRun)
{
    bool bGoesOn = tRun.tJob.dwDeadlineS == 0 || CPostClock::now() < Deadline(tRun);
    uint32_t dwPost = 0;
    while (bGoesOn && !tRun.tBoard.adwFree.empty() && TallyStart(tRun.tTally, dwPost)) {
        bGoesOn = StartOne(tRun, dwPost);
    }
}

void TakeEnd(TAsyncRun &tRun, const TBoardEnd &tEnd)
{
    const TBoardPlace tPlace = tRun.tBoard.atPlaces[tEnd.dwPlace];
    const char *pchAnswer = AnswerSlabText(tRun.tBoard.tSlab, tEnd.dwPlace);
    const size_t uSize = size_t{tRun.tJob.dwMaxAnswer} + 1;
    const size_t uLen = strnlen(pchAnswer, uSize);
    const bool bTooLong = tEnd.eRet == SENDBYCURL_OK && uLen == uSize;
    const ESendByCurlRet eRet = bTooLong ? ESendByCurlRet{SENDBYCURL_BUFFER_TOO_SMALL} : tEnd.eRet;
    const CPostClock::duration tTook = tEnd.tWhen - tPlace.tStart;
    TallyEnd(tRun.tTally, eRet, tTook, 0);
    Report(tRun.tJob, {tPlace.dwPost, eRet, tTook, pchAnswer, uLen, 0});
    BoardFree(tRun.tBoard, tEnd.dwPlace);
    tRun.tLastEvent = std::max(tRun.tLastEvent, tEnd.tWhen);
}

/* Posts until all have ended, or nothing ended before the deadline. */
void Drive(TAsyncRun &tRun)
{
    StartPosts(tRun);
    while (!BoardIsIdle(tRun.tBoard)) {
        const std::vector<TBoardEnd> atEnds = BoardTakeEnds(tRun.tBoard, Deadline(tRun));
        if (atEnds.empty()) {
            TallyLoseRest(tRun.tTally);
            return;
        }
        for (const TBoardEnd &tEnd : atEnds) {
            TakeEnd(tRun, tEnd);
        }
        StartPosts(tRun);
    }
}

bool RunAsync(const TPostJob &tJob, TPostTally &tTally, uint32_t dwPlaces)
{
    TPostBoard *ptBoard = BoardCreate(dwPlaces, tJob.dwMaxAnswer);
    if (ptBoard == nullptr) {
        return false;
    }
    if (tJob.szOverrun != nullptr) {
        AnswerSlabReportOverrun(ptBoard->tSlab, tJob.szOverrun, SENDBYCURL_BUFFER_TOO_SMALL);
    }
    TAsyncRun tRun = {tJob, tTally, *ptBoard, CPostClock::now()};
    Drive(tRun);
    BoardDestroy(ptBoard);
    return true;
}

bool RunMode(const TPostJob &tJob, TPostTally &tTally, uint32_t dwAtOnce)
{
    if (tJob.eMode == POST_MODE_CLIENT) {
        RunThreads(dwAtOnce, [&](uint32_t) { PostThroughClient(tJob, tTally); });
        return true;
    }
    return tJob.eMode == POST_MODE_ASYNC ? RunAsync(tJob, tTally, dwAtOnce) : RunBlocking(tJob, tTally, dwAtOnce);
}

} // namespace

bool RunPosts(const TPostJob &tJob, TPostTally &tTally, TPostStatus *ptStatus)
{
    TallyBegin(tTally, tJob.dwCount);
    std::thread tStatus;
    if (ptStatus != nullptr) {
        tStatus = std::thread([ptStatus, &tTally] { ShowStatus(*ptStatus, tTally); });
    }
    const bool bRun = RunMode(tJob, tTally, std::min(tJob.dwCount, tJob.dwParallel));
    TallyOver(tTally);
    if (tStatus.joinable()) {
        tStatus.join();
    }
    return bRun;
}
