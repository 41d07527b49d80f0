#include "nvrhttpcurl/hcc_tools.h"

#include <string.h>
#include <sys/prctl.h>
#include <sys/times.h>
#include <unistd.h>

#include "support/hcc_atomic.h"

/* Clock ticks per second as last read. Every writer stores the same system value. */
static int32_t nTicksPerSec = 0;

uint64_t NVRHCCGetTickCount(void)
{
    struct tms tTimes = {};
    const clock_t tElapsed = times(&tTimes);
    return tElapsed == static_cast<clock_t>(-1) ? 0 : static_cast<uint64_t>(tElapsed);
}

uint32_t NVRHCCTickToMS(uint32_t dwTicks)
{
    int32_t nRate = HCCLoadRelaxed(&nTicksPerSec);
    if (nRate <= 0) {
        nRate = static_cast<int32_t>(sysconf(_SC_CLK_TCK));
        HCCStoreRelaxed(&nTicksPerSec, nRate);
        if (nRate <= 0) {
            return 0;
        }
    }
    /* Whole seconds: callers rely on dividing first. */
    return dwTicks / static_cast<uint32_t>(nRate) * 1000U;
}

uint32_t NVRHCCTickDiff(uint32_t dwStart, uint32_t dwEnd)
{
    return dwEnd - dwStart;
}

uint32_t NVRHCCThreadSetName(const char *szName)
{
    return prctl(PR_SET_NAME, szName, 0) == 0 ? 0 : 0xFFFFFFFFU;
}

void *NVRHCCMemzero(void *pvBlock, uint32_t dwCount)
{
    return memset(pvBlock, 0, dwCount);
}
