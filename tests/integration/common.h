/*
 * What the integration tests share: a clean environment, waiting, awkward addresses and a
 * look at what the process holds.
 */
#ifndef TESTS_INTEGRATION_COMMON_H
#define TESTS_INTEGRATION_COMMON_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace common
{

/* How long a test waits for what has to come. It only costs time where something is lost. */
constexpr std::chrono::seconds patience{60};

/* Polls until the condition holds; false after the limit. */
bool WaitUntil(const std::function<bool()> &condition, std::chrono::milliseconds limit = patience);

/*
 * The base of every case: no proxy settings, standard input at its end, a log folder of its
 * own.
 */
class IntegrationTest : public testing::Test
{
  protected:
    IntegrationTest();
    ~IntegrationTest() override;

  private:
    std::string logFolder;
};

/* A fresh folder below the temporary one; RemoveFolder removes it with all it holds. */
std::string MakeFolder();
void RemoveFolder(const std::string &folder);
std::string ReadWholeFile(const std::string &path);

/* Standard input reads from this text from now on. */
void FeedStandardInput(const std::string &text);

/* Runs the action and returns what it and libcurl wrote to standard output. */
std::string StandardOutputOf(const std::function<void()> &action);

/* Opens a TCP socket on a loopback port that was free; -1 with errno set. */
int BindLoopback(uint16_t *port);

/* A loopback port that refuses every connection and that nobody else can take meanwhile. */
class ClosedPort
{
  public:
    ClosedPort();
    ~ClosedPort();
    ClosedPort(const ClosedPort &) = delete;
    ClosedPort &operator=(const ClosedPort &) = delete;
    std::string Url(const std::string &scheme = "http") const;

  private:
    uint16_t port = 0; /* before fd, whose making sets it */
    int fd;
};

/* A loopback port that leaves every attempt to connect without an answer: its backlog is full. */
class SilentAddress
{
  public:
    SilentAddress();
    ~SilentAddress();
    SilentAddress(const SilentAddress &) = delete;
    SilentAddress &operator=(const SilentAddress &) = delete;
    /* Whether the backlog could be filled. */
    bool IsSilent() const;
    std::string Url() const;

  private:
    uint16_t port = 0; /* before fd, whose making sets it */
    int fd;
    bool silent = false;
    std::vector<int> fillers;
};

/* Allows at least so many descriptors; false if the system does not. */
bool AllowDescriptors(size_t count);

size_t OpenDescriptors();
size_t RunningThreads();

/* A text of exactly this many bytes that differs from place to place. */
std::string Text(size_t length);

} // namespace common

#endif
