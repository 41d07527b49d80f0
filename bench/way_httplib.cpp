#include <httplib.h>

#include "bench/ways.h"

namespace
{

template <typename TClient> bool PostOver(TClient &tClient, const TTarget &tTarget, std::string &strAnswer)
{
    httplib::Result tResult = tClient.Post(tTarget.strPath, tTarget.strBody, "application/json");
    if (!tResult) {
        return false;
    }
    strAnswer = std::move(tResult->body);
    return tResult->status == BENCH_HTTP_OK && strAnswer.size() == tTarget.uAnswer;
}

bool Post(const TTarget &tTarget, std::string &strAnswer)
{
    if (!tTarget.bTls) {
        httplib::Client tClient(tTarget.strHost, tTarget.wPort);
        return PostOver(tClient, tTarget, strAnswer);
    }
    httplib::SSLClient tClient(tTarget.strHost, tTarget.wPort);
    tClient.enable_server_certificate_verification(false);
    return PostOver(tClient, tTarget, strAnswer);
}

} // namespace

TWay HttplibWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return Post(tTarget, tChain.strAnswer); }, true};
}
