/*
 * A server on a loopback port that plays a script, well-behaved or not, and keeps what it
 * was sent. One thread serves all connections; every connection has its own place in the
 * script.
 */
#ifndef TESTS_SUPPORT_SCRIPTED_SERVER_H
#define TESTS_SUPPORT_SCRIPTED_SERVER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace test
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
    CONNECTED,  /* the connection, once */
    FIRST_BYTE, /* the first bytes, HTTP or not, once */
    HEADERS,    /* the headers of each request */
    REQUEST     /* each complete request */
};

using Answerer = std::function<std::string(const Request &)>;

struct Step {
    enum class Kind { SEND, PAUSE, HOLD, AWAIT, CLOSE, RESET };
    Kind kind;
    Answerer answerer{};
    std::chrono::milliseconds time{0};
};

/* Waits for ScriptedServer::Release. */
inline const Step HOLD{Step::Kind::HOLD};
/* Waits until the request is complete. */
inline const Step AWAIT{Step::Kind::AWAIT};
/* Closes in the ordinary way, or with a reset. */
inline const Step CLOSE{Step::Kind::CLOSE};
inline const Step RESET{Step::Kind::RESET};
Step Pause(std::chrono::milliseconds time);
Step Send(const std::string &bytes);
/* Sends what the function makes of the request; it runs in the server's thread. */
Step Answer(const Answerer &answerer);
/* 200 with the request's own body. */
Step Echo();

/* Status line, Content-Length, more header lines, each with its line end, empty line, body. */
std::string Reply(int status, const std::string &body, const std::string &headers = "");

struct Script {
    When when;
    std::vector<Step> steps;
};

/* Answers each request with this. */
Script Answering(const std::string &body, int status = 200);
/* Answers each request with its own body. */
inline const Script ECHOING{When::REQUEST, {Echo()}};
/* As ECHOING, but only after ScriptedServer::Release. */
inline const Script ECHOING_ON_RELEASE{When::REQUEST, {HOLD, Echo()}};
/* Reads everything and says nothing. */
inline const Script SILENT{When::REQUEST, {}};
/* Announces 100 bytes and closes after "part". */
inline const Script CUTTING_OFF{When::REQUEST, {Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npart"), CLOSE}};

class ScriptedServer
{
  public:
    explicit ScriptedServer(const Script &script);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer &) = delete;
    ScriptedServer &operator=(const ScriptedServer &) = delete;

    std::string Url(const std::string &path = "/", const std::string &scheme = "http") const;

    /* Lets every connection pass its Hold, now and later. */
    void Release();

    /* Connections that neither side has closed. */
    size_t OpenConnections() const;
    std::vector<Request> Requests() const;
    size_t RequestCount() const;
    /* All bytes of a connection, counted from 0 in the order of their coming. */
    std::string Received(size_t connection) const;

    /* Waits for that many complete requests, or headers. */
    bool WaitForRequests(size_t count) const;
    bool WaitForHeads(size_t count) const;

  private:
    struct State;
    std::unique_ptr<State> state;
};

} // namespace test

#endif
