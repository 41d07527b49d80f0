/*
 * What the tests of the send module share: its recurring log lines, answers made up for
 * libcurl, races, and the module's return to its state at load.
 */
#ifndef TESTS_SUPPORT_SEND_FIXTURE_H
#define TESTS_SUPPORT_SEND_FIXTURE_H

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>

#include "engine/httpcurlclient_inner.h"
#include "nvrhttpcurl/sendbycurl.h"
#include "platform/osp.h"
#include "sendbycurl/sendbycurl_inner.h"
#include "tests/support/fake_platform.h"
#include "tests/support/hooks.h"
#include "tests/support/log_lines.h"
#include "tests/support/loopback.h"
#include "tests/support/process_state.h"
#include "tests/support/race.h"
#include "tests/support/scripted_server.h"
#include "tests/support/wait.h"

namespace test
{

using Order = std::vector<CURLoption>;
using Texts = std::vector<std::string>;

/* --- log lines --------------------------------------------------------------------------- */

constexpr char STEP_FAILED[] = " %s[%d] is Failed!\n";
constexpr char INIT_FAILED[] = "[Error] SendByCurlInit is Failed! eSendCurlRet:%d\n";
constexpr char CONVERTED[] = " Transfer NvrHttpCurlCltRet[%d] to ESendByCurlRet[%d]\n";

inline Line OneNull(const char *func)
{
    return Error(func, "[Error] %s[%d] One Param is NULL!\n", func, OWN_NUMBER);
}

inline Line TwoNull(const char *func)
{
    return Error(func, "[Error] %s[%d] Two Param is NULL!\n", func, OWN_NUMBER);
}

inline Line CreateFailed(const char *func)
{
    return Error(func, "[Error] %s[%d] is Failed!\n", func, OWN_NUMBER);
}

inline Line StepFailed(const char *func)
{
    return Info(func, STEP_FAILED, func, OWN_NUMBER);
}

inline Line InitFailed(const char *func, uint32_t result)
{
    return Error(func, INIT_FAILED, result);
}

/* An engine result made one of the send module. */
inline Line Converted(uint32_t engine, uint32_t send)
{
    return Info("HttpCurlCodeToSendByCurlCode", CONVERTED, engine, send);
}

/* --- options ----------------------------------------------------------------------------- */

/* An option as it was set last. */
inline hooks::Option LastOf(CURLoption option)
{
    const std::vector<hooks::Option> options = hooks::OptionsOf(option);
    if (options.empty()) {
        ADD_FAILURE() << "option " << option << " was not set";
        return {};
    }
    return options.back();
}

inline uintptr_t ValueOf(CURLoption option)
{
    return LastOf(option).value;
}

inline std::string TextOf(CURLoption option)
{
    return LastOf(option).text;
}

/* The header lines that were set last. */
inline Texts HeaderLines()
{
    return hooks::HeaderLines(reinterpret_cast<const curl_slist *>(ValueOf(CURLOPT_HTTPHEADER)));
}

/* --- answers without a network -------------------------------------------------------------- */

/* How a transfer goes. */
struct Outcome {
    long status;   /* as libcurl reports it afterwards; 0 for none */
    Texts pieces;  /* what the write function is given, piece by piece */
    CURLcode code; /* what curl_easy_perform returns if all pieces were taken */
};

/* Gives the pieces to the write function that was last set on the handle. */
inline CURLcode Deliver(CURL *easy, const Outcome &outcome)
{
    curl_write_callback write = nullptr;
    void *data = nullptr;
    for (const hooks::Option &each : hooks::Options()) {
        if (each.easy == easy && each.option == CURLOPT_WRITEFUNCTION) {
            write = reinterpret_cast<curl_write_callback>(each.value);
        }
        if (each.easy == easy && each.option == CURLOPT_WRITEDATA) {
            data = reinterpret_cast<void *>(each.value);
        }
    }
    for (std::string piece : outcome.pieces) {
        if (write != nullptr && write(piece.data(), 1, piece.size(), data) != piece.size()) {
            return CURLE_WRITE_ERROR;
        }
    }
    return outcome.code;
}

/* From now on every transfer ends so, and nothing is sent. */
inline void AnswerWith(const Outcome &outcome)
{
    hooks::easy_perform = [outcome](CURL *easy) { return Deliver(easy, outcome); };
    hooks::easy_getinfo = [outcome](CURL *easy, CURLINFO info, void *value) {
        if (info != CURLINFO_RESPONSE_CODE) {
            return hooks::real::easy_getinfo(easy, info, value);
        }
        *static_cast<long *>(value) = outcome.status;
        return CURLE_OK;
    };
}

/* --- the module ---------------------------------------------------------------------------------- */

/* Semaphores of an engine of 8 tasks: two in each, the count lock, the easy-handle lock. */
constexpr size_t ENGINE_SEMS = 8 * 2 + 1 + 1;

/* Puts the module back to its state at load. */
inline void ForgetModule()
{
    if (g_hInitHandle != nullptr && g_hInitHandle->bInited != 0) {
        NvrHttpCurlCltUninit(g_hInitHandle);
    }
    for (HOspSem &sem : g_pCurlSemSet) {
        OspSemDelete(sem);
        sem = nullptr;
    }
    OspSemDelete(g_sEasyInitLocker);
    g_sEasyInitLocker = nullptr;
    g_hInitHandle = nullptr;
    g_bInited = 0;
    g_bRegistedDebuglog = 0;
    g_bLibCurlGobleInit = 0;
    for (TSendByCurlASyncCB &slot : g_pfASnycCBParam) {
        slot = TSendByCurlASyncCB{};
    }
}

/* --- the callback table ------------------------------------------------------------------------ */

inline bool IsEmpty(const TSendByCurlASyncCB &slot)
{
    return slot.bUseFlag == 0 && slot.ptReq == nullptr && slot.pfNtf == nullptr;
}

inline size_t SlotsTaken()
{
    return static_cast<size_t>(std::count_if(std::begin(g_pfASnycCBParam), std::end(g_pfASnycCBParam),
                                             [](const TSendByCurlASyncCB &slot) { return slot.bUseFlag != 0; }));
}

/* The line of a taken slot in "sendbycurlshow". */
inline Line ShownSlot(int index)
{
    const TSendByCurlASyncCB &slot = g_pfASnycCBParam[index];
    return Info("SendByCurlShow", " [%d] bUseFlag:%d, g_pfNtf:%p, ptReq:%p\n", index, slot.bUseFlag, Ptr(slot.pfNtf),
                Ptr(slot.ptReq));
}

/* Notifications as they came. */
struct Notified {
    ESendByCurlRet code;
    void *context;
};

inline std::mutex notifiedLock;
inline std::vector<Notified> notified;

inline uint32_t Collect(ESendByCurlRet code, void *context)
{
    const std::lock_guard<std::mutex> guard(notifiedLock);
    notified.push_back({code, context});
    return 0;
}

inline std::vector<Notified> NotifiedSoFar()
{
    const std::lock_guard<std::mutex> guard(notifiedLock);
    return notified;
}

/* A case that starts from the state at load and has no worker threads unless it asks for them. */
class SendTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        ClearProxies();
        fake::RunTasks(false);
    }

    void TearDown() override
    {
        hooks::easy_cleanup = nullptr; /* the case's own variables are gone */
        EXPECT_EQ(fake::HeldByThisThread(), 0U);
        EXPECT_EQ(fake::NullTakes(), 0U);
        for (HOspSem sem : g_pCurlSemSet) {
            EXPECT_FALSE(fake::SemIsTaken(sem));
        }
        ForgetModule();
        EXPECT_LE(fake::SemsAlive(), semsLeft);
        EXPECT_EQ(fake::Violations(), Texts());
    }

    /* Starts the module and forgets what it logged meanwhile. */
    static void Start(bool runTasks = false)
    {
        fake::RunTasks(runTasks);
        ASSERT_EQ(SendByCurlInit(), 0U);
        Forget();
    }

    /* Drops the lines and options recorded so far. */
    static void Forget()
    {
        fake::ClearLines();
        hooks::ClearOptions();
    }

    size_t semsLeft = 0; /* at most so many may outlive the module */
};

/* With a record to send, complete but for a notification. */
class RecordTest : public SendTest
{
  protected:
    void SetUp() override
    {
        SendTest::SetUp();
        param.pchURL = "http://127.0.0.1:1/x";
        param.pchSendBuf = "{\"a\":1}";
        param.dwSendLen = 7;
        param.dwConnTimeOutMS = 1111;
        param.dwTimeoutMS = 2222;
        param.dwMaxRecvLen = 16;
        param.pchRecvBuf = received;
        memset(received, '#', sizeof received);
    }

    TSendByCurlParam param = {};
    char received[64];
};

} // namespace test

#endif
