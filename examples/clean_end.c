/*
 * Leaves main while https requests are under way. Uninit comes first: it stops the workers, which
 * libcrypto's clean-up at exit would otherwise race with, and releases the requests.
 */
#include <curl/curl.h>
#include <nvrhttpcurl/httpcurlclient.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { REQUESTS = 300, TASKS = 8, RUN_MS = 50 };

static uint32_t Ended(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet eResult,
                      void *pvUserBuf)
{
    (void)hReq;
    (void)eProg;
    (void)pvUserBuf;
    printf("a request ended with %u\n", eResult);
    return 0; /* Uninit releases the request */
}

static ENvrHttpCurlCltRet Start(HNvrHttpCurlCltInst hInstance, const char *szUrl)
{
    HNvrHttpCurlCltReq hReq = NULL;
    ENvrHttpCurlCltRet eRet = NvrHttpCurlCltReqCreat(hInstance, &hReq);
    eRet = eRet == NVRHTTPCURLCLT_OK ? NvrHttpCurlCltSetReqUri(hReq, szUrl) : eRet;
    eRet = eRet == NVRHTTPCURLCLT_OK ? NvrHttpCurlCltSetReqBody(hReq, "{}", 2) : eRet;
    eRet = eRet == NVRHTTPCURLCLT_OK
               ? NvrHttpCurlCltProcessReq(hReq, 60000, 60000, NVRHTTPCURLCLT_MODE_ASYNC, Ended, NULL)
               : eRet;
    if (eRet != NVRHTTPCURLCLT_OK && hReq != NULL) {
        NvrHttpCurlCltReqDestroy(hReq);
    }
    return eRet;
}

int main(int argc, char **argv)
{
    const struct timespec tRun = {0, RUN_MS * 1000000L};
    const TNvrHttpCurlCltInitParam tInitParam = {.dwThreadNum = TASKS, .dwMaxAsycReqNum = REQUESTS};
    const TNvrHttpCurlCltMemCB tMemCB = {malloc, realloc, free};
    HNvrHttpCurlCltInst hInstance = NULL;
    int nStarted = 0;
    curl_global_init(CURL_GLOBAL_ALL); /* before there are threads */
    ENvrHttpCurlCltRet eRet = NvrHttpCurlCltInit(&tInitParam, &tMemCB, &hInstance);
    for (; eRet == NVRHTTPCURLCLT_OK && nStarted < REQUESTS; nStarted += eRet == NVRHTTPCURLCLT_OK) {
        eRet = Start(hInstance, argc > 1 ? argv[1] : "https://127.0.0.1:8443/");
    }
    nanosleep(&tRun, NULL); /* a service would do its work here */

    NvrHttpCurlCltUninit(hInstance);
    printf("%d requests started, last result %u\n", nStarted, eRet);
    return eRet == NVRHTTPCURLCLT_OK ? 0 : 1;
}
