#include "tools/common/module_start.h"

#include "platform/debuglog.h"
#include "support/hcc_numbers.h"

void StartLog(uint32_t dwConsoleLevel)
{
    if (SendByCurlLogInit() == SENDBYCURL_OK) {
        DebugLogMoudlePrintLevelOn(HCC_LOG_MODULE, dwConsoleLevel, 1);
        DebugLogSetToStdioPrintf(HCC_LOG_MODULE, dwConsoleLevel);
    }
}

ESendByCurlRet StartModuleQuietly()
{
    StartLog(0);
    const ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    DebugLogSetToStdioPrintf(HCC_LOG_MODULE, HCC_LEVEL_ERROR);
    return eRet;
}
