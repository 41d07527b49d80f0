/*
 * Makes one kind of work so many times, over a libcurl of its own, so that what is executed inside the library is
 * the same each time. scripts/figures.py runs it under callgrind, which counts inside Counted.
 *
 *   figures sync|direct|async|idle COUNT
 */
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nvrhttpcurl/sendbycurl.h>
#include <unistd.h>

#include "tests/figures/fake_libcurl.h"

namespace
{

enum { WORKERS = 8, BODY_BYTES = 200 };

/* An answer has five bytes. A synchronous send stores a terminator behind them. */
char answer[16];
char body[BODY_BYTES + 1];
std::atomic<uint32_t> failures{0};
std::atomic<uint32_t> ended{0};

void Expect(uint32_t result)
{
    failures += result == SENDBYCURL_OK ? 0U : 1U;
}

uint32_t Ended(ESendByCurlRet result, void *)
{
    Expect(result);
    return ++ended;
}

TSendByCurlParam Post()
{
    memset(body, 'x', BODY_BYTES);
    TSendByCurlParam post = {};
    post.pchURL = "http://127.0.0.1/";
    post.pchSendBuf = body;
    post.dwSendLen = BODY_BYTES;
    post.dwConnTimeOutMS = post.dwTimeoutMS = 1000;
    post.dwMaxRecvLen = sizeof(answer) - 1;
    post.pchRecvBuf = answer;
    post.pfNtf = Ended;
    return post;
}

void SendSync()
{
    TSendByCurlParam post = Post();
    Expect(Qelvo_SendStrByHttp(&post, SENDBYCURL_MODE_SYNC));
}

void SendDirect()
{
    TSendByCurlParam post = Post();
    Expect(Qelvo_SyncSendStrByHttp_Ext(&post));
}

/* Until the worker rests again: by then the request is destroyed and its slot free. */
void SendAsync()
{
    const uint32_t before = ended;
    TSendByCurlParam post = Post();
    Expect(Qelvo_SendStrByHttp(&post, SENDBYCURL_MODE_ASYNC));
    while (failures == 0 && ended == before) {
        usleep(100);
    }
    AwaitRest(WORKERS);
}

void PassOnce()
{
    PassIdly(1);
    AwaitRest(WORKERS);
}

using Work = void (*)();

Work Named(const char *name)
{
    const struct {
        const char *name;
        Work work;
    } works[] = {{"sync", SendSync}, {"direct", SendDirect}, {"async", SendAsync}, {"idle", PassOnce}};
    for (const auto &each : works) {
        if (strcmp(each.name, name) == 0) {
            return each.work;
        }
    }
    return nullptr;
}

} // namespace

/* What is executed in here is counted, on all threads. */
extern "C" __attribute__((noinline)) void Counted(void (*work)(), int count)
{
    for (int i = 0; i < count; i++) {
        work();
    }
}

int main(int count, char **arguments)
{
    const Work work = count == 3 ? Named(arguments[1]) : nullptr;
    if (work == nullptr) {
        fprintf(stderr, "usage: figures sync|direct|async|idle COUNT\n");
        return EXIT_FAILURE;
    }
    Expect(Qelvo_SyncSendStrByHttp_Init());
    AwaitRest(WORKERS);
    work(); /* what only the first one costs */
    Counted(work, atoi(arguments[2]));
    /* The module's workers never end. */
    _exit(failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}
