#include <pthread.h>

#include <new>

#include "platform/osp.h"

struct TOspSem {
    pthread_mutex_t tLock;
    pthread_cond_t tGiven;
    bool bAvailable;
};

static bool Prepare(TOspSem *ptSem)
{
    ptSem->bAvailable = true;
    if (pthread_mutex_init(&ptSem->tLock, nullptr) != 0) {
        return false;
    }
    if (pthread_cond_init(&ptSem->tGiven, nullptr) != 0) {
        pthread_mutex_destroy(&ptSem->tLock);
        return false;
    }
    return true;
}

uint32_t OspSemBCreate(HOspSem *phSem)
{
    if (phSem == nullptr) {
        return 0;
    }
    TOspSem *ptSem = new (std::nothrow) TOspSem;
    if (ptSem == nullptr) {
        return 0;
    }
    if (!Prepare(ptSem)) {
        delete ptSem;
        return 0;
    }
    *phSem = ptSem;
    return 1;
}

uint32_t OspSemTake(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    pthread_mutex_lock(&hSem->tLock);
    while (!hSem->bAvailable) {
        pthread_cond_wait(&hSem->tGiven, &hSem->tLock);
    }
    hSem->bAvailable = false;
    pthread_mutex_unlock(&hSem->tLock);
    return 1;
}

uint32_t OspSemGive(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    pthread_mutex_lock(&hSem->tLock);
    hSem->bAvailable = true;
    /* Under the lock: the next taker may delete the semaphore as soon as it is unlocked. */
    pthread_cond_signal(&hSem->tGiven);
    pthread_mutex_unlock(&hSem->tLock);
    return 1;
}

uint32_t OspSemDelete(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    pthread_cond_destroy(&hSem->tGiven);
    pthread_mutex_destroy(&hSem->tLock);
    delete hSem;
    return 1;
}
