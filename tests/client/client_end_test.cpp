/*
 * The end of a client: what was outstanding completes, nothing is left, and the program can return.
 */
#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "client_fixture.h"
#include "nginx_server.h"
#include "tests/support/child_process.h"
#include "tests/support/next.h"

namespace
{

using namespace test;

using ClientEnd = ClientTest;

TEST_F(ClientEnd, TwoHundredInFlightAreCancelledOnceEach)
{
    const ScriptedServer server(SILENT);
    std::vector<unsigned> completions(200, 0);
    auto client = std::make_unique<Client>(Limits(4));
    const std::thread::id destroyer = std::this_thread::get_id();
    for (unsigned &count : completions) {
        client->send_async(PostOf(server.Url()), [&count, destroyer](const Response &answer) {
            ExpectFailure(answer, Error::cancelled);
            EXPECT_EQ(std::this_thread::get_id(), destroyer);
            ++count;
        });
    }
    std::future<Response> waiting = client->send_async(PostOf(server.Url()));
    EXPECT_TRUE(server.WaitForRequests(201));
    client.reset();
    EXPECT_EQ(completions, std::vector<unsigned>(200, 1));
    ASSERT_TRUE(IsReady(waiting));
    ExpectFailure(waiting.get(), Error::cancelled);
}

/* Submitted just before, most have not yet reached a worker's transfers; some end by themselves. */
TEST_F(ClientEnd, AtAnyMomentEachCompletesOnceAndNoneAfterwards)
{
    const ScriptedServer server(ECHOING);
    for (int round = 0; round < 20; ++round) {
        std::vector<std::atomic<unsigned>> completions(200);
        std::atomic<bool> isOver{false};
        auto client = std::make_unique<Client>(Limits(2));
        for (std::atomic<unsigned> &count : completions) {
            client->send_async(PostOf(server.Url()), [&count, &isOver](const Response &answer) {
                EXPECT_TRUE(answer.ok() || answer.error == Error::cancelled);
                EXPECT_FALSE(isOver);
                count.fetch_add(1);
            });
        }
        std::this_thread::sleep_for(milliseconds(round));
        client.reset();
        isOver = true;
        for (const std::atomic<unsigned> &count : completions) {
            ASSERT_EQ(count.load(), 1U);
        }
    }
}

TEST_F(ClientEnd, ThePlacesAreFreeInTheCallbacksOfTheDestructor)
{
    const ScriptedServer server(SILENT);
    std::vector<size_t> outstanding;
    {
        Client client(Limits(1, 3));
        for (int number = 0; number < 3; ++number) {
            client.send_async(PostOf(server.Url()),
                              [&](const Response &) { outstanding.push_back(client.outstanding()); });
        }
    }
    EXPECT_EQ(outstanding, (std::vector<size_t>{2, 1, 0}));
}

/* --- sends that come meanwhile ----------------------------------------------------------------- */

TEST_F(ClientEnd, ASendFromTheDestructorsCallbacksIsCancelled)
{
    const ScriptedServer server(SILENT);
    std::vector<Error> errors;
    {
        Client client(Limits(2));
        client.send_async(PostOf(server.Url()), [&](const Response &answer) {
            errors.push_back(answer.error);
            client.send_async(PostOf(server.Url()), [&](const Response &second) { errors.push_back(second.error); });
            errors.push_back(client.send_async(PostOf(server.Url())).get().error);
        });
        EXPECT_TRUE(server.WaitForRequests(1));
    }
    EXPECT_EQ(errors, std::vector<Error>(3, Error::cancelled));
    EXPECT_EQ(server.RequestCount(), 1U);
}

/* Chains over all workers never end by themselves: each worker submits to the others while these are stopped. */
TEST_F(ClientEnd, ChainsThatNeverEndAreCancelled)
{
    const ScriptedServer server(ECHOING);
    for (int round = 0; round < 10; ++round) {
        std::atomic<int> alive{0};
        std::function<void(Client &)> next = [&](Client &client) {
            client.send_async(PostOf(server.Url()), [&](const Response &answer) {
                if (answer.error == Error::cancelled) {
                    alive.fetch_sub(1);
                } else {
                    next(client);
                }
            });
        };
        {
            Client client(Limits(4));
            for (int number = 0; number < 32; ++number) {
                alive.fetch_add(1);
                next(client);
            }
            std::this_thread::sleep_for(milliseconds(10 + 3 * round));
        }
        EXPECT_EQ(alive.load(), 0);
    }
}

/* Whether the destructor runs, seen by a send. */
bool IsEnding(Client &client, const std::string &url)
{
    std::future<Response> probe = client.send_async(PostOf(url));
    return IsReady(probe) && probe.get().error == Error::cancelled;
}

/* It could make another client, which would wait for the destructor, which would wait for the callback. */
TEST_F(ClientEnd, NoCallbackStartsOnAWorkerOnceTheDestructorRuns)
{
    const ScriptedServer server(ECHOING);
    ScriptedServer held(ECHOING_ON_RELEASE);
    std::vector<Error> errors;
    std::promise<void> entered;
    const std::thread::id destroyer = std::this_thread::get_id();
    {
        Client client(Limits(2));
        client.send_async(PostOf(held.Url()), [&](const Response &answer) {
            errors.push_back(answer.error);
            EXPECT_EQ(std::this_thread::get_id(), destroyer);
        });
        /* On the other worker. */
        client.send_async(PostOf(server.Url()), [&](const Response &) {
            entered.set_value();
            EXPECT_TRUE(WaitUntil([&] { return IsEnding(client, held.Url()); }));
            held.Release();
            std::this_thread::sleep_for(milliseconds(200)); /* the answer comes */
        });
        entered.get_future().wait();
    }
    EXPECT_EQ(errors, std::vector<Error>{Error::cancelled});
}

/* What holds up this thread's next submission in the engine. */
struct Hold {
    std::promise<void> entered;
    std::promise<void> leave;
};
thread_local Hold *nextHold = nullptr;

/* The engine must not end an instance that a submission is still using. */
TEST_F(ClientEnd, ItWaitsForASubmissionInTheEngine)
{
    const ScriptedServer server(ECHOING);
    Hold hold;
    auto client = std::make_unique<Client>(Limits(1));
    std::future<Response> answer;
    std::thread sender([&] {
        nextHold = &hold;
        answer = client->send_async(PostOf(server.Url()));
    });
    hold.entered.get_future().wait();
    auto destroyed = std::async(std::launch::async, [&client] { client.reset(); });
    EXPECT_EQ(destroyed.wait_for(milliseconds(500)), std::future_status::timeout);
    hold.leave.set_value();
    sender.join();
    destroyed.wait();
    ExpectFailure(Await(std::move(answer)), Error::cancelled);
}

TEST_F(ClientEnd, ItWaitsForACallbackThatMakesAnotherClient)
{
    const ScriptedServer server(ECHOING);
    std::promise<void> entered;
    std::atomic<bool> isMade{false};
    {
        Client client(Limits(2));
        client.send_async(PostOf(server.Url()), [&](const Response &) {
            entered.set_value();
            EXPECT_TRUE(WaitUntil([&] { return IsEnding(client, server.Url()); }));
            Client other(Limits(1));
            ExpectAnswer(other.send(PostOf(server.Url())), "{}");
            isMade = true;
        });
        entered.get_future().wait();
    }
    EXPECT_TRUE(isMade);
}

/* Its own thread sleeps by then. */
TEST_F(ClientEnd, AnIdleClientEnds)
{
    const Client client;
    std::this_thread::sleep_for(milliseconds(100));
}

/* --- nothing is left --------------------------------------------------------------------------- */

TEST_F(ClientEnd, TwoHundredClientsLeaveNoDescriptorAndNoThread)
{
    const ScriptedServer server(ECHOING);
    const ScriptedServer silent(SILENT);
    const auto makeOne = [&] {
        Client client(Limits(1));
        ExpectAnswer(client.send(PostOf(server.Url())), "{}");
        client.send_async(PostOf(silent.Url()), [](const Response &) {});
    };
    makeOne();
    const size_t threads = RunningThreads();
    EXPECT_TRUE(WaitUntil([&] { return server.OpenConnections() + silent.OpenConnections() == 0; }));
    const std::set<int> descriptors = OpenDescriptors();
    for (int number = 1; number < 200; ++number) {
        makeOne();
    }
    EXPECT_TRUE(WaitUntil([&] { return server.OpenConnections() + silent.OpenConnections() == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == descriptors; }, std::chrono::seconds(5)));
    EXPECT_EQ(RunningThreads(), threads);
}

TEST_F(ClientEnd, ClientsAreMadeAndDestroyedOnSeveralThreads)
{
    const ScriptedServer server(ECHOING);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&server] {
            for (int number = 0; number < 10; ++number) {
                Client client(Limits(2));
                ExpectAnswer(client.send(PostOf(server.Url())), "{}");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

/* --- the program ------------------------------------------------------------------------------- */

class ClientProgram : public NginxTest
{
};

TEST_F(ClientProgram, ReturnsFromMainWithTlsInFlight)
{
    for (int number = 0; number < 20; ++number) {
        const std::string place = number % 2 == 0 ? "local" : "static";
        const Finished run =
            RunProgram({{CLIENT_EXIT_PROGRAM, place, nginx.Https("/late"), std::to_string(number * 4)}});
        EXPECT_EQ(run.status, 0) << place << " " << number << ": " << run.errors;
        EXPECT_EQ(run.output, "returns\n");
    }
}

} // namespace

extern "C" ENvrHttpCurlCltRet NvrHttpCurlCltProcessReq(HNvrHttpCurlCltReq hReq, uint32_t dwTimeoutMS,
                                                       uint32_t dwConnTimeOutMS, ENvrHttpCurlCltMode eMode,
                                                       PFNvrHttpCurlCltNtf pfNtf, void *pvUserBuf)
{
    if (Hold *hold = std::exchange(nextHold, nullptr)) {
        hold->entered.set_value();
        hold->leave.get_future().wait();
    }
    return Next<decltype(NvrHttpCurlCltProcessReq)>("NvrHttpCurlCltProcessReq")(hReq, dwTimeoutMS, dwConnTimeOutMS,
                                                                                eMode, pfNtf, pvUserBuf);
}
