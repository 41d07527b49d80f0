/*
 * A C++ client over the request engine: answers by value, deadlines that are kept, certificates that are checked.
 *
 *     nvrhttpcurl::Client client;
 *     nvrhttpcurl::Response answer = client.post("https://recorder.example/api", "{\"a\":1}");
 *
 * What it promises is described beside what keeps it; docs/client.md has the whole. Needs C++17, threads and the shared
 * library. Besides std::bad_alloc only the constructor throws.
 */
#ifndef NVRHTTPCURL_CLIENT_HPP
#define NVRHTTPCURL_CLIENT_HPP

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <iterator>
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

NVRHTTPCURL_BEGIN_VISIBLE

namespace nvrhttpcurl
{

enum class Error {
    none,
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

struct Response {
    Error error = Error::none;            /* none: an HTTP answer came, as far as libcurl can tell whole */
    int status = 0;                       /* HTTP status; 0 where no answer came */
    std::string body;                     /* without headers; empty unless error is none */
    std::chrono::milliseconds elapsed{0}; /* submission to completion */

    bool ok() const noexcept
    {
        return error == Error::none && status >= 200 && status <= 299;
    }
};

struct Request {
    std::string url; /* http:// or https://, in any case of letters */
    std::string body;
    std::string method = "POST";                              /* "POST", or "GET", whose body is not sent */
    std::vector<std::pair<std::string, std::string>> headers; /* Content-Type: application/json unless given */
    std::string user_and_password;                            /* "user:password"; empty: none */
    std::chrono::milliseconds timeout{10000};                 /* for the whole exchange */
    std::chrono::milliseconds connect_timeout{5000};
    bool verify = true; /* check certificate and host name against libcurl's own bundle */
};

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

/* The engine's limit is 1,024; the heartbeat takes one. */
constexpr unsigned requests_per_worker = 1000;

struct Worker;

/* A request on its way, from its submission to its completion. */
struct Record {
    Client *client = nullptr;
    Worker *worker = nullptr;
    HNvrHttpCurlCltReq request = nullptr;
    std::size_t max_answer = 0;
    Error lost = Error::none; /* why memory was refused */
    Clock::time_point start{};
    std::function<void(Response)> callback{};
    Record *next = nullptr;
};

struct Worker {
    HNvrHttpCurlCltInst instance = nullptr;
    std::atomic<unsigned> outstanding{0};
    std::mutex calling;          /* held during each completion */
    Record *cancelled = nullptr; /* requests that were released without completion */
    Record beat;                 /* the heartbeat, under the client's m_beat_lock */
    bool beating = false;        /* likewise: submitted, and its callback not yet called */
};

/* Promise 8: only one thread of the process may be in the engine's Init or Uninit. */
inline std::mutex instances_lock;

/*
 * The engine's memory. Its callbacks have no context, so each block begins with the record of the request for which it
 * was obtained: the one that the thread is preparing, or none. A request's handle is such a block; its completion
 * finds the record without a table and without a lock.
 */
struct alignas(std::max_align_t) Block {
    Record *record;
};

inline thread_local Record *preparing = nullptr;

inline Block *block_of(void *data) noexcept
{
    return static_cast<Block *>(data) - 1;
}

inline void *obtain(std::size_t size) noexcept
{
    Block *block = static_cast<Block *>(std::malloc(sizeof(Block) + size));
    if (block == nullptr) {
        return nullptr;
    }
    block->record = preparing;
    return block + 1;
}

/*
 * Only answers grow, each to its length and a terminator. Promise 2: one that is longer than the limit gets no memory,
 * which ends its transfer. The engine then forgets the old block, so it is released here.
 */
inline void *grow(void *data, std::size_t size) noexcept
{
    Block *old = block_of(data);
    Record *record = old->record;
    const bool fits = size - 1 <= record->max_answer;
    Block *block = fits ? static_cast<Block *>(std::realloc(old, sizeof(Block) + size)) : nullptr;
    if (block == nullptr) {
        record->lost = fits ? Error::no_memory : Error::answer_too_long;
        std::free(old);
        return nullptr;
    }
    return block + 1;
}

/*
 * Promise 7: a handle that is released while its record still names it ends without completion, for the client is being
 * destroyed. The destructor completes it: the worker's thread, or the one that has waited for its end, leaves it there.
 */
inline void release(void *data) noexcept
{
    Block *block = block_of(data);
    Record *record = block->record;
    if (record != nullptr && record->request == data) {
        record->request = nullptr;
        record->next = std::exchange(record->worker->cancelled, record);
    }
    std::free(block);
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
 * Promise 3. The engine checks no certificate where the URL contains "https" in small letters, wherever that is. So
 * with "verify" scheme and host are spelled in capitals, and behind them one letter of the word is percent-encoded; a
 * host in brackets stays, since its zone may be a name. Without "verify" the scheme is spelled in small letters. False
 * for what cannot be spelled, or is no such URL.
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
    const std::size_t host = begin + url.substr(begin, end - begin).rfind('@') + 1; /* begin where there is no '@' */
    if (host == end || url.substr(begin, host - begin).find(word) != std::string::npos) {
        return false;
    }
    if (scheme == "HTTP" || !verify) {
        url.replace(0, colon, scheme == "HTTP" ? "http" : word);
        return true;
    }
    url.replace(0, colon, scheme);
    if (url[host] != '[') {
        url.replace(host, end - host, in_capitals(url.substr(host, end - host)));
    }
    for (std::size_t at = end; (at = url.find(word, at)) != std::string::npos;) {
        url.replace(at, word.size(), "http%73");
    }
    return url.find(word) == std::string::npos;
}

inline bool is_blank_or_control(char c) noexcept
{
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7f';
}

/* The engine cuts lines after 127 characters; libcurl drops one without value and takes one with a line end for two. */
inline bool is_valid_header(const Header &header)
{
    static const std::string line_ends("\r\n\0", 3);
    const auto &[name, value] = header;
    return !name.empty() && name.size() + 1 + value.size() <= 127 && name.find(':') == std::string::npos &&
           std::none_of(name.begin(), name.end(), is_blank_or_control) &&
           value.find_first_of(line_ends) == std::string::npos &&
           !std::all_of(value.begin(), value.end(), is_blank_or_control);
}

/*
 * Promise 4: what the engine or libcurl would cut, misread or pass on is refused before anything is sent. libcurl takes
 * texts of up to 8,000,000 characters; nobody would report that longer credentials are not sent.
 */
inline bool is_valid(const Request &request)
{
    constexpr std::chrono::milliseconds shortest{1};
    constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 24);
    return std::none_of(request.url.begin(), request.url.end(), is_blank_or_control) && request.url.size() <= 8000000 &&
           (request.method == "POST" || request.method == "GET") && request.body.size() <= UINT32_MAX &&
           std::all_of(request.headers.begin(), request.headers.end(), is_valid_header) &&
           request.user_and_password.size() <= 8000000 && request.user_and_password.find('\0') == std::string::npos &&
           request.timeout >= shortest && request.timeout <= longest && request.connect_timeout >= shortest &&
           request.connect_timeout <= longest;
}

/* Makes of a request what the engine needs; false if it is not valid. */
inline bool prepare(Request &request)
{
    const auto is_type = [](const Header &header) { return in_capitals(header.first) == "CONTENT-TYPE"; };
    if (std::none_of(request.headers.begin(), request.headers.end(), is_type)) {
        request.headers.emplace_back("Content-Type", "application/json");
    }
    return spell_url(request.url, request.verify) && is_valid(request);
}

/*
 * Braces keep the order: headers before the body, which passes them to libcurl, and the method behind it, for a GET
 * that is set before is sent as a POST. There is always a header: without any, the answer would begin with its own
 * headers.
 */
inline ENvrHttpCurlCltRet set_up(HNvrHttpCurlCltReq handle, const Request &request)
{
    const bool is_post = request.method == "POST";
    for (const Header &header : request.headers) {
        NvrHttpCurlCltSetReqHeader(handle, header.first.c_str(), header.second.c_str());
    }
    return std::max({NvrHttpCurlCltSetReqUri(handle, request.url.c_str()),
                     NvrHttpCurlCltSetAuthType(handle, request.user_and_password.empty() ? 0 : 1,
                                               request.user_and_password.c_str()),
                     NvrHttpCurlCltSetReqBody(handle, request.body.data(),
                                              is_post ? static_cast<std::uint32_t>(request.body.size()) : 0),
                     NvrHttpCurlCltSetReqMethod(handle, request.method.c_str())});
}

/* Destroys the record's request, if it has one; it no longer counts as one that ends without completion. */
inline void drop(Record &record) noexcept
{
    if (HNvrHttpCurlCltReq handle = std::exchange(record.request, nullptr)) {
        NvrHttpCurlCltReqDestroy(handle);
    }
}

/*
 * Makes the record's request where there is none, and submits it; after success the record may be gone. The pointer
 * for the callback would also be the target of an unbounded copy of the answer, hence null.
 */
inline Error submit(Record &record, const Request &request, PFNvrHttpCurlCltNtf on_end) noexcept
{
    ENvrHttpCurlCltRet result = NVRHTTPCURLCLT_OK;
    if (record.request == nullptr) {
        preparing = &record;
        result = NvrHttpCurlCltReqCreat(record.worker->instance, &record.request);
        result = result == NVRHTTPCURLCLT_OK ? set_up(record.request, request) : result;
        preparing = nullptr;
    }
    if (result == NVRHTTPCURLCLT_OK) {
        result = NvrHttpCurlCltProcessReq(record.request, static_cast<std::uint32_t>(request.timeout.count()),
                                          static_cast<std::uint32_t>(request.connect_timeout.count()),
                                          NVRHTTPCURLCLT_MODE_ASYNC, on_end, nullptr);
    }
    if (result != NVRHTTPCURLCLT_OK) {
        drop(record);
    }
    return error_of(result);
}

/* Promise 2: a string of the answer's own length; the engine writes a terminator behind it, hence the byte more. */
inline Response read_answer(const Record &record, ENvrHttpCurlCltReqProgress progress, ENvrHttpCurlCltRet result)
{
    Response answer;
    NvrHttpCurlCltGetRespStatCode(record.request, &answer.status);
    answer.error = record.lost != Error::none ? record.lost : error_of(result);
    if (answer.error != Error::none) {
        return answer;
    }
    std::uint32_t length = 0;
    if (progress != NVRHTTPCURLCLT_PROGRESS_FINISHED ||
        NvrHttpCurlCltGetRespBodyLen(record.request, &length) != NVRHTTPCURLCLT_OK) {
        answer.error = Error::transfer_failed;
        return answer;
    }
    try {
        answer.body.resize(std::size_t{length} + 1);
        NvrHttpCurlCltGetRespBody(record.request, answer.body.data(), &++length);
        answer.body.pop_back();
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

inline const Options &checked(const Options &options)
{
    if (options.workers < 1 || options.workers > NVRHTTPCURLCLT_MAX_INSTANCES || options.max_requests < 1 ||
        options.max_requests > options.workers * requests_per_worker || options.max_answer < 1 ||
        options.max_answer > std::size_t{1} << 30) {
        throw std::invalid_argument("nvrhttpcurl::Options: workers are 1 to 16, max_requests 1 to 1,000 for each of "
                                    "them, max_answer 1 byte to 1 GiB");
    }
    return options;
}

} // namespace detail

/* Promise 8: all members but the destructor may be called from any thread. */
class Client
{
  public:
    /* Throws std::invalid_argument for options out of range, std::runtime_error where the engine cannot be started. */
    explicit Client(const Options &options = Options())
        : m_options(detail::checked(options)), m_workers(options.workers)
    {
        try {
            start();
        } catch (...) {
            stop();
            throw;
        }
    }

    /*
     * Promise 7: stops the workers, about 50 ms for each, plus callbacks and name lookups in progress; then completes
     * what was outstanding with "cancelled", on its own thread.
     */
    ~Client()
    {
        stop();
    }

    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /* Waits for the answer. Not for callbacks, whose worker would wait for itself. */
    Response send(Request request)
    {
        return send_async(std::move(request)).get();
    }

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
        auto record = std::make_unique<detail::Record>();
        record->client = this;
        record->max_answer = m_options.max_answer;
        record->start = detail::Clock::now();
        record->callback = std::move(callback);
        Response refusal;
        refusal.error = detail::prepare(request) ? submit(*record, request) : Error::invalid_argument;
        if (refusal.error == Error::none) {
            static_cast<void>(record.release()); /* its completion deletes it, or has */
        } else {
            detail::complete(*record, std::move(refusal));
        }
    }

    Response post(std::string url, std::string json)
    {
        return post_async(std::move(url), std::move(json)).get();
    }

    std::future<Response> post_async(std::string url, std::string json)
    {
        Request request;
        request.url = std::move(url);
        request.body = std::move(json);
        return send_async(std::move(request));
    }

    std::size_t outstanding() const noexcept
    {
        return m_outstanding.load();
    }

  private:
    /* Promise 5: a place with the worker that has the fewest requests; false if all are taken. */
    bool take_place(detail::Record &record) noexcept
    {
        const std::lock_guard<std::mutex> lock(m_places);
        if (m_outstanding >= m_options.max_requests) {
            return false;
        }
        record.worker = &*std::min_element(m_workers.begin(), m_workers.end(), [](const auto &a, const auto &b) {
            return a.outstanding.load() < b.outstanding.load();
        });
        ++record.worker->outstanding;
        ++m_outstanding;
        return true;
    }

    /* The worker's count is the first to be lowered: while the client has a place, one of its workers has one. */
    void give_place(detail::Worker &worker) noexcept
    {
        --worker.outstanding;
        --m_outstanding;
    }

    /* The gate keeps the destructor from ending a worker to which a callback of another one is submitting. */
    Error submit(detail::Record &record, const Request &request) noexcept
    {
        const std::shared_lock<std::shared_mutex> gate(m_gate);
        if (m_stopping) {
            return Error::cancelled;
        }
        if (!take_place(record)) {
            return Error::limit_reached;
        }
        detail::Worker &worker = *record.worker;
        const Error error = detail::submit(record, request, on_end);
        if (error != Error::none) {
            give_place(worker);
        } else if (m_asleep) {
            wake_beat_thread();
        }
        return error;
    }

    /*
     * Promise 1: called exactly once for each request that the engine has accepted. Promise 6: the request is gone and
     * its place free before the callback starts. While the client is being destroyed, "release" keeps the record.
     */
    static std::uint32_t on_end(HNvrHttpCurlCltReq handle, ENvrHttpCurlCltReqProgress progress,
                                ENvrHttpCurlCltRet result, void *) noexcept
    {
        detail::Record *record = detail::block_of(handle)->record;
        detail::Worker &worker = *record->worker;
        const std::lock_guard<std::mutex> calling(worker.calling);
        if (record->client->m_stopping) {
            NvrHttpCurlCltReqDestroy(handle);
            return 0;
        }
        const std::unique_ptr<detail::Record> owner(record);
        Response answer = detail::read_answer(*record, progress, result);
        detail::drop(*record);
        record->client->give_place(worker);
        detail::complete(*record, std::move(answer));
        return 0;
    }

    /*
     * Promise 1, in time: a worker drives its transfers when one of them has something to read or write, or when a
     * request is submitted to it. Timers of libcurl, the time-out of a silent server among them, wait for that. So
     * while a worker has requests, the client's one own thread submits a cheap one to it every 20 ms, the heartbeat;
     * the same one again, but never before its last callback. What fails for lack of memory is made anew with the next
     * beat.
     */
    void beat(detail::Worker &worker) noexcept
    {
        worker.beating = detail::submit(worker.beat, m_beat, on_beat) == Error::none;
    }

    static std::uint32_t on_beat(HNvrHttpCurlCltReq handle, ENvrHttpCurlCltReqProgress progress, ENvrHttpCurlCltRet,
                                 void *) noexcept
    {
        const detail::Record &record = *detail::block_of(handle)->record;
        const std::lock_guard<std::mutex> lock(record.client->m_beat_lock);
        record.worker->beating = false;
        record.client->m_beats += progress == NVRHTTPCURLCLT_PROGRESS_FINISHED ? 1 : 0;
        record.client->m_beaten.notify_one();
        return 0;
    }

    /* With nothing outstanding it sleeps. It announces that before it reads the count, which submissions raise first.
     */
    void keep_beating() noexcept
    {
        std::unique_lock<std::mutex> lock(m_beat_lock);
        while (!m_stopping) {
            m_asleep = true;
            m_wake.wait(lock, [this] { return m_stopping || m_outstanding != 0; });
            m_asleep = false;
            m_wake.wait_for(lock, std::chrono::milliseconds(20), [this] { return m_stopping.load(); });
            for (detail::Worker &worker : m_workers) {
                if (worker.outstanding != 0 && !worker.beating) {
                    beat(worker);
                }
            }
        }
    }

    /* The lock: not between that thread's look and its sleep. */
    void wake_beat_thread() noexcept
    {
        const std::lock_guard<std::mutex> lock(m_beat_lock);
        m_wake.notify_one();
    }

    /* The first beats show that they work, and make libcurl set itself up before threads race to do so. */
    void start()
    {
        std::unique_lock<std::mutex> lock(m_beat_lock);
        for (detail::Worker &worker : m_workers) {
            start_worker(worker);
        }
        if (!m_beaten.wait_for(lock, std::chrono::seconds(5), [this] { return m_beats == m_workers.size(); })) {
            throw std::runtime_error(
                "nvrhttpcurl::Client: failed, time-outs need a file:///dev/null that libcurl can read");
        }
        m_beat_thread = std::thread(&Client::keep_beating, this);
    }

    void start_worker(detail::Worker &worker)
    {
        static constexpr TNvrHttpCurlCltInitParam param = {1, NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS};
        static constexpr TNvrHttpCurlCltMemCB memory = {detail::obtain, detail::grow, detail::release};
        const std::lock_guard<std::mutex> lock(detail::instances_lock);
        const ENvrHttpCurlCltRet result = NvrHttpCurlCltInit(&param, &memory, &worker.instance);
        if (result != NVRHTTPCURLCLT_OK) {
            throw std::runtime_error(result == NVRHTTPCURLCLT_LIMIT_REACHED
                                         ? "nvrhttpcurl::Client: limit reached, 16 instances are in use"
                                     : result == NVRHTTPCURLCLT_NO_MEMORY
                                         ? "nvrhttpcurl::Client: no memory"
                                         : "nvrhttpcurl::Client: failed, no thread, loopback port or libcurl handle");
        }
        worker.beat.client = this;
        worker.beat.worker = &worker;
        beat(worker);
    }

    /*
     * First ends what could still submit: sends, the beat thread, callbacks in progress. Later ends of requests call
     * nobody back, so that no other client waits for a callback of this one while its workers end.
     */
    void stop() noexcept
    {
        m_stopping = true;
        std::unique_lock<std::shared_mutex>(m_gate).unlock();
        wake_beat_thread();
        if (m_beat_thread.joinable()) {
            m_beat_thread.join();
        }
        for (detail::Worker &worker : m_workers) {
            const std::lock_guard<std::mutex> callback_in_progress(worker.calling);
        }
        for (detail::Worker &worker : m_workers) {
            stop_worker(worker);
        }
        for (detail::Worker &worker : m_workers) {
            cancel_all(worker);
        }
    }

    /* Uninit releases all requests of the worker. Nobody waits for its heartbeat. */
    static void stop_worker(detail::Worker &worker) noexcept
    {
        if (worker.instance != nullptr) {
            const std::lock_guard<std::mutex> lock(detail::instances_lock);
            worker.beat.request = nullptr;
            NvrHttpCurlCltUninit(worker.instance);
        }
    }

    void cancel_all(detail::Worker &worker) noexcept
    {
        while (worker.cancelled != nullptr) {
            const std::unique_ptr<detail::Record> record(worker.cancelled);
            worker.cancelled = record->next;
            give_place(worker);
            Response answer;
            answer.error = Error::cancelled;
            detail::complete(*record, std::move(answer));
        }
    }

    const Options m_options;
    const Request m_beat{"file:///dev/null", "", "GET", {{"Accept", "*/*"}}, ""};
    std::vector<detail::Worker> m_workers;
    std::mutex m_places;
    std::atomic<std::size_t> m_outstanding{0}; /* raised under m_places */
    std::atomic<bool> m_stopping{false};
    std::shared_mutex m_gate; /* shared by submissions */
    std::mutex m_beat_lock;
    std::size_t m_beats = 0;           /* heartbeats that ended well, under m_beat_lock */
    std::condition_variable m_beaten;  /* for the constructor */
    std::condition_variable m_wake;    /* for the beat thread */
    std::atomic<bool> m_asleep{false}; /* the beat thread, or about to be */
    std::thread m_beat_thread;
};

} // namespace nvrhttpcurl

NVRHTTPCURL_END_VISIBLE

#endif
