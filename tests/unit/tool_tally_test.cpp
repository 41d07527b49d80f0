/*
 * Counts of a run of posts, and the status lines made of them.
 */
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/support/wait.h"
#include "tools/common/whole_file.h"
#include "tools/post/post_status.h"
#include "tools/post/post_tally.h"

namespace
{

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;

/* A tally of which so many posts are started. */
class Tally : public testing::Test
{
  protected:
    void Begin(uint32_t total, uint32_t started)
    {
        TallyBegin(tally, total);
        uint32_t post = 0;
        while (started-- > 0) {
            EXPECT_TRUE(TallyStart(tally, post));
        }
    }

    void End(uint32_t count)
    {
        while (count-- > 0) {
            TallyEnd(tally, SENDBYCURL_OK, milliseconds(1), 0);
        }
    }

    TPostTally tally;
};

std::string Line(const TPostCounts &counts, double)
{
    return std::to_string(EndedOf(counts)) + " of " + std::to_string(counts.dwTotal);
}

/* Status lines into a file. */
class Status : public Tally
{
  protected:
    Status() : file(tmpfile())
    {
        status.ptFile = file;
        status.tInterval = hours(1);
        status.pfLine = Line;
    }

    ~Status() override
    {
        fclose(file);
    }

    /* Through a descriptor of its own: the writer keeps its place in the file. */
    std::string Shown()
    {
        std::string text;
        const int reader = open(("/proc/self/fd/" + std::to_string(fileno(file))).c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_TRUE(ReadAll(reader, SIZE_MAX, text));
        close(reader);
        return text;
    }

    /* Waits until these lines are there, and perhaps more. */
    void AwaitShown(const std::string &text)
    {
        EXPECT_TRUE(test::WaitUntil([&] { return Shown().rfind(text, 0) == 0; })) << Shown();
    }

    FILE *file;
    TPostStatus status;
};

} // namespace

TEST_F(Tally, PostsAreStartedInOrderUpToTheTotal)
{
    TallyBegin(tally, 2);
    uint32_t post = 99;
    EXPECT_TRUE(TallyStart(tally, post));
    EXPECT_EQ(post, 0U);
    EXPECT_TRUE(TallyStart(tally, post));
    EXPECT_EQ(post, 1U);
    EXPECT_FALSE(TallyStart(tally, post));
    EXPECT_EQ(TallyCounts(tally).dwStarted, 2U);
    EXPECT_EQ(TallyCounts(tally).dwTotal, 2U);
}

TEST_F(Tally, NumberOfAnUnstartedPostComesAgain)
{
    Begin(2, 1);
    uint32_t post = 0;
    EXPECT_TRUE(TallyStart(tally, post));
    TallyUnstart(tally);
    EXPECT_EQ(TallyCounts(tally).dwStarted, 1U);
    EXPECT_EQ(tally.eFirstFailure, ESendByCurlRet{SENDBYCURL_NO_SLOT});
    EXPECT_TRUE(TallyStart(tally, post));
    EXPECT_EQ(post, 1U);
}

TEST_F(Tally, SuccessesBringTheirTimes)
{
    Begin(3, 3);
    TallyEnd(tally, SENDBYCURL_OK, microseconds(1500), 0);
    TallyEnd(tally, SENDBYCURL_TIMED_OUT, microseconds(7000), 0);
    TallyEnd(tally, SENDBYCURL_OK, microseconds(250), 0);
    EXPECT_EQ(TallyCounts(tally).dwOk, 2U);
    EXPECT_EQ(TallyCounts(tally).dwFailed, 1U);
    EXPECT_EQ(tally.adMillis, (std::vector<double>{1.5, 0.25}));
}

TEST_F(Tally, FailuresAreCountedByResultAndTheFirstIsKept)
{
    Begin(4, 4);
    TallyEnd(tally, SENDBYCURL_HTTP_STATUS, milliseconds(1), 0);
    TallyEnd(tally, SENDBYCURL_CONNECT_FAILED, milliseconds(1), 0);
    TallyEnd(tally, SENDBYCURL_CONNECT_FAILED, milliseconds(1), 0);
    End(1);
    EXPECT_EQ(tally.adwFailures[SENDBYCURL_HTTP_STATUS], 1U);
    EXPECT_EQ(tally.adwFailures[SENDBYCURL_CONNECT_FAILED], 2U);
    EXPECT_EQ(tally.adwFailures[SENDBYCURL_OK], 0U);
    EXPECT_EQ(tally.eFirstFailure, ESendByCurlRet{SENDBYCURL_HTTP_STATUS});
    EXPECT_EQ(TallyCounts(tally).dwFailed, 3U);
}

TEST_F(Tally, AnswersAreCountedByStatusWhereItIsKnown)
{
    Begin(4, 4);
    TallyEnd(tally, SENDBYCURL_OK, milliseconds(1), 200);
    TallyEnd(tally, SENDBYCURL_HTTP_STATUS, milliseconds(1), 404);
    TallyEnd(tally, SENDBYCURL_OK, milliseconds(1), 200);
    TallyEnd(tally, SENDBYCURL_TIMED_OUT, milliseconds(1), 0);
    EXPECT_EQ(tally.tStatuses, (std::map<int, uint32_t>{{200, 2}, {404, 1}}));
}

TEST_F(Tally, RefusedPostsAreAmongTheFailed)
{
    Begin(2, 2);
    TallyRefuse(tally, SENDBYCURL_INVALID_PARAM);
    TallyEnd(tally, SENDBYCURL_TIMED_OUT, milliseconds(1), 0);
    EXPECT_EQ(TallyCounts(tally).dwFailed, 2U);
    EXPECT_EQ(TallyCounts(tally).dwRefused, 1U);
    EXPECT_EQ(tally.adwFailures[SENDBYCURL_INVALID_PARAM], 1U);
    EXPECT_EQ(tally.eFirstFailure, ESendByCurlRet{SENDBYCURL_INVALID_PARAM});
}

TEST_F(Tally, RestOfTheStartedIsLost)
{
    Begin(5, 4);
    End(1);
    TallyLoseRest(tally);
    EXPECT_EQ(TallyCounts(tally).dwLost, 3U);
    EXPECT_EQ(EndedOf(TallyCounts(tally)), 4U);
    EXPECT_EQ(tally.eFirstFailure, ESendByCurlRet{SENDBYCURL_TIMED_OUT});
}

TEST_F(Tally, WaitEndsWithItsTimeOrThePostAwaitedAlsoARefusedOne)
{
    Begin(3, 3);
    EXPECT_TRUE(TallyAwait(tally, 3, milliseconds(1)));
    End(1);
    std::thread poster([this] { End(1); });
    EXPECT_TRUE(TallyAwait(tally, 2, hours(1)));
    poster.join();
    EXPECT_EQ(EndedOf(TallyCounts(tally)), 2U);
    std::thread refused([this] { TallyRefuse(tally, SENDBYCURL_INVALID_PARAM); });
    EXPECT_TRUE(TallyAwait(tally, 3, hours(1)));
    refused.join();
}

TEST_F(Tally, WaitEndsWithTheRun)
{
    Begin(3, 3);
    std::thread poster([this] { TallyOver(tally); });
    EXPECT_FALSE(TallyAwait(tally, 3, hours(1)));
    poster.join();
}

TEST(Spans, InSecondsAndMilliseconds)
{
    EXPECT_EQ(Seconds(milliseconds(250)), 0.25);
    EXPECT_EQ(Millis(microseconds(1500)), 1.5);
}

TEST_F(Status, PlainLinesComeByStep)
{
    status.dwStep = 2;
    Begin(5, 5);
    std::thread shower([this] { ShowStatus(status, tally); });
    End(2);
    AwaitShown("2 of 5\n");
    End(2);
    AwaitShown("2 of 5\n4 of 5\n");
    End(1);
    TallyOver(tally);
    shower.join();
    EXPECT_EQ(Shown(), "2 of 5\n4 of 5\n");
}

TEST_F(Status, OnlyTheLastStepIsShownOnceTheRunIsOver)
{
    Begin(2, 2);
    End(2);
    TallyOver(tally);
    ShowStatus(status, tally);
    EXPECT_EQ(Shown(), "") << "without steps";
    status.dwStep = 2;
    ShowStatus(status, tally);
    EXPECT_EQ(Shown(), "2 of 2\n");
}

TEST_F(Status, PlainLinesComeByTime)
{
    status.tInterval = milliseconds(1);
    Begin(2, 2);
    End(1);
    std::thread shower([this] { ShowStatus(status, tally); });
    AwaitShown("1 of 2\n1 of 2\n");
    TallyOver(tally);
    shower.join();
}

TEST_F(Status, TerminalKeepsTheLastLineOfSteps)
{
    status.bTerminal = true;
    status.dwStep = 1;
    Begin(2, 2);
    End(2);
    TallyOver(tally);
    ShowStatus(status, tally);
    EXPECT_EQ(Shown(), "\r\033[K2 of 2");
    EXPECT_TRUE(status.bShown);
}

TEST_F(Status, ErasedOnceIfShown)
{
    EraseStatus(status);
    EXPECT_EQ(Shown(), "");
    status.bShown = true;
    EraseStatus(status);
    EraseStatus(status);
    EXPECT_EQ(Shown(), "\r\033[K");
    EXPECT_FALSE(status.bShown);
}
