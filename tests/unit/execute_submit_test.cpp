/* The submission of requests to a task, first and repeated. */
#include <netinet/in.h>

#include "tests/support/execute_fixture.h"

namespace
{

using namespace test;

const char ASYNC[] = "_NvrHttpCurlCltProcAsyncReq";
const std::vector<std::string> ONE_DATAGRAM = {std::string("b\0", 2)};

uint32_t OtherNotify(HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet, void *)
{
    return 0;
}

uint32_t SubmitWith(HNvrHttpCurlCltReq req, uint32_t total, uint32_t connect, PFNvrHttpCurlCltNtf ntf, void *buf)
{
    return NvrHttpCurlCltProcessReq(req, total, connect, NVRHTTPCURLCLT_MODE_ASYNC, ntf, buf);
}

/* The lines of a submission with the time-outs of Submit, up to the request's node. */
Lines Begun(uint32_t total = 5000, uint32_t connect = 4000)
{
    return Lines{Entered()} + TimeoutLines(ASYNC, total, connect);
}

Lines Refused(HNvrHttpCurlCltReq req, uint32_t total, uint32_t connect)
{
    return {Entered(), Error(ASYNC, "[Error] invalid arg, ptReqIn %p, dwTimeoutMS %u, dwConnTimeOutMS %u, pfNtf %p\n",
                             Ptr(req), total, connect, Ptr(Notify))};
}

Lines AtLimit(uint32_t count, uint32_t most)
{
    return {Entered(), Error(ASYNC, "[Error] dwAsyncReqNum(%u) >= dwAsyncReqMaxNum(%u)\n", count, most)};
}

Line Woken(const TNvrHttpCurlCltTask &task)
{
    return Info("_NvrHttpCurlClt_SocketNotify", " Notify scoket{%d} port{%d} is ok.\n", task.tUdpMonitorSock.nSock,
                task.tUdpMonitorSock.wPort);
}

Line JoinedIn(const TNvrHttpCurlCltTask &task)
{
    return Info(ASYNC, " JoinIn Task{%p, %s}\n", reinterpret_cast<const void *>(task.qwTaskID), task.szThreadName);
}

Line InsertFailed()
{
    return Error(ASYNC, "[Error] NVRHCCListInsertBefore() failed %d\n", 3);
}

Lines NotFound(HNvrHttpCurlCltReq req)
{
    return {Trace(ASYNC, " cannot find node for ptReqIn %p, taskindex %u\n", Ptr(req), req->dwTaskIndex),
            Error(ASYNC, "[Error] cannot find node for ptReqIn %p, taskindex %u\n", Ptr(req), req->dwTaskIndex)};
}

/* The datagrams that wait on a task's socket. */
std::vector<std::string> Datagrams(const TNvrHttpCurlCltTask &task)
{
    std::vector<std::string> datagrams;
    char buffer[256];
    ssize_t count = 0;
    while ((count = recv(task.tUdpMonitorSock.nSock, buffer, sizeof(buffer), MSG_DONTWAIT)) >= 0) {
        datagrams.emplace_back(buffer, static_cast<size_t>(count));
    }
    return datagrams;
}

class ExecuteSubmit : public ExecuteTest
{
  protected:
    /* The whole of a node that waits for its worker. */
    void ExpectNode(const TNvrHttpCurlCltAsyncNode *node, HNvrHttpCurlCltReq req, PFNvrHttpCurlCltNtf ntf, void *buf)
    {
        EXPECT_EQ(node->ptReqIn, req);
        EXPECT_EQ(Ptr(node->pfNtf), Ptr(ntf));
        EXPECT_EQ(node->pvUserBuf, buf);
        EXPECT_EQ(node->bInMulti, 0U);
    }

    void ExpectTimeoutsSet(uint32_t total, uint32_t connect)
    {
        EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
        EXPECT_EQ(hooks::Options().at(0).value, connect);
        EXPECT_EQ(hooks::Options().at(1).value, total);
    }
};

/* --- refusals --------------------------------------------------------------------------------- */

TEST_F(ExecuteSubmit, NeedsAnInstanceWithTasksAndBothTimeouts)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Keep(Create());
    HNvrHttpCurlCltInst withoutTasks = MustStart(0, 0);
    Forget();
    const struct {
        uint32_t total, connect;
        HNvrHttpCurlCltInst instance;
    } cases[] = {{0, 5, inst}, {5, 0, inst}, {0, 0, inst}, {6, 5, nullptr}, {6, 5, withoutTasks}};
    for (const auto &each : cases) {
        req->ptInstance = each.instance;
        EXPECT_EQ(SubmitWith(req, each.total, each.connect, Notify, nullptr), 4U);
        ExpectLines(Refused(req, each.total, each.connect));
    }
    req->ptInstance = inst;
    NvrHttpCurlCltUninit(withoutTasks);
    ExpectNothingDone();
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 1);
}

TEST_F(ExecuteSubmit, ALimitOfZeroAcceptsNothing)
{
    Start(1, 0);
    HNvrHttpCurlCltReq req = Keep(Create());
    const size_t mallocs = fake::Mallocs();
    EXPECT_EQ(Submit(req), 8U);
    ExpectLines(AtLimit(0, 0));
    EXPECT_EQ(fake::Mallocs(), mallocs);
    ExpectNothingDone();
}

TEST_F(ExecuteSubmit, FinishedRequestsCountUntilTheyAreDestroyed)
{
    Start(2, 2);
    HNvrHttpCurlCltReq first = CreateFinished();
    HNvrHttpCurlCltReq second = Keep(CreateFinished());
    HNvrHttpCurlCltReq third = Keep(Create());
    for (HNvrHttpCurlCltReq refused : {third, second}) {
        EXPECT_EQ(Submit(refused), 8U);
        ExpectLines(AtLimit(2, 2));
    }
    EXPECT_NE(FindListNode(inst->atTasks[0].tFinList, second), nullptr);
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
    NvrHttpCurlCltReqDestroy(first);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(Submit(third), 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 2U);
}

/* --- first submissions ------------------------------------------------------------------------- */

TEST_F(ExecuteSubmit, QueuesANodeAndWakesTheTask)
{
    Start(1, 8);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    HNvrHttpCurlCltReq req = Keep(Create());
    char buffer[8];
    EXPECT_EQ(SubmitWith(req, 7000, 3000, Notify, buffer), 0U);
    ExpectLines(Begun(7000, 3000) + Lines{JoinedIn(task), Woken(task)});
    ExpectTimeoutsSet(7000, 3000);
    EXPECT_EQ(req->dwTaskIndex, 1U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
    ASSERT_EQ(task.tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(task.tFinList.dwNumOfElem, 0U);
    ExpectNode(Nodes(task.tRunList)[0], req, Notify, buffer);
    EXPECT_EQ(Datagrams(task), ONE_DATAGRAM);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 3);
}

TEST_F(ExecuteSubmit, TheLatestIsAtTheHeadAlsoIfRepeated)
{
    Start(1, 8);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    SubmitMany(3);
    EXPECT_EQ(RequestsIn(task.tRunList), (std::vector<HNvrHttpCurlCltReq>{requests[2], requests[1], requests[0]}));
    EXPECT_EQ(inst->dwAsyncReqNum, 3U);
    EXPECT_EQ(Datagrams(task).size(), 3U);
    Finish(task, requests[1]);
    EXPECT_EQ(Submit(requests[1]), 0U);
    EXPECT_EQ(RequestsIn(task.tRunList), (std::vector<HNvrHttpCurlCltReq>{requests[1], requests[2], requests[0]}));
}

TEST_F(ExecuteSubmit, WakesTheTaskWithNoLockHeld)
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

TEST_F(ExecuteSubmit, RefusedTimeoutsAndAFailedWakeUpAreOnlyLogged)
{
    Start(1, 8);
    hooks::RefuseOption(CURLOPT_CONNECTTIMEOUT_MS, CURLE_BAD_FUNCTION_ARGUMENT);
    hooks::RefuseOption(CURLOPT_TIMEOUT_MS, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(Submit(Keep(Create())), 0U);
    ExpectLines(Begun() + Lines{SetoptFault(ASYNC, CURLE_BAD_FUNCTION_ARGUMENT),
                                SetoptFault(ASYNC, CURLE_UNKNOWN_OPTION), JoinedIn(inst->atTasks[0]),
                                Woken(inst->atTasks[0])});
    EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
    hooks::sys_sendto = [](int, const void *, size_t, int, const sockaddr *, socklen_t) -> ssize_t { return -1; };
    EXPECT_EQ(Submit(Keep(Create())), 0U);
    EXPECT_EQ(inst->atTasks[0].tRunList.dwNumOfElem, 2U);
}

TEST_F(ExecuteSubmit, NoMemoryForTheNode)
{
    Start(1, 8);
    HNvrHttpCurlCltReq req = Keep(Create());
    fake::FailMalloc(1);
    EXPECT_EQ(Submit(req), 5U);
    ExpectLines(Begun() + Lines{Error(ASYNC, "[Error] malloc failed\n")});
    EXPECT_EQ(req->dwTaskIndex, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(inst->atTasks[0].tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(hooks::Calls("sendto"), 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 1);
    EXPECT_EQ(Submit(req), 0U);
}

TEST_F(ExecuteSubmit, NoMemoryForTheListTakesTheCountBackAndKeepsTheTask)
{
    Start(2, 8);
    SubmitMany(1);
    HNvrHttpCurlCltReq req = Create();
    fake::FailMalloc(2);
    EXPECT_EQ(Submit(req), 1U);
    ExpectLines(Begun() + Lines{JoinedIn(inst->atTasks[1]), InsertFailed()});
    EXPECT_EQ(req->dwTaskIndex, 2U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(inst->atTasks[1].tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(hooks::Calls("sendto"), 1U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 4);

    /* It counts as bound from now on. */
    EXPECT_EQ(Submit(req), 4U);
    ExpectLines(Begun() + NotFound(req));
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
}

/* --- the choice of the task -------------------------------------------------------------------- */

TEST_F(ExecuteSubmit, TheShortestRunListIsChosen)
{
    Start(3, 100);
    EXPECT_EQ(SubmitMany(6), (std::vector<uint32_t>{0, 1, 2, 0, 1, 2})); /* the first of equals */
    NvrHttpCurlCltReqDestroy(requests[4]);
    requests[4] = CreateQueued();
    EXPECT_EQ(requests[4]->dwTaskIndex, 2U);
    EXPECT_EQ(SubmitMany(3), (std::vector<uint32_t>{0, 1, 2}));
}

TEST_F(ExecuteSubmit, FinishedRequestsAreNoLoad)
{
    Start(3, 100);
    SubmitMany(9);
    for (const size_t i : {2U, 5U}) {
        Finish(inst->atTasks[2], requests[i]);
    }
    EXPECT_EQ(SubmitMany(3), (std::vector<uint32_t>{2, 2, 0}));
}

TEST_F(ExecuteSubmit, ARequestStaysWithItsTask)
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

/* --- repeated submissions ---------------------------------------------------------------------- */

TEST_F(ExecuteSubmit, ARepeatedSubmissionUsesTheNodeAgain)
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
    EXPECT_EQ(SubmitWith(middle, 9, 8, OtherNotify, buffer), 0U);
    ExpectLines(Begun(9, 8) + Lines{Woken(task)});
    ExpectTimeoutsSet(9, 8);
    ASSERT_EQ(task.tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(Nodes(task.tRunList)[0], node);
    ExpectNode(node, middle, OtherNotify, buffer);
    EXPECT_EQ(task.tFinList.dwNumOfElem, 2U);
    EXPECT_EQ(FindListNode(task.tFinList, middle), nullptr);
    EXPECT_EQ(inst->dwAsyncReqNum, 6U);
    EXPECT_EQ(middle->dwTaskIndex, 1U);
    EXPECT_EQ(Datagrams(task), ONE_DATAGRAM);
    EXPECT_EQ(fake::BlocksAlive(), blocks);
}

TEST_F(ExecuteSubmit, ARepeatedSubmissionLooksAtNoTaskCount)
{
    Start(2, 100);
    SubmitMany(2);
    Finish(inst->atTasks[1], requests[1]);
    inst->dwTaskNum = 1;
    EXPECT_EQ(Submit(requests[1]), 0U);
    inst->dwTaskNum = 2;
    EXPECT_EQ(inst->atTasks[1].tRunList.dwNumOfElem, 1U);
}

/* The last finished node is lost: the request's pfFree gets it although it stays in its list. */
TEST_F(ExecuteSubmit, ARunningRequestIsRefusedAndGoesOnAtTheCostOfTheLastFinishedNode)
{
    Start(1, 100);
    SubmitMany(4);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    HNvrHttpCurlCltReq running = requests[0];
    for (size_t last = 0; last < requests.size(); ++last) {
        SCOPED_TRACE(last);
        std::vector<void *> expected;
        if (last != 0) {
            expected.push_back(Finish(task, requests[last]));
        }
        const std::vector<TNvrHttpCurlCltAsyncNode *> finished = Nodes(task.tFinList);
        const size_t frees = fake::Frees();
        Datagrams(task);
        released.clear();
        Forget();
        running->pfFree = KeepInsteadOfFreeing;
        EXPECT_EQ(SubmitWith(running, 9, 8, OtherNotify, this), 4U);
        running->pfFree = inst->tMemCB.pfFree;
        ExpectLines(Begun(9, 8) + NotFound(running));
        EXPECT_EQ(hooks::OptionOrder(), TIMEOUTS);
        EXPECT_EQ(released, expected);
        EXPECT_EQ(fake::Frees(), frees);
        EXPECT_EQ(Nodes(task.tFinList), finished);
        ASSERT_EQ(task.tRunList.dwNumOfElem, requests.size() - last);
        EXPECT_EQ(Nodes(task.tRunList).back()->ptReqIn, running);
        EXPECT_EQ(Ptr(Nodes(task.tRunList).back()->pfNtf), Ptr(Notify));
        EXPECT_EQ(inst->dwAsyncReqNum, requests.size());
        EXPECT_TRUE(Datagrams(task).empty());
    }
}

TEST_F(ExecuteSubmit, ARepeatedSubmissionWithoutMemoryLosesTheNodeAndKeepsTheCount)
{
    Start(1, 100);
    SubmitMany(1);
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    Finish(task, requests[0]);
    Datagrams(task);
    const size_t blocks = fake::BlocksAlive();
    fake::FailMalloc(1);
    EXPECT_EQ(Submit(requests[0]), 1U);
    ExpectLines(Begun() + Lines{InsertFailed()});
    EXPECT_EQ(task.tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(task.tFinList.dwNumOfElem, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    EXPECT_EQ(requests[0]->dwTaskIndex, 1U);
    EXPECT_EQ(fake::BlocksAlive(), blocks - 2);
    EXPECT_TRUE(Datagrams(task).empty());
}

} // namespace
