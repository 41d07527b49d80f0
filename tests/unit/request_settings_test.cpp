/*
 * Request objects: the setters but the body's.
 */
#include "tests/support/request_fixture.h"

namespace
{

using namespace test;

/* --- invalid arguments of all setters --------------------------------------------------------- */

/* A call that is refused. */
struct Call {
    std::function<uint32_t(HNvrHttpCurlCltReq)> make;
    Line tail; /* of the line about it, after the request and its easy handle */
};

Call Uri(const char *uri)
{
    return {[=](HNvrHttpCurlCltReq req) { return NvrHttpCurlCltSetReqUri(req, uri); },
            Error("NvrHttpCurlCltSetReqUri", ", szUri %p\n", Ptr(uri))};
}

Call Method(const char *method)
{
    return {[=](HNvrHttpCurlCltReq req) { return NvrHttpCurlCltSetReqMethod(req, method); },
            Error("NvrHttpCurlCltSetReqMethod", ", szMethod %p\n", Ptr(method))};
}

Call Auth(uint32_t on, const char *user)
{
    return {[=](HNvrHttpCurlCltReq req) { return NvrHttpCurlCltSetAuthType(req, on, user); },
            Error("NvrHttpCurlCltSetAuthType", ", pchUserAndPassWd %p\n", Ptr(user))};
}

Call Header(const char *name, const char *value)
{
    return {[=](HNvrHttpCurlCltReq req) { return NvrHttpCurlCltSetReqHeader(req, name, value); },
            Error("NvrHttpCurlCltSetReqHeader", ", szName %p{%s}, szValue %p{%s}\n", Ptr(name),
                  name != nullptr ? name : "", Ptr(value), value != nullptr ? value : "")};
}

Call Body(const char *body, uint32_t size)
{
    return {[=](HNvrHttpCurlCltReq req) { return NvrHttpCurlCltSetReqBody(req, body, size); },
            Error("NvrHttpCurlCltSetReqBody", ", dwSize %u, szBody %p\n", size, Ptr(body))};
}

Call Reset()
{
    return {NvrHttpCurlCltReqReset, Error("NvrHttpCurlCltReqReset", "\n")};
}

class RequestArguments : public RequestTest
{
  protected:
    /* One error line, the result 4, and nothing else that happened. */
    void ExpectRefused(const Call &call, HNvrHttpCurlCltReq req)
    {
        const char opening[] = "[Error] invalid arg, ptReqIn %p, ptReq %p";
        Line line = call.tail;
        line.format = opening + line.format;
        line.text = Text(opening, Ptr(req), Ptr(req != nullptr ? req->ptReq : nullptr)) + line.text;
        const size_t blocks = fake::BlocksAlive();
        EXPECT_EQ(call.make(req), 4U);
        ExpectLines({line});
        EXPECT_EQ(hooks::Options().size(), 0U);
        EXPECT_EQ(fake::BlocksAlive(), blocks);
        EXPECT_EQ(hooks::Calls("curl_slist_append"), 0U);
    }
};

TEST_F(RequestArguments, WithoutTheRequestOrItsHandle)
{
    TNvrHttpCurlCltReqInner noHandle = {};
    noHandle.ptInstance = inst;
    for (const Call &call : {Uri("http://127.0.0.1/"), Method("POST"), Auth(0, "user:password"),
                             Auth(1, "user:password"), Header("A", "1"), Body("hello", 5), Reset()}) {
        ExpectRefused(call, nullptr);
        ExpectRefused(call, &noHandle);
    }
    EXPECT_EQ(fake::Frees(), 0U);
}

TEST_F(RequestArguments, WithoutATextOrWithAnEmptyHeader)
{
    HNvrHttpCurlCltReq req = Create();
    for (const Call &call :
         {Uri(nullptr), Method(nullptr), Auth(0, nullptr), Auth(1, nullptr), Header(nullptr, "1"), Header("A", nullptr),
          Header("", "1"), Header("A", ""), Body(nullptr, 5), Body(nullptr, 0xFFFFFFFFU)}) {
        ExpectRefused(call, req);
    }
    EXPECT_EQ(req->ptHeaderList, nullptr);
    EXPECT_EQ(req->ptReqBody, nullptr);
    EXPECT_EQ(req->ptRespData, nullptr);
    NvrHttpCurlCltReqReset(req);
}

/* --- the URI ---------------------------------------------------------------------------------- */

class RequestUri : public OneRequestTest
{
  protected:
    /* The line about the URI comes first in any case. */
    void ExpectSet(const char *uri, uint32_t result, const Lines &lines, const Order &options)
    {
        Forget();
        EXPECT_EQ(NvrHttpCurlCltSetReqUri(req, uri), result);
        ExpectLines(Lines{Info(FUNC, " szUri:{%s}\n", uri)} + lines);
        EXPECT_EQ(hooks::OptionOrder(), options);
        EXPECT_EQ(hooks::Options()[0].text, uri);
        for (const hooks::Option &option : hooks::Options()) {
            EXPECT_EQ(option.easy, req->ptReq);
            EXPECT_EQ(option.value == 0, option.option != CURLOPT_URL);
        }
    }

    static constexpr const char *FUNC = "NvrHttpCurlCltSetReqUri";
    const Order URL_ONLY = {CURLOPT_URL};
    const Order UNVERIFIED = {CURLOPT_URL, CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CAINFO};
    const Line unverified = Info(FUNC, " setopt CURLOPT_SSL_VERIFYPEER | CURLOPT_SSL_VERIFYHOST\n");
    const Line failed = Info(FUNC, " set req uri failed.\n");
};

TEST_F(RequestUri, TheLettersHttpsAnywhereTurnVerificationOff)
{
    for (const char *uri : {"https://127.0.0.1/", "http://127.0.0.1/go/https"}) {
        ExpectSet(uri, 0, {unverified}, UNVERIFIED);
    }
    for (const char *uri : {"http://127.0.0.1:8080/path?query=%41", "", "HTTPS://127.0.0.1/", "Https://127.0.0.1/"}) {
        ExpectSet(uri, 0, {}, URL_ONLY);
    }
}

TEST_F(RequestUri, ARefusedUrlFailsUnlessItIsHttps)
{
    const Line fault = SetoptFault(FUNC, CURLE_OUT_OF_MEMORY);
    hooks::RefuseOption(CURLOPT_URL, CURLE_OUT_OF_MEMORY);
    ExpectSet("http://127.0.0.1/", 1, {fault, failed}, URL_ONLY);
    ExpectSet("https://127.0.0.1/", 0, {fault, unverified}, UNVERIFIED);
}

TEST_F(RequestUri, OfTheVerificationOptionsARefusedCaInfoFails)
{
    const Line noPeer = SetoptFault(FUNC, CURLE_NOT_BUILT_IN);
    const Line noHost = SetoptFault(FUNC, CURLE_UNKNOWN_OPTION);
    hooks::RefuseOption(CURLOPT_SSL_VERIFYPEER, CURLE_NOT_BUILT_IN);
    hooks::RefuseOption(CURLOPT_SSL_VERIFYHOST, CURLE_UNKNOWN_OPTION);
    ExpectSet("https://127.0.0.1/", 0, {noPeer, noHost, unverified}, UNVERIFIED);
    hooks::RefuseOption(CURLOPT_CAINFO, CURLE_BAD_FUNCTION_ARGUMENT);
    ExpectSet("https://127.0.0.1/", 1,
              {noPeer, noHost, SetoptFault(FUNC, CURLE_BAD_FUNCTION_ARGUMENT), unverified, failed}, UNVERIFIED);
}

/* --- the method ------------------------------------------------------------------------------- */

class RequestMethod : public OneRequestTest
{
  protected:
    static constexpr const char *FUNC = "NvrHttpCurlCltSetReqMethod";
};

TEST_F(RequestMethod, SetsItsOptionAndFailsIfItIsRefused)
{
    const struct {
        const char *method;
        CURLoption option;
    } cases[] = {{"POST", CURLOPT_POST},   {"post", CURLOPT_POST},     {"GET", CURLOPT_HTTPGET},
                 {"Get", CURLOPT_HTTPGET}, {"PUT", hooks::OPTION_PUT}, {"pUT", hooks::OPTION_PUT}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.method);
        Forget();
        EXPECT_EQ(NvrHttpCurlCltSetReqMethod(req, each.method), 0U);
        ASSERT_EQ(hooks::OptionOrder(), Order{each.option});
        EXPECT_EQ(hooks::Options()[0].value, 1U);
        EXPECT_EQ(hooks::Options()[0].easy, req->ptReq);
        ExpectLines({});
        hooks::RefuseOption(each.option, CURLE_UNKNOWN_OPTION);
        EXPECT_EQ(NvrHttpCurlCltSetReqMethod(req, each.method), 1U);
        ExpectLines(
            {SetoptFault(FUNC, CURLE_UNKNOWN_OPTION), Error(FUNC, "[Error] Set Req Method{%s} failed\n", each.method)});
        hooks::RefuseOption(each.option, CURLE_OK);
    }
}

TEST_F(RequestMethod, OfAnotherNameIsRefusedAndSetsNothing)
{
    for (const char *method : {"DELETE", "HEAD", "PATCH", "POSTS", "PU", ""}) {
        EXPECT_EQ(NvrHttpCurlCltSetReqMethod(req, method), 4U) << method;
        ExpectLines({Error(FUNC, "[Error] unknown method {%s}\n", method)});
    }
    EXPECT_EQ(hooks::Options().size(), 0U);
}

/* --- authentication --------------------------------------------------------------------------- */

class RequestAuth : public OneRequestTest
{
  protected:
    static constexpr const char *FUNC = "NvrHttpCurlCltSetAuthType";
    const Order AUTH_OPTIONS = {CURLOPT_USERPWD, CURLOPT_HTTPAUTH};
};

TEST_F(RequestAuth, OffSetsNothing)
{
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 0, ""), 0U);
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 0, "user:password"), 0U);
    EXPECT_EQ(hooks::Options().size(), 0U);
    ExpectLines({});
}

TEST_F(RequestAuth, AnyNonzeroValueSetsUserThenAnyScheme)
{
    for (const uint32_t on : {1U, 0x80000000U}) {
        Forget();
        EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, on, "user:password"), 0U);
        ASSERT_EQ(hooks::OptionOrder(), AUTH_OPTIONS);
        EXPECT_EQ(hooks::Options()[0].text, "user:password");
        EXPECT_EQ(hooks::Options()[1].value, static_cast<uintptr_t>(CURLAUTH_ANY));
        ExpectLines({});
    }
}

TEST_F(RequestAuth, ARefusedUserIsOnlyLoggedRefusedSchemesFailAndShowThePassword)
{
    const Line noUser = SetoptFault(FUNC, CURLE_OUT_OF_MEMORY);
    hooks::RefuseOption(CURLOPT_USERPWD, CURLE_OUT_OF_MEMORY);
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 1, "user:password"), 0U);
    ExpectLines({noUser});
    EXPECT_EQ(hooks::OptionOrder(), AUTH_OPTIONS);
    Forget();
    hooks::RefuseOption(CURLOPT_HTTPAUTH, CURLE_NOT_BUILT_IN);
    EXPECT_EQ(NvrHttpCurlCltSetAuthType(req, 3, "user:password"), 1U);
    ExpectLines(
        {noUser, SetoptFault(FUNC, CURLE_NOT_BUILT_IN),
         Error(FUNC, "[Error] Set Req AuthType bCurlAuth{%d} pchUserAndPassWd{%s} failed\n", 3, "user:password")});
    EXPECT_EQ(hooks::OptionOrder(), AUTH_OPTIONS);
}

/* --- header lines ----------------------------------------------------------------------------- */

class RequestHeader : public OneRequestTest
{
  protected:
    static constexpr const char *FUNC = "NvrHttpCurlCltSetReqHeader";
};

TEST_F(RequestHeader, EachCallAddsItsLineOfAtMost127CharactersAndAnEmptyExpect)
{
    const std::string fits(125, 'v');
    const std::string longName(300, 'n');
    const struct {
        std::string name;
        std::string value;
        std::string line;
    } cases[] = {{"Content-Type", "a/b; q=%s", "Content-Type:a/b; q=%s"},
                 {"N", fits, "N:" + fits},
                 {"N", fits + "v", "N:" + fits},
                 {longName, "v", longName.substr(0, 127)}};
    Texts expected;
    for (const auto &each : cases) {
        EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, each.name.c_str(), each.value.c_str()), 0U);
        ExpectLines({Info(FUNC, " %s\n", each.line.c_str())});
        expected.insert(expected.end(), {each.line, "Expect:"});
        EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), expected);
    }
    EXPECT_EQ(hooks::Options().size(), 0U);
}

TEST_F(RequestHeader, AppendsBothLinesThoughTheFirstFailed)
{
    Texts lines;
    hooks::slist_append = [&](curl_slist *list, const char *line) -> curl_slist * {
        lines.push_back(line);
        return lines.size() == 1 ? nullptr : hooks::real::slist_append(list, line);
    };
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(req, "A", "1"), 0U);
    EXPECT_EQ(lines, (Texts{"A:1", "Expect:"}));
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), Texts{"Expect:"});
    ExpectLines({Info(FUNC, " %s\n", "A:1")});
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
    EXPECT_EQ(hooks::HeaderLines(req->ptHeaderList), (Texts{"C:3", "Expect:"}));
}

} // namespace
