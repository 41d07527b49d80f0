/*
 * The URI check: its options, its mapping of libcurl's codes, and the lock that it shares
 * with request creation.
 */
#include <cstdio>

#include "tests/support/send_fixture.h"

using namespace sendtest;

namespace
{

const char CHECK[] = "NvrHttpCurlCltCheckUri";
const char URL[] = "http://127.0.0.1:1/x";
const char URL_TLS[] = "https://127.0.0.1:1/x";

const std::string NO_HANDLE = "%s[L:%d][Error] curl_easy_init fail.\n";
const std::string REFUSED = "%s[L:%d][Error] curl_easy_setopt fault! {ErrorCode:%d} {ErrorStr:%s}\n";
const std::string VERIFY_OFF = "%s[L:%d] setopt CURLOPT_SSL_VERIFYPEER\xA1\xA2"
                               "CURLOPT_SSL_VERIFYHOST\n";
const std::string RETURNED = "%s[L:%d] curl_easy_perform return {%d}\n";

using Order = std::vector<CURLoption>;

const Order PLAIN_ORDER = {
    CURLOPT_HEADER,  CURLOPT_POST,     CURLOPT_URL,           CURLOPT_CONNECTTIMEOUT,
    CURLOPT_VERBOSE, CURLOPT_NOSIGNAL, CURLOPT_WRITEFUNCTION,
};
const Order TLS_ORDER = {
    CURLOPT_HEADER, CURLOPT_POST,           CURLOPT_URL,     CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST,
    CURLOPT_CAINFO, CURLOPT_CONNECTTIMEOUT, CURLOPT_VERBOSE, CURLOPT_NOSIGNAL,       CURLOPT_WRITEFUNCTION,
};

void EndTransfersWith(CURLcode eCode)
{
    hooks::easy_perform = [eCode](CURL *) { return eCode; };
}

class CheckUriTest : public SendTest
{
  protected:
    void SetUp() override
    {
        SendTest::SetUp();
        /* libcurl takes the probe's body from there. */
        ASSERT_NE(freopen("/dev/null", "r", stdin), nullptr);
    }
};

} // namespace

/* --- results ----------------------------------------------------------------------------------- */

TEST_F(CheckUriTest, EveryLibcurlCodeHasItsResult)
{
    for (int nCode = 0; nCode < static_cast<int>(CURL_LAST); ++nCode) {
        SCOPED_TRACE(nCode);
        const uint32_t dwExpected = nCode == 0 ? 0 : nCode == 35 ? 12 : nCode == 28 ? 10 : 1;
        fake::ClearLines();
        EndTransfersWith(static_cast<CURLcode>(nCode));
        EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), dwExpected);
        EXPECT_EQ(fake::Lines().size(), 1u);
        ExpectLine(RETURNED, LEVEL_INFO, CHECK, " curl_easy_perform return {" + std::to_string(nCode) + "}\n");
    }
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), hooks::Calls("curl_easy_init"));
}

/* 11 is the engine's own mapping of it. */
TEST_F(CheckUriTest, RefusedConnectionIsAGeneralFailure)
{
    EndTransfersWith(CURLE_COULDNT_CONNECT);

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 1u);
}

TEST_F(CheckUriTest, WithoutEasyHandle)
{
    hooks::easy_init = [] { return nullptr; };

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 1u);

    EXPECT_EQ(fake::Lines().size(), 1u);
    ExpectLine(NO_HANDLE, LEVEL_ERROR, CHECK, "[Error] curl_easy_init fail.\n");
    EXPECT_EQ(hooks::OptionOrder(), Order());
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0u);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0u);
    EXPECT_FALSE(fake::SemIsTaken(g_sEasyInitLocker));
}

TEST_F(CheckUriTest, NullUriIsRefusedWithOneLine)
{
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nullptr, 3), 1u);

    const std::vector<fake::LogLine> atLines = fake::Lines();
    ASSERT_EQ(atLines.size(), 1u);
    EXPECT_EQ(atLines[0].dwLevel, static_cast<uint32_t>(LEVEL_ERROR));
    EXPECT_EQ(atLines[0].strFunc, CHECK);
    EXPECT_NE(atLines[0].strText.find("][Error] invalid arg, "), std::string::npos) << atLines[0].strText;
    EXPECT_NE(atLines[0].strText.find("(nil)"), std::string::npos) << atLines[0].strText;
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0u);
}

/* --- options ----------------------------------------------------------------------------------- */

TEST_F(CheckUriTest, OptionsOverPlainHttp)
{
    EndTransfersWith(CURLE_OK);

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);

    EXPECT_EQ(hooks::OptionOrder(), PLAIN_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_HEADER), 1u);
    EXPECT_EQ(ValueOf(CURLOPT_POST), 1u);
    EXPECT_EQ(TextOf(CURLOPT_URL), URL);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT), 3u);
    EXPECT_EQ(ValueOf(CURLOPT_VERBOSE), 0u);
    EXPECT_EQ(ValueOf(CURLOPT_NOSIGNAL), 1u);
    EXPECT_EQ(fake::CountOf(VERIFY_OFF), 0u);
}

TEST_F(CheckUriTest, OptionsOverHttps)
{
    EndTransfersWith(CURLE_OK);

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL_TLS, 0), 0u);

    EXPECT_EQ(hooks::OptionOrder(), TLS_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_SSL_VERIFYPEER), 0u);
    EXPECT_EQ(ValueOf(CURLOPT_SSL_VERIFYHOST), 0u);
    EXPECT_EQ(ValueOf(CURLOPT_CAINFO), 0u);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT), 0u);
    ExpectLine(VERIFY_OFF, LEVEL_INFO, CHECK,
               " setopt CURLOPT_SSL_VERIFYPEER\xA1\xA2"
               "CURLOPT_SSL_VERIFYHOST\n");
    EXPECT_LT(PlaceOf(VERIFY_OFF), PlaceOf(RETURNED));
}

TEST_F(CheckUriTest, SmallHttpsAnywhereTurnsVerificationOff)
{
    EndTransfersWith(CURLE_OK);

    EXPECT_EQ(NvrHttpCurlCltCheckUri("http://127.0.0.1:1/about-https", 3), 0u);

    EXPECT_EQ(hooks::OptionOrder(), TLS_ORDER);
}

TEST_F(CheckUriTest, HttpsInCapitalsKeepsVerificationOn)
{
    EndTransfersWith(CURLE_OK);

    EXPECT_EQ(NvrHttpCurlCltCheckUri("HTTPS://127.0.0.1:1/", 3), 0u);

    EXPECT_EQ(hooks::OptionOrder(), PLAIN_ORDER);
}

TEST_F(CheckUriTest, LongConnectTimeoutIsPassedOnWhole)
{
    EndTransfersWith(CURLE_OK);
    hooks::easy_setopt = [](CURL *, CURLoption, void *) { return CURLE_OK; };

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 0xFFFFFFFFu), 0u);

    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT), 0xFFFFFFFFu);
}

TEST_F(CheckUriTest, RefusedOptionsAreOnlyLogged)
{
    EndTransfersWith(CURLE_OK);
    for (const CURLoption eOption : TLS_ORDER) {
        SCOPED_TRACE(eOption);
        fake::ClearLines();
        hooks::ClearOptions();
        hooks::RefuseOption(eOption, CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(NvrHttpCurlCltCheckUri(URL_TLS, 3), 0u);
        hooks::RefuseOption(eOption, CURLE_OK);
        ExpectLine(REFUSED, LEVEL_ERROR, CHECK,
                   "[Error] curl_easy_setopt fault! {ErrorCode:48} {ErrorStr:" +
                       std::string(curl_easy_strerror(CURLE_UNKNOWN_OPTION)) + "}\n");
        EXPECT_EQ(fake::CountOf(VERIFY_OFF), 1u);
        EXPECT_EQ(hooks::OptionOrder(), TLS_ORDER);
    }
}

/* --- the answer --------------------------------------------------------------------------------- */

TEST_F(CheckUriTest, AnswerIsDiscarded)
{
    size_t nTaken = 0;
    hooks::easy_perform = [&](CURL *) {
        char achData[] = "HTTP/1.1 200 OK\r\n";
        nTaken = reinterpret_cast<curl_write_callback>(ValueOf(CURLOPT_WRITEFUNCTION))(achData, 3, 4, nullptr);
        return CURLE_OK;
    };

    testing::internal::CaptureStdout();
    const uint32_t dwResult = NvrHttpCurlCltCheckUri(URL, 3);
    fflush(stdout);
    const std::string strPrinted = testing::internal::GetCapturedStdout();

    EXPECT_EQ(dwResult, 0u);
    EXPECT_EQ(nTaken, 12u);
    EXPECT_EQ(strPrinted, "");
}

/* --- the handle and its lock ------------------------------------------------------------------------ */

TEST_F(CheckUriTest, HandleIsReleasedAfterTheTransfer)
{
    size_t nDuring = 9;
    hooks::easy_perform = [&](CURL *) {
        nDuring = hooks::Calls("curl_easy_cleanup");
        return CURLE_OPERATION_TIMEDOUT;
    };

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 10u);

    EXPECT_EQ(nDuring, 0u);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1u);
}

TEST_F(CheckUriTest, LockIsCreatedOnFirstUseAndHeldForTheHandleOnly)
{
    bool bDuringInit = false;
    bool bDuringTransfer = true;
    hooks::easy_init = [&] {
        bDuringInit = fake::SemIsTaken(g_sEasyInitLocker);
        return hooks::real::easy_init();
    };
    hooks::easy_perform = [&](CURL *) {
        bDuringTransfer = fake::SemIsTaken(g_sEasyInitLocker);
        return CURLE_OK;
    };

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);

    EXPECT_NE(g_sEasyInitLocker, nullptr);
    EXPECT_TRUE(bDuringInit);
    EXPECT_FALSE(bDuringTransfer);
    EXPECT_EQ(fake::NullTakes(), 0u);
}

TEST_F(CheckUriTest, LockThatExistsIsUsedAndKept)
{
    EndTransfersWith(CURLE_OK);
    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);
    const HOspSem hFirst = g_sEasyInitLocker;

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);

    EXPECT_EQ(g_sEasyInitLocker, hFirst);
    EXPECT_EQ(fake::SemsCreated(), 1u);
}

TEST_F(CheckUriTest, LockOfAnInstanceIsTheOneTaken)
{
    Start();
    const HOspSem hOfInstance = g_sEasyInitLocker;
    bool bTaken = false;
    hooks::easy_init = [&] {
        bTaken = fake::SemIsTaken(hOfInstance);
        return hooks::real::easy_init();
    };
    EndTransfersWith(CURLE_OK);

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);

    EXPECT_TRUE(bTaken);
    EXPECT_EQ(g_sEasyInitLocker, hOfInstance);
}

TEST_F(CheckUriTest, InitReplacesTheLockOfAnEarlierCheck)
{
    EndTransfersWith(CURLE_OK);
    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);
    const HOspSem hFirst = g_sEasyInitLocker;

    Start();

    EXPECT_NE(g_sEasyInitLocker, hFirst);
    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);
    OspSemDelete(hFirst); /* as far as the library goes it is never deleted */
}

/* What was taken is given, also when an Init comes in between. */
TEST_F(CheckUriTest, LockTakenIsTheLockGiven)
{
    EndTransfersWith(CURLE_OK);
    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);
    const HOspSem hFirst = g_sEasyInitLocker;
    HOspSem hSecond = nullptr;
    hooks::easy_init = [&] {
        if (hSecond == nullptr) {
            EXPECT_NE(OspSemBCreate(&hSecond), 0u);
            g_sEasyInitLocker = hSecond;
        }
        return hooks::real::easy_init();
    };

    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 3), 0u);

    EXPECT_FALSE(fake::SemIsTaken(hFirst));
    EXPECT_FALSE(fake::SemIsTaken(hSecond));
    OspSemDelete(hFirst);
}

TEST_F(CheckUriTest, RacingFirstChecksShareOneLock)
{
    std::atomic<int> nInside{0};
    std::atomic<int> nTogether{0};
    hooks::easy_init = [&] {
        nTogether += nInside++ > 0 ? 1 : 0;
        std::this_thread::yield();
        --nInside;
        return hooks::real::easy_init();
    };
    EndTransfersWith(CURLE_OK);

    for (int nRound = 0; nRound < 60; ++nRound) {
        std::atomic<uint32_t> dwWrong{0};
        Race(6, [&](unsigned) { dwWrong += NvrHttpCurlCltCheckUri(URL, 3); });
        ASSERT_EQ(dwWrong, 0u);
        ASSERT_EQ(fake::SemsAlive(), 1u);
        OspSemDelete(g_sEasyInitLocker);
        g_sEasyInitLocker = nullptr;
    }
    EXPECT_EQ(nTogether, 0);
}

/* --- end to end ------------------------------------------------------------------------------------ */

TEST_F(CheckUriTest, RealServerThatAnswersWithAnErrorIsReachable)
{
    for (const char *szStatus : {"404 Not Found", "500 Internal Server Error", "200 OK"}) {
        SCOPED_TRACE(szStatus);
        fixture::LoopbackServer tServer("HTTP/1.1 " + std::string(szStatus) +
                                        "\r\nContent-Length: 4\r\nConnection: close\r\n\r\nbody");

        testing::internal::CaptureStdout();
        const uint32_t dwResult = NvrHttpCurlCltCheckUri(tServer.Url().c_str(), 20);
        fflush(stdout);
        const std::string strPrinted = testing::internal::GetCapturedStdout();

        EXPECT_EQ(dwResult, 0u);
        EXPECT_EQ(strPrinted, "");
        ASSERT_EQ(tServer.Requests().size(), 1u);
        EXPECT_EQ(tServer.Requests()[0].compare(0, 5, "POST "), 0) << tServer.Requests()[0];
    }
}

TEST_F(CheckUriTest, RealPortThatRefuses)
{
    const fixture::ClosedPort tPort;

    EXPECT_EQ(NvrHttpCurlCltCheckUri(tPort.Url().c_str(), 20), 1u);

    ExpectLine(RETURNED, LEVEL_INFO, CHECK, " curl_easy_perform return {7}\n");
}
