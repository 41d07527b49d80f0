/*
 * The URI check. Standard input is at its end, as a service's is.
 */
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "engine_runs.h"
#include "nginx_server.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"

namespace
{

using UriCheck = test::NginxTest;

using UriCheckOfScriptedServer = test::IntegrationTest;

TEST_F(UriCheck, AnyHttpStatusMeansReachable)
{
    for (const char *path : {"/ready", "/status/404", "/status/500", "/auth"}) {
        EXPECT_EQ(NvrHttpCurlCltCheckUri(nginx.Http(path).c_str(), 10), NVRHTTPCURLCLT_OK) << path;
    }
}

TEST_F(UriCheck, ASelfSignedCertificateIsAccepted)
{
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nginx.Https("/status/404").c_str(), 10), NVRHTTPCURLCLT_OK);
}

TEST_F(UriCheck, ASchemeInCapitalsIsVerified)
{
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nginx.Https("/status/404").c_str(), 10), NVRHTTPCURLCLT_OK);
    ASSERT_TRUE(nginx.WaitForRequests(1));
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nginx.Https("/status/404", "HTTPS").c_str(), 10), NVRHTTPCURLCLT_FAILED);
    EXPECT_EQ(nginx.RequestCount(), 1U);
}

TEST_F(UriCheck, PlainPortAskedForTlsReturns12)
{
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nginx.Http("/ready", "https").c_str(), 10), NVRHTTPCURLCLT_TLS_FAILED);
}

TEST_F(UriCheck, NothingOfTheAnswerReachesStandardOutput)
{
    const std::string output = test::StandardOutputOf(
        [this] { EXPECT_EQ(NvrHttpCurlCltCheckUri(nginx.Http("/status/404").c_str(), 10), NVRHTTPCURLCLT_OK); });
    EXPECT_EQ(output.find("HTTP/1.1"), std::string::npos) << output;
    EXPECT_EQ(output.find("says the server"), std::string::npos) << output;
}

TEST_F(UriCheck, ManyThreadsMayComeFirstAtOnce)
{
    std::vector<ENvrHttpCurlCltRet> results(8, NVRHTTPCURLCLT_FAILED);
    std::vector<std::thread> threads;
    for (ENvrHttpCurlCltRet &result : results) {
        threads.emplace_back(
            [this, &result] { result = NvrHttpCurlCltCheckUri(nginx.Http("/status/404").c_str(), 10); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(results, std::vector<ENvrHttpCurlCltRet>(8, NVRHTTPCURLCLT_OK));
}

TEST_F(UriCheck, WorksBesideAnInstanceAndAfterItsEnd)
{
    test::Engine engine(1);
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nginx.Http("/status/404").c_str(), 10), NVRHTTPCURLCLT_OK);
    engine.Stop();
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nginx.Http("/status/404").c_str(), 10), NVRHTTPCURLCLT_OK);
}

/* --- servers that misbehave -------------------------------------------------------------------- */

TEST_F(UriCheckOfScriptedServer, SendsAPostWithAnEmptyBody)
{
    const test::ScriptedServer server(test::ECHOING);
    EXPECT_EQ(NvrHttpCurlCltCheckUri(server.Url("/place").c_str(), 10), NVRHTTPCURLCLT_OK);
    ASSERT_EQ(server.RequestCount(), 1U);
    EXPECT_EQ(server.Requests()[0].Line(), "POST /place HTTP/1.1");
    EXPECT_EQ(server.Requests()[0].body, "");
}

TEST_F(UriCheckOfScriptedServer, ARefusedConnectionReturns1)
{
    const test::ClosedPort closed;
    EXPECT_EQ(NvrHttpCurlCltCheckUri(closed.Url().c_str(), 10), NVRHTTPCURLCLT_FAILED);
}

TEST_F(UriCheckOfScriptedServer, AnAddressThatDoesNotAnswerReturns10AfterTheTimeout)
{
    const test::SilentAddress silent;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(NvrHttpCurlCltCheckUri(silent.Url().c_str(), 1), NVRHTTPCURLCLT_TIMED_OUT);
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(950));
    EXPECT_LE(taken, std::chrono::seconds(20)); /* seconds, not minutes */
}

TEST_F(UriCheckOfScriptedServer, AHandshakeBrokenOffReturns12)
{
    const test::ScriptedServer server({test::When::FIRST_BYTE, {test::CLOSE}});
    EXPECT_EQ(NvrHttpCurlCltCheckUri(server.Url("/", "https").c_str(), 10), NVRHTTPCURLCLT_TLS_FAILED);
}

TEST_F(UriCheckOfScriptedServer, AConnectionClosedWithoutAnAnswerReturns1)
{
    const test::ScriptedServer server({test::When::FIRST_BYTE, {test::CLOSE}});
    EXPECT_EQ(NvrHttpCurlCltCheckUri(server.Url().c_str(), 10), NVRHTTPCURLCLT_FAILED);
}

TEST_F(UriCheckOfScriptedServer, SomethingThatIsNoUrlReturns1)
{
    EXPECT_EQ(NvrHttpCurlCltCheckUri("unheard-of://127.0.0.1/", 10), NVRHTTPCURLCLT_FAILED);
    EXPECT_EQ(NvrHttpCurlCltCheckUri(nullptr, 10), NVRHTTPCURLCLT_FAILED);
}

} // namespace
