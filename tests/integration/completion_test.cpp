/*
 * Asynchronous requests are reported without help: nothing else is submitted and no other
 * transfer is active while one is under way, so whatever libcurl keeps back stays unreported.
 *
 * Each cell counts the requests that stall. NVRHTTP_CELL_REQUESTS sets how many it makes.
 */
#include <chrono>
#include <memory>

#include "engine_runs.h"
#include "nginx_server.h"

namespace
{

using namespace test;

constexpr std::chrono::seconds STALLED_AFTER{10};

enum class Protocol { Http, Https, Http2 };

struct Answer {
    const char *name;
    const char *path;
    uint32_t length;
};

constexpr Answer ANSWERS[] = {
    {"1KB", "/files/1KB", 1024},    {"64KB", "/files/64KB", 65536}, {"256KB", "/files/256KB", 262144},
    {"5MB", "/files/5MB", 5 << 20}, {"Late", "/late", 2},           {"InPieces", "/pieces", 11}};

const char *NameOf(Protocol protocol)
{
    return protocol == Protocol::Http ? "Http" : protocol == Protocol::Https ? "Https" : "Http2";
}

/* How a case's parameter reads in the list of tests. */
void PrintTo(const Answer &answer, std::ostream *out)
{
    *out << answer.name;
}

void PrintTo(Protocol protocol, std::ostream *out)
{
    *out << NameOf(protocol);
}

using Cell = std::tuple<Protocol, Answer, bool>;

std::string CellName(const testing::TestParamInfo<Cell> &cell)
{
    return std::string(NameOf(std::get<0>(cell.param))) + "_" + std::get<1>(cell.param).name + "_" +
           (std::get<2>(cell.param) ? "Fresh" : "Reused");
}

std::atomic<size_t> ended{0};
std::atomic<size_t> failed{0};

/* Without a context: answers of any length are read from the request. */
uint32_t CountEnd(HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress progress, ENvrHttpCurlCltRet, void *)
{
    failed.fetch_add(progress == NVRHTTPCURLCLT_PROGRESS_FINISHED ? 0 : 1);
    ended.fetch_add(1);
    return 0;
}

HNvrHttpCurlCltReq Submit(HNvrHttpCurlCltInst instance, const std::string &url, const std::string &body = "{}",
                          PFNvrHttpCurlCltNtf notify = CountEnd, uint32_t timeout = 60000)
{
    HNvrHttpCurlCltReq request = nullptr;
    EXPECT_EQ(NvrHttpCurlCltReqCreat(instance, &request), NVRHTTPCURLCLT_OK);
    EXPECT_EQ(NvrHttpCurlCltSetReqUri(request, url.c_str()), NVRHTTPCURLCLT_OK);
    EXPECT_EQ(NvrHttpCurlCltSetReqHeader(request, "Accept", "*/*"), NVRHTTPCURLCLT_OK);
    EXPECT_EQ(NvrHttpCurlCltSetReqMethod(request, "POST"), NVRHTTPCURLCLT_OK);
    EXPECT_EQ(NvrHttpCurlCltSetReqBody(request, body.data(), static_cast<uint32_t>(body.size())), NVRHTTPCURLCLT_OK);
    EXPECT_EQ(NvrHttpCurlCltProcessReq(request, timeout, 60000, NVRHTTPCURLCLT_MODE_ASYNC, notify, nullptr),
              NVRHTTPCURLCLT_OK);
    return request;
}

void ExpectAnswer(HNvrHttpCurlCltReq request, uint32_t length)
{
    uint32_t received = 0;
    EXPECT_EQ(NvrHttpCurlCltGetRespBodyLen(request, &received), NVRHTTPCURLCLT_OK);
    EXPECT_EQ(received, length);
    EXPECT_EQ(StatusOf(request), 200);
}

class Completion : public NginxTest
{
  protected:
    Completion()
    {
        ended = 0;
        failed = 0;
    }

    /* Waits for so many ends; returns how many had to be helped along by other submissions. */
    size_t WaitForEnds(HNvrHttpCurlCltInst instance, size_t count)
    {
        if (WaitUntil([count] { return ended.load() >= count; }, STALLED_AFTER)) {
            return 0;
        }
        const size_t stalled = count - ended.load();
        std::vector<HNvrHttpCurlCltReq> helpers;
        for (unsigned tries = 0; ended.load() < count + helpers.size() && tries < 100; ++tries) {
            helpers.push_back(Submit(instance, nginx.Http("/ready")));
            WaitUntil([&] { return ended.load() >= count + helpers.size(); }, std::chrono::milliseconds(200));
        }
        EXPECT_EQ(ended.load(), count + helpers.size()) << "not even help made them end";
        for (HNvrHttpCurlCltReq helper : helpers) {
            NvrHttpCurlCltReqDestroy(helper);
        }
        return stalled;
    }

    std::string Url(Protocol protocol, const std::string &path) const
    {
        return protocol == Protocol::Http    ? nginx.Http(path)
               : protocol == Protocol::Https ? nginx.Https(path)
                                             : nginx.Http2(path);
    }
};

class SingleRequests : public Completion, public testing::WithParamInterface<Cell>
{
  protected:
    size_t RunOne(HNvrHttpCurlCltInst instance)
    {
        ended = 0;
        const Answer &answer = std::get<1>(GetParam());
        HNvrHttpCurlCltReq request = Submit(instance, Url(std::get<0>(GetParam()), answer.path));
        const size_t stalled = WaitForEnds(instance, 1);
        ExpectAnswer(request, answer.length);
        NvrHttpCurlCltReqDestroy(request);
        return stalled;
    }
};

TEST_P(SingleRequests, AreReportedOnAnIdleTask)
{
    const char *wanted = getenv("NVRHTTP_CELL_REQUESTS");
    const int count = wanted == nullptr ? 3 : atoi(wanted);
    const bool fresh = std::get<2>(GetParam());
    const Answer &answer = std::get<1>(GetParam());
    nginx.MakeFile(answer.name, answer.length);
    std::unique_ptr<Engine> engine = std::make_unique<Engine>(1);
    if (!fresh) {
        RunOne(engine->Handle());
    }
    size_t stalled = 0;
    for (int number = 0; number < count; ++number) {
        if (fresh) {
            engine.reset(); /* one slot, one connection at a time */
            engine = std::make_unique<Engine>(1);
        }
        stalled += RunOne(engine->Handle());
    }
    RecordProperty("requests", count);
    RecordProperty("stalled", static_cast<int>(stalled));
    EXPECT_EQ(stalled, 0U);
    EXPECT_EQ(failed.load(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Cells, SingleRequests,
                         testing::Combine(testing::Values(Protocol::Http, Protocol::Https, Protocol::Http2),
                                          testing::ValuesIn(ANSWERS), testing::Bool()),
                         CellName);

class ManyAtOnce : public Completion, public testing::WithParamInterface<uint32_t>
{
};

/* Over HTTP/2 they share one connection for each task, each woken by what the others read. */
TEST_P(ManyAtOnce, AreAllReportedOverHttp2)
{
    constexpr size_t ROUNDS = 3;
    constexpr size_t COUNT = 200;
    const std::string body = SampleText(20000);
    Engine engine(GetParam());
    size_t stalled = 0;
    for (size_t round = 0; round < ROUNDS; ++round) {
        ended = 0;
        std::vector<HNvrHttpCurlCltReq> requests;
        for (size_t number = 0; number < COUNT; ++number) {
            requests.push_back(Submit(engine.Handle(), nginx.Http2("/echo"), body));
        }
        stalled += WaitForEnds(engine.Handle(), COUNT);
        for (HNvrHttpCurlCltReq request : requests) {
            ExpectAnswer(request, 20000);
            NvrHttpCurlCltReqDestroy(request);
        }
    }
    RecordProperty("requests", ROUNDS * COUNT);
    RecordProperty("stalled", static_cast<int>(stalled));
    EXPECT_EQ(stalled, 0U);
    EXPECT_EQ(failed.load(), 0U);
}

std::atomic<uint32_t> endlessResult{NVRHTTPCURLCLT_OK};

uint32_t NoteEndless(HNvrHttpCurlCltReq, ENvrHttpCurlCltReqProgress, ENvrHttpCurlCltRet result, void *)
{
    endlessResult = result;
    return 0;
}

/* However much an answer brings, its task goes on to complete others and sees its time-out. */
TEST_F(Completion, AnEndlessAnswerHoldsNobodyUp)
{
    ASSERT_TRUE(nginx.MakeHugeFile("endless"));
    Engine engine(1);
    HNvrHttpCurlCltReq endless = Submit(engine.Handle(), nginx.Http2("/files/endless"), "{}", NoteEndless, 1000);
    for (size_t number = 1; number <= 3; ++number) {
        HNvrHttpCurlCltReq request = Submit(engine.Handle(), nginx.Http2("/ready"));
        ASSERT_TRUE(WaitUntil([number] { return ended.load() == number; }));
        ExpectAnswer(request, 5);
        NvrHttpCurlCltReqDestroy(request);
    }
    EXPECT_EQ(failed.load(), 0U);
    EXPECT_TRUE(WaitUntil([] { return endlessResult == NVRHTTPCURLCLT_TIMED_OUT; }));
    NvrHttpCurlCltReqDestroy(endless);
}

INSTANTIATE_TEST_SUITE_P(Cells, ManyAtOnce, testing::Values(1U, 8U), [](const auto &tasks) {
    return "Http2_200_AtOnce_" + std::to_string(tasks.param) + "_Tasks";
});

} // namespace
