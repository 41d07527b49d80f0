/*
 * The n-th failure: counts calls and says which of them have to fail.
 *
 * nth counts from 1, from Arm on; with lasting every later call fails too; nth 0 takes a
 * pending failure back. Relaxed: counting must not order threads that the library does not
 * order, which would hide races from the thread sanitizer.
 */
#ifndef TESTS_SUPPORT_FAIL_NTH_H
#define TESTS_SUPPORT_FAIL_NTH_H

#include <atomic>
#include <cstddef>

namespace test
{

class FailNth
{
  public:
    void Arm(unsigned nth, bool keep)
    {
        lasting.store(keep, std::memory_order_relaxed);
        left.store(nth, std::memory_order_relaxed);
    }

    /* Counts a call; true if it has to fail. */
    bool Hit()
    {
        calls.fetch_add(1, std::memory_order_relaxed);
        const unsigned atEnd = lasting.load(std::memory_order_relaxed) ? 1 : 0;
        unsigned now = left.load(std::memory_order_relaxed);
        while (now != 0 && !left.compare_exchange_weak(now, now == 1 ? atEnd : now - 1, std::memory_order_relaxed)) {
        }
        return now == 1;
    }

    /* All calls so far, failed ones included. */
    size_t Calls() const
    {
        return calls.load(std::memory_order_relaxed);
    }

  private:
    std::atomic<unsigned> left{0};
    std::atomic<bool> lasting{false};
    std::atomic<size_t> calls{0};
};

} // namespace test

#endif
