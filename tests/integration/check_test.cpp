/*
 * nvrhttp check, run as a program.
 */
#include "nvrhttp_program.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"

namespace
{

using namespace test;
using Check = IntegrationTest;

TEST_F(Check, AnyStatusIsReachable)
{
    const ServeProcess server;
    for (const char *path : {"/", "/status/404", "/status/500"}) {
        const Finished run = RunProgram(Nvrhttp({"check", server.Url(path)}));
        EXPECT_EQ(run.status, 0) << run.errors;
        EXPECT_EQ(run.output,
                  server.Url(path) + "\nresult 0: reachable: the server answered, with whatever HTTP status\n");
    }
}

TEST_F(Check, FailureSaysWhatHappened)
{
    const std::string closed = "result 1: not reachable, or no complete answer: ";
    const ClosedPort refusing;
    const SilentAddress silent;
    const ScriptedServer plain({When::FIRST_BYTE, {Send(Reply(400, "what?")), CLOSE}});
    const ScriptedServer closing({When::HEADERS, {CLOSE}});
    const ScriptedServer cutting(CUTTING_OFF);
    const struct {
        std::string url;
        int status;
        std::string line;
    } cases[] = {
        {refusing.Url(), 1, closed + LibcurlReason(CURLE_COULDNT_CONNECT) + "\n"},
        {closing.Url(), 1, closed + LibcurlReason(CURLE_GOT_NOTHING) + "\n"},
        {UnresolvableUrl(), 1, closed + LibcurlReason(CURLE_COULDNT_RESOLVE_HOST) + "\n"},
        {cutting.Url(), 1, closed + LibcurlReason(CURLE_PARTIAL_FILE) + "\n"},
        {plain.Url("/", "https"), 12,
         "result 12: not reachable: the TLS connection failed: " + LibcurlReason(CURLE_SSL_CONNECT_ERROR) + "\n"},
        {silent.Url(), 10,
         "result 10: not reachable: no connection within the time-out: " + LibcurlReason(CURLE_OPERATION_TIMEDOUT) +
             "\n"}};
    for (const auto &each : cases) {
        const Finished run = RunProgram(Nvrhttp({"check", each.url, "--connect-timeout", "1"}));
        EXPECT_EQ(run.status, each.status) << each.url;
        EXPECT_TRUE(Has(run.output, each.line)) << run.output;
        EXPECT_EQ(run.errors, "") << each.url;
    }
}

TEST_F(Check, StandardInputIsNotSent)
{
    const ScriptedServer server(ECHOING);
    const Finished run = RunProgram(Nvrhttp({"check", server.Url()}), "SECRET");
    EXPECT_EQ(run.status, 0) << run.errors;
    ASSERT_EQ(server.RequestCount(), 1U);
    EXPECT_EQ(server.Requests()[0].Line(), "POST / HTTP/1.1");
    EXPECT_EQ(server.Requests()[0].body, "");
}

/* The library leaves libcurl's check on for a scheme in capitals. */
TEST_F(Check, SelfSignedServerIsReachableButNotInCapitals)
{
    const ServeProcess server({"--tls"});
    EXPECT_EQ(RunProgram(Nvrhttp({"check", server.Url()})).status, 0);
    const Finished run = RunProgram(Nvrhttp({"check", "HTTPS" + server.Url().substr(5)}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(Has(run.output, ": " + LibcurlReason(CURLE_PEER_FAILED_VERIFICATION) + "\n")) << run.output;
    EXPECT_TRUE(Has(RunProgram(Nvrhttp({"check", "--help"})).output, "HTTPS in capitals"));
}

TEST_F(Check, OnlyHttpIsTaken)
{
    for (const char *url : {"file:///etc/hostname", "ftp://127.0.0.1/", "http://[bad/", ""}) {
        const Finished run = RunProgram(Nvrhttp({"check", url}));
        EXPECT_GT(run.status, 100) << url;
        EXPECT_EQ(run.output, "") << url;
    }
}

} // namespace
