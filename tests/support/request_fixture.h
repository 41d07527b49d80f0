/*
 * What the cases about requests share: an instance whose workers do not run, so that its
 * lists can be looked into; log lines as values; a completion callback that keeps notes; a
 * small server of the test's own.
 */
#ifndef TESTS_SUPPORT_REQUEST_FIXTURE_H
#define TESTS_SUPPORT_REQUEST_FIXTURE_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "engine/httpcurlclient_inner.h"
#include "tests/support/fake_platform.h"
#include "tests/support/hooks.h"

namespace fixture
{

/* --- log lines ------------------------------------------------------------------------------- */

enum : uint32_t { kTrace = 1, kError = 2, kInfo = 4 };

struct Line {
    uint32_t level;
    std::string func;
    std::string format;
    std::string text; /* without the function's name and the source line */
};

inline bool operator==(const Line &a, const Line &b)
{
    return a.level == b.level && a.func == b.func && a.format == b.format && a.text == b.text;
}

inline void PrintTo(const Line &line, std::ostream *out)
{
    *out << line.level << ' ' << line.func << " {" << line.format << "} " << line.text;
}

inline Line L(uint32_t level, const char *func, const char *format, ...) __attribute__((format(printf, 3, 4)));

/* The line that the library should write; the format's common opening is added here. */
inline Line L(uint32_t level, const char *func, const char *format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return {level, func, std::string("%s[L:%d]") + format, text};
}

/* All lines so far. One of another module, or without the opening, equals no expected line. */
inline std::vector<Line> Log()
{
    std::vector<Line> result;
    for (const fake::LogLine &line : fake::Lines()) {
        std::string text = line.strText;
        const std::string opening = line.strFunc + "[L:";
        const size_t end = text.find(']');
        if (!line.strFunc.empty() && text.compare(0, opening.size(), opening) == 0 && end != std::string::npos) {
            text.erase(0, end + 1);
        }
        const std::string module = line.dwModule == 123 ? "" : "module " + std::to_string(line.dwModule) + " ";
        result.push_back({line.dwLevel, module + line.strFunc, line.strFormat, text});
    }
    return result;
}

using Lines = std::vector<Line>;

/* The lines since the last call. */
inline Lines TakeLog()
{
    Lines lines = Log();
    fake::ClearLines();
    return lines;
}

inline size_t Count(const Line &line)
{
    size_t count = 0;
    for (const Line &each : Log()) {
        count += each == line ? 1 : 0;
    }
    return count;
}

/* What "%p" gets. */
template <typename T> const void *P(T *pointer)
{
    return reinterpret_cast<const void *>(pointer);
}

inline Line SetoptFault(const char *func, CURLcode code)
{
    return L(kError, func, "[Error] curl_easy_setopt fault! {ErrorCode:%d} {ErrorStr:%s}\n", static_cast<int>(code),
             curl_easy_strerror(code));
}

/* --- completion ------------------------------------------------------------------------------ */

struct Completion {
    HNvrHttpCurlCltReq req;
    uint32_t prog;
    uint32_t result;
    void *buf;
};

inline std::vector<Completion> g_completions;
/* Runs inside the callback, after the note was taken. */
inline std::function<void(const Completion &)> g_onCompletion;

inline uint32_t Ntf(HNvrHttpCurlCltReq req, ENvrHttpCurlCltReqProgress prog, ENvrHttpCurlCltRet result, void *buf)
{
    const Completion completion = {req, prog, result, buf};
    g_completions.push_back(completion);
    if (g_onCompletion) {
        g_onCompletion(completion);
    }
    return 77; /* nobody looks at it */
}

/* --- lists ----------------------------------------------------------------------------------- */

inline std::vector<TNvrHttpCurlCltAsyncNode *> Nodes(const TNVRHCCList &list)
{
    std::vector<TNvrHttpCurlCltAsyncNode *> nodes;
    for (TNVRHCCListNode *node = list.ptHead; node != nullptr; node = node->ptNext) {
        nodes.push_back(static_cast<TNvrHttpCurlCltAsyncNode *>(node->pvData));
    }
    return nodes;
}

inline TNVRHCCListNode *FindListNode(const TNVRHCCList &list, const TNvrHttpCurlCltReqInner *req)
{
    for (TNVRHCCListNode *node = list.ptHead; node != nullptr; node = node->ptNext) {
        const auto *element = static_cast<TNvrHttpCurlCltAsyncNode *>(node->pvData);
        if (element != nullptr && element->ptReqIn == req) {
            return node;
        }
    }
    return nullptr;
}

/* Moves a request's node from the run list to the end of the finish list, as its worker does. */
inline TNvrHttpCurlCltAsyncNode *Finish(TNvrHttpCurlCltTask &task, const TNvrHttpCurlCltReqInner *req)
{
    void *data = nullptr;
    EXPECT_EQ(0U, NVRHCCListRemove(&task.tRunList, FindListNode(task.tRunList, req), &data));
    auto *node = static_cast<TNvrHttpCurlCltAsyncNode *>(data);
    node->bInMulti = 1;
    EXPECT_EQ(0U, NVRHCCListInsertAfter(&task.tFinList, nullptr, node, nullptr));
    return node;
}

/* --- the instance ----------------------------------------------------------------------------- */

inline void ClearProxies()
{
    for (const char *name :
         {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"}) {
        unsetenv(name);
    }
}

class EngineTest : public ::testing::Test
{
  protected:
    EngineTest()
    {
        ClearProxies();
        curl_global_init(CURL_GLOBAL_ALL);
        fake::RunTasks(false);
    }

    void Start(uint32_t tasks, uint32_t maxAsync)
    {
        const TNvrHttpCurlCltInitParam param = {tasks, maxAsync};
        const TNvrHttpCurlCltMemCB memCB = fake::MemCB();
        ASSERT_EQ(0U, NvrHttpCurlCltInit(&param, &memCB, &inst)) << fake::Transcript();
        blocksOfInstance = fake::BlocksAlive();
        Forget();
    }

    void Stop()
    {
        if (inst != nullptr) {
            NvrHttpCurlCltUninit(inst);
            inst = nullptr;
        }
    }

    void TearDown() override
    {
        Stop();
        EXPECT_EQ(0U, fake::BlocksAlive());
        EXPECT_EQ(0U, fake::HeldByThisThread());
        EXPECT_EQ(std::vector<std::string>(), fake::Violations());
    }

    /* Drops what was recorded on the way to the situation that a case is about. */
    static void Forget()
    {
        fake::ClearLines();
        hooks::ClearOptions();
    }

    HNvrHttpCurlCltReq Create()
    {
        HNvrHttpCurlCltReq req = nullptr;
        EXPECT_EQ(0U, NvrHttpCurlCltReqCreat(inst, &req)) << fake::Transcript();
        Forget();
        return req;
    }

    HNvrHttpCurlCltReq CreatePrepared(const std::string &url, const std::string &body)
    {
        HNvrHttpCurlCltReq req = Create();
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqUri(req, url.c_str()));
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "Content-Type", "text/plain"));
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqMethod(req, "POST"));
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, body.data(), static_cast<uint32_t>(body.size())));
        Forget();
        return req;
    }

    static uint32_t Submit(HNvrHttpCurlCltReq req, void *buf = nullptr)
    {
        return NvrHttpCurlCltProcessReq(req, 5000, 4000, NVRHTTPCURLCLT_MODE_ASYNC, Ntf, buf);
    }

    /* A request that stands in its task's run list. */
    HNvrHttpCurlCltReq CreateQueued(void *buf = nullptr)
    {
        HNvrHttpCurlCltReq req = Create();
        EXPECT_EQ(0U, Submit(req, buf)) << fake::Transcript();
        Forget();
        return req;
    }

    /* A request whose node the worker would have put into the finish list. */
    HNvrHttpCurlCltReq CreateFinished(void *buf = nullptr)
    {
        HNvrHttpCurlCltReq req = CreateQueued(buf);
        Finish(TaskOf(req), req);
        return req;
    }

    TNvrHttpCurlCltTask &TaskOf(HNvrHttpCurlCltReq req)
    {
        return inst->atTasks[req->dwTaskIndex - 1];
    }

    TNvrHttpCurlCltInst *inst = nullptr;
    size_t blocksOfInstance = 0;
};

/* --- a server ---------------------------------------------------------------------------------- */

/* Answers every request on 127.0.0.1 with the same bytes and closes; an empty reply is silence. */
class LoopbackServer
{
  public:
    explicit LoopbackServer(std::string reply) : m_reply(std::move(reply)), m_stop(eventfd(0, 0))
    {
        m_listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(m_listener, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(m_listener, 16) != 0 ||
            getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            ADD_FAILURE() << "no loopback port";
        }
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { Run(); });
    }

    ~LoopbackServer()
    {
        const uint64_t one = 1;
        EXPECT_EQ(static_cast<ssize_t>(sizeof(one)), write(m_stop, &one, sizeof(one)));
        m_thread.join();
        for (const int fd : m_silent) {
            close(fd);
        }
        close(m_listener);
        close(m_stop);
    }

    LoopbackServer(const LoopbackServer &) = delete;
    LoopbackServer &operator=(const LoopbackServer &) = delete;

    std::string Url(const std::string &path = "/") const
    {
        return "http://127.0.0.1:" + std::to_string(m_port) + path;
    }

    std::vector<std::string> Requests()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

  private:
    /* Whether there is something to read, false when the server is to stop. */
    bool Readable(int fd) const
    {
        pollfd fds[2] = {{fd, POLLIN, 0}, {m_stop, POLLIN, 0}};
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
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request);
        }
        if (m_reply.empty()) {
            m_silent.push_back(fd);
            return;
        }
        send(fd, m_reply.data(), m_reply.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        while (Readable(fd) && recv(fd, chunk, sizeof(chunk), 0) > 0) {
        }
        close(fd);
    }

    void Run()
    {
        while (Readable(m_listener)) {
            const int fd = accept(m_listener, nullptr, nullptr);
            if (fd >= 0) {
                Serve(fd);
            }
        }
    }

    std::string m_reply;
    int m_stop;
    int m_listener = -1;
    uint16_t m_port = 0;
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<std::string> m_requests;
    std::vector<int> m_silent;
};

inline std::string Reply(const std::string &body)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

/* A port that refuses connections: bound, so that nobody else gets it, and not listened on. */
class ClosedPort
{
  public:
    ClosedPort() : m_fd(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(m_fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
            getsockname(m_fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            ADD_FAILURE() << "no loopback port";
        }
        m_port = ntohs(address.sin_port);
    }

    ~ClosedPort()
    {
        close(m_fd);
    }

    ClosedPort(const ClosedPort &) = delete;
    ClosedPort &operator=(const ClosedPort &) = delete;

    std::string Url() const
    {
        return "http://127.0.0.1:" + std::to_string(m_port) + "/";
    }

  private:
    int m_fd;
    uint16_t m_port = 0;
};

} // namespace fixture

#endif
