/*
 * libcurl, cJSON and system calls as the library makes them, substituted by the linker.
 *
 * Every wrapped call is recorded and, unless its hook is set, passed on to the real one. A
 * hook runs instead of the real call and may make it itself through hooks::real. Set hooks
 * before the threads that meet them start. They stay set until the process ends, and what they
 * refer to may end before: one case per process, as ctest runs them.
 */
#ifndef TESTS_SUPPORT_HOOKS_H
#define TESTS_SUPPORT_HOOKS_H

#include <cjson/cJSON.h>
#include <curl/curl.h>
#include <sys/socket.h>
#include <sys/times.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace hooks
{

/* --- curl_easy_setopt ---------------------------------------------------------------------- */

struct Option {
    CURL *ptEasy;
    CURLoption eOption;
    uintptr_t uValue;    /* the argument as it was passed: a long, a pointer, a function */
    std::string strText; /* the text of CURLOPT_URL, _USERPWD and _CAINFO if it is not null */
};

std::vector<Option> Options();
void ClearOptions();
/* The values of one option, in order. */
std::vector<Option> OptionsOf(CURLoption eOption);
/* Only the option numbers, in order. */
std::vector<CURLoption> OptionOrder();
/*
 * Every later setting of this option is refused with this code (CURLE_OK: no longer). It is
 * recorded, but reaches neither the hook nor libcurl.
 */
void RefuseOption(CURLoption eOption, CURLcode eCode);

/* --- calls that a case may replace ---------------------------------------------------------- */

extern std::function<CURLcode(CURL *, CURLoption, void *)> easy_setopt;
extern std::function<CURLcode(long)> global_init;
extern std::function<CURL *()> easy_init;
extern std::function<CURLcode(CURL *)> easy_perform;
extern std::function<CURLcode(CURL *, CURLINFO, void *)> easy_getinfo;
extern std::function<void(CURL *)> easy_cleanup;
extern std::function<curl_slist *(curl_slist *, const char *)> slist_append;
extern std::function<CURLM *()> multi_init;
extern std::function<CURLMcode(CURLM *)> multi_cleanup;
extern std::function<CURLMcode(CURLM *, CURL *)> multi_add_handle;
extern std::function<CURLMcode(CURLM *, CURL *)> multi_remove_handle;
extern std::function<CURLMcode(CURLM *, int *)> multi_perform;
extern std::function<CURLMcode(CURLM *, long *)> multi_timeout;
extern std::function<CURLMcode(CURLM *, curl_waitfd *, unsigned, int, int *)> multi_wait;
extern std::function<CURLMsg *(CURLM *, int *)> multi_info_read;
extern std::function<CURLSH *()> share_init;
extern std::function<CURLSHcode(CURLSH *, CURLSHoption, void *)> share_setopt;
extern std::function<cJSON *()> json_create_object;
extern std::function<char *(const cJSON *)> json_print_unformatted;
extern std::function<int(int, int, int)> sys_socket;
extern std::function<int(int, const sockaddr *, socklen_t)> sys_bind;
extern std::function<ssize_t(int, const void *, size_t, int, const sockaddr *, socklen_t)> sys_sendto;
extern std::function<ssize_t(int, void *, size_t, int, sockaddr *, socklen_t *)> sys_recvfrom;
extern std::function<clock_t(struct tms *)> sys_times;
extern std::function<long(int)> sys_sysconf;
/* prctl(PR_SET_NAME): the name; the result. */
extern std::function<int(const char *)> sys_set_name;
/* calloc as the send module calls it; null fails. */
extern std::function<void *(size_t, size_t)> sys_calloc;

/* --- the calls behind the hooks ------------------------------------------------------------- */

namespace real
{
CURLcode easy_setopt(CURL *, CURLoption, void *);
CURLcode global_init(long);
CURL *easy_init();
CURLcode easy_perform(CURL *);
CURLcode easy_getinfo(CURL *, CURLINFO, void *);
void easy_cleanup(CURL *);
curl_slist *slist_append(curl_slist *, const char *);
CURLM *multi_init();
CURLMcode multi_cleanup(CURLM *);
CURLMcode multi_add_handle(CURLM *, CURL *);
CURLMcode multi_remove_handle(CURLM *, CURL *);
CURLMcode multi_perform(CURLM *, int *);
CURLMcode multi_timeout(CURLM *, long *);
CURLMcode multi_wait(CURLM *, curl_waitfd *, unsigned, int, int *);
CURLMsg *multi_info_read(CURLM *, int *);
CURLSH *share_init();
CURLSHcode share_setopt(CURLSH *, CURLSHoption, void *);
cJSON *json_create_object();
char *json_print_unformatted(const cJSON *);
int sys_socket(int, int, int);
int sys_bind(int, const sockaddr *, socklen_t);
ssize_t sys_sendto(int, const void *, size_t, int, const sockaddr *, socklen_t);
ssize_t sys_recvfrom(int, void *, size_t, int, sockaddr *, socklen_t *);
void *sys_calloc(size_t, size_t);
clock_t sys_times(struct tms *);
long sys_sysconf(int);
int sys_set_name(const char *);
} // namespace real

/*
 * How often a call was made so far, by its name in libcurl, cJSON or libc:
 * Calls("curl_multi_perform"). Calls of the test itself count too. Throws for other names.
 */
size_t Calls(const std::string &strName);

} // namespace hooks

#endif
