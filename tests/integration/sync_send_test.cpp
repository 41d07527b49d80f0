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
using test::Param;
using test::SendAndWait;

const std::string EMPTY_OBJECT = "{}";

class SyncSend : public test::WithSendModule<test::NginxTest>
{
  protected:
    /* A send with credentials. */
    Outcome SendAs(const std::string &credentials, uint32_t use)
    {
        char answer[256] = "";
        const std::string url = nginx.Http("/auth");
        const std::string body = "{\"secret\":1}";
        TSendByCurlParam param = Param(url, body, answer, sizeof(answer) - 1);
        param.bCurlAuth = use;
        strncpy(param.achUserAndPassWd, credentials.c_str(), sizeof(param.achUserAndPassWd) - 1);
        const ESendByCurlRet result = Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC);
        return {result, param.dwRecvLen, answer};
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
    const std::string body = test::SampleText(100);
    const std::string url = nginx.Http("/echo");
    char answer[102];
    memset(answer, '#', sizeof(answer));
    TSendByCurlParam param = Param(url, body, answer, 100);

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC), SENDBYCURL_OK);
    EXPECT_EQ(param.dwRecvLen, 100U);
    EXPECT_EQ(std::string(answer, 100), body);
    EXPECT_EQ(answer[100], '\0');
    EXPECT_EQ(answer[101], '#');
}

TEST_F(SyncSend, AnAnswerOneByteLongerCopiesNothingAndTellsItsLength)
{
    const std::string body = test::SampleText(101);
    const std::string url = nginx.Http("/echo");
    char answer[102];
    memset(answer, '#', sizeof(answer));
    TSendByCurlParam param = Param(url, body, answer, 100);

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC), SENDBYCURL_BUFFER_TOO_SMALL);
    EXPECT_EQ(param.dwRecvLen, 101U);
    EXPECT_EQ(std::string(answer, sizeof(answer)), std::string(102, '#'));
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
        const std::string url = nginx.Http(path);
        char answer[65] = "before";
        TSendByCurlParam param = Param(url, EMPTY_OBJECT, answer, 64);
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC), SENDBYCURL_HTTP_STATUS) << path;
        EXPECT_STREQ(answer, "before");
        EXPECT_EQ(param.dwRecvLen, 64U);
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
    const test::ScriptedServer server(test::Silent());
    const std::string url = server.Url();
    char answer[65] = "before";
    TSendByCurlParam param = Param(url, EMPTY_OBJECT, answer, 64);
    param.dwTimeoutMS = 300;
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC), SENDBYCURL_HTTP_STATUS);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(290));
    EXPECT_STREQ(answer, "before");
    EXPECT_EQ(server.RequestCount(), 1U);
}

TEST_F(SyncSendToBadServer, AnAddressThatDoesNotAnswerReturns10AfterTheConnectTimeout)
{
    const test::SilentAddress silent;
    const std::string url = silent.Url();
    char answer[65] = "";
    TSendByCurlParam param = Param(url, EMPTY_OBJECT, answer, 64);
    param.dwConnTimeOutMS = 300;
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC), SENDBYCURL_HTTP_STATUS);
}

TEST_F(SyncSendToBadServer, ATransferCutOffAfterA200Returns0WithWhatCame)
{
    const test::ScriptedServer server(test::CuttingOff());
    const Outcome outcome = SendAndWait(server.Url(), "{}");
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.answer, "part");
    EXPECT_EQ(outcome.length, 4U);
}

TEST_F(SyncSendToBadServer, ATransferThatTimesOutAfterA200Returns0WithWhatCame)
{
    const test::ScriptedServer server(
        {test::When::REQUEST, {test::Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), test::Hold()}});
    const std::string url = server.Url();
    char answer[65] = "";
    TSendByCurlParam param = Param(url, EMPTY_OBJECT, answer, 64);
    param.dwTimeoutMS = 500;
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC), SENDBYCURL_OK);
    EXPECT_STREQ(answer, "part");
}

TEST_F(SyncSendToBadServer, AConnectionClosedWithoutAnAnswerReturns10)
{
    for (const test::Script &script :
         {test::Script{test::When::REQUEST, {test::Close()}}, test::Script{test::When::FIRST_BYTE, {test::Reset()}},
          test::Script{test::When::CONNECTED, {test::Close()}}}) {
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
    const test::ScriptedServer server({test::When::REQUEST, {test::Send("220 mail ready\r\n"), test::Close()}});
    EXPECT_EQ(SendAndWait(server.Url(), "{}").result, SENDBYCURL_HTTP_STATUS);
}

} // namespace
