/*
 * Receive buffers that end before unreadable memory.
 */
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "tools/post/answer_slab.h"

namespace
{

class AnswerSlab : public testing::TestWithParam<uint32_t>
{
  protected:
    AnswerSlab()
    {
        EXPECT_TRUE(AnswerSlabCreate(slab, 3, GetParam()));
    }

    ~AnswerSlab() override
    {
        AnswerSlabDestroy(slab);
    }

    char *Text(uint32_t index)
    {
        return AnswerSlabText(slab, index);
    }

    size_t Size() const
    {
        return size_t{GetParam()} + 1;
    }

    TAnswerSlab slab = {};
};

const auto page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));

/* Whether an address can be read: write refuses one that cannot. */
bool IsReadable(const char *address)
{
    int ends[2];
    if (pipe(ends) != 0) {
        ADD_FAILURE() << "no pipe";
        return false;
    }
    const bool readable = write(ends[1], address, 1) == 1;
    close(ends[0]);
    close(ends[1]);
    return readable;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Capacities, AnswerSlab, testing::Values(1, 100, page - 2, page - 1, page, 3 * page + 5));

TEST_P(AnswerSlab, EachBufferIsZeroedAndWritable)
{
    const std::string zeros(Size(), '\0');
    for (uint32_t index = 0; index < 3; index++) {
        EXPECT_EQ(std::string(Text(index), Size()), zeros);
        memset(Text(index), 'a' + static_cast<int>(index), Size());
    }
    for (uint32_t index = 0; index < 3; index++) {
        EXPECT_EQ(std::string(Text(index), Size()), std::string(Size(), static_cast<char>('a' + index)));
    }
}

TEST_P(AnswerSlab, EachBufferEndsBeforeUnreadableMemory)
{
    for (uint32_t index = 0; index < 3; index++) {
        EXPECT_TRUE(IsReadable(Text(index) + Size() - 1));
        EXPECT_FALSE(IsReadable(Text(index) + Size()));
        EXPECT_FALSE(IsReadable(Text(index) + Size() + page));
    }
}

TEST_P(AnswerSlab, IndexIsFoundByTheTextUnlessItIsAnotherSlabs)
{
    TAnswerSlab other = {};
    ASSERT_TRUE(AnswerSlabCreate(other, 1, GetParam()));
    EXPECT_FALSE(AnswerSlabHas(slab, AnswerSlabText(other, 0)));
    for (uint32_t index = 0; index < 3; index++) {
        EXPECT_EQ(AnswerSlabIndex(slab, Text(index)), index);
        EXPECT_TRUE(AnswerSlabHas(slab, Text(index)));
        EXPECT_FALSE(AnswerSlabHas(other, Text(index)));
    }
    AnswerSlabDestroy(other);
}

TEST_P(AnswerSlab, ClearingZeroesOneBuffer)
{
    for (uint32_t index = 0; index < 3; index++) {
        memset(Text(index), 'x', Size());
    }
    AnswerSlabClear(slab, 1);
    EXPECT_EQ(std::string(Text(0), Size()), std::string(Size(), 'x'));
    EXPECT_EQ(std::string(Text(1), Size()), std::string(Size(), '\0'));
    EXPECT_EQ(std::string(Text(2), Size()), std::string(Size(), 'x'));
}

TEST(AnswerSlabAlone, IsNothingWithoutMemoryAndOnceDestroyed)
{
    TAnswerSlab slab = {};
    EXPECT_FALSE(AnswerSlabCreate(slab, 1U << 20, UINT32_MAX));
    EXPECT_EQ(slab.pchMap, nullptr);
    AnswerSlabDestroy(slab);
    ASSERT_TRUE(AnswerSlabCreate(slab, 1, 10));
    AnswerSlabDestroy(slab);
    EXPECT_EQ(slab.pchMap, nullptr);
    AnswerSlabDestroy(slab);
}

TEST(AnswerSlabDeathTest, OverrunEndsTheProcessWithItsMessage)
{
    TAnswerSlab slab = {};
    ASSERT_TRUE(AnswerSlabCreate(slab, 2, 10));
    EXPECT_EXIT(
        {
            AnswerSlabReportOverrun(slab, "too long\n", 11);
            memset(AnswerSlabText(slab, 0), 'x', 12);
        },
        testing::ExitedWithCode(11), "^too long\n$");
    AnswerSlabDestroy(slab);
}

TEST(AnswerSlabDeathTest, FaultElsewhereIsNotReported)
{
    TAnswerSlab slab = {};
    ASSERT_TRUE(AnswerSlabCreate(slab, 1, 10));
    void *unreadable = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(unreadable, MAP_FAILED);
    EXPECT_EXIT(
        {
            signal(SIGSEGV, SIG_DFL);
            AnswerSlabReportOverrun(slab, "too long\n", 11);
            memset(unreadable, 'x', 1);
        },
        testing::KilledBySignal(SIGSEGV), "^$");
    munmap(unreadable, page);
    AnswerSlabDestroy(slab);
}
