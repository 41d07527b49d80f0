/*
 * The synchronous JSON send over the engine.
 */
#include <cstddef>
#include <memory>

#include "tests/support/engine_send_fixture.h"

using namespace test;

namespace
{

const char STATUS[] = " nHttpStatusCode:%d\n";

using SyncSendBeforeStart = EngineSendTest;
using SyncSend = StartedSendTest;

} // namespace

/* --- settings --------------------------------------------------------------------------------- */

TEST_F(SyncSend, RequiresItsPointers)
{
    ExpectPointersRequired(Qelvo_SyncSendStrByHttpCurl, SYNC, {Info(SYNC, IN_SYNC)});
}

TEST_F(SyncSend, SetsItsOptionsInOrder)
{
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
    EXPECT_EQ(header, JSON_HEADER);
    EXPECT_EQ(body, "{\"a\":1}");
    EXPECT_EQ(ValueOf(CURLOPT_POSTFIELDSIZE), 7U);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 1111U);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 2222U);
}

TEST_F(SyncSend, OverHttpsTurnsVerificationOffAndAuthenticatesBetweenMethodAndBodyOnDemand)
{
    AnswerWith({200, {}, CURLE_OK});
    strcpy(param.achUserAndPassWd, "user:secret");
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);
    EXPECT_EQ(hooks::OptionOrder(), POST_ORDER);
    Forget();
    param.bCurlAuth = 1;
    param.pchURL = "https://127.0.0.1:1/x";
    Order expected = POST_ORDER;
    expected.insert(expected.begin() + 2, {CURLOPT_USERPWD, CURLOPT_HTTPAUTH});
    expected.insert(expected.begin() + 1, {CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CAINFO});
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);
    EXPECT_EQ(hooks::OptionOrder(), expected);
    EXPECT_EQ(TextOf(CURLOPT_USERPWD), "user:secret");
}

/* The bytes behind the array are no terminator, and the record's memory ends with them. */
TEST_F(SyncSend, ReadsUserAndPasswordFilledToTheLastByteAndNotBeyond)
{
    AnswerWith({200, {}, CURLE_OK});
    param.bCurlAuth = 1;
    const std::unique_ptr<TSendByCurlParam, decltype(&free)> filled(
        static_cast<TSendByCurlParam *>(malloc(sizeof(TSendByCurlParam))), &free);
    memset(static_cast<void *>(filled.get()), 'X', sizeof(TSendByCurlParam));
    memcpy(static_cast<void *>(filled.get()), &param, offsetof(TSendByCurlParam, achUserAndPassWd));
    const std::string full = "user:" + std::string(sizeof filled->achUserAndPassWd - 5, 'p');
    full.copy(filled->achUserAndPassWd, full.size());
    EXPECT_EQ(Qelvo_SendStrByHttp(filled.get(), 0), 0U);
    EXPECT_EQ(TextOf(CURLOPT_USERPWD), full);
}

TEST_F(SyncSend, EachHeadTypeHasItsMethodOption)
{
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
        Forget();
        param.eHeadType = each.headType;
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U);
        ASSERT_GT(hooks::OptionOrder().size(), 1U);
        EXPECT_EQ(hooks::OptionOrder()[1], each.option);
        EXPECT_EQ(ValueOf(each.option), 1U);
        EXPECT_EQ(hooks::OptionsOf(CURLOPT_CUSTOMREQUEST).size(), 0U);
    }
}

/* --- answers ---------------------------------------------------------------------------------- */

TEST_F(SyncSend, AnyStatusBut200KeepsCapacityAndBuffer)
{
    const Outcome outcomes[] = {{404, {"missing"}, CURLE_OK},
                                {100, {"x"}, CURLE_OK},
                                {199, {"x"}, CURLE_OK},
                                {201, {"x"}, CURLE_OK},
                                {204, {"x"}, CURLE_OK},
                                {301, {"x"}, CURLE_OK},
                                {500, {"x"}, CURLE_OK},
                                {0, {}, CURLE_COULDNT_CONNECT},
                                {0, {}, CURLE_OPERATION_TIMEDOUT},
                                {0, {}, CURLE_SSL_CONNECT_ERROR},
                                {0, {}, CURLE_COULDNT_RESOLVE_HOST},
                                {0, {}, CURLE_GOT_NOTHING}};
    for (const Outcome &outcome : outcomes) {
        SCOPED_TRACE(&outcome - outcomes);
        Forget();
        AnswerWith(outcome);
        EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 10U);
        ExpectLine(Info(SYNC, STATUS, static_cast<int>(outcome.status)));
        EXPECT_EQ(CountOf(CONVERTED), 0U);
        EXPECT_EQ(CountOf(STEP_FAILED), 0U);
        EXPECT_EQ(param.dwRecvLen, param.dwMaxRecvLen);
        EXPECT_TRUE(BufferUntouched());
    }
    ExpectNoHandleLeft();
}

TEST_F(SyncSend, GivesTheAnswerAndATerminator)
{
    const struct {
        Outcome outcome;
        std::string answer;
    } cases[] = {
        {{200, {"hello"}, CURLE_OK}, "hello"},
        {{200, {"0123456789", "abcdef"}, CURLE_OK}, "0123456789abcdef"}, /* the capacity */
        {{200, {}, CURLE_OK}, ""},
        {{200, {"half", " an"}, CURLE_PARTIAL_FILE}, "half an"}, /* cut off after its status */
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(each.answer);
        Forget();
        AnswerWith(each.outcome);
        memset(received, '#', sizeof received);
        param.dwRecvLen = 16;
        EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 0U);
        EXPECT_EQ(param.dwRecvLen, each.answer.size());
        EXPECT_EQ(std::string(received, each.answer.size() + 2), each.answer + std::string("\0#", 2));
        ExpectLinesOf(SYNC, {Info(SYNC, IN_SYNC)});
        EXPECT_EQ(CountOf(CONVERTED), 0U);
    }
    ExpectNoHandleLeft();
}

TEST_F(SyncSend, RefusesAnAnswerOneByteLongerThanTheCapacityAndGivesItsLength)
{
    AnswerWith({200, {"0123456789", "abcdefg"}, CURLE_OK});
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 11U);
    EXPECT_EQ(param.dwRecvLen, 17U);
    ExpectStepFailed(SYNC, 7, 11);
    AnswerWith({200, {"12345"}, CURLE_OK});
    param.dwRecvLen = 4; /* without the dispatcher it is what counts */
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 11U);
    EXPECT_EQ(param.dwRecvLen, 5U);
}

TEST_F(SyncSend, WithoutCapacityIsABadArgumentOfTheReadout)
{
    AnswerWith({200, {"x"}, CURLE_OK});
    param.dwMaxRecvLen = 0;
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 1U);
    ExpectStepFailed(SYNC, 4, 1);
}

/* --- failures --------------------------------------------------------------------------------- */

TEST_F(SyncSendBeforeStart, IsTheConvertedRefusal)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);
    ExpectInOrder({CreateFailed(SYNC), Converted(4, 1)});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(SyncSend, WithoutEasyHandleOrMemoryForTheRequest)
{
    hooks::easy_init = [] { return nullptr; };
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);
    ExpectInOrder({CreateFailed(SYNC), Converted(1, 1)});
    Forget();
    CountMemory();
    fake::FailMalloc(1);
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 9U);
    ExpectInOrder({CreateFailed(SYNC), Converted(5, 9)});
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

TEST_F(SyncSend, WithoutMemoryForAnyPartOfTheBody)
{
    CountMemory();
    for (unsigned nth = 2; nth <= 5; ++nth) { /* the first is the request's */
        SCOPED_TRACE(nth);
        Forget();
        fake::FailMalloc(nth);
        EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 9U);
        ExpectStepFailed(SYNC, 5, 9);
        EXPECT_EQ(fake::BlocksAlive(), 0U);
        EXPECT_EQ(hooks::OptionOrder(), (Order{CURLOPT_URL, CURLOPT_POST}));
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
}

TEST_F(SyncSend, StopsAtARefusedOption)
{
    param.bCurlAuth = 1;
    strcpy(param.achUserAndPassWd, "u:p");
    const struct {
        Order set; /* up to the refused one */
        size_t headerLines;
    } cases[] = {{{CURLOPT_URL}, 0},
                 {{CURLOPT_URL, CURLOPT_POST}, 2},
                 {{CURLOPT_URL, CURLOPT_POST, CURLOPT_USERPWD, CURLOPT_HTTPAUTH}, 4}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.set.back());
        Forget();
        hooks::RefuseOption(each.set.back(), CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);
        ExpectStepFailed(SYNC, 1, 1);
        EXPECT_EQ(hooks::OptionOrder(), each.set);
        EXPECT_EQ(hooks::Calls("curl_slist_append"), each.headerLines);
        hooks::RefuseOption(each.set.back(), CURLE_OK);
    }
}

TEST_F(SyncSend, StopsAtATimeoutOfZero)
{
    for (uint32_t *timeout : {&param.dwTimeoutMS, &param.dwConnTimeOutMS}) {
        Forget();
        *timeout = 0;
        EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);
        ExpectStepFailed(SYNC, 4, 1);
        *timeout = 1000;
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
}

TEST_F(SyncSend, StopsWhereTheStatusCannotBeRead)
{
    hooks::easy_perform = [](CURL *) { return CURLE_OK; };
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_BAD_FUNCTION_ARGUMENT; };
    EXPECT_EQ(Qelvo_SyncSendStrByHttpCurl(&param), 1U);
    ExpectStepFailed(SYNC, 1, 1);
    EXPECT_EQ(CountOf(STATUS), 0U);
}

TEST_F(SyncSend, ReportsAnAnswerLostForWantOfMemory)
{
    CountMemory();
    AnswerWith({200, {"lost"}, CURLE_OK});
    fake::FailRealloc(1);
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 1U);
    ExpectStepFailed(SYNC, 1, 1);
    fake::FreeLostBlocks();
    EXPECT_EQ(fake::BlocksAlive(), 0U);
}

/* --- many threads, a real server -------------------------------------------------------------- */

TEST_F(SyncSend, ManyThreadsKeepTheirAnswersApart)
{
    AnswerWith({200, {}, CURLE_OK});
    hooks::easy_perform = [](CURL *easy) {
        std::string url;
        for (const hooks::Option &option : hooks::OptionsOf(CURLOPT_URL)) {
            if (option.easy == easy) {
                url = option.text;
            }
        }
        return Deliver(easy, {200, {url.substr(url.size() - 4)}, CURLE_OK});
    };
    std::atomic<int> wrong{0};

    Race(4, [&](unsigned index) {
        for (unsigned i = 0; i < 20; ++i) {
            char answer[8] = "";
            const std::string tag = std::to_string(1000 + index * 100 + i);
            const std::string url = "http://127.0.0.1:1/" + tag;
            TSendByCurlParam mine = param;
            mine.pchURL = url.c_str();
            mine.dwMaxRecvLen = sizeof answer - 1;
            mine.pchRecvBuf = answer;
            wrong += Qelvo_SendStrByHttp(&mine, 0) == 0 && tag == answer ? 0 : 1;
        }
    });

    EXPECT_EQ(wrong, 0);
    ExpectNoHandleLeft();
}

TEST_F(SyncSendBeforeStart, RealSend)
{
    const ScriptedServer server(Answering("pong"));
    StartForReal(server.Url());
    EXPECT_EQ(Qelvo_SendStrByHttp(&param, 0), 0U) << fake::Transcript();
    EXPECT_STREQ(received, "pong");
    EXPECT_EQ(param.dwRecvLen, 4U);
}
