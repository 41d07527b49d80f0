#include "raw_server.h"

#include <fcntl.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <thread>

namespace raw
{

namespace
{

using Clock = std::chrono::steady_clock;

struct Connection {
    int fd;
    std::string in;        /* the request under way and what follows it */
    size_t headEnd = 0;    /* length of its head with the empty line; 0 until seen */
    bool complete = false; /* it is in the list of requests */
    size_t length = 0;     /* its length once complete */
    Request request{};
    bool playing = false;
    bool played = false;
    size_t step = 0;
    Clock::time_point resume{}; /* end of the pause that the step is; zero outside one */
    std::string out;
    size_t record; /* index of its bytes */
};

std::string HeaderValue(const std::string &head, const std::string &name)
{
    std::istringstream lines(head);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.size() > name.size() && line[name.size()] == ':' &&
            strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
            const size_t begin = line.find_first_not_of(' ', name.size() + 1);
            const size_t end = line.find_last_not_of("\r ");
            return begin == std::string::npos || begin > end ? std::string() : line.substr(begin, end - begin + 1);
        }
    }
    return std::string();
}

/* Joins the chunks behind the head. Returns the length up to the end of the last one, 0 if it is not there yet. */
size_t JoinChunks(const std::string &in, size_t position, std::string *body)
{
    body->clear();
    for (;;) {
        const size_t lineEnd = in.find("\r\n", position);
        if (lineEnd == std::string::npos) {
            return 0;
        }
        const size_t size = strtoul(in.c_str() + position, nullptr, 16);
        position = lineEnd + 2;
        if (in.size() < position + size + 2) {
            return 0;
        }
        body->append(in, position, size);
        position += size + 2;
        if (size == 0) {
            return position;
        }
    }
}

/* Takes the request apart as far as it has come. */
void Parse(Connection &connection)
{
    if (connection.headEnd == 0) {
        const size_t end = connection.in.find("\r\n\r\n");
        if (end == std::string::npos) {
            return;
        }
        connection.headEnd = end + 4;
        connection.request.head = connection.in.substr(0, end);
        connection.request.chunked = HeaderValue(connection.request.head, "Transfer-Encoding") == "chunked";
    }
    if (connection.request.chunked) {
        connection.length = JoinChunks(connection.in, connection.headEnd, &connection.request.body);
        connection.complete = connection.length != 0;
        return;
    }
    const size_t bodyLength = strtoul(HeaderValue(connection.request.head, "Content-Length").c_str(), nullptr, 10);
    if (connection.in.size() >= connection.headEnd + bodyLength) {
        connection.request.body = connection.in.substr(connection.headEnd, bodyLength);
        connection.length = connection.headEnd + bodyLength;
        connection.complete = true;
    }
}

/* Makes the connection ready for its next request. */
void NextRequest(Connection &connection)
{
    connection.in.erase(0, connection.length);
    connection.headEnd = 0;
    connection.length = 0;
    connection.complete = false;
    connection.played = false;
    connection.request = Request{};
}

} // namespace

std::string Request::Line() const
{
    return head.substr(0, head.find("\r\n"));
}

bool Request::HasLine(const std::string &line) const
{
    return (head + "\r\n").find("\r\n" + line + "\r\n") != std::string::npos;
}

bool Request::HasHeader(const std::string &name) const
{
    std::istringstream lines(head);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.size() > name.size() && line[name.size()] == ':' &&
            strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
            return true;
        }
    }
    return false;
}

Step Send(const std::string &bytes)
{
    return {Step::Kind::Send, bytes, {}};
}

Step Echo()
{
    return {Step::Kind::Echo, {}, {}};
}

Step Pause(std::chrono::milliseconds time)
{
    return {Step::Kind::Pause, {}, time};
}

Step Hold()
{
    return {Step::Kind::Hold, {}, {}};
}

Step Await()
{
    return {Step::Kind::Await, {}, {}};
}

Step Close()
{
    return {Step::Kind::Close, {}, {}};
}

Step Reset()
{
    return {Step::Kind::Reset, {}, {}};
}

std::string Reply(int status, const std::string &body)
{
    return "HTTP/1.1 " + std::to_string(status) + " Reply\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

Script Echoing()
{
    return {When::Request, {Echo()}};
}

Script Silent()
{
    return {When::Request, {}};
}

Script EchoingOnRelease()
{
    return {When::Request, {Hold(), Echo()}};
}

struct Server::State {
    Script script;
    int listener = -1;
    int wakeup = -1;
    uint16_t port = 0;
    std::atomic<bool> stop{false};
    std::atomic<bool> released{false};
    std::vector<Connection> connections; /* of the server's thread alone */

    mutable std::mutex lock; /* for what follows */
    std::vector<std::string> received;
    std::vector<Request> requests;
    size_t heads = 0;
    size_t open = 0;

    std::thread thread;

    void Run();
    void Accept();
    bool Read(Connection &connection);
    void Note(Connection &connection);
    bool MayStart(const Connection &connection) const;
    bool Play(Connection &connection);
    bool PlayStep(Connection &connection, const Step &step, bool *advance);
    bool Flush(Connection &connection);
    bool Serve(Connection &connection, short events);
    int WaitTime() const;
    void Wake() const;
};

void Server::State::Wake() const
{
    const uint64_t one = 1;
    if (write(wakeup, &one, sizeof(one)) < 0) {
        abort();
    }
}

void Server::State::Accept()
{
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        Connection connection{};
        connection.fd = fd;
        {
            std::lock_guard<std::mutex> guard(lock);
            connection.record = received.size();
            received.emplace_back();
            ++open;
        }
        connections.push_back(std::move(connection));
    }
}

/* Enters what has come into the books. */
void Server::State::Note(Connection &connection)
{
    const bool hadHead = connection.headEnd != 0;
    if (connection.complete) {
        return;
    }
    Parse(connection);
    std::lock_guard<std::mutex> guard(lock);
    heads += !hadHead && connection.headEnd != 0 ? 1 : 0;
    if (connection.complete) {
        requests.push_back(connection.request);
    }
}

/* False at the end of the connection. */
bool Server::State::Read(Connection &connection)
{
    char buffer[65536];
    for (;;) {
        const ssize_t got = recv(connection.fd, buffer, sizeof(buffer), 0);
        if (got < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
        if (got == 0) {
            return false;
        }
        connection.in.append(buffer, static_cast<size_t>(got));
        {
            std::lock_guard<std::mutex> guard(lock);
            received[connection.record].append(buffer, static_cast<size_t>(got));
        }
        Note(connection);
    }
}

bool Server::State::Flush(Connection &connection)
{
    while (!connection.out.empty()) {
        const ssize_t sent = send(connection.fd, connection.out.data(), connection.out.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
        connection.out.erase(0, static_cast<size_t>(sent));
    }
    return true;
}

bool Server::State::MayStart(const Connection &connection) const
{
    switch (script.when) {
    case When::Connected:
        return true;
    case When::FirstByte:
        return !connection.in.empty();
    case When::Headers:
        return connection.headEnd != 0;
    case When::Request:
        break;
    }
    return connection.complete;
}

/* False where the step ends the connection. *advance tells whether the step is over. */
bool Server::State::PlayStep(Connection &connection, const Step &step, bool *advance)
{
    const linger atOnce{1, 0};
    *advance = true;
    switch (step.kind) {
    case Step::Kind::Send:
        connection.out += step.bytes;
        return true;
    case Step::Kind::Echo:
        connection.out += Reply(200, connection.request.body);
        return true;
    case Step::Kind::Pause:
        if (connection.resume == Clock::time_point{}) {
            connection.resume = Clock::now() + step.time;
        }
        *advance = Clock::now() >= connection.resume;
        connection.resume = *advance ? Clock::time_point{} : connection.resume;
        return true;
    case Step::Kind::Hold:
        *advance = released.load();
        return true;
    case Step::Kind::Await:
        *advance = connection.complete;
        return true;
    case Step::Kind::Reset:
        setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
        return false;
    case Step::Kind::Close:
        break;
    }
    return false;
}

/* Goes on in the script until something has to be waited for. False: close. */
bool Server::State::Play(Connection &connection)
{
    for (;;) {
        if (!connection.playing) {
            if (connection.played || !MayStart(connection)) {
                return true;
            }
            connection.playing = true;
            connection.step = 0;
        }
        while (connection.step < script.steps.size()) {
            bool advance = false;
            if (!PlayStep(connection, script.steps[connection.step], &advance) || !Flush(connection)) {
                return false;
            }
            if (!advance || !connection.out.empty()) {
                connection.step += advance ? 1 : 0;
                return true;
            }
            ++connection.step;
        }
        connection.playing = false;
        connection.played = true;
        const bool once = script.when == When::Connected || script.when == When::FirstByte;
        if (once || !connection.complete) {
            return true;
        }
        NextRequest(connection);
        Note(connection);
    }
}

/* False when the connection is over. */
bool Server::State::Serve(Connection &connection, short events)
{
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !Read(connection)) {
        return false;
    }
    if (!Flush(connection)) {
        return false;
    }
    return !connection.out.empty() || Play(connection);
}

int Server::State::WaitTime() const
{
    Clock::time_point next = Clock::time_point::max();
    for (const Connection &connection : connections) {
        if (connection.resume != Clock::time_point{} && connection.resume < next) {
            next = connection.resume;
        }
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left) + 1;
}

void Server::State::Run()
{
    std::vector<pollfd> waiting;
    while (!stop.load()) {
        waiting.assign({{listener, POLLIN, 0}, {wakeup, POLLIN, 0}});
        for (const Connection &connection : connections) {
            waiting.push_back(
                {connection.fd, static_cast<short>(connection.out.empty() ? POLLIN : POLLIN | POLLOUT), 0});
        }
        if (poll(waiting.data(), waiting.size(), WaitTime()) < 0) {
            continue;
        }
        if (waiting[1].revents != 0) {
            uint64_t count = 0;
            (void)!read(wakeup, &count, sizeof(count));
        }
        std::vector<Connection> living;
        for (size_t i = 0; i < connections.size(); ++i) {
            if (Serve(connections[i], waiting[i + 2].revents)) {
                living.push_back(std::move(connections[i]));
                continue;
            }
            close(connections[i].fd);
            std::lock_guard<std::mutex> guard(lock);
            --open;
        }
        connections = std::move(living);
        const size_t known = connections.size();
        Accept();
        if (connections.size() > known && script.when == When::Connected) {
            Wake();
        }
    }
    for (const Connection &connection : connections) {
        close(connection.fd);
    }
}

Server::Server(const Script &script) : state(std::make_unique<State>())
{
    state->script = script;
    state->listener = common::BindLoopback(&state->port);
    state->wakeup = eventfd(0, EFD_CLOEXEC);
    if (state->listener < 0 || state->wakeup < 0 || listen(state->listener, 4096) != 0 ||
        fcntl(state->listener, F_SETFL, O_NONBLOCK) != 0) {
        ADD_FAILURE() << "no listening socket";
        return;
    }
    state->thread = std::thread([this] { state->Run(); });
}

Server::~Server()
{
    if (state->thread.joinable()) {
        state->stop.store(true);
        state->Wake();
        state->thread.join();
    }
    close(state->listener);
    close(state->wakeup);
}

std::string Server::Url(const std::string &path, const std::string &scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(state->port) + path;
}

void Server::Release()
{
    state->released.store(true);
    state->Wake();
}

size_t Server::Connections() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->received.size();
}

size_t Server::OpenConnections() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->open;
}

std::vector<Request> Server::Requests() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->requests;
}

size_t Server::RequestCount() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->requests.size();
}

std::string Server::Received(size_t connection) const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return connection < state->received.size() ? state->received[connection] : std::string();
}

size_t Server::ReceivedLength(size_t connection) const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return connection < state->received.size() ? state->received[connection].size() : 0;
}

bool Server::WaitForRequests(size_t count) const
{
    return common::WaitUntil([this, count] { return RequestCount() >= count; });
}

bool Server::WaitForHeads(size_t count) const
{
    return common::WaitUntil([this, count] {
        std::lock_guard<std::mutex> guard(state->lock);
        return state->heads >= count;
    });
}

} // namespace raw
