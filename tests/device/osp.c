/*
 * Stands in for a device's libosp in the check of the device build: it shares no code with
 * platform/host, and is built without the project's build.
 */
#include <pthread.h>
#include <stdlib.h>

#include "platform/osp.h"

struct TOspSem {
    pthread_mutex_t mutex;
    pthread_cond_t given;
    int available;
};

struct TOspTask {
    pthread_t thread;
    PFOspTaskEntry entry;
    void *arg;
};

uint32_t OspSemBCreate(HOspSem *phSem)
{
    struct TOspSem *sem = malloc(sizeof(*sem));
    if (sem == NULL) {
        return 0;
    }
    pthread_mutex_init(&sem->mutex, NULL);
    pthread_cond_init(&sem->given, NULL);
    sem->available = 1;
    *phSem = sem;
    return 1;
}

uint32_t OspSemTake(HOspSem hSem)
{
    if (hSem == NULL) {
        return 0;
    }
    pthread_mutex_lock(&hSem->mutex);
    while (!hSem->available) {
        pthread_cond_wait(&hSem->given, &hSem->mutex);
    }
    hSem->available = 0;
    pthread_mutex_unlock(&hSem->mutex);
    return 1;
}

uint32_t OspSemGive(HOspSem hSem)
{
    if (hSem == NULL) {
        return 0;
    }
    pthread_mutex_lock(&hSem->mutex);
    hSem->available = 1;
    pthread_cond_signal(&hSem->given);
    pthread_mutex_unlock(&hSem->mutex);
    return 1;
}

uint32_t OspSemDelete(HOspSem hSem)
{
    if (hSem == NULL) {
        return 0;
    }
    pthread_cond_destroy(&hSem->given);
    pthread_mutex_destroy(&hSem->mutex);
    free(hSem);
    return 1;
}

static void *RunTask(void *context)
{
    struct TOspTask *task = context;
    task->entry(task->arg);
    return NULL;
}

HOspTask OspTaskCreate(PFOspTaskEntry pfEntry, const char *szName, uint8_t byPriority, uint32_t dwStackSize,
                       void *pvArg, uint16_t wFlags, uint64_t *pqwTaskID)
{
    struct TOspTask *task = malloc(sizeof(*task));
    pthread_attr_t attributes;
    (void)szName, (void)byPriority, (void)wFlags;
    if (task == NULL) {
        return NULL;
    }
    task->entry = pfEntry;
    task->arg = pvArg;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, dwStackSize);
    if (pthread_create(&task->thread, &attributes, RunTask, task) != 0) {
        free(task);
        task = NULL;
    } else if (pqwTaskID != NULL) {
        *pqwTaskID = (uint64_t)task->thread;
    }
    pthread_attr_destroy(&attributes);
    return task;
}

uint32_t OspTaskWaitEnd(HOspTask hTask)
{
    if (hTask == NULL || pthread_join(hTask->thread, NULL) != 0) {
        return 0;
    }
    free(hTask);
    return 1;
}

uint32_t OspRegCommand(const char *szName, PFOspCommand pfCommand, const char *szHelp)
{
    (void)szHelp;
    return szName != NULL && pfCommand != NULL;
}
