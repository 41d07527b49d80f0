/*
 * The self-test command. Nothing here reaches the built-in endpoint: wherever the URL is not a
 * loopback server of the case's own, curl_easy_perform is replaced by one that sends nothing.
 */
#include <cstdlib>
#include <cstring>

#include "tests/support/send_fixture.h"

using namespace test;

namespace
{

const char SELFTEST[] = "sendbycurltest";
const char URL[] = "http://127.0.0.1:1/t";
const char JSON[] = "{\"TaskId\":1,\"CheckTemp\":\"11\",\"Operator\":\"qq\",\"Remarks\":\"qq\",\"TemperatureScale\":1,"
                    "\"NVR MacAddress\":\"00-00-00-00-00-00\"}";
enum : size_t { MIB = 0x100000 };

const char NO_BUFFER[] = " malloc fail\n";
const char NO_OBJECT[] = " ptRoot is null\n";
const char SENDING[] = " --99--eSyncMode:%d achSendBuf[%u]: %s\n";
const char FAILED[] = " Qelvo_SendStrByHttps fail, eSendRet %d\n";
const char SUCCEEDED[] = " Qelvo_SendStrByHttps suc\n";
const char RECEIVED[] = " --99--eSyncMode:%d achRecvBuf[%u]: %s\n";

/*
 * The printed text is never released by the command, and some ways out leave the receive
 * buffer too; the fixture remembers the one and, where a case says so, releases the other.
 */
class SelftestTest : public SendTest
{
  protected:
    void SetUp() override
    {
        SendTest::SetUp();
        hooks::easy_perform = [](CURL *) { return CURLE_COULDNT_CONNECT; };
        hooks::json_print_unformatted = [this](const cJSON *json) {
            char *text = hooks::real::json_print_unformatted(json);
            texts.push_back(text);
            return text;
        };
        hooks::sys_calloc = [this](size_t count, size_t size) {
            void *block = hooks::real::sys_calloc(count, size);
            if (count * size >= MIB) {
                ++buffers;
                buffer = static_cast<char *>(block);
            }
            return block;
        };
    }

    void TearDown() override
    {
        hooks::sys_calloc = nullptr;
        hooks::json_print_unformatted = nullptr;
        for (char *text : texts) {
            EXPECT_STREQ(text, JSON); /* still there, and as it was */
            free(text);
        }
        SendTest::TearDown();
    }

    /* For the ways out on which the command leaves its buffer behind. */
    void FreeLeftBuffer()
    {
        ASSERT_EQ(buffers, 1U);
        free(buffer);
    }

    std::vector<char *> texts;
    size_t buffers = 0;
    char *buffer = nullptr;
};

Line Sending(int mode)
{
    return Info(SELFTEST, SENDING, mode, static_cast<unsigned>(strlen(JSON)), JSON);
}

} // namespace

/* --- what is sent ----------------------------------------------------------------------------------- */

TEST_F(SelftestTest, SendsTheFixedNotification)
{
    Start();
    std::string body;
    Texts header;
    hooks::easy_perform = [&](CURL *) {
        body.assign(reinterpret_cast<const char *>(ValueOf(CURLOPT_POSTFIELDS)), ValueOf(CURLOPT_POSTFIELDSIZE));
        return CURLE_COULDNT_CONNECT;
    };

    sendbycurltest(0, URL);

    EXPECT_EQ(body, JSON);
    EXPECT_EQ(TextOf(CURLOPT_URL), URL);
    EXPECT_EQ(ValueOf(CURLOPT_HTTPGET), 1U);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 5000U);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 5000U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_USERPWD).size(), 0U);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_POST).size(), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 1U);
}

TEST_F(SelftestTest, MembersAreSixInTheirOrderAndOfTheirTypes)
{
    Start();

    sendbycurltest(0, URL);

    ASSERT_EQ(texts.size(), 1U);
    cJSON *root = cJSON_Parse(texts[0]);
    ASSERT_NE(root, nullptr);
    const struct {
        const char *key;
        bool number;
    } members[] = {{"TaskId", true},   {"CheckTemp", false},       {"Operator", false},
                   {"Remarks", false}, {"TemperatureScale", true}, {"NVR MacAddress", false}};
    const cJSON *member = root->child;
    for (const auto &expected : members) {
        ASSERT_NE(member, nullptr);
        EXPECT_STREQ(member->string, expected.key);
        EXPECT_EQ(cJSON_IsNumber(member) != 0, expected.number);
        member = member->next;
    }
    EXPECT_EQ(member, nullptr);
    cJSON_Delete(root);
}

TEST_F(SelftestTest, WithoutArgumentTheBuiltInEndpointIsUsed)
{
    Start();
    for (const char *argument : {static_cast<const char *>(nullptr), ""}) {
        hooks::ClearOptions();
        sendbycurltest(0, argument);
        EXPECT_EQ(TextOf(CURLOPT_URL), NVRHTTPCURL_SELFTEST_URL);
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 2U);
}

#ifdef SELFTEST_URL_IS_DEFAULT
TEST_F(SelftestTest, BuiltInEndpointIsAnHttpsServerOnAPrivateNetwork)
{
    const std::string url = NVRHTTPCURL_SELFTEST_URL;
    const std::string end = ":3789/NVR/FCACheckTempNtf";
    ASSERT_GT(url.size(), end.size());
    EXPECT_EQ(url.substr(url.size() - end.size()), end);
    unsigned first = 0;
    unsigned second = 0;
    ASSERT_EQ(sscanf(url.c_str(), "https://%u.%u.", &first, &second), 2) << url;
    EXPECT_TRUE(first == 10 || (first == 172 && second >= 16 && second <= 31) || (first == 192 && second == 168))
        << url;
}
#endif

TEST_F(SelftestTest, BuiltInEndpointIsUsedInAsynchronousModeToo)
{
    Start(); /* its workers do not run, so the request stays queued */

    sendbycurltest(1, nullptr);

    EXPECT_NE(TextOf(CURLOPT_URL).find(":3789/NVR/FCACheckTempNtf"), std::string::npos);
    EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), 0U);
    FreeLeftBuffer();
}

TEST_F(SelftestTest, ArgumentOf63CharactersIsUsedWhole)
{
    Start();
    const std::string url = URL + std::string(63 - strlen(URL), 'x');

    sendbycurltest(0, url.c_str());

    EXPECT_EQ(TextOf(CURLOPT_URL), url);
}

TEST_F(SelftestTest, LongerArgumentsAreCutTo63Characters)
{
    Start();
    for (const size_t length : {64U, 70U, 500U}) {
        const std::string url = URL + std::string(length - strlen(URL), 'x');
        hooks::ClearOptions();
        sendbycurltest(0, url.c_str());
        EXPECT_EQ(TextOf(CURLOPT_URL), url.substr(0, 63));
    }
}

TEST_F(SelftestTest, PercentSignsInTheArgumentAreText)
{
    Start();

    sendbycurltest(0, "http://127.0.0.1:1/%s%n%d");

    EXPECT_EQ(TextOf(CURLOPT_URL), "http://127.0.0.1:1/%s%n%d");
}

/* --- synchronous mode -------------------------------------------------------------------------------- */

TEST_F(SelftestTest, SynchronousSuccess)
{
    Start();
    AnswerWith({200, {"all ", "well"}, CURLE_OK});

    sendbycurltest(0, URL);

    ExpectLinesOf(SELFTEST, {Sending(0), Info(SELFTEST, SUCCEEDED), Info(SELFTEST, RECEIVED, 0, 8U, "all well")});
    EXPECT_EQ(buffers, 1U);
}

TEST_F(SelftestTest, SynchronousAgainstAnUnreachableServer)
{
    Start();

    sendbycurltest(0, URL);

    ExpectLinesOf(SELFTEST, {Sending(0), Info(SELFTEST, FAILED, 10), Info(SELFTEST, RECEIVED, 0, 1048576U, "")});
}

TEST_F(SelftestTest, SynchronousBeforeTheStart)
{
    sendbycurltest(0, URL);

    ExpectLine(Info(SELFTEST, FAILED, 1));
    ExpectLine(Info(SELFTEST, RECEIVED, 0, 1048576U, ""));
}

TEST_F(SelftestTest, AnyModeButOneIsSynchronous)
{
    Start();
    for (const int32_t mode : {2, -1, 0x7FFFFFFF, static_cast<int32_t>(0x80000000U)}) {
        SCOPED_TRACE(mode);
        fake::ClearLines();
        sendbycurltest(mode, URL);
        ExpectLine(Sending(0));
        EXPECT_EQ(CountOf(RECEIVED), 1U);
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 4U);
}

/* The readout puts a terminator behind the capacity that it is given. */
TEST_F(SelftestTest, SynchronousAnswerOfExactlyOneMebibyte)
{
    Start();
    AnswerWith({200, {std::string(MIB, 'y')}, CURLE_OK});

    sendbycurltest(0, URL);

    EXPECT_EQ(CountOf(SUCCEEDED), 1U);
    ExpectLine(Info(SELFTEST, RECEIVED, 0, 1048576U, std::string(MIB, 'y').c_str()));
}

TEST_F(SelftestTest, SynchronousAnswerOfMoreThanOneMebibyte)
{
    Start();
    AnswerWith({200, {std::string(MIB + 1, 'y')}, CURLE_OK});

    sendbycurltest(0, URL);

    ExpectLine(Info(SELFTEST, FAILED, 11));
    ExpectLine(Info(SELFTEST, RECEIVED, 0, 1048577U, ""));
}

/* --- asynchronous mode ------------------------------------------------------------------------------- */

TEST_F(SelftestTest, AsynchronousReturnsAtOnceAndLeavesTheBufferToTheNotification)
{
    Start();

    sendbycurltest(1, URL);

    ExpectLinesOf(SELFTEST, {Sending(1), Info(SELFTEST, SUCCEEDED)});
    ASSERT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U);
    EXPECT_EQ(g_pfASnycCBParam[0].pfNtf, SendByCurlReqProgressNtf);
    const auto *node = static_cast<const TNvrHttpCurlCltAsyncNode *>(g_hInitHandle->atTasks[0].tRunList.ptHead->pvData);
    EXPECT_EQ(node->pvUserBuf, buffer);
    for (size_t i = 0; i < MIB; ++i) {
        ASSERT_EQ(buffer[i], '\0');
    }

    memcpy(buffer, "answer", 6);
    SendByCurlReqHttpCurlProgressNtf(g_pfASnycCBParam[0].ptReq, 1, 0, node->pvUserBuf); /* frees it */
    ExpectLine(Info("SendByCurlReqProgressNtf", " pvContext:%s\n", "answer"));
}

TEST_F(SelftestTest, AsynchronousSubmissionThatFailsLeavesTheBuffer)
{
    sendbycurltest(1, URL); /* before the start */

    ExpectLinesOf(SELFTEST, {Sending(1), Info(SELFTEST, FAILED, 1)});
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer[0], '\0');
    FreeLeftBuffer();
}

TEST_F(SelftestTest, AsynchronousAnswerOfARealServerIsPrinted)
{
    ScriptedServer server(Answering("warm enough"));
    const std::string url = server.Url();
    Start(true);

    sendbycurltest(1, url.c_str());

    EXPECT_TRUE(WaitUntil([] { return CountOf(" End-------------------------------\n") == 1; })) << fake::Transcript();
    NvrHttpCurlCltUninit(g_hInitHandle);
    ExpectLine(Info("SendByCurlReqProgressNtf", " eErrCode:%d\n", 0));
    ExpectLine(Info("SendByCurlReqProgressNtf", " pvContext:%s\n", "warm enough"));
    ASSERT_EQ(server.RequestCount(), 1U);
    EXPECT_EQ(server.Requests()[0].body, JSON);
}

/* --- failures before the send -------------------------------------------------------------------------- */

TEST_F(SelftestTest, WithoutMemoryForTheBuffer)
{
    Start();
    hooks::sys_calloc = [](size_t count, size_t size) {
        return count * size >= MIB ? nullptr : hooks::real::sys_calloc(count, size);
    };

    sendbycurltest(0, URL);

    ExpectLines({Info(SELFTEST, NO_BUFFER)});
    EXPECT_EQ(hooks::Calls("cJSON_CreateObject"), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

TEST_F(SelftestTest, WithoutJsonObjectTheBufferIsLeft)
{
    Start();
    hooks::json_create_object = [] { return nullptr; };

    sendbycurltest(0, URL);

    ExpectLines({Info(SELFTEST, NO_OBJECT)});
    EXPECT_EQ(hooks::Calls("cJSON_PrintUnformatted"), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
    FreeLeftBuffer();
}

/* That the object is released is the leak checker's to see. */
TEST_F(SelftestTest, WithoutPrintedTextItEndsWithoutAWord)
{
    Start();
    hooks::json_print_unformatted = [](const cJSON *) { return nullptr; };

    sendbycurltest(0, URL);

    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(hooks::Calls("cJSON_PrintUnformatted"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
    FreeLeftBuffer();
}

TEST_F(SelftestTest, BufferIsOneZeroedMebibyteAtLeast)
{
    Start();
    bool zeroed = true;
    hooks::easy_perform = [&](CURL *) {
        for (size_t i = 0; i < MIB; ++i) {
            zeroed = zeroed && buffer[i] == '\0';
        }
        return CURLE_COULDNT_CONNECT;
    };

    sendbycurltest(0, URL);

    EXPECT_EQ(buffers, 1U);
    EXPECT_TRUE(zeroed);
}
