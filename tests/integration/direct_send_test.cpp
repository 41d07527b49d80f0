/*
 * The direct send, against a real server and against ones that misbehave.
 */

#include "nginx_server.h"
#include "sends.h"
#include "tests/support/loopback.h"
#include "tests/support/race.h"
#include "tests/support/scripted_server.h"

namespace
{

using namespace test;
using DirectSend = NginxTest;
using DirectSendToScriptedServer = IntegrationTest;

TEST_F(DirectSend, BringsTheAnswerOfAnyStatusAndStartsTheModule)
{
    Post post(nginx.Http("/echo"), "{\"record\":1}");
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK);
    EXPECT_EQ(post.Received(), "{\"record\":1}");
    EXPECT_EQ(SendAndWait(nginx.Http("/echo"), "{}").result, SENDBYCURL_OK);
    Post missing(nginx.Http("/status/404"), "{}");
    EXPECT_EQ(missing.SendDirect(), SENDBYCURL_OK);
    EXPECT_EQ(missing.Received(), "nothing here, says the server");
    EXPECT_EQ(Post(nginx.Http("/echo", "https"), "{}").SendDirect(), SENDBYCURL_TRANSFER_FAILED) << "a plain port";
}

TEST_F(DirectSend, ChecksTheCertificateOnlyWhereAskedTo)
{
    Post unchecked(nginx.Https("/echo"), "{\"record\":2}");
    EXPECT_EQ(unchecked.SendDirect(), SENDBYCURL_OK);
    EXPECT_EQ(unchecked.Received(), "{\"record\":2}");
    Post capitals(nginx.Https("/echo", "HTTPS"), "{\"record\":3}");
    EXPECT_EQ(capitals.SendDirect(), SENDBYCURL_OK);
    ASSERT_TRUE(nginx.WaitForRequests(2));
    Post checked(nginx.Https("/echo"), "{\"record\":4}");
    checked.param.bSSLserver = 1;
    EXPECT_EQ(checked.SendDirect(), SENDBYCURL_TRANSFER_FAILED);
    EXPECT_EQ(checked.param.dwRecvLen, 0U);
    EXPECT_EQ(nginx.RequestCount(), 2U);
}

TEST_F(DirectSend, AnAnswerOfExactlyTheCapacityFitsWithoutTerminator)
{
    Post post(nginx.Http("/echo"), SampleText(100), 100);
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK);
    EXPECT_EQ(post.param.dwRecvLen, 100U);
    EXPECT_EQ(post.Received(), post.body);
    EXPECT_EQ(post.answer[100], '#');
}

TEST_F(DirectSend, AnAnswerOneByteLongerFails)
{
    Post post(nginx.Http("/echo"), SampleText(101), 100);
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_TRANSFER_FAILED);
    EXPECT_LE(post.param.dwRecvLen, 100U);
    EXPECT_EQ(post.answer[100], '#');
}

TEST_F(DirectSend, CarriesTwoMegabytesThereAndBack)
{
    Post post(nginx.Http("/echo"), SampleText(2000000), 2000000);
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK);
    EXPECT_EQ(post.param.dwRecvLen, 2000000U);
    EXPECT_TRUE(post.body == post.Received());
}

TEST_F(DirectSend, NothingOfTheAnswerReachesStandardOutput)
{
    Post post(nginx.Http("/echo"), "{\"secret\":1}");
    const std::string output = StandardOutputOf([&] { EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK); });
    EXPECT_EQ(post.Received(), "{\"secret\":1}");
    EXPECT_EQ(output.find("secret"), std::string::npos) << output;
}

TEST_F(DirectSend, TheSimpleFormBringsAnswerAndLength)
{
    char answer[64] = "";
    uint32_t length = sizeof(answer);
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(nginx.Https("/echo").c_str(), "{\"record\":5}", 12, 60000, answer, &length),
              SENDBYCURL_OK);
    EXPECT_EQ(length, 12U);
    EXPECT_STREQ(answer, "{\"record\":5}");
}

TEST_F(DirectSend, TheSimpleFormWithoutALengthCollectsNothing)
{
    char answer[64] = "before";
    const std::string output = StandardOutputOf([&] {
        EXPECT_EQ(Qelvo_SyncSendStrByHttp(nginx.Http("/echo").c_str(), "{\"record\":6}", 12, 60000, answer, nullptr),
                  SENDBYCURL_OK);
    });
    EXPECT_STREQ(answer, "before");
    /* libcurl's own way of handling an answer that nobody takes. */
    EXPECT_NE(output.find("{\"record\":6}"), std::string::npos) << output;
}

TEST_F(DirectSend, SendsFromManyThreadsAtOnce)
{
    Race(8, [this](unsigned thread) {
        for (size_t i = 0; i < 10; ++i) {
            Post post(nginx.Http("/echo"), "thread " + std::to_string(thread) + " send " + std::to_string(i));
            EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK);
            EXPECT_EQ(post.Received(), post.body);
        }
    });
}

/* --- what leaves ------------------------------------------------------------------------------ */

TEST_F(DirectSendToScriptedServer, APostCarriesTheBodyUpToItsFirstZeroByte)
{
    const ScriptedServer server(ECHOING);
    Post post(server.Url("/place"), std::string("{\"a\":1}\0more", 12));
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK);
    ASSERT_EQ(server.RequestCount(), 1U);
    const Request seen = server.Requests()[0];
    EXPECT_EQ(seen.Line(), "POST /place HTTP/1.1");
    EXPECT_TRUE(seen.HasLine("Content-Type:application/json;charset=UTF-8")) << seen.head;
    EXPECT_TRUE(seen.HasLine("Content-Length: 7")) << seen.head;
    EXPECT_EQ(seen.body, "{\"a\":1}");
}

TEST_F(DirectSendToScriptedServer, TheOtherMethodsLeaveAsGetWithoutBody)
{
    for (const uint32_t method : {SENDBYCURL_METHOD_PUT, SENDBYCURL_METHOD_GET}) {
        const ScriptedServer server(Answering("here"));
        Post post(server.Url("/place"), "{\"a\":1}");
        post.param.eHeadType = method;
        EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK);
        EXPECT_EQ(post.Received(), "here");
        ASSERT_EQ(server.RequestCount(), 1U);
        EXPECT_EQ(server.Requests()[0].Line(), "GET /place HTTP/1.1");
        EXPECT_FALSE(server.Requests()[0].HasHeader("Content-Length"));
        EXPECT_EQ(server.Requests()[0].body, "");
    }
}

TEST_F(DirectSendToScriptedServer, TheAnswerIsPutWhereTheLengthPoints)
{
    const ScriptedServer server(Answering("answer"));
    Post post(server.Url(), "{}", 16);
    post.param.dwRecvLen = 4;
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK);
    EXPECT_EQ(post.param.dwRecvLen, 10U);
    EXPECT_EQ(post.Received(), std::string("\0\0\0\0answer", 10));
    /* And behind it the next time, until it is full. */
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_OK);
    EXPECT_EQ(post.param.dwRecvLen, 16U);
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_TRANSFER_FAILED);
    EXPECT_EQ(post.param.dwRecvLen, 16U);
    EXPECT_EQ(post.answer[16], '#');
}

/* --- how it fails ------------------------------------------------------------------------------- */

TEST_F(DirectSendToScriptedServer, AnOverflowKeepsTheChunksThatFitted)
{
    const ScriptedServer server({When::REQUEST,
                                 {Send("HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n12345678"),
                                  Pause(std::chrono::milliseconds(300)), Send("9abc")}});
    Post post(server.Url(), "{}", 10);
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_TRANSFER_FAILED);
    EXPECT_EQ(post.Received(), "12345678");
}

TEST_F(DirectSendToScriptedServer, ASilentServerReturns7)
{
    const ScriptedServer server(SILENT);
    Post post(server.Url(), "{}");
    post.param.dwTimeoutMS = 300;
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_TIMED_OUT);
    EXPECT_EQ(server.RequestCount(), 1U);
    char answer[16] = "";
    uint32_t length = sizeof(answer);
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(server.Url().c_str(), "{}", 2, 300, answer, &length), SENDBYCURL_TIMED_OUT);
    EXPECT_EQ(length, sizeof(answer));
}

TEST_F(DirectSendToScriptedServer, AnAddressThatDoesNotAnswerReturns7)
{
    const SilentAddress silent;
    Post post(silent.Url(), "{}");
    post.param.dwConnTimeOutMS = 300;
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_TIMED_OUT);
}

TEST_F(DirectSendToScriptedServer, AFailureReturns5WithWhatCame)
{
    const ClosedPort closed;
    EXPECT_EQ(Post(closed.Url(), "{}").SendDirect(), SENDBYCURL_TRANSFER_FAILED);
    const ScriptedServer breaking({When::FIRST_BYTE, {CLOSE}});
    EXPECT_EQ(Post(breaking.Url("/", "https"), "{}").SendDirect(), SENDBYCURL_TRANSFER_FAILED);
    const ScriptedServer cutting(CUTTING_OFF);
    Post post(cutting.Url(), "{}");
    EXPECT_EQ(post.SendDirect(), SENDBYCURL_TRANSFER_FAILED);
    EXPECT_EQ(post.Received(), "part");
}

} // namespace
