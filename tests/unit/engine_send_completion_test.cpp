/*
 * The completion of asynchronous JSON sends: the callback, and the ready-made notification.
 */
#include "tests/support/engine_send_fixture.h"

using namespace test;

namespace
{

const char COMPLETION[] = "SendByCurlReqHttpCurlProgressNtf";
const char COMPLETED_BADLY[] = " SendByCurlReqHttpCurlProgressNtf which is Failed! "
                               "eProg:%d[0:Error 1:Finish] eHttpCurlErrCode:%d\n";

const char READY_MADE[] = "SendByCurlReqProgressNtf";
const char NTF_CODE[] = " eErrCode:%d\n";
const char NTF_END[] = " End-------------------------------\n";

/* A notification that runs this. */
std::function<void(ESendByCurlRet)> onNotification;

uint32_t RunAction(ESendByCurlRet code, void *)
{
    onNotification(code);
    return 1;
}

class CompletionTest : public StartedSendTest
{
  protected:
    /* Submits and gives the request that now waits in slot 0. */
    HNvrHttpCurlCltReq Submitted()
    {
        EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
        EXPECT_NE(g_pfASnycCBParam[0].ptReq, nullptr);
        Forget();
        return g_pfASnycCBParam[0].ptReq;
    }

    void Complete(HNvrHttpCurlCltReq req)
    {
        SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);
    }
};

using ReadyMadeNotification = SendTest;

} // namespace

/* --- the completion callback ------------------------------------------------------------------ */

/* Free slots hold null, too. */
TEST_F(CompletionTest, WithoutRequestClearsNoSlot)
{
    g_pfASnycCBParam[0] = {1, nullptr, Collect};
    Complete(nullptr);
    ExpectLines({OneNull(COMPLETION)});
    EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U);
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
}

TEST_F(CompletionTest, OfAnUnknownRequestLeavesItAlone)
{
    HNvrHttpCurlCltReq req = nullptr;
    ASSERT_EQ(NvrHttpCurlCltReqCreat(g_hInitHandle, &req), 0U);
    Forget();
    Complete(req);
    ExpectLines({OneNull(COMPLETION)});
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0U);
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(CompletionTest, NotifiesClearsTheSlotAndDestroysTheRequest)
{
    Complete(Submitted());
    ASSERT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_EQ(NotifiedSoFar()[0].code, 0U);
    EXPECT_EQ(NotifiedSoFar()[0].context, received);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 0U);
    ExpectNoHandleLeft();
    ExpectLinesOf(COMPLETION, {});
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    param.pfNtf = nullptr; /* the same without a notification */
    Complete(Submitted());
    EXPECT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 0U);
    ExpectNoHandleLeft();
    ExpectLinesOf(COMPLETION, {});
}

TEST_F(CompletionTest, AnErrorIsLoggedAndReportedConverted)
{
    const struct {
        uint32_t progress;
        uint32_t engine;
        void *context;
        uint32_t send;
    } cases[] = {
        {1, 0, nullptr, 0},   /* without a context */
        {0, 0, received, 0},  /* error as the progress alone */
        {0, 10, received, 7}, /* error and code */
        {1, 11, received, 14} /* finished, but with a code */
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(&each - cases);
        SendByCurlReqHttpCurlProgressNtf(Submitted(), each.progress, each.engine, each.context);
        ExpectInOrder(
            {Info(COMPLETION, COMPLETED_BADLY, each.progress, each.engine), Converted(each.engine, each.send)});
        ASSERT_FALSE(NotifiedSoFar().empty());
        EXPECT_EQ(NotifiedSoFar().back().code, each.send);
        EXPECT_EQ(NotifiedSoFar().back().context, each.context);
        EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
        ExpectNoHandleLeft();
    }
    EXPECT_EQ(NotifiedSoFar().size(), std::size(cases));
}

TEST_F(CompletionTest, FindsItsSlotByTheRequestAlone)
{
    const HNvrHttpCurlCltReq req = Submitted();
    g_pfASnycCBParam[9] = g_pfASnycCBParam[0];
    g_pfASnycCBParam[0] = {};
    g_pfASnycCBParam[9].bUseFlag = 0;
    Complete(req);
    EXPECT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[9]));
    ExpectNoHandleLeft();
}

TEST_F(CompletionTest, TakesTheLowestOfTwoMatchingSlots)
{
    ESendByCurlRet lowest = 0xFFU;
    onNotification = [&](ESendByCurlRet code) { lowest = code; };
    param.pfNtf = RunAction;
    const HNvrHttpCurlCltReq req = Submitted();
    g_pfASnycCBParam[5] = {1, req, Collect};
    Complete(req);
    EXPECT_EQ(lowest, 0U);
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_pfASnycCBParam[5].bUseFlag, 1U);
}

/* --- the notification ------------------------------------------------------------------------- */

TEST_F(CompletionTest, NotifiesOnceWithoutTheLockAndThenDestroysTheRequestUnderIt)
{
    std::string events;
    onNotification = [&](ESendByCurlRet) {
        events += "notified ";
        EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
        EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U);
    };
    hooks::easy_cleanup = [&](CURL *easy) {
        events += "destroyed ";
        EXPECT_TRUE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
        EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U); /* cleared after, not before */
        hooks::real::easy_cleanup(easy);
    };
    param.pfNtf = RunAction;
    Complete(Submitted());
    EXPECT_EQ(events, "notified destroyed ");
}

TEST_F(CompletionTest, NotificationMaySendAgain)
{
    onNotification = [&](ESendByCurlRet) {
        param.pfNtf = Collect;
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 0U);
    };
    param.pfNtf = RunAction;
    Complete(Submitted());
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_pfASnycCBParam[1].bUseFlag, 1U); /* the first was still taken */
    EXPECT_EQ(g_pfASnycCBParam[1].pfNtf, Collect);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 1U);
}

TEST_F(ReadyMadeNotification, LogsAndFreesItsContext)
{
    char *context = static_cast<char *>(malloc(6));
    strcpy(context, "reply");
    EXPECT_EQ(SendByCurlReqProgressNtf(7, context), 0U); /* a leak is the leak checker's to find */
    ExpectLinesOf(READY_MADE, {Info(READY_MADE, NTF_CODE, 7), Info(READY_MADE, " pvContext:%s\n", "reply"),
                               Info(READY_MADE, NTF_END)});
    fake::ClearLines();
    EXPECT_EQ(SendByCurlReqProgressNtf(0, nullptr), 0U);
    ExpectLinesOf(READY_MADE, {Info(READY_MADE, NTF_CODE, 0), Info(READY_MADE, NTF_END)});
}
