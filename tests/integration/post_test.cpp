/*
 * nvrhttp post, run as a program against nvrhttp serve and against scripted servers where a
 * particular answer, or none, is wanted.
 */
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "nvrhttp_program.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"

namespace
{

using namespace test;

/* How often the text begins with this line, one after the other. */
size_t LeadingLines(const std::string &text, const std::string &line)
{
    size_t count = 0;
    while (text.compare(count * (line.size() + 1), line.size() + 1, line + "\n") == 0) {
        ++count;
    }
    return count;
}

/* Answers each request with what the function makes of it. */
Script AnsweringWith(const Answerer &answerer)
{
    return {When::REQUEST, {Answer(answerer)}};
}

class PostModes : public PostInEachMode
{
  protected:
    /* The module's result of a connection that is refused. */
    int Refused() const
    {
        return Is("sync") ? 10 : Is("direct") ? 5 : 14;
    }
};

using PostMany = IntegrationTest;
using PostOutput = IntegrationTest;
using PostRefusals = IntegrationTest;

INSTANTIATE_TEST_SUITE_P(Modes, PostModes, testing::Values("client", "sync", "async", "direct"),
                         [](const auto &mode) { return mode.param; });

TEST_P(PostModes, AnswerAloneGoesToStandardOutput)
{
    const ServeProcess server;
    EXPECT_EQ(RunProgram(Post(server.Url())).output, "{}") << "without data";
    const std::string text = "{\"text\":[\"Gr\u00fc\u00dfe \u6e29\u5ea6 \U0001F321\",{\"b\":[1,2]}]}";
    const Finished run = RunProgram(Post(server.Url(), {"--data", text}));
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.output, text);
    EXPECT_TRUE(Has(run.errors, "succeeded in")) << run.errors;
}

TEST_P(PostModes, FileOfTwoMegabytesComesBackUnchanged)
{
    const ServeProcess server;
    const std::string path = logFolder.Path() + "/data";
    const std::string text = SampleText(2000000);
    WriteFile(path, text);
    const Finished run = RunProgram(Post(server.Url(), {"--data", "@" + path}));
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_TRUE(run.output == text) << run.output.size() << " bytes came back";
}

TEST_P(PostModes, StandardInputIsTheData)
{
    const ServeProcess server;
    const std::string text = "{\"from\":\"stdin\"}\n";
    const Finished alone = RunProgram(Post(server.Url(), {"-"}), text);
    EXPECT_EQ(alone.output, text) << alone.errors;
    const Finished named = RunProgram(Post(server.Url(), {"--data", "-"}), text);
    EXPECT_EQ(named.output, text) << named.errors;
}

TEST_P(PostModes, FiveThousandPostsAreAllAnswered)
{
    const ServeProcess server;
    const Finished run = RunProgram(Post(server.Url(), {"--data", "{\"n\":5000}", "--count", "5000", "--parallel",
                                                        "200", "--timeout", "60000", "--connect-timeout", "60000"}));
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(LeadingLines(run.output, "{\"n\":5000}"), 5000U);
    for (const char *part : {"5000 succeeded, 0 failed, 0 lost", "p50 ", "p95 ", "p99 "}) {
        EXPECT_TRUE(Has(run.errors, part)) << run.errors;
    }
}

TEST_P(PostModes, QuietWritesNoAnswers)
{
    const ServeProcess server;
    const Finished run = RunProgram(Post(server.Url(), {"--count", "7", "--parallel", "3", "--quiet"}));
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.output, "");
    EXPECT_TRUE(Has(run.errors, "7 succeeded")) << run.errors;
}

TEST_P(PostModes, RefusedConnectionIsTheModulesResultAndEachIsCounted)
{
    const ClosedPort closed;
    const std::string result = "result " + std::to_string(Refused()) + ": ";
    const Finished one = RunProgram(Post(closed.Url()));
    EXPECT_EQ(one.status, Refused()) << one.errors;
    EXPECT_EQ(one.output, "");
    EXPECT_TRUE(Has(one.errors, result)) << one.errors;
    const Finished many = RunProgram(Post(closed.Url(), {"--count", "20", "--parallel", "4"}));
    EXPECT_EQ(many.status, Refused()) << many.errors;
    EXPECT_TRUE(Has(many.errors, "0 succeeded, 20 failed, 0 lost")) << many.errors;
    EXPECT_TRUE(Has(many.errors, "20 failed with " + result)) << many.errors;
}

TEST_P(PostModes, SilentServerEndsInABoundedTime)
{
    const ScriptedServer silent(SILENT);
    const Finished run = RunProgram(Post(silent.Url(), {"--timeout", "300"}));
    EXPECT_EQ(run.status, Is("sync") ? 10 : 7) << run.errors;
    EXPECT_EQ(run.output, "");
}

TEST_P(PostModes, ClientAndSynchronousModeJudgeTheStatus)
{
    const ServeProcess server;
    const bool judges = Is("client") || Is("sync");
    const Finished run = RunProgram(Post(server.Url("/status/500"), {"--data", "[1]"}));
    EXPECT_EQ(run.status, judges ? 10 : 0) << run.errors;
    EXPECT_EQ(run.output, judges ? "" : "[1]");
}

TEST_P(PostModes, AnswerLongerThanMaxAnswerIsAFailure)
{
    const ServeProcess server;
    EXPECT_EQ(RunProgram(Post(server.Url("/size/1000"), {"--max-answer", "1000"})).output.size(), 1000U);
    for (const char *path : {"/size/1001", "/size/1002", "/size/300000"}) {
        const Finished run = RunProgram(Post(server.Url(path), {"--max-answer", "1000"}));
        EXPECT_EQ(run.status, Is("direct") ? 5 : 11) << path << ": " << run.errors;
        EXPECT_EQ(run.output, "") << path;
        EXPECT_TRUE(Has(run.errors, "longer than --max-answer")) << path << ": " << run.errors;
    }
}

TEST_P(PostModes, SelfSignedServerIsAcceptedUnlessVerified)
{
    const ServeProcess server({"--tls"});
    const Finished run = RunProgram(Post(server.Url(), {"--data", "[2]", "--no-verify"}));
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.output, "[2]");
    const Finished verified = RunProgram(Post(server.Url(), {"--data", "[2]", "--verify"}));
    EXPECT_EQ(verified.output, "");
    if (Is("client") || Is("direct")) {
        EXPECT_EQ(verified.status, 5) << verified.errors;
    } else {
        EXPECT_GT(verified.status, 100);
        EXPECT_TRUE(Has(verified.errors, "--verify: works with --mode client and direct only")) << verified.errors;
    }
}

TEST_P(PostModes, OnlyTheClientVerifiesByDefault)
{
    const ServeProcess server({"--tls"});
    EXPECT_EQ(RunProgram(Post(server.Url())).status, Is("client") ? 5 : 0);
}

TEST_P(PostModes, UserBelongsToTheClientAndTheSynchronousMode)
{
    const ScriptedServer server(AnsweringWith([](const Request &request) {
        return request.HasLine("Authorization: Basic bWU6cHc=")
                   ? Reply(200, "welcome")
                   : Reply(401, "", "WWW-Authenticate: Basic realm=\"r\"\r\n");
    }));
    const Finished run = RunProgram(Post(server.Url(), {"--user", "me:pw"}));
    if (Is("client") || Is("sync")) {
        EXPECT_EQ(run.status, 0) << run.errors;
        EXPECT_EQ(run.output, "welcome");
    } else {
        EXPECT_GT(run.status, 100);
        EXPECT_TRUE(Has(run.errors, "--user: works with --mode client and sync only")) << run.errors;
        EXPECT_EQ(server.RequestCount(), 0U);
    }
}

TEST_P(PostModes, ZeroByteIsRefusedWhereItWouldCutTheData)
{
    const ServeProcess server;
    const std::string text("ab\0cd", 5);
    const Finished run = RunProgram(Post(server.Url(), {"-"}), text);
    if (Is("direct")) {
        EXPECT_GT(run.status, 100);
        EXPECT_TRUE(Has(run.errors, "holds a zero byte")) << run.errors;
        EXPECT_EQ(run.output, "");
    } else {
        EXPECT_EQ(run.status, 0) << run.errors;
        /* An asynchronous answer has no length. */
        EXPECT_EQ(run.output, Is("async") ? "ab" : text);
    }
}

TEST_P(PostModes, LogLinesGoToStandardErrorOnDemand)
{
    const ServeProcess server;
    const ClosedPort closed;
    const Finished silent = RunProgram(Post(closed.Url()));
    EXPECT_FALSE(Has(silent.errors, "[L:")) << silent.errors;
    const Finished logged = RunProgram(Post(server.Url(), {"--data", "[3]", "--log"}));
    EXPECT_EQ(logged.output, "[3]");
    EXPECT_TRUE(Has(logged.errors, "[L:")) << logged.errors;
}

TEST_P(PostModes, WithoutWakeupPortsOnlyADirectSendWorks)
{
    const ServeProcess server;
    Program program = Post(server.Url(), {"--data", "[5]"});
    program.inChild = RefuseAllPorts;
    const Finished run = RunProgram(program);
    if (run.status == STATUS_REFUSED) {
        GTEST_SKIP() << "the system does not let a process refuse itself a call";
    }
    EXPECT_EQ(run.status, Is("direct") ? 0 : 1) << run.errors;
    EXPECT_EQ(run.output, Is("direct") ? "[5]" : "");
    EXPECT_TRUE(
        Has(run.errors, Is("client") ? "the client could not be started: " : "could not be started, result 1: "))
        << run.errors;
}

/* Also where the soft limit of open files is lower than that, as it usually is. */
TEST_F(PostMany, OneThousandAndTwentyFourOutstanding)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GE(limit.rlim_max, 1200U) << "this case needs a higher hard limit of open files";
    limit.rlim_cur = 1024;
    const ServeProcess server;
    Program program = Nvrhttp({"post", server.Url(), "--mode", "async", "--count", "3000", "--parallel", "1024",
                               "--timeout", "60000", "--connect-timeout", "60000"});
    program.inChild = [limit] { return setrlimit(RLIMIT_NOFILE, &limit) == 0; };
    const Finished run = RunProgram(program);
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(LeadingLines(run.output, "{}"), 3000U);
}

TEST_F(PostMany, NeverReportedCountAsLost)
{
    const ScriptedServer silent(SILENT);
    const Finished run = RunProgram(
        Nvrhttp({"post", silent.Url(), "--mode", "async", "--count", "5", "--parallel", "3", "--timeout", "300"}));
    EXPECT_EQ(run.status, 7) << run.errors;
    EXPECT_TRUE(Has(run.errors, "0 succeeded, 0 failed, 3 lost")) << run.errors;
    EXPECT_TRUE(Has(run.errors, "2 not sent")) << run.errors;
}

TEST_F(PostMany, AnswersOfDifferentLengthDoNotMixInReusedBuffers)
{
    std::atomic<unsigned> served{0};
    const ScriptedServer server(AnsweringWith([&served](const Request &) {
        return Reply(200, served++ % 2 == 0 ? std::string(9000, 'L') : std::string("short"));
    }));
    const Finished run = RunProgram(Nvrhttp({"post", server.Url(), "--mode", "async", "--count", "4"}));
    EXPECT_EQ(run.status, 0) << run.errors;
    const std::string pair = std::string(9000, 'L') + "\nshort\n";
    EXPECT_TRUE(run.output == pair + pair) << run.output.size();
}

TEST_F(PostMany, OneSlowPostInTwentyIsTheLastPercentile)
{
    std::atomic<unsigned> served{0};
    const ScriptedServer server(AnsweringWith([&served](const Request &) {
        if (served++ == 5) {
            std::this_thread::sleep_for(std::chrono::milliseconds(400));
        }
        return Reply(200, "ok");
    }));
    const Finished run = RunProgram(Nvrhttp({"post", server.Url(), "--count", "20"}));
    EXPECT_EQ(run.status, 0) << run.errors;
    const std::string longest = After(run.errors, "longest ");
    ASSERT_NE(longest, "") << run.errors;
    /* "1.234 s" or "412.3 ms" */
    EXPECT_TRUE(Has(longest, " s") || std::stod(longest) >= 400.0) << run.errors;
    EXPECT_EQ(After(run.errors, "p99 "), longest) << run.errors;
    EXPECT_NE(After(run.errors, "p95 "), longest) << run.errors;
    EXPECT_NE(After(run.errors, "p50 "), longest) << run.errors;
}

TEST_F(PostMany, StatusLineIsRewrittenOnATerminalOnly)
{
    const ServeProcess server;
    const MemoryFile answers;
    Program program = Nvrhttp({"post", server.Url("/delay/300"), "--count", "4"});
    EXPECT_FALSE(Has(RunProgram(program).errors, "\r"));
    program.onTerminal = true;
    program.output = answers.Descriptor();
    ChildProcess onTerminal(program);
    const std::string errors = onTerminal.ReadToEnd();
    EXPECT_EQ(onTerminal.Wait(), 0) << errors;
    EXPECT_EQ(LeadingLines(answers.Text(), "{}"), 4U);
    for (const char *part : {"\r\033[K", "of 4 done, ", "in flight", "4 succeeded"}) {
        EXPECT_TRUE(Has(errors, part)) << errors;
    }
}

TEST_F(PostOutput, AnswerThatCannotBeWrittenIsAFailure)
{
    const ServeProcess server;
    Program program = Nvrhttp({"post", server.Url()});
    program.output = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(program.output, 0);
    const Finished run = RunProgram(program);
    close(program.output);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.errors, "nvrhttp post: an answer could not be written: No space left on device\n");
}

TEST_P(PostModes, GetIsRefusedWhereItWouldBeSentAsAPost)
{
    const ScriptedServer server(Answering("ok"));
    const Finished run = RunProgram(Post(server.Url(), {"--method", "get", "--data", "[4]"}));
    if (Is("client") || Is("direct")) {
        EXPECT_EQ(run.output, "ok") << run.errors;
        EXPECT_EQ(server.Requests().back().Line(), "GET / HTTP/1.1");
        EXPECT_EQ(server.Requests().back().body, "");
    } else {
        EXPECT_GT(run.status, 100);
        EXPECT_TRUE(Has(run.errors, "--method: get works with --mode client and direct only")) << run.errors;
        EXPECT_EQ(server.RequestCount(), 0U);
    }
}

TEST_P(PostModes, PostIsWhatLeavesByDefault)
{
    const ScriptedServer server(Answering("ok"));
    for (const std::vector<std::string> &method : std::vector<std::vector<std::string>>{{}, {"--method", "post"}}) {
        EXPECT_EQ(RunProgram(Post(server.Url(), method)).output, "ok");
        EXPECT_EQ(server.Requests().back().Line(), "POST / HTTP/1.1");
        EXPECT_EQ(server.Requests().back().body, "{}");
    }
}

TEST_F(PostRefusals, BadArgumentsSendNothing)
{
    const ScriptedServer server(Answering("ok"));
    const std::vector<std::vector<std::string>> bad = {
        {"--mode", "other"}, {"--method", "put"},        {"--data", "@/nonexistent/file"},
        {"--data", "@/"},    {"--data", "[]", "-"},      {"file"},
        {"--timeout", "0"},  {"--connect-timeout", "0"}, {"--max-answer", "0"},
        {"--count", "0"},    {"--parallel", "1025"},     {"--user", std::string(128, 'u')},
        {"--max-data", "0"}};
    std::vector<Program> programs = {Nvrhttp({"post"})};
    for (const auto &options : bad) {
        programs.push_back(Nvrhttp({"post", server.Url()}, options));
    }
    for (const char *url : {"file:///etc/hostname", "ftp://127.0.0.1/", "http://[bad/"}) {
        programs.push_back(Nvrhttp({"post", url}));
    }
    for (const Program &program : programs) {
        const Finished run = RunProgram(program);
        EXPECT_GT(run.status, 100) << program.command.back();
        EXPECT_EQ(run.output, "") << program.command.back();
        EXPECT_FALSE(run.errors.empty()) << program.command.back();
    }
    EXPECT_EQ(server.RequestCount(), 0U);
}

} // namespace
