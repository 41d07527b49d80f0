/*
 * What answers cost by their size. The engine gives the answer's buffer its exact new size at each chunk; beside it an
 * easy handle does the same, or doubles a buffer that is full.
 */
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <stdexcept>

#include <curl/curl.h>

#include "bench/growth.h"
#include "bench/load.h"
#include "nvrhttpcurl/httpcurlclient.h"
#include "tests/support/wait.h"

namespace
{

enum { TIMEOUT_MS = 60000, FIRST_CAPACITY = 1024, SENT_BYTES = 8 * 1024 * 1024, MOST_SENDS = 64, TOGETHER = 8 };

/* What the buffers of answers did. */
struct TTally {
    std::atomic<uint64_t> qwCalls{0};
    std::atomic<uint64_t> qwMoves{0};
    std::atomic<uint64_t> qwKept{0}; /* bytes in the blocks before, which a call has to keep */
};

TTally s_tTally;

void *CountedRealloc(void *pvBlock, size_t uBytes)
{
    s_tTally.qwCalls++;
    s_tTally.qwKept += malloc_usable_size(pvBlock);
    const auto uBefore = reinterpret_cast<uintptr_t>(pvBlock);
    void *pvNew = realloc(pvBlock, uBytes);
    s_tTally.qwMoves += reinterpret_cast<uintptr_t>(pvNew) != uBefore ? 1 : 0;
    return pvNew;
}

/* As an allocator does that never extends a block in its place. */
void *MovingRealloc(void *pvBlock, size_t uBytes)
{
    const size_t uBefore = malloc_usable_size(pvBlock);
    s_tTally.qwCalls++;
    s_tTally.qwMoves++;
    s_tTally.qwKept += uBefore;
    void *pvNew = malloc(uBytes);
    if (pvNew != nullptr) {
        memcpy(pvNew, pvBlock, std::min(uBefore, uBytes));
        free(pvBlock);
    }
    return pvNew;
}

/* As a caller's callback may do: fewer and larger steps than the engine asks for. */
void *DoublingRealloc(void *pvBlock, size_t uBytes)
{
    const size_t uBefore = malloc_usable_size(pvBlock);
    return uBytes <= uBefore ? pvBlock : CountedRealloc(pvBlock, std::max(uBytes, 2 * uBefore));
}

struct TBuffer {
    bool bDoubles;
    char *pchData = nullptr;
    size_t uSize = 0;
    size_t uCapacity = 0;
};

size_t Take(char *pchPart, size_t, size_t uLen, void *pvBuffer)
{
    TBuffer &tBuffer = *static_cast<TBuffer *>(pvBuffer);
    const size_t uNeeded = tBuffer.uSize + uLen + 1;
    if (uNeeded > tBuffer.uCapacity) {
        const size_t uDoubled = std::max<size_t>(2 * tBuffer.uCapacity, FIRST_CAPACITY);
        tBuffer.uCapacity = tBuffer.bDoubles ? std::max(uDoubled, uNeeded) : uNeeded;
        tBuffer.pchData = static_cast<char *>(CountedRealloc(tBuffer.pchData, tBuffer.uCapacity));
    }
    memcpy(tBuffer.pchData + tBuffer.uSize, pchPart, uLen);
    tBuffer.uSize += uLen;
    return uLen;
}

size_t SendByEasy(const std::string &strUrl, bool bDoubles)
{
    TBuffer tBuffer = {bDoubles};
    CURL *ptEasy = curl_easy_init();
    curl_easy_setopt(ptEasy, CURLOPT_URL, strUrl.c_str());
    curl_easy_setopt(ptEasy, CURLOPT_POSTFIELDS, "{}");
    curl_easy_setopt(ptEasy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(ptEasy, CURLOPT_WRITEFUNCTION, Take);
    curl_easy_setopt(ptEasy, CURLOPT_WRITEDATA, &tBuffer);
    curl_easy_perform(ptEasy);
    curl_easy_cleanup(ptEasy);
    free(tBuffer.pchData);
    return tBuffer.uSize;
}

HNvrHttpCurlCltReq MakeRequest(HNvrHttpCurlCltInst hInstance, const std::string &strUrl)
{
    HNvrHttpCurlCltReq hReq = nullptr;
    NvrHttpCurlCltReqCreat(hInstance, &hReq);
    NvrHttpCurlCltSetReqHeader(hReq, "Content-Type", "application/json");
    NvrHttpCurlCltSetReqUri(hReq, strUrl.c_str());
    NvrHttpCurlCltSetReqBody(hReq, "{}", 2);
    return hReq;
}

/* The length of the answer. */
size_t EndRequest(HNvrHttpCurlCltReq hReq)
{
    uint32_t dwSize = 0;
    NvrHttpCurlCltGetRespBodyLen(hReq, &dwSize);
    NvrHttpCurlCltReqDestroy(hReq);
    return dwSize;
}

size_t SendByEngine(HNvrHttpCurlCltInst hInstance, const std::string &strUrl)
{
    HNvrHttpCurlCltReq hReq = MakeRequest(hInstance, strUrl);
    NvrHttpCurlCltProcessReq(hReq, TIMEOUT_MS, TIMEOUT_MS, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr);
    return EndRequest(hReq);
}

std::atomic<uint32_t> s_dwEnded; /* a callback has no context but the buffer for a copy of the answer */

uint32_t OnEnd(HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet, void *)
{
    s_dwEnded++;
    return 0;
}

/* Several at once, whose answers grow in turn. */
size_t SendTogether(HNvrHttpCurlCltInst hInstance, const std::string &strUrl)
{
    HNvrHttpCurlCltReq ahReqs[TOGETHER] = {};
    s_dwEnded = 0;
    for (HNvrHttpCurlCltReq &hReq : ahReqs) {
        hReq = MakeRequest(hInstance, strUrl);
        NvrHttpCurlCltProcessReq(hReq, TIMEOUT_MS, TIMEOUT_MS, NVRHTTPCURLCLT_MODE_ASYNC, OnEnd, nullptr);
    }
    test::WaitUntil([] { return s_dwEnded == TOGETHER; });
    size_t uBytes = 0;
    for (HNvrHttpCurlCltReq hReq : ahReqs) {
        uBytes += EndRequest(hReq);
    }
    return uBytes;
}

HNvrHttpCurlCltInst StartEngine(void *(*pfRealloc)(void *, size_t))
{
    const TNvrHttpCurlCltInitParam tParam = {1, TOGETHER};
    const TNvrHttpCurlCltMemCB tMemory = {malloc, pfRealloc, free};
    HNvrHttpCurlCltInst hInstance = nullptr;
    if (NvrHttpCurlCltInit(&tParam, &tMemory, &hInstance) != NVRHTTPCURLCLT_OK) {
        throw std::runtime_error("an engine instance does not start");
    }
    return hInstance;
}

/* Returns the bytes of the answers. */
using CSend = std::function<size_t(const std::string &strUrl)>;

/* For each answer, of which a send gets dwEach. Small answers more than once, since one takes too little time. */
CRow AnswerRow(uint32_t dwBytes, uint32_t dwEach, const CSend &pfSend, const std::string &strUrl)
{
    const uint32_t dwSends = std::clamp<uint32_t>(SENT_BYTES / dwBytes, 1, MOST_SENDS);
    pfSend(strUrl); /* what only the first one does */
    s_tTally.qwCalls = s_tTally.qwMoves = s_tTally.qwKept = 0;
    const CBenchClock::time_point tBegin = CBenchClock::now();
    const TUsage tBefore = Usage();
    for (uint32_t dwSend = 0; dwSend < dwSends; dwSend++) {
        if (pfSend(strUrl) != size_t{dwBytes} * dwEach) {
            throw std::runtime_error("not the whole answer from " + strUrl);
        }
    }
    const double dCpuMS = 1e3 * (Usage() - tBefore).dCpuSeconds;
    const std::chrono::duration<double, std::milli> tTook = CBenchClock::now() - tBegin;
    CRow adRow = {tTook.count(), dCpuMS, static_cast<double>(s_tTally.qwCalls), static_cast<double>(s_tTally.qwMoves),
                  static_cast<double>(s_tTally.qwKept) / 1e6};
    for (double &dValue : adRow) {
        dValue /= dwSends * dwEach;
    }
    return adRow;
}

} // namespace

std::vector<TCurve> AnswerCurves(const test::NginxServer &tServer)
{
    for (const uint32_t dwBytes : Doubled(GROWTH_LARGEST_ANSWER, GROWTH_LEAST_ANSWER)) {
        tServer.MakeFile(std::to_string(dwBytes), dwBytes);
    }
    /* The sender is made in the process that measures. */
    const auto pfCurve = [&tServer](const char *szName, uint32_t dwEach, const std::function<CSend()> &pfMake) {
        return TCurve{szName, [=, &tServer](uint32_t dwBytes) {
                          const std::string strUrl = tServer.Http("/files/" + std::to_string(dwBytes));
                          return InChild([&] { return AnswerRow(dwBytes, dwEach, pfMake(), strUrl); });
                      }};
    };
    const auto pfEasy = [](bool bDoubles) -> std::function<CSend()> {
        return [bDoubles] { return [bDoubles](const std::string &strUrl) { return SendByEasy(strUrl, bDoubles); }; };
    };
    const auto pfEngine = [](auto pfSend, auto pfRealloc) -> std::function<CSend()> {
        return [=] {
            return [pfSend, hInstance = StartEngine(pfRealloc)](const std::string &strUrl) {
                return pfSend(hInstance, strUrl);
            };
        };
    };
    return {pfCurve("easy handle, buffer doubles", 1, pfEasy(true)),
            pfCurve("easy handle, exact sizes", 1, pfEasy(false)),
            pfCurve("engine, synchronous", 1, pfEngine(SendByEngine, CountedRealloc)),
            pfCurve("engine, 8 at once", TOGETHER, pfEngine(SendTogether, CountedRealloc)),
            pfCurve("engine, 8 at once, doubling realloc", TOGETHER, pfEngine(SendTogether, DoublingRealloc)),
            pfCurve("engine, synchronous, moving realloc", 1, pfEngine(SendByEngine, MovingRealloc))};
}
