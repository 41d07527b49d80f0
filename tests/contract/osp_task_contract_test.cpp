/* Tasks as platform/osp.h promises them, of any implementation. */
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/osp.h"

namespace
{

enum { STACK_SIZE = 256 * 1024, PRIORITY = 99 };

HOspTask Start(PFOspTaskEntry entry, void *arg, uint32_t stackSize = STACK_SIZE, uint8_t priority = PRIORITY)
{
    HOspTask task = OspTaskCreate(entry, "contract", priority, stackSize, arg, 0, nullptr);
    EXPECT_NE(task, nullptr);
    return task;
}

/* Late, so that a wait that does not wait is noticed. */
void NoteThread(void *id)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    *static_cast<std::thread::id *>(id) = std::this_thread::get_id();
}

TEST(TaskContract, RunsItsEntryOnItsOwnThreadAndWhatItWroteIsSeenAfterTheWait)
{
    for (const uint8_t priority : {uint8_t{0}, uint8_t{1}, uint8_t{99}, uint8_t{255}}) {
        std::thread::id id;
        EXPECT_NE(OspTaskWaitEnd(Start(NoteThread, &id, STACK_SIZE, priority)), 0U);
        EXPECT_NE(id, std::thread::id());
        EXPECT_NE(id, std::this_thread::get_id());
    }
}

TEST(TaskContract, IdentifierIsThereWhenTheCallReturns)
{
    const uint64_t none = 0xFFFFFFFFFFFFFFFFU;
    uint64_t id = none;
    std::thread::id thread;
    HOspTask task = OspTaskCreate(NoteThread, "contract", PRIORITY, STACK_SIZE, &thread, 0, &id);
    ASSERT_NE(task, nullptr);
    EXPECT_NE(id, none);
    EXPECT_NE(OspTaskWaitEnd(task), 0U);
}

TEST(TaskContract, StackCanBeUsed)
{
    const PFOspTaskEntry use = [](void *sum) {
        volatile char block[1024 * 1024];
        for (size_t i = 0; i < sizeof(block); i += 1024) {
            block[i] = 1;
            *static_cast<int *>(sum) += block[i];
        }
    };
    int sum = 0;
    EXPECT_NE(OspTaskWaitEnd(Start(use, &sum, 2 * 1024 * 1024)), 0U);
    EXPECT_EQ(sum, 1024);
}

TEST(TaskContract, WaitReturnsForATaskThatHasEndedAlready)
{
    HOspSem ended = nullptr;
    ASSERT_NE(OspSemBCreate(&ended), 0U);
    OspSemTake(ended);
    HOspTask task = Start([](void *sem) { OspSemGive(static_cast<HOspSem>(sem)); }, ended);
    OspSemTake(ended);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_NE(OspTaskWaitEnd(task), 0U);
    OspSemDelete(ended);
}

TEST(TaskContract, AnyThreadMayWait)
{
    std::thread::id id;
    HOspTask task = Start(NoteThread, &id);
    std::thread([task] { EXPECT_NE(OspTaskWaitEnd(task), 0U); }).join();
    EXPECT_NE(id, std::thread::id());
}

TEST(TaskContract, WaitFailsForAZeroHandle)
{
    EXPECT_EQ(OspTaskWaitEnd(nullptr), 0U);
}

struct SelfWait {
    HOspSem mayGo;
    HOspTask task;
    uint32_t result;
};

TEST(TaskContract, WaitFailsForTheTaskItselfAndStillSucceedsForOthers)
{
    SelfWait self = {nullptr, nullptr, 7};
    ASSERT_NE(OspSemBCreate(&self.mayGo), 0U);
    OspSemTake(self.mayGo);
    const PFOspTaskEntry wait = [](void *arg) {
        SelfWait &waiter = *static_cast<SelfWait *>(arg);
        OspSemTake(waiter.mayGo);
        waiter.result = OspTaskWaitEnd(waiter.task);
    };
    self.task = Start(wait, &self);
    OspSemGive(self.mayGo);
    EXPECT_NE(OspTaskWaitEnd(self.task), 0U);
    EXPECT_EQ(self.result, 0U);
    OspSemDelete(self.mayGo);
}

} // namespace
