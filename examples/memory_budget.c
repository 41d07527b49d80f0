/*
 * An instance with memory callbacks of its own: they keep to a budget, which also bounds an answer.
 * A realloc that refuses must release the old block itself, since the library forgets it.
 */
#include <nvrhttpcurl/httpcurlclient.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

enum { BUDGET_BYTES = 64 * 1024 };

/* In front of each block; a union, so that the block is aligned as malloc's. */
typedef union THeader {
    size_t nSize;
    long double dAligned;
} THeader;

static pthread_mutex_t s_tLock = PTHREAD_MUTEX_INITIALIZER; /* callbacks run on any thread */
static size_t s_nUsed;

static void BudgetFree(void *pvBlock)
{
    THeader *ptHeader = (THeader *)pvBlock - 1;
    pthread_mutex_lock(&s_tLock);
    s_nUsed -= ptHeader->nSize;
    pthread_mutex_unlock(&s_tLock);
    free(ptHeader);
}

/* The block may be null. */
static void *BudgetRealloc(void *pvBlock, size_t nSize)
{
    THeader *ptOld = pvBlock != NULL ? (THeader *)pvBlock - 1 : NULL;
    THeader *ptNew = NULL;
    pthread_mutex_lock(&s_tLock);
    const size_t nOthers = s_nUsed - (ptOld != NULL ? ptOld->nSize : 0);
    if (nSize <= BUDGET_BYTES - nOthers) {
        ptNew = realloc(ptOld, sizeof(THeader) + nSize);
    }
    if (ptNew != NULL) {
        ptNew->nSize = nSize;
        s_nUsed = nOthers + nSize;
    }
    pthread_mutex_unlock(&s_tLock);
    if (ptNew == NULL && pvBlock != NULL) {
        BudgetFree(pvBlock); /* nobody else will */
    }
    return ptNew != NULL ? ptNew + 1 : NULL;
}

static void *BudgetMalloc(size_t nSize)
{
    return BudgetRealloc(NULL, nSize);
}

/* Returns 0 if an answer came and fits. */
static int Get(HNvrHttpCurlCltInst hInstance, const char *szUrl)
{
    static char s_achAnswer[BUDGET_BYTES + 1]; /* one byte more, for the terminator */
    uint32_t dwLen = BUDGET_BYTES;
    int32_t nStatus = 0;
    HNvrHttpCurlCltReq hReq = NULL;
    ENvrHttpCurlCltRet eRet = NvrHttpCurlCltReqCreat(hInstance, &hReq);
    eRet = eRet == 0 ? NvrHttpCurlCltSetReqUri(hReq, szUrl) : eRet;
    eRet = eRet == 0 ? NvrHttpCurlCltSetReqHeader(hReq, "Accept", "*/*") : eRet;
    eRet = eRet == 0 ? NvrHttpCurlCltSetReqBody(hReq, NULL, 0) : eRet;
    eRet = eRet == 0 ? NvrHttpCurlCltProcessReq(hReq, 5000, 2000, NVRHTTPCURLCLT_MODE_SYNC, NULL, NULL) : eRet;
    eRet = eRet == 0 ? NvrHttpCurlCltGetRespStatCode(hReq, &nStatus) : eRet;
    eRet = eRet == 0 ? NvrHttpCurlCltGetRespBody(hReq, s_achAnswer, &dwLen) : eRet;
    /* A refused realloc is result 1 here, although the server has sent its status. */
    printf("result %u, status %d, answer of %u bytes\n", eRet, nStatus, eRet == 0 ? dwLen : 0);
    if (hReq != NULL) {
        NvrHttpCurlCltReqDestroy(hReq);
    }
    return eRet == 0 ? 0 : 1;
}

int main(int argc, char **argv)
{
    const TNvrHttpCurlCltInitParam tInitParam = {.dwThreadNum = 0, .dwMaxAsycReqNum = 0};
    const TNvrHttpCurlCltMemCB tMemCB = {BudgetMalloc, BudgetRealloc, BudgetFree};
    HNvrHttpCurlCltInst hInstance = NULL;
    if (NvrHttpCurlCltInit(&tInitParam, &tMemCB, &hInstance) != NVRHTTPCURLCLT_OK) {
        return 1;
    }
    const int nFailed = Get(hInstance, argc > 1 ? argv[1] : "http://127.0.0.1:8080/");
    NvrHttpCurlCltUninit(hInstance);
    printf("in use at the end: %zu bytes\n", s_nUsed);
    return nFailed;
}
