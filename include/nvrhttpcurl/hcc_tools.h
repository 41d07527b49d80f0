/*
 * Ticks, thread names and zero-filling. All functions may be called from any thread; each
 * makes at most one system call.
 */
#ifndef NVRHTTPCURL_HCC_TOOLS_H
#define NVRHTTPCURL_HCC_TOOLS_H

#include <stdint.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

/*
 * The clock ticks since an arbitrary fixed point, or 0 if the system call fails. A second
 * has sysconf(_SC_CLK_TCK) of them, usually 100.
 *
 * For an elapsed time, pass two counts to NVRHCCTickDiff and the result to NVRHCCTickToMS:
 * the 32-bit operations use the low half of a count.
 */
uint64_t NVRHCCGetTickCount(void);

/*
 * Ticks in milliseconds, in whole seconds only: the ticks are first divided by the tick
 * rate, then multiplied by 1000, so that 150 ticks of 10 ms are 1000 and 99 are 0. A result
 * above 2^32 - 1 wraps. 0 if the tick rate cannot be read.
 */
uint32_t NVRHCCTickToMS(uint32_t dwTicks);

/* dwEnd - dwStart, modulo 2^32: also correct if the count wrapped in between. */
uint32_t NVRHCCTickDiff(uint32_t dwStart, uint32_t dwEnd);

/*
 * Names the calling thread. The kernel keeps the first 15 characters.
 * Returns 0, or 0xFFFFFFFF if the system refuses.
 */
uint32_t NVRHCCThreadSetName(const char *szName);

/* Fills dwCount bytes of the block with zero and returns the block. */
void *NVRHCCMemzero(void *pvBlock, uint32_t dwCount);

NVRHTTPCURL_END_DECLS

#endif
