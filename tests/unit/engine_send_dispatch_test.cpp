/*
 * The dispatcher of JSON sends over the engine; the conversion of results and methods.
 */
#include "tests/support/engine_send_fixture.h"

using namespace test;
using namespace std::string_literals;

namespace
{

const char MODE[] = " eSyncMode:%d [0:Sync 1:ASync]\n";

using DispatchBeforeStart = EngineSendTest;
using Dispatch = StartedSendTest;
using Conversion = SendTest;

} // namespace

/* --- the dispatcher --------------------------------------------------------------------------- */

TEST_F(DispatchBeforeStart, RefusesCreatesTheStartSemaphoreAndNoOtherAndDoesNotStart)
{
    EXPECT_EQ(Qelvo_SendStrByHttp(nullptr, 0), 1U);
    ExpectLines({OneNull(DISPATCH)});
    const HOspSem first = g_pCurlSemSet[SENDBYCURL_SEM_INIT];
    EXPECT_EQ(Qelvo_SendStrByHttp(nullptr, 0), 1U);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_INIT], first);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_SPARE], nullptr);
    EXPECT_EQ(g_pCurlSemSet[SENDBYCURL_SEM_SLOTS], nullptr);
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 1U);
    EXPECT_EQ(g_bInited, 0U);
    EXPECT_EQ(fake::Tasks().size(), 0U);
    EXPECT_EQ(fake::SemsCreated(), 1U);
}

TEST_F(Dispatch, UnknownModeIsRefusedAndCreatesNoRequest)
{
    for (const int mode : {2, -1}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, static_cast<uint32_t>(mode)), 1U);
        ExpectLines({Info(DISPATCH, MODE, mode), Error(DISPATCH, "[Error] InValided Param! eSyncMode:%d\n", mode)});
        EXPECT_EQ(param.dwRecvLen, param.dwMaxRecvLen);
    }
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(Dispatch, ModeZeroSendsSynchronously)
{
    const Line success = Info(DISPATCH, " Qelvo_SyncSendStrByHttpCurl Success!\n");
    AnswerWith({200, {"hello"}, CURLE_OK});
    param.dwRecvLen = 3;
    hooks::easy_perform = [this](CURL *easy) {
        EXPECT_EQ(param.dwRecvLen, 16U) << "the capacity, during the send";
        return Deliver(easy, {200, {"hello"}, CURLE_OK});
    };
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);
    ExpectLinesOf(DISPATCH, {Info(DISPATCH, MODE, 0), success});
    ExpectInOrder({Info(DISPATCH, MODE, 0), Info(SYNC, IN_SYNC), success});
    EXPECT_EQ(param.dwRecvLen, 5U);
    EXPECT_STREQ(received, "hello");
}

TEST_F(Dispatch, ModeOneSendsAsynchronously)
{
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 0U);
    ExpectLinesOf(DISPATCH, {Info(DISPATCH, MODE, 1), Info(DISPATCH, " Qelvo_ASyncSendStrByHttpCurl Success!\n")});
    EXPECT_EQ(SlotsTaken(), 1U);
    EXPECT_EQ(param.dwRecvLen, param.dwMaxRecvLen);
}

TEST_F(Dispatch, BothModesReportTheFailureOfTheSend)
{
    AnswerWith({500, {"no"}, CURLE_OK});
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U);
    ExpectLinesOf(DISPATCH, {Info(DISPATCH, MODE, 0),
                             Error(DISPATCH, "[Error] Qelvo_SyncSendStrByHttpCurl Failed! eSendCurlRet:%d\n", 10)});
    Forget();
    param.pchURL = nullptr;
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 1), 1U);
    ExpectLinesOf(DISPATCH, {Info(DISPATCH, MODE, 1), Error(DISPATCH, ASYNC_FAILED, 1)});
}

/* --- conversions ------------------------------------------------------------------------------ */

TEST_F(Conversion, EngineCodesAreConvertedByTheTable)
{
    const ESendByCurlRet table[] = {0, 1, 2, 2, 1, 9, 1, 11, 12, 13, 7, 14, 15, 5};
    for (uint32_t code = 0; code < std::size(table); ++code) {
        SCOPED_TRACE(code);
        EXPECT_EQ(HttpCurlCodeToSendByCurlCode(code), table[code]);
        ExpectLines({Converted(code, table[code])});
    }
    for (const uint32_t beyond : {14U, 100U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(HttpCurlCodeToSendByCurlCode(beyond), 5U) << beyond;
    }
}

TEST_F(Conversion, MethodNamesAreBoundedByTheSize)
{
    const struct {
        uint32_t headType;
        uint32_t size;
        std::string written;
    } cases[] = {{0, 6, "POST\0#"s},           {1, 6, "PUT\0##"s}, {2, 6, "GET\0##"s}, {3, 6, "POST\0#"s},
                 {0xFFFFFFFFU, 6, "POST\0#"s}, {0, 3, "PO\0##"s},  {1, 1, "\0##"s},    {2, 0, "###"}};
    for (const auto &each : cases) {
        SCOPED_TRACE(testing::Message() << each.headType << " of " << each.size);
        std::string name(8, '#');
        EXPECT_EQ(SendByCurlMethodTransToStr(each.headType, name.data(), each.size), 0U);
        EXPECT_EQ(name.substr(0, each.written.size()), each.written);
    }
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(SendByCurlMethodTransToStr(0, nullptr, 32), 1U);
    ExpectLines({OneNull("SendByCurlMethodTransToStr")});
}
