/*
 * How often the worker performs: until libcurl has nothing left to do at once.
 *
 * The task has no thread here. The cases call the worker's functions themselves and play
 * libcurl's part: what each perform returns, and when its next timer is due after it.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/engine_fixture.h"

namespace
{

constexpr long NO_TIMER = -1;
constexpr long DUE = 0;
constexpr long LATER = 1;

struct Perform {
    long timeout; /* what curl_multi_timeout says from now on */
    int running = 1;
    CURLMcode code = CURLM_OK;
};

struct Entry {
    const char *name;
    void (*call)(CURLM *, TNvrHttpCurlCltTask *);
};

void PrintTo(const Entry &entry, std::ostream *out)
{
    *out << entry.name;
}

class WorkerDrive : public test::EngineTest, public testing::WithParamInterface<Entry>
{
  protected:
    WorkerDrive()
    {
        Start(1, 8);
        task = &inst->atTasks[0];
    }

    void TearDown() override
    {
        hooks::multi_timeout = nullptr;
        hooks::multi_perform = nullptr;
        hooks::multi_info_read = nullptr;
        EngineTest::TearDown();
    }

    /* Plays the performs, the last one again and again; returns how many were made. */
    size_t Drive(long timeoutBefore, const std::vector<Perform> &performs)
    {
        long timeout = timeoutBefore;
        size_t made = 0;
        hooks::multi_timeout = [&](CURLM *, long *result) {
            *result = timeout;
            return CURLM_OK;
        };
        hooks::multi_perform = [&](CURLM *, int *running) {
            const Perform &now = performs[std::min(made, performs.size() - 1)];
            ++made;
            timeout = now.timeout;
            *running = now.running;
            return now.code;
        };
        GetParam().call(task->ptCurlMultiHandle, task);
        return made;
    }

    test::Line Running(int count) const
    {
        return test::Info(GetParam().name, " >>still_running %d\n", count);
    }

    TNvrHttpCurlCltTask *task;
};

INSTANTIATE_TEST_SUITE_P(
    BothEntries, WorkerDrive,
    testing::Values(Entry{"_NvrHttpCurlClt_CurlPerformAndReadInfo", _NvrHttpCurlClt_CurlPerformAndReadInfo},
                    Entry{"_NvrHttpCurlClt_CurlPerformAndReadInfoEx", _NvrHttpCurlClt_CurlPerformAndReadInfoEx}),
    [](const auto &test) { return std::string(test.param.name).find("Ex") == std::string::npos ? "plain" : "ex"; });

TEST_P(WorkerDrive, OncePerformedIsEnoughWithoutATimer)
{
    EXPECT_EQ(Drive(NO_TIMER, {{NO_TIMER}}), 1U);
}

TEST_P(WorkerDrive, ATimerThatIsDueLaterWaitsForTheNextActivity)
{
    EXPECT_EQ(Drive(LATER, {{LATER}}), 1U);
}

TEST_P(WorkerDrive, PerformsAgainWhileATimerIsDue)
{
    EXPECT_EQ(Drive(NO_TIMER, {{DUE}, {DUE}, {DUE}, {LATER}}), 5U) << "four, and one that no timer preceded";
}

/* libcurl 7.88 discards a request to be called again together with an older timer. */
TEST_P(WorkerDrive, PerformsAgainAfterATimerThatWasDueBefore)
{
    EXPECT_EQ(Drive(DUE, {{NO_TIMER}}), 2U);
}

TEST_P(WorkerDrive, ATimerThatStaysDueIsServedWithABound)
{
    EXPECT_EQ(Drive(DUE, {{DUE}}), 1024U);
}

TEST_P(WorkerDrive, StopsWhenNothingRunsAnyMore)
{
    EXPECT_EQ(Drive(DUE, {{DUE, 0}}), 1U);
    EXPECT_EQ(Drive(DUE, {{DUE, 2}, {DUE, 1}, {DUE, 0}}), 3U);
}

TEST_P(WorkerDrive, WritesOneLineHoweverOftenItPerforms)
{
    Drive(NO_TIMER, {{DUE, 3}, {DUE, 2}, {LATER, 1}});
    test::ExpectLines({Running(1)});
}

TEST_P(WorkerDrive, AFailedRepetitionIsTheLast)
{
    EXPECT_EQ(Drive(NO_TIMER, {{DUE, 2}, {DUE, 1, CURLM_INTERNAL_ERROR}}), 2U);
    test::ExpectLines({test::Error(GetParam().name,
                                   "[Error] curl_multi_perform fail{ErrorCode:%d}, {ErrorStr:%s}, still_running %d\n",
                                   CURLM_INTERNAL_ERROR, curl_multi_strerror(CURLM_INTERNAL_ERROR), 1),
                       Running(1)});
}

TEST_P(WorkerDrive, ATimerThatCannotBeReadIsNotDue)
{
    size_t performs = 0;
    hooks::multi_timeout = [](CURLM *, long *result) {
        *result = DUE;
        return CURLM_BAD_HANDLE;
    };
    hooks::multi_perform = [&](CURLM *, int *running) {
        ++performs;
        *running = 1;
        return CURLM_OK;
    };
    GetParam().call(task->ptCurlMultiHandle, task);
    EXPECT_EQ(performs, 1U);
}

/* Completions are read once, after the last perform. */
TEST_P(WorkerDrive, ReadsTheMessagesBehindTheLastPerform)
{
    std::vector<size_t> performsAtRead;
    hooks::multi_info_read = [&](CURLM *, int *left) -> CURLMsg * {
        performsAtRead.push_back(hooks::Calls("curl_multi_perform"));
        *left = 0;
        return nullptr;
    };
    Drive(NO_TIMER, {{DUE}, {LATER}});
    EXPECT_EQ(performsAtRead, std::vector<size_t>{3});
}

class WorkerDriveLoop : public test::EngineTest
{
};

/* A due timer does not make a pass active whose wait ran out. */
TEST_F(WorkerDriveLoop, APassWhoseWaitRanOutNeitherPerformsNorLooksAtTimers)
{
    Start(1, 8);
    TNvrHttpCurlCltTask *task = &inst->atTasks[0];
    unsigned waits = 0;
    hooks::multi_timeout = [](CURLM *, long *result) {
        *result = DUE;
        return CURLM_OK;
    };
    hooks::multi_wait = [&](CURLM *, curl_waitfd *, unsigned, int, int *count) {
        *count = 0;
        if (++waits == 10) {
            __atomic_store_n(&task->bExit, 1U, __ATOMIC_RELAXED);
        }
        return CURLM_OK;
    };
    _NvrHttpCurlCltWorkerRoutine(task);
    EXPECT_EQ(waits, 10U);
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_timeout"), 0U);
}

} // namespace
