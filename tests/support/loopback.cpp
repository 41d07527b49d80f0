#include "tests/support/loopback.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test
{

namespace
{

sockaddr_in AddressOf(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

} // namespace

int BindLoopback(uint16_t *port)
{
    sockaddr_in address = AddressOf(0);
    socklen_t length = sizeof(address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(address.sin_port);
    return fd;
}

std::string LoopbackUrl(uint16_t port, const std::string &path, const std::string &scheme)
{
    return scheme + "://127.0.0.1:" + std::to_string(port) + path;
}

/* Bound but not listening: the kernel refuses, and keeps the port. */
ClosedPort::ClosedPort() : fd(BindLoopback(&port))
{
    EXPECT_GE(fd, 0) << "no free loopback port";
}

ClosedPort::~ClosedPort()
{
    close(fd);
}

std::string ClosedPort::Url(const std::string &path, const std::string &scheme) const
{
    return LoopbackUrl(port, path, scheme);
}

SilentAddress::SilentAddress() : fd(BindLoopback(&port))
{
    EXPECT_TRUE(fd >= 0 && listen(fd, 0) == 0 && FillBacklog()) << "no backlog that can be filled";
}

/* Nobody accepts: the first connections fill it, the one that stays pending proves it. */
bool SilentAddress::FillBacklog()
{
    const sockaddr_in address = AddressOf(port);
    while (fillers.size() < 16) {
        fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        pollfd waiting{fillers.back(), POLLOUT, 0};
        (void)connect(fillers.back(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
        if (poll(&waiting, 1, 200) == 0) {
            return true;
        }
    }
    return false;
}

SilentAddress::~SilentAddress()
{
    for (const int filler : fillers) {
        close(filler);
    }
    close(fd);
}

std::string SilentAddress::Url() const
{
    return LoopbackUrl(port);
}

} // namespace test
