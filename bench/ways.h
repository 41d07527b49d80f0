/*
 * The ways of sending that are compared, one file for each library. Each posts the same text to the same URL. A way
 * lives as long as its process.
 */
#ifndef BENCH_WAYS_H
#define BENCH_WAYS_H

#include <string>
#include <vector>

#include "bench/load.h"

enum {
    BENCH_WORKERS = 8,
    BENCH_MOST_OUTSTANDING = 1024,
    BENCH_BODY_BYTES = 200,
    BENCH_TIMEOUT_MS = 60000,
    BENCH_HTTP_OK = 200
};

/* What is posted, and to where. */
struct TTarget {
    std::string strUrl;
    bool bTls = false; /* the parts of the URL */
    std::string strHost;
    uint16_t wPort = 0;
    std::string strPath;
    std::string strBody;
    size_t uAnswer = 0; /* bytes of the answer */
};

/* A post of 200 bytes. Throws std::invalid_argument unless the URL is complete. */
TTarget MakeTarget(const std::string &strUrl, size_t uAnswer);

using CWayMaker = TWay (*)(const TTarget &tTarget);

/* Kinds, which are added up. */
enum {
    WAYS_BLOCKING = 1,
    WAYS_ASYNCHRONOUS = 2,
    WAYS_WORKERS = 4, /* libcurl, the model of the worker, and what drives that worker */
    WAYS_TLS = 8      /* also over HTTPS */
};

struct TNamedWay {
    const char *szName;
    uint32_t dwKinds;
    CWayMaker pfMake;
};

/* Those whose library was found by the build. */
extern const std::vector<TNamedWay> g_atWays;

/* libcurl alone: an easy handle for each post; the same with the options of the direct send; one handle for each
 * thread. */
TWay EasyWay(const TTarget &tTarget);
TWay EasyAsDirectWay(const TTarget &tTarget);
TWay ThreadsWay(const TTarget &tTarget);
/* libcurl alone: BENCH_WORKERS threads with a multi handle each. */
TWay MultiWay(const TTarget &tTarget);
/* The steps of the engine's worker on libcurl, and nothing else. */
TWay LoopWay(const TTarget &tTarget);

/* Written by hand for just this server: what the kernel takes. */
TWay SocketWay(const TTarget &tTarget);
TWay SocketLoopWay(const TTarget &tTarget);

/* This project's. */
TWay ModuleSyncWay(const TTarget &tTarget);
TWay ModuleDirectWay(const TTarget &tTarget);
TWay ModuleAsyncWay(const TTarget &tTarget);
TWay EngineWay(const TTarget &tTarget);
/* Over so many instances of so many tasks. */
TWay EngineWayOver(const TTarget &tTarget, uint32_t dwInstances, uint32_t dwTasks);
TWay ClientWay(const TTarget &tTarget);

/* Other libraries. */
TWay CurlppWay(const TTarget &tTarget);
TWay PocoWay(const TTarget &tTarget);
TWay HttplibWay(const TTarget &tTarget);
TWay BeastWay(const TTarget &tTarget);
TWay BeastAsyncWay(const TTarget &tTarget);
TWay SoupWay(const TTarget &tTarget);

#endif
