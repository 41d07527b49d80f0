#include "engine_runs.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/wait.h"

namespace test
{

namespace
{

std::atomic<int64_t> blocks{0};
std::atomic<size_t> inits{0};

void *Obtain(size_t size)
{
    blocks.fetch_add(1);
    return malloc(size);
}

void *Grow(void *block, size_t size)
{
    return realloc(block, size);
}

void Release(void *block)
{
    blocks.fetch_sub(1);
    free(block);
}

} // namespace

TNvrHttpCurlCltMemCB MemCB()
{
    return {Obtain, Grow, Release};
}

int64_t BlocksAlive()
{
    return blocks.load();
}

size_t Inits()
{
    return inits.load();
}

Engine::Engine(uint32_t tasks, uint32_t limit)
{
    const TNvrHttpCurlCltInitParam param{tasks, limit};
    const TNvrHttpCurlCltMemCB memory = MemCB();
    result = NvrHttpCurlCltInit(&param, &memory, &instance);
    inits.fetch_add(result == NVRHTTPCURLCLT_OK ? 1 : 0);
}

Engine::~Engine()
{
    Stop();
}

ENvrHttpCurlCltRet Engine::Result() const
{
    return result;
}

HNvrHttpCurlCltInst Engine::Handle() const
{
    return instance;
}

void Engine::Stop()
{
    if (instance != nullptr) {
        NvrHttpCurlCltUninit(instance);
        instance = nullptr;
    }
}

HNvrHttpCurlCltReq Engine::MakeRequest(const std::string &url, const std::string &body, bool withHeader) const
{
    HNvrHttpCurlCltReq request = nullptr;
    if (NvrHttpCurlCltReqCreat(instance, &request) != NVRHTTPCURLCLT_OK) {
        return nullptr;
    }
    if (NvrHttpCurlCltSetReqUri(request, url.c_str()) != NVRHTTPCURLCLT_OK ||
        (withHeader && NvrHttpCurlCltSetReqHeader(request, "Content-Type", "text/plain") != NVRHTTPCURLCLT_OK) ||
        NvrHttpCurlCltSetReqMethod(request, "POST") != NVRHTTPCURLCLT_OK ||
        NvrHttpCurlCltSetReqBody(request, body.data(), static_cast<uint32_t>(body.size())) != NVRHTTPCURLCLT_OK) {
        NvrHttpCurlCltReqDestroy(request);
        return nullptr;
    }
    return request;
}

std::string AnswerOf(HNvrHttpCurlCltReq request)
{
    uint32_t length = 0;
    if (NvrHttpCurlCltGetRespBodyLen(request, &length) != NVRHTTPCURLCLT_OK) {
        return "(no answer)";
    }
    std::vector<char> answer(size_t{length} + 2, '\0');
    uint32_t capacity = length + 1;
    if (NvrHttpCurlCltGetRespBody(request, answer.data(), &capacity) != NVRHTTPCURLCLT_OK || capacity != length) {
        return "(no body)";
    }
    return std::string(answer.data(), length);
}

int32_t StatusOf(HNvrHttpCurlCltReq request)
{
    int32_t status = -1;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(request, &status), NVRHTTPCURLCLT_OK);
    return status;
}

ENvrHttpCurlCltRet Submission::Submit(uint32_t timeout)
{
    return NvrHttpCurlCltProcessReq(request, timeout, timeout, NVRHTTPCURLCLT_MODE_ASYNC, OnEnd, answer);
}

bool Submission::WaitForCallbacks(uint32_t count) const
{
    return WaitUntil([this, count] { return returned.load() >= count; });
}

uint32_t OnEnd(HNvrHttpCurlCltReq hReq, ENvrHttpCurlCltReqProgress eProg, ENvrHttpCurlCltRet eResult, void *pvUserBuf)
{
    Submission *run = static_cast<Submission *>(pvUserBuf);
    run->seen = hReq;
    run->progress = eProg;
    run->result = eResult;
    run->callbacks.fetch_add(1);
    if (run->inCallback) {
        run->inCallback(*run);
    }
    run->returned.fetch_add(1);
    return 0;
}

size_t CallbacksOf(const std::vector<Submission> &all)
{
    size_t count = 0;
    for (const Submission &run : all) {
        count += run.callbacks.load();
    }
    return count;
}

} // namespace test
