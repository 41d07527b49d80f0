/*
 * Start of the send module, its log, and its console commands but the self-test.
 */
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <utility>

#include "support/hcc_log.h"
#include "tests/support/send_fixture.h"

using namespace test;

namespace
{

const char SHOW[] = "SendByCurlShow";
const char SET_LEVEL[] = "SendByCurlSetLogLevel";

const char BAD_LEVEL[] = "[Error] invalid level %u\n";
const char SHOW_SEPARATOR[] = " --------------------------[%d]--------------------------\n";
const char SHOW_END[] = " ------------------------Show End------------------------\n";

const Texts LOG_SET_UP = {"DebugLogRegist(123,[SendCurl],SendCurl)", "DebugLogMoudlePrintLevelOn(123,2,1)",
                          "DebugLogSetToStdioPrintf(123,2)", "DebugLogSetLogFileLen(123,131072)",
                          "DebugLogSetToFileLevel(123,2)"};

Texts CommandNames()
{
    Texts names;
    for (const fake::CommandInfo &command : fake::Commands()) {
        names.push_back(command.name);
    }
    return names;
}

size_t InstancesInUse()
{
    return static_cast<size_t>(std::count_if(std::begin(g_tNvrHttpCurlCltCont), std::end(g_tNvrHttpCurlCltCont),
                                             [](const TNvrHttpCurlCltInst &inst) { return inst.bInited != 0; }));
}

using Semaphores = std::vector<HOspSem>;

Semaphores TheSemaphores()
{
    return {std::begin(g_pCurlSemSet), std::end(g_pCurlSemSet)};
}

std::pair<uint32_t, std::string> ResultAndOutput(const std::function<uint32_t()> &action)
{
    uint32_t result = 0;
    const std::string printed = StandardOutputOf([&] { result = action(); });
    return {result, printed};
}

/* The number that a text holds where the format has "%d". */
int NumberIn(const std::string &text, const char *format)
{
    int number = 0;
    EXPECT_EQ(sscanf(text.c_str(), format, &number), 1) << text;
    return number;
}

uint32_t OtherNotification(ESendByCurlRet, void *)
{
    return 0;
}

class SetupTest : public SendTest
{
  protected:
    /* Nothing of the module but its semaphores exists, and none of them is taken. */
    static void ExpectNotStarted()
    {
        EXPECT_EQ(g_bInited, 0U);
        EXPECT_EQ(g_hInitHandle, nullptr);
        EXPECT_EQ(InstancesInUse(), 0U);
        for (const std::string &name : CommandNames()) {
            EXPECT_NE(name.compare(0, 10, "sendbycurl"), 0) << name;
        }
    }

    static void ExpectStarted()
    {
        EXPECT_EQ(g_bInited, 1U);
        EXPECT_EQ(g_hInitHandle, &g_tNvrHttpCurlCltCont[0]);
        EXPECT_EQ(InstancesInUse(), 1U);
        EXPECT_EQ(fake::SemsAlive(), ENGINE_SEMS + SENDBYCURL_SEM_COUNT);
    }
};

} // namespace

/* --- start ----------------------------------------------------------------------------------- */

TEST_F(SetupTest, StateAtLoad)
{
    EXPECT_EQ(g_bInited, 0U);
    EXPECT_EQ(g_hInitHandle, nullptr);
    EXPECT_EQ(g_bRegistedDebuglog, 0U);
    EXPECT_EQ(g_bLibCurlGobleInit, 0U);
    EXPECT_EQ(g_bySendCurlLogType, 1);
    EXPECT_EQ(TheSemaphores(), Semaphores(3, nullptr));
    EXPECT_EQ(std::size(g_pfASnycCBParam), 1024U);
    EXPECT_TRUE(std::all_of(std::begin(g_pfASnycCBParam), std::end(g_pfASnycCBParam), IsEmpty));
}

TEST_F(SetupTest, StartsOneEngineOfEightTasksOnTheStandardAllocator)
{
    EXPECT_EQ(SendByCurlInit(), 0U);
    ExpectStarted();
    EXPECT_EQ(fake::Tasks().size(), 8U);
    EXPECT_EQ(g_hInitHandle->dwTaskNum, 8U);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqMaxNum, 1024U);
    EXPECT_EQ(g_hInitHandle->tMemCB.pfMalloc, &malloc);
    EXPECT_EQ(g_hInitHandle->tMemCB.pfRealloc, &realloc);
    EXPECT_EQ(g_hInitHandle->tMemCB.pfFree, &free);
}

TEST_F(SetupTest, CreatesThreeSemaphoresAndLeavesThemAvailable)
{
    EXPECT_EQ(SendByCurlInit(), 0U);
    EXPECT_EQ(std::set<HOspSem>(std::begin(g_pCurlSemSet), std::end(g_pCurlSemSet)).size(), 3U);
    for (HOspSem sem : g_pCurlSemSet) {
        EXPECT_NE(sem, nullptr);
        EXPECT_FALSE(fake::SemIsTaken(sem));
    }
}

TEST_F(SetupTest, KeepsSemaphoresThatExist)
{
    for (HOspSem &sem : g_pCurlSemSet) {
        ASSERT_NE(OspSemBCreate(&sem), 0U);
    }
    const Semaphores before = TheSemaphores();
    EXPECT_EQ(SendByCurlInit(), 0U);
    EXPECT_EQ(TheSemaphores(), before);
    EXPECT_EQ(fake::SemsCreated(), ENGINE_SEMS + SENDBYCURL_SEM_COUNT);
}

TEST_F(SetupTest, InitialisesLibcurlOnceWithEverythingWhateverTheResult)
{
    hooks::global_init = [](long flags) {
        EXPECT_EQ(flags, 3L);
        return CURLE_FAILED_INIT;
    };
    for (int start = 0; start < 2; ++start) {
        EXPECT_EQ(SendByCurlInit(), 0U);
        EXPECT_EQ(hooks::Calls("curl_global_init"), 1U);
        EXPECT_EQ(g_bLibCurlGobleInit, 1U);
        ExpectStarted();
        ForgetModule();
        g_bLibCurlGobleInit = 1;
    }
}

TEST_F(SetupTest, RegistersItsCommandsInOrderWithTheirNamesAsHelp)
{
    EXPECT_EQ(SendByCurlInit(), 0U);
    EXPECT_EQ(CommandNames(), (Texts{"NvrHttpCurlCltver", "NvrHttpCurlCltshow", "sendbycurlshow", "sendbycurltest",
                                     "sendbycurlsetlog"}));
    const std::vector<fake::CommandInfo> commands = fake::Commands();
    for (const fake::CommandInfo &command : commands) {
        EXPECT_EQ(command.help, command.name);
    }
    ASSERT_EQ(commands.size(), 5U);
    EXPECT_EQ(commands[2].command, reinterpret_cast<PFOspCommand>(SendByCurlShow));
    EXPECT_EQ(commands[3].command, reinterpret_cast<PFOspCommand>(sendbycurltest));
    EXPECT_EQ(commands[4].command, reinterpret_cast<PFOspCommand>(SendByCurlSetLogLevel));
}

TEST_F(SetupTest, SecondStartDoesNothing)
{
    Start();
    const HNvrHttpCurlCltInst before = g_hInitHandle;
    const size_t sems = fake::SemsCreated();
    EXPECT_EQ(SendByCurlInit(), 0U);
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Init(), 0U);
    EXPECT_EQ(g_hInitHandle, before);
    EXPECT_EQ(fake::Commands().size(), 5U);
    EXPECT_EQ(fake::Tasks().size(), 8U);
    EXPECT_EQ(fake::SemsCreated(), sems);
    EXPECT_EQ(hooks::Calls("curl_global_init"), 1U);
    EXPECT_EQ(fake::DebugLogCalls(), LOG_SET_UP);
    EXPECT_EQ(fake::Transcript(), "");
    ExpectStarted();
}

TEST_F(SetupTest, ApplicationsStartSucceedsWithoutALineOfItsOwn)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Init(), 0U);
    ExpectStarted();
    ExpectLinesOf("Qelvo_SyncSendStrByHttp_Init", {});
    ExpectLinesOf("SendByCurlInit", {});
}

/* --- failing starts --------------------------------------------------------------------------- */

TEST_F(SetupTest, RefusedLogRegistrationEndsTheStart)
{
    fake::FailDebugLogRegist(true);
    EXPECT_EQ(SendByCurlInit(), 1U);
    ExpectLine(Error("SendByCurlInit", "[Error] SendByCurlLogInit is Failed!\n"));
    ExpectNotStarted();
    EXPECT_EQ(g_bRegistedDebuglog, 0U);
    EXPECT_EQ(g_bLibCurlGobleInit, 0U);
    EXPECT_EQ(hooks::Calls("curl_global_init"), 0U);
    EXPECT_EQ(fake::Tasks().size(), 0U);
    EXPECT_EQ(fake::Commands().size(), 0U);
}

TEST_F(SetupTest, ApplicationsStartLogsTheFailureAndCanBeRepeated)
{
    fake::FailDebugLogRegist(true);
    EXPECT_EQ(SendByCurlInit(), 1U);
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Init(), 1U);
    ExpectLine(InitFailed("Qelvo_SyncSendStrByHttp_Init", 1));
    fake::FailDebugLogRegist(false);
    EXPECT_EQ(SendByCurlInit(), 0U);
    ExpectStarted();
    EXPECT_EQ(g_bRegistedDebuglog, 1U);
    EXPECT_EQ(fake::Commands().size(), 5U);
}

TEST_F(SetupTest, FailedEngineIsReportedConvertedAndRegistersNothing)
{
    fake::FailTaskCreate(1);
    EXPECT_EQ(SendByCurlInit(), 1U);
    ExpectInOrder({StepFailed("SendByCurlInit"), Converted(1, 1)});
    ExpectNotStarted();
    EXPECT_EQ(g_bRegistedDebuglog, 1U);
    EXPECT_EQ(g_bLibCurlGobleInit, 1U);
}

TEST_F(SetupTest, StartsAfterAFailedEngineWithoutRepeatingWhatWasDone)
{
    fake::FailTaskCreate(3);
    EXPECT_EQ(SendByCurlInit(), 1U);
    const Semaphores before = TheSemaphores();
    EXPECT_EQ(SendByCurlInit(), 0U);
    ExpectStarted();
    EXPECT_EQ(fake::DebugLogCalls(), LOG_SET_UP);
    EXPECT_EQ(hooks::Calls("curl_global_init"), 1U);
    EXPECT_EQ(TheSemaphores(), before);
    /* The engine's two come with every attempt of its own. */
    EXPECT_EQ(CommandNames(), (Texts{"NvrHttpCurlCltver", "NvrHttpCurlCltshow", "NvrHttpCurlCltver",
                                     "NvrHttpCurlCltshow", "sendbycurlshow", "sendbycurltest", "sendbycurlsetlog"}));
}

TEST_F(SetupTest, NoFreeInstanceIsTheLimitResultOfBothStarts)
{
    for (TNvrHttpCurlCltInst &inst : g_tNvrHttpCurlCltCont) {
        inst.bInited = 1;
    }
    EXPECT_EQ(SendByCurlInit(), 12U);
    ExpectLine(Converted(8, 12));
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Init(), 12U);
    ExpectLine(InitFailed("Qelvo_SyncSendStrByHttp_Init", 12));
    for (TNvrHttpCurlCltInst &inst : g_tNvrHttpCurlCltCont) {
        inst.bInited = 0;
    }
    ExpectNotStarted();
}

TEST_F(SetupTest, EachOfTheThreeSemaphoresIsRequired)
{
    for (unsigned nth = 1; nth <= SENDBYCURL_SEM_COUNT; ++nth) {
        SCOPED_TRACE(nth);
        ForgetModule();
        EXPECT_EQ(fake::SemsAlive(), 0U);
        fake::FailSemCreate(nth);
        EXPECT_EQ(SendByCurlInit(), 1U);
        ExpectNotStarted();
        EXPECT_EQ(fake::Tasks().size(), 0U);
        EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_INIT]));
    }
    EXPECT_EQ(SendByCurlInit(), 0U);
    ExpectStarted();
}

/* --- racing starts ------------------------------------------------------------------------------ */

TEST_F(SetupTest, RacingFirstCallsStartOneEngineAndLeakNoSemaphore)
{
    std::atomic<int> inside{0};
    std::atomic<int> together{0};
    hooks::global_init = [&](long) {
        together += inside++ > 0 ? 1 : 0;
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();
        }
        --inside;
        return CURLE_OK;
    };
    hooks::easy_perform = [](CURL *) { return CURLE_COULDNT_CONNECT; };

    for (size_t round = 1; round <= 40; ++round) {
        std::atomic<int> wrong{0};
        Race(6, [&](unsigned index) {
            TSendByCurlParam param = {};
            param.pchURL = "http://127.0.0.1:1/";
            param.pchSendBuf = "{}";
            wrong += index % 3 == 0   ? SendByCurlInit() != 0
                     : index % 3 == 1 ? Qelvo_SyncSendStrByHttp_Init() != 0
                                      : Qelvo_SyncSendStrByHttp_Ext(&param) != 5;
        });
        ASSERT_EQ(wrong, 0) << fake::Transcript();
        ExpectStarted();
        ASSERT_EQ(fake::Tasks().size(), 8 * round);
        ASSERT_EQ(fake::Commands().size(), 5 * round);
        ASSERT_EQ(hooks::Calls("curl_global_init"), round);
        ForgetModule();
        ASSERT_EQ(fake::SemsAlive(), 0U);
    }
    EXPECT_EQ(together, 0);
}

TEST_F(SetupTest, SendsThatComeBeforeTheStartRaceForTheSameSemaphore)
{
    for (int round = 0; round < 40; ++round) {
        std::atomic<int> wrong{0};
        Race(6, [&](unsigned index) {
            wrong += index % 2 == 0 ? Qelvo_SendStrByHttp(nullptr, 0) != 1 : SendByCurlInit() != 0;
        });
        ASSERT_EQ(wrong, 0);
        ExpectStarted();
        ForgetModule();
        ASSERT_EQ(fake::SemsAlive(), 0U);
    }
}

/* --- the log -------------------------------------------------------------------------------------- */

TEST_F(SetupTest, LogSetUpIsInOrderAndNotRepeatedByTheStart)
{
    EXPECT_EQ(SendByCurlLogInit(), 0U);
    EXPECT_EQ(fake::DebugLogCalls(), LOG_SET_UP);
    EXPECT_EQ(g_bRegistedDebuglog, 1U);
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(SendByCurlInit(), 0U);
    EXPECT_EQ(fake::DebugLogCalls(), LOG_SET_UP);
}

TEST_F(SetupTest, RefusedLogIsReportedOnTheConsoleAndToModuleOneWhateverTheSwitchSays)
{
    fake::FailDebugLogRegist(true);
    for (const uint8_t type : {uint8_t{1}, uint8_t{2}}) {
        SCOPED_TRACE(type);
        fake::ClearLines();
        g_bySendCurlLogType = type;
        const auto [result, printed] = ResultAndOutput(SendByCurlLogInit);
        EXPECT_EQ(result, 1U);
        EXPECT_EQ(g_bRegistedDebuglog, 0U);
        EXPECT_EQ(fake::DebugLogCalls(), Texts(type, LOG_SET_UP[0])); /* one in each round */
        EXPECT_EQ(fake::Transcript(), "1/2 DebugLogRegist() failed\n");
        const int number = NumberIn(printed, "[SendCurl ERR]line:%d:");
        EXPECT_GT(number, 0);
        EXPECT_EQ(printed, Text("[SendCurl ERR]line:%d:DebugLogRegist() failed\n", number));
    }
}

/* --- "sendbycurlsetlog" --------------------------------------------------------------------------- */

TEST_F(SetupTest, EveryLevelOutsideOneToThreeIsRefusedAndLeavesTheSetting)
{
    for (unsigned level = 0; level <= 255; level = level == 0 ? 4 : level + 1) {
        SCOPED_TRACE(level);
        g_bySendCurlLogType = 1;
        EXPECT_EQ(SendByCurlSetLogLevel(static_cast<uint8_t>(level)), 1U);
        EXPECT_EQ(g_bySendCurlLogType, 1);
        ExpectLines({Error(SET_LEVEL, BAD_LEVEL, level)});
        g_bySendCurlLogType = 3;
        const auto [result, printed] =
            ResultAndOutput([=] { return SendByCurlSetLogLevel(static_cast<uint8_t>(level)); });
        EXPECT_EQ(result, 1U);
        EXPECT_EQ(g_bySendCurlLogType, 3);
        EXPECT_EQ(fake::Transcript(), "123/2 " + printed);
        ExpectLines({Error(SET_LEVEL, BAD_LEVEL, level)});
    }
}

/* One is the debug log, two the console, three both. */
TEST_F(SetupTest, EachLevelConfirmsWhereItLogs)
{
    for (const uint8_t level : {uint8_t{2}, uint8_t{1}, uint8_t{3}}) {
        SCOPED_TRACE(level);
        const auto [result, printed] = ResultAndOutput([level] { return SendByCurlSetLogLevel(level); });
        EXPECT_EQ(result, 0U);
        EXPECT_EQ(g_bySendCurlLogType, level);
        if (level == 1) {
            EXPECT_EQ(printed, "");
        } else {
            const int number = NumberIn(printed, "SendByCurlSetLogLevel[L:%d]");
            EXPECT_EQ(printed, Text("SendByCurlSetLogLevel[L:%d] Log level %u\n", number, level));
        }
        if (level == 3) {
            EXPECT_EQ(fake::Transcript(), "123/4 " + printed);
        }
        ExpectLines(level == 2 ? Lines{} : Lines{Info(SET_LEVEL, " Log level %u\n", level)});
    }
}

/* --- "sendbycurlshow" ----------------------------------------------------------------------------- */

TEST_F(SetupTest, ShowBeforeTheStartSaysOnlySo)
{
    g_pfASnycCBParam[0].bUseFlag = 1;
    SendByCurlShow();
    ExpectLines({Info(SHOW, " SendByCurl is not Init! g_bInited:%d\n", 0)});
    EXPECT_EQ(fake::SemsCreated(), 0U);
}

TEST_F(SetupTest, ShowBeforeTheStartWaitsForNoSemaphore)
{
    for (HOspSem &sem : g_pCurlSemSet) {
        ASSERT_NE(OspSemBCreate(&sem), 0U);
        OspSemTake(sem);
    }
    const auto shown = std::async(std::launch::async, SendByCurlShow);
    EXPECT_EQ(shown.wait_for(PATIENCE), std::future_status::ready);
    for (HOspSem sem : g_pCurlSemSet) {
        EXPECT_TRUE(fake::SemIsTaken(sem));
        OspSemGive(sem);
    }
}

TEST_F(SetupTest, ShowListsTakenSlotsInOrder)
{
    Start();
    SendByCurlShow();
    ExpectLines({Info(SHOW, SHOW_END)});
    TNvrHttpCurlCltReqInner reqs[2] = {};
    g_pfASnycCBParam[0] = {1, &reqs[0], Collect};
    g_pfASnycCBParam[1] = {0, &reqs[0], Collect}; /* free, whatever else it holds */
    g_pfASnycCBParam[700] = {7, &reqs[1], OtherNotification};
    g_pfASnycCBParam[1023] = {1, nullptr, nullptr};
    SendByCurlShow();
    ExpectLines({Info(SHOW, SHOW_SEPARATOR, 0), ShownSlot(0), Info(SHOW, SHOW_SEPARATOR, 700), ShownSlot(700),
                 Info(SHOW, SHOW_SEPARATOR, 1023), ShownSlot(1023), Info(SHOW, SHOW_END)});
}

/* A console that nobody reads stops the listing half-way, while the table must stay as it is. */
TEST_F(SetupTest, ShowHoldsTheTableWhileItPrints)
{
    Start();
    for (TSendByCurlASyncCB &slot : g_pfASnycCBParam) {
        slot = {1, nullptr, Collect};
    }
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    fflush(stdout);
    const int saved = dup(1);
    dup2(ends[1], 1);
    close(ends[1]);

    g_bySendCurlLogType = 2;
    std::thread show([] {
        SendByCurlShow();
        fflush(stdout);
        close(1);
    });
    const bool held = WaitUntil([] { return fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]); });
    std::string printed;
    char piece[4096];
    ssize_t count;
    while ((count = read(ends[0], piece, sizeof piece)) > 0) {
        printed.append(piece, static_cast<size_t>(count));
    }
    show.join();
    close(ends[0]);
    dup2(saved, 1);
    close(saved);

    EXPECT_TRUE(held);
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_NE(printed.find(" [1023] bUseFlag:1"), std::string::npos);
    EXPECT_NE(printed.find("Show End"), std::string::npos);
}

TEST_F(SetupTest, ShowWaitsForTheTable)
{
    Start();
    OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    std::thread show([] { SendByCurlShow(); });
    EXPECT_TRUE(WaitUntil([] { return fake::SemWaiters(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]) == 1; }));
    EXPECT_EQ(fake::Lines().size(), 0U);
    OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    show.join();
    EXPECT_EQ(CountOf(SHOW_END), 1U);
}
