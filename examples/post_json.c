#include <nvrhttpcurl/sendbycurl.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char **argv)
{
    static char achAnswer[4096 + 1]; /* one byte more than the capacity told below */
    const char *szJson = "{\"hello\":\"recorder\"}";
    TSendByCurlParam tParam = {.pchURL = argc > 1 ? argv[1] : "http://127.0.0.1:8080/",
                               .pchSendBuf = szJson,
                               .dwSendLen = (uint32_t)strlen(szJson),
                               .dwConnTimeOutMS = 2000,
                               .dwTimeoutMS = 5000,
                               .pchRecvBuf = achAnswer,
                               .dwMaxRecvLen = 4096};
    ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    eRet = eRet == SENDBYCURL_OK ? Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_SYNC) : eRet;
    printf("result %u: %s\n", eRet, achAnswer);
    return (int)eRet;
}
