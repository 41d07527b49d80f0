/*
 * Sends through the send module, with a record of what each reported.
 */
#ifndef TESTS_INTEGRATION_SENDS_H
#define TESTS_INTEGRATION_SENDS_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "integration_fixture.h"
#include "nvrhttpcurl/sendbycurl.h"

namespace test
{

/*
 * A zeroed record with URL, body and answer buffer set and a minute for both time-outs. It
 * points into the texts, hence none may be a temporary.
 */
TSendByCurlParam Param(const std::string &url, const std::string &body, char *answer, uint32_t capacity);
TSendByCurlParam Param(std::string &&url, const std::string &body, char *answer, uint32_t capacity) = delete;
TSendByCurlParam Param(const std::string &url, std::string &&body, char *answer, uint32_t capacity) = delete;
TSendByCurlParam Param(std::string &&url, std::string &&body, char *answer, uint32_t capacity) = delete;

/* A fixture whose cases find the module started. */
template <typename Fixture> class WithSendModule : public Fixture
{
  protected:
    void SetUp() override
    {
        Fixture::SetUp();
        ASSERT_EQ(Qelvo_SyncSendStrByHttp_Init(), SENDBYCURL_OK);
    }
};

/* A record and all that it points to. */
struct Post {
    std::string url;
    std::string body;
    std::string answer; /* '#' where nothing was written, also behind the capacity and a terminator */
    TSendByCurlParam param;

    Post(const std::string &target, const std::string &text, uint32_t capacity = 4096);
    Post(const Post &) = delete;
    Post &operator=(const Post &) = delete;

    ESendByCurlRet SendSync();
    ESendByCurlRet SendDirect();
    /* As much of the answer as dwRecvLen counts. */
    std::string Received() const;
};

/* A synchronous send with all that comes back. */
struct Outcome {
    ESendByCurlRet result;
    uint32_t length;    /* dwRecvLen afterwards */
    std::string answer; /* up to the terminator */
};
Outcome SendAndWait(const std::string &url, const std::string &body, uint32_t capacity = 4096);

/*
 * Asynchronous sends. Each has a buffer of its own and a count of its notifications. It
 * must outlive every send that was accepted.
 */
class Batch
{
  public:
    explicit Batch(size_t count);

    /* Send number index; it may be changed before through the record. */
    ESendByCurlRet Send(size_t index, const TSendByCurlParam &param);
    ESendByCurlRet Send(size_t index, const std::string &url, const std::string &body);
    /* The time-out of the sends from here on. */
    void SetTimeout(uint32_t milliseconds);

    /* Notifications in all. */
    size_t Total() const;
    /* Waits for that many notifications in all. */
    bool WaitFor(size_t total) const;
    uint32_t Notifications(size_t index) const;
    /* Of a send that has been notified. */
    ESendByCurlRet Result(size_t index) const;
    std::string Answer(size_t index) const;

  private:
    struct Entry {
        char answer[512]; /* first: its address is the context */
        std::atomic<uint32_t> notifications;
        ESendByCurlRet result;
        std::atomic<size_t> *total;
    };
    static uint32_t OnEnd(ESendByCurlRet eErrCode, void *pvContext);

    std::vector<Entry> entries;
    std::atomic<size_t> total{0};
    uint32_t timeout = 60000;
};

} // namespace test

#endif
