/*
 * The direct send: one libcurl easy handle, created, used and released within the call on the
 * caller's thread, without the engine; and the DNS cache that applications may share.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <curl/curl.h>

#include "sendbycurl/sendbycurl_inner.h"
#include "support/hcc_log.h"
#include "support/hcc_sem.h"

/* The helpers below run for these operations: their lines have these names. */
static const char s_szExt[] = "Qelvo_SyncSendStrByHttp_Ext";
static const char s_szShare[] = "set_share_handle";

CURLSH *pShare_handle;

enum { DNS_CACHE_SECONDS = 300 };

/* 48 blanks: they indent the continuation lines of the one message that has some. */
#define BLANKS_48 "                                                "

size_t Qelvo_Receive_Data(void *pBuf, size_t size, size_t nmemb, TSendByCurlParam *ptParam)
{
    if (pBuf == nullptr || ptParam == nullptr || size == 0 || nmemb == 0) {
        printf("pBuf is null\n");
        return 0;
    }
    if (ptParam->pchRecvBuf == nullptr || ptParam->dwMaxRecvLen == 0) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] RecvBuf is null\n");
        return 0;
    }

    const uint32_t dwCurDataLen = static_cast<uint32_t>(size * nmemb);
    HCC_LOG(HCC_LEVEL_INFO, " UsrBuflen:%u, dwCurDataLen %u, dwMaxRecvLen %u\n", ptParam->dwRecvLen, dwCurDataLen,
            ptParam->dwMaxRecvLen);
    if (ptParam->dwMaxRecvLen < static_cast<uint64_t>(ptParam->dwRecvLen) + dwCurDataLen) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] pchRecvBuf overflow! MaxBuf:%u  [%u-%u]\n", ptParam->dwMaxRecvLen,
                ptParam->dwRecvLen, dwCurDataLen);
        return 0;
    }
    memcpy(ptParam->pchRecvBuf + ptParam->dwRecvLen, pBuf, dwCurDataLen);
    ptParam->dwRecvLen += dwCurDataLen;
    HCC_LOG(HCC_LEVEL_INFO, " receive_data CountLen:%u [CurLen:%d]\n", ptParam->dwRecvLen, dwCurDataLen);
    return dwCurDataLen;
}

ESendByCurlRet CurlCodeToSendByCurlCode(CURLcode eCurlRet)
{
    ESendByCurlRet eRet = SENDBYCURL_TRANSFER_FAILED;
    if (eCurlRet == CURLE_FTP_ACCEPT_TIMEOUT) { /* libcurl code 12 */
        eRet = SENDBYCURL_ACCEPT_TIMED_OUT;
    } else if (eCurlRet == CURLE_OPERATION_TIMEDOUT) {
        eRet = SENDBYCURL_TIMED_OUT;
    }
    HCC_LOG(HCC_LEVEL_INFO, " Transfer CURLcode[%d] to ESendByCurlRet[%d]\n", eCurlRet, eRet);
    return eRet;
}

/* Sets an option; a refusal is logged with the option's mark and returns from the caller. */
#define RETURN_IF_REFUSED(szMark, ptEasy, eOption, tValue)                                                             \
    do {                                                                                                               \
        const CURLcode eCurlRet = curl_easy_setopt(ptEasy, eOption, tValue);                                           \
        if (eCurlRet != CURLE_OK) {                                                                                    \
            HCC_LOG_AS(s_szExt, HCC_LEVEL_ERROR, "[Error] " szMark " failed, eCurlRet %d, %s\n", eCurlRet,             \
                       curl_easy_strerror(eCurlRet));                                                                  \
            return false;                                                                                              \
        }                                                                                                              \
    } while (0)

/*
 * The body's length is not set, so libcurl sends it up to its first zero byte; and no method
 * is set, so that without a body a GET is sent.
 */
static bool SetOptions(CURL *ptEasy, struct curl_slist *ptHeaders, TSendByCurlParam *ptParam)
{
    RETURN_IF_REFUSED("--1--curl_easy_setopt()", ptEasy, CURLOPT_HTTPHEADER, ptHeaders);
    RETURN_IF_REFUSED("--2--curl_easy_setopt()", ptEasy, CURLOPT_CONNECTTIMEOUT_MS,
                      static_cast<long>(ptParam->dwConnTimeOutMS));
    RETURN_IF_REFUSED("--2_1--curl_easy_setopt()", ptEasy, CURLOPT_TIMEOUT_MS, static_cast<long>(ptParam->dwTimeoutMS));
    if (ptParam->eHeadType == SENDBYCURL_METHOD_POST) {
        RETURN_IF_REFUSED("--3--curl_easy_setopt()", ptEasy, CURLOPT_POSTFIELDS, ptParam->pchSendBuf);
    }
    RETURN_IF_REFUSED("--4--curl_easy_setopt()", ptEasy, CURLOPT_URL, ptParam->pchURL);
    if (ptParam->bSSLserver == 0) {
        RETURN_IF_REFUSED(" curl_easy_setopt() CURLOPT_SSL_VERIFYPEER", ptEasy, CURLOPT_SSL_VERIFYPEER, 0L);
        RETURN_IF_REFUSED("curl_easy_setopt() CURLOPT_SSL_VERIFYHOST", ptEasy, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    if (ptParam->pchRecvBuf != nullptr && ptParam->dwMaxRecvLen != 0) {
        RETURN_IF_REFUSED("--5--curl_easy_setopt()", ptEasy, CURLOPT_WRITEFUNCTION, Qelvo_Receive_Data);
        RETURN_IF_REFUSED("--5_1--curl_easy_setopt()", ptEasy, CURLOPT_WRITEDATA, ptParam);
    }
    return true;
}

static ESendByCurlRet ConfigureAndPerform(CURL *ptEasy, struct curl_slist *ptHeaders, TSendByCurlParam *ptParam)
{
    if (!SetOptions(ptEasy, ptHeaders, ptParam)) {
        return SENDBYCURL_OPTION_REFUSED;
    }
    const CURLcode eCurlRet = curl_easy_perform(ptEasy);
    if (eCurlRet != CURLE_OK) {
        HCC_LOG_AS(s_szExt, HCC_LEVEL_INFO, " curl_easy_perform() failed, eCurlRet %d, %s\n", eCurlRet,
                   curl_easy_strerror(eCurlRet));
        return CurlCodeToSendByCurlCode(eCurlRet);
    }
    return SENDBYCURL_OK;
}

static void LogReceived(const TSendByCurlParam *ptParam)
{
    if (ptParam->pchRecvBuf == nullptr) {
        HCC_LOG_AS(s_szExt, HCC_LEVEL_INFO, " RecvLen:%u  \n", ptParam->dwRecvLen);
        return;
    }
    /* What follows the answer is zero; an answer that fills the buffer has no terminator, so a copy is logged. */
    char *pchCopy = nullptr;
    const char *szText = ptParam->pchRecvBuf;
    if (ptParam->dwRecvLen >= ptParam->dwMaxRecvLen) {
        pchCopy = strndup(ptParam->pchRecvBuf, ptParam->dwMaxRecvLen);
        szText = pchCopy != nullptr ? pchCopy : "";
    }
    HCC_LOG_AS(s_szExt, HCC_LEVEL_INFO, " RecvLen:%u, pchRecvBuf:%s\n", ptParam->dwRecvLen, szText);
    free(pchCopy);
}

ESendByCurlRet Qelvo_SyncSendStrByHttp_Ext(TSendByCurlParam *ptParam)
{
    /* The start is only for the log; this send also works without it. */
    const ESendByCurlRet eInitRet = SendByCurlInit();
    if (eInitRet != SENDBYCURL_OK) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] SendByCurlInit is Failed! eSendCurlRet:%d\n", eInitRet);
    }
    if (ptParam == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] One Param is NULL!\n", __func__, __LINE__);
        return SENDBYCURL_INVALID_PARAM;
    }
    if (ptParam->pchURL == nullptr || ptParam->pchSendBuf == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] Two Param is NULL!\n", __func__, __LINE__);
        return SENDBYCURL_INVALID_PARAM;
    }
    HCC_LOG(HCC_LEVEL_INFO,
            " pchURL %s, pchSendBuf %s, dwSendLen %u,\n \t" BLANKS_48
            "\t dwMaxTimeMs %u-%u, dwMaxRecvLen %u\n \t" BLANKS_48 "\t HeadType:%u,bSSLserver:%u\n",
            ptParam->pchURL, ptParam->pchSendBuf, ptParam->dwSendLen, ptParam->dwConnTimeOutMS, ptParam->dwTimeoutMS,
            ptParam->dwMaxRecvLen, ptParam->eHeadType, ptParam->bSSLserver);
    if (ptParam->pchRecvBuf != nullptr) {
        memset(ptParam->pchRecvBuf, 0, ptParam->dwMaxRecvLen);
    }

    CURL *ptEasy = curl_easy_init();
    if (ptEasy == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] curl_easy_init fail\n");
        return SENDBYCURL_NO_HANDLE;
    }
    ESendByCurlRet eRet = SENDBYCURL_NO_HEADER;
    struct curl_slist *ptHeaders = curl_slist_append(nullptr, "Content-Type:application/json;charset=UTF-8");
    if (ptHeaders == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] curl_slist_append() fail\n");
    } else {
        eRet = ConfigureAndPerform(ptEasy, ptHeaders, ptParam);
    }
    LogReceived(ptParam);
    curl_easy_cleanup(ptEasy);
    curl_slist_free_all(ptHeaders);
    return eRet;
}

ESendByCurlRet Qelvo_SyncSendStrByHttp(const char *pchURL, const char *pchSendBuf, uint32_t dwSendLen,
                                       uint32_t dwTimeoutMs, char *pchRecvBuf, uint32_t *pdwRecvLen)
{
    if (pchURL == nullptr || pchSendBuf == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] Two Param is NULL!\n", __func__, __LINE__);
        return SENDBYCURL_INVALID_PARAM;
    }

    TSendByCurlParam tParam = {};
    tParam.pchURL = pchURL;
    tParam.eHeadType = SENDBYCURL_METHOD_POST;
    tParam.pchSendBuf = pchSendBuf;
    tParam.dwSendLen = dwSendLen;
    tParam.dwConnTimeOutMS = dwTimeoutMs;
    tParam.dwTimeoutMS = dwTimeoutMs;
    if (pchRecvBuf != nullptr && pdwRecvLen != nullptr) {
        tParam.pchRecvBuf = pchRecvBuf;
        tParam.dwMaxRecvLen = *pdwRecvLen;
    }
    const ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Ext(&tParam);
    if (eRet == SENDBYCURL_OK && pdwRecvLen != nullptr) {
        *pdwRecvLen = tParam.dwRecvLen;
    }
    return eRet;
}

/* The share handle, created by its first use; null if libcurl returned none. */
static CURLSH *ShareHandle()
{
    if (pShare_handle != nullptr) {
        return pShare_handle;
    }
    CURLSHcode eCurlRet = CURLSHE_INVALID;
    pShare_handle = curl_share_init();
    if (pShare_handle != nullptr) {
        eCurlRet = curl_share_setopt(pShare_handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    } else {
        HCC_LOG_AS(s_szShare, HCC_LEVEL_ERROR, "[Error] curl_share_init fail\n");
    }
    if (eCurlRet != CURLSHE_OK) {
        HCC_LOG_AS(s_szShare, HCC_LEVEL_ERROR, "[Error] curl_share_setopt() failed, eCurlRet %d, %s\n", eCurlRet,
                   curl_share_strerror(eCurlRet));
    }
    return pShare_handle;
}

/* Under a lock: libcurl counts the users of the handle, which has no lock of its own. */
static CURLcode AttachShare(void *easy)
{
    static HOspSem s_hLock = nullptr;
    HOspSem hLock = HCCSemEnsure(&s_hLock);
    OspSemTake(hLock);
    const CURLcode eCurlRet = curl_easy_setopt(easy, CURLOPT_SHARE, ShareHandle());
    OspSemGive(hLock);
    return eCurlRet;
}

uint32_t set_share_handle(void *easy)
{
    const CURLcode eCurlRet = AttachShare(easy);
    if (eCurlRet == CURLE_OK) {
        return curl_easy_setopt(easy, CURLOPT_DNS_CACHE_TIMEOUT, static_cast<long>(DNS_CACHE_SECONDS));
    }
    HCC_LOG(HCC_LEVEL_ERROR, "[Error] --11--curl_easy_setopt() failed, eCurlRet %d, %s\n", eCurlRet,
            curl_easy_strerror(eCurlRet));
    curl_easy_setopt(easy, CURLOPT_DNS_CACHE_TIMEOUT, static_cast<long>(DNS_CACHE_SECONDS));
    /* The code of the first refusal again, whatever the second call returned. */
    HCC_LOG(HCC_LEVEL_ERROR, "[Error] --22--curl_easy_setopt() failed, eCurlRet %d, %s\n", eCurlRet,
            curl_easy_strerror(eCurlRet));
    return eCurlRet;
}
