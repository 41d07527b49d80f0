/*
 * What leaves on the wire, byte by byte where it matters.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine_runs.h"
#include "raw_server.h"
#include "sends.h"

namespace
{

using runs::AnswerOf;
using runs::Engine;

class Wire : public common::IntegrationTest
{
  protected:
    Wire() : engine(0, 0), server(raw::Echoing())
    {
    }

    void SetUp() override
    {
        ASSERT_EQ(NVRHTTPCURLCLT_OK, engine.Result());
        ASSERT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltReqCreat(engine.Handle(), &request));
        ASSERT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltSetReqUri(request, server.Url("/place").c_str()));
    }

    void TearDown() override
    {
        NvrHttpCurlCltReqDestroy(request);
    }

    void Header(const std::string &name, const std::string &value)
    {
        ASSERT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltSetReqHeader(request, name.c_str(), value.c_str()));
    }

    void Method(const char *method)
    {
        ASSERT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltSetReqMethod(request, method));
    }

    void Body(const std::string &body)
    {
        ASSERT_EQ(NVRHTTPCURLCLT_OK,
                  NvrHttpCurlCltSetReqBody(request, body.data(), static_cast<uint32_t>(body.size())));
    }

    /* Runs the request and returns it as the server saw it. */
    raw::Request Seen()
    {
        EXPECT_EQ(NVRHTTPCURLCLT_OK,
                  NvrHttpCurlCltProcessReq(request, 60000, 60000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr));
        const std::vector<raw::Request> requests = server.Requests();
        EXPECT_EQ(1u, requests.size());
        return requests.empty() ? raw::Request{} : requests[0];
    }

    Engine engine;
    raw::Server server;
    HNvrHttpCurlCltReq request = nullptr;
};

class WireMethod : public Wire, public testing::WithParamInterface<const char *>
{
};

TEST_P(WireMethod, SetBeforeTheBodyLeavesAsPostWithTheBody)
{
    Header("X-Test", "1");
    Method(GetParam());
    Body("{\"a\":1}");
    const raw::Request seen = Seen();
    EXPECT_EQ("POST /place HTTP/1.1", seen.Line());
    EXPECT_TRUE(seen.HasLine("Content-Length: 7")) << seen.head;
    EXPECT_FALSE(seen.chunked);
    EXPECT_EQ("{\"a\":1}", seen.body);
    EXPECT_EQ("{\"a\":1}", AnswerOf(request));
}

INSTANTIATE_TEST_SUITE_P(EveryMethod, WireMethod, testing::Values("POST", "GET", "PUT", "put"));

TEST_F(Wire, ABodyWithoutAMethodLeavesAsPost)
{
    Header("X-Test", "1");
    Body("{}");
    EXPECT_EQ("POST /place HTTP/1.1", Seen().Line());
}

TEST_F(Wire, GetSetAfterTheBodyLeavesAsGetWithoutIt)
{
    Header("X-Test", "1");
    Method("POST");
    Body("{\"a\":1}");
    Method("GET");
    const raw::Request seen = Seen();
    EXPECT_EQ("GET /place HTTP/1.1", seen.Line());
    EXPECT_FALSE(seen.HasHeader("Content-Length")) << seen.head;
    EXPECT_FALSE(seen.chunked);
    EXPECT_EQ("", seen.body);
    EXPECT_TRUE(seen.HasLine("X-Test:1")) << seen.head;
    EXPECT_EQ(200, runs::StatusOf(request));
}

TEST_F(Wire, PutSetAfterTheBodyTakesStandardInput)
{
    common::FeedStandardInput("from standard input");
    Header("X-Test", "1");
    Body("{\"a\":1}");
    Method("PUT");
    const raw::Request seen = Seen();
    EXPECT_EQ("PUT /place HTTP/1.1", seen.Line());
    EXPECT_TRUE(seen.chunked) << seen.head;
    EXPECT_EQ("from standard input", seen.body);
}

TEST_F(Wire, HeaderLinesLeaveAsTheyWereSetAndExpectIsNotAmongThem)
{
    Header("Content-Type", "application/json;charset=UTF-8");
    Header("X-Second", "two words");
    Body("{}");
    const raw::Request seen = Seen();
    EXPECT_TRUE(seen.HasLine("Content-Type:application/json;charset=UTF-8")) << seen.head;
    EXPECT_TRUE(seen.HasLine("X-Second:two words")) << seen.head;
    EXPECT_FALSE(seen.HasHeader("Expect")) << seen.head;
}

TEST_F(Wire, AHeaderLineOf127CharactersIsWhole)
{
    const std::string value = common::Text(127 - 7);
    Header("X-Long", value);
    Body("{}");
    EXPECT_TRUE(Seen().HasLine("X-Long:" + value));
}

TEST_F(Wire, ALongerHeaderLineIsCutAt127)
{
    const std::string value = common::Text(400);
    Header("X-Long", value);
    Body("{}");
    const raw::Request seen = Seen();
    EXPECT_TRUE(seen.HasLine("X-Long:" + value.substr(0, 127 - 7))) << seen.head;
}

TEST_F(Wire, TwoMegabytesWithAHeaderLineLeaveWithoutExpect)
{
    const std::string body = common::Text(2000000);
    Header("X-Test", "1");
    Body(body);
    const raw::Request seen = Seen();
    EXPECT_FALSE(seen.HasHeader("Expect")) << seen.head;
    EXPECT_TRUE(seen.HasLine("Content-Length: 2000000"));
    EXPECT_TRUE(body == seen.body);
}

TEST_F(Wire, OverAMegabyteWithoutAHeaderLineLeavesWithExpect)
{
    const std::string body = common::Text(1100000);
    Body(body);
    const raw::Request seen = Seen();
    EXPECT_TRUE(seen.HasLine("Expect: 100-continue")) << seen.head;
    EXPECT_TRUE(body == seen.body);
}

TEST_F(Wire, LessWithoutAHeaderLineLeavesWithoutExpect)
{
    Body(common::Text(1000000));
    EXPECT_FALSE(Seen().HasHeader("Expect"));
}

TEST_F(Wire, WithoutAHeaderLineTheAnswerBeginsWithItsStatusLine)
{
    Body("{\"a\":1}");
    const raw::Request seen = Seen();
    EXPECT_TRUE(seen.HasLine("Content-Type: application/x-www-form-urlencoded")) << seen.head;
    EXPECT_EQ("HTTP/1.1 200 Reply\r\nContent-Length: 7\r\n\r\n{\"a\":1}", AnswerOf(request));
}

TEST_F(Wire, ABodyMayHoldZeroBytes)
{
    const std::string body("one\0two\0", 8);
    Header("X-Test", "1");
    Body(body);
    EXPECT_EQ(body, Seen().body);
    EXPECT_EQ(body, AnswerOf(request));
}

TEST_F(Wire, AnEmptyBodyLeavesAsPostOfLength0)
{
    Header("X-Test", "1");
    ASSERT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltSetReqBody(request, nullptr, 0));
    const raw::Request seen = Seen();
    EXPECT_EQ("POST /place HTTP/1.1", seen.Line());
    EXPECT_TRUE(seen.HasLine("Content-Length: 0")) << seen.head;
    EXPECT_EQ("", AnswerOf(request));
}

/* --- the send module ----------------------------------------------------------------------- */

class ModuleWire : public common::IntegrationTest, public testing::WithParamInterface<uint32_t>
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(SENDBYCURL_OK, Qelvo_SyncSendStrByHttp_Init());
    }
};

TEST_P(ModuleWire, EverySendLeavesAsPostOfJson)
{
    const raw::Server server(raw::Echoing());
    const std::string url = server.Url("/place");
    const std::string body = "{\"name\":\"\xE8\xAE\xB0\"}";
    char answer[128] = "";
    TSendByCurlParam param = sends::Param(url, body, answer, sizeof(answer) - 1);
    param.eHeadType = GetParam();
    ASSERT_EQ(SENDBYCURL_OK, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC));
    sends::Batch batch(1);
    ASSERT_EQ(SENDBYCURL_OK, batch.Send(0, param));
    ASSERT_TRUE(batch.WaitFor(1));

    ASSERT_EQ(2u, server.RequestCount());
    for (const raw::Request &seen : server.Requests()) {
        EXPECT_EQ("POST /place HTTP/1.1", seen.Line());
        EXPECT_TRUE(seen.HasLine("Content-Type:application/json;charset=UTF-8")) << seen.head;
        EXPECT_TRUE(seen.HasLine("Content-Length: 14")) << seen.head;
        EXPECT_FALSE(seen.HasHeader("Expect")) << seen.head;
        EXPECT_FALSE(seen.HasHeader("Authorization")) << seen.head;
        EXPECT_EQ(body, seen.body);
    }
    EXPECT_EQ(body, std::string(answer));
    EXPECT_EQ(body, batch.Answer(0));
}

INSTANTIATE_TEST_SUITE_P(EveryHeadType, ModuleWire,
                         testing::Values(SENDBYCURL_METHOD_POST, SENDBYCURL_METHOD_PUT, SENDBYCURL_METHOD_GET, 7));

TEST_F(ModuleWire, TwoMegabytesLeaveWithoutExpect)
{
    const raw::Server server(raw::Echoing());
    const std::string body = common::Text(2000000);
    const sends::Outcome outcome = sends::SendAndWait(server.Url(), body, 2000000);
    EXPECT_EQ(SENDBYCURL_OK, outcome.result);
    EXPECT_TRUE(body == outcome.answer);
    ASSERT_EQ(1u, server.RequestCount());
    EXPECT_FALSE(server.Requests()[0].HasHeader("Expect"));
}

TEST_F(ModuleWire, CredentialsLeaveOnlyOnceTheServerAsksForThem)
{
    const raw::Server server(
        {raw::When::Request,
         {raw::Send("HTTP/1.1 401 Who\r\nWWW-Authenticate: Basic realm=\"r\"\r\nContent-Length: 5\r\n\r\nwho? ")}});
    const std::string url = server.Url();
    char answer[64] = "";
    const std::string body = "{}";
    TSendByCurlParam param = sends::Param(url, body, answer, sizeof(answer) - 1);
    param.bCurlAuth = 1;
    snprintf(param.achUserAndPassWd, sizeof(param.achUserAndPassWd), "%s", "user:secret");
    EXPECT_EQ(SENDBYCURL_HTTP_STATUS, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_SYNC));
    ASSERT_EQ(2u, server.RequestCount());
    EXPECT_FALSE(server.Requests()[0].HasHeader("Authorization"));
    EXPECT_TRUE(server.Requests()[1].HasLine("Authorization: Basic dXNlcjpzZWNyZXQ=")) << server.Requests()[1].head;
}

} // namespace
