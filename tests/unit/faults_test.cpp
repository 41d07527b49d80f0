/*
 * Scenarios under every single failure: the n-th semaphore, allocation, task and so on fails,
 * once or from then on, for n = 1, 2, ... until the scenario no longer meets it. Each run has
 * to report the failure and to leave nothing behind.
 *
 * To add a scenario, write a function that returns the first result other than 0 and that
 * releases whatever it was given, and put it into SCENARIOS with the kinds of faults to
 * which it is exposed. Every one of these faults has to be fatal to it.
 */
#include <atomic>
#include <initializer_list>
#include <map>
#include <ostream>

#include "tests/support/engine_fixture.h"
#include "tests/support/fail_nth.h"

namespace
{

using namespace test;

/* --- faults ----------------------------------------------------------------------------------- */

FailNth multiInit;
FailNth easyInit;

/* arm(0, ...) disarms. calls: how often the call has been made so far. */
struct Fault {
    const char *name;
    void (*arm)(unsigned nth, bool lasting);
    size_t (*calls)();
};

const Fault SEMAPHORE = {"Semaphore", fake::FailSemCreate, fake::SemsCreated};
const Fault MEMORY = {"Malloc", fake::FailMalloc, fake::Mallocs};
const Fault TASK = {"Task", fake::FailTaskCreate, [] { return fake::Tasks().size(); }};
const Fault MULTI_HANDLE = {"MultiHandle", [](unsigned nth, bool lasting) { multiInit.Arm(nth, lasting); },
                            [] { return multiInit.Calls(); }};
const Fault EASY_HANDLE = {"EasyHandle", [](unsigned nth, bool lasting) { easyInit.Arm(nth, lasting); },
                           [] { return easyInit.Calls(); }};

/* --- scenarios ----------------------------------------------------------------------------------- */

uint32_t StartAndStop()
{
    HNvrHttpCurlCltInst instance = nullptr;
    const uint32_t result = TryStart(2, &instance);
    if (result == 0) {
        NvrHttpCurlCltUninit(instance);
    }
    return result;
}

/* The first failed step ends the set-up, as it does in an application. */
uint32_t Configure(HNvrHttpCurlCltReq request)
{
    uint32_t result = NvrHttpCurlCltSetReqUri(request, "https://127.0.0.1:9/x");
    result = result != 0 ? result : NvrHttpCurlCltSetReqHeader(request, "Content-Type", "application/json");
    result = result != 0 ? result : NvrHttpCurlCltSetReqMethod(request, "POST");
    result = result != 0 ? result : NvrHttpCurlCltSetAuthType(request, 1, "user:password");
    return result != 0 ? result : NvrHttpCurlCltSetReqBody(request, "{\"a\":1}", 7);
}

HNvrHttpCurlCltInst instanceOfScenario = nullptr;

/* Creates a request, runs the steps up to the first failure and releases the request. */
uint32_t RunOnRequest(std::initializer_list<uint32_t (*)(HNvrHttpCurlCltReq)> steps,
                      void (*release)(HNvrHttpCurlCltReq) = NvrHttpCurlCltReqDestroy)
{
    HNvrHttpCurlCltReq request = nullptr;
    uint32_t result = NvrHttpCurlCltReqCreat(instanceOfScenario, &request);
    if (result != 0) {
        return result;
    }
    for (const auto step : steps) {
        result = result != 0 ? result : step(request);
    }
    release(request);
    return result;
}

uint32_t CreateConfigureDestroy()
{
    return RunOnRequest({Configure});
}

uint32_t CreateConfigureTwiceReset()
{
    return RunOnRequest({Configure, Configure}, [](HNvrHttpCurlCltReq request) { NvrHttpCurlCltReqReset(request); });
}

uint32_t SubmitAndDestroy()
{
    return RunOnRequest({Configure, [](HNvrHttpCurlCltReq request) { return Submit(request); }});
}

uint32_t StartSubmitStop()
{
    HNvrHttpCurlCltInst instance = nullptr;
    uint32_t result = TryStart(2, &instance);
    if (result != 0) {
        return result;
    }
    for (int i = 0; i < 3 && result == 0; ++i) {
        HNvrHttpCurlCltReq request = nullptr;
        result = NvrHttpCurlCltReqCreat(instance, &request);
        if (result == 0) {
            result = Configure(request);
            result = result != 0 ? result : Submit(request);
            if (result != 0) {
                NvrHttpCurlCltReqDestroy(request);
            }
        }
    }
    NvrHttpCurlCltUninit(instance);
    return result;
}

struct Scenario {
    const char *name;
    uint32_t (*run)();
    bool onInstance;    /* works on instanceOfScenario, which is started without faults */
    bool startsThreads; /* the tasks really run */
    std::vector<Fault> faults;
};

const std::vector<Scenario> SCENARIOS = {
    {"StartAndStop", StartAndStop, false, false, {SEMAPHORE, MEMORY, TASK, MULTI_HANDLE}},
    {"StartAndStopThreads", StartAndStop, false, true, {SEMAPHORE, MEMORY, TASK, MULTI_HANDLE}},
    {"CreateConfigureDestroy", CreateConfigureDestroy, true, false, {MEMORY, EASY_HANDLE}},
    {"CreateConfigureTwiceReset", CreateConfigureTwiceReset, true, false, {MEMORY, EASY_HANDLE}},
    {"SubmitAndDestroy", SubmitAndDestroy, true, false, {MEMORY, EASY_HANDLE}},
    {"StartSubmitStop", StartSubmitStop, false, false, {SEMAPHORE, MEMORY, TASK, MULTI_HANDLE, EASY_HANDLE}}};

/* --- the sweep -------------------------------------------------------------------------------------- */

struct Sweep {
    Scenario scenario;
    Fault fault;
    bool lasting;
};

std::string NameOf(const Sweep &sweep)
{
    return std::string(sweep.scenario.name) + "Under" + sweep.fault.name + (sweep.lasting ? "Lasting" : "Once");
}

void PrintTo(const Sweep &sweep, std::ostream *out)
{
    *out << NameOf(sweep);
}

std::vector<Sweep> AllSweeps()
{
    std::vector<Sweep> sweeps;
    for (const Scenario &scenario : SCENARIOS) {
        for (const Fault &fault : scenario.faults) {
            sweeps.push_back({scenario, fault, false});
            sweeps.push_back({scenario, fault, true});
        }
    }
    return sweeps;
}

/* What a run could leave behind. The lock of curl_easy_init is counted out: it is never deleted. */
using Belongings = std::map<std::string, size_t>;

std::atomic<size_t> easyHandles{0};
std::atomic<size_t> multiHandles{0};
std::set<HOspSem> lockers;

Belongings Take()
{
    lockers.insert(g_sEasyInitLocker);
    lockers.erase(nullptr);
    Belongings all = {{"blocks", fake::BlocksAlive()},
                      {"semaphores", fake::SemsAlive() - lockers.size()},
                      {"easy handles", easyHandles},
                      {"multi handles", multiHandles},
                      {"tasks not waited for", fake::Tasks().size() - fake::TasksWaited()},
                      {"asynchronous requests", instanceOfScenario != nullptr ? instanceOfScenario->dwAsyncReqNum : 0}};
    for (const int fd : OpenDescriptors()) {
        all["descriptor " + std::to_string(fd)] = 1;
    }
    return all;
}

void ExpectSame(const Belongings &before, const Belongings &after)
{
    EXPECT_EQ(after, before);
    EXPECT_EQ(fake::HeldByThisThread(), 0U);
    for (unsigned i = 0; i < 16; ++i) {
        if (Slot(i) != instanceOfScenario) {
            EXPECT_TRUE(IsFree(Slot(i))) << i;
        }
    }
}

class Faults : public EngineTest, public testing::WithParamInterface<Sweep>
{
  protected:
    void SetUp() override
    {
        CountHandles();
        instanceOfScenario = GetParam().scenario.onInstance ? MustStart(2) : nullptr;
        fake::RunTasks(GetParam().scenario.startsThreads);
    }

    void TearDown() override
    {
        if (instanceOfScenario != nullptr) {
            NvrHttpCurlCltUninit(instanceOfScenario);
        }
        EngineTest::TearDown();
    }

  private:
    static void CountHandles()
    {
        hooks::multi_init = []() -> CURLM * {
            CURLM *multi = multiInit.Hit() ? nullptr : hooks::real::multi_init();
            multiHandles += multi != nullptr ? 1 : 0;
            return multi;
        };
        hooks::multi_cleanup = [](CURLM *multi) {
            multiHandles -= multi != nullptr ? 1 : 0;
            return hooks::real::multi_cleanup(multi);
        };
        hooks::easy_init = []() -> CURL * {
            CURL *easy = easyInit.Hit() ? nullptr : hooks::real::easy_init();
            easyHandles += easy != nullptr ? 1 : 0;
            return easy;
        };
        hooks::easy_cleanup = [](CURL *easy) {
            easyHandles -= easy != nullptr ? 1 : 0;
            hooks::real::easy_cleanup(easy);
        };
    }
};

TEST_P(Faults, AreReportedAndLeaveNothing)
{
    const Scenario &scenario = GetParam().scenario;
    const Fault &fault = GetParam().fault;
    const size_t callsBefore = fault.calls();
    const Belongings start = Take();
    ASSERT_EQ(scenario.run(), 0U) << "without any fault";
    ExpectSame(start, Take());
    const size_t calls = fault.calls() - callsBefore;
    ASSERT_GT(calls, 0U) << "the fault cannot happen here";
    for (unsigned nth = 1; nth <= calls; ++nth) {
        const Belongings before = Take();
        fault.arm(nth, GetParam().lasting);
        EXPECT_NE(scenario.run(), 0U) << "failure of call " << nth << " of " << calls;
        fault.arm(0, false);
        ExpectSame(before, Take());
        if (HasFailure()) {
            FAIL() << "after the failure of call " << nth << " of " << calls << "\n" << fake::Transcript();
        }
    }
    fault.arm(static_cast<unsigned>(calls) + 1, GetParam().lasting);
    EXPECT_EQ(scenario.run(), 0U) << "the failure of a call that is not made";
    fault.arm(0, false);
}

INSTANTIATE_TEST_SUITE_P(In, Faults, testing::ValuesIn(AllSweeps()),
                         [](const testing::TestParamInfo<Sweep> &test) { return NameOf(test.param); });

} // namespace
