/*
 * nvrhttp serve: the echo server, until a signal ends it.
 */
#include "tools/nvrhttp/commands.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "tools/common/open_files.h"
#include "tools/echo_server/echo_server.h"

static const char s_szExamples[] = "\n\n"
                                   "Examples:\n"
                                   "  nvrhttp serve --port 8080\n"
                                   "  nvrhttp serve --tls";

static int Serve(const TEchoServerOptions &tOptions)
{
    /* Blocked before the server's threads start, which inherit it, the signals are left for sigwait. */
    sigset_t tSignals;
    sigemptyset(&tSignals);
    sigaddset(&tSignals, SIGINT);
    sigaddset(&tSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &tSignals, nullptr);
    RaiseOpenFiles();

    try {
        CEchoServer tServer(tOptions);
        printf("%s\n", tServer.Url().c_str());
        fflush(stdout);
        int nSignal = 0;
        sigwait(&tSignals, &nSignal);
    } catch (const std::runtime_error &tError) {
        fprintf(stderr, "nvrhttp serve: %s\n", tError.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

void AddServeCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptServe = tApp.add_subcommand("serve", "Run an echo server on 127.0.0.1 until interrupted");
    auto ptOptions = std::make_shared<TEchoServerOptions>();
    ptServe->add_option("--port", ptOptions->wPort, "Port; without it, or 0, a free one");
    ptServe->add_flag("--tls", ptOptions->bTls, "HTTPS, with a self-signed certificate made at start");
    ptServe->footer(std::string("The first line of output is the URL.\n") + g_szEchoServerHelp + s_szExamples);
    ptServe->callback([ptOptions, &nStatus] { nStatus = Serve(*ptOptions); });
}
