/* Responses: the write callback and the three getters. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/engine_fixture.h"

namespace
{

using namespace test;

/* --- the write callback -------------------------------------------------------------------------- */

struct Grown {
    const void *from;
    size_t size;
};

std::vector<Grown> grown;
size_t blockSize = 1;

void *MovingRealloc(void *block, size_t size)
{
    grown.push_back({block, size});
    void *moved = fake::MemCB().pfMalloc(size);
    memset(moved, 0xA5, size);
    memcpy(moved, block, blockSize);
    blockSize = size;
    fake::MemCB().pfFree(block);
    return moved;
}

class ResponseWrite : public testing::Test
{
  protected:
    static constexpr const char *FUNC = "_HttpCurlStackWriteCB";

    void SetUp() override
    {
        mem.pchData = static_cast<char *>(fake::MemCB().pfMalloc(1));
        mem.pchData[0] = '\0';
        mem.pfRealloc = fake::MemCB().pfRealloc;
    }

    void TearDown() override
    {
        if (mem.pchData != nullptr) {
            fake::MemCB().pfFree(mem.pchData);
        }
        fake::FreeLostBlocks();
        EXPECT_EQ(fake::BlocksAlive(), 0U);
        EXPECT_EQ(fake::Violations(), std::vector<std::string>());
    }

    size_t Write(std::string bytes)
    {
        return _HttpCurlStackWriteCB(bytes.data(), 1, bytes.size(), &mem);
    }

    TNvrHttpCurlCltMem mem = {};
};

TEST_F(ResponseWrite, RefusesANullBuffer)
{
    char byte = 'x';
    EXPECT_EQ(_HttpCurlStackWriteCB(&byte, 1, 1, nullptr), 0U);
    ExpectLines({Error(FUNC, "[Error] Invalid value{mem or mem->pfRealloc}.\n")});
}

TEST_F(ResponseWrite, RefusesABufferThatCannotGrow)
{
    mem.pfRealloc = nullptr;
    const char *before = mem.pchData;
    EXPECT_EQ(Write("x"), 0U);
    EXPECT_EQ(mem.pchData, before);
    EXPECT_EQ(mem.qwSize, 0U);
    EXPECT_EQ(mem.pchData[0], '\0');
    ExpectLines({Error(FUNC, "[Error] Invalid value{mem or mem->pfRealloc}.\n")});
}

TEST_F(ResponseWrite, AppendsAndTerminates)
{
    EXPECT_EQ(Write("hello"), 5U);
    EXPECT_EQ(mem.qwSize, 5U);
    EXPECT_STREQ(mem.pchData, "hello");
    EXPECT_EQ(Write(std::string("a\0b", 3)), 3U);
    EXPECT_EQ(mem.qwSize, 8U);
    EXPECT_EQ(memcmp("helloa\0b\0", mem.pchData, 9), 0);
    ExpectLines({});
}

TEST_F(ResponseWrite, TakesSizeTimesCount)
{
    char bytes[] = "abcdefgh";
    EXPECT_EQ(_HttpCurlStackWriteCB(bytes, 2, 3, &mem), 6U);
    EXPECT_EQ(mem.qwSize, 6U);
    EXPECT_STREQ(mem.pchData, "abcdef");
}

TEST_F(ResponseWrite, NothingIsTakenAsNothing)
{
    EXPECT_EQ(Write("abc"), 3U);
    EXPECT_EQ(Write(""), 0U);
    EXPECT_EQ(mem.qwSize, 3U);
    EXPECT_STREQ(mem.pchData, "abc");
    ExpectLines({});
}

TEST_F(ResponseWrite, GrowsToTheExactSizeOncePerCall)
{
    mem.pfRealloc = MovingRealloc;
    const void *block = mem.pchData;
    const std::vector<std::string> chunks = {"ab", "c", "defg"};
    size_t size = 0;
    for (const std::string &chunk : chunks) {
        grown.clear();
        EXPECT_EQ(Write(chunk), chunk.size());
        size += chunk.size();
        ASSERT_EQ(grown.size(), 1U);
        EXPECT_EQ(grown[0].from, block);
        EXPECT_EQ(grown[0].size, size + 1);
        block = mem.pchData;
    }
    EXPECT_EQ(mem.qwSize, 7U);
    EXPECT_STREQ(mem.pchData, "abcdefg");
}

TEST_F(ResponseWrite, AFailedReallocLosesTheBlockAndKeepsTheSize)
{
    EXPECT_EQ(Write("hello"), 5U);
    fake::FailRealloc(1);
    EXPECT_EQ(Write("world"), 0U);
    EXPECT_EQ(mem.pchData, nullptr);
    EXPECT_EQ(mem.qwSize, 5U);
    ExpectLines({Error(FUNC, "[Error] [CurlStack]not enough memory (realloc returned NULL)\n")});
}

/* --- the getters ------------------------------------------------------------------------------------ */

class Response : public EngineTest
{
  protected:
    void SetUp() override
    {
        Start(0, 0);
        req = CreatePrepared("http://127.0.0.1/", "body");
    }

    void TearDown() override
    {
        NvrHttpCurlCltReqReset(req);
        fake::FreeLostBlocks();
        EngineTest::TearDown();
    }

    static void Answer(long code, CURLcode result = CURLE_OK)
    {
        hooks::easy_getinfo = [=](CURL *, CURLINFO info, void *value) {
            EXPECT_EQ(info, CURLINFO_RESPONSE_CODE);
            *static_cast<long *>(value) = code;
            return result;
        };
    }

    void Receive(std::string bytes)
    {
        ASSERT_EQ(_HttpCurlStackWriteCB(bytes.data(), 1, bytes.size(), req->ptRespData), bytes.size());
    }

    HNvrHttpCurlCltReq req = nullptr;
    TNvrHttpCurlCltReqInner noHandle = {};
};

using ResponseCode = Response;

TEST_F(ResponseCode, NeedsItsArguments)
{
    int32_t code = 5;
    auto expected = [](HNvrHttpCurlCltReq hReq, const int32_t *out) {
        return Lines{Error("NvrHttpCurlCltGetRespStatCode", "[Error] invalid arg, ptReqIn %p, ptReq %p, pnCode %p\n",
                           Ptr(hReq), Ptr(hReq != nullptr ? hReq->ptReq : nullptr), Ptr(out))};
    };
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(nullptr, &code), 4U);
    ExpectLines(expected(nullptr, &code));
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(&noHandle, &code), 4U);
    ExpectLines(expected(&noHandle, &code));
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, nullptr), 4U);
    ExpectLines(expected(req, nullptr));
    EXPECT_EQ(code, 5);
    EXPECT_EQ(hooks::Calls("curl_easy_getinfo"), 0U);
}

TEST_F(ResponseCode, IsTold)
{
    Answer(404);
    int32_t code = 0;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, &code), 0U);
    EXPECT_EQ(code, 404);
    ExpectLines({});
}

TEST_F(ResponseCode, IsTheLowHalfOfALong)
{
    Answer(0x5000000C8L);
    int32_t code = 0;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, &code), 0U);
    EXPECT_EQ(code, 200);
}

TEST_F(ResponseCode, IsZeroWithSuccessWhereNoneCame)
{
    int32_t code = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, &code), 0U);
    EXPECT_EQ(code, 0);
}

TEST_F(ResponseCode, StartsAtZero)
{
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_OK; };
    int32_t code = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, &code), 0U);
    EXPECT_EQ(code, 0);
}

TEST_F(ResponseCode, IsLeftAloneIfLibcurlDoesNotTell)
{
    Answer(200, CURLE_UNKNOWN_OPTION);
    int32_t code = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, &code), 1U);
    EXPECT_EQ(code, 5);
    ExpectLines(
        {Error("NvrHttpCurlCltGetRespStatCode", "[Error] curl_easy_getinfo{CURLINFO_RESPONSE_CODE} failed{%d}\n",
               static_cast<int>(CURLE_UNKNOWN_OPTION))});
}

class ResponseLength : public Response
{
  protected:
    static constexpr const char *FUNC = "NvrHttpCurlCltGetRespBodyLen";
};

TEST_F(ResponseLength, NeedsItsArguments)
{
    uint32_t size = 5;
    auto expected = [](HNvrHttpCurlCltReq hReq, const uint32_t *out) {
        return Lines{Error(FUNC, "[Error] invalid arg, ptReqIn %p, ptReq %p, pdwBufSize %p\n", Ptr(hReq),
                           Ptr(hReq != nullptr ? hReq->ptReq : nullptr), Ptr(out))};
    };
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(nullptr, &size), 4U);
    ExpectLines(expected(nullptr, &size));
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(&noHandle, &size), 4U);
    ExpectLines(expected(&noHandle, &size));
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, nullptr), 4U);
    ExpectLines(expected(req, nullptr));
    EXPECT_EQ(size, 5U);
}

TEST_F(ResponseLength, NeedsAnAnswerThoughBytesCame)
{
    Receive("some");
    uint32_t size = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 1U);
    EXPECT_EQ(size, 5U);
    ExpectLines({Error(FUNC, "[Error] no server response code has been received.\n")});
}

TEST_F(ResponseLength, GoesByTheCodeAndNotByTheQuerysResult)
{
    Receive("some");
    uint32_t size = 5;
    Answer(200, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 0U);
    EXPECT_EQ(size, 4U);
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_OK; };
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 1U);
}

TEST_F(ResponseLength, NeedsAResponseRecord)
{
    Answer(200);
    HNvrHttpCurlCltReq bare = Create();
    uint32_t size = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(bare, &size), 1U);
    EXPECT_EQ(size, 5U);
    ExpectLines({Error(FUNC, "[Error] ptReqIn->ptRespData is NULL.\n")});
    hooks::easy_getinfo = nullptr;
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(bare, &size), 1U);
    ExpectLines({Error(FUNC, "[Error] no server response code has been received.\n")});
    NvrHttpCurlCltReqReset(bare);
}

TEST_F(ResponseLength, LeavesOutTheTerminator)
{
    Answer(200);
    uint32_t size = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 0U);
    EXPECT_EQ(size, 0U);
    Receive("abc");
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 0U);
    EXPECT_EQ(size, 3U);
    ExpectLines({});
}

TEST_F(ResponseLength, IsTheLowHalf)
{
    Answer(200);
    req->ptRespData->qwSize = 0x700000009ULL;
    uint32_t size = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 0U);
    EXPECT_EQ(size, 9U);
    req->ptRespData->qwSize = 0;
}

class ResponseBody : public Response
{
  protected:
    static constexpr const char *FUNC = "NvrHttpCurlCltGetRespBody";

    void SetUp() override
    {
        Response::SetUp();
        memset(buffer, '#', sizeof(buffer));
    }

    void ExpectUntouched() const
    {
        EXPECT_EQ(std::string(buffer, sizeof(buffer)), std::string(sizeof(buffer), '#'));
    }

    char buffer[32];
};

TEST_F(ResponseBody, NeedsItsArguments)
{
    Answer(200);
    uint32_t size = 5;
    auto expected = [](HNvrHttpCurlCltReq hReq, const char *out, const uint32_t *outSize) {
        return Lines{Error(
            FUNC, "[Error] invalid arg, ptReqIn %p, ptReq %p, szBodyBuf %p, pdwBufSize %p, *pdwBufSize %u\n", Ptr(hReq),
            Ptr(hReq != nullptr ? hReq->ptReq : nullptr), Ptr(out), Ptr(outSize), outSize != nullptr ? *outSize : 0)};
    };
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(nullptr, buffer, &size), 4U);
    ExpectLines(expected(nullptr, buffer, &size));
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(&noHandle, buffer, &size), 4U);
    ExpectLines(expected(&noHandle, buffer, &size));
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, nullptr, &size), 4U);
    ExpectLines(expected(req, nullptr, &size));
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, nullptr), 4U);
    ExpectLines(expected(req, buffer, nullptr));
    EXPECT_EQ(size, 5U);
    ExpectUntouched();
}

TEST_F(ResponseBody, ASizeOfZeroIsAnArgumentFaultAndNeverTooSmall)
{
    Answer(200);
    Receive("abc");
    uint32_t size = 0;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 4U);
    EXPECT_EQ(size, 0U);
    ExpectLines({Error(FUNC, "[Error] invalid arg, ptReqIn %p, ptReq %p, szBodyBuf %p, pdwBufSize %p, *pdwBufSize %u\n",
                       Ptr(req), Ptr(req->ptReq), Ptr(buffer), Ptr(&size), 0U)});
    ExpectUntouched();
}

TEST_F(ResponseBody, NeedsAnAnswerThoughBytesCame)
{
    Receive("some");
    uint32_t size = 20;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 1U);
    EXPECT_EQ(size, 20U);
    ExpectUntouched();
    ExpectLines({Error(FUNC, "[Error] no server response code has been received.\n")});
}

TEST_F(ResponseBody, GoesByTheCodeAndNotByTheQuerysResult)
{
    Receive("some");
    uint32_t size = 20;
    Answer(200, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 0U);
    EXPECT_STREQ(buffer, "some");
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_OK; };
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 1U);
}

TEST_F(ResponseBody, NeedsAResponseRecord)
{
    Answer(200);
    HNvrHttpCurlCltReq bare = Create();
    uint32_t size = 20;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(bare, buffer, &size), 1U);
    EXPECT_EQ(size, 20U);
    ExpectUntouched();
    ExpectLines({Error(FUNC, "[Error] ptRespData is Invalid.\n")});
    hooks::easy_getinfo = nullptr;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(bare, buffer, &size), 1U);
    ExpectLines({Error(FUNC, "[Error] no server response code has been received.\n")});
    NvrHttpCurlCltReqReset(bare);
}

TEST_F(ResponseBody, OneByteTooLongCopiesNothingAndTellsTheLength)
{
    Answer(200);
    Receive("abcdef");
    uint32_t size = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 7U);
    EXPECT_EQ(size, 6U);
    ExpectUntouched();
    ExpectLines({Error(FUNC, "[Error] nBodyLen %d, *pdwBufSize %u\n", 6, 5U)});
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 0U);
    EXPECT_STREQ(buffer, "abcdef");
}

TEST_F(ResponseBody, ComparesAllOfTheLength)
{
    Answer(200);
    req->ptRespData->qwSize = 0x700000002ULL;
    uint32_t size = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 7U);
    EXPECT_EQ(size, 2U);
    ExpectUntouched();
    ExpectLines({Error(FUNC, "[Error] nBodyLen %d, *pdwBufSize %u\n", 2, 5U)});
    req->ptRespData->qwSize = 0;
}

TEST_F(ResponseBody, ExactlyTheSizeIsTerminatedBehindIt)
{
    Answer(200);
    Receive("abcde");
    uint32_t size = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 0U);
    EXPECT_EQ(size, 5U);
    EXPECT_EQ(std::string(buffer, 8), std::string("abcde\0##", 8));
    ExpectLines({});
}

TEST_F(ResponseBody, KeepsBytesThatAreNul)
{
    Answer(200);
    Receive(std::string("a\0b", 3));
    uint32_t size = 31;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 0U);
    EXPECT_EQ(size, 3U);
    EXPECT_EQ(std::string(buffer, 5), std::string("a\0b\0#", 5));
}

TEST_F(ResponseBody, AnEmptyAnswerIsATerminator)
{
    Answer(204);
    uint32_t size = 1;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 0U);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(std::string(buffer, 2), std::string("\0#", 2));
}

TEST_F(ResponseBody, OnlyReads)
{
    Answer(200);
    Receive("abc");
    for (int i = 0; i < 2; ++i) {
        uint32_t size = 10;
        EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 0U);
        EXPECT_EQ(size, 3U);
        EXPECT_STREQ(buffer, "abc");
    }
}

class ResponseLost : public ResponseBody, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(ResponseLost, AfterAFailedReallocIsAFailure)
{
    Answer(200);
    Receive("abcdef");
    fake::FailRealloc(1);
    char byte = 'x';
    ASSERT_EQ(_HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData), 0U);
    uint32_t size = GetParam();
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 1U);
    ExpectUntouched();
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 0U);
    EXPECT_EQ(size, 6U);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ResponseLost, testing::Values(3U, 6U, 20U),
                         [](const auto &test) { return "size" + std::to_string(test.param); });

TEST_F(ResponseBody, LostBeforeItsFirstByteIsAFailureToo)
{
    Answer(200);
    fake::FailRealloc(1);
    char byte = 'x';
    ASSERT_EQ(_HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData), 0U);
    uint32_t size = 10;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 1U);
    ExpectUntouched();
}

/* --- real transfers ---------------------------------------------------------------------------------- */

class ResponseTransfer : public EngineTest
{
  protected:
    void SetUp() override
    {
        Start(0, 0);
    }

    static void Run(HNvrHttpCurlCltReq req)
    {
        Forget();
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr), 0U);
    }

    static std::string Body(HNvrHttpCurlCltReq req)
    {
        char buffer[4096];
        uint32_t size = sizeof(buffer) - 1;
        EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 0U) << fake::Transcript();
        return std::string(buffer, size);
    }
};

TEST_F(ResponseTransfer, WithHeaderLinesIsTheBodyAlone)
{
    ScriptedServer server(Answering("the answer"));
    HNvrHttpCurlCltReq req = CreatePrepared(server.Url(), "question");
    Run(req);
    EXPECT_EQ(Body(req), "the answer");
    NvrHttpCurlCltReqReset(req);
}

TEST_F(ResponseTransfer, WithoutHeaderLinesBeginsWithTheStatusLine)
{
    ScriptedServer server(Answering("the answer"));
    HNvrHttpCurlCltReq req = Create();
    ASSERT_EQ(NvrHttpCurlCltSetReqUri(req, server.Url().c_str()), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, "question", 8), 0U);
    Run(req);
    EXPECT_EQ(Body(req), Reply(200, "the answer"));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(ResponseTransfer, OfNoByteHasLengthZero)
{
    ScriptedServer server(Answering(""));
    HNvrHttpCurlCltReq req = CreatePrepared(server.Url(), "question");
    Run(req);
    uint32_t size = 7;
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 0U);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(Body(req), "");
    NvrHttpCurlCltReqReset(req);
}

TEST_F(ResponseTransfer, WithoutAnAnswerHasCodeZeroAndNoBody)
{
    const ClosedPort closed;
    HNvrHttpCurlCltReq req = CreatePrepared(closed.Url(), "question");
    Run(req);
    int32_t code = 5;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, &code), 0U);
    EXPECT_EQ(code, 0);
    char buffer[8];
    uint32_t size = 7;
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(req, &size), 1U);
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 1U);
    NvrHttpCurlCltReqReset(req);
}

TEST_F(ResponseTransfer, EndsAtAFailedRealloc)
{
    ScriptedServer server(Answering("the answer"));
    HNvrHttpCurlCltReq req = CreatePrepared(server.Url(), "question");
    fake::FailRealloc(1);
    Run(req);
    ExpectLine(Error("_NvrHttpCurlCltProcSyncReq", "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n",
                     static_cast<int>(CURLE_WRITE_ERROR), curl_easy_strerror(CURLE_WRITE_ERROR)));
    int32_t code = 0;
    EXPECT_EQ(NvrHttpCurlCltGetRespStatCode(req, &code), 0U);
    EXPECT_EQ(code, 200);
    char buffer[32];
    uint32_t size = 31;
    EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 1U);
    NvrHttpCurlCltReqReset(req);
    fake::FreeLostBlocks();
}

} // namespace
