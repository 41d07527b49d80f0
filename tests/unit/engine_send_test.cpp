/*
 * JSON sends over the engine: the dispatcher, both modes, the table of callback slots, the
 * completion callback and the conversion of results.
 */
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "tests/support/send_fixture.h"

using namespace sendtest;

namespace
{

const char SYNC[] = "Qelvo_SyncSendStrByHttpCurl";
const char ASYNC[] = "Qelvo_ASyncSendStrByHttpCurl";
const char DISPATCH[] = "Qelvo_SendStrByHttp";
const char COMPLETION[] = "SendByCurlReqHttpCurlProgressNtf";

const std::string MODE = "%s[L:%d] eSyncMode:%d [0:Sync 1:ASync]\n";
const std::string BAD_MODE = "%s[L:%d][Error] InValided Param! eSyncMode:%d\n";
const std::string SYNC_SUCCESS = "%s[L:%d] Qelvo_SyncSendStrByHttpCurl Success!\n";
const std::string SYNC_FAILED = "%s[L:%d][Error] Qelvo_SyncSendStrByHttpCurl Failed! eSendCurlRet:%d\n";
const std::string ASYNC_SUCCESS = "%s[L:%d] Qelvo_ASyncSendStrByHttpCurl Success!\n";
const std::string ASYNC_FAILED = "%s[L:%d][Error] Qelvo_ASyncSendStrByHttpCurl Failed! eSendCurlRet:%d\n";
const std::string IN_SYNC = "%s[L:%d] In Qelvo_SyncSendStr ByHttpCurl\n";
const std::string STATUS = "%s[L:%d] nHttpStatusCode:%d\n";
const std::string COMPLETED_BADLY = "%s[L:%d] SendByCurlReqHttpCurlProgressNtf which is Failed! "
                                    "eProg:%d[0:Error 1:Finish] eHttpCurlErrCode:%d\n";
const std::string NTF_CODE = "%s[L:%d] eErrCode:%d\n";
const std::string NTF_CONTEXT = "%s[L:%d] pvContext:%s\n";
const std::string NTF_END = "%s[L:%d] End-------------------------------\n";

using Order = std::vector<CURLoption>;

/* CURLOPT_PUT, whose name newer headers warn about. */
const CURLoption OPTION_PUT = static_cast<CURLoption>(54);

/* What a synchronous send of a POST over plain HTTP sets. */
const Order POST_ORDER = {
    CURLOPT_URL,           CURLOPT_POST,      CURLOPT_HTTPHEADER, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE,
    CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA, CURLOPT_VERBOSE,    CURLOPT_NOSIGNAL,   CURLOPT_CONNECTTIMEOUT_MS,
    CURLOPT_TIMEOUT_MS,
};

bool IsEmpty(const TSendByCurlASyncCB &tSlot)
{
    return tSlot.bUseFlag == 0 && tSlot.ptReq == nullptr && tSlot.pfNtf == nullptr;
}

size_t SlotsTaken()
{
    size_t nTaken = 0;
    for (const TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        nTaken += tSlot.bUseFlag != 0 ? 1 : 0;
    }
    return nTaken;
}

/* Whatever was created has been released again. */
void ExpectNoHandleLeft()
{
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), hooks::Calls("curl_easy_init"));
}

class EngineSendTest : public RecordTest
{
  protected:
    void SetUp() override
    {
        RecordTest::SetUp();
        tParam.pfNtf = Collect;
    }

    void TearDown() override
    {
        if (bCountingMemory) {
            g_hInitHandle->tMemCB = {malloc, realloc, free};
        }
        RecordTest::TearDown();
    }

    bool BufferUntouched() const
    {
        return std::string(achRecv, sizeof achRecv) == std::string(sizeof achRecv, '#');
    }

    /* The started instance's requests get counted memory, which can be made to run out. */
    void CountMemory()
    {
        g_hInitHandle->tMemCB = fake::MemCB();
        bCountingMemory = true;
    }

    /* Submits and gives the request that now waits in slot 0. */
    HNvrHttpCurlCltReq Submitted()
    {
        EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);
        EXPECT_NE(g_pfASnycCBParam[0].ptReq, nullptr);
        fake::ClearLines();
        return g_pfASnycCBParam[0].ptReq;
    }

    /* A synchronous send that failed in an engine step, and was converted, and left nothing. */
    void ExpectSyncStepFailed(unsigned nEngine, unsigned nSend)
    {
        ExpectLine(STEP_FAILED, LEVEL_INFO, SYNC, " @ is Failed!\n");
        ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
                   " Transfer NvrHttpCurlCltRet[" + std::to_string(nEngine) + "] to ESendByCurlRet[" +
                       std::to_string(nSend) + "]\n");
        EXPECT_LT(PlaceOf(STEP_FAILED), PlaceOf(CONVERTED));
        ExpectNoHandleLeft();
        EXPECT_EQ(hooks::Calls("curl_easy_init"), 1u);
        EXPECT_TRUE(BufferUntouched());
    }

    void ExpectAsyncStepFailed(unsigned nEngine, unsigned nSend)
    {
        ExpectLine(STEP_FAILED, LEVEL_INFO, ASYNC, " @ is Failed!\n");
        ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
                   " Transfer NvrHttpCurlCltRet[" + std::to_string(nEngine) + "] to ESendByCurlRet[" +
                       std::to_string(nSend) + "]\n");
        EXPECT_LT(PlaceOf(STEP_FAILED), PlaceOf(CONVERTED));
        ExpectNoHandleLeft();
        EXPECT_EQ(NotifiedSoFar().size(), 0u);
    }

    bool bCountingMemory = false;
};

} // namespace

/* --- the dispatcher --------------------------------------------------------------------------- */

TEST_F(EngineSendTest, NullRecordIsRefusedBeforeAnythingElse)
{
    EXPECT_EQ(Qelvo_SendStrByHttp(nullptr, 0), 1u);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(ONE_NULL, LEVEL_ERROR, DISPATCH, "[Error] @ One Param is NULL!\n");
}

TEST_F(EngineSendTest, DispatcherCreatesTheStartSemaphoreAndNoOther)
{
    EXPECT_EQ(Qelvo_SendStrByHttp(nullptr, 0), 1u);
    const HOspSem hFirst = g_pCurlSemSet[SENDBYCURL_SEM_INIT];
    EXPECT_EQ(Qelvo_SendStrByHttp(nullptr, 0), 1u);

    EXPECT_NE(hFirst, nullptr);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_INIT], hFirst);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_SPARE], nullptr);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS], nullptr);
    EXPECT_EQ(fake::SemsCreated(), 1u);
}

TEST_F(EngineSendTest, DispatcherDoesNotStartTheModule)
{
    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 1u);

    EXPECT_EQ(g_bInited, 0u);
    EXPECT_EQ(fake::Tasks().size(), 0u);
}

TEST_F(EngineSendTest, UnknownModeIsRefusedAndCreatesNoRequest)
{
    Start();

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 2), 1u);

    EXPECT_EQ(fake::Lines().size(), 2u);
    ExpectLine(MODE, LEVEL_INFO, DISPATCH, " eSyncMode:2 [0:Sync 1:ASync]\n");
    ExpectLine(BAD_MODE, LEVEL_ERROR, DISPATCH, "[Error] InValided Param! eSyncMode:2\n");
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
    EXPECT_EQ(tParam.dwRecvLen, tParam.dwMaxRecvLen);
}

TEST_F(EngineSendTest, HugeModeIsRefusedToo)
{
    Start();

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0xFFFFFFFFu), 1u);

    ExpectLine(BAD_MODE, LEVEL_ERROR, DISPATCH, "[Error] InValided Param! eSyncMode:-1\n");
}

TEST_F(EngineSendTest, ModeZeroSendsSynchronously)
{
    Start();
    AnswerWith({200, {"hello"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u);

    EXPECT_EQ(FormatsOf(DISPATCH), (std::vector<std::string>{MODE, SYNC_SUCCESS}));
    ExpectLine(MODE, LEVEL_INFO, DISPATCH, " eSyncMode:0 [0:Sync 1:ASync]\n");
    ExpectLine(SYNC_SUCCESS, LEVEL_INFO, DISPATCH, " Qelvo_SyncSendStrByHttpCurl Success!\n");
    EXPECT_LT(PlaceOf(MODE), PlaceOf(IN_SYNC));
    EXPECT_LT(PlaceOf(IN_SYNC), PlaceOf(SYNC_SUCCESS));
    EXPECT_EQ(tParam.dwRecvLen, 5u);
    EXPECT_STREQ(achRecv, "hello");
}

TEST_F(EngineSendTest, ModeZeroReportsTheSendsFailure)
{
    Start();
    AnswerWith({500, {"no"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 10u);

    EXPECT_EQ(FormatsOf(DISPATCH), (std::vector<std::string>{MODE, SYNC_FAILED}));
    ExpectLine(SYNC_FAILED, LEVEL_ERROR, DISPATCH, "[Error] Qelvo_SyncSendStrByHttpCurl Failed! eSendCurlRet:10\n");
}

TEST_F(EngineSendTest, ModeOneSendsAsynchronously)
{
    Start();

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 1), 0u);

    EXPECT_EQ(FormatsOf(DISPATCH), (std::vector<std::string>{MODE, ASYNC_SUCCESS}));
    ExpectLine(MODE, LEVEL_INFO, DISPATCH, " eSyncMode:1 [0:Sync 1:ASync]\n");
    ExpectLine(ASYNC_SUCCESS, LEVEL_INFO, DISPATCH, " Qelvo_ASyncSendStrByHttpCurl Success!\n");
    EXPECT_EQ(SlotsTaken(), 1u);
    EXPECT_EQ(tParam.dwRecvLen, tParam.dwMaxRecvLen);
}

TEST_F(EngineSendTest, ModeOneReportsTheSendsFailure)
{
    Start();
    tParam.pchURL = nullptr;

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 1), 1u);

    EXPECT_EQ(FormatsOf(DISPATCH), (std::vector<std::string>{MODE, ASYNC_FAILED}));
    ExpectLine(ASYNC_FAILED, LEVEL_ERROR, DISPATCH, "[Error] Qelvo_ASyncSendStrByHttpCurl Failed! eSendCurlRet:1\n");
}

TEST_F(EngineSendTest, CapacityIsTheReceiveLengthDuringTheSend)
{
    Start();
    tParam.dwRecvLen = 3;
    uint32_t dwSeen = 0;
    hooks::easy_perform = [&](CURL *) {
        dwSeen = tParam.dwRecvLen;
        return CURLE_COULDNT_CONNECT;
    };

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 10u);

    EXPECT_EQ(dwSeen, 16u);
}

TEST_F(EngineSendTest, TheSynchronousSendItselfKeepsTheReceiveLengthGiven)
{
    Start();
    AnswerWith({200, {"12345"}, CURLE_OK});
    tParam.dwRecvLen = 4;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 11u);

    EXPECT_EQ(tParam.dwRecvLen, 5u);
}

/* --- the synchronous send ------------------------------------------------------------------------ */

TEST_F(EngineSendTest, SyncWithoutRecord)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(nullptr), 1u);

    EXPECT_EQ(FormatsOf(SYNC), (std::vector<std::string>{IN_SYNC, ONE_NULL}));
    EXPECT_EQ(fake::Lines().size(), 2u);
    ExpectLine(IN_SYNC, LEVEL_INFO, SYNC, " In Qelvo_SyncSendStr ByHttpCurl\n");
    ExpectLine(ONE_NULL, LEVEL_ERROR, SYNC, "[Error] @ One Param is NULL!\n");
}

TEST_F(EngineSendTest, SyncWithoutUrl)
{
    Start();
    tParam.pchURL = nullptr;
    tParam.pchSendBuf = nullptr; /* the URL is looked at first */

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    EXPECT_EQ(FormatsOf(SYNC), (std::vector<std::string>{IN_SYNC, ONE_NULL}));
    ExpectLine(ONE_NULL, LEVEL_ERROR, SYNC, "[Error] @ One Param is NULL!\n");
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

TEST_F(EngineSendTest, SyncWithoutBody)
{
    Start();
    tParam.pchSendBuf = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    EXPECT_EQ(FormatsOf(SYNC), (std::vector<std::string>{IN_SYNC, TWO_NULL}));
    ExpectLine(TWO_NULL, LEVEL_ERROR, SYNC, "[Error] @ Two Param is NULL!\n");
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

TEST_F(EngineSendTest, SyncWithoutBuffer)
{
    Start();
    tParam.pchRecvBuf = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    EXPECT_EQ(FormatsOf(SYNC), (std::vector<std::string>{IN_SYNC, TWO_NULL}));
    ExpectLine(TWO_NULL, LEVEL_ERROR, SYNC, "[Error] @ Two Param is NULL!\n");
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

TEST_F(EngineSendTest, SyncSetsItsOptionsInOrder)
{
    Start();
    std::vector<std::string> astrHeader;
    std::string strBody;
    hooks::easy_perform = [&](CURL *) {
        astrHeader = HeaderLines(ValueOf(CURLOPT_HTTPHEADER));
        strBody.assign(reinterpret_cast<const char *>(ValueOf(CURLOPT_POSTFIELDS)), tParam.dwSendLen);
        return CURLE_COULDNT_CONNECT;
    };

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 10u);

    EXPECT_EQ(hooks::OptionOrder(), POST_ORDER);
    EXPECT_EQ(TextOf(CURLOPT_URL), tParam.pchURL);
    EXPECT_EQ(ValueOf(CURLOPT_POST), 1u);
    EXPECT_EQ(astrHeader, (std::vector<std::string>{"Content-Type:application/json;charset=UTF-8", "Expect:"}));
    EXPECT_EQ(strBody, "{\"a\":1}");
    EXPECT_EQ(ValueOf(CURLOPT_POSTFIELDSIZE), 7u);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 1111u);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 2222u);
}

TEST_F(EngineSendTest, SyncOverHttpsTurnsVerificationOff)
{
    Start();
    AnswerWith({0, {}, CURLE_COULDNT_CONNECT});
    tParam.pchURL = "https://127.0.0.1:1/x";
    Order aeExpected = POST_ORDER;
    aeExpected.insert(aeExpected.begin() + 1, {CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CAINFO});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 10u);

    EXPECT_EQ(hooks::OptionOrder(), aeExpected);
}

TEST_F(EngineSendTest, SyncAuthenticatesBetweenMethodAndBody)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    tParam.bCurlAuth = 1;
    strcpy(tParam.achUserAndPassWd, "user:secret");
    Order aeExpected = POST_ORDER;
    aeExpected.insert(aeExpected.begin() + 2, {CURLOPT_USERPWD, CURLOPT_HTTPAUTH});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u);

    EXPECT_EQ(hooks::OptionOrder(), aeExpected);
    EXPECT_EQ(TextOf(CURLOPT_USERPWD), "user:secret");
}

/* Right behind the array there are bytes that are no terminator, and behind them nothing. */
TEST_F(EngineSendTest, SyncReadsUserAndPasswordFilledToTheLastByteAndNotBeyond)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    const std::unique_ptr<TSendByCurlParam, decltype(&free)> ptFull(
        static_cast<TSendByCurlParam *>(malloc(sizeof(TSendByCurlParam))), &free);
    memset(static_cast<void *>(ptFull.get()), 'X', sizeof(TSendByCurlParam));
    ptFull->pchURL = tParam.pchURL;
    ptFull->eHeadType = 0;
    ptFull->pchSendBuf = tParam.pchSendBuf;
    ptFull->dwSendLen = tParam.dwSendLen;
    ptFull->dwConnTimeOutMS = ptFull->dwTimeoutMS = 1000;
    ptFull->dwMaxRecvLen = tParam.dwMaxRecvLen;
    ptFull->pchRecvBuf = achRecv;
    ptFull->bCurlAuth = 1;
    const std::string strFull = "user:" + std::string(sizeof ptFull->achUserAndPassWd - 5, 'p');
    memcpy(ptFull->achUserAndPassWd, strFull.data(), strFull.size());

    EXPECT_EQ(Qelvo_SendStrByHttp(ptFull.get(), 0), 0u);

    EXPECT_EQ(TextOf(CURLOPT_USERPWD), strFull);
}

TEST_F(EngineSendTest, SyncWithoutAuthenticationSetsNone)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    memset(tParam.achUserAndPassWd, 'p', sizeof tParam.achUserAndPassWd);

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u);

    EXPECT_EQ(hooks::OptionOrder(), POST_ORDER);
}

TEST_F(EngineSendTest, EachHeadTypeHasItsMethodOption)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    const struct {
        uint32_t eHeadType;
        CURLoption eOption;
    } atCases[] = {
        {0, CURLOPT_POST}, {1, OPTION_PUT}, {2, CURLOPT_HTTPGET}, {3, CURLOPT_POST}, {0xFFFFFFFFu, CURLOPT_POST}};
    for (const auto &tCase : atCases) {
        SCOPED_TRACE(tCase.eHeadType);
        hooks::ClearOptions();
        tParam.eHeadType = tCase.eHeadType;
        EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u);
        ASSERT_GT(hooks::OptionOrder().size(), 1u);
        EXPECT_EQ(hooks::OptionOrder()[1], tCase.eOption);
        EXPECT_EQ(ValueOf(tCase.eOption), 1u);
        EXPECT_EQ(hooks::OptionsOf(CURLOPT_CUSTOMREQUEST).size(), 0u);
    }
}

TEST_F(EngineSendTest, SyncAnsweredByAnotherStatusKeepsCapacityAndBuffer)
{
    Start();
    AnswerWith({404, {"missing"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 10u);

    ExpectLine(STATUS, LEVEL_INFO, SYNC, " nHttpStatusCode:404\n");
    EXPECT_EQ(fake::CountOf(CONVERTED), 0u);
    EXPECT_EQ(fake::CountOf(STEP_FAILED), 0u);
    EXPECT_EQ(tParam.dwRecvLen, tParam.dwMaxRecvLen);
    EXPECT_TRUE(BufferUntouched());
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncTakesNoOtherSuccessStatusThan200)
{
    Start();
    for (const long nStatus : {100L, 199L, 201L, 204L, 301L, 500L}) {
        AnswerWith({nStatus, {"x"}, CURLE_OK});
        EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 10u) << nStatus;
    }
    EXPECT_TRUE(BufferUntouched());
}

TEST_F(EngineSendTest, SyncTransferThatFailsWithoutAnswerIsAStatusFailure)
{
    Start();
    for (const CURLcode eCode : {CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT, CURLE_SSL_CONNECT_ERROR,
                                 CURLE_COULDNT_RESOLVE_HOST, CURLE_GOT_NOTHING}) {
        SCOPED_TRACE(eCode);
        fake::ClearLines();
        AnswerWith({0, {}, eCode});
        EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 10u);
        ExpectLine(STATUS, LEVEL_INFO, SYNC, " nHttpStatusCode:0\n");
        EXPECT_EQ(tParam.dwRecvLen, tParam.dwMaxRecvLen);
    }
    EXPECT_TRUE(BufferUntouched());
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncTransferCutOffAfterItsStatusGivesWhatCame)
{
    Start();
    AnswerWith({200, {"half", " an"}, CURLE_PARTIAL_FILE});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u);

    EXPECT_STREQ(achRecv, "half an");
    EXPECT_EQ(tParam.dwRecvLen, 7u);
}

TEST_F(EngineSendTest, SyncAnswerOfExactlyTheCapacityIsTaken)
{
    Start();
    AnswerWith({200, {"0123456789", "abcdef"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u);

    EXPECT_EQ(tParam.dwRecvLen, 16u);
    EXPECT_EQ(std::string(achRecv, 18), std::string("0123456789abcdef\0#", 18));
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncAnswerOneByteLongerIsRefusedAndItsLengthTold)
{
    Start();
    AnswerWith({200, {"0123456789", "abcdefg"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 11u);

    EXPECT_EQ(tParam.dwRecvLen, 17u);
    ExpectSyncStepFailed(7, 11);
}

TEST_F(EngineSendTest, SyncEmptyAnswerIsATerminator)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u);

    EXPECT_EQ(tParam.dwRecvLen, 0u);
    EXPECT_EQ(std::string(achRecv, 2), std::string("\0#", 2));
}

TEST_F(EngineSendTest, SyncWithoutCapacityIsABadArgumentOfTheReadout)
{
    Start();
    AnswerWith({200, {"x"}, CURLE_OK});
    tParam.dwMaxRecvLen = 0;

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 1u);

    ExpectSyncStepFailed(4, 1);
}

TEST_F(EngineSendTest, SyncSuccessSaysNothingMoreInItsOwnName)
{
    Start();
    AnswerWith({200, {"hello"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&(tParam.dwRecvLen = 16, tParam)), 0u);

    EXPECT_EQ(FormatsOf(SYNC), (std::vector<std::string>{IN_SYNC}));
    EXPECT_EQ(fake::CountOf(CONVERTED), 0u);
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncBeforeTheStartIsTheConvertedRefusal)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    ExpectLine(CREATE_FAILED, LEVEL_ERROR, SYNC, "[Error] @ is Failed!\n");
    ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
               " Transfer NvrHttpCurlCltRet[4] to ESendByCurlRet[1]\n");
    EXPECT_LT(PlaceOf(CREATE_FAILED), PlaceOf(CONVERTED));
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

TEST_F(EngineSendTest, SyncWithoutEasyHandle)
{
    Start();
    hooks::easy_init = [] { return nullptr; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    ExpectLine(CREATE_FAILED, LEVEL_ERROR, SYNC, "[Error] @ is Failed!\n");
    ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
               " Transfer NvrHttpCurlCltRet[1] to ESendByCurlRet[1]\n");
}

TEST_F(EngineSendTest, SyncWithoutMemoryForTheRequest)
{
    Start();
    CountMemory();
    fake::FailMalloc(1);

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 9u);

    ExpectLine(CREATE_FAILED, LEVEL_ERROR, SYNC, "[Error] @ is Failed!\n");
    ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
               " Transfer NvrHttpCurlCltRet[5] to ESendByCurlRet[9]\n");
    EXPECT_EQ(fake::BlocksAlive(), 0u);
}

TEST_F(EngineSendTest, SyncWithoutMemoryForAnyPartOfTheBody)
{
    Start();
    CountMemory();
    for (unsigned nNth = 2; nNth <= 5; ++nNth) { /* the first is the request's */
        SCOPED_TRACE(nNth);
        fake::ClearLines();
        hooks::ClearOptions();
        fake::FailMalloc(nNth);
        EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 9u);
        ExpectLine(STEP_FAILED, LEVEL_INFO, SYNC, " @ is Failed!\n");
        EXPECT_EQ(fake::BlocksAlive(), 0u);
        EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL, CURLOPT_POST}));
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0u);
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncStopsAtARefusedUrl)
{
    Start();
    hooks::RefuseOption(CURLOPT_URL, CURLE_OUT_OF_MEMORY);

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    ExpectSyncStepFailed(1, 1);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL}));
    EXPECT_EQ(hooks::Calls("curl_slist_append"), 0u);
}

TEST_F(EngineSendTest, SyncStopsAtARefusedMethod)
{
    Start();
    hooks::RefuseOption(CURLOPT_POST, CURLE_UNKNOWN_OPTION);

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    ExpectSyncStepFailed(1, 1);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL, CURLOPT_POST}));
}

TEST_F(EngineSendTest, SyncStopsAtRefusedAuthentication)
{
    Start();
    hooks::RefuseOption(CURLOPT_HTTPAUTH, CURLE_NOT_BUILT_IN);
    tParam.bCurlAuth = 1;
    strcpy(tParam.achUserAndPassWd, "u:p");

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    ExpectSyncStepFailed(1, 1);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL, CURLOPT_POST, CURLOPT_USERPWD, CURLOPT_HTTPAUTH}));
}

TEST_F(EngineSendTest, SyncStopsAtATimeoutOfZero)
{
    Start();
    tParam.dwTimeoutMS = 0;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    ExpectSyncStepFailed(4, 1);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0u);
}

TEST_F(EngineSendTest, SyncStopsAtAConnectTimeoutOfZero)
{
    Start();
    tParam.dwConnTimeOutMS = 0;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    ExpectSyncStepFailed(4, 1);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0u);
}

TEST_F(EngineSendTest, SyncStopsWhereTheStatusCannotBeRead)
{
    Start();
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_BAD_FUNCTION_ARGUMENT; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&tParam), 1u);

    ExpectSyncStepFailed(1, 1);
    EXPECT_EQ(fake::CountOf(STATUS), 0u);
}

TEST_F(EngineSendTest, SyncReportsAnAnswerLostForWantOfMemory)
{
    Start();
    CountMemory();
    AnswerWith({200, {"lost"}, CURLE_OK});
    fake::FailRealloc(1);

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 1u);

    ExpectSyncStepFailed(1, 1);
    fake::FreeLostBlocks();
    EXPECT_EQ(fake::BlocksAlive(), 0u);
}

TEST_F(EngineSendTest, SyncGoesOnAfterARefusedBodyOption)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    hooks::RefuseOption(CURLOPT_POSTFIELDSIZE, CURLE_UNKNOWN_OPTION);

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u);
}

TEST_F(EngineSendTest, SyncSendsFromManyThreadsKeepTheirAnswersApart)
{
    Start();
    hooks::easy_perform = [](CURL *ptEasy) {
        std::string strUrl;
        for (const hooks::Option &tOption : hooks::OptionsOf(CURLOPT_URL)) {
            if (tOption.ptEasy == ptEasy) {
                strUrl = tOption.strText;
            }
        }
        return Deliver(ptEasy, {200, {strUrl.substr(strUrl.size() - 4)}, CURLE_OK});
    };
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *pvValue) {
        *static_cast<long *>(pvValue) = 200;
        return CURLE_OK;
    };
    std::atomic<int> nWrong{0};

    Race(4, [&](unsigned nThread) {
        for (unsigned nII = 0; nII < 20; ++nII) {
            char achAnswer[8] = "";
            const std::string strTag = std::to_string(1000 + nThread * 100 + nII);
            const std::string strUrl = "http://127.0.0.1:1/" + strTag;
            TSendByCurlParam tMine = {};
            tMine.pchURL = strUrl.c_str();
            tMine.pchSendBuf = "{}";
            tMine.dwSendLen = 2;
            tMine.dwConnTimeOutMS = tMine.dwTimeoutMS = 1000;
            tMine.dwMaxRecvLen = sizeof achAnswer - 1;
            tMine.pchRecvBuf = achAnswer;
            nWrong += Qelvo_SendStrByHttp(&tMine, 0) == 0 && strTag == achAnswer ? 0 : 1;
        }
    });

    EXPECT_EQ(nWrong, 0);
    ExpectNoHandleLeft();
}

/* --- the asynchronous send ----------------------------------------------------------------------- */

TEST_F(EngineSendTest, AsyncWithoutRecord)
{
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(nullptr), 1u);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(ONE_NULL, LEVEL_ERROR, ASYNC, "[Error] @ One Param is NULL!\n");
}

TEST_F(EngineSendTest, NoPlaceIsTakenForANullRequest)
{
    Start();

    EXPECT_FALSE(SendByCurlRegistCallback(nullptr, SendByCurlReqProgressNtf));

    ExpectLine(ONE_NULL, LEVEL_ERROR, "SendByCurlRegistCallback", "[Error] @ One Param is NULL!\n");
    EXPECT_EQ(SlotsTaken(), 0u);
}

TEST_F(EngineSendTest, AsyncWithoutUrl)
{
    Start();
    tParam.pchURL = nullptr;
    tParam.pchSendBuf = nullptr;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 1u);

    EXPECT_EQ(FormatsOf(ASYNC), (std::vector<std::string>{ONE_NULL}));
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

TEST_F(EngineSendTest, AsyncWithoutBody)
{
    Start();
    tParam.pchSendBuf = nullptr;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 1u);

    EXPECT_EQ(FormatsOf(ASYNC), (std::vector<std::string>{TWO_NULL}));
    ExpectLine(TWO_NULL, LEVEL_ERROR, ASYNC, "[Error] @ Two Param is NULL!\n");
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

TEST_F(EngineSendTest, AsyncWithoutBuffer)
{
    Start();
    tParam.pchRecvBuf = nullptr;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 1u);

    EXPECT_EQ(FormatsOf(ASYNC), (std::vector<std::string>{TWO_NULL}));
    EXPECT_EQ(SlotsTaken(), 0u);
}

TEST_F(EngineSendTest, AsyncTakesTheFirstSlotAndQueuesTheRequest)
{
    Start();

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);

    EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1u);
    ASSERT_NE(g_pfASnycCBParam[0].ptReq, nullptr);
    EXPECT_EQ(g_pfASnycCBParam[0].pfNtf, Collect);
    EXPECT_EQ(SlotsTaken(), 1u);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 1u);
    const auto *ptNode =
        static_cast<const TNvrHttpCurlCltAsyncNode *>(g_hInitHandle->atTasks[0].tRunList.ptHead->pvData);
    EXPECT_EQ(ptNode->ptReqIn, g_pfASnycCBParam[0].ptReq);
    EXPECT_EQ(ptNode->pfNtf, SendByCurlReqHttpCurlProgressNtf);
    EXPECT_EQ(ptNode->pvUserBuf, achRecv);
    EXPECT_EQ(FormatsOf(ASYNC), std::vector<std::string>());
    EXPECT_EQ(fake::CountOf(IN_SYNC), 0u);
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
}

TEST_F(EngineSendTest, AsyncNeverAuthenticates)
{
    Start();
    tParam.bCurlAuth = 1;
    strcpy(tParam.achUserAndPassWd, "user:secret");

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);

    EXPECT_EQ(hooks::OptionOrder(), POST_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 1111u);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 2222u);
    EXPECT_EQ(HeaderLines(ValueOf(CURLOPT_HTTPHEADER)),
              (std::vector<std::string>{"Content-Type:application/json;charset=UTF-8", "Expect:"}));
}

TEST_F(EngineSendTest, AsyncSlotIsRegisteredBeforeTheSubmission)
{
    Start();
    TSendByCurlASyncCB tSeen = {};
    hooks::easy_setopt = [&](CURL *ptEasy, CURLoption eOption, void *pvValue) {
        if (eOption == CURLOPT_CONNECTTIMEOUT_MS) { /* set by the submission, before it queues */
            tSeen = g_pfASnycCBParam[0];
        }
        return hooks::real::easy_setopt(ptEasy, eOption, pvValue);
    };

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);

    EXPECT_EQ(tSeen.bUseFlag, 1u);
    EXPECT_NE(tSeen.ptReq, nullptr);
    EXPECT_EQ(tSeen.ptReq, g_pfASnycCBParam[0].ptReq);
    EXPECT_EQ(tSeen.pfNtf, Collect);
}

TEST_F(EngineSendTest, AsyncSlotIsRegisteredAfterThePreparation)
{
    Start();
    uint32_t bTaken = 7;
    hooks::easy_setopt = [&](CURL *ptEasy, CURLoption eOption, void *pvValue) {
        if (eOption == CURLOPT_NOSIGNAL) { /* the last one of the preparation */
            bTaken = g_pfASnycCBParam[0].bUseFlag;
        }
        return hooks::real::easy_setopt(ptEasy, eOption, pvValue);
    };

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);

    EXPECT_EQ(bTaken, 0u);
}

TEST_F(EngineSendTest, AsyncTakesTheLowestFreeSlot)
{
    Start();
    for (const size_t nTaken : {0u, 1u, 3u}) {
        g_pfASnycCBParam[nTaken].bUseFlag = 1;
    }

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);

    EXPECT_EQ(g_pfASnycCBParam[2].bUseFlag, 1u);
    EXPECT_NE(g_pfASnycCBParam[2].ptReq, nullptr);
    EXPECT_EQ(SlotsTaken(), 4u);
    for (const size_t nTaken : {0u, 1u, 3u, 4u}) {
        EXPECT_EQ(g_pfASnycCBParam[nTaken].ptReq, nullptr);
    }
}

TEST_F(EngineSendTest, AsyncTakesTheLastSlot)
{
    Start();
    for (TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        tSlot.bUseFlag = &tSlot == &g_pfASnycCBParam[1023] ? 0 : 1;
    }

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);

    EXPECT_EQ(g_pfASnycCBParam[1023].bUseFlag, 1u);
    EXPECT_NE(g_pfASnycCBParam[1023].ptReq, nullptr);
}

TEST_F(EngineSendTest, AsyncWithAllSlotsTakenReleasesItsRequest)
{
    Start();
    for (TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        tSlot = {1, nullptr, nullptr};
    }

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 1), 4u);

    ExpectLine(STEP_FAILED, LEVEL_INFO, ASYNC, " @ is Failed!\n");
    ExpectLine(ASYNC_FAILED, LEVEL_ERROR, DISPATCH, "[Error] Qelvo_ASyncSendStrByHttpCurl Failed! eSendCurlRet:4\n");
    EXPECT_EQ(fake::CountOf(CONVERTED), 0u);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 1u);
    ExpectNoHandleLeft();
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 0u);
    for (const TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        EXPECT_EQ(tSlot.ptReq, nullptr);
    }
}

TEST_F(EngineSendTest, AsyncSendBeyond1024OutstandingOnesIsRefusedAndLeavesNoRequest)
{
    Start();
    std::set<HNvrHttpCurlCltReq> ahReqs;
    for (size_t nII = 0; nII < 1024; ++nII) {
        ASSERT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u) << nII;
        ahReqs.insert(g_pfASnycCBParam[nII].ptReq);
    }
    EXPECT_EQ(ahReqs.size(), 1024u);

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 4u);

    EXPECT_EQ(hooks::Calls("curl_easy_init"), 1025u);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1u);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 1024u);

    SendByCurlReqHttpCurlProgressNtf(g_pfASnycCBParam[500].ptReq, 1, 0, achRecv);
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);
    EXPECT_EQ(g_pfASnycCBParam[500].bUseFlag, 1u);
}

TEST_F(EngineSendTest, AsyncRefusedSubmissionLeavesItsSlotMarkedAndShown)
{
    Start();
    tParam.dwTimeoutMS = 0;

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 1), 1u);

    ExpectAsyncStepFailed(4, 1);
    EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1u);
    EXPECT_NE(g_pfASnycCBParam[0].ptReq, nullptr); /* stale by now */
    EXPECT_EQ(g_pfASnycCBParam[0].pfNtf, Collect);

    SendByCurlShow();
    ExpectLine("%s[L:%d] [%d] bUseFlag:%d, g_pfNtf:%p, ptReq:%p\n", LEVEL_INFO, "SendByCurlShow",
               " [0] bUseFlag:1, g_pfNtf:" + Ptr(Collect) + ", ptReq:" + Ptr(g_pfASnycCBParam[0].ptReq) + "\n");
}

TEST_F(EngineSendTest, AsyncEachRefusedSubmissionCostsASlot)
{
    Start();
    tParam.dwConnTimeOutMS = 0;
    for (uint32_t dwII = 0; dwII < 3; ++dwII) {
        EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 1u);
    }
    tParam.dwConnTimeOutMS = 1000;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 0u);

    EXPECT_EQ(SlotsTaken(), 4u);
    EXPECT_EQ(g_pfASnycCBParam[3].bUseFlag, 1u);
}

TEST_F(EngineSendTest, AsyncBeyondTheEnginesLimitIsTheLimitResult)
{
    Start();
    g_hInitHandle->dwAsyncReqNum = 1024;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 12u);

    g_hInitHandle->dwAsyncReqNum = 0;
    ExpectAsyncStepFailed(8, 12);
    EXPECT_EQ(SlotsTaken(), 1u);
}

TEST_F(EngineSendTest, AsyncWithoutMemoryForTheSubmission)
{
    Start();
    CountMemory();
    fake::FailMalloc(6); /* the request and its body take five */

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 9u);

    ExpectAsyncStepFailed(5, 9);
    EXPECT_EQ(SlotsTaken(), 1u);
    EXPECT_EQ(fake::BlocksAlive(), 0u);
}

TEST_F(EngineSendTest, AsyncBeforeTheStartIsOneWithoutConversion)
{
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 1u);

    ExpectLine(CREATE_FAILED, LEVEL_ERROR, ASYNC, "[Error] @ is Failed!\n");
    EXPECT_EQ(fake::CountOf(CONVERTED), 0u);
    EXPECT_EQ(SlotsTaken(), 0u);
}

TEST_F(EngineSendTest, AsyncCreationFailureIsOneWhateverTheEngineSays)
{
    Start();
    CountMemory();
    fake::FailMalloc(1);

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 1u);

    ExpectLine(CREATE_FAILED, LEVEL_ERROR, ASYNC, "[Error] @ is Failed!\n");
    EXPECT_EQ(fake::CountOf(CONVERTED), 0u);
    EXPECT_EQ(SlotsTaken(), 0u);
}

TEST_F(EngineSendTest, AsyncStopsAtARefusedUrlWithoutASlot)
{
    Start();
    hooks::RefuseOption(CURLOPT_URL, CURLE_OUT_OF_MEMORY);

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 1u);

    ExpectAsyncStepFailed(1, 1);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL}));
    EXPECT_EQ(SlotsTaken(), 0u);
}

TEST_F(EngineSendTest, AsyncStopsAtARefusedMethodWithoutASlot)
{
    Start();
    hooks::RefuseOption(CURLOPT_HTTPGET, CURLE_UNKNOWN_OPTION);
    tParam.eHeadType = 2;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 1u);

    ExpectAsyncStepFailed(1, 1);
    EXPECT_EQ(SlotsTaken(), 0u);
}

TEST_F(EngineSendTest, AsyncWithoutMemoryForTheBodyTakesNoSlot)
{
    Start();
    CountMemory();
    fake::FailMalloc(3);

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&tParam), 9u);

    ExpectAsyncStepFailed(5, 9);
    EXPECT_EQ(SlotsTaken(), 0u);
    EXPECT_EQ(fake::BlocksAlive(), 0u);
}

TEST_F(EngineSendTest, AsyncSendsFromManyThreadsGetSlotsOfTheirOwn)
{
    Start();

    Race(4, [&](unsigned) {
        TSendByCurlParam tMine = tParam;
        for (int nII = 0; nII < 50; ++nII) {
            EXPECT_EQ(Qelvo_SendStrByHttp(&tMine, 1), 0u);
        }
    });

    std::set<HNvrHttpCurlCltReq> ahReqs;
    for (size_t nII = 0; nII < 200; ++nII) {
        EXPECT_EQ(g_pfASnycCBParam[nII].bUseFlag, 1u);
        ahReqs.insert(g_pfASnycCBParam[nII].ptReq);
    }
    EXPECT_EQ(ahReqs.size(), 200u);
    EXPECT_EQ(SlotsTaken(), 200u);
}

/* --- the completion callback ----------------------------------------------------------------------- */

TEST_F(EngineSendTest, CompletionWithoutRequest)
{
    Start();

    SendByCurlReqHttpCurlProgressNtf(nullptr, 1, 0, achRecv);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(ONE_NULL, LEVEL_ERROR, COMPLETION, "[Error] @ One Param is NULL!\n");
    EXPECT_EQ(NotifiedSoFar().size(), 0u);
}

/* A free slot holds no request, so "none" must not be found in it. */
TEST_F(EngineSendTest, CompletionWithoutRequestClearsNoSlot)
{
    Start();
    g_pfASnycCBParam[0] = {1, nullptr, Collect};

    SendByCurlReqHttpCurlProgressNtf(nullptr, 1, 0, achRecv);

    EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1u);
    EXPECT_EQ(NotifiedSoFar().size(), 0u);
}

TEST_F(EngineSendTest, CompletionOfAnUnknownRequestLeavesItAlone)
{
    Start();
    HNvrHttpCurlCltReq hReq = nullptr;
    ASSERT_EQ(NvrHttpCurlCltReqCreat(g_hInitHandle, &hReq), 0u);
    fake::ClearLines();

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, achRecv);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(ONE_NULL, LEVEL_ERROR, COMPLETION, "[Error] @ One Param is NULL!\n");
    EXPECT_EQ(NotifiedSoFar().size(), 0u);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0u);
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
    NvrHttpCurlCltReqDestroy(hReq);
}

TEST_F(EngineSendTest, CompletionNotifiesClearsTheSlotAndDestroysTheRequest)
{
    Start();
    const HNvrHttpCurlCltReq hReq = Submitted();

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, achRecv);

    ASSERT_EQ(NotifiedSoFar().size(), 1u);
    EXPECT_EQ(NotifiedSoFar()[0].eCode, 0u);
    EXPECT_EQ(NotifiedSoFar()[0].pvContext, achRecv);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 0u);
    ExpectNoHandleLeft();
    EXPECT_EQ(FormatsOf(COMPLETION), std::vector<std::string>());
    EXPECT_EQ(fake::CountOf(CONVERTED), 0u);
    EXPECT_EQ(fake::HeldByThisThread(), 0u);
}

TEST_F(EngineSendTest, CompletionWithoutContextIsLoggedAndReportedAsTheCodeSays)
{
    Start();
    const HNvrHttpCurlCltReq hReq = Submitted();

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, nullptr);

    ExpectLine(COMPLETED_BADLY, LEVEL_INFO, COMPLETION,
               " SendByCurlReqHttpCurlProgressNtf which is Failed! eProg:1[0:Error 1:Finish] eHttpCurlErrCode:0\n");
    ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
               " Transfer NvrHttpCurlCltRet[0] to ESendByCurlRet[0]\n");
    ASSERT_EQ(NotifiedSoFar().size(), 1u);
    EXPECT_EQ(NotifiedSoFar()[0].eCode, 0u);
    EXPECT_EQ(NotifiedSoFar()[0].pvContext, nullptr);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
}

TEST_F(EngineSendTest, CompletionWithErrorProgressAndCodeZeroIsReportedAsZero)
{
    Start();
    const HNvrHttpCurlCltReq hReq = Submitted();

    SendByCurlReqHttpCurlProgressNtf(hReq, 0, 0, achRecv);

    ExpectLine(COMPLETED_BADLY, LEVEL_INFO, COMPLETION,
               " SendByCurlReqHttpCurlProgressNtf which is Failed! eProg:0[0:Error 1:Finish] eHttpCurlErrCode:0\n");
    ASSERT_EQ(NotifiedSoFar().size(), 1u);
    EXPECT_EQ(NotifiedSoFar()[0].eCode, 0u);
}

TEST_F(EngineSendTest, CompletionWithAnErrorIsReportedConverted)
{
    Start();
    const HNvrHttpCurlCltReq hReq = Submitted();

    SendByCurlReqHttpCurlProgressNtf(hReq, 0, 10, achRecv);

    ExpectLine(COMPLETED_BADLY, LEVEL_INFO, COMPLETION,
               " SendByCurlReqHttpCurlProgressNtf which is Failed! eProg:0[0:Error 1:Finish] eHttpCurlErrCode:10\n");
    ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
               " Transfer NvrHttpCurlCltRet[10] to ESendByCurlRet[7]\n");
    EXPECT_LT(PlaceOf(COMPLETED_BADLY), PlaceOf(CONVERTED));
    ASSERT_EQ(NotifiedSoFar().size(), 1u);
    EXPECT_EQ(NotifiedSoFar()[0].eCode, 7u);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, CompletionWithACodeButFinishedProgressIsReportedConverted)
{
    Start();
    const HNvrHttpCurlCltReq hReq = Submitted();

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 11, achRecv);

    ASSERT_EQ(NotifiedSoFar().size(), 1u);
    EXPECT_EQ(NotifiedSoFar()[0].eCode, 14u);
}

TEST_F(EngineSendTest, CompletionOfASendWithoutNotificationIsSilent)
{
    Start();
    tParam.pfNtf = nullptr;
    const HNvrHttpCurlCltReq hReq = Submitted();

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, achRecv);

    EXPECT_EQ(FormatsOf(COMPLETION), std::vector<std::string>());
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 0u);
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, CompletionFindsItsSlotByTheRequestAlone)
{
    Start();
    const HNvrHttpCurlCltReq hReq = Submitted();
    g_pfASnycCBParam[9] = g_pfASnycCBParam[0];
    g_pfASnycCBParam[0] = {};
    g_pfASnycCBParam[9].bUseFlag = 0;

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, achRecv);

    EXPECT_EQ(NotifiedSoFar().size(), 1u);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[9]));
    ExpectNoHandleLeft();
}

namespace
{

ESendByCurlRet g_eOther = 0xFFu;

uint32_t CollectOther(ESendByCurlRet eCode, void *)
{
    g_eOther = eCode;
    return 1;
}

} // namespace

TEST_F(EngineSendTest, CompletionTakesTheLowestOfTwoMatchingSlots)
{
    Start();
    const HNvrHttpCurlCltReq hReq = Submitted();
    g_pfASnycCBParam[5] = {1, hReq, Collect};
    g_pfASnycCBParam[0].pfNtf = CollectOther;

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, achRecv);

    EXPECT_EQ(g_eOther, 0u);
    EXPECT_EQ(NotifiedSoFar().size(), 0u);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_pfASnycCBParam[5].bUseFlag, 1u);
}

namespace
{

struct Moment {
    bool bSlotsTaken;
    uint32_t bUseFlag;
    size_t nDestroyed;
};
std::vector<Moment> g_atMoments;

uint32_t LookAround(ESendByCurlRet, void *)
{
    g_atMoments.push_back({fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]), g_pfASnycCBParam[0].bUseFlag,
                           hooks::Calls("curl_easy_cleanup")});
    return 0;
}

} // namespace

TEST_F(EngineSendTest, NotificationRunsWithoutTheLockAndBeforeTheRelease)
{
    Start();
    tParam.pfNtf = LookAround;
    const HNvrHttpCurlCltReq hReq = Submitted();

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, achRecv);

    ASSERT_EQ(g_atMoments.size(), 1u);
    EXPECT_FALSE(g_atMoments[0].bSlotsTaken);
    EXPECT_EQ(g_atMoments[0].bUseFlag, 1u);
    EXPECT_EQ(g_atMoments[0].nDestroyed, 0u);
}

TEST_F(EngineSendTest, CompletionDestroysTheRequestUnderTheTablesLock)
{
    Start();
    const HNvrHttpCurlCltReq hReq = Submitted();
    bool bLocked = false;
    uint32_t bUseFlag = 0;
    hooks::easy_cleanup = [&](CURL *ptEasy) {
        bLocked = fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
        bUseFlag = g_pfASnycCBParam[0].bUseFlag;
        hooks::real::easy_cleanup(ptEasy);
    };

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, achRecv);

    EXPECT_TRUE(bLocked);
    EXPECT_EQ(bUseFlag, 1u); /* cleared after, not before */
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
}

namespace
{

TSendByCurlParam *g_ptAgain;

uint32_t SendAgain(ESendByCurlRet, void *)
{
    g_ptAgain->pfNtf = Collect;
    return Qelvo_SendStrByHttp(g_ptAgain, 1);
}

} // namespace

TEST_F(EngineSendTest, NotificationMaySendAgain)
{
    Start();
    tParam.pfNtf = SendAgain;
    g_ptAgain = &tParam;
    const HNvrHttpCurlCltReq hReq = Submitted();

    SendByCurlReqHttpCurlProgressNtf(hReq, 1, 0, achRecv);

    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_pfASnycCBParam[1].bUseFlag, 1u); /* the first was still taken */
    EXPECT_EQ(g_pfASnycCBParam[1].pfNtf, Collect);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 1u);
}

/* --- the ready-made notification --------------------------------------------------------------------- */

TEST_F(EngineSendTest, ReadyMadeNotificationLogsAndFreesItsContext)
{
    char *pchContext = static_cast<char *>(malloc(6));
    strcpy(pchContext, "reply");

    EXPECT_EQ(SendByCurlReqProgressNtf(7, pchContext), 0u); /* a leak is the leak checker's to find */

    EXPECT_EQ(FormatsOf("SendByCurlReqProgressNtf"), (std::vector<std::string>{NTF_CODE, NTF_CONTEXT, NTF_END}));
    ExpectLine(NTF_CODE, LEVEL_INFO, "SendByCurlReqProgressNtf", " eErrCode:7\n");
    ExpectLine(NTF_CONTEXT, LEVEL_INFO, "SendByCurlReqProgressNtf", " pvContext:reply\n");
    ExpectLine(NTF_END, LEVEL_INFO, "SendByCurlReqProgressNtf", " End-------------------------------\n");
}

TEST_F(EngineSendTest, ReadyMadeNotificationWithoutContext)
{
    EXPECT_EQ(SendByCurlReqProgressNtf(0, nullptr), 0u);

    EXPECT_EQ(FormatsOf("SendByCurlReqProgressNtf"), (std::vector<std::string>{NTF_CODE, NTF_END}));
}

/* --- conversions ---------------------------------------------------------------------------------------- */

TEST_F(EngineSendTest, EngineCodesAreConvertedByTheTable)
{
    const ESendByCurlRet aeTable[] = {0, 1, 2, 2, 1, 9, 1, 11, 12, 13, 7, 14, 15, 5};
    for (uint32_t eClt = 0; eClt < std::size(aeTable); ++eClt) {
        SCOPED_TRACE(eClt);
        fake::ClearLines();
        EXPECT_EQ(HttpCurlCodeToSendByCurlCode(eClt), aeTable[eClt]);
        EXPECT_EQ(fake::Lines().size(), 1u);
        ExpectLine(CONVERTED, LEVEL_INFO, "HttpCurlCodeToSendByCurlCode",
                   " Transfer NvrHttpCurlCltRet[" + std::to_string(eClt) + "] to ESendByCurlRet[" +
                       std::to_string(aeTable[eClt]) + "]\n");
    }
}

TEST_F(EngineSendTest, EveryCodeBeyondTheTableIsFive)
{
    for (const uint32_t eClt : {13u, 14u, 100u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(HttpCurlCodeToSendByCurlCode(eClt), 5u) << eClt;
    }
}

TEST_F(EngineSendTest, MethodNames)
{
    const struct {
        uint32_t eHeadType;
        const char *szName;
    } atCases[] = {{0, "POST"}, {1, "PUT"}, {2, "GET"}, {3, "POST"}, {0xFFFFFFFFu, "POST"}};
    for (const auto &tCase : atCases) {
        char achName[32] = "";
        EXPECT_EQ(SendByCurlMethodTransToStr(tCase.eHeadType, achName, sizeof achName), 0u);
        EXPECT_STREQ(achName, tCase.szName);
    }
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(EngineSendTest, MethodNameIsBoundedByTheSize)
{
    char achName[8];
    memset(achName, '#', sizeof achName);
    EXPECT_EQ(SendByCurlMethodTransToStr(0, achName, 3), 0u);
    EXPECT_EQ(std::string(achName, 5), std::string("PO\0##", 5));

    memset(achName, '#', sizeof achName);
    EXPECT_EQ(SendByCurlMethodTransToStr(1, achName, 1), 0u);
    EXPECT_EQ(std::string(achName, 3), std::string("\0##", 3));

    memset(achName, '#', sizeof achName);
    EXPECT_EQ(SendByCurlMethodTransToStr(2, achName, 0), 0u);
    EXPECT_EQ(std::string(achName, 3), "###");
}

TEST_F(EngineSendTest, MethodNameWithoutBuffer)
{
    EXPECT_EQ(SendByCurlMethodTransToStr(0, nullptr, 32), 1u);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(ONE_NULL, LEVEL_ERROR, "SendByCurlMethodTransToStr", "[Error] @ One Param is NULL!\n");
}

/* --- end to end, on real worker threads ------------------------------------------------------------------- */

TEST_F(EngineSendTest, RealSyncSend)
{
    const fixture::LoopbackServer tServer(fixture::Reply("pong"));
    const std::string strUrl = tServer.Url();
    Start(true);
    tParam.pchURL = strUrl.c_str();
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 0), 0u) << fake::Transcript();

    EXPECT_STREQ(achRecv, "pong");
    EXPECT_EQ(tParam.dwRecvLen, 4u);
}

TEST_F(EngineSendTest, RealAsyncSendsAreNotifiedOnceEachWithTheirAnswers)
{
    enum { SENDS = 12 };
    fixture::LoopbackServer tServer(fixture::Reply("pong"));
    const std::string strUrl = tServer.Url();
    Start(true);
    static char s_achAnswers[SENDS][16];
    for (auto &achAnswer : s_achAnswers) {
        tParam.pchURL = strUrl.c_str();
        tParam.pchRecvBuf = achAnswer;
        tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;
        EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 1), 0u);
    }

    EXPECT_TRUE(WaitUntil([] { return NotifiedSoFar().size() >= SENDS; })) << fake::Transcript();
    EXPECT_TRUE(WaitUntil([] {
        OspSemTake(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
        const size_t nTaken = SlotsTaken();
        OspSemGive(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
        return nTaken == 0;
    }));
    NvrHttpCurlCltUninit(g_hInitHandle); /* joins the workers: what follows is all there is */

    std::set<void *> apvContexts;
    for (const Notified &tOne : NotifiedSoFar()) {
        EXPECT_EQ(tOne.eCode, 0u);
        apvContexts.insert(tOne.pvContext);
    }
    EXPECT_EQ(NotifiedSoFar().size(), static_cast<size_t>(SENDS));
    EXPECT_EQ(apvContexts.size(), static_cast<size_t>(SENDS));
    for (const auto &achAnswer : s_achAnswers) {
        EXPECT_STREQ(achAnswer, "pong");
    }
    ExpectNoHandleLeft();
    ASSERT_EQ(tServer.Requests().size(), static_cast<size_t>(SENDS));
    const std::string strRequest = tServer.Requests()[0];
    EXPECT_NE(strRequest.find("Content-Type:application/json;charset=UTF-8\r\n"), std::string::npos) << strRequest;
    EXPECT_EQ(strRequest.find("Expect"), std::string::npos) << strRequest;
    EXPECT_EQ(strRequest.substr(strRequest.size() - 7), "{\"a\":1}");
}

TEST_F(EngineSendTest, RealAsyncSendReportsAnyStatusAsSuccess)
{
    const fixture::LoopbackServer tServer(
        "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\nConnection: close\r\n\r\nnone");
    const std::string strUrl = tServer.Url();
    Start(true);
    memset(achRecv, 0, sizeof achRecv);
    tParam.pchURL = strUrl.c_str();
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 1), 0u);

    ASSERT_TRUE(WaitUntil([] { return NotifiedSoFar().size() == 1; })) << fake::Transcript();
    NvrHttpCurlCltUninit(g_hInitHandle);
    EXPECT_EQ(NotifiedSoFar()[0].eCode, 0u);
    EXPECT_STREQ(achRecv, "none");
}

TEST_F(EngineSendTest, RealAsyncSendToARefusingPort)
{
    const fixture::ClosedPort tPort;
    const std::string strUrl = tPort.Url();
    Start(true);
    tParam.pchURL = strUrl.c_str();
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SendStrByHttp(&tParam, 1), 0u);

    ASSERT_TRUE(WaitUntil([] { return NotifiedSoFar().size() == 1; })) << fake::Transcript();
    NvrHttpCurlCltUninit(g_hInitHandle);
    EXPECT_EQ(NotifiedSoFar()[0].eCode, 14u);
    EXPECT_TRUE(BufferUntouched());
    ExpectNoHandleLeft();
}
