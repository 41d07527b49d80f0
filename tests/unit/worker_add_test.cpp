/* The worker adds the queued requests of its task to the multi handle. */
#include "tests/support/worker_fixture.h"

namespace
{

using namespace test;

class WorkerAdd : public WorkerTest
{
  protected:
    void SetUp() override
    {
        WorkerTest::SetUp();
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

    const Lines performed = {Running(PERFORM_EX, 0)};
};

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
    ExpectLines(Added(req) + Lines{Running(PERFORM_EX, 3)});
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

TEST_F(WorkerAdd, AnEmptyRunListAndWhatIsInflightIsNothingToAdd)
{
    EXPECT_EQ(Add(), 0U);
    ExpectLines({});
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 0U);
    EXPECT_FALSE(AnyLockTaken());
    Queue();
    EXPECT_EQ(Add(), 1U);
    Forget();
    EXPECT_EQ(Add(), 0U);
    ExpectLines({});
    EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), 1U);
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 1U);
    HNvrHttpCurlCltReq later = Queue();
    EXPECT_EQ(Add(), 1U);
    ExpectLines(Added(later) + performed);
}

TEST_F(WorkerAdd, ARefusedHandleIsTriedAgain)
{
    HNvrHttpCurlCltReq req = Queue();
    hooks::multi_add_handle = [](CURLM *, CURL *) { return CURLM_OUT_OF_MEMORY; };
    EXPECT_EQ(Add(), 0U);
    ExpectLines(Refused(req, CURLM_OUT_OF_MEMORY));
    EXPECT_EQ(InMulti(req), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 0U);
    EXPECT_FALSE(AnyLockTaken());
    PlayLibcurl();
    EXPECT_EQ(Add(), 1U);
    ExpectLines(Added(req) + performed);
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
    ExpectLines(Refused(newer, CURLM_BAD_EASY_HANDLE) + Added(older) + performed);
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
    ExpectLines(Added(older) + performed);
    EXPECT_EQ(InMulti(noHandle), 0U);
    noHandle->ptReq = easy;
    ASSERT_EQ(NVRHCCListRemove(&task->tRunList, empty, nullptr), 0U);
}

TEST_F(WorkerAdd, CompletesWhatEndsAtOnce)
{
    HNvrHttpCurlCltReq req = Queue();
    messages = {Done(req->ptReq, CURLE_COULDNT_CONNECT)};
    EXPECT_EQ(Add(), 1U);
    ExpectCompletions({{req, 0, 11, nullptr}});
    ExpectLines(Added(req) + performed + Lines{FailedLine(PERFORM_EX, req->ptReq, CURLE_COULDNT_CONNECT, 11)});
}

} // namespace
