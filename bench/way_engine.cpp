#include <cstdlib>
#include <stdexcept>

#include "bench/ways.h"
#include "nvrhttpcurl/httpcurlclient.h"

namespace
{

uint32_t OnEnd(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet, void *pvAnswer)
{
    int32_t nStatus = 0;
    NvrHttpCurlCltGetRespStatCode(hReq, &nStatus);
    NvrHttpCurlCltReqDestroy(hReq);
    ChainEnded(ChainOf(pvAnswer), eProg == NVRHTTPCURLCLT_PROGRESS_FINISHED && nStatus == BENCH_HTTP_OK);
    return 0;
}

bool Submit(HNvrHttpCurlCltInst hInstance, const TTarget &tTarget, TChain &tChain)
{
    HNvrHttpCurlCltReq hReq = nullptr;
    if (NvrHttpCurlCltReqCreat(hInstance, &hReq) != NVRHTTPCURLCLT_OK) {
        return false;
    }
    NvrHttpCurlCltSetReqHeader(hReq, "Content-Type", "application/json;charset=UTF-8");
    NvrHttpCurlCltSetReqUri(hReq, tTarget.strUrl.c_str());
    NvrHttpCurlCltSetReqBody(hReq, tTarget.strBody.data(), static_cast<uint32_t>(tTarget.strBody.size()));
    NvrHttpCurlCltSetReqMethod(hReq, "POST");
    const ENvrHttpCurlCltRet eRet = NvrHttpCurlCltProcessReq(hReq, BENCH_TIMEOUT_MS, BENCH_TIMEOUT_MS,
                                                             NVRHTTPCURLCLT_MODE_ASYNC, OnEnd, tChain.achAnswer);
    if (eRet != NVRHTTPCURLCLT_OK) {
        NvrHttpCurlCltReqDestroy(hReq);
    }
    return eRet == NVRHTTPCURLCLT_OK;
}

} // namespace

TWay EngineWayOver(const TTarget &tTarget, uint32_t dwInstances, uint32_t dwTasks)
{
    const TNvrHttpCurlCltInitParam tParam = {dwTasks, BENCH_MOST_OUTSTANDING};
    const TNvrHttpCurlCltMemCB tMemory = {malloc, realloc, free};
    std::vector<HNvrHttpCurlCltInst> ahInstances(dwInstances);
    for (HNvrHttpCurlCltInst &hInstance : ahInstances) {
        if (NvrHttpCurlCltInit(&tParam, &tMemory, &hInstance) != NVRHTTPCURLCLT_OK) {
            throw std::runtime_error("an engine instance does not start");
        }
    }
    return {[tTarget, ahInstances](TChain &tChain) {
        return Submit(ahInstances[tChain.dwIndex % ahInstances.size()], tTarget, tChain);
    }};
}

TWay EngineWay(const TTarget &tTarget)
{
    return EngineWayOver(tTarget, 1, BENCH_WORKERS);
}
