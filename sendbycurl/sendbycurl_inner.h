/*
 * The send module's globals and functions, shared by its files only. All globals are zero
 * at load and are never released.
 */
#ifndef SENDBYCURL_SENDBYCURL_INNER_H
#define SENDBYCURL_SENDBYCURL_INNER_H

#include <stdint.h>

#include <curl/curl.h>

#include "nvrhttpcurl/httpcurlclient.h"
#include "nvrhttpcurl/sendbycurl.h"
#include "platform/osp.h"

extern "C" {

/* A slot of the table of asynchronous sends. */
typedef struct TSendByCurlASyncCB {
    uint32_t bUseFlag;        /* 1 while taken */
    HNvrHttpCurlCltReq ptReq; /* the request whose completion is awaited */
    PFSendByCurlNtf pfNtf;    /* the caller's notification */
} TSendByCurlASyncCB;

enum { SENDBYCURL_ASYNC_SLOTS = 1024 };

/* What the semaphores of g_pCurlSemSet are for. */
enum {
    SENDBYCURL_SEM_INIT = 0,  /* serialises the start of the module */
    SENDBYCURL_SEM_SPARE = 1, /* created with the others, never taken */
    SENDBYCURL_SEM_SLOTS = 2, /* guards g_pfASnycCBParam */
    SENDBYCURL_SEM_COUNT = 3
};

extern uint32_t g_bInited; /* written under SENDBYCURL_SEM_INIT, shown without */
extern uint32_t g_bRegistedDebuglog;
extern uint32_t g_bLibCurlGobleInit;
extern HNvrHttpCurlCltInst g_hInitHandle; /* written once, before g_bInited; sends read it without a lock */
extern HOspSem g_pCurlSemSet[SENDBYCURL_SEM_COUNT];
extern TSendByCurlASyncCB g_pfASnycCBParam[SENDBYCURL_ASYNC_SLOTS];
extern CURLSH *pShare_handle; /* created by the first set_share_handle, under its lock */

/*
 * The start-up semaphore, created if it does not exist, race-free. Null if it could not be
 * created. Use what this returns, not the table's entry: another thread may be creating it.
 */
HOspSem SendByCurlEnsureInitSem(void);

/* Console commands. */
uint32_t SendByCurlShow(void);
uint32_t SendByCurlSetLogLevel(uint8_t byLevel);

/* The module's result for an engine result. */
ESendByCurlRet HttpCurlCodeToSendByCurlCode(ENvrHttpCurlCltRet eCltRet);
/* The direct send's result for a failed transfer. */
ESendByCurlRet CurlCodeToSendByCurlCode(CURLcode eCurlRet);
/* Takes the first free slot for a request; false if there is none. */
bool SendByCurlRegistCallback(HNvrHttpCurlCltReq hReq, PFSendByCurlNtf pfNtf);
/* The engine's completion callback of every asynchronous send. */
uint32_t SendByCurlReqHttpCurlProgressNtf(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg,
                                          ENvrHttpCurlCltRet eHttpCurlErrCode, void *pvContext);
}

#endif
