/*
 * The library's log of a run, read for the reasons of failures. The library prints it to standard
 * output, which is a pipe meanwhile.
 */
#ifndef TOOLS_POST_SEND_LOG_H
#define TOOLS_POST_SEND_LOG_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

struct TSendLog {
    int nPipe = -1;     /* the end to read from */
    bool bShow = false; /* passes all lines on to standard error */
    std::thread tReader;
    std::mutex tLock;
    std::map<std::string, uint32_t> tReasons; /* how often each was logged; under the lock until SendLogEnd */
};

/* Standard output becomes the pipe; false, with errno set, where it cannot. */
bool SendLogBegin(TSendLog &tLog, bool bShow);

/* Has the library print its log; for a module that has started. */
void SendLogTurnOn();

/* Its debug log's lines for the console go there, too: all that there is without the module. */
void SendLogTakeDebugLog();

/* All has been read. From here on standard output is standard error. */
void SendLogEnd(TSendLog &tLog);

#endif
