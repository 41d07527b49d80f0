/* The logging switch and its macros. */
#include <atomic>
#include <thread>

#include "support/hcc_log.h"
#include "tests/support/engine_fixture.h"

namespace
{

using namespace test;

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
    EXPECT_EQ(StandardOutputOf([] { SayError(1); }), "");
    EXPECT_EQ(fake::Lines().size(), 1U);
    EXPECT_EQ(fake::CountTexts("number 1, text {t}"), 1U);
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
    EXPECT_EQ(fake::Transcript(), Text("123/4 TestBody[L:%d] here 5\n", before + 1));
    ExpectLines({Info("TestBody", " here %d\n", 5)});
}

TEST(HccLog, TheFormatReachesTheDebugLogWhole)
{
    SayError(7);
    const std::vector<fake::LogLine> lines = fake::Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].module, 123U);
    EXPECT_EQ(lines[0].level, 2U);
    EXPECT_EQ(lines[0].format, "%s[L:%d][Error] number %d, text {%s}\n");
    ExpectLines({Error("SayError", "[Error] number %d, text {%s}\n", 7, "t")});
    SayPlain(); /* needs no arguments */
    ExpectLines({Info("SayPlain", " nothing to fill in\n")});
}

TEST(HccLog, ALineMayCarryAnotherOperationsName)
{
    const int before = __LINE__;
    HCC_LOG_AS("OtherOperation", HCC_LEVEL_ERROR, "[Error] failed %d\n", 3);
    HCC_LOG_AT(HCC_LEVEL_SHOW, "Elsewhere", 4711, " shown\n");
    EXPECT_EQ(fake::Transcript(),
              Text("123/2 OtherOperation[L:%d][Error] failed 3\n123/3 Elsewhere[L:4711] shown\n", before + 1));
    ExpectLines({Error("OtherOperation", "[Error] failed %d\n", 3), Show("Elsewhere", " shown\n")});
}

TEST(HccLog, TypeTwoIsForTheConsoleOnly)
{
    g_bySendCurlLogType = 2;
    const std::string printed = StandardOutputOf([] { SayError(2); });
    EXPECT_TRUE(fake::Lines().empty());
    EXPECT_EQ(printed.rfind("SayError[L:", 0), 0U) << printed;
    EXPECT_NE(printed.find("][Error] number 2, text {t}\n"), std::string::npos) << printed;
}

TEST(HccLog, TypeThreeIsForBothWithTheSameText)
{
    g_bySendCurlLogType = 3;
    const std::string printed = StandardOutputOf([] { SayError(3); });
    ASSERT_EQ(fake::Lines().size(), 1U);
    EXPECT_EQ(printed, fake::Lines()[0].text);
}

TEST(HccLog, TheConsoleTakesEveryLevel)
{
    g_bySendCurlLogType = 2;
    const std::string printed = StandardOutputOf([] {
        HCC_LOG_AT(HCC_LEVEL_TRACE, "F", 1, " trace\n");
        HCC_LOG_AT(HCC_LEVEL_ERROR, "F", 2, "[Error] error\n");
        HCC_LOG_AT(HCC_LEVEL_SHOW, "F", 3, " show\n");
        HCC_LOG_AT(HCC_LEVEL_INFO, "F", 4, " info\n");
    });
    EXPECT_EQ(printed, "F[L:1] trace\nF[L:2][Error] error\nF[L:3] show\nF[L:4] info\n");
}

TEST(HccLog, ValueZeroIsForNobody)
{
    g_bySendCurlLogType = 0;
    EXPECT_EQ(StandardOutputOf([] { SayError(0); }), "");
    EXPECT_TRUE(fake::Lines().empty());
}

TEST(HccLog, ArgumentsAreEvaluatedOnceForOneSide)
{
    g_bySendCurlLogType = 1;
    HCC_LOG(HCC_LEVEL_INFO, " %d\n", Count());
    EXPECT_EQ(counted, 1);
    g_bySendCurlLogType = 2;
    EXPECT_NE(StandardOutputOf([] { HCC_LOG(HCC_LEVEL_INFO, " %d\n", Count()); }).find("] 2\n"), std::string::npos);
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
    ExpectLines({Info("TestBody", " always\n")});
}

TEST(HccLog, PointersOfAnyKindCanBeShown)
{
    int object = 0;
    HCC_LOG(HCC_LEVEL_INFO, " %p %p\n", HCCLogPtr(&object), HCCLogPtr(&SayPlain));
    ExpectLines({Info("TestBody", " %p %p\n", Ptr(&object), Ptr(&SayPlain))});
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

    /* Each line came as a whole, and in order. */
    int last = -1;
    for (const Line &line : Log()) {
        int number = -1;
        ASSERT_EQ(sscanf(line.text.c_str(), "[Error] number %d,", &number), 1) << line.text;
        EXPECT_EQ(line, Error("SayError", "[Error] number %d, text {%s}\n", number, "t"));
        EXPECT_GT(number, last);
        last = number;
    }
    HCCStoreRelaxed(&g_bySendCurlLogType, uint8_t{1});
    SayError(500);
    EXPECT_EQ(fake::CountTexts("number 500, text {t}"), 1U);
}

/* --- the engine obeys the switch ------------------------------------------------------------------ */

TEST(HccLogOfTheEngine, GoesToTheDebugLogTheConsoleOrBothAlike)
{
    fake::RunTasks(false);
    for (uint8_t type = 1; type <= 3; ++type) {
        SCOPED_TRACE(type);
        fake::ClearLines();
        g_bySendCurlLogType = type;
        const std::string printed = StandardOutputOf([] { NvrHttpCurlCltUninit(MustStart(2)); });
        std::string logged;
        for (const fake::LogLine &line : fake::Lines()) {
            logged += line.text;
        }
        EXPECT_EQ(printed.empty(), type == 1);
        EXPECT_EQ(logged.empty(), type == 2);
        const std::string &some = type == 1 ? logged : printed;
        EXPECT_EQ(some.rfind("NvrHttpCurlCltInit[L:", 0), 0U) << some;
        EXPECT_NE(some.find("szThreadName {NvrHttpCurlClt0000}\n"), std::string::npos) << some;
        EXPECT_TRUE(type != 3 || printed == logged) << printed;
    }
}

} // namespace
