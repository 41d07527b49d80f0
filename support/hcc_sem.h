/*
 * A semaphore that is created by its first use.
 */
#ifndef SUPPORT_HCC_SEM_H
#define SUPPORT_HCC_SEM_H

#include "platform/osp.h"

extern "C" {

/*
 * Returns the semaphore stored at phSem; creates and stores it first if there is none.
 * Threads that call at the same time all get the same one; surplus ones are deleted. Null if
 * none could be created; the next call tries again.
 */
HOspSem HCCSemEnsure(HOspSem *phSem);
}

#endif
