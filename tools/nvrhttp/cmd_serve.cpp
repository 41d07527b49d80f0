/*
 * nvrhttp serve: the echo server, until a signal ends it.
 */
#include "tools/nvrhttp/commands.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

#include "tools/common/open_files.h"
#include "tools/common/standard_streams.h"
#include "tools/common/whole_file.h"
#include "tools/echo_server/echo_server.h"

namespace
{

enum { CERTIFICATE_MODE = 0644 };

const char s_szExamples[] = "\n\n"
                            "Examples:\n"
                            "  nvrhttp serve --port 8080\n"
                            "  nvrhttp serve --port 8080 --show\n"
                            "  nvrhttp serve --tls --cert-out nvrhttp.crt";

struct TServeOptions {
    TEchoServerOptions tServer;
    bool bShow = false;
    std::string strCertificateFile; /* empty: the certificate is not written */
};

/* One line to a request, whatever bytes a client has put into it. */
std::string Printable(std::string strText)
{
    for (char &chOne : strText) {
        if (chOne < ' ' || chOne > '~') {
            chOne = '?';
        }
    }
    return strText.empty() ? "-" : strText;
}

/* Past the stream, whose lock a thread that waits for a reader would hold. */
void ShowRequest(const TEchoRequest &tRequest)
{
    dprintf(STDERR_FILENO, "%s %s %zu bytes, status %d, %.1f ms\n", Printable(tRequest.strMethod).c_str(),
            Printable(tRequest.strTarget).c_str(), tRequest.uBodyLen, tRequest.nStatus, tRequest.dMillis);
}

void WriteFile(const std::string &strPath, const std::string &strText)
{
    const int nFd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, CERTIFICATE_MODE);
    bool bWritten = nFd >= 0 && WriteAll(nFd, strText.data(), strText.size());
    const int nErrno = errno;
    bWritten = nFd >= 0 && close(nFd) == 0 && bWritten;
    if (!bWritten) {
        throw std::runtime_error(strPath + " cannot be written: " + strerror(nErrno));
    }
}

/* Blocked before the server's threads start, which inherit it, the signals are left for sigwait. */
sigset_t BlockSignals()
{
    sigset_t tSignals;
    sigemptyset(&tSignals);
    sigaddset(&tSignals, SIGINT);
    sigaddset(&tSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &tSignals, nullptr);
    return tSignals;
}

/* A line of --show that nobody reads must not hold up the end. */
void EndWithinASecond()
{
    std::thread([] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        _exit(EXIT_SUCCESS);
    }).detach();
}

int Serve(TServeOptions &tOptions)
{
    const sigset_t tSignals = BlockSignals();
    RaiseOpenFiles();
    if (tOptions.bShow) {
        tOptions.tServer.pfAnswered = ShowRequest;
    }
    try {
        const CEchoServer tServer(tOptions.tServer);
        if (!tOptions.strCertificateFile.empty()) {
            WriteFile(tOptions.strCertificateFile, tServer.Certificate());
        }
        printf("%s\n", tServer.Url().c_str());
        const int nStatus = CheckStandardOutput("nvrhttp serve", EXIT_SUCCESS);
        int nSignal = 0;
        if (nStatus == EXIT_SUCCESS) {
            sigwait(&tSignals, &nSignal);
            EndWithinASecond();
        }
        return nStatus;
    } catch (const std::runtime_error &tError) {
        fprintf(stderr, "nvrhttp serve: %s\n", tError.what());
        return EXIT_FAILURE;
    }
}

} // namespace

void AddServeCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptServe = tApp.add_subcommand("serve", "Run an echo server on 127.0.0.1 until interrupted");
    auto ptOptions = std::make_shared<TServeOptions>();
    ptServe->add_option("--port", ptOptions->tServer.wPort, "Port; without it, or 0, a free one");
    CLI::Option *ptTls =
        ptServe->add_flag("--tls", ptOptions->tServer.bTls, "HTTPS, with a self-signed certificate made at start");
    ptServe->add_option("--cert-out", ptOptions->strCertificateFile, "Write that certificate (PEM)")
        ->type_name("FILE")
        ->needs(ptTls);
    ptServe->add_flag("--show", ptOptions->bShow, "Show each request on standard error once it is answered");
    ptServe->footer(std::string("The only line on standard output is the URL.\n") + g_szEchoServerHelp + s_szExamples);
    ptServe->callback([ptOptions, &nStatus] { nStatus = Serve(*ptOptions); });
}
