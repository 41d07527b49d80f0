/*
 * nvrhttp check: whether a URL can be reached.
 */
#include "tools/nvrhttp/commands.h"

#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "nvrhttpcurl/httpcurlclient.h"
#include "tools/common/module_start.h"
#include "tools/common/result_text.h"

namespace
{

struct TCheckOptions {
    std::string strUrl;
    uint32_t dwConnTimeOutSec = 5;
};

const char s_szHelp[] = "Sends one POST with no data and tells whether an answer came; any HTTP status counts as one,\n"
                        "and an https server's certificate is not checked. Only the connection is bounded: a server\n"
                        "that takes it and never answers is waited for. The exit status is the check's result: 0\n"
                        "reachable, 10 no connection in time, 12 no TLS, 1 anything else.\n"
                        "\n"
                        "Examples:\n"
                        "  nvrhttp check http://127.0.0.1:8080/\n"
                        "  nvrhttp check https://192.0.2.7:3789/ --connect-timeout 2";

/* The check posts whatever it can read of standard input: there must be nothing. */
bool EmptyStandardInput()
{
    const int nNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nNull < 0 || dup2(nNull, STDIN_FILENO) < 0) {
        perror("nvrhttp check: /dev/null");
        return false;
    }
    /* With standard input closed, open may have given its very number. */
    if (nNull != STDIN_FILENO) {
        close(nNull);
    }
    return true;
}

int Check(const TCheckOptions &tOptions)
{
    if (!EmptyStandardInput()) {
        return EXIT_FAILURE;
    }
    StartLog(0);
    curl_global_init(CURL_GLOBAL_ALL);
    const ENvrHttpCurlCltRet eRet = NvrHttpCurlCltCheckUri(tOptions.strUrl.c_str(), tOptions.dwConnTimeOutSec);
    curl_global_cleanup();
    printf("%s\nresult %u: %s\n", tOptions.strUrl.c_str(), eRet, CheckUriText(eRet));
    return static_cast<int>(eRet);
}

} // namespace

void AddCheckCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptCheck = tApp.add_subcommand("check", "Tell whether a URL can be reached");
    auto ptOptions = std::make_shared<TCheckOptions>();
    ptCheck->add_option("URL", ptOptions->strUrl, "http:// or https:// target")->required();
    ptCheck
        ->add_option("--connect-timeout", ptOptions->dwConnTimeOutSec,
                     "Seconds for the connection; 0 leaves it to libcurl (300)")
        ->check(CLI::Range(0U, 86400U))
        ->capture_default_str();
    ptCheck->footer(s_szHelp);
    ptCheck->callback([ptOptions, &nStatus] { nStatus = Check(*ptOptions); });
}
