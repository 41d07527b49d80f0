/*
 * The self-test command. Nothing here reaches the built-in endpoint: wherever the URL is not a
 * loopback server of the case's own, curl_easy_perform is replaced by one that sends nothing.
 */
#include <cstdlib>
#include <cstring>

#include "tests/support/send_fixture.h"

using namespace sendtest;

namespace
{

const char SELFTEST[] = "sendbycurltest";
const char URL[] = "http://127.0.0.1:1/t";
const char JSON[] = "{\"TaskId\":1,\"CheckTemp\":\"11\",\"Operator\":\"qq\",\"Remarks\":\"qq\",\"TemperatureScale\":1,"
                    "\"NVR MacAddress\":\"00-00-00-00-00-00\"}";
enum : size_t { MIB = 0x100000 };

const std::string NO_BUFFER = "%s[L:%d] malloc fail\n";
const std::string NO_OBJECT = "%s[L:%d] ptRoot is null\n";
const std::string SENDING = "%s[L:%d] --99--eSyncMode:%d achSendBuf[%u]: %s\n";
const std::string FAILED = "%s[L:%d] Qelvo_SendStrByHttps fail, eSendRet %d\n";
const std::string SUCCEEDED = "%s[L:%d] Qelvo_SendStrByHttps suc\n";
const std::string RECEIVED = "%s[L:%d] --99--eSyncMode:%d achRecvBuf[%u]: %s\n";

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
        hooks::json_print_unformatted = [this](const cJSON *ptJson) {
            char *pchText = hooks::real::json_print_unformatted(ptJson);
            apchTexts.push_back(pchText);
            return pchText;
        };
        hooks::sys_calloc = [this](size_t nCount, size_t nSize) {
            void *pvBlock = hooks::real::sys_calloc(nCount, nSize);
            if (nCount * nSize >= MIB) {
                ++nBuffers;
                pchBuffer = static_cast<char *>(pvBlock);
            }
            return pvBlock;
        };
    }

    void TearDown() override
    {
        hooks::sys_calloc = nullptr;
        hooks::json_print_unformatted = nullptr;
        for (char *pchText : apchTexts) {
            EXPECT_STREQ(pchText, JSON); /* still there, and as it was */
            free(pchText);
        }
        SendTest::TearDown();
    }

    /* Where the command is told to leave its buffer behind. */
    void FreeLeftBuffer()
    {
        ASSERT_EQ(nBuffers, 1u);
        free(pchBuffer);
    }

    std::vector<char *> apchTexts;
    size_t nBuffers = 0;
    char *pchBuffer = nullptr;
};

std::string SendingTail(int nMode)
{
    return " --99--eSyncMode:" + std::to_string(nMode) + " achSendBuf[" + std::to_string(strlen(JSON)) + "]: " + JSON +
           "\n";
}

} // namespace

/* --- what is sent ----------------------------------------------------------------------------------- */

TEST_F(SelftestTest, SendsTheFixedNotification)
{
    Start();
    std::string strBody;
    std::vector<std::string> astrHeader;
    hooks::easy_perform = [&](CURL *) {
        strBody.assign(reinterpret_cast<const char *>(ValueOf(CURLOPT_POSTFIELDS)), ValueOf(CURLOPT_POSTFIELDSIZE));
        return CURLE_COULDNT_CONNECT;
    };

    sendbycurltest(0, URL);

    EXPECT_EQ(strBody, JSON);
    EXPECT_EQ(TextOf(CURLOPT_URL), URL);
    EXPECT_EQ(ValueOf(CURLOPT_HTTPGET), 1u);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT_MS), 5000u);
    EXPECT_EQ(ValueOf(CURLOPT_TIMEOUT_MS), 5000u);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_USERPWD).size(), 0u);
    EXPECT_EQ(hooks::OptionsOf(CURLOPT_POST).size(), 0u);
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 1u);
}

TEST_F(SelftestTest, MembersAreSixInTheirOrderAndOfTheirTypes)
{
    Start();

    sendbycurltest(0, URL);

    ASSERT_EQ(apchTexts.size(), 1u);
    cJSON *ptRoot = cJSON_Parse(apchTexts[0]);
    ASSERT_NE(ptRoot, nullptr);
    const struct {
        const char *szKey;
        bool bNumber;
    } atMembers[] = {{"TaskId", true},   {"CheckTemp", false},       {"Operator", false},
                     {"Remarks", false}, {"TemperatureScale", true}, {"NVR MacAddress", false}};
    const cJSON *ptMember = ptRoot->child;
    for (const auto &tExpected : atMembers) {
        ASSERT_NE(ptMember, nullptr);
        EXPECT_STREQ(ptMember->string, tExpected.szKey);
        EXPECT_EQ(cJSON_IsNumber(ptMember) != 0, tExpected.bNumber);
        ptMember = ptMember->next;
    }
    EXPECT_EQ(ptMember, nullptr);
    cJSON_Delete(ptRoot);
}

TEST_F(SelftestTest, WithoutArgumentTheBuiltInEndpointIsUsed)
{
    Start();
    for (const char *szArgument : {static_cast<const char *>(nullptr), ""}) {
        hooks::ClearOptions();
        sendbycurltest(0, szArgument);
        EXPECT_EQ(TextOf(CURLOPT_URL), NVRHTTPCURL_SELFTEST_URL);
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 2u);
}

#ifdef SELFTEST_URL_IS_DEFAULT
TEST_F(SelftestTest, BuiltInEndpointIsAnHttpsServerOnAPrivateNetwork)
{
    const std::string strUrl = NVRHTTPCURL_SELFTEST_URL;
    const std::string strEnd = ":3789/NVR/FCACheckTempNtf";
    ASSERT_GT(strUrl.size(), strEnd.size());
    EXPECT_EQ(strUrl.substr(strUrl.size() - strEnd.size()), strEnd);
    unsigned nFirst = 0;
    unsigned nSecond = 0;
    ASSERT_EQ(sscanf(strUrl.c_str(), "https://%u.%u.", &nFirst, &nSecond), 2) << strUrl;
    EXPECT_TRUE(nFirst == 10 || (nFirst == 172 && nSecond >= 16 && nSecond <= 31) || (nFirst == 192 && nSecond == 168))
        << strUrl;
}
#endif

TEST_F(SelftestTest, BuiltInEndpointIsUsedInAsynchronousModeToo)
{
    Start(); /* its workers do not run, so the request stays queued */

    sendbycurltest(1, nullptr);

    EXPECT_NE(TextOf(CURLOPT_URL).find(":3789/NVR/FCACheckTempNtf"), std::string::npos);
    EXPECT_EQ(hooks::Calls("curl_multi_add_handle"), 0u);
    FreeLeftBuffer();
}

TEST_F(SelftestTest, ArgumentOf63CharactersIsUsedWhole)
{
    Start();
    const std::string strUrl = URL + std::string(63 - strlen(URL), 'x');

    sendbycurltest(0, strUrl.c_str());

    EXPECT_EQ(TextOf(CURLOPT_URL), strUrl);
}

TEST_F(SelftestTest, LongerArgumentsAreCutTo63Characters)
{
    Start();
    for (const size_t nLength : {64u, 70u, 500u}) {
        const std::string strUrl = URL + std::string(nLength - strlen(URL), 'x');
        hooks::ClearOptions();
        sendbycurltest(0, strUrl.c_str());
        EXPECT_EQ(TextOf(CURLOPT_URL), strUrl.substr(0, 63));
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

    EXPECT_EQ(FormatsOf(SELFTEST), (std::vector<std::string>{SENDING, SUCCEEDED, RECEIVED}));
    ExpectLine(SENDING, LEVEL_INFO, SELFTEST, SendingTail(0));
    ExpectLine(SUCCEEDED, LEVEL_INFO, SELFTEST, " Qelvo_SendStrByHttps suc\n");
    ExpectLine(RECEIVED, LEVEL_INFO, SELFTEST, " --99--eSyncMode:0 achRecvBuf[8]: all well\n");
    EXPECT_EQ(nBuffers, 1u);
}

TEST_F(SelftestTest, SynchronousAgainstAnUnreachableServer)
{
    Start();

    sendbycurltest(0, URL);

    EXPECT_EQ(FormatsOf(SELFTEST), (std::vector<std::string>{SENDING, FAILED, RECEIVED}));
    ExpectLine(FAILED, LEVEL_INFO, SELFTEST, " Qelvo_SendStrByHttps fail, eSendRet 10\n");
    ExpectLine(RECEIVED, LEVEL_INFO, SELFTEST, " --99--eSyncMode:0 achRecvBuf[1048576]: \n");
}

TEST_F(SelftestTest, SynchronousBeforeTheStart)
{
    sendbycurltest(0, URL);

    ExpectLine(FAILED, LEVEL_INFO, SELFTEST, " Qelvo_SendStrByHttps fail, eSendRet 1\n");
    ExpectLine(RECEIVED, LEVEL_INFO, SELFTEST, " --99--eSyncMode:0 achRecvBuf[1048576]: \n");
}

TEST_F(SelftestTest, AnyModeButOneIsSynchronous)
{
    Start();
    for (const int32_t nMode : {2, -1, 0x7FFFFFFF, static_cast<int32_t>(0x80000000u)}) {
        SCOPED_TRACE(nMode);
        fake::ClearLines();
        sendbycurltest(nMode, URL);
        ExpectLine(SENDING, LEVEL_INFO, SELFTEST, SendingTail(0));
        EXPECT_EQ(fake::CountOf(RECEIVED), 1u);
    }
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 4u);
}

/* The readout terminates behind the capacity it was told. */
TEST_F(SelftestTest, SynchronousAnswerOfExactlyOneMebibyte)
{
    Start();
    AnswerWith({200, {std::string(MIB, 'y')}, CURLE_OK});

    sendbycurltest(0, URL);

    EXPECT_EQ(fake::CountOf(SUCCEEDED), 1u);
    ExpectLine(RECEIVED, LEVEL_INFO, SELFTEST,
               " --99--eSyncMode:0 achRecvBuf[1048576]: " + std::string(MIB, 'y') + "\n");
}

TEST_F(SelftestTest, SynchronousAnswerOfMoreThanOneMebibyte)
{
    Start();
    AnswerWith({200, {std::string(MIB + 1, 'y')}, CURLE_OK});

    sendbycurltest(0, URL);

    ExpectLine(FAILED, LEVEL_INFO, SELFTEST, " Qelvo_SendStrByHttps fail, eSendRet 11\n");
    ExpectLine(RECEIVED, LEVEL_INFO, SELFTEST, " --99--eSyncMode:0 achRecvBuf[1048577]: \n");
}

/* --- asynchronous mode ------------------------------------------------------------------------------- */

TEST_F(SelftestTest, AsynchronousReturnsAtOnceAndLeavesTheBufferToTheNotification)
{
    Start();

    sendbycurltest(1, URL);

    EXPECT_EQ(FormatsOf(SELFTEST), (std::vector<std::string>{SENDING, SUCCEEDED}));
    ExpectLine(SENDING, LEVEL_INFO, SELFTEST, SendingTail(1));
    ASSERT_EQ(g_pfASnycCBParam[0].bUseFlag, 1u);
    EXPECT_EQ(g_pfASnycCBParam[0].pfNtf, SendByCurlReqProgressNtf);
    const auto *ptNode =
        static_cast<const TNvrHttpCurlCltAsyncNode *>(g_hInitHandle->atTasks[0].tRunList.ptHead->pvData);
    EXPECT_EQ(ptNode->pvUserBuf, pchBuffer);
    for (size_t nII = 0; nII < MIB; ++nII) {
        ASSERT_EQ(pchBuffer[nII], '\0');
    }

    memcpy(pchBuffer, "answer", 6);
    SendByCurlReqHttpCurlProgressNtf(g_pfASnycCBParam[0].ptReq, 1, 0, ptNode->pvUserBuf); /* frees it */
    ExpectLine("%s[L:%d] pvContext:%s\n", LEVEL_INFO, "SendByCurlReqProgressNtf", " pvContext:answer\n");
}

TEST_F(SelftestTest, AsynchronousSubmissionThatFailsLeavesTheBuffer)
{
    sendbycurltest(1, URL); /* before the start */

    EXPECT_EQ(FormatsOf(SELFTEST), (std::vector<std::string>{SENDING, FAILED}));
    ExpectLine(FAILED, LEVEL_INFO, SELFTEST, " Qelvo_SendStrByHttps fail, eSendRet 1\n");
    ASSERT_NE(pchBuffer, nullptr);
    EXPECT_EQ(pchBuffer[0], '\0');
    FreeLeftBuffer();
}

TEST_F(SelftestTest, AsynchronousAnswerOfARealServerIsPrinted)
{
    fixture::LoopbackServer tServer(fixture::Reply("warm enough"));
    const std::string strUrl = tServer.Url();
    Start(true);

    sendbycurltest(1, strUrl.c_str());

    EXPECT_TRUE(WaitUntil([] { return fake::CountOf("%s[L:%d] End-------------------------------\n") == 1; }))
        << fake::Transcript();
    NvrHttpCurlCltUninit(g_hInitHandle);
    ExpectLine("%s[L:%d] eErrCode:%d\n", LEVEL_INFO, "SendByCurlReqProgressNtf", " eErrCode:0\n");
    ExpectLine("%s[L:%d] pvContext:%s\n", LEVEL_INFO, "SendByCurlReqProgressNtf", " pvContext:warm enough\n");
    ASSERT_EQ(tServer.Requests().size(), 1u);
    EXPECT_NE(tServer.Requests()[0].find(JSON), std::string::npos);
}

/* --- failures before the send -------------------------------------------------------------------------- */

TEST_F(SelftestTest, WithoutMemoryForTheBuffer)
{
    Start();
    hooks::sys_calloc = [](size_t nCount, size_t nSize) {
        return nCount * nSize >= MIB ? nullptr : hooks::real::sys_calloc(nCount, nSize);
    };

    sendbycurltest(0, URL);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(NO_BUFFER, LEVEL_INFO, SELFTEST, " malloc fail\n");
    EXPECT_EQ(hooks::Calls("cJSON_CreateObject"), 0u);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

TEST_F(SelftestTest, WithoutJsonObjectTheBufferIsLeft)
{
    Start();
    hooks::json_create_object = [] { return nullptr; };

    sendbycurltest(0, URL);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(NO_OBJECT, LEVEL_INFO, SELFTEST, " ptRoot is null\n");
    EXPECT_EQ(hooks::Calls("cJSON_PrintUnformatted"), 0u);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
    FreeLeftBuffer();
}

/* That the object is released is the leak checker's to see. */
TEST_F(SelftestTest, WithoutPrintedTextItEndsWithoutAWord)
{
    Start();
    hooks::json_print_unformatted = [](const cJSON *) { return nullptr; };

    sendbycurltest(0, URL);

    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(hooks::Calls("cJSON_PrintUnformatted"), 1u);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
    FreeLeftBuffer();
}

TEST_F(SelftestTest, BufferIsOneZeroedMebibyteAtLeast)
{
    Start();
    bool bZeroed = true;
    hooks::easy_perform = [&](CURL *) {
        for (size_t nII = 0; nII < MIB; ++nII) {
            bZeroed = bZeroed && pchBuffer[nII] == '\0';
        }
        return CURLE_COULDNT_CONNECT;
    };

    sendbycurltest(0, URL);

    EXPECT_EQ(nBuffers, 1u);
    EXPECT_TRUE(bZeroed);
}
