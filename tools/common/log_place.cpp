#include "tools/common/log_place.h"

#include <climits>

#include "platform/host/debuglog_host.h"

std::string DebugLogPath()
{
    char achPath[PATH_MAX] = "";
    return HostDebugLogPath("SendCurl", achPath, sizeof(achPath)) != 0 ? achPath : "SendCurl.log";
}
