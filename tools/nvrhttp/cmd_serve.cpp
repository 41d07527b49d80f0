/*
 * nvrhttp serve: the echo server, until a signal ends it.
 */
#include "tools/common/open_files.h"
#include "tools/echo_server/echo_server.h"
#include "tools/nvrhttp/commands.h"

#include <csignal>
#include <cstdio>
#include <stdexcept>

static int Serve(const TEchoServerOptions &tOptions)
{
    // Blocked before the server's threads start, which inherit it, the signals are left
    // for sigwait.
    sigset_t tSignals;
    sigemptyset(&tSignals);
    sigaddset(&tSignals, SIGINT);
    sigaddset(&tSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &tSignals, nullptr);
    RaiseOpenFiles();

    try {
        CEchoServer tServer(tOptions);
        std::printf("%s\n", tServer.Url().c_str());
        std::fflush(stdout);
        int nSignal = 0;
        sigwait(&tSignals, &nSignal);
    } catch (const std::runtime_error &tError) {
        std::fprintf(stderr, "nvrhttp serve: %s\n", tError.what());
        return 1;
    }
    return 0;
}

void AddServeCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptServe = tApp.add_subcommand("serve", "Run an echo server on 127.0.0.1 until interrupted");
    auto ptOptions = std::make_shared<TEchoServerOptions>();

    ptServe->add_option("--port", ptOptions->wPort, "Port; without it, or 0, a free one");
    ptServe->add_flag("--tls", ptOptions->bTls, "HTTPS, with a self-signed certificate made at start");
    ptServe->footer(std::string("The first line of output is the URL.\n") + g_szEchoServerHelp + R"(

Examples:
  nvrhttp serve --port 8080
  nvrhttp serve --tls)");
    ptServe->callback([ptOptions, &nStatus] { nStatus = Serve(*ptOptions); });
}
