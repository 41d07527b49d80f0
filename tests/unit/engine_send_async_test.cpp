/*
 * The asynchronous JSON send over the engine and its callback slots.
 */
#include <set>

#include "tests/support/engine_send_fixture.h"

using namespace test;

namespace
{

using AsyncSendBeforeStart = EngineSendTest;
using AsyncSend = StartedSendTest;

void ExpectCreationFailed(TSendByCurlParam *param)
{
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(param), 1U);
    ExpectLine(CreateFailed(ASYNC));
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    EXPECT_EQ(SlotsTaken(), 0U);
}

} // namespace

/* --- settings --------------------------------------------------------------------------------- */

TEST_F(AsyncSend, RequiresItsPointers)
{
    ExpectPointersRequired(Qelvo_ASyncSendStrByHttpCurl, ASYNC, {});
}

TEST_F(AsyncSend, NeverAuthenticates)
{
    param.bCurlAuth = 1;
    strcpy(param.achUserAndPassWd, "user:secret");
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
    EXPECT_EQ(hooks::OptionOrder(), POST_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 1111U);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 2222U);
    EXPECT_EQ(HeaderLines(), JSON_HEADER);
}

/* --- slots ------------------------------------------------------------------------------------ */

TEST_F(AsyncSend, TakesTheFirstSlotAndQueuesTheRequest)
{
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
    EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U);
    ASSERT_NE(g_pfASnycCBParam[0].ptReq, nullptr);
    EXPECT_EQ(g_pfASnycCBParam[0].pfNtf, Collect);
    EXPECT_EQ(SlotsTaken(), 1U);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 1U);
    const auto *node = static_cast<const TNvrHttpCurlCltAsyncNode *>(g_hInitHandle->atTasks[0].tRunList.ptHead->pvData);
    EXPECT_EQ(node->ptReqIn, g_pfASnycCBParam[0].ptReq);
    EXPECT_EQ(node->pfNtf, SendByCurlReqHttpCurlProgressNtf);
    EXPECT_EQ(node->pvUserBuf, received);
    ExpectLinesOf(ASYNC, {});
    EXPECT_EQ(CountOf(IN_SYNC), 0U);
}

TEST_F(AsyncSend, RegistersItsSlotAfterThePreparationAndBeforeTheSubmission)
{
    TSendByCurlASyncCB prepared = {7, nullptr, nullptr};
    TSendByCurlASyncCB submitted = {};
    hooks::easy_setopt = [&](CURL *easy, CURLoption option, void *value) {
        if (option == CURLOPT_NOSIGNAL) { /* the last one of the preparation */
            prepared = g_pfASnycCBParam[0];
        }
        if (option == CURLOPT_CONNECTTIMEOUT_MS) { /* set by the submission, before it queues */
            submitted = g_pfASnycCBParam[0];
        }
        return hooks::real::easy_setopt(easy, option, value);
    };
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
    EXPECT_EQ(prepared.bUseFlag, 0U);
    EXPECT_EQ(submitted.bUseFlag, 1U);
    EXPECT_NE(submitted.ptReq, nullptr);
    EXPECT_EQ(submitted.ptReq, g_pfASnycCBParam[0].ptReq);
    EXPECT_EQ(submitted.pfNtf, Collect);
}

TEST_F(AsyncSend, TakesTheLowestFreeSlot)
{
    for (const size_t taken : {0U, 1U, 3U}) {
        g_pfASnycCBParam[taken].bUseFlag = 1;
    }
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
    EXPECT_EQ(g_pfASnycCBParam[2].bUseFlag, 1U);
    EXPECT_NE(g_pfASnycCBParam[2].ptReq, nullptr);
    EXPECT_EQ(SlotsTaken(), 4U);
    for (const size_t other : {0U, 1U, 3U, 4U}) {
        EXPECT_EQ(g_pfASnycCBParam[other].ptReq, nullptr);
    }
}

TEST_F(AsyncSend, TakesTheLastSlotAndThenNone)
{
    for (TSendByCurlASyncCB &slot : g_pfASnycCBParam) {
        slot.bUseFlag = &slot == &g_pfASnycCBParam[1023] ? 0 : 1;
    }
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
    const TSendByCurlASyncCB last = g_pfASnycCBParam[1023];
    EXPECT_EQ(last.bUseFlag, 1U);
    EXPECT_NE(last.ptReq, nullptr);
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 4U);
    ExpectInOrder({StepFailed(ASYNC), Error(DISPATCH, ASYNC_FAILED, 4)});
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 2U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 1U);
    EXPECT_EQ(g_pfASnycCBParam[1023].ptReq, last.ptReq);
    for (size_t i = 0; i < 1023; ++i) {
        EXPECT_EQ(g_pfASnycCBParam[i].ptReq, nullptr);
    }
}

TEST_F(AsyncSend, Beyond1024OutstandingOnesIsRefusedAndLeavesNoRequest)
{
    std::set<HNvrHttpCurlCltReq> reqs;
    for (size_t i = 0; i < 1024; ++i) {
        ASSERT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U) << i;
        reqs.insert(g_pfASnycCBParam[i].ptReq);
    }
    EXPECT_EQ(reqs.size(), 1024U);
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 4U);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 1025U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 1024U);
    SendByCurlReqHttpCurlProgressNtf(g_pfASnycCBParam[500].ptReq, 1, 0, received);
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
    EXPECT_EQ(g_pfASnycCBParam[500].bUseFlag, 1U);
}

TEST_F(AsyncSend, NoSlotIsTakenForANullRequest)
{
    EXPECT_FALSE(SendByCurlRegistCallback(nullptr, SendByCurlReqProgressNtf));
    ExpectLine(OneNull("SendByCurlRegistCallback"));
    EXPECT_EQ(SlotsTaken(), 0U);
}

TEST_F(AsyncSend, ManyThreadsGetSlotsOfTheirOwn)
{
    Race(4, [&](unsigned) {
        TSendByCurlParam mine = param;
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(Qelvo_SendStrByHttp(&mine, 1), 0U);
        }
    });
    std::set<HNvrHttpCurlCltReq> reqs;
    for (size_t i = 0; i < 200; ++i) {
        EXPECT_EQ(g_pfASnycCBParam[i].bUseFlag, 1U);
        reqs.insert(g_pfASnycCBParam[i].ptReq);
    }
    EXPECT_EQ(reqs.size(), 200U);
    EXPECT_EQ(SlotsTaken(), 200U);
}

/* --- refused submissions keep their slot ------------------------------------------------------ */

TEST_F(AsyncSend, EachRefusedSubmissionLeavesASlotMarkedAndShown)
{
    param.dwTimeoutMS = 0;
    for (int slot = 0; slot < 3; ++slot) {
        Forget();
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 1U);
        ExpectStepFailed(ASYNC, 4, 1);
        EXPECT_EQ(g_pfASnycCBParam[slot].bUseFlag, 1U);
        EXPECT_NE(g_pfASnycCBParam[slot].ptReq, nullptr); /* stale by now */
        EXPECT_EQ(g_pfASnycCBParam[slot].pfNtf, Collect);
    }
    SendByCurlShow();
    for (int slot = 0; slot < 3; ++slot) {
        EXPECT_EQ(fake::CountTexts(ShownSlot(slot).text), 1U);
    }
    param.dwTimeoutMS = 1000;
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
    EXPECT_EQ(SlotsTaken(), 4U);
    EXPECT_EQ(g_pfASnycCBParam[3].bUseFlag, 1U);
}

TEST_F(AsyncSend, BeyondTheEnginesLimitIsTheLimitResult)
{
    g_hInitHandle->dwAsyncReqNum = 1024;
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 12U);
    g_hInitHandle->dwAsyncReqNum = 0;
    ExpectStepFailed(ASYNC, 8, 12);
    EXPECT_EQ(SlotsTaken(), 1U);
}

TEST_F(AsyncSend, WithoutMemoryForTheBodyOrTheSubmission)
{
    CountMemory();
    const struct {
        unsigned malloc; /* the request and its body take five */
        size_t slots;
    } cases[] = {{3, 0}, {6, 1}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.malloc);
        Forget();
        fake::FailMalloc(each.malloc);
        EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 9U);
        ExpectStepFailed(ASYNC, 5, 9);
        EXPECT_EQ(SlotsTaken(), each.slots);
        EXPECT_EQ(fake::BlocksAlive(), 0U);
    }
}

/* --- failures before a slot is taken ---------------------------------------------------------- */

TEST_F(AsyncSend, CreationFailureIsOneWhateverTheEngineSays)
{
    CountMemory();
    fake::FailMalloc(1);
    ExpectCreationFailed(&param);
}

TEST_F(AsyncSendBeforeStart, IsACreationFailureToo)
{
    ExpectCreationFailed(&param);
}

TEST_F(AsyncSend, StopsAtARefusedUrlOrMethod)
{
    param.eHeadType = 2;
    for (const Order &set : {Order{CURLOPT_URL}, Order{CURLOPT_URL, CURLOPT_HTTPGET}}) {
        SCOPED_TRACE(set.back());
        Forget();
        hooks::RefuseOption(set.back(), CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);
        ExpectStepFailed(ASYNC, 1, 1);
        EXPECT_EQ(hooks::OptionOrder(), set);
        EXPECT_EQ(SlotsTaken(), 0U);
        hooks::RefuseOption(set.back(), CURLE_OK);
    }
}

/* --- real servers ----------------------------------------------------------------------------- */

TEST_F(AsyncSendBeforeStart, RealSendsAreNotifiedOnceEachWithTheirAnswers)
{
    enum { SENDS = 12 };
    ScriptedServer server(Answering("pong"));
    StartForReal(server.Url());
    static char answers[SENDS][16];
    for (auto &answer : answers) {
        param.pchRecvBuf = answer;
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 0U);
    }

    EXPECT_TRUE(WaitUntil([] { return NotifiedSoFar().size() >= SENDS; })) << fake::Transcript();
    EXPECT_TRUE(WaitUntil([] {
        OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
        const size_t taken = SlotsTaken();
        OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
        return taken == 0;
    }));
    NvrHttpCurlCltUninit(g_hInitHandle); /* joins the workers: what follows is all there is */

    std::set<void *> contexts;
    for (const Notified &one : NotifiedSoFar()) {
        EXPECT_EQ(one.code, 0U);
        contexts.insert(one.context);
    }
    EXPECT_EQ(NotifiedSoFar().size(), static_cast<size_t>(SENDS));
    EXPECT_EQ(contexts.size(), static_cast<size_t>(SENDS));
    for (const auto &answer : answers) {
        EXPECT_STREQ(answer, "pong");
    }
    ExpectNoHandleLeft();
    ASSERT_EQ(server.RequestCount(), static_cast<size_t>(SENDS));
    const Request sent = server.Requests()[0];
    EXPECT_TRUE(sent.HasLine(JSON_HEADER[0])) << sent.head;
    EXPECT_FALSE(sent.HasHeader("Expect")) << sent.head;
    EXPECT_EQ(sent.body, "{\"a\":1}");
}

TEST_F(AsyncSendBeforeStart, RealSendReportsAnyStatusAsSuccess)
{
    const ScriptedServer server(Answering("none", 404));
    StartForReal(server.Url());
    memset(received, 0, sizeof received);
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 0U);
    ASSERT_TRUE(WaitUntil([] { return NotifiedSoFar().size() == 1; })) << fake::Transcript();
    NvrHttpCurlCltUninit(g_hInitHandle);
    EXPECT_EQ(NotifiedSoFar()[0].code, 0U);
    EXPECT_STREQ(received, "none");
}

TEST_F(AsyncSendBeforeStart, RealSendToARefusingPort)
{
    const ClosedPort port;
    StartForReal(port.Url());
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 0U);
    ASSERT_TRUE(WaitUntil([] { return NotifiedSoFar().size() == 1; })) << fake::Transcript();
    NvrHttpCurlCltUninit(g_hInitHandle);
    EXPECT_EQ(NotifiedSoFar()[0].code, 14U);
    EXPECT_TRUE(BufferUntouched());
    ExpectNoHandleLeft();
}
