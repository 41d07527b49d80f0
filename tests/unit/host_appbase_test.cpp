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

TEST(AppStrstr, FindsTheFirstPlaceInTheSameCase)
{
    const char text[] = "https://host/https";
    EXPECT_EQ(AppStrstr(text, "https"), text);
    EXPECT_EQ(AppStrstr(text, "/h"), text + 7);
    EXPECT_EQ(AppStrstr(text, ""), text);
    EXPECT_EQ(AppStrstr("HTTPS://host", "https"), nullptr);
    EXPECT_EQ(AppStrstr("http", "https"), nullptr);
    EXPECT_EQ(AppStrstr("", "h"), nullptr);
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

std::chrono::nanoseconds TimeOf(uint32_t milliseconds)
{
    const auto begin = std::chrono::steady_clock::now();
    AppDelay(milliseconds);
    return std::chrono::steady_clock::now() - begin;
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
    rusage before = {};
    rusage after = {};
    ASSERT_EQ(getrusage(RUSAGE_THREAD, &before), 0);
    for (int i = 0; i < 1000; i++) {
        AppDelay(0);
    }
    ASSERT_EQ(getrusage(RUSAGE_THREAD, &after), 0);
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, 100);
}

volatile sig_atomic_t signals = 0;

TEST(AppDelay, GoesOnAfterASignal)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { signals = signals + 1; };
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGALRM;
    timer_t timer = {};
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
    itimerspec times = {};
    times.it_value.tv_nsec = 10000000;
    times.it_interval.tv_nsec = 10000000;
    ASSERT_EQ(timer_settime(timer, 0, &times, nullptr), 0);
    EXPECT_GE(TimeOf(200), std::chrono::milliseconds(200));
    timer_delete(timer);
    EXPECT_GT(signals, 0);
}

TEST(AppConvertHtons, BringsTheHighByteToTheFront)
{
    const uint16_t net = AppConvertHtons(0xB78E);
    const unsigned char wanted[2] = {0xB7, 0x8E};
    EXPECT_EQ(memcmp(&net, wanted, sizeof(net)), 0);
}

TEST(AppConvertStrtoNet, WritesFamilyAndAddressInNetworkOrder)
{
    TAppNetAddr addr = {};
    EXPECT_EQ(AppConvertStrtoNet("127.0.0.1", &addr), 0U);
    EXPECT_EQ(addr.dwIPv4, inet_addr("127.0.0.1"));
    EXPECT_EQ(addr.dwFamily, static_cast<uint32_t>(AF_INET));
    const TAppNetAddr zero = {};
    EXPECT_EQ(memcmp(addr.abyReserved, zero.abyReserved, sizeof(addr.abyReserved)), 0);
    EXPECT_EQ(sizeof(TAppNetAddr), 20U);
    EXPECT_EQ(AppConvertStrtoNet("255.255.255.255", &addr), 0U);
    EXPECT_EQ(addr.dwIPv4, 0xFFFFFFFFU);
}

TEST(AppConvertStrtoNet, LeavesTheRecordOfABadTextAlone)
{
    EXPECT_NE(AppConvertStrtoNet("127.0.0.1", nullptr), 0U);
    for (const char *bad : {static_cast<const char *>(nullptr), "", "localhost", "127.0.0", "127.0.0.256", "127.0.0.1 ",
                            "::1", "0x7f.0.0.1"}) {
        TAppNetAddr addr = {};
        const std::string what = testing::PrintToString(bad);
        EXPECT_NE(AppConvertStrtoNet(bad, &addr), 0U) << what;
        EXPECT_EQ(addr.dwFamily, 0U) << what;
        EXPECT_EQ(addr.dwIPv4, 0U) << what;
    }
}

} // namespace
