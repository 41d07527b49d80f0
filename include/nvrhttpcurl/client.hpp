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
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <system_error>
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
    static constexpr const char *names[] = {
        "none",           "invalid argument", "limit reached",   "no memory",       "timed out",
        "connect failed", "TLS failed",       "transfer failed", "answer too long", "cancelled"};
    const std::size_t index = static_cast<std::size_t>(error);
    return index < sizeof(names) / sizeof(names[0]) ? names[index] : "unknown error";
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

constexpr std::chrono::milliseconds beat_interval{20};
constexpr std::chrono::seconds start_limit{5};
constexpr std::chrono::milliseconds longest_timeout = std::chrono::hours(24 * 24);
constexpr std::size_t longest_header = 127;
constexpr std::size_t longest_text = 8000000; /* libcurl's own limit; credentials beyond it are silently not sent */
constexpr std::size_t longest_answer = std::size_t{1} << 30;
constexpr unsigned most_workers = NVRHTTPCURLCLT_MAX_INSTANCES;
constexpr unsigned requests_per_worker = 1000; /* the engine's limit, less the heartbeat and some to spare */

struct Worker;

/* A request on its way: from the call that submits it to its completion. */
struct Record {
    Client *client = nullptr;
    Worker *worker = nullptr;
    HNvrHttpCurlCltReq request = nullptr;
    std::size_t max_answer = 0;
    Error lost = Error::none; /* why a block was refused */
    Clock::time_point start{};
    std::function<void(Response)> callback{};
    Record *next = nullptr;
};

struct Worker {
    HNvrHttpCurlCltInst instance = nullptr;
    std::atomic<unsigned> outstanding{0};
    std::mutex calling;          /* held around each completion */
    Record *cancelled = nullptr; /* requests that ended without completion, see release */
    Record beat;                 /* the heartbeat; this and the next two under the client's m_beat_lock */
    bool beating = false;        /* submitted and its callback not yet called */
    bool beat_failed = false;
};

/* Only one thread of the process may be in the engine's Init or Uninit. */
inline std::mutex instances_lock;

/*
 * The memory of the engine. Its callbacks have no context, so each block begins with the record of the request for
 * which it was obtained: the one that the thread is preparing, or none. A request's handle is such a block, hence
 * completion finds its record without a table and without a lock.
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
        if (preparing != nullptr) {
            preparing->lost = Error::no_memory;
        }
        return nullptr;
    }
    block->record = preparing;
    return block + 1;
}

/*
 * Only answers grow, each to its length and a terminator. Promise 2: one that is longer than the limit gets no memory,
 * which ends its transfer. The engine forgets the block in that case, so it is released here.
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
 * A request that is released with its record still naming it was not completed: the client is being destroyed, and
 * its destructor completes it. Nothing else names the record any more, and the worker thread or, after it has ended,
 * the destructor is the only one to do this.
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
    switch (result) {
    case NVRHTTPCURLCLT_OK:
        return Error::none;
    case NVRHTTPCURLCLT_INVALID_ARG:
        return Error::invalid_argument;
    case NVRHTTPCURLCLT_NO_MEMORY:
        return Error::no_memory;
    case NVRHTTPCURLCLT_LIMIT_REACHED:
        return Error::limit_reached;
    case NVRHTTPCURLCLT_TIMED_OUT:
        return Error::timed_out;
    case NVRHTTPCURLCLT_CONNECT_FAILED:
        return Error::connect_failed;
    case NVRHTTPCURLCLT_TLS_FAILED:
        return Error::tls_failed;
    default:
        return Error::transfer_failed;
    }
}

/* Of ASCII alone, whatever the locale. */
inline std::string in_capitals(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return text;
}

inline bool is_blank_or_control(char c) noexcept
{
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7f';
}

/*
 * Promise 3. The engine checks no certificate where the URL contains "https" in small letters anywhere. So a URL whose
 * server is to be checked must not contain it: scheme and host are spelled in capitals, behind them one letter of the
 * word is percent-encoded. A host in brackets stays: its zone is the name of an interface. Where the server is not to
 * be checked, the scheme is spelled in small letters. False for what cannot be spelled, or is no such URL.
 */
inline bool spell_url(std::string &url, bool verify)
{
    const std::string word = "https";
    const std::size_t colon = std::min(url.find("://"), url.size());
    std::string scheme = in_capitals(url.substr(0, colon));
    if ((scheme != "HTTP" && scheme != "HTTPS") || colon == url.size()) {
        return false;
    }
    const std::size_t begin = colon + 3;
    const std::size_t end = std::min(url.find_first_of("/?#", begin), url.size());
    const std::string authority = url.substr(begin, end - begin);
    const std::size_t host_begin = authority.rfind('@') + 1; /* 0 without user information */
    const std::string user = authority.substr(0, host_begin);
    std::string host = authority.substr(host_begin);
    std::string rest = url.substr(end);
    if (host.empty() || user.find(word) != std::string::npos) {
        return false;
    }
    if (scheme == "HTTP") {
        return true;
    }
    if (verify) {
        host = host.front() == '[' ? host : in_capitals(host);
        for (std::size_t at = 0; (at = rest.find(word, at)) != std::string::npos;) {
            rest.replace(at, word.size(), "http%73");
        }
    }
    url = (verify ? scheme : word) + "://" + user + host + rest;
    return !verify || url.find(word) == std::string::npos;
}

/* The engine cuts longer lines; libcurl drops a line without value and takes one with a line end for two. */
inline bool is_valid_header(const Header &header)
{
    const auto &[name, value] = header;
    static const std::string line_ends("\r\n\0", 3);
    return !name.empty() && name.size() + 1 + value.size() <= longest_header && name.find(':') == std::string::npos &&
           std::none_of(name.begin(), name.end(), is_blank_or_control) &&
           value.find_first_of(line_ends) == std::string::npos &&
           !std::all_of(value.begin(), value.end(), is_blank_or_control);
}

inline bool is_valid_timeout(std::chrono::milliseconds timeout) noexcept
{
    return timeout >= std::chrono::milliseconds(1) && timeout <= longest_timeout;
}

/* Promise 4: what the engine or libcurl would cut, misread or pass on is refused before anything is sent. */
inline bool is_valid(const Request &request)
{
    return std::none_of(request.url.begin(), request.url.end(), is_blank_or_control) &&
           request.url.size() <= longest_text && (request.method == "POST" || request.method == "GET") &&
           std::all_of(request.headers.begin(), request.headers.end(), is_valid_header) &&
           request.user_and_password.size() <= longest_text &&
           request.user_and_password.find('\0') == std::string::npos && request.body.size() <= UINT32_MAX &&
           is_valid_timeout(request.timeout) && is_valid_timeout(request.connect_timeout);
}

/*
 * Makes a valid request what the engine needs; false where it cannot. Always with a header line: without any, the
 * engine puts the answer's headers before its body.
 */
inline bool prepare(Request &request)
{
    const bool has_type = std::any_of(request.headers.begin(), request.headers.end(),
                                      [](const Header &header) { return in_capitals(header.first) == "CONTENT-TYPE"; });
    if (!has_type) {
        request.headers.emplace_back("Content-Type", "application/json");
    }
    return spell_url(request.url, request.verify) && is_valid(request);
}

/* The method comes last: a GET that is set before the body is sent as a POST. */
inline ENvrHttpCurlCltRet set_up(HNvrHttpCurlCltReq handle, const Request &request)
{
    ENvrHttpCurlCltRet result = NvrHttpCurlCltSetReqUri(handle, request.url.c_str());
    if (result == NVRHTTPCURLCLT_OK) {
        for (const Header &header : request.headers) {
            NvrHttpCurlCltSetReqHeader(handle, header.first.c_str(), header.second.c_str());
        }
    }
    if (result == NVRHTTPCURLCLT_OK) {
        const bool has_user = !request.user_and_password.empty();
        result = NvrHttpCurlCltSetAuthType(handle, has_user ? 1 : 0, request.user_and_password.c_str());
    }
    if (result == NVRHTTPCURLCLT_OK) {
        const bool is_post = request.method == "POST";
        result = NvrHttpCurlCltSetReqBody(handle, is_post ? request.body.data() : nullptr,
                                          is_post ? static_cast<std::uint32_t>(request.body.size()) : 0);
    }
    return result != NVRHTTPCURLCLT_OK ? result : NvrHttpCurlCltSetReqMethod(handle, request.method.c_str());
}

/* Destroys the record's request, of which nobody is to hear any more. */
inline void drop(Record &record) noexcept
{
    if (HNvrHttpCurlCltReq handle = std::exchange(record.request, nullptr)) {
        NvrHttpCurlCltReqDestroy(handle);
    }
}

/*
 * Makes the record's request where there is none and submits it. The pointer that the callback gets would also be the
 * target of an unbounded copy of the answer, hence null. After success the record may be gone.
 */
inline Error submit(Record &record, const Request &request, PFNvrHttpCurlCltNtf on_end)
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
    if (result == NVRHTTPCURLCLT_OK) {
        return Error::none;
    }
    drop(record);
    return record.lost != Error::none ? record.lost : error_of(result);
}

/* The engine writes a terminator behind what it is asked for, hence the byte more. */
inline std::string read_body(HNvrHttpCurlCltReq handle)
{
    std::uint32_t length = 0;
    NvrHttpCurlCltGetRespBodyLen(handle, &length);
    std::string body(std::size_t{length} + 1, '\0');
    std::uint32_t capacity = length + 1;
    NvrHttpCurlCltGetRespBody(handle, body.data(), &capacity);
    body.resize(length);
    return body;
}

inline Response read_answer(const Record &record, ENvrHttpCurlCltReqProgress progress, ENvrHttpCurlCltRet result)
{
    Response answer;
    std::int32_t status = 0;
    NvrHttpCurlCltGetRespStatCode(record.request, &status);
    answer.status = status;
    answer.error = record.lost != Error::none ? record.lost : error_of(result);
    if (answer.error == Error::none && (progress != NVRHTTPCURLCLT_PROGRESS_FINISHED || status == 0)) {
        answer.error = Error::transfer_failed;
    }
    if (answer.error == Error::none) {
        try {
            answer.body = read_body(record.request);
        } catch (const std::bad_alloc &) {
            answer.error = Error::no_memory;
        }
    }
    return answer;
}

/* Calls back. Promise 6: an exception that leaves the callback ends the program, on whatever thread. */
inline void complete(const Record &record, Response answer) noexcept
{
    answer.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - record.start);
    record.callback(std::move(answer));
}

inline const Options &checked(const Options &options)
{
    if (options.workers < 1 || options.workers > most_workers) {
        throw std::invalid_argument("nvrhttpcurl::Options: workers is not 1 to 16");
    }
    if (options.max_requests < 1 || options.max_requests > options.workers * requests_per_worker) {
        throw std::invalid_argument("nvrhttpcurl::Options: max_requests is not 1 to 1,000 for each worker");
    }
    if (options.max_answer < 1 || options.max_answer > longest_answer) {
        throw std::invalid_argument("nvrhttpcurl::Options: max_answer is not 1 byte to 1 GiB");
    }
    return options;
}

inline const char *start_failure(ENvrHttpCurlCltRet result) noexcept
{
    switch (result) {
    case NVRHTTPCURLCLT_NO_MEMORY:
        return "no memory";
    case NVRHTTPCURLCLT_LIMIT_REACHED:
        return "limit reached, all 16 instances of the process are in use";
    default:
        return "failed, a thread, semaphore, loopback port or libcurl handle could not be created";
    }
}

} // namespace detail

/*
 * Promise 8: all members but the destructor may be called from any thread, and clients may be made and destroyed on
 * several threads at once.
 */
class Client
{
  public:
    /* Throws std::invalid_argument for options out of range, std::runtime_error where the engine cannot be started. */
    explicit Client(const Options &options = Options())
        : m_options(detail::checked(options)), m_beat(beat_request()), m_workers(options.workers)
    {
        if (const char *problem = start()) {
            stop();
            throw std::runtime_error(std::string("nvrhttpcurl::Client: ") + problem);
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

    /* Waits for the answer; not for callbacks, whose worker would wait for itself. */
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
     * The callback runs on a worker, or before this returns where the request is refused. It may send again, must not
     * destroy the client, and holds its worker up as long as it runs. With an empty callback nothing is sent.
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
            static_cast<void>(record.release()); /* its completion has it, and may be over */
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
    /*
     * Promise 5: never more than max_requests, and never more than its share for a worker. The client's count is
     * raised first and lowered last, so while it leaves a place, one of the workers has one.
     */
    bool take_place(detail::Record &record) noexcept
    {
        std::size_t taken = m_outstanding.load();
        do {
            if (taken >= m_options.max_requests) {
                return false;
            }
        } while (!m_outstanding.compare_exchange_weak(taken, taken + 1));
        const auto has_fewer = [](const detail::Worker &a, const detail::Worker &b) {
            return a.outstanding.load() < b.outstanding.load();
        };
        unsigned used = 0;
        do {
            record.worker = &*std::min_element(m_workers.begin(), m_workers.end(), has_fewer);
            used = record.worker->outstanding.load();
        } while (used >= detail::requests_per_worker ||
                 !record.worker->outstanding.compare_exchange_weak(used, used + 1));
        return true;
    }

    void give_place(detail::Worker &worker) noexcept
    {
        worker.outstanding.fetch_sub(1);
        m_outstanding.fetch_sub(1);
    }

    /* The gate keeps the destructor from ending a worker to which a callback of another one is just submitting. */
    Error submit(detail::Record &record, const Request &request)
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
            wake_helper();
        }
        return error;
    }

    /*
     * Promise 1, exactly once: the engine calls this once for each request that it accepted. Promise 6: the request is
     * gone and its place free before the callback starts. Once the client is being destroyed, "release" keeps the
     * record for the destructor.
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

    /* --- promise 1, in time ------------------------------------------------------------------ */

    /*
     * A worker drives its transfers only when one of them has something to read or write, or when a request is
     * submitted to it: libcurl's timers, the time-outs of silent servers among them, would wait for that. So while
     * a worker has requests, the client's one helper thread submits a cheap one of its own to it every 20 ms: the
     * heartbeat. It is never submitted before its last callback has come.
     */
    static Request beat_request()
    {
        Request request;
        request.url = "file:///dev/null";
        request.method = "GET";
        return request;
    }

    /* m_beat_lock is held. What fails for lack of memory is tried again with the next beat. */
    void beat(detail::Worker &worker) noexcept
    {
        worker.beating = detail::submit(worker.beat, m_beat, on_beat) == Error::none;
        worker.beat_failed = !worker.beating;
    }

    static std::uint32_t on_beat(HNvrHttpCurlCltReq handle, ENvrHttpCurlCltReqProgress progress, ENvrHttpCurlCltRet,
                                 void *) noexcept
    {
        const detail::Record &record = *detail::block_of(handle)->record;
        const std::lock_guard<std::mutex> lock(record.client->m_beat_lock);
        record.worker->beating = false;
        record.worker->beat_failed = progress != NVRHTTPCURLCLT_PROGRESS_FINISHED;
        record.client->m_beaten.notify_all();
        return 0;
    }

    /* With nothing outstanding it sleeps until a submission wakes it. */
    void help() noexcept
    {
        std::unique_lock<std::mutex> lock(m_beat_lock);
        while (!m_stopping) {
            m_asleep = true; /* before the count is read; submissions raise the count before they read this */
            m_wake.wait(lock, [this] { return m_stopping || m_outstanding != 0; });
            m_asleep = false;
            m_wake.wait_for(lock, detail::beat_interval, [this] { return m_stopping.load(); });
            for (detail::Worker &worker : m_workers) {
                if (!m_stopping && worker.outstanding != 0 && !worker.beating) {
                    beat(worker);
                }
            }
        }
    }

    void wake_helper() noexcept
    {
        {
            const std::lock_guard<std::mutex> lock(m_beat_lock); /* not between its check and its sleep */
        }
        m_wake.notify_one();
    }

    /* --- start and end ----------------------------------------------------------------------- */

    /* Null, or what failed. The first beats show that they work, and let libcurl set itself up on one thread. */
    const char *start()
    {
        std::unique_lock<std::mutex> lock(m_beat_lock);
        for (detail::Worker &worker : m_workers) {
            if (const char *problem = start_worker(worker)) {
                return problem;
            }
        }
        const auto is_beating = [](const detail::Worker &worker) { return worker.beating; };
        const auto has_failed = [](const detail::Worker &worker) { return worker.beating || worker.beat_failed; };
        m_beaten.wait_for(lock, detail::start_limit,
                          [&] { return std::none_of(m_workers.begin(), m_workers.end(), is_beating); });
        if (std::any_of(m_workers.begin(), m_workers.end(), has_failed)) {
            return "failed, libcurl cannot read file:///dev/null, which time-outs need";
        }
        try {
            m_helper = std::thread(&Client::help, this);
        } catch (const std::system_error &) {
            return "failed, no thread could be created";
        }
        return nullptr;
    }

    const char *start_worker(detail::Worker &worker)
    {
        static constexpr TNvrHttpCurlCltInitParam param = {1, NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS};
        static constexpr TNvrHttpCurlCltMemCB memory = {detail::obtain, detail::grow, detail::release};
        const std::lock_guard<std::mutex> lock(detail::instances_lock);
        const ENvrHttpCurlCltRet result = NvrHttpCurlCltInit(&param, &memory, &worker.instance);
        if (result != NVRHTTPCURLCLT_OK) {
            return detail::start_failure(result);
        }
        worker.beat.client = this;
        worker.beat.worker = &worker;
        beat(worker);
        return nullptr;
    }

    /*
     * First what could still submit: sends, the helper, callbacks in progress. Then nothing calls back any more, so
     * that another client's construction never waits for a callback of this one.
     */
    void stop() noexcept
    {
        m_stopping = true;
        {
            const std::lock_guard<std::shared_mutex> sends(m_gate);
        }
        wake_helper();
        if (m_helper.joinable()) {
            m_helper.join();
        }
        for (detail::Worker &worker : m_workers) {
            const std::lock_guard<std::mutex> callbacks(worker.calling);
        }
        for (detail::Worker &worker : m_workers) {
            stop_worker(worker);
        }
        for (detail::Worker &worker : m_workers) {
            cancel(worker);
        }
    }

    /* Uninit releases all requests of the worker, its heartbeat too, of which nobody is to hear. */
    static void stop_worker(detail::Worker &worker) noexcept
    {
        if (worker.instance != nullptr) {
            const std::lock_guard<std::mutex> lock(detail::instances_lock);
            worker.beat.request = nullptr;
            NvrHttpCurlCltUninit(worker.instance);
        }
    }

    void cancel(detail::Worker &worker) noexcept
    {
        while (worker.cancelled != nullptr) {
            const std::unique_ptr<detail::Record> owner(worker.cancelled);
            worker.cancelled = owner->next;
            give_place(worker);
            Response answer;
            answer.error = Error::cancelled;
            detail::complete(*owner, std::move(answer));
        }
    }

    const Options m_options;
    const Request m_beat;
    std::vector<detail::Worker> m_workers;
    std::atomic<std::size_t> m_outstanding{0};
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_asleep{false}; /* the helper, or about to */
    std::shared_mutex m_gate;          /* shared by submissions */
    std::mutex m_beat_lock;
    std::condition_variable m_wake;   /* the helper */
    std::condition_variable m_beaten; /* the constructor */
    std::thread m_helper;
};

} // namespace nvrhttpcurl

NVRHTTPCURL_END_VISIBLE

#endif
