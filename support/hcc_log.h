/*
 * The library's log: where lines go, their levels, and the macros that write them.
 *
 * A format is written without the "%s[L:%d]" at its beginning (function, source line); the
 * macro joins the two literals, so that the binary contains the whole format and the debug
 * log receives it unchanged. The debug log has no va_list form, so the macro expands to both
 * calls: arguments are evaluated once for each side that takes the line, and not at all if
 * neither does. They must have no side effects.
 */
#ifndef SUPPORT_HCC_LOG_H
#define SUPPORT_HCC_LOG_H

#include <stdint.h>
#include <stdio.h>

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

/* Whether the given side takes lines. */
inline bool HCCLogGoesTo(uint8_t bySide)
{
    return (HCCLoadRelaxed(&g_bySendCurlLogType) & bySide) != 0;
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
        if (HCCLogGoesTo(HCC_LOG_TO_DEBUGLOG)) {                                                                       \
            DebugLogPrint(HCC_LOG_MODULE, (eLevel), "%s[L:%d]" szFormat, (szFunc), (nLine), ##__VA_ARGS__);            \
        }                                                                                                              \
        if (HCCLogGoesTo(HCC_LOG_TO_CONSOLE)) {                                                                        \
            printf("%s[L:%d]" szFormat, (szFunc), (nLine), ##__VA_ARGS__);                                             \
        }                                                                                                              \
    } while (0)

/* A line of the function that contains it. */
#define HCC_LOG(eLevel, szFormat, ...) HCC_LOG_AT(eLevel, __func__, __LINE__, szFormat, ##__VA_ARGS__)

/* A line of another function, for which the code runs. */
#define HCC_LOG_AS(szFunc, eLevel, szFormat, ...) HCC_LOG_AT(eLevel, szFunc, __LINE__, szFormat, ##__VA_ARGS__)

#endif
