#include "bench/heap.h"

#include <atomic>
#include <cstddef>
#include <malloc.h>

extern "C" {
/* NOLINTBEGIN(readability-identifier-naming): the C library's names for what this file replaces. */
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
/* NOLINTEND(readability-identifier-naming) */
}

namespace
{

bool g_bCounting;
std::atomic<int64_t> g_llAllocations;
std::atomic<int64_t> g_llBytes;

void *Taken(void *pvBlock)
{
    if (g_bCounting) {
        g_llAllocations++;
        g_llBytes += static_cast<int64_t>(malloc_usable_size(pvBlock));
    }
    return pvBlock;
}

void GivenBack(void *pvBlock)
{
    if (g_bCounting) {
        g_llBytes -= static_cast<int64_t>(malloc_usable_size(pvBlock));
    }
}

} // namespace

extern "C" void *malloc(size_t uSize)
{
    return Taken(__libc_malloc(uSize));
}

extern "C" void *calloc(size_t uCount, size_t uSize)
{
    return Taken(__libc_calloc(uCount, uSize));
}

extern "C" void *realloc(void *pvBlock, size_t uSize)
{
    GivenBack(pvBlock);
    return Taken(__libc_realloc(pvBlock, uSize));
}

extern "C" void free(void *pvBlock)
{
    GivenBack(pvBlock);
    __libc_free(pvBlock);
}

void CountHeap()
{
    g_bCounting = true;
}

int64_t HeapAllocations()
{
    return g_llAllocations;
}

int64_t HeapBytes()
{
    return g_llBytes;
}
