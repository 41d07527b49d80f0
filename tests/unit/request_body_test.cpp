/*
 * Request objects: the body.
 */
#include "tests/support/request_fixture.h"

namespace
{

using namespace test;

const char FUNC[] = "NvrHttpCurlCltSetReqBody";

Line EmptyBody(const char *body)
{
    return Info(FUNC, " dwSize %d, szBody %p\n", 0, Ptr(body));
}

class RequestBody : public OneRequestTest
{
  protected:
    /* The request anew, on the dirty heap; the blocks asked for are those from now on. */
    void CreateOnDirtyHeap()
    {
        NvrHttpCurlCltReqReset(req);
        UseDirtyHeap();
        req = Create();
        asked.clear();
    }

    void ExpectOptions(CURLoption first)
    {
        EXPECT_EQ(hooks::OptionOrder(), (Order{first, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE, CURLOPT_WRITEFUNCTION,
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

    void ExpectBody(const std::string &body)
    {
        ASSERT_NE(req->ptReqBody, nullptr);
        EXPECT_EQ(req->ptReqBody->qwSize, body.size());
        EXPECT_EQ(req->ptReqBody->pchData == nullptr, body.empty());
        EXPECT_EQ(std::string(req->ptReqBody->pchData, body.size()), body);
        EXPECT_EQ(req->ptReqBody->pfRealloc, nullptr);
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

/* --- settings --------------------------------------------------------------------------------- */

TEST_F(RequestBody, NeedsTheRecordsThreeCallbacks)
{
    const TNvrHttpCurlCltReqInner all = *req;
    const size_t blocks = fake::BlocksAlive();
    for (int missing = 0; missing < 3; ++missing) {
        req->pfMalloc = missing == 0 ? nullptr : all.pfMalloc;
        req->pfRealloc = missing == 1 ? nullptr : all.pfRealloc;
        req->pfFree = missing == 2 ? nullptr : all.pfFree;
        EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 4U);
        ExpectLines({Error(FUNC, "[Error] pfRealloc %p, pfRealloc %p, pfFree %p\n", Ptr(req->pfMalloc),
                           Ptr(req->pfRealloc), Ptr(req->pfFree))});
        EXPECT_EQ(req->ptReqBody, nullptr);
        EXPECT_EQ(req->ptRespData, nullptr);
    }
    EXPECT_EQ(hooks::Options().size(), 0U);
    EXPECT_EQ(hooks::Calls("curl_slist_append"), 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocks);
    *req = all;
}

TEST_F(RequestBody, CopiesTheBytesAndAsksForExactlyWhatItNeeds)
{
    const size_t record = sizeof(TNvrHttpCurlCltMem);
    CreateOnDirtyHeap();
    std::string body("a\0b\0 and more", 13);
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, body.data(), 4), 0U);
    body[0] = 'x';
    EXPECT_EQ(asked, (std::vector<size_t>{record, record, 4, 1}));
    ExpectBody(std::string("a\0b\0", 4));
    ExpectEmptyResponse();
    ExpectLines({});
}

TEST_F(RequestBody, WithoutTextOrSizeIsEmpty)
{
    const size_t record = sizeof(TNvrHttpCurlCltMem);
    for (const char *text : {"hello", static_cast<const char *>(nullptr)}) {
        CreateOnDirtyHeap();
        EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, text, 0), 0U);
        ExpectLines({EmptyBody(text)});
        EXPECT_EQ(asked, (std::vector<size_t>{record, record, 1}));
        ExpectBody("");
        ExpectEmptyResponse();
        ExpectOptions(CURLOPT_HEADER);
    }
}

TEST_F(RequestBody, AsksForTheAnswersHeadersUnlessItHandsHeaderLinesOver)
{
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    ExpectOptions(CURLOPT_HEADER);
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
    Forget();
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    ExpectOptions(CURLOPT_HTTPHEADER);
}

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
    ExpectBody("the second");
    ExpectEmptyResponse();
    ExpectOptions(CURLOPT_HEADER);
    ExpectLines({});
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, nullptr, 0), 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocks - 1) << "an empty one releases it too";
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "fourth", 6), 0U);
    EXPECT_EQ(fake::BlocksAlive(), blocks);
}

/* --- refused options and exhausted memory ----------------------------------------------------- */

TEST_F(RequestBody, ARefusedOptionIsLoggedAndTheRestIsSet)
{
    for (const CURLoption option : {CURLOPT_HEADER, CURLOPT_POSTFIELDS, CURLOPT_POSTFIELDSIZE, CURLOPT_WRITEFUNCTION,
                                    CURLOPT_WRITEDATA, CURLOPT_VERBOSE, CURLOPT_NOSIGNAL, CURLOPT_HTTPHEADER}) {
        SCOPED_TRACE(option);
        if (option == CURLOPT_HTTPHEADER) {
            EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
        }
        Forget();
        hooks::RefuseOption(option, CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
        ExpectLines({SetoptFault(FUNC, CURLE_UNKNOWN_OPTION)});
        ExpectOptions(option == CURLOPT_HTTPHEADER ? CURLOPT_HTTPHEADER : CURLOPT_HEADER);
        ExpectEmptyResponse();
        hooks::RefuseOption(option, CURLE_OK);
    }
}

TEST_F(RequestBody, AllOptionsRefusedIsNoFailureEither)
{
    hooks::easy_setopt = [](CURL *, CURLoption, void *) { return CURLE_OUT_OF_MEMORY; };
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "hello", 5), 0U);
    ExpectLines(Lines(7, SetoptFault(FUNC, CURLE_OUT_OF_MEMORY)));
    ExpectOptions(CURLOPT_HEADER);
}

TEST_F(RequestBody, WithoutMemoryAFirstCallLeavesNothingBehind)
{
    const size_t blocks = fake::BlocksAlive();
    for (const std::string body : {"hello", ""}) {
        for (unsigned nth = 1; nth <= (body.empty() ? 3U : 4U); ++nth) {
            SCOPED_TRACE(body + std::to_string(nth));
            Forget();
            fake::FailMalloc(nth);
            EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, body.data(), static_cast<uint32_t>(body.size())), 5U);
            const Line failed = Error(FUNC, "[Error] malloc failed\n");
            ExpectLines(body.empty() && nth == 3 ? Lines{EmptyBody(body.data()), failed} : Lines{failed});
            EXPECT_EQ(req->ptReqBody, nullptr);
            EXPECT_EQ(req->ptRespData, nullptr);
            EXPECT_EQ(fake::BlocksAlive(), blocks);
            EXPECT_EQ(hooks::Options().size(), 0U);
        }
    }
}

TEST_F(RequestBody, WithoutMemoryASecondCallKeepsTheFirstInForce)
{
    ASSERT_EQ(NvrHttpCurlCltSetReqBody(req, "first", 5), 0U);
    Forget();
    const TNvrHttpCurlCltReqInner before = *req;
    const TNvrHttpCurlCltMem body = *req->ptReqBody;
    const TNvrHttpCurlCltMem resp = *req->ptRespData;
    const size_t blocks = fake::BlocksAlive();
    for (unsigned nth = 1; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        fake::FailMalloc(nth);
        EXPECT_EQ(NvrHttpCurlCltSetReqBody(req, "other", 5), 5U);
        ExpectLines({Error(FUNC, "[Error] malloc failed\n")});
        ASSERT_EQ(req->ptReqBody, before.ptReqBody);
        ASSERT_EQ(req->ptRespData, before.ptRespData);
        EXPECT_EQ(memcmp(&body, req->ptReqBody, sizeof(body)), 0);
        EXPECT_EQ(memcmp(&resp, req->ptRespData, sizeof(resp)), 0);
        ExpectBody("first");
        EXPECT_EQ(fake::BlocksAlive(), blocks);
    }
    EXPECT_EQ(hooks::Options().size(), 0U);
}

} // namespace
