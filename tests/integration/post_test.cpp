/*
 * nvrhttp post, check and doctor, run as programs against nvrhttp serve and against servers of
 * a few lines where a particular answer, or none, is wanted.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

struct TRun {
    int nStatus = -1; /* -1: ended by a signal */
    std::string strOut;
    std::string strErr;
};

struct TRunOptions {
    std::string strStdin;
    std::vector<std::string> astrEnv; /* NAME=value, on top of the usual ones */
    std::function<bool()> pfInChild;  /* before the program starts; false ends the child with 99 */
};

int MemoryFile(const std::string &strContent)
{
    const int nFd = memfd_create("post_test", 0);
    EXPECT_GE(nFd, 0);
    EXPECT_EQ(write(nFd, strContent.data(), strContent.size()), static_cast<ssize_t>(strContent.size()));
    lseek(nFd, 0, SEEK_SET);
    return nFd;
}

std::string ReadBack(int nFd)
{
    std::string strAll(static_cast<size_t>(lseek(nFd, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(nFd, strAll.data(), strAll.size(), 0), static_cast<ssize_t>(strAll.size()));
    close(nFd);
    return strAll;
}

/* Proxies of the machine must not see, or answer, what goes to loopback. */
void ClearProxies()
{
    for (const char *szName :
         {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY", "HTTP_PROXY"}) {
        unsetenv(szName);
    }
}

pid_t Start(const std::vector<std::string> &astrArgs, int nIn, int nOut, int nErr, const TRunOptions &tOptions)
{
    const pid_t nPid = fork();
    if (nPid != 0) {
        return nPid;
    }
    dup2(nIn, STDIN_FILENO);
    dup2(nOut, STDOUT_FILENO);
    dup2(nErr, STDERR_FILENO);
    ClearProxies();
    setenv("NVRHTTPCURL_LOG_DIR", ".", 1); /* the build's folder */
    for (const std::string &strVar : tOptions.astrEnv) {
        putenv(const_cast<char *>(strVar.c_str()));
    }
    if (tOptions.pfInChild && !tOptions.pfInChild()) {
        _exit(99);
    }
    std::vector<char *> apchArgs = {const_cast<char *>(NVRHTTP_PROGRAM)};
    for (const std::string &strArg : astrArgs) {
        apchArgs.push_back(const_cast<char *>(strArg.c_str()));
    }
    apchArgs.push_back(nullptr);
    execv(NVRHTTP_PROGRAM, apchArgs.data());
    _exit(98);
}

int StatusOf(pid_t nPid)
{
    int nStatus = 0;
    EXPECT_EQ(waitpid(nPid, &nStatus, 0), nPid);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

TRun RunProgram(const std::vector<std::string> &astrArgs, const TRunOptions &tOptions = {})
{
    const int nIn = MemoryFile(tOptions.strStdin);
    const int nOut = MemoryFile("");
    const int nErr = MemoryFile("");
    TRun tRun;
    tRun.nStatus = StatusOf(Start(astrArgs, nIn, nOut, nErr, tOptions));
    close(nIn);
    tRun.strOut = ReadBack(nOut);
    tRun.strErr = ReadBack(nErr);
    return tRun;
}

bool Has(const std::string &strText, const std::string &strPart)
{
    return strText.find(strPart) != std::string::npos;
}

size_t Lines(const std::string &strText, const std::string &strLine)
{
    size_t qwCount = 0;
    for (size_t qwPos = 0; strText.compare(qwPos, strLine.size() + 1, strLine + "\n") == 0;
         qwPos += strLine.size() + 1) {
        ++qwCount;
    }
    return qwCount;
}

/* What stands behind a mark, up to the next comma or line end. */
std::string After(const std::string &strText, const std::string &strMark)
{
    const size_t qwMark = strText.find(strMark);
    if (qwMark == std::string::npos) {
        return "";
    }
    const size_t qwFirst = qwMark + strMark.size();
    return strText.substr(qwFirst, strText.find_first_of(",\n", qwFirst) - qwFirst);
}

/* nvrhttp serve as a child. */
class CServe
{
  public:
    explicit CServe(bool bTls)
    {
        int anPipe[2];
        EXPECT_EQ(pipe2(anPipe, O_CLOEXEC), 0);
        const int nNull = open("/dev/null", O_RDWR | O_CLOEXEC);
        std::vector<std::string> astrArgs = {"serve"};
        if (bTls) {
            astrArgs.push_back("--tls");
        }
        m_nPid = Start(astrArgs, nNull, anPipe[1], STDERR_FILENO, {});
        close(nNull);
        close(anPipe[1]);
        char chOne = 0;
        while (read(anPipe[0], &chOne, 1) == 1 && chOne != '\n') {
            m_strUrl += chOne;
        }
        close(anPipe[0]);
        EXPECT_TRUE(Has(m_strUrl, "://127.0.0.1:")) << m_strUrl;
    }
    ~CServe()
    {
        kill(m_nPid, SIGTERM);
        EXPECT_EQ(StatusOf(m_nPid), 0);
    }
    CServe(const CServe &) = delete;
    CServe &operator=(const CServe &) = delete;

    std::string Url(const std::string &strPath = "") const
    {
        return m_strUrl + strPath;
    }

  private:
    pid_t m_nPid = -1;
    std::string m_strUrl;
};

/* A bound loopback port; with a backlog it takes connections and stays silent. */
class CLoopbackPort
{
  public:
    explicit CLoopbackPort(int nBacklog) : m_nSock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in tAddr = {};
        tAddr.sin_family = AF_INET;
        tAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t dwLen = sizeof(tAddr);
        EXPECT_EQ(bind(m_nSock, reinterpret_cast<sockaddr *>(&tAddr), dwLen), 0);
        EXPECT_EQ(getsockname(m_nSock, reinterpret_cast<sockaddr *>(&tAddr), &dwLen), 0);
        m_wPort = ntohs(tAddr.sin_port);
        if (nBacklog > 0) {
            EXPECT_EQ(listen(m_nSock, nBacklog), 0);
        }
    }
    ~CLoopbackPort()
    {
        close(m_nSock);
    }
    CLoopbackPort(const CLoopbackPort &) = delete;
    CLoopbackPort &operator=(const CLoopbackPort &) = delete;

    std::string Url(const std::string &strScheme = "http") const
    {
        return strScheme + "://127.0.0.1:" + std::to_string(m_wPort) + "/";
    }
    int Sock() const
    {
        return m_nSock;
    }

  private:
    int m_nSock;
    uint16_t m_wPort = 0;
};

/* Answers each request, on a connection of its own, with what pfAnswer makes of it. */
class CScriptedServer
{
  public:
    using PFAnswer = std::function<std::string(const std::string &)>;

    explicit CScriptedServer(PFAnswer pfAnswer)
        : m_pfAnswer(std::move(pfAnswer)), m_tPort(16), m_tThread([this] { Serve(); })
    {
    }
    ~CScriptedServer()
    {
        m_bStop = true;
        m_tThread.join();
    }

    std::string Url() const
    {
        return m_tPort.Url();
    }
    std::vector<std::string> Requests()
    {
        std::lock_guard<std::mutex> tLock(m_mtxRequests);
        return m_astrRequests;
    }

  private:
    static bool IsWhole(const std::string &strRequest)
    {
        const size_t qwHead = strRequest.find("\r\n\r\n");
        if (qwHead == std::string::npos) {
            return false;
        }
        if (Has(strRequest, "Transfer-Encoding: chunked")) {
            return Has(strRequest.substr(qwHead), "0\r\n\r\n");
        }
        const size_t qwLength = strRequest.find("Content-Length: ");
        const size_t qwBody = qwLength < qwHead ? std::stoul(strRequest.substr(qwLength + 16)) : 0;
        return strRequest.size() >= qwHead + 4 + qwBody;
    }

    static bool Readable(int nFd)
    {
        pollfd tPoll = {nFd, POLLIN, 0};
        return poll(&tPoll, 1, 20) == 1;
    }

    static void Send(int nFd, const std::string &strText)
    {
        EXPECT_EQ(send(nFd, strText.data(), strText.size(), MSG_NOSIGNAL), static_cast<ssize_t>(strText.size()));
    }

    std::string Receive(int nFd)
    {
        std::string strRequest;
        bool bContinued = false;
        while (!m_bStop && !IsWhole(strRequest)) {
            char achPart[4096];
            const ssize_t nRead = Readable(nFd) ? recv(nFd, achPart, sizeof(achPart), 0) : -1;
            if (nRead == 0) {
                break;
            }
            strRequest.append(achPart, nRead > 0 ? static_cast<size_t>(nRead) : 0);
            if (!bContinued && Has(strRequest, "Expect: 100-continue\r\n")) {
                Send(nFd, "HTTP/1.1 100 Continue\r\n\r\n");
                bContinued = true;
            }
        }
        return strRequest;
    }

    void Serve()
    {
        while (!m_bStop) {
            if (!Readable(m_tPort.Sock())) {
                continue;
            }
            const int nFd = accept4(m_tPort.Sock(), nullptr, nullptr, SOCK_CLOEXEC);
            const std::string strRequest = Receive(nFd);
            {
                std::lock_guard<std::mutex> tLock(m_mtxRequests);
                m_astrRequests.push_back(strRequest);
            }
            Send(nFd, m_pfAnswer(strRequest));
            close(nFd);
        }
    }

    PFAnswer m_pfAnswer;
    CLoopbackPort m_tPort;
    std::atomic<bool> m_bStop{false};
    std::mutex m_mtxRequests;
    std::vector<std::string> m_astrRequests;
    std::thread m_tThread;
};

/* For a child: every bind fails from here on, as if all ports were taken. */
bool RefuseAllPorts()
{
    sock_filter atCode[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_bind, 0, 1),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EADDRINUSE),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog tProgram = {4, atCode};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &tProgram) == 0;
}

std::string Http(const std::string &strStatus, const std::string &strHeaders, const std::string &strBody)
{
    return "HTTP/1.1 " + strStatus + "\r\nConnection: close\r\nContent-Length: " + std::to_string(strBody.size()) +
           "\r\n" + strHeaders + "\r\n" + strBody;
}

class PostInEachMode : public testing::TestWithParam<const char *>
{
  protected:
    std::vector<std::string> Post(const std::string &strUrl, const std::vector<std::string> &astrMore) const
    {
        std::vector<std::string> astrArgs = {"post", strUrl, "--mode", GetParam()};
        astrArgs.insert(astrArgs.end(), astrMore.begin(), astrMore.end());
        return astrArgs;
    }
    bool Is(const char *szMode) const
    {
        return strcmp(GetParam(), szMode) == 0;
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, PostInEachMode, testing::Values("sync", "async", "direct"),
                         [](const auto &tInfo) { return std::string(tInfo.param); });

TEST_P(PostInEachMode, AnswerAloneGoesToStandardOutput)
{
    CServe tServe(false);
    const TRun tRun = RunProgram(Post(tServe.Url(), {"--data", R"(["a",{"b":[1,2]}])"}));
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    EXPECT_EQ(tRun.strOut, R"(["a",{"b":[1,2]}])");
    EXPECT_TRUE(Has(tRun.strErr, "succeeded in")) << tRun.strErr;
}

TEST_P(PostInEachMode, WithoutDataAnEmptyObjectIsSent)
{
    CServe tServe(false);
    EXPECT_EQ(RunProgram(Post(tServe.Url(), {})).strOut, "{}");
}

TEST_P(PostInEachMode, TextOutsideAsciiComesBackUnchanged)
{
    CServe tServe(false);
    const std::string strText = "{\"text\":\"Gr\u00fc\u00dfe \u6e29\u5ea6 \U0001F321\"}";
    const TRun tRun = RunProgram(Post(tServe.Url(), {"--data", strText}));
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    EXPECT_EQ(tRun.strOut, strText);
}

TEST_P(PostInEachMode, FileOfTwoMegabytesComesBackUnchanged)
{
    CServe tServe(false);
    std::string strText(2000000, 'x');
    for (size_t qwPos = 0; qwPos < strText.size(); ++qwPos) {
        strText[qwPos] = static_cast<char>('!' + qwPos * 31 % 90);
    }
    const std::filesystem::path tPath =
        std::filesystem::temp_directory_path() / ("post_test." + std::to_string(getpid()));
    std::ofstream(tPath, std::ios::binary) << strText;
    const TRun tRun = RunProgram(Post(tServe.Url(), {"--data", "@" + tPath.string()}));
    std::filesystem::remove(tPath);
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    EXPECT_TRUE(tRun.strOut == strText) << tRun.strOut.size() << " bytes came back";
}

TEST_P(PostInEachMode, StandardInputIsTheData)
{
    CServe tServe(false);
    const TRunOptions tOptions = {"{\"from\":\"stdin\"}\n", {}, {}};
    const TRun tLone = RunProgram(Post(tServe.Url(), {"-"}), tOptions);
    EXPECT_EQ(tLone.strOut, tOptions.strStdin) << tLone.strErr;
    const TRun tNamed = RunProgram(Post(tServe.Url(), {"--data", "-"}), tOptions);
    EXPECT_EQ(tNamed.strOut, tOptions.strStdin) << tNamed.strErr;
}

TEST_P(PostInEachMode, FiveThousandPostsAreAllAnswered)
{
    CServe tServe(false);
    const TRun tRun = RunProgram(Post(tServe.Url(), {"--data", "{\"n\":5000}", "--count", "5000", "--parallel", "200",
                                                     "--timeout", "60000", "--connect-timeout", "60000"}));
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    EXPECT_EQ(Lines(tRun.strOut, "{\"n\":5000}"), 5000U);
    EXPECT_TRUE(Has(tRun.strErr, "5000 succeeded, 0 failed, 0 lost")) << tRun.strErr;
    EXPECT_TRUE(Has(tRun.strErr, "p50 ") && Has(tRun.strErr, "p95 ") && Has(tRun.strErr, "p99 ")) << tRun.strErr;
}

TEST_P(PostInEachMode, QuietWritesNoAnswers)
{
    CServe tServe(false);
    const TRun tRun = RunProgram(Post(tServe.Url(), {"--count", "7", "--parallel", "3", "--quiet"}));
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    EXPECT_EQ(tRun.strOut, "");
    EXPECT_TRUE(Has(tRun.strErr, "7 succeeded")) << tRun.strErr;
}

TEST_P(PostInEachMode, RefusedConnectionIsTheModulesResult)
{
    const CLoopbackPort tClosed(0);
    const TRun tRun = RunProgram(Post(tClosed.Url(), {}));
    EXPECT_EQ(tRun.nStatus, Is("sync") ? 10 : Is("async") ? 14 : 5) << tRun.strErr;
    EXPECT_EQ(tRun.strOut, "");
    EXPECT_TRUE(Has(tRun.strErr, "result " + std::to_string(tRun.nStatus) + ": ")) << tRun.strErr;
}

TEST_P(PostInEachMode, EveryFailureOfManyIsCounted)
{
    const CLoopbackPort tClosed(0);
    const TRun tRun = RunProgram(Post(tClosed.Url(), {"--count", "20", "--parallel", "4"}));
    EXPECT_EQ(tRun.nStatus, Is("sync") ? 10 : Is("async") ? 14 : 5) << tRun.strErr;
    EXPECT_TRUE(Has(tRun.strErr, "0 succeeded, 20 failed, 0 lost")) << tRun.strErr;
    EXPECT_TRUE(Has(tRun.strErr, "20 failed with result " + std::to_string(tRun.nStatus) + ": ")) << tRun.strErr;
}

TEST_P(PostInEachMode, SilentServerEndsInABoundedTime)
{
    const CLoopbackPort tSilent(16);
    const TRun tRun = RunProgram(Post(tSilent.Url(), {"--timeout", "300"}));
    EXPECT_EQ(tRun.nStatus, Is("sync") ? 10 : 7) << tRun.strErr;
    EXPECT_EQ(tRun.strOut, "");
}

TEST_P(PostInEachMode, OnlyTheSynchronousModeJudgesTheStatus)
{
    CServe tServe(false);
    const TRun tRun = RunProgram(Post(tServe.Url("status/500"), {"--data", "[1]"}));
    EXPECT_EQ(tRun.nStatus, Is("sync") ? 10 : 0) << tRun.strErr;
    EXPECT_EQ(tRun.strOut, Is("sync") ? "" : "[1]");
}

TEST_P(PostInEachMode, AnswerMayFillTheRoomForIt)
{
    CServe tServe(false);
    const TRun tRun = RunProgram(Post(tServe.Url("size/1000"), {"--max-answer", "1000"}));
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    EXPECT_EQ(tRun.strOut.size(), 1000U);
}

TEST_P(PostInEachMode, LongerAnswerIsAFailure)
{
    CServe tServe(false);
    for (const char *szPath : {"size/1001", "size/1002", "size/300000"}) {
        const TRun tRun = RunProgram(Post(tServe.Url(szPath), {"--max-answer", "1000"}));
        EXPECT_EQ(tRun.nStatus, Is("direct") ? 5 : 11) << szPath << ": " << tRun.strErr;
        EXPECT_EQ(tRun.strOut, "") << szPath;
        EXPECT_TRUE(Has(tRun.strErr, "longer than --max-answer")) << szPath << ": " << tRun.strErr;
    }
}

TEST_P(PostInEachMode, SelfSignedServerIsAcceptedUnlessVerified)
{
    CServe tServe(true);
    const TRun tRun = RunProgram(Post(tServe.Url(), {"--data", "[2]"}));
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    EXPECT_EQ(tRun.strOut, "[2]");

    const TRun tVerified = RunProgram(Post(tServe.Url(), {"--data", "[2]", "--verify"}));
    EXPECT_EQ(tVerified.strOut, "");
    if (Is("direct")) {
        EXPECT_EQ(tVerified.nStatus, 5) << tVerified.strErr;
    } else {
        EXPECT_GT(tVerified.nStatus, 100);
        EXPECT_TRUE(Has(tVerified.strErr, "--verify: works with --mode direct only")) << tVerified.strErr;
    }
}

TEST_P(PostInEachMode, UserBelongsToTheSynchronousMode)
{
    CScriptedServer tServer([](const std::string &strRequest) {
        return Has(strRequest, "Authorization: Basic bWU6cHc=\r\n")
                   ? Http("200 OK", "", "welcome")
                   : Http("401 Unauthorized", "WWW-Authenticate: Basic realm=\"r\"\r\n", "");
    });
    const TRun tRun = RunProgram(Post(tServer.Url(), {"--user", "me:pw"}));
    if (Is("sync")) {
        EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
        EXPECT_EQ(tRun.strOut, "welcome");
    } else {
        EXPECT_GT(tRun.nStatus, 100);
        EXPECT_TRUE(Has(tRun.strErr, "--user: works with --mode sync only")) << tRun.strErr;
        EXPECT_TRUE(tServer.Requests().empty());
    }
}

TEST_P(PostInEachMode, ZeroByteIsRefusedWhereItWouldCutTheData)
{
    CServe tServe(false);
    const TRunOptions tOptions = {std::string("ab\0cd", 5), {}, {}};
    const TRun tRun = RunProgram(Post(tServe.Url(), {"-"}), tOptions);
    if (Is("direct")) {
        EXPECT_GT(tRun.nStatus, 100);
        EXPECT_TRUE(Has(tRun.strErr, "holds a zero byte")) << tRun.strErr;
        EXPECT_EQ(tRun.strOut, "");
    } else {
        EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
        /* An asynchronous answer has no length. */
        EXPECT_EQ(tRun.strOut, Is("sync") ? tOptions.strStdin : "ab");
    }
}

TEST_P(PostInEachMode, LogLinesGoToStandardErrorOnDemand)
{
    CServe tServe(false);
    const CLoopbackPort tClosed(0);
    const TRun tSilent = RunProgram(Post(tClosed.Url(), {}));
    EXPECT_FALSE(Has(tSilent.strErr, "[L:")) << tSilent.strErr;
    const TRun tLogged = RunProgram(Post(tServe.Url(), {"--data", "[3]", "--log"}));
    EXPECT_EQ(tLogged.strOut, "[3]");
    EXPECT_TRUE(Has(tLogged.strErr, "[L:")) << tLogged.strErr;
}

/* Also where the soft limit of open files is lower than that, as it usually is. */
TEST(PostMany, OneThousandAndTwentyFourOutstanding)
{
    rlimit tLimit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &tLimit), 0);
    ASSERT_GE(tLimit.rlim_max, 1200U) << "this case needs a higher hard limit of open files";
    CServe tServe(false);
    TRunOptions tOptions;
    tOptions.pfInChild = [tLimit]() mutable {
        tLimit.rlim_cur = 1024;
        return setrlimit(RLIMIT_NOFILE, &tLimit) == 0;
    };
    const TRun tRun = RunProgram({"post", tServe.Url(), "--mode", "async", "--count", "3000", "--parallel", "1024",
                                  "--timeout", "60000", "--connect-timeout", "60000"},
                                 tOptions);
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    EXPECT_EQ(Lines(tRun.strOut, "{}"), 3000U);
}

TEST(PostMany, NeverReportedCountAsLost)
{
    const CLoopbackPort tSilent(16);
    const TRun tRun =
        RunProgram({"post", tSilent.Url(), "--mode", "async", "--count", "5", "--parallel", "3", "--timeout", "300"});
    EXPECT_EQ(tRun.nStatus, 7) << tRun.strErr;
    EXPECT_TRUE(Has(tRun.strErr, "0 succeeded, 0 failed, 3 lost")) << tRun.strErr;
    EXPECT_TRUE(Has(tRun.strErr, "2 not sent")) << tRun.strErr;
}

TEST(PostMany, AnswersOfDifferentLengthDoNotMixInReusedBuffers)
{
    std::atomic<unsigned> dwServed{0};
    CScriptedServer tServer([&dwServed](const std::string &) {
        return Http("200 OK", "", dwServed++ % 2 == 0 ? std::string(9000, 'L') : std::string("short"));
    });
    const TRun tRun = RunProgram({"post", tServer.Url(), "--mode", "async", "--count", "4"});
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    const std::string strPair = std::string(9000, 'L') + "\nshort\n";
    EXPECT_TRUE(tRun.strOut == strPair + strPair) << tRun.strOut.size();
}

TEST(PostMany, OneSlowPostInTwentyIsTheLastPercentile)
{
    std::atomic<unsigned> dwServed{0};
    CScriptedServer tServer([&dwServed](const std::string &) {
        if (dwServed++ == 5) {
            std::this_thread::sleep_for(std::chrono::milliseconds(400));
        }
        return Http("200 OK", "", "ok");
    });
    const TRun tRun = RunProgram({"post", tServer.Url(), "--count", "20"});
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    const std::string strLongest = After(tRun.strErr, "longest ");
    ASSERT_NE(strLongest, "") << tRun.strErr;
    /* "1.234 s" or "412.3 ms" */
    EXPECT_TRUE(Has(strLongest, " s") || std::stod(strLongest) >= 400.0) << tRun.strErr;
    EXPECT_EQ(After(tRun.strErr, "p99 "), strLongest) << tRun.strErr;
    EXPECT_NE(After(tRun.strErr, "p95 "), strLongest) << tRun.strErr;
    EXPECT_NE(After(tRun.strErr, "p50 "), strLongest) << tRun.strErr;
}

TEST(PostMany, StatusLineIsRewrittenOnATerminalOnly)
{
    CServe tServe(false);
    const std::vector<std::string> astrArgs = {"post", tServe.Url("delay/300"), "--count", "4"};
    EXPECT_FALSE(Has(RunProgram(astrArgs).strErr, "\r"));

    int nMaster = -1;
    int nSlave = -1;
    ASSERT_EQ(openpty(&nMaster, &nSlave, nullptr, nullptr, nullptr), 0);
    const int nOut = MemoryFile("");
    const pid_t nPid = Start(astrArgs, nOut, nOut, nSlave, {});
    close(nSlave);
    std::string strErr;
    char achPart[4096];
    ssize_t nRead = 0;
    while ((nRead = read(nMaster, achPart, sizeof(achPart))) > 0) {
        strErr.append(achPart, static_cast<size_t>(nRead));
    }
    close(nMaster);
    EXPECT_EQ(StatusOf(nPid), 0) << strErr;
    EXPECT_EQ(Lines(ReadBack(nOut), "{}"), 4U);
    EXPECT_TRUE(Has(strErr, "\r\033[K")) << strErr;
    EXPECT_TRUE(Has(strErr, "of 4 done, ")) << strErr;
    EXPECT_TRUE(Has(strErr, "in flight")) << strErr;
    EXPECT_TRUE(Has(strErr, "4 succeeded")) << strErr;
}

TEST(PostOutput, AnswerThatCannotBeWrittenIsAFailure)
{
    CServe tServe(false);
    const int nFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(nFull, 0);
    const int nErr = MemoryFile("");
    const pid_t nPid = Start({"post", tServe.Url()}, nErr, nFull, nErr, {});
    close(nFull);
    EXPECT_EQ(StatusOf(nPid), 1);
    EXPECT_TRUE(Has(ReadBack(nErr), "an answer could not be written"));
}

TEST(PostMethods, WhatLeavesIsWhatTheHelpSays)
{
    CScriptedServer tServer([](const std::string &) { return Http("200 OK", "", "ok"); });
    for (const char *szMode : {"sync", "async", "direct"}) {
        for (const char *szMethod : {"post", "put", "get"}) {
            EXPECT_EQ(
                RunProgram({"post", tServer.Url(), "--mode", szMode, "--method", szMethod, "--data", "[4]"}).strOut,
                "ok");
            const std::string strRequest = tServer.Requests().back();
            const bool bGet = strcmp(szMode, "direct") == 0 && strcmp(szMethod, "post") != 0;
            EXPECT_EQ(strRequest.substr(0, 5), bGet ? "GET /" : "POST ") << szMode << ' ' << szMethod;
            EXPECT_EQ(Has(strRequest, "[4]"), !bGet) << szMode << ' ' << szMethod;
        }
    }
}

TEST(PostRefusals, BadArgumentsSendNothing)
{
    CScriptedServer tServer([](const std::string &) { return Http("200 OK", "", ""); });
    const std::string strUrl = tServer.Url();
    const std::vector<std::vector<std::string>> aastrBad = {
        {"post"},
        {"post", strUrl, "--mode", "other"},
        {"post", strUrl, "--method", "delete"},
        {"post", strUrl, "--data", "@/nonexistent/file"},
        {"post", strUrl, "--data", "@/"},
        {"post", strUrl, "--data", "[]", "-"},
        {"post", strUrl, "file"},
        {"post", strUrl, "--timeout", "0"},
        {"post", strUrl, "--connect-timeout", "0"},
        {"post", strUrl, "--max-answer", "0"},
        {"post", strUrl, "--count", "0"},
        {"post", strUrl, "--parallel", "1025"},
        {"post", strUrl, "--user", std::string(128, 'u')},
    };
    for (const auto &astrArgs : aastrBad) {
        const TRun tRun = RunProgram(astrArgs);
        EXPECT_GT(tRun.nStatus, 100) << astrArgs.back();
        EXPECT_EQ(tRun.strOut, "") << astrArgs.back();
        EXPECT_FALSE(tRun.strErr.empty()) << astrArgs.back();
    }
    EXPECT_TRUE(tServer.Requests().empty());
}

TEST_P(PostInEachMode, WithoutWakeupPortsOnlyADirectSendWorks)
{
    CServe tServe(false);
    const TRun tRun = RunProgram(Post(tServe.Url(), {"--data", "[5]"}), {"", {}, RefuseAllPorts});
    if (tRun.nStatus == 99) {
        GTEST_SKIP() << "the system does not let a process refuse itself a call";
    }
    EXPECT_EQ(tRun.nStatus, Is("direct") ? 0 : 1) << tRun.strErr;
    EXPECT_EQ(tRun.strOut, Is("direct") ? "[5]" : "");
    EXPECT_TRUE(Has(tRun.strErr, "could not be started, result 1: ")) << tRun.strErr;
}

TEST(Help, EachCommandShowsExamples)
{
    for (const char *szCommand : {"post", "check", "doctor", "console", "serve"}) {
        const TRun tRun = RunProgram({szCommand, "--help"});
        EXPECT_EQ(tRun.nStatus, 0) << szCommand;
        EXPECT_TRUE(Has(tRun.strOut, std::string("Examples:\n  nvrhttp ") + szCommand)) << tRun.strOut;
    }
}

TEST(Help, VersionIsTold)
{
    const TRun tRun = RunProgram({"--version"});
    EXPECT_EQ(tRun.nStatus, 0);
    EXPECT_TRUE(Has(tRun.strOut, NVRHTTP_VERSION)) << tRun.strOut;
}

TEST(Check, AnyStatusIsReachable)
{
    CServe tServe(false);
    for (const char *szPath : {"", "status/404", "status/500"}) {
        const TRun tRun = RunProgram({"check", tServe.Url(szPath)});
        EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
        EXPECT_EQ(tRun.strOut, tServe.Url(szPath) + "\nresult 0: reachable: the server answered, with whatever HTTP "
                                                    "status\n");
    }
}

TEST(Check, SelfSignedServerIsReachable)
{
    CServe tServe(true);
    EXPECT_EQ(RunProgram({"check", tServe.Url()}).nStatus, 0);
}

TEST(Check, RefusedConnection)
{
    const CLoopbackPort tClosed(0);
    const TRun tRun = RunProgram({"check", tClosed.Url()});
    EXPECT_EQ(tRun.nStatus, 1);
    EXPECT_TRUE(Has(tRun.strOut, "result 1: not reachable: refused")) << tRun.strOut;
}

TEST(Check, PlainPortAskedForTls)
{
    const CLoopbackPort tPlain(16);
    std::thread tAnswer([&tPlain] {
        const int nFd = accept4(tPlain.Sock(), nullptr, nullptr, SOCK_CLOEXEC);
        char achHello[4096];
        EXPECT_GT(recv(nFd, achHello, sizeof(achHello), 0), 0);
        EXPECT_GT(send(nFd, "HTTP/1.1 400 Bad Request\r\n\r\n", 28, MSG_NOSIGNAL), 0);
        close(nFd);
    });
    const TRun tRun = RunProgram({"check", tPlain.Url("https")});
    tAnswer.join();
    EXPECT_EQ(tRun.nStatus, 12) << tRun.strOut << tRun.strErr;
    EXPECT_TRUE(Has(tRun.strOut, "result 12: not reachable: the TLS connection failed")) << tRun.strOut;
}

/* A queue that is full drops further connections: the address seems silent. */
TEST(Check, NoConnectionInTime)
{
    const CLoopbackPort tFull(1);
    sockaddr_in tAddr = {};
    socklen_t dwLen = sizeof(tAddr);
    ASSERT_EQ(getsockname(tFull.Sock(), reinterpret_cast<sockaddr *>(&tAddr), &dwLen), 0);
    std::vector<int> anSocks;
    for (int nTry = 0; nTry < 8; ++nTry) {
        anSocks.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        (void)connect(anSocks.back(), reinterpret_cast<sockaddr *>(&tAddr), dwLen);
    }
    const TRun tRun = RunProgram({"check", tFull.Url(), "--connect-timeout", "1"});
    for (int nSock : anSocks) {
        close(nSock);
    }
    EXPECT_EQ(tRun.nStatus, 10) << tRun.strOut << tRun.strErr;
    EXPECT_TRUE(Has(tRun.strOut, "result 10: not reachable: no connection within the time-out")) << tRun.strOut;
}

TEST(Check, StandardInputIsNotSent)
{
    CScriptedServer tServer([](const std::string &) { return Http("200 OK", "", ""); });
    const TRun tRun = RunProgram({"check", tServer.Url()}, {"SECRET", {}, {}});
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strErr;
    ASSERT_EQ(tServer.Requests().size(), 1U);
    EXPECT_EQ(tServer.Requests()[0].substr(0, 7), "POST / ");
    EXPECT_FALSE(Has(tServer.Requests()[0], "SECRET")) << tServer.Requests()[0];
}

TEST(Doctor, NamesWhatTheLibraryReliesOn)
{
    const TRun tRun = RunProgram({"doctor"});
    EXPECT_EQ(tRun.nStatus, 0) << tRun.strOut << tRun.strErr;
    for (const char *szTopic :
         {"ok       libcurl ", "ok       TLS ", "ok       threads ", " HTTP/2 ", "ok       wake-up ports ",
          "ok       proxy         no variable that libcurl obeys", " open files ", "\n0 missing, "}) {
        EXPECT_TRUE(Has(tRun.strOut, szTopic)) << szTopic << " in\n" << tRun.strOut;
    }
}

TEST(Doctor, WarnsOfProxies)
{
    const TRun tRun = RunProgram(
        {"doctor"}, {"",
                     {"http_proxy=http://me:pw@127.0.0.1:9/", "HTTPS_PROXY=127.0.0.2:9", "HTTP_PROXY=127.0.0.3:9",
                      "all_proxy=127.0.0.4:9", "ALL_PROXY=127.0.0.5:9", "https_proxy=", "no_proxy=localhost"},
                     {}});
    EXPECT_EQ(tRun.nStatus, 0);
    for (const char *szPart : {"warning  proxy         http_proxy=http://***@127.0.0.1:9/:",
                               "warning  proxy         HTTPS_PROXY=127.0.0.2:9:",
                               "ok       proxy         HTTP_PROXY is set: libcurl ignores it in capitals",
                               "warning  proxy         all_proxy=127.0.0.4:9:", "no_proxy=localhost"}) {
        EXPECT_TRUE(Has(tRun.strOut, szPart)) << szPart << " in\n" << tRun.strOut;
    }
    EXPECT_FALSE(Has(tRun.strOut, "me:pw"));
    EXPECT_FALSE(Has(tRun.strOut, "127.0.0.5"));
}

TEST(Doctor, WarnsOfALowLimitOfOpenFiles)
{
    const TRun tRun = RunProgram({"doctor"}, {"", {}, [] {
                                                  const rlimit tLimit = {256, 256};
                                                  return setrlimit(RLIMIT_NOFILE, &tLimit) == 0;
                                              }});
    EXPECT_EQ(tRun.nStatus, 0);
    EXPECT_TRUE(Has(tRun.strOut, "warning  open files    256, but 1024 outstanding requests take about"))
        << tRun.strOut;
    EXPECT_TRUE(Has(tRun.strOut, "have the hard limit raised (hard limit: 256)")) << tRun.strOut;
}

TEST(Doctor, MissingWakeupPortsAreAFailure)
{
    const TRun tRun = RunProgram({"doctor"}, {"", {}, RefuseAllPorts});
    if (tRun.nStatus == 99) {
        GTEST_SKIP() << "the system does not let a process refuse itself a call";
    }
    EXPECT_EQ(tRun.nStatus, 1) << tRun.strOut;
    EXPECT_TRUE(Has(tRun.strOut, "missing  wake-up ports 0 of 6991")) << tRun.strOut;
    EXPECT_TRUE(Has(tRun.strOut, "\n1 missing, ")) << tRun.strOut;
}

} // namespace
