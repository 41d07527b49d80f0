/* The logging switch and its macros. */
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/hcc_log.h"
#include "tests/support/engine_fixture.h"

namespace
{

using engine::Matches;
using engine::Tail;
using engine::Text;

/* Runs something and gives back what it printed. */
template <typename F> std::string Printed(F run)
{
    testing::internal::CaptureStdout();
    run();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

int counted = 0;

int Count()
{
    return ++counted;
}

void SayError(int number)
{
    HCC_LOG(HCC_LEVEL_ERROR, "[Error] number %d, text {%s}\n", number, "t");
}

void SayPlain()
{
    HCC_LOG(HCC_LEVEL_INFO, " nothing to fill in\n");
}

TEST(HccLog, WritesToTheDebugLogUnlessToldOtherwise)
{
    EXPECT_EQ(g_bySendCurlLogType, 1);
    EXPECT_EQ(sizeof(g_bySendCurlLogType), 1U);
    EXPECT_EQ(Printed([] { SayError(7); }), "");
    EXPECT_EQ(fake::Lines().size(), 1U);
}

TEST(HccLog, ModuleAndLevelsAreTheDebugLogsNumbers)
{
    EXPECT_EQ(HCC_LOG_MODULE, 123);
    EXPECT_EQ(HCC_LEVEL_TRACE, 1);
    EXPECT_EQ(HCC_LEVEL_ERROR, 2);
    EXPECT_EQ(HCC_LEVEL_SHOW, 3);
    EXPECT_EQ(HCC_LEVEL_INFO, 4);
}

TEST(HccLog, ALineCarriesTheFunctionAndItsSourceLine)
{
    const int before = __LINE__;
    HCC_LOG(HCC_LEVEL_INFO, " here %d\n", 5);
    const std::vector<fake::LogLine> lines = fake::Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(Matches(lines[0], {"TestBody", 4, " here %d\n", " here 5\n"}));
    EXPECT_EQ(lines[0].strText, Text("TestBody[L:%d] here 5\n", before + 1));
}

TEST(HccLog, TheFormatReachesTheDebugLogWhole)
{
    SayError(7);
    const std::vector<fake::LogLine> lines = fake::Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].dwModule, 123U);
    EXPECT_EQ(lines[0].dwLevel, 2U);
    EXPECT_EQ(lines[0].strFormat, "%s[L:%d][Error] number %d, text {%s}\n");
    EXPECT_EQ(lines[0].strFunc, "SayError");
    EXPECT_EQ(Tail(lines[0]), "[Error] number 7, text {t}\n");
}

TEST(HccLog, AFormatNeedsNoArguments)
{
    SayPlain();
    ASSERT_EQ(fake::Lines().size(), 1U);
    EXPECT_TRUE(Matches(fake::Lines()[0], {"SayPlain", 4, " nothing to fill in\n", " nothing to fill in\n"}));
}

TEST(HccLog, ALineMayCarryAnotherOperationsName)
{
    const int before = __LINE__;
    HCC_LOG_AS("OtherOperation", HCC_LEVEL_ERROR, "[Error] failed %d\n", 3);
    HCC_LOG_AT(HCC_LEVEL_SHOW, "Elsewhere", 4711, " shown\n");
    const std::vector<fake::LogLine> lines = fake::Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(Matches(lines[0], {"OtherOperation", 2, "[Error] failed %d\n", "[Error] failed 3\n"}));
    EXPECT_EQ(engine::SourceLine(lines[0]), before + 1);
    EXPECT_TRUE(Matches(lines[1], {"Elsewhere", 3, " shown\n", " shown\n"}));
    EXPECT_EQ(engine::SourceLine(lines[1]), 4711);
}

TEST(HccLog, TypeOneIsForTheDebugLogOnly)
{
    g_bySendCurlLogType = 1;
    EXPECT_EQ(Printed([] { SayError(1); }), "");
    EXPECT_EQ(fake::CountTexts("number 1, text {t}"), 1U);
}

TEST(HccLog, TypeTwoIsForTheConsoleOnly)
{
    g_bySendCurlLogType = 2;
    const std::string printed = Printed([] { SayError(2); });
    EXPECT_TRUE(fake::Lines().empty());
    EXPECT_EQ(printed.rfind("SayError[L:", 0), 0U) << printed;
    EXPECT_NE(printed.find("][Error] number 2, text {t}\n"), std::string::npos) << printed;
}

TEST(HccLog, TypeThreeIsForBothWithTheSameText)
{
    g_bySendCurlLogType = 3;
    const std::string printed = Printed([] { SayError(3); });
    ASSERT_EQ(fake::Lines().size(), 1U);
    EXPECT_EQ(printed, fake::Lines()[0].strText);
}

TEST(HccLog, TheConsoleTakesEveryLevel)
{
    g_bySendCurlLogType = 2;
    const std::string printed = Printed([] {
        HCC_LOG_AT(HCC_LEVEL_TRACE, "F", 1, " trace\n");
        HCC_LOG_AT(HCC_LEVEL_ERROR, "F", 2, "[Error] error\n");
        HCC_LOG_AT(HCC_LEVEL_SHOW, "F", 3, " show\n");
        HCC_LOG_AT(HCC_LEVEL_INFO, "F", 4, " info\n");
    });
    EXPECT_EQ(printed, "F[L:1] trace\nF[L:2][Error] error\nF[L:3] show\nF[L:4] info\n");
}

TEST(HccLog, ArgumentsAreNotEvaluatedWhenNobodyWantsTheLine)
{
    g_bySendCurlLogType = 0;
    const std::string printed = Printed([] { HCC_LOG(HCC_LEVEL_INFO, " %d\n", Count()); });
    EXPECT_EQ(counted, 0);
    EXPECT_EQ(printed, "");
    EXPECT_TRUE(fake::Lines().empty());
}

TEST(HccLog, ArgumentsAreEvaluatedOnceForOneSide)
{
    g_bySendCurlLogType = 1;
    HCC_LOG(HCC_LEVEL_INFO, " %d\n", Count());
    EXPECT_EQ(counted, 1);
    g_bySendCurlLogType = 2;
    EXPECT_NE(Printed([] { HCC_LOG(HCC_LEVEL_INFO, " %d\n", Count()); }).find("] 2\n"), std::string::npos);
    EXPECT_EQ(counted, 2);
}

TEST(HccLog, AMacroIsOneStatement)
{
    /* NOLINTBEGIN(readability-braces-around-statements): what braces would hide is the point here. */
    if (counted != 0)
        HCC_LOG(HCC_LEVEL_INFO, " never\n");
    else
        HCC_LOG(HCC_LEVEL_INFO, " always\n");
    /* NOLINTEND(readability-braces-around-statements) */
    ASSERT_EQ(fake::Lines().size(), 1U);
    EXPECT_EQ(Tail(fake::Lines()[0]), " always\n");
}

TEST(HccLog, PointersOfAnyKindCanBeShown)
{
    int object = 0;
    HCC_LOG(HCC_LEVEL_INFO, " %p %p\n", HCCLogPtr(&object), HCCLogPtr(&SayPlain));
    ASSERT_EQ(fake::Lines().size(), 1U);
    EXPECT_EQ(Tail(fake::Lines()[0]),
              Text(" %p %p\n", static_cast<void *>(&object), reinterpret_cast<void *>(&SayPlain)));
}

TEST(HccLog, TheSwitchMayBeTurnedWhileOthersLog)
{
    std::atomic<bool> done{false};
    std::thread writer([&done] {
        for (int i = 0; i < 500; ++i) {
            SayError(i);
        }
        done = true;
    });
    for (uint8_t type = 0; !done; type = static_cast<uint8_t>(1 - type)) {
        HCCStoreRelaxed(&g_bySendCurlLogType, type);
        std::this_thread::yield();
    }
    writer.join();
    EXPECT_LE(fake::CountOf("%s[L:%d][Error] number %d, text {%s}\n"), 500U);
}

/* --- the engine obeys the switch ------------------------------------------------------------------ */

TEST(HccLogOfTheEngine, GoesToTheDebugLogAlone)
{
    fake::RunTasks(false);
    EXPECT_EQ(Printed([] { NvrHttpCurlCltUninit(engine::MustStart(1)); }), "");
    EXPECT_GT(fake::Lines().size(), 0U);
}

TEST(HccLogOfTheEngine, GoesToTheConsoleAlone)
{
    fake::RunTasks(false);
    g_bySendCurlLogType = 2;
    const std::string printed = Printed([] { NvrHttpCurlCltUninit(engine::MustStart(1)); });
    EXPECT_TRUE(fake::Lines().empty()) << fake::Transcript();
    EXPECT_EQ(printed.rfind("NvrHttpCurlCltInit[L:", 0), 0U) << printed;
    EXPECT_NE(printed.find("szThreadName {NvrHttpCurlClt0000}\n"), std::string::npos) << printed;
}

TEST(HccLogOfTheEngine, GoesToBothAlike)
{
    fake::RunTasks(false);
    g_bySendCurlLogType = 3;
    const std::string printed = Printed([] { NvrHttpCurlCltUninit(engine::MustStart(2)); });
    std::string logged;
    for (const fake::LogLine &line : fake::Lines()) {
        logged += line.strText;
    }
    EXPECT_EQ(printed, logged);
    EXPECT_NE(printed, "");
}

} // namespace
