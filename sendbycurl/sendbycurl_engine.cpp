/*
 * JSON sends over the engine, synchronous and asynchronous.
 *
 * Both prepare a request in the same way, except for the authentication, which only the
 * synchronous send sets. An asynchronous send takes a slot of the callback table before it
 * submits, so that a completion that comes at once finds it; the completion callback releases
 * request and slot. If the engine refuses the submission, the request is destroyed and its
 * slot stays taken.
 */
#include <stdlib.h>
#include <string.h>

#include "sendbycurl/sendbycurl_inner.h"
#include "support/hcc_atomic.h"
#include "support/hcc_log.h"

enum { HTTP_OK = 200, METHOD_BYTES = 32 };

ESendByCurlRet HttpCurlCodeToSendByCurlCode(ENvrHttpCurlCltRet eCltRet)
{
    static const ESendByCurlRet aeTable[] = {
        SENDBYCURL_OK,               /* 0 */
        SENDBYCURL_INVALID_PARAM,    /* 1 general failure */
        SENDBYCURL_NO_HANDLE,        /* 2 */
        SENDBYCURL_NO_HANDLE,        /* 3 */
        SENDBYCURL_INVALID_PARAM,    /* 4 invalid argument */
        SENDBYCURL_NO_MEMORY,        /* 5 */
        SENDBYCURL_INVALID_PARAM,    /* 6 */
        SENDBYCURL_BUFFER_TOO_SMALL, /* 7 */
        SENDBYCURL_LIMIT_REACHED,    /* 8 */
        SENDBYCURL_ENGINE_9,         /* 9 */
        SENDBYCURL_TIMED_OUT,        /* 10 */
        SENDBYCURL_CONNECT_FAILED,   /* 11 */
        SENDBYCURL_TLS_FAILED,       /* 12 */
    };
    const ESendByCurlRet eRet = eCltRet < sizeof(aeTable) / sizeof(aeTable[0])
                                    ? aeTable[eCltRet]
                                    : static_cast<ESendByCurlRet>(SENDBYCURL_TRANSFER_FAILED);
    HCC_LOG(HCC_LEVEL_INFO, " Transfer NvrHttpCurlCltRet[%d] to ESendByCurlRet[%d]\n", eCltRet, eRet);
    return eRet;
}

uint32_t SendByCurlMethodTransToStr(uint32_t eHeadType, char *dst, uint32_t size)
{
    if (dst == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] One Param is NULL!\n", __func__, __LINE__);
        return SENDBYCURL_INVALID_PARAM;
    }
    const char *szMethod = "POST";
    if (eHeadType == SENDBYCURL_METHOD_PUT) {
        szMethod = "PUT";
    } else if (eHeadType == SENDBYCURL_METHOD_GET) {
        szMethod = "GET";
    }
    if (size > 0) {
        const size_t nLen = strlen(szMethod) < size ? strlen(szMethod) : size - 1;
        memcpy(dst, szMethod, nLen);
        dst[nLen] = '\0';
    }
    return SENDBYCURL_OK;
}

/* Checks what every send over the engine needs, and logs a missing pointer. */
static bool IsSendable(const char *szFunc, const TSendByCurlParam *ptParam)
{
    if (ptParam == nullptr || ptParam->pchURL == nullptr) {
        HCC_LOG_AS(szFunc, HCC_LEVEL_ERROR, "[Error] %s[%d] One Param is NULL!\n", szFunc, __LINE__);
        return false;
    }
    if (ptParam->pchSendBuf == nullptr || ptParam->pchRecvBuf == nullptr) {
        HCC_LOG_AS(szFunc, HCC_LEVEL_ERROR, "[Error] %s[%d] Two Param is NULL!\n", szFunc, __LINE__);
        return false;
    }
    return true;
}

/* The module's result for an engine step of a send; a failure is logged with the step's line. */
static ESendByCurlRet StepResult(const char *szFunc, int nLine, ENvrHttpCurlCltRet eCltRet)
{
    if (eCltRet == NVRHTTPCURLCLT_OK) {
        return SENDBYCURL_OK;
    }
    HCC_LOG_AT(HCC_LEVEL_INFO, szFunc, nLine, " %s[%d] is Failed!\n", szFunc, nLine);
    return HttpCurlCodeToSendByCurlCode(eCltRet);
}

/* Runs an engine step for the operation szFunc and returns from the caller if it failed. */
#define RETURN_IF_FAILED(szFunc, eStep)                                                                                \
    do {                                                                                                               \
        const ESendByCurlRet eStepRet = StepResult(szFunc, __LINE__, eStep);                                           \
        if (eStepRet != SENDBYCURL_OK) {                                                                               \
            return eStepRet;                                                                                           \
        }                                                                                                              \
    } while (0)

static ENvrHttpCurlCltRet SetMethod(HNvrHttpCurlCltReq hReq, uint32_t eHeadType)
{
    char szMethod[METHOD_BYTES] = "";
    SendByCurlMethodTransToStr(eHeadType, szMethod, sizeof(szMethod));
    return NvrHttpCurlCltSetReqMethod(hReq, szMethod);
}

static ENvrHttpCurlCltRet SetAuth(HNvrHttpCurlCltReq hReq, const TSendByCurlParam *ptParam)
{
    /* The record's array may be filled to its last byte; libcurl needs a terminator. */
    char szUserAndPassWd[sizeof(ptParam->achUserAndPassWd) + 1];
    memcpy(szUserAndPassWd, ptParam->achUserAndPassWd, sizeof(ptParam->achUserAndPassWd));
    szUserAndPassWd[sizeof(ptParam->achUserAndPassWd)] = '\0';
    return NvrHttpCurlCltSetAuthType(hReq, ptParam->bCurlAuth, szUserAndPassWd);
}

static ESendByCurlRet Prepare(const char *szFunc, HNvrHttpCurlCltReq hReq, const TSendByCurlParam *ptParam,
                              bool bWithAuth)
{
    RETURN_IF_FAILED(szFunc, NvrHttpCurlCltSetReqUri(hReq, ptParam->pchURL));
    RETURN_IF_FAILED(szFunc, NvrHttpCurlCltSetReqHeader(hReq, "Content-Type", "application/json;charset=UTF-8"));
    RETURN_IF_FAILED(szFunc, SetMethod(hReq, ptParam->eHeadType));
    if (bWithAuth) {
        RETURN_IF_FAILED(szFunc, SetAuth(hReq, ptParam));
    }
    RETURN_IF_FAILED(szFunc, NvrHttpCurlCltSetReqBody(hReq, ptParam->pchSendBuf, ptParam->dwSendLen));
    return SENDBYCURL_OK;
}

/* All of a synchronous send between the request's creation and its destruction. */
static ESendByCurlRet RunSync(const char *szFunc, HNvrHttpCurlCltReq hReq, TSendByCurlParam *ptParam)
{
    const ESendByCurlRet eRet = Prepare(szFunc, hReq, ptParam, true);
    if (eRet != SENDBYCURL_OK) {
        return eRet;
    }
    RETURN_IF_FAILED(szFunc, NvrHttpCurlCltProcessReq(hReq, ptParam->dwTimeoutMS, ptParam->dwConnTimeOutMS,
                                                      NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr));
    int32_t nHttpStatusCode = 0;
    RETURN_IF_FAILED(szFunc, NvrHttpCurlCltGetRespStatCode(hReq, &nHttpStatusCode));
    if (nHttpStatusCode != HTTP_OK) {
        HCC_LOG_AS(szFunc, HCC_LEVEL_INFO, " nHttpStatusCode:%d\n", nHttpStatusCode);
        return SENDBYCURL_HTTP_STATUS;
    }
    RETURN_IF_FAILED(szFunc, NvrHttpCurlCltGetRespBody(hReq, ptParam->pchRecvBuf, &ptParam->dwRecvLen));
    return SENDBYCURL_OK;
}

ESendByCurlRet Qelvo_SyncSendStrByHttpCurl(TSendByCurlParam *ptParam)
{
    HCC_LOG(HCC_LEVEL_INFO, " In Qelvo_SyncSendStr ByHttpCurl\n");
    if (!IsSendable(__func__, ptParam)) {
        return SENDBYCURL_INVALID_PARAM;
    }

    HNvrHttpCurlCltReq hReq = nullptr;
    const ENvrHttpCurlCltRet eCltRet = NvrHttpCurlCltReqCreat(HCCLoadAcquire(&g_hInitHandle), &hReq);
    if (eCltRet != NVRHTTPCURLCLT_OK) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] is Failed!\n", __func__, __LINE__);
        return HttpCurlCodeToSendByCurlCode(eCltRet);
    }
    const ESendByCurlRet eRet = RunSync(__func__, hReq, ptParam);
    NvrHttpCurlCltReqDestroy(hReq);
    return eRet;
}

bool SendByCurlRegistCallback(HNvrHttpCurlCltReq hReq, PFSendByCurlNtf pfNtf)
{
    if (hReq == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] One Param is NULL!\n", __func__, __LINE__);
        return false;
    }
    bool bFound = false;
    OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    for (TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        if (tSlot.bUseFlag == 0) {
            tSlot = TSendByCurlASyncCB{1, hReq, pfNtf};
            bFound = true;
            break;
        }
    }
    OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    return bFound;
}

/* All of an asynchronous send between the request's creation and its acceptance. */
static ESendByCurlRet Submit(const char *szFunc, HNvrHttpCurlCltReq hReq, const TSendByCurlParam *ptParam)
{
    const ESendByCurlRet eRet = Prepare(szFunc, hReq, ptParam, false);
    if (eRet != SENDBYCURL_OK) {
        return eRet;
    }
    if (!SendByCurlRegistCallback(hReq, ptParam->pfNtf)) {
        HCC_LOG_AS(szFunc, HCC_LEVEL_INFO, " %s[%d] is Failed!\n", szFunc, __LINE__);
        return SENDBYCURL_NO_SLOT;
    }
    RETURN_IF_FAILED(szFunc, NvrHttpCurlCltProcessReq(hReq, ptParam->dwTimeoutMS, ptParam->dwConnTimeOutMS,
                                                      NVRHTTPCURLCLT_MODE_ASYNC, SendByCurlReqHttpCurlProgressNtf,
                                                      ptParam->pchRecvBuf));
    return SENDBYCURL_OK;
}

ESendByCurlRet Qelvo_ASyncSendStrByHttpCurl(TSendByCurlParam *ptParam)
{
    if (!IsSendable(__func__, ptParam)) {
        return SENDBYCURL_INVALID_PARAM;
    }

    HNvrHttpCurlCltReq hReq = nullptr;
    if (NvrHttpCurlCltReqCreat(HCCLoadAcquire(&g_hInitHandle), &hReq) != NVRHTTPCURLCLT_OK) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] is Failed!\n", __func__, __LINE__);
        return SENDBYCURL_INVALID_PARAM; /* not the converted code, unlike the synchronous send */
    }
    const ESendByCurlRet eRet = Submit(__func__, hReq, ptParam);
    if (eRet != SENDBYCURL_OK) {
        NvrHttpCurlCltReqDestroy(hReq);
    }
    /* An accepted request belongs to the completion callback and may be gone already. */
    return eRet;
}

ESendByCurlRet Qelvo_SendStrByHttp(TSendByCurlParam *ptParam, uint32_t eSyncMode)
{
    SendByCurlEnsureInitSem();
    if (ptParam == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] One Param is NULL!\n", __func__, __LINE__);
        return SENDBYCURL_INVALID_PARAM;
    }
    HCC_LOG(HCC_LEVEL_INFO, " eSyncMode:%d [0:Sync 1:ASync]\n", eSyncMode);
    ptParam->dwRecvLen = ptParam->dwMaxRecvLen;

    ESendByCurlRet eSendCurlRet = SENDBYCURL_INVALID_PARAM;
    switch (eSyncMode) {
    case SENDBYCURL_MODE_SYNC:
        eSendCurlRet = Qelvo_SyncSendStrByHttpCurl(ptParam);
        if (eSendCurlRet == SENDBYCURL_OK) {
            HCC_LOG(HCC_LEVEL_INFO, " Qelvo_SyncSendStrByHttpCurl Success!\n");
        } else {
            HCC_LOG(HCC_LEVEL_ERROR, "[Error] Qelvo_SyncSendStrByHttpCurl Failed! eSendCurlRet:%d\n", eSendCurlRet);
        }
        break;
    case SENDBYCURL_MODE_ASYNC:
        eSendCurlRet = Qelvo_ASyncSendStrByHttpCurl(ptParam);
        if (eSendCurlRet == SENDBYCURL_OK) {
            HCC_LOG(HCC_LEVEL_INFO, " Qelvo_ASyncSendStrByHttpCurl Success!\n");
        } else {
            HCC_LOG(HCC_LEVEL_ERROR, "[Error] Qelvo_ASyncSendStrByHttpCurl Failed! eSendCurlRet:%d\n", eSendCurlRet);
        }
        break;
    default:
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] InValided Param! eSyncMode:%d\n", eSyncMode);
        break;
    }
    return eSendCurlRet;
}

/*
 * The first slot with the request, or null. The flag is not checked: the slot of a refused
 * submission matches too, if its request's address is used again.
 */
static TSendByCurlASyncCB *FindSlot(HNvrHttpCurlCltReq hReq, PFSendByCurlNtf *ppfNtf)
{
    TSendByCurlASyncCB *ptFound = nullptr;
    OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    for (TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        if (tSlot.ptReq == hReq) {
            ptFound = &tSlot;
            *ppfNtf = tSlot.pfNtf;
            break;
        }
    }
    OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    return ptFound;
}

static void ReleaseSlot(TSendByCurlASyncCB *ptSlot)
{
    OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    if (ptSlot->ptReq != nullptr) {
        NvrHttpCurlCltReqDestroy(ptSlot->ptReq);
    }
    *ptSlot = TSendByCurlASyncCB{};
    OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
}

uint32_t SendByCurlReqHttpCurlProgressNtf(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg,
                                          ENvrHttpCurlCltRet eHttpCurlErrCode, void *pvContext)
{
    PFSendByCurlNtf pfNtf = nullptr;
    TSendByCurlASyncCB *ptSlot = hReq != nullptr ? FindSlot(hReq, &pfNtf) : nullptr;
    if (ptSlot == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] %s[%d] One Param is NULL!\n", __func__, __LINE__);
        return 0;
    }

    ESendByCurlRet eRet = SENDBYCURL_OK;
    if (eHttpCurlErrCode != NVRHTTPCURLCLT_OK || pvContext == nullptr || eProg == NVRHTTPCURLCLT_PROGRESS_ERROR) {
        HCC_LOG(HCC_LEVEL_INFO,
                " SendByCurlReqHttpCurlProgressNtf which is Failed! eProg:%d[0:Error 1:Finish] eHttpCurlErrCode:%d\n",
                eProg, eHttpCurlErrCode);
        eRet = HttpCurlCodeToSendByCurlCode(eHttpCurlErrCode);
    }
    if (pfNtf != nullptr) {
        pfNtf(eRet, pvContext);
    }
    ReleaseSlot(ptSlot);
    return 0;
}

uint32_t SendByCurlReqProgressNtf(ESendByCurlRet eErrCode, void *pvContext)
{
    HCC_LOG(HCC_LEVEL_INFO, " eErrCode:%d\n", eErrCode);
    if (pvContext != nullptr) {
        HCC_LOG(HCC_LEVEL_INFO, " pvContext:%s\n", static_cast<const char *>(pvContext));
        free(pvContext);
    }
    HCC_LOG(HCC_LEVEL_INFO, " End-------------------------------\n");
    return 0;
}
