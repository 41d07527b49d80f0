/*
 * What the send module and its engine hold while sends run, seen from inside.
 */
#include "engine/httpcurlclient_inner.h"
#include "sendbycurl/sendbycurl_inner.h"
#include "sends.h"
#include "support/hcc_atomic.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace
{

using namespace test;

class ModuleState : public WithSendModule<IntegrationTest>
{
  protected:
    /* Places taken, counted under their lock. */
    size_t PlacesTaken() const
    {
        size_t taken = 0;
        OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
        for (const TSendByCurlASyncCB &place : g_pfASnycCBParam) {
            taken += place.bUseFlag != 0 ? 1 : 0;
        }
        OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
        return taken;
    }

    uint32_t EngineRequests() const
    {
        return HCCLoadRelaxed(&g_hInitHandle->dwAsyncReqNum);
    }

    uint32_t Running(uint32_t task) const
    {
        return HCCLoadRelaxed(&g_hInitHandle->atTasks[task].tRunList.dwNumOfElem);
    }

    uint32_t Finished(uint32_t task) const
    {
        return HCCLoadRelaxed(&g_hInitHandle->atTasks[task].tFinList.dwNumOfElem);
    }
};

TEST_F(ModuleState, SendsAreSpreadEvenlyAndLeaveNothingBehind)
{
    constexpr size_t COUNT = SENDBYCURL_ASYNC_SLOTS;
    ScriptedServer server(ECHOING_ON_RELEASE);
    Batch batch(COUNT);
    ASSERT_TRUE(AllowDescriptors(2 * COUNT + 200)) << "too few descriptors allowed";
    for (size_t i = 0; i < COUNT; ++i) {
        ASSERT_EQ(batch.Send(i, server.Url(), "{}"), SENDBYCURL_OK);
    }
    EXPECT_EQ(PlacesTaken(), COUNT);
    EXPECT_EQ(EngineRequests(), COUNT);
    ASSERT_EQ(g_hInitHandle->dwTaskNum, 8U);
    for (uint32_t task = 0; task < 8; ++task) {
        EXPECT_EQ(Running(task), COUNT / 8) << task;
    }
    server.Release();
    ASSERT_TRUE(batch.WaitFor(COUNT));
    EXPECT_TRUE(WaitUntil([this] { return PlacesTaken() == 0; })) << PlacesTaken();
    EXPECT_EQ(EngineRequests(), 0U);
    for (uint32_t task = 0; task < 8; ++task) {
        EXPECT_EQ(Running(task), 0U) << task;
        EXPECT_EQ(Finished(task), 0U) << task;
    }
}

TEST_F(ModuleState, ARefusedSubmissionLeavesItsPlaceTakenAndNothingInTheEngine)
{
    Batch batch(1);
    batch.SetTimeout(0);
    ASSERT_EQ(batch.Send(0, "http://127.0.0.1/", "{}"), SENDBYCURL_INVALID_PARAM);
    EXPECT_EQ(PlacesTaken(), 1U);
    EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U);
    EXPECT_EQ(EngineRequests(), 0U);
}

TEST_F(ModuleState, AFailedTransferGivesItsPlaceBack)
{
    const ClosedPort closed;
    Batch batch(1);
    ASSERT_EQ(batch.Send(0, closed.Url(), "{}"), SENDBYCURL_OK);
    ASSERT_TRUE(batch.WaitFor(1));
    EXPECT_TRUE(WaitUntil([this] { return PlacesTaken() == 0; }));
    EXPECT_EQ(EngineRequests(), 0U);
}

TEST_F(ModuleState, SynchronousSendsTakeNoPlace)
{
    const ScriptedServer server(ECHOING);
    EXPECT_EQ(SendAndWait(server.Url(), "{}").result, SENDBYCURL_OK);
    EXPECT_EQ(PlacesTaken(), 0U);
    EXPECT_EQ(EngineRequests(), 0U);
}

} // namespace
