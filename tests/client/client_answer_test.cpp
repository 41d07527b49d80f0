/*
 * What comes back: answers of any kind and length, and failures with their reasons.
 */
#include <sys/resource.h>

#include <vector>

#include "client_fixture.h"
#include "nginx_server.h"
#include "tests/support/sanitizer.h"

namespace
{

using namespace test;

using ClientAnswer = ClientTest;

TEST_F(ClientAnswer, PostReturnsStatusBodyAndTime)
{
    const ScriptedServer server({When::REQUEST, {Pause(milliseconds(50)), Echo()}});
    Client client;
    const Response answer = client.post(server.Url(), "{\"a\":1}");
    ExpectAnswer(answer, "{\"a\":1}");
    EXPECT_GE(answer.elapsed, milliseconds(45));
    EXPECT_LT(answer.elapsed, PATIENCE);
    EXPECT_EQ(client.outstanding(), 0U);
}

TEST_F(ClientAnswer, ThePostIsJsonWithItsLength)
{
    const ScriptedServer server(ECHOING);
    Client client;
    ExpectAnswer(Await(client.post_async(server.Url("/api?x=1"), "{\"a\":1}")), "{\"a\":1}");
    const Request seen = server.Requests().at(0);
    EXPECT_EQ(seen.Line(), "POST /api?x=1 HTTP/1.1");
    EXPECT_TRUE(seen.HasLine("Content-Type:application/json") || seen.HasLine("Content-Type: application/json"))
        << seen.head;
    EXPECT_TRUE(seen.HasLine("Content-Length: 7"));
    EXPECT_FALSE(seen.HasHeader("Expect"));
}

TEST_F(ClientAnswer, GivenHeadersAreSent)
{
    const ScriptedServer server(ECHOING);
    Client client;
    nvrhttpcurl::Request request = PostOf(server.Url());
    request.headers = {{"X-First", "1"}, {"content-TYPE", "text/plain"}, {"X-Last", "two words"}};
    ExpectAnswer(client.send(request), "{}");
    const std::string head = server.Requests().at(0).head;
    EXPECT_TRUE(Has(head, "X-First:1\r\n")) << head;
    EXPECT_TRUE(Has(head, "content-TYPE:text/plain\r\n")) << head;
    EXPECT_TRUE(Has(head, "X-Last:two words")) << head;
    EXPECT_FALSE(Has(head, "application/json")) << head;
}

TEST_F(ClientAnswer, GetSendsNoBody)
{
    const ScriptedServer server(Answering("got"));
    Client client;
    nvrhttpcurl::Request request = PostOf(server.Url("/list"), "ignored");
    request.method = "GET";
    ExpectAnswer(client.send(request), "got");
    const Request seen = server.Requests().at(0);
    EXPECT_EQ(seen.Line(), "GET /list HTTP/1.1");
    EXPECT_EQ(seen.body, "");
    EXPECT_FALSE(seen.HasHeader("Content-Length"));
}

TEST_F(ClientAnswer, AnEmptyBodyIsNotReadFromStandardInput)
{
    FeedStandardInput("not to be sent");
    const ScriptedServer server(ECHOING);
    Client client;
    ExpectAnswer(client.post(server.Url(), ""), "");
    EXPECT_TRUE(server.Requests().at(0).HasLine("Content-Length: 0"));
}

TEST_F(ClientAnswer, BodiesKeepTheirBytes)
{
    const ScriptedServer server(ECHOING);
    Client client;
    const std::string withNul("a\0b\r\n\xff", 6);
    ExpectAnswer(client.post(server.Url(), withNul), withNul);
    Options options;
    options.max_answer = 4 << 20;
    Client wide(options);
    const std::string large = SampleText(3 << 20);
    ExpectAnswer(wide.post(server.Url(), large), large);
}

TEST_F(ClientAnswer, AnyStatusIsAnAnswer)
{
    Client client;
    for (const int status : {201, 299, 302, 404, 500}) {
        const ScriptedServer server(Answering("text", status));
        ExpectAnswer(client.post(server.Url(), "{}"), "text", status);
    }
}

TEST_F(ClientAnswer, AnswersOfALengthThatTheServerDoesNotTell)
{
    Client client;
    const ScriptedServer chunked({When::REQUEST,
                                  {Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n"),
                                   Pause(milliseconds(20)), Send("2\r\nde\r\n0\r\n\r\n")}});
    ExpectAnswer(client.post(chunked.Url(), "{}"), "abcde");
    const ScriptedServer closing({When::REQUEST, {Send("HTTP/1.1 200 OK\r\n\r\nabc"), CLOSE}});
    ExpectAnswer(client.post(closing.Url(), "{}"), "abc");
    const ScriptedServer without({When::REQUEST, {Send("HTTP/1.1 204 No Content\r\n\r\n")}});
    ExpectAnswer(client.post(without.Url(), "{}"), "", 204);
}

TEST_F(ClientAnswer, FailuresHaveReasons)
{
    Client client;
    const ClosedPort closed;
    ExpectFailure(client.post(closed.Url(), "{}"), Error::connect_failed);
    ExpectFailure(client.post("http://[::1", "{}"), Error::transfer_failed);
    const ScriptedServer plain({When::FIRST_BYTE, {Send("no TLS here\r\n"), CLOSE}});
    ExpectFailure(client.post(plain.Url("/", "https"), "{}"), Error::tls_failed);
    ExpectFailure(client.send(Unverified(plain.Url("/", "https"))), Error::tls_failed);
    const ScriptedServer noHttp({When::REQUEST, {Send("220 mail.example\r\n"), CLOSE}});
    ExpectFailure(client.post(noHttp.Url(), "{}"), Error::transfer_failed);
    const ScriptedServer closing({When::REQUEST, {CLOSE}});
    ExpectFailure(client.post(closing.Url(), "{}"), Error::transfer_failed);
    const ScriptedServer cutting(CUTTING_OFF);
    ExpectFailure(client.post(cutting.Url(), "{}"), Error::transfer_failed, 200);
}

/* --- the longest answer -------------------------------------------------------------------------- */

class ClientAnswerLength : public NginxTest
{
  protected:
    static Options Longest(size_t bytes)
    {
        Options options;
        options.max_answer = bytes;
        return options;
    }
};

TEST_F(ClientAnswerLength, ExactlyTheLimitIsAccepted)
{
    const ScriptedServer server(ECHOING);
    for (const size_t limit : {size_t{1}, size_t{1000}, size_t{100000}}) {
        Client client(Longest(limit));
        const std::string exact = SampleText(limit);
        ExpectAnswer(client.post(server.Url(), exact), exact);
        ExpectAnswer(client.post(server.Url(), ""), "");
        ExpectFailure(client.post(server.Url(), exact + "+"), Error::answer_too_long, 200);
        ExpectAnswer(client.post(server.Url(), exact), exact);
    }
}

TEST_F(ClientAnswerLength, OverHttp2AndTlsToo)
{
    nginx.MakeFile("exact", 65536);
    nginx.MakeFile("longer", 65537);
    Client client(Longest(65536));
    for (const std::string &prefix : {nginx.Http("/files/"), nginx.Https("/files/"), nginx.Http2("/files/")}) {
        ExpectAnswer(client.send(Unverified(prefix + "exact")), SampleText(65536));
        ExpectFailure(client.send(Unverified(prefix + "longer")), Error::answer_too_long, 200);
    }
}

#ifdef UNDER_SANITIZER
enum { MOST_KILOBYTES = 256 * 1024 };
#else
enum { MOST_KILOBYTES = 32 * 1024 };
#endif

int64_t PeakKilobytes()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

/* A terabyte would take the rest of the day, or of the memory. */
TEST_F(ClientAnswerLength, AnAnswerWithoutEndEndsAtTheLimit)
{
    ASSERT_TRUE(nginx.MakeHugeFile("endless"));
    Client client(Longest(1 << 20));
    const int64_t before = PeakKilobytes();
    for (const std::string &url :
         {nginx.Http("/files/endless"), nginx.Https("/files/endless"), nginx.Http2("/files/endless")}) {
        nvrhttpcurl::Request request = Unverified(url);
        request.timeout = std::chrono::hours(1);
        ExpectFailure(Await(client.send_async(request)), Error::answer_too_long, 200);
    }
    EXPECT_LT(PeakKilobytes() - before, MOST_KILOBYTES);
}

TEST_F(ClientAnswerLength, BodiesOfRefusedCredentialsDoNotCount)
{
    Client client(Longest(5));
    nvrhttpcurl::Request request = PostOf(nginx.Http("/auth"), "hello");
    request.user_and_password = std::string(nginx.USER) + ":" + nginx.PASSWORD;
    ExpectAnswer(client.send(request), "hello");
}

TEST_F(ClientAnswerLength, WrongCredentialsAreAnAnswer)
{
    Client client;
    nvrhttpcurl::Request request = PostOf(nginx.Http("/auth"), "hello");
    EXPECT_EQ(client.send(request).status, 401);
    request.user_and_password = std::string(nginx.USER) + ":wrong";
    const Response answer = client.send(request);
    EXPECT_EQ(answer.error, Error::none);
    EXPECT_EQ(answer.status, 401);
    EXPECT_FALSE(answer.ok());
}

} // namespace
