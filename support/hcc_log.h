/*
 * The library's one way of saying something: where lines go, their levels and the macros.
 *
 * A format is written without its opening "%s[L:%d]" (emitting function, source line); the
 * macro joins the two literals, so that the whole format stands in the binary and reaches
 * the debug log as it is. The debug log has no va_list form, therefore a macro that
 * expands to both calls: arguments are evaluated once for each side that takes the line, and
 * not at all if none does. They must have no side effects.
 */
#ifndef SUPPORT_HCC_LOG_H
#define SUPPORT_HCC_LOG_H

#include <stdint.h>
#include <stdio.h>

#include "platform/debuglog.h"
#include "support/hcc_atomic.h"

#if defined(__clang__)
/* ", ##__VA_ARGS__" is needed for formats without arguments; C++17 has no other spelling. */
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"
#endif

extern "C" {

/* Who gets a line, as "sendbycurlsetlog" sets it. The values are a mask of the two sides. */
enum { HCC_LOG_TO_DEBUGLOG = 1, HCC_LOG_TO_CONSOLE = 2, HCC_LOG_TO_BOTH = 3 };
extern uint8_t g_bySendCurlLogType;

/* Whether the given side takes lines at present. */
inline bool HCCLogGoesTo(uint8_t bySide)
{
    return (HCCLoadRelaxed(&g_bySendCurlLogType) & bySide) != 0;
}
}

/* The library's module in the debug log, and the levels of its lines there. */
enum { HCC_LOG_MODULE = 123 };
enum { HCC_LEVEL_TRACE = 1, HCC_LEVEL_ERROR = 2, HCC_LEVEL_SHOW = 3, HCC_LEVEL_INFO = 4 };

/* A pointer to anything, functions included, as "%p" wants it. */
template <typename T> inline const void *HCCLogPtr(T *ptAny)
{
    return reinterpret_cast<const void *>(ptAny);
}

/* A line under the given function name and source line. */
#define HCC_LOG_AT(eLevel, szFunc, nLine, szFormat, ...)                                                               \
    do {                                                                                                               \
        if (HCCLogGoesTo(HCC_LOG_TO_DEBUGLOG)) {                                                                       \
            DebugLogPrint(HCC_LOG_MODULE, (eLevel), "%s[L:%d]" szFormat, (szFunc), (nLine), ##__VA_ARGS__);            \
        }                                                                                                              \
        if (HCCLogGoesTo(HCC_LOG_TO_CONSOLE)) {                                                                        \
            printf("%s[L:%d]" szFormat, (szFunc), (nLine), ##__VA_ARGS__);                                             \
        }                                                                                                              \
    } while (0)

/* A line of the operation that the code stands in. */
#define HCC_LOG(eLevel, szFormat, ...) HCC_LOG_AT(eLevel, __func__, __LINE__, szFormat, ##__VA_ARGS__)

/* A line of another operation, on whose behalf the code runs. */
#define HCC_LOG_AS(szFunc, eLevel, szFormat, ...) HCC_LOG_AT(eLevel, szFunc, __LINE__, szFormat, ##__VA_ARGS__)

#endif
