/*
 * What a walk over a list costs for each element: the worker's over its run list in each pass, that of a request which
 * is destroyed, and that over the slots of the send module. Internal functions, so it needs the static library.
 *
 * The elements have the memory of real requests. A walk runs warm, one after the other, or cold, after other memory of
 * this size has been touched: between two passes libcurl works with some 27 KB for each request.
 */
#include <chrono>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <vector>

#include <curl/curl.h>

#include "bench/curve.h"
#include "engine/httpcurlclient_inner.h"
#include "sendbycurl/sendbycurl_inner.h"

namespace
{

enum { MOST_ELEMENTS = 1024, LEAST_ELEMENTS = 8, ROUNDS = 3, WARM_WALKS = 1000, COLD_WALKS = 50 };
enum { OTHER_BYTES = 32 * 1024 * 1024, LINE_BYTES = 64 };

struct TRequests {
    HNvrHttpCurlCltInst hInstance = nullptr;
    TNvrHttpCurlCltTask tTask = {};
};

/* A task whose run list has so many requests in flight. */
TRequests &MakeRequests(uint32_t dwRequests)
{
    static TRequests s_tRequests;
    const TNvrHttpCurlCltInitParam tParam = {0, 0};
    const TNvrHttpCurlCltMemCB tMemory = {malloc, realloc, free};
    if (NvrHttpCurlCltInit(&tParam, &tMemory, &s_tRequests.hInstance) != NVRHTTPCURLCLT_OK) {
        throw std::runtime_error("the engine does not start");
    }
    NVRHCCListInit(&s_tRequests.tTask.tRunList, &tMemory);
    NVRHCCListInit(&s_tRequests.tTask.tFinList, &tMemory);
    OspSemBCreate(&s_tRequests.tTask.hRunLock);
    OspSemBCreate(&s_tRequests.tTask.hFinLock);
    for (uint32_t dwIndex = 0; dwIndex < dwRequests; dwIndex++) {
        HNvrHttpCurlCltReq hReq = nullptr;
        NvrHttpCurlCltReqCreat(s_tRequests.hInstance, &hReq);
        NvrHttpCurlCltSetReqUri(hReq, "http://127.0.0.1/");
        NvrHttpCurlCltSetReqBody(hReq, "{}", 2);
        auto *ptNode = static_cast<TNvrHttpCurlCltAsyncNode *>(malloc(sizeof(TNvrHttpCurlCltAsyncNode)));
        if (ptNode == nullptr) {
            throw std::bad_alloc();
        }
        *ptNode = {hReq, nullptr, nullptr, 1};
        NVRHCCListInsertBefore(&s_tRequests.tTask.tRunList, nullptr, ptNode, nullptr);
    }
    s_tRequests.hInstance->atTasks = &s_tRequests.tTask;
    s_tRequests.hInstance->dwTaskNum = 1;
    return s_tRequests;
}

void TouchOtherMemory()
{
    static std::vector<char> s_chOther(OTHER_BYTES);
    for (size_t uByte = 0; uByte < s_chOther.size(); uByte += LINE_BYTES) {
        s_chOther[uByte]++;
    }
}

/* ns a walk, and ns for each element. */
CRow WalkRow(uint32_t dwElements, bool bCold, const std::function<void()> &pfWalk)
{
    const uint32_t dwWalks = bCold ? COLD_WALKS : WARM_WALKS;
    std::chrono::duration<double, std::nano> tSum{0};
    for (uint32_t dwWalk = 0; dwWalk < dwWalks; dwWalk++) {
        if (bCold) {
            TouchOtherMemory();
        }
        const auto tBegin = std::chrono::steady_clock::now();
        pfWalk();
        tSum += std::chrono::steady_clock::now() - tBegin;
    }
    return {tSum.count() / dwWalks, tSum.count() / dwWalks / dwElements};
}

CRow PassRow(uint32_t dwElements, bool bCold)
{
    TRequests &tRequests = MakeRequests(dwElements);
    return WalkRow(dwElements, bCold, [&] { _NvrHttpCurlClt_CheckAddMultiHandle(&tRequests.tTask, nullptr); });
}

/* The search for a request that is in neither list, and has nothing to release. */
CRow DestroyRow(uint32_t dwElements, bool bCold)
{
    TNvrHttpCurlCltReqInner tOther = {};
    tOther.ptInstance = MakeRequests(dwElements).hInstance;
    tOther.dwTaskIndex = 1;
    return WalkRow(dwElements, bCold, [&] { NvrHttpCurlCltReqDestroy(&tOther); });
}

/* A slot is taken behind those that are taken already. */
CRow SlotRow(uint32_t dwElements, bool bCold)
{
    static TNvrHttpCurlCltReqInner s_tRequest;
    for (uint32_t dwSlot = 0; dwSlot < dwElements - 1; dwSlot++) {
        SendByCurlRegistCallback(&s_tRequest, nullptr);
    }
    return WalkRow(dwElements, bCold, [&] {
        SendByCurlRegistCallback(&s_tRequest, nullptr);
        g_pfASnycCBParam[dwElements - 1].bUseFlag = 0;
    });
}

TCurve Curve(const char *szName, CRow (*pfRow)(uint32_t, bool), bool bCold)
{
    return {szName, [=](uint32_t dwX) { return InChild([=] { return pfRow(dwX, bCold); }); }};
}

} // namespace

int main()
{
    try {
        curl_global_init(CURL_GLOBAL_ALL);
        WriteCurves({Curve("run list in a pass", PassRow, false), Curve("run list in a pass, cold", PassRow, true),
                     Curve("run list at a destruction", DestroyRow, false),
                     Curve("run list at a destruction, cold", DestroyRow, true),
                     Curve("slots of the send module", SlotRow, false),
                     Curve("slots of the send module, cold", SlotRow, true)},
                    Doubled(MOST_ELEMENTS, LEAST_ELEMENTS), ROUNDS);
        return EXIT_SUCCESS;
    } catch (const std::exception &tError) {
        fprintf(stderr, "list_walk: %s\n", tError.what());
        return EXIT_FAILURE;
    }
}
