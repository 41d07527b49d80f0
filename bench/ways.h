/*
 * The ways of sending that are compared. Each posts the same text to the same URL.
 */
#ifndef BENCH_WAYS_H
#define BENCH_WAYS_H

#include <memory>
#include <string>

#include "bench/load.h"
#include "nvrhttpcurl/client.hpp"
#include "nvrhttpcurl/httpcurlclient.h"

enum { BENCH_WORKERS = 2, BENCH_MOST_OUTSTANDING = 256 };

/* BENCH_WORKERS engine instances with one task each. */
struct TEngines {
    HNvrHttpCurlCltInst ahInstances[BENCH_WORKERS] = {};
};

/* What is outstanding when their last owner goes is never reported. Throws std::runtime_error. */
std::shared_ptr<TEngines> StartEngines();

/* A client of BENCH_WORKERS workers. */
std::shared_ptr<nvrhttpcurl::Client> StartClient();

TWay ClientWay(const std::string &strUrl, const std::shared_ptr<nvrhttpcurl::Client> &ptClient);
TWay EngineWay(const std::string &strUrl, const std::shared_ptr<TEngines> &ptEngines);

/* Starts the send module, for the rest of the process. Throws std::runtime_error. */
TWay ModuleWay(const std::string &strUrl);

/* A thread for each of the outstanding posts, over an easy handle of its own. */
TWay ThreadsWay(const std::string &strUrl);

#endif
