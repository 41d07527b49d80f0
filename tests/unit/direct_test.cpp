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

using namespace test;

namespace
{

const char EXT[] = "Qelvo_SyncSendStrByHttp_Ext";
const char SIMPLE[] = "Qelvo_SyncSendStrByHttp";
const char RECEIVE[] = "Qelvo_Receive_Data";
const char SHARE[] = "set_share_handle";

/* A literal of 48 blanks. */
#define BLANKS "                                                "
const char SENDING[] = " pchURL %s, pchSendBuf %s, dwSendLen %u,\n \t" BLANKS
                       "\t dwMaxTimeMs %u-%u, dwMaxRecvLen %u\n \t" BLANKS "\t HeadType:%u,bSSLserver:%u\n";
const char NO_HANDLE[] = "[Error] curl_easy_init fail\n";
const char NO_LIST[] = "[Error] curl_slist_append() fail\n";
const char PERFORM_FAILED[] = " curl_easy_perform() failed, eCurlRet %d, %s\n";
const char CURL_CONVERTED[] = " Transfer CURLcode[%d] to ESendByCurlRet[%d]\n";
const char RECEIVED[] = " RecvLen:%u, pchRecvBuf:%s\n";
const char RECEIVED_NOWHERE[] = " RecvLen:%u  \n";
const char NO_BUFFER[] = "[Error] RecvBuf is null\n";
const char CHUNK[] = " UsrBuflen:%u, dwCurDataLen %u, dwMaxRecvLen %u\n";
const char OVERFLOWN[] = "[Error] pchRecvBuf overflow! MaxBuf:%u  [%u-%u]\n";
const char COUNT[] = " receive_data CountLen:%u [CurLen:%d]\n";
const char NO_SHARE[] = "[Error] curl_share_init fail\n";
const char SHARE_REFUSED[] = "[Error] curl_share_setopt() failed, eCurlRet %d, %s\n";
const char SHARE_11[] = "[Error] --11--curl_easy_setopt() failed, eCurlRet %d, %s\n";
const char SHARE_22[] = "[Error] --22--curl_easy_setopt() failed, eCurlRet %d, %s\n";

/* A POST with all that is optional. */
const Order FULL_ORDER = {
    CURLOPT_HTTPHEADER,     CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_TIMEOUT_MS,    CURLOPT_POSTFIELDS, CURLOPT_URL,
    CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST,    CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA,
};

Order Without(Order order, const Order &leftOut)
{
    for (const CURLoption option : leftOut) {
        order.erase(std::find(order.begin(), order.end(), option));
    }
    return order;
}

Line Received(uint32_t length, const char *text)
{
    return Info(EXT, RECEIVED, length, text);
}

Line CurlConverted(int curl, unsigned send)
{
    return Info("CurlCodeToSendByCurlCode", CURL_CONVERTED, curl, send);
}

class DirectTest : public RecordTest
{
  protected:
    /* The line that announces the record. */
    Line Sending() const
    {
        return Info(EXT, SENDING, param.pchURL, param.pchSendBuf, param.dwSendLen, param.dwConnTimeOutMS,
                    param.dwTimeoutMS, param.dwMaxRecvLen, param.eHeadType, param.bSSLserver);
    }
};

} // namespace

/* --- start and arguments ------------------------------------------------------------------------ */

TEST_F(DirectTest, StartsTheModule)
{
    AnswerWith({200, {}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(g_bInited, 1U);
    EXPECT_EQ(CountOf(INIT_FAILED), 0U);
    EXPECT_EQ(fake::NullTakes(), 0U);
}

TEST_F(DirectTest, GoesOnWhereTheModuleCannotStart)
{
    AnswerWith({200, {"hello"}, CURLE_OK});
    fake::FailDebugLogRegist(true);
    int ok = 0;

    const std::string printed = StandardOutputOf([&] { ok += Qelvo_SyncSendStrByHttp_Ext(&param) == 0 ? 1 : 0; });

    EXPECT_EQ(ok, 1);
    ExpectLine(InitFailed(EXT, 1));
    EXPECT_STREQ(received, "hello");
    EXPECT_EQ(g_bInited, 0U);
}

TEST_F(DirectTest, NullRecordIsRefusedAfterTheStart)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(nullptr), 1U);

    ExpectLinesOf(EXT, {OneNull(EXT)});
    EXPECT_EQ(g_bInited, 1U);
}

TEST_F(DirectTest, NullUrlIsRefused)
{
    param.pchURL = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 1U);

    ExpectLinesOf(EXT, {TwoNull(EXT)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
    EXPECT_EQ(received[0], '#');
}

TEST_F(DirectTest, NullBodyIsRefused)
{
    param.pchSendBuf = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 1U);

    ExpectLine(TwoNull(EXT));
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

/* --- the announcement ----------------------------------------------------------------------------- */

TEST_F(DirectTest, AnnouncementIsExact)
{
    AnswerWith({200, {}, CURLE_OK});
    param.bSSLserver = 3;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    ExpectLine(Info(EXT, SENDING, "http://127.0.0.1:1/x", "{\"a\":1}", 7U, 1111U, 2222U, 16U, 0U, 3U));
}

TEST_F(DirectTest, AnnouncementComesBeforeTheHandle)
{
    Start();
    size_t lines = 0;
    hooks::easy_init = [&] {
        lines = CountOf(SENDING);
        return nullptr;
    };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 2U);

    EXPECT_EQ(lines, 1U);
}

/* --- the buffer ------------------------------------------------------------------------------------ */

TEST_F(DirectTest, BufferIsZeroedToItsCapacityAndNotBeyond)
{
    hooks::easy_perform = [](CURL *) { return CURLE_COULDNT_CONNECT; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 5U);

    EXPECT_EQ(std::string(received, 20), std::string(16, '\0') + "####");
}

TEST_F(DirectTest, BufferIsZeroedBeforeTheHandleIsHad)
{
    hooks::easy_init = [] { return nullptr; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 2U);

    EXPECT_EQ(std::string(received, 17), std::string(16, '\0') + "#");
}

/* The one byte there is no text, and reading beyond it is the address sanitizer's to find. */
TEST_F(DirectTest, BufferWithoutCapacityIsNeitherWrittenNorRead)
{
    AnswerWith({200, {"x"}, CURLE_OK});
    const std::unique_ptr<char[]> one(new char[1]{'#'});
    param.pchRecvBuf = one.get();
    param.dwMaxRecvLen = 0;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(one[0], '#');
    ExpectLine(Received(0, ""));
}

/* --- handle and header list ------------------------------------------------------------------------- */

TEST_F(DirectTest, WithoutEasyHandleItIsTwo)
{
    hooks::easy_init = [] { return nullptr; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 2U);

    ExpectLinesOf(EXT, {Sending(), Error(EXT, NO_HANDLE)});
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0U);
    EXPECT_EQ(hooks::Calls("curl_slist_append"), 0U);
}

TEST_F(DirectTest, WithoutHeaderListItIsThreeAndTheHandleIsReleased)
{
    hooks::slist_append = [](curl_slist *, const char *) { return nullptr; };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 3U);

    ExpectLinesOf(EXT, {Sending(), Error(EXT, NO_LIST), Received(0, "")});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
    EXPECT_EQ(hooks::OptionOrder(), Order());
}

TEST_F(DirectTest, HeaderListIsOneLineWithoutABlank)
{
    Texts header;
    hooks::easy_perform = [&](CURL *) {
        header = HeaderLines();
        return CURLE_OK;
    };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(header, (Texts{"Content-Type:application/json;charset=UTF-8"}));
}

/* --- options ------------------------------------------------------------------------------------------ */

TEST_F(DirectTest, OptionsInOrderWithTheirValues)
{
    AnswerWith({200, {}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(hooks::OptionOrder(), FULL_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 1111U);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 2222U);
    EXPECT_EQ(ValueOf(CURLOPT_POSTFIELDS), reinterpret_cast<uintptr_t>(param.pchSendBuf));
    EXPECT_EQ(TextOf(CURLOPT_URL), param.pchURL);
    EXPECT_EQ(ValueOf(CURLOPT_SSL_VERIFYPEER), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_SSL_VERIFYHOST), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_WRITEFUNCTION), reinterpret_cast<uintptr_t>(Qelvo_Receive_Data));
    EXPECT_EQ(ValueOf(CURLOPT_WRITEDATA), reinterpret_cast<uintptr_t>(&param));
}

TEST_F(DirectTest, OnlyHeadTypeZeroSetsABodyAndNoneSetsAMethod)
{
    AnswerWith({200, {}, CURLE_OK});
    for (const uint32_t headType : {1U, 2U, 3U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(headType);
        hooks::ClearOptions();
        param.eHeadType = headType;
        EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);
        EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_POSTFIELDS}));
    }
}

TEST_F(DirectTest, CheckedServerKeepsLibcurlsVerification)
{
    AnswerWith({200, {}, CURLE_OK});
    param.bSSLserver = 1;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST}));
}

TEST_F(DirectTest, WithoutBufferNoWriteCallbackIsSet)
{
    AnswerWith({200, {}, CURLE_OK});
    param.pchRecvBuf = nullptr;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA}));
}

TEST_F(DirectTest, WithoutCapacityNoWriteCallbackIsSet)
{
    AnswerWith({200, {}, CURLE_OK});
    param.dwMaxRecvLen = 0;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA}));
}

TEST_F(DirectTest, AuthenticationAndNotificationAreIgnored)
{
    AnswerWith({200, {}, CURLE_OK});
    param.bCurlAuth = 1;
    strcpy(param.achUserAndPassWd, "u:p");
    param.pfNtf = Collect;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(hooks::OptionOrder(), FULL_ORDER);
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
}

/* --- a refusal at each option --------------------------------------------------------------------------- */

struct Refusal {
    CURLoption option;
    const char *mark; /* the message up to "failed" */
};

static void PrintTo(const Refusal &refusal, std::ostream *out)
{
    *out << refusal.mark;
}

class DirectRefusalTest : public DirectTest, public testing::WithParamInterface<Refusal>
{
};

TEST_P(DirectRefusalTest, IsFourAndReleasesEverything)
{
    const std::string format = GetParam().mark + std::string("failed, eCurlRet %d, %s\n");
    hooks::RefuseOption(GetParam().option, CURLE_UNKNOWN_OPTION);
    Order expected(FULL_ORDER.begin(), std::find(FULL_ORDER.begin(), FULL_ORDER.end(), GetParam().option) + 1);

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 4U);

    const std::string failed =
        GetParam().mark + std::string("failed, eCurlRet 48, ") + curl_easy_strerror(CURLE_UNKNOWN_OPTION) + "\n";
    ExpectLinesOf(EXT, {Sending(), {HCC_LEVEL_ERROR, EXT, format, failed}, Received(0, "")});
    EXPECT_EQ(hooks::OptionOrder(), expected);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
    EXPECT_EQ(CountOf(CURL_CONVERTED), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Options, DirectRefusalTest,
    testing::Values(Refusal{CURLOPT_HTTPHEADER, "[Error] --1--curl_easy_setopt() "},
                    Refusal{CURLOPT_CONNECTTIMEOUT_MS, "[Error] --2--curl_easy_setopt() "},
                    Refusal{CURLOPT_TIMEOUT_MS, "[Error] --2_1--curl_easy_setopt() "},
                    Refusal{CURLOPT_POSTFIELDS, "[Error] --3--curl_easy_setopt() "},
                    Refusal{CURLOPT_URL, "[Error] --4--curl_easy_setopt() "},
                    Refusal{CURLOPT_SSL_VERIFYPEER, "[Error]  curl_easy_setopt() CURLOPT_SSL_VERIFYPEER "},
                    Refusal{CURLOPT_SSL_VERIFYHOST, "[Error] curl_easy_setopt() CURLOPT_SSL_VERIFYHOST "},
                    Refusal{CURLOPT_WRITEFUNCTION, "[Error] --5--curl_easy_setopt() "},
                    Refusal{CURLOPT_WRITEDATA, "[Error] --5_1--curl_easy_setopt() "}),
    [](const testing::TestParamInfo<Refusal> &test) { return "Option" + std::to_string(test.param.option); });

/* --- the transfer ------------------------------------------------------------------------------------------ */

TEST_F(DirectTest, SuccessSaysWhatWasReceived)
{
    Start();
    AnswerWith({200, {"hel", "lo"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    ExpectLinesOf(EXT, {Sending(), Received(5, "hello")});
    EXPECT_EQ(CountOf(CURL_CONVERTED), 0U);
    EXPECT_EQ(param.dwRecvLen, 5U);
    EXPECT_STREQ(received, "hello");
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
}

TEST_F(DirectTest, HttpStatusIsNotLookedAt)
{
    AnswerWith({500, {"no"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_STREQ(received, "no");
}

TEST_F(DirectTest, LibcurlsCodesAreConverted)
{
    const struct {
        CURLcode curl;
        unsigned send;
    } cases[] = {{CURLE_FTP_ACCEPT_TIMEOUT, 8},      {CURLE_OPERATION_TIMEDOUT, 7},   {CURLE_COULDNT_CONNECT, 5},
                 {CURLE_SSL_CONNECT_ERROR, 5},       {CURLE_COULDNT_RESOLVE_HOST, 5}, {CURLE_UNSUPPORTED_PROTOCOL, 5},
                 {CURLE_PEER_FAILED_VERIFICATION, 5}};
    EXPECT_EQ(static_cast<int>(CURLE_FTP_ACCEPT_TIMEOUT), 12);
    for (const auto &each : cases) {
        SCOPED_TRACE(each.curl);
        AnswerWith({0, {}, each.curl});
        fake::ClearLines();
        EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), each.send);
        const Line failed = Info(EXT, PERFORM_FAILED, each.curl, curl_easy_strerror(each.curl));
        ExpectInOrder({failed, CurlConverted(each.curl, each.send), Received(0, "")});
        ExpectLinesOf(EXT, {Sending(), failed, Received(0, "")});
    }
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), hooks::Calls("curl_easy_init"));
}

TEST_F(DirectTest, WithoutBufferTheOutcomeLineHasTwoBlanks)
{
    AnswerWith({200, {}, CURLE_OK});
    param.pchRecvBuf = nullptr;
    param.dwRecvLen = 9;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    ExpectLine(Info(EXT, RECEIVED_NOWHERE, 9U));
    EXPECT_EQ(CountOf(RECEIVED), 0U);
}

TEST_F(DirectTest, OutcomeIsLoggedBeforeTheHandleIsReleased)
{
    AnswerWith({200, {}, CURLE_OK});
    size_t lines = 0;
    hooks::easy_cleanup = [&](CURL *easy) {
        lines = CountOf(RECEIVED);
        hooks::real::easy_cleanup(easy);
    };

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(lines, 1U);
}

TEST_F(DirectTest, PartialAnswerIsKeptAndItsLengthTold)
{
    AnswerWith({200, {"half"}, CURLE_PARTIAL_FILE});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 5U);

    EXPECT_EQ(param.dwRecvLen, 4U);
    EXPECT_STREQ(received, "half");
}

TEST_F(DirectTest, AnswerOfExactlyTheCapacityIsTakenAndLoggedTerminated)
{
    AnswerWith({200, {"0123456789", "abcdef"}, CURLE_OK});
    const std::unique_ptr<char[]> exact(new char[16]);
    param.pchRecvBuf = exact.get();

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(param.dwRecvLen, 16U);
    EXPECT_EQ(std::string(exact.get(), 16), "0123456789abcdef");
    ExpectLine(Received(16, "0123456789abcdef"));
}

TEST_F(DirectTest, AnswerOfExactlyTheCapacityIsNotReadForALineThatNobodyWants)
{
    Start();
    AnswerWith({200, {"0123456789abcdef"}, CURLE_OK});
    const std::unique_ptr<char[]> exact(new char[16]);
    param.pchRecvBuf = exact.get();
    g_bySendCurlLogType = 0;

    const std::string printed = StandardOutputOf([&] { EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U); });

    EXPECT_EQ(printed, "");
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(std::string(exact.get(), 16), "0123456789abcdef");
}

TEST_F(DirectTest, AnswerOfExactlyTheCapacityIsPrintedTerminatedToo)
{
    Start();
    AnswerWith({200, {"0123456789abcdef"}, CURLE_OK});
    const std::unique_ptr<char[]> exact(new char[16]);
    param.pchRecvBuf = exact.get();
    g_bySendCurlLogType = 2;

    const std::string printed = StandardOutputOf([&] { EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U); });

    EXPECT_NE(printed.find("] RecvLen:16, pchRecvBuf:0123456789abcdef\n"), std::string::npos) << printed;
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(DirectTest, AnswerWithAZeroByteIsLoggedUpToIt)
{
    AnswerWith({200, {std::string("ab\0cd", 5)}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(std::string(received, 6), std::string("ab\0cd\0", 6));
    ExpectLine(Received(5, "ab"));
}

TEST_F(DirectTest, AnswerOneByteLongerFailsAfterTheOverflowMessage)
{
    AnswerWith({200, {"0123456789", "abcdefg"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 5U);

    ExpectInOrder({Error(RECEIVE, OVERFLOWN, 16U, 10U, 7U),
                   Info(EXT, PERFORM_FAILED, 23, curl_easy_strerror(CURLE_WRITE_ERROR)), CurlConverted(23, 5)});
    EXPECT_EQ(param.dwRecvLen, 10U);
    EXPECT_EQ(std::string(received, 17), "0123456789" + std::string(6, '\0') + "#");
}

/* It is the write position, and the send does not reset it. */
TEST_F(DirectTest, ReceiveLengthGivenIsWhereTheAnswerGoes)
{
    AnswerWith({200, {"abc"}, CURLE_OK});
    param.dwRecvLen = 13;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(param.dwRecvLen, 16U);
    EXPECT_EQ(std::string(received, 17), std::string(13, '\0') + "abc#");
}

TEST_F(DirectTest, ReceiveLengthGivenCountsAgainstTheCapacity)
{
    AnswerWith({200, {"abcd"}, CURLE_OK});
    param.dwRecvLen = 13;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 5U);

    ExpectLine(Error(RECEIVE, OVERFLOWN, 16U, 13U, 4U));
    EXPECT_EQ(param.dwRecvLen, 13U);
}

/* --- the write callback ---------------------------------------------------------------------------------- */

TEST_F(DirectTest, ReceiveWithoutDataRecordOrLengthSaysSoOnStandardOutput)
{
    char data[] = "data";
    size_t taken[4] = {9, 9, 9, 9};

    const std::string printed = StandardOutputOf([&] {
        taken[0] = Qelvo_Receive_Data(nullptr, 1, 4, &param);
        taken[1] = Qelvo_Receive_Data(data, 1, 4, nullptr);
        taken[2] = Qelvo_Receive_Data(data, 0, 4, &param);
        taken[3] = Qelvo_Receive_Data(data, 1, 0, &param);
    });

    EXPECT_EQ(printed, "pBuf is null\npBuf is null\npBuf is null\npBuf is null\n");
    for (const size_t each : taken) {
        EXPECT_EQ(each, 0U);
    }
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(param.dwRecvLen, 0U);
}

TEST_F(DirectTest, ReceiveWithoutBuffer)
{
    char data[] = "data";
    param.pchRecvBuf = nullptr;

    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 4, &param), 0U);

    ExpectLines({Error(RECEIVE, NO_BUFFER)});
}

TEST_F(DirectTest, ReceiveWithoutCapacity)
{
    char data[] = "data";
    param.dwMaxRecvLen = 0;

    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 4, &param), 0U);

    ExpectLines({Error(RECEIVE, NO_BUFFER)});
    EXPECT_EQ(received[0], '#');
}

TEST_F(DirectTest, ReceiveAppendsAndCounts)
{
    char data[] = "abcdef";
    param.dwRecvLen = 2;

    EXPECT_EQ(Qelvo_Receive_Data(data, 2, 3, &param), 6U);

    EXPECT_EQ(param.dwRecvLen, 8U);
    EXPECT_EQ(std::string(received, 10), "##abcdef##");
    ExpectLinesOf(RECEIVE, {Info(RECEIVE, CHUNK, 2U, 6U, 16U), Info(RECEIVE, COUNT, 8U, 6)});
}

TEST_F(DirectTest, ReceiveFillsTheBufferToItsLastByte)
{
    char data[] = "0123456789abcdef";

    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 16, &param), 16U);

    EXPECT_EQ(std::string(received, 17), "0123456789abcdef#");
}

TEST_F(DirectTest, ReceiveKeepsNothingOfAChunkThatDoesNotFit)
{
    char data[] = "0123456789abcdefg";

    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 17, &param), 0U);

    ExpectLinesOf(RECEIVE, {Info(RECEIVE, CHUNK, 0U, 17U, 16U), Error(RECEIVE, OVERFLOWN, 16U, 0U, 17U)});
    EXPECT_EQ(param.dwRecvLen, 0U);
    EXPECT_EQ(std::string(received, sizeof received), std::string(sizeof received, '#'));
}

/* 0xFFFFFFFC + 8 is 4 in 32 bits, which would fit. */
TEST_F(DirectTest, ReceiveIsNotDeceivedByAPositionNearTheEndOfItsType)
{
    char data[] = "12345678";
    param.dwRecvLen = 0xFFFFFFFCU;

    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 8, &param), 0U);

    ExpectLine(Error(RECEIVE, OVERFLOWN, 16U, 4294967292U, 8U));
    EXPECT_EQ(param.dwRecvLen, 0xFFFFFFFCU);
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
    uint32_t length = 16;
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(nullptr, "{}", 2, 1000, received, &length), 1U);
    ExpectLine(TwoNull(SIMPLE));

    fake::ClearLines();
    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", nullptr, 2, 1000, received, &length), 1U);
    ExpectLine(TwoNull(SIMPLE));

    EXPECT_EQ(fake::Lines().size(), 1U); /* not even the start was made */
    EXPECT_EQ(g_bInited, 0U);
    EXPECT_EQ(length, 16U);
}

TEST_F(DirectTest, SimpleFormFillsTheRecord)
{
    TSendByCurlParam seen = {};
    hooks::easy_perform = [&](CURL *) {
        seen = RecordGivenToLibcurl();
        return CURLE_OK;
    };
    uint32_t length = 16;
    const char *url = "http://127.0.0.1:1/y";
    const char *body = "{\"b\":2}";

    EXPECT_EQ(Qelvo_SyncSendStrByHttp(url, body, 5, 4321, received, &length), 0U);

    EXPECT_EQ(seen.pchURL, url);
    EXPECT_EQ(seen.eHeadType, 0U);
    EXPECT_EQ(seen.pchSendBuf, body);
    EXPECT_EQ(seen.dwSendLen, 5U);
    EXPECT_EQ(seen.dwConnTimeOutMS, 4321U);
    EXPECT_EQ(seen.dwTimeoutMS, 4321U);
    EXPECT_EQ(seen.dwMaxRecvLen, 16U);
    EXPECT_EQ(seen.bSSLserver, 0U);
    EXPECT_EQ(seen.pchRecvBuf, received);
    EXPECT_EQ(seen.dwRecvLen, 0U);
    EXPECT_EQ(seen.pfNtf, nullptr);
    EXPECT_EQ(seen.bCurlAuth, 0U);
    EXPECT_EQ(std::string(seen.achUserAndPassWd, sizeof seen.achUserAndPassWd),
              std::string(sizeof seen.achUserAndPassWd, '\0'));
    EXPECT_EQ(hooks::OptionOrder(), FULL_ORDER);
}

TEST_F(DirectTest, SimpleFormTellsTheLengthReceived)
{
    AnswerWith({200, {"hello"}, CURLE_OK});
    uint32_t length = 16;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", "{}", 2, 1000, received, &length), 0U);

    EXPECT_EQ(length, 5U);
    EXPECT_STREQ(received, "hello");
}

TEST_F(DirectTest, SimpleFormKeepsTheLengthAfterAFailure)
{
    AnswerWith({200, {"half"}, CURLE_PARTIAL_FILE});
    uint32_t length = 16;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", "{}", 2, 1000, received, &length), 5U);

    EXPECT_EQ(length, 16U);
}

TEST_F(DirectTest, SimpleFormWithBufferButNoLengthDoesNotCollect)
{
    AnswerWith({200, {"hello"}, CURLE_OK});

    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", "{}", 2, 1000, received, nullptr), 0U);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA}));
    EXPECT_EQ(std::string(received, sizeof received), std::string(sizeof received, '#'));
    ExpectLine(Info(EXT, RECEIVED_NOWHERE, 0U));
    EXPECT_EQ(fake::CountTexts("dwMaxRecvLen 0\n"), 1U);
}

TEST_F(DirectTest, SimpleFormWithLengthButNoBufferStoresZero)
{
    AnswerWith({200, {"hello"}, CURLE_OK});
    uint32_t length = 16;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp("http://127.0.0.1:1/", "{}", 2, 1000, nullptr, &length), 0U);

    EXPECT_EQ(hooks::OptionOrder(), Without(FULL_ORDER, {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA}));
    EXPECT_EQ(length, 0U);
}

/* --- the shared DNS cache ------------------------------------------------------------------------------------ */

namespace
{

struct Shared {
    CURLSH *share;
    CURLSHoption option;
    uintptr_t value;
};

class ShareTest : public DirectTest
{
  protected:
    void SetUp() override
    {
        DirectTest::SetUp();
        semsLeft = 1; /* the guard of the creation, if it is a semaphore, lives as long as the process */
        hooks::share_setopt = [this](CURLSH *share, CURLSHoption option, void *value) {
            std::lock_guard<std::mutex> guard(lock);
            shared.push_back({share, option, reinterpret_cast<uintptr_t>(value)});
            return refusal == CURLSHE_OK ? hooks::real::share_setopt(share, option, value) : refusal;
        };
        easy = hooks::real::easy_init();
    }

    void TearDown() override
    {
        hooks::real::easy_cleanup(easy);
        hooks::share_setopt = nullptr;
        DirectTest::TearDown();
    }

    std::mutex lock;
    std::vector<Shared> shared;
    CURLSHcode refusal = CURLSHE_OK;
    CURL *easy = nullptr;
};

} // namespace

TEST_F(ShareTest, FirstUseCreatesTheShareAndAttachesTheHandle)
{
    EXPECT_EQ(set_share_handle(easy), 0U);

    EXPECT_EQ(hooks::Calls("curl_share_init"), 1U);
    ASSERT_EQ(shared.size(), 1U);
    EXPECT_NE(shared[0].share, nullptr);
    EXPECT_EQ(shared[0].option, CURLSHOPT_SHARE);
    EXPECT_EQ(shared[0].value, static_cast<uintptr_t>(CURL_LOCK_DATA_DNS));
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_SHARE, CURLOPT_DNS_CACHE_TIMEOUT}));
    EXPECT_EQ(ValueOf(CURLOPT_SHARE), reinterpret_cast<uintptr_t>(shared[0].share));
    EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300U);
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(ShareTest, LaterUsesAttachTheSameShareAndSetItUpNoMore)
{
    EXPECT_EQ(set_share_handle(easy), 0U);
    CURL *other = hooks::real::easy_init();

    EXPECT_EQ(set_share_handle(other), 0U);

    EXPECT_EQ(hooks::Calls("curl_share_init"), 1U);
    EXPECT_EQ(shared.size(), 1U);
    const std::vector<hooks::Option> attached = hooks::OptionsOf(CURLOPT_SHARE);
    ASSERT_EQ(attached.size(), 2U);
    EXPECT_EQ(attached[0].value, attached[1].value);
    EXPECT_EQ(attached[1].easy, other);
    hooks::real::easy_cleanup(other);
}

TEST_F(ShareTest, ResultIsThatOfTheCacheTimeout)
{
    hooks::RefuseOption(CURLOPT_DNS_CACHE_TIMEOUT, CURLE_BAD_FUNCTION_ARGUMENT);

    EXPECT_EQ(set_share_handle(easy), static_cast<uint32_t>(CURLE_BAD_FUNCTION_ARGUMENT));

    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(ShareTest, WithoutShareHandleItLogsAndGoesOn)
{
    hooks::share_init = [] { return nullptr; };

    set_share_handle(easy);

    ExpectLine(Error(SHARE, NO_SHARE));
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_SHARE, CURLOPT_DNS_CACHE_TIMEOUT}));
    EXPECT_EQ(ValueOf(CURLOPT_SHARE), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300U);
}

TEST_F(ShareTest, AfterAFailedCreationTheNextUseTriesAgain)
{
    hooks::share_init = [] { return nullptr; };
    set_share_handle(easy);
    hooks::share_init = nullptr;

    EXPECT_EQ(set_share_handle(easy), 0U);

    EXPECT_NE(ValueOf(CURLOPT_SHARE), 0U);
}

TEST_F(ShareTest, RefusedDnsSharingIsLoggedAndAttachedAllTheSame)
{
    refusal = CURLSHE_BAD_OPTION;

    EXPECT_EQ(set_share_handle(easy), 0U);

    ExpectLine(Error(SHARE, SHARE_REFUSED, 1, curl_share_strerror(refusal)));
    EXPECT_NE(ValueOf(CURLOPT_SHARE), 0U);
}

TEST_F(ShareTest, RefusedAttachmentIsLoggedTwiceWithTheFirstCode)
{
    hooks::RefuseOption(CURLOPT_SHARE, CURLE_UNKNOWN_OPTION);
    hooks::RefuseOption(CURLOPT_DNS_CACHE_TIMEOUT, CURLE_BAD_FUNCTION_ARGUMENT);
    set_share_handle(easy);

    ExpectLinesOf(SHARE, {Error(SHARE, SHARE_11, 48, curl_easy_strerror(CURLE_UNKNOWN_OPTION)),
                          Error(SHARE, SHARE_22, 48, curl_easy_strerror(CURLE_UNKNOWN_OPTION))});
    EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_SHARE, CURLOPT_DNS_CACHE_TIMEOUT}));
    EXPECT_EQ(ValueOf(CURLOPT_DNS_CACHE_TIMEOUT), 300U);
}

TEST_F(ShareTest, RefusedAttachmentIsLoggedTwiceAlsoWhereTheTimeoutIsAccepted)
{
    hooks::RefuseOption(CURLOPT_SHARE, CURLE_UNKNOWN_OPTION);
    size_t linesBetween = 9;
    hooks::easy_setopt = [&](CURL *handle, CURLoption option, void *value) {
        linesBetween = fake::Lines().size();
        return hooks::real::easy_setopt(handle, option, value);
    };

    set_share_handle(easy);

    EXPECT_EQ(linesBetween, 1U); /* one line before the time-out is set, one after */
    const char *reason = curl_easy_strerror(CURLE_UNKNOWN_OPTION);
    ExpectLinesOf(SHARE, {Error(SHARE, SHARE_11, 48, reason), Error(SHARE, SHARE_22, 48, reason)});
}

/* The creation takes a while, so that an unguarded second one would come in. */
TEST_F(ShareTest, RacingFirstUsesShareOneHandle)
{
    hooks::share_init = [] {
        for (int i = 0; i < 2000; ++i) {
            std::this_thread::yield();
        }
        return hooks::real::share_init();
    };
    CURL *handles[6];
    for (CURL *&one : handles) {
        one = hooks::real::easy_init();
    }
    std::atomic<uint32_t> wrong{0};

    Race(6, [&](unsigned index) { wrong += set_share_handle(handles[index]); });

    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(hooks::Calls("curl_share_init"), 1U);
    EXPECT_EQ(shared.size(), 1U);
    const std::vector<hooks::Option> attached = hooks::OptionsOf(CURLOPT_SHARE);
    EXPECT_EQ(attached.size(), 6U);
    for (const hooks::Option &option : attached) {
        EXPECT_EQ(option.value, reinterpret_cast<uintptr_t>(shared[0].share));
    }
    for (CURL *one : handles) {
        hooks::real::easy_cleanup(one);
    }
}

/* --- end to end ------------------------------------------------------------------------------------------------ */

TEST_F(DirectTest, RealPostEndsAtTheFirstZeroByte)
{
    ScriptedServer server(Answering("pong"));
    const std::string url = server.Url();
    param.pchURL = url.c_str();
    param.pchSendBuf = "ab\0cd";
    param.dwSendLen = 5;
    param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U) << fake::Transcript();

    EXPECT_STREQ(received, "pong");
    ASSERT_EQ(server.RequestCount(), 1U);
    const Request sent = server.Requests()[0];
    EXPECT_EQ(sent.Line(), "POST / HTTP/1.1");
    EXPECT_TRUE(sent.HasLine("Content-Type:application/json;charset=UTF-8")) << sent.head;
    EXPECT_TRUE(sent.HasLine("Content-Length: 2")) << sent.head;
    EXPECT_EQ(sent.body, "ab");
}

TEST_F(DirectTest, RealSendOfAnotherHeadTypeIsAGetWithoutBody)
{
    ScriptedServer server(Answering("pong"));
    const std::string url = server.Url();
    param.pchURL = url.c_str();
    param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;
    for (const uint32_t headType : {1U, 2U}) {
        param.eHeadType = headType;
        param.dwRecvLen = 0;
        EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);
    }

    ASSERT_EQ(server.RequestCount(), 2U);
    for (size_t i = 0; i < 2; ++i) {
        const Request sent = server.Requests()[i];
        EXPECT_EQ(sent.Line(), "GET / HTTP/1.1");
        EXPECT_FALSE(sent.HasHeader("Content-Length")) << sent.head;
        EXPECT_EQ(server.Received(i), sent.head + "\r\n\r\n");
    }
}

TEST_F(DirectTest, RealAnswerOfExactlyTheCapacity)
{
    const ScriptedServer server(Answering("0123456789abcdef"));
    const std::string url = server.Url();
    param.pchURL = url.c_str();
    param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 0U);

    EXPECT_EQ(std::string(received, 17), "0123456789abcdef#");
}

TEST_F(DirectTest, RealAnswerOneByteLonger)
{
    const ScriptedServer server(Answering("0123456789abcdefg"));
    const std::string url = server.Url();
    param.pchURL = url.c_str();
    param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 5U);

    EXPECT_EQ(CountOf(OVERFLOWN), 1U);
    EXPECT_EQ(received[16], '#');
}

TEST_F(DirectTest, RealAnswerWithoutBufferGoesToStandardOutput)
{
    const ScriptedServer server(Answering("pong"));
    const std::string url = server.Url();
    uint32_t result = 99;

    const std::string printed =
        StandardOutputOf([&] { result = Qelvo_SyncSendStrByHttp(url.c_str(), "{}", 2, 20000, received, nullptr); });

    EXPECT_EQ(result, 0U);
    EXPECT_EQ(printed, "pong");
    EXPECT_EQ(received[0], '#');
}

TEST_F(DirectTest, RealSendToARefusingPort)
{
    const ClosedPort port;
    const std::string url = port.Url();
    param.pchURL = url.c_str();
    param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 5U);

    ExpectLine(CurlConverted(7, 5));
}

TEST_F(DirectTest, RealSendToASilentServerTimesOut)
{
    const ScriptedServer server(SILENT);
    const std::string url = server.Url();
    param.pchURL = url.c_str();
    param.dwConnTimeOutMS = 20000;
    param.dwTimeoutMS = 300;

    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&param), 7U);
}
