#include <stdexcept>

#include "bench/ways.h"
#include "nvrhttpcurl/sendbycurl.h"
#include "tools/common/module_start.h"

namespace
{

TSendByCurlParam Param(const TTarget &tTarget, char *pchAnswer, size_t uCapacity)
{
    TSendByCurlParam tParam = {};
    tParam.pchURL = tTarget.strUrl.c_str();
    tParam.pchSendBuf = tTarget.strBody.c_str();
    tParam.dwSendLen = static_cast<uint32_t>(tTarget.strBody.size());
    tParam.dwConnTimeOutMS = BENCH_TIMEOUT_MS;
    tParam.dwTimeoutMS = BENCH_TIMEOUT_MS;
    tParam.dwMaxRecvLen = static_cast<uint32_t>(uCapacity);
    tParam.pchRecvBuf = pchAnswer;
    return tParam;
}

/* Of a blocking send, whose buffer has a byte more than it names, for a terminator. */
TSendByCurlParam BlockingParam(const TTarget &tTarget, TChain &tChain)
{
    tChain.strAnswer.resize(tTarget.uAnswer + 2);
    return Param(tTarget, tChain.strAnswer.data(), tTarget.uAnswer + 1);
}

uint32_t OnEnd(ESendByCurlRet eRet, void *pvAnswer)
{
    ChainEnded(ChainOf(pvAnswer), eRet == SENDBYCURL_OK);
    return 0;
}

void StartModule()
{
    if (StartModuleQuietly() != SENDBYCURL_OK) {
        throw std::runtime_error("the send module does not start");
    }
}

} // namespace

TWay ModuleSyncWay(const TTarget &tTarget)
{
    StartModule();
    return {[tTarget](TChain &tChain) {
                TSendByCurlParam tParam = BlockingParam(tTarget, tChain);
                return Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_SYNC) == SENDBYCURL_OK &&
                       tParam.dwRecvLen == tTarget.uAnswer;
            },
            true};
}

TWay ModuleDirectWay(const TTarget &tTarget)
{
    StartModule();
    return {[tTarget](TChain &tChain) {
                TSendByCurlParam tParam = BlockingParam(tTarget, tChain);
                return Qelvo_SyncSendStrByHttp_Ext(&tParam) == SENDBYCURL_OK && tParam.dwRecvLen == tTarget.uAnswer;
            },
            true};
}

TWay ModuleAsyncWay(const TTarget &tTarget)
{
    StartModule();
    return {[tTarget](TChain &tChain) {
        TSendByCurlParam tParam = Param(tTarget, tChain.achAnswer, sizeof(tChain.achAnswer));
        tParam.pfNtf = OnEnd;
        return Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_ASYNC) == SENDBYCURL_OK;
    }};
}
