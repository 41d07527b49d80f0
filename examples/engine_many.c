/*
 * Runs more requests than an instance allows at once. Result 8 says that its limit is reached: the
 * request is unchanged and submitted again after a pause. A request counts until it is destroyed,
 * which its callback does here.
 */
#include <curl/curl.h>
#include <nvrhttpcurl/httpcurlclient.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { REQUESTS = 100, LIMIT = 8, TASKS = 2, PAUSE_MS = 10, MAX_PAUSES = 1000, DEADLINE_S = 30 };

static sem_t s_tEnded;

static uint32_t Ended(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet eResult,
                      void *pvUserBuf)
{
    (void)eProg;
    (void)eResult;
    (void)pvUserBuf;
    NvrHttpCurlCltReqDestroy(hReq); /* the last use of it */
    sem_post(&s_tEnded);
    return 0;
}

/* 0 where there were as many as there may be. */
static int Pause(uint32_t *pdwPauses)
{
    const struct timespec tPause = {0, PAUSE_MS * 1000000L};
    if (*pdwPauses == MAX_PAUSES) {
        return 0;
    }
    ++*pdwPauses;
    nanosleep(&tPause, NULL);
    return 1;
}

static ENvrHttpCurlCltRet Submit(HNvrHttpCurlCltReq hReq, uint32_t *pdwPauses)
{
    ENvrHttpCurlCltRet eRet = NVRHTTPCURLCLT_OK;
    do {
        eRet = NvrHttpCurlCltProcessReq(hReq, 5000, 2000, NVRHTTPCURLCLT_MODE_ASYNC, Ended, NULL);
    } while (eRet == NVRHTTPCURLCLT_LIMIT_REACHED && Pause(pdwPauses));
    return eRet;
}

static ENvrHttpCurlCltRet Start(HNvrHttpCurlCltInst hInstance, const char *szUrl, uint32_t *pdwPauses)
{
    HNvrHttpCurlCltReq hReq = NULL;
    ENvrHttpCurlCltRet eRet = NvrHttpCurlCltReqCreat(hInstance, &hReq);
    eRet = eRet == NVRHTTPCURLCLT_OK ? NvrHttpCurlCltSetReqUri(hReq, szUrl) : eRet;
    eRet = eRet == NVRHTTPCURLCLT_OK ? NvrHttpCurlCltSetReqBody(hReq, "{}", 2) : eRet;
    eRet = eRet == NVRHTTPCURLCLT_OK ? Submit(hReq, pdwPauses) : eRet;
    if (eRet != NVRHTTPCURLCLT_OK && hReq != NULL) {
        NvrHttpCurlCltReqDestroy(hReq); /* not accepted: there is no callback */
    }
    return eRet;
}

int main(int argc, char **argv)
{
    const TNvrHttpCurlCltInitParam tInitParam = {.dwThreadNum = TASKS, .dwMaxAsycReqNum = LIMIT};
    const TNvrHttpCurlCltMemCB tMemCB = {malloc, realloc, free};
    HNvrHttpCurlCltInst hInstance = NULL;
    uint32_t dwPauses = 0;
    int nAccepted = 0;
    int nEnded = 0;
    sem_init(&s_tEnded, 0, 0);
    curl_global_init(CURL_GLOBAL_ALL); /* before there are threads */
    ENvrHttpCurlCltRet eRet = NvrHttpCurlCltInit(&tInitParam, &tMemCB, &hInstance);
    for (; eRet == NVRHTTPCURLCLT_OK && nAccepted < REQUESTS; nAccepted += eRet == NVRHTTPCURLCLT_OK) {
        eRet = Start(hInstance, argc > 1 ? argv[1] : "http://127.0.0.1:8080/", &dwPauses);
    }

    struct timespec tDeadline;
    clock_gettime(CLOCK_REALTIME, &tDeadline);
    tDeadline.tv_sec += DEADLINE_S;
    for (; nEnded < nAccepted && sem_timedwait(&s_tEnded, &tDeadline) == 0; ++nEnded) {
    }
    NvrHttpCurlCltUninit(hInstance); /* ends what is still outstanding */
    printf("last result %u, accepted %d, ended %d, pauses %u\n", eRet, nAccepted, nEnded, dwPauses);
    return nEnded == REQUESTS ? 0 : 1;
}
