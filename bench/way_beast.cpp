#include <deque>
#include <memory>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "bench/ways.h"

namespace
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

using CRequest = http::request<http::string_body>;
using CResponse = http::response<http::string_body>;

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

bool PostOnce(const TTarget &tTarget, std::string &strAnswer)
{
    asio::io_context tContext;
    asio::ip::tcp::socket tSocket(tContext);
    beast::flat_buffer tBuffer;
    CResponse tResponse;
    tSocket.connect(Server(tTarget));
    http::write(tSocket, Request(tTarget));
    http::read(tSocket, tBuffer, tResponse);
    const bool bSucceeded = IsAnswer(tResponse, tTarget);
    strAnswer = std::move(tResponse.body());
    return bSucceeded;
}

struct TConnection {
    explicit TConnection(asio::io_context &tContext) : tSocket(tContext)
    {
    }

    asio::ip::tcp::socket tSocket;
    beast::flat_buffer tBuffer;
    CRequest tRequest;
    CResponse tResponse;
};

/* A connection for each chain, and one thread that runs all of them. */
struct TBeastLoop {
    explicit TBeastLoop(const TTarget &tAny) : tTarget(tAny)
    {
        for (uint32_t dwChain = 0; dwChain < BENCH_MOST_OUTSTANDING; dwChain++) {
            atConnections.emplace_back(tContext);
        }
    }

    TTarget tTarget;
    asio::io_context tContext;
    asio::executor_work_guard<asio::io_context::executor_type> tGuard = asio::make_work_guard(tContext);
    std::deque<TConnection> atConnections;
};

void Read(TBeastLoop &tLoop, TConnection &tConnection, TChain &tChain)
{
    tConnection.tResponse = {};
    http::async_read(tConnection.tSocket, tConnection.tBuffer, tConnection.tResponse,
                     [&](const boost::system::error_code &tError, size_t) {
                         ChainEnded(tChain, !tError && IsAnswer(tConnection.tResponse, tLoop.tTarget));
                     });
}

void Write(TBeastLoop &tLoop, TConnection &tConnection, TChain &tChain)
{
    tConnection.tRequest = Request(tLoop.tTarget);
    http::async_write(tConnection.tSocket, tConnection.tRequest, [&](const boost::system::error_code &tError, size_t) {
        if (tError) {
            ChainEnded(tChain, false);
        } else {
            Read(tLoop, tConnection, tChain);
        }
    });
}

void Submit(TBeastLoop &tLoop, TChain &tChain)
{
    TConnection &tConnection = tLoop.atConnections[tChain.dwIndex];
    if (tConnection.tSocket.is_open()) {
        Write(tLoop, tConnection, tChain);
        return;
    }
    tConnection.tSocket.async_connect(Server(tLoop.tTarget), [&](const boost::system::error_code &tError) {
        if (tError) {
            ChainEnded(tChain, false);
        } else {
            Write(tLoop, tConnection, tChain);
        }
    });
}

} // namespace

TWay BeastWay(const TTarget &tTarget)
{
    return {[tTarget](TChain &tChain) { return PostOnce(tTarget, tChain.strAnswer); }, true};
}

TWay BeastAsyncWay(const TTarget &tTarget)
{
    auto ptLoop = std::make_shared<TBeastLoop>(tTarget);
    std::thread([ptLoop] { ptLoop->tContext.run(); }).detach();
    return {[ptLoop](TChain &tChain) {
        asio::post(ptLoop->tContext, [ptLoop, &tChain] { Submit(*ptLoop, tChain); });
        return true;
    }};
}
