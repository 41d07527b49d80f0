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
    EXPECT_TRUE(Has(run.output, "result 1: not reachable: refused")) << run.output;
}

TEST_F(Check, PlainPortAskedForTls)
{
    const test::ScriptedServer plain({test::When::FIRST_BYTE, {test::Send(test::Reply(400, "what?")), test::CLOSE}});
    const Finished run = RunProgram(Nvrhttp({"check", plain.Url("/", "https")}));
    EXPECT_EQ(run.status, 12) << run.output << run.errors;
    EXPECT_TRUE(Has(run.output, "result 12: not reachable: the TLS connection failed")) << run.output;
}

TEST_F(Check, NoConnectionInTime)
{
    const test::SilentAddress silent;
    const Finished run = RunProgram(Nvrhttp({"check", silent.Url(), "--connect-timeout", "1"}));
    EXPECT_EQ(run.status, 10) << run.output << run.errors;
    EXPECT_TRUE(Has(run.output, "result 10: not reachable: no connection within the time-out")) << run.output;
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

} // namespace
