/*
 * nvrhttp post through the C++ client, its default mode: statuses, reasons and time-outs as they are.
 */
#include <chrono>
#include <string>
#include <vector>

#include "integration_fixture.h"
#include "nvrhttp_program.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"

namespace
{

using std::chrono::milliseconds;
using namespace test;

using PostClient = IntegrationTest;

/* Without --mode. */
Finished Post(const std::string &url, const std::vector<std::string> &more = {})
{
    std::vector<std::string> arguments = {"post", url};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunProgram(Nvrhttp(arguments));
}

void ExpectWhy(const Finished &run, int result, const std::string &why)
{
    EXPECT_EQ(run.status, result);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.errors, "nvrhttp post: result " + std::to_string(result) + ": " + why + "\n");
}

TEST_F(PostClient, FiveFailuresHaveFiveReasons)
{
    const ServeProcess plain;
    const ServeProcess untrusted({"--tls"});
    const ClosedPort closed;
    const ScriptedServer silent(SILENT);
    ExpectWhy(Post(plain.Url("/status/404")), 10, "HTTP status 404");
    ExpectWhy(Post(closed.Url()), 14, "connect failed: " + LibcurlReason(CURLE_COULDNT_CONNECT));
    ExpectWhy(Post(UnresolvableUrl()), 5, "transfer failed: " + LibcurlReason(CURLE_COULDNT_RESOLVE_HOST));
    ExpectWhy(Post(untrusted.Url()), 5, "transfer failed: " + LibcurlReason(CURLE_PEER_FAILED_VERIFICATION));
    ExpectWhy(Post(silent.Url(), {"--timeout", "300"}), 7, "timed out");
}

TEST_F(PostClient, AnswerThatIsTooLongIsNotAFailedTransfer)
{
    const ServeProcess server;
    ExpectWhy(Post(server.Url("/size/1001"), {"--max-answer", "1000"}), 11,
              "answer too long: it is longer than --max-answer");
}

TEST_F(PostClient, AnswerThatIsCutOffIsAFailure)
{
    const ScriptedServer server(CUTTING_OFF);
    ExpectWhy(Post(server.Url()), 5, "transfer failed: " + LibcurlReason(CURLE_PARTIAL_FILE));
}

/* The engine does not check a URL with user information like this, so the client does not send it. */
TEST_F(PostClient, WhatTheClientRefusesIsNotSent)
{
    const ScriptedServer server(ECHOING);
    const std::string url = server.Url();
    ExpectWhy(Post("http://https@" + url.substr(url.find("://") + 3)), 1,
              "invalid argument: the client refused it before anything was sent");
    EXPECT_EQ(server.RequestCount(), 0U);
}

TEST_F(PostClient, AnyStatusFrom200To299IsASuccess)
{
    for (const int status : {200, 201, 299}) {
        const ScriptedServer server(Answering("ok", status));
        const Finished run = Post(server.Url());
        EXPECT_EQ(run.status, 0) << run.errors;
        EXPECT_EQ(run.output, "ok");
        EXPECT_TRUE(Has(run.errors, " ms, HTTP status " + std::to_string(status) + "\n")) << run.errors;
    }
    for (const int status : {300, 404, 503}) {
        const ScriptedServer server(Answering("not ok", status));
        ExpectWhy(Post(server.Url()), 10, "HTTP status " + std::to_string(status));
    }
}

TEST_F(PostClient, OfManyEachStatusIsCounted)
{
    const ScriptedServer server({When::REQUEST, {Answer([served = 0](const Request &) mutable {
                                     return Reply(served++ % 3 == 0 ? 503 : 200, "ok");
                                 })}});
    const Finished run = Post(server.Url(), {"--count", "6", "--quiet"});
    EXPECT_EQ(run.status, 10);
    EXPECT_TRUE(Has(run.errors, ": 4 succeeded, 2 failed, 0 lost\n")) << run.errors;
    EXPECT_TRUE(Has(run.errors, "  4 answered with HTTP status 200\n"
                                "  2 answered with HTTP status 503\n"
                                "  2 failed with result 10: the HTTP status was not 200 to 299\n"))
        << run.errors;
}

TEST_F(PostClient, UrlWithoutASchemeIsOneOfHttp)
{
    const ServeProcess server;
    const Finished run = Post(server.Url().substr(std::string("http://").size()));
    EXPECT_EQ(run.output, "{}") << run.errors;
}

TEST_F(PostClient, TheLastOfVerifyAndNoVerifyHolds)
{
    const ServeProcess server({"--tls"});
    EXPECT_EQ(Post(server.Url(), {"--verify", "--no-verify"}).status, 0);
    EXPECT_EQ(Post(server.Url(), {"--no-verify", "--verify"}).status, 5);
}

TEST_F(PostClient, NoneIsLateAtASilentServer)
{
    const ServeProcess server;
    const auto start = std::chrono::steady_clock::now();
    const Finished run =
        Post(server.Url("/delay/20000"), {"--count", "400", "--parallel", "200", "--timeout", "1000", "--quiet"});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(run.status, 7);
    EXPECT_TRUE(Has(run.errors, ": 0 succeeded, 400 failed, 0 lost\n")) << run.errors;
    EXPECT_TRUE(Has(run.errors, "  400 failed with result 7: timed out\n")) << run.errors;
    /* Two rounds of a second each; the server answers much later. */
    EXPECT_GE(took, milliseconds(2000));
    EXPECT_LT(took, milliseconds(15000));
}

TEST_F(PostClient, OneThousandAndTwentyFourOutstanding)
{
    const ServeProcess server;
    const Finished run = Post(server.Url("/delay/300"), {"--count", "1024", "--parallel", "1024", "--quiet",
                                                         "--timeout", "60000", "--connect-timeout", "60000"});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_TRUE(Has(run.errors, ": 1024 succeeded, 0 failed, 0 lost\n")) << run.errors;
}

TEST_F(PostClient, TimeOutsAreAtMostTwentyFourDays)
{
    const ServeProcess server;
    for (const char *option : {"--timeout", "--connect-timeout"}) {
        EXPECT_EQ(Post(server.Url(), {option, "2073600000"}).status, 0) << option;
        EXPECT_GT(Post(server.Url(), {option, "2073600001"}).status, 100) << option;
    }
}

TEST_F(PostClient, HelpCallsItTheDefault)
{
    const Finished run = RunProgram(Nvrhttp({"post", "--help"}));
    EXPECT_TRUE(Has(Folded(run.output), "Modes: client, the default, is the one to use")) << run.output;
}

} // namespace
