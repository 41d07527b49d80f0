#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "bench/curl_post.h"

namespace
{

enum { POLL_MS = 1000 };

struct TMultiPost {
    TCurlPost tPost;
    TChain *ptChain;
};

struct TMultiWorker {
    TTarget tTarget;
    CURLM *ptMulti = curl_multi_init();
    std::mutex tLock;
    std::vector<TMultiPost *> aptNew; /* under the lock */
};

void AddNew(TMultiWorker &tWorker)
{
    std::vector<TMultiPost *> aptNew;
    {
        const std::lock_guard<std::mutex> tGuard(tWorker.tLock);
        aptNew.swap(tWorker.aptNew);
    }
    for (TMultiPost *ptPost : aptNew) {
        curl_multi_add_handle(tWorker.ptMulti, ptPost->tPost.ptEasy);
    }
}

void Complete(const TMultiWorker &tWorker, CURL *ptEasy, CURLcode eResult)
{
    TMultiPost *ptPost = nullptr;
    curl_multi_remove_handle(tWorker.ptMulti, ptEasy);
    curl_easy_getinfo(ptEasy, CURLINFO_PRIVATE, &ptPost);
    const bool bSucceeded = eResult == CURLE_OK && HasAnswer(ptPost->tPost, tWorker.tTarget);
    TChain &tChain = *ptPost->ptChain;
    CleanUp(ptPost->tPost);
    delete ptPost;
    ChainEnded(tChain, bSucceeded);
}

[[noreturn]] void Work(TMultiWorker &tWorker)
{
    for (;;) {
        int nRunning = 0;
        int nLeft = 0;
        AddNew(tWorker);
        curl_multi_perform(tWorker.ptMulti, &nRunning);
        while (const CURLMsg *ptMsg = curl_multi_info_read(tWorker.ptMulti, &nLeft)) {
            Complete(tWorker, ptMsg->easy_handle, ptMsg->data.result);
        }
        curl_multi_poll(tWorker.ptMulti, nullptr, 0, POLL_MS, nullptr);
    }
}

bool Submit(TMultiWorker &tWorker, TChain &tChain)
{
    TMultiPost *ptPost = new TMultiPost{{}, &tChain};
    SetUp(ptPost->tPost, tWorker.tTarget, tChain.achAnswer, sizeof(tChain.achAnswer));
    curl_easy_setopt(ptPost->tPost.ptEasy, CURLOPT_PRIVATE, ptPost);
    {
        const std::lock_guard<std::mutex> tGuard(tWorker.tLock);
        tWorker.aptNew.push_back(ptPost);
    }
    return curl_multi_wakeup(tWorker.ptMulti) == CURLM_OK;
}

} // namespace

TWay MultiWay(const TTarget &tTarget)
{
    auto patWorkers = std::make_shared<std::deque<TMultiWorker>>(BENCH_WORKERS);
    for (TMultiWorker &tWorker : *patWorkers) {
        tWorker.tTarget = tTarget;
        std::thread(Work, std::ref(tWorker)).detach();
    }
    return {[patWorkers](TChain &tChain) { return Submit((*patWorkers)[tChain.dwIndex % BENCH_WORKERS], tChain); }};
}
