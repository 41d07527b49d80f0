/*
 * The live line of a run: rewritten in place on a terminal, a few plain lines elsewhere.
 */
#ifndef TOOLS_POST_POST_STATUS_H
#define TOOLS_POST_POST_STATUS_H

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "tools/post/post_tally.h"

struct TPostStatus {
    FILE *ptFile = nullptr; /* where it is shown */
    bool bTerminal = false;
    CPostClock::duration tInterval = {}; /* from one line to the next */
    /*
     * Not 0: not on a terminal, a line comes each time that so many more posts have ended; on one,
     * the last line shows the end of the run.
     */
    uint32_t dwStep = 0;
    /* The line for these counts; dRate is posts a second since the line before. */
    std::string (*pfLine)(const TPostCounts &tCounts, double dRate) = nullptr;

    std::mutex tLock;    /* held by each writer to the same terminal; guards what follows */
    bool bShown = false; /* the line is on the terminal */
};

/* Shows the line again and again until TallyOver; for a thread of its own. */
void ShowStatus(TPostStatus &tStatus, TPostTally &tTally);

/* Removes the line from a terminal, with tLock held. */
void EraseStatus(TPostStatus &tStatus);

#endif
