/* Uninit: what it refuses, the end of the threads, the release of everything, requests included. */
#include <algorithm>
#include <atomic>
#include <map>

#include "tests/support/instance_fixture.h"

namespace
{

using namespace test;

const char *const UNINIT = "NvrHttpCurlCltUninit";
const char *const CLEANUP = "_NvrHttpCurlCltCleanup";

/* --- without requests -------------------------------------------------------------------------- */

class Uninit : public InstanceTest
{
  protected:
    static Line NotInited(HNvrHttpCurlCltInst instance)
    {
        return Error(UNINIT, "[Error] invalid arg, hInstance %p NOT inited\n", Ptr(instance));
    }
};

TEST_F(Uninit, OfNullOrAFreeSlotLogsAndDoesNothing)
{
    const std::vector<unsigned char> before = TableBytes();
    NvrHttpCurlCltUninit(nullptr);
    NvrHttpCurlCltUninit(Slot(4));
    ExpectLines({Error(UNINIT, "[Error] invalid arg, hInstance %p\n", Ptr(nullptr)), NotInited(Slot(4))});
    EXPECT_EQ(TableBytes(), before);
}

TEST_F(Uninit, ReleasesAllButTheEasyInitLocker)
{
    HNvrHttpCurlCltInst instance = MustStart(8);
    EXPECT_EQ(fake::SemsAlive(), 18U);
    Forget();
    NvrHttpCurlCltUninit(instance);
    EXPECT_TRUE(IsFree(instance));
    EXPECT_EQ(fake::SemsAlive(), 1U);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 8U);
    EXPECT_EQ(hooks::Calls("sendto"), 0U);
    EXPECT_EQ(fake::TasksWaited(), 8U);
    EXPECT_EQ(OpenDescriptors(), openBefore);
    ExpectLines({});
    NvrHttpCurlCltUninit(instance); /* finds nothing to do */
    ExpectLines({NotInited(instance)});
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 8U);
}

TEST_F(Uninit, OfAnInstanceWithoutTasks)
{
    NvrHttpCurlCltUninit(MustStart(0));
    EXPECT_TRUE(IsFree(Slot(0)));
    EXPECT_EQ(fake::SemsAlive(), 1U);
    EXPECT_EQ(fake::Frees(), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 0U);
}

TEST_F(Uninit, TrustsAnyOtherPointer)
{
    TNvrHttpCurlCltInst foreign = {};
    NvrHttpCurlCltUninit(&foreign);
    ExpectLines({NotInited(&foreign)});
    foreign.bInited = 1;
    foreign.tMemCB = fake::MemCB();
    foreign.dwAsyncReqNum = 3;
    foreign.dwAsyncReqMaxNum = 4;
    ASSERT_NE(OspSemBCreate(&foreign.hAsyncReqNumLock), 0U);
    NvrHttpCurlCltUninit(&foreign);
    EXPECT_TRUE(IsFree(&foreign));
    EXPECT_EQ(fake::SemsAlive(), 0U);
}

TEST_F(Uninit, LogsAFailedWaitAndGoesOn)
{
    HNvrHttpCurlCltInst instance = MustStart(2);
    fake::FailTaskWait(true);
    Forget();
    NvrHttpCurlCltUninit(instance);
    ExpectLines({Error(CLEANUP, "[Error] task wait failed, dwII %u\n", 0U),
                 Error(CLEANUP, "[Error] task wait failed, dwII %u\n", 1U)});
    EXPECT_TRUE(IsFree(instance));
    EXPECT_EQ(fake::SemsAlive(), 1U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 2U);
    EXPECT_EQ(OpenDescriptors(), openBefore);
}

TEST_F(Uninit, LeavesOtherInstancesAlone)
{
    HNvrHttpCurlCltInst first = MustStart(2);
    HNvrHttpCurlCltInst second = MustStart(2);
    NvrHttpCurlCltUninit(first);
    EXPECT_EQ(second->bInited, 1U);
    EXPECT_EQ(second->dwTaskNum, 2U);
    EXPECT_EQ(second->atTasks[1].bExit, 0U);
    EXPECT_TRUE(IsOpen(second->atTasks[1].tUdpMonitorSock.nSock));
    EXPECT_FALSE(fake::Tasks().at(2).waited);
}

TEST_F(Uninit, ClearsTheTaskRecordsBeforeItReleasesThem)
{
    TNvrHttpCurlCltTask last[2] = {};
    onFree = [&last](void *block) {
        if (block == Slot(0)->atTasks) {
            memcpy(last, block, sizeof(last));
        }
    };
    for (const bool waitFails : {false, true}) {
        SCOPED_TRACE(waitFails);
        fake::FailTaskWait(waitFails);
        memset(last, 0xA5, sizeof(last));
        NvrHttpCurlCltUninit(MustStart(2, 8, SpyMemCB()));
        for (const TNvrHttpCurlCltTask &task : last) {
            EXPECT_EQ(task.hTask, nullptr);
            EXPECT_EQ(task.qwTaskID, 0U);
            EXPECT_EQ(task.bExit, 1U);
            EXPECT_EQ(task.hRunLock, nullptr);
            EXPECT_EQ(task.hFinLock, nullptr);
            EXPECT_EQ(task.tRunList.dwNumOfElem, 0U);
            EXPECT_EQ(task.tFinList.dwNumOfElem, 0U);
            EXPECT_EQ(task.tUdpMonitorSock.nSock, 0);
            EXPECT_EQ(task.tUdpMonitorSock.bInit, 1U);
            EXPECT_EQ(task.ptCurlMultiHandle, nullptr);
        }
    }
}

TEST_F(Uninit, EndsThreadsThatHaveHardlyBegun)
{
    fake::RunTasks(true);
    NvrHttpCurlCltUninit(MustStart(16));
    EXPECT_EQ(fake::TasksWaited(), 16U);
    EXPECT_TRUE(IsFree(Slot(0)));
    EXPECT_EQ(fake::SemsAlive(), 1U);
    for (int i = 0; i < 20; ++i) {
        NvrHttpCurlCltUninit(MustStart(4));
    }
    EXPECT_EQ(fake::TasksWaited(), 96U);
}

TEST_F(Uninit, MarksEveryTaskBeforeItWaitsForTheFirst)
{
    constexpr unsigned TASKS = 4;
    std::atomic<bool> armed{false};
    std::atomic<unsigned> waiting{0};
    std::atomic<unsigned> gaveUp{0};
    const auto allMarked = [] {
        for (unsigned i = 0; i < TASKS; ++i) {
            if (__atomic_load_n(&Slot(0)->atTasks[i].bExit, __ATOMIC_RELAXED) == 0) {
                return false;
            }
        }
        return true;
    };
    /* Once armed, no worker leaves its wait before all of them are marked for their end. */
    hooks::multi_wait = [&](CURLM *multi, curl_waitfd *extra, unsigned number, int, int *ready) {
        if (armed) {
            ++waiting;
            gaveUp += WaitUntil(allMarked) ? 0 : 1;
        }
        return hooks::real::multi_wait(multi, extra, number, 1, ready);
    };
    fake::RunTasks(true);
    HNvrHttpCurlCltInst instance = MustStart(TASKS);
    armed = true;
    ASSERT_TRUE(WaitUntil([&] { return waiting == TASKS; }));
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(gaveUp, 0U);
    EXPECT_EQ(waiting, TASKS);
}

TEST_F(Uninit, ReleasesTheRequestsOfRunningThreads)
{
    std::atomic<unsigned> performed{0};
    hooks::multi_perform = [&performed](CURLM *, int *running) {
        *running = 1;
        ++performed;
        return CURLM_OK;
    };
    fake::RunTasks(true);
    HNvrHttpCurlCltInst instance = MustStart(2, 32);
    for (int i = 0; i < 20; ++i) {
        MustQueue(instance);
    }
    EXPECT_TRUE(WaitUntil([&performed] { return performed > 0; }));
    EXPECT_EQ(instance->dwAsyncReqNum, 20U);
    NvrHttpCurlCltUninit(instance);
    EXPECT_TRUE(IsFree(instance));
    EXPECT_TRUE(completions.empty());
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 20U);
    EXPECT_EQ(fake::SemsAlive(), 1U);
}

/* --- with requests outstanding --------------------------------------------------------------- */

/* Two tasks; requests go to the one with the shorter run list, the first of them on a tie. */
class UninitWithRequests : public InstanceTest
{
  protected:
    void SetUp() override
    {
        InstanceTest::SetUp();
        /* Adding a handle performs at once; nothing may be sent. */
        hooks::multi_perform = [](CURLM *, int *running) {
            *running = 1;
            return CURLM_OK;
        };
        hooks::multi_remove_handle = [this](CURLM *multi, CURL *easy) {
            events.push_back("remove " + names[easy]);
            EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), TaskOf(multi)) << "those of the tasks before";
            return hooks::real::multi_remove_handle(multi, easy);
        };
        hooks::easy_cleanup = [this](CURL *easy) {
            EXPECT_EQ(fake::TasksWaited(), 2U) << "every thread is joined before anything is released";
            events.push_back("easy " + names[easy] + Text(" with %zu semaphores", fake::SemsAlive()));
            hooks::real::easy_cleanup(easy);
        };
        hooks::multi_cleanup = [this](CURLM *multi) {
            const unsigned index = TaskOf(multi);
            events.push_back(Text("multi %u with %zu semaphores, sockets", index, fake::SemsAlive()) +
                             (IsOpen(sockets[0]) ? " open" : " closed") + (IsOpen(sockets[1]) ? " open" : " closed"));
            return hooks::real::multi_cleanup(multi);
        };
        instance = MustStart(2, 8, SpyMemCB());
        for (unsigned i = 0; i < 2; ++i) {
            sockets[i] = instance->atTasks[i].tUdpMonitorSock.nSock;
            multiHandles[i] = instance->atTasks[i].ptCurlMultiHandle;
        }
        onFree = [this](void *block) {
            if (block == instance->atTasks) {
                events.push_back(Text("tasks with %zu semaphores", fake::SemsAlive()));
            }
        };
    }

    void TearDown() override
    {
        EXPECT_TRUE(completions.empty());
        EXPECT_EQ(hooks::Calls("curl_easy_init"), hooks::Calls("curl_easy_cleanup"));
        EXPECT_EQ(fake::SemsAlive(), 1U);
        InstanceTest::TearDown();
    }

    unsigned TaskOf(CURLM *multi) const
    {
        return multi == multiHandles[0] ? 0 : 1;
    }

    HNvrHttpCurlCltReq Queue(const std::string &name)
    {
        HNvrHttpCurlCltReq request = MustQueue(instance);
        names[request->ptReq] = name;
        return request;
    }

    void Add(unsigned task)
    {
        EXPECT_GT(_NvrHttpCurlClt_CheckAddMultiHandle(&instance->atTasks[task], multiHandles[task]), 0U);
    }

    HNvrHttpCurlCltInst instance = nullptr;
    int sockets[2] = {-1, -1};
    CURLM *multiHandles[2] = {nullptr, nullptr};
    std::map<CURL *, std::string> names;
    std::vector<std::string> events;
};

TEST_F(UninitWithRequests, TakesThoseInFlightOutOfTheMultiHandleFirst)
{
    Queue("a");
    Queue("b");
    Add(0);
    Add(1);
    events.clear();
    NvrHttpCurlCltUninit(instance);
    for (const char *name : {"a", "b"}) {
        const auto removed = std::find(events.begin(), events.end(), std::string("remove ") + name);
        const auto released = std::find_if(events.begin(), events.end(), [name](const std::string &event) {
            return event.rfind(std::string("easy ") + name, 0) == 0;
        });
        ASSERT_NE(removed, events.end()) << name;
        ASSERT_NE(released, events.end()) << name;
        EXPECT_LT(removed, released) << name;
        EXPECT_EQ(std::count(events.begin(), events.end(), *removed), 1) << name;
    }
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 2U);
}

TEST_F(UninitWithRequests, ReleasesLocksListsSocketAndMultiHandleTaskByTask)
{
    HNvrHttpCurlCltReq finished[] = {Queue("finished0"), Queue("finished1")};
    Finish(instance->atTasks[0], finished[0]);
    Finish(instance->atTasks[1], finished[1]);
    Queue("queued0");
    Queue("queued1");
    ASSERT_EQ(fake::SemsAlive(), 6U);
    events.clear();
    NvrHttpCurlCltUninit(instance);
    /* Handles that were never added may be taken out too; that is not what is looked at here. */
    events.erase(std::remove_if(events.begin(), events.end(),
                                [](const std::string &event) { return event.rfind("remove ", 0) == 0; }),
                 events.end());
    EXPECT_EQ(events, (std::vector<std::string>{"easy queued0 with 5 semaphores", "easy finished0 with 4 semaphores",
                                                "multi 0 with 4 semaphores, sockets closed open",
                                                "easy queued1 with 3 semaphores", "easy finished1 with 2 semaphores",
                                                "multi 1 with 2 semaphores, sockets closed closed",
                                                "tasks with 2 semaphores"}));
}

/* A worker that meets a foreign completion can put a node into the finish list a second time. */
TEST_F(UninitWithRequests, ReleasesANodeThatIsLinkedTwiceOnce)
{
    HNvrHttpCurlCltReq finished = Queue("a");
    Queue("b");
    Queue("c");
    TNvrHttpCurlCltTask *task = &instance->atTasks[0];
    Add(0);
    Finish(*task, finished);
    ASSERT_EQ(task->tRunList.dwNumOfElem, 1U);
    for (void *node : {task->tFinList.ptHead->pvData, task->tFinList.ptHead->pvData, task->tRunList.ptHead->pvData}) {
        ASSERT_EQ(NVRHCCListInsertAfter(&task->tFinList, nullptr, node, nullptr), 0U);
    }
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 3U);
}

TEST_F(UninitWithRequests, LeavesSynchronousRequestsToTheirOwner)
{
    HNvrHttpCurlCltReq request = MustPrepare(instance);
    const TNvrHttpCurlCltMemCB memory = instance->tMemCB;
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0U);
    EXPECT_GT(fake::BlocksAlive(), 0U);

    /* Such a request is invalid now; the case borrows the slot's callbacks once more to get rid of it. */
    instance->tMemCB = memory;
    _FreeTNvrHttpCurlCltReqInner(request);
    instance->tMemCB = {};
}

} // namespace
