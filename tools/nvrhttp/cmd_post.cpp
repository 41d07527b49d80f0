/*
 * nvrhttp post: one or many posts, through the C++ client or the send module.
 */
#include "tools/nvrhttp/commands.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>

#include "nvrhttpcurl/sendbycurl.h"
#include "support/hcc_numbers.h"
#include "tools/common/interrupt_watch.h"
#include "tools/common/module_start.h"
#include "tools/common/open_files.h"
#include "tools/common/result_text.h"
#include "tools/nvrhttp/post_options.h"
#include "tools/post/post_client.h"
#include "tools/post/post_report.h"
#include "tools/post/post_run.h"
#include "tools/post/send_log.h"

namespace
{

const char s_szHelp[] =
    "The answer goes to standard output as it came; of many, each ends its line. Everything else\n"
    "goes to standard error. The exit status is 0 only if all posts succeeded, otherwise the send\n"
    "module's result of the first failure (over 100: the command line was refused). An answer that\n"
    "cannot be written ends the run with 1. Ctrl-C ends it with the summary so far and 130, a second\n"
    "one at once; posts in flight then may or may not arrive.\n"
    "\n"
    "What libcurl says of a failed transfer is read from the lines that the library logs; so is the\n"
    "HTTP status that made one fail in sync mode.\n"
    "\n"
    "Modes: client, the default, is the one to use; the others show the send module as it is.\n"
    "  client  through the C++ client. Success is HTTP status 200 to 299. Time-outs are kept, an\n"
    "          https server's certificate is checked unless --no-verify, an answer longer than\n"
    "          --max-answer is a failure. Results: 1 refused before anything was sent, 5 transfer\n"
    "          failed (no such host, refused certificate, cut off and all else), 7 timed out, 9 no\n"
    "          memory, 10 another HTTP status, 11 answer too long, 14 connect failed, 15 TLS failed.\n"
    "  sync    over the engine, on a thread of its own. Success is HTTP status 200. An answer cut\n"
    "          off after the status counts as success: check the text. Never verifies an https\n"
    "          server in small letters.\n"
    "  async   over the engine's 8 workers. Success is any answer, whatever its HTTP status.\n"
    "          Answers have no length in this mode: each is shown up to its first zero byte. The\n"
    "          library copies an answer whole, however long it is: one that exceeds --max-answer\n"
    "          ends the program with 11, so be generous. Never verifies https in small letters.\n"
    "          If the server falls silent, a time-out is noticed only with the next activity:\n"
    "          posts still outstanding 2 s after their --timeout count as lost (7).\n"
    "  direct  one libcurl transfer, on a thread of its own. Success is any answer, whatever its\n"
    "          HTTP status. The data must not hold a zero byte. The server's certificate is\n"
    "          checked only with --verify.\n"
    "\n"
    "--verify: libcurl trusts the certificates that it was built to use, on Debian those in\n"
    "/etc/ssl/certs/ca-certificates.crt, and heeds no variable. To have it trust nvrhttp serve:\n"
    "  nvrhttp serve --tls --port 8443 --cert-out nvrhttp.crt\n"
    "  sudo cp nvrhttp.crt /usr/local/share/ca-certificates/ && sudo update-ca-certificates\n"
    "  nvrhttp post https://127.0.0.1:8443/\n"
    "The next serve makes another certificate. Afterwards remove the file there and run\n"
    "update-ca-certificates --fresh.\n"
    "\n"
    "Examples:\n"
    "  nvrhttp post http://127.0.0.1:8080/ --data '{\"a\":1}'\n"
    "  nvrhttp post http://127.0.0.1:8080/ --data @event.json > answer.json\n"
    "  nvrhttp post https://127.0.0.1:8443/ --no-verify --method get\n"
    "  date +'\"%c\"' | nvrhttp post http://127.0.0.1:8080/ -\n"
    "  nvrhttp post http://127.0.0.1:8080/ --user admin\n"
    "  nvrhttp post http://127.0.0.1:8080/ --count 5000 --parallel 200 --quiet\n"
    "  nvrhttp post http://127.0.0.1:8080/ --mode async --count 5000 --parallel 200 --quiet";

/* The lines of the start go to standard error, all later ones to the run's log. */
ESendByCurlRet StartModule(bool bLog)
{
    StartLog(bLog ? uint32_t{HCC_LEVEL_INFO} : 0);
    const ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    StartLog(0);
    if (eRet != SENDBYCURL_OK) {
        fprintf(stderr, "nvrhttp post: the module could not be started, result %u: %s; try nvrhttp doctor\n", eRet,
                ModuleStartText(eRet));
        return eRet;
    }
    SendLogTurnOn();
    return SENDBYCURL_OK;
}

/* As StartModule. Of the later lines the errors are enough for the reasons. */
std::unique_ptr<nvrhttpcurl::Client> StartClient(const TPostJob &tJob, bool bLog)
{
    StartLog(bLog ? uint32_t{HCC_LEVEL_INFO} : 0);
    try {
        auto ptClient = MakePostClient(tJob);
        SendLogTakeDebugLog();
        StartLog(bLog ? HCC_LEVEL_INFO : HCC_LEVEL_ERROR);
        return ptClient;
    } catch (const std::exception &tError) {
        fprintf(stderr, "nvrhttp post: the client could not be started: %s; try nvrhttp doctor\n", tError.what());
        return nullptr;
    }
}

void WriteAnswer(TPostReport &tReport, TPostTally &tTally, const TPostEnd &tEnd)
{
    if (!ReportAnswer(tReport, tEnd)) {
        ReportCutShort(tReport, tTally, std::string("an answer could not be written: ") + strerror(errno),
                       EXIT_FAILURE);
    }
}

/* Runs the job, unless an interrupt or an answer that cannot be written ends the process first. */
bool RunWatched(const TPostJob &tJob, TPostReport &tReport, TPostTally &tTally)
{
    TInterruptWatch tWatch;
    WatchInterrupts(tWatch, [&] { ReportCutShort(tReport, tTally, "interrupted", STATUS_INTERRUPTED); });
    const bool bRun = RunPosts(tJob, tTally, tReport.bMany ? &tReport.tStatus : nullptr);
    EndInterruptWatch(tWatch);
    return bRun;
}

int RunJob(TPostJob &tJob, bool bQuiet, int nAnswerFd, TSendLog &tLog)
{
    TPostTally tTally;
    TPostReport tReport;
    ReportBegin(tReport, tJob, nAnswerFd, tLog);
    if (!bQuiet) {
        tJob.pfEnded = [&](const TPostEnd &tEnd) { WriteAnswer(tReport, tTally, tEnd); };
    }
    const bool bRun = RunWatched(tJob, tReport, tTally);
    SendLogEnd(tLog);
    if (!bRun) {
        fprintf(stderr, "nvrhttp post: no memory for the answers; ask for less with --max-answer or --parallel\n");
        return SENDBYCURL_NO_MEMORY;
    }
    ReportOutcome(tReport, tTally);
    return static_cast<int>(tTally.eFirstFailure);
}

int RunWithClient(TPostJob &tJob, const TPostOptions &tOptions, int nAnswerFd, TSendLog &tLog)
{
    const std::unique_ptr<nvrhttpcurl::Client> ptClient = StartClient(tJob, tOptions.bLog);
    if (!ptClient) {
        SendLogEnd(tLog);
        return EXIT_FAILURE;
    }
    tJob.ptClient = ptClient.get();
    return RunJob(tJob, tOptions.bQuiet, nAnswerFd, tLog);
}

int RunWithModule(TPostJob &tJob, const TPostOptions &tOptions, int nAnswerFd, TSendLog &tLog)
{
    const ESendByCurlRet eRet = StartModule(tOptions.bLog);
    /* A direct send does without the engine. */
    if (eRet != SENDBYCURL_OK && tJob.eMode != POST_MODE_DIRECT) {
        SendLogEnd(tLog);
        return static_cast<int>(eRet);
    }
    return RunJob(tJob, tOptions.bQuiet, nAnswerFd, tLog);
}

int Post(const TPostOptions &tOptions)
{
    TPostJob tJob = MakePostJob(tOptions);
    HoldInterrupts();
    TSendLog tLog;
    const int nAnswerFd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (nAnswerFd < 0 || !SendLogBegin(tLog, tOptions.bLog)) {
        perror("nvrhttp post: standard output");
        return EXIT_FAILURE;
    }
    RaiseOpenFiles();
    const auto pfRun = tJob.eMode == POST_MODE_CLIENT ? RunWithClient : RunWithModule;
    const int nStatus = pfRun(tJob, tOptions, nAnswerFd, tLog);
    if (close(nAnswerFd) != 0) {
        perror("nvrhttp post: an answer could not be written");
        return EXIT_FAILURE;
    }
    return nStatus;
}

} // namespace

void AddPostCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptPost = tApp.add_subcommand("post", "Post a JSON text, once or many times, and show the answers");
    auto ptOptions = std::make_shared<TPostOptions>();
    AddPostOptions(*ptPost, *ptOptions);
    ptPost->footer(s_szHelp);
    ptPost->callback([ptOptions, &nStatus] { nStatus = Post(*ptOptions); });
}
