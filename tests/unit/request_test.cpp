/* Request objects: creation, settings, release. */
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/request_fixture.h"

using fixture::kError;
using fixture::kInfo;
using fixture::L;
using fixture::Line;
using fixture::Lines;
using fixture::P;
using fixture::SetoptFault;
using fixture::TakeLog;

namespace
{

const std::vector<CURLoption> kNoOptions = {};
/* libcurl marks its name as deprecated. */
const CURLoption kOptionPut = static_cast<CURLoption>(CURLOPTTYPE_LONG + 54);

std::vector<std::string> Texts(const curl_slist *list)
{
    std::vector<std::string> texts;
    for (; list != nullptr; list = list->next) {
        texts.push_back(list->data);
    }
    return texts;
}

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

std::vector<size_t> g_asked;
std::vector<Freed> g_freed;

void *DirtyMalloc(size_t size)
{
    g_asked.push_back(size);
    void *block = malloc(size);
    memset(block, 0xA5, size);
    return block;
}

void InstanceFree(void *block)
{
    g_freed.push_back({'i', block});
    free(block);
}

void RequestFree(void *block)
{
    g_freed.push_back({'r', block});
    free(block);
}

class Request : public fixture::EngineTest
{
  protected:
    void SetUp() override
    {
        Start(0, 0);
    }

    void UseDirtyHeap()
    {
        inst->tMemCB = {DirtyMalloc, realloc, InstanceFree};
        g_asked.clear();
        g_freed.clear();
    }
};

/* --- creation --------------------------------------------------------------------------------- */

using RequestCreate = Request;

TEST_F(RequestCreate, GivesARecordWithAnEasyHandleAndNoOption)
{
    HNvrHttpCurlCltReq req = nullptr;
    const size_t handles = hooks::Calls("curl_easy_init");
    ASSERT_EQ(0U, NvrHttpCurlCltReqCreat(inst, &req));
    ASSERT_NE(nullptr, req);
    EXPECT_EQ(handles + 1, hooks::Calls("curl_easy_init"));
    EXPECT_EQ(inst, req->ptInstance);
    EXPECT_NE(nullptr, req->ptReq);
    EXPECT_EQ(inst->tMemCB.pfMalloc, req->pfMalloc);
    EXPECT_EQ(inst->tMemCB.pfRealloc, req->pfRealloc);
    EXPECT_EQ(inst->tMemCB.pfFree, req->pfFree);
    EXPECT_EQ((Lines{L(kInfo, "NvrHttpCurlCltReqCreat", " create req %p, {easyhand:%p}\n", P(req), P(req->ptReq))}),
              TakeLog());
    EXPECT_EQ(kNoOptions, hooks::OptionOrder());
    EXPECT_EQ(blocksOfInstance + 1, fake::BlocksAlive());
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestCreate, ClearsTheRecord)
{
    UseDirtyHeap();
    HNvrHttpCurlCltReq req = nullptr;
    ASSERT_EQ(0U, NvrHttpCurlCltReqCreat(inst, &req));
    EXPECT_EQ(std::vector<size_t>{sizeof(TNvrHttpCurlCltReqInner)}, g_asked);
    EXPECT_EQ(nullptr, req->ptHeaderList);
    EXPECT_EQ(0U, req->dwTaskIndex);
    EXPECT_EQ(nullptr, req->ptReqBody);
    EXPECT_EQ(nullptr, req->ptRespData);
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
        EXPECT_EQ(4U, NvrHttpCurlCltReqCreat(bad, &req));
        EXPECT_EQ(P(&foreign), P(req));
        EXPECT_EQ((Lines{L(kError, "NvrHttpCurlCltReqCreat", "[Error] invalid instance %p\n", P(bad))}), TakeLog());
    }
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
}

TEST_F(RequestCreate, LooksAtTheInstanceFirst)
{
    EXPECT_EQ(4U, NvrHttpCurlCltReqCreat(nullptr, nullptr));
    EXPECT_EQ((Lines{L(kError, "NvrHttpCurlCltReqCreat", "[Error] invalid instance %p\n", P<void>(nullptr))}),
              TakeLog());
}

Line MissingCallbacks(const TNvrHttpCurlCltInst &slot, HNvrHttpCurlCltReq *req)
{
    return L(kError, "NvrHttpCurlCltReqCreat", "[Error] pfRealloc %p, pfRealloc %p, pfFree %p, phReq %p\n",
             P(slot.tMemCB.pfMalloc), P(slot.tMemCB.pfRealloc), P(slot.tMemCB.pfFree), P(req));
}

TEST_F(RequestCreate, RefusesASlotThatWasNeverUsed)
{
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(4U, NvrHttpCurlCltReqCreat(&g_tNvrHttpCurlCltCont[15], &req));
    EXPECT_EQ(nullptr, req);
    EXPECT_EQ(Lines{MissingCallbacks(g_tNvrHttpCurlCltCont[15], &req)}, TakeLog());
}

TEST_F(RequestCreate, RefusesASlotThatWasCleanedUp)
{
    TNvrHttpCurlCltInst *const slot = inst;
    Stop();
    Forget();
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(4U, NvrHttpCurlCltReqCreat(slot, &req));
    EXPECT_EQ(nullptr, req);
    EXPECT_EQ((Lines{L(kError, "NvrHttpCurlCltReqCreat", "[Error] pfRealloc %p, pfRealloc %p, pfFree %p, phReq %p\n",
                       P<void>(nullptr), P<void>(nullptr), P<void>(nullptr), P(&req))}),
              TakeLog());
}

TEST_F(RequestCreate, RefusesANullResult)
{
    EXPECT_EQ(4U, NvrHttpCurlCltReqCreat(inst, nullptr));
    EXPECT_EQ(Lines{MissingCallbacks(*inst, nullptr)}, TakeLog());
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
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
        EXPECT_EQ(4U, NvrHttpCurlCltReqCreat(inst, &req));
        EXPECT_EQ(nullptr, req);
        EXPECT_EQ(Lines{MissingCallbacks(*inst, &req)}, TakeLog());
    }
    inst->tMemCB = all;
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
}

TEST_F(RequestCreate, GoesByTheCallbacksAndNotByTheInUseFlag)
{
    TNvrHttpCurlCltInst &slot = g_tNvrHttpCurlCltCont[15];
    slot.tMemCB = fake::MemCB();
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(0U, NvrHttpCurlCltReqCreat(&slot, &req));
    ASSERT_NE(nullptr, req);
    EXPECT_EQ(&slot, req->ptInstance);
    NvrHttpCurlCltReqReset(req);
    slot.tMemCB = {};
}

TEST_F(RequestCreate, ReportsExhaustedMemory)
{
    const size_t handles = hooks::Calls("curl_easy_init");
    HNvrHttpCurlCltReq req = nullptr;
    fake::FailMalloc(1);
    EXPECT_EQ(5U, NvrHttpCurlCltReqCreat(inst, &req));
    EXPECT_EQ(nullptr, req);
    EXPECT_EQ((Lines{L(kError, "NvrHttpCurlCltReqCreat", "[Error] malloc failed\n")}), TakeLog());
    EXPECT_EQ(handles, hooks::Calls("curl_easy_init"));
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
}

TEST_F(RequestCreate, ReleasesTheRecordWithoutAnEasyHandle)
{
    hooks::easy_init = []() -> CURL * { return nullptr; };
    HNvrHttpCurlCltReq req = nullptr;
    EXPECT_EQ(1U, NvrHttpCurlCltReqCreat(inst, &req));
    EXPECT_EQ(nullptr, req);
    EXPECT_EQ((Lines{L(kError, "NvrHttpCurlCltReqCreat", "[Error] curl_easy_init failed.\n")}), TakeLog());
    EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
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
    EXPECT_EQ(blocksOfInstance + 1, blocks);
    EXPECT_FALSE(fake::SemIsTaken(g_sEasyInitLocker));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestCreate, GivesBackTheLockItTookThoughAnotherReplacedIt)
{
    const HOspSem first = g_sEasyInitLocker;
    HOspSem second = nullptr;
    ASSERT_NE(0U, OspSemBCreate(&second));
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
    EXPECT_EQ(0U, fake::HeldByThisThread());
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
                EXPECT_EQ(0U, NvrHttpCurlCltReqCreat(i % 2 == 0 ? first : second, &req));
                NvrHttpCurlCltReqReset(req);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1, most);
    NvrHttpCurlCltUninit(first);
}

TEST(RequestWithoutInstance, EasyInitMakesItsLock)
{
    ASSERT_EQ(nullptr, g_sEasyInitLocker);
    bool held = false;
    hooks::easy_init = [&] {
        held = g_sEasyInitLocker != nullptr && fake::SemIsTaken(g_sEasyInitLocker);
        return hooks::real::easy_init();
    };
    CURL *easy = _NvrHttpCurlCltEasyInit();
    ASSERT_NE(nullptr, easy);
    curl_easy_cleanup(easy);
    EXPECT_TRUE(held);
    EXPECT_EQ(1U, fake::SemsCreated());
    EXPECT_EQ(0U, fake::NullTakes());
    EXPECT_EQ(0U, fake::HeldByThisThread());
}

/* --- invalid arguments of the setters -------------------------------------------------------- */

class RequestArguments : public Request
{
  protected:
    /* The one error line, the result 4, and nothing else that happened. */
    void ExpectRefused(uint32_t result, const Line &line)
    {
        EXPECT_EQ(4U, result);
        EXPECT_EQ(Lines{line}, TakeLog());
        EXPECT_EQ(kNoOptions, hooks::OptionOrder());
        EXPECT_EQ(blocksOfInstance, fake::BlocksAlive());
        EXPECT_EQ(0U, hooks::Calls("curl_slist_append"));
    }

    TNvrHttpCurlCltReqInner noHandle = {};
    HNvrHttpCurlCltReq const noRecord = nullptr;
    const void *const none = nullptr;
};

TEST_F(RequestArguments, Uri)
{
    const char *uri = "http://127.0.0.1/";
    auto expected = [](HNvrHttpCurlCltReq req, const char *text) {
        return L(kError, "NvrHttpCurlCltSetReqUri", "[Error] invalid arg, ptReqIn %p, ptReq %p, szUri %p\n", P(req),
                 P(req != nullptr ? req->ptReq : nullptr), P(text));
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
        return L(kError, "NvrHttpCurlCltSetReqMethod", "[Error] invalid arg, ptReqIn %p, ptReq %p, szMethod %p\n",
                 P(req), P(req != nullptr ? req->ptReq : nullptr), P(method));
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
        return L(kError, "NvrHttpCurlCltSetAuthType",
                 "[Error] invalid arg, ptReqIn %p, ptReq %p, pchUserAndPassWd %p\n", P(req),
                 P(req != nullptr ? req->ptReq : nullptr), P(userAndPassword));
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
        return L(kError, "NvrHttpCurlCltSetReqHeader",
                 "[Error] invalid arg, ptReqIn %p, ptReq %p, szName %p{%s}, szValue %p{%s}\n", P(req),
                 P(req != nullptr ? req->ptReq : nullptr), P(name), name != nullptr ? name : "", P(value),
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
    EXPECT_EQ(nullptr, req->ptHeaderList);
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestArguments, Body)
{
    auto expected = [](HNvrHttpCurlCltReq req, uint32_t size, const char *body) {
        return L(kError, "NvrHttpCurlCltSetReqBody",
                 "[Error] invalid arg, ptReqIn %p, ptReq %p, dwSize %u, szBody %p\n", P(req),
                 P(req != nullptr ? req->ptReq : nullptr), size, P(body));
    };
    const char *text = "hello";
    ExpectRefused(NvrHttpCurlCltSetReqBody(noRecord, text, 5), expected(noRecord, 5, text));
    ExpectRefused(NvrHttpCurlCltSetReqBody(&noHandle, text, 5), expected(&noHandle, 5, text));
    HNvrHttpCurlCltReq req = Create();
    blocksOfInstance += 1;
    ExpectRefused(NvrHttpCurlCltSetReqBody(req, nullptr, 5), expected(req, 5, nullptr));
    ExpectRefused(NvrHttpCurlCltSetReqBody(req, nullptr, 0xFFFFFFFFU), expected(req, 0xFFFFFFFFU, nullptr));
    EXPECT_EQ(nullptr, req->ptReqBody);
    EXPECT_EQ(nullptr, req->ptRespData);
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
        const Line line = L(kError, "NvrHttpCurlCltSetReqBody", "[Error] pfRealloc %p, pfRealloc %p, pfFree %p\n",
                            P(req->pfMalloc), P(req->pfRealloc), P(req->pfFree));
        ExpectRefused(NvrHttpCurlCltSetReqBody(req, "hello", 5), line);
        EXPECT_EQ(nullptr, req->ptReqBody);
        EXPECT_EQ(nullptr, req->ptRespData);
    }
    *req = all;
    NvrHttpCurlCltReqReset(req);
}

TEST_F(RequestArguments, Reset)
{
    auto expected = [](HNvrHttpCurlCltReq req) {
        return L(kError, "NvrHttpCurlCltReqReset", "[Error] invalid arg, ptReqIn %p, ptReq %p\n", P(req),
                 P<void>(nullptr));
    };
    ExpectRefused(NvrHttpCurlCltReqReset(noRecord), expected(noRecord));
    noHandle.ptInstance = inst;
    ExpectRefused(NvrHttpCurlCltReqReset(&noHandle), expected(&noHandle));
    EXPECT_EQ(0U, fake::Frees());
}

/* --- the URI ----------------------------------------------------------------------------------- */

class RequestUri : public Request
{
  protected:
    static constexpr const char *kFunc = "NvrHttpCurlCltSetReqUri";

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
        return L(kInfo, kFunc, " szUri:{%s}\n", uri);
    }

    static Line Unverified()
    {
        return L(kInfo, kFunc, " setopt CURLOPT_SSL_VERIFYPEER | CURLOPT_SSL_VERIFYHOST\n");
    }

    static Line Failed()
    {
        return L(kInfo, kFunc, " set req uri failed.\n");
    }

    void ExpectVerified(const char *uri)
    {
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqUri(req, uri));
        EXPECT_EQ(Lines{Told(uri)}, TakeLog());
        ASSERT_EQ(std::vector<CURLoption>{CURLOPT_URL}, hooks::OptionOrder());
        EXPECT_EQ(uri, hooks::Options()[0].strText);
        EXPECT_EQ(req->ptReq, hooks::Options()[0].ptEasy);
    }

    void ExpectUnverified(const char *uri)
    {
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqUri(req, uri));
        EXPECT_EQ((Lines{Told(uri), Unverified()}), TakeLog());
        ASSERT_EQ(kHttpsOptions, hooks::OptionOrder());
        const std::vector<hooks::Option> options = hooks::Options();
        EXPECT_EQ(uri, options[0].strText);
        for (size_t i = 1; i < options.size(); ++i) {
            EXPECT_EQ(0U, options[i].uValue);
            EXPECT_EQ(req->ptReq, options[i].ptEasy);
        }
    }

    const std::vector<CURLoption> kHttpsOptions = {CURLOPT_URL, CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST,
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
    EXPECT_EQ(1U, NvrHttpCurlCltSetReqUri(req, "http://127.0.0.1/"));
    EXPECT_EQ((Lines{Told("http://127.0.0.1/"), SetoptFault(kFunc, CURLE_OUT_OF_MEMORY), Failed()}), TakeLog());
    EXPECT_EQ(std::vector<CURLoption>{CURLOPT_URL}, hooks::OptionOrder());
}

TEST_F(RequestUri, ARefusedHttpsUrlDoesNotFail)
{
    hooks::RefuseOption(CURLOPT_URL, CURLE_OUT_OF_MEMORY);
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqUri(req, "https://127.0.0.1/"));
    EXPECT_EQ((Lines{Told("https://127.0.0.1/"), SetoptFault(kFunc, CURLE_OUT_OF_MEMORY), Unverified()}), TakeLog());
    EXPECT_EQ(kHttpsOptions, hooks::OptionOrder());
}

TEST_F(RequestUri, RefusedVerificationOptionsDoNotFail)
{
    hooks::RefuseOption(CURLOPT_SSL_VERIFYPEER, CURLE_NOT_BUILT_IN);
    hooks::RefuseOption(CURLOPT_SSL_VERIFYHOST, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqUri(req, "https://127.0.0.1/"));
    EXPECT_EQ((Lines{Told("https://127.0.0.1/"), SetoptFault(kFunc, CURLE_NOT_BUILT_IN),
                     SetoptFault(kFunc, CURLE_UNKNOWN_OPTION), Unverified()}),
              TakeLog());
    EXPECT_EQ(kHttpsOptions, hooks::OptionOrder());
}

TEST_F(RequestUri, ARefusedCaInfoFails)
{
    hooks::RefuseOption(CURLOPT_CAINFO, CURLE_NOT_BUILT_IN);
    EXPECT_EQ(1U, NvrHttpCurlCltSetReqUri(req, "https://127.0.0.1/"));
    EXPECT_EQ((Lines{Told("https://127.0.0.1/"), SetoptFault(kFunc, CURLE_NOT_BUILT_IN), Unverified(), Failed()}),
              TakeLog());
    EXPECT_EQ(kHttpsOptions, hooks::OptionOrder());
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

class RequestMethod : public RequestUri, public ::testing::WithParamInterface<MethodCase>
{
  protected:
    static constexpr const char *kMethodFunc = "NvrHttpCurlCltSetReqMethod";
};

TEST_P(RequestMethod, SetsItsOption)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqMethod(req, GetParam().text));
    ASSERT_EQ(std::vector<CURLoption>{GetParam().option}, hooks::OptionOrder());
    EXPECT_EQ(1U, hooks::Options()[0].uValue);
    EXPECT_EQ(req->ptReq, hooks::Options()[0].ptEasy);
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_P(RequestMethod, FailsIfItIsRefused)
{
    hooks::RefuseOption(GetParam().option, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(1U, NvrHttpCurlCltSetReqMethod(req, GetParam().text));
    EXPECT_EQ((Lines{SetoptFault(kMethodFunc, CURLE_UNKNOWN_OPTION),
                     L(kError, kMethodFunc, "[Error] Set Req Method{%s} failed\n", GetParam().text)}),
              TakeLog());
}

INSTANTIATE_TEST_SUITE_P(InAnyCase, RequestMethod,
                         ::testing::Values(MethodCase{"POST", CURLOPT_POST}, MethodCase{"post", CURLOPT_POST},
                                           MethodCase{"GET", CURLOPT_HTTPGET}, MethodCase{"Get", CURLOPT_HTTPGET},
                                           MethodCase{"PUT", kOptionPut}, MethodCase{"pUT", kOptionPut}),
                         [](const auto &test) { return std::string(test.param.text); });

class RequestUnknownMethod : public RequestUri, public ::testing::WithParamInterface<const char *>
{
};

TEST_P(RequestUnknownMethod, IsRefusedAndSetsNothing)
{
    EXPECT_EQ(4U, NvrHttpCurlCltSetReqMethod(req, GetParam()));
    EXPECT_EQ((Lines{L(kError, "NvrHttpCurlCltSetReqMethod", "[Error] unknown method {%s}\n", GetParam())}), TakeLog());
    EXPECT_EQ(kNoOptions, hooks::OptionOrder());
}

INSTANTIATE_TEST_SUITE_P(Others, RequestUnknownMethod, ::testing::Values("DELETE", "HEAD", "PATCH", "POSTS", "PU", ""),
                         [](const auto &test) { return std::string("method") + test.param; });

/* --- authentication ---------------------------------------------------------------------------- */

class RequestAuth : public RequestUri
{
  protected:
    static constexpr const char *kAuthFunc = "NvrHttpCurlCltSetAuthType";
    const std::vector<CURLoption> kAuthOptions = {CURLOPT_USERPWD, CURLOPT_HTTPAUTH};
};

TEST_F(RequestAuth, OffSetsNothing)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetAuthType(req, 0, ""));
    EXPECT_EQ(0U, NvrHttpCurlCltSetAuthType(req, 0, "user:password"));
    EXPECT_EQ(kNoOptions, hooks::OptionOrder());
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(RequestAuth, OnSetsUserThenAnyScheme)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetAuthType(req, 1, "user:password"));
    ASSERT_EQ(kAuthOptions, hooks::OptionOrder());
    EXPECT_EQ("user:password", hooks::Options()[0].strText);
    EXPECT_EQ(static_cast<uintptr_t>(CURLAUTH_ANY), hooks::Options()[1].uValue);
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(RequestAuth, AnyNonzeroValueIsOn)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetAuthType(req, 0x80000000U, "user:password"));
    EXPECT_EQ(kAuthOptions, hooks::OptionOrder());
}

TEST_F(RequestAuth, ARefusedUserIsOnlyLogged)
{
    hooks::RefuseOption(CURLOPT_USERPWD, CURLE_OUT_OF_MEMORY);
    EXPECT_EQ(0U, NvrHttpCurlCltSetAuthType(req, 1, "user:password"));
    EXPECT_EQ(Lines{SetoptFault(kAuthFunc, CURLE_OUT_OF_MEMORY)}, TakeLog());
    EXPECT_EQ(kAuthOptions, hooks::OptionOrder());
}

TEST_F(RequestAuth, RefusedSchemesFailAndShowThePassword)
{
    hooks::RefuseOption(CURLOPT_HTTPAUTH, CURLE_NOT_BUILT_IN);
    EXPECT_EQ(1U, NvrHttpCurlCltSetAuthType(req, 3, "user:password"));
    EXPECT_EQ((Lines{SetoptFault(kAuthFunc, CURLE_NOT_BUILT_IN),
                     L(kError, kAuthFunc, "[Error] Set Req AuthType bCurlAuth{%d} pchUserAndPassWd{%s} failed\n", 3,
                       "user:password")}),
              TakeLog());
    EXPECT_EQ(kAuthOptions, hooks::OptionOrder());
}

/* --- header lines ------------------------------------------------------------------------------ */

class RequestHeader : public RequestUri
{
  protected:
    static constexpr const char *kHeaderFunc = "NvrHttpCurlCltSetReqHeader";
};

TEST_F(RequestHeader, AddsTheLineAndAnEmptyExpect)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "Content-Type", "a/b; q=%s"));
    EXPECT_EQ((std::vector<std::string>{"Content-Type:a/b; q=%s", "Expect:"}), Texts(req->ptHeaderList));
    EXPECT_EQ((Lines{L(kInfo, kHeaderFunc, " %s\n", "Content-Type:a/b; q=%s")}), TakeLog());
    EXPECT_EQ(kNoOptions, hooks::OptionOrder());
}

TEST_F(RequestHeader, TwoCallsMakeFourEntries)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "A", "1"));
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "B", "2"));
    EXPECT_EQ((std::vector<std::string>{"A:1", "Expect:", "B:2", "Expect:"}), Texts(req->ptHeaderList));
    EXPECT_EQ((Lines{L(kInfo, kHeaderFunc, " %s\n", "A:1"), L(kInfo, kHeaderFunc, " %s\n", "B:2")}), TakeLog());
}

TEST_F(RequestHeader, KeepsALineOf127Characters)
{
    const std::string value(125, 'v');
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "N", value.c_str()));
    EXPECT_EQ((std::vector<std::string>{"N:" + value, "Expect:"}), Texts(req->ptHeaderList));
}

TEST_F(RequestHeader, CutsALongerLineThere)
{
    const std::string value(126, 'v');
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "N", value.c_str()));
    const std::string cut = "N:" + value.substr(0, 125);
    EXPECT_EQ((std::vector<std::string>{cut, "Expect:"}), Texts(req->ptHeaderList));
    EXPECT_EQ((Lines{L(kInfo, kHeaderFunc, " %s\n", cut.c_str())}), TakeLog());
}

TEST_F(RequestHeader, CutsALongName)
{
    const std::string name(300, 'n');
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, name.c_str(), "v"));
    EXPECT_EQ((std::vector<std::string>{name.substr(0, 127), "Expect:"}), Texts(req->ptHeaderList));
}

TEST_F(RequestHeader, AppendsBothLinesThoughTheFirstFailed)
{
    std::vector<std::string> lines;
    hooks::slist_append = [&](curl_slist *list, const char *line) -> curl_slist * {
        lines.push_back(line);
        return lines.size() == 1 ? nullptr : hooks::real::slist_append(list, line);
    };
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "A", "1"));
    EXPECT_EQ((std::vector<std::string>{"A:1", "Expect:"}), lines);
    EXPECT_EQ(std::vector<std::string>{"Expect:"}, Texts(req->ptHeaderList));
    EXPECT_EQ((Lines{L(kInfo, kHeaderFunc, " %s\n", "A:1")}), TakeLog());
}

TEST_F(RequestHeader, WithoutMemoryTheLinesAreGone)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "A", "1"));
    curl_slist *forgotten = req->ptHeaderList;
    hooks::slist_append = [](curl_slist *, const char *) -> curl_slist * { return nullptr; };
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "B", "2"));
    EXPECT_EQ(nullptr, req->ptHeaderList);
    curl_slist_free_all(forgotten); /* not released by the setter: libcurl might have been given it */
    hooks::slist_append = nullptr;
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "C", "3"));
    EXPECT_EQ((std::vector<std::string>{"C:3", "Expect:"}), Texts(req->ptHeaderList));
}

/* --- the body ---------------------------------------------------------------------------------- */

class RequestBody : public RequestUri
{
  protected:
    static constexpr const char *kBodyFunc = "NvrHttpCurlCltSetReqBody";

    void ExpectOptions(CURLoption first)
    {
        EXPECT_EQ((std::vector<CURLoption>{first, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE, CURLOPT_WRITEFUNCTION,
                                           CURLOPT_WRITEDATA, CURLOPT_VERBOSE, CURLOPT_NOSIGNAL}),
                  hooks::OptionOrder());
        const std::vector<hooks::Option> options = hooks::Options();
        ASSERT_EQ(7U, options.size());
        for (const hooks::Option &option : options) {
            EXPECT_EQ(req->ptReq, option.ptEasy);
        }
        EXPECT_EQ(first == CURLOPT_HEADER ? 1U : reinterpret_cast<uintptr_t>(req->ptHeaderList), options[0].uValue);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(req->ptReqBody->pchData), options[1].uValue);
        EXPECT_EQ(req->ptReqBody->qwSize, options[2].uValue);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(&_HttpCurlStackWriteCB), options[3].uValue);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(req->ptRespData), options[4].uValue);
        EXPECT_EQ(0U, options[5].uValue);
        EXPECT_EQ(1U, options[6].uValue);
    }

    void ExpectEmptyResponse()
    {
        ASSERT_NE(nullptr, req->ptRespData);
        ASSERT_NE(nullptr, req->ptRespData->pchData);
        EXPECT_EQ('\0', req->ptRespData->pchData[0]);
        EXPECT_EQ(0U, req->ptRespData->qwSize);
        EXPECT_EQ(req->pfRealloc, req->ptRespData->pfRealloc);
    }
};

TEST_F(RequestBody, CopiesTheBytes)
{
    std::string body("a\0b\0", 4);
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, body.data(), 4));
    body[0] = 'x';
    ASSERT_NE(nullptr, req->ptReqBody);
    EXPECT_EQ(4U, req->ptReqBody->qwSize);
    EXPECT_EQ(0, memcmp("a\0b\0", req->ptReqBody->pchData, 4));
    EXPECT_EQ(nullptr, req->ptReqBody->pfRealloc);
    ExpectEmptyResponse();
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(RequestBody, AsksForExactlyWhatItNeeds)
{
    NvrHttpCurlCltReqReset(req);
    UseDirtyHeap();
    req = Create();
    g_asked.clear();
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "hello world", 5));
    const size_t record = sizeof(TNvrHttpCurlCltMem);
    EXPECT_EQ((std::vector<size_t>{record, record, 5, 1}), g_asked);
    EXPECT_EQ(0, memcmp("hello", req->ptReqBody->pchData, 5));
    EXPECT_EQ(nullptr, req->ptReqBody->pfRealloc);
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
    g_asked.clear();
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, nullptr, 0));
    const size_t record = sizeof(TNvrHttpCurlCltMem);
    EXPECT_EQ((std::vector<size_t>{record, record, 1}), g_asked);
    EXPECT_EQ((Lines{L(kInfo, kBodyFunc, " dwSize %d, szBody %p\n", 0, P<void>(nullptr))}), TakeLog());
    EXPECT_EQ(nullptr, req->ptReqBody->pchData);
    EXPECT_EQ(0U, req->ptReqBody->qwSize);
    EXPECT_EQ(nullptr, req->ptReqBody->pfRealloc);
    ExpectEmptyResponse();
    ExpectOptions(CURLOPT_HEADER);
    NvrHttpCurlCltReqReset(req);
    inst->tMemCB = fake::MemCB();
    req = Create();
}

TEST_F(RequestBody, ASizeOfZeroMakesATextEmpty)
{
    const char *text = "hello";
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, text, 0));
    EXPECT_EQ((Lines{L(kInfo, kBodyFunc, " dwSize %d, szBody %p\n", 0, P(text))}), TakeLog());
    EXPECT_EQ(nullptr, req->ptReqBody->pchData);
    EXPECT_EQ(0U, req->ptReqBody->qwSize);
    ExpectOptions(CURLOPT_HEADER);
}

TEST_F(RequestBody, AsksForTheAnswersHeadersWithoutHeaderLines)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "hello", 5));
    ExpectOptions(CURLOPT_HEADER);
}

TEST_F(RequestBody, HandsTheHeaderLinesOver)
{
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "A", "1"));
    Forget();
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "hello", 5));
    ExpectOptions(CURLOPT_HTTPHEADER);
}

class RequestBodyRefused : public RequestBody, public ::testing::WithParamInterface<CURLoption>
{
};

TEST_P(RequestBodyRefused, IsLoggedAndTheRestIsSet)
{
    if (GetParam() == CURLOPT_HTTPHEADER) {
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "A", "1"));
        Forget();
    }
    hooks::RefuseOption(GetParam(), CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "hello", 5));
    EXPECT_EQ(Lines{SetoptFault(kBodyFunc, CURLE_UNKNOWN_OPTION)}, TakeLog());
    ExpectOptions(GetParam() == CURLOPT_HTTPHEADER ? CURLOPT_HTTPHEADER : CURLOPT_HEADER);
    ExpectEmptyResponse();
}

INSTANTIATE_TEST_SUITE_P(EachOption, RequestBodyRefused,
                         ::testing::Values(CURLOPT_HTTPHEADER, CURLOPT_HEADER, CURLOPT_POSTFIELDS,
                                           CURLOPT_POSTFIELDSIZE, CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA,
                                           CURLOPT_VERBOSE, CURLOPT_NOSIGNAL),
                         [](const auto &test) { return "option" + std::to_string(test.param); });

TEST_F(RequestBody, AllOptionsRefusedIsNoFailureEither)
{
    hooks::easy_setopt = [](CURL *, CURLoption, void *) { return CURLE_OUT_OF_MEMORY; };
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "hello", 5));
    EXPECT_EQ(Lines(7, SetoptFault(kBodyFunc, CURLE_OUT_OF_MEMORY)), TakeLog());
    ExpectOptions(CURLOPT_HEADER);
}

class RequestBodyMemory : public RequestBody, public ::testing::WithParamInterface<unsigned>
{
};

TEST_P(RequestBodyMemory, AFirstCallLeavesNothingBehind)
{
    const size_t blocks = fake::BlocksAlive();
    fake::FailMalloc(GetParam());
    EXPECT_EQ(5U, NvrHttpCurlCltSetReqBody(req, "hello", 5));
    EXPECT_EQ((Lines{L(kError, kBodyFunc, "[Error] malloc failed\n")}), TakeLog());
    EXPECT_EQ(nullptr, req->ptReqBody);
    EXPECT_EQ(nullptr, req->ptRespData);
    EXPECT_EQ(blocks, fake::BlocksAlive());
    EXPECT_EQ(kNoOptions, hooks::OptionOrder());
}

TEST_P(RequestBodyMemory, AFailedSecondCallKeepsTheFirstInForce)
{
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "first", 5));
    Forget();
    const TNvrHttpCurlCltReqInner before = *req;
    const TNvrHttpCurlCltMem body = *req->ptReqBody;
    const TNvrHttpCurlCltMem resp = *req->ptRespData;
    const size_t blocks = fake::BlocksAlive();
    fake::FailMalloc(GetParam());
    EXPECT_EQ(5U, NvrHttpCurlCltSetReqBody(req, "other", 5));
    EXPECT_EQ((Lines{L(kError, kBodyFunc, "[Error] malloc failed\n")}), TakeLog());
    ASSERT_EQ(before.ptReqBody, req->ptReqBody);
    ASSERT_EQ(before.ptRespData, req->ptRespData);
    EXPECT_EQ(0, memcmp(&body, req->ptReqBody, sizeof(body)));
    EXPECT_EQ(0, memcmp(&resp, req->ptRespData, sizeof(resp)));
    EXPECT_EQ(0, memcmp("first", req->ptReqBody->pchData, 5));
    EXPECT_EQ(blocks, fake::BlocksAlive());
    EXPECT_EQ(kNoOptions, hooks::OptionOrder());
}

INSTANTIATE_TEST_SUITE_P(EachBlock, RequestBodyMemory, ::testing::Values(1U, 2U, 3U, 4U),
                         [](const auto &test) { return "malloc" + std::to_string(test.param); });

class RequestEmptyBodyMemory : public RequestBody, public ::testing::WithParamInterface<unsigned>
{
};

TEST_P(RequestEmptyBodyMemory, LeavesNothingBehind)
{
    const size_t blocks = fake::BlocksAlive();
    fake::FailMalloc(GetParam());
    EXPECT_EQ(5U, NvrHttpCurlCltSetReqBody(req, nullptr, 0));
    EXPECT_EQ(1U, fixture::Count(L(kError, kBodyFunc, "[Error] malloc failed\n")));
    EXPECT_EQ(nullptr, req->ptReqBody);
    EXPECT_EQ(nullptr, req->ptRespData);
    EXPECT_EQ(blocks, fake::BlocksAlive());
    EXPECT_EQ(kNoOptions, hooks::OptionOrder());
}

INSTANTIATE_TEST_SUITE_P(EachBlock, RequestEmptyBodyMemory, ::testing::Values(1U, 2U, 3U),
                         [](const auto &test) { return "malloc" + std::to_string(test.param); });

TEST_F(RequestBody, ASecondCallReleasesTheFirst)
{
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "first", 5));
    const size_t blocks = fake::BlocksAlive();
    const size_t frees = fake::Frees();
    char byte = 'x';
    ASSERT_EQ(1U, _HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData));
    Forget();
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "the second", 10));
    EXPECT_EQ(blocks, fake::BlocksAlive());
    EXPECT_EQ(frees + 4, fake::Frees());
    EXPECT_EQ(10U, req->ptReqBody->qwSize);
    EXPECT_EQ(0, memcmp("the second", req->ptReqBody->pchData, 10));
    ExpectEmptyResponse();
    ExpectOptions(CURLOPT_HEADER);
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(RequestBody, ASecondEmptyBodyReleasesTheFirst)
{
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "first", 5));
    const size_t blocks = fake::BlocksAlive();
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, nullptr, 0));
    EXPECT_EQ(blocks - 1, fake::BlocksAlive());
    EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "third", 5));
    EXPECT_EQ(blocks, fake::BlocksAlive());
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
            g_freed.push_back({'c', easy});
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
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "A", "1"));
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "hello", 5));
    const std::vector<Freed> expected = {{'c', req->ptReq},      {'r', req->ptReqBody->pchData},
                                         {'r', req->ptReqBody},  {'r', req->ptRespData->pchData},
                                         {'r', req->ptRespData}, {'i', req}};
    _FreeTNvrHttpCurlCltReqInner(req);
    EXPECT_EQ(expected, g_freed);
}

TEST_F(RequestRelease, GivesNoNullBlockBack)
{
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, nullptr, 0));
    free(req->ptRespData->pchData);
    req->ptRespData->pchData = nullptr;
    const std::vector<Freed> expected = {{'c', req->ptReq}, {'r', req->ptReqBody}, {'r', req->ptRespData}, {'i', req}};
    _FreeTNvrHttpCurlCltReqInner(req);
    EXPECT_EQ(expected, g_freed);
}

TEST_F(RequestRelease, OfARequestWithoutBody)
{
    const std::vector<Freed> expected = {{'c', req->ptReq}, {'i', req}};
    _FreeTNvrHttpCurlCltReqInner(req);
    EXPECT_EQ(expected, g_freed);
}

TEST_F(RequestRelease, ANullArgumentDoesNothing)
{
    _FreeTNvrHttpCurlCltReqInner(nullptr);
    EXPECT_EQ(std::vector<Freed>{}, g_freed);
    EXPECT_EQ(Lines{}, TakeLog());
    _FreeTNvrHttpCurlCltReqInner(req);
}

TEST_F(RequestRelease, ResetReleasesTheWholeRequest)
{
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "A", "1"));
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "hello", 5));
    Forget();
    const Freed last = {'i', req};
    EXPECT_EQ(0U, NvrHttpCurlCltReqReset(req));
    ASSERT_EQ(6U, g_freed.size());
    EXPECT_EQ('c', g_freed.front().by);
    EXPECT_EQ(last, g_freed.back());
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(Request, ResetDoesNotWithdrawFromTheTask)
{
    Stop();
    Start(1, 8);
    HNvrHttpCurlCltReq req = CreateQueued();
    TNvrHttpCurlCltTask &task = inst->atTasks[0];
    EXPECT_EQ(0U, NvrHttpCurlCltReqReset(req));
    ASSERT_EQ(1U, task.tRunList.dwNumOfElem);
    EXPECT_EQ(1U, inst->dwAsyncReqNum);

    /* The node is nobody's now. */
    void *node = nullptr;
    ASSERT_EQ(0U, NVRHCCListRemove(&task.tRunList, task.tRunList.ptHead, &node));
    inst->tMemCB.pfFree(node);
}

/* --- on the wire --------------------------------------------------------------------------------- */

TEST_F(Request, AnEmptyBodyIsPosted)
{
    fixture::LoopbackServer server(fixture::Reply("ok"));
    HNvrHttpCurlCltReq req = Create();
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqUri(req, server.Url("/empty").c_str()));
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqMethod(req, "POST"));
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, nullptr, 0));
    ASSERT_EQ(0U, NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr));
    int32_t code = 0;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespStatCode(req, &code));
    EXPECT_EQ(200, code);
    const std::vector<std::string> requests = server.Requests();
    ASSERT_EQ(1U, requests.size());
    EXPECT_EQ(0U, requests[0].find("POST /empty HTTP/1.1\r\n")) << requests[0];
    EXPECT_NE(std::string::npos, requests[0].find("\r\nContent-Length: 0\r\n")) << requests[0];
    EXPECT_EQ(requests[0].size(), requests[0].find("\r\n\r\n") + 4) << requests[0];
    NvrHttpCurlCltReqDestroy(req);
}

TEST_F(Request, ALongHeaderLineIsSentCutAndNothingIsExpected)
{
    fixture::LoopbackServer server(fixture::Reply("ok"));
    const std::string value(200, 'v');
    const std::string body(2000000, 'b'); /* libcurl would ask for a "100 Continue" */
    HNvrHttpCurlCltReq req = Create();
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqUri(req, server.Url().c_str()));
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "X-Long", value.c_str()));
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "X-Short", "1"));
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, body.data(), static_cast<uint32_t>(body.size())));
    ASSERT_EQ(0U, NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr));
    const std::vector<std::string> requests = server.Requests();
    ASSERT_EQ(1U, requests.size());
    const std::string head = requests[0].substr(0, requests[0].find("\r\n\r\n") + 4);
    EXPECT_NE(std::string::npos, head.find("\r\nX-Long:" + value.substr(0, 120) + "\r\n")) << head;
    EXPECT_NE(std::string::npos, head.find("\r\nX-Short:1\r\n")) << head;
    EXPECT_EQ(std::string::npos, head.find("Expect")) << head;
    EXPECT_EQ(head + body, requests[0]);
    NvrHttpCurlCltReqDestroy(req);
}

/* libcurl's rule and not ours: what the body setter sets makes a POST of any method before it. */
class RequestMethodOnTheWire : public Request
{
  protected:
    /* The request as the server has read it. */
    std::string Send(HNvrHttpCurlCltReq req)
    {
        EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr));
        const std::vector<std::string> requests = server.Requests();
        EXPECT_EQ(1U, requests.size());
        NvrHttpCurlCltReqDestroy(req);
        return requests.empty() ? "" : requests[0];
    }

    HNvrHttpCurlCltReq CreateWithMethodThenBody(const char *method)
    {
        HNvrHttpCurlCltReq req = Create();
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqUri(req, server.Url("/path").c_str()));
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqHeader(req, "A", "1"));
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqMethod(req, method));
        EXPECT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "the body", 8));
        return req;
    }

    static bool EndsWith(const std::string &text, const std::string &end)
    {
        return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
    }

    fixture::LoopbackServer server{fixture::Reply("ok")};
};

TEST_F(RequestMethodOnTheWire, GetBeforeTheBodyLeavesAsPost)
{
    const std::string sent = Send(CreateWithMethodThenBody("GET"));
    EXPECT_EQ(0U, sent.find("POST /path HTTP/1.1\r\n")) << sent;
    EXPECT_TRUE(EndsWith(sent, "\r\n\r\nthe body")) << sent;
}

TEST_F(RequestMethodOnTheWire, PutBeforeTheBodyLeavesAsPost)
{
    const std::string sent = Send(CreateWithMethodThenBody("PUT"));
    EXPECT_EQ(0U, sent.find("POST /path HTTP/1.1\r\n")) << sent;
    EXPECT_TRUE(EndsWith(sent, "\r\n\r\nthe body")) << sent;
}

TEST_F(RequestMethodOnTheWire, GetAfterTheBodyHasNone)
{
    HNvrHttpCurlCltReq req = CreateWithMethodThenBody("POST");
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqMethod(req, "GET"));
    const std::string sent = Send(req);
    EXPECT_EQ(0U, sent.find("GET /path HTTP/1.1\r\n")) << sent;
    EXPECT_TRUE(EndsWith(sent, "\r\n\r\n")) << sent;
}

TEST_F(RequestMethodOnTheWire, PutAfterTheBodyReadsStandardInput)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    ASSERT_EQ(5, write(ends[1], "typed", 5));
    close(ends[1]);
    ASSERT_EQ(0, dup2(ends[0], 0));
    close(ends[0]);
    HNvrHttpCurlCltReq req = CreateWithMethodThenBody("POST");
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqMethod(req, "PUT"));
    const std::string sent = Send(req);
    EXPECT_EQ(0U, sent.find("PUT /path HTTP/1.1\r\n")) << sent;
    EXPECT_NE(std::string::npos, sent.find("\r\n5\r\ntyped\r\n0\r\n\r\n")) << sent;
    EXPECT_EQ(std::string::npos, sent.find("the body")) << sent;
}

} // namespace
