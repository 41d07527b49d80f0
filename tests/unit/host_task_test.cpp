/* The host's tasks, against platform/osp.h. */
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <thread>

#include "platform/osp.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UNDER_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define UNDER_SANITIZER 1
#endif
#endif

namespace
{

enum { STACK_SIZE = 256 * 1024, PRIORITY = 99 };

/* What a task sees of itself. A semaphore lets a case act while the task waits. */
struct Probe {
    HOspSem mayGo = nullptr; /* taken by the task if it is not null */
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
    if (probe.mayGo != nullptr) {
        OspSemTake(probe.mayGo);
    }
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

HOspTask Start(Probe &probe, const char *name = "probe", uint8_t priority = PRIORITY, uint32_t stackSize = STACK_SIZE)
{
    return OspTaskCreate(Look, name, priority, stackSize, &probe, 0, &probe.id);
}

Probe RunOne(const char *name = "probe", uint8_t priority = PRIORITY, uint32_t stackSize = STACK_SIZE)
{
    Probe probe;
    HOspTask task = Start(probe, name, priority, stackSize);
    EXPECT_NE(task, nullptr);
    EXPECT_NE(OspTaskWaitEnd(task), 0U);
    return probe;
}

TEST(HostTask, RunsItsEntryAndWhatItWroteIsSeenAfterTheWait)
{
    const Probe probe = RunOne();
    EXPECT_TRUE(probe.ran);
    EXPECT_NE(probe.threadId, gettid());
}

TEST(HostTask, IdentifierIsTheThreadsAndThereForBothSides)
{
    const Probe probe = RunOne();
    EXPECT_EQ(probe.id, static_cast<uint64_t>(probe.threadId));
    EXPECT_EQ(probe.idSeen, probe.id);
}

TEST(HostTask, IdentifierIsThereWhenTheCallReturns)
{
    Probe probe;
    ASSERT_NE(OspSemBCreate(&probe.mayGo), 0U);
    OspSemTake(probe.mayGo);
    HOspTask task = Start(probe);
    ASSERT_NE(task, nullptr);
    const uint64_t id = probe.id;
    OspSemGive(probe.mayGo);
    EXPECT_NE(OspTaskWaitEnd(task), 0U);
    EXPECT_EQ(id, static_cast<uint64_t>(probe.threadId));
    OspSemDelete(probe.mayGo);
}

TEST(HostTask, IdentifierMayBeUnwanted)
{
    Probe probe;
    HOspTask task = OspTaskCreate(Look, "probe", PRIORITY, STACK_SIZE, &probe, 0, nullptr);
    ASSERT_NE(task, nullptr);
    EXPECT_NE(OspTaskWaitEnd(task), 0U);
    EXPECT_TRUE(probe.ran);
}

TEST(HostTask, NameIsCutToWhatTheKernelKeeps)
{
    EXPECT_EQ(RunOne("123456789012345").name, "123456789012345");
    EXPECT_EQ(RunOne("1234567890123456").name, "123456789012345");
}

TEST(HostTask, NameIsCopied)
{
    Probe probe;
    ASSERT_NE(OspSemBCreate(&probe.mayGo), 0U);
    OspSemTake(probe.mayGo);
    char name[] = "first";
    HOspTask task = Start(probe, name);
    ASSERT_NE(task, nullptr);
    strcpy(name, "other");
    OspSemGive(probe.mayGo);
    OspTaskWaitEnd(task);
    EXPECT_EQ(probe.name, "first");
    OspSemDelete(probe.mayGo);
}

TEST(HostTask, NameMayBeNull)
{
    EXPECT_TRUE(RunOne(nullptr).ran);
}

void MeasureStack(void *size)
{
    *static_cast<size_t *>(size) = OwnStackSize();
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
    size_t size = 0;
    HOspTask task = OspTaskCreate(MeasureStack, "modest", PRIORITY, 512 * 1024, &size, 0, nullptr);
    ASSERT_NE(task, nullptr);
    OspTaskWaitEnd(task);
    EXPECT_GE(size, 512U * 1024);
    EXPECT_LT(size, 2U * 1024 * 1024);
}

TEST(HostTask, StackCanBeUsed)
{
    const PFOspTaskEntry use = [](void *sum) {
        volatile char block[1024 * 1024];
        for (size_t i = 0; i < sizeof(block); i += 1024) {
            block[i] = 1;
            *static_cast<int *>(sum) += block[i];
        }
    };
    int sum = 0;
    HOspTask task = OspTaskCreate(use, "deep", PRIORITY, 2 * 1024 * 1024, &sum, 0, nullptr);
    ASSERT_NE(task, nullptr);
    OspTaskWaitEnd(task);
    EXPECT_EQ(sum, 1024);
}

TEST(HostTask, TooSmallAStackBecomesTheHostsSmallest)
{
    for (const uint32_t wanted : {0U, 1U}) {
        size_t size = 0;
        HOspTask task = OspTaskCreate(MeasureStack, "small", 0, wanted, &size, 0, nullptr);
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
    Probe probe;
    EXPECT_EQ(Start(probe, "huge", PRIORITY, 0xFFFFFFFFU), nullptr);
    EXPECT_FALSE(probe.ran);
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

TEST(HostTask, PriorityZeroAsksForNothing)
{
    EXPECT_EQ(RunOne("probe", 0).policy, sched_getscheduler(0));
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

TEST(HostTask, WaitReturnsForATaskThatHasEndedAlready)
{
    HOspSem ended = nullptr;
    ASSERT_NE(OspSemBCreate(&ended), 0U);
    OspSemTake(ended);
    const PFOspTaskEntry end = [](void *sem) { OspSemGive(static_cast<HOspSem>(sem)); };
    HOspTask task = OspTaskCreate(end, "short", PRIORITY, STACK_SIZE, ended, 0, nullptr);
    ASSERT_NE(task, nullptr);
    OspSemTake(ended);
    EXPECT_NE(OspTaskWaitEnd(task), 0U);
    OspSemDelete(ended);
}

TEST(HostTask, AnyThreadMayWait)
{
    Probe probe;
    HOspTask task = Start(probe);
    ASSERT_NE(task, nullptr);
    std::thread([task] { EXPECT_NE(OspTaskWaitEnd(task), 0U); }).join();
    EXPECT_TRUE(probe.ran);
}

TEST(HostTask, WaitFailsForAZeroHandle)
{
    EXPECT_EQ(OspTaskWaitEnd(nullptr), 0U);
}

struct SelfWait {
    HOspSem mayGo;
    HOspTask task;
    uint32_t result;
};

TEST(HostTask, WaitFailsForTheTaskItselfAndStillSucceedsForOthers)
{
    SelfWait self = {nullptr, nullptr, 7};
    ASSERT_NE(OspSemBCreate(&self.mayGo), 0U);
    OspSemTake(self.mayGo);
    const PFOspTaskEntry wait = [](void *arg) {
        SelfWait &waiter = *static_cast<SelfWait *>(arg);
        OspSemTake(waiter.mayGo);
        waiter.result = OspTaskWaitEnd(waiter.task);
    };
    self.task = OspTaskCreate(wait, "self", PRIORITY, STACK_SIZE, &self, 0, nullptr);
    ASSERT_NE(self.task, nullptr);
    OspSemGive(self.mayGo);
    EXPECT_NE(OspTaskWaitEnd(self.task), 0U);
    EXPECT_EQ(self.result, 0U);
    OspSemDelete(self.mayGo);
}

} // namespace
