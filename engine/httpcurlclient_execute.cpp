/*
 * Execution of requests and their withdrawal.
 *
 * A request is unbound until its first asynchronous submission, which gives it a node and
 * binds it to the task with the fewest queued requests, for the rest of its life. The node is
 * queued or in flight in the task's tRunList, then finished in its tFinList; submitting the
 * request again moves it back. NvrHttpCurlCltReqDestroy takes it out of either list and
 * releases it.
 *
 * A node belongs to the list that it is in, or to the thread that has taken it out. A thread
 * that has queued a node must not touch the node or its request after giving hRunLock back:
 * by then the worker may have completed it, and the callback destroyed it. The task outlives
 * both.
 *
 * For the locks see "Locks" in docs/architecture.md.
 */
#include "engine/httpcurlclient_inner.h"
#include "engine/httpcurlclient_setopt.h"
#include "nvrhttpcurl/hcc_tools.h"
#include "support/hcc_atomic.h"
#include "support/hcc_log.h"

static const char s_szProcAsync[] = "_NvrHttpCurlCltProcAsyncReq";
static const char s_szDestroy[] = "NvrHttpCurlCltReqDestroy";

ENvrHttpCurlCltRet __NvrHttpCurlClt_CurlErrCode2Clt(CURLcode eCurlCode)
{
    switch (eCurlCode) {
    case CURLE_OPERATION_TIMEDOUT:
        return NVRHTTPCURLCLT_TIMED_OUT;
    case CURLE_SSL_CONNECT_ERROR:
        return NVRHTTPCURLCLT_TLS_FAILED;
    case CURLE_COULDNT_CONNECT:
        return NVRHTTPCURLCLT_CONNECT_FAILED;
    default:
        return NVRHTTPCURLCLT_FAILED;
    }
}

/* Logs the time-outs in two forms, since either is searched for, and sets them. */
static void SetTimeouts(const char *szFunc, CURL *ptEasy, uint32_t dwTimeoutMS, uint32_t dwConnTimeOutMS)
{
    HCC_LOG_AS(szFunc, HCC_LEVEL_INFO, " dwTimeoutMS %u, dwConnTimeOutMS %u\n", dwTimeoutMS, dwConnTimeOutMS);
    HCC_LOG_AS(szFunc, HCC_LEVEL_INFO, " dwTimeoutMS: %d, dwConnTimeOutMS: %d\n", dwTimeoutMS, dwConnTimeOutMS);
    SET_OPTION_AS(szFunc, ptEasy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(dwConnTimeOutMS));
    SET_OPTION_AS(szFunc, ptEasy, CURLOPT_TIMEOUT_MS, static_cast<long>(dwTimeoutMS));
}

/* Synchronous: a failed transfer returns success too; callers check the status code. */
static ENvrHttpCurlCltRet _NvrHttpCurlCltProcSyncReq(TNvrHttpCurlCltReqInner *ptReqIn, uint32_t dwTimeoutMS,
                                                     uint32_t dwConnTimeOutMS)
{
    const uint64_t qwStart = NVRHCCGetTickCount();
    HCC_LOG(HCC_LEVEL_INFO, " in _NvrHttpCurlCltProcSyncReq\n");
    if (ptReqIn->ptReq == nullptr || dwTimeoutMS == 0 || dwConnTimeOutMS == 0) {
        HCC_LOG(HCC_LEVEL_ERROR,
                "[Error] invalid arg, ptReqIn %p, ptReqIn->ptReq %p, dwTimeoutMS %u, dwConnTimeOutMS %u\n",
                HCCLogPtr(ptReqIn), HCCLogPtr(ptReqIn->ptReq), dwTimeoutMS, dwConnTimeOutMS);
        return NVRHTTPCURLCLT_INVALID_ARG;
    }

    SetTimeouts(__func__, ptReqIn->ptReq, dwTimeoutMS, dwConnTimeOutMS);
    const CURLcode eCode = curl_easy_perform(ptReqIn->ptReq);
    if (eCode != CURLE_OK) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n", eCode,
                curl_easy_strerror(eCode));
        HCC_LOG_AS("CurlCodeToHttpCurlCode", HCC_LEVEL_INFO, " Transfer CURLcode[%d] to NvrHttpCurlCltRet[%d]\n", 0, 0);
        return NVRHTTPCURLCLT_OK;
    }
    const uint32_t dwTicks =
        NVRHCCTickDiff(static_cast<uint32_t>(qwStart), static_cast<uint32_t>(NVRHCCGetTickCount()));
    const uint32_t dwElapsedMS = NVRHCCTickToMS(dwTicks);
    HCC_LOG(HCC_LEVEL_INFO, " use time %u{ms}\n", dwElapsedMS);
    return NVRHTTPCURLCLT_OK;
}

/* The list node whose element belongs to the request, or null; *pptLast is the last node visited. */
static TNVRHCCListNode *FindNode(const TNVRHCCList *ptList, const TNvrHttpCurlCltReqInner *ptReqIn,
                                 TNVRHCCListNode **pptLast)
{
    *pptLast = nullptr;
    for (TNVRHCCListNode *ptNode = ptList->ptHead; ptNode != nullptr; ptNode = ptNode->ptNext) {
        *pptLast = ptNode;
        if (static_cast<TNvrHttpCurlCltAsyncNode *>(ptNode->pvData)->ptReqIn == ptReqIn) {
            return ptNode;
        }
    }
    return nullptr;
}

/*
 * Puts a node at the head of a task's run list and wakes the task. After success neither the
 * node nor its request may be touched.
 */
static uint32_t Enqueue(TNvrHttpCurlCltTask *ptTask, TNvrHttpCurlCltAsyncNode *ptNode)
{
    OspSemTake(ptTask->hRunLock);
    const uint32_t dwRet = NVRHCCListInsertBefore(&ptTask->tRunList, nullptr, ptNode, nullptr);
    OspSemGive(ptTask->hRunLock);
    if (dwRet == NVRHCC_LIST_OK) {
        _NvrHttpCurlClt_SocketNotify(ptTask->tUdpMonitorSock.nSock, ptTask->tUdpMonitorSock.wPort);
    }
    return dwRet;
}

static ENvrHttpCurlCltRet DropUnqueued(TNvrHttpCurlCltAsyncNode *ptNode, uint32_t dwListRet)
{
    HCC_LOG_AS(s_szProcAsync, HCC_LEVEL_ERROR, "[Error] NVRHCCListInsertBefore() failed %d\n", dwListRet);
    ptNode->ptReqIn->pfFree(ptNode);
    return NVRHTTPCURLCLT_FAILED;
}

/*
 * Takes the request's node out of its task's finish list. Null if it is not there, that is,
 * while the request is still running. Then the element of the last list node visited is
 * deliberately released although the list still contains it: docs/contracts.md forbids callers
 * to submit a running request.
 */
static TNvrHttpCurlCltAsyncNode *TakeFinished(TNvrHttpCurlCltTask *ptTask, const TNvrHttpCurlCltReqInner *ptReqIn)
{
    TNVRHCCListNode *ptLast = nullptr;
    void *pvNode = nullptr;
    OspSemTake(ptTask->hFinLock);
    TNVRHCCListNode *ptFound = FindNode(&ptTask->tFinList, ptReqIn, &ptLast);
    if (ptFound != nullptr) {
        NVRHCCListRemove(&ptTask->tFinList, ptFound, &pvNode);
        OspSemGive(ptTask->hFinLock);
        return static_cast<TNvrHttpCurlCltAsyncNode *>(pvNode);
    }

    HCC_LOG_AS(s_szProcAsync, HCC_LEVEL_TRACE, " cannot find node for ptReqIn %p, taskindex %u\n", HCCLogPtr(ptReqIn),
               ptReqIn->dwTaskIndex);
    HCC_LOG_AS(s_szProcAsync, HCC_LEVEL_ERROR, "[Error] cannot find node for ptReqIn %p, taskindex %u\n",
               HCCLogPtr(ptReqIn), ptReqIn->dwTaskIndex);
    pvNode = ptLast != nullptr ? ptLast->pvData : nullptr;
    OspSemGive(ptTask->hFinLock);
    if (pvNode != nullptr) {
        ptReqIn->pfFree(pvNode);
    }
    return nullptr;
}

static ENvrHttpCurlCltRet SubmitAgain(TNvrHttpCurlCltReqInner *ptReqIn, PFNvrHttpCurlCltNtf pfNtf, void *pvUserBuf)
{
    TNvrHttpCurlCltTask *ptTask = &ptReqIn->ptInstance->atTasks[ptReqIn->dwTaskIndex - 1];
    TNvrHttpCurlCltAsyncNode *ptNode = TakeFinished(ptTask, ptReqIn);
    if (ptNode == nullptr) {
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    *ptNode = TNvrHttpCurlCltAsyncNode{ptReqIn, pfNtf, pvUserBuf, 0};
    const uint32_t dwRet = Enqueue(ptTask, ptNode);
    return dwRet == NVRHCC_LIST_OK ? static_cast<ENvrHttpCurlCltRet>(NVRHTTPCURLCLT_OK) : DropUnqueued(ptNode, dwRet);
}

/* The index of the task with the fewest queued requests, the first of equals. A stale count only costs balance. */
static uint32_t LeastLoadedTask(const TNvrHttpCurlCltInst *ptInst)
{
    uint32_t dwBest = 0;
    uint32_t dwFewest = 0xFFFFFFFFU;
    for (uint32_t dwII = 0; dwII < ptInst->dwTaskNum; ++dwII) {
        const uint32_t dwCount = HCCLoadRelaxed(&ptInst->atTasks[dwII].tRunList.dwNumOfElem);
        if (dwCount < dwFewest) {
            dwFewest = dwCount;
            dwBest = dwII;
        }
    }
    return dwBest;
}

static void CountUp(TNvrHttpCurlCltInst *ptInst)
{
    OspSemTake(ptInst->hAsyncReqNumLock);
    HCCStoreRelaxed(&ptInst->dwAsyncReqNum, ptInst->dwAsyncReqNum + 1);
    OspSemGive(ptInst->hAsyncReqNumLock);
}

static void CountDown(const char *szFunc, TNvrHttpCurlCltInst *ptInst)
{
    OspSemTake(ptInst->hAsyncReqNumLock);
    if (ptInst->dwAsyncReqNum > 0) {
        HCCStoreRelaxed(&ptInst->dwAsyncReqNum, ptInst->dwAsyncReqNum - 1);
    } else {
        HCC_LOG_AS(szFunc, HCC_LEVEL_ERROR, "[Error] invalid dwAsyncReqNum %u\n", ptInst->dwAsyncReqNum);
    }
    OspSemGive(ptInst->hAsyncReqNumLock);
}

static ENvrHttpCurlCltRet SubmitFirst(TNvrHttpCurlCltReqInner *ptReqIn, PFNvrHttpCurlCltNtf pfNtf, void *pvUserBuf)
{
    TNvrHttpCurlCltAsyncNode *ptNode =
        static_cast<TNvrHttpCurlCltAsyncNode *>(ptReqIn->pfMalloc(sizeof(TNvrHttpCurlCltAsyncNode)));
    if (ptNode == nullptr) {
        HCC_LOG_AS(s_szProcAsync, HCC_LEVEL_ERROR, "[Error] malloc failed\n");
        return NVRHTTPCURLCLT_NO_MEMORY;
    }
    *ptNode = TNvrHttpCurlCltAsyncNode{ptReqIn, pfNtf, pvUserBuf, 0};

    TNvrHttpCurlCltInst *ptInst = ptReqIn->ptInstance;
    const uint32_t dwIndex = LeastLoadedTask(ptInst);
    TNvrHttpCurlCltTask *ptTask = &ptInst->atTasks[dwIndex];
    HCC_LOG_AS(s_szProcAsync, HCC_LEVEL_INFO, " JoinIn Task{%p, %s}\n",
               reinterpret_cast<const void *>(ptTask->qwTaskID), ptTask->szThreadName);
    ptReqIn->dwTaskIndex = dwIndex + 1;
    CountUp(ptInst);
    const uint32_t dwRet = Enqueue(ptTask, ptNode);
    if (dwRet != NVRHCC_LIST_OK) {
        CountDown(s_szProcAsync, ptInst);
        return DropUnqueued(ptNode, dwRet);
    }
    return NVRHTTPCURLCLT_OK;
}

static ENvrHttpCurlCltRet _NvrHttpCurlCltProcAsyncReq(TNvrHttpCurlCltReqInner *ptReqIn, uint32_t dwTimeoutMS,
                                                      uint32_t dwConnTimeOutMS, PFNvrHttpCurlCltNtf pfNtf,
                                                      void *pvUserBuf)
{
    TNvrHttpCurlCltInst *ptInst = ptReqIn->ptInstance;
    if (ptInst == nullptr || dwTimeoutMS == 0 || dwConnTimeOutMS == 0 || ptInst->dwTaskNum == 0) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, dwTimeoutMS %u, dwConnTimeOutMS %u, pfNtf %p\n",
                HCCLogPtr(ptReqIn), dwTimeoutMS, dwConnTimeOutMS, HCCLogPtr(pfNtf));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }

    OspSemTake(ptInst->hAsyncReqNumLock);
    const uint32_t dwNum = ptInst->dwAsyncReqNum;
    const uint32_t dwMaxNum = ptInst->dwAsyncReqMaxNum;
    OspSemGive(ptInst->hAsyncReqNumLock);
    if (dwNum >= dwMaxNum) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] dwAsyncReqNum(%u) >= dwAsyncReqMaxNum(%u)\n", dwNum, dwMaxNum);
        return NVRHTTPCURLCLT_LIMIT_REACHED;
    }

    SetTimeouts(__func__, ptReqIn->ptReq, dwTimeoutMS, dwConnTimeOutMS);
    return ptReqIn->dwTaskIndex != 0 ? SubmitAgain(ptReqIn, pfNtf, pvUserBuf) : SubmitFirst(ptReqIn, pfNtf, pvUserBuf);
}

ENvrHttpCurlCltRet NvrHttpCurlCltProcessReq(HNvrHttpCurlCltReq hReq, uint32_t dwTimeoutMS, uint32_t dwConnTimeOutMS,
                                            ENvrHttpCurlCltMode eMode, PFNvrHttpCurlCltNtf pfNtf, void *pvUserBuf)
{
    if (hReq == nullptr || hReq->ptReq == nullptr || (eMode == NVRHTTPCURLCLT_MODE_ASYNC && pfNtf == nullptr)) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptReqIn %p, ptReq %p, eMode %d, pfNtf %p\n", HCCLogPtr(hReq),
                HCCLogPtr(hReq != nullptr ? hReq->ptReq : nullptr), eMode, HCCLogPtr(pfNtf));
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    HCC_LOG(HCC_LEVEL_INFO, " In NvrHttpCurlCltProcessReq\n");

    switch (eMode) {
    case NVRHTTPCURLCLT_MODE_SYNC:
        return _NvrHttpCurlCltProcSyncReq(hReq, dwTimeoutMS, dwConnTimeOutMS);
    case NVRHTTPCURLCLT_MODE_ASYNC:
        return _NvrHttpCurlCltProcAsyncReq(hReq, dwTimeoutMS, dwConnTimeOutMS, pfNtf, pvUserBuf);
    default:
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] unknown mode %d\n", eMode);
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
}

/* Takes the request's node out of one of its task's lists and lowers the count; null if it is not there. */
static void *Withdraw(const TNvrHttpCurlCltReqInner *ptReqIn, HOspSem hLock, TNVRHCCList *ptList)
{
    void *pvNode = nullptr;
    TNVRHCCListNode *ptLast = nullptr;
    OspSemTake(hLock);
    TNVRHCCListNode *ptFound = FindNode(ptList, ptReqIn, &ptLast);
    if (ptFound != nullptr) {
        NVRHCCListRemove(ptList, ptFound, &pvNode);
        CountDown(s_szDestroy, ptReqIn->ptInstance);
    } else {
        HCC_LOG_AS(s_szDestroy, HCC_LEVEL_ERROR, "[Error] cannot find node for ptReqIn %p, taskindex %u\n",
                   HCCLogPtr(ptReqIn), ptReqIn->dwTaskIndex);
    }
    OspSemGive(hLock);
    return pvNode;
}

#define TRACE_LISTS(szNumber, ptTask)                                                                                  \
    HCC_LOG_AS(s_szDestroy, HCC_LEVEL_INFO, " " szNumber " tFinList.dwNumOfElem %u, tRunList.dwNumOfElem %u\n",        \
               HCCLoadRelaxed(&(ptTask)->tFinList.dwNumOfElem), HCCLoadRelaxed(&(ptTask)->tRunList.dwNumOfElem))

static void WithdrawAndFreeNode(TNvrHttpCurlCltReqInner *ptReqIn, TNvrHttpCurlCltTask *ptTask)
{
    TRACE_LISTS("1", ptTask);
    void *pvNode = Withdraw(ptReqIn, ptTask->hFinLock, &ptTask->tFinList);
    TRACE_LISTS("2", ptTask);
    if (pvNode == nullptr) {
        TRACE_LISTS("3", ptTask);
        pvNode = Withdraw(ptReqIn, ptTask->hRunLock, &ptTask->tRunList);
        TRACE_LISTS("4", ptTask);
    }
    TRACE_LISTS("5", ptTask);
    if (pvNode != nullptr) {
        ptReqIn->pfFree(pvNode);
    }
}

void NvrHttpCurlCltReqDestroy(HNvrHttpCurlCltReq hReq)
{
    if (hReq == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, hReq %p\n", HCCLogPtr(hReq));
        return;
    }
    HCC_LOG(HCC_LEVEL_INFO, " begin destroy req %p\n", HCCLogPtr(hReq));
    if (hReq->dwTaskIndex >= 1 && hReq->dwTaskIndex <= hReq->ptInstance->dwTaskNum) {
        WithdrawAndFreeNode(hReq, &hReq->ptInstance->atTasks[hReq->dwTaskIndex - 1]);
    }
    if (hReq->ptReq != nullptr) {
        _FreeTNvrHttpCurlCltReqInner(hReq);
    }
}
