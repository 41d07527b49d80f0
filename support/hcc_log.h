/*
 * The library's log: where lines go, their levels, and the macros that write them.
 *
 * A format is written without the "%s[L:%d]" at its beginning (function, source line); the
 * macro joins the two literals, so that the binary contains the whole format and the debug
 * log receives it unchanged. The debug log has no va_list form, so the macro calls each side
 * that takes the line; it does so in a loop, because two calls at each of 190 places made the
 * library a tenth larger. Arguments are evaluated once a side: they must have no side effects.
 */
#ifndef SUPPORT_HCC_LOG_H
#define SUPPORT_HCC_LOG_H

#include <stdint.h>

#include "platform/debuglog.h"
#include "support/hcc_atomic.h"
#include "support/hcc_numbers.h"

#if defined(__clang__)
/* ", ##__VA_ARGS__" is needed for formats without arguments; C++17 has no other spelling. */
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"
#endif

extern "C" {

/* Where lines go, as "sendbycurlsetlog" sets it: a mask of the two sides. */
enum { HCC_LOG_TO_DEBUGLOG = 1, HCC_LOG_TO_CONSOLE = 2, HCC_LOG_TO_BOTH = 3 };
extern uint8_t g_bySendCurlLogType;

/* Writes a line to one side. */
typedef void (*PFHCCLogPrint)(uint32_t dwModule, uint32_t dwLevel, const char *szFormat, ...) DEBUGLOG_PRINTF(3, 4);

/* For each value of the switch the sides that take lines, at least one, and null. */
extern const PFHCCLogPrint g_apfHCCLogSides[HCC_LOG_TO_BOTH + 1][3];

inline const PFHCCLogPrint *HCCLogSides()
{
    return g_apfHCCLogSides[HCCLoadRelaxed(&g_bySendCurlLogType) & HCC_LOG_TO_BOTH];
}
}

/* A pointer to anything, including functions, for "%p". */
template <typename T> inline const void *HCCLogPtr(T *ptAny)
{
    return reinterpret_cast<const void *>(ptAny);
}

/* A line with the given function name and source line. */
#define HCC_LOG_AT(eLevel, szFunc, nLine, szFormat, ...)                                                               \
    do {                                                                                                               \
        const PFHCCLogPrint *ppfPrint = HCCLogSides();                                                                 \
        do {                                                                                                           \
            (*ppfPrint)(HCC_LOG_MODULE, (eLevel), "%s[L:%d]" szFormat, (szFunc), (nLine), ##__VA_ARGS__);              \
        } while (*++ppfPrint != nullptr);                                                                              \
    } while (0)

/* A line of the function that contains it. */
#define HCC_LOG(eLevel, szFormat, ...) HCC_LOG_AT(eLevel, __func__, __LINE__, szFormat, ##__VA_ARGS__)

/* A line of another function, for which the code runs. */
#define HCC_LOG_AS(szFunc, eLevel, szFormat, ...) HCC_LOG_AT(eLevel, szFunc, __LINE__, szFormat, ##__VA_ARGS__)

#endif
