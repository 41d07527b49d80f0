/*
 * The URI check. Standard input is at its end, as a service's is.
 */
#include <chrono>

#include "engine_runs.h"
#include "nginx_server.h"
#include "tests/support/loopback.h"
#include "tests/support/race.h"
#include "tests/support/scripted_server.h"

namespace
{

using namespace test;
using UriCheck = NginxTest;

using UriCheckOfScriptedServer = IntegrationTest;

ENvrHttpCurlCltRet Check(const std::string &url)
{
    return NvrHttpCurlCltCheckUri(url.c_str(), 10);
}

TEST_F(UriCheck, AnyHttpStatusMeansReachable)
{
    for (const char *path : {"/ready", "/status/404", "/status/500", "/auth"}) {
        EXPECT_EQ(Check(nginx.Http(path)), NVRHTTPCURLCLT_OK) << path;
    }
}

TEST_F(UriCheck, ASelfSignedCertificateIsAcceptedUnlessTheSchemeIsInCapitals)
{
    EXPECT_EQ(Check(nginx.Https("/status/404")), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(nginx.WaitForRequests(1));
    EXPECT_EQ(Check(nginx.Https("/status/404", "HTTPS")), NVRHTTPCURLCLT_FAILED);
    EXPECT_EQ(nginx.RequestCount(), 1U);
}

TEST_F(UriCheck, PlainPortAskedForTlsReturns12)
{
    EXPECT_EQ(Check(nginx.Http("/ready", "https")), NVRHTTPCURLCLT_TLS_FAILED);
}

TEST_F(UriCheck, NothingOfTheAnswerReachesStandardOutput)
{
    const std::string output =
        StandardOutputOf([this] { EXPECT_EQ(Check(nginx.Http("/status/404")), NVRHTTPCURLCLT_OK); });
    EXPECT_EQ(output.find("HTTP/1.1"), std::string::npos) << output;
    EXPECT_EQ(output.find("says the server"), std::string::npos) << output;
}

TEST_F(UriCheck, ManyThreadsMayComeFirstAtOnce)
{
    Race(8, [this](unsigned) { EXPECT_EQ(Check(nginx.Http("/status/404")), NVRHTTPCURLCLT_OK); });
}

TEST_F(UriCheck, WorksBesideAnInstanceAndAfterItsEnd)
{
    Engine engine(1);
    EXPECT_EQ(Check(nginx.Http("/status/404")), NVRHTTPCURLCLT_OK);
    engine.Stop();
    EXPECT_EQ(Check(nginx.Http("/status/404")), NVRHTTPCURLCLT_OK);
}

/* --- servers that misbehave -------------------------------------------------------------------- */

TEST_F(UriCheckOfScriptedServer, SendsAPostWithAnEmptyBody)
{
    const ScriptedServer server(ECHOING);
    EXPECT_EQ(Check(server.Url("/place")), NVRHTTPCURLCLT_OK);
    ASSERT_EQ(server.RequestCount(), 1U);
    EXPECT_EQ(server.Requests()[0].Line(), "POST /place HTTP/1.1");
    EXPECT_EQ(server.Requests()[0].body, "");
}

TEST_F(UriCheckOfScriptedServer, AnAddressThatDoesNotAnswerReturns10AfterTheTimeout)
{
    const SilentAddress silent;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(NvrHttpCurlCltCheckUri(silent.Url().c_str(), 1), NVRHTTPCURLCLT_TIMED_OUT);
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(950));
    EXPECT_LE(taken, std::chrono::seconds(20)); /* seconds, not minutes */
}

TEST_F(UriCheckOfScriptedServer, AFailureIsOneAndAHandshakeBrokenOff12)
{
    const ClosedPort refusing;
    const ScriptedServer closing({When::FIRST_BYTE, {CLOSE}});
    for (const std::string &url : {refusing.Url(), closing.Url(), std::string("unheard-of://127.0.0.1/")}) {
        EXPECT_EQ(Check(url), NVRHTTPCURLCLT_FAILED) << url;
    }
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nullptr, 10), NVRHTTPCURLCLT_FAILED);
    EXPECT_EQ(Check(closing.Url("/", "https")), NVRHTTPCURLCLT_TLS_FAILED);
}

} // namespace
