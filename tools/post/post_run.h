/*
 * Runs one or many posts through the send module.
 */
#ifndef TOOLS_POST_POST_RUN_H
#define TOOLS_POST_POST_RUN_H

#include <cstdint>
#include <string>

#include "nvrhttpcurl/sendbycurl.h"

enum class EPostMode { Sync, Async, Direct };

enum { POST_MAX_PARALLEL = 1024 };

struct TPostJob {
    std::string strUrl;
    std::string strBody;
    std::string strUserAndPassWd; /* empty: none; at most 127 characters; synchronous only */
    EPostMode eMode = EPostMode::Sync;
    uint32_t eHeadType = SENDBYCURL_METHOD_POST;
    uint32_t dwTimeoutMS = 0;
    uint32_t dwConnTimeOutMS = 0;
    uint32_t dwMaxAnswer = 0;
    uint32_t dwCount = 1;
    uint32_t dwParallel = 1; /* at most POST_MAX_PARALLEL */
    bool bVerify = false;    /* direct only */
    bool bQuiet = false;     /* answers are not written */
};

/*
 * Writes the answers to nAnswerFd, everything else to standard error. The module must have
 * been started. Returns the exit status: 0, or the module's result of the first failure.
 *
 * Asynchronous sends that are lost keep their buffers until the process ends: their workers
 * may still write there.
 */
int RunPosts(const TPostJob &tJob, int nAnswerFd);

#endif
