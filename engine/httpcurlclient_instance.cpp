/*
 * Instances and their worker tasks: Init, Uninit and the two console commands.
 *
 * A slot's records are zero before Init touches them, so that one clean-up works for a slot
 * that is half built and for one that is usable. A step of a task's set-up that fails just
 * returns; Init cleans up.
 */
#include <stdio.h>
#include <unistd.h>

#include "engine/httpcurlclient_inner.h"
#include "nvrhttpcurl/hcc_tools.h"
#include "support/hcc_atomic.h"
#include "support/hcc_log.h"

TNvrHttpCurlCltInst g_tNvrHttpCurlCltCont[NVRHTTPCURLCLT_MAX_INSTANCES];
HOspSem g_sEasyInitLocker;

enum { TASK_PRIORITY = 99, TASK_STACK_BYTES = 2 * 1024 * 1024, TASK_NAME_BYTES = 31 };

/* The helpers below run for Init: their lines have its name. */
static const char s_szInit[] = "NvrHttpCurlCltInit";

static bool IsInitArgValid(const TNvrHttpCurlCltInitParam *ptInitParam, const TNvrHttpCurlCltMemCB *ptMemCB,
                           const HNvrHttpCurlCltInst *phResult)
{
    return ptInitParam != nullptr && ptInitParam->dwThreadNum <= NVRHTTPCURLCLT_MAX_TASKS &&
           ptInitParam->dwMaxAsycReqNum <= NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS && ptMemCB != nullptr &&
           ptMemCB->pfMalloc != nullptr && ptMemCB->pfRealloc != nullptr && ptMemCB->pfFree != nullptr &&
           phResult != nullptr;
}

/* The only message without a function name; it goes to the console whatever the log switch is. */
static void PrintInvalidInitArg(const TNvrHttpCurlCltInitParam *ptInitParam, const TNvrHttpCurlCltMemCB *ptMemCB,
                                const HNvrHttpCurlCltInst *phResult)
{
    const TNvrHttpCurlCltInitParam tInitParam = ptInitParam != nullptr ? *ptInitParam : TNvrHttpCurlCltInitParam{};
    const TNvrHttpCurlCltMemCB tMemCB = ptMemCB != nullptr ? *ptMemCB : TNvrHttpCurlCltMemCB{};
    printf("invalid arg, ptInitParam %p, dwThreadNum %u, dwMaxAsycReqNum %u, ptMemCB %p, pfMalloc %p, pfRealloc %p, "
           "pfFree %p, phResult %p\n",
           HCCLogPtr(ptInitParam), tInitParam.dwThreadNum, tInitParam.dwMaxAsycReqNum, HCCLogPtr(ptMemCB),
           HCCLogPtr(tMemCB.pfMalloc), HCCLogPtr(tMemCB.pfRealloc), HCCLogPtr(tMemCB.pfFree), HCCLogPtr(phResult));
}

static TNvrHttpCurlCltInst *FindFreeSlot()
{
    for (TNvrHttpCurlCltInst &tInst : g_tNvrHttpCurlCltCont) {
        if (HCCLoadAcquire(&tInst.bInited) == 0) {
            return &tInst;
        }
    }
    return nullptr;
}

static uint32_t SlotIndex(const TNvrHttpCurlCltInst *ptInst)
{
    return static_cast<uint32_t>(ptInst - g_tNvrHttpCurlCltCont);
}

static bool AllocateTasks(TNvrHttpCurlCltInst *ptInst, uint32_t dwThreadNum)
{
    ptInst->dwTaskNum = 0;
    const uint64_t qwBytes = uint64_t{dwThreadNum} * sizeof(TNvrHttpCurlCltTask);
    ptInst->atTasks = static_cast<TNvrHttpCurlCltTask *>(ptInst->tMemCB.pfMalloc(static_cast<size_t>(qwBytes)));
    if (ptInst->atTasks == nullptr) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] malloc failed, atTasks\n");
        return false;
    }
    NVRHCCMemzero(ptInst->atTasks, static_cast<uint32_t>(qwBytes));
    return true;
}

static bool SetUpLists(TNvrHttpCurlCltTask *ptTask, const TNvrHttpCurlCltMemCB *ptMemCB, uint32_t dwII)
{
    if (NVRHCCListInit(&ptTask->tRunList, ptMemCB) != NVRHCC_LIST_OK) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] init tRunList failed, dwII %u\n", dwII);
        return false;
    }
    if (OspSemBCreate(&ptTask->hRunLock) == 0) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] hRunLock create failed, dwII %u\n", dwII);
        return false;
    }
    if (NVRHCCListInit(&ptTask->tFinList, ptMemCB) != NVRHCC_LIST_OK) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] init tFinList failed, dwII %u\n", dwII);
        return false;
    }
    if (OspSemBCreate(&ptTask->hFinLock) == 0) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] hFinLock create failed, dwII %u\n", dwII);
        return false;
    }
    return true;
}

static bool SetUpTransport(TNvrHttpCurlCltTask *ptTask)
{
    TNvrHttpCurlCltUdpMonitorSock *ptSock = &ptTask->tUdpMonitorSock;
    const uint32_t dwRet = _NvrHttpCurlCltCreateUdpMonitor("127.0.0.1", &ptSock->wPort, &ptSock->nSock, &ptSock->bInit);
    if (dwRet != NVRHTTPCURLCLT_OK) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] _NvrHttpCurlCltCreateUdpMonitor failed{%d}\n", dwRet);
        return false;
    }

    if (ptTask->ptCurlMultiHandle != nullptr) {
        curl_multi_cleanup(ptTask->ptCurlMultiHandle);
        ptTask->ptCurlMultiHandle = nullptr;
    }
    ptTask->ptCurlMultiHandle = curl_multi_init();
    if (ptTask->ptCurlMultiHandle == nullptr) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] curl_multi_init failed.\n");
        return false;
    }
    return true;
}

static bool StartThread(TNvrHttpCurlCltTask *ptTask, uint32_t dwInstIndex, uint32_t dwII)
{
    snprintf(ptTask->szThreadName, TASK_NAME_BYTES, "NvrHttpCurlClt0%u0%u", dwInstIndex, dwII);
    ptTask->hTask = OspTaskCreate(_NvrHttpCurlCltWorkerRoutine, ptTask->szThreadName, TASK_PRIORITY, TASK_STACK_BYTES,
                                  ptTask, 0, &ptTask->qwTaskID);
    if (ptTask->hTask == nullptr) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] create task failed, dwInstIndex %u, dwII %u\n", dwInstIndex,
                   dwII);
        return false;
    }
    HCC_LOG_AS(s_szInit, HCC_LEVEL_INFO, " Task[%p] szThreadName {%s}\n",
               reinterpret_cast<const void *>(ptTask->qwTaskID), ptTask->szThreadName);
    return true;
}

static bool SetUpTask(TNvrHttpCurlCltInst *ptInst, uint32_t dwII)
{
    TNvrHttpCurlCltTask *ptTask = &ptInst->atTasks[dwII];
    if (!SetUpLists(ptTask, &ptInst->tMemCB, dwII)) {
        return false;
    }
    HCCStoreRelaxed(&ptTask->bExit, 0U);
    return SetUpTransport(ptTask) && StartThread(ptTask, SlotIndex(ptInst), dwII);
}

static ENvrHttpCurlCltRet SetUpTasks(TNvrHttpCurlCltInst *ptInst, uint32_t dwThreadNum)
{
    if (dwThreadNum == 0) {
        return NVRHTTPCURLCLT_OK;
    }
    if (!AllocateTasks(ptInst, dwThreadNum)) {
        return NVRHTTPCURLCLT_NO_MEMORY;
    }
    for (uint32_t dwII = 0; dwII < dwThreadNum; ++dwII) {
        ++ptInst->dwTaskNum; /* before the set-up, so that a half-built task is cleaned up too */
        if (!SetUpTask(ptInst, dwII)) {
            return NVRHTTPCURLCLT_FAILED;
        }
    }
    return NVRHTTPCURLCLT_OK;
}

static ENvrHttpCurlCltRet SetUpLocks(TNvrHttpCurlCltInst *ptInst)
{
    if (OspSemBCreate(&ptInst->hAsyncReqNumLock) == 0) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] hAsyncReqNumLock create failed\n");
        return NVRHTTPCURLCLT_FAILED;
    }
    /* Every instance creates a new lock; the old one is kept: a thread may hold it. */
    HOspSem hLocker = nullptr;
    if (OspSemBCreate(&hLocker) == 0) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] g_sEasyInitLocker create failed, dwII %u\n", ptInst->dwTaskNum);
        return NVRHTTPCURLCLT_FAILED;
    }
    HCCStoreRelease(&g_sEasyInitLocker, hLocker);
    return NVRHTTPCURLCLT_OK;
}

ENvrHttpCurlCltRet NvrHttpCurlCltInit(const TNvrHttpCurlCltInitParam *ptInitParam, const TNvrHttpCurlCltMemCB *ptMemCB,
                                      HNvrHttpCurlCltInst *phResult)
{
    if (!IsInitArgValid(ptInitParam, ptMemCB, phResult)) {
        PrintInvalidInitArg(ptInitParam, ptMemCB, phResult);
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    OspRegCommand("NvrHttpCurlCltver", reinterpret_cast<PFOspCommand>(_NvrHttpCurlCltShowVersion), "NvrHttpCurlCltver");
    OspRegCommand("NvrHttpCurlCltshow", reinterpret_cast<PFOspCommand>(NvrHttpCurlCltshow), "NvrHttpCurlCltshow");
    /* This also reads the tick rate once, before threads need it. */
    const uint32_t dwTickMS = NVRHCCTickToMS(1);
    HCC_LOG(HCC_LEVEL_INFO, " NVRHCCTickToMS(1) return %u\n", dwTickMS);

    TNvrHttpCurlCltInst *ptInst = FindFreeSlot();
    if (ptInst == nullptr) {
        return NVRHTTPCURLCLT_LIMIT_REACHED;
    }
    ptInst->tMemCB = *ptMemCB;
    ENvrHttpCurlCltRet eRet = SetUpTasks(ptInst, ptInitParam->dwThreadNum);
    if (eRet == NVRHTTPCURLCLT_OK) {
        eRet = SetUpLocks(ptInst);
    }
    if (eRet != NVRHTTPCURLCLT_OK) {
        _NvrHttpCurlCltCleanup(ptInst);
        return eRet;
    }

    HCCStoreRelaxed(&ptInst->dwAsyncReqNum, 0U);
    ptInst->dwAsyncReqMaxNum = ptInitParam->dwMaxAsycReqNum;
    HCCStoreRelease(&ptInst->bInited, 1U);
    *phResult = ptInst;
    return NVRHTTPCURLCLT_OK;
}

void NvrHttpCurlCltUninit(HNvrHttpCurlCltInst hInstance)
{
    if (hInstance == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, hInstance %p\n", HCCLogPtr(hInstance));
        return;
    }
    if (HCCLoadAcquire(&hInstance->bInited) == 0) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, hInstance %p NOT inited\n", HCCLogPtr(hInstance));
        return;
    }
    _NvrHttpCurlCltCleanup(hInstance);
}

static void DeleteSem(HOspSem *phSem)
{
    if (*phSem != nullptr) {
        OspSemDelete(*phSem);
        *phSem = nullptr;
    }
}

/* All are asked to stop before the first is waited for: then their waits end together. */
static void StopWorkers(TNvrHttpCurlCltInst *ptInst)
{
    for (uint32_t dwII = 0; dwII < ptInst->dwTaskNum; ++dwII) {
        if (ptInst->atTasks[dwII].hTask != nullptr) {
            HCCStoreRelaxed(&ptInst->atTasks[dwII].bExit, 1U);
        }
    }
    for (uint32_t dwII = 0; dwII < ptInst->dwTaskNum; ++dwII) {
        TNvrHttpCurlCltTask *ptTask = &ptInst->atTasks[dwII];
        if (ptTask->hTask != nullptr) {
            if (OspTaskWaitEnd(ptTask->hTask) == 0) {
                HCC_LOG_AS("_NvrHttpCurlCltCleanup", HCC_LEVEL_ERROR, "[Error] task wait failed, dwII %u\n", dwII);
            }
            ptTask->hTask = nullptr;
            ptTask->qwTaskID = 0;
        }
    }
}

/* Unlinks an element wherever the list contains it, from the given node on. */
static void Unlink(TNVRHCCList *ptList, TNVRHCCListNode *ptFrom, const void *pvData)
{
    while (ptFrom != nullptr) {
        TNVRHCCListNode *ptNext = ptFrom->ptNext;
        if (ptFrom->pvData == pvData) {
            NVRHCCListRemove(ptList, ptFrom, nullptr);
        }
        ptFrom = ptNext;
    }
}

static void FreeNodeAndRequest(void *pvNode)
{
    TNvrHttpCurlCltReqInner *ptReqIn = static_cast<TNvrHttpCurlCltAsyncNode *>(pvNode)->ptReqIn;
    void (*pfFree)(void *) = ptReqIn->pfFree;
    _FreeTNvrHttpCurlCltReqInner(ptReqIn);
    pfFree(pvNode);
}

/*
 * Releases every request of a list. A completion that matched no request can leave a node
 * linked twice, in ptOther or further down: it is released once.
 */
static void ReleaseRequests(TNVRHCCList *ptList, TNVRHCCList *ptOther, CURLM *ptMulti)
{
    for (TNVRHCCListNode *ptNode = ptList->ptHead; ptNode != nullptr; ptNode = ptNode->ptNext) {
        const TNvrHttpCurlCltAsyncNode *ptAsync = static_cast<TNvrHttpCurlCltAsyncNode *>(ptNode->pvData);
        Unlink(ptOther, ptOther->ptHead, ptAsync);
        Unlink(ptList, ptNode->ptNext, ptAsync);
        if (ptAsync->bInMulti != 0) {
            curl_multi_remove_handle(ptMulti, ptAsync->ptReqIn->ptReq); /* does nothing for one that has ended */
        }
    }
    NVRHCCListCleanUp(ptList, FreeNodeAndRequest);
}

static void CleanUpTask(TNvrHttpCurlCltTask *ptTask)
{
    DeleteSem(&ptTask->hRunLock);
    ReleaseRequests(&ptTask->tRunList, &ptTask->tFinList, ptTask->ptCurlMultiHandle);
    DeleteSem(&ptTask->hFinLock);
    ReleaseRequests(&ptTask->tFinList, &ptTask->tRunList, ptTask->ptCurlMultiHandle);
    if (ptTask->tUdpMonitorSock.bInit != 0) {
        close(ptTask->tUdpMonitorSock.nSock);
        ptTask->tUdpMonitorSock.nSock = 0;
    }
    curl_multi_cleanup(ptTask->ptCurlMultiHandle);
    ptTask->ptCurlMultiHandle = nullptr;
}

void _NvrHttpCurlCltCleanup(TNvrHttpCurlCltInst *ptInst)
{
    StopWorkers(ptInst);
    for (uint32_t dwII = 0; dwII < ptInst->dwTaskNum; ++dwII) {
        CleanUpTask(&ptInst->atTasks[dwII]);
    }
    if (ptInst->atTasks != nullptr) {
        ptInst->tMemCB.pfFree(ptInst->atTasks);
    }
    DeleteSem(&ptInst->hAsyncReqNumLock);

    ptInst->tMemCB = TNvrHttpCurlCltMemCB{};
    ptInst->atTasks = nullptr;
    ptInst->dwTaskNum = 0;
    HCCStoreRelaxed(&ptInst->dwAsyncReqNum, 0U);
    ptInst->dwAsyncReqMaxNum = 0;
    HCCStoreRelease(&ptInst->bInited, 0U);
}

uint32_t _NvrHttpCurlCltShowVersion(void)
{
    HCC_LOG(HCC_LEVEL_ERROR, "[Error] compile time {%s %s}\n", __DATE__, __TIME__);
    return 0;
}

static void ShowTask(const TNvrHttpCurlCltTask *ptTask, uint32_t dwII)
{
    const TNvrHttpCurlCltUdpMonitorSock *ptSock = &ptTask->tUdpMonitorSock;
    HCC_LOG_AS("NvrHttpCurlCltshow", HCC_LEVEL_SHOW,
               " >Task[%d]{%s}, UdpMonitorSock{bInit:%d, sock:%d, port:%d}, ptCurlMultiHandle{%p}\n", dwII,
               ptTask->szThreadName, ptSock->bInit, ptSock->nSock, ptSock->wPort,
               HCCLogPtr(HCCLoadRelaxed(&ptTask->ptCurlMultiHandle)));
    HCC_LOG_AS("NvrHttpCurlCltshow", HCC_LEVEL_SHOW, " >RunList{%d}, FinList{%d}\n",
               HCCLoadRelaxed(&ptTask->tRunList.dwNumOfElem), HCCLoadRelaxed(&ptTask->tFinList.dwNumOfElem));
}

uint32_t NvrHttpCurlCltshow(void)
{
    for (const TNvrHttpCurlCltInst &tInst : g_tNvrHttpCurlCltCont) {
        if (HCCLoadAcquire(&tInst.bInited) == 0) {
            continue;
        }
        HCC_LOG(HCC_LEVEL_SHOW, " inst[%d] %p, dwAsyncReqNum %u, dwAsyncReqMaxNum %u, dwTaskNum %u\n",
                SlotIndex(&tInst), HCCLogPtr(&tInst), HCCLoadRelaxed(&tInst.dwAsyncReqNum), tInst.dwAsyncReqMaxNum,
                tInst.dwTaskNum);
        for (uint32_t dwII = 0; dwII < tInst.dwTaskNum; ++dwII) {
            ShowTask(&tInst.atTasks[dwII], dwII);
        }
    }
    return 0;
}
