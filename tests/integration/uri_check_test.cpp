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
#include "raw_server.h"

namespace
{

class UriCheck : public NginxTest
{
};

class UriCheckOfRawServer : public common::IntegrationTest
{
};

TEST_F(UriCheck, AnyHttpStatusMeansReachable)
{
    for (const char *path : {"/ready", "/status/404", "/status/500", "/auth"}) {
        EXPECT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltCheckUri(nginx.Http(path).c_str(), 10)) << path;
    }
}

TEST_F(UriCheck, ASelfSignedCertificateIsAccepted)
{
    EXPECT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltCheckUri(nginx.Https("/status/404").c_str(), 10));
}

TEST_F(UriCheck, ASchemeInCapitalsIsVerified)
{
    EXPECT_EQ(NVRHTTPCURLCLT_FAILED, NvrHttpCurlCltCheckUri(nginx.Https("/ready", "HTTPS").c_str(), 10));
    EXPECT_TRUE(common::WaitUntil([this] { return nginx.ErrorLog().find("unknown ca") != std::string::npos; }));
}

TEST_F(UriCheck, PlainPortAskedForTlsReturns12)
{
    EXPECT_EQ(NVRHTTPCURLCLT_TLS_FAILED, NvrHttpCurlCltCheckUri(nginx.Http("/ready", "https").c_str(), 10));
}

TEST_F(UriCheck, NothingOfTheAnswerReachesStandardOutput)
{
    const std::string output = common::StandardOutputOf(
        [this] { EXPECT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltCheckUri(nginx.Http("/status/404").c_str(), 10)); });
    EXPECT_EQ(std::string::npos, output.find("HTTP/1.1")) << output;
    EXPECT_EQ(std::string::npos, output.find("says the server")) << output;
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
    EXPECT_EQ(std::vector<ENvrHttpCurlCltRet>(8, NVRHTTPCURLCLT_OK), results);
}

TEST_F(UriCheck, WorksBesideAnInstanceAndAfterItsEnd)
{
    runs::Engine engine(1);
    EXPECT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltCheckUri(nginx.Http("/status/404").c_str(), 10));
    engine.Stop();
    EXPECT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltCheckUri(nginx.Http("/status/404").c_str(), 10));
}

/* --- servers that misbehave -------------------------------------------------------------------- */

TEST_F(UriCheckOfRawServer, SendsAPostWithAnEmptyBody)
{
    const raw::Server server({raw::When::Headers, {raw::Send(raw::Reply(200, "here")), raw::Await()}});
    EXPECT_EQ(NVRHTTPCURLCLT_OK, NvrHttpCurlCltCheckUri(server.Url("/place").c_str(), 10));
    ASSERT_TRUE(server.WaitForHeads(1));
    EXPECT_EQ(0u, server.Received(0).find("POST /place HTTP/1.1\r\n")) << server.Received(0);
    for (const raw::Request &seen : server.Requests()) {
        EXPECT_EQ("", seen.body);
    }
}

TEST_F(UriCheckOfRawServer, ARefusedConnectionReturns1)
{
    const common::ClosedPort closed;
    EXPECT_EQ(NVRHTTPCURLCLT_FAILED, NvrHttpCurlCltCheckUri(closed.Url().c_str(), 10));
}

TEST_F(UriCheckOfRawServer, AnAddressThatDoesNotAnswerReturns10AfterTheTimeout)
{
    const common::SilentAddress silent;
    ASSERT_TRUE(silent.IsSilent());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(NVRHTTPCURLCLT_TIMED_OUT, NvrHttpCurlCltCheckUri(silent.Url().c_str(), 1));
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(950));
    EXPECT_LE(taken, std::chrono::seconds(20)); /* seconds, not minutes */
}

TEST_F(UriCheckOfRawServer, AHandshakeBrokenOffReturns12)
{
    const raw::Server server({raw::When::FirstByte, {raw::Close()}});
    EXPECT_EQ(NVRHTTPCURLCLT_TLS_FAILED, NvrHttpCurlCltCheckUri(server.Url("/", "https").c_str(), 10));
}

TEST_F(UriCheckOfRawServer, AConnectionClosedWithoutAnAnswerReturns1)
{
    const raw::Server server({raw::When::FirstByte, {raw::Close()}});
    EXPECT_EQ(NVRHTTPCURLCLT_FAILED, NvrHttpCurlCltCheckUri(server.Url().c_str(), 10));
}

TEST_F(UriCheckOfRawServer, SomethingThatIsNoUrlReturns1)
{
    EXPECT_EQ(NVRHTTPCURLCLT_FAILED, NvrHttpCurlCltCheckUri("unheard-of://127.0.0.1/", 10));
    EXPECT_EQ(NVRHTTPCURLCLT_FAILED, NvrHttpCurlCltCheckUri(nullptr, 10));
}

} // namespace
