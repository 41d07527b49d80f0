/*
 * The send module: posts of JSON texts, and their answers.
 *
 * Call Qelvo_SyncSendStrByHttp_Init once; then, from any number of threads,
 * Qelvo_SendStrByHttp in mode 0 (the answer is in the caller's buffer when it returns) or
 * mode 1 (a notification comes from a worker thread). The module is never torn down: its
 * 8 worker threads live as long as the process. Start it after fork, and wait for the
 * notifications before leaving main: see "The process" in docs/contracts.md.
 */
#ifndef NVRHTTPCURL_SENDBYCURL_H
#define NVRHTTPCURL_SENDBYCURL_H

#include <stddef.h>
#include <stdint.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

/* What the sends return and what a notification receives. */
typedef uint32_t ESendByCurlRet;
/* Values of ESendByCurlRet. */
enum {
    SENDBYCURL_OK = 0,                /* success */
    SENDBYCURL_INVALID_PARAM = 1,     /* a required pointer is null, unknown mode; general engine failure */
    SENDBYCURL_NO_HANDLE = 2,         /* direct send: libcurl gave no handle */
    SENDBYCURL_NO_HEADER = 3,         /* direct send: the header list could not be built */
    SENDBYCURL_NO_SLOT = 4,           /* all 1024 callback slots are taken */
    SENDBYCURL_OPTION_REFUSED = 4,    /* direct send: libcurl refused an option */
    SENDBYCURL_TRANSFER_FAILED = 5,   /* direct send: the transfer failed, except for 7 and 8 */
    SENDBYCURL_TIMED_OUT = 7,         /* time-out */
    SENDBYCURL_ACCEPT_TIMED_OUT = 8,  /* direct send: libcurl code 12 */
    SENDBYCURL_NO_MEMORY = 9,         /* memory exhausted in the engine */
    SENDBYCURL_HTTP_STATUS = 10,      /* synchronous send: the status was not 200, or no answer came */
    SENDBYCURL_BUFFER_TOO_SMALL = 11, /* the answer is longer than the buffer */
    SENDBYCURL_LIMIT_REACHED = 12,    /* an engine limit was reached */
    SENDBYCURL_ENGINE_9 = 13,         /* reserved: the engine does not produce the code */
    SENDBYCURL_CONNECT_FAILED = 14,   /* the connection could not be made */
    SENDBYCURL_TLS_FAILED = 15        /* the TLS connection failed */
};

/* Values of TSendByCurlParam.eHeadType. Any other value is a POST over the engine, a GET in the direct send. */
enum {
    SENDBYCURL_METHOD_POST = 0, /* POST */
    SENDBYCURL_METHOD_PUT = 1,  /* sent as a POST too, by the direct send as a GET */
    SENDBYCURL_METHOD_GET = 2   /* sent as a POST too, by the direct send as a GET */
};

/* Values of eSyncMode. */
enum {
    SENDBYCURL_MODE_SYNC = 0, /* waits for the answer */
    SENDBYCURL_MODE_ASYNC = 1 /* a notification reports the end */
};

/*
 * End of an asynchronous send.
 *
 * eErrCode:  0 if an answer came, whatever its HTTP status; otherwise a code of the list above.
 * pvContext: pchRecvBuf of the record. The whole answer has been copied there, without a
 *            bound and without a terminator, and its length is not reported: use a zeroed
 *            buffer that is larger than any answer.
 *
 * Called once for each send that returned 0 (for the exception see "Slots of the send
 * module" in docs/contracts.md), on a worker thread, with no lock held; other notifications
 * may run at the same time. Until it returns, its worker drives no other transfer: be brief.
 * It may send again. The buffer is the caller's again from here on. The return value is
 * ignored.
 */
typedef uint32_t (*PFSendByCurlNtf)(ESendByCurlRet eErrCode, void *pvContext);

/*
 * One send. Zero the record, then fill in what is needed. It remains the caller's: an
 * asynchronous send no longer uses it after it has returned, except pchRecvBuf.
 */
typedef struct TSendByCurlParam {
    const char *pchURL;         /* target, required; any scheme that libcurl knows, "file:" too: check it */
    uint32_t eHeadType;         /* method: 0 POST, 1 PUT, 2 GET; for what is really sent see Qelvo_SendStrByHttp */
    const char *pchSendBuf;     /* body, required */
    uint32_t dwSendLen;         /* its length in bytes */
    uint32_t dwConnTimeOutMS;   /* for the connection, in milliseconds, not 0 */
    uint32_t dwTimeoutMS;       /* for the whole transfer, in milliseconds, not 0 */
    uint32_t dwMaxRecvLen;      /* capacity of pchRecvBuf in bytes, see each send */
    uint32_t bSSLserver;        /* direct send: 0 sends without checking the server's certificate */
    char *pchRecvBuf;           /* receives the answer */
    uint32_t dwRecvLen;         /* length of the answer; its use differs between the sends */
    PFSendByCurlNtf pfNtf;      /* asynchronous send: the notification; may be null */
    uint32_t bCurlAuth;         /* synchronous send: nonzero sends achUserAndPassWd */
    char achUserAndPassWd[128]; /* synchronous send: "user:password" */
} TSendByCurlParam;

/*
 * Starts the module. Call it once, before the first send. After success, a repeated call
 * returns 0 at once; after a failure, it tries again.
 *
 * Returns 0; 1 if the log module, a semaphore or the engine could not be set up; 12 if no
 * engine instance is free; 9 if memory is exhausted. May be called from several threads at
 * once: one engine is started. Trap: this is a NvrHttpCurlCltInit; call it before other threads
 * call that one, and before a first direct send, which starts the module, too.
 * Cost: 8 threads, 24 descriptors.
 */
ESendByCurlRet Qelvo_SyncSendStrByHttp_Init(void);

/* The same, without the error line of its own. */
ESendByCurlRet SendByCurlInit(void);

/*
 * Registers the module's log. SendByCurlInit does this, too; call it directly to have the
 * log before the module is started.
 * Returns 0; 1 if the platform refused.
 */
uint32_t SendByCurlLogInit(void);

/*
 * Sets dwRecvLen to dwMaxRecvLen, then sends in the given mode: 0 as
 * Qelvo_SyncSendStrByHttpCurl, 1 as Qelvo_ASyncSendStrByHttpCurl. See these for the results.
 * Any other mode, or a null record, returns 1.
 *
 * Whatever eHeadType says, the request is sent as a POST with the body: libcurl does this
 * whenever it has a body (see docs/contracts.md, "Methods on the wire"). A URL that contains
 * "https" in lower case is sent without checking the server's certificate.
 */
ESendByCurlRet Qelvo_SendStrByHttp(TSendByCurlParam *ptParam, uint32_t eSyncMode);

/*
 * Sends and waits for the answer.
 *
 * A transfer that fails without any answer (refused, timed out, TLS) returns 10, like an
 * HTTP status other than 200. One that is cut off after a 200 returns 0 with the part that
 * came, so 0 does not promise a complete answer: check the text.
 *
 * pchRecvBuf: required. Trap: it must hold one byte MORE than dwRecvLen says on entry, for
 *             the terminator. Unchanged unless the result is 0.
 * dwRecvLen:  in, the capacity, which Qelvo_SendStrByHttp sets and this call does not; out,
 *             with 0 the length of the answer, with 11 the length needed. Otherwise
 *             unchanged.
 * Returns
 *   0   status 200, the answer (or the part that came) is in the buffer
 *   1   a null URL, body or buffer, a time-out or capacity of 0, the module is not started,
 *       libcurl gave no handle or refused an option, or the answer was lost because memory
 *       ran out
 *   9   memory exhausted
 *   10  the status was not 200, or no answer came
 *   11  the answer is longer than the buffer: nothing was copied
 * Thread-safe. Blocks for up to dwTimeoutMS, or as long as the name lookup takes.
 */
ESendByCurlRet Qelvo_SyncSendStrByHttpCurl(TSendByCurlParam *ptParam);

/*
 * Sends and returns at once; pfNtf reports the end.
 *
 * If the server goes silent, a time-out is noticed only with the worker's next activity: see
 * docs/contracts.md ("When does an asynchronous request end?").
 *
 * pchRecvBuf: required; belongs to the library until the notification. The whole answer is
 *             copied into it, without a bound and without a terminator; dwMaxRecvLen is not
 *             used.
 * dwRecvLen:  not used. bCurlAuth and achUserAndPassWd are ignored: this send never
 *             authenticates.
 * Returns
 *   0   accepted: exactly one notification will come (if pfNtf is set)
 *   1   a null URL, body or buffer, a time-out of 0, no memory for the request, the module is not
 *       started, or libcurl refused an option
 *   4   all 1024 slots are taken
 *   9   memory exhausted
 *   12  the engine's limit is reached; 1024 outstanding sends return 4, so this comes only
 *       after requests were lost because memory ran out
 * After a failure there is no notification and the buffer is the caller's. Trap: a failure
 * of the submission itself (a time-out of 0, no memory to queue it, or 12) costs one of the
 * 1024 slots for the rest of the process, and a later send may be notified through that slot:
 * see "Slots of the send module" in docs/contracts.md.
 * Thread-safe.
 */
ESendByCurlRet Qelvo_ASyncSendStrByHttpCurl(TSendByCurlParam *ptParam);

/*
 * Writes the method of eHeadType, "PUT" for 1, "GET" for 2, "POST" for any other, into
 * dst, cut to size bytes including the terminator.
 * Returns 0; 1 if dst is null.
 */
uint32_t SendByCurlMethodTransToStr(uint32_t eHeadType, char *dst, uint32_t size);

/*
 * A ready-made notification: logs the result and the context as text, then releases the
 * context with free.
 *
 * pvContext: null, or a terminated text from malloc or calloc. Since an answer is copied
 *            without a terminator, use calloc with a size larger than any answer.
 * Returns 0.
 */
uint32_t SendByCurlReqProgressNtf(ESendByCurlRet eErrCode, void *pvContext);

/*
 * The direct send: one libcurl handle, created, used and released within the call, without
 * the engine. It starts the module if that has not been done, and goes on if that fails. Its log
 * lines, which are off by default, contain URL, body and answer.
 *
 * What is sent: for eHeadType 0 a POST of pchSendBuf up to its first zero byte (dwSendLen is
 * only logged, so the text must be terminated); for any other value a GET without body.
 * bSSLserver:   0 sends without checking the server's certificate; otherwise libcurl's checks are on.
 * pchRecvBuf:   receives the answer, at most dwMaxRecvLen bytes, without a terminator if it
 *               fills them all; its first dwMaxRecvLen bytes are zeroed first. Null, or
 *               dwMaxRecvLen 0: libcurl writes the answer to the process's standard output.
 * dwRecvLen:    Trap: the position in pchRecvBuf at which the answer is put. It is not reset:
 *               SET IT TO 0 before each send. Afterwards it is the end of what was received,
 *               also after a failure.
 * Time-outs of 0 mean libcurl's defaults. pfNtf and the authentication fields are ignored. The
 * HTTP status is not checked.
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
 * pchRecvBuf, pdwRecvLen: receive the answer; in, the capacity in bytes; out, with 0, the
 *              length. If either is null, the answer is not collected, and *pdwRecvLen becomes 0
 *              with result 0.
 * Returns as Qelvo_SyncSendStrByHttp_Ext.
 */
ESendByCurlRet Qelvo_SyncSendStrByHttp(const char *pchURL, const char *pchSendBuf, uint32_t dwSendLen,
                                       uint32_t dwTimeoutMs, char *pchRecvBuf, uint32_t *pdwRecvLen);

/*
 * The direct send's libcurl write callback, for applications that use an easy handle of their
 * own: appends a chunk to the dwRecvLen bytes in pchRecvBuf.
 * Returns the number of bytes taken, or 0, which ends the transfer, if an argument is null or
 * empty or the chunk does not fit into dwMaxRecvLen; nothing is stored then.
 */
size_t Qelvo_Receive_Data(void *pBuf, size_t size, size_t nmemb, TSendByCurlParam *ptParam);

/*
 * Lets a libcurl easy handle share one DNS cache of the process, kept for 300 seconds. The
 * sends of this library do not use it.
 *
 * easy: a CURL handle. Handles that share must not run on different threads at the same time:
 *       the cache has no lock. The call itself may be made on any thread while none of them runs.
 * Returns the libcurl code of setting the 300 seconds if sharing was accepted; otherwise a value
 * without meaning.
 */
uint32_t set_share_handle(void *easy);

/*
 * The console's self-test: sends a fixed temperature-check notification and logs the answer.
 *
 * nMode:  1 asynchronous, anything else synchronous.
 * pchUrl: at most 63 characters are used; null or empty means the built-in test endpoint.
 * Blocks for up to 5 s in synchronous mode, plus a slow name lookup. Each call leaves the JSON
 * text allocated (about 110 bytes), and also the 1 MiB receive buffer if an asynchronous send
 * was refused or the text could not be made.
 */
void sendbycurltest(int32_t nMode, const char *pchUrl);

NVRHTTPCURL_END_DECLS

#endif
