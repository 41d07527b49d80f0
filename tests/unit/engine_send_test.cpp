/*
 * JSON sends over the engine: the dispatcher, both modes, the table of callback slots, the
 * completion callback and the conversion of results.
 */
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "tests/support/send_fixture.h"

using namespace test;

namespace
{

const char SYNC[] = "Qelvo_SyncSendStrByHttpCurl";
const char ASYNC[] = "Qelvo_ASyncSendStrByHttpCurl";
const char DISPATCH[] = "Qelvo_SendStrByHttp";
const char COMPLETION[] = "SendByCurlReqHttpCurlProgressNtf";

const char MODE[] = " eSyncMode:%d [0:Sync 1:ASync]\n";
const char BAD_MODE[] = "[Error] InValided Param! eSyncMode:%d\n";
const char SYNC_SUCCESS[] = " Qelvo_SyncSendStrByHttpCurl Success!\n";
const char SYNC_FAILED[] = "[Error] Qelvo_SyncSendStrByHttpCurl Failed! eSendCurlRet:%d\n";
const char ASYNC_SUCCESS[] = " Qelvo_ASyncSendStrByHttpCurl Success!\n";
const char ASYNC_FAILED[] = "[Error] Qelvo_ASyncSendStrByHttpCurl Failed! eSendCurlRet:%d\n";
const char IN_SYNC[] = " In Qelvo_SyncSendStr ByHttpCurl\n";
const char STATUS[] = " nHttpStatusCode:%d\n";
const char COMPLETED_BADLY[] = " SendByCurlReqHttpCurlProgressNtf which is Failed! "
                               "eProg:%d[0:Error 1:Finish] eHttpCurlErrCode:%d\n";
const char NTF_CODE[] = " eErrCode:%d\n";
const char NTF_CONTEXT[] = " pvContext:%s\n";
const char NTF_END[] = " End-------------------------------\n";

/* What a synchronous send of a POST over plain HTTP sets. */
const Order POST_ORDER = {
    CURLOPT_URL,           CURLOPT_POST,      CURLOPT_HTTPHEADER, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE,
    CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA, CURLOPT_VERBOSE,    CURLOPT_NOSIGNAL,   CURLOPT_CONNECTTIMEOUT_MS,
    CURLOPT_TIMEOUT_MS,
};

bool IsEmpty(const TSendByCurlASyncCB &slot)
{
    return slot.bUseFlag == 0 && slot.ptReq == nullptr && slot.pfNtf == nullptr;
}

size_t SlotsTaken()
{
    size_t taken = 0;
    for (const TSendByCurlASyncCB &slot : g_pfASnycCBParam) {
        taken += slot.bUseFlag != 0 ? 1 : 0;
    }
    return taken;
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
        param.pfNtf = Collect;
    }

    void TearDown() override
    {
        if (countingMemory) {
            g_hInitHandle->tMemCB = {malloc, realloc, free};
        }
        RecordTest::TearDown();
    }

    bool BufferUntouched() const
    {
        return std::string(received, sizeof received) == std::string(sizeof received, '#');
    }

    /* The started instance's requests get counted memory, which can be made to run out. */
    void CountMemory()
    {
        g_hInitHandle->tMemCB = fake::MemCB();
        countingMemory = true;
    }

    /* Submits and gives the request that now waits in slot 0. */
    HNvrHttpCurlCltReq Submitted()
    {
        EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);
        EXPECT_NE(g_pfASnycCBParam[0].ptReq, nullptr);
        fake::ClearLines();
        return g_pfASnycCBParam[0].ptReq;
    }

    /* A synchronous send that failed in an engine step, and was converted, and left nothing. */
    void ExpectSyncStepFailed(unsigned engine, unsigned send)
    {
        ExpectInOrder({StepFailed(SYNC), Converted(engine, send)});
        ExpectNoHandleLeft();
        EXPECT_EQ(hooks::Calls("curl_easy_init"), 1U);
        EXPECT_TRUE(BufferUntouched());
    }

    void ExpectAsyncStepFailed(unsigned engine, unsigned send)
    {
        ExpectInOrder({StepFailed(ASYNC), Converted(engine, send)});
        ExpectNoHandleLeft();
        EXPECT_EQ(NotifiedSoFar().size(), 0U);
    }

    bool countingMemory = false;
};

} // namespace

/* --- the dispatcher --------------------------------------------------------------------------- */

TEST_F(EngineSendTest, NullRecordIsRefusedBeforeAnythingElse)
{
    EXPECT_EQ(Qelvo_SendStrByHttp(nullptr, 0), 1U);

    ExpectLines({OneNull(DISPATCH)});
}

TEST_F(EngineSendTest, DispatcherCreatesTheStartSemaphoreAndNoOther)
{
    EXPECT_EQ(Qelvo_SendStrByHttp(nullptr, 0), 1U);
    const HOspSem first = g_pCurlSemSet[SENDBYCURL_SEM_INIT];
    EXPECT_EQ(Qelvo_SendStrByHttp(nullptr, 0), 1U);

    EXPECT_NE(first, nullptr);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_INIT], first);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_SPARE], nullptr);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS], nullptr);
    EXPECT_EQ(fake::SemsCreated(), 1U);
}

TEST_F(EngineSendTest, DispatcherDoesNotStartTheModule)
{
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 1U);

    EXPECT_EQ(g_bInited, 0U);
    EXPECT_EQ(fake::Tasks().size(), 0U);
}

TEST_F(EngineSendTest, UnknownModeIsRefusedAndCreatesNoRequest)
{
    Start();

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 2), 1U);

    EXPECT_EQ(fake::Lines().size(), 2U);
    ExpectLine(Info(DISPATCH, MODE, 2));
    ExpectLine(Error(DISPATCH, BAD_MODE, 2));
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
    EXPECT_EQ(param.dwRecvLen, param.dwMaxRecvLen);
}

TEST_F(EngineSendTest, HugeModeIsRefusedToo)
{
    Start();

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0xFFFFFFFFU), 1U);

    ExpectLine(Error(DISPATCH, BAD_MODE, -1));
}

TEST_F(EngineSendTest, ModeZeroSendsSynchronously)
{
    Start();
    AnswerWith({200, {"hello"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);

    ExpectLinesOf(DISPATCH, {Info(DISPATCH, MODE, 0), Info(DISPATCH, SYNC_SUCCESS)});
    ExpectInOrder({Info(DISPATCH, MODE, 0), Info(SYNC, IN_SYNC), Info(DISPATCH, SYNC_SUCCESS)});
    EXPECT_EQ(param.dwRecvLen, 5U);
    EXPECT_STREQ(received, "hello");
}

TEST_F(EngineSendTest, ModeZeroReportsTheSendsFailure)
{
    Start();
    AnswerWith({500, {"no"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U);

    ExpectLinesOf(DISPATCH, {Info(DISPATCH, MODE, 0), Error(DISPATCH, SYNC_FAILED, 10)});
}

TEST_F(EngineSendTest, ModeOneSendsAsynchronously)
{
    Start();

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 0U);

    ExpectLinesOf(DISPATCH, {Info(DISPATCH, MODE, 1), Info(DISPATCH, ASYNC_SUCCESS)});
    EXPECT_EQ(SlotsTaken(), 1U);
    EXPECT_EQ(param.dwRecvLen, param.dwMaxRecvLen);
}

TEST_F(EngineSendTest, ModeOneReportsTheSendsFailure)
{
    Start();
    param.pchURL = nullptr;

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 1U);

    ExpectLinesOf(DISPATCH, {Info(DISPATCH, MODE, 1), Error(DISPATCH, ASYNC_FAILED, 1)});
}

TEST_F(EngineSendTest, CapacityIsTheReceiveLengthDuringTheSend)
{
    Start();
    param.dwRecvLen = 3;
    uint32_t seen = 0;
    hooks::easy_perform = [&](CURL *) {
        seen = param.dwRecvLen;
        return CURLE_COULDNT_CONNECT;
    };

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U);

    EXPECT_EQ(seen, 16U);
}

TEST_F(EngineSendTest, TheSynchronousSendItselfKeepsTheReceiveLengthGiven)
{
    Start();
    AnswerWith({200, {"12345"}, CURLE_OK});
    param.dwRecvLen = 4;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 11U);

    EXPECT_EQ(param.dwRecvLen, 5U);
}

/* --- the synchronous send ------------------------------------------------------------------------ */

TEST_F(EngineSendTest, SyncWithoutRecord)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(nullptr), 1U);

    ExpectLinesOf(SYNC, {Info(SYNC, IN_SYNC), OneNull(SYNC)});
    EXPECT_EQ(fake::Lines().size(), 2U);
}

TEST_F(EngineSendTest, SyncWithoutUrl)
{
    Start();
    param.pchURL = nullptr;
    param.pchSendBuf = nullptr; /* the URL is looked at first */

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectLinesOf(SYNC, {Info(SYNC, IN_SYNC), OneNull(SYNC)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(EngineSendTest, SyncWithoutBody)
{
    Start();
    param.pchSendBuf = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectLinesOf(SYNC, {Info(SYNC, IN_SYNC), TwoNull(SYNC)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(EngineSendTest, SyncWithoutBuffer)
{
    Start();
    param.pchRecvBuf = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectLinesOf(SYNC, {Info(SYNC, IN_SYNC), TwoNull(SYNC)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(EngineSendTest, SyncSetsItsOptionsInOrder)
{
    Start();
    Texts header;
    std::string body;
    hooks::easy_perform = [&](CURL *) {
        header = HeaderLines();
        body.assign(reinterpret_cast<const char *>(ValueOf(CURLOPT_POSTFIELDS)), param.dwSendLen);
        return CURLE_COULDNT_CONNECT;
    };

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U);

    EXPECT_EQ(hooks::OptionOrder(), POST_ORDER);
    EXPECT_EQ(TextOf(CURLOPT_URL), param.pchURL);
    EXPECT_EQ(ValueOf(CURLOPT_POST), 1U);
    EXPECT_EQ(header, (Texts{"Content-Type:application/json;charset=UTF-8", "Expect:"}));
    EXPECT_EQ(body, "{\"a\":1}");
    EXPECT_EQ(ValueOf(CURLOPT_POSTFIELDSIZE), 7U);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 1111U);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 2222U);
}

TEST_F(EngineSendTest, SyncOverHttpsTurnsVerificationOff)
{
    Start();
    AnswerWith({0, {}, CURLE_COULDNT_CONNECT});
    param.pchURL = "https://127.0.0.1:1/x";
    Order expected = POST_ORDER;
    expected.insert(expected.begin() + 1, {CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CAINFO});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U);

    EXPECT_EQ(hooks::OptionOrder(), expected);
}

TEST_F(EngineSendTest, SyncAuthenticatesBetweenMethodAndBody)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    param.bCurlAuth = 1;
    strcpy(param.achUserAndPassWd, "user:secret");
    Order expected = POST_ORDER;
    expected.insert(expected.begin() + 2, {CURLOPT_USERPWD, CURLOPT_HTTPAUTH});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);

    EXPECT_EQ(hooks::OptionOrder(), expected);
    EXPECT_EQ(TextOf(CURLOPT_USERPWD), "user:secret");
}

/* Right behind the array there are bytes that are no terminator, and behind them nothing. */
TEST_F(EngineSendTest, SyncReadsUserAndPasswordFilledToTheLastByteAndNotBeyond)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    const std::unique_ptr<TSendByCurlParam, decltype(&free)> filled(
        static_cast<TSendByCurlParam *>(malloc(sizeof(TSendByCurlParam))), &free);
    memset(static_cast<void *>(filled.get()), 'X', sizeof(TSendByCurlParam));
    filled->pchURL = param.pchURL;
    filled->eHeadType = 0;
    filled->pchSendBuf = param.pchSendBuf;
    filled->dwSendLen = param.dwSendLen;
    filled->dwConnTimeOutMS = filled->dwTimeoutMS = 1000;
    filled->dwMaxRecvLen = param.dwMaxRecvLen;
    filled->pchRecvBuf = received;
    filled->bCurlAuth = 1;
    const std::string full = "user:" + std::string(sizeof filled->achUserAndPassWd - 5, 'p');
    memcpy(filled->achUserAndPassWd, full.data(), full.size());

    EXPECT_EQ(Qelvo_SendStrByHttp(filled.get(), 0), 0U);

    EXPECT_EQ(TextOf(CURLOPT_USERPWD), full);
}

TEST_F(EngineSendTest, SyncWithoutAuthenticationSetsNone)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    memset(param.achUserAndPassWd, 'p', sizeof param.achUserAndPassWd);

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);

    EXPECT_EQ(hooks::OptionOrder(), POST_ORDER);
}

TEST_F(EngineSendTest, EachHeadTypeHasItsMethodOption)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    const struct {
        uint32_t headType;
        CURLoption option;
    } cases[] = {{0, CURLOPT_POST},
                 {1, hooks::OPTION_PUT},
                 {2, CURLOPT_HTTPGET},
                 {3, CURLOPT_POST},
                 {0xFFFFFFFFU, CURLOPT_POST}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.headType);
        hooks::ClearOptions();
        param.eHeadType = each.headType;
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);
        ASSERT_GT(hooks::OptionOrder().size(), 1U);
        EXPECT_EQ(hooks::OptionOrder()[1], each.option);
        EXPECT_EQ(ValueOf(each.option), 1U);
        EXPECT_EQ(hooks::OptionsOf(CURLOPT_CUSTOMREQUEST).size(), 0U);
    }
}

TEST_F(EngineSendTest, SyncAnsweredByAnotherStatusKeepsCapacityAndBuffer)
{
    Start();
    AnswerWith({404, {"missing"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U);

    ExpectLine(Info(SYNC, STATUS, 404));
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    EXPECT_EQ(CountOf(STEP_FAILED), 0U);
    EXPECT_EQ(param.dwRecvLen, param.dwMaxRecvLen);
    EXPECT_TRUE(BufferUntouched());
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncTakesNoOtherSuccessStatusThan200)
{
    Start();
    for (const long status : {100L, 199L, 201L, 204L, 301L, 500L}) {
        AnswerWith({status, {"x"}, CURLE_OK});
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U) << status;
    }
    EXPECT_TRUE(BufferUntouched());
}

TEST_F(EngineSendTest, SyncTransferThatFailsWithoutAnswerIsAStatusFailure)
{
    Start();
    for (const CURLcode code : {CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT, CURLE_SSL_CONNECT_ERROR,
                                CURLE_COULDNT_RESOLVE_HOST, CURLE_GOT_NOTHING}) {
        SCOPED_TRACE(code);
        fake::ClearLines();
        AnswerWith({0, {}, code});
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U);
        ExpectLine(Info(SYNC, STATUS, 0));
        EXPECT_EQ(param.dwRecvLen, param.dwMaxRecvLen);
    }
    EXPECT_TRUE(BufferUntouched());
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncTransferCutOffAfterItsStatusGivesWhatCame)
{
    Start();
    AnswerWith({200, {"half", " an"}, CURLE_PARTIAL_FILE});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);

    EXPECT_STREQ(received, "half an");
    EXPECT_EQ(param.dwRecvLen, 7U);
}

TEST_F(EngineSendTest, SyncAnswerOfExactlyTheCapacityIsTaken)
{
    Start();
    AnswerWith({200, {"0123456789", "abcdef"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);

    EXPECT_EQ(param.dwRecvLen, 16U);
    EXPECT_EQ(std::string(received, 18), std::string("0123456789abcdef\0#", 18));
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncAnswerOneByteLongerIsRefusedAndItsLengthTold)
{
    Start();
    AnswerWith({200, {"0123456789", "abcdefg"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 11U);

    EXPECT_EQ(param.dwRecvLen, 17U);
    ExpectSyncStepFailed(7, 11);
}

TEST_F(EngineSendTest, SyncEmptyAnswerIsATerminator)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);

    EXPECT_EQ(param.dwRecvLen, 0U);
    EXPECT_EQ(std::string(received, 2), std::string("\0#", 2));
}

TEST_F(EngineSendTest, SyncWithoutCapacityIsABadArgumentOfTheReadout)
{
    Start();
    AnswerWith({200, {"x"}, CURLE_OK});
    param.dwMaxRecvLen = 0;

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 1U);

    ExpectSyncStepFailed(4, 1);
}

TEST_F(EngineSendTest, SyncSuccessSaysNothingMoreInItsOwnName)
{
    Start();
    AnswerWith({200, {"hello"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&(param.dwRecvLen = 16, param)), 0U);

    ExpectLinesOf(SYNC, {Info(SYNC, IN_SYNC)});
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncBeforeTheStartIsTheConvertedRefusal)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);
    ExpectInOrder({CreateFailed(SYNC), Converted(4, 1)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(EngineSendTest, SyncWithoutEasyHandle)
{
    Start();
    hooks::easy_init = [] { return nullptr; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectLine(CreateFailed(SYNC));
    ExpectLine(Converted(1, 1));
}

TEST_F(EngineSendTest, SyncWithoutMemoryForTheRequest)
{
    Start();
    CountMemory();
    fake::FailMalloc(1);

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 9U);

    ExpectLine(CreateFailed(SYNC));
    ExpectLine(Converted(5, 9));
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

TEST_F(EngineSendTest, SyncWithoutMemoryForAnyPartOfTheBody)
{
    Start();
    CountMemory();
    for (unsigned nth = 2; nth <= 5; ++nth) { /* the first is the request's */
        SCOPED_TRACE(nth);
        fake::ClearLines();
        hooks::ClearOptions();
        fake::FailMalloc(nth);
        EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 9U);
        ExpectLine(StepFailed(SYNC));
        EXPECT_EQ(fake::BlocksAlive(), 0U);
        EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL, CURLOPT_POST}));
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, SyncStopsAtARefusedUrl)
{
    Start();
    hooks::RefuseOption(CURLOPT_URL, CURLE_OUT_OF_MEMORY);

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectSyncStepFailed(1, 1);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL}));
    EXPECT_EQ(hooks::Calls("curl_slist_append"), 0U);
}

TEST_F(EngineSendTest, SyncStopsAtARefusedMethod)
{
    Start();
    hooks::RefuseOption(CURLOPT_POST, CURLE_UNKNOWN_OPTION);

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectSyncStepFailed(1, 1);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL, CURLOPT_POST}));
}

TEST_F(EngineSendTest, SyncStopsAtRefusedAuthentication)
{
    Start();
    hooks::RefuseOption(CURLOPT_HTTPAUTH, CURLE_NOT_BUILT_IN);
    param.bCurlAuth = 1;
    strcpy(param.achUserAndPassWd, "u:p");

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectSyncStepFailed(1, 1);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL, CURLOPT_POST, CURLOPT_USERPWD, CURLOPT_HTTPAUTH}));
}

TEST_F(EngineSendTest, SyncStopsAtATimeoutOfZero)
{
    Start();
    param.dwTimeoutMS = 0;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectSyncStepFailed(4, 1);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
}

TEST_F(EngineSendTest, SyncStopsAtAConnectTimeoutOfZero)
{
    Start();
    param.dwConnTimeOutMS = 0;

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectSyncStepFailed(4, 1);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
}

TEST_F(EngineSendTest, SyncStopsWhereTheStatusCannotBeRead)
{
    Start();
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_BAD_FUNCTION_ARGUMENT; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);

    ExpectSyncStepFailed(1, 1);
    EXPECT_EQ(CountOf(STATUS), 0U);
}

TEST_F(EngineSendTest, SyncReportsAnAnswerLostForWantOfMemory)
{
    Start();
    CountMemory();
    AnswerWith({200, {"lost"}, CURLE_OK});
    fake::FailRealloc(1);

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 1U);

    ExpectSyncStepFailed(1, 1);
    fake::FreeLostBlocks();
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

TEST_F(EngineSendTest, SyncGoesOnAfterARefusedBodyOption)
{
    Start();
    AnswerWith({200, {}, CURLE_OK});
    hooks::RefuseOption(CURLOPT_POSTFIELDSIZE, CURLE_UNKNOWN_OPTION);

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);
}

TEST_F(EngineSendTest, SyncSendsFromManyThreadsKeepTheirAnswersApart)
{
    Start();
    hooks::easy_perform = [](CURL *easy) {
        std::string url;
        for (const hooks::Option &option : hooks::OptionsOf(CURLOPT_URL)) {
            if (option.easy == easy) {
                url = option.text;
            }
        }
        return Deliver(easy, {200, {url.substr(url.size() - 4)}, CURLE_OK});
    };
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *value) {
        *static_cast<long *>(value) = 200;
        return CURLE_OK;
    };
    std::atomic<int> wrong{0};

    Race(4, [&](unsigned index) {
        for (unsigned i = 0; i < 20; ++i) {
            char answer[8] = "";
            const std::string tag = std::to_string(1000 + index * 100 + i);
            const std::string url = "http://127.0.0.1:1/" + tag;
            TSendByCurlParam mine = {};
            mine.pchURL = url.c_str();
            mine.pchSendBuf = "{}";
            mine.dwSendLen = 2;
            mine.dwConnTimeOutMS = mine.dwTimeoutMS = 1000;
            mine.dwMaxRecvLen = sizeof answer - 1;
            mine.pchRecvBuf = answer;
            wrong += Qelvo_SendStrByHttp(&mine, 0) == 0 && tag == answer ? 0 : 1;
        }
    });

    EXPECT_EQ(wrong, 0);
    ExpectNoHandleLeft();
}

/* --- the asynchronous send ----------------------------------------------------------------------- */

TEST_F(EngineSendTest, AsyncWithoutRecord)
{
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(nullptr), 1U);

    ExpectLines({OneNull(ASYNC)});
}

TEST_F(EngineSendTest, NoPlaceIsTakenForANullRequest)
{
    Start();

    EXPECT_FALSE(SendByCurlRegistCallback(nullptr, SendByCurlReqProgressNtf));

    ExpectLine(OneNull("SendByCurlRegistCallback"));
    EXPECT_EQ(SlotsTaken(), 0U);
}

TEST_F(EngineSendTest, AsyncWithoutUrl)
{
    Start();
    param.pchURL = nullptr;
    param.pchSendBuf = nullptr;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);

    ExpectLinesOf(ASYNC, {OneNull(ASYNC)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(EngineSendTest, AsyncWithoutBody)
{
    Start();
    param.pchSendBuf = nullptr;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);

    ExpectLinesOf(ASYNC, {TwoNull(ASYNC)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(EngineSendTest, AsyncWithoutBuffer)
{
    Start();
    param.pchRecvBuf = nullptr;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);

    ExpectLinesOf(ASYNC, {TwoNull(ASYNC)});
    EXPECT_EQ(SlotsTaken(), 0U);
}

TEST_F(EngineSendTest, AsyncTakesTheFirstSlotAndQueuesTheRequest)
{
    Start();

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
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
}

TEST_F(EngineSendTest, AsyncNeverAuthenticates)
{
    Start();
    param.bCurlAuth = 1;
    strcpy(param.achUserAndPassWd, "user:secret");

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);

    EXPECT_EQ(hooks::OptionOrder(), POST_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 1111U);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 2222U);
    EXPECT_EQ(HeaderLines(), (Texts{"Content-Type:application/json;charset=UTF-8", "Expect:"}));
}

TEST_F(EngineSendTest, AsyncSlotIsRegisteredBeforeTheSubmission)
{
    Start();
    TSendByCurlASyncCB seen = {};
    hooks::easy_setopt = [&](CURL *easy, CURLoption option, void *value) {
        if (option == CURLOPT_CONNECTTIMEOUT_MS) { /* set by the submission, before it queues */
            seen = g_pfASnycCBParam[0];
        }
        return hooks::real::easy_setopt(easy, option, value);
    };

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);

    EXPECT_EQ(seen.bUseFlag, 1U);
    EXPECT_NE(seen.ptReq, nullptr);
    EXPECT_EQ(seen.ptReq, g_pfASnycCBParam[0].ptReq);
    EXPECT_EQ(seen.pfNtf, Collect);
}

TEST_F(EngineSendTest, AsyncSlotIsRegisteredAfterThePreparation)
{
    Start();
    uint32_t taken = 7;
    hooks::easy_setopt = [&](CURL *easy, CURLoption option, void *value) {
        if (option == CURLOPT_NOSIGNAL) { /* the last one of the preparation */
            taken = g_pfASnycCBParam[0].bUseFlag;
        }
        return hooks::real::easy_setopt(easy, option, value);
    };

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);

    EXPECT_EQ(taken, 0U);
}

TEST_F(EngineSendTest, AsyncTakesTheLowestFreeSlot)
{
    Start();
    for (const size_t taken : {0U, 1U, 3U}) {
        g_pfASnycCBParam[taken].bUseFlag = 1;
    }

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);

    EXPECT_EQ(g_pfASnycCBParam[2].bUseFlag, 1U);
    EXPECT_NE(g_pfASnycCBParam[2].ptReq, nullptr);
    EXPECT_EQ(SlotsTaken(), 4U);
    for (const size_t taken : {0U, 1U, 3U, 4U}) {
        EXPECT_EQ(g_pfASnycCBParam[taken].ptReq, nullptr);
    }
}

TEST_F(EngineSendTest, AsyncTakesTheLastSlot)
{
    Start();
    for (TSendByCurlASyncCB &slot : g_pfASnycCBParam) {
        slot.bUseFlag = &slot == &g_pfASnycCBParam[1023] ? 0 : 1;
    }

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);

    EXPECT_EQ(g_pfASnycCBParam[1023].bUseFlag, 1U);
    EXPECT_NE(g_pfASnycCBParam[1023].ptReq, nullptr);
}

TEST_F(EngineSendTest, AsyncWithAllSlotsTakenReleasesItsRequest)
{
    Start();
    for (TSendByCurlASyncCB &slot : g_pfASnycCBParam) {
        slot = {1, nullptr, nullptr};
    }

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 4U);

    ExpectLine(StepFailed(ASYNC));
    ExpectLine(Error(DISPATCH, ASYNC_FAILED, 4));
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 1U);
    ExpectNoHandleLeft();
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 0U);
    for (const TSendByCurlASyncCB &slot : g_pfASnycCBParam) {
        EXPECT_EQ(slot.ptReq, nullptr);
    }
}

TEST_F(EngineSendTest, AsyncSendBeyond1024OutstandingOnesIsRefusedAndLeavesNoRequest)
{
    Start();
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

TEST_F(EngineSendTest, AsyncRefusedSubmissionLeavesItsSlotMarkedAndShown)
{
    Start();
    param.dwTimeoutMS = 0;

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 1U);

    ExpectAsyncStepFailed(4, 1);
    EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U);
    EXPECT_NE(g_pfASnycCBParam[0].ptReq, nullptr); /* stale by now */
    EXPECT_EQ(g_pfASnycCBParam[0].pfNtf, Collect);

    SendByCurlShow();
    ExpectLine(Info("SendByCurlShow", " [%d] bUseFlag:%d, g_pfNtf:%p, ptReq:%p\n", 0, 1, Ptr(Collect),
                    Ptr(g_pfASnycCBParam[0].ptReq)));
}

TEST_F(EngineSendTest, AsyncEachRefusedSubmissionCostsASlot)
{
    Start();
    param.dwConnTimeOutMS = 0;
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);
    }
    param.dwConnTimeOutMS = 1000;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 0U);

    EXPECT_EQ(SlotsTaken(), 4U);
    EXPECT_EQ(g_pfASnycCBParam[3].bUseFlag, 1U);
}

TEST_F(EngineSendTest, AsyncBeyondTheEnginesLimitIsTheLimitResult)
{
    Start();
    g_hInitHandle->dwAsyncReqNum = 1024;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 12U);

    g_hInitHandle->dwAsyncReqNum = 0;
    ExpectAsyncStepFailed(8, 12);
    EXPECT_EQ(SlotsTaken(), 1U);
}

TEST_F(EngineSendTest, AsyncWithoutMemoryForTheSubmission)
{
    Start();
    CountMemory();
    fake::FailMalloc(6); /* the request and its body take five */

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 9U);

    ExpectAsyncStepFailed(5, 9);
    EXPECT_EQ(SlotsTaken(), 1U);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

TEST_F(EngineSendTest, AsyncBeforeTheStartIsOneWithoutConversion)
{
    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);

    ExpectLine(CreateFailed(ASYNC));
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    EXPECT_EQ(SlotsTaken(), 0U);
}

TEST_F(EngineSendTest, AsyncCreationFailureIsOneWhateverTheEngineSays)
{
    Start();
    CountMemory();
    fake::FailMalloc(1);

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);

    ExpectLine(CreateFailed(ASYNC));
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    EXPECT_EQ(SlotsTaken(), 0U);
}

TEST_F(EngineSendTest, AsyncStopsAtARefusedUrlWithoutASlot)
{
    Start();
    hooks::RefuseOption(CURLOPT_URL, CURLE_OUT_OF_MEMORY);

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);

    ExpectAsyncStepFailed(1, 1);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL}));
    EXPECT_EQ(SlotsTaken(), 0U);
}

TEST_F(EngineSendTest, AsyncStopsAtARefusedMethodWithoutASlot)
{
    Start();
    hooks::RefuseOption(CURLOPT_HTTPGET, CURLE_UNKNOWN_OPTION);
    param.eHeadType = 2;

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 1U);

    ExpectAsyncStepFailed(1, 1);
    EXPECT_EQ(SlotsTaken(), 0U);
}

TEST_F(EngineSendTest, AsyncWithoutMemoryForTheBodyTakesNoSlot)
{
    Start();
    CountMemory();
    fake::FailMalloc(3);

    EXPECT_EQ(Qelvo_ASyncSendStrByHttpCurl(&param), 9U);

    ExpectAsyncStepFailed(5, 9);
    EXPECT_EQ(SlotsTaken(), 0U);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

TEST_F(EngineSendTest, AsyncSendsFromManyThreadsGetSlotsOfTheirOwn)
{
    Start();

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

/* --- the completion callback ----------------------------------------------------------------------- */

TEST_F(EngineSendTest, CompletionWithoutRequest)
{
    Start();

    SendByCurlReqHttpCurlProgressNtf(nullptr, 1, 0, received);

    ExpectLines({OneNull(COMPLETION)});
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
}

/* A free slot holds no request, so "none" must not be found in it. */
TEST_F(EngineSendTest, CompletionWithoutRequestClearsNoSlot)
{
    Start();
    g_pfASnycCBParam[0] = {1, nullptr, Collect};

    SendByCurlReqHttpCurlProgressNtf(nullptr, 1, 0, received);

    EXPECT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U);
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
}

TEST_F(EngineSendTest, CompletionOfAnUnknownRequestLeavesItAlone)
{
    Start();
    HNvrHttpCurlCltReq req = nullptr;
    ASSERT_EQ(NvrHttpCurlCltReqCreat(g_hInitHandle, &req), 0U);
    fake::ClearLines();

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);

    ExpectLines({OneNull(COMPLETION)});
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0U);
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(EngineSendTest, CompletionNotifiesClearsTheSlotAndDestroysTheRequest)
{
    Start();
    const HNvrHttpCurlCltReq req = Submitted();

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);

    ASSERT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_EQ(NotifiedSoFar()[0].code, 0U);
    EXPECT_EQ(NotifiedSoFar()[0].context, received);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 0U);
    ExpectNoHandleLeft();
    ExpectLinesOf(COMPLETION, {});
    EXPECT_EQ(CountOf(CONVERTED), 0U);
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
}

TEST_F(EngineSendTest, CompletionWithoutContextIsLoggedAndReportedAsTheCodeSays)
{
    Start();
    const HNvrHttpCurlCltReq req = Submitted();

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, nullptr);

    ExpectLine(Info(COMPLETION, COMPLETED_BADLY, 1, 0));
    ExpectLine(Converted(0, 0));
    ASSERT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_EQ(NotifiedSoFar()[0].code, 0U);
    EXPECT_EQ(NotifiedSoFar()[0].context, nullptr);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
}

TEST_F(EngineSendTest, CompletionWithErrorProgressAndCodeZeroIsReportedAsZero)
{
    Start();
    const HNvrHttpCurlCltReq req = Submitted();

    SendByCurlReqHttpCurlProgressNtf(req, 0, 0, received);

    ExpectLine(Info(COMPLETION, COMPLETED_BADLY, 0, 0));
    ASSERT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_EQ(NotifiedSoFar()[0].code, 0U);
}

TEST_F(EngineSendTest, CompletionWithAnErrorIsReportedConverted)
{
    Start();
    const HNvrHttpCurlCltReq req = Submitted();

    SendByCurlReqHttpCurlProgressNtf(req, 0, 10, received);
    ExpectInOrder({Info(COMPLETION, COMPLETED_BADLY, 0, 10), Converted(10, 7)});
    ASSERT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_EQ(NotifiedSoFar()[0].code, 7U);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, CompletionWithACodeButFinishedProgressIsReportedConverted)
{
    Start();
    const HNvrHttpCurlCltReq req = Submitted();

    SendByCurlReqHttpCurlProgressNtf(req, 1, 11, received);

    ASSERT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_EQ(NotifiedSoFar()[0].code, 14U);
}

TEST_F(EngineSendTest, CompletionOfASendWithoutNotificationIsSilent)
{
    Start();
    param.pfNtf = nullptr;
    const HNvrHttpCurlCltReq req = Submitted();

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);

    ExpectLinesOf(COMPLETION, {});
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 0U);
    ExpectNoHandleLeft();
}

TEST_F(EngineSendTest, CompletionFindsItsSlotByTheRequestAlone)
{
    Start();
    const HNvrHttpCurlCltReq req = Submitted();
    g_pfASnycCBParam[9] = g_pfASnycCBParam[0];
    g_pfASnycCBParam[0] = {};
    g_pfASnycCBParam[9].bUseFlag = 0;

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);

    EXPECT_EQ(NotifiedSoFar().size(), 1U);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[9]));
    ExpectNoHandleLeft();
}

namespace
{

ESendByCurlRet other = 0xFFU;

uint32_t CollectOther(ESendByCurlRet code, void *)
{
    other = code;
    return 1;
}

} // namespace

TEST_F(EngineSendTest, CompletionTakesTheLowestOfTwoMatchingSlots)
{
    Start();
    const HNvrHttpCurlCltReq req = Submitted();
    g_pfASnycCBParam[5] = {1, req, Collect};
    g_pfASnycCBParam[0].pfNtf = CollectOther;

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);

    EXPECT_EQ(other, 0U);
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_pfASnycCBParam[5].bUseFlag, 1U);
}

namespace
{

struct Moment {
    bool tableLocked;
    uint32_t useFlag;
    size_t destroyed;
};
std::vector<Moment> moments;

uint32_t LookAround(ESendByCurlRet, void *)
{
    moments.push_back({fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]), g_pfASnycCBParam[0].bUseFlag,
                       hooks::Calls("curl_easy_cleanup")});
    return 0;
}

} // namespace

TEST_F(EngineSendTest, NotificationRunsWithoutTheLockAndBeforeTheRelease)
{
    Start();
    param.pfNtf = LookAround;
    const HNvrHttpCurlCltReq req = Submitted();

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);

    ASSERT_EQ(moments.size(), 1U);
    EXPECT_FALSE(moments[0].tableLocked);
    EXPECT_EQ(moments[0].useFlag, 1U);
    EXPECT_EQ(moments[0].destroyed, 0U);
}

TEST_F(EngineSendTest, CompletionDestroysTheRequestUnderTheTablesLock)
{
    Start();
    const HNvrHttpCurlCltReq req = Submitted();
    bool locked = false;
    uint32_t useFlag = 0;
    hooks::easy_cleanup = [&](CURL *easy) {
        locked = fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]);
        useFlag = g_pfASnycCBParam[0].bUseFlag;
        hooks::real::easy_cleanup(easy);
    };

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);

    EXPECT_TRUE(locked);
    EXPECT_EQ(useFlag, 1U); /* cleared after, not before */
    EXPECT_FALSE(fake::SemIsTaken(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS]));
}

namespace
{

TSendByCurlParam *again;

uint32_t SendAgain(ESendByCurlRet, void *)
{
    again->pfNtf = Collect;
    return Qelvo_SendStrByHttp(again, 1);
}

} // namespace

TEST_F(EngineSendTest, NotificationMaySendAgain)
{
    Start();
    param.pfNtf = SendAgain;
    again = &param;
    const HNvrHttpCurlCltReq req = Submitted();

    SendByCurlReqHttpCurlProgressNtf(req, 1, 0, received);

    EXPECT_TRUE(IsEmpty(g_pfASnycCBParam[0]));
    EXPECT_EQ(g_pfASnycCBParam[1].bUseFlag, 1U); /* the first was still taken */
    EXPECT_EQ(g_pfASnycCBParam[1].pfNtf, Collect);
    EXPECT_EQ(g_hInitHandle->dwAsyncReqNum, 1U);
}

/* --- the ready-made notification --------------------------------------------------------------------- */

TEST_F(EngineSendTest, ReadyMadeNotificationLogsAndFreesItsContext)
{
    char *context = static_cast<char *>(malloc(6));
    strcpy(context, "reply");

    EXPECT_EQ(SendByCurlReqProgressNtf(7, context), 0U); /* a leak is the leak checker's to find */

    ExpectLinesOf("SendByCurlReqProgressNtf",
                  {Info("SendByCurlReqProgressNtf", NTF_CODE, 7),
                   Info("SendByCurlReqProgressNtf", NTF_CONTEXT, "reply"), Info("SendByCurlReqProgressNtf", NTF_END)});
}

TEST_F(EngineSendTest, ReadyMadeNotificationWithoutContext)
{
    EXPECT_EQ(SendByCurlReqProgressNtf(0, nullptr), 0U);

    ExpectLinesOf("SendByCurlReqProgressNtf",
                  {Info("SendByCurlReqProgressNtf", NTF_CODE, 0), Info("SendByCurlReqProgressNtf", NTF_END)});
}

/* --- conversions ---------------------------------------------------------------------------------------- */

TEST_F(EngineSendTest, EngineCodesAreConvertedByTheTable)
{
    const ESendByCurlRet table[] = {0, 1, 2, 2, 1, 9, 1, 11, 12, 13, 7, 14, 15, 5};
    for (uint32_t code = 0; code < std::size(table); ++code) {
        SCOPED_TRACE(code);
        fake::ClearLines();
        EXPECT_EQ(HttpCurlCodeToSendByCurlCode(code), table[code]);
        ExpectLines({Converted(code, table[code])});
    }
}

TEST_F(EngineSendTest, EveryCodeBeyondTheTableIsFive)
{
    for (const uint32_t code : {13U, 14U, 100U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(HttpCurlCodeToSendByCurlCode(code), 5U) << code;
    }
}

TEST_F(EngineSendTest, MethodNames)
{
    const struct {
        uint32_t headType;
        const char *name;
    } cases[] = {{0, "POST"}, {1, "PUT"}, {2, "GET"}, {3, "POST"}, {0xFFFFFFFFU, "POST"}};
    for (const auto &each : cases) {
        char name[32] = "";
        EXPECT_EQ(SendByCurlMethodTransToStr(each.headType, name, sizeof name), 0U);
        EXPECT_STREQ(name, each.name);
    }
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(EngineSendTest, MethodNameIsBoundedByTheSize)
{
    char name[8];
    memset(name, '#', sizeof name);
    EXPECT_EQ(SendByCurlMethodTransToStr(0, name, 3), 0U);
    EXPECT_EQ(std::string(name, 5), std::string("PO\0##", 5));

    memset(name, '#', sizeof name);
    EXPECT_EQ(SendByCurlMethodTransToStr(1, name, 1), 0U);
    EXPECT_EQ(std::string(name, 3), std::string("\0##", 3));

    memset(name, '#', sizeof name);
    EXPECT_EQ(SendByCurlMethodTransToStr(2, name, 0), 0U);
    EXPECT_EQ(std::string(name, 3), "###");
}

TEST_F(EngineSendTest, MethodNameWithoutBuffer)
{
    EXPECT_EQ(SendByCurlMethodTransToStr(0, nullptr, 32), 1U);

    ExpectLines({OneNull("SendByCurlMethodTransToStr")});
}

/* --- end to end, on real worker threads ------------------------------------------------------------------- */

TEST_F(EngineSendTest, RealSyncSend)
{
    const ScriptedServer server(Answering("pong"));
    const std::string url = server.Url();
    Start(true);
    param.pchURL = url.c_str();
    param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U) << fake::Transcript();

    EXPECT_STREQ(received, "pong");
    EXPECT_EQ(param.dwRecvLen, 4U);
}

TEST_F(EngineSendTest, RealAsyncSendsAreNotifiedOnceEachWithTheirAnswers)
{
    enum { SENDS = 12 };
    ScriptedServer server(Answering("pong"));
    const std::string url = server.Url();
    Start(true);
    static char answers[SENDS][16];
    for (auto &answer : answers) {
        param.pchURL = url.c_str();
        param.pchRecvBuf = answer;
        param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;
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
    EXPECT_TRUE(sent.HasLine("Content-Type:application/json;charset=UTF-8")) << sent.head;
    EXPECT_FALSE(sent.HasHeader("Expect")) << sent.head;
    EXPECT_EQ(sent.body, "{\"a\":1}");
}

TEST_F(EngineSendTest, RealAsyncSendReportsAnyStatusAsSuccess)
{
    const ScriptedServer server(Answering("none", 404));
    const std::string url = server.Url();
    Start(true);
    memset(received, 0, sizeof received);
    param.pchURL = url.c_str();
    param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 0U);

    ASSERT_TRUE(WaitUntil([] { return NotifiedSoFar().size() == 1; })) << fake::Transcript();
    NvrHttpCurlCltUninit(g_hInitHandle);
    EXPECT_EQ(NotifiedSoFar()[0].code, 0U);
    EXPECT_STREQ(received, "none");
}

TEST_F(EngineSendTest, RealAsyncSendToARefusingPort)
{
    const ClosedPort port;
    const std::string url = port.Url();
    Start(true);
    param.pchURL = url.c_str();
    param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 0U);

    ASSERT_TRUE(WaitUntil([] { return NotifiedSoFar().size() == 1; })) << fake::Transcript();
    NvrHttpCurlCltUninit(g_hInitHandle);
    EXPECT_EQ(NotifiedSoFar()[0].code, 14U);
    EXPECT_TRUE(BufferUntouched());
    ExpectNoHandleLeft();
}
