/*
 * The servers of the works, on loopback.
 */
#ifndef BENCH_SERVERS_H
#define BENCH_SERVERS_H

#include "bench/works.h"
#include "tests/integration/nginx_server.h"

class CServers
{
  public:
    /* Throws std::runtime_error. */
    CServers();
    ~CServers();
    CServers(const CServers &) = delete;
    CServers &operator=(const CServers &) = delete;

    std::string Url(EAnswer eAnswer) const;

  private:
    const test::NginxServer m_tNginx;
    uint16_t m_wSilentPort = 0; /* before the socket, whose making sets it */
    int m_nSilent;              /* the kernel takes connections and requests, and nobody answers */
};

#endif
