/* The host's debug log: several processes and one file, and forks. */
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "host_debuglog_fixture.h"
#include "tests/support/wait.h"

namespace
{

using namespace test;

class HostDebugLogShare : public HostDebugLogToFile
{
  protected:
    /* The lines of the previous file and of the file, in their order. */
    std::vector<std::string> History() const
    {
        std::vector<std::string> lines = LinesOf(File("Mod.1.log"));
        for (const std::string &line : LinesOf(File())) {
            lines.push_back(line);
        }
        return lines;
    }
};

pid_t Start(const std::function<void()> &work)
{
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    return child;
}

/* True if the child has done its work; one that hangs is ended. */
bool Finished(pid_t child, std::chrono::seconds limit = PATIENCE)
{
    int status = -1;
    if (!WaitUntil([child, &status] { return waitpid(child, &status, WNOHANG) == child; }, limit)) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void LogLines(int process, int count)
{
    for (int i = 0; i < count; i++) {
        DebugLogPrint(MODULE, 2, "process %d line %d end\n", process, i);
    }
}

void LogFromProcesses(int processes, int count)
{
    std::vector<pid_t> children;
    for (int process = 0; process < processes; process++) {
        children.push_back(Start([process, count] { LogLines(process, count); }));
    }
    for (const pid_t child : children) {
        EXPECT_TRUE(Finished(child));
    }
}

/* The numbers of each process's lines, in the order in which they are found. */
std::map<int, std::vector<int>> NumbersOf(const std::vector<std::string> &lines)
{
    std::map<int, std::vector<int>> numbers;
    for (const std::string &line : lines) {
        const size_t at = line.find("process ");
        int process = -1;
        int number = -1;
        char end[4] = "";
        EXPECT_EQ(at == std::string::npos ? 0
                                          : sscanf(line.c_str() + at, "process %d line %d %3s", &process, &number, end),
                  3)
            << line;
        EXPECT_STREQ(end, "end") << line;
        numbers[process].push_back(number);
    }
    return numbers;
}

/* What the two files hold of each process has no gap; up to the last line for one process at least. */
void ExpectNoGap(const std::vector<std::string> &lines, int count)
{
    int complete = 0;
    for (const auto &[process, numbers] : NumbersOf(lines)) {
        for (size_t i = 1; i < numbers.size(); i++) {
            EXPECT_EQ(numbers[i], numbers[i - 1] + 1) << "process " << process;
        }
        complete += numbers.back() == count - 1 ? 1 : 0;
    }
    EXPECT_GE(complete, 1);
}

/* --- several processes ----------------------------------------------------------------------------- */

/* 1,800 lines of 55 to 57 bytes: the file is renamed once. */
TEST_F(HostDebugLogShare, TwoProcessesLoseNoLineThroughARename)
{
    DebugLogSetLogFileLen(MODULE, 70000);
    LogFromProcesses(2, 900);
    EXPECT_EQ(FilesInFolder(), 2U);
    const std::map<int, std::vector<int>> numbers = NumbersOf(History());
    EXPECT_EQ(numbers.size(), 2U);
    for (const auto &[process, found] : numbers) {
        EXPECT_EQ(found.size(), 900U) << "process " << process;
    }
    ExpectNoGap(History(), 900);
}

TEST_F(HostDebugLogShare, ManyRenamesLeaveNoGap)
{
    DebugLogSetLogFileLen(MODULE, 3000);
    LogFromProcesses(4, 400);
    EXPECT_LE(fs::file_size(File()), 3000U);
    EXPECT_LE(fs::file_size(File("Mod.1.log")), 3000U);
    ExpectNoGap(History(), 400);
}

TEST_F(HostDebugLogShare, LineGoesToTheFileThatAnotherProcessHasBegun)
{
    DebugLogSetLogFileLen(MODULE, 1000);
    DebugLogPrint(MODULE, 2, "first\n");
    ASSERT_TRUE(Finished(Start([] { LogLines(0, 100); })));
    DebugLogPrint(MODULE, 2, "second\n");
    ASSERT_FALSE(LinesOf(File()).empty());
    EXPECT_NE(LinesOf(File()).back().find("second"), std::string::npos);
}

/* As a process that is stopped while it writes. */
TEST_F(HostDebugLogShare, LockThatIsNotGivenBackHoldsUpNobody)
{
    DebugLogSetLogFileLen(MODULE, 1000);
    LogLines(0, 1);
    const int other = open(File().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 1; i < 100; i++) {
        DebugLogPrint(MODULE, 2, "process 0 line %d end\n", i);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)) << "only the first line waits";
    EXPECT_EQ(LinesOf(File()).size(), 100U) << "without the lock nobody renames";
    close(other);
    DebugLogPrint(MODULE, 2, "process 0 line 100 end\n");
    EXPECT_EQ(LinesOf(File()).size(), 1U);
    ExpectNoGap(History(), 101);
}

/* --- fork ------------------------------------------------------------------------------------------- */

/* With its parent's descriptor it would share the parent's lock, too. */
TEST_F(HostDebugLogShare, ChildOpensTheFileAnew)
{
    DebugLogPrint(MODULE, 2, "parent\n");
    EXPECT_TRUE(Finished(Start([this] {
        if (!DescriptorsOf(File()).empty()) {
            _exit(1);
        }
        DebugLogPrint(MODULE, 2, "child\n");
    })));
    EXPECT_EQ(TextsOf(File()), "[Mod] parent\n[Mod] child\n");
}

TEST_F(HostDebugLogShare, ChildMayLogAtOnce)
{
    enum { FORKS = 50 };
    DebugLogSetLogFileLen(MODULE, 1U << 30);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&stop] {
            while (!stop) {
                DebugLogPrint(MODULE, 2, "parent\n");
            }
        });
        /* libc's lock of the time zone is not the log's. */
        threads.emplace_back([&stop] {
            for (time_t now = 0; !stop; ++now) {
                tm local = {};
                localtime_r(&now, &local);
            }
        });
    }
    int finished = 0;
    for (int i = 0; i < FORKS && finished == i; i++) {
        finished += Finished(Start([] { DebugLogPrint(MODULE, 2, "child\n"); }), std::chrono::seconds(20)) ? 1 : 0;
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(finished, FORKS);
    /* Each up to its minute: the children's clock is the parent's. */
    std::set<std::string> minutes;
    std::vector<std::string> ofChildren;
    for (const std::string &line : LinesOf(File())) {
        const size_t end = line.find(" parent");
        const size_t child = line.find(" child");
        if (end != std::string::npos) {
            minutes.insert(line.substr(0, end - strlen(":00.000")));
        } else if (child != std::string::npos) {
            ofChildren.push_back(line.substr(0, child - strlen(":00.000")));
        }
    }
    EXPECT_EQ(ofChildren.size(), size_t{FORKS});
    for (const std::string &minute : ofChildren) {
        EXPECT_EQ(minutes.count(minute), 1U) << minute;
    }
}

} // namespace
