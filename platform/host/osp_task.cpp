#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "platform/osp.h"

/* The kernel keeps this many bytes of a thread's name, including the terminator. */
enum { NAME_SIZE = 16 };

struct TOspTask {
    pthread_t tThread;
    sem_t tStarted;
    PFOspTaskEntry pfEntry;
    void *pvArg;
    uint64_t *pqwTaskID;
    uint8_t byPriority;
    char achName[NAME_SIZE];
};

/*
 * Real-time round robin, if the process may set it. The device's 1 to 255 become the eight
 * lowest of the host's real-time priorities: above every ordinary thread, below the host's own
 * real-time work. 0 changes nothing. The priority is not inherited: threads that the task
 * starts (a resolver's, for example) are ordinary ones.
 */
static void TryPriority(uint8_t byPriority)
{
    if (byPriority == 0) {
        return;
    }
    sched_param tParam = {};
    tParam.sched_priority = sched_get_priority_min(SCHED_RR) + byPriority / 32;
    sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &tParam);
}

static void *RunTask(void *pvTask)
{
    TOspTask *ptTask = static_cast<TOspTask *>(pvTask);
    if (ptTask->achName[0] != '\0') {
        pthread_setname_np(pthread_self(), ptTask->achName);
    }
    TryPriority(ptTask->byPriority);
    if (ptTask->pqwTaskID != nullptr) {
        *ptTask->pqwTaskID = static_cast<uint64_t>(gettid());
    }
    sem_post(&ptTask->tStarted);
    ptTask->pfEntry(ptTask->pvArg);
    return nullptr;
}

/* The wanted size, or the host's minimum if that is more, in whole pages. */
static size_t StackSize(uint32_t dwWanted)
{
    const size_t uPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t uWanted = std::max(static_cast<size_t>(dwWanted), static_cast<size_t>(PTHREAD_STACK_MIN));
    return (uWanted + uPage - 1) / uPage * uPage;
}

static bool StartThread(TOspTask *ptTask, uint32_t dwStackSize)
{
    pthread_attr_t tAttr;
    if (pthread_attr_init(&tAttr) != 0) {
        return false;
    }
    const bool bStarted = pthread_attr_setstacksize(&tAttr, StackSize(dwStackSize)) == 0 &&
                          pthread_create(&ptTask->tThread, &tAttr, RunTask, ptTask) == 0;
    pthread_attr_destroy(&tAttr);
    return bStarted;
}

HOspTask OspTaskCreate(PFOspTaskEntry pfEntry, const char *szName, uint8_t byPriority, uint32_t dwStackSize,
                       void *pvArg, uint16_t wFlags, uint64_t *pqwTaskID)
{
    if (pfEntry == nullptr || wFlags != 0) {
        return nullptr;
    }
    TOspTask *ptTask = new (std::nothrow) TOspTask();
    if (ptTask == nullptr) {
        return nullptr;
    }
    ptTask->pfEntry = pfEntry;
    ptTask->pvArg = pvArg;
    ptTask->pqwTaskID = pqwTaskID;
    ptTask->byPriority = byPriority;
    snprintf(ptTask->achName, sizeof(ptTask->achName), "%s", szName != nullptr ? szName : "");
    sem_init(&ptTask->tStarted, 0, 0);

    if (!StartThread(ptTask, dwStackSize)) {
        sem_destroy(&ptTask->tStarted);
        delete ptTask;
        return nullptr;
    }
    /* The thread writes its identifier before its entry runs: then both sides see it. */
    while (sem_wait(&ptTask->tStarted) != 0 && errno == EINTR) {
    }
    return ptTask;
}

uint32_t OspTaskWaitEnd(HOspTask hTask)
{
    /* A task that waits for itself fails here: pthread_join need not detect it. */
    if (hTask == nullptr || pthread_equal(hTask->tThread, pthread_self()) != 0 ||
        pthread_join(hTask->tThread, nullptr) != 0) {
        return 0;
    }
    sem_destroy(&hTask->tStarted);
    delete hTask;
    return 1;
}
