#include "tools/echo_server/echo_server.h"

#include <httplib.h>

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <sys/socket.h>

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

const char *const g_szEchoServerHelp =
    R"(POST is answered with the body itself, byte for byte; GET and PUT with a JSON
object that tells method, target, headers and body. Paths that do more, with
each of the three:
  /status/NNN   the same answer with HTTP status NNN (200 to 599)
  /delay/MS     the same answer MS milliseconds later (at most 60000)
  /size/N       a JSON text of exactly N bytes instead (at most 16777216))";

namespace
{

const char *const s_szLoopback = "127.0.0.1";
const char *const s_szJson = "application/json";
const int s_nBacklog = 1024;
const size_t s_nThreads = 64;
const size_t s_nMaxBody = 64U << 20;
const unsigned s_dwMaxDelayMS = 60000;
const unsigned s_dwMaxSize = 16U << 20;
const long s_nDaySeconds = 24L * 60 * 60;

struct TFreeKey {
    void operator()(EVP_PKEY *ptKey) const
    {
        EVP_PKEY_free(ptKey);
    }
};
struct TFreeCertificate {
    void operator()(X509 *ptCertificate) const
    {
        X509_free(ptCertificate);
    }
};
struct TFreeExtension {
    void operator()(X509_EXTENSION *ptExtension) const
    {
        X509_EXTENSION_free(ptExtension);
    }
};
using CKey = std::unique_ptr<EVP_PKEY, TFreeKey>;
using CCertificate = std::unique_ptr<X509, TFreeCertificate>;

void Require(bool bDone, const char *szWhat)
{
    if (!bDone) {
        throw std::runtime_error(szWhat);
    }
}

void AddSubjectAltName(X509 *ptCertificate)
{
    X509V3_CTX tContext;
    X509V3_set_ctx_nodb(&tContext);
    X509V3_set_ctx(&tContext, ptCertificate, ptCertificate, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, TFreeExtension> ptName(
        X509V3_EXT_conf_nid(nullptr, &tContext, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"));
    Require(ptName && X509_add_ext(ptCertificate, ptName.get(), -1) == 1, "the certificate's names could not be set");
}

CCertificate MakeCertificate(EVP_PKEY *ptKey)
{
    CCertificate ptCertificate(X509_new());
    Require(ptCertificate != nullptr, "no memory for a certificate");

    // A client that remembers an earlier certificate of this issuer may refuse a second
    // one with the same serial number.
    unsigned char abySerial[8];
    Require(RAND_bytes(abySerial, sizeof(abySerial)) == 1, "no random serial number for the certificate");
    uint64_t qwSerial = 1;
    for (unsigned char byPart : abySerial) {
        qwSerial = (qwSerial << 7) | (byPart & 0x7FU);
    }

    X509_NAME *ptSubject = X509_get_subject_name(ptCertificate.get());
    const auto *pbyCommonName = reinterpret_cast<const unsigned char *>("localhost");
    bool bDone = X509_set_version(ptCertificate.get(), 2) == 1 &&
                 ASN1_INTEGER_set_uint64(X509_get_serialNumber(ptCertificate.get()), qwSerial) == 1 &&
                 X509_gmtime_adj(X509_getm_notBefore(ptCertificate.get()), -s_nDaySeconds) != nullptr &&
                 X509_gmtime_adj(X509_getm_notAfter(ptCertificate.get()), 30 * s_nDaySeconds) != nullptr &&
                 X509_NAME_add_entry_by_txt(ptSubject, "CN", MBSTRING_ASC, pbyCommonName, -1, -1, 0) == 1 &&
                 X509_set_issuer_name(ptCertificate.get(), ptSubject) == 1 &&
                 X509_set_pubkey(ptCertificate.get(), ptKey) == 1;
    Require(bDone, "the certificate could not be filled in");
    AddSubjectAltName(ptCertificate.get());
    Require(X509_sign(ptCertificate.get(), ptKey, EVP_sha256()) != 0, "the certificate could not be signed");
    return ptCertificate;
}

std::unique_ptr<httplib::Server> MakeServer(bool bTls)
{
    if (!bTls) {
        return std::make_unique<httplib::Server>();
    }
    CKey ptKey(EVP_EC_gen("P-256"));
    Require(ptKey != nullptr, "no key for the certificate");
    CCertificate ptCertificate = MakeCertificate(ptKey.get());
    // The TLS context takes references of its own.
    auto ptServer = std::make_unique<httplib::SSLServer>(ptCertificate.get(), ptKey.get());
    Require(ptServer->is_valid(), "TLS could not be set up");
    return ptServer;
}

// Bytes from 0x80 on go through as they came.
void AppendJsonText(std::string &strOut, const std::string &strText)
{
    static const char achDigits[] = "0123456789abcdef";

    strOut += '"';
    for (char chOne : strText) {
        auto byOne = static_cast<unsigned char>(chOne);
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

// The server adds the addresses of both ends to the headers of a request.
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

// The number behind a prefix of the path; nothing where the path has another prefix.
std::optional<unsigned> NumberBehind(const std::string &strPath, const std::string &strPrefix, unsigned dwMin,
                                     unsigned dwMax)
{
    if (strPath.compare(0, strPrefix.size(), strPrefix) != 0) {
        return std::nullopt;
    }
    unsigned dwNumber = 0;
    const char *pchEnd = strPath.data() + strPath.size();
    auto [pchStop, eError] = std::from_chars(strPath.data() + strPrefix.size(), pchEnd, dwNumber);
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
    std::lock_guard<std::mutex> tGuard(tLock);
    return bEnded;
}

void CEchoServer::TImpl::Answer(const httplib::Request &tRequest, httplib::Response &tResponse,
                                const std::string &strBody)
{
    try {
        auto nStatus = NumberBehind(tRequest.path, "/status/", 200, 599);
        auto nDelay = NumberBehind(tRequest.path, "/delay/", 0, s_dwMaxDelayMS);
        auto nSize = NumberBehind(tRequest.path, "/size/", 0, s_dwMaxSize);
        if (nDelay) {
            Delay(*nDelay);
        }
        if (nSize) {
            tResponse.set_content(TextOfSize(*nSize), s_szJson);
        } else {
            tResponse.set_content(tRequest.method == "POST" ? strBody : Describe(tRequest, strBody), s_szJson);
        }
        tResponse.status = static_cast<int>(nStatus.value_or(200));
    } catch (const TOutOfRange &) {
        tResponse.status = 400;
        tResponse.set_content("{\"error\":\"number out of range\"}", s_szJson);
    }
}

void CEchoServer::TImpl::AddHandlers()
{
    // Read with a content reader, a body comes as it was sent; otherwise the server parses
    // it by its type, and refuses one longer than 8 KiB of libcurl's default type.
    auto pfWithBody = [this](const httplib::Request &tRequest, httplib::Response &tResponse,
                             const httplib::ContentReader &tReader) {
        if (tRequest.is_multipart_form_data()) {
            tResponse.status = 415;
            return;
        }
        std::string strBody;
        bool bRead = tReader([&strBody](const char *pchData, size_t nLen) {
            strBody.append(pchData, nLen);
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
    // An idle connection occupies one of the threads: with more connections kept than
    // there are threads, new ones would wait for the idle ones to time out.
    ptServer->set_keep_alive_max_count(1);
    ptServer->set_tcp_nodelay(true);
    ptServer->set_payload_max_length(s_nMaxBody);
    ptServer->new_task_queue = [] { return new httplib::ThreadPool(s_nThreads); };
    // Not the default options: with SO_REUSEPORT a second server on the same port would
    // silently take half of its connections.
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
    // The library listens with a backlog of 5, which a burst of connections overruns:
    // each one dropped comes again a second later.
    Require(::listen(nListenSock, s_nBacklog) == 0, "the listening socket's queue could not be enlarged");
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
        std::lock_guard<std::mutex> tGuard(tImpl.tLock);
        tImpl.bEnded = true;
    });
    // A stop before the server runs would be lost.
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
        std::lock_guard<std::mutex> tGuard(m_ptImpl->tLock);
        m_ptImpl->bStopping = true;
    }
    m_ptImpl->tStopped.notify_all();
    m_ptImpl->ptServer->stop();
    if (m_ptImpl->tThread.joinable()) {
        m_ptImpl->tThread.join();
    }
}
