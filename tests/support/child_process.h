/*
 * Programs that a test starts, and their standard streams.
 */
#ifndef TESTS_SUPPORT_CHILD_PROCESS_H
#define TESTS_SUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/wait.h"

namespace test
{

/* Exit status of a child whose inChild returned false, and of one whose program could not be run. */
enum { STATUS_REFUSED = 99, STATUS_NOT_RUN = 98 };

/* What is started, and how. */
struct Program {
    std::vector<std::string> command{};     /* path and arguments */
    std::vector<std::string> environment{}; /* NAME=value, in front of what this process has */
    std::function<bool()> inChild{};        /* runs before the program */
    int output = -1;                        /* standard output; -1: what the test reads from */
    int errors = -1;                        /* standard error; -1: the test's own, or the terminal */
    bool onTerminal = false;                /* a terminal of its own, 200 by 50 characters, in place of pipes */
};

/* A program that runs; it ends with this object, and with the test. */
class ChildProcess
{
  public:
    explicit ChildProcess(const Program &program);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    void Write(const std::string &text) const;
    void CloseInput();
    /* Waits for the text and takes all up to its end. Returns what came before it. */
    std::string ReadUntil(const std::string &text);
    /* All that is left, up to the end of the output. */
    std::string ReadToEnd();
    /* The test's end of the terminal. */
    int Terminal() const;

    void Signal(int number) const;
    /* The exit status; less than 0, the number of the signal that ended it: SIGKILL at the limit. */
    int Wait(std::chrono::milliseconds limit = PATIENCE);

  private:
    void StartOnPipes(const Program &program);
    void StartOnTerminal(const Program &program);
    bool ReadSome(std::chrono::steady_clock::time_point deadline);

    pid_t pid = -1;
    int input = -1;
    int output = -1; /* the same as input on a terminal */
    std::string pending;
};

/* A program that has ended, and what it wrote. */
struct Finished {
    int status = -1; /* as ChildProcess::Wait returns it */
    std::string output;
    std::string errors;
};

/* Runs a program to its end, with this text as its standard input. */
Finished RunProgram(const Program &program, const std::string &input = "");

/* Runs it without input, and expects this of it. */
void ExpectRun(const Program &program, int status, const std::string &output);

} // namespace test

#endif
