/*
 * The worker: adding queued requests, completing ended ones, the loop.
 *
 * The task has no thread here. The cases call the worker's functions themselves and play
 * libcurl's part through the hooks.
 */
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "tests/support/engine_fixture.h"

namespace
{

using namespace test;

const char ADD[] = "_NvrHttpCurlClt_CheckAddMultiHandle";
const char PERFORM[] = "_NvrHttpCurlClt_CurlPerformAndReadInfo";
const char PERFORM_EX[] = "_NvrHttpCurlClt_CurlPerformAndReadInfoEx";
const char ROUTINE[] = "_NvrHttpCurlCltWorkerRoutine";

/* What libcurl hands out, message by message. */
std::deque<CURLMsg> messages;

CURLMsg Message(CURLMSG kind, CURL *easy, CURLcode result)
{
    CURLMsg message = {};
    message.msg = kind;
    message.easy_handle = easy;
    message.data.result = result;
    return message;
}

CURLMsg Done(CURL *easy, CURLcode result = CURLE_OK)
{
    return Message(CURLMSG_DONE, easy, result);
}

CURLMsg *NextMessage(CURLM *, int *left)
{
    static CURLMsg current;
    if (messages.empty()) {
        *left = 0;
        return nullptr;
    }
    current = messages.front();
    messages.pop_front();
    *left = static_cast<int>(messages.size());
    return &current;
}

class Worker : public EngineTest
{
  protected:
    void SetUp() override
    {
        Start(1, 64);
        task = &inst->atTasks[0];
        multi = task->ptCurlMultiHandle;
    }

    void TearDown() override
    {
        onCompletion = nullptr;
        for (HNvrHttpCurlCltReq req : requests) {
            NvrHttpCurlCltReqDestroy(req);
        }
        EngineTest::TearDown();
    }

    /* libcurl takes and gives back handles, transfers nothing and hands out the messages. */
    void PlayLibcurl()
    {
        hooks::multi_add_handle = [](CURLM *, CURL *) { return CURLM_OK; };
        hooks::multi_remove_handle = [](CURLM *, CURL *) { return CURLM_OK; };
        hooks::multi_perform = [](CURLM *, int *) { return CURLM_OK; };
        hooks::multi_info_read = NextMessage;
    }

    HNvrHttpCurlCltReq Queue(void *buf = nullptr)
    {
        requests.push_back(CreateQueued(buf));
        return requests.back();
    }

    /* A queued request with a response buffer, as the worker finds it after a transfer. */
    HNvrHttpCurlCltReq QueueAnswered(void *buf, std::string answer)
    {
        HNvrHttpCurlCltReq req = CreatePrepared("http://127.0.0.1/", "body");
        EXPECT_EQ(_HttpCurlStackWriteCB(answer.data(), 1, answer.size(), req->ptRespData), answer.size());
        EXPECT_EQ(Submit(req, buf), 0U);
        Nodes(task->tRunList)[0]->bInMulti = 1;
        requests.push_back(req);
        Forget();
        return req;
    }

    /* The case destroyed it itself. */
    void Disown(HNvrHttpCurlCltReq req)
    {
        requests.erase(std::find(requests.begin(), requests.end(), req));
    }

    bool AnyLockTaken() const
    {
        return fake::SemIsTaken(task->hRunLock) || fake::SemIsTaken(task->hFinLock) ||
               fake::SemIsTaken(inst->hAsyncReqNumLock) || fake::HeldByThisThread() != 0;
    }

    Line AddBegins(HNvrHttpCurlCltReq req) const
    {
        return Info(ADD, " curl_multi_add_handle beg, hReq %p\n", Ptr(req->ptReq));
    }

    Line AddDone(HNvrHttpCurlCltReq req) const
    {
        return Info(ADD, " curl_multi_add_handle{pMultHandle %p, hReq %p} ok.\n", Ptr(multi), Ptr(req->ptReq));
    }

    Line AddFailed(HNvrHttpCurlCltReq req, CURLMcode code) const
    {
        return Error(ADD, "[Error] curl_multi_add_handle{pMultHandle %p, hReq %p} fail{%d}\n", Ptr(multi),
                     Ptr(req->ptReq), static_cast<int>(code));
    }

    static Line Running(const char *func, int count)
    {
        return Info(func, " >>still_running %d\n", count);
    }

    TNvrHttpCurlCltTask *task = nullptr;
    CURLM *multi = nullptr;
    std::vector<HNvrHttpCurlCltReq> requests;
};

/* --- adding queued requests ------------------------------------------------------------------------- */

class WorkerAdd : public Worker
{
  protected:
    void SetUp() override
    {
        Worker::SetUp();
        PlayLibcurl();
    }

    uint32_t Add()
    {
        return _NvrHttpCurlClt_CheckAddMultiHandle(task, multi);
    }

    uint32_t InMulti(HNvrHttpCurlCltReq req) const
    {
        return static_cast<TNvrHttpCurlCltAsyncNode *>(FindListNode(task->tRunList, req)->pvData)->bInMulti;
    }
};

TEST_F(WorkerAdd, AnEmptyRunListIsNothing)
{
    EXPECT_EQ(Add(), 0U);
    ExpectLines({});
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 0U);
    EXPECT_FALSE(AnyLockTaken());
}

TEST_F(WorkerAdd, AddsUnderTheRunLockAndPerformsWithout)
{
    HNvrHttpCurlCltReq req = Queue();
    std::vector<std::string> events;
    hooks::multi_add_handle = [&](CURLM *to, CURL *easy) {
        EXPECT_EQ(to, multi);
        EXPECT_EQ(easy, req->ptReq);
        EXPECT_TRUE(fake::SemIsTaken(task->hRunLock));
        EXPECT_EQ(fake::HeldByThisThread(), 1U);
        EXPECT_EQ(InMulti(req), 0U);
        events.push_back("add");
        return CURLM_OK;
    };
    hooks::multi_perform = [&](CURLM *of, int *running) {
        EXPECT_EQ(of, multi);
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_EQ(*running, 0);
        EXPECT_EQ(InMulti(req), 1U);
        *running = 3;
        events.push_back("perform");
        return CURLM_OK;
    };
    EXPECT_EQ(Add(), 1U);
    EXPECT_EQ(events, (std::vector<std::string>{"add", "perform"}));
    ExpectLines({AddBegins(req), AddDone(req), Running(PERFORM_EX, 3)});
    EXPECT_EQ(task->tRunList.dwNumOfElem, 1U);
    EXPECT_FALSE(AnyLockTaken());
}

TEST_F(WorkerAdd, TheLatestIsAddedFirst)
{
    Queue();
    Queue();
    Queue();
    std::vector<CURL *> added;
    hooks::multi_add_handle = [&](CURLM *, CURL *easy) {
        added.push_back(easy);
        return CURLM_OK;
    };
    EXPECT_EQ(Add(), 3U);
    EXPECT_EQ(added, (std::vector<CURL *>{requests[2]->ptReq, requests[1]->ptReq, requests[0]->ptReq}));
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 1U);
}

TEST_F(WorkerAdd, WhatIsInflightIsNotAddedAgain)
{
    Queue();
    EXPECT_EQ(Add(), 1U);
    Forget();
    EXPECT_EQ(Add(), 0U);
    ExpectLines({});
    EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), 1U);
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 1U);
    HNvrHttpCurlCltReq later = Queue();
    EXPECT_EQ(Add(), 1U);
    ExpectLines({AddBegins(later), AddDone(later), Running(PERFORM_EX, 0)});
}

TEST_F(WorkerAdd, ARefusedHandleIsTriedAgain)
{
    HNvrHttpCurlCltReq req = Queue();
    hooks::multi_add_handle = [](CURLM *, CURL *) { return CURLM_OUT_OF_MEMORY; };
    EXPECT_EQ(Add(), 0U);
    ExpectLines({AddBegins(req), AddFailed(req, CURLM_OUT_OF_MEMORY)});
    EXPECT_EQ(InMulti(req), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 0U);
    EXPECT_FALSE(AnyLockTaken());
    hooks::multi_add_handle = [](CURLM *, CURL *) { return CURLM_OK; };
    EXPECT_EQ(Add(), 1U);
    ExpectLines({AddBegins(req), AddDone(req), Running(PERFORM_EX, 0)});
    EXPECT_EQ(InMulti(req), 1U);
}

TEST_F(WorkerAdd, OneRefusalDoesNotStopTheRest)
{
    HNvrHttpCurlCltReq older = Queue();
    HNvrHttpCurlCltReq newer = Queue();
    hooks::multi_add_handle = [&](CURLM *, CURL *easy) {
        return easy == newer->ptReq ? CURLM_BAD_EASY_HANDLE : CURLM_OK;
    };
    EXPECT_EQ(Add(), 1U);
    ExpectLines({AddBegins(newer), AddFailed(newer, CURLM_BAD_EASY_HANDLE), AddBegins(older), AddDone(older),
                 Running(PERFORM_EX, 0)});
}

TEST_F(WorkerAdd, PassesOverNodesThatCannotBeAdded)
{
    HNvrHttpCurlCltReq older = Queue();
    HNvrHttpCurlCltReq noHandle = Queue();
    CURL *const easy = noHandle->ptReq;
    noHandle->ptReq = nullptr;
    TNVRHCCListNode *empty = nullptr;
    ASSERT_EQ(NVRHCCListInsertBefore(&task->tRunList, nullptr, this, &empty), 0U);
    empty->pvData = nullptr;
    EXPECT_EQ(Add(), 1U);
    ExpectLines({AddBegins(older), AddDone(older), Running(PERFORM_EX, 0)});
    EXPECT_EQ(InMulti(noHandle), 0U);
    noHandle->ptReq = easy;
    ASSERT_EQ(NVRHCCListRemove(&task->tRunList, empty, nullptr), 0U);
}

TEST_F(WorkerAdd, CompletesWhatEndsAtOnce)
{
    HNvrHttpCurlCltReq req = Queue();
    messages = {Done(req->ptReq, CURLE_COULDNT_CONNECT)};
    EXPECT_EQ(Add(), 1U);
    ASSERT_EQ(completions.size(), 1U);
    EXPECT_EQ(completions[0].result, 11U);
    ExpectLines({AddBegins(req), AddDone(req), Running(PERFORM_EX, 0),
                 Error(PERFORM_EX, "[Error] easy_handle %p, {ErrorCode:%d}, {ErrorStr:%s}, eCltErrCode %d, eProg %d\n",
                       Ptr(req->ptReq), 7, curl_easy_strerror(CURLE_COULDNT_CONNECT), 11, 0)});
}

/* --- completing ended requests: one behaviour under two names --------------------------------------------- */

struct Entry {
    const char *name;
    void (*call)(CURLM *, TNvrHttpCurlCltTask *);
};

void PrintTo(const Entry &entry, std::ostream *out)
{
    *out << entry.name;
}

class WorkerComplete : public Worker, public testing::WithParamInterface<Entry>
{
  protected:
    void SetUp() override
    {
        Worker::SetUp();
        PlayLibcurl();
    }

    void Run(const std::deque<CURLMsg> &ended)
    {
        messages = ended;
        GetParam().call(multi, task);
        EXPECT_TRUE(messages.empty());
        EXPECT_FALSE(AnyLockTaken());
    }

    static Line FailedLine(CURL *easy, CURLcode code, int result)
    {
        if (GetParam().name == std::string(PERFORM_EX)) {
            return Error(PERFORM_EX,
                         "[Error] easy_handle %p, {ErrorCode:%d}, {ErrorStr:%s}, eCltErrCode %d, eProg %d\n", Ptr(easy),
                         static_cast<int>(code), curl_easy_strerror(code), result, 0);
        }
        return Error(PERFORM, "[Error] easy_handle %p, eCurlRet %d, eCltErrCode %d, eProg %d\n", Ptr(easy),
                     static_cast<int>(code), result, 0);
    }

    Lines Quiet() const
    {
        return {Running(GetParam().name, 0)};
    }

    static void ExpectCompletion(size_t index, HNvrHttpCurlCltReq req, uint32_t prog, uint32_t result, void *buf)
    {
        ASSERT_LT(index, completions.size());
        EXPECT_EQ(completions[index].req, req);
        EXPECT_EQ(completions[index].progress, prog);
        EXPECT_EQ(completions[index].result, result);
        EXPECT_EQ(completions[index].buf, buf);
    }

    char buffer[64] = "################";
};

INSTANTIATE_TEST_SUITE_P(BothEntries, WorkerComplete,
                         testing::Values(Entry{PERFORM, _NvrHttpCurlClt_CurlPerformAndReadInfo},
                                         Entry{PERFORM_EX, _NvrHttpCurlClt_CurlPerformAndReadInfoEx}),
                         [](const auto &test) {
                             return std::string(test.param.name == std::string(PERFORM_EX) ? "ex" : "plain");
                         });

TEST_P(WorkerComplete, PerformsOnce)
{
    hooks::multi_perform = [this](CURLM *of, int *running) {
        EXPECT_EQ(of, multi);
        EXPECT_EQ(*running, 0);
        EXPECT_FALSE(AnyLockTaken());
        *running = 5;
        return CURLM_OK;
    };
    Run({});
    ExpectLines({Running(GetParam().name, 5)});
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 1U);
}

TEST_P(WorkerComplete, GoesOnAfterAFailedPerform)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "");
    hooks::multi_perform = [](CURLM *, int *running) {
        *running = 2;
        return CURLM_INTERNAL_ERROR;
    };
    Run({Done(req->ptReq)});
    ExpectLines(
        {Error(GetParam().name, "[Error] curl_multi_perform fail{ErrorCode:%d}, {ErrorStr:%s}, still_running %d\n",
               static_cast<int>(CURLM_INTERNAL_ERROR), curl_multi_strerror(CURLM_INTERNAL_ERROR), 2),
         Running(GetParam().name, 2)});
    ExpectCompletion(0, req, 1, 0, nullptr);
}

TEST_P(WorkerComplete, SaysWhichMessageIsNoEnd)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "");
    Run({Message(CURLMSG_NONE, req->ptReq, CURLE_OK), Message(CURLMSG_LAST, req->ptReq, CURLE_OK)});
    ExpectLines({Running(GetParam().name, 0), Info(GetParam().name, " msg %d {0-none, 1-done, 2-last}\n", 0),
                 Info(GetParam().name, " msg %d {0-none, 1-done, 2-last}\n", 2)});
    EXPECT_EQ(hooks::Calls("curl_multi_remove_handle"), 0U);
    EXPECT_TRUE(completions.empty());
    EXPECT_EQ(task->tRunList.dwNumOfElem, 1U);
}

TEST_P(WorkerComplete, PassesOverAMessageWithoutAHandle)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "");
    Run({Done(nullptr), Done(req->ptReq)});
    ExpectLines(
        {Running(GetParam().name, 0), Error(GetParam().name, "[Error] ptEasyHandle is Invalid{%p}\n", Ptr(nullptr))});
    EXPECT_EQ(hooks::Calls("curl_multi_remove_handle"), 1U);
    EXPECT_EQ(completions.size(), 1U);
}

/* What a completion looks like from the places where it leaves the worker's code. */
std::function<void()> atRunListFree;
std::function<void()> atFinListMalloc;

void RunListFree(void *block)
{
    atRunListFree();
    fake::MemCB().pfFree(block);
}

void *FinListMalloc(size_t size)
{
    atFinListMalloc();
    return fake::MemCB().pfMalloc(size);
}

TEST_P(WorkerComplete, KeepsItsOrderAndItsLocks)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    HNvrHttpCurlCltReq before = QueueAnswered(nullptr, "");
    TNvrHttpCurlCltAsyncNode *const last = Finish(*task, before);
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tRunList)[0];
    std::vector<std::string> events;
    hooks::multi_remove_handle = [&](CURLM *from, CURL *easy) {
        events.push_back("remove handle");
        EXPECT_EQ(from, multi);
        EXPECT_EQ(easy, req->ptReq);
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_NE(FindListNode(task->tRunList, req), nullptr);
        EXPECT_EQ(buffer[0], '#');
        return CURLM_OK;
    };
    atRunListFree = [&] {
        events.push_back("leave run list");
        EXPECT_TRUE(fake::SemIsTaken(task->hRunLock));
        EXPECT_FALSE(fake::SemIsTaken(task->hFinLock));
        EXPECT_EQ(buffer[0], '#');
    };
    atFinListMalloc = [&] {
        events.push_back("enter finish list");
        EXPECT_TRUE(fake::SemIsTaken(task->hFinLock));
        EXPECT_FALSE(fake::SemIsTaken(task->hRunLock));
        EXPECT_EQ(std::string(buffer, 7), std::string("answer#"));
        EXPECT_EQ(task->tRunList.dwNumOfElem, 0U);
    };
    onCompletion = [&](const Completion &) {
        events.push_back("callback");
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_EQ(Nodes(task->tFinList), (std::vector<TNvrHttpCurlCltAsyncNode *>{last, node}));
    };
    task->tRunList.pfFree = RunListFree;
    task->tFinList.pfMalloc = FinListMalloc;
    Run({Done(req->ptReq)});
    task->tRunList.pfFree = fake::MemCB().pfFree;
    task->tFinList.pfMalloc = fake::MemCB().pfMalloc;

    EXPECT_EQ(events, (std::vector<std::string>{"remove handle", "leave run list", "enter finish list", "callback"}));
    ExpectLines(Quiet());
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_EQ(inst->dwAsyncReqNum, 2U);
}

TEST_P(WorkerComplete, MapsTheFailureAndCopiesAllTheSame)
{
    const struct {
        CURLcode code;
        uint32_t result;
    } cases[] = {{CURLE_OPERATION_TIMEDOUT, 10},
                 {CURLE_COULDNT_CONNECT, 11},
                 {CURLE_SSL_CONNECT_ERROR, 12},
                 {CURLE_WRITE_ERROR, 1}};
    for (const auto &each : cases) {
        strcpy(buffer, "################");
        HNvrHttpCurlCltReq req = QueueAnswered(buffer, "part");
        completions.clear();
        Run({Done(req->ptReq, each.code)});
        ExpectLines({Running(GetParam().name, 0), FailedLine(req->ptReq, each.code, static_cast<int>(each.result))});
        ASSERT_EQ(completions.size(), 1U);
        ExpectCompletion(0, req, 0, each.result, buffer);
        EXPECT_STREQ(buffer, "part############");
        EXPECT_NE(FindListNode(task->tFinList, req), nullptr);
    }
}

TEST_P(WorkerComplete, ARefusedRemovalIsOnlyLogged)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    hooks::multi_remove_handle = [](CURLM *, CURL *) { return CURLM_BAD_EASY_HANDLE; };
    Run({Done(req->ptReq, CURLE_WRITE_ERROR)});
    hooks::multi_remove_handle = nullptr;
    ExpectLines({Running(GetParam().name, 0), FailedLine(req->ptReq, CURLE_WRITE_ERROR, 1),
                 Error(GetParam().name, "[Error] curl_multi_remove_handle{%p} err{%d}.\n", Ptr(req->ptReq),
                       static_cast<int>(CURLM_BAD_EASY_HANDLE))});
    ExpectCompletion(0, req, 0, 1, buffer);
    EXPECT_NE(FindListNode(task->tFinList, req), nullptr);
}

TEST_P(WorkerComplete, ANullBufferReceivesNothing)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "answer");
    Run({Done(req->ptReq)});
    ExpectCompletion(0, req, 1, 0, nullptr);
    EXPECT_NE(FindListNode(task->tFinList, req), nullptr);
    ExpectLines(Quiet());
}

TEST_P(WorkerComplete, ARequestWithoutBodyCopiesNothing)
{
    HNvrHttpCurlCltReq req = Queue(buffer);
    ASSERT_EQ(req->ptRespData, nullptr);
    Run({Done(req->ptReq)});
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_STREQ(buffer, "################");
    EXPECT_NE(FindListNode(task->tFinList, req), nullptr);
    ExpectLines(Quiet());
}

TEST_P(WorkerComplete, ALostAnswerCopiesNothing)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    fake::FailRealloc(1);
    char byte = 'x';
    ASSERT_EQ(_HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData), 0U);
    ASSERT_EQ(req->ptRespData->pchData, nullptr);
    ASSERT_EQ(req->ptRespData->qwSize, 6U);
    Forget();
    Run({Done(req->ptReq, CURLE_WRITE_ERROR)});
    ExpectCompletion(0, req, 0, 1, buffer);
    EXPECT_STREQ(buffer, "################");
    EXPECT_NE(FindListNode(task->tFinList, req), nullptr);
    fake::FreeLostBlocks();
}

TEST_P(WorkerComplete, AnEmptyAnswerCopiesNoTerminator)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "");
    Run({Done(req->ptReq)});
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_STREQ(buffer, "################");
}

TEST_P(WorkerComplete, TheCopyHasNoBound)
{
    const std::string answer(300000, 'a');
    std::vector<char> large(answer.size() + 1, '#');
    HNvrHttpCurlCltReq req = QueueAnswered(large.data(), answer);
    Run({Done(req->ptReq)});
    EXPECT_EQ(std::string(large.data(), large.size()), answer + "#");
}

uint32_t MustNotBeCalled(HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet, void *)
{
    ADD_FAILURE() << "the callback was read too late";
    return 0;
}

TEST_P(WorkerComplete, ReadsTheCallbackBeforeOthersCanReachTheNode)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tRunList)[0];
    atFinListMalloc = [&] {
        node->pfNtf = MustNotBeCalled;
        node->pvUserBuf = this;
    };
    task->tFinList.pfMalloc = FinListMalloc;
    Run({Done(req->ptReq)});
    task->tFinList.pfMalloc = fake::MemCB().pfMalloc;
    ASSERT_EQ(completions.size(), 1U);
    ExpectCompletion(0, req, 1, 0, buffer);
}

TEST_P(WorkerComplete, NotifiesThoughTheFinishListHasNoMemory)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tRunList)[0];
    fake::FailMalloc(1);
    Run({Done(req->ptReq)});
    ExpectLines(Quiet());
    ASSERT_EQ(completions.size(), 1U);
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 0U);
    EXPECT_EQ(task->tRunList.dwNumOfElem, 0U);
    req->pfFree(node); /* in no list, so the request's destruction does not find it */
}

TEST_P(WorkerComplete, CompletesAllMessagesInTheirOrder)
{
    char second[16] = "";
    HNvrHttpCurlCltReq one = QueueAnswered(buffer, "one");
    HNvrHttpCurlCltReq two = QueueAnswered(second, "two");
    HNvrHttpCurlCltReq running = QueueAnswered(nullptr, "");
    Run({Done(one->ptReq), Message(CURLMSG_LAST, nullptr, CURLE_OK), Done(two->ptReq, CURLE_OPERATION_TIMEDOUT)});
    ASSERT_EQ(completions.size(), 2U);
    ExpectCompletion(0, one, 1, 0, buffer);
    ExpectCompletion(1, two, 0, 10, second);
    EXPECT_EQ(std::string(buffer, 3), "one");
    EXPECT_EQ(std::string(second, 3), "two");
    ASSERT_EQ(task->tFinList.dwNumOfElem, 2U);
    EXPECT_EQ(Nodes(task->tFinList)[0]->ptReqIn, one);
    EXPECT_EQ(Nodes(task->tFinList)[1]->ptReqIn, two);
    ASSERT_EQ(task->tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(Nodes(task->tRunList)[0]->ptReqIn, running);
}

TEST_P(WorkerComplete, PassesOverNodesWithoutARequestOrAHandle)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    HNvrHttpCurlCltReq noHandle = QueueAnswered(nullptr, "");
    CURL *const easy = noHandle->ptReq;
    noHandle->ptReq = nullptr;
    TNvrHttpCurlCltAsyncNode empty = {};
    TNVRHCCListNode *place = nullptr;
    ASSERT_EQ(NVRHCCListInsertBefore(&task->tRunList, nullptr, &empty, &place), 0U);
    Run({Done(req->ptReq)});
    ASSERT_EQ(completions.size(), 1U);
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_EQ(task->tRunList.dwNumOfElem, 2U);
    ASSERT_EQ(NVRHCCListRemove(&task->tRunList, place, nullptr), 0U);
    noHandle->ptReq = easy;
}

/* --- messages that match no queued request -------------------------------------------------------------------- */

/* An easy handle that no request of the task has. */
class Stranger
{
  public:
    ~Stranger()
    {
        curl_easy_cleanup(easy);
    }

    CURL *const easy = curl_easy_init();
};

TEST_P(WorkerComplete, AStrangersEndIsDroppedWithoutAWord)
{
    const Stranger stranger;
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    Run({Done(stranger.easy)});
    ExpectLines(Quiet());
    EXPECT_EQ(hooks::Calls("curl_multi_remove_handle"), 1U);
    EXPECT_TRUE(completions.empty());
    EXPECT_NE(FindListNode(task->tRunList, req), nullptr);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 0U);
    EXPECT_STREQ(buffer, "################");
}

TEST_P(WorkerComplete, AStrangerBeforeTheFirstMatchIsDropped)
{
    const Stranger stranger;
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    Run({Done(stranger.easy), Done(req->ptReq)});
    ASSERT_EQ(completions.size(), 1U);
    ExpectCompletion(0, req, 1, 0, buffer);
}

TEST_P(WorkerComplete, AStrangerAfterAMatchCompletesTheNodeLastLookedAt)
{
    const Stranger stranger;
    char oldest[16] = "########";
    HNvrHttpCurlCltReq last = QueueAnswered(oldest, "oldest");
    HNvrHttpCurlCltReq between = QueueAnswered(nullptr, "");
    HNvrHttpCurlCltReq matched = QueueAnswered(buffer, "answer");
    Run({Done(matched->ptReq), Message(CURLMSG_LAST, nullptr, CURLE_OK),
         Done(stranger.easy, CURLE_OPERATION_TIMEDOUT)});
    ASSERT_EQ(completions.size(), 2U);
    ExpectCompletion(0, matched, 1, 0, buffer);
    ExpectCompletion(1, last, 0, 10, oldest);
    EXPECT_STREQ(oldest, "oldest##");
    ExpectLine(FailedLine(stranger.easy, CURLE_OPERATION_TIMEDOUT, 10));

    /* Its list node stays where it was, so it is in both lists now. */
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tFinList).back();
    EXPECT_EQ(node->ptReqIn, last);
    EXPECT_EQ(Nodes(task->tRunList).back(), node);
    EXPECT_EQ(Nodes(task->tRunList).front()->ptReqIn, between);
    EXPECT_EQ(task->tRunList.dwNumOfElem, 2U);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 2U);
    ASSERT_EQ(NVRHCCListRemove(&task->tFinList, task->tFinList.ptTail, nullptr), 0U);
}

TEST_P(WorkerComplete, AStrangerAfterTheOnlyMatchCompletesThatNodeAgain)
{
    const Stranger stranger;
    HNvrHttpCurlCltReq matched = QueueAnswered(buffer, "answer");
    Run({Done(matched->ptReq), Done(stranger.easy, CURLE_COULDNT_CONNECT)});
    ASSERT_EQ(completions.size(), 2U);
    ExpectCompletion(0, matched, 1, 0, buffer);
    ExpectCompletion(1, matched, 0, 11, buffer);
    const std::vector<TNvrHttpCurlCltAsyncNode *> finished = Nodes(task->tFinList);
    ASSERT_EQ(finished.size(), 2U);
    EXPECT_EQ(finished[1], finished[0]);
    EXPECT_EQ(finished[0]->ptReqIn, matched);
    ASSERT_EQ(NVRHCCListRemove(&task->tFinList, task->tFinList.ptTail, nullptr), 0U);
}

TEST_P(WorkerComplete, AMatchDoesNotOutliveItsCall)
{
    const Stranger stranger;
    HNvrHttpCurlCltReq matched = QueueAnswered(buffer, "answer");
    QueueAnswered(nullptr, "");
    Run({Done(matched->ptReq)});
    Run({Done(stranger.easy)});
    EXPECT_EQ(completions.size(), 1U);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 1U);
    EXPECT_EQ(task->tRunList.dwNumOfElem, 1U);
}

/* --- inside the callback -------------------------------------------------------------------------------------- */

TEST_P(WorkerComplete, TheCallbackMaySubmitTheRequestAgain)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tRunList)[0];
    uint32_t result = 99;
    onCompletion = [&](const Completion &) { result = Submit(req, this); };
    Run({Done(req->ptReq)});
    EXPECT_EQ(result, 0U);
    ASSERT_EQ(completions.size(), 1U);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 0U);
    ASSERT_EQ(Nodes(task->tRunList), std::vector<TNvrHttpCurlCltAsyncNode *>{node});
    EXPECT_EQ(node->bInMulti, 0U);
    EXPECT_EQ(node->pvUserBuf, this);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
}

TEST_P(WorkerComplete, TheCallbackMayDestroyTheRequest)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    onCompletion = [](const Completion &completion) { NvrHttpCurlCltReqDestroy(completion.req); };
    Run({Done(req->ptReq)});
    Disown(req);
    EXPECT_EQ(completions.size(), 1U);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_P(WorkerComplete, TheCallbackMayReadTheAnswerAndSubmitAnother)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "answer");
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *value) {
        *static_cast<long *>(value) = 200;
        return CURLE_OK;
    };
    char answer[16] = "";
    onCompletion = [&](const Completion &completion) {
        uint32_t size = 15;
        EXPECT_EQ(NvrHttpCurlCltGetRespBody(completion.req, answer, &size), 0U);
        Queue();
    };
    Run({Done(req->ptReq)});
    EXPECT_STREQ(answer, "answer");
    EXPECT_EQ(task->tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 1U);
}

/* --- the loop ---------------------------------------------------------------------------------------------------- */

const int KEEP_COUNT = -12345;

/* One return of the wait. */
struct Step {
    CURLMcode code;
    int count; /* KEEP_COUNT: not written, as a failed wait does */
    bool wakeUp;
};

/* How things stood when a wait began. */
struct Seen {
    CURLM *multi;
    unsigned fds;
    int timeout;
    int fd;
    short events;
    short returned;
    int count;
    size_t performs;
    size_t delays;
    size_t reads;
    bool locked;
    CURLM *multiOfTask;
};

class WorkerLoop : public Worker
{
  protected:
    void SetUp() override
    {
        Worker::SetUp();
        hooks::multi_perform = [](CURLM *, int *) { return CURLM_OK; };
        hooks::multi_info_read = NextMessage;
        hooks::sys_recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) -> ssize_t { return 2; };
    }

    void TellToExit()
    {
        __atomic_store_n(&task->bExit, 1U, __ATOMIC_RELAXED);
    }

    void Note(CURLM *waited, const curl_waitfd *fds, unsigned number, int timeout, const int *count)
    {
        seen.push_back({waited, number, timeout, fds->fd, fds->events, fds->revents, *count,
                        hooks::Calls("curl_multi_perform"), fake::Delays().size(), hooks::Calls("recvfrom"),
                        AnyLockTaken(), __atomic_load_n(&task->ptCurlMultiHandle, __ATOMIC_RELAXED)});
    }

    /* Runs the routine for these waits and one more, which asks it to leave. */
    void Run(const std::vector<Step> &steps)
    {
        hooks::multi_wait = [this, steps](CURLM *waited, curl_waitfd *fds, unsigned number, int timeout, int *count) {
            Note(waited, fds, number, timeout, count);
            const size_t index = seen.size() - 1;
            if (onWait) {
                onWait(index);
            }
            if (index >= steps.size()) {
                TellToExit();
                if (index > steps.size() + 10) {
                    fprintf(stderr, "the worker does not leave\n");
                    abort();
                }
                *count = 0;
                return CURLM_OK;
            }
            if (steps[index].count != KEEP_COUNT) {
                *count = steps[index].count;
            }
            if (steps[index].wakeUp) {
                fds->revents = static_cast<short>(fds->revents | CURL_WAIT_POLLIN);
            }
            return steps[index].code;
        };
        _NvrHttpCurlCltWorkerRoutine(task);
        EXPECT_EQ(seen.size(), steps.size() + 1) << "bExit is looked at once in a pass";
        EXPECT_EQ(fake::HeldByThisThread(), 0U);
    }

    /* What happened between two waits. */
    size_t Performs(size_t pass) const
    {
        return seen[pass + 1].performs - seen[pass].performs;
    }

    size_t Reads(size_t pass) const
    {
        return seen[pass + 1].reads - seen[pass].reads;
    }

    std::vector<uint32_t> DelaysOf(size_t pass) const
    {
        const std::vector<uint32_t> all = fake::Delays();
        return {all.begin() + static_cast<long>(seen[pass].delays),
                all.begin() + static_cast<long>(seen[pass + 1].delays)};
    }

    Lines StartLines() const
    {
        return {Info(ROUTINE, " thread name {%s}\n", task->szThreadName),
                Info(ROUTINE, " CurlMultiHand{%p}, nCurlCltUdpMonitorSock{%d}, nUdpMonitorSocket{%d}\n", Ptr(multi),
                     task->tUdpMonitorSock.nSock, task->tUdpMonitorSock.nSock)};
    }

    /* The start's lines, and these of the loop. */
    void ExpectLoopLines(const Lines &expected, const char *file = __builtin_FILE(),
                         int number = __builtin_LINE()) const
    {
        ExpectLines(StartLines() + expected, file, number);
    }

    static Line Active(int count)
    {
        return Info(ROUTINE, " curl_multi_wait end, numfds{%d}\n", count);
    }

    static Line Read(int count)
    {
        return Info(ROUTINE, " [udp socket]recvfrom{%d} complete, break.\n", count);
    }

    static Line ReadFailed()
    {
        return Info(ROUTINE, " [udp socket]recvfrom err, break.\n");
    }

    static Line WakeUpOnly()
    {
        return Info(ROUTINE, " udp socket done, continue wait.\n");
    }

    static Line WaitFailed(CURLMcode code)
    {
        return Error(ROUTINE, "[Error] curl_multi_wait() failed, code %d.\n", static_cast<int>(code));
    }

    static Lines Replaced(CURLM *bad, CURLM *fresh)
    {
        return {Error(ROUTINE, "[Error] curl_multi_wait() return err{%d}, ptCurlMultiHandle{%p} is bad.\n",
                      static_cast<int>(CURLM_BAD_HANDLE), Ptr(bad)),
                Info(ROUTINE, " then curl_multi_init() again, ptCurCurlMultiHand{%p}\n", Ptr(fresh))};
    }

    std::vector<Seen> seen;
    std::function<void(size_t)> onWait;
    const std::vector<uint32_t> ONE_REST = {2};
    const std::vector<uint32_t> NO_REST = {};
};

TEST_F(WorkerLoop, NeedsATask)
{
    const size_t names = hooks::Calls("prctl");
    _NvrHttpCurlCltWorkerRoutine(nullptr);
    ExpectLines({Error(ROUTINE, "[Error] invalid arg, ptTask %p\n", Ptr(nullptr))});
    EXPECT_EQ(hooks::Calls("prctl"), names);
}

TEST_F(WorkerLoop, NeedsAMultiHandle)
{
    task->ptCurlMultiHandle = nullptr;
    _NvrHttpCurlCltWorkerRoutine(task);
    ExpectLines({Info(ROUTINE, " thread name {%s}\n", task->szThreadName),
                 Error(ROUTINE, "[Error] invalid arg, ptCurlMultiHandle %p\n", Ptr(nullptr))});
    EXPECT_EQ(hooks::Calls("curl_multi_wait"), 0U);
    EXPECT_EQ(task->ptCurlMultiHandle, nullptr);
    task->ptCurlMultiHandle = multi;
}

TEST_F(WorkerLoop, NamesItsThread)
{
    std::vector<std::string> names;
    hooks::sys_set_name = [&](const char *name) {
        names.push_back(name);
        return 0;
    };
    Run({});
    EXPECT_EQ(names, std::vector<std::string>{task->szThreadName});
    ExpectLines(StartLines());
}

TEST_F(WorkerLoop, GoesOnWithoutAName)
{
    hooks::sys_set_name = [](const char *) { return -1; };
    Run({});
    Lines expected = StartLines();
    expected.insert(expected.begin() + 1,
                    Error(ROUTINE, "[Error] HCThreadSetName() failed, name{%s}\n", task->szThreadName));
    ExpectLines(expected);
    EXPECT_EQ(seen.size(), 1U);
}

TEST_F(WorkerLoop, DoesNotWaitOnceItIsToLeave)
{
    TellToExit();
    _NvrHttpCurlCltWorkerRoutine(task);
    EXPECT_LE(hooks::Calls("curl_multi_wait"), 1U);
    EXPECT_EQ(task->ptCurlMultiHandle, multi);
}

TEST_F(WorkerLoop, WaitsWithTheWakeUpSocketAndWithoutLocks)
{
    Run({{CURLM_OK, 0, false}});
    for (const Seen &wait : seen) {
        EXPECT_EQ(wait.multi, multi);
        EXPECT_EQ(wait.fds, 1U);
        EXPECT_EQ(wait.timeout, 50);
        EXPECT_EQ(wait.fd, task->tUdpMonitorSock.nSock);
        EXPECT_EQ(wait.events, CURL_WAIT_POLLIN);
        EXPECT_EQ(wait.returned, 0);
        EXPECT_FALSE(wait.locked);
    }
    EXPECT_EQ(seen[0].count, 0);
}

TEST_F(WorkerLoop, AWaitThatTimedOutDrivesNothing)
{
    Run({{CURLM_OK, 0, false}, {CURLM_OK, -1, false}, {CURLM_OK, 0, false}});
    for (const size_t pass : {0U, 1U, 2U}) {
        EXPECT_EQ(Performs(pass), 0U);
        EXPECT_EQ(Reads(pass), 0U);
        EXPECT_EQ(DelaysOf(pass), ONE_REST);
    }
    ExpectLoopLines({});
}

TEST_F(WorkerLoop, ActivityIsPerformedThenRests)
{
    hooks::multi_perform = [this](CURLM *of, int *running) {
        EXPECT_EQ(of, multi);
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_EQ(fake::Delays().size(), seen.back().delays);
        *running = 1;
        return CURLM_OK;
    };
    Run({{CURLM_OK, 1, false}});
    EXPECT_EQ(Performs(0), 1U);
    EXPECT_EQ(Reads(0), 0U);
    EXPECT_EQ(DelaysOf(0), ONE_REST);
    ExpectLoopLines({Active(1), Running(PERFORM, 1)});
}

TEST_F(WorkerLoop, AWakeUpAloneIsReadAndNothingElse)
{
    Run({{CURLM_OK, 1, true}});
    EXPECT_EQ(Performs(0), 0U);
    EXPECT_EQ(Reads(0), 1U);
    EXPECT_EQ(DelaysOf(0), NO_REST);
    ExpectLoopLines({Active(1), Read(2), WakeUpOnly()});
    EXPECT_EQ(seen[1].count, 0);
}

TEST_F(WorkerLoop, AWakeUpBesideActivityIsReadThenPerformed)
{
    hooks::multi_perform = [](CURLM *, int *) {
        EXPECT_EQ(hooks::Calls("recvfrom"), 1U);
        return CURLM_OK;
    };
    Run({{CURLM_OK, 3, true}});
    EXPECT_EQ(Performs(0), 1U);
    EXPECT_EQ(Reads(0), 1U);
    EXPECT_EQ(DelaysOf(0), ONE_REST);
    ExpectLoopLines({Active(3), Read(2), Running(PERFORM, 0)});
    EXPECT_EQ(seen[1].count, 2);
}

TEST_F(WorkerLoop, ReadsIntoAClearedBufferOf256Bytes)
{
    size_t calls = 0;
    hooks::sys_recvfrom = [&](int sock, void *into, size_t size, int flags, sockaddr *from,
                              socklen_t *length) -> ssize_t {
        ++calls;
        EXPECT_EQ(sock, task->tUdpMonitorSock.nSock);
        EXPECT_EQ(size, 256U);
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(std::string(static_cast<char *>(into), 256), std::string(256, '\0'));
        memset(into, 'x', 256);
        const auto *address = reinterpret_cast<const sockaddr_in *>(from);
        EXPECT_EQ(address->sin_family, AF_INET);
        EXPECT_EQ(address->sin_port, 0);
        EXPECT_EQ(address->sin_addr.s_addr, 0U);
        EXPECT_EQ(*length, 16U);
        memset(from, 0x55, sizeof(sockaddr_in));
        *length = 3;
        EXPECT_FALSE(AnyLockTaken());
        return 256;
    };
    Run({{CURLM_OK, 1, true}, {CURLM_OK, 1, true}});
    EXPECT_EQ(calls, 2U);
    ExpectLoopLines({Active(1), Read(256), WakeUpOnly(), Active(1), Read(256), WakeUpOnly()});
}

TEST_F(WorkerLoop, AFailedReadCountsAsRead)
{
    hooks::sys_recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) -> ssize_t { return -1; };
    Run({{CURLM_OK, 1, true}, {CURLM_OK, 2, true}});
    ExpectLoopLines({Active(1), ReadFailed(), WakeUpOnly(), Active(2), ReadFailed(), Running(PERFORM, 0)});
}

TEST_F(WorkerLoop, AnEmptyDatagramIsRead)
{
    hooks::sys_recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) -> ssize_t { return 0; };
    Run({{CURLM_OK, 1, true}});
    ExpectLoopLines({Active(1), Read(0), WakeUpOnly()});
}

TEST_F(WorkerLoop, OtherEventsOfTheSocketAreNoWakeUp)
{
    size_t waits = 0;
    hooks::multi_wait = [&](CURLM *, curl_waitfd *fds, unsigned, int, int *count) {
        fds->revents = CURL_WAIT_POLLOUT;
        *count = ++waits == 1 ? 1 : 0;
        if (waits == 2) {
            TellToExit();
        }
        return CURLM_OK;
    };
    _NvrHttpCurlCltWorkerRoutine(task);
    EXPECT_EQ(hooks::Calls("recvfrom"), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 1U);
}

TEST_F(WorkerLoop, TwoDatagramsAreReadInTwoPasses)
{
    hooks::sys_recvfrom = nullptr;
    const TNvrHttpCurlCltUdpMonitorSock &sock = task->tUdpMonitorSock;
    _NvrHttpCurlClt_SocketNotify(sock.nSock, sock.wPort);
    _NvrHttpCurlClt_SocketNotify(sock.nSock, sock.wPort);
    Forget();
    hooks::multi_wait = [&](CURLM *waited, curl_waitfd *fds, unsigned number, int timeout, int *count) {
        Note(waited, fds, number, timeout, count);
        if (seen.size() == 4) {
            TellToExit();
        }
        return hooks::real::multi_wait(waited, fds, number, timeout, count);
    };
    _NvrHttpCurlCltWorkerRoutine(task);
    ASSERT_EQ(seen.size(), 4U);
    EXPECT_EQ(Reads(0), 1U);
    EXPECT_EQ(Reads(1), 1U);
    EXPECT_EQ(Reads(2), 0U);
    EXPECT_EQ(DelaysOf(0), NO_REST);
    EXPECT_EQ(DelaysOf(1), NO_REST);
    EXPECT_EQ(DelaysOf(2), ONE_REST);
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 0U);
    ExpectLoopLines({Active(1), Read(2), WakeUpOnly(), Active(1), Read(2), WakeUpOnly()});
}

TEST_F(WorkerLoop, AFailedWaitIsLoggedAndTheLoopGoesOn)
{
    Run({{CURLM_INTERNAL_ERROR, KEEP_COUNT, false}, {CURLM_OK, 1, false}});
    EXPECT_EQ(Performs(0), 0U);
    EXPECT_EQ(DelaysOf(0), ONE_REST);
    EXPECT_EQ(Performs(1), 1U);
    ExpectLoopLines({WaitFailed(CURLM_INTERNAL_ERROR), Active(1), Running(PERFORM, 0)});
}

TEST_F(WorkerLoop, AFailedWaitKeepsTheCountButNoWakeUp)
{
    Run({{CURLM_OK, 2, true},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT, false},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT, false},
         {CURLM_OK, 0, false},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT, false}});
    EXPECT_EQ(Reads(0), 1U);
    for (const size_t pass : {1U, 2U}) {
        EXPECT_EQ(seen[pass].count, 1);
        EXPECT_EQ(seen[pass].returned, 0);
        EXPECT_EQ(Reads(pass), 0U);
        EXPECT_EQ(Performs(pass), 1U);
        EXPECT_EQ(DelaysOf(pass), ONE_REST);
    }
    EXPECT_EQ(Performs(4), 0U);
    ExpectLoopLines({Active(2), Read(2), Running(PERFORM, 0), WaitFailed(CURLM_OUT_OF_MEMORY), Active(1),
                     Running(PERFORM, 0), WaitFailed(CURLM_OUT_OF_MEMORY), Active(1), Running(PERFORM, 0),
                     WaitFailed(CURLM_OUT_OF_MEMORY)});
}

/* --- a bad multi handle ------------------------------------------------------------------------------------------- */

class WorkerBadHandle : public WorkerLoop
{
  protected:
    void SetUp() override
    {
        WorkerLoop::SetUp();
        hooks::multi_cleanup = [this](CURLM *handle) {
            cleaned.push_back(handle);
            return hooks::real::multi_cleanup(handle);
        };
        hooks::multi_init = [this] {
            CURLM *handle = noHandles > 0 ? nullptr : hooks::real::multi_init();
            noHandles -= noHandles > 0 ? 1 : 0;
            made.push_back(handle);
            return handle;
        };
    }

    std::vector<CURLM *> cleaned;
    std::vector<CURLM *> made;
    int noHandles = 0;
};

TEST_F(WorkerBadHandle, IsReplacedAndHandedBackOnLeaving)
{
    Run({{CURLM_BAD_HANDLE, KEEP_COUNT, false}, {CURLM_OK, 0, false}});
    ASSERT_EQ(made.size(), 1U);
    CURLM *const fresh = made[0];
    EXPECT_EQ(cleaned, std::vector<CURLM *>{multi});
    EXPECT_EQ(seen[0].multi, multi);
    EXPECT_EQ(seen[1].multi, fresh);
    EXPECT_EQ(seen[2].multi, fresh);
    EXPECT_EQ(seen[1].multiOfTask, multi);
    EXPECT_EQ(seen[2].multiOfTask, multi);
    EXPECT_EQ(Performs(0), 0U);
    EXPECT_EQ(DelaysOf(0), ONE_REST);
    ExpectLoopLines(Replaced(multi, fresh));

    EXPECT_EQ(task->ptCurlMultiHandle, fresh);
    Stop();
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, fresh}));
    EXPECT_EQ(made.size(), 1U);
}

TEST_F(WorkerBadHandle, ThePassGoesOnWithTheNewHandle)
{
    std::vector<CURLM *> performed;
    hooks::multi_perform = [&](CURLM *of, int *) {
        performed.push_back(of);
        return CURLM_OK;
    };
    Run({{CURLM_OK, 1, false}, {CURLM_BAD_HANDLE, KEEP_COUNT, false}});
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(performed, (std::vector<CURLM *>{multi, made[0]}));
    Lines expected = {Active(1), Running(PERFORM, 0)};
    for (const Line &line : Replaced(multi, made[0])) {
        expected.push_back(line);
    }
    expected.push_back(Active(1));
    expected.push_back(Running(PERFORM, 0));
    ExpectLoopLines(expected);
}

TEST_F(WorkerBadHandle, ANullReplacementIsReplacedAgain)
{
    noHandles = 2;
    Run({{CURLM_BAD_HANDLE, KEEP_COUNT, false},
         {CURLM_BAD_HANDLE, KEEP_COUNT, false},
         {CURLM_BAD_HANDLE, KEEP_COUNT, false},
         {CURLM_OK, 0, false}});
    ASSERT_EQ(made.size(), 3U);
    EXPECT_EQ(seen[1].multi, nullptr);
    EXPECT_EQ(seen[2].multi, nullptr);
    ASSERT_NE(made[2], nullptr);
    EXPECT_EQ(seen[3].multi, made[2]);
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, nullptr, nullptr}));
    Lines expected = Replaced(multi, nullptr);
    for (const Lines &lines : {Replaced(nullptr, nullptr), Replaced(nullptr, made[2])}) {
        expected.insert(expected.end(), lines.begin(), lines.end());
    }
    ExpectLoopLines(expected);
    Stop();
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, nullptr, nullptr, made[2]}));
}

TEST_F(WorkerBadHandle, LeavingWithoutAnyHandleReleasesNothingTwice)
{
    noHandles = 1;
    Run({{CURLM_BAD_HANDLE, KEEP_COUNT, false}});
    EXPECT_EQ(task->ptCurlMultiHandle, nullptr);
    Stop();
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, nullptr}));
}

TEST_F(WorkerBadHandle, EachOfTwoIsReleasedOnce)
{
    Run({{CURLM_BAD_HANDLE, KEEP_COUNT, false}, {CURLM_BAD_HANDLE, KEEP_COUNT, false}});
    ASSERT_EQ(made.size(), 2U);
    EXPECT_EQ(seen[2].multiOfTask, multi);
    Stop();
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, made[0], made[1]}));
}

TEST_F(WorkerBadHandle, WhatWasInTheOldHandleIsNotAddedAgain)
{
    std::vector<std::pair<CURLM *, CURL *>> added;
    hooks::multi_add_handle = [&](CURLM *to, CURL *easy) {
        added.emplace_back(to, easy);
        return CURLM_OK;
    };
    HNvrHttpCurlCltReq first = Queue();
    HNvrHttpCurlCltReq second = nullptr;
    onWait = [&](size_t index) {
        if (index == 1) {
            second = Queue();
        }
    };
    Run({{CURLM_BAD_HANDLE, KEEP_COUNT, false}, {CURLM_OK, 0, false}});
    ASSERT_EQ(made.size(), 1U);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(added, (std::vector<std::pair<CURLM *, CURL *>>{{multi, first->ptReq}, {made[0], second->ptReq}}));
    EXPECT_TRUE(completions.empty());
}

/* --- passes that add requests ------------------------------------------------------------------------------------- */

TEST_F(WorkerLoop, EachPassAddsWhatWasQueuedEvenWithoutAWakeUp)
{
    PlayLibcurl();
    Queue();
    onWait = [this](size_t index) {
        EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), index + 1);
        if (index < 2) {
            Queue();
        }
    };
    Run({{CURLM_OK, 0, false}, {CURLM_OK, 1, true}});
    EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), 3U);
    EXPECT_EQ(Performs(0), 1U);
    EXPECT_EQ(Performs(1), 1U);
    EXPECT_EQ(DelaysOf(0), ONE_REST);
    EXPECT_EQ(DelaysOf(1), NO_REST);
}

TEST_F(WorkerLoop, ARefusedHandleIsTriedAgainInTheNextPass)
{
    PlayLibcurl();
    HNvrHttpCurlCltReq req = Queue();
    size_t tries = 0;
    hooks::multi_add_handle = [&](CURLM *, CURL *) { return ++tries == 1 ? CURLM_OUT_OF_MEMORY : CURLM_OK; };
    Run({{CURLM_OK, 0, false}, {CURLM_OK, 0, false}});
    EXPECT_EQ(tries, 2U);
    ExpectLoopLines(
        {AddBegins(req), AddFailed(req, CURLM_OUT_OF_MEMORY), AddBegins(req), AddDone(req), Running(PERFORM_EX, 0)});
}

TEST_F(WorkerLoop, ASecondSubmissionFromTheCallbackRunsInTheNextPass)
{
    PlayLibcurl();
    HNvrHttpCurlCltReq req = Queue();
    onCompletion = [&](const Completion &) {
        if (completions.size() == 1) {
            EXPECT_EQ(Submit(req), 0U);
        }
    };
    onWait = [&](size_t) { messages.push_back(Done(req->ptReq)); };
    Run({{CURLM_OK, 1, false}, {CURLM_OK, 1, false}});
    EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), 2U);
    EXPECT_EQ(completions.size(), 2U);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 1U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
    messages.clear();
}

/* --- real transfers --------------------------------------------------------------------------------------------------
 */

class WorkerTransfer : public Worker
{
  protected:
    /* Runs the worker over the real libcurl until the condition holds when a wait begins. */
    void RunUntil(const std::function<bool()> &condition)
    {
        __atomic_store_n(&task->bExit, 0U, __ATOMIC_RELAXED);
        const auto limit = std::chrono::steady_clock::now() + PATIENCE;
        hooks::multi_wait = [&](CURLM *waited, curl_waitfd *fds, unsigned number, int timeout, int *count) {
            ++waits;
            const bool late = std::chrono::steady_clock::now() > limit;
            EXPECT_FALSE(late) << fake::Transcript();
            if (late || condition()) {
                __atomic_store_n(&task->bExit, 1U, __ATOMIC_RELAXED);
            }
            return hooks::real::multi_wait(waited, fds, number, timeout, count);
        };
        _NvrHttpCurlCltWorkerRoutine(task);
        hooks::multi_wait = nullptr;
    }

    HNvrHttpCurlCltReq QueueTo(const std::string &url, void *buf, uint32_t timeoutMS)
    {
        HNvrHttpCurlCltReq req = CreatePrepared(url, "question");
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, timeoutMS, 20000, NVRHTTPCURLCLT_MODE_ASYNC, Notify, buf), 0U);
        requests.push_back(req);
        return req;
    }

    size_t waits = 0;
};

TEST_F(WorkerTransfer, ReportsSuccessWithTheBody)
{
    ScriptedServer server(Answering("the answer"));
    char buffer[32] = "##############";
    HNvrHttpCurlCltReq req = QueueTo(server.Url(), buffer, 20000);
    RunUntil([] { return !completions.empty(); });
    ASSERT_EQ(completions.size(), 1U);
    EXPECT_EQ(completions[0].req, req);
    EXPECT_EQ(completions[0].progress, 1U);
    EXPECT_EQ(completions[0].result, 0U);
    EXPECT_STREQ(buffer, "the answer####");
    EXPECT_NE(FindListNode(task->tFinList, req), nullptr);

    /* The same request again, over the same node. */
    EXPECT_EQ(Submit(req, nullptr), 0U);
    RunUntil([] { return completions.size() == 2; });
    EXPECT_EQ(completions[1].progress, 1U);
    EXPECT_EQ(server.RequestCount(), 2U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);
}

TEST_F(WorkerTransfer, ReportsARefusedConnection)
{
    const ClosedPort closed;
    HNvrHttpCurlCltReq req = QueueTo(closed.Url(), nullptr, 20000);
    RunUntil([] { return !completions.empty(); });
    ASSERT_EQ(completions.size(), 1U);
    EXPECT_EQ(completions[0].req, req);
    EXPECT_EQ(completions[0].progress, 0U);
    EXPECT_EQ(completions[0].result, 11U);
}

TEST_F(WorkerTransfer, ATimeoutIsNoticedWithTheNextSubmissionOnly)
{
    using Clock = std::chrono::steady_clock;
    ScriptedServer silent(SILENT);
    const uint32_t timeoutMS = 300;
    const Clock::time_point start = Clock::now();
    HNvrHttpCurlCltReq req = QueueTo(silent.Url(), nullptr, timeoutMS);

    /* Once the server has the request nothing happens on the task any more. */
    size_t waitsAtExpiry = 0;
    RunUntil([&] {
        if (silent.RequestCount() == 0 || Clock::now() - start < std::chrono::milliseconds(2 * timeoutMS)) {
            return false;
        }
        waitsAtExpiry = waitsAtExpiry == 0 ? waits : waitsAtExpiry;
        return waits >= waitsAtExpiry + 5;
    });
    EXPECT_TRUE(completions.empty());

    /* A datagram alone changes nothing either. */
    _NvrHttpCurlClt_SocketNotify(task->tUdpMonitorSock.nSock, task->tUdpMonitorSock.wPort);
    const size_t before = waits;
    RunUntil([&] { return waits >= before + 5; });
    EXPECT_TRUE(completions.empty());

    QueueTo(silent.Url(), nullptr, 60000);
    RunUntil([] { return !completions.empty(); });
    ASSERT_EQ(completions.size(), 1U);
    EXPECT_EQ(completions[0].req, req);
    EXPECT_EQ(completions[0].progress, 0U);
    EXPECT_EQ(completions[0].result, 10U);

    /* The second one is still in flight: the instance's end releases it. */
    Disown(requests.back());
}

} // namespace
