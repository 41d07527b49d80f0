/*
 * How often the worker performs: until libcurl has nothing left to do at once.
 *
 * The cases play libcurl's part: what each perform returns, and when its next timer is due
 * after it.
 */
#include "tests/support/worker_fixture.h"

namespace
{

using namespace test;

constexpr long NO_TIMER = -1;
constexpr long DUE = 0;
constexpr long LATER = 1;

struct Perform {
    long timeout; /* what curl_multi_timeout says from now on */
    int running = 1;
    CURLMcode code = CURLM_OK;
};

class WorkerDrive : public WorkerTest, public testing::WithParamInterface<PerformEntry>
{
  protected:
    void TearDown() override
    {
        hooks::multi_timeout = nullptr;
        hooks::multi_perform = nullptr;
        hooks::multi_info_read = nullptr;
        WorkerTest::TearDown();
    }

    /* Plays the performs, the last one again and again; returns how many were made. */
    size_t Drive(long timeoutBefore, const std::vector<Perform> &performs, CURLMcode timerCode = CURLM_OK)
    {
        long timeout = timeoutBefore;
        size_t made = 0;
        hooks::multi_timeout = [&](CURLM *, long *result) {
            *result = timeout;
            return timerCode;
        };
        hooks::multi_perform = [&](CURLM *, int *running) {
            const Perform &now = performs[std::min(made, performs.size() - 1)];
            ++made;
            timeout = now.timeout;
            *running = now.running;
            return now.code;
        };
        GetParam().call(multi, task);
        return made;
    }
};

INSTANTIATE_TEST_SUITE_P(BothEntries, WorkerDrive, testing::ValuesIn(PERFORM_ENTRIES),
                         testing::PrintToStringParamName());

TEST_P(WorkerDrive, PerformsAgainWhileATimerIsDueAndSomethingRuns)
{
    const struct {
        const char *what;
        long timeoutBefore;
        std::vector<Perform> performs;
        size_t made;
    } cases[] = {{"no timer", NO_TIMER, {{NO_TIMER}}, 1},
                 {"a timer that is due later waits for the next activity", LATER, {{LATER}}, 1},
                 {"four, and one that no timer preceded", NO_TIMER, {{DUE}, {DUE}, {DUE}, {LATER}}, 5},
                 /* libcurl 7.88 discards a request to be called again together with an older timer. */
                 {"a timer that was due before", DUE, {{NO_TIMER}}, 2},
                 {"a timer that stays due is served with a bound", DUE, {{DUE}}, 1024},
                 {"nothing runs", DUE, {{DUE, 0}}, 1},
                 {"nothing runs any more", DUE, {{DUE, 2}, {DUE, 1}, {DUE, 0}}, 3}};
    for (const auto &each : cases) {
        EXPECT_EQ(Drive(each.timeoutBefore, each.performs), each.made) << each.what;
    }
}

TEST_P(WorkerDrive, WritesOneLineHoweverOftenItPerforms)
{
    Drive(NO_TIMER, {{DUE, 3}, {DUE, 2}, {LATER, 1}});
    ExpectLines({Running(GetParam().name, 1)});
}

TEST_P(WorkerDrive, AFailedRepetitionIsTheLast)
{
    EXPECT_EQ(Drive(NO_TIMER, {{DUE, 2}, {DUE, 1, CURLM_INTERNAL_ERROR}}), 2U);
    ExpectLines(PerformFailed(GetParam().name, CURLM_INTERNAL_ERROR, 1));
}

TEST_P(WorkerDrive, ATimerThatCannotBeReadIsNotDue)
{
    EXPECT_EQ(Drive(DUE, {{DUE}}, CURLM_BAD_HANDLE), 1U);
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

using WorkerDriveLoop = WorkerTest;

/* A due timer does not make a pass active whose wait ran out. */
TEST_F(WorkerDriveLoop, APassWhoseWaitRanOutNeitherPerformsNorLooksAtTimers)
{
    unsigned waits = 0;
    hooks::multi_timeout = [](CURLM *, long *result) {
        *result = DUE;
        return CURLM_OK;
    };
    hooks::multi_wait = [&](CURLM *, curl_waitfd *, unsigned, int, int *count) {
        *count = 0;
        if (++waits == 10) {
            AskToExit();
        }
        return CURLM_OK;
    };
    _NvrHttpCurlCltWorkerRoutine(task);
    EXPECT_EQ(waits, 10U);
    EXPECT_EQ(hooks::Calls("curl_multi_perform"), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_timeout"), 0U);
}

} // namespace
