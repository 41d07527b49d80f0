/*
 * Runs an asynchronous request on an instance of its own, which can be ended, and reads status and
 * answer when it has been reported. Without a user buffer no answer can overrun anything.
 */
#include <curl/curl.h>
#include <nvrhttpcurl/httpcurlclient.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { DEADLINE_S = 10, ANSWER_BYTES = 64 * 1024 };

static sem_t s_tEnded;
static ENvrHttpCurlCltRet s_eResult;

/* Runs on the worker. */
static uint32_t Ended(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet eResult,
                      void *pvUserBuf)
{
    (void)hReq;
    (void)eProg;
    (void)pvUserBuf;
    s_eResult = eResult;
    sem_post(&s_tEnded);
    return 0;
}

static int Report(HNvrHttpCurlCltReq hReq)
{
    static char s_achAnswer[ANSWER_BYTES + 1]; /* one byte more, for the terminator */
    uint32_t dwLen = ANSWER_BYTES;
    int32_t nStatus = 0;
    struct timespec tDeadline;
    clock_gettime(CLOCK_REALTIME, &tDeadline);
    tDeadline.tv_sec += DEADLINE_S;
    if (sem_timedwait(&s_tEnded, &tDeadline) != 0) {
        fprintf(stderr, "not reported within %d s\n", DEADLINE_S);
        return 1; /* the request still belongs to the worker: Uninit releases it */
    }
    ENvrHttpCurlCltRet eRet = s_eResult;
    eRet = eRet == NVRHTTPCURLCLT_OK ? NvrHttpCurlCltGetRespStatCode(hReq, &nStatus) : eRet;
    eRet = eRet == NVRHTTPCURLCLT_OK ? NvrHttpCurlCltGetRespBody(hReq, s_achAnswer, &dwLen) : eRet;
    printf("result %u, status %d: %s\n", eRet, nStatus, s_achAnswer);
    NvrHttpCurlCltReqDestroy(hReq);
    return eRet == NVRHTTPCURLCLT_OK ? 0 : 1;
}

int main(int argc, char **argv)
{
    const TNvrHttpCurlCltInitParam tInitParam = {.dwThreadNum = 1, .dwMaxAsycReqNum = 1};
    const TNvrHttpCurlCltMemCB tMemCB = {malloc, realloc, free};
    HNvrHttpCurlCltInst hInstance = NULL;
    HNvrHttpCurlCltReq hReq = NULL;
    sem_init(&s_tEnded, 0, 0);
    curl_global_init(CURL_GLOBAL_ALL); /* before there are threads */
    if (NvrHttpCurlCltInit(&tInitParam, &tMemCB, &hInstance) != NVRHTTPCURLCLT_OK) {
        return 1;
    }
    int nFailed = 1;
    if (NvrHttpCurlCltReqCreat(hInstance, &hReq) == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltSetReqUri(hReq, argc > 1 ? argv[1] : "http://127.0.0.1:8080/") == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltSetReqHeader(hReq, "Content-Type", "application/json") == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltSetReqBody(hReq, "{\"a\":1}", 7) == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltProcessReq(hReq, 5000, 2000, NVRHTTPCURLCLT_MODE_ASYNC, Ended, NULL) == NVRHTTPCURLCLT_OK) {
        nFailed = Report(hReq);
    } else if (hReq != NULL) {
        NvrHttpCurlCltReqDestroy(hReq); /* not accepted: there is no callback */
    }
    NvrHttpCurlCltUninit(hInstance);
    return nFailed;
}
