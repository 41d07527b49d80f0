#include <nvrhttpcurl/sendbycurl.h>
#include <stdio.h>

int main(int argc, char **argv)
{
    static const char achJson[] = "{\"hello\":\"recorder\"}";
    static char achAnswer[4096];
    TSendByCurlParam tParam = {.pchSendBuf = achJson, .dwSendLen = sizeof(achJson) - 1, .pchRecvBuf = achAnswer};
    tParam.pchURL = argc > 1 ? argv[1] : "http://127.0.0.1:8080/";
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 5000;
    tParam.dwMaxRecvLen = sizeof(achAnswer) - 1; /* the terminator may need the last byte */
    ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    eRet = eRet == SENDBYCURL_OK ? Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_SYNC) : eRet;
    printf("result %u: %s\n", eRet, achAnswer);
    return (int)eRet;
}
