/*
 * The request engine: HTTP and HTTPS requests over libcurl, run on the caller's thread
 * or on worker threads that report through a callback.
 *
 * Five conventions hold for every call:
 *
 *  1. Results are ENvrHttpCurlCltRet values. A bad argument is logged in one line,
 *     returns 4 and changes nothing. Two exceptions: NvrHttpCurlCltCheckUri returns 1,
 *     and submitting a request that is still under way returns 4 but does damage.
 *  2. Handles are plain pointers. Only NvrHttpCurlCltReqCreat checks the one it is
 *     given against the instances that exist; any other call takes a non-null handle
 *     at its word, so a handle must not be used after its destruction.
 *  3. Texts are NUL-terminated, only read, and not kept: libcurl or the request has its
 *     own copy when the call returns.
 *  4. Times are milliseconds, except in NvrHttpCurlCltCheckUri, whose argument names
 *     its unit.
 *  5. Different requests may be used on different threads at once. One request belongs
 *     to one thread at a time, and to the worker from a successful asynchronous
 *     submission until its callback.
 *
 * Life of a request: NvrHttpCurlCltReqCreat; the setters, the body last;
 * NvrHttpCurlCltProcessReq; the getters; NvrHttpCurlCltReqDestroy.
 *
 * The process must have called curl_global_init before threads race to the first
 * instance; the send module (sendbycurl.h) does so for its users.
 *
 * The oddities that callers have to live with are gathered in docs/contracts.md.
 */
#ifndef NVRHTTPCURL_HTTPCURLCLIENT_H
#define NVRHTTPCURL_HTTPCURLCLIENT_H

#include <stdint.h>

#include "nvrhttpcurl/decls.h"
#include "nvrhttpcurl/memcb.h"

NVRHTTPCURL_BEGIN_DECLS

/* What the operations return and what a completion callback is told. */
typedef uint32_t ENvrHttpCurlCltRet;
enum {
    NVRHTTPCURLCLT_OK = 0,               /* success */
    NVRHTTPCURLCLT_FAILED = 1,           /* libcurl, a list or a set-up step failed; no answer */
    NVRHTTPCURLCLT_INVALID_ARG = 4,      /* bad argument */
    NVRHTTPCURLCLT_NO_MEMORY = 5,        /* a memory callback returned null */
    NVRHTTPCURLCLT_BUFFER_TOO_SMALL = 7, /* the answer is longer than the caller's buffer */
    NVRHTTPCURLCLT_LIMIT_REACHED = 8,    /* no free instance or request place */
    NVRHTTPCURLCLT_TIMED_OUT = 10,       /* the transfer timed out */
    NVRHTTPCURLCLT_CONNECT_FAILED = 11,  /* the connection could not be made */
    NVRHTTPCURLCLT_TLS_FAILED = 12       /* the TLS connection failed */
};

/* How an asynchronous request ended. */
typedef uint32_t ENvrHttpCurlCltReqProgress;
enum { NVRHTTPCURLCLT_PROGRESS_ERROR = 0, NVRHTTPCURLCLT_PROGRESS_FINISHED = 1 };

/* Where a request runs. */
typedef uint32_t ENvrHttpCurlCltMode;
enum { NVRHTTPCURLCLT_MODE_SYNC = 0, NVRHTTPCURLCLT_MODE_ASYNC = 1 };

enum {
    NVRHTTPCURLCLT_MAX_INSTANCES = 16,       /* usable instances in one process */
    NVRHTTPCURLCLT_MAX_TASKS = 16,           /* worker threads of one instance */
    NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS = 1024 /* asynchronous requests of one instance */
};

typedef struct TNvrHttpCurlCltInitParam {
    uint32_t dwThreadNum;     /* worker threads to start, 0 to 16; 0 allows synchronous requests only */
    uint32_t dwMaxAsycReqNum; /* asynchronous requests not yet destroyed, 0 to 1024 */
} TNvrHttpCurlCltInitParam;

typedef struct TNvrHttpCurlCltInst *HNvrHttpCurlCltInst;
typedef struct TNvrHttpCurlCltReqInner *HNvrHttpCurlCltReq;

/*
 * Completion of an asynchronous request.
 *
 * hReq:      the request. Its answer can be read here, and later, until it is destroyed.
 * eProg:     1 finished (whatever the HTTP status), 0 error.
 * eResult:   0 with eProg 1; otherwise 10, 11, 12 or 1.
 * pvUserBuf: the pointer given to NvrHttpCurlCltProcessReq. The whole response body has
 *            been copied there, also after an error: with no bound and with no
 *            terminator. A null pointer receives nothing.
 *
 * Called once for each accepted submission, on the worker thread, with no engine lock
 * held; callbacks of requests on other workers may run at the same moment, callbacks of
 * one worker come one after another. While it runs, its worker drives no transfer: be
 * brief. It never comes for requests that NvrHttpCurlCltUninit releases. The return value
 * is ignored.
 *
 * It may submit the same request again, read the answer, and create and submit others.
 * It may destroy its request as its last use of it, or leave that to any thread once it has
 * returned. Either is safe provided that no request of this worker was ever destroyed while
 * it was under way. It must not call NvrHttpCurlCltUninit.
 */
typedef uint32_t (*PFNvrHttpCurlCltNtf)(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg,
                                        ENvrHttpCurlCltRet eResult, void *pvUserBuf);

/*
 * Starts an instance: its worker threads, each with a loopback UDP port from 46990
 * downwards to be woken through.
 *
 * ptInitParam: read during the call only.
 * ptMemCB:     all three callbacks set; copied.
 * phResult:    receives the instance; written on success only.
 * Returns
 *   0  started
 *   4  a null pointer or callback, dwThreadNum above 16, dwMaxAsycReqNum above 1024
 *   5  the task array could not be allocated
 *   8  16 instances are in use
 *   1  a thread, semaphore, multi handle or loopback port could not be had; everything
 *      that the call had created is released again
 * Not thread-safe: one thread at a time may be in Init or Uninit.
 * Cost: a thread with a 2 MiB stack, a descriptor and a libcurl multi handle per task.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltInit(const TNvrHttpCurlCltInitParam *ptInitParam, const TNvrHttpCurlCltMemCB *ptMemCB,
                                      HNvrHttpCurlCltInst *phResult);

/*
 * Ends an instance: joins its workers, then releases every request that was submitted
 * asynchronously and not destroyed, whether queued, in flight or finished. No callback
 * comes for them.
 *
 * hInstance: null or not in use is logged and does nothing.
 * Afterwards the instance's handle and the handles of all its requests are invalid, those
 * of synchronous requests too: destroy these before.
 * Must not run while another thread uses the instance, nor beside Init or another Uninit,
 * nor on a worker.
 * Cost: about one wait period of the workers (50 ms), however many there are, plus what a
 * callback in progress takes, plus the rest of the name lookups in progress, one after the
 * other: libcurl cannot interrupt them.
 */
void NvrHttpCurlCltUninit(HNvrHttpCurlCltInst hInstance);

/*
 * Creates a request.
 *
 * phReq: receives the request; written on success only. Whoever creates it destroys it.
 * Returns 0; 4 for an address that is no instance, an instance not in use or a null
 * phReq; 5 memory; 1 if libcurl gave no easy handle.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltReqCreat(HNvrHttpCurlCltInst hInstance, HNvrHttpCurlCltReq *phReq);

/*
 * Sets the URL.
 *
 * Trap: a URL that contains "https" anywhere, in small letters, is sent without any check
 * of the server's certificate or host name. "HTTPS://..." keeps libcurl's checks on.
 * Returns 0; 4 for a null pointer; 1 if libcurl refused the URL (or, where the URL
 * contains "https", only if it refused CURLOPT_CAINFO).
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetReqUri(HNvrHttpCurlCltReq hReq, const char *szUri);

/*
 * Sets the method: "POST", "GET" or "PUT", in any case of letters.
 *
 * Trap: the body setter makes libcurl send a POST whatever was chosen before it. Called
 * after the body setter, GET sends no body and PUT reads its body from the process's
 * standard input. See "Methods on the wire" in docs/contracts.md.
 * Returns 0; 4 for a null pointer or any other method; 1 if libcurl refused.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetReqMethod(HNvrHttpCurlCltReq hReq, const char *szMethod);

/*
 * Sets user name and password, for whatever scheme libcurl and server agree on.
 *
 * bCurlAuth:        0 sets nothing.
 * pchUserAndPassWd: "user:password"; must not be null even where bCurlAuth is 0.
 * Returns 0; 4 for a null pointer; 1 if libcurl refused the schemes. A refused user name
 * is only logged. Trap: that failure's log line shows the password.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetAuthType(HNvrHttpCurlCltReq hReq, uint32_t bCurlAuth, const char *pchUserAndPassWd);

/*
 * Adds a header line "name:value", and with it the line "Expect:", which keeps libcurl
 * from asking "Expect: 100-continue".
 *
 * Traps: call it before NvrHttpCurlCltSetReqBody, which hands the lines to libcurl. A line longer than 127
 * characters is cut there without a word.
 * Returns 0 (also where libcurl had no memory for the line); 4 for a null or empty text.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetReqHeader(HNvrHttpCurlCltReq hReq, const char *szName, const char *szValue);

/*
 * Sets the body, hands the header lines to libcurl and installs the response buffer.
 * Required before execution, for an empty body too, if the answer is to be read.
 *
 * szBody: dwSize bytes, copied; NULs are allowed, a terminator is not needed. Null only
 *         with dwSize 0.
 * Without any header line the answer is collected with its status line and headers in
 * front of the body.
 * A second call replaces body and response buffer of the first and releases them; if it
 * fails, the first stay in force.
 * Returns 0 (a refused libcurl option is only logged); 4 for a null pointer; 5 memory.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetReqBody(HNvrHttpCurlCltReq hReq, const char *szBody, uint32_t dwSize);

/*
 * Releases the request, despite its name: the handle is invalid afterwards. For requests
 * that were never submitted asynchronously; NvrHttpCurlCltReqDestroy serves for all.
 * Returns 0; 4 for null.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltReqReset(HNvrHttpCurlCltReq hReq);

/*
 * The HTTP status of the answer, 0 if none came. For use after completion.
 * Returns 0; 4 for a null pointer; 1 if libcurl does not tell (*pnCode is then untouched).
 */
ENvrHttpCurlCltRet NvrHttpCurlCltGetRespStatCode(HNvrHttpCurlCltReq hReq, int32_t *pnCode);

/*
 * The length of the answer in bytes, without terminator. For use after completion.
 * Returns 0; 4 for a null pointer; 1 if no answer came or no body was set.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltGetRespBodyLen(HNvrHttpCurlCltReq hReq, uint32_t *pdwBufSize);

/*
 * Copies the answer out and terminates it. For use after completion.
 *
 * szBodyBuf:  Trap: must have room for one byte MORE than *pdwBufSize says. An answer of
 *             exactly *pdwBufSize bytes is accepted and its terminator goes behind them.
 * pdwBufSize: in, the size of the buffer, not 0; out, with 0 and 7, the length of the answer.
 * Returns
 *   0  copied
 *   4  a null pointer or a size of 0
 *   7  the answer is longer: nothing was copied, *pdwBufSize says what is needed
 *   1  no answer came, no body was set, or the answer was lost for want of memory
 */
ENvrHttpCurlCltRet NvrHttpCurlCltGetRespBody(HNvrHttpCurlCltReq hReq, char *szBodyBuf, uint32_t *pdwBufSize);

/*
 * Runs a request.
 *
 * Mode 0: a transfer that FAILS RETURNS 0 too. Judge it by NvrHttpCurlCltGetRespStatCode:
 * the code is 0 where no answer came. (A transfer cut off after its headers has a code
 * and part of a body.)
 *
 * Mode 1: returns at once; pfNtf reports the end. When that is, if the server falls
 * silent, is told in docs/contracts.md ("When does an asynchronous request end?"): a
 * time-out is noticed only with the worker's next activity.
 *
 * dwTimeoutMS:     for the whole transfer, not 0.
 * dwConnTimeOutMS: for the connection, not 0.
 * pfNtf:           required in mode 1, ignored in mode 0.
 * pvUserBuf:       mode 1: handed to pfNtf; must hold any response body that may come, since
 *                  the copy has no bound, until pfNtf is called. May be null. The pointer
 *                  must stay valid although the callback never comes (Uninit).
 * Returns
 *   0  mode 0: the transfer ran; mode 1: queued
 *   4  a null pointer, a time-out of 0, an unknown mode, an instance without workers, or
 *      a request submitted again before its callback. NEVER do the last: besides being
 *      refused it can release the bookkeeping of another, finished request.
 *   8  mode 1: as many requests as dwMaxAsycReqNum have been submitted and not destroyed
 *      (finished ones count; a repeated submission is refused too)
 *   5  mode 1: memory
 *   1  mode 1: the request could not be queued. NEVER submit it asynchronously again, for the
 *      reason told under 4; destroy it.
 * A request stays with the worker of its first submission.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltProcessReq(HNvrHttpCurlCltReq hReq, uint32_t dwTimeoutMS, uint32_t dwConnTimeOutMS,
                                            ENvrHttpCurlCltMode eMode, PFNvrHttpCurlCltNtf pfNtf, void *pvUserBuf);

/*
 * Releases a request of any kind and gives back its place among the asynchronous ones.
 *
 * hReq: null is logged and does nothing.
 * Trap: an asynchronous request must not be destroyed before its callback was called: its
 * worker may be using it. Cost: linear in the requests of its worker.
 */
void NvrHttpCurlCltReqDestroy(HNvrHttpCurlCltReq hReq);

/*
 * Tells whether an HTTP(S) server can be reached: one POST of its own, whose answer is
 * discarded. Needs no instance.
 *
 * szUri:            a URL that contains "https" in small letters is probed without any check of
 *                   the server's certificate.
 * dwConnTimeOutSec: in SECONDS, for the connection; 0 means libcurl's default. Once connected,
 *                   the exchange has no limit of its own.
 * Trap: libcurl takes the POST's body from the process's standard input. It must be empty
 * (/dev/null, as a service's is): a terminal or an open pipe blocks the call, and what comes
 * from it is sent.
 * Returns
 *   0   the exchange was completed, with whatever HTTP status
 *   10  the connection was not made in time
 *   12  the TLS connection failed
 *   1   any other failure, a refused connection and a null szUri included
 * Thread-safe. Blocks the caller.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltCheckUri(const char *szUri, uint32_t dwConnTimeOutSec);

NVRHTTPCURL_END_DECLS

#endif
