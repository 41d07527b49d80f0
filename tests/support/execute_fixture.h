/*
 * What the tests of a request's execution share: the lines of the common entry, checks of an
 * instance, requests that are destroyed at the end of a case.
 */
#ifndef TESTS_SUPPORT_EXECUTE_FIXTURE_H
#define TESTS_SUPPORT_EXECUTE_FIXTURE_H

#include "tests/support/engine_fixture.h"

namespace test
{

constexpr char PROCESS[] = "NvrHttpCurlCltProcessReq";

inline const std::vector<CURLoption> NO_OPTIONS = {};
inline const std::vector<CURLoption> TIMEOUTS = {CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_TIMEOUT_MS};

inline Line Entered()
{
    return Info(PROCESS, " In NvrHttpCurlCltProcessReq\n");
}

inline Lines TimeoutLines(const char *func, uint32_t total, uint32_t connect)
{
    return {Info(func, " dwTimeoutMS %u, dwConnTimeOutMS %u\n", total, connect),
            Info(func, " dwTimeoutMS: %d, dwConnTimeOutMS: %d\n", static_cast<int>(total), static_cast<int>(connect))};
}

/* The requests of a list, from its head on. */
inline std::vector<HNvrHttpCurlCltReq> RequestsIn(const TNVRHCCList &list)
{
    std::vector<HNvrHttpCurlCltReq> found;
    for (const TNvrHttpCurlCltAsyncNode *node : Nodes(list)) {
        found.push_back(node->ptReqIn);
    }
    return found;
}

/* In place of a request's pfFree: takes a note, and the block stays usable. */
inline std::vector<void *> released;

inline void KeepInsteadOfFreeing(void *block)
{
    released.push_back(block);
}

class ExecuteTest : public EngineTest
{
  protected:
    void TearDown() override
    {
        ExpectLocksFree();
        for (HNvrHttpCurlCltReq req : requests) {
            NvrHttpCurlCltReqDestroy(req);
        }
        EngineTest::TearDown();
    }

    HNvrHttpCurlCltReq Keep(HNvrHttpCurlCltReq req)
    {
        requests.push_back(req);
        return req;
    }

    /* One request after the other; the tasks that they are bound to, as indices. */
    std::vector<uint32_t> SubmitMany(size_t count)
    {
        std::vector<uint32_t> tasks;
        for (size_t i = 0; i < count; ++i) {
            tasks.push_back(Keep(CreateQueued())->dwTaskIndex - 1);
        }
        return tasks;
    }

    void ExpectNothingDone()
    {
        EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
        EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
        EXPECT_EQ(hooks::Calls("sendto"), 0U);
        EXPECT_EQ(inst->dwAsyncReqNum, 0U);
        EXPECT_EQ(requests.at(0)->dwTaskIndex, 0U);
    }

    /* Every lock of the instance is free; a case may also ask this before its end. */
    void ExpectLocksFree()
    {
        EXPECT_FALSE(fake::SemIsTaken(inst->hAsyncReqNumLock));
        for (uint32_t i = 0; i < inst->dwTaskNum; ++i) {
            EXPECT_FALSE(fake::SemIsTaken(inst->atTasks[i].hRunLock));
            EXPECT_FALSE(fake::SemIsTaken(inst->atTasks[i].hFinLock));
        }
        EXPECT_EQ(fake::HeldByThisThread(), 0U);
    }

    std::vector<HNvrHttpCurlCltReq> requests; /* destroyed at the end */
};

} // namespace test

#endif
