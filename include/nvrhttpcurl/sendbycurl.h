/*
 * The send module: the JSON text of one record to one URL, and the answer back.
 *
 * Qelvo_SyncSendStrByHttp_Init once; then, from any number of threads,
 * Qelvo_SendStrByHttp in mode 0 (the answer is in the caller's buffer when it returns) or
 * mode 1 (a notification comes from a worker thread). Nothing tears the module down: its
 * 8 worker threads live as long as the process.
 */
#ifndef NVRHTTPCURL_SENDBYCURL_H
#define NVRHTTPCURL_SENDBYCURL_H

#include <stddef.h>
#include <stdint.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

/* What the sends return and what a notification is told. */
typedef uint32_t ESendByCurlRet;
enum {
    SENDBYCURL_OK = 0,                /* success */
    SENDBYCURL_INVALID_PARAM = 1,     /* a required pointer is null, unknown mode; general engine failure */
    SENDBYCURL_NO_HANDLE = 2,         /* direct send: libcurl gave no handle */
    SENDBYCURL_NO_HEADER = 3,         /* direct send: the header list could not be built */
    SENDBYCURL_NO_SLOT = 4,           /* all 1024 notification places are taken */
    SENDBYCURL_OPTION_REFUSED = 4,    /* direct send: libcurl refused an option */
    SENDBYCURL_TRANSFER_FAILED = 5,   /* direct send: the transfer failed in another way than 7 and 8 tell */
    SENDBYCURL_TIMED_OUT = 7,         /* time-out */
    SENDBYCURL_ACCEPT_TIMED_OUT = 8,  /* direct send: libcurl code 12 */
    SENDBYCURL_NO_MEMORY = 9,         /* memory exhausted in the engine */
    SENDBYCURL_HTTP_STATUS = 10,      /* synchronous send: the status was not 200, or no answer came */
    SENDBYCURL_BUFFER_TOO_SMALL = 11, /* the answer is longer than the buffer */
    SENDBYCURL_LIMIT_REACHED = 12,    /* an engine limit was reached */
    SENDBYCURL_ENGINE_9 = 13,         /* reserved: the engine code that it stands for is not produced */
    SENDBYCURL_CONNECT_FAILED = 14,   /* the connection could not be made */
    SENDBYCURL_TLS_FAILED = 15        /* the TLS connection failed */
};

/* Values of TSendByCurlParam.eHeadType. Any other value is a POST over the engine, a GET in the direct send. */
enum { SENDBYCURL_METHOD_POST = 0, SENDBYCURL_METHOD_PUT = 1, SENDBYCURL_METHOD_GET = 2 };

/* Values of eSyncMode. */
enum { SENDBYCURL_MODE_SYNC = 0, SENDBYCURL_MODE_ASYNC = 1 };

/*
 * End of an asynchronous send.
 *
 * eErrCode:  0 if an answer came, whatever its HTTP status; otherwise a code of the list above.
 * pvContext: pchRecvBuf of the record. The whole answer has been copied there, with no
 *            bound and no terminator, and its length is not told: give a zeroed buffer
 *            larger than any answer.
 *
 * Called once for each send that returned 0 (with the exception told in docs/contracts.md
 * under "Places of the send module"), on a worker thread, with no lock held; other
 * notifications may run at the same moment. Until it returns, its worker drives no other
 * transfer: be brief. It may send again. The buffer is the caller's again from here on. The
 * return value is ignored.
 */
typedef uint32_t (*PFSendByCurlNtf)(ESendByCurlRet eErrCode, void *pvContext);

/*
 * One send. Zero the record, fill in what is needed. It is the caller's throughout and is
 * not kept: an asynchronous send is done with it when it returns, though not with
 * pchRecvBuf.
 */
typedef struct TSendByCurlParam {
    const char *pchURL;         /* target, required */
    uint32_t eHeadType;         /* method: 0 POST, 1 PUT, 2 GET; what really leaves, see Qelvo_SendStrByHttp */
    const char *pchSendBuf;     /* body, required */
    uint32_t dwSendLen;         /* its length in bytes */
    uint32_t dwConnTimeOutMS;   /* for the connection, in milliseconds, not 0 */
    uint32_t dwTimeoutMS;       /* for the whole transfer, in milliseconds, not 0 */
    uint32_t dwMaxRecvLen;      /* capacity of pchRecvBuf in bytes, see each send */
    uint32_t bSSLserver;        /* direct send: 0 sends without checking the server's certificate */
    char *pchRecvBuf;           /* receives the answer */
    uint32_t dwRecvLen;         /* length of the answer; set and meant differently by each send */
    PFSendByCurlNtf pfNtf;      /* asynchronous send: the notification; may be null */
    uint32_t bCurlAuth;         /* synchronous send: nonzero sends achUserAndPassWd */
    char achUserAndPassWd[128]; /* synchronous send: "user:password" */
} TSendByCurlParam;

/*
 * Starts the module. Call it once, before the first send. A repeated call returns 0 at
 * once; after a failure it tries again.
 *
 * Returns 0; 1 if the log module, a semaphore or the engine could not be set up; 12 if no
 * engine instance is free; 9 if memory is exhausted. May be called from several threads at
 * once: one engine is started. Cost: 8 threads.
 */
ESendByCurlRet Qelvo_SyncSendStrByHttp_Init(void);

/* The same, without the error line of its own. */
ESendByCurlRet SendByCurlInit(void);

/*
 * Registers the module's log. SendByCurlInit does it; on its own it serves services that
 * want the log before they start the module.
 * Returns 0; 1 if the platform refused.
 */
uint32_t SendByCurlLogInit(void);

/*
 * Sends in the given mode: 0 as Qelvo_SyncSendStrByHttpCurl, 1 as
 * Qelvo_ASyncSendStrByHttpCurl, which tell the results; before that it sets dwRecvLen to
 * dwMaxRecvLen. Any other mode, or a null record, returns 1.
 *
 * Whatever eHeadType says, the request leaves as a POST with the body: libcurl decides so
 * once it is given a body (see docs/contracts.md, "Methods on the wire"). A URL that
 * contains "https" in small letters is sent without checking the server's certificate.
 */
ESendByCurlRet Qelvo_SendStrByHttp(TSendByCurlParam *ptParam, uint32_t eSyncMode);

/*
 * Sends and waits for the answer.
 *
 * A transfer that fails without any answer (refused, timed out, TLS) returns 10, as an HTTP
 * status other than 200 does. One that is cut off after a 200 returns 0, with what came.
 * 0 therefore does not promise a whole answer: check the text.
 *
 * pchRecvBuf: required. Trap: it must have room for one byte MORE than dwRecvLen says on
 *             entry; the answer is terminated. Untouched unless the result is 0.
 * dwRecvLen:  in, the capacity, which Qelvo_SendStrByHttp sets and this call does not; out,
 *             with 0 the length of the answer, with 11 the length that would have been needed.
 *             Otherwise unchanged.
 * Returns
 *   0   status 200, the answer (or what came of it) is in the buffer
 *   1   a null URL, body or buffer, a time-out or capacity of 0, the module is not started, or
 *       libcurl gave no handle, refused an option, or lost the answer for want of memory
 *   9   memory exhausted
 *   10  the status was not 200, or no answer came
 *   11  the answer is longer than the buffer: nothing was copied
 * Thread-safe. Blocks for up to dwTimeoutMS, or as long as the name lookup takes.
 */
ESendByCurlRet Qelvo_SyncSendStrByHttpCurl(TSendByCurlParam *ptParam);

/*
 * Sends and returns at once; pfNtf reports the end.
 *
 * When that is, if the server falls silent, is told in docs/contracts.md ("When does an
 * asynchronous request end?"): a time-out is noticed only with the worker's next activity.
 *
 * pchRecvBuf: required; belongs to the library until the notification. The whole answer is
 *             copied into it, with no bound and no terminator; dwMaxRecvLen is not looked at.
 * dwRecvLen:  not used. bCurlAuth and achUserAndPassWd are ignored: this send never
 *             authenticates.
 * Returns
 *   0   accepted: exactly one notification will come (if pfNtf is set)
 *   1   a null URL, body or buffer, a time-out of 0, no memory for the request, the module is not
 *       started, or libcurl refused an option
 *   4   all 1024 places are taken
 *   9   memory exhausted
 *   12  the engine has no place for it; 1024 outstanding sends end in 4, so only after
 *       requests were lost for want of memory
 * After a failure there is no notification and the buffer is the caller's. Trap: a failure
 * of the submission itself (a time-out of 0, no memory to queue it, or 12) costs one of the
 * 1024 places for the rest of the process, and that place may take the notification of a
 * later send for its own: docs/contracts.md, "Places of the send module".
 * Thread-safe.
 */
ESendByCurlRet Qelvo_ASyncSendStrByHttpCurl(TSendByCurlParam *ptParam);

/*
 * Writes the method of eHeadType, "PUT" for 1, "GET" for 2, "POST" for any other, into
 * dst, cut to size bytes with its terminator.
 * Returns 0; 1 if dst is null.
 */
uint32_t SendByCurlMethodTransToStr(uint32_t eHeadType, char *dst, uint32_t size);

/*
 * A ready-made notification: logs the result and the context as text, then releases the
 * context with free.
 *
 * pvContext: null, or a terminated text obtained from malloc or calloc. Since an answer is
 *            copied without terminator, that means: calloc, with more room than any answer
 *            needs.
 * Returns 0.
 */
uint32_t SendByCurlReqProgressNtf(ESendByCurlRet eErrCode, void *pvContext);

/*
 * The direct send: one libcurl handle, made, used and released within the call, without the
 * engine. It starts the module if that has not happened, and goes on where that fails.
 *
 * What leaves: for eHeadType 0 a POST of pchSendBuf up to its first zero byte (dwSendLen is only
 * logged, so the text must be terminated); for any other a plain GET without body.
 * bSSLserver:   0 sends without checking the server's certificate; otherwise libcurl's checks are on.
 * pchRecvBuf:   receives the answer, at most dwMaxRecvLen bytes, with no terminator where it
 *               fills them all; its first dwMaxRecvLen bytes are zeroed first. Null, or
 *               dwMaxRecvLen 0: libcurl writes the answer to the process's standard output.
 * dwRecvLen:    Trap: the position in pchRecvBuf where the answer is put, and not reset: SET IT TO
 *               0 before each send. Afterwards it is the end of what was received, also after
 *               a failure.
 * Time-outs of 0 mean libcurl's defaults. pfNtf and the authentication fields are ignored. The
 * HTTP status is not looked at.
 * Returns
 *   0  an answer came
 *   1  a null record, URL or body
 *   2  libcurl gave no handle
 *   3  the header list could not be built
 *   4  libcurl refused an option
 *   5  the transfer failed, or the answer is longer than the buffer
 *   7  time-out
 *   8  libcurl code 12
 * Thread-safe. Blocks for up to dwTimeoutMS, or as long as the name lookup takes.
 */
ESendByCurlRet Qelvo_SyncSendStrByHttp_Ext(TSendByCurlParam *ptParam);

/*
 * The direct send in its simple form: a POST, without checking the server's certificate.
 *
 * dwTimeoutMs: for the connection and for the whole transfer, in milliseconds.
 * pchRecvBuf, pdwRecvLen: together receive the answer; in, the capacity in bytes; out, with 0, the
 *              length. If either is null the answer is not collected, and *pdwRecvLen becomes 0
 *              with result 0.
 * Returns as Qelvo_SyncSendStrByHttp_Ext.
 */
ESendByCurlRet Qelvo_SyncSendStrByHttp(const char *pchURL, const char *pchSendBuf, uint32_t dwSendLen,
                                       uint32_t dwTimeoutMs, char *pchRecvBuf, uint32_t *pdwRecvLen);

/*
 * The direct send's libcurl write callback, for applications that drive an easy handle of their
 * own: puts a chunk behind the dwRecvLen bytes that pchRecvBuf holds.
 * Returns the number of bytes taken, or 0, which ends the transfer, if an argument is null or
 * empty or the chunk does not fit into dwMaxRecvLen; nothing of it is kept then.
 */
size_t Qelvo_Receive_Data(void *pBuf, size_t size, size_t nmemb, TSendByCurlParam *ptParam);

/*
 * Lets a libcurl easy handle share one DNS cache of the process, kept for 300 seconds. No send of
 * this library uses it.
 *
 * easy: a CURL handle. Handles that share must not run on different threads at the same time: the
 *       cache has no lock. The call itself may come from any thread while none of them is running.
 * Returns, where sharing was accepted, the libcurl code of setting the 300 seconds; otherwise a
 * value without meaning.
 */
uint32_t set_share_handle(void *easy);

/*
 * The console's self-test: sends a fixed temperature-check notification and logs what came back.
 *
 * nMode:  1 asynchronous, anything else synchronous.
 * pchUrl: at most 63 characters are used; null or empty means the built-in test endpoint.
 * Blocks for up to 5 s in synchronous mode, not counting a slow name lookup. Each call leaves the JSON text allocated
 * (about 110 bytes), and the 1 MiB receive buffer too where an asynchronous send was refused or no text could be made.
 */
void sendbycurltest(int32_t nMode, const char *pchUrl);

NVRHTTPCURL_END_DECLS

#endif
