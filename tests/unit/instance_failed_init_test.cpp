/* An Init that fails halfway: it leaves nothing behind, neither of its own nor of others. */
#include <cerrno>
#include <ostream>
#include <tuple>

#include <sys/socket.h>

#include "support/hcc_log.h"
#include "tests/support/instance_fixture.h"

namespace
{

using namespace test;

const char *const CLEANUP = "_NvrHttpCurlCltCleanup";

Lines ErrorsOf(const std::string &func)
{
    Lines errors;
    for (const Line &line : Log()) {
        if (line.level == HCC_LEVEL_ERROR && line.func == func) {
            errors.push_back(line);
        }
    }
    return errors;
}

/* --- each step, one after the other -------------------------------------------------------- */

/* A set-up of eight tasks that breaks off, mostly at task 3. */
struct Failure {
    const char *name;
    void (*arm)();
    Line line;
    size_t built;      /* tasks whose set-up had begun */
    size_t multis;     /* multi handles that existed */
    size_t threads;    /* threads that ran */
    size_t semaphores; /* semaphores that existed */
};

void PrintTo(const Failure &failure, std::ostream *out)
{
    *out << failure.name;
}

void FailFourthSocket()
{
    hooks::sys_bind = [binds = 0](int fd, const sockaddr *address, socklen_t length) mutable {
        if (binds == 3) {
            errno = EADDRINUSE;
            return -1;
        }
        const int result = hooks::real::sys_bind(fd, address, length);
        binds += result == 0 ? 1 : 0;
        return result;
    };
}

void FailFourthMulti()
{
    hooks::multi_init = [multis = 0]() mutable -> CURLM * {
        return ++multis == 4 ? nullptr : hooks::real::multi_init();
    };
}

const Failure FAILURES[] = {
    {"RunLock", [] { fake::FailSemCreate(7); }, Error(INIT, "[Error] hRunLock create failed, dwII %u\n", 3U), 4, 3, 3,
     6},
    {"FinLock", [] { fake::FailSemCreate(8); }, Error(INIT, "[Error] hFinLock create failed, dwII %u\n", 3U), 4, 3, 3,
     7},
    {"Socket", FailFourthSocket, Error(INIT, "[Error] _NvrHttpCurlCltCreateUdpMonitor failed{%d}\n", 8), 4, 3, 3, 8},
    {"MultiHandle", FailFourthMulti, Error(INIT, "[Error] curl_multi_init failed.\n"), 4, 3, 3, 8},
    {"Task", [] { fake::FailTaskCreate(4); },
     Error(INIT, "[Error] create task failed, dwInstIndex %u, dwII %u\n", 0U, 3U), 4, 4, 3, 8},
    {"CountLock", [] { fake::FailSemCreate(17); }, Error(INIT, "[Error] hAsyncReqNumLock create failed\n"), 8, 8, 8,
     16},
    {"EasyInitLocker", [] { fake::FailSemCreate(18); },
     Error(INIT, "[Error] g_sEasyInitLocker create failed, dwII %u\n", 8U), 8, 8, 8, 17}};

/* The flag: the tasks that start before the failure really run. */
class FailedStep : public InstanceTest, public testing::WithParamInterface<std::tuple<Failure, bool>>
{
  protected:
    void SetUp() override
    {
        hooks::multi_cleanup = [this](CURLM *multi) {
            cleaned.push_back(multi);
            return hooks::real::multi_cleanup(multi);
        };
    }

    std::vector<CURLM *> cleaned;
};

TEST_P(FailedStep, ReleasesEverythingAndFreesTheSlot)
{
    const auto &[failure, runTasks] = GetParam();
    fake::RunTasks(runTasks);
    failure.arm();
    HNvrHttpCurlCltInst instance = Slot(9);
    EXPECT_EQ(TryStart(8, &instance), 1U);

    EXPECT_EQ(instance, Slot(9));
    EXPECT_EQ(ErrorsOf(INIT), Lines{failure.line});
    EXPECT_EQ(ErrorsOf(CLEANUP), Lines{});
    EXPECT_TRUE(IsFree(Slot(0)));
    EXPECT_EQ(fake::SemsCreated(), failure.semaphores);
    EXPECT_EQ(fake::SemsAlive(), 0U);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
    EXPECT_EQ(fake::Mallocs(), 1U);
    EXPECT_EQ(fake::Tasks().size(), failure.threads);
    EXPECT_EQ(fake::TasksWaited(), failure.threads);
    ASSERT_EQ(cleaned.size(), failure.built) << "one clean-up for each task begun, a null handle included";
    for (size_t i = 0; i < cleaned.size(); ++i) {
        EXPECT_EQ(cleaned[i] != nullptr, i < failure.multis) << i;
    }
    EXPECT_EQ(OpenDescriptors(), openBefore);
    EXPECT_EQ(g_sEasyInitLocker, nullptr);

    hooks::sys_bind = nullptr;
    hooks::multi_init = nullptr;
    EXPECT_EQ(TryStart(2, &instance), 0U);
    EXPECT_EQ(instance, Slot(0));
}

INSTANTIATE_TEST_SUITE_P(OfEight, FailedStep, testing::Combine(testing::ValuesIn(FAILURES), testing::Bool()),
                         [](const auto &test) {
                             return std::string(std::get<0>(test.param).name) +
                                    (std::get<1>(test.param) ? "WithThreads" : "");
                         });

/* --- what else matters --------------------------------------------------------------------------- */

class FailedInit : public InstanceTest
{
  protected:
    HNvrHttpCurlCltInst none = nullptr;
};

TEST_F(FailedInit, WithoutMemoryReleasesNothing)
{
    none = Slot(9);
    fake::FailMalloc(1);
    EXPECT_EQ(TryStart(8, &none), 5U);
    EXPECT_EQ(none, Slot(9));
    ExpectLines({TickLine(), Error(INIT, "[Error] malloc failed, atTasks\n")});
    EXPECT_TRUE(IsFree(Slot(0)));
    EXPECT_EQ(fake::SemsCreated(), 0U);
    EXPECT_EQ(fake::Frees(), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 0U);
}

TEST_F(FailedInit, ReleasesHalfBuiltTasksInFreshMemoryFullOfRubbish)
{
    for (unsigned nth = 1; nth <= 6; ++nth) {
        fake::FailSemCreate(nth);
        EXPECT_EQ(TryStart(2, &none, 8, SpyMemCB()), 1U) << nth;
        EXPECT_TRUE(IsFree(Slot(0)));
        EXPECT_EQ(fake::SemsAlive(), 0U);
        EXPECT_EQ(OpenDescriptors(), openBefore);
    }
}

TEST_F(FailedInit, LeavesOtherInstancesAloneAndNamesTheSlot)
{
    MustStart(2);
    MustStart(0);
    const std::vector<unsigned char> before = TableBytes();
    const size_t sems = fake::SemsAlive();
    fake::FailTaskCreate(1);
    EXPECT_EQ(TryStart(2, &none), 1U);
    ExpectLine(Error(INIT, "[Error] create task failed, dwInstIndex %u, dwII %u\n", 2U, 0U));
    EXPECT_EQ(TableBytes(), before);
    EXPECT_EQ(fake::SemsAlive(), sems);
}

TEST_F(FailedInit, GoesOnAfterAThreadThatCannotBeWaitedFor)
{
    fake::FailTaskWait(true);
    fake::FailTaskCreate(3);
    EXPECT_EQ(TryStart(4, &none), 1U);
    EXPECT_EQ(ErrorsOf(CLEANUP), (Lines{Error(CLEANUP, "[Error] task wait failed, dwII %u\n", 0U),
                                        Error(CLEANUP, "[Error] task wait failed, dwII %u\n", 1U)}));
    EXPECT_EQ(fake::SemsAlive(), 0U);
}

TEST_F(FailedInit, KeepsTheEasyInitLockOfAnEarlierInstance)
{
    NvrHttpCurlCltUninit(MustStart(0));
    const HOspSem old = g_sEasyInitLocker;
    const Line lines[] = {Error(INIT, "[Error] hAsyncReqNumLock create failed\n"),
                          Error(INIT, "[Error] g_sEasyInitLocker create failed, dwII %u\n", 0U)};
    for (unsigned nth = 1; nth <= 2; ++nth) {
        SCOPED_TRACE(nth);
        fake::FailSemCreate(nth);
        EXPECT_EQ(TryStart(0, &none), 1U);
        ExpectLine(lines[nth - 1]);
        EXPECT_EQ(g_sEasyInitLocker, old);
        EXPECT_FALSE(fake::SemIsTaken(old));
        EXPECT_NE(OspSemTake(old), 0U);
        EXPECT_NE(OspSemGive(old), 0U);
        EXPECT_EQ(fake::SemsAlive(), 1U);
    }
}

} // namespace
