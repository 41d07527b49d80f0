/* Request objects: creation, settings, release. */
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/engine_fixture.h"

namespace
{

using namespace test;

const std::vector<CURLoption> NO_OPTIONS = {};

/* A heap that remembers what it was asked for and never gives cleared memory. */
struct Freed {
    char by; /* 'i' the instance's callback, 'r' the request's own copy, 'c' libcurl's clean-up */
    const void *block;
};

bool operator==(const Freed &a, const Freed &b)
{
    return a.by == b.by && a.block == b.block;
}

void PrintTo(const Freed &freed, std::ostream *out)
{
    *out << freed.by << ' ' << freed.block;
}

std::vector<size_t> asked;
std::vector<Freed> freed;

void *DirtyMalloc(size_t size)
{
    asked.push_back(size);
    void *block = malloc(size);
    memset(block, 0xA5, size);
    return block;
}

void InstanceFree(void *block)
{
    freed.push_back({'i', block});
    free(block);
}

void RequestFree(void *block)
{
    freed.push_back({'r', block});
    free(block);
}

class Request : public EngineTest
{
  protected:
    void SetUp() override
    {
        Start(0, 0);
    }

    void UseDirtyHeap()
    {
        inst->tMemCB = {DirtyMalloc, realloc, InstanceFree};
        asked.clear();
        freed.clear();
    }
};

/* --- creation --------------------------------------------------------------------------------- */

using RequestCreate = Request;

TEST_F(RequestCreate, GivesARecordWithAnEasyHandleAndNoOption)
{
    HNvrHttpCurlCltReq req = nullptr;
    const size_t handles = hooks::Calls("curl_easy_init");
    ASSERT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 0U);
    ASSERT_NE(req, nullptr);
    EXPECT_EQ(hooks::Calls("curl_easy_init"), handles + 1);
    EXPECT_EQ(req->ptInstance, inst);
    EXPECT_NE(req->ptReq, nullptr);
    EXPECT_EQ(req->pfMalloc, inst->tMemCB.pfMalloc);
    EXPECT_EQ(req->pfRealloc, inst->tMemCB.pfRealloc);
    EXPECT_EQ(req->pfFree, inst->tMemCB.pfFree);
    ExpectLines({Info("NvrHttpCurlCltReqCreat", " create req %p, {easyhand:%p}\n", Ptr(req), Ptr(req->ptReq))});
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance + 1);
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestCreate, ClearsTheRecord)
{
    UseDirtyHeap();
    HNvrHttpCurlCltReq req = nullptr;
    ASSERT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 0U);
    EXPECT_EQ(asked, std::vector<size_t>{sizeof(TNvrHttpCurlCltReqInner)});
    EXPECT_EQ(req->ptHeaderList, nullptr);
    EXPECT_EQ(req->dwTaskIndex, 0U);
    EXPECT_EQ(req->ptReqBody, nullptr);
    EXPECT_EQ(req->ptRespData, nullptr);
    NvrHttpCurlCltReqReset(req);
    inst->tMemCB = fake::MemCB();
}

TEST_F(RequestCreate, RefusesAnAddressThatIsNoSlot)
{
    TNvrHttpCurlCltInst foreign = *inst;
    TNvrHttpCurlCltInst *const inside =
        reinterpret_cast<TNvrHttpCurlCltInst *>(reinterpret_cast<char *>(inst) + sizeof(void *));
    TNvrHttpCurlCltInst *const behind = g_tNvrHttpCurlCltCont + NVRHTTPCURLCLT_MAX_INSTANCES;
    for (TNvrHttpCurlCltInst *bad : {&foreign, inside, behind, static_cast<TNvrHttpCurlCltInst *>(nullptr)}) {
        HNvrHttpCurlCltReq req = reinterpret_cast<HNvrHttpCurlCltReq>(&foreign);
        EXPECT_EQ(NvrHttpCurlCltReqCreat(bad, &req), 4U);
        EXPECT_EQ(Ptr(req), Ptr(&foreign));
        ExpectLines({Error("NvrHttpCurlCltReqCreat", "[Error] invalid instance %p\n", Ptr(bad))});
    }
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(RequestCreate, LooksAtTheInstanceFirst)
{
    EXPECT_EQ(NvrHttpCurlCltReqCreat(nullptr, nullptr), 4U);
    ExpectLines({Error("NvrHttpCurlCltReqCreat", "[Error] invalid instance %p\n", Ptr(nullptr))});
}

Line MissingCallbacks(const TNvrHttpCurlCltInst &slot, HNvrHttpCurlCltReq *req)
{
    return Error("NvrHttpCurlCltReqCreat", "[Error] pfRealloc %p, pfRealloc %p, pfFree %p, phReq %p\n",
                 Ptr(slot.tMemCB.pfMalloc), Ptr(slot.tMemCB.pfRealloc), Ptr(slot.tMemCB.pfFree), Ptr(req));
}

TEST_F(RequestCreate, RefusesASlotThatWasNeverUsed)
{
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(NvrHttpCurlCltReqCreat(&g_tNvrHttpCurlCltCont[15], &req), 4U);
    EXPECT_EQ(req, nullptr);
    ExpectLines({MissingCallbacks(g_tNvrHttpCurlCltCont[15], &req)});
}

TEST_F(RequestCreate, RefusesASlotThatWasCleanedUp)
{
    TNvrHttpCurlCltInst *const slot = inst;
    Stop();
    Forget();
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(NvrHttpCurlCltReqCreat(slot, &req), 4U);
    EXPECT_EQ(req, nullptr);
    ExpectLines({Error("NvrHttpCurlCltReqCreat", "[Error] pfRealloc %p, pfRealloc %p, pfFree %p, phReq %p\n",
                       Ptr(nullptr), Ptr(nullptr), Ptr(nullptr), Ptr(&req))});
}

TEST_F(RequestCreate, RefusesANullResult)
{
    EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, nullptr), 4U);
    ExpectLines({MissingCallbacks(*inst, nullptr)});
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(RequestCreate, NeedsEachOfTheThreeCallbacks)
{
    const TNvrHttpCurlCltMemCB all = inst->tMemCB;
    for (int missing = 0; missing < 3; ++missing) {
        inst->tMemCB = all;
        if (missing == 0) {
            inst->tMemCB.pfMalloc = nullptr;
        } else if (missing == 1) {
            inst->tMemCB.pfRealloc = nullptr;
        } else {
            inst->tMemCB.pfFree = nullptr;
        }
        HNvrHttpCurlCltReq req = nullptr;
        EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 4U);
        EXPECT_EQ(req, nullptr);
        ExpectLines({MissingCallbacks(*inst, &req)});
    }
    inst->tMemCB = all;
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(RequestCreate, GoesByTheCallbacksAndNotByTheInUseFlag)
{
    TNvrHttpCurlCltInst &slot = g_tNvrHttpCurlCltCont[15];
    slot.tMemCB = fake::MemCB();
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(NvrHttpCurlCltReqCreat(&slot, &req), 0U);
    ASSERT_NE(req, nullptr);
    EXPECT_EQ(req->ptInstance, &slot);
    NvrHttpCurlCltReqReset(req);
    slot.tMemCB = {};
}

TEST_F(RequestCreate, ReportsExhaustedMemory)
{
    const size_t handles = hooks::Calls("curl_easy_init");
    HNvrHttpCurlCltReq req = nullptr;
    fake::FailMalloc(1);
    EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 5U);
    EXPECT_EQ(req, nullptr);
    ExpectLines({Error("NvrHttpCurlCltReqCreat", "[Error] malloc failed\n")});
    EXPECT_EQ(hooks::Calls("curl_easy_init"), handles);
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
}

TEST_F(RequestCreate, ReleasesTheRecordWithoutAnEasyHandle)
{
    hooks::easy_init = []() -> CURL * { return nullptr; };
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(NvrHttpCurlCltReqCreat(inst, &req), 1U);
    EXPECT_EQ(req, nullptr);
    ExpectLines({Error("NvrHttpCurlCltReqCreat", "[Error] curl_easy_init failed.\n")});
    EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
    EXPECT_FALSE(fake::SemIsTaken(g_sEasyInitLocker));
}

TEST_F(RequestCreate, HoldsTheEngineWideLockAroundEasyInitOnly)
{
    bool held = false;
    size_t blocks = 0;
    hooks::easy_init = [&] {
        held = fake::SemIsTaken(g_sEasyInitLocker) && fake::HeldByThisThread() == 1;
        blocks = fake::BlocksAlive();
        return hooks::real::easy_init();
    };
    HNvrHttpCurlCltReq req = Create();
    EXPECT_TRUE(held);
    EXPECT_EQ(blocks, blocksOfInstance + 1);
    EXPECT_FALSE(fake::SemIsTaken(g_sEasyInitLocker));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestCreate, GivesBackTheLockItTookThoughAnotherReplacedIt)
{
    const HOspSem first = g_sEasyInitLocker;
    HOspSem second = nullptr;
    ASSERT_NE(OspSemBCreate(&second), 0U);
    bool heldFirst = false;
    hooks::easy_init = [&] {
        heldFirst = fake::SemIsTaken(first);
        g_sEasyInitLocker = second;
        return hooks::real::easy_init();
    };
    HNvrHttpCurlCltReq req = Create();
    EXPECT_TRUE(heldFirst);
    EXPECT_FALSE(fake::SemIsTaken(first));
    EXPECT_FALSE(fake::SemIsTaken(second));
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestCreate, SerialisesEasyInitOverInstances)
{
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    hooks::easy_init = [&] {
        const int now = ++inside;
        int seen = most;
        while (seen < now && !most.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::yield();
        CURL *easy = hooks::real::easy_init();
        --inside;
        return easy;
    };
    TNvrHttpCurlCltInst *const first = inst;
    Start(0, 0);
    TNvrHttpCurlCltInst *const second = inst;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([=] {
            for (int j = 0; j < 20; ++j) {
                HNvrHttpCurlCltReq req = nullptr;
                EXPECT_EQ(NvrHttpCurlCltReqCreat(i % 2 == 0 ? first : second, &req), 0U);
                NvrHttpCurlCltReqReset(req);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(most, 1);
    NvrHttpCurlCltUninit(first);
}

TEST(RequestWithoutInstance, EasyInitMakesItsLock)
{
    ASSERT_EQ(g_sEasyInitLocker, nullptr);
    bool held = false;
    hooks::easy_init = [&] {
        held = g_sEasyInitLocker != nullptr && fake::SemIsTaken(g_sEasyInitLocker);
        return hooks::real::easy_init();
    };
    CURL *easy = _NvrHttpCurlCltEasyInit();
    ASSERT_NE(easy, nullptr);
    curl_easy_cleanup(easy);
    EXPECT_TRUE(held);
    EXPECT_EQ(fake::SemsCreated(), 1U);
    EXPECT_EQ(fake::NullTakes(), 0U);
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
}

/* --- invalid arguments of the setters -------------------------------------------------------- */

class RequestArguments : public Request
{
  protected:
    /* The one error line, the result 4, and nothing else that happened. */
    void ExpectRefused(uint32_t result, const Line &line)
    {
        EXPECT_EQ(result, 4U);
        ExpectLines({line});
        EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
        EXPECT_EQ(fake::BlocksAlive(), blocksOfInstance);
        EXPECT_EQ(hooks::Calls("curl_slist_append"), 0U);
    }

    TNvrHttpCurlCltReqInner noHandle = {};
    HNvrHttpCurlCltReq const noRecord = nullptr;
    const void *const none = nullptr;
};

TEST_F(RequestArguments, Uri)
{
    const char *uri = "http://127.0.0.1/";
    auto expected = [](HNvrHttpCurlCltReq req, const char *text) {
        return Error("NvrHttpCurlCltSetReqUri", "[Error] invalid arg, ptReqIn %p, ptReq %p, szUri %p\n", Ptr(req),
                     Ptr(req != nullptr ? req->ptReq : nullptr), Ptr(text));
    };
    ExpectRefused(NvrHttpCurlCltSetReqUri(noRecord, uri), expected(noRecord, uri));
    ExpectRefused(NvrHttpCurlCltSetReqUri(&noHandle, uri), expected(&noHandle, uri));
    HNvrHttpCurlCltReq req = Create();
    blocksOfInstance += 1;
    ExpectRefused(NvrHttpCurlCltSetReqUri(req, nullptr), expected(req, nullptr));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestArguments, Method)
{
    const char *text = "POST";
    auto expected = [](HNvrHttpCurlCltReq req, const char *method) {
        return Error("NvrHttpCurlCltSetReqMethod", "[Error] invalid arg, ptReqIn %p, ptReq %p, szMethod %p\n", Ptr(req),
                     Ptr(req != nullptr ? req->ptReq : nullptr), Ptr(method));
    };
    ExpectRefused(NvrHttpCurlCltSetReqMethod(noRecord, text), expected(noRecord, text));
    ExpectRefused(NvrHttpCurlCltSetReqMethod(&noHandle, text), expected(&noHandle, text));
    HNvrHttpCurlCltReq req = Create();
    blocksOfInstance += 1;
    ExpectRefused(NvrHttpCurlCltSetReqMethod(req, nullptr), expected(req, nullptr));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestArguments, AuthenticationAlsoWhenItIsOff)
{
    const char *text = "user:password";
    auto expected = [](HNvrHttpCurlCltReq req, const char *userAndPassword) {
        return Error("NvrHttpCurlCltSetAuthType", "[Error] invalid arg, ptReqIn %p, ptReq %p, pchUserAndPassWd %p\n",
                     Ptr(req), Ptr(req != nullptr ? req->ptReq : nullptr), Ptr(userAndPassword));
    };
    for (const uint32_t on : {0U, 1U}) {
        ExpectRefused(NvrHttpCurlCltSetAuthType(noRecord, on, text), expected(noRecord, text));
        ExpectRefused(NvrHttpCurlCltSetAuthType(&noHandle, on, text), expected(&noHandle, text));
    }
    HNvrHttpCurlCltReq req = Create();
    blocksOfInstance += 1;
    ExpectRefused(NvrHttpCurlCltSetAuthType(req, 0, nullptr), expected(req, nullptr));
    ExpectRefused(NvrHttpCurlCltSetAuthType(req, 1, nullptr), expected(req, nullptr));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestArguments, Header)
{
    auto expected = [](HNvrHttpCurlCltReq req, const char *name, const char *value) {
        return Error("NvrHttpCurlCltSetReqHeader",
                     "[Error] invalid arg, ptReqIn %p, ptReq %p, szName %p{%s}, szValue %p{%s}\n", Ptr(req),
                     Ptr(req != nullptr ? req->ptReq : nullptr), Ptr(name), name != nullptr ? name : "", Ptr(value),
                     value != nullptr ? value : "");
    };
    const char *name = "A";
    const char *value = "1";
    const char *empty = "";
    ExpectRefused(NvrHttpCurlCltSetReqHeader(noRecord, name, value), expected(noRecord, name, value));
    ExpectRefused(NvrHttpCurlCltSetReqHeader(&noHandle, name, value), expected(&noHandle, name, value));
    HNvrHttpCurlCltReq req = Create();
    blocksOfInstance += 1;
    ExpectRefused(NvrHttpCurlCltSetReqHeader(req, nullptr, value), expected(req, nullptr, value));
    ExpectRefused(NvrHttpCurlCltSetReqHeader(req, name, nullptr), expected(req, name, nullptr));
    ExpectRefused(NvrHttpCurlCltSetReqHeader(req, empty, value), expected(req, empty, value));
    ExpectRefused(NvrHttpCurlCltSetReqHeader(req, name, empty), expected(req, name, empty));
    EXPECT_EQ(req->ptHeaderList, nullptr);
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestArguments, Body)
{
    auto expected = [](HNvrHttpCurlCltReq req, uint32_t size, const char *body) {
        return Error("NvrHttpCurlCltSetReqBody", "[Error] invalid arg, ptReqIn %p, ptReq %p, dwSize %u, szBody %p\n",
                     Ptr(req), Ptr(req != nullptr ? req->ptReq : nullptr), size, Ptr(body));
    };
    const char *text = "hello";
    ExpectRefused(NvrHttpCurlCltSetReqBody(noRecord, text, 5), expected(noRecord, 5, text));
    ExpectRefused(NvrHttpCurlCltSetReqBody(&noHandle, text, 5), expected(&noHandle, 5, text));
    HNvrHttpCurlCltReq req = Create();
    blocksOfInstance += 1;
    ExpectRefused(NvrHttpCurlCltSetReqBody(req, nullptr, 5), expected(req, 5, nullptr));
    ExpectRefused(NvrHttpCurlCltSetReqBody(req, nullptr, 0xFFFFFFFFU), expected(req, 0xFFFFFFFFU, nullptr));
    EXPECT_EQ(req->ptReqBody, nullptr);
    EXPECT_EQ(req->ptRespData, nullptr);
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestArguments, BodyNeedsTheRecordsThreeCallbacks)
{
    HNvrHttpCurlCltReq req = Create();
    blocksOfInstance += 1;
    const TNvrHttpCurlCltReqInner all = *req;
    for (int missing = 0; missing < 3; ++missing) {
        req->pfMalloc = missing == 0 ? nullptr : all.pfMalloc;
        req->pfRealloc = missing == 1 ? nullptr : all.pfRealloc;
        req->pfFree = missing == 2 ? nullptr : all.pfFree;
        const Line line = Error("NvrHttpCurlCltSetReqBody", "[Error] pfRealloc %p, pfRealloc %p, pfFree %p\n",
                                Ptr(req->pfMalloc), Ptr(req->pfRealloc), Ptr(req->pfFree));
        ExpectRefused(NvrHttpCurlCltSetReqBody(req, "hello", 5), line);
        EXPECT_EQ(req->ptReqBody, nullptr);
        EXPECT_EQ(req->ptRespData, nullptr);
    }
    *req = all;
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestArguments, Reset)
{
    auto expected = [](HNvrHttpCurlCltReq req) {
        return Error("NvrHttpCurlCltReqReset", "[Error] invalid arg, ptReqIn %p, ptReq %p\n", Ptr(req), Ptr(nullptr));
    };
    ExpectRefused(NvrHttpCurlCltReqReset(noRecord), expected(noRecord));
    noHandle.ptInstance = inst;
    ExpectRefused(NvrHttpCurlCltReqReset(&noHandle), expected(&noHandle));
    EXPECT_EQ(fake::Frees(), 0U);
}

/* --- the URI ----------------------------------------------------------------------------------- */

class RequestUri : public Request
{
  protected:
    static constexpr const char *FUNC = "NvrHttpCurlCltSetReqUri";

    void SetUp() override
    {
        Request::SetUp();
        req = Create();
    }

    void TearDown() override
    {
        NvrHttpCurlCltReqReset(req);
        Request::TearDown();
    }

    static Line Told(const char *uri)
    {
        return Info(FUNC, " szUri:{%s}\n", uri);
    }

    static Line Unverified()
    {
        return Info(FUNC, " setopt CURLOPT_SSL_VERIFYPEER | CURLOPT_SSL_VERIFYHOST\n");
    }

    static Line Failed()
    {
        return Info(FUNC, " set req uri failed.\n");
    }

    void ExpectVerified(const char *uri)
    {
        EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, uri), 0U);
        ExpectLines({Told(uri)});
        ASSERT_EQ(hooks::OptionOrder(), std::vector<CURLoption>{CURLOPT_URL});
        EXPECT_EQ(hooks::Options()[0].text, uri);
        EXPECT_EQ(hooks::Options()[0].easy, req->ptReq);
    }

    void ExpectUnverified(const char *uri)
    {
        EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, uri), 0U);
        ExpectLines({Told(uri), Unverified()});
        ASSERT_EQ(hooks::OptionOrder(), HTTPS_OPTIONS);
        const std::vector<hooks::Option> options = hooks::Options();
        EXPECT_EQ(options[0].text, uri);
        for (size_t i = 1; i < options.size(); ++i) {
            EXPECT_EQ(options[i].value, 0U);
            EXPECT_EQ(options[i].easy, req->ptReq);
        }
    }

    const std::vector<CURLoption> HTTPS_OPTIONS = {CURLOPT_URL, CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST,
                                                   CURLOPT_CAINFO};
    HNvrHttpCurlCltReq req = nullptr;
};

TEST_F(RequestUri, PlainHttpSetsTheUrlOnly)
{
    ExpectVerified("http://127.0.0.1:8080/path?query=%41");
}

TEST_F(RequestUri, AnEmptyTextIsNoArgumentFault)
{
    ExpectVerified("");
}

TEST_F(RequestUri, HttpsTurnsVerificationOff)
{
    ExpectUnverified("https://127.0.0.1/");
}

TEST_F(RequestUri, TheLettersInAPathTurnItOffToo)
{
    ExpectUnverified("http://127.0.0.1/go/https");
}

TEST_F(RequestUri, CapitalsKeepItOn)
{
    ExpectVerified("HTTPS://127.0.0.1/");
}

TEST_F(RequestUri, MixedLettersKeepItOn)
{
    ExpectVerified("Https://127.0.0.1/");
}

TEST_F(RequestUri, ARefusedPlainUrlFails)
{
    hooks::RefuseOption(CURLOPT_URL, CURLE_OUT_OF_MEMORY);
    EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, "http://127.0.0.1/"), 1U);
    ExpectLines({Told("http://127.0.0.1/"), SetoptFault(FUNC, CURLE_OUT_OF_MEMORY), Failed()});
    EXPECT_EQ(hooks::OptionOrder(), std::vector<CURLoption>{CURLOPT_URL});
}

TEST_F(RequestUri, ARefusedHttpsUrlDoesNotFail)
{
    hooks::RefuseOption(CURLOPT_URL, CURLE_OUT_OF_MEMORY);
    EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, "https://127.0.0.1/"), 0U);
    ExpectLines({Told("https://127.0.0.1/"), SetoptFault(FUNC, CURLE_OUT_OF_MEMORY), Unverified()});
    EXPECT_EQ(hooks::OptionOrder(), HTTPS_OPTIONS);
}

TEST_F(RequestUri, RefusedVerificationOptionsDoNotFail)
{
    hooks::RefuseOption(CURLOPT_SSL_VERIFYPEER, CURLE_NOT_BUILT_IN);
    hooks::RefuseOption(CURLOPT_SSL_VERIFYHOST, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, "https://127.0.0.1/"), 0U);
    ExpectLines({Told("https://127.0.0.1/"), SetoptFault(FUNC, CURLE_NOT_BUILT_IN),
                 SetoptFault(FUNC, CURLE_UNKNOWN_OPTION), Unverified()});
    EXPECT_EQ(hooks::OptionOrder(), HTTPS_OPTIONS);
}

TEST_F(RequestUri, ARefusedCaInfoFails)
{
    hooks::RefuseOption(CURLOPT_CAINFO, CURLE_NOT_BUILT_IN);
    EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, "https://127.0.0.1/"), 1U);
    ExpectLines({Told("https://127.0.0.1/"), SetoptFault(FUNC, CURLE_NOT_BUILT_IN), Unverified(), Failed()});
    EXPECT_EQ(hooks::OptionOrder(), HTTPS_OPTIONS);
}

/* --- the method -------------------------------------------------------------------------------- */

struct MethodCase {
    const char *text;
    CURLoption option;
};

void PrintTo(const MethodCase &method, std::ostream *out)
{
    *out << method.text;
}

class RequestMethod : public RequestUri, public testing::WithParamInterface<MethodCase>
{
  protected:
    static constexpr const char *METHOD_FUNC = "NvrHttpCurlCltSetReqMethod";
};

TEST_P(RequestMethod, SetsItsOption)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqMethod(req, GetParam().text), 0U);
    ASSERT_EQ(hooks::OptionOrder(), std::vector<CURLoption>{GetParam().option});
    EXPECT_EQ(hooks::Options()[0].value, 1U);
    EXPECT_EQ(hooks::Options()[0].easy, req->ptReq);
    ExpectLines({});
}

TEST_P(RequestMethod, FailsIfItIsRefused)
{
    hooks::RefuseOption(GetParam().option, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(NvrHttpCurlCltSetReqMethod(req, GetParam().text), 1U);
    ExpectLines({SetoptFault(METHOD_FUNC, CURLE_UNKNOWN_OPTION),
                 Error(METHOD_FUNC, "[Error] Set Req Method{%s} failed\n", GetParam().text)});
}

INSTANTIATE_TEST_SUITE_P(InAnyCase, RequestMethod,
                         testing::Values(MethodCase{"POST", CURLOPT_POST}, MethodCase{"post", CURLOPT_POST},
                                         MethodCase{"GET", CURLOPT_HTTPGET}, MethodCase{"Get", CURLOPT_HTTPGET},
                                         MethodCase{"PUT", hooks::OPTION_PUT}, MethodCase{"pUT", hooks::OPTION_PUT}),
                         [](const auto &test) { return std::string(test.param.text); });

class RequestUnknownMethod : public RequestUri, public testing::WithParamInterface<const char *>
{
};

TEST_P(RequestUnknownMethod, IsRefusedAndSetsNothing)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqMethod(req, GetParam()), 4U);
    ExpectLines({Error("NvrHttpCurlCltSetReqMethod", "[Error] unknown method {%s}\n", GetParam())});
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
}

INSTANTIATE_TEST_SUITE_P(Others, RequestUnknownMethod, testing::Values("DELETE", "HEAD", "PATCH", "POSTS", "PU", ""),
                         [](const auto &test) { return std::string("method") + test.param; });

/* --- authentication ---------------------------------------------------------------------------- */

class RequestAuth : public RequestUri
{
  protected:
    static constexpr const char *AUTH_FUNC = "NvrHttpCurlCltSetAuthType";
    const std::vector<CURLoption> AUTH_OPTIONS = {CURLOPT_USERPWD, CURLOPT_HTTPAUTH};
};

TEST_F(RequestAuth, OffSetsNothing)
{
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 0, ""), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 0, "user:password"), 0U);
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
    ExpectLines({});
}

TEST_F(RequestAuth, OnSetsUserThenAnyScheme)
{
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 1, "user:password"), 0U);
    ASSERT_EQ(hooks::OptionOrder(), AUTH_OPTIONS);
    EXPECT_EQ(hooks::Options()[0].text, "user:password");
    EXPECT_EQ(hooks::Options()[1].value, static_cast<uintptr_t>(CURLAUTH_ANY));
    ExpectLines({});
}

TEST_F(RequestAuth, AnyNonzeroValueIsOn)
{
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 0x80000000U, "user:password"), 0U);
    EXPECT_EQ(hooks::OptionOrder(), AUTH_OPTIONS);
}

TEST_F(RequestAuth, ARefusedUserIsOnlyLogged)
{
    hooks::RefuseOption(CURLOPT_USERPWD, CURLE_OUT_OF_MEMORY);
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 1, "user:password"), 0U);
    ExpectLines({SetoptFault(AUTH_FUNC, CURLE_OUT_OF_MEMORY)});
    EXPECT_EQ(hooks::OptionOrder(), AUTH_OPTIONS);
}

TEST_F(RequestAuth, RefusedSchemesFailAndShowThePassword)
{
    hooks::RefuseOption(CURLOPT_HTTPAUTH, CURLE_NOT_BUILT_IN);
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 3, "user:password"), 1U);
    ExpectLines(
        {SetoptFault(AUTH_FUNC, CURLE_NOT_BUILT_IN),
         Error(AUTH_FUNC, "[Error] Set Req AuthType bCurlAuth{%d} pchUserAndPassWd{%s} failed\n", 3, "user:password")});
    EXPECT_EQ(hooks::OptionOrder(), AUTH_OPTIONS);
}

/* --- header lines ------------------------------------------------------------------------------ */

class RequestHeader : public RequestUri
{
  protected:
    static constexpr const char *HEADER_FUNC = "NvrHttpCurlCltSetReqHeader";
};

TEST_F(RequestHeader, AddsTheLineAndAnEmptyExpect)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "Content-Type", "a/b; q=%s"), 0U);
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), (std::vector<std::string>{"Content-Type:a/b; q=%s", "Expect:"}));
    ExpectLines({Info(HEADER_FUNC, " %s\n", "Content-Type:a/b; q=%s")});
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
}

TEST_F(RequestHeader, TwoCallsMakeFourEntries)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "B", "2"), 0U);
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), (std::vector<std::string>{"A:1", "Expect:", "B:2", "Expect:"}));
    ExpectLines({Info(HEADER_FUNC, " %s\n", "A:1"), Info(HEADER_FUNC, " %s\n", "B:2")});
}

TEST_F(RequestHeader, KeepsALineOf127Characters)
{
    const std::string value(125, 'v');
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "N", value.c_str()), 0U);
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), (std::vector<std::string>{"N:" + value, "Expect:"}));
}

TEST_F(RequestHeader, CutsALongerLineThere)
{
    const std::string value(126, 'v');
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "N", value.c_str()), 0U);
    const std::string cut = "N:" + value.substr(0, 125);
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), (std::vector<std::string>{cut, "Expect:"}));
    ExpectLines({Info(HEADER_FUNC, " %s\n", cut.c_str())});
}

TEST_F(RequestHeader, CutsALongName)
{
    const std::string name(300, 'n');
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, name.c_str(), "v"), 0U);
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), (std::vector<std::string>{name.substr(0, 127), "Expect:"}));
}

TEST_F(RequestHeader, AppendsBothLinesThoughTheFirstFailed)
{
    std::vector<std::string> lines;
    hooks::slist_append = [&](curl_slist *list, const char *line) -> curl_slist * {
        lines.push_back(line);
        return lines.size() == 1 ? nullptr : hooks::real::slist_append(list, line);
    };
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
    EXPECT_EQ(lines, (std::vector<std::string>{"A:1", "Expect:"}));
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), std::vector<std::string>{"Expect:"});
    ExpectLines({Info(HEADER_FUNC, " %s\n", "A:1")});
}

TEST_F(RequestHeader, WithoutMemoryTheLinesAreGone)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
    curl_slist *forgotten = req->ptHeaderList;
    hooks::slist_append = [](curl_slist *, const char *) -> curl_slist * { return nullptr; };
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "B", "2"), 0U);
    EXPECT_EQ(req->ptHeaderList, nullptr);
    curl_slist_free_all(forgotten); /* not released by the setter: libcurl might have been given it */
    hooks::slist_append = nullptr;
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "C", "3"), 0U);
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), (std::vector<std::string>{"C:3", "Expect:"}));
}

/* --- the body ---------------------------------------------------------------------------------- */

class RequestBody : public RequestUri
{
  protected:
    static constexpr const char *BODY_FUNC = "NvrHttpCurlCltSetReqBody";

    void ExpectOptions(CURLoption first)
    {
        EXPECT_EQ(hooks::OptionOrder(),
                  (std::vector<CURLoption>{first, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE, CURLOPT_WRITEFUNCTION,
                                           CURLOPT_WRITEDATA, CURLOPT_VERBOSE, CURLOPT_NOSIGNAL}));
        const std::vector<hooks::Option> options = hooks::Options();
        ASSERT_EQ(options.size(), 7U);
        for (const hooks::Option &option : options) {
            EXPECT_EQ(option.easy, req->ptReq);
        }
        EXPECT_EQ(options[0].value, first == CURLOPT_HEADER ? 1U : reinterpret_cast<uintptr_t>(req->ptHeaderList));
        EXPECT_EQ(options[1].value, reinterpret_cast<uintptr_t>(req->ptReqBody->pchData));
        EXPECT_EQ(options[2].value, req->ptReqBody->qwSize);
        EXPECT_EQ(options[3].value, reinterpret_cast<uintptr_t>(&_HttpCurlStackWriteCB));
        EXPECT_EQ(options[4].value, reinterpret_cast<uintptr_t>(req->ptRespData));
        EXPECT_EQ(options[5].value, 0U);
        EXPECT_EQ(options[6].value, 1U);
    }

    void ExpectEmptyResponse()
    {
        ASSERT_NE(req->ptRespData, nullptr);
        ASSERT_NE(req->ptRespData->pchData, nullptr);
        EXPECT_EQ(req->ptRespData->pchData[0], '\0');
        EXPECT_EQ(req->ptRespData->qwSize, 0U);
        EXPECT_EQ(req->ptRespData->pfRealloc, req->pfRealloc);
    }
};

TEST_F(RequestBody, CopiesTheBytes)
{
    std::string body("a\0b\0", 4);
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, body.data(), 4), 0U);
    body[0] = 'x';
    ASSERT_NE(req->ptReqBody, nullptr);
    EXPECT_EQ(req->ptReqBody->qwSize, 4U);
    EXPECT_EQ(memcmp("a\0b\0", req->ptReqBody->pchData, 4), 0);
    EXPECT_EQ(req->ptReqBody->pfRealloc, nullptr);
    ExpectEmptyResponse();
    ExpectLines({});
}

TEST_F(RequestBody, AsksForExactlyWhatItNeeds)
{
    NvrHttpCurlCltReqReset(req);
    UseDirtyHeap();
    req = Create();
    asked.clear();
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello world", 5), 0U);
    const size_t record = sizeof(TNvrHttpCurlCltMem);
    EXPECT_EQ(asked, (std::vector<size_t>{record, record, 5, 1}));
    EXPECT_EQ(memcmp("hello", req->ptReqBody->pchData, 5), 0);
    EXPECT_EQ(req->ptReqBody->pfRealloc, nullptr);
    ExpectEmptyResponse();
    NvrHttpCurlCltReqReset(req);
    inst->tMemCB = fake::MemCB();
    req = Create();
}

TEST_F(RequestBody, AnEmptyBodyIsLeftEmpty)
{
    NvrHttpCurlCltReqReset(req);
    UseDirtyHeap();
    req = Create();
    asked.clear();
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, nullptr, 0), 0U);
    const size_t record = sizeof(TNvrHttpCurlCltMem);
    EXPECT_EQ(asked, (std::vector<size_t>{record, record, 1}));
    ExpectLines({Info(BODY_FUNC, " dwSize %d, szBody %p\n", 0, Ptr(nullptr))});
    EXPECT_EQ(req->ptReqBody->pchData, nullptr);
    EXPECT_EQ(req->ptReqBody->qwSize, 0U);
    EXPECT_EQ(req->ptReqBody->pfRealloc, nullptr);
    ExpectEmptyResponse();
    ExpectOptions(CURLOPT_HEADER);
    NvrHttpCurlCltReqReset(req);
    inst->tMemCB = fake::MemCB();
    req = Create();
}

TEST_F(RequestBody, ASizeOfZeroMakesATextEmpty)
{
    const char *text = "hello";
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, text, 0), 0U);
    ExpectLines({Info(BODY_FUNC, " dwSize %d, szBody %p\n", 0, Ptr(text))});
    EXPECT_EQ(req->ptReqBody->pchData, nullptr);
    EXPECT_EQ(req->ptReqBody->qwSize, 0U);
    ExpectOptions(CURLOPT_HEADER);
}

TEST_F(RequestBody, AsksForTheAnswersHeadersWithoutHeaderLines)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    ExpectOptions(CURLOPT_HEADER);
}

TEST_F(RequestBody, HandsTheHeaderLinesOver)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
    Forget();
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    ExpectOptions(CURLOPT_HTTPHEADER);
}

class RequestBodyRefused : public RequestBody, public testing::WithParamInterface<CURLoption>
{
};

TEST_P(RequestBodyRefused, IsLoggedAndTheRestIsSet)
{
    if (GetParam() == CURLOPT_HTTPHEADER) {
        EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
        Forget();
    }
    hooks::RefuseOption(GetParam(), CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    ExpectLines({SetoptFault(BODY_FUNC, CURLE_UNKNOWN_OPTION)});
    ExpectOptions(GetParam() == CURLOPT_HTTPHEADER ? CURLOPT_HTTPHEADER : CURLOPT_HEADER);
    ExpectEmptyResponse();
}

INSTANTIATE_TEST_SUITE_P(EachOption, RequestBodyRefused,
                         testing::Values(CURLOPT_HTTPHEADER, CURLOPT_HEADER, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE,
                                         CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA, CURLOPT_VERBOSE, CURLOPT_NOSIGNAL),
                         [](const auto &test) { return "option" + std::to_string(test.param); });

TEST_F(RequestBody, AllOptionsRefusedIsNoFailureEither)
{
    hooks::easy_setopt = [](CURL *, CURLoption, void *) { return CURLE_OUT_OF_MEMORY; };
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    ExpectLines(Lines(7, SetoptFault(BODY_FUNC, CURLE_OUT_OF_MEMORY)));
    ExpectOptions(CURLOPT_HEADER);
}

class RequestBodyMemory : public RequestBody, public testing::WithParamInterface<unsigned>
{
};

TEST_P(RequestBodyMemory, AFirstCallLeavesNothingBehind)
{
    const size_t blocks = fake::BlocksAlive();
    fake::FailMalloc(GetParam());
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 5U);
    ExpectLines({Error(BODY_FUNC, "[Error] malloc failed\n")});
    EXPECT_EQ(req->ptReqBody, nullptr);
    EXPECT_EQ(req->ptRespData, nullptr);
    EXPECT_EQ(fake::BlocksAlive(), blocks);
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
}

TEST_P(RequestBodyMemory, AFailedSecondCallKeepsTheFirstInForce)
{
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, "first", 5), 0U);
    Forget();
    const TNvrHttpCurlCltReqInner before = *req;
    const TNvrHttpCurlCltMem body = *req->ptReqBody;
    const TNvrHttpCurlCltMem resp = *req->ptRespData;
    const size_t blocks = fake::BlocksAlive();
    fake::FailMalloc(GetParam());
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "other", 5), 5U);
    ExpectLines({Error(BODY_FUNC, "[Error] malloc failed\n")});
    ASSERT_EQ(req->ptReqBody, before.ptReqBody);
    ASSERT_EQ(req->ptRespData, before.ptRespData);
    EXPECT_EQ(memcmp(&body, req->ptReqBody, sizeof(body)), 0);
    EXPECT_EQ(memcmp(&resp, req->ptRespData, sizeof(resp)), 0);
    EXPECT_EQ(memcmp("first", req->ptReqBody->pchData, 5), 0);
    EXPECT_EQ(fake::BlocksAlive(), blocks);
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
}

INSTANTIATE_TEST_SUITE_P(EachBlock, RequestBodyMemory, testing::Values(1U, 2U, 3U, 4U),
                         [](const auto &test) { return "malloc" + std::to_string(test.param); });

class RequestEmptyBodyMemory : public RequestBody, public testing::WithParamInterface<unsigned>
{
};

TEST_P(RequestEmptyBodyMemory, LeavesNothingBehind)
{
    const size_t blocks = fake::BlocksAlive();
    fake::FailMalloc(GetParam());
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, nullptr, 0), 5U);
    ExpectLine(Error(BODY_FUNC, "[Error] malloc failed\n"));
    EXPECT_EQ(req->ptReqBody, nullptr);
    EXPECT_EQ(req->ptRespData, nullptr);
    EXPECT_EQ(fake::BlocksAlive(), blocks);
    EXPECT_EQ(hooks::OptionOrder(), NO_OPTIONS);
}

INSTANTIATE_TEST_SUITE_P(EachBlock, RequestEmptyBodyMemory, testing::Values(1U, 2U, 3U),
                         [](const auto &test) { return "malloc" + std::to_string(test.param); });

TEST_F(RequestBody, ASecondCallReleasesTheFirst)
{
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, "first", 5), 0U);
    const size_t blocks = fake::BlocksAlive();
    const size_t frees = fake::Frees();
    char byte = 'x';
    ASSERT_EQ(_HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData), 1U);
    Forget();
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "the second", 10), 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocks);
    EXPECT_EQ(fake::Frees(), frees + 4);
    EXPECT_EQ(req->ptReqBody->qwSize, 10U);
    EXPECT_EQ(memcmp("the second", req->ptReqBody->pchData, 10), 0);
    ExpectEmptyResponse();
    ExpectOptions(CURLOPT_HEADER);
    ExpectLines({});
}

TEST_F(RequestBody, ASecondEmptyBodyReleasesTheFirst)
{
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, "first", 5), 0U);
    const size_t blocks = fake::BlocksAlive();
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, nullptr, 0), 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocks - 1);
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "third", 5), 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocks);
}

/* --- release ----------------------------------------------------------------------------------- */

class RequestRelease : public Request
{
  protected:
    void SetUp() override
    {
        Request::SetUp();
        UseDirtyHeap();
        req = Create();
        req->pfFree = RequestFree;
        hooks::easy_cleanup = [](CURL *easy) {
            freed.push_back({'c', easy});
            hooks::real::easy_cleanup(easy);
        };
    }

    void TearDown() override
    {
        inst->tMemCB = fake::MemCB();
        Request::TearDown();
    }

    HNvrHttpCurlCltReq req = nullptr;
};

TEST_F(RequestRelease, FollowsItsOrder)
{
    ASSERT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    const std::vector<Freed> expected = {{'c', req->ptReq},      {'r', req->ptReqBody->pchData},
                                         {'r', req->ptReqBody},  {'r', req->ptRespData->pchData},
                                         {'r', req->ptRespData}, {'i', req}};
    _FreeTNvrHttpCurlCltReqInner(req);
    EXPECT_EQ(freed, expected);
}

TEST_F(RequestRelease, GivesNoNullBlockBack)
{
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, nullptr, 0), 0U);
    free(req->ptRespData->pchData);
    req->ptRespData->pchData = nullptr;
    const std::vector<Freed> expected = {{'c', req->ptReq}, {'r', req->ptReqBody}, {'r', req->ptRespData}, {'i', req}};
    _FreeTNvrHttpCurlCltReqInner(req);
    EXPECT_EQ(freed, expected);
}

TEST_F(RequestRelease, OfARequestWithoutBody)
{
    const std::vector<Freed> expected = {{'c', req->ptReq}, {'i', req}};
    _FreeTNvrHttpCurlCltReqInner(req);
    EXPECT_EQ(freed, expected);
}

TEST_F(RequestRelease, ANullArgumentDoesNothing)
{
    _FreeTNvrHttpCurlCltReqInner(nullptr);
    EXPECT_EQ(freed, std::vector<Freed>{});
    ExpectLines({});
    _FreeTNvrHttpCurlCltReqInner(req);
}

TEST_F(RequestRelease, ResetReleasesTheWholeRequest)
{
    ASSERT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    Forget();
    const Freed last = {'i', req};
    EXPECT_EQ(NvrHttpCurlCltReqReset(req), 0U);
    ASSERT_EQ(freed.size(), 6U);
    EXPECT_EQ(freed.front().by, 'c');
    EXPECT_EQ(freed.back(), last);
    ExpectLines({});
}

TEST_F(Request, ResetDoesNotWithdrawFromTheTask)
{
    Stop();
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateQueued();
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    EXPECT_EQ(NvrHttpCurlCltReqReset(req), 0U);
    ASSERT_EQ(task.tRunList.dwNumOfElem, 1U);
    EXPECT_EQ(inst->dwAsyncReqNum, 1U);

    /* The node is nobody's now. */
    void *node = nullptr;
    ASSERT_EQ(NVRHCCListRemove(&task.tRunList, task.tRunList.ptHead, &node), 0U);
    inst->tMemCB.pfFree(node);
}

/* --- on the wire --------------------------------------------------------------------------------- */

TEST_F(Request, AnEmptyBodyIsPosted)
{
    ScriptedServer server(Answering("ok"));
    HNvrHttpCurlCltReq req = Create();
    ASSERT_EQ(NvrHttpCurlCltSetReqUri(req, server.Url("/empty").c_str()), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqMethod(req, "POST"), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, nullptr, 0), 0U);
    ASSERT_EQ(NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr), 0U);
    int32_t code = 0;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, &code), 0U);
    EXPECT_EQ(code, 200);
    ASSERT_EQ(server.RequestCount(), 1U);
    const test::Request sent = server.Requests()[0];
    EXPECT_EQ(sent.Line(), "POST /empty HTTP/1.1");
    EXPECT_TRUE(sent.HasLine("Content-Length: 0")) << sent.head;
    EXPECT_EQ(server.Received(0), sent.head + "\r\n\r\n");
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(Request, ALongHeaderLineIsSentCutAndNothingIsExpected)
{
    ScriptedServer server(Answering("ok"));
    const std::string value(200, 'v');
    const std::string body(2000000, 'b'); /* libcurl would ask for a "100 Continue" */
    HNvrHttpCurlCltReq req = Create();
    ASSERT_EQ(NvrHttpCurlCltSetReqUri(req, server.Url().c_str()), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqHeader(req, "X-Long", value.c_str()), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqHeader(req, "X-Short", "1"), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, body.data(), static_cast<uint32_t>(body.size())), 0U);
    ASSERT_EQ(NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr), 0U);
    ASSERT_EQ(server.RequestCount(), 1U);
    const test::Request sent = server.Requests()[0];
    EXPECT_TRUE(sent.HasLine("X-Long:" + value.substr(0, 120))) << sent.head;
    EXPECT_TRUE(sent.HasLine("X-Short:1")) << sent.head;
    EXPECT_FALSE(sent.HasHeader("Expect")) << sent.head;
    EXPECT_EQ(server.Received(0), sent.head + "\r\n\r\n" + body);
    NvrHttpCurlCltReqDestroy(req);
}

/* libcurl's rule and not ours: what the body setter sets makes a POST of any method before it. */
class RequestMethodOnTheWire : public Request
{
  protected:
    /* The request as the server has read it. */
    test::Request Send(HNvrHttpCurlCltReq req)
    {
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr), 0U);
        NvrHttpCurlCltReqDestroy(req);
        const std::vector<test::Request> requests = server.Requests();
        EXPECT_EQ(requests.size(), 1U);
        return requests.empty() ? test::Request() : requests[0];
    }

    HNvrHttpCurlCltReq CreateWithMethodThenBody(const char *method)
    {
        HNvrHttpCurlCltReq req = Create();
        EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, server.Url("/path").c_str()), 0U);
        EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
        EXPECT_EQ(NvrHttpCurlCltSetReqMethod(req, method), 0U);
        EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "the body", 8), 0U);
        return req;
    }

    ScriptedServer server{Answering("ok")};
};

TEST_F(RequestMethodOnTheWire, GetBeforeTheBodyLeavesAsPost)
{
    const test::Request sent = Send(CreateWithMethodThenBody("GET"));
    EXPECT_EQ(sent.Line(), "POST /path HTTP/1.1");
    EXPECT_EQ(sent.body, "the body");
}

TEST_F(RequestMethodOnTheWire, PutBeforeTheBodyLeavesAsPost)
{
    const test::Request sent = Send(CreateWithMethodThenBody("PUT"));
    EXPECT_EQ(sent.Line(), "POST /path HTTP/1.1");
    EXPECT_EQ(sent.body, "the body");
}

TEST_F(RequestMethodOnTheWire, GetAfterTheBodyHasNone)
{
    HNvrHttpCurlCltReq req = CreateWithMethodThenBody("POST");
    ASSERT_EQ(NvrHttpCurlCltSetReqMethod(req, "GET"), 0U);
    const test::Request sent = Send(req);
    EXPECT_EQ(sent.Line(), "GET /path HTTP/1.1");
    EXPECT_EQ(server.Received(0), sent.head + "\r\n\r\n");
}

TEST_F(RequestMethodOnTheWire, PutAfterTheBodyReadsStandardInput)
{
    FeedStandardInput("typed");
    HNvrHttpCurlCltReq req = CreateWithMethodThenBody("POST");
    ASSERT_EQ(NvrHttpCurlCltSetReqMethod(req, "PUT"), 0U);
    const test::Request sent = Send(req);
    EXPECT_EQ(sent.Line(), "PUT /path HTTP/1.1");
    EXPECT_TRUE(sent.chunked);
    EXPECT_EQ(sent.body, "typed");
}

} // namespace
