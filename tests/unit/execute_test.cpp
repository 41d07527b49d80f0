/* Execution of requests on the caller's thread, their submission to a task, their destruction. */
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/hcc_log.h"
#include "tests/support/engine_fixture.h"

namespace
{

using namespace test;

const char PROCESS[] = "NvrHttpCurlCltProcessReq";
const char SYNC[] = "_NvrHttpCurlCltProcSyncReq";
const char ASYNC[] = "_NvrHttpCurlCltProcAsyncReq";
const char DESTROY[] = "NvrHttpCurlCltReqDestroy";

const std::vector<CURLoption> NO_OPTIONS = {};
const std::vector<CURLoption> TIMEOUTS = {CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_TIMEOUT_MS};

const uint32_t SYNC_MODE = NVRHTTPCURLCLT_MODE_SYNC;
const uint32_t ASYNC_MODE = NVRHTTPCURLCLT_MODE_ASYNC;

Line Entered()
{
    return Info(PROCESS, " In NvrHttpCurlCltProcessReq\n");
}

Lines TimeoutLines(const char *func, uint32_t total, uint32_t connect)
{
    return {Info(func, " dwTimeoutMS %u, dwConnTimeOutMS %u\n", total, connect),
            Info(func, " dwTimeoutMS: %d, dwConnTimeOutMS: %d\n", static_cast<int>(total), static_cast<int>(connect))};
}

/* --- libcurl's codes ------------------------------------------------------------------------------- */

TEST(ExecuteCodes, FourResultsForAllOfLibcurls)
{
    for (int code = 0; code <= CURL_LAST; ++code) {
        uint32_t expected = 1;
        if (code == 28) {
            expected = 10;
        } else if (code == 7) {
            expected = 11;
        } else if (code == 35) {
            expected = 12;
        }
        EXPECT_EQ(__NvrHttpCurlClt_CurlErrCode2Clt(static_cast<CURLcode>(code)), expected) << code;
    }
}

/* --- the common entry ------------------------------------------------------------------------------- */

class Execute : public EngineTest
{
  protected:
    void ExpectNothingDone()
    {
        EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
        EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
        EXPECT_EQ(hooks::Calls("sendto"), 0U);
        EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    }

    /* Every lock of the instance is free. */
    void ExpectLocksFree()
    {
        EXPECT_FALSE(fake::SemIsTaken(inst->hAsyncReqNumLock));
        for (uint32_t i = 0; i < inst->dwTaskNum; ++i) {
            EXPECT_FALSE(fake::SemIsTaken(inst->atTasks[i].hRunLock));
            EXPECT_FALSE(fake::SemIsTaken(inst->atTasks[i].hFinLock));
        }
        EXPECT_EQ(fake::HeldByThisThread(), 0U);
    }
};

class ExecuteEntry : public Execute
{
  protected:
    void SetUp() override
    {
        Start(1, 8);
    }

    static Lines Refused(HNvrHttpCurlCltReq req, int mode, PFNvrHttpCurlCltNtf ntf)
    {
        return {Error(PROCESS, "[Error] invalid arg, ptReqIn %p, ptReq %p, eMode %d, pfNtf %p\n", Ptr(req),
                      Ptr(req != nullptr ? req->ptReq : nullptr), mode, Ptr(ntf))};
    }
};

TEST_F(ExecuteEntry, NeedsARequestWithAnEasyHandle)
{
    TNvrHttpCurlCltReqInner noHandle = {};
    noHandle.ptInstance = inst;
    for (const uint32_t mode : {0U, 1U, 2U}) {
        EXPECT_EQ(NvrHttpCurlCltProcessReq(nullptr, 1, 1, mode, Notify, nullptr), 4U);
        ExpectLines(Refused(nullptr, static_cast<int>(mode), Notify));
        EXPECT_EQ(NvrHttpCurlCltProcessReq(&noHandle, 1, 1, mode, Notify, nullptr), 4U);
        ExpectLines(Refused(&noHandle, static_cast<int>(mode), Notify));
    }
    ExpectNothingDone();
}

TEST_F(ExecuteEntry, NeedsACallbackInModeOne)
{
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 1, 1, 1, nullptr, nullptr), 4U);
    ExpectLines(Refused(req, 1, nullptr));
    ExpectNothingDone();
    EXPECT_EQ(req->dwTaskIndex, 0U);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteEntry, NeedsNoCallbackInModeZero)
{
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 1, 1, 0, nullptr, nullptr), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 1U);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteEntry, KnowsTwoModes)
{
    HNvrHttpCurlCltReq req = Create();
    for (const uint32_t mode : {2U, 0xFFFFFFFFU}) {
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 1, 1, mode, Notify, nullptr), 4U);
        ExpectLines({Entered(), Error(PROCESS, "[Error] unknown mode %d\n", static_cast<int>(mode))});
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 0, 0, mode, nullptr, nullptr), 4U);
        ExpectLines({Entered(), Error(PROCESS, "[Error] unknown mode %d\n", static_cast<int>(mode))});
    }
    ExpectNothingDone();
    NvrHttpCurlCltReqDestroy(req);
}

/* --- on the caller's thread -------------------------------------------------------------------------- */

class ExecuteSync : public Execute
{
  protected:
    void SetUp() override
    {
        hooks::sys_sysconf = [](int) { return 100L; };
        Start(1, 8);
        req = CreatePrepared("http://127.0.0.1/", "body");
    }

    void TearDown() override
    {
        NvrHttpCurlCltReqDestroy(req);
        Execute::TearDown();
    }

    HNvrHttpCurlCltReq req = nullptr;
};

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
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 7000, 3000, SYNC_MODE, Notify, this), 0U);
    EXPECT_EQ(performed, req->ptReq);
    ExpectLines(Lines{Entered(), Info(SYNC, " in _NvrHttpCurlCltProcSyncReq\n")} + TimeoutLines(SYNC, 7000, 3000) +
                Lines{Info(SYNC, " use time %u{ms}\n", 2000U)});
    const std::vector<hooks::Option> options = hooks::Options();
    ASSERT_EQ(options.size(), 2U);
    EXPECT_EQ(options[0].value, 3000U);
    EXPECT_EQ(options[1].value, 7000U);
    EXPECT_EQ(options[0].easy, req->ptReq);
    EXPECT_TRUE(completions.empty());
    EXPECT_EQ(req->dwTaskIndex, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
}

TEST_F(ExecuteSync, TakesItsStartTickFirst)
{
    std::vector<size_t> linesAtTick;
    hooks::sys_times = [&](struct tms *) {
        linesAtTick.push_back(fake::Lines().size());
        return clock_t{100};
    };
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 1, 1, SYNC_MODE, nullptr, nullptr), 0U);
    ASSERT_EQ(linesAtTick.size(), 2U);
    EXPECT_EQ(linesAtTick[0], 1U);
    EXPECT_EQ(linesAtTick[1], 4U);
}

TEST_F(ExecuteSync, MeasuresAcrossTheWrapOfTheTicks)
{
    clock_t now = 0xFFFFFFFF;
    hooks::sys_times = [&](struct tms *) { return now; };
    hooks::easy_perform = [&](CURL *) {
        now += 300;
        return CURLE_OK;
    };
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 1, 1, SYNC_MODE, nullptr, nullptr), 0U);
    ExpectLine(Info(SYNC, " use time %u{ms}\n", 3000U));
}

TEST_F(ExecuteSync, PassesTheWholeRangeOfTimeouts)
{
    hooks::easy_setopt = [](CURL *, CURLoption, void *) { return CURLE_OK; };
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 0xFFFFFFFFU, 0x80000000U, SYNC_MODE, nullptr, nullptr), 0U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_CONNECTTIMEOUT_MS).at(0).value, 0x80000000U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).value, 0xFFFFFFFFU);
    for (const Line &line : TimeoutLines(SYNC, 0xFFFFFFFFU, 0x80000000U)) {
        ExpectLine(line);
    }
}

TEST_F(ExecuteSync, NeedsBothTimeouts)
{
    const uint32_t cases[][2] = {{0, 5}, {5, 0}, {0, 0}};
    for (const auto &timeouts : cases) {
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, timeouts[0], timeouts[1], SYNC_MODE, nullptr, nullptr), 4U);
        ExpectLines(
            {Entered(), Info(SYNC, " in _NvrHttpCurlCltProcSyncReq\n"),
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
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 2, 1, SYNC_MODE, nullptr, nullptr), 0U);
        ExpectLines(Lines{Entered(), Info(SYNC, " in _NvrHttpCurlCltProcSyncReq\n")} + TimeoutLines(SYNC, 2, 1) +
                    Lines{Error(SYNC, "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n",
                                static_cast<int>(code), curl_easy_strerror(code)),
                          Info("CurlCodeToHttpCurlCode", " Transfer CURLcode[%d] to NvrHttpCurlCltRet[%d]\n", 0, 0)});
    }
}

class ExecuteSyncRefused : public ExecuteSync, public testing::WithParamInterface<CURLoption>
{
};

TEST_P(ExecuteSyncRefused, TimeoutIsOnlyLogged)
{
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    hooks::RefuseOption(GetParam(), CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 2, 1, SYNC_MODE, nullptr, nullptr), 0U);
    ExpectLine(SetoptFault(SYNC, CURLE_BAD_FUNCTION_ARGUMENT));
    EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 1U);
}

INSTANTIATE_TEST_SUITE_P(Each, ExecuteSyncRefused, testing::Values(CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_TIMEOUT_MS),
                         [](const auto &test) { return "option" + std::to_string(test.param); });

TEST_F(ExecuteSync, AClosedPortIsNoFailure)
{
    const ClosedPort closed;
    ASSERT_EQ(NvrHttpCurlCltSetReqUri(req, closed.Url().c_str()), 0U);
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 20000, 20000, SYNC_MODE, nullptr, nullptr), 0U);
    ExpectLine(Error(SYNC, "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n", 7,
                     curl_easy_strerror(CURLE_COULDNT_CONNECT)));
}

TEST_F(ExecuteSync, ABoundRequestKeepsItsNode)
{
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    HNvrHttpCurlCltReq bound = CreateFinished();
    EXPECT_EQ(NvrHttpCurlCltProcessReq(bound, 2, 1, SYNC_MODE, nullptr, nullptr), 0U);
    EXPECT_EQ(bound->dwTaskIndex, 1U);
    EXPECT_NE(FindListNode(inst->atTasks[0].tFinList, bound), nullptr);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    NvrHttpCurlCltReqDestroy(bound);
}

/* --- submission --------------------------------------------------------------------------------------- */

class ExecuteAsync : public Execute
{
  protected:
    static Line Refused(HNvrHttpCurlCltReq req, uint32_t total, uint32_t connect)
    {
        return Error(ASYNC, "[Error] invalid arg, ptReqIn %p, dwTimeoutMS %u, dwConnTimeOutMS %u, pfNtf %p\n", Ptr(req),
                     total, connect, Ptr(Notify));
    }

    static Line AtLimit(uint32_t count, uint32_t most)
    {
        return Error(ASYNC, "[Error] dwAsyncReqNum(%u) >= dwAsyncReqMaxNum(%u)\n", count, most);
    }

    static Line Woken(const TNvrHttpCurlCltTask &task)
    {
        return Info("_NvrHttpCurlClt_SocketNotify", " Notify scoket{%d} port{%d} is ok.\n", task.tUdpMonitorSock.nSock,
                    task.tUdpMonitorSock.wPort);
    }

    static Line JoinedIn(const TNvrHttpCurlCltTask &task)
    {
        return Info(ASYNC, " JoinIn Task{%p, %s}\n", reinterpret_cast<const void *>(task.qwTaskID), task.szThreadName);
    }

    static Line InsertFailed()
    {
        return Error(ASYNC, "[Error] NVRHCCListInsertBefore() failed %d\n", 3);
    }

    static Lines NotFound(HNvrHttpCurlCltReq req)
    {
        return {Trace(ASYNC, " cannot find node for ptReqIn %p, taskindex %u\n", Ptr(req), req->dwTaskIndex),
                Error(ASYNC, "[Error] cannot find node for ptReqIn %p, taskindex %u\n", Ptr(req), req->dwTaskIndex)};
    }

    /* The datagrams that wait on a task's socket. */
    static std::vector<std::string> Datagrams(const TNvrHttpCurlCltTask &task)
    {
        std::vector<std::string> datagrams;
        char buffer[256];
        ssize_t count = 0;
        while ((count = recv(task.tUdpMonitorSock.nSock, buffer, sizeof(buffer), MSG_DONTWAIT)) >= 0) {
            datagrams.emplace_back(buffer, static_cast<size_t>(count));
        }
        return datagrams;
    }

    /* One request after the other; the tasks they came to, as indices. */
    std::vector<uint32_t> SubmitMany(size_t count)
    {
        std::vector<uint32_t> tasks;
        for (size_t i = 0; i < count; ++i) {
            requests.push_back(CreateQueued());
            tasks.push_back(requests.back()->dwTaskIndex - 1);
        }
        return tasks;
    }

    void TearDown() override
    {
        for (HNvrHttpCurlCltReq req : requests) {
            NvrHttpCurlCltReqDestroy(req);
        }
        Execute::TearDown();
    }

    std::vector<HNvrHttpCurlCltReq> requests;
    const std::string DATAGRAM = std::string("b\0", 2);
};

TEST_F(ExecuteAsync, NeedsAnInstanceAndBothTimeouts)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Create();
    const uint32_t cases[][2] = {{0, 5}, {5, 0}, {0, 0}};
    for (const auto &timeouts : cases) {
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, timeouts[0], timeouts[1], ASYNC_MODE, Notify, nullptr), 4U);
        ExpectLines({Entered(), Refused(req, timeouts[0], timeouts[1])});
    }
    req->ptInstance = nullptr;
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 6, 5, ASYNC_MODE, Notify, nullptr), 4U);
    ExpectLines({Entered(), Refused(req, 6, 5)});
    req->ptInstance = inst;
    ExpectNothingDone();
    EXPECT_EQ(req->dwTaskIndex, 0U);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, AnInstanceWithoutTasksRefusesBeforeItsLimit)
{
    Start(0, 0);
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(Submit(req), 4U);
    ExpectLines({Entered(), Refused(req, 5000, 4000)});
    ExpectNothingDone();
    EXPECT_EQ(req->dwTaskIndex, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 1);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, ALimitOfZeroTakesNothing)
{
    Start(1, 0);
    HNvrHttpCurlCltReq req = Create();
    const size_t mallocs = fake::Mallocs();
    EXPECT_EQ(Submit(req), 8U);
    ExpectLines({Entered(), AtLimit(0, 0)});
    EXPECT_EQ(fake::Mallocs(), mallocs);
    ExpectNothingDone();
    ExpectLocksFree();
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, FinishedRequestsCountUntilTheyAreDestroyed)
{
    Start(2, 2);
    HNvrHttpCurlCltReq first = CreateFinished();
    HNvrHttpCurlCltReq second = CreateFinished();
    HNvrHttpCurlCltReq third = Create();
    EXPECT_EQ(Submit(third), 8U);
    ExpectLines({Entered(), AtLimit(2, 2)});
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
    NvrHttpCurlCltReqDestroy(first);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(Submit(third), 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 2U);
    NvrHttpCurlCltReqDestroy(second);
    NvrHttpCurlCltReqDestroy(third);
}

TEST_F(ExecuteAsync, TheLimitHoldsForRepeatedSubmissionsToo)
{
    Start(1, 1);
    HNvrHttpCurlCltReq req = CreateFinished();
    EXPECT_EQ(Submit(req), 8U);
    ExpectLines({Entered(), AtLimit(1, 1)});
    EXPECT_NE(FindListNode(inst->atTasks[0].tFinList, req), nullptr);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, QueuesANodeAndWakesTheTask)
{
    Start(1, 8);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    HNvrHttpCurlCltReq req = Create();
    char buffer[8];
    EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 7000, 3000, ASYNC_MODE, Notify, buffer), 0U);
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 7000, 3000) + Lines{JoinedIn(task), Woken(task)});
    EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
    EXPECT_EQ(hooks::Options().at(0).value, 3000U);
    EXPECT_EQ(hooks::Options().at(1).value, 7000U);
    EXPECT_EQ(req->dwTaskIndex, 1U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);

    ASSERT_EQ(task.tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(task.tFinList.dwNumOfElem, 0U);
    const TNvrHttpCurlCltAsyncNode *node = Nodes(task.tRunList)[0];
    EXPECT_EQ(node->ptReqIn, req);
    EXPECT_EQ(Ptr(node->pfNtf), Ptr(Notify));
    EXPECT_EQ(node->pvUserBuf, buffer);
    EXPECT_EQ(node->bInMulti, 0U);
    EXPECT_EQ(Datagrams(task), std::vector<std::string>{DATAGRAM});
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 3);
    ExpectLocksFree();
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, TheLatestStandsAtTheHead)
{
    Start(1, 8);
    SubmitMany(3);
    std::vector<HNvrHttpCurlCltReq> order;
    for (const TNvrHttpCurlCltAsyncNode *node : Nodes(inst->atTasks[0].tRunList)) {
        order.push_back(node->ptReqIn);
    }
    EXPECT_EQ(order, (std::vector<HNvrHttpCurlCltReq>{requests[2], requests[1], requests[0]}));
    EXPECT_EQ(inst->dwAsyncReqNum, 3U);
    EXPECT_EQ(Datagrams(inst->atTasks[0]).size(), 3U);
}

TEST_F(ExecuteAsync, WakesTheTaskWithNoLockHeld)
{
    Start(2, 8);
    SubmitMany(1);
    TNvrHttpCurlCltTask &task = inst->atTasks[1];
    size_t queued = 0;
    hooks::sys_sendto = [&](int sock, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length) {
        ExpectLocksFree();
        queued = task.tRunList.dwNumOfElem;
        EXPECT_EQ(sock, task.tUdpMonitorSock.nSock);
        EXPECT_EQ(reinterpret_cast<const sockaddr_in *>(to)->sin_port, htons(task.tUdpMonitorSock.wPort));
        return hooks::real::sys_sendto(sock, data, size, flags, to, length);
    };
    SubmitMany(1);
    EXPECT_EQ(queued, 1U);
    EXPECT_EQ(hooks::Calls("sendto"), 2U);

    Finish(task, requests[1]);
    queued = 0;
    EXPECT_EQ(Submit(requests[1]), 0U);
    EXPECT_EQ(queued, 1U);
    EXPECT_EQ(hooks::Calls("sendto"), 3U);
}

TEST_F(ExecuteAsync, AFailedWakeUpIsNoFailure)
{
    Start(1, 8);
    hooks::sys_sendto = [](int, const void *, size_t, int, const sockaddr *, socklen_t) -> ssize_t { return -1; };
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(Submit(req), 0U);
    EXPECT_EQ(inst->atTasks[0].tRunList.dwNumOfElem, 1U);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, RefusedTimeoutsAreOnlyLogged)
{
    Start(1, 8);
    hooks::RefuseOption(CURLOPT_CONNECTTIMEOUT_MS, CURLE_BAD_FUNCTION_ARGUMENT);
    hooks::RefuseOption(CURLOPT_TIMEOUT_MS, CURLE_UNKNOWN_OPTION);
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(Submit(req), 0U);
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 5000, 4000) +
                Lines{SetoptFault(ASYNC, CURLE_BAD_FUNCTION_ARGUMENT), SetoptFault(ASYNC, CURLE_UNKNOWN_OPTION),
                      JoinedIn(inst->atTasks[0]), Woken(inst->atTasks[0])});
    EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
    NvrHttpCurlCltReqDestroy(req);
}

/* --- the choice of the task ------------------------------------------------------------------------------ */

TEST_F(ExecuteAsync, TiesGoToTheFirstTask)
{
    Start(3, 100);
    EXPECT_EQ(SubmitMany(7), (std::vector<uint32_t>{0, 1, 2, 0, 1, 2, 0}));
}

TEST_F(ExecuteAsync, TheShortestRunListIsChosen)
{
    Start(3, 100);
    SubmitMany(6);
    NvrHttpCurlCltReqDestroy(requests[4]);
    requests[4] = CreateQueued();
    EXPECT_EQ(requests[4]->dwTaskIndex, 2U);
    EXPECT_EQ(SubmitMany(3), (std::vector<uint32_t>{0, 1, 2}));
}

TEST_F(ExecuteAsync, FinishedRequestsAreNoLoad)
{
    Start(3, 100);
    SubmitMany(9);
    for (const size_t i : {2U, 5U}) {
        Finish(inst->atTasks[2], requests[i]);
    }
    EXPECT_EQ(SubmitMany(3), (std::vector<uint32_t>{2, 2, 0}));
}

TEST_F(ExecuteAsync, ARequestStaysWithItsTask)
{
    Start(2, 100);
    SubmitMany(4);
    Finish(inst->atTasks[1], requests[1]);
    SubmitMany(1);
    Finish(inst->atTasks[0], requests[0]);
    Finish(inst->atTasks[0], requests[2]);
    EXPECT_EQ(inst->atTasks[0].tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(Submit(requests[1]), 0U);
    EXPECT_EQ(requests[1]->dwTaskIndex, 2U);
    EXPECT_NE(FindListNode(inst->atTasks[1].tRunList, requests[1]), nullptr);
}

/* --- failures of a first submission -------------------------------------------------------------------- */

TEST_F(ExecuteAsync, NoMemoryForTheNode)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Create();
    fake::FailMalloc(1);
    EXPECT_EQ(Submit(req), 5U);
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 5000, 4000) + Lines{Error(ASYNC, "[Error] malloc failed\n")});
    EXPECT_EQ(req->dwTaskIndex, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(inst->atTasks[0].tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(hooks::Calls("sendto"), 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 1);
    EXPECT_EQ(Submit(req), 0U);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, NoMemoryForTheListTakesTheCountBackAndKeepsTheTask)
{
    Start(2, 8);
    SubmitMany(1);
    HNvrHttpCurlCltReq req = Create();
    fake::FailMalloc(2);
    EXPECT_EQ(Submit(req), 1U);
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 5000, 4000) + Lines{JoinedIn(inst->atTasks[1]), InsertFailed()});
    EXPECT_EQ(req->dwTaskIndex, 2U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(inst->atTasks[1].tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(hooks::Calls("sendto"), 1U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 4);
    ExpectLocksFree();

    /* It counts as bound from now on. */
    EXPECT_EQ(Submit(req), 4U);
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 5000, 4000) + NotFound(req));
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    ExpectLocksFree();
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
}

/* --- repeated submissions ----------------------------------------------------------------------------------- */

uint32_t OtherNotify(HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet, void *)
{
    return 0;
}

TEST_F(ExecuteAsync, ARepeatedSubmissionUsesTheNodeAgain)
{
    Start(2, 100);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    SubmitMany(6);
    for (const size_t i : {0U, 2U, 4U}) {
        Finish(task, requests[i]);
    }
    HNvrHttpCurlCltReq middle = requests[2];
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task.tFinList)[1];
    ASSERT_EQ(node->ptReqIn, middle);
    Datagrams(task);
    const size_t blocks = fake::BlocksAlive();
    Forget();

    char buffer[8];
    EXPECT_EQ(NvrHttpCurlCltProcessReq(middle, 9, 8, ASYNC_MODE, OtherNotify, buffer), 0U);
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 9, 8) + Lines{Woken(task)});
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_CONNECTTIMEOUT_MS).at(0).value, 8U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).value, 9U);
    ASSERT_EQ(task.tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(Nodes(task.tRunList)[0], node);
    EXPECT_EQ(node->ptReqIn, middle);
    EXPECT_EQ(Ptr(node->pfNtf), Ptr(OtherNotify));
    EXPECT_EQ(node->pvUserBuf, buffer);
    EXPECT_EQ(node->bInMulti, 0U);
    EXPECT_EQ(task.tFinList.dwNumOfElem, 2U);
    EXPECT_EQ(FindListNode(task.tFinList, middle), nullptr);
    EXPECT_EQ(inst->dwAsyncReqNum, 6U);
    EXPECT_EQ(middle->dwTaskIndex, 1U);
    EXPECT_EQ(Datagrams(task), std::vector<std::string>{DATAGRAM});
    EXPECT_EQ(fake::BlocksAlive(), blocks);
    ExpectLocksFree();
}

TEST_F(ExecuteAsync, ARepeatedSubmissionGoesToTheHead)
{
    Start(1, 100);
    SubmitMany(3);
    Finish(inst->atTasks[0], requests[0]);
    EXPECT_EQ(Submit(requests[0]), 0U);
    EXPECT_EQ(Nodes(inst->atTasks[0].tRunList)[0]->ptReqIn, requests[0]);
}

TEST_F(ExecuteAsync, ARepeatedSubmissionLooksAtNoTaskCount)
{
    Start(2, 100);
    SubmitMany(2);
    Finish(inst->atTasks[1], requests[1]);
    inst->dwTaskNum = 1;
    EXPECT_EQ(Submit(requests[1]), 0U);
    inst->dwTaskNum = 2;
    EXPECT_EQ(inst->atTasks[1].tRunList.dwNumOfElem, 1U);
}

TEST_F(ExecuteAsync, ARunningRequestIsRefusedAndGoesOn)
{
    Start(1, 100);
    SubmitMany(1);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    Datagrams(task);
    const size_t frees = fake::Frees();
    EXPECT_EQ(NvrHttpCurlCltProcessReq(requests[0], 9, 8, ASYNC_MODE, OtherNotify, this), 4U);
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 9, 8) + NotFound(requests[0]));
    EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
    ASSERT_EQ(task.tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(Ptr(Nodes(task.tRunList)[0]->pfNtf), Ptr(Notify));
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(fake::Frees(), frees);
    EXPECT_TRUE(Datagrams(task).empty());
    ExpectLocksFree();
}

std::vector<void *> released;

void KeepInsteadOfFreeing(void *block)
{
    released.push_back(block);
}

class ExecuteAsyncLoss : public ExecuteAsync, public testing::WithParamInterface<size_t>
{
};

TEST_P(ExecuteAsyncLoss, RefusingARunningRequestReleasesTheLastFinishedNode)
{
    Start(1, 100);
    SubmitMany(1 + GetParam());
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    for (size_t i = 1; i < requests.size(); ++i) {
        Finish(task, requests[i]);
    }
    const std::vector<TNvrHttpCurlCltAsyncNode *> finished = Nodes(task.tFinList);

    /* The request's own callback only takes a note, so the list stays usable. */
    HNvrHttpCurlCltReq running = requests[0];
    running->pfFree = KeepInsteadOfFreeing;
    EXPECT_EQ(Submit(running), 4U);
    running->pfFree = inst->tMemCB.pfFree;
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 5000, 4000) + NotFound(running));
    EXPECT_EQ(released, std::vector<void *>{finished.back()});
    EXPECT_EQ(Nodes(task.tFinList), finished);
    EXPECT_EQ(finished.back()->ptReqIn, requests.back());
    EXPECT_EQ(inst->dwAsyncReqNum, requests.size());
    ExpectLocksFree();
}

INSTANTIATE_TEST_SUITE_P(Finished, ExecuteAsyncLoss, testing::Values(1U, 3U),
                         [](const auto &test) { return "nodes" + std::to_string(test.param); });

TEST_F(ExecuteAsync, ARepeatedSubmissionWithoutMemoryLosesTheNodeAndKeepsTheCount)
{
    Start(1, 100);
    SubmitMany(1);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    Finish(task, requests[0]);
    Datagrams(task);
    const size_t blocks = fake::BlocksAlive();
    fake::FailMalloc(1);
    EXPECT_EQ(Submit(requests[0]), 1U);
    ExpectLines(Lines{Entered()} + TimeoutLines(ASYNC, 5000, 4000) + Lines{InsertFailed()});
    EXPECT_EQ(task.tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(task.tFinList.dwNumOfElem, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(requests[0]->dwTaskIndex, 1U);
    EXPECT_EQ(fake::BlocksAlive(), blocks - 2);
    EXPECT_TRUE(Datagrams(task).empty());
    ExpectLocksFree();
}

/* --- destruction --------------------------------------------------------------------------------------------- */

class ExecuteDestroy : public ExecuteAsync
{
  protected:
    static Line Begin(HNvrHttpCurlCltReq req)
    {
        return Info(DESTROY, " begin destroy req %p\n", Ptr(req));
    }

    static Line Trace(int number, uint32_t finished, uint32_t running)
    {
        const std::string format = " " + std::to_string(number) + " tFinList.dwNumOfElem %u, tRunList.dwNumOfElem %u\n";
        const std::string text = " " + std::to_string(number) + " tFinList.dwNumOfElem " + std::to_string(finished) +
                                 ", tRunList.dwNumOfElem " + std::to_string(running) + "\n";
        return {HCC_LEVEL_INFO, DESTROY, format, text};
    }

    static Line Missing(HNvrHttpCurlCltReq req)
    {
        return Error(DESTROY, "[Error] cannot find node for ptReqIn %p, taskindex %u\n", Ptr(req), req->dwTaskIndex);
    }

    static Line NoCount()
    {
        return Error(DESTROY, "[Error] invalid dwAsyncReqNum %u\n", 0U);
    }
};

TEST_F(ExecuteDestroy, NeedsARequest)
{
    NvrHttpCurlCltReqDestroy(nullptr);
    ExpectLines({Error(DESTROY, "[Error] invalid arg, hReq %p\n", Ptr(nullptr))});
}

TEST_F(ExecuteDestroy, ARequestThatWasNeverSubmittedHasNoTraces)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreatePrepared("http://127.0.0.1/", "body");
    const size_t handles = hooks::Calls("curl_easy_cleanup");
    const Line begin = Begin(req);
    NvrHttpCurlCltReqDestroy(req);
    ExpectLines({begin});
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), handles + 1);
}

TEST_F(ExecuteDestroy, AFinishedRequestHasTracesOneTwoAndFive)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateFinished();
    const Line begin = Begin(req);
    NvrHttpCurlCltReqDestroy(req);
    ExpectLines({begin, Trace(1, 1, 0), Trace(2, 0, 0), Trace(5, 0, 0)});
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    ExpectLocksFree();
}

TEST_F(ExecuteDestroy, AQueuedRequestHasAllFive)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateQueued();
    const Lines expected = {Begin(req),     Trace(1, 0, 1), Missing(req),  Trace(2, 0, 1),
                            Trace(3, 0, 1), Trace(4, 0, 0), Trace(5, 0, 0)};
    NvrHttpCurlCltReqDestroy(req);
    ExpectLines(expected);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    ExpectLocksFree();
}

TEST_F(ExecuteDestroy, TakesItsOwnNodeOnly)
{
    Start(2, 100);
    SubmitMany(10);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    for (const size_t i : {0U, 2U, 4U}) {
        Finish(task, requests[i]);
    }
    Lines expected = {Begin(requests[2]), Trace(1, 3, 2), Trace(2, 2, 2), Trace(5, 2, 2)};
    NvrHttpCurlCltReqDestroy(requests[2]);
    ExpectLines(expected);
    ASSERT_EQ(task.tFinList.dwNumOfElem, 2U);
    EXPECT_EQ(Nodes(task.tFinList)[0]->ptReqIn, requests[0]);
    EXPECT_EQ(Nodes(task.tFinList)[1]->ptReqIn, requests[4]);

    TNvrHttpCurlCltTask &other = inst->atTasks[1];
    expected = {Begin(requests[5]), Trace(1, 0, 5), Missing(requests[5]), Trace(2, 0, 5),
                Trace(3, 0, 5),     Trace(4, 0, 4), Trace(5, 0, 4)};
    NvrHttpCurlCltReqDestroy(requests[5]);
    ExpectLines(expected);
    std::vector<HNvrHttpCurlCltReq> left;
    for (const TNvrHttpCurlCltAsyncNode *node : Nodes(other.tRunList)) {
        left.push_back(node->ptReqIn);
    }
    EXPECT_EQ(left, (std::vector<HNvrHttpCurlCltReq>{requests[9], requests[7], requests[3], requests[1]}));
    EXPECT_EQ(inst->dwAsyncReqNum, 8U);
    requests.erase(requests.begin() + 5);
    requests.erase(requests.begin() + 2);
}

TEST_F(ExecuteDestroy, ANodeInNeitherListIsOnlyLogged)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Create();
    fake::FailMalloc(2);
    ASSERT_EQ(Submit(req), 1U);
    Forget();
    const Lines expected = {Begin(req),     Trace(1, 0, 0), Missing(req),   Trace(2, 0, 0),
                            Trace(3, 0, 0), Missing(req),   Trace(4, 0, 0), Trace(5, 0, 0)};
    NvrHttpCurlCltReqDestroy(req);
    ExpectLines(expected);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    ExpectLocksFree();
}

TEST_F(ExecuteDestroy, TheCountDoesNotFallBelowZeroForAFinishedRequest)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateFinished();
    inst->dwAsyncReqNum = 0;
    const Line begin = Begin(req);
    NvrHttpCurlCltReqDestroy(req);
    ExpectLines({begin, Trace(1, 1, 0), NoCount(), Trace(2, 0, 0), Trace(5, 0, 0)});
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    ExpectLocksFree();
}

TEST_F(ExecuteDestroy, TheCountDoesNotFallBelowZeroForAQueuedRequest)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateQueued();
    inst->dwAsyncReqNum = 0;
    const Lines expected = {Begin(req),     Trace(1, 0, 1), Missing(req),   Trace(2, 0, 1),
                            Trace(3, 0, 1), NoCount(),      Trace(4, 0, 0), Trace(5, 0, 0)};
    NvrHttpCurlCltReqDestroy(req);
    ExpectLines(expected);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    ExpectLocksFree();
}

TEST_F(ExecuteDestroy, ATaskNumberBeyondTheTasksIsNoTask)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Create();
    req->dwTaskIndex = 2;
    const Line begin = Begin(req);
    NvrHttpCurlCltReqDestroy(req);
    ExpectLines({begin});
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(ExecuteDestroy, ARecordWithoutAnEasyHandleIsLeftAlone)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateQueued();
    CURL *const easy = req->ptReq;
    req->ptReq = nullptr;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(inst->atTasks[0].tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 1);
    req->dwTaskIndex = 0;
    req->ptReq = easy;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(ExecuteDestroy, TheNodeGoesBackThroughTheRequestsCallback)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateFinished();
    void *const node = Nodes(inst->atTasks[0].tFinList)[0];
    req->pfFree = KeepInsteadOfFreeing;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(released, std::vector<void *>{node});
    inst->tMemCB.pfFree(node);
}

/* --- the locks of the lists --------------------------------------------------------------------- */

/* The lists' memory callbacks are called where a list changes, so they see who holds what. */
const TNvrHttpCurlCltTask *watched = nullptr;
std::vector<std::string> changes;

void NoteChange(const char *what)
{
    changes.push_back(std::string(what) + (fake::SemIsTaken(watched->hRunLock) ? " run" : "") +
                      (fake::SemIsTaken(watched->hFinLock) ? " fin" : "") +
                      (fake::HeldByThisThread() == 1 ? "" : " and not just that"));
}

void *NotingMalloc(size_t size)
{
    NoteChange("insert");
    return fake::MemCB().pfMalloc(size);
}

void NotingFree(void *block)
{
    NoteChange("remove");
    fake::MemCB().pfFree(block);
}

TEST_F(ExecuteDestroy, EachListChangesUnderItsOwnLock)
{
    Start(1, 8);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    HNvrHttpCurlCltReq req = Create();
    HNvrHttpCurlCltReq finished = CreateFinished();
    watched = &task;
    for (TNVRHCCList *list : {&task.tRunList, &task.tFinList}) {
        list->pfMalloc = NotingMalloc;
        list->pfFree = NotingFree;
    }
    EXPECT_EQ(Submit(req), 0U);
    EXPECT_EQ(changes, std::vector<std::string>{"insert run"});
    changes.clear();
    EXPECT_EQ(Submit(finished), 0U);
    EXPECT_EQ(changes, (std::vector<std::string>{"remove fin", "insert run"}));
    changes.clear();
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(changes, std::vector<std::string>{"remove run"});
    Finish(task, finished);
    changes.clear();
    NvrHttpCurlCltReqDestroy(finished);
    EXPECT_EQ(changes, std::vector<std::string>{"remove fin"});
    for (TNVRHCCList *list : {&task.tRunList, &task.tFinList}) {
        list->pfMalloc = fake::MemCB().pfMalloc;
        list->pfFree = fake::MemCB().pfFree;
    }
}

/* --- many threads ---------------------------------------------------------------------------------------------- */

TEST_F(ExecuteDestroy, ThreadsSubmitAndDestroyAtOnce)
{
    Start(3, 1024);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            std::vector<HNvrHttpCurlCltReq> mine;
            for (int j = 0; j < 40; ++j) {
                HNvrHttpCurlCltReq req = nullptr;
                EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 0U);
                EXPECT_EQ(Submit(req), 0U);
                mine.push_back(req);
            }
            for (size_t j = 0; j < mine.size(); j += 2) {
                NvrHttpCurlCltReqDestroy(mine[j]);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(inst->dwAsyncReqNum, 80U);
    uint32_t queued = 0;
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(inst->atTasks[i].tRunList.dwNumOfElem, Nodes(inst->atTasks[i].tRunList).size());
        queued += inst->atTasks[i].tRunList.dwNumOfElem;
        for (const TNvrHttpCurlCltAsyncNode *node : Nodes(inst->atTasks[i].tRunList)) {
            requests.push_back(node->ptReqIn);
        }
    }
    EXPECT_EQ(queued, 80U);
    ExpectLocksFree();
}

} // namespace
