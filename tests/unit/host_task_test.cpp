/* What the host's tasks promise beyond platform/osp.h. */
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "platform/osp.h"
#include "tests/support/sanitizer.h"

namespace
{

enum { STACK_SIZE = 256 * 1024, PRIORITY = 99 };

/* What a task sees of itself. */
struct Probe {
    HOspSem mayGo = nullptr; /* the task takes it first */
    uint64_t id = 0;

    bool ran = false;
    uint64_t idSeen = 0;
    pid_t threadId = 0;
    std::string name;
    size_t stackSize = 0;
    int policy = -1;
    int priority = -1;
    int childPolicy = -1;
};

size_t OwnStackSize()
{
    pthread_attr_t attr;
    size_t size = 0;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    return size;
}

void Look(void *arg)
{
    Probe &probe = *static_cast<Probe *>(arg);
    OspSemTake(probe.mayGo);
    probe.idSeen = probe.id;
    probe.threadId = gettid();
    char name[64] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    probe.name = name;
    probe.stackSize = OwnStackSize();
    sched_param param = {};
    sched_getparam(0, &param);
    probe.policy = sched_getscheduler(0) & ~SCHED_RESET_ON_FORK;
    probe.priority = param.sched_priority;
    std::thread([&probe] { probe.childPolicy = sched_getscheduler(0); }).join();
    probe.ran = true;
}

using Action = std::function<void(const Probe &)>;

/* Runs a task that looks only when the action, if any, is done. Without a task nothing is seen. */
Probe RunOne(const char *name = "probe", uint8_t priority = PRIORITY, uint32_t stackSize = STACK_SIZE,
             const Action &meanwhile = {})
{
    Probe probe;
    EXPECT_NE(OspSemBCreate(&probe.mayGo), 0U);
    OspSemTake(probe.mayGo);
    HOspTask task = OspTaskCreate(Look, name, priority, stackSize, &probe, 0, &probe.id);
    if (meanwhile) {
        meanwhile(probe);
    }
    OspSemGive(probe.mayGo);
    EXPECT_EQ(OspTaskWaitEnd(task) != 0, task != nullptr);
    OspSemDelete(probe.mayGo);
    return probe;
}

TEST(HostTask, IdentifierIsTheThreadsAndThereForBothSides)
{
    uint64_t id = 0;
    const Probe probe = RunOne("probe", PRIORITY, STACK_SIZE, [&](const Probe &waiting) { id = waiting.id; });
    EXPECT_NE(probe.threadId, gettid());
    EXPECT_EQ(id, static_cast<uint64_t>(probe.threadId));
    EXPECT_EQ(probe.idSeen, id);
}

TEST(HostTask, NameIsCopiedAndCutToWhatTheKernelKeepsAndMayBeNull)
{
    EXPECT_EQ(RunOne("123456789012345").name, "123456789012345");
    EXPECT_EQ(RunOne("1234567890123456").name, "123456789012345");
    char name[] = "first";
    EXPECT_EQ(RunOne(name, PRIORITY, STACK_SIZE, [&](const Probe &) { strcpy(name, "other"); }).name, "first");
    EXPECT_TRUE(RunOne(nullptr).ran);
}

TEST(HostTask, StackHasAtLeastItsSize)
{
    for (const uint32_t wanted : {512U * 1024, 2U * 1024 * 1024, 2U * 1024 * 1024 + 1, 32U * 1024 * 1024}) {
        EXPECT_GE(RunOne("probe", PRIORITY, wanted).stackSize, wanted);
    }
}

/* The first thread of the process: a later one may be given the larger stack of one that has ended. */
TEST(HostTask, StackIsNotTheHostsUsualOne)
{
    const size_t size = RunOne("modest", PRIORITY, 512 * 1024).stackSize;
    EXPECT_GE(size, 512U * 1024);
    EXPECT_LT(size, 2U * 1024 * 1024);
}

TEST(HostTask, TooSmallAStackBecomesTheHostsSmallest)
{
    const PFOspTaskEntry measure = [](void *size) { *static_cast<size_t *>(size) = OwnStackSize(); };
    for (const uint32_t wanted : {0U, 1U}) {
        size_t size = 0;
        HOspTask task = OspTaskCreate(measure, "small", 0, wanted, &size, 0, nullptr);
        ASSERT_NE(task, nullptr);
        EXPECT_NE(OspTaskWaitEnd(task), 0U);
        EXPECT_GE(size, static_cast<size_t>(PTHREAD_STACK_MIN));
    }
}

#ifndef UNDER_SANITIZER /* their own memory goes far beyond any limit set here */
TEST(HostTask, NoTaskWithoutItsStack)
{
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
    limit.rlim_cur = 1024UL * 1024 * 1024;
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    EXPECT_FALSE(RunOne("huge", PRIORITY, 0xFFFFFFFFU).ran);
    EXPECT_TRUE(RunOne().ran);
}
#endif

/* Whether this process may, is found out by doing it. */
bool MayBeRealTime(int priority)
{
    bool may = false;
    std::thread([&may, priority] {
        sched_param param = {};
        param.sched_priority = priority;
        may = sched_setscheduler(0, SCHED_RR, &param) == 0;
    }).join();
    return may;
}

TEST(HostTask, PriorityIsTried)
{
    EXPECT_EQ(RunOne("probe", 0).policy, sched_getscheduler(0)) << "0 asks for nothing";
    const int lowest = sched_get_priority_min(SCHED_RR);
    if (!MayBeRealTime(lowest + 7)) {
        GTEST_SKIP() << "this process may not set priorities";
    }
    for (const uint8_t priority : {uint8_t{1}, uint8_t{99}, uint8_t{255}}) {
        const Probe probe = RunOne("probe", priority);
        EXPECT_EQ(probe.policy, SCHED_RR);
        EXPECT_EQ(probe.priority, lowest + priority / 32);
        EXPECT_EQ(probe.childPolicy, SCHED_OTHER);
    }
}

/* Gives up what lets this thread and those it starts set priorities. */
void GiveUpPriorities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
    data[0].effective &= ~(1U << CAP_SYS_NICE);
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
    const rlimit none = {0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, &none), 0);
}

TEST(HostTask, TaskStartsWithoutAPriorityThatIsNotAllowed)
{
    GiveUpPriorities();
    ASSERT_FALSE(MayBeRealTime(sched_get_priority_min(SCHED_RR)));
    const Probe probe = RunOne();
    EXPECT_TRUE(probe.ran);
    EXPECT_EQ(probe.policy, sched_getscheduler(0));
}

TEST(HostTask, RefusesNoEntryAndFlags)
{
    Probe probe;
    EXPECT_EQ(OspTaskCreate(nullptr, "none", PRIORITY, STACK_SIZE, &probe, 0, nullptr), nullptr);
    EXPECT_EQ(OspTaskCreate(Look, "flags", PRIORITY, STACK_SIZE, &probe, 1, nullptr), nullptr);
    EXPECT_FALSE(probe.ran);
}

} // namespace
