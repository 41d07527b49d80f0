/* The host's base helpers, against platform/appbase.h. */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/appbase.h"

namespace
{

TEST(AppStrstr, FindsTheFirstPlace)
{
    const char szText[] = "https://host/https";
    EXPECT_EQ(AppStrstr(szText, "https"), szText);
    EXPECT_EQ(AppStrstr(szText, "/h"), szText + 7);
}

TEST(AppStrstr, HeedsTheCase)
{
    EXPECT_EQ(AppStrstr("HTTPS://host", "https"), nullptr);
}

TEST(AppStrstr, FindsNothingLongerThanTheText)
{
    EXPECT_EQ(AppStrstr("http", "https"), nullptr);
    EXPECT_EQ(AppStrstr("", "h"), nullptr);
}

TEST(AppStrstr, EmptyPartIsTheTextItself)
{
    const char szText[] = "text";
    EXPECT_EQ(AppStrstr(szText, ""), szText);
}

TEST(AppStrstr, NullFindsNothing)
{
    EXPECT_EQ(AppStrstr(nullptr, "part"), nullptr);
    EXPECT_EQ(AppStrstr("text", nullptr), nullptr);
    EXPECT_EQ(AppStrstr(nullptr, nullptr), nullptr);
}

TEST(AppStrlen, CountsWithoutTheTerminator)
{
    EXPECT_EQ(AppStrlen("w"), 1U);
    EXPECT_EQ(AppStrlen(""), 0U);
    EXPECT_EQ(AppStrlen(std::string(100000, 'x').c_str()), 100000U);
    EXPECT_EQ(AppStrlen(nullptr), 0U);
}

std::chrono::nanoseconds TimeOf(uint32_t dwMS)
{
    const auto tBegin = std::chrono::steady_clock::now();
    AppDelay(dwMS);
    return std::chrono::steady_clock::now() - tBegin;
}

TEST(AppDelay, SleepsAtLeastItsTime)
{
    EXPECT_GE(TimeOf(2), std::chrono::milliseconds(2));
    EXPECT_GE(TimeOf(30), std::chrono::milliseconds(30));
    EXPECT_GE(TimeOf(1050), std::chrono::milliseconds(1050));
}

/* Whoever is put to sleep gives up the processor of its own accord, and the system counts that. */
TEST(AppDelay, ZeroReturnsAtOnce)
{
    rusage tBefore = {};
    rusage tAfter = {};
    ASSERT_EQ(getrusage(RUSAGE_THREAD, &tBefore), 0);
    for (int nI = 0; nI < 1000; nI++) {
        AppDelay(0);
    }
    ASSERT_EQ(getrusage(RUSAGE_THREAD, &tAfter), 0);
    EXPECT_LT(tAfter.ru_nvcsw - tBefore.ru_nvcsw, 100);
}

volatile sig_atomic_t nSignals = 0;

TEST(AppDelay, GoesOnAfterASignal)
{
    struct sigaction tAction = {};
    tAction.sa_handler = [](int) { nSignals = nSignals + 1; };
    ASSERT_EQ(sigaction(SIGALRM, &tAction, nullptr), 0);

    sigevent tEvent = {};
    tEvent.sigev_notify = SIGEV_SIGNAL;
    tEvent.sigev_signo = SIGALRM;
    timer_t tTimer = {};
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &tEvent, &tTimer), 0);
    itimerspec tTimes = {};
    tTimes.it_value.tv_nsec = 10000000;
    tTimes.it_interval.tv_nsec = 10000000;
    ASSERT_EQ(timer_settime(tTimer, 0, &tTimes, nullptr), 0);

    EXPECT_GE(TimeOf(200), std::chrono::milliseconds(200));
    timer_delete(tTimer);
    EXPECT_GT(nSignals, 0);
}

TEST(AppConvertHtons, BringsTheHighByteToTheFront)
{
    const uint16_t wNet = AppConvertHtons(0xB78E);
    const unsigned char abyWanted[2] = {0xB7, 0x8E};
    EXPECT_EQ(memcmp(&wNet, abyWanted, sizeof(wNet)), 0);
}

TEST(AppConvertStrtoNet, WritesFamilyAndAddressInNetworkOrder)
{
    TAppNetAddr tAddr = {};
    EXPECT_EQ(AppConvertStrtoNet("127.0.0.1", &tAddr), 0U);
    EXPECT_EQ(tAddr.dwIPv4, inet_addr("127.0.0.1"));
    EXPECT_EQ(tAddr.dwFamily, static_cast<uint32_t>(AF_INET));
    const TAppNetAddr tZero = {};
    EXPECT_EQ(memcmp(tAddr.abyReserved, tZero.abyReserved, sizeof(tAddr.abyReserved)), 0);
    EXPECT_EQ(sizeof(TAppNetAddr), 20U);

    EXPECT_EQ(AppConvertStrtoNet("255.255.255.255", &tAddr), 0U);
    EXPECT_EQ(tAddr.dwIPv4, 0xFFFFFFFFU);
}

TEST(AppConvertStrtoNet, LeavesTheRecordOfABadTextAlone)
{
    for (const char *szBad : {"", "localhost", "127.0.0", "127.0.0.256", "127.0.0.1 ", "::1", "0x7f.0.0.1"}) {
        TAppNetAddr tAddr = {};
        EXPECT_NE(AppConvertStrtoNet(szBad, &tAddr), 0U) << szBad;
        EXPECT_EQ(tAddr.dwFamily, 0U) << szBad;
        EXPECT_EQ(tAddr.dwIPv4, 0U) << szBad;
    }
}

TEST(AppConvertStrtoNet, RefusesNull)
{
    TAppNetAddr tAddr = {};
    EXPECT_NE(AppConvertStrtoNet(nullptr, &tAddr), 0U);
    EXPECT_NE(AppConvertStrtoNet("127.0.0.1", nullptr), 0U);
}

} // namespace
