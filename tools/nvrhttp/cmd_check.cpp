/*
 * nvrhttp check: whether a URL can be reached.
 */
#include "tools/nvrhttp/commands.h"

#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <fcntl.h>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>

#include "nvrhttpcurl/httpcurlclient.h"
#include "support/hcc_numbers.h"
#include "tools/common/caught_output.h"
#include "tools/common/failure_reason.h"
#include "tools/common/http_url.h"
#include "tools/common/module_start.h"
#include "tools/common/result_text.h"

namespace
{

struct TCheckOptions {
    std::string strUrl;
    uint32_t dwConnTimeOutSec = 5;
};

const char s_szHelp[] = "Sends one POST with no data and tells whether an answer came; any HTTP status counts as one,\n"
                        "and an https server's certificate is not checked. A URL with HTTPS in capitals is another\n"
                        "matter: libcurl checks its certificate, and a self-signed one makes the check fail. Only the\n"
                        "connection is bounded: a server that takes it and never answers is waited for. The exit\n"
                        "status is the check's result: 0 reachable, 10 no connection in time, 12 no TLS, 1 anything\n"
                        "else (over 100: the command line was refused).\n"
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

/* The result alone does not say what happened; the line that the check logs does. */
ENvrHttpCurlCltRet CheckUri(const TCheckOptions &tOptions, std::string &strReason)
{
    ENvrHttpCurlCltRet eRet = NVRHTTPCURLCLT_FAILED;
    StartLog(HCC_LEVEL_INFO);
    std::istringstream tLines(CatchOutput(true, [&tOptions, &eRet] {
        eRet = NvrHttpCurlCltCheckUri(tOptions.strUrl.c_str(), tOptions.dwConnTimeOutSec);
    }));
    std::string strLine;
    while (strReason.empty() && std::getline(tLines, strLine)) {
        strReason = FailureReason(strLine);
    }
    return eRet;
}

int Check(const TCheckOptions &tOptions)
{
    if (!EmptyStandardInput()) {
        return EXIT_FAILURE;
    }
    std::string strReason;
    curl_global_init(CURL_GLOBAL_ALL);
    const ENvrHttpCurlCltRet eRet = CheckUri(tOptions, strReason);
    curl_global_cleanup();
    printf("%s\nresult %u: %s%s%s\n", tOptions.strUrl.c_str(), eRet, CheckUriText(eRet), strReason.empty() ? "" : ": ",
           strReason.c_str());
    return static_cast<int>(eRet);
}

} // namespace

void AddCheckCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptCheck = tApp.add_subcommand("check", "Tell whether a URL can be reached");
    auto ptOptions = std::make_shared<TCheckOptions>();
    ptCheck->add_option("URL", ptOptions->strUrl, "http:// or https:// target")->required()->check(HttpUrlComplaint);
    ptCheck
        ->add_option("--connect-timeout", ptOptions->dwConnTimeOutSec,
                     "Seconds for the connection; 0 leaves it to libcurl (300)")
        ->check(CLI::Range(0U, 86400U))
        ->capture_default_str();
    ptCheck->footer(s_szHelp);
    ptCheck->callback([ptOptions, &nStatus] { nStatus = Check(*ptOptions); });
}
