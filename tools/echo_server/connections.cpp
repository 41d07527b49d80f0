#include "tools/echo_server/connections.h"

#include <arpa/inet.h>
#include <charconv>
#include <dirent.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>

namespace
{

struct TCloseFolder {
    void operator()(DIR *ptFolder) const
    {
        closedir(ptFolder);
    }
};

/* A socket of another kind, or none at all, is left alone. */
void ShutDownIfOn(int nSock, uint16_t wPort)
{
    sockaddr_in tOwn = {};
    socklen_t uLen = sizeof(tOwn);
    const bool bOurs = getsockname(nSock, reinterpret_cast<sockaddr *>(&tOwn), &uLen) == 0 &&
                       tOwn.sin_family == AF_INET && tOwn.sin_port == htons(wPort);
    if (bOurs) {
        shutdown(nSock, SHUT_RDWR);
    }
}

} // namespace

void CThreadPerConnection::Run(const std::function<void()> &pfServe, TThreads::iterator tOwn)
{
    pfServe();
    const std::lock_guard<std::mutex> tGuard(m_tLock);
    m_tEnded.splice(m_tEnded.end(), m_tRunning, tOwn);
    m_tChanged.notify_all();
}

bool CThreadPerConnection::Start(const std::function<void()> &pfServe)
{
    const std::lock_guard<std::mutex> tGuard(m_tLock);
    const auto tOwn = m_tRunning.emplace(m_tRunning.end());
    try {
        *tOwn = std::thread([this, pfServe, tOwn] { Run(pfServe, tOwn); });
        return true;
    } catch (const std::system_error &) {
        m_tRunning.erase(tOwn);
        return false;
    }
}

void CThreadPerConnection::JoinEnded()
{
    TThreads tEnded;
    {
        const std::lock_guard<std::mutex> tGuard(m_tLock);
        tEnded.swap(m_tEnded);
    }
    for (std::thread &tThread : tEnded) {
        tThread.join();
    }
}

TEnqueued CThreadPerConnection::enqueue(std::function<void()> pfServe)
{
    JoinEnded();
    if (!Start(pfServe)) {
        pfServe(); /* no thread to be had: this one serves, and accepts again afterwards */
    }
    return TEnqueued(true);
}

void CThreadPerConnection::shutdown()
{
    {
        std::unique_lock<std::mutex> tGuard(m_tLock);
        m_tChanged.wait(tGuard, [this] { return m_tRunning.empty(); });
    }
    JoinEnded();
}

void ShutDownConnections(uint16_t wPort)
{
    const std::unique_ptr<DIR, TCloseFolder> ptFolder(opendir("/proc/self/fd"));
    const dirent *ptEntry = nullptr;
    while (ptFolder && (ptEntry = readdir(ptFolder.get())) != nullptr) {
        const std::string strName = ptEntry->d_name;
        int nFd = -1;
        std::from_chars(strName.data(), strName.data() + strName.size(), nFd);
        ShutDownIfOn(nFd, wPort);
    }
}
