/*
 * What the send module and its engine hold while sends run, seen from inside.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/httpcurlclient_inner.h"
#include "raw_server.h"
#include "sendbycurl/sendbycurl_inner.h"
#include "sends.h"
#include "support/hcc_atomic.h"

namespace
{

using sends::Batch;

class ModuleState : public common::IntegrationTest
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(SENDBYCURL_OK, Qelvo_SyncSendStrByHttp_Init());
    }

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
    constexpr size_t count = SENDBYCURL_ASYNC_SLOTS;
    raw::Server server(raw::EchoingOnRelease());
    Batch batch(count);
    ASSERT_TRUE(common::AllowDescriptors(2 * count + 200)) << "too few descriptors allowed";
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(SENDBYCURL_OK, batch.Send(i, server.Url(), "{}"));
    }
    EXPECT_EQ(count, PlacesTaken());
    EXPECT_EQ(count, EngineRequests());
    ASSERT_EQ(8u, g_hInitHandle->dwTaskNum);
    for (uint32_t task = 0; task < 8; ++task) {
        EXPECT_EQ(count / 8, Running(task)) << task;
    }

    server.Release();
    ASSERT_TRUE(batch.WaitFor(count));
    EXPECT_TRUE(common::WaitUntil([this] { return PlacesTaken() == 0; })) << PlacesTaken();
    EXPECT_EQ(0u, EngineRequests());
    for (uint32_t task = 0; task < 8; ++task) {
        EXPECT_EQ(0u, Running(task)) << task;
        EXPECT_EQ(0u, Finished(task)) << task;
    }
}

TEST_F(ModuleState, ARefusedSubmissionLeavesItsPlaceTakenAndNothingInTheEngine)
{
    Batch batch(1);
    batch.SetTimeout(0);
    ASSERT_EQ(SENDBYCURL_INVALID_PARAM, batch.Send(0, "http://127.0.0.1/", "{}"));
    EXPECT_EQ(1u, PlacesTaken());
    EXPECT_EQ(1u, g_pfASnycCBParam[0].bUseFlag);
    EXPECT_EQ(0u, EngineRequests());
}

TEST_F(ModuleState, AFailedTransferGivesItsPlaceBack)
{
    const common::ClosedPort closed;
    Batch batch(1);
    ASSERT_EQ(SENDBYCURL_OK, batch.Send(0, closed.Url(), "{}"));
    ASSERT_TRUE(batch.WaitFor(1));
    EXPECT_TRUE(common::WaitUntil([this] { return PlacesTaken() == 0; }));
    EXPECT_EQ(0u, EngineRequests());
}

TEST_F(ModuleState, SynchronousSendsTakeNoPlace)
{
    const raw::Server server(raw::Echoing());
    EXPECT_EQ(SENDBYCURL_OK, sends::SendAndWait(server.Url(), "{}").result);
    EXPECT_EQ(0u, PlacesTaken());
    EXPECT_EQ(0u, EngineRequests());
}

} // namespace
