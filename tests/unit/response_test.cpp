/* Responses: the write callback and the three getters. */
#include <cstring>
#include <tuple>
#include <utility>

#include "tests/support/engine_fixture.h"

namespace
{

using namespace test;
using namespace std::string_literals;

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

    /* The bytes so far with the terminator behind them. */
    std::string Held() const
    {
        return {mem.pchData, mem.qwSize + 1};
    }

    TNvrHttpCurlCltMem mem = {};
};

TEST_F(ResponseWrite, NeedsABufferThatCanGrow)
{
    const Lines refused = {Error(FUNC, "[Error] Invalid value{mem or mem->pfRealloc}.\n")};
    char byte = 'x';
    EXPECT_EQ(_HttpCurlStackWriteCB(&byte, 1, 1, nullptr), 0U);
    ExpectLines(refused);
    mem.pfRealloc = nullptr;
    const char *before = mem.pchData;
    EXPECT_EQ(Write("x"), 0U);
    EXPECT_EQ(mem.pchData, before);
    EXPECT_EQ(Held(), "\0"s);
    ExpectLines(refused);
}

TEST_F(ResponseWrite, AppendsAndTerminates)
{
    EXPECT_EQ(Write("hello"), 5U);
    EXPECT_EQ(Held(), "hello\0"s);
    EXPECT_EQ(Write("a\0b"s), 3U);
    EXPECT_EQ(Held(), "helloa\0b\0"s);
    EXPECT_EQ(Write(""), 0U);
    EXPECT_EQ(Held(), "helloa\0b\0"s);
    ExpectLines({});
}

TEST_F(ResponseWrite, TakesSizeTimesCount)
{
    char bytes[] = "abcdefgh";
    EXPECT_EQ(_HttpCurlStackWriteCB(bytes, 2, 3, &mem), 6U);
    EXPECT_EQ(Held(), "abcdef\0"s);
}

TEST_F(ResponseWrite, GrowsToTheExactSizeOncePerCall)
{
    mem.pfRealloc = MovingRealloc;
    size_t size = 0;
    for (const std::string chunk : {"ab", "c", "defg"}) {
        const void *block = mem.pchData;
        grown.clear();
        EXPECT_EQ(Write(chunk), chunk.size());
        size += chunk.size();
        ASSERT_EQ(grown.size(), 1U);
        EXPECT_EQ(grown[0].from, block);
        EXPECT_EQ(grown[0].size, size + 1);
    }
    EXPECT_EQ(Held(), "abcdefg\0"s);
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

/* What a getter returned, and the number that it was given the address of, which was 5 before. */
using Got = std::pair<uint32_t, uint32_t>;
/* The same of the body's getter, and the bytes that it wrote. */
using GotBody = std::tuple<uint32_t, uint32_t, std::string>;

/* Libcurl's answer to the question for the status; a code below 0 is not written. */
void Answer(long code, CURLcode result = CURLE_OK)
{
    hooks::easy_getinfo = [=](CURL *, CURLINFO info, void *value) {
        EXPECT_EQ(info, CURLINFO_RESPONSE_CODE);
        *static_cast<long *>(value) = code < 0 ? *static_cast<long *>(value) : code;
        return result;
    };
}

const char CODE[] = "NvrHttpCurlCltGetRespStatCode";
const char LENGTH[] = "NvrHttpCurlCltGetRespBodyLen";
const char BODY[] = "NvrHttpCurlCltGetRespBody";

Line NoCode(const char *func)
{
    return Error(func, "[Error] no server response code has been received.\n");
}

Got Code(HNvrHttpCurlCltReq req)
{
    int32_t code = 5;
    const uint32_t result = NvrHttpCurlCltGetRespStatCode(req, &code);
    return {result, code};
}

Got Length(HNvrHttpCurlCltReq req)
{
    uint32_t size = 5;
    const uint32_t result = NvrHttpCurlCltGetRespBodyLen(req, &size);
    return {result, size};
}

GotBody Body(HNvrHttpCurlCltReq req, uint32_t size = 5)
{
    std::string buffer(32, '#');
    const uint32_t result = NvrHttpCurlCltGetRespBody(req, buffer.data(), &size);
    return {result, size, buffer.substr(0, buffer.find_last_not_of('#') + 1)};
}

/* A prepared request. */
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

    void Receive(std::string bytes)
    {
        ASSERT_EQ(_HttpCurlStackWriteCB(bytes.data(), 1, bytes.size(), req->ptRespData), bytes.size());
    }

    /* An answer with one more byte, for which there is no memory. */
    void LoseAnswer()
    {
        Answer(200);
        fake::FailRealloc(1);
        char byte = 'x';
        ASSERT_EQ(_HttpCurlStackWriteCB(&byte, 1, 1, req->ptRespData), 0U);
    }

    HNvrHttpCurlCltReq req = nullptr;
};

using ResponseCode = Response;
using ResponseLength = Response;
using ResponseBody = Response;

TEST_F(ResponseCode, IsTheLowHalfOfALong)
{
    Answer(404);
    EXPECT_EQ(Code(req), Got(0, 404));
    Answer(0x5000000C8L);
    EXPECT_EQ(Code(req), Got(0, 200));
    ExpectLines({});
}

TEST_F(ResponseCode, IsZeroWithSuccessWhereNoneCame)
{
    EXPECT_EQ(Code(req), Got(0, 0));
    Answer(-1);
    EXPECT_EQ(Code(req), Got(0, 0));
}

TEST_F(ResponseCode, IsLeftAloneIfLibcurlDoesNotGiveIt)
{
    Answer(200, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(Code(req), Got(1, 5));
    ExpectLines({Error(CODE, "[Error] curl_easy_getinfo{CURLINFO_RESPONSE_CODE} failed{%d}\n",
                       static_cast<int>(CURLE_UNKNOWN_OPTION))});
}

/* A getter of a number, without each of its arguments. */
template <typename TNumber>
void ExpectArgumentsNeeded(ENvrHttpCurlCltRet (*get)(HNvrHttpCurlCltReq, TNumber *), HNvrHttpCurlCltReq req,
                           Line (*expected)(const void *req, const void *easy, const void *number))
{
    TNvrHttpCurlCltReqInner noHandle = {};
    TNumber number = 5;
    const std::pair<HNvrHttpCurlCltReq, TNumber *> cases[] = {{nullptr, &number}, {&noHandle, &number}, {req, nullptr}};
    for (const auto &[given, result] : cases) {
        EXPECT_EQ(get(given, result), 4U);
        ExpectLines({expected(given, given != nullptr ? given->ptReq : nullptr, result)});
    }
    EXPECT_EQ(number, TNumber{5});
    EXPECT_EQ(hooks::Calls("curl_easy_getinfo"), 0U);
}

TEST_F(Response, NumbersNeedTheirArguments)
{
    ExpectArgumentsNeeded(
        NvrHttpCurlCltGetRespStatCode, req, [](const void *given, const void *easy, const void *code) {
            return Error(CODE, "[Error] invalid arg, ptReqIn %p, ptReq %p, pnCode %p\n", given, easy, code);
        });
    ExpectArgumentsNeeded(NvrHttpCurlCltGetRespBodyLen, req, [](const void *given, const void *easy, const void *size) {
        return Error(LENGTH, "[Error] invalid arg, ptReqIn %p, ptReq %p, pdwBufSize %p\n", given, easy, size);
    });
}

TEST_F(ResponseBody, NeedsItsArguments)
{
    Answer(200);
    Receive("abc");
    TNvrHttpCurlCltReqInner noHandle = {};
    std::string buffer(32, '#');
    uint32_t size = 5;
    uint32_t zero = 0; /* never too small, though there are three bytes */
    const auto expectRefused = [](HNvrHttpCurlCltReq hReq, char *out, uint32_t *outSize) {
        EXPECT_EQ(NvrHttpCurlCltGetRespBody(hReq, out, outSize), 4U);
        ExpectLines({Error(
            BODY, "[Error] invalid arg, ptReqIn %p, ptReq %p, szBodyBuf %p, pdwBufSize %p, *pdwBufSize %u\n", Ptr(hReq),
            Ptr(hReq != nullptr ? hReq->ptReq : nullptr), Ptr(out), Ptr(outSize), outSize != nullptr ? *outSize : 0)});
    };
    expectRefused(nullptr, buffer.data(), &size);
    expectRefused(&noHandle, buffer.data(), &size);
    expectRefused(req, nullptr, &size);
    expectRefused(req, buffer.data(), nullptr);
    expectRefused(req, buffer.data(), &zero);
    EXPECT_EQ(size, 5U);
    EXPECT_EQ(zero, 0U);
    EXPECT_EQ(buffer, std::string(32, '#'));
}

TEST_F(Response, NeedsAnAnswerThoughBytesCame)
{
    Receive("some");
    EXPECT_EQ(Length(req), Got(1, 5));
    EXPECT_EQ(Body(req), GotBody(1, 5, ""));
    ExpectLines({NoCode(LENGTH), NoCode(BODY)});
}

TEST_F(Response, GoesByTheCodeAndNotByTheQuerysResult)
{
    Receive("some");
    Answer(200, CURLE_UNKNOWN_OPTION);
    EXPECT_EQ(Length(req), Got(0, 4));
    EXPECT_EQ(Body(req), GotBody(0, 4, "some\0"s));
    Answer(-1);
    EXPECT_EQ(Length(req), Got(1, 5));
    EXPECT_EQ(Body(req), GotBody(1, 5, ""));
}

TEST_F(Response, NeedsAResponseRecord)
{
    HNvrHttpCurlCltReq bare = Create();
    Answer(200);
    EXPECT_EQ(Length(bare), Got(1, 5));
    EXPECT_EQ(Body(bare), GotBody(1, 5, ""));
    ExpectLines(
        {Error(LENGTH, "[Error] ptReqIn->ptRespData is NULL.\n"), Error(BODY, "[Error] ptRespData is Invalid.\n")});
    hooks::easy_getinfo = nullptr;
    EXPECT_EQ(Length(bare), Got(1, 5));
    EXPECT_EQ(Body(bare), GotBody(1, 5, ""));
    ExpectLines({NoCode(LENGTH), NoCode(BODY)});
    NvrHttpCurlCltReqReset(bare);
}

TEST_F(ResponseLength, IsTheLowHalfWithoutTheTerminator)
{
    Answer(200);
    EXPECT_EQ(Length(req), Got(0, 0));
    Receive("abc");
    EXPECT_EQ(Length(req), Got(0, 3));
    ExpectLines({});
    req->ptRespData->qwSize = 0x700000009ULL;
    EXPECT_EQ(Length(req), Got(0, 9));
    req->ptRespData->qwSize = 3;
}

TEST_F(ResponseBody, OneByteTooLongCopiesNothingAndReturnsTheLength)
{
    Answer(200);
    Receive("abcdef");
    EXPECT_EQ(Body(req), GotBody(7, 6, ""));
    ExpectLines({Error(BODY, "[Error] nBodyLen %d, *pdwBufSize %u\n", 6, 5U)});
    EXPECT_EQ(Body(req, 6), GotBody(0, 6, "abcdef\0"s));
}

TEST_F(ResponseBody, ComparesAllOfTheLength)
{
    Answer(200);
    req->ptRespData->qwSize = 0x700000002ULL;
    EXPECT_EQ(Body(req), GotBody(7, 2, ""));
    ExpectLines({Error(BODY, "[Error] nBodyLen %d, *pdwBufSize %u\n", 2, 5U)});
    req->ptRespData->qwSize = 0;
}

TEST_F(ResponseBody, IsCopiedWithATerminatorBehindItAndStaysThere)
{
    Answer(200);
    EXPECT_EQ(Body(req, 1), GotBody(0, 0, "\0"s));
    Receive("ab\0de"s);
    EXPECT_EQ(Body(req, 5), GotBody(0, 5, "ab\0de\0"s)) << "exactly the size";
    EXPECT_EQ(Body(req, 31), GotBody(0, 5, "ab\0de\0"s));
    ExpectLines({});
}

TEST_F(ResponseBody, LostInAFailedReallocIsAFailureWhateverTheSize)
{
    Receive("abcdef");
    LoseAnswer();
    for (const uint32_t size : {3U, 6U, 20U}) {
        const auto [result, after, bytes] = Body(req, size);
        EXPECT_EQ(result, 1U) << size;
        EXPECT_EQ(bytes, "") << size;
    }
    EXPECT_EQ(Length(req), Got(0, 6));
}

TEST_F(ResponseBody, LostBeforeItsFirstByteIsAFailureToo)
{
    LoseAnswer();
    const auto [result, after, bytes] = Body(req, 10);
    EXPECT_EQ(result, 1U);
    EXPECT_EQ(bytes, "");
}

/* --- real transfers ---------------------------------------------------------------------------------- */

/* An instance whose requests are prepared and sent. */
class ResponseTransfer : public EngineTest
{
  protected:
    void SetUp() override
    {
        Start(0, 0);
    }

    void TearDown() override
    {
        NvrHttpCurlCltReqReset(req);
        fake::FreeLostBlocks();
        EngineTest::TearDown();
    }

    void Run(HNvrHttpCurlCltReq request)
    {
        req = request;
        Forget();
        EXPECT_EQ(NvrHttpCurlCltProcessReq(req, 20000, 20000, NVRHTTPCURLCLT_MODE_SYNC, nullptr, nullptr), 0U);
    }

    std::string ReadBody() const
    {
        char buffer[4096];
        uint32_t size = sizeof(buffer) - 1;
        EXPECT_EQ(NvrHttpCurlCltGetRespBody(req, buffer, &size), 0U) << fake::Transcript();
        return std::string(buffer, size);
    }

    HNvrHttpCurlCltReq req = nullptr;
};

TEST_F(ResponseTransfer, WithHeaderLinesIsTheBodyAlone)
{
    ScriptedServer server(Answering("the answer"));
    Run(CreatePrepared(server.Url(), "question"));
    EXPECT_EQ(ReadBody(), "the answer");
}

TEST_F(ResponseTransfer, WithoutHeaderLinesBeginsWithTheStatusLine)
{
    ScriptedServer server(Answering("the answer"));
    HNvrHttpCurlCltReq bare = Create();
    ASSERT_EQ(NvrHttpCurlCltSetReqUri(bare, server.Url().c_str()), 0U);
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(bare, "question", 8), 0U);
    Run(bare);
    EXPECT_EQ(ReadBody(), Reply(200, "the answer"));
}

TEST_F(ResponseTransfer, OfNoByteHasLengthZero)
{
    ScriptedServer server(Answering(""));
    Run(CreatePrepared(server.Url(), "question"));
    EXPECT_EQ(Length(req), Got(0, 0));
    EXPECT_EQ(ReadBody(), "");
}

TEST_F(ResponseTransfer, WithoutAnAnswerHasCodeZeroAndNoBody)
{
    const ClosedPort closed;
    Run(CreatePrepared(closed.Url(), "question"));
    EXPECT_EQ(Code(req), Got(0, 0));
    EXPECT_EQ(Length(req), Got(1, 5));
    EXPECT_EQ(Body(req), GotBody(1, 5, ""));
}

TEST_F(ResponseTransfer, EndsAtAFailedRealloc)
{
    ScriptedServer server(Answering("the answer"));
    HNvrHttpCurlCltReq prepared = CreatePrepared(server.Url(), "question");
    fake::FailRealloc(1);
    Run(prepared);
    ExpectLine(Error("_NvrHttpCurlCltProcSyncReq", "[Error] curl_easy_perform is failed{ErrorCode:%d} {ErrorStr:%s}\n",
                     static_cast<int>(CURLE_WRITE_ERROR), curl_easy_strerror(CURLE_WRITE_ERROR)));
    EXPECT_EQ(Code(req), Got(0, 200));
    EXPECT_EQ(std::get<0>(Body(req, 31)), 1U);
}

} // namespace
