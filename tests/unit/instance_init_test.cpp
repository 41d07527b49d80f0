/* Init: its arguments, the slot it takes, what it builds there. */
#include <algorithm>
#include <cerrno>

#include <netinet/in.h>

#include "support/hcc_log.h"
#include "tests/support/instance_fixture.h"

namespace
{

using namespace test;

/* --- arguments ---------------------------------------------------------------------------------- */

class InitArguments : public InstanceTest
{
  protected:
    /* Init returns 4, prints its one line and does nothing else. */
    void ExpectRefused(const TNvrHttpCurlCltInitParam *param, const TNvrHttpCurlCltMemCB *memoryCB,
                       HNvrHttpCurlCltInst *result)
    {
        const std::vector<unsigned char> before = TableBytes();
        const TNvrHttpCurlCltInitParam seen = param != nullptr ? *param : TNvrHttpCurlCltInitParam{};
        const TNvrHttpCurlCltMemCB callbacks = memoryCB != nullptr ? *memoryCB : TNvrHttpCurlCltMemCB{};
        uint32_t got = 0;
        const std::string printed = StandardOutputOf([&] { got = NvrHttpCurlCltInit(param, memoryCB, result); });
        EXPECT_EQ(got, 4U);
        EXPECT_EQ(printed,
                  Text("invalid arg, ptInitParam %p, dwThreadNum %u, dwMaxAsycReqNum %u, ptMemCB %p, pfMalloc %p, "
                       "pfRealloc %p, pfFree %p, phResult %p\n",
                       Ptr(param), seen.dwThreadNum, seen.dwMaxAsycReqNum, Ptr(memoryCB), Ptr(callbacks.pfMalloc),
                       Ptr(callbacks.pfRealloc), Ptr(callbacks.pfFree), Ptr(result)));
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

TEST_F(InitArguments, AreRefusedWhereMissingOrTooLarge)
{
    const TNvrHttpCurlCltInitParam params[] = {{17, 8}, {0xFFFFFFFFU, 8}, {2, 1025}, {2, 0xFFFFFFFFU}};
    for (const TNvrHttpCurlCltInitParam &param : params) {
        SCOPED_TRACE(Text("%u tasks, %u requests", param.dwThreadNum, param.dwMaxAsycReqNum));
        ExpectRefused(&param, &memory, &instance);
    }
    const TNvrHttpCurlCltMemCB memories[] = {{nullptr, memory.pfRealloc, memory.pfFree},
                                             {memory.pfMalloc, nullptr, memory.pfFree},
                                             {memory.pfMalloc, memory.pfRealloc, nullptr},
                                             {}};
    for (const TNvrHttpCurlCltMemCB &partial : memories) {
        ExpectRefused(&good, &partial, &instance);
    }
    ExpectRefused(nullptr, &memory, &instance);
    ExpectRefused(&good, nullptr, &instance);
    ExpectRefused(&good, &memory, nullptr);
    ExpectRefused(&params[2], &memories[3], nullptr);
    ExpectRefused(nullptr, nullptr, nullptr);
}

TEST_F(InitArguments, AreRefusedInPrintWhateverTheLogSwitchSays)
{
    for (const unsigned type : {0U, 1U, 2U, 3U}) {
        g_bySendCurlLogType = static_cast<uint8_t>(type);
        ExpectRefused(nullptr, &memory, &instance);
    }
}

TEST_F(InitArguments, MayBeSixteenTasksAnd1024RequestsOrNone)
{
    ASSERT_EQ(TryStart(0, &instance, 0), 0U) << fake::Transcript();
    EXPECT_EQ(instance, Slot(0));
    EXPECT_EQ(instance->bInited, 1U);
    EXPECT_EQ(instance->atTasks, nullptr);
    EXPECT_EQ(instance->dwTaskNum, 0U);
    EXPECT_EQ(instance->dwAsyncReqMaxNum, 0U);
    EXPECT_EQ(fake::Mallocs(), 0U);
    ASSERT_EQ(TryStart(16, &instance, 1024), 0U) << fake::Transcript();
    EXPECT_EQ(instance, Slot(1));
    EXPECT_EQ(instance->dwTaskNum, 16U);
    EXPECT_EQ(instance->dwAsyncReqMaxNum, 1024U);
    EXPECT_EQ(fake::Tasks().size(), 16U);
}

/* --- slots -------------------------------------------------------------------------------------------- */

using Slots = InstanceTest;

TEST_F(Slots, TheFirstFreeOneIsTaken)
{
    NvrHttpCurlCltUninit(MustStart(2));
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(MustStart(2), Slot(i));
        EXPECT_EQ(Slot(i)->bInited, 1U);
        EXPECT_EQ(Slot(i)->atTasks[0].szThreadName, Text("NvrHttpCurlClt0%u00", i));
        EXPECT_EQ(Slot(i)->atTasks[1].szThreadName, Text("NvrHttpCurlClt0%u01", i));
    }
    NvrHttpCurlCltUninit(Slot(1));
    EXPECT_EQ(MustStart(1), Slot(1));
    EXPECT_STREQ(Slot(1)->atTasks[0].szThreadName, "NvrHttpCurlClt0100");
    EXPECT_EQ(MustStart(1), Slot(3));
}

TEST_F(Slots, TheSeventeenthInitReturns8AndTouchesNone)
{
    for (int i = 0; i < 16; ++i) {
        MustStart(1);
    }
    const std::vector<unsigned char> before = TableBytes();
    const size_t sems = fake::SemsCreated();
    const size_t mallocs = fake::Mallocs();
    Forget();
    HNvrHttpCurlCltInst none = Slot(7);
    EXPECT_EQ(TryStart(1, &none), 8U);
    EXPECT_EQ(none, Slot(7));
    EXPECT_EQ(TableBytes(), before);
    EXPECT_EQ(fake::SemsCreated(), sems);
    EXPECT_EQ(fake::Mallocs(), mallocs);
    ExpectLines({TickLine()});
}

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
    EXPECT_GE(sizeof(Task::szThreadName), 32U);
}

/* --- what Init builds ---------------------------------------------------------------------------------- */

using Init = InstanceTest;

/* Binds nothing, refuses nothing: the first task has 46990, the next 46989 and so on. */
int PretendToBind(int, const sockaddr *address, socklen_t)
{
    static std::set<uint16_t> taken;
    if (taken.insert(reinterpret_cast<const sockaddr_in *>(address)->sin_port).second) {
        return 0;
    }
    errno = EADDRINUSE;
    return -1;
}

TEST_F(Init, LogsAndPrimesTheTickRate)
{
    unsigned asked = 0;
    hooks::sys_sysconf = [&asked](int) {
        ++asked;
        return 1L; /* tick in a second */
    };
    MustStart(0);
    ExpectLines({Info(INIT, " NVRHCCTickToMS(1) return %u\n", 1000U)});
    EXPECT_EQ(NVRHCCTickToMS(2), 2000U);
    EXPECT_EQ(asked, 1U);
}

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
}

TEST_F(Init, FillsEveryTaskRecordOfOneBlockAlthoughFreshMemoryIsFullOfRubbish)
{
    std::vector<size_t> sizes;
    onMalloc = [&sizes](size_t size) { sizes.push_back(size); };
    HNvrHttpCurlCltInst instance = MustStart(3, 8, SpyMemCB());
    EXPECT_EQ(sizes, (std::vector<size_t>{3 * sizeof(TNvrHttpCurlCltTask)}));
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
            EXPECT_EQ(list->pfRealloc, fake::MemCB().pfRealloc);
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
}

TEST_F(Init, StartsEachThreadWithItsSettings)
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
}

TEST_F(Init, NamesThreadsBySlotAndTask)
{
    for (unsigned i = 0; i < 16; ++i) {
        MustStart(i == 0 || i == 15 ? 16 : i == 2 ? 4 : 0);
    }
    const struct {
        unsigned slot;
        unsigned task;
        size_t started; /* threads before it */
        const char *name;
    } cases[] = {{0, 9, 9, "NvrHttpCurlClt0009"},    {0, 10, 10, "NvrHttpCurlClt00010"},
                 {0, 15, 15, "NvrHttpCurlClt00015"}, {2, 3, 19, "NvrHttpCurlClt0203"},
                 {15, 9, 29, "NvrHttpCurlClt01509"}, {15, 15, 35, "NvrHttpCurlClt015015"}};
    for (const auto &each : cases) {
        EXPECT_STREQ(Slot(each.slot)->atTasks[each.task].szThreadName, each.name);
        EXPECT_EQ(fake::Tasks().at(each.started).name, each.name);
    }
}

TEST_F(Init, LogsEachStepInOrder)
{
    const char *const SOCKET = "_NvrHttpCurlCltSocket_CreateUdpSocket";
    const char *const MONITOR = "_NvrHttpCurlCltCreateUdpMonitor";
    hooks::sys_sysconf = [](int) { return 100L; };
    hooks::sys_bind = PretendToBind;
    HNvrHttpCurlCltInst instance = MustStart(2);
    Lines want = {Info(INIT, " NVRHCCTickToMS(1) return %u\n", 0U)};
    for (unsigned i = 0; i < 2; ++i) {
        const TNvrHttpCurlCltTask &task = instance->atTasks[i];
        const int fd = task.tUdpMonitorSock.nSock;
        const unsigned port = 46990 - i;
        EXPECT_EQ(task.tUdpMonitorSock.wPort, port);
        if (i == 1) {
            want.push_back(Error(SOCKET, "[Error] bind() failed, errno %d{%s}\n", EADDRINUSE, strerror(EADDRINUSE)));
            want.push_back(Error(MONITOR, "[Error] websCreateUdpMonitor() PortII[%d] is Occupied\n", 46990));
        }
        want.push_back(Info(SOCKET, " create s_nTheUdpSock %d, %d\n", fd, fd));
        want.push_back(Info(MONITOR, " _NvrHttpCurlCltCreateUdpMonitor(), %s:%d\n", "127.0.0.1", port));
        want.push_back(Info(MONITOR, " get socket port wPortII %d\n", port));
        want.push_back(Info(MONITOR, " return *pwPort %d, *pbCreatSocket %d\n", port, 1));
        want.push_back(Info(INIT, " Task[%p] szThreadName {%s}\n",
                            reinterpret_cast<void *>(static_cast<uintptr_t>(task.qwTaskID)),
                            Text("NvrHttpCurlClt000%u", i).c_str()));
    }
    ExpectLines(want);
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
    MustStart(3);
    EXPECT_EQ(index, 3U);
    EXPECT_EQ(hooks::Calls("curl_multi_cleanup"), 0U);
}

TEST_F(Init, TheThreadsRun)
{
    fake::RunTasks(true);
    MustStart(4);
    EXPECT_TRUE(WaitUntil([] { return fake::CountTexts(" thread name {NvrHttpCurlClt000") == 4; }));
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

TEST_F(EasyInitLocker, OutlivesTheInstanceUntilTheNext)
{
    EXPECT_EQ(g_sEasyInitLocker, nullptr);
    NvrHttpCurlCltUninit(MustStart(1));
    const HOspSem old = g_sEasyInitLocker;
    ASSERT_NE(old, nullptr);
    ExpectUsable(old);
    EXPECT_EQ(fake::SemsAlive(), 1U);
    NvrHttpCurlCltUninit(MustStart(0));
    EXPECT_NE(g_sEasyInitLocker, old);
    EXPECT_EQ(fake::SemsAlive(), 2U);
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

} // namespace
