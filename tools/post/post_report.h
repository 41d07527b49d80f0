/*
 * What "nvrhttp post" writes: the answers to a descriptor of their own, everything else to
 * standard error.
 */
#ifndef TOOLS_POST_POST_REPORT_H
#define TOOLS_POST_POST_REPORT_H

#include "nvrhttpcurl/sendbycurl.h"
#include "tools/post/post_run.h"
#include "tools/post/send_log.h"

struct TPostReport {
    int nAnswerFd = -1;
    bool bMany = false; /* of many answers, each ends its line */
    bool bAnswersOnTerminal = false;
    EPostMode eMode = POST_MODE_SYNC;
    TSendLog *ptLog = nullptr;
    TPostStatus tStatus; /* its lock keeps answers and status lines apart */
};

/* For a run of tJob, before it begins. */
void ReportBegin(TPostReport &tReport, const TPostJob &tJob, int nAnswerFd, TSendLog &tLog);

/* Writes the answer of a post that succeeded, as it came; false, with errno set, if that fails. From any thread. */
bool ReportAnswer(TPostReport &tReport, const TPostEnd &tEnd);

/* The outcome of a run that is over, as its log is: a line for one post, a summary of many. */
void ReportOutcome(TPostReport &tReport, const TPostTally &tTally);

/*
 * Ends the process at once: why, the summary so far, exit status. Nothing can recall the posts in
 * flight. From any thread.
 */
[[noreturn]] void ReportCutShort(TPostReport &tReport, TPostTally &tTally, const std::string &strWhy, int nStatus);

#endif
