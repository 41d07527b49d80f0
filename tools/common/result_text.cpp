#include "tools/common/result_text.h"

const char *ModuleStartText(ESendByCurlRet eRet)
{
    switch (eRet) {
    case SENDBYCURL_OK:
        return "success";
    case SENDBYCURL_INVALID_PARAM:
        return "the log, a semaphore, a worker thread or a wake-up port could not be had";
    case SENDBYCURL_NO_MEMORY:
        return "memory is exhausted";
    case SENDBYCURL_LIMIT_REACHED:
        return "all 16 engine instances are in use";
    default:
        return "a result that the module's start does not give";
    }
}

const char *EngineSendText(ESendByCurlRet eRet)
{
    switch (eRet) {
    case SENDBYCURL_OK:
        return "success";
    case SENDBYCURL_INVALID_PARAM:
        return "an argument was refused, the module is not started, or the transfer failed in a way without a number "
               "of its own";
    case SENDBYCURL_NO_SLOT:
        return "all 1024 places for asynchronous sends are taken";
    case SENDBYCURL_TIMED_OUT:
        return "the transfer timed out";
    case SENDBYCURL_NO_MEMORY:
        return "memory is exhausted";
    case SENDBYCURL_HTTP_STATUS:
        return "the HTTP status was not 200, or no answer came";
    case SENDBYCURL_BUFFER_TOO_SMALL:
        return "the answer is longer than --max-answer";
    case SENDBYCURL_LIMIT_REACHED:
        return "1024 asynchronous requests are outstanding";
    case SENDBYCURL_CONNECT_FAILED:
        return "the connection could not be made";
    case SENDBYCURL_TLS_FAILED:
        return "the TLS connection failed";
    default:
        return "a result that a send over the engine does not give";
    }
}

const char *ClientSendText(ESendByCurlRet eRet)
{
    switch (eRet) {
    case SENDBYCURL_OK:
        return "success";
    case SENDBYCURL_INVALID_PARAM:
        return "invalid argument: the client refused it before anything was sent";
    case SENDBYCURL_TRANSFER_FAILED:
        return "transfer failed";
    case SENDBYCURL_TIMED_OUT:
        return "timed out";
    case SENDBYCURL_NO_MEMORY:
        return "no memory";
    case SENDBYCURL_HTTP_STATUS:
        return "the HTTP status was not 200 to 299";
    case SENDBYCURL_BUFFER_TOO_SMALL:
        return "answer too long: it is longer than --max-answer";
    case SENDBYCURL_LIMIT_REACHED:
        return "limit reached: the client has no place for more posts";
    case SENDBYCURL_CONNECT_FAILED:
        return "connect failed";
    case SENDBYCURL_TLS_FAILED:
        return "TLS failed";
    default:
        return "a result that a post through the client does not give";
    }
}

const char *DirectSendText(ESendByCurlRet eRet)
{
    switch (eRet) {
    case SENDBYCURL_OK:
        return "success";
    case SENDBYCURL_INVALID_PARAM:
        return "a required argument is missing";
    case SENDBYCURL_NO_HANDLE:
        return "libcurl gave no handle";
    case SENDBYCURL_NO_HEADER:
        return "the header list could not be built";
    case SENDBYCURL_OPTION_REFUSED:
        return "libcurl refused an option";
    case SENDBYCURL_TRANSFER_FAILED:
        return "the transfer failed, or the answer is longer than --max-answer";
    case SENDBYCURL_TIMED_OUT:
        return "the transfer timed out";
    case SENDBYCURL_ACCEPT_TIMED_OUT:
        return "the server was not ready for the transfer in time";
    default:
        return "a result that a direct send does not give";
    }
}

const char *CheckUriText(ENvrHttpCurlCltRet eRet)
{
    switch (eRet) {
    case NVRHTTPCURLCLT_OK:
        return "reachable: the server answered, with whatever HTTP status";
    case NVRHTTPCURLCLT_FAILED:
        return "not reachable, or no complete answer";
    case NVRHTTPCURLCLT_TIMED_OUT:
        return "not reachable: no connection within the time-out";
    case NVRHTTPCURLCLT_TLS_FAILED:
        return "not reachable: the TLS connection failed";
    default:
        return "a result that the URI check does not give";
    }
}
