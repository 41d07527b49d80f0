/*
 * nvrhttp console: the device's console commands, on a terminal or from a pipe.
 */
#include "tools/common/module_start.h"
#include "tools/common/result_text.h"
#include "tools/console/console_commands.h"
#include "tools/console/line_source.h"
#include "tools/nvrhttp/commands.h"

#include "platform/host/osp_console.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace
{

using CClock = std::chrono::steady_clock;

// The self-test's own time-out, and a second for what comes behind it.
const std::chrono::seconds s_tLongestTest(6);
const std::chrono::milliseconds s_tBetweenLooks(200);
// A worker that saw the log on the console a moment ago has printed its line by then.
const std::chrono::milliseconds s_tStragglers(20);
const int s_nLogTypeAtStart = 1;

struct TSession {
    int nLogType = s_nLogTypeAtStart;
    bool bAsyncTest = false;
    CClock::time_point tLastAsyncTest;
};

struct TCloseFile {
    void operator()(std::FILE *ptFile) const
    {
        std::fclose(ptFile);
    }
};
using CFile = std::unique_ptr<std::FILE, TCloseFile>;

std::string ReadAll(std::FILE *ptFile)
{
    std::string strText;
    char achPart[4096];
    size_t nLen = 0;

    std::rewind(ptFile);
    while ((nLen = std::fread(achPart, 1, sizeof(achPart), ptFile)) > 0) {
        strText.append(achPart, nLen);
    }
    return strText;
}

void ListOnConsole(int nLogType)
{
    OspConsoleRun("sendbycurlsetlog 2");
    OspConsoleRun("sendbycurlshow");
    OspConsoleRun(("sendbycurlsetlog " + std::to_string(nLogType)).c_str());
}

// What the listing of the outstanding posts prints, and whatever workers print meanwhile;
// empty where it cannot be caught.
std::string CatchListing(int nLogType)
{
    CFile ptCaught(std::tmpfile());
    std::fflush(stdout);
    int nStdout = ptCaught ? dup(STDOUT_FILENO) : -1;
    if (nStdout < 0) {
        return "";
    }
    if (dup2(fileno(ptCaught.get()), STDOUT_FILENO) >= 0) {
        ListOnConsole(nLogType);
        std::this_thread::sleep_for(s_tStragglers);
        std::fflush(stdout);
        dup2(nStdout, STDOUT_FILENO);
    }
    close(nStdout);
    return ReadAll(ptCaught.get());
}

// The module tells of its outstanding posts by its listing only, so that is caught and read.
// A worker's lines that come in between are passed on, if the operator would have seen them.
bool HasOutstandingPosts(int nLogType)
{
    std::string strListing = CatchListing(nLogType);
    bool bOutstanding = false;
    size_t nBegin = 0;

    while (nBegin < strListing.size()) {
        size_t nEnd = std::min(strListing.find('\n', nBegin), strListing.size() - 1) + 1;
        std::string strLine = strListing.substr(nBegin, nEnd - nBegin);
        bool bListed = strLine.find("SendByCurlShow[L:") != std::string::npos;
        bool bOurs = bListed || strLine.find("SendByCurlSetLogLevel[L:") != std::string::npos;
        bool bWanted = nLogType != s_nLogTypeAtStart || strLine.find("[Error]") != std::string::npos;
        bOutstanding = bOutstanding || (bListed && strLine.find("bUseFlag:") != std::string::npos);
        if (!bOurs && bWanted) {
            std::fputs(strLine.c_str(), stdout);
        }
        nBegin = nEnd;
    }
    return bOutstanding;
}

// The answer of an asynchronous self-test would otherwise be cut off by the program's end.
void AwaitAsyncTests(const TSession &tSession)
{
    if (!tSession.bAsyncTest || !HasOutstandingPosts(tSession.nLogType)) {
        return;
    }
    CClock::time_point tDeadline = tSession.tLastAsyncTest + s_tLongestTest;
    std::printf("waiting for the answer of an asynchronous sendbycurltest (6 seconds from its start at most)\n");
    while (HasOutstandingPosts(tSession.nLogType)) {
        if (CClock::now() >= tDeadline) {
            std::printf("no answer came\n");
            return;
        }
        std::this_thread::sleep_for(s_tBetweenLooks);
    }
}

void RunLines(CLineSource &tSource, TSession &tSession)
{
    std::string strLine;
    bool bQuit = false;

    while (!bQuit && tSource.Next(strLine)) {
        TConsoleResult tResult = RunConsoleLine(strLine);
        std::fflush(stdout);
        bQuit = tResult.bQuit;
        if (tResult.nLogType != 0) {
            tSession.nLogType = tResult.nLogType;
        }
        if (tResult.bAsyncTest) {
            tSession.bAsyncTest = true;
            tSession.tLastAsyncTest = CClock::now();
        }
    }
}

int RunConsole()
{
    bool bTerminal = isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;

    // Workers print too: by lines, theirs come out whole and at once also into a pipe.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    ESendByCurlRet eRet = StartSendModule();
    if (eRet != SENDBYCURL_OK) {
        std::fprintf(stderr, "nvrhttp console: the send module did not start, result %u: %s\n", eRet,
                     ModuleStartText(eRet));
        return static_cast<int>(eRet);
    }
    try {
        TSession tSession;
        std::unique_ptr<CLineSource> ptSource = MakeLineSource(bTerminal, ConsoleNames);
        if (bTerminal) {
            std::printf("The send module runs. \"help\" lists the commands, \"quit\" leaves; Tab completes.\n");
        }
        RunLines(*ptSource, tSession);
        AwaitAsyncTests(tSession);
    } catch (const std::runtime_error &tError) {
        std::fprintf(stderr, "nvrhttp console: %s\n", tError.what());
        return 1;
    }
    return 0;
}

} // namespace

void AddConsoleCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptConsole = tApp.add_subcommand("console", "Start the send module and run console commands");

    ptConsole->footer(R"(Reads commands from standard input, one a line, and runs them: on a terminal with
editing, history and completion, otherwise line by line. "help" lists them. Words
in double quotes are texts, unquoted numbers are numbers. At first only the
library's errors come to the console: "sendbycurlsetlog 2" brings all of its lines.
After an asynchronous sendbycurltest, leaving waits for its answer, for at most 6
seconds from its start.

Examples:
  nvrhttp console
  printf 'sendbycurlsetlog 2\nNvrHttpCurlCltshow\nquit\n' | nvrhttp console)");
    ptConsole->callback([&nStatus] { nStatus = RunConsole(); });
}
