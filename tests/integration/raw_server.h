/*
 * A server on a loopback port that plays a script, well-behaved or not, and keeps what it
 * was sent. One thread serves all connections; every connection has its own place in the
 * script.
 */
#ifndef TESTS_INTEGRATION_RAW_SERVER_H
#define TESTS_INTEGRATION_RAW_SERVER_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common.h"

namespace raw
{

/* A complete HTTP request as it came. */
struct Request {
    std::string head; /* request line and headers, without the empty line */
    std::string body; /* chunks joined */
    bool chunked;

    /* The request line alone. */
    std::string Line() const;
    /* Whether one of the header lines is exactly this. */
    bool HasLine(const std::string &line) const;
    /* Whether a header of this name is there, in any case of letters. */
    bool HasHeader(const std::string &name) const;
};

/* What starts the script. */
enum class When {
    Connected, /* the connection, once */
    FirstByte, /* the first bytes, HTTP or not, once */
    Headers,   /* the headers of each request */
    Request    /* each complete request */
};

struct Step {
    enum class Kind { Send, Echo, Pause, Hold, Await, Close, Reset };
    Kind kind;
    std::string bytes;
    std::chrono::milliseconds time{0};
};

Step Send(const std::string &bytes);
/* 200 with the request's own body. */
Step Echo();
Step Pause(std::chrono::milliseconds time);
/* Waits for Server::Release. */
Step Hold();
/* Waits until the request is complete. */
Step Await();
/* Closes in the ordinary way, or with a reset. */
Step Close();
Step Reset();

/* Status line, Content-Length, empty line, body. */
std::string Reply(int status, const std::string &body);

struct Script {
    When when;
    std::vector<Step> steps;
};

/* Answers each request with its own body. */
Script Echoing();
/* Reads everything and says nothing. */
Script Silent();
/* As Echoing, but only after Server::Release. */
Script EchoingOnRelease();

class Server
{
  public:
    explicit Server(const Script &script);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    std::string Url(const std::string &path = "/", const std::string &scheme = "http") const;

    /* Lets everyone pass who stands at a Hold, now and later. */
    void Release();

    size_t Connections() const;
    /* Connections that neither side has closed. */
    size_t OpenConnections() const;
    std::vector<Request> Requests() const;
    size_t RequestCount() const;
    /* All bytes of a connection, counted from 0 in the order of their coming. */
    std::string Received(size_t connection) const;
    size_t ReceivedLength(size_t connection) const;

    /* Waits for that many complete requests, or headers. */
    bool WaitForRequests(size_t count) const;
    bool WaitForHeads(size_t count) const;

  private:
    struct State;
    std::unique_ptr<State> state;
};

} // namespace raw

#endif
