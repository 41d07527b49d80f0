/*
 * Keeps the time-outs of an instance with one task on time. Its worker notices a time-out with its
 * next activity only; a cheap request, submitted again and again, is that activity.
 */
#include <curl/curl.h>
#include <nvrhttpcurl/httpcurlclient.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { TIMEOUT_MS = 1000, PERIOD_MS = 50, MAX_PERIODS = 100 };

static HNvrHttpCurlCltReq s_hPost;
static sem_t s_tPosted; /* the post has ended */
static sem_t s_tCheap;  /* the cheap request may be submitted */
static ENvrHttpCurlCltRet s_ePosted;

static uint32_t Ended(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet eResult,
                      void *pvUserBuf)
{
    (void)eProg;
    (void)pvUserBuf;
    if (hReq == s_hPost) {
        s_ePosted = eResult;
    }
    sem_post(hReq == s_hPost ? &s_tPosted : &s_tCheap);
    return 0;
}

static ENvrHttpCurlCltRet Submit(HNvrHttpCurlCltReq hReq)
{
    /* Setting the body again empties the answer of the run before. */
    const ENvrHttpCurlCltRet eRet = NvrHttpCurlCltSetReqBody(hReq, NULL, 0);
    return eRet == NVRHTTPCURLCLT_OK
               ? NvrHttpCurlCltProcessReq(hReq, TIMEOUT_MS, TIMEOUT_MS, NVRHTTPCURLCLT_MODE_ASYNC, Ended, NULL)
               : eRet;
}

static ENvrHttpCurlCltRet Start(HNvrHttpCurlCltInst hInstance, const char *szUrl, HNvrHttpCurlCltReq *phReq)
{
    ENvrHttpCurlCltRet eRet = NvrHttpCurlCltReqCreat(hInstance, phReq);
    eRet = eRet == NVRHTTPCURLCLT_OK ? NvrHttpCurlCltSetReqUri(*phReq, szUrl) : eRet;
    eRet = eRet == NVRHTTPCURLCLT_OK ? Submit(*phReq) : eRet;
    if (eRet != NVRHTTPCURLCLT_OK && *phReq != NULL) {
        NvrHttpCurlCltReqDestroy(*phReq); /* not accepted: Uninit does not release it */
    }
    return eRet;
}

/* Never while it is under way: it may be submitted again only after its callback. */
static int WaitForPost(HNvrHttpCurlCltReq hCheap)
{
    const struct timespec tPeriod = {0, PERIOD_MS * 1000000L};
    for (int nII = 0; nII < MAX_PERIODS; ++nII) {
        if (sem_trywait(&s_tCheap) == 0 && Submit(hCheap) != NVRHTTPCURLCLT_OK) {
            return 1;
        }
        nanosleep(&tPeriod, NULL);
        if (sem_trywait(&s_tPosted) == 0) {
            printf("result %u after about %d ms\n", s_ePosted, (nII + 1) * PERIOD_MS);
            return 0;
        }
    }
    fprintf(stderr, "not reported\n");
    return 1;
}

int main(int argc, char **argv)
{
    /* One more than there are requests: at the limit a repeated submission is refused, too. */
    const TNvrHttpCurlCltInitParam tInitParam = {.dwThreadNum = 1, .dwMaxAsycReqNum = 3};
    const TNvrHttpCurlCltMemCB tMemCB = {malloc, realloc, free};
    HNvrHttpCurlCltInst hInstance = NULL;
    HNvrHttpCurlCltReq hCheap = NULL;
    sem_init(&s_tPosted, 0, 0);
    sem_init(&s_tCheap, 0, 0);
    curl_global_init(CURL_GLOBAL_ALL); /* before there are threads */
    int nFailed = 1;
    if (NvrHttpCurlCltInit(&tInitParam, &tMemCB, &hInstance) == NVRHTTPCURLCLT_OK &&
        Start(hInstance, argc > 1 ? argv[1] : "http://127.0.0.1:8080/", &s_hPost) == NVRHTTPCURLCLT_OK &&
        Start(hInstance, "file:///dev/null", &hCheap) == NVRHTTPCURLCLT_OK) {
        nFailed = WaitForPost(hCheap);
    }
    NvrHttpCurlCltUninit(hInstance); /* releases what was submitted, under way or not */
    return nFailed;
}
