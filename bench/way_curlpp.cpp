#include <curlpp/Easy.hpp>
#include <curlpp/Infos.hpp>
#include <curlpp/Options.hpp>

#include "bench/ways.h"

namespace
{

bool Post(const TTarget &tTarget, std::string &strAnswer)
{
    curlpp::Easy tEasy;
    strAnswer.clear();
    tEasy.setOpt(curlpp::options::Url(tTarget.strUrl));
    tEasy.setOpt(curlpp::options::HttpHeader({"Content-Type: application/json"}));
    tEasy.setOpt(curlpp::options::PostFields(tTarget.strBody));
    tEasy.setOpt(curlpp::options::PostFieldSize(static_cast<long>(tTarget.strBody.size())));
    tEasy.setOpt(curlpp::options::NoSignal(true));
    tEasy.setOpt(curlpp::options::SslVerifyPeer(false));
    tEasy.setOpt(curlpp::options::SslVerifyHost(0));
    tEasy.setOpt(curlpp::options::WriteFunction([&strAnswer](const char *pchPart, size_t uSize, size_t uCount) {
        strAnswer.append(pchPart, uSize * uCount);
        return uSize * uCount;
    }));
    tEasy.perform();
    return curlpp::infos::ResponseCode::get(tEasy) == BENCH_HTTP_OK && strAnswer.size() == tTarget.uAnswer;
}

} // namespace

TWay CurlppWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return Post(tTarget, tChain.strAnswer); }, true};
}
