/*
 * Request objects: creation, settings, release. The setters are thin layers over
 * curl_easy_setopt: they decide which options are set, which refusals count, and who owns
 * the memory.
 */
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "engine/httpcurlclient_inner.h"
#include "engine/httpcurlclient_setopt.h"
#include "nvrhttpcurl/hcc_tools.h"
#include "platform/appbase.h"
#include "support/hcc_log.h"
#include "support/hcc_sem.h"

/* The helpers below run for the body setter: their lines have its name. */
static const char s_szSetReqBody[] = "NvrHttpCurlCltSetReqBody";

/* A header line "name:value" including the terminator; a longer one is cut. */
enum { HEADER_LINE_BYTES = 128 };

/* The easy handle of a request handle that may be null. */
static CURL *EasyOf(const TNvrHttpCurlCltReqInner *ptReqIn)
{
    return ptReqIn != nullptr ? ptReqIn->ptReq : nullptr;
}

static bool IsInstanceSlot(const TNvrHttpCurlCltInst *ptInst)
{
    for (const TNvrHttpCurlCltInst &tSlot : g_tNvrHttpCurlCltCont) {
        if (ptInst == &tSlot) {
            return true;
        }
    }
    return false;
}

CURL *_NvrHttpCurlCltEasyInit(void)
{
    /* Another Init may replace the lock at any time: the one taken is the one given back. */
    HOspSem hLocker = HCCSemEnsure(&g_sEasyInitLocker);
    OspSemTake(hLocker);
    CURL *ptEasy = curl_easy_init();
    OspSemGive(hLocker);
    return ptEasy;
}

ENvrHttpCurlCltRet NvrHttpCurlCltReqCreat(HNvrHttpCurlCltInst hInstance, HNvrHttpCurlCltReq *phReq)
{
    if (!IsInstanceSlot(hInstance)) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid instance %p\n", HCCLogPtr(hInstance));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    /* A slot that is not in use has no callbacks, so its flag need not be checked. */
    const TNvrHttpCurlCltMemCB *ptMemCB = &hInstance->tMemCB;
    if (ptMemCB->pfMalloc == nullptr || ptMemCB->pfRealloc == nullptr || ptMemCB->pfFree == nullptr ||
        phReq == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] pfRealloc %p, pfRealloc %p, pfFree %p, phReq %p\n",
                HCCLogPtr(ptMemCB->pfMalloc), HCCLogPtr(ptMemCB->pfRealloc), HCCLogPtr(ptMemCB->pfFree),
                HCCLogPtr(phReq));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }

    TNvrHttpCurlCltReqInner *ptReqIn =
        static_cast<TNvrHttpCurlCltReqInner *>(ptMemCB->pfMalloc(sizeof(TNvrHttpCurlCltReqInner)));
    if (ptReqIn == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] malloc failed\n");
        return NVRHTTPCURLCLT_NO_MEMORY;
    }
    NVRHCCMemzero(ptReqIn, sizeof(*ptReqIn));
    ptReqIn->ptInstance = hInstance;
    ptReqIn->ptReq = _NvrHttpCurlCltEasyInit();
    if (ptReqIn->ptReq == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] curl_easy_init failed.\n");
        _FreeTNvrHttpCurlCltReqInner(ptReqIn);
        return NVRHTTPCURLCLT_FAILED;
    }

    ptReqIn->pfMalloc = ptMemCB->pfMalloc;
    ptReqIn->pfRealloc = ptMemCB->pfRealloc;
    ptReqIn->pfFree = ptMemCB->pfFree;
    ptReqIn->dwTaskIndex = 0;
    *phReq = ptReqIn;
    HCC_LOG(HCC_LEVEL_INFO, " create req %p, {easyhand:%p}\n", HCCLogPtr(ptReqIn), HCCLogPtr(ptReqIn->ptReq));
    return NVRHTTPCURLCLT_OK;
}

ENvrHttpCurlCltRet NvrHttpCurlCltSetReqUri(HNvrHttpCurlCltReq hReq, const char *szUri)
{
    if (EasyOf(hReq) == nullptr || szUri == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p, szUri %p\n", HCCLogPtr(hReq),
                HCCLogPtr(EasyOf(hReq)), HCCLogPtr(szUri));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    HCC_LOG(HCC_LEVEL_INFO, " szUri:{%s}\n", szUri);

    CURLcode eDecisive = SET_OPTION(hReq->ptReq, CURLOPT_URL, szUri);
    if (AppStrstr(szUri, "https") != nullptr) {
        SET_OPTION(hReq->ptReq, CURLOPT_SSL_VERIFYPEER, 0L);
        SET_OPTION(hReq->ptReq, CURLOPT_SSL_VERIFYHOST, 0L);
        /* From here on only this option's result counts, and no longer the URL's. */
        eDecisive = SET_OPTION(hReq->ptReq, CURLOPT_CAINFO, static_cast<const char *>(nullptr));
        HCC_LOG(HCC_LEVEL_INFO, " setopt CURLOPT_SSL_VERIFYPEER | CURLOPT_SSL_VERIFYHOST\n");
    }
    if (eDecisive != CURLE_OK) {
        HCC_LOG(HCC_LEVEL_INFO, " set req uri failed.\n");
        return NVRHTTPCURLCLT_FAILED;
    }
    return NVRHTTPCURLCLT_OK;
}

/* The option for a method, or CURLOPT_LASTENTRY. */
static CURLoption MethodOption(const char *szMethod)
{
    if (strcasecmp(szMethod, "POST") == 0) {
        return CURLOPT_POST;
    }
    if (strcasecmp(szMethod, "GET") == 0) {
        return CURLOPT_HTTPGET;
    }
    if (strcasecmp(szMethod, "PUT") == 0) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        /* Its successor, CURLOPT_UPLOAD, combines differently with a body set later. */
        return CURLOPT_PUT;
#pragma GCC diagnostic pop
    }
    return CURLOPT_LASTENTRY;
}

ENvrHttpCurlCltRet NvrHttpCurlCltSetReqMethod(HNvrHttpCurlCltReq hReq, const char *szMethod)
{
    if (EasyOf(hReq) == nullptr || szMethod == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p, szMethod %p\n", HCCLogPtr(hReq),
                HCCLogPtr(EasyOf(hReq)), HCCLogPtr(szMethod));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }

    const CURLoption eOption = MethodOption(szMethod);
    if (eOption == CURLOPT_LASTENTRY) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] unknown method {%s}\n", szMethod);
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    if (SET_OPTION(hReq->ptReq, eOption, 1L) != CURLE_OK) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] Set Req Method{%s} failed\n", szMethod);
        return NVRHTTPCURLCLT_FAILED;
    }
    return NVRHTTPCURLCLT_OK;
}

ENvrHttpCurlCltRet NvrHttpCurlCltSetAuthType(HNvrHttpCurlCltReq hReq, uint32_t bCurlAuth, const char *pchUserAndPassWd)
{
    if (EasyOf(hReq) == nullptr || pchUserAndPassWd == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p, pchUserAndPassWd %p\n", HCCLogPtr(hReq),
                HCCLogPtr(EasyOf(hReq)), HCCLogPtr(pchUserAndPassWd));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    if (bCurlAuth == 0) {
        return NVRHTTPCURLCLT_OK;
    }

    SET_OPTION(hReq->ptReq, CURLOPT_USERPWD, pchUserAndPassWd);
    if (SET_OPTION(hReq->ptReq, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_ANY)) != CURLE_OK) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] Set Req AuthType bCurlAuth{%d} pchUserAndPassWd{%s} failed\n", bCurlAuth,
                pchUserAndPassWd);
        return NVRHTTPCURLCLT_FAILED;
    }
    return NVRHTTPCURLCLT_OK;
}

/*
 * Appends a line. The result is stored unchecked: without memory for the line the request
 * loses the lines so far. They are not released, since libcurl may already use them.
 */
static void AppendHeaderLine(TNvrHttpCurlCltReqInner *ptReqIn, const char *szLine)
{
    ptReqIn->ptHeaderList = curl_slist_append(ptReqIn->ptHeaderList, szLine);
}

ENvrHttpCurlCltRet NvrHttpCurlCltSetReqHeader(HNvrHttpCurlCltReq hReq, const char *szName, const char *szValue)
{
    if (EasyOf(hReq) == nullptr || szName == nullptr || szValue == nullptr || szName[0] == '\0' || szValue[0] == '\0') {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p, szName %p{%s}, szValue %p{%s}\n",
                HCCLogPtr(hReq), HCCLogPtr(EasyOf(hReq)), HCCLogPtr(szName), szName != nullptr ? szName : "",
                HCCLogPtr(szValue), szValue != nullptr ? szValue : "");
        return NVRHTTPCURLCLT_INVALID_ARG;
    }

    char szLine[HEADER_LINE_BYTES] = "";
    snprintf(szLine, sizeof(szLine), "%s:%s", szName, szValue);
    HCC_LOG(HCC_LEVEL_INFO, " %s\n", szLine);
    AppendHeaderLine(hReq, szLine);
    /* Keeps libcurl from sending "Expect: 100-continue". Once is enough, but every call adds it. */
    AppendHeaderLine(hReq, "Expect:");
    return NVRHTTPCURLCLT_OK;
}

/* Releases a buffer record and its data; null does nothing. */
static void FreeMem(TNvrHttpCurlCltMem *ptMem, void (*pfFree)(void *))
{
    if (ptMem == nullptr) {
        return;
    }
    if (ptMem->pchData != nullptr) {
        pfFree(ptMem->pchData);
    }
    pfFree(ptMem);
}

static TNvrHttpCurlCltMem *NewMem(void *(*pfMalloc)(size_t))
{
    TNvrHttpCurlCltMem *ptMem = static_cast<TNvrHttpCurlCltMem *>(pfMalloc(sizeof(TNvrHttpCurlCltMem)));
    if (ptMem != nullptr) {
        NVRHCCMemzero(ptMem, sizeof(*ptMem));
    }
    return ptMem;
}

static bool FillBody(TNvrHttpCurlCltMem *ptBody, const char *szBody, uint32_t dwSize, void *(*pfMalloc)(size_t))
{
    if (szBody == nullptr || dwSize == 0) {
        HCC_LOG_AS(s_szSetReqBody, HCC_LEVEL_INFO, " dwSize %d, szBody %p\n", dwSize, HCCLogPtr(szBody));
        return true;
    }
    ptBody->pchData = static_cast<char *>(pfMalloc(dwSize));
    if (ptBody->pchData == nullptr) {
        return false;
    }
    memcpy(ptBody->pchData, szBody, dwSize);
    ptBody->qwSize = dwSize;
    return true;
}

static bool FillResponse(TNvrHttpCurlCltMem *ptResp, const TNvrHttpCurlCltReqInner *ptReqIn)
{
    ptResp->pchData = static_cast<char *>(ptReqIn->pfMalloc(1));
    if (ptResp->pchData == nullptr) {
        return false;
    }
    ptResp->pchData[0] = '\0';
    ptResp->pfRealloc = ptReqIn->pfRealloc;
    return true;
}

/* Every option is set, whatever the result of the one before: refusals are only logged. */
static void SetBodyOptions(const TNvrHttpCurlCltReqInner *ptReqIn, const TNvrHttpCurlCltMem *ptBody,
                           TNvrHttpCurlCltMem *ptResp)
{
    CURL *ptEasy = ptReqIn->ptReq;
    if (ptReqIn->ptHeaderList != nullptr) {
        SET_OPTION_AS(s_szSetReqBody, ptEasy, CURLOPT_HTTPHEADER, ptReqIn->ptHeaderList);
    } else {
        SET_OPTION_AS(s_szSetReqBody, ptEasy, CURLOPT_HEADER, 1L);
    }
    SET_OPTION_AS(s_szSetReqBody, ptEasy, CURLOPT_POSTFIELDS, ptBody->pchData);
    SET_OPTION_AS(s_szSetReqBody, ptEasy, CURLOPT_POSTFIELDSIZE, static_cast<long>(ptBody->qwSize));
    SET_OPTION_AS(s_szSetReqBody, ptEasy, CURLOPT_WRITEFUNCTION, _HttpCurlStackWriteCB);
    SET_OPTION_AS(s_szSetReqBody, ptEasy, CURLOPT_WRITEDATA, ptResp);
    SET_OPTION_AS(s_szSetReqBody, ptEasy, CURLOPT_VERBOSE, 0L);
    SET_OPTION_AS(s_szSetReqBody, ptEasy, CURLOPT_NOSIGNAL, 1L);
}

ENvrHttpCurlCltRet NvrHttpCurlCltSetReqBody(HNvrHttpCurlCltReq hReq, const char *szBody, uint32_t dwSize)
{
    if (EasyOf(hReq) == nullptr || (szBody == nullptr && dwSize != 0)) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p, dwSize %u, szBody %p\n", HCCLogPtr(hReq),
                HCCLogPtr(EasyOf(hReq)), dwSize, HCCLogPtr(szBody));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    if (hReq->pfMalloc == nullptr || hReq->pfRealloc == nullptr || hReq->pfFree == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] pfRealloc %p, pfRealloc %p, pfFree %p\n", HCCLogPtr(hReq->pfMalloc),
                HCCLogPtr(hReq->pfRealloc), HCCLogPtr(hReq->pfFree));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }

    TNvrHttpCurlCltMem *ptBody = NewMem(hReq->pfMalloc);
    TNvrHttpCurlCltMem *ptResp = ptBody != nullptr ? NewMem(hReq->pfMalloc) : nullptr;
    if (ptResp == nullptr || !FillBody(ptBody, szBody, dwSize, hReq->pfMalloc) || !FillResponse(ptResp, hReq)) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] malloc failed\n");
        FreeMem(ptBody, hReq->pfFree);
        FreeMem(ptResp, hReq->pfFree);
        return NVRHTTPCURLCLT_NO_MEMORY;
    }

    SetBodyOptions(hReq, ptBody, ptResp);
    /* Only now does libcurl no longer point into the records of an earlier call. */
    FreeMem(hReq->ptReqBody, hReq->pfFree);
    FreeMem(hReq->ptRespData, hReq->pfFree);
    hReq->ptReqBody = ptBody;
    hReq->ptRespData = ptResp;
    return NVRHTTPCURLCLT_OK;
}

ENvrHttpCurlCltRet NvrHttpCurlCltReqReset(HNvrHttpCurlCltReq hReq)
{
    if (EasyOf(hReq) == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p\n", HCCLogPtr(hReq),
                HCCLogPtr(EasyOf(hReq)));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    _FreeTNvrHttpCurlCltReqInner(hReq);
    return NVRHTTPCURLCLT_OK;
}

void _FreeTNvrHttpCurlCltReqInner(TNvrHttpCurlCltReqInner *ptReqIn)
{
    if (ptReqIn == nullptr) {
        return;
    }
    curl_easy_cleanup(ptReqIn->ptReq);
    ptReqIn->ptReq = nullptr;
    curl_slist_free_all(ptReqIn->ptHeaderList);
    ptReqIn->ptHeaderList = nullptr;
    FreeMem(ptReqIn->ptReqBody, ptReqIn->pfFree);
    FreeMem(ptReqIn->ptRespData, ptReqIn->pfFree);
    ptReqIn->ptInstance->tMemCB.pfFree(ptReqIn);
}
