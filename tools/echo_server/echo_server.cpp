#include "tools/echo_server/echo_server.h"

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <httplib.h>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>

#include "tools/echo_server/certificate.h"

const char g_szEchoServerHelp[] = "POST is answered with the body itself, byte for byte; GET and PUT with a JSON\n"
                                  "object that tells method, target, headers and body. Paths that do more, with\n"
                                  "each of the three:\n"
                                  "  /status/NNN   the same answer with HTTP status NNN (200 to 599)\n"
                                  "  /delay/MS     the same answer MS milliseconds later (at most 60000)\n"
                                  "  /size/N       a JSON text of exactly N bytes instead (at most 16777216)";

namespace
{

const char s_szLoopback[] = "127.0.0.1";
const char s_szJson[] = "application/json";

enum {
    BACKLOG = 1024,
    THREADS = 64,
    MAX_BODY = 64 << 20,
    MIN_STATUS = 200,
    MAX_STATUS = 599,
    MAX_DELAY_MS = 60000,
    MAX_SIZE = 16 << 20
};

std::unique_ptr<httplib::Server> MakeServer(bool bTls)
{
    if (!bTls) {
        return std::make_unique<httplib::Server>();
    }
    const CKey ptKey = MakeKey();
    const CCertificate ptCertificate = MakeCertificate(ptKey.get());
    /* The TLS context takes references of its own. */
    auto ptServer = std::make_unique<httplib::SSLServer>(ptCertificate.get(), ptKey.get());
    if (!ptServer->is_valid()) {
        throw std::runtime_error("TLS could not be set up");
    }
    return ptServer;
}

/* Bytes from 0x80 on go through as they came. */
void AppendJsonText(std::string &strOut, const std::string &strText)
{
    static const char achDigits[] = "0123456789abcdef";
    strOut += '"';
    for (const char chOne : strText) {
        const auto byOne = static_cast<unsigned char>(chOne);
        if (chOne == '"' || chOne == '\\') {
            strOut += '\\';
            strOut += chOne;
        } else if (byOne < 0x20) {
            strOut += "\\u00";
            strOut += achDigits[byOne >> 4];
            strOut += achDigits[byOne & 0xF];
        } else {
            strOut += chOne;
        }
    }
    strOut += '"';
}

/* The server adds the addresses of both ends to the headers of a request. */
bool IsFromClient(const std::string &strHeader)
{
    return strHeader != "REMOTE_ADDR" && strHeader != "REMOTE_PORT" && strHeader != "LOCAL_ADDR" &&
           strHeader != "LOCAL_PORT";
}

std::string Describe(const httplib::Request &tRequest, const std::string &strBody)
{
    std::string strOut = "{\"method\":";
    AppendJsonText(strOut, tRequest.method);
    strOut += ",\"target\":";
    AppendJsonText(strOut, tRequest.target);
    strOut += ",\"headers\":[";
    const char *szSeparator = "";
    for (const auto &[strName, strValue] : tRequest.headers) {
        if (IsFromClient(strName)) {
            strOut += szSeparator;
            std::string strLine = strName;
            AppendJsonText(strOut, strLine.append(": ").append(strValue));
            szSeparator = ",";
        }
    }
    strOut += "],\"body\":";
    AppendJsonText(strOut, strBody);
    strOut += "}";
    return strOut;
}

std::string TextOfSize(unsigned dwSize)
{
    if (dwSize < 2) {
        return std::string(dwSize, '0');
    }
    return '"' + std::string(dwSize - 2, 'x') + '"';
}

struct TOutOfRange {
};

/* The number after a prefix of the path; nothing where the path has another prefix. */
std::optional<unsigned> NumberAfter(const std::string &strPath, const std::string &strPrefix, unsigned dwMin,
                                    unsigned dwMax)
{
    if (strPath.compare(0, strPrefix.size(), strPrefix) != 0) {
        return std::nullopt;
    }
    unsigned dwNumber = 0;
    const char *pchEnd = strPath.data() + strPath.size();
    const auto [pchStop, eError] = std::from_chars(strPath.data() + strPrefix.size(), pchEnd, dwNumber);
    if (eError != std::errc() || pchStop != pchEnd || dwNumber < dwMin || dwNumber > dwMax) {
        throw TOutOfRange();
    }
    return dwNumber;
}

} // namespace

struct CEchoServer::TImpl {
    std::unique_ptr<httplib::Server> ptServer;
    bool bTls = false;
    int nPort = 0;
    int nListenSock = -1;
    std::thread tThread;
    std::mutex tLock;
    std::condition_variable tStopped;
    bool bStopping = false;
    bool bEnded = false;

    void Answer(const httplib::Request &tRequest, httplib::Response &tResponse, const std::string &strBody);
    void AddHandlers();
    void Configure();
    void Listen(uint16_t wPort);
    void Delay(unsigned dwMS);
    bool HasEnded();
};

void CEchoServer::TImpl::Delay(unsigned dwMS)
{
    std::unique_lock<std::mutex> tGuard(tLock);
    tStopped.wait_for(tGuard, std::chrono::milliseconds(dwMS), [this] { return bStopping; });
}

bool CEchoServer::TImpl::HasEnded()
{
    const std::lock_guard<std::mutex> tGuard(tLock);
    return bEnded;
}

void CEchoServer::TImpl::Answer(const httplib::Request &tRequest, httplib::Response &tResponse,
                                const std::string &strBody)
{
    try {
        const auto dwStatus = NumberAfter(tRequest.path, "/status/", MIN_STATUS, MAX_STATUS);
        const auto dwDelay = NumberAfter(tRequest.path, "/delay/", 0, MAX_DELAY_MS);
        const auto dwSize = NumberAfter(tRequest.path, "/size/", 0, MAX_SIZE);
        if (dwDelay) {
            Delay(*dwDelay);
        }
        if (dwSize) {
            tResponse.set_content(TextOfSize(*dwSize), s_szJson);
        } else {
            tResponse.set_content(tRequest.method == "POST" ? strBody : Describe(tRequest, strBody), s_szJson);
        }
        tResponse.status = static_cast<int>(dwStatus.value_or(200));
    } catch (const TOutOfRange &) {
        tResponse.status = 400;
        tResponse.set_content("{\"error\":\"number out of range\"}", s_szJson);
    }
}

void CEchoServer::TImpl::AddHandlers()
{
    /*
     * Read with a content reader, a body comes as it was sent; otherwise the server parses
     * it by its type, and refuses one longer than 8 KiB of libcurl's default type.
     */
    const auto pfWithBody = [this](const httplib::Request &tRequest, httplib::Response &tResponse,
                                   const httplib::ContentReader &tReader) {
        if (tRequest.is_multipart_form_data()) {
            tResponse.status = 415;
            return;
        }
        std::string strBody;
        const bool bRead = tReader([&strBody](const char *pchData, size_t uLen) {
            strBody.append(pchData, uLen);
            return true;
        });
        if (bRead) {
            Answer(tRequest, tResponse, strBody);
        }
    };
    ptServer->Post("/.*", pfWithBody);
    ptServer->Put("/.*", pfWithBody);
    ptServer->Get("/.*", [this](const httplib::Request &tRequest, httplib::Response &tResponse) {
        Answer(tRequest, tResponse, std::string());
    });
}

void CEchoServer::TImpl::Configure()
{
    /*
     * An idle connection occupies one of the threads: with more connections kept than
     * there are threads, new ones would wait for the idle ones to time out.
     */
    ptServer->set_keep_alive_max_count(1);
    ptServer->set_tcp_nodelay(true);
    ptServer->set_payload_max_length(MAX_BODY);
    ptServer->new_task_queue = [] { return new httplib::ThreadPool(THREADS); };
    /*
     * Not the default options: with SO_REUSEPORT a second server on the same port would
     * silently take half of its connections.
     */
    ptServer->set_socket_options([this](int nSock) {
        int nOn = 1;
        setsockopt(nSock, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
        nListenSock = nSock;
    });
}

void CEchoServer::TImpl::Listen(uint16_t wPort)
{
    if (wPort == 0) {
        nPort = ptServer->bind_to_any_port(s_szLoopback);
    } else {
        nPort = ptServer->bind_to_port(s_szLoopback, wPort) ? wPort : -1;
    }
    if (nPort <= 0) {
        throw std::runtime_error(wPort == 0 ? "no free port on 127.0.0.1"
                                            : "port " + std::to_string(wPort) + " of 127.0.0.1 cannot be taken");
    }
    /*
     * The library listens with a backlog of 5, which a burst of connections overruns:
     * each one dropped comes again a second later.
     */
    if (::listen(nListenSock, BACKLOG) != 0) {
        throw std::runtime_error("the listening socket's queue could not be enlarged");
    }
}

CEchoServer::CEchoServer(const TEchoServerOptions &tOptions) : m_ptImpl(std::make_unique<TImpl>())
{
    TImpl &tImpl = *m_ptImpl;
    tImpl.bTls = tOptions.bTls;
    tImpl.ptServer = MakeServer(tOptions.bTls);
    tImpl.Configure();
    tImpl.AddHandlers();
    tImpl.Listen(tOptions.wPort);
    tImpl.tThread = std::thread([&tImpl] {
        tImpl.ptServer->listen_after_bind();
        const std::lock_guard<std::mutex> tGuard(tImpl.tLock);
        tImpl.bEnded = true;
    });
    /* A stop before the server runs would be lost. */
    while (!tImpl.ptServer->is_running() && !tImpl.HasEnded()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

CEchoServer::~CEchoServer()
{
    Stop();
}

std::string CEchoServer::Url() const
{
    return std::string(m_ptImpl->bTls ? "https" : "http") + "://" + s_szLoopback + ":" +
           std::to_string(m_ptImpl->nPort) + "/";
}

void CEchoServer::Stop()
{
    {
        const std::lock_guard<std::mutex> tGuard(m_ptImpl->tLock);
        m_ptImpl->bStopping = true;
    }
    m_ptImpl->tStopped.notify_all();
    m_ptImpl->ptServer->stop();
    if (m_ptImpl->tThread.joinable()) {
        m_ptImpl->tThread.join();
    }
}
