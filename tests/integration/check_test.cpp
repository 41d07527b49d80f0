/*
 * nvrhttp check, run as a program.
 */
#include <string>

#include "integration_fixture.h"
#include "nvrhttp_program.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"

namespace
{

using test::Finished;
using test::Has;
using test::Nvrhttp;
using test::RunProgram;
using test::ServeProcess;

using Check = test::IntegrationTest;

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

TEST_F(Check, SelfSignedServerIsReachable)
{
    const ServeProcess server({"--tls"});
    EXPECT_EQ(RunProgram(Nvrhttp({"check", server.Url()})).status, 0);
}

TEST_F(Check, RefusedConnection)
{
    const test::ClosedPort closed;
    const Finished run = RunProgram(Nvrhttp({"check", closed.Url()}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(Has(run.output,
                    "result 1: not reachable, or no complete answer: Couldn't connect to server (libcurl code 7)\n"))
        << run.output;
}

TEST_F(Check, PlainPortAskedForTls)
{
    const test::ScriptedServer plain({test::When::FIRST_BYTE, {test::Send(test::Reply(400, "what?")), test::CLOSE}});
    const Finished run = RunProgram(Nvrhttp({"check", plain.Url("/", "https")}));
    EXPECT_EQ(run.status, 12) << run.output << run.errors;
    EXPECT_TRUE(
        Has(run.output, "result 12: not reachable: the TLS connection failed: SSL connect error (libcurl code 35)\n"))
        << run.output;
}

TEST_F(Check, NoConnectionInTime)
{
    const test::SilentAddress silent;
    const Finished run = RunProgram(Nvrhttp({"check", silent.Url(), "--connect-timeout", "1"}));
    EXPECT_EQ(run.status, 10) << run.output << run.errors;
    EXPECT_TRUE(Has(run.output, "result 10: not reachable: no connection within the time-out: Timeout was reached "
                                "(libcurl code 28)\n"))
        << run.output;
}

TEST_F(Check, StandardInputIsNotSent)
{
    const test::ScriptedServer server(test::ECHOING);
    const Finished run = RunProgram(Nvrhttp({"check", server.Url()}), "SECRET");
    EXPECT_EQ(run.status, 0) << run.errors;
    ASSERT_EQ(server.RequestCount(), 1U);
    EXPECT_EQ(server.Requests()[0].Line(), "POST / HTTP/1.1");
    EXPECT_EQ(server.Requests()[0].body, "");
}

TEST_F(Check, FailureSaysWhatHappened)
{
    const test::ScriptedServer closing({test::When::HEADERS, {test::CLOSE}});
    const Finished empty = RunProgram(Nvrhttp({"check", closing.Url()}));
    EXPECT_EQ(empty.status, 1);
    EXPECT_TRUE(Has(empty.output, ": Server returned nothing (no headers, no data) (libcurl code 52)\n"))
        << empty.output;
    EXPECT_EQ(empty.errors, "");

    const Finished unknown = RunProgram(Nvrhttp({"check", test::UnresolvableUrl()}));
    EXPECT_EQ(unknown.status, 1);
    EXPECT_TRUE(Has(unknown.output, ": Couldn't resolve host name (libcurl code 6)\n")) << unknown.output;

    const test::ScriptedServer cutting(test::CUTTING_OFF);
    const Finished cut = RunProgram(Nvrhttp({"check", cutting.Url()}));
    EXPECT_EQ(cut.status, 1);
    EXPECT_TRUE(Has(cut.output, ": Transferred a partial file (libcurl code 18)\n")) << cut.output;
}

/* The library leaves libcurl's check on for a scheme in capitals. */
TEST_F(Check, SelfSignedServerIsRefusedInCapitals)
{
    const ServeProcess server({"--tls"});
    const Finished run = RunProgram(Nvrhttp({"check", "HTTPS" + server.Url().substr(5)}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(Has(run.output, ": SSL peer certificate or SSH remote key was not OK (libcurl code 60)\n"))
        << run.output;
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
