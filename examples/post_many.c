/*
 * Posts more JSON texts at once than the send module has slots for. Result 4 says that all slots
 * are taken: nothing was sent, nothing is lost, the post is tried again after a pause.
 */
#include <nvrhttpcurl/sendbycurl.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { POSTS = 1500, ANSWER_BYTES = 4096, PAUSE_MS = 10, MAX_PAUSES = 3000, DEADLINE_S = 60 };

static sem_t s_tEnded;    /* one for each notification */
static sem_t s_tAnswered; /* one for each that brought an answer */

/* Several workers call it at the same time. */
static uint32_t Notified(ESendByCurlRet eErrCode, void *pvContext)
{
    free(pvContext); /* the answer buffer */
    if (eErrCode == SENDBYCURL_OK) {
        sem_post(&s_tAnswered);
    }
    sem_post(&s_tEnded);
    return 0;
}

/* 0 where there were as many as there may be: a silent server may keep all slots. */
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

/* Any other result than 4 is final. */
static ESendByCurlRet Post(const char *szUrl, uint32_t *pdwPauses)
{
    TSendByCurlParam tParam = {.pchURL = szUrl, .pchSendBuf = "{}", .dwSendLen = 2, .pfNtf = Notified};
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 30000;
    tParam.pchRecvBuf = calloc(1, ANSWER_BYTES); /* larger than any answer */
    if (tParam.pchRecvBuf == NULL) {
        return SENDBYCURL_NO_MEMORY;
    }
    ESendByCurlRet eRet = SENDBYCURL_OK;
    do {
        eRet = Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_ASYNC);
    } while (eRet == SENDBYCURL_NO_SLOT && Pause(pdwPauses));
    if (eRet != SENDBYCURL_OK) {
        free(tParam.pchRecvBuf); /* not accepted: there is no notification */
    }
    return eRet;
}

int main(int argc, char **argv)
{
    uint32_t dwPauses = 0;
    int nAccepted = 0;
    int nEnded = 0;
    int nAnswered = 0;
    sem_init(&s_tEnded, 0, 0);
    sem_init(&s_tAnswered, 0, 0);
    ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    for (; eRet == SENDBYCURL_OK && nAccepted < POSTS; nAccepted += eRet == SENDBYCURL_OK) {
        eRet = Post(argc > 1 ? argv[1] : "http://127.0.0.1:8080/", &dwPauses);
    }

    struct timespec tDeadline;
    clock_gettime(CLOCK_REALTIME, &tDeadline);
    tDeadline.tv_sec += DEADLINE_S;
    for (; nEnded < nAccepted && sem_timedwait(&s_tEnded, &tDeadline) == 0; ++nEnded) {
    }
    sem_getvalue(&s_tAnswered, &nAnswered);
    printf("last result %u, accepted %d, ended %d, answered %d, pauses %u\n", eRet, nAccepted, nEnded, nAnswered,
           dwPauses);
    return nAnswered == POSTS ? 0 : 1;
}
