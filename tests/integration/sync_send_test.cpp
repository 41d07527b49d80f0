/*
 * Synchronous sends of the send module against a real server and against ones that
 * misbehave.
 */
#include <cstring>

#include "nginx_server.h"
#include "sends.h"
#include "tests/support/loopback.h"
#include "tests/support/race.h"
#include "tests/support/scripted_server.h"

namespace
{

using namespace test;

/* An answer that came whole. */
void ExpectOutcome(const Outcome &outcome, ESendByCurlRet result, const std::string &answer)
{
    EXPECT_EQ(outcome.result, result);
    EXPECT_EQ(outcome.answer, answer);
    EXPECT_EQ(outcome.length, answer.size());
}

class SyncSend : public WithSendModule<NginxTest>
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

TEST_F(SyncSend, BringsTheAnswerAlsoFromASelfSignedServer)
{
    ExpectOutcome(SendAndWait(nginx.Http("/echo"), "{\"record\":1}"), SENDBYCURL_OK, "{\"record\":1}");
    ExpectOutcome(SendAndWait(nginx.Https("/echo"), "{\"record\":2}"), SENDBYCURL_OK, "{\"record\":2}");
    ExpectOutcome(SendAndWait(nginx.Http("/echo"), "", 1), SENDBYCURL_OK, "");
}

TEST_F(SyncSend, VerifiesTheCertificateForASchemeInCapitals)
{
    EXPECT_EQ(SendAndWait(nginx.Https("/echo"), "{}").result, SENDBYCURL_OK);
    ASSERT_TRUE(nginx.WaitForRequests(1));
    EXPECT_EQ(SendAndWait(nginx.Https("/echo", "HTTPS"), "{}").result, SENDBYCURL_HTTP_STATUS);
    EXPECT_EQ(nginx.RequestCount(), 1U);
    EXPECT_EQ(SendAndWait(nginx.Http("/echo", "https"), "{}").result, SENDBYCURL_HTTP_STATUS) << "a plain port";
}

TEST_F(SyncSend, AuthenticatesWithTheRightPasswordOnly)
{
    const std::string user = NginxServer::USER;
    ExpectOutcome(SendAs(user + ":" + NginxServer::PASSWORD, 1), SENDBYCURL_OK, "{\"secret\":1}");
    EXPECT_EQ(SendAs(user + ":guess", 1).result, SENDBYCURL_HTTP_STATUS);
    EXPECT_EQ(SendAs(user + ":" + NginxServer::PASSWORD, 0).result, SENDBYCURL_HTTP_STATUS);
}

TEST_F(SyncSend, AnAnswerOfExactlyTheCapacityFits)
{
    Post post(nginx.Http("/echo"), SampleText(100), 100);
    EXPECT_EQ(post.SendSync(), SENDBYCURL_OK);
    EXPECT_EQ(post.param.dwRecvLen, 100U);
    EXPECT_EQ(post.answer, post.body + std::string("\0#", 2));
}

TEST_F(SyncSend, AnAnswerOneByteLongerCopiesNothingAndReportsItsLength)
{
    Post post(nginx.Http("/echo"), SampleText(101), 100);
    EXPECT_EQ(post.SendSync(), SENDBYCURL_BUFFER_TOO_SMALL);
    EXPECT_EQ(post.param.dwRecvLen, 101U);
    EXPECT_EQ(post.answer, std::string(102, '#'));
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
    const std::string body = SampleText(2000000) + "\xE8\xAE\xB0\xE5\xBD\x95";
    const Outcome outcome = SendAndWait(nginx.Http("/echo"), body, 2100000);
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_EQ(outcome.length, body.size());
    EXPECT_TRUE(body == outcome.answer);
}

TEST_F(SyncSend, SendsFromManyThreadsAtOnce)
{
    Race(8, [this](unsigned thread) {
        for (size_t i = 0; i < 12; ++i) {
            const std::string body = "{\"thread\":" + std::to_string(thread) + ",\"send\":" + std::to_string(i) + "}";
            ExpectOutcome(SendAndWait(i % 4 == 0 ? nginx.Https("/echo") : nginx.Http("/echo"), body), SENDBYCURL_OK,
                          body);
        }
    });
}

/* --- servers that misbehave ------------------------------------------------------------ */

using SyncSendToBadServer = WithSendModule<IntegrationTest>;

TEST_F(SyncSendToBadServer, ARefusedConnectionReturns10)
{
    const ClosedPort closed;
    const Outcome outcome = SendAndWait(closed.Url(), "{}", 64);
    EXPECT_EQ(outcome.result, SENDBYCURL_HTTP_STATUS);
    EXPECT_EQ(outcome.length, 64U);
}

TEST_F(SyncSendToBadServer, ASilentServerReturns10AfterTheTimeout)
{
    const ScriptedServer server(SILENT);
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
    const SilentAddress silent;
    Post post(silent.Url(), "{}");
    post.param.dwConnTimeOutMS = 300;
    EXPECT_EQ(post.SendSync(), SENDBYCURL_HTTP_STATUS);
}

TEST_F(SyncSendToBadServer, ATransferCutOffAfterA200Returns0WithWhatCame)
{
    const ScriptedServer server(CUTTING_OFF);
    ExpectOutcome(SendAndWait(server.Url(), "{}"), SENDBYCURL_OK, "part");
}

TEST_F(SyncSendToBadServer, ATransferThatTimesOutAfterA200Returns0WithWhatCame)
{
    const ScriptedServer server({When::REQUEST, {Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), HOLD}});
    Post post(server.Url(), "{}", 64);
    post.param.dwTimeoutMS = 500;
    EXPECT_EQ(post.SendSync(), SENDBYCURL_OK);
    EXPECT_STREQ(post.answer.c_str(), "part");
}

TEST_F(SyncSendToBadServer, AConnectionClosedWithoutAnHttpAnswerReturns10)
{
    for (const Script &script :
         {Script{When::REQUEST, {CLOSE}}, Script{When::FIRST_BYTE, {RESET}}, Script{When::CONNECTED, {CLOSE}},
          Script{When::REQUEST, {Send("220 mail ready\r\n"), CLOSE}}}) {
        const ScriptedServer server(script);
        EXPECT_EQ(SendAndWait(server.Url(), "{}").result, SENDBYCURL_HTTP_STATUS);
    }
}

TEST_F(SyncSendToBadServer, AnAnswerInSlowPiecesComesWhole)
{
    const std::chrono::milliseconds pause(30);
    const ScriptedServer server({When::REQUEST,
                                 {Send("HTTP/1.1 20"), Pause(pause), Send("0 OK\r\nContent-Le"), Pause(pause),
                                  Send("ngth: 9\r\n\r\none"), Pause(pause), Send("two"), Pause(pause), Send("six")}});
    ExpectOutcome(SendAndWait(server.Url(), "{}"), SENDBYCURL_OK, "onetwosix");
}

} // namespace
