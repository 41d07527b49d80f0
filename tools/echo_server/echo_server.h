/*
 * An HTTP server on 127.0.0.1 that sends back what it is given: for the demo, for tests and
 * for trying things.
 *
 *   POST       the body, byte for byte, as application/json
 *   GET, PUT   a JSON object: "method", "target", "headers" (a list of "Name: value") and
 *              "body", as text
 *
 * These paths, with any of the three methods, do something more:
 *
 *   /status/NNN  the same answer with HTTP status NNN, 200 to 599
 *   /delay/MS    the same answer MS milliseconds later, at most 60000
 *   /size/N      a JSON text of exactly N bytes instead, at most 16777216 (16 MiB)
 *
 * A number out of range is answered with status 400, a multipart form with 415, a body of
 * more than 64 MiB with 413. Every connection carries one request. 64 requests are answered
 * at a time, further ones wait.
 */
#ifndef TOOLS_ECHO_SERVER_ECHO_SERVER_H
#define TOOLS_ECHO_SERVER_ECHO_SERVER_H

#include <cstdint>
#include <memory>
#include <string>

/* What the server can do, for a --help. */
extern const char g_szEchoServerHelp[];

struct TEchoServerOptions {
    uint16_t wPort = 0; /* 0: any free one */
    bool bTls = false;  /* HTTPS, with a self-signed certificate made at start, for 127.0.0.1 and localhost */
};

class CEchoServer
{
  public:
    /* Accepts connections from here on. Throws std::runtime_error with the reason where it cannot. */
    explicit CEchoServer(const TEchoServerOptions &tOptions);
    ~CEchoServer();
    CEchoServer(const CEchoServer &) = delete;
    CEchoServer &operator=(const CEchoServer &) = delete;

    /* With a slash at the end. */
    std::string Url() const;

    /* Stops accepting, ends the delays, and waits for requests under way. May be called twice. */
    void Stop();

  private:
    struct TImpl;
    std::unique_ptr<TImpl> m_ptImpl;
};

#endif
