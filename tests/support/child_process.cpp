#include "tests/support/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <csignal>
#include <utility>

#include "tests/support/files.h"

namespace test
{

namespace
{

/* Of a whole program; less than what ctest gives a test. */
constexpr std::chrono::seconds RUN_LIMIT{150};

std::vector<char *> Pointers(const std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (const std::string &text : texts) {
        pointers.push_back(const_cast<char *>(text.c_str()));
    }
    return pointers;
}

void Redirect(int from, int to)
{
    if (from >= 0) {
        dup2(from, to);
    }
}

/* Starts the program; prepare gives the child its standard streams. All that allocates comes before the fork. */
pid_t Fork(const Program &program, const std::function<void()> &prepare)
{
    std::vector<char *> arguments = Pointers(program.command);
    std::vector<char *> environment = Pointers(program.environment);
    arguments.push_back(nullptr);
    for (char **setting = environ; *setting != nullptr; ++setting) {
        environment.push_back(*setting);
    }
    environment.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0) {
        EXPECT_GT(child, 0) << "no process for " << program.command[0];
        return child;
    }
    /* It ends with the test, also where the test is killed. */
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(STATUS_NOT_RUN);
    }
    std::signal(SIGPIPE, SIG_DFL);
    prepare();
    Redirect(program.output, STDOUT_FILENO);
    Redirect(program.errors, STDERR_FILENO);
    if (program.inChild && !program.inChild()) {
        _exit(STATUS_REFUSED);
    }
    execve(arguments[0], arguments.data(), environment.data());
    _exit(STATUS_NOT_RUN);
}

int AwaitEnd(pid_t pid, std::chrono::milliseconds limit)
{
    int status = 0;
    if (pid <= 0) {
        return -1;
    }
    if (!WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace

ChildProcess::ChildProcess(const Program &program)
{
    /* A program that has ended must not end the test that writes to it. */
    std::signal(SIGPIPE, SIG_IGN);
    if (program.onTerminal) {
        StartOnTerminal(program);
    } else {
        StartOnPipes(program);
    }
}

void ChildProcess::StartOnPipes(const Program &program)
{
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe";
        return;
    }
    pid = Fork(program, [&] {
        Redirect(toChild[0], STDIN_FILENO);
        Redirect(fromChild[1], STDOUT_FILENO);
    });
    close(toChild[0]);
    close(fromChild[1]);
    input = toChild[1];
    output = fromChild[0];
}

void ChildProcess::StartOnTerminal(const Program &program)
{
    const winsize size{50, 200, 0, 0};
    int terminal = -1;
    if (openpty(&input, &terminal, nullptr, nullptr, &size) != 0) {
        ADD_FAILURE() << "no pseudo-terminal";
        return;
    }
    fcntl(input, F_SETFD, FD_CLOEXEC);
    pid = Fork(program, [terminal] { login_tty(terminal); });
    close(terminal);
    output = input;
}

ChildProcess::~ChildProcess()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    if (output != input) {
        close(output);
    }
    CloseInput();
}

void ChildProcess::Write(const std::string &text) const
{
    ASSERT_EQ(write(input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void ChildProcess::CloseInput()
{
    if (input >= 0) {
        close(input);
    }
    input = -1;
}

/* False at the end of the output, which a terminal reports as an error, and at the deadline. */
bool ChildProcess::ReadSome(std::chrono::steady_clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    pollfd waiting{output, POLLIN, 0};
    char part[4096];
    if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) <= 0) {
        return false;
    }
    const ssize_t length = read(output, part, sizeof(part));
    pending.append(part, length > 0 ? static_cast<size_t>(length) : 0);
    return length > 0;
}

std::string ChildProcess::ReadUntil(const std::string &text)
{
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    size_t at = 0;
    while ((at = pending.find(text)) == std::string::npos) {
        if (!ReadSome(deadline)) {
            ADD_FAILURE() << "\"" << text << "\" did not come after:\n" << pending;
            return "";
        }
    }
    std::string before = pending.substr(0, at);
    pending.erase(0, at + text.size());
    return before;
}

std::string ChildProcess::ReadToEnd()
{
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (ReadSome(deadline)) {
    }
    return std::exchange(pending, "");
}

int ChildProcess::Terminal() const
{
    return input;
}

void ChildProcess::Signal(int number) const
{
    ASSERT_GT(pid, 0) << "it does not run";
    EXPECT_EQ(kill(pid, number), 0);
}

int ChildProcess::Wait(std::chrono::milliseconds limit)
{
    return AwaitEnd(std::exchange(pid, -1), limit);
}

Finished RunProgram(const Program &program, const std::string &input)
{
    const MemoryFile in(input);
    const MemoryFile out;
    const MemoryFile err;
    Program redirected = program;
    redirected.output = program.output >= 0 ? program.output : out.Descriptor();
    redirected.errors = program.errors >= 0 ? program.errors : err.Descriptor();
    const pid_t pid = Fork(redirected, [&in] { Redirect(in.Descriptor(), STDIN_FILENO); });
    const int status = AwaitEnd(pid, RUN_LIMIT);
    return {status, out.Text(), err.Text()};
}

void ExpectRun(const Program &program, int status, const std::string &output)
{
    const Finished run = RunProgram(program);
    EXPECT_EQ(run.status, status) << run.errors;
    EXPECT_EQ(run.output, output);
}

} // namespace test
