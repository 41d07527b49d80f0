#include "bench/servers.h"

#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/loopback.h"

CServers::CServers() : m_nSilent(test::BindLoopback(&m_wSilentPort))
{
    if (!m_tNginx.Problem().empty()) {
        throw std::runtime_error(m_tNginx.Problem());
    }
    if (m_nSilent < 0 || listen(m_nSilent, BENCH_MOST_OUTSTANDING) != 0) {
        throw std::runtime_error("no free loopback port");
    }
    m_tNginx.MakeFile("large", BENCH_LARGE_BYTES);
}

CServers::~CServers()
{
    close(m_nSilent);
}

std::string CServers::Url(EAnswer eAnswer) const
{
    switch (eAnswer) {
    case ANSWER_SHORT:
        return m_tNginx.Http("/ready");
    case ANSWER_SHORT_TLS:
        return m_tNginx.Https("/ready");
    case ANSWER_1_MB:
        return m_tNginx.Http("/files/large");
    default:
        return test::LoopbackUrl(m_wSilentPort);
    }
}
