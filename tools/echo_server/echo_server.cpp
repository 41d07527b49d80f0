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
#include "tools/echo_server/connections.h"

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
    MAX_BODY = 64 << 20,
    MIN_STATUS = 200,
    MAX_STATUS = 599,
    MAX_DELAY_MS = 60000,
    MAX_SIZE = 16 << 20
};

/* How long a stopped server leaves requests under way, and looks again whether all have ended. */
const std::chrono::milliseconds s_tLastAnswers(300);
const std::chrono::milliseconds s_tBetweenLooks(10);

/* What this thread knows of the request that it answers. */
struct TExchange {
    std::chrono::steady_clock::time_point tBegin = std::chrono::steady_clock::now();
    size_t uBodyLen = 0;
};
thread_local TExchange s_tExchange;

/* With strCertificate empty where TLS is not wanted. */
std::unique_ptr<httplib::Server> MakeServer(bool bTls, std::string &strCertificate)
{
    if (!bTls) {
        return std::make_unique<httplib::Server>();
    }
    const CKey ptKey = MakeKey();
    const CCertificate ptCertificate = MakeCertificate(ptKey.get());
    strCertificate = CertificateText(ptCertificate.get());
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
    std::string strCertificate;
    std::function<void(const TEchoRequest &)> pfAnswered;
    int nPort = 0;
    int nListenSock = -1;
    std::thread tThread;
    std::mutex tLock;
    std::condition_variable tChanged;
    bool bStopping = false;
    bool bEnded = false;

    void Answer(const httplib::Request &tRequest, httplib::Response &tResponse, const std::string &strBody);
    void AddHandlers();
    void AddObserver();
    void Configure();
    void Listen(uint16_t wPort);
    void Delay(unsigned dwMS);
    bool HasEnded();
    void AwaitEnd();
};

void CEchoServer::TImpl::Delay(unsigned dwMS)
{
    std::unique_lock<std::mutex> tGuard(tLock);
    tChanged.wait_for(tGuard, std::chrono::milliseconds(dwMS), [this] { return bStopping; });
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
        s_tExchange.uBodyLen = strBody.size();
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

void CEchoServer::TImpl::AddObserver()
{
    ptServer->set_pre_routing_handler([](const httplib::Request &, httplib::Response &) {
        s_tExchange = {std::chrono::steady_clock::now(), 0};
        return httplib::Server::HandlerResponse::Unhandled;
    });
    ptServer->set_logger([this](const httplib::Request &tRequest, const httplib::Response &tResponse) {
        const std::chrono::duration<double, std::milli> tTook = std::chrono::steady_clock::now() - s_tExchange.tBegin;
        pfAnswered({tRequest.method, tRequest.target, s_tExchange.uBodyLen, tResponse.status, tTook.count()});
    });
}

void CEchoServer::TImpl::Configure()
{
    /* A kept connection costs a thread and an open file, and a client may keep hundreds. */
    ptServer->set_keep_alive_max_count(1);
    ptServer->set_tcp_nodelay(true);
    ptServer->set_payload_max_length(MAX_BODY);
    ptServer->new_task_queue = [] { return new CThreadPerConnection; };
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
    tImpl.pfAnswered = tOptions.pfAnswered;
    tImpl.ptServer = MakeServer(tOptions.bTls, tImpl.strCertificate);
    tImpl.Configure();
    tImpl.AddHandlers();
    if (tImpl.pfAnswered) {
        tImpl.AddObserver();
    }
    tImpl.Listen(tOptions.wPort);
    tImpl.tThread = std::thread([&tImpl] {
        tImpl.ptServer->listen_after_bind();
        const std::lock_guard<std::mutex> tGuard(tImpl.tLock);
        tImpl.bEnded = true;
        tImpl.tChanged.notify_all();
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

std::string CEchoServer::Certificate() const
{
    return m_ptImpl->strCertificate;
}

void CEchoServer::TImpl::AwaitEnd()
{
    std::unique_lock<std::mutex> tGuard(tLock);
    std::chrono::milliseconds tPatience = s_tLastAnswers;
    while (!tChanged.wait_for(tGuard, tPatience, [this] { return bEnded; })) {
        ShutDownConnections(static_cast<uint16_t>(nPort));
        tPatience = s_tBetweenLooks;
    }
}

void CEchoServer::Stop()
{
    {
        const std::lock_guard<std::mutex> tGuard(m_ptImpl->tLock);
        m_ptImpl->bStopping = true;
    }
    m_ptImpl->tChanged.notify_all();
    m_ptImpl->ptServer->stop();
    if (m_ptImpl->tThread.joinable()) {
        m_ptImpl->AwaitEnd();
        m_ptImpl->tThread.join();
    }
}
