/* The wake-up socket: its creation, the choice of its port, the datagram. */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

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

sockaddr_in Inet(const sockaddr *address)
{
    sockaddr_in in = {};
    memcpy(&in, address, sizeof(in));
    return in;
}

uint16_t PortOf(const sockaddr *address)
{
    return ntohs(Inet(address).sin_port);
}

/* Lets every bind succeed without binding anything. */
int BindNothing(int, const sockaddr *, socklen_t)
{
    return 0;
}

int RefuseSocket(int, int, int)
{
    errno = EMFILE;
    return -1;
}

const Line SOCKET_REFUSED = Error(CREATE, "[Error] socket() failed, errno %d{%s}\n", EMFILE, strerror(EMFILE));

Line BindRefused(int error)
{
    return Error(CREATE, "[Error] bind() failed, errno %d{%s}\n", error, strerror(error));
}

Line BadArgument(const char *ip, uint32_t port)
{
    return Error(CREATE, "[Error] invalid arg, szIP %p{%s}, nPort %d\n", Ptr(ip), ip != nullptr ? ip : "",
                 static_cast<int>(port));
}

Line Occupied(int port)
{
    return Error(MONITOR, "[Error] websCreateUdpMonitor() PortII[%d] is Occupied\n", port);
}

/* The lines of a task's socket on this port. */
Lines Made(int fd, int port)
{
    return {Info(CREATE, " create s_nTheUdpSock %d, %d\n", fd, fd),
            Info(MONITOR, " _NvrHttpCurlCltCreateUdpMonitor(), %s:%d\n", "127.0.0.1", port),
            Info(MONITOR, " get socket port wPortII %d\n", port),
            Info(MONITOR, " return *pwPort %d, *pbCreatSocket %d\n", port, 1)};
}

Line Notified(int fd, int port)
{
    return Info(NOTIFY, " Notify scoket{%d} port{%d} is ok.\n", fd, port);
}

const Line SEND_FAILED = Error(NOTIFY, "[Error] send socket failed\n");

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

    ~Monitor()
    {
        Close();
    }

    void Close()
    {
        if (socket > 0) {
            close(std::exchange(socket, 0));
        }
    }

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
  protected:
    void TearDown() override
    {
        if (fd >= 0) {
            close(fd);
        }
        Wakeup::TearDown();
    }

    int Create(const char *ip = "127.0.0.1", uint32_t port = 41234)
    {
        return _NvrHttpCurlCltSocket_CreateUdpSocket(ip, port, &fd);
    }

    /* Nothing was created, and this is the only line. */
    void ExpectRefused(const char *ip, uint32_t port, const Line &line)
    {
        fake::ClearLines();
        EXPECT_EQ(Create(ip, port), -1);
        EXPECT_EQ(fd, -7);
        ExpectLines({line});
    }

    int32_t fd = -7;
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
    hooks::sys_bind = [&](int socket, const sockaddr *address, socklen_t length) {
        EXPECT_EQ(length, 16U);
        EXPECT_EQ(socket, opened);
        EXPECT_EQ(Inet(address).sin_family, AF_INET);
        EXPECT_EQ(PortOf(address), 41234);
        EXPECT_EQ(Inet(address).sin_addr.s_addr, inet_addr("127.0.0.2"));
        return 0;
    };
    EXPECT_EQ(Create("127.0.0.2"), 0);
    EXPECT_EQ(fd, opened);
    ExpectLines({Info(CREATE, " create s_nTheUdpSock %d, %d\n", opened, opened)});
}

TEST_F(WakeupSocket, IsReallyBoundThere)
{
    const int probe = Occupy(0);
    const uint16_t port = BoundPort(probe);
    close(probe);
    ASSERT_EQ(Create("127.0.0.1", port), 0) << fake::Transcript();
    EXPECT_EQ(BoundPort(fd), port);
}

TEST_F(WakeupSocket, SetsNoOptionsAndNoDescriptorFlags)
{
    hooks::sys_bind = BindNothing;
    ASSERT_EQ(Create(), 0);
    int reuse = -1;
    socklen_t length = sizeof(reuse);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &length), 0);
    EXPECT_EQ(reuse, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(WakeupSocket, TakesTheLowestAndTheHighestPort)
{
    PretendFree({1, 65535});
    EXPECT_EQ(Create("127.0.0.1", 1), 0);
    close(fd);
    EXPECT_EQ(Create("127.0.0.1", 65535), 0);
    EXPECT_EQ(asked, (std::vector<uint16_t>{1, 65535}));
}

TEST_F(WakeupSocket, RefusesABadAddressAndPortsOutOfRange)
{
    for (const char *ip : {static_cast<const char *>(nullptr), ""}) {
        ExpectRefused(ip, 41234, BadArgument(ip, 41234));
    }
    const char *const ip = "127.0.0.1";
    for (const uint32_t port : {0U, 65536U, 0x10001U, 0xFFFFFFFFU}) {
        ExpectRefused(ip, port, BadArgument(ip, port));
    }
    EXPECT_EQ(hooks::Calls("socket"), 0U);
}

TEST_F(WakeupSocket, ReportsARefusedSocket)
{
    hooks::sys_socket = RefuseSocket;
    ExpectRefused("127.0.0.1", 41234, SOCKET_REFUSED);
    EXPECT_EQ(hooks::Calls("bind"), 0U);
}

TEST_F(WakeupSocket, ReportsARefusedBindAndClosesTheSocket)
{
    int opened = -1;
    hooks::sys_bind = [&](int socket, const sockaddr *, socklen_t) {
        opened = socket;
        errno = EACCES;
        return -1;
    };
    ExpectRefused("127.0.0.1", 41234, BindRefused(EACCES));
    EXPECT_GE(opened, 0);
    EXPECT_FALSE(IsOpen(opened));
}

TEST_F(WakeupSocket, MeetsATakenPort)
{
    const int taken = Occupy(0);
    ExpectRefused("127.0.0.1", BoundPort(taken), BindRefused(EADDRINUSE));
    close(taken);
}

/* --- the choice of the port ------------------------------------------------------------------- */

using WakeupMonitor = Wakeup;

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
    const int32_t fd = monitor.socket;
    const size_t sockets = hooks::Calls("socket");
    fake::ClearLines();
    EXPECT_EQ(monitor.Create(), 0xFFFFFFFFU);
    EXPECT_EQ(monitor.port, FIRST_PORT);
    EXPECT_EQ(monitor.socket, fd);
    EXPECT_EQ(monitor.created, 1U);
    EXPECT_TRUE(IsOpen(monitor.socket));
    EXPECT_EQ(hooks::Calls("socket"), sockets);
    ExpectLines({Info(MONITOR, " udp socket already exists, bCreatSocket %d\n", 1)});
}

TEST_F(WakeupMonitor, TakesOnlyAFlagOfOneForASecondCreation)
{
    PretendFree({FIRST_PORT});
    Monitor monitor;
    monitor.created = 2;
    EXPECT_EQ(monitor.Create(), 0U);
    EXPECT_EQ(monitor.created, 1U);
}

TEST_F(WakeupMonitor, TakesTheFirstPortWhenItIsFree)
{
    PretendFree({FIRST_PORT, FIRST_PORT - 1});
    Monitor monitor;
    EXPECT_EQ(monitor.Create(), 0U);
    EXPECT_EQ(monitor.port, FIRST_PORT);
    EXPECT_EQ(monitor.created, 1U);
    EXPECT_EQ(asked, (std::vector<uint16_t>{FIRST_PORT}));
    ExpectLines(Made(monitor.socket, 46990));
}

TEST_F(WakeupMonitor, StepsDownPastOccupiedPorts)
{
    PretendFree({46988, 46987});
    Monitor monitor;
    EXPECT_EQ(monitor.Create(), 0U);
    EXPECT_EQ(monitor.port, 46988);
    EXPECT_EQ(asked, (std::vector<uint16_t>{46990, 46989, 46988}));
    ExpectLines(Lines{BindRefused(EADDRINUSE), Occupied(46990), BindRefused(EADDRINUSE), Occupied(46989)} +
                Made(monitor.socket, 46988));
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
        ASSERT_EQ(log[2 * i + 1], Occupied(static_cast<int>(FIRST_PORT - i)));
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
    hooks::sys_socket = RefuseSocket;
    Monitor monitor;
    EXPECT_EQ(monitor.Create(), 8U);
    ExpectExhausted(monitor);
    EXPECT_EQ(CountOf(SOCKET_REFUSED.format), PORTS);
}

TEST_F(WakeupMonitor, CountsABadAddressAsOccupiedPortsToo)
{
    Monitor monitor;
    EXPECT_EQ(monitor.Create(""), 8U);
    ExpectExhausted(monitor);
    EXPECT_EQ(CountOf(BadArgument("", 0).format), PORTS);
}

TEST_F(WakeupMonitor, NamesTheLoopbackAddressWhateverItBinds)
{
    in_addr_t bound = 0;
    hooks::sys_bind = [&](int, const sockaddr *address, socklen_t) {
        bound = Inet(address).sin_addr.s_addr;
        return 0;
    };
    Monitor monitor;
    EXPECT_EQ(monitor.Create("127.0.0.2"), 0U);
    EXPECT_EQ(bound, inet_addr("127.0.0.2"));
    ExpectLine(Info(MONITOR, " _NvrHttpCurlCltCreateUdpMonitor(), %s:%d\n", "127.0.0.1", 46990));
}

TEST_F(WakeupMonitor, ASocketsPortIsTheOneThatItTells)
{
    Monitor first, second;
    ASSERT_EQ(first.Create(), 0U);
    ASSERT_EQ(second.Create(), 0U);
    EXPECT_EQ(BoundPort(first.socket), first.port);
    EXPECT_EQ(BoundPort(second.socket), second.port);
    EXPECT_NE(first.port, second.port);
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

    /* Makes the attempt until it returns true: until nobody disturbed it. */
    void Repeat(const std::function<bool()> &attempt)
    {
        for (int i = 0; i < 20; ++i) {
            refused.clear();
            if (attempt() || HasFatalFailure()) {
                return;
            }
        }
        FAIL() << "no attempt went undisturbed";
    }

    std::set<uint16_t> refused;
};

TEST_F(WakeupExactPort, TheFirstMonitorTakesTheHighestFreePortAndTheNextTheOneBelow)
{
    Repeat([this] {
        const uint16_t wanted = HighestFree(FIRST_PORT);
        const uint16_t below = HighestFree(static_cast<uint16_t>(wanted - 1));
        Monitor first, second;
        EXPECT_EQ(first.Create(), 0U);
        EXPECT_EQ(second.Create(), 0U);
        if (Disturbed(wanted, first.port) || Disturbed(below, second.port)) {
            return false;
        }
        EXPECT_EQ(first.port, wanted);
        EXPECT_EQ(second.port, below);
        return true;
    });
}

TEST_F(WakeupExactPort, APortHeldBySomebodyElseIsSteppedOver)
{
    Repeat([this] {
        const uint16_t held = HighestFree(FIRST_PORT);
        const int holder = Occupy(held);
        if (holder == -1) {
            return false;
        }
        const uint16_t wanted = HighestFree(static_cast<uint16_t>(held - 1));
        Monitor monitor;
        fake::ClearLines();
        EXPECT_EQ(monitor.Create(), 0U);
        close(holder);
        EXPECT_EQ(fake::CountTexts(Text("PortII[%d] is Occupied", held)), 1U);
        if (Disturbed(wanted, monitor.port)) {
            return false;
        }
        EXPECT_EQ(monitor.port, wanted);
        return true;
    });
}

TEST_F(WakeupExactPort, TasksOfOneAndOfAnotherInstanceCountDownwards)
{
    Repeat([this] {
        std::vector<uint16_t> wanted;
        for (uint16_t from = FIRST_PORT; wanted.size() < 4; from = static_cast<uint16_t>(wanted.back() - 1)) {
            wanted.push_back(HighestFree(from));
        }
        HNvrHttpCurlCltInst first = MustStart(2);
        HNvrHttpCurlCltInst second = MustStart(2);
        const std::vector<uint16_t> got = {
            first->atTasks[0].tUdpMonitorSock.wPort, first->atTasks[1].tUdpMonitorSock.wPort,
            second->atTasks[0].tUdpMonitorSock.wPort, second->atTasks[1].tUdpMonitorSock.wPort};
        NvrHttpCurlCltUninit(second);
        NvrHttpCurlCltUninit(first);
        for (size_t i = 0; i < wanted.size(); ++i) {
            if (Disturbed(wanted[i], got[i])) {
                return false;
            }
        }
        EXPECT_EQ(got, wanted);
        return true;
    });
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
        monitor.Close();
        Wakeup::TearDown();
    }

    Monitor monitor;
};

TEST_F(WakeupNotify, SendsTwoBytesFromTheSocketToItself)
{
    _NvrHttpCurlClt_SocketNotify(monitor.socket, monitor.port);
    ExpectLines({Notified(monitor.socket, monitor.port)});
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
        EXPECT_EQ(length, 16U);
        EXPECT_EQ(fd, 77);
        EXPECT_EQ(size, 2U);
        EXPECT_EQ(memcmp(data, "b\0", 2), 0);
        EXPECT_EQ(flags, 0);
        EXPECT_EQ(Inet(to).sin_family, AF_INET);
        EXPECT_EQ(PortOf(to), 40001);
        EXPECT_EQ(Inet(to).sin_addr.s_addr, inet_addr("127.0.0.1"));
        return ssize_t{2};
    };
    _NvrHttpCurlClt_SocketNotify(77, 40001);
    EXPECT_EQ(hooks::Calls("sendto"), 1U);
    ExpectLines({Notified(77, 40001)});
}

TEST_F(WakeupNotify, SendsNothingWhenTheAddressCannotBeConverted)
{
    fake::SetStrtoNetResult(7);
    _NvrHttpCurlClt_SocketNotify(monitor.socket, monitor.port);
    EXPECT_EQ(hooks::Calls("sendto"), 0U);
    ExpectLines({Error(NOTIFY, "[Error] convert failed %d\n", 7)});
}

TEST_F(WakeupNotify, TakesAnyPositiveResultForASuccessAndNeverRetries)
{
    ssize_t result = 0;
    hooks::sys_sendto = [&](int, const void *, size_t, int, const sockaddr *, socklen_t) { return result; };
    size_t calls = 0;
    for (result = -1; result <= 1; ++result) {
        _NvrHttpCurlClt_SocketNotify(5, 6);
        ExpectLines({result > 0 ? Notified(5, 6) : SEND_FAILED});
        EXPECT_EQ(hooks::Calls("sendto"), ++calls);
    }
}

TEST_F(WakeupNotify, OnAClosedDescriptorOnlyLogs)
{
    const int32_t fd = monitor.socket;
    monitor.Close();
    _NvrHttpCurlClt_SocketNotify(fd, monitor.port);
    ExpectLines({SEND_FAILED});
}

} // namespace
