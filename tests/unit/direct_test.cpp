/* The direct send: its options and their refusals, its transfer, and the whole against a server. */
#include <memory>

#include "support/hcc_log.h"
#include "tests/support/direct_fixture.h"

using namespace test;

namespace
{

/* A literal of 48 blanks. */
#define BLANKS "                                                "
const char SENDING[] = " pchURL %s, pchSendBuf %s, dwSendLen %u,\n \t" BLANKS
                       "\t dwMaxTimeMs %u-%u, dwMaxRecvLen %u\n \t" BLANKS "\t HeadType:%u,bSSLserver:%u\n";
const char CURL_CONVERTED[] = " Transfer CURLcode[%d] to ESendByCurlRet[%d]\n";
const char RECEIVED[] = " RecvLen:%u, pchRecvBuf:%s\n";

/* As long as the buffer's capacity. */
const char SIXTEEN[] = "0123456789abcdef";

Line Received(uint32_t length, const char *text)
{
    return Info(EXT, RECEIVED, length, text);
}

Line PerformFailed(CURLcode code)
{
    return Info(EXT, " curl_easy_perform() failed, eCurlRet %d, %s\n", static_cast<int>(code),
                curl_easy_strerror(code));
}

Line CurlConverted(int curl, unsigned send)
{
    return Info("CurlCodeToSendByCurlCode", CURL_CONVERTED, curl, send);
}

class Direct : public DirectTest
{
  protected:
    /* The line that announces the record. */
    Line Sending() const
    {
        return Info(EXT, SENDING, param.pchURL, param.pchSendBuf, param.dwSendLen, param.dwConnTimeOutMS,
                    param.dwTimeoutMS, param.dwMaxRecvLen, param.eHeadType, param.bSSLserver);
    }

    /* The send into a buffer of exactly the capacity: the address sanitizer sees each byte beyond. */
    std::string ReceivedIntoExactly16()
    {
        const std::unique_ptr<char[]> exact(new char[16]);
        param.pchRecvBuf = exact.get();
        EXPECT_EQ(Send(), 0U);
        return {exact.get(), 16};
    }
};

/* Over the network, with time-outs that a slow machine keeps. */
class DirectReal : public Direct
{
  protected:
    void SetUp() override
    {
        Direct::SetUp();
        hooks::easy_perform = nullptr;
        param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;
    }

    uint32_t SendTo(const std::string &url)
    {
        param.pchURL = url.c_str();
        return Send();
    }
};

} // namespace

/* --- start and arguments ------------------------------------------------------------------------ */

TEST_F(Direct, StartsTheModuleAndAnnouncesTheRecord)
{
    param.bSSLserver = 3;
    EXPECT_EQ(Send(), 0U);
    ExpectLine(Info(EXT, SENDING, "http://127.0.0.1:1/x", "{\"a\":1}", 7U, 1111U, 2222U, 16U, 0U, 3U));
    EXPECT_EQ(g_bInited, 1U);
    EXPECT_EQ(CountOf(INIT_FAILED), 0U);
    EXPECT_EQ(fake::NullTakes(), 0U);
}

TEST_F(Direct, GoesOnWhereTheModuleCannotStart)
{
    AnswerWith({200, {"hello"}, CURLE_OK});
    fake::FailDebugLogRegist(true);
    StandardOutputOf([this] { EXPECT_EQ(Send(), 0U); });
    ExpectLine(InitFailed(EXT, 1));
    EXPECT_STREQ(received, "hello");
    EXPECT_EQ(g_bInited, 0U);
}

TEST_F(Direct, NeedsARecordWithUrlAndBody)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(nullptr), 1U);
    ExpectLinesOf(EXT, {OneNull(EXT)});
    EXPECT_EQ(g_bInited, 1U);
    for (const char *TSendByCurlParam::*pointer : {&TSendByCurlParam::pchURL, &TSendByCurlParam::pchSendBuf}) {
        TSendByCurlParam incomplete = param;
        incomplete.*pointer = nullptr;
        fake::ClearLines();
        EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&incomplete), 1U);
        ExpectLinesOf(EXT, {TwoNull(EXT)});
    }
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
    EXPECT_EQ(received[0], '#');
}

/* --- buffer, handle and header list --------------------------------------------------------------- */

TEST_F(Direct, BufferIsZeroedToItsCapacityAndNotBeyond)
{
    AnswerWith({0, {}, CURLE_COULDNT_CONNECT});
    EXPECT_EQ(Send(), 5U);
    EXPECT_EQ(Buffer(20), std::string(16, '\0') + "####");
}

/* The one byte there is no text, and reading beyond it is the address sanitizer's to find. */
TEST_F(Direct, BufferWithoutCapacityIsNeitherWrittenNorRead)
{
    AnswerWith({200, {"x"}, CURLE_OK});
    const std::unique_ptr<char[]> one(new char[1]{'#'});
    param.pchRecvBuf = one.get();
    param.dwMaxRecvLen = 0;
    EXPECT_EQ(Send(), 0U);
    EXPECT_EQ(one[0], '#');
    ExpectLine(Received(0, ""));
}

TEST_F(Direct, WithoutEasyHandleItIsTwoAfterAnnouncementAndZeroing)
{
    Start();
    hooks::easy_init = [this] {
        EXPECT_EQ(CountOf(SENDING), 1U);
        EXPECT_EQ(Buffer(17), std::string(16, '\0') + "#");
        return nullptr;
    };
    EXPECT_EQ(Send(), 2U);
    ExpectLines({Sending(), Error(EXT, "[Error] curl_easy_init fail\n")});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0U);
    EXPECT_EQ(hooks::Calls("curl_slist_append"), 0U);
}

TEST_F(Direct, WithoutHeaderListItIsThreeAndTheHandleIsReleased)
{
    hooks::slist_append = [](curl_slist *, const char *) { return nullptr; };
    EXPECT_EQ(Send(), 3U);
    ExpectLinesOf(EXT, {Sending(), Error(EXT, "[Error] curl_slist_append() fail\n"), Received(0, "")});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
    EXPECT_EQ(hooks::OptionOrder(), Order());
}

/* --- options ------------------------------------------------------------------------------------------ */

TEST_F(Direct, OptionsInOrderWithTheirValues)
{
    Texts header;
    hooks::easy_perform = [&](CURL *) {
        header = HeaderLines();
        return CURLE_OK;
    };
    EXPECT_EQ(Send(), 0U);
    EXPECT_EQ(header, (Texts{"Content-Type:application/json;charset=UTF-8"})); /* without a blank */
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

TEST_F(Direct, SomeFieldsLeaveOptionsOut)
{
    const struct {
        const char *what;
        void (*change)(TSendByCurlParam &);
        Order leftOut;
    } cases[] = {
        {"PUT", [](TSendByCurlParam &record) { record.eHeadType = 1; }, {CURLOPT_POSTFIELDS}},
        {"GET", [](TSendByCurlParam &record) { record.eHeadType = 2; }, {CURLOPT_POSTFIELDS}},
        {"head type 3", [](TSendByCurlParam &record) { record.eHeadType = 3; }, {CURLOPT_POSTFIELDS}},
        {"head type -1", [](TSendByCurlParam &record) { record.eHeadType = 0xFFFFFFFFU; }, {CURLOPT_POSTFIELDS}},
        {"checked server",
         [](TSendByCurlParam &record) { record.bSSLserver = 1; },
         {CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST}},
        {"no buffer", [](TSendByCurlParam &record) { record.pchRecvBuf = nullptr; }, WRITE_OPTIONS},
        {"no capacity", [](TSendByCurlParam &record) { record.dwMaxRecvLen = 0; }, WRITE_OPTIONS},
        {"authentication, notification",
         [](TSendByCurlParam &record) {
             record.bCurlAuth = 1;
             strcpy(record.achUserAndPassWd, "u:p");
             record.pfNtf = Collect;
         },
         {}}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.what);
        TSendByCurlParam changed = param;
        each.change(changed);
        hooks::ClearOptions();
        EXPECT_EQ(Qelvo_SyncSendStrByHttp_Ext(&changed), 0U);
        EXPECT_EQ(hooks::OptionOrder(), FullOrderWithout(each.leftOut));
    }
    EXPECT_EQ(NotifiedSoFar().size(), 0U);
}

TEST_F(Direct, ARefusedOptionIsFourAndReleasesEverything)
{
    /* Of the options in their order. */
    const Texts marks = {"--1--curl_easy_setopt()",
                         "--2--curl_easy_setopt()",
                         "--2_1--curl_easy_setopt()",
                         "--3--curl_easy_setopt()",
                         "--4--curl_easy_setopt()",
                         " curl_easy_setopt() CURLOPT_SSL_VERIFYPEER",
                         "curl_easy_setopt() CURLOPT_SSL_VERIFYHOST",
                         "--5--curl_easy_setopt()",
                         "--5_1--curl_easy_setopt()"};
    ASSERT_EQ(marks.size(), FULL_ORDER.size());
    Start();
    Order expected;
    for (const CURLoption option : FULL_ORDER) {
        const std::string mark = "[Error] " + marks[expected.size()];
        SCOPED_TRACE(mark);
        expected.push_back(option);
        hooks::ClearOptions();
        hooks::RefuseOption(option, CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(Send(), 4U);
        hooks::RefuseOption(option, CURLE_OK);
        const std::string text = mark + " failed, eCurlRet 48, " + curl_easy_strerror(CURLE_UNKNOWN_OPTION) + "\n";
        ExpectLines({Sending(), {HCC_LEVEL_ERROR, EXT, mark + " failed, eCurlRet %d, %s\n", text}, Received(0, "")});
        EXPECT_EQ(hooks::OptionOrder(), expected);
        EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), expected.size());
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
}

/* --- the transfer ------------------------------------------------------------------------------------------ */

TEST_F(Direct, SuccessIsLoggedWithWhatWasReceivedBeforeTheHandleIsReleased)
{
    Start();
    AnswerWith({500, {"hel", "lo"}, CURLE_OK}); /* the status is not looked at */
    hooks::easy_cleanup = [](CURL *easy) {
        EXPECT_EQ(CountOf(RECEIVED), 1U);
        hooks::real::easy_cleanup(easy);
    };
    EXPECT_EQ(Send(), 0U);
    ExpectLinesOf(EXT, {Sending(), Received(5, "hello")});
    EXPECT_EQ(CountOf(CURL_CONVERTED), 0U);
    EXPECT_EQ(param.dwRecvLen, 5U);
    EXPECT_STREQ(received, "hello");
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
}

TEST_F(Direct, LibcurlsCodesAreConverted)
{
    const struct {
        CURLcode curl;
        unsigned send;
    } cases[] = {{CURLE_FTP_ACCEPT_TIMEOUT, 8},      {CURLE_OPERATION_TIMEDOUT, 7},   {CURLE_COULDNT_CONNECT, 5},
                 {CURLE_SSL_CONNECT_ERROR, 5},       {CURLE_COULDNT_RESOLVE_HOST, 5}, {CURLE_UNSUPPORTED_PROTOCOL, 5},
                 {CURLE_PEER_FAILED_VERIFICATION, 5}};
    EXPECT_EQ(static_cast<int>(CURLE_FTP_ACCEPT_TIMEOUT), 12);
    Start();
    for (const auto &each : cases) {
        SCOPED_TRACE(each.curl);
        AnswerWith({0, {}, each.curl});
        EXPECT_EQ(Send(), each.send);
        ExpectLines({Sending(), PerformFailed(each.curl), CurlConverted(each.curl, each.send), Received(0, "")});
    }
    AnswerWith({200, {"half"}, CURLE_PARTIAL_FILE});
    EXPECT_EQ(Send(), 5U);
    EXPECT_EQ(param.dwRecvLen, 4U);
    EXPECT_STREQ(received, "half");
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), hooks::Calls("curl_easy_init"));
}

TEST_F(Direct, WithoutBufferTheOutcomeLineHasTwoBlanks)
{
    param.pchRecvBuf = nullptr;
    param.dwRecvLen = 9;
    EXPECT_EQ(Send(), 0U);
    ExpectLine(Info(EXT, RECEIVED_NOWHERE, 9U));
    EXPECT_EQ(CountOf(RECEIVED), 0U);
}

TEST_F(Direct, AnswerOfExactlyTheCapacityIsTakenAndLoggedTerminatedWhereItIsWanted)
{
    Start();
    AnswerWith({200, {"0123456789", "abcdef"}, CURLE_OK});
    EXPECT_EQ(ReceivedIntoExactly16(), SIXTEEN);
    EXPECT_EQ(param.dwRecvLen, 16U);
    ExpectLine(Received(16, SIXTEEN));
    Forget();
    g_bySendCurlLogType = 2;
    param.dwRecvLen = 0;
    const std::string printed = StandardOutputOf([this] { EXPECT_EQ(ReceivedIntoExactly16(), SIXTEEN); });
    EXPECT_NE(printed.find("] RecvLen:16, pchRecvBuf:0123456789abcdef\n"), std::string::npos) << printed;
    g_bySendCurlLogType = 0;
    param.dwRecvLen = 0;
    EXPECT_EQ(StandardOutputOf([this] { EXPECT_EQ(ReceivedIntoExactly16(), SIXTEEN); }), "");
    EXPECT_EQ(fake::Transcript(), "");
}

TEST_F(Direct, AnswerWithAZeroByteIsLoggedUpToIt)
{
    AnswerWith({200, {std::string("ab\0cd", 5)}, CURLE_OK});
    EXPECT_EQ(Send(), 0U);
    EXPECT_EQ(Buffer(6), std::string("ab\0cd\0", 6));
    ExpectLine(Received(5, "ab"));
}

TEST_F(Direct, AnswerOneByteLongerFailsAfterTheOverflowMessage)
{
    AnswerWith({200, {"0123456789", "abcdefg"}, CURLE_OK});
    EXPECT_EQ(Send(), 5U);
    ExpectInOrder({Overflown(16, 10, 7), PerformFailed(CURLE_WRITE_ERROR), CurlConverted(23, 5)});
    EXPECT_EQ(param.dwRecvLen, 10U);
    EXPECT_EQ(Buffer(17), "0123456789" + std::string(6, '\0') + "#");
}

/* It is the write position, and the send does not reset it. */
TEST_F(Direct, ReceiveLengthGivenIsWhereTheAnswerGoesAndCountsAgainstTheCapacity)
{
    AnswerWith({200, {"abcd"}, CURLE_OK});
    param.dwRecvLen = 13;
    EXPECT_EQ(Send(), 5U);
    ExpectLine(Overflown(16, 13, 4));
    EXPECT_EQ(param.dwRecvLen, 13U);
    AnswerWith({200, {"abc"}, CURLE_OK});
    EXPECT_EQ(Send(), 0U);
    EXPECT_EQ(param.dwRecvLen, 16U);
    EXPECT_EQ(Buffer(17), std::string(13, '\0') + "abc#");
}

/* --- end to end ------------------------------------------------------------------------------------------------ */

TEST_F(DirectReal, PostEndsAtTheFirstZeroByte)
{
    ScriptedServer server(Answering("pong"));
    param.pchSendBuf = "ab\0cd";
    param.dwSendLen = 5;
    EXPECT_EQ(SendTo(server.Url()), 0U) << fake::Transcript();
    EXPECT_STREQ(received, "pong");
    ASSERT_EQ(server.RequestCount(), 1U);
    const Request sent = server.Requests()[0];
    EXPECT_EQ(sent.Line(), "POST / HTTP/1.1");
    EXPECT_TRUE(sent.HasLine("Content-Type:application/json;charset=UTF-8")) << sent.head;
    EXPECT_TRUE(sent.HasLine("Content-Length: 2")) << sent.head;
    EXPECT_EQ(sent.body, "ab");
}

TEST_F(DirectReal, AnotherHeadTypeIsAGetWithoutBody)
{
    ScriptedServer server(Answering("pong"));
    for (const uint32_t headType : {1U, 2U}) {
        param.eHeadType = headType;
        param.dwRecvLen = 0;
        EXPECT_EQ(SendTo(server.Url()), 0U);
    }
    ASSERT_EQ(server.RequestCount(), 2U);
    for (size_t i = 0; i < 2; ++i) {
        const Request sent = server.Requests()[i];
        EXPECT_EQ(sent.Line(), "GET / HTTP/1.1");
        EXPECT_FALSE(sent.HasHeader("Content-Length")) << sent.head;
        EXPECT_EQ(server.Received(i), sent.head + "\r\n\r\n");
    }
}

TEST_F(DirectReal, AnswerOfExactlyTheCapacityAndOneByteLonger)
{
    EXPECT_EQ(SendTo(ScriptedServer(Answering(SIXTEEN)).Url()), 0U);
    EXPECT_EQ(Buffer(17), "0123456789abcdef#");
    param.dwRecvLen = 0;
    EXPECT_EQ(SendTo(ScriptedServer(Answering("0123456789abcdefg")).Url()), 5U);
    ExpectLine(Overflown(16, 0, 17));
    EXPECT_EQ(received[16], '#');
}

TEST_F(DirectReal, AnswerWithoutBufferGoesToStandardOutput)
{
    const ScriptedServer server(Answering("pong"));
    const std::string url = server.Url();
    const std::string printed = StandardOutputOf(
        [&] { EXPECT_EQ(Qelvo_SyncSendStrByHttp(url.c_str(), "{}", 2, 20000, received, nullptr), 0U); });
    EXPECT_EQ(printed, "pong");
    EXPECT_EQ(received[0], '#');
}

TEST_F(DirectReal, RefusingPortIsFive)
{
    EXPECT_EQ(SendTo(ClosedPort().Url()), 5U);
    ExpectLine(CurlConverted(7, 5));
}

TEST_F(DirectReal, SilentServerTimesOut)
{
    param.dwTimeoutMS = 300;
    EXPECT_EQ(SendTo(ScriptedServer(SILENT).Url()), 7U);
}
