/* The worker completes ended requests: one behaviour under two names. */
#include <cstring>
#include <memory>

#include "tests/support/worker_fixture.h"

namespace
{

using namespace test;

const char UNTOUCHED[] = "################";

/* Run where a completion leaves the run list and where it enters the finish list. */
std::function<void()> atRunListFree;
std::function<void()> atFinListMalloc;

void RunListFree(void *block)
{
    if (atRunListFree) {
        atRunListFree();
    }
    fake::MemCB().pfFree(block);
}

void *FinListMalloc(size_t size)
{
    if (atFinListMalloc) {
        atFinListMalloc();
    }
    return fake::MemCB().pfMalloc(size);
}

class WorkerComplete : public WorkerTest, public testing::WithParamInterface<PerformEntry>
{
  protected:
    void SetUp() override
    {
        WorkerTest::SetUp();
        PlayLibcurl();
        strcpy(buffer, UNTOUCHED);
        task->tRunList.pfFree = RunListFree;
        task->tFinList.pfMalloc = FinListMalloc;
    }

    /* A queued request with an answer, as the worker finds it after a transfer. */
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

    void Run(const std::deque<CURLMsg> &ended)
    {
        messages = ended;
        GetParam().call(multi, task);
        atRunListFree = nullptr;
        atFinListMalloc = nullptr;
        EXPECT_TRUE(messages.empty());
        EXPECT_FALSE(AnyLockTaken());
    }

    bool HasFinished(HNvrHttpCurlCltReq req) const
    {
        return FindListNode(task->tFinList, req) != nullptr;
    }

    char buffer[64] = "";
    const Line performed = Running(GetParam().name, 0);
    /* An easy handle that no request of the task has. */
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> stranger{curl_easy_init(), curl_easy_cleanup};
};

INSTANTIATE_TEST_SUITE_P(BothEntries, WorkerComplete, testing::ValuesIn(PERFORM_ENTRIES),
                         testing::PrintToStringParamName());

/* --- messages and log lines --------------------------------------------------------------------- */

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
    ExpectLines(PerformFailed(GetParam().name, CURLM_INTERNAL_ERROR, 2));
    ExpectCompletions({{req, 1, 0, nullptr}});
}

TEST_P(WorkerComplete, PassesOverAMessageThatIsNoEndOrHasNoHandle)
{
    HNvrHttpCurlCltReq req = QueueAnswered(nullptr, "");
    Run({Message(CURLMSG_NONE, req->ptReq), Message(CURLMSG_LAST, req->ptReq), Done(nullptr)});
    ExpectLines({performed, Info(GetParam().name, " msg %d {0-none, 1-done, 2-last}\n", 0),
                 Info(GetParam().name, " msg %d {0-none, 1-done, 2-last}\n", 2),
                 Error(GetParam().name, "[Error] ptEasyHandle is Invalid{%p}\n", Ptr(nullptr))});
    EXPECT_EQ(hooks::Calls("curl_multi_remove_handle"), 0U);
    EXPECT_TRUE(completions.empty());
    EXPECT_EQ(task->tRunList.dwNumOfElem, 1U);
    Run({Done(nullptr), Done(req->ptReq)});
    EXPECT_EQ(completions.size(), 1U);
}

uint32_t MustNotBeCalled(HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet, void *)
{
    ADD_FAILURE() << "the callback was read too late";
    return 0;
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
        node->pfNtf = MustNotBeCalled; /* from now on others can reach the node */
        node->pvUserBuf = this;
    };
    onCompletion = [&](const Completion &) {
        events.push_back("callback");
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_EQ(Nodes(task->tFinList), (std::vector<TNvrHttpCurlCltAsyncNode *>{last, node}));
    };
    Run({Done(req->ptReq)});

    EXPECT_EQ(events, (std::vector<std::string>{"remove handle", "leave run list", "enter finish list", "callback"}));
    ExpectLines({performed});
    ExpectCompletions({{req, 1, 0, buffer}});
    EXPECT_EQ(inst->dwAsyncReqNum, 2U);
}

TEST_P(WorkerComplete, MapsTheFailureAndCopiesWhatThereIs)
{
    HNvrHttpCurlCltReq noBody = Queue(buffer);
    ASSERT_EQ(noBody->ptRespData, nullptr);
    const struct {
        HNvrHttpCurlCltReq req;
        void *buf;
        const char *copied;
        CURLcode code;
        uint32_t result;
    } cases[] = {{noBody, buffer, UNTOUCHED, CURLE_OK, 0},
                 {QueueAnswered(nullptr, "answer"), nullptr, UNTOUCHED, CURLE_OK, 0},
                 {QueueAnswered(buffer, ""), buffer, UNTOUCHED, CURLE_OK, 0},
                 {QueueAnswered(buffer, "answer"), buffer, "answer##########", CURLE_OK, 0},
                 {QueueAnswered(buffer, "part"), buffer, "part############", CURLE_OPERATION_TIMEDOUT, 10},
                 {QueueAnswered(buffer, "part"), buffer, "part############", CURLE_COULDNT_CONNECT, 11},
                 {QueueAnswered(buffer, "part"), buffer, "part############", CURLE_SSL_CONNECT_ERROR, 12},
                 {QueueAnswered(buffer, "part"), buffer, "part############", CURLE_WRITE_ERROR, 1}};
    for (const auto &each : cases) {
        strcpy(buffer, UNTOUCHED);
        completions.clear();
        Run({Done(each.req->ptReq, each.code)});
        const bool failed = each.code != CURLE_OK;
        ExpectLines(failed ? Lines{performed, FailedLine(GetParam().name, each.req->ptReq, each.code, each.result)}
                           : Lines{performed});
        ExpectCompletions({{each.req, failed ? 0U : 1U, each.result, each.buf}});
        EXPECT_STREQ(buffer, each.copied);
        EXPECT_TRUE(HasFinished(each.req));
    }
    const std::string answer(300000, 'a'); /* no bound */
    std::string large(answer.size() + 1, '#');
    Run({Done(QueueAnswered(large.data(), answer)->ptReq)});
    EXPECT_EQ(large, answer + "#");
}

TEST_P(WorkerComplete, ARefusedRemovalIsOnlyLogged)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    hooks::multi_remove_handle = [](CURLM *, CURL *) { return CURLM_BAD_EASY_HANDLE; };
    Run({Done(req->ptReq, CURLE_WRITE_ERROR)});
    hooks::multi_remove_handle = nullptr;
    ExpectLines({performed, FailedLine(GetParam().name, req->ptReq, CURLE_WRITE_ERROR, 1),
                 Error(GetParam().name, "[Error] curl_multi_remove_handle{%p} err{%d}.\n", Ptr(req->ptReq),
                       static_cast<int>(CURLM_BAD_EASY_HANDLE))});
    ExpectCompletions({{req, 0, 1, buffer}});
    EXPECT_TRUE(HasFinished(req));
}

TEST_P(WorkerComplete, ALostAnswerCopiesNothing)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    fake::FailRealloc(1);
    char byte = 'x';
    ASSERT_EQ(_HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData), 0U);
    Forget();
    Run({Done(req->ptReq, CURLE_WRITE_ERROR)});
    ExpectCompletions({{req, 0, 1, buffer}});
    EXPECT_STREQ(buffer, UNTOUCHED);
    EXPECT_TRUE(HasFinished(req));
    fake::FreeLostBlocks();
}

TEST_P(WorkerComplete, NotifiesThoughTheFinishListHasNoMemory)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    TNvrHttpCurlCltAsyncNode *const node = Nodes(task->tRunList)[0];
    fake::FailMalloc(1);
    Run({Done(req->ptReq)});
    ExpectLines({performed});
    ExpectCompletions({{req, 1, 0, buffer}});
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
    Run({Done(one->ptReq), Message(CURLMSG_LAST, nullptr), Done(two->ptReq, CURLE_OPERATION_TIMEDOUT)});
    ExpectCompletions({{one, 1, 0, buffer}, {two, 0, 10, second}});
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
    ExpectCompletions({{req, 1, 0, buffer}});
    EXPECT_EQ(task->tRunList.dwNumOfElem, 2U);
    ASSERT_EQ(NVRHCCListRemove(&task->tRunList, place, nullptr), 0U);
    noHandle->ptReq = easy;
}

/* --- messages that match no queued request -------------------------------------------------------------------- */

TEST_P(WorkerComplete, AStrangerBeforeTheFirstMatchIsDropped)
{
    HNvrHttpCurlCltReq req = QueueAnswered(buffer, "answer");
    Run({Done(stranger.get())});
    ExpectLines({performed});
    EXPECT_EQ(hooks::Calls("curl_multi_remove_handle"), 1U);
    EXPECT_TRUE(completions.empty());
    EXPECT_NE(FindListNode(task->tRunList, req), nullptr);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 0U);
    EXPECT_STREQ(buffer, UNTOUCHED);
    Run({Done(stranger.get()), Done(req->ptReq)});
    ExpectCompletions({{req, 1, 0, buffer}});
    QueueAnswered(nullptr, "");
    Run({Done(stranger.get())}); /* the match did not outlive its call */
    EXPECT_EQ(completions.size(), 1U);
    EXPECT_EQ(task->tFinList.dwNumOfElem, 1U);
    EXPECT_EQ(task->tRunList.dwNumOfElem, 1U);
}

TEST_P(WorkerComplete, AStrangerAfterAMatchCompletesTheNodeLastLookedAt)
{
    char oldest[16] = "########";
    HNvrHttpCurlCltReq last = QueueAnswered(oldest, "oldest");
    HNvrHttpCurlCltReq between = QueueAnswered(nullptr, "");
    HNvrHttpCurlCltReq matched = QueueAnswered(buffer, "answer");
    Run({Done(matched->ptReq), Message(CURLMSG_LAST, nullptr), Done(stranger.get(), CURLE_OPERATION_TIMEDOUT)});
    ExpectCompletions({{matched, 1, 0, buffer}, {last, 0, 10, oldest}});
    EXPECT_STREQ(oldest, "oldest##");
    ExpectLine(FailedLine(GetParam().name, stranger.get(), CURLE_OPERATION_TIMEDOUT, 10));

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
    HNvrHttpCurlCltReq matched = QueueAnswered(buffer, "answer");
    Run({Done(matched->ptReq), Done(stranger.get(), CURLE_COULDNT_CONNECT)});
    ExpectCompletions({{matched, 1, 0, buffer}, {matched, 0, 11, buffer}});
    const std::vector<TNvrHttpCurlCltAsyncNode *> finished = Nodes(task->tFinList);
    ASSERT_EQ(finished.size(), 2U);
    EXPECT_EQ(finished[1], finished[0]);
    EXPECT_EQ(finished[0]->ptReqIn, matched);
    ASSERT_EQ(NVRHCCListRemove(&task->tFinList, task->tFinList.ptTail, nullptr), 0U);
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

} // namespace
