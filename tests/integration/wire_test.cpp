/*
 * What leaves on the wire, byte by byte where it matters.
 */
#include <cstring>

#include "engine_runs.h"
#include "sends.h"
#include "tests/support/scripted_server.h"

namespace
{

using namespace test;

class Wire : public IntegrationTest
{
  protected:
    Wire() : engine(0, 0), server(ECHOING)
    {
    }

    void SetUp() override
    {
        ASSERT_EQ(engine.Result(), NVRHTTPCURLCLT_OK);
        ASSERT_EQ(NvrHttpCurlCltReqCreat(engine.Handle(), &request), NVRHTTPCURLCLT_OK);
        ASSERT_EQ(NvrHttpCurlCltSetReqUri(request, server.Url("/place").c_str()), NVRHTTPCURLCLT_OK);
    }

    void TearDown() override
    {
        NvrHttpCurlCltReqDestroy(request);
    }

    void Header(const std::string &name, const std::string &value)
    {
        ASSERT_EQ(NvrHttpCurlCltSetReqHeader(request, name.c_str(), value.c_str()), NVRHTTPCURLCLT_OK);
    }

    void Method(const char *method)
    {
        ASSERT_EQ(NvrHttpCurlCltSetReqMethod(request, method), NVRHTTPCURLCLT_OK);
    }

    void Body(const std::string &body)
    {
        ASSERT_EQ(NvrHttpCurlCltSetReqBody(request, body.data(), static_cast<uint32_t>(body.size())),
                  NVRHTTPCURLCLT_OK);
    }

    /* Runs the request and returns it as the server saw it. */
    Request Seen()
    {
        EXPECT_EQ(NvrHttpCurlCltProcessReq(request, 60000, 60000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr),
                  NVRHTTPCURLCLT_OK);
        const std::vector<Request> requests = server.Requests();
        EXPECT_EQ(requests.size(), 1U);
        return requests.empty() ? Request{} : requests[0];
    }

    Engine engine;
    ScriptedServer server;
    HNvrHttpCurlCltReq request = nullptr;
};

class WireMethod : public Wire, public testing::WithParamInterface<const char *>
{
};

TEST_P(WireMethod, SetBeforeTheBodyLeavesAsPostWithTheBody)
{
    Header("X-Test", "1");
    if (*GetParam() != '\0') {
        Method(GetParam());
    }
    Body("{\"a\":1}");
    const Request seen = Seen();
    EXPECT_EQ(seen.Line(), "POST /place HTTP/1.1");
    EXPECT_TRUE(seen.HasLine("Content-Length: 7")) << seen.head;
    EXPECT_FALSE(seen.chunked);
    EXPECT_EQ(seen.body, "{\"a\":1}");
    EXPECT_EQ(AnswerOf(request), "{\"a\":1}");
}

INSTANTIATE_TEST_SUITE_P(EveryMethod, WireMethod, testing::Values("", "POST", "GET", "PUT", "put"));

TEST_F(Wire, GetSetAfterTheBodyLeavesAsGetWithoutIt)
{
    Header("X-Test", "1");
    Method("POST");
    Body("{\"a\":1}");
    Method("GET");
    const Request seen = Seen();
    EXPECT_EQ(seen.Line(), "GET /place HTTP/1.1");
    EXPECT_FALSE(seen.HasHeader("Content-Length")) << seen.head;
    EXPECT_FALSE(seen.chunked);
    EXPECT_EQ(seen.body, "");
    EXPECT_EQ(server.Received(0), seen.head + "\r\n\r\n");
    EXPECT_TRUE(seen.HasLine("X-Test:1")) << seen.head;
    EXPECT_EQ(StatusOf(request), 200);
}

TEST_F(Wire, PutSetAfterTheBodyTakesStandardInput)
{
    FeedStandardInput("from standard input");
    Header("X-Test", "1");
    Body("{\"a\":1}");
    Method("PUT");
    const Request seen = Seen();
    EXPECT_EQ(seen.Line(), "PUT /place HTTP/1.1");
    EXPECT_TRUE(seen.chunked) << seen.head;
    EXPECT_EQ(seen.body, "from standard input");
}

TEST_F(Wire, HeaderLinesLeaveAsTheyWereSetAndExpectIsNotAmongThem)
{
    Header("Content-Type", "application/json;charset=UTF-8");
    Header("X-Second", "two words");
    Body("{}");
    const Request seen = Seen();
    EXPECT_TRUE(seen.HasLine("Content-Type:application/json;charset=UTF-8")) << seen.head;
    EXPECT_TRUE(seen.HasLine("X-Second:two words")) << seen.head;
    EXPECT_FALSE(seen.HasHeader("Expect")) << seen.head;
}

TEST_F(Wire, AHeaderLineIsCutAt127Characters)
{
    const std::string fits = SampleText(127 - 7);
    const std::string longer = SampleText(400);
    Header("X-Fits", fits);
    Header("X-Long", longer);
    Body("{}");
    const Request seen = Seen();
    EXPECT_TRUE(seen.HasLine("X-Fits:" + fits)) << seen.head;
    EXPECT_TRUE(seen.HasLine("X-Long:" + longer.substr(0, fits.size()))) << seen.head;
}

TEST_F(Wire, TwoMegabytesWithAHeaderLineLeaveWithoutExpect)
{
    const std::string body = SampleText(2000000);
    Header("X-Test", "1");
    Body(body);
    const Request seen = Seen();
    EXPECT_FALSE(seen.HasHeader("Expect")) << seen.head;
    EXPECT_TRUE(seen.HasLine("Content-Length: 2000000"));
    EXPECT_TRUE(server.Received(0) == seen.head + "\r\n\r\n" + body);
}

TEST_F(Wire, OverAMegabyteWithoutAHeaderLineLeavesWithExpect)
{
    const std::string body = SampleText(1100000);
    Body(body);
    const Request seen = Seen();
    EXPECT_TRUE(seen.HasLine("Expect: 100-continue")) << seen.head;
    EXPECT_TRUE(body == seen.body);
}

TEST_F(Wire, LessWithoutAHeaderLineLeavesWithoutExpect)
{
    Body(SampleText(1000000));
    EXPECT_FALSE(Seen().HasHeader("Expect"));
}

TEST_F(Wire, WithoutAHeaderLineTheAnswerBeginsWithItsStatusLine)
{
    Body("{\"a\":1}");
    const Request seen = Seen();
    EXPECT_TRUE(seen.HasLine("Content-Type: application/x-www-form-urlencoded")) << seen.head;
    EXPECT_EQ(AnswerOf(request), "HTTP/1.1 200 Reply\r\nContent-Length: 7\r\n\r\n{\"a\":1}");
}

TEST_F(Wire, ABodyMayHoldZeroBytes)
{
    const std::string body("one\0two\0", 8);
    Header("X-Test", "1");
    Body(body);
    EXPECT_EQ(Seen().body, body);
    EXPECT_EQ(AnswerOf(request), body);
}

TEST_F(Wire, AnEmptyBodyLeavesAsPostOfLength0)
{
    Header("X-Test", "1");
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(request, nullptr, 0), NVRHTTPCURLCLT_OK);
    const Request seen = Seen();
    EXPECT_EQ(seen.Line(), "POST /place HTTP/1.1");
    EXPECT_TRUE(seen.HasLine("Content-Length: 0")) << seen.head;
    EXPECT_EQ(server.Received(0), seen.head + "\r\n\r\n");
    EXPECT_EQ(AnswerOf(request), "");
}

/* --- the send module ----------------------------------------------------------------------- */

class ModuleWire : public WithSendModule<IntegrationTest>, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(ModuleWire, EverySendLeavesAsPostOfJson)
{
    const ScriptedServer server(ECHOING);
    Post post(server.Url("/place"), "{\"name\":\"\xE8\xAE\xB0\"}");
    post.param.eHeadType = GetParam();
    ASSERT_EQ(post.SendSync(), SENDBYCURL_OK);
    Batch batch(1);
    ASSERT_EQ(batch.Send(0, post.param), SENDBYCURL_OK);
    ASSERT_TRUE(batch.WaitFor(1));
    ASSERT_EQ(server.RequestCount(), 2U);
    for (const Request &seen : server.Requests()) {
        EXPECT_EQ(seen.Line(), "POST /place HTTP/1.1");
        EXPECT_TRUE(seen.HasLine("Content-Type:application/json;charset=UTF-8")) << seen.head;
        EXPECT_TRUE(seen.HasLine("Content-Length: 14")) << seen.head;
        EXPECT_FALSE(seen.HasHeader("Expect")) << seen.head;
        EXPECT_FALSE(seen.HasHeader("Authorization")) << seen.head;
        EXPECT_EQ(seen.body, post.body);
    }
    EXPECT_STREQ(post.answer.c_str(), post.body.c_str());
    EXPECT_EQ(batch.Answer(0), post.body);
}

INSTANTIATE_TEST_SUITE_P(EveryHeadType, ModuleWire,
                         testing::Values(SENDBYCURL_METHOD_POST, SENDBYCURL_METHOD_PUT, SENDBYCURL_METHOD_GET, 7));

TEST_F(ModuleWire, TwoMegabytesLeaveWithoutExpect)
{
    const ScriptedServer server(ECHOING);
    const std::string body = SampleText(2000000);
    const Outcome outcome = SendAndWait(server.Url(), body, 2000000);
    EXPECT_EQ(outcome.result, SENDBYCURL_OK);
    EXPECT_TRUE(body == outcome.answer);
    ASSERT_EQ(server.RequestCount(), 1U);
    EXPECT_FALSE(server.Requests()[0].HasHeader("Expect"));
}

TEST_F(ModuleWire, CredentialsLeaveOnlyOnceTheServerAsksForThem)
{
    const ScriptedServer server(
        {When::REQUEST, {Send(Reply(401, "who? ", "WWW-Authenticate: Basic realm=\"r\"\r\n"))}});
    Post post(server.Url(), "{}");
    post.param.bCurlAuth = 1;
    strcpy(post.param.achUserAndPassWd, "user:secret");
    EXPECT_EQ(post.SendSync(), SENDBYCURL_HTTP_STATUS);
    ASSERT_EQ(server.RequestCount(), 2U);
    EXPECT_FALSE(server.Requests()[0].HasHeader("Authorization"));
    EXPECT_TRUE(server.Requests()[1].HasLine("Authorization: Basic dXNlcjpzZWNyZXQ=")) << server.Requests()[1].head;
}

} // namespace
