/*
 * The host's binary semaphores: one word, and a futex for those who wait. Taking an available
 * semaphore and giving one for which nobody waits need no system call.
 */
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "platform/osp.h"

enum : uint32_t { AVAILABLE, TAKEN, TAKEN_WITH_WAITERS };

/* Has a cache line of its own: semaphores of different workers are created one after the other. */
struct alignas(64) TOspSem {
    std::atomic<uint32_t> dwState{AVAILABLE};
};

static void Futex(TOspSem *ptSem, int nOperation, uint32_t dwValue)
{
    static_assert(sizeof(ptSem->dwState) == sizeof(uint32_t), "the kernel reads the word");
    syscall(SYS_futex, &ptSem->dwState, nOperation, dwValue, nullptr, nullptr, 0);
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
    *phSem = ptSem;
    return 1;
}

uint32_t OspSemTake(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    uint32_t dwState = AVAILABLE;
    if (hSem->dwState.compare_exchange_strong(dwState, TAKEN, std::memory_order_acquire)) {
        return 1;
    }
    /* Whoever has waited does not know whether others still do, and leaves the mark for them. */
    while (hSem->dwState.exchange(TAKEN_WITH_WAITERS, std::memory_order_acquire) != AVAILABLE) {
        Futex(hSem, FUTEX_WAIT_PRIVATE, TAKEN_WITH_WAITERS);
    }
    return 1;
}

uint32_t OspSemGive(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    if (hSem->dwState.exchange(AVAILABLE, std::memory_order_release) == TAKEN_WITH_WAITERS) {
        /* The next taker may have deleted the semaphore by now: only the kernel looks at the address. */
        Futex(hSem, FUTEX_WAKE_PRIVATE, 1);
    }
    return 1;
}

uint32_t OspSemDelete(HOspSem hSem)
{
    if (hSem == nullptr) {
        return 0;
    }
    delete hSem;
    return 1;
}
