#include <httplib.h>

#include "bench/ways.h"

namespace
{

bool Post(const TTarget &tTarget, std::string &strAnswer)
{
    httplib::Client tClient(tTarget.strHost, tTarget.wPort);
    httplib::Result tResult = tClient.Post(tTarget.strPath, tTarget.strBody, "application/json");
    if (!tResult) {
        return false;
    }
    strAnswer = std::move(tResult->body);
    return tResult->status == BENCH_HTTP_OK && strAnswer.size() == tTarget.uAnswer;
}

} // namespace

TWay HttplibWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return Post(tTarget, tChain.strAnswer); }, true};
}
