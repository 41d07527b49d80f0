/*
 * libcurl, cJSON and system calls as the library makes them, substituted by the linker.
 *
 * Every call of hook_table.inc is counted and, unless its hook is set, passed on to the real
 * one. A hook runs instead of the real call and may make it itself through hooks::real. Set
 * hooks before the threads that meet them start. They stay set until the process ends, and what
 * they refer to may end before: one case per process, as ctest runs them.
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

extern "C" {
#define OPEN_CALL(name, hook, result, declared, ...) result __real_##name declared;
#define OWN_CALL OPEN_CALL
#include "tests/support/hook_table.inc"
}

namespace hooks
{

/* The hooks. sys_set_name is prctl(PR_SET_NAME): it gets the name. */
#define OPEN_CALL(name, hook, result, declared, parameters, arguments) extern std::function<result parameters> &hook;
#define OWN_CALL(name, hook, result, declared, parameters) extern std::function<result parameters> &hook;
#include "tests/support/hook_table.inc"

/* The calls behind the hooks. */
namespace real
{
#define OPEN_CALL(name, hook, ...) extern decltype(__real_##name) &hook;
#define OWN_CALL OPEN_CALL
#include "tests/support/hook_table.inc"
} // namespace real

/*
 * How often a call was made so far, by its name in libcurl, cJSON or libc:
 * Calls("curl_multi_perform"). Calls of the test itself count too. Throws for other names.
 */
size_t Calls(const std::string &name);

/* --- curl_easy_setopt ---------------------------------------------------------------------- */

struct Option {
    CURL *easy;
    CURLoption option;
    uintptr_t value;  /* the argument as it was passed: a long, a pointer, a function */
    std::string text; /* of CURLOPT_URL, _USERPWD and _CAINFO if the argument is not null */
};

/* CURLOPT_PUT, whose name newer headers warn about. */
constexpr CURLoption OPTION_PUT = static_cast<CURLoption>(CURLOPTTYPE_LONG + 54);

std::vector<Option> Options();
void ClearOptions();
/* The values of one option, in order. */
std::vector<Option> OptionsOf(CURLoption option);
/* Only the option numbers, in order. */
std::vector<CURLoption> OptionOrder();
/*
 * Every later setting of this option is refused with this code (CURLE_OK: no longer). It is
 * recorded, but reaches neither the hook nor libcurl.
 */
void RefuseOption(CURLoption option, CURLcode code);
/* The lines of a header list. */
std::vector<std::string> HeaderLines(const curl_slist *list);

} // namespace hooks

#endif
