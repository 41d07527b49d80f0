/* The destruction of requests, and the locks under which submission and destruction work. */
#include "tests/support/execute_fixture.h"
#include "tests/support/race.h"

namespace
{

using namespace test;

const char DESTROY[] = "NvrHttpCurlCltReqDestroy";

class ExecuteDestroy : public ExecuteTest
{
  protected:
    void SetUp() override
    {
        Start(3, 1024);
        task = &inst->atTasks[0];
    }

    /* The numbered line about the lengths of the lists. */
    static Line Counts(int number, uint32_t finished, uint32_t running)
    {
        const std::string format = " " + std::to_string(number) + " tFinList.dwNumOfElem %u, tRunList.dwNumOfElem %u\n";
        Line line = Info(DESTROY, " %d tFinList.dwNumOfElem %u, tRunList.dwNumOfElem %u\n", number, finished, running);
        line.format = format;
        return line;
    }

    static Line Missing(HNvrHttpCurlCltReq req)
    {
        return Error(DESTROY, "[Error] cannot find node for ptReqIn %p, taskindex %u\n", Ptr(req), req->dwTaskIndex);
    }

    static Line NoCount()
    {
        return Error(DESTROY, "[Error] invalid dwAsyncReqNum %u\n", 0U);
    }

    /* Destroys the request; expected are these lines after the first one. */
    static void DestroyExpecting(HNvrHttpCurlCltReq req, const Lines &lines)
    {
        const Line begin = Info(DESTROY, " begin destroy req %p\n", Ptr(req));
        NvrHttpCurlCltReqDestroy(req);
        ExpectLines(Lines{begin} + lines);
    }

    void ExpectNothingLeft()
    {
        EXPECT_EQ(inst->dwAsyncReqNum, 0U);
        EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    }

    TNvrHttpCurlCltTask *task = nullptr; /* the first */
};

TEST_F(ExecuteDestroy, NeedsARequest)
{
    NvrHttpCurlCltReqDestroy(nullptr);
    ExpectLines({Error(DESTROY, "[Error] invalid arg, hReq %p\n", Ptr(nullptr))});
}

TEST_F(ExecuteDestroy, ARequestThatWasNeverSubmittedHasNoNumberedLines)
{
    HNvrHttpCurlCltReq req = CreatePrepared("http://127.0.0.1/", "body");
    const size_t handles = hooks::Calls("curl_easy_cleanup");
    DestroyExpecting(req, {});
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), handles + 1);
    req = Create();
    req->dwTaskIndex = 4; /* no task */
    DestroyExpecting(req, {});
    ExpectNothingLeft();
}

TEST_F(ExecuteDestroy, ANodeInNeitherListIsOnlyLogged)
{
    HNvrHttpCurlCltReq req = Create();
    fake::FailMalloc(2);
    ASSERT_EQ(Submit(req), 1U);
    Forget();
    DestroyExpecting(req, {Counts(1, 0, 0), Missing(req), Counts(2, 0, 0), Counts(3, 0, 0), Missing(req),
                           Counts(4, 0, 0), Counts(5, 0, 0)});
    ExpectNothingLeft();
}

/* The count of requests does not fall below zero. */
TEST_F(ExecuteDestroy, AFinishedRequestHasLinesOneTwoAndFive)
{
    DestroyExpecting(CreateFinished(), {Counts(1, 1, 0), Counts(2, 0, 0), Counts(5, 0, 0)});
    HNvrHttpCurlCltReq req = CreateFinished();
    inst->dwAsyncReqNum = 0;
    DestroyExpecting(req, {Counts(1, 1, 0), NoCount(), Counts(2, 0, 0), Counts(5, 0, 0)});
    ExpectNothingLeft();
}

TEST_F(ExecuteDestroy, AQueuedRequestHasAllFive)
{
    HNvrHttpCurlCltReq req = CreateQueued();
    DestroyExpecting(
        req, {Counts(1, 0, 1), Missing(req), Counts(2, 0, 1), Counts(3, 0, 1), Counts(4, 0, 0), Counts(5, 0, 0)});
    req = CreateQueued();
    inst->dwAsyncReqNum = 0;
    DestroyExpecting(req, {Counts(1, 0, 1), Missing(req), Counts(2, 0, 1), Counts(3, 0, 1), NoCount(), Counts(4, 0, 0),
                           Counts(5, 0, 0)});
    ExpectNothingLeft();
}

TEST_F(ExecuteDestroy, TakesItsOwnNodeOnly)
{
    SubmitMany(15);
    for (const size_t i : {0U, 3U, 6U}) {
        Finish(*task, requests[i]);
    }
    DestroyExpecting(requests[3], {Counts(1, 3, 2), Counts(2, 2, 2), Counts(5, 2, 2)});
    EXPECT_EQ(task->tFinList.dwNumOfElem, 2U);
    EXPECT_EQ(RequestsIn(task->tFinList), (std::vector<HNvrHttpCurlCltReq>{requests[0], requests[6]}));
    HNvrHttpCurlCltReq queued = requests[7];
    DestroyExpecting(
        queued, {Counts(1, 0, 5), Missing(queued), Counts(2, 0, 5), Counts(3, 0, 5), Counts(4, 0, 4), Counts(5, 0, 4)});
    EXPECT_EQ(RequestsIn(inst->atTasks[1].tRunList),
              (std::vector<HNvrHttpCurlCltReq>{requests[13], requests[10], requests[4], requests[1]}));
    EXPECT_EQ(inst->dwAsyncReqNum, 13U);
    requests.erase(requests.begin() + 7);
    requests.erase(requests.begin() + 3);
}

TEST_F(ExecuteDestroy, ARecordWithoutAnEasyHandleIsLeftAlone)
{
    HNvrHttpCurlCltReq req = CreateQueued();
    CURL *const easy = req->ptReq;
    req->ptReq = nullptr;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(task->tRunList.dwNumOfElem, 0U);
    EXPECT_EQ(inst->dwAsyncReqNum, 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 1);
    req->dwTaskIndex = 0;
    req->ptReq = easy;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(ExecuteDestroy, TheNodeGoesBackThroughTheRequestsCallback)
{
    HNvrHttpCurlCltReq req = CreateFinished();
    void *const node = Nodes(task->tFinList)[0];
    req->pfFree = KeepInsteadOfFreeing;
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(released, std::vector<void *>{node});
    inst->tMemCB.pfFree(node);
}

/* --- the locks of the lists --------------------------------------------------------------------- */

/* The lists' memory callbacks are called where a list changes, so they see who holds what. */
const TNvrHttpCurlCltTask *watched = nullptr;
using Changes = std::vector<std::string>;
Changes changes;

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
    HNvrHttpCurlCltReq finished = CreateFinished();
    watched = task;
    for (TNVRHCCList *list : {&task->tRunList, &task->tFinList}) {
        list->pfMalloc = NotingMalloc;
        list->pfFree = NotingFree;
    }
    HNvrHttpCurlCltReq req = CreateQueued();
    EXPECT_EQ(std::exchange(changes, {}), Changes{"insert run"});
    EXPECT_EQ(Submit(finished), 0U);
    EXPECT_EQ(std::exchange(changes, {}), (Changes{"remove fin", "insert run"}));
    NvrHttpCurlCltReqDestroy(req);
    EXPECT_EQ(changes, Changes{"remove run"});
    Finish(*task, finished);
    changes.clear();
    NvrHttpCurlCltReqDestroy(finished);
    EXPECT_EQ(changes, Changes{"remove fin"});
    for (TNVRHCCList *list : {&task->tRunList, &task->tFinList}) {
        list->pfMalloc = fake::MemCB().pfMalloc;
        list->pfFree = fake::MemCB().pfFree;
    }
}

TEST_F(ExecuteDestroy, ThreadsSubmitAndDestroyAtOnce)
{
    Race(4, [this](unsigned) {
        HNvrHttpCurlCltReq mine[40] = {};
        for (HNvrHttpCurlCltReq &req : mine) {
            EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 0U);
            EXPECT_EQ(Submit(req), 0U);
        }
        for (size_t i = 0; i < std::size(mine); i += 2) {
            NvrHttpCurlCltReqDestroy(mine[i]);
        }
    });
    EXPECT_EQ(inst->dwAsyncReqNum, 80U);
    for (uint32_t i = 0; i < 3; ++i) {
        const std::vector<HNvrHttpCurlCltReq> queued = RequestsIn(inst->atTasks[i].tRunList);
        EXPECT_EQ(inst->atTasks[i].tRunList.dwNumOfElem, queued.size());
        requests.insert(requests.end(), queued.begin(), queued.end());
    }
    EXPECT_EQ(requests.size(), 80U);
}

} // namespace
