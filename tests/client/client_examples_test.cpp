/*
 * The examples do what they show.
 */
#include "client_fixture.h"
#include "nginx_server.h"
#include "tests/support/child_process.h"

namespace
{

using namespace test;

using ClientExamples = ClientTest;

TEST_F(ClientExamples, Post)
{
    const ScriptedServer server(ECHOING);
    ExpectRun({{EXAMPLE_POST, server.Url()}}, 0, "none, status 200: {\"hello\":\"recorder\"}\n");
    const ClosedPort closed;
    ExpectRun({{EXAMPLE_POST, closed.Url()}}, 1, "connect failed, status 0: \n");
}

TEST_F(ClientExamples, Many)
{
    const ScriptedServer server(ECHOING);
    ExpectRun({{EXAMPLE_MANY, server.Url()}}, 0, "100 of 100 were answered\n");
    EXPECT_EQ(server.RequestCount(), 100U);
}

TEST_F(ClientExamples, Chain)
{
    const ScriptedServer server(ECHOING);
    ExpectRun({{EXAMPLE_CHAIN, server.Url()}}, 0,
              "step 1: none, status 200\nstep 2: none, status 200\nstep 3: none, status 200\n"
              "step 4: none, status 200\nstep 5: none, status 200\n");
    EXPECT_EQ(server.Requests().at(4).body, "{\"step\":5}");
}

TEST_F(ClientExamples, Get)
{
    const ScriptedServer server(Answering("[]"));
    ExpectRun({{EXAMPLE_GET, server.Url()}}, 0, "none, status 200: []\n");
    EXPECT_EQ(server.Requests().at(0).Line(), "GET / HTTP/1.1");
}

class ClientVerifyExample : public NginxTest
{
};

TEST_F(ClientVerifyExample, Refused)
{
    ExpectRun({{EXAMPLE_VERIFY, nginx.Https("/echo")}}, 0,
              "checked: transfer failed, status 0\nnot checked: none, status 200\n");
}

TEST_F(ClientVerifyExample, Accepted)
{
    Program program;
    program.command = {EXAMPLE_VERIFY_TRUSTING, nginx.Https("/echo")};
    program.environment = {"NVRHTTP_TRUSTED=" + nginx.CertificatePath()};
    ExpectRun(program, 0, "checked: none, status 200\nnot checked: none, status 200\n");
}

} // namespace
