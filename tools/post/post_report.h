/*
 * What "nvrhttp post" writes: the answers to a descriptor of their own, everything else to
 * standard error.
 */
#ifndef TOOLS_POST_POST_REPORT_H
#define TOOLS_POST_POST_REPORT_H

#include "nvrhttpcurl/sendbycurl.h"
#include "tools/post/post_run.h"

struct TPostReport {
    int nAnswerFd = -1;
    bool bMany = false; /* of many answers, each ends its line */
    bool bAnswersOnTerminal = false;
    const char *(*pfResultText)(ESendByCurlRet) = nullptr;
    TPostStatus tStatus;       /* its lock keeps answers and status lines apart; guards what follows, too */
    bool bWriteFailed = false; /* an answer is lost */
};

/* For a run of tJob, before it begins. */
void ReportBegin(TPostReport &tReport, const TPostJob &tJob, int nAnswerFd);

/* Writes an answer as it came; nothing after a failure. From any thread. */
void ReportAnswer(TPostReport &tReport, const TPostEnd &tEnd);

/* The outcome of a run that is over: a line for one post, a summary of many. */
void ReportOutcome(TPostReport &tReport, const TPostTally &tTally);

/* The exit status: 0 only if every post succeeded and every answer could be written. */
int ReportStatus(const TPostReport &tReport, const TPostTally &tTally);

#endif
