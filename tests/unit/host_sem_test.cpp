/* The host's binary semaphores, against platform/osp.h. */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/osp.h"

namespace
{

/* Time for a wrong implementation to show itself; a right one passes whatever the time. */
void LetOthersRun()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

bool Reaches(const std::atomic<int> &rValue, int nWanted)
{
    const auto tLimit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (rValue.load() != nWanted) {
        if (std::chrono::steady_clock::now() > tLimit) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

class HostSem : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_NE(OspSemBCreate(&hSem), 0U);
        ASSERT_NE(hSem, nullptr);
    }

    void TearDown() override
    {
        EXPECT_NE(OspSemDelete(hSem), 0U);
    }

    /* A thread that takes twice gets through once, and the second time only after a give. */
    void ExpectOneTakeAndThenAWait()
    {
        std::atomic<int> nTaken{0};
        std::thread tTaker([&] {
            OspSemTake(hSem);
            nTaken = 1;
            OspSemTake(hSem);
            nTaken = 2;
        });
        EXPECT_TRUE(Reaches(nTaken, 1));
        LetOthersRun();
        EXPECT_EQ(nTaken.load(), 1);
        OspSemGive(hSem);
        tTaker.join();
        EXPECT_EQ(nTaken.load(), 2);
    }

    HOspSem hSem = nullptr;
};

TEST_F(HostSem, IsCreatedAvailable)
{
    EXPECT_NE(OspSemTake(hSem), 0U);
    EXPECT_NE(OspSemGive(hSem), 0U);
}

TEST_F(HostSem, TakeWaitsForTheGive)
{
    OspSemTake(hSem);
    std::atomic<bool> bGiven{false};
    bool bSeenGiven = false;
    std::thread tTaker([&] {
        EXPECT_NE(OspSemTake(hSem), 0U);
        bSeenGiven = bGiven.load();
    });
    LetOthersRun();
    bGiven = true;
    EXPECT_NE(OspSemGive(hSem), 0U);
    tTaker.join();
    EXPECT_TRUE(bSeenGiven);
}

TEST_F(HostSem, SecondTakeOfOneThreadWaitsForAGive)
{
    ExpectOneTakeAndThenAWait();
}

TEST_F(HostSem, GivesAreNotCounted)
{
    EXPECT_NE(OspSemGive(hSem), 0U);
    EXPECT_NE(OspSemGive(hSem), 0U);
    ExpectOneTakeAndThenAWait();
}

TEST_F(HostSem, AnotherThreadMayGive)
{
    OspSemTake(hSem);
    std::thread tGiver([this] { EXPECT_NE(OspSemGive(hSem), 0U); });
    EXPECT_NE(OspSemTake(hSem), 0U);
    tGiver.join();
}

TEST_F(HostSem, OneGiveLetsOneOfManyOn)
{
    OspSemTake(hSem);
    std::atomic<int> nThrough{0};
    std::vector<std::thread> atTakers;
    for (int nI = 0; nI < 4; nI++) {
        atTakers.emplace_back([&] {
            OspSemTake(hSem);
            nThrough++;
        });
    }
    for (int nI = 1; nI <= 4; nI++) {
        OspSemGive(hSem);
        ASSERT_TRUE(Reaches(nThrough, nI));
        LetOthersRun();
        EXPECT_EQ(nThrough.load(), nI);
    }
    for (std::thread &rTaker : atTakers) {
        rTaker.join();
    }
}

/* A plain counter: a lost update, or the thread sanitizer, tells if the semaphore guards nothing. */
TEST_F(HostSem, WhatIsWrittenBeforeTheGiveIsSeenAfterTheTake)
{
    const unsigned nThreads = 4;
    const unsigned nRounds = 5000;
    unsigned nCount = 0;
    std::vector<std::thread> atThreads;
    for (unsigned nI = 0; nI < nThreads; nI++) {
        atThreads.emplace_back([&] {
            for (unsigned nRound = 0; nRound < nRounds; nRound++) {
                OspSemTake(hSem);
                nCount++;
                OspSemGive(hSem);
            }
        });
    }
    for (std::thread &rThread : atThreads) {
        rThread.join();
    }
    EXPECT_EQ(nCount, nThreads * nRounds);
}

TEST(HostSemAlone, MayBeDeletedWhileTaken)
{
    HOspSem hSem = nullptr;
    ASSERT_NE(OspSemBCreate(&hSem), 0U);
    OspSemTake(hSem);
    EXPECT_NE(OspSemDelete(hSem), 0U);
}

TEST(HostSemAlone, TheTakerMayDeleteAtOnce)
{
    for (int nI = 0; nI < 500; nI++) {
        HOspSem hSem = nullptr;
        ASSERT_NE(OspSemBCreate(&hSem), 0U);
        OspSemTake(hSem);
        std::thread tGiver([hSem] { OspSemGive(hSem); });
        OspSemTake(hSem);
        OspSemDelete(hSem);
        tGiver.join();
    }
}

TEST(HostSemAlone, AHandleInPlaceIsOverwrittenAndNotDeleted)
{
    HOspSem hFirst = nullptr;
    ASSERT_NE(OspSemBCreate(&hFirst), 0U);
    HOspSem hSem = hFirst;
    ASSERT_NE(OspSemBCreate(&hSem), 0U);
    EXPECT_NE(hSem, hFirst);
    EXPECT_NE(OspSemTake(hFirst), 0U);
    EXPECT_NE(OspSemTake(hSem), 0U);
    OspSemDelete(hSem);
    OspSemDelete(hFirst);
}

TEST(HostSemAlone, ZeroHandlesFailAtOnce)
{
    EXPECT_EQ(OspSemBCreate(nullptr), 0U);
    EXPECT_EQ(OspSemTake(nullptr), 0U);
    EXPECT_EQ(OspSemGive(nullptr), 0U);
    EXPECT_EQ(OspSemDelete(nullptr), 0U);
}

} // namespace
