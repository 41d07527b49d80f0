/*
 * The engine's worker without the engine: a wake-up socket, a list of what runs and one of what has ended, a wait of
 * 50 ms, performs until nothing is due, a rest of 2 ms.
 */
#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <ctime>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>

#include "bench/curl_post.h"

namespace
{

enum { WAIT_MS = 50, REST_NS = 2000000 };

struct TLoopPost {
    TCurlPost tPost;
    std::string strBody;   /* a copy, since the caller's may go */
    std::string strAnswer; /* what is copied to the caller's buffer at the end */
    TChain *ptChain;
    bool bInMulti = false;
};

struct TLoopWorker {
    TTarget tTarget;
    CURLM *ptMulti = curl_multi_init();
    int nSocket = socket(AF_INET, SOCK_DGRAM, 0); /* sends to itself */
    sockaddr_in tAddress = {};
    std::mutex tRunLock;
    std::list<TLoopPost *> aptRun;
    std::mutex tFinLock;
    std::list<TLoopPost *> aptFin;
    std::atomic<uint32_t> dwRun{0}; /* elements of aptRun */
};

void Complete(TLoopWorker &tWorker, CURL *ptEasy, CURLcode eResult)
{
    TLoopPost *ptPost = nullptr;
    curl_multi_remove_handle(tWorker.ptMulti, ptEasy);
    {
        const std::lock_guard<std::mutex> tGuard(tWorker.tRunLock);
        auto it = tWorker.aptRun.begin();
        while ((*it)->tPost.ptEasy != ptEasy) {
            ++it;
        }
        ptPost = *it;
        tWorker.aptRun.erase(it);
        tWorker.dwRun = static_cast<uint32_t>(tWorker.aptRun.size());
    }
    TChain &tChain = *ptPost->ptChain;
    memcpy(tChain.achAnswer, ptPost->strAnswer.data(), ptPost->tPost.uLength);
    {
        const std::lock_guard<std::mutex> tGuard(tWorker.tFinLock);
        tWorker.aptFin.push_back(ptPost);
    }
    const bool bSucceeded = eResult == CURLE_OK && HasAnswer(ptPost->tPost, tWorker.tTarget);
    {
        const std::lock_guard<std::mutex> tGuard(tWorker.tFinLock);
        tWorker.aptFin.remove(ptPost);
    }
    CleanUp(ptPost->tPost);
    delete ptPost;
    ChainEnded(tChain, bSucceeded);
}

bool IsTimerDue(CURLM *ptMulti)
{
    long nTimeoutMS = -1;
    curl_multi_timeout(ptMulti, &nTimeoutMS);
    return nTimeoutMS == 0;
}

/* Until libcurl has nothing left to do at once: a pass without activity performs nothing. */
void Drive(CURLM *ptMulti)
{
    int nRunning = 0;
    bool bWasDue = false;
    bool bDue = IsTimerDue(ptMulti);
    do {
        bWasDue = bDue;
        curl_multi_perform(ptMulti, &nRunning);
        bDue = IsTimerDue(ptMulti);
    } while (nRunning > 0 && (bWasDue || bDue));
}

void PerformAndComplete(TLoopWorker &tWorker)
{
    int nLeft = 0;
    Drive(tWorker.ptMulti);
    while (const CURLMsg *ptMsg = curl_multi_info_read(tWorker.ptMulti, &nLeft)) {
        Complete(tWorker, ptMsg->easy_handle, ptMsg->data.result);
    }
}

void AddNew(TLoopWorker &tWorker)
{
    bool bAdded = false;
    {
        const std::lock_guard<std::mutex> tGuard(tWorker.tRunLock);
        for (TLoopPost *ptPost : tWorker.aptRun) {
            if (!ptPost->bInMulti) {
                curl_multi_add_handle(tWorker.ptMulti, ptPost->tPost.ptEasy);
                ptPost->bInMulti = bAdded = true;
            }
        }
    }
    if (bAdded) {
        PerformAndComplete(tWorker);
    }
}

[[noreturn]] void Work(TLoopWorker &tWorker)
{
    const timespec tRest = {0, REST_NS};
    curl_waitfd tWakeUp = {tWorker.nSocket, CURL_WAIT_POLLIN, 0};
    for (;;) {
        int nReady = 0;
        tWakeUp.revents = 0;
        AddNew(tWorker);
        curl_multi_wait(tWorker.ptMulti, &tWakeUp, 1, WAIT_MS, &nReady);
        if ((tWakeUp.revents & CURL_WAIT_POLLIN) != 0) {
            char achDatagram[256];
            recv(tWorker.nSocket, achDatagram, sizeof(achDatagram), 0);
            if (--nReady == 0) {
                continue;
            }
        }
        if (nReady > 0) {
            PerformAndComplete(tWorker);
        }
        nanosleep(&tRest, nullptr);
    }
}

void Start(TLoopWorker &tWorker, const TTarget &tTarget)
{
    socklen_t dwLength = sizeof(tWorker.tAddress);
    tWorker.tTarget = tTarget;
    tWorker.tAddress.sin_family = AF_INET;
    tWorker.tAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(tWorker.nSocket, reinterpret_cast<sockaddr *>(&tWorker.tAddress), dwLength) != 0 ||
        getsockname(tWorker.nSocket, reinterpret_cast<sockaddr *>(&tWorker.tAddress), &dwLength) != 0) {
        throw std::runtime_error("no port to wake up a task");
    }
    std::thread(Work, std::ref(tWorker)).detach();
}

TLoopWorker &LeastLoaded(std::deque<TLoopWorker> &atWorkers)
{
    TLoopWorker *ptLeast = &atWorkers[0];
    for (TLoopWorker &tWorker : atWorkers) {
        ptLeast = tWorker.dwRun < ptLeast->dwRun ? &tWorker : ptLeast;
    }
    return *ptLeast;
}

bool Submit(TLoopWorker &tWorker, TChain &tChain)
{
    TLoopPost *ptPost = new TLoopPost{{}, tWorker.tTarget.strBody, std::string(tWorker.tTarget.uAnswer, ' '), &tChain};
    SetUp(ptPost->tPost, tWorker.tTarget, ptPost->strAnswer.data(), ptPost->strAnswer.size());
    curl_easy_setopt(ptPost->tPost.ptEasy, CURLOPT_POSTFIELDS, ptPost->strBody.data());
    {
        const std::lock_guard<std::mutex> tGuard(tWorker.tRunLock);
        tWorker.aptRun.push_front(ptPost);
        tWorker.dwRun = static_cast<uint32_t>(tWorker.aptRun.size());
    }
    return sendto(tWorker.nSocket, "b", 2, 0, reinterpret_cast<const sockaddr *>(&tWorker.tAddress),
                  sizeof(tWorker.tAddress)) == 2;
}

} // namespace

TWay LoopWay(const TTarget &tTarget)
{
    auto patWorkers = std::make_shared<std::deque<TLoopWorker>>(BENCH_WORKERS);
    for (TLoopWorker &tWorker : *patWorkers) {
        Start(tWorker, tTarget);
    }
    return {[patWorkers](TChain &tChain) { return Submit(LeastLoaded(*patWorkers), tChain); }};
}
