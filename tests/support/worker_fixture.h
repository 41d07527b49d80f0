/*
 * What the tests of the worker share: a task without a thread whose functions a case calls
 * itself, libcurl's part played through the hooks, the worker's log lines.
 */
#ifndef TESTS_SUPPORT_WORKER_FIXTURE_H
#define TESTS_SUPPORT_WORKER_FIXTURE_H

#include <algorithm>
#include <deque>
#include <ostream>

#include "tests/support/engine_fixture.h"

namespace test
{

constexpr char ADD[] = "_NvrHttpCurlClt_CheckAddMultiHandle";
constexpr char PERFORM[] = "_NvrHttpCurlClt_CurlPerformAndReadInfo";
constexpr char PERFORM_EX[] = "_NvrHttpCurlClt_CurlPerformAndReadInfoEx";

/* The two functions that perform and complete. */
struct PerformEntry {
    const char *title;
    const char *name;
    void (*call)(CURLM *, TNvrHttpCurlCltTask *);
};

const PerformEntry PERFORM_ENTRIES[] = {{"plain", PERFORM, _NvrHttpCurlClt_CurlPerformAndReadInfo},
                                        {"ex", PERFORM_EX, _NvrHttpCurlClt_CurlPerformAndReadInfoEx}};

inline void PrintTo(const PerformEntry &entry, std::ostream *out)
{
    *out << entry.title;
}

/* --- libcurl's messages ---------------------------------------------------------------------- */

inline CURLMsg Message(CURLMSG kind, CURL *easy, CURLcode result = CURLE_OK)
{
    CURLMsg message = {};
    message.msg = kind;
    message.easy_handle = easy;
    message.data.result = result;
    return message;
}

inline CURLMsg Done(CURL *easy, CURLcode result = CURLE_OK)
{
    return Message(CURLMSG_DONE, easy, result);
}

/* What NextMessage hands out, one by one. */
inline std::deque<CURLMsg> messages;

inline CURLMsg *NextMessage(CURLM *, int *left)
{
    static CURLMsg current;
    if (messages.empty()) {
        *left = 0;
        return nullptr;
    }
    current = messages.front();
    messages.pop_front();
    *left = static_cast<int>(messages.size());
    return &current;
}

/* --- completions --------------------------------------------------------------------------------- */

inline void ExpectCompletions(const std::vector<Completion> &expected)
{
    ASSERT_EQ(completions.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(completions[i].req, expected[i].req) << i;
        EXPECT_EQ(completions[i].progress, expected[i].progress) << i;
        EXPECT_EQ(completions[i].result, expected[i].result) << i;
        EXPECT_EQ(completions[i].buf, expected[i].buf) << i;
    }
}

/* The line of a failed transfer. */
inline Line FailedLine(const std::string &func, CURL *easy, CURLcode code, uint32_t result)
{
    return func == PERFORM_EX
               ? Error(func, "[Error] easy_handle %p, {ErrorCode:%d}, {ErrorStr:%s}, eCltErrCode %d, eProg %d\n",
                       Ptr(easy), code, curl_easy_strerror(code), result, 0)
               : Error(func, "[Error] easy_handle %p, eCurlRet %d, eCltErrCode %d, eProg %d\n", Ptr(easy), code, result,
                       0);
}

/* --- the fixture ------------------------------------------------------------------------------- */

class WorkerTest : public EngineTest
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
        onCompletion = nullptr;
        for (HNvrHttpCurlCltReq req : requests) {
            NvrHttpCurlCltReqDestroy(req);
        }
        EngineTest::TearDown();
    }

    /* libcurl takes and gives back handles, transfers nothing and hands out the messages. */
    static void PlayLibcurl()
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

    /* The end of the case does not destroy it. */
    void Disown(HNvrHttpCurlCltReq req)
    {
        requests.erase(std::find(requests.begin(), requests.end(), req));
    }

    void AskToExit(bool exit = true)
    {
        __atomic_store_n(&task->bExit, exit ? 1U : 0U, __ATOMIC_RELAXED);
    }

    bool AnyLockTaken() const
    {
        return fake::SemIsTaken(task->hRunLock) || fake::SemIsTaken(task->hFinLock) ||
               fake::SemIsTaken(inst->hAsyncReqNumLock) || fake::HeldByThisThread() != 0;
    }

    Lines Added(HNvrHttpCurlCltReq req) const
    {
        return {AddBegins(req),
                Info(ADD, " curl_multi_add_handle{pMultHandle %p, hReq %p} ok.\n", Ptr(multi), Ptr(req->ptReq))};
    }

    Lines Refused(HNvrHttpCurlCltReq req, CURLMcode code) const
    {
        return {AddBegins(req), Error(ADD, "[Error] curl_multi_add_handle{pMultHandle %p, hReq %p} fail{%d}\n",
                                      Ptr(multi), Ptr(req->ptReq), code)};
    }

    static Line Running(const char *func, int count)
    {
        return Info(func, " >>still_running %d\n", count);
    }

    static Lines PerformFailed(const char *func, CURLMcode code, int count)
    {
        return {Error(func, "[Error] curl_multi_perform fail{ErrorCode:%d}, {ErrorStr:%s}, still_running %d\n", code,
                      curl_multi_strerror(code), count),
                Running(func, count)};
    }

    TNvrHttpCurlCltTask *task = nullptr;
    CURLM *multi = nullptr;
    std::vector<HNvrHttpCurlCltReq> requests;

  private:
    static Line AddBegins(HNvrHttpCurlCltReq req)
    {
        return Info(ADD, " curl_multi_add_handle beg, hReq %p\n", Ptr(req->ptReq));
    }
};

} // namespace test

#endif
