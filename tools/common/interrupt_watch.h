/*
 * Ctrl-C as an orderly end: what is to be done at an interrupt runs on a thread, where it may lock
 * and print.
 */
#ifndef TOOLS_COMMON_INTERRUPT_WATCH_H
#define TOOLS_COMMON_INTERRUPT_WATCH_H

#include <functional>
#include <thread>

enum { STATUS_INTERRUPTED = 130 };

struct TInterruptWatch {
    std::thread tThread; /* of none: interrupts are ignored, as the caller of the program wants it */
};

/* Keeps interrupts from the calling thread and those that it starts from here on. */
void HoldInterrupts();

/*
 * After HoldInterrupts: calls pfInterrupted at the first interrupt. A second one ends the process
 * at once, whatever pfInterrupted is waiting for; a shell reports that as 130, too.
 */
void WatchInterrupts(TInterruptWatch &tWatch, std::function<void()> pfInterrupted);

/* If an interrupt has come, waits for pfInterrupted. */
void EndInterruptWatch(TInterruptWatch &tWatch);

#endif
