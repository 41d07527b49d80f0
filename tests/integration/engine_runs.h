/*
 * Engine instances and requests, with a record of what they hold and report.
 */
#ifndef TESTS_INTEGRATION_ENGINE_RUNS_H
#define TESTS_INTEGRATION_ENGINE_RUNS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "nvrhttpcurl/httpcurlclient.h"

namespace test
{

/* Memory callbacks over malloc, and the blocks obtained through them and not released. */
TNvrHttpCurlCltMemCB MemCB();
int64_t BlocksAlive();
/* Instances that were started, the ended ones too. */
size_t Inits();

/* An instance for as long as the object lives, or until Stop. */
class Engine
{
  public:
    explicit Engine(uint32_t tasks, uint32_t limit = NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS);
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    ENvrHttpCurlCltRet Result() const;
    HNvrHttpCurlCltInst Handle() const;
    void Stop();

    /* A POST of the body with the header line "Content-Type:text/plain", or with none. Null on failure. */
    HNvrHttpCurlCltReq MakeRequest(const std::string &url, const std::string &body, bool withHeader = true) const;

  private:
    HNvrHttpCurlCltInst instance = nullptr;
    ENvrHttpCurlCltRet result;
};

/* Whole answer of a request that has ended. */
std::string AnswerOf(HNvrHttpCurlCltReq request);
int32_t StatusOf(HNvrHttpCurlCltReq request);

/*
 * One asynchronous request and its callbacks. It must outlive every submission that was
 * accepted, up to the callback or Uninit.
 */
struct Submission {
    char answer[1024]; /* first: its address is the context */
    HNvrHttpCurlCltReq request;
    std::atomic<uint32_t> callbacks;
    std::atomic<uint32_t> returned; /* callbacks that are over */
    ENvrHttpCurlCltReqProgress progress;
    ENvrHttpCurlCltRet result;
    HNvrHttpCurlCltReq seen;                      /* the request that the last callback named */
    std::function<void(Submission &)> inCallback; /* runs inside each callback */

    ENvrHttpCurlCltRet Submit(uint32_t timeout = 60000);
    bool WaitForCallbacks(uint32_t count) const;
};

uint32_t OnEnd(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet eResult, void *pvUserBuf);

size_t CallbacksOf(const std::vector<Submission> &all);

} // namespace test

#endif
