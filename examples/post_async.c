/* Posts one JSON text asynchronously and waits for its notification. */
#include <nvrhttpcurl/sendbycurl.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { ANSWER_BYTES = 0x10000, DEADLINE_S = 10 };

static sem_t s_tNotified;
static ESendByCurlRet s_eResult;

/* Runs on a worker thread: keeps the result and returns. */
static uint32_t Notified(ESendByCurlRet eErrCode, void *pvContext)
{
    (void)pvContext; /* the answer buffer, which main has */
    s_eResult = eErrCode;
    sem_post(&s_tNotified);
    return 0;
}

int main(int argc, char **argv)
{
    const char *szJson = "{\"hello\":\"recorder\"}";
    /* Zeroed and larger than any answer: the copy has no bound and no terminator. */
    char *pchAnswer = calloc(1, ANSWER_BYTES);
    if (pchAnswer == NULL) {
        return 1;
    }
    sem_init(&s_tNotified, 0, 0);

    TSendByCurlParam tParam = {.pchURL = argc > 1 ? argv[1] : "http://127.0.0.1:8080/",
                               .pchSendBuf = szJson,
                               .dwSendLen = (uint32_t)strlen(szJson),
                               .dwConnTimeOutMS = 2000,
                               .dwTimeoutMS = 5000,
                               .pchRecvBuf = pchAnswer,
                               .pfNtf = Notified};
    ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    if (eRet == SENDBYCURL_OK) {
        eRet = Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_ASYNC);
    }
    if (eRet != SENDBYCURL_OK) {
        fprintf(stderr, "not sent: %u\n", eRet);
        free(pchAnswer);
        return (int)eRet;
    }

    /* If the server goes silent, the notification may not come: use a deadline of your own. */
    struct timespec tDeadline;
    clock_gettime(CLOCK_REALTIME, &tDeadline);
    tDeadline.tv_sec += DEADLINE_S;
    if (sem_timedwait(&s_tNotified, &tDeadline) != 0) {
        fprintf(stderr, "no notification within %d s\n", DEADLINE_S);
        return 1; /* the buffer still belongs to the library */
    }
    printf("result %u: %s\n", s_eResult, pchAnswer);
    free(pchAnswer);
    return (int)s_eResult;
}
