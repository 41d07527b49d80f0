/*
 * What the tests of JSON sends over the engine share.
 */
#ifndef TESTS_SUPPORT_ENGINE_SEND_FIXTURE_H
#define TESTS_SUPPORT_ENGINE_SEND_FIXTURE_H

#include <cstdlib>

#include "tests/support/send_fixture.h"

namespace test
{

constexpr char DISPATCH[] = "Qelvo_SendStrByHttp";
constexpr char SYNC[] = "Qelvo_SyncSendStrByHttpCurl";
constexpr char ASYNC[] = "Qelvo_ASyncSendStrByHttpCurl";

constexpr char IN_SYNC[] = " In Qelvo_SyncSendStr ByHttpCurl\n";
constexpr char ASYNC_FAILED[] = "[Error] Qelvo_ASyncSendStrByHttpCurl Failed! eSendCurlRet:%d\n";

/* What a send of a POST over plain HTTP sets. */
inline const Order POST_ORDER = {
    CURLOPT_URL,           CURLOPT_POST,      CURLOPT_HTTPHEADER, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE,
    CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA, CURLOPT_VERBOSE,    CURLOPT_NOSIGNAL,   CURLOPT_CONNECTTIMEOUT_MS,
    CURLOPT_TIMEOUT_MS};
inline const Texts JSON_HEADER = {"Content-Type:application/json;charset=UTF-8", "Expect:"};

/* Whatever was created has been released again. */
inline void ExpectNoHandleLeft()
{
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), hooks::Calls("curl_easy_init"));
}

/* The module is not started. */
class EngineSendTest : public RecordTest
{
  protected:
    void SetUp() override
    {
        RecordTest::SetUp();
        param.pfNtf = Collect;
    }

    void TearDown() override
    {
        if (countingMemory) {
            g_hInitHandle->tMemCB = {malloc, realloc, free};
        }
        RecordTest::TearDown();
    }

    /* With worker threads, for real answers from this URL. */
    void StartForReal(const std::string &from)
    {
        Start(true);
        serverUrl = from;
        param.pchURL = serverUrl.c_str();
        param.dwConnTimeOutMS = param.dwTimeoutMS = 20000;
    }

    /* The started instance's requests get counted memory, which can be made to run out. */
    void CountMemory()
    {
        g_hInitHandle->tMemCB = fake::MemCB();
        countingMemory = true;
    }

    bool BufferUntouched() const
    {
        return std::string(received, sizeof received) == std::string(sizeof received, '#');
    }

    /* A missing pointer is refused before a request is created. The lines before that one are given. */
    void ExpectPointersRequired(uint32_t (*send)(TSendByCurlParam *), const char *func, const Lines &before)
    {
        TSendByCurlParam noUrl = param;
        TSendByCurlParam noBody = param;
        TSendByCurlParam noBuffer = param;
        noUrl.pchURL = nullptr;
        noBody.pchSendBuf = noUrl.pchSendBuf = nullptr; /* the URL is checked first */
        noBuffer.pchRecvBuf = nullptr;
        const struct {
            TSendByCurlParam *record;
            Line line;
        } cases[] = {
            {nullptr, OneNull(func)}, {&noUrl, OneNull(func)}, {&noBody, TwoNull(func)}, {&noBuffer, TwoNull(func)}};
        for (const auto &each : cases) {
            SCOPED_TRACE(&each - cases);
            EXPECT_EQ(send(each.record), 1U);
            ExpectLines(before + Lines{each.line});
        }
        EXPECT_EQ(hooks::Calls("curl_easy_init"), 0U);
        EXPECT_EQ(SlotsTaken(), 0U);
    }

    /* A send created one request, failed in an engine step, was converted and left nothing. */
    void ExpectStepFailed(const char *func, unsigned engine, unsigned send)
    {
        ExpectInOrder({StepFailed(func), Converted(engine, send)});
        EXPECT_EQ(hooks::Calls("curl_easy_init"), ++requests);
        ExpectNoHandleLeft();
        EXPECT_TRUE(BufferUntouched());
        EXPECT_EQ(NotifiedSoFar().size(), 0U);
    }

  private:
    bool countingMemory = false;
    size_t requests = 0;
    std::string serverUrl;
};

/* The module is started, without worker threads. */
class StartedSendTest : public EngineSendTest
{
  protected:
    void SetUp() override
    {
        EngineSendTest::SetUp();
        Start();
    }
};

} // namespace test

#endif
