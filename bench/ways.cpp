#include "bench/ways.h"

#include <cstdio>
#include <stdexcept>

const std::vector<TNamedWay> g_atWays = {
    {"libcurl", WAYS_BLOCKING | WAYS_TLS, EasyWay},
    {"libcurl, options of direct", WAYS_BLOCKING | WAYS_TLS, EasyAsDirectWay},
    {"libcurl, multi handles", WAYS_ASYNCHRONOUS | WAYS_WORKERS | WAYS_TLS, MultiWay},
    {"loop model", WAYS_ASYNCHRONOUS | WAYS_WORKERS | WAYS_TLS, LoopWay},
    {"socket", WAYS_BLOCKING, SocketWay},
    {"libcurl, a thread each", WAYS_ASYNCHRONOUS | WAYS_TLS, ThreadsWay},
    {"sockets, epoll", WAYS_ASYNCHRONOUS, SocketLoopWay},
    {"send module, synchronous", WAYS_BLOCKING | WAYS_TLS, ModuleSyncWay},
    {"send module, direct", WAYS_BLOCKING | WAYS_TLS, ModuleDirectWay},
    {"send module, asynchronous", WAYS_ASYNCHRONOUS | WAYS_WORKERS | WAYS_TLS, ModuleAsyncWay},
    {"engine", WAYS_ASYNCHRONOUS | WAYS_WORKERS | WAYS_TLS, EngineWay},
    {"C++ client", WAYS_ASYNCHRONOUS | WAYS_WORKERS | WAYS_TLS, ClientWay},
#ifdef BENCH_CURLPP
    {"curlpp", WAYS_BLOCKING | WAYS_TLS, CurlppWay},
#endif
#ifdef BENCH_POCO
    {"Poco", WAYS_BLOCKING | WAYS_TLS, PocoWay},
#endif
#ifdef BENCH_HTTPLIB
    {"cpp-httplib", WAYS_BLOCKING | WAYS_TLS, HttplibWay},
#endif
#ifdef BENCH_BEAST
    {"Boost.Beast", WAYS_BLOCKING | WAYS_TLS, BeastWay},
    {"Boost.Beast, asynchronous", WAYS_ASYNCHRONOUS | WAYS_TLS, BeastAsyncWay},
#endif
#ifdef BENCH_SOUP
    {"libsoup", WAYS_BLOCKING | WAYS_TLS, SoupWay},
#endif
};

TTarget MakeTarget(const std::string &strUrl, size_t uAnswer)
{
    const std::string strHead = R"({"TaskId":1,"Device":"NVR-01","Event":"motion","Channel":3,"Text":")";
    TTarget tTarget;
    char szHost[64] = "";
    char szPath[64] = "";
    if (sscanf(strUrl.c_str(), "%*[a-z]://%63[0-9.]:%hu%63s", szHost, &tTarget.wPort, szPath) != 3) {
        throw std::invalid_argument("no complete URL: " + strUrl);
    }
    tTarget.strUrl = strUrl;
    tTarget.bTls = strUrl.rfind("https:", 0) == 0;
    tTarget.strHost = szHost;
    tTarget.strPath = szPath;
    tTarget.strBody = strHead + std::string(BENCH_BODY_BYTES - strHead.size() - 2, 'x') + "\"}";
    tTarget.uAnswer = uAnswer;
    return tTarget;
}
