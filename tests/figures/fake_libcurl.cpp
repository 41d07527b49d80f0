#include "tests/figures/fake_libcurl.h"

#include <atomic>
#include <cstdarg>
#include <curl/curl.h>
#include <poll.h>
#include <unistd.h>

#if defined(__clang__)
/* The parameter before "..." is an enumeration, as libcurl declares it. */
#pragma clang diagnostic ignored "-Wvarargs"
#endif

#undef curl_easy_setopt
#undef curl_easy_getinfo

namespace
{

struct Easy {
    curl_write_callback write = nullptr;
    void *sink = nullptr;
};

/* Holds one transfer at a time. */
struct Multi {
    Easy *easy = nullptr;
    int performs = 0;
    bool over = false; /* the message has not been read yet */
    CURLMsg message = {};
};

std::atomic<uint32_t> idlePasses{0};
std::atomic<uint32_t> resting{0};
char answer[] = "hello";

void Answer(const Easy &easy)
{
    easy.write(answer, 1, sizeof(answer) - 1, easy.sink);
}

bool TakeIdlePass()
{
    uint32_t left = idlePasses;
    while (left > 0 && !idlePasses.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0;
}

/* False for an idle pass. Who takes one does not count as resting meanwhile: see AwaitRest. */
bool RestsUntilWoken(int socket)
{
    pollfd wakeUp = {socket, POLLIN, 0};
    bool woken = false;
    while (!woken && !TakeIdlePass()) {
        ++resting;
        woken = poll(&wakeUp, 1, 1) > 0;
        --resting;
    }
    return woken;
}

} // namespace

void PassIdly(uint32_t passes)
{
    idlePasses = passes;
}

void AwaitRest(uint32_t workers)
{
    while (idlePasses > 0 || resting != workers) {
        usleep(1000);
    }
}

extern "C" {

CURLcode curl_global_init(long)
{
    return CURLE_OK;
}

CURL *curl_easy_init(void)
{
    return new Easy;
}

void curl_easy_cleanup(CURL *easy)
{
    delete static_cast<Easy *>(easy);
}

CURLcode curl_easy_setopt(CURL *easy, CURLoption option, ...)
{
    va_list value;
    va_start(value, option);
    if (option == CURLOPT_WRITEFUNCTION) {
        static_cast<Easy *>(easy)->write = va_arg(value, curl_write_callback);
    } else if (option == CURLOPT_WRITEDATA) {
        static_cast<Easy *>(easy)->sink = va_arg(value, void *);
    }
    va_end(value);
    return CURLE_OK;
}

CURLcode curl_easy_getinfo(CURL *, CURLINFO info, ...)
{
    va_list value;
    va_start(value, info);
    *va_arg(value, long *) = 200;
    va_end(value);
    return CURLE_OK;
}

CURLcode curl_easy_perform(CURL *easy)
{
    Answer(*static_cast<Easy *>(easy));
    return CURLE_OK;
}

curl_slist *curl_slist_append(curl_slist *, const char *)
{
    static curl_slist list = {};
    return &list;
}

void curl_slist_free_all(curl_slist *)
{
}

CURLM *curl_multi_init(void)
{
    return new Multi;
}

CURLMcode curl_multi_cleanup(CURLM *multi)
{
    delete static_cast<Multi *>(multi);
    return CURLM_OK;
}

CURLMcode curl_multi_add_handle(CURLM *multi, CURL *easy)
{
    *static_cast<Multi *>(multi) = Multi{static_cast<Easy *>(easy)};
    return CURLM_OK;
}

CURLMcode curl_multi_remove_handle(CURLM *, CURL *)
{
    return CURLM_OK;
}

CURLMcode curl_multi_timeout(CURLM *, long *milliseconds)
{
    *milliseconds = -1;
    return CURLM_OK;
}

CURLMcode curl_multi_perform(CURLM *multi, int *running)
{
    Multi &own = *static_cast<Multi *>(multi);
    *running = 1;
    if (++own.performs == 2) {
        Answer(*own.easy);
        own.message.msg = CURLMSG_DONE;
        own.message.easy_handle = own.easy;
        own.easy = nullptr;
        own.over = true;
        *running = 0;
    }
    return CURLM_OK;
}

CURLMsg *curl_multi_info_read(CURLM *multi, int *left)
{
    Multi &own = *static_cast<Multi *>(multi);
    *left = 0;
    CURLMsg *message = own.over ? &own.message : nullptr;
    own.over = false;
    return message;
}

CURLMcode curl_multi_wait(CURLM *multi, curl_waitfd wakeUp[], unsigned int, int, int *ready)
{
    wakeUp->revents = 0;
    *ready = 1;
    if (static_cast<Multi *>(multi)->easy == nullptr) {
        *ready = RestsUntilWoken(wakeUp->fd) ? 1 : 0;
        wakeUp->revents = *ready == 1 ? CURL_WAIT_POLLIN : 0;
    }
    return CURLM_OK;
}

} // extern "C"
