/*
 * Posts of the demo: each with its text, its receive buffer and what became of it.
 *
 * A worker may write into the buffer of a post, and notify it, at any time until it has been
 * notified once. Posts are therefore never released: they live as long as the process.
 */
#ifndef TOOLS_POST_POST_BOARD_H
#define TOOLS_POST_POST_BOARD_H

#include <chrono>
#include <cstdint>
#include <string>

#include "nvrhttpcurl/sendbycurl.h"

using CBoardClock = std::chrono::steady_clock;

struct TPost {
    std::string strUrl;
    std::string strSent;
    char *pchAnswer = nullptr; /* zeroed; read it only of a post that is finished */
    uint32_t dwCapacity = 0;
    bool bAccepted = false; /* a notification is to come, or has come */
    bool bFinished = false;
    ESendByCurlRet eResult = SENDBYCURL_OK;
    double dMillis = 0; /* from its sending to its end */
    CBoardClock::time_point tStart;
};

/* How the posts submitted so far stand. */
struct TBoardCount {
    uint32_t dwAccepted;
    uint32_t dwNotified;
};

/* A post that is not sent yet. Throws std::bad_alloc. */
TPost *NewPost(const std::string &strUrl, const std::string &strText, uint32_t dwCapacity);

/* Posts it and waits for the answer; it is finished then. */
void SendSync(TPost &tPost);

/* Posts it and returns at once. If it was refused, it is finished, and not accepted. */
void SendAsync(TPost &tPost);

/* Accepted and notified, of all posts. */
TBoardCount CountPosts();

/* Waits until no more than dwMost accepted posts are not notified yet; false at the deadline. */
bool WaitUntilOutstanding(uint32_t dwMost, CBoardClock::time_point tDeadline);

/* What became of it. A post that is not finished stays the worker's. */
bool IsFinished(const TPost &tPost);

/* Finished with success, the answer being what was sent. */
bool IsEchoed(const TPost &tPost);

#endif
