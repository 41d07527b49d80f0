/*
 * nvrhttp console: the device's console commands, on a terminal or from a pipe.
 */
#include "tools/nvrhttp/commands.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

#include "platform/host/osp_console.h"
#include "tools/common/caught_output.h"
#include "tools/common/module_start.h"
#include "tools/common/result_text.h"
#include "tools/console/console_commands.h"
#include "tools/console/line_source.h"
#include "tools/console/outstanding_posts.h"

namespace
{

using CClock = std::chrono::steady_clock;

/* The self-test's own time-out, and a second for what follows it. */
const std::chrono::seconds s_tLongestTest(6);
const std::chrono::milliseconds s_tBetweenLooks(200);

const char s_szHelp[] = "Reads commands from standard input, one a line, and runs them: on a terminal with\n"
                        "editing, history and completion, otherwise line by line. \"help\" lists them. Words\n"
                        "in double quotes are texts, unquoted numbers are numbers. The library's lines, which\n"
                        "are what its commands show, come to the console, unless --log says otherwise;\n"
                        "\"sendbycurlsetlog\" changes that later. On a terminal Ctrl-C clears the line.\n"
                        "After an asynchronous sendbycurltest, leaving waits for its answer, for at most 6\n"
                        "seconds from its start.\n"
                        "\n"
                        "Examples:\n"
                        "  nvrhttp console\n"
                        "  printf 'NvrHttpCurlCltshow\\nquit\\n' | nvrhttp console\n"
                        "  nvrhttp console --log both";

struct TSession {
    int nLogType = LOG_TO_CONSOLE;
    bool bAsyncTest = false;
    CClock::time_point tLastAsyncTest;
};

/* The answer of an asynchronous self-test would otherwise be cut off by the program's end. */
void AwaitAsyncTests(const TSession &tSession)
{
    if (!tSession.bAsyncTest || !HasOutstandingPosts(tSession.nLogType)) {
        return;
    }
    const CClock::time_point tDeadline = tSession.tLastAsyncTest + s_tLongestTest;
    printf("waiting for the answer of an asynchronous sendbycurltest (6 seconds from its start at most)\n");
    while (HasOutstandingPosts(tSession.nLogType)) {
        if (CClock::now() >= tDeadline) {
            printf("no answer came\n");
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
        const TConsoleResult tResult = RunConsoleLine(strLine);
        fflush(stdout);
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

/* The number of "sendbycurlsetlog". */
int LogTypeOf(const std::string &strName)
{
    if (strName == "both") {
        return LOG_TO_BOTH;
    }
    return strName == "debuglog" ? LOG_TO_DEBUGLOG : LOG_TO_CONSOLE;
}

int RunConsole(int nLogType)
{
    const bool bTerminal = isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
    /* Workers print too: by lines, theirs come out whole and at once also into a pipe. */
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    const ESendByCurlRet eRet = StartModuleQuietly();
    if (eRet != SENDBYCURL_OK) {
        fprintf(stderr, "nvrhttp console: the send module did not start, result %u: %s\n", eRet, ModuleStartText(eRet));
        return static_cast<int>(eRet);
    }
    try {
        TSession tSession;
        tSession.nLogType = nLogType;
        CatchOutput(false, [nLogType] { OspConsoleRun(("sendbycurlsetlog " + std::to_string(nLogType)).c_str()); });
        const std::unique_ptr<CLineSource> ptSource = MakeLineSource(bTerminal, ConsoleNames);
        if (bTerminal) {
            printf("The send module runs. \"help\" lists the commands, \"quit\" leaves; Tab completes.\n");
        }
        RunLines(*ptSource, tSession);
        AwaitAsyncTests(tSession);
    } catch (const std::runtime_error &tError) {
        fprintf(stderr, "nvrhttp console: %s\n", tError.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

} // namespace

void AddConsoleCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptConsole = tApp.add_subcommand("console", "Start the send module and run console commands");
    auto ptLogType = std::make_shared<std::string>("console");
    ptConsole->add_option("--log", *ptLogType, "Where the library's lines go at first")
        ->check(CLI::IsMember({"debuglog", "console", "both"}))
        ->capture_default_str();
    ptConsole->footer(s_szHelp);
    ptConsole->callback([ptLogType, &nStatus] { nStatus = RunConsole(LogTypeOf(*ptLogType)); });
}
