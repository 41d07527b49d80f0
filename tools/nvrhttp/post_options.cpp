#include "tools/nvrhttp/post_options.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "tools/common/ask_password.h"
#include "tools/common/http_url.h"
#include "tools/common/whole_file.h"

namespace
{

enum { MAX_ANSWER_OF_ONE = 16 << 20, MAX_ANSWER_OF_MANY = 64 << 10, LONGEST_ANSWER = 1 << 30 };

const char s_szOverrun[] =
    "\nnvrhttp post: an answer is longer than --max-answer (result 11); the asynchronous copy has no bound, so the "
    "program ends here\n";

[[noreturn]] void Refuse(const char *szOption, const std::string &strWhy)
{
    throw CLI::ValidationError(szOption, strWhy);
}

/* Reads to the end and closes; nFd may be the failed result of an open. */
std::string ReadData(int nFd, uint32_t dwMaxData, const char *szOption, const std::string &strName)
{
    std::string strText;
    const bool bRead = nFd >= 0 && ReadAll(nFd, dwMaxData, strText);
    const int nErrno = errno;
    close(nFd);
    if (!bRead && nErrno == EFBIG) {
        Refuse(szOption,
               strName + " is longer than " + std::to_string(dwMaxData) + " bytes; --max-data raises the limit");
    }
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
        return ReadData(STDIN_FILENO, tOptions.dwMaxData, "-", "standard input");
    }
    if (!bGiven) {
        return "{}";
    }
    if (tOptions.strData[0] != '@') {
        return tOptions.strData;
    }
    const std::string strPath = tOptions.strData.substr(1);
    return ReadData(open(strPath.c_str(), O_RDONLY | O_CLOEXEC), tOptions.dwMaxData, "--data", strPath);
}

const std::string &CheckedUser(const std::string &strUser)
{
    if (strUser.size() >= sizeof(TSendByCurlParam::achUserAndPassWd)) {
        Refuse("--user", "is longer than 127 characters");
    }
    return strUser;
}

/* The password is asked for where the option names the user alone. */
std::string LoadUser(const std::string &strUser)
{
    std::string strPassword;
    if (CheckedUser(strUser).empty() || strUser.find(':') != std::string::npos) {
        return strUser;
    }
    if (!AskPassword("Password for " + strUser + ": ", strPassword)) {
        Refuse("--user", "no password was entered; without a terminal give NAME:PASSWORD");
    }
    return CheckedUser(strUser + ":" + strPassword);
}

EPostMode ModeOf(const std::string &strMode)
{
    if (strMode == "client") {
        return POST_MODE_CLIENT;
    }
    if (strMode == "direct") {
        return POST_MODE_DIRECT;
    }
    return strMode == "async" ? POST_MODE_ASYNC : POST_MODE_SYNC;
}

bool IsOverTheEngine(const TPostJob &tJob)
{
    return tJob.eMode == POST_MODE_SYNC || tJob.eMode == POST_MODE_ASYNC;
}

/* Refuses what the chosen mode would silently leave undone. */
void CheckJob(const TPostJob &tJob)
{
    if (tJob.bVerify && IsOverTheEngine(tJob)) {
        Refuse("--verify", "works with --mode client and direct only: the other modes never verify an https server");
    }
    if (tJob.eHeadType == SENDBYCURL_METHOD_GET && IsOverTheEngine(tJob)) {
        Refuse("--method", "get works with --mode client and direct only: the other modes send a POST all the same");
    }
    if (!tJob.strUserAndPassWd.empty() && tJob.eMode != POST_MODE_CLIENT && tJob.eMode != POST_MODE_SYNC) {
        Refuse("--user", "works with --mode client and sync only: the other modes never authenticate");
    }
    const size_t uZero = tJob.strBody.find('\0');
    if (tJob.eMode == POST_MODE_DIRECT && uZero != std::string::npos) {
        Refuse("--data",
               "holds a zero byte, and direct mode would send only the " + std::to_string(uZero) + " bytes before it");
    }
}

void AddDataOptions(CLI::App &tPost, TPostOptions &tOptions)
{
    tPost.add_option("URL", tOptions.tJob.strUrl, "http:// or https:// target")
        ->required()
        ->type_name("")
        ->check(HttpUrlComplaint);
    tPost.add_option("SOURCE", tOptions.strSource, "A lone - takes the data from standard input")
        ->check(CLI::IsMember({"-"}));
    tOptions.ptData = tPost
                          .add_option("--data", tOptions.strData,
                                      "JSON text, @FILE for a file's content, - for standard input; {} by default")
                          ->type_name("JSON");
    tPost.add_option("--max-data", tOptions.dwMaxData, "Longest data to read from a file or standard input")
        ->type_name("BYTES")
        ->check(CLI::Range(1U, UINT32_MAX))
        ->capture_default_str();
}

void AddTransferOptions(CLI::App &tPost, TPostOptions &tOptions)
{
    TPostJob &tJob = tOptions.tJob;
    tPost.add_option("--mode", tOptions.strMode, "How to send")
        ->check(CLI::IsMember({"client", "sync", "async", "direct"}))
        ->capture_default_str();
    tPost.add_option("--method", tOptions.strMethod, "get sends no data; in client and direct mode only")
        ->check(CLI::IsMember({"post", "get"}))
        ->capture_default_str();
    tPost
        .add_option(
            "--user", tJob.strUserAndPassWd,
            "User and password, in client and sync mode only; a password that is missing is asked for, and one that is "
            "given can be seen in the list of processes")
        ->type_name("NAME[:PASSWORD]");
    tOptions.ptVerify = tPost.add_flag("--verify,!--no-verify", tJob.bVerify,
                                       "Check the certificate of an https server, or do not: by default client mode "
                                       "does, direct mode does not; the other modes cannot");
}

void AddLimitOptions(CLI::App &tPost, TPostOptions &tOptions)
{
    TPostJob &tJob = tOptions.tJob;
    tJob.dwTimeoutMS = 10000;
    tJob.dwConnTimeOutMS = 5000;
    const CLI::Range tMillis(1U, 24U * 24 * 3600 * 1000); /* the client takes up to 24 days */

    tPost.add_option("--timeout", tJob.dwTimeoutMS, "Milliseconds for a whole transfer")
        ->type_name("MS")
        ->check(tMillis)
        ->capture_default_str();
    tPost.add_option("--connect-timeout", tJob.dwConnTimeOutMS, "Milliseconds for its connection")
        ->type_name("MS")
        ->check(tMillis)
        ->capture_default_str();
    tOptions.ptMaxAnswer =
        tPost
            .add_option("--max-answer", tJob.dwMaxAnswer,
                        "Longest answer in bytes; by default 16777216 for one post, for many 65536 and the length "
                        "of the data")
            ->type_name("BYTES")
            ->check(CLI::Range(1U, uint32_t{LONGEST_ANSWER}));
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

void AddPostOptions(CLI::App &tPost, TPostOptions &tOptions)
{
    AddDataOptions(tPost, tOptions);
    AddTransferOptions(tPost, tOptions);
    AddLimitOptions(tPost, tOptions);
    AddRunOptions(tPost, tOptions);
}

uint32_t DefaultMaxAnswer(uint32_t dwCount, size_t uDataLen)
{
    if (dwCount == 1) {
        return MAX_ANSWER_OF_ONE;
    }
    return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{MAX_ANSWER_OF_MANY} + uDataLen, LONGEST_ANSWER));
}

TPostJob MakePostJob(const TPostOptions &tOptions)
{
    TPostJob tJob = tOptions.tJob;
    tJob.eMode = ModeOf(tOptions.strMode);
    tJob.eHeadType = tOptions.strMethod == "get" ? SENDBYCURL_METHOD_GET : SENDBYCURL_METHOD_POST;
    if (tOptions.ptVerify->count() == 0) {
        tJob.bVerify = tJob.eMode == POST_MODE_CLIENT;
    }
    tJob.szOverrun = s_szOverrun;
    tJob.strBody = LoadData(tOptions);
    CheckJob(tJob);
    tJob.strUserAndPassWd = LoadUser(tJob.strUserAndPassWd);
    if (tOptions.ptMaxAnswer->count() == 0) {
        tJob.dwMaxAnswer = DefaultMaxAnswer(tJob.dwCount, tJob.strBody.size());
    }
    return tJob;
}
