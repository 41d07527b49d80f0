/*
 * A real nginx in a folder of its own, on free loopback ports, for as long as the object
 * lives. It needs no privileges and changes nothing outside of that folder.
 *
 *   /echo        200 with the request's body
 *   /auth        the same behind Basic authentication, see user and password
 *   /late        200 with 2 bytes after 0.3 s
 *   /pieces      200 with 11 bytes in three pieces, 0.1 s apart
 *   /files/NAME  what MakeFile made
 *   /status/404  404, likewise 500, with a text
 */
#ifndef TESTS_INTEGRATION_NGINX_SERVER_H
#define TESTS_INTEGRATION_NGINX_SERVER_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "integration_fixture.h"
#include "tests/support/child_process.h"

namespace test
{

class NginxServer
{
  public:
    static constexpr const char *USER = "recorder";
    static constexpr const char *PASSWORD = "open-sesame";

    NginxServer();
    ~NginxServer();
    NginxServer(const NginxServer &) = delete;
    NginxServer &operator=(const NginxServer &) = delete;

    /* Why it is not running; empty if it is. */
    const std::string &Problem() const;

    /* The plain port, addressed with whatever scheme. */
    std::string Http(const std::string &path, const std::string &scheme = "http") const;
    /* The TLS port, whose certificate nobody has signed but its own key. */
    std::string Https(const std::string &path, const std::string &scheme = "https") const;

    /* The TLS port that offers HTTP/2. */
    std::string Http2(const std::string &path) const;
    /* The certificate of both TLS ports, for 127.0.0.1 and https.localhost. */
    std::string CertificatePath() const;
    /* Makes the file behind /files/NAME. */
    void MakeFile(const std::string &name, size_t length) const;
    /* 1 TB of zeros that take no space: an answer without end. */
    bool MakeHugeFile(const std::string &name) const;

    /* Requests that it has answered, and so those that got past a handshake. */
    size_t RequestCount() const;
    /* Scheme, path and query of the last of them. */
    std::string LastRequest() const;
    bool WaitForRequests(size_t count) const;

  private:
    bool MakeCertificate();
    void WriteConfiguration(const std::string &modulesFolder) const;
    void Launch(const std::vector<int> &sockets);

    const TemporaryFolder folder;
    std::string problem;
    std::optional<ChildProcess> process;
    uint16_t plainPort = 0;
    uint16_t tlsPort = 0;
    uint16_t http2Port = 0;
};

/* Base of the cases that need one. */
class NginxTest : public IntegrationTest
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(nginx.Problem(), "");
    }

    const NginxServer nginx;
};

} // namespace test

#endif
