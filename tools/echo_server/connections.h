/*
 * The connections of a server in this process.
 */
#ifndef TOOLS_ECHO_SERVER_CONNECTIONS_H
#define TOOLS_ECHO_SERVER_CONNECTIONS_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <httplib.h>
#include <mutex>
#include <utility>

/* Nothing in older versions of cpp-httplib, in newer ones whether the connection is taken. */
using TEnqueued = decltype(std::declval<httplib::TaskQueue &>().enqueue(nullptr));

/* A thread for each connection: one that is idle or slow holds up no other. */
class CThreadPerConnection : public httplib::TaskQueue
{
  public:
    TEnqueued enqueue(std::function<void()> pfServe) override;

    /* Waits for all connections. */
    void shutdown() override;

  private:
    void Run(const std::function<void()> &pfServe);

    std::mutex m_tLock;
    std::condition_variable m_tEnded;
    unsigned m_dwRunning = 0;
};

/* Shuts down all connections of this process whose own end is this port of 127.0.0.1. */
void ShutDownConnections(uint16_t wPort);

#endif
