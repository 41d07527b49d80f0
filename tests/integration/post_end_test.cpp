/*
 * nvrhttp post, run as a program: how it ends early, what it says of a failure, what it reads.
 */
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "nvrhttp_program.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"

namespace
{

using namespace test;

const std::string REFUSED = LibcurlReason(CURLE_COULDNT_CONNECT);
const std::string UNRESOLVED = LibcurlReason(CURLE_COULDNT_RESOLVE_HOST);
const std::string NO_TLS = LibcurlReason(CURLE_SSL_CONNECT_ERROR);
const std::string TIMED_OUT = LibcurlReason(CURLE_OPERATION_TIMEDOUT);
const std::string EMPTY = LibcurlReason(CURLE_GOT_NOTHING);

class PostEndInEachMode : public PostInEachMode
{
  protected:
    /* What precedes libcurl's words. */
    std::string In(const std::string &error) const
    {
        return Is("client") ? error + ": " : "";
    }

    /* All that a post to this URL says besides its answer, without the module's result. */
    std::string WhyOf(const std::string &url, const std::vector<std::string> &more = {}) const
    {
        const Finished run = RunProgram(Post(url, more));
        EXPECT_NE(run.status, 0);
        EXPECT_EQ(run.errors.rfind("nvrhttp post: result " + std::to_string(run.status) + ": ", 0), 0U) << run.errors;
        const size_t why = run.errors.find(": ", run.errors.find("result "));
        return run.errors.substr(why == std::string::npos ? 0 : why + 2);
    }
};

using PostData = IntegrationTest;
using PostEnd = IntegrationTest;
using PostPassword = IntegrationTest;

INSTANTIATE_TEST_SUITE_P(Modes, PostEndInEachMode, testing::Values("client", "sync", "async", "direct"),
                         [](const auto &mode) { return mode.param; });

TEST_P(PostEndInEachMode, AFailureSaysWhatLibcurlSays)
{
    const ClosedPort closed;
    const ScriptedServer plain({When::FIRST_BYTE, {Send(Reply(400, "what?")), CLOSE}});
    const ScriptedServer closing({When::REQUEST, {CLOSE}});
    EXPECT_EQ(WhyOf(closed.Url()), In("connect failed") + REFUSED + "\n");
    EXPECT_EQ(WhyOf(UnresolvableUrl()), In("transfer failed") + UNRESOLVED + "\n");
    EXPECT_EQ(WhyOf(plain.Url("/", "https")), In("TLS failed") + NO_TLS + "\n");
    EXPECT_EQ(WhyOf(closing.Url()), In("transfer failed") + EMPTY + "\n");
}

TEST_P(PostEndInEachMode, OfManyEachReasonIsCounted)
{
    const ClosedPort closed;
    const Finished run = RunProgram(Post(closed.Url(), {"--count", "20", "--parallel", "4"}));
    EXPECT_TRUE(Has(run.errors, "\n    20: " + REFUSED + "\n")) << run.errors;
}

TEST_P(PostEndInEachMode, ASuccessHasNoReason)
{
    const ServeProcess server;
    const Finished run = RunProgram(Post(server.Url(), {"--count", "20", "--parallel", "4", "--quiet"}));
    EXPECT_EQ(run.status, 0);
    EXPECT_FALSE(Has(run.errors, "\n    ")) << run.errors;
}

TEST_P(PostEndInEachMode, AnInterruptShowsWhatThereIsSoFar)
{
    const ScriptedServer silent(SILENT);
    const MemoryFile errors;
    ChildProcess post(
        WithErrors(Post(silent.Url(), {"--count", "5", "--parallel", "2", "--timeout", "60000"}), errors));
    ASSERT_TRUE(silent.WaitForRequests(2));
    post.Signal(SIGINT);
    EXPECT_EQ(post.Wait(std::chrono::seconds(5)), 130);
    EXPECT_TRUE(Has(errors.Text(), "nvrhttp post: interrupted\n0 posts in ")) << errors.Text();
    EXPECT_TRUE(Has(errors.Text(), "  2 in flight and no longer awaited, 3 not sent\n")) << errors.Text();
}

TEST_P(PostEndInEachMode, AClosedPipeEndsTheRun)
{
    const ServeProcess server;
    const MemoryFile errors;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    Program program = Post(server.Url(), {"--count", "10000000", "--parallel", "4"});
    program.output = ends[1];
    program.errors = errors.Descriptor();
    ChildProcess post(program);
    close(ends[1]);
    char first = 0;
    EXPECT_EQ(read(ends[0], &first, 1), 1);
    close(ends[0]);
    EXPECT_EQ(post.Wait(std::chrono::seconds(20)), 1);
    EXPECT_TRUE(Has(errors.Text(), "nvrhttp post: an answer could not be written: Broken pipe\n")) << errors.Text();
    EXPECT_TRUE(Has(errors.Text(), " not sent\n")) << errors.Text();
}

TEST_F(PostEnd, TheStatusThatMadeItFailIsNamed)
{
    const ServeProcess server;
    const Finished one = RunProgram(Nvrhttp({"post", server.Url("/status/404"), "--mode", "sync"}));
    EXPECT_EQ(one.errors, "nvrhttp post: result 10: HTTP status 404\n");
    const Finished many = RunProgram(Nvrhttp({"post", server.Url("/status/503"), "--mode", "sync", "--count", "3"}));
    EXPECT_TRUE(Has(many.errors, "  3 failed with result 10: the HTTP status was not 200, or no answer came\n"
                                 "    3: HTTP status 503\n"))
        << many.errors;
}

/* An asynchronous post to a silent server is lost instead. */
TEST_F(PostEnd, ATimeOutIsNamed)
{
    const ScriptedServer silent(SILENT);
    const std::string url = silent.Url();
    EXPECT_EQ(RunProgram(Nvrhttp({"post", url, "--timeout", "300", "--mode", "sync"})).errors,
              "nvrhttp post: result 10: " + TIMED_OUT + "\n");
    EXPECT_EQ(RunProgram(Nvrhttp({"post", url, "--timeout", "300", "--mode", "direct"})).errors,
              "nvrhttp post: result 7: " + TIMED_OUT + "\n");
}

TEST_F(PostEnd, AnAnswerThatIsCutOffDoesNotPassForWhole)
{
    const ScriptedServer server(CUTTING_OFF);
    const Finished run = RunProgram(Nvrhttp({"post", server.Url(), "--mode", "sync"}));
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "part");
    EXPECT_TRUE(Has(run.errors, " ms, although: " + LibcurlReason(CURLE_PARTIAL_FILE) + "\n")) << run.errors;
}

TEST_F(PostEnd, ASecondInterruptEndsItAtOnce)
{
    const ServeProcess server;
    const MemoryFile errors;
    ChildProcess post(WithErrors(Nvrhttp({"post", server.Url("/size/1000000")}), errors));
    /* Nobody reads on: the answer is stuck in the pipe, and so is the end after the first interrupt. */
    post.ReadUntil("x");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    post.Signal(SIGINT);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(errors.Text(), "");
    post.Signal(SIGINT);
    EXPECT_EQ(post.Wait(std::chrono::seconds(5)), -SIGINT);
}

TEST_F(PostEnd, AnInterruptThatTheCallerIgnoresIsIgnored)
{
    ScriptedServer server(ECHOING_ON_RELEASE);
    Program program = Nvrhttp({"post", server.Url()});
    program.inChild = [] { return std::signal(SIGINT, SIG_IGN) != SIG_ERR; };
    const MemoryFile errors;
    program.errors = errors.Descriptor();
    ChildProcess post(program);
    ASSERT_TRUE(server.WaitForRequests(1));
    post.Signal(SIGINT);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    server.Release();
    EXPECT_EQ(post.ReadToEnd(), "{}");
    EXPECT_EQ(post.Wait(), 0);
}

TEST_F(PostData, EndlessDataIsRefused)
{
    const Finished run = RunProgram(Nvrhttp({"post", "http://127.0.0.1:9/", "--data", "@/dev/zero"}));
    EXPECT_GT(run.status, 100);
    EXPECT_TRUE(Has(run.errors, "/dev/zero is longer than 67108864 bytes; --max-data raises the limit")) << run.errors;
}

TEST_F(PostData, TheLimitCanBeMoved)
{
    const ServeProcess server;
    EXPECT_EQ(RunProgram(Nvrhttp({"post", server.Url(), "-", "--max-data", "10"}), "0123456789").output, "0123456789");
    const Finished longer = RunProgram(Nvrhttp({"post", server.Url(), "-", "--max-data", "9"}), "0123456789");
    EXPECT_GT(longer.status, 100);
    EXPECT_TRUE(Has(longer.errors, "standard input is longer than 9 bytes")) << longer.errors;
    const std::string long65 = std::string(65U << 20, 'x');
    EXPECT_EQ(RunProgram(Nvrhttp({"post", ClosedPort().Url(), "-", "--max-data", "100000000"}), long65).status, 14);
}

/* A post with a user and no password. */
Program PostAsMe(const ScriptedServer &server, bool onTerminal)
{
    Program program = Nvrhttp({"post", server.Url(), "--user", "me"});
    program.onTerminal = onTerminal;
    return program;
}

TEST_F(PostPassword, AMissingOneIsAskedForAndNotShown)
{
    const ScriptedServer server({When::REQUEST, {Answer([](const Request &request) {
                                     return request.HasLine("Authorization: Basic bWU6c2VjcmV0")
                                                ? Reply(200, "welcome")
                                                : Reply(401, "", "WWW-Authenticate: Basic realm=\"r\"\r\n");
                                 })}});
    ChildProcess post(PostAsMe(server, true));
    post.ReadUntil("Password for me: ");
    post.Write("secret\n");
    const std::string shown = post.ReadToEnd();
    EXPECT_EQ(post.Wait(), 0) << shown;
    EXPECT_TRUE(Has(shown, "welcome")) << shown;
    EXPECT_FALSE(Has(shown, "secret")) << shown;
}

TEST_F(PostPassword, AnInterruptAtThePromptSendsNothing)
{
    const ScriptedServer server(ECHOING);
    ChildProcess post(PostAsMe(server, true));
    post.ReadUntil("Password for me: ");
    post.Write("\003");
    EXPECT_TRUE(Has(post.ReadToEnd(), "--user: no password was entered"));
    EXPECT_GT(post.Wait(), 100);
    EXPECT_EQ(server.RequestCount(), 0U);
}

TEST_F(PostPassword, WithoutATerminalItMustBeGiven)
{
    const ScriptedServer server(ECHOING);
    Program program = PostAsMe(server, false);
    program.inChild = [] { return setsid() > 0; };
    const Finished run = RunProgram(program);
    EXPECT_GT(run.status, 100);
    EXPECT_TRUE(Has(run.errors, "without a terminal give NAME:PASSWORD")) << run.errors;
    EXPECT_EQ(server.RequestCount(), 0U);
}

} // namespace
