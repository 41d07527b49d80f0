#include "debuglog_file.h"

#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace
{

enum { RETRY_MS = 1000, LOCK_TRIES = 500, LOCK_PAUSE_US = 200, MAX_REPLACED = 100 };

uint64_t NowMs()
{
    timespec tNow;
    clock_gettime(CLOCK_MONOTONIC, &tNow);
    return static_cast<uint64_t>(tNow.tv_sec) * 1000 + static_cast<uint64_t>(tNow.tv_nsec) / 1000000;
}

bool IsOpenFile(const TLogFile &tFile, const struct stat &tStat)
{
    return tStat.st_dev == tFile.tDevice && tStat.st_ino == tFile.tInode;
}

/* A program that has closed all descriptors, as some daemons do, may have the number for a file of its own. */
bool HasDescriptor(const TLogFile &tFile)
{
    struct stat tStat;
    return tFile.nFile >= 0 && fstat(tFile.nFile, &tStat) == 0 && IsOpenFile(tFile, tStat);
}

void FindPath(TLogFile &tFile, const std::string &strName)
{
    if (tFile.strPath.empty()) {
        tFile.tPlace = FindLogPlace();
        tFile.strOlderPath = LogFilePath(tFile.tPlace, strName, ".1.log");
        tFile.strPath = LogFilePath(tFile.tPlace, strName, ".log");
    }
}

int Open(TLogFile &tFile)
{
    if (HasDescriptor(tFile)) {
        return 0;
    }
    tFile.nFile = -1;
    struct stat tStat = {};
    const int nProblem = OpenLogFile(tFile.tPlace, tFile.strPath, tFile.nFile, tStat);
    tFile.tDevice = tStat.st_dev;
    tFile.tInode = tStat.st_ino;
    return nProblem;
}

/*
 * A process that was stopped while it held the lock must not stop the others, so nobody waits
 * without end. False without the lock; the line is written nevertheless and nothing is renamed.
 * On a file system without locks every process has it.
 */
bool Lock(TLogFile &tFile)
{
    const int nTries = NowMs() < tFile.qwPatientFromMs ? 1 : LOCK_TRIES;
    for (int nTry = 0; nTry < nTries; nTry++) {
        if (nTry > 0) {
            usleep(LOCK_PAUSE_US);
        }
        if (flock(tFile.nFile, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
            return true;
        }
    }
    tFile.qwPatientFromMs = NowMs() + RETRY_MS;
    return false;
}

/* 0 or why not; LOG_FILE_REPLACED: not written, the file at the path has to be opened. */
int WriteTo(const TLogFile &tFile, bool bLocked, uint32_t dwMaxLen, const std::string &strLine)
{
    struct stat tStat;
    if (lstat(tFile.strPath.c_str(), &tStat) != 0 || !IsOpenFile(tFile, tStat)) {
        return LOG_FILE_REPLACED;
    }
    if (bLocked && tStat.st_size > 0 && static_cast<uint64_t>(tStat.st_size) + strLine.size() > dwMaxLen) {
        return rename(tFile.strPath.c_str(), tFile.strOlderPath.c_str()) == 0 ? LOG_FILE_REPLACED : errno;
    }
    if (LogWriteAll(tFile.nFile, strLine)) {
        return 0;
    }
    const int nProblem = errno;
    if (bLocked && ftruncate(tFile.nFile, tStat.st_size) != 0) { /* half a line stays and runs into the next one */
    }
    return nProblem;
}

int OpenAndWrite(TLogFile &tFile, uint32_t dwMaxLen, const std::string &strLine)
{
    int nProblem = Open(tFile);
    if (nProblem != 0) {
        return nProblem;
    }
    const bool bLocked = Lock(tFile);
    nProblem = WriteTo(tFile, bLocked, dwMaxLen, strLine);
    if (bLocked) {
        flock(tFile.nFile, LOCK_UN);
    }
    if (nProblem != 0) {
        LogFileClose(tFile);
    }
    return nProblem;
}

} // namespace

std::string LogFileAppend(TLogFile &tFile, const std::string &strName, uint32_t dwMaxLen, const std::string &strLine)
{
    if (NowMs() < tFile.qwNextTryMs) {
        return std::string();
    }
    FindPath(tFile, strName);
    int nProblem = LOG_FILE_REPLACED;
    for (int nTry = 0; nTry < MAX_REPLACED && nProblem == LOG_FILE_REPLACED; nTry++) {
        nProblem = OpenAndWrite(tFile, dwMaxLen, strLine);
    }
    const bool bReport = nProblem != 0 && !tFile.bReported;
    tFile.bReported = nProblem != 0;
    tFile.qwNextTryMs = nProblem != 0 ? NowMs() + RETRY_MS : 0;
    if (!bReport) {
        return std::string();
    }
    return "debug log: no file for " + strName + ": " + tFile.strPath + ": " + LogProblemText(nProblem) + "\n";
}

void LogFileClose(TLogFile &tFile)
{
    if (HasDescriptor(tFile)) {
        close(tFile.nFile);
    }
    tFile.nFile = -1;
}

void LogFileRestart(TLogFile &tFile)
{
    LogFileClose(tFile);
    tFile.strPath.clear();
    tFile.qwNextTryMs = 0;
}

bool LogWriteAll(int nFile, const std::string &strText)
{
    size_t uDone = 0;
    while (uDone < strText.size()) {
        const ssize_t nWritten = write(nFile, strText.data() + uDone, strText.size() - uDone);
        if (nWritten > 0) {
            uDone += static_cast<size_t>(nWritten);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}
