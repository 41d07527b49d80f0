/*
 * The direct send, against a real server and against ones that misbehave.
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

/* A record with room for an answer that lives as long. */
struct Direct {
    std::string url;
    std::string body;
    std::vector<char> answer;
    TSendByCurlParam param;

    Direct(const std::string &target, const std::string &text, uint32_t capacity = 4096)
        : url(target), body(text), answer(size_t{capacity} + 1, '#'),
          param(sends::Param(url, body, answer.data(), capacity))
    {
    }

    ESendByCurlRet Send()
    {
        return Qelvo_SyncSendStrByHttp_Ext(&param);
    }

    std::string Received() const
    {
        return std::string(answer.data(), param.dwRecvLen);
    }
};

class DirectSend : public NginxTest
{
};

class DirectSendToRawServer : public common::IntegrationTest
{
};

TEST_F(DirectSend, BringsTheAnswerAndStartsTheModule)
{
    Direct direct(nginx.Http("/echo"), "{\"record\":1}");
    EXPECT_EQ(SENDBYCURL_OK, direct.Send());
    EXPECT_EQ("{\"record\":1}", direct.Received());
    EXPECT_EQ(SENDBYCURL_OK, sends::SendAndWait(nginx.Http("/echo"), "{}").result);
}

TEST_F(DirectSend, ChecksTheCertificateOnlyWhereAskedTo)
{
    Direct unchecked(nginx.Https("/echo"), "{\"record\":2}");
    EXPECT_EQ(SENDBYCURL_OK, unchecked.Send());
    EXPECT_EQ("{\"record\":2}", unchecked.Received());

    Direct capitals(nginx.Https("/echo", "HTTPS"), "{\"record\":3}");
    EXPECT_EQ(SENDBYCURL_OK, capitals.Send());

    EXPECT_EQ(std::string::npos, nginx.ErrorLog().find("unknown ca"));
    Direct checked(nginx.Https("/echo"), "{\"record\":4}");
    checked.param.bSSLserver = 1;
    EXPECT_EQ(SENDBYCURL_TRANSFER_FAILED, checked.Send());
    EXPECT_EQ(0u, checked.param.dwRecvLen);
    EXPECT_TRUE(common::WaitUntil([this] { return nginx.ErrorLog().find("unknown ca") != std::string::npos; }));
}

TEST_F(DirectSend, AnyStatusIsAnAnswer)
{
    Direct direct(nginx.Http("/status/404"), "{}");
    EXPECT_EQ(SENDBYCURL_OK, direct.Send());
    EXPECT_EQ("nothing here, says the server", direct.Received());
}

TEST_F(DirectSend, AnAnswerOfExactlyTheCapacityFitsWithoutTerminator)
{
    Direct direct(nginx.Http("/echo"), common::Text(100), 100);
    EXPECT_EQ(SENDBYCURL_OK, direct.Send());
    EXPECT_EQ(100u, direct.param.dwRecvLen);
    EXPECT_EQ(direct.body, direct.Received());
    EXPECT_EQ('#', direct.answer[100]);
}

TEST_F(DirectSend, AnAnswerOneByteLongerFails)
{
    Direct direct(nginx.Http("/echo"), common::Text(101), 100);
    EXPECT_EQ(SENDBYCURL_TRANSFER_FAILED, direct.Send());
    EXPECT_LE(direct.param.dwRecvLen, 100u);
    EXPECT_EQ('#', direct.answer[100]);
}

TEST_F(DirectSend, CarriesTwoMegabytesThereAndBack)
{
    Direct direct(nginx.Http("/echo"), common::Text(2000000), 2000000);
    EXPECT_EQ(SENDBYCURL_OK, direct.Send());
    EXPECT_EQ(2000000u, direct.param.dwRecvLen);
    EXPECT_TRUE(direct.body == direct.Received());
}

TEST_F(DirectSend, PlainPortAskedForTlsReturns5)
{
    EXPECT_EQ(SENDBYCURL_TRANSFER_FAILED, Direct(nginx.Http("/echo", "https"), "{}").Send());
}

TEST_F(DirectSend, NothingOfTheAnswerReachesStandardOutput)
{
    Direct direct(nginx.Http("/echo"), "{\"secret\":1}");
    ESendByCurlRet result = SENDBYCURL_INVALID_PARAM;
    const std::string output = common::StandardOutputOf([&] { result = direct.Send(); });
    EXPECT_EQ(SENDBYCURL_OK, result);
    EXPECT_EQ("{\"secret\":1}", direct.Received());
    EXPECT_EQ(std::string::npos, output.find("secret")) << output;
}

TEST_F(DirectSend, TheSimpleFormBringsAnswerAndLength)
{
    char answer[64] = "";
    uint32_t length = sizeof(answer);
    EXPECT_EQ(SENDBYCURL_OK,
              Qelvo_SyncSendStrByHttp(nginx.Https("/echo").c_str(), "{\"record\":5}", 12, 60000, answer, &length));
    EXPECT_EQ(12u, length);
    EXPECT_STREQ("{\"record\":5}", answer);
}

TEST_F(DirectSend, TheSimpleFormWithoutALengthCollectsNothing)
{
    char answer[64] = "before";
    const std::string output = common::StandardOutputOf([&] {
        EXPECT_EQ(SENDBYCURL_OK,
                  Qelvo_SyncSendStrByHttp(nginx.Http("/echo").c_str(), "{\"record\":6}", 12, 60000, answer, nullptr));
    });
    EXPECT_STREQ("before", answer);
    /* libcurl's own way of handling an answer that nobody takes. */
    EXPECT_NE(std::string::npos, output.find("{\"record\":6}")) << output;
}

TEST_F(DirectSend, SendsFromManyThreadsAtOnce)
{
    std::vector<std::string> problems(8);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < problems.size(); ++t) {
        threads.emplace_back([this, t, &problems] {
            for (size_t i = 0; i < 10; ++i) {
                Direct direct(nginx.Http("/echo"), "thread " + std::to_string(t) + " send " + std::to_string(i));
                const ESendByCurlRet result = direct.Send();
                if (result != SENDBYCURL_OK || direct.Received() != direct.body) {
                    problems[t] += direct.body + " -> " + std::to_string(result) + " " + direct.Received() + "\n";
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

/* --- what leaves ------------------------------------------------------------------------------ */

TEST_F(DirectSendToRawServer, APostCarriesTheBodyUpToItsFirstZeroByte)
{
    const raw::Server server(raw::Echoing());
    Direct direct(server.Url("/place"), std::string("{\"a\":1}\0more", 12));
    EXPECT_EQ(SENDBYCURL_OK, direct.Send());
    ASSERT_EQ(1u, server.RequestCount());
    const raw::Request seen = server.Requests()[0];
    EXPECT_EQ("POST /place HTTP/1.1", seen.Line());
    EXPECT_TRUE(seen.HasLine("Content-Type:application/json;charset=UTF-8")) << seen.head;
    EXPECT_TRUE(seen.HasLine("Content-Length: 7")) << seen.head;
    EXPECT_EQ("{\"a\":1}", seen.body);
}

TEST_F(DirectSendToRawServer, TheOtherMethodsLeaveAsGetWithoutBody)
{
    for (const uint32_t method : {SENDBYCURL_METHOD_PUT, SENDBYCURL_METHOD_GET}) {
        const raw::Server server({raw::When::Request, {raw::Send(raw::Reply(200, "here"))}});
        Direct direct(server.Url("/place"), "{\"a\":1}");
        direct.param.eHeadType = method;
        EXPECT_EQ(SENDBYCURL_OK, direct.Send());
        EXPECT_EQ("here", direct.Received());
        ASSERT_EQ(1u, server.RequestCount());
        EXPECT_EQ("GET /place HTTP/1.1", server.Requests()[0].Line());
        EXPECT_FALSE(server.Requests()[0].HasHeader("Content-Length"));
        EXPECT_EQ("", server.Requests()[0].body);
    }
}

TEST_F(DirectSendToRawServer, TheAnswerIsPutWhereTheLengthPoints)
{
    const raw::Server server({raw::When::Request, {raw::Send(raw::Reply(200, "answer"))}});
    Direct direct(server.Url(), "{}", 16);
    direct.param.dwRecvLen = 4;
    EXPECT_EQ(SENDBYCURL_OK, direct.Send());
    EXPECT_EQ(10u, direct.param.dwRecvLen);
    EXPECT_EQ(std::string("\0\0\0\0answer", 10), direct.Received());
    /* And behind it the next time, until it is full. */
    EXPECT_EQ(SENDBYCURL_OK, direct.Send());
    EXPECT_EQ(16u, direct.param.dwRecvLen);
    EXPECT_EQ(SENDBYCURL_TRANSFER_FAILED, direct.Send());
    EXPECT_EQ(16u, direct.param.dwRecvLen);
    EXPECT_EQ('#', direct.answer[16]);
}

/* --- how it fails ------------------------------------------------------------------------------- */

TEST_F(DirectSendToRawServer, AnOverflowKeepsTheChunksThatFitted)
{
    const raw::Server server({raw::When::Request,
                              {raw::Send("HTTP/1.1 200 OK\r\nContent-Length: 12\r\n\r\n12345678"),
                               raw::Pause(std::chrono::milliseconds(300)), raw::Send("9abc")}});
    Direct direct(server.Url(), "{}", 10);
    EXPECT_EQ(SENDBYCURL_TRANSFER_FAILED, direct.Send());
    EXPECT_EQ("12345678", direct.Received());
}

TEST_F(DirectSendToRawServer, ASilentServerReturns7)
{
    const raw::Server server(raw::Silent());
    Direct direct(server.Url(), "{}");
    direct.param.dwTimeoutMS = 300;
    EXPECT_EQ(SENDBYCURL_TIMED_OUT, direct.Send());
    EXPECT_EQ(1u, server.RequestCount());

    char answer[16] = "";
    uint32_t length = sizeof(answer);
    EXPECT_EQ(SENDBYCURL_TIMED_OUT, Qelvo_SyncSendStrByHttp(server.Url().c_str(), "{}", 2, 300, answer, &length));
    EXPECT_EQ(sizeof(answer), length);
}

TEST_F(DirectSendToRawServer, AnAddressThatDoesNotAnswerReturns7)
{
    const common::SilentAddress silent;
    ASSERT_TRUE(silent.IsSilent());
    Direct direct(silent.Url(), "{}");
    direct.param.dwConnTimeOutMS = 300;
    EXPECT_EQ(SENDBYCURL_TIMED_OUT, direct.Send());
}

TEST_F(DirectSendToRawServer, ARefusedConnectionReturns5)
{
    const common::ClosedPort closed;
    EXPECT_EQ(SENDBYCURL_TRANSFER_FAILED, Direct(closed.Url(), "{}").Send());
}

TEST_F(DirectSendToRawServer, AHandshakeBrokenOffReturns5)
{
    const raw::Server server({raw::When::FirstByte, {raw::Close()}});
    EXPECT_EQ(SENDBYCURL_TRANSFER_FAILED, Direct(server.Url("/", "https"), "{}").Send());
}

TEST_F(DirectSendToRawServer, ATransferCutOffReturns5WithWhatCame)
{
    const raw::Server server(
        {raw::When::Request, {raw::Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), raw::Close()}});
    Direct direct(server.Url(), "{}");
    EXPECT_EQ(SENDBYCURL_TRANSFER_FAILED, direct.Send());
    EXPECT_EQ("part", direct.Received());
}

} // namespace
