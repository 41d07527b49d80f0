/*
 * What the tests of the send module share: exact log lines, answers made up for libcurl,
 * races, and the module's return to its state at load.
 */
#ifndef TESTS_SUPPORT_SEND_FIXTURE_H
#define TESTS_SUPPORT_SEND_FIXTURE_H

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/httpcurlclient_inner.h"
#include "nvrhttpcurl/sendbycurl.h"
#include "platform/osp.h"
#include "sendbycurl/sendbycurl_inner.h"
#include "tests/support/fake_platform.h"
#include "tests/support/hooks.h"
#include "tests/support/request_fixture.h"

namespace sendtest
{

enum : uint32_t { LEVEL_ERROR = 2, LEVEL_INFO = 4 };

inline const std::string ONE_NULL = "%s[L:%d][Error] %s[%d] One Param is NULL!\n";
inline const std::string TWO_NULL = "%s[L:%d][Error] %s[%d] Two Param is NULL!\n";
inline const std::string STEP_FAILED = "%s[L:%d] %s[%d] is Failed!\n";
inline const std::string CREATE_FAILED = "%s[L:%d][Error] %s[%d] is Failed!\n";
inline const std::string CONVERTED = "%s[L:%d] Transfer NvrHttpCurlCltRet[%d] to ESendByCurlRet[%d]\n";
inline const std::string INIT_FAILED = "%s[L:%d][Error] SendByCurlInit is Failed! eSendCurlRet:%d\n";

/* --- log lines --------------------------------------------------------------------------- */

/* A pointer as "%p" prints it. */
template <typename T> std::string Ptr(T *pAny)
{
    char achText[40];
    snprintf(achText, sizeof achText, "%p", reinterpret_cast<const void *>(pAny));
    return achText;
}

/* Checks one line; '@' in strTail stands for the name and line number given a second time. */
inline void CheckLine(const fake::LogLine &tLine, uint32_t dwLevel, const std::string &strFunc,
                      const std::string &strTail)
{
    EXPECT_EQ(tLine.dwModule, 123u) << tLine.strText;
    EXPECT_EQ(tLine.dwLevel, dwLevel) << tLine.strText;
    const std::string strOpen = strFunc + "[L:";
    const size_t nClose = tLine.strText.find(']');
    ASSERT_EQ(tLine.strText.compare(0, strOpen.size(), strOpen), 0) << tLine.strText;
    ASSERT_NE(nClose, std::string::npos) << tLine.strText;
    const std::string strNumber = tLine.strText.substr(strOpen.size(), nClose - strOpen.size());
    EXPECT_GT(atoi(strNumber.c_str()), 0) << tLine.strText;

    std::string strExpected = strTail;
    const size_t nMark = strExpected.find('@');
    if (nMark != std::string::npos) {
        strExpected.replace(nMark, 1, strFunc + "[" + strNumber + "]");
    }
    EXPECT_EQ(tLine.strText.substr(nClose + 1), strExpected);
}

/* There is exactly one line of this format, and it looks so. */
inline void ExpectLine(const std::string &strFormat, uint32_t dwLevel, const std::string &strFunc,
                       const std::string &strTail)
{
    const std::vector<fake::LogLine> atLines = fake::LinesOf(strFormat);
    ASSERT_EQ(atLines.size(), 1u) << strFormat << fake::Transcript();
    CheckLine(atLines[0], dwLevel, strFunc, strTail);
}

/* The formats of all lines that one function emitted, in order. */
inline std::vector<std::string> FormatsOf(const std::string &strFunc)
{
    std::vector<std::string> astrFormats;
    for (const fake::LogLine &tLine : fake::Lines()) {
        if (tLine.strFunc == strFunc) {
            astrFormats.push_back(tLine.strFormat);
        }
    }
    return astrFormats;
}

/* The place of the first line of this format among all lines. */
inline size_t PlaceOf(const std::string &strFormat)
{
    const std::vector<fake::LogLine> atLines = fake::Lines();
    for (size_t nII = 0; nII < atLines.size(); ++nII) {
        if (atLines[nII].strFormat == strFormat) {
            return nII;
        }
    }
    ADD_FAILURE() << "no line " << strFormat << fake::Transcript();
    return atLines.size();
}

/* --- options ----------------------------------------------------------------------------- */

/* The number that an option was set to last. */
inline uintptr_t ValueOf(CURLoption eOption)
{
    const std::vector<hooks::Option> atOptions = hooks::OptionsOf(eOption);
    if (atOptions.empty()) {
        ADD_FAILURE() << "option " << eOption << " was not set";
        return 0;
    }
    return atOptions.back().uValue;
}

inline std::string TextOf(CURLoption eOption)
{
    const std::vector<hooks::Option> atOptions = hooks::OptionsOf(eOption);
    if (atOptions.empty()) {
        ADD_FAILURE() << "option " << eOption << " was not set";
        return std::string();
    }
    return atOptions.back().strText;
}

/* The lines of a header list. */
inline std::vector<std::string> HeaderLines(uintptr_t uList)
{
    std::vector<std::string> astrLines;
    for (const curl_slist *ptNode = reinterpret_cast<const curl_slist *>(uList); ptNode != nullptr;
         ptNode = ptNode->next) {
        astrLines.emplace_back(ptNode->data);
    }
    return astrLines;
}

/* --- answers without a network -------------------------------------------------------------- */

struct Answer {
    long nStatus;                        /* as libcurl tells it afterwards; 0 for none */
    std::vector<std::string> astrPieces; /* what the write function is given, piece by piece */
    CURLcode eCode;                      /* what curl_easy_perform returns if all pieces were taken */
};

/* Gives the pieces to the write function that was last set on the handle. */
inline CURLcode Deliver(CURL *ptEasy, const Answer &tAnswer)
{
    uintptr_t uFunction = 0;
    uintptr_t uData = 0;
    for (const hooks::Option &tOption : hooks::Options()) {
        if (tOption.ptEasy == ptEasy && tOption.eOption == CURLOPT_WRITEFUNCTION) {
            uFunction = tOption.uValue;
        }
        if (tOption.ptEasy == ptEasy && tOption.eOption == CURLOPT_WRITEDATA) {
            uData = tOption.uValue;
        }
    }
    for (const std::string &strPiece : tAnswer.astrPieces) {
        if (uFunction == 0) {
            break;
        }
        std::string strCopy = strPiece;
        curl_write_callback pfWrite = reinterpret_cast<curl_write_callback>(uFunction);
        if (pfWrite(strCopy.data(), 1, strCopy.size(), reinterpret_cast<void *>(uData)) != strCopy.size()) {
            return CURLE_WRITE_ERROR;
        }
    }
    return tAnswer.eCode;
}

/* From now on every transfer ends so, and nothing is sent. */
inline void AnswerWith(const Answer &tAnswer)
{
    hooks::easy_perform = [tAnswer](CURL *ptEasy) { return Deliver(ptEasy, tAnswer); };
    hooks::easy_getinfo = [tAnswer](CURL *ptEasy, CURLINFO eInfo, void *pvValue) {
        if (eInfo != CURLINFO_RESPONSE_CODE) {
            return hooks::real::easy_getinfo(ptEasy, eInfo, pvValue);
        }
        *static_cast<long *>(pvValue) = tAnswer.nStatus;
        return CURLE_OK;
    };
}

/* --- waiting and racing ------------------------------------------------------------------------ */

/* Polls until the condition holds; false after a limit that only a broken run reaches. */
inline bool WaitUntil(const std::function<bool()> &pfHolds)
{
    const auto tLimit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!pfHolds()) {
        if (std::chrono::steady_clock::now() > tLimit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/* Runs pfWork(0) to pfWork(nThreads - 1) on as many threads, let go at the same moment. */
inline void Race(unsigned nThreads, const std::function<void(unsigned)> &pfWork)
{
    std::atomic<unsigned> nReady{0};
    std::vector<std::thread> atThreads;
    for (unsigned nII = 0; nII < nThreads; ++nII) {
        atThreads.emplace_back([&, nII] {
            ++nReady;
            while (nReady < nThreads) {
                std::this_thread::yield();
            }
            pfWork(nII);
        });
    }
    for (std::thread &tThread : atThreads) {
        tThread.join();
    }
}

/* --- the module ---------------------------------------------------------------------------------- */

/* Semaphores of an engine of 8 tasks: two in each, the count lock, the easy-handle lock. */
enum : size_t { ENGINE_SEMS = 8 * 2 + 1 + 1 };

/* Puts the module back to its state at load. */
inline void ForgetModule()
{
    if (g_hInitHandle != nullptr && g_hInitHandle->bInited != 0) {
        NvrHttpCurlCltUninit(g_hInitHandle);
    }
    for (HOspSem &hSem : g_pCurlSemSet) {
        if (hSem != nullptr) {
            OspSemDelete(hSem);
        }
        hSem = nullptr;
    }
    if (g_sEasyInitLocker != nullptr) {
        OspSemDelete(g_sEasyInitLocker);
    }
    g_sEasyInitLocker = nullptr;
    g_hInitHandle = nullptr;
    g_bInited = 0;
    g_bRegistedDebuglog = 0;
    g_bLibCurlGobleInit = 0;
    for (TSendByCurlASyncCB &tSlot : g_pfASnycCBParam) {
        tSlot = TSendByCurlASyncCB{};
    }
}

/* Notifications as they came. */
struct Notified {
    ESendByCurlRet eCode;
    void *pvContext;
};

inline std::mutex g_tNotifiedLock;
inline std::vector<Notified> g_atNotified;

inline uint32_t Collect(ESendByCurlRet eCode, void *pvContext)
{
    std::lock_guard<std::mutex> tGuard(g_tNotifiedLock);
    g_atNotified.push_back({eCode, pvContext});
    return 0;
}

inline std::vector<Notified> NotifiedSoFar()
{
    std::lock_guard<std::mutex> tGuard(g_tNotifiedLock);
    return g_atNotified;
}

/* A case that starts from the state at load and has no worker threads unless it asks for them. */
class SendTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fixture::ClearProxies();
        fake::RunTasks(false);
    }

    void TearDown() override
    {
        hooks::easy_cleanup = nullptr; /* the case's own variables are gone */
        EXPECT_EQ(fake::HeldByThisThread(), 0u);
        EXPECT_EQ(fake::NullTakes(), 0u);
        for (HOspSem hSem : g_pCurlSemSet) {
            EXPECT_FALSE(hSem != nullptr && fake::SemIsTaken(hSem));
        }
        ForgetModule();
        EXPECT_LE(fake::SemsAlive(), nSemsLeft);
        for (const std::string &strWrong : fake::Violations()) {
            ADD_FAILURE() << strWrong;
        }
    }

    /* Starts the module and forgets what it said meanwhile. */
    static void Start(bool bRunTasks = false)
    {
        fake::RunTasks(bRunTasks);
        ASSERT_EQ(SendByCurlInit(), 0u);
        fake::ClearLines();
        hooks::ClearOptions();
    }

    size_t nSemsLeft = 0; /* at most so many may outlive the module */
};

/* With a record to send, complete but for a notification. */
class RecordTest : public SendTest
{
  protected:
    void SetUp() override
    {
        SendTest::SetUp();
        tParam.pchURL = "http://127.0.0.1:1/x";
        tParam.pchSendBuf = "{\"a\":1}";
        tParam.dwSendLen = 7;
        tParam.dwConnTimeOutMS = 1111;
        tParam.dwTimeoutMS = 2222;
        tParam.dwMaxRecvLen = 16;
        tParam.pchRecvBuf = achRecv;
        memset(achRecv, '#', sizeof achRecv);
    }

    TSendByCurlParam tParam = {};
    char achRecv[64];
};

} // namespace sendtest

#endif
