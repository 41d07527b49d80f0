/* The two console commands of the engine: their registration and what they log. */
#include <ctime>
#include <future>

#include "tests/support/instance_fixture.h"

namespace
{

using namespace test;

/* --- registration -------------------------------------------------------------------------- */

class Registration : public InstanceTest
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

TEST_F(Registration, IsPartOfEachInitAndComesBeforeAnythingElse)
{
    onMalloc = [](size_t) { EXPECT_EQ(fake::Commands().size(), 2U); };
    NvrHttpCurlCltUninit(MustStart(1, 8, SpyMemCB()));
    EXPECT_EQ(fake::Mallocs(), 1U);
    ExpectCommands(1);
    NvrHttpCurlCltUninit(MustStart(0));
    ExpectCommands(2);
}

TEST_F(Registration, IsPartOfAnInitThatFails)
{
    HNvrHttpCurlCltInst none = nullptr;
    fake::FailMalloc(1);
    EXPECT_EQ(TryStart(1, &none), 5U);
    ExpectCommands(1);
    fake::FailSemCreate(1);
    EXPECT_EQ(TryStart(1, &none), 1U);
    ExpectCommands(2);
    for (int i = 0; i < 16; ++i) {
        MustStart(0);
    }
    EXPECT_EQ(TryStart(0, &none), 8U);
    ExpectCommands(2 + 16 + 1);
}

TEST_F(Registration, RunsTheCommands)
{
    NvrHttpCurlCltUninit(MustStart(0));
    MustStart(0);
    Forget();
    const std::vector<fake::CommandInfo> commands = fake::Commands();
    EXPECT_EQ(reinterpret_cast<uint32_t (*)()>(commands[0].command)(), 0U);
    EXPECT_EQ(reinterpret_cast<uint32_t (*)()>(commands[1].command)(), 0U);
    EXPECT_EQ(fake::CountTexts("compile time {"), 1U);
    EXPECT_EQ(fake::CountTexts(" inst[0] "), 1U);
}

/* --- NvrHttpCurlCltver ------------------------------------------------------------------------ */

using Commands = InstanceTest;

TEST_F(Commands, VersionLogsTheBuildTimeAsAnError)
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

/* --- NvrHttpCurlCltshow ----------------------------------------------------------------------- */

/* The lines of one instance as it is at this moment. */
Lines Listing(unsigned index)
{
    const char *const SHOW = "NvrHttpCurlCltshow";
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

/* The command logs these lines and nothing else. */
void ExpectShown(const Lines &expected)
{
    fake::ClearLines();
    EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    ExpectLines(expected);
}

TEST_F(Commands, ShowListsEveryUsableInstanceWithItsTasks)
{
    ExpectShown({});
    HNvrHttpCurlCltInst first = MustStart(2, 5);
    HNvrHttpCurlCltInst second = MustStart(0, 7);
    HNvrHttpCurlCltInst third = MustStart(1, 1024);
    ExpectShown(Listing(0) + Listing(1) + Listing(2));
    NvrHttpCurlCltUninit(second);
    ExpectShown(Listing(0) + Listing(2));
    NvrHttpCurlCltUninit(first);
    NvrHttpCurlCltUninit(third);
    ExpectShown({});
}

TEST_F(Commands, ShowCountsQueuedAndFinishedRequests)
{
    HNvrHttpCurlCltInst instance = MustStart(1, 6);
    HNvrHttpCurlCltReq requests[3];
    for (HNvrHttpCurlCltReq &request : requests) {
        request = MustQueue(instance);
    }
    Finish(instance->atTasks[0], requests[0]);
    Forget();
    EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    EXPECT_EQ(fake::CountTexts(", dwAsyncReqNum 3, dwAsyncReqMaxNum 6, dwTaskNum 1\n"), 1U);
    EXPECT_EQ(fake::CountTexts(" >RunList{2}, FinList{1}\n"), 1U);
    ExpectLines(Listing(0));
}

TEST_F(Commands, ShowTakesNoLock)
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
}

TEST_F(Commands, ShowMayRunWhileWorkersDo)
{
    fake::RunTasks(true);
    HNvrHttpCurlCltInst instance = MustStart(4);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(NvrHttpCurlCltshow(), 0U);
    }
    NvrHttpCurlCltUninit(instance);
    EXPECT_EQ(fake::CountTexts(" inst[0] "), 50U);
}

} // namespace
