#include "bench/ways.h"

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include <curl/curl.h>

#include "nvrhttpcurl/sendbycurl.h"
#include "tools/common/module_start.h"

namespace
{

enum { ANSWER_SIZE = 4096, TIMEOUT_MS = 60000, STATUS_OK = 200 };

const std::string s_strJson = R"({"TaskId":1,"Device":"NVR-01","Event":"motion","Channel":3})";

/* Receive buffer and context in one: a callback gets nothing but the buffer's address. */
struct TPlace {
    char achAnswer[ANSWER_SIZE];
    TChain *ptChain;
};

/* One for each chain. */
using CPlaces = std::vector<TPlace>;

TPlace &PlaceOf(CPlaces &atPlaces, TChain &tChain)
{
    TPlace &tPlace = atPlaces[tChain.dwIndex];
    tPlace.ptChain = &tChain;
    return tPlace;
}

TChain &ChainOf(void *pvAnswer)
{
    return *static_cast<TPlace *>(pvAnswer)->ptChain;
}

uint32_t OnEngineEnd(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet, void *pvAnswer)
{
    int32_t nStatus = 0;
    NvrHttpCurlCltGetRespStatCode(hReq, &nStatus);
    NvrHttpCurlCltReqDestroy(hReq);
    ChainEnded(ChainOf(pvAnswer), eProg == NVRHTTPCURLCLT_PROGRESS_FINISHED && nStatus == STATUS_OK);
    return 0;
}

/* The same calls as those of the client. */
bool SendByEngine(HNvrHttpCurlCltInst hInstance, const std::string &strUrl, TPlace &tPlace)
{
    HNvrHttpCurlCltReq hReq = nullptr;
    if (NvrHttpCurlCltReqCreat(hInstance, &hReq) != NVRHTTPCURLCLT_OK) {
        return false;
    }
    NvrHttpCurlCltSetReqHeader(hReq, "Content-Type", "application/json");
    NvrHttpCurlCltSetReqUri(hReq, strUrl.c_str());
    NvrHttpCurlCltSetReqBody(hReq, s_strJson.data(), static_cast<uint32_t>(s_strJson.size()));
    NvrHttpCurlCltSetReqMethod(hReq, "POST");
    const ENvrHttpCurlCltRet eRet = NvrHttpCurlCltProcessReq(hReq, TIMEOUT_MS, TIMEOUT_MS, NVRHTTPCURLCLT_MODE_ASYNC,
                                                             OnEngineEnd, tPlace.achAnswer);
    if (eRet != NVRHTTPCURLCLT_OK) {
        NvrHttpCurlCltReqDestroy(hReq);
    }
    return eRet == NVRHTTPCURLCLT_OK;
}

uint32_t OnModuleEnd(ESendByCurlRet eRet, void *pvAnswer)
{
    ChainEnded(ChainOf(pvAnswer), eRet == SENDBYCURL_OK);
    return 0;
}

bool SendByModule(const std::string &strUrl, TPlace &tPlace)
{
    TSendByCurlParam tParam = {};
    tParam.pchURL = strUrl.c_str();
    tParam.pchSendBuf = s_strJson.data();
    tParam.dwSendLen = static_cast<uint32_t>(s_strJson.size());
    tParam.dwConnTimeOutMS = TIMEOUT_MS;
    tParam.dwTimeoutMS = TIMEOUT_MS;
    tParam.dwMaxRecvLen = ANSWER_SIZE;
    tParam.pchRecvBuf = tPlace.achAnswer;
    tParam.pfNtf = OnModuleEnd;
    return Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_ASYNC) == SENDBYCURL_OK;
}

/* An easy handle, set up for all posts of its thread. */
struct TEasy {
    CURL *ptEasy = nullptr;
    curl_slist *ptHeaders = nullptr;
    std::string strAnswer;
};

size_t TakeAnswer(char *pchPart, size_t, size_t uLen, void *pvAnswer)
{
    static_cast<std::string *>(pvAnswer)->append(pchPart, uLen);
    return uLen;
}

void SetUp(TEasy &tEasy, const std::string &strUrl)
{
    tEasy.ptEasy = curl_easy_init();
    tEasy.ptHeaders = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(tEasy.ptEasy, CURLOPT_URL, strUrl.c_str());
    curl_easy_setopt(tEasy.ptEasy, CURLOPT_HTTPHEADER, tEasy.ptHeaders);
    curl_easy_setopt(tEasy.ptEasy, CURLOPT_POSTFIELDS, s_strJson.c_str());
    curl_easy_setopt(tEasy.ptEasy, CURLOPT_TIMEOUT_MS, long{TIMEOUT_MS});
    curl_easy_setopt(tEasy.ptEasy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(tEasy.ptEasy, CURLOPT_WRITEFUNCTION, TakeAnswer);
    curl_easy_setopt(tEasy.ptEasy, CURLOPT_WRITEDATA, &tEasy.strAnswer);
}

bool SendByEasy(TEasy &tEasy)
{
    long nStatus = 0;
    tEasy.strAnswer.clear();
    const bool bDone = curl_easy_perform(tEasy.ptEasy) == CURLE_OK;
    curl_easy_getinfo(tEasy.ptEasy, CURLINFO_RESPONSE_CODE, &nStatus);
    return bDone && nStatus == STATUS_OK;
}

using CEasies = std::vector<TEasy>;

void CleanUp(CEasies *patEasies)
{
    for (TEasy &tEasy : *patEasies) {
        curl_easy_cleanup(tEasy.ptEasy);
        curl_slist_free_all(tEasy.ptHeaders);
    }
    delete patEasies;
}

} // namespace

std::shared_ptr<TEngines> StartEngines()
{
    const TNvrHttpCurlCltInitParam tParam = {1, NVRHTTPCURLCLT_MAX_ASYNC_REQUESTS};
    const TNvrHttpCurlCltMemCB tMemory = {malloc, realloc, free};
    std::shared_ptr<TEngines> ptEngines(new TEngines, [](TEngines *ptEnded) {
        for (HNvrHttpCurlCltInst hInstance : ptEnded->ahInstances) {
            if (hInstance != nullptr) {
                NvrHttpCurlCltUninit(hInstance);
            }
        }
        delete ptEnded;
    });
    for (HNvrHttpCurlCltInst &hInstance : ptEngines->ahInstances) {
        if (NvrHttpCurlCltInit(&tParam, &tMemory, &hInstance) != NVRHTTPCURLCLT_OK) {
            throw std::runtime_error("an engine instance does not start");
        }
    }
    return ptEngines;
}

std::shared_ptr<nvrhttpcurl::Client> StartClient()
{
    nvrhttpcurl::Options tOptions;
    tOptions.workers = BENCH_WORKERS;
    tOptions.max_requests = BENCH_MOST_OUTSTANDING;
    return std::make_shared<nvrhttpcurl::Client>(tOptions);
}

TWay ClientWay(const std::string &strUrl, const std::shared_ptr<nvrhttpcurl::Client> &ptClient)
{
    return {"C++ client", [strUrl, ptClient](TChain &tChain) {
                nvrhttpcurl::Request tRequest;
                tRequest.url = strUrl;
                tRequest.body = s_strJson;
                tRequest.timeout = tRequest.connect_timeout = std::chrono::milliseconds(TIMEOUT_MS);
                ptClient->send_async(std::move(tRequest), [&tChain](const nvrhttpcurl::Response &tAnswer) {
                    ChainEnded(tChain, tAnswer.ok());
                });
                return true;
            }};
}

TWay EngineWay(const std::string &strUrl, const std::shared_ptr<TEngines> &ptEngines)
{
    auto patPlaces = std::make_shared<CPlaces>(BENCH_MOST_OUTSTANDING);
    return {"bare engine", [strUrl, patPlaces, ptEngines](TChain &tChain) {
                HNvrHttpCurlCltInst hInstance = ptEngines->ahInstances[tChain.dwIndex % BENCH_WORKERS];
                return SendByEngine(hInstance, strUrl, PlaceOf(*patPlaces, tChain));
            }};
}

TWay ModuleWay(const std::string &strUrl)
{
    if (StartModuleQuietly() != SENDBYCURL_OK) {
        throw std::runtime_error("the send module does not start");
    }
    auto patPlaces = std::make_shared<CPlaces>(BENCH_MOST_OUTSTANDING);
    return {"send module, asynchronous",
            [strUrl, patPlaces](TChain &tChain) { return SendByModule(strUrl, PlaceOf(*patPlaces, tChain)); }};
}

TWay ThreadsWay(const std::string &strUrl)
{
    const std::shared_ptr<CEasies> patEasies(new CEasies(BENCH_MOST_OUTSTANDING), CleanUp);
    for (TEasy &tEasy : *patEasies) {
        SetUp(tEasy, strUrl);
    }
    return {"threads over bare libcurl",
            [patEasies](TChain &tChain) { return SendByEasy((*patEasies)[tChain.dwIndex]); }, true};
}
