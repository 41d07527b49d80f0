/*
 * The stages of the demo. Each prints what it does and what became of its posts.
 */
#ifndef TOOLS_DEMO_DEMO_STAGES_H
#define TOOLS_DEMO_DEMO_STAGES_H

#include <cstdint>
#include <string>

#include "nvrhttpcurl/sendbycurl.h"

struct TDemoServer {
    std::string strUrl;
    bool bOwn = false; /* the demo's own: it answers each post with what was sent */
};

/* One post; its client lives as long as the call. False unless it succeeded. */
bool ShowClient(const TDemoServer &tServer, const std::string &strJson);

/* One post each. False unless it succeeded; bTooLong: its answer exceeds 1 MiB. */
bool ShowSync(const TDemoServer &tServer, const std::string &strJson, bool &bTooLong);
bool ShowAsync(const TDemoServer &tServer, const std::string &strJson);

/* Many posts to the demo's own server. False unless each was answered with what was sent. */
bool ShowBatch(const TDemoServer &tServer, uint32_t dwCount, uint32_t dwDeadlineS);

/* The console's listings while a few posts to the demo's own server are under way; as above. */
bool ShowListings(const TDemoServer &tServer);

#endif
