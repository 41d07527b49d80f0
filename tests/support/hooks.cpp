#include "tests/support/hooks.h"

#include <sys/prctl.h>

#include <array>
#include <cstdarg>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>

/* libcurl's argument-counting macros; what is defined here are the functions. */
#undef curl_easy_setopt
#undef curl_easy_getinfo
#undef curl_share_setopt

/* The variadic calls read their argument as a pointer, whatever it was passed as. */
static_assert(sizeof(void *) == sizeof(long) && sizeof(void *) == sizeof(curl_off_t), "LP64 only");

extern "C" {

CURLcode __real_curl_easy_setopt(CURL *, CURLoption, ...);
CURLcode __real_curl_global_init(long);
CURL *__real_curl_easy_init(void);
CURLcode __real_curl_easy_perform(CURL *);
CURLcode __real_curl_easy_getinfo(CURL *, CURLINFO, ...);
void __real_curl_easy_cleanup(CURL *);
curl_slist *__real_curl_slist_append(curl_slist *, const char *);
CURLM *__real_curl_multi_init(void);
CURLMcode __real_curl_multi_cleanup(CURLM *);
CURLMcode __real_curl_multi_add_handle(CURLM *, CURL *);
CURLMcode __real_curl_multi_remove_handle(CURLM *, CURL *);
CURLMcode __real_curl_multi_perform(CURLM *, int *);
CURLMcode __real_curl_multi_timeout(CURLM *, long *);
CURLMcode __real_curl_multi_wait(CURLM *, curl_waitfd *, unsigned, int, int *);
CURLMsg *__real_curl_multi_info_read(CURLM *, int *);
CURLSH *__real_curl_share_init(void);
CURLSHcode __real_curl_share_setopt(CURLSH *, CURLSHoption, ...);
cJSON *__real_cJSON_CreateObject(void);
char *__real_cJSON_PrintUnformatted(const cJSON *);
int __real_socket(int, int, int);
int __real_bind(int, const sockaddr *, socklen_t);
ssize_t __real_sendto(int, const void *, size_t, int, const sockaddr *, socklen_t);
ssize_t __real_recvfrom(int, void *, size_t, int, sockaddr *, socklen_t *);
clock_t __real_times(struct tms *);
long __real_sysconf(int);
int __real_prctl(int, ...);
void *__real_calloc(size_t, size_t);
}

/*
 * Clang links its sanitizers into the program, so that they meet the substituted calls
 * themselves, before they are ready for instrumented code.
 */
#if defined(__clang__)
#define MAY_RUN_EARLY __attribute__((disable_sanitizer_instrumentation))
#else
#define MAY_RUN_EARLY
#endif

/* --- the hooks' storage ------------------------------------------------------------------- */

namespace
{

/* Never destroyed: the library's threads may outlive main. */
template <typename TFunc> union Lasting {
    TFunc pfHook;
    Lasting() : pfHook()
    {
    }
    ~Lasting()
    {
    }
};

} // namespace

/* The hook's declared name stands for storage that exit leaves alone. */
#define HOOK(name)                                                                                                     \
    extern "C" {                                                                                                       \
    Lasting<decltype(hooks::name)> hook_storage_##name;                                                                \
    }                                                                                                                  \
    namespace hooks                                                                                                    \
    {                                                                                                                  \
    extern decltype(name) name __attribute__((alias("hook_storage_" #name)));                                          \
    }

HOOK(easy_setopt)
HOOK(global_init)
HOOK(easy_init)
HOOK(easy_perform)
HOOK(easy_getinfo)
HOOK(easy_cleanup)
HOOK(slist_append)
HOOK(multi_init)
HOOK(multi_cleanup)
HOOK(multi_add_handle)
HOOK(multi_remove_handle)
HOOK(multi_perform)
HOOK(multi_timeout)
HOOK(multi_wait)
HOOK(multi_info_read)
HOOK(share_init)
HOOK(share_setopt)
HOOK(json_create_object)
HOOK(json_print_unformatted)
HOOK(sys_socket)
HOOK(sys_bind)
HOOK(sys_sendto)
HOOK(sys_recvfrom)
HOOK(sys_times)
HOOK(sys_sysconf)
HOOK(sys_set_name)
HOOK(sys_calloc)

/* --- records -------------------------------------------------------------------------------- */

namespace
{

/* Set once the hooks above are constructed; calls come before that. */
bool g_bReady = false;
struct Readiness {
    Readiness()
    {
        __atomic_store_n(&g_bReady, true, __ATOMIC_RELAXED);
    }
} g_tReadiness;

template <typename TFunc> MAY_RUN_EARLY bool IsSet(const TFunc &pfHook)
{
    return __atomic_load_n(&g_bReady, __ATOMIC_RELAXED) && pfHook != nullptr;
}

enum Call {
    CALL_EASY_SETOPT,
    CALL_GLOBAL_INIT,
    CALL_EASY_INIT,
    CALL_EASY_PERFORM,
    CALL_EASY_GETINFO,
    CALL_EASY_CLEANUP,
    CALL_SLIST_APPEND,
    CALL_MULTI_INIT,
    CALL_MULTI_CLEANUP,
    CALL_MULTI_ADD_HANDLE,
    CALL_MULTI_REMOVE_HANDLE,
    CALL_MULTI_PERFORM,
    CALL_MULTI_TIMEOUT,
    CALL_MULTI_WAIT,
    CALL_MULTI_INFO_READ,
    CALL_SHARE_INIT,
    CALL_SHARE_SETOPT,
    CALL_JSON_CREATE_OBJECT,
    CALL_JSON_PRINT_UNFORMATTED,
    CALL_SOCKET,
    CALL_BIND,
    CALL_SENDTO,
    CALL_RECVFROM,
    CALL_TIMES,
    CALL_SYSCONF,
    CALL_PRCTL,
    CALL_CALLOC,
    CALL_COUNT
};

constexpr std::array<const char *, CALL_COUNT> g_aszCallNames{
    "curl_easy_setopt",
    "curl_global_init",
    "curl_easy_init",
    "curl_easy_perform",
    "curl_easy_getinfo",
    "curl_easy_cleanup",
    "curl_slist_append",
    "curl_multi_init",
    "curl_multi_cleanup",
    "curl_multi_add_handle",
    "curl_multi_remove_handle",
    "curl_multi_perform",
    "curl_multi_timeout",
    "curl_multi_wait",
    "curl_multi_info_read",
    "curl_share_init",
    "curl_share_setopt",
    "cJSON_CreateObject",
    "cJSON_PrintUnformatted",
    "socket",
    "bind",
    "sendto",
    "recvfrom",
    "times",
    "sysconf",
    "prctl",
    "calloc",
};

size_t g_auCalls[CALL_COUNT];

/* Relaxed: counting must not order threads that the library does not order. */
MAY_RUN_EARLY void Count(Call eCall)
{
    __atomic_fetch_add(&g_auCalls[eCall], 1, __ATOMIC_RELAXED);
}

struct OptionRecords {
    std::mutex tLock;
    std::vector<hooks::Option> atOptions;
    std::map<CURLoption, CURLcode> tRefused;
};

OptionRecords &Rec()
{
    static OptionRecords *ptRecords = new OptionRecords;
    return *ptRecords;
}

using Guard = std::lock_guard<std::mutex>;

bool IsText(CURLoption eOption)
{
    return eOption == CURLOPT_URL || eOption == CURLOPT_USERPWD || eOption == CURLOPT_CAINFO;
}

/* The code that the option is to be refused with, CURLE_OK for none. */
CURLcode RecordOption(CURL *ptEasy, CURLoption eOption, void *pvValue)
{
    hooks::Option tOption{ptEasy, eOption, reinterpret_cast<uintptr_t>(pvValue), {}};
    if (IsText(eOption) && pvValue != nullptr) {
        tOption.strText = static_cast<const char *>(pvValue);
    }
    OptionRecords &tRec = Rec();
    const Guard tGuard(tRec.tLock);
    tRec.atOptions.push_back(std::move(tOption));
    const auto tPlace = tRec.tRefused.find(eOption);
    return tPlace == tRec.tRefused.end() ? CURLE_OK : tPlace->second;
}

} // namespace

namespace hooks
{

std::vector<Option> Options()
{
    const Guard tGuard(Rec().tLock);
    return Rec().atOptions;
}

void ClearOptions()
{
    const Guard tGuard(Rec().tLock);
    Rec().atOptions.clear();
}

std::vector<Option> OptionsOf(CURLoption eOption)
{
    std::vector<Option> atFound;
    for (Option &tOption : Options()) {
        if (tOption.eOption == eOption) {
            atFound.push_back(std::move(tOption));
        }
    }
    return atFound;
}

std::vector<CURLoption> OptionOrder()
{
    std::vector<CURLoption> aeOrder;
    for (const Option &tOption : Options()) {
        aeOrder.push_back(tOption.eOption);
    }
    return aeOrder;
}

void RefuseOption(CURLoption eOption, CURLcode eCode)
{
    const Guard tGuard(Rec().tLock);
    Rec().tRefused[eOption] = eCode;
}

size_t Calls(const std::string &strName)
{
    for (size_t i = 0; i < g_aszCallNames.size(); ++i) {
        if (strName == g_aszCallNames[i]) {
            return __atomic_load_n(&g_auCalls[i], __ATOMIC_RELAXED);
        }
    }
    throw std::invalid_argument("not a wrapped call: " + strName);
}

/* --- the calls behind the hooks ------------------------------------------------------------- */

namespace real
{

CURLcode easy_setopt(CURL *ptEasy, CURLoption eOption, void *pvValue)
{
    return __real_curl_easy_setopt(ptEasy, eOption, pvValue);
}

CURLcode global_init(long nFlags)
{
    return __real_curl_global_init(nFlags);
}

CURL *easy_init()
{
    return __real_curl_easy_init();
}

CURLcode easy_perform(CURL *ptEasy)
{
    return __real_curl_easy_perform(ptEasy);
}

CURLcode easy_getinfo(CURL *ptEasy, CURLINFO eInfo, void *pvResult)
{
    return __real_curl_easy_getinfo(ptEasy, eInfo, pvResult);
}

void easy_cleanup(CURL *ptEasy)
{
    __real_curl_easy_cleanup(ptEasy);
}

curl_slist *slist_append(curl_slist *ptList, const char *szText)
{
    return __real_curl_slist_append(ptList, szText);
}

CURLM *multi_init()
{
    return __real_curl_multi_init();
}

CURLMcode multi_cleanup(CURLM *ptMulti)
{
    return __real_curl_multi_cleanup(ptMulti);
}

CURLMcode multi_add_handle(CURLM *ptMulti, CURL *ptEasy)
{
    return __real_curl_multi_add_handle(ptMulti, ptEasy);
}

CURLMcode multi_remove_handle(CURLM *ptMulti, CURL *ptEasy)
{
    return __real_curl_multi_remove_handle(ptMulti, ptEasy);
}

CURLMcode multi_perform(CURLM *ptMulti, int *pnRunning)
{
    return __real_curl_multi_perform(ptMulti, pnRunning);
}

CURLMcode multi_timeout(CURLM *ptMulti, long *pnTimeoutMS)
{
    return __real_curl_multi_timeout(ptMulti, pnTimeoutMS);
}

CURLMcode multi_wait(CURLM *ptMulti, curl_waitfd *ptExtra, unsigned dwExtra, int nTimeoutMS, int *pnReady)
{
    return __real_curl_multi_wait(ptMulti, ptExtra, dwExtra, nTimeoutMS, pnReady);
}

CURLMsg *multi_info_read(CURLM *ptMulti, int *pnLeft)
{
    return __real_curl_multi_info_read(ptMulti, pnLeft);
}

CURLSH *share_init()
{
    return __real_curl_share_init();
}

CURLSHcode share_setopt(CURLSH *ptShare, CURLSHoption eOption, void *pvValue)
{
    return __real_curl_share_setopt(ptShare, eOption, pvValue);
}

cJSON *json_create_object()
{
    return __real_cJSON_CreateObject();
}

char *json_print_unformatted(const cJSON *ptJson)
{
    return __real_cJSON_PrintUnformatted(ptJson);
}

int sys_socket(int nFamily, int nType, int nProtocol)
{
    return __real_socket(nFamily, nType, nProtocol);
}

int sys_bind(int nSock, const sockaddr *ptAddr, socklen_t dwLen)
{
    return __real_bind(nSock, ptAddr, dwLen);
}

ssize_t sys_sendto(int nSock, const void *pvData, size_t uBytes, int nFlags, const sockaddr *ptAddr, socklen_t dwLen)
{
    return __real_sendto(nSock, pvData, uBytes, nFlags, ptAddr, dwLen);
}

ssize_t sys_recvfrom(int nSock, void *pvData, size_t uBytes, int nFlags, sockaddr *ptAddr, socklen_t *pdwLen)
{
    return __real_recvfrom(nSock, pvData, uBytes, nFlags, ptAddr, pdwLen);
}

clock_t sys_times(struct tms *ptTimes)
{
    return __real_times(ptTimes);
}

MAY_RUN_EARLY long sys_sysconf(int nName)
{
    return __real_sysconf(nName);
}

MAY_RUN_EARLY void *sys_calloc(size_t uCount, size_t uBytes)
{
    return __real_calloc(uCount, uBytes);
}

int sys_set_name(const char *szName)
{
    return __real_prctl(PR_SET_NAME, szName, 0);
}

} // namespace real
} // namespace hooks

/* --- what the linker puts in place of the calls ------------------------------------------- */

/* An enumeration is passed as unsigned; va_start may not stand after the enumeration itself. */

extern "C" {

CURLcode __wrap_curl_easy_setopt(CURL *ptEasy, unsigned dwOption, ...)
{
    Count(CALL_EASY_SETOPT);
    va_list tArgs;
    va_start(tArgs, dwOption);
    void *pvValue = va_arg(tArgs, void *);
    va_end(tArgs);
    const CURLoption eOption = static_cast<CURLoption>(dwOption);
    const CURLcode eRefused = RecordOption(ptEasy, eOption, pvValue);
    if (eRefused != CURLE_OK) {
        return eRefused;
    }
    return IsSet(hooks::easy_setopt) ? hooks::easy_setopt(ptEasy, eOption, pvValue)
                                     : hooks::real::easy_setopt(ptEasy, eOption, pvValue);
}

CURLcode __wrap_curl_global_init(long nFlags)
{
    Count(CALL_GLOBAL_INIT);
    return IsSet(hooks::global_init) ? hooks::global_init(nFlags) : hooks::real::global_init(nFlags);
}

CURL *__wrap_curl_easy_init(void)
{
    Count(CALL_EASY_INIT);
    return IsSet(hooks::easy_init) ? hooks::easy_init() : hooks::real::easy_init();
}

CURLcode __wrap_curl_easy_perform(CURL *ptEasy)
{
    Count(CALL_EASY_PERFORM);
    return IsSet(hooks::easy_perform) ? hooks::easy_perform(ptEasy) : hooks::real::easy_perform(ptEasy);
}

CURLcode __wrap_curl_easy_getinfo(CURL *ptEasy, unsigned dwInfo, ...)
{
    Count(CALL_EASY_GETINFO);
    va_list tArgs;
    va_start(tArgs, dwInfo);
    void *pvResult = va_arg(tArgs, void *);
    va_end(tArgs);
    const CURLINFO eInfo = static_cast<CURLINFO>(dwInfo);
    return IsSet(hooks::easy_getinfo) ? hooks::easy_getinfo(ptEasy, eInfo, pvResult)
                                      : hooks::real::easy_getinfo(ptEasy, eInfo, pvResult);
}

void __wrap_curl_easy_cleanup(CURL *ptEasy)
{
    Count(CALL_EASY_CLEANUP);
    if (IsSet(hooks::easy_cleanup)) {
        hooks::easy_cleanup(ptEasy);
    } else {
        hooks::real::easy_cleanup(ptEasy);
    }
}

curl_slist *__wrap_curl_slist_append(curl_slist *ptList, const char *szText)
{
    Count(CALL_SLIST_APPEND);
    return IsSet(hooks::slist_append) ? hooks::slist_append(ptList, szText) : hooks::real::slist_append(ptList, szText);
}

CURLM *__wrap_curl_multi_init(void)
{
    Count(CALL_MULTI_INIT);
    return IsSet(hooks::multi_init) ? hooks::multi_init() : hooks::real::multi_init();
}

CURLMcode __wrap_curl_multi_cleanup(CURLM *ptMulti)
{
    Count(CALL_MULTI_CLEANUP);
    return IsSet(hooks::multi_cleanup) ? hooks::multi_cleanup(ptMulti) : hooks::real::multi_cleanup(ptMulti);
}

CURLMcode __wrap_curl_multi_add_handle(CURLM *ptMulti, CURL *ptEasy)
{
    Count(CALL_MULTI_ADD_HANDLE);
    return IsSet(hooks::multi_add_handle) ? hooks::multi_add_handle(ptMulti, ptEasy)
                                          : hooks::real::multi_add_handle(ptMulti, ptEasy);
}

CURLMcode __wrap_curl_multi_remove_handle(CURLM *ptMulti, CURL *ptEasy)
{
    Count(CALL_MULTI_REMOVE_HANDLE);
    return IsSet(hooks::multi_remove_handle) ? hooks::multi_remove_handle(ptMulti, ptEasy)
                                             : hooks::real::multi_remove_handle(ptMulti, ptEasy);
}

CURLMcode __wrap_curl_multi_perform(CURLM *ptMulti, int *pnRunning)
{
    Count(CALL_MULTI_PERFORM);
    return IsSet(hooks::multi_perform) ? hooks::multi_perform(ptMulti, pnRunning)
                                       : hooks::real::multi_perform(ptMulti, pnRunning);
}

CURLMcode __wrap_curl_multi_timeout(CURLM *ptMulti, long *pnTimeoutMS)
{
    Count(CALL_MULTI_TIMEOUT);
    return IsSet(hooks::multi_timeout) ? hooks::multi_timeout(ptMulti, pnTimeoutMS)
                                       : hooks::real::multi_timeout(ptMulti, pnTimeoutMS);
}

CURLMcode __wrap_curl_multi_wait(CURLM *ptMulti, curl_waitfd *ptExtra, unsigned dwExtra, int nTimeoutMS, int *pnReady)
{
    Count(CALL_MULTI_WAIT);
    return IsSet(hooks::multi_wait) ? hooks::multi_wait(ptMulti, ptExtra, dwExtra, nTimeoutMS, pnReady)
                                    : hooks::real::multi_wait(ptMulti, ptExtra, dwExtra, nTimeoutMS, pnReady);
}

CURLMsg *__wrap_curl_multi_info_read(CURLM *ptMulti, int *pnLeft)
{
    Count(CALL_MULTI_INFO_READ);
    return IsSet(hooks::multi_info_read) ? hooks::multi_info_read(ptMulti, pnLeft)
                                         : hooks::real::multi_info_read(ptMulti, pnLeft);
}

CURLSH *__wrap_curl_share_init(void)
{
    Count(CALL_SHARE_INIT);
    return IsSet(hooks::share_init) ? hooks::share_init() : hooks::real::share_init();
}

CURLSHcode __wrap_curl_share_setopt(CURLSH *ptShare, unsigned dwOption, ...)
{
    Count(CALL_SHARE_SETOPT);
    va_list tArgs;
    va_start(tArgs, dwOption);
    void *pvValue = va_arg(tArgs, void *);
    va_end(tArgs);
    const CURLSHoption eOption = static_cast<CURLSHoption>(dwOption);
    return IsSet(hooks::share_setopt) ? hooks::share_setopt(ptShare, eOption, pvValue)
                                      : hooks::real::share_setopt(ptShare, eOption, pvValue);
}

cJSON *__wrap_cJSON_CreateObject(void)
{
    Count(CALL_JSON_CREATE_OBJECT);
    return IsSet(hooks::json_create_object) ? hooks::json_create_object() : hooks::real::json_create_object();
}

char *__wrap_cJSON_PrintUnformatted(const cJSON *ptJson)
{
    Count(CALL_JSON_PRINT_UNFORMATTED);
    return IsSet(hooks::json_print_unformatted) ? hooks::json_print_unformatted(ptJson)
                                                : hooks::real::json_print_unformatted(ptJson);
}

int __wrap_socket(int nFamily, int nType, int nProtocol)
{
    Count(CALL_SOCKET);
    return IsSet(hooks::sys_socket) ? hooks::sys_socket(nFamily, nType, nProtocol)
                                    : hooks::real::sys_socket(nFamily, nType, nProtocol);
}

int __wrap_bind(int nSock, const sockaddr *ptAddr, socklen_t dwLen)
{
    Count(CALL_BIND);
    return IsSet(hooks::sys_bind) ? hooks::sys_bind(nSock, ptAddr, dwLen) : hooks::real::sys_bind(nSock, ptAddr, dwLen);
}

ssize_t __wrap_sendto(int nSock, const void *pvData, size_t uBytes, int nFlags, const sockaddr *ptAddr, socklen_t dwLen)
{
    Count(CALL_SENDTO);
    return IsSet(hooks::sys_sendto) ? hooks::sys_sendto(nSock, pvData, uBytes, nFlags, ptAddr, dwLen)
                                    : hooks::real::sys_sendto(nSock, pvData, uBytes, nFlags, ptAddr, dwLen);
}

ssize_t __wrap_recvfrom(int nSock, void *pvData, size_t uBytes, int nFlags, sockaddr *ptAddr, socklen_t *pdwLen)
{
    Count(CALL_RECVFROM);
    return IsSet(hooks::sys_recvfrom) ? hooks::sys_recvfrom(nSock, pvData, uBytes, nFlags, ptAddr, pdwLen)
                                      : hooks::real::sys_recvfrom(nSock, pvData, uBytes, nFlags, ptAddr, pdwLen);
}

clock_t __wrap_times(struct tms *ptTimes)
{
    Count(CALL_TIMES);
    return IsSet(hooks::sys_times) ? hooks::sys_times(ptTimes) : hooks::real::sys_times(ptTimes);
}

MAY_RUN_EARLY long __wrap_sysconf(int nName)
{
    Count(CALL_SYSCONF);
    return IsSet(hooks::sys_sysconf) ? hooks::sys_sysconf(nName) : hooks::real::sys_sysconf(nName);
}

MAY_RUN_EARLY void *__wrap_calloc(size_t uCount, size_t uBytes)
{
    Count(CALL_CALLOC);
    return IsSet(hooks::sys_calloc) ? hooks::sys_calloc(uCount, uBytes) : hooks::real::sys_calloc(uCount, uBytes);
}

MAY_RUN_EARLY int __wrap_prctl(int nOption, ...)
{
    Count(CALL_PRCTL);
    /* Four, as libc reads them; the call makes no use of those that were not passed. */
    va_list tArgs;
    va_start(tArgs, nOption);
    const unsigned long uArg2 = va_arg(tArgs, unsigned long);
    const unsigned long uArg3 = va_arg(tArgs, unsigned long);
    const unsigned long uArg4 = va_arg(tArgs, unsigned long);
    const unsigned long uArg5 = va_arg(tArgs, unsigned long);
    va_end(tArgs);
    if (nOption == PR_SET_NAME && IsSet(hooks::sys_set_name)) {
        return hooks::sys_set_name(reinterpret_cast<const char *>(uArg2));
    }
    return __real_prctl(nOption, uArg2, uArg3, uArg4, uArg5);
}
}
