/*
 * What the tests of the direct send share: its lines, its options, a record whose transfer
 * succeeds without a network.
 */
#ifndef TESTS_SUPPORT_DIRECT_FIXTURE_H
#define TESTS_SUPPORT_DIRECT_FIXTURE_H

#include "tests/support/send_fixture.h"

namespace test
{

constexpr char EXT[] = "Qelvo_SyncSendStrByHttp_Ext";
constexpr char RECEIVE[] = "Qelvo_Receive_Data";
constexpr char RECEIVED_NOWHERE[] = " RecvLen:%u  \n";

/* Of a POST with all that is optional. */
inline const Order FULL_ORDER = {
    CURLOPT_HTTPHEADER,     CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_TIMEOUT_MS,    CURLOPT_POSTFIELDS, CURLOPT_URL,
    CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST,    CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA};
inline const Order WRITE_OPTIONS = {CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA};

inline Order FullOrderWithout(const Order &leftOut)
{
    Order order = FULL_ORDER;
    for (const CURLoption option : leftOut) {
        order.erase(std::find(order.begin(), order.end(), option));
    }
    return order;
}

inline Line Overflown(uint32_t capacity, uint32_t position, uint32_t chunk)
{
    return Error(RECEIVE, "[Error] pchRecvBuf overflow! MaxBuf:%u  [%u-%u]\n", capacity, position, chunk);
}

class DirectTest : public RecordTest
{
  protected:
    void SetUp() override
    {
        RecordTest::SetUp();
        AnswerWith({200, {}, CURLE_OK});
    }

    uint32_t Send()
    {
        return Qelvo_SyncSendStrByHttp_Ext(&param);
    }

    /* The first bytes of the buffer, whose capacity is 16 and whose every byte is '#' at first. */
    std::string Buffer(size_t size = sizeof received) const
    {
        return {received, size};
    }
};

} // namespace test

#endif
