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

/* What a task sees of itself. Two semaphores let a case act while the task stands still. */
struct Probe {
    HOspSem hMayGo = nullptr; /* taken by the task if it is not null */
    uint64_t qwTaskID = 0;

    bool bRan = false;
    uint64_t qwTaskIDSeen = 0;
    pid_t nThread = 0;
    std::string strName;
    size_t uStackSize = 0;
    int nPolicy = -1;
    int nPriority = -1;
    int nChildPolicy = -1;
};

size_t OwnStackSize()
{
    pthread_attr_t tAttr;
    size_t uSize = 0;
    pthread_getattr_np(pthread_self(), &tAttr);
    pthread_attr_getstacksize(&tAttr, &uSize);
    pthread_attr_destroy(&tAttr);
    return uSize;
}

void Look(void *pvProbe)
{
    Probe &rProbe = *static_cast<Probe *>(pvProbe);
    if (rProbe.hMayGo != nullptr) {
        OspSemTake(rProbe.hMayGo);
    }
    rProbe.qwTaskIDSeen = rProbe.qwTaskID;
    rProbe.nThread = gettid();
    char achName[64] = "";
    pthread_getname_np(pthread_self(), achName, sizeof(achName));
    rProbe.strName = achName;
    rProbe.uStackSize = OwnStackSize();
    sched_param tParam = {};
    sched_getparam(0, &tParam);
    rProbe.nPolicy = sched_getscheduler(0) & ~SCHED_RESET_ON_FORK;
    rProbe.nPriority = tParam.sched_priority;
    std::thread([&rProbe] { rProbe.nChildPolicy = sched_getscheduler(0); }).join();
    rProbe.bRan = true;
}

HOspTask Start(Probe &rProbe, const char *szName = "probe", uint8_t byPriority = PRIORITY,
               uint32_t dwStackSize = STACK_SIZE)
{
    return OspTaskCreate(Look, szName, byPriority, dwStackSize, &rProbe, 0, &rProbe.qwTaskID);
}

Probe RunOne(const char *szName = "probe", uint8_t byPriority = PRIORITY, uint32_t dwStackSize = STACK_SIZE)
{
    Probe tProbe;
    HOspTask hTask = Start(tProbe, szName, byPriority, dwStackSize);
    EXPECT_NE(hTask, nullptr);
    EXPECT_NE(OspTaskWaitEnd(hTask), 0U);
    return tProbe;
}

TEST(HostTask, RunsItsEntryAndWhatItWroteIsSeenAfterTheWait)
{
    const Probe tProbe = RunOne();
    EXPECT_TRUE(tProbe.bRan);
    EXPECT_NE(tProbe.nThread, gettid());
}

TEST(HostTask, IdentifierIsTheThreadsAndThereForBothSides)
{
    const Probe tProbe = RunOne();
    EXPECT_EQ(tProbe.qwTaskID, static_cast<uint64_t>(tProbe.nThread));
    EXPECT_EQ(tProbe.qwTaskIDSeen, tProbe.qwTaskID);
}

TEST(HostTask, IdentifierIsThereWhenTheCallReturns)
{
    Probe tProbe;
    ASSERT_NE(OspSemBCreate(&tProbe.hMayGo), 0U);
    OspSemTake(tProbe.hMayGo);
    HOspTask hTask = Start(tProbe);
    ASSERT_NE(hTask, nullptr);
    const uint64_t qwTaskID = tProbe.qwTaskID;
    OspSemGive(tProbe.hMayGo);
    EXPECT_NE(OspTaskWaitEnd(hTask), 0U);
    EXPECT_EQ(qwTaskID, static_cast<uint64_t>(tProbe.nThread));
    OspSemDelete(tProbe.hMayGo);
}

TEST(HostTask, IdentifierMayBeUnwanted)
{
    Probe tProbe;
    HOspTask hTask = OspTaskCreate(Look, "probe", PRIORITY, STACK_SIZE, &tProbe, 0, nullptr);
    ASSERT_NE(hTask, nullptr);
    EXPECT_NE(OspTaskWaitEnd(hTask), 0U);
    EXPECT_TRUE(tProbe.bRan);
}

TEST(HostTask, NameIsCutToWhatTheKernelKeeps)
{
    EXPECT_EQ(RunOne("123456789012345").strName, "123456789012345");
    EXPECT_EQ(RunOne("1234567890123456").strName, "123456789012345");
}

TEST(HostTask, NameIsCopied)
{
    Probe tProbe;
    ASSERT_NE(OspSemBCreate(&tProbe.hMayGo), 0U);
    OspSemTake(tProbe.hMayGo);
    char achName[] = "first";
    HOspTask hTask = Start(tProbe, achName);
    ASSERT_NE(hTask, nullptr);
    strcpy(achName, "other");
    OspSemGive(tProbe.hMayGo);
    OspTaskWaitEnd(hTask);
    EXPECT_EQ(tProbe.strName, "first");
    OspSemDelete(tProbe.hMayGo);
}

TEST(HostTask, NameMayBeNull)
{
    EXPECT_TRUE(RunOne(nullptr).bRan);
}

void MeasureStack(void *pvSize)
{
    *static_cast<size_t *>(pvSize) = OwnStackSize();
}

TEST(HostTask, StackHasAtLeastItsSize)
{
    for (const uint32_t dwWanted : {512U * 1024, 2U * 1024 * 1024, 2U * 1024 * 1024 + 1, 32U * 1024 * 1024}) {
        EXPECT_GE(RunOne("probe", PRIORITY, dwWanted).uStackSize, dwWanted);
    }
}

/* The first thread of the process: a later one may be given the larger stack of one that has ended. */
TEST(HostTask, StackIsNotTheHostsUsualOne)
{
    size_t uSize = 0;
    HOspTask hTask = OspTaskCreate(MeasureStack, "modest", PRIORITY, 512 * 1024, &uSize, 0, nullptr);
    ASSERT_NE(hTask, nullptr);
    OspTaskWaitEnd(hTask);
    EXPECT_GE(uSize, 512U * 1024);
    EXPECT_LT(uSize, 2U * 1024 * 1024);
}

TEST(HostTask, StackCanBeUsed)
{
    const PFOspTaskEntry pfUse = [](void *pvSum) {
        volatile char achBlock[1024 * 1024];
        for (size_t uI = 0; uI < sizeof(achBlock); uI += 1024) {
            achBlock[uI] = 1;
            *static_cast<int *>(pvSum) += achBlock[uI];
        }
    };
    int nSum = 0;
    HOspTask hTask = OspTaskCreate(pfUse, "deep", PRIORITY, 2 * 1024 * 1024, &nSum, 0, nullptr);
    ASSERT_NE(hTask, nullptr);
    OspTaskWaitEnd(hTask);
    EXPECT_EQ(nSum, 1024);
}

TEST(HostTask, TooSmallAStackBecomesTheHostsSmallest)
{
    for (const uint32_t dwWanted : {0U, 1U}) {
        size_t uSize = 0;
        HOspTask hTask = OspTaskCreate(MeasureStack, "small", 0, dwWanted, &uSize, 0, nullptr);
        ASSERT_NE(hTask, nullptr);
        EXPECT_NE(OspTaskWaitEnd(hTask), 0U);
        EXPECT_GE(uSize, static_cast<size_t>(PTHREAD_STACK_MIN));
    }
}

#ifndef UNDER_SANITIZER /* their own memory goes far beyond any limit set here */
TEST(HostTask, NoTaskWithoutItsStack)
{
    rlimit tLimit = {};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &tLimit), 0);
    tLimit.rlim_cur = 1024UL * 1024 * 1024;
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tLimit), 0);
    Probe tProbe;
    EXPECT_EQ(Start(tProbe, "huge", PRIORITY, 0xFFFFFFFFU), nullptr);
    EXPECT_FALSE(tProbe.bRan);
    EXPECT_TRUE(RunOne().bRan);
}
#endif

/* Whether this process may, is found out by doing it. */
bool MayBeRealTime(int nPriority)
{
    bool bMay = false;
    std::thread([&bMay, nPriority] {
        sched_param tParam = {};
        tParam.sched_priority = nPriority;
        bMay = sched_setscheduler(0, SCHED_RR, &tParam) == 0;
    }).join();
    return bMay;
}

TEST(HostTask, PriorityIsTried)
{
    const int nLowest = sched_get_priority_min(SCHED_RR);
    if (!MayBeRealTime(nLowest + 7)) {
        GTEST_SKIP() << "this process may not set priorities";
    }
    for (const uint8_t byPriority : {uint8_t{1}, uint8_t{99}, uint8_t{255}}) {
        const Probe tProbe = RunOne("probe", byPriority);
        EXPECT_EQ(tProbe.nPolicy, SCHED_RR);
        EXPECT_EQ(tProbe.nPriority, nLowest + byPriority / 32);
        EXPECT_EQ(tProbe.nChildPolicy, SCHED_OTHER);
    }
}

TEST(HostTask, PriorityZeroAsksForNothing)
{
    EXPECT_EQ(RunOne("probe", 0).nPolicy, sched_getscheduler(0));
}

/* Gives up what lets this thread and those it starts set priorities. */
void GiveUpPriorities()
{
    __user_cap_header_struct tHeader = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct atData[2] = {};
    ASSERT_EQ(syscall(SYS_capget, &tHeader, atData), 0);
    atData[0].effective &= ~(1U << CAP_SYS_NICE);
    ASSERT_EQ(syscall(SYS_capset, &tHeader, atData), 0);
    const rlimit tNone = {0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, &tNone), 0);
}

TEST(HostTask, TaskStartsWithoutAPriorityThatIsNotAllowed)
{
    GiveUpPriorities();
    ASSERT_FALSE(MayBeRealTime(sched_get_priority_min(SCHED_RR)));
    const Probe tProbe = RunOne();
    EXPECT_TRUE(tProbe.bRan);
    EXPECT_EQ(tProbe.nPolicy, sched_getscheduler(0));
}

TEST(HostTask, RefusesNoEntryAndFlags)
{
    Probe tProbe;
    EXPECT_EQ(OspTaskCreate(nullptr, "none", PRIORITY, STACK_SIZE, &tProbe, 0, nullptr), nullptr);
    EXPECT_EQ(OspTaskCreate(Look, "flags", PRIORITY, STACK_SIZE, &tProbe, 1, nullptr), nullptr);
    EXPECT_FALSE(tProbe.bRan);
}

TEST(HostTask, WaitReturnsForATaskThatHasEndedAlready)
{
    HOspSem hEnded = nullptr;
    ASSERT_NE(OspSemBCreate(&hEnded), 0U);
    OspSemTake(hEnded);
    const PFOspTaskEntry pfEnd = [](void *pvSem) { OspSemGive(static_cast<HOspSem>(pvSem)); };
    HOspTask hTask = OspTaskCreate(pfEnd, "short", PRIORITY, STACK_SIZE, hEnded, 0, nullptr);
    ASSERT_NE(hTask, nullptr);
    OspSemTake(hEnded);
    EXPECT_NE(OspTaskWaitEnd(hTask), 0U);
    OspSemDelete(hEnded);
}

TEST(HostTask, AnyThreadMayWait)
{
    Probe tProbe;
    HOspTask hTask = Start(tProbe);
    ASSERT_NE(hTask, nullptr);
    std::thread([hTask] { EXPECT_NE(OspTaskWaitEnd(hTask), 0U); }).join();
    EXPECT_TRUE(tProbe.bRan);
}

TEST(HostTask, WaitFailsForAZeroHandle)
{
    EXPECT_EQ(OspTaskWaitEnd(nullptr), 0U);
}

struct SelfWait {
    HOspSem hMayGo;
    HOspTask hTask;
    uint32_t dwResult;
};

TEST(HostTask, WaitFailsForTheTaskItselfAndStillSucceedsForOthers)
{
    SelfWait tSelf = {nullptr, nullptr, 7};
    ASSERT_NE(OspSemBCreate(&tSelf.hMayGo), 0U);
    OspSemTake(tSelf.hMayGo);
    const PFOspTaskEntry pfWait = [](void *pvSelf) {
        SelfWait &rSelf = *static_cast<SelfWait *>(pvSelf);
        OspSemTake(rSelf.hMayGo);
        rSelf.dwResult = OspTaskWaitEnd(rSelf.hTask);
    };
    tSelf.hTask = OspTaskCreate(pfWait, "self", PRIORITY, STACK_SIZE, &tSelf, 0, nullptr);
    ASSERT_NE(tSelf.hTask, nullptr);
    OspSemGive(tSelf.hMayGo);
    EXPECT_NE(OspTaskWaitEnd(tSelf.hTask), 0U);
    EXPECT_EQ(tSelf.dwResult, 0U);
    OspSemDelete(tSelf.hMayGo);
}

} // namespace
