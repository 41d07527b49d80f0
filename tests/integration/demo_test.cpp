/*
 * The demo, run as a program: with the echo server of its own and with servers that it is given.
 */
#include "nvrhttp_program.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"

namespace
{

using namespace test;

const std::string ALL_ANSWERED = "\nAll posts were answered.\n";
const std::string NOT_ALL_ANSWERED = "\nSomething was lost, failed or wrong: see above.\n";

/* The parts are in the text, one after the other. */
void ExpectInOrder(const std::string &text, const std::vector<std::string> &parts)
{
    size_t at = 0;
    for (const std::string &part : parts) {
        const size_t found = text.find(part, at);
        ASSERT_NE(found, std::string::npos) << part << " in\n" << text;
        at = found + part.size();
    }
}

using DemoTest = IntegrationTest;

/* The parts are in this order in what the demo with these arguments writes, and that is its status. */
void ExpectRun(const std::vector<std::string> &arguments, int status, const std::vector<std::string> &parts)
{
    const Finished run = RunProgram(Demo(arguments));
    EXPECT_EQ(run.status, status) << run.output << run.errors;
    ExpectInOrder(run.output, parts);
}

TEST_F(DemoTest, EveryPostToItsOwnServerIsAnswered)
{
    const Finished run = RunProgram(Demo({"--count", "40"}));
    EXPECT_EQ(run.status, 0) << run.output << run.errors;
    ExpectInOrder(run.output, {"An echo server runs at http://127.0.0.1:",
                               "The send module runs (nvrhttpcurl " NVRHTTP_VERSION " over libcurl ",
                               "== One JSON text, through the C++ client\n",
                               "   Why: ",
                               ", HTTP status 200, ",
                               ", the same as sent\n",
                               "== One JSON text, synchronously\n",
                               "   Why: ",
                               "   result  0 after ",
                               ", the same as sent\n",
                               "== One JSON text, asynchronously\n",
                               "   Why: ",
                               "   accepted, waiting for the notification\n",
                               ", the same as sent\n",
                               "== 40 posts, asynchronously, up to 200 at once\n",
                               "   sent 40/40, notified 40, in flight 0\n",
                               "   sent 40, notified 40, failed 0, in ",
                               "== The console's listings, while the server holds back a few answers\n",
                               "> sendbycurlsetlog 2\n",
                               "> sendbycurlshow\n",
                               "bUseFlag:1",
                               "Show End",
                               "> NvrHttpCurlCltshow\n",
                               "dwAsyncReqNum ",
                               "> sendbycurlsetlog 1\n",
                               "   of these 4 posts notified 4, failed 0\n",
                               ALL_ANSWERED});
    EXPECT_FALSE(Has(run.output, "\r")) << run.output;
}

TEST_F(DemoTest, MorePostsThanMayBeUnderWayAreAllAnswered)
{
    ExpectRun({"--count", "500", "--deadline", "60"}, 0, {"   sent 500, notified 500, failed 0, in ", ALL_ANSWERED});
}

TEST_F(DemoTest, ProgressIsRewrittenOnATerminal)
{
    Program program = Demo({"--count", "3"});
    program.onTerminal = true;
    ChildProcess demo(program);
    const std::string output = demo.ReadToEnd();
    EXPECT_EQ(demo.Wait(), 0) << output;
    EXPECT_TRUE(Has(output, "\r\033[K   sent 3/3, notified 3, in flight 0\r\n")) << output;
}

TEST_F(DemoTest, AProxyOfTheEnvironmentDoesNotSeeWhatGoesToItsOwnServer)
{
    const ClosedPort proxy;
    Program program = Demo({"--count", "1"});
    program.environment = {"http_proxy=" + proxy.Url()};
    const Finished run = RunProgram(program);
    EXPECT_EQ(run.status, 0) << run.output << run.errors;
}

TEST_F(DemoTest, AServerThatIsGivenGetsThreePostsAndNoOthers)
{
    const ScriptedServer server(ECHOING);
    ExpectRun({server.Url("/place"), "{\"a\":1}"}, 0,
              {"Server: " + server.Url("/place") + "\n", "   sent    {\"a\":1}\n", "   answer  {\"a\":1}\n",
               "   result  0 after ", ", HTTP status 200, 7 bytes\n", "   sent    {\"a\":1}\n",
               "   answer  {\"a\":1}\n", "   result  0 after ", ", 7 bytes\n", "   sent    {\"a\":1}\n",
               "   answer  {\"a\":1}\n", ", 7 bytes\n", ALL_ANSWERED});
    ASSERT_EQ(server.RequestCount(), 3U);
    for (const Request &seen : server.Requests()) {
        EXPECT_EQ(seen.Line(), "POST /place HTTP/1.1");
        EXPECT_EQ(seen.body, "{\"a\":1}");
    }
}

TEST_F(DemoTest, AServerMayBeGivenWithoutAScheme)
{
    const ScriptedServer server(ECHOING);
    ExpectRun({server.Url().substr(std::string("http://").size())}, 0, {ALL_ANSWERED});
    EXPECT_EQ(server.RequestCount(), 3U);
}

TEST_F(DemoTest, AnUntrustedServerFailsTheClientAlone)
{
    const ServeProcess server({"--tls"});
    ExpectRun(
        {server.Url(), "{}"}, 1,
        {"   FAILED  result 5: transfer failed\n", "   result  0 after ", "   result  0 after ", NOT_ALL_ANSWERED});
}

TEST_F(DemoTest, ALongAnswerIsShownCut)
{
    const ScriptedServer server(Answering(std::string(2001, 'x')));
    ExpectRun({server.Url()}, 0, {"   answer  " + std::string(2000, 'x') + " ...\n"});
}

TEST_F(DemoTest, ClientAndSynchronousPostJudgeTheStatus)
{
    const ScriptedServer server(Answering("nothing here", 404));
    ExpectRun({server.Url()}, 1,
              {"== One JSON text, through the C++ client\n",
               "   FAILED  result 10: the HTTP status was not 200 to 299, HTTP status 404\n",
               "== One JSON text, synchronously\n", "   FAILED  result 10: ", "== One JSON text, asynchronously\n",
               "   answer  nothing here\n", "   result  0 after ", NOT_ALL_ANSWERED});
}

TEST_F(DemoTest, ARefusedConnectionFailsEachPost)
{
    const ClosedPort closed;
    ExpectRun({closed.Url()}, 1,
              {"   FAILED  result 14: connect failed\n",
               "   FAILED  result 10: ", "   FAILED  result 14: ", NOT_ALL_ANSWERED});
}

TEST_F(DemoTest, AnAnswerOfMoreThanAMegabyteIsNotAskedForAsynchronously)
{
    const std::string body((1U << 20) + 1, 'x');
    const ScriptedServer server(Answering(body));
    ExpectRun({server.Url()}, 1,
              {"   FAILED  result 11: the answer is longer than 1 MiB\n",
               "   FAILED  result 11: the answer is longer than 1 MiB\n",
               "The asynchronous post is left out: its answer would be copied without a bound.\n", NOT_ALL_ANSWERED});
    EXPECT_EQ(server.RequestCount(), 2U);
}

TEST_F(DemoTest, WithoutPortsItSaysWhatIsMissing)
{
    const ScriptedServer server(ECHOING);
    Program own = Demo({});
    Program given = Demo({server.Url()});
    own.inChild = RefuseAllPorts;
    given.inChild = RefuseAllPorts;
    const Finished ownRun = RunProgram(own);
    if (ownRun.status == STATUS_REFUSED) {
        GTEST_SKIP() << "the system does not let a process refuse itself a call";
    }
    EXPECT_EQ(ownRun.status, 1);
    EXPECT_EQ(ownRun.output, "The demo cannot go on: no free port on 127.0.0.1\n");
    const Finished givenRun = RunProgram(given);
    EXPECT_EQ(givenRun.status, 1);
    ExpectInOrder(givenRun.output, {"The send module did not start, result 1: ", NOT_ALL_ANSWERED});
    EXPECT_EQ(server.RequestCount(), 0U);
}

TEST_F(DemoTest, BadArgumentsSendNothing)
{
    const ScriptedServer server(ECHOING);
    const std::vector<std::vector<std::string>> bad = {
        {server.Url(), "--count", "0"},    {server.Url(), "--count", "1000001"},
        {server.Url(), "--deadline", "0"}, {server.Url(), "--deadline", "x"},
        {"file:///etc/hostname"},          {server.Url(), "{}", "third"},
        {server.Url(), "--unknown"}};
    for (const auto &arguments : bad) {
        const Finished run = RunProgram(Demo(arguments));
        EXPECT_GT(run.status, 100) << arguments.back();
        EXPECT_EQ(run.output, "") << arguments.back();
        EXPECT_FALSE(run.errors.empty()) << arguments.back();
    }
    EXPECT_EQ(server.RequestCount(), 0U);
}

TEST_F(DemoTest, HelpAndVersionSendNothing)
{
    const Finished help = RunProgram(Demo({"--help"}));
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(Has(Folded(help.output), "Examples: nvrhttp_demo")) << help.output;
    const Finished version = RunProgram(Demo({"--version"}));
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output, "nvrhttp_demo " NVRHTTP_VERSION "\n");
}

} // namespace
