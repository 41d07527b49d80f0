#include "tools/post/post_client.h"

#include <algorithm>
#include <chrono>

std::unique_ptr<nvrhttpcurl::Client> MakePostClient(const TPostJob &tJob)
{
    nvrhttpcurl::Options tOptions;
    const uint32_t dwAtOnce = std::min(tJob.dwCount, tJob.dwParallel);
    tOptions.workers = dwAtOnce == 1 ? 1 : 2;
    tOptions.max_requests = dwAtOnce;
    tOptions.max_answer = tJob.dwMaxAnswer;
    return std::make_unique<nvrhttpcurl::Client>(tOptions);
}

/* A scheme ends with the ":" before the first slash. One without two slashes is the client's to refuse. */
std::string WithScheme(const std::string &strUrl)
{
    return strUrl.find(":/") + 1 == strUrl.find_first_of("/?#") ? strUrl : "http://" + strUrl;
}

nvrhttpcurl::Response PostByClient(const TPostJob &tJob, const std::string &strBody)
{
    nvrhttpcurl::Request tRequest;
    tRequest.url = WithScheme(tJob.strUrl);
    tRequest.body = strBody;
    tRequest.method = tJob.eHeadType == SENDBYCURL_METHOD_GET ? "GET" : "POST";
    tRequest.user_and_password = tJob.strUserAndPassWd;
    tRequest.timeout = std::chrono::milliseconds(tJob.dwTimeoutMS);
    tRequest.connect_timeout = std::chrono::milliseconds(tJob.dwConnTimeOutMS);
    tRequest.verify = tJob.bVerify;
    return tJob.ptClient->send(std::move(tRequest));
}

ESendByCurlRet ResultOfClient(const nvrhttpcurl::Response &tAnswer)
{
    switch (tAnswer.error) {
    case nvrhttpcurl::Error::none:
        return tAnswer.ok() ? SENDBYCURL_OK : SENDBYCURL_HTTP_STATUS;
    case nvrhttpcurl::Error::invalid_argument:
        return SENDBYCURL_INVALID_PARAM;
    case nvrhttpcurl::Error::limit_reached:
        return SENDBYCURL_LIMIT_REACHED;
    case nvrhttpcurl::Error::no_memory:
        return SENDBYCURL_NO_MEMORY;
    case nvrhttpcurl::Error::timed_out:
        return SENDBYCURL_TIMED_OUT;
    case nvrhttpcurl::Error::connect_failed:
        return SENDBYCURL_CONNECT_FAILED;
    case nvrhttpcurl::Error::tls_failed:
        return SENDBYCURL_TLS_FAILED;
    case nvrhttpcurl::Error::answer_too_long:
        return SENDBYCURL_BUFFER_TOO_SMALL;
    case nvrhttpcurl::Error::transfer_failed:
    case nvrhttpcurl::Error::cancelled:
        break;
    }
    return SENDBYCURL_TRANSFER_FAILED;
}
