/*
 * The device's operating-system layer: binary semaphores, tasks, console commands.
 *
 * On the device these calls are provided by a closed library; platform/host implements
 * them for Linux. This header states what the library relies on, and what every
 * implementation must therefore do. Nonzero is success unless a call says otherwise, and a
 * zero handle means "not created". All calls may be made from any thread.
 */
#ifndef PLATFORM_OSP_H
#define PLATFORM_OSP_H

#include <stdint.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

typedef struct TOspSem *HOspSem;
typedef struct TOspTask *HOspTask;
typedef void (*PFOspTaskEntry)(void *pvArg);
/* A command of any type, cast to this one; the console casts it back before it calls it. */
typedef void (*PFOspCommand)(void);

/*
 * Creates a binary semaphore that is available: the first take does not wait. *phSem is
 * written on success only. A handle already stored in *phSem is overwritten, not deleted.
 */
uint32_t OspSemBCreate(HOspSem *phSem);

/*
 * Takes the semaphore, waiting without limit. Not recursive: a second take by the same
 * thread waits for a give. What one thread wrote before its give is seen by the thread
 * whose take follows. Fails at once for a zero handle.
 */
uint32_t OspSemTake(HOspSem hSem);

/*
 * Makes the semaphore available; any thread may do so. Giving an available semaphore
 * leaves it available: gives are not counted. Fails at once for a zero handle.
 */
uint32_t OspSemGive(HOspSem hSem);

/*
 * Destroys the semaphore; the handle is invalid afterwards. No thread may be waiting for
 * it; it need not be available. Fails for a zero handle.
 */
uint32_t OspSemDelete(HOspSem hSem);

/*
 * Starts a thread that runs pfEntry(pvArg). It may run before the call returns.
 *
 * szName:      for inspection; copied.
 * byPriority:  a wish: an implementation may ignore it if the process may not set it.
 * dwStackSize: in bytes; the stack is at least this large.
 * wFlags:      0.
 * pqwTaskID:   receives an identifier for messages, before the call returns: the library logs it
 *              at once. May be null.
 * Returns the task, or null if it could not be started. For every task OspTaskWaitEnd must
 * be called once, which also releases it.
 */
HOspTask OspTaskCreate(PFOspTaskEntry pfEntry, const char *szName, uint8_t byPriority, uint32_t dwStackSize,
                       void *pvArg, uint16_t wFlags, uint64_t *pqwTaskID);

/*
 * Waits until the task's entry has returned and releases the task; the handle is invalid
 * afterwards. Returns at once for a task that has ended already. What the task wrote is seen
 * by the caller. Fails for a zero handle, and if the task itself calls it.
 */
uint32_t OspTaskWaitEnd(HOspTask hTask);

/*
 * Registers a console command. Name and help text are copied. A second registration of a
 * name replaces the first. Fails for a null or empty name and for a null command.
 */
uint32_t OspRegCommand(const char *szName, PFOspCommand pfCommand, const char *szHelp);

NVRHTTPCURL_END_DECLS

#endif
