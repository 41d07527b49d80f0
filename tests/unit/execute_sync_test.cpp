/* The common entry of both modes, and requests that are executed on the caller's thread. */
#include <map>

#include "tests/support/execute_fixture.h"

namespace
{

using namespace test;

const char SYNC[] = "_NvrHttpCurlCltProcSyncReq";

Line EnteredSync()
{
    return Info(SYNC, " in _NvrHttpCurlCltProcSyncReq\n");
}

/* All lines up to libcurl's part. */
Lines Begun(uint32_t total, uint32_t connect)
{
    return Lines{Entered(), EnteredSync()} + TimeoutLines(SYNC, total, connect);
}

Line PerformFailed(CURLcode code)
{
    return Error(SYNC, "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n", static_cast<int>(code),
                 curl_easy_strerror(code));
}

/* Transfers succeed without a network. */
class ExecuteSync : public ExecuteTest
{
  protected:
    void SetUp() override
    {
        hooks::sys_sysconf = [](int) { return 100L; };
        hooks::easy_perform = [](CURL *) { return CURLE_OK; };
        Start(1, 8);
        req = Keep(CreatePrepared("http://127.0.0.1/", "body"));
    }

    uint32_t Perform(uint32_t total = 2, uint32_t connect = 1)
    {
        return NvrHttpCurlCltProcessReq(req, total, connect, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr);
    }

    HNvrHttpCurlCltReq req = nullptr;
};

using ExecuteEntry = ExecuteSync;

TEST(ExecuteCodes, FourResultsForAllOfLibcurls)
{
    const std::map<int, uint32_t> special = {{28, 10}, {7, 11}, {35, 12}};
    for (int code = 0; code <= CURL_LAST; ++code) {
        const uint32_t expected = special.count(code) != 0 ? special.at(code) : 1;
        EXPECT_EQ(__NvrHttpCurlClt_CurlErrCode2Clt(static_cast<CURLcode>(code)), expected) << code;
    }
}

TEST_F(ExecuteEntry, NeedsAnEasyHandleAndInModeOneACallback)
{
    TNvrHttpCurlCltReqInner noHandle = {};
    noHandle.ptInstance = inst;
    const struct {
        HNvrHttpCurlCltReq req;
        int mode;
        PFNvrHttpCurlCltNtf ntf;
    } cases[] = {{nullptr, 0, Notify},   {nullptr, 1, Notify},   {nullptr, 2, Notify}, {&noHandle, 0, Notify},
                 {&noHandle, 1, Notify}, {&noHandle, 2, Notify}, {req, 1, nullptr}};
    for (const auto &each : cases) {
        SCOPED_TRACE(testing::Message() << each.req << " in mode " << each.mode);
        const CURL *easy = each.req != nullptr ? each.req->ptReq : nullptr;
        EXPECT_EQ(NvrHttpCurlCltProcessReq(each.req, 1, 1, static_cast<uint32_t>(each.mode), each.ntf, nullptr), 4U);
        ExpectLines({Error(PROCESS, "[Error] invalid arg, ptReqIn %p, ptReq %p, eMode %d, pfNtf %p\n", Ptr(each.req),
                           easy, each.mode, Ptr(each.ntf))});
    }
    ExpectNothingDone();
}

TEST_F(ExecuteEntry, KnowsTwoModes)
{
    for (const uint32_t mode : {2U, 0xFFFFFFFFU}) {
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 1, 1, mode, Notify, nullptr), 4U);
        ExpectLines({Entered(), Error(PROCESS, "[Error] unknown mode %d\n", static_cast<int>(mode))});
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 0, 0, mode, nullptr, nullptr), 4U);
        ExpectLines({Entered(), Error(PROCESS, "[Error] unknown mode %d\n", static_cast<int>(mode))});
    }
    ExpectNothingDone();
}

TEST_F(ExecuteSync, SetsTheTimeoutsAndPerforms)
{
    clock_t now = 1000;
    CURL *performed = nullptr;
    hooks::sys_times = [&](struct tms *) { return now; };
    hooks::easy_perform = [&](CURL *easy) {
        performed = easy;
        now += 250; /* ticks of 10 ms; the library rounds down to whole seconds */
        EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
        EXPECT_EQ(fake::HeldByThisThread(), 0U);
        return CURLE_OK;
    };
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 7000, 3000, NVRHTTPCURLCLT_MODE_SYNC, Notify, this), 0U);
    EXPECT_EQ(performed, req->ptReq);
    ExpectLines(Begun(7000, 3000) + Lines{Info(SYNC, " use time %u{ms}\n", 2000U)});
    const std::vector<hooks::Option> options = hooks::Options();
    ASSERT_EQ(options.size(), 2U);
    EXPECT_EQ(options[0].value, 3000U);
    EXPECT_EQ(options[1].value, 7000U);
    EXPECT_EQ(options[0].easy, req->ptReq);
    EXPECT_TRUE(completions.empty());
    EXPECT_EQ(req->dwTaskIndex, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
}

TEST_F(ExecuteSync, TakesItsStartTickFirstAndMeasuresAcrossTheWrapOfTheTicks)
{
    std::vector<size_t> linesAtTick;
    clock_t now = 0xFFFFFFFF;
    hooks::sys_times = [&](struct tms *) {
        linesAtTick.push_back(fake::Lines().size());
        return now;
    };
    hooks::easy_perform = [&](CURL *) {
        now += 300;
        return CURLE_OK;
    };
    EXPECT_EQ(Perform(), 0U);
    EXPECT_EQ(linesAtTick, (std::vector<size_t>{1, 4}));
    ExpectLine(Info(SYNC, " use time %u{ms}\n", 3000U));
}

TEST_F(ExecuteSync, PassesTheWholeRangeOfTimeouts)
{
    hooks::easy_setopt = [](CURL *, CURLoption, void *) { return CURLE_OK; };
    EXPECT_EQ(Perform(0xFFFFFFFFU, 0x80000000U), 0U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_CONNECTTIMEOUT_MS).at(0).value, 0x80000000U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).value, 0xFFFFFFFFU);
    ExpectInOrder(TimeoutLines(SYNC, 0xFFFFFFFFU, 0x80000000U));
}

TEST_F(ExecuteSync, NeedsBothTimeouts)
{
    const uint32_t cases[][2] = {{0, 5}, {5, 0}, {0, 0}};
    for (const auto &timeouts : cases) {
        EXPECT_EQ(Perform(timeouts[0], timeouts[1]), 4U);
        ExpectLines(
            {Entered(), EnteredSync(),
             Error(SYNC, "[Error] invalid arg, ptReqIn %p, ptReqIn->ptReq %p, dwTimeoutMS %u, dwConnTimeOutMS %u\n",
                   Ptr(req), Ptr(req->ptReq), timeouts[0], timeouts[1])});
    }
    ExpectNothingDone();
}

TEST_F(ExecuteSync, ReportsSuccessForAFailedTransfer)
{
    for (const CURLcode code :
         {CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT, CURLE_SSL_CONNECT_ERROR, CURLE_WRITE_ERROR}) {
        hooks::easy_perform = [=](CURL *) { return code; };
        EXPECT_EQ(Perform(2, 1), 0U);
        ExpectLines(Begun(2, 1) +
                    Lines{PerformFailed(code),
                          Info("CurlCodeToHttpCurlCode", " Transfer CURLcode[%d] to NvrHttpCurlCltRet[%d]\n", 0, 0)});
    }
}

/* As everywhere here without a callback, which this mode does not need. */
TEST_F(ExecuteSync, ARefusedTimeoutIsOnlyLogged)
{
    size_t performed = 0;
    for (const CURLoption option : TIMEOUTS) {
        SCOPED_TRACE(option);
        Forget();
        hooks::RefuseOption(option, CURLE_BAD_FUNCTION_ARGUMENT);
        EXPECT_EQ(Perform(), 0U);
        ExpectLine(SetoptFault(SYNC, CURLE_BAD_FUNCTION_ARGUMENT));
        EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
        EXPECT_EQ(hooks::Calls("curl_easy_perform"), ++performed);
        hooks::RefuseOption(option, CURLE_OK);
    }
}

TEST_F(ExecuteSync, ABoundRequestKeepsItsNode)
{
    req = Keep(CreateFinished());
    EXPECT_EQ(Perform(), 0U);
    EXPECT_EQ(req->dwTaskIndex, 1U);
    EXPECT_NE(FindListNode(inst->atTasks[0].tFinList, req), nullptr);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
}

} // namespace
