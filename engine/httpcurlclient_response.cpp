/*
 * Response capture and readout. The buffer holds qwSize bytes followed by a NUL, and grows
 * with the caller's realloc to exactly what has been received.
 */
#include <string.h>

#include "engine/httpcurlclient_inner.h"
#include "support/hcc_log.h"

size_t _HttpCurlStackWriteCB(void *pvData, size_t size, size_t nmemb, void *pvMem)
{
    TNvrHttpCurlCltMem *ptMem = static_cast<TNvrHttpCurlCltMem *>(pvMem);
    if (ptMem == nullptr || ptMem->pfRealloc == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] Invalid value{mem or mem->pfRealloc}.\n");
        return 0;
    }

    /* Stored unchecked: after a failure the record has no buffer but keeps its size. */
    const size_t nBytes = size * nmemb;
    const size_t nNewBytes = static_cast<size_t>(ptMem->qwSize) + 1 + nBytes;
    ptMem->pchData = static_cast<char *>(ptMem->pfRealloc(ptMem->pchData, nNewBytes));
    if (ptMem->pchData == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] [CurlStack]not enough memory (realloc returned NULL)\n");
        return 0;
    }
    memcpy(ptMem->pchData + ptMem->qwSize, pvData, nBytes);
    ptMem->qwSize += nBytes;
    ptMem->pchData[ptMem->qwSize] = '\0';
    return nBytes;
}

ENvrHttpCurlCltRet NvrHttpCurlCltGetRespStatCode(HNvrHttpCurlCltReq hReq, int32_t *pnCode)
{
    if (hReq == nullptr || hReq->ptReq == nullptr || pnCode == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p, pnCode %p\n", HCCLogPtr(hReq),
                HCCLogPtr(hReq != nullptr ? hReq->ptReq : nullptr), HCCLogPtr(pnCode));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }

    long nCode = 0;
    const CURLcode eCode = curl_easy_getinfo(hReq->ptReq, CURLINFO_RESPONSE_CODE, &nCode);
    if (eCode != CURLE_OK) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] curl_easy_getinfo{CURLINFO_RESPONSE_CODE} failed{%d}\n", eCode);
        return NVRHTTPCURLCLT_FAILED;
    }
    *pnCode = static_cast<int32_t>(nCode);
    return NVRHTTPCURLCLT_OK;
}

/* Whether the server has answered; logged under the getter's name if not. */
static bool HasAnswer(const char *szFunc, CURL *ptEasy)
{
    long nCode = 0;
    curl_easy_getinfo(ptEasy, CURLINFO_RESPONSE_CODE, &nCode);
    if (nCode == 0) {
        HCC_LOG_AS(szFunc, HCC_LEVEL_ERROR, "[Error] no server response code has been received.\n");
        return false;
    }
    return true;
}

ENvrHttpCurlCltRet NvrHttpCurlCltGetRespBodyLen(HNvrHttpCurlCltReq hReq, uint32_t *pdwBufSize)
{
    if (hReq == nullptr || hReq->ptReq == nullptr || pdwBufSize == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p, pdwBufSize %p\n", HCCLogPtr(hReq),
                HCCLogPtr(hReq != nullptr ? hReq->ptReq : nullptr), HCCLogPtr(pdwBufSize));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    if (!HasAnswer(__func__, hReq->ptReq)) {
        return NVRHTTPCURLCLT_FAILED;
    }
    if (hReq->ptRespData == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] ptReqIn->ptRespData is NULL.\n");
        return NVRHTTPCURLCLT_FAILED;
    }
    *pdwBufSize = static_cast<uint32_t>(hReq->ptRespData->qwSize);
    return NVRHTTPCURLCLT_OK;
}

ENvrHttpCurlCltRet NvrHttpCurlCltGetRespBody(HNvrHttpCurlCltReq hReq, char *szBodyBuf, uint32_t *pdwBufSize)
{
    if (hReq == nullptr || hReq->ptReq == nullptr || szBodyBuf == nullptr || pdwBufSize == nullptr ||
        *pdwBufSize == 0) {
        HCC_LOG(HCC_LEVEL_ERROR,
                "[Error] invalid arg, ptReqIn %p, ptReq %p, szBodyBuf %p, pdwBufSize %p, *pdwBufSize %u\n",
                HCCLogPtr(hReq), HCCLogPtr(hReq != nullptr ? hReq->ptReq : nullptr), HCCLogPtr(szBodyBuf),
                HCCLogPtr(pdwBufSize), pdwBufSize != nullptr ? *pdwBufSize : 0);
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    if (!HasAnswer(__func__, hReq->ptReq)) {
        return NVRHTTPCURLCLT_FAILED;
    }
    const TNvrHttpCurlCltMem *ptResp = hReq->ptRespData;
    if (ptResp == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] ptRespData is Invalid.\n");
        return NVRHTTPCURLCLT_FAILED;
    }
    if (ptResp->pchData == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] pchData is NULL, the response was lost for want of memory.\n");
        return NVRHTTPCURLCLT_FAILED;
    }
    if (ptResp->qwSize > *pdwBufSize) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] nBodyLen %d, *pdwBufSize %u\n", static_cast<int32_t>(ptResp->qwSize),
                *pdwBufSize);
        *pdwBufSize = static_cast<uint32_t>(ptResp->qwSize);
        return NVRHTTPCURLCLT_BUFFER_TOO_SMALL;
    }

    /* The terminator may be one byte past the stated size: that is the contract. */
    memcpy(szBodyBuf, ptResp->pchData, static_cast<size_t>(ptResp->qwSize));
    szBodyBuf[ptResp->qwSize] = '\0';
    *pdwBufSize = static_cast<uint32_t>(ptResp->qwSize);
    return NVRHTTPCURLCLT_OK;
}
