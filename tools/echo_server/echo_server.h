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
 * more than 64 MiB with 413. Every connection carries one request and has a thread of its own:
 * idle and slow ones hold up nobody.
 */
#ifndef TOOLS_ECHO_SERVER_ECHO_SERVER_H
#define TOOLS_ECHO_SERVER_ECHO_SERVER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

/* What the server can do, for a --help. */
extern const char g_szEchoServerHelp[];

/* A request that has been answered. */
struct TEchoRequest {
    std::string strMethod; /* both empty if it was no HTTP */
    std::string strTarget; /* path and query, as they came */
    size_t uBodyLen;
    int nStatus;
    double dMillis; /* from the end of its header lines to the end of the answer */
};

struct TEchoServerOptions {
    uint16_t wPort = 0; /* 0: any free one */
    bool bTls = false;  /* HTTPS, with a self-signed certificate made at start, for 127.0.0.1 and localhost */
    std::function<void(const TEchoRequest &tRequest)> pfAnswered; /* called by several threads at once; may be empty */
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

    /* With bTls the certificate as PEM, otherwise nothing. */
    std::string Certificate() const;

    /*
     * Stops accepting, ends the delays, and leaves requests under way a moment; then all
     * connections are shut down. Takes less than a second. May be called twice.
     */
    void Stop();

  private:
    struct TImpl;
    std::unique_ptr<TImpl> m_ptImpl;
};

#endif
