#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>

#include "bench/ways.h"

namespace
{

bool Post(const TTarget &tTarget, std::string &strAnswer)
{
    Poco::Net::HTTPClientSession tSession(tTarget.strHost, tTarget.wPort);
    Poco::Net::HTTPRequest tRequest("POST", tTarget.strPath, "HTTP/1.1");
    Poco::Net::HTTPResponse tResponse;
    tRequest.setContentType("application/json");
    tRequest.setContentLength(static_cast<std::streamsize>(tTarget.strBody.size()));
    strAnswer.clear();
    tSession.sendRequest(tRequest) << tTarget.strBody;
    Poco::StreamCopier::copyToString(tSession.receiveResponse(tResponse), strAnswer);
    return tResponse.getStatus() == Poco::Net::HTTPResponse::HTTP_OK && strAnswer.size() == tTarget.uAnswer;
}

} // namespace

TWay PocoWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return Post(tTarget, tChain.strAnswer); }, true};
}
