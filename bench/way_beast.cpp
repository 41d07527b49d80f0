#include <deque>
#include <memory>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "bench/ways.h"

namespace
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

using CSocket = asio::ip::tcp::socket;
using CRequest = http::request<http::string_body>;
using CResponse = http::response<http::string_body>;

/* Neither checks certificates nor resumes sessions. */
asio::ssl::context &TlsContext()
{
    static asio::ssl::context s_tContext(asio::ssl::context::tls_client);
    return s_tContext;
}

struct TTlsSocket : asio::ssl::stream<CSocket> {
    explicit TTlsSocket(asio::io_context &tContext) : stream(tContext, TlsContext())
    {
    }
};

void ShakeHands(CSocket &)
{
}

void ShakeHands(TTlsSocket &tSocket)
{
    tSocket.handshake(TTlsSocket::client);
}

template <typename TDone> void ShakeHands(CSocket &, const TDone &tDone)
{
    tDone(boost::system::error_code());
}

template <typename TDone> void ShakeHands(TTlsSocket &tSocket, const TDone &tDone)
{
    tSocket.async_handshake(TTlsSocket::client, tDone);
}

CRequest Request(const TTarget &tTarget)
{
    CRequest tRequest(http::verb::post, tTarget.strPath, 11, tTarget.strBody);
    tRequest.set(http::field::host, tTarget.strHost + ":" + std::to_string(tTarget.wPort));
    tRequest.set(http::field::content_type, "application/json");
    tRequest.prepare_payload();
    return tRequest;
}

asio::ip::tcp::endpoint Server(const TTarget &tTarget)
{
    return {asio::ip::make_address(tTarget.strHost), tTarget.wPort};
}

bool IsAnswer(const CResponse &tResponse, const TTarget &tTarget)
{
    return tResponse.result() == http::status::ok && tResponse.body().size() == tTarget.uAnswer;
}

template <typename TSocket> bool PostOnce(const TTarget &tTarget, std::string &strAnswer)
{
    asio::io_context tContext;
    TSocket tSocket(tContext);
    beast::flat_buffer tBuffer;
    CResponse tResponse;
    tSocket.lowest_layer().connect(Server(tTarget));
    ShakeHands(tSocket);
    http::write(tSocket, Request(tTarget));
    http::read(tSocket, tBuffer, tResponse);
    const bool bSucceeded = IsAnswer(tResponse, tTarget);
    strAnswer = std::move(tResponse.body());
    return bSucceeded;
}

template <typename TSocket> struct TConnection {
    explicit TConnection(asio::io_context &tContext) : tSocket(tContext)
    {
    }

    TSocket tSocket;
    beast::flat_buffer tBuffer;
    CRequest tRequest;
    CResponse tResponse;
};

/* A connection for each chain, and one thread that runs all of them. */
template <typename TSocket> struct TBeastLoop {
    explicit TBeastLoop(const TTarget &tAny) : tTarget(tAny)
    {
        for (uint32_t dwChain = 0; dwChain < BENCH_MOST_OUTSTANDING; dwChain++) {
            atConnections.emplace_back(tContext);
        }
    }

    TTarget tTarget;
    asio::io_context tContext;
    asio::executor_work_guard<asio::io_context::executor_type> tGuard = asio::make_work_guard(tContext);
    std::deque<TConnection<TSocket>> atConnections;
};

/* Goes on unless there is an error, which ends the post. */
template <typename TNext> auto Unless(TChain &tChain, const TNext &tNext)
{
    return [&tChain, tNext](const boost::system::error_code &tError, auto &&...) {
        if (tError) {
            ChainEnded(tChain, false);
        } else {
            tNext();
        }
    };
}

template <typename TSocket> void Exchange(const TTarget &tTarget, TConnection<TSocket> &tConnection, TChain &tChain)
{
    const auto tEnd = [&] { ChainEnded(tChain, IsAnswer(tConnection.tResponse, tTarget)); };
    const auto tRead = [&, tEnd] {
        tConnection.tResponse = {};
        http::async_read(tConnection.tSocket, tConnection.tBuffer, tConnection.tResponse, Unless(tChain, tEnd));
    };
    tConnection.tRequest = Request(tTarget);
    http::async_write(tConnection.tSocket, tConnection.tRequest, Unless(tChain, tRead));
}

template <typename TSocket> void Submit(const TTarget &tTarget, TConnection<TSocket> &tConnection, TChain &tChain)
{
    const auto tExchange = [&] { Exchange(tTarget, tConnection, tChain); };
    const auto tShakeHands = [&, tExchange] { ShakeHands(tConnection.tSocket, Unless(tChain, tExchange)); };
    if (tConnection.tSocket.lowest_layer().is_open()) {
        tExchange();
    } else {
        tConnection.tSocket.lowest_layer().async_connect(Server(tTarget), Unless(tChain, tShakeHands));
    }
}

template <typename TSocket> TWay AsyncWay(const TTarget &tTarget)
{
    auto ptLoop = std::make_shared<TBeastLoop<TSocket>>(tTarget);
    std::thread([ptLoop] { ptLoop->tContext.run(); }).detach();
    return {[ptLoop](TChain &tChain) {
        asio::post(ptLoop->tContext,
                   [ptLoop, &tChain] { Submit(ptLoop->tTarget, ptLoop->atConnections[tChain.dwIndex], tChain); });
        return true;
    }};
}

} // namespace

TWay BeastWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) {
                return tTarget.bTls ? PostOnce<TTlsSocket>(tTarget, tChain.strAnswer)
                                    : PostOnce<CSocket>(tTarget, tChain.strAnswer);
            },
            true};
}

TWay BeastAsyncWay(const TTarget &tTarget)
{
    return tTarget.bTls ? AsyncWay<TTlsSocket>(tTarget) : AsyncWay<CSocket>(tTarget);
}
