#include "tests/support/hooks.h"

#include <sys/prctl.h>

#include <cstdarg>
#include <map>
#include <stdexcept>

#include "tests/support/records.h"

/* What is read of "..." is read as a pointer, whatever it was passed as. */
static_assert(sizeof(void *) == sizeof(long) && sizeof(void *) == sizeof(curl_off_t), "LP64 only");

/*
 * Clang links its sanitizers into the program, so that they meet the substituted calls
 * themselves, before they are ready for instrumented code.
 */
#if defined(__clang__)
#define MAY_RUN_EARLY __attribute__((disable_sanitizer_instrumentation))
#else
#define MAY_RUN_EARLY
#endif

namespace hooks
{

/* Never destroyed: the library's threads may outlive main. */
#define OPEN_CALL(name, hook, result, declared, parameters, arguments)                                                 \
    std::function<result parameters> &hook = *new std::function<result parameters>;
#define OWN_CALL(name, hook, result, declared, parameters) OPEN_CALL(name, hook, result, declared, parameters, ())
#include "tests/support/hook_table.inc"

namespace real
{
#define OPEN_CALL(name, hook, ...) decltype(__real_##name) &hook = __real_##name;
#define OWN_CALL OPEN_CALL
#include "tests/support/hook_table.inc"
} // namespace real

} // namespace hooks

namespace
{

/* Set once the hooks above are constructed; calls come before that. */
bool constructed = false;
struct Readiness {
    Readiness()
    {
        __atomic_store_n(&constructed, true, __ATOMIC_RELAXED);
    }
} readiness;

template <typename TFunc> MAY_RUN_EARLY bool IsSet(const TFunc &hook)
{
    return __atomic_load_n(&constructed, __ATOMIC_RELAXED) && hook != nullptr;
}

/* --- counters ------------------------------------------------------------------------------- */

enum Call {
#define OPEN_CALL(name, ...) CALL_##name,
#define OWN_CALL OPEN_CALL
#include "tests/support/hook_table.inc"
    CALL_COUNT
};

const char *const CALL_NAMES[CALL_COUNT] = {
#define OPEN_CALL(name, ...) #name,
#define OWN_CALL OPEN_CALL
#include "tests/support/hook_table.inc"
};

size_t calls[CALL_COUNT];

/* Relaxed: counting must not order threads that the library does not order. */
MAY_RUN_EARLY void Count(Call call)
{
    __atomic_fetch_add(&calls[call], 1, __ATOMIC_RELAXED);
}

/* --- options -------------------------------------------------------------------------------- */

struct OptionRecords {
    std::mutex lock;
    std::vector<hooks::Option> options;
    std::map<CURLoption, CURLcode> refused;
};

OptionRecords &Rec()
{
    return test::Lasting<OptionRecords>();
}

using test::Guard;

/* The code that the option is to be refused with, CURLE_OK for none. */
CURLcode RecordOption(CURL *easy, CURLoption option, void *value)
{
    hooks::Option record{easy, option, reinterpret_cast<uintptr_t>(value), {}};
    const bool isText = option == CURLOPT_URL || option == CURLOPT_USERPWD || option == CURLOPT_CAINFO;
    if (isText && value != nullptr) {
        record.text = static_cast<const char *>(value);
    }
    const Guard guard(Rec().lock);
    Rec().options.push_back(std::move(record));
    const auto place = Rec().refused.find(option);
    return place == Rec().refused.end() ? CURLE_OK : place->second;
}

} // namespace

namespace hooks
{

size_t Calls(const std::string &name)
{
    for (size_t i = 0; i < CALL_COUNT; ++i) {
        if (name == CALL_NAMES[i]) {
            return __atomic_load_n(&calls[i], __ATOMIC_RELAXED);
        }
    }
    throw std::invalid_argument("not a wrapped call: " + name);
}

std::vector<Option> Options()
{
    const Guard guard(Rec().lock);
    return Rec().options;
}

void ClearOptions()
{
    const Guard guard(Rec().lock);
    Rec().options.clear();
}

std::vector<Option> OptionsOf(CURLoption option)
{
    std::vector<Option> found;
    for (Option &each : Options()) {
        if (each.option == option) {
            found.push_back(std::move(each));
        }
    }
    return found;
}

std::vector<CURLoption> OptionOrder()
{
    std::vector<CURLoption> order;
    for (const Option &each : Options()) {
        order.push_back(each.option);
    }
    return order;
}

void RefuseOption(CURLoption option, CURLcode code)
{
    const Guard guard(Rec().lock);
    Rec().refused[option] = code;
}

std::vector<std::string> HeaderLines(const curl_slist *list)
{
    std::vector<std::string> lines;
    for (; list != nullptr; list = list->next) {
        lines.emplace_back(list->data);
    }
    return lines;
}

} // namespace hooks

/* --- what the linker puts in place of the calls ------------------------------------------- */

extern "C" {

/*
 * A call with "..." is met as one with a pointer in its place: the ABIs of the hosts pass both
 * in the same register.
 */
#define OPEN_CALL(name, hook, result, declared, parameters, arguments)                                                 \
    MAY_RUN_EARLY result __wrap_##name parameters                                                                      \
    {                                                                                                                  \
        Count(CALL_##name);                                                                                            \
        return IsSet(hooks::hook) ? hooks::hook arguments : __real_##name arguments;                                   \
    }
#define OWN_CALL(...)
#include "tests/support/hook_table.inc"

CURLcode __wrap_curl_easy_setopt(CURL *easy, CURLoption option, void *value)
{
    Count(CALL_curl_easy_setopt);
    const CURLcode refused = RecordOption(easy, option, value);
    if (refused != CURLE_OK) {
        return refused;
    }
    return IsSet(hooks::easy_setopt) ? hooks::easy_setopt(easy, option, value)
                                     : __real_curl_easy_setopt(easy, option, value);
}

MAY_RUN_EARLY int __wrap_prctl(int option, ...)
{
    Count(CALL_prctl);
    /* Four, as libc reads them; the call makes no use of those that were not passed. */
    va_list args;
    va_start(args, option);
    const unsigned long arg2 = va_arg(args, unsigned long);
    const unsigned long arg3 = va_arg(args, unsigned long);
    const unsigned long arg4 = va_arg(args, unsigned long);
    const unsigned long arg5 = va_arg(args, unsigned long);
    va_end(args);
    if (option == PR_SET_NAME && IsSet(hooks::sys_set_name)) {
        return hooks::sys_set_name(reinterpret_cast<const char *>(arg2));
    }
    return __real_prctl(option, arg2, arg3, arg4, arg5);
}
}
