/*
 * For programs that need names under "localhost": libcurl before 7.77 asks the resolver for them, which need not know
 * any. Takes the place of getaddrinfo and answers as newer libcurl does: ::1, then 127.0.0.1.
 */
#include <netdb.h>
#include <strings.h>

#include <string>

#include "tests/support/next.h"

static bool IsLocal(const char *node)
{
    const std::string local = ".localhost";
    const std::string name = std::string(".") + (node != nullptr ? node : "");
    return name.size() >= local.size() && strcasecmp(name.c_str() + name.size() - local.size(), local.c_str()) == 0;
}

extern "C" int getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **result)
{
    const auto real = test::Next<decltype(getaddrinfo)>("getaddrinfo");
    if (!IsLocal(node)) {
        return real(node, service, hints, result);
    }
    addrinfo *ipv4 = nullptr;
    const int status = real("127.0.0.1", service, hints, &ipv4);
    if (real("::1", service, hints, result) != 0) {
        *result = ipv4;
        return status;
    }
    addrinfo *last = *result;
    while (last->ai_next != nullptr) {
        last = last->ai_next;
    }
    last->ai_next = ipv4;
    return 0;
}
