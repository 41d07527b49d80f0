/*
 * nvrhttp serve: every path of the echo server, over HTTP and TLS, and the end of the program.
 */
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <system_error>
#include <thread>

#include "nvrhttp_program.h"
#include "tests/support/loopback.h"
#include "tools/echo_server/echo_server.h"

namespace
{

using namespace test;
using Clock = std::chrono::steady_clock;

const std::string OUT_OF_RANGE = "{\"error\":\"number out of range\"}";

struct Answer {
    CURLcode result = CURLE_OK;
    long status = 0;
    std::string type;
    std::string body;
};

size_t Append(char *data, size_t size, size_t count, void *body)
{
    static_cast<std::string *>(body)->append(data, size * count);
    return size * count;
}

/* A client that keeps its connections as far as the server does. */
class Client
{
  public:
    Client() : easy(curl_easy_init())
    {
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Append);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L); /* the certificate is for this address all the same */
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(1000 * PATIENCE.count()));
    }

    ~Client()
    {
        curl_easy_cleanup(easy);
    }

    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    Answer Ask(const std::string &method, const std::string &url, const std::string &body = "",
               const std::vector<std::string> &headerLines = {})
    {
        Answer answer;
        curl_slist *headers = nullptr;
        char *type = nullptr;
        for (const std::string &line : headerLines) {
            headers = curl_slist_append(headers, line.c_str());
        }
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(easy, method == "GET" ? CURLOPT_HTTPGET : CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer.body);
        answer.result = curl_easy_perform(easy);
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &answer.status);
        curl_easy_getinfo(easy, CURLINFO_CONTENT_TYPE, &type);
        answer.type = type != nullptr ? type : "";
        curl_slist_free_all(headers);
        return answer;
    }

    /* Connections that the last request had to make. */
    long NewConnections() const
    {
        long count = 0;
        curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &count);
        return count;
    }

    CURL *Handle() const
    {
        return easy;
    }

  private:
    CURL *easy;
};

/* A connection over which a test sends what it wants. */
class RawClient
{
  public:
    /* The URL's host is 127.0.0.1. */
    explicit RawClient(const std::string &url) : sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0) << url;
    }

    ~RawClient()
    {
        close(sock);
    }

    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool Send(const std::string &bytes) const
    {
        return send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

  private:
    int sock;
};

std::atomic<int> endedThreads{0};

/* Keeps a thread from its end for a moment. */
struct SlowEnd {
    ~SlowEnd()
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        endedThreads++;
    }

    bool used = false;
};
thread_local SlowEnd slowEnd;

class Serve : public IntegrationTest
{
  protected:
    const ServeProcess server;
    Client client;
};

using ServeOverTls = IntegrationTest;
using ServeProgram = IntegrationTest;
using EchoServer = IntegrationTest;

TEST_F(Serve, APostIsAnsweredWithItsBodyByteForByte)
{
    /* Longer than what the server takes of a form. */
    for (const std::string &body :
         {std::string("{\"a\":1}"), std::string(), std::string("one\0two\r\n\x80\xFF", 11), SampleText(100000)}) {
        const Answer answer = client.Ask("POST", server.Url("/any/path?query"), body);
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.type, "application/json");
        EXPECT_TRUE(answer.body == body) << answer.body.size();
    }
}

TEST_F(Serve, GetAndPutAreDescribed)
{
    const Answer get = client.Ask("GET", server.Url("/a%20b?c=d"), "", {"X-Test: say \"hi\""});
    EXPECT_EQ(get.status, 200);
    EXPECT_EQ(get.type, "application/json");
    EXPECT_EQ(get.body.rfind("{\"method\":\"GET\",\"target\":\"/a%20b?c=d\",\"headers\":[\"", 0), 0U) << get.body;
    EXPECT_TRUE(Has(get.body, "\"X-Test: say \\\"hi\\\"\"")) << get.body;
    EXPECT_TRUE(Has(get.body, "],\"body\":\"\"}")) << get.body;
    const Answer put = client.Ask("PUT", server.Url(), "a\\b\n\x1F\xC3\xBC", {"Content-Type: text/plain"});
    EXPECT_EQ(put.status, 200);
    EXPECT_TRUE(Has(put.body, "{\"method\":\"PUT\",\"target\":\"/\",")) << put.body;
    EXPECT_TRUE(Has(put.body, "\"Content-Type: text/plain\"")) << put.body;
    EXPECT_TRUE(Has(put.body, "],\"body\":\"a\\\\b\\u000a\\u001f\xC3\xBC\"}")) << put.body;
    EXPECT_FALSE(Has(put.body, "REMOTE_") || Has(put.body, "LOCAL_")) << put.body;
}

TEST_F(Serve, AStatusIsGivenOnDemandWithTheSameAnswer)
{
    for (const int status : {200, 201, 404, 500, 599}) {
        const std::string url = server.Url("/status/" + std::to_string(status));
        for (const char *method : {"POST", "GET", "PUT"}) {
            const Answer answer = client.Ask(method, url, "[1]");
            EXPECT_EQ(answer.status, status) << method;
            EXPECT_TRUE(Has(answer.body, "[1]") || method == std::string("GET")) << answer.body;
        }
    }
}

TEST_F(Serve, AnAnswerHasTheSizeThatIsAskedFor)
{
    EXPECT_EQ(client.Ask("POST", server.Url("/size/0"), "{}").body, "");
    EXPECT_EQ(client.Ask("GET", server.Url("/size/1")).body, "0");
    EXPECT_EQ(client.Ask("PUT", server.Url("/size/2"), "{}").body, "\"\"");
    EXPECT_EQ(client.Ask("GET", server.Url("/size/5")).body, "\"xxx\"");
    EXPECT_EQ(client.Ask("GET", server.Url("/size/16777216")).body.size(), 16777216U);
}

TEST_F(Serve, AnAnswerIsDelayedOnDemand)
{
    for (const char *method : {"POST", "GET", "PUT"}) {
        const auto start = Clock::now();
        const Answer answer = client.Ask(method, server.Url("/delay/300"), "{}");
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300)) << method;
        EXPECT_EQ(answer.status, 200) << method;
        EXPECT_TRUE(Has(answer.body, "{")) << answer.body;
    }
    EXPECT_EQ(client.Ask("POST", server.Url("/delay/0"), "[3]").body, "[3]");
}

TEST_F(Serve, ANumberOutOfRangeIsRefused)
{
    for (const char *path : {"/status/199", "/status/600", "/status/", "/status/x", "/status/404x", "/status/-404",
                             "/status/99999999999", "/delay/60001", "/delay/", "/size/16777217", "/size/1k"}) {
        for (const char *method : {"POST", "GET", "PUT"}) {
            const Answer answer = client.Ask(method, server.Url(path), "{}");
            EXPECT_EQ(answer.status, 400) << method << ' ' << path;
            EXPECT_EQ(answer.body, OUT_OF_RANGE) << method << ' ' << path;
        }
    }
}

TEST_F(Serve, AMultipartFormIsRefused)
{
    const std::vector<std::string> type = {"Content-Type: multipart/form-data; boundary=b"};
    const std::string form = "--b\r\nContent-Disposition: form-data; name=\"n\"\r\n\r\nvalue\r\n--b--\r\n";
    EXPECT_EQ(client.Ask("POST", server.Url(), form, type).status, 415);
    EXPECT_EQ(client.Ask("PUT", server.Url(), form, type).status, 415);
}

TEST_F(Serve, ABodyOfMoreThanSixtyFourMegabytesIsRefused)
{
    EXPECT_EQ(client.Ask("POST", server.Url(), std::string((64U << 20) + 1, 'x')).status, 413);
    EXPECT_EQ(client.Ask("POST", server.Url(), "still there").body, "still there");
}

TEST_F(Serve, EveryConnectionCarriesOneRequest)
{
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(client.Ask("POST", server.Url(), "{}").status, 200);
        EXPECT_EQ(client.NewConnections(), 1);
    }
}

TEST_F(ServeOverTls, EchoesWithACertificateForItsAddressThatNobodySigned)
{
    const ServeProcess server({"--tls"});
    Client client;
    ASSERT_EQ(server.Url().rfind("https://127.0.0.1:", 0), 0U);
    const Answer answer = client.Ask("POST", server.Url(), "{\"a\":1}");
    EXPECT_EQ(answer.result, CURLE_OK) << curl_easy_strerror(answer.result);
    EXPECT_EQ(answer.body, "{\"a\":1}");
    EXPECT_EQ(client.Ask("GET", server.Url("/status/404")).status, 404);
    curl_easy_setopt(client.Handle(), CURLOPT_SSL_VERIFYPEER, 1L);
    EXPECT_EQ(client.Ask("POST", server.Url(), "{}").result, CURLE_PEER_FAILED_VERIFICATION);
}

TEST_F(ServeProgram, APortMayBeChosenUnlessItIsTaken)
{
    uint16_t port = 0;
    close(BindLoopback(&port));
    const std::string number = std::to_string(port);
    const ServeProcess server({"--port", number});
    EXPECT_EQ(server.Url(), LoopbackUrl(port));
    EXPECT_EQ(Client().Ask("POST", server.Url(), "[4]").body, "[4]");
    const Finished second = RunProgram(Nvrhttp({"serve", "--port", number}));
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.output, "");
    EXPECT_EQ(second.errors, "nvrhttp serve: port " + number + " of 127.0.0.1 cannot be taken\n");
}

TEST_F(ServeProgram, BadArgumentsAreRefused)
{
    for (const std::vector<std::string> &options :
         std::vector<std::vector<std::string>>{{"--port", "65536"}, {"--port", "x"}, {"--unknown"}, {"surplus"}}) {
        const Finished run = RunProgram(Nvrhttp({"serve"}, options));
        EXPECT_GT(run.status, 100) << options.back();
        EXPECT_EQ(run.output, "") << options.back();
    }
}

TEST_F(ServeProgram, AnInterruptEndsItAndWhatItDelays)
{
    ChildProcess server(Nvrhttp({"serve"}));
    const std::string url = server.ReadUntil("\n");
    Answer answer;
    std::thread asking([&] { answer = Client().Ask("POST", url + "delay/60000", "[6]"); });
    std::this_thread::sleep_for(std::chrono::seconds(1));
    server.Signal(SIGINT);
    EXPECT_EQ(server.Wait(std::chrono::seconds(20)), 0);
    asking.join();
    EXPECT_EQ(answer.body, "[6]");
}

/* Whatever the clients do: one sends its request byte by byte, one says nothing, one does not read. */
TEST_F(ServeProgram, ASignalEndsItWithinASecond)
{
    for (const std::vector<std::string> &options : std::vector<std::vector<std::string>>{{}, {"--tls"}}) {
        for (const int number : {SIGINT, SIGTERM}) {
            const MemoryFile errors;
            ChildProcess server(WithErrors(Nvrhttp({"serve"}, options), errors));
            const std::string url = server.ReadUntil("\n");
            const RawClient idle(url);
            const RawClient unread(url);
            const RawClient slow(url);
            unread.Send("GET /size/16777216 HTTP/1.1\r\n\r\n");
            std::atomic<bool> over{false};
            std::thread sending([&slow, &over] {
                while (!over && slow.Send("P")) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                }
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            const auto start = Clock::now();
            server.Signal(number);
            EXPECT_EQ(server.Wait(std::chrono::seconds(10)), 0);
            EXPECT_LT(Clock::now() - start, std::chrono::seconds(3)) << "a second, and what a busy machine adds";
            over = true;
            sending.join();
        }
    }
}

TEST_F(ServeProgram, ASignalEndsItThoughNobodyReadsWhatItShows)
{
    int unread[2] = {-1, -1};
    ASSERT_EQ(pipe(unread), 0);
    Program program = Nvrhttp({"serve", "--show"});
    program.errors = unread[1];
    ChildProcess server(program);
    const std::string url = server.ReadUntil("\n");
    const std::string path = "GET /" + std::string(4000, 'p') + " HTTP/1.1\r\n\r\n";
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int number = 0; number < 60; ++number) {
        clients.push_back(std::make_unique<RawClient>(url));
        clients.back()->Send(path);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    server.Signal(SIGTERM);
    EXPECT_EQ(server.Wait(std::chrono::seconds(20)), 0);
    close(unread[0]);
    close(unread[1]);
}

TEST_F(Serve, IdleConnectionsHoldUpNobody)
{
    std::vector<std::unique_ptr<RawClient>> idle;
    for (int number = 0; number < 200; ++number) {
        idle.push_back(std::make_unique<RawClient>(server.Url()));
    }
    const auto start = Clock::now();
    EXPECT_EQ(client.Ask("POST", server.Url(), "[7]").body, "[7]");
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
}

/* The end of a thread that has used TLS must not meet libcrypto's clean-up at exit. */
TEST_F(EchoServer, StopsOnceItsThreadsHaveEnded)
{
    TEchoServerOptions options;
    options.pfAnswered = [](const TEchoRequest &) { slowEnd.used = true; };
    CEchoServer server(options);
    EXPECT_EQ(Client().Ask("POST", server.Url(), "[8]").body, "[8]");
    server.Stop();
    EXPECT_EQ(endedThreads, 1);
}

TEST_F(EchoServer, AnswersWhereThereIsNoThreadToBeHad)
{
    CEchoServer server(TEchoServerOptions{});
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, SIZE_MAX / 4), 0);
    ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
    ASSERT_THROW(std::thread([] {}).join(), std::system_error);
    EXPECT_EQ(Client().Ask("POST", server.Url(), "[9]").body, "[9]");
    EXPECT_EQ(Client().Ask("POST", server.Url(), "[10]").body, "[10]");
    server.Stop();
}

TEST_F(ServeProgram, EachRequestIsShownOnDemand)
{
    const MemoryFile errors;
    ChildProcess server(WithErrors(Nvrhttp({"serve", "--show"}), errors));
    const std::string url = server.ReadUntil("\n");
    Client().Ask("POST", url + "status/404?a=b", "12345");
    Client().Ask("GET", url + "delay/300");
    const RawClient noHttp(url);
    noHttp.Send("\033[2J what?\r\n\r\n");
    EXPECT_TRUE(WaitUntil([&errors] { return Has(errors.Text(), "status 400"); })) << errors.Text();
    server.Signal(SIGTERM);
    EXPECT_EQ(server.ReadToEnd(), "");
    EXPECT_EQ(server.Wait(), 0);
    const std::string text = errors.Text();
    EXPECT_EQ(text.rfind("POST /status/404?a=b 5 bytes, status 404, ", 0), 0U) << text;
    const std::string delayed = "\nGET /delay/300 0 bytes, status 200, ";
    ASSERT_TRUE(Has(text, delayed)) << text;
    EXPECT_GE(std::stod(text.substr(text.find(delayed) + delayed.size())), 300.0) << text;
    EXPECT_FALSE(Has(text, "\033")) << text;
}

TEST_F(ServeProgram, TheCertificateThatItWritesMakesItTrusted)
{
    const std::string path = logFolder.Path() + "/server.crt";
    const ServeProcess server({"--tls", "--cert-out", path});
    Client client;
    curl_easy_setopt(client.Handle(), CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(client.Handle(), CURLOPT_CAINFO, path.c_str());
    const Answer answer = client.Ask("POST", server.Url(), "[8]");
    EXPECT_EQ(answer.result, CURLE_OK) << curl_easy_strerror(answer.result);
    EXPECT_EQ(answer.body, "[8]");
}

TEST_F(ServeProgram, ACertificateThatCannotBeWrittenIsAnError)
{
    const Finished run = RunProgram(Nvrhttp({"serve", "--tls", "--cert-out", logFolder.Path() + "/none/server.crt"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "");
    EXPECT_TRUE(Has(run.errors, "/none/server.crt cannot be written: No such file or directory")) << run.errors;
    EXPECT_GT(RunProgram(Nvrhttp({"serve", "--cert-out", logFolder.Path() + "/server.crt"})).status, 100);
}

} // namespace
