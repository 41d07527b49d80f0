/*
 * Memory callbacks: the one record through which the library obtains, grows and
 * releases the memory of its own records.
 */
#ifndef NVRHTTPCURL_MEMCB_H
#define NVRHTTPCURL_MEMCB_H

#include <stddef.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

/*
 * The three callbacks belong together: all are given or none is. They are copied
 * wherever they are handed over, so the record itself may live on the stack.
 *
 * Every callback may be called from any thread that uses the library, the worker
 * threads included, and from several of them at once. A callback must not call
 * back into the library.
 *
 * What the library asks of them:
 *   pfMalloc   a byte count of at least 1; returns a block aligned as malloc's, or
 *              null when memory is exhausted. The block need not be cleared.
 *   pfRealloc  a block of pfMalloc or pfRealloc and a byte count of at
 *              least 2; returns the block, moved or not, with its contents, or null.
 *              The block is null only when a request is run again after a failed realloc.
 *              After a null result the library drops the old block without
 *              releasing it (see "A failed realloc" in docs/contracts.md).
 *   pfFree     a block of pfMalloc or pfRealloc; never null.
 */
typedef struct TNvrHttpCurlCltMemCB {
    void *(*pfMalloc)(size_t);
    void *(*pfRealloc)(void *, size_t);
    void (*pfFree)(void *);
} TNvrHttpCurlCltMemCB;

NVRHTTPCURL_END_DECLS

#endif
