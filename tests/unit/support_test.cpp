/* The fake platform and the substituted calls themselves: every other case rests on them. */
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "nvrhttpcurl/hcc_tools.h"
#include "platform/appbase.h"
#include "platform/debuglog.h"
#include "support/hcc_sem.h"
#include "tests/support/fake_platform.h"
#include "tests/support/hooks.h"

namespace
{

bool Eventually(const std::function<bool()> &pfHolds)
{
    const auto tLimit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!pfHolds()) {
        if (std::chrono::steady_clock::now() > tLimit) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

HOspSem NewSem()
{
    HOspSem hSem = nullptr;
    EXPECT_NE(OspSemBCreate(&hSem), 0U);
    return hSem;
}

void SetTrue(void *pvFlag)
{
    static_cast<std::atomic<bool> *>(pvFlag)->store(true);
}

} // namespace

TEST(FakeLog, KeepsFormatTextAndFunction)
{
    DebugLogPrint(123, 2, "%s[L:%d][Error] code %u\n", "Sender", 7, 9U);
    DebugLogPrint(1, 4, "plain\n");

    const auto atLines = fake::Lines();
    ASSERT_EQ(atLines.size(), 2U);
    EXPECT_EQ(atLines[0].dwModule, 123U);
    EXPECT_EQ(atLines[0].dwLevel, 2U);
    EXPECT_EQ(atLines[0].strFormat, "%s[L:%d][Error] code %u\n");
    EXPECT_EQ(atLines[0].strText, "Sender[L:7][Error] code 9\n");
    EXPECT_EQ(atLines[0].strFunc, "Sender");
    EXPECT_EQ(atLines[1].strFunc, "");
    EXPECT_EQ(fake::CountOf("plain\n"), 1U);
    EXPECT_EQ(fake::LinesOf("plain\n").at(0).dwLevel, 4U);
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

    const std::vector<std::string> astrExpected{
        "DebugLogRegist(123,[P],N)",         "DebugLogMoudlePrintLevelOn(123,2,1)", "DebugLogSetToStdioPrintf(123,3)",
        "DebugLogSetLogFileLen(123,131072)", "DebugLogSetToFileLevel(123,2)",       "DebugLogRegist(5,,M)"};
    EXPECT_EQ(fake::DebugLogCalls(), astrExpected);
}

TEST(FakeSem, IsBinaryAndMakesASecondTakeWait)
{
    const HOspSem hSem = NewSem();
    EXPECT_FALSE(fake::SemIsTaken(hSem));
    EXPECT_NE(OspSemGive(hSem), 0U); /* not counted */
    ASSERT_NE(OspSemTake(hSem), 0U);
    EXPECT_TRUE(fake::SemIsTaken(hSem));
    EXPECT_EQ(fake::HeldByThisThread(), 1U);

    bool bGiven = false; /* plain on purpose: the semaphore orders it */
    bool bSeen = false;
    std::atomic<bool> bTaken{false};
    std::thread tOther([&] {
        EXPECT_EQ(fake::HeldByThisThread(), 0U);
        EXPECT_NE(OspSemTake(hSem), 0U);
        bSeen = bGiven;
        bTaken = true;
        EXPECT_NE(OspSemGive(hSem), 0U);
    });
    EXPECT_TRUE(Eventually([hSem] { return fake::SemWaiters(hSem) == 1; }));
    EXPECT_FALSE(bTaken);
    bGiven = true;
    EXPECT_NE(OspSemGive(hSem), 0U);
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
    tOther.join();
    EXPECT_TRUE(bSeen);

    EXPECT_EQ(fake::SemsAlive(), 1U);
    EXPECT_NE(OspSemDelete(hSem), 0U);
    EXPECT_EQ(fake::SemsAlive(), 0U);
    EXPECT_EQ(fake::SemsCreated(), 1U);
    EXPECT_TRUE(fake::Violations().empty());
}

TEST(FakeSem, NullHandlesFailWithoutViolation)
{
    EXPECT_EQ(OspSemTake(nullptr), 0U);
    EXPECT_EQ(OspSemGive(nullptr), 0U);
    EXPECT_EQ(OspSemDelete(nullptr), 0U);
    EXPECT_EQ(fake::NullTakes(), 1U);
    EXPECT_TRUE(fake::Violations().empty());
}

TEST(FakeSem, NotesWrongUse)
{
    HOspSem hSem = NewSem();
    EXPECT_NE(OspSemBCreate(&hSem), 0U);
    EXPECT_EQ(fake::Violations().size(), 1U);
    EXPECT_NE(OspSemDelete(hSem), 0U);
    EXPECT_EQ(fake::Violations().size(), 1U);
    EXPECT_EQ(OspSemDelete(hSem), 0U);
    EXPECT_EQ(OspSemTake(hSem), 0U);
    EXPECT_EQ(OspSemGive(hSem), 0U);
    EXPECT_EQ(fake::Violations().size(), 4U);
    EXPECT_NE(OspSemBCreate(&hSem), 0U); /* over a deleted one: in order */
    EXPECT_EQ(fake::Violations().size(), 4U);
}

TEST(FakeSem, DeletionWakesAWaiterAndIsNoted)
{
    const HOspSem hSem = NewSem();
    ASSERT_NE(OspSemTake(hSem), 0U);
    uint32_t dwTaken = 1;
    std::thread tOther([&] { dwTaken = OspSemTake(hSem); });
    EXPECT_TRUE(Eventually([hSem] { return fake::SemWaiters(hSem) == 1; }));
    EXPECT_NE(OspSemDelete(hSem), 0U);
    tOther.join();
    EXPECT_EQ(dwTaken, 0U);
    EXPECT_EQ(fake::Violations().size(), 2U); /* the deletion and the take */
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
}

TEST(FakeSem, FailsTheNthCreationFromTheOrderOn)
{
    const HOspSem hBefore = NewSem();
    fake::FailSemCreate(2);
    HOspSem ahSem[4] = {};
    EXPECT_NE(OspSemBCreate(&ahSem[0]), 0U);
    EXPECT_EQ(OspSemBCreate(&ahSem[1]), 0U);
    EXPECT_EQ(ahSem[1], nullptr);
    EXPECT_NE(OspSemBCreate(&ahSem[2]), 0U);
    EXPECT_EQ(fake::SemsCreated(), 3U);

    fake::FailSemCreate(1, true);
    EXPECT_EQ(HCCSemEnsure(&ahSem[3]), nullptr); /* the library reaches the fake */
    EXPECT_EQ(HCCSemEnsure(&ahSem[3]), nullptr);
    fake::FailSemCreate(0);
    EXPECT_NE(HCCSemEnsure(&ahSem[3]), nullptr);
    EXPECT_FALSE(fake::SemIsTaken(hBefore));
}

TEST(FakeTask, RunsRecordsAndJoins)
{
    std::atomic<bool> bRan{false};
    uint64_t qwID = 0;
    const HOspTask hTask = OspTaskCreate(SetTrue, "name", 80, 0x20000, &bRan, 0, &qwID);
    ASSERT_NE(hTask, nullptr);
    EXPECT_NE(qwID, 0U);
    EXPECT_FALSE(fake::Tasks().at(0).bWaited);
    EXPECT_NE(OspTaskWaitEnd(hTask), 0U);
    EXPECT_TRUE(bRan);

    const auto atTasks = fake::Tasks();
    ASSERT_EQ(atTasks.size(), 1U);
    EXPECT_EQ(atTasks[0].strName, "name");
    EXPECT_EQ(atTasks[0].byPriority, 80U);
    EXPECT_EQ(atTasks[0].dwStackSize, 0x20000U);
    EXPECT_EQ(atTasks[0].pfEntry, SetTrue);
    EXPECT_EQ(atTasks[0].pvArg, &bRan);
    EXPECT_EQ(atTasks[0].hTask, hTask);
    EXPECT_TRUE(atTasks[0].bWaited);

    EXPECT_TRUE(fake::Violations().empty());
    EXPECT_EQ(OspTaskWaitEnd(hTask), 0U);
    EXPECT_EQ(fake::Violations().size(), 1U);
    EXPECT_EQ(OspTaskWaitEnd(nullptr), 0U);
}

TEST(FakeTask, FailuresAndTasksThatDoNotRun)
{
    std::atomic<bool> bRan{false};
    fake::FailTaskCreate(1);
    EXPECT_EQ(OspTaskCreate(SetTrue, "", 0, 0, &bRan, 0, nullptr), nullptr);
    EXPECT_TRUE(fake::Tasks().empty());

    fake::RunTasks(false);
    const HOspTask hIdle = OspTaskCreate(SetTrue, "", 0, 0, &bRan, 0, nullptr);
    ASSERT_NE(hIdle, nullptr);
    EXPECT_NE(OspTaskWaitEnd(hIdle), 0U);
    EXPECT_FALSE(bRan);

    fake::RunTasks(true);
    fake::FailTaskWait(true);
    const HOspTask hTask = OspTaskCreate(SetTrue, "", 0, 0, &bRan, 0, nullptr);
    ASSERT_NE(hTask, nullptr);
    EXPECT_EQ(OspTaskWaitEnd(hTask), 0U);
    EXPECT_TRUE(bRan); /* joined all the same */
    EXPECT_EQ(fake::Tasks().size(), 2U);
}

TEST(FakeTask, DoesNotWaitForItself)
{
    struct Self {
        std::atomic<HOspTask> hTask{nullptr};
        uint32_t dwResult = 1;
    } tSelf;
    const auto pfEntry = [](void *pvArg) {
        auto *ptSelf = static_cast<Self *>(pvArg);
        Eventually([ptSelf] { return ptSelf->hTask.load() != nullptr; });
        ptSelf->dwResult = OspTaskWaitEnd(ptSelf->hTask);
    };
    const HOspTask hTask = OspTaskCreate(pfEntry, "", 0, 0, &tSelf, 0, nullptr);
    tSelf.hTask = hTask;
    EXPECT_NE(OspTaskWaitEnd(hTask), 0U);
    EXPECT_EQ(tSelf.dwResult, 0U);
}

TEST(FakeCommands, KeepTheirOrderAndRepetitions)
{
    const PFOspCommand pfCommand = [] {};
    EXPECT_NE(OspRegCommand("b", pfCommand, "help"), 0U);
    EXPECT_NE(OspRegCommand("a", pfCommand, nullptr), 0U);
    EXPECT_NE(OspRegCommand("b", pfCommand, ""), 0U);
    EXPECT_EQ(OspRegCommand("", pfCommand, ""), 0U);
    EXPECT_EQ(OspRegCommand(nullptr, pfCommand, ""), 0U);
    EXPECT_EQ(OspRegCommand("c", nullptr, ""), 0U);
    const auto atCommands = fake::Commands();
    ASSERT_EQ(atCommands.size(), 3U);
    EXPECT_EQ(atCommands[0].strName + atCommands[1].strName + atCommands[2].strName, "bab");
    EXPECT_EQ(atCommands[0].strHelp, "help");
    EXPECT_EQ(atCommands[0].pfCommand, pfCommand);
}

TEST(FakeBase, HelpersFollowTheirContract)
{
    const char *szText = "http://host";
    EXPECT_EQ(AppStrstr(szText, "://"), szText + 4);
    EXPECT_EQ(AppStrstr(szText, ""), szText);
    EXPECT_EQ(AppStrstr(szText, "HTTP"), nullptr);
    EXPECT_EQ(AppStrstr(nullptr, ""), nullptr);
    EXPECT_EQ(AppStrstr(szText, nullptr), nullptr);
    EXPECT_EQ(AppStrlen(szText), 11U);
    EXPECT_EQ(AppStrlen(nullptr), 0U);

    const uint16_t wNet = AppConvertHtons(0x1234);
    const uint8_t abyExpected[] = {0x12, 0x34};
    EXPECT_EQ(memcmp(&wNet, abyExpected, 2), 0);

    AppDelay(0);
    AppDelay(1);
    EXPECT_EQ(fake::Delays(), (std::vector<uint32_t>{0, 1}));

    TAppNetAddr tAddr = {};
    const uint8_t abyLoopback[] = {127, 0, 0, 1};
    EXPECT_EQ(AppConvertStrtoNet("127.0.0.1", &tAddr), 0U);
    EXPECT_EQ(memcmp(&tAddr.dwIPv4, abyLoopback, 4), 0);
    EXPECT_EQ(tAddr.dwFamily, static_cast<uint32_t>(AF_INET));
    EXPECT_NE(AppConvertStrtoNet("host", &tAddr), 0U);
    EXPECT_NE(AppConvertStrtoNet(nullptr, &tAddr), 0U);
    fake::SetStrtoNetResult(9);
    EXPECT_EQ(AppConvertStrtoNet("127.0.0.1", &tAddr), 9U);
}

TEST(FakeMemory, CountsFailsAndKeepsLostBlocks)
{
    const TNvrHttpCurlCltMemCB tMemCB = fake::MemCB();
    char *pchBlock = static_cast<char *>(tMemCB.pfMalloc(4));
    ASSERT_NE(pchBlock, nullptr);
    memcpy(pchBlock, "abc", 4);
    pchBlock = static_cast<char *>(tMemCB.pfRealloc(pchBlock, 4096));
    ASSERT_NE(pchBlock, nullptr);
    EXPECT_STREQ(pchBlock, "abc");
    EXPECT_EQ(fake::BlocksAlive(), 1U);

    fake::FailMalloc(1);
    EXPECT_EQ(tMemCB.pfMalloc(1), nullptr);
    fake::FailRealloc(1, true);
    EXPECT_EQ(tMemCB.pfRealloc(pchBlock, 8192), nullptr);
    EXPECT_EQ(tMemCB.pfRealloc(pchBlock, 8192), nullptr);
    void *pvKept = tMemCB.pfMalloc(1);
    EXPECT_EQ(fake::BlocksAlive(), 2U);
    fake::FreeLostBlocks();
    EXPECT_EQ(fake::BlocksAlive(), 1U);
    EXPECT_TRUE(fake::Violations().empty());

    tMemCB.pfFree(pvKept);
    EXPECT_EQ(fake::Mallocs(), 3U);
    EXPECT_EQ(fake::Reallocs(), 3U);
    EXPECT_EQ(fake::Frees(), 1U);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

TEST(FakeMemory, NotesForeignAndNullBlocks)
{
    const TNvrHttpCurlCltMemCB tMemCB = fake::MemCB();
    int nForeign = 0;
    tMemCB.pfFree(nullptr);
    tMemCB.pfFree(&nForeign);
    EXPECT_EQ(tMemCB.pfRealloc(&nForeign, 8), nullptr);
    EXPECT_EQ(fake::Violations().size(), 3U);
}

TEST(Hooks, RecordAndPassOnWhereNoneIsSet)
{
    CURL *ptEasy = curl_easy_init();
    ASSERT_NE(ptEasy, nullptr);
    std::string strUrl = "http://127.0.0.1/a";
    EXPECT_EQ(curl_easy_setopt(ptEasy, CURLOPT_URL, strUrl.c_str()), CURLE_OK);
    EXPECT_EQ(curl_easy_setopt(ptEasy, CURLOPT_TIMEOUT_MS, 1234L), CURLE_OK);
    EXPECT_EQ(curl_easy_setopt(ptEasy, CURLOPT_CAINFO, nullptr), CURLE_OK);
    strUrl = "gone";

    EXPECT_EQ(hooks::OptionOrder(), (std::vector<CURLoption>{CURLOPT_URL, CURLOPT_TIMEOUT_MS, CURLOPT_CAINFO}));
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_URL).at(0).strText, "http://127.0.0.1/a");
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).uValue, 1234U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).ptEasy, ptEasy);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_CAINFO).at(0).strText, "");

    char *szReal = nullptr; /* libcurl has the URL, so the setting was passed on */
    EXPECT_EQ(curl_easy_getinfo(ptEasy, CURLINFO_EFFECTIVE_URL, &szReal), CURLE_OK);
    EXPECT_STREQ(szReal, "http://127.0.0.1/a");
    curl_easy_cleanup(ptEasy);
    EXPECT_EQ(hooks::Calls("curl_easy_setopt"), 3U);
    EXPECT_EQ(hooks::Calls("curl_easy_getinfo"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
    EXPECT_THROW(hooks::Calls("curl_easy_clean"), std::invalid_argument);
    hooks::ClearOptions();
    EXPECT_TRUE(hooks::Options().empty());
}

TEST(Hooks, RefuseAnOptionUntilItIsTakenBack)
{
    CURL *ptEasy = curl_easy_init();
    hooks::RefuseOption(CURLOPT_NOSIGNAL, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(curl_easy_setopt(ptEasy, CURLOPT_NOSIGNAL, 1L), CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(curl_easy_setopt(ptEasy, CURLOPT_VERBOSE, 0L), CURLE_OK);
    hooks::RefuseOption(CURLOPT_NOSIGNAL, CURLE_OK);
    EXPECT_EQ(curl_easy_setopt(ptEasy, CURLOPT_NOSIGNAL, 1L), CURLE_OK);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_NOSIGNAL).size(), 2U);
    curl_easy_cleanup(ptEasy);
}

TEST(Hooks, ReplaceCallsAndMayMakeTheRealOnes)
{
    hooks::easy_setopt = [](CURL *ptEasy, CURLoption eOption, void *pvValue) {
        EXPECT_EQ(hooks::Options().size(), 1U); /* no lock is held out here */
        return eOption == CURLOPT_URL ? hooks::real::easy_setopt(ptEasy, eOption, pvValue) : CURLE_OUT_OF_MEMORY;
    };
    CURL *ptEasy = curl_easy_init();
    EXPECT_EQ(curl_easy_setopt(ptEasy, CURLOPT_URL, "http://127.0.0.1/b"), CURLE_OK);
    hooks::ClearOptions();
    EXPECT_EQ(curl_easy_setopt(ptEasy, CURLOPT_VERBOSE, 0L), CURLE_OUT_OF_MEMORY);
    char *szReal = nullptr;
    EXPECT_EQ(curl_easy_getinfo(ptEasy, CURLINFO_EFFECTIVE_URL, &szReal), CURLE_OK);
    EXPECT_STREQ(szReal, "http://127.0.0.1/b");
    curl_easy_cleanup(ptEasy);

    hooks::multi_init = []() -> CURLM * { return nullptr; };
    EXPECT_EQ(curl_multi_init(), nullptr);
    hooks::sys_calloc = [](size_t, size_t) -> void * { return nullptr; };
    EXPECT_EQ(calloc(3, 5), nullptr);
    hooks::sys_calloc = hooks::real::sys_calloc;
    unsigned char *pbyBlock = static_cast<unsigned char *>(calloc(3, 5));
    ASSERT_NE(pbyBlock, nullptr);
    EXPECT_EQ(pbyBlock[14], 0U);
    free(pbyBlock);
}

/* Every hook is declared in one place and stored in another; a mix-up shows here. */
TEST(Hooks, EachStandsForItsOwnCall)
{
    std::string strSeen;
    hooks::global_init = [&](long) { return strSeen += "a", CURLE_OK; };
    hooks::easy_init = [&]() -> CURL * { return strSeen += "b", nullptr; };
    hooks::easy_perform = [&](CURL *) { return strSeen += "c", CURLE_OK; };
    hooks::easy_getinfo = [&](CURL *, CURLINFO, void *) { return strSeen += "d", CURLE_OK; };
    hooks::easy_cleanup = [&](CURL *) { strSeen += "e"; };
    hooks::slist_append = [&](curl_slist *ptList, const char *) { return strSeen += "f", ptList; };
    hooks::multi_cleanup = [&](CURLM *) { return strSeen += "g", CURLM_OK; };
    hooks::multi_add_handle = [&](CURLM *, CURL *) { return strSeen += "h", CURLM_OK; };
    hooks::multi_remove_handle = [&](CURLM *, CURL *) { return strSeen += "i", CURLM_OK; };
    hooks::multi_perform = [&](CURLM *, int *) { return strSeen += "j", CURLM_OK; };
    hooks::multi_wait = [&](CURLM *, curl_waitfd *, unsigned, int, int *) { return strSeen += "k", CURLM_OK; };
    hooks::multi_info_read = [&](CURLM *, int *) -> CURLMsg * { return strSeen += "l", nullptr; };
    hooks::share_init = [&]() -> CURLSH * { return strSeen += "m", nullptr; };
    hooks::share_setopt = [&](CURLSH *, CURLSHoption, void *) { return strSeen += "n", CURLSHE_OK; };
    hooks::json_create_object = [&]() -> cJSON * { return strSeen += "o", nullptr; };
    hooks::json_print_unformatted = [&](const cJSON *) -> char * { return strSeen += "p", nullptr; };
    hooks::sys_socket = [&](int, int, int) { return strSeen += "q", -1; };
    hooks::sys_bind = [&](int, const sockaddr *, socklen_t) { return strSeen += "r", -1; };
    hooks::sys_sendto = [&](int, const void *, size_t, int, const sockaddr *, socklen_t) -> ssize_t {
        return strSeen += "s", -1;
    };
    hooks::sys_recvfrom = [&](int, void *, size_t, int, sockaddr *, socklen_t *) -> ssize_t {
        return strSeen += "t", -1;
    };

    int nNumber = 0;
    curl_global_init(0);
    curl_easy_init();
    curl_easy_perform(nullptr);
    curl_easy_getinfo(nullptr, CURLINFO_RESPONSE_CODE, &nNumber);
    curl_easy_cleanup(nullptr);
    curl_slist_append(nullptr, "");
    curl_multi_cleanup(nullptr);
    curl_multi_add_handle(nullptr, nullptr);
    curl_multi_remove_handle(nullptr, nullptr);
    curl_multi_perform(nullptr, &nNumber);
    curl_multi_wait(nullptr, nullptr, 0, 0, &nNumber);
    curl_multi_info_read(nullptr, &nNumber);
    curl_share_init();
    curl_share_setopt(nullptr, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    cJSON_CreateObject();
    cJSON_PrintUnformatted(nullptr);
    EXPECT_EQ(socket(AF_INET, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(bind(-1, nullptr, 0), -1);
    EXPECT_EQ(sendto(-1, "", 0, 0, nullptr, 0), -1);
    EXPECT_EQ(recvfrom(-1, &nNumber, 1, 0, nullptr, nullptr), -1);
    EXPECT_EQ(strSeen, "abcdefghijklmnopqrst");
}

TEST(Hooks, ReachTheLibrarysOwnCalls)
{
    hooks::sys_times = [](struct tms *) { return static_cast<clock_t>(77); };
    hooks::sys_sysconf = [](int nName) { return nName == _SC_CLK_TCK ? 10L : hooks::real::sys_sysconf(nName); };
    std::string strName;
    hooks::sys_set_name = [&strName](const char *szName) {
        strName = szName;
        return 0;
    };
    EXPECT_EQ(NVRHCCGetTickCount(), 77U);
    EXPECT_EQ(NVRHCCTickToMS(20), 2000U);
    EXPECT_EQ(NVRHCCThreadSetName("worker"), 0U);
    EXPECT_EQ(strName, "worker");
    EXPECT_EQ(hooks::Calls("times"), 1U);
}

TEST(Hooks, SystemCallsPassOnWhereNoneIsSet)
{
    EXPECT_EQ(NVRHCCThreadSetName("passed-on"), 0U);
    char achName[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, achName, 0, 0, 0), 0);
    EXPECT_STREQ(achName, "passed-on");
    EXPECT_NE(NVRHCCGetTickCount(), 0U);
    EXPECT_GT(sysconf(_SC_CLK_TCK), 0);
}

namespace
{

std::atomic<bool> g_bHookEntered{false};

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
    const std::string strCaptured(64, 'x');
    hooks::multi_perform = [strCaptured](CURLM *, int *) {
        g_bHookEntered = strCaptured.size() == 64;
        return CURLM_OK;
    };
    ASSERT_NE(OspTaskCreate(CallHookedForEver, "endless", 0, 0, nullptr, 0, nullptr), nullptr);
    EXPECT_TRUE(Eventually([] { return g_bHookEntered.load(); }));
}
