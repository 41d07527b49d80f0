/*
 * Requests end in time, with nothing else going on that would drive their worker. Each case runs with a libcurl that
 * has the file protocol and with one that does not.
 *
 * Measured loosely, since the machine may be busy: without the heartbeat they would never end. How late one may end
 * is up to the heartbeat, whose submissions are counted. With NVRHTTP_STRICT_TIMES set, as scripts/check stricttimes
 * does, each has to end within its time-out and 100 ms.
 */
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdlib>
#include <vector>

#include "client_fixture.h"
#include "nginx_server.h"
#include "nvrhttpcurl/sendbycurl.h"
#include "tests/support/next.h"

namespace
{

using namespace test;

std::atomic<size_t> submissions{0};
std::atomic<size_t> refusals{0};
std::atomic<bool> hasFileProtocol{true};

/* Clocks may differ by a millisecond. */
void ExpectInTime(const Response &answer, milliseconds timeout)
{
    EXPECT_GE(answer.elapsed, timeout - milliseconds(2));
    EXPECT_LE(answer.elapsed,
              timeout + (getenv("NVRHTTP_STRICT_TIMES") != nullptr ? milliseconds(100) : milliseconds(5000)));
}

nvrhttpcurl::Request Limited(const std::string &url, milliseconds timeout)
{
    nvrhttpcurl::Request request = PostOf(url);
    request.timeout = timeout;
    return request;
}

class ClientDeadline : public ClientTest, public testing::WithParamInterface<bool>
{
  protected:
    ClientDeadline()
    {
        hasFileProtocol = GetParam();
    }
};

INSTANTIATE_TEST_SUITE_P(Cases, ClientDeadline, testing::Bool(),
                         [](const auto &has) { return has.param ? "WithFileProtocol" : "Without"; });

TEST_P(ClientDeadline, ASilentServerIsReportedAtTheTimeout)
{
    const ScriptedServer server(SILENT);
    Client client(Limits(1));
    for (const int timeout : {1, 300, 700}) {
        const Response answer = Await(client.send_async(Limited(server.Url(), milliseconds(timeout))));
        ExpectFailure(answer, Error::timed_out);
        ExpectInTime(answer, milliseconds(timeout));
    }
}

TEST_P(ClientDeadline, SoIsOneThatFallsSilentInItsAnswer)
{
    const ScriptedServer server({When::REQUEST, {Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), HOLD}});
    Client client(Limits(1));
    const Response answer = Await(client.send_async(Limited(server.Url(), milliseconds(300))));
    ExpectFailure(answer, Error::timed_out, 200);
    ExpectInTime(answer, milliseconds(300));
}

TEST_P(ClientDeadline, SoIsOneThatSendsAllTheTime)
{
    std::vector<Step> steps = {Send("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")};
    for (size_t number = 0; number < 400; ++number) {
        steps.push_back(Pause(milliseconds(10)));
        steps.push_back(Send("x"));
    }
    const ScriptedServer server({When::REQUEST, steps});
    Client client(Limits(1));
    const Response answer = Await(client.send_async(Limited(server.Url(), milliseconds(300))));
    ExpectFailure(answer, Error::timed_out, 200);
    ExpectInTime(answer, milliseconds(300));
}

TEST_P(ClientDeadline, AnAddressThatSwallowsPacketsIsReportedAtTheConnectTimeout)
{
    const SilentAddress silent;
    Client client(Limits(1));
    nvrhttpcurl::Request request = PostOf(silent.Url());
    request.connect_timeout = milliseconds(300);
    const Response answer = Await(client.send_async(request));
    ExpectFailure(answer, Error::timed_out);
    ExpectInTime(answer, milliseconds(300));
}

/* Each worker has its own heartbeat, and each request its own end. */
TEST_P(ClientDeadline, ManyEndEachAtItsOwnTime)
{
    const ScriptedServer server(SILENT);
    Client client(Limits(4));
    std::vector<std::future<Response>> answers;
    for (int number = 0; number < 100; ++number) {
        answers.push_back(client.send_async(Limited(server.Url(), milliseconds(2000 + number * 5))));
    }
    EXPECT_EQ(client.outstanding(), 100U);
    for (int number = 0; number < 100; ++number) {
        const Response answer = Await(std::move(answers[static_cast<size_t>(number)]));
        ExpectFailure(answer, Error::timed_out);
        ExpectInTime(answer, milliseconds(2000 + number * 5));
    }
    EXPECT_EQ(client.outstanding(), 0U);
}

/* --- two addresses, of which the first is dead ------------------------------------------------- */

TEST_P(ClientDeadline, TheSecondAddressIsTriedWhenTheFirstIsDead)
{
    const ScriptedServer server(ECHOING);
    const std::string port = server.Url("").substr(std::string("http://127.0.0.1:").size());
    const SilentAddress dead(static_cast<uint16_t>(std::stoi(port)));
    if (!dead.IsSilent()) {
        GTEST_SKIP() << "no IPv6 loopback address whose backlog can be filled";
    }
    Client client(Limits(1));
    ExpectAnswer(Await(client.send_async(Limited("http://localhost:" + port, milliseconds(20000)))), "{}");
}

/* --- the heartbeat ------------------------------------------------------------------------------- */

/* Of one worker: never more than one each 20 ms, and on a machine that has time one each 60 ms. */
bool IsBeatingOften()
{
    const auto begin = std::chrono::steady_clock::now();
    const size_t before = submissions.load();
    std::this_thread::sleep_for(milliseconds(400));
    const size_t beats = submissions.load() - before;
    const auto passed = std::chrono::steady_clock::now() - begin;
    EXPECT_LE(beats, static_cast<size_t>(passed / milliseconds(20) + 1));
    return beats >= static_cast<size_t>(passed / milliseconds(60));
}

TEST_P(ClientDeadline, OnlyWorkersWithRequestsBeat)
{
    const ScriptedServer server(ECHOING_ON_RELEASE);
    Client client(Limits(4));
    ExpectFailure(Await(client.send_async(Limited(server.Url(), milliseconds(50)))), Error::timed_out);
    std::this_thread::sleep_for(milliseconds(50)); /* the beat that may have begun */
    const size_t idle = submissions.load();
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(submissions.load(), idle);

    std::future<Response> answer = client.send_async(Limited(server.Url(), milliseconds(60000)));
    EXPECT_TRUE(WaitUntil([&] { return submissions.load() >= idle + 4; }));
    EXPECT_TRUE(WaitUntil(IsBeatingOften, std::chrono::seconds(10)));
    EXPECT_EQ(client.outstanding(), 1U);
}

/* While the worker is held up its heartbeat waits in its queue: the engine must not get it a second time. */
TEST_P(ClientDeadline, AHeartbeatThatIsUnderWayIsNotSubmittedAgain)
{
    const ScriptedServer server(ECHOING);
    const ScriptedServer silent(SILENT);
    Client client(Limits(1));
    std::future<Response> late = client.send_async(Limited(silent.Url(), milliseconds(600)));
    std::promise<size_t> passed;
    client.send_async(Limited(server.Url(), milliseconds(60000)), [&passed](const Response &) {
        const size_t before = submissions.load();
        std::this_thread::sleep_for(milliseconds(200));
        passed.set_value(submissions.load() - before);
    });
    EXPECT_LE(passed.get_future().get(), 1U);
    ExpectFailure(Await(std::move(late)), Error::timed_out);
    EXPECT_EQ(refusals.load(), 0U);
}

/* Some twenty lines each, none of them an error. */
TEST_P(ClientDeadline, HeartbeatsLogNoError)
{
    const ScriptedServer server({When::REQUEST, {Pause(milliseconds(400)), Echo()}});
    const ClosedPort closed;
    Client client(Limits(2)); /* before the log: the one line of a missing protocol, ports that are taken */
    ASSERT_EQ(SendByCurlLogInit(), 0U);
    const auto errorsOf = [](const std::function<void()> &action) { return Has(StandardErrorOf(action), "[Error]"); };
    EXPECT_FALSE(errorsOf([&] { ExpectAnswer(client.send(PostOf(server.Url())), "{}"); }));
    EXPECT_TRUE(errorsOf([&] { ExpectFailure(client.send(PostOf(closed.Url())), Error::connect_failed); }));
}

/* --- heartbeats over http ------------------------------------------------------------------------ */

class ClientWithoutFile : public ClientTest
{
  protected:
    ClientWithoutFile()
    {
        hasFileProtocol = false;
    }
};

bool IsListening(int fd)
{
    int listening = 0;
    socklen_t length = sizeof(listening);
    return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening != 0;
}

TEST_F(ClientWithoutFile, ThePortIsNotInheritedAndIsClosed)
{
    const std::set<int> before = OpenDescriptors();
    {
        Client client(Limits(2));
        size_t ports = 0;
        for (const int fd : OpenDescriptors()) {
            if (before.count(fd) == 0 && IsListening(fd)) {
                ++ports;
                EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
            }
        }
        EXPECT_EQ(ports, 1U);
        const ScriptedServer silent(SILENT);
        ExpectFailure(client.send(Limited(silent.Url(), milliseconds(200))), Error::timed_out);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

/* The client must not send its heartbeats to it. */
TEST_F(ClientWithoutFile, AProxyInTheWayIsReportedByTheConstructor)
{
    const ScriptedServer proxy(Answering("", 204));
    setenv("http_proxy", proxy.Url().c_str(), 1);
    EXPECT_THROW(Client(Limits(1)), std::runtime_error);
    EXPECT_EQ(proxy.RequestCount(), 1U);
    setenv("no_proxy", "127.0.0.1", 1);
    EXPECT_NO_THROW(Client(Limits(1)));
    EXPECT_EQ(proxy.RequestCount(), 1U);
    ClearProxies();
}

} // namespace

/* A libcurl that is built without the file protocol refuses it in the same way. */
extern "C" CURL *curl_easy_init(void)
{
    CURL *easy = Next<decltype(curl_easy_init)>("curl_easy_init")();
    if (easy != nullptr && !hasFileProtocol) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        /* Its successor takes texts, and is newer than the oldest libcurl that is supported. */
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#pragma GCC diagnostic pop
    }
    return easy;
}

/* Counts what the client submits, its heartbeats too, and passes it on. */
extern "C" ENvrHttpCurlCltRet NvrHttpCurlCltProcessReq(HNvrHttpCurlCltReq hReq, uint32_t dwTimeoutMS,
                                                       uint32_t dwConnTimeOutMS, ENvrHttpCurlCltMode eMode,
                                                       PFNvrHttpCurlCltNtf pfNtf, void *pvUserBuf)
{
    submissions.fetch_add(1);
    const ENvrHttpCurlCltRet result = Next<decltype(NvrHttpCurlCltProcessReq)>("NvrHttpCurlCltProcessReq")(
        hReq, dwTimeoutMS, dwConnTimeOutMS, eMode, pfNtf, pvUserBuf);
    refusals.fetch_add(result == NVRHTTPCURLCLT_OK ? 0 : 1);
    return result;
}
