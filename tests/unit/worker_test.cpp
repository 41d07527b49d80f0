/*
 * The worker: adding queued requests, completing ended ones, the loop.
 *
 * The task has no thread here. The cases call the worker's functions themselves and play
 * libcurl's part through the hooks.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "tests/support/request_fixture.h"

using fixture::Completion;
using fixture::FindListNode;
using fixture::g_completions;
using fixture::g_onCompletion;
using fixture::kError;
using fixture::kInfo;
using fixture::L;
using fixture::Line;
using fixture::Lines;
using fixture::Nodes;
using fixture::Ntf;
using fixture::P;
using fixture::TakeLog;

namespace
{

const char kAdd[] = "_NvrHttpCurlClt_CheckAddMultiHandle";
const char kPerform[] = "_NvrHttpCurlClt_CurlPerformAndReadInfo";
const char kPerformEx[] = "_NvrHttpCurlClt_CurlPerformAndReadInfoEx";
const char kRoutine[] = "_NvrHttpCurlCltWorkerRoutine";

/* What libcurl hands out, message by message. */
std::deque<CURLMsg> g_messages;

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
    if (g_messages.empty()) {
        *left = 0;
        return nullptr;
    }
    current = g_messages.front();
    g_messages.pop_front();
    *left = static_cast<int>(g_messages.size());
    return &current;
}

class Worker : public fixture::EngineTest
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
        g_onCompletion = nullptr;
        for (HNvrHttpCurlCltReq req : requests) {
            NvrHttpCurlCltReqDestroy(req);
        }
        EngineTest::TearDown();
    }

    /* libcurl takes and gives back handles, transfers nothing and tells of g_messages. */
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
        EXPECT_EQ(answer.size(), _HttpCurlStackWriteCB(answer.data(), 1, answer.size(), req->ptRespData));
        EXPECT_EQ(0U, Submit(req, buf));
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
        return L(kInfo, kAdd, " curl_multi_add_handle beg, hReq %p\n", P(req->ptReq));
    }

    Line AddDone(HNvrHttpCurlCltReq req) const
    {
        return L(kInfo, kAdd, " curl_multi_add_handle{pMultHandle %p, hReq %p} ok.\n", P(multi), P(req->ptReq));
    }

    Line AddFailed(HNvrHttpCurlCltReq req, CURLMcode code) const
    {
        return L(kError, kAdd, "[Error] curl_multi_add_handle{pMultHandle %p, hReq %p} fail{%d}\n", P(multi),
                 P(req->ptReq), static_cast<int>(code));
    }

    static Line Running(const char *func, int count)
    {
        return L(kInfo, func, " >>still_running %d\n", count);
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
    EXPECT_EQ(0U, Add());
    EXPECT_EQ(Lines{}, TakeLog());
    EXPECT_EQ(0U, hooks::Calls("curl_multi_perform"));
    EXPECT_FALSE(AnyLockTaken());
}

TEST_F(WorkerAdd, AddsUnderTheRunLockAndPerformsWithout)
{
    HNvrHttpCurlCltReq req = Queue();
    std::vector<std::string> events;
    hooks::multi_add_handle = [&](CURLM *to, CURL *easy) {
        EXPECT_EQ(multi, to);
        EXPECT_EQ(req->ptReq, easy);
        EXPECT_TRUE(fake::SemIsTaken(task->hRunLock));
        EXPECT_EQ(1U, fake::HeldByThisThread());
        EXPECT_EQ(0U, InMulti(req));
        events.push_back("add");
        return CURLM_OK;
    };
    hooks::multi_perform = [&](CURLM *of, int *running) {
        EXPECT_EQ(multi, of);
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_EQ(0, *running);
        EXPECT_EQ(1U, InMulti(req));
        *running = 3;
        events.push_back("perform");
        return CURLM_OK;
    };
    EXPECT_EQ(1U, Add());
    EXPECT_EQ((std::vector<std::string>{"add", "perform"}), events);
    EXPECT_EQ((Lines{AddBegins(req), AddDone(req), Running(kPerformEx, 3)}), TakeLog());
    EXPECT_EQ(1U, task->tRunList.dwNumOfElem);
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
    EXPECT_EQ(3U, Add());
    EXPECT_EQ((std::vector<CURL *>{requests[2]->ptReq, requests[1]->ptReq, requests[0]->ptReq}), added);
    EXPECT_EQ(1U, hooks::Calls("curl_multi_perform"));
}

TEST_F(WorkerAdd, WhatIsInflightIsNotAddedAgain)
{
    Queue();
    EXPECT_EQ(1U, Add());
    Forget();
    EXPECT_EQ(0U, Add());
    EXPECT_EQ(Lines{}, TakeLog());
    EXPECT_EQ(1U, hooks::Calls("curl_multi_add_handle"));
    EXPECT_EQ(1U, hooks::Calls("curl_multi_perform"));
    HNvrHttpCurlCltReq later = Queue();
    EXPECT_EQ(1U, Add());
    EXPECT_EQ((Lines{AddBegins(later), AddDone(later), Running(kPerformEx, 0)}), TakeLog());
}

TEST_F(WorkerAdd, ARefusedHandleIsTriedAgain)
{
    HNvrHttpCurlCltReq req = Queue();
    hooks::multi_add_handle = [](CURLM *, CURL *) { return CURLM_OUT_OF_MEMORY; };
    EXPECT_EQ(0U, Add());
    EXPECT_EQ((Lines{AddBegins(req), AddFailed(req, CURLM_OUT_OF_MEMORY)}), TakeLog());
    EXPECT_EQ(0U, InMulti(req));
    EXPECT_EQ(0U, hooks::Calls("curl_multi_perform"));
    EXPECT_FALSE(AnyLockTaken());
    hooks::multi_add_handle = [](CURLM *, CURL *) { return CURLM_OK; };
    EXPECT_EQ(1U, Add());
    EXPECT_EQ((Lines{AddBegins(req), AddDone(req), Running(kPerformEx, 0)}), TakeLog());
    EXPECT_EQ(1U, InMulti(req));
}

TEST_F(WorkerAdd, OneRefusalDoesNotStopTheRest)
{
    HNvrHttpCurlCltReq older = Queue();
    HNvrHttpCurlCltReq newer = Queue();
    hooks::multi_add_handle = [&](CURLM *, CURL *easy) {
        return easy == newer->ptReq ? CURLM_BAD_EASY_HANDLE : CURLM_OK;
    };
    EXPECT_EQ(1U, Add());
    EXPECT_EQ((Lines{AddBegins(newer), AddFailed(newer, CURLM_BAD_EASY_HANDLE), AddBegins(older), AddDone(older),
                     Running(kPerformEx, 0)}),
              TakeLog());
}

TEST_F(WorkerAdd, PassesOverNodesThatCannotBeAdded)
{
    HNvrHttpCurlCltReq older = Queue();
    HNvrHttpCurlCltReq noHandle = Queue();
    CURL *const easy = noHandle->ptReq;
    noHandle->ptReq = nullptr;
    TNVRHCCListNode *empty = nullptr;
    ASSERT_EQ(0U, NVRHCCListInsertBefore(&task->tRunList, nullptr, this, &empty));
    empty->pvData = nullptr;
    EXPECT_EQ(1U, Add());
    EXPECT_EQ((Lines{AddBegins(older), AddDone(older), Running(kPerformEx, 0)}), TakeLog());
    EXPECT_EQ(0U, InMulti(noHandle));
    noHandle->ptReq = easy;
    ASSERT_EQ(0U, NVRHCCListRemove(&task->tRunList, empty, nullptr));
}

TEST_F(WorkerAdd, CompletesWhatEndsAtOnce)
{
    HNvrHttpCurlCltReq req = Queue();
    g_messages = {Done(req->ptReq, CURLE_COULDNT_CONNECT)};
    EXPECT_EQ(1U, Add());
    ASSERT_EQ(1U, g_completions.size());
    EXPECT_EQ(11U, g_completions[0].result);
    EXPECT_EQ((Lines{AddBegins(req), AddDone(req), Running(kPerformEx, 0),
                     L(kError, kPerformEx,
                       "[Error] easy_handle %p, {ErrorCode:%d}, {ErrorStr:%s}, eCltErrCode %d, eProg %d\n",
                       P(req->ptReq), 7, curl_easy_strerror(CURLE_COULDNT_CONNECT), 11, 0)}),
              TakeLog());
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

class WorkerComplete : public Worker, public ::testing::WithParamInterface<Entry>
{
  protected:
    void SetUp() override
    {
        Worker::SetUp();
        PlayLibcurl();
    }

    void Run(std::deque<CURLMsg> messages)
    {
        g_messages = std::move(messages);
        GetParam().call(multi, task);
        EXPECT_TRUE(g_messages.empty());
        EXPECT_FALSE(AnyLockTaken());
    }

    static Line FailedLine(CURL *easy, CURLcode code, int result)
    {
        if (GetParam().name == std::string(kPerformEx)) {
            return L(kError, kPerformEx,
                     "[Error] easy_handle %p, {ErrorCode:%d}, {ErrorStr:%s}, eCltErrCode %d, eProg %d\n", P(easy),
                     static_cast<int>(code), curl_easy_strerror(code), result, 0);
        }
        return L(kError, kPerform, "[Error] easy_handle %p, eCurlRet %d, eCltErrCode %d, eProg %d\n", P(easy),
                 static_cast<int>(code), result, 0);
    }

    Lines Quiet() const
    {
        return {Running(GetParam().name, 0)};
    }

    static void ExpectCompletion(size_t index, HNvrHttpCurlCltReq req, uint32_t prog, uint32_t result, void *buf)
    {
        ASSERT_GT(g_completions.size(), index);
        EXPECT_EQ(req, g_completions[index].req);
        EXPECT_EQ(prog, g_completions[index].prog);
        EXPECT_EQ(result, g_completions[index].result);
        EXPECT_EQ(buf, g_completions[index].buf);
    }

    char buffer[64] = "################";
};

INSTANTIATE_TEST_SUITE_P(BothEntries, WorkerComplete,
                         ::testing::Values(Entry{kPerform, _NvrHttpCurlClt_CurlPerformAndReadInfo},
                                           Entry{kPerformEx, _NvrHttpCurlClt_CurlPerformAndReadInfoEx}),
                         [](const auto &test) {
                             return std::string(test.param.name == std::string(kPerformEx) ? "ex" : "plain");
                         });

TEST_P(WorkerComplete, PerformsOnce)
{
    hooks::multi_perform = [this](CURLM *of, int *running) {
        EXPECT_EQ(multi, of);
        EXPECT_EQ(0, *running);
        EXPECT_FALSE(AnyLockTaken());
        *running = 5;
        return CURLM_OK;
    };
    Run({});
    EXPECT_EQ(Lines{Running(GetParam().name, 5)}, TakeLog());
    EXPECT_EQ(1U, hooks::Calls("curl_multi_perform"));
}

TEST_P(WorkerComplete, GoesOnAfterAFailedPerform)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "");
    hooks::multi_perform = [](CURLM *, int *running) {
        *running = 2;
        return CURLM_INTERNAL_ERROR;
    };
    Run({Done(req->ptReq)});
    EXPECT_EQ((Lines{L(kError, GetParam().name,
                       "[Error] curl_multi_perform fail{ErrorCode:%d}, {ErrorStr:%s}, still_running %d\n",
                       static_cast<int>(CURLM_INTERNAL_ERROR), curl_multi_strerror(CURLM_INTERNAL_ERROR), 2),
                     Running(GetParam().name, 2)}),
              TakeLog());
    ExpectCompletion(0, req, 1, 0, nullptr);
}

TEST_P(WorkerComplete, SaysWhichMessageIsNoEnd)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "");
    Run({Message(CURLMSG_NONE, req->ptReq, CURLE_OK), Message(CURLMSG_LAST, req->ptReq, CURLE_OK)});
    EXPECT_EQ((Lines{Running(GetParam().name, 0), L(kInfo, GetParam().name, " msg %d {0-none, 1-done, 2-last}\n", 0),
                     L(kInfo, GetParam().name, " msg %d {0-none, 1-done, 2-last}\n", 2)}),
              TakeLog());
    EXPECT_EQ(0U, hooks::Calls("curl_multi_remove_handle"));
    EXPECT_TRUE(g_completions.empty());
    EXPECT_EQ(1U, task->tRunList.dwNumOfElem);
}

TEST_P(WorkerComplete, PassesOverAMessageWithoutAHandle)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "");
    Run({Done(nullptr), Done(req->ptReq)});
    EXPECT_EQ((Lines{Running(GetParam().name, 0),
                     L(kError, GetParam().name, "[Error] ptEasyHandle is Invalid{%p}\n", P<void>(nullptr))}),
              TakeLog());
    EXPECT_EQ(1U, hooks::Calls("curl_multi_remove_handle"));
    EXPECT_EQ(1U, g_completions.size());
}

/* What a completion looks like from the places where it leaves the worker's code. */
std::function<void()> g_atRunListFree;
std::function<void()> g_atFinListMalloc;

void RunListFree(void *block)
{
    g_atRunListFree();
    fake::MemCB().pfFree(block);
}

void *FinListMalloc(size_t size)
{
    g_atFinListMalloc();
    return fake::MemCB().pfMalloc(size);
}

TEST_P(WorkerComplete, KeepsItsOrderAndItsLocks)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    HNvrHttpCurlCltReq before = QueueAnswered(nullptr, "");
    TNvrHttpCurlCltAsyncNode *const last = fixture::Finish(*task, before);
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tRunList)[0];
    std::vector<std::string> events;
    hooks::multi_remove_handle = [&](CURLM *from, CURL *easy) {
        events.push_back("remove handle");
        EXPECT_EQ(multi, from);
        EXPECT_EQ(req->ptReq, easy);
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_NE(nullptr, FindListNode(task->tRunList, req));
        EXPECT_EQ('#', buffer[0]);
        return CURLM_OK;
    };
    g_atRunListFree = [&] {
        events.push_back("leave run list");
        EXPECT_TRUE(fake::SemIsTaken(task->hRunLock));
        EXPECT_FALSE(fake::SemIsTaken(task->hFinLock));
        EXPECT_EQ('#', buffer[0]);
    };
    g_atFinListMalloc = [&] {
        events.push_back("enter finish list");
        EXPECT_TRUE(fake::SemIsTaken(task->hFinLock));
        EXPECT_FALSE(fake::SemIsTaken(task->hRunLock));
        EXPECT_EQ(std::string("answer#"), std::string(buffer, 7));
        EXPECT_EQ(0U, task->tRunList.dwNumOfElem);
    };
    g_onCompletion = [&](const Completion &) {
        events.push_back("callback");
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_EQ((std::vector<TNvrHttpCurlCltAsyncNode *>{last, node}), Nodes(task->tFinList));
        EXPECT_EQ(1U, node->bInMulti);
    };
    task->tRunList.pfFree = RunListFree;
    task->tFinList.pfMalloc = FinListMalloc;
    Run({Done(req->ptReq)});
    task->tRunList.pfFree = fake::MemCB().pfFree;
    task->tFinList.pfMalloc = fake::MemCB().pfMalloc;

    EXPECT_EQ((std::vector<std::string>{"remove handle", "leave run list", "enter finish list", "callback"}), events);
    EXPECT_EQ(Quiet(), TakeLog());
    ASSERT_EQ(1U, g_completions.size());
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_EQ(node, static_cast<TNvrHttpCurlCltAsyncNode *>(task->tFinList.ptTail->pvData));
    EXPECT_EQ(1U, node->bInMulti);
    EXPECT_EQ(2U, inst->dwAsyncReqNum);
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
        g_completions.clear();
        Run({Done(req->ptReq, each.code)});
        EXPECT_EQ(
            (Lines{Running(GetParam().name, 0), FailedLine(req->ptReq, each.code, static_cast<int>(each.result))}),
            TakeLog());
        ASSERT_EQ(1U, g_completions.size());
        ExpectCompletion(0, req, 0, each.result, buffer);
        EXPECT_STREQ("part############", buffer);
        EXPECT_NE(nullptr, FindListNode(task->tFinList, req));
    }
}

TEST_P(WorkerComplete, ARefusedRemovalIsOnlyLogged)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    hooks::multi_remove_handle = [](CURLM *, CURL *) { return CURLM_BAD_EASY_HANDLE; };
    Run({Done(req->ptReq, CURLE_WRITE_ERROR)});
    hooks::multi_remove_handle = nullptr;
    EXPECT_EQ((Lines{Running(GetParam().name, 0), FailedLine(req->ptReq, CURLE_WRITE_ERROR, 1),
                     L(kError, GetParam().name, "[Error] curl_multi_remove_handle{%p} err{%d}.\n", P(req->ptReq),
                       static_cast<int>(CURLM_BAD_EASY_HANDLE))}),
              TakeLog());
    ExpectCompletion(0, req, 0, 1, buffer);
    EXPECT_NE(nullptr, FindListNode(task->tFinList, req));
}

TEST_P(WorkerComplete, ANullBufferReceivesNothing)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "answer");
    Run({Done(req->ptReq)});
    ExpectCompletion(0, req, 1, 0, nullptr);
    EXPECT_NE(nullptr, FindListNode(task->tFinList, req));
    EXPECT_EQ(Quiet(), TakeLog());
}

TEST_P(WorkerComplete, ARequestWithoutBodyCopiesNothing)
{
    HNvrHttpCurlCltReq req = Queue(buffer);
    ASSERT_EQ(nullptr, req->ptRespData);
    Run({Done(req->ptReq)});
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_STREQ("################", buffer);
    EXPECT_NE(nullptr, FindListNode(task->tFinList, req));
    EXPECT_EQ(Quiet(), TakeLog());
}

TEST_P(WorkerComplete, ALostAnswerCopiesNothing)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    fake::FailRealloc(1);
    char byte = 'x';
    ASSERT_EQ(0U, _HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData));
    ASSERT_EQ(nullptr, req->ptRespData->pchData);
    ASSERT_EQ(6U, req->ptRespData->qwSize);
    Forget();
    Run({Done(req->ptReq, CURLE_WRITE_ERROR)});
    ExpectCompletion(0, req, 0, 1, buffer);
    EXPECT_STREQ("################", buffer);
    EXPECT_NE(nullptr, FindListNode(task->tFinList, req));
    fake::FreeLostBlocks();
}

TEST_P(WorkerComplete, AnEmptyAnswerCopiesNoTerminator)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "");
    Run({Done(req->ptReq)});
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_STREQ("################", buffer);
}

TEST_P(WorkerComplete, TheCopyHasNoBound)
{
    const std::string answer(300000, 'a');
    std::vector<char> large(answer.size() + 1, '#');
    HNvrHttpCurlCltReq req = QueueAnswered(large.data(), answer);
    Run({Done(req->ptReq)});
    EXPECT_EQ(answer + "#", std::string(large.data(), large.size()));
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
    g_atFinListMalloc = [&] {
        node->pfNtf = MustNotBeCalled;
        node->pvUserBuf = this;
    };
    task->tFinList.pfMalloc = FinListMalloc;
    Run({Done(req->ptReq)});
    task->tFinList.pfMalloc = fake::MemCB().pfMalloc;
    ASSERT_EQ(1U, g_completions.size());
    ExpectCompletion(0, req, 1, 0, buffer);
}

TEST_P(WorkerComplete, NotifiesThoughTheFinishListHasNoMemory)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tRunList)[0];
    fake::FailMalloc(1);
    Run({Done(req->ptReq)});
    EXPECT_EQ(Quiet(), TakeLog());
    ASSERT_EQ(1U, g_completions.size());
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_EQ(0U, task->tFinList.dwNumOfElem);
    EXPECT_EQ(0U, task->tRunList.dwNumOfElem);
    req->pfFree(node); /* in no list, so the request's destruction does not find it */
}

TEST_P(WorkerComplete, CompletesAllMessagesInTheirOrder)
{
    char second[16] = "";
    HNvrHttpCurlCltReq one = QueueAnswered(buffer, "one");
    HNvrHttpCurlCltReq two = QueueAnswered(second, "two");
    HNvrHttpCurlCltReq running = QueueAnswered(nullptr, "");
    Run({Done(one->ptReq), Message(CURLMSG_LAST, nullptr, CURLE_OK), Done(two->ptReq, CURLE_OPERATION_TIMEDOUT)});
    ASSERT_EQ(2U, g_completions.size());
    ExpectCompletion(0, one, 1, 0, buffer);
    ExpectCompletion(1, two, 0, 10, second);
    EXPECT_EQ("one", std::string(buffer, 3));
    EXPECT_EQ("two", std::string(second, 3));
    ASSERT_EQ(2U, task->tFinList.dwNumOfElem);
    EXPECT_EQ(one, Nodes(task->tFinList)[0]->ptReqIn);
    EXPECT_EQ(two, Nodes(task->tFinList)[1]->ptReqIn);
    ASSERT_EQ(1U, task->tRunList.dwNumOfElem);
    EXPECT_EQ(running, Nodes(task->tRunList)[0]->ptReqIn);
}

TEST_P(WorkerComplete, PassesOverNodesWithoutARequestOrAHandle)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    HNvrHttpCurlCltReq noHandle = QueueAnswered(nullptr, "");
    CURL *const easy = noHandle->ptReq;
    noHandle->ptReq = nullptr;
    TNvrHttpCurlCltAsyncNode empty = {};
    TNVRHCCListNode *place = nullptr;
    ASSERT_EQ(0U, NVRHCCListInsertBefore(&task->tRunList, nullptr, &empty, &place));
    Run({Done(req->ptReq)});
    ASSERT_EQ(1U, g_completions.size());
    ExpectCompletion(0, req, 1, 0, buffer);
    EXPECT_EQ(2U, task->tRunList.dwNumOfElem);
    ASSERT_EQ(0U, NVRHCCListRemove(&task->tRunList, place, nullptr));
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
    EXPECT_EQ(Quiet(), TakeLog());
    EXPECT_EQ(1U, hooks::Calls("curl_multi_remove_handle"));
    EXPECT_TRUE(g_completions.empty());
    EXPECT_NE(nullptr, FindListNode(task->tRunList, req));
    EXPECT_EQ(0U, task->tFinList.dwNumOfElem);
    EXPECT_STREQ("################", buffer);
}

TEST_P(WorkerComplete, AStrangerBeforeTheFirstMatchIsDropped)
{
    const Stranger stranger;
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    Run({Done(stranger.easy), Done(req->ptReq)});
    ASSERT_EQ(1U, g_completions.size());
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
    ASSERT_EQ(2U, g_completions.size());
    ExpectCompletion(0, matched, 1, 0, buffer);
    ExpectCompletion(1, last, 0, 10, oldest);
    EXPECT_STREQ("oldest##", oldest);
    EXPECT_EQ(1U, fixture::Count(FailedLine(stranger.easy, CURLE_OPERATION_TIMEDOUT, 10)));

    /* Its list node stays where it was, so it stands in both lists now. */
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tFinList).back();
    EXPECT_EQ(last, node->ptReqIn);
    EXPECT_EQ(node, Nodes(task->tRunList).back());
    EXPECT_EQ(between, Nodes(task->tRunList).front()->ptReqIn);
    EXPECT_EQ(2U, task->tRunList.dwNumOfElem);
    EXPECT_EQ(2U, task->tFinList.dwNumOfElem);
    ASSERT_EQ(0U, NVRHCCListRemove(&task->tFinList, task->tFinList.ptTail, nullptr));
}

TEST_P(WorkerComplete, AStrangerAfterTheOnlyMatchCompletesThatNodeAgain)
{
    const Stranger stranger;
    HNvrHttpCurlCltReq matched = QueueAnswered(buffer, "answer");
    Run({Done(matched->ptReq), Done(stranger.easy, CURLE_COULDNT_CONNECT)});
    ASSERT_EQ(2U, g_completions.size());
    ExpectCompletion(0, matched, 1, 0, buffer);
    ExpectCompletion(1, matched, 0, 11, buffer);
    const std::vector<TNvrHttpCurlCltAsyncNode *> finished = Nodes(task->tFinList);
    ASSERT_EQ(2U, finished.size());
    EXPECT_EQ(finished[0], finished[1]);
    EXPECT_EQ(matched, finished[0]->ptReqIn);
    ASSERT_EQ(0U, NVRHCCListRemove(&task->tFinList, task->tFinList.ptTail, nullptr));
}

TEST_P(WorkerComplete, AMatchDoesNotOutliveItsCall)
{
    const Stranger stranger;
    HNvrHttpCurlCltReq matched = QueueAnswered(buffer, "answer");
    QueueAnswered(nullptr, "");
    Run({Done(matched->ptReq)});
    Run({Done(stranger.easy)});
    EXPECT_EQ(1U, g_completions.size());
    EXPECT_EQ(1U, task->tFinList.dwNumOfElem);
    EXPECT_EQ(1U, task->tRunList.dwNumOfElem);
}

/* --- inside the callback -------------------------------------------------------------------------------------- */

TEST_P(WorkerComplete, TheCallbackMaySubmitTheRequestAgain)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tRunList)[0];
    uint32_t result = 99;
    g_onCompletion = [&](const Completion &) { result = Submit(req, this); };
    Run({Done(req->ptReq)});
    EXPECT_EQ(0U, result);
    ASSERT_EQ(1U, g_completions.size());
    EXPECT_EQ(0U, task->tFinList.dwNumOfElem);
    ASSERT_EQ(std::vector<TNvrHttpCurlCltAsyncNode *>{node}, Nodes(task->tRunList));
    EXPECT_EQ(0U, node->bInMulti);
    EXPECT_EQ(this, node->pvUserBuf);
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
}

TEST_P(WorkerComplete, TheCallbackMayDestroyTheRequest)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    g_onCompletion = [](const Completion &completion) { NvrHttpCurlCltReqDestroy(completion.req); };
    Run({Done(req->ptReq)});
    Disown(req);
    EXPECT_EQ(1U, g_completions.size());
    EXPECT_EQ(0U, task->tFinList.dwNumOfElem);
    EXPECT_EQ(0U, inst->dwAsyncReqNum);
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
}

TEST_P(WorkerComplete, TheCallbackMayReadTheAnswerAndSubmitAnother)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "answer");
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *value) {
        *static_cast<long *>(value) = 200;
        return CURLE_OK;
    };
    char answer[16] = "";
    g_onCompletion = [&](const Completion &completion) {
        uint32_t size = 15;
        EXPECT_EQ(0U, NvrHttpCurlCltGetRespBody(completion.req, answer, &size));
        Queue();
    };
    Run({Done(req->ptReq)});
    EXPECT_STREQ("answer", answer);
    EXPECT_EQ(1U, task->tRunList.dwNumOfElem);
    EXPECT_EQ(1U, task->tFinList.dwNumOfElem);
}

/* --- the loop ---------------------------------------------------------------------------------------------------- */

const int kKeepCount = -12345;

/* One return of the wait. */
struct Step {
    CURLMcode code;
    int count; /* kKeepCount: not written, as a failed wait does */
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

    /* Runs the routine until the waits told have been made, one more, which asks it to leave. */
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
            if (steps[index].count != kKeepCount) {
                *count = steps[index].count;
            }
            if (steps[index].wakeUp) {
                fds->revents = static_cast<short>(fds->revents | CURL_WAIT_POLLIN);
            }
            return steps[index].code;
        };
        _NvrHttpCurlCltWorkerRoutine(task);
        EXPECT_EQ(steps.size() + 1, seen.size()) << "bExit is looked at once in a pass";
        EXPECT_EQ(0U, fake::HeldByThisThread());
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
        return {L(kInfo, kRoutine, " thread name {%s}\n", task->szThreadName),
                L(kInfo, kRoutine, " CurlMultiHand{%p}, nCurlCltUdpMonitorSock{%d}, nUdpMonitorSocket{%d}\n", P(multi),
                  task->tUdpMonitorSock.nSock, task->tUdpMonitorSock.nSock)};
    }

    /* The lines of the loop, those of the start taken off. */
    Lines LoopLines()
    {
        Lines lines = TakeLog();
        const Lines start = StartLines();
        if (lines.size() < 2 || Lines(lines.begin(), lines.begin() + 2) != start) {
            ADD_FAILURE() << "the start's lines are missing";
            return lines;
        }
        lines.erase(lines.begin(), lines.begin() + 2);
        return lines;
    }

    static Line Active(int count)
    {
        return L(kInfo, kRoutine, " curl_multi_wait end, numfds{%d}\n", count);
    }

    static Line Read(int count)
    {
        return L(kInfo, kRoutine, " [udp socket]recvfrom{%d} complete, break.\n", count);
    }

    static Line ReadFailed()
    {
        return L(kInfo, kRoutine, " [udp socket]recvfrom err, break.\n");
    }

    static Line WakeUpOnly()
    {
        return L(kInfo, kRoutine, " udp socket done, continue wait.\n");
    }

    static Line WaitFailed(CURLMcode code)
    {
        return L(kError, kRoutine, "[Error] curl_multi_wait() failed, code %d.\n", static_cast<int>(code));
    }

    static Lines Replaced(CURLM *bad, CURLM *fresh)
    {
        return {L(kError, kRoutine, "[Error] curl_multi_wait() return err{%d}, ptCurlMultiHandle{%p} is bad.\n",
                  static_cast<int>(CURLM_BAD_HANDLE), P(bad)),
                L(kInfo, kRoutine, " then curl_multi_init() again, ptCurCurlMultiHand{%p}\n", P(fresh))};
    }

    std::vector<Seen> seen;
    std::function<void(size_t)> onWait;
    const std::vector<uint32_t> kOneRest = {2};
    const std::vector<uint32_t> kNoRest = {};
};

TEST_F(WorkerLoop, NeedsATask)
{
    const size_t names = hooks::Calls("prctl");
    _NvrHttpCurlCltWorkerRoutine(nullptr);
    EXPECT_EQ((Lines{L(kError, kRoutine, "[Error] invalid arg, ptTask %p\n", P<void>(nullptr))}), TakeLog());
    EXPECT_EQ(names, hooks::Calls("prctl"));
}

TEST_F(WorkerLoop, NeedsAMultiHandle)
{
    task->ptCurlMultiHandle = nullptr;
    _NvrHttpCurlCltWorkerRoutine(task);
    EXPECT_EQ((Lines{L(kInfo, kRoutine, " thread name {%s}\n", task->szThreadName),
                     L(kError, kRoutine, "[Error] invalid arg, ptCurlMultiHandle %p\n", P<void>(nullptr))}),
              TakeLog());
    EXPECT_EQ(0U, hooks::Calls("curl_multi_wait"));
    EXPECT_EQ(nullptr, task->ptCurlMultiHandle);
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
    EXPECT_EQ(std::vector<std::string>{task->szThreadName}, names);
    EXPECT_EQ(StartLines(), TakeLog());
}

TEST_F(WorkerLoop, GoesOnWithoutAName)
{
    hooks::sys_set_name = [](const char *) { return -1; };
    Run({});
    Lines expected = StartLines();
    expected.insert(expected.begin() + 1,
                    L(kError, kRoutine, "[Error] HCThreadSetName() failed, name{%s}\n", task->szThreadName));
    EXPECT_EQ(expected, TakeLog());
    EXPECT_EQ(1U, seen.size());
}

TEST_F(WorkerLoop, DoesNotWaitOnceItIsToLeave)
{
    TellToExit();
    _NvrHttpCurlCltWorkerRoutine(task);
    EXPECT_GE(1U, hooks::Calls("curl_multi_wait"));
    EXPECT_EQ(multi, task->ptCurlMultiHandle);
}

TEST_F(WorkerLoop, WaitsWithTheWakeUpSocketAndWithoutLocks)
{
    Run({{CURLM_OK, 0, false}});
    for (const Seen &wait : seen) {
        EXPECT_EQ(multi, wait.multi);
        EXPECT_EQ(1U, wait.fds);
        EXPECT_EQ(50, wait.timeout);
        EXPECT_EQ(task->tUdpMonitorSock.nSock, wait.fd);
        EXPECT_EQ(CURL_WAIT_POLLIN, wait.events);
        EXPECT_EQ(0, wait.returned);
        EXPECT_FALSE(wait.locked);
    }
    EXPECT_EQ(0, seen[0].count);
}

TEST_F(WorkerLoop, AWaitThatTimedOutDrivesNothing)
{
    Run({{CURLM_OK, 0, false}, {CURLM_OK, -1, false}, {CURLM_OK, 0, false}});
    for (const size_t pass : {0U, 1U, 2U}) {
        EXPECT_EQ(0U, Performs(pass));
        EXPECT_EQ(0U, Reads(pass));
        EXPECT_EQ(kOneRest, DelaysOf(pass));
    }
    EXPECT_EQ(Lines{}, LoopLines());
}

TEST_F(WorkerLoop, ActivityIsPerformedThenRests)
{
    hooks::multi_perform = [this](CURLM *of, int *running) {
        EXPECT_EQ(multi, of);
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_EQ(seen.back().delays, fake::Delays().size());
        *running = 1;
        return CURLM_OK;
    };
    Run({{CURLM_OK, 1, false}});
    EXPECT_EQ(1U, Performs(0));
    EXPECT_EQ(0U, Reads(0));
    EXPECT_EQ(kOneRest, DelaysOf(0));
    EXPECT_EQ((Lines{Active(1), Running(kPerform, 1)}), LoopLines());
}

TEST_F(WorkerLoop, AWakeUpAloneIsReadAndNothingElse)
{
    Run({{CURLM_OK, 1, true}});
    EXPECT_EQ(0U, Performs(0));
    EXPECT_EQ(1U, Reads(0));
    EXPECT_EQ(kNoRest, DelaysOf(0));
    EXPECT_EQ((Lines{Active(1), Read(2), WakeUpOnly()}), LoopLines());
    EXPECT_EQ(0, seen[1].count);
}

TEST_F(WorkerLoop, AWakeUpBesideActivityIsReadThenPerformed)
{
    hooks::multi_perform = [](CURLM *, int *) {
        EXPECT_EQ(1U, hooks::Calls("recvfrom"));
        return CURLM_OK;
    };
    Run({{CURLM_OK, 3, true}});
    EXPECT_EQ(1U, Performs(0));
    EXPECT_EQ(1U, Reads(0));
    EXPECT_EQ(kOneRest, DelaysOf(0));
    EXPECT_EQ((Lines{Active(3), Read(2), Running(kPerform, 0)}), LoopLines());
    EXPECT_EQ(2, seen[1].count);
}

TEST_F(WorkerLoop, ReadsIntoAClearedBufferOf256Bytes)
{
    size_t calls = 0;
    hooks::sys_recvfrom = [&](int sock, void *into, size_t size, int flags, sockaddr *from,
                              socklen_t *length) -> ssize_t {
        ++calls;
        EXPECT_EQ(task->tUdpMonitorSock.nSock, sock);
        EXPECT_EQ(256U, size);
        EXPECT_EQ(0, flags);
        EXPECT_EQ(std::string(256, '\0'), std::string(static_cast<char *>(into), 256));
        memset(into, 'x', 256);
        const auto *address = reinterpret_cast<const sockaddr_in *>(from);
        EXPECT_EQ(AF_INET, address->sin_family);
        EXPECT_EQ(0, address->sin_port);
        EXPECT_EQ(0U, address->sin_addr.s_addr);
        EXPECT_EQ(16U, *length);
        memset(from, 0x55, sizeof(sockaddr_in));
        *length = 3;
        EXPECT_FALSE(AnyLockTaken());
        return 256;
    };
    Run({{CURLM_OK, 1, true}, {CURLM_OK, 1, true}});
    EXPECT_EQ(2U, calls);
    EXPECT_EQ((Lines{Active(1), Read(256), WakeUpOnly(), Active(1), Read(256), WakeUpOnly()}), LoopLines());
}

TEST_F(WorkerLoop, AFailedReadCountsAsRead)
{
    hooks::sys_recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) -> ssize_t { return -1; };
    Run({{CURLM_OK, 1, true}, {CURLM_OK, 2, true}});
    EXPECT_EQ((Lines{Active(1), ReadFailed(), WakeUpOnly(), Active(2), ReadFailed(), Running(kPerform, 0)}),
              LoopLines());
}

TEST_F(WorkerLoop, AnEmptyDatagramIsRead)
{
    hooks::sys_recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) -> ssize_t { return 0; };
    Run({{CURLM_OK, 1, true}});
    EXPECT_EQ((Lines{Active(1), Read(0), WakeUpOnly()}), LoopLines());
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
    EXPECT_EQ(0U, hooks::Calls("recvfrom"));
    EXPECT_EQ(1U, hooks::Calls("curl_multi_perform"));
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
    ASSERT_EQ(4U, seen.size());
    EXPECT_EQ(1U, Reads(0));
    EXPECT_EQ(1U, Reads(1));
    EXPECT_EQ(0U, Reads(2));
    EXPECT_EQ(kNoRest, DelaysOf(0));
    EXPECT_EQ(kNoRest, DelaysOf(1));
    EXPECT_EQ(kOneRest, DelaysOf(2));
    EXPECT_EQ(0U, hooks::Calls("curl_multi_perform"));
    EXPECT_EQ((Lines{Active(1), Read(2), WakeUpOnly(), Active(1), Read(2), WakeUpOnly()}), LoopLines());
}

TEST_F(WorkerLoop, AFailedWaitIsLoggedAndTheLoopGoesOn)
{
    Run({{CURLM_INTERNAL_ERROR, kKeepCount, false}, {CURLM_OK, 1, false}});
    EXPECT_EQ(0U, Performs(0));
    EXPECT_EQ(kOneRest, DelaysOf(0));
    EXPECT_EQ(1U, Performs(1));
    EXPECT_EQ((Lines{WaitFailed(CURLM_INTERNAL_ERROR), Active(1), Running(kPerform, 0)}), LoopLines());
}

TEST_F(WorkerLoop, AFailedWaitKeepsTheCountButNoWakeUp)
{
    Run({{CURLM_OK, 2, true},
         {CURLM_OUT_OF_MEMORY, kKeepCount, false},
         {CURLM_OUT_OF_MEMORY, kKeepCount, false},
         {CURLM_OK, 0, false},
         {CURLM_OUT_OF_MEMORY, kKeepCount, false}});
    EXPECT_EQ(1U, Reads(0));
    for (const size_t pass : {1U, 2U}) {
        EXPECT_EQ(1, seen[pass].count);
        EXPECT_EQ(0, seen[pass].returned);
        EXPECT_EQ(0U, Reads(pass));
        EXPECT_EQ(1U, Performs(pass));
        EXPECT_EQ(kOneRest, DelaysOf(pass));
    }
    EXPECT_EQ(0U, Performs(4));
    EXPECT_EQ((Lines{Active(2), Read(2), Running(kPerform, 0), WaitFailed(CURLM_OUT_OF_MEMORY), Active(1),
                     Running(kPerform, 0), WaitFailed(CURLM_OUT_OF_MEMORY), Active(1), Running(kPerform, 0),
                     WaitFailed(CURLM_OUT_OF_MEMORY)}),
              LoopLines());
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
    Run({{CURLM_BAD_HANDLE, kKeepCount, false}, {CURLM_OK, 0, false}});
    ASSERT_EQ(1U, made.size());
    CURLM *const fresh = made[0];
    EXPECT_EQ(std::vector<CURLM *>{multi}, cleaned);
    EXPECT_EQ(multi, seen[0].multi);
    EXPECT_EQ(fresh, seen[1].multi);
    EXPECT_EQ(fresh, seen[2].multi);
    EXPECT_EQ(multi, seen[1].multiOfTask);
    EXPECT_EQ(multi, seen[2].multiOfTask);
    EXPECT_EQ(0U, Performs(0));
    EXPECT_EQ(kOneRest, DelaysOf(0));
    EXPECT_EQ(Replaced(multi, fresh), LoopLines());

    EXPECT_EQ(fresh, task->ptCurlMultiHandle);
    Stop();
    EXPECT_EQ((std::vector<CURLM *>{multi, fresh}), cleaned);
    EXPECT_EQ(1U, made.size());
}

TEST_F(WorkerBadHandle, ThePassGoesOnWithTheNewHandle)
{
    std::vector<CURLM *> performed;
    hooks::multi_perform = [&](CURLM *of, int *) {
        performed.push_back(of);
        return CURLM_OK;
    };
    Run({{CURLM_OK, 1, false}, {CURLM_BAD_HANDLE, kKeepCount, false}});
    ASSERT_EQ(1U, made.size());
    EXPECT_EQ((std::vector<CURLM *>{multi, made[0]}), performed);
    Lines expected = {Active(1), Running(kPerform, 0)};
    for (const Line &line : Replaced(multi, made[0])) {
        expected.push_back(line);
    }
    expected.push_back(Active(1));
    expected.push_back(Running(kPerform, 0));
    EXPECT_EQ(expected, LoopLines());
}

TEST_F(WorkerBadHandle, ANullReplacementIsReplacedAgain)
{
    noHandles = 2;
    Run({{CURLM_BAD_HANDLE, kKeepCount, false},
         {CURLM_BAD_HANDLE, kKeepCount, false},
         {CURLM_BAD_HANDLE, kKeepCount, false},
         {CURLM_OK, 0, false}});
    ASSERT_EQ(3U, made.size());
    EXPECT_EQ(nullptr, seen[1].multi);
    EXPECT_EQ(nullptr, seen[2].multi);
    ASSERT_NE(nullptr, made[2]);
    EXPECT_EQ(made[2], seen[3].multi);
    EXPECT_EQ((std::vector<CURLM *>{multi, nullptr, nullptr}), cleaned);
    Lines expected = Replaced(multi, nullptr);
    for (const Lines &lines : {Replaced(nullptr, nullptr), Replaced(nullptr, made[2])}) {
        expected.insert(expected.end(), lines.begin(), lines.end());
    }
    EXPECT_EQ(expected, LoopLines());
    Stop();
    EXPECT_EQ((std::vector<CURLM *>{multi, nullptr, nullptr, made[2]}), cleaned);
}

TEST_F(WorkerBadHandle, LeavingWithoutAnyHandleReleasesNothingTwice)
{
    noHandles = 1;
    Run({{CURLM_BAD_HANDLE, kKeepCount, false}});
    EXPECT_EQ(nullptr, task->ptCurlMultiHandle);
    Stop();
    EXPECT_EQ((std::vector<CURLM *>{multi, nullptr}), cleaned);
}

TEST_F(WorkerBadHandle, EachOfTwoIsReleasedOnce)
{
    Run({{CURLM_BAD_HANDLE, kKeepCount, false}, {CURLM_BAD_HANDLE, kKeepCount, false}});
    ASSERT_EQ(2U, made.size());
    EXPECT_EQ(multi, seen[2].multiOfTask);
    Stop();
    EXPECT_EQ((std::vector<CURLM *>{multi, made[0], made[1]}), cleaned);
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
    Run({{CURLM_BAD_HANDLE, kKeepCount, false}, {CURLM_OK, 0, false}});
    ASSERT_EQ(1U, made.size());
    ASSERT_NE(nullptr, second);
    EXPECT_EQ((std::vector<std::pair<CURLM *, CURL *>>{{multi, first->ptReq}, {made[0], second->ptReq}}), added);
    EXPECT_TRUE(g_completions.empty());
}

/* --- passes that add requests ------------------------------------------------------------------------------------- */

TEST_F(WorkerLoop, EachPassAddsWhatWasQueuedEvenWithoutAWakeUp)
{
    PlayLibcurl();
    Queue();
    onWait = [this](size_t index) {
        EXPECT_EQ(index + 1, hooks::Calls("curl_multi_add_handle"));
        if (index < 2) {
            Queue();
        }
    };
    Run({{CURLM_OK, 0, false}, {CURLM_OK, 1, true}});
    EXPECT_EQ(3U, hooks::Calls("curl_multi_add_handle"));
    EXPECT_EQ(1U, Performs(0));
    EXPECT_EQ(1U, Performs(1));
    EXPECT_EQ(kOneRest, DelaysOf(0));
    EXPECT_EQ(kNoRest, DelaysOf(1));
}

TEST_F(WorkerLoop, ARefusedHandleIsTriedAgainInTheNextPass)
{
    PlayLibcurl();
    HNvrHttpCurlCltReq req = Queue();
    size_t tries = 0;
    hooks::multi_add_handle = [&](CURLM *, CURL *) { return ++tries == 1 ? CURLM_OUT_OF_MEMORY : CURLM_OK; };
    Run({{CURLM_OK, 0, false}, {CURLM_OK, 0, false}});
    EXPECT_EQ(2U, tries);
    EXPECT_EQ((Lines{AddBegins(req), AddFailed(req, CURLM_OUT_OF_MEMORY), AddBegins(req), AddDone(req),
                     Running(kPerformEx, 0)}),
              LoopLines());
}

TEST_F(WorkerLoop, ASecondSubmissionFromTheCallbackRunsInTheNextPass)
{
    PlayLibcurl();
    HNvrHttpCurlCltReq req = Queue();
    g_onCompletion = [&](const Completion &) {
        if (g_completions.size() == 1) {
            EXPECT_EQ(0U, Submit(req));
        }
    };
    onWait = [&](size_t) { g_messages.push_back(Done(req->ptReq)); };
    Run({{CURLM_OK, 1, false}, {CURLM_OK, 1, false}});
    EXPECT_EQ(2U, hooks::Calls("curl_multi_add_handle"));
    EXPECT_EQ(2U, g_completions.size());
    EXPECT_EQ(1U, task->tFinList.dwNumOfElem);
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
    g_messages.clear();
}

/* --- real transfers --------------------------------------------------------------------------------------------------
 */

class WorkerTransfer : public Worker
{
  protected:
    /* Runs the worker over the real libcurl until the condition holds when a wait begins. */
    void RunUntil(const std::function<bool()> &condition)
    {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point limit = Clock::now() + std::chrono::seconds(60);
        __atomic_store_n(&task->bExit, 0U, __ATOMIC_RELAXED);
        hooks::multi_wait = [&](CURLM *waited, curl_waitfd *fds, unsigned number, int timeout, int *count) {
            ++waits;
            const bool late = Clock::now() > limit;
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
        EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, timeoutMS, 20000, NVRHTTPCURLCLT_MODE_ASYNC, Ntf, buf));
        requests.push_back(req);
        return req;
    }

    size_t waits = 0;
};

TEST_F(WorkerTransfer, ReportsSuccessWithTheBody)
{
    fixture::LoopbackServer server(fixture::Reply("the answer"));
    char buffer[32] = "##############";
    HNvrHttpCurlCltReq req = QueueTo(server.Url(), buffer, 20000);
    RunUntil([] { return !g_completions.empty(); });
    ASSERT_EQ(1U, g_completions.size());
    EXPECT_EQ(req, g_completions[0].req);
    EXPECT_EQ(1U, g_completions[0].prog);
    EXPECT_EQ(0U, g_completions[0].result);
    EXPECT_STREQ("the answer####", buffer);
    EXPECT_NE(nullptr, FindListNode(task->tFinList, req));

    /* The same request again, over the same node. */
    EXPECT_EQ(0U, Submit(req, nullptr));
    RunUntil([] { return g_completions.size() == 2; });
    EXPECT_EQ(1U, g_completions[1].prog);
    EXPECT_EQ(2U, server.Requests().size());
    EXPECT_EQ(1U, inst->dwAsyncReqNum);
}

TEST_F(WorkerTransfer, ReportsARefusedConnection)
{
    const fixture::ClosedPort closed;
    HNvrHttpCurlCltReq req = QueueTo(closed.Url(), nullptr, 20000);
    RunUntil([] { return !g_completions.empty(); });
    ASSERT_EQ(1U, g_completions.size());
    EXPECT_EQ(req, g_completions[0].req);
    EXPECT_EQ(0U, g_completions[0].prog);
    EXPECT_EQ(11U, g_completions[0].result);
}

TEST_F(WorkerTransfer, ATimeoutIsNoticedWithTheNextSubmissionOnly)
{
    using Clock = std::chrono::steady_clock;
    fixture::LoopbackServer silent("");
    const uint32_t timeoutMS = 300;
    const Clock::time_point start = Clock::now();
    HNvrHttpCurlCltReq req = QueueTo(silent.Url(), nullptr, timeoutMS);

    /* Once the server has the request nothing happens on the task any more. */
    size_t waitsAtExpiry = 0;
    RunUntil([&] {
        if (silent.Requests().empty() || Clock::now() - start < std::chrono::milliseconds(2 * timeoutMS)) {
            return false;
        }
        waitsAtExpiry = waitsAtExpiry == 0 ? waits : waitsAtExpiry;
        return waits >= waitsAtExpiry + 5;
    });
    EXPECT_TRUE(g_completions.empty());

    /* A datagram alone changes nothing either. */
    _NvrHttpCurlClt_SocketNotify(task->tUdpMonitorSock.nSock, task->tUdpMonitorSock.wPort);
    const size_t before = waits;
    RunUntil([&] { return waits >= before + 5; });
    EXPECT_TRUE(g_completions.empty());

    QueueTo(silent.Url(), nullptr, 60000);
    RunUntil([] { return !g_completions.empty(); });
    ASSERT_EQ(1U, g_completions.size());
    EXPECT_EQ(req, g_completions[0].req);
    EXPECT_EQ(0U, g_completions[0].prog);
    EXPECT_EQ(10U, g_completions[0].result);

    /* The second one is still in flight: the instance's end releases it. */
    Disown(requests.back());
}

} // namespace
