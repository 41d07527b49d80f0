/*
 * Percentiles of measured times and their texts.
 */
#include <gtest/gtest.h>

#include <vector>

#include "tools/post/latency.h"

namespace
{

/* 1 to count, the largest one first. */
std::vector<double> Countdown(int count)
{
    std::vector<double> values;
    for (int value = count; value > 0; value--) {
        values.push_back(value);
    }
    return values;
}

} // namespace

TEST(Latency, NoValuesGiveZeros)
{
    const TLatencySummary summary = SummarizeLatency({});
    EXPECT_EQ(summary.dP50, 0);
    EXPECT_EQ(summary.dP95, 0);
    EXPECT_EQ(summary.dP99, 0);
    EXPECT_EQ(summary.dMax, 0);
}

TEST(Latency, OneValueIsEachPercentile)
{
    const TLatencySummary summary = SummarizeLatency({7});
    EXPECT_EQ(summary.dP50, 7);
    EXPECT_EQ(summary.dP95, 7);
    EXPECT_EQ(summary.dP99, 7);
    EXPECT_EQ(summary.dMax, 7);
}

TEST(Latency, HundredValuesInAnyOrder)
{
    const TLatencySummary summary = SummarizeLatency(Countdown(100));
    EXPECT_EQ(summary.dP50, 50);
    EXPECT_EQ(summary.dP95, 95);
    EXPECT_EQ(summary.dP99, 99);
    EXPECT_EQ(summary.dMax, 100);
}

/* A rank between two values is the upper one: half of three values is the second. */
TEST(Latency, RanksAreRoundedUp)
{
    const TLatencySummary summary = SummarizeLatency(Countdown(3));
    EXPECT_EQ(summary.dP50, 2);
    EXPECT_EQ(summary.dP95, 3);
    EXPECT_EQ(SummarizeLatency(Countdown(2)).dP50, 1);
    EXPECT_EQ(SummarizeLatency(Countdown(11)).dP95, 11);
    EXPECT_EQ(SummarizeLatency(Countdown(101)).dP99, 100);
}

TEST(LatencyText, UnitFollowsTheSize)
{
    EXPECT_EQ(MillisText(0), "0 us");
    EXPECT_EQ(MillisText(0.8124), "812 us");
    EXPECT_EQ(MillisText(1), "1.0 ms");
    EXPECT_EQ(MillisText(12.34), "12.3 ms");
    EXPECT_EQ(MillisText(999.9), "999.9 ms");
    EXPECT_EQ(MillisText(1000), "1.000 s");
    EXPECT_EQ(MillisText(1234.4), "1.234 s");
}
