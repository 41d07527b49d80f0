/* Instances: Init, Uninit, their clean-up, the two console commands. */
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <future>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "engine/httpcurlclient_inner.h"
#include "nvrhttpcurl/hcc_tools.h"
#include "support/hcc_log.h"
#include "tests/support/engine_fixture.h"

namespace
{

using namespace test;

const char *const INIT = "NvrHttpCurlCltInit";
const char *const UNINIT = "NvrHttpCurlCltUninit";
const char *const CLEANUP = "_NvrHttpCurlCltCleanup";
const char *const SHOW = "NvrHttpCurlCltshow";

/* Memory whose fresh blocks are full of rubbish, and who watches it. */
std::vector<size_t> mallocSizes;
std::function<void()> onMalloc;
std::function<void(void *)> onFree;

void *SpyMalloc(size_t size)
{
    if (onMalloc) {
        onMalloc();
    }
    mallocSizes.push_back(size);
    void *block = fake::MemCB().pfMalloc(size);
    if (block != nullptr) {
        memset(block, 0xA5, size);
    }
    return block;
}

void *SpyRealloc(void *block, size_t size)
{
    return fake::MemCB().pfRealloc(block, size);
}

void SpyFree(void *block)
{
    if (onFree) {
        onFree(block);
    }
    fake::MemCB().pfFree(block);
}

const TNvrHttpCurlCltMemCB SPY = {SpyMalloc, SpyRealloc, SpyFree};

HNvrHttpCurlCltInst MustStartSpied(uint32_t tasks)
{
    return MustStart(tasks, 8, SPY);
}

std::vector<unsigned char> TableBytes()
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(&g_tNvrHttpCurlCltCont);
    return std::vector<unsigned char>(bytes, bytes + sizeof(g_tNvrHttpCurlCltCont));
}

/* The line that Init logs first. */
Line TickLine()
{
    return Info(INIT, " NVRHCCTickToMS(1) return %u\n", NVRHCCTickToMS(1));
}

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

/* Each case ends every instance that it starts; nothing of them remains. */
class InstanceTest : public EngineTest
{
  protected:
    void SetUp() override
    {
        openBefore = OpenDescriptors();
    }

    void TearDown() override
    {
        EXPECT_EQ(OpenDescriptors(), openBefore);
        EXPECT_EQ(fake::TasksWaited(), fake::Tasks().size());
        for (unsigned i = 0; i < 16; ++i) {
            EXPECT_TRUE(IsFree(Slot(i))) << i;
        }
        EngineTest::TearDown();
    }

    std::set<int> openBefore;
};

/* --- arguments ---------------------------------------------------------------------------------- */

class InitArguments : public InstanceTest
{
  protected:
    /* Init returns 4, prints its one line and does nothing else. */
    void ExpectRefused(const TNvrHttpCurlCltInitParam *param, const TNvrHttpCurlCltMemCB *memoryCB,
                       HNvrHttpCurlCltInst *result)
    {
        const std::vector<unsigned char> before = TableBytes();
        uint32_t got = 0;
        const std::string printed = StandardOutputOf([&] { got = NvrHttpCurlCltInit(param, memoryCB, result); });
        EXPECT_EQ(got, 4U);
        EXPECT_EQ(printed,
                  Text("invalid arg, ptInitParam %p, dwThreadNum %u, dwMaxAsycReqNum %u, ptMemCB %p, pfMalloc %p, "
                       "pfRealloc %p, pfFree %p, phResult %p\n",
                       Ptr(param), param != nullptr ? param->dwThreadNum : 0,
                       param != nullptr ? param->dwMaxAsycReqNum : 0, Ptr(memoryCB),
                       memoryCB != nullptr ? Ptr(memoryCB->pfMalloc) : nullptr,
                       memoryCB != nullptr ? Ptr(memoryCB->pfRealloc) : nullptr,
                       memoryCB != nullptr ? Ptr(memoryCB->pfFree) : nullptr, Ptr(result)));
        EXPECT_TRUE(fake::Lines().empty()) << fake::Transcript();
        EXPECT_TRUE(fake::Commands().empty());
        EXPECT_EQ(fake::SemsCreated(), 0U);
        EXPECT_EQ(TableBytes(), before);
        EXPECT_EQ(instance, untouched);
    }

    const TNvrHttpCurlCltInitParam good = {2, 8};
    const TNvrHttpCurlCltMemCB memory = fake::MemCB();
    const HNvrHttpCurlCltInst untouched = Slot(5);
    HNvrHttpCurlCltInst instance = untouched;
};

TEST_F(InitArguments, RefusesANullInitParam)
{
    ExpectRefused(nullptr, &memory, &instance);
}

TEST_F(InitArguments, RefusesSeventeenTasks)
{
    const TNvrHttpCurlCltInitParam param = {17, 8};
    ExpectRefused(&param, &memory, &instance);
}

TEST_F(InitArguments, RefusesAnyHigherNumberOfTasks)
{
    const TNvrHttpCurlCltInitParam param = {0xFFFFFFFFU, 8};
    ExpectRefused(&param, &memory, &instance);
}

TEST_F(InitArguments, RefusesALimitOf1025)
{
    const TNvrHttpCurlCltInitParam param = {2, 1025};
    ExpectRefused(&param, &memory, &instance);
}

TEST_F(InitArguments, RefusesAnyHigherLimit)
{
    const TNvrHttpCurlCltInitParam param = {2, 0xFFFFFFFFU};
    ExpectRefused(&param, &memory, &instance);
}

TEST_F(InitArguments, RefusesNullMemoryCallbacks)
{
    ExpectRefused(&good, nullptr, &instance);
}

TEST_F(InitArguments, RefusesAMissingMalloc)
{
    const TNvrHttpCurlCltMemCB partial = {nullptr, memory.pfRealloc, memory.pfFree};
    ExpectRefused(&good, &partial, &instance);
}

TEST_F(InitArguments, RefusesAMissingRealloc)
{
    const TNvrHttpCurlCltMemCB partial = {memory.pfMalloc, nullptr, memory.pfFree};
    ExpectRefused(&good, &partial, &instance);
}

TEST_F(InitArguments, RefusesAMissingFree)
{
    const TNvrHttpCurlCltMemCB partial = {memory.pfMalloc, memory.pfRealloc, nullptr};
    ExpectRefused(&good, &partial, &instance);
}

TEST_F(InitArguments, RefusesThreeMissingCallbacks)
{
    const TNvrHttpCurlCltMemCB none = {};
    ExpectRefused(&good, &none, &instance);
}

TEST_F(InitArguments, RefusesANullResult)
{
    ExpectRefused(&good, &memory, nullptr);
}

TEST_F(InitArguments, PrintsOneLineForManyFaults)
{
    const TNvrHttpCurlCltInitParam param = {99, 2000};
    const TNvrHttpCurlCltMemCB none = {};
    ExpectRefused(&param, &none, nullptr);
    ExpectRefused(nullptr, nullptr, nullptr);
}

TEST_F(InitArguments, PrintsWhateverTheLogSwitchSays)
{
    for (const unsigned type : {0U, 1U, 2U, 3U}) {
        g_bySendCurlLogType = static_cast<uint8_t>(type);
        ExpectRefused(nullptr, &memory, &instance);
    }
}

TEST_F(InitArguments, TakesSixteenTasksAnd1024Requests)
{
    ASSERT_EQ(TryStart(16, &instance, 1024), 0U) << fake::Transcript();
    EXPECT_EQ(instance, Slot(0));
    EXPECT_EQ(instance->dwTaskNum, 16U);
    EXPECT_EQ(instance->dwAsyncReqMaxNum, 1024U);
    EXPECT_EQ(fake::Tasks().size(), 16U);
    NvrHttpCurlCltUninit(instance);
}

TEST_F(InitArguments, TakesNoTasksAndNoRequests)
{
    ASSERT_EQ(TryStart(0, &instance, 0), 0U) << fake::Transcript();
    EXPECT_EQ(instance, Slot(0));
    EXPECT_EQ(instance->bInited, 1U);
    EXPECT_EQ(instance->atTasks, nullptr);
    EXPECT_EQ(instance->dwTaskNum, 0U);
    EXPECT_EQ(instance->dwAsyncReqMaxNum, 0U);
    EXPECT_EQ(fake::Mallocs(), 0U);
    EXPECT_TRUE(fake::Tasks().empty());
    NvrHttpCurlCltUninit(instance);
}

/* --- commands and ticks -------------------------------------------------------------------------- */

class InitOpening : public InstanceTest
{
  protected:
    static void ExpectCommands(size_t times)
    {
        const std::vector<fake::CommandInfo> commands = fake::Commands();
        ASSERT_EQ(commands.size(), 2 * times);
        for (size_t i = 0; i < commands.size(); i += 2) {
            EXPECT_EQ(commands[i].name, "NvrHttpCurlCltver");
            EXPECT_EQ(commands[i].help, "NvrHttpCurlCltver");
            EXPECT_EQ(commands[i].command, reinterpret_cast<PFOspCommand>(_NvrHttpCurlCltShowVersion));
            EXPECT_EQ(commands[i + 1].name, "NvrHttpCurlCltshow");
            EXPECT_EQ(commands[i + 1].help, "NvrHttpCurlCltshow");
            EXPECT_EQ(commands[i + 1].command, reinterpret_cast<PFOspCommand>(NvrHttpCurlCltshow));
        }
    }
};

TEST_F(InitOpening, RegistersBothCommandsEachTime)
{
    HNvrHttpCurlCltInst first = MustStart(1);
    ExpectCommands(1);
    HNvrHttpCurlCltInst second = MustStart(0);
    ExpectCommands(2);
    NvrHttpCurlCltUninit(first);
    NvrHttpCurlCltUninit(second);
    ExpectCommands(2);
}

TEST_F(InitOpening, RegistersTheCommandsBeforeItTouchesAnything)
{
    bool registered = false;
    onMalloc = [&registered] { registered = fake::Commands().size() == 2; };
    NvrHttpCurlCltUninit(MustStartSpied(1));
    onMalloc = nullptr;
    EXPECT_TRUE(registered);
}

TEST_F(InitOpening, RegistersTheCommandsWhenMemoryFails)
{
    HNvrHttpCurlCltInst instance = nullptr;
    fake::FailMalloc(1);
    EXPECT_EQ(TryStart(1, &instance), 5U);
    ExpectCommands(1);
}

TEST_F(InitOpening, RegistersTheCommandsWhenASemaphoreFails)
{
    HNvrHttpCurlCltInst instance = nullptr;
    fake::FailSemCreate(1);
    EXPECT_EQ(TryStart(1, &instance), 1U);
    ExpectCommands(1);
}

TEST_F(InitOpening, RegistersTheCommandsWhenNoSlotIsFree)
{
    HNvrHttpCurlCltInst instances[16];
    for (HNvrHttpCurlCltInst &instance : instances) {
        instance = MustStart(0);
    }
    HNvrHttpCurlCltInst none = nullptr;
    EXPECT_EQ(TryStart(0, &none), 8U);
    ExpectCommands(17);
    for (const HNvrHttpCurlCltInst instance : instances) {
        NvrHttpCurlCltUninit(instance);
    }
}

TEST_F(InitOpening, LogsWhatOneTickIsWorth)
{
    hooks::sys_sysconf = [](int) { return 100L; };
    NvrHttpCurlCltUninit(MustStart(0));
    ExpectLines({Info(INIT, " NVRHCCTickToMS(1) return %u\n", 0U)});
}

TEST_F(InitOpening, LogsTheValueThatTheConversionGives)
{
    hooks::sys_sysconf = [](int) { return 1L; };
    NvrHttpCurlCltUninit(MustStart(0));
    ExpectLines({Info(INIT, " NVRHCCTickToMS(1) return %u\n", 1000U)});
}

TEST_F(InitOpening, PrimesTheTickRate)
{
    unsigned asked = 0;
    hooks::sys_sysconf = [&asked](int) {
        ++asked;
        return 100L;
    };
    NvrHttpCurlCltUninit(MustStart(0));
    EXPECT_EQ(asked, 1U);
    EXPECT_EQ(NVRHCCTickToMS(200), 2000U);
    EXPECT_EQ(asked, 1U);
}

/* --- slots -------------------------------------------------------------------------------------------- */

class Slots : public InstanceTest
{
};

TEST_F(Slots, AreTakenFromTheFirstOn)
{
    HNvrHttpCurlCltInst instances[3];
    for (unsigned i = 0; i < 3; ++i) {
        instances[i] = MustStart(i);
        EXPECT_EQ(instances[i], Slot(i));
        EXPECT_EQ(instances[i]->bInited, 1U);
    }
    for (const HNvrHttpCurlCltInst instance : instances) {
        NvrHttpCurlCltUninit(instance);
    }
}

TEST_F(Slots, TheFirstFreeOneIsTakenAgain)
{
    HNvrHttpCurlCltInst instances[3];
    for (HNvrHttpCurlCltInst &instance : instances) {
        instance = MustStart(1);
    }
    NvrHttpCurlCltUninit(instances[1]);
    EXPECT_EQ(MustStart(1), Slot(1));
    EXPECT_STREQ(Slot(1)->atTasks[0].szThreadName, "NvrHttpCurlClt0100");
    EXPECT_EQ(MustStart(1), Slot(3));
    for (unsigned i = 0; i < 4; ++i) {
        NvrHttpCurlCltUninit(Slot(i));
    }
}

TEST_F(Slots, InitAfterUninitOfTheOnlyInstanceTakesSlotZeroAgain)
{
    NvrHttpCurlCltUninit(MustStart(2));
    HNvrHttpCurlCltInst instance = MustStart(2);
    EXPECT_EQ(instance, Slot(0));
    EXPECT_STREQ(instance->atTasks[0].szThreadName, "NvrHttpCurlClt0000");
    EXPECT_STREQ(instance->atTasks[1].szThreadName, "NvrHttpCurlClt0001");
    NvrHttpCurlCltUninit(instance);
}

TEST_F(Slots, TheSeventeenthInitReturns8AndTouchesNone)
{
    HNvrHttpCurlCltInst instances[16];
    for (HNvrHttpCurlCltInst &instance : instances) {
        instance = MustStart(1);
    }
    const std::vector<unsigned char> before = TableBytes();
    const size_t sems = fake::SemsCreated();
    const size_t mallocs = fake::Mallocs();
    fake::ClearLines();

    HNvrHttpCurlCltInst none = Slot(7);
    EXPECT_EQ(TryStart(1, &none), 8U);

    EXPECT_EQ(none, Slot(7));
    EXPECT_EQ(TableBytes(), before);
    EXPECT_EQ(fake::SemsCreated(), sems);
    EXPECT_EQ(fake::Mallocs(), mallocs);
    ExpectLines({TickLine()});
    for (const HNvrHttpCurlCltInst instance : instances) {
        NvrHttpCurlCltUninit(instance);
    }
}

/* --- what Init builds ---------------------------------------------------------------------------------- */

class Init : public InstanceTest
{
  protected:
    /* Binds nothing, refuses nothing: the first task has 46990, the next 46989 and so on. */
    static void PretendPorts()
    {
        static std::set<uint16_t> taken;
        hooks::sys_bind = [](int, const sockaddr *address, socklen_t) {
            sockaddr_in in = {};
            memcpy(&in, address, sizeof(in));
            if (taken.insert(ntohs(in.sin_port)).second) {
                return 0;
            }
            errno = EADDRINUSE;
            return -1;
        };
    }
};

TEST_F(Init, KeepsItsOwnCopyOfTheCallbacks)
{
    TNvrHttpCurlCltInitParam param = {1, 8};
    TNvrHttpCurlCltMemCB memory = fake::MemCB();
    HNvrHttpCurlCltInst instance = nullptr;
    ASSERT_EQ(NvrHttpCurlCltInit(&param, &memory, &instance), 0U);
    memory = {};
    param = {99, 99};
    EXPECT_EQ(instance->tMemCB.pfMalloc, fake::MemCB().pfMalloc);
    EXPECT_EQ(instance->tMemCB.pfRealloc, fake::MemCB().pfRealloc);
    EXPECT_EQ(instance->tMemCB.pfFree, fake::MemCB().pfFree);
    NvrHttpCurlCltUninit(instance);
}

TEST_F(Init, TakesTheTaskArrayAsOneBlock)
{
    HNvrHttpCurlCltInst instance = MustStartSpied(5);
    EXPECT_EQ(mallocSizes, (std::vector<size_t>{5 * sizeof(TNvrHttpCurlCltTask)}));
    NvrHttpCurlCltUninit(instance);
}

TEST_F(Init, FillsEveryTaskRecordAlthoughFreshMemoryIsFullOfRubbish)
{
    HNvrHttpCurlCltInst instance = MustStartSpied(3);
    for (uint32_t i = 0; i < 3; ++i) {
        const TNvrHttpCurlCltTask &task = instance->atTasks[i];
        EXPECT_NE(task.hRunLock, nullptr);
        EXPECT_NE(task.hFinLock, nullptr);
        EXPECT_FALSE(fake::SemIsTaken(task.hRunLock));
        EXPECT_FALSE(fake::SemIsTaken(task.hFinLock));
        for (const TNVRHCCList *list : {&task.tRunList, &task.tFinList}) {
            EXPECT_EQ(list->dwNumOfElem, 0U);
            EXPECT_EQ(list->ptHead, nullptr);
            EXPECT_EQ(list->ptTail, nullptr);
            EXPECT_EQ(list->pfMalloc, SpyMalloc);
            EXPECT_EQ(list->pfRealloc, SpyRealloc);
            EXPECT_EQ(list->pfFree, SpyFree);
        }
        EXPECT_EQ(task.hTask, fake::Tasks().at(i).task);
        EXPECT_NE(task.qwTaskID, 0U);
        EXPECT_EQ(task.bExit, 0U);
        EXPECT_NE(task.ptCurlMultiHandle, nullptr);
        EXPECT_EQ(task.tUdpMonitorSock.bInit, 1U);
        EXPECT_TRUE(IsOpen(task.tUdpMonitorSock.nSock));
        EXPECT_GE(task.tUdpMonitorSock.wPort, 40000);
        EXPECT_LE(task.tUdpMonitorSock.wPort, 46990);
    }
    EXPECT_NE(instance->hAsyncReqNumLock, nullptr);
    EXPECT_FALSE(fake::SemIsTaken(instance->hAsyncReqNumLock));
    EXPECT_EQ(instance->dwAsyncReqNum, 0U);
    EXPECT_EQ(instance->dwAsyncReqMaxNum, 8U);
    EXPECT_EQ(instance->dwTaskNum, 3U);
    EXPECT_EQ(instance->bInited, 1U);
    EXPECT_EQ(fake::SemsAlive(), 2U * 3 + 2);
    NvrHttpCurlCltUninit(instance);
}

TEST_F(Init, StartsEachThreadAsTold)
{
    HNvrHttpCurlCltInst instance = MustStart(3);
    const std::vector<fake::TaskInfo> tasks = fake::Tasks();
    ASSERT_EQ(tasks.size(), 3U);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(tasks[i].name, Text("NvrHttpCurlClt000%u", i));
        EXPECT_EQ(tasks[i].priority, 99);
        EXPECT_EQ(tasks[i].stackSize, 2097152U);
        EXPECT_EQ(tasks[i].flags, 0);
        EXPECT_EQ(tasks[i].entry, _NvrHttpCurlCltWorkerRoutine);
        EXPECT_EQ(tasks[i].arg, &instance->atTasks[i]);
    }
    NvrHttpCurlCltUninit(instance);
}

TEST_F(Init, NamesThreadsBySlotAndTask)
{
    for (unsigned i = 0; i < 2; ++i) {
        MustStart(0);
    }
    HNvrHttpCurlCltInst instance = MustStart(4);
    EXPECT_EQ(instance, Slot(2));
    EXPECT_STREQ(instance->atTasks[3].szThreadName, "NvrHttpCurlClt0203");
    EXPECT_EQ(fake::Tasks().at(3).name, instance->atTasks[3].szThreadName);
    for (unsigned i = 0; i < 3; ++i) {
        NvrHttpCurlCltUninit(Slot(i));
    }
}

TEST_F(Init, NamesOfTheFirstInstanceGoUpToTwoDigits)
{
    HNvrHttpCurlCltInst instance = MustStart(16);
    EXPECT_STREQ(instance->atTasks[9].szThreadName, "NvrHttpCurlClt0009");
    EXPECT_STREQ(instance->atTasks[10].szThreadName, "NvrHttpCurlClt00010");
    EXPECT_STREQ(instance->atTasks[15].szThreadName, "NvrHttpCurlClt00015");
    NvrHttpCurlCltUninit(instance);
}

TEST_F(Init, NamesWithTwoDigitsEach)
{
    for (unsigned i = 0; i < 15; ++i) {
        MustStart(0);
    }
    HNvrHttpCurlCltInst instance = MustStart(16);
    EXPECT_EQ(instance, Slot(15));
    EXPECT_STREQ(instance->atTasks[9].szThreadName, "NvrHttpCurlClt01509");
    EXPECT_STREQ(instance->atTasks[15].szThreadName, "NvrHttpCurlClt015015");
    for (unsigned i = 0; i < 16; ++i) {
        NvrHttpCurlCltUninit(Slot(i));
    }
}

TEST_F(Init, HasRoomForThirtyOneCharactersOfName)
{
    EXPECT_GE(sizeof(TNvrHttpCurlCltTask::szThreadName), 32U);
}

TEST_F(Init, LogsEachStepInOrder)
{
    hooks::sys_sysconf = [](int) { return 100L; };
    PretendPorts();
    HNvrHttpCurlCltInst instance = MustStart(2);
    Lines want = {Info(INIT, " NVRHCCTickToMS(1) return %u\n", 0U)};
    for (unsigned i = 0; i < 2; ++i) {
        const TNvrHttpCurlCltTask &task = instance->atTasks[i];
        const int fd = task.tUdpMonitorSock.nSock;
        const unsigned port = 46990 - i;
        EXPECT_EQ(task.tUdpMonitorSock.wPort, port);
        if (i == 1) {
            want.push_back(Error("_NvrHttpCurlCltSocket_CreateUdpSocket", "[Error] bind() failed, errno %d{%s}\n",
                                 EADDRINUSE, strerror(EADDRINUSE)));
            want.push_back(Error("_NvrHttpCurlCltCreateUdpMonitor",
                                 "[Error] websCreateUdpMonitor() PortII[%d] is Occupied\n", 46990));
        }
        want.push_back(Info("_NvrHttpCurlCltSocket_CreateUdpSocket", " create s_nTheUdpSock %d, %d\n", fd, fd));
        want.push_back(
            Info("_NvrHttpCurlCltCreateUdpMonitor", " _NvrHttpCurlCltCreateUdpMonitor(), %s:%d\n", "127.0.0.1", port));
        want.push_back(Info("_NvrHttpCurlCltCreateUdpMonitor", " get socket port wPortII %d\n", port));
        want.push_back(Info("_NvrHttpCurlCltCreateUdpMonitor", " return *pwPort %d, *pbCreatSocket %d\n", port, 1));
        want.push_back(Info(INIT, " Task[%p] szThreadName {%s}\n",
                            reinterpret_cast<void *>(static_cast<uintptr_t>(task.qwTaskID)),
                            Text("NvrHttpCurlClt000%u", i).c_str()));
    }
    ExpectLines(want);
    NvrHttpCurlCltUninit(instance);
}

TEST_F(Init, BuildsOneTaskAfterTheOtherAndMarksTheInstanceUsableLast)
{
    unsigned index = 0;
    hooks::multi_init = [&index] {
        EXPECT_EQ(fake::Tasks().size(), index);
        EXPECT_EQ(fake::SemsAlive(), 2U * (index + 1));
        EXPECT_EQ(Slot(0)->dwTaskNum, index + 1);
        EXPECT_EQ(Slot(0)->bInited, 0U);
        EXPECT_EQ(Slot(0)->hAsyncReqNumLock, nullptr);
        EXPECT_EQ(Slot(0)->atTasks[index].tUdpMonitorSock.bInit, 1U);
        ++index;
        return hooks::real::multi_init();
    };
    HNvrHttpCurlCltInst instance = MustStart(3);
    EXPECT_EQ(index, 3U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 0U);
    NvrHttpCurlCltUninit(instance);
}

TEST_F(Init, TheThreadsRun)
{
    fake::RunTasks(true);
    HNvrHttpCurlCltInst instance = MustStart(4);
    EXPECT_TRUE(WaitUntil([] { return fake::CountTexts(" thread name {NvrHttpCurlClt000") == 4; }));
    NvrHttpCurlCltUninit(instance);
}

/* --- the lock of curl_easy_init ---------------------------------------------------------------------------- */

class EasyInitLocker : public InstanceTest
{
  protected:
    static void ExpectUsable(HOspSem sem)
    {
        EXPECT_FALSE(fake::SemIsTaken(sem));
        EXPECT_NE(OspSemTake(sem), 0U);
        EXPECT_NE(OspSemGive(sem), 0U);
    }
};

TEST_F(EasyInitLocker, OutlivesTheInstance)
{
    EXPECT_EQ(g_sEasyInitLocker, nullptr);
    NvrHttpCurlCltUninit(MustStart(1));
    ASSERT_NE(g_sEasyInitLocker, nullptr);
    ExpectUsable(g_sEasyInitLocker);
    EXPECT_EQ(fake::SemsAlive(), 1U);
}

TEST_F(EasyInitLocker, IsReplacedByASecondInstanceAndNotDeleted)
{
    HNvrHttpCurlCltInst first = MustStart(1);
    const HOspSem old = g_sEasyInitLocker;
    HNvrHttpCurlCltInst second = MustStart(1);
    EXPECT_NE(g_sEasyInitLocker, old);
    ExpectUsable(old);
    ExpectUsable(g_sEasyInitLocker);
    NvrHttpCurlCltUninit(first);
    NvrHttpCurlCltUninit(second);
    ExpectUsable(old);
    ExpectUsable(g_sEasyInitLocker);
    EXPECT_EQ(fake::SemsAlive(), 2U);
}

TEST_F(EasyInitLocker, IsCreatedAfreshAfterUninitToo)
{
    NvrHttpCurlCltUninit(MustStart(0));
    const HOspSem old = g_sEasyInitLocker;
    NvrHttpCurlCltUninit(MustStart(0));
    EXPECT_NE(g_sEasyInitLocker, old);
    EXPECT_EQ(fake::SemsAlive(), 2U);
}

TEST_F(EasyInitLocker, StaysAsItIsWhenInitFailsBefore)
{
    NvrHttpCurlCltUninit(MustStart(0));
    const HOspSem old = g_sEasyInitLocker;
    HNvrHttpCurlCltInst none = nullptr;
    fake::FailSemCreate(1); /* hAsyncReqNumLock */
    EXPECT_EQ(TryStart(0, &none), 1U);
    EXPECT_EQ(g_sEasyInitLocker, old);
    ExpectUsable(old);
}

TEST_F(EasyInitLocker, StaysAsItIsWhenItCannotBeReplaced)
{
    NvrHttpCurlCltUninit(MustStart(0));
    const HOspSem old = g_sEasyInitLocker;
    HNvrHttpCurlCltInst none = nullptr;
    fake::FailSemCreate(2);
    EXPECT_EQ(TryStart(0, &none), 1U);
    ExpectLine(Error(INIT, "[Error] g_sEasyInitLocker create failed, dwII %u\n", 0U));
    EXPECT_EQ(g_sEasyInitLocker, old);
    ExpectUsable(old);
    EXPECT_EQ(fake::SemsAlive(), 1U);
}

/* --- failures while an instance is built ---------------------------------------------------------------------- */

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

unsigned binds = 0;
unsigned multis = 0;

void FailFourthSocket()
{
    hooks::sys_bind = [](int fd, const sockaddr *address, socklen_t length) {
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
    hooks::multi_init = []() -> CURLM * { return ++multis == 4 ? nullptr : hooks::real::multi_init(); };
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
     Error(INIT, "[Error] g_sEasyInitLocker create failed, dwII %u\n", 8U), 8, 8, 8, 17},
};

struct FailureCase {
    Failure failure;
    bool threads; /* the tasks that start before the failure really run */
};

std::string NameOf(const FailureCase &failureCase)
{
    return std::string(failureCase.failure.name) + (failureCase.threads ? "WithThreads" : "");
}

void PrintTo(const FailureCase &failureCase, std::ostream *out)
{
    *out << NameOf(failureCase);
}

std::vector<FailureCase> FailureCases()
{
    std::vector<FailureCase> cases;
    for (const Failure &failure : FAILURES) {
        cases.push_back({failure, false});
        cases.push_back({failure, true});
    }
    return cases;
}

class InitFailure : public InstanceTest, public testing::WithParamInterface<FailureCase>
{
};

TEST_P(InitFailure, ReleasesEverythingAndFreesTheSlot)
{
    const Failure &failure = GetParam().failure;
    fake::RunTasks(GetParam().threads);
    std::vector<CURLM *> cleaned;
    hooks::multi_cleanup = [&cleaned](CURLM *multi) {
        cleaned.push_back(multi);
        return hooks::real::multi_cleanup(multi);
    };
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
    NvrHttpCurlCltUninit(instance);
}

INSTANTIATE_TEST_SUITE_P(AtTaskThreeOfEight, InitFailure, testing::ValuesIn(FailureCases()),
                         [](const testing::TestParamInfo<FailureCase> &test) { return NameOf(test.param); });

class InitFailures : public InstanceTest
{
};

TEST_F(InitFailures, TheTaskArrayWithoutMemory)
{
    HNvrHttpCurlCltInst instance = Slot(9);
    fake::FailMalloc(1);
    fake::ClearLines();
    EXPECT_EQ(TryStart(8, &instance), 5U);
    EXPECT_EQ(instance, Slot(9));
    ExpectLines({TickLine(), Error(INIT, "[Error] malloc failed, atTasks\n")});
    EXPECT_TRUE(IsFree(Slot(0)));
    EXPECT_EQ(fake::SemsCreated(), 0U);
    EXPECT_EQ(fake::Frees(), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 0U);
}

TEST_F(InitFailures, HalfBuiltTasksInFreshMemoryFullOfRubbish)
{
    const TNvrHttpCurlCltInitParam param = {2, 8};
    for (unsigned nth = 1; nth <= 6; ++nth) {
        HNvrHttpCurlCltInst instance = nullptr;
        fake::FailSemCreate(nth);
        EXPECT_EQ(NvrHttpCurlCltInit(&param, &SPY, &instance), 1U) << nth;
        EXPECT_TRUE(IsFree(Slot(0)));
        EXPECT_EQ(fake::SemsAlive(), 0U);
        EXPECT_EQ(OpenDescriptors(), openBefore);
    }
}

TEST_F(InitFailures, LeaveOtherInstancesAloneAndNameTheSlot)
{
    HNvrHttpCurlCltInst first = MustStart(2);
    HNvrHttpCurlCltInst second = MustStart(0);
    const std::vector<unsigned char> before = TableBytes();
    const size_t sems = fake::SemsAlive();
    fake::FailTaskCreate(1);
    HNvrHttpCurlCltInst none = nullptr;
    EXPECT_EQ(TryStart(2, &none), 1U);
    ExpectLine(Error(INIT, "[Error] create task failed, dwInstIndex %u, dwII %u\n", 2U, 0U));
    EXPECT_EQ(TableBytes(), before);
    EXPECT_EQ(fake::SemsAlive(), sems);
    NvrHttpCurlCltUninit(first);
    NvrHttpCurlCltUninit(second);
}

TEST_F(InitFailures, AThreadThatCannotBeWaitedForDoesNotStopTheRollback)
{
    fake::FailTaskWait(true);
    fake::FailTaskCreate(3);
    HNvrHttpCurlCltInst none = nullptr;
    EXPECT_EQ(TryStart(4, &none), 1U);
    EXPECT_EQ(ErrorsOf(CLEANUP), (Lines{Error(CLEANUP, "[Error] task wait failed, dwII %u\n", 0U),
                                        Error(CLEANUP, "[Error] task wait failed, dwII %u\n", 1U)}));
    EXPECT_EQ(fake::SemsAlive(), 0U);
}

/* --- Uninit ----------------------------------------------------------------------------------------------------- */

class Uninit : public InstanceTest
{
};

TEST_F(Uninit, OfNullLogsAndDoesNothing)
{
    const std::vector<unsigned char> before = TableBytes();
    NvrHttpCurlCltUninit(nullptr);
    ExpectLines({Error(UNINIT, "[Error] invalid arg, hInstance %p\n", Ptr(nullptr))});
    EXPECT_EQ(TableBytes(), before);
}

TEST_F(Uninit, OfAFreeSlotLogsAndDoesNothing)
{
    const std::vector<unsigned char> before = TableBytes();
    NvrHttpCurlCltUninit(Slot(4));
    ExpectLines({Error(UNINIT, "[Error] invalid arg, hInstance %p NOT inited\n", Ptr(Slot(4)))});
    EXPECT_EQ(TableBytes(), before);
}

TEST_F(Uninit, TheSecondOneFindsNothingToDo)
{
    HNvrHttpCurlCltInst instance = MustStart(2);
    NvrHttpCurlCltUninit(instance);
    const size_t cleanups = hooks::Calls("curl_multi_cleanup");
    fake::ClearLines();
    NvrHttpCurlCltUninit(instance);
    ExpectLines({Error(UNINIT, "[Error] invalid arg, hInstance %p NOT inited\n", Ptr(instance))});
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), cleanups);
}

TEST_F(Uninit, ReleasesAllButTheEasyInitLocker)
{
    HNvrHttpCurlCltInst instance = MustStart(8);
    EXPECT_EQ(fake::SemsAlive(), 18U);
    fake::ClearLines();
    NvrHttpCurlCltUninit(instance);
    EXPECT_TRUE(IsFree(instance));
    EXPECT_EQ(fake::SemsAlive(), 1U);
    EXPECT_EQ(fake::BlocksAlive(), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 8U);
    EXPECT_EQ(fake::TasksWaited(), 8U);
    EXPECT_EQ(OpenDescriptors(), openBefore);
    ExpectLines({});
}

TEST_F(Uninit, OfAnInstanceWithoutTasks)
{
    HNvrHttpCurlCltInst instance = MustStart(0);
    NvrHttpCurlCltUninit(instance);
    EXPECT_TRUE(IsFree(instance));
    EXPECT_EQ(fake::SemsAlive(), 1U);
    EXPECT_EQ(fake::Frees(), 0U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 0U);
}

TEST_F(Uninit, SendsNoDatagram)
{
    NvrHttpCurlCltUninit(MustStart(2));
    EXPECT_EQ(hooks::Calls("sendto"), 0U);
}

TEST_F(Uninit, TakesAnyPointerAtItsWord)
{
    TNvrHttpCurlCltInst foreign = {};
    NvrHttpCurlCltUninit(&foreign);
    ExpectLines({Error(UNINIT, "[Error] invalid arg, hInstance %p NOT inited\n", Ptr(&foreign))});

    foreign.bInited = 1;
    foreign.tMemCB = fake::MemCB();
    foreign.dwAsyncReqNum = 3;
    foreign.dwAsyncReqMaxNum = 4;
    ASSERT_NE(OspSemBCreate(&foreign.hAsyncReqNumLock), 0U);
    NvrHttpCurlCltUninit(&foreign);
    EXPECT_TRUE(IsFree(&foreign));
    EXPECT_EQ(fake::SemsAlive(), 0U);
}

TEST_F(Uninit, LogsAFailedWaitAndGoesOn)
{
    HNvrHttpCurlCltInst instance = MustStart(2);
    fake::FailTaskWait(true);
    fake::ClearLines();
    NvrHttpCurlCltUninit(instance);
    ExpectLines({Error(CLEANUP, "[Error] task wait failed, dwII %u\n", 0U),
                 Error(CLEANUP, "[Error] task wait failed, dwII %u\n", 1U)});
    EXPECT_TRUE(IsFree(instance));
    EXPECT_EQ(fake::SemsAlive(), 1U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 2U);
    EXPECT_EQ(OpenDescriptors(), openBefore);
}

TEST_F(Uninit, LeavesOtherInstancesAlone)
{
    HNvrHttpCurlCltInst first = MustStart(2);
    HNvrHttpCurlCltInst second = MustStart(2);
    NvrHttpCurlCltUninit(first);
    EXPECT_EQ(second->bInited, 1U);
    EXPECT_EQ(second->dwTaskNum, 2U);
    EXPECT_EQ(second->atTasks[1].bExit, 0U);
    EXPECT_TRUE(IsOpen(second->atTasks[1].tUdpMonitorSock.nSock));
    EXPECT_FALSE(fake::Tasks().at(2).waited);
    NvrHttpCurlCltUninit(second);
}

TEST_F(Uninit, ClearsTheTaskRecordsBeforeItReleasesThem)
{
    HNvrHttpCurlCltInst instance = MustStartSpied(2);
    TNvrHttpCurlCltTask last[2] = {};
    onFree = [&](void *block) {
        if (block == instance->atTasks) {
            memcpy(last, block, sizeof(last));
        }
    };
    NvrHttpCurlCltUninit(instance);
    onFree = nullptr;
    for (const TNvrHttpCurlCltTask &task : last) {
        EXPECT_EQ(task.hTask, nullptr);
        EXPECT_EQ(task.qwTaskID, 0U);
        EXPECT_EQ(task.bExit, 1U);
        EXPECT_EQ(task.hRunLock, nullptr);
        EXPECT_EQ(task.hFinLock, nullptr);
        EXPECT_EQ(task.tRunList.dwNumOfElem, 0U);
        EXPECT_EQ(task.tFinList.dwNumOfElem, 0U);
        EXPECT_EQ(task.tUdpMonitorSock.nSock, 0);
        EXPECT_EQ(task.tUdpMonitorSock.bInit, 1U);
        EXPECT_EQ(task.ptCurlMultiHandle, nullptr);
    }
}

TEST_F(Uninit, ClearsTheTaskRecordsAlsoWhereTheWaitFails)
{
    HNvrHttpCurlCltInst instance = MustStartSpied(1);
    TNvrHttpCurlCltTask last = {};
    onFree = [&](void *block) {
        if (block == instance->atTasks) {
            memcpy(&last, block, sizeof(last));
        }
    };
    fake::FailTaskWait(true);
    NvrHttpCurlCltUninit(instance);
    onFree = nullptr;
    EXPECT_EQ(last.bExit, 1U);
    EXPECT_EQ(last.hTask, nullptr);
    EXPECT_EQ(last.qwTaskID, 0U);
}

TEST_F(Uninit, EndsSixteenRunningThreads)
{
    fake::RunTasks(true);
    HNvrHttpCurlCltInst instance = MustStart(16);
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(fake::TasksWaited(), 16U);
    EXPECT_TRUE(IsFree(instance));
    EXPECT_EQ(fake::SemsAlive(), 1U);
}

TEST_F(Uninit, EndsThreadsThatHaveHardlyBegun)
{
    fake::RunTasks(true);
    for (int i = 0; i < 20; ++i) {
        NvrHttpCurlCltUninit(MustStart(4));
    }
    EXPECT_EQ(fake::TasksWaited(), 80U);
}

TEST_F(Uninit, MarksEveryTaskBeforeItWaitsForTheFirst)
{
    constexpr unsigned TASKS = 4;
    std::atomic<bool> armed{false};
    std::atomic<unsigned> waiting{0};
    std::atomic<unsigned> gaveUp{0};
    const auto allMarked = [] {
        for (unsigned i = 0; i < TASKS; ++i) {
            if (__atomic_load_n(&Slot(0)->atTasks[i].bExit, __ATOMIC_RELAXED) == 0) {
                return false;
            }
        }
        return true;
    };
    /* Once armed, no worker leaves its wait before all of them are marked for their end. */
    hooks::multi_wait = [&](CURLM *multi, curl_waitfd *extra, unsigned number, int, int *ready) {
        if (armed) {
            ++waiting;
            gaveUp += WaitUntil(allMarked) ? 0 : 1;
        }
        return hooks::real::multi_wait(multi, extra, number, 1, ready);
    };
    fake::RunTasks(true);
    HNvrHttpCurlCltInst instance = MustStart(TASKS);
    armed = true;
    ASSERT_TRUE(WaitUntil([&] { return waiting == TASKS; }));
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(gaveUp, 0U);
    EXPECT_EQ(waiting, TASKS);
}

/* --- Uninit with requests outstanding ------------------------------------------------------------------------------
 */

/* Two tasks; requests go to the one with the shorter run list, the first of them on a tie. */
class UninitWithRequests : public InstanceTest
{
  protected:
    void SetUp() override
    {
        InstanceTest::SetUp();
        /* Adding a handle performs at once; nothing may be sent. */
        hooks::multi_perform = [](CURLM *, int *running) {
            *running = 1;
            return CURLM_OK;
        };
        hooks::multi_remove_handle = [this](CURLM *multi, CURL *easy) {
            events.push_back("remove " + names[easy]);
            EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), CleanedBefore(multi));
            return hooks::real::multi_remove_handle(multi, easy);
        };
        hooks::easy_cleanup = [this](CURL *easy) {
            events.push_back("easy " + names[easy] + Text(" with %zu semaphores", fake::SemsAlive()));
            hooks::real::easy_cleanup(easy);
        };
        hooks::multi_cleanup = [this](CURLM *multi) {
            const unsigned index = TaskOf(multi);
            events.push_back(Text("multi %u with %zu semaphores, sockets", index, fake::SemsAlive()) +
                             (IsOpen(sockets[0]) ? " open" : " closed") + (IsOpen(sockets[1]) ? " open" : " closed"));
            return hooks::real::multi_cleanup(multi);
        };
        instance = MustStartSpied(2);
        for (unsigned i = 0; i < 2; ++i) {
            sockets[i] = instance->atTasks[i].tUdpMonitorSock.nSock;
            multiHandles[i] = instance->atTasks[i].ptCurlMultiHandle;
        }
        onFree = [this](void *block) {
            if (block == instance->atTasks) {
                events.push_back(Text("tasks with %zu semaphores", fake::SemsAlive()));
            }
        };
    }

    void TearDown() override
    {
        onFree = nullptr;
        EXPECT_TRUE(completions.empty());
        EXPECT_EQ(hooks::Calls("curl_easy_init"), hooks::Calls("curl_easy_cleanup"));
        EXPECT_EQ(fake::SemsAlive(), lockers);
        InstanceTest::TearDown();
    }

    unsigned TaskOf(CURLM *multi) const
    {
        return multi == multiHandles[0] ? 0 : 1;
    }

    /* How many multi handles are gone when those before this one are. */
    size_t CleanedBefore(CURLM *multi) const
    {
        return TaskOf(multi);
    }

    HNvrHttpCurlCltReq Queue(const std::string &name)
    {
        HNvrHttpCurlCltReq request = MustQueue(instance);
        names[request->ptReq] = name;
        return request;
    }

    void Add(unsigned task)
    {
        EXPECT_GT(_NvrHttpCurlClt_CheckAddMultiHandle(&instance->atTasks[task], multiHandles[task]), 0U);
    }

    size_t lockers = 1; /* one for each instance that was started */
    HNvrHttpCurlCltInst instance = nullptr;
    int sockets[2] = {-1, -1};
    CURLM *multiHandles[2] = {nullptr, nullptr};
    std::map<CURL *, std::string> names;
    std::vector<std::string> events;
};

TEST_F(UninitWithRequests, ReleasesQueuedOnes)
{
    Queue("a");
    Queue("b");
    Queue("c");
    EXPECT_EQ(instance->dwAsyncReqNum, 3U);
    EXPECT_EQ(instance->atTasks[0].tRunList.dwNumOfElem, 2U);
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 3U);
    EXPECT_TRUE(IsFree(instance));
}

TEST_F(UninitWithRequests, ReleasesFinishedOnes)
{
    Finish(instance->atTasks[0], Queue("a"));
    Finish(instance->atTasks[0], Queue("b"));
    EXPECT_EQ(instance->atTasks[0].tFinList.dwNumOfElem, 2U);
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 2U);
    EXPECT_TRUE(IsFree(instance));
}

TEST_F(UninitWithRequests, TakesThoseInFlightOutOfTheMultiHandleFirst)
{
    Queue("a");
    Queue("b");
    Add(0);
    Add(1);
    events.clear();
    NvrHttpCurlCltUninit(instance);
    for (const char *name : {"a", "b"}) {
        const auto removed = std::find(events.begin(), events.end(), std::string("remove ") + name);
        const auto released = std::find_if(events.begin(), events.end(), [name](const std::string &event) {
            return event.rfind(std::string("easy ") + name, 0) == 0;
        });
        ASSERT_NE(removed, events.end()) << name;
        ASSERT_NE(released, events.end()) << name;
        EXPECT_LT(removed, released) << name;
        EXPECT_EQ(std::count(events.begin(), events.end(), *removed), 1) << name;
    }
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 2U);
}

TEST_F(UninitWithRequests, ReleasesLocksListsSocketAndMultiHandleTaskByTask)
{
    HNvrHttpCurlCltReq finished[] = {Queue("finished0"), Queue("finished1")};
    Finish(instance->atTasks[0], finished[0]);
    Finish(instance->atTasks[1], finished[1]);
    Queue("queued0");
    Queue("queued1");
    ASSERT_EQ(fake::SemsAlive(), 6U);
    events.clear();
    NvrHttpCurlCltUninit(instance);
    /* Handles that were never added may be taken out too; that is not what is looked at here. */
    events.erase(std::remove_if(events.begin(), events.end(),
                                [](const std::string &event) { return event.rfind("remove ", 0) == 0; }),
                 events.end());
    EXPECT_EQ(events, (std::vector<std::string>{
                          "easy queued0 with 5 semaphores",
                          "easy finished0 with 4 semaphores",
                          "multi 0 with 4 semaphores, sockets closed open",
                          "easy queued1 with 3 semaphores",
                          "easy finished1 with 2 semaphores",
                          "multi 1 with 2 semaphores, sockets closed closed",
                          "tasks with 2 semaphores",
                      }));
}

TEST_F(UninitWithRequests, JoinsEveryThreadBeforeItReleasesAnything)
{
    Queue("a");
    size_t waited = 0;
    hooks::easy_cleanup = [&waited](CURL *easy) {
        waited = fake::TasksWaited();
        hooks::real::easy_cleanup(easy);
    };
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(waited, 2U);
}

TEST_F(UninitWithRequests, ReleasesOnesOfEveryKindWithRunningThreads)
{
    fake::RunTasks(true);
    std::atomic<unsigned> performed{0};
    hooks::multi_perform = [&performed](CURLM *, int *running) {
        *running = 1;
        ++performed;
        return CURLM_OK;
    };
    hooks::multi_remove_handle = nullptr;
    hooks::multi_cleanup = nullptr;
    hooks::easy_cleanup = nullptr;
    onFree = nullptr;
    HNvrHttpCurlCltInst running = MustStart(2, 32);
    std::vector<HNvrHttpCurlCltReq> requests;
    for (int i = 0; i < 20; ++i) {
        requests.push_back(MustQueue(running));
    }
    EXPECT_TRUE(WaitUntil([&performed] { return performed > 0; }));
    EXPECT_EQ(running->dwAsyncReqNum, 20U);
    NvrHttpCurlCltUninit(running);
    EXPECT_TRUE(IsFree(running));

    NvrHttpCurlCltUninit(instance);
    lockers = 2;
}

/* A worker that meets a foreign completion can put a node into the finish list a second time. */
TEST_F(UninitWithRequests, ReleasesANodeThatIsLinkedTwiceInOneListOnce)
{
    HNvrHttpCurlCltReq requests[] = {Queue("a"), Queue("b"), Queue("c")};
    TNvrHttpCurlCltTask *task = &instance->atTasks[0];
    Finish(*task, requests[2]);
    Finish(*task, requests[0]);
    ASSERT_EQ(task->tFinList.dwNumOfElem, 2U);
    void *node = task->tFinList.ptHead->pvData;
    ASSERT_EQ(NVRHCCListInsertAfter(&task->tFinList, nullptr, node, nullptr), 0U);
    ASSERT_EQ(NVRHCCListInsertAfter(&task->tFinList, nullptr, node, nullptr), 0U);
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 3U);
}

TEST_F(UninitWithRequests, ReleasesANodeThatIsLinkedInBothListsOnce)
{
    Queue("a");
    Queue("b");
    Queue("c");
    TNvrHttpCurlCltTask *task = &instance->atTasks[0];
    ASSERT_EQ(task->tRunList.dwNumOfElem, 2U);
    Add(0);
    for (TNVRHCCListNode *node = task->tRunList.ptHead; node != nullptr; node = node->ptNext) {
        ASSERT_EQ(NVRHCCListInsertAfter(&task->tFinList, nullptr, node->pvData, nullptr), 0U);
    }
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 3U);
}

TEST_F(UninitWithRequests, LeavesSynchronousRequestsToTheirOwner)
{
    HNvrHttpCurlCltReq request = MustPrepare(instance);
    const TNvrHttpCurlCltMemCB memory = instance->tMemCB;
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(hooks::Calls("curl_easy_cleanup"), 0U);
    EXPECT_GT(fake::BlocksAlive(), 0U);

    /* Such a request is invalid now; the case borrows the slot's callbacks once more to get rid of it. */
    instance->tMemCB = memory;
    _FreeTNvrHttpCurlCltReqInner(request);
    instance->tMemCB = {};
}

/* --- console commands --------------------------------------------------------------------------------------------- */

class ConsoleCommands : public InstanceTest
{
};

TEST_F(ConsoleCommands, VersionLogsTheBuildTimeAsAnError)
{
    EXPECT_EQ(_NvrHttpCurlCltShowVersion(), 0U);
    const Lines lines = Log();
    ASSERT_EQ(lines.size(), 1U);

    /* "Feb  1 2024 04:38:18": parsed and written again it is the same text. */
    const std::string text = lines[0].text;
    tm built = {};
    const char *rest = strptime(text.c_str() + text.find('{') + 1, "%b %e %Y %H:%M:%S", &built);
    ASSERT_NE(rest, nullptr) << text;
    char date[32] = "";
    char time[32] = "";
    strftime(date, sizeof(date), "%b %e %Y", &built);
    strftime(time, sizeof(time), "%H:%M:%S", &built);
    ExpectLines({Error("_NvrHttpCurlCltShowVersion", "[Error] compile time {%s %s}\n", date, time)});
}

TEST_F(ConsoleCommands, ShowWithoutInstancesSaysNothing)
{
    EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    ExpectLines({});
}

/* What the listing says of one instance as it is at this moment. */
Lines Listing(unsigned index)
{
    const TNvrHttpCurlCltInst *slot = Slot(index);
    Lines lines = {Show(SHOW, " inst[%d] %p, dwAsyncReqNum %u, dwAsyncReqMaxNum %u, dwTaskNum %u\n", index, Ptr(slot),
                        slot->dwAsyncReqNum, slot->dwAsyncReqMaxNum, slot->dwTaskNum)};
    for (uint32_t i = 0; i < slot->dwTaskNum; ++i) {
        const TNvrHttpCurlCltTask &task = slot->atTasks[i];
        lines.push_back(Show(
            SHOW, " >Task[%d]{%s}, UdpMonitorSock{bInit:%d, sock:%d, port:%d}, ptCurlMultiHandle{%p}\n", i,
            task.szThreadName, 1, task.tUdpMonitorSock.nSock, task.tUdpMonitorSock.wPort, Ptr(task.ptCurlMultiHandle)));
        lines.push_back(
            Show(SHOW, " >RunList{%d}, FinList{%d}\n", task.tRunList.dwNumOfElem, task.tFinList.dwNumOfElem));
    }
    return lines;
}

TEST_F(ConsoleCommands, ShowListsEveryUsableInstanceWithItsTasks)
{
    HNvrHttpCurlCltInst first = MustStart(2, 5);
    HNvrHttpCurlCltInst second = MustStart(0, 7);
    HNvrHttpCurlCltInst third = MustStart(1, 1024);
    fake::ClearLines();
    EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    ExpectLines(Listing(0) + Listing(1) + Listing(2));

    NvrHttpCurlCltUninit(second);
    fake::ClearLines();
    EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    ExpectLines(Listing(0) + Listing(2));

    NvrHttpCurlCltUninit(first);
    NvrHttpCurlCltUninit(third);
    fake::ClearLines();
    EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    ExpectLines({});
}

TEST_F(ConsoleCommands, ShowCountsQueuedAndFinishedRequests)
{
    HNvrHttpCurlCltInst instance = MustStart(1, 6);
    HNvrHttpCurlCltReq requests[3];
    for (HNvrHttpCurlCltReq &request : requests) {
        request = MustQueue(instance);
    }
    Finish(instance->atTasks[0], requests[0]);
    fake::ClearLines();
    EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    EXPECT_EQ(fake::CountTexts(", dwAsyncReqNum 3, dwAsyncReqMaxNum 6, dwTaskNum 1\n"), 1U);
    EXPECT_EQ(fake::CountTexts(" >RunList{2}, FinList{1}\n"), 1U);
    ExpectLines(Listing(0));
    for (const HNvrHttpCurlCltReq request : requests) {
        NvrHttpCurlCltReqDestroy(request);
    }
    NvrHttpCurlCltUninit(instance);
}

TEST_F(ConsoleCommands, ShowTakesNoLock)
{
    HNvrHttpCurlCltInst instance = MustStart(1);
    const HOspSem locks[] = {instance->hAsyncReqNumLock, instance->atTasks[0].hRunLock, instance->atTasks[0].hFinLock,
                             g_sEasyInitLocker};
    for (const HOspSem lock : locks) {
        OspSemTake(lock);
    }
    std::future<uint32_t> shown = std::async(std::launch::async, [] { return NvrHttpCurlCltshow(); });
    EXPECT_EQ(shown.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    for (const HOspSem lock : locks) {
        OspSemGive(lock);
    }
    EXPECT_EQ(shown.get(), 0U);
    NvrHttpCurlCltUninit(instance);
}

TEST_F(ConsoleCommands, ShowMayRunWhileWorkersDo)
{
    fake::RunTasks(true);
    HNvrHttpCurlCltInst instance = MustStart(4);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    }
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(fake::CountTexts(" inst[0] "), 50U);
}

TEST_F(ConsoleCommands, RunThroughTheirRegistration)
{
    NvrHttpCurlCltUninit(MustStart(0));
    HNvrHttpCurlCltInst instance = MustStart(0);
    fake::ClearLines();
    const std::vector<fake::CommandInfo> commands = fake::Commands();
    EXPECT_EQ(reinterpret_cast<uint32_t (*)()>(commands[0].command)(), 0U);
    EXPECT_EQ(reinterpret_cast<uint32_t (*)()>(commands[1].command)(), 0U);
    EXPECT_EQ(fake::CountTexts("compile time {"), 1U);
    EXPECT_EQ(fake::CountTexts(" inst[0] "), 1U);
    NvrHttpCurlCltUninit(instance);
}

/* --- records ------------------------------------------------------------------------------------------------------ */

TEST(InstanceTable, HasSixteenSlotsThatAreZeroAtLoad)
{
    EXPECT_EQ(sizeof(g_tNvrHttpCurlCltCont) / sizeof(g_tNvrHttpCurlCltCont[0]), 16U);
    const std::vector<unsigned char> bytes = TableBytes();
    EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0), static_cast<std::ptrdiff_t>(bytes.size()));
    EXPECT_EQ(g_sEasyInitLocker, nullptr);
}

TEST(InstanceTable, ItsRecordsKeepTheirFieldOrder)
{
    using Inst = TNvrHttpCurlCltInst;
    const size_t inst[] = {offsetof(Inst, bInited),          offsetof(Inst, tMemCB),
                           offsetof(Inst, atTasks),          offsetof(Inst, dwTaskNum),
                           offsetof(Inst, hAsyncReqNumLock), offsetof(Inst, dwAsyncReqNum),
                           offsetof(Inst, dwAsyncReqMaxNum)};
    EXPECT_TRUE(std::is_sorted(std::begin(inst), std::end(inst)));
    EXPECT_EQ(inst[0], 0U);
    using Task = TNvrHttpCurlCltTask;
    const size_t task[] = {
        offsetof(Task, hRunLock),       offsetof(Task, tRunList),     offsetof(Task, hFinLock),
        offsetof(Task, tFinList),       offsetof(Task, hTask),        offsetof(Task, qwTaskID),
        offsetof(Task, bExit),          offsetof(Task, szThreadName), offsetof(Task, ptCurlMultiHandle),
        offsetof(Task, tUdpMonitorSock)};
    EXPECT_TRUE(std::is_sorted(std::begin(task), std::end(task)));
    EXPECT_EQ(task[0], 0U);
}

} // namespace
