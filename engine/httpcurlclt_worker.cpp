/*
 * The worker loop: one thread for each task, which drives the task's multi handle.
 *
 * One pass:
 *   1. Leave if the task is asked to exit.
 *   2. Add the queued requests of the run list to the multi handle and, if any was added,
 *      drive the transfers and complete what has ended.
 *   3. Wait up to 50 ms for activity on a transfer or on the wake-up socket.
 *   4. Without activity: rest 2 ms, next pass. NOTHING IS DRIVEN. libcurl's timers that
 *      fall due later, the time-outs of requests among them, are therefore acted upon only at
 *      the next activity or submission. This is the chosen behaviour, see docs/contracts.md.
 *   5. Read one wake-up datagram if there is one; if there was nothing else, next pass at
 *      once: the request that it announces is added there.
 *   6. Otherwise drive and complete, rest 2 ms, next pass.
 *
 * Because step 4 drives nothing, steps 2 and 6 have to leave libcurl with nothing to do at
 * once: see DriveTransfers.
 *
 * Completing a transfer: out of the multi handle, out of the run list, body to the
 * caller's buffer, into the finish list, callback. From the finish list on the node may be
 * submitted again or destroyed by any thread, so what the callback needs is read before.
 *
 * The multi handle and the easy handles in it belong to this thread. For the locks see "Locks"
 * in docs/architecture.md.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "engine/httpcurlclient_inner.h"
#include "nvrhttpcurl/hcc_tools.h"
#include "platform/appbase.h"
#include "support/hcc_atomic.h"
#include "support/hcc_log.h"

static const char s_szRoutine[] = "_NvrHttpCurlCltWorkerRoutine";

enum { WAIT_MS = 50, REST_MS = 2, WAKEUP_BUFFER_BYTES = 256, MAX_PERFORMS = 1024 };

/* What the loop keeps from pass to pass. */
typedef struct TWorker {
    TNvrHttpCurlCltTask *ptTask;
    CURLM *ptMulti; /* a copy: a recovery replaces it here, the task gets it at the end */
    struct curl_waitfd tWakeUp;
    int nNumFds; /* a failed wait leaves the value of the pass before */
} TWorker;

/* What the completions of one call share. */
typedef struct TCompletion {
    const char *szFunc; /* the entry point, for the log */
    bool bNameError;    /* its line of a failed transfer contains libcurl's text */
    CURLM *ptMulti;
    TNvrHttpCurlCltTask *ptTask;
    bool bFound;                      /* some message of this call matched; never lowered */
    TNvrHttpCurlCltAsyncNode *ptNode; /* the node visited last */
} TCompletion;

/*
 * Looks for the node whose easy handle has ended and takes it out of the run list. If there
 * is none, the node visited last stays current. An element of the list is never null.
 */
static void TakeEnded(TCompletion *ptDone, const CURL *ptEasy)
{
    TNVRHCCList *ptList = &ptDone->ptTask->tRunList;
    OspSemTake(ptDone->ptTask->hRunLock);
    for (TNVRHCCListNode *ptListNode = ptList->ptHead; ptListNode != nullptr; ptListNode = ptListNode->ptNext) {
        TNvrHttpCurlCltAsyncNode *ptNode = static_cast<TNvrHttpCurlCltAsyncNode *>(ptListNode->pvData);
        if (ptNode->ptReqIn == nullptr) {
            continue;
        }
        ptDone->ptNode = ptNode;
        if (ptNode->ptReqIn->ptReq != nullptr && ptNode->ptReqIn->ptReq == ptEasy) {
            NVRHCCListRemove(ptList, ptListNode, nullptr);
            ptDone->bFound = true;
            break;
        }
    }
    OspSemGive(ptDone->ptTask->hRunLock);
}

/* No bound and no terminator: the caller's buffer holds any answer that may come. */
static void CopyBody(const TNvrHttpCurlCltAsyncNode *ptNode)
{
    const TNvrHttpCurlCltMem *ptResp = ptNode->ptReqIn->ptRespData;
    if (ptNode->pvUserBuf != nullptr && ptResp != nullptr && ptResp->pchData != nullptr) {
        memcpy(ptNode->pvUserBuf, ptResp->pchData, static_cast<size_t>(ptResp->qwSize));
    }
}

static void FinishAndNotify(TNvrHttpCurlCltTask *ptTask, TNvrHttpCurlCltAsyncNode *ptNode,
                            ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet eCltErrCode)
{
    CopyBody(ptNode);
    const TNvrHttpCurlCltAsyncNode tNode = *ptNode;
    OspSemTake(ptTask->hFinLock);
    NVRHCCListInsertAfter(&ptTask->tFinList, nullptr, ptNode, nullptr);
    OspSemGive(ptTask->hFinLock);
    tNode.pfNtf(tNode.ptReqIn, eProg, eCltErrCode, tNode.pvUserBuf);
}

/* The one difference between the two entry points. */
static void LogFailedTransfer(const TCompletion *ptDone, const CURL *ptEasy, CURLcode eResult,
                              ENvrHttpCurlCltRet eCltErrCode)
{
    if (ptDone->bNameError) {
        HCC_LOG_AS(ptDone->szFunc, HCC_LEVEL_ERROR,
                   "[Error] easy_handle %p, {ErrorCode:%d}, {ErrorStr:%s}, eCltErrCode %d, eProg %d\n",
                   HCCLogPtr(ptEasy), eResult, curl_easy_strerror(eResult), eCltErrCode, NVRHTTPCURLCLT_PROGRESS_ERROR);
    } else {
        HCC_LOG_AS(ptDone->szFunc, HCC_LEVEL_ERROR, "[Error] easy_handle %p, eCurlRet %d, eCltErrCode %d, eProg %d\n",
                   HCCLogPtr(ptEasy), eResult, eCltErrCode, NVRHTTPCURLCLT_PROGRESS_ERROR);
    }
}

static void Complete(TCompletion *ptDone, CURL *ptEasy, CURLcode eResult)
{
    ENvrHttpCurlCltReqProgress eProg = NVRHTTPCURLCLT_PROGRESS_FINISHED;
    ENvrHttpCurlCltRet eCltErrCode = NVRHTTPCURLCLT_OK;
    if (eResult != CURLE_OK) {
        eProg = NVRHTTPCURLCLT_PROGRESS_ERROR;
        eCltErrCode = __NvrHttpCurlClt_CurlErrCode2Clt(eResult);
        LogFailedTransfer(ptDone, ptEasy, eResult, eCltErrCode);
    }

    const CURLMcode eCode = curl_multi_remove_handle(ptDone->ptMulti, ptEasy);
    if (eCode != CURLM_OK) {
        HCC_LOG_AS(ptDone->szFunc, HCC_LEVEL_ERROR, "[Error] curl_multi_remove_handle{%p} err{%d}.\n",
                   HCCLogPtr(ptEasy), eCode);
    }
    TakeEnded(ptDone, ptEasy);
    /*
     * Once a message of this call has matched, one that matches nothing completes the node
     * visited last. Such a message comes only from a request destroyed while it was running.
     */
    if (ptDone->bFound) {
        FinishAndNotify(ptDone->ptTask, ptDone->ptNode, eProg, eCltErrCode);
    }
}

static bool IsTimerDue(CURLM *ptMulti)
{
    long nTimeoutMS = -1;
    return curl_multi_timeout(ptMulti, &nTimeoutMS) == CURLM_OK && nTimeoutMS == 0;
}

/*
 * Drives the transfers as far as they can go at this moment, which may take more than one
 * perform: libcurl stops after a share of the work, or with data of HTTP/2 or TLS still in its
 * own buffers, and asks by a timer that is due at once to be called again. No descriptor
 * becomes ready for what it already holds, so nobody would call it later.
 *
 * A timer that is due before a perform counts as well as one that is due after it: older
 * versions, 7.88.1 among them, discard the request to be called again together with an older
 * timer that ran out. Only a perform with no timer due on either side has left nothing behind.
 * A perform that fails ends the drive.
 *
 * The bound keeps callbacks and the exit request from waiting for an answer that never ends. A
 * perform moves at least some 16 KB of each transfer, so answers of up to some 16 MB always get
 * through; the end of a longer one may, in the worst case, wait for the next activity. From a fast
 * server a perform moves over 1 MB of each: callbacks then wait for as much as 1 GB of each.
 */
static CURLMcode DriveTransfers(CURLM *ptMulti, int *pnStillRunning)
{
    bool bDue = IsTimerDue(ptMulti);
    bool bAgain = true;
    CURLMcode eCode = CURLM_OK;
    for (uint32_t dwPerforms = 0; bAgain && dwPerforms < MAX_PERFORMS; ++dwPerforms) {
        const bool bWasDue = bDue;
        eCode = curl_multi_perform(ptMulti, pnStillRunning);
        bDue = IsTimerDue(ptMulti);
        bAgain = eCode == CURLM_OK && *pnStillRunning > 0 && (bWasDue || bDue);
    }
    return eCode;
}

static void PerformAndReadInfo(const char *szFunc, bool bNameError, CURLM *ptMulti, TNvrHttpCurlCltTask *ptTask)
{
    int nStillRunning = 0;
    const CURLMcode eCode = DriveTransfers(ptMulti, &nStillRunning);
    if (eCode != CURLM_OK) {
        HCC_LOG_AS(szFunc, HCC_LEVEL_ERROR,
                   "[Error] curl_multi_perform fail{ErrorCode:%d}, {ErrorStr:%s}, still_running %d\n", eCode,
                   curl_multi_strerror(eCode), nStillRunning);
    }
    HCC_LOG_AS(szFunc, HCC_LEVEL_INFO, " >>still_running %d\n", nStillRunning);

    TCompletion tDone = {szFunc, bNameError, ptMulti, ptTask, false, nullptr};
    int nMsgsLeft = 0;
    while (const CURLMsg *ptMsg = curl_multi_info_read(ptMulti, &nMsgsLeft)) {
        if (ptMsg->msg != CURLMSG_DONE) {
            HCC_LOG_AS(szFunc, HCC_LEVEL_INFO, " msg %d {0-none, 1-done, 2-last}\n", ptMsg->msg);
        } else if (ptMsg->easy_handle == nullptr) {
            HCC_LOG_AS(szFunc, HCC_LEVEL_ERROR, "[Error] ptEasyHandle is Invalid{%p}\n", HCCLogPtr(ptMsg->easy_handle));
        } else {
            Complete(&tDone, ptMsg->easy_handle, ptMsg->data.result);
        }
    }
}

void _NvrHttpCurlClt_CurlPerformAndReadInfo(CURLM *ptMulti, TNvrHttpCurlCltTask *ptTask)
{
    PerformAndReadInfo(__func__, false, ptMulti, ptTask);
}

void _NvrHttpCurlClt_CurlPerformAndReadInfoEx(CURLM *ptMulti, TNvrHttpCurlCltTask *ptTask)
{
    PerformAndReadInfo(__func__, true, ptMulti, ptTask);
}

/* Adds one queued request; a refusal leaves it queued for the next pass. */
static bool AddToMulti(TNvrHttpCurlCltAsyncNode *ptNode, CURLM *ptMulti)
{
    static const char szFunc[] = "_NvrHttpCurlClt_CheckAddMultiHandle";
    CURL *ptEasy = ptNode->ptReqIn->ptReq;
    HCC_LOG_AS(szFunc, HCC_LEVEL_INFO, " curl_multi_add_handle beg, hReq %p\n", HCCLogPtr(ptEasy));
    const CURLMcode eCode = curl_multi_add_handle(ptMulti, ptEasy);
    if (eCode != CURLM_OK) {
        HCC_LOG_AS(szFunc, HCC_LEVEL_ERROR, "[Error] curl_multi_add_handle{pMultHandle %p, hReq %p} fail{%d}\n",
                   HCCLogPtr(ptMulti), HCCLogPtr(ptEasy), eCode);
        return false;
    }
    HCC_LOG_AS(szFunc, HCC_LEVEL_INFO, " curl_multi_add_handle{pMultHandle %p, hReq %p} ok.\n", HCCLogPtr(ptMulti),
               HCCLogPtr(ptEasy));
    ptNode->bInMulti = 1;
    return true;
}

uint32_t _NvrHttpCurlClt_CheckAddMultiHandle(TNvrHttpCurlCltTask *ptTask, CURLM *ptMulti)
{
    uint32_t dwAdded = 0;
    OspSemTake(ptTask->hRunLock);
    for (TNVRHCCListNode *ptNode = ptTask->tRunList.ptHead; ptNode != nullptr; ptNode = ptNode->ptNext) {
        TNvrHttpCurlCltAsyncNode *ptAsync = static_cast<TNvrHttpCurlCltAsyncNode *>(ptNode->pvData);
        if (ptAsync != nullptr && ptAsync->ptReqIn->ptReq != nullptr && ptAsync->bInMulti == 0 &&
            AddToMulti(ptAsync, ptMulti)) {
            ++dwAdded;
        }
    }
    OspSemGive(ptTask->hRunLock);

    if (dwAdded > 0) {
        _NvrHttpCurlClt_CurlPerformAndReadInfoEx(ptMulti, ptTask);
    }
    return dwAdded;
}

/*
 * Replaces a multi handle that libcurl reports as bad. Requests that were in the old one stay
 * marked as added and never complete. The task keeps the old handle until the thread ends.
 */
static void ReplaceMulti(TWorker *ptWorker, CURLMcode eCode)
{
    HCC_LOG_AS(s_szRoutine, HCC_LEVEL_ERROR,
               "[Error] curl_multi_wait() return err{%d}, ptCurlMultiHandle{%p} is bad.\n", eCode,
               HCCLogPtr(ptWorker->ptMulti));
    curl_multi_cleanup(ptWorker->ptMulti);
    ptWorker->ptMulti = curl_multi_init(); /* a null makes adding and waiting fail, and the wait come back here */
    HCC_LOG_AS(s_szRoutine, HCC_LEVEL_INFO, " then curl_multi_init() again, ptCurCurlMultiHand{%p}\n",
               HCCLogPtr(ptWorker->ptMulti));
}

static void Wait(TWorker *ptWorker)
{
    /* A failed wait keeps the count of the pass before; its events must not be kept. */
    ptWorker->tWakeUp.revents = 0;
    const CURLMcode eCode = curl_multi_wait(ptWorker->ptMulti, &ptWorker->tWakeUp, 1, WAIT_MS, &ptWorker->nNumFds);
    if (eCode == CURLM_BAD_HANDLE) {
        ReplaceMulti(ptWorker, eCode);
    } else if (eCode != CURLM_OK) {
        HCC_LOG_AS(s_szRoutine, HCC_LEVEL_ERROR, "[Error] curl_multi_wait() failed, code %d.\n", eCode);
    }
}

/* Reads one wake-up datagram; its content does not matter. */
static void DrainWakeUp(int32_t nSock)
{
    char achBuf[WAKEUP_BUFFER_BYTES] = "";
    struct sockaddr_in tFrom = {};
    tFrom.sin_family = AF_INET;
    socklen_t tFromLen = sizeof(tFrom);
    const ssize_t nRead =
        recvfrom(nSock, achBuf, sizeof(achBuf), 0, reinterpret_cast<struct sockaddr *>(&tFrom), &tFromLen);
    if (nRead < 0) {
        HCC_LOG_AS(s_szRoutine, HCC_LEVEL_INFO, " [udp socket]recvfrom err, break.\n");
    } else {
        HCC_LOG_AS(s_szRoutine, HCC_LEVEL_INFO, " [udp socket]recvfrom{%d} complete, break.\n",
                   static_cast<int>(nRead));
    }
}

static void RunPass(TWorker *ptWorker)
{
    _NvrHttpCurlClt_CheckAddMultiHandle(ptWorker->ptTask, ptWorker->ptMulti);
    Wait(ptWorker);
    if (ptWorker->nNumFds <= 0) {
        AppDelay(REST_MS);
        return;
    }
    HCC_LOG_AS(s_szRoutine, HCC_LEVEL_INFO, " curl_multi_wait end, numfds{%d}\n", ptWorker->nNumFds);

    if ((ptWorker->tWakeUp.revents & CURL_WAIT_POLLIN) != 0) {
        DrainWakeUp(ptWorker->tWakeUp.fd);
        --ptWorker->nNumFds;
        if (ptWorker->nNumFds <= 0) {
            HCC_LOG_AS(s_szRoutine, HCC_LEVEL_INFO, " udp socket done, continue wait.\n");
            return;
        }
    }
    _NvrHttpCurlClt_CurlPerformAndReadInfo(ptWorker->ptMulti, ptWorker->ptTask);
    AppDelay(REST_MS);
}

void _NvrHttpCurlCltWorkerRoutine(void *pvTask)
{
    TNvrHttpCurlCltTask *ptTask = static_cast<TNvrHttpCurlCltTask *>(pvTask);
    if (ptTask == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptTask %p\n", HCCLogPtr(ptTask));
        return;
    }
    HCC_LOG(HCC_LEVEL_INFO, " thread name {%s}\n", ptTask->szThreadName);
    if (NVRHCCThreadSetName(ptTask->szThreadName) != 0) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] HCThreadSetName() failed, name{%s}\n", ptTask->szThreadName);
    }

    const int32_t nSock = ptTask->tUdpMonitorSock.nSock;
    TWorker tWorker = {ptTask, ptTask->ptCurlMultiHandle, {nSock, CURL_WAIT_POLLIN, 0}, 0};
    if (tWorker.ptMulti == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, ptCurlMultiHandle %p\n", HCCLogPtr(tWorker.ptMulti));
        return;
    }
    HCC_LOG(HCC_LEVEL_INFO, " CurlMultiHand{%p}, nCurlCltUdpMonitorSock{%d}, nUdpMonitorSocket{%d}\n",
            HCCLogPtr(tWorker.ptMulti), nSock, nSock);

    while (HCCLoadRelaxed(&ptTask->bExit) == 0) {
        RunPass(&tWorker);
    }
    /* Clean-up must release the handle that the thread uses now. */
    HCCStoreRelaxed(&ptTask->ptCurlMultiHandle, tWorker.ptMulti);
}
