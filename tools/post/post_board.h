/*
 * Asynchronous posts under way. Each has a place of the board: a receive buffer, its number and
 * the time of its submission. What the module reports is kept until the board's owner takes it.
 *
 * A worker may write into the buffer of a post, and notify it, at any time until it has been
 * notified once. A board with posts under way is therefore never released.
 */
#ifndef TOOLS_POST_POST_BOARD_H
#define TOOLS_POST_POST_BOARD_H

#include <condition_variable>
#include <cstdint>
#include <vector>

#include "nvrhttpcurl/sendbycurl.h"
#include "tools/post/answer_slab.h"
#include "tools/post/post_tally.h"

struct TBoardPlace {
    uint32_t dwPost; /* number of the post */
    CPostClock::time_point tStart;
};

/* A notification. */
struct TBoardEnd {
    uint32_t dwPlace;
    ESendByCurlRet eRet;
    CPostClock::time_point tWhen;
};

struct TPostBoard {
    TAnswerSlab tSlab; /* a buffer for each place */
    std::vector<TBoardPlace> atPlaces;
    std::vector<uint32_t> adwFree; /* places without a post; the last one is taken first */
    std::condition_variable tNotified;
    std::vector<TBoardEnd> atEnds; /* notified and not taken yet; under a lock that all boards share */
};

/* A board whose places are all free; null without memory for it. */
TPostBoard *BoardCreate(uint32_t dwPlaces, uint32_t dwMaxAnswer);

/* Leaves a board with posts under way as it is. */
void BoardDestroy(TPostBoard *ptBoard);

/*
 * Submits a post from a free place; its receive buffer and its notification are set here. The
 * place stays free unless the result is success.
 */
ESendByCurlRet BoardSubmit(TPostBoard &tBoard, uint32_t dwPost, TSendByCurlParam tParam);

/* Waits for notifications, until tDeadline at most, and takes those that have come. */
std::vector<TBoardEnd> BoardTakeEnds(TPostBoard &tBoard, CPostClock::time_point tDeadline);

/* The place of a post that has been notified is free again, its buffer zeroed. */
void BoardFree(TPostBoard &tBoard, uint32_t dwPlace);

bool BoardIsIdle(const TPostBoard &tBoard);

#endif
