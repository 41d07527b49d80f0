/* Responses: the write callback and the three getters. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/request_fixture.h"

using fixture::kError;
using fixture::L;
using fixture::Line;
using fixture::Lines;
using fixture::P;
using fixture::TakeLog;

namespace
{

/* --- the write callback -------------------------------------------------------------------------- */

struct Grown {
    const void *from;
    size_t size;
};

std::vector<Grown> g_grown;
size_t g_blockSize = 1;

void *MovingRealloc(void *block, size_t size)
{
    g_grown.push_back({block, size});
    void *moved = fake::MemCB().pfMalloc(size);
    memset(moved, 0xA5, size);
    memcpy(moved, block, g_blockSize);
    g_blockSize = size;
    fake::MemCB().pfFree(block);
    return moved;
}

class ResponseWrite : public ::testing::Test
{
  protected:
    static constexpr const char *kFunc = "_HttpCurlStackWriteCB";

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
        EXPECT_EQ(0U, fake::BlocksAlive());
        EXPECT_EQ(std::vector<std::string>(), fake::Violations());
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
    EXPECT_EQ(0U, _HttpCurlStackWriteCB(&byte, 1, 1, nullptr));
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] Invalid value{mem or mem->pfRealloc}.\n")}), TakeLog());
}

TEST_F(ResponseWrite, RefusesABufferThatCannotGrow)
{
    mem.pfRealloc = nullptr;
    const char *before = mem.pchData;
    EXPECT_EQ(0U, Write("x"));
    EXPECT_EQ(before, mem.pchData);
    EXPECT_EQ(0U, mem.qwSize);
    EXPECT_EQ('\0', mem.pchData[0]);
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] Invalid value{mem or mem->pfRealloc}.\n")}), TakeLog());
}

TEST_F(ResponseWrite, AppendsAndTerminates)
{
    EXPECT_EQ(5U, Write("hello"));
    EXPECT_EQ(5U, mem.qwSize);
    EXPECT_STREQ("hello", mem.pchData);
    EXPECT_EQ(3U, Write(std::string("a\0b", 3)));
    EXPECT_EQ(8U, mem.qwSize);
    EXPECT_EQ(0, memcmp("helloa\0b\0", mem.pchData, 9));
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(ResponseWrite, TakesSizeTimesCount)
{
    char bytes[] = "abcdefgh";
    EXPECT_EQ(6U, _HttpCurlStackWriteCB(bytes, 2, 3, &mem));
    EXPECT_EQ(6U, mem.qwSize);
    EXPECT_STREQ("abcdef", mem.pchData);
}

TEST_F(ResponseWrite, NothingIsTakenAsNothing)
{
    EXPECT_EQ(3U, Write("abc"));
    EXPECT_EQ(0U, Write(""));
    EXPECT_EQ(3U, mem.qwSize);
    EXPECT_STREQ("abc", mem.pchData);
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(ResponseWrite, GrowsToTheExactSizeOncePerCall)
{
    mem.pfRealloc = MovingRealloc;
    const void *block = mem.pchData;
    const std::vector<std::string> chunks = {"ab", "c", "defg"};
    size_t size = 0;
    for (const std::string &chunk : chunks) {
        g_grown.clear();
        EXPECT_EQ(chunk.size(), Write(chunk));
        size += chunk.size();
        ASSERT_EQ(1U, g_grown.size());
        EXPECT_EQ(block, g_grown[0].from);
        EXPECT_EQ(size + 1, g_grown[0].size);
        block = mem.pchData;
    }
    EXPECT_EQ(7U, mem.qwSize);
    EXPECT_STREQ("abcdefg", mem.pchData);
}

TEST_F(ResponseWrite, AFailedReallocLosesTheBlockAndKeepsTheSize)
{
    EXPECT_EQ(5U, Write("hello"));
    fake::FailRealloc(1);
    EXPECT_EQ(0U, Write("world"));
    EXPECT_EQ(nullptr, mem.pchData);
    EXPECT_EQ(5U, mem.qwSize);
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] [CurlStack]not enough memory (realloc returned NULL)\n")}), TakeLog());
}

/* --- the getters ------------------------------------------------------------------------------------ */

class Response : public fixture::EngineTest
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
            EXPECT_EQ(CURLINFO_RESPONSE_CODE, info);
            *static_cast<long *>(value) = code;
            return result;
        };
    }

    void Receive(std::string bytes)
    {
        ASSERT_EQ(bytes.size(), _HttpCurlStackWriteCB(bytes.data(), 1, bytes.size(), req->ptRespData));
    }

    HNvrHttpCurlCltReq req = nullptr;
    TNvrHttpCurlCltReqInner noHandle = {};
};

using ResponseCode = Response;

TEST_F(ResponseCode, NeedsItsArguments)
{
    int32_t code = 5;
    auto expected = [](HNvrHttpCurlCltReq hReq, const int32_t *out) {
        return Lines{L(kError, "NvrHttpCurlCltGetRespStatCode",
                       "[Error] invalid arg, ptReqIn %p, ptReq %p, pnCode %p\n", P(hReq),
                       P(hReq != nullptr ? hReq->ptReq : nullptr), P(out))};
    };
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespStatCode(nullptr, &code));
    EXPECT_EQ(expected(nullptr, &code), TakeLog());
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespStatCode(&noHandle, &code));
    EXPECT_EQ(expected(&noHandle, &code), TakeLog());
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespStatCode(req, nullptr));
    EXPECT_EQ(expected(req, nullptr), TakeLog());
    EXPECT_EQ(5, code);
    EXPECT_EQ(0U, hooks::Calls("curl_easy_getinfo"));
}

TEST_F(ResponseCode, IsTold)
{
    Answer(404);
    int32_t code = 0;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespStatCode(req, &code));
    EXPECT_EQ(404, code);
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(ResponseCode, IsTheLowHalfOfALong)
{
    Answer(0x5000000C8L);
    int32_t code = 0;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespStatCode(req, &code));
    EXPECT_EQ(200, code);
}

TEST_F(ResponseCode, IsZeroWithSuccessWhereNoneCame)
{
    int32_t code = 5;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespStatCode(req, &code));
    EXPECT_EQ(0, code);
}

TEST_F(ResponseCode, StartsAtZero)
{
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_OK; };
    int32_t code = 5;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespStatCode(req, &code));
    EXPECT_EQ(0, code);
}

TEST_F(ResponseCode, IsLeftAloneIfLibcurlDoesNotTell)
{
    Answer(200, CURLE_UNKNOWN_OPTION);
    int32_t code = 5;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespStatCode(req, &code));
    EXPECT_EQ(5, code);
    EXPECT_EQ((Lines{L(kError, "NvrHttpCurlCltGetRespStatCode",
                       "[Error] curl_easy_getinfo{CURLINFO_RESPONSE_CODE} failed{%d}\n",
                       static_cast<int>(CURLE_UNKNOWN_OPTION))}),
              TakeLog());
}

class ResponseLength : public Response
{
  protected:
    static constexpr const char *kFunc = "NvrHttpCurlCltGetRespBodyLen";
};

TEST_F(ResponseLength, NeedsItsArguments)
{
    uint32_t size = 5;
    auto expected = [](HNvrHttpCurlCltReq hReq, const uint32_t *out) {
        return Lines{L(kError, kFunc, "[Error] invalid arg, ptReqIn %p, ptReq %p, pdwBufSize %p\n", P(hReq),
                       P(hReq != nullptr ? hReq->ptReq : nullptr), P(out))};
    };
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespBodyLen(nullptr, &size));
    EXPECT_EQ(expected(nullptr, &size), TakeLog());
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespBodyLen(&noHandle, &size));
    EXPECT_EQ(expected(&noHandle, &size), TakeLog());
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespBodyLen(req, nullptr));
    EXPECT_EQ(expected(req, nullptr), TakeLog());
    EXPECT_EQ(5U, size);
}

TEST_F(ResponseLength, NeedsAnAnswerThoughBytesCame)
{
    Receive("some");
    uint32_t size = 5;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBodyLen(req, &size));
    EXPECT_EQ(5U, size);
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] no server response code has been received.\n")}), TakeLog());
}

TEST_F(ResponseLength, GoesByTheCodeAndNotByTheQuerysResult)
{
    Receive("some");
    uint32_t size = 5;
    Answer(200, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBodyLen(req, &size));
    EXPECT_EQ(4U, size);
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_OK; };
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBodyLen(req, &size));
}

TEST_F(ResponseLength, NeedsAResponseRecord)
{
    Answer(200);
    HNvrHttpCurlCltReq bare = Create();
    uint32_t size = 5;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBodyLen(bare, &size));
    EXPECT_EQ(5U, size);
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] ptReqIn->ptRespData is NULL.\n")}), TakeLog());
    hooks::easy_getinfo = nullptr;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBodyLen(bare, &size));
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] no server response code has been received.\n")}), TakeLog());
    NvrHttpCurlCltReqReset(bare);
}

TEST_F(ResponseLength, LeavesOutTheTerminator)
{
    Answer(200);
    uint32_t size = 5;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBodyLen(req, &size));
    EXPECT_EQ(0U, size);
    Receive("abc");
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBodyLen(req, &size));
    EXPECT_EQ(3U, size);
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(ResponseLength, IsTheLowHalf)
{
    Answer(200);
    req->ptRespData->qwSize = 0x700000009ULL;
    uint32_t size = 5;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBodyLen(req, &size));
    EXPECT_EQ(9U, size);
    req->ptRespData->qwSize = 0;
}

class ResponseBody : public Response
{
  protected:
    static constexpr const char *kFunc = "NvrHttpCurlCltGetRespBody";

    void SetUp() override
    {
        Response::SetUp();
        memset(buffer, '#', sizeof(buffer));
    }

    void ExpectUntouched() const
    {
        EXPECT_EQ(std::string(sizeof(buffer), '#'), std::string(buffer, sizeof(buffer)));
    }

    char buffer[32];
};

TEST_F(ResponseBody, NeedsItsArguments)
{
    Answer(200);
    uint32_t size = 5;
    auto expected = [](HNvrHttpCurlCltReq hReq, const char *out, const uint32_t *outSize) {
        return Lines{L(kError, kFunc,
                       "[Error] invalid arg, ptReqIn %p, ptReq %p, szBodyBuf %p, pdwBufSize %p, *pdwBufSize %u\n",
                       P(hReq), P(hReq != nullptr ? hReq->ptReq : nullptr), P(out), P(outSize),
                       outSize != nullptr ? *outSize : 0)};
    };
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespBody(nullptr, buffer, &size));
    EXPECT_EQ(expected(nullptr, buffer, &size), TakeLog());
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespBody(&noHandle, buffer, &size));
    EXPECT_EQ(expected(&noHandle, buffer, &size), TakeLog());
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespBody(req, nullptr, &size));
    EXPECT_EQ(expected(req, nullptr, &size), TakeLog());
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespBody(req, buffer, nullptr));
    EXPECT_EQ(expected(req, buffer, nullptr), TakeLog());
    EXPECT_EQ(5U, size);
    ExpectUntouched();
}

TEST_F(ResponseBody, ASizeOfZeroIsAnArgumentFaultAndNeverTooSmall)
{
    Answer(200);
    Receive("abc");
    uint32_t size = 0;
    EXPECT_EQ(4U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_EQ(0U, size);
    EXPECT_EQ((Lines{L(kError, kFunc,
                       "[Error] invalid arg, ptReqIn %p, ptReq %p, szBodyBuf %p, pdwBufSize %p, *pdwBufSize %u\n",
                       P(req), P(req->ptReq), P(buffer), P(&size), 0U)}),
              TakeLog());
    ExpectUntouched();
}

TEST_F(ResponseBody, NeedsAnAnswerThoughBytesCame)
{
    Receive("some");
    uint32_t size = 20;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_EQ(20U, size);
    ExpectUntouched();
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] no server response code has been received.\n")}), TakeLog());
}

TEST_F(ResponseBody, GoesByTheCodeAndNotByTheQuerysResult)
{
    Receive("some");
    uint32_t size = 20;
    Answer(200, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_STREQ("some", buffer);
    hooks::easy_getinfo = [](CURL *, CURLINFO, void *) { return CURLE_OK; };
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
}

TEST_F(ResponseBody, NeedsAResponseRecord)
{
    Answer(200);
    HNvrHttpCurlCltReq bare = Create();
    uint32_t size = 20;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBody(bare, buffer, &size));
    EXPECT_EQ(20U, size);
    ExpectUntouched();
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] ptRespData is Invalid.\n")}), TakeLog());
    hooks::easy_getinfo = nullptr;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBody(bare, buffer, &size));
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] no server response code has been received.\n")}), TakeLog());
    NvrHttpCurlCltReqReset(bare);
}

TEST_F(ResponseBody, OneByteTooLongCopiesNothingAndTellsTheLength)
{
    Answer(200);
    Receive("abcdef");
    uint32_t size = 5;
    EXPECT_EQ(7U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_EQ(6U, size);
    ExpectUntouched();
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] nBodyLen %d, *pdwBufSize %u\n", 6, 5U)}), TakeLog());
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_STREQ("abcdef", buffer);
}

TEST_F(ResponseBody, ComparesAllOfTheLength)
{
    Answer(200);
    req->ptRespData->qwSize = 0x700000002ULL;
    uint32_t size = 5;
    EXPECT_EQ(7U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_EQ(2U, size);
    ExpectUntouched();
    EXPECT_EQ((Lines{L(kError, kFunc, "[Error] nBodyLen %d, *pdwBufSize %u\n", 2, 5U)}), TakeLog());
    req->ptRespData->qwSize = 0;
}

TEST_F(ResponseBody, ExactlyTheSizeIsTerminatedBehindIt)
{
    Answer(200);
    Receive("abcde");
    uint32_t size = 5;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_EQ(5U, size);
    EXPECT_EQ(std::string("abcde\0##", 8), std::string(buffer, 8));
    EXPECT_EQ(Lines{}, TakeLog());
}

TEST_F(ResponseBody, KeepsBytesThatAreNul)
{
    Answer(200);
    Receive(std::string("a\0b", 3));
    uint32_t size = 31;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_EQ(3U, size);
    EXPECT_EQ(std::string("a\0b\0#", 5), std::string(buffer, 5));
}

TEST_F(ResponseBody, AnEmptyAnswerIsATerminator)
{
    Answer(204);
    uint32_t size = 1;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    EXPECT_EQ(0U, size);
    EXPECT_EQ(std::string("\0#", 2), std::string(buffer, 2));
}

TEST_F(ResponseBody, OnlyReads)
{
    Answer(200);
    Receive("abc");
    for (int i = 0; i < 2; ++i) {
        uint32_t size = 10;
        EXPECT_EQ(0U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
        EXPECT_EQ(3U, size);
        EXPECT_STREQ("abc", buffer);
    }
}

class ResponseLost : public ResponseBody, public ::testing::WithParamInterface<uint32_t>
{
};

TEST_P(ResponseLost, AfterAFailedReallocIsAFailure)
{
    Answer(200);
    Receive("abcdef");
    fake::FailRealloc(1);
    char byte = 'x';
    ASSERT_EQ(0U, _HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData));
    uint32_t size = GetParam();
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    ExpectUntouched();
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBodyLen(req, &size));
    EXPECT_EQ(6U, size);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ResponseLost, ::testing::Values(3U, 6U, 20U),
                         [](const auto &test) { return "size" + std::to_string(test.param); });

TEST_F(ResponseBody, LostBeforeItsFirstByteIsAFailureToo)
{
    Answer(200);
    fake::FailRealloc(1);
    char byte = 'x';
    ASSERT_EQ(0U, _HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData));
    uint32_t size = 10;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    ExpectUntouched();
}

/* --- real transfers ---------------------------------------------------------------------------------- */

class ResponseTransfer : public fixture::EngineTest
{
  protected:
    void SetUp() override
    {
        Start(0, 0);
    }

    static void Run(HNvrHttpCurlCltReq req)
    {
        Forget();
        EXPECT_EQ(0U, NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr));
    }

    static std::string Body(HNvrHttpCurlCltReq req)
    {
        char buffer[4096];
        uint32_t size = sizeof(buffer) - 1;
        EXPECT_EQ(0U, NvrHttpCurlCltGetRespBody(req, buffer, &size)) << fake::Transcript();
        return std::string(buffer, size);
    }
};

TEST_F(ResponseTransfer, WithHeaderLinesIsTheBodyAlone)
{
    fixture::LoopbackServer server(fixture::Reply("the answer"));
    HNvrHttpCurlCltReq req = CreatePrepared(server.Url(), "question");
    Run(req);
    EXPECT_EQ("the answer", Body(req));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(ResponseTransfer, WithoutHeaderLinesBeginsWithTheStatusLine)
{
    fixture::LoopbackServer server(fixture::Reply("the answer"));
    HNvrHttpCurlCltReq req = Create();
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqUri(req, server.Url().c_str()));
    ASSERT_EQ(0U, NvrHttpCurlCltSetReqBody(req, "question", 8));
    Run(req);
    EXPECT_EQ(fixture::Reply("the answer"), Body(req));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(ResponseTransfer, OfNoByteHasLengthZero)
{
    fixture::LoopbackServer server(fixture::Reply(""));
    HNvrHttpCurlCltReq req = CreatePrepared(server.Url(), "question");
    Run(req);
    uint32_t size = 7;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespBodyLen(req, &size));
    EXPECT_EQ(0U, size);
    EXPECT_EQ("", Body(req));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(ResponseTransfer, WithoutAnAnswerHasCodeZeroAndNoBody)
{
    const fixture::ClosedPort closed;
    HNvrHttpCurlCltReq req = CreatePrepared(closed.Url(), "question");
    Run(req);
    int32_t code = 5;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespStatCode(req, &code));
    EXPECT_EQ(0, code);
    char buffer[8];
    uint32_t size = 7;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBodyLen(req, &size));
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    NvrHttpCurlCltReqReset(req);
}

TEST_F(ResponseTransfer, EndsAtAFailedRealloc)
{
    fixture::LoopbackServer server(fixture::Reply("the answer"));
    HNvrHttpCurlCltReq req = CreatePrepared(server.Url(), "question");
    fake::FailRealloc(1);
    Run(req);
    EXPECT_EQ(1U, fixture::Count(L(kError, "_NvrHttpCurlCltProcSyncReq",
                                   "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n",
                                   static_cast<int>(CURLE_WRITE_ERROR), curl_easy_strerror(CURLE_WRITE_ERROR))));
    int32_t code = 0;
    EXPECT_EQ(0U, NvrHttpCurlCltGetRespStatCode(req, &code));
    EXPECT_EQ(200, code);
    char buffer[32];
    uint32_t size = 31;
    EXPECT_EQ(1U, NvrHttpCurlCltGetRespBody(req, buffer, &size));
    NvrHttpCurlCltReqReset(req);
    fake::FreeLostBlocks();
}

} // namespace
