/*
 * Posts through the C++ client: the URL that it gets, and the send module's result for each end.
 */
#include <gtest/gtest.h>

#include "tools/post/post_client.h"

namespace
{

using nvrhttpcurl::Error;

struct EndCase {
    Error error;
    int status;
    ESendByCurlRet result;
};

const EndCase ENDS[] = {{Error::none, 199, SENDBYCURL_HTTP_STATUS},
                        {Error::none, 200, SENDBYCURL_OK},
                        {Error::none, 299, SENDBYCURL_OK},
                        {Error::none, 300, SENDBYCURL_HTTP_STATUS},
                        {Error::invalid_argument, 0, SENDBYCURL_INVALID_PARAM},
                        {Error::limit_reached, 0, SENDBYCURL_LIMIT_REACHED},
                        {Error::no_memory, 0, SENDBYCURL_NO_MEMORY},
                        {Error::timed_out, 0, SENDBYCURL_TIMED_OUT},
                        {Error::connect_failed, 0, SENDBYCURL_CONNECT_FAILED},
                        {Error::tls_failed, 0, SENDBYCURL_TLS_FAILED},
                        {Error::transfer_failed, 200, SENDBYCURL_TRANSFER_FAILED},
                        {Error::answer_too_long, 200, SENDBYCURL_BUFFER_TOO_SMALL},
                        {Error::cancelled, 0, SENDBYCURL_TRANSFER_FAILED}};

TEST(PostClient, EachEndHasItsResult)
{
    for (const EndCase &end : ENDS) {
        nvrhttpcurl::Response answer;
        answer.error = end.error;
        answer.status = end.status;
        EXPECT_EQ(ResultOfClient(answer), end.result) << nvrhttpcurl::to_string(end.error) << ' ' << end.status;
    }
}

TEST(PostClient, AUrlWithoutASchemeGetsTheOneOfHttp)
{
    for (const std::string url :
         {"127.0.0.1", "127.0.0.1:1", "127.0.0.1:1/", "127.0.0.1?to=a:/b", "127.0.0.1#:/", "127.0.0.1:1/?to=https://a/",
          "127.0.0.1:1/https://a/", "user:pass@127.0.0.1/", "[::1]:1/", "[::1]"}) {
        EXPECT_EQ(WithScheme(url), "http://" + url);
    }
}

/* What the client refuses must not reach a server, the data in clear least of all. */
TEST(PostClient, AUrlWithASchemeStays)
{
    for (const std::string url : {"http://127.0.0.1:1/", "HTTPS://127.0.0.1", "https://127.0.0.1/?to=http://a/",
                                  "http:/127.0.0.1:1/", "https:/127.0.0.1:1/"}) {
        EXPECT_EQ(WithScheme(url), url);
    }
}

} // namespace
