/*
 * A C++ client over the request engine: answers by value, deadlines that are kept, certificates that are checked.
 *
 *     nvrhttpcurl::Client client;
 *     nvrhttpcurl::Response answer = client.post("https://recorder.example/api", "{\"a\":1}");
 *
 * docs/client.md has its eight promises; each is described beside what keeps it. Needs C++17, Linux, threads and
 * the shared library. Besides std::bad_alloc only the constructor throws.
 */
#ifndef NVRHTTPCURL_CLIENT_HPP
#define NVRHTTPCURL_CLIENT_HPP

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "nvrhttpcurl/httpcurlclient.h"

// Named as the standard library is. NOLINTBEGIN(readability-identifier-naming)
NVRHTTPCURL_BEGIN_VISIBLE

/* The C++ client, and what it takes and returns. */
namespace nvrhttpcurl
{

/* How a request has ended. */
enum class Error {
    none,             /* an HTTP answer came, whatever its status */
    invalid_argument, /* refused before anything was sent */
    limit_reached,    /* max_requests are outstanding */
    no_memory,
    timed_out,
    connect_failed,
    tls_failed,      /* the handshake; a certificate that is refused is transfer_failed */
    transfer_failed, /* unknown host, refused certificate, cut off, and all else */
    answer_too_long, /* longer than max_answer */
    cancelled        /* by the client's destructor */
};

/* The enumerator's name in words, never null. */
inline const char *to_string(Error error) noexcept
{
    static constexpr const char *words[] = {
        "none",           "invalid argument", "limit reached",   "no memory",       "timed out",
        "connect failed", "TLS failed",       "transfer failed", "answer too long", "cancelled"};
    const std::size_t index = static_cast<std::size_t>(error);
    return index < std::size(words) ? words[index] : "unknown error";
}

/* What came of a request. */
struct Response {
    Error error = Error::none;            /* none: an HTTP answer came, as far as libcurl can tell whole */
    int status = 0;                       /* HTTP status; 0 where no answer came */
    std::string body = {};                /* without headers; empty unless error is none */
    std::chrono::milliseconds elapsed{0}; /* submission to completion */

    /* An answer came, with a status of success. */
    bool ok() const noexcept
    {
        return error == Error::none && status >= 200 && status <= 299;
    }
};

/* What to send, and how long to wait. The client takes a copy, or the request itself where it is moved. */
struct Request {
    std::string url = {};        /* http:// or https://, in any case of letters */
    std::string body = {};       /* sent as it is; may be empty and may hold any byte */
    std::string method = "POST"; /* "POST", or "GET", whose body is not sent */
    std::vector<std::pair<std::string, std::string>> headers = {}; /* Content-Type: application/json unless given */
    std::string user_and_password = {};                            /* "user:password"; empty: none */
    std::chrono::milliseconds timeout{10000};                      /* for the whole exchange */
    std::chrono::milliseconds connect_timeout{5000};               /* for name lookup, connection and handshake */
    bool verify = true; /* check certificate and host name against libcurl's own bundle */
};

/* What a client may use. */
struct Options {
    unsigned workers = 2;             /* 1 to 16, each an engine instance with one worker task */
    unsigned max_requests = 256;      /* outstanding in the whole client, 1 to 1,000 for each worker */
    std::size_t max_answer = 1 << 20; /* longest body accepted, 1 byte to 1 GiB */
};

class Client;

namespace detail
{

using Clock = std::chrono::steady_clock;
using Header = std::pair<std::string, std::string>;

constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 24);

struct Worker;

/* A request on its way. */
struct Record {
    Client *client = nullptr;
    Worker *worker = nullptr;
    std::size_t max_answer = 0;
    Error lost = Error::none; /* why memory was refused */
    Clock::time_point start{};
    std::function<void(Response)> callback = {};
};

using Records = std::list<Record>;

struct Worker {
    HNvrHttpCurlCltInst instance = nullptr;
    std::mutex calling;             /* held during each completion */
    Records outstanding;            /* this and the following under the client's m_lock */
    Records heartbeat = Records(1); /* the record of its heartbeats */
    bool beating = false;           /* one is submitted, and its callback not yet called */
};

/* Promise 8: only one thread of the process may be in the engine's Init or Uninit. */
inline std::mutex instances_lock;

/*
 * The engine's memory. Its callbacks have no context, so each block begins with the record of the request that the
 * thread was preparing, if any. A handle is such a block: a completion finds its record without a table and a lock.
 */
struct alignas(std::max_align_t) Block {
    Records::iterator record;
};

inline thread_local const Records::iterator *preparing = nullptr;

inline Block *block_of(void *data) noexcept
{
    return static_cast<Block *>(data) - 1;
}

inline void *obtain(std::size_t size) noexcept
{
    void *block = std::malloc(sizeof(Block) + size);
    return block == nullptr ? nullptr : new (block) Block{preparing != nullptr ? *preparing : Records::iterator()} + 1;
}

/*
 * Only answers grow, each to its length and a terminator. Promise 2: one that is longer than the limit gets no memory,
 * which ends its transfer. The engine then forgets the old block: hence the free.
 */
inline void *grow(void *data, std::size_t size) noexcept
{
    Block *old = block_of(data);
    Record &record = *old->record;
    const bool fits = size - 1 <= record.max_answer;
    void *block = fits ? std::realloc(static_cast<void *>(old), sizeof(Block) + size) : nullptr;
    if (block == nullptr) {
        record.lost = fits ? Error::no_memory : Error::answer_too_long;
        std::free(old);
        return nullptr;
    }
    return static_cast<Block *>(block) + 1;
}

inline Error error_of(ENvrHttpCurlCltRet result) noexcept
{
    return result == NVRHTTPCURLCLT_OK               ? Error::none
           : result == NVRHTTPCURLCLT_NO_MEMORY      ? Error::no_memory
           : result == NVRHTTPCURLCLT_LIMIT_REACHED  ? Error::limit_reached
           : result == NVRHTTPCURLCLT_TIMED_OUT      ? Error::timed_out
           : result == NVRHTTPCURLCLT_CONNECT_FAILED ? Error::connect_failed
           : result == NVRHTTPCURLCLT_TLS_FAILED     ? Error::tls_failed
                                                     : Error::transfer_failed;
}

/* ASCII letters alone, whatever the locale. */
inline std::string in_capitals(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return text;
}

/*
 * Promise 3. The engine checks no certificate where the URL contains "https" in small letters, anywhere. So with
 * "verify" scheme and host are spelled in capitals and the word's last letter behind them as "%73"; a host in brackets
 * stays, since its zone may be a name. False for what cannot be spelled, or is no such URL.
 */
inline bool spell_url(std::string &url, bool verify)
{
    const std::string word = "https";
    const std::size_t colon = url.find("://");
    const std::string scheme = in_capitals(url.substr(0, colon));
    if (colon == std::string::npos || (scheme != "HTTP" && scheme != "HTTPS")) {
        return false;
    }
    const std::size_t begin = colon + 3;
    const std::size_t end = std::min(url.find_first_of("/?#", begin), url.size());
    const std::size_t host = begin + url.substr(begin, end - begin).rfind('@') + 1; /* begin without an '@' */
    if (host == end || url.substr(begin, host - begin).find(word) != std::string::npos) {
        return false;
    }
    if (scheme == "HTTP" || !verify) {
        url.replace(0, colon, scheme == "HTTP" ? "http" : word);
        return true;
    }
    const std::string authority = url.substr(host, end - host);
    std::string spelled = scheme + url.substr(colon, host - colon);
    spelled += authority[0] == '[' ? authority : in_capitals(authority);
    for (const char letter : url.substr(end)) {
        const std::size_t before = spelled.size() - (word.size() - 1);
        const bool ends_word = letter == 's' && spelled.compare(before, std::string::npos, "http") == 0;
        spelled += ends_word ? "%73" : std::string(1, letter);
    }
    url = std::move(spelled);
    return url.find(word) == std::string::npos;
}

inline bool has_blank_or_control(const std::string &text) noexcept
{
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; });
}

inline bool has_line_end(const std::string &text) noexcept
{
    return text.find_first_of("\r\n\0", 0, 3) != std::string::npos;
}

/* The engine cuts lines after 127 characters; libcurl drops one without value and takes one with a line end for two. */
inline bool is_valid_header(const Header &header)
{
    const auto &[name, value] = header;
    return !name.empty() && !has_blank_or_control(name) && name.find(':') == std::string::npos &&
           value.find_first_not_of(" \t\v\f") != std::string::npos && !has_line_end(value) &&
           name.size() + 1 + value.size() <= 127;
}

/*
 * Promise 4: what the engine or libcurl would cut, misread or pass on is refused before anything is sent. libcurl takes
 * texts of up to 8,000,000 characters, and nobody would report that longer credentials are not sent; line ends in them
 * would begin header lines. A request that is valid is made what the engine needs.
 */
inline bool prepare(Request &request)
{
    constexpr std::size_t longest_text = 8000000;
    constexpr std::chrono::milliseconds shortest{1};
    const auto is_type = [](const Header &header) { return in_capitals(header.first) == "CONTENT-TYPE"; };
    if (std::none_of(request.headers.begin(), request.headers.end(), is_type)) {
        request.headers.emplace_back("Content-Type", "application/json");
    }
    return spell_url(request.url, request.verify) && !has_blank_or_control(request.url) &&
           request.url.size() <= longest_text && (request.method == "POST" || request.method == "GET") &&
           request.body.size() <= UINT32_MAX &&
           std::all_of(request.headers.begin(), request.headers.end(), is_valid_header) &&
           request.user_and_password.size() <= longest_text && !has_line_end(request.user_and_password) &&
           std::min(request.timeout, request.connect_timeout) >= shortest &&
           std::max(request.timeout, request.connect_timeout) <= longest;
}

/*
 * Braces keep the order: headers before the body, which passes them to libcurl, and the method behind it, for a GET
 * that is set before is sent as a POST. Without any header the answer would begin with its own headers.
 */
inline ENvrHttpCurlCltRet set_up(HNvrHttpCurlCltReq handle, const Request &request)
{
    const std::size_t length = request.method == "POST" ? request.body.size() : 0;
    for (const Header &header : request.headers) {
        NvrHttpCurlCltSetReqHeader(handle, header.first.c_str(), header.second.c_str());
    }
    return std::max({NvrHttpCurlCltSetReqUri(handle, request.url.c_str()),
                     NvrHttpCurlCltSetAuthType(handle, request.user_and_password.empty() ? 0 : 1,
                                               request.user_and_password.c_str()),
                     NvrHttpCurlCltSetReqBody(handle, request.body.data(), static_cast<std::uint32_t>(length)),
                     NvrHttpCurlCltSetReqMethod(handle, request.method.c_str())});
}

/* After success the record may be gone. The callback's pointer would also get an unbounded copy of the answer: null. */
inline Error submit(Records::iterator record, const Request &request, PFNvrHttpCurlCltNtf on_end) noexcept
{
    HNvrHttpCurlCltReq handle = nullptr;
    preparing = &record;
    ENvrHttpCurlCltRet result = NvrHttpCurlCltReqCreat(record->worker->instance, &handle);
    result = result == NVRHTTPCURLCLT_OK ? set_up(handle, request) : result;
    preparing = nullptr;
    if (result == NVRHTTPCURLCLT_OK) {
        result = NvrHttpCurlCltProcessReq(handle, static_cast<std::uint32_t>(request.timeout.count()),
                                          static_cast<std::uint32_t>(request.connect_timeout.count()),
                                          NVRHTTPCURLCLT_MODE_ASYNC, on_end, nullptr);
    }
    if (result != NVRHTTPCURLCLT_OK && handle != nullptr) {
        NvrHttpCurlCltReqDestroy(handle);
    }
    return error_of(result);
}

/* Promise 2: a string of the answer's own length; the engine writes a terminator behind it, hence the byte more. */
inline Response read_answer(HNvrHttpCurlCltReq handle, Error error)
{
    Response answer{error};
    NvrHttpCurlCltGetRespStatCode(handle, &answer.status);
    std::uint32_t length = 0;
    if (error == Error::none) {
        answer.error = error_of(NvrHttpCurlCltGetRespBodyLen(handle, &length));
    }
    try {
        if (answer.error == Error::none) {
            answer.body.resize(std::size_t{length} + 1);
            NvrHttpCurlCltGetRespBody(handle, answer.body.data(), &++length);
            answer.body.pop_back();
        }
    } catch (const std::bad_alloc &) {
        answer.error = Error::no_memory;
    }
    return answer;
}

/* Promise 6: an exception that leaves the callback ends the program, on whatever thread this is. */
inline void complete(const Record &record, Response answer) noexcept
{
    answer.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - record.start);
    record.callback(std::move(answer));
}

} // namespace detail

/*
 * Sends requests, from any number of threads, and completes each exactly once.
 *
 * Promise 8: all members but the destructor may be called from any thread.
 */
class Client
{
  public:
    /* Throws std::invalid_argument for options out of range, std::runtime_error where the engine cannot be started. */
    explicit Client(const Options &options = Options()) : m_options(options)
    {
        try {
            start();
        } catch (...) {
            stop();
            throw;
        }
    }

    /*
     * Promise 7: completes what is outstanding with "cancelled", on this thread. Takes about 50 ms for each worker,
     * plus callbacks and name lookups in progress.
     */
    ~Client()
    {
        stop();
    }

    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /*
     * Waits for the answer, up to the request's time-out. Trap: never call it in a callback, whose worker would wait
     * for itself.
     */
    Response send(Request request)
    {
        return send_async(std::move(request)).get();
    }

    /* Returns at once. The future gets each outcome as a Response, and never an exception. */
    std::future<Response> send_async(Request request)
    {
        auto promise = std::make_shared<std::promise<Response>>();
        std::future<Response> future = promise->get_future();
        send_async(std::move(request), [promise](Response answer) { promise->set_value(std::move(answer)); });
        return future;
    }

    /*
     * The callback runs on a worker, or, where nothing is sent, before this returns. It may send again, must not
     * destroy the client, and holds up its worker as long as it runs. With an empty callback nothing is sent.
     */
    void send_async(Request request, std::function<void(Response)> callback)
    {
        if (!callback) {
            return;
        }
        Records record;
        record.push_back({this, nullptr, m_options.max_answer, Error::none, detail::Clock::now(), std::move(callback)});
        const Error error = detail::prepare(request) ? submit(record, request) : Error::invalid_argument;
        if (error != Error::none) {
            detail::complete(record.front(), {error});
        }
    }

    /* A POST with the other settings as Request has them; waits as send does. */
    Response post(std::string url, std::string json)
    {
        return send({std::move(url), std::move(json)});
    }

    /* The same without waiting. */
    std::future<Response> post_async(std::string url, std::string json)
    {
        return send_async({std::move(url), std::move(json)});
    }

    /* How many requests have not been answered yet. A request's own callback no longer counts it. */
    std::size_t outstanding() const noexcept
    {
        return m_outstanding;
    }

  private:
    using Lock = std::unique_lock<std::mutex>;
    using Records = detail::Records;
    using Worker = detail::Worker;

    /*
     * Promise 5: a place with the worker that has the fewest requests; it never has more than 1,000, while the engine's
     * limit is 1,024 and the heartbeat takes one.
     */
    Error take_place(Records &record) noexcept
    {
        const Lock lock(m_lock);
        if (m_stopping || m_outstanding >= m_options.max_requests) {
            return m_stopping ? Error::cancelled : Error::limit_reached;
        }
        Worker &worker = *std::min_element(m_workers.begin(), m_workers.end(), [](const Worker &a, const Worker &b) {
            return a.outstanding.size() < b.outstanding.size();
        });
        record.front().worker = &worker;
        worker.outstanding.splice(worker.outstanding.end(), record);
        if (++m_outstanding == 1) {
            m_wake.notify_one();
        }
        return Error::none;
    }

    /* Promise 1: from here on the record is the caller's, who completes it. */
    Records give_place(Records::iterator record) noexcept
    {
        Records owner;
        const Lock lock(m_lock);
        owner.splice(owner.end(), record->worker->outstanding, record);
        --m_outstanding;
        return owner;
    }

    /* The gate keeps the destructor from ending a worker to which another thread is submitting. */
    Error submit(Records &record, const Request &request) noexcept
    {
        const std::shared_lock<std::shared_mutex> gate(m_gate);
        const Records::iterator place = record.begin();
        Error error = take_place(record);
        if (error == Error::none) {
            error = detail::submit(place, request, on_end);
            if (error != Error::none) {
                record = give_place(place);
            }
        }
        return error;
    }

    /*
     * Promise 1: called exactly once for each request that the engine has accepted. Promise 6: the request is gone and
     * its place free before the callback starts. Promise 7: once the client is stopping, the destructor completes it.
     */
    static std::uint32_t on_end(HNvrHttpCurlCltReq handle, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet result,
                                void *) noexcept
    {
        const Records::iterator record = detail::block_of(handle)->record;
        const Lock calling(record->worker->calling);
        if (record->client->m_stopping) {
            return 0;
        }
        const Error error = record->lost != Error::none ? record->lost : detail::error_of(result);
        Response answer = detail::read_answer(handle, error);
        NvrHttpCurlCltReqDestroy(handle);
        const Records owner = record->client->give_place(record);
        detail::complete(*record, std::move(answer));
        return 0;
    }

    /*
     * Promise 1, in time: a worker acts on libcurl's timers, the time-out of a silent server among them, only when a
     * transfer has something to read or write or a request is submitted. So while it has requests, the client's one
     * own thread submits a cheap one every 20 ms, the heartbeat, but not before the callback of the last.
     */
    void beat(Worker &worker) noexcept
    {
        worker.beating = worker.beating || detail::submit(worker.heartbeat.begin(), m_beat, on_beat) == Error::none;
    }

    static std::uint32_t on_beat(HNvrHttpCurlCltReq handle, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet result,
                                 void *) noexcept
    {
        const Records::iterator record = detail::block_of(handle)->record;
        NvrHttpCurlCltReqDestroy(handle);
        const Lock lock(record->client->m_lock);
        record->worker->beating = false;
        record->client->m_has_beat = result == NVRHTTPCURLCLT_OK;
        return 0;
    }

    /* With nothing outstanding it sleeps. */
    void keep_beating() noexcept
    {
        Lock lock(m_lock);
        while (!m_stopping) {
            m_wake.wait(lock, [this] { return m_stopping || m_outstanding != 0; });
            m_wake.wait_for(lock, std::chrono::milliseconds(20), [this] { return m_stopping.load(); });
            answer_beats();
            for (Worker &worker : m_workers) {
                if (!worker.outstanding.empty()) {
                    beat(worker);
                }
            }
        }
    }

    /*
     * Heartbeats read /dev/null. A libcurl without the file protocol gets them over http, from a port of the client's
     * own: one connection of each worker, and some more while those are replaced.
     */
    void listen()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sockaddr *name = reinterpret_cast<sockaddr *>(&address);
        socklen_t length = sizeof(address);
        m_sockets.reserve(1 + 4 * m_workers.size());
        m_sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (bind(m_sockets[0], name, length) == 0 && ::listen(m_sockets[0], SOMAXCONN) == 0 &&
            getsockname(m_sockets[0], name, &length) == 0) {
            m_beat.url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
        }
    }

    /* Each heartbeat is so short that it comes in one piece. Nothing is done where none goes over http. */
    void answer_beats() noexcept
    {
        static constexpr char answer[] = "HTTP/1.1 204 No Content\r\n\r\n";
        int fd = 0;
        while (fd >= 0 && m_sockets.size() < m_sockets.capacity()) {
            fd = accept4(m_sockets[0], nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            m_sockets.insert(m_sockets.end(), fd >= 0 ? 1 : 0, fd);
        }
        for (std::size_t i = m_sockets.size(); i-- > 1;) {
            char request[1000];
            const ssize_t length = recv(m_sockets[i], request, sizeof(request), 0);
            if (length > 0) {
                ::send(m_sockets[i], answer, sizeof(answer) - 1, MSG_NOSIGNAL);
            } else if (length == 0 || errno != EAGAIN) {
                close(m_sockets[i]);
                m_sockets.erase(m_sockets.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
    }

    /* Whether a heartbeat ends well within 5 s, and one over http at the client's own port, not at a proxy's. */
    bool can_beat(Lock &lock) noexcept
    {
        Worker &worker = m_workers.front();
        beat(worker);
        for (int waits = 0; worker.beating && waits < 5000; ++waits) {
            m_wake.wait_for(lock, std::chrono::milliseconds(1));
            answer_beats();
        }
        return m_has_beat && m_sockets.size() != 1;
    }

    /* The first heartbeat also makes libcurl set itself up, before threads race to do so. */
    void start()
    {
        if (m_options.workers < 1 || m_options.workers > NVRHTTPCURLCLT_MAX_INSTANCES || m_options.max_requests < 1 ||
            m_options.max_requests > m_options.workers * 1000 || m_options.max_answer < 1 ||
            m_options.max_answer > 1 << 30) {
            throw std::invalid_argument("nvrhttpcurl::Options: workers are 1 to 16, max_requests 1 to 1,000 for each "
                                        "of them, max_answer 1 byte to 1 GiB");
        }
        m_workers = std::vector<Worker>(m_options.workers);
        const Lock instances(detail::instances_lock);
        Lock lock(m_lock);
        for (Worker &worker : m_workers) {
            start_worker(worker);
        }
        if (!can_beat(lock)) {
            listen();
            if (!can_beat(lock)) {
                throw std::runtime_error("nvrhttpcurl::Client: failed, time-outs need a file:///dev/null or a "
                                         "http://127.0.0.1 that libcurl can read");
            }
        }
        m_beat_thread = std::thread(&Client::keep_beating, this);
    }

    void start_worker(Worker &worker)
    {
        static constexpr TNvrHttpCurlCltInitParam param = {1, NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS};
        static constexpr TNvrHttpCurlCltMemCB memory = {detail::obtain, detail::grow,
                                                        [](void *data) { std::free(detail::block_of(data)); }};
        worker.heartbeat.front().client = this;
        worker.heartbeat.front().worker = &worker;
        const ENvrHttpCurlCltRet result = NvrHttpCurlCltInit(&param, &memory, &worker.instance);
        if (result != NVRHTTPCURLCLT_OK) {
            throw std::runtime_error(std::string("nvrhttpcurl::Client: ") +
                                     (result == NVRHTTPCURLCLT_LIMIT_REACHED ? "limit reached, 16 instances are in use"
                                      : result == NVRHTTPCURLCLT_NO_MEMORY
                                          ? "no memory"
                                          : "failed, no thread, loopback port or libcurl handle"));
        }
    }

    /*
     * Promise 7. First ends what could still submit: sends, the beat thread, callbacks in progress. Later ends call
     * nobody back, so that no other client waits for a callback of this one while its workers end.
     */
    void stop() noexcept
    {
        Lock lock(m_lock);
        m_stopping = true;
        lock.unlock();
        m_wake.notify_one();
        std::unique_lock<std::shared_mutex>(m_gate).unlock();
        if (m_beat_thread.joinable()) {
            m_beat_thread.join();
        }
        for (Worker &worker : m_workers) {
            const Lock callback_in_progress(worker.calling);
        }
        for (Worker &worker : m_workers) {
            if (worker.instance != nullptr) {
                const Lock instances(detail::instances_lock);
                NvrHttpCurlCltUninit(worker.instance);
            }
        }
        std::for_each(m_sockets.begin(), m_sockets.end(), close);
        for (Worker &worker : m_workers) {
            while (!worker.outstanding.empty()) {
                detail::complete(give_place(worker.outstanding.begin()).front(), {Error::cancelled});
            }
        }
    }

    const Options m_options;
    Request m_beat{"file:///dev/null", "", "GET", {{"Accept", "*/*"}}, "", detail::longest, detail::longest};
    std::vector<Worker> m_workers;
    std::shared_mutex m_gate; /* shared by submissions */
    std::mutex m_lock;        /* for what follows; what is atomic is read without it, too */
    std::atomic<std::size_t> m_outstanding{0};
    std::atomic<bool> m_stopping{false};
    bool m_has_beat = false; /* the last heartbeat ended well */
    std::condition_variable m_wake;
    std::vector<int> m_sockets; /* for heartbeats over http: the port's and its connections' */
    std::thread m_beat_thread;
};

} // namespace nvrhttpcurl

NVRHTTPCURL_END_VISIBLE
// NOLINTEND(readability-identifier-naming)

#endif
