/*
 * The demo: the C++ client and the send module at work, against a server of its own or one that the caller names.
 * The exit status is 0 only if every post was answered, and by a server of its own with what was
 * sent.
 */
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>
#include <curl/curl.h>

#include "tools/common/http_url.h"
#include "tools/common/module_start.h"
#include "tools/common/result_text.h"
#include "tools/common/standard_streams.h"
#include "tools/demo/demo_stages.h"
#include "tools/echo_server/echo_server.h"

namespace
{

const char s_szExamples[] = "Examples:\n"
                            "  nvrhttp_demo\n"
                            "  nvrhttp_demo --count 20000\n"
                            "  nvrhttp_demo http://127.0.0.1:8080/ '{\"a\":1}'";

struct TDemo {
    std::string strUrl; /* empty: a server of the demo's own */
    std::string strJson = R"({"TaskId":1,"Device":"NVR-01","Event":"motion","Channel":3,"Text":"Grüße aus dem Flur"})";
    uint32_t dwCount = 1000;
    uint32_t dwDeadlineS = 120;
};

bool StartModule()
{
    const ESendByCurlRet eRet = StartModuleQuietly();
    if (eRet != SENDBYCURL_OK) {
        printf("The send module did not start, result %u: %s\n", eRet, ModuleStartText(eRet));
        return false;
    }
    const curl_version_info_data *ptCurl = curl_version_info(CURLVERSION_NOW);
    printf("The send module runs (nvrhttpcurl %s over libcurl %s, %s).\n", NVRHTTP_VERSION, ptCurl->version,
           ptCurl->ssl_version != nullptr ? ptCurl->ssl_version : "without TLS");
    return true;
}

bool RunForeign(const TDemo &tDemo)
{
    printf("Server: %s\n", tDemo.strUrl.c_str());
    if (!StartModule()) {
        return false;
    }
    const TDemoServer tServer = {tDemo.strUrl, false};
    const bool bClient = ShowClient(tServer, tDemo.strJson);
    bool bTooLong = false;
    const bool bSync = ShowSync(tServer, tDemo.strJson, bTooLong);
    if (bTooLong) {
        printf("\nThe asynchronous post is left out: its answer would be copied without a bound.\n");
        return false;
    }
    return ShowAsync(tServer, tDemo.strJson) && bSync && bClient;
}

bool RunOwn(const TDemo &tDemo)
{
    /* libcurl would obey a proxy of the environment even for this machine itself. */
    setenv("no_proxy", "127.0.0.1", 1);
    const CEchoServer tEcho(TEchoServerOptions{});
    const TDemoServer tServer = {tEcho.Url(), true};
    printf("An echo server runs at %s\n", tServer.strUrl.c_str());
    if (!StartModule()) {
        return false;
    }
    const bool bClient = ShowClient(tServer, tDemo.strJson);
    bool bTooLong = false;
    const bool bSync = ShowSync(tServer, tDemo.strJson, bTooLong);
    const bool bAsync = ShowAsync(tServer, tDemo.strJson);
    const bool bBatch = ShowBatch(tServer, tDemo.dwCount, tDemo.dwDeadlineS);
    const bool bListings = ShowListings(tServer);
    return bClient && bSync && bAsync && bBatch && bListings;
}

bool Run(const TDemo &tDemo)
{
    const bool bDone = tDemo.strUrl.empty() ? RunOwn(tDemo) : RunForeign(tDemo);
    printf("\n%s\n", bDone ? "All posts were answered." : "Something was lost, failed or wrong: see above.");
    return bDone;
}

int ParseAndRun(int nArgc, char **ppchArgv)
{
    CLI::App tApp{
        "Shows the library at work: one post through the C++ client, one synchronously, one asynchronously, then many"};
    TDemo tDemo;
    tApp.set_version_flag("--version", std::string("nvrhttp_demo ") + NVRHTTP_VERSION);
    tApp.add_option(
            "URL", tDemo.strUrl,
            "Send the first three posts there, and no others; without it, to an own server. The client checks the "
            "certificate of an https server")
        ->check(HttpUrlComplaint);
    tApp.add_option("JSON", tDemo.strJson, "The text of the first three posts");
    tApp.add_option("--count", tDemo.dwCount, "Number of posts of the batch")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    tApp.add_option("--deadline", tDemo.dwDeadlineS, "Seconds until what is not notified counts as failed")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    tApp.footer(s_szExamples);
    CLI11_PARSE(tApp, nArgc, ppchArgv);
    return Run(tDemo) ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int nArgc, char **ppchArgv)
{
    OpenStandardStreams();
    signal(SIGPIPE, SIG_IGN);
    try {
        return CheckStandardOutput("nvrhttp_demo", ParseAndRun(nArgc, ppchArgv));
    } catch (const std::exception &tError) {
        printf("The demo cannot go on: %s\n", tError.what());
    }
    return CheckStandardOutput("nvrhttp_demo", EXIT_FAILURE);
}
