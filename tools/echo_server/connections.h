/*
 * The connections of a server in this process.
 */
#ifndef TOOLS_ECHO_SERVER_CONNECTIONS_H
#define TOOLS_ECHO_SERVER_CONNECTIONS_H

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <httplib.h>
#include <list>
#include <mutex>
#include <thread>
#include <utility>

/* Nothing in older versions of cpp-httplib, in newer ones whether the connection is taken. */
using TEnqueued = decltype(std::declval<httplib::TaskQueue &>().enqueue(nullptr));

/*
 * A thread for each connection: one that is idle or slow holds up no other. All are joined: what
 * libcrypto does at the end of a thread must not meet its clean-up at exit.
 */
class CThreadPerConnection : public httplib::TaskQueue
{
  public:
    TEnqueued enqueue(std::function<void()> pfServe) override;

    /* Waits for all connections. */
    void shutdown() override;

  private:
    using TThreads = std::list<std::thread>;

    void Run(const std::function<void()> &pfServe, TThreads::iterator tOwn);
    bool Start(const std::function<void()> &pfServe);
    void JoinEnded();

    std::mutex m_tLock;
    std::condition_variable m_tChanged;
    TThreads m_tRunning;
    TThreads m_tEnded; /* to be joined */
};

/* Shuts down all connections of this process whose own end is this port of 127.0.0.1. */
void ShutDownConnections(uint16_t wPort);

#endif
