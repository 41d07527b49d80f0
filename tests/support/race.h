/*
 * The same work on several threads at once.
 */
#ifndef TESTS_SUPPORT_RACE_H
#define TESTS_SUPPORT_RACE_H

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace test
{

/* Runs work(0) to work(count - 1) on as many threads, let go at the same moment. */
inline void Race(unsigned count, const std::function<void(unsigned)> &work)
{
    std::atomic<unsigned> ready{0};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            ++ready;
            while (ready < count) {
                std::this_thread::yield();
            }
            work(i);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

} // namespace test

#endif
