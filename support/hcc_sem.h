/*
 * A semaphore that exists from its first use on.
 */
#ifndef SUPPORT_HCC_SEM_H
#define SUPPORT_HCC_SEM_H

#include "platform/osp.h"

extern "C" {

/*
 * The semaphore stored at phSem, created there if none is yet. However many threads come
 * first at once, all get the same one, and the ones created in vain are deleted. Null if
 * none could be created; the next call tries again.
 */
HOspSem HCCSemEnsure(HOspSem *phSem);
}

#endif
