/*
 * Plain sockets. An answer is complete with the bytes that it has to have.
 */
#include <arpa/inet.h>
#include <cstring>
#include <deque>
#include <memory>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "bench/ways.h"

namespace
{

enum { EVENTS = 64, PART_BYTES = 65536 };

std::string RequestText(const TTarget &tTarget)
{
    return "POST " + tTarget.strPath + " HTTP/1.1\r\nHost: " + tTarget.strHost + ":" + std::to_string(tTarget.wPort) +
           "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(tTarget.strBody.size()) +
           "\r\n\r\n" + tTarget.strBody;
}

int Connect(const TTarget &tTarget)
{
    sockaddr_in tAddress = {};
    tAddress.sin_family = AF_INET;
    tAddress.sin_port = htons(tTarget.wPort);
    inet_pton(AF_INET, tTarget.strHost.c_str(), &tAddress.sin_addr);
    const int nSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(nSocket, reinterpret_cast<const sockaddr *>(&tAddress), sizeof(tAddress)) != 0) {
        close(nSocket);
        return -1;
    }
    return nSocket;
}

/* Appends what has come; false at the end of the connection. */
bool Receive(int nSocket, std::string &strAnswer)
{
    char achPart[PART_BYTES];
    const ssize_t nPart = recv(nSocket, achPart, sizeof(achPart), 0);
    strAnswer.append(achPart, nPart > 0 ? static_cast<size_t>(nPart) : 0);
    return nPart > 0;
}

bool IsComplete(const TTarget &tTarget, const std::string &strAnswer)
{
    const size_t uHeader = strAnswer.find("\r\n\r\n");
    return uHeader != std::string::npos && strAnswer.size() == uHeader + 4 + tTarget.uAnswer;
}

bool IsSuccess(const std::string &strAnswer)
{
    return strAnswer.compare(0, 12, "HTTP/1.1 200") == 0;
}

bool SendRequest(int nSocket, const std::string &strRequest)
{
    return send(nSocket, strRequest.data(), strRequest.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(strRequest.size());
}

bool PostOnce(const TTarget &tTarget, const std::string &strRequest, std::string &strAnswer)
{
    const int nSocket = Connect(tTarget);
    bool bGoesOn = nSocket >= 0 && SendRequest(nSocket, strRequest);
    strAnswer.clear();
    while (bGoesOn && !IsComplete(tTarget, strAnswer)) {
        bGoesOn = Receive(nSocket, strAnswer);
    }
    close(nSocket);
    return bGoesOn && IsSuccess(strAnswer);
}

/* The connections of the chains, with one thread that waits for all of them. */
struct TSocketLoop {
    TTarget tTarget;
    std::string strRequest = RequestText(tTarget);
    int nPoll = epoll_create1(EPOLL_CLOEXEC);
    int anSockets[BENCH_MOST_OUTSTANDING] = {};
};

void Take(TSocketLoop &tLoop, TChain &tChain)
{
    const bool bGoesOn = Receive(tLoop.anSockets[tChain.dwIndex], tChain.strAnswer);
    if (!bGoesOn || IsComplete(tLoop.tTarget, tChain.strAnswer)) {
        ChainEnded(tChain, bGoesOn && IsSuccess(tChain.strAnswer));
    }
}

[[noreturn]] void Work(TSocketLoop &tLoop)
{
    epoll_event atEvents[EVENTS];
    for (;;) {
        const int nEvents = epoll_wait(tLoop.nPoll, atEvents, EVENTS, -1);
        for (int nEvent = 0; nEvent < nEvents; nEvent++) {
            Take(tLoop, *static_cast<TChain *>(atEvents[nEvent].data.ptr));
        }
    }
}

/* The chains of another load reuse the connections of the one before. */
bool Submit(TSocketLoop &tLoop, TChain &tChain)
{
    int &nSocket = tLoop.anSockets[tChain.dwIndex];
    if (tChain.strAnswer.empty()) {
        const bool bNew = nSocket == 0;
        nSocket = bNew ? Connect(tLoop.tTarget) : nSocket;
        epoll_event tEvent = {};
        tEvent.events = EPOLLIN;
        tEvent.data.ptr = &tChain;
        if (epoll_ctl(tLoop.nPoll, bNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, nSocket, &tEvent) != 0) {
            return false;
        }
    }
    tChain.strAnswer.clear();
    return SendRequest(nSocket, tLoop.strRequest);
}

} // namespace

TWay SocketWay(const TTarget &tTarget)
{
    return {[tTarget, strRequest = RequestText(tTarget)](TChain &tChain) {
                return PostOnce(tTarget, strRequest, tChain.strAnswer);
            },
            true};
}

TWay SocketLoopWay(const TTarget &tTarget)
{
    auto ptLoop = std::make_shared<TSocketLoop>(TSocketLoop{tTarget});
    std::thread(Work, std::ref(*ptLoop)).detach();
    return {[ptLoop](TChain &tChain) { return Submit(*ptLoop, tChain); }};
}
