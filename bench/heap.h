/*
 * What the process takes from the heap. malloc and its kin are this program's own, for all its libraries.
 */
#ifndef BENCH_HEAP_H
#define BENCH_HEAP_H

#include <cstdint>

/* Before the first thread. Off at first, since all threads share the counters. */
void CountHeap();

/* Calls of malloc, calloc and realloc since then. */
int64_t HeapAllocations();

/* Bytes that have been taken since then and not been given back. */
int64_t HeapBytes();

#endif
