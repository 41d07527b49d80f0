/*
 * The wake-up socket of a task: a UDP socket on 127.0.0.1 that sends to itself, so that one
 * descriptor serves both the submitter and the sleeping worker.
 */

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "engine/httpcurlclient_inner.h"
#include "platform/appbase.h"
#include "support/hcc_log.h"
#include "support/hcc_numbers.h"

static const char s_szLoopback[] = "127.0.0.1";

/*
 * The text that strerror_r made. C libraries declare it in one of two forms: POSIX's returns a
 * number and fills the buffer, GNU's returns the text and need not use the buffer.
 */
inline const char *ErrorText(int, const char *szBuffer)
{
    return szBuffer;
}

inline const char *ErrorText(const char *szText, const char *)
{
    return szText;
}

int32_t _NvrHttpCurlCltSocket_CreateUdpSocket(const char *szIP, uint32_t nPort, int32_t *pnSock)
{
    if (szIP == nullptr || szIP[0] == '\0' || nPort == 0 || nPort > 65535 || pnSock == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] invalid arg, szIP %p{%s}, nPort %d\n", HCCLogPtr(szIP),
                szIP != nullptr ? szIP : "", nPort);
        return -1;
    }

    char achError[64] = "";
    const int nSock = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (nSock < 0) {
        const int nErrno = errno;
        const char *szError = ErrorText(strerror_r(nErrno, achError, sizeof(achError)), achError);
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] socket() failed, errno %d{%s}\n", nErrno, szError);
        return -1;
    }

    struct sockaddr_in tAddr = {};
    tAddr.sin_family = AF_INET;
    tAddr.sin_port = AppConvertHtons(static_cast<uint16_t>(nPort));
    tAddr.sin_addr.s_addr = inet_addr(szIP);
    if (bind(nSock, reinterpret_cast<const struct sockaddr *>(&tAddr), sizeof(tAddr)) != 0) {
        const int nErrno = errno;
        const char *szError = ErrorText(strerror_r(nErrno, achError, sizeof(achError)), achError);
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] bind() failed, errno %d{%s}\n", nErrno, szError);
        close(nSock);
        return -1;
    }

    *pnSock = nSock;
    HCC_LOG(HCC_LEVEL_INFO, " create s_nTheUdpSock %d, %d\n", nSock, nSock);
    return 0;
}

uint32_t _NvrHttpCurlCltCreateUdpMonitor(const char *szIP, uint16_t *pwPort, int32_t *pnSock, uint32_t *pbCreatSocket)
{
    if (szIP == nullptr || pwPort == nullptr || pnSock == nullptr || pbCreatSocket == nullptr) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] Invalid value.\n");
        return NVRHTTPCURLCLT_INVALID_ARG;
    }
    if (*pbCreatSocket == 1) {
        HCC_LOG(HCC_LEVEL_INFO, " udp socket already exists, bCreatSocket %d\n", *pbCreatSocket);
        return 0xFFFFFFFFU;
    }

    uint16_t wPortII = HCC_WAKEUP_PORT_FIRST;
    for (; wPortII >= HCC_WAKEUP_PORT_LAST; --wPortII) {
        if (_NvrHttpCurlCltSocket_CreateUdpSocket(szIP, wPortII, pnSock) == 0) {
            HCC_LOG(HCC_LEVEL_INFO, " _NvrHttpCurlCltCreateUdpMonitor(), %s:%d\n", s_szLoopback, wPortII);
            break;
        }
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] websCreateUdpMonitor() PortII[%d] is Occupied\n", wPortII);
    }

    HCC_LOG(HCC_LEVEL_INFO, " get socket port wPortII %d\n", wPortII);
    if (wPortII < HCC_WAKEUP_PORT_LAST) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] wPortII %d\n", wPortII);
        return NVRHTTPCURLCLT_LIMIT_REACHED;
    }
    *pwPort = wPortII;
    *pbCreatSocket = 1;
    HCC_LOG(HCC_LEVEL_INFO, " return *pwPort %d, *pbCreatSocket %d\n", *pwPort, *pbCreatSocket);
    return NVRHTTPCURLCLT_OK;
}

/*
 * A datagram that is lost, or dropped because the socket's buffer is full, only delays a queued
 * request by one wait of its worker: hence no retry and no result.
 */
void _NvrHttpCurlClt_SocketNotify(int32_t nSock, uint16_t wPort)
{
    TAppNetAddr tNetAddr = {};
    const uint32_t dwRet = AppConvertStrtoNet(s_szLoopback, &tNetAddr);
    if (dwRet != 0) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] convert failed %d\n", dwRet);
        return;
    }

    struct sockaddr_in tDest = {};
    tDest.sin_family = AF_INET;
    tDest.sin_port = AppConvertHtons(wPort);
    tDest.sin_addr.s_addr = tNetAddr.dwIPv4;
    const char szWakeUp[] = "b";
    if (sendto(nSock, szWakeUp, AppStrlen(szWakeUp) + 1, 0, reinterpret_cast<const struct sockaddr *>(&tDest),
               sizeof(tDest)) <= 0) {
        HCC_LOG(HCC_LEVEL_ERROR, "[Error] send socket failed\n");
        return;
    }
    HCC_LOG(HCC_LEVEL_INFO, " Notify scoket{%d} port{%d} is ok.\n", nSock, wPort);
}
