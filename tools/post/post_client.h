/*
 * Posts through the C++ client.
 */
#ifndef TOOLS_POST_POST_CLIENT_H
#define TOOLS_POST_POST_CLIENT_H

#include <memory>
#include <string>

#include "nvrhttpcurl/client.hpp"
#include "tools/post/post_run.h"

/* A client that has a place for each post that is under way at once. Throws as its constructor does. */
std::unique_ptr<nvrhttpcurl::Client> MakePostClient(const TPostJob &tJob);

/* With http:// in front where it has no scheme, as libcurl takes it; the client refuses one without. */
std::string WithScheme(const std::string &strUrl);

/* Posts by the job's client and waits for the end. */
nvrhttpcurl::Response PostByClient(const TPostJob &tJob, const std::string &strBody);

/* The send module's result that says most about it: a status other than 200 to 299 is SENDBYCURL_HTTP_STATUS. */
ESendByCurlRet ResultOfClient(const nvrhttpcurl::Response &tAnswer);

#endif
