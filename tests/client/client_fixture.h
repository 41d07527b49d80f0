/*
 * What the cases of the client have in common.
 */
#ifndef TESTS_CLIENT_CLIENT_FIXTURE_H
#define TESTS_CLIENT_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "integration_fixture.h"
#include "nvrhttpcurl/client.hpp"
#include "tests/support/loopback.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace nvrhttpcurl
{

/* How an error reads in a failed comparison. */
inline void PrintTo(Error error, std::ostream *out)
{
    *out << to_string(error);
}

} // namespace nvrhttpcurl

namespace test
{

using nvrhttpcurl::Client;
using nvrhttpcurl::Error;
using nvrhttpcurl::Options;
using nvrhttpcurl::Response;
using std::chrono::milliseconds;

using ClientTest = IntegrationTest;

inline nvrhttpcurl::Request PostOf(const std::string &url, const std::string &body = "{}")
{
    nvrhttpcurl::Request request;
    request.url = url;
    request.body = body;
    return request;
}

/* A request whose server is not checked. */
inline nvrhttpcurl::Request Unverified(const std::string &url, const std::string &body = "{}")
{
    nvrhttpcurl::Request request = PostOf(url, body);
    request.verify = false;
    return request;
}

inline Options Limits(unsigned workers, unsigned maxRequests = 256)
{
    Options options;
    options.workers = workers;
    options.max_requests = maxRequests;
    return options;
}

inline bool IsReady(const std::future<Response> &answer)
{
    return answer.wait_for(milliseconds(0)) == std::future_status::ready;
}

/* The answer, or a failure where none comes. */
inline Response Await(std::future<Response> answer)
{
    if (answer.wait_for(PATIENCE) != std::future_status::ready) {
        ADD_FAILURE() << "no completion";
        return Response();
    }
    return answer.get();
}

inline void ExpectAnswer(const Response &answer, const std::string &body, int status = 200)
{
    EXPECT_EQ(answer.error, Error::none);
    EXPECT_EQ(answer.status, status);
    EXPECT_TRUE(answer.body == body) << "a body of " << answer.body.size() << " bytes";
    EXPECT_EQ(answer.ok(), status >= 200 && status <= 299);
}

inline void ExpectFailure(const Response &answer, Error error, int status = 0)
{
    EXPECT_EQ(answer.error, error);
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.body, "");
    EXPECT_FALSE(answer.ok());
}

} // namespace test

#endif
