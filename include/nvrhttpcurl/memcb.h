/*
 * Memory callbacks: through this record the library allocates, grows and releases the
 * memory of its own records.
 */
#ifndef NVRHTTPCURL_MEMCB_H
#define NVRHTTPCURL_MEMCB_H

#include <stddef.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

/*
 * The three callbacks belong together: set all of them or none. They are copied by each
 * call that takes them, so the record itself may be on the stack.
 *
 * Every callback may be called from any thread that uses the library, worker threads
 * included, and from several threads at once. A callback must not call the library.
 *
 * How the library calls them:
 *   pfMalloc   with a byte count of at least 1; returns a block aligned as malloc's, or null
 *              if there is no memory. The block need not be cleared.
 *   pfRealloc  with a block of pfMalloc or pfRealloc and a byte count of at least 2; returns
 *              the block, moved or not, with its contents, or null. The block is null only
 *              when a request is run again after a failed realloc. After a null result the
 *              library drops the old block without releasing it (see "A failed realloc" in
 *              docs/contracts.md).
 *   pfFree     with a block of pfMalloc or pfRealloc, never null.
 */
typedef struct TNvrHttpCurlCltMemCB {
    void *(*pfMalloc)(size_t);          /* allocates */
    void *(*pfRealloc)(void *, size_t); /* grows */
    void (*pfFree)(void *);             /* releases */
} TNvrHttpCurlCltMemCB;

NVRHTTPCURL_END_DECLS

#endif
