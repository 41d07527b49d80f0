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
#include "tests/support/race.h"

namespace
{

/* --- the counter ---------------------------------------------------------------------------- */

TEST(TickCount, IsWhatTimesReturnsAndZeroWhereItFails)
{
    for (const long ticks : {12345L, 0x123456789ABCL, -1L}) {
        hooks::sys_times = [ticks](struct tms *) { return ticks; };
        EXPECT_EQ(NVRHCCGetTickCount(), ticks < 0 ? 0 : static_cast<uint64_t>(ticks));
    }
    EXPECT_EQ(hooks::Calls("times"), 3U);
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

/* A process for each, since the rate is kept. */
struct Conversion {
    const char *name;
    long rate;
    std::vector<std::pair<uint32_t, uint32_t>> values; /* ticks and milliseconds */
};

const Conversion CONVERSIONS[] = {
    {"GivesWholeSecondsOnly", 100, {{0, 0}, {1, 0}, {99, 0}, {100, 1000}, {150, 1000}, {199, 1000}, {250, 2000}}},
    {"DividesByTheRateOfTheSystem", 250, {{249, 0}, {250, 1000}, {1000, 4000}}},
    {"WrapsWithoutSaturation", 100, {{429496700, 4294967000}, {429496800, 704}, {0xFFFFFFFF, 4294966336}}},
    {"DividesUnsigned", 1, {{0x80000000, 0}, {0x80000001, 1000}}}}; /* 2^31 * 1000 is a multiple of 2^32 */

class TickConversion : public TickToMS, public testing::WithParamInterface<Conversion>
{
};

TEST_P(TickConversion, IsRight)
{
    SetRates({GetParam().rate});
    for (const auto &[ticks, milliseconds] : GetParam().values) {
        EXPECT_EQ(NVRHCCTickToMS(ticks), milliseconds) << ticks;
    }
}

INSTANTIATE_TEST_SUITE_P(Case, TickConversion, testing::ValuesIn(CONVERSIONS),
                         [](const auto &test) { return test.param.name; });

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
    test::Race(8, [](unsigned) { EXPECT_EQ(NVRHCCTickToMS(static_cast<uint32_t>(3 * sysconf(_SC_CLK_TCK))), 3000U); });
}

/* --- difference ------------------------------------------------------------------------------- */

TEST(TickDiff, IsLaterMinusEarlierAlsoAcrossAWrap)
{
    EXPECT_EQ(NVRHCCTickDiff(10, 25), 15U);
    EXPECT_EQ(NVRHCCTickDiff(7, 7), 0U);
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
    hooks::sys_set_name = [&](const char *name) { return seen = name, 0; };
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
