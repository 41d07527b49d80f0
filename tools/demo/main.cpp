/*
 * The demo: the send module at work, against a server of its own or one of the person's
 * choice. The exit status is 0 only if every post was answered, and by a server of its own with
 * what was sent.
 */
#include "tools/common/module_start.h"
#include "tools/common/result_text.h"
#include "tools/echo_server/echo_server.h"
#include "tools/post/post_board.h"

#include "platform/host/osp_console.h"

#include <CLI/CLI.hpp>
#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

namespace
{

// Client and server are one process and share its open files, of which 1,024 are usual; a post
// takes two.
const uint32_t s_dwMostInFlight = 200;
const uint32_t s_dwOwnAnswer = 4096;
const uint32_t s_dwSyncAnswer = 1U << 20;
// An asynchronous answer is copied without a bound; pages that no answer reaches cost nothing.
const uint32_t s_dwForeignAnswer = 256U << 20;
const uint32_t s_dwSlowPosts = 4;
const size_t s_nShownAnswer = 2000;
const std::chrono::seconds s_tOneDeadline(20);
const std::chrono::milliseconds s_tProgressPeriod(100);
const std::chrono::milliseconds s_tSettle(200);
const uint32_t s_dwPlainLines = 4;
const char *const s_szDefaultJson =
    R"({"TaskId":1,"Device":"NVR-01","Event":"motion","Channel":3,"Text":"Grüße aus dem Flur"})";

struct TDemo {
    std::string strUrl; /* empty: a server of the demo's own */
    std::string strJson = s_szDefaultJson;
    uint32_t dwCount = 1000;
    uint32_t dwDeadlineS = 120;
};

struct TBatchResult {
    uint32_t dwSent = 0;
    uint32_t dwNotified = 0;
    uint32_t dwFailed = 0; /* refused, ended with an error, answered wrongly or never notified */
};

void Heading(const char *szText)
{
    std::printf("\n== %s\n", szText);
    std::fflush(stdout);
}

void PrintText(const char *szName, const char *pchText, size_t nLen)
{
    size_t nShown = std::min(nLen, s_nShownAnswer);

    std::printf("   %-7s %.*s%s\n", szName, static_cast<int>(nShown), pchText, nShown < nLen ? " ..." : "");
}

const char *ResultText(ESendByCurlRet eResult)
{
    return eResult == SENDBYCURL_BUFFER_TOO_SMALL ? "the answer is longer than 1 MiB" : EngineSendText(eResult);
}

// Prints what became of a post; false unless it succeeded. An own server must have echoed it.
bool Report(const TPost &tPost, bool bOwnServer)
{
    PrintText("sent", tPost.strSent.data(), tPost.strSent.size());
    if (!IsFinished(tPost)) {
        std::printf("   LOST    no notification within %lld s\n", static_cast<long long>(s_tOneDeadline.count()));
        return false;
    }
    if (tPost.eResult != SENDBYCURL_OK) {
        std::printf("   FAILED  result %u: %s\n", tPost.eResult, ResultText(tPost.eResult));
        return false;
    }
    size_t nLen = strnlen(tPost.pchAnswer, tPost.dwCapacity);
    PrintText("answer", tPost.pchAnswer, nLen);
    bool bWrong = bOwnServer && !IsEchoed(tPost);
    std::printf("   result  0 after %.1f ms, %zu bytes%s\n", tPost.dMillis, nLen,
                bWrong ? ", NOT what was sent" : (bOwnServer ? ", the same as sent" : ""));
    return !bWrong;
}

const TPost &PostSync(const std::string &strUrl, const std::string &strJson)
{
    Heading("One JSON text, synchronously");
    TPost *ptPost = NewPost(strUrl, strJson, s_dwSyncAnswer);
    SendSync(*ptPost);
    return *ptPost;
}

bool ShowAsync(const std::string &strUrl, const std::string &strJson, bool bOwnServer)
{
    Heading("One JSON text, asynchronously");
    TPost *ptPost = NewPost(strUrl, strJson,
                            bOwnServer ? s_dwOwnAnswer + static_cast<uint32_t>(strJson.size()) : s_dwForeignAnswer);
    SendAsync(*ptPost);
    if (ptPost->bAccepted) {
        std::printf("   accepted, waiting for the notification\n");
        std::fflush(stdout);
        WaitUntilOutstanding(0, CBoardClock::now() + s_tOneDeadline);
    }
    return Report(*ptPost, bOwnServer);
}

// A line rewritten in place on a terminal, a few plain ones elsewhere.
class CProgress
{
  public:
    explicit CProgress(uint32_t dwTotal) : m_bTerminal(isatty(STDOUT_FILENO) != 0), m_dwTotal(dwTotal)
    {
    }
    void Show(uint32_t dwSent, uint32_t dwNotified)
    {
        CBoardClock::time_point tNow = CBoardClock::now();
        uint32_t dwStep = std::max(m_dwTotal / s_dwPlainLines, 1U);
        bool bDue = m_bTerminal ? tNow - m_tLast >= s_tProgressPeriod || dwNotified == m_dwTotal
                                : dwNotified / dwStep > m_dwLastStep;
        if (bDue) {
            std::printf("%s   sent %u/%u, notified %u, in flight %u%s", m_bTerminal ? "\r\033[K" : "", dwSent,
                        m_dwTotal, dwNotified, dwSent - dwNotified, m_bTerminal ? "" : "\n");
            std::fflush(stdout);
            m_tLast = tNow;
            m_dwLastStep = dwNotified / dwStep;
        }
    }
    void End() const
    {
        std::printf("%s", m_bTerminal ? "\n" : "");
    }

  private:
    bool m_bTerminal;
    uint32_t m_dwTotal;
    uint32_t m_dwLastStep = 0;
    CBoardClock::time_point m_tLast;
};

std::string BatchText(uint32_t dwIndex)
{
    return R"({"TaskId":)" + std::to_string(dwIndex) + R"(,"Device":"NVR-01","Event":"motion","Channel":)" +
           std::to_string(dwIndex % 16) + "}";
}

// Sends the posts and waits for their ends, until all have come or the deadline is there.
void DriveBatch(const std::vector<TPost *> &atPosts, CBoardClock::time_point tDeadline)
{
    const TBoardCount tBefore = CountPosts();
    CProgress tProgress(static_cast<uint32_t>(atPosts.size()));
    size_t nNext = 0;
    TBoardCount tNow = tBefore;

    do {
        while (nNext < atPosts.size() && tNow.dwAccepted - tNow.dwNotified < s_dwMostInFlight) {
            SendAsync(*atPosts[nNext++]);
            tNow = CountPosts();
        }
        // Till one of them ends; a progress line is due before that at times.
        uint32_t dwOutstanding = tNow.dwAccepted - tNow.dwNotified;
        CBoardClock::time_point tLook = std::min(tDeadline, CBoardClock::now() + s_tProgressPeriod);
        WaitUntilOutstanding(dwOutstanding > 0 ? dwOutstanding - 1 : 0, tLook);
        tNow = CountPosts();
        tProgress.Show(tNow.dwAccepted - tBefore.dwAccepted, tNow.dwNotified - tBefore.dwNotified);
    } while (CBoardClock::now() < tDeadline && (nNext < atPosts.size() || tNow.dwNotified != tNow.dwAccepted));
    tProgress.End();
}

TBatchResult Count(const std::vector<TPost *> &atPosts)
{
    TBatchResult tResult;

    for (const TPost *ptPost : atPosts) {
        bool bFinished = IsFinished(*ptPost);
        tResult.dwSent += ptPost->bAccepted ? 1 : 0;
        tResult.dwNotified += ptPost->bAccepted && bFinished ? 1 : 0;
        tResult.dwFailed += IsEchoed(*ptPost) ? 0 : 1;
    }
    return tResult;
}

void PrintFirstFailure(const std::vector<TPost *> &atPosts)
{
    for (const TPost *ptPost : atPosts) {
        if (IsEchoed(*ptPost)) {
            continue;
        }
        if (!IsFinished(*ptPost)) {
            std::printf("   the first that failed: never notified, or not sent in time\n");
        } else if (ptPost->eResult != SENDBYCURL_OK) {
            std::printf("   the first that failed: result %u, %s\n", ptPost->eResult, ResultText(ptPost->eResult));
        } else {
            std::printf("   the first that failed: sent %s, answered %.*s\n", ptPost->strSent.c_str(),
                        static_cast<int>(ptPost->dwCapacity), ptPost->pchAnswer);
        }
        return;
    }
}

bool ShowBatch(const std::string &strUrl, const TDemo &tDemo)
{
    std::vector<TPost *> atPosts;

    Heading((std::to_string(tDemo.dwCount) + " posts, asynchronously, up to " + std::to_string(s_dwMostInFlight) +
             " at once")
                .c_str());
    for (uint32_t dwIndex = 0; dwIndex < tDemo.dwCount; dwIndex++) {
        atPosts.push_back(NewPost(strUrl, BatchText(dwIndex), s_dwOwnAnswer));
    }
    CBoardClock::time_point tStart = CBoardClock::now();
    DriveBatch(atPosts, tStart + std::chrono::seconds(tDemo.dwDeadlineS));
    double dSeconds = std::chrono::duration<double>(CBoardClock::now() - tStart).count();
    TBatchResult tResult = Count(atPosts);
    std::printf("   sent %u, notified %u, failed %u, in %.2f s (%.0f posts/s)\n", tResult.dwSent, tResult.dwNotified,
                tResult.dwFailed, dSeconds, tResult.dwNotified / dSeconds);
    PrintFirstFailure(atPosts);
    return tResult.dwFailed == 0 && tResult.dwNotified == tDemo.dwCount;
}

void RunCommand(const char *szLine)
{
    std::printf("> %s\n", szLine);
    OspConsoleRun(szLine);
    std::fflush(stdout);
}

// An idle module has nothing to list: a few posts that the server answers late are outstanding
// meanwhile.
bool ShowListings(const std::string &strUrl)
{
    std::vector<TPost *> atPosts;

    Heading("The console's listings, while the server holds back a few answers");
    for (uint32_t dwIndex = 0; dwIndex < s_dwSlowPosts; dwIndex++) {
        atPosts.push_back(NewPost(strUrl + "delay/1000", BatchText(dwIndex), s_dwOwnAnswer));
        SendAsync(*atPosts.back());
    }
    // So that the listings stand by themselves: the workers' lines on the new posts come first.
    std::this_thread::sleep_for(s_tSettle);
    RunCommand("sendbycurlsetlog 2");
    RunCommand("sendbycurlshow");
    RunCommand("NvrHttpCurlCltshow");
    RunCommand("sendbycurlsetlog 1");
    WaitUntilOutstanding(0, CBoardClock::now() + s_tOneDeadline);
    TBatchResult tResult = Count(atPosts);
    std::printf("   of these %u posts notified %u, failed %u\n", s_dwSlowPosts, tResult.dwNotified, tResult.dwFailed);
    PrintFirstFailure(atPosts);
    return tResult.dwFailed == 0;
}

bool StartModule()
{
    ESendByCurlRet eResult = StartSendModule();

    if (eResult != SENDBYCURL_OK) {
        std::printf("The send module did not start, result %u: %s\n", eResult, ModuleStartText(eResult));
        return false;
    }
    const curl_version_info_data *ptCurl = curl_version_info(CURLVERSION_NOW);
    std::printf("The send module runs (nvrhttpcurl %s over libcurl %s, %s).\n", NVRHTTP_VERSION, ptCurl->version,
                ptCurl->ssl_version != nullptr ? ptCurl->ssl_version : "without TLS");
    return true;
}

bool RunForeign(const TDemo &tDemo)
{
    std::printf("Server: %s\n", tDemo.strUrl.c_str());
    if (!StartModule()) {
        return false;
    }
    const TPost &tSync = PostSync(tDemo.strUrl, tDemo.strJson);
    bool bSync = Report(tSync, false);
    if (tSync.eResult == SENDBYCURL_BUFFER_TOO_SMALL) {
        std::printf("\nThe asynchronous post is left out: its answer would be copied without a bound.\n");
        return false;
    }
    return ShowAsync(tDemo.strUrl, tDemo.strJson, false) && bSync;
}

bool RunOwn(const TDemo &tDemo)
{
    // libcurl would obey a proxy of the environment even for this machine itself.
    setenv("no_proxy", "127.0.0.1", 1);
    CEchoServer tServer(TEchoServerOptions{});
    const std::string strUrl = tServer.Url();
    std::printf("An echo server runs at %s\n", strUrl.c_str());
    if (!StartModule()) {
        return false;
    }
    bool bSync = Report(PostSync(strUrl, tDemo.strJson), true);
    bool bAsync = ShowAsync(strUrl, tDemo.strJson, true);
    bool bBatch = ShowBatch(strUrl, tDemo);
    bool bListings = ShowListings(strUrl);
    return bSync && bAsync && bBatch && bListings;
}

bool Run(const TDemo &tDemo)
{
    bool bDone = tDemo.strUrl.empty() ? RunOwn(tDemo) : RunForeign(tDemo);

    std::printf("\n%s\n", bDone ? "All posts were answered." : "Something was lost, failed or wrong: see above.");
    return bDone;
}

int ParseAndRun(int nArgc, char **ppchArgv)
{
    CLI::App tApp{"Shows the send module at work: one post synchronously, one asynchronously, then many"};
    TDemo tDemo;

    tApp.set_version_flag("--version", std::string("nvrhttp_demo ") + NVRHTTP_VERSION);
    tApp.add_option("URL", tDemo.strUrl, "Send the first two posts there, and no others; without it, to an own server");
    tApp.add_option("JSON", tDemo.strJson, "The text of the first two posts");
    tApp.add_option("--count", tDemo.dwCount, "Number of posts of the batch")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    tApp.add_option("--deadline", tDemo.dwDeadlineS, "Seconds until what is not notified counts as failed")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    tApp.footer(R"(Examples:
  nvrhttp_demo
  nvrhttp_demo --count 20000
  nvrhttp_demo http://127.0.0.1:8080/ '{"a":1}')");
    CLI11_PARSE(tApp, nArgc, ppchArgv);
    return Run(tDemo) ? 0 : 1;
}

} // namespace

int main(int nArgc, char **ppchArgv)
{
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return ParseAndRun(nArgc, ppchArgv);
    } catch (const std::exception &tError) {
        std::printf("The demo cannot go on: %s\n", tError.what());
        return 1;
    }
}
