/* A semaphore that is created by its first use. */
#include "support/hcc_sem.h"

#include <set>
#include <utility>

#include "tests/support/send_fixture.h"

/* The linker puts this in place of OspSemBCreate: a hook runs once, before the creation. */
static std::function<void()> beforeCreation;

extern "C" {
uint32_t __real_OspSemBCreate(HOspSem *sem);
uint32_t __wrap_OspSemBCreate(HOspSem *sem);

uint32_t __wrap_OspSemBCreate(HOspSem *sem)
{
    if (beforeCreation) {
        std::exchange(beforeCreation, nullptr)();
    }
    return __real_OspSemBCreate(sem);
}
}

namespace
{

using namespace test;

class HccSem : public testing::Test
{
  protected:
    void TearDown() override
    {
        EXPECT_EQ(fake::SemsAlive(), sem != nullptr ? 1U : 0U);
        EXPECT_EQ(fake::Violations(), Texts());
        EXPECT_EQ(fake::Transcript(), "");
    }

    HOspSem sem = nullptr;
};

TEST_F(HccSem, TheFirstUseStoresItAvailableAndLaterOnesReturnItAlsoWhileItIsTaken)
{
    const HOspSem first = HCCSemEnsure(&sem);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(sem, first);
    EXPECT_FALSE(fake::SemIsTaken(first));
    ASSERT_NE(OspSemTake(first), 0U);
    fake::FailSemCreate(1, true);
    EXPECT_EQ(HCCSemEnsure(&sem), first);
    EXPECT_TRUE(fake::SemIsTaken(first));
    EXPECT_EQ(fake::SemsCreated(), 1U);
    EXPECT_NE(OspSemGive(first), 0U);
}

TEST_F(HccSem, WithoutASemaphoreNothingIsStoredAndTheNextUseTriesAgain)
{
    fake::FailSemCreate(1);
    EXPECT_EQ(HCCSemEnsure(&sem), nullptr);
    EXPECT_EQ(sem, nullptr);
    EXPECT_NE(HCCSemEnsure(&sem), nullptr);
}

TEST_F(HccSem, NeedsNoTake)
{
    fake::FailSemTake(1, true);
    const HOspSem first = HCCSemEnsure(&sem);
    EXPECT_EQ(OspSemTake(first), 0U);
    EXPECT_EQ(HCCSemEnsure(&sem), first);
    fake::FailSemTake(0);
    EXPECT_NE(OspSemTake(first), 0U);
    EXPECT_NE(OspSemGive(first), 0U);
}

TEST_F(HccSem, TheOneThatComesSecondGetsThatOfTheFirstAndDeletesItsOwn)
{
    HOspSem first = nullptr;
    beforeCreation = [&] { first = HCCSemEnsure(&sem); };
    EXPECT_EQ(HCCSemEnsure(&sem), first);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(sem, first);
    EXPECT_EQ(fake::SemsCreated(), 2U);
}

TEST_F(HccSem, RacingThreadsGetTheSameOne)
{
    HOspSem gotten[8] = {};
    Race(8, [&](unsigned index) { gotten[index] = HCCSemEnsure(&sem); });
    EXPECT_EQ(std::set<HOspSem>(gotten, gotten + 8), std::set<HOspSem>{sem});
    EXPECT_NE(sem, nullptr);
}

} // namespace
