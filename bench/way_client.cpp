#include <memory>

#include "bench/ways.h"
#include "nvrhttpcurl/client.hpp"

TWay ClientWay(const TTarget &tTarget)
{
    nvrhttpcurl::Options tOptions;
    tOptions.workers = BENCH_WORKERS;
    tOptions.max_requests = BENCH_MOST_OUTSTANDING;
    auto ptClient = std::make_shared<nvrhttpcurl::Client>(tOptions);
    return {[tTarget, ptClient](TChain &tChain) {
        nvrhttpcurl::Request tRequest;
        tRequest.url = tTarget.strUrl;
        tRequest.body = tTarget.strBody;
        tRequest.verify = false;
        tRequest.timeout = tRequest.connect_timeout = std::chrono::milliseconds(BENCH_TIMEOUT_MS);
        ptClient->send_async(std::move(tRequest),
                             [&tChain](const nvrhttpcurl::Response &tAnswer) { ChainEnded(tChain, tAnswer.ok()); });
        return true;
    }};
}
