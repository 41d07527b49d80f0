/*
 * What the client refuses: invalid requests, more requests than it may have, options out of range, and its construction
 * where the engine cannot be started.
 */
#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "client_fixture.h"
#include "tests/support/next.h"
#include "tests/support/process_state.h"

namespace
{

using nvrhttpcurl::Request;
using namespace test;

using ClientRefusal = ClientTest;

const std::string LONGEST_LINE(125, 'v'); /* of a header with a name of one letter */
constexpr milliseconds LONGEST_TIME = std::chrono::hours(24 * 24);

/* How a request differs from a good one. {SERVER} in its URL is the server's address and port. */
struct Change {
    const char *name;
    std::function<void(Request &)> change;
};

void PrintTo(const Change &change, std::ostream *out)
{
    *out << change.name;
}

Change Url(const char *name, const std::string &url)
{
    return {name, [url](Request &request) { request.url = url; }};
}

Change Header(const char *name, const std::string &header, const std::string &value)
{
    return {name, [header, value](Request &request) { request.headers = {{"A", "1"}, {header, value}}; }};
}

Change Method(const char *name, const std::string &method)
{
    return {name, [method](Request &request) { request.method = method; }};
}

Change Times(const char *name, milliseconds timeout, milliseconds connectTimeout)
{
    return {name, [timeout, connectTimeout](Request &request) {
                request.timeout = timeout;
                request.connect_timeout = connectTimeout;
            }};
}

Change Credentials(const char *name, const std::string &text)
{
    return {name, [text](Request &request) { request.user_and_password = text; }};
}

class Requests : public ClientTest, public testing::WithParamInterface<Change>
{
  protected:
    Request Changed() const
    {
        Request request = PostOf(server.Url());
        GetParam().change(request);
        const size_t at = request.url.find("{SERVER}");
        if (at != std::string::npos) {
            request.url.replace(at, 8, server.Url("").substr(7));
        }
        return request;
    }

    const ScriptedServer server{ECHOING};
    Client client{Limits(1)};
};

class Invalid : public Requests
{
};

TEST_P(Invalid, IsRefusedAtOnce)
{
    for (const bool verify : {true, false}) {
        Request request = Changed();
        request.verify = verify;
        std::future<Response> answer = client.send_async(request);
        ASSERT_TRUE(IsReady(answer));
        ExpectFailure(answer.get(), Error::invalid_argument);
        std::thread::id caller;
        client.send_async(request, [&caller](const Response &refusal) {
            ExpectFailure(refusal, Error::invalid_argument);
            caller = std::this_thread::get_id();
        });
        EXPECT_EQ(caller, std::this_thread::get_id());
    }
    EXPECT_EQ(client.outstanding(), 0U);
    ExpectAnswer(client.send(PostOf(server.Url())), "{}");
    EXPECT_EQ(server.RequestCount(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Invalid,
    testing::Values(
        Url("Empty", ""), Url("NoScheme", "{SERVER}/"), Url("SchemeAlone", "http:"), Url("OneSlash", "http:/{SERVER}/"),
        Url("NoHost", "http://"), Url("NoHostButAPath", "https:///{SERVER}/"), Url("NoHostButAQuery", "http://?a=1"),
        Url("NoHostButAUser", "http://user@/"), Url("Ftp", "ftp://{SERVER}/"), Url("File", "file:///dev/null"),
        Url("LongerScheme", "httpss://{SERVER}/"), Url("SchemeBehindOther", "xhttp://{SERVER}/"),
        Url("SchemeInThePath", "{SERVER}/http://a/"), Url("Blank", "http://{SERVER}/a b"),
        Url("BlankFirst", " http://{SERVER}/"), Url("BlankLast", "http://{SERVER}/ "), Url("Tab", "http://{SERVER}/\t"),
        Url("LineEnd", "http://{SERVER}/\r\nX-Other: 1"), Url("Nul", std::string("http://{SERVER}/\0a", 18)),
        Url("Delete", "http://{SERVER}/\x7f"), Url("HttpsInTheUser", "https://https@{SERVER}/"),
        Url("HttpsInThePassword", "http://user:xhttpsx@{SERVER}/"),
        Url("HttpsBeforeASecondAt", "https://a@https@{SERVER}/"), Method("Put", "PUT"), Method("Small", "post"),
        Method("NoMethod", ""), Method("LongerMethod", "GETS"), Method("NulInMethod", std::string("GET\0", 4)),
        Header("EmptyName", "", "1"), Header("ColonInName", "A:", "1"), Header("BlankInName", "A B", "1"),
        Header("TabInName", "A\t", "1"), Header("LineEndInName", "A\r\nB", "1"),
        Header("NulInName", std::string("A\0", 2), "1"), Header("EmptyValue", "A", ""),
        Header("BlankValue", "A", " \t "), Header("CrInValue", "A", "1\r2"), Header("LfInValue", "A", "1\n2"),
        Header("LineEndLast", "A", "1\r\n"), Header("NulInValue", "A", std::string("1\0", 2)),
        Header("LineTooLong", "A", LONGEST_LINE + "v"), Credentials("NulInCredentials", std::string("a:b\0c", 5)),
        Credentials("LineEndInCredentials", "a\r\nX-Other: 1"), Credentials("LineFeedInCredentials", "a:b\n"),
        Times("NoTime", milliseconds(0), milliseconds(1)), Times("LessThanNoTime", milliseconds(-1), milliseconds(1)),
        Times("TooMuchTime", LONGEST_TIME + milliseconds(1), milliseconds(1)),
        Times("MuchTooMuchTime", milliseconds::max(), milliseconds(1)),
        Times("NoConnectTime", milliseconds(1000), milliseconds(0)),
        Times("NegativeConnectTime", milliseconds(1000), milliseconds::min()),
        Times("TooMuchConnectTime", milliseconds(1000), LONGEST_TIME + milliseconds(1))),
    [](const auto &change) { return change.param.name; });

class Valid : public Requests
{
};

TEST_P(Valid, IsSent)
{
    ExpectAnswer(Await(client.send_async(Changed())), "{}");
    EXPECT_EQ(server.RequestCount(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Valid,
    testing::Values(Url("Plain", "http://{SERVER}"), Url("Capitals", "HTTP://{SERVER}/"),
                    Url("Mixed", "hTTp://{SERVER}/"), Url("User", "http://user:password@{SERVER}/"),
                    Url("CapitalsInTheUser", "http://HTTPS@{SERVER}/"), Url("HttpsInThePath", "http://{SERVER}/https/"),
                    Url("Query", "http://{SERVER}?https"), Url("Fragment", "http://{SERVER}/#https"),
                    Url("OtherBytes", "http://{SERVER}/\xc3\xa4"), Header("LongestLine", "A", LONGEST_LINE),
                    Header("BlanksAround", "A", " 1 "), Header("TabInValue", "A", "1\t2"),
                    Header("ControlInValue", "A", "\x01"), Header("SignsInName", "A_b-c;", "1"),
                    Credentials("NoPassword", "user"), Times("LongestTimes", LONGEST_TIME, LONGEST_TIME)),
    [](const auto &change) { return change.param.name; });

/* libcurl may refuse them for other reasons. */
TEST_F(ClientRefusal, TextsAreLimitedToWhatLibcurlTakes)
{
    constexpr size_t LONGEST = 8000000;
    const ClosedPort closed;
    Client client(Limits(1));
    const auto errorOf = [&](size_t urlLength, size_t credentialsLength) {
        Request request = PostOf(closed.Url());
        request.url.resize(urlLength, 'a');
        request.user_and_password.resize(credentialsLength, 'b');
        return client.send(request).error;
    };
    EXPECT_NE(errorOf(LONGEST, 0), Error::invalid_argument);
    EXPECT_EQ(errorOf(LONGEST + 1, 0), Error::invalid_argument);
    EXPECT_NE(errorOf(100, LONGEST), Error::invalid_argument);
    EXPECT_EQ(errorOf(100, LONGEST + 1), Error::invalid_argument);
}

/* --- the callback -------------------------------------------------------------------------------- */

TEST_F(ClientRefusal, WithAnEmptyCallbackNothingIsSent)
{
    const ScriptedServer server(ECHOING);
    Client client;
    client.send_async(PostOf(server.Url()), std::function<void(Response)>());
    client.send_async(PostOf(server.Url()), nullptr);
    EXPECT_EQ(client.outstanding(), 0U);
    ExpectAnswer(client.send(PostOf(server.Url())), "{}");
    EXPECT_EQ(server.RequestCount(), 1U);
}

/* --- the limit ----------------------------------------------------------------------------------- */

class Limit : public ClientTest, public testing::WithParamInterface<std::pair<unsigned, unsigned>>
{
};

TEST_P(Limit, IsReachedExactly)
{
    const auto [workers, limit] = GetParam();
    ASSERT_TRUE(AllowDescriptors(2 * limit + 200));
    ScriptedServer server(ECHOING_ON_RELEASE);
    Client client(Limits(workers, limit));
    std::vector<std::future<Response>> answers;
    for (unsigned number = 0; number < limit; ++number) {
        answers.push_back(client.send_async(PostOf(server.Url())));
        EXPECT_FALSE(IsReady(answers.back()));
    }
    EXPECT_EQ(client.outstanding(), limit);
    std::future<Response> refused = client.send_async(PostOf(server.Url()));
    ASSERT_TRUE(IsReady(refused));
    ExpectFailure(refused.get(), Error::limit_reached);
    std::thread::id caller;
    client.send_async(PostOf(server.Url()), [&caller](const Response &refusal) {
        ExpectFailure(refusal, Error::limit_reached);
        caller = std::this_thread::get_id();
    });
    EXPECT_EQ(caller, std::this_thread::get_id());
    EXPECT_EQ(client.outstanding(), limit);
    server.Release();
    for (std::future<Response> &answer : answers) {
        ExpectAnswer(Await(std::move(answer)), "{}");
    }
    EXPECT_EQ(client.outstanding(), 0U);
    ExpectAnswer(client.send(PostOf(server.Url())), "{}");
}

INSTANTIATE_TEST_SUITE_P(Cases, Limit,
                         testing::Values(std::pair(1U, 1U), std::pair(3U, 10U), std::pair(1U, 1000U),
                                         std::pair(2U, 2000U)),
                         [](const auto &limit) {
                             return std::to_string(limit.param.second) + "_With_" + std::to_string(limit.param.first);
                         });

/* --- the construction ---------------------------------------------------------------------------- */

TEST_F(ClientRefusal, OptionsOutOfRange)
{
    Options longest;
    longest.max_answer = size_t{1} << 30;
    EXPECT_NO_THROW(Client{longest});
    longest.max_answer += 1;
    EXPECT_THROW(Client{longest}, std::invalid_argument);
    longest.max_answer = 0;
    EXPECT_THROW(Client{longest}, std::invalid_argument);
    EXPECT_THROW(Client{Limits(0)}, std::invalid_argument);
    EXPECT_THROW(Client{Limits(17)}, std::invalid_argument);
    EXPECT_THROW(Client{Limits(1, 0)}, std::invalid_argument);
    EXPECT_THROW(Client{Limits(1, 1001)}, std::invalid_argument);
    EXPECT_THROW(Client{Limits(3, 3001)}, std::invalid_argument);
    EXPECT_NO_THROW(Client{Limits(3, 3000)});
    EXPECT_NO_THROW(Client{Limits(16, 1)});
}

std::string ProblemOf(const Options &options)
{
    try {
        const Client client(options);
    } catch (const std::runtime_error &problem) {
        return problem.what();
    }
    return "";
}

TEST_F(ClientRefusal, MoreInstancesThanTheProcessMayHave)
{
    const Client most(Limits(14));
    EXPECT_EQ(ProblemOf(Limits(3)), "nvrhttpcurl::Client: limit reached, 16 instances are in use");
    EXPECT_EQ(ProblemOf(Limits(2)), "") << "instances of the client that was not made were kept";
}

/* What the program does not have while this is set. */
enum class Missing {
    NOTHING,
    PROTOCOLS,
    WAKE_UP_SOCKET,
    ENGINE_PLACES,
    MEMORY_FOR_BODIES,
    MEMORY_FOR_ANSWERS,
    MEMORY_FOR_STRINGS
};
std::atomic<Missing> missing{Missing::NOTHING};

TEST_F(ClientRefusal, AnEngineThatCannotBeStarted)
{
    missing = Missing::WAKE_UP_SOCKET;
    EXPECT_EQ(ProblemOf(Limits(2)), "nvrhttpcurl::Client: failed, no thread, loopback port or libcurl handle");
    missing = Missing::NOTHING;
    EXPECT_EQ(ProblemOf(Limits(2)), "");
}

TEST_F(ClientRefusal, ALibcurlThatCannotBeat)
{
    missing = Missing::PROTOCOLS;
    EXPECT_EQ(ProblemOf(Limits(2)),
              "nvrhttpcurl::Client: failed, time-outs need a file:///dev/null or a http://127.0.0.1 that libcurl can "
              "read");
    missing = Missing::NOTHING;
    EXPECT_EQ(ProblemOf(Limits(2)), "");
}

/* --- the engine refuses, or memory runs out ------------------------------------------------------ */

std::atomic<int> handles{0}; /* of the engine, made by the client and not destroyed */

struct Shortage {
    const char *name;
    Missing missing;
    Error error;
    int status;
};

void PrintTo(const Shortage &shortage, std::ostream *out)
{
    *out << shortage.name;
}

class ClientShortage : public ClientTest, public testing::WithParamInterface<Shortage>
{
};

TEST_P(ClientShortage, EndsTheRequestAloneAndLeavesNothing)
{
    const std::string body = SampleText(100);
    const ScriptedServer server(ECHOING);
    Client client(Limits(1, 1));
    handles = 0;
    missing = GetParam().missing;
    const Response answer = Await(client.send_async(PostOf(server.Url(), body)));
    missing = Missing::NOTHING;
    ExpectFailure(answer, GetParam().error, GetParam().status);
    EXPECT_EQ(client.outstanding(), 0U);
    ExpectAnswer(Await(client.send_async(PostOf(server.Url(), body))), body);
    EXPECT_TRUE(WaitUntil([] { return handles.load() == 0; }, std::chrono::seconds(5)));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ClientShortage,
    testing::Values(Shortage{"EnginePlaces", Missing::ENGINE_PLACES, Error::limit_reached, 0},
                    Shortage{"MemoryForBodies", Missing::MEMORY_FOR_BODIES, Error::no_memory, 0},
                    Shortage{"MemoryForAnswers", Missing::MEMORY_FOR_ANSWERS, Error::no_memory, 200},
                    Shortage{"MemoryForStrings", Missing::MEMORY_FOR_STRINGS, Error::no_memory, 200}),
    [](const auto &shortage) { return shortage.param.name; });

/* The next operator new of this thread fails. */
thread_local bool losesString = false;

/* --- words --------------------------------------------------------------------------------------- */

TEST_F(ClientRefusal, EveryErrorHasItsWords)
{
    EXPECT_STREQ(to_string(Error::none), "none");
    EXPECT_STREQ(to_string(Error::invalid_argument), "invalid argument");
    EXPECT_STREQ(to_string(Error::limit_reached), "limit reached");
    EXPECT_STREQ(to_string(Error::no_memory), "no memory");
    EXPECT_STREQ(to_string(Error::timed_out), "timed out");
    EXPECT_STREQ(to_string(Error::connect_failed), "connect failed");
    EXPECT_STREQ(to_string(Error::tls_failed), "TLS failed");
    EXPECT_STREQ(to_string(Error::transfer_failed), "transfer failed");
    EXPECT_STREQ(to_string(Error::answer_too_long), "answer too long");
    EXPECT_STREQ(to_string(Error::cancelled), "cancelled");
    EXPECT_STREQ(to_string(static_cast<Error>(-1)), "unknown error");
    EXPECT_STREQ(to_string(static_cast<Error>(10)), "unknown error");
}

TEST_F(ClientRefusal, OkIsAnAnswerOfTheTwoHundreds)
{
    const auto isOk = [](Error error, int status) {
        Response answer;
        answer.error = error;
        answer.status = status;
        return answer.ok();
    };
    EXPECT_TRUE(isOk(Error::none, 200));
    EXPECT_TRUE(isOk(Error::none, 299));
    EXPECT_FALSE(isOk(Error::none, 199));
    EXPECT_FALSE(isOk(Error::none, 300));
    EXPECT_FALSE(isOk(Error::transfer_failed, 200));
}

} // namespace

extern "C" ENvrHttpCurlCltRet NvrHttpCurlCltSetReqUri(HNvrHttpCurlCltReq hReq, const char *szUri)
{
    const char *sent = missing == Missing::PROTOCOLS ? "nothing:///" : szUri;
    return Next<decltype(NvrHttpCurlCltSetReqUri)>("NvrHttpCurlCltSetReqUri")(hReq, sent);
}

extern "C" ENvrHttpCurlCltRet NvrHttpCurlCltInit(const TNvrHttpCurlCltInitParam *ptInitParam,
                                                 const TNvrHttpCurlCltMemCB *ptMemCB, HNvrHttpCurlCltInst *phResult)
{
    return missing == Missing::WAKE_UP_SOCKET
               ? static_cast<ENvrHttpCurlCltRet>(NVRHTTPCURLCLT_FAILED)
               : Next<decltype(NvrHttpCurlCltInit)>("NvrHttpCurlCltInit")(ptInitParam, ptMemCB, phResult);
}

extern "C" ENvrHttpCurlCltRet NvrHttpCurlCltReqCreat(HNvrHttpCurlCltInst hInstance, HNvrHttpCurlCltReq *phReq)
{
    handles.fetch_add(1);
    return Next<decltype(NvrHttpCurlCltReqCreat)>("NvrHttpCurlCltReqCreat")(hInstance, phReq);
}

extern "C" void NvrHttpCurlCltReqDestroy(HNvrHttpCurlCltReq hReq)
{
    handles.fetch_sub(1);
    Next<decltype(NvrHttpCurlCltReqDestroy)>("NvrHttpCurlCltReqDestroy")(hReq);
}

extern "C" ENvrHttpCurlCltRet NvrHttpCurlCltSetReqBody(HNvrHttpCurlCltReq hReq, const char *szBody, uint32_t dwSize)
{
    return missing == Missing::MEMORY_FOR_BODIES
               ? static_cast<ENvrHttpCurlCltRet>(NVRHTTPCURLCLT_NO_MEMORY)
               : Next<decltype(NvrHttpCurlCltSetReqBody)>("NvrHttpCurlCltSetReqBody")(hReq, szBody, dwSize);
}

extern "C" ENvrHttpCurlCltRet NvrHttpCurlCltProcessReq(HNvrHttpCurlCltReq hReq, uint32_t dwTimeoutMS,
                                                       uint32_t dwConnTimeOutMS, ENvrHttpCurlCltMode eMode,
                                                       PFNvrHttpCurlCltNtf pfNtf, void *pvUserBuf)
{
    return missing == Missing::ENGINE_PLACES ? static_cast<ENvrHttpCurlCltRet>(NVRHTTPCURLCLT_LIMIT_REACHED)
                                             : Next<decltype(NvrHttpCurlCltProcessReq)>("NvrHttpCurlCltProcessReq")(
                                                   hReq, dwTimeoutMS, dwConnTimeOutMS, eMode, pfNtf, pvUserBuf);
}

/* The client makes its string right afterwards. */
extern "C" ENvrHttpCurlCltRet NvrHttpCurlCltGetRespBodyLen(HNvrHttpCurlCltReq hReq, uint32_t *pdwBufSize)
{
    losesString = missing == Missing::MEMORY_FOR_STRINGS;
    return Next<decltype(NvrHttpCurlCltGetRespBodyLen)>("NvrHttpCurlCltGetRespBodyLen")(hReq, pdwBufSize);
}

void *operator new(size_t size)
{
    static const auto next = Next<void *(size_t)>("_Znwm"); /* its name where size_t has 64 bits */
    if (std::exchange(losesString, false)) {
        throw std::bad_alloc();
    }
    return next(size);
}

/* Only answers grow. */
extern "C" void *__real_realloc(void *block, size_t size);
extern "C" void *__wrap_realloc(void *block, size_t size)
{
    return missing == Missing::MEMORY_FOR_ANSWERS ? nullptr : __real_realloc(block, size);
}
