/* The fakes, the hooks and the look at log lines themselves: every other case rests on them. */
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "nvrhttpcurl/hcc_tools.h"
#include "platform/appbase.h"
#include "platform/debuglog.h"
#include "support/hcc_sem.h"
#include "tests/support/fake_platform.h"
#include "tests/support/hooks.h"
#include "tests/support/log_lines.h"
#include "tests/support/wait.h"

namespace
{

using namespace test;

HOspSem NewSem()
{
    HOspSem sem = nullptr;
    EXPECT_NE(OspSemBCreate(&sem), 0U);
    return sem;
}

void SetTrue(void *flag)
{
    static_cast<std::atomic<bool> *>(flag)->store(true);
}

} // namespace

TEST(FakeLog, KeepsFormatTextAndFunction)
{
    DebugLogPrint(123, 2, "%s[L:%d][Error] code %u\n", "Sender", 7, 9U);
    DebugLogPrint(1, 4, "plain\n");
    const auto lines = fake::Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].module, 123U);
    EXPECT_EQ(lines[0].level, 2U);
    EXPECT_EQ(lines[0].format, "%s[L:%d][Error] code %u\n");
    EXPECT_EQ(lines[0].text, "Sender[L:7][Error] code 9\n");
    EXPECT_EQ(lines[0].func, "Sender");
    EXPECT_EQ(lines[1].func, "");
    EXPECT_EQ(lines[1].format, "plain\n");
    EXPECT_EQ(lines[1].level, 4U);
    EXPECT_EQ(fake::CountTexts("code 9"), 1U);
    EXPECT_EQ(fake::Transcript(), "123/2 Sender[L:7][Error] code 9\n1/4 plain\n");
    fake::ClearLines();
    EXPECT_TRUE(fake::Lines().empty());
}

TEST(FakeLog, NamesTheSettingCallsInOrder)
{
    EXPECT_NE(DebugLogRegist(123, "[P]", "N"), 0U);
    EXPECT_NE(DebugLogMoudlePrintLevelOn(123, 2, 1), 0U);
    EXPECT_NE(DebugLogSetToStdioPrintf(123, 3), 0U);
    EXPECT_NE(DebugLogSetLogFileLen(123, 0x20000), 0U);
    EXPECT_NE(DebugLogSetToFileLevel(123, 2), 0U);
    fake::FailDebugLogRegist(true);
    EXPECT_EQ(DebugLogRegist(5, "", "M"), 0U);
    const std::vector<std::string> expected{"DebugLogRegist(123,[P],N)",       "DebugLogMoudlePrintLevelOn(123,2,1)",
                                            "DebugLogSetToStdioPrintf(123,3)", "DebugLogSetLogFileLen(123,131072)",
                                            "DebugLogSetToFileLevel(123,2)",   "DebugLogRegist(5,,M)"};
    EXPECT_EQ(fake::DebugLogCalls(), expected);
}

/* --- log lines ----------------------------------------------------------------------------- */

class LogLines : public testing::Test
{
  protected:
    void SetUp() override
    {
        DebugLogPrint(123, 2, "%s[L:%d][Error] %s[%d] code %u\n", "First", 7, "First", 7, 9U);
        DebugLogPrint(123, 4, "%s[L:%d] done\n", "Second", 8);
    }

    static Line First(unsigned code = 9)
    {
        return Error("First", "[Error] %s[%d] code %u\n", "First", OWN_NUMBER, code);
    }

    static Line Second()
    {
        return Info("Second", " done\n");
    }
};

TEST_F(LogLines, AreFound)
{
    ExpectLine(First());
    ExpectLinesOf("Second", {Second()});
    ExpectLinesOf("Third", {});
    ExpectInOrder({First(), Second()});
    EXPECT_EQ(CountOf(" done\n"), 1U);
    ExpectConventions();
    ExpectLines({First(), Second()});
    ExpectLines({});
}

TEST_F(LogLines, AreMissed)
{
    EXPECT_NONFATAL_FAILURE(ExpectLine(First(8)), "code 8");
    EXPECT_NONFATAL_FAILURE(ExpectLine(Trace("Second", " done\n")), "not once");
    EXPECT_NONFATAL_FAILURE(ExpectLine(Info("First", " done\n")), "not once");
    EXPECT_NONFATAL_FAILURE(ExpectLine(Info("Second", " gone\n")), "not once");
    EXPECT_NONFATAL_FAILURE(ExpectInOrder({Second(), First()}), "not in order");
    EXPECT_NONFATAL_FAILURE(ExpectLinesOf("Second", {}), "expected {}");
    EXPECT_NONFATAL_FAILURE(ExpectLines({Second(), First()}), "expected");
    DebugLogPrint(123, 4, "%s[L:%d] done\n", "Second", 8);
    DebugLogPrint(123, 4, "%s[L:%d] done\n", "Second", 9);
    EXPECT_NONFATAL_FAILURE(ExpectLine(Second()), "not once");
}

TEST_F(LogLines, OfAnotherModuleNumberOrFormatAreOthers)
{
    fake::ClearLines();
    DebugLogPrint(1, 4, "%s[L:%d] done\n", "Second", 8);
    EXPECT_NONFATAL_FAILURE(ExpectLines({Second()}), "module 1 Second");
    DebugLogPrint(123, 4, "%s[L:%d] done\n", "Second", 0);
    EXPECT_NONFATAL_FAILURE(ExpectLines({Second()}), "without opening");
    DebugLogPrint(123, 4, "Second[L:8] done\n");
    EXPECT_NONFATAL_FAILURE(ExpectLines({Second()}), "without opening");
    DebugLogPrint(123, 2, "%s[L:%d][Error] %s[%d] code %u\n", "First", 7, "First", 8, 9U);
    EXPECT_NONFATAL_FAILURE(ExpectLines({First()}), "First[8] code 9");
}

TEST_F(LogLines, AgainstTheConventionsAreNoticed)
{
    fake::ClearLines();
    DebugLogPrint(123, 4, "%s[L:%d][Error] tagged\n", "First", 7);
    EXPECT_NONFATAL_FAILURE(ExpectConventions(), "tagged");
    fake::ClearLines();
    DebugLogPrint(123, 2, "%s[L:%d] untagged\n", "First", 7);
    EXPECT_NONFATAL_FAILURE(ExpectConventions(), "untagged");
    fake::ClearLines();
    DebugLogPrint(123, 4, "%s[L:%d] endless", "First", 7);
    EXPECT_NONFATAL_FAILURE(ExpectConventions(), "endless");
}

/* --- semaphores ------------------------------------------------------------------------------ */

TEST(FakeSem, ShowsItsStateItsHolderAndItsWaiters)
{
    const HOspSem sem = NewSem();
    EXPECT_FALSE(fake::SemIsTaken(sem));
    EXPECT_NE(OspSemGive(sem), 0U); /* not counted */
    ASSERT_NE(OspSemTake(sem), 0U);
    EXPECT_TRUE(fake::SemIsTaken(sem));
    EXPECT_EQ(fake::HeldByThisThread(), 1U);

    std::thread other([&] {
        EXPECT_EQ(fake::HeldByThisThread(), 0U);
        EXPECT_NE(OspSemTake(sem), 0U);
        EXPECT_NE(OspSemGive(sem), 0U);
    });
    EXPECT_TRUE(WaitUntil([sem] { return fake::SemWaiters(sem) == 1; }));
    EXPECT_NE(OspSemGive(sem), 0U);
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
    other.join();
    EXPECT_EQ(fake::SemsAlive(), 1U);
    EXPECT_NE(OspSemDelete(sem), 0U);
    EXPECT_EQ(fake::SemsAlive(), 0U);
    EXPECT_EQ(fake::SemsCreated(), 1U);
    EXPECT_TRUE(fake::Violations().empty());
}

TEST(FakeSem, NotesWrongUse)
{
    HOspSem sem = NewSem();
    EXPECT_NE(OspSemBCreate(&sem), 0U);
    EXPECT_EQ(fake::Violations().size(), 1U);
    EXPECT_NE(OspSemDelete(sem), 0U);
    EXPECT_EQ(fake::Violations().size(), 1U);
    EXPECT_EQ(OspSemDelete(sem), 0U);
    EXPECT_EQ(OspSemTake(sem), 0U);
    EXPECT_EQ(OspSemGive(sem), 0U);
    EXPECT_EQ(fake::Violations().size(), 4U);
    EXPECT_NE(OspSemBCreate(&sem), 0U); /* over a deleted one: in order, as is what fails on a null handle */
    EXPECT_EQ(OspSemTake(nullptr), 0U);
    EXPECT_EQ(OspSemGive(nullptr), 0U);
    EXPECT_EQ(OspSemDelete(nullptr), 0U);
    EXPECT_EQ(fake::NullTakes(), 1U);
    EXPECT_EQ(fake::Violations().size(), 4U);
}

TEST(FakeSem, DeletionWakesAWaiterAndIsNoted)
{
    const HOspSem sem = NewSem();
    ASSERT_NE(OspSemTake(sem), 0U);
    std::thread other([sem] { EXPECT_EQ(OspSemTake(sem), 0U); });
    EXPECT_TRUE(WaitUntil([sem] { return fake::SemWaiters(sem) == 1; }));
    EXPECT_NE(OspSemDelete(sem), 0U);
    other.join();
    EXPECT_EQ(fake::Violations().size(), 2U); /* the deletion and the take */
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
}

TEST(FakeSem, FailsTheNthCreationFromTheOrderOn)
{
    const HOspSem before = NewSem();
    fake::FailSemCreate(2);
    HOspSem sems[4] = {};
    EXPECT_NE(OspSemBCreate(&sems[0]), 0U);
    EXPECT_EQ(OspSemBCreate(&sems[1]), 0U);
    EXPECT_EQ(sems[1], nullptr);
    EXPECT_NE(OspSemBCreate(&sems[2]), 0U);
    EXPECT_EQ(fake::SemsCreated(), 3U);
    fake::FailSemCreate(1, true);
    EXPECT_EQ(HCCSemEnsure(&sems[3]), nullptr); /* the library reaches the fake */
    EXPECT_EQ(HCCSemEnsure(&sems[3]), nullptr);
    fake::FailSemCreate(0);
    EXPECT_NE(HCCSemEnsure(&sems[3]), nullptr);
    EXPECT_FALSE(fake::SemIsTaken(before));
}

TEST(FakeSem, FailsTheNthTakeWithoutWaiting)
{
    const HOspSem sem = NewSem();
    fake::FailSemTake(2);
    EXPECT_EQ(OspSemTake(nullptr), 0U); /* does not count */
    ASSERT_NE(OspSemTake(sem), 0U);
    ASSERT_EQ(OspSemTake(sem), 0U); /* it is taken: one that did not fail would wait */
    EXPECT_EQ(fake::HeldByThisThread(), 1U);
    EXPECT_NE(OspSemGive(sem), 0U);
    fake::FailSemTake(1, true);
    ASSERT_EQ(OspSemTake(sem), 0U);
    ASSERT_EQ(OspSemTake(sem), 0U);
    fake::FailSemTake(0);
    EXPECT_NE(OspSemTake(sem), 0U);
    EXPECT_TRUE(fake::Violations().empty());
}

TEST(FakeTask, RunsRecordsAndJoins)
{
    std::atomic<bool> ran{false};
    uint64_t id = 0;
    const HOspTask task = OspTaskCreate(SetTrue, "name", 80, 0x20000, &ran, 0, &id);
    ASSERT_NE(task, nullptr);
    EXPECT_NE(id, 0U);
    EXPECT_FALSE(fake::Tasks().at(0).waited);
    EXPECT_NE(OspTaskWaitEnd(task), 0U);
    EXPECT_TRUE(ran);
    const auto tasks = fake::Tasks();
    ASSERT_EQ(tasks.size(), 1U);
    EXPECT_EQ(tasks[0].name, "name");
    EXPECT_EQ(tasks[0].priority, 80U);
    EXPECT_EQ(tasks[0].stackSize, 0x20000U);
    EXPECT_EQ(tasks[0].entry, SetTrue);
    EXPECT_EQ(tasks[0].arg, &ran);
    EXPECT_EQ(tasks[0].task, task);
    EXPECT_TRUE(tasks[0].waited);
    EXPECT_TRUE(fake::Violations().empty());
    EXPECT_EQ(OspTaskWaitEnd(task), 0U);
    EXPECT_EQ(fake::Violations().size(), 1U);
    EXPECT_EQ(OspTaskWaitEnd(nullptr), 0U);
}

TEST(FakeTask, FailuresAndTasksThatDoNotRun)
{
    std::atomic<bool> ran{false};
    fake::FailTaskCreate(1);
    EXPECT_EQ(OspTaskCreate(SetTrue, "", 0, 0, &ran, 0, nullptr), nullptr);
    EXPECT_TRUE(fake::Tasks().empty());
    fake::RunTasks(false);
    const HOspTask idle = OspTaskCreate(SetTrue, "", 0, 0, &ran, 0, nullptr);
    ASSERT_NE(idle, nullptr);
    EXPECT_NE(OspTaskWaitEnd(idle), 0U);
    EXPECT_FALSE(ran);
    fake::RunTasks(true);
    fake::FailTaskWait(true);
    const HOspTask task = OspTaskCreate(SetTrue, "", 0, 0, &ran, 0, nullptr);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(OspTaskWaitEnd(task), 0U);
    EXPECT_TRUE(ran); /* joined all the same */
    EXPECT_EQ(fake::Tasks().size(), 2U);
}

TEST(FakeCommands, KeepTheirOrderAndRepetitions)
{
    const PFOspCommand command = [] {};
    EXPECT_NE(OspRegCommand("b", command, "help"), 0U);
    EXPECT_NE(OspRegCommand("a", command, nullptr), 0U);
    EXPECT_NE(OspRegCommand("b", command, ""), 0U);
    EXPECT_EQ(OspRegCommand("", command, ""), 0U);
    EXPECT_EQ(OspRegCommand(nullptr, command, ""), 0U);
    EXPECT_EQ(OspRegCommand("c", nullptr, ""), 0U);
    const auto commands = fake::Commands();
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_EQ(commands[0].name + commands[1].name + commands[2].name, "bab");
    EXPECT_EQ(commands[0].help, "help");
    EXPECT_EQ(commands[0].command, command);
}

TEST(FakeBase, HelpersFollowTheirContract)
{
    const char *text = "http://host";
    EXPECT_EQ(AppStrstr(text, "://"), text + 4);
    EXPECT_EQ(AppStrstr(text, ""), text);
    EXPECT_EQ(AppStrstr(text, "HTTP"), nullptr);
    EXPECT_EQ(AppStrstr(nullptr, ""), nullptr);
    EXPECT_EQ(AppStrstr(text, nullptr), nullptr);
    EXPECT_EQ(AppStrlen(text), 11U);
    EXPECT_EQ(AppStrlen(nullptr), 0U);

    const uint16_t net = AppConvertHtons(0x1234);
    const uint8_t expected[] = {0x12, 0x34};
    EXPECT_EQ(memcmp(&net, expected, 2), 0);

    AppDelay(0);
    AppDelay(1);
    EXPECT_EQ(fake::Delays(), (std::vector<uint32_t>{0, 1}));

    TAppNetAddr addr = {};
    const uint8_t loopback[] = {127, 0, 0, 1};
    EXPECT_EQ(AppConvertStrtoNet("127.0.0.1", &addr), 0U);
    EXPECT_EQ(memcmp(&addr.dwIPv4, loopback, 4), 0);
    EXPECT_EQ(addr.dwFamily, static_cast<uint32_t>(AF_INET));
    EXPECT_NE(AppConvertStrtoNet("host", &addr), 0U);
    EXPECT_NE(AppConvertStrtoNet(nullptr, &addr), 0U);
    fake::SetStrtoNetResult(9);
    EXPECT_EQ(AppConvertStrtoNet("127.0.0.1", &addr), 9U);
}

TEST(FakeMemory, CountsFailsKeepsLostBlocksAndNotesForeignOnes)
{
    const TNvrHttpCurlCltMemCB tMemCB = fake::MemCB();
    char *block = static_cast<char *>(tMemCB.pfMalloc(4));
    ASSERT_NE(block, nullptr);
    memcpy(block, "abc", 4);
    block = static_cast<char *>(tMemCB.pfRealloc(block, 4096));
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block, "abc");
    EXPECT_EQ(fake::BlocksAlive(), 1U);

    fake::FailMalloc(1);
    EXPECT_EQ(tMemCB.pfMalloc(1), nullptr);
    fake::FailRealloc(1, true);
    EXPECT_EQ(tMemCB.pfRealloc(block, 8192), nullptr);
    EXPECT_EQ(tMemCB.pfRealloc(block, 8192), nullptr);
    void *kept = tMemCB.pfMalloc(1);
    EXPECT_EQ(fake::BlocksAlive(), 2U);
    fake::FreeLostBlocks();
    EXPECT_EQ(fake::BlocksAlive(), 1U);
    EXPECT_TRUE(fake::Violations().empty());

    tMemCB.pfFree(kept);
    EXPECT_EQ(fake::Mallocs(), 3U);
    EXPECT_EQ(fake::Reallocs(), 3U);
    EXPECT_EQ(fake::Frees(), 1U);
    EXPECT_EQ(fake::BlocksAlive(), 0U);

    int foreign = 0;
    tMemCB.pfFree(nullptr);
    tMemCB.pfFree(&foreign);
    EXPECT_EQ(tMemCB.pfRealloc(&foreign, 8), nullptr);
    EXPECT_EQ(fake::Violations().size(), 3U);
}

TEST(Hooks, RecordAndPassOnWhereNoneIsSet)
{
    CURL *easy = curl_easy_init();
    ASSERT_NE(easy, nullptr);
    std::string url = "http://127.0.0.1/a";
    EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_URL, url.c_str()), CURLE_OK);
    EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 1234L), CURLE_OK);
    EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr), CURLE_OK);
    url = "gone";

    EXPECT_EQ(hooks::OptionOrder(), (std::vector<CURLoption>{CURLOPT_URL, CURLOPT_TIMEOUT_MS, CURLOPT_CAINFO}));
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_URL).at(0).text, "http://127.0.0.1/a");
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).value, 1234U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).easy, easy);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_CAINFO).at(0).text, "");

    char *real = nullptr; /* libcurl has the URL, so the setting was passed on */
    EXPECT_EQ(curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &real), CURLE_OK);
    EXPECT_STREQ(real, "http://127.0.0.1/a");
    curl_easy_cleanup(easy);
    EXPECT_EQ(hooks::Calls("curl_easy_setopt"), 3U);
    EXPECT_EQ(hooks::Calls("curl_easy_getinfo"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
    EXPECT_THROW(hooks::Calls("curl_easy_clean"), std::invalid_argument);
    hooks::ClearOptions();
    EXPECT_TRUE(hooks::Options().empty());
}

TEST(Hooks, RefuseAnOptionUntilItIsTakenBack)
{
    CURL *easy = curl_easy_init();
    hooks::RefuseOption(CURLOPT_NOSIGNAL, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L), CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_VERBOSE, 0L), CURLE_OK);
    hooks::RefuseOption(CURLOPT_NOSIGNAL, CURLE_OK);
    EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L), CURLE_OK);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_NOSIGNAL).size(), 2U);
    curl_easy_cleanup(easy);
}

TEST(Hooks, ReplaceCallsAndMayMakeTheRealOnes)
{
    hooks::easy_setopt = [](CURL *easy, CURLoption option, void *value) {
        EXPECT_EQ(hooks::Options().size(), 1U); /* no lock is held out here */
        return option == CURLOPT_URL ? hooks::real::easy_setopt(easy, option, value) : CURLE_OUT_OF_MEMORY;
    };
    CURL *easy = curl_easy_init();
    EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_URL, "http://127.0.0.1/b"), CURLE_OK);
    hooks::ClearOptions();
    EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_VERBOSE, 0L), CURLE_OUT_OF_MEMORY);
    char *real = nullptr;
    EXPECT_EQ(curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &real), CURLE_OK);
    EXPECT_STREQ(real, "http://127.0.0.1/b");
    curl_easy_cleanup(easy);
    hooks::multi_init = []() -> CURLM * { return nullptr; };
    EXPECT_EQ(curl_multi_init(), nullptr);
    hooks::sys_calloc = [](size_t, size_t) -> void * { return nullptr; };
    EXPECT_EQ(calloc(3, 5), nullptr);
    hooks::sys_calloc = hooks::real::sys_calloc;
    unsigned char *block = static_cast<unsigned char *>(calloc(3, 5));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block[14], 0U);
    free(block);
}

TEST(Hooks, EachStandsForItsOwnCall)
{
    std::string seen;
    hooks::global_init = [&](long) { return seen += "a", CURLE_OK; };
    hooks::easy_init = [&]() -> CURL * { return seen += "b", nullptr; };
    hooks::easy_perform = [&](CURL *) { return seen += "c", CURLE_OK; };
    hooks::easy_getinfo = [&](CURL *, CURLINFO, void *) { return seen += "d", CURLE_OK; };
    hooks::easy_cleanup = [&](CURL *) { seen += "e"; };
    hooks::slist_append = [&](curl_slist *list, const char *) { return seen += "f", list; };
    hooks::multi_cleanup = [&](CURLM *) { return seen += "g", CURLM_OK; };
    hooks::multi_add_handle = [&](CURLM *, CURL *) { return seen += "h", CURLM_OK; };
    hooks::multi_remove_handle = [&](CURLM *, CURL *) { return seen += "i", CURLM_OK; };
    hooks::multi_perform = [&](CURLM *, int *) { return seen += "j", CURLM_OK; };
    hooks::multi_wait = [&](CURLM *, curl_waitfd *, unsigned, int, int *) { return seen += "k", CURLM_OK; };
    hooks::multi_timeout = [&](CURLM *, long *) { return seen += "u", CURLM_OK; };
    hooks::multi_info_read = [&](CURLM *, int *) -> CURLMsg * { return seen += "l", nullptr; };
    hooks::share_init = [&]() -> CURLSH * { return seen += "m", nullptr; };
    hooks::share_setopt = [&](CURLSH *, CURLSHoption, void *) { return seen += "n", CURLSHE_OK; };

    int number = 0;
    curl_global_init(0);
    curl_easy_init();
    curl_easy_perform(nullptr);
    curl_easy_getinfo(nullptr, CURLINFO_RESPONSE_CODE, &number);
    curl_easy_cleanup(nullptr);
    curl_slist_append(nullptr, "");
    curl_multi_cleanup(nullptr);
    curl_multi_add_handle(nullptr, nullptr);
    curl_multi_remove_handle(nullptr, nullptr);
    curl_multi_perform(nullptr, &number);
    curl_multi_wait(nullptr, nullptr, 0, 0, &number);
    curl_multi_timeout(nullptr, nullptr);
    curl_multi_info_read(nullptr, &number);
    curl_share_init();
    curl_share_setopt(nullptr, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    EXPECT_EQ(seen, "abcdefghijkulmn");
}

TEST(Hooks, ReachTheLibrarysOwnCalls)
{
    hooks::sys_times = [](struct tms *) { return static_cast<clock_t>(77); };
    hooks::sys_sysconf = [](int name) { return name == _SC_CLK_TCK ? 10L : hooks::real::sys_sysconf(name); };
    std::string seenName;
    hooks::sys_set_name = [&seenName](const char *name) { return seenName = name, 0; };
    EXPECT_EQ(NVRHCCGetTickCount(), 77U);
    EXPECT_EQ(NVRHCCTickToMS(20), 2000U);
    EXPECT_EQ(NVRHCCThreadSetName("worker"), 0U);
    EXPECT_EQ(seenName, "worker");
    EXPECT_EQ(hooks::Calls("times"), 1U);
}

TEST(Hooks, SystemCallsPassOnWhereNoneIsSet)
{
    EXPECT_EQ(NVRHCCThreadSetName("passed-on"), 0U);
    char name[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, name, 0, 0, 0), 0);
    EXPECT_STREQ(name, "passed-on");
    EXPECT_NE(NVRHCCGetTickCount(), 0U);
    EXPECT_GT(sysconf(_SC_CLK_TCK), 0);
}

namespace
{

std::atomic<bool> hookEntered{false};

void CallHookedForEver(void *)
{
    for (;;) {
        curl_multi_perform(nullptr, nullptr);
        DebugLogPrint(1, 1, "busy\n");
        fake::ClearLines();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace

/* The send module's workers never end: hooks and records have to survive the end of main. */
TEST(Hooks, OutliveMain)
{
    const std::string captured(64, 'x');
    hooks::multi_perform = [captured](CURLM *, int *) {
        hookEntered = captured.size() == 64;
        return CURLM_OK;
    };
    ASSERT_NE(OspTaskCreate(CallHookedForEver, "endless", 0, 0, nullptr, 0, nullptr), nullptr);
    EXPECT_TRUE(WaitUntil([] { return hookEntered.load(); }));
}
