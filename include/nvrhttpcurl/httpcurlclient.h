/*
 * The request engine: HTTP and HTTPS requests over libcurl, run on the caller's thread
 * or on worker threads that report through a callback.
 *
 * Five conventions hold for every call:
 *
 *  1. Results are ENvrHttpCurlCltRet values. A bad argument is logged in one line,
 *     returns 4 and changes nothing. Two exceptions: NvrHttpCurlCltCheckUri returns 1,
 *     and submitting a request that is still running returns 4 but does damage.
 *  2. Handles are plain pointers. Only NvrHttpCurlCltReqCreat compares its handle with the
 *     instances that exist; every other call only checks for null, so a handle must not be
 *     used after its destruction.
 *  3. Texts are NUL-terminated, only read, and not kept: libcurl or the request has its
 *     own copy when the call returns.
 *  4. Times are milliseconds, except in NvrHttpCurlCltCheckUri, whose argument names
 *     its unit.
 *  5. Different requests may be used on different threads at once. One request belongs
 *     to one thread at a time; from a successful asynchronous submission until its callback
 *     it belongs to the worker.
 *
 * Life of a request: NvrHttpCurlCltReqCreat; the setters, the body last;
 * NvrHttpCurlCltProcessReq; the getters; NvrHttpCurlCltReqDestroy.
 *
 * The process must call curl_global_init before several threads may start the first
 * instance; the send module (sendbycurl.h) does this for its users.
 *
 * docs/contracts.md collects what is easy to get wrong; its section "The process" says what
 * fork, exec, SIGPIPE and the end of main mean for the library. docs/limits.md lists what the
 * library does not do.
 */
#ifndef NVRHTTPCURL_HTTPCURLCLIENT_H
#define NVRHTTPCURL_HTTPCURLCLIENT_H

#include <stdint.h>

#include "nvrhttpcurl/decls.h"
#include "nvrhttpcurl/memcb.h"

NVRHTTPCURL_BEGIN_DECLS

/* What the operations return and what a completion callback receives. */
typedef uint32_t ENvrHttpCurlCltRet;
/* Values of ENvrHttpCurlCltRet. */
enum {
    NVRHTTPCURLCLT_OK = 0,               /* success */
    NVRHTTPCURLCLT_FAILED = 1,           /* libcurl, a list or a set-up step failed; no answer */
    NVRHTTPCURLCLT_INVALID_ARG = 4,      /* bad argument */
    NVRHTTPCURLCLT_NO_MEMORY = 5,        /* a memory callback returned null */
    NVRHTTPCURLCLT_BUFFER_TOO_SMALL = 7, /* the answer is longer than the caller's buffer */
    NVRHTTPCURLCLT_LIMIT_REACHED = 8,    /* no free instance, or too many asynchronous requests */
    NVRHTTPCURLCLT_TIMED_OUT = 10,       /* the transfer timed out */
    NVRHTTPCURLCLT_CONNECT_FAILED = 11,  /* the connection could not be made */
    NVRHTTPCURLCLT_TLS_FAILED = 12       /* the TLS connection failed */
};

/* How an asynchronous request ended. */
typedef uint32_t ENvrHttpCurlCltReqProgress;
/* Values of ENvrHttpCurlCltReqProgress. */
enum {
    NVRHTTPCURLCLT_PROGRESS_ERROR = 0,   /* the transfer failed */
    NVRHTTPCURLCLT_PROGRESS_FINISHED = 1 /* an answer came */
};

/* Where a request runs. */
typedef uint32_t ENvrHttpCurlCltMode;
/* Values of ENvrHttpCurlCltMode. */
enum {
    NVRHTTPCURLCLT_MODE_SYNC = 0, /* on the caller's thread */
    NVRHTTPCURLCLT_MODE_ASYNC = 1 /* on a worker of the instance */
};

/* Limits of the engine. */
enum {
    NVRHTTPCURLCLT_MAX_INSTANCES = 16,       /* usable instances in one process */
    NVRHTTPCURLCLT_MAX_TASKS = 16,           /* worker threads of one instance */
    NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS = 1024 /* asynchronous requests of one instance */
};

/* What an instance is started with. */
typedef struct TNvrHttpCurlCltInitParam {
    uint32_t dwThreadNum;     /* worker threads to start, 0 to 16; 0 allows synchronous requests only */
    uint32_t dwMaxAsycReqNum; /* asynchronous requests not yet destroyed, 0 to 1024 */
} TNvrHttpCurlCltInitParam;

/* An instance. */
typedef struct TNvrHttpCurlCltInst *HNvrHttpCurlCltInst;
/* A request. */
typedef struct TNvrHttpCurlCltReqInner *HNvrHttpCurlCltReq;

/*
 * Completion of an asynchronous request.
 *
 * hReq:      the request. Its answer can be read here, and later, until it is destroyed.
 * eProg:     1 finished (whatever the HTTP status), 0 error.
 * eResult:   0 with eProg 1; otherwise 10, 11, 12 or 1.
 * pvUserBuf: the pointer given to NvrHttpCurlCltProcessReq. The whole response body has
 *            been copied there, also after an error: without a bound and without a
 *            terminator. A null pointer receives nothing.
 *
 * Called once for each accepted submission, on the worker thread, with no engine lock
 * held; callbacks of other workers may run at the same time, callbacks of one worker come
 * one after another. While it runs, its worker drives no transfer: be brief. It is never
 * called for requests that NvrHttpCurlCltUninit releases. The return value is ignored.
 *
 * It may submit the same request again (after setting its body again: see pvUserBuf of
 * NvrHttpCurlCltProcessReq), read the answer, and create and submit others.
 * It may destroy its request as its last use of it, or leave that to any thread after it
 * has returned. Either is safe provided that no request of this worker was ever destroyed
 * while it was running. It must not call NvrHttpCurlCltUninit.
 */
typedef uint32_t (*PFNvrHttpCurlCltNtf)(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg,
                                        ENvrHttpCurlCltRet eResult, void *pvUserBuf);

/*
 * Starts an instance: its worker threads, each with a loopback UDP port, from 46990
 * downwards, through which it is woken.
 *
 * ptInitParam: read during the call only.
 * ptMemCB:     all three callbacks set; copied.
 * phResult:    receives the instance; written on success only.
 * Returns
 *   0  started
 *   4  a null pointer or callback, dwThreadNum above 16, dwMaxAsycReqNum above 1024
 *   5  the task array could not be allocated
 *   8  16 instances are in use
 *   1  a thread, semaphore, multi handle or loopback port could not be created; everything
 *      that the call had created before is released again
 * Not thread-safe: only one thread at a time may be in Init or Uninit. Trap: the start of the
 * send module is an Init, too, and a first direct send starts it; start the module before other
 * threads call Init.
 * Trap: a forked child has no workers: what it submits is accepted and never reported.
 * Cost: per task a thread with a 2 MiB stack, a libcurl multi handle and three descriptors,
 * which programs that the process starts inherit.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltInit(const TNvrHttpCurlCltInitParam *ptInitParam, const TNvrHttpCurlCltMemCB *ptMemCB,
                                      HNvrHttpCurlCltInst *phResult);

/*
 * Ends an instance: joins its workers, then releases every request that was submitted
 * asynchronously and not destroyed, whether queued, in flight or finished. Their callbacks
 * are not called.
 *
 * hInstance: null or not in use is logged and does nothing.
 * Afterwards the handles of the instance and of all its requests are invalid, including
 * those of synchronous requests: destroy these before.
 * Must not run while another thread uses the instance or is in Init or Uninit, and not on a
 * worker.
 * Cost: about one wait of the workers (50 ms), however many there are, plus the rest of
 * callbacks in progress, plus the rest of name lookups in progress, one after the other:
 * libcurl cannot interrupt them.
 */
void NvrHttpCurlCltUninit(HNvrHttpCurlCltInst hInstance);

/*
 * Creates a request.
 *
 * phReq: receives the request, a block of pfMalloc; written on success only. The caller destroys it.
 * Returns 0; 4 for an address that is no instance, an instance not in use or a null
 * phReq; 5 memory; 1 if libcurl gave no easy handle.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltReqCreat(HNvrHttpCurlCltInst hInstance, HNvrHttpCurlCltReq *phReq);

/*
 * Sets the URL.
 *
 * Trap: a URL that contains "https" anywhere, in lower case, is sent without any check of
 * the server's certificate or host name. "HTTPS://..." keeps libcurl's checks on.
 * Trap: any scheme that libcurl knows is taken, so file:///etc/hostname comes back as an answer.
 * Redirects are not followed. Check what comes from outside.
 * Returns 0; 4 for a null pointer; 1 if libcurl refused the URL (or, where the URL
 * contains "https", only if it refused CURLOPT_CAINFO).
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetReqUri(HNvrHttpCurlCltReq hReq, const char *szUri);

/*
 * Sets the method: "POST", "GET" or "PUT", in upper or lower case.
 *
 * Trap: the body setter makes libcurl send a POST, whatever was set before it. Set after the
 * body, GET sends no body and PUT reads its body from the process's standard input. See
 * "Methods on the wire" in docs/contracts.md.
 * Returns 0; 4 for a null pointer or any other method; 1 if libcurl refused.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetReqMethod(HNvrHttpCurlCltReq hReq, const char *szMethod);

/*
 * Sets user name and password, for any scheme that libcurl and the server agree on.
 *
 * bCurlAuth:        0 sets nothing.
 * pchUserAndPassWd: "user:password"; must not be null, even if bCurlAuth is 0.
 * Returns 0; 4 for a null pointer; 1 if libcurl refused the schemes. A refused user name
 * is only logged. Trap: that failure's log line shows the password.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetAuthType(HNvrHttpCurlCltReq hReq, uint32_t bCurlAuth, const char *pchUserAndPassWd);

/*
 * Adds a header line "name:value", and with it the line "Expect:", which keeps libcurl
 * from sending "Expect: 100-continue".
 *
 * Traps: call it before NvrHttpCurlCltSetReqBody, which passes the lines to libcurl: a first line
 * that comes later is not sent, and the answer keeps its status line and headers in front. A line
 * of more than 127 characters is cut, and nothing reports it. Line ends (CR, LF) in the texts are
 * sent as they are, so that a value from outside can add header lines.
 * Returns 0 (also if libcurl has no memory for the line); 4 for a null or empty text.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetReqHeader(HNvrHttpCurlCltReq hReq, const char *szName, const char *szValue);

/*
 * Sets the body, passes the header lines to libcurl and installs the response buffer.
 * Required before execution if the answer is to be read, also for an empty body. Trap: without
 * this call the request is a GET, or what the method setter says, and libcurl writes the answer
 * to the process's standard output.
 *
 * szBody: dwSize bytes, copied; NULs are allowed, a terminator is not needed. Null only
 *         with dwSize 0.
 * Without any header line the answer is collected with its status line and headers in
 * front of the body.
 * A second call replaces body and response buffer of the first and releases them; if it
 * fails, those of the first remain.
 * Returns 0 (a refused libcurl option is only logged); 4 for a null pointer; 5 memory.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltSetReqBody(HNvrHttpCurlCltReq hReq, const char *szBody, uint32_t dwSize);

/*
 * Releases the request, despite its name: the handle is invalid afterwards. Only for
 * requests that were never submitted asynchronously; NvrHttpCurlCltReqDestroy works for all.
 * Returns 0; 4 for null.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltReqReset(HNvrHttpCurlCltReq hReq);

/*
 * The HTTP status of the answer, 0 if none came. For use after completion.
 * Returns 0; 4 for a null pointer; 1 if libcurl refuses (*pnCode is then unchanged).
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
 * szBodyBuf:  Trap: must hold one byte MORE than *pdwBufSize says. An answer of exactly
 *             *pdwBufSize bytes is accepted, and its terminator is written behind it.
 * pdwBufSize: in, the size of the buffer, not 0; out, with 0 and 7, the length of the answer.
 * Returns
 *   0  copied
 *   4  a null pointer or a size of 0
 *   7  the answer is longer: nothing was copied, *pdwBufSize is the size needed
 *   1  no answer came, no body was set, or the answer was lost because memory ran out
 */
ENvrHttpCurlCltRet NvrHttpCurlCltGetRespBody(HNvrHttpCurlCltReq hReq, char *szBodyBuf, uint32_t *pdwBufSize);

/*
 * Runs a request.
 *
 * Mode 0: a transfer that FAILS RETURNS 0 too. Check NvrHttpCurlCltGetRespStatCode: the
 * code is 0 if no answer came. (A transfer that was cut off after its headers has a code and
 * part of a body.)
 *
 * Mode 1: returns at once; pfNtf reports the end. If the server goes silent, a time-out is
 * noticed only with the worker's next activity: see docs/contracts.md ("When does an
 * asynchronous request end?").
 *
 * dwTimeoutMS:     for the whole transfer, not 0.
 * dwConnTimeOutMS: for the connection, not 0.
 * pfNtf:           required in mode 1, ignored in mode 0.
 * pvUserBuf:       mode 1: passed to pfNtf; must hold any response body that may come, since
 *                  the copy has no bound, and stay valid until pfNtf is called, or until
 *                  Uninit has returned. May be null. Trap: a request that is submitted again
 *                  copies all answers since its body was set: set the body again before.
 * Returns
 *   0  mode 0: the transfer ran; mode 1: queued
 *   4  a null pointer, a time-out of 0, an unknown mode, an instance without workers, or
 *      a request submitted again before its callback. NEVER do the last: it is refused, and
 *      it can also release the bookkeeping of another, finished request.
 *   8  mode 1: as many requests as dwMaxAsycReqNum have been submitted and not destroyed
 *      (finished ones count; a repeated submission is refused too)
 *   5  mode 1: no memory
 *   1  mode 1: the request could not be queued. NEVER submit it asynchronously again, for the
 *      reason given under 4; destroy it.
 * A request stays with the worker of its first submission. Over https it may share a connection
 * with others of this worker, see "HTTP/2" in docs/contracts.md.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltProcessReq(HNvrHttpCurlCltReq hReq, uint32_t dwTimeoutMS, uint32_t dwConnTimeOutMS,
                                            ENvrHttpCurlCltMode eMode, PFNvrHttpCurlCltNtf pfNtf, void *pvUserBuf);

/*
 * Releases a request of any kind; an asynchronous one no longer counts against the limit.
 *
 * hReq: null is logged and does nothing.
 * Trap: an asynchronous request must not be destroyed before its callback is called: its
 * worker may be using it. Cost: linear in the requests of its worker.
 */
void NvrHttpCurlCltReqDestroy(HNvrHttpCurlCltReq hReq);

/*
 * Checks whether an HTTP(S) server can be reached: sends one POST and discards the answer.
 * Needs no instance.
 *
 * szUri:            a URL that contains "https" in lower case is probed without any check of
 *                   the server's certificate.
 * dwConnTimeOutSec: in SECONDS, for the connection; 0 means libcurl's default. Once connected,
 *                   the exchange has no time limit.
 * Trap: libcurl reads the POST's body from the process's standard input. It must be empty
 * (/dev/null, as for a service): a terminal or an open pipe blocks the call, and what is read
 * from it is sent.
 * Returns
 *   0   the exchange was completed, with any HTTP status
 *   10  the connection was not made in time
 *   12  the TLS connection failed
 *   1   any other failure, including a refused connection and a null szUri
 * Thread-safe. Blocks the caller.
 */
ENvrHttpCurlCltRet NvrHttpCurlCltCheckUri(const char *szUri, uint32_t dwConnTimeOutSec);

NVRHTTPCURL_END_DECLS

#endif
