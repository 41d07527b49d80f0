/*
 * What unit tests need of the process and of the loopback device: proxy variables, open
 * descriptors, a small server of the test's own, a port that refuses.
 */
#ifndef TESTS_SUPPORT_REQUEST_FIXTURE_H
#define TESTS_SUPPORT_REQUEST_FIXTURE_H

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace test
{

/* --- the process --------------------------------------------------------------------------- */

inline void ClearProxies()
{
    for (const char *name :
         {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"}) {
        unsetenv(name);
    }
}

inline std::set<int> OpenDescriptors()
{
    std::set<int> open;
    DIR *dir = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(dir)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(dir)) {
            open.insert(fd);
        }
    }
    closedir(dir);
    return open;
}

inline bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

/* --- a server ---------------------------------------------------------------------------------- */

/* Answers every request on 127.0.0.1 with the same bytes and closes; an empty reply is silence. */
class LoopbackServer
{
  public:
    explicit LoopbackServer(std::string answer) : reply(std::move(answer)), stop(eventfd(0, 0))
    {
        listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(listener, 16) != 0 ||
            getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            ADD_FAILURE() << "no loopback port";
        }
        port = ntohs(address.sin_port);
        thread = std::thread([this] { Run(); });
    }

    ~LoopbackServer()
    {
        const uint64_t one = 1;
        EXPECT_EQ(write(stop, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
        thread.join();
        for (const int fd : silent) {
            close(fd);
        }
        close(listener);
        close(stop);
    }

    LoopbackServer(const LoopbackServer &) = delete;
    LoopbackServer &operator=(const LoopbackServer &) = delete;

    std::string Url(const std::string &path = "/") const
    {
        return "http://127.0.0.1:" + std::to_string(port) + path;
    }

    std::vector<std::string> Requests()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return requests;
    }

  private:
    /* Whether there is something to read, false when the server is to stop. */
    bool Readable(int fd) const
    {
        pollfd fds[2] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
        return poll(fds, 2, -1) > 0 && fds[1].revents == 0;
    }

    static bool IsWhole(const std::string &request)
    {
        const size_t end = request.find("\r\n\r\n");
        if (end == std::string::npos) {
            return false;
        }
        if (request.find("Transfer-Encoding: chunked") < end) {
            return request.find("\r\n0\r\n\r\n", end) != std::string::npos;
        }
        const size_t field = request.find("Content-Length: ");
        const size_t size = field < end ? std::strtoul(request.c_str() + field + 16, nullptr, 10) : 0;
        return request.size() >= end + 4 + size;
    }

    void Serve(int fd)
    {
        std::string request;
        char chunk[4096];
        while (!IsWhole(request) && Readable(fd)) {
            const ssize_t count = recv(fd, chunk, sizeof(chunk), 0);
            if (count <= 0) {
                break;
            }
            request.append(chunk, static_cast<size_t>(count));
        }
        {
            const std::lock_guard<std::mutex> lock(mutex);
            requests.push_back(request);
        }
        if (reply.empty()) {
            silent.push_back(fd);
            return;
        }
        send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        while (Readable(fd) && recv(fd, chunk, sizeof(chunk), 0) > 0) {
        }
        close(fd);
    }

    void Run()
    {
        while (Readable(listener)) {
            const int fd = accept(listener, nullptr, nullptr);
            if (fd >= 0) {
                Serve(fd);
            }
        }
    }

    std::string reply;
    int stop;
    int listener = -1;
    uint16_t port = 0;
    std::thread thread;
    std::mutex mutex;
    std::vector<std::string> requests;
    std::vector<int> silent;
};

inline std::string Reply(const std::string &body)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

/* A port that refuses connections: bound, so that nobody else gets it, and not listened on. */
class ClosedPort
{
  public:
    ClosedPort() : fd(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            ADD_FAILURE() << "no loopback port";
        }
        port = ntohs(address.sin_port);
    }

    ~ClosedPort()
    {
        close(fd);
    }

    ClosedPort(const ClosedPort &) = delete;
    ClosedPort &operator=(const ClosedPort &) = delete;

    std::string Url() const
    {
        return "http://127.0.0.1:" + std::to_string(port) + "/";
    }

  private:
    int fd;
    uint16_t port = 0;
};

} // namespace test

#endif
