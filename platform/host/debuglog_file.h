/*
 * A file of the host's debug log, which other processes may write as well.
 *
 * Each line is one appending write under a lock on the file, after a look whether the file is
 * still the one at its path. So no line gets into a file that another process has renamed, and
 * one that was removed or renamed by anybody is created again by the next line. The first line
 * that does not fit renames the file, in place of the older one, and begins a new one: the two
 * together hold the newest lines without a gap. All processes should use the same length; with
 * different ones the smallest rules.
 */
#ifndef PLATFORM_HOST_DEBUGLOG_FILE_H
#define PLATFORM_HOST_DEBUGLOG_FILE_H

#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "debuglog_place.h"

struct TLogFile {
    TLogPlace tPlace;
    std::string strPath;      /* empty: looked for by the next line */
    std::string strOlderPath; /* the previous file */
    int nFile = -1;           /* opened by the next line */
    dev_t tDevice = 0;        /* of the open file */
    ino_t tInode = 0;
    uint64_t qwNextTryMs = 0;     /* lines before it are dropped */
    uint64_t qwPatientFromMs = 0; /* lines before it do not wait for the lock */
    bool bReported = false;       /* the present failure, on standard error */
};

/*
 * Appends a line that ends with a newline; a file of dwMaxLen bytes is full. Returns what is to be
 * reported on standard error, mostly nothing. A file that fails is tried again at most once a
 * second and reported once until it works again.
 */
std::string LogFileAppend(TLogFile &tFile, const std::string &strName, uint32_t dwMaxLen, const std::string &strLine);

void LogFileClose(TLogFile &tFile);

/* The next line looks for the place again, also after a failure. */
void LogFileRestart(TLogFile &tFile);

/* Writes all of a text; false, with errno, if that fails. */
bool LogWriteAll(int nFile, const std::string &strText);

#endif
