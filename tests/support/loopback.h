/*
 * Ports of 127.0.0.1, or ::1: a free one, one that refuses, one that stays silent.
 */
#ifndef TESTS_SUPPORT_LOOPBACK_H
#define TESTS_SUPPORT_LOOPBACK_H

#include <cstdint>
#include <string>
#include <vector>

namespace test
{

/* Opens a TCP socket on a loopback port that was free; -1 with errno set. */
int BindLoopback(uint16_t *port);

std::string LoopbackUrl(uint16_t port, const std::string &path = "/", const std::string &scheme = "http");

/* A port that refuses every connection and that nobody else can take meanwhile. */
class ClosedPort
{
  public:
    ClosedPort();
    ~ClosedPort();
    ClosedPort(const ClosedPort &) = delete;
    ClosedPort &operator=(const ClosedPort &) = delete;
    std::string Url(const std::string &path = "/", const std::string &scheme = "http") const;

  private:
    uint16_t port = 0; /* before fd, whose making sets it */
    int fd;
};

/* A port that leaves every attempt to connect without an answer: its backlog is full. */
class SilentAddress
{
  public:
    SilentAddress();
    /* This port of ::1. IsSilent is false where the machine has no such address. */
    explicit SilentAddress(uint16_t ipv6Port);
    ~SilentAddress();
    SilentAddress(const SilentAddress &) = delete;
    SilentAddress &operator=(const SilentAddress &) = delete;
    std::string Url() const; /* of 127.0.0.1 */
    bool IsSilent() const;

  private:
    void FillBacklog();

    uint16_t port = 0; /* before fd, whose making sets it */
    int fd;
    bool isSilent = false;
    std::vector<int> fillers;
};

} // namespace test

#endif
