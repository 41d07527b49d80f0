/*
 * nvrhttp: the library from the command line, over the host platform.
 */
#include "tools/nvrhttp/commands.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "tools/common/log_place.h"
#include "tools/common/standard_streams.h"

static const char s_szExamples[] =
    "Examples:\n"
    "  nvrhttp serve                                    an echo server; prints its URL first\n"
    "  nvrhttp post http://127.0.0.1:8080/ --data '{\"a\":1}'\n"
    "  nvrhttp check http://127.0.0.1:8080/\n"
    "  nvrhttp console                                  the five console commands, with editing\n"
    "  printf 'NvrHttpCurlCltver\\nquit\\n' | nvrhttp console\n"
    "  nvrhttp doctor                                   what this machine offers the library\n"
    "\n"
    "Each command has its own --help.\n"
    "\n"
    "The library's errors are logged in ";

/* CLI11 says no more of a word in place of a command than that a command is missing. */
static std::string FailureText(const CLI::App *ptApp, const CLI::Error &tError)
{
    const std::vector<std::string> astrWords = ptApp->remaining();
    if (ptApp->get_subcommands().empty() && !astrWords.empty() && astrWords[0][0] != '-') {
        return "nvrhttp: \"" + astrWords[0] + "\" is no command; --help lists them\n";
    }
    return CLI::FailureMessage::simple(ptApp, tError);
}

static int ParseAndRun(int nArgc, char **ppchArgv)
{
    CLI::App tApp{"Posts JSON over HTTP and HTTPS, and shows the library at work"};
    int nStatus = 0;
    tApp.set_version_flag("--version", std::string("nvrhttp ") + NVRHTTP_VERSION);
    tApp.footer(s_szExamples + DebugLogPath() + ";\nNVRHTTPCURL_LOG_DIR names another folder for it.");
    tApp.require_subcommand(1);
    tApp.failure_message(FailureText);
    AddConsoleCommand(tApp, nStatus);
    AddServeCommand(tApp, nStatus);
    AddPostCommand(tApp, nStatus);
    AddCheckCommand(tApp, nStatus);
    AddDoctorCommand(tApp, nStatus);
    CLI11_PARSE(tApp, nArgc, ppchArgv);
    return nStatus;
}

int main(int nArgc, char **ppchArgv)
{
    OpenStandardStreams();
    /* A peer that closes early, or a closed pipe behind the output, is an error to report. */
    signal(SIGPIPE, SIG_IGN);
    try {
        return CheckStandardOutput("nvrhttp", ParseAndRun(nArgc, ppchArgv));
    } catch (const std::exception &tError) {
        fprintf(stderr, "nvrhttp: %s\n", tError.what());
        return EXIT_FAILURE;
    }
}
