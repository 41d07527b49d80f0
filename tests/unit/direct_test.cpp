/*
 * The direct send: its options and their refusals, its write callback, its simple form, and
 * the shared DNS cache.
 */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "support/hcc_log.h"
#include "tests/support/send_fixture.h"

using namespace sendtest;

namespace
{

const char EXT[] = "Qelvo_SyncSendStrByHttp_Ext";
const char SIMPLE[] = "Qelvo_SyncSendStrByHttp";
const char RECEIVE[] = "Qelvo_Receive_Data";
const char SHARE[] = "set_share_handle";

const std::string BLANKS(48, ' ');
const std::string SENDING = "%s[L:%d] pchURL %s, pchSendBuf %s, dwSendLen %u,\n \t" + BLANKS +
                            "\t dwMaxTimeMs %u-%u, dwMaxRecvLen %u\n \t" + BLANKS + "\t HeadType:%u,bSSLserver:%u\n";
const std::string NO_HANDLE = "%s[L:%d][Error] curl_easy_init fail\n";
const std::string NO_LIST = "%s[L:%d][Error] curl_slist_append() fail\n";
const std::string PERFORM_FAILED = "%s[L:%d] curl_easy_perform() failed, eCurlRet %d, %s\n";
const std::string CURL_CONVERTED = "%s[L:%d] Transfer CURLcode[%d] to ESendByCurlRet[%d]\n";
const std::string RECEIVED = "%s[L:%d] RecvLen:%u, pchRecvBuf:%s\n";
const std::string RECEIVED_NOWHERE = "%s[L:%d] RecvLen:%u  \n";
const std::string NO_BUFFER = "%s[L:%d][Error] RecvBuf is null\n";
const std::string CHUNK = "%s[L:%d] UsrBuflen:%u, dwCurDataLen %u, dwMaxRecvLen %u\n";
const std::string OVERFLOWN = "%s[L:%d][Error] pchRecvBuf overflow! MaxBuf:%u  [%u-%u]\n";
const std::string COUNT = "%s[L:%d] receive_data CountLen:%u [CurLen:%d]\n";
const std::string NO_SHARE = "%s[L:%d][Error] curl_share_init fail\n";
const std::string SHARE_REFUSED = "%s[L:%d][Error] curl_share_setopt() failed, eCurlRet %d, %s\n";
const std::string SHARE_11 = "%s[L:%d][Error] --11--curl_easy_setopt() failed, eCurlRet %d, %s\n";
const std::string SHARE_22 = "%s[L:%d][Error] --22--curl_easy_setopt() failed, eCurlRet %d, %s\n";

using Order = std::vector<CURLoption>;

/* A POST with all that is optional. */
const Order FULL_ORDER = {
    CURLOPT_HTTPHEADER,     CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_TIMEOUT_MS,    CURLOPT_POSTFIELDS, CURLOPT_URL,
    CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST,    CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA,
};

Order Without(Order aeOrder, const Order &aeLeftOut)
{
    for (const CURLoption eOption : aeLeftOut) {
        aeOrder.erase(std::find(aeOrder.begin(), aeOrder.end(), eOption));
    }
    return aeOrder;
}

class DirectTest : public RecordTest
{
  protected:
    static std::string CapturedDuring(const std::function<void()> &pfWork)
    {
        testing::internal::CaptureStdout();
        pfWork();
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
};

} // namespace

/* --- start and arguments ------------------------------------------------------------------------ */

TEST_F(DirectTest, StartsTheModule)
{
    AnswerWith({200, {}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(g_bInited, 1u);
    EXPECT_EQ(fake::CountOf(INIT_FAILED), 0u);
    EXPECT_EQ(fake::NullTakes(), 0u);
}

TEST_F(DirectTest, GoesOnWhereTheModuleCannotStart)
{
    AnswerWith({200, {"hello"}, CURLE_OK});
    fake::FailDebugLogRegist(true);
    int nPrinted = 0;

    const std::string strPrinted =
        CapturedDuring([&] { nPrinted += Qelvo_SyncSendStrByHttp_Ext(&tParam) == 0 ? 1 : 0; });

    EXPECT_EQ(nPrinted, 1);
    ExpectLine(INIT_FAILED, LEVEL_ERROR, EXT, "[Error] SendByCurlInit is Failed! eSendCurlRet:1\n");
    EXPECT_STREQ(achRecv, "hello");
    EXPECT_EQ(g_bInited, 0u);
}

TEST_F(DirectTest, NullRecordIsRefusedAfterTheStart)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(nullptr), 1u);

    ExpectLine(ONE_NULL, LEVEL_ERROR, EXT, "[Error] @ One Param is NULL!\n");
    EXPECT_EQ(FormatsOf(EXT), (std::vector<std::string>{ONE_NULL}));
    EXPECT_EQ(g_bInited, 1u);
}

TEST_F(DirectTest, NullUrlIsRefused)
{
    tParam.pchURL = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 1u);

    ExpectLine(TWO_NULL, LEVEL_ERROR, EXT, "[Error] @ Two Param is NULL!\n");
    EXPECT_EQ(FormatsOf(EXT), (std::vector<std::string>{TWO_NULL}));
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
    EXPECT_EQ(achRecv[0], '#');
}

TEST_F(DirectTest, NullBodyIsRefused)
{
    tParam.pchSendBuf = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 1u);

    ExpectLine(TWO_NULL, LEVEL_ERROR, EXT, "[Error] @ Two Param is NULL!\n");
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

/* --- the announcement ----------------------------------------------------------------------------- */

TEST_F(DirectTest, AnnouncementIsExact)
{
    AnswerWith({200, {}, CURLE_OK});
    tParam.bSSLserver = 3;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    ExpectLine(SENDING, LEVEL_INFO, EXT,
               " pchURL http://127.0.0.1:1/x, pchSendBuf {\"a\":1}, dwSendLen 7,\n \t" + BLANKS +
                   "\t dwMaxTimeMs 1111-2222, dwMaxRecvLen 16\n \t" + BLANKS + "\t HeadType:0,bSSLserver:3\n");
}

TEST_F(DirectTest, AnnouncementComesBeforeTheHandle)
{
    Start();
    size_t nLines = 0;
    hooks::easy_init = [&] {
        nLines = fake::CountOf(SENDING);
        return nullptr;
    };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 2u);

    EXPECT_EQ(nLines, 1u);
}

/* --- the buffer ------------------------------------------------------------------------------------ */

TEST_F(DirectTest, BufferIsZeroedToItsCapacityAndNotBeyond)
{
    hooks::easy_perform = [](CURL *) { return CURLE_COULDNT_CONNECT; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 5u);

    EXPECT_EQ(std::string(achRecv, 20), std::string(16, '\0') + "####");
}

TEST_F(DirectTest, BufferIsZeroedBeforeTheHandleIsHad)
{
    hooks::easy_init = [] { return nullptr; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 2u);

    EXPECT_EQ(std::string(achRecv, 17), std::string(16, '\0') + "#");
}

/* The one byte there is no text, and reading beyond it is the address sanitizer's to find. */
TEST_F(DirectTest, BufferWithoutCapacityIsNeitherWrittenNorRead)
{
    AnswerWith({200, {"x"}, CURLE_OK});
    const std::unique_ptr<char[]> achOne(new char[1]{'#'});
    tParam.pchRecvBuf = achOne.get();
    tParam.dwMaxRecvLen = 0;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(achOne[0], '#');
    ExpectLine(RECEIVED, LEVEL_INFO, EXT, " RecvLen:0, pchRecvBuf:\n");
}

/* --- handle and header list ------------------------------------------------------------------------- */

TEST_F(DirectTest, WithoutEasyHandleItIsTwo)
{
    hooks::easy_init = [] { return nullptr; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 2u);

    ExpectLine(NO_HANDLE, LEVEL_ERROR, EXT, "[Error] curl_easy_init fail\n");
    EXPECT_EQ(FormatsOf(EXT), (std::vector<std::string>{SENDING, NO_HANDLE}));
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0u);
    EXPECT_EQ(hooks::Calls("curl_slist_append"), 0u);
}

TEST_F(DirectTest, WithoutHeaderListItIsThreeAndTheHandleIsReleased)
{
    hooks::slist_append = [](curl_slist *, const char *) { return nullptr; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 3u);

    ExpectLine(NO_LIST, LEVEL_ERROR, EXT, "[Error] curl_slist_append() fail\n");
    ExpectLine(RECEIVED, LEVEL_INFO, EXT, " RecvLen:0, pchRecvBuf:\n");
    EXPECT_EQ(FormatsOf(EXT), (std::vector<std::string>{SENDING, NO_LIST, RECEIVED}));
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 1u);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1u);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0u);
    EXPECT_EQ(hooks::OptionOrder(), Order());
}

TEST_F(DirectTest, HeaderListIsOneLineWithoutABlank)
{
    std::vector<std::string> astrHeader;
    hooks::easy_perform = [&](CURL *) {
        astrHeader = HeaderLines(ValueOf(CURLOPT_HTTPHEADER));
        return CURLE_OK;
    };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(astrHeader, (std::vector<std::string>{"Content-Type:application/json;charset=UTF-8"}));
}

/* --- options ------------------------------------------------------------------------------------------ */

TEST_F(DirectTest, OptionsInOrderWithTheirValues)
{
    AnswerWith({200, {}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(hooks::OptionOrder(), FULL_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 1111u);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 2222u);
    EXPECT_EQ(ValueOf(CURLOPT_POSTFIELDS), reinterpret_cast<uintptr_t>(tParam.pchSendBuf));
    EXPECT_EQ(TextOf(CURLOPT_URL), tParam.pchURL);
    EXPECT_EQ(ValueOf(CURLOPT_SSL_VERIFYPEER), 0u);
    EXPECT_EQ(ValueOf(CURLOPT_SSL_VERIFYHOST), 0u);
    EXPECT_EQ(ValueOf(CURLOPT_WRITEFUNCTION), reinterpret_cast<uintptr_t>(Qelvo_Receive_Data));
    EXPECT_EQ(ValueOf(CURLOPT_WRITEDATA), reinterpret_cast<uintptr_t>(&tParam));
}

TEST_F(DirectTest, OnlyHeadTypeZeroSetsABodyAndNoneSetsAMethod)
{
    AnswerWith({200, {}, CURLE_OK});
    for (const uint32_t eHeadType : {1u, 2u, 3u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(eHeadType);
        hooks::ClearOptions();
        tParam.eHeadType = eHeadType;
        EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);
        EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_POSTFIELDS}));
    }
}

TEST_F(DirectTest, CheckedServerKeepsLibcurlsVerification)
{
    AnswerWith({200, {}, CURLE_OK});
    tParam.bSSLserver = 1;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST}));
}

TEST_F(DirectTest, WithoutBufferNoWriteCallbackIsSet)
{
    AnswerWith({200, {}, CURLE_OK});
    tParam.pchRecvBuf = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA}));
}

TEST_F(DirectTest, WithoutCapacityNoWriteCallbackIsSet)
{
    AnswerWith({200, {}, CURLE_OK});
    tParam.dwMaxRecvLen = 0;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA}));
}

TEST_F(DirectTest, AuthenticationAndNotificationAreIgnored)
{
    AnswerWith({200, {}, CURLE_OK});
    tParam.bCurlAuth = 1;
    strcpy(tParam.achUserAndPassWd, "u:p");
    tParam.pfNtf = Collect;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(hooks::OptionOrder(), FULL_ORDER);
    EXPECT_EQ(NotifiedSoFar().size(), 0u);
}

/* --- a refusal at each option --------------------------------------------------------------------------- */

struct Refusal {
    CURLoption eOption;
    const char *szMark; /* the message up to "failed" */
};

static void PrintTo(const Refusal &tRefusal, std::ostream *ptStream)
{
    *ptStream << tRefusal.szMark;
}

class DirectRefusalTest : public DirectTest, public ::testing::WithParamInterface<Refusal>
{
};

TEST_P(DirectRefusalTest, IsFourAndReleasesEverything)
{
    const std::string strFormat = "%s[L:%d]" + std::string(GetParam().szMark) + "failed, eCurlRet %d, %s\n";
    hooks::RefuseOption(GetParam().eOption, CURLE_UNKNOWN_OPTION);
    Order aeExpected(FULL_ORDER.begin(), std::find(FULL_ORDER.begin(), FULL_ORDER.end(), GetParam().eOption) + 1);

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 4u);

    ExpectLine(strFormat, LEVEL_ERROR, EXT,
               std::string(GetParam().szMark) + "failed, eCurlRet 48, " + curl_easy_strerror(CURLE_UNKNOWN_OPTION) +
                   "\n");
    ExpectLine(RECEIVED, LEVEL_INFO, EXT, " RecvLen:0, pchRecvBuf:\n");
    EXPECT_EQ(FormatsOf(EXT), (std::vector<std::string>{SENDING, strFormat, RECEIVED}));
    EXPECT_EQ(hooks::OptionOrder(), aeExpected);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0u);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1u);
    EXPECT_EQ(fake::CountOf(CURL_CONVERTED), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Options, DirectRefusalTest,
    ::testing::Values(Refusal{CURLOPT_HTTPHEADER, "[Error] --1--curl_easy_setopt() "},
                      Refusal{CURLOPT_CONNECTTIMEOUT_MS, "[Error] --2--curl_easy_setopt() "},
                      Refusal{CURLOPT_TIMEOUT_MS, "[Error] --2_1--curl_easy_setopt() "},
                      Refusal{CURLOPT_POSTFIELDS, "[Error] --3--curl_easy_setopt() "},
                      Refusal{CURLOPT_URL, "[Error] --4--curl_easy_setopt() "},
                      Refusal{CURLOPT_SSL_VERIFYPEER, "[Error]  curl_easy_setopt() CURLOPT_SSL_VERIFYPEER "},
                      Refusal{CURLOPT_SSL_VERIFYHOST, "[Error] curl_easy_setopt() CURLOPT_SSL_VERIFYHOST "},
                      Refusal{CURLOPT_WRITEFUNCTION, "[Error] --5--curl_easy_setopt() "},
                      Refusal{CURLOPT_WRITEDATA, "[Error] --5_1--curl_easy_setopt() "}),
    [](const ::testing::TestParamInfo<Refusal> &tInfo) { return "Option" + std::to_string(tInfo.param.eOption); });

/* --- the transfer ------------------------------------------------------------------------------------------ */

TEST_F(DirectTest, SuccessSaysWhatWasReceived)
{
    Start();
    AnswerWith({200, {"hel", "lo"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(FormatsOf(EXT), (std::vector<std::string>{SENDING, RECEIVED}));
    ExpectLine(RECEIVED, LEVEL_INFO, EXT, " RecvLen:5, pchRecvBuf:hello\n");
    EXPECT_EQ(fake::CountOf(CURL_CONVERTED), 0u);
    EXPECT_EQ(tParam.dwRecvLen, 5u);
    EXPECT_STREQ(achRecv, "hello");
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1u);
}

TEST_F(DirectTest, HttpStatusIsNotLookedAt)
{
    AnswerWith({500, {"no"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_STREQ(achRecv, "no");
}

TEST_F(DirectTest, LibcurlsCodesAreConverted)
{
    const struct {
        CURLcode eCurl;
        unsigned nSend;
    } atCases[] = {{CURLE_FTP_ACCEPT_TIMEOUT, 8},      {CURLE_OPERATION_TIMEDOUT, 7},   {CURLE_COULDNT_CONNECT, 5},
                   {CURLE_SSL_CONNECT_ERROR, 5},       {CURLE_COULDNT_RESOLVE_HOST, 5}, {CURLE_UNSUPPORTED_PROTOCOL, 5},
                   {CURLE_PEER_FAILED_VERIFICATION, 5}};
    EXPECT_EQ(static_cast<int>(CURLE_FTP_ACCEPT_TIMEOUT), 12);
    for (const auto &tCase : atCases) {
        SCOPED_TRACE(tCase.eCurl);
        AnswerWith({0, {}, tCase.eCurl});
        fake::ClearLines();
        EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), tCase.nSend);
        const std::string strCode = std::to_string(static_cast<int>(tCase.eCurl));
        ExpectLine(PERFORM_FAILED, LEVEL_INFO, EXT,
                   " curl_easy_perform() failed, eCurlRet " + strCode + ", " + curl_easy_strerror(tCase.eCurl) + "\n");
        ExpectLine(CURL_CONVERTED, LEVEL_INFO, "CurlCodeToSendByCurlCode",
                   " Transfer CURLcode[" + strCode + "] to ESendByCurlRet[" + std::to_string(tCase.nSend) + "]\n");
        EXPECT_LT(PlaceOf(PERFORM_FAILED), PlaceOf(CURL_CONVERTED));
        EXPECT_LT(PlaceOf(CURL_CONVERTED), PlaceOf(RECEIVED));
        EXPECT_EQ(FormatsOf(EXT), (std::vector<std::string>{SENDING, PERFORM_FAILED, RECEIVED}));
    }
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), hooks::Calls("curl_easy_init"));
}

TEST_F(DirectTest, WithoutBufferTheOutcomeLineHasTwoBlanks)
{
    AnswerWith({200, {}, CURLE_OK});
    tParam.pchRecvBuf = nullptr;
    tParam.dwRecvLen = 9;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    ExpectLine(RECEIVED_NOWHERE, LEVEL_INFO, EXT, " RecvLen:9  \n");
    EXPECT_EQ(fake::CountOf(RECEIVED), 0u);
}

TEST_F(DirectTest, OutcomeIsLoggedBeforeTheHandleIsReleased)
{
    AnswerWith({200, {}, CURLE_OK});
    size_t nLines = 0;
    hooks::easy_cleanup = [&](CURL *ptEasy) {
        nLines = fake::CountOf(RECEIVED);
        hooks::real::easy_cleanup(ptEasy);
    };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(nLines, 1u);
}

TEST_F(DirectTest, PartialAnswerIsKeptAndItsLengthTold)
{
    AnswerWith({200, {"half"}, CURLE_PARTIAL_FILE});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 5u);

    EXPECT_EQ(tParam.dwRecvLen, 4u);
    EXPECT_STREQ(achRecv, "half");
}

TEST_F(DirectTest, AnswerOfExactlyTheCapacityIsTakenAndLoggedTerminated)
{
    AnswerWith({200, {"0123456789", "abcdef"}, CURLE_OK});
    const std::unique_ptr<char[]> achExact(new char[16]);
    tParam.pchRecvBuf = achExact.get();

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(tParam.dwRecvLen, 16u);
    EXPECT_EQ(std::string(achExact.get(), 16), "0123456789abcdef");
    ExpectLine(RECEIVED, LEVEL_INFO, EXT, " RecvLen:16, pchRecvBuf:0123456789abcdef\n");
}

TEST_F(DirectTest, AnswerOfExactlyTheCapacityIsNotReadForALineThatNobodyWants)
{
    Start();
    AnswerWith({200, {"0123456789abcdef"}, CURLE_OK});
    const std::unique_ptr<char[]> achExact(new char[16]);
    tParam.pchRecvBuf = achExact.get();
    g_bySendCurlLogType = 0;

    const std::string strPrinted = CapturedDuring([&] { EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u); });

    EXPECT_EQ(strPrinted, "");
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(std::string(achExact.get(), 16), "0123456789abcdef");
}

TEST_F(DirectTest, AnswerOfExactlyTheCapacityIsPrintedTerminatedToo)
{
    Start();
    AnswerWith({200, {"0123456789abcdef"}, CURLE_OK});
    const std::unique_ptr<char[]> achExact(new char[16]);
    tParam.pchRecvBuf = achExact.get();
    g_bySendCurlLogType = 2;

    const std::string strPrinted = CapturedDuring([&] { EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u); });

    EXPECT_NE(strPrinted.find("] RecvLen:16, pchRecvBuf:0123456789abcdef\n"), std::string::npos) << strPrinted;
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(DirectTest, AnswerWithAZeroByteIsLoggedUpToIt)
{
    AnswerWith({200, {std::string("ab\0cd", 5)}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(std::string(achRecv, 6), std::string("ab\0cd\0", 6));
    ExpectLine(RECEIVED, LEVEL_INFO, EXT, " RecvLen:5, pchRecvBuf:ab\n");
}

TEST_F(DirectTest, AnswerOneByteLongerFailsAfterTheOverflowMessage)
{
    AnswerWith({200, {"0123456789", "abcdefg"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 5u);

    ExpectLine(OVERFLOWN, LEVEL_ERROR, RECEIVE, "[Error] pchRecvBuf overflow! MaxBuf:16  [10-7]\n");
    EXPECT_LT(PlaceOf(OVERFLOWN), PlaceOf(PERFORM_FAILED));
    ExpectLine(CURL_CONVERTED, LEVEL_INFO, "CurlCodeToSendByCurlCode", " Transfer CURLcode[23] to ESendByCurlRet[5]\n");
    EXPECT_EQ(tParam.dwRecvLen, 10u);
    EXPECT_EQ(std::string(achRecv, 17), "0123456789" + std::string(6, '\0') + "#");
}

/* It is the write position, and the send does not reset it. */
TEST_F(DirectTest, ReceiveLengthGivenIsWhereTheAnswerGoes)
{
    AnswerWith({200, {"abc"}, CURLE_OK});
    tParam.dwRecvLen = 13;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(tParam.dwRecvLen, 16u);
    EXPECT_EQ(std::string(achRecv, 17), std::string(13, '\0') + "abc#");
}

TEST_F(DirectTest, ReceiveLengthGivenCountsAgainstTheCapacity)
{
    AnswerWith({200, {"abcd"}, CURLE_OK});
    tParam.dwRecvLen = 13;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 5u);

    ExpectLine(OVERFLOWN, LEVEL_ERROR, RECEIVE, "[Error] pchRecvBuf overflow! MaxBuf:16  [13-4]\n");
    EXPECT_EQ(tParam.dwRecvLen, 13u);
}

/* --- the write callback ---------------------------------------------------------------------------------- */

TEST_F(DirectTest, ReceiveWithoutDataRecordOrLengthSaysSoOnStandardOutput)
{
    char achData[] = "data";
    size_t anTaken[4] = {9, 9, 9, 9};

    const std::string strPrinted = CapturedDuring([&] {
        anTaken[0] = Qelvo_Receive_Data(nullptr, 1, 4, &tParam);
        anTaken[1] = Qelvo_Receive_Data(achData, 1, 4, nullptr);
        anTaken[2] = Qelvo_Receive_Data(achData, 0, 4, &tParam);
        anTaken[3] = Qelvo_Receive_Data(achData, 1, 0, &tParam);
    });

    EXPECT_EQ(strPrinted, "pBuf is null\npBuf is null\npBuf is null\npBuf is null\n");
    for (const size_t nTaken : anTaken) {
        EXPECT_EQ(nTaken, 0u);
    }
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(tParam.dwRecvLen, 0u);
}

TEST_F(DirectTest, ReceiveWithoutBuffer)
{
    char achData[] = "data";
    tParam.pchRecvBuf = nullptr;

    EXPECT_EQ(Qelvo_Receive_Data(achData, 1, 4, &tParam), 0u);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(NO_BUFFER, LEVEL_ERROR, RECEIVE, "[Error] RecvBuf is null\n");
}

TEST_F(DirectTest, ReceiveWithoutCapacity)
{
    char achData[] = "data";
    tParam.dwMaxRecvLen = 0;

    EXPECT_EQ(Qelvo_Receive_Data(achData, 1, 4, &tParam), 0u);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(NO_BUFFER, LEVEL_ERROR, RECEIVE, "[Error] RecvBuf is null\n");
    EXPECT_EQ(achRecv[0], '#');
}

TEST_F(DirectTest, ReceiveAppendsAndCounts)
{
    char achData[] = "abcdef";
    tParam.dwRecvLen = 2;

    EXPECT_EQ(Qelvo_Receive_Data(achData, 2, 3, &tParam), 6u);

    EXPECT_EQ(tParam.dwRecvLen, 8u);
    EXPECT_EQ(std::string(achRecv, 10), "##abcdef##");
    EXPECT_EQ(FormatsOf(RECEIVE), (std::vector<std::string>{CHUNK, COUNT}));
    ExpectLine(CHUNK, LEVEL_INFO, RECEIVE, " UsrBuflen:2, dwCurDataLen 6, dwMaxRecvLen 16\n");
    ExpectLine(COUNT, LEVEL_INFO, RECEIVE, " receive_data CountLen:8 [CurLen:6]\n");
}

TEST_F(DirectTest, ReceiveFillsTheBufferToItsLastByte)
{
    char achData[] = "0123456789abcdef";

    EXPECT_EQ(Qelvo_Receive_Data(achData, 1, 16, &tParam), 16u);

    EXPECT_EQ(std::string(achRecv, 17), "0123456789abcdef#");
}

TEST_F(DirectTest, ReceiveKeepsNothingOfAChunkThatDoesNotFit)
{
    char achData[] = "0123456789abcdefg";

    EXPECT_EQ(Qelvo_Receive_Data(achData, 1, 17, &tParam), 0u);

    EXPECT_EQ(FormatsOf(RECEIVE), (std::vector<std::string>{CHUNK, OVERFLOWN}));
    ExpectLine(CHUNK, LEVEL_INFO, RECEIVE, " UsrBuflen:0, dwCurDataLen 17, dwMaxRecvLen 16\n");
    ExpectLine(OVERFLOWN, LEVEL_ERROR, RECEIVE, "[Error] pchRecvBuf overflow! MaxBuf:16  [0-17]\n");
    EXPECT_EQ(tParam.dwRecvLen, 0u);
    EXPECT_EQ(std::string(achRecv, sizeof achRecv), std::string(sizeof achRecv, '#'));
}

/* 0xFFFFFFFC + 8 is 4 in 32 bits, which would fit. */
TEST_F(DirectTest, ReceiveIsNotDeceivedByAPositionNearTheEndOfItsType)
{
    char achData[] = "12345678";
    tParam.dwRecvLen = 0xFFFFFFFCu;

    EXPECT_EQ(Qelvo_Receive_Data(achData, 1, 8, &tParam), 0u);

    ExpectLine(OVERFLOWN, LEVEL_ERROR, RECEIVE, "[Error] pchRecvBuf overflow! MaxBuf:16  [4294967292-8]\n");
    EXPECT_EQ(tParam.dwRecvLen, 0xFFFFFFFCu);
}

/* --- the simple form --------------------------------------------------------------------------------------- */

namespace
{

/* The record that the simple form made up, as the transfer sees it. */
TSendByCurlParam RecordGivenToLibcurl()
{
    return *reinterpret_cast<const TSendByCurlParam *>(ValueOf(CURLOPT_WRITEDATA));
}

} // namespace

TEST_F(DirectTest, SimpleFormWithoutUrlOrBody)
{
    uint32_t dwLength = 16;
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(nullptr, "{}", 2, 1000, achRecv, &dwLength), 1u);
    ExpectLine(TWO_NULL, LEVEL_ERROR, SIMPLE, "[Error] @ Two Param is NULL!\n");

    fake::ClearLines();
    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", nullptr, 2, 1000, achRecv, &dwLength), 1u);
    ExpectLine(TWO_NULL, LEVEL_ERROR, SIMPLE, "[Error] @ Two Param is NULL!\n");

    EXPECT_EQ(fake::Lines().size(), 1u); /* not even the start was made */
    EXPECT_EQ(g_bInited, 0u);
    EXPECT_EQ(dwLength, 16u);
}

TEST_F(DirectTest, SimpleFormFillsTheRecord)
{
    TSendByCurlParam tSeen = {};
    hooks::easy_perform = [&](CURL *) {
        tSeen = RecordGivenToLibcurl();
        return CURLE_OK;
    };
    uint32_t dwLength = 16;
    const char *szUrl = "http://127.0.0.1:1/y";
    const char *szBody = "{\"b\":2}";

    EXPECT_EQ(Qelvo_SyncSendStrByHttp(szUrl, szBody, 5, 4321, achRecv, &dwLength), 0u);

    EXPECT_EQ(tSeen.pchURL, szUrl);
    EXPECT_EQ(tSeen.eHeadType, 0u);
    EXPECT_EQ(tSeen.pchSendBuf, szBody);
    EXPECT_EQ(tSeen.dwSendLen, 5u);
    EXPECT_EQ(tSeen.dwConnTimeOutMS, 4321u);
    EXPECT_EQ(tSeen.dwTimeoutMS, 4321u);
    EXPECT_EQ(tSeen.dwMaxRecvLen, 16u);
    EXPECT_EQ(tSeen.bSSLserver, 0u);
    EXPECT_EQ(tSeen.pchRecvBuf, achRecv);
    EXPECT_EQ(tSeen.dwRecvLen, 0u);
    EXPECT_EQ(tSeen.pfNtf, nullptr);
    EXPECT_EQ(tSeen.bCurlAuth, 0u);
    EXPECT_EQ(std::string(tSeen.achUserAndPassWd, sizeof tSeen.achUserAndPassWd),
              std::string(sizeof tSeen.achUserAndPassWd, '\0'));
    EXPECT_EQ(hooks::OptionOrder(), FULL_ORDER);
}

TEST_F(DirectTest, SimpleFormTellsTheLengthReceived)
{
    AnswerWith({200, {"hello"}, CURLE_OK});
    uint32_t dwLength = 16;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", "{}", 2, 1000, achRecv, &dwLength), 0u);

    EXPECT_EQ(dwLength, 5u);
    EXPECT_STREQ(achRecv, "hello");
}

TEST_F(DirectTest, SimpleFormKeepsTheLengthAfterAFailure)
{
    AnswerWith({200, {"half"}, CURLE_PARTIAL_FILE});
    uint32_t dwLength = 16;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", "{}", 2, 1000, achRecv, &dwLength), 5u);

    EXPECT_EQ(dwLength, 16u);
}

TEST_F(DirectTest, SimpleFormWithBufferButNoLengthDoesNotCollect)
{
    AnswerWith({200, {"hello"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", "{}", 2, 1000, achRecv, nullptr), 0u);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA}));
    EXPECT_EQ(std::string(achRecv, sizeof achRecv), std::string(sizeof achRecv, '#'));
    ExpectLine(RECEIVED_NOWHERE, LEVEL_INFO, EXT, " RecvLen:0  \n");
    EXPECT_EQ(fake::CountTexts("dwMaxRecvLen 0\n"), 1u);
}

TEST_F(DirectTest, SimpleFormWithLengthButNoBufferStoresZero)
{
    AnswerWith({200, {"hello"}, CURLE_OK});
    uint32_t dwLength = 16;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", "{}", 2, 1000, nullptr, &dwLength), 0u);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA}));
    EXPECT_EQ(dwLength, 0u);
}

/* --- the shared DNS cache ------------------------------------------------------------------------------------ */

namespace
{

struct Shared {
    CURLSH *ptShare;
    CURLSHoption eOption;
    uintptr_t uValue;
};

class ShareTest : public DirectTest
{
  protected:
    void SetUp() override
    {
        DirectTest::SetUp();
        nSemsLeft = 1; /* the guard of the creation, if it is a semaphore, lives as long as the process */
        hooks::share_setopt = [this](CURLSH *ptShare, CURLSHoption eOption, void *pvValue) {
            std::lock_guard<std::mutex> tGuard(tLock);
            atShared.push_back({ptShare, eOption, reinterpret_cast<uintptr_t>(pvValue)});
            return eRefusal == CURLSHE_OK ? hooks::real::share_setopt(ptShare, eOption, pvValue) : eRefusal;
        };
        ptEasy = hooks::real::easy_init();
    }

    void TearDown() override
    {
        hooks::real::easy_cleanup(ptEasy);
        hooks::share_setopt = nullptr;
        DirectTest::TearDown();
    }

    std::mutex tLock;
    std::vector<Shared> atShared;
    CURLSHcode eRefusal = CURLSHE_OK;
    CURL *ptEasy = nullptr;
};

} // namespace

TEST_F(ShareTest, FirstUseCreatesTheShareAndAttachesTheHandle)
{
    EXPECT_EQ(set_share_handle(ptEasy), 0u);

    EXPECT_EQ(hooks::Calls("curl_share_init"), 1u);
    ASSERT_EQ(atShared.size(), 1u);
    EXPECT_NE(atShared[0].ptShare, nullptr);
    EXPECT_EQ(atShared[0].eOption, CURLSHOPT_SHARE);
    EXPECT_EQ(atShared[0].uValue, static_cast<uintptr_t>(CURL_LOCK_DATA_DNS));
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_SHARE, CURLOPT_DNS_CACHE_TIMEOUT}));
    EXPECT_EQ(ValueOf(CURLOPT_SHARE), reinterpret_cast<uintptr_t>(atShared[0].ptShare));
    EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300u);
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(ShareTest, LaterUsesAttachTheSameShareAndSetItUpNoMore)
{
    EXPECT_EQ(set_share_handle(ptEasy), 0u);
    CURL *ptOther = hooks::real::easy_init();

    EXPECT_EQ(set_share_handle(ptOther), 0u);

    EXPECT_EQ(hooks::Calls("curl_share_init"), 1u);
    EXPECT_EQ(atShared.size(), 1u);
    const std::vector<hooks::Option> atAttached = hooks::OptionsOf(CURLOPT_SHARE);
    ASSERT_EQ(atAttached.size(), 2u);
    EXPECT_EQ(atAttached[0].uValue, atAttached[1].uValue);
    EXPECT_EQ(atAttached[1].ptEasy, ptOther);
    hooks::real::easy_cleanup(ptOther);
}

TEST_F(ShareTest, ResultIsThatOfTheCacheTimeout)
{
    hooks::RefuseOption(CURLOPT_DNS_CACHE_TIMEOUT, CURLE_BAD_FUNCTION_ARGUMENT);

    EXPECT_EQ(set_share_handle(ptEasy), static_cast<uint32_t>(CURLE_BAD_FUNCTION_ARGUMENT));

    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(ShareTest, WithoutShareHandleItLogsAndGoesOn)
{
    hooks::share_init = [] { return nullptr; };

    set_share_handle(ptEasy);

    ExpectLine(NO_SHARE, LEVEL_ERROR, SHARE, "[Error] curl_share_init fail\n");
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_SHARE, CURLOPT_DNS_CACHE_TIMEOUT}));
    EXPECT_EQ(ValueOf(CURLOPT_SHARE), 0u);
    EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300u);
}

TEST_F(ShareTest, AfterAFailedCreationTheNextUseTriesAgain)
{
    hooks::share_init = [] { return nullptr; };
    set_share_handle(ptEasy);
    hooks::share_init = nullptr;

    EXPECT_EQ(set_share_handle(ptEasy), 0u);

    EXPECT_NE(ValueOf(CURLOPT_SHARE), 0u);
}

TEST_F(ShareTest, RefusedDnsSharingIsLoggedAndAttachedAllTheSame)
{
    eRefusal = CURLSHE_BAD_OPTION;

    EXPECT_EQ(set_share_handle(ptEasy), 0u);

    ExpectLine(SHARE_REFUSED, LEVEL_ERROR, SHARE,
               "[Error] curl_share_setopt() failed, eCurlRet 1, " + std::string(curl_share_strerror(eRefusal)) + "\n");
    EXPECT_NE(ValueOf(CURLOPT_SHARE), 0u);
}

TEST_F(ShareTest, RefusedAttachmentIsLoggedTwiceWithTheFirstCode)
{
    hooks::RefuseOption(CURLOPT_SHARE, CURLE_UNKNOWN_OPTION);
    hooks::RefuseOption(CURLOPT_DNS_CACHE_TIMEOUT, CURLE_BAD_FUNCTION_ARGUMENT);
    const std::string strTail =
        "curl_easy_setopt() failed, eCurlRet 48, " + std::string(curl_easy_strerror(CURLE_UNKNOWN_OPTION)) + "\n";

    set_share_handle(ptEasy);

    EXPECT_EQ(FormatsOf(SHARE), (std::vector<std::string>{SHARE_11, SHARE_22}));
    ExpectLine(SHARE_11, LEVEL_ERROR, SHARE, "[Error] --11--" + strTail);
    ExpectLine(SHARE_22, LEVEL_ERROR, SHARE, "[Error] --22--" + strTail);
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_SHARE, CURLOPT_DNS_CACHE_TIMEOUT}));
    EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300u);
}

TEST_F(ShareTest, RefusedAttachmentIsLoggedTwiceAlsoWhereTheTimeoutIsAccepted)
{
    hooks::RefuseOption(CURLOPT_SHARE, CURLE_UNKNOWN_OPTION);
    size_t nLinesBetween = 9;
    hooks::easy_setopt = [&](CURL *ptHandle, CURLoption eOption, void *pvValue) {
        nLinesBetween = fake::Lines().size();
        return hooks::real::easy_setopt(ptHandle, eOption, pvValue);
    };

    set_share_handle(ptEasy);

    EXPECT_EQ(nLinesBetween, 1u); /* one line before the time-out is set, one after */
    EXPECT_EQ(FormatsOf(SHARE), (std::vector<std::string>{SHARE_11, SHARE_22}));
}

/* The creation takes a while, so that an unguarded second one would come in. */
TEST_F(ShareTest, RacingFirstUsesShareOneHandle)
{
    hooks::share_init = [] {
        for (int nII = 0; nII < 2000; ++nII) {
            std::this_thread::yield();
        }
        return hooks::real::share_init();
    };
    CURL *aptEasy[6];
    for (CURL *&ptOne : aptEasy) {
        ptOne = hooks::real::easy_init();
    }
    std::atomic<uint32_t> dwWrong{0};

    Race(6, [&](unsigned nThread) { dwWrong += set_share_handle(aptEasy[nThread]); });

    EXPECT_EQ(dwWrong, 0u);
    EXPECT_EQ(hooks::Calls("curl_share_init"), 1u);
    EXPECT_EQ(atShared.size(), 1u);
    const std::vector<hooks::Option> atAttached = hooks::OptionsOf(CURLOPT_SHARE);
    EXPECT_EQ(atAttached.size(), 6u);
    for (const hooks::Option &tOption : atAttached) {
        EXPECT_EQ(tOption.uValue, reinterpret_cast<uintptr_t>(atShared[0].ptShare));
    }
    for (CURL *ptOne : aptEasy) {
        hooks::real::easy_cleanup(ptOne);
    }
}

/* --- end to end ------------------------------------------------------------------------------------------------ */

TEST_F(DirectTest, RealPostEndsAtTheFirstZeroByte)
{
    fixture::LoopbackServer tServer(fixture::Reply("pong"));
    const std::string strUrl = tServer.Url();
    tParam.pchURL = strUrl.c_str();
    tParam.pchSendBuf = "ab\0cd";
    tParam.dwSendLen = 5;
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u) << fake::Transcript();

    EXPECT_STREQ(achRecv, "pong");
    ASSERT_EQ(tServer.Requests().size(), 1u);
    const std::string strRequest = tServer.Requests()[0];
    EXPECT_EQ(strRequest.compare(0, 5, "POST "), 0) << strRequest;
    EXPECT_NE(strRequest.find("\r\nContent-Type:application/json;charset=UTF-8\r\n"), std::string::npos) << strRequest;
    EXPECT_NE(strRequest.find("\r\nContent-Length: 2\r\n"), std::string::npos) << strRequest;
    EXPECT_EQ(strRequest.substr(strRequest.size() - 6), "\r\n\r\nab");
}

TEST_F(DirectTest, RealSendOfAnotherHeadTypeIsAGetWithoutBody)
{
    fixture::LoopbackServer tServer(fixture::Reply("pong"));
    const std::string strUrl = tServer.Url();
    tParam.pchURL = strUrl.c_str();
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;
    for (const uint32_t eHeadType : {1u, 2u}) {
        tParam.eHeadType = eHeadType;
        tParam.dwRecvLen = 0;
        EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);
    }

    ASSERT_EQ(tServer.Requests().size(), 2u);
    for (const std::string &strRequest : tServer.Requests()) {
        EXPECT_EQ(strRequest.compare(0, 4, "GET "), 0) << strRequest;
        EXPECT_EQ(strRequest.substr(strRequest.size() - 4), "\r\n\r\n");
        EXPECT_EQ(strRequest.find("Content-Length"), std::string::npos);
    }
}

TEST_F(DirectTest, RealAnswerOfExactlyTheCapacity)
{
    const fixture::LoopbackServer tServer(fixture::Reply("0123456789abcdef"));
    const std::string strUrl = tServer.Url();
    tParam.pchURL = strUrl.c_str();
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 0u);

    EXPECT_EQ(std::string(achRecv, 17), "0123456789abcdef#");
}

TEST_F(DirectTest, RealAnswerOneByteLonger)
{
    const fixture::LoopbackServer tServer(fixture::Reply("0123456789abcdefg"));
    const std::string strUrl = tServer.Url();
    tParam.pchURL = strUrl.c_str();
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 5u);

    EXPECT_EQ(fake::CountOf(OVERFLOWN), 1u);
    EXPECT_EQ(achRecv[16], '#');
}

TEST_F(DirectTest, RealAnswerWithoutBufferGoesToStandardOutput)
{
    const fixture::LoopbackServer tServer(fixture::Reply("pong"));
    const std::string strUrl = tServer.Url();
    uint32_t eResult = 99;

    const std::string strPrinted =
        CapturedDuring([&] { eResult = Qelvo_SyncSendStrByHttp(strUrl.c_str(), "{}", 2, 20000, achRecv, nullptr); });

    EXPECT_EQ(eResult, 0u);
    EXPECT_EQ(strPrinted, "pong");
    EXPECT_EQ(achRecv[0], '#');
}

TEST_F(DirectTest, RealSendToARefusingPort)
{
    const fixture::ClosedPort tPort;
    const std::string strUrl = tPort.Url();
    tParam.pchURL = strUrl.c_str();
    tParam.dwConnTimeOutMS = tParam.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 5u);

    ExpectLine(CURL_CONVERTED, LEVEL_INFO, "CurlCodeToSendByCurlCode", " Transfer CURLcode[7] to ESendByCurlRet[5]\n");
}

TEST_F(DirectTest, RealSendToASilentServerTimesOut)
{
    const fixture::LoopbackServer tServer("");
    const std::string strUrl = tServer.Url();
    tParam.pchURL = strUrl.c_str();
    tParam.dwConnTimeOutMS = 20000;
    tParam.dwTimeoutMS = 300;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&tParam), 7u);
}
