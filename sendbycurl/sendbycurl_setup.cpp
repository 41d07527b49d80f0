/*
 * Start of the send module: its semaphores, its log, libcurl, one engine instance and three
 * console commands.
 *
 * The start is serialised by one of the semaphores that it creates: whichever thread comes
 * first creates that one, race-free. What a failed start has set up is kept and not repeated
 * by the next try.
 */
#include <stdio.h>
#include <stdlib.h>

#include <curl/curl.h>

#include "platform/debuglog.h"
#include "sendbycurl/sendbycurl_inner.h"
#include "support/hcc_atomic.h"
#include "support/hcc_log.h"
#include "support/hcc_sem.h"

uint32_t g_bInited;
uint32_t g_bRegistedDebuglog;
uint32_t g_bLibCurlGobleInit;
HNvrHttpCurlCltInst g_hInitHandle;
HOspSem g_pCurlSemSet[SENDBYCURL_SEM_COUNT];
TSendByCurlASyncCB g_pfASnycCBParam[SENDBYCURL_ASYNC_SLOTS];

/* The helpers below run for the start: their lines have its name. */
static const char s_szInit[] = "SendByCurlInit";

enum { ENGINE_TASKS = 8, LOG_FILE_BYTES = 0x20000 };

HOspSem SendByCurlEnsureInitSem(void)
{
    return HCCSemEnsure(&g_pCurlSemSet[SENDBYCURL_SEM_INIT]);
}

static bool EnsureOtherSems()
{
    return HCCSemEnsure(&g_pCurlSemSet[SENDBYCURL_SEM_SPARE]) != nullptr &&
           HCCSemEnsure(&g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]) != nullptr;
}

uint32_t SendByCurlLogInit(void)
{
    if (DebugLogRegist(HCC_LOG_MODULE, "[SendCurl]", "SendCurl") == 0) {
        printf("[SendCurl ERR]line:%d:DebugLogRegist() failed\n", __LINE__);
        DebugLogPrint(1, HCC_LEVEL_ERROR, "DebugLogRegist() failed\n");
        return SENDBYCURL_INVALID_PARAM;
    }
    HCCStoreRelaxed(&g_bRegistedDebuglog, 1U);
    DebugLogMoudlePrintLevelOn(HCC_LOG_MODULE, HCC_LEVEL_ERROR, 1);
    DebugLogSetToStdioPrintf(HCC_LOG_MODULE, HCC_LEVEL_ERROR);
    DebugLogSetLogFileLen(HCC_LOG_MODULE, LOG_FILE_BYTES);
    DebugLogSetToFileLevel(HCC_LOG_MODULE, HCC_LEVEL_ERROR);
    return SENDBYCURL_OK;
}

static ESendByCurlRet StartEngine()
{
    const TNvrHttpCurlCltInitParam tInitParam = {ENGINE_TASKS, SENDBYCURL_ASYNC_SLOTS};
    const TNvrHttpCurlCltMemCB tMemCB = {malloc, realloc, free};
    HNvrHttpCurlCltInst hInstance = nullptr;
    const ENvrHttpCurlCltRet eCltRet = NvrHttpCurlCltInit(&tInitParam, &tMemCB, &hInstance);
    if (eCltRet != NVRHTTPCURLCLT_OK) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_INFO, " %s[%d] is Failed!\n", s_szInit, __LINE__);
        return HttpCurlCodeToSendByCurlCode(eCltRet);
    }
    HCCStoreRelease(&g_hInitHandle, hInstance);
    return SENDBYCURL_OK;
}

static void RegisterCommands()
{
    OspRegCommand("sendbycurlshow", reinterpret_cast<PFOspCommand>(SendByCurlShow), "sendbycurlshow");
    OspRegCommand("sendbycurltest", reinterpret_cast<PFOspCommand>(sendbycurltest), "sendbycurltest");
    OspRegCommand("sendbycurlsetlog", reinterpret_cast<PFOspCommand>(SendByCurlSetLogLevel), "sendbycurlsetlog");
}

/* Runs under the start-up semaphore. */
static ESendByCurlRet StartOnce()
{
    if (HCCLoadAcquire(&g_bInited) == 1) {
        return SENDBYCURL_OK;
    }
    if (!EnsureOtherSems()) {
        HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] semaphore create failed\n");
        return SENDBYCURL_INVALID_PARAM;
    }
    if (HCCLoadRelaxed(&g_bRegistedDebuglog) == 0) {
        const uint32_t dwRet = SendByCurlLogInit();
        if (dwRet != SENDBYCURL_OK) {
            HCC_LOG_AS(s_szInit, HCC_LEVEL_ERROR, "[Error] SendByCurlLogInit is Failed!\n");
            return dwRet;
        }
    }
    if (g_bLibCurlGobleInit == 0) {
        curl_global_init(CURL_GLOBAL_ALL);
        g_bLibCurlGobleInit = 1;
    }
    const ESendByCurlRet eRet = StartEngine();
    if (eRet == SENDBYCURL_OK) {
        RegisterCommands();
        HCCStoreRelease(&g_bInited, 1U);
    }
    return eRet;
}

ESendByCurlRet SendByCurlInit(void)
{
    HOspSem hInitSem = SendByCurlEnsureInitSem();
    if (hInitSem == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] semaphore create failed\n");
        return SENDBYCURL_INVALID_PARAM;
    }
    OspSemTake(hInitSem);
    const ESendByCurlRet eRet = StartOnce();
    OspSemGive(hInitSem);
    return eRet;
}

ESendByCurlRet Qelvo_SyncSendStrByHttp_Init(void)
{
    const ESendByCurlRet eSendCurlRet = SendByCurlInit();
    if (eSendCurlRet != SENDBYCURL_OK) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] SendByCurlInit is Failed! eSendCurlRet:%d\n", eSendCurlRet);
    }
    return eSendCurlRet;
}

uint32_t SendByCurlSetLogLevel(uint8_t byLevel)
{
    if (byLevel < HCC_LOG_TO_DEBUGLOG || byLevel > HCC_LOG_TO_BOTH) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid level %u\n", byLevel);
        return SENDBYCURL_INVALID_PARAM;
    }
    HCCStoreRelaxed(&g_bySendCurlLogType, byLevel);
    HCC_LOG(HCC_LEVEL_INFO, " Log level %u\n", byLevel);
    return SENDBYCURL_OK;
}

uint32_t SendByCurlShow(void)
{
    const uint32_t bInited = HCCLoadAcquire(&g_bInited);
    if (bInited == 0) {
        HCC_LOG(HCC_LEVEL_INFO, " SendByCurl is not Init! g_bInited:%d\n", bInited);
        return 0;
    }

    OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    for (uint32_t dwII = 0; dwII < SENDBYCURL_ASYNC_SLOTS; ++dwII) {
        const TSendByCurlASyncCB *ptSlot = &g_pfASnycCBParam[dwII];
        if (ptSlot->bUseFlag != 0) {
            HCC_LOG(HCC_LEVEL_INFO, " --------------------------[%d]--------------------------\n", dwII);
            HCC_LOG(HCC_LEVEL_INFO, " [%d] bUseFlag:%d, g_pfNtf:%p, ptReq:%p\n", dwII, ptSlot->bUseFlag,
                    HCCLogPtr(ptSlot->pfNtf), HCCLogPtr(ptSlot->ptReq));
        }
    }
    HCC_LOG(HCC_LEVEL_INFO, " ------------------------Show End------------------------\n");
    OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    return 0;
}
