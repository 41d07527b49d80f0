/*
 * The commands of "nvrhttp console": what the library has registered with the platform, and
 * two of the program's own, "help" and "quit".
 *
 * A registered command gets its arguments as bare machine words and trusts them: a text where
 * it takes a number is a pointer read as a number, and the other way round a crash. The
 * arguments of the commands known here are therefore checked before one is called.
 */
#ifndef TOOLS_CONSOLE_CONSOLE_COMMANDS_H
#define TOOLS_CONSOLE_CONSOLE_COMMANDS_H

#include <string>
#include <vector>

struct TConsoleResult {
    bool bQuit = false;
    bool bAsyncTest = false; /* an asynchronous self-test was started */
    int nLogType = 0;        /* 1 to 3: the library's log switch was set to this */
};

/* Names of all commands, in their order. */
std::vector<std::string> ConsoleNames();

/* Runs a line. What is wrong with it, if anything, is printed in one line. */
TConsoleResult RunConsoleLine(const std::string &strLine);

#endif
