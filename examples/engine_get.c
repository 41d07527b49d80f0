/* Reads a resource through an engine instance without workers. */
#include <nvrhttpcurl/httpcurlclient.h>
#include <stdio.h>
#include <stdlib.h>

static int PrintAnswer(HNvrHttpCurlCltReq hReq)
{
    int32_t nStatus = 0;
    uint32_t dwLen = 0;
    /* The run reports success even for a failed transfer: check the status. */
    if (NvrHttpCurlCltGetRespStatCode(hReq, &nStatus) != NVRHTTPCURLCLT_OK || nStatus == 0 ||
        NvrHttpCurlCltGetRespBodyLen(hReq, &dwLen) != NVRHTTPCURLCLT_OK) {
        fprintf(stderr, "no answer\n");
        return 1;
    }
    printf("status %d, %u bytes\n", nStatus, dwLen);

    uint32_t dwSize = dwLen > 0 ? dwLen : 1; /* a size of 0 is refused */
    char *pchBody = malloc((size_t)dwSize + 1);
    if (pchBody == NULL) {
        return 1;
    }
    const int nFailed = NvrHttpCurlCltGetRespBody(hReq, pchBody, &dwSize) != NVRHTTPCURLCLT_OK;
    if (!nFailed) {
        printf("%s\n", pchBody);
    }
    free(pchBody);
    return nFailed;
}

int main(int argc, char **argv)
{
    const TNvrHttpCurlCltInitParam tInitParam = {.dwThreadNum = 0, .dwMaxAsycReqNum = 0};
    const TNvrHttpCurlCltMemCB tMemCB = {malloc, realloc, free};
    HNvrHttpCurlCltInst hInstance = NULL;
    HNvrHttpCurlCltReq hReq = NULL;
    if (NvrHttpCurlCltInit(&tInitParam, &tMemCB, &hInstance) != NVRHTTPCURLCLT_OK) {
        return 1;
    }

    int nFailed = 1;
    /* The body setter installs the response buffer; the method after it makes the request a GET. */
    if (NvrHttpCurlCltReqCreat(hInstance, &hReq) == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltSetReqUri(hReq, argc > 1 ? argv[1] : "http://127.0.0.1:8080/") == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltSetReqHeader(hReq, "Accept", "*/*") == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltSetReqBody(hReq, NULL, 0) == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltSetReqMethod(hReq, "GET") == NVRHTTPCURLCLT_OK &&
        NvrHttpCurlCltProcessReq(hReq, 5000, 2000, NVRHTTPCURLCLT_MODE_SYNC, NULL, NULL) == NVRHTTPCURLCLT_OK) {
        nFailed = PrintAnswer(hReq);
    }
    if (hReq != NULL) {
        NvrHttpCurlCltReqDestroy(hReq);
    }
    NvrHttpCurlCltUninit(hInstance);
    return nFailed;
}
