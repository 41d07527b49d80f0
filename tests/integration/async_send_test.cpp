/*
 * Asynchronous sends of the send module: each accepted one is notified exactly once, with
 * its own answer.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "nginx_server.h"
#include "raw_server.h"
#include "sends.h"

namespace
{

using sends::Batch;
using sends::Param;

constexpr size_t places = 1024;

std::string Record(size_t number)
{
    return "{\"record\":" + std::to_string(number) + "}";
}

/* Each of the sends from first on was notified once, with success and its own body. */
void ExpectOwnAnswers(const Batch &batch, size_t first, size_t end)
{
    size_t wrong = 0;
    for (size_t i = first; i < end; ++i) {
        const bool right =
            batch.Notifications(i) == 1 && batch.Result(i) == SENDBYCURL_OK && batch.Answer(i) == Record(i);
        wrong += right ? 0 : 1;
        EXPECT_TRUE(right || wrong > 5) << i << ": notified " << batch.Notifications(i) << " times, result "
                                        << batch.Result(i) << ", answer " << batch.Answer(i);
    }
    EXPECT_EQ(0u, wrong);
}

class AsyncSend : public NginxTest
{
  protected:
    void SetUp() override
    {
        NginxTest::SetUp();
        ASSERT_EQ(SENDBYCURL_OK, Qelvo_SyncSendStrByHttp_Init());
    }

    /* Sends once and waits for the notification. */
    void SendOne(const std::string &url)
    {
        ASSERT_EQ(SENDBYCURL_OK, one.Send(0, url, Record(0)));
        ASSERT_TRUE(one.WaitFor(1));
        EXPECT_EQ(1u, one.Notifications(0));
    }

    Batch one{1};
};

TEST_F(AsyncSend, IsNotifiedWithTheAnswerOverHttp)
{
    SendOne(nginx.Http("/echo"));
    EXPECT_EQ(SENDBYCURL_OK, one.Result(0));
    EXPECT_EQ(Record(0), one.Answer(0));
}

TEST_F(AsyncSend, IsNotifiedWithTheAnswerOverHttps)
{
    SendOne(nginx.Https("/echo"));
    EXPECT_EQ(SENDBYCURL_OK, one.Result(0));
    EXPECT_EQ(Record(0), one.Answer(0));
}

TEST_F(AsyncSend, VerifiesTheCertificateForASchemeInCapitals)
{
    SendOne(nginx.Https("/echo", "HTTPS"));
    EXPECT_EQ(SENDBYCURL_INVALID_PARAM, one.Result(0));
    EXPECT_EQ("", one.Answer(0));
    EXPECT_TRUE(common::WaitUntil([this] { return nginx.ErrorLog().find("unknown ca") != std::string::npos; }));
}

TEST_F(AsyncSend, AnyHttpStatusIsAnAnswer)
{
    SendOne(nginx.Http("/status/404"));
    EXPECT_EQ(SENDBYCURL_OK, one.Result(0));
    EXPECT_EQ("nothing here, says the server", one.Answer(0));
}

TEST_F(AsyncSend, NeverAuthenticates)
{
    const std::string url = nginx.Http("/auth");
    const std::string body = "{}";
    TSendByCurlParam param = Param(url, body, nullptr, 0);
    param.bCurlAuth = 1;
    strcpy(param.achUserAndPassWd, "recorder:open-sesame");
    ASSERT_EQ(SENDBYCURL_OK, one.Send(0, param));
    ASSERT_TRUE(one.WaitFor(1));
    EXPECT_EQ(SENDBYCURL_OK, one.Result(0));
    EXPECT_NE(std::string::npos, one.Answer(0).find("401 Authorization Required")) << one.Answer(0);
}

TEST_F(AsyncSend, PlainPortAskedForTlsIsNotifiedAs15)
{
    SendOne(nginx.Http("/echo", "https"));
    EXPECT_EQ(SENDBYCURL_TLS_FAILED, one.Result(0));
}

TEST_F(AsyncSend, IsDoneWithTheRecordWhenItReturns)
{
    {
        std::string url = nginx.Http("/echo");
        std::string body = Record(0);
        ASSERT_EQ(SENDBYCURL_OK, one.Send(0, url, body));
        std::fill(url.begin(), url.end(), '!');
        std::fill(body.begin(), body.end(), '!');
    }
    ASSERT_TRUE(one.WaitFor(1));
    EXPECT_EQ(SENDBYCURL_OK, one.Result(0));
    EXPECT_EQ(Record(0), one.Answer(0));
}

TEST_F(AsyncSend, ThreeThousandInWavesAllComeBack)
{
    constexpr size_t wave = 1000;
    constexpr size_t count = 3 * wave;
    Batch batch(count);
    const std::string url = nginx.Http("/echo");
    ASSERT_TRUE(common::AllowDescriptors(wave + 200)) << "too few descriptors allowed";
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(SENDBYCURL_OK, batch.Send(i, url, Record(i))) << i;
        if (i % wave == wave - 1) {
            ASSERT_TRUE(batch.WaitFor(i + 1)) << batch.Total();
        }
    }
    EXPECT_EQ(count, batch.Total());
    ExpectOwnAnswers(batch, 0, count);
}

TEST_F(AsyncSend, SendsOfBothKindsFromManyThreadsAtOnce)
{
    constexpr size_t threadCount = 8;
    constexpr size_t sendsEach = 40;
    const common::ClosedPort closed;
    Batch batch(threadCount * sendsEach);
    std::vector<std::string> problems(threadCount);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            for (size_t n = 0; n < sendsEach; ++n) {
                const size_t i = t * sendsEach + n;
                const std::string url = n % 5 == 0 ? closed.Url() : nginx.Http("/echo");
                if (batch.Send(i, url, Record(i)) != SENDBYCURL_OK) {
                    problems[t] += " refused " + std::to_string(i);
                }
                if (n % 8 == 0 && sends::SendAndWait(nginx.Http("/echo"), Record(i)).answer != Record(i)) {
                    problems[t] += " lost " + std::to_string(i);
                }
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(batch.WaitFor(threadCount * sendsEach)) << batch.Total();
    for (size_t t = 0; t < threadCount; ++t) {
        EXPECT_EQ("", problems[t]);
    }
    for (size_t i = 0; i < threadCount * sendsEach; ++i) {
        const bool refused = i % sendsEach % 5 == 0;
        EXPECT_EQ(1u, batch.Notifications(i)) << i;
        EXPECT_EQ(refused ? ESendByCurlRet{SENDBYCURL_CONNECT_FAILED} : ESendByCurlRet{SENDBYCURL_OK}, batch.Result(i))
            << i;
        EXPECT_EQ(refused ? std::string() : Record(i), batch.Answer(i));
    }
}

/* --- servers that misbehave, or take their time ------------------------------------------ */

class AsyncSendToRawServer : public common::IntegrationTest
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(SENDBYCURL_OK, Qelvo_SyncSendStrByHttp_Init());
    }
};

TEST_F(AsyncSendToRawServer, ARefusedConnectionIsNotifiedAs14)
{
    const common::ClosedPort closed;
    Batch batch(1);
    ASSERT_EQ(SENDBYCURL_OK, batch.Send(0, closed.Url(), Record(0)));
    ASSERT_TRUE(batch.WaitFor(1));
    EXPECT_EQ(SENDBYCURL_CONNECT_FAILED, batch.Result(0));
}

TEST_F(AsyncSendToRawServer, AHandshakeBrokenOffIsNotifiedAs15)
{
    const raw::Server server({raw::When::FirstByte, {raw::Close()}});
    Batch batch(1);
    ASSERT_EQ(SENDBYCURL_OK, batch.Send(0, server.Url("/", "https"), Record(0)));
    ASSERT_TRUE(batch.WaitFor(1));
    EXPECT_EQ(SENDBYCURL_TLS_FAILED, batch.Result(0));
}

TEST_F(AsyncSendToRawServer, ATransferCutOffIsNotifiedAs1WithWhatCame)
{
    const raw::Server server(
        {raw::When::Request, {raw::Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), raw::Close()}});
    Batch batch(1);
    ASSERT_EQ(SENDBYCURL_OK, batch.Send(0, server.Url(), Record(0)));
    ASSERT_TRUE(batch.WaitFor(1));
    EXPECT_EQ(SENDBYCURL_INVALID_PARAM, batch.Result(0));
    EXPECT_EQ("part", batch.Answer(0));
}

TEST_F(AsyncSendToRawServer, TheOneAfterAThousandAndTwentyFourIsRefused)
{
    raw::Server server(raw::EchoingOnRelease());
    Batch batch(places + 2);
    ASSERT_TRUE(common::AllowDescriptors(2 * places + 200)) << "too few descriptors allowed";
    for (size_t i = 0; i < places; ++i) {
        ASSERT_EQ(SENDBYCURL_OK, batch.Send(i, server.Url(), Record(i))) << i;
    }
    EXPECT_EQ(SENDBYCURL_NO_SLOT, batch.Send(places, server.Url(), Record(places)));
    ASSERT_TRUE(server.WaitForRequests(places)) << server.RequestCount();
    EXPECT_EQ(SENDBYCURL_NO_SLOT, batch.Send(places, server.Url(), Record(places)));
    EXPECT_EQ(0u, batch.Total());

    server.Release();
    ASSERT_TRUE(batch.WaitFor(places)) << batch.Total();

    /* The refusals cost nothing: there is room again as soon as the first place is given back. */
    ASSERT_TRUE(
        common::WaitUntil([&] { return batch.Send(places + 1, server.Url(), Record(places + 1)) == SENDBYCURL_OK; }));
    ASSERT_TRUE(batch.WaitFor(places + 1));
    ExpectOwnAnswers(batch, 0, places);
    ExpectOwnAnswers(batch, places + 1, places + 2);
    EXPECT_EQ(0u, batch.Notifications(places));
    EXPECT_EQ(places + 1, server.RequestCount());
}

TEST_F(AsyncSendToRawServer, ASubmissionTheEngineRefusesCostsAPlaceForGood)
{
    raw::Server server(raw::EchoingOnRelease());
    Batch batch(places);
    ASSERT_TRUE(common::AllowDescriptors(2 * places + 200)) << "too few descriptors allowed";
    for (size_t i = 0; i < 1000; ++i) {
        batch.SetTimeout(0);
        ASSERT_EQ(SENDBYCURL_INVALID_PARAM, batch.Send(i, server.Url(), Record(i))) << i;
    }
    batch.SetTimeout(60000);
    for (size_t i = 1000; i < places; ++i) {
        ASSERT_EQ(SENDBYCURL_OK, batch.Send(i, server.Url(), Record(i))) << i;
    }
    EXPECT_EQ(SENDBYCURL_NO_SLOT, batch.Send(0, server.Url(), Record(0)));
    server.Release();
    ASSERT_TRUE(batch.WaitFor(places - 1000));
    ExpectOwnAnswers(batch, 1000, places);
    EXPECT_EQ(0u, batch.Notifications(0));
}

TEST_F(AsyncSendToRawServer, SendsWithoutANotificationGiveTheirPlacesBack)
{
    const raw::Server server(raw::Echoing());
    const std::string url = server.Url();
    std::vector<std::vector<char>> answers(2 * places, std::vector<char>(64, '\0'));
    for (size_t i = 0; i < answers.size(); ++i) {
        const std::string body = Record(i);
        TSendByCurlParam param = Param(url, body, answers[i].data(), 64);
        /* Refused while every place is taken, never for good. */
        ASSERT_TRUE(common::WaitUntil([&] {
            const ESendByCurlRet result = Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_ASYNC);
            EXPECT_TRUE(result == SENDBYCURL_OK || result == SENDBYCURL_NO_SLOT) << result;
            return result == SENDBYCURL_OK;
        }));
    }
    ASSERT_TRUE(server.WaitForRequests(answers.size()));

    /* All places are free again, and with them the buffers, once as many sends fit in as there are places. */
    raw::Server holding(raw::EchoingOnRelease());
    Batch batch(places);
    for (size_t i = 0; i < places; ++i) {
        ASSERT_TRUE(common::WaitUntil([&] { return batch.Send(i, holding.Url(), Record(i)) == SENDBYCURL_OK; })) << i;
    }
    holding.Release();
    ASSERT_TRUE(batch.WaitFor(places));
    for (size_t i = 0; i < answers.size(); ++i) {
        EXPECT_STREQ(Record(i).c_str(), answers[i].data());
    }
}

/*
 * The module's eight workers each get a request to a silent server. None of them reports
 * the time-out by itself; each does with the next request that it is given.
 */
TEST_F(AsyncSendToRawServer, ATimeoutIsNotifiedWithTheWorkersNextActivity)
{
    constexpr size_t workers = 8;
    const raw::Server silent(raw::Silent());
    raw::Server holding(raw::EchoingOnRelease());
    Batch overdue(workers);
    Batch next(2 * workers);
    overdue.SetTimeout(1000);
    for (size_t i = 0; i < workers; ++i) {
        ASSERT_EQ(SENDBYCURL_OK, overdue.Send(i, silent.Url(), Record(i)));
    }
    ASSERT_TRUE(silent.WaitForRequests(workers));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(0u, overdue.Total());

    /* The least busy worker gets the next one, so twice as many as workers reach them all. */
    for (size_t i = 0; i < 2 * workers; ++i) {
        ASSERT_EQ(SENDBYCURL_OK, next.Send(i, holding.Url(), Record(i)));
    }
    ASSERT_TRUE(overdue.WaitFor(workers)) << overdue.Total();
    for (size_t i = 0; i < workers; ++i) {
        EXPECT_EQ(1u, overdue.Notifications(i));
        EXPECT_EQ(SENDBYCURL_TIMED_OUT, overdue.Result(i));
    }
    holding.Release();
    ASSERT_TRUE(next.WaitFor(2 * workers));
    ExpectOwnAnswers(next, 0, 2 * workers);
}

/* --- the notification sends on --------------------------------------------------------------- */

struct Relay {
    char answer[64]; /* first: its address is the context */
    std::string url;
    std::atomic<uint32_t> left;
    std::atomic<uint32_t> failed;
    std::atomic<bool> over;
};

uint32_t SendOn(ESendByCurlRet eErrCode, void *pvContext)
{
    Relay *relay = static_cast<Relay *>(pvContext);
    const std::string body = Record(relay->left.load());
    relay->failed.fetch_add(eErrCode == SENDBYCURL_OK ? 0 : 1);
    if (relay->left.fetch_sub(1) == 1) {
        relay->over.store(true);
        return 0;
    }
    TSendByCurlParam param = Param(relay->url, body, relay->answer, sizeof(relay->answer));
    param.pfNtf = SendOn;
    if (Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_ASYNC) != SENDBYCURL_OK) {
        relay->failed.fetch_add(1);
        relay->over.store(true);
    }
    return 0;
}

TEST_F(AsyncSend, ANotificationMaySendAgain)
{
    Relay relay{};
    relay.url = nginx.Http("/echo");
    relay.left.store(200);
    const std::string body = "{}";
    TSendByCurlParam param = Param(relay.url, body, relay.answer, sizeof(relay.answer));
    param.pfNtf = SendOn;
    ASSERT_EQ(SENDBYCURL_OK, Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_ASYNC));
    ASSERT_TRUE(common::WaitUntil([&] { return relay.over.load(); }));
    EXPECT_EQ(0u, relay.failed.load());
    EXPECT_EQ(0u, relay.left.load());
}

} // namespace
