/*
 * The URI check: its options, its mapping of libcurl's codes, and the lock that it shares
 * with request creation.
 */
#include <cstdio>

#include "support/hcc_log.h"
#include "tests/support/send_fixture.h"

using namespace test;

namespace
{

const char CHECK[] = "NvrHttpCurlCltCheckUri";
const char URL[] = "http://127.0.0.1:1/x";
const char URL_TLS[] = "https://127.0.0.1:1/x";

const char NO_HANDLE[] = "[Error] curl_easy_init fail.\n";
const char VERIFY_OFF[] = " setopt CURLOPT_SSL_VERIFYPEER\xA1\xA2"
                          "CURLOPT_SSL_VERIFYHOST\n";
const char RETURNED[] = " curl_easy_perform return {%d}\n";

const Order PLAIN_ORDER = {CURLOPT_HEADER,  CURLOPT_POST,     CURLOPT_URL,          CURLOPT_CONNECTTIMEOUT,
                           CURLOPT_VERBOSE, CURLOPT_NOSIGNAL, CURLOPT_WRITEFUNCTION};
const Order TLS_ORDER = {
    CURLOPT_HEADER, CURLOPT_POST,           CURLOPT_URL,     CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST,
    CURLOPT_CAINFO, CURLOPT_CONNECTTIMEOUT, CURLOPT_VERBOSE, CURLOPT_NOSIGNAL,       CURLOPT_WRITEFUNCTION};

void EndTransfersWith(CURLcode code)
{
    hooks::easy_perform = [code](CURL *) { return code; };
}

class CheckUriTest : public SendTest
{
  protected:
    void SetUp() override
    {
        SendTest::SetUp();
        /* libcurl takes the probe's body from there. */
        ASSERT_NE(freopen("/dev/null", "r", stdin), nullptr);
        EndTransfersWith(CURLE_OK);
    }

    static uint32_t Check(const char *uri = URL)
    {
        return NvrHttpCurlCltCheckUri(uri, 3);
    }
};

} // namespace

/* --- results ----------------------------------------------------------------------------------- */

TEST_F(CheckUriTest, EveryLibcurlCodeHasItsResult)
{
    /* 7, a refused connection, is a general failure here, unlike in the engine's own mapping. */
    for (int code = 0; code < static_cast<int>(CURL_LAST); ++code) {
        SCOPED_TRACE(code);
        const uint32_t expected = code == 0 ? 0 : code == 35 ? 12 : code == 28 ? 10 : 1;
        fake::ClearLines();
        EndTransfersWith(static_cast<CURLcode>(code));
        EXPECT_EQ(Check(), expected);
        ExpectLines({Info(CHECK, RETURNED, code)});
    }
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), hooks::Calls("curl_easy_init"));
}

TEST_F(CheckUriTest, WithoutEasyHandle)
{
    hooks::easy_init = [] { return nullptr; };
    EXPECT_EQ(Check(), 1U);
    ExpectLines({Error(CHECK, NO_HANDLE)});
    EXPECT_EQ(hooks::OptionOrder(), Order());
    EXPECT_EQ(hooks::Calls("curl_easy_perform"), 0U);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0U);
    EXPECT_FALSE(fake::SemIsTaken(g_sEasyInitLocker));
}

TEST_F(CheckUriTest, NullUriIsRefusedWithOneLine)
{
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nullptr, 3), 1U);
    const Lines log = Log();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].level, static_cast<uint32_t>(HCC_LEVEL_ERROR));
    EXPECT_EQ(log[0].func, CHECK);
    EXPECT_EQ(log[0].text.find("[Error] invalid arg, "), 0U) << log[0].text;
    EXPECT_NE(log[0].text.find("(nil)"), std::string::npos) << log[0].text;
    EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
}

/* --- options ----------------------------------------------------------------------------------- */

TEST_F(CheckUriTest, OptionsOverPlainHttp)
{
    EXPECT_EQ(Check(), 0U);
    EXPECT_EQ(hooks::OptionOrder(), PLAIN_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_HEADER), 1U);
    EXPECT_EQ(ValueOf(CURLOPT_POST), 1U);
    EXPECT_EQ(TextOf(CURLOPT_URL), URL);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT), 3U);
    EXPECT_EQ(ValueOf(CURLOPT_VERBOSE), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_NOSIGNAL), 1U);
    EXPECT_EQ(CountOf(VERIFY_OFF), 0U);
}

TEST_F(CheckUriTest, OptionsOverHttps)
{
    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL_TLS, 0), 0U);
    EXPECT_EQ(hooks::OptionOrder(), TLS_ORDER);
    EXPECT_EQ(ValueOf(CURLOPT_SSL_VERIFYPEER), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_SSL_VERIFYHOST), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_CAINFO), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT), 0U);
    ExpectLines({Info(CHECK, VERIFY_OFF), Info(CHECK, RETURNED, 0)});
}

TEST_F(CheckUriTest, SmallHttpsAnywhereTurnsVerificationOff)
{
    EXPECT_EQ(Check("http://127.0.0.1:1/about-https"), 0U);
    EXPECT_EQ(hooks::OptionOrder(), TLS_ORDER);
    hooks::ClearOptions();
    EXPECT_EQ(Check("HTTPS://127.0.0.1:1/"), 0U);
    EXPECT_EQ(hooks::OptionOrder(), PLAIN_ORDER);
}

TEST_F(CheckUriTest, LongConnectTimeoutIsPassedOnWhole)
{
    hooks::easy_setopt = [](CURL *, CURLoption, void *) { return CURLE_OK; };
    EXPECT_EQ(NvrHttpCurlCltCheckUri(URL, 0xFFFFFFFFU), 0U);
    EXPECT_EQ(ValueOf(CURLOPT_CONNECTTIMEOUT), 0xFFFFFFFFU);
}

TEST_F(CheckUriTest, RefusedOptionsAreOnlyLogged)
{
    for (const CURLoption option : TLS_ORDER) {
        SCOPED_TRACE(option);
        fake::ClearLines();
        hooks::ClearOptions();
        hooks::RefuseOption(option, CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(Check(URL_TLS), 0U);
        hooks::RefuseOption(option, CURLE_OK);
        ExpectLine(SetoptFault(CHECK, CURLE_UNKNOWN_OPTION));
        EXPECT_EQ(CountOf(VERIFY_OFF), 1U);
        EXPECT_EQ(hooks::OptionOrder(), TLS_ORDER);
    }
}

/* --- the answer --------------------------------------------------------------------------------- */

TEST_F(CheckUriTest, AnswerIsDiscarded)
{
    size_t taken = 0;
    hooks::easy_perform = [&](CURL *) {
        char data[] = "HTTP/1.1 200 OK\r\n";
        taken = reinterpret_cast<curl_write_callback>(ValueOf(CURLOPT_WRITEFUNCTION))(data, 3, 4, nullptr);
        return CURLE_OK;
    };
    EXPECT_EQ(StandardOutputOf([] { EXPECT_EQ(Check(), 0U); }), "");
    EXPECT_EQ(taken, 12U);
}

/* --- the handle and its lock ------------------------------------------------------------------------ */

TEST_F(CheckUriTest, LockIsHeldForTheHandlesCreationAndTheHandleForTheTransfer)
{
    bool duringInit = false;
    bool duringTransfer = true;
    hooks::easy_init = [&] {
        duringInit = fake::SemIsTaken(g_sEasyInitLocker);
        return hooks::real::easy_init();
    };
    hooks::easy_perform = [&](CURL *) {
        duringTransfer = fake::SemIsTaken(g_sEasyInitLocker);
        EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0U);
        return CURLE_OK;
    };
    EXPECT_EQ(Check(), 0U);
    EXPECT_NE(g_sEasyInitLocker, nullptr);
    EXPECT_TRUE(duringInit);
    EXPECT_FALSE(duringTransfer);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 1U);
    EXPECT_EQ(fake::NullTakes(), 0U);
}

TEST_F(CheckUriTest, LockOfAnInstanceIsTheOneTaken)
{
    Start();
    const HOspSem ofInstance = g_sEasyInitLocker;
    bool taken = false;
    hooks::easy_init = [&] {
        taken = fake::SemIsTaken(ofInstance);
        return hooks::real::easy_init();
    };
    EXPECT_EQ(Check(), 0U);
    EXPECT_TRUE(taken);
    EXPECT_EQ(g_sEasyInitLocker, ofInstance);
}

TEST_F(CheckUriTest, LockThatExistsIsUsedAndKeptUntilAnInitReplacesIt)
{
    EXPECT_EQ(Check(), 0U);
    const HOspSem first = g_sEasyInitLocker;
    EXPECT_EQ(Check(), 0U);
    EXPECT_EQ(g_sEasyInitLocker, first);
    EXPECT_EQ(fake::SemsCreated(), 1U);
    Start();
    EXPECT_NE(g_sEasyInitLocker, first);
    EXPECT_EQ(Check(), 0U);
    OspSemDelete(first); /* as far as the library goes it is never deleted */
}

/* What was taken is given, also when an Init comes in between. */
TEST_F(CheckUriTest, LockTakenIsTheLockGiven)
{
    EXPECT_EQ(Check(), 0U);
    const HOspSem first = g_sEasyInitLocker;
    HOspSem second = nullptr;
    hooks::easy_init = [&] {
        if (second == nullptr) {
            EXPECT_NE(OspSemBCreate(&second), 0U);
            g_sEasyInitLocker = second;
        }
        return hooks::real::easy_init();
    };
    EXPECT_EQ(Check(), 0U);
    EXPECT_FALSE(fake::SemIsTaken(first));
    EXPECT_FALSE(fake::SemIsTaken(second));
    OspSemDelete(first);
}

TEST_F(CheckUriTest, RacingFirstChecksShareOneLock)
{
    std::atomic<int> inside{0};
    std::atomic<int> together{0};
    hooks::easy_init = [&] {
        together += inside++ > 0 ? 1 : 0;
        std::this_thread::yield();
        --inside;
        return hooks::real::easy_init();
    };
    for (int round = 0; round < 60; ++round) {
        std::atomic<uint32_t> wrong{0};
        Race(6, [&](unsigned) { wrong += Check(); });
        ASSERT_EQ(wrong, 0U);
        ASSERT_EQ(fake::SemsAlive(), 1U);
        OspSemDelete(g_sEasyInitLocker);
        g_sEasyInitLocker = nullptr;
    }
    EXPECT_EQ(together, 0);
}

/* --- end to end ------------------------------------------------------------------------------------ */

TEST_F(CheckUriTest, RealServerThatAnswersWithAnErrorIsReachable)
{
    hooks::easy_perform = nullptr;
    for (const int status : {404, 500, 200}) {
        SCOPED_TRACE(status);
        ScriptedServer server(Answering("body", status));
        EXPECT_EQ(StandardOutputOf([&] { EXPECT_EQ(NvrHttpCurlCltCheckUri(server.Url().c_str(), 20), 0U); }), "");
        ASSERT_EQ(server.RequestCount(), 1U);
        EXPECT_EQ(server.Requests()[0].Line(), "POST / HTTP/1.1");
    }
}

TEST_F(CheckUriTest, RealPortThatRefuses)
{
    hooks::easy_perform = nullptr;
    const ClosedPort port;
    EXPECT_EQ(NvrHttpCurlCltCheckUri(port.Url().c_str(), 20), 1U);
    ExpectLine(Info(CHECK, RETURNED, 7));
}
