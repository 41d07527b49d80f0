#include "bench/ways.h"

#include <cstdio>
#include <stdexcept>

const std::vector<TNamedWay> g_atWays = {
    {"libcurl", EasyWay},
    {"libcurl, options of direct", EasyAsDirectWay},
    {"libcurl, a thread each", ThreadsWay},
    {"libcurl, multi handles", MultiWay},
    {"loop model", LoopWay},
    {"socket", SocketWay},
    {"sockets, epoll", SocketLoopWay},
    {"send module, synchronous", ModuleSyncWay},
    {"send module, direct", ModuleDirectWay},
    {"send module, asynchronous", ModuleAsyncWay},
    {"engine", EngineWay},
    {"C++ client", ClientWay},
#ifdef BENCH_CURLPP
    {"curlpp", CurlppWay},
#endif
#ifdef BENCH_POCO
    {"Poco", PocoWay},
#endif
#ifdef BENCH_HTTPLIB
    {"cpp-httplib", HttplibWay},
#endif
#ifdef BENCH_BEAST
    {"Boost.Beast", BeastWay},
    {"Boost.Beast, asynchronous", BeastAsyncWay},
#endif
#ifdef BENCH_SOUP
    {"libsoup", SoupWay},
    {"libsoup, asynchronous", SoupAsyncWay},
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
    tTarget.strHost = szHost;
    tTarget.strPath = szPath;
    tTarget.strBody = strHead + std::string(BENCH_BODY_BYTES - strHead.size() - 2, 'x') + "\"}";
    tTarget.uAnswer = uAnswer;
    return tTarget;
}
