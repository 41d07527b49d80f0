/* Posts with user name and password, which only the synchronous send passes on. */
#include <nvrhttpcurl/sendbycurl.h>
#include <stdio.h>

int main(int argc, char **argv)
{
    static char s_achAnswer[4096];
    TSendByCurlParam tParam = {.pchSendBuf = "{\"a\":1}", .dwSendLen = 7, .pchRecvBuf = s_achAnswer};
    if (argc != 3) {
        fprintf(stderr, "usage: post_auth URL USER:PASSWORD\n");
        return 2;
    }
    tParam.pchURL = argv[1];
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 5000;
    tParam.dwMaxRecvLen = sizeof(s_achAnswer) - 1;
    tParam.bCurlAuth = 1;
    /* A text that is cut would be another password. */
    if (snprintf(tParam.achUserAndPassWd, sizeof(tParam.achUserAndPassWd), "%s", argv[2]) >=
        (int)sizeof(tParam.achUserAndPassWd)) {
        fprintf(stderr, "user and password have more than %zu characters\n", sizeof(tParam.achUserAndPassWd) - 1);
        return 2;
    }

    ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    eRet = eRet == SENDBYCURL_OK ? Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_SYNC) : eRet;
    if (eRet == SENDBYCURL_HTTP_STATUS) {
        fprintf(stderr, "refused, or no answer\n"); /* the module does not tell the two apart */
    }
    printf("result %u: %s\n", eRet, s_achAnswer);
    return (int)eRet;
}
