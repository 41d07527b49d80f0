/* Ticks, thread names, zero-filling. */
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "nvrhttpcurl/hcc_tools.h"
#include "tests/support/hooks.h"

namespace
{

/* --- the counter ---------------------------------------------------------------------------- */

TEST(TickCount, IsWhatTimesReturns)
{
    hooks::sys_times = [](struct tms *) { return static_cast<clock_t>(12345); };
    EXPECT_EQ(NVRHCCGetTickCount(), 12345U);
    EXPECT_EQ(hooks::Calls("times"), 1U);
}

TEST(TickCount, KeepsAllSixtyFourBits)
{
    hooks::sys_times = [](struct tms *) { return static_cast<clock_t>(0x123456789ABCLL); };
    EXPECT_EQ(NVRHCCGetTickCount(), 0x123456789ABCU);
}

TEST(TickCount, IsZeroWhenTimesFails)
{
    hooks::sys_times = [](struct tms *) { return static_cast<clock_t>(-1); };
    EXPECT_EQ(NVRHCCGetTickCount(), 0U);
}

TEST(TickCount, HandsTimesAZeroedBuffer)
{
    const struct tms zero = {};
    bool zeroed = false;
    hooks::sys_times = [&](struct tms *buffer) {
        zeroed = buffer != nullptr && memcmp(buffer, &zero, sizeof(zero)) == 0;
        return static_cast<clock_t>(1);
    };
    NVRHCCGetTickCount();
    EXPECT_TRUE(zeroed);
}

TEST(TickCount, TheRealOneDoesNotGoBackwards)
{
    const uint64_t first = NVRHCCGetTickCount();
    EXPECT_GT(first, 0U);
    EXPECT_GE(NVRHCCGetTickCount(), first);
}

/* --- conversion ------------------------------------------------------------------------------- */

/* The rate is kept once read, so each case brings its own into a fresh process. */
class TickToMS : public testing::Test
{
  protected:
    void SetRates(const std::vector<long> &answers)
    {
        hooks::sys_sysconf = [this, answers](int name) {
            EXPECT_EQ(name, _SC_CLK_TCK);
            return answers[asked < answers.size() ? asked++ : answers.size() - 1];
        };
    }

    size_t asked = 0;
};

TEST_F(TickToMS, GivesWholeSecondsOnly)
{
    SetRates({100});
    EXPECT_EQ(NVRHCCTickToMS(0), 0U);
    EXPECT_EQ(NVRHCCTickToMS(1), 0U);
    EXPECT_EQ(NVRHCCTickToMS(99), 0U);
    EXPECT_EQ(NVRHCCTickToMS(100), 1000U);
    EXPECT_EQ(NVRHCCTickToMS(150), 1000U);
    EXPECT_EQ(NVRHCCTickToMS(199), 1000U);
    EXPECT_EQ(NVRHCCTickToMS(250), 2000U);
}

TEST_F(TickToMS, DividesByTheRateThatTheSystemTells)
{
    SetRates({250});
    EXPECT_EQ(NVRHCCTickToMS(249), 0U);
    EXPECT_EQ(NVRHCCTickToMS(250), 1000U);
    EXPECT_EQ(NVRHCCTickToMS(1000), 4000U);
}

TEST_F(TickToMS, WrapsWithoutSaturation)
{
    SetRates({100});
    EXPECT_EQ(NVRHCCTickToMS(429496700), 4294967000U);
    EXPECT_EQ(NVRHCCTickToMS(429496800), 704U);
    EXPECT_EQ(NVRHCCTickToMS(0xFFFFFFFFU), 4294966336U);
}

TEST_F(TickToMS, DividesUnsigned)
{
    SetRates({1});
    EXPECT_EQ(NVRHCCTickToMS(0x80000000U), 0U); /* 2^31 * 1000 is a multiple of 2^32 */
    EXPECT_EQ(NVRHCCTickToMS(0x80000001U), 1000U);
}

TEST_F(TickToMS, ReadsTheRateOnce)
{
    SetRates({100, 50});
    EXPECT_EQ(NVRHCCTickToMS(100), 1000U);
    EXPECT_EQ(NVRHCCTickToMS(100), 1000U);
    EXPECT_EQ(asked, 1U);
}

TEST_F(TickToMS, AsksAgainAfterAFailedReading)
{
    SetRates({-1, 0, 100});
    EXPECT_EQ(NVRHCCTickToMS(500), 0U);
    EXPECT_EQ(NVRHCCTickToMS(500), 0U);
    EXPECT_EQ(NVRHCCTickToMS(500), 5000U);
    EXPECT_EQ(NVRHCCTickToMS(500), 5000U);
    EXPECT_EQ(asked, 3U);
}

TEST_F(TickToMS, MayBeAskedFirstByManyThreadsAtOnce)
{
    std::vector<std::thread> threads;
    std::vector<uint32_t> results(8, 0);
    for (size_t i = 0; i < results.size(); ++i) {
        threads.emplace_back(
            [&results, i] { results[i] = NVRHCCTickToMS(static_cast<uint32_t>(3 * sysconf(_SC_CLK_TCK))); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(results, std::vector<uint32_t>(8, 3000));
}

/* --- difference ------------------------------------------------------------------------------- */

TEST(TickDiff, IsLaterMinusEarlier)
{
    EXPECT_EQ(NVRHCCTickDiff(10, 25), 15U);
    EXPECT_EQ(NVRHCCTickDiff(7, 7), 0U);
}

TEST(TickDiff, IsRightAcrossAWrap)
{
    EXPECT_EQ(NVRHCCTickDiff(0xFFFFFFF0U, 0x10), 0x20U);
    EXPECT_EQ(NVRHCCTickDiff(0xFFFFFFFFU, 0), 1U);
    EXPECT_EQ(NVRHCCTickDiff(1, 0), 0xFFFFFFFFU);
}

/* --- thread names ------------------------------------------------------------------------------- */

TEST(ThreadSetName, NamesTheCallingThread)
{
    char name[32] = {};
    uint32_t result = 1;
    std::thread thread([&] {
        result = NVRHCCThreadSetName("short");
        pthread_getname_np(pthread_self(), name, sizeof(name));
    });
    thread.join();
    EXPECT_EQ(result, 0U);
    EXPECT_STREQ(name, "short");
    pthread_getname_np(pthread_self(), name, sizeof(name));
    EXPECT_STRNE(name, "short");
}

TEST(ThreadSetName, WorkerNamesAreCutToTheSameFifteenCharacters)
{
    for (const char *full : {"NvrHttpCurlClt0203", "NvrHttpCurlClt015015", "NvrHttpCurlClt0000"}) {
        char name[32] = {};
        std::thread thread([&] {
            EXPECT_EQ(NVRHCCThreadSetName(full), 0U);
            pthread_getname_np(pthread_self(), name, sizeof(name));
        });
        thread.join();
        EXPECT_STREQ(name, "NvrHttpCurlClt0") << full;
    }
}

TEST(ThreadSetName, HandsTheWholeNameOn)
{
    std::string seen;
    hooks::sys_set_name = [&](const char *name) {
        seen = name;
        return 0;
    };
    EXPECT_EQ(NVRHCCThreadSetName("NvrHttpCurlClt0203"), 0U);
    EXPECT_EQ(seen, "NvrHttpCurlClt0203");
}

TEST(ThreadSetName, ReportsEveryRefusal)
{
    for (const int refusal : {-1, 1, 22}) {
        hooks::sys_set_name = [refusal](const char *) { return refusal; };
        EXPECT_EQ(NVRHCCThreadSetName("name"), 0xFFFFFFFFU) << refusal;
    }
}

/* --- zero-filling --------------------------------------------------------------------------------- */

TEST(Memzero, ClearsJustTheGivenBytesAndReturnsTheBlock)
{
    unsigned char block[16];
    memset(block, 0xA5, sizeof(block));
    EXPECT_EQ(NVRHCCMemzero(block + 2, 8), block + 2);
    for (size_t i = 0; i < sizeof(block); ++i) {
        EXPECT_EQ(block[i], i >= 2 && i < 10 ? 0 : 0xA5) << i;
    }
}

TEST(Memzero, OfNoBytesChangesNothing)
{
    unsigned char byte = 0xA5;
    EXPECT_EQ(NVRHCCMemzero(&byte, 0), &byte);
    EXPECT_EQ(byte, 0xA5);
}

} // namespace
