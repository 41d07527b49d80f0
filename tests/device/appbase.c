/*
 * Stands in for a device's libappbase in the check of the device build, like osp.c beside it. Its
 * debug log goes to standard error, whatever the levels.
 */
#include <arpa/inet.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "platform/appbase.h"
#include "platform/debuglog.h"

char *AppStrstr(const char *szText, const char *szPart)
{
    return szText != NULL && szPart != NULL ? strstr(szText, szPart) : NULL;
}

uint32_t AppStrlen(const char *szText)
{
    return szText != NULL ? (uint32_t)strlen(szText) : 0;
}

void AppDelay(uint32_t dwMS)
{
    usleep(dwMS * 1000);
}

uint16_t AppConvertHtons(uint16_t wHost)
{
    return htons(wHost);
}

uint32_t AppConvertStrtoNet(const char *szAddr, TAppNetAddr *ptAddr)
{
    struct in_addr address;
    if (szAddr == NULL || ptAddr == NULL || inet_pton(AF_INET, szAddr, &address) != 1) {
        return 1;
    }
    ptAddr->dwFamily = AF_INET;
    ptAddr->dwIPv4 = address.s_addr;
    return 0;
}

uint32_t DebugLogRegist(uint32_t dwModule, const char *szPrefix, const char *szName)
{
    (void)dwModule;
    return szPrefix != NULL && szName != NULL;
}

uint32_t DebugLogMoudlePrintLevelOn(uint32_t dwModule, uint32_t dwLevel, uint32_t bOn)
{
    (void)dwModule, (void)dwLevel, (void)bOn;
    return 1;
}

uint32_t DebugLogSetToStdioPrintf(uint32_t dwModule, uint32_t dwLevel)
{
    (void)dwModule, (void)dwLevel;
    return 1;
}

uint32_t DebugLogSetLogFileLen(uint32_t dwModule, uint32_t dwBytes)
{
    (void)dwModule, (void)dwBytes;
    return 1;
}

uint32_t DebugLogSetToFileLevel(uint32_t dwModule, uint32_t dwLevel)
{
    (void)dwModule, (void)dwLevel;
    return 1;
}

void DebugLogPrint(uint32_t dwModule, uint32_t dwLevel, const char *szFormat, ...)
{
    va_list arguments;
    (void)dwModule, (void)dwLevel;
    va_start(arguments, szFormat);
    vfprintf(stderr, szFormat, arguments);
    va_end(arguments);
}
