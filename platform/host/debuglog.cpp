/*
 * The host's debug log: modules and levels.
 *
 * The host has modules 0 to 255 and holds 4095 bytes in a line. At the start no level of a
 * module is switched on, neither console nor file takes a line, and a file's length is
 * 0x20000 bytes. The file is <name>.log, the previous one <name>.1.log, in the folder that
 * debuglog_place.h describes; several processes may write it. The console is standard error unless
 * the program names another descriptor: its standard output stays its own. A line begins with the prefix; in the file
 * the time follows.
 */
#include "platform/debuglog.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "debuglog_file.h"
#include "debuglog_host.h"

namespace
{

enum { MODULES = 256, LINE_SIZE = 4096, DEFAULT_FILE_LEN = 0x20000 };

/* Limits are the first level that does not pass; 64 bits hold the one after the last. */
struct TModule {
    std::string strPrefix; /* including the blank before the text */
    std::string strName;   /* empty until the module is registered */
    uint64_t qwSwitchLimit = 0;
    uint64_t qwStdioLimit = 0;
    uint64_t qwFileLimit = 0;
    uint32_t dwFileLen = DEFAULT_FILE_LEN;
    TLogFile tFile;
};

std::mutex s_tLock; /* guards the modules */

std::atomic<int> s_nConsole{STDERR_FILENO};

/*
 * Created by the first call that names the module and never destroyed: tasks may still log
 * while the process ends.
 */
TModule *s_aptModules[MODULES];

/*
 * Per module, the first level that no sink takes: the only state that an unwanted line
 * reads. It is a hint, read without ordering; the limits are checked again under the lock.
 */
std::atomic<uint64_t> s_aqwWantedLimit[MODULES];

/* A sink set to dwLevel takes lines of dwLevel and below; 0 takes none. */
uint64_t SinkLimit(uint32_t dwLevel)
{
    return dwLevel == 0 ? 0 : static_cast<uint64_t>(dwLevel) + 1;
}

/* The module, created if it is new. The lock is held; throws if there is no memory. */
TModule &GetModule(uint32_t dwModule)
{
    if (s_aptModules[dwModule] == nullptr) {
        s_aptModules[dwModule] = new TModule;
    }
    return *s_aptModules[dwModule];
}

void UpdateWanted(uint32_t dwModule, const TModule &tModule)
{
    const uint64_t qwSinkLimit = std::max(tModule.qwStdioLimit, tModule.qwFileLimit);
    const uint64_t qwWanted = tModule.strName.empty() ? 0 : std::min(tModule.qwSwitchLimit, qwSinkLimit);
    s_aqwWantedLimit[dwModule].store(qwWanted, std::memory_order_relaxed);
}

/* Changes a module's settings with pfChange, under the lock. Nonzero is success. */
template <typename TChange> uint32_t Change(uint32_t dwModule, TChange pfChange)
{
    if (dwModule >= MODULES) {
        return 0;
    }
    try {
        const std::lock_guard<std::mutex> tGuard(s_tLock);
        TModule &tModule = GetModule(dwModule);
        pfChange(tModule);
        UpdateWanted(dwModule, tModule);
        return 1;
    } catch (...) {
        return 0; /* no memory */
    }
}

/*
 * libc's lock of the time zone may be taken for ever in a forked child: another thread of the
 * parent was in localtime. The child therefore counts days itself, with the parent's offset.
 */
bool s_bForkedChild = false;
long s_nUtcOffset = 0; /* seconds, as of the latest fork */

long UtcOffset()
{
    const time_t tNow = time(nullptr);
    tm tLocal = {};
    localtime_r(&tNow, &tLocal);
    return tLocal.tm_gmtoff;
}

/* The Gregorian calendar without libc. Years begin in March, so that a leap day is their last. */
tm CalendarTime(time_t nSeconds)
{
    enum { DAY = 86400, DAYS_TO_1970 = 719468, DAYS_IN_400_YEARS = 146097 };
    const long nDays = nSeconds / DAY + DAYS_TO_1970;
    const long nDayOfEra = nDays % DAYS_IN_400_YEARS;
    const long nYearOfEra = (nDayOfEra - nDayOfEra / 1460 + nDayOfEra / 36524 - nDayOfEra / 146096) / 365;
    const long nDayOfYear = nDayOfEra - (365 * nYearOfEra + nYearOfEra / 4 - nYearOfEra / 100);
    const long nMonth = (5 * nDayOfYear + 2) / 153; /* 0 is March */
    tm tTime = {};
    tTime.tm_mday = static_cast<int>(nDayOfYear - (153 * nMonth + 2) / 5 + 1);
    tTime.tm_mon = static_cast<int>((nMonth + 2) % 12);
    tTime.tm_year = static_cast<int>(nDays / DAYS_IN_400_YEARS * 400 + nYearOfEra - 1900 + (nMonth > 9 ? 1 : 0));
    tTime.tm_hour = static_cast<int>(nSeconds % DAY / 3600);
    tTime.tm_min = static_cast<int>(nSeconds % 3600 / 60);
    tTime.tm_sec = static_cast<int>(nSeconds % 60);
    return tTime;
}

std::string LocalTime()
{
    timespec tNow;
    clock_gettime(CLOCK_REALTIME, &tNow);
    tm tLocal = {};
    if (s_bForkedChild) {
        tLocal = CalendarTime(tNow.tv_sec + s_nUtcOffset);
    } else {
        localtime_r(&tNow.tv_sec, &tLocal);
    }
    char achTime[96];
    snprintf(achTime, sizeof(achTime), "%04d-%02d-%02d %02d:%02d:%02d.%03ld ", tLocal.tm_year + 1900, tLocal.tm_mon + 1,
             tLocal.tm_mday, tLocal.tm_hour, tLocal.tm_min, tLocal.tm_sec, tNow.tv_nsec / 1000000);
    return achTime;
}

/* Writes to the file; returns what is for the console. */
std::string WriteToSinks(uint32_t dwModule, uint32_t dwLevel, const std::string &strText)
{
    const std::lock_guard<std::mutex> tGuard(s_tLock);
    TModule *ptModule = s_aptModules[dwModule];
    if (ptModule == nullptr || ptModule->strName.empty() || dwLevel >= ptModule->qwSwitchLimit) {
        return std::string();
    }
    std::string strConsole;
    if (dwLevel < ptModule->qwStdioLimit) {
        strConsole = ptModule->strPrefix + strText;
    }
    if (dwLevel < ptModule->qwFileLimit) {
        const std::string strLine = ptModule->strPrefix + LocalTime() + strText;
        strConsole += LogFileAppend(ptModule->tFile, ptModule->strName, ptModule->dwFileLen, strLine);
    }
    return strConsole;
}

/* The result of vsnprintf in a buffer of LINE_SIZE, with a newline at its end. */
std::string LineText(const char *achLine, int nLen)
{
    std::string strText(achLine, std::min(static_cast<size_t>(nLen), static_cast<size_t>(LINE_SIZE - 1)));
    if (strText.empty() || strText.back() != '\n') {
        strText += '\n';
    }
    return strText;
}

/* Formats a line that a sink takes. A function of its own: unwanted lines need no large stack frame. */
__attribute__((noinline, format(printf, 3, 0))) void PrintWanted(uint32_t dwModule, uint32_t dwLevel,
                                                                 const char *szFormat, va_list tArgs)
{
    const int nErrno = errno; /* the caller may still need it */
    char achLine[LINE_SIZE];
    const int nLen = vsnprintf(achLine, sizeof(achLine), szFormat, tArgs);
    if (nLen >= 0) { /* otherwise a text that the locale cannot convert */
        try {
            /* Without the lock: whoever reads the console may be slow. */
            LogWriteAll(s_nConsole, WriteToSinks(dwModule, dwLevel, LineText(achLine, nLen)));
        } catch (...) { /* no memory: the line is lost, the caller goes on */
        }
    }
    errno = nErrno;
}

/*
 * A thread that forks waits until no other one is in the log: its child finds everything whole and
 * the lock free. The child opens the files anew: with the parent's descriptor it would share the
 * parent's lock on the file, too.
 */
void LockForFork()
{
    s_tLock.lock();
    if (!s_bForkedChild) {
        s_nUtcOffset = UtcOffset();
    }
}

void UnlockInParent()
{
    s_tLock.unlock();
}

void UnlockInChild()
{
    s_bForkedChild = true;
    for (TModule *ptModule : s_aptModules) {
        if (ptModule != nullptr) {
            LogFileClose(ptModule->tFile);
        }
    }
    s_tLock.unlock();
}

__attribute__((constructor)) void PrepareForForks()
{
    pthread_atfork(LockForFork, UnlockInParent, UnlockInChild);
}

} // namespace

uint32_t DebugLogRegist(uint32_t dwModule, const char *szPrefix, const char *szName)
{
    if (szPrefix == nullptr || szName == nullptr || szName[0] == '\0') {
        return 0;
    }
    return Change(dwModule, [szPrefix, szName](TModule &tModule) {
        std::string strPrefix = szPrefix[0] != '\0' ? std::string(szPrefix) + " " : std::string();
        std::string strName = szName;
        if (tModule.strName != strName) {
            LogFileRestart(tModule.tFile);
        }
        tModule.strPrefix = std::move(strPrefix);
        tModule.strName = std::move(strName);
    });
}

uint32_t DebugLogMoudlePrintLevelOn(uint32_t dwModule, uint32_t dwLevel, uint32_t bOn)
{
    return Change(dwModule, [dwLevel, bOn](TModule &tModule) {
        const uint64_t qwLevel = dwLevel;
        tModule.qwSwitchLimit =
            bOn != 0 ? std::max(tModule.qwSwitchLimit, qwLevel + 1) : std::min(tModule.qwSwitchLimit, qwLevel);
    });
}

uint32_t DebugLogSetToStdioPrintf(uint32_t dwModule, uint32_t dwLevel)
{
    return Change(dwModule, [dwLevel](TModule &tModule) { tModule.qwStdioLimit = SinkLimit(dwLevel); });
}

uint32_t DebugLogSetLogFileLen(uint32_t dwModule, uint32_t dwBytes)
{
    if (dwBytes == 0) {
        return 0;
    }
    return Change(dwModule, [dwBytes](TModule &tModule) { tModule.dwFileLen = dwBytes; });
}

uint32_t DebugLogSetToFileLevel(uint32_t dwModule, uint32_t dwLevel)
{
    return Change(dwModule, [dwLevel](TModule &tModule) {
        tModule.qwFileLimit = SinkLimit(dwLevel);
        LogFileRestart(tModule.tFile);
    });
}

void DebugLogPrint(uint32_t dwModule, uint32_t dwLevel, const char *szFormat, ...)
{
    if (dwModule >= MODULES || dwLevel >= s_aqwWantedLimit[dwModule].load(std::memory_order_relaxed) ||
        szFormat == nullptr) {
        return;
    }
    va_list tArgs;
    va_start(tArgs, szFormat);
    PrintWanted(dwModule, dwLevel, szFormat, tArgs);
    va_end(tArgs);
}

void HostDebugLogSetConsole(int nFd)
{
    s_nConsole = nFd;
}
