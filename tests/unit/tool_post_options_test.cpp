/*
 * The defaults of "nvrhttp post" that depend on what is posted.
 */
#include <gtest/gtest.h>

#include "tools/nvrhttp/post_options.h"

namespace
{

constexpr size_t LONGEST = size_t{1} << 30; /* that the client and --max-answer take */
constexpr size_t EXTRA = 65536;

TEST(PostOptions, TheDefaultOfMaxAnswerForOneHasItsOwnLength)
{
    EXPECT_EQ(DefaultMaxAnswer(1, 0), 16777216U);
    EXPECT_EQ(DefaultMaxAnswer(1, LONGEST), 16777216U);
}

TEST(PostOptions, TheDefaultOfMaxAnswerForManyHoldsTheDataUpToTheLongest)
{
    EXPECT_EQ(DefaultMaxAnswer(2, 0), EXTRA);
    EXPECT_EQ(DefaultMaxAnswer(2, 2), EXTRA + 2);
    EXPECT_EQ(DefaultMaxAnswer(2, LONGEST - EXTRA), LONGEST);
    EXPECT_EQ(DefaultMaxAnswer(2, LONGEST - EXTRA + 1), LONGEST);
    EXPECT_EQ(DefaultMaxAnswer(2, 2000000000), LONGEST);
    EXPECT_EQ(DefaultMaxAnswer(2, UINT32_MAX), LONGEST);
}

} // namespace
