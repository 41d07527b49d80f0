#include "platform/appbase.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <time.h>

char *AppStrstr(const char *szText, const char *szPart)
{
    if (szText == nullptr || szPart == nullptr) {
        return nullptr;
    }
    return const_cast<char *>(strstr(szText, szPart));
}

uint32_t AppStrlen(const char *szText)
{
    return szText != nullptr ? static_cast<uint32_t>(strlen(szText)) : 0;
}

void AppDelay(uint32_t dwMS)
{
    if (dwMS == 0) {
        return;
    }
    timespec tLeft = {};
    tLeft.tv_sec = static_cast<time_t>(dwMS / 1000);
    tLeft.tv_nsec = static_cast<long>(dwMS % 1000) * 1000000L;
    while (nanosleep(&tLeft, &tLeft) != 0 && errno == EINTR) {
    }
}

uint16_t AppConvertHtons(uint16_t wHost)
{
    return htons(wHost);
}

uint32_t AppConvertStrtoNet(const char *szAddr, TAppNetAddr *ptAddr)
{
    if (szAddr == nullptr || ptAddr == nullptr) {
        return 1;
    }
    in_addr tAddr = {};
    if (inet_pton(AF_INET, szAddr, &tAddr) != 1) {
        return 2;
    }
    ptAddr->dwFamily = AF_INET;
    ptAddr->dwIPv4 = tAddr.s_addr;
    return 0;
}
