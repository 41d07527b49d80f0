/*
 * The engine's records, globals and functions, shared by its files only.
 *
 * The mark of a field says who may touch it:
 *   [init]     written before the worker thread or the instance's user can see it, then only read
 *   [run]      under the task's hRunLock
 *   [fin]      under the task's hFinLock
 *   [num]      under the instance's hAsyncReqNumLock
 *   [relaxed]  through HCCLoadRelaxed and HCCStoreRelaxed, on both sides
 *   [release]  through HCCStoreRelease and HCCLoadAcquire: announces the record's [init] fields
 *   [owner]    the thread that the request belongs to: its creator, or the worker between
 *              submission and callback
 */
#ifndef ENGINE_HTTPCURLCLIENT_INNER_H
#define ENGINE_HTTPCURLCLIENT_INNER_H

#include <curl/curl.h>
#include <stddef.h>
#include <stdint.h>

#include "nvrhttpcurl/hcc_list.h"
#include "nvrhttpcurl/httpcurlclient.h"
#include "platform/osp.h"

extern "C" {

/* The wake-up socket of a task: bound on 127.0.0.1, it sends to itself. */
typedef struct TNvrHttpCurlCltUdpMonitorSock {
    uint16_t wPort; /* [init] */
    uint32_t bInit; /* [init] 1 once the socket exists */
    int32_t nSock;  /* [init] */
} TNvrHttpCurlCltUdpMonitorSock;

typedef struct TNvrHttpCurlCltTask {
    HOspSem hRunLock;         /* [init] guards tRunList and the bInMulti of its nodes */
    TNVRHCCList tRunList;     /* [run] nodes queued or in flight; its count is [relaxed] */
    HOspSem hFinLock;         /* [init] guards tFinList */
    TNVRHCCList tFinList;     /* [fin] nodes that have ended; its count is [relaxed] */
    HOspTask hTask;           /* [init] null when no thread runs */
    uint64_t qwTaskID;        /* [init] for messages */
    uint32_t bExit;           /* [relaxed] stop request */
    char szThreadName[32];    /* [init] at most 30 characters */
    CURLM *ptCurlMultiHandle; /* [relaxed] the worker uses a copy of its own and writes back on leaving */
    TNvrHttpCurlCltUdpMonitorSock tUdpMonitorSock;
} TNvrHttpCurlCltTask;

typedef struct TNvrHttpCurlCltInst {
    uint32_t bInited;             /* [release] 0 free, 1 usable; raised as Init's last step */
    TNvrHttpCurlCltMemCB tMemCB;  /* [init] */
    TNvrHttpCurlCltTask *atTasks; /* [init] null without tasks */
    uint32_t dwTaskNum;           /* [init] tasks whose set-up has begun */
    HOspSem hAsyncReqNumLock;     /* [init] guards dwAsyncReqNum */
    uint32_t dwAsyncReqNum;       /* [num] nodes in existence; shown [relaxed] */
    uint32_t dwAsyncReqMaxNum;    /* [init] */
} TNvrHttpCurlCltInst;

/* A byte buffer: a request's body, or the answer, followed by a NUL that qwSize does not count. */
typedef struct TNvrHttpCurlCltMem {
    char *pchData; /* null for an empty body and after a failed realloc */
    uint64_t qwSize;
    void *(*pfRealloc)(void *, size_t); /* null in a body */
} TNvrHttpCurlCltMem;

typedef struct TNvrHttpCurlCltReqInner {
    TNvrHttpCurlCltInst *ptInstance; /* [init] its pfFree releases this record */
    CURL *ptReq;                     /* [owner] a record without one is invalid */
    struct curl_slist *ptHeaderList; /* [owner] */
    uint32_t dwTaskIndex;            /* [owner] 0 unbound, otherwise the task's index + 1 */
    TNvrHttpCurlCltMem *ptReqBody;   /* [owner] */
    TNvrHttpCurlCltMem *ptRespData;  /* [owner] */
    void *(*pfMalloc)(size_t);
    void *(*pfRealloc)(void *, size_t);
    void (*pfFree)(void *);
} TNvrHttpCurlCltReqInner;

/*
 * Bookkeeping of a request from its first asynchronous submission to its destruction. It is
 * in one list at a time, or belongs to the thread that took it out of a list. Only a
 * completion that matches no request can put it into a second list.
 */
typedef struct TNvrHttpCurlCltAsyncNode {
    TNvrHttpCurlCltReqInner *ptReqIn; /* the search key in both lists */
    PFNvrHttpCurlCltNtf pfNtf;
    void *pvUserBuf;
    uint32_t bInMulti; /* 1 once the easy handle has been added to the multi handle */
} TNvrHttpCurlCltAsyncNode;

/* A slot is free while its bInited is 0; a slot's address is the instance handle. */
extern TNvrHttpCurlCltInst g_tNvrHttpCurlCltCont[NVRHTTPCURLCLT_MAX_INSTANCES];

/*
 * Serialises curl_easy_init. Every Init replaces it and none is ever deleted, so read it
 * once per use: _NvrHttpCurlCltEasyInit does.
 */
extern HOspSem g_sEasyInitLocker;

/* Instances: httpcurlclient_instance.cpp */

/* Releases everything that a slot holds and frees the slot; for failed Inits and for Uninit. */
void _NvrHttpCurlCltCleanup(TNvrHttpCurlCltInst *ptInst);
/* Console commands; both return 0. */
uint32_t _NvrHttpCurlCltShowVersion(void);
uint32_t NvrHttpCurlCltshow(void);

/* The wake-up socket: httpcurlclient_wakeup.cpp */

/* Opens and binds a UDP socket; 0, or -1 with nothing left open. */
int32_t _NvrHttpCurlCltSocket_CreateUdpSocket(const char *szIP, uint32_t nPort, int32_t *pnSock);
/* Binds the highest free port; 0, 4 null pointer, 8 none free, 0xFFFFFFFF if *pbCreatSocket is 1 already. */
uint32_t _NvrHttpCurlCltCreateUdpMonitor(const char *szIP, uint16_t *pwPort, int32_t *pnSock, uint32_t *pbCreatSocket);
/* Wakes the worker that owns the socket. Any thread; a failure is only logged and costs at most one wait. */
void _NvrHttpCurlClt_SocketNotify(int32_t nSock, uint16_t wPort);

/* Requests: httpcurlclient_request.cpp */

/* curl_easy_init under the engine's lock, which it creates if no instance has. Null if libcurl returned none. */
CURL *_NvrHttpCurlCltEasyInit(void);
/* Releases a request record and all it owns; null does nothing. */
void _FreeTNvrHttpCurlCltReqInner(TNvrHttpCurlCltReqInner *ptReqIn);

/* Responses: httpcurlclient_response.cpp */

/* libcurl write callback over a TNvrHttpCurlCltMem; 0 ends the transfer. */
size_t _HttpCurlStackWriteCB(void *pvData, size_t size, size_t nmemb, void *pvMem);

/* Execution: httpcurlclient_execute.cpp */

/* The engine result for the code of a failed transfer. */
ENvrHttpCurlCltRet __NvrHttpCurlClt_CurlErrCode2Clt(CURLcode eCurlCode);

/* The worker: httpcurlclt_worker.cpp */

/* Thread entry; pvTask is the task record. Returns after the task's bExit was set. */
void _NvrHttpCurlCltWorkerRoutine(void *pvTask);
/* Adds queued requests to the multi handle and drives the transfers if it added any; returns their number. */
uint32_t _NvrHttpCurlClt_CheckAddMultiHandle(TNvrHttpCurlCltTask *ptTask, CURLM *ptMulti);
/*
 * Drive the transfers as far as they can go at once and complete those that have ended. The two
 * differ in the line of a failed transfer.
 */
void _NvrHttpCurlClt_CurlPerformAndReadInfo(CURLM *ptMulti, TNvrHttpCurlCltTask *ptTask);
void _NvrHttpCurlClt_CurlPerformAndReadInfoEx(CURLM *ptMulti, TNvrHttpCurlCltTask *ptTask);
}

#endif
