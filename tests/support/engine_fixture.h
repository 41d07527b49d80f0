/*
 * What the engine's unit tests share: instances and requests over the fake platform, a
 * completion callback that keeps notes, the lists of a task.
 */
#ifndef TESTS_SUPPORT_ENGINE_FIXTURE_H
#define TESTS_SUPPORT_ENGINE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/httpcurlclient_inner.h"
#include "tests/support/fake_platform.h"
#include "tests/support/hooks.h"
#include "tests/support/log_lines.h"
#include "tests/support/loopback.h"
#include "tests/support/process_state.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace test
{

/* --- instances ----------------------------------------------------------------------------- */

inline TNvrHttpCurlCltInst *Slot(unsigned index)
{
    return &g_tNvrHttpCurlCltCont[index];
}

inline ENvrHttpCurlCltRet TryStart(uint32_t tasks, HNvrHttpCurlCltInst *result, uint32_t maxAsync = 8,
                                   const TNvrHttpCurlCltMemCB &memory = fake::MemCB())
{
    const TNvrHttpCurlCltInitParam param = {tasks, maxAsync};
    return NvrHttpCurlCltInit(&param, &memory, result);
}

inline HNvrHttpCurlCltInst MustStart(uint32_t tasks, uint32_t maxAsync = 8,
                                     const TNvrHttpCurlCltMemCB &memory = fake::MemCB())
{
    HNvrHttpCurlCltInst instance = nullptr;
    EXPECT_EQ(TryStart(tasks, &instance, maxAsync, memory), 0U) << fake::Transcript();
    return instance;
}

/* Nothing of an instance is left in the slot. */
inline testing::AssertionResult IsFree(const TNvrHttpCurlCltInst *slot)
{
    if (slot->bInited == 0 && slot->tMemCB.pfMalloc == nullptr && slot->tMemCB.pfRealloc == nullptr &&
        slot->tMemCB.pfFree == nullptr && slot->atTasks == nullptr && slot->dwTaskNum == 0 &&
        slot->hAsyncReqNumLock == nullptr && slot->dwAsyncReqNum == 0 && slot->dwAsyncReqMaxNum == 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "bInited " << slot->bInited << ", atTasks " << slot->atTasks << ", dwTaskNum "
                                       << slot->dwTaskNum << ", hAsyncReqNumLock " << slot->hAsyncReqNumLock
                                       << ", dwAsyncReqNum " << slot->dwAsyncReqNum << ", dwAsyncReqMaxNum "
                                       << slot->dwAsyncReqMaxNum << ", callbacks " << Ptr(slot->tMemCB.pfMalloc)
                                       << Ptr(slot->tMemCB.pfRealloc) << Ptr(slot->tMemCB.pfFree);
}

/* --- descriptors ------------------------------------------------------------------------------- */

inline bool IsOpen(int fd)
{
    return OpenDescriptors().count(fd) != 0;
}

/* --- requests and their completion ----------------------------------------------------------- */

struct Completion {
    HNvrHttpCurlCltReq req;
    uint32_t progress;
    uint32_t result;
    void *buf;
};

inline std::vector<Completion> completions;
/* Runs inside the callback, after the note was taken. */
inline std::function<void(const Completion &)> onCompletion;

inline uint32_t Notify(HNvrHttpCurlCltReq req, ENvrHttpCurlCltReqProgress progress, ENvrHttpCurlCltRet result,
                       void *buf)
{
    const Completion completion = {req, progress, result, buf};
    completions.push_back(completion);
    if (onCompletion) {
        onCompletion(completion);
    }
    return 77; /* nobody looks at it */
}

/* A request with everything set that an asynchronous send sets. */
inline HNvrHttpCurlCltReq MustPrepare(HNvrHttpCurlCltInst instance, const std::string &url = "http://127.0.0.1:9/x",
                                      const std::string &body = "{}")
{
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(NvrHttpCurlCltReqCreat(instance, &req), 0U) << fake::Transcript();
    EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, url.c_str()), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "Content-Type", "text/plain"), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetReqMethod(req, "POST"), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, body.data(), static_cast<uint32_t>(body.size())), 0U);
    return req;
}

inline uint32_t Submit(HNvrHttpCurlCltReq req, void *buf = nullptr)
{
    return NvrHttpCurlCltProcessReq(req, 5000, 4000, NVRHTTPCURLCLT_MODE_ASYNC, Notify, buf);
}

/* A prepared request in the run list of one of the instance's tasks. */
inline HNvrHttpCurlCltReq MustQueue(HNvrHttpCurlCltInst instance)
{
    HNvrHttpCurlCltReq req = MustPrepare(instance);
    EXPECT_EQ(Submit(req), 0U) << fake::Transcript();
    return req;
}

/* --- the lists of a task ------------------------------------------------------------------------ */

inline std::vector<TNvrHttpCurlCltAsyncNode *> Nodes(const TNVRHCCList &list)
{
    std::vector<TNvrHttpCurlCltAsyncNode *> nodes;
    for (const TNVRHCCListNode *node = list.ptHead; node != nullptr; node = node->ptNext) {
        nodes.push_back(static_cast<TNvrHttpCurlCltAsyncNode *>(node->pvData));
    }
    return nodes;
}

inline TNVRHCCListNode *FindListNode(const TNVRHCCList &list, const TNvrHttpCurlCltReqInner *req)
{
    for (TNVRHCCListNode *node = list.ptHead; node != nullptr; node = node->ptNext) {
        const auto *element = static_cast<TNvrHttpCurlCltAsyncNode *>(node->pvData);
        if (element != nullptr && element->ptReqIn == req) {
            return node;
        }
    }
    return nullptr;
}

/* Moves a request's node from the run list to the end of the finish list, as its worker does. */
inline TNvrHttpCurlCltAsyncNode *Finish(TNvrHttpCurlCltTask &task, const TNvrHttpCurlCltReqInner *req)
{
    void *data = nullptr;
    EXPECT_EQ(NVRHCCListRemove(&task.tRunList, FindListNode(task.tRunList, req), &data), 0U);
    auto *node = static_cast<TNvrHttpCurlCltAsyncNode *>(data);
    node->bInMulti = 1;
    EXPECT_EQ(NVRHCCListInsertAfter(&task.tFinList, nullptr, node, nullptr), 0U);
    return node;
}

/* --- the fixture ------------------------------------------------------------------------------- */

/*
 * Tasks start no thread unless a case says so, so that their lists can be looked into. At the
 * end nothing is left, and whatever was logged keeps to the conventions.
 */
class EngineTest : public testing::Test
{
  protected:
    EngineTest()
    {
        ClearProxies();
        curl_global_init(CURL_GLOBAL_ALL);
        fake::RunTasks(false);
    }

    void TearDown() override
    {
        Stop();
        EXPECT_EQ(fake::BlocksAlive(), 0U);
        EXPECT_EQ(fake::HeldByThisThread(), 0U);
        EXPECT_EQ(fake::Violations(), std::vector<std::string>());
        ExpectConventions();
    }

    void Start(uint32_t tasks, uint32_t maxAsync)
    {
        inst = MustStart(tasks, maxAsync);
        blocksOfInstance = fake::BlocksAlive();
        Forget();
    }

    void Stop()
    {
        if (inst != nullptr) {
            NvrHttpCurlCltUninit(inst);
            inst = nullptr;
        }
    }

    /* Drops what was recorded on the way to the situation that a case is about. */
    static void Forget()
    {
        fake::ClearLines();
        hooks::ClearOptions();
    }

    HNvrHttpCurlCltReq Create()
    {
        HNvrHttpCurlCltReq req = nullptr;
        EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 0U) << fake::Transcript();
        Forget();
        return req;
    }

    HNvrHttpCurlCltReq CreatePrepared(const std::string &url, const std::string &body)
    {
        HNvrHttpCurlCltReq req = MustPrepare(inst, url, body);
        Forget();
        return req;
    }

    /* A request in its task's run list. */
    HNvrHttpCurlCltReq CreateQueued(void *buf = nullptr)
    {
        HNvrHttpCurlCltReq req = Create();
        EXPECT_EQ(Submit(req, buf), 0U) << fake::Transcript();
        Forget();
        return req;
    }

    /* A request whose node the worker would have put into the finish list. */
    HNvrHttpCurlCltReq CreateFinished()
    {
        HNvrHttpCurlCltReq req = CreateQueued();
        Finish(inst->atTasks[req->dwTaskIndex - 1], req);
        return req;
    }

    TNvrHttpCurlCltInst *inst = nullptr;
    size_t blocksOfInstance = 0;
};

} // namespace test

#endif
