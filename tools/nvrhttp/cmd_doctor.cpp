/*
 * nvrhttp doctor: what this machine offers the library, and what it lacks.
 */
#include "tools/nvrhttp/commands.h"

#include <arpa/inet.h>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/hcc_numbers.h"
#include "tools/common/log_place.h"

namespace
{

enum { OLDEST_CURL = 0x074200 }; /* 7.66.0 */
enum { WORKERS = 8, OUTSTANDING = 1024 };
/* Standard streams, the log file, and of each worker its socket and its libcurl handle's own. */
enum { OWN_FILES = 64 };

const char s_szHelp[] = "Each line begins with ok, warning or missing. The exit status is 1 if something is missing\n"
                        "that the library needs, 0 otherwise, whatever the warnings.\n"
                        "\n"
                        "Examples:\n"
                        "  nvrhttp doctor\n"
                        "  nvrhttp doctor | grep -v '^ok'";

enum EFinding { FINDING_OK, FINDING_WARNING, FINDING_MISSING };

struct TFindings {
    unsigned dwWarnings = 0;
    unsigned dwMissing = 0;
};

__attribute__((format(printf, 4, 5))) void Report(TFindings &tFindings, EFinding eFinding, const char *szTopic,
                                                  const char *szFormat, ...)
{
    static const char *const aszWords[] = {"ok", "warning", "missing"};
    tFindings.dwWarnings += eFinding == FINDING_WARNING ? 1 : 0;
    tFindings.dwMissing += eFinding == FINDING_MISSING ? 1 : 0;
    printf("%-8s %-13s ", aszWords[eFinding], szTopic);
    va_list tArgs;
    va_start(tArgs, szFormat);
    vprintf(szFormat, tArgs);
    va_end(tArgs);
    putchar('\n');
}

void ExamineResolver(TFindings &tFindings, const curl_version_info_data &tCurl)
{
    const bool bAsync = (tCurl.features & CURL_VERSION_ASYNCHDNS) != 0;
    if (!bAsync) {
        Report(tFindings, FINDING_MISSING, "threads",
               "this libcurl resolves host names on the calling thread: a slow name stops every request of a worker; "
               "use a libcurl built with the threaded resolver");
    } else if (tCurl.ares != nullptr) {
        Report(tFindings, FINDING_OK, "threads", "host names are resolved in the background, by c-ares %s", tCurl.ares);
    } else {
        Report(tFindings, FINDING_OK, "threads", "host names are resolved in threads of their own (AsynchDNS)");
    }
}

void ExamineGlobalInit(TFindings &tFindings, const curl_version_info_data &tCurl)
{
#ifdef CURL_VERSION_THREADSAFE
    const bool bSafe = (tCurl.features & CURL_VERSION_THREADSAFE) != 0;
#else
    const bool bSafe = false;
    (void)tCurl;
#endif
    if (bSafe) {
        Report(tFindings, FINDING_OK, "threads", "libcurl's global initialisation is thread-safe");
    } else {
        Report(tFindings, FINDING_WARNING, "threads",
               "libcurl's global initialisation is not thread-safe: start the send module, or call curl_global_init, "
               "before other threads use libcurl");
    }
}

void ExamineCurl(TFindings &tFindings)
{
    const curl_version_info_data &tCurl = *curl_version_info(CURLVERSION_NOW);
    if (tCurl.version_num >= OLDEST_CURL) {
        Report(tFindings, FINDING_OK, "libcurl", "%s (needed: 7.66.0 or later)", tCurl.version);
    } else {
        Report(tFindings, FINDING_MISSING, "libcurl",
               "%s, but 7.66.0 or later is needed: an older one's resolver does not wake a waiting worker",
               tCurl.version);
    }
    if ((tCurl.features & CURL_VERSION_SSL) != 0 && tCurl.ssl_version != nullptr) {
        Report(tFindings, FINDING_OK, "TLS", "%s", tCurl.ssl_version);
    } else {
        Report(tFindings, FINDING_MISSING, "TLS", "this libcurl has none: no https URL can be used");
    }
    ExamineResolver(tFindings, tCurl);
    ExamineGlobalInit(tFindings, tCurl);
    Report(tFindings, FINDING_OK, "HTTP/2", "%s",
           (tCurl.features & CURL_VERSION_HTTP2) != 0 ? "libcurl offers it to https servers"
                                                      : "libcurl does not have it; not needed");
}

bool PortIsFree(uint16_t wPort)
{
    const int nSock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (nSock < 0) {
        return false;
    }
    sockaddr_in tAddr = {};
    tAddr.sin_family = AF_INET;
    tAddr.sin_port = htons(wPort);
    tAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool bFree = bind(nSock, reinterpret_cast<const sockaddr *>(&tAddr), sizeof(tAddr)) == 0;
    close(nSock);
    return bFree;
}

void ExamineWakeupPorts(TFindings &tFindings)
{
    unsigned dwFree = 0;
    for (uint16_t wPort = HCC_WAKEUP_PORT_FIRST; wPort >= HCC_WAKEUP_PORT_LAST; --wPort) {
        dwFree += PortIsFree(wPort) ? 1 : 0;
    }
    const bool bEnough = dwFree >= WORKERS;
    Report(tFindings, bEnough ? FINDING_OK : FINDING_MISSING, "wake-up ports",
           "%u of %u UDP ports of 127.0.0.1 from %u down to %u are free (needed: %u for each process that starts the "
           "send module)%s",
           dwFree, unsigned{HCC_WAKEUP_PORT_FIRST - HCC_WAKEUP_PORT_LAST + 1}, unsigned{HCC_WAKEUP_PORT_FIRST},
           unsigned{HCC_WAKEUP_PORT_LAST}, unsigned{WORKERS},
           bEnough ? "" : "; is the loopback interface up, and who holds them (ss -lunp)?");
}

/* A proxy without the user and password that it may name. */
std::string WithoutPassword(const std::string &strProxy)
{
    const size_t qwAt = strProxy.rfind('@');
    if (qwAt == std::string::npos) {
        return strProxy;
    }
    const size_t qwScheme = strProxy.find("://");
    const std::string strScheme = qwScheme < qwAt ? strProxy.substr(0, qwScheme + 3) : "";
    return strScheme + "***" + strProxy.substr(qwAt);
}

/* libcurl takes an empty variable for an unset one. */
const char *Variable(const char *szName)
{
    const char *szValue = getenv(szName);
    return szValue != nullptr && *szValue != '\0' ? szValue : nullptr;
}

/* The variable in force of the two spellings: the small one goes first. */
const char *InForce(const char *szSmall, const char *szCapital)
{
    return Variable(szSmall) != nullptr || szCapital == nullptr ? szSmall : szCapital;
}

void ExamineProxies(TFindings &tFindings)
{
    struct TProxy {
        const char *szName;
        const char *szUsed;
    };
    const std::array<TProxy, 3> atProxies = {TProxy{InForce("http_proxy", nullptr), "http URLs"},
                                             TProxy{InForce("https_proxy", "HTTPS_PROXY"), "https URLs"},
                                             TProxy{InForce("all_proxy", "ALL_PROXY"), "URLs without a proxy above"}};
    const char *szExcept = InForce("no_proxy", "NO_PROXY");
    bool bAny = false;
    for (const TProxy &tProxy : atProxies) {
        const char *szValue = Variable(tProxy.szName);
        if (szValue != nullptr) {
            bAny = true;
            Report(tFindings, FINDING_WARNING, "proxy",
                   "%s=%s: libcurl sends requests for %s there; unset it, or list hosts in no_proxy", tProxy.szName,
                   WithoutPassword(szValue).c_str(), tProxy.szUsed);
        }
    }
    if (!bAny) {
        Report(tFindings, FINDING_OK, "proxy", "no variable that libcurl obeys is set");
    }
    if (Variable(szExcept) != nullptr) {
        Report(tFindings, FINDING_OK, "proxy", "%s=%s: no proxy for these", szExcept, Variable(szExcept));
    }
    if (Variable("HTTP_PROXY") != nullptr) {
        Report(tFindings, FINDING_OK, "proxy", "HTTP_PROXY is set: libcurl ignores it in capitals");
    }
}

std::string LimitText(rlim_t qwLimit)
{
    return qwLimit == RLIM_INFINITY ? "unlimited" : std::to_string(qwLimit);
}

void ExamineOpenFiles(TFindings &tFindings)
{
    rlimit tLimit = {};
    if (getrlimit(RLIMIT_NOFILE, &tLimit) != 0) {
        Report(tFindings, FINDING_WARNING, "open files", "the limit cannot be read");
        return;
    }
    const rlim_t qwNeeded = rlim_t{OUTSTANDING} + OWN_FILES;
    const std::string strSoft = LimitText(tLimit.rlim_cur);
    const auto qwWanted = static_cast<unsigned long>(qwNeeded);
    if (tLimit.rlim_cur >= qwNeeded) {
        Report(tFindings, FINDING_OK, "open files",
               "%s (1024 outstanding requests take about %lu, two more for each host name being resolved)",
               strSoft.c_str(), qwWanted);
    } else {
        Report(tFindings, FINDING_WARNING, "open files",
               "%s, but 1024 outstanding requests take about %lu: transfers beyond it fail; %s (hard limit: %s)",
               strSoft.c_str(), qwWanted,
               tLimit.rlim_max >= qwNeeded ? "raise it with ulimit -n 4096" : "have the hard limit raised",
               LimitText(tLimit.rlim_max).c_str());
    }
}

int Doctor()
{
    TFindings tFindings;
    ExamineCurl(tFindings);
    ExamineWakeupPorts(tFindings);
    ExamineProxies(tFindings);
    ExamineOpenFiles(tFindings);
    Report(tFindings, FINDING_OK, "log", "%s (NVRHTTPCURL_LOG_DIR names another folder)", DebugLogPath().c_str());
    printf("%u missing, %u warnings\n", tFindings.dwMissing, tFindings.dwWarnings);
    return tFindings.dwMissing == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

void AddDoctorCommand(CLI::App &tApp, int &nStatus)
{
    CLI::App *ptDoctor = tApp.add_subcommand("doctor", "Tell what this machine offers the library, and what it lacks");
    ptDoctor->footer(s_szHelp);
    ptDoctor->callback([&nStatus] { nStatus = Doctor(); });
}
