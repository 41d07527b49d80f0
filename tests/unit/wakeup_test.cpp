/* The wake-up socket: its creation, the choice of its port, the datagram. */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "engine/httpcurlclient_inner.h"
#include "tests/support/engine_fixture.h"

namespace
{

using namespace test;

constexpr uint16_t FIRST_PORT = 46990;
constexpr uint16_t LAST_PORT = 40000;
constexpr size_t PORTS = 6991;

const char *const CREATE = "_NvrHttpCurlCltSocket_CreateUdpSocket";
const char *const MONITOR = "_NvrHttpCurlCltCreateUdpMonitor";
const char *const NOTIFY = "_NvrHttpCurlClt_SocketNotify";

uint16_t PortOf(const sockaddr *address)
{
    sockaddr_in in = {};
    memcpy(&in, address, sizeof(in));
    return ntohs(in.sin_port);
}

/* Binds a real UDP socket on 127.0.0.1 past the hooks; -1 if the port is taken. Port 0 is any. */
int Occupy(uint16_t port)
{
    const int fd = hooks::real::sys_socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (hooks::real::sys_bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool IsPortFree(uint16_t port)
{
    const int fd = Occupy(port);
    if (fd != -1) {
        close(fd);
    }
    return fd != -1;
}

uint16_t BoundPort(int fd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

/* One monitor's out-values, with the values that a fresh task record has. */
struct Monitor {
    uint16_t port = 0;
    int32_t socket = 0;
    uint32_t created = 0;

    uint32_t Create(const char *ip = "127.0.0.1")
    {
        return _NvrHttpCurlCltCreateUdpMonitor(ip, &port, &socket, &created);
    }
};

class Wakeup : public EngineTest
{
  protected:
    void SetUp() override
    {
        openBefore = OpenDescriptors();
    }

    void TearDown() override
    {
        EXPECT_EQ(OpenDescriptors(), openBefore);
        EngineTest::TearDown();
    }

    /* Refuses every port but the given ones, binding nothing; notes the ports asked for. */
    void PretendFree(const std::set<uint16_t> &ports)
    {
        hooks::sys_bind = [this, ports](int, const sockaddr *address, socklen_t) {
            asked.push_back(PortOf(address));
            if (ports.count(asked.back()) != 0) {
                return 0;
            }
            errno = EADDRINUSE;
            return -1;
        };
    }

    std::set<int> openBefore;
    std::vector<uint16_t> asked;
};

/* --- socket creation ------------------------------------------------------------------------- */

class WakeupSocket : public Wakeup
{
};

TEST_F(WakeupSocket, OpensAnIPv4UdpSocketAndBindsIt)
{
    int opened = -1;
    hooks::sys_socket = [&](int domain, int type, int protocol) {
        EXPECT_EQ(domain, AF_INET);
        EXPECT_EQ(type, SOCK_DGRAM);
        EXPECT_EQ(protocol, 17);
        opened = hooks::real::sys_socket(domain, type, protocol);
        return opened;
    };
    hooks::sys_bind = [&](int fd, const sockaddr *address, socklen_t length) {
        sockaddr_in in = {};
        EXPECT_EQ(length, 16U);
        memcpy(&in, address, sizeof(in));
        EXPECT_EQ(fd, opened);
        EXPECT_EQ(in.sin_family, AF_INET);
        EXPECT_EQ(ntohs(in.sin_port), 41234);
        EXPECT_EQ(in.sin_addr.s_addr, inet_addr("127.0.0.1"));
        return 0;
    };
    int32_t fd = -7;
    EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.1", 41234, &fd), 0);
    EXPECT_EQ(fd, opened);
    ExpectLines({Info(CREATE, " create s_nTheUdpSock %d, %d\n", opened, opened)});
    close(fd);
}

TEST_F(WakeupSocket, IsReallyBoundThere)
{
    const int probe = Occupy(0);
    const uint16_t port = BoundPort(probe);
    close(probe);
    int32_t fd = -1;
    ASSERT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.1", port, &fd), 0) << fake::Transcript();
    EXPECT_EQ(BoundPort(fd), port);
    close(fd);
}

TEST_F(WakeupSocket, SetsNoOptionsAndNoDescriptorFlags)
{
    hooks::sys_bind = [](int, const sockaddr *, socklen_t) { return 0; };
    int32_t fd = -1;
    ASSERT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.1", 41234, &fd), 0);
    int reuse = -1;
    socklen_t length = sizeof(reuse);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &length), 0);
    EXPECT_EQ(reuse, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    close(fd);
}

TEST_F(WakeupSocket, BindsTheAddressThatItIsGiven)
{
    in_addr_t bound = 0;
    hooks::sys_bind = [&](int, const sockaddr *address, socklen_t) {
        sockaddr_in in = {};
        memcpy(&in, address, sizeof(in));
        bound = in.sin_addr.s_addr;
        return 0;
    };
    int32_t fd = -1;
    ASSERT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.2", 41234, &fd), 0);
    EXPECT_EQ(bound, inet_addr("127.0.0.2"));
    close(fd);
}

TEST_F(WakeupSocket, TakesTheLowestAndTheHighestPort)
{
    PretendFree({1, 65535});
    int32_t fd = -1;
    EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.1", 1, &fd), 0);
    close(fd);
    EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.1", 65535, &fd), 0);
    close(fd);
    EXPECT_EQ(asked, (std::vector<uint16_t>{1, 65535}));
}

TEST_F(WakeupSocket, RefusesANullAddress)
{
    int32_t fd = -7;
    EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket(nullptr, 41234, &fd), -1);
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(hooks::Calls("socket"), 0U);
    ExpectLines({Error(CREATE, "[Error] invalid arg, szIP %p{%s}, nPort %d\n", Ptr(nullptr), "", 41234)});
}

TEST_F(WakeupSocket, RefusesAnEmptyAddress)
{
    const char *const empty = "";
    int32_t fd = -7;
    EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket(empty, 41234, &fd), -1);
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(hooks::Calls("socket"), 0U);
    ExpectLines({Error(CREATE, "[Error] invalid arg, szIP %p{%s}, nPort %d\n", Ptr(empty), empty, 41234)});
}

TEST_F(WakeupSocket, RefusesPortsOutOfRange)
{
    const char *const ip = "127.0.0.1";
    for (const uint32_t port : {0U, 65536U, 0x10001U, 0xFFFFFFFFU}) {
        int32_t fd = -7;
        fake::ClearLines();
        EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket(ip, port, &fd), -1) << port;
        EXPECT_EQ(fd, -7);
        ExpectLines(
            {Error(CREATE, "[Error] invalid arg, szIP %p{%s}, nPort %d\n", Ptr(ip), ip, static_cast<int>(port))});
    }
    EXPECT_EQ(hooks::Calls("socket"), 0U);
}

TEST_F(WakeupSocket, ReportsARefusedSocket)
{
    hooks::sys_socket = [](int, int, int) {
        errno = EMFILE;
        return -1;
    };
    int32_t fd = -7;
    EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.1", 41234, &fd), -1);
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(hooks::Calls("bind"), 0U);
    ExpectLines({Error(CREATE, "[Error] socket() failed, errno %d{%s}\n", EMFILE, strerror(EMFILE))});
}

TEST_F(WakeupSocket, ReportsARefusedBindAndClosesTheSocket)
{
    int opened = -1;
    hooks::sys_socket = [&](int domain, int type, int protocol) {
        opened = hooks::real::sys_socket(domain, type, protocol);
        return opened;
    };
    hooks::sys_bind = [](int, const sockaddr *, socklen_t) {
        errno = EACCES;
        return -1;
    };
    int32_t fd = -7;
    EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.1", 41234, &fd), -1);
    EXPECT_EQ(fd, -7);
    EXPECT_GE(opened, 0);
    EXPECT_FALSE(IsOpen(opened));
    ExpectLines({Error(CREATE, "[Error] bind() failed, errno %d{%s}\n", EACCES, strerror(EACCES))});
}

TEST_F(WakeupSocket, MeetsATakenPort)
{
    const int taken = Occupy(0);
    int32_t fd = -7;
    EXPECT_EQ(_NvrHttpCurlCltSocket_CreateUdpSocket("127.0.0.1", BoundPort(taken), &fd), -1);
    ExpectLines({Error(CREATE, "[Error] bind() failed, errno %d{%s}\n", EADDRINUSE, strerror(EADDRINUSE))});
    close(taken);
}

/* --- the choice of the port ------------------------------------------------------------------- */

class WakeupMonitor : public Wakeup
{
};

TEST_F(WakeupMonitor, RefusesEachNullPointer)
{
    for (int missing = 0; missing < 4; ++missing) {
        uint16_t port = 5;
        int32_t fd = -7;
        uint32_t created = 0;
        fake::ClearLines();
        EXPECT_EQ(_NvrHttpCurlCltCreateUdpMonitor(missing == 0 ? nullptr : "127.0.0.1", missing == 1 ? nullptr : &port,
                                                  missing == 2 ? nullptr : &fd, missing == 3 ? nullptr : &created),
                  4U);
        EXPECT_EQ(port, 5);
        EXPECT_EQ(fd, -7);
        EXPECT_EQ(created, 0U);
        ExpectLines({Error(MONITOR, "[Error] Invalid value.\n")});
    }
    EXPECT_EQ(hooks::Calls("socket"), 0U);
}

TEST_F(WakeupMonitor, RefusesASecondCreationAndChangesNothing)
{
    PretendFree({FIRST_PORT});
    Monitor monitor;
    ASSERT_EQ(monitor.Create(), 0U);
    const Monitor before = monitor;
    const size_t sockets = hooks::Calls("socket");
    fake::ClearLines();
    EXPECT_EQ(monitor.Create(), 0xFFFFFFFFU);
    EXPECT_EQ(monitor.port, before.port);
    EXPECT_EQ(monitor.socket, before.socket);
    EXPECT_EQ(monitor.created, 1U);
    EXPECT_TRUE(IsOpen(monitor.socket));
    EXPECT_EQ(hooks::Calls("socket"), sockets);
    ExpectLines({Info(MONITOR, " udp socket already exists, bCreatSocket %d\n", 1)});
    close(monitor.socket);
}

TEST_F(WakeupMonitor, TakesOnlyAFlagOfOneForASecondCreation)
{
    PretendFree({FIRST_PORT});
    Monitor monitor;
    monitor.created = 2;
    EXPECT_EQ(monitor.Create(), 0U);
    EXPECT_EQ(monitor.created, 1U);
    close(monitor.socket);
}

TEST_F(WakeupMonitor, TakesTheFirstPortWhenItIsFree)
{
    PretendFree({FIRST_PORT, FIRST_PORT - 1});
    Monitor monitor;
    EXPECT_EQ(monitor.Create(), 0U);
    EXPECT_EQ(monitor.port, FIRST_PORT);
    EXPECT_EQ(monitor.created, 1U);
    EXPECT_EQ(asked, (std::vector<uint16_t>{FIRST_PORT}));
    ExpectLines({
        Info(CREATE, " create s_nTheUdpSock %d, %d\n", monitor.socket, monitor.socket),
        Info(MONITOR, " _NvrHttpCurlCltCreateUdpMonitor(), %s:%d\n", "127.0.0.1", 46990),
        Info(MONITOR, " get socket port wPortII %d\n", 46990),
        Info(MONITOR, " return *pwPort %d, *pbCreatSocket %d\n", 46990, 1),
    });
    close(monitor.socket);
}

TEST_F(WakeupMonitor, StepsDownPastOccupiedPorts)
{
    PretendFree({46988, 46987});
    Monitor monitor;
    EXPECT_EQ(monitor.Create(), 0U);
    EXPECT_EQ(monitor.port, 46988);
    EXPECT_EQ(asked, (std::vector<uint16_t>{46990, 46989, 46988}));
    const Line refused = Error(CREATE, "[Error] bind() failed, errno %d{%s}\n", EADDRINUSE, strerror(EADDRINUSE));
    ExpectLines({
        refused,
        Error(MONITOR, "[Error] websCreateUdpMonitor() PortII[%d] is Occupied\n", 46990),
        refused,
        Error(MONITOR, "[Error] websCreateUdpMonitor() PortII[%d] is Occupied\n", 46989),
        Info(CREATE, " create s_nTheUdpSock %d, %d\n", monitor.socket, monitor.socket),
        Info(MONITOR, " _NvrHttpCurlCltCreateUdpMonitor(), %s:%d\n", "127.0.0.1", 46988),
        Info(MONITOR, " get socket port wPortII %d\n", 46988),
        Info(MONITOR, " return *pwPort %d, *pbCreatSocket %d\n", 46988, 1),
    });
    close(monitor.socket);
}

TEST_F(WakeupMonitor, TakesTheLastPortOfTheRange)
{
    PretendFree({LAST_PORT});
    Monitor monitor;
    EXPECT_EQ(monitor.Create(), 0U);
    EXPECT_EQ(monitor.port, LAST_PORT);
    EXPECT_EQ(monitor.created, 1U);
    EXPECT_EQ(fake::CountTexts("is Occupied"), PORTS - 1);
    EXPECT_EQ(fake::CountTexts("[Error] wPortII"), 0U);
    close(monitor.socket);
}

/* The whole range was asked for, downwards, and its exhaustion was reported. */
void ExpectExhausted(const Monitor &monitor)
{
    EXPECT_EQ(monitor.port, 0);
    EXPECT_EQ(monitor.socket, 0);
    EXPECT_EQ(monitor.created, 0U);
    const Lines log = Log();
    ASSERT_EQ(log.size(), 2 * PORTS + 2);
    for (size_t i = 0; i < PORTS; ++i) {
        ASSERT_EQ(log[2 * i + 1], Error(MONITOR, "[Error] websCreateUdpMonitor() PortII[%d] is Occupied\n",
                                        static_cast<int>(FIRST_PORT - i)));
    }
    EXPECT_EQ(log[2 * PORTS], Info(MONITOR, " get socket port wPortII %d\n", LAST_PORT - 1));
    EXPECT_EQ(log[2 * PORTS + 1], Error(MONITOR, "[Error] wPortII %d\n", LAST_PORT - 1));
}

TEST_F(WakeupMonitor, ReportsAnExhaustedRange)
{
    PretendFree({});
    Monitor monitor;
    EXPECT_EQ(monitor.Create(), 8U);
    ExpectExhausted(monitor);
    ASSERT_EQ(asked.size(), PORTS);
    for (size_t i = 0; i < PORTS; ++i) {
        ASSERT_EQ(asked[i], FIRST_PORT - i);
    }
}

TEST_F(WakeupMonitor, CountsAnyFailureAsAnOccupiedPort)
{
    hooks::sys_socket = [](int, int, int) {
        errno = EMFILE;
        return -1;
    };
    Monitor monitor;
    EXPECT_EQ(monitor.Create(), 8U);
    ExpectExhausted(monitor);
    EXPECT_EQ(CountOf("[Error] socket() failed, errno %d{%s}\n"), PORTS);
}

TEST_F(WakeupMonitor, CountsABadAddressAsOccupiedPortsToo)
{
    Monitor monitor;
    EXPECT_EQ(monitor.Create(""), 8U);
    ExpectExhausted(monitor);
    EXPECT_EQ(CountOf("[Error] invalid arg, szIP %p{%s}, nPort %d\n"), PORTS);
}

TEST_F(WakeupMonitor, NamesTheLoopbackAddressWhateverItBinds)
{
    in_addr_t bound = 0;
    hooks::sys_bind = [&](int, const sockaddr *address, socklen_t) {
        sockaddr_in in = {};
        memcpy(&in, address, sizeof(in));
        bound = in.sin_addr.s_addr;
        return 0;
    };
    Monitor monitor;
    EXPECT_EQ(monitor.Create("127.0.0.2"), 0U);
    EXPECT_EQ(bound, inet_addr("127.0.0.2"));
    ExpectLine(Info(MONITOR, " _NvrHttpCurlCltCreateUdpMonitor(), %s:%d\n", "127.0.0.1", 46990));
    close(monitor.socket);
}

TEST_F(WakeupMonitor, ASocketsPortIsTheOneThatItTells)
{
    Monitor first, second;
    ASSERT_EQ(first.Create(), 0U);
    ASSERT_EQ(second.Create(), 0U);
    EXPECT_EQ(BoundPort(first.socket), first.port);
    EXPECT_EQ(BoundPort(second.socket), second.port);
    EXPECT_NE(first.port, second.port);
    close(first.socket);
    close(second.socket);
}

/* --- exact ports, really bound ------------------------------------------------------------------ */

/*
 * Other processes of this machine may hold ports of the range. Each case asks which is the
 * highest free one; should a foreign process take that or release a higher one in between,
 * the case asks again, a few times at most.
 */
class WakeupExactPort : public Wakeup
{
  protected:
    void SetUp() override
    {
        Wakeup::SetUp();
        hooks::sys_bind = [this](int fd, const sockaddr *address, socklen_t length) {
            const int result = hooks::real::sys_bind(fd, address, length);
            if (result != 0 && errno == EADDRINUSE) {
                refused.insert(PortOf(address));
                errno = EADDRINUSE;
            }
            return result;
        };
    }

    uint16_t HighestFree(uint16_t from) const
    {
        while (from > LAST_PORT && !IsPortFree(from)) {
            --from;
        }
        return from;
    }

    /* Whether the expected port was taken, or a higher one released, after it was asked about. */
    bool Disturbed(uint16_t expected, uint16_t got) const
    {
        return got > expected || (got < expected && refused.count(expected) != 0);
    }

    std::set<uint16_t> refused;
};

TEST_F(WakeupExactPort, TheFirstMonitorTakesTheHighestFreePortAndTheNextTheOneBelow)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        refused.clear();
        const uint16_t wanted = HighestFree(FIRST_PORT);
        const uint16_t below = HighestFree(static_cast<uint16_t>(wanted - 1));
        Monitor first, second;
        ASSERT_EQ(first.Create(), 0U);
        ASSERT_EQ(second.Create(), 0U);
        close(first.socket);
        close(second.socket);
        if (!Disturbed(wanted, first.port) && !Disturbed(below, second.port)) {
            EXPECT_EQ(first.port, wanted);
            EXPECT_EQ(second.port, below);
            return;
        }
    }
    FAIL() << "no attempt went undisturbed";
}

TEST_F(WakeupExactPort, APortHeldBySomebodyElseIsSteppedOver)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        refused.clear();
        const uint16_t held = HighestFree(FIRST_PORT);
        const int holder = Occupy(held);
        if (holder == -1) {
            continue;
        }
        const uint16_t wanted = HighestFree(static_cast<uint16_t>(held - 1));
        Monitor monitor;
        fake::ClearLines();
        ASSERT_EQ(monitor.Create(), 0U);
        close(monitor.socket);
        close(holder);
        EXPECT_EQ(fake::CountTexts(Text("PortII[%d] is Occupied", held)), 1U);
        if (!Disturbed(wanted, monitor.port)) {
            EXPECT_EQ(monitor.port, wanted);
            return;
        }
    }
    FAIL() << "no attempt went undisturbed";
}

TEST_F(WakeupExactPort, TasksOfOneAndOfAnotherInstanceCountDownwards)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        refused.clear();
        uint16_t wanted[4];
        uint16_t from = FIRST_PORT;
        for (uint16_t &port : wanted) {
            port = HighestFree(from);
            from = static_cast<uint16_t>(port - 1);
        }
        HNvrHttpCurlCltInst first = MustStart(2);
        HNvrHttpCurlCltInst second = MustStart(2);
        const uint16_t got[4] = {first->atTasks[0].tUdpMonitorSock.wPort, first->atTasks[1].tUdpMonitorSock.wPort,
                                 second->atTasks[0].tUdpMonitorSock.wPort, second->atTasks[1].tUdpMonitorSock.wPort};
        NvrHttpCurlCltUninit(second);
        NvrHttpCurlCltUninit(first);
        bool disturbed = false;
        for (int i = 0; i < 4; ++i) {
            disturbed = disturbed || Disturbed(wanted[i], got[i]);
        }
        if (!disturbed) {
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(got[i], wanted[i]) << i;
            }
            return;
        }
    }
    FAIL() << "no attempt went undisturbed";
}

/* --- the datagram ---------------------------------------------------------------------------------- */

class WakeupNotify : public Wakeup
{
  protected:
    void SetUp() override
    {
        Wakeup::SetUp();
        ASSERT_EQ(monitor.Create(), 0U);
        fake::ClearLines();
    }

    void TearDown() override
    {
        close(monitor.socket);
        Wakeup::TearDown();
    }

    Monitor monitor;
};

TEST_F(WakeupNotify, SendsTwoBytesFromTheSocketToItself)
{
    _NvrHttpCurlClt_SocketNotify(monitor.socket, monitor.port);
    ExpectLines({Info(NOTIFY, " Notify scoket{%d} port{%d} is ok.\n", monitor.socket, monitor.port)});

    pollfd ready = {monitor.socket, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 30000), 1);
    char buffer[16] = {};
    sockaddr_in from = {};
    socklen_t length = sizeof(from);
    ASSERT_EQ(hooks::real::sys_recvfrom(monitor.socket, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr *>(&from),
                                        &length),
              2);
    EXPECT_EQ(memcmp(buffer, "b\0", 2), 0);
    EXPECT_EQ(ntohs(from.sin_port), monitor.port);
    EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(poll(&ready, 1, 0), 0) << "one datagram, no more";
}

TEST_F(WakeupNotify, HandsSendtoADestinationOfSixteenBytes)
{
    hooks::sys_sendto = [&](int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length) {
        sockaddr_in in = {};
        EXPECT_EQ(length, 16U);
        memcpy(&in, to, sizeof(in));
        EXPECT_EQ(fd, 77);
        EXPECT_EQ(size, 2U);
        EXPECT_EQ(memcmp(data, "b\0", 2), 0);
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(in.sin_family, AF_INET);
        EXPECT_EQ(ntohs(in.sin_port), 40001);
        EXPECT_EQ(in.sin_addr.s_addr, inet_addr("127.0.0.1"));
        return static_cast<ssize_t>(2);
    };
    _NvrHttpCurlClt_SocketNotify(77, 40001);
    EXPECT_EQ(hooks::Calls("sendto"), 1U);
    ExpectLines({Info(NOTIFY, " Notify scoket{%d} port{%d} is ok.\n", 77, 40001)});
}

TEST_F(WakeupNotify, SendsNothingWhenTheAddressCannotBeConverted)
{
    fake::SetStrtoNetResult(7);
    _NvrHttpCurlClt_SocketNotify(monitor.socket, monitor.port);
    EXPECT_EQ(hooks::Calls("sendto"), 0U);
    ExpectLines({Error(NOTIFY, "[Error] convert failed %d\n", 7)});
}

TEST_F(WakeupNotify, TakesZeroAndBelowForAFailureAndDoesNotRetry)
{
    for (const ssize_t result : {static_cast<ssize_t>(0), static_cast<ssize_t>(-1)}) {
        const size_t before = hooks::Calls("sendto");
        hooks::sys_sendto = [result](int, const void *, size_t, int, const sockaddr *, socklen_t) { return result; };
        fake::ClearLines();
        _NvrHttpCurlClt_SocketNotify(monitor.socket, monitor.port);
        EXPECT_EQ(hooks::Calls("sendto"), before + 1);
        ExpectLines({Error(NOTIFY, "[Error] send socket failed\n")});
    }
}

TEST_F(WakeupNotify, TakesAnyPositiveResultForASuccess)
{
    hooks::sys_sendto = [](int, const void *, size_t, int, const sockaddr *, socklen_t) {
        return static_cast<ssize_t>(1);
    };
    _NvrHttpCurlClt_SocketNotify(5, 6);
    ExpectLines({Info(NOTIFY, " Notify scoket{%d} port{%d} is ok.\n", 5, 6)});
}

TEST_F(WakeupNotify, OnAClosedDescriptorOnlyLogs)
{
    Monitor closed;
    ASSERT_EQ(closed.Create(), 0U);
    close(closed.socket);
    fake::ClearLines();
    _NvrHttpCurlClt_SocketNotify(closed.socket, closed.port);
    ExpectLines({Error(NOTIFY, "[Error] send socket failed\n")});
}

} // namespace
