/*
 * Asynchronous sends of the send module: each accepted one is notified exactly once, with
 * its own answer.
 */
#include <algorithm>
#include <cstring>
#include <thread>

#include "nginx_server.h"
#include "sends.h"
#include "tests/support/loopback.h"
#include "tests/support/race.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace
{

using namespace test;

constexpr size_t PLACES = 1024;

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
    EXPECT_EQ(wrong, 0U);
}

template <typename Fixture> class AsyncSendOver : public WithSendModule<Fixture>
{
  protected:
    /* One send is notified once, with this. */
    static void ExpectOne(const std::string &url, ESendByCurlRet result, const std::string &answer = "")
    {
        Batch one(1);
        ASSERT_EQ(one.Send(0, url, Record(0)), SENDBYCURL_OK);
        ASSERT_TRUE(one.WaitFor(1));
        EXPECT_EQ(one.Notifications(0), 1U);
        EXPECT_EQ(one.Result(0), result);
        EXPECT_EQ(one.Answer(0), answer);
    }
};

using AsyncSend = AsyncSendOver<NginxTest>;
using AsyncSendToScriptedServer = AsyncSendOver<IntegrationTest>;

TEST_F(AsyncSend, IsNotifiedWithTheAnswerWhateverItsStatus)
{
    const struct {
        std::string url;
        std::string answer;
    } cases[] = {{nginx.Http("/echo"), Record(0)},
                 {nginx.Https("/echo"), Record(0)},
                 {nginx.Http("/status/404"), "nothing here, says the server"}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.url);
        ExpectOne(each.url, SENDBYCURL_OK, each.answer);
    }
}

TEST_F(AsyncSend, VerifiesTheCertificateForASchemeInCapitals)
{
    EXPECT_EQ(SendAndWait(nginx.Https("/echo"), "{}").result, SENDBYCURL_OK);
    ASSERT_TRUE(nginx.WaitForRequests(1));
    ExpectOne(nginx.Https("/echo", "HTTPS"), SENDBYCURL_INVALID_PARAM);
    EXPECT_EQ(nginx.RequestCount(), 1U);
}

TEST_F(AsyncSend, NeverAuthenticates)
{
    const std::string url = nginx.Http("/auth");
    const std::string body = "{}";
    TSendByCurlParam param = Param(url, body, nullptr, 0);
    param.bCurlAuth = 1;
    strcpy(param.achUserAndPassWd, "recorder:open-sesame");
    Batch one(1);
    ASSERT_EQ(one.Send(0, param), SENDBYCURL_OK);
    ASSERT_TRUE(one.WaitFor(1));
    EXPECT_EQ(one.Result(0), SENDBYCURL_OK);
    EXPECT_NE(one.Answer(0).find("401 Authorization Required"), std::string::npos) << one.Answer(0);
}

TEST_F(AsyncSend, PlainPortAskedForTlsIsNotifiedAs15)
{
    ExpectOne(nginx.Http("/echo", "https"), SENDBYCURL_TLS_FAILED);
}

TEST_F(AsyncSend, IsDoneWithTheRecordWhenItReturns)
{
    Batch one(1);
    {
        std::string url = nginx.Http("/echo");
        std::string body = Record(0);
        ASSERT_EQ(one.Send(0, url, body), SENDBYCURL_OK);
        std::fill(url.begin(), url.end(), '!');
        std::fill(body.begin(), body.end(), '!');
    }
    ASSERT_TRUE(one.WaitFor(1));
    EXPECT_EQ(one.Result(0), SENDBYCURL_OK);
    EXPECT_EQ(one.Answer(0), Record(0));
}

TEST_F(AsyncSend, ThreeThousandInWavesAllComeBack)
{
    constexpr size_t WAVE = 1000;
    constexpr size_t COUNT = 3 * WAVE;
    Batch batch(COUNT);
    const std::string url = nginx.Http("/echo");
    ASSERT_TRUE(AllowDescriptors(WAVE + 200)) << "too few descriptors allowed";
    for (size_t i = 0; i < COUNT; ++i) {
        ASSERT_EQ(batch.Send(i, url, Record(i)), SENDBYCURL_OK) << i;
        if (i % WAVE == WAVE - 1) {
            ASSERT_TRUE(batch.WaitFor(i + 1)) << batch.Total();
        }
    }
    EXPECT_EQ(batch.Total(), COUNT);
    ExpectOwnAnswers(batch, 0, COUNT);
}

TEST_F(AsyncSend, SendsOfBothKindsFromManyThreadsAtOnce)
{
    constexpr size_t THREADS = 8;
    constexpr size_t SENDS_EACH = 40;
    const ClosedPort closed;
    Batch batch(THREADS * SENDS_EACH);
    Race(THREADS, [&](unsigned thread) {
        for (size_t n = 0; n < SENDS_EACH; ++n) {
            const size_t i = thread * SENDS_EACH + n;
            EXPECT_EQ(batch.Send(i, n % 5 == 0 ? closed.Url() : nginx.Http("/echo"), Record(i)), SENDBYCURL_OK) << i;
            if (n % 8 == 0) {
                EXPECT_EQ(SendAndWait(nginx.Http("/echo"), Record(i)).answer, Record(i));
            }
        }
    });
    ASSERT_TRUE(batch.WaitFor(THREADS * SENDS_EACH)) << batch.Total();
    for (size_t i = 0; i < THREADS * SENDS_EACH; ++i) {
        const bool refused = i % SENDS_EACH % 5 == 0;
        EXPECT_EQ(batch.Notifications(i), 1U) << i;
        EXPECT_EQ(batch.Result(i), refused ? ESendByCurlRet{SENDBYCURL_CONNECT_FAILED} : ESendByCurlRet{SENDBYCURL_OK})
            << i;
        EXPECT_EQ(batch.Answer(i), refused ? std::string() : Record(i));
    }
}

/* --- servers that misbehave, or take their time ------------------------------------------ */

TEST_F(AsyncSendToScriptedServer, AFailureIsNotifiedWithItsResultAndWhatCame)
{
    const ClosedPort closed;
    const ScriptedServer breaking({When::FIRST_BYTE, {CLOSE}});
    const ScriptedServer cutting(CUTTING_OFF);
    ExpectOne(closed.Url(), SENDBYCURL_CONNECT_FAILED);
    ExpectOne(breaking.Url("/", "https"), SENDBYCURL_TLS_FAILED);
    ExpectOne(cutting.Url(), SENDBYCURL_INVALID_PARAM, "part");
}

TEST_F(AsyncSendToScriptedServer, TheOneAfterAThousandAndTwentyFourIsRefused)
{
    ScriptedServer server(ECHOING_ON_RELEASE);
    Batch batch(PLACES + 2);
    ASSERT_TRUE(AllowDescriptors(2 * PLACES + 200)) << "too few descriptors allowed";
    for (size_t i = 0; i < PLACES; ++i) {
        ASSERT_EQ(batch.Send(i, server.Url(), Record(i)), SENDBYCURL_OK) << i;
    }
    EXPECT_EQ(batch.Send(PLACES, server.Url(), Record(PLACES)), SENDBYCURL_NO_SLOT);
    ASSERT_TRUE(server.WaitForRequests(PLACES)) << server.RequestCount();
    EXPECT_EQ(batch.Send(PLACES, server.Url(), Record(PLACES)), SENDBYCURL_NO_SLOT);
    EXPECT_EQ(batch.Total(), 0U);
    server.Release();
    ASSERT_TRUE(batch.WaitFor(PLACES)) << batch.Total();

    /* The refusals cost nothing: a send is accepted again as soon as the first place is given back. */
    ASSERT_TRUE(WaitUntil([&] { return batch.Send(PLACES + 1, server.Url(), Record(PLACES + 1)) == SENDBYCURL_OK; }));
    ASSERT_TRUE(batch.WaitFor(PLACES + 1));
    ExpectOwnAnswers(batch, 0, PLACES);
    ExpectOwnAnswers(batch, PLACES + 1, PLACES + 2);
    EXPECT_EQ(batch.Notifications(PLACES), 0U);
    EXPECT_EQ(server.RequestCount(), PLACES + 1);
}

TEST_F(AsyncSendToScriptedServer, ASubmissionTheEngineRefusesCostsAPlaceForGood)
{
    ScriptedServer server(ECHOING_ON_RELEASE);
    Batch batch(PLACES);
    ASSERT_TRUE(AllowDescriptors(2 * PLACES + 200)) << "too few descriptors allowed";
    for (size_t i = 0; i < 1000; ++i) {
        batch.SetTimeout(0);
        ASSERT_EQ(batch.Send(i, server.Url(), Record(i)), SENDBYCURL_INVALID_PARAM) << i;
    }
    batch.SetTimeout(60000);
    for (size_t i = 1000; i < PLACES; ++i) {
        ASSERT_EQ(batch.Send(i, server.Url(), Record(i)), SENDBYCURL_OK) << i;
    }
    EXPECT_EQ(batch.Send(0, server.Url(), Record(0)), SENDBYCURL_NO_SLOT);
    server.Release();
    ASSERT_TRUE(batch.WaitFor(PLACES - 1000));
    ExpectOwnAnswers(batch, 1000, PLACES);
    EXPECT_EQ(batch.Notifications(0), 0U);
}

TEST_F(AsyncSendToScriptedServer, SendsWithoutANotificationGiveTheirPlacesBack)
{
    const ScriptedServer server(ECHOING);
    const std::string url = server.Url();
    std::vector<std::vector<char>> answers(2 * PLACES, std::vector<char>(64, '\0'));
    for (size_t i = 0; i < answers.size(); ++i) {
        const std::string body = Record(i);
        TSendByCurlParam param = Param(url, body, answers[i].data(), 64);
        /* Refused while every place is taken, never for good. */
        ASSERT_TRUE(WaitUntil([&] {
            const ESendByCurlRet result = Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_ASYNC);
            EXPECT_TRUE(result == SENDBYCURL_OK || result == SENDBYCURL_NO_SLOT) << result;
            return result == SENDBYCURL_OK;
        }));
    }
    ASSERT_TRUE(server.WaitForRequests(answers.size()));

    /* All places are free again, and with them the buffers, once as many sends fit in as there are places. */
    ScriptedServer holding(ECHOING_ON_RELEASE);
    Batch batch(PLACES);
    for (size_t i = 0; i < PLACES; ++i) {
        ASSERT_TRUE(WaitUntil([&] { return batch.Send(i, holding.Url(), Record(i)) == SENDBYCURL_OK; })) << i;
    }
    holding.Release();
    ASSERT_TRUE(batch.WaitFor(PLACES));
    for (size_t i = 0; i < answers.size(); ++i) {
        EXPECT_STREQ(answers[i].data(), Record(i).c_str());
    }
}

/*
 * The module's eight workers each get a request to a silent server. None of them reports
 * the time-out by itself; each does with the next request that it is given.
 */
TEST_F(AsyncSendToScriptedServer, ATimeoutIsNotifiedWithTheWorkersNextActivity)
{
    constexpr size_t WORKERS = 8;
    const ScriptedServer silent(SILENT);
    ScriptedServer holding(ECHOING_ON_RELEASE);
    Batch overdue(WORKERS);
    Batch next(2 * WORKERS);
    overdue.SetTimeout(1000);
    for (size_t i = 0; i < WORKERS; ++i) {
        ASSERT_EQ(overdue.Send(i, silent.Url(), Record(i)), SENDBYCURL_OK);
    }
    ASSERT_TRUE(silent.WaitForRequests(WORKERS));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(overdue.Total(), 0U);

    /* The least busy worker gets the next one, so twice as many as workers reach them all. */
    for (size_t i = 0; i < 2 * WORKERS; ++i) {
        ASSERT_EQ(next.Send(i, holding.Url(), Record(i)), SENDBYCURL_OK);
    }
    ASSERT_TRUE(overdue.WaitFor(WORKERS)) << overdue.Total();
    for (size_t i = 0; i < WORKERS; ++i) {
        EXPECT_EQ(overdue.Notifications(i), 1U);
        EXPECT_EQ(overdue.Result(i), SENDBYCURL_TIMED_OUT);
    }
    holding.Release();
    ASSERT_TRUE(next.WaitFor(2 * WORKERS));
    ExpectOwnAnswers(next, 0, 2 * WORKERS);
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
    ASSERT_EQ(Qelvo_SendStrByHttp(&param, SENDBYCURL_MODE_ASYNC), SENDBYCURL_OK);
    ASSERT_TRUE(WaitUntil([&] { return relay.over.load(); }));
    EXPECT_EQ(relay.failed.load(), 0U);
    EXPECT_EQ(relay.left.load(), 0U);
}

} // namespace
