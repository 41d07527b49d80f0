#include "support/hcc_log.h"

#include <stdarg.h>
#include <stdio.h>

uint8_t g_bySendCurlLogType = HCC_LOG_TO_DEBUGLOG;

static void PrintNowhere(uint32_t, uint32_t, const char *, ...)
{
}

static void PrintToConsole(uint32_t, uint32_t, const char *szFormat, ...)
{
    va_list tArgs;
    va_start(tArgs, szFormat);
    vprintf(szFormat, tArgs);
    va_end(tArgs);
}

const PFHCCLogPrint g_apfHCCLogSides[HCC_LOG_TO_BOTH + 1][3] = {
    {PrintNowhere}, {DebugLogPrint}, {PrintToConsole}, {DebugLogPrint, PrintToConsole}};
