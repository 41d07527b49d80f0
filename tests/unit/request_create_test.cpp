/*
 * Request objects: creation and release.
 */
#include <atomic>

#include "tests/support/race.h"
#include "tests/support/request_fixture.h"

namespace
{

using namespace test;

const char CREATE[] = "NvrHttpCurlCltReqCreat";

/* --- creation --------------------------------------------------------------------------------- */

class RequestCreate : public RequestTest
{
  protected:
    /* A callback or the result's place is missing. */
    void ExpectIncomplete(TNvrHttpCurlCltInst *slot, HNvrHttpCurlCltReq *result)
    {
        EXPECT_EQ(NvrHttpCurlCltReqCreat(slot, result), 4U);
        ExpectLines(
            {Error(CREATE, "[Error] pfRealloc %p, pfRealloc %p, pfFree %p, phReq %p\n", Ptr(slot->tMemCB.pfMalloc),
                   Ptr(slot->tMemCB.pfRealloc), Ptr(slot->tMemCB.pfFree), Ptr(result))});
        EXPECT_EQ(req, nullptr);
    }

    HNvrHttpCurlCltReq req = nullptr;
};

TEST_F(RequestCreate, GivesAClearRecordWithAnEasyHandleAndNoOption)
{
    UseDirtyHeap();
    const size_t handles = hooks::Calls("curl_easy_init");
    ASSERT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 0U);
    ASSERT_NE(req, nullptr);
    EXPECT_EQ(asked, std::vector<size_t>{sizeof(TNvrHttpCurlCltReqInner)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), handles + 1);
    EXPECT_EQ(req->ptInstance, inst);
    EXPECT_NE(req->ptReq, nullptr);
    EXPECT_EQ(req->pfMalloc, inst->tMemCB.pfMalloc);
    EXPECT_EQ(req->pfRealloc, inst->tMemCB.pfRealloc);
    EXPECT_EQ(req->pfFree, inst->tMemCB.pfFree);
    EXPECT_EQ(req->ptHeaderList, nullptr);
    EXPECT_EQ(req->dwTaskIndex, 0U);
    EXPECT_EQ(req->ptReqBody, nullptr);
    EXPECT_EQ(req->ptRespData, nullptr);
    ExpectLines({Info(CREATE, " create req %p, {easyhand:%p}\n", Ptr(req), Ptr(req->ptReq))});
    EXPECT_EQ(hooks::Options().size(), 0U);
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestCreate, RefusesAnAddressThatIsNoSlot)
{
    TNvrHttpCurlCltInst foreign = *inst;
    auto *const inside = reinterpret_cast<TNvrHttpCurlCltInst *>(reinterpret_cast<char *>(inst) + sizeof(void *));
    TNvrHttpCurlCltInst *const behind = g_tNvrHttpCurlCltCont + NVRHTTPCURLCLT_MAX_INSTANCES;
    auto *const before = reinterpret_cast<HNvrHttpCurlCltReq>(&foreign);
    for (TNvrHttpCurlCltInst *bad : {&foreign, inside, behind, static_cast<TNvrHttpCurlCltInst *>(nullptr)}) {
        req = before;
        EXPECT_EQ(NvrHttpCurlCltReqCreat(bad, &req), 4U);
        EXPECT_EQ(req, before);
        ExpectLines({Error(CREATE, "[Error] invalid instance %p\n", Ptr(bad))});
    }
    EXPECT_EQ(NvrHttpCurlCltReqCreat(nullptr, nullptr), 4U);
    ExpectLines({Error(CREATE, "[Error] invalid instance %p\n", Ptr(nullptr))});
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(RequestCreate, RefusesASlotThatIsNotInUseAndANullResult)
{
    ExpectIncomplete(Slot(15), &req); /* never used */
    ExpectIncomplete(inst, nullptr);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    TNvrHttpCurlCltInst *const slot = inst;
    Stop();
    Forget();
    EXPECT_TRUE(IsFree(slot));
    ExpectIncomplete(slot, &req);
}

TEST_F(RequestCreate, NeedsEachOfTheThreeCallbacks)
{
    const TNvrHttpCurlCltMemCB all = inst->tMemCB;
    for (const TNvrHttpCurlCltMemCB &incomplete : {TNvrHttpCurlCltMemCB{nullptr, all.pfRealloc, all.pfFree},
                                                   TNvrHttpCurlCltMemCB{all.pfMalloc, nullptr, all.pfFree},
                                                   TNvrHttpCurlCltMemCB{all.pfMalloc, all.pfRealloc, nullptr}}) {
        inst->tMemCB = incomplete;
        ExpectIncomplete(inst, &req);
    }
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(RequestCreate, GoesByTheCallbacksAndNotByTheInUseFlag)
{
    Slot(15)->tMemCB = fake::MemCB();
    EXPECT_EQ(NvrHttpCurlCltReqCreat(Slot(15), &req), 0U);
    ASSERT_NE(req, nullptr);
    EXPECT_EQ(req->ptInstance, Slot(15));
    NvrHttpCurlCltReqReset(req);
    Slot(15)->tMemCB = {};
}

TEST_F(RequestCreate, ReportsExhaustedMemory)
{
    const size_t handles = hooks::Calls("curl_easy_init");
    fake::FailMalloc(1);
    EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 5U);
    EXPECT_EQ(req, nullptr);
    ExpectLines({Error(CREATE, "[Error] malloc failed\n")});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), handles);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(RequestCreate, ReleasesTheRecordWithoutAnEasyHandle)
{
    hooks::easy_init = []() -> CURL * { return nullptr; };
    EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 1U);
    EXPECT_EQ(req, nullptr);
    ExpectLines({Error(CREATE, "[Error] curl_easy_init failed.\n")});
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    EXPECT_FALSE(fake::SemIsTaken(g_sEasyInitLocker));
}

/* --- the lock of easy handles ----------------------------------------------------------------- */

TEST_F(RequestCreate, HoldsTheEngineWideLockAroundEasyInitOnly)
{
    bool held = false;
    size_t blocks = 0;
    hooks::easy_init = [&] {
        held = fake::SemIsTaken(g_sEasyInitLocker) && fake::HeldByThisThread() == 1;
        blocks = fake::BlocksAlive();
        return hooks::real::easy_init();
    };
    req = Create();
    EXPECT_TRUE(held);
    EXPECT_EQ(blocks, blocksOfInstance + 1);
    EXPECT_FALSE(fake::SemIsTaken(g_sEasyInitLocker));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestCreate, GivesBackTheLockItTookThoughAnotherReplacedIt)
{
    const HOspSem first = g_sEasyInitLocker;
    HOspSem second = nullptr;
    ASSERT_NE(OspSemBCreate(&second), 0U);
    bool heldFirst = false;
    hooks::easy_init = [&] {
        heldFirst = fake::SemIsTaken(first);
        g_sEasyInitLocker = second;
        return hooks::real::easy_init();
    };
    req = Create();
    EXPECT_TRUE(heldFirst);
    EXPECT_FALSE(fake::SemIsTaken(first));
    EXPECT_FALSE(fake::SemIsTaken(second));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestCreate, SerialisesEasyInitOverInstances)
{
    std::atomic<int> inside{0};
    std::atomic<int> together{0};
    hooks::easy_init = [&] {
        together += inside++ > 0 ? 1 : 0;
        std::this_thread::yield();
        CURL *easy = hooks::real::easy_init();
        --inside;
        return easy;
    };
    TNvrHttpCurlCltInst *const first = inst;
    Start(0, 0);
    TNvrHttpCurlCltInst *const second = inst;
    Race(4, [=](unsigned index) {
        for (int i = 0; i < 20; ++i) {
            HNvrHttpCurlCltReq mine = nullptr;
            EXPECT_EQ(NvrHttpCurlCltReqCreat(index % 2 == 0 ? first : second, &mine), 0U);
            NvrHttpCurlCltReqReset(mine);
        }
    });
    EXPECT_EQ(together, 0);
    NvrHttpCurlCltUninit(first);
}

TEST(RequestWithoutInstance, EasyInitMakesItsLock)
{
    ASSERT_EQ(g_sEasyInitLocker, nullptr);
    bool held = false;
    hooks::easy_init = [&] {
        held = g_sEasyInitLocker != nullptr && fake::SemIsTaken(g_sEasyInitLocker);
        return hooks::real::easy_init();
    };
    CURL *easy = _NvrHttpCurlCltEasyInit();
    ASSERT_NE(easy, nullptr);
    curl_easy_cleanup(easy);
    EXPECT_TRUE(held);
    EXPECT_EQ(fake::SemsCreated(), 1U);
    EXPECT_EQ(fake::NullTakes(), 0U);
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
}

/* --- release ---------------------------------------------------------------------------------- */

class RequestRelease : public RequestTest
{
  protected:
    void SetUp() override
    {
        RequestTest::SetUp();
        UseDirtyHeap();
        req = Create();
        req->pfFree = RequestFree;
        hooks::easy_cleanup = [](CURL *easy) {
            freed.push_back({'c', easy});
            hooks::real::easy_cleanup(easy);
        };
    }

    /* The whole of a request, in order. */
    std::vector<Freed> Fill()
    {
        EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
        EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
        Forget();
        return {{'c', req->ptReq},      {'r', req->ptReqBody->pchData},
                {'r', req->ptReqBody},  {'r', req->ptRespData->pchData},
                {'r', req->ptRespData}, {'i', req}};
    }

    HNvrHttpCurlCltReq req = nullptr;
};

TEST_F(RequestRelease, FollowsItsOrder)
{
    const std::vector<Freed> expected = Fill();
    EXPECT_EQ(NvrHttpCurlCltReqReset(req), 0U);
    EXPECT_EQ(freed, expected);
    ExpectLines({});
}

TEST_F(RequestRelease, GivesNoNullBlockBack)
{
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, nullptr, 0), 0U);
    free(req->ptRespData->pchData);
    req->ptRespData->pchData = nullptr;
    const std::vector<Freed> expected = {{'c', req->ptReq}, {'r', req->ptReqBody}, {'r', req->ptRespData}, {'i', req}};
    _FreeTNvrHttpCurlCltReqInner(req);
    EXPECT_EQ(freed, expected);
}

TEST_F(RequestRelease, OfNullOrARequestWithoutBody)
{
    const std::vector<Freed> expected = {{'c', req->ptReq}, {'i', req}};
    _FreeTNvrHttpCurlCltReqInner(nullptr);
    EXPECT_EQ(freed, std::vector<Freed>{});
    ExpectLines({});
    _FreeTNvrHttpCurlCltReqInner(req);
    EXPECT_EQ(freed, expected);
}

TEST_F(RequestTest, ResetDoesNotWithdrawFromTheTask)
{
    Stop();
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateQueued();
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    EXPECT_EQ(NvrHttpCurlCltReqReset(req), 0U);
    ASSERT_EQ(task.tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);

    /* Nobody owns the node now. */
    void *node = nullptr;
    ASSERT_EQ(NVRHCCListRemove(&task.tRunList, task.tRunList.ptHead, &node), 0U);
    inst->tMemCB.pfFree(node);
}

} // namespace
