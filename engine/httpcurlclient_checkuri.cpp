/*
 * The URI check: one POST that shows whether an endpoint can be reached. It belongs to no
 * instance and uses no memory callback.
 */
#include "engine/httpcurlclient_inner.h"
#include "engine/httpcurlclient_setopt.h"
#include "platform/appbase.h"
#include "support/hcc_log.h"

/* The helpers below run for the check: their lines have its name. */
static const char s_szCheckUri[] = "NvrHttpCurlCltCheckUri";

/* The check only needs to reach the server. Without this the answer goes to standard output. */
static size_t DiscardAnswer(char *, size_t size, size_t nmemb, void *)
{
    return size * nmemb;
}

/*
 * Refusals are only logged. Neither a read function nor a body is set, so libcurl reads the
 * POST's body from standard input, which is empty for a service.
 */
static void SetCheckOptions(CURL *ptEasy, const char *szUri, uint32_t dwConnTimeOutSec)
{
    SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_HEADER, 1L);
    SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_POST, 1L);
    SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_URL, szUri);
    if (AppStrstr(szUri, "https") != nullptr) {
        SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_SSL_VERIFYPEER, 0L);
        SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_SSL_VERIFYHOST, 0L);
        SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_CAINFO, static_cast<const char *>(nullptr));
        /* The separator is an ideographic comma in GB2312: the device's log viewers expect it. */
        HCC_LOG_AS(s_szCheckUri, HCC_LEVEL_INFO,
                   " setopt CURLOPT_SSL_VERIFYPEER\xA1\xA2"
                   "CURLOPT_SSL_VERIFYHOST\n");
    }
    SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(dwConnTimeOutSec));
    SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_VERBOSE, 0L);
    SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_NOSIGNAL, 1L);
    SET_OPTION_AS(s_szCheckUri, ptEasy, CURLOPT_WRITEFUNCTION, DiscardAnswer);
}

/* Narrower than the engine's own mapping: a refused connection is a general failure here. */
static ENvrHttpCurlCltRet CheckResult(CURLcode eCode)
{
    switch (eCode) {
    case CURLE_OK:
        return NVRHTTPCURLCLT_OK;
    case CURLE_SSL_CONNECT_ERROR:
        return NVRHTTPCURLCLT_TLS_FAILED;
    case CURLE_OPERATION_TIMEDOUT:
        return NVRHTTPCURLCLT_TIMED_OUT;
    default:
        return NVRHTTPCURLCLT_FAILED;
    }
}

ENvrHttpCurlCltRet NvrHttpCurlCltCheckUri(const char *szUri, uint32_t dwConnTimeOutSec)
{
    if (szUri == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, szUri %p\n", HCCLogPtr(szUri));
        return NVRHTTPCURLCLT_FAILED;
    }
    CURL *ptEasy = _NvrHttpCurlCltEasyInit();
    if (ptEasy == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] curl_easy_init fail.\n");
        return NVRHTTPCURLCLT_FAILED;
    }
    SetCheckOptions(ptEasy, szUri, dwConnTimeOutSec);
    const CURLcode eCode = curl_easy_perform(ptEasy);
    HCC_LOG(HCC_LEVEL_INFO, " curl_easy_perform return {%d}\n", eCode);
    curl_easy_cleanup(ptEasy);
    return CheckResult(eCode);
}
