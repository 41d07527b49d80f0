/*
 * Waiting in tests: poll for what has to come, never sleep for a fixed time.
 */
#ifndef TESTS_SUPPORT_WAIT_H
#define TESTS_SUPPORT_WAIT_H

#include <chrono>
#include <functional>
#include <thread>

namespace test
{

/* How long a test waits for what has to come. It only costs time where something is lost. */
constexpr std::chrono::seconds PATIENCE{60};

/* Polls until the condition holds; false after the limit. */
inline bool WaitUntil(const std::function<bool()> &condition, std::chrono::milliseconds limit = PATIENCE)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace test

#endif
