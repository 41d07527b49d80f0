/*
 * Start of the send module, its log, and its console commands but the self-test.
 */
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "support/hcc_log.h"
#include "tests/support/send_fixture.h"

using namespace sendtest;

namespace
{

const std::string LOG_INIT_FAILED = "%s[L:%d][Error] SendByCurlLogInit is Failed!\n";
const std::string BAD_LEVEL = "%s[L:%d][Error] invalid level %u\n";
const std::string NEW_LEVEL = "%s[L:%d] Log level %u\n";
const std::string NOT_INIT = "%s[L:%d] SendByCurl is not Init! g_bInited:%d\n";
const std::string SHOW_SEPARATOR = "%s[L:%d] --------------------------[%d]--------------------------\n";
const std::string SHOW_SLOT = "%s[L:%d] [%d] bUseFlag:%d, g_pfNtf:%p, ptReq:%p\n";
const std::string SHOW_END = "%s[L:%d] ------------------------Show End------------------------\n";

const std::vector<std::string> LOG_SET_UP = {
    "DebugLogRegist(123,[SendCurl],SendCurl)", "DebugLogMoudlePrintLevelOn(123,2,1)", "DebugLogSetToStdioPrintf(123,2)",
    "DebugLogSetLogFileLen(123,131072)",       "DebugLogSetToFileLevel(123,2)",
};

std::vector<std::string> CommandNames()
{
    std::vector<std::string> astrNames;
    for (const fake::CommandInfo &tCommand : fake::Commands()) {
        astrNames.push_back(tCommand.strName);
    }
    return astrNames;
}

size_t InstancesInUse()
{
    size_t nInUse = 0;
    for (const TNvrHttpCurlCltInst &tInst : g_tNvrHttpCurlCltCont) {
        nInUse += tInst.bInited != 0 ? 1 : 0;
    }
    return nInUse;
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
        EXPECT_EQ(g_bInited, 0u);
        EXPECT_EQ(g_hInitHandle, nullptr);
        EXPECT_EQ(InstancesInUse(), 0u);
        for (const std::string &strName : CommandNames()) {
            EXPECT_NE(strName.compare(0, 10, "sendbycurl"), 0) << strName;
        }
    }

    static void ExpectStarted()
    {
        EXPECT_EQ(g_bInited, 1u);
        EXPECT_EQ(g_hInitHandle, &g_tNvrHttpCurlCltCont[0]);
        EXPECT_EQ(InstancesInUse(), 1u);
        EXPECT_EQ(fake::SemsAlive(), ENGINE_SEMS + SENDBYCURL_SEM_COUNT);
    }
};

} // namespace

/* --- start ----------------------------------------------------------------------------------- */

TEST_F(SetupTest, StateAtLoad)
{
    EXPECT_EQ(g_bInited, 0u);
    EXPECT_EQ(g_hInitHandle, nullptr);
    EXPECT_EQ(g_bRegistedDebuglog, 0u);
    EXPECT_EQ(g_bLibCurlGobleInit, 0u);
    EXPECT_EQ(g_bySendCurlLogType, 1);
    for (HOspSem hSem : g_pCurlSemSet) {
        EXPECT_EQ(hSem, nullptr);
    }
    EXPECT_EQ(sizeof g_pfASnycCBParam / sizeof g_pfASnycCBParam[0], 1024u);
    for (const TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        EXPECT_EQ(tSlot.bUseFlag, 0u);
        EXPECT_EQ(tSlot.ptReq, nullptr);
        EXPECT_EQ(tSlot.pfNtf, nullptr);
    }
}

TEST_F(SetupTest, StartsOneEngineOfEightTasksOnTheStandardAllocator)
{
    EXPECT_EQ(SendByCurlInit(), 0u);

    ExpectStarted();
    EXPECT_EQ(fake::Tasks().size(), 8u);
    EXPECT_EQ(g_hInitHandle->dwTaskNum, 8u);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqMaxNum, 1024u);
    EXPECT_EQ(g_hInitHandle->tMemCB.pfMalloc, &malloc);
    EXPECT_EQ(g_hInitHandle->tMemCB.pfRealloc, &realloc);
    EXPECT_EQ(g_hInitHandle->tMemCB.pfFree, &free);
}

TEST_F(SetupTest, CreatesThreeSemaphoresAndLeavesThemAvailable)
{
    EXPECT_EQ(SendByCurlInit(), 0u);

    for (size_t nII = 0; nII < SENDBYCURL_SEM_COUNT; ++nII) {
        ASSERT_NE(g_pCurlSemSet[nII], nullptr);
        EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[nII]));
        for (size_t nKK = 0; nKK < nII; ++nKK) {
            EXPECT_NE(g_pCurlSemSet[nII], g_pCurlSemSet[nKK]);
        }
    }
    EXPECT_EQ(fake::NullTakes(), 0u);
}

TEST_F(SetupTest, KeepsSemaphoresThatExist)
{
    HOspSem ahBefore[SENDBYCURL_SEM_COUNT];
    for (size_t nII = 0; nII < SENDBYCURL_SEM_COUNT; ++nII) {
        ASSERT_NE(OspSemBCreate(&g_pCurlSemSet[nII]), 0u);
        ahBefore[nII] = g_pCurlSemSet[nII];
    }

    EXPECT_EQ(SendByCurlInit(), 0u);

    for (size_t nII = 0; nII < SENDBYCURL_SEM_COUNT; ++nII) {
        EXPECT_EQ(g_pCurlSemSet[nII], ahBefore[nII]);
    }
    EXPECT_EQ(fake::SemsCreated(), ENGINE_SEMS + SENDBYCURL_SEM_COUNT);
}

TEST_F(SetupTest, InitialisesLibcurlOnceWithEverything)
{
    long nFlags = -1;
    hooks::global_init = [&nFlags](long nGiven) {
        nFlags = nGiven;
        return CURLE_OK;
    };

    EXPECT_EQ(SendByCurlInit(), 0u);

    EXPECT_EQ(nFlags, 3L);
    EXPECT_EQ(hooks::Calls("curl_global_init"), 1u);
    EXPECT_EQ(g_bLibCurlGobleInit, 1u);
}

TEST_F(SetupTest, DoesNotExamineTheResultOfLibcurlsInitialisation)
{
    hooks::global_init = [](long) { return CURLE_FAILED_INIT; };

    EXPECT_EQ(SendByCurlInit(), 0u);

    EXPECT_EQ(g_bLibCurlGobleInit, 1u);
    ExpectStarted();
}

TEST_F(SetupTest, LeavesLibcurlAloneWhereItWasInitialised)
{
    g_bLibCurlGobleInit = 1;

    EXPECT_EQ(SendByCurlInit(), 0u);

    EXPECT_EQ(hooks::Calls("curl_global_init"), 0u);
}

TEST_F(SetupTest, RegistersItsCommandsInOrderWithTheirNamesAsHelp)
{
    EXPECT_EQ(SendByCurlInit(), 0u);

    EXPECT_EQ(CommandNames(), (std::vector<std::string>{"NvrHttpCurlCltver", "NvrHttpCurlCltshow", "sendbycurlshow",
                                                        "sendbycurltest", "sendbycurlsetlog"}));
    const std::vector<fake::CommandInfo> atCommands = fake::Commands();
    for (const fake::CommandInfo &tCommand : atCommands) {
        EXPECT_EQ(tCommand.strHelp, tCommand.strName);
    }
    ASSERT_EQ(atCommands.size(), 5u);
    EXPECT_EQ(atCommands[2].pfCommand, reinterpret_cast<PFOspCommand>(SendByCurlShow));
    EXPECT_EQ(atCommands[3].pfCommand, reinterpret_cast<PFOspCommand>(sendbycurltest));
    EXPECT_EQ(atCommands[4].pfCommand, reinterpret_cast<PFOspCommand>(SendByCurlSetLogLevel));
}

TEST_F(SetupTest, SecondStartDoesNothing)
{
    Start();
    const HNvrHttpCurlCltInst hBefore = g_hInitHandle;
    const size_t nSems = fake::SemsCreated();

    EXPECT_EQ(SendByCurlInit(), 0u);
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Init(), 0u);

    EXPECT_EQ(g_hInitHandle, hBefore);
    EXPECT_EQ(fake::Commands().size(), 5u);
    EXPECT_EQ(fake::Tasks().size(), 8u);
    EXPECT_EQ(fake::SemsCreated(), nSems);
    EXPECT_EQ(hooks::Calls("curl_global_init"), 1u);
    EXPECT_EQ(fake::DebugLogCalls(), LOG_SET_UP);
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_INIT]));
    ExpectStarted();
}

TEST_F(SetupTest, ApplicationsStartSucceedsWithoutALineOfItsOwn)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Init(), 0u);

    ExpectStarted();
    EXPECT_EQ(FormatsOf("Qelvo_SyncSendStrByHttp_Init"), std::vector<std::string>());
    EXPECT_EQ(FormatsOf("SendByCurlInit"), std::vector<std::string>());
    EXPECT_EQ(fake::NullTakes(), 0u);
}

/* --- failing starts --------------------------------------------------------------------------- */

TEST_F(SetupTest, RefusedLogRegistrationEndsTheStart)
{
    fake::FailDebugLogRegist(true);

    EXPECT_EQ(SendByCurlInit(), 1u);

    ExpectLine(LOG_INIT_FAILED, LEVEL_ERROR, "SendByCurlInit", "[Error] SendByCurlLogInit is Failed!\n");
    ExpectNotStarted();
    EXPECT_EQ(g_bRegistedDebuglog, 0u);
    EXPECT_EQ(g_bLibCurlGobleInit, 0u);
    EXPECT_EQ(hooks::Calls("curl_global_init"), 0u);
    EXPECT_EQ(fake::Tasks().size(), 0u);
    EXPECT_EQ(fake::Commands().size(), 0u);
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_INIT]));
}

TEST_F(SetupTest, StartsAfterARefusedLogRegistration)
{
    fake::FailDebugLogRegist(true);
    EXPECT_EQ(SendByCurlInit(), 1u);
    EXPECT_EQ(SendByCurlInit(), 1u);
    fake::FailDebugLogRegist(false);

    EXPECT_EQ(SendByCurlInit(), 0u);

    ExpectStarted();
    EXPECT_EQ(g_bRegistedDebuglog, 1u);
    EXPECT_EQ(fake::Commands().size(), 5u);
}

TEST_F(SetupTest, FailedEngineIsReportedConvertedAndRegistersNothing)
{
    fake::FailTaskCreate(1);

    EXPECT_EQ(SendByCurlInit(), 1u);

    ExpectLine(STEP_FAILED, LEVEL_INFO, "SendByCurlInit", " @ is Failed!\n");
    ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
               " Transfer NvrHttpCurlCltRet[1] to ESendByCurlRet[1]\n");
    EXPECT_LT(PlaceOf(STEP_FAILED), PlaceOf(CONVERTED));
    ExpectNotStarted();
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_INIT]));
    EXPECT_EQ(g_bRegistedDebuglog, 1u);
    EXPECT_EQ(g_bLibCurlGobleInit, 1u);
}

TEST_F(SetupTest, StartsAfterAFailedEngineWithoutRepeatingWhatWasDone)
{
    fake::FailTaskCreate(3);
    EXPECT_EQ(SendByCurlInit(), 1u);
    const HOspSem ahBefore[] = {g_pCurlSemSet[0], g_pCurlSemSet[1], g_pCurlSemSet[2]};

    EXPECT_EQ(SendByCurlInit(), 0u);

    ExpectStarted();
    EXPECT_EQ(fake::DebugLogCalls(), LOG_SET_UP);
    EXPECT_EQ(hooks::Calls("curl_global_init"), 1u);
    for (size_t nII = 0; nII < SENDBYCURL_SEM_COUNT; ++nII) {
        EXPECT_EQ(g_pCurlSemSet[nII], ahBefore[nII]);
    }
    /* The engine's two come with every attempt of its own. */
    EXPECT_EQ(CommandNames(),
              (std::vector<std::string>{"NvrHttpCurlCltver", "NvrHttpCurlCltshow", "NvrHttpCurlCltver",
                                        "NvrHttpCurlCltshow", "sendbycurlshow", "sendbycurltest", "sendbycurlsetlog"}));
}

TEST_F(SetupTest, NoFreeInstanceIsTheLimitResult)
{
    for (TNvrHttpCurlCltInst &tInst : g_tNvrHttpCurlCltCont) {
        tInst.bInited = 1;
    }

    EXPECT_EQ(SendByCurlInit(), 12u);

    for (TNvrHttpCurlCltInst &tInst : g_tNvrHttpCurlCltCont) {
        tInst.bInited = 0;
    }
    ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
               " Transfer NvrHttpCurlCltRet[8] to ESendByCurlRet[12]\n");
    ExpectNotStarted();
}

TEST_F(SetupTest, ApplicationsStartLogsAndReturnsTheFailure)
{
    fake::FailDebugLogRegist(true);

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Init(), 1u);

    ExpectLine(INIT_FAILED, LEVEL_ERROR, "Qelvo_SyncSendStrByHttp_Init",
               "[Error] SendByCurlInit is Failed! eSendCurlRet:1\n");
}

TEST_F(SetupTest, ApplicationsStartReturnsTheConvertedEngineResult)
{
    for (TNvrHttpCurlCltInst &tInst : g_tNvrHttpCurlCltCont) {
        tInst.bInited = 1;
    }

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Init(), 12u);

    for (TNvrHttpCurlCltInst &tInst : g_tNvrHttpCurlCltCont) {
        tInst.bInited = 0;
    }
    ExpectLine(INIT_FAILED, LEVEL_ERROR, "Qelvo_SyncSendStrByHttp_Init",
               "[Error] SendByCurlInit is Failed! eSendCurlRet:12\n");
}

TEST_F(SetupTest, EachOfTheThreeSemaphoresIsRequired)
{
    for (unsigned nNth = 1; nNth <= SENDBYCURL_SEM_COUNT; ++nNth) {
        SCOPED_TRACE(nNth);
        fake::FailSemCreate(nNth);
        EXPECT_EQ(SendByCurlInit(), 1u);
        ExpectNotStarted();
        EXPECT_EQ(fake::Tasks().size(), 0u);
        EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_INIT]));
        ForgetModule();
        EXPECT_EQ(fake::SemsAlive(), 0u);
    }
}

TEST_F(SetupTest, StartsAfterASemaphoreCouldNotBeHad)
{
    fake::FailSemCreate(2);
    EXPECT_EQ(SendByCurlInit(), 1u);

    EXPECT_EQ(SendByCurlInit(), 0u);

    ExpectStarted();
}

/* --- racing starts ------------------------------------------------------------------------------ */

TEST_F(SetupTest, RacingFirstCallsStartOneEngineAndLeakNoSemaphore)
{
    std::atomic<int> nInside{0};
    std::atomic<int> nTogether{0};
    hooks::global_init = [&](long) {
        nTogether += nInside++ > 0 ? 1 : 0;
        for (int nII = 0; nII < 20; ++nII) {
            std::this_thread::yield();
        }
        --nInside;
        return CURLE_OK;
    };
    hooks::easy_perform = [](CURL *) { return CURLE_COULDNT_CONNECT; };

    for (size_t nRound = 1; nRound <= 40; ++nRound) {
        std::atomic<int> nWrong{0};
        Race(6, [&](unsigned nThread) {
            TSendByCurlParam tParam = {};
            tParam.pchURL = "http://127.0.0.1:1/";
            tParam.pchSendBuf = "{}";
            switch (nThread % 3) {
            case 0:
                nWrong += SendByCurlInit() == 0 ? 0 : 1;
                break;
            case 1:
                nWrong += Qelvo_SyncSendStrByHttp_Init() == 0 ? 0 : 1;
                break;
            default:
                nWrong += Qelvo_SyncSendStrByHttp_Ext(&tParam) == 5 ? 0 : 1;
                break;
            }
        });
        ASSERT_EQ(nWrong, 0) << fake::Transcript();
        ExpectStarted();
        ASSERT_EQ(fake::Tasks().size(), 8 * nRound);
        ASSERT_EQ(fake::Commands().size(), 5 * nRound);
        ASSERT_EQ(hooks::Calls("curl_global_init"), nRound);
        ForgetModule();
        ASSERT_EQ(fake::SemsAlive(), 0u);
    }
    EXPECT_EQ(nTogether, 0);
}

TEST_F(SetupTest, SendsThatComeBeforeTheStartRaceForTheSameSemaphore)
{
    for (int nRound = 0; nRound < 40; ++nRound) {
        std::atomic<int> nWrong{0};
        Race(6, [&](unsigned nThread) {
            if (nThread % 2 == 0) {
                nWrong += Qelvo_SendStrByHttp(nullptr, 0) == 1 ? 0 : 1;
            } else {
                nWrong += SendByCurlInit() == 0 ? 0 : 1;
            }
        });
        ASSERT_EQ(nWrong, 0);
        ExpectStarted();
        ForgetModule();
        ASSERT_EQ(fake::SemsAlive(), 0u);
    }
}

/* --- the log -------------------------------------------------------------------------------------- */

TEST_F(SetupTest, LogSetUpIsInOrder)
{
    EXPECT_EQ(SendByCurlLogInit(), 0u);

    EXPECT_EQ(fake::DebugLogCalls(), LOG_SET_UP);
    EXPECT_EQ(g_bRegistedDebuglog, 1u);
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(SetupTest, StartDoesNotRepeatALogSetUpMadeBefore)
{
    EXPECT_EQ(SendByCurlLogInit(), 0u);

    EXPECT_EQ(SendByCurlInit(), 0u);

    EXPECT_EQ(fake::DebugLogCalls(), LOG_SET_UP);
}

TEST_F(SetupTest, RefusedLogIsToldOnTheConsoleAndToModuleOne)
{
    fake::FailDebugLogRegist(true);

    testing::internal::CaptureStdout();
    const uint32_t dwResult = SendByCurlLogInit();
    fflush(stdout);
    const std::string strPrinted = testing::internal::GetCapturedStdout();

    EXPECT_EQ(dwResult, 1u);
    EXPECT_EQ(g_bRegistedDebuglog, 0u);
    EXPECT_EQ(fake::DebugLogCalls(), (std::vector<std::string>{LOG_SET_UP[0]}));
    const std::vector<fake::LogLine> atLines = fake::Lines();
    ASSERT_EQ(atLines.size(), 1u);
    EXPECT_EQ(atLines[0].dwModule, 1u);
    EXPECT_EQ(atLines[0].dwLevel, 2u);
    EXPECT_EQ(atLines[0].strFormat, "DebugLogRegist() failed\n");
    int nLine = 0;
    ASSERT_EQ(sscanf(strPrinted.c_str(), "[SendCurl ERR]line:%d:", &nLine), 1) << strPrinted;
    EXPECT_GT(nLine, 0);
    EXPECT_EQ(strPrinted, "[SendCurl ERR]line:" + std::to_string(nLine) + ":DebugLogRegist() failed\n");
}

TEST_F(SetupTest, RefusedLogIsToldWhateverTheSwitchSays)
{
    fake::FailDebugLogRegist(true);
    g_bySendCurlLogType = 2;

    testing::internal::CaptureStdout();
    const uint32_t dwResult = SendByCurlLogInit();
    fflush(stdout);
    const std::string strPrinted = testing::internal::GetCapturedStdout();

    EXPECT_EQ(dwResult, 1u);
    EXPECT_EQ(fake::CountOf("DebugLogRegist() failed\n"), 1u);
    EXPECT_NE(strPrinted.find("DebugLogRegist() failed\n"), std::string::npos);
}

/* --- "sendbycurlsetlog" --------------------------------------------------------------------------- */

TEST_F(SetupTest, EveryLevelOutsideOneToThreeIsRefused)
{
    for (unsigned nLevel = 0; nLevel <= 255; ++nLevel) {
        if (nLevel >= 1 && nLevel <= 3) {
            continue;
        }
        SCOPED_TRACE(nLevel);
        fake::ClearLines();
        EXPECT_EQ(SendByCurlSetLogLevel(static_cast<uint8_t>(nLevel)), 1u);
        EXPECT_EQ(g_bySendCurlLogType, 1);
        EXPECT_EQ(fake::Lines().size(), 1u);
        ExpectLine(BAD_LEVEL, LEVEL_ERROR, "SendByCurlSetLogLevel",
                   "[Error] invalid level " + std::to_string(nLevel) + "\n");
    }
}

TEST_F(SetupTest, RefusedLevelLeavesAnyOtherSettingToo)
{
    g_bySendCurlLogType = 3;

    testing::internal::CaptureStdout();
    const uint32_t dwResult = SendByCurlSetLogLevel(4);
    fflush(stdout);
    const std::string strPrinted = testing::internal::GetCapturedStdout();

    EXPECT_EQ(dwResult, 1u);
    EXPECT_EQ(g_bySendCurlLogType, 3);
    ASSERT_EQ(fake::Lines().size(), 1u);
    EXPECT_EQ(strPrinted, fake::Lines()[0].strText);
}

TEST_F(SetupTest, LevelOneConfirmsInTheDebugLogOnly)
{
    g_bySendCurlLogType = 2;

    testing::internal::CaptureStdout();
    const uint32_t dwResult = SendByCurlSetLogLevel(1);
    fflush(stdout);
    const std::string strPrinted = testing::internal::GetCapturedStdout();

    EXPECT_EQ(dwResult, 0u);
    EXPECT_EQ(g_bySendCurlLogType, 1);
    EXPECT_EQ(strPrinted, "");
    ExpectLine(NEW_LEVEL, LEVEL_INFO, "SendByCurlSetLogLevel", " Log level 1\n");
}

TEST_F(SetupTest, LevelTwoConfirmsOnTheConsoleOnly)
{
    testing::internal::CaptureStdout();
    const uint32_t dwResult = SendByCurlSetLogLevel(2);
    fflush(stdout);
    const std::string strPrinted = testing::internal::GetCapturedStdout();

    EXPECT_EQ(dwResult, 0u);
    EXPECT_EQ(g_bySendCurlLogType, 2);
    EXPECT_EQ(fake::Transcript(), "");
    int nLine = 0;
    ASSERT_EQ(sscanf(strPrinted.c_str(), "SendByCurlSetLogLevel[L:%d]", &nLine), 1) << strPrinted;
    EXPECT_EQ(strPrinted, "SendByCurlSetLogLevel[L:" + std::to_string(nLine) + "] Log level 2\n");
}

TEST_F(SetupTest, LevelThreeConfirmsOnBothSides)
{
    testing::internal::CaptureStdout();
    const uint32_t dwResult = SendByCurlSetLogLevel(3);
    fflush(stdout);
    const std::string strPrinted = testing::internal::GetCapturedStdout();

    EXPECT_EQ(dwResult, 0u);
    EXPECT_EQ(g_bySendCurlLogType, 3);
    ExpectLine(NEW_LEVEL, LEVEL_INFO, "SendByCurlSetLogLevel", " Log level 3\n");
    EXPECT_EQ(strPrinted, fake::Lines()[0].strText);
}

/* --- "sendbycurlshow" ----------------------------------------------------------------------------- */

TEST_F(SetupTest, ShowBeforeTheStartSaysOnlySo)
{
    g_pfASnycCBParam[0].bUseFlag = 1;

    SendByCurlShow();

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(NOT_INIT, LEVEL_INFO, "SendByCurlShow", " SendByCurl is not Init! g_bInited:0\n");
    EXPECT_EQ(fake::NullTakes(), 0u);
    EXPECT_EQ(fake::SemsCreated(), 0u);
}

TEST_F(SetupTest, ShowBeforeTheStartWaitsForNoSemaphore)
{
    for (HOspSem &hSem : g_pCurlSemSet) {
        ASSERT_NE(OspSemBCreate(&hSem), 0u);
        OspSemTake(hSem);
    }
    std::atomic<bool> bDone{false};
    std::thread tShow([&] {
        SendByCurlShow();
        bDone = true;
    });

    EXPECT_TRUE(WaitUntil([&] { return bDone.load(); }));

    for (HOspSem hSem : g_pCurlSemSet) {
        EXPECT_TRUE(fake::SemIsTaken(hSem));
        OspSemGive(hSem);
    }
    tShow.join();
}

TEST_F(SetupTest, ShowOfAnEmptyTableIsItsLastLine)
{
    Start();

    SendByCurlShow();

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(SHOW_END, LEVEL_INFO, "SendByCurlShow", " ------------------------Show End------------------------\n");
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
}

TEST_F(SetupTest, ShowListsTakenSlotsInOrder)
{
    Start();
    TNvrHttpCurlCltReqInner atReqs[2] = {};
    g_pfASnycCBParam[0] = {1, &atReqs[0], Collect};
    g_pfASnycCBParam[1] = {0, &atReqs[0], Collect}; /* free, whatever else stands there */
    g_pfASnycCBParam[700] = {7, &atReqs[1], OtherNotification};
    g_pfASnycCBParam[1023] = {1, nullptr, nullptr};

    SendByCurlShow();

    const std::vector<fake::LogLine> atLines = fake::Lines();
    const struct {
        std::string strFormat;
        std::string strTail;
    } atExpected[] = {
        {SHOW_SEPARATOR, " --------------------------[0]--------------------------\n"},
        {SHOW_SLOT, " [0] bUseFlag:1, g_pfNtf:" + Ptr(Collect) + ", ptReq:" + Ptr(&atReqs[0]) + "\n"},
        {SHOW_SEPARATOR, " --------------------------[700]--------------------------\n"},
        {SHOW_SLOT, " [700] bUseFlag:7, g_pfNtf:" + Ptr(OtherNotification) + ", ptReq:" + Ptr(&atReqs[1]) + "\n"},
        {SHOW_SEPARATOR, " --------------------------[1023]--------------------------\n"},
        {SHOW_SLOT, " [1023] bUseFlag:1, g_pfNtf:(nil), ptReq:(nil)\n"},
        {SHOW_END, " ------------------------Show End------------------------\n"},
    };
    ASSERT_EQ(atLines.size(), std::size(atExpected)) << fake::Transcript();
    for (size_t nII = 0; nII < atLines.size(); ++nII) {
        EXPECT_EQ(atLines[nII].strFormat, atExpected[nII].strFormat);
        CheckLine(atLines[nII], LEVEL_INFO, "SendByCurlShow", atExpected[nII].strTail);
    }
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
    EXPECT_EQ(fake::HeldByThisThread(), 0u);
}

/* A console that nobody reads stops the listing half-way, while the table must stay as it is. */
TEST_F(SetupTest, ShowHoldsTheTableWhileItPrints)
{
    Start();
    for (TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        tSlot = {1, nullptr, Collect};
    }
    int anPipe[2];
    ASSERT_EQ(pipe(anPipe), 0);
    fcntl(anPipe[1], F_SETPIPE_SZ, 4096);
    fflush(stdout);
    const int nSaved = dup(1);
    dup2(anPipe[1], 1);
    close(anPipe[1]);

    g_bySendCurlLogType = 2;
    std::thread tShow([] {
        SendByCurlShow();
        fflush(stdout);
        close(1);
    });
    const bool bHeld = WaitUntil([] { return fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]); });
    std::string strPrinted;
    char achPiece[4096];
    ssize_t nRead;
    while ((nRead = read(anPipe[0], achPiece, sizeof achPiece)) > 0) {
        strPrinted.append(achPiece, static_cast<size_t>(nRead));
    }
    tShow.join();
    close(anPipe[0]);
    dup2(nSaved, 1);
    close(nSaved);

    EXPECT_TRUE(bHeld);
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_NE(strPrinted.find(" [1023] bUseFlag:1"), std::string::npos);
    EXPECT_NE(strPrinted.find("Show End"), std::string::npos);
}

TEST_F(SetupTest, ShowWaitsForTheTable)
{
    Start();
    OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    std::atomic<bool> bBegun{false};
    std::thread tShow([&] {
        bBegun = true;
        SendByCurlShow();
    });
    EXPECT_TRUE(WaitUntil([&] { return bBegun.load(); }));
    for (int nII = 0; nII < 1000; ++nII) {
        std::this_thread::yield();
    }

    EXPECT_EQ(fake::Lines().size(), 0u);

    OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
    tShow.join();
    EXPECT_EQ(fake::CountOf(SHOW_END), 1u);
}
