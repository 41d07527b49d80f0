#include "tools/common/module_start.h"

#include "platform/debuglog.h"

// The library's module in the debug log, and the level it lets through to the console.
static const uint32_t s_dwLogModule = 123;
static const uint32_t s_dwConsoleLevel = 2;

ESendByCurlRet StartSendModule()
{
    // Registered here, the log keeps this setting; the module's start would choose its own.
    if (SendByCurlLogInit() == 0) {
        DebugLogSetToStdioPrintf(s_dwLogModule, 0);
    }
    ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    DebugLogSetToStdioPrintf(s_dwLogModule, s_dwConsoleLevel);
    return eRet;
}
