/*
 * The memory of a process that uses the send module: of its start, of one send, of 1,024 sends
 * that are outstanding at once.
 *
 * Heap: malloc and its kin are this program's own, and add up what malloc_usable_size says of the
 * blocks in use, those of libcurl and of the C library included. Stack: a new stack is all zero,
 * so its deepest byte that is not zero was written; this finds the peak of a thread's whole life.
 * The server is a process of its own, made before the first measurement.
 */
#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <nvrhttpcurl/sendbycurl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/next.h"

enum { OUTSTANDING = 1024, MAX_THREADS = 64, PORT_TEXT = 64 };

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}

static std::atomic<size_t> live;
static std::atomic<size_t> peak;

static void *Counted(void *block)
{
    const size_t now = live += malloc_usable_size(block);
    size_t before = peak;
    while (before < now && !peak.compare_exchange_weak(before, now)) {
    }
    return block;
}

extern "C" void *malloc(size_t size)
{
    return Counted(__libc_malloc(size));
}

extern "C" void *calloc(size_t count, size_t size)
{
    return Counted(__libc_calloc(count, size));
}

extern "C" void *realloc(void *block, size_t size)
{
    live -= malloc_usable_size(block);
    return Counted(__libc_realloc(block, size));
}

extern "C" void free(void *block)
{
    live -= malloc_usable_size(block);
    __libc_free(block);
}

/* The module's threads never end, and this program's one only with it: each may be looked at. */
static pthread_t threads[MAX_THREADS];
static std::atomic<unsigned> threadCount;

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *),
                              void *context)
{
    using Create = int(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    const int result = test::Next<Create>("pthread_create")(thread, attributes, entry, context);
    if (result == 0 && threadCount < MAX_THREADS) {
        threads[threadCount++] = *thread;
    }
    return result;
}

static size_t StackPeak(pthread_t thread)
{
    pthread_attr_t attributes;
    void *bottom = nullptr;
    size_t size = 0;
    pthread_getattr_np(thread, &attributes);
    pthread_attr_getstack(&attributes, &bottom, &size);
    pthread_attr_destroy(&attributes);
    size_t unused = 0;
    while (unused < size && static_cast<const volatile char *>(bottom)[unused] == 0) {
        ++unused;
    }
    return size - unused;
}

/* Takes this many requests in whole, then answers them. */
static void AnswerTogether(int listener, int count)
{
    static int connections[OUTSTANDING];
    static const char answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}";
    for (int index = 0; index < count; ++index) {
        char request[2048];
        size_t length = 0;
        connections[index] = accept(listener, nullptr, nullptr);
        while (length < 2 || memcmp(request + length - 2, "{}", 2) != 0) {
            const ssize_t more = read(connections[index], request + length, sizeof(request) - length);
            if (more <= 0) {
                _exit(EXIT_FAILURE);
            }
            length += static_cast<size_t>(more);
        }
    }
    for (int index = 0; index < count; ++index) {
        if (write(connections[index], answer, sizeof(answer) - 1) < 0) {
            _exit(EXIT_FAILURE);
        }
        close(connections[index]);
    }
}

static pid_t StartServer(char *url, size_t size)
{
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(listener, OUTSTANDING) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        perror("footprint: listen");
        exit(EXIT_FAILURE);
    }
    snprintf(url, size, "http://127.0.0.1:%u/", static_cast<unsigned>(ntohs(address.sin_port)));
    const pid_t server = fork();
    if (server == 0) {
        AnswerTogether(listener, 1);
        AnswerTogether(listener, OUTSTANDING);
        _exit(EXIT_SUCCESS);
    }
    close(listener);
    return server;
}

static char url[PORT_TEXT];
static std::atomic<unsigned> failures;
static std::atomic<unsigned> ended;

static void Expect(ESendByCurlRet result)
{
    failures += result == SENDBYCURL_OK ? 0U : 1U;
}

static uint32_t Ended(ESendByCurlRet result, void *)
{
    Expect(result);
    return ++ended;
}

static TSendByCurlParam Post(char *answer, uint32_t capacity)
{
    TSendByCurlParam post = {};
    post.pchURL = url;
    post.pchSendBuf = "{}";
    post.dwSendLen = 2;
    post.dwConnTimeOutMS = post.dwTimeoutMS = 120000;
    post.dwMaxRecvLen = capacity;
    post.pchRecvBuf = answer;
    post.pfNtf = Ended;
    return post;
}

static void Report(const char *phase, size_t before)
{
    printf("heap, %s: %zu bytes at most, %zu afterwards\n", phase, peak - before, live - before);
    peak = live.load();
}

/* On a thread of its own, so that the caller's stack is seen, too. */
static void *Measure(void *)
{
    static char answers[OUTSTANDING][8];
    const size_t before = live;
    peak = before;
    Expect(Qelvo_SyncSendStrByHttp_Init());
    Report("start", before);

    TSendByCurlParam post = Post(answers[0], 4);
    Expect(Qelvo_SendStrByHttp(&post, SENDBYCURL_MODE_SYNC));
    Report("one send", before);

    for (auto &answer : answers) {
        post = Post(answer, 4);
        Expect(Qelvo_SendStrByHttp(&post, SENDBYCURL_MODE_ASYNC));
    }
    while (failures == 0 && ended < OUTSTANDING) {
        usleep(10000);
    }
    Report("1,024 outstanding", before);
    printf("stack, caller: %zu bytes\n", StackPeak(pthread_self()));
    return nullptr;
}

int main()
{
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    signal(SIGPIPE, SIG_IGN);
    const pid_t server = StartServer(url, sizeof(url));

    pthread_t caller;
    pthread_create(&caller, nullptr, Measure, nullptr);
    pthread_join(caller, nullptr);
    size_t workers = 0;
    for (unsigned index = 1; index < threadCount; ++index) {
        const size_t stack = StackPeak(threads[index]);
        workers = stack > workers ? stack : workers;
    }
    printf("stack, the deepest of %u workers: %zu bytes\n", threadCount - 1, workers);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
