/*
 * Results in words: each result has a text of its own, and no operation borrows another's.
 */
#include <gtest/gtest.h>

#include <ostream>
#include <set>
#include <string>

#include "tools/common/result_text.h"

namespace
{

/* What a text function says of the results 0 to 31. */
template <typename TText> std::multiset<std::string> TextsOf(TText text)
{
    std::multiset<std::string> texts;
    for (uint32_t result = 0; result < 32; result++) {
        texts.insert(text(result));
    }
    return texts;
}

struct TextCase {
    const char *name;
    const char *(*text)(uint32_t);
    std::set<uint32_t> results; /* those that the operation gives */
    const char *other;          /* said of all others */
};

using ResultText = testing::TestWithParam<TextCase>;

void PrintTo(const TextCase &which, std::ostream *out)
{
    *out << which.name;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Operations, ResultText,
    testing::Values(TextCase{"ModuleStart",
                             ModuleStartText,
                             {SENDBYCURL_OK, SENDBYCURL_INVALID_PARAM, SENDBYCURL_NO_MEMORY, SENDBYCURL_LIMIT_REACHED},
                             "a result that the module's start does not give"},
                    TextCase{"EngineSend",
                             EngineSendText,
                             {SENDBYCURL_OK, SENDBYCURL_INVALID_PARAM, SENDBYCURL_NO_SLOT, SENDBYCURL_TIMED_OUT,
                              SENDBYCURL_NO_MEMORY, SENDBYCURL_HTTP_STATUS, SENDBYCURL_BUFFER_TOO_SMALL,
                              SENDBYCURL_LIMIT_REACHED, SENDBYCURL_CONNECT_FAILED, SENDBYCURL_TLS_FAILED},
                             "a result that a send over the engine does not give"},
                    TextCase{"ClientSend",
                             ClientSendText,
                             {SENDBYCURL_OK, SENDBYCURL_INVALID_PARAM, SENDBYCURL_TRANSFER_FAILED, SENDBYCURL_TIMED_OUT,
                              SENDBYCURL_NO_MEMORY, SENDBYCURL_HTTP_STATUS, SENDBYCURL_BUFFER_TOO_SMALL,
                              SENDBYCURL_LIMIT_REACHED, SENDBYCURL_CONNECT_FAILED, SENDBYCURL_TLS_FAILED},
                             "a result that a post through the client does not give"},
                    TextCase{"DirectSend",
                             DirectSendText,
                             {SENDBYCURL_OK, SENDBYCURL_INVALID_PARAM, SENDBYCURL_NO_HANDLE, SENDBYCURL_NO_HEADER,
                              SENDBYCURL_OPTION_REFUSED, SENDBYCURL_TRANSFER_FAILED, SENDBYCURL_TIMED_OUT,
                              SENDBYCURL_ACCEPT_TIMED_OUT},
                             "a result that a direct send does not give"},
                    TextCase{
                        "CheckUri",
                        CheckUriText,
                        {NVRHTTPCURLCLT_OK, NVRHTTPCURLCLT_FAILED, NVRHTTPCURLCLT_TIMED_OUT, NVRHTTPCURLCLT_TLS_FAILED},
                        "a result that the URI check does not give"}),
    [](const auto &test) { return test.param.name; });

TEST_P(ResultText, EachResultHasItsOwn)
{
    const std::multiset<std::string> texts = TextsOf(GetParam().text);
    EXPECT_EQ(texts.count(GetParam().other), 32 - GetParam().results.size());
    for (const uint32_t result : GetParam().results) {
        EXPECT_EQ(texts.count(GetParam().text(result)), 1U) << result;
    }
}

TEST(ResultTexts, SameNumberOfAnotherOperation)
{
    EXPECT_STREQ(EngineSendText(SENDBYCURL_TIMED_OUT), "the transfer timed out");
    EXPECT_STREQ(DirectSendText(SENDBYCURL_INVALID_PARAM), "a required argument is missing");
    EXPECT_STREQ(ModuleStartText(SENDBYCURL_LIMIT_REACHED), "all 16 engine instances are in use");
    EXPECT_STREQ(EngineSendText(SENDBYCURL_LIMIT_REACHED), "1024 asynchronous requests are outstanding");
    EXPECT_STREQ(CheckUriText(NVRHTTPCURLCLT_TLS_FAILED), "not reachable: the TLS connection failed");
}
