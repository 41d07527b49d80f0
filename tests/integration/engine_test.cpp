/*
 * Engine instances of one's own: their requests, their limits, their end.
 */
#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "engine_runs.h"
#include "nginx_server.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace
{

using namespace test;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::string Body(size_t number)
{
    return "body of request " + std::to_string(number);
}

/* Prepares a request for each run. */
void Prepare(std::vector<Submission> &all, const Engine &engine, const std::string &url)
{
    for (size_t i = 0; i < all.size(); ++i) {
        all[i].request = engine.MakeRequest(url, Body(i));
        ASSERT_NE(all[i].request, nullptr) << i;
    }
}

bool SubmitAll(std::vector<Submission> &all)
{
    return std::all_of(all.begin(), all.end(), [](Submission &run) { return run.Submit() == NVRHTTPCURLCLT_OK; });
}

/* Waits until each has been called back that often. */
bool AwaitAll(const std::vector<Submission> &all, uint32_t callbacks = 1)
{
    return std::all_of(all.begin(), all.end(),
                       [callbacks](const Submission &run) { return run.WaitForCallbacks(callbacks); });
}

void Destroy(std::vector<Submission> &all)
{
    for (Submission &run : all) {
        NvrHttpCurlCltReqDestroy(run.request);
        run.request = nullptr;
    }
}

using EngineRun = IntegrationTest;

using EngineRunWithNginx = NginxTest;

/* --- requests ------------------------------------------------------------------------------ */

TEST_F(EngineRunWithNginx, ASynchronousRequestNeedsNoWorkers)
{
    Engine engine(0, 0);
    ASSERT_EQ(engine.Result(), NVRHTTPCURLCLT_OK);
    for (const std::string &url : {nginx.Http("/echo"), nginx.Https("/echo")}) {
        HNvrHttpCurlCltReq request = engine.MakeRequest(url, "hello");
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(NvrHttpCurlCltProcessReq(request, 60000, 60000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr),
                  NVRHTTPCURLCLT_OK);
        EXPECT_EQ(StatusOf(request), 200);
        EXPECT_EQ(AnswerOf(request), "hello");
        NvrHttpCurlCltReqDestroy(request);
    }
}

TEST_F(EngineRun, AFailedSynchronousTransferReturns0AndHasNoStatus)
{
    const ClosedPort closed;
    uint32_t length = 77;
    Engine engine(0, 0);
    HNvrHttpCurlCltReq request = engine.MakeRequest(closed.Url(), "hello");
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(NvrHttpCurlCltProcessReq(request, 60000, 60000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr),
              NVRHTTPCURLCLT_OK);
    EXPECT_EQ(StatusOf(request), 0);
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(request, &length), NVRHTTPCURLCLT_FAILED);
    EXPECT_EQ(length, 77U);
    NvrHttpCurlCltReqDestroy(request);
}

TEST_F(EngineRun, TheKernelKnowsEveryWorkerByTheFirstFifteenCharactersOfItsName)
{
    Engine engine(4);
    ASSERT_EQ(engine.Result(), NVRHTTPCURLCLT_OK);
    EXPECT_TRUE(WaitUntil([] { return ThreadsNamed("NvrHttpCurlClt0") == 4; }));
    engine.Stop();
    EXPECT_EQ(ThreadsNamed("NvrHttpCurlClt0"), 0U);
}

TEST_F(EngineRunWithNginx, EachAsynchronousRequestIsCalledBackOnceWithItsOwnAnswer)
{
    Engine engine(4);
    std::vector<Submission> all(100);
    Prepare(all, engine, nginx.Http("/echo"));
    ASSERT_TRUE(SubmitAll(all));
    ASSERT_TRUE(AwaitAll(all));
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i].callbacks.load(), 1U);
        EXPECT_EQ(all[i].seen, all[i].request);
        EXPECT_EQ(all[i].progress, NVRHTTPCURLCLT_PROGRESS_FINISHED);
        EXPECT_EQ(all[i].result, NVRHTTPCURLCLT_OK);
        EXPECT_EQ(std::string(all[i].answer), Body(i));
        EXPECT_EQ(StatusOf(all[i].request), 200);
        EXPECT_EQ(AnswerOf(all[i].request), Body(i));
    }
    Destroy(all);
}

TEST_F(EngineRun, HowATransferFailedReachesTheCallback)
{
    const ClosedPort closed;
    const ScriptedServer notTls({When::FIRST_BYTE, {Send(Reply(400, "what?")), CLOSE}});
    const ScriptedServer cutting(CUTTING_OFF);
    const std::string urls[] = {closed.Url(), notTls.Url("/", "https"), cutting.Url()};
    const ENvrHttpCurlCltRet results[] = {NVRHTTPCURLCLT_CONNECT_FAILED, NVRHTTPCURLCLT_TLS_FAILED,
                                          NVRHTTPCURLCLT_FAILED};
    const char *answers[] = {"", "", "part"};
    Engine engine(1);
    std::vector<Submission> all(3);
    for (size_t i = 0; i < all.size(); ++i) {
        all[i].request = engine.MakeRequest(urls[i], Body(i));
        ASSERT_EQ(all[i].Submit(), NVRHTTPCURLCLT_OK);
        ASSERT_TRUE(all[i].WaitForCallbacks(1)) << urls[i];
        EXPECT_EQ(all[i].progress, NVRHTTPCURLCLT_PROGRESS_ERROR);
        EXPECT_EQ(all[i].result, results[i]) << urls[i];
        EXPECT_STREQ(all[i].answer, answers[i]);
    }
    Destroy(all);
}

TEST_F(EngineRunWithNginx, ALargeAnswerComesWhole)
{
    const std::string body = SampleText(5000000);
    Engine engine(1);
    for (const std::string &url : {nginx.Http("/echo"), nginx.Https("/echo")}) {
        std::vector<char> answer(body.size(), '\0');
        static std::atomic<int> ended;
        ended.store(0);
        HNvrHttpCurlCltReq request = engine.MakeRequest(url, body);
        ASSERT_NE(request, nullptr);
        ASSERT_EQ(NvrHttpCurlCltProcessReq(
                      request, 60000, 60000, NVRHTTPCURLCLT_MODE_ASYNC,
                      [](HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet eResult, void *) {
                          ended.store(eResult == NVRHTTPCURLCLT_OK ? 1 : 2);
                          return 0U;
                      },
                      answer.data()),
                  NVRHTTPCURLCLT_OK);
        ASSERT_TRUE(WaitUntil([] { return ended.load() != 0; })) << url;
        EXPECT_EQ(ended.load(), 1);
        EXPECT_TRUE(std::equal(body.begin(), body.end(), answer.begin()));
        EXPECT_TRUE(AnswerOf(request) == body);
        NvrHttpCurlCltReqDestroy(request);
    }
}

/* --- the limit ------------------------------------------------------------------------------- */

TEST_F(EngineRun, ARequestKeepsItsPlaceUntilItIsDestroyed)
{
    constexpr size_t LIMIT = NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS;
    ScriptedServer server(ECHOING_ON_RELEASE);
    Engine engine(8, LIMIT);
    std::vector<Submission> all(LIMIT + 1);
    ASSERT_TRUE(AllowDescriptors(2 * LIMIT + 200)) << "too few descriptors allowed";
    Prepare(all, engine, server.Url());
    for (size_t i = 0; i < LIMIT; ++i) {
        ASSERT_EQ(all[i].Submit(), NVRHTTPCURLCLT_OK) << i;
    }
    EXPECT_EQ(all[LIMIT].Submit(), NVRHTTPCURLCLT_LIMIT_REACHED);

    server.Release();
    for (size_t i = 0; i < LIMIT; ++i) {
        ASSERT_TRUE(all[i].WaitForCallbacks(1)) << i;
    }
    /* They have ended but exist. */
    EXPECT_EQ(all[LIMIT].Submit(), NVRHTTPCURLCLT_LIMIT_REACHED);
    EXPECT_EQ(all[0].Submit(), NVRHTTPCURLCLT_LIMIT_REACHED);
    NvrHttpCurlCltReqDestroy(all[0].request);
    EXPECT_EQ(all[LIMIT].Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(all[LIMIT].WaitForCallbacks(1));

    for (size_t i = 0; i <= LIMIT; ++i) {
        EXPECT_EQ(all[i].callbacks.load(), 1U) << i;
        EXPECT_EQ(all[i].result, NVRHTTPCURLCLT_OK) << i;
        EXPECT_EQ(std::string(all[i].answer), Body(i));
    }
    for (size_t i = 1; i <= LIMIT; ++i) {
        NvrHttpCurlCltReqDestroy(all[i].request);
    }
}

/* --- submitting again ------------------------------------------------------------------------- */

TEST_F(EngineRun, ARequestMayBeSubmittedAgainAfterItsCallback)
{
    const ScriptedServer server(ECHOING);
    Engine engine(2, 1);
    std::vector<Submission> all(1);
    Prepare(all, engine, server.Url());
    /* The place it holds is its own, yet the limit refuses it. */
    ASSERT_EQ(all[0].Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(all[0].WaitForCallbacks(1));
    EXPECT_EQ(all[0].Submit(), NVRHTTPCURLCLT_LIMIT_REACHED);
    Destroy(all);

    Engine larger(2, 2);
    std::vector<Submission> again(1);
    Prepare(again, larger, server.Url());
    std::string collected;
    for (uint32_t round = 1; round <= 3; ++round) {
        ASSERT_EQ(again[0].Submit(), NVRHTTPCURLCLT_OK);
        ASSERT_TRUE(again[0].WaitForCallbacks(round));
        EXPECT_EQ(again[0].result, NVRHTTPCURLCLT_OK);
        /* Nothing empties the response buffer, so the answers line up in it. */
        collected += Body(0);
        EXPECT_EQ(std::string(again[0].answer), collected);
    }
    /* A new body brings a new response buffer. */
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(again[0].request, "new", 3), NVRHTTPCURLCLT_OK);
    std::fill(std::begin(again[0].answer), std::end(again[0].answer), '\0');
    ASSERT_EQ(again[0].Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(again[0].WaitForCallbacks(4));
    EXPECT_STREQ(again[0].answer, "new");
    EXPECT_EQ(again[0].callbacks.load(), 4U);
    Destroy(again);
}

TEST_F(EngineRunWithNginx, RequestsMayBeSubmittedAgainFromTheirCallbacks)
{
    constexpr uint32_t ROUNDS = 25;
    Engine engine(4);
    std::vector<Submission> all(16);
    Prepare(all, engine, nginx.Http("/echo"));
    std::atomic<uint32_t> refused{0};
    for (Submission &run : all) {
        run.inCallback = [&refused](Submission &self) {
            if (self.callbacks.load() < ROUNDS && self.Submit() != NVRHTTPCURLCLT_OK) {
                refused.fetch_add(1);
            }
        };
        ASSERT_EQ(run.Submit(), NVRHTTPCURLCLT_OK);
    }
    ASSERT_TRUE(AwaitAll(all, ROUNDS));
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i].callbacks.load(), ROUNDS);
        EXPECT_EQ(all[i].result, NVRHTTPCURLCLT_OK);
        EXPECT_EQ(std::string(all[i].answer).size(), Body(i).size() * ROUNDS);
    }
    EXPECT_EQ(refused.load(), 0U);
    Destroy(all);
}

TEST_F(EngineRun, ARequestThatIsStillRunningIsNotTakenAgain)
{
    ScriptedServer server(ECHOING_ON_RELEASE);
    Engine engine(1);
    std::vector<Submission> all(1);
    Prepare(all, engine, server.Url());
    ASSERT_EQ(all[0].Submit(), NVRHTTPCURLCLT_OK);
    EXPECT_EQ(all[0].Submit(), NVRHTTPCURLCLT_INVALID_ARG);
    ASSERT_TRUE(server.WaitForRequests(1));
    EXPECT_EQ(all[0].Submit(), NVRHTTPCURLCLT_INVALID_ARG);
    server.Release();
    ASSERT_TRUE(all[0].WaitForCallbacks(1));
    EXPECT_EQ(std::string(all[0].answer), Body(0));
    EXPECT_EQ(all[0].callbacks.load(), 1U);
    EXPECT_EQ(server.RequestCount(), 1U);
    Destroy(all);
}

TEST_F(EngineRunWithNginx, ACallbackMayDestroyItsRequest)
{
    Engine engine(4);
    std::vector<Submission> all(64);
    Prepare(all, engine, nginx.Http("/echo"));
    for (Submission &run : all) {
        run.inCallback = [](Submission &self) { NvrHttpCurlCltReqDestroy(self.request); };
        ASSERT_EQ(run.Submit(), NVRHTTPCURLCLT_OK);
    }
    ASSERT_TRUE(AwaitAll(all));
    for (size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(std::string(all[i].answer), Body(i));
    }
}

/* --- when an asynchronous request ends ------------------------------------------------------------ */

TEST_F(EngineRun, ATimeoutOfAnyKindIsReportedWithTheTasksNextActivityOnly)
{
    const ScriptedServer mute(SILENT);
    const SilentAddress unconnected;
    const ScriptedServer echoing(ECHOING);
    for (const std::string &url : {mute.Url(), unconnected.Url()}) {
        SCOPED_TRACE(url);
        Engine engine(1);
        std::vector<Submission> all(2);
        all[0].request = engine.MakeRequest(url, Body(0));
        all[1].request = engine.MakeRequest(echoing.Url(), Body(1));
        ASSERT_EQ(all[0].Submit(500), NVRHTTPCURLCLT_OK);
        std::this_thread::sleep_for(milliseconds(1500));
        EXPECT_EQ(all[0].callbacks.load(), 0U);
        ASSERT_EQ(all[1].Submit(), NVRHTTPCURLCLT_OK);
        ASSERT_TRUE(AwaitAll(all));
        EXPECT_EQ(all[0].progress, NVRHTTPCURLCLT_PROGRESS_ERROR);
        EXPECT_EQ(all[0].result, NVRHTTPCURLCLT_TIMED_OUT);
        EXPECT_EQ(all[1].progress, NVRHTTPCURLCLT_PROGRESS_FINISHED);
        EXPECT_EQ(std::string(all[1].answer), Body(1));
        Destroy(all);
    }
    EXPECT_EQ(mute.RequestCount(), 1U);
}

TEST_F(EngineRun, ALongBodyWithoutHeaderLinesWaitsForTheServerOrTheTasksNextActivity)
{
    const std::string body = SampleText(1500000);
    ScriptedServer holding(
        {When::HEADERS, {HOLD, Send("HTTP/1.1 100 Continue\r\n\r\n"), AWAIT, Send(Reply(200, "taken"))}});
    const ScriptedServer unwilling({When::REQUEST, {Send(Reply(200, "taken"))}});
    const ScriptedServer echoing(ECHOING);
    Engine engine(1);
    std::vector<Submission> all(3);
    all[0].request = engine.MakeRequest(holding.Url(), body, false);
    all[1].request = engine.MakeRequest(unwilling.Url(), body, false);
    all[2].request = engine.MakeRequest(echoing.Url(), Body(2));

    /* The server says to go on. */
    ASSERT_EQ(all[0].Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(holding.WaitForHeads(1));
    const size_t headLength = holding.Received(0).find("\r\n\r\n") + 4;
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(holding.Received(0).size(), headLength);
    holding.Release();
    ASSERT_TRUE(all[0].WaitForCallbacks(1));
    EXPECT_EQ(all[0].result, NVRHTTPCURLCLT_OK);
    EXPECT_TRUE(holding.Requests().at(0).HasLine("Expect: 100-continue"));
    EXPECT_TRUE(holding.Requests().at(0).body == body);

    /* It never does: libcurl would go on after a second, but only if it is driven. */
    ASSERT_EQ(all[1].Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(unwilling.WaitForHeads(1));
    std::this_thread::sleep_for(milliseconds(2500));
    EXPECT_EQ(unwilling.RequestCount(), 0U);
    ASSERT_EQ(all[2].Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(all[1].WaitForCallbacks(1));
    EXPECT_EQ(all[1].result, NVRHTTPCURLCLT_OK);
    EXPECT_TRUE(unwilling.Requests().at(0).body == body);
    ASSERT_TRUE(all[2].WaitForCallbacks(1));
    Destroy(all);
}

/* --- the end of an instance -------------------------------------------------------------------------- */

TEST_F(EngineRun, UninitReleasesEverythingThatIsOutstanding)
{
    constexpr size_t COUNT = 160;
    ScriptedServer server(ECHOING_ON_RELEASE);
    /* What libcurl keeps for the process exists after a first round. */
    for (int round = 0; round < 2; ++round) {
        const std::set<int> descriptors = OpenDescriptors();
        const size_t threads = RunningThreads();
        const size_t before = server.RequestCount();
        Engine engine(16);
        ASSERT_EQ(engine.Result(), NVRHTTPCURLCLT_OK);
        std::vector<Submission> all(COUNT);
        Prepare(all, engine, server.Url());
        ASSERT_TRUE(SubmitAll(all));
        /* Some are on their way, and with them some that the server holds. */
        ASSERT_TRUE(server.WaitForRequests(before + COUNT / 4));
        EXPECT_GT(BlocksAlive(), 0);
        engine.Stop();
        EXPECT_EQ(CallbacksOf(all), 0U);
        EXPECT_EQ(BlocksAlive(), 0);
        EXPECT_EQ(RunningThreads(), threads);
        EXPECT_TRUE(WaitUntil([&] { return server.OpenConnections() == 0; }));
        if (round == 1) {
            EXPECT_EQ(OpenDescriptors(), descriptors);
        }
    }
}

TEST_F(EngineRun, UninitReleasesFinishedRequestsToo)
{
    const ScriptedServer server(ECHOING);
    Engine engine(4);
    std::vector<Submission> all(40);
    Prepare(all, engine, server.Url());
    ASSERT_TRUE(SubmitAll(all));
    ASSERT_TRUE(AwaitAll(all));
    engine.Stop();
    EXPECT_EQ(BlocksAlive(), 0);
    EXPECT_EQ(CallbacksOf(all), all.size());
}

/* The shortest of several ends of an instance with that many workers, each with requests under way. */
milliseconds EndOf(uint32_t tasks, const ScriptedServer &server)
{
    milliseconds shortest = milliseconds::max();
    for (int round = 0; round < 5; ++round) {
        const size_t before = server.RequestCount();
        Engine engine(tasks);
        std::vector<Submission> all(size_t{2} * tasks);
        Prepare(all, engine, server.Url());
        EXPECT_TRUE(SubmitAll(all));
        EXPECT_TRUE(server.WaitForRequests(before + all.size()));
        const auto start = Clock::now();
        engine.Stop();
        shortest = std::min(shortest, std::chrono::duration_cast<milliseconds>(Clock::now() - start));
    }
    return shortest;
}

TEST_F(EngineRun, SixteenWorkersEndInAboutTheTimeOfOne)
{
    const ScriptedServer server(SILENT);
    const milliseconds waitPeriod(50);
    const milliseconds one = EndOf(1, server);
    const milliseconds sixteen = EndOf(16, server);
    RecordProperty("one_ms", std::to_string(one.count()));
    RecordProperty("sixteen_ms", std::to_string(sixteen.count()));
    /* One after the other they would take 16 waits, 8 of them in the mean. */
    EXPECT_LT(sixteen, 4 * std::max(one, waitPeriod));
}

TEST_F(EngineRun, NoCallbackComesAfterUninitReturned)
{
    uint32_t interrupted = 0;
    for (int round = 0; round < 12; ++round) {
        ScriptedServer server(ECHOING_ON_RELEASE);
        Engine engine(4);
        std::vector<Submission> all(64);
        std::atomic<bool> over{false};
        std::atomic<uint32_t> late{0};
        Prepare(all, engine, server.Url());
        for (Submission &run : all) {
            run.inCallback = [&](Submission &) { late.fetch_add(over.load() ? 1 : 0); };
            ASSERT_EQ(run.Submit(), NVRHTTPCURLCLT_OK);
        }
        ASSERT_TRUE(server.WaitForRequests(all.size()));
        /* The answers come while the workers are being stopped. */
        server.Release();
        std::this_thread::sleep_for(std::chrono::microseconds(150 * round));
        engine.Stop();
        over.store(true);
        const size_t callbacks = CallbacksOf(all);
        ASSERT_TRUE(WaitUntil([&] { return server.OpenConnections() == 0; }));
        EXPECT_EQ(CallbacksOf(all), callbacks);
        EXPECT_EQ(late.load(), 0U);
        EXPECT_EQ(BlocksAlive(), 0);
        interrupted += callbacks < all.size() ? 1 : 0;
    }
    RecordProperty("interrupted", std::to_string(interrupted));
}

TEST_F(EngineRun, UninitWaitsForACallbackThatIsUnderWay)
{
    const ScriptedServer server(ECHOING);
    Engine engine(2);
    std::vector<Submission> all(1);
    std::atomic<bool> go{false};
    std::atomic<bool> ended{false};
    Prepare(all, engine, server.Url());
    all[0].inCallback = [&](Submission &) { WaitUntil([&] { return go.load(); }); };
    ASSERT_EQ(all[0].Submit(), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(WaitUntil([&] { return all[0].callbacks.load() == 1; }));
    std::thread stopper([&] {
        engine.Stop();
        ended.store(true);
    });
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_FALSE(ended.load());
    go.store(true);
    stopper.join();
    EXPECT_EQ(all[0].returned.load(), 1U);
    EXPECT_EQ(BlocksAlive(), 0);
}

TEST_F(EngineRunWithNginx, InstancesComeAndGoUnderLoad)
{
    uint32_t answered = 0;
    for (size_t round = 0; round < 15; ++round) {
        Engine first(4);
        Engine second(2);
        std::vector<Submission> all(48);
        for (size_t i = 0; i < all.size(); ++i) {
            all[i].request = (i % 3 == 0 ? second : first).MakeRequest(nginx.Http("/echo"), Body(i));
            ASSERT_NE(all[i].request, nullptr);
            ASSERT_EQ(all[i].Submit(), NVRHTTPCURLCLT_OK);
        }
        /* More of them each round, none in the first. */
        ASSERT_TRUE(WaitUntil([&] { return CallbacksOf(all) >= 3 * round; }));
        first.Stop();
        second.Stop();
        EXPECT_EQ(BlocksAlive(), 0);
        for (size_t i = 0; i < all.size(); ++i) {
            EXPECT_LE(all[i].callbacks.load(), 1U);
            if (all[i].callbacks.load() == 1) {
                EXPECT_EQ(std::string(all[i].answer), Body(i));
                ++answered;
            }
        }
    }
    EXPECT_GT(answered, 0U);
}

TEST_F(EngineRun, SixteenInstancesServeAtOnceAndTheNextIsRefused)
{
    const ScriptedServer server(ECHOING);
    std::vector<std::unique_ptr<Engine>> engines;
    std::vector<Submission> all(NVRHTTPCURLCLT_MAX_INSTANCES);
    for (Submission &run : all) {
        engines.push_back(std::make_unique<Engine>(1, 4));
        ASSERT_EQ(engines.back()->Result(), NVRHTTPCURLCLT_OK);
        run.request = engines.back()->MakeRequest(server.Url(), "one of sixteen");
        ASSERT_EQ(run.Submit(), NVRHTTPCURLCLT_OK);
    }
    const Engine surplus(1, 4);
    EXPECT_EQ(surplus.Result(), NVRHTTPCURLCLT_LIMIT_REACHED);
    ASSERT_TRUE(AwaitAll(all));
    for (const Submission &run : all) {
        EXPECT_STREQ(run.answer, "one of sixteen");
    }
    Destroy(all);
}

} // namespace
