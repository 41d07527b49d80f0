/*
 * The self-test command. Nothing here reaches the built-in endpoint: wherever the URL is not a
 * loopback server of the case's own, curl_easy_perform is replaced by one that sends nothing.
 */
#include <cstdlib>

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
class SelftestBeforeStart : public SendTest
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

class SelftestTest : public SelftestBeforeStart
{
  protected:
    void SetUp() override
    {
        SelftestBeforeStart::SetUp();
        Start();
    }

    /* Runs the command for this URL; returns the one that libcurl got. */
    static std::string UrlFor(const char *argument)
    {
        hooks::ClearOptions();
        sendbycurltest(0, argument);
        return TextOf(CURLOPT_URL);
    }
};

Line Sending(int mode)
{
    return Info(SELFTEST, SENDING, mode, static_cast<unsigned>(strlen(JSON)), JSON);
}

} // namespace

/* --- what is sent ----------------------------------------------------------------------------------- */

TEST_F(SelftestTest, SendsTheFixedNotificationWithAZeroedBufferOfOneMebibyte)
{
    std::string body;
    Texts header;
    bool zeroed = false;
    hooks::easy_perform = [&](CURL *) {
        zeroed = std::all_of(buffer, buffer + MIB, [](char byte) { return byte == '\0'; });
        body.assign(reinterpret_cast<const char *>(ValueOf(CURLOPT_POSTFIELDS)), ValueOf(CURLOPT_POSTFIELDSIZE));
        return CURLE_COULDNT_CONNECT;
    };
    sendbycurltest(0, URL);
    EXPECT_EQ(buffers, 1U);
    EXPECT_TRUE(zeroed);
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
    EXPECT_EQ(UrlFor(nullptr), NVRHTTPCURL_SELFTEST_URL);
    EXPECT_EQ(UrlFor(""), NVRHTTPCURL_SELFTEST_URL);
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
    sendbycurltest(1, nullptr); /* the workers do not run, so the request stays queued */
    EXPECT_NE(TextOf(CURLOPT_URL).find(":3789/NVR/FCACheckTempNtf"), std::string::npos);
    EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), 0U);
    FreeLeftBuffer();
}

TEST_F(SelftestTest, ArgumentIsATextOfWhichTheFirst63CharactersAreUsed)
{
    for (const size_t length : {63U, 64U, 70U, 500U}) {
        const std::string url = URL + std::string(length - strlen(URL), 'x');
        EXPECT_EQ(UrlFor(url.c_str()), url.substr(0, 63));
    }
    EXPECT_EQ(UrlFor("http://127.0.0.1:1/%s%n%d"), "http://127.0.0.1:1/%s%n%d");
}

/* --- synchronous mode -------------------------------------------------------------------------------- */

TEST_F(SelftestTest, SynchronousSuccess)
{
    AnswerWith({200, {"all ", "well"}, CURLE_OK});
    sendbycurltest(0, URL);
    ExpectLinesOf(SELFTEST, {Sending(0), Info(SELFTEST, SUCCEEDED), Info(SELFTEST, RECEIVED, 0, 8U, "all well")});
    EXPECT_EQ(buffers, 1U);
}

TEST_F(SelftestTest, SynchronousAgainstAnUnreachableServer)
{
    sendbycurltest(0, URL);
    ExpectLinesOf(SELFTEST, {Sending(0), Info(SELFTEST, FAILED, 10), Info(SELFTEST, RECEIVED, 0, 1048576U, "")});
}

TEST_F(SelftestBeforeStart, Synchronous)
{
    sendbycurltest(0, URL);
    ExpectLine(Info(SELFTEST, FAILED, 1));
    ExpectLine(Info(SELFTEST, RECEIVED, 0, 1048576U, ""));
}

TEST_F(SelftestTest, AnyModeButOneIsSynchronous)
{
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
TEST_F(SelftestTest, SynchronousAnswerOfUpToOneMebibyte)
{
    const std::string answer(MIB, 'y');
    AnswerWith({200, {answer}, CURLE_OK});
    sendbycurltest(0, URL);
    ExpectLinesOf(SELFTEST,
                  {Sending(0), Info(SELFTEST, SUCCEEDED), Info(SELFTEST, RECEIVED, 0, 1048576U, answer.c_str())});
    Forget();
    AnswerWith({200, {answer, "y"}, CURLE_OK});
    sendbycurltest(0, URL);
    ExpectLinesOf(SELFTEST, {Sending(0), Info(SELFTEST, FAILED, 11), Info(SELFTEST, RECEIVED, 0, 1048577U, "")});
}

/* --- asynchronous mode ------------------------------------------------------------------------------- */

TEST_F(SelftestTest, AsynchronousReturnsAtOnceAndLeavesTheBufferToTheNotification)
{
    sendbycurltest(1, URL);
    ExpectLinesOf(SELFTEST, {Sending(1), Info(SELFTEST, SUCCEEDED)});
    ASSERT_EQ(g_pfASnycCBParam[0].bUseFlag, 1U);
    EXPECT_EQ(g_pfASnycCBParam[0].pfNtf, SendByCurlReqProgressNtf);
    const auto *node = static_cast<const TNvrHttpCurlCltAsyncNode *>(g_hInitHandle->atTasks[0].tRunList.ptHead->pvData);
    EXPECT_EQ(node->pvUserBuf, buffer);
    EXPECT_TRUE(std::all_of(buffer, buffer + MIB, [](char byte) { return byte == '\0'; }));
    memcpy(buffer, "answer", 6);
    SendByCurlReqHttpCurlProgressNtf(g_pfASnycCBParam[0].ptReq, 1, 0, node->pvUserBuf); /* frees it */
    ExpectLine(Info("SendByCurlReqProgressNtf", " pvContext:%s\n", "answer"));
}

TEST_F(SelftestBeforeStart, AsynchronousLeavesTheBuffer)
{
    sendbycurltest(1, URL);
    ExpectLinesOf(SELFTEST, {Sending(1), Info(SELFTEST, FAILED, 1)});
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer[0], '\0');
    FreeLeftBuffer();
}

TEST_F(SelftestTest, AsynchronousAnswerOfARealServerIsPrinted)
{
    ScriptedServer server(Answering("warm enough"));
    const std::string url = server.Url();
    ForgetModule();
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
    hooks::json_print_unformatted = [](const cJSON *) { return nullptr; };
    sendbycurltest(0, URL);
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(hooks::Calls("cJSON_PrintUnformatted"), 1U);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
    FreeLeftBuffer();
}
