/*
 * Traps of docs/contracts.md that can be shown: behaviour that surprises callers and is kept.
 */
#include <curl/curl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <thread>

#include "engine_runs.h"
#include "nginx_server.h"
#include "sends.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace
{

using namespace test;

std::atomic<bool> lookupsMayEnd{false};

} // namespace

/* In place of the C library's: libcurl's lookups wait for the test, and no question leaves the machine. */
extern "C" int getaddrinfo(const char *, const char *, const addrinfo *, addrinfo **)
{
    WaitUntil([] { return lookupsMayEnd.load(); });
    return EAI_NONAME;
}

namespace
{

class Scripted : public IntegrationTest
{
  protected:
    const ScriptedServer server{ECHOING};
};

class Traps : public Scripted
{
  protected:
    /* A request for the URL on which no other setter has been called. */
    HNvrHttpCurlCltReq NewRequest(const std::string &url) const
    {
        HNvrHttpCurlCltReq request = nullptr;
        EXPECT_EQ(NvrHttpCurlCltReqCreat(engine.Handle(), &request), NVRHTTPCURLCLT_OK);
        EXPECT_EQ(NvrHttpCurlCltSetReqUri(request, url.c_str()), NVRHTTPCURLCLT_OK);
        return request;
    }

    Engine engine{1};
};

using TrapsWithNginx = NginxTest;

void RunSync(HNvrHttpCurlCltReq request)
{
    EXPECT_EQ(NvrHttpCurlCltProcessReq(request, 60000, 60000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr),
              NVRHTTPCURLCLT_OK);
}

void SetBody(HNvrHttpCurlCltReq request, const std::string &body)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(request, body.data(), static_cast<uint32_t>(body.size())), NVRHTTPCURLCLT_OK);
}

/* --- requests ------------------------------------------------------------------------------- */

TEST_F(Traps, WithoutABodyTheRequestIsAGetAndTheAnswerGoesToStandardOutput)
{
    const ScriptedServer answering(Answering("an answer"));
    HNvrHttpCurlCltReq request = NewRequest(answering.Url("/place"));
    EXPECT_EQ(StandardOutputOf([request] { RunSync(request); }), "an answer");
    EXPECT_EQ(answering.Requests().at(0).Line(), "GET /place HTTP/1.1");
    EXPECT_EQ(StatusOf(request), 200);
    EXPECT_EQ(AnswerOf(request), "(no answer)");
    NvrHttpCurlCltReqDestroy(request);
}

TEST_F(Traps, AFirstHeaderLineAfterTheBodyIsNotSentAndTheAnswerKeepsItsHeaders)
{
    HNvrHttpCurlCltReq request = NewRequest(server.Url());
    SetBody(request, "one");
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(request, "X-Late", "1"), NVRHTTPCURLCLT_OK);
    RunSync(request);
    EXPECT_FALSE(server.Requests().at(0).HasHeader("X-Late"));
    EXPECT_EQ(AnswerOf(request), Reply(200, "one"));

    /* Another body passes the line on, and leaves the headers in the answer. */
    SetBody(request, "two");
    RunSync(request);
    EXPECT_TRUE(server.Requests().at(1).HasLine("X-Late:1"));
    EXPECT_EQ(AnswerOf(request), Reply(200, "two"));
    NvrHttpCurlCltReqDestroy(request);
}

TEST_F(Traps, SubmittedAgainInTheCallbackItCopiesTheEarlierAnswersToo)
{
    Submission run{};
    run.request = engine.MakeRequest(server.Url(), "one");
    std::string lengths;
    run.inCallback = [&lengths](Submission &self) {
        lengths += std::to_string(std::string(self.answer).size()) + " ";
        const uint32_t callbacks = self.callbacks.load();
        if (callbacks == 3) {
            SetBody(self.request, "four"); /* begins a new answer */
            std::fill(std::begin(self.answer), std::end(self.answer), '\0');
        }
        if (callbacks < 4) {
            EXPECT_EQ(self.Submit(), NVRHTTPCURLCLT_OK);
        }
    };
    ASSERT_EQ(run.Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(run.WaitForCallbacks(4));
    EXPECT_EQ(lengths, "3 6 9 4 ");
    NvrHttpCurlCltReqDestroy(run.request);
}

TEST_F(Traps, CarriageReturnAndLineFeedInAHeaderTextReachTheServer)
{
    HNvrHttpCurlCltReq request = NewRequest(server.Url());
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(request, "X-Name", "value\r\nX-Smuggled: yes"), NVRHTTPCURLCLT_OK);
    SetBody(request, "{}");
    RunSync(request);
    EXPECT_TRUE(server.Requests().at(0).HasLine("X-Name:value"));
    EXPECT_TRUE(server.Requests().at(0).HasLine("X-Smuggled: yes"));
    NvrHttpCurlCltReqDestroy(request);
}

/* --- the send module -------------------------------------------------------------------------- */

class SendTraps : public WithSendModule<Scripted>
{
  protected:
    /* Only the synchronous send takes this answer for a failure. */
    static void ExpectAnswer(const std::string &url, const std::string &answer)
    {
        EXPECT_EQ(SendAndWait(url, "{}").result, SENDBYCURL_HTTP_STATUS);
        Batch batch(1);
        ASSERT_EQ(batch.Send(0, url, "{}"), SENDBYCURL_OK);
        ASSERT_TRUE(batch.WaitFor(1));
        EXPECT_EQ(batch.Result(0), SENDBYCURL_OK);
        EXPECT_EQ(batch.Answer(0), answer);
        Post direct(url, "{}");
        EXPECT_EQ(direct.SendDirect(), SENDBYCURL_OK);
        EXPECT_EQ(direct.Received(), answer);
    }
};

/* Without an HTTP status. */
TEST_F(SendTraps, AFileUrlComesBackAsAnAnswer)
{
    const std::string path = logFolder.Path() + "/secret";
    WriteFile(path, "a secret");
    ExpectAnswer("file://" + path, "a secret");
}

TEST_F(SendTraps, ARedirectIsNotFollowed)
{
    const ScriptedServer moved({When::REQUEST, {Send(Reply(302, "moved", "Location: " + server.Url() + "\r\n"))}});
    ExpectAnswer(moved.Url(), "moved");
    EXPECT_EQ(server.RequestCount(), 0U);
}

TEST_F(SendTraps, ASynchronousSendClosesItsConnection)
{
    for (size_t count = 1; count <= 2; ++count) {
        EXPECT_EQ(SendAndWait(server.Url(), "{}").result, SENDBYCURL_OK);
        ASSERT_TRUE(WaitUntil([this] { return server.OpenConnections() == 0; }));
        EXPECT_EQ(server.RequestCount(), count);
    }
}

/* --- connections, descriptors, threads ---------------------------------------------------------- */

/* Ports of this type of socket among the descriptors, in the order of these. */
std::vector<uint16_t> PortsOf(const std::set<int> &descriptors, int type)
{
    std::vector<uint16_t> ports;
    for (const int fd : descriptors) {
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        int seen = 0;
        socklen_t seenLength = sizeof(seen);
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0 && address.sin_family == AF_INET &&
            getsockopt(fd, SOL_SOCKET, SO_TYPE, &seen, &seenLength) == 0 && seen == type) {
            ports.push_back(ntohs(address.sin_port));
        }
    }
    return ports;
}

size_t Connections()
{
    return PortsOf(OpenDescriptors(), SOCK_STREAM).size();
}

/* Runs requests for the URL, all at once, and destroys them. */
void RunAtOnce(const Engine &engine, const std::string &url, size_t count)
{
    std::vector<Submission> all(count);
    for (Submission &run : all) {
        run.request = engine.MakeRequest(url, "{}");
        ASSERT_EQ(run.Submit(), NVRHTTPCURLCLT_OK);
    }
    for (Submission &run : all) {
        ASSERT_TRUE(run.WaitForCallbacks(1));
        EXPECT_EQ(run.result, NVRHTTPCURLCLT_OK);
        NvrHttpCurlCltReqDestroy(run.request);
    }
}

/* The first one shows libcurl that the connection can be shared. */
TEST_F(TrapsWithNginx, OverHttp2TheRequestsOfATaskShareAConnection)
{
    const size_t before = Connections();
    Engine engine(1);
    RunAtOnce(engine, nginx.Http2("/echo"), 1);
    RunAtOnce(engine, nginx.Http2("/late"), 20);
    EXPECT_EQ(Connections(), before + 1);
}

TEST_F(TrapsWithNginx, OverHttp1EveryRequestUnderWayHasItsOwnAndIdleOnesStayOpen)
{
    const size_t before = Connections();
    Engine engine(1);
    RunAtOnce(engine, nginx.Https("/echo"), 1);
    RunAtOnce(engine, nginx.Https("/late"), 20);
    EXPECT_GT(Connections(), before + 1);
    engine.Stop();
    EXPECT_EQ(Connections(), before);
}

TEST_F(Traps, EachLookupTakesAThreadAndDescriptors)
{
    constexpr size_t COUNT = 8;
    const size_t threads = RunningThreads();
    const size_t descriptors = OpenDescriptors().size();
    std::vector<Submission> all(COUNT);
    for (Submission &run : all) {
        run.request = engine.MakeRequest("http://recorder.invalid/", "{}");
        ASSERT_EQ(run.Submit(), NVRHTTPCURLCLT_OK);
    }
    /* Newer libcurl has a thread for each address family, and wakes its waits by itself. */
    const bool isNew = curl_version_info(CURLVERSION_NOW)->version_num >= 0x081400;
    EXPECT_TRUE(WaitUntil([=] { return RunningThreads() == threads + (isNew ? 2 : 1) * COUNT; })) << RunningThreads();
    EXPECT_GE(OpenDescriptors().size(), descriptors + (isNew ? 0 : COUNT));
    lookupsMayEnd = true;
    for (Submission &run : all) {
        EXPECT_TRUE(run.WaitForCallbacks(1));
        EXPECT_EQ(run.result, NVRHTTPCURLCLT_FAILED);
        NvrHttpCurlCltReqDestroy(run.request);
    }
}

/* --- fork and exec ------------------------------------------------------------------------------ */

/* The child's exit status: 0 if a submission was accepted and never reported. */
[[noreturn]] void SubmitInChild(Submission &run)
{
    const bool accepted = run.Submit() == NVRHTTPCURLCLT_OK;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    _exit(accepted && run.callbacks.load() == 0 ? 0 : 1);
}

TEST_F(Traps, AForkedChildsSubmissionIsAcceptedAndNeverReported)
{
    Submission run{};
    run.request = engine.MakeRequest(server.Url(), "{}");
    const pid_t child = fork();
    if (child == 0) {
        SubmitInChild(run);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(server.RequestCount(), 0U);

    /* The parent's engine is the same as before. */
    ASSERT_EQ(run.Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(run.WaitForCallbacks(1));
    EXPECT_EQ(run.result, NVRHTTPCURLCLT_OK);
    NvrHttpCurlCltReqDestroy(run.request);
}

TEST_F(Traps, AProgramThatIsStartedInheritsTheWakeUpSockets)
{
    const std::vector<uint16_t> ports = PortsOf(OpenDescriptors(), SOCK_DGRAM);
    ASSERT_EQ(ports.size(), 1U);
    std::string socketName;
    for (const int fd : OpenDescriptors()) {
        if (PortsOf({fd}, SOCK_DGRAM) == ports) {
            socketName = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
        }
    }
    Program program;
    program.command = {"/bin/sh", "-c", "ls -l /proc/self/fd; echo listed; cat"};
    ChildProcess child(program);
    EXPECT_TRUE(Has(child.ReadUntil("listed"), socketName)) << socketName;

    /* It keeps the port taken after the instance's end. */
    engine.Stop();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(ports[0]);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_NE(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    close(fd);
}

} // namespace
