/*
 * Many threads, callbacks that send again, and what holds while a callback runs.
 */
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "client_fixture.h"

namespace
{

using namespace test;

using ClientThread = ClientTest;

TEST_F(ClientThread, EightThreadsOfFiveHundredSends)
{
    const ScriptedServer server(ECHOING);
    Client client;
    std::atomic<size_t> right{0};
    std::vector<std::thread> threads;
    for (size_t thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&, thread] {
            for (size_t number = 0; number < 500; ++number) {
                const std::string body = std::to_string(thread) + "/" + std::to_string(number);
                const Response answer = client.send(PostOf(server.Url(), body));
                right.fetch_add(answer.ok() && answer.body == body ? 1 : 0);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right.load(), 4000U);
    EXPECT_EQ(client.outstanding(), 0U);
}

/* All at once: callbacks, futures and refusals of the same client. */
TEST_F(ClientThread, EveryRequestCompletesExactlyOnce)
{
    constexpr size_t THREADS = 8;
    constexpr size_t EACH = 200;
    const ScriptedServer server(ECHOING);
    std::vector<std::atomic<unsigned>> completions(THREADS * EACH);
    std::atomic<size_t> refused{0};
    {
        Client client(Limits(3, 50));
        std::vector<std::thread> threads;
        for (size_t thread = 0; thread < THREADS; ++thread) {
            threads.emplace_back([&, thread] {
                for (size_t number = thread * EACH; number < (thread + 1) * EACH; ++number) {
                    client.send_async(PostOf(server.Url()), [&completions, &refused, number](const Response &answer) {
                        completions[number].fetch_add(1);
                        refused.fetch_add(answer.error == Error::limit_reached ? 1 : 0);
                    });
                    EXPECT_LE(client.outstanding(), 50U);
                }
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_TRUE(WaitUntil([&client] { return client.outstanding() == 0; }));
    }
    for (const std::atomic<unsigned> &count : completions) {
        EXPECT_EQ(count.load(), 1U);
    }
    EXPECT_EQ(server.RequestCount() + refused.load(), THREADS * EACH);
}

/* --- callbacks ----------------------------------------------------------------------------------- */

/* Sends until it has been called so many times. */
struct Chain {
    Client &client;
    std::string url;
    size_t left;
    size_t failed = 0;
    std::promise<void> over{};

    void Next()
    {
        client.send_async(PostOf(url), [this](const Response &answer) {
            failed += answer.ok() ? 0 : 1;
            --left;
            if (left == 0) {
                over.set_value();
            } else {
                Next();
            }
        });
    }
};

/* With places for the chains alone: each callback finds the place of its own request free. */
TEST_F(ClientThread, ChainsOfAHundredFromCallbacks)
{
    const ScriptedServer server(ECHOING);
    Client client(Limits(2, 4));
    std::vector<std::unique_ptr<Chain>> chains;
    for (size_t number = 0; number < 4; ++number) {
        chains.emplace_back(new Chain{client, server.Url(), 100});
        chains.back()->Next();
    }
    for (const auto &chain : chains) {
        EXPECT_EQ(chain->over.get_future().wait_for(PATIENCE), std::future_status::ready);
        EXPECT_EQ(chain->failed, 0U);
    }
    EXPECT_EQ(server.RequestCount(), 400U);
}

TEST_F(ClientThread, ThePlaceIsFreeBeforeTheCallbackStarts)
{
    const ScriptedServer server(ECHOING);
    const ScriptedServer silent(SILENT);
    Client client(Limits(1, 1));
    for (const std::string &url : {server.Url(), silent.Url()}) {
        std::promise<size_t> seen;
        nvrhttpcurl::Request request = PostOf(url);
        request.timeout = milliseconds(500);
        client.send_async(request, [&](const Response &) { seen.set_value(client.outstanding()); });
        EXPECT_EQ(seen.get_future().get(), 0U);
    }
    for (size_t number = 0; number < 50; ++number) {
        client.send_async(PostOf(server.Url())).get();
        EXPECT_EQ(client.outstanding(), 0U);
    }
}

TEST_F(ClientThread, CallbacksOfAWorkerComeOneAtATime)
{
    const ScriptedServer server(ECHOING);
    Client client(Limits(1));
    std::atomic<int> running{0};
    std::atomic<int> most{0};
    std::atomic<size_t> ended{0};
    const std::thread::id caller = std::this_thread::get_id();
    for (size_t number = 0; number < 100; ++number) {
        client.send_async(PostOf(server.Url()), [&](const Response &) {
            const int now = running.fetch_add(1) + 1;
            int before = most.load();
            while (before < now && !most.compare_exchange_weak(before, now)) {
            }
            std::this_thread::sleep_for(milliseconds(2));
            EXPECT_NE(std::this_thread::get_id(), caller);
            running.fetch_sub(1);
            ended.fetch_add(1);
        });
    }
    EXPECT_TRUE(WaitUntil([&ended] { return ended.load() == 100; }));
    EXPECT_EQ(most.load(), 1);
}

/* The other worker's requests end meanwhile; a worker that is held up reports late, but reports. */
TEST_F(ClientThread, ACallbackHoldsUpItsWorkerAlone)
{
    const ScriptedServer server(ECHOING);
    Client client(Limits(2));
    std::promise<void> entered;
    std::promise<void> leave;
    std::future<void> left = leave.get_future();
    client.send_async(PostOf(server.Url()), [&](const Response &) {
        entered.set_value();
        left.wait();
    });
    entered.get_future().wait();
    std::vector<std::future<Response>> answers;
    answers.push_back(client.send_async(PostOf(server.Url())));
    answers.push_back(client.send_async(PostOf(server.Url())));
    EXPECT_TRUE(WaitUntil([&answers] { return IsReady(answers[0]) || IsReady(answers[1]); }));
    leave.set_value();
    for (std::future<Response> &answer : answers) {
        ExpectAnswer(Await(std::move(answer)), "{}");
    }
}

using ClientThreadDeathTest = ClientThread;

/* What the program prints where std::terminate is called. */
[[noreturn]] void Terminated()
{
    fputs("terminated\n", stderr);
    abort();
}

TEST_F(ClientThreadDeathTest, AnExceptionThatLeavesACallbackEndsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            std::set_terminate(Terminated);
            const ScriptedServer server(ECHOING);
            Client client;
            client.send_async(PostOf(server.Url()), [](const Response &) { throw std::runtime_error("left"); });
            WaitUntil([] { return false; });
        },
        "terminated");
    EXPECT_DEATH(
        {
            std::set_terminate(Terminated);
            Client client;
            try {
                client.send_async(PostOf("no URL"), [](const Response &) { throw std::runtime_error("left"); });
            } catch (const std::runtime_error &) {
            }
        },
        "terminated");
}

} // namespace
