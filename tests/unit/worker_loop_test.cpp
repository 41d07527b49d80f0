/* The worker's loop: its passes, a bad multi handle, real transfers. */
#include <netinet/in.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/worker_fixture.h"

namespace
{

using namespace test;

const char ROUTINE[] = "_NvrHttpCurlCltWorkerRoutine";

const int KEEP_COUNT = -12345;

/* One return of the wait. */
struct Step {
    CURLMcode code;
    int count; /* KEEP_COUNT: not written, as a failed wait does */
    bool wakeUp;
};

/* The state when a wait began. */
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

class WorkerLoop : public WorkerTest
{
  protected:
    void SetUp() override
    {
        WorkerTest::SetUp();
        hooks::multi_perform = [](CURLM *, int *) { return CURLM_OK; };
        hooks::multi_info_read = NextMessage;
        hooks::sys_recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) -> ssize_t { return 2; };
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
                AskToExit();
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
    std::string Pass(size_t index) const
    {
        const Seen &from = seen[index];
        const Seen &to = seen[index + 1];
        std::string text = Text("performs %zu, reads %zu, rests", to.performs - from.performs, to.reads - from.reads);
        for (size_t i = from.delays; i < to.delays; ++i) {
            text += Text(" %u", fake::Delays()[i]);
        }
        return text;
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
    AskToExit();
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
        EXPECT_EQ(Pass(pass), "performs 0, reads 0, rests 2");
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
    EXPECT_EQ(Pass(0), "performs 1, reads 0, rests 2");
    ExpectLoopLines({Active(1), Running(PERFORM, 1)});
}

TEST_F(WorkerLoop, AWakeUpAloneIsReadAndNothingElse)
{
    Run({{CURLM_OK, 1, true}});
    EXPECT_EQ(Pass(0), "performs 0, reads 1, rests");
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
    EXPECT_EQ(Pass(0), "performs 1, reads 1, rests 2");
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

TEST_F(WorkerLoop, AnEmptyDatagramAndAFailedReadCountAsRead)
{
    hooks::sys_recvfrom = [reads = 0](int, void *, size_t, int, sockaddr *, socklen_t *) mutable -> ssize_t {
        return reads++ == 0 ? 0 : -1;
    };
    Run({{CURLM_OK, 1, true}, {CURLM_OK, 1, true}, {CURLM_OK, 2, true}});
    ExpectLoopLines({Active(1), Read(0), WakeUpOnly(), Active(1), ReadFailed(), WakeUpOnly(), Active(2), ReadFailed(),
                     Running(PERFORM, 0)});
}

TEST_F(WorkerLoop, OtherEventsOfTheSocketAreNoWakeUp)
{
    size_t waits = 0;
    hooks::multi_wait = [&](CURLM *, curl_waitfd *fds, unsigned, int, int *count) {
        fds->revents = CURL_WAIT_POLLOUT;
        *count = ++waits == 1 ? 1 : 0;
        if (waits == 2) {
            AskToExit();
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
            AskToExit();
        }
        return hooks::real::multi_wait(waited, fds, number, timeout, count);
    };
    _NvrHttpCurlCltWorkerRoutine(task);
    ASSERT_EQ(seen.size(), 4U);
    EXPECT_EQ(Pass(0), "performs 0, reads 1, rests");
    EXPECT_EQ(Pass(1), "performs 0, reads 1, rests");
    EXPECT_EQ(Pass(2), "performs 0, reads 0, rests 2");
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 0U);
    ExpectLoopLines({Active(1), Read(2), WakeUpOnly(), Active(1), Read(2), WakeUpOnly()});
}

TEST_F(WorkerLoop, AFailedWaitIsLoggedAndTheLoopGoesOn)
{
    Run({{CURLM_INTERNAL_ERROR, KEEP_COUNT, false}, {CURLM_OK, 1, false}});
    EXPECT_EQ(Pass(0), "performs 0, reads 0, rests 2");
    EXPECT_EQ(Pass(1), "performs 1, reads 0, rests 2");
    ExpectLoopLines({WaitFailed(CURLM_INTERNAL_ERROR), Active(1), Running(PERFORM, 0)});
}

TEST_F(WorkerLoop, AFailedWaitKeepsTheCountButNoWakeUp)
{
    Run({{CURLM_OK, 2, true},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT, false},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT, false},
         {CURLM_OK, 0, false},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT, false}});
    EXPECT_EQ(Pass(0), "performs 1, reads 1, rests 2");
    for (const size_t pass : {1U, 2U}) {
        EXPECT_EQ(seen[pass].count, 1);
        EXPECT_EQ(seen[pass].returned, 0);
        EXPECT_EQ(Pass(pass), "performs 1, reads 0, rests 2");
    }
    EXPECT_EQ(Pass(4), "performs 0, reads 0, rests 2");
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
    EXPECT_EQ(Pass(0), "performs 0, reads 0, rests 2");
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
    const Lines pass = {Active(1), Running(PERFORM, 0)};
    ExpectLoopLines(pass + Replaced(multi, made[0]) + pass);
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
    ExpectLoopLines(Replaced(multi, nullptr) + Replaced(nullptr, nullptr) + Replaced(nullptr, made[2]));
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
    EXPECT_EQ(Pass(0), "performs 1, reads 0, rests 2");
    EXPECT_EQ(Pass(1), "performs 1, reads 1, rests");
}

TEST_F(WorkerLoop, ARefusedHandleIsTriedAgainInTheNextPass)
{
    PlayLibcurl();
    HNvrHttpCurlCltReq req = Queue();
    size_t tries = 0;
    hooks::multi_add_handle = [&](CURLM *, CURL *) { return ++tries == 1 ? CURLM_OUT_OF_MEMORY : CURLM_OK; };
    Run({{CURLM_OK, 0, false}, {CURLM_OK, 0, false}});
    EXPECT_EQ(tries, 2U);
    ExpectLoopLines(Refused(req, CURLM_OUT_OF_MEMORY) + Added(req) + Lines{Running(PERFORM_EX, 0)});
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

/* --- real transfers --------------------------------------------------------------------------------------- */

class WorkerTransfer : public WorkerTest
{
  protected:
    /* Runs the worker over the real libcurl until the condition holds when a wait begins. */
    void RunUntil(const std::function<bool()> &condition)
    {
        AskToExit(false);
        const auto limit = std::chrono::steady_clock::now() + PATIENCE;
        hooks::multi_wait = [&](CURLM *waited, curl_waitfd *fds, unsigned number, int timeout, int *count) {
            ++waits;
            const bool late = std::chrono::steady_clock::now() > limit;
            EXPECT_FALSE(late) << fake::Transcript();
            if (late || condition()) {
                AskToExit();
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
