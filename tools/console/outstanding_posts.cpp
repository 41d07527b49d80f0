#include "tools/console/outstanding_posts.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "platform/host/osp_console.h"
#include "tools/common/caught_output.h"

namespace
{

/* A worker that saw the log on the console a moment ago has printed its line by then. */
const std::chrono::milliseconds s_tStragglers(20);

void ListOnConsole(int nLogType)
{
    OspConsoleRun("sendbycurlsetlog 2");
    OspConsoleRun("sendbycurlshow");
    OspConsoleRun(("sendbycurlsetlog " + std::to_string(nLogType)).c_str());
}

/* All that is printed while the posts are listed, workers' lines among it. */
std::string CatchListing(int nLogType)
{
    return CatchOutput(false, [nLogType] {
        ListOnConsole(nLogType);
        std::this_thread::sleep_for(s_tStragglers);
    });
}

bool Has(const std::string &strLine, const char *szPart)
{
    return strLine.find(szPart) != std::string::npos;
}

} // namespace

bool HasOutstandingPosts(int nLogType)
{
    const std::string strListing = CatchListing(nLogType);
    bool bOutstanding = false;
    size_t uBegin = 0;
    while (uBegin < strListing.size()) {
        const size_t uEnd = std::min(strListing.find('\n', uBegin), strListing.size() - 1) + 1;
        const std::string strLine = strListing.substr(uBegin, uEnd - uBegin);
        const bool bListed = Has(strLine, "SendByCurlShow[L:");
        const bool bOurs = bListed || Has(strLine, "SendByCurlSetLogLevel[L:");
        const bool bWanted = nLogType != LOG_TO_DEBUGLOG || Has(strLine, "[Error]");
        bOutstanding = bOutstanding || (bListed && Has(strLine, "bUseFlag:"));
        if (!bOurs && bWanted) {
            fputs(strLine.c_str(), nLogType == LOG_TO_DEBUGLOG ? stderr : stdout);
        }
        uBegin = uEnd;
    }
    return bOutstanding;
}
