/* Execution of requests on the caller's thread, their submission to a task, their destruction. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/request_fixture.h"

using fixture::Finish;
using fixture::kError;
using fixture::kInfo;
using fixture::kTrace;
using fixture::L;
using fixture::Line;
using fixture::Lines;
using fixture::Nodes;
using fixture::Ntf;
using fixture::P;
using fixture::SetoptFault;
using fixture::TakeLog;

namespace
{

const char kProcess[] = "NvrHttpCurlCltProcessReq";
const char kSync[] = "_NvrHttpCurlCltProcSyncReq";
const char kAsync[] = "_NvrHttpCurlCltProcAsyncReq";
const char kDestroy[] = "NvrHttpCurlCltReqDestroy";

const std::vector<CURLoption> kNoOptions = {};
const std::vector<CURLoption> kTimeouts = {CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_TIMEOUT_MS};

const uint32_t kSyncMode = NVRHTTPCURLCLT_MODE_SYNC;
const uint32_t kAsyncMode = NVRHTTPCURLCLT_MODE_ASYNC;

Line Entered()
{
    return L(kInfo, kProcess, " In NvrHttpCurlCltProcessReq\n");
}

Lines TimeoutLines(const char *func, uint32_t total, uint32_t connect)
{
    return {
        L(kInfo, func, " dwTimeoutMS %u, dwConnTimeOutMS %u\n", total, connect),
        L(kInfo, func, " dwTimeoutMS: %d, dwConnTimeOutMS: %d\n", static_cast<int>(total), static_cast<int>(connect))};
}

Lines operator+(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
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
        EXPECT_EQ(expected, __NvrHttpCurlClt_CurlErrCode2Clt(static_cast<CURLcode>(code))) << code;
    }
}

/* --- the common entry ------------------------------------------------------------------------------- */

class Execute : public fixture::EngineTest
{
  protected:
    void ExpectNothingDone()
    {
        EXPECT_EQ(kNoOptions, hooks::OptionOrder());
        EXPECT_EQ(0U, hooks::Calls("curl_easy_perform"));
        EXPECT_EQ(0U, hooks::Calls("sendto"));
        EXPECT_EQ(0U, inst->dwAsyncReqNum);
    }

    /* Every lock of the instance is free. */
    void ExpectLocksFree()
    {
        EXPECT_FALSE(fake::SemIsTaken(inst->hAsyncReqNumLock));
        for (uint32_t i = 0; i < inst->dwTaskNum; ++i) {
            EXPECT_FALSE(fake::SemIsTaken(inst->atTasks[i].hRunLock));
            EXPECT_FALSE(fake::SemIsTaken(inst->atTasks[i].hFinLock));
        }
        EXPECT_EQ(0U, fake::HeldByThisThread());
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
        return {L(kError, kProcess, "[Error] invalid arg, ptReqIn %p, ptReq %p, eMode %d, pfNtf %p\n", P(req),
                  P(req != nullptr ? req->ptReq : nullptr), mode, P(ntf))};
    }
};

TEST_F(ExecuteEntry, NeedsARequestWithAnEasyHandle)
{
    TNvrHttpCurlCltReqInner noHandle = {};
    noHandle.ptInstance = inst;
    for (const uint32_t mode : {0U, 1U, 2U}) {
        EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(nullptr, 1, 1, mode, Ntf, nullptr));
        EXPECT_EQ(Refused(nullptr, static_cast<int>(mode), Ntf), TakeLog());
        EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(&noHandle, 1, 1, mode, Ntf, nullptr));
        EXPECT_EQ(Refused(&noHandle, static_cast<int>(mode), Ntf), TakeLog());
    }
    ExpectNothingDone();
}

TEST_F(ExecuteEntry, NeedsACallbackInModeOne)
{
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(req, 1, 1, 1, nullptr, nullptr));
    EXPECT_EQ(Refused(req, 1, nullptr), TakeLog());
    ExpectNothingDone();
    EXPECT_EQ(0U, req->dwTaskIndex);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteEntry, NeedsNoCallbackInModeZero)
{
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 1, 1, 0, nullptr, nullptr));
    EXPECT_EQ(1U, hooks::Calls("curl_easy_perform"));
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteEntry, KnowsTwoModes)
{
    HNvrHttpCurlCltReq req = Create();
    for (const uint32_t mode : {2U, 0xFFFFFFFFU}) {
        EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(req, 1, 1, mode, Ntf, nullptr));
        EXPECT_EQ((Lines{Entered(), L(kError, kProcess, "[Error] unknown mode %d\n", static_cast<int>(mode))}),
                  TakeLog());
        EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(req, 0, 0, mode, nullptr, nullptr));
        EXPECT_EQ((Lines{Entered(), L(kError, kProcess, "[Error] unknown mode %d\n", static_cast<int>(mode))}),
                  TakeLog());
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
        now += 250; /* in ticks of 10 ms; elapsed time is told in whole seconds */
        EXPECT_EQ(kTimeouts, hooks::OptionOrder());
        EXPECT_EQ(0U, fake::HeldByThisThread());
        return CURLE_OK;
    };
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 7000, 3000, kSyncMode, Ntf, this));
    EXPECT_EQ(req->ptReq, performed);
    EXPECT_EQ((Lines{Entered(), L(kInfo, kSync, " in _NvrHttpCurlCltProcSyncReq\n")} + TimeoutLines(kSync, 7000, 3000) +
               Lines{L(kInfo, kSync, " use time %u{ms}\n", 2000U)}),
              TakeLog());
    const std::vector<hooks::Option> options = hooks::Options();
    ASSERT_EQ(2U, options.size());
    EXPECT_EQ(3000U, options[0].uValue);
    EXPECT_EQ(7000U, options[1].uValue);
    EXPECT_EQ(req->ptReq, options[0].ptEasy);
    EXPECT_TRUE(fixture::g_completions.empty());
    EXPECT_EQ(0U, req->dwTaskIndex);
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
}

TEST_F(ExecuteSync, TakesItsStartTickFirst)
{
    std::vector<size_t> linesAtTick;
    hooks::sys_times = [&](struct tms *) {
        linesAtTick.push_back(fake::Lines().size());
        return clock_t{100};
    };
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 1, 1, kSyncMode, nullptr, nullptr));
    ASSERT_EQ(2U, linesAtTick.size());
    EXPECT_EQ(1U, linesAtTick[0]);
    EXPECT_EQ(4U, linesAtTick[1]);
}

TEST_F(ExecuteSync, MeasuresAcrossTheWrapOfTheTicks)
{
    clock_t now = 0xFFFFFFFF;
    hooks::sys_times = [&](struct tms *) { return now; };
    hooks::easy_perform = [&](CURL *) {
        now += 300;
        return CURLE_OK;
    };
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 1, 1, kSyncMode, nullptr, nullptr));
    EXPECT_EQ(1U, fixture::Count(L(kInfo, kSync, " use time %u{ms}\n", 3000U)));
}

TEST_F(ExecuteSync, PassesTheWholeRangeOfTimeouts)
{
    hooks::easy_setopt = [](CURL *, CURLoption, void *) { return CURLE_OK; };
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 0xFFFFFFFFU, 0x80000000U, kSyncMode, nullptr, nullptr));
    EXPECT_EQ(0x80000000U, hooks::OptionsOf(CURLOPT_CONNECTTIMEOUT_MS).at(0).uValue);
    EXPECT_EQ(0xFFFFFFFFU, hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).uValue);
    for (const Line &line : TimeoutLines(kSync, 0xFFFFFFFFU, 0x80000000U)) {
        EXPECT_EQ(1U, fixture::Count(line));
    }
}

TEST_F(ExecuteSync, NeedsBothTimeouts)
{
    const uint32_t cases[][2] = {{0, 5}, {5, 0}, {0, 0}};
    for (const auto &timeouts : cases) {
        EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(req, timeouts[0], timeouts[1], kSyncMode, nullptr, nullptr));
        EXPECT_EQ((Lines{Entered(), L(kInfo, kSync, " in _NvrHttpCurlCltProcSyncReq\n"),
                         L(kError, kSync,
                           "[Error] invalid arg, ptReqIn %p, ptReqIn->ptReq %p, dwTimeoutMS %u, dwConnTimeOutMS %u\n",
                           P(req), P(req->ptReq), timeouts[0], timeouts[1])}),
                  TakeLog());
    }
    ExpectNothingDone();
}

TEST_F(ExecuteSync, ReportsSuccessForAFailedTransfer)
{
    for (const CURLcode code :
         {CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT, CURLE_SSL_CONNECT_ERROR, CURLE_WRITE_ERROR}) {
        hooks::easy_perform = [=](CURL *) { return code; };
        EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 2, 1, kSyncMode, nullptr, nullptr));
        EXPECT_EQ(
            (Lines{Entered(), L(kInfo, kSync, " in _NvrHttpCurlCltProcSyncReq\n")} + TimeoutLines(kSync, 2, 1) +
             Lines{L(kError, kSync, "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n",
                     static_cast<int>(code), curl_easy_strerror(code)),
                   L(kInfo, "CurlCodeToHttpCurlCode", " Transfer CURLcode[%d] to NvrHttpCurlCltRet[%d]\n", 0, 0)}),
            TakeLog());
    }
}

class ExecuteSyncRefused : public ExecuteSync, public ::testing::WithParamInterface<CURLoption>
{
};

TEST_P(ExecuteSyncRefused, TimeoutIsOnlyLogged)
{
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    hooks::RefuseOption(GetParam(), CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 2, 1, kSyncMode, nullptr, nullptr));
    EXPECT_EQ(1U, fixture::Count(SetoptFault(kSync, CURLE_BAD_FUNCTION_ARGUMENT)));
    EXPECT_EQ(kTimeouts, hooks::OptionOrder());
    EXPECT_EQ(1U, hooks::Calls("curl_easy_perform"));
}

INSTANTIATE_TEST_SUITE_P(Each, ExecuteSyncRefused, ::testing::Values(CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_TIMEOUT_MS),
                         [](const auto &test) { return "option" + std::to_string(test.param); });

TEST_F(ExecuteSync, AClosedPortIsNoFailure)
{
    const fixture::ClosedPort closed;
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqUri(req, closed.Url().c_str()));
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 20000, 20000, kSyncMode, nullptr, nullptr));
    EXPECT_EQ(1U, fixture::Count(L(kError, kSync, "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n",
                                   7, curl_easy_strerror(CURLE_COULDNT_CONNECT))));
}

TEST_F(ExecuteSync, ABoundRequestKeepsItsNode)
{
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    HNvrHttpCurlCltReq bound = CreateFinished();
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(bound, 2, 1, kSyncMode, nullptr, nullptr));
    EXPECT_EQ(1U, bound->dwTaskIndex);
    EXPECT_NE(nullptr, fixture::FindListNode(inst->atTasks[0].tFinList, bound));
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
    NvrHttpCurlCltReqDestroy(bound);
}

/* --- submission --------------------------------------------------------------------------------------- */

class ExecuteAsync : public Execute
{
  protected:
    static Line Refused(HNvrHttpCurlCltReq req, uint32_t total, uint32_t connect)
    {
        return L(kError, kAsync, "[Error] invalid arg, ptReqIn %p, dwTimeoutMS %u, dwConnTimeOutMS %u, pfNtf %p\n",
                 P(req), total, connect, P(Ntf));
    }

    static Line AtLimit(uint32_t count, uint32_t most)
    {
        return L(kError, kAsync, "[Error] dwAsyncReqNum(%u) >= dwAsyncReqMaxNum(%u)\n", count, most);
    }

    static Line Woken(const TNvrHttpCurlCltTask &task)
    {
        return L(kInfo, "_NvrHttpCurlClt_SocketNotify", " Notify scoket{%d} port{%d} is ok.\n",
                 task.tUdpMonitorSock.nSock, task.tUdpMonitorSock.wPort);
    }

    static Line JoinedIn(const TNvrHttpCurlCltTask &task)
    {
        return L(kInfo, kAsync, " JoinIn Task{%p, %s}\n", reinterpret_cast<const void *>(task.qwTaskID),
                 task.szThreadName);
    }

    static Line InsertFailed()
    {
        return L(kError, kAsync, "[Error] NVRHCCListInsertBefore() failed %d\n", 3);
    }

    static Lines NotFound(HNvrHttpCurlCltReq req)
    {
        return {L(kTrace, kAsync, " cannot find node for ptReqIn %p, taskindex %u\n", P(req), req->dwTaskIndex),
                L(kError, kAsync, "[Error] cannot find node for ptReqIn %p, taskindex %u\n", P(req), req->dwTaskIndex)};
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
    const std::string kDatagram = std::string("b\0", 2);
};

TEST_F(ExecuteAsync, NeedsAnInstanceAndBothTimeouts)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Create();
    const uint32_t cases[][2] = {{0, 5}, {5, 0}, {0, 0}};
    for (const auto &timeouts : cases) {
        EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(req, timeouts[0], timeouts[1], kAsyncMode, Ntf, nullptr));
        EXPECT_EQ((Lines{Entered(), Refused(req, timeouts[0], timeouts[1])}), TakeLog());
    }
    req->ptInstance = nullptr;
    EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(req, 6, 5, kAsyncMode, Ntf, nullptr));
    EXPECT_EQ((Lines{Entered(), Refused(req, 6, 5)}), TakeLog());
    req->ptInstance = inst;
    ExpectNothingDone();
    EXPECT_EQ(0U, req->dwTaskIndex);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, AnInstanceWithoutTasksRefusesBeforeItsLimit)
{
    Start(0, 0);
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(4U, Submit(req));
    EXPECT_EQ((Lines{Entered(), Refused(req, 5000, 4000)}), TakeLog());
    ExpectNothingDone();
    EXPECT_EQ(0U, req->dwTaskIndex);
    EXPECT_EQ(blocksOfInstance + 1, fake::BlocksAlive());
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, ALimitOfZeroTakesNothing)
{
    Start(1, 0);
    HNvrHttpCurlCltReq req = Create();
    const size_t mallocs = fake::Mallocs();
    EXPECT_EQ(8U, Submit(req));
    EXPECT_EQ((Lines{Entered(), AtLimit(0, 0)}), TakeLog());
    EXPECT_EQ(mallocs, fake::Mallocs());
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
    EXPECT_EQ(8U, Submit(third));
    EXPECT_EQ((Lines{Entered(), AtLimit(2, 2)}), TakeLog());
    EXPECT_EQ(kNoOptions, hooks::OptionOrder());
    NvrHttpCurlCltReqDestroy(first);
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
    EXPECT_EQ(0U, Submit(third));
    EXPECT_EQ(2U, inst->dwAsyncReqNum);
    NvrHttpCurlCltReqDestroy(second);
    NvrHttpCurlCltReqDestroy(third);
}

TEST_F(ExecuteAsync, TheLimitHoldsForRepeatedSubmissionsToo)
{
    Start(1, 1);
    HNvrHttpCurlCltReq req = CreateFinished();
    EXPECT_EQ(8U, Submit(req));
    EXPECT_EQ((Lines{Entered(), AtLimit(1, 1)}), TakeLog());
    EXPECT_NE(nullptr, fixture::FindListNode(inst->atTasks[0].tFinList, req));
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, QueuesANodeAndWakesTheTask)
{
    Start(1, 8);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    HNvrHttpCurlCltReq req = Create();
    char buffer[8];
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 7000, 3000, kAsyncMode, Ntf, buffer));
    EXPECT_EQ((Lines{Entered()} + TimeoutLines(kAsync, 7000, 3000) + Lines{JoinedIn(task), Woken(task)}), TakeLog());
    EXPECT_EQ(kTimeouts, hooks::OptionOrder());
    EXPECT_EQ(3000U, hooks::Options().at(0).uValue);
    EXPECT_EQ(7000U, hooks::Options().at(1).uValue);
    EXPECT_EQ(1U, req->dwTaskIndex);
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
    EXPECT_EQ(0U, hooks::Calls("curl_easy_perform"));

    ASSERT_EQ(1U, task.tRunList.dwNumOfElem);
    EXPECT_EQ(0U, task.tFinList.dwNumOfElem);
    const TNvrHttpCurlCltAsyncNode *node = Nodes(task.tRunList)[0];
    EXPECT_EQ(req, node->ptReqIn);
    EXPECT_EQ(P(Ntf), P(node->pfNtf));
    EXPECT_EQ(buffer, node->pvUserBuf);
    EXPECT_EQ(0U, node->bInMulti);
    EXPECT_EQ(std::vector<std::string>{kDatagram}, Datagrams(task));
    EXPECT_EQ(blocksOfInstance + 3, fake::BlocksAlive());
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
    EXPECT_EQ((std::vector<HNvrHttpCurlCltReq>{requests[2], requests[1], requests[0]}), order);
    EXPECT_EQ(3U, inst->dwAsyncReqNum);
    EXPECT_EQ(3U, Datagrams(inst->atTasks[0]).size());
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
        EXPECT_EQ(task.tUdpMonitorSock.nSock, sock);
        EXPECT_EQ(htons(task.tUdpMonitorSock.wPort), reinterpret_cast<const sockaddr_in *>(to)->sin_port);
        return hooks::real::sys_sendto(sock, data, size, flags, to, length);
    };
    SubmitMany(1);
    EXPECT_EQ(1U, queued);
    EXPECT_EQ(2U, hooks::Calls("sendto"));

    Finish(task, requests[1]);
    queued = 0;
    EXPECT_EQ(0U, Submit(requests[1]));
    EXPECT_EQ(1U, queued);
    EXPECT_EQ(3U, hooks::Calls("sendto"));
}

TEST_F(ExecuteAsync, AFailedWakeUpIsNoFailure)
{
    Start(1, 8);
    hooks::sys_sendto = [](int, const void *, size_t, int, const sockaddr *, socklen_t) -> ssize_t { return -1; };
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(0U, Submit(req));
    EXPECT_EQ(1U, inst->atTasks[0].tRunList.dwNumOfElem);
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, RefusedTimeoutsAreOnlyLogged)
{
    Start(1, 8);
    hooks::RefuseOption(CURLOPT_CONNECTTIMEOUT_MS, CURLE_BAD_FUNCTION_ARGUMENT);
    hooks::RefuseOption(CURLOPT_TIMEOUT_MS, CURLE_UNKNOWN_OPTION);
    HNvrHttpCurlCltReq req = Create();
    EXPECT_EQ(0U, Submit(req));
    EXPECT_EQ((Lines{Entered()} + TimeoutLines(kAsync, 5000, 4000) +
               Lines{SetoptFault(kAsync, CURLE_BAD_FUNCTION_ARGUMENT), SetoptFault(kAsync, CURLE_UNKNOWN_OPTION),
                     JoinedIn(inst->atTasks[0]), Woken(inst->atTasks[0])}),
              TakeLog());
    EXPECT_EQ(kTimeouts, hooks::OptionOrder());
    NvrHttpCurlCltReqDestroy(req);
}

/* --- the choice of the task ------------------------------------------------------------------------------ */

TEST_F(ExecuteAsync, TiesGoToTheFirstTask)
{
    Start(3, 100);
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2, 0, 1, 2, 0}), SubmitMany(7));
}

TEST_F(ExecuteAsync, TheShortestRunListIsChosen)
{
    Start(3, 100);
    SubmitMany(6);
    NvrHttpCurlCltReqDestroy(requests[4]);
    requests[4] = CreateQueued();
    EXPECT_EQ(2U, requests[4]->dwTaskIndex);
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2}), SubmitMany(3));
}

TEST_F(ExecuteAsync, FinishedRequestsAreNoLoad)
{
    Start(3, 100);
    SubmitMany(9);
    for (const size_t i : {2U, 5U}) {
        Finish(inst->atTasks[2], requests[i]);
    }
    EXPECT_EQ((std::vector<uint32_t>{2, 2, 0}), SubmitMany(3));
}

TEST_F(ExecuteAsync, ARequestStaysWithItsTask)
{
    Start(2, 100);
    SubmitMany(4);
    Finish(inst->atTasks[1], requests[1]);
    SubmitMany(1);
    Finish(inst->atTasks[0], requests[0]);
    Finish(inst->atTasks[0], requests[2]);
    EXPECT_EQ(0U, inst->atTasks[0].tRunList.dwNumOfElem);
    EXPECT_EQ(0U, Submit(requests[1]));
    EXPECT_EQ(2U, requests[1]->dwTaskIndex);
    EXPECT_NE(nullptr, fixture::FindListNode(inst->atTasks[1].tRunList, requests[1]));
}

/* --- failures of a first submission -------------------------------------------------------------------- */

TEST_F(ExecuteAsync, NoMemoryForTheNode)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Create();
    fake::FailMalloc(1);
    EXPECT_EQ(5U, Submit(req));
    EXPECT_EQ(
        (Lines{Entered()} + TimeoutLines(kAsync, 5000, 4000) + Lines{L(kError, kAsync, "[Error] malloc failed\n")}),
        TakeLog());
    EXPECT_EQ(0U, req->dwTaskIndex);
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
    EXPECT_EQ(0U, inst->atTasks[0].tRunList.dwNumOfElem);
    EXPECT_EQ(0U, hooks::Calls("sendto"));
    EXPECT_EQ(blocksOfInstance + 1, fake::BlocksAlive());
    EXPECT_EQ(0U, Submit(req));
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(ExecuteAsync, NoMemoryForTheListTakesTheCountBackAndKeepsTheTask)
{
    Start(2, 8);
    SubmitMany(1);
    HNvrHttpCurlCltReq req = Create();
    fake::FailMalloc(2);
    EXPECT_EQ(1U, Submit(req));
    EXPECT_EQ((Lines{Entered()} + TimeoutLines(kAsync, 5000, 4000) + Lines{JoinedIn(inst->atTasks[1]), InsertFailed()}),
              TakeLog());
    EXPECT_EQ(2U, req->dwTaskIndex);
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
    EXPECT_EQ(0U, inst->atTasks[1].tRunList.dwNumOfElem);
    EXPECT_EQ(1U, hooks::Calls("sendto"));
    EXPECT_EQ(blocksOfInstance + 4, fake::BlocksAlive());
    ExpectLocksFree();

    /* It counts as bound from now on. */
    EXPECT_EQ(4U, Submit(req));
    EXPECT_EQ((Lines{Entered()} + TimeoutLines(kAsync, 5000, 4000) + NotFound(req)), TakeLog());
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
    ExpectLocksFree();
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
}

/* --- repeated submissions ----------------------------------------------------------------------------------- */

uint32_t OtherNtf(HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet, void *)
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
    ASSERT_EQ(middle, node->ptReqIn);
    Datagrams(task);
    const size_t blocks = fake::BlocksAlive();
    Forget();

    char buffer[8];
    EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(middle, 9, 8, kAsyncMode, OtherNtf, buffer));
    EXPECT_EQ((Lines{Entered()} + TimeoutLines(kAsync, 9, 8) + Lines{Woken(task)}), TakeLog());
    EXPECT_EQ(8U, hooks::OptionsOf(CURLOPT_CONNECTTIMEOUT_MS).at(0).uValue);
    EXPECT_EQ(9U, hooks::OptionsOf(CURLOPT_TIMEOUT_MS).at(0).uValue);
    ASSERT_EQ(1U, task.tRunList.dwNumOfElem);
    EXPECT_EQ(node, Nodes(task.tRunList)[0]);
    EXPECT_EQ(middle, node->ptReqIn);
    EXPECT_EQ(P(OtherNtf), P(node->pfNtf));
    EXPECT_EQ(buffer, node->pvUserBuf);
    EXPECT_EQ(0U, node->bInMulti);
    EXPECT_EQ(2U, task.tFinList.dwNumOfElem);
    EXPECT_EQ(nullptr, fixture::FindListNode(task.tFinList, middle));
    EXPECT_EQ(6U, inst->dwAsyncReqNum);
    EXPECT_EQ(1U, middle->dwTaskIndex);
    EXPECT_EQ(std::vector<std::string>{kDatagram}, Datagrams(task));
    EXPECT_EQ(blocks, fake::BlocksAlive());
    ExpectLocksFree();
}

TEST_F(ExecuteAsync, ARepeatedSubmissionGoesToTheHead)
{
    Start(1, 100);
    SubmitMany(3);
    Finish(inst->atTasks[0], requests[0]);
    EXPECT_EQ(0U, Submit(requests[0]));
    EXPECT_EQ(requests[0], Nodes(inst->atTasks[0].tRunList)[0]->ptReqIn);
}

TEST_F(ExecuteAsync, ARepeatedSubmissionLooksAtNoTaskCount)
{
    Start(2, 100);
    SubmitMany(2);
    Finish(inst->atTasks[1], requests[1]);
    inst->dwTaskNum = 1;
    EXPECT_EQ(0U, Submit(requests[1]));
    inst->dwTaskNum = 2;
    EXPECT_EQ(1U, inst->atTasks[1].tRunList.dwNumOfElem);
}

TEST_F(ExecuteAsync, ARunningRequestIsRefusedAndGoesOn)
{
    Start(1, 100);
    SubmitMany(1);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    Datagrams(task);
    const size_t frees = fake::Frees();
    EXPECT_EQ(4U, NvrHttpCurlCltProcessReq(requests[0], 9, 8, kAsyncMode, OtherNtf, this));
    EXPECT_EQ((Lines{Entered()} + TimeoutLines(kAsync, 9, 8) + NotFound(requests[0])), TakeLog());
    EXPECT_EQ(kTimeouts, hooks::OptionOrder());
    ASSERT_EQ(1U, task.tRunList.dwNumOfElem);
    EXPECT_EQ(P(Ntf), P(Nodes(task.tRunList)[0]->pfNtf));
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
    EXPECT_EQ(frees, fake::Frees());
    EXPECT_TRUE(Datagrams(task).empty());
    ExpectLocksFree();
}

std::vector<void *> g_released;

void KeepInsteadOfFreeing(void *block)
{
    g_released.push_back(block);
}

class ExecuteAsyncLoss : public ExecuteAsync, public ::testing::WithParamInterface<size_t>
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
    EXPECT_EQ(4U, Submit(running));
    running->pfFree = inst->tMemCB.pfFree;
    EXPECT_EQ((Lines{Entered()} + TimeoutLines(kAsync, 5000, 4000) + NotFound(running)), TakeLog());
    EXPECT_EQ(std::vector<void *>{finished.back()}, g_released);
    EXPECT_EQ(finished, Nodes(task.tFinList));
    EXPECT_EQ(requests.back(), finished.back()->ptReqIn);
    EXPECT_EQ(requests.size(), inst->dwAsyncReqNum);
    ExpectLocksFree();
}

INSTANTIATE_TEST_SUITE_P(Finished, ExecuteAsyncLoss, ::testing::Values(1U, 3U),
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
    EXPECT_EQ(1U, Submit(requests[0]));
    EXPECT_EQ((Lines{Entered()} + TimeoutLines(kAsync, 5000, 4000) + Lines{InsertFailed()}), TakeLog());
    EXPECT_EQ(0U, task.tRunList.dwNumOfElem);
    EXPECT_EQ(0U, task.tFinList.dwNumOfElem);
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
    EXPECT_EQ(1U, requests[0]->dwTaskIndex);
    EXPECT_EQ(blocks - 2, fake::BlocksAlive());
    EXPECT_TRUE(Datagrams(task).empty());
    ExpectLocksFree();
}

/* --- destruction --------------------------------------------------------------------------------------------- */

class ExecuteDestroy : public ExecuteAsync
{
  protected:
    static Line Begin(HNvrHttpCurlCltReq req)
    {
        return L(kInfo, kDestroy, " begin destroy req %p\n", P(req));
    }

    static Line Trace(int number, uint32_t finished, uint32_t running)
    {
        const std::string format =
            "%s[L:%d] " + std::to_string(number) + " tFinList.dwNumOfElem %u, tRunList.dwNumOfElem %u\n";
        const std::string text = " " + std::to_string(number) + " tFinList.dwNumOfElem " + std::to_string(finished) +
                                 ", tRunList.dwNumOfElem " + std::to_string(running) + "\n";
        return {kInfo, kDestroy, format, text};
    }

    static Line Missing(HNvrHttpCurlCltReq req)
    {
        return L(kError, kDestroy, "[Error] cannot find node for ptReqIn %p, taskindex %u\n", P(req), req->dwTaskIndex);
    }

    static Line NoCount()
    {
        return L(kError, kDestroy, "[Error] invalid dwAsyncReqNum %u\n", 0U);
    }
};

TEST_F(ExecuteDestroy, NeedsARequest)
{
    NvrHttpCurlCltReqDestroy(nullptr);
    EXPECT_EQ((Lines{L(kError, kDestroy, "[Error] invalid arg, hReq %p\n", P<void>(nullptr))}), TakeLog());
}

TEST_F(ExecuteDestroy, ARequestThatWasNeverSubmittedHasNoTraces)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreatePrepared("http://127.0.0.1/", "body");
    const size_t handles = hooks::Calls("curl_easy_cleanup");
    const Line begin = Begin(req);
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(Lines{begin}, TakeLog());
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
    EXPECT_EQ(handles + 1, hooks::Calls("curl_easy_cleanup"));
}

TEST_F(ExecuteDestroy, AFinishedRequestHasTracesOneTwoAndFive)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateFinished();
    const Line begin = Begin(req);
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ((Lines{begin, Trace(1, 1, 0), Trace(2, 0, 0), Trace(5, 0, 0)}), TakeLog());
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
    ExpectLocksFree();
}

TEST_F(ExecuteDestroy, AQueuedRequestHasAllFive)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateQueued();
    const Lines expected = {Begin(req),     Trace(1, 0, 1), Missing(req),  Trace(2, 0, 1),
                            Trace(3, 0, 1), Trace(4, 0, 0), Trace(5, 0, 0)};
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(expected, TakeLog());
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
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
    EXPECT_EQ(expected, TakeLog());
    ASSERT_EQ(2U, task.tFinList.dwNumOfElem);
    EXPECT_EQ(requests[0], Nodes(task.tFinList)[0]->ptReqIn);
    EXPECT_EQ(requests[4], Nodes(task.tFinList)[1]->ptReqIn);

    TNvrHttpCurlCltTask &other = inst->atTasks[1];
    expected = {Begin(requests[5]), Trace(1, 0, 5), Missing(requests[5]), Trace(2, 0, 5),
                Trace(3, 0, 5),     Trace(4, 0, 4), Trace(5, 0, 4)};
    NvrHttpCurlCltReqDestroy(requests[5]);
    EXPECT_EQ(expected, TakeLog());
    std::vector<HNvrHttpCurlCltReq> left;
    for (const TNvrHttpCurlCltAsyncNode *node : Nodes(other.tRunList)) {
        left.push_back(node->ptReqIn);
    }
    EXPECT_EQ((std::vector<HNvrHttpCurlCltReq>{requests[9], requests[7], requests[3], requests[1]}), left);
    EXPECT_EQ(8U, inst->dwAsyncReqNum);
    requests.erase(requests.begin() + 5);
    requests.erase(requests.begin() + 2);
}

TEST_F(ExecuteDestroy, ANodeInNeitherListIsOnlyLogged)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Create();
    fake::FailMalloc(2);
    ASSERT_EQ(1U, Submit(req));
    Forget();
    const Lines expected = {Begin(req),     Trace(1, 0, 0), Missing(req),   Trace(2, 0, 0),
                            Trace(3, 0, 0), Missing(req),   Trace(4, 0, 0), Trace(5, 0, 0)};
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(expected, TakeLog());
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
    ExpectLocksFree();
}

TEST_F(ExecuteDestroy, TheCountDoesNotFallBelowZeroForAFinishedRequest)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateFinished();
    inst->dwAsyncReqNum = 0;
    const Line begin = Begin(req);
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ((Lines{begin, Trace(1, 1, 0), NoCount(), Trace(2, 0, 0), Trace(5, 0, 0)}), TakeLog());
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
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
    EXPECT_EQ(expected, TakeLog());
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
    ExpectLocksFree();
}

TEST_F(ExecuteDestroy, ATaskNumberBeyondTheTasksIsNoTask)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Create();
    req->dwTaskIndex = 2;
    const Line begin = Begin(req);
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(Lines{begin}, TakeLog());
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
}

TEST_F(ExecuteDestroy, ARecordWithoutAnEasyHandleIsLeftAlone)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateQueued();
    CURL *const easy = req->ptReq;
    req->ptReq = nullptr;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(0U, inst->atTasks[0].tRunList.dwNumOfElem);
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
    EXPECT_EQ(blocksOfInstance + 1, fake::BlocksAlive());
    req->dwTaskIndex = 0;
    req->ptReq = easy;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
}

TEST_F(ExecuteDestroy, TheNodeGoesBackThroughTheRequestsCallback)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateFinished();
    void *const node = Nodes(inst->atTasks[0].tFinList)[0];
    req->pfFree = KeepInsteadOfFreeing;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(std::vector<void *>{node}, g_released);
    inst->tMemCB.pfFree(node);
}

/* --- the locks of the lists --------------------------------------------------------------------- */

/* The lists' memory callbacks are called where a list changes, so they see who holds what. */
const TNvrHttpCurlCltTask *g_watched = nullptr;
std::vector<std::string> g_changes;

void NoteChange(const char *what)
{
    g_changes.push_back(std::string(what) + (fake::SemIsTaken(g_watched->hRunLock) ? " run" : "") +
                        (fake::SemIsTaken(g_watched->hFinLock) ? " fin" : "") +
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
    g_watched = &task;
    for (TNVRHCCList *list : {&task.tRunList, &task.tFinList}) {
        list->pfMalloc = NotingMalloc;
        list->pfFree = NotingFree;
    }
    EXPECT_EQ(0U, Submit(req));
    EXPECT_EQ(std::vector<std::string>{"insert run"}, g_changes);
    g_changes.clear();
    EXPECT_EQ(0U, Submit(finished));
    EXPECT_EQ((std::vector<std::string>{"remove fin", "insert run"}), g_changes);
    g_changes.clear();
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(std::vector<std::string>{"remove run"}, g_changes);
    Finish(task, finished);
    g_changes.clear();
    NvrHttpCurlCltReqDestroy(finished);
    EXPECT_EQ(std::vector<std::string>{"remove fin"}, g_changes);
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
                EXPECT_EQ(0U, NvrHttpCurlCltReqCreat(inst, &req));
                EXPECT_EQ(0U, Submit(req));
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
    EXPECT_EQ(80U, inst->dwAsyncReqNum);
    uint32_t queued = 0;
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(Nodes(inst->atTasks[i].tRunList).size(), inst->atTasks[i].tRunList.dwNumOfElem);
        queued += inst->atTasks[i].tRunList.dwNumOfElem;
        for (const TNvrHttpCurlCltAsyncNode *node : Nodes(inst->atTasks[i].tRunList)) {
            requests.push_back(node->ptReqIn);
        }
    }
    EXPECT_EQ(80U, queued);
    ExpectLocksFree();
}

} // namespace
