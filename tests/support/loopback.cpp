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
    FillBacklog();
    EXPECT_TRUE(isSilent) << "no backlog that can be filled";
}

SilentAddress::SilentAddress(uint16_t ipv6Port) : port(ipv6Port), fd(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = htons(port);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) {
        FillBacklog();
    }
}

/* Nobody accepts: the first connections fill it, the one that stays pending proves it. */
void SilentAddress::FillBacklog()
{
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    if (listen(fd, 0) != 0 || getsockname(fd, generic, &length) != 0) {
        return;
    }
    while (!isSilent && fillers.size() < 16) {
        fillers.push_back(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        pollfd waiting{fillers.back(), POLLOUT, 0};
        (void)connect(fillers.back(), generic, length);
        isSilent = poll(&waiting, 1, 200) == 0;
    }
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

bool SilentAddress::IsSilent() const
{
    return isSilent;
}

} // namespace test
