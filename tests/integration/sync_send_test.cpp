/*
 * Synchronous sends of the send module against a real server and against ones that
 * misbehave.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "nginx_server.h"
#include "sends.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"

namespace
{

using test::Outcome;
using test::Post;
using test::SendAndWait;

class SyncSend : public test::WithSendModule<test::NginxTest>
{
  protected:
    /* A send with credentials. */
    Outcome SendAs(const std::string &credentials, uint32_t use)
    {
        Post post(nginx.Http("/auth"), "{\"secret\":1}");
        post.param.bCurlAuth = use;
        strncpy(post.param.achUserAndPassWd, credentials.c_str(), sizeof(post.param.achUserAndPassWd) - 1);
        const ESendByCurlRet result = post.SendSync();
        return {result, post.param.dwRecvLen, post.answer.c_str()};
    }
};

TEST_F(SyncSend, BringsTheAnswerOverHttp)
{
    const Outcome outcome = SendAndWait(nginx.Http("/echo"), "{\"record\":1}");
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.answer, "{\"record\":1}");
    EXPECT_EQ(outcome.length, 12U);
}

TEST_F(SyncSend, AcceptsASelfSignedCertificateOverHttps)
{
    const Outcome outcome = SendAndWait(nginx.Https("/echo"), "{\"record\":2}");
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.answer, "{\"record\":2}");
}

TEST_F(SyncSend, VerifiesTheCertificateForASchemeInCapitals)
{
    EXPECT_EQ(SendAndWait(nginx.Https("/echo"), "{}").result, SENDBYCURL_OK);
    ASSERT_TRUE(nginx.WaitForRequests(1));
    EXPECT_EQ(SendAndWait(nginx.Https("/echo", "HTTPS"), "{}").result, SENDBYCURL_HTTP_STATUS);
    EXPECT_EQ(nginx.RequestCount(), 1U);
}

TEST_F(SyncSend, AuthenticatesWithTheRightPassword)
{
    const Outcome outcome = SendAs(std::string(test::NginxServer::USER) + ":" + test::NginxServer::PASSWORD, 1);
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.answer, "{\"secret\":1}");
}

TEST_F(SyncSend, IsTurnedAwayWithTheWrongPasswordOrNone)
{
    const std::string right = std::string(test::NginxServer::USER) + ":" + test::NginxServer::PASSWORD;
    EXPECT_EQ(SendAs(std::string(test::NginxServer::USER) + ":guess", 1).result, SENDBYCURL_HTTP_STATUS);
    EXPECT_EQ(SendAs(right, 0).result, SENDBYCURL_HTTP_STATUS);
}

TEST_F(SyncSend, AnAnswerOfExactlyTheCapacityFits)
{
    Post post(nginx.Http("/echo"), test::SampleText(100), 100);
    EXPECT_EQ(post.SendSync(), SENDBYCURL_OK);
    EXPECT_EQ(post.param.dwRecvLen, 100U);
    EXPECT_EQ(post.answer, post.body + std::string("\0#", 2));
}

TEST_F(SyncSend, AnAnswerOneByteLongerCopiesNothingAndReportsItsLength)
{
    Post post(nginx.Http("/echo"), test::SampleText(101), 100);
    EXPECT_EQ(post.SendSync(), SENDBYCURL_BUFFER_TOO_SMALL);
    EXPECT_EQ(post.param.dwRecvLen, 101U);
    EXPECT_EQ(post.answer, std::string(102, '#'));
}

TEST_F(SyncSend, AnEmptyAnswerIsAnAnswer)
{
    const Outcome outcome = SendAndWait(nginx.Http("/echo"), "", 1);
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.length, 0U);
    EXPECT_EQ(outcome.answer, "");
}

TEST_F(SyncSend, AnotherStatusThan200LeavesTheBufferAlone)
{
    for (const char *path : {"/status/404", "/status/500"}) {
        Post post(nginx.Http(path), "{}", 64);
        EXPECT_EQ(post.SendSync(), SENDBYCURL_HTTP_STATUS) << path;
        EXPECT_EQ(post.answer, std::string(66, '#'));
        EXPECT_EQ(post.param.dwRecvLen, 64U);
    }
}

TEST_F(SyncSend, CarriesTwoMegabytesThereAndBack)
{
    const std::string body = test::SampleText(2000000) + "\xE8\xAE\xB0\xE5\xBD\x95";
    const Outcome outcome = SendAndWait(nginx.Http("/echo"), body, 2100000);
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.length, body.size());
    EXPECT_TRUE(body == outcome.answer);
}

TEST_F(SyncSend, PlainPortAskedForTlsReturns10)
{
    EXPECT_EQ(SendAndWait(nginx.Http("/echo", "https"), "{}").result, SENDBYCURL_HTTP_STATUS);
}

TEST_F(SyncSend, SendsFromManyThreadsAtOnce)
{
    constexpr size_t THREADS = 8;
    constexpr size_t SENDS_EACH = 12;
    std::vector<std::string> problems(THREADS);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < THREADS; ++t) {
        threads.emplace_back([this, t, &problems] {
            for (size_t i = 0; i < SENDS_EACH; ++i) {
                const std::string body = "{\"thread\":" + std::to_string(t) + ",\"send\":" + std::to_string(i) + "}";
                const Outcome outcome = SendAndWait(i % 4 == 0 ? nginx.Https("/echo") : nginx.Http("/echo"), body);
                if (outcome.result != SENDBYCURL_OK || outcome.answer != body) {
                    problems[t] += body + " -> " + std::to_string(outcome.result) + " " + outcome.answer + "\n";
                }
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const std::string &problem : problems) {
        EXPECT_EQ(problem, "");
    }
}

/* --- servers that misbehave ------------------------------------------------------------ */

using SyncSendToBadServer = test::WithSendModule<test::IntegrationTest>;

TEST_F(SyncSendToBadServer, ARefusedConnectionReturns10)
{
    const test::ClosedPort closed;
    const Outcome outcome = SendAndWait(closed.Url(), "{}", 64);
    EXPECT_EQ(outcome.result, SENDBYCURL_HTTP_STATUS);
    EXPECT_EQ(outcome.length, 64U);
}

TEST_F(SyncSendToBadServer, ASilentServerReturns10AfterTheTimeout)
{
    const test::ScriptedServer server(test::SILENT);
    Post post(server.Url(), "{}", 64);
    post.param.dwTimeoutMS = 300;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(post.SendSync(), SENDBYCURL_HTTP_STATUS);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(290));
    EXPECT_EQ(post.answer, std::string(66, '#'));
    EXPECT_EQ(server.RequestCount(), 1U);
}

TEST_F(SyncSendToBadServer, AnAddressThatDoesNotAnswerReturns10AfterTheConnectTimeout)
{
    const test::SilentAddress silent;
    Post post(silent.Url(), "{}");
    post.param.dwConnTimeOutMS = 300;
    EXPECT_EQ(post.SendSync(), SENDBYCURL_HTTP_STATUS);
}

TEST_F(SyncSendToBadServer, ATransferCutOffAfterA200Returns0WithWhatCame)
{
    const test::ScriptedServer server(test::CUTTING_OFF);
    const Outcome outcome = SendAndWait(server.Url(), "{}");
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.answer, "part");
    EXPECT_EQ(outcome.length, 4U);
}

TEST_F(SyncSendToBadServer, ATransferThatTimesOutAfterA200Returns0WithWhatCame)
{
    const test::ScriptedServer server(
        {test::When::REQUEST, {test::Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), test::HOLD}});
    Post post(server.Url(), "{}", 64);
    post.param.dwTimeoutMS = 500;
    EXPECT_EQ(post.SendSync(), SENDBYCURL_OK);
    EXPECT_STREQ(post.answer.c_str(), "part");
}

TEST_F(SyncSendToBadServer, AConnectionClosedWithoutAnAnswerReturns10)
{
    for (const test::Script &script :
         {test::Script{test::When::REQUEST, {test::CLOSE}}, test::Script{test::When::FIRST_BYTE, {test::RESET}},
          test::Script{test::When::CONNECTED, {test::CLOSE}}}) {
        const test::ScriptedServer server(script);
        EXPECT_EQ(SendAndWait(server.Url(), "{}").result, SENDBYCURL_HTTP_STATUS);
    }
}

TEST_F(SyncSendToBadServer, AnAnswerInSlowPiecesComesWhole)
{
    const std::chrono::milliseconds pause(30);
    const test::ScriptedServer server({test::When::REQUEST,
                                       {test::Send("HTTP/1.1 20"), test::Pause(pause), test::Send("0 OK\r\nContent-Le"),
                                        test::Pause(pause), test::Send("ngth: 9\r\n\r\none"), test::Pause(pause),
                                        test::Send("two"), test::Pause(pause), test::Send("six")}});
    const Outcome outcome = SendAndWait(server.Url(), "{}");
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.answer, "onetwosix");
}

TEST_F(SyncSendToBadServer, SomethingThatIsNoHttpReturns10)
{
    const test::ScriptedServer server({test::When::REQUEST, {test::Send("220 mail ready\r\n"), test::CLOSE}});
    EXPECT_EQ(SendAndWait(server.Url(), "{}").result, SENDBYCURL_HTTP_STATUS);
}

} // namespace
