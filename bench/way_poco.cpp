#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/StreamCopier.h>

#include "bench/ways.h"

namespace
{

bool PostOver(Poco::Net::HTTPClientSession &tSession, const TTarget &tTarget, std::string &strAnswer)
{
    Poco::Net::HTTPRequest tRequest("POST", tTarget.strPath, "HTTP/1.1");
    Poco::Net::HTTPResponse tResponse;
    tRequest.setContentType("application/json");
    tRequest.setContentLength(static_cast<std::streamsize>(tTarget.strBody.size()));
    strAnswer.clear();
    tSession.sendRequest(tRequest) << tTarget.strBody;
    Poco::StreamCopier::copyToString(tSession.receiveResponse(tResponse), strAnswer);
    return tResponse.getStatus() == Poco::Net::HTTPResponse::HTTP_OK && strAnswer.size() == tTarget.uAnswer;
}

bool Post(const TTarget &tTarget, std::string &strAnswer)
{
    if (!tTarget.bTls) {
        Poco::Net::HTTPClientSession tSession(tTarget.strHost, tTarget.wPort);
        return PostOver(tSession, tTarget, strAnswer);
    }
    static const Poco::Net::Context::Ptr ptContext(
        new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, "", Poco::Net::Context::VERIFY_NONE));
    Poco::Net::HTTPSClientSession tSession(tTarget.strHost, tTarget.wPort, ptContext);
    return PostOver(tSession, tTarget, strAnswer);
}

} // namespace

TWay PocoWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return Post(tTarget, tChain.strAnswer); }, true};
}
