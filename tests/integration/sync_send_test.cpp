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
#include "raw_server.h"
#include "sends.h"

namespace
{

using sends::Outcome;
using sends::Param;
using sends::SendAndWait;

const std::string emptyObject = "{}";

class SyncSend : public NginxTest
{
  protected:
    void SetUp() override
    {
        NginxTest::SetUp();
        ASSERT_EQ(SENDBYCURL_OK, Qelvo_SyncSendStrByHttp_Init());
    }

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
    EXPECT_EQ(SENDBYCURL_OK, outcome.result);
    EXPECT_EQ("{\"record\":1}", outcome.answer);
    EXPECT_EQ(12u, outcome.length);
}

TEST_F(SyncSend, AcceptsASelfSignedCertificateOverHttps)
{
    const Outcome outcome = SendAndWait(nginx.Https("/echo"), "{\"record\":2}");
    EXPECT_EQ(SENDBYCURL_OK, outcome.result);
    EXPECT_EQ("{\"record\":2}", outcome.answer);
}

TEST_F(SyncSend, VerifiesTheCertificateForASchemeInCapitals)
{
    const Outcome outcome = SendAndWait(nginx.Https("/echo", "HTTPS"), "{}");
    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, outcome.result);
    /* It was the client that broke off, because of who signed. */
    EXPECT_TRUE(common::WaitUntil([this] { return nginx.ErrorLog().find("unknown ca") != std::string::npos; }))
        << nginx.ErrorLog();
}

TEST_F(SyncSend, AuthenticatesWithTheRightPassword)
{
    const Outcome outcome = SendAs(std::string(NginxServer::user) + ":" + NginxServer::password, 1);
    EXPECT_EQ(SENDBYCURL_OK, outcome.result);
    EXPECT_EQ("{\"secret\":1}", outcome.answer);
}

TEST_F(SyncSend, IsTurnedAwayWithTheWrongPasswordOrNone)
{
    const std::string right = std::string(NginxServer::user) + ":" + NginxServer::password;
    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, SendAs(std::string(NginxServer::user) + ":guess", 1).result);
    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, SendAs(right, 0).result);
}

TEST_F(SyncSend, AnAnswerOfExactlyTheCapacityFits)
{
    const std::string body = common::Text(100);
    const std::string url = nginx.Http("/echo");
    char answer[102];
    memset(answer, '#', sizeof(answer));
    TSendByCurlParam param = Param(url, body, answer, 100);

    EXPECT_EQ(SENDBYCURL_OK, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC));
    EXPECT_EQ(100u, param.dwRecvLen);
    EXPECT_EQ(body, std::string(answer, 100));
    EXPECT_EQ('\0', answer[100]);
    EXPECT_EQ('#', answer[101]);
}

TEST_F(SyncSend, AnAnswerOneByteLongerCopiesNothingAndTellsItsLength)
{
    const std::string body = common::Text(101);
    const std::string url = nginx.Http("/echo");
    char answer[102];
    memset(answer, '#', sizeof(answer));
    TSendByCurlParam param = Param(url, body, answer, 100);

    EXPECT_EQ(SENDBYCURL_BUFFER_TOO_SMALL, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC));
    EXPECT_EQ(101u, param.dwRecvLen);
    EXPECT_EQ(std::string(102, '#'), std::string(answer, sizeof(answer)));
}

TEST_F(SyncSend, AnEmptyAnswerIsAnAnswer)
{
    const Outcome outcome = SendAndWait(nginx.Http("/echo"), "", 1);
    EXPECT_EQ(SENDBYCURL_OK, outcome.result);
    EXPECT_EQ(0u, outcome.length);
    EXPECT_EQ("", outcome.answer);
}

TEST_F(SyncSend, AnotherStatusThan200LeavesTheBufferAlone)
{
    for (const char *path : {"/status/404", "/status/500"}) {
        const std::string url = nginx.Http(path);
        char answer[65] = "before";
        TSendByCurlParam param = Param(url, emptyObject, answer, 64);
        EXPECT_EQ(SENDBYCURL_HTTP_STATUS, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC)) << path;
        EXPECT_STREQ("before", answer);
        EXPECT_EQ(64u, param.dwRecvLen);
    }
}

TEST_F(SyncSend, CarriesTwoMegabytesThereAndBack)
{
    const std::string body = common::Text(2000000) + "\xE8\xAE\xB0\xE5\xBD\x95";
    const Outcome outcome = SendAndWait(nginx.Http("/echo"), body, 2100000);
    EXPECT_EQ(SENDBYCURL_OK, outcome.result);
    EXPECT_EQ(body.size(), outcome.length);
    EXPECT_TRUE(body == outcome.answer);
}

TEST_F(SyncSend, PlainPortAskedForTlsReturns10)
{
    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, SendAndWait(nginx.Http("/echo", "https"), "{}").result);
}

TEST_F(SyncSend, SendsFromManyThreadsAtOnce)
{
    constexpr size_t threadCount = 8;
    constexpr size_t sendsEach = 12;
    std::vector<std::string> problems(threadCount);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < threadCount; ++t) {
        threads.emplace_back([this, t, &problems] {
            for (size_t i = 0; i < sendsEach; ++i) {
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
        EXPECT_EQ("", problem);
    }
}

/* --- servers that misbehave ------------------------------------------------------------ */

class SyncSendToBadServer : public common::IntegrationTest
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(SENDBYCURL_OK, Qelvo_SyncSendStrByHttp_Init());
    }
};

TEST_F(SyncSendToBadServer, ARefusedConnectionReturns10)
{
    const common::ClosedPort closed;
    const Outcome outcome = SendAndWait(closed.Url(), "{}", 64);
    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, outcome.result);
    EXPECT_EQ(64u, outcome.length);
}

TEST_F(SyncSendToBadServer, ASilentServerReturns10AfterTheTimeout)
{
    const raw::Server server(raw::Silent());
    const std::string url = server.Url();
    char answer[65] = "before";
    TSendByCurlParam param = Param(url, emptyObject, answer, 64);
    param.dwTimeoutMS = 300;
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(290));
    EXPECT_STREQ("before", answer);
    EXPECT_EQ(1u, server.RequestCount());
}

TEST_F(SyncSendToBadServer, AnAddressThatDoesNotAnswerReturns10AfterTheConnectTimeout)
{
    const common::SilentAddress silent;
    ASSERT_TRUE(silent.IsSilent());
    const std::string url = silent.Url();
    char answer[65] = "";
    TSendByCurlParam param = Param(url, emptyObject, answer, 64);
    param.dwConnTimeOutMS = 300;
    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC));
}

TEST_F(SyncSendToBadServer, ATransferCutOffAfterA200Returns0WithWhatCame)
{
    const raw::Server server(
        {raw::When::Request, {raw::Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), raw::Close()}});
    const Outcome outcome = SendAndWait(server.Url(), "{}");
    EXPECT_EQ(SENDBYCURL_OK, outcome.result);
    EXPECT_EQ("part", outcome.answer);
    EXPECT_EQ(4u, outcome.length);
}

TEST_F(SyncSendToBadServer, ATransferThatTimesOutAfterA200Returns0WithWhatCame)
{
    const raw::Server server(
        {raw::When::Request, {raw::Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), raw::Hold()}});
    const std::string url = server.Url();
    char answer[65] = "";
    TSendByCurlParam param = Param(url, emptyObject, answer, 64);
    param.dwTimeoutMS = 500;
    EXPECT_EQ(SENDBYCURL_OK, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC));
    EXPECT_STREQ("part", answer);
}

TEST_F(SyncSendToBadServer, AConnectionClosedWithoutAnAnswerReturns10)
{
    for (const raw::Script &script :
         {raw::Script{raw::When::Request, {raw::Close()}}, raw::Script{raw::When::FirstByte, {raw::Reset()}},
          raw::Script{raw::When::Connected, {raw::Close()}}}) {
        const raw::Server server(script);
        EXPECT_EQ(SENDBYCURL_HTTP_STATUS, SendAndWait(server.Url(), "{}").result);
    }
}

TEST_F(SyncSendToBadServer, AnAnswerInSlowPiecesComesWhole)
{
    const std::chrono::milliseconds pause(30);
    const raw::Server server(
        {raw::When::Request,
         {raw::Send("HTTP/1.1 20"), raw::Pause(pause), raw::Send("0 OK\r\nContent-Le"), raw::Pause(pause),
          raw::Send("ngth: 9\r\n\r\none"), raw::Pause(pause), raw::Send("two"), raw::Pause(pause), raw::Send("six")}});
    const Outcome outcome = SendAndWait(server.Url(), "{}");
    EXPECT_EQ(SENDBYCURL_OK, outcome.result);
    EXPECT_EQ("onetwosix", outcome.answer);
}

TEST_F(SyncSendToBadServer, SomethingThatIsNoHttpReturns10)
{
    const raw::Server server({raw::When::Request, {raw::Send("220 mail ready\r\n"), raw::Close()}});
    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, SendAndWait(server.Url(), "{}").result);
}

} // namespace
