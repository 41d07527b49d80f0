#include "tools/common/log_place.h"

#if __has_include("platform/host/debuglog_host.h")

#include <climits>

#include "platform/host/debuglog_host.h"

std::string LogFilePath()
{
    char achPath[PATH_MAX] = "";
    return HostDebugLogPath("SendCurl", achPath, sizeof(achPath)) != 0 ? achPath : "SendCurl.log";
}

#else

#include <cstdlib>

std::string LogFilePath()
{
    for (const char *szVariable : {"NVRHTTPCURL_LOG_DIR", "TMPDIR"}) {
        const char *szFolder = getenv(szVariable);
        if (szFolder != nullptr && szFolder[0] != '\0') {
            return std::string(szFolder) + "/SendCurl.log";
        }
    }
    return "/tmp/SendCurl.log";
}

#endif
