#include "tests/support/scripted_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

#include "tests/support/loopback.h"
#include "tests/support/wait.h"

namespace test
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

/* The value of the first header of this name, in any case of letters. */
std::optional<std::string> FindHeader(const std::string &head, const std::string &name)
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
    return std::nullopt;
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
        connection.request.chunked = FindHeader(connection.request.head, "Transfer-Encoding") == "chunked";
    }
    if (connection.request.chunked) {
        connection.length = JoinChunks(connection.in, connection.headEnd, &connection.request.body);
        connection.complete = connection.length != 0;
        return;
    }
    const size_t bodyLength =
        strtoul(FindHeader(connection.request.head, "Content-Length").value_or("0").c_str(), nullptr, 10);
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
    return FindHeader(head, name).has_value();
}

Step Send(const std::string &bytes)
{
    return Answer([bytes](const Request &) { return bytes; });
}

Step Answer(const Answerer &answerer)
{
    return {Step::Kind::SEND, answerer, {}};
}

Step Echo()
{
    return Answer([](const Request &request) { return Reply(200, request.body); });
}

Step Pause(std::chrono::milliseconds time)
{
    return {Step::Kind::PAUSE, {}, time};
}

std::string Reply(int status, const std::string &body, const std::string &headers)
{
    return "HTTP/1.1 " + std::to_string(status) + " Reply\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           headers + "\r\n" + body;
}

Script Answering(const std::string &body, int status)
{
    return {When::REQUEST, {Send(Reply(status, body))}};
}

struct ScriptedServer::State {
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

void ScriptedServer::State::Wake() const
{
    const uint64_t one = 1;
    if (write(wakeup, &one, sizeof(one)) < 0) {
        abort();
    }
}

void ScriptedServer::State::Accept()
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

/* Records what has come. */
void ScriptedServer::State::Note(Connection &connection)
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
bool ScriptedServer::State::Read(Connection &connection)
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

bool ScriptedServer::State::Flush(Connection &connection)
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

bool ScriptedServer::State::MayStart(const Connection &connection) const
{
    switch (script.when) {
    case When::CONNECTED:
        return true;
    case When::FIRST_BYTE:
        return !connection.in.empty();
    case When::HEADERS:
        return connection.headEnd != 0;
    case When::REQUEST:
        break;
    }
    return connection.complete;
}

/* False where the step ends the connection. *advance is set to whether the step is over. */
bool ScriptedServer::State::PlayStep(Connection &connection, const Step &step, bool *advance)
{
    const linger atOnce{1, 0};
    *advance = true;
    switch (step.kind) {
    case Step::Kind::SEND:
        connection.out += step.answerer(connection.request);
        return true;
    case Step::Kind::PAUSE:
        if (connection.resume == Clock::time_point{}) {
            connection.resume = Clock::now() + step.time;
        }
        *advance = Clock::now() >= connection.resume;
        connection.resume = *advance ? Clock::time_point{} : connection.resume;
        return true;
    case Step::Kind::HOLD:
        *advance = released.load();
        return true;
    case Step::Kind::AWAIT:
        *advance = connection.complete;
        return true;
    case Step::Kind::RESET:
        setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
        return false;
    case Step::Kind::CLOSE:
        break;
    }
    return false;
}

/* Goes on in the script until something has to be waited for. False: close. */
bool ScriptedServer::State::Play(Connection &connection)
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
        const bool once = script.when == When::CONNECTED || script.when == When::FIRST_BYTE;
        if (once || !connection.complete) {
            return true;
        }
        NextRequest(connection);
        Note(connection);
    }
}

/* False when the connection is over. */
bool ScriptedServer::State::Serve(Connection &connection, short events)
{
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !Read(connection)) {
        return false;
    }
    if (!Flush(connection)) {
        return false;
    }
    return !connection.out.empty() || Play(connection);
}

int ScriptedServer::State::WaitTime() const
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

void ScriptedServer::State::Run()
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
        if (connections.size() > known && script.when == When::CONNECTED) {
            Wake();
        }
    }
    for (const Connection &connection : connections) {
        close(connection.fd);
    }
}

ScriptedServer::ScriptedServer(const Script &script) : state(std::make_unique<State>())
{
    state->script = script;
    state->listener = BindLoopback(&state->port);
    state->wakeup = eventfd(0, EFD_CLOEXEC);
    if (state->listener < 0 || state->wakeup < 0 || listen(state->listener, 4096) != 0 ||
        fcntl(state->listener, F_SETFL, O_NONBLOCK) != 0) {
        ADD_FAILURE() << "no listening socket";
        return;
    }
    state->thread = std::thread([this] { state->Run(); });
}

ScriptedServer::~ScriptedServer()
{
    if (state->thread.joinable()) {
        state->stop.store(true);
        state->Wake();
        state->thread.join();
    }
    close(state->listener);
    close(state->wakeup);
}

std::string ScriptedServer::Url(const std::string &path, const std::string &scheme) const
{
    return LoopbackUrl(state->port, path, scheme);
}

void ScriptedServer::Release()
{
    state->released.store(true);
    state->Wake();
}

size_t ScriptedServer::OpenConnections() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->open;
}

std::vector<Request> ScriptedServer::Requests() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->requests;
}

size_t ScriptedServer::RequestCount() const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return state->requests.size();
}

std::string ScriptedServer::Received(size_t connection) const
{
    std::lock_guard<std::mutex> guard(state->lock);
    return connection < state->received.size() ? state->received[connection] : std::string();
}

bool ScriptedServer::WaitForRequests(size_t count) const
{
    return WaitUntil([this, count] { return RequestCount() >= count; });
}

bool ScriptedServer::WaitForHeads(size_t count) const
{
    return WaitUntil([this, count] {
        std::lock_guard<std::mutex> guard(state->lock);
        return state->heads >= count;
    });
}

} // namespace test
