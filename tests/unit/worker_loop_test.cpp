/* The worker's loop: its passes, a bad multi handle, real transfers. */
#include <netinet/in.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "tests/support/worker_fixture.h"

namespace
{

using namespace test;

const char ROUTINE[] = "_NvrHttpCurlCltWorkerRoutine";

const int KEEP_COUNT = -12345;
const short WAKE_UP = CURL_WAIT_POLLIN;

/* One return of the wait. */
struct Step {
    CURLMcode code;
    int count;        /* KEEP_COUNT: not written, as a failed wait does */
    short events = 0; /* those of the wake-up socket */
};

const Step BAD = {CURLM_BAD_HANDLE, KEEP_COUNT};

const Line READ_FAILED = Info(ROUTINE, " [udp socket]recvfrom err, break.\n");
const Line WAKE_UP_ONLY = Info(ROUTINE, " udp socket done, continue wait.\n");

/* The state when a wait began. */
struct Seen {
    CURLM *multi;
    unsigned number;
    int timeout;
    curl_waitfd wakeUp;
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
        PlayLibcurl();
        hooks::sys_recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) -> ssize_t { return 2; };
    }

    void Note(CURLM *waited, const curl_waitfd *fds, unsigned number, int timeout, const int *count)
    {
        seen.push_back({waited, number, timeout, *fds, *count, hooks::Calls("curl_multi_perform"),
                        fake::Delays().size(), hooks::Calls("recvfrom"), AnyLockTaken(),
                        __atomic_load_n(&task->ptCurlMultiHandle, __ATOMIC_RELAXED)});
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
            if (index > steps.size() + 10) {
                fprintf(stderr, "the worker does not leave\n");
                abort();
            }
            if (index >= steps.size()) {
                AskToExit();
            }
            const Step step = index < steps.size() ? steps[index] : Step{CURLM_OK, 0};
            *count = step.count == KEEP_COUNT ? *count : step.count;
            fds->revents = static_cast<short>(fds->revents | step.events);
            return step.code;
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

    static Line WaitFailed(CURLMcode code)
    {
        return Error(ROUTINE, "[Error] curl_multi_wait() failed, code %d.\n", code);
    }

    static Lines Replaced(CURLM *bad, CURLM *fresh)
    {
        return {Error(ROUTINE, "[Error] curl_multi_wait() return err{%d}, ptCurlMultiHandle{%p} is bad.\n",
                      CURLM_BAD_HANDLE, Ptr(bad)),
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

TEST_F(WorkerLoop, NamesItsThreadAndGoesOnWithoutAName)
{
    std::vector<std::string> names;
    hooks::sys_set_name = [&](const char *name) {
        names.push_back(name);
        return -1;
    };
    Run({});
    EXPECT_EQ(names, std::vector<std::string>{task->szThreadName});
    const Lines start = StartLines();
    ExpectLines(
        {start[0], Error(ROUTINE, "[Error] HCThreadSetName() failed, name{%s}\n", task->szThreadName), start[1]});
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
    Run({{CURLM_OK, 0}});
    for (const Seen &wait : seen) {
        EXPECT_EQ(wait.multi, multi);
        EXPECT_EQ(wait.number, 1U);
        EXPECT_EQ(wait.timeout, 50);
        EXPECT_EQ(wait.wakeUp.fd, task->tUdpMonitorSock.nSock);
        EXPECT_EQ(wait.wakeUp.events, CURL_WAIT_POLLIN);
        EXPECT_EQ(wait.wakeUp.revents, 0);
        EXPECT_FALSE(wait.locked);
    }
    EXPECT_EQ(seen[0].count, 0);
}

TEST_F(WorkerLoop, PerformsOnActivityAndReadsWakeUps)
{
    const struct {
        Step step;
        std::string pass;
        Lines lines;
        int countAfter;
    } cases[] = {
        {{CURLM_OK, 0}, "performs 0, reads 0, rests 2", {}, 0},
        {{CURLM_OK, -1}, "performs 0, reads 0, rests 2", {}, -1},
        {{CURLM_OK, 1}, "performs 1, reads 0, rests 2", {Active(1), Running(PERFORM, 1)}, 1},
        {{CURLM_OK, 1, WAKE_UP}, "performs 0, reads 1, rests", {Active(1), Read(2), WAKE_UP_ONLY}, 0},
        {{CURLM_OK, 3, WAKE_UP}, "performs 1, reads 1, rests 2", {Active(3), Read(2), Running(PERFORM, 1)}, 2},
        {{CURLM_OK, 1, CURL_WAIT_POLLOUT}, "performs 1, reads 0, rests 2", {Active(1), Running(PERFORM, 1)}, 1}};
    std::vector<size_t> readsBefore;
    hooks::multi_perform = [&](CURLM *of, int *running) {
        EXPECT_EQ(of, multi);
        EXPECT_FALSE(AnyLockTaken());
        EXPECT_EQ(fake::Delays().size(), seen.back().delays);
        readsBefore.push_back(hooks::Calls("recvfrom"));
        *running = 1;
        return CURLM_OK;
    };
    std::vector<Step> steps;
    Lines lines;
    for (const auto &each : cases) {
        steps.push_back(each.step);
        lines = lines + each.lines;
    }
    Run(steps);
    ExpectLoopLines(lines);
    EXPECT_EQ(readsBefore, (std::vector<size_t>{0, 2, 2})) << "a pass reads before it performs";
    for (size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(Pass(i), cases[i].pass) << i;
        EXPECT_EQ(seen[i + 1].count, cases[i].countAfter) << i;
    }
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
    Run({{CURLM_OK, 1, WAKE_UP}, {CURLM_OK, 1, WAKE_UP}});
    EXPECT_EQ(calls, 2U);
    ExpectLoopLines({Active(1), Read(256), WAKE_UP_ONLY, Active(1), Read(256), WAKE_UP_ONLY});
}

TEST_F(WorkerLoop, AnEmptyDatagramAndAFailedReadCountAsRead)
{
    ssize_t result = 1;
    hooks::sys_recvfrom = [&](int, void *, size_t, int, sockaddr *, socklen_t *) { return --result; };
    Run({{CURLM_OK, 1, WAKE_UP}, {CURLM_OK, 1, WAKE_UP}, {CURLM_OK, 2, WAKE_UP}});
    ExpectLoopLines({Active(1), Read(0), WAKE_UP_ONLY, Active(1), READ_FAILED, WAKE_UP_ONLY, Active(2), READ_FAILED,
                     Running(PERFORM, 0)});
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
    ExpectLoopLines({Active(1), Read(2), WAKE_UP_ONLY, Active(1), Read(2), WAKE_UP_ONLY});
}

TEST_F(WorkerLoop, AFailedWaitIsLoggedAndKeepsTheCountButNoWakeUp)
{
    Run({{CURLM_INTERNAL_ERROR, KEEP_COUNT},
         {CURLM_OK, 2, WAKE_UP},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT},
         {CURLM_OK, 0},
         {CURLM_OUT_OF_MEMORY, KEEP_COUNT}});
    EXPECT_EQ(Pass(0), "performs 0, reads 0, rests 2");
    EXPECT_EQ(Pass(1), "performs 1, reads 1, rests 2");
    for (const size_t pass : {2U, 3U}) {
        EXPECT_EQ(seen[pass].count, 1);
        EXPECT_EQ(seen[pass].wakeUp.revents, 0);
        EXPECT_EQ(Pass(pass), "performs 1, reads 0, rests 2");
    }
    EXPECT_EQ(Pass(5), "performs 0, reads 0, rests 2");
    const Line failed = WaitFailed(CURLM_OUT_OF_MEMORY);
    const Lines active = {Active(1), Running(PERFORM, 0)};
    ExpectLoopLines(Lines{WaitFailed(CURLM_INTERNAL_ERROR), Active(2), Read(2), Running(PERFORM, 0), failed} + active +
                    Lines{failed} + active + Lines{failed});
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

    /* The handle of each wait. */
    std::vector<CURLM *> Waited() const
    {
        std::vector<CURLM *> handles;
        for (const Seen &wait : seen) {
            handles.push_back(wait.multi);
        }
        return handles;
    }

    std::vector<CURLM *> cleaned;
    std::vector<CURLM *> made;
    int noHandles = 0;
};

TEST_F(WorkerBadHandle, IsReplacedAndTheLastOneHandedBackOnLeaving)
{
    Run({BAD, BAD, {CURLM_OK, 0}});
    ASSERT_EQ(made.size(), 2U);
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, made[0]}));
    EXPECT_EQ(Waited(), (std::vector<CURLM *>{multi, made[0], made[1], made[1]}));
    for (const Seen &wait : seen) {
        EXPECT_EQ(wait.multiOfTask, multi);
    }
    EXPECT_EQ(Pass(0), "performs 0, reads 0, rests 2");
    ExpectLoopLines(Replaced(multi, made[0]) + Replaced(made[0], made[1]));
    EXPECT_EQ(task->ptCurlMultiHandle, made[1]);
    Stop();
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, made[0], made[1]}));
    EXPECT_EQ(made.size(), 2U);
}

TEST_F(WorkerBadHandle, ThePassGoesOnWithTheNewHandle)
{
    std::vector<CURLM *> performed;
    hooks::multi_perform = [&](CURLM *of, int *) {
        performed.push_back(of);
        return CURLM_OK;
    };
    Run({{CURLM_OK, 1}, BAD});
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(performed, (std::vector<CURLM *>{multi, made[0]}));
    const Lines pass = {Active(1), Running(PERFORM, 0)};
    ExpectLoopLines(pass + Replaced(multi, made[0]) + pass);
}

TEST_F(WorkerBadHandle, ANullReplacementIsReplacedAgain)
{
    noHandles = 2;
    Run({BAD, BAD, BAD, {CURLM_OK, 0}});
    ASSERT_EQ(made.size(), 3U);
    ASSERT_NE(made[2], nullptr);
    EXPECT_EQ(Waited(), (std::vector<CURLM *>{multi, nullptr, nullptr, made[2], made[2]}));
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, nullptr, nullptr}));
    ExpectLoopLines(Replaced(multi, nullptr) + Replaced(nullptr, nullptr) + Replaced(nullptr, made[2]));
    Stop();
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, nullptr, nullptr, made[2]}));
}

TEST_F(WorkerBadHandle, LeavingWithoutAnyHandleReleasesNothingTwice)
{
    noHandles = 1;
    Run({BAD});
    EXPECT_EQ(task->ptCurlMultiHandle, nullptr);
    Stop();
    EXPECT_EQ(cleaned, (std::vector<CURLM *>{multi, nullptr}));
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
    Run({BAD, {CURLM_OK, 0}});
    ASSERT_EQ(made.size(), 1U);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(added, (std::vector<std::pair<CURLM *, CURL *>>{{multi, first->ptReq}, {made[0], second->ptReq}}));
    EXPECT_TRUE(completions.empty());
}

/* --- passes that add requests ------------------------------------------------------------------------------------- */

TEST_F(WorkerLoop, EachPassAddsWhatWasQueuedEvenWithoutAWakeUp)
{
    Queue();
    onWait = [this](size_t index) {
        EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), index + 1);
        if (index < 2) {
            Queue();
        }
    };
    Run({{CURLM_OK, 0}, {CURLM_OK, 1, WAKE_UP}});
    EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), 3U);
    EXPECT_EQ(Pass(0), "performs 1, reads 0, rests 2");
    EXPECT_EQ(Pass(1), "performs 1, reads 1, rests");
}

TEST_F(WorkerLoop, ARefusedHandleIsTriedAgainInTheNextPass)
{
    HNvrHttpCurlCltReq req = Queue();
    size_t tries = 0;
    hooks::multi_add_handle = [&](CURLM *, CURL *) { return ++tries == 1 ? CURLM_OUT_OF_MEMORY : CURLM_OK; };
    Run({{CURLM_OK, 0}, {CURLM_OK, 0}});
    EXPECT_EQ(tries, 2U);
    ExpectLoopLines(Refused(req, CURLM_OUT_OF_MEMORY) + Added(req) + Lines{Running(PERFORM_EX, 0)});
}

TEST_F(WorkerLoop, ASecondSubmissionFromTheCallbackRunsInTheNextPass)
{
    HNvrHttpCurlCltReq req = Queue();
    onCompletion = [&](const Completion &) {
        if (completions.size() == 1) {
            EXPECT_EQ(Submit(req), 0U);
        }
    };
    onWait = [&](size_t) { messages.push_back(Done(req->ptReq)); };
    Run({{CURLM_OK, 1}, {CURLM_OK, 1}});
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
    ExpectCompletions({{req, 1, 0, buffer}});
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
    ExpectCompletions({{req, 0, 11, nullptr}});
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
    ExpectCompletions({{req, 0, 10, nullptr}});

    /* The second one is still in flight: the instance's end releases it. */
    Disown(requests.back());
}

} // namespace
