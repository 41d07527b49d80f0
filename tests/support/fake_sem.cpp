#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <utility>

#include "tests/support/fail_nth.h"
#include "tests/support/fake_platform.h"
#include "tests/support/records.h"

/* Deleted semaphores stay in place, so that their use is noticed and not fatal. */
struct TOspSem {
    std::mutex lock;
    std::condition_variable given;
    bool taken = false;
    bool deleted = false;
    size_t waiting = 0;
};

namespace
{

using test::Guard;

/*
 * Take and give keep away from the lock: it would order threads that the library itself does
 * not order, and so hide races from the thread sanitizer.
 */
struct SemRecords {
    std::mutex lock;
    std::deque<std::unique_ptr<TOspSem>> sems;
    size_t alive = 0;
    test::FailNth create;
    test::FailNth take;
    std::atomic<size_t> nullTakes{0};
};

SemRecords &Rec()
{
    return test::Lasting<SemRecords>();
}

thread_local std::vector<HOspSem> held;

/* Under the records' lock. Only compares: the handle may be any bit pattern. */
bool IsInPlace(HOspSem sem)
{
    return std::any_of(Rec().sems.begin(), Rec().sems.end(), [sem](const std::unique_ptr<TOspSem> &each) {
        if (each.get() != sem) {
            return false;
        }
        const Guard guard(each->lock);
        return !each->deleted;
    });
}

void ForgetHeld(HOspSem sem)
{
    const auto place = std::find(held.begin(), held.end(), sem);
    if (place != held.end()) {
        held.erase(place);
    }
}

/* False if the semaphore is deleted, or was while waiting. */
bool WaitAndTake(HOspSem sem)
{
    std::unique_lock<std::mutex> locked(sem->lock);
    ++sem->waiting;
    sem->given.wait(locked, [sem] { return sem->deleted || !sem->taken; });
    --sem->waiting;
    if (sem->deleted) {
        return false;
    }
    sem->taken = true;
    return true;
}

} // namespace

extern "C" {

uint32_t OspSemBCreate(HOspSem *result)
{
    if (result == nullptr || Rec().create.Hit()) {
        return 0;
    }
    const Guard guard(Rec().lock);
    if (*result != nullptr && IsInPlace(*result)) {
        fake::AddViolation("OspSemBCreate over a semaphore still in place");
    }
    Rec().sems.push_back(std::make_unique<TOspSem>());
    ++Rec().alive;
    *result = Rec().sems.back().get();
    return 1;
}

uint32_t OspSemTake(HOspSem sem)
{
    if (sem == nullptr) {
        Rec().nullTakes.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    if (Rec().take.Hit()) {
        return 0;
    }
    if (!WaitAndTake(sem)) {
        fake::AddViolation("OspSemTake of a deleted semaphore");
        return 0;
    }
    held.push_back(sem);
    return 1;
}

uint32_t OspSemGive(HOspSem sem)
{
    if (sem == nullptr) {
        return 0;
    }
    ForgetHeld(sem);
    {
        const Guard guard(sem->lock);
        if (!sem->deleted) {
            sem->taken = false;
            sem->given.notify_one();
            return 1;
        }
    }
    fake::AddViolation("OspSemGive of a deleted semaphore");
    return 0;
}

uint32_t OspSemDelete(HOspSem sem)
{
    if (sem == nullptr) {
        return 0;
    }
    ForgetHeld(sem);
    bool deletedBefore;
    bool waitedFor;
    {
        const Guard guard(sem->lock);
        deletedBefore = std::exchange(sem->deleted, true);
        waitedFor = sem->waiting != 0;
        sem->given.notify_all();
    }
    if (deletedBefore) {
        fake::AddViolation("OspSemDelete of a deleted semaphore");
        return 0;
    }
    if (waitedFor) {
        fake::AddViolation("OspSemDelete of a semaphore that is waited for");
    }
    const Guard guard(Rec().lock);
    --Rec().alive;
    return 1;
}
}

namespace fake
{

void FailSemCreate(unsigned nth, bool lasting)
{
    Rec().create.Arm(nth, lasting);
}

void FailSemTake(unsigned nth, bool lasting)
{
    Rec().take.Arm(nth, lasting);
}

size_t SemsCreated()
{
    const Guard guard(Rec().lock);
    return Rec().sems.size();
}

size_t SemsAlive()
{
    const Guard guard(Rec().lock);
    return Rec().alive;
}

bool SemIsTaken(HOspSem sem)
{
    if (sem == nullptr) {
        return false;
    }
    const Guard guard(sem->lock);
    return sem->taken && !sem->deleted;
}

size_t SemWaiters(HOspSem sem)
{
    if (sem == nullptr) {
        return 0;
    }
    const Guard guard(sem->lock);
    return sem->waiting;
}

size_t NullTakes()
{
    return Rec().nullTakes.load(std::memory_order_relaxed);
}

size_t HeldByThisThread()
{
    return held.size();
}

} // namespace fake
