/* Binary semaphores as platform/osp.h promises them, of any implementation. */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/osp.h"
#include "tests/support/race.h"
#include "tests/support/wait.h"

namespace
{

/* Time for a wrong implementation to show itself; a right one passes whatever the time. */
void LetOthersRun()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

bool Reaches(const std::atomic<int> &value, int wanted)
{
    return test::WaitUntil([&] { return value.load() == wanted; });
}

class SemContract : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_NE(OspSemBCreate(&sem), 0U);
        ASSERT_NE(sem, nullptr);
    }

    void TearDown() override
    {
        EXPECT_NE(OspSemDelete(sem), 0U);
    }

    /* A thread that takes twice gets through once, and the second time only after another thread's give. */
    void ExpectOneTakeAndThenAWait()
    {
        std::atomic<int> taken{0};
        std::thread taker([&] {
            OspSemTake(sem);
            taken = 1;
            OspSemTake(sem);
            taken = 2;
        });
        EXPECT_TRUE(Reaches(taken, 1));
        LetOthersRun();
        EXPECT_EQ(taken.load(), 1);
        EXPECT_NE(OspSemGive(sem), 0U);
        taker.join();
        EXPECT_EQ(taken.load(), 2);
    }

    HOspSem sem = nullptr;
};

TEST_F(SemContract, TakeWaitsForTheGive)
{
    EXPECT_NE(OspSemTake(sem), 0U) << "it is created available";
    std::atomic<bool> given{false};
    bool seenGiven = false;
    std::thread taker([&] {
        EXPECT_NE(OspSemTake(sem), 0U);
        seenGiven = given.load();
    });
    LetOthersRun();
    given = true;
    EXPECT_NE(OspSemGive(sem), 0U);
    taker.join();
    EXPECT_TRUE(seenGiven);
}

TEST_F(SemContract, SecondTakeOfOneThreadWaitsForAGiveAndGivesAreNotCounted)
{
    ExpectOneTakeAndThenAWait();
    EXPECT_NE(OspSemGive(sem), 0U);
    EXPECT_NE(OspSemGive(sem), 0U);
    ExpectOneTakeAndThenAWait();
}

TEST_F(SemContract, OneGiveLetsOneOfManyOn)
{
    OspSemTake(sem);
    std::atomic<int> through{0};
    std::vector<std::thread> takers;
    for (int i = 0; i < 4; i++) {
        takers.emplace_back([&] {
            OspSemTake(sem);
            through++;
        });
    }
    for (int i = 1; i <= 4; i++) {
        OspSemGive(sem);
        ASSERT_TRUE(Reaches(through, i));
        LetOthersRun();
        EXPECT_EQ(through.load(), i);
    }
    for (std::thread &taker : takers) {
        taker.join();
    }
}

/* A plain counter: a semaphore that guards nothing loses updates or alarms the thread sanitizer. */
TEST_F(SemContract, WhatIsWrittenBeforeTheGiveIsSeenAfterTheTake)
{
    unsigned total = 0;
    test::Race(4, [&](unsigned) {
        for (unsigned round = 0; round < 5000; round++) {
            OspSemTake(sem);
            total++;
            OspSemGive(sem);
        }
    });
    EXPECT_EQ(total, 4 * 5000U);
}

TEST(SemContractAlone, MayBeDeletedWhileTaken)
{
    HOspSem sem = nullptr;
    ASSERT_NE(OspSemBCreate(&sem), 0U);
    OspSemTake(sem);
    EXPECT_NE(OspSemDelete(sem), 0U);
}

TEST(SemContractAlone, AHandleInPlaceIsOverwrittenAndNotDeleted)
{
    HOspSem first = nullptr;
    ASSERT_NE(OspSemBCreate(&first), 0U);
    HOspSem sem = first;
    ASSERT_NE(OspSemBCreate(&sem), 0U);
    EXPECT_NE(sem, first);
    EXPECT_NE(OspSemTake(first), 0U);
    EXPECT_NE(OspSemTake(sem), 0U);
    OspSemDelete(sem);
    OspSemDelete(first);
}

TEST(SemContractAlone, ZeroHandlesFailAtOnce)
{
    EXPECT_EQ(OspSemTake(nullptr), 0U);
    EXPECT_EQ(OspSemGive(nullptr), 0U);
    EXPECT_EQ(OspSemDelete(nullptr), 0U);
}

} // namespace
