/*
 * Runs one or many posts: through the C++ client, or through the send module in one of its three ways.
 */
#ifndef TOOLS_POST_POST_RUN_H
#define TOOLS_POST_POST_RUN_H

#include <cstdint>
#include <functional>
#include <string>

#include "nvrhttpcurl/sendbycurl.h"
#include "tools/post/post_status.h"
#include "tools/post/post_tally.h"

namespace nvrhttpcurl
{
class Client;
}

enum EPostMode { POST_MODE_CLIENT, POST_MODE_SYNC, POST_MODE_ASYNC, POST_MODE_DIRECT };

enum { POST_MAX_PARALLEL = 1024 };

/* A post that has ended. */
struct TPostEnd {
    uint32_t dwPost; /* 0 is the first one that was started */
    ESendByCurlRet eRet;
    CPostClock::duration tTook;
    const char *pchAnswer; /* after success, until pfEnded returns */
    size_t uAnswerLen;
    int nStatus; /* of HTTP; 0 where no answer came, and in the modes of the send module */
};

struct TPostJob {
    std::string strUrl;
    std::string strBody;
    std::string (*pfBody)(uint32_t dwPost) = nullptr; /* the body of each post in place of strBody */
    std::string strUserAndPassWd; /* empty: none; at most 127 characters; client and synchronous only */
    EPostMode eMode = POST_MODE_SYNC;
    nvrhttpcurl::Client *ptClient = nullptr; /* client only: it has a place for each of dwParallel posts */
    uint32_t eHeadType = SENDBYCURL_METHOD_POST;
    uint32_t dwTimeoutMS = 0;
    uint32_t dwConnTimeOutMS = 0;
    uint32_t dwMaxAnswer = 0;
    uint32_t dwCount = 1;
    uint32_t dwParallel = 1;          /* at most POST_MAX_PARALLEL */
    uint32_t dwDeadlineS = 0;         /* asynchronous only: for the whole run; 0: as long as posts end */
    bool bVerify = false;             /* client and direct only */
    const char *szOverrun = nullptr;  /* last words of the process if an asynchronous answer exceeds dwMaxAnswer */
    std::function<void()> pfAccepted; /* asynchronous only: the module has accepted a post */
    /* Not called for lost posts; in the modes that block, several threads call it at once. */
    std::function<void(const TPostEnd &tEnd)> pfEnded;
};

/*
 * Runs the job and fills the tally, which must be new. With ptStatus its line is shown meanwhile.
 * The module must have been started, or the client made. False if there is no memory for the answers.
 *
 * Asynchronous sends that are lost keep their buffers until the process ends: their workers
 * may still write there.
 */
bool RunPosts(const TPostJob &tJob, TPostTally &tTally, TPostStatus *ptStatus);

#endif
