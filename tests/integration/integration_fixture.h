/*
 * What every case of the integration tests starts from.
 */
#ifndef TESTS_INTEGRATION_INTEGRATION_FIXTURE_H
#define TESTS_INTEGRATION_INTEGRATION_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/files.h"
#include "tests/support/process_state.h"

namespace test
{

/* No proxy settings, standard input at its end, a log folder of its own; programs that it starts inherit them. */
class IntegrationTest : public testing::Test
{
  protected:
    IntegrationTest()
    {
        ClearProxies();
        setenv("NVRHTTPCURL_LOG_DIR", logFolder.Path().c_str(), 1);
        FeedStandardInput("");
    }

    const TemporaryFolder logFolder;
};

/* A text of exactly this many bytes that differs from place to place. */
inline std::string SampleText(size_t length)
{
    std::string text(length, '.');
    for (size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>('a' + (i * 7 + i / 26) % 26);
    }
    return text;
}

inline bool Has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace test

#endif
