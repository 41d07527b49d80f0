#include "tools/post/post_board.h"

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>

namespace
{

const uint32_t s_dwConnectMS = 5000;
const uint32_t s_dwTotalMS = 10000;

struct TBoard {
    std::mutex tLock;
    std::condition_variable tChanged;
    std::map<void *, std::unique_ptr<TPost>> tPosts; /* by receive buffer, all that a notification tells */
    TBoardCount tCount{};
};

TBoard &Board()
{
    static auto *ptBoard = new TBoard;
    return *ptBoard;
}

// With the board locked.
void Finish(TPost &tPost, ESendByCurlRet eResult)
{
    tPost.bFinished = true;
    tPost.eResult = eResult;
    tPost.dMillis = std::chrono::duration<double, std::milli>(CBoardClock::now() - tPost.tStart).count();
}

uint32_t Notified(ESendByCurlRet eResult, void *pvContext)
{
    TBoard &tBoard = Board();
    std::lock_guard<std::mutex> tGuard(tBoard.tLock);
    auto itPost = tBoard.tPosts.find(pvContext);

    // A second notification of the same post must not pass for one of another.
    if (itPost != tBoard.tPosts.end() && !itPost->second->bFinished) {
        Finish(*itPost->second, eResult);
        tBoard.tCount.dwNotified++;
        tBoard.tChanged.notify_all();
    }
    return 0;
}

TSendByCurlParam MakeParam(const TPost &tPost)
{
    TSendByCurlParam tParam{};

    tParam.pchURL = tPost.strUrl.c_str();
    tParam.eHeadType = SENDBYCURL_METHOD_POST;
    tParam.pchSendBuf = tPost.strSent.data();
    tParam.dwSendLen = static_cast<uint32_t>(tPost.strSent.size());
    tParam.dwConnTimeOutMS = s_dwConnectMS;
    tParam.dwTimeoutMS = s_dwTotalMS;
    tParam.dwMaxRecvLen = tPost.dwCapacity;
    tParam.pchRecvBuf = tPost.pchAnswer;
    tParam.pfNtf = Notified;
    return tParam;
}

} // namespace

TPost *NewPost(const std::string &strUrl, const std::string &strText, uint32_t dwCapacity)
{
    auto ptPost = std::make_unique<TPost>();
    TPost *ptNew = ptPost.get();

    ptNew->strUrl = strUrl;
    ptNew->strSent = strText;
    ptNew->dwCapacity = dwCapacity;
    // One byte more: a synchronous send terminates the answer behind its capacity.
    ptNew->pchAnswer = static_cast<char *>(std::calloc(size_t{dwCapacity} + 1, 1));
    if (ptNew->pchAnswer == nullptr) {
        throw std::bad_alloc();
    }
    std::lock_guard<std::mutex> tGuard(Board().tLock);
    Board().tPosts.emplace(ptNew->pchAnswer, std::move(ptPost));
    return ptNew;
}

void SendSync(TPost &tPost)
{
    TSendByCurlParam tParam = MakeParam(tPost);

    tPost.tStart = CBoardClock::now();
    ESendByCurlRet eResult = Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_SYNC);
    std::lock_guard<std::mutex> tGuard(Board().tLock);
    Finish(tPost, eResult);
}

void SendAsync(TPost &tPost)
{
    TSendByCurlParam tParam = MakeParam(tPost);
    TBoard &tBoard = Board();

    // Counted beforehand, since the notification may be here before the call has returned.
    {
        std::lock_guard<std::mutex> tGuard(tBoard.tLock);
        tPost.tStart = CBoardClock::now();
        tPost.bAccepted = true;
        tBoard.tCount.dwAccepted++;
    }
    ESendByCurlRet eResult = Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_ASYNC);
    if (eResult != SENDBYCURL_OK) {
        std::lock_guard<std::mutex> tGuard(tBoard.tLock);
        tPost.bAccepted = false;
        tBoard.tCount.dwAccepted--;
        Finish(tPost, eResult);
    }
}

TBoardCount CountPosts()
{
    std::lock_guard<std::mutex> tGuard(Board().tLock);
    return Board().tCount;
}

bool WaitUntilOutstanding(uint32_t dwMost, CBoardClock::time_point tDeadline)
{
    TBoard &tBoard = Board();
    std::unique_lock<std::mutex> tGuard(tBoard.tLock);

    return tBoard.tChanged.wait_until(
        tGuard, tDeadline, [&tBoard, dwMost] { return tBoard.tCount.dwAccepted - tBoard.tCount.dwNotified <= dwMost; });
}

bool IsFinished(const TPost &tPost)
{
    std::lock_guard<std::mutex> tGuard(Board().tLock);
    return tPost.bFinished;
}

bool IsEchoed(const TPost &tPost)
{
    return IsFinished(tPost) && tPost.eResult == SENDBYCURL_OK &&
           strnlen(tPost.pchAnswer, size_t{tPost.dwCapacity} + 1) == tPost.strSent.size() &&
           std::memcmp(tPost.pchAnswer, tPost.strSent.data(), tPost.strSent.size()) == 0;
}
