/*
 * Engine instances of one's own: their requests, their limits, their end.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine_runs.h"
#include "nginx_server.h"
#include "raw_server.h"

namespace
{

using runs::AnswerOf;
using runs::BlocksAlive;
using runs::CallbacksOf;
using runs::Engine;
using runs::StatusOf;
using runs::Submission;
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
        ASSERT_NE(nullptr, all[i].request) << i;
    }
}

void Destroy(std::vector<Submission> &all)
{
    for (Submission &run : all) {
        NvrHttpCurlCltReqDestroy(run.request);
        run.request = nullptr;
    }
}

/* Threads of this process that the kernel knows by that name. */
size_t ThreadsNamed(const std::string &name)
{
    size_t count = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string seen;
        std::ifstream(task.path() / "comm") >> seen;
        count += seen == name ? 1 : 0;
    }
    return count;
}

class EngineRun : public common::IntegrationTest
{
};

class EngineRunWithNginx : public NginxTest
{
};

/* --- requests ------------------------------------------------------------------------------ */

TEST_F(EngineRunWithNginx, ASynchronousRequestNeedsNoWorkers)
{
    Engine engine(0, 0);
    ASSERT_EQ(NVRHTTPCURLCLT_OK, engine.Result());
    for (const std::string &url : {nginx.Http("/echo"), nginx.Https("/echo")}) {
        HNvrHttpCurlCltReq request = engine.MakeRequest(url, "hello");
        ASSERT_NE(nullptr, request);
        EXPECT_EQ(NVRHTTPCURLCLT_OK,
                  NvrHttpCurlCltProcessReq(request, 60000, 60000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr));
        EXPECT_EQ(200, StatusOf(request));
        EXPECT_EQ("hello", AnswerOf(request));
        NvrHttpCurlCltReqDestroy(request);
    }
    engine.Stop();
    EXPECT_EQ(0, BlocksAlive());
}

TEST_F(EngineRun, AFailedSynchronousTransferReturns0AndHasNoStatus)
{
    const common::ClosedPort closed;
    uint32_t length = 77;
    Engine engine(0, 0);
    HNvrHttpCurlCltReq request = engine.MakeRequest(closed.Url(), "hello");
    ASSERT_NE(nullptr, request);
    EXPECT_EQ(NVRHTTPCURLCLT_OK,
              NvrHttpCurlCltProcessReq(request, 60000, 60000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr));
    EXPECT_EQ(0, StatusOf(request));
    EXPECT_EQ(NVRHTTPCURLCLT_FAILED, NvrHttpCurlCltGetRespBodyLen(request, &length));
    EXPECT_EQ(77u, length);
    NvrHttpCurlCltReqDestroy(request);
}

TEST_F(EngineRun, TheKernelKnowsEveryWorkerByTheFirstFifteenCharactersOfItsName)
{
    Engine engine(4);
    ASSERT_EQ(NVRHTTPCURLCLT_OK, engine.Result());
    EXPECT_TRUE(common::WaitUntil([] { return ThreadsNamed("NvrHttpCurlClt0") == 4; }));
    engine.Stop();
    EXPECT_EQ(0U, ThreadsNamed("NvrHttpCurlClt0"));
}

TEST_F(EngineRunWithNginx, EachAsynchronousRequestIsCalledBackOnceWithItsOwnAnswer)
{
    Engine engine(4);
    std::vector<Submission> all(100);
    Prepare(all, engine, nginx.Http("/echo"));
    for (Submission &run : all) {
        ASSERT_EQ(NVRHTTPCURLCLT_OK, run.Submit());
    }
    for (size_t i = 0; i < all.size(); ++i) {
        ASSERT_TRUE(all[i].WaitForCallbacks(1));
        EXPECT_EQ(1u, all[i].callbacks.load());
        EXPECT_EQ(all[i].request, all[i].seen);
        EXPECT_EQ(NVRHTTPCURLCLT_PROGRESS_FINISHED, all[i].progress);
        EXPECT_EQ(NVRHTTPCURLCLT_OK, all[i].result);
        EXPECT_EQ(Body(i), std::string(all[i].answer));
        EXPECT_EQ(200, StatusOf(all[i].request));
        EXPECT_EQ(Body(i), AnswerOf(all[i].request));
    }
    Destroy(all);
    engine.Stop();
    EXPECT_EQ(0, BlocksAlive());
}

TEST_F(EngineRun, HowATransferFailedReachesTheCallback)
{
    const common::ClosedPort closed;
    const raw::Server notTls({raw::When::FirstByte, {raw::Send(raw::Reply(400, "what?")), raw::Close()}});
    const raw::Server cutting(
        {raw::When::Request, {raw::Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), raw::Close()}});
    const std::string urls[] = {closed.Url(), notTls.Url("/", "https"), cutting.Url()};
    const ENvrHttpCurlCltRet results[] = {NVRHTTPCURLCLT_CONNECT_FAILED, NVRHTTPCURLCLT_TLS_FAILED,
                                          NVRHTTPCURLCLT_FAILED};
    const std::string answers[] = {"", "", "part"};
    Engine engine(1);
    std::vector<Submission> all(3);
    for (size_t i = 0; i < all.size(); ++i) {
        all[i].request = engine.MakeRequest(urls[i], Body(i));
        ASSERT_NE(nullptr, all[i].request);
        ASSERT_EQ(NVRHTTPCURLCLT_OK, all[i].Submit());
        ASSERT_TRUE(all[i].WaitForCallbacks(1)) << urls[i];
        EXPECT_EQ(NVRHTTPCURLCLT_PROGRESS_ERROR, all[i].progress);
        EXPECT_EQ(results[i], all[i].result) << urls[i];
        EXPECT_EQ(answers[i], std::string(all[i].answer));
    }
    Destroy(all);
}

TEST_F(EngineRunWithNginx, ALargeAnswerComesWhole)
{
    const std::string body = common::Text(5000000);
    Engine engine(1);
    for (const std::string &url : {nginx.Http("/echo"), nginx.Https("/echo")}) {
        std::vector<char> answer(body.size(), '\0');
        static std::atomic<int> ended;
        ended.store(0);
        HNvrHttpCurlCltReq request = engine.MakeRequest(url, body);
        ASSERT_NE(nullptr, request);
        ASSERT_EQ(NVRHTTPCURLCLT_OK,
                  NvrHttpCurlCltProcessReq(
                      request, 60000, 60000, NVRHTTPCURLCLT_MODE_ASYNC,
                      [](HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet eResult, void *) {
                          ended.store(eResult == NVRHTTPCURLCLT_OK ? 1 : 2);
                          return 0U;
                      },
                      answer.data()));
        ASSERT_TRUE(common::WaitUntil([] { return ended.load() != 0; })) << url;
        EXPECT_EQ(1, ended.load());
        EXPECT_TRUE(std::equal(body.begin(), body.end(), answer.begin()));
        EXPECT_TRUE(AnswerOf(request) == body);
        NvrHttpCurlCltReqDestroy(request);
    }
}

/* --- the limit ------------------------------------------------------------------------------- */

TEST_F(EngineRun, ARequestKeepsItsPlaceUntilItIsDestroyed)
{
    constexpr size_t limit = NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS;
    raw::Server server(raw::EchoingOnRelease());
    Engine engine(8, limit);
    std::vector<Submission> all(limit + 1);
    ASSERT_TRUE(common::AllowDescriptors(2 * limit + 200)) << "too few descriptors allowed";
    Prepare(all, engine, server.Url());
    for (size_t i = 0; i < limit; ++i) {
        ASSERT_EQ(NVRHTTPCURLCLT_OK, all[i].Submit()) << i;
    }
    EXPECT_EQ(NVRHTTPCURLCLT_LIMIT_REACHED, all[limit].Submit());

    server.Release();
    for (size_t i = 0; i < limit; ++i) {
        ASSERT_TRUE(all[i].WaitForCallbacks(1)) << i;
    }
    /* They have ended but exist. */
    EXPECT_EQ(NVRHTTPCURLCLT_LIMIT_REACHED, all[limit].Submit());
    EXPECT_EQ(NVRHTTPCURLCLT_LIMIT_REACHED, all[0].Submit());
    NvrHttpCurlCltReqDestroy(all[0].request);
    EXPECT_EQ(NVRHTTPCURLCLT_OK, all[limit].Submit());
    ASSERT_TRUE(all[limit].WaitForCallbacks(1));

    for (size_t i = 0; i <= limit; ++i) {
        EXPECT_EQ(1u, all[i].callbacks.load()) << i;
        EXPECT_EQ(NVRHTTPCURLCLT_OK, all[i].result) << i;
        EXPECT_EQ(Body(i), std::string(all[i].answer));
    }
    for (size_t i = 1; i <= limit; ++i) {
        NvrHttpCurlCltReqDestroy(all[i].request);
    }
    engine.Stop();
    EXPECT_EQ(0, BlocksAlive());
}

/* --- submitting again ------------------------------------------------------------------------- */

TEST_F(EngineRun, ARequestMayBeSubmittedAgainAfterItsCallback)
{
    const raw::Server server(raw::Echoing());
    Engine engine(2, 1);
    std::vector<Submission> all(1);
    Prepare(all, engine, server.Url());
    /* The place it holds is its own, yet the limit refuses it. */
    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[0].Submit());
    ASSERT_TRUE(all[0].WaitForCallbacks(1));
    EXPECT_EQ(NVRHTTPCURLCLT_LIMIT_REACHED, all[0].Submit());
    Destroy(all);

    Engine roomy(2, 2);
    std::vector<Submission> again(1);
    Prepare(again, roomy, server.Url());
    std::string collected;
    for (uint32_t round = 1; round <= 3; ++round) {
        ASSERT_EQ(NVRHTTPCURLCLT_OK, again[0].Submit());
        ASSERT_TRUE(again[0].WaitForCallbacks(round));
        EXPECT_EQ(NVRHTTPCURLCLT_OK, again[0].result);
        /* Nothing empties the response buffer, so the answers line up in it. */
        collected += Body(0);
        EXPECT_EQ(collected, std::string(again[0].answer));
    }
    /* A new body brings a new response buffer. */
    ASSERT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltSetReqBody(again[0].request, "new", 3));
    std::fill(std::begin(again[0].answer), std::end(again[0].answer), '\0');
    ASSERT_EQ(NVRHTTPCURLCLT_OK, again[0].Submit());
    ASSERT_TRUE(again[0].WaitForCallbacks(4));
    EXPECT_STREQ("new", again[0].answer);
    EXPECT_EQ(4u, again[0].callbacks.load());
    Destroy(again);
}

TEST_F(EngineRunWithNginx, RequestsMayBeSubmittedAgainFromTheirCallbacks)
{
    constexpr uint32_t rounds = 25;
    Engine engine(4);
    std::vector<Submission> all(16);
    Prepare(all, engine, nginx.Http("/echo"));
    std::atomic<uint32_t> refused{0};
    for (Submission &run : all) {
        run.inCallback = [&refused](Submission &self) {
            if (self.callbacks.load() < rounds && self.Submit() != NVRHTTPCURLCLT_OK) {
                refused.fetch_add(1);
            }
        };
        ASSERT_EQ(NVRHTTPCURLCLT_OK, run.Submit());
    }
    for (size_t i = 0; i < all.size(); ++i) {
        ASSERT_TRUE(all[i].WaitForCallbacks(rounds)) << i << ": " << all[i].returned.load();
        EXPECT_EQ(rounds, all[i].callbacks.load());
        EXPECT_EQ(NVRHTTPCURLCLT_OK, all[i].result);
        EXPECT_EQ(Body(i).size() * rounds, std::string(all[i].answer).size());
    }
    EXPECT_EQ(0u, refused.load());
    Destroy(all);
    engine.Stop();
    EXPECT_EQ(0, BlocksAlive());
}

TEST_F(EngineRun, ARequestThatIsStillRunningIsNotTakenAgain)
{
    raw::Server server(raw::EchoingOnRelease());
    Engine engine(1);
    std::vector<Submission> all(1);
    Prepare(all, engine, server.Url());
    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[0].Submit());
    EXPECT_EQ(NVRHTTPCURLCLT_INVALID_ARG, all[0].Submit());
    ASSERT_TRUE(server.WaitForRequests(1));
    EXPECT_EQ(NVRHTTPCURLCLT_INVALID_ARG, all[0].Submit());
    server.Release();
    ASSERT_TRUE(all[0].WaitForCallbacks(1));
    EXPECT_EQ(Body(0), std::string(all[0].answer));
    EXPECT_EQ(1u, all[0].callbacks.load());
    EXPECT_EQ(1u, server.RequestCount());
    Destroy(all);
}

TEST_F(EngineRunWithNginx, ACallbackMayDestroyItsRequest)
{
    Engine engine(4);
    std::vector<Submission> all(64);
    Prepare(all, engine, nginx.Http("/echo"));
    for (Submission &run : all) {
        run.inCallback = [](Submission &self) { NvrHttpCurlCltReqDestroy(self.request); };
        ASSERT_EQ(NVRHTTPCURLCLT_OK, run.Submit());
    }
    for (size_t i = 0; i < all.size(); ++i) {
        ASSERT_TRUE(all[i].WaitForCallbacks(1));
        EXPECT_EQ(Body(i), std::string(all[i].answer));
    }
    engine.Stop();
    EXPECT_EQ(0, BlocksAlive());
}

/* --- when an asynchronous request ends ------------------------------------------------------------ */

TEST_F(EngineRun, ATimeoutIsReportedWithTheTasksNextActivityOnly)
{
    const raw::Server silent(raw::Silent());
    const raw::Server echoing(raw::Echoing());
    Engine engine(1);
    std::vector<Submission> all(2);
    all[0].request = engine.MakeRequest(silent.Url(), Body(0));
    all[1].request = engine.MakeRequest(echoing.Url(), Body(1));
    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[0].Submit(1000));
    ASSERT_TRUE(silent.WaitForRequests(1));
    std::this_thread::sleep_for(milliseconds(2500));
    EXPECT_EQ(0u, all[0].callbacks.load());

    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[1].Submit());
    ASSERT_TRUE(all[0].WaitForCallbacks(1));
    ASSERT_TRUE(all[1].WaitForCallbacks(1));
    EXPECT_EQ(NVRHTTPCURLCLT_PROGRESS_ERROR, all[0].progress);
    EXPECT_EQ(NVRHTTPCURLCLT_TIMED_OUT, all[0].result);
    EXPECT_EQ(NVRHTTPCURLCLT_PROGRESS_FINISHED, all[1].progress);
    EXPECT_EQ(Body(1), std::string(all[1].answer));
    Destroy(all);
}

TEST_F(EngineRun, AConnectTimeoutIsReportedWithTheTasksNextActivityOnly)
{
    const common::SilentAddress silent;
    ASSERT_TRUE(silent.IsSilent());
    const raw::Server echoing(raw::Echoing());
    Engine engine(1);
    std::vector<Submission> all(2);
    all[0].request = engine.MakeRequest(silent.Url(), Body(0));
    all[1].request = engine.MakeRequest(echoing.Url(), Body(1));
    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[0].Submit(500));
    std::this_thread::sleep_for(milliseconds(1500));
    EXPECT_EQ(0u, all[0].callbacks.load());

    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[1].Submit());
    ASSERT_TRUE(all[0].WaitForCallbacks(1));
    ASSERT_TRUE(all[1].WaitForCallbacks(1));
    EXPECT_EQ(NVRHTTPCURLCLT_TIMED_OUT, all[0].result);
    EXPECT_EQ(NVRHTTPCURLCLT_OK, all[1].result);
    Destroy(all);
}

TEST_F(EngineRun, ALongBodyWithoutHeaderLinesWaitsForTheServerOrTheTasksNextActivity)
{
    const std::string body = common::Text(1500000);
    raw::Server holding(
        {raw::When::Headers,
         {raw::Hold(), raw::Send("HTTP/1.1 100 Continue\r\n\r\n"), raw::Await(), raw::Send(raw::Reply(200, "taken"))}});
    const raw::Server unwilling({raw::When::Request, {raw::Send(raw::Reply(200, "taken"))}});
    const raw::Server echoing(raw::Echoing());
    Engine engine(1);
    std::vector<Submission> all(3);
    all[0].request = engine.MakeRequest(holding.Url(), body, false);
    all[1].request = engine.MakeRequest(unwilling.Url(), body, false);
    all[2].request = engine.MakeRequest(echoing.Url(), Body(2));

    /* The server says to go on. */
    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[0].Submit());
    ASSERT_TRUE(holding.WaitForHeads(1));
    const size_t headLength = holding.Received(0).find("\r\n\r\n") + 4;
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(headLength, holding.ReceivedLength(0));
    holding.Release();
    ASSERT_TRUE(all[0].WaitForCallbacks(1));
    EXPECT_EQ(NVRHTTPCURLCLT_OK, all[0].result);
    EXPECT_TRUE(holding.Requests().at(0).HasLine("Expect: 100-continue"));
    EXPECT_TRUE(holding.Requests().at(0).body == body);

    /* It never does: libcurl would go on after a second, but only if it is driven. */
    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[1].Submit());
    ASSERT_TRUE(unwilling.WaitForHeads(1));
    std::this_thread::sleep_for(milliseconds(2500));
    EXPECT_EQ(0u, unwilling.RequestCount());
    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[2].Submit());
    ASSERT_TRUE(all[1].WaitForCallbacks(1));
    EXPECT_EQ(NVRHTTPCURLCLT_OK, all[1].result);
    EXPECT_TRUE(unwilling.Requests().at(0).body == body);
    ASSERT_TRUE(all[2].WaitForCallbacks(1));
    Destroy(all);
}

/* --- the end of an instance -------------------------------------------------------------------------- */

TEST_F(EngineRun, UninitReleasesEverythingThatIsOutstanding)
{
    constexpr size_t count = 160;
    raw::Server server(raw::EchoingOnRelease());
    /* What libcurl keeps for the process exists after a first round. */
    for (int round = 0; round < 2; ++round) {
        const size_t descriptors = common::OpenDescriptors();
        const size_t threads = common::RunningThreads();
        const size_t before = server.RequestCount();
        Engine engine(16);
        ASSERT_EQ(NVRHTTPCURLCLT_OK, engine.Result());
        std::vector<Submission> all(count);
        Prepare(all, engine, server.Url());
        for (Submission &run : all) {
            ASSERT_EQ(NVRHTTPCURLCLT_OK, run.Submit());
        }
        /* Some are on their way, and with them some that the server holds. */
        ASSERT_TRUE(server.WaitForRequests(before + count / 4));
        EXPECT_GT(BlocksAlive(), 0);
        engine.Stop();
        EXPECT_EQ(0u, CallbacksOf(all));
        EXPECT_EQ(0, BlocksAlive());
        EXPECT_EQ(threads, common::RunningThreads());
        EXPECT_TRUE(common::WaitUntil([&] { return server.OpenConnections() == 0; }));
        if (round == 1) {
            EXPECT_EQ(descriptors, common::OpenDescriptors());
        }
    }
}

TEST_F(EngineRun, UninitReleasesFinishedRequestsToo)
{
    const raw::Server server(raw::Echoing());
    Engine engine(4);
    std::vector<Submission> all(40);
    Prepare(all, engine, server.Url());
    for (Submission &run : all) {
        ASSERT_EQ(NVRHTTPCURLCLT_OK, run.Submit());
    }
    for (Submission &run : all) {
        ASSERT_TRUE(run.WaitForCallbacks(1));
    }
    engine.Stop();
    EXPECT_EQ(0, BlocksAlive());
    EXPECT_EQ(all.size(), CallbacksOf(all));
}

/* The shortest of several ends of an instance with that many workers, each with requests under way. */
milliseconds EndOf(uint32_t tasks, const raw::Server &server)
{
    milliseconds shortest = milliseconds::max();
    for (int round = 0; round < 5; ++round) {
        const size_t before = server.RequestCount();
        Engine engine(tasks);
        std::vector<Submission> all(size_t{2} * tasks);
        Prepare(all, engine, server.Url());
        for (Submission &run : all) {
            run.Submit();
        }
        EXPECT_TRUE(server.WaitForRequests(before + all.size()));
        const auto start = Clock::now();
        engine.Stop();
        shortest = std::min(shortest, std::chrono::duration_cast<milliseconds>(Clock::now() - start));
    }
    return shortest;
}

TEST_F(EngineRun, SixteenWorkersEndInAboutTheTimeOfOne)
{
    const raw::Server server(raw::Silent());
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
        raw::Server server(raw::EchoingOnRelease());
        Engine engine(4);
        std::vector<Submission> all(64);
        std::atomic<bool> over{false};
        std::atomic<uint32_t> late{0};
        Prepare(all, engine, server.Url());
        for (Submission &run : all) {
            run.inCallback = [&](Submission &) { late.fetch_add(over.load() ? 1 : 0); };
            ASSERT_EQ(NVRHTTPCURLCLT_OK, run.Submit());
        }
        ASSERT_TRUE(server.WaitForRequests(all.size()));
        /* The answers come while the workers are being stopped. */
        server.Release();
        std::this_thread::sleep_for(std::chrono::microseconds(150 * round));
        engine.Stop();
        over.store(true);
        const size_t callbacks = CallbacksOf(all);
        ASSERT_TRUE(common::WaitUntil([&] { return server.OpenConnections() == 0; }));
        EXPECT_EQ(callbacks, CallbacksOf(all));
        EXPECT_EQ(0u, late.load());
        EXPECT_EQ(0, BlocksAlive());
        interrupted += callbacks < all.size() ? 1 : 0;
    }
    RecordProperty("interrupted", std::to_string(interrupted));
}

TEST_F(EngineRun, UninitWaitsForACallbackThatIsUnderWay)
{
    const raw::Server server(raw::Echoing());
    Engine engine(2);
    std::vector<Submission> all(1);
    std::atomic<bool> go{false};
    std::atomic<bool> ended{false};
    Prepare(all, engine, server.Url());
    all[0].inCallback = [&](Submission &) { common::WaitUntil([&] { return go.load(); }); };
    ASSERT_EQ(NVRHTTPCURLCLT_OK, all[0].Submit());
    ASSERT_TRUE(common::WaitUntil([&] { return all[0].callbacks.load() == 1; }));

    std::thread stopper([&] {
        engine.Stop();
        ended.store(true);
    });
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_FALSE(ended.load());
    go.store(true);
    stopper.join();
    EXPECT_EQ(1u, all[0].returned.load());
    EXPECT_EQ(0, BlocksAlive());
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
            ASSERT_NE(nullptr, all[i].request);
            ASSERT_EQ(NVRHTTPCURLCLT_OK, all[i].Submit());
        }
        /* More of them each round, none in the first. */
        ASSERT_TRUE(common::WaitUntil([&] { return CallbacksOf(all) >= 3 * round; }));
        first.Stop();
        second.Stop();
        EXPECT_EQ(0, BlocksAlive());
        for (size_t i = 0; i < all.size(); ++i) {
            EXPECT_LE(all[i].callbacks.load(), 1u);
            if (all[i].callbacks.load() == 1) {
                EXPECT_EQ(Body(i), std::string(all[i].answer));
                ++answered;
            }
        }
    }
    EXPECT_GT(answered, 0u);
}

TEST_F(EngineRun, SixteenInstancesServeAtOnceAndTheNextIsRefused)
{
    const raw::Server server(raw::Echoing());
    std::vector<std::unique_ptr<Engine>> engines;
    std::vector<Submission> all(NVRHTTPCURLCLT_MAX_INSTANCES);
    for (Submission &run : all) {
        engines.push_back(std::make_unique<Engine>(1, 4));
        ASSERT_EQ(NVRHTTPCURLCLT_OK, engines.back()->Result());
        run.request = engines.back()->MakeRequest(server.Url(), "one of sixteen");
        ASSERT_EQ(NVRHTTPCURLCLT_OK, run.Submit());
    }
    const Engine surplus(1, 4);
    EXPECT_EQ(NVRHTTPCURLCLT_LIMIT_REACHED, surplus.Result());
    for (Submission &run : all) {
        ASSERT_TRUE(run.WaitForCallbacks(1));
        EXPECT_STREQ("one of sixteen", run.answer);
    }
    Destroy(all);
    engines.clear();
    EXPECT_EQ(0, BlocksAlive());
}

} // namespace
