/*
 * nvrhttp post: one or many posts through the send module.
 */
#include "tools/nvrhttp/commands.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "nvrhttpcurl/sendbycurl.h"
#include "support/hcc_numbers.h"
#include "tools/common/module_start.h"
#include "tools/common/open_files.h"
#include "tools/common/read_all.h"
#include "tools/common/result_text.h"
#include "tools/post/post_report.h"
#include "tools/post/post_run.h"

namespace
{

enum { MAX_ANSWER_OF_ONE = 16 << 20, MAX_ANSWER_OF_MANY = 64 << 10 };

const char s_szOverrun[] =
    "\nnvrhttp post: an answer is longer than --max-answer (result 11); the asynchronous copy has no bound, so the "
    "program ends here\n";

/* The command line as it was given. */
struct TPostOptions {
    TPostJob tJob;
    std::string strData;
    std::string strSource;
    std::string strMode = "sync";
    std::string strMethod = "post";
    bool bQuiet = false; /* answers are not written */
    bool bLog = false;
    CLI::Option *ptData = nullptr;
    CLI::Option *ptMaxAnswer = nullptr;
};

const char s_szHelp[] =
    "The answer goes to standard output as it came; of many, each ends its line. Everything else\n"
    "goes to standard error. The exit status is 0 only if all posts succeeded, otherwise the send\n"
    "module's result of the first failure (over 100: the command line was refused).\n"
    "\n"
    "Modes:\n"
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
    "Methods: sync and async leave as POST whatever is asked for, since libcurl decides so once it\n"
    "is given data. Direct sends put and get both as a GET without data.\n"
    "\n"
    "Examples:\n"
    "  nvrhttp post http://127.0.0.1:8080/ --data '{\"a\":1}'\n"
    "  nvrhttp post http://127.0.0.1:8080/ --data @event.json --mode direct > answer.json\n"
    "  date +'\"%c\"' | nvrhttp post http://127.0.0.1:8080/ -\n"
    "  nvrhttp post http://127.0.0.1:8080/ --user admin:secret\n"
    "  nvrhttp post https://localhost:8443/ --mode direct --verify\n"
    "  nvrhttp post http://127.0.0.1:8080/ --mode async --count 5000 --parallel 200 --quiet";

[[noreturn]] void Refuse(const char *szOption, const std::string &strWhy)
{
    throw CLI::ValidationError(szOption, strWhy);
}

/* Reads to the end and closes; nFd may be the failed result of an open. */
std::string ReadData(int nFd, const char *szOption, const std::string &strName)
{
    std::string strText;
    const bool bRead = nFd >= 0 && ReadAll(nFd, strText);
    const int nErrno = errno;
    close(nFd);
    if (!bRead) {
        Refuse(szOption, "cannot read " + strName + ": " + strerror(nErrno));
    }
    return strText;
}

std::string LoadData(const TPostOptions &tOptions)
{
    const bool bGiven = tOptions.ptData->count() != 0;
    if (!tOptions.strSource.empty() && bGiven) {
        Refuse("-", "give either --data or -, not both");
    }
    if (!tOptions.strSource.empty() || tOptions.strData == "-") {
        return ReadData(STDIN_FILENO, "-", "standard input");
    }
    if (!bGiven) {
        return "{}";
    }
    if (tOptions.strData[0] != '@') {
        return tOptions.strData;
    }
    const std::string strPath = tOptions.strData.substr(1);
    return ReadData(open(strPath.c_str(), O_RDONLY | O_CLOEXEC), "--data", strPath);
}

EPostMode ModeOf(const std::string &strMode)
{
    if (strMode == "direct") {
        return POST_MODE_DIRECT;
    }
    return strMode == "async" ? POST_MODE_ASYNC : POST_MODE_SYNC;
}

uint32_t MethodOf(const std::string &strMethod)
{
    if (strMethod == "put") {
        return SENDBYCURL_METHOD_PUT;
    }
    return strMethod == "get" ? SENDBYCURL_METHOD_GET : SENDBYCURL_METHOD_POST;
}

/* Refuses what the chosen mode would silently leave undone. */
void CheckJob(const TPostJob &tJob)
{
    if (tJob.bVerify && tJob.eMode != POST_MODE_DIRECT) {
        Refuse("--verify", "works with --mode direct only: the other modes never verify an https server");
    }
    if (!tJob.strUserAndPassWd.empty() && tJob.eMode != POST_MODE_SYNC) {
        Refuse("--user", "works with --mode sync only: the other modes never authenticate");
    }
    if (tJob.strUserAndPassWd.size() >= sizeof(TSendByCurlParam::achUserAndPassWd)) {
        Refuse("--user", "is longer than 127 characters");
    }
    if (tJob.strBody.size() > UINT32_MAX) {
        Refuse("--data", "is longer than 4294967295 bytes");
    }
    const size_t uZero = tJob.strBody.find('\0');
    if (tJob.eMode == POST_MODE_DIRECT && uZero != std::string::npos) {
        Refuse("--data",
               "holds a zero byte, and direct mode would send only the " + std::to_string(uZero) + " bytes before it");
    }
}

TPostJob MakeJob(const TPostOptions &tOptions)
{
    TPostJob tJob = tOptions.tJob;
    tJob.eMode = ModeOf(tOptions.strMode);
    tJob.eHeadType = MethodOf(tOptions.strMethod);
    tJob.szOverrun = s_szOverrun;
    tJob.strBody = LoadData(tOptions);
    CheckJob(tJob);
    if (tOptions.ptMaxAnswer->count() == 0) {
        /* The data may come back, too. */
        const size_t uMany = std::min<size_t>(MAX_ANSWER_OF_MANY + tJob.strBody.size(), UINT32_MAX - 1);
        tJob.dwMaxAnswer = tJob.dwCount > 1 ? static_cast<uint32_t>(uMany) : uint32_t{MAX_ANSWER_OF_ONE};
    }
    return tJob;
}

/*
 * Standard output for the answers alone: whatever else writes there, the library's log among
 * it, goes to standard error from here on.
 */
int ReserveStandardOutput()
{
    fflush(stdout);
    const int nAnswerFd = dup(STDOUT_FILENO);
    if (nAnswerFd < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        perror("nvrhttp post: standard output");
        return -1;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return nAnswerFd;
}

/* The log is registered first, so that it can be set before the module starts. */
ESendByCurlRet StartModule(bool bLog)
{
    StartLog(bLog ? uint32_t{HCC_LEVEL_INFO} : 0);
    const ESendByCurlRet eRet = Qelvo_SyncSendStrByHttp_Init();
    if (eRet != SENDBYCURL_OK) {
        fprintf(stderr, "nvrhttp post: the module could not be started, result %u: %s; try nvrhttp doctor\n", eRet,
                ModuleStartText(eRet));
    }
    return eRet;
}

int RunJob(TPostJob &tJob, bool bQuiet, int nAnswerFd)
{
    TPostTally tTally;
    TPostReport tReport;
    ReportBegin(tReport, tJob, nAnswerFd);
    if (!bQuiet) {
        tJob.pfEnded = [&tReport](const TPostEnd &tEnd) { ReportAnswer(tReport, tEnd); };
    }
    if (!RunPosts(tJob, tTally, tReport.bMany ? &tReport.tStatus : nullptr)) {
        fprintf(stderr, "nvrhttp post: no memory for the answers; ask for less with --max-answer or --parallel\n");
        return SENDBYCURL_NO_MEMORY;
    }
    ReportOutcome(tReport, tTally);
    return ReportStatus(tReport, tTally);
}

int Post(const TPostOptions &tOptions)
{
    TPostJob tJob = MakeJob(tOptions);
    const int nAnswerFd = ReserveStandardOutput();
    if (nAnswerFd < 0) {
        return EXIT_FAILURE;
    }
    RaiseOpenFiles();
    const ESendByCurlRet eRet = StartModule(tOptions.bLog);
    /* A direct send does without the engine. */
    if (eRet != SENDBYCURL_OK && tJob.eMode != POST_MODE_DIRECT) {
        return static_cast<int>(eRet);
    }
    return RunJob(tJob, tOptions.bQuiet, nAnswerFd);
}

void AddRequestOptions(CLI::App &tPost, TPostOptions &tOptions)
{
    TPostJob &tJob = tOptions.tJob;
    tJob.dwTimeoutMS = 10000;
    tJob.dwConnTimeOutMS = 5000;
    const CLI::Range tMillis(1U, 0x7FFFFFFFU);

    tPost.add_option("URL", tJob.strUrl, "http:// or https:// target")->required()->type_name("");
    tPost.add_option("SOURCE", tOptions.strSource, "A lone - takes the data from standard input")
        ->check(CLI::IsMember({"-"}));
    tOptions.ptData = tPost
                          .add_option("--data", tOptions.strData,
                                      "JSON text, @FILE for a file's content, - for standard input; {} by default")
                          ->type_name("JSON");
    tPost.add_option("--mode", tOptions.strMode, "How to send")
        ->check(CLI::IsMember({"sync", "async", "direct"}))
        ->capture_default_str();
    tPost.add_option("--method", tOptions.strMethod, "Method asked for")
        ->check(CLI::IsMember({"post", "put", "get"}))
        ->capture_default_str();
    tPost.add_option("--user", tJob.strUserAndPassWd, "User and password, in sync mode only")->type_name("U:P");
    tPost.add_option("--timeout", tJob.dwTimeoutMS, "Milliseconds for a whole transfer")
        ->type_name("MS")
        ->check(tMillis)
        ->capture_default_str();
    tPost.add_option("--connect-timeout", tJob.dwConnTimeOutMS, "Milliseconds for its connection")
        ->type_name("MS")
        ->check(tMillis)
        ->capture_default_str();
    tPost.add_flag("--verify", tJob.bVerify, "Check the server's certificate, in direct mode only");
    tOptions.ptMaxAnswer =
        tPost
            .add_option("--max-answer", tJob.dwMaxAnswer,
                        "Longest answer in bytes; by default 16777216 for one post, for many 65536 and the length "
                        "of the data")
            ->type_name("BYTES")
            ->check(CLI::Range(1U, 1U << 30));
}

void AddRunOptions(CLI::App &tPost, TPostOptions &tOptions)
{
    TPostJob &tJob = tOptions.tJob;
    tPost.add_option("--count", tJob.dwCount, "How many posts")
        ->type_name("N")
        ->check(CLI::Range(1U, 10000000U))
        ->capture_default_str();
    tPost.add_option("--parallel", tJob.dwParallel, "How many at a time")
        ->type_name("K")
        ->check(CLI::Range(1U, uint32_t{POST_MAX_PARALLEL}))
        ->capture_default_str();
    tPost.add_flag("-q,--quiet", tOptions.bQuiet, "Do not write the answers");
    tPost.add_flag("--log", tOptions.bLog, "Show the library's log lines on standard error");
}

} // namespace

void AddPostCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptPost = tApp.add_subcommand("post", "Post a JSON text, once or many times, and show the answers");
    auto ptOptions = std::make_shared<TPostOptions>();
    AddRequestOptions(*ptPost, *ptOptions);
    AddRunOptions(*ptPost, *ptOptions);
    ptPost->footer(s_szHelp);
    ptPost->callback([ptOptions, &nStatus] { nStatus = Post(*ptOptions); });
}
