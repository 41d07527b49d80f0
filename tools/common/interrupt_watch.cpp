#include "tools/common/interrupt_watch.h"

#include <csignal>
#include <utility>

namespace
{

enum { SIGNAL_OF_END = SIGUSR1 };

sigset_t SignalsOf(int nFirst, int nSecond)
{
    sigset_t tSignals;
    sigemptyset(&tSignals);
    sigaddset(&tSignals, nFirst);
    sigaddset(&tSignals, nSecond);
    return tSignals;
}

/* Nobody handles interrupts, so what blocks them is all that keeps one from ending the process. */
void LetSecondInterruptEnd()
{
    const sigset_t tInterrupt = SignalsOf(SIGINT, SIGINT);
    pthread_sigmask(SIG_UNBLOCK, &tInterrupt, nullptr);
}

/* A shell starts background jobs that way. */
bool InterruptsAreIgnored()
{
    struct sigaction tAction = {};
    return sigaction(SIGINT, nullptr, &tAction) == 0 && tAction.sa_handler == SIG_IGN;
}

} // namespace

void HoldInterrupts()
{
    const sigset_t tSignals = SignalsOf(SIGINT, SIGNAL_OF_END);
    pthread_sigmask(SIG_BLOCK, &tSignals, nullptr);
}

void WatchInterrupts(TInterruptWatch &tWatch, std::function<void()> pfInterrupted)
{
    if (InterruptsAreIgnored()) {
        return;
    }
    tWatch.tThread = std::thread([pfInterrupted = std::move(pfInterrupted)] {
        const sigset_t tSignals = SignalsOf(SIGINT, SIGNAL_OF_END);
        int nSignal = 0;
        sigwait(&tSignals, &nSignal);
        if (nSignal == SIGINT) {
            LetSecondInterruptEnd();
            pfInterrupted();
        }
    });
}

void EndInterruptWatch(TInterruptWatch &tWatch)
{
    if (tWatch.tThread.joinable()) {
        pthread_kill(tWatch.tThread.native_handle(), SIGNAL_OF_END);
        tWatch.tThread.join();
    }
}
